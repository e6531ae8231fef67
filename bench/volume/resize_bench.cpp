// Resize throughput: 128^3 -> 256^3 and 256^3 -> 128^3 for 8u, 16u and 32f
// with nearest, linear and Catmull-Rom cubic, in destination Mvoxel/s, with one
// thread and (for the float block resize, the one that splits its work) two.
// Prints a markdown table, or tab-separated records with --tsv.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "benchutil.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

struct Result {
    const char* type;
    int from, to, code, threads;
    double mvox;
};

// One whole-volume C1V resize of an sn^3 block into a dn^3 block.
template <class T, class Fn>
VekStatus resizeV(Fn fn, const T* src, int sn, T* dst, int dn, int code, std::uint8_t* buf) {
    const VekrVolume vol{sn, sn, sn};
    const VekrCuboid srcVoi{0, 0, 0, sn, sn, sn}, dstVoi{0, 0, 0, dn, dn, dn};
    const double f = double(dn) / sn;
    const int e = int(sizeof(T));
    return fn(src, vol, sn * e, sn * sn * e, srcVoi, dst, dn * e, dn * dn * e, dstVoi, f, f, f, 0, 0, 0, code, buf);
}
inline auto resizeFn(const std::uint8_t*) { return &vekrResize_8u_C1V; }
inline auto resizeFn(const std::uint16_t*) { return &vekrResize_16u_C1V; }
inline auto resizeFn(const float*) { return &vekrResize_32f_C1V; }

template <class T>
void run(const char* type, std::vector<Result>& out) {
    const int sizes[2][2] = {{128, 256}, {256, 128}};
    for (const auto& sz : sizes) {
        const int sn = sz[0], dn = sz[1];
        // 16-byte aligned blocks (vekMalloc) with packed rows: the vector path.
        const std::size_t srcCount = std::size_t(sn) * sn * sn, dstCount = std::size_t(dn) * dn * dn;
        T* src = static_cast<T*>(vekMalloc(int(srcCount * sizeof(T))));
        T* dst = static_cast<T*>(vekMalloc(int(dstCount * sizeof(T))));
        for (std::size_t i = 0; i < srcCount; ++i) src[i] = T((i * 2654435761u >> 13) % 200 + (i % 97) * 0.5f);
        std::memset(dst, 0, dstCount * sizeof(T));
        for (int code : {1, 2, 6}) {
            const bool threaded = sizeof(T) == 4;
            for (int threads : {1, 2}) {
                if (threads == 2 && !threaded) continue;
                vekSetNumThreads(threads);
                const VekrCuboid srcVoi{0, 0, 0, sn, sn, sn}, dstVoi{0, 0, 0, dn, dn, dn};
                int size = 0;
                vekrResizeGetBufSize(srcVoi, dstVoi, 1, code, &size);
                std::uint8_t* buf = static_cast<std::uint8_t*>(vekMalloc(size));
                // The best call over at least 0.4 s (a few calls for the large
                // destination, dozens for the small one).
                const double t = vb::bestFor(0.4, [&] { resizeV(resizeFn(src), src, sn, dst, dn, code, buf); });
                out.push_back({type, sn, dn, code, threads, double(dstCount) / t * 1e-6});
                vekFree(buf);
            }
        }
        vekFree(src);
        vekFree(dst);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const bool tsv = argc > 1 && std::strcmp(argv[1], "--tsv") == 0;
    int savedThreads = 1;
    vekGetNumThreads(&savedThreads);
    std::vector<Result> results;
    run<std::uint8_t>("8u", results);
    run<std::uint16_t>("16u", results);
    run<float>("32f", results);
    vekSetNumThreads(savedThreads);
    if (tsv) {
        for (const Result& r : results)
            std::printf("%s\t%s\t%d\t%d\t%d\t%d\t%.2f\n", vb::targetName(), r.type, r.from, r.to, r.code, r.threads,
                        r.mvox);
        return 0;
    }
    std::printf("Resize C1V, %s, destination Mvoxel/s (peak RSS %.0f MiB)\n\n", vb::targetName(), vb::peakRssMiB());
    std::printf("| type | size | code | 1 thread | 2 threads |\n|---|---|---|---:|---:|\n");
    for (std::size_t i = 0; i < results.size(); ++i) {
        const Result& r = results[i];
        if (r.threads != 1) continue;
        std::string two = "-";
        if (i + 1 < results.size() && results[i + 1].threads == 2) {
            char b[32];
            std::snprintf(b, sizeof b, "%.1f", results[i + 1].mvox);
            two = b;
        }
        std::printf("| %s | %d^3 -> %d^3 | %d | %.1f | %s |\n", r.type, r.from, r.to, r.code, r.mvox, two.c_str());
    }
    return 0;
}
