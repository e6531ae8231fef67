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
// `code` (a valid code). The size formula is one of unsigned 32-bit
// arithmetic; it is formed here in 64 bits, which gives the same value
// wherever the result fits in 32 bits (every term is a non-negative sum of
// products, so no 32-bit intermediate can wrap unless the result is larger
// still). An extent of 2^29 or more needs more than 2^31 bytes for every
// code and yields kResizeBufTooBig.
constexpr std::uint64_t kResizeBufTooBig = ~std::uint64_t(0);
std::uint64_t ownResizeBufPerThread(std::uint32_t width, std::uint32_t height, std::uint32_t depth,
                                    std::uint32_t numChannels, int code);

// Bytes of a thread's slice of the buffer: the per-thread size plus 64 bytes,
// which leave room to align the slice's start to 16 bytes.
inline std::uint64_t ownResizeSliceBytes(std::uint64_t perThread) { return perThread + 64u; }

// The whole work buffer for a destination region of width x height x depth
// voxels (one channel) and `threads` threads: one slice per thread. The one
// computation behind both the size query and the resize operations' own
// check. False when the size does not fit in the signed 32-bit size that the
// query reports: the query then fails rather than report a wrapped size, and
// an operation refuses the region, since no caller can hold a buffer for it.
inline bool ownResizeBufSize(int width, int height, int depth, int code, int threads, std::uint32_t* pSize) {
    const std::uint64_t perThread = ownResizeBufPerThread(
        static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height), static_cast<std::uint32_t>(depth), 1u,
        code);
    if (perThread > 0x7FFFFFFFu) return false;
    const std::uint64_t total = ownResizeSliceBytes(perThread) * static_cast<std::uint64_t>(threads);
    if (total > 0x7FFFFFFFu) return false;
    *pSize = static_cast<std::uint32_t>(total);
    return true;
}

// Bytes that one thread's resize kernel carves from its slice for a region of
// width x height x depth voxels (never more than ownResizeBufPerThread).
std::size_t ownResizeWorkBytes(int width, int height, int depth, int interpolation);

}  // namespace vekr

#endif  // VEKR_VOLUME_RESIZE_GEOMETRY_H
