// Single-plane remap and affine warp: the two-dimensional forms to which the
// volume remap and warp hand a source that is one plane deep.
#ifndef VEKR_VOLUME_PLANE_H
#define VEKR_VOLUME_PLANE_H

#include "vekr.h"

namespace vekr {

// Remap of a single source plane pSrc. Every destination plane z is filled
// from the same source plane through map planes pxMap[z] and pyMap[z] (a
// plane source has no z coordinate, so no z map is read). The source region
// is the rectangle (srcVoi.x, srcVoi.y, width, height) cut back to the plane;
// its z and depth are not used. Returns vekStatusVoiOutsideSrc when the
// rectangle starts outside the plane, otherwise vekStatusOk. The caller has
// checked the pointers, sizes and the interpolation code.
template <class T>
VekStatus ownRemapPlane(const T* pSrc, VekrVolume srcVolume, int srcStep, VekrCuboid srcVoi, const float* const pxMap[],
                        const float* const pyMap[], int mapStep, T* const pDst[], int dstStep, VekrVolume dstVolume,
                        int interpolation);

// Affine warp of a single source plane pSrc by the in-plane part of the
// 3 x 4 map, (c00 c01 c03; c10 c11 c13). The warped plane is written into
// the rectangle of dstVoi in every destination plane dstVoi.z ... dstVoi.z +
// dstVoi.depth - 1. Returns vekStatusVoiOutsideSrc when the source rectangle
// starts outside the plane, vekStatusSingularTransform when the 2 x 2 part
// has a determinant within 1e-10 of zero (nothing written), otherwise
// vekStatusOk. The caller has made every other check.
template <class T>
VekStatus ownWarpAffinePlane(const T* pSrc, VekrVolume srcVolume, int srcStep, VekrCuboid srcVoi, T* const pDst[],
                             int dstStep, VekrCuboid dstVoi, const double coeffs[3][4], int interpolation);

}  // namespace vekr

#endif  // VEKR_VOLUME_PLANE_H
