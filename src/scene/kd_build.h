// Internal interface of the KD-tree build: the tree-block layout constants
// shared by the driver and its single-leaf and surface-area builds.
#ifndef VEKR_SCENE_KD_BUILD_H
#define VEKR_SCENE_KD_BUILD_H

#include "core/own.h"

namespace vekr {

// Bytes of the block that nodes take before the index lists: the 16-byte root
// slot and one 16-byte child pair per inner node.
inline std::int64_t ownTreeNodeBytes(std::int64_t numInner) { return 16 + 16 * numInner; }

// Bytes allocated for a block of reported size `size`: the next multiple of 8
// strictly above it (so 1 to 8 spare bytes).
inline std::int64_t ownTreeAllocBytes(std::int64_t size) { return 8 * (size / 8 + 1); }

// The surface-area build (kd_build.cpp). Arguments are checked by the caller;
// budgetBytes is the caller's budget in bytes (already reduced modulo 2^32).
VekStatus ownOptimizationPSAH(VekrKDTreeNode** ppTree, const float* pVertices, const int* pTriangles,
                              int numVertices, int numTriangles, int* pSize, const VekrKDTreeBuildParams* pParams,
                              std::uint32_t budgetBytes);

}  // namespace vekr

#endif  // VEKR_SCENE_KD_BUILD_H
