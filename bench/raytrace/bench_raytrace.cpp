// Throughput of the intersection queries on the bunny, one thread: eye rays
// from a camera framing the model, any-hit shadow segments from a point light
// to the visible points, and per-origin reflection rays from them. Each query
// runs on 16-byte-aligned arrays (the packet path) and on the same rays at a
// 4-byte offset (the per-ray path); the outputs of both must be identical.
// Times are the best of several runs in thread CPU time.
//
// Usage: bench_raytrace [--quick] [maxDepth costBalance]
#include <time.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "benchutil.h"
#include "mesh.h"
#include "vekr.h"

namespace {

// Arrays placed `off` bytes past a 16-byte boundary.
template <class T>
struct Arr {
    std::vector<unsigned char> raw;
    T* p = nullptr;
    Arr(std::size_t n, std::size_t off) {
        raw.assign(n * sizeof(T) + 32, 0);
        std::uintptr_t a = (reinterpret_cast<std::uintptr_t>(raw.data()) + 15) & ~std::uintptr_t(15);
        p = reinterpret_cast<T*>(a + off);
    }
    T& operator[](std::size_t i) { return p[i]; }
};

struct Block {
    int w, h;
    std::size_t off;
    Arr<float> d0, d1, d2, o0, o1, o2, dist, h0, h1;
    Arr<int32_t> tri, mask;
    Block(int w_, int h_, std::size_t off_)
        : w(w_), h(h_), off(off_), d0(n(), off), d1(n(), off), d2(n(), off), o0(n(), off), o1(n(), off),
          o2(n(), off), dist(n(), off), h0(n(), off), h1(n(), off), tri(n(), off), mask(n(), off) {}
    std::size_t n() const { return std::size_t(w) * h; }
    const float* dir[3] = {nullptr, nullptr, nullptr};
    const float* org[3] = {nullptr, nullptr, nullptr};
    float* hit[2] = {nullptr, nullptr};
    void bind() {
        dir[0] = d0.p, dir[1] = d1.p, dir[2] = d2.p;
        org[0] = o0.p, org[1] = o1.p, org[2] = o2.p;
        hit[0] = h0.p, hit[1] = h1.p;
    }
};

struct Row {
    const char* query;
    std::size_t rays;
    double vecS, scalarS;
    bool identical;
};

bool sameBytes(const void* a, const void* b, std::size_t n) { return std::memcmp(a, b, n) == 0; }

// The fastest of `reps` runs after a warm-up, in seconds of this thread's CPU
// time: on a shared machine it is disturbed less by other processes than wall
// time (on a quiet one the two agree).
double bestCpuOf(int reps, const std::function<void()>& fn) {
    auto now = [] {
        timespec ts;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
        return ts.tv_sec + 1e-9 * ts.tv_nsec;
    };
    fn();
    double best = 1e300;
    for (int i = 0; i < reps; ++i) {
        const double t0 = now();
        fn();
        best = std::min(best, now() - t0);
    }
    return best;
}

}  // namespace

int main(int argc, char** argv) {
    bool quick = false;
    int maxDepth = 40;
    float costBalance = 0.5f;
    int pos = 0;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0) quick = true;
        else if (pos == 0) maxDepth = std::atoi(argv[i]), ++pos;
        else costBalance = float(std::atof(argv[i]));
    }
    vt::Mesh m;
    if (!vt::loadObj(vt::kBunnyPath, m)) {
        std::fprintf(stderr, "cannot read %s\n", vt::kBunnyPath);
        return 1;
    }
    const int nt = m.numTriangles();
    std::vector<VekrTriangleAccel> accel(nt);
    vekrTriangleAccelInit(accel.data(), m.vertices.data(), m.triangles.data(), nt);
    VekrBoundBox box;
    vekrSetBoundBox_32f(m.vertices.data(), m.numVertices(), &box);
    VekrKDTreeNode* tree = nullptr;
    int treeSize = 0;
    VekrKDTreeBuildParams params = {vekKDTreeBuildPSAH, maxDepth, costBalance, 1024, nullptr};
    VekStatus st = VekStatus(0);
    const double buildS = vb::timeOnce([&] {
        st = vekrKDTreeBuildAlloc(&tree, m.vertices.data(), m.triangles.data(), m.numVertices(), nt, &treeSize, &params);
    });
    if (st != vekStatusOk) {
        std::fprintf(stderr, "tree build failed: status %d\n", int(st));
        return 1;
    }
    const VekrIntersectContext ctx = {&box, accel.data(), tree};

    // Camera: from the front, a little above, the model filling the frame.
    const int W = quick ? 256 : 1024, H = W;
    const float eye[3] = {0.0f, 0.3f, 3.2f};
    const float look[3] = {0.0f, 0.0f, 0.0f};
    float fwd[3], right[3], up[3];
    {
        float l = 0;
        for (int a = 0; a < 3; ++a) fwd[a] = look[a] - eye[a], l += fwd[a] * fwd[a];
        l = std::sqrt(l);
        for (float& f : fwd) f /= l;
        right[0] = -fwd[2], right[1] = 0, right[2] = fwd[0];  // fwd x (0, 1, 0)
        l = std::sqrt(right[0] * right[0] + right[2] * right[2]);
        right[0] /= l, right[2] /= l;
        up[0] = right[1] * fwd[2] - right[2] * fwd[1];
        up[1] = right[2] * fwd[0] - right[0] * fwd[2];
        up[2] = right[0] * fwd[1] - right[1] * fwd[0];
    }
    const float halfView = 0.36f;  // tan of half the field of view
    Block eyeA(W, H, 0), eyeU(W, H, 4);
    for (Block* b : {&eyeA, &eyeU}) {
        b->bind();
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) {
                const std::size_t i = std::size_t(y) * W + x;
                const float sx = halfView * (2.0f * (x + 0.5f) / W - 1.0f);
                const float sy = halfView * (1.0f - 2.0f * (y + 0.5f) / H);
                b->d0[i] = fwd[0] + sx * right[0] + sy * up[0];
                b->d1[i] = fwd[1] + sx * right[1] + sy * up[1];
                b->d2[i] = fwd[2] + sx * right[2] + sy * up[2];
            }
    }
    std::vector<Row> rows;
    const int reps = quick ? 2 : 5;
    auto runEye = [&](Block& b) {
        for (std::size_t i = 0; i < b.n(); ++i) b.dist[i] = FLT_MAX;
        vekrIntersectEyeSO_32f(eye, b.dir, b.dist.p, b.hit, b.tri.p, &ctx, b.w, b.h);
    };
    {
        Row r{"eye rays (EyeSO)", eyeA.n(), bestCpuOf(reps, [&] { runEye(eyeA); }),
              bestCpuOf(reps, [&] { runEye(eyeU); }), true};
        r.identical = sameBytes(eyeA.dist.p, eyeU.dist.p, 4 * eyeA.n()) &&
                      sameBytes(eyeA.tri.p, eyeU.tri.p, 4 * eyeA.n()) &&
                      sameBytes(eyeA.h0.p, eyeU.h0.p, 4 * eyeA.n()) && sameBytes(eyeA.h1.p, eyeU.h1.p, 4 * eyeA.n());
        rows.push_back(r);
    }

    // Visible points, compacted into whole rows of W rays.
    std::vector<std::size_t> visible;
    for (std::size_t i = 0; i < eyeA.n(); ++i)
        if (eyeA.tri[i] >= 0) visible.push_back(i);
    const int rowsVis = int(visible.size() / W) & ~3;
    const std::size_t nv = std::size_t(rowsVis) * W;
    const float light[3] = {2.0f, 3.0f, 2.5f};

    // Shadow segments from the light to just short of each visible point.
    Block shA(W, rowsVis, 0), shU(W, rowsVis, 4);
    // Reflection rays from each visible point about the geometric normal.
    Block reA(W, rowsVis, 0), reU(W, rowsVis, 4);
    for (std::size_t k = 0; k < nv; ++k) {
        const std::size_t i = visible[k];
        const float t = eyeA.dist[i];
        const float d[3] = {eyeA.d0[i], eyeA.d1[i], eyeA.d2[i]};
        float p[3];
        for (int a = 0; a < 3; ++a) p[a] = eye[a] + t * d[a];
        const int32_t* tv = &m.triangles[4 * eyeA.tri[i]];
        const float* A = &m.vertices[3 * tv[0]];
        const float* B = &m.vertices[3 * tv[1]];
        const float* C = &m.vertices[3 * tv[2]];
        const float e1[3] = {B[0] - A[0], B[1] - A[1], B[2] - A[2]};
        const float e2[3] = {C[0] - A[0], C[1] - A[1], C[2] - A[2]};
        float n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2], e1[0] * e2[1] - e1[1] * e2[0]};
        float nl = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        float dn = 0;
        for (int a = 0; a < 3; ++a) n[a] /= nl, dn += d[a] * n[a];
        if (dn > 0) {
            for (float& c : n) c = -c;
            dn = -dn;
        }
        float rd[3];
        for (int a = 0; a < 3; ++a) rd[a] = d[a] - 2.0f * dn * n[a];
        for (Block* b : {&shA, &shU}) {
            b->d0[k] = 0.999f * (p[0] - light[0]);
            b->d1[k] = 0.999f * (p[1] - light[1]);
            b->d2[k] = 0.999f * (p[2] - light[2]);
        }
        for (Block* b : {&reA, &reU}) {
            b->d0[k] = rd[0], b->d1[k] = rd[1], b->d2[k] = rd[2];
            b->o0[k] = p[0] + 1e-4f * n[0], b->o1[k] = p[1] + 1e-4f * n[1], b->o2[k] = p[2] + 1e-4f * n[2];
        }
    }
    for (Block* b : {&shA, &shU, &reA, &reU}) b->bind();
    if (nv > 0) {
        auto runAny = [&](Block& b) {
            for (std::size_t i = 0; i < b.n(); ++i) b.mask[i] = 0;
            vekrIntersectAnySO_32f(light, b.dir, b.tri.p, b.mask.p, b.w, b.h, &ctx);
        };
        Row r{"shadow segments (AnySO)", nv, bestCpuOf(reps, [&] { runAny(shA); }),
              bestCpuOf(reps, [&] { runAny(shU); }), true};
        r.identical = sameBytes(shA.tri.p, shU.tri.p, 4 * nv) && sameBytes(shA.mask.p, shU.mask.p, 4 * nv);
        rows.push_back(r);
        auto runMO = [&](Block& b) {
            for (std::size_t i = 0; i < b.n(); ++i) b.dist[i] = FLT_MAX;
            vekrIntersectMO_32f(b.org, b.dir, b.dist.p, b.hit, b.tri.p, &ctx, b.w, b.h);
        };
        Row q{"reflection rays (MO)", nv, bestCpuOf(reps, [&] { runMO(reA); }),
              bestCpuOf(reps, [&] { runMO(reU); }), true};
        q.identical = sameBytes(reA.dist.p, reU.dist.p, 4 * nv) && sameBytes(reA.tri.p, reU.tri.p, 4 * nv);
        rows.push_back(q);
    }

    std::size_t occluded = 0, reflHits = 0;
    for (std::size_t i = 0; i < nv; ++i) occluded += shA.tri[i] >= 0, reflHits += reA.tri[i] >= 0;
    std::printf("<!-- %s: tree maxDepth %d costBalance %.2f: %d bytes, built in %.2f s; %zu of %zu eye rays hit, "
                "%zu of %zu shadow segments occluded, %zu of %zu reflection rays hit -->\n",
                vb::targetName(), maxDepth, costBalance, treeSize, buildS, visible.size(), eyeA.n(), occluded, nv,
                reflHits, nv);
    for (const Row& r : rows)
        std::printf("| %s | %s | %zu | %.2f | %.2f | %.2f | %s |\n", vb::targetName(), r.query, r.rays,
                    r.rays / r.vecS * 1e-6, r.rays / r.scalarS * 1e-6, r.scalarS / r.vecS, r.identical ? "yes" : "NO");
    vekrKDTreeFree(tree);
    return 0;
}
