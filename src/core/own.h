// Internal helpers shared by every operation family: path-choice predicates,
// float bit access and the export attribute. Not part of the public interface.
#ifndef VEKR_CORE_OWN_H
#define VEKR_CORE_OWN_H

#include <cstdint>
#include <climits>
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

// The largest number of elements a block of rays (width x height, times the
// depth of the multiple-hit query) may have: an int32 count, as every count
// of the library is. A larger product cannot describe arrays the caller
// holds (on i386 it would not even fit in the address space) and would wrap
// when used as an index.
inline bool ownBlockFits(std::int64_t numElements) { return numElements <= INT32_MAX; }

// Team size of a parallel region over `work` independent items: the library
// thread count, but never more threads than items (at least one) and never
// more than kOwnMaxTeam. The results do not depend on the team size; the
// caps only keep a huge vekSetNumThreads value from asking the OpenMP runtime
// for a team it cannot create (libgomp ends the process then).
constexpr int kOwnMaxTeam = 256;
inline int ownTeamSize(int numThreads, std::int64_t work) {
    std::int64_t n = numThreads;
    if (n > work) n = work;
    if (n > kOwnMaxTeam) n = kOwnMaxTeam;
    return n < 1 ? 1 : static_cast<int>(n);
}

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
