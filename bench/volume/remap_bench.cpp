// Throughput of the volume remap and affine warp on 128^3 volumes: 8u and
// 32f, nearest, linear and Catmull-Rom, one and two threads. Prints one line
// per case, "op type code threads Mvox/s", for bench/volume/remap_run.sh.
//   bench_remap [op [code [threads]]]   runs only the matching cases (op is
//   remap, warp or owarp; e.g. "warp 2 1" for the one-thread linear warps,
//   handy under a profiler).
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "benchutil.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

constexpr int kN = 128;

// The cases asked for on the command line (empty or 0: all).
struct Filter {
    const char* op = nullptr;
    int code = 0, threads = 0;
    bool wants(const char* o, int c, int t) const {
        return (!op || std::strcmp(op, o) == 0) && (!code || code == c) && (!threads || threads == t);
    }
};

// A contiguous planar volume and its plane pointers.
template <class T>
struct Planar {
    std::vector<T> data;
    std::vector<T*> planes;
    explicit Planar(int n) : data(static_cast<std::size_t>(n) * n * n), planes(n) {
        for (int z = 0; z < n; ++z) planes[z] = data.data() + static_cast<std::size_t>(z) * n * n;
    }
    const T* const* c() const { return reinterpret_cast<const T* const*>(planes.data()); }
};

// The map the remap samples: a rotation by 0.3 rad about the volume centre
// with a gentle sine displacement; about 85% of the points land inside.
void fillMaps(Planar<float> m[3]) {
    const double c = std::cos(0.3), s = std::sin(0.3), h = 0.5 * (kN - 1);
    for (int z = 0; z < kN; ++z)
        for (int y = 0; y < kN; ++y)
            for (int x = 0; x < kN; ++x) {
                const std::size_t i = (static_cast<std::size_t>(z) * kN + y) * kN + x;
                const double dx = x - h, dy = y - h;
                m[0].data[i] = static_cast<float>(h + c * dx - s * dy + 1.5 * std::sin(0.1 * z));
                m[1].data[i] = static_cast<float>(h + s * dx + c * dy);
                m[2].data[i] = static_cast<float>(z + 0.3 + 0.8 * std::sin(0.05 * x));
            }
}

// The warps: the same rotation about the centre with a scale of 1.05 (the
// coefficients map source to destination); "warp" turns about z, so each
// destination row stays in one source plane, "owarp" then tilts by 0.2 rad
// about x, so the rows cross the planes.
void warpCoeffs(double a[3][4], double tilt) {
    const double c = std::cos(0.3) * 1.05, s = std::sin(0.3) * 1.05, h = 0.5 * (kN - 1);
    const double rz[3][3] = {{c, -s, 0}, {s, c, 0}, {0, 0, 1.05}};
    const double ct = std::cos(tilt), st = std::sin(tilt);
    const double rx[3][3] = {{1, 0, 0}, {0, ct, -st}, {0, st, ct}};
    double m[3][3];
    for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 3; ++k) m[r][k] = rx[r][0] * rz[0][k] + rx[r][1] * rz[1][k] + rx[r][2] * rz[2][k];
    for (int r = 0; r < 3; ++r) {
        for (int k = 0; k < 3; ++k) a[r][k] = m[r][k];
        a[r][3] = h - (m[r][0] * h + m[r][1] * h + m[r][2] * h);
    }
}

VekStatus remap(const Planar<std::uint8_t>& s, const Planar<float>* m, Planar<std::uint8_t>& d, int code) {
    const VekrVolume v{kN, kN, kN};
    return vekrRemap_8u_C1PV(s.c(), v, kN, VekrCuboid{0, 0, 0, kN, kN, kN}, m[0].c(), m[1].c(), m[2].c(), kN * 4,
                             d.planes.data(), kN, v, code);
}
VekStatus remap(const Planar<float>& s, const Planar<float>* m, Planar<float>& d, int code) {
    const VekrVolume v{kN, kN, kN};
    return vekrRemap_32f_C1PV(s.c(), v, kN * 4, VekrCuboid{0, 0, 0, kN, kN, kN}, m[0].c(), m[1].c(), m[2].c(), kN * 4,
                              d.planes.data(), kN * 4, v, code);
}
VekStatus warp(const Planar<std::uint8_t>& s, const double a[3][4], Planar<std::uint8_t>& d, int code) {
    const VekrCuboid box{0, 0, 0, kN, kN, kN};
    return vekrWarpAffine_8u_C1PV(s.c(), VekrVolume{kN, kN, kN}, kN, box, d.planes.data(), kN, box, a, code, nullptr);
}
VekStatus warp(const Planar<float>& s, const double a[3][4], Planar<float>& d, int code) {
    const VekrCuboid box{0, 0, 0, kN, kN, kN};
    return vekrWarpAffine_32f_C1PV(s.c(), VekrVolume{kN, kN, kN}, kN * 4, box, d.planes.data(), kN * 4, box, a, code,
                                   nullptr);
}

template <class T>
void runType(const char* name, const Planar<float>* maps, const double a[3][4], const double oblique[3][4],
             const Filter& f) {
    Planar<T> src(kN), dst(kN);
    for (std::size_t i = 0; i < src.data.size(); ++i)
        src.data[i] = static_cast<T>((i * 2654435761u >> 13) % 251 + 0.25 * (i % 7));
    const double voxels = double(kN) * kN * kN;
    for (int code : {1, 2, 6})
        for (int threads : {1, 2}) {
            vekSetNumThreads(threads);
            VekStatus st = vekStatusOk;
            if (f.wants("remap", code, threads)) {
                const double tr = vb::bestFor(0.25, [&] { st = remap(src, maps, dst, code); });
                if (st != vekStatusOk) std::fprintf(stderr, "remap status %d\n", st);
                std::printf("remap %s %d %d %.1f\n", name, code, threads, voxels / tr / 1e6);
            }
            for (const char* op : {"warp", "owarp"})
                if (f.wants(op, code, threads)) {
                    const double(*m)[4] = op[0] == 'w' ? a : oblique;
                    const double tw = vb::bestFor(0.25, [&] { st = warp(src, m, dst, code); });
                    if (st != vekStatusOk) std::fprintf(stderr, "%s status %d\n", op, st);
                    std::printf("%s %s %d %d %.1f\n", op, name, code, threads, voxels / tw / 1e6);
                }
            std::fflush(stdout);
        }
}

}  // namespace

int main(int argc, char** argv) {
    Filter f;
    if (argc > 1) f.op = argv[1];
    if (argc > 2) f.code = std::atoi(argv[2]);
    if (argc > 3) f.threads = std::atoi(argv[3]);
    int saved = 1;
    vekGetNumThreads(&saved);
    std::vector<Planar<float>> maps;
    for (int i = 0; i < 3; ++i) maps.emplace_back(kN);
    fillMaps(maps.data());
    double a[3][4], oblique[3][4];
    warpCoeffs(a, 0.0);
    warpCoeffs(oblique, 0.2);
    std::printf("# target %s\n", vb::targetName());
    runType<std::uint8_t>("8u", maps.data(), a, oblique, f);
    runType<float>("32f", maps.data(), a, oblique, f);
    vekSetNumThreads(saved);
    return 0;
}
