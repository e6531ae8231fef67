// Spherical harmonics: the state (sizes, checks, table placement and values),
// both evaluators against a long-double evaluation of the definition and
// against their exact forms bit for bit, the single-band operation, the
// transforms, the argument checks and the agreement of the vector and scalar
// paths.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "testutil.h"
#include "vekr.h"

namespace {

constexpr int kTop = 15, kAll = (kTop + 1) * (kTop + 1);
const long double kPi = 3.141592653589793238462643383279502884L;
const float kNaN = std::numeric_limits<float>::quiet_NaN(), kInf = std::numeric_limits<float>::infinity();

// d^m/dz^m P_l(z) for l >= m, by the recurrence
//   Q_m^m = (2m-1)!!,  Q_(m+1)^m = (2m+1) z Q_m^m,
//   (l-m) Q_l^m = (2l-1) z Q_(l-1)^m - (l+m-1) Q_(l-2)^m.
// With sin^m(theta) it is (-1)^m P_l^m(z); keeping sin^m(theta) inside the
// azimuthal factor Re/Im (x+iy)^m makes the whole a polynomial in x, y, z,
// which is how the library defines the functions off the unit sphere too.
long double legendreDerivative(int l, int m, long double z) {
    long double qmm = 1.0L;
    for (int k = 1; k <= m; ++k) qmm *= 2 * k - 1;
    if (l == m) return qmm;
    long double q1 = (2 * m + 1) * z * qmm, q2 = qmm;
    for (int k = m + 2; k <= l; ++k) {
        const long double q = ((2 * k - 1) * z * q1 - (k + m - 1) * q2) / (k - m);
        q2 = q1;
        q1 = q;
    }
    return q1;
}

// Y_l^m(x, y, z) in long double, from the definition (no closed forms, no
// tables of the library).
long double referenceY(int l, int m, long double x, long double y, long double z) {
    const int am = m < 0 ? -m : m;
    long double ratio = 1.0L;  // (l-|m|)! / (l+|m|)!
    for (int k = l - am + 1; k <= l + am; ++k) ratio /= k;
    const long double k = std::sqrt((2 * l + 1) / (4 * kPi) * ratio);
    const long double q = legendreDerivative(l, am, z);
    if (m == 0) return k * q;
    long double re = 1.0L, im = 0.0L;
    for (int i = 0; i < am; ++i) {
        const long double r = re * x - im * y;
        im = re * y + im * x;
        re = r;
    }
    return std::sqrt(2.0L) * k * ((am & 1) ? -1.0L : 1.0L) * q * (m > 0 ? re : im);
}

// Distance between adjacent floats at the magnitude of v.
double ulpAt(long double v) {
    const float f = static_cast<float>(std::fabs(v));
    return static_cast<double>(std::nextafter(f, INFINITY) - f);
}

// A caller buffer holding an initialised state, 16-byte aligned.
struct State {
    vt::Buf<std::uint8_t> mem;
    VekrSHState* p = nullptr;
    State(std::uint32_t order, std::uint32_t type) {
        int size = 0;
        EXPECT_EQ(vekStatusOk, vekrSHGetSize_32f(order, type, &size));
        mem.reset(static_cast<std::size_t>(size), 0);
        p = reinterpret_cast<VekrSHState*>(mem.data());
        EXPECT_EQ(vekStatusOk, vekrSHInit_32f(p, order, type));
    }
};

// Directions: the poles, points on the axes and a few others, then random unit
// vectors whose z is a multiple of 2^-12, so that z*z is exact in single
// precision and the library's single-precision square adds no error the
// reference does not see.
struct Directions {
    std::vector<float> x, y, z;
    void add(float a, float b, float c) { x.push_back(a), y.push_back(b), z.push_back(c); }
    int size() const { return static_cast<int>(x.size()); }
};

Directions testDirections(int numRandom, std::uint64_t seed) {
    Directions d;
    const float h = std::sqrt(0.5f);
    for (float s : {1.0f, -1.0f}) d.add(0, 0, s), d.add(s, 0, 0), d.add(0, s, 0);
    d.add(h, h, 0);
    d.add(-0.8660254f, 0, 0.5f);
    d.add(0, 0.66143783f, -0.75f);
    vt::Rng rng(seed);
    for (int i = 0; i < numRandom; ++i) {
        const double z = std::round(rng.uniform(-1.0f, 1.0f) * 4096.0) / 4096.0;
        const double phi = rng.uniform(0.0f, 6.2831853f), s = std::sqrt(std::max(0.0, 1.0 - z * z));
        d.add(static_cast<float>(s * std::cos(phi)), static_cast<float>(s * std::sin(phi)), static_cast<float>(z));
    }
    return d;
}

// vekrSH_32f (band < 0) or vekrSHBand_32f on the first `count` directions,
// every array placed `off` bytes past a 16-byte boundary.
std::vector<float> run(const Directions& d, int count, std::size_t off, std::uint32_t order,
                       const VekrSHState* st, int band = -1) {
    const int n = band < 0 ? static_cast<int>((order + 1) * (order + 1)) : 2 * band + 1;
    vt::Buf<float> x(d.x, off), y(d.y, off), z(d.z, off), out(static_cast<std::size_t>(count) * n, off);
    const VekStatus s = band < 0 ? vekrSH_32f(x.data(), y.data(), z.data(), count, out.data(), order, st)
                                 : vekrSHBand_32f(x.data(), y.data(), z.data(), count, out.data(), band);
    EXPECT_EQ(vekStatusOk, s);
    return out.vec();
}

std::vector<float> evaluate(const Directions& d, std::uint32_t order, std::uint32_t type) {
    State st(order, type);
    return run(d, d.size(), 0, order, st.p);
}

// ---------------------------------------------------------------------------
// State
// ---------------------------------------------------------------------------

// The header rounded up to 16 bytes: 16 with 4-byte pointers, 32 with 8-byte
// pointers, where the header is 24 bytes and every type-1 size grows by 16.
constexpr int kSpan = sizeof(void*) == 4 ? 16 : 32;

TEST(SHState, SizesAndInit_ChecksInOrderAndFailuresWriteNothing) {
    const int type1[][2] = {{0, 48}, {1, 48}, {2, 80}, {3, 112}, {4, 144}, {7, 304}, {15, 1104}, {16, 1264}};
    for (const auto& t : type1) {
        int size = -1;
        EXPECT_EQ(vekStatusOk, vekrSHGetSize_32f(t[0], vekrSHRecurrence, &size));
        EXPECT_EQ(t[1] - 16 + kSpan, size) << "order " << t[0];
    }
    int size = -1;
    EXPECT_EQ(vekStatusOk, vekrSHGetSize_32f(15, vekrSHDirect, &size));
    EXPECT_EQ(static_cast<int>(sizeof(VekrSHState)), size);
    EXPECT_EQ(sizeof(void*) == 4 ? 16u : 24u, sizeof(VekrSHState));
    // Failures leave *pSize alone; a null pSize wins over every other fault.
    size = 12345;
    EXPECT_EQ(vekStatusBadSize, vekrSHGetSize_32f(16, vekrSHDirect, &size));
    EXPECT_EQ(vekStatusBadArgument, vekrSHGetSize_32f(3, 2, &size));
    EXPECT_EQ(12345, size);
    EXPECT_EQ(vekStatusNullPtr, vekrSHGetSize_32f(16, vekrSHDirect, nullptr));
    EXPECT_EQ(vekStatusNullPtr, vekrSHGetSize_32f(3, 2, nullptr));

    vt::Buf<std::uint8_t> mem(64, 8);  // type 0 needs no 16-byte alignment
    vt::fillCanary(mem);
    auto* st = reinterpret_cast<VekrSHState*>(mem.data());
    EXPECT_EQ(vekStatusNullPtr, vekrSHInit_32f(nullptr, 99, 7));
    EXPECT_EQ(vekStatusBadSize, vekrSHInit_32f(st, 16, vekrSHDirect));
    EXPECT_EQ(vekStatusBadArgument, vekrSHInit_32f(st, 3, 2));
    EXPECT_TRUE(vt::CanaryIntact(mem));
    // Type 0 clears exactly the header.
    ASSERT_EQ(vekStatusOk, vekrSHInit_32f(st, 15, vekrSHDirect));
    EXPECT_EQ(15u, st->order);
    EXPECT_EQ(0u, st->type);
    EXPECT_EQ(nullptr, st->pFactorA);
    EXPECT_EQ(nullptr, st->pFactorB);
    EXPECT_TRUE(vt::CanaryIntact(mem.data() + sizeof(VekrSHState), 64 - sizeof(VekrSHState)));
}

// The tables as the rule builds them, each entry with its own mix of single
// and double arithmetic (rows 0 and 1 fixed, then A_l[0], A_l[m], A_l[l],
// B_l[0], B_l[m]).
float ruleA(int l, int m) {
    const double a00 = static_cast<float>(1.0 / std::sqrt(12.566370614359172));
    if (l == 0) return static_cast<float>(a00);
    if (l == 1) return static_cast<float>(m == 0 ? a00 * 1.7320508075688772 : 0.0 - a00 * 1.7320508075688772);
    if (m == 0) return static_cast<float>(std::sqrt(4.0 * l * l - 1.0) / l);
    if (m == l) return static_cast<float>(-std::sqrt((2.0 * l + 1.0) / (2.0 * l)));
    return std::sqrt(static_cast<float>(4 * l * l - 1) / static_cast<float>(l * l - m * m));
}
float ruleB(int l, int m) {
    if (l < 2 || m == l) return 0.0f;
    if (m == 0) {
        const float q = static_cast<float>(2 * l + 1) / static_cast<float>(2 * l - 3);
        return static_cast<float>((1.0 / l - 1.0) * std::sqrt(static_cast<double>(q)));
    }
    const float r = static_cast<float>((2 * l + 1) * ((l - 1) * (l - 1) - m * m)) /
                    static_cast<float>((2 * l - 3) * (l * l - m * m));
    return static_cast<float>(0.0 - std::sqrt(static_cast<double>(r)));
}

// What the entries mean: the normalised Legendre recurrence factors, in long
// double. Each stored entry carries one or two roundings of single precision.
long double exactA(int l, int m) {
    if (l == 0) return 1.0L / std::sqrt(4 * kPi);
    if (l == 1) return (m == 0 ? 1 : -1) * std::sqrt(3.0L / (4 * kPi));
    if (m == l) return -std::sqrt((2.0L * l + 1) / (2.0L * l));
    return std::sqrt((4.0L * l * l - 1) / (static_cast<long double>(l) * l - static_cast<long double>(m) * m));
}
long double exactB(int l, int m) {
    if (l < 2 || m >= l - 1) return 0.0L;
    const long double ll = l, mm = m;
    return -std::sqrt((2 * ll + 1) * ((ll - 1) * (ll - 1) - mm * mm) / ((2 * ll - 3) * (ll * ll - mm * mm)));
}

// Orders 20 down to 0 are initialised in turn in one buffer: each init must
// leave every byte past its reported size as it was, and zero every byte of
// its own size that is neither header nor table entry, so re-initialising
// with a smaller order equals fresh memory.
TEST(SHState, RecurrenceTables_PlacementValuesAndZeroFill_Orders20To0) {
    int maxSize = 0;
    ASSERT_EQ(vekStatusOk, vekrSHGetSize_32f(20, vekrSHRecurrence, &maxSize));
    vt::Buf<std::uint8_t> mem(static_cast<std::size_t>(maxSize) + 64, 0);
    vt::fillCanary(mem);
    auto* st = reinterpret_cast<VekrSHState*>(mem.data());
    const std::uint8_t* base = mem.data();
    for (int order = 20; order >= 0; --order) {
        int size = 0;
        ASSERT_EQ(vekStatusOk, vekrSHGetSize_32f(order, vekrSHRecurrence, &size));
        const std::vector<std::uint8_t> before = mem.bytes();
        ASSERT_EQ(vekStatusOk, vekrSHInit_32f(st, order, vekrSHRecurrence));
        ASSERT_EQ(0, std::memcmp(before.data() + size, base + size, mem.size() - size)) << "order " << order;
        EXPECT_EQ(static_cast<std::uint32_t>(order), st->order);
        EXPECT_EQ(1u, st->type);

        const int n = (order + 1) * (order + 2) / 2;
        const auto* a = reinterpret_cast<const std::uint8_t*>(st->pFactorA);
        const auto* b = reinterpret_cast<const std::uint8_t*>(st->pFactorB);
        EXPECT_EQ(base + kSpan, a) << "order " << order;
        const std::uintptr_t endA = reinterpret_cast<std::uintptr_t>(a) + 4u * n;
        EXPECT_EQ((endA + 15) & ~std::uintptr_t(15), reinterpret_cast<std::uintptr_t>(b)) << "order " << order;
        ASSERT_LE(b + 4 * n, base + size) << "order " << order;

        // Bit-exact entries; for order 0 also the row-1 entries of A, which
        // land in the gap before B.
        const int rows = std::max(order, 1);
        for (int l = 0; l <= rows; ++l)
            for (int m = 0; m <= l; ++m) {
                const float ga = st->pFactorA[l * (l + 1) / 2 + m];
                EXPECT_EQ(vt::bits(ruleA(l, m)), vt::bits(ga)) << "A_" << l << "[" << m << "]";
                EXPECT_NEAR(static_cast<double>(exactA(l, m)), ga, 2.5 * ulpAt(exactA(l, m))) << l << " " << m;
                if (l > order) continue;
                const float gb = st->pFactorB[l * (l + 1) / 2 + m];
                EXPECT_EQ(vt::bits(ruleB(l, m)), vt::bits(gb)) << "B_" << l << "[" << m << "]";  // +0 at m >= l-1
                EXPECT_NEAR(static_cast<double>(exactB(l, m)), gb, 2.5 * ulpAt(exactB(l, m))) << l << " " << m;
            }

        std::vector<bool> used(static_cast<std::size_t>(size), false);
        std::fill(used.begin(), used.begin() + sizeof(VekrSHState), true);
        std::fill(used.begin() + (a - base), used.begin() + (a - base) + 4 * std::max(n, 3), true);
        std::fill(used.begin() + (b - base), used.begin() + (b - base) + 4 * n, true);
        for (int k = 0; k < size; ++k) ASSERT_TRUE(used[k] || base[k] == 0) << "order " << order << " byte " << k;
    }
}

// ---------------------------------------------------------------------------
// Evaluation
// ---------------------------------------------------------------------------

// The closed form computes each polynomial in double and rounds once: the
// correctly rounded value up to the double evaluation error, at most a few
// units of 2^-53 times the sum of the magnitudes of the Horner terms (below
// 1e5 for band 15), so below 1e-10; the allowance 1e-9 is still 60 times
// smaller than one single ulp at magnitude 1. The recurrence runs in single
// precision and its error grows about linearly with the band (measured about
// 1.5e-7 (l+1)); the bound 2^-21 (l+1) is three times that and far below what
// a wrong table entry gives.
TEST(SHEval, BothTypes_MatchTheDefinitionForEveryBand) {
    for (std::uint32_t type : {0u, 1u}) {
        const Directions d = testDirections(400, 11 + type);
        const std::vector<float> got = evaluate(d, kTop, type);
        for (int l = 0; l <= kTop; ++l) {
            double worst = 0;  // the closed form: error beyond half an ulp; the recurrence: the error
            for (int i = 0; i < d.size(); ++i)
                for (int m = -l; m <= l; ++m) {
                    const long double ref = referenceY(l, m, d.x[i], d.y[i], d.z[i]);
                    const double err = std::fabs(static_cast<double>(got[i * kAll + l * l + l + m] - ref));
                    worst = std::max(worst, type == 0 ? err - 0.5 * ulpAt(ref) : err);
                }
            EXPECT_LE(worst, type == 0 ? 1e-9 : std::ldexp(1.0, -21) * (l + 1)) << "type " << type << " band " << l;
        }
    }
}

// The recurrence's steps written out with the state's tables, all in single
// precision with the products grouped as stated: (A z) Y_(l-1) + B Y_(l-2).
std::vector<float> recurrenceSteps(const VekrSHState* st, float x, float y, float z) {
    std::vector<float> v(kAll);
    auto Y = [&](int l, int m) -> float& { return v[l * l + l + m]; };
    auto A = [&](int l, int m) { return st->pFactorA[l * (l + 1) / 2 + m]; };
    auto B = [&](int l, int m) { return st->pFactorB[l * (l + 1) / 2 + m]; };
    Y(0, 0) = A(0, 0);
    Y(1, -1) = A(1, 1) * y;
    Y(1, 0) = A(1, 0) * z;
    Y(1, 1) = A(1, 1) * x;
    for (int l = 2; l <= kTop; ++l) {
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

// The values with every NaN made the same quiet NaN: the sign and payload of
// a NaN that arithmetic creates (0 * inf) are no part of any rule.
std::vector<float> canon(const float* p, int n) {
    std::vector<float> v(p, p + n);
    for (float& f : v) f = std::isnan(f) ? kNaN : f;
    return v;
}

// Bands 0-3 of the closed form use fixed forms (x and y widened to double,
// z^2 squared in single, the polynomial in double as written, one rounding
// at the store); the recurrence follows its steps. Both bit for bit, on the
// vector path (offset 0) and the scalar path (offset 4), for unit and
// non-unit vectors, denormals, NaN and infinity.
TEST(SHEval, ExactForms_BitForBitOnBothPaths) {
    vt::Rng rng(21);
    Directions d = testDirections(30, 52);  // 39
    for (int i = 0; i < 42; ++i) d.add(rng.uniform(-2, 2), rng.uniform(-2, 2), rng.uniform(-2, 2));
    d.add(1e-30f, -3e-39f, 1e-20f);  // denormal and underflowing products
    d.add(kNaN, 0.0f, 0.5f);
    d.add(0.0f, -0.0f, kInf);
    ASSERT_EQ(0, d.size() % 4);
    State rec(kTop, vekrSHRecurrence), direct(3, vekrSHDirect);
    for (std::size_t off : {std::size_t(0), std::size_t(4)}) {
        const std::vector<float> gotR = run(d, d.size(), off, kTop, rec.p);
        const std::vector<float> gotD = run(d, d.size(), off, 3, direct.p);
        for (int i = 0; i < d.size(); ++i) {
            const std::vector<float> steps = recurrenceSteps(rec.p, d.x[i], d.y[i], d.z[i]);
            ASSERT_TRUE(vt::SameBits(canon(steps.data(), kAll), canon(gotR.data() + i * kAll, kAll)))
                << "offset " << off << " direction " << i;
            const double x = d.x[i], y = d.y[i], z = d.z[i], z2 = d.z[i] * d.z[i];
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
            ASSERT_TRUE(vt::SameBits(canon(want, 16), canon(gotD.data() + 16 * i, 16)))
                << "offset " << off << " direction " << i;
        }
    }
    // The NaN x (with y = 0) reaches the closed form's higher bands too: every
    // function but m = 0 and m = -1 (Im(x + iy) = y needs no x).
    State all(kTop, vekrSHDirect);
    const float nx[1] = {kNaN}, ny[1] = {0.0f}, nz[1] = {0.5f};
    float out[kAll];
    ASSERT_EQ(vekStatusOk, vekrSH_32f(nx, ny, nz, 1, out, kTop, all.p));
    for (int l = 4; l <= kTop; ++l)
        for (int m = -l; m <= l; ++m)
            EXPECT_EQ(m != 0 && m != -1, std::isnan(out[l * l + l + m])) << "Y_" << l << "^" << m;
}

// Lower orders are prefixes of order 15 for both types, the single-band
// operation equals the band's slice of the closed form, and the vector path
// (aligned arrays, count a multiple of 4) equals the scalar path (offsets 4
// and 8), for every order and band.
TEST(SHEval, OrdersBandsAndPaths_AgreeBitForBit) {
    const Directions d = testDirections(27, 41);  // 36 directions
    for (std::uint32_t type : {0u, 1u}) {
        State st(kTop, type);
        const std::vector<float> full = run(d, d.size(), 0, kTop, st.p);
        for (std::uint32_t order : {0u, 1u, 2u, 3u, 4u, 5u, 8u, 14u, 15u}) {
            const int n = static_cast<int>((order + 1) * (order + 1));
            EXPECT_TRUE(vt::SameAcrossOffsets([&](std::size_t off) {
                const std::vector<float> got = run(d, d.size(), off, order, st.p);
                for (int i = 0; i < d.size(); ++i)
                    EXPECT_TRUE(vt::SameBits(got.data() + i * n, full.data() + i * kAll, n))
                        << "type " << type << " order " << order << " direction " << i;
                std::vector<std::uint8_t> out;
                vt::appendBytes(out, got.data(), got.size());
                return out;
            })) << "type " << type << " order " << order;
            if (type == 1 || order != kTop) continue;
            for (int band = 0; band <= kTop; ++band) {
                const int w = 2 * band + 1;
                EXPECT_TRUE(vt::SameAcrossOffsets([&](std::size_t off) {
                    const std::vector<float> got = run(d, d.size(), off, 0, nullptr, band);
                    for (int i = 0; i < d.size(); ++i)
                        EXPECT_TRUE(vt::SameBits(got.data() + i * w, full.data() + i * kAll + band * band, w))
                            << "band " << band << " direction " << i;
                    std::vector<std::uint8_t> out;
                    vt::appendBytes(out, got.data(), got.size());
                    return out;
                })) << "band " << band;
            }
        }
    }
}

TEST(SHEval, Checks_ComeInTheirOrderAndWriteNothing) {
    float x[4] = {0, 0, 1, 0}, y[4] = {0, 1, 0, 0}, z[4] = {1, 0, 0, 1};
    vt::Buf<float> out(4 * 256, 0);
    State direct(3, vekrSHDirect), rec(20, vekrSHRecurrence);
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
    VekrSHState bad = *direct.p;  // an unknown state type
    bad.type = 2;
    EXPECT_EQ(vekStatusBadArgument, vekrSH_32f(x, y, z, 4, out.data(), 3, &bad));
    // vekrSHBand_32f: band before count.
    EXPECT_EQ(vekStatusNullPtr, vekrSHBand_32f(x, y, z, 0, nullptr, 16));
    EXPECT_EQ(vekStatusBadArgument, vekrSHBand_32f(x, y, z, 0, out.data(), 16));
    EXPECT_EQ(vekStatusBadSize, vekrSHBand_32f(x, y, z, 0, out.data(), 15));
    EXPECT_EQ(vekStatusOk, vekrSHBand_32f(x, y, z, -1, out.data(), 15));
    EXPECT_TRUE(vt::CanaryIntact(out));
    // Order 15 through the order-20 state writes exactly 256 values a
    // direction; order 3 exactly 16.
    EXPECT_EQ(vekStatusOk, vekrSH_32f(x, y, z, 3, out.data(), 15, rec.p));
    EXPECT_TRUE(vt::CanaryIntact(out.data() + 3 * 256, 256));
    EXPECT_FALSE(vt::CanaryIntact(out.data() + 2 * 256 + 255, 1));
    vt::fillCanary(out);
    EXPECT_EQ(vekStatusOk, vekrSH_32f(x, y, z, 3, out.data(), 3, rec.p));
    EXPECT_TRUE(vt::CanaryIntact(out.data() + 3 * 16, 4 * 256 - 3 * 16));
    EXPECT_FALSE(vt::CanaryIntact(out.data() + 3 * 16 - 1, 1));
}

// ---------------------------------------------------------------------------
// Transforms
// ---------------------------------------------------------------------------

// A product rule on the sphere: Gauss-Legendre in z (exact for polynomials of
// degree 2N-1) times M uniform angles in phi (exact for trigonometric
// polynomials of degree below M). The product of two functions of bands up to
// L has degree 2L in z and in phi, so N = L+1 and M = 2L+2 integrate it
// exactly; what remains is single-precision rounding.
struct Quadrature : Directions {
    std::vector<float> w;
    explicit Quadrature(int order) {
        const int n = order + 1, m = 2 * order + 2;
        for (int i = 0; i < n; ++i) {
            // Newton iteration for the i-th root of P_n from the Chebyshev guess.
            long double t = std::cos(kPi * (i + 0.75L) / (n + 0.5L)), dp = 0;
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
            const long double wz = 2 / ((1 - t * t) * dp * dp), s = std::sqrt(1 - t * t);
            for (int j = 0; j < m; ++j) {
                const long double phi = 2 * kPi * j / m;
                add(static_cast<float>(s * std::cos(phi)), static_cast<float>(s * std::sin(phi)),
                    static_cast<float>(t));
                w.push_back(static_cast<float>(wz * 2 * kPi / m));
            }
        }
    }
};

TEST(SHTransform, Quadrature_RecoversBandLimitedCoefficients) {
    for (std::uint32_t type : {0u, 1u}) {
        for (std::uint32_t order : {0u, 1u, 3u, 8u, 15u}) {
            State st(order, type);
            const Quadrature q(static_cast<int>(order));
            const int n = static_cast<int>((order + 1) * (order + 1));
            vt::Rng rng(order * 7 + type);
            std::vector<float> coeffs(n), f(q.size()), back(n, 0.0f);
            for (float& c : coeffs) c = rng.uniform(-1, 1);
            // Samples of the function through the inverse transform, weighted
            // by the rule, projected back.
            ASSERT_EQ(vekStatusOk, vekrSHTInv_32f_C1(coeffs.data(), order, q.x.data(), q.y.data(), q.z.data(),
                                                     f.data(), q.size(), st.p));
            for (int i = 0; i < q.size(); ++i) f[i] *= q.w[i];
            ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C1I(q.x.data(), q.y.data(), q.z.data(), f.data(), q.size(),
                                                      back.data(), order, st.p));
            // Single-precision rounding leaves errors up to 1.7e-6 (measured,
            // order 15); a wrong basis function gives errors of order 1.
            for (int k = 0; k < n; ++k)
                EXPECT_NEAR(coeffs[k], back[k], 1e-5) << "type " << type << " order " << order << " k " << k;
        }
    }
}

// Each three-channel form is the one-channel form per channel, bit for bit;
// forward transforms accumulate, so two batches of the one-channel form equal
// one batch of the three-channel forms.
TEST(SHTransform, ThreeChannelForms_EqualOneChannelPerChannelAndBatchesAccumulate) {
    const std::uint32_t order = 5;
    const int n = 36;
    State st(order, vekrSHRecurrence);
    const Directions d = testDirections(31, 3);
    const int count = d.size(), half = 11;
    const float *x = d.x.data(), *y = d.y.data(), *z = d.z.data();
    vt::Rng rng(9);
    std::vector<float> val[3], coef[3], one[3], c3[3], p3[3], inv1[3], invP[3], inter(3 * count), invC(3 * count);
    for (int c = 0; c < 3; ++c) {
        for (int i = 0; i < count; ++i) val[c].push_back(rng.uniform(-2, 2));
        val[c][c] = c == 0 ? 1.0f : 0.0f;  // the shortcuts, per channel
        for (int k = 0; k < n; ++k) coef[c].push_back(rng.uniform(-1, 1));
        for (int i = 0; i < count; ++i) inter[3 * i + c] = val[c][i];
        one[c] = c3[c] = p3[c] = coef[c];
        inv1[c].resize(count);
        invP[c].resize(count);
        ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C1I(x, y, z, val[c].data(), half, one[c].data(), order, st.p));
        ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C1I(x + half, y + half, z + half, val[c].data() + half, count - half,
                                                  one[c].data(), order, st.p));
        ASSERT_EQ(vekStatusOk, vekrSHTInv_32f_C1(coef[c].data(), order, x, y, z, inv1[c].data(), count, st.p));
    }
    float* c3p[3] = {c3[0].data(), c3[1].data(), c3[2].data()};
    float* p3p[3] = {p3[0].data(), p3[1].data(), p3[2].data()};
    float* ip[3] = {invP[0].data(), invP[1].data(), invP[2].data()};
    const float* vp[3] = {val[0].data(), val[1].data(), val[2].data()};
    const float* cp[3] = {coef[0].data(), coef[1].data(), coef[2].data()};
    ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_C3P3I(x, y, z, inter.data(), count, c3p, order, st.p));
    ASSERT_EQ(vekStatusOk, vekrSHTFwd_32f_P3I(x, y, z, vp, count, p3p, order, st.p));
    ASSERT_EQ(vekStatusOk, vekrSHTInv_32f_P3(cp, order, x, y, z, ip, count, st.p));
    ASSERT_EQ(vekStatusOk, vekrSHTInv_32f_P3C3(cp, order, x, y, z, invC.data(), count, st.p));
    for (int c = 0; c < 3; ++c) {
        EXPECT_TRUE(vt::SameBits(one[c], c3[c])) << "C3P3I channel " << c;
        EXPECT_TRUE(vt::SameBits(one[c], p3[c])) << "P3I channel " << c;
        EXPECT_TRUE(vt::SameBits(inv1[c], invP[c])) << "P3 channel " << c;
        for (int i = 0; i < count; ++i) ASSERT_EQ(vt::bits(inv1[c][i]), vt::bits(invC[3 * i + c])) << i;
    }
}

TEST(SHTransform, ValueShortcuts_OneAddsBasisZeroLeavesCoefficients) {
    const float x[3] = {0.6f, kNaN, 0.0f}, y[3] = {0.0f, 0.0f, 0.6f}, z[3] = {0.8f, 0.5f, 0.8f};
    State st(3, vekrSHDirect);
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

TEST(SHTransform, Checks_ComeInTheirOrderAndWriteNothing) {
    State st(3, vekrSHDirect), big(20, vekrSHRecurrence);
    float x[2] = {0, 1}, y[2] = {0, 0}, z[2] = {1, 0}, v[6] = {1, 2, 3, 4, 5, 6};
    vt::Buf<float> c[3] = {vt::Buf<float>(400, 0), vt::Buf<float>(400, 0), vt::Buf<float>(400, 0)}, dst(6, 0);
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
