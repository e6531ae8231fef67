// Test support for the intersection queries: a writer that lays out hand-made
// KD trees in the library's block format, an independent triangle test and
// brute-force searches, a scene bundle, and one runner for all four queries
// (any block of rays, arrays at any offset from a 16-byte boundary), with a
// single-ray form that proves the per-ray and the packet path agree.
#ifndef VEKR_TESTS_RT_SUPPORT_H
#define VEKR_TESTS_RT_SUPPORT_H

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "kdtree_view.h"
#include "mesh.h"
#include "testutil.h"
#include "vekr.h"

namespace rt {

// ---------------------------------------------------------------------------
// Trees
// ---------------------------------------------------------------------------

// A tree as a test describes it. A leaf lists its triangles in leaf order; it
// is written packed when its indices fit the packed forms, unless forceList.
struct TNode {
    bool leaf = true, forceList = false;
    int axis = 0;
    float split = 0.0f;
    std::vector<int32_t> tris;
    std::unique_ptr<TNode> lo, hi;
};
using Node = std::unique_ptr<TNode>;

inline Node leaf(std::vector<int32_t> tris, bool forceList = false) {
    Node n(new TNode);
    n->tris = std::move(tris);
    n->forceList = forceList;
    return n;
}

inline Node inner(int axis, float split, Node lo, Node hi) {
    Node n(new TNode);
    n->leaf = false;
    n->axis = axis;
    n->split = split;
    n->lo = std::move(lo);
    n->hi = std::move(hi);
    return n;
}

// The block: node pairs in depth-first pre-order after the root's 16-byte
// slot, then the index lists of list leaves in the same order.
inline std::vector<int32_t> writeTree(const TNode& root) {
    std::vector<int32_t> w(4, 0);
    std::vector<std::pair<std::size_t, const std::vector<int32_t>*>> lists;
    std::function<void(const TNode&, std::size_t)> put = [&](const TNode& n, std::size_t at) {
        if (!n.leaf) {
            const std::size_t pair = w.size();
            w.resize(pair + 4, 0);
            w[at] = int32_t(uint32_t((pair - at) * 4) | uint32_t(n.axis));
            std::memcpy(&w[at + 1], &n.split, 4);
            put(*n.lo, pair);
            put(*n.hi, pair + 2);
            return;
        }
        const std::vector<int32_t>& t = n.tris;
        uint32_t link, value;
        if (n.forceList || !vt::KDTreeView::fitsPacked(t)) {
            w[at + 1] = int32_t(t.size());
            lists.push_back({at, &t});
            return;
        }
        if (t.size() == 1) {
            link = 0x80000000u | uint32_t(t[0]);
            value = 0x80000001u;
        } else if (t.size() == 2) {
            const bool swap = t[0] >= (1 << 29);  // the index in value must fit 29 bits
            value = 0x80000002u | (uint32_t(t[swap]) << 2);
            link = 0x80000000u | uint32_t(t[!swap]);
        } else {
            std::vector<int32_t> s = t;
            std::sort(s.begin(), s.end());
            value = 0x80000003u | (uint32_t(s[1]) << 2);
            link = 0x80000000u | (uint32_t(s[1] - s[0]) << 16) | uint32_t(s[2] - s[1]);
        }
        w[at] = int32_t(link);
        w[at + 1] = int32_t(value);
    };
    put(root, 0);
    for (const auto& l : lists) {
        // link = node address - list address (negative: bit 31 set).
        w[l.first] = int32_t((int64_t(l.first) - int64_t(w.size())) * 4);
        w.insert(w.end(), l.second->begin(), l.second->end());
    }
    return w;
}

// ---------------------------------------------------------------------------
// Reference searches
// ---------------------------------------------------------------------------

// The outcome of one ray against one triangle record, computed literally from
// the record's words (independently of the library's code).
struct TriResult {
    bool inside;  // the hit lies in the triangle or on its border
    float det, t, w0, w1;
};
inline TriResult testTriangle(const VekrTriangleAccel& R, const float o[3], const float d[3]) {
    const int k = (R.axisCode >> 4) & 3, u = (R.axisCode >> 2) & 3, v = R.axisCode & 3;
    const float det = (R.normalU * d[u] + R.normalV * d[v]) + d[k];
    const float pu = R.vertexU - o[u], pv = R.vertexV - o[v];
    const float num = ((R.vertexK + R.normalU * pu) + R.normalV * pv) - o[k];
    const float qu = d[u] * num - pu * det, qv = d[v] * num - pv * det;
    const float b = R.edge2V * qu - R.edge2U * qv, g = R.edge1U * qv - R.edge1V * qu, a = (det - b) - g;
    return {b * a >= 0.0f && b * g >= 0.0f && a * g >= 0.0f, det, num / det, b / det, g / det};
}

// Nearest hit over all triangles in index order (0 < t < limit; the first of
// equal t wins), skipping |det| below minAbsDet; tri -1 when none.
struct Hit {
    int32_t tri = -1;
    float t = 0.0f;
};
inline Hit bruteNearest(const std::vector<VekrTriangleAccel>& acc, const float o[3], const float d[3], float limit,
                        float minAbsDet = 0.0f) {
    Hit h;
    for (std::size_t j = 0; j < acc.size(); ++j) {
        const TriResult r = testTriangle(acc[j], o, d);
        if (acc[j].axisCode != 0 && std::fabs(r.det) >= minAbsDet && r.inside && limit > r.t && r.t > 0.0f)
            limit = r.t, h = {int32_t(j), r.t};
    }
    return h;
}

// ---------------------------------------------------------------------------
// Scenes and the query runner
// ---------------------------------------------------------------------------

// Everything a query needs, owned together: records and box from the
// library, the tree from a TNode (or copied from a library block).
struct Scene {
    vt::Mesh mesh;
    std::vector<VekrTriangleAccel> accel;
    VekrBoundBox box{};
    std::vector<int32_t> tree;
    bool withBox = true;
    void setMesh(const vt::Mesh& m) {
        mesh = m;
        accel.assign(std::max(1, m.numTriangles()), VekrTriangleAccel{});
        vekrTriangleAccelInit(accel.data(), mesh.vertices.data(), mesh.triangles.data(), m.numTriangles());
        accel.resize(m.numTriangles());
        vekrSetBoundBox_32f(mesh.vertices.data(), m.numVertices(), &box);
    }
    void setTree(const Node& root) { tree = writeTree(*root); }
    VekrIntersectContext ctx() const {
        return {withBox ? &box : nullptr, accel.data(), reinterpret_cast<const VekrKDTreeNode*>(tree.data())};
    }
};

enum class Q { Eye, PerOrigin, Multiple, Any };

// Value that outputs hold before a call, to show what a call left alone.
constexpr float kCanary = -7.25f;

// A block of rays: per-ray origins (the single-origin queries use ray 0's).
struct Rays {
    int w = 0, h = 0;
    std::vector<float> o[3], d[3];
    Rays(int width, int height) : w(width), h(height) {
        for (int a = 0; a < 3; ++a) o[a].assign(w * h, 0.0f), d[a].assign(w * h, 0.0f);
    }
    int n() const { return w * h; }
    void set(int i, const float* org, const float* dir) {
        for (int a = 0; a < 3; ++a) o[a][i] = org[a], d[a][i] = dir[a];
    }
};

// The outputs of one call; the multiple-hit query stores level l of ray i at
// l * n + i. `mask` is the any-hit query's mask array.
struct Out {
    std::vector<float> dist, w0, w1;
    std::vector<int32_t> tri, mask;
    std::vector<std::uint8_t> bytes() const {
        std::vector<std::uint8_t> b;
        for (const std::vector<float>* v : {&dist, &w0, &w1}) vt::appendBytes(b, v->data(), v->size());
        for (const std::vector<int32_t>* v : {&tri, &mask}) vt::appendBytes(b, v->data(), v->size());
        return b;
    }
};

// Runs query q on the block with every array `off` bytes past a 16-byte
// boundary. Level-0 distances start as limit(i), deeper levels and weights as
// kCanary, triangles as 12345; masks as mask(i).
template <class Limit, class Mask>
Out run(Q q, const Scene& s, const Rays& r, Limit limit, Mask mask, int depth = 1, std::size_t off = 0) {
    const int n = r.n(), m = q == Q::Multiple ? n * depth : n;
    vt::Planes<float> org(n, off), dir(n, off);
    vt::Buf<float> dist(m, off), h0(m, off), h1(m, off);
    vt::Buf<int32_t> tri(m, off), msk(n, off);
    for (int i = 0; i < m; ++i) dist[i] = i < n ? limit(i) : kCanary, h0[i] = h1[i] = kCanary, tri[i] = 12345;
    for (int i = 0; i < n; ++i) {
        msk[i] = mask(i);
        for (int a = 0; a < 3; ++a) org.p[a][i] = r.o[a][i], dir.p[a][i] = r.d[a][i];
    }
    const float o0[3] = {r.o[0][0], r.o[1][0], r.o[2][0]};
    float* hit[2] = {h0.data(), h1.data()};
    const VekrIntersectContext c = s.ctx();
    if (q == Q::Eye) vekrIntersectEyeSO_32f(o0, dir.cptrs(), dist.data(), hit, tri.data(), &c, r.w, r.h);
    if (q == Q::PerOrigin) vekrIntersectMO_32f(org.cptrs(), dir.cptrs(), dist.data(), hit, tri.data(), &c, r.w, r.h);
    if (q == Q::Multiple)
        vekrIntersectMultipleSO_32f(o0, dir.cptrs(), dist.data(), hit, tri.data(), r.w, r.h, depth, &c);
    if (q == Q::Any) vekrIntersectAnySO_32f(o0, dir.cptrs(), tri.data(), msk.data(), r.w, r.h, &c);
    if (q != Q::Any) return {dist.vec(), h0.vec(), h1.vec(), tri.vec(), {}};
    return {{}, {}, {}, tri.vec(), msk.vec()};
}

// One ray through query q twice: alone, as a 1x1 block (the per-ray path),
// and as all sixteen rays of an aligned 4x4 block (the packet path). Every
// one of the sixteen results must equal the single one bit for bit; the
// single result is returned (levels 0 .. depth-1 for the multiple-hit query).
inline Out one(Q q, const Scene& s, const float o[3], const float d[3], float limit = 100.0f, int depth = 1,
               int32_t mask = 0) {
    Out res[2];
    for (int w : {1, 4}) {
        Rays r(w, w);
        for (int i = 0; i < w * w; ++i) r.set(i, o, d);
        const Out out = run(q, s, r, [&](int) { return limit; }, [&](int) { return mask; }, depth);
        Out& per = res[w == 4];
        for (int i = 0; i < w * w; ++i) {
            Out ray;
            for (std::size_t k = i; k < out.tri.size(); k += w * w) {
                ray.tri.push_back(out.tri[k]);
                if (q == Q::Any) continue;
                ray.dist.push_back(out.dist[k]), ray.w0.push_back(out.w0[k]), ray.w1.push_back(out.w1[k]);
            }
            if (q == Q::Any) ray.mask.push_back(out.mask[i]);
            if (i == 0) per = ray;
            if (ray.bytes() != per.bytes()) ADD_FAILURE() << "ray " << i << " of the " << w << "x" << w << " block";
        }
    }
    if (res[0].bytes() != res[1].bytes()) ADD_FAILURE() << "packet path differs from per-ray path";
    return res[0];
}

}  // namespace rt

#endif  // VEKR_TESTS_RT_SUPPORT_H
