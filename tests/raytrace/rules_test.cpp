// The rules of the four intersection queries on hand-made scenes and trees:
// limits and comparisons, box handling, leaf encodings and test order, the
// walk's order, early end and tolerances, and each query's own differences.
// Every ray runs through both the per-ray and the packet path (rt::one).
#include <array>

#include "rt_support.h"

namespace {

using rt::inner;
using rt::leaf;
using rt::Q;
using P = std::array<float, 3>;

struct Tri {
    P a, b, c;
};

// A large triangle in the plane z = z0 that covers the square [-2, 2]^2.
Tri flatZ(float z0) { return {{-4, -4, z0}, {8, -4, z0}, {-4, 8, z0}}; }
// A triangle in the plane z = 5 around the z axis: (0, 0, 5) = 1/2 A + 1/4 B + 1/4 C.
const Tri kTri5 = {{-1, -1, 5}, {3, -1, 5}, {-1, 3, 5}};

rt::Scene scene(const std::vector<Tri>& tris, const rt::Node& tree = nullptr) {
    vt::Mesh m;
    for (const Tri& t : tris) {
        for (const P& p : {t.a, t.b, t.c}) m.addVertex(p[0], p[1], p[2]);
        m.addTriangle(m.numVertices() - 3, m.numVertices() - 2, m.numVertices() - 1);
    }
    rt::Scene s;
    s.setMesh(m);
    if (tree) s.setTree(tree);
    return s;
}

const P kO = {0, 0, 0}, kUp = {0, 0, 1}, kDown = {0, 0, -1};

rt::Out run(Q q, const rt::Scene& s, const P& o, const P& d, float limit = 100.0f, int depth = 1) {
    return rt::one(q, s, o.data(), d.data(), limit, depth);
}
int32_t hit(Q q, const rt::Scene& s, const P& o, const P& d, float limit = 100.0f) {
    return run(q, s, o, d, limit).tri[0];
}
rt::Out any(const rt::Scene& s, const P& o, const P& d, int32_t mask = 0) {
    return rt::one(Q::Any, s, o.data(), d.data(), 0.0f, 1, mask);
}

TEST(EyeQuery, RecordsHitsStrictlyInsideTheLimitWithBarycentricWeights) {
    const rt::Scene s = scene({kTri5}, leaf({0}));
    const rt::Out at = run(Q::Eye, s, kO, kUp, 5.0f);  // t = 5 is not inside
    EXPECT_EQ(at.tri[0], -1);
    EXPECT_EQ(at.dist[0], 5.0f);
    EXPECT_EQ(at.w0[0], rt::kCanary);
    EXPECT_EQ(at.w1[0], rt::kCanary);
    const rt::Out past = run(Q::Eye, s, kO, kUp, std::nextafter(5.0f, 6.0f));
    EXPECT_EQ(past.tri[0], 0);
    EXPECT_EQ(past.dist[0], 5.0f);
    EXPECT_FLOAT_EQ(past.w0[0], 0.5f);
    EXPECT_FLOAT_EQ(past.w1[0], 0.25f);
    for (float limit : {0.0f, -0.0f, -1.0f}) {
        const rt::Out r = run(Q::Eye, s, kO, kUp, limit);
        EXPECT_EQ(r.tri[0], -1) << limit;
        EXPECT_TRUE(vt::SameBits(&r.dist[0], &limit, 1));
    }
}

// A ray that misses the box, and a ray through a tree of one empty leaf: no
// query finds anything, distances and weights stay as they were (deeper
// levels too), the any-hit mask keeps its value.
TEST(AllQueries, MissesLeaveDistancesWeightsAndMasksAlone) {
    const rt::Scene missed = scene({flatZ(5)}, leaf({0}));
    const rt::Scene empty = scene({flatZ(5)}, leaf({}));
    ASSERT_EQ(empty.tree[0], -16);
    ASSERT_EQ(empty.tree[1], 0);
    for (const auto& c : {std::make_pair(&missed, P{0.1f, 0.2f, -1.0f}), std::make_pair(&empty, kUp)}) {
        for (Q q : {Q::Eye, Q::PerOrigin}) {
            const rt::Out r = run(q, *c.first, kO, c.second);
            EXPECT_EQ(r.tri[0], -1);
            EXPECT_EQ(r.dist[0], 100.0f);
            EXPECT_EQ(r.w0[0], rt::kCanary);
            EXPECT_EQ(r.w1[0], rt::kCanary);
        }
        const rt::Out lv = run(Q::Multiple, *c.first, kO, c.second, 100.0f, 2);
        EXPECT_EQ(lv.tri, (std::vector<int32_t>{-1, -1}));
        EXPECT_EQ(lv.dist, (std::vector<float>{100.0f, rt::kCanary}));
        const rt::Out a = any(*c.first, kO, {10 * c.second[0], 10 * c.second[1], 10 * c.second[2]}, 3);
        EXPECT_EQ(a.tri[0], -1);
        EXPECT_EQ(a.mask[0], 3);
    }
}

// A box narrower than the geometry on x shows how each query treats an axis
// whose direction component is at most 2^-23.
TEST(ParallelAxes, EyeIgnoresTheSlabWhilePerOriginNeedsTheOriginStrictlyInside) {
    rt::Scene s = scene({kTri5}, leaf({0}));
    s.box.minCorner[0] = -0.5f;
    s.box.maxCorner[0] = 0.5f;
    const P outside = {0.8f, 0, 0}, nearlyUp = {1e-8f, 0, 1};
    EXPECT_EQ(hit(Q::Eye, s, outside, nearlyUp), 0);
    EXPECT_EQ(hit(Q::PerOrigin, s, outside, nearlyUp), -1);
    EXPECT_EQ(hit(Q::Multiple, s, outside, nearlyUp), 0);
    // Exactly on the slab's face is not inside; just within it is.
    EXPECT_EQ(hit(Q::PerOrigin, s, {-0.5f, 0, 0}, nearlyUp), -1);
    EXPECT_EQ(hit(Q::PerOrigin, s, {-0.49f, 0, 0}, nearlyUp), 0);
    // Just above the threshold the axis narrows the interval, and the ray,
    // outside the slab, misses.
    EXPECT_EQ(hit(Q::Eye, s, outside, {2.4e-7f, 0, 1}), -1);
    EXPECT_EQ(hit(Q::Eye, s, outside, {1.1920929e-7f, 0, 1}), 0);
}

// Two triangles sharing the edge x = 0 in the plane z = 5 (triangle 2 repeats
// triangle 0): a ray through the edge meets both at the same t, and the one
// tested first wins. Packed leaves of three are tested in ascending index order.
TEST(LeafOrder, SharedEdgeGoesToTheTriangleTestedFirst) {
    const Tri left = {{0, -1, 5}, {0, 1, 5}, {-2, 0, 5}}, right = {{0, -1, 5}, {0, 1, 5}, {2, 0, 5}};
    rt::Scene s = scene({left, right, left});
    for (int j = 0; j < 3; ++j) {
        const rt::TriResult r = rt::testTriangle(s.accel[j], kO.data(), kUp.data());
        ASSERT_TRUE(r.inside && r.t == 5.0f) << j;
    }
    const struct {
        std::vector<int32_t> tris;
        bool forceList;
        int32_t expect;
    } cases[] = {{{0, 1}, true, 0},     {{1, 0}, true, 1},     {{0, 1}, false, 0},    {{1, 0}, false, 1},
                 {{2, 1, 0}, true, 2},  {{2, 1, 0}, false, 0}, {{1, 2, 0}, false, 0}, {{1, 2}, false, 1}};
    for (const auto& c : cases) {
        s.setTree(leaf(c.tris, c.forceList));
        EXPECT_EQ(hit(Q::Eye, s, kO, kUp), c.expect)
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
    // Leaf q covers x in [4q, 4q + 4); its triangles sit at x = 4q + 0.5 + 0.5 r.
    std::vector<float> cx(98306, 0.0f);
    for (int q = 0; q < int(leaves.size()); ++q)
        for (int r = 0; r < int(leaves[q].size()); ++r) cx[leaves[q][r]] = 4.0f * q + 0.5f + 0.5f * r;
    std::vector<Tri> tris;
    for (float x : cx)  // the others have no area: all-zero records
        tris.push_back(x == 0.0f ? Tri{{0, 0, 5}, {0, 0, 5}, {0, 0, 5}}
                                 : Tri{{x - 0.2f, -1, 5}, {x + 0.2f, -1, 5}, {x, 1, 5}});
    // x splits at 4, 8, ..., 20 as a right-leaning chain.
    rt::Node tree = leaf(leaves.back());
    for (int q = int(leaves.size()) - 2; q >= 0; --q) tree = inner(0, 4.0f * (q + 1), leaf(leaves[q]), std::move(tree));
    const rt::Scene s = scene(tris, tree);
    for (const auto& l : leaves)
        for (int32_t t : l) {
            const rt::Out r = run(Q::Eye, s, {cx[t], 0, 0}, kUp);
            EXPECT_EQ(r.tri[0], t);
            EXPECT_EQ(r.dist[0], 5.0f);
        }
    EXPECT_EQ(hit(Q::Eye, s, {22, 0, 0}, kUp), -1);
}

// Misplaced triangles (stored in a cell they do not lie in) show which cells
// a ray visits and in which order. Split plane z = 3.
TEST(Walk, VisitsTheNearCellFirstAndEndsOnceTheIntervalPassesTheHit) {
    rt::Scene s = scene({flatZ(5), flatZ(4), flatZ(2), flatZ(1), flatZ(9), flatZ(6)});
    const P top = {0, 0, 10};
    const struct {
        int lo, hi;
        bool down;
        int32_t expect;
    } cases[] = {
        // Upward: lower cell first. Its hit at t = 5 lies beyond the cell, so
        // the upper cell is searched too and its nearer hit replaces it.
        {0, 1, false, 1},
        // A hit at t = 2 inside the lower cell ends the ray there: the upper
        // cell (holding a nearer, misplaced triangle) is never searched.
        {2, 3, false, 2},
        {-1, 3, false, 3},  // without the hit in the first cell the second is searched
        // Downward from z = 10: the upper cell comes first.
        {4, 5, true, 5},  // 6 at t = 4 ends it; 9 (t = 1) is in the far cell
        {3, 4, true, 4},  // 9 at t = 1 ends it before z = 1 (t = 9)
    };
    for (const auto& c : cases) {
        s.setTree(inner(2, 3.0f, c.lo < 0 ? leaf({}) : leaf({c.lo}), leaf({c.hi})));
        EXPECT_EQ(hit(Q::Eye, s, c.down ? top : kO, c.down ? kDown : kUp), c.expect) << c.lo << " " << c.hi;
    }
    // Nested planes: the stack resumes the pending far cells in order.
    s.setTree(inner(2, 3.0f, inner(2, 1.5f, leaf({}), leaf({})), inner(2, 4.5f, leaf({0}), leaf({1}))));
    EXPECT_EQ(hit(Q::Eye, s, kO, kUp), 1);
    EXPECT_EQ(any(s, kO, top).tri[0], 0);
}

// A ray starting a little above the plane z = 3, going up, has its whole
// interval beyond the plane; the lower cell holds a misplaced triangle at
// z = 5. The cell is searched only while the gap is within the tolerance:
// 0.00001, and 0.00019 for the multiple-hit query (gaps on either side).
TEST(Walk, SplitToleranceDecidesWhetherTheNearCellIsSearched) {
    const rt::Scene s = scene({flatZ(5), flatZ(0)}, inner(2, 3.0f, leaf({0}), leaf({})));
    const struct {
        Q q;
        float z;
        bool found;
    } cases[] = {{Q::Eye, 3.000005f, true},  {Q::Eye, 3.000015f, false},    {Q::Any, 3.00005f, true},
                 {Q::Any, 3.00015f, false},   {Q::Multiple, 3.00018f, true}, {Q::Multiple, 3.0002f, false}};
    for (const auto& c : cases) {
        // The any-hit segment is 10 long: t = gap / 10.
        const int32_t t = c.q == Q::Any ? any(s, {0, 0, c.z}, {0, 0, 10}).tri[0] : hit(c.q, s, {0, 0, c.z}, kUp);
        EXPECT_EQ(t == 0, c.found) << "query " << int(c.q) << " from z = " << c.z;
    }
}

// A chain of 50 planes z = 1 ... 50 whose upper cells are empty except the
// one above z = 1: a ray going up from z = 0.5 pushes all 50 far cells before
// its first leaf, and the triangle lies in the one pushed last.
TEST(Walk, StackHoldsFiftyPendingCells) {
    rt::Node tree = leaf({});
    for (int k = 1; k <= 50; ++k) tree = inner(2, float(k), std::move(tree), k == 1 ? leaf({0}) : leaf({}));
    // Triangles 1 and 2 are in no leaf: they make the box reach from z = 0 to 51.
    const rt::Scene s = scene({flatZ(1.5f), flatZ(0), flatZ(51)}, tree);
    const rt::Out r = run(Q::Eye, s, {0, 0, 0.5f}, kUp);
    EXPECT_EQ(r.tri[0], 0);
    EXPECT_EQ(r.dist[0], 1.0f);
    EXPECT_EQ(hit(Q::Multiple, s, {0, 0, 0.5f}, kUp), 0);
}

// The interval ends 0.0001 past the box exit. A box cut just below a
// triangle at z = 5 (stored beyond a plane past the exit) shows how far: the
// cell beyond the plane is searched while the plane lies within the
// extension plus the split tolerance. Deeper levels of the multiple-hit query
// search from the last hit to the box exit, with the extension and the wider
// split tolerance.
TEST(Walk, IntervalReachesPastTheBoxExitByTheExtension) {
    rt::Scene s = scene({flatZ(2), flatZ(5)});
    const float boxTop = 4.9995f;
    s.box.maxCorner[2] = boxTop;
    const struct {
        float gap;
        int level;
        int32_t expect;
    } cases[] = {{0.000105f, 0, 1}, {0.00012f, 0, -1}, {0.00025f, 1, 1}, {0.00032f, 1, -1}};
    for (const auto& c : cases) {
        s.setTree(inner(2, boxTop + c.gap, c.level ? leaf({0}) : leaf({}), leaf({1})));
        if (c.level == 0) {
            EXPECT_EQ(hit(Q::Eye, s, kO, kUp), c.expect) << c.gap;
            continue;
        }
        const rt::Out lv = run(Q::Multiple, s, kO, kUp, 100.0f, 2);
        EXPECT_EQ(lv.tri[0], 0);
        EXPECT_EQ(lv.tri[1], c.expect) << c.gap;
    }
}

// Rays of one packet that part ways at the first plane: from just above the
// plane z = 3, a ray with direction z = 1 has its interval beyond the plane
// by more than the tolerance (far cell only), one with z = 4 by less (both
// cells). The lower cell holds a misplaced triangle at z = 5 that only the
// second kind may find. Per-origin rays of the third column start below the
// plane instead: both cells, lower first.
TEST(Packets, LanesThatSkipTheNearCellDoNotSearchIt) {
    // Triangle 2 is in no leaf: it makes the box hold the origins.
    const rt::Scene s = scene({flatZ(5), flatZ(8), flatZ(0)}, inner(2, 3.0f, leaf({0}), leaf({1})));
    const float dz[4] = {1, 4, 4, 1};
    const int32_t expect[4] = {1, 0, 0, 1};
    for (Q q : {Q::Eye, Q::PerOrigin}) {
        rt::Rays r(4, 4);
        for (int i = 0; i < 16; ++i) {
            const float o[3] = {0, 0, q == Q::PerOrigin && i % 4 == 2 ? 2.9f : 3.00002f}, d[3] = {0, 0, dz[i % 4]};
            r.set(i, o, d);
        }
        const rt::Out got = rt::run(q, s, r, [](int) { return 100.0f; }, [](int) { return 0; });
        for (int i = 0; i < 16; ++i) {
            EXPECT_EQ(got.tri[i], expect[i % 4]) << "query " << int(q) << " ray " << i;
            const P o = {0, 0, r.o[2][i]}, d = {0, 0, dz[i % 4]};
            const rt::Out alone = run(q, s, o, d);
            EXPECT_EQ(alone.tri[0], got.tri[i]);
            EXPECT_EQ(alone.dist[0], got.dist[i]);
        }
    }
}

// A triangle without area gets an all-zero record, whose terms would pass the
// test (b = g = 0) at t = -origin.x / direction.x; every query skips it.
TEST(ZeroRecords, AreNeverHitByAnyQuery) {
    const rt::Scene s = scene({{{0, 0, 0}, {1, 1, 1}, {2, 2, 2}}, {{5, -1, -1}, {5, 3, -1}, {5, -1, 3}}},
                              leaf({0, 1}, true));
    ASSERT_EQ(s.accel[0].axisCode, 0);
    const P o = {-2, 0, 0}, d = {1, 0, 0};
    EXPECT_TRUE(rt::testTriangle(s.accel[0], o.data(), d.data()).inside);
    EXPECT_EQ(hit(Q::Eye, s, o, d), 1);
    EXPECT_EQ(hit(Q::PerOrigin, s, o, d), 1);
    EXPECT_EQ(run(Q::Multiple, s, o, d, 100.0f, 2).tri, (std::vector<int32_t>{1, -1}));
    EXPECT_EQ(any(s, o, {10, 0, 0}).tri[0], 1);
}

// The per-origin query ignores triangles it meets with |det| below
// 1.1920929e-6 (a ray climbing through z = 5 at slope 1e-6 has |det| = 1e-6),
// keeps a new hit only when it is nearer by more than 0.00001, and needs the
// first hit too more than that inside the limit; the eye query has none of
// these rules.
TEST(PerOriginQuery, IgnoresNearlyEdgeOnTrianglesAndNeedsHitsNearerByTheTolerance) {
    rt::Scene g = scene({{{-100, -100, 5}, {300, -100, 5}, {-100, 300, 5}}}, leaf({0}));
    const P below = {0, 0, 4.99999f};
    EXPECT_EQ(hit(Q::Eye, g, below, {1, 0, 1e-6f}, 1000.0f), 0);
    EXPECT_EQ(hit(Q::PerOrigin, g, below, {1, 0, 1e-6f}, 1000.0f), -1);
    EXPECT_EQ(hit(Q::PerOrigin, g, below, {1, 0, 2e-6f}, 1000.0f), 0);

    rt::Scene s = scene({flatZ(1.0f), flatZ(0.999995f), flatZ(0.99998f), flatZ(1.0f - 0.00001f)});
    const struct {
        std::vector<int32_t> leaf;
        Q q;
        float limit;
        int32_t expect;
    } cases[] = {{{0, 1}, Q::Eye, 100, 1},       {{0, 1}, Q::PerOrigin, 100, 0}, {{1, 0}, Q::PerOrigin, 100, 1},
                 {{0, 2}, Q::PerOrigin, 100, 2}, {{0}, Q::PerOrigin, 1.000005f, -1}, {{0}, Q::Eye, 1.000005f, 0},
                 {{0, 3}, Q::Eye, 100, 3},       {{0, 3}, Q::PerOrigin, 100, 0}};  // 3: nearer by exactly 0.00001f
    for (const auto& c : cases) {
        s.setTree(leaf(c.leaf, true));
        EXPECT_EQ(hit(c.q, s, kO, kUp, c.limit), c.expect) << "query " << int(c.q) << " leaf " << c.leaf[0];
    }
    EXPECT_EQ(hit(Q::PerOrigin, s, {0, 0, 1.0f}, kUp), -1);  // a ray starting on the triangle (t = 0)
}

TEST(MultipleQuery, StoresLevelsCumulativelyAndSearchesPastTheLimit) {
    const rt::Scene s = scene({flatZ(2), flatZ(5)}, inner(2, 3.5f, leaf({0}), leaf({1})));
    const P d = {0.25f, 0.5f, 2.0f};  // length 2: distances are in units of it
    const rt::Out lv = run(Q::Multiple, s, kO, d, 1.5f, 3);
    // Level 1 lies beyond the level-0 limit of 1.5; level 2 finds nothing.
    EXPECT_EQ(lv.tri, (std::vector<int32_t>{0, 1, -1}));
    EXPECT_EQ(lv.dist, (std::vector<float>{1.0f, 2.5f, FLT_MAX}));
    EXPECT_EQ(lv.w0[2], rt::kCanary);
    // The second level's weights are those seen from the first hit point.
    const rt::TriResult r1 = rt::testTriangle(s.accel[1], d.data(), d.data());
    EXPECT_EQ(lv.w0[1], r1.w0);
    EXPECT_EQ(lv.w1[1], r1.w1);
    EXPECT_EQ(hit(Q::Multiple, s, kO, d, 1.5f), 0);  // depth 1 stops after the first level
    // A level-0 limit before the first triangle finds nothing at all.
    const rt::Out none = run(Q::Multiple, s, kO, d, 0.75f, 2);
    EXPECT_EQ(none.tri, (std::vector<int32_t>{-1, -1}));
    EXPECT_EQ(none.dist, (std::vector<float>{0.75f, rt::kCanary}));
}

// Eight copies of a tilted triangle, and an origin 2^-24 below its plane that
// the tiny step to each hit does not move: every copy is hit at t = 2^-23.
// The previous level's triangle and the hit list keep a copy from coming back
// until the list, after eight levels, starts over.
TEST(MultipleQuery, HitListForgetsTrianglesAfterEightLevels) {
    const rt::Scene s = scene(std::vector<Tri>(8, Tri{{4090, -10, -2}, {4100, -10, 3}, {4096, 10, 1}}),
                              leaf({0, 1, 2, 3, 4, 5, 6, 7}));
    const P o = {4096, 0, 1.0f - 0x1p-24f}, d = {-1, 0, 0};
    const rt::TriResult r = rt::testTriangle(s.accel[0], o.data(), d.data());
    ASSERT_TRUE(r.inside);
    ASSERT_EQ(r.t, 0x1p-23f);
    ASSERT_EQ(o[0] + r.t * d[0], o[0]);
    const rt::Out lv = run(Q::Multiple, s, o, d, 100.0f, 11);
    const int32_t expect[11] = {0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2};
    for (int l = 0; l < 11; ++l) {
        EXPECT_EQ(lv.tri[l], expect[l]) << "level " << l;
        EXPECT_EQ(lv.dist[l], (l + 1) * 0x1p-23f) << "level " << l;
    }
}

// Segment ends are exclusive (the query never reads the box); negative masks
// skip rays; the first accepted triangle in test order is reported, not the
// nearest, but of separate cells the near one comes first.
TEST(AnyHitQuery, ExclusiveEndsMasksAndFirstAcceptedTriangle) {
    rt::Scene s = scene({flatZ(1.0f)}, leaf({0}));
    s.withBox = false;
    const rt::Out atEnd = any(s, kO, kUp, 7), inside = any(s, kO, {0, 0, 1.00001f}, 7);
    EXPECT_EQ(atEnd.tri[0], -1);
    EXPECT_EQ(atEnd.mask[0], 7);
    EXPECT_EQ(inside.tri[0], 0);
    EXPECT_EQ(inside.mask[0], -1);
    EXPECT_EQ(any(s, {0.5f, 0.5f, 1.0f}, kUp).tri[0], -1);
    EXPECT_EQ(any(s, {0, 0, 2}, kDown).tri[0], -1);
    EXPECT_EQ(any(s, {0, 0, 2}, {0, 0, -1.00001f}).tri[0], 0);

    rt::Scene two = scene({flatZ(0.8f), flatZ(0.3f)}, leaf({0, 1}, true));
    const rt::Out first = any(two, kO, kUp), skipped = any(two, kO, kUp, -3);
    EXPECT_EQ(first.tri[0], 0);
    EXPECT_EQ(first.mask[0], -1);
    EXPECT_EQ(skipped.tri[0], -1);
    EXPECT_EQ(skipped.mask[0], -3);
    two.setTree(inner(2, 0.5f, leaf({1}), leaf({0})));
    EXPECT_EQ(any(two, kO, kUp).tri[0], 1);
}

// Split on x = 0; the triangle (z = 0.5) is stored in the lower cell only. A
// ray from x = -1 with a direction x-component of magnitude 1e-8 never reaches
// the plane (t = 83886), so it searches just its near cell: the lower one
// when the component counts as positive, the upper one when negative.
TEST(AnyHitQuery, KeepsTheSignOfNearlyParallelComponents) {
    const rt::Scene s = scene({{{-3, -2, 0.5f}, {3, -2, 0.5f}, {-3, 2, 0.5f}}}, inner(0, 0.0f, leaf({0}), leaf({})));
    const P o = {-1, 0, 0};
    EXPECT_EQ(any(s, o, {1e-8f, 0, 1}).tri[0], 0);
    EXPECT_EQ(any(s, o, {-1e-8f, 0, 1}).tri[0], -1);
    EXPECT_EQ(any(s, o, {-0.0f, 0, 1}).tri[0], 0);
    EXPECT_EQ(hit(Q::Eye, s, o, {-1e-8f, 0, 1}), 0);  // the nearest-hit queries treat such an axis as positive
}

TEST(Blocks, EmptyBlocksWriteNothingExceptTheMultipleHitFill) {
    const rt::Scene s = scene({flatZ(1.0f)}, leaf({0}));
    const VekrIntersectContext c = s.ctx();
    vt::Planes<float> dir(8, 0);
    for (int i = 0; i < 8; ++i) dir.p[2][i] = 1.0f;
    vt::Buf<float> dist(8, 0), h0(8, 0), h1(8, 0);
    vt::Buf<int32_t> tri(8, 0), mask(8, 0);
    for (auto* b : {&dist, &h0, &h1}) vt::fillCanary(*b);
    vt::fillCanary(tri);
    vt::fillCanary(mask);
    float* hit[2] = {h0.data(), h1.data()};
    for (int wh : {0, -4}) {
        vekrIntersectEyeSO_32f(kO.data(), dir.cptrs(), dist.data(), hit, tri.data(), &c, 4, wh);
        vekrIntersectEyeSO_32f(kO.data(), dir.cptrs(), dist.data(), hit, tri.data(), &c, wh, 4);
        vekrIntersectMO_32f(dir.cptrs(), dir.cptrs(), dist.data(), hit, tri.data(), &c, wh, 1);
        vekrIntersectAnySO_32f(kO.data(), dir.cptrs(), tri.data(), mask.data(), wh, 4, &c);
        vekrIntersectMultipleSO_32f(kO.data(), dir.cptrs(), dist.data(), hit, tri.data(), 4, wh, 2, &c);
    }
    // Depth 0 searches nothing.
    vekrIntersectMultipleSO_32f(kO.data(), dir.cptrs(), dist.data(), hit, tri.data(), 2, 2, 0, &c);
    for (auto* b : {&dist, &h0, &h1}) EXPECT_TRUE(vt::CanaryIntact(*b));
    EXPECT_TRUE(vt::CanaryIntact(tri));
    EXPECT_TRUE(vt::CanaryIntact(mask));
    // Depth 2 with a 2 x 2 block of rays first sets all eight indices to -1
    // (then level 0 and 1 of each ray are found or not).
    for (int i = 0; i < 8; ++i) dist[i] = -1.0f;  // limits that admit no hit
    vekrIntersectMultipleSO_32f(kO.data(), dir.cptrs(), dist.data(), hit, tri.data(), 2, 2, 2, &c);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(tri[i], -1) << i;
}

}  // namespace
