// Throughput of the ray-casting, hit-point, normal and shading operations, in
// rays per second, at 64 Ki rays (arrays cache-resident) and 16 Mi rays
// (memory-bound): on aligned arrays (the vector path), on arrays offset 4 bytes
// past a 16-byte boundary, and on offset arrays with a count that is not a
// multiple of 4 (the scalar path, where the operation has one), beside this
// machine's memcpy bandwidth measured in the same run. Prints a markdown table.
//
// Usage: bench_shading [--quick] [--small] [--only TEXT]...
//   --quick: 1 Mi rays instead of 16 Mi for the memory-bound columns;
//   --small: only the cache-resident columns (64 Ki and 1 Ki rays);
//   --only TEXT: only the operations whose name contains TEXT (repeatable).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "benchutil.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

// An aligned block of `count` arrays of n (+ padding) elements each.
template <class T>
class Arrays {
public:
    Arrays(int count, std::size_t n) : stride_((n + 64) & ~std::size_t(15)), count_(count) {
        void* p = nullptr;
        if (posix_memalign(&p, 64, stride_ * count * sizeof(T)) != 0) {
            std::fprintf(stderr, "out of memory\n");
            std::exit(1);
        }
        base_ = static_cast<T*>(p);
    }
    ~Arrays() { std::free(base_); }
    Arrays(const Arrays&) = delete;
    Arrays& operator=(const Arrays&) = delete;
    // Array k, shifted by `shift` elements (1: the offset-data case).
    T* at(int k, int shift = 0) { return base_ + stride_ * k + shift; }
    std::size_t stride() const { return stride_; }
    int count() const { return count_; }

private:
    std::size_t stride_;
    int count_;
    T* base_;
};

std::uint32_t gSeed = 12345;
inline float rnd(float lo, float hi) {
    gSeed = gSeed * 1664525u + 1013904223u;
    return lo + (hi - lo) * static_cast<float>(gSeed >> 8) * (1.0f / 16777216.0f);
}
inline int rndBelow(int n) {
    gSeed = gSeed * 1664525u + 1013904223u;
    return static_cast<int>((gSeed >> 8) % static_cast<std::uint32_t>(n));
}

// Twelve float arrays, three int arrays (mask, triangle index, the shadow
// rays' own mask, which the call rewrites) and the four-int triangle records
// for the triangle-normal pass, for n rays; the same values for every n.
struct Rays {
    Arrays<float> f;
    Arrays<std::int32_t> iv;
    std::vector<std::int32_t> tri;
    Rays(int n, int numTable) : f(12, n), iv(3, n), tri(4 * static_cast<std::size_t>(n) + 64) {
        gSeed = 12345;
        for (int k = 0; k < 12; ++k)
            for (std::size_t i = 0; i < f.stride(); ++i) f.at(k)[i] = rnd(-1.0f, 1.0f);
        for (std::size_t i = 0; i < iv.stride(); ++i) {
            iv.at(0)[i] = rndBelow(10) == 0 ? -1 : 0;  // 10% masked
            // Triangle hits are coherent, as neighbouring eye rays' are: runs of
            // about 16 rays on one of a few neighbouring triangles, and the
            // misses (10%) in runs of 32 rays where the rays pass the object.
            const bool miss = ((i / 32) * 2654435761u >> 16) % 10 == 0;
            iv.at(1)[i] = miss ? -1 : static_cast<int>((i / 16 + rndBelow(4)) % numTable);
            iv.at(2)[i] = iv.at(0)[i];
        }
        // Factors of +-1 for the in-place multiply and divide, so that repeated
        // runs neither overflow nor sink into denormals.
        for (std::size_t i = 0; i < f.stride(); ++i) f.at(11)[i] = rndBelow(2) ? 1.0f : -1.0f;
        // Triangles over a strip of n/2 + 2 vertices (vertex table in arrays 3 and 4).
        for (int t = 0; t < n; ++t) {
            const int a = t / 2;
            tri[4 * t] = a;
            tri[4 * t + 1] = a + 1 + (t & 1);
            tri[4 * t + 2] = a + 2 - (t & 1);
            tri[4 * t + 3] = 0;
        }
    }
};

struct Op {
    const char* name;
    int bytesPerRay;         // bytes the call reads and writes per ray (lookup tables excluded)
    const char* offsetRuns;  // the code that offset arrays take
    const char* scalarRuns;  // the code that offset arrays and an odd count take
    // Runs the operation on about n rays, the arrays shifted by `shift` floats;
    // returns the number of rays processed.
    std::function<double(Rays& R, int n, int shift)> run;
};

}  // namespace

int main(int argc, char** argv) {
    bool quick = false, smallOnly = false;
    std::vector<std::string> only;
    for (int a = 1; a < argc; ++a) {
        if (std::strcmp(argv[a], "--quick") == 0) {
            quick = true;
        } else if (std::strcmp(argv[a], "--small") == 0) {
            smallOnly = true;
        } else if (std::strcmp(argv[a], "--only") == 0 && a + 1 < argc) {
            only.push_back(argv[++a]);
        } else {
            std::fprintf(stderr, "usage: %s [--quick] [--small] [--only TEXT]...\n", argv[0]);
            return 2;
        }
    }
    auto selected = [&](const char* name) {
        if (only.empty()) return true;
        for (const auto& t : only)
            if (std::strstr(name, t.c_str()) != nullptr) return true;
        return false;
    };
    const int nTiny = 1024;
    const int nSmall = 64 * 1024;
    // --small still allocates a little more than 64 Ki rays for the triangle-normal pass.
    const int nLarge = smallOnly ? nSmall : quick ? 1024 * 1024 : 16 * 1024 * 1024;
    const int numTable = 64 * 1024;  // triangles of the normal lookup tables

    // The cache-resident cases get arrays of their own size, as a caller with
    // that many rays has; carving them out of the large arrays would place
    // the twelve streams 64 MiB apart and measure cache-set conflicts instead.
    Rays large(nLarge, numTable);
    Rays small(smallOnly ? 0 : nSmall, numTable);
    Rays& cached = smallOnly ? large : small;
    std::vector<float> triNorm(3 * numTable), vertNorm(3 * numTable);
    for (auto& x : triNorm) x = rnd(-1, 1);
    for (auto& x : vertNorm) x = rnd(-1, 1);
    std::vector<std::int32_t> tableTriVert(4 * numTable);
    for (int t = 0; t < numTable; ++t)
        for (int k = 0; k < 4; ++k) tableTriVert[4 * t + k] = (t / 2 + k) % numTable;  // a strip

    const float light[3] = {0.5f, 2.0f, -1.0f}, color[3] = {0.9f, 0.7f, 0.2f};
    const float origin[3] = {-1.0f, -1.0f, 1.0f}, stepX[3] = {0.001f, 0.0f, 0.0f}, stepY[3] = {0.0f, 0.001f, 0.0f};

    auto p3 = [&](Rays& R, int k, int s) {
        struct P {
            float* p[3];
        } r{{R.f.at(k, s), R.f.at(k + 1, s), R.f.at(k + 2, s)}};
        return r;
    };
    std::vector<Op> ops;
    ops.push_back({"vekrCastEye_32f", 12, "unaligned 4-wide", "scalar", [&](Rays& R, int n, int s) {
                       auto d = p3(R, 0, s);
                       // Rows of 256 rays, or 255 (not a multiple of 4) for an odd count.
                       const int w = n % 4 == 0 ? 256 : 255;
                       vekrCastEye_32f(origin, stepX, stepY, 1, 2, 256, 256, d.p, w, n / 256);
                       return static_cast<double>(w) * (n / 256);
                   }});
    ops.push_back({"vekrCastReflectionRay_32f", 40, "unaligned 4-wide", "scalar", [&](Rays& R, int n, int s) {
                       auto a = p3(R, 0, s), b = p3(R, 3, s), o = p3(R, 6, s);
                       vekrCastReflectionRay_32f(a.p, R.iv.at(0, s), b.p, o.p, n);
                       return static_cast<double>(n);
                   }});
    ops.push_back({"vekrCastShadowSO_32f", 52, "unaligned 4-wide", "unaligned 4-wide", [&](Rays& R, int n, int s) {
                       auto nr = p3(R, 0, s), h = p3(R, 3, s), o = p3(R, 6, s);
                       vekrCastShadowSO_32f(light, R.f.at(9, s), nr.p, h.p, R.iv.at(2, s), R.f.at(10, s), o.p, n);
                       return static_cast<double>(n);
                   }});
    ops.push_back({"vekrHitPoint3DEpsS0_32f_M", 32, "scalar", "scalar", [&](Rays& R, int n, int s) {
                       auto d = p3(R, 0, s), o = p3(R, 6, s);
                       vekrHitPoint3DEpsS0_32f_M(origin, d.p, R.f.at(9, s), R.iv.at(0, s), o.p, n, 0.9999f);
                       return static_cast<double>(n);
                   }});
    ops.push_back({"vekrHitPoint3DEpsM0_32f_M", 44, "scalar", "scalar", [&](Rays& R, int n, int s) {
                       auto org = p3(R, 3, s), d = p3(R, 0, s), o = p3(R, 6, s);
                       vekrHitPoint3DEpsM0_32f_M(org.p, d.p, R.f.at(9, s), R.iv.at(0, s), o.p, n, 0.9999f);
                       return static_cast<double>(n);
                   }});
    ops.push_back({"vekrSurfFlatNormal_32f", 16, "scalar", "scalar", [&](Rays& R, int n, int s) {
                       auto o = p3(R, 6, s);
                       vekrSurfFlatNormal_32f(triNorm.data(), R.iv.at(1, s), o.p, n);
                       return static_cast<double>(n);
                   }});
    ops.push_back({"vekrSurfSmoothNormal_32f", 24, "scalar", "scalar", [&](Rays& R, int n, int s) {
                       auto o = p3(R, 6, s);
                       const float* uv[2] = {R.f.at(9, s), R.f.at(10, s)};
                       vekrSurfSmoothNormal_32f(vertNorm.data(), tableTriVert.data(), R.iv.at(1, s), uv, o.p, n, 4);
                       return static_cast<double>(n);
                   }});
    // Triangle normals on one thread and on the library's thread count.
    const int numThreads = ownGetNumThreads();
    for (int threads : {1, numThreads}) {
        if (threads == 1 && numThreads == 1) continue;
        ops.push_back({threads == 1 ? "vekrTriangleNormal_32f, 1 thread" : "vekrTriangleNormal_32f, all threads", 34,
                       "-", "-", [&, threads](Rays& R, int n, int) {
                           vekSetNumThreads(threads);
                           vekrTriangleNormal_32f(R.f.at(3), R.tri.data(), R.f.at(6), n);
                           vekSetNumThreads(numThreads);
                           return static_cast<double>(n);
                       }});
    }
    ops.push_back({"vekrDot_32f_P3C1M", 32, "scalar", "scalar", [&](Rays& R, int n, int s) {
                       auto a = p3(R, 0, s), b = p3(R, 3, s);
                       vekrDot_32f_P3C1M(a.p, b.p, R.iv.at(0, s), R.f.at(9, s), n);
                       return static_cast<double>(n);
                   }});
    ops.push_back({"vekrDotChangeNorm_32f_IM", 44, "scalar", "scalar", [&](Rays& R, int n, int s) {
                       auto a = p3(R, 0, s), b = p3(R, 3, s);
                       vekrDotChangeNorm_32f_IM(a.p, R.iv.at(0, s), b.p, R.f.at(9, s), n);
                       return static_cast<double>(n);
                   }});
    ops.push_back({"vekrDistAttenuationSO_32f_M", 20, "scalar", "scalar", [&](Rays& R, int n, int s) {
                       auto a = p3(R, 0, s);
                       vekrDistAttenuationSO_32f_M(light, a.p, R.iv.at(0, s), R.f.at(9, s), n);
                       return static_cast<double>(n);
                   }});
    ops.push_back({"vekrMul_32f_C1IM", 16, "peeled 4-wide", "peeled 4-wide", [&](Rays& R, int n, int s) {
                       vekrMul_32f_C1IM(R.f.at(11, s), R.iv.at(0, s), R.f.at(9, s), n);
                       return static_cast<double>(n);
                   }});
    ops.push_back({"vekrMul_32f_C1P3IM", 32, "peeled 4-wide", "peeled 4-wide", [&](Rays& R, int n, int s) {
                       auto d = p3(R, 6, s);
                       vekrMul_32f_C1P3IM(R.f.at(11, s), R.iv.at(0, s), d.p, n);
                       return static_cast<double>(n);
                   }});
    ops.push_back({"vekrDiv_32f_C1IM", 16, "peeled 4-wide", "peeled 4-wide", [&](Rays& R, int n, int s) {
                       vekrDiv_32f_C1IM(R.f.at(11, s), R.iv.at(0, s), R.f.at(9, s), n);
                       return static_cast<double>(n);
                   }});
    ops.push_back({"vekrAddMulMul_32f_AC1P3IM", 44, "peeled 4-wide", "peeled 4-wide", [&](Rays& R, int n, int s) {
                       auto a = p3(R, 0, s), d = p3(R, 6, s);
                       vekrAddMulMul_32f_AC1P3IM(color, R.f.at(9, s), a.p, R.iv.at(0, s), d.p, n);
                       return static_cast<double>(n);
                   }});

    // memcpy bandwidth (bytes read plus bytes written) of four arrays' worth,
    // from arrays 0..3 to 4..7, measured again beside every operation so that
    // a busy machine slows both alike.
    const std::size_t copyBytes = large.f.stride() * 4 * sizeof(float);
    auto memcpyGBs = [&] {
        const double t = vb::bestOf(3, [&] { std::memcpy(large.f.at(4), large.f.at(0), copyBytes); });
        return 2.0 * copyBytes / t / 1e9;
    };
    const double memcpyFirst = memcpyGBs();
    // The same for the cache-resident arrays: eight 64 Ki arrays (2 MiB), read
    // from arrays 0..3 and written to 4..7, which is about what the
    // operations move per call; the caches' streaming rate bounds them.
    const std::size_t cachedCopyBytes = cached.f.stride() * 4 * sizeof(float);
    const double cachedCopy =
        2.0 * cachedCopyBytes /
        vb::bestFor(0.08, [&] { std::memcpy(cached.f.at(4), cached.f.at(0), cachedCopyBytes); }) / 1e9;

    std::printf("### %s (all threads: %d)\n\n", vb::targetName(), numThreads);
    std::printf("memcpy of %zu MiB: %.2f GB/s (bytes read + written) at the start; of %zu KiB (cache-resident): %.1f GB/s\n\n",
                copyBytes >> 20, memcpyFirst, cachedCopyBytes >> 10, cachedCopy);
    const char* big = quick ? "1Mi" : "16Mi";
    std::printf(
        "| operation | B/ray | 64Ki vector | 64Ki offset | 64Ki scalar | offset runs | scalar runs | "
        "vector / scalar | 64Ki vector GB/s | 1Ki vector / scalar (vector / scalar Mrays/s) | %s vector | %s offset | %s vector GB/s | memcpy GB/s | %% of memcpy "
        "|\n",
        big, big, big);
    std::printf("|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n");
    for (const Op& op : ops) {
        if (!selected(op.name)) continue;
        // Rays per second of one case: the best time over a stretch of calls
        // (cache-resident) or of a few calls (memory-bound).
        auto rate = [&](int n, int shift, bool isLarge) {
            double rays = 0;
            const double t = isLarge ? vb::bestOf(2, [&] { rays = op.run(large, n, shift); })
                                     : vb::bestFor(0.08, [&] { rays = op.run(cached, n, shift); });
            return rays / t;
        };
        const bool paths = std::strcmp(op.offsetRuns, "-") != 0;
        const double smallVec = rate(nSmall, 0, false);
        const double smallOff = paths ? rate(nSmall, 1, false) : 0;
        const double smallScalar = paths ? rate(nSmall - 1, 1, false) : 0;
        // 1Ki rays stay in the first-level cache: the arithmetic alone.
        const double tinyVec = rate(nTiny, 0, false);
        const double tinyScalar = paths ? rate(nTiny - 1, 1, false) : 0;
        const double copy = smallOnly ? 0 : memcpyGBs();
        const double largeVec = smallOnly ? 0 : rate(nLarge, 0, true);
        const double largeOff = paths && !smallOnly ? rate(nLarge, 1, true) : 0;
        const double gbs = largeVec * op.bytesPerRay / 1e9;
        auto mrays = [&](double r) {
            return paths || r > 0 ? std::to_string(static_cast<long>(r / 1e6 + 0.5)) : std::string("-");
        };
        char speedup[32] = "-", tinySpeedup[64] = "-";
        if (paths) std::snprintf(speedup, sizeof speedup, "%.2fx", smallVec / smallScalar);
        if (paths)
            std::snprintf(tinySpeedup, sizeof tinySpeedup, "%.2fx (%s / %s)", tinyVec / tinyScalar,
                          mrays(tinyVec).c_str(), mrays(tinyScalar).c_str());
        char bigCols[160] = "- | - | - | - | -";
        if (!smallOnly)
            std::snprintf(bigCols, sizeof bigCols, "%s | %s | %.1f | %.1f | %.0f%%", mrays(largeVec).c_str(),
                          mrays(largeOff).c_str(), gbs, copy, 100.0 * gbs / copy);
        std::printf("| %s | %d | %s | %s | %s | %s | %s | %s | %.0f | %s | %s |\n", op.name, op.bytesPerRay,
                    mrays(smallVec).c_str(), mrays(smallOff).c_str(), mrays(smallScalar).c_str(), op.offsetRuns,
                    op.scalarRuns, speedup, smallVec * op.bytesPerRay / 1e9, tinySpeedup, bigCols);
        std::fflush(stdout);
    }
    std::printf("\nRates in millions of rays per second (triangles for vekrTriangleNormal_32f). Peak RSS %.0f MiB.\n\n",
                vb::peakRssMiB());
    return 0;
}
