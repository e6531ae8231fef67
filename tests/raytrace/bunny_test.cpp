// The queries on the bunny (69,666 triangles, the library's surface-area tree)
// against brute-force searches over all triangles, and the packet path
// against the per-ray path on the same rays. (The leaf encodings and walk
// rules are proved on hand-written trees in rules_test.cpp.)
#include <cmath>

#include "rt_support.h"

namespace {

using rt::Q;

struct V3 {
    float x, y, z;
    const float* p() const { return &x; }
};
V3 operator-(V3 a, V3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
V3 operator+(V3 a, V3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
V3 operator*(float s, V3 a) { return {s * a.x, s * a.y, s * a.z}; }
V3 cross(V3 a, V3 b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
V3 unit(V3 a) { return (1.0f / std::sqrt(a.x * a.x + a.y * a.y + a.z * a.z)) * a; }

// The bunny with the library's surface-area tree, built once (the block is
// position-independent, so it is copied out). No records on failure.
const rt::Scene& bunny() {
    static rt::Scene* sc = nullptr;
    if (sc) return *sc;
    sc = new rt::Scene;
    vt::Mesh m;
    if (!vt::loadObj(vt::kBunnyPath, m)) return *sc;
    sc->setMesh(m);
    VekrKDTreeNode* block = nullptr;
    int size = 0;
    const VekrKDTreeBuildParams params = {vekKDTreeBuildPSAH, 40, 0.5f, 256, nullptr};
    if (vekrKDTreeBuildAlloc(&block, m.vertices.data(), m.triangles.data(), m.numVertices(), m.numTriangles(), &size,
                             &params) != vekStatusOk)
        sc->accel.clear();
    else
        sc->tree.assign(reinterpret_cast<const int32_t*>(block), reinterpret_cast<const int32_t*>(block) + size / 4);
    vekrKDTreeFree(block);
    return *sc;
}

class Bunny : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_GT(scene().accel.size(), 60000u) << "bunny model not found or tree build failed"; }
    const rt::Scene& scene() const { return bunny(); }
};

// Pinhole camera rays through pixel centres, looking from `eye` at the middle
// of the model; directions are not normalised.
rt::Rays camera(V3 eye, int w, int h) {
    const V3 fwd = unit(V3{0, 0, 0} - eye), right = unit(cross(fwd, V3{0, 1, 0})), up = cross(right, fwd);
    rt::Rays r(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const float sx = 0.8f * ((x + 0.5f) / w - 0.5f), sy = 0.8f * ((y + 0.5f) / h - 0.5f);
            r.set(y * w + x, eye.p(), (fwd + sx * right + sy * up).p());
        }
    return r;
}

// A random direction, with some components replaced by values at or near the
// parallel threshold, zeros of either sign and tiny denormals.
V3 randomDir(vt::Rng& rng) {
    float c[3] = {rng.uniform(-1, 1), rng.uniform(-1, 1), rng.uniform(-1, 1)};
    static const float kSpecial[] = {0.0f, -0.0f, 1e-8f, -1e-8f, 1.1920929e-7f, -1.1920929e-7f, 1.2e-7f, 1e-40f};
    if (rng.below(3) == 0) c[rng.below(3)] = kSpecial[rng.below(8)];
    if (rng.below(8) == 0) c[rng.below(3)] = kSpecial[rng.below(8)];
    return {c[0], c[1], c[2]};
}

V3 randomPoint(vt::Rng& rng, float r) { return {rng.uniform(-r, r), rng.uniform(-r, r), rng.uniform(-r, r)}; }

rt::Out runAll(Q q, const rt::Scene& s, const rt::Rays& r, float limit, std::size_t off = 0) {
    return rt::run(q, s, r, [&](int) { return limit; }, [](int) { return 0; }, 1, off);
}

// The tree is a valid block with packed and list leaves, so that the tests
// below walk every leaf kind.
TEST_F(Bunny, TreeIsWellFormedWithBothLeafKinds) {
    const rt::Scene& s = scene();
    const vt::KDTreeView view(s.tree.data(), std::int64_t(s.tree.size()) * 4);
    EXPECT_TRUE(view.WellFormed(std::int64_t(s.accel.size())));
    const vt::KDTreeStats st = view.stats(s.box);
    EXPECT_GT(st.packedLeaves, 1000);
    EXPECT_GT(st.listLeaves, 100);
}

// Camera rays from three viewpoints, and rays from inside and outside the box
// in every direction (components at and near the parallel threshold) with
// infinite and finite limits. A triangle other than the brute-force one is
// accepted only as a tie: hit at exactly the same t (rays through shared
// edges and vertices), tested first by the tree.
TEST_F(Bunny, EyeRaysMatchBruteForce) {
    const rt::Scene& s = scene();
    vt::Rng rng(7);
    int ties = 0, hits = 0;
    for (int set = 0; set < 7; ++set) {
        const V3 eyes[3] = {{0, 0.2f, 3.0f}, {2.5f, 1.0f, -1.0f}, {-0.3f, -2.8f, 0.4f}};
        const float limit = set % 2 && set >= 3 ? 2.5f : FLT_MAX;
        rt::Rays r(16, 16);
        if (set < 3) {
            r = camera(eyes[set], 16, 16);
        } else {
            r = rt::Rays(8, 8);
            const V3 o = set < 5 ? randomPoint(rng, 0.6f) : 3.0f * unit(randomPoint(rng, 1.0f));
            for (int i = 0; i < r.n(); ++i) {
                V3 d = randomDir(rng);
                if (set >= 5 && rng.below(2)) d = (V3{0, 0, 0} - o) + randomDir(rng);  // aim at the model
                r.set(i, o.p(), d.p());
            }
        }
        const rt::Out got = runAll(Q::Eye, s, r, limit);
        for (int i = 0; i < r.n(); ++i) {
            const float o[3] = {r.o[0][i], r.o[1][i], r.o[2][i]}, d[3] = {r.d[0][i], r.d[1][i], r.d[2][i]};
            const rt::Hit ref = rt::bruteNearest(s.accel, o, d, limit);
            if (ref.tri < 0) {
                EXPECT_EQ(got.tri[i], -1) << "set " << set << " ray " << i;
                EXPECT_EQ(got.dist[i], limit) << "set " << set << " ray " << i;
                EXPECT_EQ(got.w0[i], rt::kCanary) << "set " << set << " ray " << i;
                continue;
            }
            ASSERT_GE(got.tri[i], 0) << "set " << set << " ray " << i << " missed triangle " << ref.tri;
            const rt::TriResult mine = rt::testTriangle(s.accel[got.tri[i]], o, d);
            EXPECT_TRUE(mine.inside && mine.t == ref.t && got.dist[i] == ref.t) << "set " << set << " ray " << i;
            EXPECT_EQ(got.w0[i], mine.w0) << "set " << set << " ray " << i;
            EXPECT_EQ(got.w1[i], mine.w1) << "set " << set << " ray " << i;
            ties += got.tri[i] != ref.tri;
            hits += set < 3;
        }
    }
    EXPECT_GT(hits, 3 * 16 * 16 / 4);  // the cameras frame the model
    EXPECT_LT(ties, 20);
}

// The per-origin query may keep a hit up to 0.00001 farther than the nearest
// one (a nearer hit must improve by more than that), ignores |det| below
// 1.1920929e-6, needs hits 0.00001 inside the limit, and rejects a ray
// parallel to an axis unless its origin lies strictly inside the box's slab.
TEST_F(Bunny, PerOriginRaysFindTheNearestHitWithinTheirTolerance) {
    const rt::Scene& s = scene();
    vt::Rng rng(11);
    rt::Rays r(12, 12);
    for (int i = 0; i < r.n(); ++i) {
        const V3 o = rng.below(2) ? randomPoint(rng, 0.7f) : 2.5f * unit(randomPoint(rng, 1.0f));
        r.set(i, o.p(), (rng.below(2) ? randomDir(rng) : (randomPoint(rng, 0.5f) - o)).p());
    }
    const float limit = 4.0f;
    const rt::Out got = runAll(Q::PerOrigin, s, r, limit);
    int found = 0;
    for (int i = 0; i < r.n(); ++i) {
        const float o[3] = {r.o[0][i], r.o[1][i], r.o[2][i]}, d[3] = {r.d[0][i], r.d[1][i], r.d[2][i]};
        const rt::Hit ref = rt::bruteNearest(s.accel, o, d, limit - 0.00001f, 1.1920929e-6f);
        bool boxOk = true;
        for (int a = 0; a < 3; ++a)
            boxOk &= !(std::fabs(d[a]) <= 1.1920929e-7f) || (s.box.minCorner[a] < o[a] && o[a] < s.box.maxCorner[a]);
        if (ref.tri < 0 || !boxOk) {
            EXPECT_EQ(got.tri[i], -1) << "ray " << i;
            continue;
        }
        ASSERT_GE(got.tri[i], 0) << "ray " << i << " missed triangle " << ref.tri;
        ++found;
        const rt::TriResult mine = rt::testTriangle(s.accel[got.tri[i]], o, d);
        EXPECT_TRUE(mine.inside && mine.t == got.dist[i] && std::fabs(mine.det) >= 1.1920929e-6f) << "ray " << i;
        EXPECT_LE(got.dist[i], ref.t + 0.00001f) << "ray " << i;
        EXPECT_EQ(got.w0[i], mine.w0) << "ray " << i;
    }
    EXPECT_GT(found, r.n() / 4);
}

TEST_F(Bunny, AnyHitAgreesWithBruteForceOcclusion) {
    const rt::Scene& s = scene();
    vt::Rng rng(5);
    for (int pass = 0; pass < 3; ++pass) {
        const V3 light = pass == 0 ? V3{0.1f, 0.2f, 0.05f} : 2.0f * unit(randomPoint(rng, 1.0f));
        rt::Rays r(8, 6);
        std::vector<int32_t> maskIn(r.n());
        for (int i = 0; i < r.n(); ++i) {
            r.set(i, light.p(), (rng.below(4) ? randomPoint(rng, 0.8f) - light : randomDir(rng)).p());
            maskIn[i] = rng.below(5) == 0 ? -1 - rng.below(3) : rng.below(4);
        }
        const rt::Out got = rt::run(Q::Any, s, r, [](int) { return 0.0f; }, [&](int i) { return maskIn[i]; });
        int occluded = 0;
        for (int i = 0; i < r.n(); ++i) {
            const float* o = light.p();
            const float d[3] = {r.d[0][i], r.d[1][i], r.d[2][i]};
            EXPECT_EQ(got.mask[i], got.tri[i] >= 0 ? -1 : maskIn[i]) << "ray " << i;
            if (maskIn[i] < 0) {
                EXPECT_EQ(got.tri[i], -1);
                continue;
            }
            // A component of magnitude at most 2^-23 keeps its sign but gets a
            // positive substitute inverse, so a negative one sends the walk
            // to the wrong side of planes near the origin: such rays may miss
            // occluders, and only what they report is checked.
            bool exact = true;
            for (float c : d) exact = exact && !(c < 0.0f && c >= -1.1920929e-7f);
            EXPECT_TRUE(!exact || (got.tri[i] >= 0) == (rt::bruteNearest(s.accel, o, d, 1.0f).tri >= 0)) << "ray " << i;
            if (got.tri[i] >= 0) {
                ++occluded;
                const rt::TriResult t = rt::testTriangle(s.accel[got.tri[i]], o, d);
                EXPECT_TRUE(t.inside && t.t > 0.0f && t.t < 1.0f) << "ray " << i;
            }
        }
        EXPECT_GT(occluded, 3);
    }
}

// Blocks of 16 x 8 rays whose packets of four share a direction octant but
// otherwise point anywhere (the lanes part ways early in the tree), mixed with
// coherent camera rays and a few packets of mixed signs and odd values, run
// aligned (packet path) and at offsets 4 and 8 (per-ray path), with finite and
// infinite limits and masks that skip rays.
TEST_F(Bunny, VectorPath_EveryQueryEqualsThePerRayPath) {
    const rt::Scene& s = scene();
    const rt::Rays cam = camera(V3{0.3f, 0.4f, 2.5f}, 16, 8);
    static const float kOdd[] = {NAN, INFINITY, -INFINITY, 0.0f, -0.0f, 1e-40f, -1e-8f, 1.1920929e-7f};
    for (Q q : {Q::Eye, Q::PerOrigin, Q::Multiple, Q::Any}) {
        vt::Rng rng(3 + int(q));
        rt::Rays r(16, 8);
        for (int p = 0; p < r.n() / 4; ++p) {
            const float sx = rng.below(2) ? 1.0f : -1.0f, sy = rng.below(2) ? 1.0f : -1.0f,
                        sz = rng.below(2) ? 1.0f : -1.0f;
            for (int l = 0; l < 4; ++l) {
                const int i = 4 * p + l;
                const V3 o = q == Q::PerOrigin ? randomPoint(rng, 0.9f) : V3{0.05f, 0.1f, 0.0f};
                V3 d = {sx * rng.uniform(0, 1), sy * rng.uniform(0, 1), sz * rng.uniform(0, 1)};
                if (p % 4 == 0) d = {cam.d[0][i], cam.d[1][i], cam.d[2][i]};
                if (p % 4 == 3) {
                    d = randomDir(rng);
                    if (rng.below(3) == 0) (&d.x)[rng.below(3)] = kOdd[rng.below(8)];
                }
                r.set(i, o.p(), (q == Q::Any ? 2.0f * d : d).p());
            }
        }
        const int depth = q == Q::Multiple ? 5 : 1;
        int deep = 0;
        EXPECT_TRUE(vt::SameAcrossOffsets([&](std::size_t off) {
            // Limits 1 (0.5 for the multiple-hit query) on some rays, FLT_MAX on the others.
            auto limit = [&](int i) { return i % (depth == 5 ? 5 : 7) == 0 ? (depth == 5 ? 0.5f : 1.0f) : FLT_MAX; };
            const rt::Out out = rt::run(q, s, r, limit, [](int i) { return i % 6 == 0 ? -5 : i % 3; }, depth, off);
            deep = 0;
            for (int i = 0; q == Q::Multiple && i < r.n(); ++i) deep += out.tri[2 * r.n() + i] >= 0;
            return out.bytes();
        })) << "query " << int(q);
        EXPECT_TRUE(q != Q::Multiple || deep > 0);  // some rays pass through the model several times
    }
}

// Blocks walked as 4 x 4 tiles: each tile's rays share a direction octant but
// otherwise point anywhere (the 16 lanes part ways early and are deferred and
// resumed in different groups); in every third tile one ray leaves the
// octant, and in the tiles after those every ray takes a random octant, so
// that the tile is walked once per octant with the other lanes left alone
// (the multiple-hit query walks rows of four the same way; with per-ray
// origins, an octant of at most four rays is walked ray by ray after the
// tile's results are stored). Aligned (tile path) against offsets 4 and 8
// (per-ray path).
TEST_F(Bunny, TilePath_DivergentTilesEqualThePerRayPath) {
    const rt::Scene& s = scene();
    for (Q q : {Q::Eye, Q::PerOrigin, Q::Multiple, Q::Any}) {
        vt::Rng rng(41 + int(q));
        rt::Rays r(16, 16);
        for (int tile = 0; tile < 16; ++tile) {
            const float sx = rng.below(2) ? 1.0f : -1.0f, sy = rng.below(2) ? 1.0f : -1.0f,
                        sz = rng.below(2) ? 1.0f : -1.0f;
            const int odd = tile % 3 == 0 ? rng.below(16) : -1;
            const bool scattered = tile % 3 == 1;
            for (int k = 0; k < 16; ++k) {
                const int i = (4 * (tile / 4) + k / 4) * 16 + 4 * (tile % 4) + k % 4;
                const V3 o = q == Q::PerOrigin ? randomPoint(rng, 0.9f) : V3{0.05f, 0.1f, 0.0f};
                V3 d = {sx * rng.uniform(0, 1), sy * rng.uniform(0, 1), sz * rng.uniform(0, 1)};
                if (k == odd) d.y = -d.y;
                if (scattered) d = randomDir(rng);
                r.set(i, o.p(), (q == Q::Any ? 2.0f * d : d).p());
            }
        }
        int hits = 0;
        EXPECT_TRUE(vt::SameAcrossOffsets([&](std::size_t off) {
            auto limit = [](int i) { return i % 7 == 0 ? 1.0f : FLT_MAX; };
            const int depth = q == Q::Multiple ? 4 : 1;
            const rt::Out out = rt::run(q, s, r, limit, [](int i) { return i % 6 == 0 ? -5 : i % 3; }, depth, off);
            hits = 0;
            for (int i = 0; i < r.n(); ++i) hits += out.tri[i] >= 0;
            return out.bytes();
        })) << "query " << int(q);
        EXPECT_GT(hits, 20) << "query " << int(q);  // the rays do meet the model
    }
}

}  // namespace
