// Ray casting: eye rays, reflections and shadow rays against plain per-ray
// rules, on the vector paths and the scalar ones.
#include <cmath>
#include <cstdint>
#include <vector>

#include "shading_data.h"
#include "testutil.h"
#include "vekr.h"

namespace {

const float kLimit = 0.0017453292f;

TEST(CastEye, BlockOffsetsAndRowOrderMatchTheRuleOnEveryPath) {
    vt::Rng rng(11);
    float o[3], sx[3], sy[3];  // inexact steps, so rounding order shows
    for (int c = 0; c < 3; ++c) {
        o[c] = rng.uniform(-1, 1);
        sx[c] = rng.uniform(-0.01f, 0.01f);
        sy[c] = rng.uniform(-0.01f, 0.01f);
    }
    auto run = [&](int bx, int by, int w, int h, std::size_t off) {
        vt::Planes<float> dir(static_cast<std::size_t>(w) * h, off);
        EXPECT_EQ(vekrCastEye_32f(o, sx, sy, bx, by, 37, 29, dir.ptrs(), w, h), vekStatusOk);
        return dir.bytes();
    };
    for (int w : {4, 12, 1, 6, 7})
        for (std::size_t off : {0u, 4u, 8u}) {
            std::vector<float> ref[3];
            for (int j = 0; j < 3; ++j)
                for (int i = 0; i < w; ++i) {
                    const float u = float(i) + float(3 * 37), v = float(j) + float(-2 * 29);
                    for (int c = 0; c < 3; ++c) ref[c].push_back((sy[c] * v + o[c]) + sx[c] * u);
                }
            std::vector<std::uint8_t> b;
            for (auto& p : ref) vt::appendBytes(b, p.data(), p.size());
            EXPECT_TRUE(vt::SameBits(b, run(3, -2, w, 3, off))) << "width " << w << ", offset " << off;
        }
    EXPECT_TRUE(vt::SameAcrossOffsets([&](std::size_t off) { return run(1, 1, 16, 5, off); }));

    // Block x 2 of width 16 starts at column u = 32.
    const float origin[3] = {-4, -2, 1}, stepX[3] = {0.5f, 0, 0}, stepY[3] = {0, 0.25f, 0};
    vt::Planes<float> dir(8, 0);
    ASSERT_EQ(vekrCastEye_32f(origin, stepX, stepY, 2, 1, 16, 16, dir.ptrs(), 4, 2), vekStatusOk);
    EXPECT_EQ(dir.p[0][0], 12.0f);
    EXPECT_EQ(dir.p[1][4], -2.0f + 0.25f * 17);
}

TEST(CastReflection, MirrorsLiveRaysAndZeroesMaskedOnes) {
    // Arrays: incident 0-2, normal 3-5, reflection 6-8.
    st::Data d = st::randomData(21, 9, -2, 2);
    const float inc[3] = {0, 0, -1}, n[3] = {0, 0, 1};
    for (int c = 0; c < 3; ++c) {
        d.f[c][0] = d.f[c][1] = inc[c];
        d.f[3 + c][0] = d.f[3 + c][1] = n[c];
    }
    d.m[0] = 0;
    d.m[1] = -1;
    auto call = [](st::Packet& p, int n) {
        EXPECT_EQ(vekrCastReflectionRay_32f(p.p3(0), p.m(), p.p3(3), p.p3(6), n), vekStatusOk);
    };
    st::Packet p(d, 4, [](int) { return std::size_t(0); });
    call(p, 4);
    EXPECT_EQ(p.at(8)[0], 1.0f) << "(0, 0, -1) about (0, 0, 1)";
    EXPECT_EQ(vt::bits(p.at(8)[1]), 0u) << "masked";
    st::expectRule(d, call, [](float* v, std::int32_t& m) {
        float r[3] = {0, 0, 0};
        if (m >= 0) {
            const float dot = (v[1] * v[4] + v[2] * v[5]) + v[0] * v[3];
            for (int c = 0; c < 3; ++c) r[c] = v[c] - v[3 + c] * (dot + dot);
        }
        for (int c = 0; c < 3; ++c) v[6 + c] = r[c];
    });
}

// Arrays: side 0, normal 1-3, hit 4-6, distance 7, direction 8-10. The light
// is at (0.25, -0.5, 0).
const float kLight[3] = {0.25f, -0.5f, 0.0f};

void castShadow(st::Packet& p, int n) {
    EXPECT_EQ(vekrCastShadowSO_32f(kLight, p.at(0), p.p3(1), p.p3(4), p.m(), p.at(7), p.p3(8), n), vekStatusOk);
}

// The rule step by step: zero outputs, then for a live ray the difference, the
// dot product, the cut to 0 below the grazing limit and the side test.
void shadowRule(float* v, std::int32_t& m) {
    v[7] = v[8] = v[9] = v[10] = 0.0f;
    if (m < 0) return;
    float s[3], d = 0.0f;
    for (int c = 0; c < 3; ++c) s[c] = v[4 + c] - kLight[c];
    d = (s[0] * v[1] + s[1] * v[2]) + s[2] * v[3];
    if (std::fabs(d) < kLimit) d = 0.0f;
    if (v[0] * d > 0.0f) {
        v[7] = std::fabs(d);
        for (int c = 0; c < 3; ++c) v[8 + c] = s[c];
    } else {
        m = -1;
    }
}

TEST(CastShadow, GrazingLimitIsInclusiveAndEntryMasksAreKept) {
    // Normal +z, hits straight above the light: d = hit.z - light.z exactly.
    const float below = std::nextafter(kLimit, 0.0f);
    const float dz[8] = {kLimit, below, -kLimit, -kLimit, 0.5f, 0.5f, 0.0f, 0.5f};
    const float side[8] = {1, 1, -1, 1, 1, INFINITY, INFINITY, 1};
    const std::int32_t mask[8] = {0, 0, 0, 0, -7, 0, 4, INT32_MIN};
    st::Data d;
    d.f.assign(11, std::vector<float>(8, 0.0f));
    for (int i = 0; i < 8; ++i) {
        d.f[0][i] = side[i];
        d.f[3][i] = 1.0f;
        for (int c = 0; c < 3; ++c) d.f[4 + c][i] = kLight[c];
        d.f[6][i] = kLight[2] + dz[i];
        d.m.push_back(mask[i]);
    }
    ASSERT_EQ(d.f[6][0] - kLight[2], kLimit) << "the test needs exact differences";
    for (int n : {8, 7})  // four-ray steps only, then with a scalar tail
        for (std::size_t off : {0u, 4u}) {
            st::Packet p(d, n, [&](int) { return off; });
            castShadow(p, n);
            EXPECT_EQ(p.at(7)[0], kLimit) << "exactly at the limit survives";
            EXPECT_EQ(p.m()[1], -1) << "just below the limit is culled";
            EXPECT_EQ(p.at(7)[2], kLimit) << "negative side and d";
            EXPECT_EQ(p.m()[3], -1) << "facing away";
            EXPECT_EQ(p.m()[4], -7) << "a mask negative on entry is kept";
            EXPECT_EQ(p.at(7)[5], 0.5f) << "infinite side factor";
            EXPECT_EQ(p.m()[6], -1) << "infinite side times a zero d is NaN";
            EXPECT_TRUE(vt::SameBits(st::reference(d, n, shadowRule), p.bytes()));
        }
}

TEST(CastShadow, MatchesTheRuleOnEveryPath) {
    st::Data d = st::randomData(31, 11, -3, 3);
    for (int i = 0; i < 64; i += 5) {  // some rays near the grazing limit
        d.f[1][i] = d.f[2][i] = 0;
        d.f[3][i] = 1;
        d.f[6][i] = kLight[2] + (i % 2 ? 0.0017f : 0.00175f);
    }
    st::expectRule(d, castShadow, shadowRule);
}

TEST(CastLarge, StreamedStoresGiveTheSameValues) {
    const float o[3] = {-1, -1, 1}, sx[3] = {1e-3f, 0, 0}, sy[3] = {0, 1e-3f, 0};
    EXPECT_TRUE(vt::SameAcrossOffsets(
        [&](std::size_t off) {
            vt::Planes<float> dir(1 << 20, off);
            EXPECT_EQ(vekrCastEye_32f(o, sx, sy, 0, 0, 1024, 1024, dir.ptrs(), 1024, 1024), vekStatusOk);
            return dir.bytes();
        },
        {4}));
    st::expectLargeCallAgrees(st::randomData(91, 9, -2, 2, 1 << 20), [](st::Packet& p, int n) {
        EXPECT_EQ(vekrCastReflectionRay_32f(p.p3(0), p.m(), p.p3(3), p.p3(6), n), vekStatusOk);
    });
    st::expectLargeCallAgrees(st::randomData(92, 11, -3, 3, 1 << 20), castShadow);
}

TEST(CastChecks, NullPointersAreRejectedBeforeAnyWrite) {
    st::Data d = st::randomData(41, 11, -1, 1, 8);
    const float light[3] = {0, 0, 0};
    st::Packet p(d, 8, [](int) { return std::size_t(0); });
    const auto before = p.bytes();
    for (int count : {8, 0}) {
        for (int k = 0; k < 4; ++k)
            EXPECT_EQ(vekrCastReflectionRay_32f(st::nullIf(k, 0, p.p3(1)), st::nullIf(k, 1, p.m()),
                                                st::nullIf(k, 2, p.p3(4)), st::nullIf(k, 3, p.p3(8)), count),
                      vekStatusNullPtr);
        for (int k = 0; k < 6; ++k)
            EXPECT_EQ(vekrCastShadowSO_32f(light, st::nullIf(k, 0, p.at(0)), st::nullIf(k, 1, p.p3(1)),
                                           st::nullIf(k, 2, p.p3(4)), st::nullIf(k, 3, p.m()),
                                           st::nullIf(k, 4, p.at(7)), st::nullIf(k, 5, p.p3(8)), count),
                      vekStatusNullPtr);
        EXPECT_EQ(vekrCastEye_32f(light, light, light, 0, 0, 4, 4, nullptr, count, 1), vekStatusNullPtr);
    }
    // Unchecked inputs are not rejected when there is nothing to do.
    EXPECT_EQ(vekrCastEye_32f(nullptr, nullptr, nullptr, 0, 0, 4, 4, p.p3(8), 4, 0), vekStatusOk);
    EXPECT_EQ(vekrCastEye_32f(nullptr, nullptr, nullptr, 0, 0, 4, 4, p.p3(8), -1, 4), vekStatusOk);
    EXPECT_EQ(vekrCastShadowSO_32f(nullptr, p.at(0), p.p3(1), p.p3(4), p.m(), p.at(7), p.p3(8), 0), vekStatusOk);
    EXPECT_EQ(vekrCastReflectionRay_32f(p.p3(1), p.m(), p.p3(4), p.p3(8), -2), vekStatusOk);
    EXPECT_TRUE(vt::SameBits(before, p.bytes())) << "nothing written";
}

}  // namespace
