// Spherical-harmonic transforms: projection with a quadrature rule recovers a
// band-limited function's coefficients, the value shortcuts, the agreement of
// the one- and three-channel forms, accumulation and the argument checks.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "sh_reference.h"
#include "testutil.h"
#include "vekr.h"

namespace {

// A product rule on the sphere: Gauss-Legendre in z (exact for polynomials of
// degree 2N-1) times M uniform angles in phi (exact for trigonometric
// polynomials of degree below M). The product of two functions of bands up to
// L has degree 2L in z and in phi, so N = L+1 and M = 2L+2 integrate it
// exactly; what remains is single-precision rounding.
struct Quadrature {
    std::vector<float> x, y, z, w;
    explicit Quadrature(int order) {
        const int n = order + 1, m = 2 * order + 2;
        const long double pi = 3.141592653589793238462643383279502884L;
        for (int i = 0; i < n; ++i) {
            // Newton iteration for the i-th root of P_n from the Chebyshev guess.
            long double t = std::cos(pi * (i + 0.75L) / (n + 0.5L)), dp = 0;
            for (int it = 0; it < 100; ++it) {
                long double p0 = 1, p1 = t;
                for (int k = 2; k <= n; ++k) {
                    const long double p2 = ((2 * k - 1) * t * p1 - (k - 1) * p0) / k;
                    p0 = p1;
                    p1 = p2;
                }
                dp = n * (t * p1 - p0) / (t * t - 1);
                const long double step = p1 / dp;
                t -= step;
                if (std::fabs(step) < 1e-19L) break;
            }
            const long double wz = 2 / ((1 - t * t) * dp * dp);
            const long double s = std::sqrt(1 - t * t);
            for (int j = 0; j < m; ++j) {
                const long double phi = 2 * pi * j / m;
                x.push_back(static_cast<float>(s * std::cos(phi)));
                y.push_back(static_cast<float>(s * std::sin(phi)));
                z.push_back(static_cast<float>(t));
                w.push_back(static_cast<float>(wz * 2 * pi / m));
            }
        }
    }
    int size() const { return static_cast<int>(x.size()); }
};

TEST(SHTransform, Quadrature_RecoversBandLimitedCoefficients) {
    for (std::uint32_t type : {0u, 1u}) {
        for (std::uint32_t order : {0u, 1u, 3u, 8u, 15u}) {
            sht::State st(order, type);
            const Quadrature q(static_cast<int>(order));
            const int n = static_cast<int>((order + 1) * (order + 1));
            vt::Rng rng(order * 7 + type);
            std::vector<float> coeffs(n);
            for (float& c : coeffs) c = rng.uniform(-1, 1);

            // Samples of the function through the inverse transform, weighted
            // by the rule, projected back.
            std::vector<float> f(q.size());
            ASSERT_EQ(vekStatusOk, vekrSHTInv_32f_C1(coeffs.data(), order, q.x.data(), q.y.data(), q.z.data(),
                                                     f.data(), q.size(), st.p));
            for (int i = 0; i < q.size(); ++i) f[i] *= q.w[i];
            std::vector<float> back(n, 0.0f);
            ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C1I(q.x.data(), q.y.data(), q.z.data(), f.data(), q.size(),
                                                      back.data(), order, st.p));
            // Values are sums of n terms of size ~1 and the projection sums
            // (L+1)(2L+2) weighted products: single-precision rounding leaves
            // errors up to 1.7e-6 (measured, order 15); 1e-5 allows for that
            // while a wrong basis function (an error of order 1) cannot pass.
            for (int k = 0; k < n; ++k)
                EXPECT_NEAR(coeffs[k], back[k], 1e-5) << "type " << type << " order " << order << " k " << k;
        }
    }
}

// Each three-channel form is the one-channel form per channel, bit for bit.
TEST(SHTransform, ThreeChannelForms_EqualOneChannelPerChannel) {
    const std::uint32_t order = 5;
    const int n = 36;
    sht::State st(order, vekrSHRecurrence);
    const sht::Directions d = sht::testDirections(31, 3);
    const int count = d.size();
    vt::Rng rng(9);
    std::vector<float> val[3], coef[3];
    for (int c = 0; c < 3; ++c) {
        for (int i = 0; i < count; ++i) val[c].push_back(rng.uniform(-2, 2));
        val[c][c] = c == 0 ? 1.0f : 0.0f;  // the shortcuts, per channel
        for (int k = 0; k < n; ++k) coef[c].push_back(rng.uniform(-1, 1));
    }
    std::vector<float> interleaved(3 * count);
    for (int i = 0; i < count; ++i)
        for (int c = 0; c < 3; ++c) interleaved[3 * i + c] = val[c][i];

    // Forward.
    std::vector<float> one[3], c3[3], p3[3];
    for (int c = 0; c < 3; ++c) {
        one[c] = c3[c] = p3[c] = coef[c];
        ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), val[c].data(), count,
                                                  one[c].data(), order, st.p));
    }
    float* c3p[3] = {c3[0].data(), c3[1].data(), c3[2].data()};
    float* p3p[3] = {p3[0].data(), p3[1].data(), p3[2].data()};
    const float* vp[3] = {val[0].data(), val[1].data(), val[2].data()};
    ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C3P3I(d.x.data(), d.y.data(), d.z.data(), interleaved.data(), count, c3p,
                                                order, st.p));
    ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_P3I(d.x.data(), d.y.data(), d.z.data(), vp, count, p3p, order, st.p));
    for (int c = 0; c < 3; ++c) {
        EXPECT_TRUE(vt::SameBits(one[c], c3[c])) << "C3P3I channel " << c;
        EXPECT_TRUE(vt::SameBits(one[c], p3[c])) << "P3I channel " << c;
    }

    // Inverse.
    const float* cp[3] = {coef[0].data(), coef[1].data(), coef[2].data()};
    std::vector<float> inv1[3], invP[3], invC(3 * count);
    float* ip[3];
    for (int c = 0; c < 3; ++c) {
        inv1[c].resize(count);
        invP[c].resize(count);
        ip[c] = invP[c].data();
        ASSERT_EQ(vekStatusOk, vekrSHTInv_32f_C1(coef[c].data(), order, d.x.data(), d.y.data(), d.z.data(),
                                                 inv1[c].data(), count, st.p));
    }
    ASSERT_EQ(vekStatusOk, vekrSHTInv_32f_P3(cp, order, d.x.data(), d.y.data(), d.z.data(), ip, count, st.p));
    ASSERT_EQ(vekStatusOk,
              vekrSHTInv_32f_P3C3(cp, order, d.x.data(), d.y.data(), d.z.data(), invC.data(), count, st.p));
    for (int c = 0; c < 3; ++c) {
        EXPECT_TRUE(vt::SameBits(inv1[c], invP[c])) << "P3 channel " << c;
        for (int i = 0; i < count; ++i) ASSERT_EQ(vt::bits(inv1[c][i]), vt::bits(invC[3 * i + c])) << i;
    }
}

TEST(SHTransform, ValueShortcuts_OneAddsBasisZeroLeavesCoefficients) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float x[3] = {0.6f, nan, 0.0f}, y[3] = {0.0f, 0.0f, 0.6f}, z[3] = {0.8f, 0.5f, 0.8f};
    sht::State st(3, vekrSHDirect);
    float basis[16];
    ASSERT_EQ(vekStatusOk, vekrSH_32f(x, y, z, 1, basis, 3, st.p));

    // v = 1: exactly coefficient + basis.
    vt::Rng rng(1);
    float coef[16], want[16];
    for (int k = 0; k < 16; ++k) {
        coef[k] = rng.uniform(-1, 1);
        want[k] = coef[k] + basis[k];
    }
    const float one = 1.0f;
    ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C1I(x, y, z, &one, 1, coef, 3, st.p));
    EXPECT_TRUE(vt::SameBits(want, coef, 16));

    // v = 0 and v = -0 at a direction whose basis holds NaN: the scaled basis
    // is all zeros, so the coefficients keep their values (and -0 turns +0).
    // A nonzero value carries the NaN in.
    float keep[16];
    for (int k = 0; k < 16; ++k) keep[k] = coef[k] = rng.uniform(-1, 1);
    coef[5] = keep[5] = 0.0f;
    coef[6] = -0.0f;
    const float zeros[2] = {0.0f, -0.0f};
    ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C1I(x + 1, y + 1, z + 1, zeros, 1, coef, 3, st.p));
    ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C1I(x + 1, y + 1, z + 1, zeros + 1, 1, coef, 3, st.p));
    keep[6] = 0.0f;
    EXPECT_TRUE(vt::SameBits(keep, coef, 16));
    const float two = 2.0f;
    ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C1I(x + 1, y + 1, z + 1, &two, 1, coef, 3, st.p));
    EXPECT_TRUE(std::isnan(coef[3]));   // Y_1^1 depends on x
    EXPECT_FALSE(std::isnan(coef[2]));  // Y_1^0 does not
}

TEST(SHTransform, KnownResults_OrderZeroSumAndPoleRoundTrip) {
    // Order 0, samples 2 and 4: the single coefficient is 0.2820948 * 6.
    sht::State st0(0, vekrSHRecurrence);
    const float x[2] = {0, 1}, y[2] = {0, 0}, z[2] = {1, 0}, v[2] = {2, 4};
    float c0 = 0;
    ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C1I(x, y, z, v, 2, &c0, 0, st0.p));
    EXPECT_NEAR(0.2820948f * 6, c0, 1e-6);

    // One sample of value 1 at the pole, order 1, reconstructed there:
    // Y_0^0^2 + Y_1^0^2 = 1/pi.
    for (std::uint32_t type : {0u, 1u}) {
        sht::State st(1, type);
        float coef[4] = {0, 0, 0, 0}, back = 0;
        const float one = 1;
        ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C1I(x, y, z, &one, 1, coef, 1, st.p));
        ASSERT_EQ(vekStatusOk, vekrSHTInv_32f_C1(coef, 1, x, y, z, &back, 1, st.p));
        EXPECT_NEAR(0.3183099f, back, 1e-6) << "type " << type;
    }
}

// Forward transforms accumulate: two batches equal one batch bit for bit.
TEST(SHTransform, Forward_AccumulatesAcrossBatches) {
    sht::State st(4, vekrSHDirect);
    const sht::Directions d = sht::testDirections(20, 8);
    std::vector<float> val(d.size());
    vt::Rng rng(2);
    for (float& f : val) f = rng.uniform(-1, 1);
    std::vector<float> whole(25, 0.5f), split(25, 0.5f);
    ASSERT_EQ(vekStatusOk,
              vekrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), val.data(), d.size(), whole.data(), 4, st.p));
    const int h = 11;
    ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), val.data(), h, split.data(), 4, st.p));
    ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C1I(d.x.data() + h, d.y.data() + h, d.z.data() + h, val.data() + h,
                                              d.size() - h, split.data(), 4, st.p));
    EXPECT_TRUE(vt::SameBits(whole, split));
}

TEST(SHTransform, Checks_ComeInTheirOrderAndWriteNothing) {
    sht::State st(3, vekrSHDirect);
    sht::State big(20, vekrSHRecurrence);
    float x[2] = {0, 1}, y[2] = {0, 0}, z[2] = {1, 0}, v[6] = {1, 2, 3, 4, 5, 6};
    vt::Buf<float> c[3] = {vt::Buf<float>(400, 0), vt::Buf<float>(400, 0), vt::Buf<float>(400, 0)};
    vt::Buf<float> dst(6, 0);
    for (auto& b : c) vt::fillCanary(b);
    vt::fillCanary(dst);
    float* cp[3] = {c[0].data(), c[1].data(), c[2].data()};
    float* holey[3] = {c[0].data(), nullptr, c[2].data()};
    const float* vp[3] = {v, v + 2, v + 4};
    const float* vholey[3] = {v, v + 2, nullptr};
    float* dp[3] = {dst.data(), dst.data() + 2, dst.data() + 4};
    float* dholey[3] = {dst.data(), nullptr, dst.data() + 4};
    const float* const* ccp = cp;
    const float* choley[3] = {nullptr, c[1].data(), c[2].data()};

    // Null pointers (also inside the three-pointer records) before the count.
    EXPECT_EQ(vekStatusNullPtr, vekrSHTFwd_32f_C1I(x, y, nullptr, v, 0, cp[0], 3, st.p));
    EXPECT_EQ(vekStatusNullPtr, vekrSHTFwd_32f_C1I(x, y, z, v, 2, cp[0], 3, nullptr));
    EXPECT_EQ(vekStatusNullPtr, vekrSHTFwd_32f_C3P3I(x, y, z, v, 0, holey, 3, st.p));
    EXPECT_EQ(vekStatusNullPtr, vekrSHTFwd_32f_P3I(x, y, z, vholey, 2, cp, 3, st.p));
    EXPECT_EQ(vekStatusNullPtr, vekrSHTFwd_32f_P3I(x, y, z, vp, 2, holey, 3, st.p));
    EXPECT_EQ(vekStatusNullPtr, vekrSHTInv_32f_C1(nullptr, 3, x, y, z, dp[0], 2, st.p));
    EXPECT_EQ(vekStatusNullPtr, vekrSHTInv_32f_P3(ccp, 3, x, y, z, dholey, 0, st.p));
    EXPECT_EQ(vekStatusNullPtr, vekrSHTInv_32f_P3(choley, 3, x, y, z, dp, 2, st.p));
    EXPECT_EQ(vekStatusNullPtr, vekrSHTInv_32f_P3C3(choley, 3, x, y, z, dst.data(), 2, st.p));
    // Count 0 before the order.
    EXPECT_EQ(vekStatusBadSize, vekrSHTInv_32f_P3(ccp, 99, x, y, z, dp, 0, st.p));
    EXPECT_EQ(vekStatusBadSize, vekrSHTFwd_32f_C1I(x, y, z, v, 0, cp[0], 99, st.p));
    // The order against the state, before the sign of the count; and never
    // above 15, even when the state allows it.
    EXPECT_EQ(vekStatusBadArgument, vekrSHTFwd_32f_C1I(x, y, z, v, -1, cp[0], 4, st.p));
    EXPECT_EQ(vekStatusBadArgument, vekrSHTFwd_32f_C1I(x, y, z, v, 2, cp[0], 16, big.p));
    EXPECT_EQ(vekStatusBadArgument, vekrSHTFwd_32f_C3P3I(x, y, z, v, 2, cp, 19, big.p));
    EXPECT_EQ(vekStatusBadArgument, vekrSHTFwd_32f_P3I(x, y, z, vp, 2, cp, 16, big.p));
    EXPECT_EQ(vekStatusBadArgument, vekrSHTInv_32f_C1(cp[0], 16, x, y, z, dp[0], 2, big.p));
    EXPECT_EQ(vekStatusBadArgument, vekrSHTInv_32f_P3(ccp, 20, x, y, z, dp, 2, big.p));
    EXPECT_EQ(vekStatusBadArgument, vekrSHTInv_32f_P3C3(ccp, 16, x, y, z, dst.data(), 2, big.p));
    // A negative count does nothing.
    EXPECT_EQ(vekStatusOk, vekrSHTFwd_32f_C1I(x, y, z, v, -3, cp[0], 3, st.p));
    EXPECT_EQ(vekStatusOk, vekrSHTFwd_32f_C3P3I(x, y, z, v, -3, cp, 3, st.p));
    EXPECT_EQ(vekStatusOk, vekrSHTInv_32f_P3C3(ccp, 3, x, y, z, dst.data(), -3, st.p));
    EXPECT_EQ(vekStatusOk, vekrSHTInv_32f_P3(ccp, 15, x, y, z, dp, -3, big.p));
    for (auto& b : c) EXPECT_TRUE(vt::CanaryIntact(b));
    EXPECT_TRUE(vt::CanaryIntact(dst));

    // Order 15 through the order-20 state touches exactly 256 coefficients.
    ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C3P3I(x, y, z, v, 2, cp, 15, big.p));
    for (auto& b : c) {
        EXPECT_FALSE(vt::CanaryIntact(b.data() + 255, 1));
        EXPECT_TRUE(vt::CanaryIntact(b.data() + 256, 400 - 256));
    }
}

}  // namespace
