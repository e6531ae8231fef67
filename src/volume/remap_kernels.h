// Point samplers and row kernels shared by the volume remap, the volume
// affine warp and their single-plane forms: the source box, the nearest,
// linear and cubic taps, the per-row loops and the row walk over a
// destination (serial or split between threads).
//
// Rules every kernel here follows (the entry points document them for the
// caller):
//  - Voxel centres sit at integer coordinates: voxel i covers [i - 0.5, i + 0.5].
//  - A point is sampled only when it lies inside the inclusive source box on
//    every axis; otherwise the destination voxel keeps its old value.
//  - Linear: index i = trunc(c) (c >= 0 inside the box, so this is the
//    floor); an index on the box's last voxel is lowered by one so both taps
//    lie in the box; t = c - i rounded to float; the blend of
//    interp_weights.h, four along z, then two along y, then one along x
//    (see ownBlendLinear).
//  - Cubic: i = trunc(c), t = c - i rounded to float, taps i-1 .. i+2
//    clamped to the box, weights w(1+t), w(t), w(1-t), w(2-t) from
//    interp_weights.h; four-tap sums along x, then y, then z.
//  - Each kernel has a scalar form, which defines the result, and an SSE form
//    (chosen per call by ownRemapUsesSse / ownWarpUsesSse) that performs the
//    same float and double operations in the same order, lane by lane.
//  - 8u and 16u results of linear and cubic sampling are rounded and clamped
//    by ownStoreInterp; nearest copies the element.
#ifndef VEKR_VOLUME_REMAP_KERNELS_H
#define VEKR_VOLUME_REMAP_KERNELS_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "core/lanes.h"
#include "vekcore.h"
#include "volume/interp_weights.h"
#include "volume/team.h"

namespace vekr {

// The source as the samplers see it: plane pointers, row step in bytes and
// the inclusive box on each axis (x, y, z). Single-plane sources use one
// plane and z = 0 throughout.
//
// evenPlanes: the planes of the box lie planeStep > 0 bytes apart, so that
// every element of the box is origin + z planeStep + y step + x sizeof(T)
// with an offset below 2^31. The SSE linear kernels then form the whole tap
// offset in a vector instead of looking up each lane's plane.
template <class T>
struct OwnSource {
    const T* const* pPlanes;
    std::ptrdiff_t step;
    int lo[3], hi[3];
    float loF[3], hiF[3];
    bool evenPlanes;
    std::ptrdiff_t planeStep;
    std::uintptr_t origin;
};

template <class T>
inline OwnSource<T> ownMakeSource(const T* const* pPlanes, int step, const int lo[3], const int hi[3]) {
    OwnSource<T> s;
    s.pPlanes = pPlanes;
    s.step = step;
    for (int a = 0; a < 3; ++a) {
        s.lo[a] = lo[a];
        s.hi[a] = hi[a];
        s.loF[a] = static_cast<float>(lo[a]);
        s.hiF[a] = static_cast<float>(hi[a]);
    }
    // Addresses as integers: the planes need not be parts of one array.
    auto at = [pPlanes](int z) { return static_cast<std::intptr_t>(reinterpret_cast<std::uintptr_t>(pPlanes[z])); };
    const std::intptr_t planeStep = hi[2] > lo[2] ? at(lo[2] + 1) - at(lo[2]) : 0;
    bool even = step > 0 && (planeStep > 0 || hi[2] == lo[2]);
    for (int z = lo[2] + 1; even && z <= hi[2]; ++z) even = at(z) - at(z - 1) == planeStep;
    const double last = (static_cast<double>(hi[2]) * planeStep + static_cast<double>(hi[1]) * step) +
                        (static_cast<double>(hi[0]) + 1.0) * sizeof(T);
    s.evenPlanes = even && last < 2147483647.0;
    s.planeStep = planeStep;
    s.origin = static_cast<std::uintptr_t>(at(lo[2]) - static_cast<std::intptr_t>(lo[2]) * planeStep);
    return s;
}

// Row y of a plane whose rows are step bytes apart.
template <class T>
inline T* ownOffsetRow(T* pPlane, int y, int step) {
    return reinterpret_cast<T*>(reinterpret_cast<std::uintptr_t>(pPlane) +
                                static_cast<std::uintptr_t>(static_cast<std::intptr_t>(y) * step));
}

template <class T>
inline const T* ownSourceRow(const OwnSource<T>& s, int z, int y) {
    return reinterpret_cast<const T*>(reinterpret_cast<const std::uint8_t*>(s.pPlanes[z]) + y * s.step);
}

// Rounding to the nearest integer with ties to even: the processor's
// conversion in its default rounding mode (not truncation).
inline int ownRoundEven(float v) { return ownRoundToInt(v); }
inline int ownRoundEven(double v) { return ownRoundToInt(v); }

// ---------------------------------------------------------------------------
// Taps along one axis
// ---------------------------------------------------------------------------

// Constants of the linear kernels for one source, loaded once per row. For a
// coordinate c inside [lo, hi] the lower tap is i0 = min(trunc(c), top) with
// top = hi - 1, so that on the last voxel the pair (hi - 1, hi) is used with
// t = 1; the upper tap is i0 + 1. A box one voxel wide has only c == lo
// inside: top = lo and both taps are that voxel (next 0).
template <class T>
struct OwnLinearCtx {
    const T* const* pPlanes;
    std::ptrdiff_t step;
    std::ptrdiff_t nextRow;  // bytes from the y0 tap row to the y1 tap row
    int nextX, nextZ;
    int top[3];
    // Evenly spaced planes (OwnSource::evenPlanes): the element addressing,
    // and the bytes from the z0 tap plane to the z1 tap plane.
    std::uintptr_t origin;
    std::ptrdiff_t planeStep, nextPlane;
};

template <class T>
inline OwnLinearCtx<T> ownLinearCtx(const OwnSource<T>& s) {
    OwnLinearCtx<T> k;
    k.pPlanes = s.pPlanes;
    k.step = s.step;
    int next[3];
    for (int a = 0; a < 3; ++a) {
        next[a] = s.hi[a] > s.lo[a] ? 1 : 0;
        k.top[a] = s.hi[a] - next[a];
    }
    k.nextX = next[0];
    k.nextRow = next[1] * s.step;
    k.nextZ = next[2];
    k.origin = s.origin;
    k.planeStep = s.planeStep;
    k.nextPlane = next[2] * s.planeStep;
    return k;
}

// Lower tap i0 and fraction t = c - i0 (formed in C, rounded to float) of a
// coordinate inside the box; C is float for the remap maps, double for the
// warp. Inside the box c >= 0, so the truncation is the floor.
template <class C>
inline int ownLinearIndex(C c, int top, float& t) {
    int i = static_cast<int>(c);
    i = i > top ? top : i;
    t = static_cast<float>(c - static_cast<C>(i));
    return i;
}

// Four cubic taps, clamped to [lo, hi], and their weights.
struct OwnCubicTap {
    int i[4];
    float w[4];
};
template <class C>
inline void ownCubicTap(C c, int lo, int hi, const OwnCubicKernel& k, OwnCubicTap& tap) {
    const int i0 = static_cast<int>(c);
    const float t = static_cast<float>(c - static_cast<C>(i0));
    ownCubicWeights(k, static_cast<double>(t), tap.w);
    for (int j = 0; j < 4; ++j) {
        int i = i0 - 1 + j;
        i = i < lo ? lo : i;
        tap.i[j] = i > hi ? hi : i;
    }
}

// ---------------------------------------------------------------------------
// Samplers: the value at a point inside the box (Dims 2: plane 0 only)
// ---------------------------------------------------------------------------

// Trilinear blend of the eight taps a..h, where a = v(x0, y0, z0),
// b = v(x1, y0, z0), c = v(x0, y1, z0), d = v(x1, y1, z0) and e..h the same at
// z1. The order is z, then y, then x:
//   p0..p3 = lerp(a, e, tz), lerp(b, f, tz), lerp(c, g, tz), lerp(d, h, tz)
//   q0, q1 = lerp(p0, p2, ty), lerp(p1, p3, ty);  result lerp(q0, q1, tx)
// so that the four z blends, then the two y blends, are lanes of one vector
// operation in the SSE form. A plane (Dims 2) starts at the y blend with
// p0..p3 = a..d.
template <class T>
inline const T* ownTapRow(const OwnLinearCtx<T>& k, int z, int y) {
    return reinterpret_cast<const T*>(reinterpret_cast<const std::uint8_t*>(k.pPlanes[z]) + y * k.step);
}
template <class T>
inline const T* ownNextRow(const OwnLinearCtx<T>& k, const T* r) {
    return reinterpret_cast<const T*>(reinterpret_cast<const std::uint8_t*>(r) + k.nextRow);
}

template <class T, int Dims>
inline float ownBlendLinear(const OwnLinearCtx<T>& k, int ix, int iy, int iz, float tx, float ty, float tz) {
    const T* r00 = ownTapRow(k, Dims == 3 ? iz : 0, iy);
    const T* r10 = ownNextRow(k, r00);
    const int x1 = ix + k.nextX;
    float p[4] = {static_cast<float>(r00[ix]), static_cast<float>(r00[x1]), static_cast<float>(r10[ix]),
                  static_cast<float>(r10[x1])};
    if (Dims == 3) {
        const T* r01 = ownTapRow(k, iz + k.nextZ, iy);
        const T* r11 = ownNextRow(k, r01);
        p[0] = ownLerp(p[0], static_cast<float>(r01[ix]), tz);
        p[1] = ownLerp(p[1], static_cast<float>(r01[x1]), tz);
        p[2] = ownLerp(p[2], static_cast<float>(r11[ix]), tz);
        p[3] = ownLerp(p[3], static_cast<float>(r11[x1]), tz);
    }
    return ownLerp(ownLerp(p[0], p[2], ty), ownLerp(p[1], p[3], ty), tx);
}

// (v[0], v[1], w[0], w[1]) as floats, for the 16u element pairs v at byte
// address p and w at q: the x tap pairs of two rows, each read as one
// 4-byte word.
inline OwnF4 ownTapQuad(const std::uint16_t*, const std::uint8_t* p, const std::uint8_t* q) {
    std::uint32_t a, b;
    std::memcpy(&a, p, 4);
    std::memcpy(&b, q, 4);
    const OwnI4 v = ownInterleaveLo(ownInLane0(static_cast<int>(a)), ownInLane0(static_cast<int>(b)));
    return ownToFloat(ownWidenLowU16(v));
}

// The SSE kernels address a tap row pair by one 32-bit byte offset inside
// the plane, iy * step + ix * sizeof(T), formed for four lanes by one 16-bit
// multiply-add. That needs indices and step below 2^15; larger sources use
// the scalar kernels.
template <class T>
inline bool ownLinearSseFits(const OwnSource<T>& s) {
    return s.hi[0] > s.lo[0] && s.step > 0 && s.step <= 32767 && s.hi[0] <= 32767 && s.hi[1] <= 32767;
}
template <class T>
inline OwnI4 ownTapOffsets(OwnI4 ix, OwnI4 iy, std::ptrdiff_t step) {
    const OwnI4 factors(static_cast<int>((step << 16) | static_cast<int>(sizeof(T))));
    return ownMulAddPairs(ownAsW8(ownShiftLeft<16>(iy) | ix), ownAsW8(factors));
}

// The taps a, b, c, d of four voxels as four vectors, lane j for voxel j:
// (a, b) is the element pair at byte address p(j), (c, d) the pair at q(j),
// the same offset in the next tap row. 16u reads each voxel's quad and
// transposes; float and 8u place the values straight into their lanes. p
// and q are functions of the lane rather than arrays so that each address
// is formed where it is read, as a base plus an offset (an array of
// addresses invites the compiler to build them as vectors and take them
// apart again).
template <class T>
struct OwnTapGather {
    template <class Addr, class NextAddr>
    static OWN_LANE void run(const Addr& p, const NextAddr& q, OwnF4& a, OwnF4& b, OwnF4& c, OwnF4& d) {
        const T* tag = nullptr;
        a = ownTapQuad(tag, p(0), q(0));
        b = ownTapQuad(tag, p(1), q(1));
        c = ownTapQuad(tag, p(2), q(2));
        d = ownTapQuad(tag, p(3), q(3));
        ownTranspose(a, b, c, d);
    }
};
template <>
struct OwnTapGather<float> {
    // Two voxels' pairs per register, (a0, b0, a1, b1), then even and odd lanes.
    template <class Addr, class NextAddr>
    static OWN_LANE void run(const Addr& p, const NextAddr& q, OwnF4& a, OwnF4& b, OwnF4& c, OwnF4& d) {
        const OwnF4 ab01 = ownLoadPairs(p(0), p(1)), ab23 = ownLoadPairs(p(2), p(3));
        const OwnF4 cd01 = ownLoadPairs(q(0), q(1)), cd23 = ownLoadPairs(q(2), q(3));
        a = ownEvenLanes(ab01, ab23);
        b = ownOddLanes(ab01, ab23);
        c = ownEvenLanes(cd01, cd23);
        d = ownOddLanes(cd01, cd23);
    }
};
template <>
struct OwnTapGather<std::uint8_t> {
    // All sixteen bytes in one register (a0 b0 c0 d0 a1 b1 ...), then one
    // byte shuffle per tap spreads its four bytes over the lanes.
    static OWN_LANE int pair(const std::uint8_t* p) {
        std::uint16_t v;
        std::memcpy(&v, p, 2);
        return v;
    }
    template <class Addr, class NextAddr>
    static OWN_LANE void run(const Addr& p, const NextAddr& q, OwnF4& a, OwnF4& b, OwnF4& c, OwnF4& d) {
        OwnW8 v = ownAsW8(ownInLane0(pair(p(0))));
        v = ownInsert16<1>(v, pair(q(0)));
        v = ownInsert16<2>(v, pair(p(1)));
        v = ownInsert16<3>(v, pair(q(1)));
        v = ownInsert16<4>(v, pair(p(2)));
        v = ownInsert16<5>(v, pair(q(2)));
        v = ownInsert16<6>(v, pair(p(3)));
        v = ownInsert16<7>(v, pair(q(3)));
        // Byte j of each voxel's four into the low byte of its lane, zeros above.
        auto tap = [v](char j) OWN_KERNEL {
            const char z = -128;
            const OwnI4 pick = ownSetBytes(j, z, z, z, j + 4, z, z, z, j + 8, z, z, z, j + 12, z, z, z);
            return ownToFloat(ownShuffleBytes(v, pick));
        };
        a = tap(0), b = tap(1), c = tap(2), d = tap(3);
    }
};

// iz * planeStep on four lanes (iz >= 0; the products fit 31 bits).
inline OwnI4 ownPlaneOffsets(OwnI4 iz, std::ptrdiff_t planeStep) { return ownMulLo(iz, static_cast<int>(planeStep)); }

// Byte offsets of the (x0, y0, z0) taps of four lanes: from the plane's
// start, or from the origin when the planes are evenly spaced.
template <class T, int Dims, bool EvenPlanes>
inline OwnI4 ownLaneOffsets(const OwnLinearCtx<T>& k, OwnI4 ix, OwnI4 iy, OwnI4 iz) {
    const OwnI4 off = ownTapOffsets<T>(ix, iy, k.step);
    return EvenPlanes && Dims == 3 ? off + ownPlaneOffsets(iz, k.planeStep) : off;
}

// ownBlendLinear for four voxels at once, voxel j in lane j: the taps are
// gathered so that one vector holds tap a of the four voxels and so on, and
// blended by the same lerps in the same order as the scalar rule. off holds
// each voxel's byte offset of tap (x0, y0, z0) as ownLaneOffsets forms it,
// iz its plane z0; every lane must address taps inside the box. EvenPlanes
// (the source's evenPlanes holds) addresses the taps from the origin,
// otherwise through each lane's plane pointer.
template <class T, int Dims, bool EvenPlanes>
OWN_LANE OwnF4 ownBlendLinearLanes(const OwnLinearCtx<T>& k, OwnI4 off, OwnI4 iz, OwnF4 tx, OwnF4 ty, OwnF4 tz) {
    OwnF4 p0, p1, p2, p3, e, f, g, h;
    if (EvenPlanes) {
        // Offsets from the origin are below 2^31: widened without sign.
        std::uint32_t o[4];
        ownLanesU32(off, o);
        // One base per tap row, each address a base plus the lane's offset.
        const std::uint8_t* const b00 = reinterpret_cast<const std::uint8_t*>(k.origin);
        const std::uint8_t* const b10 = b00 + k.nextRow;
        OwnTapGather<T>::run([&](int j) OWN_KERNEL { return b00 + o[j]; }, [&](int j) OWN_KERNEL { return b10 + o[j]; },
                             p0, p1, p2, p3);
        if (Dims == 3) {
            const std::uint8_t* const b01 = b00 + k.nextPlane;
            const std::uint8_t* const b11 = b01 + k.nextRow;
            OwnTapGather<T>::run([&](int j) OWN_KERNEL { return b01 + o[j]; },
                                 [&](int j) OWN_KERNEL { return b11 + o[j]; }, e, f, g, h);
        }
    } else {
        std::int32_t o[4], z[4] = {0, 0, 0, 0};
        ownStoreU(o, off);
        if (Dims == 3) ownStoreU(z, iz);
        auto plane = [&](int zi) { return reinterpret_cast<const std::uint8_t*>(k.pPlanes[zi]); };
        const std::ptrdiff_t next = k.nextRow;
        OwnTapGather<T>::run([&](int j) OWN_KERNEL { return plane(z[j]) + o[j]; },
                             [&](int j) OWN_KERNEL { return plane(z[j]) + o[j] + next; }, p0, p1, p2, p3);
        if (Dims == 3) {
            const int nz = k.nextZ;
            OwnTapGather<T>::run([&](int j) OWN_KERNEL { return plane(z[j] + nz) + o[j]; },
                                 [&](int j) OWN_KERNEL { return plane(z[j] + nz) + o[j] + next; }, e, f, g, h);
        }
    }
    if (Dims == 3) {
        p0 = ownLerp(p0, e, tz);
        p1 = ownLerp(p1, f, tz);
        p2 = ownLerp(p2, g, tz);
        p3 = ownLerp(p3, h, tz);
    }
    return ownLerp(ownLerp(p0, p2, ty), ownLerp(p1, p3, ty), tx);
}

// Lower taps and fractions of four coordinates as lanes. The index is
// trunc(min(max(c, lo), top)): for a coordinate inside the box that is
// min(trunc(c), top), the scalar rule; lanes outside the box (NaN included,
// which max turns into lo) get an index in the box, so their taps can be
// read and then discarded. t = c - index, rounded to float.
inline OwnI4 ownLinearIndex4(OwnF4 c, OwnF4 lo, OwnF4 top, OwnF4& t) {
    const OwnI4 i = ownTruncToInt(ownMin(ownMax(c, lo), top));
    t = c - ownToFloat(i);
    return i;
}
// Whole-group stores of the cubic remap row kernel, at 16-byte aligned
// addresses (the vector path's condition). Float rows of at least
// kOwnStreamRow voxels go around the cache (non-temporal stores, then a
// fence when the row is done): a cubic row reads its source taps from the
// cache and the destination is not read again by the kernel, so the
// streamed stores save reading each destination line in before it is
// written. That paid on the 2048^2 plane remap at two threads (a
// destination larger than the cache, maps and source streaming in too); on
// the warp, which reads no maps, it measured no gain and is not used. 8u and
// 16u stores are small and stay as they are.
constexpr int kOwnStreamRow = 1024;
template <class T>
struct OwnCubicStore {
    bool stream;
    explicit OwnCubicStore(int rowLength) : stream(std::is_same<T, float>::value && rowLength >= kOwnStreamRow) {}
    OWN_LANE void whole(T* p, OwnF4 v) const {
        if (std::is_same<T, float>::value && stream)
            ownStream(reinterpret_cast<float*>(p), v);
        else
            ownStoreInterp4(p, v);
    }
    void finish() const {
        if (stream) ownStreamFence();
    }
};

// Stores the lanes of v whose bit is set in mask at p[0..3] by the element
// type's rule (all four at once when all are set).
template <class T>
inline void ownStoreLanes(T* p, OwnF4 v, int mask) {
    if (mask == 15) {
        ownStoreInterp4(p, v);
        return;
    }
    float f[4];
    ownStoreU(f, v);
    for (int j = 0; j < 4; ++j)
        if (mask & (1 << j)) p[j] = ownStoreInterp<T>(f[j]);
}

template <class T>
inline float ownCubicRow(const T* r, const OwnCubicTap& tx) {
    return ownCubicSum(static_cast<float>(r[tx.i[0]]), static_cast<float>(r[tx.i[1]]), static_cast<float>(r[tx.i[2]]),
                       static_cast<float>(r[tx.i[3]]), tx.w);
}

template <class T, int Dims, class C>
inline float ownSampleCubic(const OwnSource<T>& s, const OwnCubicKernel& k, C x, C y, C z) {
    OwnCubicTap tx, ty;
    ownCubicTap(x, s.lo[0], s.hi[0], k, tx);
    ownCubicTap(y, s.lo[1], s.hi[1], k, ty);
    auto plane = [&](int zi) {
        float r[4];
        for (int j = 0; j < 4; ++j) r[j] = ownCubicRow(ownSourceRow(s, zi, ty.i[j]), tx);
        return ownCubicSum(r[0], r[1], r[2], r[3], ty.w);
    };
    if (Dims == 2) return plane(0);
    OwnCubicTap tz;
    ownCubicTap(z, s.lo[2], s.hi[2], k, tz);
    float p[4];
    for (int j = 0; j < 4; ++j) p[j] = plane(tz.i[j]);
    return ownCubicSum(p[0], p[1], p[2], p[3], tz.w);
}

// ownCubicWeights with the four kernel arguments as two double pairs: both
// polynomials are evaluated as in ownCubicWeight and the branch is a lane
// select, so the weights are the same bits.
OWN_LANE OwnF4 ownCubicWeightsSse(const OwnCubicKernel& k, double t) {
    // ((c3 x^3 + c2 x^2) + c1 x) + c0, x^2 = x x, x^3 = x^2 x, as ownCubicWeight.
    auto poly = [](OwnD2 x, OwnD2 c3, OwnD2 c2, OwnD2 c1, OwnD2 c0) OWN_KERNEL {
        const OwnD2 x2 = x * x;
        const OwnD2 x3 = x2 * x;
        return ((c3 * x3 + c2 * x2) + c1 * x) + c0;
    };
    auto weight = [&k, poly](OwnD2 x) {
        const OwnD2 ax = ownAbs(x);
        const OwnD2 in = poly(ax, OwnD2(k.in3), OwnD2(k.in2), OwnD2(k.in1), OwnD2(k.in0));
        const OwnD2 out = poly(ax, OwnD2(k.out3), OwnD2(k.out2), OwnD2(k.out1), OwnD2(k.out0));
        const OwnMD2 inner = ax < OwnD2(1.0);
        const OwnMD2 outer = ownAndNot(ax < OwnD2(2.0), inner);
        return ownUnion(ownKeep(inner, in), ownKeep(outer, out));
    };
    const OwnD2 a01 = ownSetLanes(1.0 + t, t);
    const OwnD2 a23 = ownSetLanes(1.0 - t, 2.0 - t);
    if (t > 0.0 && t < 1.0 && 2.0 - t < 2.0) {
        // The usual case: the arguments 1 + t, t, 1 - t, 2 - t lie in [1, 2),
        // [0, 1), (0, 1) and (1, 2), all positive, so each lane's polynomial
        // is known and the other need not be evaluated. A t below about
        // 2^-52 does not qualify: 1 - t and 2 - t round to 1 and 2, where the
        // scalar rule takes the outer polynomial and 0.
        const OwnD2 w01 = poly(a01, ownSetLanes(k.out3, k.in3), ownSetLanes(k.out2, k.in2),
                               ownSetLanes(k.out1, k.in1), ownSetLanes(k.out0, k.in0));
        const OwnD2 w23 = poly(a23, ownSetLanes(k.in3, k.out3), ownSetLanes(k.in2, k.out2),
                               ownSetLanes(k.in1, k.out1), ownSetLanes(k.in0, k.out0));
        return ownNarrow(w01, w23);
    }
    return ownNarrow(weight(a01), weight(a23));
}

// ---------------------------------------------------------------------------
// Cubic sampling of four points at a time (the SSE cubic kernels)
// ---------------------------------------------------------------------------

// ((c3 x^3 + c2 x^2) + c1 x) + c0 with x^2 = x x and x^3 = x^2 x, in double,
// as ownCubicWeight. Without the linear term (c1 = 0, c0 != 0) the sum skips
// the addition of c1 x = +0, which leaves every value unchanged (it only
// turns -0 into +0, and adding c0 != 0 makes both the same).
template <bool kLinear>
OWN_LANE OwnD2 ownCubicPoly(OwnD2 x, double c3, double c2, double c1, double c0) {
    const OwnD2 x2 = x * x;
    const OwnD2 x3 = x2 * x;
    const OwnD2 s = OwnD2(c3) * x3 + OwnD2(c2) * x2;
    return (kLinear ? s + OwnD2(c1) * x : s) + OwnD2(c0);
}

// The weights of four points for the rare fractions (see ownCubicWeights4),
// point p's four in w[p]; kept out of line so as not to crowd the registers
// of the usual case.
__attribute__((noinline)) inline void ownCubicWeightsEach(const OwnCubicKernel& k, OwnF4 t, OwnF4 w[4]) {
    float f[4];
    ownStoreU(f, t);
    for (int p = 0; p < 4; ++p) w[p] = ownCubicWeightsSse(k, static_cast<double>(f[p]));
}

// The cubic weights of four points along one axis for fractions t (lane p
// for point p), by tap: w[j] holds the weight of tap j of the four points,
// w(1 + t), w(t), w(1 - t) and w(2 - t) for j = 0 .. 3. In the usual case
// every t lies in (0, 1) with 2 - t below 2 in double, so 1 + t and 2 - t
// take the outer polynomial and t and 1 - t the inner one, and each tap's
// weights are two double pairs. That case is 2^-53 < t < 1 for a float t:
// 2 - t rounds to 2 exactly for t up to 2^-53 (a tie, which goes to the even
// 2), and 1 + t stays below 2 for a float below 1. Otherwise (t = 0, or t so
// close to 0 or 1 that an argument rounds onto 1 or 2) the points go through
// ownCubicWeightsSse, which selects the polynomial per argument.
template <int Code>
OWN_LANE void ownCubicWeights4(OwnF4 t, OwnF4 w[4]) {
    constexpr OwnCubicKernel k = kOwnCubicKernels[Code - vekrInterCubic];
    if (ownMoveMask(ownAnd(OwnF4(0x1p-53f) < t, t < OwnF4(1.0f))) != 15) {
        ownCubicWeightsEach(k, t, w);
        ownTranspose(w[0], w[1], w[2], w[3]);
        return;
    }
    constexpr bool kInnerLinear = !(k.in1 == 0.0 && k.in0 != 0.0);
    const OwnD4 td = ownWiden(t);
    const OwnD2 t01 = ownLowPair(td), t23 = ownHighPair(td), one(1.0), two(2.0);
    auto outer = [&k](OwnD2 x) OWN_KERNEL { return ownCubicPoly<true>(x, k.out3, k.out2, k.out1, k.out0); };
    auto inner = [&k](OwnD2 x) OWN_KERNEL { return ownCubicPoly<kInnerLinear>(x, k.in3, k.in2, k.in1, k.in0); };
    w[0] = ownNarrow(outer(one + t01), outer(one + t23));
    w[1] = ownNarrow(inner(t01), inner(t23));
    w[2] = ownNarrow(inner(one - t01), inner(one - t23));
    w[3] = ownNarrow(outer(two - t01), outer(two - t23));
}

// ownCubicWeights4 from a table (see OwnCubicTable): every lane's integer
// part is at least table.minIndex, so t 2^(bits + 4) is the exact byte
// offset of its entry. The entries are the weights of one point each, and
// are transposed to the by-tap order.
OWN_LANE void ownCubicWeightsLookup(const OwnCubicTable& table, OwnF4 t, OwnF4 w[4]) {
    std::uint32_t off[4];
    ownLanesU32(ownTruncToInt(t * OwnF4(table.byteScale)), off);
    const std::uint8_t* base = reinterpret_cast<const std::uint8_t*>(table.w);
#pragma GCC unroll 4
    for (int p = 0; p < 4; ++p) w[p] = ownLoadA(reinterpret_cast<const float*>(base + off[p]));
    ownTranspose(w[0], w[1], w[2], w[3]);
}

// Taps i0 - 1 .. i0 + 2 along one axis, clamped to [lo, hi]; true when no
// clamp acts (the taps are i0 - 1 + j).
OWN_LANE bool ownCubicTaps(int i0, int lo, int hi, int tap[4]) {
    if (i0 - 1 >= lo && i0 + 2 <= hi) {
#pragma GCC unroll 4
        for (int j = 0; j < 4; ++j) tap[j] = i0 - 1 + j;
        return true;
    }
#pragma GCC unroll 4
    for (int j = 0; j < 4; ++j) {
        const int i = i0 - 1 + j;
        tap[j] = i < lo ? lo : (i > hi ? hi : i);
    }
    return false;
}

// The four consecutive taps at a[p] of four points, as tap vectors: v[k]
// holds tap k of the four points (lane p for point p). Float and 16u read
// each point's four taps as one vector and transpose; 8u reads the sixteen
// bytes into one register and spreads each tap over the lanes with one byte
// shuffle.
template <class T>
struct OwnCubicQuads {
    static OWN_LANE void load(const std::uint8_t* const a[4], OwnF4 v[4]) {
#pragma GCC unroll 4
        for (int p = 0; p < 4; ++p) v[p] = ownLoadAsFloat(reinterpret_cast<const T*>(a[p]));
        ownTranspose(v[0], v[1], v[2], v[3]);
    }
};
template <>
struct OwnCubicQuads<std::uint8_t> {
    static OWN_LANE void load(const std::uint8_t* const a[4], OwnF4 v[4]) {
        std::int32_t q[4];
#pragma GCC unroll 4
        for (int p = 0; p < 4; ++p) std::memcpy(&q[p], a[p], 4);
        const OwnW8 b = ownAsW8(ownSetLanes(q[0], q[1], q[2], q[3]));
        const char z = -128;
#pragma GCC unroll 4
        for (int k = 0; k < 4; ++k) {
            const char c = static_cast<char>(k);
            v[k] = ownToFloat(ownShuffleBytes(b, ownSetBytes(c, z, z, z, c + 4, z, z, z, c + 8, z, z, z, c + 12, z, z, z)));
        }
    }
};

// The cubic samples of four points, point p in lane p, from their lower
// taps i0[axis] and fractions t[axis] (lanes; points inside the box, or
// clamped into it). Every quantity is a vector over the four points: the
// weights by tap (ownCubicWeights4), the x sums of each tap row, then the
// y sums of each tap plane and (Dims 3) the z sum, each a four-tap sum in
// the order of ownSampleCubic.
//
// When no tap of the four points is clamped, a point's tap row (y, z) starts
// at its plane plus one byte offset, iy * step + ix * sizeof(T) for its
// first taps, formed for the four points as ownTapOffsets does for the
// linear kernels (the SSE path's sources fit it: ownLinearSseFits), plus
// the row's distance from the first. Otherwise each point's taps are
// clamped, and its tap rows found one by one; the x taps are read as one
// vector per row unless a point's x taps are clamped.
//
// kNoClamp: the caller knows that no tap of the four points is clamped.
// table: the weights along an axis where every lane's integer part is one
// the table serves are read from it, the others evaluated.
template <class T, int Dims, int Code, bool kNoClamp = false>
OWN_LANE OwnF4 ownSampleCubic4(const OwnSource<T>& s, const OwnI4 i0[3], const OwnF4 t[3],
                               const OwnCubicTable* table = nullptr) {
    OwnF4 w[3][4];
#pragma GCC unroll 3
    for (int ax = 0; ax < Dims; ++ax) {
        if (table && ownMoveMask(ownNonNegative(i0[ax] - OwnI4(table->minIndex))) == 15)
            ownCubicWeightsLookup(*table, t[ax], w[ax]);
        else
            ownCubicWeights4<Code>(t[ax], w[ax]);
    }
    auto sum = [](const OwnF4 v[4], const OwnF4 wt[4]) OWN_KERNEL {
        return ownCubicSum(v[0], v[1], v[2], v[3], wt[0], wt[1], wt[2], wt[3]);
    };

    // No clamp acts when i0 - 1 >= lo and i0 + 2 <= hi on each axis.
    OwnM4 inner(true);
#pragma GCC unroll 3
    for (int ax = 0; ax < (kNoClamp ? 0 : Dims); ++ax)
        inner = ownAnd(inner, ownAnd(ownNonNegative(i0[ax] - OwnI4(s.lo[ax] + 1)),
                                     ownNonNegative(OwnI4(s.hi[ax] - 2) - i0[ax])));
    std::int32_t iz[4] = {0, 0, 0, 0};
    if (Dims == 3) ownStoreU(iz, i0[2]);
    constexpr int kPlanes = Dims == 3 ? 4 : 1;
    OwnF4 planeSum[4];
    if (ownMoveMask(inner) == 15) {
        std::int32_t off[4];
        ownStoreU(off, ownTapOffsets<T>(i0[0] - OwnI4(1), i0[1] - OwnI4(1), s.step));
#pragma GCC unroll 4
        for (int j = 0; j < kPlanes; ++j) {
            const std::uint8_t* a[4];
#pragma GCC unroll 4
            for (int p = 0; p < 4; ++p)
                a[p] = reinterpret_cast<const std::uint8_t*>(s.pPlanes[Dims == 3 ? iz[p] - 1 + j : 0]) + off[p];
            OwnF4 rowSum[4];
#pragma GCC unroll 4
            for (int r = 0; r < 4; ++r) {
                OwnF4 v[4];
                OwnCubicQuads<T>::load(a, v);
                rowSum[r] = sum(v, w[0]);
#pragma GCC unroll 4
                for (int p = 0; p < 4; ++p) a[p] += s.step;
            }
            planeSum[j] = sum(rowSum, w[1]);
        }
    } else {
        std::int32_t ix[4], iy[4];
        ownStoreU(ix, i0[0]);
        ownStoreU(iy, i0[1]);
        int xs[4][4], ys[4][4], zs[4][4];
        bool rowsWhole = true;  // every point's x taps consecutive
#pragma GCC unroll 4
        for (int p = 0; p < 4; ++p) {
            rowsWhole = ownCubicTaps(ix[p], s.lo[0], s.hi[0], xs[p]) && rowsWhole;
            ownCubicTaps(iy[p], s.lo[1], s.hi[1], ys[p]);
            ownCubicTaps(iz[p], s.lo[2], s.hi[2], zs[p]);
        }
#pragma GCC unroll 4
        for (int j = 0; j < kPlanes; ++j) {
            OwnF4 rowSum[4];
#pragma GCC unroll 4
            for (int r = 0; r < 4; ++r) {
                const T* row[4];
#pragma GCC unroll 4
                for (int p = 0; p < 4; ++p) row[p] = ownSourceRow(s, zs[p][j], ys[p][r]);
                OwnF4 v[4];
                if (rowsWhole) {
                    const std::uint8_t* a[4];
#pragma GCC unroll 4
                    for (int p = 0; p < 4; ++p) a[p] = reinterpret_cast<const std::uint8_t*>(row[p] + xs[p][0]);
                    OwnCubicQuads<T>::load(a, v);
                } else {
                    for (int p = 0; p < 4; ++p)
                        v[p] = ownSetLanes(static_cast<float>(row[p][xs[p][0]]), static_cast<float>(row[p][xs[p][1]]),
                                           static_cast<float>(row[p][xs[p][2]]), static_cast<float>(row[p][xs[p][3]]));
                    ownTranspose(v[0], v[1], v[2], v[3]);
                }
                rowSum[r] = sum(v, w[0]);
            }
            planeSum[j] = sum(rowSum, w[1]);
        }
    }
    return Dims == 2 ? planeSum[0] : sum(planeSum, w[2]);
}

// ---------------------------------------------------------------------------
// Remap row kernels: one destination row from one row of each map
// ---------------------------------------------------------------------------

// A remap row: width destination voxels and the map values of the same
// positions (pz is not read by the single-plane kernels).
template <class T>
struct OwnRemapRowArgs {
    T* pDst;
    const float* px;
    const float* py;
    const float* pz;
    int width;
    OwnCubicTable cubic;  // the cubic SSE kernels' weight table (may serve none)
};

template <class T>
using OwnRemapRowFn = void (*)(const OwnSource<T>&, const OwnRemapRowArgs<T>&);

// The SSE remap kernels' view of the source box and the maps: the box's
// bounds as lanes, loaded once per row, and the map points of a row four at
// a time (z 0 for a plane).
template <int Dims>
struct OwnRemapBox4 {
    OwnF4 lo[3], hi[3];
    template <class T>
    explicit OwnRemapBox4(const OwnSource<T>& s) {
        for (int ax = 0; ax < 3; ++ax) {
            lo[ax] = OwnF4(s.loF[ax]);
            hi[ax] = OwnF4(s.hiF[ax]);
        }
    }
    // Map points i .. i + 3 of the row (16-byte aligned map rows).
    template <class T>
    static OWN_LANE void load(const OwnRemapRowArgs<T>& a, int i, OwnF4 c[3]) {
        c[0] = ownLoadA(a.px + i);
        c[1] = ownLoadA(a.py + i);
        c[2] = Dims == 3 ? ownLoadA(a.pz + i) : OwnF4(0.0f);
    }
    // Lanes with lo <= c <= hi on every axis (a NaN coordinate is outside),
    // as a four-bit mask.
    OWN_LANE int insideMask(const OwnF4 c[3]) const {
        OwnM4 inside = ownAnd(ownAnd(c[0] >= lo[0], c[0] <= hi[0]), ownAnd(c[1] >= lo[1], c[1] <= hi[1]));
        if (Dims == 3) inside = ownAnd(inside, ownAnd(c[2] >= lo[2], c[2] <= hi[2]));
        return ownMoveMask(inside);
    }
};

// Nearest: outside when x < xLow, x > xHigh, ... (so a box edge is inside and
// an outside point writes nothing); inside points read the element at the
// coordinates rounded with ties to even. A NaN coordinate fails every
// comparison and counts as inside; its index is clamped into the box
// (a > b ? a : b form, which turns NaN into the bound) so that it reads a
// voxel of the box instead of wild memory. Any other inside coordinate is
// unchanged by the clamp.
template <class T, int Dims>
void ownRemapRowNearest(const OwnSource<T>& s, const OwnRemapRowArgs<T>& a) {
    for (int i = 0; i < a.width; ++i) {
        float c[3] = {a.px[i], a.py[i], Dims == 3 ? a.pz[i] : 0.0f};
        bool outside = false;
        for (int ax = 0; ax < Dims; ++ax) outside = outside || c[ax] < s.loF[ax] || c[ax] > s.hiF[ax];
        if (outside) continue;
        int idx[3] = {0, 0, 0};
        for (int ax = 0; ax < Dims; ++ax) {
            float v = c[ax] > s.loF[ax] ? c[ax] : s.loF[ax];
            v = v < s.hiF[ax] ? v : s.hiF[ax];
            idx[ax] = ownRoundEven(v);
        }
        a.pDst[i] = ownSourceRow(s, idx[2], idx[1])[idx[0]];
    }
}

// The SSE form of ownRemapRowNearest (rows of a multiple of 4 voxels,
// aligned map rows, offsets that fit ownTapOffsets): the outside test, the
// clamp (maxps and minps are the a > b ? a : b and a < b ? a : b selects of
// the scalar rule) and the rounding (cvtps2dq, the same conversion in the
// same mode) run on four points; the inside points are then copied one by
// one.
template <class T, int Dims>
void ownRemapRowNearestSse(const OwnSource<T>& s, const OwnRemapRowArgs<T>& a) {
    const OwnRemapBox4<Dims> box(s);
    for (int i = 0; i < a.width; i += 4) {
        OwnF4 c[3];
        box.load(a, i, c);
        // Not the inside mask of the other kernels: here a NaN is inside.
        OwnM4 outside(false);
        OwnI4 idx[3];
        for (int ax = 0; ax < Dims; ++ax) {
            outside = ownOr(outside, ownOr(c[ax] < box.lo[ax], c[ax] > box.hi[ax]));
            idx[ax] = ownRoundToInt(ownMin(ownMax(c[ax], box.lo[ax]), box.hi[ax]));
        }
        int inside = ~ownMoveMask(outside) & 15;
        if (inside == 0) continue;
        std::int32_t off[4], z[4] = {0, 0, 0, 0};
        ownStoreU(off, ownTapOffsets<T>(idx[0], idx[1], s.step));
        if (Dims == 3) ownStoreU(z, idx[2]);
        for (int j = 0; j < 4; ++j, inside >>= 1)
            if (inside & 1)
                std::memcpy(a.pDst + i + j, reinterpret_cast<const std::uint8_t*>(s.pPlanes[z[j]]) + off[j], sizeof(T));
    }
}

// Inside test of the linear and cubic kernels: lo <= c <= hi on every axis
// (a NaN coordinate is outside).
template <int Dims, class C, class B>
inline bool ownInsideBox(const C c[3], const B& lo, const B& hi) {
    for (int ax = 0; ax < Dims; ++ax)
        if (!(c[ax] >= lo[ax] && c[ax] <= hi[ax])) return false;
    return true;
}

template <class T, int Dims>
void ownRemapRowLinear(const OwnSource<T>& s, const OwnRemapRowArgs<T>& a) {
    const OwnLinearCtx<T> k = ownLinearCtx(s);
    const float xLo = s.loF[0], xHi = s.hiF[0], yLo = s.loF[1], yHi = s.hiF[1], zLo = s.loF[2], zHi = s.hiF[2];
    for (int i = 0; i < a.width; ++i) {
        const float x = a.px[i], y = a.py[i], z = Dims == 3 ? a.pz[i] : 0.0f;
        if (!(x >= xLo && x <= xHi && y >= yLo && y <= yHi)) continue;
        if (Dims == 3 && !(z >= zLo && z <= zHi)) continue;
        float tx, ty, tz = 0.0f;
        const int ix = ownLinearIndex(x, k.top[0], tx);
        const int iy = ownLinearIndex(y, k.top[1], ty);
        const int iz = Dims == 3 ? ownLinearIndex(z, k.top[2], tz) : 0;
        a.pDst[i] = ownStoreInterp<T>(ownBlendLinear<T, Dims>(k, ix, iy, iz, tx, ty, tz));
    }
}

// The SSE form of ownRemapRowLinear for rows of a multiple of 4 voxels with
// 16-byte aligned map rows, and a box wider than one voxel: four map points
// at a time go through the inside test, the taps, the fractions and the
// blend as lanes; only the inside lanes are stored.
template <class T, int Dims, bool EvenPlanes>
void ownRemapRowLinearLanes(const OwnSource<T>& s, const OwnRemapRowArgs<T>& a) {
    const OwnLinearCtx<T> k = ownLinearCtx(s);
    const OwnRemapBox4<Dims> box(s);
    OwnF4 top[3];
    for (int ax = 0; ax < 3; ++ax) top[ax] = OwnF4(static_cast<float>(k.top[ax]));
    for (int i = 0; i < a.width; i += 4) {
        OwnF4 c[3];
        box.load(a, i, c);
        const int mask = box.insideMask(c);
        if (mask == 0) continue;
        OwnF4 tx, ty, tz(0.0f);
        const OwnI4 ix = ownLinearIndex4(c[0], box.lo[0], top[0], tx);
        const OwnI4 iy = ownLinearIndex4(c[1], box.lo[1], top[1], ty);
        const OwnI4 iz = Dims == 3 ? ownLinearIndex4(c[2], box.lo[2], top[2], tz) : OwnI4(0);
        const OwnI4 off = ownLaneOffsets<T, Dims, EvenPlanes>(k, ix, iy, iz);
        const OwnF4 v = ownBlendLinearLanes<T, Dims, EvenPlanes>(k, off, iz, tx, ty, tz);
        ownStoreLanes(a.pDst + i, v, mask);
    }
}
template <class T, int Dims>
void ownRemapRowLinearSse(const OwnSource<T>& s, const OwnRemapRowArgs<T>& a) {
    if (s.evenPlanes)
        ownRemapRowLinearLanes<T, Dims, true>(s, a);
    else
        ownRemapRowLinearLanes<T, Dims, false>(s, a);
}

template <class T, int Dims, int Code>
void ownRemapRowCubic(const OwnSource<T>& s, const OwnRemapRowArgs<T>& a) {
    const OwnCubicKernel& k = ownCubicKernel(Code);
    for (int i = 0; i < a.width; ++i) {
        const float c[3] = {a.px[i], a.py[i], Dims == 3 ? a.pz[i] : 0.0f};
        if (!ownInsideBox<Dims>(c, s.loF, s.hiF)) continue;
        a.pDst[i] = ownStoreInterp<T>(ownSampleCubic<T, Dims>(s, k, c[0], c[1], c[2]));
    }
}

// The SSE form of ownRemapRowCubic (rows of a multiple of 4 voxels, aligned
// map rows): four map points at a time. Lanes outside the box are clamped
// into it (NaN to the lower bound) so that their taps can be read, and are
// not stored; an inside coordinate is unchanged by the clamp, except that
// -0 becomes +0, which gives the same tap, the same weights (they depend on
// |t|, 1 + t, 1 - t and 2 - t) and so the same result.
template <class T, int Dims, int Code>
void ownRemapRowCubicLanes(const OwnSource<T>& source, const OwnRemapRowArgs<T>& a) {
    // A local copy: the stores of the row could alias the caller's record
    // (8u stores alias everything), which would force a reload of every
    // field per group.
    const OwnSource<T> s = source;
    const OwnRemapBox4<Dims> box(s);
    const OwnCubicStore<T> store(a.width);
    const OwnCubicTable cubic = a.cubic;
    for (int i = 0; i < a.width; i += 4) {
        OwnF4 c[3];
        box.load(a, i, c);
        const int mask = box.insideMask(c);
        if (mask == 0) continue;
        OwnI4 i0[3] = {OwnI4(0), OwnI4(0), OwnI4(0)};
        OwnF4 t[3] = {OwnF4(0.0f), OwnF4(0.0f), OwnF4(0.0f)};
#pragma GCC unroll 3
        for (int ax = 0; ax < Dims; ++ax) {
            const OwnF4 cc = ownMin(ownMax(c[ax], box.lo[ax]), box.hi[ax]);
            i0[ax] = ownTruncToInt(cc);
            t[ax] = cc - ownToFloat(i0[ax]);
        }
        const OwnF4 v = ownSampleCubic4<T, Dims, Code>(s, i0, t, &cubic);
        if (mask == 15)
            store.whole(a.pDst + i, v);
        else
            ownStoreLanes(a.pDst + i, v, mask);
    }
    store.finish();
}

// The remap row kernels of one element type and dimension, indexed by
// interpolation code (code 3 and 0 have none).
template <class T, int Dims, bool Sse>
struct OwnRemapKernels {
    static constexpr OwnRemapRowFn<T> table[8] = {
        nullptr,
        Sse ? ownRemapRowNearestSse<T, Dims> : ownRemapRowNearest<T, Dims>,
        Sse ? ownRemapRowLinearSse<T, Dims> : ownRemapRowLinear<T, Dims>,
        nullptr,
        Sse ? ownRemapRowCubicLanes<T, Dims, vekrInterCubic> : ownRemapRowCubic<T, Dims, vekrInterCubic>,
        Sse ? ownRemapRowCubicLanes<T, Dims, vekrInterCubicBSpline> : ownRemapRowCubic<T, Dims, vekrInterCubicBSpline>,
        Sse ? ownRemapRowCubicLanes<T, Dims, vekrInterCubicCatmullRom>
            : ownRemapRowCubic<T, Dims, vekrInterCubicCatmullRom>,
        Sse ? ownRemapRowCubicLanes<T, Dims, vekrInterCubicB05C03> : ownRemapRowCubic<T, Dims, vekrInterCubicB05C03>,
    };
};

// ---------------------------------------------------------------------------
// Warp row kernels: one destination row along a straight line of source points
// ---------------------------------------------------------------------------

// A warp row: count destination voxels from pDst; the source point of the
// first is start, and each step in x adds delta (the inverse map's first
// column). Coordinates are carried in double.
template <class T>
struct OwnWarpRowArgs {
    T* pDst;
    double start[3];
    double delta[3];
    int count;
};

template <class T>
using OwnWarpRowFn = void (*)(const OwnSource<T>&, const OwnWarpRowArgs<T>&);

// Bounds of the box in double for the warp's inside test.
struct OwnBoxD {
    double lo[3], hi[3];
};
template <class T>
inline OwnBoxD ownBoxD(const OwnSource<T>& s) {
    OwnBoxD b;
    for (int a = 0; a < 3; ++a) {
        b.lo[a] = s.lo[a];
        b.hi[a] = s.hi[a];
    }
    return b;
}

// The SSE warp kernels' view of the box: its bounds as double lanes, and
// the inside test of four points given as pairs (points 0, 1 and 2, 3 per
// axis), lo <= c <= hi on every axis (a NaN is outside), as a four-bit mask.
template <int Dims>
struct OwnWarpBox4 {
    OwnD2 lo[3], hi[3];
    explicit OwnWarpBox4(const OwnBoxD& box) {
        for (int ax = 0; ax < 3; ++ax) {
            lo[ax] = OwnD2(box.lo[ax]);
            hi[ax] = OwnD2(box.hi[ax]);
        }
    }
    OWN_LANE int insideMask(const OwnD2 c01[3], const OwnD2 c23[3]) const {
        OwnMD2 in01(true), in23 = in01;
#pragma GCC unroll 3
        for (int ax = 0; ax < Dims; ++ax) {
            in01 = ownAnd(in01, ownAnd(c01[ax] >= lo[ax], c01[ax] <= hi[ax]));
            in23 = ownAnd(in23, ownAnd(c23[ax] >= lo[ax], c23[ax] <= hi[ax]));
        }
        return ownMoveMask(in01) | (ownMoveMask(in23) << 2);
    }
};

// All warp kernels share the walk: the point advances by delta every voxel,
// inside or not, and only inside points are written. Sample(c) gives the
// element to store.
template <class T, int Dims, class Sample>
inline void ownWarpWalk(const OwnSource<T>& s, const OwnWarpRowArgs<T>& a, Sample sample) {
    const OwnBoxD box = ownBoxD(s);
    double c[3] = {a.start[0], a.start[1], a.start[2]};
    for (int i = 0; i < a.count; ++i) {
        if (ownInsideBox<Dims>(c, box.lo, box.hi)) a.pDst[i] = sample(c);
        c[0] += a.delta[0];
        c[1] += a.delta[1];
        c[2] += a.delta[2];
    }
}

template <class T, int Dims>
void ownWarpRowNearest(const OwnSource<T>& s, const OwnWarpRowArgs<T>& a) {
    ownWarpWalk<T, Dims>(s, a, [&](const double* c) {
        return ownSourceRow(s, Dims == 3 ? ownRoundEven(c[2]) : 0, ownRoundEven(c[1]))[ownRoundEven(c[0])];
    });
}

template <class T, int Dims>
void ownWarpRowLinear(const OwnSource<T>& s, const OwnWarpRowArgs<T>& a) {
    const OwnLinearCtx<T> k = ownLinearCtx(s);
    const double xLo = s.lo[0], xHi = s.hi[0], yLo = s.lo[1], yHi = s.hi[1], zLo = s.lo[2], zHi = s.hi[2];
    const double dx = a.delta[0], dy = a.delta[1], dz = a.delta[2];
    double x = a.start[0], y = a.start[1], z = a.start[2];
    for (int i = 0; i < a.count; ++i, x += dx, y += dy, z += dz) {
        if (!(x >= xLo && x <= xHi && y >= yLo && y <= yHi)) continue;
        if (Dims == 3 && !(z >= zLo && z <= zHi)) continue;
        float tx, ty, tz = 0.0f;
        const int ix = ownLinearIndex(x, k.top[0], tx);
        const int iy = ownLinearIndex(y, k.top[1], ty);
        const int iz = Dims == 3 ? ownLinearIndex(z, k.top[2], tz) : 0;
        a.pDst[i] = ownStoreInterp<T>(ownBlendLinear<T, Dims>(k, ix, iy, iz, tx, ty, tz));
    }
}

// The walk of a warp row four points at a time: next() gives points i .. i + 3
// as two double pairs per axis, each point the previous plus the step, the
// same additions as the scalar walk (x and y side by side in one register,
// z alone); lastXy and lastZ hold point i + 3.
struct OwnWarpWalk4 {
    OwnD2 xy, dxy, lastXy;
    double z, dz, lastZ;
    OwnWarpWalk4(const double start[3], const double delta[3])
        : xy(ownSetLanes(start[0], start[1])), dxy(ownSetLanes(delta[0], delta[1])), lastXy(xy),
          z(start[2]), dz(delta[2]), lastZ(z) {}
    OWN_LANE void nextXy(OwnD2 c01[3], OwnD2 c23[3]) {
        const OwnD2 p0 = xy, p1 = p0 + dxy, p2 = p1 + dxy, p3 = p2 + dxy;
        c01[0] = ownInterleaveLo(p0, p1), c01[1] = ownInterleaveHi(p0, p1);
        c23[0] = ownInterleaveLo(p2, p3), c23[1] = ownInterleaveHi(p2, p3);
        lastXy = p3;
        xy = p3 + dxy;
    }
    // Points i .. i + 3 of a plane as (x, y) pairs, one register a point.
    OWN_LANE void nextPoints(OwnD2 p[4]) {
        p[0] = xy, p[1] = p[0] + dxy, p[2] = p[1] + dxy, p[3] = p[2] + dxy;
        lastXy = p[3];
        xy = p[3] + dxy;
    }
    OWN_LANE void next(OwnD2 c01[3], OwnD2 c23[3]) {
        nextXy(c01, c23);
        const double z1 = z + dz, z2 = z1 + dz, z3 = z2 + dz;
        c01[2] = ownSetLanes(z, z1), c23[2] = ownSetLanes(z2, z3);
        lastZ = z3;
        z = z3 + dz;
    }
    // The current point (the next to come), as three doubles.
    void point(double c[3]) const {
        ownStoreU(c, xy);
        c[2] = z;
    }
    void deltas(double d[3]) const {
        ownStoreU(d, dxy);
        d[2] = dz;
    }
};

// How many points of a warp row, from the walk's current point c on, are
// surely inside the box with every coordinate below its upper bound; at
// most n. c itself must lie in [lo, hi) on every axis; from there each
// coordinate, moving one way (the walk is monotonic), can only cross the
// bound it moves towards.
//
// Point k of the walk is c plus k additions of d, so over n steps it strays
// from the line c + k d by at most n 2^-52 (|c| + n |d| + 1) (each addition
// rounds by half an ulp of its sum). The margin m is 16 times that bound and
// also covers the rounding of q, so every point counted lies in the box and
// strictly below hi: its index trunc(c) is at most hi - 1 and neither clamp
// of the index can act. A coordinate moving down must therefore start below
// hi (the walk may sit exactly on hi); one standing still stays where it is.
inline int ownWarpSurelyInside(const double c[3], const double d[3], const OwnBoxD& box, int dims, int n) {
    double limit = n;
    for (int ax = 0; ax < dims; ++ax) {
        const double size = std::fabs(c[ax]) + n * std::fabs(d[ax]) + std::fabs(box.lo[ax]) + std::fabs(box.hi[ax]);
        const double m = (n + 1.0) * 0x1p-48 * (size + 1.0);
        if (!(c[ax] >= box.lo[ax] && c[ax] < box.hi[ax])) return 0;
        double q;
        if (d[ax] > 0)
            q = ((box.hi[ax] - c[ax]) - m) / d[ax];
        else if (d[ax] < 0)
            q = ((box.lo[ax] - c[ax]) + m) / d[ax];
        else
            continue;
        // The last point counted is the one before floor(q), less one for
        // the rounding of q: point k for k < q - 1.
        if (!(q - 1.0 < limit)) continue;
        limit = q - 1.0;
    }
    return limit > 0 ? static_cast<int>(limit) : 0;
}

// The SSE form of ownWarpRowLinear (rows of a multiple of 4 voxels, a box
// wider than one voxel), four points at a time as lanes.
//
// The inside points of a row form one run: along each axis the walk is
// monotonic (x + d rounds to a value on the same side of x as d; a NaN or
// infinite coordinate stays outside for the rest of the row), so each axis
// is inside over one interval of the row, and so is their intersection. The
// row therefore goes in three stages: groups before the run take the full
// inside test; inside the run, the groups that ownWarpSurelyInside counts
// take no test and no clamp, and after them a group whose last point is
// inside lies inside as a whole; the group where the run ends is stored
// lane by lane, and the rest of the row is outside.
template <class T, int Dims, bool EvenPlanes>
void ownWarpRowLinearLanes(const OwnSource<T>& s, const OwnWarpRowArgs<T>& a) {
    const OwnLinearCtx<T> k = ownLinearCtx(s);
    const OwnBoxD box = ownBoxD(s);
    const OwnWarpBox4<Dims> lanes(box);
    OwnD2 top[3];
    for (int ax = 0; ax < 3; ++ax) top[ax] = OwnD2(static_cast<double>(k.top[ax]));
    const OwnD2 loXy = ownSetLanes(box.lo[0], box.lo[1]), hiXy = ownSetLanes(box.hi[0], box.hi[1]);
    OwnWarpWalk4 walk(a.start, a.delta);
    OwnD2 c01[3], c23[3];

    // A plane z tap fixed for a stretch of the row: index, fraction and the
    // plane's offset from the origin, on all lanes.
    struct {
        OwnI4 iz, planeOff;
        OwnF4 t;
    } fixedZ = {OwnI4(0), OwnI4(0), OwnF4(0.0f)};

    // Taps, fractions and blend of the four points in c01, c23. Clamped
    // takes outside lanes' indices into the box, as ownLinearIndex4 does, and
    // gives inside points min(trunc(c), top), the scalar rule's index; points
    // below hi need neither clamp. With fixed a std::true_type the z tap is
    // fixedZ's.
    auto blend = [&](bool clamped, auto fixed) OWN_KERNEL {
        constexpr bool kFixedZ = decltype(fixed)::value;
        OwnF4 t[3] = {OwnF4(0.0f), OwnF4(0.0f), OwnF4(0.0f)};
        OwnI4 idx[3] = {OwnI4(0), OwnI4(0), OwnI4(0)};
#pragma GCC unroll 3
        for (int ax = 0; ax < (kFixedZ ? 2 : Dims); ++ax) {
            OwnD2 p01 = c01[ax], p23 = c23[ax];
            if (clamped) {
                p01 = ownMin(ownMax(p01, lanes.lo[ax]), top[ax]);
                p23 = ownMin(ownMax(p23, lanes.lo[ax]), top[ax]);
            }
            const OwnI4 i01 = ownTruncToInt(p01), i23 = ownTruncToInt(p23);
            const OwnD2 f01 = c01[ax] - ownToDouble2(i01);
            const OwnD2 f23 = c23[ax] - ownToDouble2(i23);
            t[ax] = ownNarrow(f01, f23);
            idx[ax] = ownConcatLow(i01, i23);
        }
        OwnI4 off;
        if (kFixedZ) {
            t[2] = fixedZ.t;
            idx[2] = fixedZ.iz;
            off = ownTapOffsets<T>(idx[0], idx[1], k.step) + fixedZ.planeOff;
        } else {
            off = ownLaneOffsets<T, Dims, EvenPlanes>(k, idx[0], idx[1], idx[2]);
        }
        return ownBlendLinearLanes<T, Dims, EvenPlanes>(k, off, idx[2], t[0], t[1], t[2]);
    };
    const std::false_type kVaryingZ;
    auto insideMask = [&]() OWN_KERNEL { return lanes.insideMask(c01, c23); };

    int i = 0;
    // Before the run: the full test, until a group holds an inside point.
    for (; i < a.count; i += 4) {
        walk.next(c01, c23);
        const int mask = insideMask();
        if (mask == 0) continue;
        ownStoreLanes(a.pDst + i, blend(true, kVaryingZ), mask);
        if (!(mask & 8)) return;  // the run ended in this group
        i += 4;
        break;
    }
    // In the run.
    int sure = i;
    if (i < a.count) {
        double c[3], d[3];
        walk.point(c);
        walk.deltas(d);
        sure += ownWarpSurelyInside(c, d, box, Dims, a.count - i);
    }
    if (Dims == 2) {
        // A plane, in the run: each point's (x, y) pair is truncated, turned
        // back to double and subtracted as one register, which are the
        // scalar rule's operations on the same values; the fractions are then
        // sorted into x and y lanes, and the index pairs packed to 16 bits
        // (they lie in the box, which ownLinearSseFits keeps below 2^15) for
        // the offset multiply-add of ownTapOffsets.
        const OwnW8 factors = ownPairs16(static_cast<std::int16_t>(sizeof(T)), static_cast<std::int16_t>(k.step));
        T* const pDst = a.pDst;  // a local: the 8u stores could alias a
        for (; i + 4 <= sure; i += 4) {
            OwnD2 p[4], f[4];
            OwnI4 ip[4];
            walk.nextPoints(p);
#pragma GCC unroll 4
            for (int j = 0; j < 4; ++j) {
                ip[j] = ownTruncToInt(p[j]);
                f[j] = p[j] - ownToDouble2(ip[j]);
            }
            const OwnF4 t01 = ownNarrow(f[0], f[1]), t23 = ownNarrow(f[2], f[3]);
            const OwnW8 pairs = ownPackSat(ownConcatLow(ip[0], ip[1]), ownConcatLow(ip[2], ip[3]));
            const OwnI4 off = ownMulAddPairs(pairs, factors);
            const OwnF4 tx = ownEvenLanes(t01, t23), ty = ownOddLanes(t01, t23);
            ownStoreInterp4(pDst + i, ownBlendLinearLanes<T, Dims, EvenPlanes>(k, off, OwnI4(0), tx, ty, OwnF4(0.0f)));
        }
    }
    if (Dims == 3 && walk.dz == 0 && i + 4 <= sure) {
        // z stands still along the row (the inverse map keeps x out of z):
        // after the first addition of the step (+0 or -0) every point has
        // the walk's current z, so its tap is found once.
        const double z = walk.z;
        const int iz = static_cast<int>(z);
        fixedZ.iz = OwnI4(iz);
        fixedZ.planeOff = OwnI4(EvenPlanes ? static_cast<int>(iz * k.planeStep) : 0);
        fixedZ.t = OwnF4(static_cast<float>(z - static_cast<double>(iz)));
        for (; i + 4 <= sure; i += 4) {
            walk.nextXy(c01, c23);
            ownStoreInterp4(a.pDst + i, blend(false, std::true_type()));
        }
    }
    for (; i + 4 <= sure; i += 4) {
        walk.next(c01, c23);
        ownStoreInterp4(a.pDst + i, blend(false, kVaryingZ));
    }
    // Lane 0 follows an inside point.
    for (; i < a.count; i += 4) {
        walk.next(c01, c23);
        const OwnMD2 inXy = ownAnd(walk.lastXy >= loXy, walk.lastXy <= hiXy);
        const bool lastInside =
            ownMoveMask(inXy) == 3 && (Dims == 2 || (walk.lastZ >= box.lo[2] && walk.lastZ <= box.hi[2]));
        if (!lastInside) {
            ownStoreLanes(a.pDst + i, blend(true, kVaryingZ), insideMask());
            return;
        }
        ownStoreInterp4(a.pDst + i, blend(true, kVaryingZ));
    }
}
template <class T, int Dims>
void ownWarpRowLinearSse(const OwnSource<T>& s, const OwnWarpRowArgs<T>& a) {
    if (s.evenPlanes)
        ownWarpRowLinearLanes<T, Dims, true>(s, a);
    else
        ownWarpRowLinearLanes<T, Dims, false>(s, a);
}

template <class T, int Dims, int Code>
void ownWarpRowCubic(const OwnSource<T>& s, const OwnWarpRowArgs<T>& a) {
    const OwnCubicKernel& k = ownCubicKernel(Code);
    ownWarpWalk<T, Dims>(s, a,
                         [&](const double* c) { return ownStoreInterp<T>(ownSampleCubic<T, Dims>(s, k, c[0], c[1], c[2])); });
}

// The SSE form of ownWarpRowCubic (rows of a multiple of 4 voxels): the
// walk four points at a time (OwnWarpWalk4, the same additions), the inside
// test in double, and outside lanes clamped into the box and not stored, as
// in ownRemapRowCubicLanes.
template <class T, int Dims, int Code>
void ownWarpRowCubicLanes(const OwnSource<T>& source, const OwnWarpRowArgs<T>& a) {
    const OwnSource<T> s = source;  // as in ownRemapRowCubicLanes
    const OwnBoxD box = ownBoxD(s);
    const OwnWarpBox4<Dims> lanes(box);
    // Points inside [lo + 1, hi - 2) on every axis lie in the box and have
    // trunc(c) - 1 >= lo and trunc(c) + 2 <= hi: no test and no clamp. The
    // walk is monotonic along each axis (see ownWarpRowLinearLanes), so such
    // points come in runs; ownWarpSurelyInside counts, from the walk's
    // current point, the points that surely belong to the run, and is asked
    // again after a group that lay wholly inside the box.
    OwnBoxD tapBox = box;
    for (int ax = 0; ax < 3; ++ax) {
        tapBox.lo[ax] = box.lo[ax] + 1.0;
        tapBox.hi[ax] = box.hi[ax] - 2.0;
    }
    int sureEnd = 0;
    bool lastInside = true;
    OwnWarpWalk4 walk(a.start, a.delta);
    OwnD2 c01[3], c23[3];
    for (int i = 0; i < a.count; i += 4) {
        if (i >= sureEnd && lastInside) {
            double c[3], d[3];
            walk.point(c);
            walk.deltas(d);
            sureEnd = i + ownWarpSurelyInside(c, d, tapBox, Dims, a.count - i);
        }
        if (Dims == 3)
            walk.next(c01, c23);
        else
            walk.nextXy(c01, c23);
        OwnI4 i0[3] = {OwnI4(0), OwnI4(0), OwnI4(0)};
        OwnF4 t[3] = {OwnF4(0.0f), OwnF4(0.0f), OwnF4(0.0f)};
        if (i + 4 <= sureEnd) {
#pragma GCC unroll 3
            for (int ax = 0; ax < Dims; ++ax) {
                const OwnI4 j01 = ownTruncToInt(c01[ax]), j23 = ownTruncToInt(c23[ax]);
                i0[ax] = ownConcatLow(j01, j23);
                t[ax] = ownNarrow(c01[ax] - ownToDouble2(j01), c23[ax] - ownToDouble2(j23));
            }
            ownStoreInterp4(a.pDst + i, ownSampleCubic4<T, Dims, Code, true>(s, i0, t));
            continue;
        }
        const int mask = lanes.insideMask(c01, c23);
        lastInside = mask == 15;
        if (mask == 0) continue;
#pragma GCC unroll 3
        for (int ax = 0; ax < Dims; ++ax) {
            const OwnD2 lo = lanes.lo[ax], hi = lanes.hi[ax];
            const OwnD2 p01 = ownMin(ownMax(c01[ax], lo), hi), p23 = ownMin(ownMax(c23[ax], lo), hi);
            const OwnI4 j01 = ownTruncToInt(p01), j23 = ownTruncToInt(p23);
            i0[ax] = ownConcatLow(j01, j23);
            t[ax] = ownNarrow(p01 - ownToDouble2(j01), p23 - ownToDouble2(j23));
        }
        ownStoreLanes(a.pDst + i, ownSampleCubic4<T, Dims, Code>(s, i0, t), mask);
    }
}

template <class T, int Dims, bool Sse>
struct OwnWarpKernels {
    static constexpr OwnWarpRowFn<T> table[8] = {
        nullptr,
        ownWarpRowNearest<T, Dims>,
        Sse ? ownWarpRowLinearSse<T, Dims> : ownWarpRowLinear<T, Dims>,
        nullptr,
        Sse ? ownWarpRowCubicLanes<T, Dims, vekrInterCubic> : ownWarpRowCubic<T, Dims, vekrInterCubic>,
        Sse ? ownWarpRowCubicLanes<T, Dims, vekrInterCubicBSpline> : ownWarpRowCubic<T, Dims, vekrInterCubicBSpline>,
        Sse ? ownWarpRowCubicLanes<T, Dims, vekrInterCubicCatmullRom> : ownWarpRowCubic<T, Dims, vekrInterCubicCatmullRom>,
        Sse ? ownWarpRowCubicLanes<T, Dims, vekrInterCubicB05C03> : ownWarpRowCubic<T, Dims, vekrInterCubicB05C03>,
    };
};

// ---------------------------------------------------------------------------
// Path choice
// ---------------------------------------------------------------------------

// The vector-path condition of a remap: every destination and map plane on
// a 16-byte boundary, both row steps multiples of 16 bytes and rows a
// multiple of 4 voxels; and a source the SSE blend can address (a box wider
// than one voxel, since it reads the x taps as adjacent pairs, and offsets
// that fit its 16-bit multiply-add: see ownLinearSseFits).
template <class T>
inline bool ownRemapUsesSse(T* const pDst[], const float* const* const maps[], int numMaps, int dstStep, int mapStep,
                            VekrVolume dst, const OwnSource<T>& src) {
    if (!ownIsMultipleOf4(dst.width) || (dstStep & 15) || (mapStep & 15) || !ownLinearSseFits(src)) return false;
    for (int z = 0; z < dst.depth; ++z) {
        if (!ownIsAligned16(pDst[z])) return false;
        for (int m = 0; m < numMaps; ++m)
            if (!ownIsAligned16(maps[m][z])) return false;
    }
    return true;
}

// The weight table of a cubic remap on the SSE path, filled once per call
// and read by every thread. It pays when the destination has many more
// voxels than the table has entries and the source box reaches the integer
// parts it serves: 2^14 entries (256 KB, filled in about 0.13 ms) serve the
// parts from 512 up, three quarters of the points of a 2048-wide box, and
// took 14% off a 2048^2 plane remap. Otherwise, or when the allocation
// fails, the table serves nothing and the kernels evaluate every weight
// (the same bits).
class OwnRemapCubicTable {
  public:
    OwnRemapCubicTable(int code, bool sse, VekrVolume dst, const int hi[3], int dims) {
        const long long voxels = static_cast<long long>(dst.width) * dst.height * dst.depth;
        if (!sse || !ownIsCubicInterpolation(code) || voxels < (16LL << kBits)) return;
        bool reaches = false;
        for (int ax = 0; ax < dims; ++ax) reaches = reaches || hi[ax] >= (1 << (23 - kBits));
        if (!reaches) return;
        buffer_ = static_cast<float*>(vekMalloc(16 << kBits));
        if (buffer_) table = ownFillCubicTable(ownCubicKernel(code), kBits, buffer_);
    }
    ~OwnRemapCubicTable() { vekFree(buffer_); }
    OwnRemapCubicTable(const OwnRemapCubicTable&) = delete;
    OwnRemapCubicTable& operator=(const OwnRemapCubicTable&) = delete;

    OwnCubicTable table;

  private:
    static constexpr int kBits = 14;
    float* buffer_ = nullptr;
};

// The vector-path condition of a warp: every destination row of the box
// starts on a 16-byte boundary, the box is a multiple of 4 voxels wide, and
// the SSE blend can address the source (ownLinearSseFits).
template <class T>
inline bool ownWarpUsesSse(T* const pDst[], int dstStep, const VekrCuboid& box, const OwnSource<T>& src) {
    if (!ownIsMultipleOf4(box.width) || (dstStep & 15) || !ownLinearSseFits(src)) return false;
    for (int z = box.z; z < box.z + box.depth; ++z)
        if (!ownIsAligned16(pDst[z] + box.x)) return false;
    return true;
}

// ---------------------------------------------------------------------------
// Row walk over a destination
// ---------------------------------------------------------------------------

// Calls row(z, y) for every plane z < numPlanes and row y < numRows. With
// more than one thread the rows, taken plane after plane, are split into
// contiguous static blocks; every row is computed from its own start, so the
// result does not depend on the split.
template <class RowFn>
void ownForEachRow_MT(int numPlanes, int numRows, int numThreads, const RowFn& row) {
    const long long total = static_cast<long long>(numPlanes) * numRows;
    if (numThreads > 1) {
#pragma omp parallel for num_threads(ownVolumeTeam(numThreads, total)) schedule(static)
        for (long long r = 0; r < total; ++r) row(static_cast<int>(r / numRows), static_cast<int>(r % numRows));
    } else {
        for (int z = 0; z < numPlanes; ++z)
            for (int y = 0; y < numRows; ++y) row(z, y);
    }
}

// The thread count of a volume operation: the library's count when the
// destination exceeds 15 voxels in every axis, otherwise 1.
inline int ownVolumeThreads(int width, int height, int depth) {
    if (width > 15 && height > 15 && depth > 15) {
        const int n = ownGetNumThreads();
        return n > 1 ? n : 1;
    }
    return 1;
}

// The walk of a warp over the inclusive destination box [x0, x0 + width) x
// [y0, y0 + height) x [z0, z0 + depth) of the planes pDst. inv is the inverse
// map (3 x 4, row-major). The start of each row is formed from its plane and
// row terms, ((inv[r][2] z + inv[r][3]) + inv[r][1] y) + inv[r][0] x0, and the
// kernel then adds inv[r][0] per voxel.
template <class T>
void ownWarpBox(const OwnSource<T>& src, OwnWarpRowFn<T> kernel, const double inv[3][4], T* const pDst[], int dstStep,
                const VekrCuboid& dstVoi, int numThreads) {
    ownForEachRow_MT(dstVoi.depth, dstVoi.height, numThreads, [&](int zi, int yi) {
        const double z = dstVoi.z + zi, y = dstVoi.y + yi, x0 = dstVoi.x;
        OwnWarpRowArgs<T> row;
        row.pDst = ownOffsetRow(pDst[dstVoi.z + zi], dstVoi.y + yi, dstStep) + dstVoi.x;
        for (int r = 0; r < 3; ++r) {
            const double planeTerm = inv[r][2] * z + inv[r][3];
            const double rowTerm = planeTerm + inv[r][1] * y;
            row.start[r] = rowTerm + inv[r][0] * x0;
            row.delta[r] = inv[r][0];
        }
        row.count = dstVoi.width;
        kernel(src, row);
    });
}

}  // namespace vekr

#endif  // VEKR_VOLUME_REMAP_KERNELS_H
