// KD-tree build: the argument checks and their order, the budget tests, the
// single-leaf build, and the release of blocks.
#include <cmath>
#include <limits>
#include <vector>

#include "mesh.h"
#include "testutil.h"
#include "vekr.h"

namespace {

VekrKDTreeBuildParams simpleParams() { return {vekKDTreeBuildSimple, 10, 0.5f, 64, nullptr}; }
VekrKDTreeBuildParams sahParams() { return {vekKDTreeBuildPSAH, 30, 0.5f, 256, nullptr}; }

// One build with canaries on both outputs. Returns the status; on failure
// checks that neither output was touched.
struct Outcome {
    VekStatus status;
    VekrKDTreeNode* tree;
    int size;
};

Outcome build(const float* v, const int* t, int nv, int nt, const VekrKDTreeBuildParams* p,
              bool withTreePtr = true, bool withSizePtr = true) {
    VekrKDTreeNode* tree;
    int size;
    vt::fillCanary(&tree, 1);
    vt::fillCanary(&size, 1);
    VekStatus s = vekrKDTreeBuildAlloc(withTreePtr ? &tree : nullptr, v, t, nv, nt, withSizePtr ? &size : nullptr, p);
    if (s != vekStatusOk) {
        EXPECT_TRUE(vt::CanaryIntact(&tree, 1)) << "status " << s;
        EXPECT_TRUE(vt::CanaryIntact(&size, 1)) << "status " << s;
        return {s, nullptr, 0};
    }
    return {s, tree, size};
}

const std::vector<float> kVerts = {0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 1};
const std::vector<int> kTris = {0, 1, 2, 0, 1, 2, 3, 0, 0, 2, 3, 0};

}  // namespace

TEST(KDTreeBuild, ChecksRunInOrderPointersSizesParamsAlgorithm) {
    const float* v = kVerts.data();
    const int* t = kTris.data();
    VekrKDTreeBuildParams bad = {0x12345678u, 99, -5.0f, 0, nullptr};
    // Null output or input pointers come before a negative count and null params.
    EXPECT_EQ(build(nullptr, t, -1, -1, nullptr).status, vekStatusNullPtr);
    EXPECT_EQ(build(v, nullptr, -1, -1, nullptr).status, vekStatusNullPtr);
    EXPECT_EQ(build(v, t, -1, -1, nullptr, false).status, vekStatusNullPtr);
    EXPECT_EQ(build(v, t, -1, -1, nullptr, true, false).status, vekStatusNullPtr);
    // Negative counts before the null parameter record.
    EXPECT_EQ(build(v, t, -1, 3, nullptr).status, vekStatusBadSize);
    EXPECT_EQ(build(v, t, 4, -1, nullptr).status, vekStatusBadSize);
    EXPECT_EQ(build(v, t, 4, 3, nullptr).status, vekStatusNullPtr);
    // The algorithm code is examined before the ranges.
    EXPECT_EQ(build(v, t, 4, 3, &bad).status, vekStatusBadAlgorithm);
}

TEST(KDTreeBuild, ParameterRangesForBothAlgorithms) {
    const float* v = kVerts.data();
    const int* t = kTris.data();
    for (std::uint32_t alg : {std::uint32_t(vekKDTreeBuildSimple), std::uint32_t(vekKDTreeBuildPSAH)}) {
        for (int d : {-1, 51, std::numeric_limits<int>::min()}) {
            VekrKDTreeBuildParams p = {alg, d, 0.5f, 0, nullptr};  // bad budget too: depth comes first
            EXPECT_EQ(build(v, t, 4, 3, &p).status, vekStatusOutOfRange) << std::hex << alg << " depth " << d;
        }
        for (int d : {0, 50}) {
            VekrKDTreeBuildParams p = {alg, d, 0.5f, 256, nullptr};
            Outcome o = build(v, t, 4, 3, &p);
            EXPECT_EQ(o.status, vekStatusOk) << "depth " << d;
            vekrKDTreeFree(o.tree);
        }
    }
    // costBalance: ordered comparisons, so NaN passes; checked before the budget.
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (float cb : {-0.0001f, 1.0001f, -std::numeric_limits<float>::infinity()}) {
        VekrKDTreeBuildParams p = {vekKDTreeBuildPSAH, 10, cb, 0, nullptr};
        EXPECT_EQ(build(v, t, 4, 3, &p).status, vekStatusOutOfRange) << cb;
    }
    for (float cb : {0.0f, -0.0f, 1.0f, nan}) {
        VekrKDTreeBuildParams p = {vekKDTreeBuildPSAH, 10, cb, 64, nullptr};
        Outcome o = build(v, t, 4, 3, &p);
        EXPECT_EQ(o.status, vekStatusOk) << cb;
        vekrKDTreeFree(o.tree);
    }
    // The single-leaf build ignores costBalance and the budget.
    VekrKDTreeBuildParams p = {vekKDTreeBuildSimple, 3, nan, 0, nullptr};
    Outcome o = build(v, t, 4, 3, &p);
    EXPECT_EQ(o.status, vekStatusOk);
    vekrKDTreeFree(o.tree);
}

TEST(KDTreeBuild, BudgetUnitsShiftWithWrapAround) {
    const float* v = kVerts.data();
    const int* t = kTris.data();
    // Units shifted by 19 must reach 2^24: 31 fails, 32 passes this test (and
    // fails the next one: 32 MiB is below the up-front need); 8192 and 8193
    // wrap to (almost) nothing.
    for (std::uint32_t mb : {0u, 1u, 31u, 32u, 8192u, 8193u, 8223u}) {
        VekrKDTreeBuildParams p = {vekKDTreeBuildPSAH, 10, 0.5f, mb, nullptr};
        EXPECT_EQ(build(v, t, 4, 3, &p).status, vekStatusNoMemory) << mb;
    }
    // 8224 << 19 wraps to 32 << 19 and passes the first test; the budget itself
    // (8224 << 20 mod 2^32 = 32 MiB) fails the up-front test.
    VekrKDTreeBuildParams p = {vekKDTreeBuildPSAH, 10, 0.5f, 8224u, nullptr};
    EXPECT_EQ(build(v, t, 4, 3, &p).status, vekStatusNoMemory);
}

TEST(KDTreeBuild, UpFrontBudgetTestCountsTrianglesAndVertices) {
    // 84 nt + 12 nv + 33554676 bytes must fit. With 33 MiB = 34603008 bytes the
    // slack is 1048332 bytes: nt = 12480 with nv = 0 fits exactly 1048320.
    const int nt = 12480;
    std::vector<int> tris(4 * nt + 4, 0);
    std::vector<float> verts(3 * 2, 0.0f);
    VekrKDTreeBuildParams p = {vekKDTreeBuildPSAH, 10, 0.5f, 33u, nullptr};
    // 84 * 12480 = 1048320 <= 1048332: passes the up-front test. What is left
    // after the working storage is then below one 16 MB node block, so the
    // build stops when it takes its first node block.
    EXPECT_EQ(build(verts.data(), tris.data(), 0, nt, &p).status, vekStatusBudgetExhausted);
    // One more vertex: 12 more bytes, 1048332 still fits; two more: it does not.
    EXPECT_EQ(build(verts.data(), tris.data(), 1, nt, &p).status, vekStatusBudgetExhausted);
    EXPECT_EQ(build(verts.data(), tris.data(), 2, nt, &p).status, vekStatusNoMemory);
    // One more triangle: 84 more bytes.
    EXPECT_EQ(build(verts.data(), tris.data(), 0, nt + 1, &p).status, vekStatusNoMemory);
}

TEST(KDTreeBuild, SingleLeafHoldsEveryTriangleInOrder) {
    std::vector<int> tris(4 * 9, 0);
    for (int n : {0, 1, 2, 3, 4, 5, 8, 9}) {
        VekrKDTreeBuildParams p = simpleParams();
        Outcome o = build(kVerts.data(), tris.data(), 4, n, &p);
        ASSERT_EQ(o.status, vekStatusOk);
        EXPECT_EQ(o.size, 16 + 4 * n);
        const std::int32_t* w = reinterpret_cast<const std::int32_t*>(o.tree);
        EXPECT_EQ(w[0], -16);  // a list leaf, list at offset 16 (never packed)
        EXPECT_EQ(w[1], n);
        EXPECT_EQ(w[2], 0);
        EXPECT_EQ(w[3], 0);
        for (int i = 0; i < n; ++i) EXPECT_EQ(w[4 + i], i);
        vekrKDTreeFree(o.tree);
    }
}

TEST(KDTreeBuild, EmptySceneIsOneEmptyLeafForBothAlgorithms) {
    for (VekrKDTreeBuildParams p : {simpleParams(), sahParams()}) {
        Outcome o = build(kVerts.data(), kTris.data(), 4, 0, &p);
        ASSERT_EQ(o.status, vekStatusOk);
        EXPECT_EQ(o.size, 16);
        const std::int32_t* w = reinterpret_cast<const std::int32_t*>(o.tree);
        EXPECT_EQ(w[0], -16);
        EXPECT_EQ(w[1], 0);
        EXPECT_EQ(w[2], 0);
        EXPECT_EQ(w[3], 0);
        vekrKDTreeFree(o.tree);
    }
}
