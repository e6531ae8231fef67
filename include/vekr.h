/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file vekr.h
 * @brief vekr: realistic-rendering primitives with a C interface.
 *
 * Ray tracing of triangle scenes (accelerator records, scene box, KD tree,
 * ray packets and intersection queries), shading arithmetic on ray packets,
 * spherical harmonics and volume processing. Link with `-lvekr -lvekcore`
 * (pkg-config module `vekr`, CMake targets `vekr::vekr` and `vekr::vekcore`).
 *
 * @par Statuses
 * Every function except vekrGetLibVersion() and vekrKDTreeFree() returns a
 * ::VekStatus: 0 success, negative an error (reported before any output is
 * written: a failing call leaves every output untouched), positive a warning
 * (the outputs are valid). A function returns only the statuses its
 * description lists.
 *
 * @par Argument checks
 * Arguments are checked in a fixed order: required pointers
 * (::vekStatusNullPtr), then sizes and counts (::vekStatusBadSize), then mode
 * codes, factors and ranges. The first failing check decides the status.
 * Which pointers a function checks is part of its description; several leave
 * input-only pointers unchecked, and the four intersection queries check
 * nothing at all.
 *
 * @par Ray packets
 * Arrays of rays are planar: a P3 operand is an array of three pointers to
 * float arrays (x, y, z, or three colour planes). Element i of a block of
 * width x height rays is at row * width + column. A ray mask holds one int32
 * per ray; a negative entry means the ray takes no part.
 *
 * @par Vector path
 * Array operations have a 4-wide SSE path and a scalar path that give
 * bit-identical results; the scalar rule stated with each function defines
 * the values. As a rule the vector path runs when every array the operation
 * reads or writes (each plane of a P3 operand) is 16-byte aligned and the
 * element count per row is a multiple of 4; each function lists its own
 * conditions. The path never changes a result, only the speed.
 *
 * @par Threads
 * The library keeps no state between calls and creates no threads of its
 * own. These operations run OpenMP parallel regions that end before they
 * return: the surface-area split search of vekrKDTreeBuildAlloc() (nodes of
 * more than 75 triangles, OpenMP's default team), vekrTriangleNormal_32f(),
 * vekrResize_32f_C1V(), the remaps, the affine warps and the filter (team
 * size from ownGetNumThreads(), see vekSetNumThreads()). No result depends on
 * the thread count. Any function may run on several threads at once on
 * different outputs.
 *
 * @par Memory
 * Memory the library allocates for the caller (the KD-tree block) comes from
 * vekMalloc() and is released with vekrKDTreeFree(); nothing else is
 * allocated. Volume operations take caller work buffers sized by their
 * GetBufSize companions.
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
/** Marks a function the shared object exports (default visibility while the library is built). */
#define VEKR_API __attribute__((visibility("default")))
#else
/** Marks a function the shared object exports; empty for callers. */
#define VEKR_API
#endif

/* ------------------------------------------------------------------------ */
/* Status codes                                                              */
/* ------------------------------------------------------------------------ */

/** @brief Result of every operation: 0 success, negative error, positive warning. */
typedef enum VekStatus {
    vekStatusOk = 0,                 /**< success */
    vekStatusNoOperation = 1,        /**< warning: nothing to do; the result is empty, nothing written */
    vekStatusDivByZero = 6,          /**< warning: a division by zero was handled (vekrDiv_32f_C1IM()) */
    vekStatusVoiOutsideSrc = 40,     /**< warning: source region starts outside the source; nothing written */
    vekStatusBuildInconsistent = -2, /**< KD build: children got other counts than the split search predicted */
    vekStatusNoMemory = -4,          /**< an allocation failed, or the KD build's memory budget is too small */
    vekStatusBadAlgorithm = -5,      /**< unknown KD-tree build algorithm code */
    vekStatusBadSize = -6,           /**< a size or count is out of range (as a rule: below 1) */
    vekStatusBadArgument = -7,       /**< an argument outside its accepted set (SH type, order or band) */
    vekStatusNullPtr = -8,           /**< a required pointer is null */
    vekStatusBudgetExhausted = -9,   /**< the KD build used up its working-memory budget while subdividing */
    vekStatusOutOfRange = -11,       /**< a KD-tree build parameter is out of range */
    vekStatusBadInterpolation = -22, /**< unsupported interpolation code */
    vekStatusBadResizeFactor = -23,  /**< a resize factor is zero, negative or NaN */
    vekStatusBadNumChannels = -53,   /**< a channel count other than 1 */
    vekStatusSingularTransform = -56 /**< the affine warp's matrix is degenerate */
} VekStatus;

/* ------------------------------------------------------------------------ */
/* Version record                                                            */
/* ------------------------------------------------------------------------ */

/** @brief The library's constant version record (see vekrGetLibVersion()). */
typedef struct VekLibraryVersion {
    int32_t major;         /**< major version: 7 */
    int32_t minor;         /**< minor version: 0 */
    int32_t majorBuild;    /**< build series: 205 */
    int32_t build;         /**< build number: 937 */
    char targetCpu[4];     /**< "s8" and two zero bytes: SSE up to SSSE3 */
    const char* name;      /**< library name text, "vekrs8-7.0.dll" */
    const char* version;   /**< version text, "7.0 build 205.85" */
    const char* buildDate; /**< build date text, "Nov 26 2011" */
} VekLibraryVersion;

/* ------------------------------------------------------------------------ */
/* Scene records                                                             */
/* ------------------------------------------------------------------------ */

/** @brief Axis-aligned scene box (see vekrSetBoundBox_32f()). */
typedef struct VekrBoundBox {
    float minCorner[3]; /**< minimum corner x, y, z */
    float maxCorner[3]; /**< maximum corner x, y, z */
} VekrBoundBox;

/**
 * @brief Per-triangle intersection record (40 bytes), made by vekrTriangleAccelInit().
 *
 * The triangle is projected along its dominant normal axis k onto the plane
 * of the other two axes (u, v); C is the triangle's third vertex,
 * E1 = A - C, E2 = B - C, N = E1 x E2 and s = 1/N[k] (negated for k = y).
 * All ten words are 0 for a triangle without area.
 */
typedef struct VekrTriangleAccel {
    int32_t axisCode; /**< bits 4-5 k, bits 2-3 u, bits 0-1 v, bit 31 flat-plane flag */
    float normalU;    /**< N[u] / N[k] (0 when flat) */
    float vertexK;    /**< C[k] */
    float normalV;    /**< N[v] / N[k] (0 when flat) */
    float vertexU;    /**< C[u] */
    float vertexV;    /**< C[v] */
    float edge2U;     /**< E2[u] * s */
    float edge2V;     /**< E2[v] * s */
    float edge1U;     /**< E1[u] * s */
    float edge1V;     /**< E1[v] * s */
} VekrTriangleAccel;

/**
 * @brief KD-tree node (8 bytes) of the block that vekrKDTreeBuildAlloc() makes.
 *
 * Inner node: link bit 31 clear, link & 3 the split axis, link & ~3 the byte
 * distance to the child pair (lower child first), value the split coordinate
 * as float bits. Leaf: link bit 31 set; a list leaf (value bit 31 clear)
 * holds value triangles in a list at (node address - link); a packed leaf
 * (value bit 31 set) holds value & 3 triangle indices in the node itself.
 */
typedef struct VekrKDTreeNode {
    int32_t link;  /**< child distance and split axis, or leaf flag and list offset */
    int32_t value; /**< split coordinate bits, or the leaf's triangle count */
} VekrKDTreeNode;

/** KD-tree build algorithm codes (VekrKDTreeBuildParams::algorithm). */
enum {
    vekKDTreeBuildSimple = 0x499D3DC2, /**< every triangle in one leaf */
    vekKDTreeBuildPSAH = 0x2D07705B    /**< surface-area heuristic */
};

/** @brief Parameters of vekrKDTreeBuildAlloc(). */
typedef struct VekrKDTreeBuildParams {
    uint32_t algorithm;     /**< vekKDTreeBuildSimple or vekKDTreeBuildPSAH */
    int32_t maxDepth;       /**< 0 ... 50; a node at this depth becomes a leaf */
    float costBalance;      /**< 0.0 ... 1.0 (surface-area build); 1 splits most readily */
    uint32_t memoryLimitMB; /**< working-memory budget in MiB (at least 32) */
    VekrBoundBox* pClipBox; /**< optional: build for the part of the scene inside this box */
} VekrKDTreeBuildParams;

/** @brief What the intersection queries search. */
typedef struct VekrIntersectContext {
    const VekrBoundBox* pBound;          /**< the scene box */
    const VekrTriangleAccel* pAccel;     /**< accelerator records, indexed by triangle */
    const VekrKDTreeNode* pRootNode;     /**< root node of a KD-tree block */
} VekrIntersectContext;

/* ------------------------------------------------------------------------ */
/* Spherical harmonics                                                       */
/* ------------------------------------------------------------------------ */

/** Evaluation method of a spherical-harmonics state (VekrSHState::type). */
enum {
    vekrSHDirect = 0,     /**< closed-form polynomials, orders 0 to 15 */
    vekrSHRecurrence = 1  /**< band recurrence with tabulated factors */
};

/**
 * @brief Header of a spherical-harmonics state (see vekrSHInit_32f()).
 *
 * Type-1 tables follow in the same caller buffer, which must not be moved
 * after initialisation (the pointers point into it).
 */
typedef struct VekrSHState {
    uint32_t order;   /**< highest band the state serves */
    uint32_t type;    /**< vekrSHDirect or vekrSHRecurrence */
    float* pFactorA;  /**< recurrence table A inside the buffer (null for the direct type) */
    float* pFactorB;  /**< recurrence table B inside the buffer (null for the direct type) */
} VekrSHState;

/* ------------------------------------------------------------------------ */
/* Volumes                                                                   */
/* ------------------------------------------------------------------------ */

/** Interpolation codes of the volume operations. Code 3 is not used and is rejected. */
enum {
    vekrInterNearest = 1,          /**< nearest voxel */
    vekrInterLinear = 2,           /**< trilinear */
    vekrInterCubic = 4,            /**< four-point Lagrange cubic */
    vekrInterCubicBSpline = 5,     /**< cubic with (B, C) = (1, 0) */
    vekrInterCubicCatmullRom = 6,  /**< cubic with (B, C) = (0, 0.5) */
    vekrInterCubicB05C03 = 7       /**< cubic with (B, C) = (0.5, 0.3) */
};

/** @brief Size of a whole volume, passed by value. */
typedef struct VekrVolume {
    int32_t width;  /**< voxels per row */
    int32_t height; /**< rows per plane */
    int32_t depth;  /**< planes */
} VekrVolume;

/** @brief A region of interest: first corner (x, y, z) and extent. */
typedef struct VekrCuboid {
    int32_t x;      /**< first column */
    int32_t y;      /**< first row */
    int32_t z;      /**< first plane */
    int32_t width;  /**< columns */
    int32_t height; /**< rows */
    int32_t depth;  /**< planes */
} VekrCuboid;

/** @brief A voxel position, passed by value (the filter's anchor). */
typedef struct VekrPoint3D {
    int32_t x; /**< column */
    int32_t y; /**< row */
    int32_t z; /**< plane */
} VekrPoint3D;

/* ------------------------------------------------------------------------ */
/* Frame                                                                     */
/* ------------------------------------------------------------------------ */

/** @name Frame */
/** @{ */

/**
 * @brief The library's constant version record.
 * @return The same pointer on every call, to read-only data that lives from
 *         load to unload (never freed by the caller). This call cannot fail.
 */
VEKR_API const VekLibraryVersion* vekrGetLibVersion(void);

/** @} */

/* ------------------------------------------------------------------------ */
/* Scene acceleration                                                        */
/* ------------------------------------------------------------------------ */

/** @name Scene acceleration */
/** @{ */

/**
 * @brief Scene box of a vertex array.
 *
 * The box of the vertices, widened on every side by 0.0001 times the largest
 * coordinate magnitude (at least the smallest normal float). NaN coordinates
 * are ignored. numVertices <= 0 leaves the box inverted (minimum above
 * maximum). Only pVertices is checked.
 *
 * @param pVertices   vertices: x, y, z floats at a 12-byte stride
 * @param numVertices number of vertices
 * @param pBox        out: the box (not checked)
 * @retval vekStatusOk       the box is written
 * @retval vekStatusNullPtr  pVertices is null
 */
VEKR_API VekStatus vekrSetBoundBox_32f(const float* pVertices, int numVertices, VekrBoundBox* pBox);

/**
 * @brief Size in bytes of one VekrTriangleAccel record.
 * @param pSize out: 40
 * @retval vekStatusOk      *pSize is written
 * @retval vekStatusNullPtr pSize is null
 */
VEKR_API VekStatus vekrTriangleAccelGetSize(int* pSize);

/**
 * @brief Fills one accelerator record per triangle.
 *
 * Set-up runs in double precision, rounded to float at the store; a triangle
 * without area gets an all-zero record. Checks nothing; numTriangles < 1
 * writes nothing.
 *
 * @param pAccel       out: numTriangles records
 * @param pVertices    vertices: x, y, z floats at a 12-byte stride
 * @param pTriangles   four ints per triangle: three vertex indices and one unused word
 * @param numTriangles number of triangles
 * @retval vekStatusOk always
 */
VEKR_API VekStatus vekrTriangleAccelInit(VekrTriangleAccel* pAccel, const float* pVertices,
                                         const int* pTriangles, int numTriangles);

/**
 * @brief Builds a KD tree over the triangles into one position-independent block.
 *
 * The block is allocated with vekMalloc() (release it with vekrKDTreeFree());
 * its root node is at offset 0. The simple build puts every triangle in one
 * leaf; the surface-area build subdivides with the surface-area heuristic,
 * its split search for nodes of more than 75 triangles running on OpenMP's
 * default team of threads (the tree does not depend on the thread count).
 * Nothing is written unless the build succeeds.
 *
 * @param ppTree       out: the tree block
 * @param pVertices    vertices: x, y, z floats at a 12-byte stride
 * @param pTriangles   four ints per triangle: three vertex indices and one unused word
 * @param numVertices  number of vertices
 * @param numTriangles number of triangles
 * @param pSize        out: the block's size in bytes
 * @param pParams      algorithm, depth limit, cost balance, memory budget, optional clip box
 * @retval vekStatusOk                 *ppTree and *pSize are written
 * @retval vekStatusNullPtr            ppTree, pVertices, pTriangles or pSize is null; or
 *                                     (after the counts) pParams is null
 * @retval vekStatusBadSize            numVertices or numTriangles is negative
 * @retval vekStatusBadAlgorithm       an unknown algorithm code
 * @retval vekStatusOutOfRange         maxDepth outside 0..50, or for the surface-area
 *                                     build costBalance below 0 or above 1 (NaN passes)
 * @retval vekStatusNoMemory           surface-area build: a budget below 32 MiB
 *                                     ((memoryLimitMB << 19) modulo 2^32 below 2^24) or
 *                                     below the build's up-front need; either build:
 *                                     vekMalloc() failed
 * @retval vekStatusBudgetExhausted    the surface-area build used up its budget
 * @retval vekStatusBuildInconsistent  a node's children got other triangle counts than
 *                                     its split search predicted
 */
VEKR_API VekStatus vekrKDTreeBuildAlloc(VekrKDTreeNode** ppTree, const float* pVertices,
                                        const int* pTriangles, int numVertices, int numTriangles,
                                        int* pSize, const VekrKDTreeBuildParams* pParams);

/**
 * @brief Releases a tree block made by vekrKDTreeBuildAlloc().
 * @param pTree the block (null is passed on to vekFree(), which ignores it)
 */
VEKR_API void vekrKDTreeFree(VekrKDTreeNode* pTree);

/** @} */

/* ------------------------------------------------------------------------ */
/* Ray queries: casting, intersection, hit points and normals                */
/* ------------------------------------------------------------------------ */

/** @name Ray queries */
/** @{ */

/**
 * @brief Nearest hit of a block of rays from one eye point.
 *
 * Directions need not be unit length; distances are in units of the
 * direction's length. A hit counts when 0 < t < the ray's distance entry.
 * Checks nothing.
 *
 * Vector path: width and height multiples of 4, the three direction planes,
 * pDist, both hit planes and pTrngl 16-byte aligned.
 *
 * @param pOrigin    the eye point x, y, z
 * @param pDirection ray directions, planar x, y, z
 * @param pDist      in: the far limit per ray; out: the nearest hit distance
 *                   (unchanged without a hit)
 * @param pHit       out: barycentric weights of the hit triangle's first and
 *                   second vertex, written only on a hit
 * @param pTrngl     out: the hit triangle, -1 for none
 * @param pContext   scene box, accelerator records and KD tree
 * @param width      rays per row
 * @param height     rows; below 1 returns at once
 * @retval vekStatusOk always; a width or height below 1, or a block of more
 *         than 2147483647 rays (width x height), processes no ray and reads
 *         and writes nothing
 */
VEKR_API VekStatus vekrIntersectEyeSO_32f(const float* pOrigin, const float* const pDirection[3], float* pDist,
                                          float* const pHit[2], int32_t* pTrngl,
                                          const VekrIntersectContext* pContext, int width, int height);

/**
 * @brief Nearest hit of a block of rays with their own origins.
 *
 * As vekrIntersectEyeSO_32f(), but: a ray parallel to an axis misses unless
 * its origin lies strictly inside the box's slab on that axis; triangles seen
 * nearly edge-on (|det| < 1.1920929e-6) are ignored; a new hit must be nearer
 * than the recorded one by more than 0.00001. Checks nothing.
 *
 * Vector path: width and height multiples of 4, the three origin planes, the
 * three direction planes, pDist, both hit planes and pTrngl 16-byte aligned.
 *
 * @param pOrigin    ray origins, planar x, y, z
 * @param pDirection ray directions, planar x, y, z
 * @param pDist      in: the far limit per ray; out: the nearest hit distance
 * @param pHit       out: barycentric weights of the first and second vertex (on a hit)
 * @param pTrngl     out: the hit triangle, -1 for none
 * @param pContext   scene box, accelerator records and KD tree
 * @param width      rays per row
 * @param height     rows
 * @retval vekStatusOk always; a width or height below 1, or a block of more
 *         than 2147483647 rays (width x height), processes no ray and reads
 *         and writes nothing
 */
VEKR_API VekStatus vekrIntersectMO_32f(const float* const pOrigin[3], const float* const pDirection[3], float* pDist,
                                       float* const pHit[2], int32_t* pTrngl, const VekrIntersectContext* pContext,
                                       int width, int height);

/**
 * @brief Up to depth successive hits along each ray from one origin.
 *
 * Every output holds depth planes of width x height elements (level L of ray
 * i at L * width * height + i). Level 0 is searched up to the far limit in
 * pDist; deeper levels hold distances from pOrigin (cumulative), searched up
 * to the scene box's exit; a level without a hit after a found one gets
 * index -1 and distance FLT_MAX. All depth x width x height indices are first
 * set to -1 whenever that product is at least 1 (the signs of the three sizes
 * may cancel) and at most 2147483647; a larger product is no array size and
 * nothing is read or written. Rays are searched only when width, height and
 * depth are all at least 1. Level L ignores the triangle of level L - 1 and the first
 * (L mod 8) entries of an eight-entry hit list (entry L mod 8 takes level
 * L's triangle). Checks nothing.
 *
 * Vector path: width and height multiples of 4, the three direction planes,
 * pDist, both hit planes and pTrngl 16-byte aligned.
 *
 * @param pOrigin    the common origin x, y, z
 * @param pDirection ray directions, planar x, y, z
 * @param pDist      level 0 in: the far limit; out: hit distances per level
 * @param pHit       out: barycentric weights of the first and second vertex per level
 * @param pTrngl     out: hit triangles per level, -1 for none
 * @param width      rays per row
 * @param height     rows
 * @param depth      levels; below 1 searches nothing
 * @param pContext   scene box, accelerator records and KD tree
 * @retval vekStatusOk always
 */
VEKR_API VekStatus vekrIntersectMultipleSO_32f(const float* pOrigin, const float* const pDirection[3], float* pDist,
                                               float* const pHit[2], int32_t* pTrngl, int width, int height,
                                               int depth, const VekrIntersectContext* pContext);

/**
 * @brief Any hit on the segments from pOrigin to pOrigin + direction (0 < t < 1).
 *
 * Only rays whose pMask entry is 0 or positive are traced. Reads only
 * pAccel and pRootNode of the context. Checks nothing.
 *
 * Vector path: width and height multiples of 4, the three direction planes,
 * pOccluder and pMask 16-byte aligned.
 *
 * @param pOrigin    the common origin x, y, z
 * @param pDirection segment vectors, planar x, y, z
 * @param pOccluder  out: the first triangle found in traversal order (not
 *                   necessarily the nearest), -1 for none (every ray)
 * @param pMask      in: the ray mask; out: -1 for occluded rays, otherwise unchanged
 * @param width      rays per row
 * @param height     rows
 * @param pContext   accelerator records and KD tree
 * @retval vekStatusOk always; a width or height below 1, or a block of more
 *         than 2147483647 rays (width x height), processes no ray and reads
 *         and writes nothing
 */
VEKR_API VekStatus vekrIntersectAnySO_32f(const float* pOrigin, const float* const pDirection[3], int32_t* pOccluder,
                                          int32_t* pMask, int width, int height, const VekrIntersectContext* pContext);

/**
 * @brief Primary-ray directions for a block of pixels, row after row.
 *
 * dir = (pStepY*v + pOrigin) + pStepX*u per component, with
 * u = i + blockX*blockWidth and v = j + blockY*blockHeight (the block
 * offsets are int32 products). Not normalised. Width or height below 1
 * writes nothing.
 *
 * Vector path: width a multiple of 4 (aligned or unaligned stores by the
 * alignment of the three output planes).
 *
 * @param pOrigin     direction of pixel (0, 0) (not checked)
 * @param pStepX      direction step per column (not checked)
 * @param pStepY      direction step per row (not checked)
 * @param blockX      block column index
 * @param blockY      block row index
 * @param blockWidth  block width in pixels (for the column offset)
 * @param blockHeight block height in pixels (for the row offset)
 * @param pDir        out: directions, planar x, y, z
 * @param width       rays per row
 * @param height      rows
 * @retval vekStatusOk      the directions are written
 * @retval vekStatusNullPtr pDir is null
 * @retval vekStatusBadSize a block of more than 2147483647 rays (width x
 *         height, both at least 1); nothing is written
 */
VEKR_API VekStatus vekrCastEye_32f(const float pOrigin[3], const float pStepX[3], const float pStepY[3],
                                   int blockX, int blockY, int blockWidth, int blockHeight,
                                   float* const pDir[3], int width, int height);

/**
 * @brief Mirror reflection of each incident direction about its normal.
 *
 * d = inc.y*n.y + inc.z*n.z + inc.x*n.x, refl = inc - n*(d + d);
 * (0, 0, 0) for a ray with a negative mask. count below 1 does nothing.
 *
 * Vector path: count a multiple of 4 (aligned or unaligned loads by the
 * alignment of the mask and the nine planes).
 *
 * @param pInc    incident directions, planar x, y, z
 * @param pMask   ray mask
 * @param pNormal surface normals, planar x, y, z
 * @param pRefl   out: reflected directions, planar x, y, z
 * @param count   number of rays
 * @retval vekStatusOk      done
 * @retval vekStatusNullPtr pInc, pMask, pNormal or pRefl is null
 */
VEKR_API VekStatus vekrCastReflectionRay_32f(const float* const pInc[3], const int32_t* pMask,
                                             const float* const pNormal[3], float* const pRefl[3], int count);

/**
 * @brief Shadow rays from a point light to each surface point.
 *
 * s = hit - light, d = s.n. A live ray survives when pSide[i]*d > 0 and
 * |d| >= 0.0017453292, and gets pDist = |d| and pShadowDir = s; otherwise
 * both are 0 and a live ray's mask becomes -1 (a mask negative on entry is
 * kept).
 *
 * Vector path: four rays at a time over the largest multiple of 4, the rest
 * one by one (aligned loads when the nine planes, pSide, pMask and pDist are
 * 16-byte aligned).
 *
 * @param pLight     light position x, y, z (not checked)
 * @param pSide      per-ray side sign
 * @param pNormal    surface normals, planar x, y, z
 * @param pHit       surface points, planar x, y, z
 * @param pMask      in: the ray mask; out: -1 for culled rays
 * @param pDist      out: |d| or 0
 * @param pShadowDir out: s or (0, 0, 0), planar x, y, z
 * @param count      number of rays
 * @retval vekStatusOk      done
 * @retval vekStatusNullPtr pSide, pNormal, pHit, pMask, pShadowDir or pDist is null
 */
VEKR_API VekStatus vekrCastShadowSO_32f(const float pLight[3], const float* pSide, const float* const pNormal[3],
                                        const float* const pHit[3], int32_t* pMask, float* pDist,
                                        float* const pShadowDir[3], int count);

/**
 * @brief Hit points of rays from one origin.
 *
 * hit = ((dir*eps)*dist) + origin per component; (0, 0, 0) where the mask is
 * negative. count below 1 does nothing.
 *
 * Vector path: count a multiple of 4; pDist, pMask and the six planes of
 * pDir and pHit 16-byte aligned.
 *
 * @param pOrigin the common origin x, y, z (not checked)
 * @param pDir    ray directions, planar x, y, z
 * @param pDist   hit distances
 * @param pMask   ray mask
 * @param pHit    out: hit points, planar x, y, z
 * @param count   number of rays
 * @param eps     scale of the direction
 * @retval vekStatusOk      done
 * @retval vekStatusNullPtr pDist, pMask, pDir or pHit is null
 */
VEKR_API VekStatus vekrHitPoint3DEpsS0_32f_M(const float pOrigin[3], const float* const pDir[3],
                                             const float* pDist, const int32_t* pMask, float* const pHit[3],
                                             int count, float eps);

/**
 * @brief Hit points of rays with their own origins.
 *
 * As vekrHitPoint3DEpsS0_32f_M() with per-ray origins. Vector path as there,
 * the three origin planes 16-byte aligned too.
 *
 * @param pOrigin ray origins, planar x, y, z
 * @param pDir    ray directions, planar x, y, z
 * @param pDist   hit distances
 * @param pMask   ray mask
 * @param pHit    out: hit points, planar x, y, z
 * @param count   number of rays
 * @param eps     scale of the direction
 * @retval vekStatusOk      done
 * @retval vekStatusNullPtr pDist, pMask, pDir, pHit or pOrigin is null
 */
VEKR_API VekStatus vekrHitPoint3DEpsM0_32f_M(const float* const pOrigin[3], const float* const pDir[3],
                                             const float* pDist, const int32_t* pMask, float* const pHit[3],
                                             int count, float eps);

/**
 * @brief Flat normals: the normal of each ray's triangle.
 *
 * The three floats at pTriNorm + 3*t for the ray's triangle t, copied bit
 * for bit, or (0, 0, 0) for t < 0. count below 1 does nothing.
 *
 * Vector path: count a multiple of 4; pTriNorm, pTriIndex and the three
 * output planes 16-byte aligned.
 *
 * @param pTriNorm  triangle normals, x, y, z per triangle
 * @param pTriIndex triangle index per ray, negative for none
 * @param pNorm     out: normals, planar x, y, z (not checked)
 * @param count     number of rays
 * @retval vekStatusOk      done
 * @retval vekStatusNullPtr pTriNorm or pTriIndex is null
 */
VEKR_API VekStatus vekrSurfFlatNormal_32f(const float* pTriNorm, const int32_t* pTriIndex, float* const pNorm[3],
                                          int count);

/**
 * @brief Smooth normals interpolated from vertex normals.
 *
 * The vertex normals of entries t*triStride + 0, 1, 2 of pTriVert weighted
 * by u (first vertex), v (second) and (1 - u) - v (third), then normalised;
 * (0, 0, 0) for t < 0 or a squared length below 1.1920929e-7. count below 1
 * does nothing.
 *
 * Vector path: count a multiple of 4; pVertNorm, pTriVert, pTriIndex, both
 * u/v arrays and the three output planes 16-byte aligned.
 *
 * @param pVertNorm vertex normals, x, y, z per vertex
 * @param pTriVert  vertex indices of the triangles, triStride ints per triangle
 * @param pTriIndex triangle index per ray, negative for none
 * @param pUV       the u and v barycentric arrays
 * @param pNorm     out: normals, planar x, y, z
 * @param count     number of rays
 * @param triStride ints per triangle in pTriVert
 * @retval vekStatusOk      done
 * @retval vekStatusNullPtr pVertNorm, pTriVert, pTriIndex, pUV or pNorm is null
 */
VEKR_API VekStatus vekrSurfSmoothNormal_32f(const float* pVertNorm, const int32_t* pTriVert,
                                            const int32_t* pTriIndex, const float* const pUV[2],
                                            float* const pNorm[3], int count, int triStride);

/**
 * @brief Unit normal of each triangle.
 *
 * (p0 - p2) x (p1 - p2) normalised in double precision, rounded to float;
 * (0, 0, 0) when its squared length is below 2.220446049250313e-16. Runs on
 * ownGetNumThreads() threads, but never more than one per pair of triangles
 * nor more than 256 (the result does not depend on the team).
 * numTriangles below 1 does nothing.
 *
 * @param pVertCoord   vertices: x, y, z floats at a 12-byte stride
 * @param pTriVert     four int32 per triangle, the first three vertex indices
 * @param pTriNorm     out: x, y, z per triangle
 * @param numTriangles number of triangles
 * @retval vekStatusOk      done
 * @retval vekStatusNullPtr pVertCoord, pTriVert or pTriNorm is null
 * @retval vekStatusBadSize on 32-bit targets, numTriangles above 134217727
 *         (a triangle array beyond 2 GiB); nothing is written
 */
VEKR_API VekStatus vekrTriangleNormal_32f(const float* pVertCoord, const int32_t* pTriVert, float* pTriNorm,
                                          int numTriangles);

/** @} */

/* ------------------------------------------------------------------------ */
/* Shading arithmetic                                                        */
/* ------------------------------------------------------------------------ */

/** @name Shading arithmetic
 * Per-ray arithmetic with masks. count below 1 does nothing. Unless stated
 * otherwise the vector path runs when count is a multiple of 4 and every
 * array (each plane of a P3 operand, the mask, the C1 arrays) is 16-byte
 * aligned. */
/** @{ */

/**
 * @brief Masked dot product of two planar vectors.
 *
 * pDst = a.x*b.x + a.y*b.y + a.z*b.z (left to right); 0 where the mask is negative.
 *
 * @param pSrc1 first vectors, planar x, y, z
 * @param pSrc2 second vectors, planar x, y, z
 * @param pMask ray mask
 * @param pDst  out: dot products
 * @param count number of rays
 * @retval vekStatusOk      done
 * @retval vekStatusNullPtr any of the four pointers is null
 */
VEKR_API VekStatus vekrDot_32f_P3C1M(const float* const pSrc1[3], const float* const pSrc2[3],
                                     const int32_t* pMask, float* pDst, int count);

/**
 * @brief Orients each live normal against its ray.
 *
 * d = dir.n (left to right), s = -1 where d > 0, else +1 (so NaN d gives
 * +1); the normal becomes s*n and pDot = d*s. Masked rays get pDot 0 and
 * keep their normal untouched.
 *
 * @param pDir    ray directions, planar x, y, z
 * @param pMask   ray mask
 * @param pNormal in/out: normals, planar x, y, z
 * @param pDot    out: d*s, or 0 for a masked ray
 * @param count   number of rays
 * @retval vekStatusOk      done
 * @retval vekStatusNullPtr any of the four pointers is null
 */
VEKR_API VekStatus vekrDotChangeNorm_32f_IM(const float* const pDir[3], const int32_t* pMask,
                                            float* const pNormal[3], float* pDot, int count);

/**
 * @brief Distance to the light, at least 1.
 *
 * pDist = sqrt(q), q = |point - light|^2, unless q < 1, then 1; 1 for a masked ray.
 *
 * @param pLight light position x, y, z (not checked)
 * @param pPoint surface points, planar x, y, z
 * @param pMask  ray mask
 * @param pDist  out: distances
 * @param count  number of rays
 * @retval vekStatusOk      done
 * @retval vekStatusNullPtr pPoint, pMask or pDist is null
 */
VEKR_API VekStatus vekrDistAttenuationSO_32f_M(const float pLight[3], const float* const pPoint[3],
                                               const int32_t* pMask, float* pDist, int count);

/**
 * @brief Masked in-place product.
 *
 * pSrcDst = (pSrcDst*pSrc)*f with f = 1 for a live ray and 0 for a masked
 * one (so a masked finite product becomes 0 or -0, a masked infinite or NaN
 * product NaN). Checks no pointers. One path: element by element up to a
 * 16-byte boundary of pSrcDst, then four at a time, then the rest.
 *
 * @param pSrc    factors
 * @param pMask   ray mask
 * @param pSrcDst in/out: values
 * @param count   number of rays
 * @retval vekStatusOk always
 */
VEKR_API VekStatus vekrMul_32f_C1IM(const float* pSrc, const int32_t* pMask, float* pSrcDst, int count);

/**
 * @brief Masked in-place product of each plane.
 *
 * Each plane of pSrcDst: (dst*pSrc)*f, f as in vekrMul_32f_C1IM(). Without
 * the vector-path conditions, element by element up to a 16-byte boundary of
 * pSrc, then four at a time.
 *
 * @param pSrc    factors
 * @param pMask   ray mask
 * @param pSrcDst in/out: values, planar x, y, z
 * @param count   number of rays
 * @retval vekStatusOk      done
 * @retval vekStatusNullPtr pSrc, pMask or pSrcDst is null
 */
VEKR_API VekStatus vekrMul_32f_C1P3IM(const float* pSrc, const int32_t* pMask, float* const pSrcDst[3], int count);

/**
 * @brief Masked in-place quotient.
 *
 * pSrcDst /= pSrc for live rays, 0 for masked ones. A zero divisor gives
 * +inf, -inf or NaN (0xFFC00000) by the dividend's sign; every element is
 * processed either way. pMask is not checked. No separate vector path:
 * element by element up to a 16-byte boundary of pSrcDst, then four at a
 * time, then the rest.
 *
 * @param pSrc    divisors
 * @param pMask   ray mask (not checked)
 * @param pSrcDst in/out: dividends, then quotients
 * @param count   number of rays; below 1 does nothing
 * @retval vekStatusOk         done, no zero divisor met
 * @retval vekStatusDivByZero  done; some live ray had a zero divisor
 * @retval vekStatusNullPtr    pSrc or pSrcDst is null
 */
VEKR_API VekStatus vekrDiv_32f_C1IM(const float* pSrc, const int32_t* pMask, float* pSrcDst, int count);

/**
 * @brief Colour accumulation for live rays.
 *
 * dst.c += (src2.c*color[c])*src1; masked rays are not touched. Without the
 * vector-path conditions, element by element up to a 16-byte boundary of
 * pSrc1, then four at a time.
 *
 * @param pColor  colour factors r, g, b (not checked)
 * @param pSrc1   per-ray factor
 * @param pSrc2   per-ray colour, planar
 * @param pMask   ray mask
 * @param pSrcDst in/out: accumulated colour, planar
 * @param count   number of rays
 * @retval vekStatusOk      done
 * @retval vekStatusNullPtr pSrc1, pSrc2, pMask or pSrcDst is null
 */
VEKR_API VekStatus vekrAddMulMul_32f_AC1P3IM(const float pColor[3], const float* pSrc1, const float* const pSrc2[3],
                                             const int32_t* pMask, float* const pSrcDst[3], int count);

/** @} */

/* ------------------------------------------------------------------------ */
/* Spherical harmonics                                                       */
/* ------------------------------------------------------------------------ */

/** @name Spherical harmonics
 * Real spherical harmonics of bands 0..order; a coefficient vector of order L
 * holds (L+1)^2 floats, Y_l^m at l*l + l + m. */
/** @{ */

/**
 * @brief Byte size of a spherical-harmonics state.
 *
 * Type vekrSHDirect: the header alone (16 bytes on i386, 24 on x86-64),
 * orders 0..15. Type vekrSHRecurrence: any order; with
 * n = (order+1)(order+2)/2 the size is 8n rounded up to a multiple of 32,
 * plus 16 on i386 (order 0: 48, 3: 112, 15: 1104) or plus 32 on x86-64
 * (order 0: 64, 3: 128, 15: 1120).
 *
 * @param order highest band
 * @param type  vekrSHDirect or vekrSHRecurrence
 * @param pSize out: the size in bytes
 * @retval vekStatusOk          *pSize is written
 * @retval vekStatusNullPtr     pSize is null
 * @retval vekStatusBadArgument an unknown type
 * @retval vekStatusBadSize     a direct-type order above 15, or a recurrence
 *                              order whose size exceeds INT_MAX bytes (order
 *                              23170 and above); *pSize is not written
 */
VEKR_API VekStatus vekrSHGetSize_32f(uint32_t order, uint32_t type, int* pSize);

/**
 * @brief Initialises a state in caller memory.
 *
 * The memory must hold at least vekrSHGetSize_32f() bytes (16-byte aligned
 * for type vekrSHRecurrence). The call zero-fills it, stores order and type
 * and, for the recurrence, the two factor tables and pointers to them inside
 * the buffer (so the state must not be moved afterwards). Table A starts 16
 * bytes (i386) or 32 bytes (x86-64) past the first 16-byte boundary, table B
 * at the first 16-byte boundary after A.
 *
 * @param pState the state's memory
 * @param order  highest band
 * @param type   vekrSHDirect or vekrSHRecurrence
 * @retval vekStatusOk          the state is ready
 * @retval vekStatusNullPtr     pState is null
 * @retval vekStatusBadSize     a direct-type order above 15, or a recurrence
 *                              order whose size exceeds INT_MAX bytes (order
 *                              23170 and above); nothing is written
 * @retval vekStatusBadArgument an unknown type
 */
VEKR_API VekStatus vekrSHInit_32f(VekrSHState* pState, uint32_t order, uint32_t type);

/**
 * @brief Basis functions of bands 0..order for each direction.
 *
 * (order+1)^2 values per direction: Y_l^m of direction i at
 * pDst[i*(order+1)^2 + l*l + l + m]. A negative count writes nothing.
 *
 * Vector path: count a multiple of 4; pX, pY, pZ and pDst 16-byte aligned.
 *
 * @param pX     direction x components
 * @param pY     direction y components
 * @param pZ     direction z components
 * @param count  number of directions
 * @param pDst   out: the basis values
 * @param order  highest band
 * @param pState an initialised state
 * @retval vekStatusOk          done (also for a negative count)
 * @retval vekStatusNullPtr     any pointer is null
 * @retval vekStatusBadSize     count is 0
 * @retval vekStatusBadArgument order above the state's order or above 15, or an
 *                              unknown state type
 */
VEKR_API VekStatus vekrSH_32f(const float* pX, const float* pY, const float* pZ, int count, float* pDst,
                              uint32_t order, const VekrSHState* pState);

/**
 * @brief The 2*band+1 functions of one band (closed form, no state).
 *
 * Y_band^m of direction i at pDst[i*(2*band+1) + band + m]. A negative count
 * writes nothing.
 *
 * Vector path: count a multiple of 4; pX, pY, pZ and pDst 16-byte aligned.
 *
 * @param pX    direction x components
 * @param pY    direction y components
 * @param pZ    direction z components
 * @param count number of directions
 * @param pDst  out: the band's values
 * @param band  the band, 0..15
 * @retval vekStatusOk          done (also for a negative count)
 * @retval vekStatusNullPtr     any pointer is null
 * @retval vekStatusBadArgument band above 15
 * @retval vekStatusBadSize     count is 0
 */
VEKR_API VekStatus vekrSHBand_32f(const float* pX, const float* pY, const float* pZ, int count, float* pDst,
                                  uint32_t band);

/**
 * @brief Forward transform, one channel: adds value * basis to the coefficients.
 *
 * For each direction, add value * basis (bands 0..order) to the coefficient
 * vector (zero it first for a plain projection). Quadrature weights are the
 * caller's, folded into the values. A value of exactly 1 adds the basis
 * unscaled; a value of 0 adds zeros. A negative count does nothing.
 *
 * @param pX      direction x components
 * @param pY      direction y components
 * @param pZ      direction z components
 * @param pVal    sample values, one per direction
 * @param count   number of directions
 * @param pCoeffs in/out: coefficient vector, (order+1)^2 floats
 * @param order   highest band
 * @param pState  an initialised state
 * @retval vekStatusOk          done (also for a negative count)
 * @retval vekStatusNullPtr     any pointer is null
 * @retval vekStatusBadSize     count is 0
 * @retval vekStatusBadArgument order above the state's order or above 15
 */
VEKR_API VekStatus vekrSHTFwd_32f_C1I(const float* pX, const float* pY, const float* pZ, const float* pVal,
                                      int count, float* pCoeffs, uint32_t order, const VekrSHState* pState);

/**
 * @brief Forward transform of interleaved three-channel values.
 *
 * As vekrSHTFwd_32f_C1I(), with 3*count interleaved values and three
 * coefficient vectors.
 *
 * @param pX      direction x components
 * @param pY      direction y components
 * @param pZ      direction z components
 * @param pVal    sample values, three interleaved per direction
 * @param count   number of directions
 * @param pCoeffs in/out: three coefficient vectors
 * @param order   highest band
 * @param pState  an initialised state
 * @retval vekStatusOk          done (also for a negative count)
 * @retval vekStatusNullPtr     any pointer, including those in pCoeffs, is null
 * @retval vekStatusBadSize     count is 0
 * @retval vekStatusBadArgument order above the state's order or above 15
 */
VEKR_API VekStatus vekrSHTFwd_32f_C3P3I(const float* pX, const float* pY, const float* pZ, const float* pVal,
                                        int count, float* pCoeffs[3], uint32_t order,
                                        const VekrSHState* pState);

/**
 * @brief Forward transform of three value planes.
 *
 * As vekrSHTFwd_32f_C1I(), with three value planes and three coefficient vectors.
 *
 * @param pX      direction x components
 * @param pY      direction y components
 * @param pZ      direction z components
 * @param pVal    three planes of sample values
 * @param count   number of directions
 * @param pCoeffs in/out: three coefficient vectors
 * @param order   highest band
 * @param pState  an initialised state
 * @retval vekStatusOk          done (also for a negative count)
 * @retval vekStatusNullPtr     any pointer, including those in pVal and pCoeffs, is null
 * @retval vekStatusBadSize     count is 0
 * @retval vekStatusBadArgument order above the state's order or above 15
 */
VEKR_API VekStatus vekrSHTFwd_32f_P3I(const float* pX, const float* pY, const float* pZ,
                                      const float* const pVal[3], int count, float* pCoeffs[3], uint32_t order,
                                      const VekrSHState* pState);

/**
 * @brief Inverse transform, one channel.
 *
 * For each direction, the single-precision dot product of the basis (bands
 * 0..order) with the coefficient vector, into pDst[i]. A negative count does
 * nothing.
 *
 * @param pCoeffs coefficient vector, (order+1)^2 floats
 * @param order   highest band
 * @param pX      direction x components
 * @param pY      direction y components
 * @param pZ      direction z components
 * @param pDst    out: one value per direction
 * @param count   number of directions
 * @param pState  an initialised state
 * @retval vekStatusOk          done (also for a negative count)
 * @retval vekStatusNullPtr     any pointer is null
 * @retval vekStatusBadSize     count is 0
 * @retval vekStatusBadArgument order above the state's order or above 15
 */
VEKR_API VekStatus vekrSHTInv_32f_C1(const float* pCoeffs, uint32_t order, const float* pX, const float* pY,
                                     const float* pZ, float* pDst, int count, const VekrSHState* pState);

/**
 * @brief Inverse transform of three coefficient vectors into three planes.
 *
 * As vekrSHTInv_32f_C1(), channel c into pDst[c][i].
 *
 * @param pCoeffs three coefficient vectors
 * @param order   highest band
 * @param pX      direction x components
 * @param pY      direction y components
 * @param pZ      direction z components
 * @param pDst    out: three destination planes
 * @param count   number of directions
 * @param pState  an initialised state
 * @retval vekStatusOk          done (also for a negative count)
 * @retval vekStatusNullPtr     any pointer, including those in pCoeffs and pDst, is null
 * @retval vekStatusBadSize     count is 0
 * @retval vekStatusBadArgument order above the state's order or above 15
 */
VEKR_API VekStatus vekrSHTInv_32f_P3(const float* const pCoeffs[3], uint32_t order, const float* pX,
                                     const float* pY, const float* pZ, float* pDst[3], int count,
                                     const VekrSHState* pState);

/**
 * @brief Inverse transform of three coefficient vectors into interleaved results.
 *
 * As vekrSHTInv_32f_C1(), channel c into pDst[3*i + c].
 *
 * @param pCoeffs three coefficient vectors
 * @param order   highest band
 * @param pX      direction x components
 * @param pY      direction y components
 * @param pZ      direction z components
 * @param pDst    out: 3*count interleaved values
 * @param count   number of directions
 * @param pState  an initialised state
 * @retval vekStatusOk          done (also for a negative count)
 * @retval vekStatusNullPtr     any pointer, including those in pCoeffs, is null
 * @retval vekStatusBadSize     count is 0
 * @retval vekStatusBadArgument order above the state's order or above 15
 */
VEKR_API VekStatus vekrSHTInv_32f_P3C3(const float* const pCoeffs[3], uint32_t order, const float* pX,
                                       const float* pY, const float* pZ, float* pDst, int count,
                                       const VekrSHState* pState);

/** @} */

/* ------------------------------------------------------------------------ */
/* Volume processing                                                         */
/* ------------------------------------------------------------------------ */

/** @name Volume processing
 * One-channel volumes in two layouts. C1V: one block; voxel (x, y, z) at
 * base + z * planeStep + y * step + x * elementSize (steps in bytes). C1PV:
 * an array of plane pointers; voxel (x, y, z) at
 * plane[z] + y * step + x * elementSize. Regions (VekrCuboid) need x, y,
 * z >= 0 and width, height, depth >= 1. Interpolation codes: vekrInterNearest,
 * vekrInterLinear, vekrInterCubic to vekrInterCubicB05C03. */
/** @{ */

/**
 * @brief The destination region a resize of srcVoi would write.
 *
 * Per axis start = max(trunc(x * factor + shift + 0.4999999999), 0) and
 * end = max(trunc((x + width) * factor + shift + 0.5000000001), 0).
 *
 * @param srcVoi        source region
 * @param pDstVoi       out: the destination region
 * @param xFactor       resize factor along x
 * @param yFactor       resize factor along y
 * @param zFactor       resize factor along z
 * @param xShift        shift along x in destination voxels
 * @param yShift        shift along y in destination voxels
 * @param zShift        shift along z in destination voxels
 * @param interpolation interpolation code
 * @retval vekStatusOk                *pDstVoi is written
 * @retval vekStatusNullPtr           pDstVoi is null
 * @retval vekStatusBadSize           srcVoi x, y or z below 0, or an extent below 1; or, after
 *                                   the other checks, a non-empty region whose end lies beyond
 *                                   INT_MAX on some axis (it cannot be described by a VekrCuboid)
 * @retval vekStatusBadResizeFactor   a factor not above 0
 * @retval vekStatusBadInterpolation  an unsupported interpolation code
 * @retval vekStatusNoOperation       the region is empty; *pDstVoi is not written
 */
VEKR_API VekStatus vekrGetResizeCuboid(VekrCuboid srcVoi, VekrCuboid* pDstVoi, double xFactor, double yFactor,
                                       double zFactor, double xShift, double yShift, double zShift,
                                       int interpolation);

/**
 * @brief Work-buffer bytes for a resize into dstVoi.
 *
 * The size is per thread times the current thread count (ownGetNumThreads());
 * size the buffer with the thread count the resize will run with.
 *
 * @param srcVoi        source region
 * @param dstVoi        destination region
 * @param nChannel      channels: 1
 * @param interpolation interpolation code
 * @param pSize         out: the size in bytes
 * @retval vekStatusOk                *pSize is written
 * @retval vekStatusNullPtr           pSize is null
 * @retval vekStatusBadSize           a corner of srcVoi then dstVoi below 0, or an extent below 1;
 *                                   or, after the interpolation check, a size above INT_MAX
 *                                   (a large destination region or thread count): the size is
 *                                   never reported wrapped, and *pSize is not written
 * @retval vekStatusBadNumChannels    nChannel is not 1
 * @retval vekStatusBadInterpolation  an unsupported interpolation code
 */
VEKR_API VekStatus vekrResizeGetBufSize(VekrCuboid srcVoi, VekrCuboid dstVoi, int nChannel, int interpolation,
                                        int* pSize);

/**
 * @brief Resize of a one-channel 8-bit block volume (C1V).
 *
 * Resizes srcVoi by the factors, with shifts in destination voxels, into the
 * part of dstVoi it maps to, with interpolation 1 (nearest), 2 (linear) or
 * 4 to 7 (cubic kernels). A destination voxel i samples the source at
 * (i + 0.5) / factor - shift / factor; taps outside the source region repeat
 * its edge voxels. 8u and 16u results are rounded and clamped. Only the
 * destination region (see vekrGetResizeCuboid(), further limited to dstVoi)
 * is written. A srcVoi running past the volume is cut back to it.
 *
 * Vector path: pSrc and pDst 16-byte aligned, all four steps multiples of
 * 16 and the destination region's width a multiple of 4.
 * Threads: only vekrResize_32f_C1V() splits regions of at least 16 voxels in
 * every axis between ownGetNumThreads() threads.
 *
 * @param pSrc          source volume
 * @param srcVolume     size of the source volume
 * @param srcStep       source row step in bytes
 * @param srcPlaneStep  source plane step in bytes
 * @param srcVoi        source region
 * @param pDst          destination volume
 * @param dstStep       destination row step in bytes
 * @param dstPlaneStep  destination plane step in bytes
 * @param dstVoi        destination region
 * @param xFactor       resize factor along x
 * @param yFactor       resize factor along y
 * @param zFactor       resize factor along z
 * @param xShift        shift along x in destination voxels
 * @param yShift        shift along y in destination voxels
 * @param zShift        shift along z in destination voxels
 * @param interpolation interpolation code
 * @param pBuffer       work buffer of vekrResizeGetBufSize() bytes
 * @retval vekStatusOk                the destination region is written
 * @retval vekStatusNullPtr           pSrc, pDst or pBuffer is null
 * @retval vekStatusBadSize           a srcVolume size below 1, or srcVoi or dstVoi invalid; or,
 *                                   after the interpolation check, a dstVoi whose work buffer
 *                                   (as vekrResizeGetBufSize() computes it: for the current
 *                                   thread count with vekrResize_32f_C1V(), for one thread
 *                                   otherwise) would exceed INT_MAX bytes
 * @retval vekStatusBadResizeFactor   a factor not above 0
 * @retval vekStatusBadInterpolation  an unsupported interpolation code
 * @retval vekStatusVoiOutsideSrc     srcVoi's corner lies outside the volume; nothing written
 * @retval vekStatusNoOperation       the destination region is empty; nothing written
 */
VEKR_API VekStatus vekrResize_8u_C1V(const uint8_t* pSrc, VekrVolume srcVolume, int srcStep, int srcPlaneStep,
                                     VekrCuboid srcVoi, uint8_t* pDst, int dstStep, int dstPlaneStep,
                                     VekrCuboid dstVoi, double xFactor, double yFactor, double zFactor,
                                     double xShift, double yShift, double zShift, int interpolation,
                                     uint8_t* pBuffer);
/** @brief Resize of a one-channel 16-bit block volume (C1V), as vekrResize_8u_C1V().
 * @copydetails vekrResize_8u_C1V */
VEKR_API VekStatus vekrResize_16u_C1V(const uint16_t* pSrc, VekrVolume srcVolume, int srcStep, int srcPlaneStep,
                                      VekrCuboid srcVoi, uint16_t* pDst, int dstStep, int dstPlaneStep,
                                      VekrCuboid dstVoi, double xFactor, double yFactor, double zFactor,
                                      double xShift, double yShift, double zShift, int interpolation,
                                      uint8_t* pBuffer);
/** @brief Resize of a one-channel float block volume (C1V), as vekrResize_8u_C1V().
 * Byte steps are rounded down to whole floats (multiples of 4). Regions of at
 * least 16 voxels in every axis are split between ownGetNumThreads() threads;
 * the result does not depend on the thread count.
 * @copydetails vekrResize_8u_C1V */
VEKR_API VekStatus vekrResize_32f_C1V(const float* pSrc, VekrVolume srcVolume, int srcStep, int srcPlaneStep,
                                      VekrCuboid srcVoi, float* pDst, int dstStep, int dstPlaneStep,
                                      VekrCuboid dstVoi, double xFactor, double yFactor, double zFactor,
                                      double xShift, double yShift, double zShift, int interpolation,
                                      uint8_t* pBuffer);

/**
 * @brief Resize of a one-channel 8-bit planar volume (C1PV).
 *
 * As vekrResize_8u_C1V(), the volumes given plane by plane; single-threaded.
 *
 * Vector path: both steps multiples of 16, every source plane the region
 * reads and every destination plane it writes 16-byte aligned, and the
 * destination region's width a multiple of 4.
 *
 * @param pSrc          source plane pointers
 * @param srcVolume     size of the source volume
 * @param srcStep       source row step in bytes
 * @param srcVoi        source region
 * @param pDst          destination plane pointers
 * @param dstStep       destination row step in bytes
 * @param dstVoi        destination region
 * @param xFactor       resize factor along x
 * @param yFactor       resize factor along y
 * @param zFactor       resize factor along z
 * @param xShift        shift along x in destination voxels
 * @param yShift        shift along y in destination voxels
 * @param zShift        shift along z in destination voxels
 * @param interpolation interpolation code
 * @param pBuffer       work buffer of vekrResizeGetBufSize() bytes
 * @retval vekStatusOk                the destination region is written
 * @retval vekStatusNullPtr           pSrc, pDst or pBuffer is null
 * @retval vekStatusBadSize           a srcVolume size below 1, or srcVoi or dstVoi invalid; or,
 *                                   after the interpolation check, a dstVoi whose work buffer
 *                                   (as vekrResizeGetBufSize() computes it: for the current
 *                                   thread count with vekrResize_32f_C1V(), for one thread
 *                                   otherwise) would exceed INT_MAX bytes
 * @retval vekStatusBadResizeFactor   a factor not above 0
 * @retval vekStatusBadInterpolation  an unsupported interpolation code
 * @retval vekStatusVoiOutsideSrc     srcVoi's corner lies outside the volume; nothing written
 * @retval vekStatusNoOperation       the destination region is empty; nothing written
 */
VEKR_API VekStatus vekrResize_8u_C1PV(const uint8_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                      VekrCuboid srcVoi, uint8_t* const pDst[], int dstStep, VekrCuboid dstVoi,
                                      double xFactor, double yFactor, double zFactor, double xShift,
                                      double yShift, double zShift, int interpolation, uint8_t* pBuffer);
/** @brief Resize of a one-channel 16-bit planar volume (C1PV), as vekrResize_8u_C1PV().
 * @copydetails vekrResize_8u_C1PV */
VEKR_API VekStatus vekrResize_16u_C1PV(const uint16_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                       VekrCuboid srcVoi, uint16_t* const pDst[], int dstStep, VekrCuboid dstVoi,
                                       double xFactor, double yFactor, double zFactor, double xShift,
                                       double yShift, double zShift, int interpolation, uint8_t* pBuffer);
/** @brief Resize of a one-channel float planar volume (C1PV), as vekrResize_8u_C1PV().
 * @copydetails vekrResize_8u_C1PV */
VEKR_API VekStatus vekrResize_32f_C1PV(const float* const pSrc[], VekrVolume srcVolume, int srcStep,
                                       VekrCuboid srcVoi, float* const pDst[], int dstStep, VekrCuboid dstVoi,
                                       double xFactor, double yFactor, double zFactor, double xShift,
                                       double yShift, double zShift, int interpolation, uint8_t* pBuffer);

/**
 * @brief Remap of an 8-bit planar volume (C1PV) through coordinate maps.
 *
 * Every voxel (x, y, z) of the destination (the whole of dstVolume) samples
 * the source at the point held at (x, y, z) by the float maps pxMap, pyMap,
 * pzMap (one map plane per destination plane, rows mapStep bytes apart), in
 * source voxel coordinates with voxel centres on integers. Only the source
 * region srcVoi, cut back to the volume, is read; a point outside that
 * inclusive box writes nothing (the voxel keeps its value).
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
 *
 * A source smaller than 4 voxels on some axis samples cubic codes linearly;
 * smaller than 2, every code by nearest. A source one plane deep is remapped
 * in 2-D: pzMap is checked but not read, srcVoi's z and depth are not used,
 * and every destination plane is sampled from the one source plane with the
 * same rules restricted to x and y (the size lowering looks at width and
 * height only).
 *
 * Vector path: dstVolume's width a multiple of 4, dstStep and mapStep
 * multiples of 16, every destination plane and map plane 16-byte aligned, and
 * a source region (cut back to the volume) wider than one voxel, with
 * srcStep at most 32767 and its last column and row at most 32767.
 * Destinations larger than 15 voxels in every axis are split by rows between
 * ownGetNumThreads() threads; the result does not depend on the thread count.
 *
 * @param pSrc          source plane pointers
 * @param srcVolume     size of the source volume
 * @param srcStep       source row step in bytes
 * @param srcVoi        source region
 * @param pxMap         x coordinate map planes
 * @param pyMap         y coordinate map planes
 * @param pzMap         z coordinate map planes
 * @param mapStep       map row step in bytes
 * @param pDst          destination plane pointers
 * @param dstStep       destination row step in bytes
 * @param dstVolume     size of the destination volume
 * @param interpolation interpolation code
 * @retval vekStatusOk                done
 * @retval vekStatusNullPtr           pSrc or pDst, then pxMap, pyMap or pzMap is null
 * @retval vekStatusBadSize           a srcVolume size below 1, srcVoi invalid (x, width, y,
 *                                    height, z, depth in that order), or a dstVolume size below 1
 * @retval vekStatusBadInterpolation  an unsupported interpolation code
 * @retval vekStatusVoiOutsideSrc     srcVoi starts outside the source; nothing written
 */
VEKR_API VekStatus vekrRemap_8u_C1PV(const uint8_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                     VekrCuboid srcVoi, const float* const pxMap[], const float* const pyMap[],
                                     const float* const pzMap[], int mapStep, uint8_t* const pDst[], int dstStep,
                                     VekrVolume dstVolume, int interpolation);
/** @brief Remap of a 16-bit planar volume (C1PV), as vekrRemap_8u_C1PV().
 * @copydetails vekrRemap_8u_C1PV */
VEKR_API VekStatus vekrRemap_16u_C1PV(const uint16_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                      VekrCuboid srcVoi, const float* const pxMap[], const float* const pyMap[],
                                      const float* const pzMap[], int mapStep, uint16_t* const pDst[], int dstStep,
                                      VekrVolume dstVolume, int interpolation);
/** @brief Remap of a float planar volume (C1PV), as vekrRemap_8u_C1PV().
 * @copydetails vekrRemap_8u_C1PV */
VEKR_API VekStatus vekrRemap_32f_C1PV(const float* const pSrc[], VekrVolume srcVolume, int srcStep,
                                      VekrCuboid srcVoi, const float* const pxMap[], const float* const pyMap[],
                                      const float* const pzMap[], int mapStep, float* const pDst[], int dstStep,
                                      VekrVolume dstVolume, int interpolation);

/**
 * @brief Work-buffer size of the affine warp: always 0 (the warp needs none).
 *
 * @param srcVoi        source region
 * @param dstVoi        destination region
 * @param nChannel      channels: 1
 * @param interpolation interpolation code
 * @param pSize         out: 0
 * @retval vekStatusOk                *pSize is written
 * @retval vekStatusNullPtr           pSize is null
 * @retval vekStatusBadSize           srcVoi then dstVoi invalid (x, width, y, height, z, depth),
 *                                   or a dstVoi whose x + width, y + height or z + depth
 *                                   exceeds INT_MAX
 * @retval vekStatusBadNumChannels    nChannel is not 1
 * @retval vekStatusBadInterpolation  an unsupported interpolation code
 */
VEKR_API VekStatus vekrWarpAffineGetBufSize(VekrCuboid srcVoi, VekrCuboid dstVoi, int nChannel, int interpolation,
                                            int* pSize);

/**
 * @brief Affine warp of an 8-bit planar volume (C1PV).
 *
 * coeffs (3 x 4 doubles, row-major) maps a source point to a destination
 * point: x' = c00 x + c01 y + c02 z + c03 and so on. Each voxel of the
 * destination box dstVoi (not cut back; the caller provides it) at integer
 * coordinates (x, y, z) is pulled from the source point inverse(x, y, z),
 * formed in double per row and advanced by the inverse's first column per
 * voxel. A point outside the inclusive box of srcVoi cut back to the volume
 * writes nothing.
 *  - Nearest (1): coordinates rounded to nearest, ties to even, in double.
 *  - Linear (2) and cubic (4 to 7): the rules of vekrRemap_8u_C1PV(), with
 *    the fraction t = c - trunc(c) formed in double and rounded to float.
 *  - 8u and 16u linear and cubic results: trunc(sum + 0.5000001), clamped.
 *
 * A source smaller than 4 voxels on some axis warps cubic codes linearly;
 * smaller than 2, every code by nearest. A source one plane deep is warped
 * in 2-D by the in-plane map (c00 c01 c03; c10 c11 c13) into the rectangle
 * of dstVoi in each of its planes; srcVoi's z and depth are not used, and a
 * 2 x 2 determinant within 1e-10 of zero gives vekStatusSingularTransform.
 *
 * Vector path: dstVoi's width a multiple of 4, dstStep a multiple of 16, the
 * first voxel of the box in every destination plane 16-byte aligned, and a
 * source region (cut back to the volume) wider than one voxel, with srcStep
 * at most 32767 and its last column and row at most 32767. Boxes larger than 15 voxels in every axis are split by
 * rows between ownGetNumThreads() threads; the result does not depend on the
 * thread count.
 *
 * @param pSrc          source plane pointers
 * @param srcVolume     size of the source volume
 * @param srcStep       source row step in bytes
 * @param srcVoi        source region
 * @param pDst          destination plane pointers (dstVoi is addressed in them)
 * @param dstStep       destination row step in bytes
 * @param dstVoi        destination box
 * @param coeffs        the forward map, 3 x 4 (not checked)
 * @param interpolation interpolation code
 * @param pBuffer       not used (not checked)
 * @retval vekStatusOk                 done
 * @retval vekStatusNullPtr            pSrc or pDst is null
 * @retval vekStatusBadSize            a srcVolume size below 1, or srcVoi or dstVoi invalid
 *                                     (including a dstVoi whose x + width, y + height or
 *                                     z + depth exceeds INT_MAX)
 * @retval vekStatusSingularTransform  a degenerate matrix (diagonal all within 1e-100 of
 *                                     zero, or the three relative minors of the lower rows all
 *                                     within 1e-10), checked before the interpolation code; or,
 *                                     after the region test, a 3 x 3 (2-D: 2 x 2) determinant
 *                                     within 1e-10 of zero; nothing written
 * @retval vekStatusBadInterpolation   an unsupported interpolation code
 * @retval vekStatusVoiOutsideSrc      srcVoi starts outside the source; nothing written
 */
VEKR_API VekStatus vekrWarpAffine_8u_C1PV(const uint8_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                          VekrCuboid srcVoi, uint8_t* const pDst[], int dstStep, VekrCuboid dstVoi,
                                          const double coeffs[3][4], int interpolation, uint8_t* pBuffer);
/** @brief Affine warp of a 16-bit planar volume (C1PV), as vekrWarpAffine_8u_C1PV().
 * @copydetails vekrWarpAffine_8u_C1PV */
VEKR_API VekStatus vekrWarpAffine_16u_C1PV(const uint16_t* const pSrc[], VekrVolume srcVolume, int srcStep,
                                           VekrCuboid srcVoi, uint16_t* const pDst[], int dstStep,
                                           VekrCuboid dstVoi, const double coeffs[3][4], int interpolation,
                                           uint8_t* pBuffer);
/** @brief Affine warp of a float planar volume (C1PV), as vekrWarpAffine_8u_C1PV().
 * @copydetails vekrWarpAffine_8u_C1PV */
VEKR_API VekStatus vekrWarpAffine_32f_C1PV(const float* const pSrc[], VekrVolume srcVolume, int srcStep,
                                           VekrCuboid srcVoi, float* const pDst[], int dstStep, VekrCuboid dstVoi,
                                           const double coeffs[3][4], int interpolation, uint8_t* pBuffer);

/**
 * @brief Work-buffer size in bytes for vekrFilter_16s_C1PV().
 *
 * For the current thread count T (size buffers with the thread count the
 * filter will run with):
 * (64 * floor((W * nChannel + 15) / 16) + 32 * floor((KW + 1) / 2) * KH * KD + 32) * T
 * in unsigned 32-bit arithmetic, W the destination width, KW x KH x KD the kernel.
 *
 * @param dstVolume    size of the destination volume
 * @param kernelVolume size of the kernel
 * @param nChannel     channels: 1
 * @param pSize        out: the size in bytes
 * @retval vekStatusOk             *pSize is written
 * @retval vekStatusNullPtr        pSize is null
 * @retval vekStatusBadSize        a dstVolume or kernelVolume size below 1; or, after the
 *                                 channel check, a size above INT_MAX (destination width,
 *                                 kernel size or thread count): the size is never reported
 *                                 wrapped, and *pSize is not written
 * @retval vekStatusBadNumChannels nChannel is not 1
 */
VEKR_API VekStatus vekrFilterGetBufSize(VekrVolume dstVolume, VekrVolume kernelVolume, int nChannel, int* pSize);

/**
 * @brief 3-D convolution of a planar 16-bit signed volume.
 *
 * With a KW x KH x KD kernel of int32 coefficients (x fastest, then y, then
 * z), divided by divisor:
 *
 *     S(x, y, z) = sum over 0 <= i < KW, 0 <= j < KH, 0 <= k < KD of
 *                  kernel[k][j][i] * src(x + anchor.x - i, y + anchor.y - j, z + anchor.z - k)
 *     dst(x, y, z) = saturate16(round_half_even((float)S * (1.0f / (float)divisor)))
 *
 * so kernel[anchor.z][anchor.y][anchor.x] lies over the output voxel and the
 * kernel is applied reversed (a true convolution). src(u, v, w) is
 * pSrc[w][v * (srcStep / 2) + u], in destination coordinates: pSrc[0][0] is
 * the source voxel under destination voxel (0, 0, 0), and the caller
 * provides the neighbourhood around the destination region by pointing into
 * larger arrays (negative u, v and w included). Per axis (x shown) the
 * filter reads u from anchor.x - (KW - 1) to W - 1 + anchor.x: with
 * 0 <= anchor.x < KW, a border of KW - 1 - anchor.x voxels before the region
 * and anchor.x voxels after it. In z the border is in the plane-pointer
 * array: pSrc[-(KD - 1 - anchor.z)] ... pSrc[D - 1 + anchor.z] must be valid
 * planes. The anchor itself is not checked.
 *
 * Kernels whose coefficients all lie in [-32767, 32766] run on 16-bit
 * multiply-adds with a 32-bit sum (a sum beyond the int32 range wraps);
 * other kernels sum in double precision, which is exact while partial sums
 * stay below 2^53 (always, for kernels of fewer than 128 taps). Both give the
 * same result wherever S fits in 32 bits. The choice between the two depends
 * on the coefficients only, not on alignment. Volumes larger than 15 voxels
 * in every axis are split among
 * ownGetNumThreads() threads, each using its share of pBuffer; the result
 * does not depend on the thread count.
 *
 * @param pSrc         source plane pointers (destination coordinates, with borders)
 * @param srcStep      source row step in bytes
 * @param pDst         destination plane pointers
 * @param dstStep      destination row step in bytes
 * @param dstVolume    size of the destination region
 * @param pKernel      KW x KH x KD coefficients
 * @param kernelVolume kernel size KW, KH, KD
 * @param anchor       kernel position over the output voxel
 * @param divisor      divisor of the sums, not 0
 * @param pBuffer      work buffer of vekrFilterGetBufSize() bytes
 * @retval vekStatusOk      done
 * @retval vekStatusNullPtr pSrc, pDst or pKernel, then pBuffer is null
 * @retval vekStatusBadSize a dstVolume size below 1, then a kernelVolume size below 1,
 *                          then divisor 0; then a call whose work buffer would exceed
 *                          INT_MAX bytes (nothing is written)
 */
VEKR_API VekStatus vekrFilter_16s_C1PV(const int16_t* const* pSrc, int srcStep, int16_t* const* pDst, int dstStep,
                                       VekrVolume dstVolume, const int32_t* pKernel, VekrVolume kernelVolume,
                                       VekrPoint3D anchor, int divisor, uint8_t* pBuffer);

/** @} */

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VEKR_H */
