// Volume affine warp: every destination voxel of a box pulls its value from
// the source through the inverse of a 3-D affine map.
#include <climits>
#include <cmath>
#include <cstdint>

#include "core/own.h"
#include "volume/plane.h"
#include "volume/remap_kernels.h"

namespace vekr {
namespace {

bool ownBadCuboid(const VekrCuboid& v) {
    return v.x < 0 || v.width < 1 || v.y < 0 || v.height < 1 || v.z < 0 || v.depth < 1;
}

// The destination box is written as it is given (it is not cut back to
// anything), so its end x + width (and y, z alike) must be an int: a box
// running past INT_MAX lies in no volume a caller can have.
bool ownBoxEndOverflows(const VekrCuboid& v) {
    return std::int64_t(v.x) + v.width > INT_MAX || std::int64_t(v.y) + v.height > INT_MAX ||
           std::int64_t(v.z) + v.depth > INT_MAX;
}

// A relative 2 x 2 minor: (p - q) / p, or the raw product q when p is too
// small to divide by (kept as it stands: a tiny p makes the measure q).
double ownRelativeMinor(double p, double q) { return std::fabs(p) > 1e-200 ? (p - q) / p : q; }

// The quick degeneracy test made before anything else: a diagonal that is
// all but zero, or all three relative minors of the lower rows small. Each
// minor is tested only when the one before it was small.
bool ownLooksSingular(const double c[3][4]) {
    if (std::fabs(c[0][0]) <= 1e-100 && std::fabs(c[1][1]) <= 1e-100 && std::fabs(c[2][2]) <= 1e-100) return true;
    if (!(std::fabs(ownRelativeMinor(c[1][1] * c[2][2], c[1][2] * c[2][1])) <= 1e-10)) return false;
    if (!(std::fabs(ownRelativeMinor(c[2][2] * c[1][0], c[1][2] * c[2][0])) <= 1e-10)) return false;
    return std::fabs(ownRelativeMinor(c[2][1] * c[1][0], c[2][0] * c[1][1])) <= 1e-10;
}

// The inverse map in double: adjugate of the 3 x 3 part over its determinant
// (each element divided, not multiplied by a reciprocal), translation minus
// the inverse times (c03, c13, c23). False when |det| < 1e-10.
bool ownInvertAffine(const double c[3][4], double inv[3][4]) {
    const double det = c[0][0] * (c[1][1] * c[2][2] - c[1][2] * c[2][1]) -
                       c[0][1] * (c[1][0] * c[2][2] - c[1][2] * c[2][0]) +
                       c[0][2] * (c[1][0] * c[2][1] - c[1][1] * c[2][0]);
    if (det > -1e-10 && det < 1e-10) return false;
    inv[0][0] = (c[1][1] * c[2][2] - c[1][2] * c[2][1]) / det;
    inv[0][1] = (c[0][2] * c[2][1] - c[0][1] * c[2][2]) / det;
    inv[0][2] = (c[0][1] * c[1][2] - c[0][2] * c[1][1]) / det;
    inv[1][0] = (c[1][2] * c[2][0] - c[1][0] * c[2][2]) / det;
    inv[1][1] = (c[0][0] * c[2][2] - c[0][2] * c[2][0]) / det;
    inv[1][2] = (c[0][2] * c[1][0] - c[0][0] * c[1][2]) / det;
    inv[2][0] = (c[1][0] * c[2][1] - c[1][1] * c[2][0]) / det;
    inv[2][1] = (c[0][1] * c[2][0] - c[0][0] * c[2][1]) / det;
    inv[2][2] = (c[0][0] * c[1][1] - c[0][1] * c[1][0]) / det;
    for (int r = 0; r < 3; ++r) inv[r][3] = -((inv[r][0] * c[0][3] + inv[r][1] * c[1][3]) + inv[r][2] * c[2][3]);
    return true;
}

template <class T>
VekStatus ownWarpAffine(const T* const pSrc[], VekrVolume srcVolume, int srcStep, VekrCuboid srcVoi, T* const pDst[],
                        int dstStep, VekrCuboid dstVoi, const double coeffs[3][4], int interpolation) {
    if (!pSrc || !pDst) return vekStatusNullPtr;
    if (srcVolume.width < 1 || srcVolume.height < 1 || srcVolume.depth < 1) return vekStatusBadSize;
    if (ownBadCuboid(srcVoi) || ownBadCuboid(dstVoi) || ownBoxEndOverflows(dstVoi)) return vekStatusBadSize;
    if (ownLooksSingular(coeffs)) return vekStatusSingularTransform;
    if (!ownIsValidInterpolation(interpolation)) return vekStatusBadInterpolation;

    if (srcVolume.depth == 1)
        return ownWarpAffinePlane(pSrc[0], srcVolume, srcStep, srcVoi, pDst, dstStep, dstVoi, coeffs, interpolation);

    if (srcVoi.x >= srcVolume.width || srcVoi.y >= srcVolume.height || srcVoi.z >= srcVolume.depth)
        return vekStatusVoiOutsideSrc;

    // The source box: the region cut back to the volume, inclusive bounds.
    const int lo[3] = {srcVoi.x, srcVoi.y, srcVoi.z};
    const int vol[3] = {srcVolume.width, srcVolume.height, srcVolume.depth};
    const int ext[3] = {srcVoi.width, srcVoi.height, srcVoi.depth};
    int hi[3];
    for (int a = 0; a < 3; ++a) hi[a] = lo[a] + std::min(ext[a], vol[a] - lo[a]) - 1;

    // Small volumes cannot feed the wider kernels from inside the volume.
    int code = interpolation;
    const int smallest = std::min(srcVolume.width, std::min(srcVolume.height, srcVolume.depth));
    if (smallest < 4 && ownIsCubicInterpolation(code)) code = vekrInterLinear;
    if (smallest < 2) code = vekrInterNearest;

    double inv[3][4];
    if (!ownInvertAffine(coeffs, inv)) return vekStatusSingularTransform;

    const OwnSource<T> src = ownMakeSource<T>(pSrc, srcStep, lo, hi);
    const int threads = ownVolumeThreads(dstVoi.width, dstVoi.height, dstVoi.depth);
    const bool sse = ownWarpUsesSse(pDst, dstStep, dstVoi, src);
    const OwnWarpRowFn<T> kernel =
        sse ? OwnWarpKernels<T, 3, true>::table[code] : OwnWarpKernels<T, 3, false>::table[code];
    ownWarpBox(src, kernel, inv, pDst, dstStep, dstVoi, threads);
    return vekStatusOk;
}

}  // namespace
}  // namespace vekr

using vekr::ownWarpAffine;

extern "C" OWN_SSE_ENTRY VekStatus vekrWarpAffineGetBufSize(VekrCuboid srcVoi, VekrCuboid dstVoi, int nChannel,
                                                            int interpolation, int* pSize) {
    if (!pSize) return vekStatusNullPtr;
    if (vekr::ownBadCuboid(srcVoi) || vekr::ownBadCuboid(dstVoi) || vekr::ownBoxEndOverflows(dstVoi))
        return vekStatusBadSize;
    if (nChannel != 1) return vekStatusBadNumChannels;
    if (!vekr::ownIsValidInterpolation(interpolation)) return vekStatusBadInterpolation;
    *pSize = 0;  // the warp works without a buffer
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrWarpAffine_8u_C1PV(const uint8_t* const pSrc[], VekrVolume srcVolume,
                                                          int srcStep, VekrCuboid srcVoi, uint8_t* const pDst[],
                                                          int dstStep, VekrCuboid dstVoi, const double coeffs[3][4],
                                                          int interpolation, uint8_t* pBuffer) {
    (void)pBuffer;
    return ownWarpAffine(pSrc, srcVolume, srcStep, srcVoi, pDst, dstStep, dstVoi, coeffs, interpolation);
}

extern "C" OWN_SSE_ENTRY VekStatus vekrWarpAffine_16u_C1PV(const uint16_t* const pSrc[], VekrVolume srcVolume,
                                                           int srcStep, VekrCuboid srcVoi, uint16_t* const pDst[],
                                                           int dstStep, VekrCuboid dstVoi, const double coeffs[3][4],
                                                           int interpolation, uint8_t* pBuffer) {
    (void)pBuffer;
    return ownWarpAffine(pSrc, srcVolume, srcStep, srcVoi, pDst, dstStep, dstVoi, coeffs, interpolation);
}

extern "C" OWN_SSE_ENTRY VekStatus vekrWarpAffine_32f_C1PV(const float* const pSrc[], VekrVolume srcVolume, int srcStep,
                                                           VekrCuboid srcVoi, float* const pDst[], int dstStep,
                                                           VekrCuboid dstVoi, const double coeffs[3][4],
                                                           int interpolation, uint8_t* pBuffer) {
    (void)pBuffer;
    return ownWarpAffine(pSrc, srcVolume, srcStep, srcVoi, pDst, dstStep, dstVoi, coeffs, interpolation);
}
