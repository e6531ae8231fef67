// Helpers of the volume tests (filter, resize, remap, warp): volumes in the
// block and the scattered-plane layouts, canaries over volumes, random and
// special-value fills, the thread-count guard, and a double-precision
// sampler written from the kernel formulas, independent of the library's
// weight code, with the check that holds a whole result against it.
#ifndef VEKR_TESTS_VOLUME_VOLUME_TESTUTIL_H
#define VEKR_TESTS_VOLUME_VOLUME_TESTUTIL_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <tuple>
#include <type_traits>
#include <vector>

#include "testutil.h"
#include "vekcore.h"
#include "vekr.h"

namespace vv {

using ElementTypes = ::testing::Types<std::uint8_t, std::uint16_t, float>;

// The one of an operation's entry points f8, f16, f32 (8u, 16u, 32f) that takes T.
template <class T, class F8, class F16, class F32>
auto pick(F8 f8, F16 f16, F32 f32) {
    constexpr std::size_t i = std::is_integral<T>::value ? sizeof(T) / 2 : 2;
    return std::get<i>(std::make_tuple(f8, f16, f32));
}

// Sets the thread count for a scope (n > 0) and restores the old one.
class ThreadCount {
public:
    explicit ThreadCount(int n = 0) {
        vekGetNumThreads(&saved_);
        if (n > 0) vekSetNumThreads(n);
    }
    ~ThreadCount() { vekSetNumThreads(saved_); }

private:
    int saved_ = 1;
};

template <class F>
void forEachVoxel(int w, int h, int d, F f) {
    for (int z = 0; z < d; ++z)
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) f(x, y, z);
}

// Extra row voxels that make a row of w voxels a multiple of 16 bytes long.
template <class T>
int padTo16(int w) {
    return (((w * int(sizeof(T)) + 15) & ~15) - w * int(sizeof(T))) / int(sizeof(T));
}

// Cuboids with one bad field each, in the order x, width, y, height, z, depth.
inline const VekrCuboid kBadCuboids[6] = {{-1, 0, 0, 1, 1, 1}, {0, 0, 0, 0, 1, 1},  {0, -1, 0, 1, 1, 1},
                                          {0, 0, 0, 1, 0, 1},  {0, 0, -1, 1, 1, 1}, {0, 0, 0, 1, 1, 0}};

// A volume of w x h x d voxels, rows padX voxels longer than needed and planes
// padY rows higher, so steps differ from the packed ones. In the block layout
// the planes lie one after another from a first voxel `offsetBytes` past a
// 16-byte boundary. scattered() copies it to planes stored in reverse order
// with gaps between them (each plane `offsetBytes + stagger * (z % 3)` past a
// boundary), which only the plane-pointer entry points can take and where a
// kernel that assumes ordered planes reads the wrong data.
template <class T>
class Vol {
public:
    int w = 0, h = 0, d = 0;
    int step = 0, planeStep = 0;  // bytes; planeStep is the block layout's

    Vol(int w_, int h_, int d_, std::size_t offsetBytes = 0, int padX = 0, int padY = 0)
        : w(w_), h(h_), d(d_), offset_(offsetBytes) {
        step = static_cast<int>((w + padX) * sizeof(T));
        planeStep = step * (h + padY);
        layout();
    }
    Vol(const Vol& o) : w(o.w), h(o.h), d(o.d), step(o.step), planeStep(o.planeStep) {
        offset_ = o.offset_, stagger_ = o.stagger_, scattered_ = o.scattered_;
        layout();
        copyPlanes(o);
    }
    Vol& operator=(const Vol&) = delete;
    Vol scattered(std::size_t stagger = 0) const { return relaid(true, stagger); }
    Vol block() const { return relaid(false, 0); }

    T* ptr(int x, int y, int z) const {
        return reinterpret_cast<T*>(reinterpret_cast<std::uint8_t*>(planes_[z]) + y * step) + x;
    }
    T& at(int x, int y, int z) { return *ptr(x, y, z); }
    const T& at(int x, int y, int z) const { return *ptr(x, y, z); }
    T* base() { return planes_[0]; }  // the block layout's first voxel
    T* const* planes() { return planes_.data(); }
    const T* const* cplanes() const { return const_cast<const T* const*>(planes_.data()); }
    VekrVolume size() const { return VekrVolume{w, h, d}; }

    template <class F>
    void fill(F f) {  // f(x, y, z) gives the voxel
        forEachVoxel(w, h, d, [&](int x, int y, int z) { at(x, y, z) = static_cast<T>(f(x, y, z)); });
    }
    // Every plane's planeStep bytes, padding included, so stray writes show.
    std::vector<std::uint8_t> bytes() const {
        std::vector<std::uint8_t> out;
        for (int z = 0; z < d; ++z) vt::appendBytes(out, reinterpret_cast<const std::uint8_t*>(planes_[z]), planeStep);
        return out;
    }
    // The voxels alone, x fastest.
    std::vector<T> values() const {
        std::vector<T> out;
        forEachVoxel(w, h, d, [&](int x, int y, int z) { out.push_back(at(x, y, z)); });
        return out;
    }
    void fillCanary() { vt::fillCanary(raw_.data(), raw_.size()); }
    // No byte of the allocation (padding and gaps included) has changed from
    // its canary, except the voxels for which inside(x, y, z) holds.
    ::testing::AssertionResult canaryIntact(const std::function<bool(int, int, int)>& inside = nullptr) const {
        std::vector<std::uint8_t> copy = raw_;
        if (inside)
            forEachVoxel(w, h, d, [&](int x, int y, int z) {
                if (inside(x, y, z))
                    vt::fillCanary(copy.data() + (reinterpret_cast<const std::uint8_t*>(ptr(x, y, z)) - raw_.data()),
                                   sizeof(T));
            });
        return vt::CanaryIntact(copy.data(), copy.size());
    }

private:
    void layout() {
        const std::size_t stride = (static_cast<std::size_t>(planeStep) + 15) / 16 * 16 + 48;
        raw_.assign(scattered_ ? stride * d + 64 + offset_ + 2 * stagger_ : std::size_t(planeStep) * d + 64 + offset_,
                    0);
        const std::uintptr_t aligned = (reinterpret_cast<std::uintptr_t>(raw_.data()) + 15) & ~std::uintptr_t(15);
        planes_.resize(d);
        for (int z = 0; z < d; ++z)
            planes_[z] = reinterpret_cast<T*>(scattered_ ? aligned + (d - 1 - z) * stride + offset_ + stagger_ * (z % 3)
                                                         : aligned + offset_ + std::size_t(z) * planeStep);
    }
    void copyPlanes(const Vol& o) {
        for (int z = 0; z < d; ++z) std::memcpy(planes_[z], o.planes_[z], planeStep);
    }
    Vol relaid(bool scattered, std::size_t stagger) const {
        Vol v(w, h, d);
        v.step = step, v.planeStep = planeStep, v.offset_ = offset_, v.stagger_ = stagger, v.scattered_ = scattered;
        v.layout();
        v.copyPlanes(*this);
        return v;
    }

    std::size_t offset_ = 0, stagger_ = 0;
    bool scattered_ = false;
    std::vector<std::uint8_t> raw_;
    std::vector<T*> planes_;
};

// A volume whose rows are multiples of 16 bytes plus 16 bytes of padding,
// its planes scattered at uneven distances (all at the same offset from a
// 16-byte boundary): the layout callers of the plane-pointer functions use.
template <class T>
Vol<T> planarVol(int w, int h, int d, std::size_t offsetBytes = 0) {
    return Vol<T>(w, h, d, offsetBytes, padTo16<T>(w) + 16 / int(sizeof(T))).scattered(16);
}

// Values from the generator in [lo, hi) (whole numbers for integer types);
// by default the whole range of integer types, [-20, 280) for floats.
template <class T>
void fillRandom(Vol<T>& v, vt::Rng& rng, float lo = std::is_integral<T>::value ? 0.0f : -20.0f,
                float hi = std::is_integral<T>::value ? float(std::numeric_limits<T>::max()) + 1 : 280.0f) {
    v.fill([&](int, int, int) {
        const float f = rng.uniform(lo, hi);
        return std::is_integral<T>::value ? std::floor(f) : f;
    });
}

// Float volumes get the special values the kernels must carry through
// identically on every path. The NaN is the processor's default NaN (sign
// set), the one that inf - inf and 0 * inf produce, so every NaN in a result
// has one bit pattern whichever operand an instruction propagates.
template <class T>
void sprinkleSpecials(Vol<T>& v, vt::Rng& rng) {
    if constexpr (std::is_same<T, float>::value) {
        const float specials[] = {vt::fromBits(0xFFC00000u), INFINITY, -INFINITY, -0.0f, 1e-40f, -3e-39f, 1e30f};
        for (float f : specials) v.at(rng.below(v.w), rng.below(v.h), rng.below(v.d)) = f;
    }
}

// ---------------------------------------------------------------------------
// Reference sampling in double
// ---------------------------------------------------------------------------

// Cubic kernels from their defining formulas: the cubic Lagrange interpolant
// through four points (code 4) and the (B, C) family of Mitchell and
// Netravali (codes 5 to 7).
inline double refKernel(int code, double x) {
    x = std::fabs(x);
    if (code == 4) {
        if (x < 1) return (x - 1) * (x + 1) * (x - 2) / 2.0;  // tap at 0 of the nodes -1, 0, 1, 2
        if (x < 2) return -(x - 1) * (x - 2) * (x - 3) / 6.0;
        return 0;
    }
    const double B = code == 5 ? 1.0 : code == 6 ? 0.0 : 0.5;
    const double C = code == 5 ? 0.0 : code == 6 ? 0.5 : 0.3;
    if (x < 1) return ((12 - 9 * B - 6 * C) * x * x * x + (-18 + 12 * B + 6 * C) * x * x + (6 - 2 * B)) / 6;
    if (x < 2)
        return ((-B - 6 * C) * x * x * x + (6 * B + 30 * C) * x * x + (-12 * B - 48 * C) * x + (8 * B + 24 * C)) / 6;
    return 0;
}

// The inclusive source box lo..hi that a resampling reads; dims 2 samples
// plane 0 only and ignores z.
struct Box {
    int lo[3], hi[3];
    int dims = 3;
};

// The interpolated value (linear or cubic code) at point p, in double: the
// tensor product of each axis's weights over the taps floor(c) + j (j 0, 1
// linear, -1 .. 2 cubic), each tap moved to the nearest voxel of the box.
template <class T>
double refSample(const Vol<T>& v, int code, const Box& box, const double p[3]) {
    const int n = code == 2 ? 2 : 4;
    int idx[3][4] = {};
    double w[3][4] = {{1}, {1}, {1}};
    for (int a = 0; a < box.dims; ++a) {
        const int i = static_cast<int>(std::floor(p[a]));
        const double t = p[a] - i;
        for (int j = 0; j < n; ++j) {
            idx[a][j] = std::min(std::max(i + j - (n == 4), box.lo[a]), box.hi[a]);
            w[a][j] = n == 2 ? (j ? t : 1 - t) : refKernel(code, t + 1 - j);
        }
    }
    double sum = 0;
    for (int c = 0; c < (box.dims == 3 ? n : 1); ++c)
        for (int b = 0; b < n; ++b)
            for (int a = 0; a < n; ++a)
                sum += w[2][c] * w[1][b] * w[0][a] * double(v.at(idx[0][a], idx[1][b], idx[2][c]));
    return sum;
}

// How a resampling treats the source box and nearest ties. Remap and warp
// leave a voxel whose point lies outside the box alone and round a nearest
// tie to even; resize samples every point with its taps moved into the box
// and sends a nearest tie to the lower voxel.
enum class Rule { Remap, Resize };

// Checks every voxel of dst after a resampling of src with `code` into a
// volume that held `before`. point(x, y, z, p) says whether the destination
// voxel is to be written and where it samples the source; the points to
// sample must hold the nearest voxel or the reference (clamped to what T
// holds) within a tolerance, all others their old value. Points within
// `slack` of a box face or (nearest) a rounding tie are skipped. `inside`
// counts the points checked against the source.
template <class T, class P>
::testing::AssertionResult Resampled(const Vol<T>& src, const Vol<T>& dst, const Vol<T>& before, int code,
                                     const Box& box, P point, int* inside = nullptr, double slack = 0,
                                     Rule rule = Rule::Remap) {
    // Integer results round to nearest: half a unit, plus the float error of
    // the weighted sum before rounding (a few units of 2^-24 of the largest
    // voxel per operation, some twenty operations for 64 taps: 0.002 for 8u,
    // 0.05 for 16u). Float results of values up to 300 carry the same float
    // error (2e-3).
    const double tol = std::is_floating_point<T>::value ? 2e-3 : sizeof(T) == 1 ? 0.5 + 2e-3 : 0.5 + 5e-2;
    int n = 0;
    for (int z = 0; z < dst.d; ++z)
        for (int y = 0; y < dst.h; ++y)
            for (int x = 0; x < dst.w; ++x) {
                double p[3] = {0, 0, 0};
                bool in = point(x, y, z, p), near = false;
                for (int a = 0; a < box.dims; ++a) {
                    in = in && (rule == Rule::Resize || (p[a] >= box.lo[a] && p[a] <= box.hi[a]));
                    near = near || std::fabs(p[a] - box.lo[a]) < slack || std::fabs(p[a] - box.hi[a]) < slack ||
                           (code == 1 && std::fabs(p[a] - std::floor(p[a]) - 0.5) < slack);
                }
                if (near) continue;
                const T got = dst.at(x, y, z);
                auto fail = [&]() {
                    return ::testing::AssertionFailure() << "code " << code << " voxel " << x << "," << y << "," << z
                                                         << " point " << p[0] << "," << p[1] << "," << p[2] << ": ";
                };
                if (!in) {
                    if (!vt::SameBits(&got, &before.at(x, y, z), 1)) return fail() << "changed outside";
                    continue;
                }
                ++n;
                if (code == 1) {
                    int idx[3] = {0, 0, 0};
                    for (int a = 0; a < box.dims; ++a) {
                        const double r = rule == Rule::Remap ? std::nearbyint(p[a]) : std::ceil(p[a] - 0.5);
                        idx[a] = static_cast<int>(std::min(std::max(r, double(box.lo[a])), double(box.hi[a])));
                    }
                    const T want = src.at(idx[0], idx[1], idx[2]);
                    if (!vt::SameBits(&got, &want, 1)) return fail() << double(got) << " vs nearest " << double(want);
                } else {
                    double want = refSample(src, code, box, p);
                    if (std::is_integral<T>::value)
                        want = std::min(std::max(want, 0.0), double(std::numeric_limits<T>::max()));
                    if (!(std::fabs(double(got) - want) <= tol))
                        return fail() << double(got) << " vs reference " << want;
                }
            }
    if (inside) *inside = n;
    return ::testing::AssertionSuccess();
}

}  // namespace vv

#endif  // VEKR_TESTS_VOLUME_VOLUME_TESTUTIL_H
