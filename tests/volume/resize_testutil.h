// Helpers of the resize tests: volumes in both layouts, one call that runs a
// resize of either layout and element type, and an independent double-precision
// reference of linear and cubic resizing.
#ifndef VEKR_TESTS_VOLUME_RESIZE_TESTUTIL_H
#define VEKR_TESTS_VOLUME_RESIZE_TESTUTIL_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "testutil.h"
#include "vekcore.h"
#include "vekr.h"

namespace rt {

// A volume of w x h x d voxels in one block placed `offsetBytes` past a
// 16-byte boundary, rows `padX` voxels longer than needed and planes `padY`
// rows higher, so steps differ from the packed ones. planes() gives the
// pointer array of the same voxels for the C1PV layout.
template <class T>
struct Vol {
    int w = 0, h = 0, d = 0;
    int step = 0, planeStep = 0;  // bytes
    vt::Buf<T> buf;
    std::vector<T*> planePtrs;

    Vol(int w_, int h_, int d_, std::size_t offsetBytes = 0, int padX = 0, int padY = 0) : w(w_), h(h_), d(d_) {
        step = static_cast<int>((w + padX) * sizeof(T));
        planeStep = step * (h + padY);
        buf.reset(static_cast<std::size_t>(planeStep) * d / sizeof(T), offsetBytes);
        for (int z = 0; z < d; ++z) planePtrs.push_back(at(0, 0, z));
    }
    Vol(const Vol& o) : w(o.w), h(o.h), d(o.d), step(o.step), planeStep(o.planeStep), buf(o.buf) {
        for (int z = 0; z < d; ++z) planePtrs.push_back(at(0, 0, z));
    }
    Vol& operator=(const Vol&) = delete;

    T* at(int x, int y, int z) {
        return reinterpret_cast<T*>(reinterpret_cast<std::uint8_t*>(buf.data()) + z * planeStep + y * step) + x;
    }
    const T* at(int x, int y, int z) const { return const_cast<Vol*>(this)->at(x, y, z); }
    T& operator()(int x, int y, int z) { return *at(x, y, z); }
    T operator()(int x, int y, int z) const { return *at(x, y, z); }
    T* base() { return buf.data(); }
    T* const* planes() { return planePtrs.data(); }
    const T* const* cplanes() const { return const_cast<const T* const*>(planePtrs.data()); }
    // Every byte of the block, padding included (so stray writes show).
    std::vector<std::uint8_t> bytes() const { return buf.bytes(); }
};

// The arguments of one resize besides the volumes.
struct Args {
    VekrCuboid srcVoi{};
    VekrCuboid dstVoi{};
    double factor[3] = {1, 1, 1};
    double shift[3] = {0, 0, 0};
    int interpolation = 1;
};

inline VekrVolume volumeOf(int w, int h, int d) { return VekrVolume{w, h, d}; }

// A work buffer of exactly the size the size query asks for with the current
// thread count (an over-run shows under the address sanitizer), starting 3
// bytes past the allocation so the kernels' slice alignment is exercised.
struct WorkBuf {
    std::vector<std::uint8_t> bytes;
    std::uint8_t* data() { return bytes.data() + 3; }
};
inline WorkBuf workBuffer(const Args& a) {
    int size = 0;
    EXPECT_EQ(vekStatusOk, vekrResizeGetBufSize(a.srcVoi, a.dstVoi, 1, a.interpolation, &size));
    return WorkBuf{std::vector<std::uint8_t>(static_cast<std::size_t>(size) + 3)};
}

// The two resize entry points of each element type.
template <class T>
struct Fns;
template <>
struct Fns<std::uint8_t> {
    static constexpr auto block = &vekrResize_8u_C1V;
    static constexpr auto planar = &vekrResize_8u_C1PV;
};
template <>
struct Fns<std::uint16_t> {
    static constexpr auto block = &vekrResize_16u_C1V;
    static constexpr auto planar = &vekrResize_16u_C1PV;
};
template <>
struct Fns<float> {
    static constexpr auto block = &vekrResize_32f_C1V;
    static constexpr auto planar = &vekrResize_32f_C1PV;
};

// Runs the resize of s into d in layout C1V (planar = false) or C1PV.
template <class T>
VekStatus resize(const Vol<T>& s, Vol<T>& d, const Args& a, std::uint8_t* buffer, bool planar) {
    const VekrVolume v{s.w, s.h, s.d};
    if (planar)
        return Fns<T>::planar(s.cplanes(), v, s.step, a.srcVoi, d.planes(), d.step, a.dstVoi, a.factor[0],
                              a.factor[1], a.factor[2], a.shift[0], a.shift[1], a.shift[2], a.interpolation, buffer);
    return Fns<T>::block(s.at(0, 0, 0), v, s.step, s.planeStep, a.srcVoi, d.base(), d.step, d.planeStep, a.dstVoi,
                         a.factor[0], a.factor[1], a.factor[2], a.shift[0], a.shift[1], a.shift[2], a.interpolation,
                         buffer);
}

// Fills a volume with values from the generator in [lo, hi) (integers for
// integer types).
template <class T>
void fillRandom(Vol<T>& v, vt::Rng& rng, float lo, float hi) {
    for (int z = 0; z < v.d; ++z)
        for (int y = 0; y < v.h; ++y)
            for (int x = 0; x < v.w; ++x) {
                const float f = rng.uniform(lo, hi);
                v(x, y, z) = static_cast<T>(std::is_integral<T>::value ? std::floor(f) : f);
            }
}

// ---------------------------------------------------------------------------
// Reference
// ---------------------------------------------------------------------------

// One axis of the written region, [lo, hi): the source span mapped with
// start rounded half down and end rounded half up, limited to the
// destination VOI. srcExtent is the part of the source VOI inside the volume.
struct Span {
    int lo, hi;
};
inline Span regionAxis(int srcFirst, int srcExtent, int voiFirst, int voiExtent, double factor, double shift) {
    const double a = std::max(srcFirst * factor + shift, double(voiFirst));
    const double b = std::min((srcFirst + srcExtent) * factor + shift, double(voiFirst + voiExtent));
    return {int(std::trunc(a + 0.4999999999)), int(std::trunc(b + 0.5000000001))};
}

// Kernel weights for taps i0-1 .. i0+2 at fraction t, written independently of
// the library's piecewise form: the Lagrange basis polynomials through the
// four taps for code 4, the Mitchell-Netravali (B, C) kernel for 5 to 7.
inline void refCubicWeights(int code, double t, double w[4]) {
    if (code == 4) {
        w[0] = -t * (t - 1) * (t - 2) / 6;
        w[1] = (t + 1) * (t - 1) * (t - 2) / 2;
        w[2] = -(t + 1) * t * (t - 2) / 2;
        w[3] = (t + 1) * t * (t - 1) / 6;
        return;
    }
    const double B = code == 5 ? 1.0 : code == 6 ? 0.0 : 0.5;
    const double C = code == 5 ? 0.0 : code == 6 ? 0.5 : 0.3;
    auto k = [&](double x) {
        x = std::fabs(x);
        if (x < 1) return ((12 - 9 * B - 6 * C) * x * x * x + (-18 + 12 * B + 6 * C) * x * x + (6 - 2 * B)) / 6;
        if (x < 2)
            return ((-B - 6 * C) * x * x * x + (6 * B + 30 * C) * x * x + (-12 * B - 48 * C) * x + (8 * B + 24 * C)) /
                   6;
        return 0.0;
    };
    for (int j = 0; j < 4; ++j) w[j] = k(t + 1 - j);
}

// Taps and weights of destination coordinate i on one axis: the source point
// (i + 0.5) / factor - shift / factor in voxel-centre units, taps clamped to
// the source region [lo, hi].
struct RefTaps {
    int n = 0;
    int idx[4];
    double w[4];
};
inline RefTaps refAxis(int code, int i, double factor, double shift, int lo, int hi) {
    const double u = (i + 0.5) / factor - shift / factor - 0.5;
    const double i0 = std::floor(u), t = u - i0;
    RefTaps r;
    auto clampi = [&](double v) { return int(std::min<double>(std::max<double>(v, lo), hi)); };
    if (code == 2) {
        r.n = 2;
        r.idx[0] = clampi(i0);
        r.idx[1] = clampi(i0 + 1);
        r.w[0] = 1 - t;
        r.w[1] = t;
    } else {
        r.n = 4;
        refCubicWeights(code, t, r.w);
        for (int j = 0; j < 4; ++j) r.idx[j] = clampi(i0 - 1 + j);
    }
    return r;
}

// Linear or cubic resize value of destination voxel (x, y, z) in double: the
// tensor product of the three axes' weights over the clamped taps.
template <class T>
double refValue(const Vol<T>& s, const Args& a, const int lo[3], const int hi[3], int x, int y, int z) {
    const RefTaps tx = refAxis(a.interpolation, x, a.factor[0], a.shift[0], lo[0], hi[0]);
    const RefTaps ty = refAxis(a.interpolation, y, a.factor[1], a.shift[1], lo[1], hi[1]);
    const RefTaps tz = refAxis(a.interpolation, z, a.factor[2], a.shift[2], lo[2], hi[2]);
    double sum = 0;
    for (int k = 0; k < tz.n; ++k)
        for (int j = 0; j < ty.n; ++j)
            for (int i = 0; i < tx.n; ++i)
                sum += tz.w[k] * ty.w[j] * tx.w[i] * double(s(tx.idx[i], ty.idx[j], tz.idx[k]));
    return sum;
}

}  // namespace rt

#endif  // VEKR_TESTS_VOLUME_RESIZE_TESTUTIL_H
