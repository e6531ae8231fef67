// Hit points, flat and smooth surface normals and triangle normals against
// plain per-ray rules on every path, plus the thresholds and the thread split.
#include <cmath>
#include <cstdint>
#include <vector>

#include "mesh.h"
#include "shading_data.h"
#include "testutil.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

const std::size_t kAligned = 0;
std::size_t aligned(int) { return kAligned; }

TEST(HitPoint, BothOriginKindsMatchTheRuleOnEveryPath) {
    // Arrays: direction 0-2, distance 3, per-ray origin 4-6, hit 7-9.
    st::Data d = st::randomData(51, 10, -10, 10);
    const float origin[3] = {1, 1, 1}, eps = 0.99999f;
    for (int c = 0; c < 3; ++c) d.f[c][0] = d.f[c][1] = c == 2 ? 1.0f : 0.0f;
    d.f[3][0] = d.f[3][1] = 2.0f;
    d.m[0] = 0;
    d.m[1] = -1;
    st::Packet p(d, 4, aligned);
    ASSERT_EQ(vekrHitPoint3DEpsS0_32f_M(origin, p.p3(0), p.at(3), p.m(), p.p3(7), 4, 1.0f), vekStatusOk);
    EXPECT_EQ(p.at(9)[0], 3.0f) << "(1, 1, 1) + 2 * (0, 0, 1)";
    EXPECT_EQ(vt::bits(p.at(9)[1]), 0u) << "masked";

    for (int m0 = 0; m0 < 2; ++m0) {
        auto call = [&](st::Packet& q, int n) {
            EXPECT_EQ(m0 ? vekrHitPoint3DEpsM0_32f_M(q.p3(4), q.p3(0), q.at(3), q.m(), q.p3(7), n, eps)
                         : vekrHitPoint3DEpsS0_32f_M(origin, q.p3(0), q.at(3), q.m(), q.p3(7), n, eps),
                      vekStatusOk);
        };
        st::expectRule(d, call, [&](float* v, std::int32_t& m) {
            for (int c = 0; c < 3; ++c) {
                const float scaled = v[c] * eps;
                v[7 + c] = m < 0 ? 0.0f : scaled * v[3] + (m0 ? v[4 + c] : origin[c]);
            }
        });
    }
}

// Lookup tables for the normal operations: normals of 40 triangles (flat) and
// of 40 vertices (smooth), and four-entry triangle records over the vertices.
struct Tables {
    vt::Buf<float> triNorm, vertNorm;
    vt::Buf<std::int32_t> triVert;
    Tables() {
        vt::Rng rng(61);
        std::vector<float> tn = st::floats(rng, 120, -1, 1), vn = st::floats(rng, 120, -1, 1, 20);
        tn[3 * 5 + 1] = vt::fromBits(0x7FA00001u);  // a signalling NaN must be copied unchanged
        std::vector<std::int32_t> tv;
        for (int t = 0; t < 40; ++t) tv.insert(tv.end(), {rng.below(40), rng.below(40), rng.below(40), -12345});
        triNorm = vt::Buf<float>(tn, 0);
        vertNorm = vt::Buf<float>(vn, 0);
        triVert = vt::Buf<std::int32_t>(tv, 0);
    }
};

// Triangle indices for 67 rays, a fifth of them misses.
st::Data normalData(int numArrays) {
    st::Data d = st::randomData(62, numArrays, 0, 0.6f);
    vt::Rng rng(63);
    for (auto& t : d.m) t = rng.below(5) == 0 ? -1 - rng.below(3) : rng.below(40);
    d.m[0] = 5;
    return d;
}

TEST(SurfFlatNormal, CopiesTriangleNormalBitsOrZero) {
    Tables tab;
    // Arrays: normal 0-2.
    st::expectRule(
        normalData(3),
        [&](st::Packet& p, int n) {
            EXPECT_EQ(vekrSurfFlatNormal_32f(tab.triNorm.data(), p.m(), p.p3(0), n), vekStatusOk);
        },
        [&](float* v, std::int32_t& t) {
            for (int c = 0; c < 3; ++c) v[c] = t < 0 ? 0.0f : tab.triNorm[3 * t + c];
        });
}

// s = w*nC + (v*nB + u*nA), w = (1 - u) - v, q = |s|^2; s / sqrt(q) unless
// q < 2^-23 or there is no hit. Arrays: u 0, v 1, normal 2-4.
void smoothRule(const float* vertNorm, const std::int32_t* triVert, int stride, float* v, std::int32_t t) {
    for (int c = 0; c < 3; ++c) v[2 + c] = 0.0f;
    if (t < 0) return;
    const float* n[3];
    for (int k = 0; k < 3; ++k) n[k] = vertNorm + 3 * triVert[t * stride + k];
    const float w = (1.0f - v[0]) - v[1];
    float s[3];
    for (int c = 0; c < 3; ++c) s[c] = w * n[2][c] + (v[1] * n[1][c] + v[0] * n[0][c]);
    const float q = (s[0] * s[0] + s[1] * s[1]) + s[2] * s[2];
    if (q < 1.1920929e-7f) return;
    for (int c = 0; c < 3; ++c) v[2 + c] = s[c] / std::sqrt(q);
}

TEST(SurfSmoothNormal, MatchesTheRuleWithFourEntryTriangleRecords) {
    Tables tab;
    st::Data d = normalData(5);
    d.f[1][3] = vt::fromBits(st::kNaNBits);  // a NaN q is not below the limit: NaN out
    st::expectRule(
        d,
        [&](st::Packet& p, int n) {
            const float* uv[2] = {p.at(0), p.at(1)};
            EXPECT_EQ(vekrSurfSmoothNormal_32f(tab.vertNorm.data(), tab.triVert.data(), p.m(), uv, p.p3(2), n, 4),
                      vekStatusOk);
        },
        [&](float* v, std::int32_t& t) { smoothRule(tab.vertNorm.data(), tab.triVert.data(), 4, v, t); });
}

TEST(SurfSmoothNormal, WeightsBelongToVerticesAndNearCancellationGivesZero) {
    // A = (2^-12, 2^-12, 0): q = 2^-23, exactly the limit. B: second component
    // one ulp smaller, q just below. C = (0, 0, 3). Stride 3: triangle 0 is
    // (A, B, C), triangle 1 is (B, A, C).
    const float a = std::ldexp(1.0f, -12), b = std::nextafter(a, 0.0f);
    const vt::Buf<float> vn(std::vector<float>{a, a, 0, a, b, 0, 0, 0, 3}, 0);
    const vt::Buf<std::int32_t> tv(std::vector<std::int32_t>{0, 1, 2, 1, 0, 2}, 0);
    st::Data d;
    d.f = {{1, 1, 0, 0}, {0, 0, 1, 0}, {}, {}, {}};  // u, v
    for (int c = 2; c < 5; ++c) d.f[c].assign(4, 7.0f);
    d.m = {0, 1, 1, 0};
    for (int n : {4, 3}) {
        st::Packet p(d, n, aligned);
        const float* uv[2] = {p.at(0), p.at(1)};
        ASSERT_EQ(vekrSurfSmoothNormal_32f(vn.data(), tv.data(), p.m(), uv, p.p3(2), n, 3), vekStatusOk);
        EXPECT_EQ(p.at(2)[0], a / std::sqrt(std::ldexp(1.0f, -23))) << "q at the limit is normalised";
        EXPECT_EQ(p.at(3)[0], p.at(2)[0]);
        EXPECT_EQ(vt::bits(p.at(2)[1]), 0u) << "q just below the limit";
        EXPECT_EQ(p.at(2)[2], p.at(2)[0]) << "v weights the second vertex";
        if (n == 4) {
            EXPECT_EQ(p.at(4)[3], 1.0f) << "1 - u - v weights the third vertex";
        }
    }
}

// n = (p0 - p2) x (p1 - p2) in double, normalised, rounded to float.
std::vector<float> triangleNormalsReference(const vt::Mesh& m) {
    std::vector<float> out;
    for (int t = 0; t < m.numTriangles(); ++t) {
        double e[2][3];
        const float* p2 = &m.vertices[3 * m.triangles[4 * t + 2]];
        for (int k = 0; k < 2; ++k)
            for (int c = 0; c < 3; ++c) e[k][c] = double(m.vertices[3 * m.triangles[4 * t + k] + c]) - double(p2[c]);
        const double n[3] = {e[0][1] * e[1][2] - e[0][2] * e[1][1], e[0][2] * e[1][0] - e[0][0] * e[1][2],
                             e[0][0] * e[1][1] - e[0][1] * e[1][0]};
        const double q = n[0] * n[0] + n[1] * n[1] + n[2] * n[2];
        for (int c = 0; c < 3; ++c) out.push_back(q < 2.220446049250313e-16 ? 0.0f : float(n[c] / std::sqrt(q)));
    }
    return out;
}

std::vector<float> triangleNormals(const vt::Mesh& m, int threads) {
    EXPECT_EQ(vekSetNumThreads(threads), vekStatusOk);
    std::vector<float> out(3 * m.numTriangles());
    EXPECT_EQ(vekrTriangleNormal_32f(m.vertices.data(), m.triangles.data(), out.data(), m.numTriangles()), vekStatusOk);
    return out;
}

TEST(TriangleNormal, BunnyMatchesDoubleReferenceForOneTwoAndThreeThreads) {
    vt::Mesh mesh;
    if (!vt::loadObj(vt::kBunnyPath, mesh)) mesh = vt::makeSphere(40, 60, 1.0f);
    const int base = mesh.numVertices();
    mesh.addVertex(0, 0, 0);
    mesh.addVertex(1, 0, 0);
    mesh.addVertex(0, 1, 0);
    mesh.addVertex(1.4e-8f, 0, 0);
    mesh.addVertex(1.5e-8f, 0, 0);
    mesh.addTriangle(base, base + 1, base + 2);  // normal (0, 0, 1)
    mesh.addTriangle(base, base, base + 2);      // two equal vertices
    mesh.addTriangle(base, base + 3, base + 2);  // |n|^2 = 1.96e-16: below the double epsilon
    mesh.addTriangle(base, base + 4, base + 2);  // |n|^2 = 2.25e-16: above it
    int saved = 1;
    ASSERT_EQ(vekGetNumThreads(&saved), vekStatusOk);
    const auto one = triangleNormals(mesh, 1), two = triangleNormals(mesh, 2), three = triangleNormals(mesh, 3);
    vekSetNumThreads(saved);
    EXPECT_TRUE(vt::SameBits(triangleNormalsReference(mesh), one));
    EXPECT_TRUE(vt::SameBits(one, two));
    EXPECT_TRUE(vt::SameBits(one, three));
    const std::vector<float> tail(one.end() - 12, one.end()), expect = {0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    EXPECT_TRUE(vt::SameBits(expect, tail));
    // Triangles go in pairs: an odd count ends on a single one, and nothing
    // past the count is written.
    const int odd = mesh.numTriangles() - 1;
    std::vector<float> part(3 * mesh.numTriangles(), -7.0f);
    ASSERT_EQ(vekrTriangleNormal_32f(mesh.vertices.data(), mesh.triangles.data(), part.data(), odd), vekStatusOk);
    EXPECT_TRUE(vt::SameBits(one.data(), part.data(), 3 * odd));
    EXPECT_EQ(part[3 * odd], -7.0f);
}

TEST(SurfaceLarge, StreamedStoresGiveTheSameValues) {
    Tables tab;
    st::Data d = st::randomData(93, 10, 0, 0.6f, 1 << 20);
    st::expectLargeCallAgrees(d, [](st::Packet& p, int n) {
        EXPECT_EQ(vekrHitPoint3DEpsM0_32f_M(p.p3(4), p.p3(0), p.at(3), p.m(), p.p3(7), n, 0.5f), vekStatusOk);
    });
    for (auto& t : d.m) t = t < 0 ? t : t % 40;
    st::expectLargeCallAgrees(d, [&](st::Packet& p, int n) {
        const float* uv[2] = {p.at(0), p.at(1)};
        EXPECT_EQ(vekrSurfFlatNormal_32f(tab.triNorm.data(), p.m(), p.p3(2), n), vekStatusOk);
        EXPECT_EQ(vekrSurfSmoothNormal_32f(tab.vertNorm.data(), tab.triVert.data(), p.m(), uv, p.p3(5), n, 4),
                  vekStatusOk);
    });
}

TEST(SurfaceChecks, NullPointersAreRejectedBeforeAnyWrite) {
    Tables tab;
    st::Packet p(normalData(10), 8, aligned);
    const auto before = p.bytes();
    const float origin[3] = {0, 0, 0};
    const float* uv[2] = {p.at(0), p.at(1)};
    float* f = p.at(0);
    const std::int32_t* tv = tab.triVert.data();
    for (int count : {8, 0}) {
        for (int k = 0; k < 4; ++k)
            EXPECT_EQ(vekrHitPoint3DEpsS0_32f_M(origin, st::nullIf(k, 0, p.p3(0)), st::nullIf(k, 1, f),
                                                st::nullIf(k, 2, p.m()), st::nullIf(k, 3, p.p3(4)), count, 1),
                      vekStatusNullPtr);
        for (int k = 0; k < 5; ++k)
            EXPECT_EQ(
                vekrHitPoint3DEpsM0_32f_M(st::nullIf(k, 4, p.p3(7)), st::nullIf(k, 0, p.p3(0)), st::nullIf(k, 1, f),
                                          st::nullIf(k, 2, p.m()), st::nullIf(k, 3, p.p3(4)), count, 1),
                vekStatusNullPtr);
        for (int k = 0; k < 2; ++k)
            EXPECT_EQ(vekrSurfFlatNormal_32f(st::nullIf(k, 0, f), st::nullIf(k, 1, p.m()), p.p3(4), count),
                      vekStatusNullPtr);
        for (int k = 0; k < 5; ++k)
            EXPECT_EQ(vekrSurfSmoothNormal_32f(st::nullIf(k, 0, f), st::nullIf(k, 1, tv), st::nullIf(k, 2, p.m()),
                                               st::nullIf(k, 3, uv), st::nullIf(k, 4, p.p3(4)), count, 4),
                      vekStatusNullPtr);
        for (int k = 0; k < 3; ++k)
            EXPECT_EQ(
                vekrTriangleNormal_32f(st::nullIf(k, 0, f), st::nullIf(k, 1, tv), st::nullIf(k, 2, p.at(4)), count),
                vekStatusNullPtr);
    }
    // Unchecked pointers (the single origin, the flat output record) with nothing to do.
    EXPECT_EQ(vekrHitPoint3DEpsS0_32f_M(nullptr, p.p3(0), f, p.m(), p.p3(4), 0, 1), vekStatusOk);
    EXPECT_EQ(vekrSurfFlatNormal_32f(f, p.m(), nullptr, -1), vekStatusOk);
    EXPECT_EQ(vekrTriangleNormal_32f(f, tv, p.at(4), 0), vekStatusOk);
    EXPECT_TRUE(vt::SameBits(before, p.bytes())) << "nothing written";
}

}  // namespace
