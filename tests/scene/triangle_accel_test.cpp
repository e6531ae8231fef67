// Triangle accelerator records: worked triangles, the axis tie rules, the
// flat-plane flag, degenerate triangles, and the whole bunny against an
// independent formulation of the record.
#include <cmath>
#include <limits>
#include <vector>

#include "mesh.h"
#include "testutil.h"
#include "vekr.h"

namespace {

struct Rec {
    std::uint32_t code;
    float w[9];
};

Rec recordOf(const std::vector<float>& v, const std::vector<int>& tri, int t = 0) {
    VekrTriangleAccel r[2];
    vt::fillCanary(r, 2);
    EXPECT_EQ(vekrTriangleAccelInit(r, v.data(), tri.data() + 4 * t, 1), vekStatusOk);
    EXPECT_TRUE(vt::CanaryIntact(r + 1, 1)) << "wrote past its one record";
    Rec out;
    std::memcpy(&out, r, sizeof out);
    return out;
}

// Compares a record with expected words given as floats (exact bits).
::testing::AssertionResult IsRecord(const Rec& r, std::uint32_t code, std::initializer_list<float> w) {
    if (r.code != code) return ::testing::AssertionFailure() << "axisCode 0x" << std::hex << r.code;
    std::vector<float> want(w);
    return vt::SameBits(r.w, want.data(), 9);
}

// The record written from the rule text, independently of the library's
// loop: every candidate axis is tried in turn, the projection uses a
// permutation table built on the fly.
Rec referenceRecord(const float* A, const float* B, const float* C) {
    long double e1[3], e2[3];  // exact: float differences fit in 64 bits of mantissa
    double d1[3], d2[3];
    for (int a = 0; a < 3; ++a) {
        e1[a] = static_cast<long double>(A[a]) - C[a];
        e2[a] = static_cast<long double>(B[a]) - C[a];
        d1[a] = static_cast<double>(e1[a]);
        d2[a] = static_cast<double>(e2[a]);
    }
    double n[3];
    for (int a = 0; a < 3; ++a) {
        int p = (a + 1) % 3, q = (a + 2) % 3;
        n[a] = d1[p] * d2[q] - d1[q] * d2[p];
    }
    int k = 0;
    for (int a = 1; a < 3; ++a)
        if (std::fabs(n[a]) > std::fabs(n[k])) k = a;
    Rec r{};
    if (n[0] == 0 && n[1] == 0 && n[2] == 0) return r;
    int u = k == 0 ? 1 : 0, v = k == 2 ? 1 : 2;
    double inv = 1.0 / n[k];
    double s = k == 1 ? -inv : inv;
    bool flat = std::fabs(n[u]) < std::ldexp(1.0, -52) && std::fabs(n[v]) < std::ldexp(1.0, -52);
    r.code = (k << 4) | (u << 2) | v | (flat ? 0x80000000u : 0u);
    r.w[0] = flat ? 0.0f : static_cast<float>(n[u] * inv);
    r.w[1] = C[k];
    r.w[2] = flat ? 0.0f : static_cast<float>(n[v] * inv);
    r.w[3] = C[u];
    r.w[4] = C[v];
    r.w[5] = static_cast<float>(d2[u] * s);
    r.w[6] = static_cast<float>(d2[v] * s);
    r.w[7] = static_cast<float>(d1[u] * s);
    r.w[8] = static_cast<float>(d1[v] * s);
    return r;
}

const std::vector<int> kTri012 = {0, 1, 2, 77};

}  // namespace

TEST(TriangleAccel, GetSizeWritesFortyAndChecksItsPointer) {
    int size = -1;
    EXPECT_EQ(vekrTriangleAccelGetSize(&size), vekStatusOk);
    EXPECT_EQ(size, 40);
    EXPECT_EQ(static_cast<int>(sizeof(VekrTriangleAccel)), 40);
    EXPECT_EQ(vekrTriangleAccelGetSize(nullptr), vekStatusNullPtr);
}

TEST(TriangleAccel, NonPositiveCountWritesNothing) {
    std::vector<float> v = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    VekrTriangleAccel r;
    for (int n : {0, -1, -1000}) {
        vt::fillCanary(&r, 1);
        EXPECT_EQ(vekrTriangleAccelInit(&r, v.data(), kTri012.data(), n), vekStatusOk);
        EXPECT_TRUE(vt::CanaryIntact(&r, 1));
    }
}

TEST(TriangleAccel, WorkedTrianglesGiveExactWords) {
    // Plane z = 5: k = z, flat flag, normal terms 0, s = 1/Nz = 1.
    EXPECT_TRUE(IsRecord(recordOf({0, 0, 5, 1, 0, 5, 0, 1, 5}, kTri012), 0x80000021u,
                         {0, 5, 0, 0, 1, 1, -1, 0, -1}));
    // Tilted: N = (-2, 0, 8), k = z, normalU = -0.25, s = 0.125.
    EXPECT_TRUE(IsRecord(recordOf({0, 0, 0, 4, 0, 1, 0, 2, 0}, kTri012), 0x21u,
                         {-0.25f, 0, 0, 0, 2, 0.5f, -0.25f, 0, -0.25f}));
    // Plane y = 0: N = (0, -1, 0), k = y, s = -1/Ny = +1.
    EXPECT_TRUE(IsRecord(recordOf({0, 0, 0, 1, 0, 0, 0, 0, 1}, kTri012), 0x80000012u,
                         {0, 0, 0, 0, 1, 1, -1, 0, -1}));
}

TEST(TriangleAccel, DominantAxisTiesGoToTheLowerAxis) {
    // |Nx| = |Ny| = 1 > |Nz| = 0: k = x.
    EXPECT_TRUE(IsRecord(recordOf({1, 0, 0, 0, 1, 0, 1, 0, 1}, kTri012), 0x06u, {1, 1, 0, 0, 1, 1, -1, 0, -1}));
    // N = (-1, -0, -1): k = x; Ny * (1/Nx) is +0 and E1z * s is -0, kept as such.
    EXPECT_TRUE(IsRecord(recordOf({1, 0, 0, 0, 0, 1, 1, 1, 0}, kTri012), 0x06u,
                         {0.0f, 1, 1, 1, 0, 1, -1, 1, -0.0f}));
}

TEST(TriangleAccel, DominantAxisYProjectsLikeTheMirroredTriangle) {
    // Swapping y and z mirrors the triangle, which negates its (permuted)
    // normal; the y projection turns the sign of s, so the record of the
    // k = y triangle must equal the record of its k = z mirror word for word.
    Rec y = recordOf({0, 0, 0, 3, 1, 0, 0, 0, 2}, kTri012);
    Rec z = recordOf({0, 0, 0, 3, 0, 1, 0, 2, 0}, kTri012);
    EXPECT_EQ(y.code, 0x12u);
    EXPECT_EQ(z.code, 0x21u);
    // (normalV is N[v] / N[k] with N[v] = +0: its zero's sign follows N[k].)
    EXPECT_TRUE(vt::SameBits(y.w, z.w, 2));
    EXPECT_EQ(y.w[2], z.w[2]);
    EXPECT_TRUE(vt::SameBits(y.w + 3, z.w + 3, 6));
    EXPECT_EQ(vt::bits(y.w[5]), vt::bits(0.5f));
}

TEST(TriangleAccel, TrianglesWithoutAreaGetZeroRecords) {
    const float big = 3e38f;
    std::vector<std::vector<float>> cases = {
        {1, 2, 3, 1, 2, 3, 4, 5, 6},        // two equal vertices
        {0, 0, 0, 1, 1, 1, 2, 2, 2},        // collinear
        {7, 7, 7, 7, 7, 7, 7, 7, 7},        // a point
        {big, 0, 0, -big, 0, 0, 0, 0, 0},   // collinear on x
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        Rec r = recordOf(cases[i], kTri012);
        std::uint32_t zero[10] = {};
        EXPECT_EQ(std::memcmp(&r, zero, 40), 0) << "case " << i;
    }
    // A tiny triangle whose float area would underflow still has area in
    // double (1e-60): an ordinary record.
    EXPECT_EQ(recordOf({0, 0, 0, 1e-30f, 0, 0, 0, 1e-30f, 0}, kTri012).code, 0x80000021u);
}

TEST(TriangleAccel, NaNNormalIsNotTakenForDegenerate) {
    // Nx is 0 but Ny, Nz are NaN: the record is computed and carries NaNs.
    const float nan = std::numeric_limits<float>::quiet_NaN();
    Rec r = recordOf({nan, 0, 0, 1, 0, 0, 0, 1, 0}, kTri012);
    EXPECT_NE(r.code, 0u);
    bool anyNaN = false;
    for (float w : r.w) anyNaN |= std::isnan(w);
    EXPECT_TRUE(anyNaN);
}

TEST(TriangleAccel, FlatFlagNeedsBothInPlaneComponentsBelowTwoToMinus52) {
    // N = (0, 2^-52 * 8 ... ): built from vertices whose small offset gives an
    // in-plane component just above and just below the limit.
    // E1 = (1, 0, 0), E2 = (0, 1, h): N = (0*h - 0*1, 0*0 - 1*h, 1) = (0, -h, 1).
    for (double h : {std::ldexp(1.0, -53), std::ldexp(1.0, -52)}) {
        std::vector<float> v = {1, 0, 0, 0, 1, static_cast<float>(h), 0, 0, 0};
        Rec r = recordOf(v, kTri012);
        bool flat = h < std::ldexp(1.0, -52);
        EXPECT_EQ(r.code, flat ? 0x80000021u : 0x21u) << h;
        EXPECT_EQ(vt::bits(r.w[2]), vt::bits(flat ? 0.0f : static_cast<float>(-h))) << h;
    }
}

TEST(TriangleAccel, BunnyMatchesIndependentFormulationBitForBit) {
    vt::Mesh m;
    ASSERT_TRUE(vt::loadObj(vt::kBunnyPath, m));
    const int n = m.numTriangles();
    ASSERT_EQ(n, 69666);
    std::vector<VekrTriangleAccel> acc(n + 1);
    vt::fillCanary(acc.data(), acc.size());
    ASSERT_EQ(vekrTriangleAccelInit(acc.data(), m.vertices.data(), m.triangles.data(), n), vekStatusOk);
    EXPECT_TRUE(vt::CanaryIntact(&acc[n], 1));
    int flagged = 0, byAxis[3] = {0, 0, 0};
    for (int t = 0; t < n; ++t) {
        const int* tri = &m.triangles[4 * t];
        Rec want = referenceRecord(&m.vertices[3 * tri[0]], &m.vertices[3 * tri[1]], &m.vertices[3 * tri[2]]);
        ASSERT_EQ(std::memcmp(&want, &acc[t], 40), 0) << "triangle " << t;
        flagged += (want.code >> 31) & 1;
        if (want.code) byAxis[(want.code >> 4) & 3]++;
    }
    // The mesh exercises all three projections.
    EXPECT_GT(byAxis[0], 1000);
    EXPECT_GT(byAxis[1], 1000);
    EXPECT_GT(byAxis[2], 1000);
    (void)flagged;
}

TEST(TriangleAccel, RandomIntegerTrianglesMatchIndependentFormulation) {
    // Small integer coordinates make exact ties and zero components common.
    vt::Rng rng(7);
    std::vector<float> v(9);
    for (int it = 0; it < 20000; ++it) {
        for (float& c : v) c = static_cast<float>(rng.below(5) - 2) * (it % 2 ? 0.375f : 1.0f);
        Rec got = recordOf(v, kTri012);
        Rec want = referenceRecord(&v[0], &v[3], &v[6]);
        ASSERT_EQ(std::memcmp(&want, &got, 40), 0) << "iteration " << it;
    }
}
