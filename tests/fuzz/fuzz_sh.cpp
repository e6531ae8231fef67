// Fuzz harness for spherical harmonics: state sizes for any order and type,
// states initialised in a buffer of exactly the reported size that ends on an
// inaccessible page, and evaluation, band evaluation and the six transforms
// with fuzzed orders, counts (hostile ones included), directions and values.
// Every array operation runs page-aligned, at 4/8/12-byte offsets and against
// the end guard with the same bits; a refused call writes nothing.
#include <vector>

#include "fuzz_util.h"
#include "vekr.h"

namespace {

using fz::Guarded;
using fz::Place;
using fz::Reader;

enum Op { kEval, kBand, kFwdC1, kFwdC3P3, kFwdP3, kInvC1, kInvP3, kInvP3C3, kNumOps };

// The state size in 64-bit arithmetic: what a size that fits must be.
std::int64_t expectedSize(std::uint32_t order, std::uint32_t type) {
    if (type == vekrSHDirect) return static_cast<std::int64_t>(sizeof(VekrSHState));
    if (order > 100000u) return INT64_MAX;  // far beyond any int size (and 8n would overflow)
    std::int64_t n = (static_cast<std::int64_t>(order) + 1) * (static_cast<std::int64_t>(order) + 2) / 2;
    return (8 * n + 31) / 32 * 32 + (sizeof(void*) == 4 ? 16 : 32);
}

// Size query and initialisation. Returns the state's size, or 0 when no
// usable state came out.
int checkState(Reader& r, std::uint32_t order, std::uint32_t type, Guarded<std::uint8_t>& state) {
    int size = -77;
    FUZZ_CHECK(vekrSHGetSize_32f(order, type, nullptr) == vekStatusNullPtr, "null size");
    VekStatus st = vekrSHGetSize_32f(order, type, &size);
    if (type > 1) {
        FUZZ_CHECK(st == vekStatusBadArgument && size == -77, "type %u: status %d size %d", type, st, size);
        return 0;
    }
    if (type == vekrSHDirect && order > 15) {
        FUZZ_CHECK(st == vekStatusBadSize && size == -77, "direct order %u: status %d size %d", order, st, size);
        return 0;
    }
    std::int64_t want = expectedSize(order, type);
    if (want > INT_MAX) {
        // A size that does not fit is refused, never wrapped.
        FUZZ_CHECK(st == vekStatusBadSize && size == -77, "order %u type %u: status %d size %d (needs %lld)", order,
                   type, st, size, static_cast<long long>(want));
        return 0;
    }
    FUZZ_CHECK(st == vekStatusOk && size == want, "order %u type %u: status %d size %d, expected %lld", order, type,
               st, size, static_cast<long long>(want));
    if (size > (1 << 16)) return 0;  // too large to initialise on every run
    // Exactly the reported size, ending on the guard page (16-byte aligned
    // since every size is a multiple of 16).
    state.reset(static_cast<std::size_t>(size), Place::Tail);
    std::memset(state.data(), 0x77, state.bytes());
    FUZZ_CHECK(vekrSHInit_32f(nullptr, order, type) == vekStatusNullPtr, "null state");
    (void)r;
    FUZZ_CHECK(vekrSHInit_32f(reinterpret_cast<VekrSHState*>(state.data()), order, type) == vekStatusOk,
               "init order %u type %u", order, type);
    FUZZ_CHECK(state.canariesIntact(), "init wrote outside the state");
    return size;
}

struct Call {
    int op = 0, count = 0;
    std::uint32_t order = 0;
    std::vector<std::vector<float>> in;  // x, y, z, then the op's values/coefficients
    std::vector<std::size_t> outSizes;   // destination arrays
    int nullArg = -1;
};

struct Run {
    std::vector<Guarded<float>*> in, out;
    VekStatus status = vekStatusOk;
    ~Run() {
        for (auto* g : in) delete g;
        for (auto* g : out) delete g;
    }
};

Guarded<float>* placeArray(std::size_t n, int layout, unsigned& offsets) {
    std::size_t off = layout == 1 ? 4u * (1u + offsets % 3u) : 0u;
    offsets /= 3u;
    return new Guarded<float>(n, layout == 2 ? Place::Tail : Place::Head, off);
}

template <class T>
T* nul(T* p, int index, int nullArg) { return index == nullArg ? nullptr : p; }

VekStatus invoke(const Call& c, Run& run, const VekrSHState* state) {
    int k = c.nullArg;
    const float* x = nul(run.in[0]->data(), 0, k);
    const float* y = nul(run.in[1]->data(), 1, k);
    const float* z = nul(run.in[2]->data(), 2, k);
    auto in = [&](std::size_t i) { return run.in[i]->data(); };
    auto out = [&](std::size_t i) { return run.out[i]->data(); };
    const VekrSHState* s = nul(state, 3, k);
    switch (c.op) {
        case kEval: return vekrSH_32f(x, y, z, c.count, nul(out(0), 4, k), c.order, s);
        case kBand: return vekrSHBand_32f(x, y, z, c.count, nul(out(0), 4, k), c.order);
        case kFwdC1: return vekrSHTFwd_32f_C1I(x, y, z, nul(in(3), 5, k), c.count, nul(out(0), 4, k), c.order, s);
        case kFwdC3P3: {
            float* co[3] = {nul(out(0), 6, k), nul(out(1), 7, k), nul(out(2), 8, k)};
            return vekrSHTFwd_32f_C3P3I(x, y, z, nul(in(3), 5, k), c.count, nul(co, 4, k), c.order, s);
        }
        case kFwdP3: {
            float* co[3] = {nul(out(0), 6, k), nul(out(1), 7, k), nul(out(2), 8, k)};
            const float* val[3] = {nul(in(3), 9, k), nul(in(4), 10, k), nul(in(5), 11, k)};
            return vekrSHTFwd_32f_P3I(x, y, z, nul(val, 5, k), c.count, nul(co, 4, k), c.order, s);
        }
        case kInvC1: return vekrSHTInv_32f_C1(nul(in(3), 5, k), c.order, x, y, z, nul(out(0), 4, k), c.count, s);
        case kInvP3: {
            const float* co[3] = {nul(in(3), 9, k), nul(in(4), 10, k), nul(in(5), 11, k)};
            float* d[3] = {nul(out(0), 6, k), nul(out(1), 7, k), nul(out(2), 8, k)};
            return vekrSHTInv_32f_P3(nul(co, 5, k), c.order, x, y, z, nul(d, 4, k), c.count, s);
        }
        case kInvP3C3: {
            const float* co[3] = {nul(in(3), 9, k), nul(in(4), 10, k), nul(in(5), 11, k)};
            return vekrSHTInv_32f_P3C3(nul(co, 5, k), c.order, x, y, z, nul(out(0), 4, k), c.count, s);
        }
    }
    return vekStatusOk;
}

// Highest pointer-argument index each operation has (see invoke).
int lastPointer(int op) {
    switch (op) {
        case kEval: return 4;
        case kBand: return 4;
        case kFwdC1: case kInvC1: return 5;
        case kFwdC3P3: return 8;
        default: return 11;
    }
}

bool sameValue(float a, float b) {
    std::uint32_t wa, wb;
    std::memcpy(&wa, &a, 4);
    std::memcpy(&wb, &b, 4);
    return wa == wb || (std::isnan(a) && std::isnan(b));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Reader r(data, size);
    static const std::uint32_t kTypes[] = {vekrSHDirect, vekrSHRecurrence, vekrSHRecurrence, 2u, 0x80000000u};
    std::uint32_t type = r.pick(kTypes);
    std::uint32_t stateOrder;
    std::uint8_t sel = r.u8();
    if (sel < 16) stateOrder = r.u32();                         // any order at all
    else if (sel < 32) stateOrder = 23160u + r.u8();            // where 32-bit sizes run out
    else stateOrder = static_cast<std::uint32_t>(r.range(0, 17));
    Guarded<std::uint8_t> state;
    int stateSize = checkState(r, stateOrder, type, state);
    if (stateSize == 0) return 0;
    const auto* pState = reinterpret_cast<const VekrSHState*>(state.data());

    Call c;
    c.op = r.u8() % kNumOps;
    c.order = r.u8() < 220 ? static_cast<std::uint32_t>(r.range(0, 16)) : r.u32();
    c.count = r.count(12);
    if (r.u8() < 24) c.nullArg = r.range(0, lastPointer(c.op));
    // Pointer arguments each operation has (indices as in invoke).
    static const unsigned kUsed[kNumOps] = {0x1F, 0x17, 0x3F, 0x1FF, 0xFFF, 0x3F, 0xFFF, 0xE3F};
    if (c.nullArg >= 0 && !((kUsed[c.op] >> c.nullArg) & 1u)) c.nullArg = -1;
    std::size_t n = c.count > 0 ? static_cast<std::size_t>(c.count) : 4;
    std::size_t coeffs = c.order <= 16 ? (c.order + 1) * (c.order + 1) : 1;
    std::size_t bandSize = c.order <= 16 ? 2 * c.order + 1 : 1;
    for (int i = 0; i < 3; ++i) {
        std::vector<float> v(n);
        for (float& f : v) f = r.f32();
        c.in.push_back(v);
    }
    auto values = [&](std::size_t len, int planes) {
        for (int p = 0; p < planes; ++p) {
            std::vector<float> v(len);
            for (float& f : v) f = r.f32();
            c.in.push_back(v);
        }
    };
    switch (c.op) {
        case kEval: c.outSizes = {n * coeffs}; break;
        case kBand: c.outSizes = {n * bandSize}; break;
        case kFwdC1: values(n, 1); c.outSizes = {coeffs}; break;
        case kFwdC3P3: values(3 * n, 1); c.outSizes = {coeffs, coeffs, coeffs}; break;
        case kFwdP3: values(n, 3); c.outSizes = {coeffs, coeffs, coeffs}; break;
        case kInvC1: values(coeffs, 1); c.outSizes = {n}; break;
        case kInvP3: values(coeffs, 3); c.outSizes = {n, n, n}; break;
        case kInvP3C3: values(coeffs, 3); c.outSizes = {3 * n}; break;
    }
    std::vector<float> outInit;
    for (std::size_t len : c.outSizes)
        for (std::size_t i = 0; i < len; ++i) outInit.push_back(r.u8() < 128 ? 0.0f : r.f32());

    // Which status the checks give: pointers (the state too, except for the
    // band), then the count, then the orders.
    const std::uint32_t sOrder = pState->order;
    bool badOrder = c.op == kBand ? c.order > 15 : (c.order > sOrder || c.order > 15 || pState->type > 1);
    VekStatus expect = vekStatusOk;
    if (c.nullArg >= 0) expect = vekStatusNullPtr;
    else if (c.op == kBand && badOrder) expect = vekStatusBadArgument;
    else if (c.count == 0) expect = vekStatusBadSize;
    else if (badOrder) expect = vekStatusBadArgument;
    bool writes = expect == vekStatusOk && c.count > 0;
    unsigned offsetBits = r.u32();

    std::vector<std::vector<float>> first;
    for (int layout = 0; layout < (writes ? 3 : 1); ++layout) {
        Run run;
        unsigned offsets = offsetBits;
        for (const auto& v : c.in) {
            run.in.push_back(placeArray(v.size(), layout, offsets));
            std::memcpy(run.in.back()->data(), v.data(), v.size() * 4);
        }
        std::size_t pos = 0;
        for (std::size_t len : c.outSizes) {
            run.out.push_back(placeArray(len, layout, offsets));
            std::memcpy(run.out.back()->data(), outInit.data() + pos, len * 4);
            pos += len;
        }
        VekStatus st = invoke(c, run, pState);
        FUZZ_CHECK(st == expect, "op %d order %u (state %u, type %u) count %d null %d: status %d, expected %d", c.op,
                   c.order, sOrder, type, c.count, c.nullArg, st, expect);
        pos = 0;
        for (std::size_t i = 0; i < run.out.size(); ++i) {
            const Guarded<float>& g = *run.out[i];
            FUZZ_CHECK(g.canariesIntact(), "op %d wrote outside destination %zu", c.op, i);
            if (!writes)
                FUZZ_CHECK(std::memcmp(g.data(), outInit.data() + pos, g.bytes()) == 0,
                           "op %d (status %d, count %d) wrote destination %zu", c.op, st, c.count, i);
            pos += g.size();
            if (layout == 0) {
                first.emplace_back(g.data(), g.data() + g.size());
            } else {
                for (std::size_t e = 0; e < g.size(); ++e)
                    FUZZ_CHECK(sameValue(first[i][e], g[e]), "op %d order %u count %d: destination %zu[%zu] differs "
                               "in layout %d", c.op, c.order, c.count, i, e, layout);
            }
        }
        for (std::size_t i = 0; i < run.in.size(); ++i)
            FUZZ_CHECK(run.in[i]->canariesIntact() && std::memcmp(run.in[i]->data(), c.in[i].data(),
                                                                  c.in[i].size() * 4) == 0,
                       "op %d changed source %zu", c.op, i);
    }
    FUZZ_CHECK(state.canariesIntact(), "state overwritten");
    return 0;
}
