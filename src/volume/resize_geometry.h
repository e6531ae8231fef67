// Work-buffer sizing of the volume resize, shared by the size query and by the
// parallel resize, which carves each thread's share with the same rule.
#ifndef VEKR_VOLUME_RESIZE_GEOMETRY_H
#define VEKR_VOLUME_RESIZE_GEOMETRY_H

#include <cstddef>
#include <cstdint>

#include "vekr.h"

namespace vekr {

// The checks of a cuboid's corner and extent (x >= 0, width >= 1, and so on).
inline bool ownCuboidValid(const VekrCuboid& c) {
    return c.x >= 0 && c.width >= 1 && c.y >= 0 && c.height >= 1 && c.z >= 0 && c.depth >= 1;
}

// Bytes of work buffer one thread needs to resize into a destination region of
// width x height x depth voxels with `numChannels` channels and interpolation
// `code` (a valid code). Unsigned 32-bit arithmetic throughout, so a huge
// region wraps rather than failing; the size query reports what it computes.
std::uint32_t ownResizeBufPerThread(std::uint32_t width, std::uint32_t height, std::uint32_t depth,
                                    std::uint32_t numChannels, int code);

// Bytes of a thread's slice of the buffer: the per-thread size plus 64 bytes,
// which leave room to align the slice's start to 16 bytes.
inline std::uint32_t ownResizeSliceBytes(std::uint32_t perThread) { return perThread + 64u; }

// Bytes that one thread's resize kernel carves from its slice for a region of
// width x height x depth voxels (never more than ownResizeBufPerThread).
std::size_t ownResizeWorkBytes(int width, int height, int depth, int interpolation);

}  // namespace vekr

#endif  // VEKR_VOLUME_RESIZE_GEOMETRY_H
