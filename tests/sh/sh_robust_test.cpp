// Spherical harmonics against hostile input: state sizes that must not wrap,
// bad counts, orders and types that must write nothing, special values in
// the directions, and every operation run on arrays that touch an
// inaccessible page, so that one byte read or written past either end faults.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <vector>

#include "guard_page.h"
#include "testutil.h"
#include "vekr.h"

namespace {

using vt::GuardSide;

// Type-1 state size from its definition, in 64 bits: 8n rounded up to 32,
// plus the header rounded up to 16 bytes. Negative when it is beyond int.
long long expectedRecurrenceSize(std::uint32_t order) {
    const unsigned long long n = (order + 1ull) * (order + 2ull) / 2;
    const unsigned long long header = (sizeof(VekrSHState) + 15) / 16 * 16;
    const unsigned long long size = (8 * n + 31) / 32 * 32 + header;
    return size > unsigned(INT_MAX) ? -1 : static_cast<long long>(size);
}

// The size query never reports a wrapped size: every order either yields the
// exact size with success or fails with vekStatusBadSize and leaves *pSize
// alone. Orders around the last one whose size fits in an int, and the far
// end of the unsigned range, where the 32-bit products wrapped to tiny sizes.
TEST(SHRobust, StateSizeNeverWraps) {
    const std::uint32_t orders[] = {0,     1,     15,         16,          20,          1000,       23168,
                                    23169, 23170, 23171,      46339,       46340,       65535,      65536,
                                    92681, 92682, 0x7FFFFFFF, 0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu};
    int fits = 0, refused = 0;
    for (std::uint32_t order : orders) {
        int size = -12345;
        const VekStatus st = vekrSHGetSize_32f(order, vekrSHRecurrence, &size);
        const long long want = expectedRecurrenceSize(order);
        if (want > 0) {
            ++fits;
            EXPECT_EQ(st, vekStatusOk) << "order " << order;
            EXPECT_EQ(size, want) << "order " << order;
        } else {
            ++refused;
            EXPECT_EQ(st, vekStatusBadSize) << "order " << order;
            EXPECT_EQ(size, -12345) << "order " << order;
        }
        // Type 0 serves orders 0 .. 15 only, whatever the order's size.
        size = -12345;
        EXPECT_EQ(vekrSHGetSize_32f(order, vekrSHDirect, &size), order <= 15 ? vekStatusOk : vekStatusBadSize);
        EXPECT_EQ(size, order <= 15 ? int(sizeof(VekrSHState)) : -12345);
    }
    EXPECT_GT(fits, 5);
    EXPECT_GT(refused, 5);
}

// Initialising for an order whose size the query refuses writes nothing: the
// reported issue was order 0xFFFFFFFF, whose wrapped size was 32 bytes, and
// an initialisation that zeroed and filled far past a state of that size.
TEST(SHRobust, InitRefusesOrdersWhoseSizeDoesNotFit) {
    for (std::uint32_t order : {23170u, 65535u, 65536u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        vt::Guarded<std::uint8_t> state(64, 0, GuardSide::After);
        vt::fillCanary(state.data(), state.size());
        EXPECT_EQ(vekrSHInit_32f(reinterpret_cast<VekrSHState*>(state.data()), order, vekrSHRecurrence),
                  vekStatusBadSize)
            << "order " << order;
        EXPECT_TRUE(vt::CanaryIntact(state.data(), state.size())) << "order " << order;
        EXPECT_TRUE(state.slackIntact());
    }
    // Bad types and type-0 orders are refused before any write as well.
    vt::Guarded<std::uint8_t> state(64, 0, GuardSide::After);
    vt::fillCanary(state.data(), state.size());
    auto* s = reinterpret_cast<VekrSHState*>(state.data());
    EXPECT_EQ(vekrSHInit_32f(s, 3, 2), vekStatusBadArgument);
    EXPECT_EQ(vekrSHInit_32f(s, 3, 0xFFFFFFFFu), vekStatusBadArgument);
    EXPECT_EQ(vekrSHInit_32f(s, 16, vekrSHDirect), vekStatusBadSize);
    EXPECT_EQ(vekrSHInit_32f(s, 0xFFFFFFFFu, vekrSHDirect), vekStatusBadSize);
    EXPECT_TRUE(vt::CanaryIntact(state.data(), state.size()));
}

// The bytes of n floats with every NaN replaced by one quiet NaN. The sign of
// a NaN result depends on which NaN operand the processor passes on, which the
// compiler's operand order decides (it differs between optimisation levels);
// the comparisons below are exact for every other value.
std::vector<std::uint8_t> canonicalBytes(const float* p, std::size_t n) {
    std::vector<float> v(p, p + n);
    for (float& f : v)
        if (std::isnan(f)) f = std::numeric_limits<float>::quiet_NaN();
    std::vector<std::uint8_t> out(n * sizeof(float));
    if (n) std::memcpy(out.data(), v.data(), out.size());
    return out;
}

// A state in guarded memory of exactly the reported size, starting on a
// 16-byte boundary; initialised once, then only read.
struct GuardedState {
    vt::Guarded<std::uint8_t> mem;
    VekrSHState* get() { return reinterpret_cast<VekrSHState*>(mem.data()); }
    GuardedState(std::uint32_t order, std::uint32_t type, GuardSide side) {
        int size = 0;
        EXPECT_EQ(vekrSHGetSize_32f(order, type, &size), vekStatusOk);
        mem = vt::Guarded<std::uint8_t>(static_cast<std::size_t>(size), 0, side);
        EXPECT_EQ(vekrSHInit_32f(get(), order, type), vekStatusOk);
    }
};

// Initialisation stays inside the reported size for every order up to 40 and
// both types, with the state against a guard page on either side.
TEST(SHRobust, InitStaysInsideTheReportedSize) {
    for (GuardSide side : {GuardSide::After, GuardSide::Before})
        for (std::uint32_t type : {vekrSHDirect, vekrSHRecurrence})
            for (std::uint32_t order = 0; order <= (type == vekrSHDirect ? 15u : 40u); ++order) {
                GuardedState s(order, type, side);
                EXPECT_TRUE(s.mem.slackIntact()) << "type " << type << " order " << order;
                EXPECT_EQ(s.get()->order, order);
            }
}

// The ten operations of the family as one table. Each runs on directions
// x, y, z of `count` entries, sample values (three channels, planar and
// interleaved views of the same data), coefficient vectors and destinations.
struct Arrays {
    float *x, *y, *z;
    float* val;        // 3 * count: interleaved, or planar thirds
    float* coeffs[3];  // (order + 1)^2 each
    float* dst;        // count * perDirection
};

struct SHOp {
    const char* name;
    int perDirection(std::uint32_t order) const {  // destination floats per direction
        const int n = int((order + 1) * (order + 1));
        return band ? int(2 * order + 1) : (kind == 0 ? n : kind == 2 ? 3 : kind == 1 ? 0 : 1);
    }
    bool band;  // vekrSHBand_32f (the order is the band, no state)
    int kind;   // 0 basis, 1 forward (writes coefficients), 2 inverse with three channels, 3 inverse C1
    std::function<VekStatus(Arrays&, int count, std::uint32_t order, const VekrSHState*)> call;
};

const SHOp kOps[] = {
    {"SH_32f", false, 0,
     [](Arrays& a, int n, std::uint32_t o, const VekrSHState* s) { return vekrSH_32f(a.x, a.y, a.z, n, a.dst, o, s); }},
    {"SHBand_32f", true, 0,
     [](Arrays& a, int n, std::uint32_t o, const VekrSHState*) { return vekrSHBand_32f(a.x, a.y, a.z, n, a.dst, o); }},
    {"SHTFwd_32f_C1I", false, 1,
     [](Arrays& a, int n, std::uint32_t o, const VekrSHState* s) {
         return vekrSHTFwd_32f_C1I(a.x, a.y, a.z, a.val, n, a.coeffs[0], o, s);
     }},
    {"SHTFwd_32f_C3P3I", false, 1,
     [](Arrays& a, int n, std::uint32_t o, const VekrSHState* s) {
         return vekrSHTFwd_32f_C3P3I(a.x, a.y, a.z, a.val, n, a.coeffs, o, s);
     }},
    {"SHTFwd_32f_P3I", false, 1,
     [](Arrays& a, int n, std::uint32_t o, const VekrSHState* s) {
         const float* v[3] = {a.val, a.val + (n > 0 ? n : 0), a.val + 2 * (n > 0 ? n : 0)};
         return vekrSHTFwd_32f_P3I(a.x, a.y, a.z, v, n, a.coeffs, o, s);
     }},
    {"SHTInv_32f_C1", false, 3,
     [](Arrays& a, int n, std::uint32_t o, const VekrSHState* s) {
         return vekrSHTInv_32f_C1(a.coeffs[0], o, a.x, a.y, a.z, a.dst, n, s);
     }},
    {"SHTInv_32f_P3", false, 2,
     [](Arrays& a, int n, std::uint32_t o, const VekrSHState* s) {
         const float* c[3] = {a.coeffs[0], a.coeffs[1], a.coeffs[2]};
         float* d[3] = {a.dst, a.dst + (n > 0 ? n : 0), a.dst + 2 * (n > 0 ? n : 0)};
         return vekrSHTInv_32f_P3(c, o, a.x, a.y, a.z, d, n, s);
     }},
    {"SHTInv_32f_P3C3", false, 2,
     [](Arrays& a, int n, std::uint32_t o, const VekrSHState* s) {
         const float* c[3] = {a.coeffs[0], a.coeffs[1], a.coeffs[2]};
         return vekrSHTInv_32f_P3C3(c, o, a.x, a.y, a.z, a.dst, n, s);
     }},
};

// Every array of one call, each against its own guard page. The directions
// and samples get deterministic values with a sprinkling of special values;
// coefficients and destinations start from fixed patterns.
struct GuardedCall {
    vt::Guarded<float> x, y, z, val, c0, c1, c2, dst;
    Arrays a{};
    GuardedCall(const SHOp& op, int count, std::uint32_t order, std::size_t offset, GuardSide side,
                std::uint64_t seed) {
        const std::size_t n = std::size_t(count), nc = std::size_t((order + 1) * (order + 1));
        const std::size_t nd = n * std::size_t(op.perDirection(order));
        x = vt::Guarded<float>(n, offset, side), y = vt::Guarded<float>(n, offset, side);
        z = vt::Guarded<float>(n, offset, side), val = vt::Guarded<float>(3 * n, offset, side);
        c0 = vt::Guarded<float>(nc, offset, side), c1 = vt::Guarded<float>(nc, offset, side);
        c2 = vt::Guarded<float>(nc, offset, side);
        dst = vt::Guarded<float>(nd > 0 ? nd : 1, offset, side);
        vt::Rng rng(seed);
        const float specials[] = {0.0f, -0.0f, 1.0f, 1e30f, -1e-40f, std::numeric_limits<float>::infinity(),
                                  std::numeric_limits<float>::quiet_NaN()};
        auto value = [&] { return rng.below(8) == 0 ? specials[rng.below(7)] : rng.uniform(-1.5f, 1.5f); };
        for (std::size_t i = 0; i < n; ++i) x[i] = value(), y[i] = value(), z[i] = value();
        for (std::size_t i = 0; i < 3 * n; ++i) val[i] = value();
        for (std::size_t i = 0; i < nc; ++i) c0[i] = 0.25f * float(i), c1[i] = -1.0f, c2[i] = 1.0f / float(i + 1);
        dst.fill(-7.0f);
        a = Arrays{x.data(), y.data(), z.data(), val.data(), {c0.data(), c1.data(), c2.data()}, dst.data()};
    }
    bool slackIntact() const {
        return x.slackIntact() && y.slackIntact() && z.slackIntact() && val.slackIntact() && c0.slackIntact() &&
               c1.slackIntact() && c2.slackIntact() && dst.slackIntact();
    }
    std::vector<std::uint8_t> outputs() const {
        std::vector<std::uint8_t> out;
        for (const vt::Guarded<float>* g : {&c0, &c1, &c2, &dst}) {
            auto b = canonicalBytes(g->data(), g->size());
            out.insert(out.end(), b.begin(), b.end());
        }
        return out;
    }
};

// The guard-page runner: every operation, both state types, counts 1 to 9 and
// around multiples of 4 and 16, every array 0, 4, 8 or 12 bytes past a 16-byte
// boundary and against a guard page after it or before it. No access may
// fault, the slack next to each array must keep its canary, and the outputs
// must be the bits of the aligned call (offset 0 takes the vector path where
// the count allows it).
TEST(SHRobust, GuardPageRunnerEveryOperation) {
    const int counts[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 15, 16, 17, 31, 32, 33};
    int calls = 0;
    for (const SHOp& op : kOps)
        for (std::uint32_t type : {vekrSHDirect, vekrSHRecurrence}) {
            if (op.band && type == vekrSHRecurrence) continue;
            GuardedState state(15, type, GuardSide::After);
            for (int count : counts) {
                const std::uint32_t order = std::uint32_t(count * 7) % 16;  // every order 0 .. 15 occurs
                const std::uint64_t seed = std::uint64_t(count) * 131 + order;
                std::vector<std::uint8_t> ref;
                for (GuardSide side : {GuardSide::After, GuardSide::Before})
                    for (std::size_t offset : {0, 4, 8, 12}) {
                        GuardedCall call(op, count, order, offset, side, seed);
                        ASSERT_EQ(op.call(call.a, count, order, state.get()), vekStatusOk) << op.name;
                        ASSERT_TRUE(call.slackIntact()) << op.name << " count " << count << " offset " << offset;
                        const auto out = call.outputs();
                        if (ref.empty())
                            ref = out;
                        else
                            ASSERT_TRUE(vt::SameBits(ref, out))
                                << op.name << " type " << type << " count " << count << " offset " << offset;
                        ++calls;
                    }
            }
            EXPECT_TRUE(state.mem.slackIntact());
        }
    EXPECT_GT(calls, 1000);
}

// Bad counts and orders: count 0 is vekStatusBadSize, a negative count
// (-1, -3, INT_MIN) succeeds and does nothing, an order above the state's or
// above 15 is vekStatusBadArgument; in every failing or empty case not one
// byte of any output changes, and nothing is read past the one-element arrays.
TEST(SHRobust, BadCountsAndOrdersWriteNothing) {
    GuardedState direct(15, vekrSHDirect, GuardSide::After);
    GuardedState rec3(3, vekrSHRecurrence, GuardSide::After);
    GuardedState rec20(20, vekrSHRecurrence, GuardSide::After);
    struct Case {
        int count;
        std::uint32_t order;
        VekrSHState* state;
        VekStatus want;
    };
    const Case cases[] = {
        {0, 2, direct.get(), vekStatusBadSize},
        {-1, 2, direct.get(), vekStatusOk},
        {-3, 2, rec3.get(), vekStatusOk},
        {-5, 15, direct.get(), vekStatusOk},
        {INT_MIN, 2, rec20.get(), vekStatusOk},
        {1, 4, rec3.get(), vekStatusBadArgument},       // above the state's order
        {1, 16, rec20.get(), vekStatusBadArgument},     // above 15, within the state's
        {-1, 16, rec20.get(), vekStatusBadArgument},    // the order check comes first
        {1, 0xFFFFFFFFu, rec20.get(), vekStatusBadArgument},
        {4, 0x80000000u, direct.get(), vekStatusBadArgument},
        {0, 0xFFFFFFFFu, rec20.get(), vekStatusBadSize},  // count 0 comes first
    };
    for (const SHOp& op : kOps)
        for (const Case& c : cases) {
            std::uint32_t order = c.order;
            VekStatus want = c.want;
            if (op.band) {  // the band is checked before the count; no state
                if (c.count > 0 && order <= 15) continue;  // a valid call, for the runner above
                want = order > 15 ? vekStatusBadArgument : c.count == 0 ? vekStatusBadSize : vekStatusOk;
            }
            // One-element arrays: a negative count must not touch even them.
            GuardedCall call(op, 1, 0, 0, GuardSide::After, 7);
            vt::fillCanary(call.dst.data(), call.dst.size());
            for (float* p : call.a.coeffs) vt::fillCanary(p, 1);
            EXPECT_EQ(op.call(call.a, c.count, order, c.state), want) << op.name << " count " << c.count;
            EXPECT_TRUE(vt::CanaryIntact(call.dst.data(), call.dst.size())) << op.name << " count " << c.count;
            for (float* p : call.a.coeffs) EXPECT_TRUE(vt::CanaryIntact(p, 1)) << op.name << " count " << c.count;
            EXPECT_TRUE(call.slackIntact());
        }
}

// A state whose type is neither 0 nor 1 (memory that was never initialised as
// a state, say) is refused by the evaluator; the transforms, which do not
// check the type, then take zero basis values and never read the tables.
TEST(SHRobust, UnknownStateTypeIsRefusedOrHarmless) {
    VekrSHState bogus{15, 7, nullptr, nullptr};
    GuardedCall call(kOps[0], 4, 2, 0, GuardSide::After, 3);
    vt::fillCanary(call.dst.data(), call.dst.size());
    EXPECT_EQ(vekrSH_32f(call.a.x, call.a.y, call.a.z, 4, call.a.dst, 2, &bogus), vekStatusBadArgument);
    EXPECT_TRUE(vt::CanaryIntact(call.dst.data(), call.dst.size()));

    GuardedCall inv(kOps[5], 4, 2, 0, GuardSide::After, 3);
    EXPECT_EQ(vekrSHTInv_32f_C1(inv.a.coeffs[0], 2, inv.a.x, inv.a.y, inv.a.z, inv.a.dst, 4, &bogus), vekStatusOk);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(vt::bits(inv.a.dst[i]), 0u) << i;  // a dot product of zeros
}

// Special values in the directions go through the arithmetic: the vector
// and scalar paths agree bit for bit on them, the zero vector gives the
// polynomials' constant terms, and a NaN coordinate makes every function
// that depends on it NaN without disturbing the neighbouring directions.
TEST(SHRobust, SpecialDirectionsPropagateAlikeOnBothPaths) {
    const float big = 1e30f, den = 1e-40f, inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const std::vector<float> xs = {0, nan, inf, -inf, big, den, 0, 1, -big, 0, 0, 0.6f};
    const std::vector<float> ys = {0, 0, 0, 0, big, -den, nan, 0, 0, inf, 1e-20f, 0};
    const std::vector<float> zs = {0, 0, 0, 0, 0, den, 0, nan, big, 0, 1e20f, 0.8f};
    const int n = int(xs.size());
    for (std::uint32_t type : {vekrSHDirect, vekrSHRecurrence}) {
        GuardedState state(15, type, GuardSide::After);
        auto run = [&](std::size_t offset) {
            vt::Buf<float> x(xs, offset), y(ys, offset), z(zs, offset), d(std::size_t(n) * 256, offset);
            EXPECT_EQ(vekrSH_32f(x.data(), y.data(), z.data(), n, d.data(), 15, state.get()), vekStatusOk);
            return canonicalBytes(d.data(), d.size());
        };
        EXPECT_TRUE(vt::SameAcrossOffsets(run, {4, 8, 12})) << "type " << type;
        const std::vector<std::uint8_t> bytes = run(0);
        std::vector<float> d(bytes.size() / 4);
        std::memcpy(d.data(), bytes.data(), bytes.size());
        // Direction 0 is the zero vector: Y_0^0 and the zonal constants only.
        EXPECT_EQ(d[0], 0.2820948f);
        EXPECT_EQ(d[1], 0.0f);
        EXPECT_EQ(d[3], 0.0f);
        EXPECT_NEAR(d[6], -0.31539157f, 1e-6f);  // Y_2^0(0) = -0.3153916
        // Direction 7 has z NaN: Y_1^0 = c z is NaN; direction 11 is a plain
        // unit vector and keeps finite values.
        EXPECT_TRUE(std::isnan(d[7 * 256 + 2]));
        for (int k = 0; k < 256; ++k) EXPECT_TRUE(std::isfinite(d[11 * 256 + k])) << k;
    }
    // The single band: the same agreement.
    for (std::uint32_t band : {0u, 1u, 7u, 15u}) {
        auto run = [&](std::size_t offset) {
            vt::Buf<float> x(xs, offset), y(ys, offset), z(zs, offset), d(std::size_t(n) * 31, offset);
            EXPECT_EQ(vekrSHBand_32f(x.data(), y.data(), z.data(), n, d.data(), band), vekStatusOk);
            return canonicalBytes(d.data(), d.size());
        };
        EXPECT_TRUE(vt::SameAcrossOffsets(run, {4, 8, 12})) << "band " << band;
    }
}

}  // namespace
