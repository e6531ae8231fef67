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

/* @@scene-declarations@@ */

/* ------------------------------------------------------------------------ */
/* Ray queries: casting, intersection, hit points and normals                */
/* ------------------------------------------------------------------------ */

/* @@raytrace-declarations@@ */

/* @@shading-raycast-declarations@@ */

/* ------------------------------------------------------------------------ */
/* Shading arithmetic                                                        */
/* ------------------------------------------------------------------------ */

/* @@shading-declarations@@ */

/* ------------------------------------------------------------------------ */
/* Spherical harmonics                                                       */
/* ------------------------------------------------------------------------ */

/* @@sh-declarations@@ */

/* ------------------------------------------------------------------------ */
/* Volume processing                                                         */
/* ------------------------------------------------------------------------ */

/* @@resize-declarations@@ */

/* @@remap-declarations@@ */

/* @@filter-declarations@@ */

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VEKR_H */
