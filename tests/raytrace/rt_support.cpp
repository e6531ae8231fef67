// Test support for the intersection queries (see rt_support.h).
#include "rt_support.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>

namespace rt {

std::unique_ptr<TNode> leaf(std::vector<int32_t> tris, bool forceList) {
    auto n = std::make_unique<TNode>();
    n->tris = std::move(tris);
    n->forceList = forceList;
    return n;
}

std::unique_ptr<TNode> inner(int axis, float split, std::unique_ptr<TNode> lo, std::unique_ptr<TNode> hi) {
    auto n = std::make_unique<TNode>();
    n->leaf = false;
    n->axis = axis;
    n->split = split;
    n->lo = std::move(lo);
    n->hi = std::move(hi);
    return n;
}

namespace {

struct Writer {
    std::vector<int32_t> words;  // 8 bytes per node: two words
    struct PendingList {
        std::size_t nodeWord;
        const std::vector<int32_t>* tris;
    };
    std::vector<PendingList> lists;

    std::size_t reservePair() {
        std::size_t at = words.size();
        words.resize(at + 4, 0);
        return at;
    }

    // Packs one to three indices into the node when they fit.
    static bool pack(const std::vector<int32_t>& t, uint32_t& link, uint32_t& value) {
        if (t.size() == 1 && t[0] >= 0) {
            link = 0x80000000u | uint32_t(t[0]);
            value = 0x80000001u;
            return true;
        }
        if (t.size() == 2 && t[0] >= 0 && t[1] >= 0 && (t[0] < (1 << 29) || t[1] < (1 << 29))) {
            int32_t a = t[0], b = t[1];
            if (a >= (1 << 29)) std::swap(a, b);
            value = 0x80000002u | (uint32_t(a) << 2);
            link = 0x80000000u | uint32_t(b);
            return true;
        }
        if (t.size() == 3) {
            std::vector<int32_t> s = t;
            std::sort(s.begin(), s.end());
            if (s[0] >= 0 && s[1] < (1 << 29) && s[1] - s[0] < 32768 && s[2] - s[1] < 65536) {
                value = 0x80000003u | (uint32_t(s[1]) << 2);
                link = 0x80000000u | (uint32_t(s[1] - s[0]) << 16) | uint32_t(s[2] - s[1]);
                return true;
            }
        }
        return false;
    }

    void write(const TNode& n, std::size_t at) {
        if (n.leaf) {
            uint32_t link = 0, value = 0;
            if (!n.forceList && pack(n.tris, link, value)) {
                words[at] = int32_t(link);
                words[at + 1] = int32_t(value);
            } else {
                words[at + 1] = int32_t(n.tris.size());
                lists.push_back({at, &n.tris});
            }
            return;
        }
        const std::size_t pair = reservePair();
        words[at] = int32_t(uint32_t((pair - at) * 4) | uint32_t(n.axis));
        uint32_t sb;
        std::memcpy(&sb, &n.split, 4);
        words[at + 1] = int32_t(sb);
        write(*n.lo, pair);
        write(*n.hi, pair + 2);
    }
};

}  // namespace

std::vector<int32_t> writeTree(const TNode& root) {
    Writer w;
    w.words.assign(4, 0);  // the root's 16-byte slot
    w.write(root, 0);
    for (const auto& l : w.lists) {
        const std::size_t listWord = w.words.size();
        w.words.insert(w.words.end(), l.tris->begin(), l.tris->end());
        // link = node address - list address (negative), bit 31 set by that.
        w.words[l.nodeWord] = int32_t((int64_t(l.nodeWord) - int64_t(listWord)) * 4);
    }
    return w.words;
}

namespace {

struct Box3 {
    float lo[3], hi[3];
};

std::unique_ptr<TNode> buildRec(const vt::Mesh& m, const std::vector<Box3>& tb, std::vector<int32_t> tris,
                                const Box3& box, int depth, int maxLeaf, int maxDepth) {
    if (int(tris.size()) <= maxLeaf || depth >= maxDepth) return leaf(std::move(tris));
    int axis = 0;
    for (int a = 1; a < 3; ++a)
        if (box.hi[a] - box.lo[a] > box.hi[axis] - box.lo[axis]) axis = a;
    const float split = 0.5f * (box.lo[axis] + box.hi[axis]);
    std::vector<int32_t> lo, hi;
    for (int32_t t : tris) {
        if (tb[t].lo[axis] <= split) lo.push_back(t);
        if (tb[t].hi[axis] >= split) hi.push_back(t);
    }
    // Stop where a split would mostly duplicate the triangles.
    if (2 * (lo.size() + hi.size()) > 3 * tris.size()) return leaf(std::move(tris));
    Box3 bl = box, bh = box;
    bl.hi[axis] = split;
    bh.lo[axis] = split;
    return inner(axis, split, buildRec(m, tb, std::move(lo), bl, depth + 1, maxLeaf, maxDepth),
                 buildRec(m, tb, std::move(hi), bh, depth + 1, maxLeaf, maxDepth));
}

}  // namespace

std::unique_ptr<TNode> buildMidpointTree(const vt::Mesh& mesh, int maxLeaf, int maxDepth) {
    std::vector<Box3> tb(mesh.numTriangles());
    Box3 all;
    for (int a = 0; a < 3; ++a) {
        all.lo[a] = FLT_MAX;
        all.hi[a] = -FLT_MAX;
    }
    std::vector<int32_t> tris;
    for (int t = 0; t < mesh.numTriangles(); ++t) {
        Box3& b = tb[t];
        for (int a = 0; a < 3; ++a) {
            b.lo[a] = FLT_MAX;
            b.hi[a] = -FLT_MAX;
        }
        for (int c = 0; c < 3; ++c) {
            const float* v = &mesh.vertices[3 * mesh.triangles[4 * t + c]];
            for (int a = 0; a < 3; ++a) {
                b.lo[a] = std::min(b.lo[a], v[a]);
                b.hi[a] = std::max(b.hi[a], v[a]);
            }
        }
        for (int a = 0; a < 3; ++a) {
            all.lo[a] = std::min(all.lo[a], b.lo[a]);
            all.hi[a] = std::max(all.hi[a], b.hi[a]);
        }
        tris.push_back(t);
    }
    return buildRec(mesh, tb, std::move(tris), all, 0, maxLeaf, maxDepth);
}

TriResult testTriangle(const VekrTriangleAccel& R, const float o[3], const float d[3]) {
    // Axes of the projection: k dominant, (u, v) the other two.
    const int k = (R.axisCode >> 4) & 3, u = (R.axisCode >> 2) & 3, v = R.axisCode & 3;
    float det = R.normalU * d[u];
    det = det + R.normalV * d[v];
    det = det + d[k];
    const float pu = R.vertexU - o[u];
    const float pv = R.vertexV - o[v];
    float num = R.vertexK + R.normalU * pu;
    num = num + R.normalV * pv;
    num = num - o[k];
    const float qu = d[u] * num - pu * det;
    const float qv = d[v] * num - pv * det;
    const float b = R.edge2V * qu - R.edge2U * qv;
    const float g = R.edge1U * qv - R.edge1V * qu;
    const float a = (det - b) - g;
    TriResult r;
    r.inside = b * a >= 0.0f && b * g >= 0.0f && a * g >= 0.0f;
    r.det = det;
    r.t = num / det;
    r.w0 = b / det;
    r.w1 = g / det;
    return r;
}

Hit bruteNearest(const std::vector<VekrTriangleAccel>& acc, const float o[3], const float d[3], float limit,
                 float minAbsDet) {
    Hit h;
    float best = limit;
    for (std::size_t j = 0; j < acc.size(); ++j) {
        if (acc[j].axisCode == 0) continue;
        const TriResult r = testTriangle(acc[j], o, d);
        if (std::fabs(r.det) < minAbsDet) continue;
        if (r.inside && best > r.t && r.t > 0.0f) {
            best = r.t;
            h.tri = int32_t(j);
            h.t = r.t;
            h.w0 = r.w0;
            h.w1 = r.w1;
        }
    }
    return h;
}

bool bruteOccluded(const std::vector<VekrTriangleAccel>& acc, const float o[3], const float d[3]) {
    for (const auto& R : acc) {
        if (R.axisCode == 0) continue;
        const TriResult r = testTriangle(R, o, d);
        if (r.inside && 1.0f > r.t && r.t > 0.0f) return true;
    }
    return false;
}

void Scene::setMesh(const vt::Mesh& m) {
    mesh = m;
    accel.assign(std::max(1, m.numTriangles()), VekrTriangleAccel{});
    vekrTriangleAccelInit(accel.data(), mesh.vertices.data(), mesh.triangles.data(), m.numTriangles());
    accel.resize(m.numTriangles());
    vekrSetBoundBox_32f(mesh.vertices.data(), m.numVertices(), &box);
    ctx.pBound = &box;
    ctx.pAccel = accel.data();
}

void Scene::setTree(const TNode& root) {
    tree = writeTree(root);
    ctx.pRootNode = reinterpret_cast<const VekrKDTreeNode*>(tree.data());
}

}  // namespace rt
