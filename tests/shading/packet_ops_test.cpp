// Shading arithmetic against plain per-ray rules on the vector path, the
// scalar path and the alignment-peeling loops, plus the special values each
// rule is about: masked infinities, signed zeros, NaN comparisons, division by zero.
#include <cmath>
#include <cstdint>
#include <vector>

#include "shading_data.h"
#include "testutil.h"
#include "vekr.h"

namespace {

const float kInf = INFINITY;
std::size_t aligned(int) { return 0; }

float dot3(const float* a, const float* b) { return (a[0] * b[0] + a[1] * b[1]) + a[2] * b[2]; }

TEST(Dot, MatchesTheRuleOnEveryPath) {
    // Arrays: a 0-2, b 3-5, dot 6.
    st::expectRule(
        st::randomData(71, 7, -3, 3),
        [](st::Packet& p, int n) { EXPECT_EQ(vekrDot_32f_P3C1M(p.p3(0), p.p3(3), p.m(), p.at(6), n), vekStatusOk); },
        [](float* v, std::int32_t& m) { v[6] = m < 0 ? 0.0f : dot3(v, v + 3); });
}

// Arrays: direction 0-2, normal 3-5, dot 6.
void changeNorm(st::Packet& p, int n) {
    EXPECT_EQ(vekrDotChangeNorm_32f_IM(p.p3(0), p.m(), p.p3(3), p.at(6), n), vekStatusOk);
}

TEST(DotChangeNorm, NormalsTurnAgainstTheRayAndMaskedOnesStay) {
    st::Data d = st::randomData(72, 7, -1, 1);
    // (direction, normal) pairs: (+z, +z) flips, (+z, -z) stays, (+z, +x) has
    // d = 0 and stays, a NaN normal component gives NaN d and s = +1.
    const float nan = vt::fromBits(st::kNaNBits);
    const float cases[4][6] = {{0, 0, 1, 0, 0, 1}, {0, 0, 1, 0, 0, -1}, {0, 0, 1, 1, 0, 0}, {0, 0, 1, nan, 0, 1}};
    for (int i = 0; i < 4; ++i)
        for (int k = 0; k < 6; ++k) d.f[k][i] = cases[i][k];
    for (int i = 0; i < 4; ++i) d.m[i] = 0;
    d.f[3][4] = -0.0f;  // a masked normal keeps its bits, signalling NaN included
    d.f[4][4] = vt::fromBits(0x7FA00001u);
    d.m[4] = -1;
    const float snan = vt::fromBits(0x7FA00001u), z = d.f[5][4];
    // Per ray: the normal after the call and the dot product.
    const std::vector<float> expect = {-0.0f, -0.0f, -1,  -1, 0, 0,   -1,    -1,   1, 0,
                                       0,     0,     nan, 0,  1, nan, -0.0f, snan, z, 0};
    for (int n : {8, 7}) {
        st::Packet p(d, n, aligned);
        changeNorm(p, n);
        std::vector<float> got;
        for (int i = 0; i < 5; ++i) got.insert(got.end(), {p.at(3)[i], p.at(4)[i], p.at(5)[i], p.at(6)[i]});
        EXPECT_TRUE(vt::SameBits(expect, got));
    }
    st::expectRule(d, changeNorm, [](float* v, std::int32_t& m) {
        if (m < 0) {
            v[6] = 0.0f;
            return;
        }
        const float dot = dot3(v, v + 3);
        const float s = dot > 0.0f ? -1.0f : 1.0f;
        for (int c = 0; c < 3; ++c) v[3 + c] = s * v[3 + c];
        v[6] = dot * s;
    });
}

TEST(DistAttenuation, NeverBelowOneExceptForNaN) {
    // Arrays: point 0-2, distance 3. The light's y and z match the first
    // points', so point - light = (dx, 0, 0) exactly.
    const float light[3] = {0, 4, -0.0f};
    const float below1 = std::nextafter(1.0f, 0.0f), above1 = std::nextafter(1.0f, 2.0f);
    const float dx[7] = {0.5f, 3.0f, 1.0f, below1, above1, kInf, vt::fromBits(st::kNaNBits)};
    st::Data d = st::randomData(73, 4, -2, 2);
    for (int i = 0; i < 7; ++i) {
        d.f[0][i] = dx[i];
        d.f[1][i] = 4.0f;
        d.f[2][i] = 0.0f;
        d.m[i] = 0;
    }
    d.m[7] = -1;
    auto call = [&](st::Packet& p, int n) {
        EXPECT_EQ(vekrDistAttenuationSO_32f_M(light, p.p3(0), p.m(), p.at(3), n), vekStatusOk);
    };
    // 0.5 -> 1; 3 -> 3; q exactly 1 -> 1; q = 1 - 2^-23 -> 1, not its root; inf; NaN; masked -> 1.
    const std::vector<float> expect = {1, 3, 1, 1, std::sqrt(above1 * above1), kInf, vt::fromBits(st::kNaNBits), 1};
    for (int n : {8, 7}) {
        st::Packet p(d, n, aligned);
        call(p, n);
        EXPECT_TRUE(vt::SameBits(expect.data(), p.at(3), n));
    }
    st::expectRule(d, call, [&](float* v, std::int32_t& m) {
        float s[3];
        for (int c = 0; c < 3; ++c) s[c] = v[c] - light[c];
        const float q = dot3(s, s);
        v[3] = (m < 0 || 1.0f > q) ? 1.0f : std::sqrt(q);
    });
}

// The multiply rules scale by 1 or 0 rather than storing 0 for a masked ray.
float maskFactor(std::int32_t m) { return m < 0 ? 0.0f : 1.0f; }

TEST(Mul, MaskedProductsAreScaledByZeroOnEveryAlignment) {
    // Arrays: source 0, destination 1 (C1) or 1-3 (P3).
    st::Data d = st::randomData(74, 4, -4, 4);
    const float src[6] = {1, 1, 1, 3, 2, -0.0f}, dst[6] = {kInf, -2, vt::fromBits(st::kNaNBits), 5, kInf, 1};
    for (int i = 0; i < 6; ++i) {
        d.f[0][i] = src[i];
        d.f[1][i] = dst[i];
        d.m[i] = i < 3 ? -1 : 0;
    }
    auto mulC1 = [](st::Packet& p, int n) { EXPECT_EQ(vekrMul_32f_C1IM(p.at(0), p.m(), p.at(1), n), vekStatusOk); };
    st::Packet p(d, 6, aligned);
    mulC1(p, 6);
    const std::uint32_t expect[6] = {st::kNaNBits,    0x80000000u,    st::kNaNBits,
                                     vt::bits(15.0f), vt::bits(kInf), 0x80000000u};
    EXPECT_TRUE(vt::SameBits(expect, reinterpret_cast<const std::uint32_t*>(p.at(1)), 6))
        << "masked inf -> NaN, masked -2 -> -0";
    EXPECT_EQ(vekrMul_32f_C1IM(nullptr, nullptr, nullptr, 0), vekStatusOk) << "no pointer checks";

    st::expectRuleAnyAlignment(d, 1, mulC1, [](float* v, std::int32_t& m) { v[1] = (v[1] * v[0]) * maskFactor(m); });
    auto mulP3 = [](st::Packet& q, int n) { EXPECT_EQ(vekrMul_32f_C1P3IM(q.at(0), q.m(), q.p3(1), n), vekStatusOk); };
    auto ruleP3 = [](float* v, std::int32_t& m) {
        for (int c = 1; c < 4; ++c) v[c] = (v[c] * v[0]) * maskFactor(m);
    };
    st::expectRuleAnyAlignment(d, 0, mulP3, ruleP3);
    st::expectRule(d, mulP3, ruleP3);
}

TEST(DivC1, ZeroDivisorsGiveSignedInfinityOrDefaultNaNAndWarn) {
    // Arrays: divisor 0, dividend/quotient 1.
    auto div = [](st::Data d, int n) {
        st::Packet p(d, n, [](int k) { return k == 1 ? std::size_t(8) : std::size_t(4); });
        const VekStatus s = vekrDiv_32f_C1IM(p.at(0), p.m(), p.at(1), n);
        return std::make_pair(s, std::vector<float>(p.at(1), p.at(1) + n));
    };
    st::Data d;
    d.f = {{0, -0.0f, 0, 0, 2, 0}, {3, -3, 0, vt::fromBits(0x7FC12345u), 5, 3}};
    d.m = {0, 0, 0, 0, 0, -1};
    auto r = div(d, 6);
    EXPECT_EQ(r.first, vekStatusDivByZero);
    const std::vector<float> expect = {kInf, -kInf, vt::fromBits(0xFFC00000u), vt::fromBits(0xFFC00000u), 2.5f, 0.0f};
    EXPECT_TRUE(vt::SameBits(expect, r.second)) << "every element is processed; the masked one is +0";
    EXPECT_EQ(div(st::Data{{{2, 0}, {3, 3}}, {0, -1}}, 2).first, vekStatusOk) << "a masked zero divisor does not warn";

    // Zero divisors of both signs among random and special values, on every
    // alignment of divisor and quotient (the four-wide steps replace the lanes
    // with a zero divisor); the status says whether a live ray divided by zero.
    st::Data rnd = st::randomData(76, 2, -4, 4);
    for (int i = 0; i < 67; i += 5) rnd.f[0][i] = (i & 1) ? -0.0f : 0.0f;
    auto call = [](st::Packet& q, int n) {
        bool zero = false;
        for (int i = 0; i < n; ++i) zero = zero || (q.m()[i] >= 0 && q.at(0)[i] == 0.0f);
        EXPECT_EQ(vekrDiv_32f_C1IM(q.at(0), q.m(), q.at(1), n), zero ? vekStatusDivByZero : vekStatusOk);
    };
    st::expectRuleAnyAlignment(rnd, 1, call, [](float* v, std::int32_t& m) {
        const float a = v[1], b = v[0];
        v[1] = m < 0 ? 0.0f : b != 0.0f ? a / b : a > 0 ? kInf : a < 0 ? -kInf : vt::fromBits(0xFFC00000u);
    });
}

TEST(AddMulMul, AccumulatesLiveRaysAndLeavesMaskedOnesUntouched) {
    // Arrays: src1 0, src2 1-3, accumulator 4-6.
    const float color[3] = {0.8f, 0.6f, 0.1f};
    st::Data d = st::randomData(77, 7, -1, 1);
    d.f[4][1] = -0.0f;  // a masked -0 stays -0 (adding a zero term would not)
    d.m[1] = -1;
    auto call = [&](st::Packet& p, int n) {
        EXPECT_EQ(vekrAddMulMul_32f_AC1P3IM(color, p.at(0), p.p3(1), p.m(), p.p3(4), n), vekStatusOk);
    };
    auto rule = [&](float* v, std::int32_t& m) {
        if (m < 0) return;
        for (int c = 0; c < 3; ++c) v[4 + c] = v[4 + c] + (v[1 + c] * color[c]) * v[0];
    };
    st::expectRuleAnyAlignment(d, 0, call, rule);
    st::expectRule(d, call, rule);
}

TEST(ShadingLarge, StreamedStoresGiveTheSameValues) {
    const float light[3] = {0.5f, 0, -1};
    st::expectLargeCallAgrees(st::randomData(94, 11, -2, 2, 1 << 20), [&](st::Packet& p, int n) {
        EXPECT_EQ(vekrDot_32f_P3C1M(p.p3(0), p.p3(3), p.m(), p.at(6), n), vekStatusOk);
        EXPECT_EQ(vekrDistAttenuationSO_32f_M(light, p.p3(0), p.m(), p.at(7), n), vekStatusOk);
        changeNorm(p, n);
        EXPECT_EQ(vekrMul_32f_C1P3IM(p.at(8), p.m(), p.p3(0), n), vekStatusOk);
        EXPECT_EQ(vekrAddMulMul_32f_AC1P3IM(light, p.at(9), p.p3(6), p.m(), p.p3(1), n), vekStatusOk);
    });
}

TEST(ShadingChecks, NullPointersAreRejectedBeforeAnyWrite) {
    st::Packet p(st::randomData(78, 8, -1, 1, 8), 8, aligned);
    const auto before = p.bytes();
    const float light[3] = {0, 0, 0};
    float* c1 = p.at(7);
    const std::int32_t* m = p.m();
    for (int count : {8, 0}) {
        for (int k = 0; k < 4; ++k) {
            EXPECT_EQ(vekrDot_32f_P3C1M(st::nullIf(k, 0, p.p3(0)), st::nullIf(k, 1, p.p3(3)), st::nullIf(k, 2, m),
                                        st::nullIf(k, 3, c1), count),
                      vekStatusNullPtr);
            EXPECT_EQ(vekrDotChangeNorm_32f_IM(st::nullIf(k, 0, p.p3(0)), st::nullIf(k, 1, m),
                                               st::nullIf(k, 2, p.p3(3)), st::nullIf(k, 3, c1), count),
                      vekStatusNullPtr);
            EXPECT_EQ(vekrAddMulMul_32f_AC1P3IM(light, st::nullIf(k, 0, c1), st::nullIf(k, 1, p.p3(0)),
                                                st::nullIf(k, 2, m), st::nullIf(k, 3, p.p3(3)), count),
                      vekStatusNullPtr);
        }
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(vekrDistAttenuationSO_32f_M(light, st::nullIf(k, 0, p.p3(0)), st::nullIf(k, 1, m),
                                                  st::nullIf(k, 2, c1), count),
                      vekStatusNullPtr);
            EXPECT_EQ(vekrMul_32f_C1P3IM(st::nullIf(k, 0, c1), st::nullIf(k, 1, m), st::nullIf(k, 2, p.p3(0)), count),
                      vekStatusNullPtr);
        }
        for (int k = 0; k < 2; ++k)
            EXPECT_EQ(vekrDiv_32f_C1IM(st::nullIf(k, 0, c1), m, st::nullIf(k, 1, p.at(6)), count), vekStatusNullPtr);
    }
    // Unchecked pointers (light, colour, the division's mask) with nothing to do.
    EXPECT_EQ(vekrDistAttenuationSO_32f_M(nullptr, p.p3(0), m, c1, 0), vekStatusOk);
    EXPECT_EQ(vekrDiv_32f_C1IM(c1, nullptr, p.at(6), 0), vekStatusOk);
    EXPECT_EQ(vekrAddMulMul_32f_AC1P3IM(nullptr, c1, p.p3(0), m, p.p3(3), -2), vekStatusOk);
    EXPECT_TRUE(vt::SameBits(before, p.bytes())) << "nothing written";
}

}  // namespace
