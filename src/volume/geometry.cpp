// Geometry companions of the volume resize: the destination region a resize
// writes, and the size of the work buffer it needs.
#include <climits>
#include <cmath>
#include <cstdint>

#include "core/own.h"
#include "volume/interp_weights.h"
#include "volume/resize_geometry.h"

namespace vekr {

namespace {

inline std::uint64_t ownUp16(std::uint64_t n) { return (n + 15u) & ~std::uint64_t(15); }
inline std::uint64_t ownUp64(std::uint64_t n) { return (n + 63u) & ~std::uint64_t(63); }
inline std::uint64_t ownDown64(std::uint64_t n) { return n & ~std::uint64_t(63); }

// One axis of the resize cuboid. The start rounds half down and the end half
// up (0.4999999999 and 0.5000000001), so a boundary landing exactly on .5
// belongs to the region at both ends; both clamp at 0. The corner plus extent
// is a 32-bit integer sum, as the caller's cuboid holds it.
struct OwnAxisSpan {
    double start, end;
};
inline OwnAxisSpan ownCuboidAxis(std::int32_t first, std::int32_t extent, double factor, double shift) {
    const std::int32_t past =
        static_cast<std::int32_t>(static_cast<std::uint32_t>(first) + static_cast<std::uint32_t>(extent));
    const double start = std::trunc(first * factor + shift + 0.4999999999);
    const double end = std::trunc(past * factor + shift + 0.5000000001);
    return {start > 0.0 ? start : 0.0, end > 0.0 ? end : 0.0};
}

}  // namespace

std::uint64_t ownResizeBufPerThread(std::uint32_t w32, std::uint32_t h32, std::uint32_t d32, std::uint32_t nc32,
                                    int code) {
    // Below 2^29 per extent no term comes near 2^64 (the largest, 16 h nc
    // U64(w), stays under 2^63 for nc <= 2).
    if (w32 >= (1u << 29) || h32 >= (1u << 29) || d32 >= (1u << 29) || nc32 > 2u) return kResizeBufTooBig;
    const std::uint64_t w = w32, h = h32, d = d32, nc = nc32;
    if (code == vekrInterNearest) return 64u * ((w + 15u) / 16u + (h + 15u) / 16u + (d + 15u) / 16u);
    // Index and fraction tables of the three axes.
    const std::uint64_t tables = 4u * (ownUp16(w) + ownUp16(h) + ownUp16(d) + ownUp64(w) + ownUp64(h) + ownUp64(d));
    if (code == vekrInterLinear)
        return tables + nc * (256u * ((2u * w + 127u) / 64u + (8u * (w + h) + 127u) / 64u) + 8u * h * ownUp64(w));
    return tables + 16u * h * nc * ownUp64(w) +
           4u * (nc * (ownDown64(128u * (w + h) + 255u) + ownDown64(4u * w + 255u)) + ownDown64(4u * w + 255u) +
                 ownDown64(4u * h + 255u) + ownDown64(4u * d + 255u));
}

}  // namespace vekr

using namespace vekr;

extern "C" OWN_SSE_ENTRY VekStatus vekrGetResizeCuboid(VekrCuboid srcVoi, VekrCuboid* pDstVoi, double xFactor,
                                                       double yFactor, double zFactor, double xShift, double yShift,
                                                       double zShift, int interpolation) {
    if (pDstVoi == nullptr) return vekStatusNullPtr;
    if (!ownCuboidValid(srcVoi)) return vekStatusBadSize;
    if (!(xFactor > 0.0) || !(yFactor > 0.0) || !(zFactor > 0.0)) return vekStatusBadResizeFactor;
    if (!ownIsValidInterpolation(interpolation)) return vekStatusBadInterpolation;

    const OwnAxisSpan x = ownCuboidAxis(srcVoi.x, srcVoi.width, xFactor, xShift);
    const OwnAxisSpan y = ownCuboidAxis(srcVoi.y, srcVoi.height, yFactor, yShift);
    const OwnAxisSpan z = ownCuboidAxis(srcVoi.z, srcVoi.depth, zFactor, zShift);
    if (!(x.end > x.start) || !(y.end > y.start) || !(z.end > z.start)) return vekStatusNoOperation;

    // The spans are integral doubles from 0 up. A region reaching past the
    // int32 range (a huge factor or shift, or an infinite factor) cannot be
    // described by a cuboid: refused rather than reported wrapped.
    if (!(x.end <= 2147483647.0) || !(y.end <= 2147483647.0) || !(z.end <= 2147483647.0)) return vekStatusBadSize;
    auto toInt = [](double v) { return static_cast<std::int32_t>(v); };
    pDstVoi->x = toInt(x.start);
    pDstVoi->y = toInt(y.start);
    pDstVoi->z = toInt(z.start);
    pDstVoi->width = toInt(x.end - x.start);
    pDstVoi->height = toInt(y.end - y.start);
    pDstVoi->depth = toInt(z.end - z.start);
    return vekStatusOk;
}

extern "C" VekStatus vekrResizeGetBufSize(VekrCuboid srcVoi, VekrCuboid dstVoi, int nChannel, int interpolation,
                                          int* pSize) {
    if (pSize == nullptr) return vekStatusNullPtr;
    if (!ownCuboidValid(srcVoi) || !ownCuboidValid(dstVoi)) return vekStatusBadSize;
    if (nChannel != 1) return vekStatusBadNumChannels;
    if (!ownIsValidInterpolation(interpolation)) return vekStatusBadInterpolation;

    // A size beyond the int range is refused, never reported wrapped.
    std::uint32_t total;
    if (!ownResizeBufSize(dstVoi.width, dstVoi.height, dstVoi.depth, interpolation, ownGetNumThreads(), &total))
        return vekStatusBadSize;
    *pSize = static_cast<int>(total);
    return vekStatusOk;
}
