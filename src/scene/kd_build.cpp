// KD-tree build: argument checks, the single-leaf build, the surface-area
// build driver (working storage, budget, subdivision loop, clipping of
// straddling triangles) and the writing of the position-independent block.
#include "scene/kd_build.h"

#include <algorithm>
#include <cmath>

#include "core/lanes.h"
#include "scene/sah_split.h"

namespace {

using vekr::ownTreeAllocBytes;

// Every triangle in one list leaf at the root: link = -16 (the list follows
// the 16-byte root slot), value = count, list 0 .. n-1.
VekStatus ownBuildSingleLeaf(VekrKDTreeNode** ppTree, int numTriangles, int* pSize) {
    const std::int64_t size = 16 + 4 * static_cast<std::int64_t>(numTriangles);
    const std::int64_t bytes = ownTreeAllocBytes(size);
    if (bytes > 0x7FFFFFFF) return vekStatusNoMemory;
    auto* block = static_cast<std::int32_t*>(vekMalloc(static_cast<int>(bytes)));
    if (block == nullptr) return vekStatusNoMemory;
    block[0] = -16;
    block[1] = numTriangles;
    block[2] = 0;
    block[3] = 0;
    std::int32_t* list = block + 4;
    for (int i = 0; i < numTriangles; ++i) list[i] = i;
    *ppTree = reinterpret_cast<VekrKDTreeNode*>(block);
    *pSize = static_cast<int>(size);
    return vekStatusOk;
}

inline bool ownDepthInRange(int d) { return d >= 0 && d <= 50; }

}  // namespace

// ---------------------------------------------------------------------------
// Surface-area build
// ---------------------------------------------------------------------------

namespace {

using vekr::ownBitsFloat;
using vekr::ownFloatBits;
using vekr::OwnSplit;
using vekr::OwnTriEntry;
using vekr::OwnD2;
using vekr::ownLoadLow;
using vekr::ownLoadU;
using vekr::ownMax;
using vekr::ownMin;
using vekr::ownPrefetch;
using vekr::ownStoreLow;
using vekr::ownStoreU;

// Budget arithmetic. The up-front test asks for 84 bytes per triangle (twelve
// 4-byte arrays and one 36-byte working record), 12 per vertex and two spare
// 16 MB blocks plus the control record; every node block then charges its
// 16 MB of words and its 20-byte header.
constexpr std::int64_t kBlockBytes = 16777216;
constexpr std::uint32_t kBlockWords = 4194304;
constexpr std::int64_t kBlockHeaderBytes = 20;
constexpr std::int64_t kBlockCharge = kBlockBytes + kBlockHeaderBytes;  // 16,777,236
constexpr std::int64_t kControlBytes = 244;
constexpr std::int64_t kEntryRecordBytes = 36;
constexpr int kMaxBlocks = 512;
constexpr int kMaxStack = 64;  // depth is at most 50

// The whole-block area for `bytes` bytes of records: whole 16 MB blocks with
// one spare block.
inline std::int64_t ownBlockArea(std::int64_t bytes) { return kBlockBytes * (bytes / kBlockBytes + 1); }

// Working nodes live in a word arena of 16 MB blocks; a node is four words
// (tag, value, reference, spare), an inner node's children are a pair of
// nodes (eight words), a leaf's triangle list is `count` words. References
// are 32-bit (block << 22 | word), the same on every target, so the budget
// arithmetic does not depend on the pointer size.
constexpr std::uint32_t kLeafTag = 0x80000000u;

// The 20 bytes in front of each block's words: the address of the previous
// block (8 bytes whatever the pointer size, so the charge is the same on
// every target), then the block's capacity in words and 8 reserved bytes.
// The blocks form a list from the newest back to the first, which is how
// they are released.
struct OwnBlockHeader {
    unsigned char bytes[kBlockHeaderBytes];
};

struct OwnArena {
    unsigned char* pLast;               // the newest block (header first)
    std::uint32_t* pWords[kMaxBlocks];  // each block's words, for references
    int numBlocks;
    std::uint32_t used;      // words used in the newest block
    std::uint32_t capacity;  // words in the newest block
    std::int64_t remaining;  // budget left, in bytes
};

// The control record: the arena and the working arrays of one build.
struct OwnBuild {
    OwnArena arena;
    vekr::OwnEventStore events;
    OwnTriEntry* pEntries;
    std::int64_t entryCapacity;
    OwnTriEntry* pUpperTemp;  // the upper child's entries while they are formed
};

// Reserves `words` words; *pRef receives their reference. A new block charges
// one block's worth against the budget; a leaf list longer than a block gets
// a block of its own, charged for as many blocks as it spans and not shared
// (so that word offsets in references stay below 2^22).
VekStatus ownArenaAlloc(OwnArena& ar, std::uint32_t words, std::uint32_t* pRef) {
    if (ar.numBlocks == 0 || ar.capacity - ar.used < words) {
        const std::int64_t units =
            words <= kBlockWords ? 1 : (static_cast<std::int64_t>(words) + kBlockWords - 1) / kBlockWords;
        for (std::int64_t u = 0; u < units; ++u) {
            if (ar.remaining < kBlockCharge) return vekStatusBudgetExhausted;
            ar.remaining -= kBlockCharge;
        }
        if (ar.numBlocks == kMaxBlocks) return vekStatusBudgetExhausted;
        const std::int64_t bytes = kBlockHeaderBytes + units * kBlockBytes;
        if (bytes > 0x7FFFFFFF) return vekStatusNoMemory;
        auto* raw = static_cast<unsigned char*>(vekMalloc(static_cast<int>(bytes)));
        if (raw == nullptr) return vekStatusNoMemory;
        OwnBlockHeader h{};
        const std::uint64_t prev = reinterpret_cast<std::uintptr_t>(ar.pLast);
        const std::uint32_t cap = static_cast<std::uint32_t>(units * kBlockWords);
        std::memcpy(h.bytes, &prev, 8);
        std::memcpy(h.bytes + 8, &cap, 4);
        std::memcpy(raw, &h, sizeof h);
        ar.pLast = raw;
        ar.pWords[ar.numBlocks] = reinterpret_cast<std::uint32_t*>(raw + kBlockHeaderBytes);
        ++ar.numBlocks;
        ar.used = 0;
        ar.capacity = cap;
    }
    *pRef = (static_cast<std::uint32_t>(ar.numBlocks - 1) << 22) | ar.used;
    ar.used = words > kBlockWords ? ar.capacity : ar.used + words;
    return vekStatusOk;
}

inline std::uint32_t* ownWords(const OwnArena& ar, std::uint32_t ref) {
    return ar.pWords[ref >> 22] + (ref & 0x3FFFFFu);
}

// Releases the node blocks, newest first, along their header links.
void ownReleaseBlocks(OwnArena& ar) {
    while (ar.pLast != nullptr) {
        std::uint64_t prev;
        std::memcpy(&prev, ar.pLast, 8);
        vekFree(ar.pLast);
        ar.pLast = reinterpret_cast<unsigned char*>(static_cast<std::uintptr_t>(prev));
    }
    ar.numBlocks = 0;
}

// Releases the per-triangle working arrays (not the node blocks).
void ownReleaseArrays(OwnBuild* b) {
    vekr::OwnEventStore& ev = b->events;
    for (int k = 0; k < 2; ++k)
        for (int a = 0; a < 3; ++a) {
            vekFree(ev.pItems[k][a]);
            ev.pItems[k][a] = nullptr;
        }
    for (std::uint64_t*& p : ev.pScratch) {
        vekFree(p);
        p = nullptr;
    }
    vekFree(ev.pLowerIndex);
    vekFree(ev.pUpperIndex);
    vekFree(ev.pSide);
    ev.pLowerIndex = ev.pUpperIndex = ev.pSide = nullptr;
    vekFree(b->pEntries);
    vekFree(b->pUpperTemp);
    b->pEntries = b->pUpperTemp = nullptr;
}

void ownReleaseBuild(OwnBuild* b) {
    if (b == nullptr) return;
    ownReleaseBlocks(b->arena);
    ownReleaseArrays(b);
    vekFree(b);
}

// vekMalloc of `count` elements of T, or null when the size does not fit.
template <class T>
T* ownAllocArray(std::int64_t count) {
    const std::int64_t bytes = std::max<std::int64_t>(count, 1) * static_cast<std::int64_t>(sizeof(T));
    if (bytes > 0x7FFFFFFF) return nullptr;
    return static_cast<T*>(vekMalloc(static_cast<int>(bytes)));
}

// +0 for -0, so that equal extents have equal sort keys.
inline float ownCanonical(float f) { return f + 0.0f; }

// f < lo ? lo : (f > hi ? hi : f), written as two plain selects that the
// compiler can make branch-free: which bound (if any) applies to a trimmed
// extent is not predictable.
inline float ownClamp(float f, float lo, float hi) {
    const float capped = hi < f ? hi : f;
    return f < lo ? lo : capped;
}

// The neighbours of a float f that is not NaN, as nextafter(f, -inf) and
// nextafter(f, +inf) give them (f = -inf and f = +inf respectively never
// reach here): a step of the bit pattern away from or towards zero, and from
// either zero to the smallest denormal of the requested sign. Written out
// because the library call took about a tenth of the clipping's time.
inline float ownFloatBelow(float f) {
    const std::uint32_t b = ownFloatBits(f);
    if ((b & 0x7FFFFFFFu) == 0) return ownBitsFloat(0x80000001u);
    return ownBitsFloat(b & 0x80000000u ? b + 1 : b - 1);
}
inline float ownFloatAbove(float f) {
    const std::uint32_t b = ownFloatBits(f);
    if ((b & 0x7FFFFFFFu) == 0) return ownBitsFloat(0x00000001u);
    return ownBitsFloat(b & 0x80000000u ? b - 1 : b + 1);
}

// Largest float not above d, smallest float not below d: the clipped extent
// is rounded outwards so that it still covers the exact one. (A NaN d fails
// both tests and passes through.)
inline float ownFloatDown(double d) {
    const float f = static_cast<float>(d);
    return static_cast<double>(f) > d ? ownFloatBelow(f) : f;
}
inline float ownFloatUp(double d) {
    const float f = static_cast<float>(d);
    return static_cast<double>(f) < d ? ownFloatAbove(f) : f;
}

// Sutherland-Hodgman clipping in double precision. A polygon of up to 9
// vertices (a triangle cut by six planes) is kept in one of a few buffers.
struct OwnPolygon {
    double v[12][3];
};

// Cuts the n-vertex polygon `in` by one face of a box: the half-space
// x[a] >= plane (side 0) or x[a] <= plane (side 1). Each crossing point is
// set exactly onto the plane. Returns the polygon that remains: `in` itself
// when every vertex is inside (no copy), else `out` with *pN updated (0 when
// nothing remains).
const OwnPolygon* ownClipPlane(const OwnPolygon* in, OwnPolygon* out, int* pN, int a, int side, double plane) {
    const int n = *pN;
    // Signed distance inside the half-space, once per vertex: >= 0 keeps the
    // point.
    double dist[12];
    bool allIn = true;
    for (int i = 0; i < n; ++i) {
        dist[i] = side == 0 ? in->v[i][a] - plane : plane - in->v[i][a];
        allIn &= dist[i] >= 0.0;
    }
    if (allIn) return in;
    int m = 0;
    for (int i = 0; i < n; ++i) {
        const int iq = i + 1 == n ? 0 : i + 1;
        const double* p = in->v[i];
        const double* q = in->v[iq];
        const double dp = dist[i], dq = dist[iq];
        // x and y in one register, z apart: the same operations per
        // coordinate.
        const OwnD2 pxy = ownLoadU(p);
        if (dp >= 0.0) {
            ownStoreU(out->v[m], pxy);
            out->v[m][2] = p[2];
            ++m;
        }
        if ((dp >= 0.0) != (dq >= 0.0)) {
            const double t = dp / (dp - dq);
            ownStoreU(out->v[m], pxy + OwnD2(t) * (ownLoadU(q) - pxy));
            out->v[m][2] = p[2] + t * (q[2] - p[2]);
            out->v[m][a] = plane;
            ++m;
        }
    }
    *pN = m;
    return out;
}

// Cuts the polygon by the enabled faces of axes [a0, a1) of the box [lo, hi],
// in the order lower face, upper face, axis by axis; bit 2a (2a + 1) of
// `planes` enables the lower (upper) face of axis a. The two scratch buffers
// take turns; returns the remaining polygon (*pN = 0 when none remains).
const OwnPolygon* ownClipAxes(const OwnPolygon* poly, OwnPolygon scratch[2], int* pN, const float lo[3],
                              const float hi[3], unsigned planes, int a0, int a1) {
    // The enabled faces in bit order, which is the order above.
    unsigned faces = planes & ((1u << (2 * a1)) - 1) & ~((1u << (2 * a0)) - 1);
    while (faces != 0 && *pN > 0) {
        const int bit = __builtin_ctz(faces);
        faces &= faces - 1;
        const int a = bit >> 1, side = bit & 1;
        OwnPolygon* out = poly == &scratch[0] ? &scratch[1] : &scratch[0];
        poly = ownClipPlane(poly, out, pN, a, side, side == 0 ? lo[a] : hi[a]);
    }
    return poly;
}

// The extent of a clipped polygon, rounded outwards and kept inside the box.
void ownPolygonExtent(const OwnPolygon* poly, int n, const float lo[3], const float hi[3], float outLo[3],
                      float outHi[3]) {
    // The least and greatest coordinate per axis, x and y in one register, z
    // in lane 0 of another: ownMin(v, mn) is v < mn ? v : mn, as
    // std::min(mn, v), and likewise ownMax for std::max.
    OwnD2 mnXY = ownLoadU(poly->v[0]), mxXY = mnXY;
    OwnD2 mnZ = ownLoadLow(poly->v[0] + 2), mxZ = mnZ;
    for (int i = 1; i < n; ++i) {
        const OwnD2 xy = ownLoadU(poly->v[i]), z = ownLoadLow(poly->v[i] + 2);
        mnXY = ownMin(xy, mnXY);
        mxXY = ownMax(xy, mxXY);
        mnZ = ownMin(z, mnZ);
        mxZ = ownMax(z, mxZ);
    }
    double mn[3], mx[3];
    ownStoreU(mn, mnXY);
    ownStoreU(mx, mxXY);
    ownStoreLow(mn + 2, mnZ);
    ownStoreLow(mx + 2, mxZ);
    for (int a = 0; a < 3; ++a) {
        outLo[a] = ownCanonical(ownClamp(ownFloatDown(mn[a]), lo[a], hi[a]));
        outHi[a] = ownCanonical(ownClamp(ownFloatUp(mx[a]), lo[a], hi[a]));
    }
}

void ownLoadTriangle(OwnPolygon* poly, const float* v0, const float* v1, const float* v2) {
    for (int a = 0; a < 3; ++a) {
        poly->v[0][a] = v0[a];
        poly->v[1][a] = v1[a];
        poly->v[2][a] = v2[a];
    }
}

// Extent of the part of triangle (v0, v1, v2) inside the box [lo, hi].
// Returns false when no part lies inside. Faces left out of `planes` must not
// cut the triangle's part inside the others.
bool ownClipTriangle(const float* v0, const float* v1, const float* v2, const float lo[3], const float hi[3],
                     float outLo[3], float outHi[3], unsigned planes = 63u) {
    OwnPolygon tri, scratch[2];
    ownLoadTriangle(&tri, v0, v1, v2);
    int n = 3;
    const OwnPolygon* poly = ownClipAxes(&tri, scratch, &n, lo, hi, planes, 0, 3);
    if (n == 0) return false;
    ownPolygonExtent(poly, n, lo, hi, outLo, outHi);
    return true;
}

// The faces of the child box [lo, hi] that can cut the part of a triangle
// whose current extent is e: only faces that the extent reaches. Where the
// extent lies strictly inside a face, the part inside the parent box does not
// meet that face, and by convexity neither does any part inside the others.
unsigned ownCuttingFaces(const OwnTriEntry& e, const float lo[3], const float hi[3]) {
    unsigned planes = 0;
    for (int a = 0; a < 3; ++a) {
        if (!(e.lo[a] > lo[a])) planes |= 1u << (2 * a);
        if (!(e.hi[a] < hi[a])) planes |= 2u << (2 * a);
    }
    return planes;
}

// The entry for the part of its triangle inside a child box [lo, hi], given
// the clipped polygon of that part (n = 0: nothing left through rounding, the
// triangle only touches the box). Never wider than before (the old extent
// already covered the part); should rounding leave no overlap on an axis, or
// no part at all, the old extent cut to the box is kept, so the child count
// always matches the search's prediction.
void ownFinishTrim(OwnTriEntry& e, const OwnPolygon* poly, int n, const float lo[3], const float hi[3]) {
    if (n > 0) {
        float nlo[3], nhi[3];
        ownPolygonExtent(poly, n, lo, hi, nlo, nhi);
        for (int a = 0; a < 3; ++a) {
            const float l = std::max(nlo[a], e.lo[a]), h = std::min(nhi[a], e.hi[a]);
            if (l <= h) {
                e.lo[a] = l;
                e.hi[a] = h;
            }
        }
    }
    for (int a = 0; a < 3; ++a) {
        e.lo[a] = ownClamp(e.lo[a], lo[a], hi[a]);
        e.hi[a] = ownClamp(e.hi[a], lo[a], hi[a]);
    }
}

// The entries for the two parts of a triangle that straddles the plane of a
// split on axis `a` between the child boxes [lo, hiL] and [loU, hi] (equal
// but for the split axis). Its extent is recomputed by clipping it against
// each child's box: this trims it on every axis, not only the split axis,
// which keeps child boxes and later empty-space cuts tight. The two boxes
// share their faces on the axes before `a`, and so do the faces that can cut
// the triangle there, so that common first part of the clipping is done once
// for both children; the rest follows each child's own faces in the same
// order as a clip against that child's box alone.
void ownTrimStraddler(const OwnTriEntry& e, const float* pVertices, const int* pTriangles, int a, const float loL[3],
                      const float hiL[3], const float loU[3], const float hiU[3], OwnTriEntry* pLower,
                      OwnTriEntry* pUpper) {
    const int* tri = pTriangles + 4 * static_cast<std::ptrdiff_t>(vekr::ownEntryTriangle(e));
    // The faces of the parent box [loL, hiU] serve both children but on the
    // split plane, which the straddler reaches from either side.
    const unsigned facesParent = ownCuttingFaces(e, loL, hiU);
    const unsigned facesL = facesParent | (2u << (2 * a));
    const unsigned facesU = facesParent | (1u << (2 * a));
    OwnPolygon tri3, common[2], partL[2], partU[2];
    ownLoadTriangle(&tri3, pVertices + 3 * static_cast<std::ptrdiff_t>(tri[0]),
                    pVertices + 3 * static_cast<std::ptrdiff_t>(tri[1]),
                    pVertices + 3 * static_cast<std::ptrdiff_t>(tri[2]));
    int n = 3;
    const OwnPolygon* shared = ownClipAxes(&tri3, common, &n, loL, hiL, facesL, 0, a);
    int nl = n, nu = n;
    const OwnPolygon* polyL = ownClipAxes(shared, partL, &nl, loL, hiL, facesL, a, 3);
    const OwnPolygon* polyU = ownClipAxes(shared, partU, &nu, loU, hiU, facesU, a, 3);
    *pLower = e;
    *pUpper = e;
    ownFinishTrim(*pLower, polyL, nl, loL, hiL);
    ownFinishTrim(*pUpper, polyU, nu, loU, hiU);
}

// The root's entries. Without a clip box each triangle's extent is the box of
// its vertices (kept inside the scene box, which matters only when indices
// reach past numVertices). With a clip box, each triangle is clipped exactly
// against it; triangles with no part inside the box, like triangles with a
// NaN coordinate, can be hit by no ray and get no entry.
int ownRootEntries(OwnTriEntry* out, const float* pVertices, const int* pTriangles, int numTriangles, const float lo[3],
                   const float hi[3], bool clip) {
    int kept = 0;
    for (int t = 0; t < numTriangles; ++t) {
        const int* tri = pTriangles + 4 * static_cast<std::ptrdiff_t>(t);
        const float* v[3] = {pVertices + 3 * static_cast<std::ptrdiff_t>(tri[0]),
                             pVertices + 3 * static_cast<std::ptrdiff_t>(tri[1]),
                             pVertices + 3 * static_cast<std::ptrdiff_t>(tri[2])};
        bool finite = true;
        for (int i = 0; i < 3; ++i)
            for (int a = 0; a < 3; ++a) finite &= !std::isnan(v[i][a]);
        if (!finite) continue;
        OwnTriEntry& e = out[kept];
        e.tag = t << 5;
        if (clip) {
            if (!ownClipTriangle(v[0], v[1], v[2], lo, hi, e.lo, e.hi)) continue;
        } else {
            for (int a = 0; a < 3; ++a) {
                const float mn = std::min(std::min(v[0][a], v[1][a]), v[2][a]);
                const float mx = std::max(std::max(v[0][a], v[1][a]), v[2][a]);
                e.lo[a] = ownCanonical(ownClamp(mn, lo[a], hi[a]));
                e.hi[a] = ownCanonical(ownClamp(mx, lo[a], hi[a]));
            }
        }
        ++kept;
    }
    return kept;
}

// A pending node of the subdivision: its working node, box, entries and the
// number of triangles with extent along each axis (which, with the count,
// tells how many of its event items are ends and starts and how many planar).
struct OwnPending {
    std::uint32_t node;
    float lo[3], hi[3];
    std::int64_t base;
    int count;
    int depth;
    int numExtended[3];
    int buffer;  // which of the two list buffers holds its lists
};

// Makes `node` a leaf holding the triangles of `count` entries, in entry order.
VekStatus ownMakeLeaf(OwnBuild& b, std::uint32_t node, const OwnTriEntry* e, int count) {
    std::uint32_t list = 0;
    if (count > 0) {
        VekStatus s = ownArenaAlloc(b.arena, static_cast<std::uint32_t>(count), &list);
        if (s != vekStatusOk) return s;
        std::uint32_t* w = ownWords(b.arena, list);
        for (int i = 0; i < count; ++i) w[i] = static_cast<std::uint32_t>(vekr::ownEntryTriangle(e[i]));
    }
    std::uint32_t* n = ownWords(b.arena, node);
    n[0] = kLeafTag;
    n[1] = static_cast<std::uint32_t>(count);
    n[2] = list;
    n[3] = 0;
    return vekStatusOk;
}

// The subdivision loop: an explicit stack of pending nodes; after a split the
// lower child is pushed and the loop goes on with the upper one.
VekStatus ownSubdivide(OwnBuild& b, const float* pVertices, const int* pTriangles, std::uint32_t root,
                       const float rootLo[3], const float rootHi[3], int numEntries, int maxDepth, float costFactor) {
    const vekr::OwnEventStore& ev = b.events;
    OwnPending stack[kMaxStack];
    int top = 0;
    OwnPending cur;
    cur.node = root;
    for (int a = 0; a < 3; ++a) {
        cur.lo[a] = rootLo[a];
        cur.hi[a] = rootHi[a];
    }
    cur.base = 0;
    cur.count = numEntries;
    cur.depth = 0;
    cur.buffer = 0;
    vekr::ownEventsInit(ev, b.pEntries, numEntries, cur.numExtended);
    for (;;) {
        OwnTriEntry* e = b.pEntries + cur.base;
        OwnSplit sp;
        bool split = false;
        if (cur.count > 0 && cur.depth < maxDepth) {
            vekr::OwnAxisEvents lists[3];
            for (int a = 0; a < 3; ++a) {
                lists[a].pItems = ev.pItems[cur.buffer][a] + 2 * cur.base;
                lists[a].numExtended = cur.numExtended[a];
                lists[a].numPlanar = cur.count - cur.numExtended[a];
            }
            split = vekr::ownFindSplit(cur.count, cur.lo, cur.hi, costFactor, lists, &sp);
        }
        if (!split) {
            VekStatus s = ownMakeLeaf(b, cur.node, e, cur.count);
            if (s != vekStatusOk) return s;
            if (top == 0) return vekStatusOk;
            cur = stack[--top];
            continue;
        }

        // Room for the children's entries in place of the node's: the lower
        // child's are written over the node's as they are read, the upper
        // child's are formed apart and then placed behind them.
        const int n = cur.count;
        if (cur.base + sp.numLower + sp.numUpper > b.entryCapacity) return vekStatusBudgetExhausted;
        std::uint32_t pair;
        VekStatus s = ownArenaAlloc(b.arena, 8, &pair);
        if (s != vekStatusOk) return s;
        std::uint32_t* w = ownWords(b.arena, cur.node);
        w[0] = static_cast<std::uint32_t>(sp.axis);
        w[1] = vekr::ownFloatBits(sp.pos);
        w[2] = pair;
        w[3] = 0;

        const int a = sp.axis;
        OwnPending lower = cur, upper = cur;
        lower.node = pair;
        upper.node = pair + 4;
        lower.hi[a] = sp.pos;
        upper.lo[a] = sp.pos;
        lower.depth = upper.depth = cur.depth + 1;

        // Distribute: below the plane to the lower child, above to the upper,
        // straddling to both (trimmed to each child's box); a triangle flat in
        // the axis and lying in the plane goes by the search's plane side.
        // When the search predicts an empty side (an empty-space cut), only
        // count: if the prediction holds, nothing straddles and every entry
        // and event list stays as it is.
        const bool oneSided = sp.numLower == 0 || sp.numUpper == 0;
        OwnTriEntry* up = b.pUpperTemp;
        std::int32_t* li = ev.pLowerIndex;
        std::int32_t* ui = ev.pUpperIndex;
        std::int32_t* sd = ev.pSide;
        int nl = 0, nu = 0, ns = 0;
        for (int i = 0; i < n; ++i) {
            const OwnTriEntry& t = e[i];
            const float s0 = t.lo[a], s1 = t.hi[a];
            bool toLower, toUpper;
            if (s0 == s1) {
                toLower = s0 < sp.pos || (s0 == sp.pos && sp.planeSideUpper == 0);
                toUpper = s0 > sp.pos || (s0 == sp.pos && sp.planeSideUpper == 1);
            } else {
                toLower = s0 < sp.pos;
                toUpper = s1 > sp.pos;
            }
            if (oneSided) {
                nl += toLower;
                nu += toUpper;
                continue;
            }
            sd[i] = toLower && toUpper ? -1 : (toLower ? nl : (nu | 0x40000000));
            if (toLower && toUpper) {
                // Placed whole for now; trimmed below.
                li[ns] = nl;
                ui[ns] = nu;
                ++ns;
                e[nl++] = t;
                up[nu++] = t;
            } else if (toLower) {
                e[nl++] = t;
            } else if (toUpper) {
                up[nu++] = t;
            }
        }
        if (nl != sp.numLower || nu != sp.numUpper) return vekStatusBuildInconsistent;
        // The straddlers, trimmed to each child's box in a pass of their own:
        // their triangles and vertices lie anywhere in the scene arrays, so
        // the next straddlers' are fetched ahead (the triangle two ahead, its
        // vertices one ahead) while one is clipped.
        for (int k = 0; k < ns; ++k) {
            if (k + 2 < ns)
                ownPrefetch(pTriangles + 4 * static_cast<std::ptrdiff_t>(vekr::ownEntryTriangle(e[li[k + 2]])));
            if (k + 1 < ns) {
                const int* tri = pTriangles + 4 * static_cast<std::ptrdiff_t>(vekr::ownEntryTriangle(e[li[k + 1]]));
                for (int v = 0; v < 3; ++v) ownPrefetch(pVertices + 3 * static_cast<std::ptrdiff_t>(tri[v]));
            }
            OwnTriEntry& tl = e[li[k]];
            OwnTriEntry& tu = up[ui[k]];
            const OwnTriEntry t = tl;
            ownTrimStraddler(t, pVertices, pTriangles, a, lower.lo, lower.hi, upper.lo, upper.hi, &tl, &tu);
        }
        if (!oneSided) {
            std::memcpy(e + nl, up, static_cast<std::size_t>(nu) * sizeof(OwnTriEntry));
            vekr::ownEventsSplit(ev, cur.buffer, cur.base, n, cur.numExtended, e, nl, ns, lower.numExtended,
                                 upper.numExtended);
            lower.buffer = upper.buffer = cur.buffer ^ 1;
        }
        lower.count = nl;
        upper.count = nu;
        upper.base = cur.base + nl;

        // An empty child becomes an empty leaf at once; the loop goes on with
        // the other one.
        if (nl == 0) {
            s = ownMakeLeaf(b, lower.node, nullptr, 0);
            if (s != vekStatusOk) return s;
            cur = upper;
        } else if (nu == 0) {
            s = ownMakeLeaf(b, upper.node, nullptr, 0);
            if (s != vekStatusOk) return s;
            cur = lower;
        } else {
            stack[top++] = lower;
            cur = upper;
        }
    }
}

// True when a leaf's indices fit in the node itself (a packed leaf).
bool ownLeafPacks(const std::uint32_t* list, std::uint32_t count) {
    if (count == 1) return true;  // indices are never negative here
    if (count == 2) return list[0] < (1u << 29) || list[1] < (1u << 29);
    if (count == 3) {
        std::uint32_t s[3] = {list[0], list[1], list[2]};
        std::sort(s, s + 3);
        return s[1] < (1u << 29) && s[1] - s[0] < 32768u && s[2] - s[1] < 65536u;
    }
    return false;
}

// Sizing pass: inner nodes and the total count of list leaves.
void ownCountTree(const OwnArena& ar, std::uint32_t node, std::int64_t& inner, std::int64_t& listed) {
    const std::uint32_t* w = ownWords(ar, node);
    if (w[0] & kLeafTag) {
        if (!ownLeafPacks(w[1] ? ownWords(ar, w[2]) : nullptr, w[1])) listed += w[1];
        return;
    }
    ++inner;
    ownCountTree(ar, w[2], inner, listed);
    ownCountTree(ar, w[2] + 4, inner, listed);
}

// Writing pass: the node at byte offset `at`; child pairs are reserved at
// *pNext in pre-order, lists appended at *pList.
void ownWriteTree(const OwnArena& ar, std::uint32_t node, unsigned char* block, std::int64_t at, std::int64_t* pNext,
                  std::int64_t* pList) {
    const std::uint32_t* w = ownWords(ar, node);
    std::uint32_t link, value;
    if (!(w[0] & kLeafTag)) {
        const std::int64_t pair = *pNext;
        *pNext += 16;
        link = static_cast<std::uint32_t>(pair - at) | w[0];
        value = w[1];
        std::memcpy(block + at, &link, 4);
        std::memcpy(block + at + 4, &value, 4);
        ownWriteTree(ar, w[2], block, pair, pNext, pList);
        ownWriteTree(ar, w[2] + 4, block, pair + 8, pNext, pList);
        return;
    }
    const std::uint32_t count = w[1];
    const std::uint32_t* list = count ? ownWords(ar, w[2]) : nullptr;
    if (ownLeafPacks(list, count)) {
        if (count == 1) {
            link = 0x80000000u | list[0];
            value = 0x80000001u;
        } else if (count == 2) {
            const std::uint32_t p = list[0] < (1u << 29) ? list[0] : list[1];
            const std::uint32_t q = list[0] < (1u << 29) ? list[1] : list[0];
            value = 0x80000002u | (p << 2);
            link = 0x80000000u | q;
        } else {
            std::uint32_t s[3] = {list[0], list[1], list[2]};
            std::sort(s, s + 3);
            value = 0x80000003u | (s[1] << 2);
            link = 0x80000000u | ((s[1] - s[0]) << 16) | (s[2] - s[1]);
        }
    } else {
        link = static_cast<std::uint32_t>(at - *pList);
        value = count;
        if (count) std::memcpy(block + *pList, list, 4 * static_cast<std::size_t>(count));
        *pList += 4 * static_cast<std::int64_t>(count);
    }
    std::memcpy(block + at, &link, 4);
    std::memcpy(block + at + 4, &value, 4);
}

}  // namespace

namespace vekr {

VekStatus ownOptimizationPSAH(VekrKDTreeNode** ppTree, const float* pVertices, const int* pTriangles, int numVertices,
                              int numTriangles, int* pSize, const VekrKDTreeBuildParams* pParams,
                              std::uint32_t budgetBytes) {
    const std::int64_t nt = numTriangles, nv = numVertices;
    // 1. Up-front budget test.
    if (84 * nt + 12 * nv + 33554676 > static_cast<std::int64_t>(budgetBytes)) return vekStatusNoMemory;
    const float costFactor =
        static_cast<float>((10.0 - 9.0 * static_cast<double>(pParams->costBalance)) * 0.5057569742202759);

    // 2. Working storage, charged against the budget: the control record,
    // twelve per-triangle arrays, the area of working entries and the
    // per-vertex area, both in whole 16 MB blocks with a spare one. The
    // charges are a fixed model of the working set, not a record of each
    // allocation: this builder's per-triangle scratch (the split search's
    // sorted event lists) is larger than the twelve arrays it is charged
    // as, and it needs no per-vertex copy, reading the caller's vertices.
    auto* b = static_cast<OwnBuild*>(vekMalloc(static_cast<int>(sizeof(OwnBuild))));
    if (b == nullptr) return vekStatusNoMemory;
    std::memset(b, 0, sizeof *b);
    const std::int64_t entryArea = ownBlockArea(kEntryRecordBytes * nt);
    b->arena.remaining =
        static_cast<std::int64_t>(budgetBytes) - kControlBytes - 48 * nt - entryArea - ownBlockArea(12 * nv);
    b->entryCapacity = entryArea / kEntryRecordBytes;
    vekr::OwnEventStore& ev = b->events;
    bool ok = (b->pEntries = ownAllocArray<OwnTriEntry>(b->entryCapacity)) != nullptr &&
              (b->pUpperTemp = ownAllocArray<OwnTriEntry>(nt)) != nullptr;
    for (int a = 0; a < 3 && ok; ++a)
        for (int k = 0; k < 2 && ok; ++k)
            ok = (ev.pItems[k][a] = ownAllocArray<std::uint64_t>(2 * b->entryCapacity)) != nullptr;
    for (int i = 0; i < 3 && ok; ++i) ok = (ev.pScratch[i] = ownAllocArray<std::uint64_t>(2 * nt + 1)) != nullptr;
    ok = ok && (ev.pLowerIndex = ownAllocArray<std::int32_t>(nt)) != nullptr &&
         (ev.pUpperIndex = ownAllocArray<std::int32_t>(nt)) != nullptr &&
         (ev.pSide = ownAllocArray<std::int32_t>(nt)) != nullptr;
    if (!ok) {
        ownReleaseBuild(b);
        return vekStatusNoMemory;
    }

    // 3. Scene box and the triangles' extents.
    float lo[3], hi[3];
    const bool clip = pParams->pClipBox != nullptr;
    if (clip) {
        for (int a = 0; a < 3; ++a) {
            lo[a] = ownCanonical(pParams->pClipBox->minCorner[a]);
            hi[a] = ownCanonical(pParams->pClipBox->maxCorner[a]);
        }
    } else {
        // Seeded from vertex 0, which is read even when numVertices is 0. A
        // NaN coordinate never replaces a number; a NaN seed is replaced by
        // the first number (else one NaN at vertex 0 would hide the scene).
        for (int a = 0; a < 3; ++a) lo[a] = hi[a] = pVertices[a];
        for (std::int64_t i = 1; i < nv; ++i)
            for (int a = 0; a < 3; ++a) {
                const float c = pVertices[3 * i + a];
                if (c < lo[a] || lo[a] != lo[a]) lo[a] = c;
                if (c > hi[a] || hi[a] != hi[a]) hi[a] = c;
            }
        for (int a = 0; a < 3; ++a) {
            lo[a] = ownCanonical(lo[a]);
            hi[a] = ownCanonical(hi[a]);
        }
    }
    const bool boxUsable = lo[0] <= hi[0] && lo[1] <= hi[1] && lo[2] <= hi[2];
    const int numEntries =
        boxUsable && nt > 0 ? ownRootEntries(b->pEntries, pVertices, pTriangles, numTriangles, lo, hi, clip) : 0;

    // 4. Subdivision from the root.
    std::uint32_t root;
    VekStatus s = ownArenaAlloc(b->arena, 4, &root);
    if (s == vekStatusOk)
        s = ownSubdivide(*b, pVertices, pTriangles, root, lo, hi, numEntries, pParams->maxDepth, costFactor);
    if (s != vekStatusOk) {
        ownReleaseBuild(b);
        return s;
    }

    // 5. Release the per-triangle storage, size the block, allocate, write.
    ownReleaseArrays(b);
    std::int64_t inner = 0, listed = 0;
    ownCountTree(b->arena, root, inner, listed);
    const std::int64_t size = ownTreeNodeBytes(inner) + 4 * listed;
    const std::int64_t bytes = ownTreeAllocBytes(size);
    unsigned char* block =
        bytes <= 0x7FFFFFFF ? static_cast<unsigned char*>(vekMalloc(static_cast<int>(bytes))) : nullptr;
    if (block == nullptr) {
        ownReleaseBuild(b);
        return vekStatusNoMemory;
    }
    std::memset(block, 0, static_cast<std::size_t>(bytes));
    std::int64_t next = 16, list = ownTreeNodeBytes(inner);
    ownWriteTree(b->arena, root, block, 0, &next, &list);
    ownReleaseBuild(b);
    *ppTree = reinterpret_cast<VekrKDTreeNode*>(block);
    *pSize = static_cast<int>(size);
    return vekStatusOk;
}

}  // namespace vekr

extern "C" OWN_SSE_ENTRY VekStatus vekrKDTreeBuildAlloc(VekrKDTreeNode** ppTree, const float* pVertices,
                                                        const int* pTriangles, int numVertices, int numTriangles,
                                                        int* pSize, const VekrKDTreeBuildParams* pParams) {
    if (ppTree == nullptr || pVertices == nullptr || pTriangles == nullptr || pSize == nullptr) return vekStatusNullPtr;
    if (numVertices < 0 || numTriangles < 0) return vekStatusBadSize;
    if (pParams == nullptr) return vekStatusNullPtr;

    if (pParams->algorithm == static_cast<std::uint32_t>(vekKDTreeBuildSimple)) {
        if (!ownDepthInRange(pParams->maxDepth)) return vekStatusOutOfRange;
        return ownBuildSingleLeaf(ppTree, numTriangles, pSize);
    }
    if (pParams->algorithm == static_cast<std::uint32_t>(vekKDTreeBuildPSAH)) {
        if (!ownDepthInRange(pParams->maxDepth)) return vekStatusOutOfRange;
        // Ordered comparisons: a NaN balance passes.
        if (pParams->costBalance < 0.0f || pParams->costBalance > 1.0f) return vekStatusOutOfRange;
        // The budget in bytes is the unit count shifted by 20, modulo 2^32; the
        // first test shifts by 19 only (so 32 units is the least that passes
        // and 8192 wraps to zero).
        if ((pParams->memoryLimitMB << 19) < (1u << 24)) return vekStatusNoMemory;
        return vekr::ownOptimizationPSAH(ppTree, pVertices, pTriangles, numVertices, numTriangles, pSize, pParams,
                                         pParams->memoryLimitMB << 20);
    }
    return vekStatusBadAlgorithm;
}

extern "C" void vekrKDTreeFree(VekrKDTreeNode* pTree) { vekFree(pTree); }
