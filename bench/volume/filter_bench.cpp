// Throughput of the 16-bit volume convolution: cubic volumes of 128 and 256
// voxels a side, 3x3x3 and 5x5x5 kernels, one and two threads, in millions of
// destination voxels per second. Prints a markdown table, and with --raw one
// line per measurement for bench/volume/filter_run.sh.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "benchutil.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

struct Result {
    int n, k, threads;
    bool wide;
    double mvox;
};

// Filters an n^3 volume (with its (k - 1)-voxel neighbourhood, centred anchor)
// and returns the best throughput over about `seconds` of repeated calls.
Result measure(int n, int k, int threads, bool wide, double seconds) {
    vekSetNumThreads(threads);
    const int a = k / 2;
    const int side = n + k - 1;
    std::vector<std::int16_t> src(static_cast<std::size_t>(side) * side * side);
    std::uint32_t s = 12345;
    for (auto& v : src) {
        s = s * 1664525u + 1013904223u;
        v = static_cast<std::int16_t>(static_cast<int>(s >> 16) - 32768);
    }
    std::vector<const std::int16_t*> srcPlanes(side);
    for (int z = 0; z < side; ++z)
        srcPlanes[z] = src.data() + static_cast<std::size_t>(z) * side * side + (k - 1 - a) * side + (k - 1 - a);
    std::vector<std::int16_t> dst(static_cast<std::size_t>(n) * n * n);
    std::vector<std::int16_t*> dstPlanes(n);
    for (int z = 0; z < n; ++z) dstPlanes[z] = dst.data() + static_cast<std::size_t>(z) * n * n;

    std::vector<std::int32_t> kernel(static_cast<std::size_t>(k) * k * k);
    for (std::size_t i = 0; i < kernel.size(); ++i) kernel[i] = static_cast<std::int32_t>(i % 17) - 8;
    if (wide) kernel[0] = 1 << 16;  // outside the 16-bit packing range

    const VekrVolume dv{n, n, n}, kv{k, k, k};
    const VekrPoint3D anchor{a, a, a};
    int size = 0;
    vekrFilterGetBufSize(dv, kv, 1, &size);
    std::uint8_t* buffer = static_cast<std::uint8_t*>(vekMalloc(size));
    VekStatus status = vekStatusOk;
    const double t = vb::bestFor(seconds, [&] {
        status = vekrFilter_16s_C1PV(srcPlanes.data() + (k - 1 - a), side * 2, dstPlanes.data(), n * 2, dv,
                                     kernel.data(), kv, anchor, wide ? 1 << 16 : 27, buffer);
    });
    vekFree(buffer);
    if (status != vekStatusOk) std::fprintf(stderr, "filter failed: %d\n", status);
    return {n, k, threads, wide, static_cast<double>(n) * n * n / t / 1e6};
}

}  // namespace

int main(int argc, char** argv) {
    const bool raw = argc > 1 && std::strcmp(argv[1], "--raw") == 0;
    int saved = 1;
    vekGetNumThreads(&saved);
    std::vector<Result> results;
    for (int n : {128, 256})
        for (int k : {3, 5})
            for (int threads : {1, 2}) results.push_back(measure(n, k, threads, false, n == 128 ? 0.5 : 1.0));
    // The wide path (a coefficient beyond 16 bits) for comparison.
    for (int threads : {1, 2}) results.push_back(measure(128, 3, threads, true, 0.5));
    vekSetNumThreads(saved);

    if (raw) {
        for (const Result& r : results)
            std::printf("%s %d %d %d %s %.1f\n", vb::targetName(), r.n, r.k, r.threads, r.wide ? "wide" : "packed",
                        r.mvox);
        return 0;
    }
    std::printf("vekrFilter_16s_C1PV, %s, Mvox/s (destination voxels per second, best run)\n\n", vb::targetName());
    std::printf("| volume | kernel | path | 1 thread | 2 threads | 2T / 1T |\n|---|---|---|---|---|---|\n");
    for (std::size_t i = 0; i + 1 < results.size(); i += 2) {
        const Result& one = results[i];
        const Result& two = results[i + 1];
        std::printf("| %d^3 | %d^3 | %s | %.1f | %.1f | %.2f |\n", one.n, one.k, one.wide ? "wide" : "packed", one.mvox,
                    two.mvox, two.mvox / one.mvox);
    }
    std::printf("\npeak RSS %.0f MiB\n", vb::peakRssMiB());
    return 0;
}
