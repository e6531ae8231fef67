// The lane vocabulary every kernel of the library is written in: one element
// (a plain float, double, int32 or bool) or four elements in SSE registers
// (OwnF4, OwnD4, OwnI4 and the mask OwnM4) behind the same operators and free
// functions, plus the access policies OwnLane1 and OwnLane4 that load and
// store them. A kernel written once over these types evaluates the same
// operations in the same order on both paths, so their results are
// bit-identical. The four-wide operations stop at SSSE3 (the library's
// instruction-set ceiling); none of them is an approximation.
#ifndef VEKR_CORE_LANES_H
#define VEKR_CORE_LANES_H

#include <tmmintrin.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/own.h"

// The lane helpers must be inlined: on i386 a float returned from a real call
// travels through the x87 stack, which would quieten a signalling NaN that the
// kernels are meant to copy unchanged, and an __m128 passed by value to a
// call that is not inlined goes through memory.
#define OWN_LANE inline __attribute__((always_inline))
// The same for kernel lambdas that loop helpers call: a kernel left out of
// line would be called once per packet, its constants rebuilt and its
// pointers reloaded every time.
#define OWN_KERNEL __attribute__((always_inline))

namespace vekr {

// ---------------------------------------------------------------------------
// One-wide lane: plain float, double, bool and int32 with the helpers that
// the four-wide types have as well.
// ---------------------------------------------------------------------------

OWN_LANE float ownSelect(bool m, float a, float b) { return m ? a : b; }
OWN_LANE std::int32_t ownSelect(bool m, std::int32_t a, std::int32_t b) { return m ? a : b; }
OWN_LANE bool ownAnd(bool a, bool b) { return a && b; }
OWN_LANE bool ownOr(bool a, bool b) { return a || b; }
OWN_LANE bool ownAndNot(bool a, bool b) { return a && !b; }  // a and not b
OWN_LANE bool ownNot(bool a) { return !a; }
OWN_LANE bool ownAny(bool a) { return a; }
OWN_LANE float ownNegateWhere(bool m, float x) { return m ? -x : x; }
OWN_LANE float ownSqrt(float x) { return std::sqrt(x); }
OWN_LANE float ownAbs(float x) { return std::fabs(x); }
// min and max with the comparison order of SSE minps/maxps, so that a NaN
// operand gives the second operand in both paths.
OWN_LANE float ownMin(float a, float b) { return a < b ? a : b; }
OWN_LANE float ownMax(float a, float b) { return a > b ? a : b; }
OWN_LANE bool ownNonNegative(std::int32_t x) { return x >= 0; }
// Truncation toward zero, as a cast does; and rounding in the current mode
// (ties to even by default, as nearbyint) with the processor's conversion
// (out of range and NaN give INT32_MIN).
OWN_LANE std::int32_t ownTruncToInt(float x) { return static_cast<std::int32_t>(x); }
OWN_LANE std::int32_t ownRoundToInt(float x) { return _mm_cvtss_si32(_mm_set_ss(x)); }
OWN_LANE std::int32_t ownRoundToInt(double x) { return _mm_cvtsd_si32(_mm_set_sd(x)); }

// ---------------------------------------------------------------------------
// Four-wide types.
// ---------------------------------------------------------------------------

// Four floats in one SSE register. The raw register converts implicitly, so
// that a value formed outside this vocabulary (by a test, say) can be passed
// to a lane function.
struct OwnF4 {
    __m128 v;
    OwnF4() = default;
    OWN_LANE OwnF4(__m128 x) : v(x) {}
    OWN_LANE explicit OwnF4(float x) : v(_mm_set1_ps(x)) {}
};
// A lane mask: all bits set where the condition holds, clear elsewhere.
struct OwnM4 {
    __m128 v;
    OwnM4() = default;
    OWN_LANE explicit OwnM4(__m128 x) : v(x) {}
    // Every lane set (true) or clear (false).
    OWN_LANE explicit OwnM4(bool all) : v(_mm_castsi128_ps(_mm_set1_epi32(all ? -1 : 0))) {}
};
// Four int32 in one SSE register.
struct OwnI4 {
    __m128i v;
    OwnI4() = default;
    OWN_LANE explicit OwnI4(__m128i x) : v(x) {}
    OWN_LANE explicit OwnI4(std::int32_t x) : v(_mm_set1_epi32(x)) {}
};
// Four doubles in two SSE2 registers (lanes 0-1 and 2-3).
struct OwnD4 {
    __m128d lo, hi;
    OwnD4() = default;
    OWN_LANE explicit OwnD4(double x) : lo(_mm_set1_pd(x)), hi(_mm_set1_pd(x)) {}
    OWN_LANE OwnD4(__m128d l, __m128d h) : lo(l), hi(h) {}
};

// Float arithmetic, one IEEE operation per lane (divps and sqrtps are
// correctly rounded like their scalar forms).
OWN_LANE OwnF4 operator+(OwnF4 a, OwnF4 b) { return OwnF4(_mm_add_ps(a.v, b.v)); }
OWN_LANE OwnF4 operator-(OwnF4 a, OwnF4 b) { return OwnF4(_mm_sub_ps(a.v, b.v)); }
OWN_LANE OwnF4 operator*(OwnF4 a, OwnF4 b) { return OwnF4(_mm_mul_ps(a.v, b.v)); }
OWN_LANE OwnF4 operator/(OwnF4 a, OwnF4 b) { return OwnF4(_mm_div_ps(a.v, b.v)); }
OWN_LANE OwnF4 ownSqrt(OwnF4 x) { return OwnF4(_mm_sqrt_ps(x.v)); }
OWN_LANE OwnF4 ownMin(OwnF4 a, OwnF4 b) { return OwnF4(_mm_min_ps(a.v, b.v)); }  // a < b ? a : b per lane
OWN_LANE OwnF4 ownMax(OwnF4 a, OwnF4 b) { return OwnF4(_mm_max_ps(a.v, b.v)); }  // a > b ? a : b per lane
// Clears the sign bit, as fabs does.
OWN_LANE OwnF4 ownAbs(OwnF4 x) { return OwnF4(_mm_andnot_ps(_mm_set1_ps(-0.0f), x.v)); }
// -x where the mask holds, x elsewhere: a sign flip (two instructions instead
// of the four of a select between two constants).
OWN_LANE OwnF4 ownNegateWhere(OwnM4 m, OwnF4 x) { return OwnF4(_mm_xor_ps(x.v, _mm_and_ps(m.v, _mm_set1_ps(-0.0f)))); }

// Ordered comparisons, false for NaN as in scalar code.
OWN_LANE OwnM4 operator<(OwnF4 a, OwnF4 b) { return OwnM4(_mm_cmplt_ps(a.v, b.v)); }
OWN_LANE OwnM4 operator>(OwnF4 a, OwnF4 b) { return OwnM4(_mm_cmpgt_ps(a.v, b.v)); }
OWN_LANE OwnM4 operator<=(OwnF4 a, OwnF4 b) { return OwnM4(_mm_cmple_ps(a.v, b.v)); }
OWN_LANE OwnM4 operator>=(OwnF4 a, OwnF4 b) { return OwnM4(_mm_cmpge_ps(a.v, b.v)); }
OWN_LANE OwnM4 operator==(OwnF4 a, OwnF4 b) { return OwnM4(_mm_cmpeq_ps(a.v, b.v)); }
OWN_LANE OwnM4 operator==(OwnI4 a, OwnI4 b) { return OwnM4(_mm_castsi128_ps(_mm_cmpeq_epi32(a.v, b.v))); }
OWN_LANE OwnM4 ownNonNegative(OwnI4 x) { return OwnM4(_mm_castsi128_ps(_mm_cmpgt_epi32(x.v, _mm_set1_epi32(-1)))); }

// Mask logic.
OWN_LANE OwnM4 ownAnd(OwnM4 a, OwnM4 b) { return OwnM4(_mm_and_ps(a.v, b.v)); }
OWN_LANE OwnM4 ownOr(OwnM4 a, OwnM4 b) { return OwnM4(_mm_or_ps(a.v, b.v)); }
OWN_LANE OwnM4 ownAndNot(OwnM4 a, OwnM4 b) { return OwnM4(_mm_andnot_ps(b.v, a.v)); }  // a and not b
OWN_LANE OwnM4 ownNot(OwnM4 a) { return OwnM4(_mm_xor_ps(a.v, _mm_castsi128_ps(_mm_set1_epi32(-1)))); }
// Bit l set where lane l of the mask holds.
OWN_LANE int ownMoveMask(OwnM4 a) { return _mm_movemask_ps(a.v); }
// Bit l set where lane l is negative (its sign bit).
OWN_LANE int ownSignMask(OwnI4 a) { return _mm_movemask_ps(_mm_castsi128_ps(a.v)); }
// True when the mask holds in any lane.
OWN_LANE bool ownAny(OwnM4 a) { return _mm_movemask_ps(a.v) != 0; }
// Bits 4k .. 4k + 3 from mask k: the lane bits of two or four masks at once
// (saturating packs keep every all-ones or all-zero lane as it is, so one
// byte movemask reads them all).
OWN_LANE int ownMoveMask8(OwnM4 a, OwnM4 b) {
    const __m128i ab = _mm_packs_epi32(_mm_castps_si128(a.v), _mm_castps_si128(b.v));
    return _mm_movemask_epi8(_mm_packs_epi16(ab, _mm_setzero_si128()));
}
OWN_LANE int ownMoveMask16(OwnM4 a, OwnM4 b, OwnM4 c, OwnM4 d) {
    const __m128i ab = _mm_packs_epi32(_mm_castps_si128(a.v), _mm_castps_si128(b.v));
    const __m128i cd = _mm_packs_epi32(_mm_castps_si128(c.v), _mm_castps_si128(d.v));
    return _mm_movemask_epi8(_mm_packs_epi16(ab, cd));
}

// Lane-bit masks (bit l of the index set: lane l all ones), the inverse of
// ownMoveMask.
alignas(16) static const std::uint32_t kOwnLaneMaskBits[16][4] = {
    {0, 0, 0, 0},  {~0u, 0, 0, 0},  {0, ~0u, 0, 0},  {~0u, ~0u, 0, 0},
    {0, 0, ~0u, 0},  {~0u, 0, ~0u, 0},  {0, ~0u, ~0u, 0},  {~0u, ~0u, ~0u, 0},
    {0, 0, 0, ~0u},  {~0u, 0, 0, ~0u},  {0, ~0u, 0, ~0u},  {~0u, ~0u, 0, ~0u},
    {0, 0, ~0u, ~0u},  {~0u, 0, ~0u, ~0u},  {0, ~0u, ~0u, ~0u},  {~0u, ~0u, ~0u, ~0u}};
OWN_LANE OwnM4 ownLaneMask(int bits) {
    return OwnM4(_mm_load_ps(reinterpret_cast<const float*>(kOwnLaneMaskBits[bits])));
}

// Bitwise choice, so the chosen value keeps its exact bits (signed zeros, NaN
// payloads).
OWN_LANE OwnF4 ownSelect(OwnM4 m, OwnF4 a, OwnF4 b) {
    return OwnF4(_mm_or_ps(_mm_and_ps(m.v, a.v), _mm_andnot_ps(m.v, b.v)));
}
OWN_LANE OwnI4 ownSelect(OwnM4 m, OwnI4 a, OwnI4 b) {
    const __m128i mi = _mm_castps_si128(m.v);
    return OwnI4(_mm_or_si128(_mm_and_si128(mi, a.v), _mm_andnot_si128(mi, b.v)));
}

// Double arithmetic, one IEEE operation per lane.
OWN_LANE OwnD4 operator+(OwnD4 a, OwnD4 b) { return {_mm_add_pd(a.lo, b.lo), _mm_add_pd(a.hi, b.hi)}; }
OWN_LANE OwnD4 operator-(OwnD4 a, OwnD4 b) { return {_mm_sub_pd(a.lo, b.lo), _mm_sub_pd(a.hi, b.hi)}; }
OWN_LANE OwnD4 operator*(OwnD4 a, OwnD4 b) { return {_mm_mul_pd(a.lo, b.lo), _mm_mul_pd(a.hi, b.hi)}; }
// Float to double and back, each lane exactly (widening) or rounded once to
// nearest (narrowing), as static_cast does.
OWN_LANE OwnD4 ownWiden(OwnF4 f) { return {_mm_cvtps_pd(f.v), _mm_cvtps_pd(_mm_movehl_ps(f.v, f.v))}; }
OWN_LANE OwnF4 ownNarrow(OwnD4 d) { return OwnF4(_mm_movelh_ps(_mm_cvtpd_ps(d.lo), _mm_cvtpd_ps(d.hi))); }

// Loads and stores of four floats or int32: unaligned (U) wherever alignment
// is not proven, aligned (A) where it is, and streaming past the caches.
OWN_LANE OwnF4 ownLoadU(const float* p) { return OwnF4(_mm_loadu_ps(p)); }
OWN_LANE OwnF4 ownLoadA(const float* p) { return OwnF4(_mm_load_ps(p)); }
OWN_LANE void ownStoreU(float* p, OwnF4 x) { _mm_storeu_ps(p, x.v); }
OWN_LANE void ownStoreA(float* p, OwnF4 x) { _mm_store_ps(p, x.v); }
OWN_LANE void ownStream(float* p, OwnF4 x) { _mm_stream_ps(p, x.v); }
OWN_LANE OwnI4 ownLoadU(const std::int32_t* p) { return OwnI4(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))); }
OWN_LANE OwnI4 ownLoadA(const std::int32_t* p) { return OwnI4(_mm_load_si128(reinterpret_cast<const __m128i*>(p))); }
OWN_LANE void ownStoreU(std::int32_t* p, OwnI4 x) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), x.v); }
OWN_LANE void ownStoreA(std::int32_t* p, OwnI4 x) { _mm_store_si128(reinterpret_cast<__m128i*>(p), x.v); }
OWN_LANE void ownStream(std::int32_t* p, OwnI4 x) { _mm_stream_si128(reinterpret_cast<__m128i*>(p), x.v); }
// Orders streamed stores before anything that follows.
OWN_LANE void ownStreamFence() { _mm_sfence(); }

// Transposes four rows of four floats (rows in, columns out).
OWN_LANE void ownTranspose(OwnF4& r0, OwnF4& r1, OwnF4& r2, OwnF4& r3) { _MM_TRANSPOSE4_PS(r0.v, r1.v, r2.v, r3.v); }

// ---------------------------------------------------------------------------
// Integer lanes: int32 arithmetic and conversions, eight int16 lanes with the
// pair multiply-add of the packed convolution.
// ---------------------------------------------------------------------------

// Eight int16 in one SSE register.
struct OwnW8 {
    __m128i v;
    OwnW8() = default;
    OWN_LANE explicit OwnW8(__m128i x) : v(x) {}
};
// The block (first, second) repeated four times, the coefficient pair of a
// pair multiply-add.
OWN_LANE OwnW8 ownPairs16(std::int16_t first, std::int16_t second) {
    return OwnW8(_mm_set_epi16(second, first, second, first, second, first, second, first));
}
// Each pair (a, b) moved to (0, a): the second value of the pair takes the
// first's place.
OWN_LANE OwnW8 ownPairShiftUp(OwnW8 x) { return OwnW8(_mm_slli_epi32(x.v, 16)); }
// a0 b0 + a1 b1, a2 b2 + a3 b3, ... as four int32 (pmaddwd; a pair sum of
// two -32768 * -32768 products wraps).
OWN_LANE OwnI4 ownMulAddPairs(OwnW8 a, OwnW8 b) { return OwnI4(_mm_madd_epi16(a.v, b.v)); }
// Eight int32 to int16 with signed saturation (a, then b).
OWN_LANE OwnW8 ownPackSat(OwnI4 a, OwnI4 b) { return OwnW8(_mm_packs_epi32(a.v, b.v)); }
OWN_LANE OwnW8 ownLoadU(const std::int16_t* p) { return OwnW8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))); }
OWN_LANE void ownStoreU(std::int16_t* p, OwnW8 x) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), x.v); }
// Four int16 sign-extended to int32 (an 8-byte load).
OWN_LANE OwnI4 ownLoadWiden4(const std::int16_t* p) {
    const __m128i v = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
    return OwnI4(_mm_srai_epi32(_mm_unpacklo_epi16(v, v), 16));
}

// int32 arithmetic, wrapping like unsigned arithmetic.
OWN_LANE OwnI4 operator+(OwnI4 a, OwnI4 b) { return OwnI4(_mm_add_epi32(a.v, b.v)); }
OWN_LANE OwnI4 operator-(OwnI4 a, OwnI4 b) { return OwnI4(_mm_sub_epi32(a.v, b.v)); }
// Lanes (a0, b0, a1, b1) and (a2, b2, a3, b3).
OWN_LANE OwnI4 ownInterleaveLo(OwnI4 a, OwnI4 b) { return OwnI4(_mm_unpacklo_epi32(a.v, b.v)); }
OWN_LANE OwnI4 ownInterleaveHi(OwnI4 a, OwnI4 b) { return OwnI4(_mm_unpackhi_epi32(a.v, b.v)); }
// int32 to float, rounded to nearest like the scalar conversion.
OWN_LANE OwnF4 ownToFloat(OwnI4 x) { return OwnF4(_mm_cvtepi32_ps(x.v)); }
// Float to int32 rounded in the current mode (ties to even by default), as
// nearbyint does, and truncated toward zero, as a cast does; out of range
// and NaN give 0x80000000.
OWN_LANE OwnI4 ownRoundToInt(OwnF4 x) { return OwnI4(_mm_cvtps_epi32(x.v)); }
OWN_LANE OwnI4 ownTruncToInt(OwnF4 x) { return OwnI4(_mm_cvttps_epi32(x.v)); }

// ---------------------------------------------------------------------------
// Two doubles in one SSE2 register: storage of double pairs and the halves
// of OwnD4.
// ---------------------------------------------------------------------------

struct OwnD2 {
    __m128d v;
    OwnD2() = default;
    OWN_LANE explicit OwnD2(__m128d x) : v(x) {}
    OWN_LANE explicit OwnD2(double x) : v(_mm_set1_pd(x)) {}
};
// The same pair in both halves of four lanes.
OWN_LANE OwnD4 ownBroadcast(OwnD2 pair) { return {pair.v, pair.v}; }
// int32 to double, exactly.
OWN_LANE OwnD4 ownToDouble(OwnI4 x) { return {_mm_cvtepi32_pd(x.v), _mm_cvtepi32_pd(_mm_shuffle_epi32(x.v, 0xEE))}; }

// ---------------------------------------------------------------------------
// Shuffles, gathers and horizontal sums of four floats.
// ---------------------------------------------------------------------------

OWN_LANE OwnF4 ownSetLanes(float x0, float x1, float x2, float x3) { return OwnF4(_mm_setr_ps(x0, x1, x2, x3)); }
// Lane j of x in all four lanes.
template <int j>
OWN_LANE OwnF4 ownBroadcastLane(OwnF4 x) {
    return OwnF4(_mm_shuffle_ps(x.v, x.v, j * 0x55));
}
// (a0, a2, b0, b2) and (a1, a3, b1, b3): the even and odd lanes of a, then of b.
OWN_LANE OwnF4 ownEvenLanes(OwnF4 a, OwnF4 b) { return OwnF4(_mm_shuffle_ps(a.v, b.v, _MM_SHUFFLE(2, 0, 2, 0))); }
OWN_LANE OwnF4 ownOddLanes(OwnF4 a, OwnF4 b) { return OwnF4(_mm_shuffle_ps(a.v, b.v, _MM_SHUFFLE(3, 1, 3, 1))); }
// Two consecutive floats at lo in lanes 0-1 and two at hi in lanes 2-3: one
// 8-byte load each (movq, movhps), any alignment, bits copied unchanged.
OWN_LANE OwnF4 ownLoadPairs(const void* lo, const void* hi) {
    const __m128 l = _mm_castsi128_ps(_mm_loadl_epi64(static_cast<const __m128i*>(lo)));
    return OwnF4(_mm_loadh_pi(l, static_cast<const __m64*>(hi)));
}
// ((x0 + x1) + x2) + x3, in that order.
OWN_LANE float ownSumLanes(OwnF4 x) {
    const __m128 s01 = _mm_add_ss(x.v, _mm_shuffle_ps(x.v, x.v, 0x55));
    const __m128 s012 = _mm_add_ss(s01, _mm_movehl_ps(x.v, x.v));
    return _mm_cvtss_f32(_mm_add_ss(s012, _mm_shuffle_ps(x.v, x.v, 0xFF)));
}
// Asks the cache for the line holding p (a hint; never faults).
OWN_LANE void ownPrefetch(const void* p) { _mm_prefetch(static_cast<const char*>(p), _MM_HINT_T0); }

// ---------------------------------------------------------------------------
// Integer bits: logic, shifts, lane 0, 32-bit products, the zero-extending
// loads and the narrowing stores of 8u and 16u elements, and the 16-bit and
// byte placement of the small-element gathers.
// ---------------------------------------------------------------------------

OWN_LANE OwnI4 operator&(OwnI4 a, OwnI4 b) { return OwnI4(_mm_and_si128(a.v, b.v)); }
OWN_LANE OwnI4 operator|(OwnI4 a, OwnI4 b) { return OwnI4(_mm_or_si128(a.v, b.v)); }
template <int n>
OWN_LANE OwnI4 ownShiftLeft(OwnI4 x) {
    return OwnI4(_mm_slli_epi32(x.v, n));
}
// Logical (zero-filling) right shift.
template <int n>
OWN_LANE OwnI4 ownShiftRight(OwnI4 x) {
    return OwnI4(_mm_srli_epi32(x.v, n));
}
OWN_LANE OwnI4 ownSetLanes(std::int32_t x0, std::int32_t x1, std::int32_t x2, std::int32_t x3) {
    return OwnI4(_mm_setr_epi32(x0, x1, x2, x3));
}
// x in lane 0, zeros elsewhere; and lane 0 back.
OWN_LANE OwnI4 ownInLane0(std::int32_t x) { return OwnI4(_mm_cvtsi32_si128(x)); }
OWN_LANE std::int32_t ownLane0(OwnI4 x) { return _mm_cvtsi128_si32(x.v); }
// The four lanes of x as unsigned 32-bit values. On x86-64 two 64-bit moves
// to general registers, each split by a shift, so that the values can index
// memory straight from registers; on i386 a store and four loads.
OWN_LANE void ownLanesU32(OwnI4 x, std::uint32_t out[4]) {
#if defined(__x86_64__)
    const std::uint64_t lo = static_cast<std::uint64_t>(_mm_cvtsi128_si64(x.v));
    const std::uint64_t hi = static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(x.v, x.v)));
    out[0] = static_cast<std::uint32_t>(lo);
    out[1] = static_cast<std::uint32_t>(lo >> 32);
    out[2] = static_cast<std::uint32_t>(hi);
    out[3] = static_cast<std::uint32_t>(hi >> 32);
#else
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), x.v);
#endif
}
// Lanes 0-1 of a, then lanes 0-1 of b.
OWN_LANE OwnI4 ownConcatLow(OwnI4 a, OwnI4 b) { return OwnI4(_mm_unpacklo_epi64(a.v, b.v)); }
// x * f per lane, the low 32 bits of each product (SSE2 has no 32-bit
// multiply: the even and the odd lanes go through pmuludq).
OWN_LANE OwnI4 ownMulLo(OwnI4 x, std::int32_t f) {
    const __m128i fv = _mm_set1_epi32(f);
    const __m128i even = _mm_mul_epu32(x.v, fv), odd = _mm_mul_epu32(_mm_srli_epi64(x.v, 32), fv);
    return OwnI4(_mm_unpacklo_epi32(_mm_shuffle_epi32(even, _MM_SHUFFLE(0, 0, 2, 0)),
                                    _mm_shuffle_epi32(odd, _MM_SHUFFLE(0, 0, 2, 0))));
}
// The same 128 bits seen as int32 or as int16 lanes.
OWN_LANE OwnW8 ownAsW8(OwnI4 x) { return OwnW8(x.v); }
OWN_LANE OwnI4 ownAsI4(OwnW8 x) { return OwnI4(x.v); }
// x with its 16-bit lane `lane` replaced by the low 16 bits of v (pinsrw,
// straight from a general register).
template <int lane>
OWN_LANE OwnW8 ownInsert16(OwnW8 x, int v) {
    return OwnW8(_mm_insert_epi16(x.v, v, lane));
}
// Byte k of the result is byte pick[k] of x, or 0 where pick[k] has its top
// bit set (pshufb).
OWN_LANE OwnI4 ownShuffleBytes(OwnW8 x, OwnI4 pick) { return OwnI4(_mm_shuffle_epi8(x.v, pick.v)); }
OWN_LANE OwnI4 ownSetBytes(char b0, char b1, char b2, char b3, char b4, char b5, char b6, char b7, char b8, char b9,
                           char b10, char b11, char b12, char b13, char b14, char b15) {
    return OwnI4(_mm_setr_epi8(b0, b1, b2, b3, b4, b5, b6, b7, b8, b9, b10, b11, b12, b13, b14, b15));
}
// The low eight bytes of the register from p (movq), zeros above.
OWN_LANE OwnI4 ownLoadLow64(const void* p) { return OwnI4(_mm_loadl_epi64(static_cast<const __m128i*>(p))); }
// The four low 16-bit lanes, or the four low bytes, zero-extended to int32.
OWN_LANE OwnI4 ownWidenLowU16(OwnI4 x) { return OwnI4(_mm_unpacklo_epi16(x.v, _mm_setzero_si128())); }
OWN_LANE OwnI4 ownWidenLowU8(OwnI4 x) {
    const __m128i zero = _mm_setzero_si128();
    return OwnI4(_mm_unpacklo_epi16(_mm_unpacklo_epi8(x.v, zero), zero));
}
// Four elements from p as floats (exact for 8u and 16u; float bits copied).
OWN_LANE OwnF4 ownLoadAsFloat(const float* p) { return ownLoadU(p); }
OWN_LANE OwnF4 ownLoadAsFloat(const std::uint16_t* p) { return ownToFloat(ownWidenLowU16(ownLoadLow64(p))); }
OWN_LANE OwnF4 ownLoadAsFloat(const std::uint8_t* p) {
    std::uint32_t v;
    std::memcpy(&v, p, 4);
    return ownToFloat(ownWidenLowU8(ownInLane0(static_cast<std::int32_t>(v))));
}
// Four int32 in [0, 255] stored as bytes, and four in [0, 65535] as uint16,
// at p of any alignment. 0..255 fits both packs without saturation; 0..65535
// does not fit the signed pack, so it is biased by -32768, packed with
// signed saturation (exact after the bias) and the bias flipped back.
OWN_LANE void ownStoreNarrow(std::uint8_t* p, OwnI4 x) {
    const __m128i i16 = _mm_packs_epi32(x.v, x.v);
    const int packed = _mm_cvtsi128_si32(_mm_packus_epi16(i16, i16));
    std::memcpy(p, &packed, 4);
}
OWN_LANE void ownStoreNarrow(std::uint16_t* p, OwnI4 x) {
    const __m128i i32 = _mm_sub_epi32(x.v, _mm_set1_epi32(32768));
    const __m128i i16 = _mm_xor_si128(_mm_packs_epi32(i32, i32), _mm_set1_epi16(-32768));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(p), i16);
}
// Sixteen int32 in [0, 255] narrowed to sixteen bytes, and eight in
// [0, 65535] to eight uint16, as one 16-byte vector (the packs of
// ownStoreNarrow, a whole register at a time); float bits unchanged. The
// result goes out through ownStoreU / ownStream on std::int32_t*.
OWN_LANE OwnI4 ownNarrowU8(OwnI4 a, OwnI4 b, OwnI4 c, OwnI4 d) {
    return OwnI4(_mm_packus_epi16(_mm_packs_epi32(a.v, b.v), _mm_packs_epi32(c.v, d.v)));
}
OWN_LANE OwnI4 ownNarrowU16(OwnI4 a, OwnI4 b) {
    const __m128i bias = _mm_set1_epi32(32768);
    const __m128i lo = _mm_sub_epi32(a.v, bias), hi = _mm_sub_epi32(b.v, bias);
    return OwnI4(_mm_xor_si128(_mm_packs_epi32(lo, hi), _mm_set1_epi16(-32768)));
}
OWN_LANE OwnI4 ownFloatBits(OwnF4 x) { return OwnI4(_mm_castps_si128(x.v)); }

// ---------------------------------------------------------------------------
// Two-double lanes: arithmetic, comparisons and conversions of OwnD2.
// ---------------------------------------------------------------------------

// A mask of two double lanes.
struct OwnMD2 {
    __m128d v;
    OwnMD2() = default;
    OWN_LANE explicit OwnMD2(__m128d x) : v(x) {}
    OWN_LANE explicit OwnMD2(bool all) : v(_mm_castsi128_pd(_mm_set1_epi32(all ? -1 : 0))) {}
};
// (lane 0, lane 1).
OWN_LANE OwnD2 ownSetLanes(double x0, double x1) { return OwnD2(_mm_set_pd(x1, x0)); }
OWN_LANE OwnD2 operator+(OwnD2 a, OwnD2 b) { return OwnD2(_mm_add_pd(a.v, b.v)); }
OWN_LANE OwnD2 operator-(OwnD2 a, OwnD2 b) { return OwnD2(_mm_sub_pd(a.v, b.v)); }
OWN_LANE OwnD2 operator*(OwnD2 a, OwnD2 b) { return OwnD2(_mm_mul_pd(a.v, b.v)); }
OWN_LANE OwnD2 ownMin(OwnD2 a, OwnD2 b) { return OwnD2(_mm_min_pd(a.v, b.v)); }  // a < b ? a : b per lane
OWN_LANE OwnD2 ownMax(OwnD2 a, OwnD2 b) { return OwnD2(_mm_max_pd(a.v, b.v)); }  // a > b ? a : b per lane
OWN_LANE OwnD2 ownAbs(OwnD2 x) { return OwnD2(_mm_andnot_pd(_mm_set1_pd(-0.0), x.v)); }
OWN_LANE OwnMD2 operator<(OwnD2 a, OwnD2 b) { return OwnMD2(_mm_cmplt_pd(a.v, b.v)); }
OWN_LANE OwnMD2 operator<=(OwnD2 a, OwnD2 b) { return OwnMD2(_mm_cmple_pd(a.v, b.v)); }
OWN_LANE OwnMD2 operator>=(OwnD2 a, OwnD2 b) { return OwnMD2(_mm_cmpge_pd(a.v, b.v)); }
OWN_LANE OwnMD2 ownAnd(OwnMD2 a, OwnMD2 b) { return OwnMD2(_mm_and_pd(a.v, b.v)); }
OWN_LANE OwnMD2 ownAndNot(OwnMD2 a, OwnMD2 b) { return OwnMD2(_mm_andnot_pd(b.v, a.v)); }  // a and not b
OWN_LANE int ownMoveMask(OwnMD2 a) { return _mm_movemask_pd(a.v); }
// x where the mask holds, +0.0 elsewhere; and the bitwise union of two such
// values with disjoint masks.
OWN_LANE OwnD2 ownKeep(OwnMD2 m, OwnD2 x) { return OwnD2(_mm_and_pd(m.v, x.v)); }
OWN_LANE OwnD2 ownUnion(OwnD2 a, OwnD2 b) { return OwnD2(_mm_or_pd(a.v, b.v)); }
// (a0, b0) and (a1, b1).
OWN_LANE OwnD2 ownInterleaveLo(OwnD2 a, OwnD2 b) { return OwnD2(_mm_unpacklo_pd(a.v, b.v)); }
OWN_LANE OwnD2 ownInterleaveHi(OwnD2 a, OwnD2 b) { return OwnD2(_mm_unpackhi_pd(a.v, b.v)); }
OWN_LANE void ownStoreU(double* p, OwnD2 x) { _mm_storeu_pd(p, x.v); }
// Rounded once to float: lo's lanes in 0-1, hi's in 2-3.
OWN_LANE OwnF4 ownNarrow(OwnD2 lo, OwnD2 hi) { return OwnF4(_mm_movelh_ps(_mm_cvtpd_ps(lo.v), _mm_cvtpd_ps(hi.v))); }
// Truncated toward zero to int32 in lanes 0-1 (lanes 2-3 zero), and int32
// lanes 0-1 to double exactly.
OWN_LANE OwnI4 ownTruncToInt(OwnD2 x) { return OwnI4(_mm_cvttpd_epi32(x.v)); }
OWN_LANE OwnD2 ownToDouble2(OwnI4 x) { return OwnD2(_mm_cvtepi32_pd(x.v)); }

// ---------------------------------------------------------------------------
// More integer and double lanes: bit logic, lane moves, the masks and
// selects of OwnD2 and OwnD4, and single-lane access.
// ---------------------------------------------------------------------------

OWN_LANE OwnI4 operator^(OwnI4 a, OwnI4 b) { return OwnI4(_mm_xor_si128(a.v, b.v)); }
OWN_LANE OwnI4 ownAndNot(OwnI4 a, OwnI4 b) { return OwnI4(_mm_andnot_si128(b.v, a.v)); }  // a and not b
// Arithmetic (sign-filling) right shift.
template <int n>
OWN_LANE OwnI4 ownShiftRightArith(OwnI4 x) {
    return OwnI4(_mm_srai_epi32(x.v, n));
}
// The lanes moved up by n places, zeros into the lowest n (lane l of the
// result is lane l - n of x).
template <int n>
OWN_LANE OwnI4 ownShiftLanesUp(OwnI4 x) {
    return OwnI4(_mm_slli_si128(x.v, 4 * n));
}
// Lane j of x in all four lanes.
template <int j>
OWN_LANE OwnI4 ownBroadcastLane(OwnI4 x) {
    return OwnI4(_mm_shuffle_epi32(x.v, j * 0x55));
}
// The same 128 bits seen as floats or as int32.
OWN_LANE OwnF4 ownAsF4(OwnI4 x) { return OwnF4(_mm_castsi128_ps(x.v)); }
OWN_LANE OwnI4 ownAsI4(OwnF4 x) { return OwnI4(_mm_castps_si128(x.v)); }

OWN_LANE OwnD2 ownLoadU(const double* p) { return OwnD2(_mm_loadu_pd(p)); }
// p[0] in lane 0, +0.0 in lane 1; and lane 0 stored to p[0] or returned.
OWN_LANE OwnD2 ownLoadLow(const double* p) { return OwnD2(_mm_load_sd(p)); }
OWN_LANE void ownStoreLow(double* p, OwnD2 x) { _mm_store_sd(p, x.v); }
OWN_LANE double ownLane0(OwnD2 x) { return _mm_cvtsd_f64(x.v); }
OWN_LANE OwnMD2 operator==(OwnD2 a, OwnD2 b) { return OwnMD2(_mm_cmpeq_pd(a.v, b.v)); }
OWN_LANE OwnMD2 ownOr(OwnMD2 a, OwnMD2 b) { return OwnMD2(_mm_or_pd(a.v, b.v)); }
// Bitwise choice, as for OwnF4.
OWN_LANE OwnD2 ownSelect(OwnMD2 m, OwnD2 a, OwnD2 b) {
    return OwnD2(_mm_or_pd(_mm_and_pd(m.v, a.v), _mm_andnot_pd(m.v, b.v)));
}

// A mask of four double lanes (two registers, as OwnD4).
struct OwnMD4 {
    __m128d lo, hi;
};
OWN_LANE OwnMD4 operator<(OwnD4 a, OwnD4 b) { return {_mm_cmplt_pd(a.lo, b.lo), _mm_cmplt_pd(a.hi, b.hi)}; }
OWN_LANE OwnD4 ownMin(OwnD4 a, OwnD4 b) { return {_mm_min_pd(a.lo, b.lo), _mm_min_pd(a.hi, b.hi)}; }  // a < b ? a : b
OWN_LANE OwnD4 ownMax(OwnD4 a, OwnD4 b) { return {_mm_max_pd(a.lo, b.lo), _mm_max_pd(a.hi, b.hi)}; }  // a > b ? a : b
// x where the mask holds, +0.0 elsewhere.
OWN_LANE OwnD4 ownKeep(OwnMD4 m, OwnD4 x) { return {_mm_and_pd(m.lo, x.lo), _mm_and_pd(m.hi, x.hi)}; }
// Lanes 0-1 and 2-3 as pairs.
OWN_LANE OwnD2 ownLowPair(OwnD4 x) { return OwnD2(x.lo); }
OWN_LANE OwnD2 ownHighPair(OwnD4 x) { return OwnD2(x.hi); }

// ---------------------------------------------------------------------------
// Double pairs from and to floats, and the float shuffles of small records.
// ---------------------------------------------------------------------------

// Lanes 0-1 of a float register widened to double exactly.
OWN_LANE OwnD2 ownWidenLow(OwnF4 x) { return OwnD2(_mm_cvtps_pd(x.v)); }
// Two doubles rounded once to float, in lanes 0-1 (lanes 2-3 zero).
OWN_LANE OwnF4 ownNarrowLow(OwnD2 x) { return OwnF4(_mm_cvtpd_ps(x.v)); }
// p[0] in lane 0, zeros elsewhere (movss).
OWN_LANE OwnF4 ownLoadLow(const float* p) { return OwnF4(_mm_load_ss(p)); }
// Lanes 2-3 stored to p[0..1] (movhps, any alignment).
OWN_LANE void ownStoreHigh(float* p, OwnF4 x) { _mm_storeh_pi(reinterpret_cast<__m64*>(p), x.v); }
// (a0, b0, a1, b1).
OWN_LANE OwnF4 ownInterleaveLo(OwnF4 a, OwnF4 b) { return OwnF4(_mm_unpacklo_ps(a.v, b.v)); }
// (a[i0], a[i1], b[j0], b[j1]).
template <int i0, int i1, int j0, int j1>
OWN_LANE OwnF4 ownShuffle(OwnF4 a, OwnF4 b) {
    return OwnF4(_mm_shuffle_ps(a.v, b.v, _MM_SHUFFLE(j1, j0, i1, i0)));
}
OWN_LANE OwnD2 operator/(OwnD2 a, OwnD2 b) { return OwnD2(_mm_div_pd(a.v, b.v)); }
OWN_LANE OwnD2 ownSqrt(OwnD2 x) { return OwnD2(_mm_sqrt_pd(x.v)); }
// !(a < b) per lane: true where b is not greater, and for NaN.
OWN_LANE OwnMD2 ownNotLess(OwnD2 a, OwnD2 b) { return OwnMD2(_mm_cmpnlt_pd(a.v, b.v)); }

// ---------------------------------------------------------------------------
// Access policies. A kernel is written as `template <class IO> void k(IO, i)`
// and handles IO::kWidth elements starting at element i; IO::F, IO::M and
// IO::I are its float, mask and integer lanes. load/store follow the
// policy's alignment; loadA/storeA are for the one array an
// alignment-peeling loop has brought to a 16-byte boundary.
// ---------------------------------------------------------------------------

struct OwnLane1 {
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
    static OWN_LANE M nonNegative(I x) { return ownNonNegative(x); }
    // float(i), the position of the element in its row.
    static OWN_LANE F index(int i) { return static_cast<float>(i); }
    // True when no lane is negative.
    static OWN_LANE bool allNonNegative(I t) { return t >= 0; }
    // The address base + offset for t >= 0, else none. kAllNonNegative says
    // that allNonNegative() held for the element's packet.
    template <bool kAllNonNegative, class T>
    static OWN_LANE T* pick(std::int32_t t, T* base, std::ptrdiff_t offset, T* none) {
        return kAllNonNegative || t >= 0 ? base + offset : none;
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

template <bool kAligned = false, bool kStream = false>
struct OwnLane4 {
    using F = OwnF4;
    using M = OwnM4;
    using I = OwnI4;
    static constexpr int kWidth = 4;
    static OWN_LANE F load(const float* p) { return kAligned ? ownLoadA(p) : ownLoadU(p); }
    static OWN_LANE F loadA(const float* p) { return ownLoadA(p); }
    static OWN_LANE void store(float* p, F x) { ownPut(p, x); }
    static OWN_LANE void storeA(float* p, F x) { ownStoreA(p, x); }
    static OWN_LANE I loadI(const std::int32_t* p) { return kAligned ? ownLoadA(p) : ownLoadU(p); }
    static OWN_LANE void storeI(std::int32_t* p, I x) { ownPut(p, x); }
    // Four lanes are stored together; masked lanes get their old bits back.
    static OWN_LANE void storeWhere(float* p, M m, F x, F old) { store(p, ownSelect(m, x, old)); }
    static OWN_LANE M nonNegative(I x) { return ownNonNegative(x); }
    static OWN_LANE F index(int i) {
        return OwnF4(_mm_cvtepi32_ps(_mm_add_epi32(_mm_set1_epi32(i), _mm_setr_epi32(0, 1, 2, 3))));
    }
    // True when no lane is negative (no sign bit set among the four).
    static OWN_LANE bool allNonNegative(I t) { return ownSignMask(t) == 0; }
    // The address base + offset for t >= 0, else none. A packet whose lanes
    // are all non-negative (kAllNonNegative; the common case where negative
    // values come in runs) forms its addresses directly. Otherwise each lane
    // chooses by a conditional move rather than a branch on its t, which
    // would be mispredicted wherever the signs mix. (The asm is the point
    // here: it keeps the compiler from turning the choice back into a
    // branch, which it would do knowing that `none` holds zeros.) The address
    // of a negative lane is formed as an integer, never as an out-of-range
    // pointer, and is not read.
    template <bool kAllNonNegative, class T>
    static OWN_LANE T* pick(std::int32_t t, T* base, std::ptrdiff_t offset, T* none) {
        if (kAllNonNegative) return base + offset;
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
        out[0] = OwnF4(_mm_movelh_ps(xy01, xy23));
        out[1] = OwnF4(_mm_movehl_ps(xy23, xy01));
        out[2] = OwnF4(_mm_movelh_ps(z01, z23));
    }

private:
    // A store in the policy's manner: streaming, aligned or unaligned.
    template <class T, class V>
    static OWN_LANE void ownPut(T* p, V x) {
        if (kStream)
            ownStream(p, x);
        else if (kAligned)
            ownStoreA(p, x);
        else
            ownStoreU(p, x);
    }
    // One lane's row: x and y with movq (an 8-byte load with no alignment
    // requirement), z with movss.
    static OWN_LANE void ownLoadRow(const float* p, __m128& xy, __m128& z) {
        xy = _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
        z = _mm_load_ss(p + 2);
    }
};

}  // namespace vekr

#endif  // VEKR_CORE_LANES_H
