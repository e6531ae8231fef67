// Test support for the remap and warp tests: planar volumes laid out the way
// callers do it (padded rows, planes scattered in memory), and a reference
// sampler in double precision written from the kernel formulas, independent
// of the library's weight code.
#ifndef VEKR_TESTS_VOLUME_REMAP_REFERENCE_H
#define VEKR_TESTS_VOLUME_REMAP_REFERENCE_H

#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "testutil.h"
#include "vekcore.h"
#include "vekr.h"

namespace vtr {

// A planar volume: `depth` planes of `height` rows of `width` elements; rows
// are `step` bytes apart (padded), planes are stored in reverse order in one
// allocation with a gap between them, so a kernel that assumes contiguous or
// ordered planes reads the wrong data. rising() lays them out instead at
// rising addresses the same distance apart, as one array would hold them.
// The first element of every plane lies `offsetBytes` past a 16-byte
// boundary.
template <class T>
struct Vol {
    int width = 0, height = 0, depth = 0, step = 0;
    std::vector<std::uint8_t> raw;
    std::vector<T*> planes;

    Vol() = default;
    Vol(int w, int h, int d, int offsetBytes = 0, int padBytes = 16) { reset(w, h, d, offsetBytes, padBytes); }
    Vol(const Vol& o) { *this = o; }
    Vol& operator=(const Vol& o) {
        if (this != &o) {
            rising_ = o.rising_;
            reset(o.width, o.height, o.depth, o.offset_, o.pad_);
            for (int z = 0; z < depth; ++z) std::memcpy(planes[z], o.planes[z], planeBytes());
        }
        return *this;
    }
    void reset(int w, int h, int d, int offsetBytes, int padBytes) {
        width = w;
        height = h;
        depth = d;
        offset_ = offsetBytes;
        pad_ = padBytes;
        step = static_cast<int>(((w * sizeof(T) + 15) / 16) * 16) + padBytes;
        const std::size_t stride = planeBytes() + 48;
        raw.assign(stride * d + 64 + offsetBytes, 0);
        std::uintptr_t base = reinterpret_cast<std::uintptr_t>(raw.data());
        std::uintptr_t aligned = (base + 15) & ~std::uintptr_t(15);
        planes.resize(d);
        for (int z = 0; z < d; ++z)
            planes[z] = reinterpret_cast<T*>(aligned + (rising_ ? z : d - 1 - z) * stride + offsetBytes);
    }
    // The same volume with its planes at rising addresses.
    Vol rising() const {
        Vol v;
        v.rising_ = true;
        v.reset(width, height, depth, offset_, pad_);
        for (int z = 0; z < depth; ++z) std::memcpy(v.planes[z], planes[z], planeBytes());
        return v;
    }
    std::size_t planeBytes() const { return static_cast<std::size_t>(step) * height; }
    T& at(int x, int y, int z) {
        return reinterpret_cast<T*>(reinterpret_cast<std::uint8_t*>(planes[z]) + y * step)[x];
    }
    const T& at(int x, int y, int z) const {
        return reinterpret_cast<const T*>(reinterpret_cast<const std::uint8_t*>(planes[z]) + y * step)[x];
    }
    T* const* ptrs() const { return planes.data(); }
    const T* const* cptrs() const { return reinterpret_cast<const T* const*>(planes.data()); }
    VekrVolume size() const { return VekrVolume{width, height, depth}; }
    template <class F>
    void fill(F f) {
        for (int z = 0; z < depth; ++z)
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x) at(x, y, z) = f(x, y, z);
    }
    // The elements only (no padding), plane by plane, as bytes.
    std::vector<std::uint8_t> bytes() const {
        std::vector<std::uint8_t> out;
        for (int z = 0; z < depth; ++z)
            for (int y = 0; y < height; ++y) vt::appendBytes(out, &at(0, y, z), width);
        return out;
    }
    // Every byte of the allocation (padding and gaps included): proves that
    // nothing outside the written voxels changed.
    const std::vector<std::uint8_t>& allBytes() const { return raw; }

private:
    int offset_ = 0, pad_ = 16;
    bool rising_ = false;
};

// Sets the thread count for a scope and restores it.
class ThreadCount {
public:
    explicit ThreadCount(int n) {
        vekGetNumThreads(&saved_);
        vekSetNumThreads(n);
    }
    ~ThreadCount() { vekSetNumThreads(saved_); }

private:
    int saved_ = 1;
};

// Cubic kernels from their defining formulas: the (B, C) family of Mitchell
// and Netravali, and the cubic Lagrange interpolant through four points.
inline double refKernel(int code, double x) {
    x = std::fabs(x);
    if (code == 4) {
        if (x < 1) return (x - 1) * (x + 1) * (x - 2) / 2.0;  // tap at 0 of the nodes -1, 0, 1, 2
        if (x < 2) return -(x - 1) * (x - 2) * (x - 3) / 6.0;
        return 0;
    }
    double B = 0, C = 0;
    if (code == 5) B = 1, C = 0;
    if (code == 6) B = 0, C = 0.5;
    if (code == 7) B = 0.5, C = 0.3;
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
        int k = i + j;
        k = k < lo ? lo : (k > hi ? hi : k);
        idx.push_back(k);
        w.push_back(refKernel(code, t - j));
    }
}

// The interpolated value (linear or cubic code) at (x, y, z) of a volume
// inside the inclusive box lo..hi, in double; dims 2 reads plane 0 only.
template <class T>
double refSample(const Vol<T>& v, int code, const int lo[3], const int hi[3], double x, double y, double z,
                 int dims = 3) {
    std::vector<int> ix, iy, iz;
    std::vector<double> wx, wy, wz;
    refTaps(code, x, lo[0], hi[0], ix, wx);
    refTaps(code, y, lo[1], hi[1], iy, wy);
    if (dims == 3) {
        refTaps(code, z, lo[2], hi[2], iz, wz);
    } else {
        iz = {0};
        wz = {1.0};
    }
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

// The reference value converted to what the element type can hold.
template <class T>
inline double refStored(double v) {
    if (sizeof(T) == 1) return v < 0 ? 0 : (v > 255 ? 255 : v);
    if (sizeof(T) == 2 && !std::is_floating_point<T>::value) return v < 0 ? 0 : (v > 65535 ? 65535 : v);
    return v;
}

}  // namespace vtr

#endif  // VEKR_TESTS_VOLUME_REMAP_REFERENCE_H
