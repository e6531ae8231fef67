// The four intersection queries trust their caller, so they are given valid
// scenes but hostile rays (NaN, infinite, denormal and huge origins and
// directions, zero-length directions, NaN and negative limits) with every
// output array against a guard page: they must terminate, stay inside their
// arrays and give the bits of the same call on aligned buffers. Blocks whose
// sizes are below 1 or whose ray count overflows an int32 must touch nothing.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "guard_page.h"
#include "mesh.h"
#include "testutil.h"
#include "vekr.h"

namespace {

enum class Query { Eye, PerOrigin, Multiple, Any };
const Query kQueries[] = {Query::Eye, Query::PerOrigin, Query::Multiple, Query::Any};
const char* queryName(Query q) {
    static const char* kNames[] = {"Eye", "PerOrigin", "Multiple", "Any"};
    return kNames[static_cast<int>(q)];
}
constexpr int kDepth = 3;

// A sphere over a grid, built with the surface-area builder.
struct BuiltScene {
    vt::Mesh mesh;
    std::vector<VekrTriangleAccel> accel;
    VekrBoundBox box{};
    VekrKDTreeNode* tree = nullptr;
    BuiltScene() {
        mesh = vt::makeSphere(8, 12, 1.0f, 0.5f, 0.5f, 0.5f);
        const vt::Mesh grid = vt::makeGrid(6, 3.0f);
        const int base = mesh.numVertices();
        mesh.vertices.insert(mesh.vertices.end(), grid.vertices.begin(), grid.vertices.end());
        for (int t = 0; t < grid.numTriangles(); ++t)
            mesh.addTriangle(base + grid.triangles[4 * t], base + grid.triangles[4 * t + 1],
                             base + grid.triangles[4 * t + 2]);
        accel.resize(mesh.numTriangles());
        vekrTriangleAccelInit(accel.data(), mesh.vertices.data(), mesh.triangles.data(), mesh.numTriangles());
        vekrSetBoundBox_32f(mesh.vertices.data(), mesh.numVertices(), &box);
        VekrKDTreeBuildParams p{vekKDTreeBuildPSAH, 30, 0.5f, 64, nullptr};
        int size = 0;
        EXPECT_EQ(vekrKDTreeBuildAlloc(&tree, mesh.vertices.data(), mesh.triangles.data(), mesh.numVertices(),
                                       mesh.numTriangles(), &size, &p),
                  vekStatusOk);
    }
    ~BuiltScene() { vekrKDTreeFree(tree); }
    VekrIntersectContext ctx() const { return {&box, accel.data(), tree}; }
};

// Hostile values: the ray generator picks mostly ordinary values and often
// one of these.
float hostile(vt::Rng& rng) {
    static const float kValues[] = {NAN,     INFINITY, -INFINITY, 1e30f,  -1e30f,  1e-40f, -1e-40f,
                                    0.0f,    -0.0f,    1e-7f,     -1e-7f, 3.4e38f, 0.5f,   -0.5f};
    return kValues[rng.below(static_cast<int>(sizeof kValues / sizeof kValues[0]))];
}

// Inputs of one block: origins, directions, limits and the any-hit mask.
struct RayInputs {
    std::vector<float> org[3], dir[3], dist;
    std::vector<std::int32_t> mask;
    RayInputs(int n, std::uint64_t seed) {
        vt::Rng rng(seed);
        auto pick = [&](float lo, float hi) { return rng.below(3) == 0 ? hostile(rng) : rng.uniform(lo, hi); };
        for (int a = 0; a < 3; ++a)
            for (int i = 0; i < n; ++i) org[a].push_back(pick(-2, 3)), dir[a].push_back(pick(-1, 1));
        for (int i = 0; i < n; ++i) {
            static const float kLimits[] = {100.0f, INFINITY, NAN, 0.0f, -1.0f, 1e30f, 2.0f};
            dist.push_back(kLimits[rng.below(7)]);
            mask.push_back(rng.below(4) == 0 ? -1 : rng.below(3));
        }
        // Shared origins of the single-origin queries come from ray 0.
    }
};

template <class T>
std::vector<std::uint8_t> asBytes(const std::vector<T>& v) {
    std::vector<std::uint8_t> b(v.size() * sizeof(T));
    if (!b.empty()) std::memcpy(b.data(), v.data(), b.size());
    return b;
}

// Array k of a call: 0-2 origin planes, 3-5 direction planes, 6 dist, 7-8 hit
// planes, 9 triangle/occluder, 10 mask. Level planes of the multiple-hit query
// make 6-9 kDepth times longer.
std::vector<std::vector<std::uint8_t>> initialArrays(Query q, const RayInputs& in, int n) {
    const int levels = q == Query::Multiple ? kDepth : 1;
    std::vector<std::vector<std::uint8_t>> a;
    for (int c = 0; c < 3; ++c) a.push_back(asBytes(in.org[c]));
    for (int c = 0; c < 3; ++c) a.push_back(asBytes(in.dir[c]));
    std::vector<float> dist(static_cast<std::size_t>(n) * levels, -7.25f), hit(dist.size(), -7.25f);
    std::copy(in.dist.begin(), in.dist.end(), dist.begin());
    a.push_back(asBytes(dist));
    a.push_back(asBytes(hit));
    a.push_back(asBytes(hit));
    a.push_back(asBytes(std::vector<std::int32_t>(dist.size(), 12345)));
    a.push_back(asBytes(in.mask));
    return a;
}

void callQuery(Query q, const std::vector<void*>& p, const VekrIntersectContext& ctx, int w, int h, int depth) {
    auto f = [&](int k) { return static_cast<float*>(p[k]); };
    auto i32 = [&](int k) { return static_cast<std::int32_t*>(p[k]); };
    const float* org[3] = {f(0), f(1), f(2)};
    const float* dir[3] = {f(3), f(4), f(5)};
    float* hit[2] = {f(7), f(8)};
    // The shared origin of the single-origin queries: the first ray's.
    const float o0[3] = {org[0][0], org[1][0], org[2][0]};
    switch (q) {
    case Query::Eye:
        EXPECT_EQ(vekrIntersectEyeSO_32f(o0, dir, f(6), hit, i32(9), &ctx, w, h), vekStatusOk);
        break;
    case Query::PerOrigin:
        EXPECT_EQ(vekrIntersectMO_32f(org, dir, f(6), hit, i32(9), &ctx, w, h), vekStatusOk);
        break;
    case Query::Multiple:
        EXPECT_EQ(vekrIntersectMultipleSO_32f(o0, dir, f(6), hit, i32(9), w, h, depth, &ctx), vekStatusOk);
        break;
    case Query::Any:
        EXPECT_EQ(vekrIntersectAnySO_32f(o0, dir, i32(9), i32(10), w, h, &ctx), vekStatusOk);
        break;
    }
}

TEST(HostileRays, QueriesStayInsideGuardedArraysAndMatchAlignedBuffers) {
    const BuiltScene scene;
    ASSERT_NE(scene.tree, nullptr);
    const VekrIntersectContext ctx = scene.ctx();
    int hits[4] = {0, 0, 0, 0};  // rays that found a triangle, per query
    const int kBlocks[][2] = {{1, 1}, {3, 1}, {4, 4}, {5, 4}, {8, 4}, {4, 8}, {9, 2}, {12, 4}, {16, 1}, {17, 3}};
    for (Query q : kQueries)
        for (const auto& b : kBlocks) {
            const int w = b[0], h = b[1], n = w * h;
            const RayInputs in(n, 31u * w + h);
            const auto init = initialArrays(q, in, n);
            // Reference: aligned ordinary buffers (the vector path where the block allows it).
            std::vector<vt::Buf<std::uint8_t>> ref;
            std::vector<void*> refPtrs;
            for (const auto& a : init) ref.emplace_back(a, 0);
            for (auto& r : ref) refPtrs.push_back(r.data());
            callQuery(q, refPtrs, ctx, w, h, kDepth);
            const std::int32_t* found = static_cast<const std::int32_t*>(refPtrs[9]);
            for (std::size_t i = 0; i < init[9].size() / 4; ++i) hits[static_cast<int>(q)] += found[i] >= 0;
            for (std::size_t off : {0u, 4u, 8u, 12u})
                for (vt::GuardSide side : {vt::GuardSide::After, vt::GuardSide::Before}) {
                    const std::string where = std::string(queryName(q)) + " " + std::to_string(w) + "x" +
                                              std::to_string(h) + " offset " + std::to_string(off) +
                                              (side == vt::GuardSide::After ? " guard after" : " guard before");
                    std::vector<vt::GuardedBytes> g;
                    std::vector<void*> ptrs;
                    for (const auto& a : init) {
                        g.emplace_back(a.size(), off, side);
                        std::memcpy(g.back().data(), a.data(), a.size());
                        ptrs.push_back(g.back().data());
                    }
                    callQuery(q, ptrs, ctx, w, h, kDepth);
                    for (std::size_t k = 0; k < g.size(); ++k) {
                        ASSERT_TRUE(g[k].slackIntact()) << where << ", array " << k;
                        ASSERT_TRUE(vt::SameBits(ref[k].data(), g[k].data(), init[k].size()))
                            << where << ", array " << k;
                    }
                }
        }
    // The hostile mix still leaves ordinary rays that reach the scene.
    for (Query q : kQueries) EXPECT_GT(hits[static_cast<int>(q)], 0) << queryName(q);
}

// Sizes that describe no array the caller can hold: below 1, or a block of
// more than INT32_MAX rays (the product wraps in 32 bits). Every query
// returns vekStatusOk and touches nothing; the arrays are small and guarded,
// so any access faults.
TEST(HostileRays, BadBlockSizesTouchNothing) {
    const BuiltScene scene;
    ASSERT_NE(scene.tree, nullptr);
    const VekrIntersectContext ctx = scene.ctx();
    const int kSizes[][3] = {{0, 5, 1},        {5, 0, 1},        {-1, 3, 1},          {3, -1, 1},
                             {-3, -3, 1},      {INT_MIN, 1, 1},  {1, INT_MIN, 1},     {INT_MIN, INT_MIN, 1},
                             {65536, 65536, 1}, {46341, 46341, 1}, {INT_MAX, 2, 1},     {2, INT_MAX, 1},
                             {4, 4, 0},        {4, 4, -1},       {-1, -1, 5},         {-2, 4, -3},
                             {4, 4, INT_MIN},  {1000, 1000, 2148}, {65536, 32768, 1}, {INT_MAX, INT_MAX, INT_MAX}};
    const RayInputs in(16, 5);
    for (Query q : kQueries)
        for (const auto& s : kSizes) {
            if (q != Query::Multiple && s[2] != 1) continue;
            const auto init = initialArrays(q, in, 16);
            for (vt::GuardSide side : {vt::GuardSide::After, vt::GuardSide::Before}) {
                std::vector<vt::GuardedBytes> g;
                std::vector<void*> ptrs;
                for (const auto& a : init) {
                    g.emplace_back(a.size(), 0, side);
                    std::memcpy(g.back().data(), a.data(), a.size());
                    ptrs.push_back(g.back().data());
                }
                callQuery(q, ptrs, ctx, s[0], s[1], s[2]);
                // The multiple-hit query first marks depth x width x height
                // index entries as misses whenever that product is at least 1
                // (two negative sizes cancel); nothing else is written.
                auto expected = init;
                const double product = static_cast<double>(s[0]) * s[1] * s[2];  // exact up to 2^53
                if (q == Query::Multiple && product >= 1 && product <= INT_MAX) {
                    ASSERT_LE(product * 4, static_cast<double>(expected[9].size()));
                    const std::int32_t miss = -1;
                    for (long long i = 0; i < static_cast<long long>(product); ++i)
                        std::memcpy(&expected[9][i * 4], &miss, 4);
                }
                for (std::size_t k = 0; k < g.size(); ++k)
                    EXPECT_TRUE(vt::SameBits(expected[k].data(), g[k].data(), init[k].size()))
                        << queryName(q) << " " << s[0] << "x" << s[1] << "x" << s[2] << ", array " << k;
            }
        }
}

}  // namespace
