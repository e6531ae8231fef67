// KD-tree build benchmark: build time, peak memory and tree statistics of the
// surface-area build (maxDepth 50, costBalance 0.5) for the bunny and a
// generated scene of spheres at about 250k and 1M triangles, on one and two
// threads. Prints markdown table rows.
//
//   bench_scene [--header] [--quick (bunny only)] [--one (one thread only)]
#include <omp.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "benchutil.h"
#include "kdtree_view.h"
#include "mesh.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

struct Scene {
    std::string name;
    vt::Mesh mesh;
};

VekrBoundBox vertexBox(const vt::Mesh& m) {
    VekrBoundBox b;
    for (int a = 0; a < 3; ++a) b.minCorner[a] = b.maxCorner[a] = m.vertices[a];
    for (int i = 0; i < m.numVertices(); ++i)
        for (int a = 0; a < 3; ++a) {
            b.minCorner[a] = std::fmin(b.minCorner[a], m.vertices[3 * i + a]);
            b.maxCorner[a] = std::fmax(b.maxCorner[a], m.vertices[3 * i + a]);
        }
    return b;
}

// Several spheres of different sizes (a scene with empty space and varying
// density), about `target` triangles in all.
vt::Mesh makeSpheres(int target) {
    vt::Mesh m;
    const int count = 8;
    for (int s = 0; s < count; ++s) {
        const int rings = static_cast<int>(std::sqrt(target / count / 4.0));
        vt::Mesh one = vt::makeSphere(rings, 2 * rings, 0.5f + 0.25f * s, 3.0f * (s % 3), 2.5f * (s / 3), 0.7f * s);
        const int base = m.numVertices();
        m.vertices.insert(m.vertices.end(), one.vertices.begin(), one.vertices.end());
        for (std::size_t i = 0; i < one.triangles.size(); i += 4)
            m.addTriangle(one.triangles[i] + base, one.triangles[i + 1] + base, one.triangles[i + 2] + base);
    }
    return m;
}

// CPU seconds used by the whole process (all threads) so far.
double cpuSeconds() {
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + 1e-6 * (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec);
}

}  // namespace

int main(int argc, char** argv) {
    bool header = false, quick = false;
    std::vector<int> threadCounts = {1, 2};
    for (int i = 1; i < argc; ++i) {
        header |= std::strcmp(argv[i], "--header") == 0;
        quick |= std::strcmp(argv[i], "--quick") == 0;
        if (std::strcmp(argv[i], "--one") == 0) threadCounts = {1};
    }
    std::vector<Scene> scenes;
    {
        Scene b{"bunny", {}};
        if (!vt::loadObj(vt::kBunnyPath, b.mesh)) {
            std::fprintf(stderr, "cannot read %s\n", vt::kBunnyPath);
            return 1;
        }
        scenes.push_back(std::move(b));
    }
    // The same family at two sizes shows the growth with the triangle count.
    if (!quick) {
        scenes.push_back({"spheres", makeSpheres(250000)});
        scenes.push_back({"spheres", makeSpheres(1000000)});
    }

    if (header) {
        std::printf("| target | scene | triangles | threads | build ms | CPU ms | peak RSS MiB | inner | leaves (empty) | refs/tri | depth | SAH cost | block MiB | block hash |\n");
        std::printf("|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n");
    }
    for (const Scene& s : scenes) {
        const vt::Mesh& m = s.mesh;
        VekrKDTreeBuildParams p = {vekKDTreeBuildPSAH, 50, 0.5f, 2048, nullptr};
        for (int threads : threadCounts) {
            omp_set_num_threads(threads);
            vekSetNumThreads(threads);
            VekrKDTreeNode* tree = nullptr;
            int size = 0;
            VekStatus st = vekrKDTreeBuildAlloc(&tree, m.vertices.data(), m.triangles.data(), m.numVertices(),
                                                m.numTriangles(), &size, &p);
            if (st != vekStatusOk) {
                std::fprintf(stderr, "%s: build failed with status %d\n", s.name.c_str(), st);
                return 1;
            }
            vt::KDTreeStats stats = vt::KDTreeView(tree, size).stats(vertexBox(m));
            // FNV-1a of the block: equal on every target and thread count.
            std::uint32_t hash = 2166136261u;
            for (int i = 0; i < size; ++i) hash = (hash ^ reinterpret_cast<const unsigned char*>(tree)[i]) * 16777619u;
            vekrKDTreeFree(tree);
            const int reps = m.numTriangles() > 200000 ? 2 : 7;
            // Wall time (best of several) and the process CPU time of the
            // best-CPU run: on a busy machine the CPU time is the steadier figure.
            double bestCpu = 1e300;
            const double secs = vb::bestOf(reps, [&] {
                VekrKDTreeNode* t = nullptr;
                int sz = 0;
                const double c0 = cpuSeconds();
                vekrKDTreeBuildAlloc(&t, m.vertices.data(), m.triangles.data(), m.numVertices(), m.numTriangles(),
                                     &sz, &p);
                bestCpu = std::fmin(bestCpu, cpuSeconds() - c0);
                vekrKDTreeFree(t);
            });
            std::printf("| %s | %s | %d | %d | %.1f | %.1f | %.0f | %lld | %lld (%lld) | %.2f | %d | %.2f | %.2f | %08x |\n",
                        vb::targetName(), s.name.c_str(), m.numTriangles(), threads, secs * 1e3, bestCpu * 1e3,
                        vb::peakRssMiB(),
                        (long long)stats.innerNodes, (long long)stats.leaves, (long long)stats.emptyLeaves,
                        double(stats.references) / m.numTriangles(), stats.maxDepth, stats.sahCost,
                        size / 1048576.0, hash);
            std::fflush(stdout);
        }
    }
    return 0;
}
