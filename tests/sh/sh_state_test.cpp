// Spherical-harmonics state: reported sizes, initialisation checks, table
// placement inside the caller's buffer and the recurrence tables' values.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "sh_reference.h"
#include "testutil.h"
#include "vekr.h"

namespace {

// The header rounded up to 16 bytes: 16 with 4-byte pointers, 32 with 8-byte
// pointers, where the header is 24 bytes and every type-1 size grows by 16.
constexpr int kSpan = sizeof(void*) == 4 ? 16 : 32;

TEST(SHState, Sizes_ForBothTypesAndStatuses) {
    const struct {
        std::uint32_t order;
        int i386Size;
    } type1[] = {{0, 48}, {1, 48}, {2, 80}, {3, 112}, {4, 144}, {7, 304}, {15, 1104}, {16, 1264}};
    for (const auto& t : type1) {
        int size = -1;
        EXPECT_EQ(vekStatusOk, vekrSHGetSize_32f(t.order, vekrSHRecurrence, &size));
        EXPECT_EQ(t.i386Size - 16 + kSpan, size) << "order " << t.order;
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
}

TEST(SHState, Init_ChecksInOrderAndFailuresWriteNothing) {
    vt::Buf<std::uint8_t> mem(256, 0);
    vt::fillCanary(mem);
    auto* st = reinterpret_cast<VekrSHState*>(mem.data());
    EXPECT_EQ(vekStatusNullPtr, vekrSHInit_32f(nullptr, 99, 7));
    EXPECT_EQ(vekStatusBadSize, vekrSHInit_32f(st, 16, vekrSHDirect));
    EXPECT_EQ(vekStatusBadArgument, vekrSHInit_32f(st, 3, 2));
    EXPECT_TRUE(vt::CanaryIntact(mem));
}

TEST(SHState, DirectInit_ClearsExactlyTheHeader) {
    vt::Buf<std::uint8_t> mem(64, 8);  // type 0 needs no 16-byte alignment
    vt::fillCanary(mem);
    auto* st = reinterpret_cast<VekrSHState*>(mem.data());
    ASSERT_EQ(vekStatusOk, vekrSHInit_32f(st, 15, vekrSHDirect));
    EXPECT_EQ(15u, st->order);
    EXPECT_EQ(0u, st->type);
    EXPECT_EQ(nullptr, st->pFactorA);
    EXPECT_EQ(nullptr, st->pFactorB);
    EXPECT_TRUE(vt::CanaryIntact(mem.data() + sizeof(VekrSHState), 64 - sizeof(VekrSHState)));
}

// The tables as the rule builds them, each entry with its own mix of single
// and double arithmetic, written from the table of definitions (rows 0 and 1
// fixed, then A_l[0], A_l[m], A_l[l], B_l[0], B_l[m]).
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
    const long double pi = 3.141592653589793238462643383279502884L;
    if (l == 0) return 1.0L / std::sqrt(4 * pi);
    if (l == 1) return (m == 0 ? 1 : -1) * std::sqrt(3.0L / (4 * pi));
    if (m == l) return -std::sqrt((2.0L * l + 1) / (2.0L * l));
    return std::sqrt((4.0L * l * l - 1) / (static_cast<long double>(l) * l - static_cast<long double>(m) * m));
}
long double exactB(int l, int m) {
    if (l < 2 || m >= l - 1) return 0.0L;
    const long double ll = l, mm = m;
    return -std::sqrt((2 * ll + 1) * ((ll - 1) * (ll - 1) - mm * mm) / ((2 * ll - 3) * (ll * ll - mm * mm)));
}

TEST(SHState, RecurrenceTables_PlacementValuesAndZeroFill_Orders0To20) {
    for (std::uint32_t order = 0; order <= 20; ++order) {
        int size = 0;
        ASSERT_EQ(vekStatusOk, vekrSHGetSize_32f(order, vekrSHRecurrence, &size));
        // The exact reported size, with canaries behind it and in it.
        vt::Buf<std::uint8_t> mem(static_cast<std::size_t>(size) + 64, 0);
        vt::fillCanary(mem);
        auto* st = reinterpret_cast<VekrSHState*>(mem.data());
        ASSERT_EQ(vekStatusOk, vekrSHInit_32f(st, order, vekrSHRecurrence));
        EXPECT_TRUE(vt::CanaryIntact(mem.data() + size, 64)) << "order " << order;
        EXPECT_EQ(order, st->order);
        EXPECT_EQ(1u, st->type);

        const int n = static_cast<int>((order + 1) * (order + 2) / 2);
        const std::uint8_t* base = mem.data();
        const auto* a = reinterpret_cast<const std::uint8_t*>(st->pFactorA);
        const auto* b = reinterpret_cast<const std::uint8_t*>(st->pFactorB);
        EXPECT_EQ(base + kSpan, a) << "order " << order;
        const std::uintptr_t endA = reinterpret_cast<std::uintptr_t>(a) + 4u * n;
        EXPECT_EQ((endA + 15) & ~std::uintptr_t(15), reinterpret_cast<std::uintptr_t>(b)) << "order " << order;
        EXPECT_LE(b + 4 * n, base + size) << "order " << order;

        // Bit-exact entries; for order 0 also the row-1 entries of A, which
        // land in the gap before B.
        const int rows = order < 1 ? 1 : static_cast<int>(order);
        for (int l = 0; l <= rows; ++l) {
            for (int m = 0; m <= l; ++m) {
                const float ga = st->pFactorA[l * (l + 1) / 2 + m];
                EXPECT_EQ(vt::bits(ruleA(l, m)), vt::bits(ga)) << "A_" << l << "[" << m << "]";
                EXPECT_NEAR(static_cast<double>(exactA(l, m)), ga, 2.5 * sht::ulpAt(static_cast<double>(exactA(l, m))))
                    << "A_" << l << "[" << m << "]";
                if (l > static_cast<int>(order)) continue;
                const float gb = st->pFactorB[l * (l + 1) / 2 + m];
                EXPECT_EQ(vt::bits(ruleB(l, m)), vt::bits(gb)) << "B_" << l << "[" << m << "]";
                EXPECT_NEAR(static_cast<double>(exactB(l, m)), gb, 2.5 * sht::ulpAt(static_cast<double>(exactB(l, m))))
                    << "B_" << l << "[" << m << "]";
            }
        }

        // Every byte outside the header and the entries written is zero.
        std::vector<bool> used(static_cast<std::size_t>(size), false);
        for (std::size_t k = 0; k < sizeof(VekrSHState); ++k) used[k] = true;
        const int aEntries = order < 1 ? 3 : n;
        for (int k = 0; k < 4 * aEntries; ++k) used[static_cast<std::size_t>(a - base + k)] = true;
        for (int k = 0; k < 4 * n; ++k) used[static_cast<std::size_t>(b - base + k)] = true;
        for (int k = 0; k < size; ++k)
            if (!used[k]) {
                ASSERT_EQ(0, base[k]) << "order " << order << " byte " << k;
            }
    }
}

TEST(SHState, RecurrenceTablesRow2_HaveTheKnownValues) {
    sht::State st(2, vekrSHRecurrence);
    const float* a = st.p->pFactorA + 3;
    const float* b = st.p->pFactorB + 3;
    EXPECT_NEAR(1.9364917f, a[0], 1e-7);
    EXPECT_NEAR(2.2360680f, a[1], 1e-7);
    EXPECT_NEAR(-1.1180340f, a[2], 1e-7);
    EXPECT_NEAR(-1.1180340f, b[0], 1e-7);
    // B_l[l-1] is 0 - sqrt(0): +0, not -0.
    EXPECT_EQ(0u, vt::bits(b[1]));
    EXPECT_EQ(0u, vt::bits(b[2]));
}

// Re-initialising the same memory with a smaller order or the other type
// gives the same bytes as fresh memory (the zero fill covers the old tables
// up to the new size).
TEST(SHState, Reinit_EqualsFreshInitialisation) {
    sht::State big(15, vekrSHRecurrence);
    ASSERT_EQ(vekStatusOk, vekrSHInit_32f(big.p, 3, vekrSHRecurrence));
    sht::State fresh(3, vekrSHRecurrence);
    int size = 0;
    vekrSHGetSize_32f(3, vekrSHRecurrence, &size);
    const auto* pb = reinterpret_cast<const std::uint8_t*>(big.p);
    const auto* pf = reinterpret_cast<const std::uint8_t*>(fresh.p);
    EXPECT_TRUE(vt::SameBits(pb + sizeof(VekrSHState), pf + sizeof(VekrSHState), size - sizeof(VekrSHState)));
    EXPECT_EQ(0, std::memcmp(pb, pf, 8));
}

}  // namespace
