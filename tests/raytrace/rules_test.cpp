// The rules of the four intersection queries on hand-made scenes and trees:
// limits and comparisons, box handling, leaf encodings and test order, the
// walk's order, early end and tolerances, and each query's own differences.
// Every ray runs through both the per-ray and the packet path (query_runner.h).
#include <cfloat>
#include <cmath>

#include "query_runner.h"

namespace {

using rt::inner;
using rt::leaf;

// A triangle from three corners.
void addTri(vt::Mesh& m, std::initializer_list<float> a, std::initializer_list<float> b,
            std::initializer_list<float> c) {
    const int base = m.numVertices();
    for (auto p : {a, b, c}) {
        auto it = p.begin();
        m.addVertex(it[0], it[1], it[2]);
    }
    m.addTriangle(base, base + 1, base + 2);
}

// A large triangle in the plane z = z0 that covers the square [-2, 2]^2.
void addFlatZ(vt::Mesh& m, float z0) { addTri(m, {-4, -4, z0}, {8, -4, z0}, {-4, 8, z0}); }

const float kOrigin[3] = {0, 0, 0};
const float kUp[3] = {0, 0, 1};

TEST(EyeQuery, RecordsHitsStrictlyInsideTheLimitWithBarycentricWeights) {
    vt::Mesh m;
    addTri(m, {-1, -1, 5}, {3, -1, 5}, {-1, 3, 5});
    rt::Scene s;
    s.setMesh(m);
    s.setTree(*leaf({0}));

    // The ray meets (0, 0, 5) = 1/2 A + 1/4 B + 1/4 C at t = 5.
    const rt::NearestOut at = rt::runNearest(rt::Nearest::Eye, s, kOrigin, kUp, 5.0f);
    EXPECT_EQ(at.tri, -1);
    EXPECT_EQ(at.dist, 5.0f);
    EXPECT_EQ(at.w0, rt::kCanary);
    EXPECT_EQ(at.w1, rt::kCanary);

    const rt::NearestOut past = rt::runNearest(rt::Nearest::Eye, s, kOrigin, kUp, std::nextafter(5.0f, 6.0f));
    EXPECT_EQ(past.tri, 0);
    EXPECT_EQ(past.dist, 5.0f);
    EXPECT_FLOAT_EQ(past.w0, 0.5f);
    EXPECT_FLOAT_EQ(past.w1, 0.25f);

    for (float limit : {0.0f, -0.0f, -1.0f}) {
        const rt::NearestOut r = rt::runNearest(rt::Nearest::Eye, s, kOrigin, kUp, limit);
        EXPECT_EQ(r.tri, -1) << limit;
        EXPECT_TRUE(vt::SameBits(&r.dist, &limit, 1));
    }
}

TEST(EyeQuery, RayMissingTheBoxKeepsDistanceAndWeightsAndGetsNoTriangle) {
    vt::Mesh m;
    addFlatZ(m, 5);
    rt::Scene s;
    s.setMesh(m);
    s.setTree(*leaf({0}));
    const float down[3] = {0.1f, 0.2f, -1.0f};
    for (rt::Nearest q : {rt::Nearest::Eye, rt::Nearest::PerOrigin}) {
        const rt::NearestOut r = rt::runNearest(q, s, kOrigin, down, 100.0f);
        EXPECT_EQ(r.tri, -1);
        EXPECT_EQ(r.dist, 100.0f);
        EXPECT_EQ(r.w0, rt::kCanary);
        EXPECT_EQ(r.w1, rt::kCanary);
    }
    const std::vector<rt::Level> lv = rt::runMultiple(s, kOrigin, down, 100.0f, 2);
    EXPECT_EQ(lv[0].tri, -1);
    EXPECT_EQ(lv[1].tri, -1);
    EXPECT_EQ(lv[0].dist, 100.0f);
    EXPECT_EQ(lv[1].dist, rt::kCanary);
}

// A box narrower than the geometry on x shows how each query treats an axis
// whose direction component is at most 2^-23.
TEST(ParallelAxes, EyeIgnoresTheSlabWhilePerOriginNeedsTheOriginStrictlyInside) {
    vt::Mesh m;
    addTri(m, {-1, -1, 5}, {3, -1, 5}, {-1, 3, 5});
    rt::Scene s;
    s.setMesh(m);
    s.setTree(*leaf({0}));
    s.box.minCorner[0] = -0.5f;
    s.box.maxCorner[0] = 0.5f;

    const float outside[3] = {0.8f, 0, 0};
    const float nearlyUp[3] = {1e-8f, 0, 1};
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, outside, nearlyUp, 100.0f).tri, 0);
    EXPECT_EQ(rt::runNearest(rt::Nearest::PerOrigin, s, outside, nearlyUp, 100.0f).tri, -1);
    EXPECT_EQ(rt::runMultiple(s, outside, nearlyUp, 100.0f, 1)[0].tri, 0);

    // Exactly on the slab's face is not inside; just within it is.
    const float onFace[3] = {-0.5f, 0, 0};
    const float within[3] = {-0.49f, 0, 0};
    EXPECT_EQ(rt::runNearest(rt::Nearest::PerOrigin, s, onFace, nearlyUp, 100.0f).tri, -1);
    EXPECT_EQ(rt::runNearest(rt::Nearest::PerOrigin, s, within, nearlyUp, 100.0f).tri, 0);

    // Just above the threshold the axis narrows the interval, and the ray,
    // outside the slab, misses.
    const float slanted[3] = {2.4e-7f, 0, 1};
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, outside, slanted, 100.0f).tri, -1);
    const float threshold[3] = {1.1920929e-7f, 0, 1};
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, outside, threshold, 100.0f).tri, 0);
}

// Two triangles sharing the edge x = 0 in the plane z = 5 (triangle 2 repeats
// triangle 0): a ray through the edge meets both at the same t, and the one
// tested first wins. Packed leaves of three are tested in ascending index order.
TEST(LeafOrder, SharedEdgeGoesToTheTriangleTestedFirst) {
    vt::Mesh m;
    addTri(m, {0, -1, 5}, {0, 1, 5}, {-2, 0, 5});
    addTri(m, {0, -1, 5}, {0, 1, 5}, {2, 0, 5});
    addTri(m, {0, -1, 5}, {0, 1, 5}, {-2, 0, 5});
    rt::Scene s;
    s.setMesh(m);
    for (int j = 0; j < 3; ++j) {
        const rt::TriResult r = rt::testTriangle(s.accel[j], kOrigin, kUp);
        ASSERT_TRUE(r.inside) << j;
        ASSERT_EQ(r.t, 5.0f) << j;
    }
    struct Case {
        std::vector<int32_t> tris;
        bool forceList;
        int32_t expect;
    };
    const Case cases[] = {{{0, 1}, true, 0},    {{1, 0}, true, 1},    {{0, 1}, false, 0},
                          {{1, 0}, false, 1},   {{2, 1, 0}, true, 2}, {{2, 1, 0}, false, 0},
                          {{1, 2, 0}, false, 0}, {{1, 2}, false, 1}};
    for (const Case& c : cases) {
        s.setTree(*leaf(c.tris, c.forceList));
        EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, kOrigin, kUp, 100.0f).tri, c.expect)
            << "leaf of " << c.tris.size() << (c.forceList ? " (list)" : " (packed)") << " starting " << c.tris[0];
    }
}

// Triangles far apart in index space, each under its own ray, in every leaf
// encoding: packed 1, 2 and 3 (with the largest index gaps a packed leaf of
// three can hold), a list leaf, a three-triangle leaf whose gaps do not fit
// (so a list), and an empty leaf.
TEST(LeafOrder, EveryLeafEncodingYieldsAllItsTriangles) {
    const std::vector<std::vector<int32_t>> leaves = {
        {98305, 3, 32770}, {7, 5}, {11}, {13, 14, 15, 16, 17}, {19, 9, 70000}, {}};
    vt::Mesh m;
    std::vector<int32_t> order;
    for (const auto& l : leaves) order.insert(order.end(), l.begin(), l.end());
    const int count = 98306;
    std::vector<float> cx(count, 0.0f);
    // Leaf q covers x in [4q, 4q + 4); its triangles sit at x = 4q + 0.5 + 0.5 r.
    for (int q = 0; q < int(leaves.size()); ++q)
        for (int r = 0; r < int(leaves[q].size()); ++r) cx[leaves[q][r]] = 4.0f * q + 0.5f + 0.5f * r;
    for (int t = 0; t < count; ++t) {
        if (cx[t] == 0.0f) {
            addTri(m, {0, 0, 5}, {0, 0, 5}, {0, 0, 5});  // no area: an all-zero record
        } else {
            addTri(m, {cx[t] - 0.2f, -1, 5}, {cx[t] + 0.2f, -1, 5}, {cx[t], 1, 5});
        }
    }
    rt::Scene s;
    s.setMesh(m);
    // x splits at 4, 8, ..., 20 as a right-leaning chain.
    std::unique_ptr<rt::TNode> tree = leaf(leaves.back());
    for (int q = int(leaves.size()) - 2; q >= 0; --q) tree = inner(0, 4.0f * (q + 1), leaf(leaves[q]), std::move(tree));
    s.setTree(*tree);
    for (int q = 0; q < int(leaves.size()); ++q) {
        for (int32_t t : leaves[q]) {
            const float o[3] = {cx[t], 0, 0};
            const rt::NearestOut r = rt::runNearest(rt::Nearest::Eye, s, o, kUp, 100.0f);
            EXPECT_EQ(r.tri, t);
            EXPECT_EQ(r.dist, 5.0f);
        }
    }
    const float empty[3] = {4.0f * 5 + 2, 0, 0};
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, empty, kUp, 100.0f).tri, -1);
}

// Misplaced triangles (stored in a cell they do not lie in) show which cells
// a ray visits and in which order. Split plane z = 3.
TEST(Walk, VisitsTheNearCellFirstAndEndsOnceTheIntervalPassesTheHit) {
    vt::Mesh m;
    for (float z : {5.0f, 4.0f, 2.0f, 1.0f, 9.0f, 6.0f}) addFlatZ(m, z);
    rt::Scene s;
    s.setMesh(m);

    // Upward: lower cell first. Its hit at t = 5 lies beyond the cell, so the
    // upper cell is searched too and its nearer hit replaces it.
    s.setTree(*inner(2, 3.0f, leaf({0}), leaf({1})));
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, kOrigin, kUp, 100.0f).tri, 1);
    // A hit at t = 2 inside the lower cell ends the ray there: the upper cell
    // (holding a nearer, misplaced triangle) is never searched.
    s.setTree(*inner(2, 3.0f, leaf({2}), leaf({3})));
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, kOrigin, kUp, 100.0f).tri, 2);
    // Without the hit in the first cell the second is searched.
    s.setTree(*inner(2, 3.0f, leaf({}), leaf({3})));
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, kOrigin, kUp, 100.0f).tri, 3);

    // Downward from z = 10: the upper cell comes first.
    const float top[3] = {0, 0, 10};
    const float down[3] = {0, 0, -1};
    s.setTree(*inner(2, 3.0f, leaf({4}), leaf({5})));  // 6 at t = 4 ends it; 9 (t = 1) is in the far cell
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, top, down, 100.0f).tri, 5);
    s.setTree(*inner(2, 3.0f, leaf({3}), leaf({4})));  // 9 at t = 1 ends it before z = 1 (t = 9)
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, top, down, 100.0f).tri, 4);

    // Nested planes: the stack resumes the pending far cells in order.
    s.setTree(*inner(2, 3.0f, inner(2, 1.5f, leaf({}), leaf({})), inner(2, 4.5f, leaf({0}), leaf({1}))));
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, kOrigin, kUp, 100.0f).tri, 1);
    const float seg[3] = {0, 0, 10};
    EXPECT_EQ(rt::runAny(s, kOrigin, seg, 0).occluder, 0);
}

// A ray starting a little above the plane z = 3, going up, has its whole
// interval beyond the plane; the lower cell holds a misplaced triangle at
// z = 5. The cell is searched only while the gap is within the tolerance.
TEST(Walk, SplitToleranceDecidesWhetherTheNearCellIsSearched) {
    vt::Mesh m;
    addFlatZ(m, 5);
    addFlatZ(m, 0);
    rt::Scene s;
    s.setMesh(m);
    s.setTree(*inner(2, 3.0f, leaf({0}), leaf({})));
    auto eyeFinds = [&](float z) {
        const float o[3] = {0, 0, z};
        return rt::runNearest(rt::Nearest::Eye, s, o, kUp, 100.0f).tri == 0;
    };
    auto multipleFinds = [&](float z) {
        const float o[3] = {0, 0, z};
        return rt::runMultiple(s, o, kUp, 100.0f, 1)[0].tri == 0;
    };
    auto anyFinds = [&](float z) {
        const float o[3] = {0, 0, z};
        const float seg[3] = {0, 0, 10};
        return rt::runAny(s, o, seg, 0).occluder == 0;
    };
    EXPECT_TRUE(eyeFinds(3.000005f));
    EXPECT_FALSE(eyeFinds(3.00002f));
    EXPECT_TRUE(anyFinds(3.0000005f));   // t = gap / 10
    EXPECT_FALSE(anyFinds(3.0002f));
    EXPECT_TRUE(multipleFinds(3.0001f));
    EXPECT_FALSE(multipleFinds(3.00025f));
}

// A chain of 50 planes z = 1 ... 50 whose upper cells are empty except the
// one above z = 1: a ray going up from z = 0.5 pushes all 50 far cells before
// its first leaf, and the triangle lies in the one pushed last.
TEST(Walk, StackHoldsFiftyPendingCells) {
    vt::Mesh m;
    addFlatZ(m, 1.5f);
    addFlatZ(m, 0.0f);   // in no leaf: with the next one it makes the box
    addFlatZ(m, 51.0f);  // reach from z = 0 to z = 51
    rt::Scene s;
    s.setMesh(m);
    std::unique_ptr<rt::TNode> tree = leaf({});
    for (int k = 1; k <= 50; ++k) tree = inner(2, float(k), std::move(tree), k == 1 ? leaf({0}) : leaf({}));
    s.setTree(*tree);
    const float o[3] = {0, 0, 0.5f};
    const rt::NearestOut r = rt::runNearest(rt::Nearest::Eye, s, o, kUp, 100.0f);
    EXPECT_EQ(r.tri, 0);
    EXPECT_EQ(r.dist, 1.0f);
    EXPECT_EQ(rt::runMultiple(s, o, kUp, 100.0f, 1)[0].tri, 0);
}

// The interval ends 0.0001 past the box exit. A box cut just below a
// triangle at z = 5 (stored beyond a plane past the exit) shows how far: the
// cell beyond the plane is searched while the plane lies within the
// extension plus the split tolerance.
TEST(Walk, IntervalReachesPastTheBoxExitByTheExtension) {
    vt::Mesh m;
    addFlatZ(m, 2.0f);
    addFlatZ(m, 5.0f);
    rt::Scene s;
    s.setMesh(m);
    const float boxTop = 4.9995f;
    s.box.maxCorner[2] = boxTop;
    auto eyeFinds = [&](float plane) {
        s.setTree(*inner(2, plane, leaf({}), leaf({1})));
        return rt::runNearest(rt::Nearest::Eye, s, kOrigin, kUp, 100.0f).tri == 1;
    };
    EXPECT_TRUE(eyeFinds(boxTop + 0.000105f));
    EXPECT_FALSE(eyeFinds(boxTop + 0.00012f));
    // Deeper levels of the multiple-hit query search from the last hit to
    // the box exit, with the extension and the wider split tolerance.
    auto secondLevel = [&](float plane) {
        s.setTree(*inner(2, plane, leaf({0}), leaf({1})));
        const std::vector<rt::Level> lv = rt::runMultiple(s, kOrigin, kUp, 100.0f, 2);
        EXPECT_EQ(lv[0].tri, 0);
        return lv[1].tri;
    };
    EXPECT_EQ(secondLevel(boxTop + 0.00025f), 1);
    EXPECT_EQ(secondLevel(boxTop + 0.00032f), -1);
}

// Rays of one packet that part ways at the first plane: from just above the
// plane z = 3, a ray with direction z = 1 has its interval beyond the plane
// by more than the tolerance (far cell only), one with z = 4 by less (both
// cells). The lower cell holds a misplaced triangle at z = 5 that only the
// second kind may find.
TEST(Packets, LanesThatSkipTheNearCellDoNotSearchIt) {
    vt::Mesh m;
    addFlatZ(m, 5);
    addFlatZ(m, 8);
    addFlatZ(m, 0);  // in no leaf: it makes the box hold the origins
    rt::Scene s;
    s.setMesh(m);
    s.setTree(*inner(2, 3.0f, leaf({0}), leaf({1})));
    const float o[3] = {0, 0, 3.00002f};
    const float dz[4] = {1, 4, 4, 1};
    const int32_t expect[4] = {1, 0, 0, 1};
    vt::Planes<float> dir(16, 0), org(16, 0);
    vt::Buf<float> dist(16, 0), h0(16, 0), h1(16, 0);
    vt::Buf<int32_t> tri(16, 0);
    for (bool perOrigin : {false, true}) {
        for (int i = 0; i < 16; ++i) {
            dir.p[0][i] = dir.p[1][i] = 0.0f;
            dir.p[2][i] = dz[i % 4];
            for (int a = 0; a < 3; ++a) org.p[a][i] = o[a];
            // Per-origin rays of the third column start below the plane
            // instead: both cells, lower first.
            if (perOrigin && i % 4 == 2) org.p[2][i] = 2.9f;
            dist[i] = 100.0f;
        }
        float* hit[2] = {h0.data(), h1.data()};
        if (perOrigin)
            vekrIntersectMO_32f(org.cptrs(), dir.cptrs(), dist.data(), hit, tri.data(), &s.ctx, 4, 4);
        else
            vekrIntersectEyeSO_32f(o, dir.cptrs(), dist.data(), hit, tri.data(), &s.ctx, 4, 4);
        for (int i = 0; i < 16; ++i) {
            EXPECT_EQ(tri[i], expect[i % 4]) << (perOrigin ? "per-origin" : "eye") << " ray " << i;
            const float oi[3] = {org.p[0][i], org.p[1][i], org.p[2][i]};
            const float di[3] = {0, 0, dz[i % 4]};
            const rt::NearestOut one = rt::runNearest(perOrigin ? rt::Nearest::PerOrigin : rt::Nearest::Eye, s,
                                                      perOrigin ? oi : o, di, 100.0f);
            EXPECT_EQ(one.tri, tri[i]);
            EXPECT_EQ(one.dist, dist[i]);
        }
    }
}

// A triangle without area gets an all-zero record, whose terms would pass the
// test (b = g = 0) at t = -origin.x / direction.x; every query skips it.
TEST(ZeroRecords, AreNeverHitByAnyQuery) {
    vt::Mesh m;
    addTri(m, {0, 0, 0}, {1, 1, 1}, {2, 2, 2});  // collinear
    addTri(m, {5, -1, -1}, {5, 3, -1}, {5, -1, 3});
    rt::Scene s;
    s.setMesh(m);
    ASSERT_EQ(s.accel[0].axisCode, 0);
    s.setTree(*leaf({0, 1}, true));
    const float o[3] = {-2, 0, 0};
    const float d[3] = {1, 0, 0};
    EXPECT_TRUE(rt::testTriangle(s.accel[0], o, d).inside);
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, o, d, 100.0f).tri, 1);
    EXPECT_EQ(rt::runNearest(rt::Nearest::PerOrigin, s, o, d, 100.0f).tri, 1);
    const std::vector<rt::Level> lv = rt::runMultiple(s, o, d, 100.0f, 2);
    EXPECT_EQ(lv[0].tri, 1);
    EXPECT_EQ(lv[1].tri, -1);
    const float seg[3] = {10, 0, 0};
    EXPECT_EQ(rt::runAny(s, o, seg, 0).occluder, 1);
}

TEST(EmptyTree, LeavesEveryRayWithoutAHit) {
    vt::Mesh m;
    addFlatZ(m, 5);
    rt::Scene s;
    s.setMesh(m);
    s.setTree(*leaf({}));
    ASSERT_EQ(s.tree[0], -16);
    ASSERT_EQ(s.tree[1], 0);
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, kOrigin, kUp, 100.0f).tri, -1);
    EXPECT_EQ(rt::runNearest(rt::Nearest::PerOrigin, s, kOrigin, kUp, 100.0f).tri, -1);
    EXPECT_EQ(rt::runMultiple(s, kOrigin, kUp, 100.0f, 1)[0].tri, -1);
    const float seg[3] = {0, 0, 10};
    const rt::AnyOut a = rt::runAny(s, kOrigin, seg, 3);
    EXPECT_EQ(a.occluder, -1);
    EXPECT_EQ(a.mask, 3);
}

// A ray climbing through the plane z = 5 at a slope of 1e-6 (|det| = 1e-6).
TEST(PerOriginQuery, IgnoresNearlyEdgeOnTrianglesThatTheEyeQueryHits) {
    vt::Mesh m;
    addTri(m, {-100, -100, 5}, {300, -100, 5}, {-100, 300, 5});
    rt::Scene s;
    s.setMesh(m);
    s.setTree(*leaf({0}));
    const float o[3] = {0, 0, 4.99999f};
    const float grazing[3] = {1, 0, 1e-6f};
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, o, grazing, 1000.0f).tri, 0);
    EXPECT_EQ(rt::runNearest(rt::Nearest::PerOrigin, s, o, grazing, 1000.0f).tri, -1);
    const float steeper[3] = {1, 0, 2e-6f};
    EXPECT_EQ(rt::runNearest(rt::Nearest::PerOrigin, s, o, steeper, 1000.0f).tri, 0);
}

TEST(PerOriginQuery, NewHitMustBeNearerByMoreThanTheTolerance) {
    vt::Mesh m;
    addFlatZ(m, 1.0f);
    addFlatZ(m, 0.999995f);
    addFlatZ(m, 0.99998f);
    rt::Scene s;
    s.setMesh(m);
    const float o[3] = {0, 0, 0};
    s.setTree(*leaf({0, 1}, true));
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, o, kUp, 100.0f).tri, 1);
    EXPECT_EQ(rt::runNearest(rt::Nearest::PerOrigin, s, o, kUp, 100.0f).tri, 0);
    s.setTree(*leaf({1, 0}, true));
    EXPECT_EQ(rt::runNearest(rt::Nearest::PerOrigin, s, o, kUp, 100.0f).tri, 1);
    s.setTree(*leaf({0, 2}, true));
    EXPECT_EQ(rt::runNearest(rt::Nearest::PerOrigin, s, o, kUp, 100.0f).tri, 2);
    // The first hit too must lie more than the tolerance inside the limit.
    s.setTree(*leaf({0}));
    EXPECT_EQ(rt::runNearest(rt::Nearest::PerOrigin, s, o, kUp, 1.000005f).tri, -1);
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, o, kUp, 1.000005f).tri, 0);
    // A ray starting on the triangle (t = 0) does not record it.
    const float on[3] = {0, 0, 1.0f};
    EXPECT_EQ(rt::runNearest(rt::Nearest::PerOrigin, s, on, kUp, 100.0f).tri, -1);
}

TEST(MultipleQuery, StoresLevelsCumulativelyAndSearchesPastTheLimit) {
    vt::Mesh m;
    addFlatZ(m, 2.0f);
    addFlatZ(m, 5.0f);
    rt::Scene s;
    s.setMesh(m);
    s.setTree(*inner(2, 3.5f, leaf({0}), leaf({1})));
    // Direction of length 2: distances are in units of it.
    const float d[3] = {0.25f, 0.5f, 2.0f};
    const std::vector<rt::Level> lv = rt::runMultiple(s, kOrigin, d, 1.5f, 3);
    EXPECT_EQ(lv[0].tri, 0);
    EXPECT_EQ(lv[0].dist, 1.0f);
    EXPECT_EQ(lv[1].tri, 1);  // beyond the level-0 limit of 1.5
    EXPECT_EQ(lv[1].dist, 2.5f);
    EXPECT_EQ(lv[2].tri, -1);
    EXPECT_EQ(lv[2].dist, FLT_MAX);
    EXPECT_EQ(lv[2].w0, rt::kCanary);
    // The second level's weights are those seen from the first hit point.
    const float p[3] = {0.25f, 0.5f, 2.0f};
    const rt::TriResult r1 = rt::testTriangle(s.accel[1], p, d);
    EXPECT_EQ(lv[1].w0, r1.w0);
    EXPECT_EQ(lv[1].w1, r1.w1);
    // Depth 1 stops after the first level.
    const std::vector<rt::Level> one = rt::runMultiple(s, kOrigin, d, 1.5f, 1);
    EXPECT_EQ(one[0].tri, 0);
    // A level-0 limit before the first triangle finds nothing at all.
    const std::vector<rt::Level> none = rt::runMultiple(s, kOrigin, d, 0.75f, 2);
    EXPECT_EQ(none[0].tri, -1);
    EXPECT_EQ(none[0].dist, 0.75f);
    EXPECT_EQ(none[1].tri, -1);
    EXPECT_EQ(none[1].dist, rt::kCanary);
}

// Eight copies of a tilted triangle, and an origin 2^-24 below its plane that
// the tiny step to each hit does not move: every copy is hit at t = 2^-23.
// The previous level's triangle and the hit list keep a copy from coming back
// until the list, after eight levels, starts over.
TEST(MultipleQuery, HitListForgetsTrianglesAfterEightLevels) {
    vt::Mesh m;
    for (int c = 0; c < 8; ++c) addTri(m, {4090, -10, -2}, {4100, -10, 3}, {4096, 10, 1});
    rt::Scene s;
    s.setMesh(m);
    s.setTree(*leaf({0, 1, 2, 3, 4, 5, 6, 7}));
    const float o[3] = {4096, 0, 1.0f - 0x1p-24f};
    const float d[3] = {-1, 0, 0};
    const rt::TriResult r = rt::testTriangle(s.accel[0], o, d);
    ASSERT_TRUE(r.inside);
    ASSERT_EQ(r.t, 0x1p-23f);
    ASSERT_EQ(o[0] + r.t * d[0], o[0]);
    const std::vector<rt::Level> lv = rt::runMultiple(s, o, d, 100.0f, 11);
    const int32_t expect[11] = {0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2};
    for (int l = 0; l < 11; ++l) {
        EXPECT_EQ(lv[l].tri, expect[l]) << "level " << l;
        EXPECT_EQ(lv[l].dist, (l + 1) * 0x1p-23f) << "level " << l;
    }
}

TEST(AnyHitQuery, SegmentEndsAreExclusive) {
    vt::Mesh m;
    addFlatZ(m, 1.0f);
    rt::Scene s;
    s.setMesh(m);
    s.setTree(*leaf({0}));
    s.ctx.pBound = nullptr;  // the query never reads the box
    const rt::AnyOut atEnd = rt::runAny(s, kOrigin, kUp, 7);
    EXPECT_EQ(atEnd.occluder, -1);
    EXPECT_EQ(atEnd.mask, 7);
    const float longer[3] = {0, 0, 1.00001f};
    const rt::AnyOut inside = rt::runAny(s, kOrigin, longer, 7);
    EXPECT_EQ(inside.occluder, 0);
    EXPECT_EQ(inside.mask, -1);
    const float onPlane[3] = {0.5f, 0.5f, 1.0f};
    EXPECT_EQ(rt::runAny(s, onPlane, kUp, 0).occluder, -1);
    const float above[3] = {0, 0, 2};
    const float down[3] = {0, 0, -1};
    EXPECT_EQ(rt::runAny(s, above, down, 0).occluder, -1);
    const float downLonger[3] = {0, 0, -1.00001f};
    EXPECT_EQ(rt::runAny(s, above, downLonger, 0).occluder, 0);
}

TEST(AnyHitQuery, MaskSelectsRaysAndTheFirstAcceptedTriangleIsReported) {
    vt::Mesh m;
    addFlatZ(m, 0.8f);
    addFlatZ(m, 0.3f);
    rt::Scene s;
    s.setMesh(m);
    s.setTree(*leaf({0, 1}, true));
    const rt::AnyOut first = rt::runAny(s, kOrigin, kUp, 0);
    EXPECT_EQ(first.occluder, 0);  // not the nearer triangle 1
    EXPECT_EQ(first.mask, -1);
    const rt::AnyOut skipped = rt::runAny(s, kOrigin, kUp, -3);
    EXPECT_EQ(skipped.occluder, -1);
    EXPECT_EQ(skipped.mask, -3);
    // With the triangles in separate cells the near cell comes first.
    s.setTree(*inner(2, 0.5f, leaf({1}), leaf({0})));
    EXPECT_EQ(rt::runAny(s, kOrigin, kUp, 0).occluder, 1);
}

// Split on x = 0; the triangle (z = 0.5) is stored in the lower cell only. A
// ray from x = -1 with a direction x-component of magnitude 1e-8 never reaches
// the plane (t = 83886), so it searches just its near cell: the lower one
// when the component counts as positive, the upper one when negative.
TEST(AnyHitQuery, KeepsTheSignOfNearlyParallelComponents) {
    vt::Mesh m;
    addTri(m, {-3, -2, 0.5f}, {3, -2, 0.5f}, {-3, 2, 0.5f});
    rt::Scene s;
    s.setMesh(m);
    s.setTree(*inner(0, 0.0f, leaf({0}), leaf({})));
    const float o[3] = {-1, 0, 0};
    const float pos[3] = {1e-8f, 0, 1}, neg[3] = {-1e-8f, 0, 1}, negZero[3] = {-0.0f, 0, 1};
    EXPECT_EQ(rt::runAny(s, o, pos, 0).occluder, 0);
    EXPECT_EQ(rt::runAny(s, o, neg, 0).occluder, -1);
    EXPECT_EQ(rt::runAny(s, o, negZero, 0).occluder, 0);
    // The nearest-hit queries treat such an axis as positive.
    EXPECT_EQ(rt::runNearest(rt::Nearest::Eye, s, o, neg, 100.0f).tri, 0);
}

TEST(Blocks, EmptyBlocksWriteNothingExceptTheMultipleHitFill) {
    vt::Mesh m;
    addFlatZ(m, 1.0f);
    rt::Scene s;
    s.setMesh(m);
    s.setTree(*leaf({0}));
    vt::Planes<float> dir(8, 0);
    for (int i = 0; i < 8; ++i) dir.p[2][i] = 1.0f;
    vt::Buf<float> dist(8, 0), h0(8, 0), h1(8, 0);
    vt::Buf<int32_t> tri(8, 0), mask(8, 0);
    for (auto* b : {&dist, &h0, &h1}) vt::fillCanary(*b);
    vt::fillCanary(tri);
    vt::fillCanary(mask);
    float* hit[2] = {h0.data(), h1.data()};
    for (int wh : {0, -4}) {
        vekrIntersectEyeSO_32f(kOrigin, dir.cptrs(), dist.data(), hit, tri.data(), &s.ctx, 4, wh);
        vekrIntersectEyeSO_32f(kOrigin, dir.cptrs(), dist.data(), hit, tri.data(), &s.ctx, wh, 4);
        vekrIntersectMO_32f(dir.cptrs(), dir.cptrs(), dist.data(), hit, tri.data(), &s.ctx, wh, 1);
        vekrIntersectAnySO_32f(kOrigin, dir.cptrs(), tri.data(), mask.data(), wh, 4, &s.ctx);
        vekrIntersectMultipleSO_32f(kOrigin, dir.cptrs(), dist.data(), hit, tri.data(), 4, wh, 2, &s.ctx);
    }
    for (auto* b : {&dist, &h0, &h1}) EXPECT_TRUE(vt::CanaryIntact(*b));
    EXPECT_TRUE(vt::CanaryIntact(tri));
    EXPECT_TRUE(vt::CanaryIntact(mask));
    // Depth 0 searches nothing; depth 2 with a 2 x 2 block of rays first sets
    // all eight indices to -1 (then level 0 and 1 of each ray are found or not).
    vekrIntersectMultipleSO_32f(kOrigin, dir.cptrs(), dist.data(), hit, tri.data(), 2, 2, 0, &s.ctx);
    EXPECT_TRUE(vt::CanaryIntact(tri));
    for (int i = 0; i < 8; ++i) dist[i] = -1.0f;  // limits that admit no hit
    vekrIntersectMultipleSO_32f(kOrigin, dir.cptrs(), dist.data(), hit, tri.data(), 2, 2, 2, &s.ctx);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(tri[i], -1) << i;
}

}  // namespace
