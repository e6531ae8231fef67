// Volume remap: every destination voxel samples the source at the point that
// three coordinate maps give for it (nearest, trilinear or cubic).
#include "core/own.h"
#include "volume/plane.h"
#include "volume/remap_kernels.h"

namespace vekr {
namespace {

// The checks and the walk, shared by the three element types.
template <class T>
VekStatus ownRemap(const T* const pSrc[], VekrVolume srcVolume, int srcStep, VekrCuboid srcVoi,
                   const float* const pxMap[], const float* const pyMap[], const float* const pzMap[], int mapStep,
                   T* const pDst[], int dstStep, VekrVolume dstVolume, int interpolation) {
    if (!pSrc || !pDst) return vekStatusNullPtr;
    if (!pxMap || !pyMap || !pzMap) return vekStatusNullPtr;
    if (srcVolume.width < 1 || srcVolume.height < 1 || srcVolume.depth < 1) return vekStatusBadSize;
    if (srcVoi.x < 0 || srcVoi.width < 1 || srcVoi.y < 0 || srcVoi.height < 1 || srcVoi.z < 0 || srcVoi.depth < 1)
        return vekStatusBadSize;
    if (dstVolume.width < 1 || dstVolume.height < 1 || dstVolume.depth < 1) return vekStatusBadSize;
    if (!ownIsValidInterpolation(interpolation)) return vekStatusBadInterpolation;

    if (srcVolume.depth == 1)
        return ownRemapPlane(pSrc[0], srcVolume, srcStep, srcVoi, pxMap, pyMap, mapStep, pDst, dstStep, dstVolume,
                             interpolation);

    if (srcVoi.x >= srcVolume.width || srcVoi.y >= srcVolume.height || srcVoi.z >= srcVolume.depth)
        return vekStatusVoiOutsideSrc;

    // The source box: the region cut back to the volume, inclusive bounds.
    const int lo[3] = {srcVoi.x, srcVoi.y, srcVoi.z};
    int hi[3];
    const int vol[3] = {srcVolume.width, srcVolume.height, srcVolume.depth};
    const int ext[3] = {srcVoi.width, srcVoi.height, srcVoi.depth};
    for (int a = 0; a < 3; ++a) {
        const int cut = ext[a] < vol[a] - lo[a] ? ext[a] : vol[a] - lo[a];
        hi[a] = lo[a] + cut - 1;
    }

    // Small sources cannot feed the wider kernels from inside the volume.
    int code = interpolation;
    const int smallest = std::min(srcVolume.width, std::min(srcVolume.height, srcVolume.depth));
    if (smallest < 4 && ownIsCubicInterpolation(code)) code = vekrInterLinear;
    if (smallest < 2) code = vekrInterNearest;

    const OwnSource<T> src = ownMakeSource<T>(pSrc, srcStep, lo, hi);
    const float* const* const maps[3] = {pxMap, pyMap, pzMap};
    const bool sse = ownRemapUsesSse(pDst, maps, 3, dstStep, mapStep, dstVolume, src);
    const OwnRemapRowFn<T> kernel =
        sse ? OwnRemapKernels<T, 3, true>::table[code] : OwnRemapKernels<T, 3, false>::table[code];
    const OwnRemapCubicTable cubic(code, sse, dstVolume, hi, 3);
    const int threads = ownVolumeThreads(dstVolume.width, dstVolume.height, dstVolume.depth);
    ownForEachRow_MT(dstVolume.depth, dstVolume.height, threads, [&](int z, int y) {
        OwnRemapRowArgs<T> row;
        row.cubic = cubic.table;
        row.pDst = ownOffsetRow(pDst[z], y, dstStep);
        row.px = ownOffsetRow(pxMap[z], y, mapStep);
        row.py = ownOffsetRow(pyMap[z], y, mapStep);
        row.pz = ownOffsetRow(pzMap[z], y, mapStep);
        row.width = dstVolume.width;
        kernel(src, row);
    });
    return vekStatusOk;
}

}  // namespace
}  // namespace vekr

using vekr::ownRemap;

extern "C" OWN_SSE_ENTRY VekStatus vekrRemap_8u_C1PV(const uint8_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                                     VekrCuboid srcVoi, const float* const pxMap[],
                                                     const float* const pyMap[], const float* const pzMap[],
                                                     int mapStep, uint8_t* const pDst[], int dstStep,
                                                     VekrVolume dstVolume, int interpolation) {
    return ownRemap(pSrc, srcVolume, srcStep, srcVoi, pxMap, pyMap, pzMap, mapStep, pDst, dstStep, dstVolume,
                    interpolation);
}

extern "C" OWN_SSE_ENTRY VekStatus vekrRemap_16u_C1PV(const uint16_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                                      VekrCuboid srcVoi, const float* const pxMap[],
                                                      const float* const pyMap[], const float* const pzMap[],
                                                      int mapStep, uint16_t* const pDst[], int dstStep,
                                                      VekrVolume dstVolume, int interpolation) {
    return ownRemap(pSrc, srcVolume, srcStep, srcVoi, pxMap, pyMap, pzMap, mapStep, pDst, dstStep, dstVolume,
                    interpolation);
}

extern "C" OWN_SSE_ENTRY VekStatus vekrRemap_32f_C1PV(const float* const pSrc[], VekrVolume srcVolume, int srcStep,
                                                      VekrCuboid srcVoi, const float* const pxMap[],
                                                      const float* const pyMap[], const float* const pzMap[],
                                                      int mapStep, float* const pDst[], int dstStep,
                                                      VekrVolume dstVolume, int interpolation) {
    return ownRemap(pSrc, srcVolume, srcStep, srcVoi, pxMap, pyMap, pzMap, mapStep, pDst, dstStep, dstVolume,
                    interpolation);
}
