// Scene set-up under hostile input: scene arrays against guard pages (so the
// accelerator records, the scene box and the KD build read nothing outside
// the vertices and triangles they are given), counts and budgets at their
// extremes, and scenes built to hurt the surface-area build: every triangle
// degenerate, 100,000 copies of one triangle, slivers, coordinates of 1e30,
// NaN vertices and clip boxes with NaN, infinite or inverted bounds. Every
// build must end with a listed status; a successful one must be a well-formed
// block whose rays still terminate.
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "guard_page.h"
#include "kdtree_view.h"
#include "mesh.h"
#include "testutil.h"
#include "vekr.h"

namespace {

const float kNaN = NAN, kInf = INFINITY;

VekrKDTreeBuildParams sah(std::uint32_t mb = 256, const VekrBoundBox* clip = nullptr, float balance = 0.5f) {
    return {vekKDTreeBuildPSAH, 50, balance, mb, const_cast<VekrBoundBox*>(clip)};
}

// The mesh in guarded arrays (vertices and triangles each end at a guard page).
struct GuardedMesh {
    vt::Guarded<float> v;
    vt::Guarded<std::int32_t> t;
    GuardedMesh(const vt::Mesh& m, vt::GuardSide side = vt::GuardSide::After)
        : v(m.vertices, 0, side), t(m.triangles, 0, side) {}
};

struct Built {
    VekStatus status = vekStatusOk;
    VekrKDTreeNode* tree = nullptr;
    int size = -1;
    double seconds = 0;
    ~Built() { vekrKDTreeFree(tree); }
};

void build(Built& b, const GuardedMesh& g, int nv, int nt, const VekrKDTreeBuildParams& p) {
    const auto t0 = std::chrono::steady_clock::now();
    b.status = vekrKDTreeBuildAlloc(&b.tree, g.v.data(), g.t.data(), nv, nt, &b.size, &p);
    b.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// A handful of rays through the scene's box with the eye and any-hit queries:
// they must come back (a hang or a fault fails the test) with indices in range.
void traceSome(const vt::Mesh& m, const VekrKDTreeNode* tree, const std::string& what) {
    std::vector<VekrTriangleAccel> acc(m.numTriangles() > 0 ? m.numTriangles() : 1);
    vekrTriangleAccelInit(acc.data(), m.vertices.data(), m.triangles.data(), m.numTriangles());
    VekrBoundBox box;
    vekrSetBoundBox_32f(m.vertices.data(), m.numVertices(), &box);
    const VekrIntersectContext ctx{&box, acc.data(), tree};
    const int n = 16;
    std::vector<float> dx(n), dy(n), dz(n), dist(n, INFINITY), h0(n), h1(n);
    std::vector<std::int32_t> tri(n), mask(n, 0);
    for (int i = 0; i < n; ++i) {
        dx[i] = 0.1f * (i % 4) - 0.15f;
        dy[i] = 0.1f * (i / 4) - 0.15f;
        dz[i] = i == 5 ? kNaN : 1.0f;
    }
    const float o[3] = {0.2f, 0.2f, -5.0f};
    const float* dir[3] = {dx.data(), dy.data(), dz.data()};
    float* hit[2] = {h0.data(), h1.data()};
    EXPECT_EQ(vekrIntersectEyeSO_32f(o, dir, dist.data(), hit, tri.data(), &ctx, 4, 4), vekStatusOk);
    for (int i = 0; i < n; ++i) EXPECT_TRUE(tri[i] >= -1 && tri[i] < m.numTriangles()) << what;
    EXPECT_EQ(vekrIntersectAnySO_32f(o, dir, tri.data(), mask.data(), 4, 4, &ctx), vekStatusOk);
    for (int i = 0; i < n; ++i) EXPECT_TRUE(tri[i] >= -1 && tri[i] < m.numTriangles()) << what;
}

vt::Mesh copiesOfOneTriangle(int n) {
    vt::Mesh m;
    m.addVertex(0, 0, 0);
    m.addVertex(1, 0, 0.5f);
    m.addVertex(0, 1, 1);
    for (int i = 0; i < n; ++i) m.addTriangle(0, 1, 2);
    return m;
}

// Every triangle degenerate: points, repeated vertices, collinear triples.
vt::Mesh allDegenerate(int n) {
    vt::Mesh m;
    for (int i = 0; i < n; ++i) {
        const float x = 0.01f * i;
        m.addVertex(x, 2 * x, 3 * x);
    }
    for (int i = 0; i + 2 < n; ++i) m.addTriangle(i, i + 1, i + 2);  // collinear
    for (int i = 0; i + 1 < n; ++i) m.addTriangle(i, i, i + 1);
    for (int i = 0; i < n; ++i) m.addTriangle(i, i, i);
    return m;
}

// Long thin triangles crossing each other, and a sphere at 1e30.
vt::Mesh slivers(int n) {
    vt::Mesh m;
    for (int i = 0; i < n; ++i) {
        const float y = 0.001f * i, z = 0.37f * (i % 7);
        const int b = m.numVertices();
        m.addVertex(-100, y, z);
        m.addVertex(100, y + 1e-6f, z);
        m.addVertex(100, y, z + 1e-6f);
        m.addTriangle(b, b + 1, b + 2);
    }
    return m;
}
vt::Mesh farAway() { return vt::makeSphere(10, 20, 1e29f, 1e30f, -1e30f, 1e30f); }
vt::Mesh withNaNs() {
    vt::Mesh m = vt::makeSphere(10, 20, 1.0f);
    for (std::size_t i = 0; i < m.vertices.size(); i += 7) m.vertices[i] = kNaN;
    return m;
}

TEST(HostileScenes, BuildsEndWithAListedStatusAndWellFormedTrees) {
    const std::vector<std::pair<const char*, vt::Mesh>> scenes = {
        {"100000 copies of one triangle", copiesOfOneTriangle(100000)},
        {"every triangle degenerate", allDegenerate(3000)},
        {"slivers", slivers(3000)},
        {"coordinates of 1e30", farAway()},
        {"NaN vertices", withNaNs()},
        {"sphere", vt::makeSphere(20, 40, 1.0f)}};
    for (const auto& s : scenes) {
        const vt::Mesh& m = s.second;
        const GuardedMesh g(m);
        // Plenty of budget, then 1 MiB (below the 32-unit minimum) and unit
        // counts whose shifted budgets wrap: UINT32_MAX to almost 4 GiB,
        // 0xFFFFF000 and 0x1000 to nothing.
        for (std::uint32_t mb : {256u, 1u, UINT32_MAX, 0xFFFFF000u, 0x1000u}) {
            Built b;
            build(b, g, m.numVertices(), m.numTriangles(), sah(mb));
            const std::string what = std::string(s.first) + ", budget units " + std::to_string(mb);
            if (mb == 1u || mb == 0x1000u || mb == 0xFFFFF000u) {
                EXPECT_EQ(b.status, vekStatusNoMemory) << what;
                EXPECT_EQ(b.tree, nullptr) << what;
                EXPECT_EQ(b.size, -1) << what;
                continue;
            }
            ASSERT_EQ(b.status, vekStatusOk) << what;
            EXPECT_TRUE(vt::KDTreeView(b.tree, b.size).WellFormed(m.numTriangles())) << what;
            traceSome(m, b.tree, what);
            RecordProperty(std::string("seconds: ") + what, std::to_string(b.seconds));
        }
    }
}

// Clip boxes that describe no region: NaN, infinite, inverted or flat bounds.
TEST(HostileScenes, ClipBoxesWithoutARegionStillGiveWellFormedTrees) {
    const vt::Mesh m = vt::makeSphere(12, 24, 1.0f);
    const GuardedMesh g(m);
    const VekrBoundBox boxes[] = {{{kNaN, kNaN, kNaN}, {kNaN, kNaN, kNaN}},
                                  {{-kInf, -kInf, -kInf}, {kInf, kInf, kInf}},
                                  {{1, 1, 1}, {-1, -1, -1}},
                                  {{0, 0, 0}, {0, 0, 0}},
                                  {{-1, kNaN, -1}, {1, 1, kInf}},
                                  {{-1e30f, -1e-40f, -1}, {1e-40f, 1e30f, 0.5f}}};
    for (const VekrBoundBox& box : boxes)
        for (float balance : {0.5f, kNaN, 1e-40f}) {
            Built b;
            build(b, g, m.numVertices(), m.numTriangles(), sah(256, &box, balance));
            ASSERT_EQ(b.status, vekStatusOk) << box.minCorner[0] << " " << box.maxCorner[0] << " " << balance;
            EXPECT_TRUE(vt::KDTreeView(b.tree, b.size).WellFormed(m.numTriangles()));
            traceSome(m, b.tree, "clip box");
        }
}

// Counts the arrays cannot back, and depths and balances out of range: each
// call ends with its status before reading the (tiny, guarded) scene and
// writes neither output.
TEST(HostileScenes, ExtremeCountsAndParametersReadNothingAndWriteNothing) {
    const vt::Mesh m = copiesOfOneTriangle(1);
    const GuardedMesh g(m), before(m, vt::GuardSide::Before);
    struct Case {
        int nv, nt;
        VekrKDTreeBuildParams p;
        VekStatus want;
    };
    const VekrKDTreeBuildParams simple{vekKDTreeBuildSimple, 0, 0.5f, 0, nullptr};
    const Case cases[] = {
        {-1, 1, sah(), vekStatusBadSize},
        {3, -3, sah(), vekStatusBadSize},
        {INT_MIN, INT_MIN, sah(), vekStatusBadSize},
        {3, INT_MIN, simple, vekStatusBadSize},
        // The up-front budget test fails before any triangle is read.
        {INT_MAX, 1, sah(UINT32_MAX), vekStatusNoMemory},
        {3, INT_MAX, sah(UINT32_MAX), vekStatusNoMemory},
        {INT_MAX, INT_MAX, sah(UINT32_MAX), vekStatusNoMemory},
        // A single leaf of INT_MAX triangles would not fit an int size.
        {3, INT_MAX, simple, vekStatusNoMemory},
        {3, 1, VekrKDTreeBuildParams{vekKDTreeBuildPSAH, INT_MAX, 0.5f, 256, nullptr}, vekStatusOutOfRange},
        {3, 1, VekrKDTreeBuildParams{vekKDTreeBuildPSAH, 0, kInf, 256, nullptr}, vekStatusOutOfRange},
        {3, 1, VekrKDTreeBuildParams{vekKDTreeBuildPSAH, 0, -kInf, 256, nullptr}, vekStatusOutOfRange},
        {3, 1, VekrKDTreeBuildParams{vekKDTreeBuildPSAH, 0, 1e30f, 256, nullptr}, vekStatusOutOfRange},
        {3, 1, VekrKDTreeBuildParams{0xFFFFFFFFu, 0, 0.5f, 256, nullptr}, vekStatusBadAlgorithm},
    };
    for (const GuardedMesh* gm : {&g, &before})
        for (const Case& c : cases) {
            Built b;
            build(b, *gm, c.nv, c.nt, c.p);
            EXPECT_EQ(b.status, c.want) << c.nv << " " << c.nt;
            EXPECT_EQ(b.tree, nullptr);
            EXPECT_EQ(b.size, -1);
        }
}

// The accelerator records and the scene box read exactly their arrays: the
// vertex and triangle arrays end (or start) at a guard page, the records are
// written up to their count and no further, and non-positive counts read and
// write nothing.
TEST(HostileScenes, RecordsAndBoxStayInsideGuardedArrays) {
    vt::Mesh m = vt::makeSphere(3, 4, 1.0f);
    m.vertices[4] = kNaN;
    m.vertices[8] = 1e30f;
    m.vertices[10] = -kInf;
    m.vertices[13] = 1e-40f;
    m.addTriangle(0, 0, 0);
    const int nt = m.numTriangles(), nv = m.numVertices();
    std::vector<VekrTriangleAccel> want(nt);
    vekrTriangleAccelInit(want.data(), m.vertices.data(), m.triangles.data(), nt);
    for (vt::GuardSide side : {vt::GuardSide::After, vt::GuardSide::Before}) {
        const GuardedMesh g(m, side);
        for (int n : {1, 2, 3, 5, nt}) {
            vt::Guarded<VekrTriangleAccel> acc(nt, 0, side);
            vt::fillCanary(acc.data(), nt);
            EXPECT_EQ(vekrTriangleAccelInit(acc.data(), g.v.data(), g.t.data(), n), vekStatusOk);
            EXPECT_TRUE(vt::SameBits(reinterpret_cast<const std::uint32_t*>(want.data()),
                                     reinterpret_cast<const std::uint32_t*>(acc.data()), 10 * n));
            EXPECT_TRUE(vt::CanaryIntact(acc.data() + n, nt - n)) << n;
        }
        for (int n : {0, -1, -3, INT_MIN}) {
            vt::Guarded<VekrTriangleAccel> acc(2, 0, side);
            vt::fillCanary(acc.data(), 2);
            EXPECT_EQ(vekrTriangleAccelInit(acc.data(), g.v.data(), g.t.data(), n), vekStatusOk);
            EXPECT_TRUE(vt::CanaryIntact(acc.data(), 2)) << n;
        }
        // The box scans two vertices per round: odd and even counts up to the
        // array's end, against a box scanned one vertex at a time.
        for (int n = 1; n <= nv; ++n) {
            VekrBoundBox got;
            ASSERT_EQ(vekrSetBoundBox_32f(g.v.data() + 3 * (nv - n), n, &got), vekStatusOk);
            float lo[3], hi[3];
            for (int a = 0; a < 3; ++a) lo[a] = hi[a] = NAN;
            for (int i = nv - n; i < nv; ++i)
                for (int a = 0; a < 3; ++a) {
                    const float c = m.vertices[3 * i + a];
                    if (c < lo[a] || (std::isnan(lo[a]) && !std::isnan(c))) lo[a] = c;
                    if (c > hi[a] || (std::isnan(hi[a]) && !std::isnan(c))) hi[a] = c;
                }
            for (int a = 0; a < 3; ++a) {
                // Every finite corner lies inside the widened box.
                if (std::isfinite(lo[a])) {
                    EXPECT_LE(got.minCorner[a], lo[a]) << n;
                }
                if (std::isfinite(hi[a])) {
                    EXPECT_GE(got.maxCorner[a], hi[a]) << n;
                }
            }
        }
        for (int n : {0, -1, INT_MIN}) {
            VekrBoundBox box;
            EXPECT_EQ(vekrSetBoundBox_32f(g.v.data(), n, &box), vekStatusOk);
            EXPECT_GT(box.minCorner[0], box.maxCorner[0]) << n;  // left inverted, no vertex read
        }
    }
}

}  // namespace
