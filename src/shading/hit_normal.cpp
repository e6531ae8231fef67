// Shading inputs from intersection records: hit points from distances, flat
// normals fetched per triangle, smooth normals interpolated from the vertex
// normals with the barycentric hit coordinates, and per-triangle normals of a mesh.
#include <cmath>
#include <cstdint>

#include "shading/lane.h"

namespace vekr {
namespace {

// Interpolated normals whose squared length falls below this (the float
// epsilon) nearly cancel; they are returned as (0, 0, 0) instead of being
// blown up to a unit vector of rounding noise.
constexpr float kSmoothNormalLimit = 1.1920929e-7f;
// The same for triangle normals, computed in double (the double epsilon).
constexpr double kTriangleNormalLimit = 2.220446049250313e-16;

// Where a hit point's origin comes from: one point for every ray...
struct ownSingleOrigin {
    float p[3];
    template <class IO>
    OWN_LANE typename IO::F at(IO, int, int c) const {
        return typename IO::F(p[c]);
    }
};
// ...or one point per ray (three planes).
struct ownRayOrigins {
    ownP3<const float> p;
    template <class IO>
    OWN_LANE typename IO::F at(IO, int i, int c) const {
        return IO::load(p.c[c] + i);
    }
};

// hit.c = ((dir.c*eps)*dist) + origin.c; (0, 0, 0) for a masked ray.
template <class IO, class Origin>
OWN_LANE void ownHitPoint(IO io, int i, const Origin& origin, const float* const* dir, const float* dist,
                          const std::int32_t* mask, float* const* hit, float eps) {
    using F = typename IO::F;
    const typename IO::M live = IO::nonNegative(IO::loadI(mask + i));
    const F t = IO::load(dist + i);
#pragma GCC unroll 3
    for (int c = 0; c < 3; ++c)
        IO::store(hit[c] + i, ownSelect(live, (IO::load(dir[c] + i) * F(eps)) * t + origin.at(io, i, c), F(0.0f)));
}

// What a lane without a hit reads in place of a normal, and in place of its
// triangle's vertex indices: a miss never reads the caller's tables.
const float kZeroNormal[3] = {0.0f, 0.0f, 0.0f};
const std::int32_t kZeroRow[3] = {0, 0, 0};

// Flat normals: a copy of the triangle's stored normal, (0, 0, 0) for a ray
// without a hit. The values are only moved (SSE loads and stores, no
// arithmetic), so every bit pattern, signalling NaNs included, arrives unchanged.
// Four rays gather their rows into x, y and z registers and store whole
// packets; that measured faster than copying each ray's three floats to the
// planes one by one (half the speed on i386).
template <class IO>
OWN_LANE void ownFlatNormal(IO, int i, const float* triNorm, const std::int32_t* triIndex, float* const* norm) {
    typename IO::F n[3];
    IO::gather3(n, [&](int k) {
        const std::int32_t t = triIndex[i + k];
        return IO::pick(t, triNorm, 3 * static_cast<std::ptrdiff_t>(t), kZeroNormal);
    });
    IO::store(norm[0] + i, n[0]);
    IO::store(norm[1] + i, n[1]);
    IO::store(norm[2] + i, n[2]);
}

// Smooth normals. Per ray with triangle t >= 0: the vertex normals nA, nB, nC of
// the triangle's index entries t*triStride + 0, 1, 2 are weighted by u, v and
// w = (1 - u) - v as s = w*nC + (v*nB + u*nA), q = s.x^2 + s.y^2 + s.z^2, and the
// result is s / sqrt(q), or (0, 0, 0) when q < kSmoothNormalLimit or t < 0.
// The gather is per lane (a lane without a hit reads no index or normal, only
// zeros); the arithmetic then runs on whole lanes.
template <class IO>
OWN_LANE void ownSmoothNormal(IO, int i, const float* vertNorm, const std::int32_t* triVert,
                              const std::int32_t* triIndex, const float* const* uv, float* const* norm, int triStride) {
    using F = typename IO::F;
    using M = typename IO::M;
    // The vertex normal `corner` (0, 1, 2) of lane k's triangle; a miss reads
    // its index from kZeroRow and its normal from kZeroNormal.
    auto vertexOf = [&](int k, int corner) {
        const std::int32_t t = triIndex[i + k];
        // t*triStride is an int32 product; wrap it like one instead of overflowing.
        const std::ptrdiff_t b =
            static_cast<std::int32_t>(static_cast<std::uint32_t>(t) * static_cast<std::uint32_t>(triStride));
        const std::int32_t* row = IO::pick(t, triVert, b, kZeroRow);
        return IO::pick(t, vertNorm, 3 * static_cast<std::ptrdiff_t>(row[corner]), kZeroNormal);
    };
    F nA[3], nB[3], nC[3];
    IO::gather3(nA, [&](int k) { return vertexOf(k, 0); });
    IO::gather3(nB, [&](int k) { return vertexOf(k, 1); });
    IO::gather3(nC, [&](int k) { return vertexOf(k, 2); });

    const M hitMask = IO::nonNegative(IO::loadI(triIndex + i));
    const F u = IO::load(uv[0] + i), v = IO::load(uv[1] + i);
    const F w = (F(1.0f) - u) - v;
    const F sx = w * nC[0] + (v * nB[0] + u * nA[0]);
    const F sy = w * nC[1] + (v * nB[1] + u * nA[1]);
    const F sz = w * nC[2] + (v * nB[2] + u * nA[2]);
    const F q = (sx * sx + sy * sy) + sz * sz;
    // "not below the limit" holds for a NaN q too, which then propagates.
    const M keep = ownAnd(hitMask, ownNot(q < F(kSmoothNormalLimit)));
    const F r = ownSqrt(q);
    const F zero(0.0f);
    IO::store(norm[0] + i, ownSelect(keep, sx / r, zero));
    IO::store(norm[1] + i, ownSelect(keep, sy / r, zero));
    IO::store(norm[2] + i, ownSelect(keep, sz / r, zero));
}

// One triangle's unit normal, in double precision so that thin triangles keep
// an accurate direction: n = (p0 - p2) x (p1 - p2), n / |n| rounded to float,
// or (0, 0, 0) when |n|^2 is below the double epsilon.
void ownTriangleNormal(const float* vert, const std::int32_t* tri, float* out) {
    const float* p0 = vert + 3 * static_cast<std::ptrdiff_t>(tri[0]);
    const float* p1 = vert + 3 * static_cast<std::ptrdiff_t>(tri[1]);
    const float* p2 = vert + 3 * static_cast<std::ptrdiff_t>(tri[2]);
    double e0[3], e1[3];
    for (int c = 0; c < 3; ++c) {
        e0[c] = static_cast<double>(p0[c]) - static_cast<double>(p2[c]);
        e1[c] = static_cast<double>(p1[c]) - static_cast<double>(p2[c]);
    }
    const double n[3] = {e0[1] * e1[2] - e0[2] * e1[1], e0[2] * e1[0] - e0[0] * e1[2], e0[0] * e1[1] - e0[1] * e1[0]};
    const double q = (n[0] * n[0] + n[1] * n[1]) + n[2] * n[2];
    if (q < kTriangleNormalLimit) {
        out[0] = out[1] = out[2] = 0.0f;
        return;
    }
    const double r = std::sqrt(q);
    for (int c = 0; c < 3; ++c) out[c] = static_cast<float>(n[c] / r);
}

// The triangles split statically over the library's thread count; each
// triangle's normal is written by exactly one thread and depends on nothing
// else, so the result is the same for every team size.
void ownTriangleNormals_MT(const float* vert, const std::int32_t* tri, float* out, int numTriangles) {
    const int numThreads = ownGetNumThreads();
#pragma omp parallel num_threads(numThreads)
    {
#pragma omp for schedule(static)
        for (int t = 0; t < numTriangles; ++t)
            ownTriangleNormal(vert, tri + 4 * static_cast<std::ptrdiff_t>(t), out + 3 * static_cast<std::ptrdiff_t>(t));
    }
}

template <class Origin>
void ownHitPoints(const Origin& origin, const float* const* pDir, const float* pDist, const std::int32_t* pMask,
                  float* const* pHit, int count, float eps, bool vector4) {
    const auto dir = ownPlanes(pDir);
    const auto hit = ownPlanes(pHit);
    auto kernel = [&](auto io, int i) OWN_KERNEL { ownHitPoint(io, i, origin, dir.c, pDist, pMask, hit.c, eps); };
    if (vector4)
        ownForEachAligned(count, kernel);
    else
        ownForEach<ownLane1>(0, count, kernel);
}

}  // namespace
}  // namespace vekr

using namespace vekr;

extern "C" OWN_SSE_ENTRY VekStatus vekrHitPoint3DEpsS0_32f_M(const float pOrigin[3], const float* const pDir[3],
                                                             const float* pDist, const int32_t* pMask,
                                                             float* const pHit[3], int count, float eps) {
    if (pDist == nullptr || pMask == nullptr || pDir == nullptr || pHit == nullptr) return vekStatusNullPtr;
    if (count < 1) return vekStatusOk;
    const bool vector4 =
        ownIsMultipleOf4(count) && ownAllAligned16(pDist, pMask, pDir[0], pDir[1], pDir[2], pHit[0], pHit[1], pHit[2]);
    ownHitPoints(ownSingleOrigin{{pOrigin[0], pOrigin[1], pOrigin[2]}}, pDir, pDist, pMask, pHit, count, eps, vector4);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrHitPoint3DEpsM0_32f_M(const float* const pOrigin[3], const float* const pDir[3],
                                                             const float* pDist, const int32_t* pMask,
                                                             float* const pHit[3], int count, float eps) {
    if (pDist == nullptr || pMask == nullptr || pDir == nullptr || pHit == nullptr || pOrigin == nullptr)
        return vekStatusNullPtr;
    if (count < 1) return vekStatusOk;
    const bool vector4 =
        ownIsMultipleOf4(count) && ownAllAligned16(pDist, pMask, pDir[0], pDir[1], pDir[2], pHit[0], pHit[1], pHit[2],
                                                   pOrigin[0], pOrigin[1], pOrigin[2]);
    ownHitPoints(ownRayOrigins{ownPlanes(pOrigin)}, pDir, pDist, pMask, pHit, count, eps, vector4);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrSurfFlatNormal_32f(const float* pTriNorm, const int32_t* pTriIndex,
                                                          float* const pNorm[3], int count) {
    if (pTriNorm == nullptr || pTriIndex == nullptr) return vekStatusNullPtr;
    if (count < 1) return vekStatusOk;
    const bool vector4 = ownIsMultipleOf4(count) && ownAllAligned16(pTriNorm, pTriIndex, pNorm[0], pNorm[1], pNorm[2]);
    const auto norm = ownPlanes(pNorm);
    auto kernel = [&](auto io, int i) OWN_KERNEL { ownFlatNormal(io, i, pTriNorm, pTriIndex, norm.c); };
    if (vector4)
        ownForEachAligned(count, kernel);
    else
        ownForEach<ownLane1>(0, count, kernel);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrSurfSmoothNormal_32f(const float* pVertNorm, const int32_t* pTriVert,
                                                            const int32_t* pTriIndex, const float* const pUV[2],
                                                            float* const pNorm[3], int count, int triStride) {
    if (pVertNorm == nullptr || pTriVert == nullptr || pTriIndex == nullptr || pUV == nullptr || pNorm == nullptr)
        return vekStatusNullPtr;
    if (count < 1) return vekStatusOk;
    const bool vector4 = ownIsMultipleOf4(count) &&
                         ownAllAligned16(pVertNorm, pTriVert, pTriIndex, pUV[0], pUV[1], pNorm[0], pNorm[1], pNorm[2]);
    const float* const uv[2] = {pUV[0], pUV[1]};
    const auto norm = ownPlanes(pNorm);
    auto kernel = [&](auto io, int i) OWN_KERNEL {
        ownSmoothNormal(io, i, pVertNorm, pTriVert, pTriIndex, uv, norm.c, triStride);
    };
    if (vector4)
        ownForEachAligned(count, kernel);
    else
        ownForEach<ownLane1>(0, count, kernel);
    return vekStatusOk;
}

extern "C" VekStatus vekrTriangleNormal_32f(const float* pVertCoord, const int32_t* pTriVert, float* pTriNorm,
                                            int numTriangles) {
    if (pVertCoord == nullptr || pTriVert == nullptr || pTriNorm == nullptr) return vekStatusNullPtr;
    if (numTriangles < 1) return vekStatusOk;
    ownTriangleNormals_MT(pVertCoord, pTriVert, pTriNorm, numTriangles);
    return vekStatusOk;
}
