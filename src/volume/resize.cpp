// Volume resize: scales a region of a one-channel volume along x, y and z with
// nearest, linear or cubic interpolation into a region of a destination volume.
//
// Linear and cubic resizing are separable (see e.g. Keys, "Cubic convolution
// interpolation for digital image processing", IEEE TASSP 1981, for the
// separable cubic): source rows are interpolated along x into float rows, a
// plane's x rows are combined along y into an intermediate plane per source
// plane, and the intermediate planes are combined along z into the result.
// The float operation order of every voxel is fixed by that sequence, so the
// caches that spare recomputation (x rows per source row, intermediate planes
// per source plane), the combination of a one-plane slab's rows along y and z
// in one pass (no plane is stored when none would be used twice), the way the
// x pass gathers its taps and the thread split never change a result.
#include <omp.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "core/own.h"
#include "volume/interp_weights.h"
#include "volume/resize_geometry.h"
#include "volume/team.h"

namespace vekr {
namespace {

// ---------------------------------------------------------------------------
// Call context and volume addressing
// ---------------------------------------------------------------------------

// Everything a kernel needs besides the data, filled once by the argument check.
struct OwnResizeContext {
    double invXFactor, invYFactor, invZFactor;  // 1 / factor
    double invXShift, invYShift, invZShift;     // (0 - shift) / factor
    int dstX0, dstY0, dstZ0;                    // first destination voxel written
    int dstX1, dstY1, dstZ1;                    // one past the last
    int dstWidth, dstHeight, dstDepth;
    int srcX0, srcY0, srcZ0;  // source region, cut back to the volume:
    int srcX1, srcY1, srcZ1;  // inclusive first and last voxel per axis
    int interpolation;
};

// A C1V volume: voxel (x, y, z) at base + z * planeStep + y * step (bytes).
template <class T>
struct OwnVolumeV {
    const unsigned char* base;
    std::ptrdiff_t step, planeStep;
    T* row(int z, int y) const {
        return reinterpret_cast<T*>(const_cast<unsigned char*>(base) + z * planeStep + y * step);
    }
};

// A C1PV volume: voxel (x, y, z) at planes[z] + y * step (bytes).
template <class T>
struct OwnVolumePV {
    T* const* planes;
    std::ptrdiff_t step;
    T* row(int z, int y) const {
        return reinterpret_cast<T*>(
            reinterpret_cast<unsigned char*>(const_cast<void*>(static_cast<const void*>(planes[z]))) + y * step);
    }
};

// ---------------------------------------------------------------------------
// Per-axis tables
// ---------------------------------------------------------------------------

// One axis of the destination region: per destination coordinate the first
// source tap (for nearest, the source index) and the fraction (linear, one
// float) or the four weights (cubic, 16 bytes). Taps are clamped to the
// source region [lo, hi]; coordinates [inA, inB) have every tap inside it
// without clamping. On the x axis of the vector path, the groups of four
// coordinates in [inA, pickB) also have a byte pick each (see ownBuildPicks).
struct OwnAxis {
    int* first;
    float* w;
    int n;
    int lo, hi;
    int inA, inB;
    const unsigned char* pick;
    int pickB;
};

// x clamped to [lo, hi]; NaN goes to lo.
inline double ownClampD(double x, double lo, double hi) {
    if (!(x >= lo)) return lo;
    return x > hi ? hi : x;
}
inline int ownClampI(int x, int lo, int hi) { return x < lo ? lo : (x > hi ? hi : x); }

// Fills the table of one axis. A destination coordinate i maps to the source
// coordinate s = (i + 0.5) * inv + invShift (voxel centres at half-integers).
//  - kTaps 1 (nearest): trunc(s - 1e-10); the bias sends an exact half-way
//    point to the lower voxel.
//  - kTaps 2, 4: u = s - 0.5, i0 = floor(u), t = u - i0, in double. Linear
//    stores t as float; cubic stores w(1+t), w(t), w(1-t), w(2-t) and its
//    first tap is i0 - 1.
// The first tap is kept within a few voxels of the source region so that it
// converts to int safely; every tap is clamped to [lo, hi] anyway.
template <int kTaps>
void ownBuildAxis(OwnAxis& a, int dst0, double inv, double invShift, const OwnCubicKernel* kernel) {
    const double lo = a.lo, hi = a.hi;
    for (int k = 0; k < a.n; ++k) {
        const double s = (static_cast<double>(dst0 + k) + 0.5) * inv + invShift;
        if (kTaps == 1) {
            a.first[k] = static_cast<int>(ownClampD(std::trunc(s - 1e-10), lo, hi));
            continue;
        }
        const double u = s - 0.5;
        const double i0 = ownFloorExact(u);
        const double t = u - i0;
        const double firstTap = kTaps == 4 ? i0 - 1.0 : i0;
        a.first[k] = static_cast<int>(ownClampD(firstTap, lo - kTaps, hi + 1.0));
        if (kTaps == 2)
            a.w[k] = static_cast<float>(t);
        else
            ownCubicWeights(*kernel, t, a.w + 4 * k);
    }
    // The first tap does not decrease along the axis (s is monotone and so is
    // the floor), so the unclamped coordinates form one run. Find it and
    // confirm it; if anything is off, every coordinate takes the clamped path.
    auto inside = [&](int k) { return a.first[k] >= a.lo && a.first[k] + (kTaps - 1) <= a.hi; };
    int k = 0;
    while (k < a.n && !inside(k)) ++k;
    int e = k;
    while (e < a.n && inside(e)) ++e;
    a.inA = k;
    a.inB = e;
    for (int j = e; j < a.n; ++j)
        if (inside(j)) a.inA = a.inB = 0;
    a.pick = nullptr;
    a.pickB = a.inA;
}

// ---------------------------------------------------------------------------
// Byte picks of the x pass
// ---------------------------------------------------------------------------

// When the four outputs of a group have their first taps within four
// elements of each other (always so when upscaling), all their taps lie in a
// short window of the row. The group then loads that window whole and moves
// each output's tap into its lane with one byte shuffle (pshufb), instead of
// gathering element by element. A record per group holds the shuffle pattern
// and, for cubic, the group's weights rearranged so that vector m holds the
// weights of tap m of the four outputs (the table keeps them per output).
//
// The pattern moves element d_j (= first tap of output j - first tap of
// output 0) of the window into lane j, widened to 32 bits: a float's four
// bytes, or an 8u/16u element with zero bytes above it. Tap m of 8u and 16u
// groups uses the same window with the pattern moved up by m elements;
// float groups load four elements at each first tap + m.
inline void ownLanePick(float*, int d, unsigned char* lane) {
    for (int b = 0; b < 4; ++b) lane[b] = static_cast<unsigned char>(4 * d + b);
}
inline void ownLanePick(std::uint16_t*, int d, unsigned char* lane) {
    lane[0] = static_cast<unsigned char>(2 * d);
    lane[1] = static_cast<unsigned char>(2 * d + 1);
    lane[2] = lane[3] = 0x80;
}
inline void ownLanePick(std::uint8_t*, int d, unsigned char* lane) {
    lane[0] = static_cast<unsigned char>(d);
    lane[1] = lane[2] = lane[3] = 0x80;
}

// Elements from a group's first tap to the last one any of its loads reads:
// floats load four elements at each of the kTaps tap offsets, 8u and 16u one
// window of eight elements.
template <int kTaps, class T>
constexpr int ownPickReach() {
    return sizeof(T) == 4 ? kTaps + 3 : 8;
}

// Bytes of one group's record: the pattern, then for linear the four
// weights 1 - t (formed in float, as the blend forms them) and the four
// fractions t, for cubic the four weight vectors.
template <int kTaps>
constexpr std::size_t ownPickRecordBytes() {
    return kTaps == 4 ? 80 : 48;
}

// Fills the records of the groups k = inA, inA + 4, ... that qualify, from the
// first one on: all four outputs unclamped, first taps at most 3 elements
// apart, and every element the loads read inside the source region (so the
// wide loads never leave the caller's row). The run ends at the first group
// that does not qualify; the rest take the gathering path.
template <int kTaps, class T>
void ownBuildPicks(OwnAxis& a, unsigned char* area) {
    a.pick = area;
    int k = a.inA;
    unsigned char* rec = area;
    for (; k + 4 <= a.inB; k += 4, rec += ownPickRecordBytes<kTaps>()) {
        const int f0 = a.first[k];
        if (a.first[k + 3] - f0 > 3 || f0 + ownPickReach<kTaps, T>() - 1 > a.hi) break;
        for (int j = 0; j < 4; ++j) ownLanePick(static_cast<T*>(nullptr), a.first[k + j] - f0, rec + 4 * j);
        float* wt = reinterpret_cast<float*>(rec + 16);
        if (kTaps == 4) {
            for (int m = 0; m < 4; ++m)
                for (int j = 0; j < 4; ++j) wt[4 * m + j] = a.w[4 * (k + j) + m];
        } else {
            for (int j = 0; j < 4; ++j) {
                wt[j] = 1.0f - a.w[k + j];
                wt[4 + j] = a.w[k + j];
            }
        }
    }
    a.pickB = k;
}

// ---------------------------------------------------------------------------
// Work-buffer layout
// ---------------------------------------------------------------------------

inline std::size_t ownRound4(std::size_t n) { return (n + 3) & ~std::size_t(3); }
inline std::size_t ownRound16(std::size_t n) { return (n + 15) & ~std::size_t(15); }
inline std::size_t ownRound64(std::size_t n) { return (n + 63) & ~std::size_t(63); }

// Sizes in bytes of the pieces one thread carves from its slice, for a region
// of w x h x d voxels. Every piece is a multiple of 16 bytes, so each starts
// 16-byte aligned when the slice does.
struct OwnResizeLayout {
    std::size_t indexX, indexY, indexZ;     // first taps
    std::size_t weightX, weightY, weightZ;  // fractions or weight quadruples
    std::size_t rowFloats;                  // floats of one x row
    std::size_t planeRowFloats;             // row stride of an intermediate plane
    std::size_t picks;                      // byte picks of the x pass
    std::size_t rows, planes;               // bytes of the x-row and plane caches
    std::size_t total;
};

OwnResizeLayout ownResizeLayout(int w, int h, int d, int taps) {
    OwnResizeLayout l{};
    l.indexX = 4 * ownRound16(w);
    l.indexY = 4 * ownRound16(h);
    l.indexZ = 4 * ownRound16(d);
    if (taps > 1) {
        const std::size_t perCoord = taps == 2 ? 1 : 4;
        l.weightX = 4 * ownRound16(perCoord * w);
        l.weightY = 4 * ownRound16(perCoord * h);
        l.weightZ = 4 * ownRound16(perCoord * d);
        l.picks = (static_cast<std::size_t>(w) / 4) * (taps == 4 ? ownPickRecordBytes<4>() : ownPickRecordBytes<2>());
        l.rowFloats = ownRound4(w);
        l.planeRowFloats = ownRound64(w);
        // One row cache per z tap: a slab of one destination plane keeps the
        // x rows of all its planes at once (ownResizeOnePlane); other slabs
        // use the first.
        l.rows = 4 * taps * taps * l.rowFloats;
        l.planes = 4 * taps * static_cast<std::size_t>(h) * l.planeRowFloats;
    }
    l.total = l.indexX + l.indexY + l.indexZ + l.weightX + l.weightY + l.weightZ + l.picks + l.rows + l.planes;
    return l;
}

// ---------------------------------------------------------------------------
// Line caches
// ---------------------------------------------------------------------------

// kSlots float lines keyed by a source row or plane index. fetch() returns the
// lines for kSlots wanted keys (repeats allowed, as clamping produces them),
// computing a missing line into a slot that no wanted key occupies.
template <int kSlots>
struct OwnLineCache {
    float* data[kSlots];
    int key[kSlots];

    void reset() {
        for (int s = 0; s < kSlots; ++s) key[s] = INT_MIN;
    }

    template <class Make>
    void fetch(const int* want, const float** out, Make&& make) {
        bool used[kSlots] = {};
        int slotOf[kSlots];
        for (int j = 0; j < kSlots; ++j) {
            slotOf[j] = -1;
            for (int s = 0; s < kSlots; ++s)
                if (key[s] == want[j]) {
                    slotOf[j] = s;
                    used[s] = true;
                    break;
                }
        }
        for (int j = 0; j < kSlots; ++j) {
            if (slotOf[j] >= 0) continue;
            for (int s = 0; s < kSlots && slotOf[j] < 0; ++s)
                if (used[s] && key[s] == want[j]) slotOf[j] = s;
            if (slotOf[j] >= 0) continue;
            int s = 0;
            while (used[s]) ++s;
            make(want[j], data[s]);
            key[s] = want[j];
            used[s] = true;
            slotOf[j] = s;
        }
        for (int j = 0; j < kSlots; ++j) out[j] = data[slotOf[j]];
    }
};

// ---------------------------------------------------------------------------
// x pass: one source row into one float row
// ---------------------------------------------------------------------------

// The source taps of coordinate k, clamped to the source region.
template <int kTaps>
inline void ownTaps(const OwnAxis& a, int k, int* taps) {
    for (int j = 0; j < kTaps; ++j) taps[j] = ownClampI(a.first[k] + j, a.lo, a.hi);
}

// Scalar rule of one x coordinate.
template <int kTaps, class T>
inline float ownXVoxel(const T* src, const OwnAxis& a, int k) {
    int tp[kTaps];
    ownTaps<kTaps>(a, k, tp);
    if (kTaps == 2) return ownLerp(static_cast<float>(src[tp[0]]), static_cast<float>(src[tp[1]]), a.w[k]);
    return ownCubicSum(static_cast<float>(src[tp[0]]), static_cast<float>(src[tp[1]]),
                       static_cast<float>(src[tp[kTaps > 2 ? 2 : 0]]), static_cast<float>(src[tp[kTaps > 3 ? 3 : 0]]),
                       a.w + 4 * k);
}

// The tap pairs p[f[j]], p[f[j] + 1] of four outputs j as floats: v0 holds the
// first taps, v1 the second. Each pair is one load (bits copied, so float
// pairs keep NaN payloads); the de-interleave is a shuffle.
inline void ownLoadPairs4(const float* p, const int* f, OwnF4* v0, OwnF4* v1) {
    const OwnF4 ab = ownLoadPairs(p + f[0], p + f[1]);  // a0 a1 b0 b1
    const OwnF4 cd = ownLoadPairs(p + f[2], p + f[3]);  // c0 c1 d0 d1
    *v0 = ownEvenLanes(ab, cd);
    *v1 = ownOddLanes(ab, cd);
}
inline void ownLoadPairs4(const std::uint16_t* p, const int* f, OwnF4* v0, OwnF4* v1) {
    std::uint32_t q[4];
    for (int j = 0; j < 4; ++j) std::memcpy(&q[j], p + f[j], 4);
    const OwnI4 packed = ownSetLanes(int(q[0]), int(q[1]), int(q[2]), int(q[3]));
    *v0 = ownToFloat(packed & OwnI4(0xFFFF));
    *v1 = ownToFloat(ownShiftRight<16>(packed));
}
inline void ownLoadPairs4(const std::uint8_t* p, const int* f, OwnF4* v0, OwnF4* v1) {
    // Each 16-bit pair goes straight into the low half of its 32-bit lane
    // (pinsrw); building the vector through memory would stall on store
    // forwarding of four small stores into one wide load.
    auto pair = [](const std::uint8_t* q) {
        std::uint16_t v;
        std::memcpy(&v, q, 2);
        return int(v);
    };
    OwnW8 packed = ownAsW8(ownInLane0(pair(p + f[0])));
    packed = ownInsert16<2>(packed, pair(p + f[1]));
    packed = ownInsert16<4>(packed, pair(p + f[2]));
    packed = ownInsert16<6>(packed, pair(p + f[3]));
    *v0 = ownToFloat(ownAsI4(packed) & OwnI4(0xFF));
    *v1 = ownToFloat(ownShiftRight<8>(ownAsI4(packed)));
}

// Vector form of four unclamped x coordinates k..k+3.
//  Linear: the two taps of each lane loaded as pairs into v0, v1.
//  Cubic: the four consecutive taps of each output, loaded as one vector, are
//  transposed so that lane j of vector m holds tap m of output j; the weight
//  quadruples are transposed the same way. Then the lanes compute the scalar
//  rule.
template <int kTaps, class T>
inline OwnF4 ownXVoxel4(const T* src, const OwnAxis& a, int k) {
    const int* f = a.first + k;
    if (kTaps == 2) {
        OwnF4 v0, v1;
        ownLoadPairs4(src, f, &v0, &v1);
        return ownLerp(v0, v1, ownLoadU(a.w + k));
    }
    OwnF4 v0 = ownLoadAsFloat(src + f[0]), v1 = ownLoadAsFloat(src + f[1]);
    OwnF4 v2 = ownLoadAsFloat(src + f[2]), v3 = ownLoadAsFloat(src + f[3]);
    ownTranspose(v0, v1, v2, v3);
    const float* w = a.w + 4 * k;  // 16-byte aligned: the table is, and each entry is 16 bytes
    OwnF4 w0 = ownLoadA(w), w1 = ownLoadA(w + 4), w2 = ownLoadA(w + 8), w3 = ownLoadA(w + 12);
    ownTranspose(w0, w1, w2, w3);
    return ownCubicSum(v0, v1, v2, v3, w0, w1, w2, w3);
}

// The loaded window of a picked group (see ownBuildPicks) and tap m of its
// four outputs as floats. Floats load four elements at first tap + m; 8u and
// 16u load eight elements at the first tap once and move the pattern up by m
// elements (adding to the pattern's 0x80 bytes keeps their top bit, so they
// still give zeros).
struct OwnPickWindow32f {
    const float* p;
    OWN_LANE OwnF4 tap(OwnI4 pick, int m) const {
        return ownAsF4(ownShuffleBytes(ownAsW8(ownAsI4(ownLoadU(p + m))), pick));
    }
};
struct OwnPickWindow16u {
    OwnW8 v;
    explicit OWN_LANE OwnPickWindow16u(const std::uint16_t* p)
        : v(ownLoadU(reinterpret_cast<const std::int16_t*>(p))) {}
    OWN_LANE OwnF4 tap(OwnI4 pick, int m) const {
        return ownToFloat(ownShuffleBytes(v, pick + OwnI4(0x02020202 * m)));
    }
};
struct OwnPickWindow8u {
    OwnW8 v;
    explicit OWN_LANE OwnPickWindow8u(const std::uint8_t* p) : v(ownAsW8(ownLoadLow64(p))) {}
    OWN_LANE OwnF4 tap(OwnI4 pick, int m) const {
        return ownToFloat(ownShuffleBytes(v, pick + OwnI4(0x01010101 * m)));
    }
};
OWN_LANE OwnPickWindow32f ownPickWindow(const float* p) { return OwnPickWindow32f{p}; }
OWN_LANE OwnPickWindow16u ownPickWindow(const std::uint16_t* p) { return OwnPickWindow16u(p); }
OWN_LANE OwnPickWindow8u ownPickWindow(const std::uint8_t* p) { return OwnPickWindow8u(p); }

// Vector form of the picked group k..k+3 with record rec: the same lanes and
// operations as ownXVoxel4, the taps moved into place by the byte pattern.
template <int kTaps, class T>
OWN_LANE OwnF4 ownXVoxel4Picked(const T* src, const int* first, int k, const unsigned char* rec) {
    const OwnI4 pick = ownLoadA(reinterpret_cast<const std::int32_t*>(rec));
    const auto win = ownPickWindow(src + first[k]);
    const float* w = reinterpret_cast<const float*>(rec + 16);
    // (1 - t) * v0 + t * v1 with 1 - t from the record: ownLerp's operations.
    if (kTaps == 2) return ownLoadA(w) * win.tap(pick, 0) + ownLoadA(w + 4) * win.tap(pick, 1);
    return ownCubicSum(win.tap(pick, 0), win.tap(pick, 1), win.tap(pick, 2), win.tap(pick, 3), ownLoadA(w),
                       ownLoadA(w + 4), ownLoadA(w + 8), ownLoadA(w + 12));
}

// Asks the cache for the elements [x0, x1] of a row, one request per 64 bytes.
template <class T>
inline void ownPrefetchSpan(const T* row, int x0, int x1) {
    const char* p = reinterpret_cast<const char*>(row + x0);
    const char* end = reinterpret_cast<const char*>(row + x1);
    for (; p <= end; p += 64) ownPrefetch(p);
}

// Interpolates one source row (src points at the row's voxel x = 0) into out.
template <int kTaps, bool kVec, class T>
void ownXPass(const T* src, const OwnAxis& a, float* out) {
    int k = 0;
    if (kVec) {
        for (; k < a.inA; ++k) out[k] = ownXVoxel<kTaps>(src, a, k);
        // The table pointers in locals: the stores to out would otherwise
        // make the compiler reload them from the axis every group.
        const unsigned char* rec = a.pick;
        const int* first = a.first;
        const int pickB = a.pickB;
        for (; k + 4 <= pickB; k += 4, rec += ownPickRecordBytes<kTaps>())
            ownStoreU(out + k, ownXVoxel4Picked<kTaps>(src, first, k, rec));
        for (; k + 4 <= a.inB; k += 4) ownStoreU(out + k, ownXVoxel4<kTaps>(src, a, k));
    }
    for (; k < a.n; ++k) out[k] = ownXVoxel<kTaps>(src, a, k);
}

// ---------------------------------------------------------------------------
// y and z passes: combining float rows
// ---------------------------------------------------------------------------

// out[i] = rule(rows[0][i], ..., rows[kTaps-1][i]) for i in [0, n), stored by
// the output type's rule. w is the fraction (linear) or the four weights.
template <int kTaps, class TOut>
inline void ownCombineScalar(const float* const* rows, const float* w, TOut* out, int from, int n) {
    for (int i = from; i < n; ++i) {
        const float s =
            kTaps == 2 ? ownLerp(rows[0][i], rows[1][i], w[0])
                       : ownCubicSum(rows[0][i], rows[1][i], rows[kTaps > 2 ? 2 : 0][i], rows[kTaps > 3 ? 3 : 0][i], w);
        out[i] = ownStoreInterp<TOut>(s);
    }
}

// kTaps values combined with their weights: the linear blend (w0 the
// fraction) or the cubic sum.
template <int kTaps, class F>
OWN_LANE F ownCombineTaps(F v0, F v1, F v2, F v3, F w0, F w1, F w2, F w3) {
    if (kTaps == 2) return ownLerp(v0, v1, w0);
    return ownCubicSum(v0, v1, v2, v3, w0, w1, w2, w3);
}

// kTaps float rows combined with one set of weights, four voxels at a time
// (the rows are 16-byte aligned work-buffer rows).
template <int kTaps>
struct OwnRowCombiner {
    const float *r0, *r1, *r2, *r3;
    OwnF4 w0, w1, w2, w3;
    OWN_LANE OwnRowCombiner(const float* const* rows, const float* w)
        : r0(rows[0]),
          r1(rows[1]),
          r2(rows[kTaps > 2 ? 2 : 0]),
          r3(rows[kTaps > 3 ? 3 : 0]),
          w0(w[0]),
          w1(kTaps > 2 ? w[1] : 0.0f),
          w2(kTaps > 2 ? w[2] : 0.0f),
          w3(kTaps > 2 ? w[3] : 0.0f) {}
    OWN_LANE OwnF4 operator()(int i) const {
        return ownCombineTaps<kTaps>(ownLoadA(r0 + i), ownLoadA(r1 + i), ownLoadA(r2 + i), ownLoadA(r3 + i), w0, w1,
                                     w2, w3);
    }
};

// Integer results leave in whole 16-byte stores: sixteen 8u or eight 16u
// voxels packed from four or two vectors, each lane rounded and clamped as
// ownStoreInterp4 does (which then only serves the last few groups): one end
// of the clamp in float, the other by the saturating packs
// (ownRoundClampForPack). The clamps stay even for the linear codes, whose
// blends of values in range stay in range: a NaN or infinite shift makes the
// weights NaN, and the clamp is what sends such a sum to the value the
// scalar rule gives.
template <class G>
OWN_LANE OwnI4 ownPackBlock(std::uint8_t*, G&& sum) {
    return ownNarrowU8(ownRoundClampForPack<255>(sum(0)), ownRoundClampForPack<255>(sum(4)),
                       ownRoundClampForPack<255>(sum(8)), ownRoundClampForPack<255>(sum(12)));
}
template <class G>
OWN_LANE OwnI4 ownPackBlock(std::uint16_t*, G&& sum) {
    return ownNarrowU16(ownRoundClampForPack<65535>(sum(0)), ownRoundClampForPack<65535>(sum(4)));
}
template <class G>
OWN_LANE OwnI4 ownPackBlock(float*, G&& sum) {
    return ownFloatBits(sum(0));
}

// A large destination is written with non-temporal stores where its row is
// 16-byte aligned: it would not stay in the cache anyway, and the stores
// skip reading the lines before overwriting them. Float bits are moved
// unchanged either way. sum(j) gives the four results from p + j on.
template <bool kStream, class TOut, class G>
OWN_LANE void ownStoreBlock(TOut* p, G&& sum) {
    const OwnI4 v = ownPackBlock(p, sum);
    std::int32_t* const q = reinterpret_cast<std::int32_t*>(p);
    if (kStream)
        ownStream(q, v);
    else
        ownStoreU(q, v);
}

// Destination regions of at least this many bytes are streamed (see above):
// more than a last-level cache holds, so that a result the caller may read
// next from the cache stays there.
constexpr std::size_t kOwnStreamBytes = std::size_t(32) << 20;

// Runs blocks(kStream) with kStream true when streaming is asked for and out
// is 16-byte aligned.
template <class Blocks>
OWN_LANE void ownWithStream(bool stream, const void* out, Blocks&& blocks) {
    if (stream && ownIsAligned16(out))
        blocks(std::true_type{});
    else
        blocks(std::false_type{});
}

// The same, four voxels a vector, a store block at a time. The rows come
// from the work buffer and are 16-byte aligned; out may have any alignment.
template <int kTaps, class TOut>
OWN_LANE void ownCombineVector(const float* const* rows, const float* w, TOut* out, int n, bool stream) {
    constexpr int kBlock = 16 / static_cast<int>(sizeof(TOut));  // voxels per 16-byte store
    const OwnRowCombiner<kTaps> group(rows, w);
    int i = 0;
    ownWithStream(stream, out, [&](auto streamed) OWN_KERNEL {
        for (; i + kBlock <= n; i += kBlock)
            ownStoreBlock<decltype(streamed)::value>(out + i, [&](int j) OWN_KERNEL { return group(i + j); });
    });
    for (; i + 4 <= n; i += 4) ownStoreInterp4(out + i, group(i));
    ownCombineScalar<kTaps>(rows, w, out, i, n);
}

// The cubic form, kept out of line: inlined into the slab loop it leaves too
// few registers on i386.
template <int kTaps, class TOut>
__attribute__((noinline)) void ownCombineVectorCall(const float* const* rows, const float* w, TOut* out, int n,
                                                    bool stream) {
    ownCombineVector<kTaps>(rows, w, out, n, stream);
}

// One row combination. The linear form is inlined: short rows (downscaling)
// would otherwise pay a call and its set-up per row.
template <int kTaps, bool kVec, class TOut>
OWN_LANE void ownCombine(const float* const* rows, const float* w, TOut* out, int n, bool stream = false) {
    if (!kVec)
        ownCombineScalar<kTaps>(rows, w, out, 0, n);
    else if (kTaps == 2)
        ownCombineVector<kTaps>(rows, w, out, n, stream);
    else
        ownCombineVectorCall<kTaps>(rows, w, out, n, stream);
}

// y and z combined in one pass, for a slab of one destination plane: rows[j]
// holds the kTaps x rows of z tap j's plane. Each voxel is combined along y
// per z tap and the kTaps results along z: the same operations, in the same
// order, as storing the intermediate planes and combining them afterwards
// (the planes hold the float results unchanged). kOnePlane: every z tap is
// the same plane (a source one plane deep), so its y result is formed once
// and used for each tap.

template <int kTaps, bool kOnePlane, class TOut>
inline void ownCombineYZScalar(const float* const (*rows)[kTaps], const float* wy, const float* wz, TOut* out,
                               int from, int n) {
    constexpr int kW = kTaps == 2 ? 1 : 4;  // weights per coordinate
    float ty[kW], tz[kW];
    for (int j = 0; j < kW; ++j) ty[j] = wy[j], tz[j] = wz[j];
    for (int i = from; i < n; ++i) {
        float yv[kTaps];
        for (int jz = 0; jz < kTaps; ++jz) {
            if (kOnePlane && jz > 0) {
                yv[jz] = yv[0];
                continue;
            }
            const float* const* r = rows[jz];
            yv[jz] = ownCombineTaps<kTaps>(r[0][i], r[1][i], r[kTaps > 2 ? 2 : 0][i], r[kTaps > 3 ? 3 : 0][i], ty[0],
                                           ty[kW > 1 ? 1 : 0], ty[kW > 2 ? 2 : 0], ty[kW > 3 ? 3 : 0]);
        }
        out[i] = ownStoreInterp<TOut>(ownCombineTaps<kTaps>(yv[0], yv[1], yv[kTaps > 2 ? 2 : 0], yv[kTaps > 3 ? 3 : 0],
                                                            tz[0], tz[kW > 1 ? 1 : 0], tz[kW > 2 ? 2 : 0],
                                                            tz[kW > 3 ? 3 : 0]));
    }
}

template <int kTaps, bool kOnePlane, bool kVec, class TOut>
inline void ownCombineYZ(const float* const (*rows)[kTaps], const float* wy, const float* wz, TOut* out, int n,
                         bool stream) {
    int i = 0;
    if (kVec) {
        constexpr int kBlock = 16 / static_cast<int>(sizeof(TOut));
        const OwnRowCombiner<kTaps> y0(rows[0], wy), y1(rows[kOnePlane ? 0 : 1], wy),
            y2(rows[kOnePlane || kTaps < 3 ? 0 : 2], wy), y3(rows[kOnePlane || kTaps < 4 ? 0 : 3], wy);
        const OwnF4 tz0(wz[0]), tz1(kTaps > 2 ? wz[1] : 0.0f), tz2(kTaps > 2 ? wz[2] : 0.0f),
            tz3(kTaps > 2 ? wz[3] : 0.0f);
        auto group = [&](int i) OWN_KERNEL {
            if (kOnePlane) {
                const OwnF4 v = y0(i);
                return ownCombineTaps<kTaps>(v, v, v, v, tz0, tz1, tz2, tz3);
            }
            if (kTaps == 2) return ownCombineTaps<kTaps>(y0(i), y1(i), y0(i), y0(i), tz0, tz1, tz2, tz3);
            return ownCombineTaps<kTaps>(y0(i), y1(i), y2(i), y3(i), tz0, tz1, tz2, tz3);
        };
        ownWithStream(stream, out, [&](auto streamed) OWN_KERNEL {
            for (; i + kBlock <= n; i += kBlock)
                ownStoreBlock<decltype(streamed)::value>(out + i, [&](int j) OWN_KERNEL { return group(i + j); });
        });
        for (; i + 4 <= n; i += 4) ownStoreInterp4(out + i, group(i));
    }
    ownCombineYZScalar<kTaps, kOnePlane>(rows, wy, wz, out, i, n);
}

// ---------------------------------------------------------------------------
// Kernels over one destination slab [zBeg, zEnd)
// ---------------------------------------------------------------------------

// Carves the axis tables from the slice and fills them.
template <int kTaps, bool kVec = false, class T = float>
void ownSetUpAxes(const OwnResizeContext& c, int zBeg, int zEnd, unsigned char* buf, const OwnResizeLayout& l,
                  OwnAxis* ax) {
    const OwnCubicKernel* kernel = kTaps == 4 ? &ownCubicKernel(c.interpolation) : nullptr;
    unsigned char* p = buf;
    ax[0] = {reinterpret_cast<int*>(p), nullptr, c.dstWidth, c.srcX0, c.srcX1, 0, 0, nullptr, 0};
    p += l.indexX;
    ax[1] = {reinterpret_cast<int*>(p), nullptr, c.dstHeight, c.srcY0, c.srcY1, 0, 0, nullptr, 0};
    p += l.indexY;
    ax[2] = {reinterpret_cast<int*>(p), nullptr, zEnd - zBeg, c.srcZ0, c.srcZ1, 0, 0, nullptr, 0};
    p += l.indexZ;
    ax[0].w = reinterpret_cast<float*>(p);
    p += l.weightX;
    ax[1].w = reinterpret_cast<float*>(p);
    p += l.weightY;
    ax[2].w = reinterpret_cast<float*>(p);
    ownBuildAxis<kTaps>(ax[0], c.dstX0, c.invXFactor, c.invXShift, kernel);
    ownBuildAxis<kTaps>(ax[1], c.dstY0, c.invYFactor, c.invYShift, kernel);
    ownBuildAxis<kTaps>(ax[2], zBeg, c.invZFactor, c.invZShift, kernel);
    p += l.weightZ;
    if (kVec && kTaps > 1) ownBuildPicks<kTaps, T>(ax[0], p);
}

// Nearest: each destination voxel copies its source voxel through the index
// tables. A destination row that maps to the same source row as the row
// before it is a copy of that row.
template <class T, class SrcVol, class DstVol>
void ownResizeNearest(const OwnResizeContext& c, const SrcVol& src, const DstVol& dst, int zBeg, int zEnd,
                      unsigned char* buf) {
    const OwnResizeLayout l = ownResizeLayout(c.dstWidth, c.dstHeight, zEnd - zBeg, 1);
    OwnAxis ax[3];
    ownSetUpAxes<1>(c, zBeg, zEnd, buf, l, ax);
    const int* ix = ax[0].first;
    const int w = c.dstWidth;
    for (int z = zBeg; z < zEnd; ++z) {
        const int sz = ax[2].first[z - zBeg];
        const T* prev = nullptr;
        int prevY = INT_MIN;
        for (int y = 0; y < c.dstHeight; ++y) {
            const int sy = ax[1].first[y];
            T* out = dst.row(z, c.dstY0 + y) + c.dstX0;
            if (sy == prevY) {
                std::memcpy(out, prev, w * sizeof(T));
            } else {
                // Four voxels a step: the loads do not wait on each other's
                // stores, and the loop is less sensitive to where it lands
                // in the code.
                const T* in = src.row(sz, sy);
                int x = 0;
                for (; x + 4 <= w; x += 4) {
                    const T v0 = in[ix[x]], v1 = in[ix[x + 1]], v2 = in[ix[x + 2]], v3 = in[ix[x + 3]];
                    out[x] = v0;
                    out[x + 1] = v1;
                    out[x + 2] = v2;
                    out[x + 3] = v3;
                }
                for (; x < w; ++x) out[x] = in[ix[x]];
            }
            prev = out;
            prevY = sy;
        }
    }
}

// Whether the call's destination region is large enough to stream.
template <class T>
inline bool ownStreamDestination(const OwnResizeContext& c) {
    return static_cast<std::size_t>(c.dstWidth) * static_cast<std::size_t>(c.dstHeight) *
               static_cast<std::size_t>(c.dstDepth) * sizeof(T) >=
           kOwnStreamBytes;
}

// A slab of one destination plane (a single-plane resize, or a thread's share
// of a thin region): no intermediate plane would be used again, so none is
// stored. Each distinct z-tap plane has its own x-row cache, and every
// destination row is combined along y and z at once from the planes' x rows.
template <int kTaps, bool kVec, class T, class SrcVol, class DstVol>
void ownResizeOnePlane(const OwnResizeContext& c, const SrcVol& src, const DstVol& dst, int z, const OwnAxis* ax,
                       const OwnResizeLayout& l, float* rowArea) {
    const int w = c.dstWidth, h = c.dstHeight;
    const std::size_t wStride = kTaps == 2 ? 1 : 4;
    const bool stream = ownStreamDestination<T>(c);
    int wantZ[kTaps], planes[kTaps], cacheOf[kTaps];
    ownTaps<kTaps>(ax[2], 0, wantZ);
    int numPlanes = 0;
    for (int j = 0; j < kTaps; ++j) {
        int u = 0;
        while (u < numPlanes && planes[u] != wantZ[j]) ++u;
        if (u == numPlanes) planes[numPlanes++] = wantZ[j];
        cacheOf[j] = u;
    }
    OwnLineCache<kTaps> caches[kTaps];
    for (int u = 0; u < numPlanes; ++u) {
        for (int s = 0; s < kTaps; ++s) caches[u].data[s] = rowArea + (u * kTaps + s) * l.rowFloats;
        caches[u].reset();
    }
    const float* wz = ax[2].w;
    for (int y = 0; y < h; ++y) {
        int wantY[kTaps];
        ownTaps<kTaps>(ax[1], y, wantY);
        const float* xRows[kTaps][kTaps];
        for (int u = 0; u < numPlanes; ++u)
            caches[u].fetch(wantY, xRows[u], [&](int sy, float* row) {
                if (sy < c.srcY1) ownPrefetchSpan(src.row(planes[u], sy + 1), c.srcX0, c.srcX1);
                ownXPass<kTaps, kVec>(src.row(planes[u], sy), ax[0], row);
            });
        const float* wy = ax[1].w + wStride * y;
        auto* out = dst.row(z, c.dstY0 + y) + c.dstX0;
        if (numPlanes == 1) {
            ownCombineYZ<kTaps, true, kVec>(xRows, wy, wz, out, w, stream);
        } else {
            const float* rows[kTaps][kTaps];
            for (int j = 0; j < kTaps; ++j)
                for (int jy = 0; jy < kTaps; ++jy) rows[j][jy] = xRows[cacheOf[j]][jy];
            ownCombineYZ<kTaps, false, kVec>(rows, wy, wz, out, w, stream);
        }
    }
    if (stream) ownStreamFence();
}

// Linear (kTaps 2) and cubic (kTaps 4). For each destination plane the source
// planes of its z taps are fetched from the plane cache; a missing plane is
// made by combining, for every destination row, the x rows of its y taps
// (fetched from the row cache, made by the x pass). Then the planes' rows are
// combined along z into the destination row.
template <int kTaps, bool kVec, class T, class SrcVol, class DstVol>
void ownResizeSeparable(const OwnResizeContext& c, const SrcVol& src, const DstVol& dst, int zBeg, int zEnd,
                        unsigned char* buf) {
    const OwnResizeLayout l = ownResizeLayout(c.dstWidth, c.dstHeight, zEnd - zBeg, kTaps);
    OwnAxis ax[3];
    ownSetUpAxes<kTaps, kVec, std::remove_const_t<T>>(c, zBeg, zEnd, buf, l, ax);
    const int w = c.dstWidth, h = c.dstHeight;
    const bool stream = kVec && ownStreamDestination<T>(c);
    const std::size_t wStride = kTaps == 2 ? 1 : 4;  // floats of weights per coordinate

    unsigned char* p = buf + l.indexX + l.indexY + l.indexZ + l.weightX + l.weightY + l.weightZ + l.picks;
    if (zEnd - zBeg == 1) {
        ownResizeOnePlane<kTaps, kVec, T>(c, src, dst, zBeg, ax, l, reinterpret_cast<float*>(p));
        return;
    }
    OwnLineCache<kTaps> rowCache, planeCache;
    for (int s = 0; s < kTaps; ++s) rowCache.data[s] = reinterpret_cast<float*>(p) + s * l.rowFloats;
    p += l.rows;
    const std::size_t planeFloats = static_cast<std::size_t>(h) * l.planeRowFloats;
    for (int s = 0; s < kTaps; ++s) planeCache.data[s] = reinterpret_cast<float*>(p) + s * planeFloats;
    planeCache.reset();

    const float* planeRows[kTaps];
    const float* xRows[kTaps];
    int want[kTaps];
    for (int z = zBeg; z < zEnd; ++z) {
        const int kz = z - zBeg;
        ownTaps<kTaps>(ax[2], kz, want);
        planeCache.fetch(want, planeRows, [&](int sz, float* plane) {
            rowCache.reset();
            int wantY[kTaps];
            for (int y = 0; y < h; ++y) {
                ownTaps<kTaps>(ax[1], y, wantY);
                rowCache.fetch(wantY, xRows, [&](int sy, float* row) {
                    // The next source row is usually the next one needed:
                    // request it from memory while this one is interpolated.
                    if (sy < c.srcY1) ownPrefetchSpan(src.row(sz, sy + 1), c.srcX0, c.srcX1);
                    ownXPass<kTaps, kVec>(src.row(sz, sy), ax[0], row);
                });
                ownCombine<kTaps, kVec>(xRows, ax[1].w + wStride * y, plane + y * l.planeRowFloats, w);
            }
        });
        const float* wz = ax[2].w + wStride * kz;
        for (int y = 0; y < h; ++y) {
            const float* rows[kTaps];
            for (int j = 0; j < kTaps; ++j) rows[j] = planeRows[j] + y * l.planeRowFloats;
            ownCombine<kTaps, kVec>(rows, wz, dst.row(z, c.dstY0 + y) + c.dstX0, w, stream);
        }
    }
    if (stream) ownStreamFence();
}

// Runs the kernel of the context's interpolation code on one slab.
template <class T, class SrcVol, class DstVol>
void ownResizeSlab(const OwnResizeContext& c, const SrcVol& src, const DstVol& dst, int zBeg, int zEnd,
                   unsigned char* buf, bool vec) {
    if (c.interpolation == vekrInterNearest)
        ownResizeNearest<T>(c, src, dst, zBeg, zEnd, buf);
    else if (c.interpolation == vekrInterLinear)
        vec ? ownResizeSeparable<2, true, T>(c, src, dst, zBeg, zEnd, buf)
            : ownResizeSeparable<2, false, T>(c, src, dst, zBeg, zEnd, buf);
    else
        vec ? ownResizeSeparable<4, true, T>(c, src, dst, zBeg, zEnd, buf)
            : ownResizeSeparable<4, false, T>(c, src, dst, zBeg, zEnd, buf);
}

// The start of a thread's slice, rounded up to 16 bytes (the slice has 64
// bytes beyond its per-thread size for this).
inline unsigned char* ownAlignSlice(unsigned char* p) {
    const std::uintptr_t u = reinterpret_cast<std::uintptr_t>(p);
    return p + ((16 - (u & 15)) & 15);
}

// Parallel resize: the destination region's depth is split into one z slab
// per thread (quotient q and remainder r: the first r threads take q + 1
// planes). Each thread's share of the buffer is the slice size of a slab of
// q + 1 (or q) planes, which never exceeds the slice the size query reserved
// per thread for the whole region.
template <class T, class SrcVol, class DstVol>
void ownResizeSlabs_MT(const OwnResizeContext& c, const SrcVol& src, const DstVol& dst, unsigned char* buffer, bool vec,
                       int numThreads) {
#pragma omp parallel num_threads(ownVolumeTeam(numThreads, c.dstDepth))
    {
        const int team = omp_get_num_threads();
        const int me = omp_get_thread_num();
        const int q = c.dstDepth / team, r = c.dstDepth % team;
        // At most the slice the size query reserved per thread; the call's
        // check made sure that all of them fit in the int range.
        const std::size_t share = static_cast<std::size_t>(ownResizeSliceBytes(
            ownResizeBufPerThread(static_cast<std::uint32_t>(c.dstWidth), static_cast<std::uint32_t>(c.dstHeight),
                                  static_cast<std::uint32_t>(q + (r > 0 ? 1 : 0)), 1u, c.interpolation)));
        const int zBeg = c.dstZ0 + me * q + (me < r ? me : r);
        const int zEnd = zBeg + q + (me < r ? 1 : 0);
        if (zEnd > zBeg)
            ownResizeSlab<T>(c, src, dst, zBeg, zEnd, ownAlignSlice(buffer + static_cast<std::size_t>(me) * share),
                             vec);
    }
}

// ---------------------------------------------------------------------------
// Argument check
// ---------------------------------------------------------------------------

inline double ownMaxD(double a, double b) { return a > b ? a : b; }
inline double ownMinD(double a, double b) { return a < b ? a : b; }

// One axis of the destination region: [d0, d1) from the source region
// (first voxel s0, extent cut back to the volume) and the destination VOI.
// The start rounds half down and the end half up, as the cuboid query does.
// Results beyond any real volume are held to +-2^40 so they convert safely;
// such an axis is empty or the call is meaningless anyway.
inline void ownDstAxis(int s0, int srcExtent, int v0, int vExtent, double factor, double shift, int* d0, int* d1) {
    const double a = ownMaxD(s0 * factor + shift, v0) + 0.4999999999;
    const double b =
        ownMinD((static_cast<double>(s0) + srcExtent) * factor + shift, static_cast<double>(v0) + vExtent) +
        0.5000000001;
    const double lim = 1099511627776.0;
    const std::int64_t i0 = static_cast<std::int64_t>(std::trunc(ownClampD(a, -lim, lim)));
    const std::int64_t i1 = static_cast<std::int64_t>(std::trunc(ownClampD(b, -lim, lim)));
    *d0 = static_cast<int>(i0 < INT_MAX ? i0 : INT_MAX);
    *d1 = static_cast<int>(i1 > i0 ? (i1 < INT_MAX ? i1 : INT_MAX) : *d0);
}

// The checks shared by the six resize operations, in order; fills the context
// when the resize has something to write (vekStatusOk). `threads` is the
// number of buffer slices the operation may use (the thread count for the
// parallel operation, else 1).
VekStatus ownResizeCheck(const void* pSrc, const void* pDst, const void* pBuffer, VekrVolume vol, VekrCuboid srcVoi,
                         VekrCuboid dstVoi, double xFactor, double yFactor, double zFactor, double xShift,
                         double yShift, double zShift, int interpolation, int threads, OwnResizeContext* c) {
    if (pSrc == nullptr || pDst == nullptr || pBuffer == nullptr) return vekStatusNullPtr;
    if (vol.width < 1 || vol.height < 1 || vol.depth < 1) return vekStatusBadSize;
    if (!ownCuboidValid(srcVoi) || !ownCuboidValid(dstVoi)) return vekStatusBadSize;
    if (!(xFactor > 0.0) || !(yFactor > 0.0) || !(zFactor > 0.0)) return vekStatusBadResizeFactor;
    if (!ownIsValidInterpolation(interpolation)) return vekStatusBadInterpolation;
    // The buffer the size query reports for this destination region must fit
    // in an int; otherwise the query refused it and no caller holds a buffer
    // this call could work in (the kernels would carve past its end). The
    // written region never exceeds dstVoi, so its slices fit in that size.
    std::uint32_t bufBytes;
    if (!ownResizeBufSize(dstVoi.width, dstVoi.height, dstVoi.depth, interpolation, threads, &bufBytes))
        return vekStatusBadSize;
    if (vol.width <= srcVoi.x || vol.height <= srcVoi.y || vol.depth <= srcVoi.z) return vekStatusVoiOutsideSrc;

    // A source region running past the volume is cut back to it.
    const int extX = ownClampI(vol.width - srcVoi.x, 1, srcVoi.width);
    const int extY = ownClampI(vol.height - srcVoi.y, 1, srcVoi.height);
    const int extZ = ownClampI(vol.depth - srcVoi.z, 1, srcVoi.depth);
    ownDstAxis(srcVoi.x, extX, dstVoi.x, dstVoi.width, xFactor, xShift, &c->dstX0, &c->dstX1);
    ownDstAxis(srcVoi.y, extY, dstVoi.y, dstVoi.height, yFactor, yShift, &c->dstY0, &c->dstY1);
    ownDstAxis(srcVoi.z, extZ, dstVoi.z, dstVoi.depth, zFactor, zShift, &c->dstZ0, &c->dstZ1);
    if (c->dstX1 <= c->dstX0 || c->dstY1 <= c->dstY0 || c->dstZ1 <= c->dstZ0) return vekStatusNoOperation;

    c->invXFactor = 1.0 / xFactor;
    c->invYFactor = 1.0 / yFactor;
    c->invZFactor = 1.0 / zFactor;
    c->invXShift = (0.0 - xShift) / xFactor;
    c->invYShift = (0.0 - yShift) / yFactor;
    c->invZShift = (0.0 - zShift) / zFactor;
    c->dstWidth = c->dstX1 - c->dstX0;
    c->dstHeight = c->dstY1 - c->dstY0;
    c->dstDepth = c->dstZ1 - c->dstZ0;
    c->srcX0 = srcVoi.x;
    c->srcY0 = srcVoi.y;
    c->srcZ0 = srcVoi.z;
    c->srcX1 = srcVoi.x + extX - 1;
    c->srcY1 = srcVoi.y + extY - 1;
    c->srcZ1 = srcVoi.z + extZ - 1;
    c->interpolation = interpolation;
    return vekStatusOk;
}

// Whether the vector path runs: every volume pointer the call reads or writes
// and every row and plane step on a 16-byte boundary, and the written row a
// multiple of 4 voxels. The vector code itself does not depend on these (it
// loads and stores the caller's rows unaligned); the rule keeps the choice
// the same across the library.
inline bool ownStepsAligned(std::ptrdiff_t a, std::ptrdiff_t b) { return ((a | b) & 15) == 0; }

template <class T>
bool ownUseVectorV(const OwnResizeContext& c, const OwnVolumeV<const T>& src, const OwnVolumeV<T>& dst) {
    return ownAllAligned16(src.base, dst.base) && ownStepsAligned(src.step, src.planeStep) &&
           ownStepsAligned(dst.step, dst.planeStep) && ownIsMultipleOf4(c.dstWidth);
}

template <class T>
bool ownUseVectorPV(const OwnResizeContext& c, const OwnVolumePV<const T>& src, const OwnVolumePV<T>& dst) {
    if (!ownStepsAligned(src.step, dst.step) || !ownIsMultipleOf4(c.dstWidth)) return false;
    for (int z = c.srcZ0; z <= c.srcZ1; ++z)
        if (!ownIsAligned16(src.planes[z])) return false;
    for (int z = c.dstZ0; z < c.dstZ1; ++z)
        if (!ownIsAligned16(dst.planes[z])) return false;
    return true;
}

// ---------------------------------------------------------------------------
// Drivers
// ---------------------------------------------------------------------------

template <class T>
VekStatus ownResizeV(const T* pSrc, VekrVolume srcVolume, int srcStep, int srcPlaneStep, VekrCuboid srcVoi, T* pDst,
                     int dstStep, int dstPlaneStep, VekrCuboid dstVoi, double xFactor, double yFactor, double zFactor,
                     double xShift, double yShift, double zShift, int interpolation, unsigned char* pBuffer,
                     bool parallel) {
    OwnResizeContext c;
    const int numThreads = parallel ? ownGetNumThreads() : 1;
    const VekStatus st = ownResizeCheck(pSrc, pDst, pBuffer, srcVolume, srcVoi, dstVoi, xFactor, yFactor, zFactor,
                                        xShift, yShift, zShift, interpolation, numThreads, &c);
    if (st != vekStatusOk) return st;
    const OwnVolumeV<const T> src{reinterpret_cast<const unsigned char*>(pSrc), srcStep, srcPlaneStep};
    const OwnVolumeV<T> dst{reinterpret_cast<const unsigned char*>(pDst), dstStep, dstPlaneStep};
    const bool vec = ownUseVectorV(c, src, dst);
    if (numThreads > 1 && c.dstWidth >= 16 && c.dstHeight >= 16 && c.dstDepth >= 16)
        ownResizeSlabs_MT<T>(c, src, dst, pBuffer, vec, numThreads);
    else
        ownResizeSlab<T>(c, src, dst, c.dstZ0, c.dstZ1, ownAlignSlice(pBuffer), vec);
    return vekStatusOk;
}

template <class T>
VekStatus ownResizePV(const T* const* pSrc, VekrVolume srcVolume, int srcStep, VekrCuboid srcVoi, T* const* pDst,
                      int dstStep, VekrCuboid dstVoi, double xFactor, double yFactor, double zFactor, double xShift,
                      double yShift, double zShift, int interpolation, unsigned char* pBuffer) {
    OwnResizeContext c;
    const VekStatus st = ownResizeCheck(pSrc, pDst, pBuffer, srcVolume, srcVoi, dstVoi, xFactor, yFactor, zFactor,
                                        xShift, yShift, zShift, interpolation, 1, &c);
    if (st != vekStatusOk) return st;
    const OwnVolumePV<const T> src{pSrc, srcStep};
    const OwnVolumePV<T> dst{pDst, dstStep};
    ownResizeSlab<T>(c, src, dst, c.dstZ0, c.dstZ1, ownAlignSlice(pBuffer), ownUseVectorPV(c, src, dst));
    return vekStatusOk;
}

}  // namespace

// Layout check for the tests: bytes one thread's kernel carves from its slice.
std::size_t ownResizeWorkBytes(int width, int height, int depth, int interpolation) {
    const int taps = interpolation == vekrInterNearest ? 1 : interpolation == vekrInterLinear ? 2 : 4;
    return ownResizeLayout(width, height, depth, taps).total;
}

}  // namespace vekr

using namespace vekr;

// ---------------------------------------------------------------------------
// Exported entry points
// ---------------------------------------------------------------------------

extern "C" OWN_SSE_ENTRY VekStatus vekrResize_8u_C1V(const uint8_t* pSrc, VekrVolume srcVolume, int srcStep,
                                                     int srcPlaneStep, VekrCuboid srcVoi, uint8_t* pDst, int dstStep,
                                                     int dstPlaneStep, VekrCuboid dstVoi, double xFactor,
                                                     double yFactor, double zFactor, double xShift, double yShift,
                                                     double zShift, int interpolation, uint8_t* pBuffer) {
    return ownResizeV<std::uint8_t>(pSrc, srcVolume, srcStep, srcPlaneStep, srcVoi, pDst, dstStep, dstPlaneStep, dstVoi,
                                    xFactor, yFactor, zFactor, xShift, yShift, zShift, interpolation, pBuffer, false);
}

extern "C" OWN_SSE_ENTRY VekStatus vekrResize_16u_C1V(const uint16_t* pSrc, VekrVolume srcVolume, int srcStep,
                                                      int srcPlaneStep, VekrCuboid srcVoi, uint16_t* pDst, int dstStep,
                                                      int dstPlaneStep, VekrCuboid dstVoi, double xFactor,
                                                      double yFactor, double zFactor, double xShift, double yShift,
                                                      double zShift, int interpolation, uint8_t* pBuffer) {
    return ownResizeV<std::uint16_t>(pSrc, srcVolume, srcStep, srcPlaneStep, srcVoi, pDst, dstStep, dstPlaneStep,
                                     dstVoi, xFactor, yFactor, zFactor, xShift, yShift, zShift, interpolation, pBuffer,
                                     false);
}

// The float variant works in element steps: the byte steps are divided by 4
// (truncating) before the kernel sees them, and it is the one resize that
// splits its work between threads.
extern "C" OWN_SSE_ENTRY VekStatus vekrResize_32f_C1V(const float* pSrc, VekrVolume srcVolume, int srcStep,
                                                      int srcPlaneStep, VekrCuboid srcVoi, float* pDst, int dstStep,
                                                      int dstPlaneStep, VekrCuboid dstVoi, double xFactor,
                                                      double yFactor, double zFactor, double xShift, double yShift,
                                                      double zShift, int interpolation, uint8_t* pBuffer) {
    return ownResizeV<float>(pSrc, srcVolume, srcStep / 4 * 4, srcPlaneStep / 4 * 4, srcVoi, pDst, dstStep / 4 * 4,
                             dstPlaneStep / 4 * 4, dstVoi, xFactor, yFactor, zFactor, xShift, yShift, zShift,
                             interpolation, pBuffer, true);
}

extern "C" OWN_SSE_ENTRY VekStatus vekrResize_8u_C1PV(const uint8_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                                      VekrCuboid srcVoi, uint8_t* const pDst[], int dstStep,
                                                      VekrCuboid dstVoi, double xFactor, double yFactor, double zFactor,
                                                      double xShift, double yShift, double zShift, int interpolation,
                                                      uint8_t* pBuffer) {
    return ownResizePV<std::uint8_t>(pSrc, srcVolume, srcStep, srcVoi, pDst, dstStep, dstVoi, xFactor, yFactor, zFactor,
                                     xShift, yShift, zShift, interpolation, pBuffer);
}

extern "C" OWN_SSE_ENTRY VekStatus vekrResize_16u_C1PV(const uint16_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                                       VekrCuboid srcVoi, uint16_t* const pDst[], int dstStep,
                                                       VekrCuboid dstVoi, double xFactor, double yFactor,
                                                       double zFactor, double xShift, double yShift, double zShift,
                                                       int interpolation, uint8_t* pBuffer) {
    return ownResizePV<std::uint16_t>(pSrc, srcVolume, srcStep, srcVoi, pDst, dstStep, dstVoi, xFactor, yFactor,
                                      zFactor, xShift, yShift, zShift, interpolation, pBuffer);
}

extern "C" OWN_SSE_ENTRY VekStatus vekrResize_32f_C1PV(const float* const pSrc[], VekrVolume srcVolume, int srcStep,
                                                       VekrCuboid srcVoi, float* const pDst[], int dstStep,
                                                       VekrCuboid dstVoi, double xFactor, double yFactor,
                                                       double zFactor, double xShift, double yShift, double zShift,
                                                       int interpolation, uint8_t* pBuffer) {
    return ownResizePV<float>(pSrc, srcVolume, srcStep, srcVoi, pDst, dstStep, dstVoi, xFactor, yFactor, zFactor,
                              xShift, yShift, zShift, interpolation, pBuffer);
}
