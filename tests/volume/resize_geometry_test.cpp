// Resize internals and geometry: the destination cuboid, the work-buffer size
// and their argument checks; the shared interpolation rules (cubic weights,
// conversion of float results to 8u and 16u, scalar and four-lane forms).
#include <gtest/gtest.h>

#include <cmath>

#include "volume/interp_weights.h"
#include "volume/resize_geometry.h"
#include "volume_testutil.h"

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
    vv::ThreadCount keep;
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

using namespace vekr;

// The four weights equal the independently written reference kernel rounded
// once to float (within half a float ulp, plus the cancellation error of
// either double evaluation near a zero) and sum to 1.
TEST(InterpWeights, CubicWeightsMatchReferenceAndSumToOne) {
    for (int code : {4, 5, 6, 7})
        for (int i = 0; i < 64; ++i) {
            const double t = i / 64.0;
            float w[4];
            ownCubicWeights(ownCubicKernel(code), t, w);
            for (int j = 0; j < 4; ++j) {
                const double ref = vv::refKernel(code, t + 1 - j);
                EXPECT_NEAR(ref, w[j], std::fabs(ref) * 0x1p-24 + 1e-14) << "code " << code << " t " << t;
            }
            EXPECT_NEAR(1.0, double(w[0]) + w[1] + w[2] + w[3], 4e-7) << "code " << code << " t " << t;
        }
}

// trunc(sum + 0.5000001) clamped to the range, scalar and vector alike.
// 0.4999999 + 0.5000001 reaches 1 (in float too); 0.4999998 does not.
TEST(InterpWeights, IntegerConversionRoundsHalfUpAndClamps) {
    const float sums[] = {0.0f,  0.4999999f, 0.4999998f, 0.5f,     1.5f,     254.49f,   254.5f,  255.4f,
                          300.f, -0.4f,      -0.6f,      -1e9f,    65534.5f, 65535.2f,  1e9f,    INFINITY,
                          -INFINITY, NAN,    -0.0f,      1e-40f};
    const int want8[] = {0, 1, 0, 1, 2, 254, 255, 255, 255, 0, 0, 0, 255, 255, 255, 255, 0, 0, 0, 0};
    const int want16[] = {0, 1, 0, 1, 2, 254, 255, 255, 300, 0, 0, 0, 65535, 65535, 65535, 65535, 0, 0, 0, 0};
    for (int i = 0; i < 20; i += 4) {
        std::uint8_t b[4];
        std::uint16_t h[4];
        ownStoreInterp4(b, _mm_loadu_ps(sums + i));
        ownStoreInterp4(h, _mm_loadu_ps(sums + i));
        for (int j = i; j < i + 4; ++j) {
            EXPECT_EQ(want8[j], ownStoreInterp<std::uint8_t>(sums[j])) << sums[j];
            EXPECT_EQ(want16[j], ownStoreInterp<std::uint16_t>(sums[j])) << sums[j];
            EXPECT_EQ(want8[j], b[j - i]) << sums[j];
            EXPECT_EQ(want16[j], h[j - i]) << sums[j];
        }
    }
}

}  // namespace
