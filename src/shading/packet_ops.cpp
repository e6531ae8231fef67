// Element-wise shading arithmetic on ray packets under a ray mask: dot products,
// orienting normals against the rays, distance attenuation, masked scaling,
// masked division and colour accumulation.
#include <cstdint>

#include "shading/lane.h"

namespace vekr {
namespace {

// d = a.x*b.x + a.y*b.y + a.z*b.z, summed left to right.
template <class F>
OWN_LANE F ownDot3(F ax, F ay, F az, F bx, F by, F bz) {
    return (ax * bx + ay * by) + az * bz;
}

// 1 for a live ray, 0 for a masked one. The multiply operations scale by this
// factor instead of storing zero: a masked finite product becomes +0 or -0, an
// infinite or NaN one becomes NaN. That is deliberate: a masked element is
// scaled, not cleared.
template <class IO>
OWN_LANE typename IO::F ownMaskFactor(typename IO::M live) {
    using F = typename IO::F;
    return ownSelect(live, F(1.0f), F(0.0f));
}

template <class IO>
OWN_LANE void ownDot(IO, int i, const float* const* a, const float* const* b, const std::int32_t* mask, float* dst) {
    using F = typename IO::F;
    const typename IO::M live = IO::nonNegative(IO::loadI(mask + i));
    const F d = ownDot3(IO::load(a[0] + i), IO::load(a[1] + i), IO::load(a[2] + i), IO::load(b[0] + i),
                        IO::load(b[1] + i), IO::load(b[2] + i));
    IO::store(dst + i, ownSelect(live, d, F(0.0f)));
}

// Turns each live normal against its ray: s = -1 where dir.n > 0, else +1
// (so a NaN dot product keeps the normal's direction); n becomes s*n and the
// dot output d*s. A masked ray gets dot 0 and its normal is not touched.
// Multiplying by s is a sign flip where s = -1 (d > 0 rules out a NaN among
// the operands there) and leaves the value as it is where s = +1, so it is
// written as one: the flip mask is clear on masked rays, which get their own
// bits back.
template <class IO>
OWN_LANE void ownDotChangeNorm(IO, int i, const float* const* dir, const std::int32_t* mask, float* const* nrm,
                               float* dot) {
    using F = typename IO::F;
    const typename IO::M live = IO::nonNegative(IO::loadI(mask + i));
    const F n[3] = {IO::load(nrm[0] + i), IO::load(nrm[1] + i), IO::load(nrm[2] + i)};
    const F d = ownDot3(IO::load(dir[0] + i), IO::load(dir[1] + i), IO::load(dir[2] + i), n[0], n[1], n[2]);
    const typename IO::M flip = ownAnd(live, d > F(0.0f));
#pragma GCC unroll 3
    for (int c = 0; c < 3; ++c) IO::store(nrm[c] + i, ownNegateWhere(flip, n[c]));
    IO::store(dot + i, ownSelect(live, ownNegateWhere(flip, d), F(0.0f)));
}

// Distance to the light, never below 1: sqrt(q) unless 1 > q (q = |point -
// light|^2), else 1. A NaN q fails "1 > q" and its NaN root propagates. A
// masked ray gets 1.
template <class IO>
OWN_LANE void ownDistAttenuation(IO, int i, const float* light, const float* const* point, const std::int32_t* mask,
                                 float* dist) {
    using F = typename IO::F;
    const typename IO::M live = IO::nonNegative(IO::loadI(mask + i));
    const F sx = IO::load(point[0] + i) - F(light[0]);
    const F sy = IO::load(point[1] + i) - F(light[1]);
    const F sz = IO::load(point[2] + i) - F(light[2]);
    const F q = (sx * sx + sy * sy) + sz * sz;
    const F one(1.0f);
    IO::store(dist + i, ownSelect(ownAnd(live, ownNot(one > q)), ownSqrt(q), one));
}

// dst = (dst*src)*factor; dst is the array the peeling loop aligns.
template <class IO>
OWN_LANE void ownMulC1(IO, int i, const float* src, const std::int32_t* mask, float* dst) {
    const typename IO::F f = ownMaskFactor<IO>(IO::nonNegative(IO::loadI(mask + i)));
    IO::storeA(dst + i, (IO::loadA(dst + i) * IO::load(src + i)) * f);
}

// dst.c = (dst.c*src)*factor per component; src is the array the peeling loop aligns.
template <class IO>
OWN_LANE void ownMulP3(IO, int i, const float* src, const std::int32_t* mask, float* const* dst) {
    using F = typename IO::F;
    const F f = ownMaskFactor<IO>(IO::nonNegative(IO::loadI(mask + i)));
    const F s = IO::loadA(src + i);
#pragma GCC unroll 3
    for (int c = 0; c < 3; ++c) IO::store(dst[c] + i, (IO::load(dst[c] + i) * s) * f);
}

// dst.c += (src2.c*color.c)*src1 for a live ray; a masked ray's accumulator is
// not touched (adding a zero term instead would turn -0 into +0).
template <class IO>
OWN_LANE void ownAddMulMul(IO, int i, const float* color, const float* src1, const float* const* src2,
                           const std::int32_t* mask, float* const* dst) {
    using F = typename IO::F;
    const typename IO::M live = IO::nonNegative(IO::loadI(mask + i));
    const F s1 = IO::loadA(src1 + i);
#pragma GCC unroll 3
    for (int c = 0; c < 3; ++c) {
        const F old = IO::load(dst[c] + i);
        IO::storeWhere(dst[c] + i, live, old + (IO::load(src2[c] + i) * F(color[c])) * s1, old);
    }
}

// dst = dst/src for a live ray, 0 for a masked one. A zero divisor (either
// sign) gives +inf for a positive dividend, 0 - inf = -inf for a negative one
// and the default NaN 0xFFC00000 otherwise (zero or NaN dividend), and raises
// the flag; IEEE division alone would take the infinity's sign from the
// divisor too, so those lanes are replaced. Every other quotient is the
// correctly rounded one in either lane width (divss and divps agree bit for
// bit, NaN operands included), so the four-wide loop gives the scalar values.
// The replacement is rare and only built when a live lane needs it.
template <class IO>
OWN_LANE void ownDivC1(IO, int i, const float* src, const std::int32_t* mask, float* dst, bool& divByZero) {
    using F = typename IO::F;
    const typename IO::M live = IO::nonNegative(IO::loadI(mask + i));
    const F num = IO::loadA(dst + i), den = IO::load(src + i);
    const typename IO::M zero = den == F(0.0f);
    F q = num / den;
    if (ownAny(ownAnd(live, zero))) {
        divByZero = true;
        const F inf(ownBitsFloat(0x7F800000u));
        const F special =
            ownSelect(num > F(0.0f), inf, ownSelect(num < F(0.0f), F(0.0f) - inf, F(ownBitsFloat(0xFFC00000u))));
        q = ownSelect(zero, special, q);
    }
    IO::storeA(dst + i, ownSelect(live, q, F(0.0f)));
}

}  // namespace
}  // namespace vekr

using namespace vekr;

extern "C" OWN_SSE_ENTRY VekStatus vekrDot_32f_P3C1M(const float* const pSrc1[3], const float* const pSrc2[3],
                                                     const int32_t* pMask, float* pDst, int count) {
    if (pSrc1 == nullptr || pSrc2 == nullptr || pMask == nullptr || pDst == nullptr) return vekStatusNullPtr;
    if (count < 1) return vekStatusOk;
    const bool vector4 = ownIsMultipleOf4(count) &&
                         ownAllAligned16(pSrc1[0], pSrc1[1], pSrc1[2], pSrc2[0], pSrc2[1], pSrc2[2], pMask, pDst);
    const auto a = ownPlanes(pSrc1);
    const auto b = ownPlanes(pSrc2);
    auto kernel = [&](auto io, int i) OWN_KERNEL { ownDot(io, i, a.c, b.c, pMask, pDst); };
    ownForEachPath(vector4, count, kernel);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrDotChangeNorm_32f_IM(const float* const pDir[3], const int32_t* pMask,
                                                            float* const pNormal[3], float* pDot, int count) {
    if (pDir == nullptr || pMask == nullptr || pNormal == nullptr || pDot == nullptr) return vekStatusNullPtr;
    if (count < 1) return vekStatusOk;
    const bool vector4 = ownIsMultipleOf4(count) &&
                         ownAllAligned16(pDir[0], pDir[1], pDir[2], pMask, pNormal[0], pNormal[1], pNormal[2], pDot);
    const auto dir = ownPlanes(pDir);
    const auto nrm = ownPlanes(pNormal);
    auto kernel = [&](auto io, int i) OWN_KERNEL { ownDotChangeNorm(io, i, dir.c, pMask, nrm.c, pDot); };
    ownForEachPath(vector4, count, kernel);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrDistAttenuationSO_32f_M(const float pLight[3], const float* const pPoint[3],
                                                               const int32_t* pMask, float* pDist, int count) {
    if (pPoint == nullptr || pMask == nullptr || pDist == nullptr) return vekStatusNullPtr;
    if (count < 1) return vekStatusOk;
    const bool vector4 = ownIsMultipleOf4(count) && ownAllAligned16(pPoint[0], pPoint[1], pPoint[2], pMask, pDist);
    const float light[3] = {pLight[0], pLight[1], pLight[2]};
    const auto point = ownPlanes(pPoint);
    auto kernel = [&](auto io, int i) OWN_KERNEL { ownDistAttenuation(io, i, light, point.c, pMask, pDist); };
    ownForEachPath(vector4, count, kernel);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrMul_32f_C1IM(const float* pSrc, const int32_t* pMask, float* pSrcDst,
                                                    int count) {
    // No pointer checks: the caller vouches for its arrays. There is a single
    // path, aligned on the destination.
    if (count < 1) return vekStatusOk;
    ownForEachPeeled(pSrcDst, count, [&](auto io, int i) OWN_KERNEL { ownMulC1(io, i, pSrc, pMask, pSrcDst); });
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrMul_32f_C1P3IM(const float* pSrc, const int32_t* pMask, float* const pSrcDst[3],
                                                      int count) {
    if (pSrc == nullptr || pMask == nullptr || pSrcDst == nullptr) return vekStatusNullPtr;
    if (count < 1) return vekStatusOk;
    const bool vector4 = ownIsMultipleOf4(count) && ownAllAligned16(pSrc, pMask, pSrcDst[0], pSrcDst[1], pSrcDst[2]);
    const auto dst = ownPlanes(pSrcDst);
    auto kernel = [&](auto io, int i) OWN_KERNEL { ownMulP3(io, i, pSrc, pMask, dst.c); };
    if (vector4)
        ownForEachAligned(count, kernel);
    else
        ownForEachPeeled(pSrc, count, kernel);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrDiv_32f_C1IM(const float* pSrc, const int32_t* pMask, float* pSrcDst,
                                                    int count) {
    if (pSrc == nullptr || pSrcDst == nullptr) return vekStatusNullPtr;
    if (count < 1) return vekStatusOk;
    // Every element is processed; the flag only chooses the status. Element
    // by element, the four-wide steps aligned on the destination.
    bool divByZero = false;
    ownForEachPeeled(pSrcDst, count,
                     [&](auto io, int i) OWN_KERNEL { ownDivC1(io, i, pSrc, pMask, pSrcDst, divByZero); });
    return divByZero ? vekStatusDivByZero : vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrAddMulMul_32f_AC1P3IM(const float pColor[3], const float* pSrc1,
                                                             const float* const pSrc2[3], const int32_t* pMask,
                                                             float* const pSrcDst[3], int count) {
    if (pSrc1 == nullptr || pSrc2 == nullptr || pMask == nullptr || pSrcDst == nullptr) return vekStatusNullPtr;
    if (count < 1) return vekStatusOk;
    const bool vector4 = ownIsMultipleOf4(count) && ownAllAligned16(pSrc1, pSrc2[0], pSrc2[1], pSrc2[2], pMask,
                                                                    pSrcDst[0], pSrcDst[1], pSrcDst[2]);
    const float color[3] = {pColor[0], pColor[1], pColor[2]};
    const auto src2 = ownPlanes(pSrc2);
    const auto dst = ownPlanes(pSrcDst);
    auto kernel = [&](auto io, int i) OWN_KERNEL { ownAddMulMul(io, i, color, pSrc1, src2.c, pMask, dst.c); };
    if (vector4)
        ownForEachAligned(count, kernel);
    else
        ownForEachPeeled(pSrc1, count, kernel);
    return vekStatusOk;
}
