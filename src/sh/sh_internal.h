// Internal interface of the spherical-harmonics family: the state layout and
// the evaluator that the transforms share with vekrSH_32f.
#ifndef VEKR_SH_SH_INTERNAL_H
#define VEKR_SH_SH_INTERNAL_H

#include <cstdint>

#include "core/own.h"

namespace vekr {

// Highest order the evaluators serve, and the coefficient count it gives.
constexpr std::uint32_t kSHMaxOrder = 15;
constexpr int kSHMaxCoeffs = (kSHMaxOrder + 1) * (kSHMaxOrder + 1);

// Bytes from the first 16-byte boundary of a state buffer to table A: the
// header rounded up to 16. That is 16 with 4-byte pointers (16-byte header)
// and 32 with 8-byte pointers (24-byte header), so the tables never overlap
// the header however far below the boundary the buffer starts.
constexpr std::uint32_t kSHTableOffset = (sizeof(VekrSHState) + 15u) & ~15u;

// Number of entries of each type-1 table for an order: rows 0 .. order of a
// triangle, in unsigned 32-bit arithmetic. Only called for orders whose state
// size fits (ownSHRecurrenceSize), far below where the product would wrap.
inline std::uint32_t ownSHTriangle(std::uint32_t order) { return ((order + 1u) * (order + 2u)) / 2u; }

// Byte size of a type-1 state: 8n bytes rounded up to 32 cover both tables
// with the alignment gap before table B, and kSHTableOffset covers the header
// and the gap before A. Formed in 64 bits; false when the size does not fit
// the signed 32-bit size the caller receives (orders from about 23169 up),
// so that no order can yield a wrapped size.
inline bool ownSHRecurrenceSize(std::uint32_t order, std::uint32_t* pSize) {
    const std::uint64_t n = (std::uint64_t(order) + 1u) * (std::uint64_t(order) + 2u) / 2u;
    const std::uint64_t size = ((8u * n + 30u) & ~std::uint64_t(31)) + kSHTableOffset;
    if (size > 0x7FFFFFFFu) return false;
    *pSize = static_cast<std::uint32_t>(size);
    return true;
}

// vekrSH_32f without the export: the checks in their order, then evaluation.
VekStatus ownSH_32f(const float* pX, const float* pY, const float* pZ, int count, float* pDst,
                    std::uint32_t order, const VekrSHState* pState);

}  // namespace vekr

#endif  // VEKR_SH_SH_INTERNAL_H
