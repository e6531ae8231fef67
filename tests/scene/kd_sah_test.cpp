// Surface-area KD build: the block format on real and generated scenes,
// completeness (every point of a triangle lies in a leaf that lists it), the
// cost model's decisions on small worked scenes, the budget, the clip box and
// independence from the thread count.
#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <vector>

#include "kdtree_view.h"
#include "mesh.h"
#include "testutil.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

struct Tree {
    VekStatus status = vekStatusNullPtr;
    VekrKDTreeNode* p = nullptr;
    int size = 0;
    Tree() = default;
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;
    ~Tree() { vekrKDTreeFree(p); }
    vt::KDTreeView view() const { return vt::KDTreeView(p, size); }
    std::vector<std::uint8_t> bytes() const {
        const auto* b = reinterpret_cast<const std::uint8_t*>(p);
        return std::vector<std::uint8_t>(b, b + size);
    }
};

VekrKDTreeBuildParams sah(int depth = 40, float balance = 0.5f, std::uint32_t mb = 512,
                          VekrBoundBox* clip = nullptr) {
    return {vekKDTreeBuildPSAH, depth, balance, mb, clip};
}

void buildInto(Tree& t, const vt::Mesh& m, const VekrKDTreeBuildParams& p) {
    t.status = vekrKDTreeBuildAlloc(&t.p, m.vertices.data(), m.triangles.data(), m.numVertices(), m.numTriangles(),
                                    &t.size, &p);
}

// The box of the vertices (what the build splits), without the margin.
VekrBoundBox vertexBox(const vt::Mesh& m) {
    VekrBoundBox b;
    for (int a = 0; a < 3; ++a) b.minCorner[a] = b.maxCorner[a] = m.vertices[a];
    for (int i = 0; i < m.numVertices(); ++i)
        for (int a = 0; a < 3; ++a) {
            b.minCorner[a] = std::min(b.minCorner[a], m.vertices[3 * i + a]);
            b.maxCorner[a] = std::max(b.maxCorner[a], m.vertices[3 * i + a]);
        }
    return b;
}

bool inside(const VekrBoundBox& b, const float* p) {
    for (int a = 0; a < 3; ++a)
        if (!(p[a] >= b.minCorner[a] && p[a] <= b.maxCorner[a])) return false;
    return true;
}

// Every vertex, edge midpoint and centroid of every `stride`-th triangle that
// lies in `box` must lie in (the closed cell of) a leaf that lists the triangle.
::testing::AssertionResult Complete(const Tree& t, const vt::Mesh& m, const VekrBoundBox& box, int stride = 1) {
    const vt::KDTreeView v = t.view();
    for (int i = 0; i < m.numTriangles(); i += stride) {
        const float* c[3];
        for (int k = 0; k < 3; ++k) c[k] = &m.vertices[3 * m.triangles[4 * i + k]];
        std::vector<std::array<float, 3>> pts;
        for (int k = 0; k < 3; ++k) {
            pts.push_back({c[k][0], c[k][1], c[k][2]});
            const float* d = c[(k + 1) % 3];
            pts.push_back({(c[k][0] + d[0]) * 0.5f, (c[k][1] + d[1]) * 0.5f, (c[k][2] + d[2]) * 0.5f});
        }
        // The centroid, kept inside the vertices' range per axis (a float sum
        // of three equal values divided by 3 need not give the value back).
        std::array<float, 3> g;
        for (int a = 0; a < 3; ++a) {
            const float mn = std::min(std::min(c[0][a], c[1][a]), c[2][a]);
            const float mx = std::max(std::max(c[0][a], c[1][a]), c[2][a]);
            g[a] = mn == mx ? mn : std::min(mx, std::max(mn, (c[0][a] + c[1][a] + c[2][a]) / 3));
        }
        pts.push_back(g);
        for (const auto& p : pts) {
            if (!inside(box, p.data())) continue;
            bool found = false;
            for (const vt::KDLeaf& l : v.leavesAt(p.data(), box))
                found |= std::find(l.triangles.begin(), l.triangles.end(), i) != l.triangles.end();
            if (!found)
                return ::testing::AssertionFailure()
                       << "triangle " << i << " missing at (" << p[0] << ", " << p[1] << ", " << p[2] << ")";
        }
    }
    return ::testing::AssertionSuccess();
}

vt::Mesh loadBunny() {
    vt::Mesh m;
    EXPECT_TRUE(vt::loadObj(vt::kBunnyPath, m));
    return m;
}

// Long slivers crossing the whole scene in random directions, and small
// triangles among them.
vt::Mesh makeSlivers(int n, std::uint64_t seed) {
    vt::Rng r(seed);
    vt::Mesh m;
    for (int i = 0; i < n; ++i) {
        float x = r.uniform(-10, 10), y = r.uniform(-10, 10), z = r.uniform(-10, 10);
        float dx = r.uniform(-20, 20), dy = r.uniform(-20, 20), dz = r.uniform(-20, 20);
        float e = i % 4 == 0 ? 0.5f : 0.01f;
        m.addVertex(x, y, z);
        m.addVertex(x + dx, y + dy, z + dz);
        m.addVertex(x + e, y - e, z + e);
        m.addTriangle(3 * i, 3 * i + 1, 3 * i + 2);
    }
    return m;
}

}  // namespace

TEST(KDTreeSAH, BunnyTreeIsWellFormedCompleteAndCheap) {
    vt::Mesh m = loadBunny();
    Tree t;
    buildInto(t, m, sah());
    ASSERT_EQ(t.status, vekStatusOk);
    EXPECT_TRUE(t.view().WellFormed(m.numTriangles()));
    const VekrBoundBox box = vertexBox(m);
    EXPECT_TRUE(Complete(t, m, box));
    vt::KDTreeStats st = t.view().stats(box);
    // A single leaf costs n triangle tests per ray; a working split search
    // brings that down by orders of magnitude.
    EXPECT_LT(st.sahCost, m.numTriangles() / 500.0);
    std::printf("bunny: %lld inner, %lld leaves (%lld empty, %lld packed), %lld refs, depth %d, cost %.2f, %d bytes\n",
                (long long)st.innerNodes, (long long)st.leaves, (long long)st.emptyLeaves,
                (long long)st.packedLeaves, (long long)st.references, st.maxDepth, st.sahCost, t.size);
}

TEST(KDTreeSAH, GeneratedScenesAreWellFormedAndComplete) {
    struct Case {
        const char* name;
        vt::Mesh mesh;
    };
    std::vector<Case> cases;
    cases.push_back({"grid in one plane", vt::makeGrid(48, 10.0f)});
    cases.push_back({"sphere", vt::makeSphere(30, 60, 2.0f, 1, -3, 0.5f)});
    cases.push_back({"long slivers", makeSlivers(3000, 5)});
    {
        vt::Mesh d = vt::makeSphere(12, 24, 1.0f);  // every triangle twice
        const std::size_t n = d.triangles.size();
        for (std::size_t i = 0; i < n; ++i) d.triangles.push_back(d.triangles[i]);
        cases.push_back({"duplicated triangles", d});
    }
    {
        vt::Mesh d = vt::makeSphere(10, 20, 1.0f);
        const int nv = d.numVertices();
        for (int i = 0; i + 2 < nv; i += 3) {
            d.addTriangle(i, i, i + 1);  // two equal vertices
            d.addTriangle(i, i, i);      // a point
        }
        d.addVertex(-1, -1, -1);
        d.addVertex(0, 0, 0);
        d.addVertex(1, 1, 1);
        d.addTriangle(nv, nv + 1, nv + 2);  // collinear, through the middle
        cases.push_back({"degenerate triangles", d});
    }
    for (const Case& c : cases) {
        Tree t;
        buildInto(t, c.mesh, sah());
        ASSERT_EQ(t.status, vekStatusOk) << c.name;
        EXPECT_TRUE(t.view().WellFormed(c.mesh.numTriangles())) << c.name;
        EXPECT_TRUE(Complete(t, c.mesh, vertexBox(c.mesh))) << c.name;
        vt::KDTreeStats st = t.view().stats(vertexBox(c.mesh));
        EXPECT_GT(st.innerNodes, 10) << c.name;
    }
}

TEST(KDTreeSAH, NonFiniteCoordinatesDoNotBreakTheBuild) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    // A NaN vertex: its triangles can be hit by no ray and are left out; the
    // rest of the scene is built as usual.
    vt::Mesh m = vt::makeSphere(12, 24, 1.0f);
    const int nv = m.numVertices(), first = m.numTriangles();
    m.addVertex(nan, 0, 0);
    m.addTriangle(0, 1, nv);
    m.addTriangle(nv, 5, 9);
    Tree t;
    buildInto(t, m, sah());
    ASSERT_EQ(t.status, vekStatusOk);
    ASSERT_TRUE(t.view().WellFormed(m.numTriangles()));
    vt::Mesh sphereOnly = m;
    sphereOnly.triangles.resize(4 * first);
    EXPECT_TRUE(Complete(t, sphereOnly, vertexBox(sphereOnly)));
    t.view().forEachLeaf(vertexBox(sphereOnly), [&](const vt::KDLeaf& l) {
        for (int i : l.triangles) EXPECT_LT(i, first);
    });
    // A NaN at vertex 0 (which seeds the scene box) does not hide the scene.
    vt::Mesh z = vt::makeSphere(12, 24, 1.0f);
    z.vertices[0] = nan;
    Tree t0;
    buildInto(t0, z, sah());
    ASSERT_EQ(t0.status, vekStatusOk);
    ASSERT_TRUE(t0.view().WellFormed(z.numTriangles()));
    EXPECT_GT(t0.view().stats(vertexBox(sphereOnly)).references, z.numTriangles() / 2);
    // An infinite coordinate makes every cost infinite or NaN: no split is
    // better than the leaf, and the result is still a valid block.
    vt::Mesh w = vt::makeSphere(6, 12, 1.0f);
    w.addVertex(inf, 0, -inf);
    w.addTriangle(0, 1, w.numVertices() - 1);
    Tree u;
    buildInto(u, w, sah());
    ASSERT_EQ(u.status, vekStatusOk);
    EXPECT_TRUE(u.view().WellFormed(w.numTriangles()));
}

TEST(KDTreeSAH, EmptySpaceCutCarriesTheSevenTenthsFactor) {
    // One triangle filling [0, a]^3 of the box [0, 1]^3 (the box reaches to an
    // unused vertex at (1, 1, 1)). Each axis offers the empty-space cut at a
    // with cost 2 * 0.7 * (a + 0.5) (K = 0.5); leafCost = 3, and with
    // costBalance 1 the split needs 3 - cost > 3 * 0.50576. That holds for
    // a = 0.4 only thanks to the 0.7 factor (without it: a < 0.241), and fails
    // for a = 0.6. Equal axis costs pick z.
    for (float a : {0.4f, 0.6f}) {
        vt::Mesh m;
        m.addVertex(0, 0, 0);
        m.addVertex(a, a, 0);
        m.addVertex(0, a, a);
        m.addVertex(1, 1, 1);
        m.addTriangle(0, 1, 2);
        Tree t;
        buildInto(t, m, sah(40, 1.0f));
        ASSERT_EQ(t.status, vekStatusOk);
        ASSERT_TRUE(t.view().WellFormed(1));
        const vt::KDTreeView v = t.view();
        if (a == 0.6f) {
            EXPECT_TRUE(v.isLeaf(0));
            EXPECT_EQ(static_cast<std::uint32_t>(v.value(0)), 0x80000001u);  // packed, one triangle
            EXPECT_EQ(static_cast<std::uint32_t>(v.link(0)), 0x80000000u);
            continue;
        }
        ASSERT_FALSE(v.isLeaf(0));
        EXPECT_EQ(v.axis(0), 2);
        EXPECT_EQ(vt::bits(v.split(0)), vt::bits(a));
        EXPECT_EQ(v.children(0), 16);
        // The upper child is the empty leaf.
        EXPECT_TRUE(v.isLeaf(24));
        EXPECT_EQ(v.value(24), 0);
    }
}

TEST(KDTreeSAH, EqualAxisCostsGoToTheLaterAxis) {
    // Two small triangles in opposite corners, symmetric under swapping the two
    // axes that are not flat: the costs of those axes are equal, the flat
    // axis is passed over; the later of the two equal axes wins.
    struct Case {
        int flat, expected;
    };
    for (Case c : {Case{2, 1}, Case{0, 2}, Case{1, 2}}) {
        const int u = c.flat == 0 ? 1 : 0, w = c.flat == 2 ? 1 : 2;
        vt::Mesh m;
        auto add = [&](float pu, float pw) {
            float p[3] = {0, 0, 0};
            p[u] = pu;
            p[w] = pw;
            m.addVertex(p[0], p[1], p[2]);
        };
        add(0, 0), add(0.1f, 0), add(0, 0.1f);
        add(1, 1), add(0.9f, 1), add(1, 0.9f);
        m.addTriangle(0, 1, 2);
        m.addTriangle(3, 4, 5);
        Tree t;
        buildInto(t, m, sah(40, 1.0f));
        ASSERT_EQ(t.status, vekStatusOk);
        const vt::KDTreeView v = t.view();
        ASSERT_TRUE(v.WellFormed(2));
        ASSERT_FALSE(v.isLeaf(0)) << "flat axis " << c.flat;
        EXPECT_EQ(v.axis(0), c.expected) << "flat axis " << c.flat;
        // The first minimum of the sweep: the end of the lower triangle.
        EXPECT_EQ(vt::bits(v.split(0)), vt::bits(0.1f));
    }
}

TEST(KDTreeSAH, DepthLimitAndFlatBoxesMakeLeaves) {
    vt::Mesh sphere = vt::makeSphere(16, 32, 1.0f);
    {
        Tree t;
        buildInto(t, sphere, sah(0));
        ASSERT_EQ(t.status, vekStatusOk);
        EXPECT_TRUE(t.view().WellFormed(sphere.numTriangles()));
        EXPECT_EQ(t.view().value(0), sphere.numTriangles());
        EXPECT_EQ(t.size, 16 + 4 * sphere.numTriangles());
    }
    for (int depth : {1, 3, 7}) {
        Tree t;
        buildInto(t, sphere, sah(depth));
        ASSERT_EQ(t.status, vekStatusOk);
        vt::KDTreeStats st = t.view().stats(vertexBox(sphere));
        EXPECT_EQ(st.maxDepth, depth);
    }
    // All vertices at one point: the box is flat in every axis.
    vt::Mesh point;
    for (int i = 0; i < 12; ++i) point.addVertex(2, 2, 2);
    for (int i = 0; i < 100; ++i) point.addTriangle(i % 12, (i + 1) % 12, (i + 5) % 12);
    Tree t;
    buildInto(t, point, sah());
    ASSERT_EQ(t.status, vekStatusOk);
    EXPECT_TRUE(t.view().isLeaf(0));
    EXPECT_EQ(t.view().value(0), 100);
}

TEST(KDTreeSAH, CostBalanceOneSplitsMoreReadily) {
    vt::Mesh m = vt::makeSphere(40, 80, 1.0f);
    std::int64_t inner[2];
    int i = 0;
    for (float cb : {0.0f, 1.0f}) {
        Tree t;
        buildInto(t, m, sah(40, cb));
        ASSERT_EQ(t.status, vekStatusOk);
        EXPECT_TRUE(t.view().WellFormed(m.numTriangles()));
        inner[i++] = t.view().stats(vertexBox(m)).innerNodes;
    }
    EXPECT_LT(inner[0], inner[1]);
}

TEST(KDTreeSAH, BlocksAreIdenticalForOneAndTwoThreads) {
    const int before = omp_get_max_threads();
    vt::Mesh bunny = loadBunny();
    vt::Mesh slivers = makeSlivers(4000, 9);
    for (const vt::Mesh* m : {&bunny, &slivers}) {
        std::vector<std::uint8_t> ref;
        for (int threads : {1, 2}) {
            omp_set_num_threads(threads);
            vekSetNumThreads(threads);
            Tree t;
            buildInto(t, *m, sah());
            ASSERT_EQ(t.status, vekStatusOk);
            if (threads == 1)
                ref = t.bytes();
            else
                EXPECT_TRUE(vt::SameBits(ref, t.bytes()));
        }
    }
    omp_set_num_threads(before);
}

TEST(KDTreeSAH, ClipBoxKeepsOnlyTheTrianglesInside) {
    vt::Mesh m = vt::makeSphere(30, 60, 1.0f);
    VekrBoundBox clip = {{-1.5f, -1.5f, -0.3f}, {0.25f, 1.5f, 0.4f}};
    Tree t;
    buildInto(t, m, sah(40, 0.5f, 512, &clip));
    ASSERT_EQ(t.status, vekStatusOk);
    const vt::KDTreeView v = t.view();
    ASSERT_TRUE(v.WellFormed(m.numTriangles()));
    EXPECT_TRUE(Complete(t, m, clip));
    // Triangles whose vertex box misses the clip box appear in no leaf; those
    // with a vertex strictly inside it appear in some leaf.
    std::vector<char> listed(m.numTriangles(), 0);
    v.forEachLeaf(clip, [&](const vt::KDLeaf& l) {
        for (int i : l.triangles) listed[i] = 1;
        // Leaf cells stay inside the clip box.
        for (int a = 0; a < 3; ++a) {
            EXPECT_GE(l.lo[a], clip.minCorner[a]);
            EXPECT_LE(l.hi[a], clip.maxCorner[a]);
        }
    });
    int outside = 0, in = 0;
    for (int i = 0; i < m.numTriangles(); ++i) {
        bool miss = false, anyIn = false;
        for (int a = 0; a < 3; ++a) {
            float lo = 1e30f, hi = -1e30f;
            for (int k = 0; k < 3; ++k) {
                float c = m.vertices[3 * m.triangles[4 * i + k] + a];
                lo = std::min(lo, c);
                hi = std::max(hi, c);
            }
            miss |= hi < clip.minCorner[a] || lo > clip.maxCorner[a];
        }
        for (int k = 0; k < 3; ++k) {
            const float* p = &m.vertices[3 * m.triangles[4 * i + k]];
            bool strict = true;
            for (int a = 0; a < 3; ++a) strict &= p[a] > clip.minCorner[a] && p[a] < clip.maxCorner[a];
            anyIn |= strict;
        }
        if (miss) {
            ++outside;
            EXPECT_FALSE(listed[i]) << i;
        }
        if (anyIn) {
            ++in;
            EXPECT_TRUE(listed[i]) << i;
        }
    }
    EXPECT_GT(outside, 100);
    EXPECT_GT(in, 100);
}

TEST(KDTreeSAH, BudgetCoversWorkingStorageAndNodeBlocks) {
    vt::Mesh m = loadBunny();
    const std::int64_t nt = m.numTriangles(), nv = m.numVertices();
    const std::int64_t need = 84 * nt + 12 * nv + 33554676;
    const std::uint32_t least = static_cast<std::uint32_t>((need + (1 << 20) - 1) >> 20);
    auto status = [&](std::uint32_t mb) {
        VekrKDTreeNode* tree;
        int size;
        vt::fillCanary(&tree, 1);
        vt::fillCanary(&size, 1);
        VekrKDTreeBuildParams p = sah(40, 0.5f, mb);
        VekStatus s = vekrKDTreeBuildAlloc(&tree, m.vertices.data(), m.triangles.data(), m.numVertices(),
                                           m.numTriangles(), &size, &p);
        if (s == vekStatusOk)
            vekrKDTreeFree(tree);
        else {
            EXPECT_TRUE(vt::CanaryIntact(&tree, 1));
            EXPECT_TRUE(vt::CanaryIntact(&size, 1));
        }
        return s;
    };
    // One MiB short of the up-front need: refused before any allocation.
    EXPECT_EQ(status(least - 1), vekStatusNoMemory);
    // Enough for the working storage, but the first 16 MB node block does not
    // fit in what is left.
    EXPECT_EQ(status(least), vekStatusBudgetExhausted);
    // 16 MiB more hold one node block, which is all the bunny needs.
    EXPECT_EQ(status(least + 16), vekStatusOk);
}

namespace {

// The root decision written out by brute force from the cost model: every
// candidate position is priced by counting the triangles on each side
// directly. Triangles flat in an axis and lying in a candidate plane are
// priced on the upper side first and on the lower side when that is
// strictly cheaper (the builder's rule for planar triangles in the sweep).
struct RootDecision {
    bool split = false;
    int axis = -1;
    float pos = 0;
    int numLower = 0, numUpper = 0;
};

RootDecision referenceRoot(const vt::Mesh& m, float balance) {
    const VekrBoundBox box = vertexBox(m);
    const float* lo = box.minCorner;
    const float* hi = box.maxCorner;
    const int n = m.numTriangles();
    std::vector<std::array<float, 6>> ext(n);
    for (int t = 0; t < n; ++t)
        for (int a = 0; a < 3; ++a) {
            float mn = 1e30f, mx = -1e30f;
            for (int k = 0; k < 3; ++k) {
                float c = m.vertices[3 * m.triangles[4 * t + k] + a];
                mn = std::min(mn, c);
                mx = std::max(mx, c);
            }
            ext[t][a] = mn + 0.0f;
            ext[t][3 + a] = mx + 0.0f;
        }
    const float c = static_cast<float>((10.0 - 9.0 * balance) * 0.5057569742202759);
    const double d[3] = {hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]};
    const double leafCost = (d[0] * (d[1] + d[2]) + d[1] * d[2]) * n;
    const double threshold = std::max(9.999999747378752e-06, double(c) * leafCost);
    double cost[3];
    RootDecision best[3];
    for (int a = 0; a < 3; ++a) {
        cost[a] = leafCost;
        const float w = hi[a] - lo[a];
        if (!(w > 1e-5f)) continue;
        const int u = (a + 1) % 3, v = (a + 2) % 3;
        const float fu = hi[u] - lo[u], fv = hi[v] - lo[v];
        if (!(fu > 1e-5f) && !(fv > 1e-5f)) continue;
        const double eu = fu, ev = fv;
        const double K = eu * ev < 1e-9 ? 0.0 : eu * ev / (eu + ev);
        std::vector<float> cand;
        float first = 1e30f, last = -1e30f;
        int mcount = 0;
        for (int t = 0; t < n; ++t) {
            cand.push_back(ext[t][a]);
            cand.push_back(ext[t][3 + a]);
            if (ext[t][a] != ext[t][3 + a]) {
                ++mcount;
                first = std::min(first, ext[t][a]);
                last = std::max(last, ext[t][3 + a]);
            }
        }
        if (mcount == 0) {
            first = lo[a];
            last = hi[a];
        }
        for (int t = 0; t < n; ++t)
            if (ext[t][a] == ext[t][3 + a]) {
                first = std::min(first, ext[t][a]);
                last = std::max(last, ext[t][a]);
            }
        const bool planar = mcount < n;
        bool empty = false;
        double ec = 0;
        if (first - lo[a] > 0.1f * w) {
            empty = true;
            ec = n * (double(hi[a] - first) + K);
            best[a] = {true, a, first, 0, n};
        }
        if (hi[a] - last > 0.1f * w) {
            double c2 = n * (double(last - lo[a]) + K);
            if (!empty || c2 < ec) {
                ec = c2;
                best[a] = {true, a, last, n, 0};
            }
            empty = true;
        }
        (void)planar;
        if (empty) {
            cost[a] = (eu + ev) * 0.699999988079071 * ec;
            continue;
        }
        std::sort(cand.begin(), cand.end());
        cand.erase(std::unique(cand.begin(), cand.end()), cand.end());
        double bc = 0;
        bool have = false;
        for (float x : cand) {
            int below = 0, above = 0, on = 0;
            for (int t = 0; t < n; ++t) {
                const float s = ext[t][a], e = ext[t][3 + a];
                if (s == e) {
                    below += s < x;
                    above += s > x;
                    on += s == x;
                } else {
                    below += s < x;
                    above += e > x;
                }
            }
            const double wl = double(x - lo[a]) + K, wr = double(hi[a] - x) + K;
            double cu = below * wl + (above + on) * wr;
            RootDecision r{true, a, x, below, above + on};
            const double cl = (below + on) * wl + above * wr;
            if (on > 0 && cl < cu) {
                cu = cl;
                r = {true, a, x, below + on, above};
            }
            if (!have || cu < bc) {
                have = true;
                bc = cu;
                best[a] = r;
            }
        }
        cost[a] = (eu + ev) * bc;
    }
    int b = cost[1] > cost[0] ? (cost[0] < cost[2] ? 0 : 2) : (cost[1] < cost[2] ? 1 : 2);
    if (!(n * (leafCost - cost[b]) > threshold)) return RootDecision{};
    return best[b];
}

// Triangles on a coarse integer lattice (many equal coordinates, many
// triangles flat in some axis), some of them clustered to open empty space.
vt::Mesh latticeScene(int n, std::uint64_t seed) {
    vt::Rng r(seed);
    vt::Mesh m;
    const int span = 4 + r.below(12);
    if (seed % 10 == 9) {
        // Big triangles across the whole box: nothing worth splitting.
        for (int i = 0; i < n; ++i) {
            for (int k = 0; k < 3; ++k)
                m.addVertex(float(span * ((i + k) % 2)), float(span * ((i + k + 1) % 2)), float(span * (k % 2)));
            m.addTriangle(3 * i, 3 * i + 1, 3 * i + 2);
        }
        return m;
    }
    for (int i = 0; i < n; ++i) {
        int x = r.below(span), y = r.below(span), z = r.below(span);
        for (int k = 0; k < 3; ++k) {
            int dx = r.below(3), dy = r.below(3), dz = r.below(3);
            if (i % 5 == 0) dz = 0;  // flat in z
            if (i % 7 == 0) dx = 0;  // flat in x
            m.addVertex(float(x + dx) * 0.5f, float(y + dy) * 0.25f, float(z + dz));
        }
        m.addTriangle(3 * i, 3 * i + 1, 3 * i + 2);
    }
    if (seed % 3 == 0) m.addVertex(float(span) * 3, float(span), float(span) * 2);  // empty space above
    return m;
}

// The set of triangles listed anywhere below the node at `off`.
std::vector<int> trianglesBelow(const vt::KDTreeView& v, std::int64_t off) {
    std::vector<int> out;
    std::vector<std::int64_t> pending = {off};
    while (!pending.empty()) {
        std::int64_t o = pending.back();
        pending.pop_back();
        if (v.isLeaf(o)) {
            for (int t : v.leafTriangles(o)) out.push_back(t);
        } else {
            pending.push_back(v.children(o));
            pending.push_back(v.children(o) + 8);
        }
    }
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

}  // namespace

TEST(KDTreeSAH, RootSplitMatchesBruteForceCostModel) {
    // Small nodes take the sweep on the calling thread, large ones the
    // parallel search: both must make the brute-force decision.
    int splits = 0, leaves = 0, oneSided = 0;
    for (int it = 0; it < 60; ++it) {
        const int n = it % 3 == 0 ? 20 + it : (it % 3 == 1 ? 76 + 3 * it : 300 + 10 * it);
        const float balance = (it % 4) / 3.0f;
        vt::Mesh m = latticeScene(n, 100 + it);
        RootDecision want = referenceRoot(m, balance);
        Tree t;
        buildInto(t, m, sah(30, balance));
        ASSERT_EQ(t.status, vekStatusOk);
        const vt::KDTreeView v = t.view();
        ASSERT_TRUE(v.WellFormed(n));
        ASSERT_EQ(!v.isLeaf(0), want.split) << "scene " << it;
        if (!want.split) {
            ++leaves;
            continue;
        }
        ++splits;
        oneSided += want.numLower == 0 || want.numUpper == 0;
        EXPECT_EQ(v.axis(0), want.axis) << "scene " << it;
        EXPECT_EQ(vt::bits(v.split(0)), vt::bits(want.pos)) << "scene " << it;
        EXPECT_EQ(static_cast<int>(trianglesBelow(v, v.children(0)).size()), want.numLower) << "scene " << it;
        EXPECT_EQ(static_cast<int>(trianglesBelow(v, v.children(0) + 8).size()), want.numUpper) << "scene " << it;
    }
    // The scenes exercise splits of both kinds and leaves.
    EXPECT_GT(splits, 20);
    EXPECT_GT(oneSided, 3);
    EXPECT_GT(leaves, 0);
}

TEST(KDTreeSAH, LeavesArePackedExactlyWhenTheirIndicesFit) {
    // Three clusters of identical triangles, far from a field of small ones,
    // end up as leaves of their own: {3, 7}, {10, 11, 12} and {5, 9, 70000}.
    const int n = 70001;
    vt::Mesh m;
    auto tri = [&](float x, float y, float z, float e) {
        const int b = m.numVertices();
        m.addVertex(x, y, z);
        m.addVertex(x + e, y, z + 0.5f * e);
        m.addVertex(x, y + e, z + e);
        m.addTriangle(b, b + 1, b + 2);
    };
    for (int i = 0; i < n; ++i) {
        if (i == 3 || i == 7)
            tri(400, -400, 0, 1);
        else if (i >= 10 && i <= 12)
            tri(-400, 400, 0, 1);
        else if (i == 5 || i == 9 || i == 70000)
            tri(400, 400, 400, 1);
        else
            tri(float(i % 265), float(i / 265), 0, 0.25f);
    }
    Tree t;
    buildInto(t, m, sah(50));
    ASSERT_EQ(t.status, vekStatusOk);
    const vt::KDTreeView v = t.view();
    ASSERT_TRUE(v.WellFormed(n));
    const VekrBoundBox box = vertexBox(m);
    auto leafAt = [&](float x, float y, float z) {
        const float p[3] = {x + 0.25f, y + 0.25f, z + 0.5f};
        std::vector<vt::KDLeaf> ls = v.leavesAt(p, box);
        EXPECT_EQ(ls.size(), 1u);
        return ls.empty() ? std::int64_t(0) : ls[0].offset;
    };
    // Two: the lower index in value (shifted by 2), the other in link.
    std::int64_t o = leafAt(400, -400, 0);
    EXPECT_EQ(static_cast<std::uint32_t>(v.value(o)), 0x80000002u | (3u << 2));
    EXPECT_EQ(static_cast<std::uint32_t>(v.link(o)), 0x80000000u | 7u);
    // Three that fit: mid in value, the two gaps in link.
    o = leafAt(-400, 400, 0);
    EXPECT_EQ(static_cast<std::uint32_t>(v.value(o)), 0x80000003u | (11u << 2));
    EXPECT_EQ(static_cast<std::uint32_t>(v.link(o)), 0x80000000u | (1u << 16) | 1u);
    // Three whose upper gap (69991) does not fit in 16 bits: a list leaf.
    o = leafAt(400, 400, 400);
    EXPECT_EQ(v.value(o), 3);
    EXPECT_EQ(v.leafTriangles(o), (std::vector<std::int32_t>{5, 9, 70000}));
}

TEST(KDTreeInspector, RejectsBlocksThatBreakTheFormat) {
    // The inspector is what the tree tests trust: check that it notices each
    // kind of fault in an otherwise valid block.
    vt::Mesh m = vt::makeSphere(8, 16, 1.0f);
    Tree t;
    buildInto(t, m, sah());
    ASSERT_EQ(t.status, vekStatusOk);
    ASSERT_TRUE(t.view().WellFormed(m.numTriangles()));
    const std::vector<std::uint8_t> good = t.bytes();
    auto word = [](std::vector<std::uint8_t>& b, std::int64_t off) { return reinterpret_cast<std::int32_t*>(&b[off]); };
    auto broken = [&](const std::function<void(std::vector<std::uint8_t>&)>& edit, int size) {
        std::vector<std::uint8_t> b = good;
        b.resize(std::max<std::size_t>(b.size(), 16));
        edit(b);
        return vt::KDTreeView(b.data(), size).WellFormed(m.numTriangles());
    };
    const int size = t.size;
    // The first list leaf of four or more triangles (in pre-order).
    std::int64_t listLeaf = -1;
    t.view().forEachLeaf(vertexBox(m), [&](const vt::KDLeaf& l) {
        if (!l.packed && l.triangles.size() >= 4 && listLeaf < 0) listLeaf = l.offset;
    });
    ASSERT_GE(listLeaf, 0);
    const std::int64_t list = listLeaf - t.view().link(listLeaf);
    EXPECT_FALSE(broken([&](std::vector<std::uint8_t>& b) { b[9] = 1; }, size));                 // root slot
    EXPECT_FALSE(broken([&](std::vector<std::uint8_t>& b) { *word(b, 0) += 16; }, size));        // pair order
    EXPECT_FALSE(broken([&](std::vector<std::uint8_t>& b) { *word(b, 0) |= 3; }, size));         // axis 3
    EXPECT_FALSE(broken([&](std::vector<std::uint8_t>& b) { (void)b; }, size + 4));              // reported size
    EXPECT_FALSE(broken([&](std::vector<std::uint8_t>& b) { *word(b, listLeaf) -= 4; }, size));  // list position
    // A list of one triangle: it fits, so it must be packed.
    EXPECT_FALSE(broken([&](std::vector<std::uint8_t>& b) { *word(b, listLeaf + 4) = 1; }, size));
    // An index out of range, and a triangle listed twice.
    EXPECT_FALSE(broken([&](std::vector<std::uint8_t>& b) { *word(b, list) = 100000; }, size));
    EXPECT_FALSE(broken([&](std::vector<std::uint8_t>& b) { *word(b, list + 4) = *word(b, list); }, size));
}
