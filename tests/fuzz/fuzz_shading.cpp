// Fuzz harness for the per-ray array operations: ray casting, hit points,
// surface normals and the masked shading arithmetic. One input picks an
// operation, a count (hostile ones included), masks, values and alignments.
// Each call runs three times, with every array aligned on a page start, at
// 4/8/12-byte offsets and ending on the last byte before an inaccessible page;
// the three runs must agree bit for bit (vector and scalar paths give the
// same values), nothing outside the arrays may change, and a count below 1 or
// a null checked pointer must leave every array as it was.
#include <vector>

#include "fuzz_util.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

using fz::Guarded;
using fz::Place;
using fz::Reader;

// One array argument: its elements as 32-bit words (floats or int32).
struct Operand {
    std::vector<std::uint32_t> init;
    bool isFloat = true;
};

enum Fill { kFloat, kMask, kIndex };

struct Call {
    std::vector<Operand> ops;
    int count = 0;
    int width = 0, height = 0;              // cast-eye block
    int blockX = 0, blockY = 0, blockW = 0, blockH = 0;
    int triStride = 3;
    float eps = 1.0f;
    float small[9] = {};                    // light, origin, colour, steps
};

std::uint32_t word(Reader& r, Fill fill, int indexLimit) {
    if (fill == kMask) {
        static const std::int32_t kMasks[] = {0, 1, -1, INT_MIN, 7, -2, INT_MAX, 0};
        return static_cast<std::uint32_t>(r.pick(kMasks));
    }
    if (fill == kIndex) return static_cast<std::uint32_t>(r.range(-2, indexLimit - 1));
    float f = r.f32();
    std::uint32_t w;
    std::memcpy(&w, &f, 4);
    return w;
}

void addOperand(Call& c, Reader& r, int n, Fill fill, int indexLimit = 1) {
    Operand o;
    o.init.resize(static_cast<std::size_t>(n));
    o.isFloat = fill == kFloat;
    for (auto& w : o.init) w = word(r, fill, indexLimit);
    c.ops.push_back(std::move(o));
}

// The arrays of one run, placed by `layout`: 0 page-aligned, 1 at 4/8/12-byte
// offsets, 2 ending at a guard page.
struct Run {
    std::vector<Guarded<std::uint32_t>*> arr;
    VekStatus status = vekStatusOk;
    ~Run() {
        for (auto* a : arr) delete a;
    }
    float* f(int i) { return reinterpret_cast<float*>(arr[static_cast<std::size_t>(i)]->data()); }
    std::int32_t* s(int i) { return reinterpret_cast<std::int32_t*>(arr[static_cast<std::size_t>(i)]->data()); }
};

void place(Run& run, const Call& c, int layout, unsigned offsets) {
    for (std::size_t i = 0; i < c.ops.size(); ++i) {
        const auto& init = c.ops[i].init;
        std::size_t off = 0;
        Place where = Place::Head;
        if (layout == 1) off = 4u * (1u + ((offsets >> (2 * (i % 16))) % 3u));
        if (layout == 2) where = Place::Tail;
        auto* g = new Guarded<std::uint32_t>(init.size(), where, off);
        if (!init.empty()) std::memcpy(g->data(), init.data(), init.size() * 4);
        run.arr.push_back(g);
    }
}

// Two results agree when their bits are equal, or when both are NaN: where
// two NaN operands meet, which payload survives depends on the operand order
// the compiler picks for a commutative operation, which no rule fixes.
bool sameValue(std::uint32_t a, std::uint32_t b, bool isFloat) {
    if (a == b) return true;
    auto nan = [](std::uint32_t w) { return (w & 0x7F800000u) == 0x7F800000u && (w & 0x007FFFFFu) != 0; };
    return isFloat && nan(a) && nan(b);
}

// A pointer argument, or null when it is the one the input asked to drop.
template <class T>
T* arg(T* p, int index, int nullArg) { return index == nullArg ? nullptr : p; }

enum Op {
    kDot, kDotChangeNorm, kDistAtt, kMulC1, kMulP3, kDiv, kAddMulMul, kReflect, kShadow,
    kHitS0, kHitM0, kFlatNormal, kSmoothNormal, kTriNormal, kCastEye, kNumOps
};

// Number of leading pointer arguments of each operation that it checks for
// null (the harness drops one of them at a time).
int checkedPointers(int op) {
    switch (op) {
        case kDot: return 4;          // pSrc1, pSrc2, pMask, pDst
        case kDotChangeNorm: return 4;
        case kDistAtt: return 3;      // pPoint, pMask, pDist
        case kMulC1: return 0;        // checks no pointers
        case kMulP3: return 3;
        case kDiv: return 2;          // pSrc, pSrcDst
        case kAddMulMul: return 4;    // pSrc1, pSrc2, pMask, pSrcDst
        case kReflect: return 4;
        case kShadow: return 6;       // pSide, pNormal, pHit, pMask, pDist, pShadowDir
        case kHitS0: return 4;        // pDir, pDist, pMask, pHit
        case kHitM0: return 5;
        case kFlatNormal: return 2;   // pTriNorm, pTriIndex
        case kSmoothNormal: return 5;
        case kTriNormal: return 3;
        case kCastEye: return 1;      // pDir
    }
    return 0;
}

VekStatus invoke(int op, Call& c, Run& run, int nullArg) {
    int n = c.count;
    const float* small = c.small;
    auto p3 = [&](int first, float** out) {
        for (int k = 0; k < 3; ++k) out[k] = run.f(first + k);
        return out;
    };
    float* a[3];
    float* b[3];
    float* d[3];
    float* e[3];
    switch (op) {
        case kDot:  // src1 (0-2), src2 (3-5), mask 6, dst 7
            return vekrDot_32f_P3C1M(arg(p3(0, a), 0, nullArg), arg(p3(3, b), 1, nullArg),
                                     arg(run.s(6), 2, nullArg), arg(run.f(7), 3, nullArg), n);
        case kDotChangeNorm:  // dir (0-2), mask 3, normal (4-6), dot 7
            return vekrDotChangeNorm_32f_IM(arg(p3(0, a), 0, nullArg), arg(run.s(3), 1, nullArg),
                                            arg(p3(4, b), 2, nullArg), arg(run.f(7), 3, nullArg), n);
        case kDistAtt:  // point (0-2), mask 3, dist 4
            return vekrDistAttenuationSO_32f_M(small, arg(p3(0, a), 0, nullArg), arg(run.s(3), 1, nullArg),
                                               arg(run.f(4), 2, nullArg), n);
        case kMulC1:  // src 0, mask 1, srcdst 2
            return vekrMul_32f_C1IM(run.f(0), run.s(1), run.f(2), n);
        case kMulP3:  // src 0, mask 1, srcdst (2-4)
            return vekrMul_32f_C1P3IM(arg(run.f(0), 0, nullArg), arg(run.s(1), 1, nullArg),
                                      arg(p3(2, a), 2, nullArg), n);
        case kDiv:  // src 0, mask 1, srcdst 2
            return vekrDiv_32f_C1IM(arg(run.f(0), 0, nullArg), run.s(1), arg(run.f(2), 1, nullArg), n);
        case kAddMulMul:  // src1 0, src2 (1-3), mask 4, srcdst (5-7)
            return vekrAddMulMul_32f_AC1P3IM(small, arg(run.f(0), 0, nullArg), arg(p3(1, a), 1, nullArg),
                                             arg(run.s(4), 2, nullArg), arg(p3(5, b), 3, nullArg), n);
        case kReflect:  // inc (0-2), mask 3, normal (4-6), refl (7-9)
            return vekrCastReflectionRay_32f(arg(p3(0, a), 0, nullArg), arg(run.s(3), 1, nullArg),
                                             arg(p3(4, b), 2, nullArg), arg(p3(7, d), 3, nullArg), n);
        case kShadow:  // side 0, normal (1-3), hit (4-6), mask 7, dist 8, shadowdir (9-11)
            return vekrCastShadowSO_32f(small, arg(run.f(0), 0, nullArg), arg(p3(1, a), 1, nullArg),
                                        arg(p3(4, b), 2, nullArg), arg(run.s(7), 3, nullArg),
                                        arg(run.f(8), 4, nullArg), arg(p3(9, d), 5, nullArg), n);
        case kHitS0:  // dir (0-2), dist 3, mask 4, hit (5-7)
            return vekrHitPoint3DEpsS0_32f_M(small, arg(p3(0, a), 0, nullArg), arg(run.f(3), 1, nullArg),
                                             arg(run.s(4), 2, nullArg), arg(p3(5, b), 3, nullArg), n, c.eps);
        case kHitM0:  // dir (0-2), dist 3, mask 4, hit (5-7), origin (8-10)
            return vekrHitPoint3DEpsM0_32f_M(arg(p3(8, e), 4, nullArg), arg(p3(0, a), 0, nullArg),
                                             arg(run.f(3), 1, nullArg), arg(run.s(4), 2, nullArg),
                                             arg(p3(5, b), 3, nullArg), n, c.eps);
        case kFlatNormal:  // trinorm 0, index 1, norm (2-4)
            return vekrSurfFlatNormal_32f(arg(run.f(0), 0, nullArg), arg(run.s(1), 1, nullArg), p3(2, a), n);
        case kSmoothNormal: {  // vertnorm 0, trivert 1, index 2, u 3, v 4, norm (5-7)
            float* uv[2] = {run.f(3), run.f(4)};
            return vekrSurfSmoothNormal_32f(arg(run.f(0), 0, nullArg), arg(run.s(1), 1, nullArg),
                                            arg(run.s(2), 2, nullArg), arg(uv, 3, nullArg),
                                            arg(p3(5, a), 4, nullArg), n, c.triStride);
        }
        case kTriNormal:  // coords 0, trivert 1, trinorm 2
            return vekrTriangleNormal_32f(arg(run.f(0), 0, nullArg), arg(run.s(1), 1, nullArg),
                                          arg(run.f(2), 2, nullArg), n);
        case kCastEye:  // dir (0-2)
            return vekrCastEye_32f(small, small + 3, small + 6, c.blockX, c.blockY, c.blockW, c.blockH,
                                   arg(p3(0, a), 0, nullArg), c.width, c.height);
    }
    return vekStatusOk;
}

// Builds the operands of `op` for `count` rays (a count below 1 still gets
// small arrays, so that a call that writes anyway is caught).
void build(int op, Call& c, Reader& r) {
    int n = c.count >= 1 ? c.count : 8;
    for (float& s : c.small) s = r.f32();
    c.eps = r.f32();
    auto floats = [&](int k, int len) {
        for (int i = 0; i < k; ++i) addOperand(c, r, len, kFloat);
    };
    auto mask = [&]() { addOperand(c, r, n, kMask); };
    switch (op) {
        case kDot: floats(6, n); mask(); floats(1, n); break;
        case kDotChangeNorm: floats(3, n); mask(); floats(4, n); break;
        case kDistAtt: floats(3, n); mask(); floats(1, n); break;
        case kMulC1: case kDiv: floats(1, n); mask(); floats(1, n); break;
        case kMulP3: floats(1, n); mask(); floats(3, n); break;
        case kAddMulMul: floats(4, n); mask(); floats(3, n); break;
        case kReflect: floats(3, n); mask(); floats(6, n); break;
        case kShadow: floats(7, n); mask(); floats(4, n); break;
        case kHitS0: floats(4, n); mask(); floats(3, n); break;
        case kHitM0: floats(4, n); mask(); floats(6, n); break;
        case kFlatNormal: {
            int tri = r.range(1, 8);
            floats(1, 3 * tri);
            addOperand(c, r, n, kIndex, tri);
            floats(3, n);
            break;
        }
        case kSmoothNormal: {
            int tri = r.range(1, 6), vert = r.range(1, 8);
            c.triStride = r.range(3, 5);
            floats(1, 3 * vert);
            addOperand(c, r, tri * c.triStride, kIndex, vert);
            for (auto& w : c.ops.back().init)  // vertex indices must be valid
                w = static_cast<std::uint32_t>(static_cast<int>(w) < 0 ? 0 : static_cast<int>(w));
            addOperand(c, r, n, kIndex, tri);
            floats(5, n);
            break;
        }
        case kTriNormal: {
            int vert = r.range(1, 8);
            floats(1, 3 * vert);
            addOperand(c, r, 4 * n, kIndex, vert);
            for (std::size_t i = 0; i < c.ops.back().init.size(); ++i) {
                auto& w = c.ops.back().init[i];
                if (i % 4 == 3) w = 0xDEADBEEFu;  // the unused fourth word
                else if (static_cast<int>(w) < 0) w = 0;
            }
            floats(1, 3 * n);
            break;
        }
        case kCastEye: {
            c.blockX = r.bit() ? r.i32() : r.range(-4, 4);
            c.blockY = r.bit() ? r.i32() : r.range(-4, 4);
            c.blockW = r.bit() ? r.i32() : r.range(-4, 16);
            c.blockH = r.bit() ? r.i32() : r.range(-4, 16);
            int cells = c.width >= 1 && c.height >= 1 ? c.width * c.height : 8;
            floats(3, cells);
            break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Reader r(data, size);
    int op = r.u8() % kNumOps;
    Call c;
    if (op == kCastEye) {
        c.width = r.count(12);
        c.height = r.count(6);
        if (c.width > 0 && c.height > 0 && c.width > 64 / c.height) c.height = 64 / c.width;
        c.count = c.width >= 1 && c.height >= 1 ? c.width * c.height : 0;
    } else {
        c.count = r.count(40);
    }
    int threads[2] = {r.range(1, 3), r.range(1, 3)};
    unsigned offsets = r.u32();
    int nullArg = -1;
    if (checkedPointers(op) > 0 && r.u8() < 32) nullArg = r.range(0, checkedPointers(op) - 1);
    build(op, c, r);

    // Reference run: page-aligned arrays.
    Run base;
    place(base, c, 0, offsets);
    vekSetNumThreads(threads[0]);
    std::vector<std::vector<std::uint8_t>> before;
    for (auto* g : base.arr) before.push_back(fz::snapshot(g->data(), g->size()));
    base.status = invoke(op, c, base, nullArg);
    for (auto* g : base.arr) FUZZ_CHECK(g->canariesIntact(), "op %d wrote outside an array", op);

    bool quiet = nullArg >= 0 || c.count < 1;
    if (nullArg >= 0) FUZZ_CHECK(base.status == vekStatusNullPtr, "op %d null argument %d: status %d", op, nullArg,
                                 base.status);
    else FUZZ_CHECK(base.status == vekStatusOk || (op == kDiv && base.status == vekStatusDivByZero),
                    "op %d count %d: status %d", op, c.count, base.status);
    if (quiet) {
        for (std::size_t i = 0; i < base.arr.size(); ++i)
            FUZZ_CHECK(fz::unchanged(base.arr[i]->data(), before[i]), "op %d (count %d, null %d) wrote array %zu",
                       op, c.count, nullArg, i);
        if (nullArg < 0 && c.count < 1) FUZZ_CHECK(base.status == vekStatusOk, "op %d count %d: status %d", op, c.count, base.status);
        return 0;
    }

    // The same call at 4/8/12-byte offsets and against the end guard, with
    // another thread count: the same status and the same bits everywhere.
    for (int layout = 1; layout <= 2; ++layout) {
        Run other;
        place(other, c, layout, offsets);
        vekSetNumThreads(threads[layout - 1]);
        other.status = invoke(op, c, other, nullArg);
        FUZZ_CHECK(other.status == base.status, "op %d layout %d: status %d vs %d", op, layout, other.status,
                   base.status);
        for (std::size_t i = 0; i < base.arr.size(); ++i) {
            FUZZ_CHECK(other.arr[i]->canariesIntact(), "op %d layout %d wrote outside array %zu", op, layout, i);
            std::size_t k = 0;
            while (k < base.arr[i]->size() && sameValue((*base.arr[i])[k], (*other.arr[i])[k], c.ops[i].isFloat)) ++k;
            FUZZ_CHECK(k == base.arr[i]->size(), "op %d count %d: array %zu element %zu is %08x in layout 0, %08x in %d",
                       op, c.count, i, k, (*base.arr[i])[k], (*other.arr[i])[k], layout);
        }
    }
    return 0;
}
