// Ray generation for the stages of a ray tracer: primary-ray directions through
// an image plane, mirror reflections about surface normals, and shadow rays from
// one light to many surface points with culling of back-facing and grazing ones.
#include <cstdint>

#include "shading/lane.h"

namespace vekr {
namespace {

// Shadow rays whose |n . s| falls below this (the sine of 0.1 degree for unit
// vectors) graze the surface and are culled.
constexpr float kGrazingLimit = 0.0017453292f;

// Primary rays, one row: direction(u, v) = (stepY*v + origin) + stepX*u with
// u = float(i) + offsetX. The row term a is formed once per row, in the order
// the scalar formula gives, and reused by every lane.
template <class IO>
OWN_LANE void ownEyeRays(IO, int i, const float* a, const float* stepX, float offsetX, float* const* rowDir) {
    using F = typename IO::F;
    const F u = IO::index(i) + F(offsetX);
#pragma GCC unroll 3
    for (int c = 0; c < 3; ++c) IO::store(rowDir[c] + i, F(a[c]) + F(stepX[c]) * u);
}

// Mirror reflection: d = inc.y*n.y + inc.z*n.z + inc.x*n.x (in that order),
// refl = inc - n*(d + d); (0, 0, 0) for a masked ray.
template <class IO>
OWN_LANE void ownReflect(IO, int i, const float* const* inc, const std::int32_t* mask, const float* const* nrm,
                         float* const* refl) {
    using F = typename IO::F;
    const typename IO::M live = IO::nonNegative(IO::loadI(mask + i));
    const F ix = IO::load(inc[0] + i), iy = IO::load(inc[1] + i), iz = IO::load(inc[2] + i);
    const F nx = IO::load(nrm[0] + i), ny = IO::load(nrm[1] + i), nz = IO::load(nrm[2] + i);
    const F d = (iy * ny + iz * nz) + ix * nx;
    const F d2 = d + d;
    const F zero(0.0f);
    IO::store(refl[0] + i, ownSelect(live, ix - nx * d2, zero));
    IO::store(refl[1] + i, ownSelect(live, iy - ny * d2, zero));
    IO::store(refl[2] + i, ownSelect(live, iz - nz * d2, zero));
}

// Shadow rays. The rule per ray: s = hit - light, d = s.x*n.x + s.y*n.y + s.z*n.z,
// d becomes 0 when |d| < kGrazingLimit, and the ray survives when side*d > 0
// (pDist = |d|, direction s); otherwise its mask becomes -1 and its outputs 0.
// Written as one survival mask: mask >= 0 and 0 < side*d and kGrazingLimit <= |d|.
// That is the same decision: a zeroed d gives side*0, which is never > 0 (it is
// +0, -0 or NaN), and a NaN d fails both forms. A ray masked on entry keeps its
// (negative) mask value; a live ray that fails gets -1.
template <class IO>
OWN_LANE void ownShadow(IO, int i, const float* light, const float* side, const float* const* nrm,
                        const float* const* hit, std::int32_t* mask, float* dist, float* const* dir) {
    using F = typename IO::F;
    using M = typename IO::M;
    using I = typename IO::I;
    const I oldMask = IO::loadI(mask + i);
    const M live = IO::nonNegative(oldMask);
    const F sx = IO::load(hit[0] + i) - F(light[0]);
    const F sy = IO::load(hit[1] + i) - F(light[1]);
    const F sz = IO::load(hit[2] + i) - F(light[2]);
    const F d = (sx * IO::load(nrm[0] + i) + sy * IO::load(nrm[1] + i)) + sz * IO::load(nrm[2] + i);
    const F ad = ownAbs(d);
    const M keep = ownAnd(ownAnd(live, F(0.0f) < IO::load(side + i) * d), F(kGrazingLimit) <= ad);
    const F zero(0.0f);
    IO::store(dist + i, ownSelect(keep, ad, zero));
    IO::store(dir[0] + i, ownSelect(keep, sx, zero));
    IO::store(dir[1] + i, ownSelect(keep, sy, zero));
    IO::store(dir[2] + i, ownSelect(keep, sz, zero));
    IO::storeI(mask + i, ownSelect(ownOr(keep, ownNot(live)), oldMask, I(-1)));
}

}  // namespace
}  // namespace vekr

using namespace vekr;

extern "C" OWN_SSE_ENTRY VekStatus vekrCastEye_32f(const float pOrigin[3], const float pStepX[3], const float pStepY[3],
                                                   int blockX, int blockY, int blockWidth, int blockHeight,
                                                   float* const pDir[3], int width, int height) {
    if (pDir == nullptr) return vekStatusNullPtr;
    if (height < 1 || width < 1) return vekStatusOk;
    if (!ownBlockFits(static_cast<std::int64_t>(width) * height)) return vekStatusBadSize;

    const bool vector4 = ownIsMultipleOf4(width);
    const bool aligned = ownAllAligned16(pDir[0], pDir[1], pDir[2]);

    // The block offsets are 32-bit integer products (wrapping like the int32
    // arithmetic they model), converted to float once.
    const auto mul32 = [](int a, int b) {
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) * static_cast<std::uint32_t>(b));
    };
    const float offsetX = static_cast<float>(mul32(blockX, blockWidth));
    const float offsetY = static_cast<float>(mul32(blockY, blockHeight));

    const float stepX[3] = {pStepX[0], pStepX[1], pStepX[2]};
    // Rows of rays; io is the lane policy for the whole block.
    auto rows = [&](auto io) {
        using IO = decltype(io);
        for (int j = 0; j < height; ++j) {
            const float v = static_cast<float>(j) + offsetY;
            float a[3];
            for (int c = 0; c < 3; ++c) a[c] = pStepY[c] * v + pOrigin[c];
            const std::ptrdiff_t row = static_cast<std::ptrdiff_t>(j) * width;
            float* const rowDir[3] = {pDir[0] + row, pDir[1] + row, pDir[2] + row};
            ownForEach<IO>(0, width,
                           [&](auto lane, int i) OWN_KERNEL { ownEyeRays(lane, i, a, stepX, offsetX, rowDir); });
        }
    };
    const bool large = static_cast<std::int64_t>(width) * height >= kStreamingCount;
    if (vector4 && aligned && large) {
        rows(OwnLane4<true, true>{});
        ownStreamFence();
    } else if (vector4 && aligned) {
        rows(OwnLane4<true>{});
    } else if (vector4) {
        rows(OwnLane4<false>{});
    } else {
        rows(OwnLane1{});
    }
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrCastReflectionRay_32f(const float* const pInc[3], const int32_t* pMask,
                                                             const float* const pNormal[3], float* const pRefl[3],
                                                             int count) {
    if (pInc == nullptr || pMask == nullptr || pNormal == nullptr || pRefl == nullptr) return vekStatusNullPtr;
    if (count < 1) return vekStatusOk;

    const bool vector4 = ownIsMultipleOf4(count);
    const bool aligned = ownAllAligned16(pMask, pInc[0], pInc[1], pInc[2], pNormal[0], pNormal[1], pNormal[2], pRefl[0],
                                         pRefl[1], pRefl[2]);
    const auto inc = ownPlanes(pInc);
    const auto nrm = ownPlanes(pNormal);
    const auto refl = ownPlanes(pRefl);
    auto kernel = [&](auto io, int i) OWN_KERNEL { ownReflect(io, i, inc.c, pMask, nrm.c, refl.c); };
    if (vector4 && aligned)
        ownForEachAligned(count, kernel);
    else if (vector4)
        ownForEach<OwnLane4<false>>(0, count, kernel);
    else
        ownForEach<OwnLane1>(0, count, kernel);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrCastShadowSO_32f(const float pLight[3], const float* pSide,
                                                        const float* const pNormal[3], const float* const pHit[3],
                                                        int32_t* pMask, float* pDist, float* const pShadowDir[3],
                                                        int count) {
    if (pSide == nullptr || pNormal == nullptr || pHit == nullptr || pMask == nullptr || pShadowDir == nullptr ||
        pDist == nullptr)
        return vekStatusNullPtr;
    if (count < 1) return vekStatusOk;

    // Four rays at a time over the largest multiple of 4, then one at a time.
    const bool aligned = ownAllAligned16(pNormal[0], pNormal[1], pNormal[2], pHit[0], pHit[1], pHit[2], pShadowDir[0],
                                         pShadowDir[1], pShadowDir[2], pSide, pMask, pDist);
    const int end4 = count & ~3;
    const float light[3] = {pLight[0], pLight[1], pLight[2]};
    const auto nrm = ownPlanes(pNormal);
    const auto hit = ownPlanes(pHit);
    const auto dir = ownPlanes(pShadowDir);
    auto kernel = [&](auto io, int i) OWN_KERNEL { ownShadow(io, i, light, pSide, nrm.c, hit.c, pMask, pDist, dir.c); };
    if (aligned)
        ownForEachAligned(end4, kernel);
    else
        ownForEach<OwnLane4<false>>(0, end4, kernel);
    ownForEach<OwnLane1>(end4, count, kernel);
    return vekStatusOk;
}
