// Test support for the intersection queries: a writer that lays out hand-made
// KD trees in the library's block format, a simple midpoint-split builder for
// meshes, an independent triangle test and brute-force reference searches,
// and a scene bundle (records, box, tree, context).
#ifndef VEKR_TESTS_RT_SUPPORT_H
#define VEKR_TESTS_RT_SUPPORT_H

#include <cstdint>
#include <memory>
#include <vector>

#include "mesh.h"
#include "vekr.h"

namespace rt {

// A tree as a test describes it. A leaf lists its triangles in leaf order; it
// is written packed when its indices fit the packed forms, unless forceList.
struct TNode {
    bool leaf = true;
    int axis = 0;
    float split = 0.0f;
    std::vector<int32_t> tris;
    bool forceList = false;
    std::unique_ptr<TNode> lo, hi;
};

std::unique_ptr<TNode> leaf(std::vector<int32_t> tris, bool forceList = false);
std::unique_ptr<TNode> inner(int axis, float split, std::unique_ptr<TNode> lo, std::unique_ptr<TNode> hi);

// The block: node pairs in depth-first pre-order (root slot of 16 bytes),
// then the index lists of list leaves in the same order.
std::vector<int32_t> writeTree(const TNode& root);

// Midpoint splits of the longest box axis down to leaves of at most maxLeaf
// triangles (by bounding-box overlap) or maxDepth levels; a node whose split
// would send more than half again its triangles to the children stays a leaf.
std::unique_ptr<TNode> buildMidpointTree(const vt::Mesh& mesh, int maxLeaf, int maxDepth);

// The outcome of one ray against one triangle record, computed literally from
// the record's words (independently of the library's code).
struct TriResult {
    bool inside;  // the hit lies in the triangle or on its border
    float det, t, w0, w1;
};
TriResult testTriangle(const VekrTriangleAccel& R, const float o[3], const float d[3]);

// Nearest hit over all triangles in index order under the eye-query rules
// (0 < t < limit; the first of equal t wins).
struct Hit {
    int32_t tri = -1;
    float t = 0.0f, w0 = 0.0f, w1 = 0.0f;
};
Hit bruteNearest(const std::vector<VekrTriangleAccel>& acc, const float o[3], const float d[3], float limit,
                 float minAbsDet = 0.0f);
// True when some triangle lies on the segment with 0 < t < 1.
bool bruteOccluded(const std::vector<VekrTriangleAccel>& acc, const float o[3], const float d[3]);

// Everything a query needs, owned together.
struct Scene {
    vt::Mesh mesh;
    std::vector<VekrTriangleAccel> accel;
    VekrBoundBox box{};
    std::vector<int32_t> tree;
    VekrIntersectContext ctx{};
    // Records and box from the library, the tree from `root`.
    void setMesh(const vt::Mesh& m);
    void setTree(const TNode& root);
};

}  // namespace rt

#endif  // VEKR_TESTS_RT_SUPPORT_H
