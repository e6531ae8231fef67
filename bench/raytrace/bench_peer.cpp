// The three ray workloads of a renderer, run by the library and (when built
// with VEKR_BENCH_EMBREE) by Embree 3 in the same process, interleaved:
//   eye     1024 x 1024 eye rays from one point at the bunny on a ground quad;
//   shadow  segments from a point light to the eye hits, ends scaled to 0.999;
//   reflect mirror rays from the eye hits (per-ray origins).
// The library traces 64 x 64 blocks (its packet path); Embree traces the same
// rays in 4 x 4 tiles, one ray at a time (rtcIntersect1 / rtcOccluded1) and as
// 16-ray packets (rtcIntersect16 / rtcOccluded16), on a device limited to SSE4.2
// and on one at its default (widest) ISA, with a high-quality BVH. Blocks are
// handed out to 1 or 2 OpenMP threads. Rays of pixels without an eye hit are
// switched off (library: mask -1 for shadows, distance 0 for reflections;
// Embree: invalid lanes) and not counted. Each figure is the best of several
// rounds in wall time; every round runs all contenders one after the other.
//
// Usage: bench_raytrace_peer [rounds]
#include <omp.h>

#include <algorithm>
#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "benchutil.h"
#include "mesh.h"
#include "vekcore.h"
#include "vekr.h"

#ifdef VEKR_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif

namespace {

constexpr int kImage = 1024;
constexpr int kBlock = 64;
constexpr int kBlocksPerSide = kImage / kBlock;
constexpr int kNumBlocks = kBlocksPerSide * kBlocksPerSide;
constexpr std::size_t kBlockRays = std::size_t(kBlock) * kBlock;
constexpr std::size_t kRays = std::size_t(kImage) * kImage;

// Float or int arrays on 64-byte boundaries.
template <class T>
struct Buf {
    T* p;
    explicit Buf(std::size_t n) : p(static_cast<T*>(std::aligned_alloc(64, (n * sizeof(T) + 63) & ~std::size_t(63)))) {
        std::memset(p, 0, n * sizeof(T));
    }
    ~Buf() { std::free(p); }
    Buf(const Buf&) = delete;
    Buf& operator=(const Buf&) = delete;
    T& operator[](std::size_t i) { return p[i]; }
};

// All rays of one workload, block after block; inside a block row-major.
struct Rays {
    Buf<float> o0{kRays}, o1{kRays}, o2{kRays}, d0{kRays}, d1{kRays}, d2{kRays};
    Buf<float> limit{kRays};    // distance limit: FLT_MAX, or 0 for a ray that is off
    Buf<int32_t> select{kRays};  // 0, or -1 for a ray that is off
    Buf<float> dist{kRays}, h0{kRays}, h1{kRays};
    Buf<int32_t> tri{kRays}, mask{kRays};
    std::size_t counted = 0;
};

// Element of pixel (x, y) in the block layout.
std::size_t elem(int x, int y) {
    const int b = (y / kBlock) * kBlocksPerSide + x / kBlock;
    return std::size_t(b) * kBlockRays + std::size_t(y % kBlock) * kBlock + x % kBlock;
}

double wallOf(const std::function<void()>& fn) {
    const auto t0 = std::chrono::steady_clock::now();
    fn();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

enum class Work { Eye, Shadow, Reflect };

struct Lib {
    VekrIntersectContext ctx;
    const float* eye;
    const float* light;
    void run(Work w, Rays& r, int threads) const {
#pragma omp parallel for num_threads(threads) schedule(dynamic, 1)
        for (int b = 0; b < kNumBlocks; ++b) {
            const std::size_t s = std::size_t(b) * kBlockRays;
            const float* dir[3] = {r.d0.p + s, r.d1.p + s, r.d2.p + s};
            float* hit[2] = {r.h0.p + s, r.h1.p + s};
            if (w == Work::Shadow) {
                std::memcpy(r.mask.p + s, r.select.p + s, kBlockRays * 4);
                vekrIntersectAnySO_32f(light, dir, r.tri.p + s, r.mask.p + s, kBlock, kBlock, &ctx);
            } else {
                std::memcpy(r.dist.p + s, r.limit.p + s, kBlockRays * 4);
                if (w == Work::Eye) {
                    vekrIntersectEyeSO_32f(eye, dir, r.dist.p + s, hit, r.tri.p + s, &ctx, kBlock, kBlock);
                } else {
                    const float* org[3] = {r.o0.p + s, r.o1.p + s, r.o2.p + s};
                    vekrIntersectMO_32f(org, dir, r.dist.p + s, hit, r.tri.p + s, &ctx, kBlock, kBlock);
                }
            }
        }
    }
};

#ifdef VEKR_HAVE_EMBREE
struct Peer {
    RTCDevice device = nullptr;
    RTCScene scene = nullptr;
    Peer(const char* config, const vt::Mesh& m) {
        device = rtcNewDevice(config);
        scene = rtcNewScene(device);
        rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_HIGH);
        RTCGeometry g = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
        rtcSetGeometryBuildQuality(g, RTC_BUILD_QUALITY_HIGH);
        float* v = static_cast<float*>(
            rtcSetNewGeometryBuffer(g, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 12, m.numVertices()));
        std::memcpy(v, m.vertices.data(), m.vertices.size() * 4);
        unsigned* t = static_cast<unsigned*>(
            rtcSetNewGeometryBuffer(g, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 12, m.numTriangles()));
        for (int i = 0; i < m.numTriangles(); ++i)
            for (int k = 0; k < 3; ++k) t[3 * i + k] = unsigned(m.triangles[4 * i + k]);
        rtcCommitGeometry(g);
        rtcAttachGeometry(scene, g);
        rtcReleaseGeometry(g);
        rtcCommitScene(scene);
    }
    ~Peer() {
        rtcReleaseScene(scene);
        rtcReleaseDevice(device);
    }
    // packet 1: rtcIntersect1 / rtcOccluded1 per ray; 16: one call per 4 x 4 tile.
    void run(Work w, Rays& r, int threads, int packet) const {
#pragma omp parallel for num_threads(threads) schedule(dynamic, 1)
        for (int b = 0; b < kNumBlocks; ++b) {
            RTCIntersectContext ctx;
            rtcInitIntersectContext(&ctx);
            ctx.flags = w == Work::Reflect ? RTC_INTERSECT_CONTEXT_FLAG_INCOHERENT : RTC_INTERSECT_CONTEXT_FLAG_COHERENT;
            const std::size_t s = std::size_t(b) * kBlockRays;
            for (int ty = 0; ty < kBlock; ty += 4)
                for (int tx = 0; tx < kBlock; tx += 4) {
                    if (packet == 16) tile16(w, r, s, tx, ty, &ctx);
                    else tile1(w, r, s, tx, ty, &ctx);
                }
        }
    }
    void tile16(Work w, Rays& r, std::size_t s, int tx, int ty, RTCIntersectContext* ctx) const {
        alignas(64) int valid[16];
        alignas(64) RTCRayHit16 rh;
        for (int k = 0; k < 16; ++k) {
            const std::size_t i = s + std::size_t(ty + k / 4) * kBlock + tx + k % 4;
            valid[k] = r.select[i] < 0 ? 0 : -1;
            rh.ray.org_x[k] = r.o0[i], rh.ray.org_y[k] = r.o1[i], rh.ray.org_z[k] = r.o2[i];
            rh.ray.dir_x[k] = r.d0[i], rh.ray.dir_y[k] = r.d1[i], rh.ray.dir_z[k] = r.d2[i];
            rh.ray.tnear[k] = 0.0f;
            rh.ray.tfar[k] = w == Work::Shadow ? 1.0f : INFINITY;
            rh.ray.mask[k] = 0xFFFFFFFFu;
            rh.ray.time[k] = 0.0f;
            rh.ray.flags[k] = 0;
            rh.hit.geomID[k] = RTC_INVALID_GEOMETRY_ID;
        }
        if (w == Work::Shadow) {
            rtcOccluded16(valid, scene, ctx, &rh.ray);
            for (int k = 0; k < 16; ++k) {
                const std::size_t i = s + std::size_t(ty + k / 4) * kBlock + tx + k % 4;
                r.tri[i] = valid[k] && rh.ray.tfar[k] < 0.0f ? 0 : -1;
            }
        } else {
            rtcIntersect16(valid, scene, ctx, &rh);
            for (int k = 0; k < 16; ++k) {
                const std::size_t i = s + std::size_t(ty + k / 4) * kBlock + tx + k % 4;
                const bool h = valid[k] && rh.hit.geomID[k] != RTC_INVALID_GEOMETRY_ID;
                r.tri[i] = h ? int32_t(rh.hit.primID[k]) : -1;
                r.dist[i] = rh.ray.tfar[k];
            }
        }
    }
    void tile1(Work w, Rays& r, std::size_t s, int tx, int ty, RTCIntersectContext* ctx) const {
        for (int k = 0; k < 16; ++k) {
            const std::size_t i = s + std::size_t(ty + k / 4) * kBlock + tx + k % 4;
            if (r.select[i] < 0) {
                r.tri[i] = -1;
                continue;
            }
            RTCRayHit rh;
            rh.ray.org_x = r.o0[i], rh.ray.org_y = r.o1[i], rh.ray.org_z = r.o2[i];
            rh.ray.dir_x = r.d0[i], rh.ray.dir_y = r.d1[i], rh.ray.dir_z = r.d2[i];
            rh.ray.tnear = 0.0f;
            rh.ray.tfar = w == Work::Shadow ? 1.0f : INFINITY;
            rh.ray.mask = 0xFFFFFFFFu;
            rh.ray.time = 0.0f;
            rh.ray.flags = 0;
            rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
            if (w == Work::Shadow) {
                rtcOccluded1(scene, ctx, &rh.ray);
                r.tri[i] = rh.ray.tfar < 0.0f ? 0 : -1;
            } else {
                rtcIntersect1(scene, ctx, &rh);
                r.tri[i] = rh.hit.geomID != RTC_INVALID_GEOMETRY_ID ? int32_t(rh.hit.primID) : -1;
                r.dist[i] = rh.ray.tfar;
            }
        }
    }
};
#endif

std::size_t countHits(const Rays& r) {
    std::size_t n = 0;
    for (std::size_t i = 0; i < kRays; ++i) n += r.select.p[i] >= 0 && r.tri.p[i] >= 0;
    return n;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(0, std::atoi(argv[1])) : 5;  // 0: one untimed round (for profilers)
    vt::Mesh m;
    if (!vt::loadObj(vt::kBunnyPath, m)) {
        std::fprintf(stderr, "cannot read %s\n", vt::kBunnyPath);
        return 1;
    }
    // Ground quad just under the bunny (its lowest vertex is at y = -0.991233).
    {
        const int v = m.numVertices();
        const float y = -0.9913f, e = 4.0f;
        m.addVertex(-e, y, -e), m.addVertex(e, y, -e), m.addVertex(e, y, e), m.addVertex(-e, y, e);
        m.addTriangle(v, v + 2, v + 1), m.addTriangle(v, v + 3, v + 2);
    }
    const int nt = m.numTriangles();
    std::vector<VekrTriangleAccel> accel(nt);
    vekrTriangleAccelInit(accel.data(), m.vertices.data(), m.triangles.data(), nt);
    VekrBoundBox box;
    vekrSetBoundBox_32f(m.vertices.data(), m.numVertices(), &box);
    VekrKDTreeNode* tree = nullptr;
    int treeSize = 0;
    const VekrKDTreeBuildParams params = {vekKDTreeBuildPSAH, 40, 0.5f, 1024, nullptr};
    if (vekrKDTreeBuildAlloc(&tree, m.vertices.data(), m.triangles.data(), m.numVertices(), nt, &treeSize, &params) !=
        vekStatusOk) {
        std::fprintf(stderr, "tree build failed\n");
        return 1;
    }
    const float eye[3] = {0.0f, 0.3f, 3.2f};
    const float light[3] = {2.0f, 3.0f, 2.5f};
    const Lib lib{{&box, accel.data(), tree}, eye, light};

    // Eye rays: a pinhole camera from `eye` at the origin.
    static Rays eyeR, shadowR, reflR;
    {
        float fwd[3], right[3], up[3], l = 0;
        for (int a = 0; a < 3; ++a) fwd[a] = -eye[a], l += fwd[a] * fwd[a];
        l = std::sqrt(l);
        for (float& f : fwd) f /= l;
        right[0] = -fwd[2], right[1] = 0, right[2] = fwd[0];
        l = std::sqrt(right[0] * right[0] + right[2] * right[2]);
        right[0] /= l, right[2] /= l;
        up[0] = right[1] * fwd[2] - right[2] * fwd[1];
        up[1] = right[2] * fwd[0] - right[0] * fwd[2];
        up[2] = right[0] * fwd[1] - right[1] * fwd[0];
        const float halfView = 0.45f;
        for (int y = 0; y < kImage; ++y)
            for (int x = 0; x < kImage; ++x) {
                const std::size_t i = elem(x, y);
                const float sx = halfView * (2.0f * (x + 0.5f) / kImage - 1.0f);
                const float sy = halfView * (1.0f - 2.0f * (y + 0.5f) / kImage);
                eyeR.o0[i] = eye[0], eyeR.o1[i] = eye[1], eyeR.o2[i] = eye[2];
                eyeR.d0[i] = fwd[0] + sx * right[0] + sy * up[0];
                eyeR.d1[i] = fwd[1] + sx * right[1] + sy * up[1];
                eyeR.d2[i] = fwd[2] + sx * right[2] + sy * up[2];
                eyeR.limit[i] = FLT_MAX;
            }
        eyeR.counted = kRays;
    }
    lib.run(Work::Eye, eyeR, 1);
    // Shadow and reflection rays from the library's eye hits.
    for (std::size_t i = 0; i < kRays; ++i) {
        const int32_t t = eyeR.tri[i];
        const bool on = t >= 0;
        shadowR.select[i] = reflR.select[i] = on ? 0 : -1;
        shadowR.o0[i] = light[0], shadowR.o1[i] = light[1], shadowR.o2[i] = light[2];
        reflR.limit[i] = on ? FLT_MAX : 0.0f;
        if (!on) {
            // Off rays still need finite directions (the library reads them).
            shadowR.d0[i] = reflR.d0[i] = eyeR.d0[i], shadowR.d1[i] = reflR.d1[i] = eyeR.d1[i];
            shadowR.d2[i] = reflR.d2[i] = eyeR.d2[i];
            reflR.o0[i] = eye[0], reflR.o1[i] = eye[1], reflR.o2[i] = eye[2];
            continue;
        }
        ++shadowR.counted, ++reflR.counted;
        const float d[3] = {eyeR.d0[i], eyeR.d1[i], eyeR.d2[i]};
        float p[3];
        for (int a = 0; a < 3; ++a) p[a] = eye[a] + eyeR.dist[i] * d[a];
        const float* A = &m.vertices[3 * m.triangles[4 * t]];
        const float* B = &m.vertices[3 * m.triangles[4 * t + 1]];
        const float* C = &m.vertices[3 * m.triangles[4 * t + 2]];
        const float e1[3] = {B[0] - A[0], B[1] - A[1], B[2] - A[2]};
        const float e2[3] = {C[0] - A[0], C[1] - A[1], C[2] - A[2]};
        float n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2], e1[0] * e2[1] - e1[1] * e2[0]};
        const float nl = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        float dn = 0;
        for (int a = 0; a < 3; ++a) n[a] /= nl, dn += d[a] * n[a];
        if (dn > 0) {
            for (float& c : n) c = -c;
            dn = -dn;
        }
        shadowR.d0[i] = 0.999f * (p[0] - light[0]);
        shadowR.d1[i] = 0.999f * (p[1] - light[1]);
        shadowR.d2[i] = 0.999f * (p[2] - light[2]);
        reflR.d0[i] = d[0] - 2.0f * dn * n[0];
        reflR.d1[i] = d[1] - 2.0f * dn * n[1];
        reflR.d2[i] = d[2] - 2.0f * dn * n[2];
        reflR.o0[i] = p[0] + 1e-4f * n[0], reflR.o1[i] = p[1] + 1e-4f * n[1], reflR.o2[i] = p[2] + 1e-4f * n[2];
    }

    struct Contender {
        std::string name;
        std::function<void(Work, Rays&, int)> run;
    };
    std::vector<Contender> cs;
    cs.push_back({"vekr", [&](Work w, Rays& r, int t) { lib.run(w, r, t); }});
#ifdef VEKR_HAVE_EMBREE
    Peer sse("isa=sse4.2", m), wide("", m);
    cs.push_back({"embree sse4.2 x1", [&](Work w, Rays& r, int t) { sse.run(w, r, t, 1); }});
    cs.push_back({"embree sse4.2 x16", [&](Work w, Rays& r, int t) { sse.run(w, r, t, 16); }});
    cs.push_back({"embree default x1", [&](Work w, Rays& r, int t) { wide.run(w, r, t, 1); }});
    cs.push_back({"embree default x16", [&](Work w, Rays& r, int t) { wide.run(w, r, t, 16); }});
#endif
    const Work works[3] = {Work::Eye, Work::Shadow, Work::Reflect};
    const char* workNames[3] = {"eye rays (EyeSO)", "shadow segments (AnySO)", "reflection rays (MO)"};
    Rays* rays[3] = {&eyeR, &shadowR, &reflR};
    const int threadCounts[2] = {1, 2};
    // best[work][threads][contender], seconds; hits[work][contender] as a sanity check.
    std::vector<double> best(3 * 2 * cs.size(), 1e300);
    std::vector<std::size_t> hits(3 * cs.size(), 0);
    for (int round = 0; round <= rounds; ++round)  // round 0 warms up
        for (int w = 0; w < 3; ++w)
            for (int ti = 0; ti < 2; ++ti)
                for (std::size_t c = 0; c < cs.size(); ++c) {
                    const double s = wallOf([&] { cs[c].run(works[w], *rays[w], threadCounts[ti]); });
                    if (round > 0) best[(w * 2 + ti) * cs.size() + c] = std::min(best[(w * 2 + ti) * cs.size() + c], s);
                    if (round == 0 && ti == 0) hits[w * cs.size() + c] = countHits(*rays[w]);
                }

    std::printf("<!-- %s: %d triangles (bunny + ground quad); %zu eye rays, %zu hit; shadow and reflection rays: %zu; "
                "best of %d rounds -->\n",
                vb::targetName(), nt, kRays, shadowR.counted, shadowR.counted, rounds);
    for (int w = 0; w < 3; ++w) {
        std::printf("<!-- %s hits:", workNames[w]);
        for (std::size_t c = 0; c < cs.size(); ++c) std::printf(" %s %zu;", cs[c].name.c_str(), hits[w * cs.size() + c]);
        std::printf(" -->\n");
    }
    for (int w = 0; w < 3; ++w)
        for (int ti = 0; ti < 2; ++ti) {
            const double* b = &best[(w * 2 + ti) * cs.size()];
            const double n = double(rays[w]->counted);
            const double lib = n / b[0] * 1e-6;
            std::printf("| %s | %s | %d | %.2f", vb::targetName(), workNames[w], threadCounts[ti], lib);
#ifdef VEKR_HAVE_EMBREE
            const double s1 = n / b[1] * 1e-6, s16 = n / b[2] * 1e-6, d1 = n / b[3] * 1e-6, d16 = n / b[4] * 1e-6;
            const double sBest = std::max(s1, s16), dBest = std::max(d1, d16);
            std::printf(" | %.2f / %.2f | %.2f / %.2f | %.2f | %.2f", s1, s16, d1, d16, lib / sBest, lib / dBest);
#endif
            std::printf(" |\n");
        }
    vekrKDTreeFree(tree);
    return 0;
}
