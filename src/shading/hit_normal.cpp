// Shading inputs from intersection records: hit points from distances, flat
// normals fetched per triangle, smooth normals interpolated from the vertex
// normals with the barycentric hit coordinates, and per-triangle normals of a mesh.
#include <cmath>
#include <cstdint>
#include <type_traits>

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
struct OwnSingleOrigin {
    float p[3];
    template <class IO>
    OWN_LANE typename IO::F at(IO, int, int c) const {
        return typename IO::F(p[c]);
    }
};
// ...or one point per ray (three planes).
struct OwnRayOrigins {
    OwnP3<const float> p;
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
    auto gather = [&](auto allHit) OWN_KERNEL {
        IO::gather3(n, [&](int k) {
            const std::int32_t t = triIndex[i + k];
            // The offset of a miss (any negative t, INT32_MIN included) is
            // formed with wrap-around and never used.
            const std::ptrdiff_t offset = static_cast<std::ptrdiff_t>(3u * static_cast<std::size_t>(t));
            return IO::template pick<allHit.value>(t, triNorm, offset, kZeroNormal);
        });
    };
    if (IO::allNonNegative(IO::loadI(triIndex + i)))
        gather(std::true_type{});
    else
        gather(std::false_type{});
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
    F nA[3], nB[3], nC[3];
    auto gather = [&](auto allHit) OWN_KERNEL {
        // The vertex normal `corner` (0, 1, 2) of lane k's triangle; a miss
        // reads its index from kZeroRow and its normal from kZeroNormal.
        auto vertexOf = [&](int k, int corner) OWN_KERNEL {
            const std::int32_t t = triIndex[i + k];
            // t*triStride is an int32 product; wrap it like one instead of overflowing.
            const std::ptrdiff_t b =
                static_cast<std::int32_t>(static_cast<std::uint32_t>(t) * static_cast<std::uint32_t>(triStride));
            const std::int32_t* row = IO::template pick<allHit.value>(t, triVert, b, kZeroRow);
            return IO::template pick<allHit.value>(t, vertNorm, 3 * static_cast<std::ptrdiff_t>(row[corner]),
                                                   kZeroNormal);
        };
        IO::gather3(nA, [&](int k) OWN_KERNEL { return vertexOf(k, 0); });
        IO::gather3(nB, [&](int k) OWN_KERNEL { return vertexOf(k, 1); });
        IO::gather3(nC, [&](int k) OWN_KERNEL { return vertexOf(k, 2); });
    };
    const typename IO::I t = IO::loadI(triIndex + i);
    if (IO::allNonNegative(t))
        gather(std::true_type{});
    else
        gather(std::false_type{});

    const M hitMask = IO::nonNegative(t);
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

// n = e0 x e1 and q = |n|^2 = (nx nx + ny ny) + nz nz, for one triangle in
// double or for two in OwnD2 lanes: the same operations in the same order.
template <class D>
OWN_LANE void ownCrossNorm(D x0, D y0, D z0, D x1, D y1, D z1, D& nx, D& ny, D& nz, D& q) {
    nx = y0 * z1 - z0 * y1;
    ny = z0 * x1 - x0 * z1;
    nz = x0 * y1 - y0 * x1;
    q = (nx * nx + ny * ny) + nz * nz;
}

// One triangle's unit normal, in double precision so that thin triangles keep
// an accurate direction: n = (p0 - p2) x (p1 - p2), n / |n| rounded to float,
// or (0, 0, 0) when |n|^2 is below the double epsilon.
void ownTriangleNormal(const float* vert, const std::int32_t* tri, float* out) {
    const float* p0 = vert + 3 * static_cast<std::ptrdiff_t>(tri[0]);
    const float* p1 = vert + 3 * static_cast<std::ptrdiff_t>(tri[1]);
    const float* p2 = vert + 3 * static_cast<std::ptrdiff_t>(tri[2]);
    auto d = [](float f) { return static_cast<double>(f); };
    const double e0x = d(p0[0]) - d(p2[0]), e0y = d(p0[1]) - d(p2[1]), e0z = d(p0[2]) - d(p2[2]);
    const double e1x = d(p1[0]) - d(p2[0]), e1y = d(p1[1]) - d(p2[1]), e1z = d(p1[2]) - d(p2[2]);
    double nx, ny, nz, q;
    ownCrossNorm(e0x, e0y, e0z, e1x, e1y, e1z, nx, ny, nz, q);
    if (q < kTriangleNormalLimit) {
        out[0] = out[1] = out[2] = 0.0f;
        return;
    }
    const double r = std::sqrt(q);
    out[0] = static_cast<float>(nx / r);
    out[1] = static_cast<float>(ny / r);
    out[2] = static_cast<float>(nz / r);
}

// Vertex p as (x, y) and (z, 0) in double: x and y with one 8-byte load, z
// with a 4-byte load (never past the third float).
OWN_LANE void ownLoadVertexPD(const float* p, OwnD2& xy, OwnD2& z) {
    xy = ownWidenLow(ownAsF4(ownLoadLow64(p)));
    z = ownWidenLow(ownLoadLow(p + 2));
}

// e0 = p0 - p2 and e1 = p1 - p2 of one triangle, as (x, y) and (z, 0) pairs.
OWN_LANE void ownEdgesPD(const float* vert, const std::int32_t* tri, OwnD2& e0xy, OwnD2& e0z, OwnD2& e1xy,
                         OwnD2& e1z) {
    OwnD2 p0xy, p0z, p1xy, p1z, p2xy, p2z;
    ownLoadVertexPD(vert + 3 * static_cast<std::ptrdiff_t>(tri[0]), p0xy, p0z);
    ownLoadVertexPD(vert + 3 * static_cast<std::ptrdiff_t>(tri[1]), p1xy, p1z);
    ownLoadVertexPD(vert + 3 * static_cast<std::ptrdiff_t>(tri[2]), p2xy, p2z);
    e0xy = p0xy - p2xy;
    e0z = p0z - p2z;
    e1xy = p1xy - p2xy;
    e1z = p1z - p2z;
}

// Two triangles at once, A in the low and B in the high double of each
// register: the same double operations in the same order as
// ownTriangleNormal, so the same bits, with half the square roots and
// divisions issued.
OWN_LANE void ownTriangleNormalPair(const float* vert, const std::int32_t* tri, float* out) {
    OwnD2 a0xy, a0z, a1xy, a1z, b0xy, b0z, b1xy, b1z;
    ownEdgesPD(vert, tri, a0xy, a0z, a1xy, a1z);
    ownEdgesPD(vert, tri + 4, b0xy, b0z, b1xy, b1z);
    // Component-major: x0 holds e0.x of triangle A and of triangle B, and so on.
    const OwnD2 x0 = ownInterleaveLo(a0xy, b0xy), y0 = ownInterleaveHi(a0xy, b0xy), z0 = ownInterleaveLo(a0z, b0z);
    const OwnD2 x1 = ownInterleaveLo(a1xy, b1xy), y1 = ownInterleaveHi(a1xy, b1xy), z1 = ownInterleaveLo(a1z, b1z);
    OwnD2 nx, ny, nz, q;
    ownCrossNorm(x0, y0, z0, x1, y1, z1, nx, ny, nz, q);
    // "not below the limit", true for a NaN q as in the scalar test.
    const OwnMD2 keep = ownNotLess(q, OwnD2(kTriangleNormalLimit));
    const OwnD2 r = ownSqrt(q);
    const OwnF4 fx = ownNarrowLow(ownKeep(keep, nx / r));  // xA xB 0 0
    const OwnF4 fy = ownNarrowLow(ownKeep(keep, ny / r));
    const OwnF4 fz = ownNarrowLow(ownKeep(keep, nz / r));
    // Six consecutive floats xA yA zA xB | yB zB.
    const OwnF4 xy = ownInterleaveLo(fx, fy);  // xA yA xB yB
    const OwnF4 zx = ownInterleaveLo(fz, fx);  // zA xA zB xB
    ownStoreU(out, ownShuffle<0, 1, 0, 3>(xy, zx));
    ownStoreHigh(out + 4, ownInterleaveLo(fy, fz));  // from yA zA yB zB
}

// The triangles split statically over the library's thread count, in pairs;
// each triangle's normal is written by exactly one thread and depends on
// nothing else, so the result is the same for every team size.
void ownTriangleNormals_MT(const float* vert, const std::int32_t* tri, float* out, int numTriangles) {
    const int numPairs = numTriangles / 2;
    const int numThreads = ownTeamSize(ownGetNumThreads(), numPairs);
#pragma omp parallel num_threads(numThreads)
    {
#pragma omp for schedule(static) nowait
        for (int k = 0; k < numPairs; ++k)
            ownTriangleNormalPair(vert, tri + 8 * static_cast<std::ptrdiff_t>(k),
                                  out + 6 * static_cast<std::ptrdiff_t>(k));
#pragma omp single nowait
        if (numTriangles & 1) {
            const std::ptrdiff_t t = numTriangles - 1;
            ownTriangleNormal(vert, tri + 4 * t, out + 3 * t);
        }
    }
}

template <class Origin>
void ownHitPoints(const Origin& origin, const float* const* pDir, const float* pDist, const std::int32_t* pMask,
                  float* const* pHit, int count, float eps, bool vector4) {
    const auto dir = ownPlanes(pDir);
    const auto hit = ownPlanes(pHit);
    auto kernel = [&](auto io, int i) OWN_KERNEL { ownHitPoint(io, i, origin, dir.c, pDist, pMask, hit.c, eps); };
    ownForEachPath(vector4, count, kernel);
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
    ownHitPoints(OwnSingleOrigin{{pOrigin[0], pOrigin[1], pOrigin[2]}}, pDir, pDist, pMask, pHit, count, eps, vector4);
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
    ownHitPoints(OwnRayOrigins{ownPlanes(pOrigin)}, pDir, pDist, pMask, pHit, count, eps, vector4);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrSurfFlatNormal_32f(const float* pTriNorm, const int32_t* pTriIndex,
                                                          float* const pNorm[3], int count) {
    if (pTriNorm == nullptr || pTriIndex == nullptr) return vekStatusNullPtr;
    if (count < 1) return vekStatusOk;
    const bool vector4 = ownIsMultipleOf4(count) && ownAllAligned16(pTriNorm, pTriIndex, pNorm[0], pNorm[1], pNorm[2]);
    const auto norm = ownPlanes(pNorm);
    auto kernel = [&](auto io, int i) OWN_KERNEL { ownFlatNormal(io, i, pTriNorm, pTriIndex, norm.c); };
    ownForEachPath(vector4, count, kernel);
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
    auto kernel = [&](auto io, int i)
                      OWN_KERNEL { ownSmoothNormal(io, i, pVertNorm, pTriVert, pTriIndex, uv, norm.c, triStride); };
    ownForEachPath(vector4, count, kernel);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrTriangleNormal_32f(const float* pVertCoord, const int32_t* pTriVert,
                                                          float* pTriNorm, int numTriangles) {
    if (pVertCoord == nullptr || pTriVert == nullptr || pTriNorm == nullptr) return vekStatusNullPtr;
    if (numTriangles < 1) return vekStatusOk;
    // Rows of 16 bytes: a count whose triangle array could not fit in the
    // address space (i386) would wrap the threads' start addresses.
    if (static_cast<std::int64_t>(numTriangles) * 16 > PTRDIFF_MAX) return vekStatusBadSize;
    ownTriangleNormals_MT(pVertCoord, pTriVert, pTriNorm, numTriangles);
    return vekStatusOk;
}
