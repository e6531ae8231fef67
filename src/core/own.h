// Internal helpers shared by every operation family: path-choice predicates,
// float bit access and the export attribute. Not part of the public interface.
#ifndef VEKR_CORE_OWN_H
#define VEKR_CORE_OWN_H

#include <cstdint>
#include <cstring>

#include "vekcore.h"
#include "vekr.h"

// Exported entry points that run SSE code realign their stack on i386: a
// caller built for the older 4-byte stack alignment may enter with any
// multiple of 4, and the aligned spills of __m128 values need 16.
#if defined(__i386__)
#define OWN_SSE_ENTRY __attribute__((force_align_arg_pointer))
#else
#define OWN_SSE_ENTRY
#endif

namespace vekr {

// True when p lies on a 16-byte boundary (the condition of every vector path).
inline bool ownIsAligned16(const void* p) { return (reinterpret_cast<std::uintptr_t>(p) & 15u) == 0; }

// True when every pointer given lies on a 16-byte boundary.
inline bool ownAllAligned16() { return true; }
template <class P, class... Rest>
inline bool ownAllAligned16(const P* p, const Rest*... rest) {
    return ownIsAligned16(p) && ownAllAligned16(rest...);
}

// True when n is a multiple of 4 (the row-size condition of every vector path).
inline bool ownIsMultipleOf4(int n) { return (n & 3) == 0; }

// Bit access to floats without aliasing problems.
inline std::uint32_t ownFloatBits(float f) {
    std::uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}
inline float ownBitsFloat(std::uint32_t u) {
    float f;
    std::memcpy(&f, &u, sizeof f);
    return f;
}

}  // namespace vekr

#endif  // VEKR_CORE_OWN_H
