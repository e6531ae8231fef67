// Interpolation weights and result conversion shared by the volume resize,
// remap and affine warp: the linear blend, the four cubic kernels (four-point
// Lagrange and three members of the two-parameter (B, C) family), the exact
// floor of the coordinate set-up, and the conversion of a float result to 8u
// and 16u voxels. The float rules are written once over the lane type
// (float, or OwnF4 of core/lanes.h), so that the scalar and the four-lane
// forms perform the same operations in the same order and give identical
// bits.
//
// Numerical contract of this header (the callers' results depend on it):
//  - Cubic weights are evaluated in double precision and rounded once, when
//    stored as float (ownCubicWeights). The polynomial is evaluated as
//    ((c3*|x|^3 + c2*|x|^2) + c1*|x|) + c0 with |x|^2 = |x|*|x| and
//    |x|^3 = |x|^2*|x|, all in double.
//  - The linear blend is (1 - t) * v0 + t * v1 in float, t a float fraction.
//  - The four-tap cubic sum is ((w0*v0 + w1*v1) + w2*v2) + w3*v3 in float.
//  - 8u and 16u results are trunc(sum + 0.5000001f) clamped to the element's
//    range, the addition made in float (see ownStoreInterp).
#ifndef VEKR_VOLUME_INTERP_WEIGHTS_H
#define VEKR_VOLUME_INTERP_WEIGHTS_H

#include <cmath>
#include <cstdint>
#include <cstring>

#include "core/lanes.h"
#include "vekr.h"

namespace vekr {

// ---------------------------------------------------------------------------
// Interpolation codes
// ---------------------------------------------------------------------------

// True for the accepted codes 1, 2, 4, 5, 6, 7. Code 3 has never had a
// kernel and stays rejected, like every other value.
inline bool ownIsValidInterpolation(int code) {
    return code == vekrInterNearest || code == vekrInterLinear || (code >= vekrInterCubic && code <= vekrInterCubicB05C03);
}

// True for the four cubic codes 4 to 7.
inline bool ownIsCubicInterpolation(int code) { return code >= vekrInterCubic && code <= vekrInterCubicB05C03; }

// ---------------------------------------------------------------------------
// Cubic kernels
// ---------------------------------------------------------------------------

// Piecewise cubic kernel w(x), symmetric in x:
//   |x| < 1:       in3 |x|^3 + in2 |x|^2 + in1 |x| + in0
//   1 <= |x| < 2:  out3 |x|^3 + out2 |x|^2 + out1 |x| + out0
//   otherwise:     0
struct OwnCubicKernel {
    double in3, in2, in1, in0;
    double out3, out2, out1, out0;
};

// The kernels of codes 4 to 7, indexed by code - 4.
//  4: four-point Lagrange interpolation (the cubic through the four taps).
//  5, 6, 7: the two-parameter family of Mitchell and Netravali, "Reconstruction
//     filters in computer graphics" (SIGGRAPH 1988), with (B, C) = (1, 0)
//     (cubic B-spline, smoothing), (0, 0.5) (Catmull-Rom) and (0.5, 0.3).
//     Coefficients: inner ((12-9B-6C), (-18+12B+6C), 0, (6-2B)) / 6,
//     outer ((-B-6C), (6B+30C), (-12B-48C), (8B+24C)) / 6, written out as the
//     double literals they round to.
inline constexpr OwnCubicKernel kOwnCubicKernels[4] = {
    {0.5, -1.0, -0.5, 1.0, -0.16666666666666666, 1.0, -1.8333333333333333, 1.0},
    {0.5, -1.0, 0.0, 2.0 / 3.0, -1.0 / 6.0, 1.0, -2.0, 4.0 / 3.0},
    {1.5, -2.5, 0.0, 1.0, -0.5, 2.5, -4.0, 2.0},
    {0.95, -1.7, 0.0, 0.8333333333333334, -0.38333333333333336, 2.0, -3.4, 1.8666666666666667},
};

// The kernel of a cubic code (4 to 7; the caller has checked the code).
inline const OwnCubicKernel& ownCubicKernel(int code) { return kOwnCubicKernels[code - vekrInterCubic]; }

// w(x) in double precision. An inner coefficient of 0 adds +0.0, which
// leaves the sum unchanged, so the (B, C) kernels need no separate form.
inline double ownCubicWeight(const OwnCubicKernel& k, double x) {
    const double ax = std::fabs(x);
    const double x2 = ax * ax;
    const double x3 = x2 * ax;
    if (ax < 1.0) return ((k.in3 * x3 + k.in2 * x2) + k.in1 * ax) + k.in0;
    if (ax < 2.0) return ((k.out3 * x3 + k.out2 * x2) + k.out1 * ax) + k.out0;
    return 0.0;
}

// The four tap weights for fractional offset t in [0, 1) from the tap i0:
// taps i0-1, i0, i0+1, i0+2 get w(1+t), w(t), w(1-t), w(2-t). The arguments
// and the kernel are evaluated in double; each weight is rounded to float
// once, here.
inline void ownCubicWeights(const OwnCubicKernel& k, double t, float w[4]) {
    w[0] = static_cast<float>(ownCubicWeight(k, 1.0 + t));
    w[1] = static_cast<float>(ownCubicWeight(k, t));
    w[2] = static_cast<float>(ownCubicWeight(k, 1.0 - t));
    w[3] = static_cast<float>(ownCubicWeight(k, 2.0 - t));
}

// ---------------------------------------------------------------------------
// Cubic weights of a grid of fractions
// ---------------------------------------------------------------------------

// The weights of every fraction t = j 2^-bits, j = 0 .. 2^bits - 1, as
// ownCubicWeights gives them: entry j is the four floats at w + 4 j. A float
// coordinate c >= 2^(23 - bits) has a unit in the last place of at least
// 2^-bits, so its fraction t = c - trunc(c) is a multiple of 2^-bits and
// t 2^bits is exactly the index of its entry: a lookup gives the bits of the
// evaluation (t 2^(bits + 4) its byte offset). minIndex = 2^(23 - bits) is
// the smallest integer part served; a table with w null serves none
// (minIndex is then INT_MAX).
struct OwnCubicTable {
    const float* w = nullptr;
    float byteScale = 0.0f;  // 2^(bits + 4)
    int minIndex = 0x7FFFFFFF;
};

// Fills the 4 << bits floats at w for the table of kernel k (1 <= bits <= 23).
inline OwnCubicTable ownFillCubicTable(const OwnCubicKernel& k, int bits, float* w) {
    const int n = 1 << bits;
    const double step = std::ldexp(1.0, -bits);
    for (int j = 0; j < n; ++j) ownCubicWeights(k, j * step, w + 4 * j);
    OwnCubicTable table;
    table.w = w;
    table.byteScale = static_cast<float>(16 * n);
    table.minIndex = 1 << (23 - bits);
    return table;
}

// ---------------------------------------------------------------------------
// Coordinate set-up
// ---------------------------------------------------------------------------

// floor(u) exactly. Below 2^52 in magnitude, adding and subtracting 2^52
// rounds |u| to an integer in the current (nearest) rounding mode; one step
// down corrects a result above u. At or beyond 2^52 every double is an
// integer already (NaN is returned unchanged).
inline double ownFloorExact(double u) {
    const double kTwo52 = 4503599627370496.0;
    const double a = std::fabs(u);
    if (!(a < kTwo52)) return u;
    double r = (a + kTwo52) - kTwo52;
    if (u < 0.0) r = -r;
    if (r > u) r -= 1.0;
    return r;
}

// ---------------------------------------------------------------------------
// Float combinations (F: float, or OwnF4 for four lanes)
// ---------------------------------------------------------------------------

// Linear blend of two taps with fraction t: (1 - t) * v0 + t * v1, in float.
// With v0 == v1 the result may differ from v0 by rounding; edge-replicating
// callers pass the same tap twice and keep the formula, so that every voxel
// follows one rule.
template <class F>
OWN_LANE F ownLerp(F v0, F v1, F t) {
    return (F(1.0f) - t) * v0 + t * v1;
}

// Four-tap cubic sum ((w0*v0 + w1*v1) + w2*v2) + w3*v3, in float.
template <class F>
OWN_LANE F ownCubicSum(F v0, F v1, F v2, F v3, F w0, F w1, F w2, F w3) {
    return ((w0 * v0 + w1 * v1) + w2 * v2) + w3 * v3;
}
inline float ownCubicSum(float v0, float v1, float v2, float v3, const float w[4]) {
    return ownCubicSum(v0, v1, v2, v3, w[0], w[1], w[2], w[3]);
}

// ---------------------------------------------------------------------------
// Conversion of an interpolated float to the element type
// ---------------------------------------------------------------------------

// Conversion of sum to an integer element with maximum kMax:
// v = sum + 0.5000001f (float addition; the constant is the float nearest
// 0.5000001, i.e. 0.5 + 2^-23), then v is clamped to [0, kMax] and truncated
// toward zero. Clamping before truncating gives the same value as truncating
// and then clamping for every finite sum, and keeps the conversion defined
// for all inputs: NaN gives 0, +inf gives kMax, -inf gives 0. The clamps are
// written as the SSE maxps/minps select (a > b ? a : b, a < b ? a : b, the
// second operand on NaN) so the vector form matches bit for bit.
// F is float (giving an int) or OwnF4 (giving an OwnI4).
template <int kMax, class F>
OWN_LANE auto ownRoundClamp(F sum) {
    F v = sum + F(0.5000001f);
    v = ownMax(v, F(0.0f));
    v = ownMin(v, F(static_cast<float>(kMax)));
    return ownTruncToInt(v);
}

// ownRoundClamp for four lanes that leave through the saturating packs of
// ownStoreNarrow, ownNarrowU8 or ownNarrowU16 (int32 to int16 with signed
// saturation, then to uint8 with unsigned saturation, or for 16u biased by
// -32768 around the signed pack). The packs clamp every int32 to the
// element's range themselves, so one end of the float clamp can be left to
// them; the other end stays because of the conversion's out-of-range value
// 0x80000000 (NaN, infinities, magnitudes from 2^31 up), which the packs
// take to the low end for 8u and, through the bias's wrap, to the high end
// for 16u:
//  - 8u keeps min(255, v) with 255 as the first operand (255 < v ? 255 : v),
//    so +inf and large values become 255 while NaN stays NaN; NaN, -inf and
//    every negative v then convert to 0x80000000 or a negative integer,
//    which the packs send to 0, as max(v, 0) would;
//  - 16u keeps max(v, 0) (NaN to 0); +inf and values from 2^31 convert to
//    0x80000000, which the bias wraps to 0x7fff8000 and the packs send to
//    65535, as do the integers above 65535: what min(v, 65535) would give.
// Every float therefore gives the bits of ownRoundClamp: a one-off run over
// all 2^32 patterns found no difference on either target, and the resize
// tests compare both on every exponent and around each edge.
template <int kMax>
OWN_LANE OwnI4 ownRoundClampForPack(OwnF4 sum) {
    static_assert(kMax == 255 || kMax == 65535, "8u or 16u");
    const OwnF4 v = sum + OwnF4(0.5000001f);
    return ownTruncToInt(kMax == 255 ? ownMin(OwnF4(255.0f), v) : ownMax(v, OwnF4(0.0f)));
}

// Store rule of each element type: 8u and 16u round and clamp, 32f stores
// the float as it is.
template <class T>
inline T ownStoreInterp(float sum);
template <>
inline std::uint8_t ownStoreInterp<std::uint8_t>(float sum) {
    return static_cast<std::uint8_t>(ownRoundClamp<255>(sum));
}
template <>
inline std::uint16_t ownStoreInterp<std::uint16_t>(float sum) {
    return static_cast<std::uint16_t>(ownRoundClamp<65535>(sum));
}
template <>
inline float ownStoreInterp<float>(float sum) {
    return sum;
}

// Stores four results at p (any alignment) by the element type's rule.
OWN_LANE void ownStoreInterp4(std::uint8_t* p, OwnF4 sum) { ownStoreNarrow(p, ownRoundClampForPack<255>(sum)); }
OWN_LANE void ownStoreInterp4(std::uint16_t* p, OwnF4 sum) { ownStoreNarrow(p, ownRoundClampForPack<65535>(sum)); }
OWN_LANE void ownStoreInterp4(float* p, OwnF4 sum) { ownStoreU(p, sum); }

}  // namespace vekr

#endif  // VEKR_VOLUME_INTERP_WEIGHTS_H
