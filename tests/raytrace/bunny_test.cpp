// The queries on the bunny (69,666 triangles) against brute-force searches over
// all triangles, and the packet path against the per-ray path on the same rays.
#include <cfloat>
#include <cmath>
#include <functional>

#include "kdtree_view.h"
#include "query_runner.h"

namespace {

struct V3 {
    float x, y, z;
};
V3 operator-(V3 a, V3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
V3 operator+(V3 a, V3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
V3 operator*(float s, V3 a) { return {s * a.x, s * a.y, s * a.z}; }
V3 cross(V3 a, V3 b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
V3 unit(V3 a) {
    const float l = std::sqrt(a.x * a.x + a.y * a.y + a.z * a.z);
    return {a.x / l, a.y / l, a.z / l};
}

// The bunny with one of two trees, each built once: a midpoint-split tree of
// small leaves (many packed) made here, or the library's surface-area tree
// (copied out of its block, which is position-independent).
enum TreeKind { kMidpoint = 0, kLibrarySah = 1 };

const rt::Scene& bunny(int kind) {
    static rt::Scene* scenes[2] = {nullptr, nullptr};
    if (!scenes[kind]) {
        auto* sc = new rt::Scene;
        vt::Mesh m;
        if (vt::loadObj(vt::kBunnyPath, m)) {
            sc->setMesh(m);
            if (kind == kMidpoint) {
                sc->setTree(*rt::buildMidpointTree(m, 3, 40));
            } else {
                VekrKDTreeNode* block = nullptr;
                int size = 0;
                const VekrKDTreeBuildParams params = {vekKDTreeBuildPSAH, 40, 0.5f, 256, nullptr};
                if (vekrKDTreeBuildAlloc(&block, m.vertices.data(), m.triangles.data(), m.numVertices(),
                                         m.numTriangles(), &size, &params) == vekStatusOk) {
                    sc->tree.assign(reinterpret_cast<const int32_t*>(block),
                                    reinterpret_cast<const int32_t*>(block) + size / 4);
                    sc->ctx.pRootNode = reinterpret_cast<const VekrKDTreeNode*>(sc->tree.data());
                    vekrKDTreeFree(block);
                } else {
                    sc->accel.clear();  // makes the tests report the failed build
                }
            }
        }
        scenes[kind] = sc;
    }
    return *scenes[kind];
}

class BunnyTree : public ::testing::TestWithParam<int> {
protected:
    const rt::Scene& scene() const { return bunny(GetParam()); }
};

// A block of ray directions.
struct Rays {
    int w = 0, h = 0;
    std::vector<float> d[3];
    std::vector<float> o[3];  // per-ray origins (per-origin query)
    int n() const { return w * h; }
    void resize(int width, int height) {
        w = width;
        h = height;
        for (int a = 0; a < 3; ++a) {
            d[a].assign(n(), 0.0f);
            o[a].assign(n(), 0.0f);
        }
    }
    void set(int i, V3 dir, V3 org = {0, 0, 0}) {
        d[0][i] = dir.x, d[1][i] = dir.y, d[2][i] = dir.z;
        o[0][i] = org.x, o[1][i] = org.y, o[2][i] = org.z;
    }
};

// Pinhole camera rays through pixel centres, looking from `eye` at the middle
// of the model; directions are not normalised.
Rays camera(V3 eye, int w, int h) {
    const V3 fwd = unit(V3{0, 0, 0} - eye);
    const V3 right = unit(cross(fwd, V3{0, 1, 0}));
    const V3 up = cross(right, fwd);
    Rays r;
    r.resize(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const float sx = 0.8f * ((x + 0.5f) / w - 0.5f), sy = 0.8f * ((y + 0.5f) / h - 0.5f);
            r.set(y * w + x, fwd + sx * right + sy * up, eye);
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

struct NearestRun {
    std::vector<float> dist, w0, w1;
    std::vector<int32_t> tri;
};

NearestRun runEyeBlock(const rt::Scene& s, const float o[3], const Rays& r, float limit, bool perOrigin = false) {
    const int n = r.n();
    vt::Planes<float> dir(n, 0), org(n, 0);
    vt::Buf<float> dist(n, 0), h0(n, 0), h1(n, 0);
    vt::Buf<int32_t> tri(n, 0);
    for (int i = 0; i < n; ++i) {
        for (int a = 0; a < 3; ++a) {
            dir.p[a][i] = r.d[a][i];
            org.p[a][i] = r.o[a][i];
        }
        dist[i] = limit;
        h0[i] = h1[i] = rt::kCanary;
    }
    float* hit[2] = {h0.data(), h1.data()};
    if (perOrigin)
        vekrIntersectMO_32f(org.cptrs(), dir.cptrs(), dist.data(), hit, tri.data(), &s.ctx, r.w, r.h);
    else
        vekrIntersectEyeSO_32f(o, dir.cptrs(), dist.data(), hit, tri.data(), &s.ctx, r.w, r.h);
    return NearestRun{dist.vec(), h0.vec(), h1.vec(), tri.vec()};
}

// Compares the eye query's results with the brute-force nearest hit. A
// different triangle is accepted only as a tie: it is hit at exactly the same
// t (rays through shared edges and vertices), and the tree tested it first.
// Returns the number of such ties.
int expectMatchesBruteForce(const rt::Scene& s, const Rays& r, const NearestRun& got, float limit) {
    int ties = 0;
    for (int i = 0; i < r.n(); ++i) {
        const float o[3] = {r.o[0][i], r.o[1][i], r.o[2][i]};
        const float d[3] = {r.d[0][i], r.d[1][i], r.d[2][i]};
        const rt::Hit ref = rt::bruteNearest(s.accel, o, d, limit);
        if (ref.tri < 0) {
            EXPECT_EQ(got.tri[i], -1) << "ray " << i;
            EXPECT_EQ(got.dist[i], limit) << "ray " << i;
            EXPECT_EQ(got.w0[i], rt::kCanary) << "ray " << i;
            continue;
        }
        if (got.tri[i] < 0) {
            ADD_FAILURE() << "ray " << i << " missed; the nearest hit is triangle " << ref.tri << " at " << ref.t;
            continue;
        }
        EXPECT_EQ(got.dist[i], ref.t) << "ray " << i;
        const rt::TriResult mine = rt::testTriangle(s.accel[got.tri[i]], o, d);
        EXPECT_TRUE(mine.inside && mine.t == ref.t) << "ray " << i;
        EXPECT_EQ(got.w0[i], mine.w0) << "ray " << i;
        EXPECT_EQ(got.w1[i], mine.w1) << "ray " << i;
        if (got.tri[i] != ref.tri) ++ties;
    }
    return ties;
}

// Both trees are valid blocks, and both have packed and list leaves, so that
// the bunny tests below walk every leaf kind.
TEST_P(BunnyTree, Bunny_TreeIsWellFormedWithBothLeafKinds) {
    const rt::Scene& s = scene();
    ASSERT_GT(s.accel.size(), 60000u) << "bunny model not found or tree build failed";
    const vt::KDTreeView view(s.tree.data(), std::int64_t(s.tree.size()) * 4);
    EXPECT_TRUE(view.WellFormed(std::int64_t(s.accel.size())));
    const vt::KDTreeStats st = view.stats(s.box);
    EXPECT_GT(st.packedLeaves, 1000);
    EXPECT_GT(st.listLeaves, 100);
    EXPECT_LE(st.maxDepth, 50);
}

TEST_P(BunnyTree, Bunny_EyeRaysMatchBruteForceFromSeveralViewpoints) {
    const rt::Scene& s = scene();
    ASSERT_GT(s.accel.size(), 60000u) << "bunny model not found or tree build failed";
    const V3 eyes[] = {{0, 0.2f, 3.0f}, {2.5f, 1.0f, -1.0f}, {-0.3f, -2.8f, 0.4f}};
    int ties = 0, hits = 0;
    for (const V3& e : eyes) {
        const Rays r = camera(e, 16, 16);
        const float o[3] = {e.x, e.y, e.z};
        const NearestRun got = runEyeBlock(s, o, r, FLT_MAX);
        ties += expectMatchesBruteForce(s, r, got, FLT_MAX);
        for (int32_t t : got.tri) hits += t >= 0;
    }
    EXPECT_GT(hits, 3 * 16 * 16 / 4);  // the cameras frame the model
    EXPECT_LT(ties, 10);
}

// Rays from inside and outside the box in every direction, with components
// at and near the parallel threshold, and finite limits.
TEST_P(BunnyTree, Bunny_RandomRaysMatchBruteForce) {
    const rt::Scene& s = scene();
    ASSERT_GT(s.accel.size(), 60000u);
    vt::Rng rng(7);
    int ties = 0;
    for (int pass = 0; pass < 4; ++pass) {
        const V3 o = pass < 2 ? randomPoint(rng, 0.6f) : 3.0f * unit(randomPoint(rng, 1.0f));
        const float limit = pass % 2 ? 2.5f : FLT_MAX;
        Rays r;
        r.resize(8, 8);
        for (int i = 0; i < r.n(); ++i) {
            V3 d = randomDir(rng);
            if (pass >= 2 && rng.below(2)) d = (V3{0, 0, 0} - o) + randomDir(rng);  // aim at the model
            r.set(i, d, o);
        }
        const float org[3] = {o.x, o.y, o.z};
        ties += expectMatchesBruteForce(s, r, runEyeBlock(s, org, r, limit), limit);
    }
    EXPECT_LT(ties, 10);
}

// The per-origin query may keep a hit up to 0.00001 farther than the nearest
// one (a nearer hit must improve by more than that), ignores |det| below
// 1.1920929e-6 and needs hits 0.00001 inside the limit.
TEST_P(BunnyTree, Bunny_PerOriginRaysFindTheNearestHitWithinTheirTolerance) {
    const rt::Scene& s = scene();
    ASSERT_GT(s.accel.size(), 60000u);
    vt::Rng rng(11);
    Rays r;
    r.resize(12, 12);
    for (int i = 0; i < r.n(); ++i) {
        const V3 o = rng.below(2) ? randomPoint(rng, 0.7f) : 2.5f * unit(randomPoint(rng, 1.0f));
        r.set(i, rng.below(2) ? randomDir(rng) : (randomPoint(rng, 0.5f) - o), o);
    }
    const float limit = 4.0f;
    const NearestRun got = runEyeBlock(s, nullptr, r, limit, true);
    int found = 0;
    for (int i = 0; i < r.n(); ++i) {
        const float o[3] = {r.o[0][i], r.o[1][i], r.o[2][i]};
        const float d[3] = {r.d[0][i], r.d[1][i], r.d[2][i]};
        const rt::Hit ref = rt::bruteNearest(s.accel, o, d, limit - 0.00001f, 1.1920929e-6f);
        // A ray parallel to an axis is rejected unless its origin lies strictly inside the box's slab.
        bool boxOk = true;
        for (int a = 0; a < 3; ++a)
            if (std::fabs(d[a]) <= 1.1920929e-7f && !(s.box.minCorner[a] < o[a] && o[a] < s.box.maxCorner[a]))
                boxOk = false;
        if (ref.tri < 0 || !boxOk) {
            EXPECT_EQ(got.tri[i], -1) << "ray " << i;
            continue;
        }
        ASSERT_GE(got.tri[i], 0) << "ray " << i << " missed triangle " << ref.tri;
        ++found;
        const rt::TriResult mine = rt::testTriangle(s.accel[got.tri[i]], o, d);
        EXPECT_TRUE(mine.inside) << "ray " << i;
        EXPECT_EQ(mine.t, got.dist[i]) << "ray " << i;
        EXPECT_GE(std::fabs(mine.det), 1.1920929e-6f) << "ray " << i;
        EXPECT_LE(got.dist[i], ref.t + 0.00001f) << "ray " << i;
        EXPECT_EQ(got.w0[i], mine.w0) << "ray " << i;
    }
    EXPECT_GT(found, r.n() / 4);
}

TEST_P(BunnyTree, Bunny_AnyHitAgreesWithBruteForceOcclusion) {
    const rt::Scene& s = scene();
    ASSERT_GT(s.accel.size(), 60000u);
    vt::Rng rng(5);
    for (int pass = 0; pass < 3; ++pass) {
        const V3 light = pass == 0 ? V3{0.1f, 0.2f, 0.05f} : 2.0f * unit(randomPoint(rng, 1.0f));
        const float o[3] = {light.x, light.y, light.z};
        const int n = 48;
        vt::Planes<float> dir(n, 0);
        vt::Buf<int32_t> occ(n, 0), mask(n, 0);
        for (int i = 0; i < n; ++i) {
            const V3 d = rng.below(4) ? randomPoint(rng, 0.8f) - light : randomDir(rng);
            dir.p[0][i] = d.x, dir.p[1][i] = d.y, dir.p[2][i] = d.z;
            mask[i] = rng.below(5) == 0 ? -1 - rng.below(3) : rng.below(4);
        }
        const std::vector<int32_t> maskIn = mask.vec();
        vekrIntersectAnySO_32f(o, dir.cptrs(), occ.data(), mask.data(), 8, 6, &s.ctx);
        int occluded = 0;
        for (int i = 0; i < n; ++i) {
            const float d[3] = {dir.p[0][i], dir.p[1][i], dir.p[2][i]};
            if (maskIn[i] < 0) {
                EXPECT_EQ(occ[i], -1);
                EXPECT_EQ(mask[i], maskIn[i]);
                continue;
            }
            // A component of magnitude at most 2^-23 keeps its sign but gets a
            // positive substitute inverse, so a negative one sends the walk
            // to the wrong side of planes near the origin: such rays may miss
            // occluders, and only what they report is checked.
            bool exact = true;
            for (float c : d) exact = exact && !(c < 0.0f && c >= -1.1920929e-7f);
            if (exact) {
                const bool ref = rt::bruteOccluded(s.accel, o, d);
                EXPECT_EQ(occ[i] >= 0, ref) << "ray " << i;
                EXPECT_EQ(mask[i], ref ? -1 : maskIn[i]) << "ray " << i;
            }
            EXPECT_EQ(mask[i], occ[i] >= 0 ? -1 : maskIn[i]) << "ray " << i;
            if (occ[i] >= 0) {
                ++occluded;
                const rt::TriResult r = rt::testTriangle(s.accel[occ[i]], o, d);
                EXPECT_TRUE(r.inside && r.t > 0.0f && r.t < 1.0f) << "ray " << i;
            }
        }
        EXPECT_GT(occluded, 3);
    }
}

// ---------------------------------------------------------------------------
// Packet path against per-ray path
// ---------------------------------------------------------------------------

// Blocks of 16 x 8 rays whose packets of four share a direction octant but
// otherwise point anywhere (the lanes part ways early in the tree), mixed with
// coherent camera rays and a few packets of mixed signs and odd values.
Rays mixedBlock(vt::Rng& rng, bool perOrigin) {
    Rays r;
    r.resize(16, 8);
    const Rays cam = camera(V3{0.3f, 0.4f, 2.5f}, 16, 8);
    static const float kOdd[] = {NAN, INFINITY, -INFINITY, 0.0f, -0.0f, 1e-40f, -1e-8f, 1.1920929e-7f};
    for (int p = 0; p < r.n() / 4; ++p) {
        const int kind = p % 4;
        const float sx = rng.below(2) ? 1.0f : -1.0f, sy = rng.below(2) ? 1.0f : -1.0f,
                    sz = rng.below(2) ? 1.0f : -1.0f;
        for (int l = 0; l < 4; ++l) {
            const int i = 4 * p + l;
            const V3 o = perOrigin ? randomPoint(rng, 0.9f) : V3{0.05f, 0.1f, 0.0f};
            V3 d;
            if (kind == 0) {
                d = V3{cam.d[0][i], cam.d[1][i], cam.d[2][i]};
            } else if (kind == 3) {
                d = randomDir(rng);
                if (rng.below(3) == 0) (&d.x)[rng.below(3)] = kOdd[rng.below(8)];
            } else {
                d = V3{sx * rng.uniform(0, 1), sy * rng.uniform(0, 1), sz * rng.uniform(0, 1)};
            }
            r.set(i, d, o);
        }
    }
    return r;
}

const float kEyeOrigin[3] = {0.05f, 0.1f, 0.0f};

TEST_P(BunnyTree, VectorPath_NearestQueriesEqualThePerRayPath) {
    const rt::Scene& s = scene();
    ASSERT_GT(s.accel.size(), 60000u);
    for (bool perOrigin : {false, true}) {
        vt::Rng rng(perOrigin ? 3 : 4);
        const Rays r = mixedBlock(rng, perOrigin);
        EXPECT_TRUE(vt::SameAcrossOffsets([&](std::size_t off) {
            const int n = r.n();
            vt::Planes<float> dir(n, off), org(n, off);
            vt::Buf<float> dist(n, off), h0(n, off), h1(n, off);
            vt::Buf<int32_t> tri(n, off);
            for (int i = 0; i < n; ++i) {
                for (int a = 0; a < 3; ++a) {
                    dir.p[a][i] = r.d[a][i];
                    org.p[a][i] = r.o[a][i];
                }
                dist[i] = i % 7 == 0 ? 1.0f : FLT_MAX;
                h0[i] = h1[i] = rt::kCanary;
            }
            float* hit[2] = {h0.data(), h1.data()};
            if (perOrigin)
                vekrIntersectMO_32f(org.cptrs(), dir.cptrs(), dist.data(), hit, tri.data(), &s.ctx, r.w, r.h);
            else
                vekrIntersectEyeSO_32f(kEyeOrigin, dir.cptrs(), dist.data(), hit, tri.data(), &s.ctx, r.w, r.h);
            std::vector<std::uint8_t> out;
            for (const vt::Buf<float>* b : {&dist, &h0, &h1}) vt::appendBytes(out, b->data(), b->size());
            vt::appendBytes(out, tri.data(), tri.size());
            return out;
        })) << (perOrigin ? "per-origin" : "eye");
    }
}

TEST_P(BunnyTree, VectorPath_MultipleHitsEqualThePerRayPath) {
    const rt::Scene& s = scene();
    ASSERT_GT(s.accel.size(), 60000u);
    vt::Rng rng(9);
    const Rays r = mixedBlock(rng, false);
    const int depth = 5, n = r.n();
    int deep = 0;
    EXPECT_TRUE(vt::SameAcrossOffsets([&](std::size_t off) {
        vt::Planes<float> dir(n, off);
        vt::Buf<float> dist(n * depth, off), h0(n * depth, off), h1(n * depth, off);
        vt::Buf<int32_t> tri(n * depth, off);
        for (int i = 0; i < n * depth; ++i) {
            dist[i] = i < n ? (i % 5 == 0 ? 0.5f : FLT_MAX) : rt::kCanary;
            h0[i] = h1[i] = rt::kCanary;
        }
        for (int i = 0; i < n; ++i)
            for (int a = 0; a < 3; ++a) dir.p[a][i] = r.d[a][i];
        float* hit[2] = {h0.data(), h1.data()};
        vekrIntersectMultipleSO_32f(kEyeOrigin, dir.cptrs(), dist.data(), hit, tri.data(), r.w, r.h, depth, &s.ctx);
        deep = 0;
        for (int i = 0; i < n; ++i) deep += tri[2 * n + i] >= 0;
        std::vector<std::uint8_t> out;
        for (const vt::Buf<float>* b : {&dist, &h0, &h1}) vt::appendBytes(out, b->data(), b->size());
        vt::appendBytes(out, tri.data(), tri.size());
        return out;
    }));
    EXPECT_GT(deep, 0);  // some rays pass through the model several times
}

TEST_P(BunnyTree, VectorPath_AnyHitEqualsThePerRayPath) {
    const rt::Scene& s = scene();
    ASSERT_GT(s.accel.size(), 60000u);
    vt::Rng rng(13);
    const Rays r = mixedBlock(rng, false);
    const int n = r.n();
    EXPECT_TRUE(vt::SameAcrossOffsets([&](std::size_t off) {
        vt::Planes<float> dir(n, off);
        vt::Buf<int32_t> occ(n, off), mask(n, off);
        vt::Rng mrng(1);
        for (int i = 0; i < n; ++i) {
            for (int a = 0; a < 3; ++a) dir.p[a][i] = 2.0f * r.d[a][i];
            mask[i] = mrng.below(6) == 0 ? -5 : mrng.below(3);
        }
        vekrIntersectAnySO_32f(kEyeOrigin, dir.cptrs(), occ.data(), mask.data(), r.w, r.h, &s.ctx);
        std::vector<std::uint8_t> out;
        vt::appendBytes(out, occ.data(), occ.size());
        vt::appendBytes(out, mask.data(), mask.size());
        return out;
    }));
}

INSTANTIATE_TEST_SUITE_P(Trees, BunnyTree, ::testing::Values(int(kMidpoint), int(kLibrarySah)),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return std::string(info.param == kMidpoint ? "Midpoint" : "LibrarySah");
                         });

}  // namespace
