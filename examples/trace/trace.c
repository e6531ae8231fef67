/* trace: builds a scene from a small mesh (a cube) and traces a block of eye
 * rays through it with vekr, then checks what the rays hit.
 * Compiles as C99 and as C++; returns 0 when every check holds. */
#include <float.h>
#include <stdio.h>

#include "vekcore.h"
#include "vekr.h"

#define W 8 /* rays per row */
#define H 8 /* rows */

/* The cube [-1, 1]^3: eight corners, twelve triangles of four ints each
 * (three vertex indices and one unused word). */
static const float kVertices[8 * 3] = {
    -1, -1, -1,  1, -1, -1,  1, 1, -1,  -1, 1, -1,
    -1, -1,  1,  1, -1,  1,  1, 1,  1,  -1, 1,  1};
static const int kTriangles[12 * 4] = {
    0, 1, 2, 0,  0, 2, 3, 0,  /* z = -1, faces the eye */
    4, 6, 5, 0,  4, 7, 6, 0,  /* z = +1 */
    0, 4, 5, 0,  0, 5, 1, 0,  /* y = -1 */
    3, 2, 6, 0,  3, 6, 7, 0,  /* y = +1 */
    0, 3, 7, 0,  0, 7, 4, 0,  /* x = -1 */
    1, 5, 6, 0,  1, 6, 2, 0}; /* x = +1 */

int main(void) {
    const VekLibraryVersion* version = vekrGetLibVersion();
    VekrBoundBox box;
    VekrTriangleAccel* accel;
    VekrKDTreeNode* tree = NULL;
    VekrKDTreeBuildParams params;
    VekrIntersectContext context;
    int accelSize = 0, treeSize = 0, threads = 0, hits = 0, failures = 0, i;
    /* The eye 5 units in front of the cube; directions with z = 1, so a hit on
     * the face z = -1 is 4 direction lengths away. */
    const float eye[3] = {0.0f, 0.0f, -5.0f};
    const float corner[3] = {-0.4375f, -0.4375f, 1.0f};
    const float stepX[3] = {0.125f, 0.0f, 0.0f};
    const float stepY[3] = {0.0f, 0.125f, 0.0f};
    float dirX[W * H], dirY[W * H], dirZ[W * H], dist[W * H], u[W * H], v[W * H];
    int32_t triangle[W * H];
    float* const dir[3] = {dirX, dirY, dirZ};
    const float* const dirIn[3] = {dirX, dirY, dirZ};
    float* const hit[2] = {u, v};

    printf("%s %s\n", version->name, version->version);
    if (version->major != 7) return 1;
    if (vekSetNumThreads(2) != vekStatusOk || vekGetNumThreads(&threads) != vekStatusOk || threads != 2) return 1;

    /* Scene set-up: accelerator records, scene box, KD tree. */
    if (vekrTriangleAccelGetSize(&accelSize) != vekStatusOk) return 1;
    accel = (VekrTriangleAccel*)vekMalloc(accelSize * 12);
    if (!accel) return 1;
    vekrTriangleAccelInit(accel, kVertices, kTriangles, 12);
    if (vekrSetBoundBox_32f(kVertices, 8, &box) != vekStatusOk) return 1;
    params.algorithm = vekKDTreeBuildPSAH;
    params.maxDepth = 20;
    params.costBalance = 0.5f;
    params.memoryLimitMB = 64; /* working-memory budget of the build */
    params.pClipBox = NULL;
    if (vekrKDTreeBuildAlloc(&tree, kVertices, kTriangles, 8, 12, &treeSize, &params) != vekStatusOk) return 1;
    context.pBound = &box;
    context.pAccel = accel;
    context.pRootNode = tree;

    /* An 8 x 8 block of eye rays: direction (u, v) = corner + u*stepX + v*stepY,
     * no distance limit. */
    vekrCastEye_32f(corner, stepX, stepY, 0, 0, W, H, dir, W, H);
    for (i = 0; i < W * H; ++i) dist[i] = FLT_MAX;
    vekrIntersectEyeSO_32f(eye, dirIn, dist, hit, triangle, &context, W, H);

    /* The middle 4 x 4 rays meet the face z = -1 (triangles 0 and 1) at
     * distance 4; the others pass the cube and keep their limit. */
    for (i = 0; i < W * H; ++i) {
        int col = i % W, row = i / W;
        int inside = col >= 2 && col <= 5 && row >= 2 && row <= 5;
        if (inside) {
            ++hits;
            if (triangle[i] != 0 && triangle[i] != 1) ++failures;
            if (!(dist[i] > 3.9999f && dist[i] < 4.0001f)) ++failures;
        } else if (triangle[i] != -1 || dist[i] != FLT_MAX) {
            ++failures;
        }
    }
    printf("%d of %d rays hit the cube, %d unexpected results\n", hits, W * H, failures);

    vekrKDTreeFree(tree);
    vekFree(accel);
    return failures == 0 ? 0 : 1;
}
