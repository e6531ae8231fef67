// Reference evaluation of the real spherical harmonics in long double, from the
// definition through the associated Legendre recurrence (no closed forms, no
// tables of the library), and helpers to build states and directions.
#ifndef VEKR_TESTS_SH_REFERENCE_H
#define VEKR_TESTS_SH_REFERENCE_H

#include <cmath>
#include <cstdint>
#include <vector>

#include "testutil.h"
#include "vekr.h"

namespace sht {

// d^m/dz^m P_l(z) for l >= m, by the recurrence
//   Q_m^m = (2m-1)!!,  Q_(m+1)^m = (2m+1) z Q_m^m,
//   (l-m) Q_l^m = (2l-1) z Q_(l-1)^m - (l+m-1) Q_(l-2)^m.
// With sin^m(theta) it is (-1)^m P_l^m(z); keeping sin^m(theta) inside the
// azimuthal factor Re/Im (x+iy)^m makes the whole a polynomial in x, y, z,
// which is how the library defines the functions off the unit sphere too.
inline long double legendreDerivative(int l, int m, long double z) {
    long double qmm = 1.0L;
    for (int k = 1; k <= m; ++k) qmm *= 2 * k - 1;
    if (l == m) return qmm;
    long double q1 = (2 * m + 1) * z * qmm, q2 = qmm;
    for (int k = m + 2; k <= l; ++k) {
        long double q = ((2 * k - 1) * z * q1 - (k + m - 1) * q2) / (k - m);
        q2 = q1;
        q1 = q;
    }
    return q1;
}

// Y_l^m(x, y, z), m = -l .. l, in long double.
inline long double referenceY(int l, int m, long double x, long double y, long double z) {
    const int am = m < 0 ? -m : m;
    // K_l^m with the factorial ratio accumulated as a product.
    long double ratio = 1.0L;
    for (int k = l - am + 1; k <= l + am; ++k) ratio /= k;
    const long double pi = 3.141592653589793238462643383279502884L;
    const long double k = std::sqrt((2 * l + 1) / (4 * pi) * ratio);
    const long double q = legendreDerivative(l, am, z);
    if (m == 0) return k * q;
    long double re = 1.0L, im = 0.0L;
    for (int i = 0; i < am; ++i) {
        const long double r = re * x - im * y;
        im = re * y + im * x;
        re = r;
    }
    const long double sign = (am & 1) ? -1.0L : 1.0L;
    return std::sqrt(2.0L) * k * sign * q * (m > 0 ? re : im);
}

// A caller buffer holding a state, 16-byte aligned.
struct State {
    vt::Buf<std::uint8_t> mem;
    VekrSHState* p = nullptr;
    State(std::uint32_t order, std::uint32_t type) {
        int size = 0;
        EXPECT_EQ(vekStatusOk, vekrSHGetSize_32f(order, type, &size));
        mem.reset(static_cast<std::size_t>(size), 0);
        p = reinterpret_cast<VekrSHState*>(mem.data());
        EXPECT_EQ(vekStatusOk, vekrSHInit_32f(p, order, type));
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;
};

// Directions: the poles, points on the axes and a few others, then random unit
// vectors whose z is a multiple of 2^-12, so that z*z is exact in single
// precision and the library's single-precision square adds no error the
// reference does not see.
struct Directions {
    std::vector<float> x, y, z;
    void add(float a, float b, float c) {
        x.push_back(a);
        y.push_back(b);
        z.push_back(c);
    }
    int size() const { return static_cast<int>(x.size()); }
};

inline Directions testDirections(int numRandom, std::uint64_t seed) {
    Directions d;
    const float h = std::sqrt(0.5f);
    d.add(0, 0, 1);
    d.add(0, 0, -1);
    d.add(1, 0, 0);
    d.add(-1, 0, 0);
    d.add(0, 1, 0);
    d.add(0, -1, 0);
    d.add(h, h, 0);
    d.add(-0.8660254f, 0, 0.5f);
    d.add(0, 0.66143783f, -0.75f);
    vt::Rng rng(seed);
    for (int i = 0; i < numRandom; ++i) {
        const double z = std::round(rng.uniform(-1.0f, 1.0f) * 4096.0) / 4096.0;
        const double phi = rng.uniform(0.0f, 6.2831853f);
        const double s = std::sqrt(std::max(0.0, 1.0 - z * z));
        d.add(static_cast<float>(s * std::cos(phi)), static_cast<float>(s * std::sin(phi)), static_cast<float>(z));
    }
    return d;
}

// Distance between adjacent floats at the magnitude of v.
inline double ulpAt(double v) {
    const float f = static_cast<float>(std::fabs(v));
    return static_cast<double>(std::nextafter(f, INFINITY) - f);
}

}  // namespace sht

#endif  // VEKR_TESTS_SH_REFERENCE_H
