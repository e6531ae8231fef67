// Test harness for the per-ray operations: random packets sprinkled with the
// values that matter (NaN, signed zeros, infinities, denormals), and a runner
// that places every array at chosen offsets from a 16-byte boundary, calls the
// operation and compares the whole state (inputs and outputs) bit for bit with
// a per-ray reference rule applied to a copy.
#ifndef VEKR_TESTS_SHADING_DATA_H
#define VEKR_TESTS_SHADING_DATA_H

#include <array>
#include <cstdint>
#include <functional>
#include <vector>

#include "testutil.h"

namespace st {

// The one NaN pattern used as input. It is also the NaN that invalid
// operations produce, so every NaN in a run carries the same bits and the
// comparisons do not depend on which operand's payload a NaN-NaN operation
// keeps (the compiler may commute a scalar multiply or add).
constexpr std::uint32_t kNaNBits = 0xFFC00000u;

inline float special(vt::Rng& rng) {
    static const std::uint32_t kBits[] = {kNaNBits,    0x00000000u, 0x80000000u, 0x7F800000u, 0xFF800000u,
                                          0x00000001u, 0x807FFFFFu, 0x7F7FFFFFu, 0x3F800000u};
    return vt::fromBits(kBits[rng.below(static_cast<int>(sizeof kBits / sizeof kBits[0]))]);
}

// Uniform in [lo, hi), one value in `oneIn` special (oneIn 0: none).
inline std::vector<float> floats(vt::Rng& rng, std::size_t n, float lo, float hi, int oneIn = 8) {
    std::vector<float> v(n);
    for (auto& x : v) x = (oneIn > 0 && rng.below(oneIn) == 0) ? special(rng) : rng.uniform(lo, hi);
    return v;
}

// A ray mask: mostly live (0 or positive), about a third negative.
inline std::vector<std::int32_t> mask(vt::Rng& rng, std::size_t n) {
    static const std::int32_t kValues[] = {0, 1, 7, INT32_MAX, -1, -2, INT32_MIN, 5};
    std::vector<std::int32_t> m(n);
    for (auto& x : m) x = kValues[rng.below(8)];
    return m;
}

// What an operation works on: float arrays and one int32 array (a ray mask or
// triangle indices), one element per ray.
struct Data {
    std::vector<std::vector<float>> f;
    std::vector<std::int32_t> m;
};

// Data with numArrays random arrays in [lo, hi) and a random mask.
inline Data randomData(std::uint64_t seed, int numArrays, float lo, float hi, std::size_t n = 67) {
    vt::Rng rng(seed);
    Data d;
    for (int k = 0; k < numArrays; ++k) d.f.push_back(floats(rng, n, lo, hi));
    d.m = mask(rng, n);
    return d;
}

// The first `count` rays of Data placed in buffers; array k sits offsetOf(k)
// bytes past a 16-byte boundary (the int32 array at offsetOf(-1)).
class Packet {
public:
    Packet(const Data& d, int count, const std::function<std::size_t(int)>& offsetOf)
        : m_(std::vector<std::int32_t>(d.m.begin(), d.m.begin() + count), offsetOf(-1)), ptrs_(d.f.size()) {
        for (std::size_t k = 0; k < d.f.size(); ++k)
            f_.emplace_back(std::vector<float>(d.f[k].begin(), d.f[k].begin() + count), offsetOf(static_cast<int>(k)));
        for (std::size_t k = 0; k + 2 < f_.size(); ++k)
            for (int c = 0; c < 3; ++c) ptrs_[k][c] = f_[k + c].data();
    }
    float* at(int k) { return f_[k].data(); }
    std::int32_t* m() { return m_.data(); }
    // A P3 operand made of arrays k, k+1 and k+2.
    float* const* p3(int k) { return ptrs_[k].data(); }
    std::vector<std::uint8_t> bytes() const {
        std::vector<std::uint8_t> out;
        for (const auto& b : f_) vt::appendBytes(out, b.data(), b.size());
        vt::appendBytes(out, m_.data(), m_.size());
        return out;
    }

private:
    std::vector<vt::Buf<float>> f_;
    vt::Buf<std::int32_t> m_;
    std::vector<std::array<float*, 3>> ptrs_;
};

using Call = std::function<void(Packet&, int count)>;
// The rule for one ray: v[k] is element i of array k, m the int32 element; the
// rule rewrites the outputs among them.
using Rule = std::function<void(float* v, std::int32_t& m)>;

inline std::vector<std::uint8_t> runCall(const Data& d, int count, const std::function<std::size_t(int)>& offsetOf,
                                         const Call& call) {
    Packet p(d, count, offsetOf);
    call(p, count);
    return p.bytes();
}

inline std::vector<std::uint8_t> reference(const Data& d, int count, const Rule& rule) {
    Data r = d;
    std::vector<float> v(d.f.size());
    for (int i = 0; i < count; ++i) {
        for (std::size_t k = 0; k < v.size(); ++k) v[k] = r.f[k][i];
        rule(v.data(), r.m[i]);
        for (std::size_t k = 0; k < v.size(); ++k) r.f[k][i] = v[k];
    }
    return runCall(
        r, count, [](int) { return std::size_t(0); }, [](Packet&, int) {});
}

// The operation equals the rule at counts with and without packet tails (the
// four-wide loops take packets in pairs: 4 and 12 end on a lone packet), with
// all arrays aligned (vector path) or offset by 4, 8 or 12 bytes; and offsets
// 4 and 8 give the same bytes as offset 0 for a whole number of packets.
inline void expectRule(const Data& d, const Call& call, const Rule& rule) {
    for (int n : {1, 2, 3, 4, 5, 7, 8, 12, 61, 64})
        for (std::size_t off : {0u, 4u, 8u, 12u}) {
            EXPECT_TRUE(vt::SameBits(reference(d, n, rule), runCall(
                                                                d, n, [&](int) { return off; }, call)))
                << "count " << n << ", offset " << off;
        }
    EXPECT_TRUE(vt::SameAcrossOffsets([&](std::size_t off) {
        return runCall(
            d, 64, [&](int) { return off; }, call);
    }));
}

// For the alignment-peeling loops: array `anchor` and the others at every
// pair of offsets, so the four-wide loop meets an aligned anchor beside
// unaligned partners, at counts around the peel and the tail.
inline void expectRuleAnyAlignment(const Data& d, int anchor, const Call& call, const Rule& rule) {
    for (int n : {1, 3, 5, 6, 7, 9, 13, 64, 67}) {
        const auto ref = reference(d, n, rule);
        for (std::size_t a : {0u, 4u, 8u, 12u})
            for (std::size_t o : {0u, 4u, 8u, 12u})
                EXPECT_TRUE(vt::SameBits(ref, runCall(
                                                  d, n, [&](int k) { return k == anchor ? a : o; }, call)))
                    << "count " << n << ", offsets " << a << "/" << o;
    }
}

// A call on all of Data (sized for the streaming-store variant of the vector
// path, 2^20 rays or more) gives the same bytes on offset data, which takes
// the loops with ordinary stores.
inline void expectLargeCallAgrees(const Data& d, const Call& call) {
    const int n = static_cast<int>(d.m.size());
    EXPECT_TRUE(vt::SameAcrossOffsets(
        [&](std::size_t off) {
            return runCall(
                d, n, [&](int) { return off; }, call);
        },
        {4}));
}

// Argument k replaced by null when k == which (for the null-pointer checks).
template <class P>
P nullIf(int which, int k, P p) {
    return which == k ? nullptr : p;
}

}  // namespace st

#endif  // VEKR_TESTS_SHADING_DATA_H
