// Helpers of the volume tests (filter, resize, remap, warp): volumes in the
// block and the scattered-plane layouts, canaries over volumes, random and
// special-value fills, the thread-count guard, and a double-precision
// sampler written from the kernel formulas, independent of the library's
// weight code.
#ifndef VEKR_TESTS_VOLUME_VOLUME_TESTUTIL_H
#define VEKR_TESTS_VOLUME_VOLUME_TESTUTIL_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <type_traits>
#include <vector>

#include "testutil.h"
#include "vekcore.h"
#include "vekr.h"

namespace vv {

using ElementTypes = ::testing::Types<std::uint8_t, std::uint16_t, float>;

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
    T& operator()(int x, int y, int z) { return *ptr(x, y, z); }
    T operator()(int x, int y, int z) const { return *ptr(x, y, z); }
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

// Values from the generator in [lo, hi) (whole numbers for integer types).
template <class T>
T randomValue(vt::Rng& rng, float lo, float hi) {
    const float f = rng.uniform(lo, hi);
    return static_cast<T>(std::is_integral<T>::value ? std::floor(f) : f);
}
template <class T>
void fillRandom(Vol<T>& v, vt::Rng& rng, float lo, float hi) {
    v.fill([&](int, int, int) { return randomValue<T>(rng, lo, hi); });
}
// The whole range of integer types, [-20, 280) for floats.
template <class T>
void fillRandom(Vol<T>& v, vt::Rng& rng) {
    fillRandom(v, rng, std::is_integral<T>::value ? 0.0f : -20.0f,
               std::is_integral<T>::value ? float(std::numeric_limits<T>::max()) + 1 : 280.0f);
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

// Taps and weights of one axis for a coordinate c inside [lo, hi].
inline void refTaps(int code, double c, int lo, int hi, std::vector<int>& idx, std::vector<double>& w) {
    idx.clear();
    w.clear();
    const int i = static_cast<int>(std::floor(c));
    const double t = c - i;
    if (code == 2) {
        int i0 = i, i1 = i + 1;
        double t0 = t;
        if (i0 >= hi && hi > lo) i0 = hi - 1, i1 = hi, t0 = c - i0;
        if (i1 > hi) i1 = hi;
        idx = {i0, i1};
        w = {1 - t0, t0};
        return;
    }
    for (int j = -1; j <= 2; ++j) {
        idx.push_back(std::min(std::max(i + j, lo), hi));
        w.push_back(refKernel(code, t - j));
    }
}

// The interpolated value (linear or cubic code) at (x, y, z) of a volume
// inside the inclusive box lo..hi, in double; dims 2 reads plane 0 only.
template <class T>
double refSample(const Vol<T>& v, int code, const int lo[3], const int hi[3], double x, double y, double z,
                 int dims = 3) {
    std::vector<int> ix, iy, iz{0};
    std::vector<double> wx, wy, wz{1.0};
    refTaps(code, x, lo[0], hi[0], ix, wx);
    refTaps(code, y, lo[1], hi[1], iy, wy);
    if (dims == 3) refTaps(code, z, lo[2], hi[2], iz, wz);
    double sum = 0;
    for (std::size_t c = 0; c < iz.size(); ++c)
        for (std::size_t b = 0; b < iy.size(); ++b)
            for (std::size_t a = 0; a < ix.size(); ++a)
                sum += wz[c] * wy[b] * wx[a] * static_cast<double>(v.at(ix[a], iy[b], iz[c]));
    return sum;
}

// The largest acceptable distance between a stored result and the double
// reference. Integer results round to nearest: half a unit, plus the float
// error of the weighted sum before rounding (a few units of 2^-24 of the
// largest voxel per operation, some twenty operations for 64 taps: 0.002 for
// 8u, 0.05 for 16u). Float results of values up to 300 carry the same float
// error (2e-3).
template <class T>
inline double refTolerance() {
    if (std::is_floating_point<T>::value) return 2e-3;
    return sizeof(T) == 1 ? 0.5 + 2e-3 : 0.5 + 5e-2;
}

// The reference value clamped to what the element type can hold.
template <class T>
inline double refStored(double v) {
    if (std::is_floating_point<T>::value) return v;
    const double top = std::numeric_limits<T>::max();
    return v < 0 ? 0 : (v > top ? top : v);
}

// Checks every voxel of dst after a resampling of src with `code` into a
// volume that held `before`. point(x, y, z, p) says whether the destination
// voxel is to be written and where it samples the source; points inside the
// box lo..hi (x and y only for dims 2) must hold the nearest voxel (ties to
// even) or the reference within refTolerance, all others their old value.
// Points within `slack` of a box face or (nearest) a rounding tie are
// skipped. `inside` counts the points checked against the source.
template <class T, class P>
::testing::AssertionResult Resampled(const Vol<T>& src, const Vol<T>& dst, const Vol<T>& before, int code,
                                     const int lo[3], const int hi[3], P point, int* inside = nullptr,
                                     int dims = 3, double slack = 0) {
    int n = 0;
    for (int z = 0; z < dst.d; ++z)
        for (int y = 0; y < dst.h; ++y)
            for (int x = 0; x < dst.w; ++x) {
                double p[3] = {0, 0, 0};
                bool in = point(x, y, z, p), near = false;
                for (int a = 0; a < dims; ++a) {
                    in = in && p[a] >= lo[a] && p[a] <= hi[a];
                    near = near || std::fabs(p[a] - lo[a]) < slack || std::fabs(p[a] - hi[a]) < slack ||
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
                    const T want = src.at(int(std::nearbyint(p[0])), int(std::nearbyint(p[1])),
                                          dims == 3 ? int(std::nearbyint(p[2])) : 0);
                    if (!vt::SameBits(&got, &want, 1)) return fail() << double(got) << " vs nearest " << double(want);
                } else {
                    const double want = refStored<T>(refSample(src, code, lo, hi, p[0], p[1], p[2], dims));
                    if (!(std::fabs(double(got) - want) <= refTolerance<T>()))
                        return fail() << double(got) << " vs reference " << want;
                }
            }
    if (inside) *inside = n;
    return ::testing::AssertionSuccess();
}

}  // namespace vv

#endif  // VEKR_TESTS_VOLUME_VOLUME_TESTUTIL_H
