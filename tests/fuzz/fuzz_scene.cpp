// Fuzz harness for scene acceleration and the ray queries: a small fuzzed
// mesh (hostile coordinates, degenerate and repeated triangles) goes through
// the scene box, the accelerator records and a KD build with fuzzed
// parameters, budgets and clip boxes; a successful build is then searched by
// all four intersection queries with fuzzed rays. The queries trust their
// caller, so they get the library's own box, records and tree; every other
// entry gets hostile counts and null pointers as well. Outputs sit against
// guard pages with canaries; a failing call must write nothing.
#include <vector>

#include "fuzz_util.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

using fz::Guarded;
using fz::Place;
using fz::Reader;

struct Mesh {
    int numVertices = 0, numTriangles = 0;
    std::vector<float> vertices;     // x, y, z per vertex
    std::vector<std::int32_t> tris;  // four words per triangle
};

Mesh makeMesh(Reader& r) {
    Mesh m;
    m.numVertices = r.range(1, 24);
    m.numTriangles = r.range(0, 48);
    m.vertices.resize(static_cast<std::size_t>(3 * m.numVertices));
    for (float& v : m.vertices) v = r.f32();
    m.tris.resize(static_cast<std::size_t>(4 * m.numTriangles));
    bool copies = r.u8() < 24;  // one triangle repeated
    for (int t = 0; t < m.numTriangles; ++t) {
        for (int k = 0; k < 3; ++k)
            m.tris[static_cast<std::size_t>(4 * t + k)] = copies && t > 0 ? m.tris[static_cast<std::size_t>(k)]
                                                                           : r.u8() % m.numVertices;
        m.tris[static_cast<std::size_t>(4 * t + 3)] = static_cast<std::int32_t>(0xDEADBEEF);
    }
    return m;
}

template <class T>
void fill(Guarded<T>& g, const std::vector<T>& v) {
    if (!v.empty()) std::memcpy(g.data(), v.data(), v.size() * sizeof(T));
}

// The scene box: a null vertex pointer is refused before anything is written;
// hostile counts leave an inverted box.
VekrBoundBox checkBoundBox(Reader& r, const Mesh& m, const Guarded<float>& verts) {
    VekrBoundBox box;
    std::memset(&box, 0x5A, sizeof(box));
    VekrBoundBox before = box;
    if (r.u8() < 16) {
        FUZZ_CHECK(vekrSetBoundBox_32f(nullptr, m.numVertices, &box) == vekStatusNullPtr, "null vertices");
        FUZZ_CHECK(std::memcmp(&box, &before, sizeof(box)) == 0, "box written on error");
    }
    int hostile = r.count(m.numVertices);
    if (hostile < 1) {
        FUZZ_CHECK(vekrSetBoundBox_32f(verts.data(), hostile, &box) == vekStatusOk, "box of %d", hostile);
    }
    FUZZ_CHECK(vekrSetBoundBox_32f(verts.data(), m.numVertices, &box) == vekStatusOk, "box");
    return box;
}

void checkAccel(Reader& r, const Mesh& m, const Guarded<float>& verts, const Guarded<std::int32_t>& tris,
                Guarded<VekrTriangleAccel>& accel) {
    int size = 0;
    FUZZ_CHECK(vekrTriangleAccelGetSize(&size) == vekStatusOk && size == 40, "record size %d", size);
    FUZZ_CHECK(vekrTriangleAccelGetSize(nullptr) == vekStatusNullPtr, "null size");
    int hostile = r.count(0);
    if (hostile < 1) {
        auto before = fz::snapshot(accel.data(), accel.size());
        FUZZ_CHECK(vekrTriangleAccelInit(accel.data(), verts.data(), tris.data(), hostile) == vekStatusOk,
                   "accel init of %d", hostile);
        FUZZ_CHECK(fz::unchanged(accel.data(), before), "accel init of %d wrote records", hostile);
    }
    FUZZ_CHECK(vekrTriangleAccelInit(accel.data(), verts.data(), tris.data(), m.numTriangles) == vekStatusOk,
               "accel init");
    FUZZ_CHECK(accel.canariesIntact(), "accel init wrote outside its records");
}

// Build with fuzzed parameters; returns the tree or null. Checks the status
// against the parameter checks and that nothing is written on failure.
VekrKDTreeNode* build(Reader& r, const Mesh& m, const Guarded<float>& verts, const Guarded<std::int32_t>& tris,
                      VekrBoundBox* clip) {
    static const std::uint32_t kAlgorithms[] = {vekKDTreeBuildPSAH, vekKDTreeBuildPSAH, vekKDTreeBuildSimple,
                                                0u, 0x2D07705Cu};
    static const std::uint32_t kBudgets[] = {33, 33, 34, 40, 0, 1, 31, 32, 8192, 8225, 0xFFFFFFFFu};
    static const float kBalance[] = {0.0f, 0.5f, 1.0f, 0.25f, -0.0f, -0.1f, 1.5f, NAN, INFINITY, 0.9999f};
    VekrKDTreeBuildParams params;
    params.algorithm = r.pick(kAlgorithms);
    params.maxDepth = r.u8() < 200 ? r.range(0, 20) : r.range(-3, 53);
    params.costBalance = r.u8() < 200 ? r.pick(kBalance) : r.f32();
    params.memoryLimitMB = r.pick(kBudgets);
    params.pClipBox = r.u8() < 40 ? clip : nullptr;
    int numVertices = m.numVertices, numTriangles = m.numTriangles;
    int nullArg = r.u8() < 20 ? r.range(0, 4) : -1;
    if (r.u8() < 20) numVertices = r.count(0);
    if (r.u8() < 20) numTriangles = r.count(0);

    VekrKDTreeNode* tree = reinterpret_cast<VekrKDTreeNode*>(std::uintptr_t(0x1234));
    int size = -77;
    VekStatus st = vekrKDTreeBuildAlloc(nullArg == 0 ? nullptr : &tree, nullArg == 1 ? nullptr : verts.data(),
                                        nullArg == 2 ? nullptr : tris.data(), numVertices, numTriangles,
                                        nullArg == 3 ? nullptr : &size, nullArg == 4 ? nullptr : &params);
    // The checks in their order: the four pointers, the counts, the record.
    VekStatus expect = vekStatusOk;
    bool budgetLow = ((params.memoryLimitMB << 19) & 0xFFFFFFFFu) < (1u << 24);
    if (nullArg >= 0 && nullArg <= 3) expect = vekStatusNullPtr;
    else if (numVertices < 0 || numTriangles < 0) expect = vekStatusBadSize;
    else if (nullArg == 4) expect = vekStatusNullPtr;
    else if (params.algorithm != vekKDTreeBuildSimple && params.algorithm != vekKDTreeBuildPSAH)
        expect = vekStatusBadAlgorithm;
    else if (params.maxDepth < 0 || params.maxDepth > 50) expect = vekStatusOutOfRange;
    else if (params.algorithm == vekKDTreeBuildPSAH && (params.costBalance < 0.0f || params.costBalance > 1.0f))
        expect = vekStatusOutOfRange;
    else if (params.algorithm == vekKDTreeBuildPSAH && budgetLow) expect = vekStatusNoMemory;
    if (expect != vekStatusOk) {
        FUZZ_CHECK(st == expect, "build: status %d, expected %d", st, expect);
    } else {
        FUZZ_CHECK(st == vekStatusOk || st == vekStatusNoMemory || st == vekStatusBudgetExhausted, "build: status %d",
                   st);
    }
    if (st != vekStatusOk) {
        FUZZ_CHECK(tree == reinterpret_cast<VekrKDTreeNode*>(std::uintptr_t(0x1234)) && size == -77,
                   "failed build (%d) wrote its outputs", st);
        return nullptr;
    }
    FUZZ_CHECK(tree != nullptr && size >= 16, "tree %p size %d", static_cast<void*>(tree), size);
    // Degenerate or fully clipped scenes are not worth querying on hostile
    // counts: the tree was built for what the counts said.
    if (numVertices != m.numVertices || numTriangles != m.numTriangles) {
        vekrKDTreeFree(tree);
        return nullptr;
    }
    return tree;
}

// One set of query arrays for width x height rays with `depth` levels.
struct Rays {
    Guarded<float> origin[3], dir[3], dist, hit[2];
    Guarded<std::int32_t> trngl, mask, occluder;
    Rays(int n, int depth, Place place) {
        for (auto& g : origin) g.reset(static_cast<std::size_t>(n), place);
        for (auto& g : dir) g.reset(static_cast<std::size_t>(n), place);
        dist.reset(static_cast<std::size_t>(n * depth), place);
        for (auto& g : hit) g.reset(static_cast<std::size_t>(n * depth), place);
        trngl.reset(static_cast<std::size_t>(n * depth), place);
        mask.reset(static_cast<std::size_t>(n), place);
        occluder.reset(static_cast<std::size_t>(n), place);
    }
    bool intact() const {
        bool ok = dist.canariesIntact() && trngl.canariesIntact() && mask.canariesIntact() &&
                  occluder.canariesIntact();
        for (const auto& g : hit) ok = ok && g.canariesIntact();
        for (const auto& g : origin) ok = ok && g.canariesIntact();
        for (const auto& g : dir) ok = ok && g.canariesIntact();
        return ok;
    }
};

void query(Reader& r, const Mesh& m, const VekrIntersectContext& ctx) {
    int width = r.range(1, 8), height = r.range(1, 4), depth = r.range(1, 3);
    int n = width * height;
    int which = r.u8() % 4;
    float eye[3];
    for (float& e : eye) e = r.f32();
    std::vector<float> origin(static_cast<std::size_t>(3 * n)), dir(static_cast<std::size_t>(3 * n)),
        far(static_cast<std::size_t>(n));
    std::vector<std::int32_t> mask(static_cast<std::size_t>(n));
    static const float kFar[] = {FLT_MAX, INFINITY, 1.0f, 10.0f, 0.0f, -1.0f, NAN, 1e30f};
    static const std::int32_t kMasks[] = {0, 1, -1, INT_MIN};
    for (float& o : origin) o = r.f32();
    for (float& d : dir) d = r.f32();
    for (float& f : far) f = r.u8() < 200 ? r.pick(kFar) : r.f32();
    for (auto& k : mask) k = r.pick(kMasks);

    // The same query with the arrays ending on a guard page and starting
    // right after one: the same bits.
    std::vector<std::uint8_t> first[4];
    for (int pass = 0; pass < 2; ++pass) {
        Rays q(n, which == 2 ? depth : 1, pass == 0 ? Place::Tail : Place::Head);
        for (int c = 0; c < 3; ++c) {
            for (int i = 0; i < n; ++i) {
                q.origin[c][static_cast<std::size_t>(i)] = origin[static_cast<std::size_t>(3 * i + c)];
                q.dir[c][static_cast<std::size_t>(i)] = dir[static_cast<std::size_t>(3 * i + c)];
            }
        }
        for (std::size_t i = 0; i < q.dist.size(); ++i) q.dist[i] = far[i % static_cast<std::size_t>(n)];
        for (auto& g : q.hit) std::memset(g.data(), 0x11, g.bytes());
        std::memset(q.trngl.data(), 0x22, q.trngl.bytes());
        std::memcpy(q.mask.data(), mask.data(), mask.size() * 4);
        const float* o3[3] = {q.origin[0].data(), q.origin[1].data(), q.origin[2].data()};
        const float* d3[3] = {q.dir[0].data(), q.dir[1].data(), q.dir[2].data()};
        float* h2[2] = {q.hit[0].data(), q.hit[1].data()};
        VekStatus st = vekStatusOk;
        switch (which) {
            case 0: st = vekrIntersectEyeSO_32f(eye, d3, q.dist.data(), h2, q.trngl.data(), &ctx, width, height); break;
            case 1: st = vekrIntersectMO_32f(o3, d3, q.dist.data(), h2, q.trngl.data(), &ctx, width, height); break;
            case 2:
                st = vekrIntersectMultipleSO_32f(eye, d3, q.dist.data(), h2, q.trngl.data(), width, height, depth,
                                                 &ctx);
                break;
            case 3:
                st = vekrIntersectAnySO_32f(eye, d3, q.occluder.data(), q.mask.data(), width, height, &ctx);
                break;
        }
        FUZZ_CHECK(st == vekStatusOk, "query %d status %d", which, st);
        FUZZ_CHECK(q.intact(), "query %d wrote outside its arrays", which);
        // Every triangle index written is -1 or a triangle of the scene.
        const Guarded<std::int32_t>& idx = which == 3 ? q.occluder : q.trngl;
        for (std::size_t i = 0; i < idx.size(); ++i) {
            std::int32_t t = idx[i];
            bool untouched = which != 3 && t == 0x22222222;
            FUZZ_CHECK(untouched || (t >= -1 && t < m.numTriangles), "query %d: triangle %d", which, t);
        }
        std::vector<std::uint8_t> out[4] = {fz::snapshot(q.dist.data(), q.dist.size()),
                                            fz::snapshot(q.trngl.data(), q.trngl.size()),
                                            fz::snapshot(q.occluder.data(), q.occluder.size()),
                                            fz::snapshot(q.mask.data(), q.mask.size())};
        for (int k = 0; k < 4; ++k) {
            if (pass == 0) first[k] = out[k];
            else FUZZ_CHECK(first[k] == out[k], "query %d: output %d depends on the placement", which, k);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Reader r(data, size);
    Mesh m = makeMesh(r);
    Guarded<float> verts(m.vertices.size(), Place::Tail);
    Guarded<std::int32_t> tris(m.tris.size(), Place::Tail);
    fill(verts, m.vertices);
    fill(tris, m.tris);
    Guarded<VekrTriangleAccel> accel(static_cast<std::size_t>(m.numTriangles), r.bit() ? Place::Tail : Place::Head);

    VekrBoundBox box = checkBoundBox(r, m, verts);
    checkAccel(r, m, verts, tris, accel);
    VekrBoundBox clip;
    for (int a = 0; a < 3; ++a) {
        clip.minCorner[a] = r.bit() ? box.minCorner[a] : r.f32();
        clip.maxCorner[a] = r.bit() ? box.maxCorner[a] : r.f32();
    }
    VekrKDTreeNode* tree = build(r, m, verts, tris, &clip);
    FUZZ_CHECK(verts.canariesIntact() && tris.canariesIntact(), "inputs overwritten");
    if (tree == nullptr) return 0;
    VekrIntersectContext ctx{&box, accel.data(), tree};
    int queries = r.range(1, 3);
    for (int i = 0; i < queries && r.remaining() > 0; ++i) query(r, m, ctx);
    vekrKDTreeFree(tree);
    return 0;
}
