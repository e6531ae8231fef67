// Lane types for the per-ray kernels: one float (the scalar path) or four floats
// in an SSE register (the vector path) behind the same operators, so that every
// kernel is written once and both paths evaluate the same expression in the
// same order, which makes their results bit-identical.
#ifndef VEKR_SHADING_LANE_H
#define VEKR_SHADING_LANE_H

#include <emmintrin.h>

#include <cmath>
#include <cstdint>

#include "core/own.h"

// The lane helpers must be inlined: on i386 a float returned from a real call
// travels through the x87 stack, which would quieten a signalling NaN that the
// kernels are meant to copy unchanged.
#define OWN_LANE inline __attribute__((always_inline))
// The same for the kernel lambdas that the loop helpers call: a kernel left
// out of line would be called once per packet, its constants rebuilt and its
// pointers reloaded every time.
#define OWN_KERNEL __attribute__((always_inline))

namespace vekr {

// ---------------------------------------------------------------------------
// Scalar lane: plain float, bool and int32 with the helpers the kernels use.

OWN_LANE float ownSelect(bool m, float a, float b) { return m ? a : b; }
OWN_LANE std::int32_t ownSelect(bool m, std::int32_t a, std::int32_t b) { return m ? a : b; }
OWN_LANE bool ownAnd(bool a, bool b) { return a && b; }
OWN_LANE bool ownOr(bool a, bool b) { return a || b; }
OWN_LANE bool ownNot(bool a) { return !a; }
OWN_LANE bool ownAny(bool a) { return a; }
OWN_LANE float ownNegateWhere(bool m, float x) { return m ? -x : x; }
OWN_LANE float ownSqrt(float x) { return std::sqrt(x); }
OWN_LANE float ownAbs(float x) { return std::fabs(x); }

// ---------------------------------------------------------------------------
// Four-wide lane.

struct ownF4 {
    __m128 v;
    OWN_LANE ownF4() : v(_mm_setzero_ps()) {}
    OWN_LANE explicit ownF4(__m128 x) : v(x) {}
    OWN_LANE explicit ownF4(float x) : v(_mm_set1_ps(x)) {}
};
// A lane mask: all bits set where the condition holds, clear elsewhere.
struct ownM4 {
    __m128 v;
};
struct ownI4 {
    __m128i v;
    OWN_LANE explicit ownI4(__m128i x) : v(x) {}
    OWN_LANE explicit ownI4(std::int32_t x) : v(_mm_set1_epi32(x)) {}
};

OWN_LANE ownF4 operator+(ownF4 a, ownF4 b) { return ownF4(_mm_add_ps(a.v, b.v)); }
OWN_LANE ownF4 operator-(ownF4 a, ownF4 b) { return ownF4(_mm_sub_ps(a.v, b.v)); }
OWN_LANE ownF4 operator*(ownF4 a, ownF4 b) { return ownF4(_mm_mul_ps(a.v, b.v)); }
OWN_LANE ownF4 operator/(ownF4 a, ownF4 b) { return ownF4(_mm_div_ps(a.v, b.v)); }
// Ordered comparisons, false for NaN as in scalar code.
OWN_LANE ownM4 operator<(ownF4 a, ownF4 b) { return {_mm_cmplt_ps(a.v, b.v)}; }
OWN_LANE ownM4 operator>(ownF4 a, ownF4 b) { return {_mm_cmpgt_ps(a.v, b.v)}; }
OWN_LANE ownM4 operator<=(ownF4 a, ownF4 b) { return {_mm_cmple_ps(a.v, b.v)}; }
OWN_LANE ownM4 operator==(ownF4 a, ownF4 b) { return {_mm_cmpeq_ps(a.v, b.v)}; }

OWN_LANE ownM4 ownAnd(ownM4 a, ownM4 b) { return {_mm_and_ps(a.v, b.v)}; }
OWN_LANE ownM4 ownOr(ownM4 a, ownM4 b) { return {_mm_or_ps(a.v, b.v)}; }
// True when the mask holds in any lane.
OWN_LANE bool ownAny(ownM4 a) { return _mm_movemask_ps(a.v) != 0; }
OWN_LANE ownM4 ownNot(ownM4 a) { return {_mm_xor_ps(a.v, _mm_castsi128_ps(_mm_set1_epi32(-1)))}; }
// Bitwise choice, so the chosen value keeps its exact bits (signed zeros, NaN payloads).
OWN_LANE ownF4 ownSelect(ownM4 m, ownF4 a, ownF4 b) {
    return ownF4(_mm_or_ps(_mm_and_ps(m.v, a.v), _mm_andnot_ps(m.v, b.v)));
}
OWN_LANE ownI4 ownSelect(ownM4 m, ownI4 a, ownI4 b) {
    const __m128i mi = _mm_castps_si128(m.v);
    return ownI4(_mm_or_si128(_mm_and_si128(mi, a.v), _mm_andnot_si128(mi, b.v)));
}
// -x where the mask holds, x elsewhere: a sign flip (two instructions instead
// of the four of a select between two constants).
OWN_LANE ownF4 ownNegateWhere(ownM4 m, ownF4 x) { return ownF4(_mm_xor_ps(x.v, _mm_and_ps(m.v, _mm_set1_ps(-0.0f)))); }
// sqrtps is correctly rounded, like the scalar std::sqrt.
OWN_LANE ownF4 ownSqrt(ownF4 x) { return ownF4(_mm_sqrt_ps(x.v)); }
// Clears the sign bit, as fabs does.
OWN_LANE ownF4 ownAbs(ownF4 x) { return ownF4(_mm_andnot_ps(_mm_set1_ps(-0.0f), x.v)); }

// ---------------------------------------------------------------------------
// Access policies. A kernel is written as `template <class IO> void k(IO, i)`
// and handles IO::kWidth rays starting at ray i; IO::F, IO::M and IO::I are its
// float, mask and integer lanes. load/store follow the policy's alignment;
// loadA/storeA are for the one array an alignment-peeling loop has brought to
// a 16-byte boundary.

struct ownLane1 {
    using F = float;
    using M = bool;
    using I = std::int32_t;
    static constexpr int kWidth = 1;
    static OWN_LANE F load(const float* p) { return *p; }
    static OWN_LANE F loadA(const float* p) { return *p; }
    static OWN_LANE void store(float* p, F x) { *p = x; }
    static OWN_LANE void storeA(float* p, F x) { *p = x; }
    static OWN_LANE I loadI(const std::int32_t* p) { return *p; }
    static OWN_LANE void storeI(std::int32_t* p, I x) { *p = x; }
    // The element is written only where the mask holds (a masked element is
    // left untouched, not rewritten).
    static OWN_LANE void storeWhere(float* p, M m, F x, F) {
        if (m) *p = x;
    }
    static OWN_LANE M nonNegative(I x) { return x >= 0; }
    // float(i), the position of the ray in its row.
    static OWN_LANE F index(int i) { return static_cast<float>(i); }
    // True when the ray has a hit (t >= 0).
    static OWN_LANE bool allHit(I t) { return t >= 0; }
    // The address of a gathered row: base + offset for t >= 0, else none.
    // kAllHit says that allHit() held for the ray's packet.
    template <bool kAllHit, class T>
    static OWN_LANE T* pick(std::int32_t t, T* base, std::ptrdiff_t offset, T* none) {
        return kAllHit || t >= 0 ? base + offset : none;
    }
    // Three lanes (x, y, z) gathered from per-lane addresses g(k) of three
    // consecutive floats, k = 0 .. kWidth-1. The values are moved, not
    // computed with, so every bit pattern arrives unchanged.
    template <class G>
    static OWN_LANE void gather3(F out[3], G g) {
        const float* p = g(0);
        out[0] = p[0];
        out[1] = p[1];
        out[2] = p[2];
    }
};

template <bool kAligned, bool kStream = false>
struct ownLane4 {
    using F = ownF4;
    using M = ownM4;
    using I = ownI4;
    static constexpr int kWidth = 4;
    static OWN_LANE F load(const float* p) { return ownF4(kAligned ? _mm_load_ps(p) : _mm_loadu_ps(p)); }
    static OWN_LANE F loadA(const float* p) { return ownF4(_mm_load_ps(p)); }
    static OWN_LANE void store(float* p, F x) {
        if (kStream)
            _mm_stream_ps(p, x.v);
        else if (kAligned)
            _mm_store_ps(p, x.v);
        else
            _mm_storeu_ps(p, x.v);
    }
    static OWN_LANE void storeA(float* p, F x) { _mm_store_ps(p, x.v); }
    static OWN_LANE I loadI(const std::int32_t* p) {
        const __m128i* q = reinterpret_cast<const __m128i*>(p);
        return ownI4(kAligned ? _mm_load_si128(q) : _mm_loadu_si128(q));
    }
    static OWN_LANE void storeI(std::int32_t* p, I x) {
        __m128i* q = reinterpret_cast<__m128i*>(p);
        if (kStream)
            _mm_stream_si128(q, x.v);
        else if (kAligned)
            _mm_store_si128(q, x.v);
        else
            _mm_storeu_si128(q, x.v);
    }
    // Four lanes are stored together; masked lanes get their old bits back.
    static OWN_LANE void storeWhere(float* p, M m, F x, F old) { store(p, ownSelect(m, x, old)); }
    static OWN_LANE M nonNegative(I x) { return {_mm_castsi128_ps(_mm_cmpgt_epi32(x.v, _mm_set1_epi32(-1)))}; }
    static OWN_LANE F index(int i) {
        return ownF4(_mm_cvtepi32_ps(_mm_add_epi32(_mm_set1_epi32(i), _mm_setr_epi32(0, 1, 2, 3))));
    }
    // True when every lane has a hit (no sign bit set among the four t).
    static OWN_LANE bool allHit(I t) { return _mm_movemask_ps(_mm_castsi128_ps(t.v)) == 0; }
    // The address of a gathered row: base + offset for t >= 0, else none.
    // A packet whose lanes all hit (kAllHit; the common case, as rays that
    // miss the scene come in runs) forms its addresses directly. In a packet
    // with a miss each lane chooses by a conditional move rather than a
    // branch on its t, which would be mispredicted wherever hits and misses
    // mix. (The asm also keeps the compiler from turning the choice back
    // into a branch, which it would do knowing that `none` holds zeros.) The
    // address of a miss is formed as an integer, never as an out-of-range
    // pointer, and is not read.
    template <bool kAllHit, class T>
    static OWN_LANE T* pick(std::int32_t t, T* base, std::ptrdiff_t offset, T* none) {
        if (kAllHit) return base + offset;
        std::uintptr_t p = reinterpret_cast<std::uintptr_t>(base) + static_cast<std::uintptr_t>(offset) * sizeof(T);
        const std::uintptr_t z = reinterpret_cast<std::uintptr_t>(none);
        __asm__("test %2, %2\n\tcmovs %1, %0" : "+r"(p) : "r"(z), "r"(t) : "cc");
        return reinterpret_cast<T*>(p);
    }
    // Each lane's (x, y) is read with one 8-byte load and its z with a 4-byte
    // load (never past the third float), straight into SSE registers, and
    // interleaved into x, y and z lanes with seven shuffles.
    template <class G>
    static OWN_LANE void gather3(F out[3], G g) {
        __m128 xy[4], z[4];
        ownLoadRow(g(0), xy[0], z[0]);
        ownLoadRow(g(1), xy[1], z[1]);
        ownLoadRow(g(2), xy[2], z[2]);
        ownLoadRow(g(3), xy[3], z[3]);
        const __m128 xy01 = _mm_unpacklo_ps(xy[0], xy[1]);  // x0 x1 y0 y1
        const __m128 xy23 = _mm_unpacklo_ps(xy[2], xy[3]);  // x2 x3 y2 y3
        const __m128 z01 = _mm_unpacklo_ps(z[0], z[1]);
        const __m128 z23 = _mm_unpacklo_ps(z[2], z[3]);
        out[0] = ownF4(_mm_movelh_ps(xy01, xy23));
        out[1] = ownF4(_mm_movehl_ps(xy23, xy01));
        out[2] = ownF4(_mm_movelh_ps(z01, z23));
    }

private:
    // One lane's row: x and y with movq (an 8-byte load with no alignment
    // requirement), z with movss.
    static OWN_LANE void ownLoadRow(const float* p, __m128& xy, __m128& z) {
        xy = _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
        z = _mm_load_ss(p + 2);
    }
};

// The plane pointers of a P3 operand, copied out of the caller's pointer array.
// Vector stores may alias any memory, so a kernel reading the caller's array
// would reload the three pointers after every store; local copies stay in
// registers.
template <class T>
struct ownP3 {
    T* c[3];
};
template <class T>
OWN_LANE ownP3<T> ownPlanes(T* const* p) {
    return {{p[0], p[1], p[2]}};
}

// Runs kernel(IO{}, i) for i = begin, begin + kWidth, ... below end.
// The four-wide loops take two packets per iteration: the packets' dependency
// chains are independent and overlap, and the loop overhead (on i386 also the
// reloads of array pointers that do not fit in its seven registers) is paid
// once per eight rays. A lone last packet runs on its own. The scalar loop is
// left as written.
template <class IO, class Kernel>
OWN_LANE void ownForEach(int begin, int end, Kernel&& kernel) {
    int i = begin;
    if (IO::kWidth > 1)
        for (; end - i >= 2 * IO::kWidth; i += 2 * IO::kWidth) {
            kernel(IO{}, i);
            kernel(IO{}, i + IO::kWidth);
        }
    for (; i < end; i += IO::kWidth) kernel(IO{}, i);
}

// The aligned vector path over [0, count). A large call streams its stores
// past the caches (movntps): its outputs would not stay cached anyway, and an
// ordinary store first reads every line it writes, which costs a third or more
// of the memory bandwidth. Smaller calls, whose results the caller reads next,
// store normally. The values are the same either way.
constexpr int kStreamingCount = 1 << 20;

template <class Kernel>
OWN_LANE void ownForEachAligned(int count, Kernel&& kernel) {
    if (count >= kStreamingCount) {
        ownForEach<ownLane4<true, true>>(0, count, kernel);
        _mm_sfence();  // order the streamed stores before anything the caller does next
    } else {
        ownForEach<ownLane4<true>>(0, count, kernel);
    }
}

// The loop of an operation whose vector path wants every array aligned and a
// count that is a multiple of 4 (`vector4`): that path, or else the scalar
// rule ray by ray. The one predicate is the caller's.
template <class Kernel>
OWN_LANE void ownForEachPath(bool vector4, int count, Kernel&& kernel) {
    if (vector4)
        ownForEachAligned(count, kernel);
    else
        ownForEach<ownLane1>(0, count, kernel);
}

// The alignment-peeling loop: single elements until `anchor` + i reaches a
// 16-byte boundary (only tried when anchor is 4-byte aligned, otherwise it
// never would), then four at a time with the anchor array aligned and the
// others loaded unaligned, then the remaining singles. Element-wise kernels
// give the same values whichever lane width handles an element. A count below
// 1 processes nothing: rounding a negative remainder down to a multiple of 4
// would otherwise start the loops before the arrays.
template <class Kernel>
OWN_LANE void ownForEachPeeled(const float* anchor, int count, Kernel&& kernel) {
    if (count < 1) return;
    int i = 0;
    if ((reinterpret_cast<std::uintptr_t>(anchor) & 3u) == 0) {
        while (i < count && !ownIsAligned16(anchor + i)) kernel(ownLane1{}, i++);
        const int end4 = i + ((count - i) & ~3);
        ownForEach<ownLane4<false>>(i, end4, kernel);
        i = end4;
    }
    ownForEach<ownLane1>(i, count, kernel);
}

}  // namespace vekr

#endif  // VEKR_SHADING_LANE_H
