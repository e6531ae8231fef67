// The shared interpolation rules: cubic weights and the conversion of float
// results to 8u and 16u, scalar and four-lane forms.
#include <gtest/gtest.h>

#include <cmath>

#include "resize_testutil.h"
#include "volume/interp_weights.h"

namespace {

using namespace vekr;

// The four weights equal the independently written reference kernel rounded
// once to float (within half a float ulp, plus the cancellation error of
// either double evaluation near a zero) and sum to 1.
TEST(InterpWeights, CubicWeightsMatchReferenceAndSumToOne) {
    for (int code : {4, 5, 6, 7})
        for (int i = 0; i < 64; ++i) {
            const double t = i / 64.0;
            float w[4];
            ownCubicWeights(ownCubicKernel(code), t, w);
            double ref[4];
            rt::refCubicWeights(code, t, ref);
            for (int j = 0; j < 4; ++j)
                EXPECT_NEAR(ref[j], w[j], std::fabs(ref[j]) * 0x1p-24 + 1e-14) << "code " << code << " t " << t;
            EXPECT_NEAR(1.0, double(w[0]) + w[1] + w[2] + w[3], 4e-7) << "code " << code << " t " << t;
        }
}

// trunc(sum + 0.5000001) clamped to the range, scalar and vector alike.
// 0.4999999 + 0.5000001 reaches 1 (in float too); 0.4999998 does not.
TEST(InterpWeights, IntegerConversionRoundsHalfUpAndClamps) {
    const float sums[] = {0.0f,  0.4999999f, 0.4999998f, 0.5f,     1.5f,     254.49f,   254.5f,  255.4f,
                          300.f, -0.4f,      -0.6f,      -1e9f,    65534.5f, 65535.2f,  1e9f,    INFINITY,
                          -INFINITY, NAN,    -0.0f,      1e-40f};
    const int want8[] = {0, 1, 0, 1, 2, 254, 255, 255, 255, 0, 0, 0, 255, 255, 255, 255, 0, 0, 0, 0};
    const int want16[] = {0, 1, 0, 1, 2, 254, 255, 255, 300, 0, 0, 0, 65535, 65535, 65535, 65535, 0, 0, 0, 0};
    for (int i = 0; i < 20; i += 4) {
        std::uint8_t b[4];
        std::uint16_t h[4];
        ownStoreInterp4(b, _mm_loadu_ps(sums + i));
        ownStoreInterp4(h, _mm_loadu_ps(sums + i));
        for (int j = i; j < i + 4; ++j) {
            EXPECT_EQ(want8[j], ownStoreInterp<std::uint8_t>(sums[j])) << sums[j];
            EXPECT_EQ(want16[j], ownStoreInterp<std::uint16_t>(sums[j])) << sums[j];
            EXPECT_EQ(want8[j], b[j - i]) << sums[j];
            EXPECT_EQ(want16[j], h[j - i]) << sums[j];
        }
    }
}

}  // namespace
