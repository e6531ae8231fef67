// Loops of the per-ray kernels: the plane pointers of a three-plane operand and
// the loops that run a kernel written once over the lane policies of
// core/lanes.h on the scalar path, the aligned vector path (streaming large
// outputs) or an alignment-peeling mix of both.
#ifndef VEKR_SHADING_LANE_H
#define VEKR_SHADING_LANE_H

#include <cstdint>

#include "core/lanes.h"

namespace vekr {

// The plane pointers of a P3 operand, copied out of the caller's pointer array.
// Vector stores may alias any memory, so a kernel reading the caller's array
// would reload the three pointers after every store; local copies stay in
// registers.
template <class T>
struct OwnP3 {
    T* c[3];
};
template <class T>
OWN_LANE OwnP3<T> ownPlanes(T* const* p) {
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
        ownForEach<OwnLane4<true, true>>(0, count, kernel);
        ownStreamFence();  // order the streamed stores before anything the caller does next
    } else {
        ownForEach<OwnLane4<true>>(0, count, kernel);
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
        ownForEach<OwnLane1>(0, count, kernel);
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
        while (i < count && !ownIsAligned16(anchor + i)) kernel(OwnLane1{}, i++);
        const int end4 = i + ((count - i) & ~3);
        ownForEach<OwnLane4<false>>(i, end4, kernel);
        i = end4;
    }
    ownForEach<OwnLane1>(i, count, kernel);
}

}  // namespace vekr

#endif  // VEKR_SHADING_LANE_H
