// Spherical-harmonics evaluation: both evaluators against a long-double
// evaluation of the definition for every band, the fixed forms of bands 0-3
// bit for bit, the single-band operation, argument checks and path agreement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "sh_reference.h"
#include "testutil.h"
#include "vekr.h"

namespace {

constexpr int kAllOrder = 15;
constexpr int kAllCount = (kAllOrder + 1) * (kAllOrder + 1);

std::vector<float> evaluate(const sht::Directions& d, std::uint32_t order, std::uint32_t type) {
    sht::State st(order, type);
    std::vector<float> out(static_cast<std::size_t>(d.size()) * (order + 1) * (order + 1));
    EXPECT_EQ(vekStatusOk, vekrSH_32f(d.x.data(), d.y.data(), d.z.data(), d.size(), out.data(), order, st.p));
    return out;
}

// Largest error of one evaluator over all directions, per band, in two
// measures: against half an ulp of the exact value plus an absolute term.
struct BandError {
    double worstExcess[kAllOrder + 1];  // max(|err| - 0.5 ulp(ref)), absolute
    double worstAbs[kAllOrder + 1];     // max |err|
};

BandError measure(const sht::Directions& d, const std::vector<float>& got) {
    BandError e{};
    for (int i = 0; i < d.size(); ++i) {
        for (int l = 0; l <= kAllOrder; ++l) {
            for (int m = -l; m <= l; ++m) {
                const long double ref = sht::referenceY(l, m, d.x[i], d.y[i], d.z[i]);
                const double err = std::fabs(static_cast<double>(got[i * kAllCount + l * l + l + m] - ref));
                e.worstAbs[l] = std::max(e.worstAbs[l], err);
                e.worstExcess[l] = std::max(e.worstExcess[l], err - 0.5 * sht::ulpAt(static_cast<double>(ref)));
            }
        }
    }
    return e;
}

// The closed form computes each polynomial in double and rounds once, so it
// is the correctly rounded value up to the double evaluation error. That
// error is at most a few units of 2^-53 times the sum of the magnitudes of
// the Horner terms; for band 15 (integer coefficients up to 5e7, constant
// 7.7e-4) that sum is below 1e5, so below 1e-10 in all. The allowance 1e-9
// keeps a margin and still is 60 times smaller than one single ulp at
// magnitude 1, so a wrong coefficient or constant cannot hide in it. (On these
// directions every value measured is in fact within half an ulp.)
TEST(SHEval, ClosedForm_IsCorrectlyRoundedDefinitionForEveryBand) {
    const sht::Directions d = sht::testDirections(400, 11);
    const BandError e = measure(d, evaluate(d, kAllOrder, vekrSHDirect));
    for (int l = 0; l <= kAllOrder; ++l) EXPECT_LE(e.worstExcess[l], 1e-9) << "band " << l;
}

// The recurrence runs entirely in single precision: every band adds the
// roundings of its table entries and of two products and a sum, relative to
// values of magnitude up to sqrt((2l+1)/4pi). The error therefore grows about
// linearly with the band: measured worst errors are about 1.5e-7 (l+1) (band
// 15: 2.4e-6). The bound 2^-21 (l+1), 8 ulps at magnitude 1 per band, is
// three times that, and still far below what a wrong table entry gives.
TEST(SHEval, Recurrence_MatchesDefinitionWithinSinglePrecisionGrowth) {
    const sht::Directions d = sht::testDirections(400, 12);
    const BandError e = measure(d, evaluate(d, kAllOrder, vekrSHRecurrence));
    for (int l = 0; l <= kAllOrder; ++l) EXPECT_LE(e.worstAbs[l], std::ldexp(1.0, -21) * (l + 1)) << "band " << l;
}

TEST(SHEval, TwoTypes_AgreeToRecurrenceRounding) {
    const sht::Directions d = sht::testDirections(200, 13);
    const std::vector<float> a = evaluate(d, kAllOrder, vekrSHDirect);
    const std::vector<float> b = evaluate(d, kAllOrder, vekrSHRecurrence);
    for (int i = 0; i < d.size(); ++i)
        for (int l = 0; l <= kAllOrder; ++l)
            for (int m = -l; m <= l; ++m) {
                const int k = i * kAllCount + l * l + l + m;
                ASSERT_NEAR(a[k], b[k], std::ldexp(1.0, -21) * (l + 1)) << "direction " << i << " Y_" << l << "^" << m;
            }
}

// A lower order is a prefix of the full evaluation, for both types.
TEST(SHEval, LowerOrders_ArePrefixesOfOrder15) {
    const sht::Directions d = sht::testDirections(20, 14);
    for (std::uint32_t type : {0u, 1u}) {
        const std::vector<float> full = evaluate(d, kAllOrder, type);
        for (std::uint32_t order : {0u, 1u, 2u, 3u, 4u, 9u, 14u}) {
            const std::vector<float> part = evaluate(d, order, type);
            const int n = static_cast<int>((order + 1) * (order + 1));
            for (int i = 0; i < d.size(); ++i)
                ASSERT_TRUE(vt::SameBits(part.data() + i * n, full.data() + i * kAllCount, n))
                    << "type " << type << " order " << order << " direction " << i;
        }
    }
}

// Bands 0-3 use fixed forms: x and y widened to double, z^2 squared in single,
// the polynomial in double as written, one rounding at the store.
TEST(SHEval, ClosedFormBands0To3_FollowFixedFormsBitForBit) {
    vt::Rng rng(21);
    sht::Directions d = sht::testDirections(0, 0);
    for (int i = 0; i < 300; ++i) d.add(rng.uniform(-2, 2), rng.uniform(-2, 2), rng.uniform(-2, 2));
    d.add(1e-30f, -3e-39f, 1e-20f);  // denormal and underflowing products
    const std::vector<float> got = evaluate(d, 3, vekrSHDirect);
    for (int i = 0; i < d.size(); ++i) {
        const double x = d.x[i], y = d.y[i], z = d.z[i];
        const double z2 = d.z[i] * d.z[i];
        const float want[16] = {
            0.2820948f,
            static_cast<float>(-0.4886025119029199 * y),
            static_cast<float>(0.4886025119029199 * z),
            static_cast<float>(-0.4886025119029199 * x),
            static_cast<float>(1.092548430592079 * x * y),
            static_cast<float>(-1.092548430592079 * y * z),
            static_cast<float>(0.31539156525252 * (3.0 * z2 - 1.0)),
            static_cast<float>(-1.092548430592079 * x * z),
            static_cast<float>(0.5462742152960395 * (x * x - y * y)),
            static_cast<float>(0.5900435899266435 * (y * y * y - 3.0 * (x * x) * y)),
            static_cast<float>(2.890611442640554 * x * y * z),
            static_cast<float>(-0.4570457994644657 * y * (5.0 * z2 - 1.0)),
            static_cast<float>(0.3731763325901154 * z * (5.0 * z2 - 3.0)),
            static_cast<float>(-0.4570457994644657 * x * (5.0 * z2 - 1.0)),
            static_cast<float>(1.445305721320277 * z * (x * x - y * y)),
            static_cast<float>(-0.5900435899266435 * (x * x * x - 3.0 * x * (y * y))),
        };
        ASSERT_TRUE(vt::SameBits(want, got.data() + 16 * i, 16)) << "direction " << i;
    }
}

// The recurrence's steps written out with the state's tables, all in single
// precision with the products grouped as stated: (A z) Y_(l-1) + B Y_(l-2).
std::vector<float> recurrenceSteps(const VekrSHState* st, float x, float y, float z, int order) {
    std::vector<float> v((order + 1) * (order + 1));
    auto Y = [&](int l, int m) -> float& { return v[l * l + l + m]; };
    auto A = [&](int l, int m) { return st->pFactorA[l * (l + 1) / 2 + m]; };
    auto B = [&](int l, int m) { return st->pFactorB[l * (l + 1) / 2 + m]; };
    Y(0, 0) = A(0, 0);
    if (order >= 1) {
        Y(1, -1) = A(1, 1) * y;
        Y(1, 0) = A(1, 0) * z;
        Y(1, 1) = A(1, 1) * x;
    }
    for (int l = 2; l <= order; ++l) {
        Y(l, l) = A(l, l) * (x * Y(l - 1, l - 1) - y * Y(l - 1, 1 - l));
        Y(l, -l) = A(l, l) * (x * Y(l - 1, 1 - l) + y * Y(l - 1, l - 1));
        Y(l, l - 1) = A(l, l - 1) * z * Y(l - 1, l - 1);
        Y(l, 1 - l) = A(l, l - 1) * z * Y(l - 1, 1 - l);
        for (int m = 0; m <= l - 2; ++m) {
            Y(l, m) = A(l, m) * z * Y(l - 1, m) + B(l, m) * Y(l - 2, m);
            if (m > 0) Y(l, -m) = A(l, m) * z * Y(l - 1, -m) + B(l, m) * Y(l - 2, -m);
        }
    }
    return v;
}

TEST(SHEval, Recurrence_FollowsItsStepsBitForBit) {
    vt::Rng rng(51);
    sht::Directions d = sht::testDirections(30, 52);
    for (int i = 0; i < 12; ++i) d.add(rng.uniform(-1.5f, 1.5f), rng.uniform(-1.5f, 1.5f), rng.uniform(-1.5f, 1.5f));
    d.add(1e-20f, 2e-39f, -1e-30f);
    sht::State st(kAllOrder, vekrSHRecurrence);
    for (std::size_t off : {std::size_t(0), std::size_t(4)}) {  // vector and scalar path
        vt::Buf<float> x(d.x, off), y(d.y, off), z(d.z, off), out(static_cast<std::size_t>(d.size()) * kAllCount, off);
        ASSERT_EQ(vekStatusOk, vekrSH_32f(x.data(), y.data(), z.data(), d.size(), out.data(), kAllOrder, st.p));
        for (int i = 0; i < d.size(); ++i) {
            const std::vector<float> want = recurrenceSteps(st.p, d.x[i], d.y[i], d.z[i], kAllOrder);
            ASSERT_TRUE(vt::SameBits(want.data(), out.data() + i * kAllCount, kAllCount))
                << "offset " << off << " direction " << i;
        }
    }
}

TEST(SHEval, KnownValues_PoleAxisAndNonUnitVector) {
    // (0, 0, 1), order 2, both types.
    const float x = 0, y = 0, z = 1;
    const float pole[9] = {0.2820948f, 0, 0.4886025f, 0, 0, 0, 0.6307831f, 0, 0};
    for (std::uint32_t type : {0u, 1u}) {
        sht::State st(2, type);
        float out[9];
        ASSERT_EQ(vekStatusOk, vekrSH_32f(&x, &y, &z, 1, out, 2, st.p));
        for (int k = 0; k < 9; ++k) EXPECT_NEAR(pole[k], out[k], 2e-7) << "type " << type << " k " << k;
    }
    // (1, 0, 0), band 1: -0.4886025 * 0 is -0.
    const float ax = 1, ay = 0, az = 0;
    float band1[3];
    ASSERT_EQ(vekStatusOk, vekrSHBand_32f(&ax, &ay, &az, 1, band1, 1));
    const float want1[3] = {-0.0f, 0.0f, -0.4886025119029199f};
    EXPECT_TRUE(vt::SameBits(want1, band1, 3));
    // A non-unit vector gives the polynomial's value: Y_2^2(2, 0, 0) = 4 * 0.5462742.
    const float bx = 2, by = 0, bz = 0;
    float band2[5];
    ASSERT_EQ(vekStatusOk, vekrSHBand_32f(&bx, &by, &bz, 1, band2, 2));
    EXPECT_EQ(static_cast<float>(0.5462742152960395 * 4.0), band2[4]);
}

TEST(SHEval, SpecialValues_PropagateThroughEveryFunctionThatUsesThem) {
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const float xs[2] = {nan, 0.0f}, ys[2] = {0.0f, 0.0f}, zs[2] = {0.5f, inf};
    for (std::uint32_t type : {0u, 1u}) {
        sht::State st(4, type);
        float out[2 * 25];
        ASSERT_EQ(vekStatusOk, vekrSH_32f(xs, ys, zs, 2, out, 4, st.p));
        // x = NaN: Y_0^0, Y_1^-1, Y_1^0 do not depend on x; Y_1^1 and every
        // m != 0 function of bands 2..4 does.
        EXPECT_FALSE(std::isnan(out[0]) || std::isnan(out[1]) || std::isnan(out[2])) << "type " << type;
        EXPECT_TRUE(std::isnan(out[3])) << "type " << type;
        EXPECT_TRUE(std::isnan(out[24])) << "type " << type;
        // z = inf: Y_1^0 is +inf for both evaluators.
        EXPECT_EQ(inf, out[25 + 2]) << "type " << type;
    }
}

// vekrSHBand_32f and the band slices of a type-0 evaluation come from the
// same per-band evaluators and must agree bit for bit, on both paths.
TEST(SHEval, SingleBand_EqualsSliceOfClosedFormEvaluation) {
    sht::Directions d = sht::testDirections(23, 31);  // 32 directions
    const std::vector<float> all = evaluate(d, kAllOrder, vekrSHDirect);
    for (std::uint32_t band = 0; band <= 15; ++band) {
        const int w = 2 * static_cast<int>(band) + 1;
        for (int count : {d.size(), d.size() - 1}) {
            vt::Buf<float> out(static_cast<std::size_t>(count) * w, 0);
            vt::Buf<float> x(d.x, 0), y(d.y, 0), z(d.z, 0);
            ASSERT_EQ(vekStatusOk, vekrSHBand_32f(x.data(), y.data(), z.data(), count, out.data(), band));
            for (int i = 0; i < count; ++i)
                ASSERT_TRUE(vt::SameBits(out.data() + i * w, all.data() + i * kAllCount + band * band, w))
                    << "band " << band << " count " << count << " direction " << i;
        }
    }
}

// The four-direction vector path (aligned arrays, count a multiple of 4) and
// the scalar path (offset arrays) give the same bits.
TEST(SHEval, VectorAndScalarPaths_GiveSameBits) {
    const sht::Directions d = sht::testDirections(27, 41);  // 36 directions
    for (std::uint32_t type : {0u, 1u}) {
        sht::State st(kAllOrder, type);
        for (std::uint32_t order : {0u, 1u, 2u, 3u, 4u, 5u, 8u, 15u}) {
            const int n = static_cast<int>((order + 1) * (order + 1));
            EXPECT_TRUE(vt::SameAcrossOffsets([&](std::size_t off) {
                vt::Buf<float> x(d.x, off), y(d.y, off), z(d.z, off);
                vt::Buf<float> out(static_cast<std::size_t>(d.size()) * n, off);
                EXPECT_EQ(vekStatusOk, vekrSH_32f(x.data(), y.data(), z.data(), d.size(), out.data(), order, st.p));
                return out.bytes();
            })) << "type " << type << " order " << order;
        }
    }
    for (std::uint32_t band = 0; band <= 15; ++band) {
        EXPECT_TRUE(vt::SameAcrossOffsets([&](std::size_t off) {
            vt::Buf<float> x(d.x, off), y(d.y, off), z(d.z, off);
            vt::Buf<float> out(static_cast<std::size_t>(d.size()) * (2 * band + 1), off);
            EXPECT_EQ(vekStatusOk, vekrSHBand_32f(x.data(), y.data(), z.data(), d.size(), out.data(), band));
            return out.bytes();
        })) << "band " << band;
    }
}

TEST(SHEval, Checks_ComeInTheirOrderAndWriteNothing) {
    float x[4] = {0, 0, 1, 0}, y[4] = {0, 1, 0, 0}, z[4] = {1, 0, 0, 1};
    vt::Buf<float> out(4 * 256, 0);
    sht::State direct(3, vekrSHDirect);
    sht::State rec(20, vekrSHRecurrence);
    vt::fillCanary(out);
    // Null pointers first, whatever else is wrong.
    EXPECT_EQ(vekStatusNullPtr, vekrSH_32f(nullptr, y, z, 0, out.data(), 99, direct.p));
    EXPECT_EQ(vekStatusNullPtr, vekrSH_32f(x, nullptr, z, 4, out.data(), 3, direct.p));
    EXPECT_EQ(vekStatusNullPtr, vekrSH_32f(x, y, nullptr, 4, out.data(), 3, direct.p));
    EXPECT_EQ(vekStatusNullPtr, vekrSH_32f(x, y, z, 4, nullptr, 3, direct.p));
    EXPECT_EQ(vekStatusNullPtr, vekrSH_32f(x, y, z, 4, out.data(), 3, nullptr));
    // Count 0 before the order; the order before the sign of the count.
    EXPECT_EQ(vekStatusBadSize, vekrSH_32f(x, y, z, 0, out.data(), 99, direct.p));
    EXPECT_EQ(vekStatusBadArgument, vekrSH_32f(x, y, z, -5, out.data(), 4, direct.p));
    EXPECT_EQ(vekStatusOk, vekrSH_32f(x, y, z, -5, out.data(), 3, direct.p));
    EXPECT_EQ(vekStatusOk, vekrSH_32f(x, y, z, -5, out.data(), 3, rec.p));
    // A type-1 state of order 20 serves orders up to 15 only.
    EXPECT_EQ(vekStatusBadArgument, vekrSH_32f(x, y, z, 4, out.data(), 16, rec.p));
    EXPECT_EQ(vekStatusBadArgument, vekrSH_32f(x, y, z, 4, out.data(), 20, rec.p));
    // An unknown state type.
    VekrSHState bad = *direct.p;
    bad.type = 2;
    EXPECT_EQ(vekStatusBadArgument, vekrSH_32f(x, y, z, 4, out.data(), 3, &bad));
    // vekrSHBand_32f: band before count.
    EXPECT_EQ(vekStatusNullPtr, vekrSHBand_32f(x, y, z, 0, nullptr, 16));
    EXPECT_EQ(vekStatusBadArgument, vekrSHBand_32f(x, y, z, 0, out.data(), 16));
    EXPECT_EQ(vekStatusBadSize, vekrSHBand_32f(x, y, z, 0, out.data(), 15));
    EXPECT_EQ(vekStatusOk, vekrSHBand_32f(x, y, z, -1, out.data(), 15));
    EXPECT_TRUE(vt::CanaryIntact(out));

    // Order 15 through the order-20 state writes exactly 256 values a direction;
    // order 3 exactly 16.
    EXPECT_EQ(vekStatusOk, vekrSH_32f(x, y, z, 3, out.data(), 15, rec.p));
    EXPECT_TRUE(vt::CanaryIntact(out.data() + 3 * 256, 256));
    EXPECT_FALSE(vt::CanaryIntact(out.data() + 2 * 256 + 255, 1));
    vt::fillCanary(out);
    EXPECT_EQ(vekStatusOk, vekrSH_32f(x, y, z, 3, out.data(), 3, rec.p));
    EXPECT_TRUE(vt::CanaryIntact(out.data() + 3 * 16, 4 * 256 - 3 * 16));
    EXPECT_FALSE(vt::CanaryIntact(out.data() + 3 * 16 - 1, 1));
}

}  // namespace
