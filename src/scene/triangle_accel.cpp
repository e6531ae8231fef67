// Triangle accelerator records: each triangle projected along its dominant
// normal axis, with its plane and edges pre-scaled so that a ray test needs
// only a few multiplications (after Wald's projection test, PhD thesis 2004).
#include <cmath>

#include "core/own.h"

namespace {

// Below this, a normal component counts as zero for the flat-plane flag
// (2^-52: the triangle is perpendicular to its dominant axis).
constexpr double kFlatLimit = 2.220446049250313e-16;

// (u, v) for each dominant axis k: x -> (y, z), y -> (x, z), z -> (x, y).
constexpr int kAxisU[3] = {1, 0, 0};
constexpr int kAxisV[3] = {2, 2, 1};

// One record. All set-up runs in double precision; every field is rounded to
// float once, at its store.
void ownTriangleAccel(VekrTriangleAccel* r, const float* pVertices, const int32_t* tri) {
    const float* fa = pVertices + 3 * static_cast<std::ptrdiff_t>(tri[0]);
    const float* fb = pVertices + 3 * static_cast<std::ptrdiff_t>(tri[1]);
    const float* fc = pVertices + 3 * static_cast<std::ptrdiff_t>(tri[2]);
    double c[3], e1[3], e2[3];
    for (int a = 0; a < 3; ++a) {
        c[a] = fc[a];
        e1[a] = static_cast<double>(fa[a]) - c[a];
        e2[a] = static_cast<double>(fb[a]) - c[a];
    }
    double n[3];
    n[0] = e1[1] * e2[2] - e1[2] * e2[1];
    n[1] = e1[2] * e2[0] - e1[0] * e2[2];
    n[2] = e1[0] * e2[1] - e1[1] * e2[0];

    // Dominant axis; strict comparisons send ties to the lower axis.
    int k = std::fabs(n[0]) < std::fabs(n[1]) ? 1 : 0;
    if (std::fabs(n[2]) > std::fabs(n[k])) k = 2;

    // No area: an all-zero record, which no ray test accepts. N[k] is zero
    // only when all three components are (k is the largest); testing all
    // three keeps a normal with NaN components out of this branch even when
    // its k component is zero, so such a record carries the NaNs.
    if (n[0] == 0.0 && n[1] == 0.0 && n[2] == 0.0) {
        std::memset(r, 0, sizeof *r);
        return;
    }
    const int u = kAxisU[k], v = kAxisV[k];
    const double inv = 1.0 / n[k];
    // (x, z) is an odd permutation of the axes: turn the sign for k = y so the
    // projected edge cross products keep one orientation.
    const double s = k == 1 ? -inv : inv;

    std::uint32_t code = static_cast<std::uint32_t>((k << 4) | (u << 2) | v);
    if (std::fabs(n[u]) < kFlatLimit && std::fabs(n[v]) < kFlatLimit) {
        code |= 0x80000000u;
        r->normalU = 0.0f;
        r->normalV = 0.0f;
    } else {
        r->normalU = static_cast<float>(n[u] * inv);
        r->normalV = static_cast<float>(n[v] * inv);
    }
    r->axisCode = static_cast<int32_t>(code);
    r->vertexK = static_cast<float>(c[k]);
    r->vertexU = static_cast<float>(c[u]);
    r->vertexV = static_cast<float>(c[v]);
    r->edge2U = static_cast<float>(e2[u] * s);
    r->edge2V = static_cast<float>(e2[v] * s);
    r->edge1U = static_cast<float>(e1[u] * s);
    r->edge1V = static_cast<float>(e1[v] * s);
}

}  // namespace

extern "C" VekStatus vekrTriangleAccelGetSize(int* pSize) {
    if (pSize == nullptr) return vekStatusNullPtr;
    *pSize = static_cast<int>(sizeof(VekrTriangleAccel));
    return vekStatusOk;
}

// Indices and pointers are trusted: the caller guarantees they are valid.
extern "C" OWN_SSE_ENTRY VekStatus vekrTriangleAccelInit(VekrTriangleAccel* pAccel, const float* pVertices,
                                                         const int* pTriangles, int numTriangles) {
    const int32_t* tri = reinterpret_cast<const int32_t*>(pTriangles);
    for (int t = 0; t < numTriangles; ++t) ownTriangleAccel(pAccel + t, pVertices, tri + 4 * static_cast<std::ptrdiff_t>(t));
    return vekStatusOk;
}
