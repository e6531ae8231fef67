// Forward and inverse spherical-harmonic transforms: projection of sampled
// values onto the basis (accumulated into coefficient vectors) and
// reconstruction of values from coefficients, one direction at a time.

#include <cstring>

#include "core/lanes.h"
#include "sh/sh_internal.h"

namespace vekr {
namespace {

// Per-call scratch on the stack: the basis of one direction and its scaled
// copy. The basis starts zeroed, so a state the evaluator refuses (an unknown
// type) yields zero contributions rather than reads of uninitialised memory.
struct OwnSHScratch {
    float basis[kSHMaxCoeffs];
    float scaled[kSHMaxCoeffs];
    OwnSHScratch() { std::memset(basis, 0, sizeof basis); }
};

// The common checks of the six transforms: pointers first (the caller folds
// every required pointer into allPresent), then the count, then the order
// against the state. Orders above 15 would overrun the scratch, so they are
// refused here too, before any work. Returns 1 when the caller must go on.
inline int ownSHTransformChecks(bool allPresent, int count, std::uint32_t order, const VekrSHState* pState,
                                VekStatus* pStatus) {
    if (!allPresent) {
        *pStatus = vekStatusNullPtr;
        return 0;
    }
    if (count == 0) {
        *pStatus = vekStatusBadSize;
        return 0;
    }
    if (order > pState->order || order > kSHMaxOrder) {
        *pStatus = vekStatusBadArgument;
        return 0;
    }
    *pStatus = vekStatusOk;
    return count > 0;
}

inline bool ownAll3(const float* const* p) { return p[0] != nullptr && p[1] != nullptr && p[2] != nullptr; }

// scaled = v * basis, with the two shortcuts: v == 1 copies the basis, v == 0
// (either sign) zero-fills, whatever the basis holds (even NaN or infinity).
inline void ownSHScale(const float* basis, float v, int n, float* scaled) {
    if (v == 1.0f) {
        std::memcpy(scaled, basis, sizeof(float) * n);
    } else if (v == 0.0f) {
        std::memset(scaled, 0, sizeof(float) * n);
    } else {
        for (int k = 0; k < n; ++k) scaled[k] = basis[k] * v;
    }
}

inline void ownSHAccumulate(const float* scaled, int n, float* pCoeffs) {
    for (int k = 0; k < n; ++k) pCoeffs[k] = pCoeffs[k] + scaled[k];
}

// Single-precision dot product in sixteen partial sums: element k goes to
// sum k mod 16, and the sums combine pairwise, (s_j + s_(j+4)) + (s_(j+8) +
// s_(j+12)) for lanes j = 0..3 and then (t0 + t1) + (t2 + t3). Sixteen
// independent chains hide the latency of the additions; the vector loop below
// is this order four lanes at a time (unaligned loads, any n).
inline float ownSHDot(const float* b, const float* c, int n) {
    OwnF4 acc[4] = {OwnF4(0.0f), OwnF4(0.0f), OwnF4(0.0f), OwnF4(0.0f)};
    int k = 0;
    for (; k + 16 <= n; k += 16)
        for (int j = 0; j < 4; ++j)
            acc[j] = acc[j] + ownLoadU(b + k + 4 * j) * ownLoadU(c + k + 4 * j);
    float s[16];
    for (int j = 0; j < 4; ++j) ownStoreU(s + 4 * j, acc[j]);
    for (; k < n; ++k) s[k & 15] = s[k & 15] + b[k] * c[k];
    float t[4];
    for (int j = 0; j < 4; ++j) t[j] = (s[j] + s[j + 4]) + (s[j + 8] + s[j + 12]);
    return (t[0] + t[1]) + (t[2] + t[3]);
}

inline int ownSHCount(std::uint32_t order) { return static_cast<int>((order + 1) * (order + 1)); }

// Forward transform over three channels; value(i, c) reads the sample of
// channel c of direction i.
template <class Value>
void ownSHForward3(const float* pX, const float* pY, const float* pZ, const Value& value, int count,
                   float* const* pCoeffs, std::uint32_t order, const VekrSHState* pState) {
    OwnSHScratch s;
    const int n = ownSHCount(order);
    for (int i = 0; i < count; ++i) {
        ownSH_32f(pX + i, pY + i, pZ + i, 1, s.basis, order, pState);
        for (int c = 0; c < 3; ++c) {
            ownSHScale(s.basis, value(i, c), n, s.scaled);
            ownSHAccumulate(s.scaled, n, pCoeffs[c]);
        }
    }
}

// Inverse transform over three channels; store(i, c, v) writes the result.
template <class Store>
void ownSHInverse3(const float* const* pCoeffs, std::uint32_t order, const float* pX, const float* pY, const float* pZ,
                   const Store& store, int count, const VekrSHState* pState) {
    OwnSHScratch s;
    const int n = ownSHCount(order);
    for (int i = 0; i < count; ++i) {
        ownSH_32f(pX + i, pY + i, pZ + i, 1, s.basis, order, pState);
        for (int c = 0; c < 3; ++c) store(i, c, ownSHDot(s.basis, pCoeffs[c], n));
    }
}

}  // namespace
}  // namespace vekr

using namespace vekr;

extern "C" OWN_SSE_ENTRY VekStatus vekrSHTFwd_32f_C1I(const float* pX, const float* pY, const float* pZ,
                                                      const float* pVal, int count, float* pCoeffs, std::uint32_t order,
                                                      const VekrSHState* pState) {
    VekStatus st;
    const bool present = pX && pY && pZ && pVal && pCoeffs && pState;
    if (!ownSHTransformChecks(present, count, order, pState, &st)) return st;
    OwnSHScratch s;
    const int n = ownSHCount(order);
    for (int i = 0; i < count; ++i) {
        ownSH_32f(pX + i, pY + i, pZ + i, 1, s.basis, order, pState);
        ownSHScale(s.basis, pVal[i], n, s.scaled);
        ownSHAccumulate(s.scaled, n, pCoeffs);
    }
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrSHTFwd_32f_C3P3I(const float* pX, const float* pY, const float* pZ,
                                                        const float* pVal, int count, float* pCoeffs[3],
                                                        std::uint32_t order, const VekrSHState* pState) {
    VekStatus st;
    const bool present = pX && pY && pZ && pVal && pCoeffs && pState && ownAll3(pCoeffs);
    if (!ownSHTransformChecks(present, count, order, pState, &st)) return st;
    ownSHForward3(
        pX, pY, pZ, [pVal](int i, int c) { return pVal[3 * i + c]; }, count, pCoeffs, order, pState);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrSHTFwd_32f_P3I(const float* pX, const float* pY, const float* pZ,
                                                      const float* const pVal[3], int count, float* pCoeffs[3],
                                                      std::uint32_t order, const VekrSHState* pState) {
    VekStatus st;
    const bool present = pX && pY && pZ && pVal && pCoeffs && pState && ownAll3(pVal) && ownAll3(pCoeffs);
    if (!ownSHTransformChecks(present, count, order, pState, &st)) return st;
    ownSHForward3(
        pX, pY, pZ, [pVal](int i, int c) { return pVal[c][i]; }, count, pCoeffs, order, pState);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrSHTInv_32f_C1(const float* pCoeffs, std::uint32_t order, const float* pX,
                                                     const float* pY, const float* pZ, float* pDst, int count,
                                                     const VekrSHState* pState) {
    VekStatus st;
    const bool present = pCoeffs && pX && pY && pZ && pDst && pState;
    if (!ownSHTransformChecks(present, count, order, pState, &st)) return st;
    OwnSHScratch s;
    const int n = ownSHCount(order);
    for (int i = 0; i < count; ++i) {
        ownSH_32f(pX + i, pY + i, pZ + i, 1, s.basis, order, pState);
        pDst[i] = ownSHDot(s.basis, pCoeffs, n);
    }
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrSHTInv_32f_P3(const float* const pCoeffs[3], std::uint32_t order,
                                                     const float* pX, const float* pY, const float* pZ, float* pDst[3],
                                                     int count, const VekrSHState* pState) {
    VekStatus st;
    const bool present = pCoeffs && pX && pY && pZ && pDst && pState && ownAll3(pCoeffs) && ownAll3(pDst);
    if (!ownSHTransformChecks(present, count, order, pState, &st)) return st;
    ownSHInverse3(
        pCoeffs, order, pX, pY, pZ, [pDst](int i, int c, float v) { pDst[c][i] = v; }, count, pState);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrSHTInv_32f_P3C3(const float* const pCoeffs[3], std::uint32_t order,
                                                       const float* pX, const float* pY, const float* pZ, float* pDst,
                                                       int count, const VekrSHState* pState) {
    VekStatus st;
    const bool present = pCoeffs && pX && pY && pZ && pDst && pState && ownAll3(pCoeffs);
    if (!ownSHTransformChecks(present, count, order, pState, &st)) return st;
    ownSHInverse3(
        pCoeffs, order, pX, pY, pZ, [pDst](int i, int c, float v) { pDst[3 * i + c] = v; }, count, pState);
    return vekStatusOk;
}
