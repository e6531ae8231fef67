// Digests of every volume operation's output on fixed pseudo-random inputs,
// held against tests/volume/volume_digests.txt: any change in any output bit
// of resize (block and plane layouts), remap, affine warp (3-D and one-plane
// sources) or the 16-bit convolution fails here, whichever kernel path made
// it. The inputs cover the vector paths (aligned rows and planes, widths that
// are multiples of 4) and the scalar ones (odd widths, rows and planes off
// 16-byte boundaries), regions not starting at 0, edge and tie coordinates,
// sources small enough to lower the interpolation, and 1, 2 and 3 threads.
// Each digest is FNV-1a 64 over the status and every byte of the destination
// allocation (rows' padding and the voxels the call leaves alone included),
// which was filled with pseudo-random bytes before the call; float NaNs are
// hashed as one pattern (see Vol::bytesDigest).
//
//   test_volume_digest            checks against the file
//   test_volume_digest --write F  writes the digests of this build to F
//   test_volume_digest --dump NAME F   writes the destination bytes of case NAME to F
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "vekcore.h"
#include "vekr.h"

#ifndef VEKR_VOLUME_DIGEST_FILE
#error "VEKR_VOLUME_DIGEST_FILE must name the digest file"
#endif

namespace {

// splitmix64: the same sequence on every target and compiler.
class Rng {
public:
    explicit Rng(std::uint64_t seed) : s_(seed) {}
    std::uint64_t next() {
        std::uint64_t z = (s_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    int below(int n) { return static_cast<int>(next() % static_cast<std::uint64_t>(n)); }
    // A multiple of 1/1024 in [lo, hi): exact in float, no rounding choices.
    float grid(int lo, int hi) { return static_cast<float>(lo * 1024 + below((hi - lo) * 1024)) / 1024.0f; }

private:
    std::uint64_t s_;
};

struct Fnv {
    std::uint64_t h = 0xcbf29ce484222325ull;
    void add(const void* p, std::size_t n) {
        const unsigned char* b = static_cast<const unsigned char*>(p);
        for (std::size_t i = 0; i < n; ++i) h = (h ^ b[i]) * 0x100000001b3ull;
    }
};

// A volume of w x h x d voxels in one allocation. Aligned: rows a multiple of
// 16 bytes, every plane on a 16-byte boundary (the vector paths' layout).
// Odd: rows a few voxels longer and not a multiple of 16 bytes, planes one
// element past a boundary. Scattered: planes stored in reverse order with
// gaps (only the plane-pointer functions take it). The bytes hashed are the
// whole span from the first stored plane, independent of where it lies.
template <class T>
struct Vol {
    int w, h, d, step, planeStep;
    std::vector<unsigned char> raw;
    unsigned char* base;
    std::size_t span;
    std::vector<T*> planes;

    Vol(int w_, int h_, int d_, bool aligned, bool scattered) : w(w_), h(h_), d(d_) {
        const int e = static_cast<int>(sizeof(T));
        if (aligned) {
            step = (w * e + 15) / 16 * 16;
        } else {
            step = (w + 3) * e;
            if (step % 16 == 0) step += e;
        }
        planeStep = step * h;
        const std::size_t stride = scattered ? (static_cast<std::size_t>(planeStep) + 15) / 16 * 16 + 48
                                             : static_cast<std::size_t>(planeStep);
        const std::size_t offset = aligned ? 0 : e;
        span = stride * d + offset;
        raw.assign(span + 64, 0);
        base = raw.data() + ((64 - reinterpret_cast<std::uintptr_t>(raw.data()) % 64) % 64);
        planes.resize(d);
        for (int z = 0; z < d; ++z)
            planes[z] = reinterpret_cast<T*>(base + offset + (scattered ? stride * (d - 1 - z) : stride * z));
    }
    Vol(const Vol&) = delete;
    T* row(int y, int z) { return reinterpret_cast<T*>(reinterpret_cast<unsigned char*>(planes[z]) + y * step); }
    const T* const* cplanes() const { return const_cast<const T* const*>(planes.data()); }
    VekrVolume size() const { return VekrVolume{w, h, d}; }

    // Destinations: every byte of the span from the generator.
    void fillBytes(Rng& r) {
        for (std::size_t i = 0; i < span; ++i) base[i] = static_cast<unsigned char>(r.next() >> 56);
    }
    // Sources: voxel values over the type's range (floats: multiples of
    // 1/1024 in [-40, 300), now and then far outside it, NaN, an infinity,
    // -0 or a denormal).
    void fillValues(Rng& r) {
        for (int z = 0; z < d; ++z)
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) row(y, z)[x] = value(r);
    }
    static T value(Rng& r) {
        if constexpr (std::is_integral<T>::value) {
            return static_cast<T>(r.next() >> 40);
        } else {
            // Now and then a special value: the outputs that touch it must
            // keep their bits too.
            if (r.below(256) == 0) {
                const float special[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                                         -std::numeric_limits<float>::infinity(), -0.0f, 1e-40f, -3e-39f};
                return special[r.below(6)];
            }
            if (r.below(64) == 0) return r.grid(-100000, 100000);
            return r.grid(-40, 300);
        }
    }
    // Float destinations hash every NaN as one pattern: which NaN an
    // operation returns when a NaN input meets a NaN it creates (inf - inf,
    // 0 * inf) depends on the operand order the compiler picks for a
    // commutative operation, and the i386 and x86-64 builds pick differently.
    // That a voxel is NaN still counts.
    std::uint64_t bytesDigest() const {
        Fnv f;
        if constexpr (std::is_same<T, float>::value) {
            // Floats lie on 4-byte steps from base in both layouts.
            for (std::size_t i = 0; i + 4 <= span; i += 4) {
                std::uint32_t u;
                std::memcpy(&u, base + i, 4);
                if ((u & 0x7fffffffu) > 0x7f800000u) u = 0x7fc00000u;
                f.add(&u, 4);
            }
            f.add(base + span / 4 * 4, span % 4);
        } else {
            f.add(base, span);
        }
        return f.h;
    }
    std::uint64_t digest(int status) const {
        Fnv f;
        f.add(&status, sizeof status);
        const std::uint64_t bytes = bytesDigest();
        f.add(&bytes, sizeof bytes);
        return f.h;
    }
};

// --dump NAME FILE: the case whose destination bytes go to FILE (to find
// which voxels differ between two builds).
struct DumpRequest {
    std::string name, file;
};
DumpRequest& dumpRequest() {
    static DumpRequest request;
    return request;
}

// One case's outcome: its digest, the call's status and whether the call
// changed any byte of the destination.
struct Outcome {
    std::string first;
    std::uint64_t second;
    int status;
    bool changed;
};
// The outcomes of one run, in the order computed.
struct Digests : std::vector<Outcome> {
    template <class T>
    void record(const std::string& name, const Vol<T>& dst, std::uint64_t before, int status) {
        const std::uint64_t after = dst.digest(status);
        if (name == dumpRequest().name) {
            if (std::FILE* f = std::fopen(dumpRequest().file.c_str(), "wb")) {
                std::fwrite(dst.base, 1, dst.span, f);
                std::fclose(f);
            }
        }
        push_back(Outcome{name, after, status, dst.bytesDigest() != before});
    }
};

template <class T>
const char* typeName() {
    return std::is_same<T, std::uint8_t>::value ? "8u" : std::is_same<T, std::uint16_t>::value ? "16u" : "32f";
}

const int kCodes[] = {vekrInterNearest, vekrInterLinear,         vekrInterCubic,
                      vekrInterCubicBSpline, vekrInterCubicCatmullRom, vekrInterCubicB05C03};
const int kThreads[] = {1, 2, 3};

std::string caseName(const char* op, const char* type, const std::string& geometry, bool aligned, int code,
                     int threads) {
    std::ostringstream s;
    s << op << ' ' << type << ' ' << geometry << (aligned ? " aligned" : " odd") << " code" << code << " t" << threads;
    return s.str();
}

std::uint64_t seedOf(const std::string& name) {
    // Inputs depend on the case but not on the thread count, so the digests
    // of t1, t2 and t3 must agree.
    Fnv f;
    f.add(name.data(), name.rfind(" t"));
    return f.h;
}

// ---------------------------------------------------------------- resize

struct ResizeGeometry {
    const char* name;
    VekrVolume src;
    VekrCuboid srcVoi;
    double f[3], s[3];
    VekrCuboid dstVoi;  // odd layouts; aligned ones take the written region, width cut to a multiple of 4
};

// Up, down and mixed factors with shifts; source regions inside the volume
// and running past it (cut back); destination regions starting past 0 and
// limiting what is written. Every written region is at least 16 voxels in
// each axis where the factors allow, so the 32f block resize runs threaded.
const ResizeGeometry kResize[] = {
    {"up", {13, 11, 10}, {1, 2, 1, 11, 8, 8}, {2.0, 2.5, 2.25}, {0, 0, 0}, {0, 0, 0, 23, 21, 19}},
    {"down", {41, 37, 35}, {3, 1, 2, 36, 35, 33}, {0.5, 0.45, 0.6}, {0.3, -0.7, 0.25}, {1, 0, 2, 20, 17, 21}},
    {"mixed", {19, 23, 14}, {4, 5, 2, 30, 30, 30}, {1.37, 0.81, 1.5}, {-1.7, 2.2, 0.5}, {2, 3, 1, 18, 17, 16}},
    {"unit", {20, 17, 17}, {0, 0, 0, 20, 17, 17}, {1.0, 1.0, 1.0}, {0.5, -0.5, 0.0}, {0, 0, 0, 21, 18, 17}},
};

template <class T>
VekStatus resizeCall(bool planar, const Vol<T>& s, VekrVolume sv, const VekrCuboid& voi, Vol<T>& d,
                     const VekrCuboid& dvoi, const ResizeGeometry& g, int code, std::uint8_t* buf) {
    const double* f = g.f;
    const double* h = g.s;
    if (planar) {
        if constexpr (std::is_same<T, std::uint8_t>::value)
            return vekrResize_8u_C1PV(s.cplanes(), sv, s.step, voi, d.planes.data(), d.step, dvoi, f[0], f[1], f[2],
                                      h[0], h[1], h[2], code, buf);
        else if constexpr (std::is_same<T, std::uint16_t>::value)
            return vekrResize_16u_C1PV(s.cplanes(), sv, s.step, voi, d.planes.data(), d.step, dvoi, f[0], f[1], f[2],
                                       h[0], h[1], h[2], code, buf);
        else
            return vekrResize_32f_C1PV(s.cplanes(), sv, s.step, voi, d.planes.data(), d.step, dvoi, f[0], f[1], f[2],
                                       h[0], h[1], h[2], code, buf);
    }
    if constexpr (std::is_same<T, std::uint8_t>::value)
        return vekrResize_8u_C1V(s.planes[0], sv, s.step, s.planeStep, voi, d.planes[0], d.step, d.planeStep, dvoi,
                                 f[0], f[1], f[2], h[0], h[1], h[2], code, buf);
    else if constexpr (std::is_same<T, std::uint16_t>::value)
        return vekrResize_16u_C1V(s.planes[0], sv, s.step, s.planeStep, voi, d.planes[0], d.step, d.planeStep, dvoi,
                                  f[0], f[1], f[2], h[0], h[1], h[2], code, buf);
    else
        return vekrResize_32f_C1V(s.planes[0], sv, s.step, s.planeStep, voi, d.planes[0], d.step, d.planeStep, dvoi,
                                  f[0], f[1], f[2], h[0], h[1], h[2], code, buf);
}

template <class T>
void resizeDigests(Digests& out) {
    for (bool planar : {false, true})
        for (const ResizeGeometry& g : kResize)
            for (bool aligned : {true, false})
                for (int code : kCodes) {
                    VekrCuboid dvoi = g.dstVoi;
                    if (aligned) {
                        VekrCuboid region{};
                        if (vekrGetResizeCuboid(g.srcVoi, &region, g.f[0], g.f[1], g.f[2], g.s[0], g.s[1], g.s[2],
                                                code) != vekStatusOk)
                            continue;
                        dvoi = region;
                        dvoi.width = region.width / 4 * 4;
                    }
                    for (int threads : kThreads) {
                        vekSetNumThreads(threads);
                        const std::string name = caseName(planar ? "resize C1PV" : "resize C1V", typeName<T>(),
                                                          g.name, aligned, code, threads);
                        Rng rng(seedOf(name));
                        Vol<T> src(g.src.width, g.src.height, g.src.depth, aligned, planar);
                        Vol<T> dst(dvoi.x + dvoi.width, dvoi.y + dvoi.height, dvoi.z + dvoi.depth, aligned, planar);
                        src.fillValues(rng);
                        dst.fillBytes(rng);
                        int size = 0;
                        VekStatus st = vekrResizeGetBufSize(g.srcVoi, dvoi, 1, code, &size);
                        std::vector<std::uint8_t> buf(static_cast<std::size_t>(size > 0 ? size : 1) + 16);
                        std::uint8_t* b = buf.data() + (16 - reinterpret_cast<std::uintptr_t>(buf.data()) % 16) % 16;
                        const std::uint64_t before = dst.bytesDigest();
                        if (st == vekStatusOk) st = resizeCall<T>(planar, src, g.src, g.srcVoi, dst, dvoi, g, code, b);
                        out.record(name, dst, before, st);
                    }
                }
}

// ---------------------------------------------------------------- remap and warp

// Sources, their regions and destination sizes. "plane" sources are one
// plane deep (the single-plane kernels); "thin" and "line" are small enough on
// one axis to lower cubic codes to linear and every code to nearest.
struct ResampleGeometry {
    const char* name;
    VekrVolume src;
    VekrCuboid srcVoi;
    VekrVolume dst;  // odd layouts; aligned ones use the width rounded down to a multiple of 4
    bool evenPlanes; // source planes one block (evenly spaced), or scattered
};

const ResampleGeometry kResample[] = {
    {"volume", {23, 19, 18}, {2, 1, 1, 20, 17, 16}, {21, 18, 17}, true},
    {"volume-scattered", {22, 20, 17}, {3, 2, 2, 40, 40, 40}, {18, 19, 16}, false},
    {"plane", {57, 43, 1}, {1, 2, 0, 54, 40, 1}, {69, 37, 2}, false},
    {"plane-wide", {150, 97, 1}, {0, 0, 0, 150, 97, 1}, {141, 101, 1}, false},
    {"thin", {3, 9, 8}, {0, 0, 0, 3, 9, 8}, {17, 16, 16}, true},
    {"line", {1, 12, 7}, {0, 0, 0, 1, 12, 7}, {9, 10, 5}, false},
};

// Maps: an inverse rotation about the region's centre with some scale, plus a
// small jitter; one point in 16 is special: exactly on a voxel, on the
// region's first or last voxel, half-way between voxels (ties), just outside,
// far outside, or (not for nearest) NaN.
void fillMaps(Vol<float> m[3], const VekrVolume& src, const VekrCuboid& voi, int code, Rng& r) {
    const double cx = voi.x + 0.5 * (voi.width - 1), cy = voi.y + 0.5 * (voi.height - 1),
                 cz = src.depth == 1 ? 0 : voi.z + 0.5 * (voi.depth - 1);
    const double dcx = 0.5 * (m[0].w - 1), dcy = 0.5 * (m[0].h - 1), dcz = 0.5 * (m[0].d - 1);
    // cos and sin of 0.35 rad, written out so no libm call is involved.
    const double c = 0.9393727128473789 * 1.08, s = 0.34289780745545134 * 1.08;
    const int last[3] = {voi.x + voi.width - 1, voi.y + voi.height - 1, voi.z + voi.depth - 1};
    const int first[3] = {voi.x, voi.y, voi.z};
    for (int z = 0; z < m[0].d; ++z)
        for (int y = 0; y < m[0].h; ++y)
            for (int x = 0; x < m[0].w; ++x) {
                const double dx = x - dcx, dy = y - dcy, dz = z - dcz;
                double p[3] = {cx + c * dx - s * dy, cy + s * dx + c * dy, cz + 0.9 * dz + 0.1 * dx};
                for (int a = 0; a < 3; ++a) {
                    float v = static_cast<float>(p[a]) + r.grid(-1, 1) / 4;
                    if (r.below(16) == 0) {
                        const int lo = a == 0 ? first[0] : a == 1 ? first[1] : first[2];
                        const int hi = a == 0 ? last[0] : a == 1 ? last[1] : last[2];
                        switch (r.below(code == vekrInterNearest ? 8 : 9)) {
                            case 0: v = static_cast<float>(lo + r.below(hi - lo + 1)); break;
                            case 1: v = static_cast<float>(lo); break;
                            case 2: v = static_cast<float>(hi); break;
                            case 3: v = static_cast<float>(lo + r.below(hi - lo + 1)) + 0.5f; break;
                            case 4: v = static_cast<float>(lo) - 0.0009765625f; break;
                            case 5: v = static_cast<float>(hi) + 0.0009765625f; break;
                            case 6: v = r.below(2) ? 3.0e9f : -3.0e9f; break;
                            case 7: v = static_cast<float>(lo) - 0.5f; break;
                            default: v = std::numeric_limits<float>::quiet_NaN(); break;
                        }
                    }
                    m[a].row(y, z)[x] = v;
                }
            }
}

template <class T>
VekStatus remapCall(const Vol<T>& s, const VekrCuboid& voi, const Vol<float> m[3], Vol<T>& d, int code) {
    const float* const* mx = m[0].cplanes();
    const float* const* my = m[1].cplanes();
    const float* const* mz = m[2].cplanes();
    if constexpr (std::is_same<T, std::uint8_t>::value)
        return vekrRemap_8u_C1PV(s.cplanes(), s.size(), s.step, voi, mx, my, mz, m[0].step, d.planes.data(), d.step,
                                 d.size(), code);
    else if constexpr (std::is_same<T, std::uint16_t>::value)
        return vekrRemap_16u_C1PV(s.cplanes(), s.size(), s.step, voi, mx, my, mz, m[0].step, d.planes.data(), d.step,
                                  d.size(), code);
    else
        return vekrRemap_32f_C1PV(s.cplanes(), s.size(), s.step, voi, mx, my, mz, m[0].step, d.planes.data(), d.step,
                                  d.size(), code);
}

template <class T>
VekStatus warpCall(const Vol<T>& s, const VekrCuboid& voi, Vol<T>& d, const VekrCuboid& box, const double a[3][4],
                   int code) {
    if constexpr (std::is_same<T, std::uint8_t>::value)
        return vekrWarpAffine_8u_C1PV(s.cplanes(), s.size(), s.step, voi, d.planes.data(), d.step, box, a, code,
                                      nullptr);
    else if constexpr (std::is_same<T, std::uint16_t>::value)
        return vekrWarpAffine_16u_C1PV(s.cplanes(), s.size(), s.step, voi, d.planes.data(), d.step, box, a, code,
                                       nullptr);
    else
        return vekrWarpAffine_32f_C1PV(s.cplanes(), s.size(), s.step, voi, d.planes.data(), d.step, box, a, code,
                                       nullptr);
}

// Cubic remaps large enough (2^18 destination voxels and more) to read the
// weights of points from 512 up on an axis from a table: a plane whose points
// cross 512 along x, and a volume region lying wholly above it along x.
const ResampleGeometry kLargeCubicRemap[] = {
    {"plane-large", {1100, 560, 1}, {0, 0, 0, 1100, 560, 1}, {517, 512, 1}, false},
    {"volume-large", {640, 48, 40}, {480, 0, 0, 160, 48, 40}, {65, 64, 64}, true},
};

template <class T>
void remapCase(Digests& out, const ResampleGeometry& g, bool aligned, int code, int threads) {
    vekSetNumThreads(threads);
    const std::string name = caseName("remap", typeName<T>(), g.name, aligned, code, threads);
    Rng rng(seedOf(name));
    const int w = aligned ? g.dst.width / 4 * 4 : g.dst.width;
    Vol<T> src(g.src.width, g.src.height, g.src.depth, aligned, !g.evenPlanes);
    Vol<T> dst(w, g.dst.height, g.dst.depth, aligned, true);
    Vol<float> maps[3] = {{w, g.dst.height, g.dst.depth, aligned, true},
                          {w, g.dst.height, g.dst.depth, aligned, true},
                          {w, g.dst.height, g.dst.depth, aligned, true}};
    src.fillValues(rng);
    dst.fillBytes(rng);
    fillMaps(maps, g.src, g.srcVoi, code, rng);
    const std::uint64_t before = dst.bytesDigest();
    out.record(name, dst, before, remapCall(src, g.srcVoi, maps, dst, code));
}

template <class T>
void remapDigests(Digests& out) {
    for (const ResampleGeometry& g : kResample)
        for (bool aligned : {true, false})
            for (int code : kCodes)
                for (int threads : kThreads) remapCase<T>(out, g, aligned, code, threads);
    for (const ResampleGeometry& g : kLargeCubicRemap)
        for (bool aligned : {true, false})
            for (int code = vekrInterCubic; code <= vekrInterCubicB05C03; ++code)
                for (int threads : {1, 2}) remapCase<T>(out, g, aligned, code, threads);
}

// Forward maps (source to destination) about the centres of the source
// region and the destination box: a turn about z, the same tilted about x
// (rows cross the planes), both scaled so that the source region covers the
// box; an integer shift with half-voxel ties; a turn about x that keeps x
// whole (so one-voxel-wide sources are hit); and a singular matrix.
struct WarpMap {
    const char* name;
    double m[3][4];
    bool scaled;
};
const WarpMap kWarps[] = {
    {"turn", {{0.9393727128473789, -0.34289780745545134, 0, 0.3}, {0.34289780745545134, 0.9393727128473789, 0, -0.7},
              {0, 0, 1, 0.2}}, true},
    {"oblique", {{0.92, -0.33, 0.12, 0.1}, {0.30, 0.88, -0.25, 0.4}, {-0.05, 0.28, 0.95, -0.3}}, true},
    {"ties", {{1, 0, 0, 2.5}, {0, 1, 0, -1.5}, {0, 0, 1, 0.5}}, false},
    {"x-turn", {{1, 0, 0, 1}, {0, 0.9393727128473789, -0.34289780745545134, 0.25},
                {0, 0.34289780745545134, 0.9393727128473789, -0.5}}, false},
    {"singular", {{1, 2, 0, 0}, {2, 4, 0, 0}, {0, 0, 1, 0}}, false},
};

// The coefficients for a source region (cut back to the volume) and a box.
void warpCoeffs(const WarpMap& w, const VekrVolume& src, const VekrCuboid& voi, const VekrCuboid& box,
                double a[3][4]) {
    const int lo[3] = {voi.x, voi.y, voi.z};
    const int hi[3] = {std::min(voi.x + voi.width, src.width), std::min(voi.y + voi.height, src.height),
                       std::min(voi.z + voi.depth, src.depth)};
    const int bo[3] = {box.x, box.y, box.z}, be[3] = {box.width, box.height, box.depth};
    for (int r = 0; r < 3; ++r) {
        const bool flat = r == 2 && src.depth == 1;
        const double k = w.scaled && !flat ? double(be[r]) / (hi[r] - lo[r]) : 1.0;
        double t = bo[r] + (be[r] - 1) / 2 + w.m[r][3];
        for (int c = 0; c < 3; ++c) {
            a[r][c] = k * w.m[r][c];
            t -= a[r][c] * ((lo[c] + hi[c] - 1) / 2);
        }
        a[r][3] = t;
    }
}

template <class T>
void warpDigests(Digests& out) {
    for (const ResampleGeometry& g : kResample)
        for (const WarpMap& m : kWarps) {
            // A source one voxel wide is hit only by maps keeping x whole.
            const bool wholeX = m.m[0][0] == 1 && m.m[0][1] == 0 && m.m[0][2] == 0 && m.m[0][3] == int(m.m[0][3]);
            if (g.src.width == 1 && !wholeX) continue;
            for (bool aligned : {true, false})
                for (int code : kCodes)
                    for (int threads : kThreads) {
                        vekSetNumThreads(threads);
                        const std::string geometry = std::string(g.name) + ' ' + m.name;
                        const std::string name = caseName("warp", typeName<T>(), geometry, aligned, code, threads);
                        Rng rng(seedOf(name));
                        // The box starts past 0; aligned boxes start on a
                        // 16-byte boundary and are a multiple of 4 wide.
                        const int x0 = aligned ? 16 / static_cast<int>(sizeof(T)) : 3;
                        const VekrCuboid box{x0, 2, 1, aligned ? g.dst.width / 4 * 4 : g.dst.width, g.dst.height,
                                             g.dst.depth};
                        Vol<T> src(g.src.width, g.src.height, g.src.depth, aligned, !g.evenPlanes);
                        Vol<T> dst(box.x + box.width + 2, box.y + box.height + 1, box.z + box.depth, aligned, true);
                        src.fillValues(rng);
                        dst.fillBytes(rng);
                        const std::uint64_t before = dst.bytesDigest();
                        double a[3][4];
                        warpCoeffs(m, g.src, g.srcVoi, box, a);
                        out.record(name, dst, before, warpCall(src, g.srcVoi, dst, box, a, code));
                    }
        }
}

// ---------------------------------------------------------------- filter

struct FilterCase {
    const char* name;
    VekrVolume kernel;
    VekrPoint3D anchor;
    int divisor;
    int range;  // coefficients in [-range, range)
    bool wide;  // one coefficient outside the 16-bit range (the double path)
};
const FilterCase kFilters[] = {
    {"3x3x3", {3, 3, 3}, {1, 1, 1}, 27, 300, false},
    {"5x5x5", {5, 5, 5}, {1, 3, 2}, 7, 32767, false},
    {"2x3x4", {2, 3, 4}, {0, 2, 3}, -3, 2000, false},
    {"1x1x1", {1, 1, 1}, {0, 0, 0}, 2, 100, false},
    {"3x3x3 wide", {3, 3, 3}, {2, 0, 1}, 1000, 300, true},
    {"4x2x3 wide", {4, 2, 3}, {1, 1, 0}, 1, 40000, true},
};

void filterDigests(Digests& out) {
    for (const FilterCase& f : kFilters)
        for (bool aligned : {true, false})
            for (int threads : kThreads) {
                vekSetNumThreads(threads);
                const std::string name = caseName("filter", "16s", f.name, aligned, 0, threads);
                Rng rng(seedOf(name));
                const VekrVolume dv{aligned ? 24 : 21, 18, 17};
                const int bx = f.kernel.width - 1, by = f.kernel.height - 1, bz = f.kernel.depth - 1;
                Vol<std::int16_t> src(dv.width + bx, dv.height + by, dv.depth + bz, aligned, true);
                Vol<std::int16_t> dst(dv.width, dv.height, dv.depth, aligned, true);
                src.fillValues(rng);
                dst.fillBytes(rng);
                std::vector<std::int32_t> kernel(static_cast<std::size_t>(f.kernel.width) * f.kernel.height *
                                                 f.kernel.depth);
                for (auto& k : kernel) k = rng.below(2 * f.range) - f.range;
                if (f.wide) kernel[kernel.size() / 2] = 1 << 16;
                // Plane pointers at the region's first voxel: the border before
                // it is kernel size - 1 - anchor in each axis.
                const int ox = bx - f.anchor.x, oy = by - f.anchor.y, oz = bz - f.anchor.z;
                std::vector<const std::int16_t*> planes(src.d);
                for (int z = 0; z < src.d; ++z) planes[z] = src.row(oy, z) + ox;
                int size = 0;
                VekStatus st = vekrFilterGetBufSize(dv, f.kernel, 1, &size);
                std::vector<std::uint8_t> buf(static_cast<std::size_t>(size > 0 ? size : 1) + 16);
                std::uint8_t* b = buf.data() + (16 - reinterpret_cast<std::uintptr_t>(buf.data()) % 16) % 16;
                const std::uint64_t before = dst.bytesDigest();
                if (st == vekStatusOk)
                    st = vekrFilter_16s_C1PV(planes.data() + oz, src.step, dst.planes.data(), dst.step, dv,
                                             kernel.data(), f.kernel, f.anchor, f.divisor, b);
                out.record(name, dst, before, st);
            }
}

// ---------------------------------------------------------------- the checks

Digests computeFamily(const std::string& family) {
    int saved = 1;
    vekGetNumThreads(&saved);
    Digests d;
    if (family == "resize") {
        resizeDigests<std::uint8_t>(d);
        resizeDigests<std::uint16_t>(d);
        resizeDigests<float>(d);
    } else if (family == "remap") {
        remapDigests<std::uint8_t>(d);
        remapDigests<std::uint16_t>(d);
        remapDigests<float>(d);
    } else if (family == "warp") {
        warpDigests<std::uint8_t>(d);
        warpDigests<std::uint16_t>(d);
        warpDigests<float>(d);
    } else {
        filterDigests(d);
    }
    vekSetNumThreads(saved);
    return d;
}
const char* const kFamilies[] = {"resize", "remap", "warp", "filter"};

std::map<std::string, std::uint64_t> readExpected() {
    std::map<std::string, std::uint64_t> m;
    std::ifstream in(VEKR_VOLUME_DIGEST_FILE);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        const std::size_t tab = line.rfind(' ');
        m[line.substr(0, tab)] = std::stoull(line.substr(tab + 1), nullptr, 16);
    }
    return m;
}

class VolumeDigest : public ::testing::TestWithParam<const char*> {};

// Every case of the family is in the file with the same digest, and the file
// holds no case of the family that was not computed.
TEST_P(VolumeDigest, MatchesTheRecordedOutputs) {
    static const std::map<std::string, std::uint64_t> expected = readExpected();
    ASSERT_FALSE(expected.empty()) << "no digests in " << VEKR_VOLUME_DIGEST_FILE;
    const std::string family = GetParam();
    const Digests got = computeFamily(family);
    int mismatches = 0;
    std::map<std::string, bool> seen;
    for (const auto& c : got) {
        seen[c.first] = true;
        const auto it = expected.find(c.first);
        if (it == expected.end()) {
            ADD_FAILURE() << "no recorded digest for \"" << c.first << "\"";
        } else if (it->second != c.second && ++mismatches <= 25) {
            ADD_FAILURE() << "\"" << c.first << "\": digest " << std::hex << c.second << ", recorded " << it->second;
        }
    }
    EXPECT_EQ(mismatches, 0) << "of " << got.size() << " " << family << " cases";
    // Every successful call wrote something, so no case is vacuous.
    for (const auto& c : got) EXPECT_TRUE(c.status != vekStatusOk || c.changed) << c.first << " wrote nothing";
    for (const auto& e : expected) {
        if (e.first.compare(0, family.size() + 1, family + " ") == 0) {
            EXPECT_TRUE(seen.count(e.first)) << "recorded case \"" << e.first << "\" was not computed";
        }
    }

    // The thread count never shows in a result: every thread count of a case
    // (t1, t2 and, for most, t3) gives the digest of the first.
    std::map<std::string, std::uint64_t> firstOfCase;
    for (const auto& c : got) {
        const auto first = firstOfCase.emplace(c.first.substr(0, c.first.rfind(" t")), c.second).first;
        EXPECT_EQ(first->second, c.second) << c.first;
    }
    EXPECT_LT(firstOfCase.size(), got.size());
}
INSTANTIATE_TEST_SUITE_P(Families, VolumeDigest, ::testing::ValuesIn(kFamilies));

int writeDigests(const char* path) {
    std::FILE* f = std::fopen(path, "w");
    if (!f) {
        std::perror(path);
        return 1;
    }
    std::fprintf(f, "# FNV-1a 64 of each volume operation's status and destination bytes\n"
                    "# (tests/volume/volume_digest_test.cpp; regenerate with test_volume_digest --write FILE)\n");
    std::size_t n = 0;
    for (const char* family : kFamilies) {
        std::map<int, int> statuses;
        int unchanged = 0;
        for (const auto& c : computeFamily(family)) {
            std::fprintf(f, "%s %016llx\n", c.first.c_str(), static_cast<unsigned long long>(c.second));
            ++n;
            ++statuses[c.status];
            if (c.status == vekStatusOk && !c.changed) {
                ++unchanged;
                std::printf("  wrote nothing: %s\n", c.first.c_str());
            }
        }
        std::printf("%s:", family);
        for (const auto& st : statuses) std::printf(" status %d x %d", st.first, st.second);
        std::printf(", %d successful calls that wrote nothing\n", unchanged);
    }
    std::fclose(f);
    std::printf("%zu digests written to %s\n", n, path);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--write") == 0) return writeDigests(argv[2]);
    if (argc == 4 && std::strcmp(argv[1], "--dump") == 0) {
        dumpRequest() = DumpRequest{argv[2], argv[3]};
        for (const char* family : kFamilies) computeFamily(family);
        return 0;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
