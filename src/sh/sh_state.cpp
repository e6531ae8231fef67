// The spherical-harmonics state: its size and its initialisation, including
// the factor tables of the band recurrence (type 1).
#include <cmath>
#include <cstring>

#include "sh/sh_internal.h"

namespace vekr {
namespace {

// Byte size of a type-0 state: the bare header. (Type 1: ownSHRecurrenceSize.)
std::uint32_t ownSHDirectSize() { return static_cast<std::uint32_t>(sizeof(VekrSHState)); }

// Fills the triangular tables A and B (already zeroed) for rows 0 .. order.
// Row l serves band l of the recurrence:
//   Y_l^m  = A_l[m] z Y_(l-1)^m + B_l[m] Y_(l-2)^m      (|m| <= l-2)
//   Y_l^m  = A_l[l-1] z Y_(l-1)^m                       (|m| = l-1)
//   Y_l^l  = A_l[l] (x Y_(l-1)^(l-1) - y Y_(l-1)^-(l-1)) (sectoral step)
// with A_l[m] = sqrt((4l^2-1)/(l^2-m^2)) and
// B_l[m] = -sqrt((2l+1)((l-1)^2-m^2) / ((2l-3)(l^2-m^2))), the normalised form
// of the associated Legendre recurrence. Each entry has a fixed mix of single
// and double arithmetic; the comments name it.
void ownSHFillTables(float* a, float* b, std::uint32_t order) {
    // Rows 0 and 1: the band-0 value 1/sqrt(4 pi) and the band-1 factors
    // sqrt(3) times it, the second negated. Row 1 is written even for order 0;
    // its two entries then fall into the alignment gap before table B.
    const double fourPi = 12.566370614359172;
    const float a00 = static_cast<float>(1.0 / std::sqrt(fourPi));
    a[0] = a00;
    const double a10 = static_cast<double>(a00) * 1.7320508075688772;
    a[1] = static_cast<float>(a10);
    a[2] = static_cast<float>(0.0 - a10);

    // Integer products fit easily in 64 bits; they equal the 32-bit products
    // wherever those do not overflow (far beyond order 15).
    for (std::uint64_t ul = 2; ul <= order; ++ul) {
        const std::int64_t l = static_cast<std::int64_t>(ul);
        float* ar = a + l * (l + 1) / 2;
        float* br = b + l * (l + 1) / 2;
        const std::int64_t l2 = l * l;

        // Sectoral factor, in double.
        ar[l] = static_cast<float>(0.0 - std::sqrt(static_cast<double>(2 * l + 1) / static_cast<double>(2 * l)));
        // Provisional A_l[l-1] = sqrt(2l+1); the loop below replaces it by the
        // single-precision form of the same value.
        ar[l - 1] = static_cast<float>(std::sqrt(static_cast<double>(2 * l + 1)));

        // m = 0: the ratio q in single, widened; the rest in double.
        const float q = static_cast<float>(2 * l + 1) / static_cast<float>(2 * l - 3);
        br[0] = static_cast<float>((1.0 / static_cast<double>(l) - 1.0) * std::sqrt(static_cast<double>(q)));
        ar[0] = static_cast<float>(std::sqrt(static_cast<double>(4 * l2 - 1)) / static_cast<double>(l));

        for (std::int64_t m = 1; m <= l - 1; ++m) {
            const std::int64_t d = l2 - m * m;
            // A: divided and rooted in single.
            ar[m] = std::sqrt(static_cast<float>(4 * l2 - 1) / static_cast<float>(d));
            // B: exact integer numerator and denominator, divided in single,
            // rooted in double. At m = l-1 the numerator is 0 and 0 - 0 stores +0.
            const std::int64_t num = (2 * l + 1) * ((l - 1) * (l - 1) - m * m);
            const std::int64_t den = (2 * l - 3) * d;
            const float r = static_cast<float>(num) / static_cast<float>(den);
            br[m] = static_cast<float>(0.0 - std::sqrt(static_cast<double>(r)));
        }
    }
}

}  // namespace
}  // namespace vekr

using namespace vekr;

extern "C" VekStatus vekrSHGetSize_32f(std::uint32_t order, std::uint32_t type, int* pSize) {
    if (pSize == nullptr) return vekStatusNullPtr;
    if (type == vekrSHDirect) {
        if (order > kSHMaxOrder) return vekStatusBadSize;
        *pSize = static_cast<int>(ownSHDirectSize());
        return vekStatusOk;
    }
    if (type == vekrSHRecurrence) {
        std::uint32_t size;
        if (!ownSHRecurrenceSize(order, &size)) return vekStatusBadSize;
        *pSize = static_cast<int>(size);
        return vekStatusOk;
    }
    return vekStatusBadArgument;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrSHInit_32f(VekrSHState* pState, std::uint32_t order, std::uint32_t type) {
    if (pState == nullptr) return vekStatusNullPtr;
    if (type == vekrSHDirect) {
        if (order > kSHMaxOrder) return vekStatusBadSize;
        std::memset(static_cast<void*>(pState), 0, ownSHDirectSize());
        pState->order = order;
        pState->type = type;
        return vekStatusOk;
    }
    if (type == vekrSHRecurrence) {
        // An order whose size the query refuses has no buffer to fill.
        std::uint32_t size;
        if (!ownSHRecurrenceSize(order, &size)) return vekStatusBadSize;
        std::memset(static_cast<void*>(pState), 0, size);
        // Table A starts kSHTableOffset past the first 16-byte boundary, table
        // B at the first 16-byte boundary after A's n entries.
        const std::uintptr_t base = (reinterpret_cast<std::uintptr_t>(pState) + 15u) & ~std::uintptr_t(15);
        const std::uintptr_t endA = base + kSHTableOffset + 4u * std::uintptr_t(ownSHTriangle(order));
        float* a = reinterpret_cast<float*>(base + kSHTableOffset);
        float* b = reinterpret_cast<float*>((endA + 15u) & ~std::uintptr_t(15));
        pState->type = type;
        pState->order = order;
        pState->pFactorA = a;
        pState->pFactorB = b;
        ownSHFillTables(a, b, order);
        return vekStatusOk;
    }
    return vekStatusBadArgument;
}
