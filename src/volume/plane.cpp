// Single-plane remap and affine warp: the volume kernels restricted to the
// x-y plane (bilinear and bicubic instead of trilinear and tricubic, the
// same inside test, tap rules, weights and rounding).
#include "volume/plane.h"

#include <cstdint>

#include "core/own.h"
#include "volume/remap_kernels.h"

namespace vekr {
namespace {

// The source rectangle cut back to the plane, as an inclusive box (z fixed
// at plane 0), and the interpolation lowered for planes too small for it.
struct OwnPlaneSetup {
    int lo[3], hi[3];
    int code;
};

bool ownPlaneSetup(VekrVolume srcVolume, VekrCuboid srcVoi, int interpolation, OwnPlaneSetup& s) {
    if (srcVoi.x >= srcVolume.width || srcVoi.y >= srcVolume.height) return false;
    const int w = std::min(srcVoi.width, srcVolume.width - srcVoi.x);
    const int h = std::min(srcVoi.height, srcVolume.height - srcVoi.y);
    s.lo[0] = srcVoi.x;
    s.hi[0] = srcVoi.x + w - 1;
    s.lo[1] = srcVoi.y;
    s.hi[1] = srcVoi.y + h - 1;
    s.lo[2] = s.hi[2] = 0;
    s.code = interpolation;
    const int smallest = std::min(srcVolume.width, srcVolume.height);
    if (smallest < 4 && ownIsCubicInterpolation(s.code)) s.code = vekrInterLinear;
    if (smallest < 2) s.code = vekrInterNearest;
    return true;
}

// Thread count of the single-plane routines. Unlike the volume operations,
// they split the rows of every destination plane (taken plane after plane)
// between the library's threads, whatever the destination's depth; each row
// is computed from its own start, so the split changes no result. A
// destination below kOwnPlaneThreadVoxels voxels stays on the calling
// thread: starting a team costs more than such a plane takes.
constexpr long long kOwnPlaneThreadVoxels = 16384;

int ownPlaneThreads(int width, int height, int depth) {
    const long long voxels = static_cast<long long>(width) * height * depth;
    if (voxels < kOwnPlaneThreadVoxels) return 1;
    const int n = ownGetNumThreads();
    return n > 1 ? n : 1;
}

}  // namespace

template <class T>
VekStatus ownRemapPlane(const T* pSrc, VekrVolume srcVolume, int srcStep, VekrCuboid srcVoi, const float* const pxMap[],
                        const float* const pyMap[], int mapStep, T* const pDst[], int dstStep, VekrVolume dstVolume,
                        int interpolation) {
    OwnPlaneSetup setup;
    if (!ownPlaneSetup(srcVolume, srcVoi, interpolation, setup)) return vekStatusVoiOutsideSrc;
    const T* const planes[1] = {pSrc};
    const OwnSource<T> src = ownMakeSource<T>(planes, srcStep, setup.lo, setup.hi);
    const float* const* const maps[2] = {pxMap, pyMap};
    const bool sse = ownRemapUsesSse(pDst, maps, 2, dstStep, mapStep, dstVolume, src);
    const OwnRemapRowFn<T> kernel =
        sse ? OwnRemapKernels<T, 2, true>::table[setup.code] : OwnRemapKernels<T, 2, false>::table[setup.code];
    const OwnRemapCubicTable cubic(setup.code, sse, dstVolume, setup.hi, 2);
    const int threads = ownPlaneThreads(dstVolume.width, dstVolume.height, dstVolume.depth);
    ownForEachRow_MT(dstVolume.depth, dstVolume.height, threads, [&](int z, int y) {
        OwnRemapRowArgs<T> row;
        row.cubic = cubic.table;
        row.pDst = ownOffsetRow(pDst[z], y, dstStep);
        row.px = ownOffsetRow(pxMap[z], y, mapStep);
        row.py = ownOffsetRow(pyMap[z], y, mapStep);
        row.pz = nullptr;
        row.width = dstVolume.width;
        kernel(src, row);
    });
    return vekStatusOk;
}

template <class T>
VekStatus ownWarpAffinePlane(const T* pSrc, VekrVolume srcVolume, int srcStep, VekrCuboid srcVoi, T* const pDst[],
                             int dstStep, VekrCuboid dstVoi, const double coeffs[3][4], int interpolation) {
    OwnPlaneSetup setup;
    if (!ownPlaneSetup(srcVolume, srcVoi, interpolation, setup)) return vekStatusVoiOutsideSrc;

    // Inverse of the in-plane map: adjugate over the determinant, translation
    // minus the inverse times (c03, c13); the z row and column stay identity.
    const double a = coeffs[0][0], b = coeffs[0][1], c = coeffs[1][0], d = coeffs[1][1];
    const double det = a * d - b * c;
    if (det > -1e-10 && det < 1e-10) return vekStatusSingularTransform;
    double inv[3][4] = {{d / det, -b / det, 0.0, 0.0}, {-c / det, a / det, 0.0, 0.0}, {0.0, 0.0, 1.0, 0.0}};
    for (int r = 0; r < 2; ++r) inv[r][3] = -(inv[r][0] * coeffs[0][3] + inv[r][1] * coeffs[1][3]);

    const T* const planes[1] = {pSrc};
    const OwnSource<T> src = ownMakeSource<T>(planes, srcStep, setup.lo, setup.hi);
    const int threads = ownPlaneThreads(dstVoi.width, dstVoi.height, dstVoi.depth);
    const bool sse = ownWarpUsesSse(pDst, dstStep, dstVoi, src);
    const OwnWarpRowFn<T> kernel =
        sse ? OwnWarpKernels<T, 2, true>::table[setup.code] : OwnWarpKernels<T, 2, false>::table[setup.code];
    ownWarpBox(src, kernel, inv, pDst, dstStep, dstVoi, threads);
    return vekStatusOk;
}

// The three element types of the volume operations.
template VekStatus ownRemapPlane<std::uint8_t>(const std::uint8_t*, VekrVolume, int, VekrCuboid, const float* const[],
                                               const float* const[], int, std::uint8_t* const[], int, VekrVolume, int);
template VekStatus ownWarpAffinePlane<std::uint8_t>(const std::uint8_t*, VekrVolume, int, VekrCuboid,
                                                    std::uint8_t* const[], int, VekrCuboid, const double[3][4], int);
template VekStatus ownRemapPlane<std::uint16_t>(const std::uint16_t*, VekrVolume, int, VekrCuboid, const float* const[],
                                                const float* const[], int, std::uint16_t* const[], int, VekrVolume,
                                                int);
template VekStatus ownWarpAffinePlane<std::uint16_t>(const std::uint16_t*, VekrVolume, int, VekrCuboid,
                                                     std::uint16_t* const[], int, VekrCuboid, const double[3][4], int);
template VekStatus ownRemapPlane<float>(const float*, VekrVolume, int, VekrCuboid, const float* const[],
                                        const float* const[], int, float* const[], int, VekrVolume, int);
template VekStatus ownWarpAffinePlane<float>(const float*, VekrVolume, int, VekrCuboid, float* const[], int, VekrCuboid,
                                             const double[3][4], int);

}  // namespace vekr
