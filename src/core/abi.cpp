// The public records are ABI: their sizes and field offsets are fixed for both
// targets (i386 with 4-byte pointers, x86-64 with 8-byte pointers).
#include <cstddef>

#include "vekr.h"

namespace {

constexpr std::size_t kPtr = sizeof(void*);

static_assert(sizeof(VekStatus) == 4, "VekStatus is a signed 32-bit value");

static_assert(offsetof(VekLibraryVersion, major) == 0, "");
static_assert(offsetof(VekLibraryVersion, minor) == 4, "");
static_assert(offsetof(VekLibraryVersion, majorBuild) == 8, "");
static_assert(offsetof(VekLibraryVersion, build) == 12, "");
static_assert(offsetof(VekLibraryVersion, targetCpu) == 16, "");
static_assert(offsetof(VekLibraryVersion, name) == 20 + (kPtr == 8 ? 4 : 0), "");
static_assert(offsetof(VekLibraryVersion, version) == offsetof(VekLibraryVersion, name) + kPtr, "");
static_assert(offsetof(VekLibraryVersion, buildDate) == offsetof(VekLibraryVersion, name) + 2 * kPtr, "");
static_assert(sizeof(VekLibraryVersion) == (kPtr == 4 ? 32 : 48), "");

static_assert(sizeof(VekrBoundBox) == 24, "");
static_assert(offsetof(VekrBoundBox, maxCorner) == 12, "");

static_assert(sizeof(VekrTriangleAccel) == 40, "");
static_assert(offsetof(VekrTriangleAccel, axisCode) == 0, "");
static_assert(offsetof(VekrTriangleAccel, normalU) == 4, "");
static_assert(offsetof(VekrTriangleAccel, vertexK) == 8, "");
static_assert(offsetof(VekrTriangleAccel, normalV) == 12, "");
static_assert(offsetof(VekrTriangleAccel, vertexU) == 16, "");
static_assert(offsetof(VekrTriangleAccel, vertexV) == 20, "");
static_assert(offsetof(VekrTriangleAccel, edge2U) == 24, "");
static_assert(offsetof(VekrTriangleAccel, edge2V) == 28, "");
static_assert(offsetof(VekrTriangleAccel, edge1U) == 32, "");
static_assert(offsetof(VekrTriangleAccel, edge1V) == 36, "");

static_assert(sizeof(VekrKDTreeNode) == 8, "");
static_assert(offsetof(VekrKDTreeNode, link) == 0, "");
static_assert(offsetof(VekrKDTreeNode, value) == 4, "");

static_assert(offsetof(VekrKDTreeBuildParams, algorithm) == 0, "");
static_assert(offsetof(VekrKDTreeBuildParams, maxDepth) == 4, "");
static_assert(offsetof(VekrKDTreeBuildParams, costBalance) == 8, "");
static_assert(offsetof(VekrKDTreeBuildParams, memoryLimitMB) == 12, "");
static_assert(offsetof(VekrKDTreeBuildParams, pClipBox) == 16, "");
static_assert(sizeof(VekrKDTreeBuildParams) == 16 + kPtr, "");

static_assert(offsetof(VekrIntersectContext, pBound) == 0, "");
static_assert(offsetof(VekrIntersectContext, pAccel) == kPtr, "");
static_assert(offsetof(VekrIntersectContext, pRootNode) == 2 * kPtr, "");
static_assert(sizeof(VekrIntersectContext) == 3 * kPtr, "");

static_assert(offsetof(VekrSHState, order) == 0, "");
static_assert(offsetof(VekrSHState, type) == 4, "");
static_assert(offsetof(VekrSHState, pFactorA) == 8, "");
static_assert(offsetof(VekrSHState, pFactorB) == 8 + kPtr, "");
static_assert(sizeof(VekrSHState) == 8 + 2 * kPtr, "");

static_assert(sizeof(VekrVolume) == 12, "");
static_assert(offsetof(VekrVolume, height) == 4 && offsetof(VekrVolume, depth) == 8, "");
static_assert(sizeof(VekrCuboid) == 24, "");
static_assert(offsetof(VekrCuboid, y) == 4 && offsetof(VekrCuboid, z) == 8, "");
static_assert(offsetof(VekrCuboid, width) == 12 && offsetof(VekrCuboid, height) == 16, "");
static_assert(offsetof(VekrCuboid, depth) == 20, "");
static_assert(sizeof(VekrPoint3D) == 12, "");

}  // namespace
