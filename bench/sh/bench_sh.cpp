// Throughput of the spherical-harmonics evaluation: directions per second for
// orders 3 and 15, both state types, on the vector path (aligned arrays, count
// a multiple of 4) and the scalar path (arrays 4 bytes off alignment), plus the
// forward and inverse one-channel transforms. Prints markdown table rows.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "benchutil.h"
#include "vekr.h"

namespace {

// An array of n floats placed `off` bytes past a 16-byte boundary.
struct Arr {
    std::vector<float> raw;
    float* p;
    Arr(std::size_t n, std::size_t off) : raw(n + 8) {
        std::uintptr_t a = (reinterpret_cast<std::uintptr_t>(raw.data()) + 15) & ~std::uintptr_t(15);
        p = reinterpret_cast<float*>(a + off);
    }
};

struct State {
    std::vector<float> raw;
    VekrSHState* p;
    State(unsigned order, unsigned type) {
        int size = 0;
        vekrSHGetSize_32f(order, type, &size);
        raw.resize(size / 4 + 8);
        p = reinterpret_cast<VekrSHState*>((reinterpret_cast<std::uintptr_t>(raw.data()) + 15) & ~std::uintptr_t(15));
        vekrSHInit_32f(p, order, type);
    }
};

}  // namespace

int main() {
    const char* target = vb::targetName();
    // Batches sized so the output stays in the cache (16 KiB at order 3 per
    // 1024 directions, 1 MiB at order 15).
    for (unsigned order : {3u, 15u}) {
        const int count = order == 3 ? 4096 : 1024;
        const int n = static_cast<int>((order + 1) * (order + 1));
        for (unsigned type : {0u, 1u}) {
            State st(order, type);
            for (std::size_t off : {std::size_t(0), std::size_t(4)}) {
                Arr x(count, off), y(count, off), z(count, off), out(static_cast<std::size_t>(count) * n, off);
                for (int i = 0; i < count; ++i) {
                    const double zz = -1.0 + 2.0 * (i + 0.5) / count, phi = 2.399963 * i;
                    const double s = std::sqrt(1 - zz * zz);
                    x.p[i] = static_cast<float>(s * std::cos(phi));
                    y.p[i] = static_cast<float>(s * std::sin(phi));
                    z.p[i] = static_cast<float>(zz);
                }
                const double t = vb::bestFor(0.3, [&] { vekrSH_32f(x.p, y.p, z.p, count, out.p, order, st.p); });
                std::printf("| %s | vekrSH_32f | %u | %s | %s | %.1f |\n", target, order,
                            type == 0 ? "closed form" : "recurrence", off == 0 ? "vector" : "scalar",
                            count / t * 1e-6);
            }
            // Transforms (scalar per direction by design).
            Arr x(count, 0), y(count, 0), z(count, 0), v(count, 0), c(n, 0);
            for (int i = 0; i < count; ++i) {
                x.p[i] = 0.6f;
                y.p[i] = 0.0f;
                z.p[i] = 0.8f;
                v.p[i] = 0.5f;
            }
            for (int k = 0; k < n; ++k) c.p[k] = 0.0f;
            const double tf =
                vb::bestFor(0.2, [&] { vekrSHTFwd_32f_C1I(x.p, y.p, z.p, v.p, count, c.p, order, st.p); });
            std::printf("| %s | vekrSHTFwd_32f_C1I | %u | %s | - | %.1f |\n", target, order,
                        type == 0 ? "closed form" : "recurrence", count / tf * 1e-6);
            const double ti =
                vb::bestFor(0.2, [&] { vekrSHTInv_32f_C1(c.p, order, x.p, y.p, z.p, v.p, count, st.p); });
            std::printf("| %s | vekrSHTInv_32f_C1 | %u | %s | - | %.1f |\n", target, order,
                        type == 0 ? "closed form" : "recurrence", count / ti * 1e-6);
        }
    }
    return 0;
}
