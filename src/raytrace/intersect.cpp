// The four intersection queries over the shared KD-tree walk: nearest hit from
// one eye point, nearest hit from per-ray origins, several successive hits
// along each ray, and any hit on a segment. Each query is a policy (its
// triangle rules and outputs) plus a driver per path; the vector path walks
// 4 x 4 tiles of rays (four rays of a row for the multiple-hit query) as one
// masked packet per direction octant present in the tile.
#include <cfloat>
#include <cstdint>

#include "raytrace/traverse.h"

namespace vekr {
namespace {

// Rows of four rays walked as one packet by the vector paths of the eye,
// per-origin and any-hit queries. Four rows beat two and one for all three on
// the bunny workloads, the incoherent reflection rays included, and on i386
// too despite its eight vector registers.
constexpr int kOwnTileRows = 4;
// With per-ray origins, a direction octant that holds at most this many of a
// tile's rays is walked ray by ray: the packet walk would pay for all its
// groups at every node for them (−1.7% instructions on the reflection rays
// against walking every octant as a packet; 6 and 8 save less). Eye rays share
// their origin and stay coherent, so they gain nothing from it.
constexpr int kOwnSingleLanes = 4;

// ---------------------------------------------------------------------------
// Query policies (see the contract above ownWalk1)
// ---------------------------------------------------------------------------

// The outputs of one hit level: distance, the triangle index and the terms of
// the two barycentric weights, b/det for the first vertex and g/det for the
// second. The divisions wait for the end of the walk (weight0, weight1): a
// hit that a nearer one replaces never pays for them, and the quotient of the
// kept terms has the same bits as at the time of the hit.
template <class L>
struct OwnHitRecord {
    using F = typename L::F;
    using M = typename L::M;
    using I = typename L::I;
    typename L::F dist, b = F(0.0f), g = F(0.0f), det = F(1.0f);
    typename L::I idx;

    // Records the hit on the lanes of m.
    void record(typename L::M m, int32_t j, const OwnTriTerms<L>& tt) {
        if (!ownAny(m)) return;
        dist = ownSelect(m, tt.t, dist);
        b = ownSelect(m, tt.b, b);
        g = ownSelect(m, tt.g, g);
        det = ownSelect(m, tt.det, det);
        idx = ownSelect(m, I(j), idx);
    }
    typename L::F bound() const { return dist; }
    typename L::F weight0() const { return b / det; }
    typename L::F weight1() const { return g / det; }
};

// Nearest hit: every non-degenerate triangle of a visited leaf is tested, even
// the one already recorded; a hit must be strictly nearer than the current
// distance and strictly beyond the origin.
template <class L>
struct OwnEyePolicy : OwnHitRecord<L> {
    static constexpr float kSplitTol = kOwnSplitTol;
    bool skip(int32_t, const VekrTriangleAccel& R) const { return R.axisCode == 0; }
    typename L::M consider(int32_t j, typename L::M active, const OwnTriTerms<L>& tt) {
        const typename L::M m =
            ownAnd(ownAnd(active, tt.inside), ownAnd(this->dist > tt.t, tt.t > typename L::F(0.0f)));
        this->record(m, j, tt);
        return typename L::M(false);
    }
};

// Nearest hit from per-ray origins. Deliberately stricter than the eye query:
// near edge-on triangles (|det| below ten times the parallel threshold) and
// the triangle already recorded are ignored, and a new hit must be nearer by
// more than 0.00001.
template <class L>
struct OwnMOPolicy : OwnHitRecord<L> {
    static constexpr float kSplitTol = kOwnSplitTol;
    bool skip(int32_t, const VekrTriangleAccel& R) const { return R.axisCode == 0; }
    typename L::M consider(int32_t j, typename L::M active, const OwnTriTerms<L>& tt) {
        typename L::M m = ownAndNot(active, ownAbs(tt.det) < typename L::F(1.1920929e-6f));
        m = ownAndNot(m, this->idx == typename L::I(j));
        m = ownAnd(m, tt.inside);
        m = ownAnd(m, ownAnd(this->dist - typename L::F(0.00001f) > tt.t, tt.t > typename L::F(0.0f)));
        this->record(m, j, tt);
        return typename L::M(false);
    }
};

// One level of the multiple-hit query: the previous level's triangle and the
// first (level mod 8) entries of the hit list are ignored.
template <class L>
struct OwnMultiplePolicy : OwnHitRecord<L> {
    static constexpr float kSplitTol = kOwnSplitTolMultiple;
    typename L::I prev;
    const typename L::I* list;
    int numList;
    bool skip(int32_t, const VekrTriangleAccel& R) const { return R.axisCode == 0; }
    typename L::M consider(int32_t j, typename L::M active, const OwnTriTerms<L>& tt) {
        const typename L::I jj = typename L::I(j);
        typename L::M seen = prev == jj;
        for (int e = 0; e < numList; ++e) seen = ownOr(seen, list[e] == jj);
        typename L::M m = ownAndNot(active, seen);
        m = ownAnd(m, ownAnd(tt.inside, ownAnd(this->dist > tt.t, tt.t > typename L::F(0.0f))));
        this->record(m, j, tt);
        return typename L::M(false);
    }
};

// Any hit on the segment origin .. origin + direction: the first triangle
// accepted with 0 < t < 1 ends the ray.
template <class L>
struct OwnAnyPolicy {
    using F = typename L::F;
    using M = typename L::M;
    using I = typename L::I;
    static constexpr float kSplitTol = kOwnSplitTol;
    typename L::I occluder, mask;
    bool skip(int32_t, const VekrTriangleAccel& R) const { return R.axisCode == 0; }
    typename L::F bound() const { return F(1.0f); }
    typename L::M consider(int32_t j, typename L::M active, const OwnTriTerms<L>& tt) {
        const typename L::I jj = I(j);
        typename L::M m = ownAndNot(active, occluder == jj);
        m = ownAnd(m, ownAnd(tt.inside, ownAnd(F(1.0f) > tt.t, tt.t > F(0.0f))));
        if (ownAny(m)) {
            occluder = ownSelect(m, jj, occluder);
            mask = ownSelect(m, I(-1), mask);
        }
        return m;
    }
};

// ---------------------------------------------------------------------------
// Nearest-hit drivers (eye and per-origin queries)
// ---------------------------------------------------------------------------

// Ray origins: three planes, read at element i (stride 1) or always at
// element 0 (stride 0, one shared point).
struct OwnOrigins {
    const float* const* planes;
    std::size_t stride;
};

template <template <class> class Policy, OwnBoxMode mode>
void ownNearestRay(const OwnOrigins& org, const float* const dir[3], float* dist, float* const hit[2], int32_t* trngl,
                   std::size_t i, const VekrIntersectContext* ctx) {
    trngl[i] = -1;
    OwnRay<OwnLane1> r;
    for (int a = 0; a < 3; ++a) {
        r.o[a] = org.planes[a][i * org.stride];
        r.d[a] = dir[a][i];
    }
    float tNear = 0.0f, tFar = dist[i];
    bool neg[3];
    if (!ownSetupRay<OwnLane1, mode>(ctx->pBound, r, tNear, tFar, neg)) return;
    const int sign[3] = {neg[0], neg[1], neg[2]};
    Policy<OwnLane1> p;
    p.dist = dist[i];
    p.idx = -1;
    ownWalk1(ctx->pRootNode, ctx->pAccel, r, sign, tNear, tFar, p);
    if (p.idx != -1) {
        dist[i] = p.dist;
        hit[0][i] = p.weight0();
        hit[1][i] = p.weight1();
        trngl[i] = p.idx;
    }
}

// The per-axis sign bits of a tile's lanes (bit 4g + l: lane l of group g has
// a negative direction on that axis).
template <int G>
inline void ownTileSigns(const OwnM4 (*neg)[3], int negBits[3]) {
    for (int a = 0; a < 3; ++a) {
        OwnM4 m[G];
        for (int g = 0; g < G; ++g) m[g] = neg[g][a];
        negBits[a] = ownTileMask<G>(m);
    }
}

// True when at most n bits of x are set (clears the lowest n).
inline bool ownAtMostBits(int x, int n) {
    for (int k = 0; k < n; ++k) x &= x - 1;
    return x == 0;
}

// A tile of G rows of four rays (at i, i + width, ..., i + (G - 1) width),
// walked together, once for each direction octant among the rays that enter
// the box.
template <template <class> class Policy, OwnBoxMode mode, int G>
void ownNearestTile(const OwnOrigins& org, const float* const dir[3], float* dist, float* const hit[2],
                    int32_t* trngl, std::size_t i, std::size_t width, const VekrIntersectContext* ctx) {
    OwnRay<OwnLane4<>> r[G];
    OwnF4 tNear[G], tFar[G];
    OwnM4 neg[G][3];
    OwnM4 in[G];
    for (int g = 0; g < G; ++g) {
        const std::size_t e = i + g * width;
        for (int a = 0; a < 3; ++a) {
            r[g].o[a] = org.stride ? ownLoadA(org.planes[a] + e) : OwnF4(org.planes[a][0]);
            r[g].d[a] = ownLoadA(dir[a] + e);
        }
        tNear[g] = OwnF4(0.0f);
        tFar[g] = ownLoadA(dist + e);
        in[g] = ownSetupRay<OwnLane4<>, mode>(ctx->pBound, r[g], tNear[g], tFar[g], neg[g]);
    }
    int negBits[3];
    ownTileSigns<G>(neg, negBits);
    Policy<OwnLane4<>> p[G];
    for (int g = 0; g < G; ++g) {
        p[g].dist = ownLoadA(dist + i + g * width);
        p[g].idx = OwnI4(-1);
    }
    // Only the eye query (mode Eye) has one origin for all rays.
    int single = 0;
    for (int rest = ownTileMask<G>(in); rest;) {
        int sign[3];
        const int lanes = ownOctantLanes(negBits, rest, sign);
        rest &= ~lanes;
        if (mode != OwnBoxMode::Eye && ownAtMostBits(lanes, kOwnSingleLanes)) {
            single |= lanes;
            continue;
        }
        ownWalkTile<G, mode == OwnBoxMode::Eye>(ctx->pRootNode, ctx->pAccel, r, sign, tNear, tFar, lanes, p);
    }
    for (int g = 0; g < G; ++g) {
        const std::size_t e = i + g * width;
        const OwnM4 found = ownNot(p[g].idx == OwnI4(-1));
        ownStoreA(dist + e, p[g].dist);
        ownStoreA(hit[0] + e, ownSelect(found, p[g].weight0(), ownLoadA(hit[0] + e)));
        ownStoreA(hit[1] + e, ownSelect(found, p[g].weight1(), ownLoadA(hit[1] + e)));
        ownStoreA(trngl + e, p[g].idx);
    }
    // The lanes left out above kept their inputs (no hit recorded), so their
    // per-ray walks start from the same values.
    for (; single; single &= single - 1) {
        const int lane = __builtin_ctz(static_cast<unsigned>(single));
        ownNearestRay<Policy, mode>(org, dir, dist, hit, trngl, i + (lane >> 2) * width + (lane & 3), ctx);
    }
}

// The vector path walks tiles of kOwnTileRows x 4 rays, the per-ray path one
// ray after another.
template <template <class> class Policy, OwnBoxMode mode>
void ownNearestBlock(const OwnOrigins& org, const float* const dir[3], float* dist, float* const hit[2], int32_t* trngl,
                     const VekrIntersectContext* ctx, int width, int height, bool vector) {
    if (width < 1) return;
    const std::size_t w = static_cast<std::size_t>(width);
    if (vector) {
        for (int row = 0; row < height; row += kOwnTileRows) {
            const std::size_t base = static_cast<std::size_t>(row) * w;
            for (int c = 0; c < width; c += 4)
                ownNearestTile<Policy, mode, kOwnTileRows>(org, dir, dist, hit, trngl, base + c, w, ctx);
        }
        return;
    }
    for (int row = 0; row < height; ++row) {
        const std::size_t base = static_cast<std::size_t>(row) * w;
        for (int c = 0; c < width; ++c) ownNearestRay<Policy, mode>(org, dir, dist, hit, trngl, base + c, ctx);
    }
}

// ---------------------------------------------------------------------------
// Multiple-hit driver
// ---------------------------------------------------------------------------

// Output planes of the multiple-hit query; level L of ray i is element
// L * plane + i.
struct OwnLevels {
    float* dist;
    float* const* hit;
    int32_t* trngl;
    std::size_t plane;
    int depth;
};

void ownMultipleRay(const float* origin, const float* const dir[3], const OwnLevels& out, std::size_t i,
                    const VekrIntersectContext* ctx) {
    OwnRay<OwnLane1> r;
    for (int a = 0; a < 3; ++a) {
        r.o[a] = origin[a];
        r.d[a] = dir[a][i];
    }
    float tNear = 0.0f, tFar = out.dist[i];
    bool neg[3];
    if (!ownSetupRay<OwnLane1, OwnBoxMode::Eye>(ctx->pBound, r, tNear, tFar, neg)) return;
    const int sign[3] = {neg[0], neg[1], neg[2]};
    int32_t list[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
    int32_t prev = -1;
    for (int level = 0;; ++level) {
        const std::size_t e = static_cast<std::size_t>(level) * out.plane + i;
        OwnMultiplePolicy<OwnLane1> p;
        p.dist = out.dist[e];
        p.idx = -1;
        p.prev = prev;
        p.list = list;
        p.numList = level & 7;
        ownWalk1(ctx->pRootNode, ctx->pAccel, r, sign, tNear, tFar, p);
        if (p.idx == -1) return;
        out.hit[0][e] = p.weight0();
        out.hit[1][e] = p.weight1();
        out.trngl[e] = p.idx;
        // Restart from the hit point; distances accumulate from the origin.
        const float t = p.dist;
        for (int a = 0; a < 3; ++a) r.o[a] = r.o[a] + t * r.d[a];
        out.dist[e] = level >= 1 ? t + out.dist[e - out.plane] : t;
        list[level & 7] = p.idx;
        prev = p.idx;
        if (level + 1 == out.depth) return;
        out.trngl[e + out.plane] = -1;
        out.dist[e + out.plane] = FLT_MAX;
        tNear = 0.0f;
        tFar = ownBoxExit(ctx->pBound, r) + kOwnIntervalExtension;
    }
}

// The lanes `alive` of four rays at i (all entering the box, all with the
// direction signs `sign`), all levels in lock step (each level's search of a
// lane is independent of the other lanes). Lanes outside `alive` are left as
// they are.
void ownMultipleLanes(OwnRay<OwnLane4<>> r, OwnF4 tNear, OwnF4 tFar, const int sign[3], int alive,
                      const OwnLevels& out, std::size_t i, const VekrIntersectContext* ctx) {
    OwnI4 list[8];
    for (int e = 0; e < 8; ++e) list[e] = OwnI4(-1);
    OwnI4 prev = OwnI4(-1);
    for (int level = 0;; ++level) {
        const std::size_t e = static_cast<std::size_t>(level) * out.plane + i;
        OwnMultiplePolicy<OwnLane4<>> p;
        p.dist = ownLoadA(out.dist + e);
        p.idx = ownLoadA(out.trngl + e);  // -1 on every searching lane
        p.prev = prev;
        p.list = list;
        p.numList = level & 7;
        ownWalkTile<1, true>(ctx->pRootNode, ctx->pAccel, &r, sign, &tNear, &tFar, alive, &p);
        const OwnM4 found = ownAndNot(ownLaneMask(alive), p.idx == OwnI4(-1));
        alive = ownMoveMask(found);
        if (!alive) return;
        ownStoreA(out.hit[0] + e, ownSelect(found, p.weight0(), ownLoadA(out.hit[0] + e)));
        ownStoreA(out.hit[1] + e, ownSelect(found, p.weight1(), ownLoadA(out.hit[1] + e)));
        ownStoreA(out.trngl + e, p.idx);
        const OwnF4 t = p.dist;
        for (int a = 0; a < 3; ++a) r.o[a] = ownSelect(found, r.o[a] + t * r.d[a], r.o[a]);
        OwnF4 cumulative = t;
        if (level >= 1) cumulative = t + ownLoadA(out.dist + e - out.plane);
        ownStoreA(out.dist + e, ownSelect(found, cumulative, ownLoadA(out.dist + e)));
        list[level & 7] = ownSelect(found, p.idx, list[level & 7]);
        prev = ownSelect(found, p.idx, prev);
        if (level + 1 == out.depth) return;
        const std::size_t next = e + out.plane;
        ownStoreA(out.dist + next, ownSelect(found, OwnF4(FLT_MAX), ownLoadA(out.dist + next)));
        // The next level's indices are still -1 from the initial fill.
        tNear = OwnF4(0.0f);
        tFar = ownBoxExit(ctx->pBound, r) + OwnF4(kOwnIntervalExtension);
    }
}

// Four rays at i (16-byte aligned arrays), once for each direction octant
// among the rays that enter the box.
void ownMultiplePacket(const float* origin, const float* const dir[3], const OwnLevels& out, std::size_t i,
                       const VekrIntersectContext* ctx) {
    OwnRay<OwnLane4<>> r;
    for (int a = 0; a < 3; ++a) {
        r.o[a] = OwnF4(origin[a]);
        r.d[a] = ownLoadA(dir[a] + i);
    }
    OwnF4 tNear = OwnF4(0.0f), tFar = ownLoadA(out.dist + i);
    OwnM4 neg[1][3];
    int rest = ownMoveMask(ownSetupRay<OwnLane4<>, OwnBoxMode::Eye>(ctx->pBound, r, tNear, tFar, neg[0]));
    int negBits[3];
    ownTileSigns<1>(neg, negBits);
    while (rest) {
        int sign[3];
        const int lanes = ownOctantLanes(negBits, rest, sign);
        rest &= ~lanes;
        ownMultipleLanes(r, tNear, tFar, sign, lanes, out, i, ctx);
    }
}

// ---------------------------------------------------------------------------
// Any-hit driver
// ---------------------------------------------------------------------------

void ownAnyRay(const float* origin, const float* const dir[3], int32_t* occluder, int32_t* mask, std::size_t i,
               const VekrIntersectContext* ctx) {
    occluder[i] = -1;
    if (mask[i] < 0) return;
    OwnRay<OwnLane1> r;
    for (int a = 0; a < 3; ++a) {
        r.o[a] = origin[a];
        r.d[a] = dir[a][i];
    }
    float tNear = 0.0f, tFar = 1.0001f;
    bool neg[3];
    ownSetupRay<OwnLane1, OwnBoxMode::None>(nullptr, r, tNear, tFar, neg);
    const int sign[3] = {neg[0], neg[1], neg[2]};
    OwnAnyPolicy<OwnLane1> p;
    p.occluder = -1;
    p.mask = mask[i];
    ownWalk1(ctx->pRootNode, ctx->pAccel, r, sign, tNear, tFar, p);
    occluder[i] = p.occluder;
    mask[i] = p.mask;
}

// A tile of G rows of four any-hit rays (at i, i + width, ...), walked once for
// each direction octant among the selected rays.
template <int G>
void ownAnyTile(const float* origin, const float* const dir[3], int32_t* occluder, int32_t* mask, std::size_t i,
                std::size_t width, const VekrIntersectContext* ctx) {
    OwnRay<OwnLane4<>> r[G];
    OwnF4 tNear[G], tFar[G];
    OwnM4 neg[G][3];
    OwnAnyPolicy<OwnLane4<>> p[G];
    int selected = 0;
    // Unrolled like the walk's group loops: 1% (x86-64) and 2% (i386) fewer
    // instructions for the query.
#pragma GCC unroll 4
    for (int g = 0; g < G; ++g) {
        const std::size_t e = i + g * width;
        for (int a = 0; a < 3; ++a) {
            r[g].o[a] = OwnF4(origin[a]);
            r[g].d[a] = ownLoadA(dir[a] + e);
        }
        p[g].occluder = OwnI4(-1);
        p[g].mask = ownLoadA(mask + e);
        selected |= (~ownSignMask(p[g].mask) & 15) << (4 * g);  // sign bit clear: mask >= 0
        tNear[g] = OwnF4(0.0f);
        tFar[g] = OwnF4(1.0001f);
        ownSetupRay<OwnLane4<>, OwnBoxMode::None>(nullptr, r[g], tNear[g], tFar[g], neg[g]);
    }
    int negBits[3];
    ownTileSigns<G>(neg, negBits);
    for (int rest = selected; rest;) {
        int sign[3];
        const int lanes = ownOctantLanes(negBits, rest, sign);
        rest &= ~lanes;
        ownWalkTile<G, true>(ctx->pRootNode, ctx->pAccel, r, sign, tNear, tFar, lanes, p);
    }
    for (int g = 0; g < G; ++g) {
        const std::size_t e = i + g * width;
        ownStoreA(occluder + e, p[g].occluder);
        ownStoreA(mask + e, p[g].mask);
    }
}

}  // namespace
}  // namespace vekr

// ---------------------------------------------------------------------------
// Entry points
// ---------------------------------------------------------------------------

using namespace vekr;

extern "C" OWN_SSE_ENTRY VekStatus vekrIntersectEyeSO_32f(const float* pOrigin, const float* const pDirection[3],
                                                          float* pDist, float* const pHit[2], int32_t* pTrngl,
                                                          const VekrIntersectContext* pContext, int width, int height) {
    // No ray (and no read of the pointer arrays) for an empty block, nor for
    // one of more rays than any caller's arrays can hold.
    if (height < 1 || width < 1 || !ownBlockFits(static_cast<int64_t>(width) * height)) return vekStatusOk;
    const bool vector = ownIsMultipleOf4(width) && ownIsMultipleOf4(height) &&
                        ownAllAligned16(pDirection[0], pDirection[1], pDirection[2], pDist, pHit[0], pHit[1], pTrngl);
    const float* planes[3] = {pOrigin, pOrigin + 1, pOrigin + 2};
    const OwnOrigins org{planes, 0};
    ownNearestBlock<OwnEyePolicy, OwnBoxMode::Eye>(org, pDirection, pDist, pHit, pTrngl, pContext, width, height,
                                                   vector);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrIntersectMO_32f(const float* const pOrigin[3], const float* const pDirection[3],
                                                       float* pDist, float* const pHit[2], int32_t* pTrngl,
                                                       const VekrIntersectContext* pContext, int width, int height) {
    if (height < 1 || width < 1 || !ownBlockFits(static_cast<int64_t>(width) * height)) return vekStatusOk;
    const bool vector = ownIsMultipleOf4(width) && ownIsMultipleOf4(height) &&
                        ownAllAligned16(pOrigin[0], pOrigin[1], pOrigin[2], pDirection[0], pDirection[1], pDirection[2],
                                        pDist, pHit[0], pHit[1], pTrngl);
    const OwnOrigins org{pOrigin, 1};
    ownNearestBlock<OwnMOPolicy, OwnBoxMode::PerOrigin>(org, pDirection, pDist, pHit, pTrngl, pContext, width, height,
                                                        vector);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrIntersectMultipleSO_32f(const float* pOrigin, const float* const pDirection[3],
                                                               float* pDist, float* const pHit[2], int32_t* pTrngl,
                                                               int width, int height, int depth,
                                                               const VekrIntersectContext* pContext) {
    // Every index entry starts as a miss: all depth x width x height of them,
    // whenever that product is at least 1 (the signs of the three sizes may
    // cancel). A product beyond an int32 count is no array size and is left
    // alone; |width x height| <= 2^62, so the product is formed exactly once
    // that plane is known to be small enough.
    const int64_t plane = static_cast<int64_t>(width) * height;
    const bool planeSmall = plane >= -INT64_C(2147483648) && ownBlockFits(plane);
    const int64_t total = planeSmall ? plane * depth : 0;
    const bool fits = planeSmall && ownBlockFits(total);
    if (fits && total >= 1)
        for (int64_t n = 0; n < total; ++n) pTrngl[n] = -1;
    // An empty block or a depth below 1 searches nothing; nor does a block
    // too large to be an array.
    if (height < 1 || width < 1 || depth < 1 || !fits) return vekStatusOk;
    const bool vector = ownIsMultipleOf4(width) && ownIsMultipleOf4(height) &&
                        ownAllAligned16(pDirection[0], pDirection[1], pDirection[2], pDist, pHit[0], pHit[1], pTrngl);
    const OwnLevels out{pDist, pHit, pTrngl, static_cast<std::size_t>(width) * static_cast<std::size_t>(height), depth};
    for (int row = 0; row < height; ++row) {
        const std::size_t base = static_cast<std::size_t>(row) * static_cast<std::size_t>(width);
        if (vector) {
            for (int c = 0; c < width; c += 4) ownMultiplePacket(pOrigin, pDirection, out, base + c, pContext);
        } else {
            for (int c = 0; c < width; ++c) ownMultipleRay(pOrigin, pDirection, out, base + c, pContext);
        }
    }
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrIntersectAnySO_32f(const float* pOrigin, const float* const pDirection[3],
                                                          int32_t* pOccluder, int32_t* pMask, int width, int height,
                                                          const VekrIntersectContext* pContext) {
    if (height < 1 || width < 1 || !ownBlockFits(static_cast<int64_t>(width) * height)) return vekStatusOk;
    const bool vector = ownIsMultipleOf4(width) && ownIsMultipleOf4(height) &&
                        ownAllAligned16(pDirection[0], pDirection[1], pDirection[2], pOccluder, pMask);
    const std::size_t w = static_cast<std::size_t>(width);
    if (vector) {
        for (int row = 0; row < height; row += kOwnTileRows) {
            const std::size_t base = static_cast<std::size_t>(row) * w;
            for (int c = 0; c < width; c += 4)
                ownAnyTile<kOwnTileRows>(pOrigin, pDirection, pOccluder, pMask, base + c, w, pContext);
        }
        return vekStatusOk;
    }
    for (int row = 0; row < height; ++row) {
        const std::size_t base = static_cast<std::size_t>(row) * w;
        for (int c = 0; c < width; ++c) ownAnyRay(pOrigin, pDirection, pOccluder, pMask, base + c, pContext);
    }
    return vekStatusOk;
}
