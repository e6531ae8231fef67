// The scene box: the scan, the margin, NaN coordinates, counts and the null check.
#include <cfloat>
#include <cmath>
#include <limits>
#include <vector>

#include "mesh.h"
#include "testutil.h"
#include "vekr.h"

namespace {

// The one-vertex-at-a-time scan, written independently of the library's loop.
VekrBoundBox referenceBox(const std::vector<float>& v, int n) {
    float lo[3], hi[3];
    for (int a = 0; a < 3; ++a) {
        lo[a] = FLT_MAX;
        hi[a] = -FLT_MAX;
    }
    for (int i = 0; i < n; ++i)
        for (int a = 0; a < 3; ++a) {
            float c = v[3 * i + a];
            if (c < lo[a]) lo[a] = c;
            if (c > hi[a]) hi[a] = c;
        }
    float m = FLT_MIN;
    for (int a = 0; a < 3; ++a) m = std::fmax(m, std::fabs(lo[a]));
    for (int a = 0; a < 3; ++a) m = std::fmax(m, std::fabs(hi[a]));
    float eps = m * 0.0001f;
    VekrBoundBox b;
    for (int a = 0; a < 3; ++a) {
        b.minCorner[a] = lo[a] - eps;
        b.maxCorner[a] = hi[a] + eps;
    }
    return b;
}

::testing::AssertionResult SameBox(const VekrBoundBox& a, const VekrBoundBox& b) {
    return vt::SameBits(reinterpret_cast<const float*>(&a), reinterpret_cast<const float*>(&b), 6);
}

VekrBoundBox boxOf(const std::vector<float>& v, int n) {
    VekrBoundBox b;
    vt::fillCanary(&b, 1);
    EXPECT_EQ(vekrSetBoundBox_32f(v.data(), n, &b), vekStatusOk);
    return b;
}

}  // namespace

TEST(BoundBox, OneVertexGetsMarginOfLargestCoordinate) {
    VekrBoundBox b = boxOf({1, 2, 3}, 1);
    const float eps = 3.0f * 0.0001f;
    EXPECT_EQ(vt::bits(b.minCorner[0]), vt::bits(1.0f - eps));
    EXPECT_EQ(vt::bits(b.minCorner[1]), vt::bits(2.0f - eps));
    EXPECT_EQ(vt::bits(b.minCorner[2]), vt::bits(3.0f - eps));
    EXPECT_EQ(vt::bits(b.maxCorner[0]), vt::bits(1.0f + eps));
    EXPECT_EQ(vt::bits(b.maxCorner[1]), vt::bits(2.0f + eps));
    EXPECT_EQ(vt::bits(b.maxCorner[2]), vt::bits(3.0f + eps));
}

TEST(BoundBox, AllAtOriginUsesSmallestNormalMargin) {
    VekrBoundBox b = boxOf(std::vector<float>(9, 0.0f), 3);
    const float eps = 1.1754943508222875e-38f * 0.0001f;
    for (int a = 0; a < 3; ++a) {
        EXPECT_EQ(vt::bits(b.minCorner[a]), vt::bits(-eps));
        EXPECT_EQ(vt::bits(b.maxCorner[a]), vt::bits(eps));
    }
}

TEST(BoundBox, ZeroAndNegativeCountsLeaveTheBoxInverted) {
    const float eps = FLT_MAX * 0.0001f;
    for (int n : {0, -1, -100}) {
        std::vector<float> v = {5, 5, 5};
        VekrBoundBox b = boxOf(v, n);
        for (int a = 0; a < 3; ++a) {
            EXPECT_EQ(vt::bits(b.minCorner[a]), vt::bits(FLT_MAX - eps)) << n;
            EXPECT_EQ(vt::bits(b.maxCorner[a]), vt::bits(-FLT_MAX + eps)) << n;
        }
    }
}

TEST(BoundBox, NaNCoordinatesAreIgnoredPerAxis) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    // The NaN sits first, in the middle, and last (the odd vertex of the loop).
    std::vector<std::vector<float>> cases = {
        {nan, -4, 1, 2, 3, 0.5f, -1, 7, 2},
        {-1, 7, 2, nan, -4, 1, 2, 3, 0.5f},
        {2, 3, 0.5f, -1, 7, 2, nan, -4, 1},
    };
    for (const auto& v : cases) {
        VekrBoundBox b = boxOf(v, 3);
        const float eps = 7.0f * 0.0001f;
        EXPECT_EQ(vt::bits(b.minCorner[0]), vt::bits(-1.0f - eps));
        EXPECT_EQ(vt::bits(b.maxCorner[0]), vt::bits(2.0f + eps));
        EXPECT_EQ(vt::bits(b.minCorner[1]), vt::bits(-4.0f - eps)) << "the other coordinates still count";
        EXPECT_EQ(vt::bits(b.maxCorner[1]), vt::bits(7.0f + eps));
        EXPECT_EQ(vt::bits(b.minCorner[2]), vt::bits(0.5f - eps));
        EXPECT_TRUE(SameBox(b, referenceBox(v, 3)));
    }
    // Every coordinate NaN: like an empty scene.
    VekrBoundBox b = boxOf(std::vector<float>(6, nan), 2);
    EXPECT_TRUE(SameBox(b, boxOf({0, 0, 0}, 0)));
}

TEST(BoundBox, NullVerticesIsRejectedAndNothingWritten) {
    VekrBoundBox b;
    vt::fillCanary(&b, 1);
    EXPECT_EQ(vekrSetBoundBox_32f(nullptr, 3, &b), vekStatusNullPtr);
    EXPECT_EQ(vekrSetBoundBox_32f(nullptr, 0, nullptr), vekStatusNullPtr);
    EXPECT_TRUE(vt::CanaryIntact(&b, 1));
}

// Odd and even counts, signed zeros and infinities: the paired loop equals the
// one-at-a-time scan bit for bit (the order matters for -0 against +0).
TEST(BoundBox, PairedLoopEqualsSingleScan) {
    vt::Rng rng(7);
    const float specials[] = {0.0f, -0.0f, INFINITY, -INFINITY, 1e-40f, -1e-40f, FLT_MAX, -FLT_MAX};
    for (int n = 1; n <= 33; ++n) {
        for (int trial = 0; trial < 20; ++trial) {
            std::vector<float> v(3 * n + 3);
            for (auto& c : v) c = rng.below(4) == 0 ? specials[rng.below(8)] : rng.uniform(-10, 10);
            EXPECT_TRUE(SameBox(boxOf(v, n), referenceBox(v, n))) << "n=" << n;
        }
    }
}

TEST(BoundBox, BunnyMatchesReference) {
    vt::Mesh m;
    ASSERT_TRUE(vt::loadObj(vt::kBunnyPath, m)) << "install glmark2-data";
    EXPECT_EQ(m.numTriangles(), 69666);
    EXPECT_TRUE(SameBox(boxOf(m.vertices, m.numVertices()), referenceBox(m.vertices, m.numVertices())));
}
