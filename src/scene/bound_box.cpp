// The scene bounding box: the vertices' extent, widened by a margin relative to
// the largest coordinate magnitude so that geometry on a face lies strictly inside.
#include <cfloat>
#include <cmath>

#include "core/own.h"

namespace {

// One comparison step of the scan. A new value is taken only when it compares
// smaller (larger), so a NaN coordinate never replaces the current value and an
// equal value (+0 after -0, say) keeps the earlier one.
inline void ownTakeVertex(const float* v, float* lo, float* hi) {
    for (int a = 0; a < 3; ++a) {
        if (v[a] < lo[a]) lo[a] = v[a];
        if (v[a] > hi[a]) hi[a] = v[a];
    }
}

}  // namespace

extern "C" OWN_SSE_ENTRY VekStatus vekrSetBoundBox_32f(const float* pVertices, int numVertices, VekrBoundBox* pBox) {
    if (pVertices == nullptr) return vekStatusNullPtr;

    float lo[3] = {FLT_MAX, FLT_MAX, FLT_MAX};
    float hi[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX};

    // Two vertices per round, in array order, then the odd one. Each vertex is
    // compared in turn, so the result equals the one-at-a-time scan bit for bit
    // (the order matters for signed zeros, which compare equal).
    int i = 0;
    for (; i + 1 < numVertices; i += 2) {
        ownTakeVertex(pVertices + 3 * static_cast<std::ptrdiff_t>(i), lo, hi);
        ownTakeVertex(pVertices + 3 * static_cast<std::ptrdiff_t>(i) + 3, lo, hi);
    }
    if (i < numVertices) ownTakeVertex(pVertices + 3 * static_cast<std::ptrdiff_t>(i), lo, hi);

    // One margin for all axes: 0.0001 of the largest coordinate magnitude, at
    // least of the smallest normal float, in float arithmetic.
    const float corners[6] = {lo[0], lo[1], lo[2], hi[0], hi[1], hi[2]};
    float m = FLT_MIN;
    for (float c : corners) {
        float a = std::fabs(c);
        if (a > m) m = a;
    }
    const float eps = m * 0.0001f;

    pBox->minCorner[0] = lo[0] - eps;
    pBox->minCorner[1] = lo[1] - eps;
    pBox->minCorner[2] = lo[2] - eps;
    pBox->maxCorner[0] = hi[0] + eps;
    pBox->maxCorner[1] = hi[1] + eps;
    pBox->maxCorner[2] = hi[2] + eps;
    return vekStatusOk;
}
