// Scene structures. Triangle accelerator records: worked triangles word for
// word, and every bunny triangle and thousands of small integer triangles
// against an independent formulation. KD-tree build: the argument checks and
// their order, the budget, the single-leaf build; the surface-area build's
// block format and completeness on real and generated scenes, its cost
// model's decisions (worked scenes and a brute-force root search), leaf
// packing, the clip box and independence from the thread count.
#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <vector>

#include "kdtree_view.h"
#include "mesh.h"
#include "scene/sah_split.h"
#include "testutil.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN(), kInf = std::numeric_limits<float>::infinity();

// ---------------------------------------------------------------------------
// Triangle accelerator records
// ---------------------------------------------------------------------------

struct Rec {
    std::uint32_t code;
    float w[9];
};

// The record of triangle (0, 1, 2) of `v`; checks that the call wrote one record only.
Rec recordOf(const std::vector<float>& v) {
    const int tri[4] = {0, 1, 2, 77};
    VekrTriangleAccel r[2];
    vt::fillCanary(r, 2);
    EXPECT_EQ(vekrTriangleAccelInit(r, v.data(), tri, 1), vekStatusOk);
    EXPECT_TRUE(vt::CanaryIntact(r + 1, 1)) << "wrote past its one record";
    Rec out;
    std::memcpy(&out, r, sizeof out);
    return out;
}

// The record written from the rule text, independently of the library's
// loop: every candidate axis is tried in turn, the projection uses a
// permutation table built on the fly.
Rec referenceRecord(const float* A, const float* B, const float* C) {
    double d1[3], d2[3];  // exact: float differences fit in a double's mantissa
    for (int a = 0; a < 3; ++a) {
        d1[a] = static_cast<double>(static_cast<long double>(A[a]) - C[a]);
        d2[a] = static_cast<double>(static_cast<long double>(B[a]) - C[a]);
    }
    double n[3];
    for (int a = 0; a < 3; ++a) n[a] = d1[(a + 1) % 3] * d2[(a + 2) % 3] - d1[(a + 2) % 3] * d2[(a + 1) % 3];
    int k = 0;
    for (int a = 1; a < 3; ++a)
        if (std::fabs(n[a]) > std::fabs(n[k])) k = a;
    Rec r{};
    if (n[0] == 0 && n[1] == 0 && n[2] == 0) return r;
    const int u = k == 0 ? 1 : 0, v = k == 2 ? 1 : 2;
    const double inv = 1.0 / n[k], s = k == 1 ? -inv : inv;
    const bool flat = std::fabs(n[u]) < std::ldexp(1.0, -52) && std::fabs(n[v]) < std::ldexp(1.0, -52);
    r.code = (k << 4) | (u << 2) | v | (flat ? 0x80000000u : 0u);
    const double w[9] = {flat ? 0.0 : n[u] * inv, C[k], flat ? 0.0 : n[v] * inv, C[u], C[v],
                         d2[u] * s,  d2[v] * s, d1[u] * s, d1[v] * s};
    for (int i = 0; i < 9; ++i) r.w[i] = static_cast<float>(w[i]);
    return r;
}

::testing::AssertionResult SameRecord(const Rec& got, const Rec& want) {
    if (got.code != want.code)
        return ::testing::AssertionFailure() << "axisCode 0x" << std::hex << got.code << ", expected 0x" << want.code;
    return vt::SameBits(got.w, want.w, 9);
}

TEST(TriangleAccel, SizeIsFortyAndNonPositiveCountsWriteNothing) {
    int size = -1;
    EXPECT_EQ(vekrTriangleAccelGetSize(&size), vekStatusOk);
    EXPECT_EQ(size, 40);
    EXPECT_EQ(static_cast<int>(sizeof(VekrTriangleAccel)), 40);
    EXPECT_EQ(vekrTriangleAccelGetSize(nullptr), vekStatusNullPtr);
    const float v[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const int tri[4] = {0, 1, 2, 0};
    VekrTriangleAccel r;
    for (int n : {0, -1, -1000}) {
        vt::fillCanary(&r, 1);
        EXPECT_EQ(vekrTriangleAccelInit(&r, v, tri, n), vekStatusOk);
        EXPECT_TRUE(vt::CanaryIntact(&r, 1));
    }
}

// Words worked out by hand; each also checks the independent formulation
// that the next test trusts.
TEST(TriangleAccel, WorkedTrianglesGiveExactWords) {
    const float h53 = std::ldexp(1.0f, -53), h52 = std::ldexp(1.0f, -52), big = 3e38f, t = 1.0f / 3;
    const struct {
        const char* what;
        std::vector<float> v;
        Rec want;
    } cases[] = {
        {"plane z = 5: flat, s = 1", {0, 0, 5, 1, 0, 5, 0, 1, 5}, {0x80000021u, {0, 5, 0, 0, 1, 1, -1, 0, -1}}},
        {"tilted, N = (-2, 0, 8)", {0, 0, 0, 4, 0, 1, 0, 2, 0}, {0x21u, {-0.25f, 0, 0, 0, 2, 0.5f, -0.25f, 0, -0.25f}}},
        {"plane y = 0: s = -1/Ny = 1", {0, 0, 0, 1, 0, 0, 0, 0, 1}, {0x80000012u, {0, 0, 0, 0, 1, 1, -1, 0, -1}}},
        // N = (2, -6, 0): k = y, s = +1/6; normalV = 0 * (-1/6) is -0.
        {"k = y, tilted", {0, 0, 0, 3, 1, 0, 0, 0, 2}, {0x12u, {-t, 0, -0.0f, 0, 2, 0.5f, -t, 0, -t}}},
        {"|Nx| = |Ny| ties to x", {1, 0, 0, 0, 1, 0, 1, 0, 1}, {0x06u, {1, 1, 0, 0, 1, 1, -1, 0, -1}}},
        // N = (-1, -0, -1): Ny * (1/Nx) is +0 and E1z * s is -0.
        {"|Nx| = |Nz| ties to x", {1, 0, 0, 0, 0, 1, 1, 1, 0}, {0x06u, {0.0f, 1, 1, 1, 0, 1, -1, 1, -0.0f}}},
        // E1 = (1, 0, 0), E2 = (0, 1, h): N = (0, -h, 1); flat while h < 2^-52.
        {"in-plane 2^-53: flat", {1, 0, 0, 0, 1, h53, 0, 0, 0}, {0x80000021u, {0, 0, 0, 0, 0, 0, 1, 1, 0}}},
        {"in-plane 2^-52: not flat", {1, 0, 0, 0, 1, h52, 0, 0, 0}, {0x21u, {0, 0, -h52, 0, 0, 0, 1, 1, 0}}},
        {"two equal vertices", {1, 2, 3, 1, 2, 3, 4, 5, 6}, {}},
        {"collinear", {0, 0, 0, 1, 1, 1, 2, 2, 2}, {}},
        {"a point", {7, 7, 7, 7, 7, 7, 7, 7, 7}, {}},
        {"collinear on x, huge", {big, 0, 0, -big, 0, 0, 0, 0, 0}, {}},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(SameRecord(recordOf(c.v), c.want)) << c.what;
        EXPECT_TRUE(SameRecord(referenceRecord(&c.v[0], &c.v[3], &c.v[6]), c.want)) << "reference: " << c.what;
    }
}

TEST(TriangleAccel, RecordsMatchIndependentFormulation_BunnyIntegerAndSpecialTriangles) {
    vt::Mesh m;
    ASSERT_TRUE(vt::loadObj(vt::kBunnyPath, m));
    const int n = m.numTriangles();
    ASSERT_EQ(n, 69666);
    std::vector<VekrTriangleAccel> acc(n + 1);
    vt::fillCanary(acc.data(), acc.size());
    ASSERT_EQ(vekrTriangleAccelInit(acc.data(), m.vertices.data(), m.triangles.data(), n), vekStatusOk);
    EXPECT_TRUE(vt::CanaryIntact(&acc[n], 1));
    int byAxis[3] = {0, 0, 0};
    for (int t = 0; t < n; ++t) {
        const int* tri = &m.triangles[4 * t];
        const Rec want = referenceRecord(&m.vertices[3 * tri[0]], &m.vertices[3 * tri[1]], &m.vertices[3 * tri[2]]);
        ASSERT_EQ(std::memcmp(&want, &acc[t], 40), 0) << "triangle " << t;
        if (want.code) byAxis[(want.code >> 4) & 3]++;
    }
    for (int a = 0; a < 3; ++a) EXPECT_GT(byAxis[a], 1000) << "axis " << a;  // all three projections
    // Small integer coordinates make exact ties and zero components common.
    vt::Rng rng(7);
    std::vector<float> v(9);
    for (int it = 0; it < 20000; ++it) {
        for (float& c : v) c = static_cast<float>(rng.below(5) - 2) * (it % 2 ? 0.375f : 1.0f);
        ASSERT_TRUE(SameRecord(recordOf(v), referenceRecord(&v[0], &v[3], &v[6]))) << "iteration " << it;
    }
    // A triangle whose float area would underflow has area in double (1e-60);
    // Nx = 0 with NaN in Ny and Nz is not taken for a triangle without area.
    for (const std::vector<float>& s : {std::vector<float>{0, 0, 0, 1e-30f, 0, 0, 0, 1e-30f, 0},
                                        std::vector<float>{kNaN, 0, 0, 1, 0, 0, 0, 1, 0}}) {
        const Rec r = recordOf(s);
        EXPECT_NE(r.code, 0u);
        EXPECT_TRUE(SameRecord(r, referenceRecord(&s[0], &s[3], &s[6])));
    }
    EXPECT_TRUE(std::isnan(recordOf({kNaN, 0, 0, 1, 0, 0, 0, 1, 0}).w[0]));
}

// ---------------------------------------------------------------------------
// KD-tree build
// ---------------------------------------------------------------------------

// One build with canaries on both outputs: on failure neither may change.
struct Tree {
    VekStatus status = vekStatusNullPtr;
    VekrKDTreeNode* p = nullptr;
    int size = 0;
    Tree(const float* v, const int* t, int nv, int nt, const VekrKDTreeBuildParams* params, bool treePtr = true,
         bool sizePtr = true) {
        vt::fillCanary(&p, 1);
        vt::fillCanary(&size, 1);
        status = vekrKDTreeBuildAlloc(treePtr ? &p : nullptr, v, t, nv, nt, sizePtr ? &size : nullptr, params);
        if (status != vekStatusOk) {
            EXPECT_TRUE(vt::CanaryIntact(&p, 1)) << "status " << status;
            EXPECT_TRUE(vt::CanaryIntact(&size, 1)) << "status " << status;
            p = nullptr;
        }
    }
    Tree(const vt::Mesh& m, const VekrKDTreeBuildParams& params)
        : Tree(m.vertices.data(), m.triangles.data(), m.numVertices(), m.numTriangles(), &params) {}
    Tree(const Tree&) = delete;
    ~Tree() { vekrKDTreeFree(p); }
    vt::KDTreeView view() const { return vt::KDTreeView(p, size); }
    std::vector<std::uint8_t> bytes() const {
        const auto* b = reinterpret_cast<const std::uint8_t*>(p);
        return std::vector<std::uint8_t>(b, b + size);
    }
};

VekrKDTreeBuildParams sah(int depth = 40, float balance = 0.5f, std::uint32_t mb = 512, VekrBoundBox* clip = nullptr) {
    return {vekKDTreeBuildPSAH, depth, balance, mb, clip};
}

const std::vector<float> kVerts = {0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 1};
const std::vector<int> kTris = {0, 1, 2, 0, 1, 2, 3, 0, 0, 2, 3, 0};

VekStatus statusOf(const VekrKDTreeBuildParams& p, int nv = 4, int nt = 3) {
    return Tree(kVerts.data(), kTris.data(), nv, nt, &p).status;
}

TEST(KDTreeBuild, ChecksRunInOrderPointersSizesParamsAlgorithm) {
    const float* v = kVerts.data();
    const int* t = kTris.data();
    const VekrKDTreeBuildParams bad = {0x12345678u, 99, -5.0f, 0, nullptr};
    // Null output or input pointers come before a negative count and null params.
    EXPECT_EQ(Tree(nullptr, t, -1, -1, nullptr).status, vekStatusNullPtr);
    EXPECT_EQ(Tree(v, nullptr, -1, -1, nullptr).status, vekStatusNullPtr);
    EXPECT_EQ(Tree(v, t, -1, -1, nullptr, false).status, vekStatusNullPtr);
    EXPECT_EQ(Tree(v, t, -1, -1, nullptr, true, false).status, vekStatusNullPtr);
    // Negative counts before the null parameter record.
    EXPECT_EQ(Tree(v, t, -1, 3, nullptr).status, vekStatusBadSize);
    EXPECT_EQ(Tree(v, t, 4, -1, nullptr).status, vekStatusBadSize);
    EXPECT_EQ(Tree(v, t, 4, 3, nullptr).status, vekStatusNullPtr);
    // The algorithm code is examined before the ranges.
    EXPECT_EQ(Tree(v, t, 4, 3, &bad).status, vekStatusBadAlgorithm);
}

TEST(KDTreeBuild, ParameterRangesAndBudgetTestsInTheirOrder) {
    for (std::uint32_t alg : {std::uint32_t(vekKDTreeBuildSimple), std::uint32_t(vekKDTreeBuildPSAH)}) {
        for (int d : {-1, 51, std::numeric_limits<int>::min()})  // bad budget too: depth comes first
            EXPECT_EQ(statusOf({alg, d, 0.5f, 0, nullptr}), vekStatusOutOfRange) << alg << " depth " << d;
        for (int d : {0, 50}) EXPECT_EQ(statusOf({alg, d, 0.5f, 256, nullptr}), vekStatusOk) << alg << " depth " << d;
    }
    // costBalance: ordered comparisons, so NaN passes; checked before the budget.
    for (float cb : {-0.0001f, 1.0001f, -kInf}) EXPECT_EQ(statusOf(sah(10, cb, 0)), vekStatusOutOfRange) << cb;
    for (float cb : {0.0f, -0.0f, 1.0f, kNaN}) EXPECT_EQ(statusOf(sah(10, cb, 64)), vekStatusOk) << cb;
    // The single-leaf build ignores costBalance and the budget.
    EXPECT_EQ(statusOf({vekKDTreeBuildSimple, 3, kNaN, 0, nullptr}), vekStatusOk);
    // Units shifted by 19 must reach 2^24: 31 fails, 32 passes this test (and
    // fails the next one: 32 MiB is below the up-front need); 8192 and 8193
    // wrap to (almost) nothing. 8224 << 19 wraps to 32 << 19 and passes the
    // first test; the budget itself (8224 << 20 mod 2^32 = 32 MiB) fails the
    // up-front test.
    for (std::uint32_t mb : {0u, 1u, 31u, 32u, 8192u, 8193u, 8223u, 8224u})
        EXPECT_EQ(statusOf(sah(10, 0.5f, mb)), vekStatusNoMemory) << mb;
    // Up front, 84 nt + 12 nv + 33554676 bytes must fit. With 33 MiB the slack
    // is 1048332 bytes: nt = 12480 takes 1048320 of it, one vertex 12 more;
    // what is left after the working storage is then below one 16 MB node
    // block, so the build stops when it takes its first block.
    const int nt = 12480;
    const std::vector<int> tris(4 * nt + 4, 0);
    const std::vector<float> verts(27, 0.0f);
    const VekrKDTreeBuildParams p = sah(10, 0.5f, 33u);
    EXPECT_EQ(Tree(verts.data(), tris.data(), 0, nt, &p).status, vekStatusBudgetExhausted);
    EXPECT_EQ(Tree(verts.data(), tris.data(), 1, nt, &p).status, vekStatusBudgetExhausted);
    EXPECT_EQ(Tree(verts.data(), tris.data(), 2, nt, &p).status, vekStatusNoMemory);
    EXPECT_EQ(Tree(verts.data(), tris.data(), 0, nt + 1, &p).status, vekStatusNoMemory);
    // One triangle fewer leaves 96 bytes: eight vertices fit, nine do not.
    EXPECT_EQ(Tree(verts.data(), tris.data(), 8, nt - 1, &p).status, vekStatusBudgetExhausted);
    EXPECT_EQ(Tree(verts.data(), tris.data(), 9, nt - 1, &p).status, vekStatusNoMemory);
}

TEST(KDTreeBuild, SingleLeafHoldsEveryTriangleInOrder_EmptySceneForBothAlgorithms) {
    const std::vector<int> tris(4 * 9, 0);
    for (int n : {0, 1, 2, 3, 4, 5, 8, 9}) {
        for (VekrKDTreeBuildParams p : {VekrKDTreeBuildParams{vekKDTreeBuildSimple, 10, 0.5f, 64, nullptr}, sah()}) {
            if (p.algorithm == vekKDTreeBuildPSAH && n > 0) continue;
            Tree o(kVerts.data(), tris.data(), 4, n, &p);
            ASSERT_EQ(o.status, vekStatusOk);
            EXPECT_EQ(o.size, 16 + 4 * n);
            const std::int32_t* w = reinterpret_cast<const std::int32_t*>(o.p);
            // A list leaf, list at offset 16 (never packed).
            EXPECT_EQ(std::vector<std::int32_t>(w, w + 4), (std::vector<std::int32_t>{-16, n, 0, 0}));
            for (int i = 0; i < n; ++i) EXPECT_EQ(w[4 + i], i);
        }
    }
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

// The tree is well formed, and every vertex, edge midpoint and centroid of
// every triangle that lies in `box` lies in (the closed cell of) a leaf that
// lists the triangle.
::testing::AssertionResult Complete(const Tree& t, const vt::Mesh& m, const VekrBoundBox& box) {
    const vt::KDTreeView v = t.view();
    ::testing::AssertionResult wf = v.WellFormed(m.numTriangles());
    if (!wf) return wf;
    for (int i = 0; i < m.numTriangles(); ++i) {
        const float* c[3];
        for (int k = 0; k < 3; ++k) c[k] = &m.vertices[3 * m.triangles[4 * i + k]];
        std::vector<std::array<float, 3>> pts;
        std::array<float, 3> g;
        for (int k = 0; k < 3; ++k) {
            const float* d = c[(k + 1) % 3];
            pts.push_back({c[k][0], c[k][1], c[k][2]});
            pts.push_back({(c[k][0] + d[0]) * 0.5f, (c[k][1] + d[1]) * 0.5f, (c[k][2] + d[2]) * 0.5f});
            // The centroid, kept inside the vertices' range per axis (a float
            // sum of three equal values divided by 3 need not give the value back).
            const float mn = std::min(std::min(c[0][k], c[1][k]), c[2][k]);
            const float mx = std::max(std::max(c[0][k], c[1][k]), c[2][k]);
            g[k] = mn == mx ? mn : std::min(mx, std::max(mn, (c[0][k] + c[1][k] + c[2][k]) / 3));
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

// Long slivers crossing the whole scene in random directions, and small
// triangles among them.
vt::Mesh makeSlivers(int n, std::uint64_t seed) {
    vt::Rng r(seed);
    vt::Mesh m;
    for (int i = 0; i < n; ++i) {
        const float x = r.uniform(-10, 10), y = r.uniform(-10, 10), z = r.uniform(-10, 10);
        const float dx = r.uniform(-20, 20), dy = r.uniform(-20, 20), dz = r.uniform(-20, 20);
        const float e = i % 4 == 0 ? 0.5f : 0.01f;
        m.addVertex(x, y, z);
        m.addVertex(x + dx, y + dy, z + dz);
        m.addVertex(x + e, y - e, z + e);
        m.addTriangle(3 * i, 3 * i + 1, 3 * i + 2);
    }
    return m;
}

// The bunny built on one and two threads (identical blocks), well formed,
// complete and cheap; then the budget: one MiB short of the up-front need is
// refused before any allocation, the exact need leaves no room for the first
// 16 MB node block, and 16 MiB more hold the one block the bunny needs.
TEST(KDTreeSAH, Bunny_SameBlockOnOneAndTwoThreads_CompleteCheapAndWithinItsBudget) {
    vt::Mesh m;
    ASSERT_TRUE(vt::loadObj(vt::kBunnyPath, m));
    const int before = omp_get_max_threads();
    std::vector<std::uint8_t> ref;
    for (int threads : {1, 2}) {
        omp_set_num_threads(threads);
        vekSetNumThreads(threads);
        Tree t(m, sah());
        ASSERT_EQ(t.status, vekStatusOk);
        if (threads == 2) {
            EXPECT_TRUE(vt::SameBits(ref, t.bytes()));
            continue;
        }
        ref = t.bytes();
        const VekrBoundBox box = vertexBox(m);
        EXPECT_TRUE(Complete(t, m, box));
        const vt::KDTreeStats st = t.view().stats(box);
        // A single leaf costs n triangle tests per ray; a working split
        // search brings that down by orders of magnitude.
        EXPECT_LT(st.sahCost, m.numTriangles() / 500.0);
        std::printf("bunny: %lld inner, %lld leaves (%lld packed), %lld refs, depth %d, cost %.2f, %d bytes\n",
                    (long long)st.innerNodes, (long long)st.leaves, (long long)st.packedLeaves,
                    (long long)st.references, st.maxDepth, st.sahCost, t.size);
    }
    omp_set_num_threads(before);
    const std::int64_t need = 84 * std::int64_t(m.numTriangles()) + 12 * std::int64_t(m.numVertices()) + 33554676;
    const std::uint32_t least = static_cast<std::uint32_t>((need + (1 << 20) - 1) >> 20);
    EXPECT_EQ(Tree(m, sah(40, 0.5f, least - 1)).status, vekStatusNoMemory);
    EXPECT_EQ(Tree(m, sah(40, 0.5f, least)).status, vekStatusBudgetExhausted);
    Tree enough(m, sah(40, 0.5f, least + 16));
    EXPECT_EQ(enough.status, vekStatusOk);
    EXPECT_TRUE(vt::SameBits(ref, enough.bytes()));
}

TEST(KDTreeSAH, GeneratedAndDegenerateScenesAreWellFormedAndComplete) {
    std::vector<std::pair<const char*, vt::Mesh>> cases = {{"grid in one plane", vt::makeGrid(48, 10.0f)},
                                                           {"sphere", vt::makeSphere(30, 60, 2.0f, 1, -3, 0.5f)},
                                                           {"long slivers", makeSlivers(3000, 5)}};
    vt::Mesh d = vt::makeSphere(12, 24, 1.0f);  // every triangle twice
    d.triangles.insert(d.triangles.end(), d.triangles.begin(), d.triangles.end());
    cases.push_back({"duplicated triangles", d});
    d = vt::makeSphere(10, 20, 1.0f);
    const int nv = d.numVertices();
    for (int i = 0; i + 2 < nv; i += 3) {
        d.addTriangle(i, i, i + 1);  // two equal vertices
        d.addTriangle(i, i, i);      // a point
    }
    for (float c : {-1.0f, 0.0f, 1.0f}) d.addVertex(c, c, c);
    d.addTriangle(nv, nv + 1, nv + 2);  // collinear, through the middle
    cases.push_back({"degenerate triangles", d});
    for (const auto& c : cases) {
        Tree t(c.second, sah());
        ASSERT_EQ(t.status, vekStatusOk) << c.first;
        EXPECT_TRUE(Complete(t, c.second, vertexBox(c.second))) << c.first;
        EXPECT_GT(t.view().stats(vertexBox(c.second)).innerNodes, 10) << c.first;
    }
}

TEST(KDTreeSAH, NonFiniteCoordinatesDoNotBreakTheBuild) {
    // A NaN vertex: its triangles can be hit by no ray and are left out; the
    // rest of the scene is built as usual.
    vt::Mesh m = vt::makeSphere(12, 24, 1.0f);
    const vt::Mesh sphere = m;
    const int nv = m.numVertices(), first = m.numTriangles();
    m.addVertex(kNaN, 0, 0);
    m.addTriangle(0, 1, nv);
    m.addTriangle(nv, 5, 9);
    Tree t(m, sah());
    ASSERT_EQ(t.status, vekStatusOk);
    ASSERT_TRUE(t.view().WellFormed(m.numTriangles()));
    EXPECT_TRUE(Complete(t, sphere, vertexBox(sphere)));
    t.view().forEachLeaf(vertexBox(sphere), [&](const vt::KDLeaf& l) {
        for (int i : l.triangles) EXPECT_LT(i, first);
    });
    // A NaN at vertex 0 (which seeds the scene box) does not hide the scene.
    vt::Mesh z = sphere;
    z.vertices[0] = kNaN;
    Tree t0(z, sah());
    ASSERT_EQ(t0.status, vekStatusOk);
    ASSERT_TRUE(t0.view().WellFormed(z.numTriangles()));
    EXPECT_GT(t0.view().stats(vertexBox(sphere)).references, z.numTriangles() / 2);
    // An infinite coordinate makes every cost infinite or NaN: no split is
    // better than the leaf, and the result is still a valid block.
    vt::Mesh w = vt::makeSphere(6, 12, 1.0f);
    w.addVertex(kInf, 0, -kInf);
    w.addTriangle(0, 1, w.numVertices() - 1);
    Tree u(w, sah());
    ASSERT_EQ(u.status, vekStatusOk);
    EXPECT_TRUE(u.view().WellFormed(w.numTriangles()));
}

TEST(KDTreeSAH, DepthLimitAndFlatBoxesMakeLeaves) {
    const vt::Mesh sphere = vt::makeSphere(16, 32, 1.0f);
    for (int depth : {0, 1, 3, 7}) {
        Tree t(sphere, sah(depth));
        ASSERT_EQ(t.status, vekStatusOk);
        ASSERT_TRUE(t.view().WellFormed(sphere.numTriangles()));
        EXPECT_EQ(t.view().stats(vertexBox(sphere)).maxDepth, depth);
        if (depth == 0) {
            EXPECT_EQ(t.size, 16 + 4 * sphere.numTriangles());
        }
    }
    // All vertices at one point: the box is flat in every axis.
    vt::Mesh point;
    for (int i = 0; i < 12; ++i) point.addVertex(2, 2, 2);
    for (int i = 0; i < 100; ++i) point.addTriangle(i % 12, (i + 1) % 12, (i + 5) % 12);
    Tree t(point, sah());
    ASSERT_EQ(t.status, vekStatusOk);
    EXPECT_TRUE(t.view().isLeaf(0));
    EXPECT_EQ(t.view().value(0), 100);
}

// Worked root decisions with costBalance 1 (the split needs leafCost - cost >
// leafCost * 0.50576, K = eu ev / (eu + ev)).
//  - One triangle filling [0, a]^3 of the box [0, 1]^3 (the box reaches to an
//    unused vertex at (1, 1, 1)). Each axis offers the empty-space cut at a
//    with cost 2 * 0.7 * (a + 0.5); leafCost = 3. The split is made while
//    a < 0.559: for a = 0.55 (a factor of 0.71 would refuse it, one of 1
//    already for a > 0.241), not for a = 0.6. Equal axis costs pick z; the
//    upper child is the empty leaf.
//  - Two small triangles in opposite corners, symmetric under swapping the
//    two axes that are not flat: those axes cost the same, the flat axis is
//    passed over, the later of the two wins, at the first minimum of the
//    sweep (the end of the lower triangle).
TEST(KDTreeSAH, WorkedScenes_EmptySpaceCutFactorAndAxisTies) {
    for (float a : {0.55f, 0.6f}) {
        vt::Mesh m;
        m.addVertex(0, 0, 0);
        m.addVertex(a, a, 0);
        m.addVertex(0, a, a);
        m.addVertex(1, 1, 1);
        m.addTriangle(0, 1, 2);
        Tree t(m, sah(40, 1.0f));
        ASSERT_EQ(t.status, vekStatusOk);
        const vt::KDTreeView v = t.view();
        ASSERT_TRUE(v.WellFormed(1));
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
        EXPECT_TRUE(v.isLeaf(24));
        EXPECT_EQ(v.value(24), 0);
    }
    for (const auto& c : {std::array<int, 2>{2, 1}, std::array<int, 2>{0, 2}, std::array<int, 2>{1, 2}}) {
        const int flat = c[0], u = flat == 0 ? 1 : 0, w = flat == 2 ? 1 : 2;
        vt::Mesh m;
        for (const auto& q : {std::array<float, 2>{0, 0}, {0.1f, 0}, {0, 0.1f}, {1, 1}, {0.9f, 1}, {1, 0.9f}}) {
            float p[3] = {0, 0, 0};
            p[u] = q[0];
            p[w] = q[1];
            m.addVertex(p[0], p[1], p[2]);
        }
        m.addTriangle(0, 1, 2);
        m.addTriangle(3, 4, 5);
        Tree t(m, sah(40, 1.0f));
        ASSERT_EQ(t.status, vekStatusOk);
        const vt::KDTreeView v = t.view();
        ASSERT_TRUE(v.WellFormed(2));
        ASSERT_FALSE(v.isLeaf(0)) << "flat axis " << flat;
        EXPECT_EQ(v.axis(0), c[1]) << "flat axis " << flat;
        EXPECT_EQ(vt::bits(v.split(0)), vt::bits(0.1f));
    }
}

TEST(KDTreeSAH, ClipBoxKeepsOnlyTheTrianglesInside) {
    const vt::Mesh m = vt::makeSphere(30, 60, 1.0f);
    VekrBoundBox clip = {{-1.5f, -1.5f, -0.3f}, {0.25f, 1.5f, 0.4f}};
    Tree t(m, sah(40, 0.5f, 512, &clip));
    ASSERT_EQ(t.status, vekStatusOk);
    EXPECT_TRUE(Complete(t, m, clip));
    // Triangles whose vertex box misses the clip box appear in no leaf; those
    // with a vertex strictly inside it appear in some leaf; leaf cells stay
    // inside the clip box.
    std::vector<char> listed(m.numTriangles(), 0);
    t.view().forEachLeaf(clip, [&](const vt::KDLeaf& l) {
        for (int i : l.triangles) listed[i] = 1;
        for (int a = 0; a < 3; ++a) {
            EXPECT_GE(l.lo[a], clip.minCorner[a]);
            EXPECT_LE(l.hi[a], clip.maxCorner[a]);
        }
    });
    int outside = 0, in = 0;
    for (int i = 0; i < m.numTriangles(); ++i) {
        bool miss = false, anyIn = false;
        for (int k = 0; k < 3; ++k) {
            const float* p = &m.vertices[3 * m.triangles[4 * i + k]];
            bool strict = true;
            for (int a = 0; a < 3; ++a) strict &= p[a] > clip.minCorner[a] && p[a] < clip.maxCorner[a];
            anyIn |= strict;
        }
        for (int a = 0; a < 3; ++a) {
            float lo = 1e30f, hi = -1e30f;
            for (int k = 0; k < 3; ++k) {
                const float c = m.vertices[3 * m.triangles[4 * i + k] + a];
                lo = std::min(lo, c);
                hi = std::max(hi, c);
            }
            miss |= hi < clip.minCorner[a] || lo > clip.maxCorner[a];
        }
        EXPECT_FALSE(miss && listed[i]) << i;
        EXPECT_FALSE(anyIn && !listed[i]) << i;
        outside += miss;
        in += anyIn;
    }
    EXPECT_GT(outside, 100);
    EXPECT_GT(in, 100);
}

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
    const float *lo = box.minCorner, *hi = box.maxCorner;
    const int n = m.numTriangles();
    std::vector<std::array<float, 6>> ext(n);
    for (int t = 0; t < n; ++t)
        for (int a = 0; a < 3; ++a) {
            float mn = 1e30f, mx = -1e30f;
            for (int k = 0; k < 3; ++k) {
                const float c = m.vertices[3 * m.triangles[4 * t + k] + a];
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
        if (mcount == 0) first = lo[a], last = hi[a];
        for (int t = 0; t < n; ++t)
            if (ext[t][a] == ext[t][3 + a]) {
                first = std::min(first, ext[t][a]);
                last = std::max(last, ext[t][a]);
            }
        bool empty = false;
        double ec = 0;
        if (first - lo[a] > 0.1f * w) {
            empty = true;
            ec = n * (double(hi[a] - first) + K);
            best[a] = {true, a, first, 0, n};
        }
        if (hi[a] - last > 0.1f * w) {
            const double c2 = n * (double(last - lo[a]) + K);
            if (!empty || c2 < ec) {
                ec = c2;
                best[a] = {true, a, last, n, 0};
            }
            empty = true;
        }
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
                below += s < x;
                above += s == e ? s > x : e > x;
                on += s == e && s == x;
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
    const int b = cost[1] > cost[0] ? (cost[0] < cost[2] ? 0 : 2) : (cost[1] < cost[2] ? 1 : 2);
    if (!(n * (leafCost - cost[b]) > threshold)) return RootDecision{};
    return best[b];
}

// Triangles on a coarse integer lattice (many equal coordinates, many
// triangles flat in some axis), some of them clustered to open empty space.
vt::Mesh latticeScene(int n, std::uint64_t seed) {
    vt::Rng r(seed);
    vt::Mesh m;
    const int span = 4 + r.below(12);
    for (int i = 0; i < n; ++i) {
        if (seed % 10 == 9) {
            // Big triangles across the whole box: nothing worth splitting.
            for (int k = 0; k < 3; ++k)
                m.addVertex(float(span * ((i + k) % 2)), float(span * ((i + k + 1) % 2)), float(span * (k % 2)));
        } else {
            const int x = r.below(span), y = r.below(span), z = r.below(span);
            for (int k = 0; k < 3; ++k) {
                int dx = r.below(3), dy = r.below(3), dz = r.below(3);
                if (i % 5 == 0) dz = 0;  // flat in z
                if (i % 7 == 0) dx = 0;  // flat in x
                m.addVertex(float(x + dx) * 0.5f, float(y + dy) * 0.25f, float(z + dz));
            }
        }
        m.addTriangle(3 * i, 3 * i + 1, 3 * i + 2);
    }
    if (seed % 3 == 0 && seed % 10 != 9) m.addVertex(float(span) * 3, float(span), float(span) * 2);  // empty space
    return m;
}

// The number of distinct triangles listed anywhere below the node at `off`.
void collect(const vt::KDTreeView& v, std::int64_t off, std::vector<int>& out) {
    if (!v.isLeaf(off)) return collect(v, v.children(off), out), collect(v, v.children(off) + 8, out);
    for (int t : v.leafTriangles(off)) out.push_back(t);
}
int trianglesBelow(const vt::KDTreeView& v, std::int64_t off) {
    std::vector<int> out;
    collect(v, off, out);
    std::sort(out.begin(), out.end());
    return static_cast<int>(std::unique(out.begin(), out.end()) - out.begin());
}

TEST(KDTreeSAH, RootSplitMatchesBruteForceCostModel) {
    // Small nodes take the sweep on the calling thread, large ones the
    // parallel search: both must make the brute-force decision.
    int splits = 0, leaves = 0, oneSided = 0;
    for (int it = 0; it < 60; ++it) {
        const int n = it % 3 == 0 ? 20 + it : (it % 3 == 1 ? 76 + 3 * it : 300 + 10 * it);
        const float balance = (it % 4) / 3.0f;
        const vt::Mesh m = latticeScene(n, 100 + it);
        const RootDecision want = referenceRoot(m, balance);
        Tree t(m, sah(30, balance));
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
        EXPECT_EQ(trianglesBelow(v, v.children(0)), want.numLower) << "scene " << it;
        EXPECT_EQ(trianglesBelow(v, v.children(0) + 8), want.numUpper) << "scene " << it;
    }
    // The scenes exercise splits of both kinds and leaves.
    EXPECT_GT(splits, 20);
    EXPECT_GT(oneSided, 3);
    EXPECT_GT(leaves, 0);
}

// The build sweeps axes without flat triangles four events at a time; the
// plain sweep over distinct positions is the rule. Event lists with many
// shared coordinates (few levels), inexact ones (steps of 0.1) and node
// bounds that make prices infinite or NaN must give the same cost bits,
// position and child counts.
TEST(KDTreeSAH, VectorSweepGivesThePlainSweepsCostPositionAndCounts) {
    vt::Rng rng(97);
    int ties = 0;
    for (int m : {2, 3, 4, 5, 6, 7, 8, 9, 15, 16, 17, 33, 100, 1000})
        for (int rep = 0; rep < 40; ++rep) {
            const int levels = 2 + rng.below(rep % 2 ? 5 : 300);
            std::vector<std::uint64_t> items;
            for (int t = 0; t < m; ++t) {
                int a = rng.below(levels), b = rng.below(levels);
                if (a == b) b = a + 1;
                if (a > b) std::swap(a, b);
                items.push_back(vekr::ownEventItem(-3.0f + 0.1f * static_cast<float>(a), true, t));
                items.push_back(vekr::ownEventItem(-3.0f + 0.1f * static_cast<float>(b), false, t));
            }
            std::sort(items.begin(), items.end());
            for (std::size_t k = 1; k < items.size(); ++k) ties += (items[k] >> 32) == (items[k - 1] >> 32);
            const float la = rep % 7 == 3 ? -INFINITY : -3.5f, ha = rep % 11 == 5 ? INFINITY : 0.1f * levels;
            const double K = rep % 3 == 0 ? 0.0 : rep % 3 == 1 ? 0.37 : 5.0;
            const vekr::OwnSweep plain = vekr::ownSweepWithoutPlanar(items.data(), m, la, ha, K, false);
            const vekr::OwnSweep vec = vekr::ownSweepWithoutPlanar(items.data(), m, la, ha, K, true);
            std::uint64_t a, b;
            std::memcpy(&a, &plain.sum, 8);
            std::memcpy(&b, &vec.sum, 8);
            EXPECT_EQ(a, b) << "m " << m << ", case " << rep;
            EXPECT_EQ(vt::bits(plain.pos), vt::bits(vec.pos)) << "m " << m << ", case " << rep;
            EXPECT_EQ(plain.numLower, vec.numLower) << "m " << m << ", case " << rep;
            EXPECT_EQ(plain.numUpper, vec.numUpper) << "m " << m << ", case " << rep;
        }
    EXPECT_GT(ties, 10000);
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
    Tree t(m, sah(50));
    ASSERT_EQ(t.status, vekStatusOk);
    const vt::KDTreeView v = t.view();
    ASSERT_TRUE(v.WellFormed(n));
    auto leafAt = [&](float x, float y, float z) {
        const float p[3] = {x + 0.25f, y + 0.25f, z + 0.5f};
        const std::vector<vt::KDLeaf> ls = v.leavesAt(p, vertexBox(m));
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
    const vt::Mesh m = vt::makeSphere(8, 16, 1.0f);
    Tree t(m, sah());
    ASSERT_EQ(t.status, vekStatusOk);
    ASSERT_TRUE(t.view().WellFormed(m.numTriangles()));
    // The first list leaf of four or more triangles (in pre-order), and its list.
    std::int64_t leaf = -1;
    t.view().forEachLeaf(vertexBox(m), [&](const vt::KDLeaf& l) {
        if (!l.packed && l.triangles.size() >= 4 && leaf < 0) leaf = l.offset;
    });
    ASSERT_GE(leaf, 0);
    const std::int64_t list = leaf - t.view().link(leaf);
    const std::int32_t first = t.view().leafTriangles(leaf)[0];
    const std::pair<std::int64_t, std::function<std::int32_t(std::int32_t)>> edits[] = {
        {8, [](std::int32_t) { return 1; }},                  // root slot
        {0, [](std::int32_t w) { return w + 16; }},           // pair order
        {0, [](std::int32_t w) { return w | 3; }},            // axis 3
        {leaf, [](std::int32_t w) { return w - 4; }},         // list position
        {leaf + 4, [](std::int32_t) { return 1; }},           // a list of one triangle fits: must be packed
        {list, [](std::int32_t) { return 100000; }},          // an index out of range
        {list + 4, [&](std::int32_t) { return first; }},      // a triangle listed twice
    };
    for (const auto& e : edits) {
        std::vector<std::uint8_t> b = t.bytes();
        std::int32_t w;
        std::memcpy(&w, &b[e.first], 4);
        w = e.second(w);
        std::memcpy(&b[e.first], &w, 4);
        EXPECT_FALSE(vt::KDTreeView(b.data(), t.size).WellFormed(m.numTriangles())) << "edit at " << e.first;
    }
    EXPECT_FALSE(vt::KDTreeView(t.p, t.size + 4).WellFormed(m.numTriangles()));  // reported size
}

}  // namespace
