/*
 * vekr: realistic-rendering primitives with a C interface.
 *
 * Ray tracing of triangle scenes (accelerator records, scene box, KD tree,
 * ray packets and intersection queries), shading arithmetic on ray packets,
 * spherical harmonics and volume processing.
 *
 * Conventions shared by every function:
 *  - Every function except vekrGetLibVersion returns a VekStatus: 0 success,
 *    negative an error (reported before any output is written), positive a
 *    warning (outputs are valid).
 *  - Arguments are checked in a fixed order: required pointers
 *    (vekStatusNullPtr), then sizes and counts (vekStatusBadSize), then mode
 *    codes, factors and ranges. The four intersection queries check nothing.
 *  - Arrays of rays are planar: a P3 operand is an array of three pointers to
 *    float arrays (x, y, z). A ray mask holds one int32 per ray; a negative
 *    entry means the ray takes no part.
 *  - Array operations take a 4-wide SSE path when their arrays are 16-byte
 *    aligned and their row sizes are multiples of 4, and a scalar path
 *    otherwise; both give bit-identical results.
 *  - The library keeps no state between calls. Memory it allocates for the
 *    caller (the KD tree block) comes from vekMalloc and is released with
 *    vekrKDTreeFree.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef VEKR_H
#define VEKR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(VEKR_BUILDING_LIBRARY)
#define VEKR_API __attribute__((visibility("default")))
#else
#define VEKR_API
#endif

/* ------------------------------------------------------------------------ */
/* Status codes                                                              */
/* ------------------------------------------------------------------------ */

typedef enum VekStatus {
    vekStatusOk = 0,
    vekStatusNoOperation = 1,        /* nothing to do; the result is empty */
    vekStatusDivByZero = 6,          /* warning: a division by zero was handled */
    vekStatusVoiOutsideSrc = 40,     /* warning: source region starts outside the source; nothing written */
    vekStatusBuildInconsistent = -2, /* KD build: children got other counts than the split search predicted */
    vekStatusNoMemory = -4,          /* allocation failed, or the memory budget is too small */
    vekStatusBadAlgorithm = -5,      /* unknown KD-tree build algorithm */
    vekStatusBadSize = -6,           /* a size or count is out of range (as a rule: below 1) */
    vekStatusBadArgument = -7,       /* an argument outside its accepted set */
    vekStatusNullPtr = -8,           /* a required pointer is null */
    vekStatusBudgetExhausted = -9,   /* KD build used up its working-memory budget */
    vekStatusOutOfRange = -11,       /* a KD-tree build parameter is out of range */
    vekStatusBadInterpolation = -22, /* unsupported interpolation code */
    vekStatusBadResizeFactor = -23,  /* a resize factor is zero or negative */
    vekStatusBadNumChannels = -53,   /* a channel count other than 1 */
    vekStatusSingularTransform = -56 /* the affine warp's matrix is degenerate */
} VekStatus;

/* ------------------------------------------------------------------------ */
/* Version record                                                            */
/* ------------------------------------------------------------------------ */

typedef struct VekLibraryVersion {
    int32_t major;
    int32_t minor;
    int32_t majorBuild;
    int32_t build;
    char targetCpu[4];     /* "s8" and two zero bytes: SSE up to SSSE3 */
    const char* name;
    const char* version;
    const char* buildDate;
} VekLibraryVersion;

/* ------------------------------------------------------------------------ */
/* Scene records                                                             */
/* ------------------------------------------------------------------------ */

/* Axis-aligned scene box: minimum corner x, y, z then maximum corner x, y, z. */
typedef struct VekrBoundBox {
    float minCorner[3];
    float maxCorner[3];
} VekrBoundBox;

/* Per-triangle intersection record (40 bytes). The triangle is projected along
 * its dominant normal axis k onto the plane of the other two axes (u, v);
 * C is the triangle's third vertex, E1 = A - C, E2 = B - C, N = E1 x E2 and
 * s = 1/N[k] (negated for k = y).
 *  axisCode: bits 4-5 k, bits 2-3 u, bits 0-1 v, bit 31 flat-plane flag;
 *            all ten words are 0 for a triangle without area. */
typedef struct VekrTriangleAccel {
    int32_t axisCode;
    float normalU;  /* N[u] / N[k] (0 when flat) */
    float vertexK;  /* C[k] */
    float normalV;  /* N[v] / N[k] (0 when flat) */
    float vertexU;  /* C[u] */
    float vertexV;  /* C[v] */
    float edge2U;   /* E2[u] * s */
    float edge2V;   /* E2[v] * s */
    float edge1U;   /* E1[u] * s */
    float edge1V;   /* E1[v] * s */
} VekrTriangleAccel;

/* KD-tree node (8 bytes). Inner node: link bit 31 clear, link & 3 the split
 * axis, link & ~3 the byte distance to the child pair (lower child first),
 * value the split coordinate as float bits. Leaf: link bit 31 set; a list
 * leaf (value bit 31 clear) holds value triangles in a list at
 * (node address - link); a packed leaf (value bit 31 set) holds value & 3
 * triangle indices in the node itself. */
typedef struct VekrKDTreeNode {
    int32_t link;
    int32_t value;
} VekrKDTreeNode;

/* KD-tree build algorithm codes. */
enum {
    vekKDTreeBuildSimple = 0x499D3DC2, /* every triangle in one leaf */
    vekKDTreeBuildPSAH = 0x2D07705B    /* surface-area heuristic */
};

typedef struct VekrKDTreeBuildParams {
    uint32_t algorithm;     /* vekKDTreeBuildSimple or vekKDTreeBuildPSAH */
    int32_t maxDepth;       /* 0 ... 50 */
    float costBalance;      /* 0.0 ... 1.0; 1 splits most readily */
    uint32_t memoryLimitMB; /* working-memory budget in MiB (at least 32) */
    VekrBoundBox* pClipBox; /* optional: build for the part of the scene inside this box */
} VekrKDTreeBuildParams;

/* What the intersection queries search: the scene box, the accelerator
 * records (indexed by triangle) and the root of a KD-tree block. */
typedef struct VekrIntersectContext {
    const VekrBoundBox* pBound;
    const VekrTriangleAccel* pAccel;
    const VekrKDTreeNode* pRootNode;
} VekrIntersectContext;

/* ------------------------------------------------------------------------ */
/* Spherical harmonics                                                       */
/* ------------------------------------------------------------------------ */

/* Evaluation method of a spherical-harmonics state. */
enum {
    vekrSHDirect = 0,     /* closed-form polynomials */
    vekrSHRecurrence = 1  /* band recurrence with tabulated factors */
};

/* Header of a spherical-harmonics state; type-1 tables follow in the same
 * caller buffer, which must not be moved after initialisation. */
typedef struct VekrSHState {
    uint32_t order;
    uint32_t type;
    float* pFactorA;
    float* pFactorB;
} VekrSHState;

/* ------------------------------------------------------------------------ */
/* Volumes                                                                   */
/* ------------------------------------------------------------------------ */

/* Interpolation codes. Code 3 is not used and is rejected. */
enum {
    vekrInterNearest = 1,
    vekrInterLinear = 2,
    vekrInterCubic = 4,            /* four-point Lagrange cubic */
    vekrInterCubicBSpline = 5,     /* (B, C) = (1, 0) */
    vekrInterCubicCatmullRom = 6,  /* (B, C) = (0, 0.5) */
    vekrInterCubicB05C03 = 7       /* (B, C) = (0.5, 0.3) */
};

/* Size of a whole volume, passed by value. */
typedef struct VekrVolume {
    int32_t width;
    int32_t height;
    int32_t depth;
} VekrVolume;

/* A region of interest: first corner (x, y, z) and extent. */
typedef struct VekrCuboid {
    int32_t x;
    int32_t y;
    int32_t z;
    int32_t width;
    int32_t height;
    int32_t depth;
} VekrCuboid;

/* A voxel position, passed by value (the filter's anchor). */
typedef struct VekrPoint3D {
    int32_t x;
    int32_t y;
    int32_t z;
} VekrPoint3D;

/* ------------------------------------------------------------------------ */
/* Frame                                                                     */
/* ------------------------------------------------------------------------ */

/* The constant version record; the same pointer on every call. */
VEKR_API const VekLibraryVersion* vekrGetLibVersion(void);

/* ------------------------------------------------------------------------ */
/* Scene acceleration                                                        */
/* ------------------------------------------------------------------------ */

/* Box of numVertices vertices (x, y, z floats, 12-byte stride), widened on
 * every side by 0.0001 times the largest coordinate magnitude (at least the
 * smallest normal float). NaN coordinates are ignored. numVertices <= 0
 * leaves the box inverted. Only pVertices is checked. */
VEKR_API VekStatus vekrSetBoundBox_32f(const float* pVertices, int numVertices, VekrBoundBox* pBox);

/* Writes the size in bytes of one VekrTriangleAccel record (40) to *pSize.
 * A null pSize gives vekStatusNullPtr. */
VEKR_API VekStatus vekrTriangleAccelGetSize(int* pSize);

/* Fills pAccel[0 .. numTriangles-1], one record per triangle (four ints per
 * triangle: three vertex indices and one unused word; vertices x, y, z).
 * Set-up runs in double precision, rounded to float at the store; a triangle
 * without area gets an all-zero record. Checks nothing, always returns
 * vekStatusOk; numTriangles < 1 writes nothing. */
VEKR_API VekStatus vekrTriangleAccelInit(VekrTriangleAccel* pAccel, const float* pVertices,
                                         const int* pTriangles, int numTriangles);

/* Builds a KD tree over the triangles into one position-independent block
 * allocated with vekMalloc; *ppTree receives the block (its root node at
 * offset 0) and *pSize its size in bytes. Checks, in order: null ppTree,
 * pVertices, pTriangles or pSize (vekStatusNullPtr); negative counts
 * (vekStatusBadSize); null pParams (vekStatusNullPtr); an unknown algorithm
 * code (vekStatusBadAlgorithm); maxDepth outside 0..50, or for the
 * surface-area build costBalance outside 0..1 (vekStatusOutOfRange); a
 * budget below 32 MiB or below the build's up-front need
 * (vekStatusNoMemory). The surface-area build may also end with
 * vekStatusBudgetExhausted. Nothing is written unless the build succeeds. */
VEKR_API VekStatus vekrKDTreeBuildAlloc(VekrKDTreeNode** ppTree, const float* pVertices,
                                        const int* pTriangles, int numVertices, int numTriangles,
                                        int* pSize, const VekrKDTreeBuildParams* pParams);

/* Releases a tree block made by vekrKDTreeBuildAlloc (null is passed on to
 * vekFree). */
VEKR_API void vekrKDTreeFree(VekrKDTreeNode* pTree);

/* ------------------------------------------------------------------------ */
/* Ray queries: casting, intersection, hit points and normals                */
/* ------------------------------------------------------------------------ */

/* Nearest hit of width x height rays from one eye point (pOrigin: x, y, z).
 * pDirection: planar x, y, z (need not be unit length; distances are in units
 * of the direction's length). pDist: in, the far limit per ray; out, the
 * nearest hit distance (unchanged without a hit). pHit[0], pHit[1]: the
 * barycentric weights of the hit triangle's first and second vertex, written
 * only on a hit. pTrngl: the hit triangle, -1 for none. A hit counts when
 * 0 < t < distance. Checks nothing; always vekStatusOk. */
VEKR_API VekStatus vekrIntersectEyeSO_32f(const float* pOrigin, const float* const pDirection[3], float* pDist,
                                          float* const pHit[2], int32_t* pTrngl,
                                          const VekrIntersectContext* pContext, int width, int height);

/* Nearest hit of rays with their own origins (planar pOrigin), outputs as for
 * vekrIntersectEyeSO_32f, but: a ray parallel to an axis misses unless its
 * origin lies strictly inside the box's slab on that axis; triangles seen
 * nearly edge-on (|det| < 1.1920929e-6) are ignored; a new hit must be nearer
 * than the recorded one by more than 0.00001. Checks nothing; always
 * vekStatusOk. */
VEKR_API VekStatus vekrIntersectMO_32f(const float* const pOrigin[3], const float* const pDirection[3], float* pDist,
                                       float* const pHit[2], int32_t* pTrngl, const VekrIntersectContext* pContext,
                                       int width, int height);

/* Up to depth successive hits along each ray from one origin. Every output
 * holds depth planes of width x height elements (level L of ray i at
 * L * width * height + i). pDist level 0: in, the far limit; out, the first
 * hit; deeper levels: distances from pOrigin (cumulative), searched up to the
 * scene box's exit; a level without a hit after a found one gets index -1 and
 * distance FLT_MAX. All depth x width x height indices are first set to -1.
 * Level L ignores the triangle of level L - 1 and the first (L mod 8) entries
 * of an eight-entry hit list (entry L mod 8 takes level L's triangle). A depth
 * below 1 searches nothing. Checks nothing; always vekStatusOk. */
VEKR_API VekStatus vekrIntersectMultipleSO_32f(const float* pOrigin, const float* const pDirection[3], float* pDist,
                                               float* const pHit[2], int32_t* pTrngl, int width, int height,
                                               int depth, const VekrIntersectContext* pContext);

/* Any hit on the segments from pOrigin to pOrigin + direction (0 < t < 1),
 * for the rays whose pMask entry is 0 or positive. pOccluder: out, the first
 * triangle found in traversal order (not necessarily the nearest), -1 for
 * none (every ray). pMask: set to -1 for occluded rays, otherwise unchanged.
 * Reads only pAccel and pRootNode of the context. Checks nothing; always
 * vekStatusOk. */
VEKR_API VekStatus vekrIntersectAnySO_32f(const float* pOrigin, const float* const pDirection[3], int32_t* pOccluder,
                                          int32_t* pMask, int width, int height, const VekrIntersectContext* pContext);

/* Primary-ray directions for a width x height block of pixels, row after row:
 * dir = (pStepY*v + pOrigin) + pStepX*u per component, with
 * u = i + blockX*blockWidth and v = j + blockY*blockHeight (the block offsets
 * are int32 products). Not normalised. Only pDir is checked (vekStatusNullPtr);
 * width or height below 1 writes nothing. */
VEKR_API VekStatus vekrCastEye_32f(const float pOrigin[3], const float pStepX[3], const float pStepY[3],
                                   int blockX, int blockY, int blockWidth, int blockHeight,
                                   float* const pDir[3], int width, int height);

/* Mirror reflection of each incident direction about its normal:
 * d = inc.y*n.y + inc.z*n.z + inc.x*n.x, refl = inc - n*(d + d); (0, 0, 0) for
 * a ray with a negative mask. pInc, pMask, pNormal, pRefl are checked
 * (vekStatusNullPtr); count below 1 does nothing. */
VEKR_API VekStatus vekrCastReflectionRay_32f(const float* const pInc[3], const int32_t* pMask,
                                             const float* const pNormal[3], float* const pRefl[3], int count);

/* Shadow rays from the light at pLight to each surface point pHit: s = hit - light,
 * d = s.n. A live ray survives when pSide[i]*d > 0 and |d| >= 0.0017453292, and
 * gets pDist = |d| and pShadowDir = s; otherwise both are 0 and a live ray's
 * mask becomes -1 (a mask negative on entry is kept). pSide, pNormal, pHit,
 * pMask, pShadowDir, pDist are checked (vekStatusNullPtr); pLight is not. */
VEKR_API VekStatus vekrCastShadowSO_32f(const float pLight[3], const float* pSide, const float* const pNormal[3],
                                        const float* const pHit[3], int32_t* pMask, float* pDist,
                                        float* const pShadowDir[3], int count);

/* Hit points from one origin: hit = ((dir*eps)*dist) + origin per component,
 * (0, 0, 0) where the mask is negative. pDist, pMask, pDir, pHit are checked
 * (vekStatusNullPtr); pOrigin is not. count below 1 does nothing. */
VEKR_API VekStatus vekrHitPoint3DEpsS0_32f_M(const float pOrigin[3], const float* const pDir[3],
                                             const float* pDist, const int32_t* pMask, float* const pHit[3],
                                             int count, float eps);

/* Hit points from per-ray origins (planar), otherwise as
 * vekrHitPoint3DEpsS0_32f_M. pDist, pMask, pDir, pHit, pOrigin are checked. */
VEKR_API VekStatus vekrHitPoint3DEpsM0_32f_M(const float* const pOrigin[3], const float* const pDir[3],
                                             const float* pDist, const int32_t* pMask, float* const pHit[3],
                                             int count, float eps);

/* Flat normals: the three floats at pTriNorm + 3*t for the ray's triangle t,
 * copied bit for bit, or (0, 0, 0) for t < 0. pTriNorm and pTriIndex are
 * checked (vekStatusNullPtr); count below 1 does nothing. */
VEKR_API VekStatus vekrSurfFlatNormal_32f(const float* pTriNorm, const int32_t* pTriIndex, float* const pNorm[3],
                                          int count);

/* Smooth normals: the vertex normals of entries t*triStride + 0, 1, 2 of
 * pTriVert weighted by u (first vertex), v (second) and (1 - u) - v (third),
 * then normalised; (0, 0, 0) for t < 0 or a squared length below 1.1920929e-7.
 * pUV holds the u and v arrays. pVertNorm, pTriVert, pTriIndex, pUV, pNorm are
 * checked (vekStatusNullPtr); count below 1 does nothing. */
VEKR_API VekStatus vekrSurfSmoothNormal_32f(const float* pVertNorm, const int32_t* pTriVert,
                                            const int32_t* pTriIndex, const float* const pUV[2],
                                            float* const pNorm[3], int count, int triStride);

/* Unit normal of each triangle (four int32 per triangle, the first three vertex
 * indices): (p0 - p2) x (p1 - p2) normalised in double precision, rounded to
 * float; (0, 0, 0) when its squared length is below 2.220446049250313e-16.
 * Runs on ownGetNumThreads() threads. pVertCoord, pTriVert, pTriNorm are
 * checked (vekStatusNullPtr); numTriangles below 1 does nothing. */
VEKR_API VekStatus vekrTriangleNormal_32f(const float* pVertCoord, const int32_t* pTriVert, float* pTriNorm,
                                          int numTriangles);

/* ------------------------------------------------------------------------ */
/* Shading arithmetic                                                        */
/* ------------------------------------------------------------------------ */

/* pDst = a.x*b.x + a.y*b.y + a.z*b.z (left to right); 0 where the mask is
 * negative. All four pointers are checked (vekStatusNullPtr). */
VEKR_API VekStatus vekrDot_32f_P3C1M(const float* const pSrc1[3], const float* const pSrc2[3],
                                     const int32_t* pMask, float* pDst, int count);

/* Orients each live normal against its ray: d = dir.n (left to right),
 * s = -1 where d > 0, else +1 (so NaN d gives +1); the normal becomes s*n and
 * pDot = d*s. Masked rays get pDot 0 and keep their normal untouched. All four
 * pointers are checked (vekStatusNullPtr). */
VEKR_API VekStatus vekrDotChangeNorm_32f_IM(const float* const pDir[3], const int32_t* pMask,
                                            float* const pNormal[3], float* pDot, int count);

/* Distance to the light, at least 1: pDist = sqrt(q), q = |point - light|^2,
 * unless q < 1, then 1; 1 for a masked ray. pPoint, pMask, pDist are checked
 * (vekStatusNullPtr); pLight is not. */
VEKR_API VekStatus vekrDistAttenuationSO_32f_M(const float pLight[3], const float* const pPoint[3],
                                               const int32_t* pMask, float* pDist, int count);

/* pSrcDst = (pSrcDst*pSrc)*f with f = 1 for a live ray and 0 for a masked one
 * (so a masked infinite or NaN product becomes NaN). Checks no pointers. */
VEKR_API VekStatus vekrMul_32f_C1IM(const float* pSrc, const int32_t* pMask, float* pSrcDst, int count);

/* Each plane of pSrcDst: (dst*pSrc)*f, f as in vekrMul_32f_C1IM. pSrc, pMask,
 * pSrcDst are checked (vekStatusNullPtr). */
VEKR_API VekStatus vekrMul_32f_C1P3IM(const float* pSrc, const int32_t* pMask, float* const pSrcDst[3], int count);

/* pSrcDst /= pSrc for live rays, 0 for masked ones. A zero divisor gives +inf,
 * -inf or NaN (0xFFC00000) by the dividend's sign and makes the call return
 * vekStatusDivByZero after processing every element. pSrc and pSrcDst are
 * checked (vekStatusNullPtr); pMask is not. */
VEKR_API VekStatus vekrDiv_32f_C1IM(const float* pSrc, const int32_t* pMask, float* pSrcDst, int count);

/* Colour accumulation for live rays: dst.c += (src2.c*color[c])*src1; masked
 * rays are not touched. pSrc1, pSrc2, pMask, pSrcDst are checked
 * (vekStatusNullPtr); pColor is not. */
VEKR_API VekStatus vekrAddMulMul_32f_AC1P3IM(const float pColor[3], const float* pSrc1, const float* const pSrc2[3],
                                             const int32_t* pMask, float* const pSrcDst[3], int count);

/* ------------------------------------------------------------------------ */
/* Spherical harmonics                                                       */
/* ------------------------------------------------------------------------ */

/* Byte size of a spherical-harmonics state of the given order and type into
 * *pSize. Type vekrSHDirect: the header alone (16 bytes on i386, 24 on
 * x86-64), orders 0..15 (above: vekStatusBadSize). Type vekrSHRecurrence: any
 * order; with n = (order+1)(order+2)/2 the size is 8n rounded up to a multiple
 * of 32, plus 16 on i386 (order 0: 48, 3: 112, 15: 1104) or plus 32 on x86-64
 * (order 0: 64, 3: 128, 15: 1120). Checks: pSize (vekStatusNullPtr), then the
 * type (vekStatusBadArgument). */
VEKR_API VekStatus vekrSHGetSize_32f(uint32_t order, uint32_t type, int* pSize);

/* Initialises a state in caller memory of at least the reported size (16-byte
 * aligned for type vekrSHRecurrence): zero-fills it, stores order and type
 * and, for the recurrence, the two factor tables and pointers to them inside
 * the buffer (so the state must not be moved afterwards). Table A starts 16
 * bytes (i386) or 32 bytes (x86-64) past the first 16-byte boundary, table B
 * at the first 16-byte boundary after A. Checks: pState
 * (vekStatusNullPtr), a direct-type order above 15 (vekStatusBadSize), an
 * unknown type (vekStatusBadArgument). */
VEKR_API VekStatus vekrSHInit_32f(VekrSHState* pState, uint32_t order, uint32_t type);

/* Real spherical harmonics of bands 0..order for count directions (planar
 * x, y, z): (order+1)^2 values per direction, Y_l^m of direction i at
 * pDst[i*(order+1)^2 + l*l + l + m]. Checks, in order: any pointer null
 * (vekStatusNullPtr); count 0 (vekStatusBadSize); order above the state's
 * order, above 15, or an unknown state type (vekStatusBadArgument). A negative
 * count then returns vekStatusOk and writes nothing. */
VEKR_API VekStatus vekrSH_32f(const float* pX, const float* pY, const float* pZ, int count, float* pDst,
                              uint32_t order, const VekrSHState* pState);

/* The 2*band+1 functions of one band (closed form, no state) for count
 * directions: Y_band^m of direction i at pDst[i*(2*band+1) + band + m].
 * Checks, in order: pointers (vekStatusNullPtr), band above 15
 * (vekStatusBadArgument), count 0 (vekStatusBadSize); a negative count
 * returns vekStatusOk and writes nothing. */
VEKR_API VekStatus vekrSHBand_32f(const float* pX, const float* pY, const float* pZ, int count, float* pDst,
                                  uint32_t band);

/* Forward transforms: for each direction, add value * basis (bands 0..order)
 * to the coefficient vectors ((order+1)^2 floats each; zero them first for a
 * plain projection). Quadrature weights are the caller's, folded into the
 * values. A value of exactly 1 adds the basis unscaled; a value of 0 adds
 * zeros. C1I: one channel. C3P3I: interleaved three-channel values
 * (3*count floats), three coefficient vectors. P3I: three value planes.
 * Checks, in order: any pointer, including those inside the three-pointer
 * arrays, null (vekStatusNullPtr); count 0 (vekStatusBadSize); order above
 * the state's order or above 15 (vekStatusBadArgument). A negative count then
 * returns vekStatusOk and does nothing. */
VEKR_API VekStatus vekrSHTFwd_32f_C1I(const float* pX, const float* pY, const float* pZ, const float* pVal,
                                      int count, float* pCoeffs, uint32_t order, const VekrSHState* pState);
VEKR_API VekStatus vekrSHTFwd_32f_C3P3I(const float* pX, const float* pY, const float* pZ, const float* pVal,
                                        int count, float* pCoeffs[3], uint32_t order,
                                        const VekrSHState* pState);
VEKR_API VekStatus vekrSHTFwd_32f_P3I(const float* pX, const float* pY, const float* pZ,
                                      const float* const pVal[3], int count, float* pCoeffs[3], uint32_t order,
                                      const VekrSHState* pState);

/* Inverse transforms: for each direction, the single-precision dot product of
 * the basis (bands 0..order) with each coefficient vector. C1: one channel
 * into pDst[i]. P3: three destination planes. P3C3: interleaved results
 * pDst[3*i + c]. Checks as for the forward transforms. */
VEKR_API VekStatus vekrSHTInv_32f_C1(const float* pCoeffs, uint32_t order, const float* pX, const float* pY,
                                     const float* pZ, float* pDst, int count, const VekrSHState* pState);
VEKR_API VekStatus vekrSHTInv_32f_P3(const float* const pCoeffs[3], uint32_t order, const float* pX,
                                     const float* pY, const float* pZ, float* pDst[3], int count,
                                     const VekrSHState* pState);
VEKR_API VekStatus vekrSHTInv_32f_P3C3(const float* const pCoeffs[3], uint32_t order, const float* pX,
                                       const float* pY, const float* pZ, float* pDst, int count,
                                       const VekrSHState* pState);

/* ------------------------------------------------------------------------ */
/* Volume processing                                                         */
/* ------------------------------------------------------------------------ */

/* Volume layouts. C1V: one block; voxel (x, y, z) at
 * base + z * planeStep + y * step + x * elementSize (steps in bytes).
 * C1PV: an array of plane pointers; voxel (x, y, z) at
 * plane[z] + y * step + x * elementSize. */

/* The destination region a resize of srcVoi by the factors and shifts would
 * write, per axis start = max(trunc(x * factor + shift + 0.4999999999), 0) and
 * end = max(trunc((x + width) * factor + shift + 0.5000000001), 0).
 * Checks: pDstVoi (NullPtr); srcVoi x, width, y, height, z, depth (BadSize);
 * factors > 0 (BadResizeFactor); interpolation (BadInterpolation). An empty
 * region gives vekStatusNoOperation and leaves *pDstVoi unwritten; a region
 * whose end lies beyond INT_MAX on some axis gives vekStatusBadSize. */
VEKR_API VekStatus vekrGetResizeCuboid(VekrCuboid srcVoi, VekrCuboid* pDstVoi, double xFactor, double yFactor,
                                       double zFactor, double xShift, double yShift, double zShift,
                                       int interpolation);

/* Work-buffer bytes for a resize into dstVoi with the current thread count
 * (the size is per thread times the thread count; size the buffer with the
 * thread count the resize will run with). Checks: pSize (NullPtr); srcVoi
 * then dstVoi corners and extents (BadSize); nChannel 1 (BadNumChannels);
 * interpolation (BadInterpolation). */
VEKR_API VekStatus vekrResizeGetBufSize(VekrCuboid srcVoi, VekrCuboid dstVoi, int nChannel, int interpolation,
                                        int* pSize);

/* Resize srcVoi of a one-channel volume by xFactor, yFactor, zFactor with
 * shifts (in destination voxels) into the part of dstVoi it maps to, with
 * interpolation 1 (nearest), 2 (linear) or 4 to 7 (cubic kernels). A
 * destination voxel i samples the source at (i + 0.5) / factor - shift /
 * factor; taps outside the source region repeat its edge voxels. 8u and 16u
 * results are rounded and clamped. Only the destination region (see
 * vekrGetResizeCuboid, further limited to dstVoi) is written. pBuffer holds
 * vekrResizeGetBufSize bytes. Checks: pSrc, pDst, pBuffer (NullPtr);
 * srcVolume, srcVoi, dstVoi sizes (BadSize); factors (BadResizeFactor);
 * interpolation (BadInterpolation); srcVoi corner outside the volume gives
 * vekStatusVoiOutsideSrc and an empty region vekStatusNoOperation, both
 * writing nothing. A srcVoi running past the volume is cut back to it.
 * vekrResize_32f_C1V splits large regions between threads. */
VEKR_API VekStatus vekrResize_8u_C1V(const uint8_t* pSrc, VekrVolume srcVolume, int srcStep, int srcPlaneStep,
                                     VekrCuboid srcVoi, uint8_t* pDst, int dstStep, int dstPlaneStep,
                                     VekrCuboid dstVoi, double xFactor, double yFactor, double zFactor,
                                     double xShift, double yShift, double zShift, int interpolation,
                                     uint8_t* pBuffer);
VEKR_API VekStatus vekrResize_16u_C1V(const uint16_t* pSrc, VekrVolume srcVolume, int srcStep, int srcPlaneStep,
                                      VekrCuboid srcVoi, uint16_t* pDst, int dstStep, int dstPlaneStep,
                                      VekrCuboid dstVoi, double xFactor, double yFactor, double zFactor,
                                      double xShift, double yShift, double zShift, int interpolation,
                                      uint8_t* pBuffer);
/* Steps are used in whole floats (byte steps divided by 4). */
VEKR_API VekStatus vekrResize_32f_C1V(const float* pSrc, VekrVolume srcVolume, int srcStep, int srcPlaneStep,
                                      VekrCuboid srcVoi, float* pDst, int dstStep, int dstPlaneStep,
                                      VekrCuboid dstVoi, double xFactor, double yFactor, double zFactor,
                                      double xShift, double yShift, double zShift, int interpolation,
                                      uint8_t* pBuffer);
VEKR_API VekStatus vekrResize_8u_C1PV(const uint8_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                      VekrCuboid srcVoi, uint8_t* const pDst[], int dstStep, VekrCuboid dstVoi,
                                      double xFactor, double yFactor, double zFactor, double xShift,
                                      double yShift, double zShift, int interpolation, uint8_t* pBuffer);
VEKR_API VekStatus vekrResize_16u_C1PV(const uint16_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                       VekrCuboid srcVoi, uint16_t* const pDst[], int dstStep, VekrCuboid dstVoi,
                                       double xFactor, double yFactor, double zFactor, double xShift,
                                       double yShift, double zShift, int interpolation, uint8_t* pBuffer);
VEKR_API VekStatus vekrResize_32f_C1PV(const float* const pSrc[], VekrVolume srcVolume, int srcStep,
                                       VekrCuboid srcVoi, float* const pDst[], int dstStep, VekrCuboid dstVoi,
                                       double xFactor, double yFactor, double zFactor, double xShift,
                                       double yShift, double zShift, int interpolation, uint8_t* pBuffer);

/* Remap of a planar volume (C1PV): every voxel (x, y, z) of the destination
 * (the whole of dstVolume) samples the source at the point held at (x, y, z)
 * by the float maps pxMap, pyMap, pzMap (one map plane per destination
 * plane, rows mapStep bytes apart), in source voxel coordinates with voxel
 * centres on integers. Only the source region srcVoi, cut back to the
 * volume, is read; a point outside that inclusive box writes nothing (the
 * voxel keeps its value).
 *  - Nearest (1): a point is outside when a coordinate is below the box's
 *    first or above its last voxel; otherwise the coordinates are rounded to
 *    nearest, ties to even. NaN coordinates must not be passed.
 *  - Linear (2): inside when first <= c <= last on every axis (NaN is
 *    outside); taps i = trunc(c) and i + 1, the pair moved down by one on the
 *    box's last voxel; t = c - i in float; (1 - t) a + t b in float, first
 *    the four blends along z, then the two along y, then the one along x.
 *  - Cubic (4 to 7): same inside test; taps trunc(c) - 1 ... trunc(c) + 2
 *    clamped to the box, weights w(1 + t), w(t), w(1 - t), w(2 - t) of the
 *    code's kernel (as in resize), four-tap sums along x, then y, then z.
 *  - 8u and 16u linear and cubic results: trunc(sum + 0.5000001) clamped to
 *    the element range, as in resize.
 * A source smaller than 4 voxels on some axis samples cubic codes linearly;
 * smaller than 2, every code by nearest. A source one plane deep is remapped
 * in 2-D: pzMap is checked but not read, srcVoi's z and depth are not used,
 * and every destination plane is sampled from the one source plane with
 * the same rules restricted to x and y (the size lowering looks at width
 * and height only).
 * Checks in order: pSrc, pDst null, then pxMap, pyMap, pzMap null: -8;
 * srcVolume, srcVoi (x, width, y, height, z, depth), dstVolume sizes: -6;
 * interpolation not 1, 2, 4 to 7: -22. srcVoi starting outside the source:
 * vekStatusVoiOutsideSrc, nothing written. Destinations larger than 15
 * voxels in every axis are split by rows between ownGetNumThreads() threads;
 * the result does not depend on the thread count. */
VEKR_API VekStatus vekrRemap_8u_C1PV(const uint8_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                     VekrCuboid srcVoi, const float* const pxMap[], const float* const pyMap[],
                                     const float* const pzMap[], int mapStep, uint8_t* const pDst[], int dstStep,
                                     VekrVolume dstVolume, int interpolation);
VEKR_API VekStatus vekrRemap_16u_C1PV(const uint16_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                      VekrCuboid srcVoi, const float* const pxMap[], const float* const pyMap[],
                                      const float* const pzMap[], int mapStep, uint16_t* const pDst[], int dstStep,
                                      VekrVolume dstVolume, int interpolation);
VEKR_API VekStatus vekrRemap_32f_C1PV(const float* const pSrc[], VekrVolume srcVolume, int srcStep,
                                      VekrCuboid srcVoi, const float* const pxMap[], const float* const pyMap[],
                                      const float* const pzMap[], int mapStep, float* const pDst[], int dstStep,
                                      VekrVolume dstVolume, int interpolation);

/* Work-buffer size of the affine warp: always 0 (the warp needs none).
 * Checks: pSize null -8; srcVoi then dstVoi (x, width, y, height, z, depth)
 * -6; nChannel not 1 -53; interpolation not 1, 2, 4 to 7 -22. */
VEKR_API VekStatus vekrWarpAffineGetBufSize(VekrCuboid srcVoi, VekrCuboid dstVoi, int nChannel, int interpolation,
                                            int* pSize);

/* Affine warp of a planar volume (C1PV). coeffs (3 x 4 doubles, row-major)
 * maps a source point to a destination point: x' = c00 x + c01 y + c02 z +
 * c03 and so on. Each voxel of the destination box dstVoi (not cut back; the
 * caller provides it) at integer coordinates (x, y, z) is pulled from the
 * source point inverse(x, y, z), formed in double per row and advanced by the
 * inverse's first column per voxel. A point outside the inclusive box of
 * srcVoi cut back to the volume writes nothing.
 *  - Nearest (1): coordinates rounded to nearest, ties to even, in double.
 *  - Linear (2) and cubic (4 to 7): the rules of vekrRemap, with the
 *    fraction t = c - trunc(c) formed in double and rounded to float.
 *  - 8u and 16u linear and cubic results: trunc(sum + 0.5000001), clamped.
 * A source smaller than 4 voxels on some axis warps cubic codes linearly;
 * smaller than 2, every code by nearest. A source one plane deep is warped
 * in 2-D by the in-plane map (c00 c01 c03; c10 c11 c13) into the rectangle
 * of dstVoi in each of its planes; srcVoi's z and depth are not used, a
 * 2 x 2 determinant within 1e-10 of zero gives -56.
 * Checks in order: pSrc, pDst null -8 (coeffs and pBuffer are not checked;
 * pBuffer is not used); srcVolume, srcVoi, dstVoi sizes -6; a degenerate
 * matrix (diagonal all within 1e-100 of zero, or the three relative minors
 * of the lower rows all within 1e-10) -56; interpolation -22; srcVoi
 * starting outside the source: vekStatusVoiOutsideSrc, nothing written; a
 * 3 x 3 determinant within 1e-10 of zero: -56, nothing written. Boxes larger
 * than 15 voxels in every axis are split by rows between ownGetNumThreads()
 * threads; the result does not depend on the thread count. */
VEKR_API VekStatus vekrWarpAffine_8u_C1PV(const uint8_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                          VekrCuboid srcVoi, uint8_t* const pDst[], int dstStep, VekrCuboid dstVoi,
                                          const double coeffs[3][4], int interpolation, uint8_t* pBuffer);
VEKR_API VekStatus vekrWarpAffine_16u_C1PV(const uint16_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                           VekrCuboid srcVoi, uint16_t* const pDst[], int dstStep,
                                           VekrCuboid dstVoi, const double coeffs[3][4], int interpolation,
                                           uint8_t* pBuffer);
VEKR_API VekStatus vekrWarpAffine_32f_C1PV(const float* const pSrc[], VekrVolume srcVolume, int srcStep,
                                           VekrCuboid srcVoi, float* const pDst[], int dstStep, VekrCuboid dstVoi,
                                           const double coeffs[3][4], int interpolation, uint8_t* pBuffer);

/* Work-buffer size in bytes for vekrFilter_16s_C1PV, for the current thread
 * count T (size buffers with the thread count the filter will run with):
 * (64 * floor((W * nChannel + 15) / 16) + 32 * floor((KW + 1) / 2) * KH * KD + 32) * T
 * in unsigned 32-bit arithmetic, W the destination width, KW x KH x KD the
 * kernel. Checks: pSize null: vekStatusNullPtr; a size below 1:
 * vekStatusBadSize; nChannel not 1: vekStatusBadNumChannels. */
VEKR_API VekStatus vekrFilterGetBufSize(VekrVolume dstVolume, VekrVolume kernelVolume, int nChannel, int* pSize);

/* 3-D convolution of a planar 16-bit signed volume with a KW x KH x KD kernel
 * of int32 coefficients (x fastest, then y, then z), divided by divisor:
 *
 *   S(x, y, z) = sum over 0 <= i < KW, 0 <= j < KH, 0 <= k < KD of
 *                kernel[k][j][i] * src(x + anchor.x - i, y + anchor.y - j, z + anchor.z - k)
 *   dst(x, y, z) = saturate16(round_half_even((float)S * (1.0f / (float)divisor)))
 *
 * so kernel[anchor.z][anchor.y][anchor.x] lies over the output voxel and the
 * kernel is applied reversed (a true convolution). src(u, v, w) is
 * pSrc[w][v * (srcStep / 2) + u], in destination coordinates: pSrc[0][0] is
 * the source voxel under destination voxel (0, 0, 0), and the caller provides
 * the neighbourhood around the destination region by pointing into larger
 * arrays (negative u, v and w included).
 * Per axis (x shown) the filter reads u from anchor.x - (KW - 1) to
 * W - 1 + anchor.x: with 0 <= anchor.x < KW, a border of KW - 1 - anchor.x
 * voxels before the region and anchor.x voxels after it. In z the border is
 * in the plane-pointer array: pSrc[-(KD - 1 - anchor.z)] ... pSrc[D - 1 + anchor.z]
 * must be valid planes. The anchor itself is not checked. Steps are in bytes.
 *
 * Kernels whose coefficients all lie in [-32767, 32766] run on 16-bit
 * multiply-adds with a 32-bit sum (a sum beyond the int32 range wraps); other
 * kernels sum in double precision, which is exact while partial sums stay
 * below 2^53 (always, for kernels of fewer than 128 taps). Both give the same
 * result wherever S fits in 32 bits. The result does not depend on the
 * thread count; volumes larger than 15 voxels in every axis are split among
 * ownGetNumThreads() threads, each using its share of pBuffer (sized by
 * vekrFilterGetBufSize).
 *
 * Checks, in order: pSrc, pDst or pKernel null, then pBuffer null:
 * vekStatusNullPtr; a dstVolume size below 1, then a kernelVolume size below
 * 1, then divisor 0: vekStatusBadSize. Nothing is written on an error. */
VEKR_API VekStatus vekrFilter_16s_C1PV(const int16_t* const* pSrc, int srcStep, int16_t* const* pDst, int dstStep,
                                       VekrVolume dstVolume, const int32_t* pKernel, VekrVolume kernelVolume,
                                       VekrPoint3D anchor, int divisor, uint8_t* pBuffer);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VEKR_H */
