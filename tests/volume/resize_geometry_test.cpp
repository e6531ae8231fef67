// Resize geometry: the destination cuboid, the work-buffer size and their
// argument checks.
#include "volume/resize_geometry.h"

#include <gtest/gtest.h>

#include "resize_testutil.h"

namespace {

constexpr VekrCuboid kCube10{0, 0, 0, 10, 10, 10};

VekStatus cuboid(VekrCuboid src, VekrCuboid* dst, double f = 2, double sh = 0, int interp = 1) {
    return vekrGetResizeCuboid(src, dst, f, f, f, sh, sh, sh, interp);
}

void expectCuboid(const VekrCuboid& c, int x, int y, int z, int w, int h, int d) {
    EXPECT_EQ(x, c.x);
    EXPECT_EQ(y, c.y);
    EXPECT_EQ(z, c.z);
    EXPECT_EQ(w, c.width);
    EXPECT_EQ(h, c.height);
    EXPECT_EQ(d, c.depth);
}

// Restores the thread count a test changed.
struct ThreadCount {
    int saved = 1;
    ThreadCount() { vekGetNumThreads(&saved); }
    ~ThreadCount() { vekSetNumThreads(saved); }
};

TEST(ResizeCuboid, ScalesAndRoundsHalfWayBoundariesOutward) {
    VekrCuboid c{};
    ASSERT_EQ(vekStatusOk, cuboid(kCube10, &c));
    expectCuboid(c, 0, 0, 0, 20, 20, 20);

    // Per axis: x [1, 3) * 1.5 = [1.5, 4.5): the start rounds down to 1 and the
    // end up to 5, so both half-way voxels belong to the region. y [2, 5) with
    // shift 0.25: [2.25, 5.25) -> [2, 5). z [0, 7) * 0.5 - 1 = [-1, 2.5): the
    // start clamps at 0 and the end rounds up to 3.
    ASSERT_EQ(vekStatusOk, vekrGetResizeCuboid(VekrCuboid{1, 2, 0, 2, 3, 7}, &c, 1.5, 1.0, 0.5, 0.0, 0.25, -1.0, 6));
    expectCuboid(c, 1, 2, 0, 4, 3, 3);
}

TEST(ResizeCuboid, EmptyRegionIsNoOperationAndLeavesOutputUntouched) {
    VekrCuboid c{7, 7, 7, 7, 7, 7};
    // Pushed entirely below 0: start and end clamp to 0.
    EXPECT_EQ(vekStatusNoOperation, vekrGetResizeCuboid(kCube10, &c, 1, 1, 1, -30, 0, 0, 2));
    // An extent that maps to less than half a voxel rounds to an empty span
    // on one axis only: [0.3, 0.6) -> [0, 1) is not empty, [0.1, 0.4) -> [0, 0) is.
    EXPECT_EQ(vekStatusNoOperation, vekrGetResizeCuboid(VekrCuboid{0, 0, 0, 1, 10, 10}, &c, 0.3, 1, 1, 0.1, 0, 0, 1));
    expectCuboid(c, 7, 7, 7, 7, 7, 7);
    EXPECT_EQ(vekStatusOk, vekrGetResizeCuboid(VekrCuboid{0, 0, 0, 1, 10, 10}, &c, 0.3, 1, 1, 0.3, 0, 0, 1));
    expectCuboid(c, 0, 0, 0, 1, 10, 10);
}

TEST(ResizeCuboid, ChecksPointerSizesFactorsInterpolationInOrder) {
    VekrCuboid c{};
    // Null output before a bad size.
    EXPECT_EQ(vekStatusNullPtr, cuboid(VekrCuboid{0, 0, 0, 0, 1, 1}, nullptr));
    // Each corner and extent field.
    const VekrCuboid bad[] = {{-1, 0, 0, 1, 1, 1}, {0, 0, 0, 0, 1, 1},  {0, -1, 0, 1, 1, 1},
                              {0, 0, 0, 1, 0, 1},  {0, 0, -1, 1, 1, 1}, {0, 0, 0, 1, 1, 0}};
    for (const VekrCuboid& b : bad) EXPECT_EQ(vekStatusBadSize, cuboid(b, &c, 0, 0, 3));
    // Factor: zero and negative on each axis, before the interpolation code.
    EXPECT_EQ(vekStatusBadResizeFactor, vekrGetResizeCuboid(kCube10, &c, 0, 1, 1, 0, 0, 0, 3));
    EXPECT_EQ(vekStatusBadResizeFactor, vekrGetResizeCuboid(kCube10, &c, 1, -1, 1, 0, 0, 0, 3));
    EXPECT_EQ(vekStatusBadResizeFactor, vekrGetResizeCuboid(kCube10, &c, 1, 1, -0.5, 0, 0, 0, 1));
    // Interpolation: 3, 0, 8 and negative are rejected; the six codes are not.
    for (int code : {3, 0, 8, -1}) EXPECT_EQ(vekStatusBadInterpolation, cuboid(kCube10, &c, 2, 0, code));
    for (int code : {1, 2, 4, 5, 6, 7}) EXPECT_EQ(vekStatusOk, cuboid(kCube10, &c, 2, 0, code));
}

TEST(ResizeBufSize, MatchesHandComputedSizesAndScalesWithThreads) {
    ThreadCount keep;
    // Destination 10 x 10 x 10 (rounded: U16 = 16, U64 = 64, per axis).
    //  nearest: 64 * (1 + 1 + 1) = 192.
    //  linear:  P = 4 * 3 * (16 + 64) = 960; 256 * ((20 + 127) / 64 + (160 + 127) / 64) = 256 * 6 = 1536;
    //           8 * 10 * 64 = 5120; total 7616.
    //  cubic:   960 + 16 * 10 * 64 = 11200; 4 * (F64(2815) + 4 * F64(295)) = 4 * (2752 + 4 * 256) = 15104;
    //           total 26304.
    // Each plus 64, times the thread count.
    const VekrCuboid src{3, 4, 5, 1, 1, 1};
    const struct {
        int code, perThread;
    } cases[] = {{1, 192}, {2, 7616}, {4, 26304}, {5, 26304}, {6, 26304}, {7, 26304}};
    for (int threads : {1, 2, 3}) {
        ASSERT_EQ(vekStatusOk, vekSetNumThreads(threads));
        for (const auto& c : cases) {
            int size = -1;
            ASSERT_EQ(vekStatusOk, vekrResizeGetBufSize(src, kCube10, 1, c.code, &size));
            EXPECT_EQ((c.perThread + 64) * threads, size) << "code " << c.code;
        }
    }
    // Only the destination extent matters: W = 100, H = 1, D = 33 linear:
    // P = 4 * (112 + 16 + 48 + 128 + 64 + 64) = 1728;
    // 256 * ((200 + 127) / 64 + (808 + 127) / 64) = 256 * (5 + 14) = 4864; 8 * 1 * 128 = 1024.
    ASSERT_EQ(vekStatusOk, vekSetNumThreads(1));
    int size = 0;
    ASSERT_EQ(vekStatusOk, vekrResizeGetBufSize(kCube10, VekrCuboid{9, 9, 9, 100, 1, 33}, 1, 2, &size));
    EXPECT_EQ(1728 + 4864 + 1024 + 64, size);
}

TEST(ResizeBufSize, ChecksPointerSizesChannelsInterpolationInOrder) {
    int size = 12345;
    EXPECT_EQ(vekStatusNullPtr, vekrResizeGetBufSize(VekrCuboid{-1, 0, 0, 0, 0, 0}, kCube10, 3, 3, nullptr));
    const VekrCuboid bad[] = {{-1, 0, 0, 1, 1, 1}, {0, 0, 0, 0, 1, 1},  {0, -1, 0, 1, 1, 1},
                              {0, 0, 0, 1, 0, 1},  {0, 0, -1, 1, 1, 1}, {0, 0, 0, 1, 1, 0}};
    for (const VekrCuboid& b : bad) {
        EXPECT_EQ(vekStatusBadSize, vekrResizeGetBufSize(b, kCube10, 3, 3, &size));
        EXPECT_EQ(vekStatusBadSize, vekrResizeGetBufSize(kCube10, b, 3, 3, &size));
    }
    // The channel count is checked before the interpolation code.
    EXPECT_EQ(vekStatusBadNumChannels, vekrResizeGetBufSize(kCube10, kCube10, 3, 3, &size));
    EXPECT_EQ(vekStatusBadNumChannels, vekrResizeGetBufSize(kCube10, kCube10, 0, 1, &size));
    EXPECT_EQ(vekStatusBadInterpolation, vekrResizeGetBufSize(kCube10, kCube10, 1, 3, &size));
    EXPECT_EQ(12345, size);
}

// What each kernel carves from its slice must fit the per-thread size the
// query promises, for every interpolation and for thin, flat and odd regions
// (the slices' extra 64 bytes only cover the alignment of their start).
TEST(ResizeBufSize, KernelWorkAreaFitsThePerThreadSize) {
    const int extents[] = {1, 2, 3, 4, 5, 15, 16, 17, 31, 63, 64, 65, 127, 200, 257, 1000, 4099};
    for (int code : {1, 2, 4}) {
        for (int w : extents)
            for (int h : extents)
                for (int d : extents) {
                    const std::size_t need = vekr::ownResizeWorkBytes(w, h, d, code);
                    const std::uint32_t have = vekr::ownResizeBufPerThread(w, h, d, 1, code);
                    ASSERT_LE(need, have) << "code " << code << " region " << w << "x" << h << "x" << d;
                }
    }
}

}  // namespace
