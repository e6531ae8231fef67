// Volume resize: argument checks and warnings, the written region, nearest
// copies, linear and cubic results against an independent double-precision
// reference, and results that must not depend on how the work is done: the
// vector and scalar paths, the two volume layouts, and the thread count.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "volume_testutil.h"

namespace rt {

using vv::Vol;

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
    return Fns<T>::block(s.ptr(0, 0, 0), v, s.step, s.planeStep, a.srcVoi, d.base(), d.step, d.planeStep, a.dstVoi,
                         a.factor[0], a.factor[1], a.factor[2], a.shift[0], a.shift[1], a.shift[2], a.interpolation,
                         buffer);
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
        for (int j = 0; j < 4; ++j) r.idx[j] = clampi(i0 - 1 + j), r.w[j] = vv::refKernel(code, t + 1 - j);
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


namespace {

using rt::Args;
using rt::Vol;

// The written region of a resize (see rt::regionAxis), with the source VOI
// cut back to the volume.
struct Region {
    rt::Span ax[3];
    int srcLo[3], srcHi[3];
    bool contains(int x, int y, int z) const {
        return x >= ax[0].lo && x < ax[0].hi && y >= ax[1].lo && y < ax[1].hi && z >= ax[2].lo && z < ax[2].hi;
    }
};
template <class T>
Region regionOf(const Vol<T>& s, const Args& a) {
    const int first[3] = {a.srcVoi.x, a.srcVoi.y, a.srcVoi.z};
    const int ext[3] = {a.srcVoi.width, a.srcVoi.height, a.srcVoi.depth};
    const int volExt[3] = {s.w, s.h, s.d};
    const int voiFirst[3] = {a.dstVoi.x, a.dstVoi.y, a.dstVoi.z};
    const int voiExt[3] = {a.dstVoi.width, a.dstVoi.height, a.dstVoi.depth};
    Region r;
    for (int k = 0; k < 3; ++k) {
        const int e = std::min(ext[k], volExt[k] - first[k]);
        r.ax[k] = rt::regionAxis(first[k], e, voiFirst[k], voiExt[k], a.factor[k], a.shift[k]);
        r.srcLo[k] = first[k];
        r.srcHi[k] = first[k] + e - 1;
    }
    return r;
}

template <class T>
Args wholeVolumeArgs(const Vol<T>& s, const Vol<T>& d, double f, int code) {
    Args a;
    a.srcVoi = VekrCuboid{0, 0, 0, s.w, s.h, s.d};
    a.dstVoi = VekrCuboid{0, 0, 0, d.w, d.h, d.d};
    a.factor[0] = a.factor[1] = a.factor[2] = f;
    a.interpolation = code;
    return a;
}

// ---------------------------------------------------------------------------
// Checks and warnings
// ---------------------------------------------------------------------------

TEST(Resize, ChecksInOrderAndFailuresWriteNothing) {
    Vol<float> s(6, 5, 4), d(8, 8, 8);
    vt::Rng rng(1);
    vv::fillRandom(s, rng, -1, 1);
    Args a = wholeVolumeArgs(s, d, 1.5, 2);
    auto buf = rt::workBuffer(a);
    d.fillCanary();
    const VekrVolume vol = rt::volumeOf(6, 5, 4);
    auto call = [&](const float* src, float* dst, std::uint8_t* b, VekrVolume v, const Args& x) {
        return vekrResize_32f_C1V(src, v, s.step, s.planeStep, x.srcVoi, dst, d.step, d.planeStep, x.dstVoi,
                                  x.factor[0], x.factor[1], x.factor[2], x.shift[0], x.shift[1], x.shift[2],
                                  x.interpolation, b);
    };
    Args bad = a;
    bad.interpolation = 3;
    bad.factor[1] = 0;
    bad.srcVoi.width = 0;
    // Each null pointer, even with a bad size, factor and code.
    EXPECT_EQ(vekStatusNullPtr, call(nullptr, d.base(), buf.data(), vol, bad));
    EXPECT_EQ(vekStatusNullPtr, call(s.base(), nullptr, buf.data(), vol, bad));
    EXPECT_EQ(vekStatusNullPtr, call(s.base(), d.base(), nullptr, vol, bad));
    // Volume extents, then each VOI field, before the factor.
    for (int k = 0; k < 3; ++k) {
        VekrVolume v = vol;
        (k == 0 ? v.width : k == 1 ? v.height : v.depth) = 0;
        EXPECT_EQ(vekStatusBadSize, call(s.base(), d.base(), buf.data(), v, bad));
    }
    for (int k = 0; k < 12; ++k) {
        Args b = a;
        b.factor[0] = -1;
        VekrCuboid& c = k < 6 ? b.srcVoi : b.dstVoi;
        int* fields[6] = {&c.x, &c.width, &c.y, &c.height, &c.z, &c.depth};
        *fields[k % 6] = (k % 2 == 0) ? -1 : 0;
        EXPECT_EQ(vekStatusBadSize, call(s.base(), d.base(), buf.data(), vol, b)) << "field " << k;
    }
    bad = a;
    bad.factor[2] = -2;
    bad.interpolation = 3;
    EXPECT_EQ(vekStatusBadResizeFactor, call(s.base(), d.base(), buf.data(), vol, bad));
    // The code is checked before the source corner.
    bad = a;
    bad.interpolation = 3;
    bad.srcVoi.x = 6;
    EXPECT_EQ(vekStatusBadInterpolation, call(s.base(), d.base(), buf.data(), vol, bad));
    bad.interpolation = 8;
    EXPECT_EQ(vekStatusBadInterpolation, call(s.base(), d.base(), buf.data(), vol, bad));
    // Source corner on or past the volume's end on each axis: a warning.
    for (int k = 0; k < 3; ++k) {
        Args b = a;
        (k == 0 ? b.srcVoi.x : k == 1 ? b.srcVoi.y : b.srcVoi.z) = k == 0 ? 6 : k == 1 ? 5 : 9;
        b.shift[0] = -1000;  // would also be empty: the corner check comes first
        EXPECT_EQ(vekStatusVoiOutsideSrc, call(s.base(), d.base(), buf.data(), vol, b));
    }
    // A region that maps entirely outside dstVoi.
    bad = a;
    bad.shift[1] = 100;
    EXPECT_EQ(vekStatusNoOperation, call(s.base(), d.base(), buf.data(), vol, bad));
    bad = a;
    bad.dstVoi = VekrCuboid{0, 0, 7, 8, 8, 1};
    bad.factor[2] = 1;  // source planes [0, 4) map to [0, 4), dstVoi holds only plane 7
    EXPECT_EQ(vekStatusNoOperation, call(s.base(), d.base(), buf.data(), vol, bad));
    EXPECT_TRUE(d.canaryIntact());
}

// ---------------------------------------------------------------------------
// Nearest
// ---------------------------------------------------------------------------

template <class T>
void checkNearestCopy(bool planar) {
    Vol<T> s(9, 7, 5, 4, 3, 1);
    vt::Rng rng(2);
    vv::fillRandom(s, rng, 0, 250);
    if constexpr (std::is_same<T, float>::value) {
        // Float copies are bit copies: special values pass through.
        s.at(2, 2, 1) = vt::fromBits(0xFFC00000u);
        s.at(3, 2, 1) = -0.0f;
        s.at(4, 2, 1) = 1e-40f;
    }
    Vol<T> d(12, 10, 8);
    d.fillCanary();
    Args a;
    a.srcVoi = VekrCuboid{2, 1, 1, 6, 5, 3};
    a.dstVoi = VekrCuboid{0, 0, 0, 12, 10, 8};
    a.interpolation = 1;
    auto buf = rt::workBuffer(a);
    ASSERT_EQ(vekStatusOk, rt::resize(s, d, a, buf.data(), planar));
    auto in = [](int x, int y, int z) { return x >= 2 && x < 8 && y >= 1 && y < 6 && z >= 1 && z < 4; };
    vv::forEachVoxel(6, 5, 3, [&](int x, int y, int z) {
        EXPECT_TRUE(vt::SameBits(s.ptr(x + 2, y + 1, z + 1), d.ptr(x + 2, y + 1, z + 1), 1)) << x << "," << y << "," << z;
    });
    EXPECT_TRUE(d.canaryIntact(in));
}

TEST(ResizeNearest, FactorOneCopiesTheSourceVoiExactly) {
    for (bool planar : {false, true}) {
        checkNearestCopy<std::uint8_t>(planar);
        checkNearestCopy<std::uint16_t>(planar);
        checkNearestCopy<float>(planar);
    }
}

// Factor 2 repeats every voxel twice; factor 0.5 samples at integer source
// coordinates 2i + 1 (a boundary between two voxels), where the bias picks
// the lower voxel 2i; factor 1/3 takes the middle voxel of each triple.
TEST(ResizeNearest, RepeatsVoxelsAndSendsHalfWayPointsDown) {
    Vol<std::uint16_t> s(12, 6, 6);
    s.fill([](int x, int y, int z) { return x + 100 * y + 1000 * z; });
    struct Case {
        double fx, fy, fz;
        int dw, dh, dd;
        int (*mapX)(int);
        int (*mapY)(int);
    } cases[] = {
        {2, 0.5, 1, 24, 3, 6, [](int i) { return i / 2; }, [](int i) { return 2 * i; }},
        {1.0 / 3.0, 2, 0.5, 4, 12, 3, [](int i) { return 3 * i + 1; }, [](int i) { return i / 2; }},
    };
    for (const Case& c : cases) {
        Vol<std::uint16_t> d(c.dw, c.dh, c.dd);
        Args a = wholeVolumeArgs(s, d, 1, 1);
        a.factor[0] = c.fx;
        a.factor[1] = c.fy;
        a.factor[2] = c.fz;
        auto buf = rt::workBuffer(a);
        ASSERT_EQ(vekStatusOk, rt::resize(s, d, a, buf.data(), false));
        vv::forEachVoxel(c.dw, c.dh, c.dd, [&](int x, int y, int z) {
            EXPECT_EQ(s(c.mapX(x), c.mapY(y), c.fz == 1 ? z : 2 * z), d(x, y, z)) << x << "," << y << "," << z;
        });
    }
}

// ---------------------------------------------------------------------------
// Linear and cubic against the double reference
// ---------------------------------------------------------------------------

// Random geometry: source volume and VOI, factors between 0.4 and 2.6,
// shifts of up to +-3 voxels, a destination VOI that may cut the region.
template <class T>
struct Scenario {
    Vol<T> s;
    Args a;
    int dw, dh, dd;
};
template <class T>
Scenario<T> randomScenario(vt::Rng& rng, int code) {
    const int sw = 3 + rng.below(12), sh = 3 + rng.below(10), sd = 2 + rng.below(8);
    Scenario<T> sc{Vol<T>(sw, sh, sd, 0, rng.below(3), rng.below(2)), Args{}, 0, 0, 0};
    Args& a = sc.a;
    a.interpolation = code;
    // Corners mostly in the first half, sometimes on the last voxel.
    a.srcVoi.x = rng.below(4) == 0 ? sw - 1 : rng.below(sw / 2 + 1);
    a.srcVoi.y = rng.below(4) == 0 ? sh - 1 : rng.below(sh / 2 + 1);
    a.srcVoi.z = rng.below(sd / 2 + 1);
    // Widths may run past the volume (they are cut back).
    a.srcVoi.width = 1 + rng.below(sw + 2);
    a.srcVoi.height = 1 + rng.below(sh + 2);
    a.srcVoi.depth = 1 + rng.below(sd + 2);
    for (int k = 0; k < 3; ++k) {
        a.factor[k] = rng.uniform(0.4f, 2.6f);
        a.shift[k] = rng.uniform(-3, 3);
    }
    sc.dw = 3 + rng.below(30);
    sc.dh = 3 + rng.below(24);
    sc.dd = 2 + rng.below(16);
    a.dstVoi = VekrCuboid{rng.below(3), rng.below(3), rng.below(2), sc.dw, sc.dh, sc.dd};
    return sc;
}

// Error budget of the float pipeline, as a fraction of the largest source
// magnitude: each of the three passes rounds the weights (one relative
// rounding each), the four products and the three sums, i.e. about
// 11 * 2^-24 times the sum of |weights| (at most 1.25 for these kernels,
// which multiply up over the passes to about 2). That is about 1.7e-6; the
// tolerance allows 5 times that for the 32f comparison.
constexpr double kRelTol = 1e-5;

template <class T>
void checkAgainstReference(int code, int seed, int rounds, double maxValue) {
    vt::Rng rng(seed);
    long exactChecked = 0, total = 0;
    for (int round = 0; round < rounds; ++round) {
        Scenario<T> sc = randomScenario<T>(rng, code);
        vv::fillRandom(sc.s, rng, std::is_integral<T>::value ? 0.0f : -float(maxValue), float(maxValue));
        Vol<T> d(sc.a.dstVoi.x + sc.dw + 2, sc.a.dstVoi.y + sc.dh + 1, sc.a.dstVoi.z + sc.dd + 1);
        d.fillCanary();
        auto buf = rt::workBuffer(sc.a);
        const VekStatus st = rt::resize(sc.s, d, sc.a, buf.data(), round % 2 == 1);
        const Region r = regionOf(sc.s, sc.a);
        const bool empty = r.ax[0].hi <= r.ax[0].lo || r.ax[1].hi <= r.ax[1].lo || r.ax[2].hi <= r.ax[2].lo;
        ASSERT_EQ(empty ? vekStatusNoOperation : vekStatusOk, st) << "round " << round;
        EXPECT_TRUE(d.canaryIntact([&](int x, int y, int z) { return !empty && r.contains(x, y, z); }))
            << "outside write, round " << round;
        if (empty) continue;
        vv::forEachVoxel(d.w, d.h, d.d, [&](int x, int y, int z) {
            if (!r.contains(x, y, z)) return;
            const double ref = rt::refValue(sc.s, sc.a, r.srcLo, r.srcHi, x, y, z);
            const double got = d(x, y, z);
            ++total;
            if (!std::is_integral<T>::value) {
                EXPECT_NEAR(ref, got, kRelTol * maxValue) << "round " << round << " voxel " << x << "," << y << "," << z;
                return;
            }
            // Integers: round half up, clamp to the type's range; the value is
            // exact unless the reference lies within the float error budget
            // of a rounding boundary.
            if (std::fabs(ref - std::floor(ref) - 0.5) < 2e-6 * maxValue + 1e-4) return;
            const double want = std::min(std::max(std::floor(ref + 0.5), 0.0), maxValue);
            EXPECT_EQ(want, got) << "ref " << ref << " round " << round << " voxel " << x << "," << y << "," << z;
            ++exactChecked;
        });
    }
    ASSERT_GT(total, 1000);
    // Most voxels lie away from a boundary (the 16u margin is the widest).
    if (std::is_integral<T>::value) {
        EXPECT_GT(exactChecked, total * 6 / 10);
    }
}

TEST(ResizeLinearCubic, Float_MatchesDoubleReference) {
    for (int code : {2, 4, 5, 6, 7}) checkAgainstReference<float>(code, 10 + code, 40, 1000.0);
}

TEST(ResizeLinearCubic, Integer_MatchesRoundedDoubleReference) {
    for (int code : {2, 4, 5, 6, 7}) {
        checkAgainstReference<std::uint8_t>(code, 20 + code, 40, 255.0);
        checkAgainstReference<std::uint16_t>(code, 30 + code, 40, 65535.0);
    }
}

// A step from 0 to the maximum overshoots on both sides under the
// interpolating cubics (Catmull-Rom, Lagrange): the stored results clamp to
// 0 and to the maximum instead of wrapping.
template <class T>
void checkOvershootClamps(int code, double maxValue) {
    Vol<T> s(8, 4, 4);
    s.fill([&](int x, int, int) { return x < 4 ? 0 : maxValue; });
    Vol<T> d(32, 4, 4);
    Args a = wholeVolumeArgs(s, d, 1, code);
    a.factor[0] = 4;
    auto buf = rt::workBuffer(a);
    ASSERT_EQ(vekStatusOk, rt::resize(s, d, a, buf.data(), false));
    const Region r = regionOf(s, a);
    bool sawHigh = false, sawLow = false;
    for (int x = 0; x < 32; ++x) {
        const double ref = rt::refValue(s, a, r.srcLo, r.srcHi, x, 1, 1);
        if (ref > maxValue + 1) {
            sawHigh = true;
            EXPECT_EQ(maxValue, double(d(x, 1, 1))) << x;
        }
        if (ref < -1) {
            sawLow = true;
            EXPECT_EQ(0.0, double(d(x, 1, 1))) << x;
        }
    }
    EXPECT_TRUE(sawHigh && sawLow) << "the step must overshoot both ways";
}

TEST(ResizeLinearCubic, IntegerOvershootClampsToTheRange) {
    for (int code : {4, 6}) {
        checkOvershootClamps<std::uint8_t>(code, 255);
        checkOvershootClamps<std::uint16_t>(code, 65535);
    }
}

// A source VOI wider than the volume is cut back: the result equals the one
// for the VOI that stops at the volume's end, and no voxel beyond the volume
// is read (the source is allocated to its exact size, so an over-read shows
// under the address sanitizer).
TEST(Resize, SourceVoiPastTheVolumeIsCutBack) {
    for (int code : {1, 2, 6}) {
        const int sw = 7, sh = 6, sd = 5;
        std::vector<float> exact(sw * sh * sd);
        vt::Rng rng(40 + code);
        for (float& v : exact) v = rng.uniform(0.5f, 1);
        Vol<float> s(sw, sh, sd);
        std::memcpy(s.base(), exact.data(), exact.size() * sizeof(float));
        Vol<float> d1(20, 20, 20), d2(20, 20, 20);
        Args a = wholeVolumeArgs(s, d1, 2, code);
        a.srcVoi = VekrCuboid{2, 1, 3, 50, 90, 7};
        a.shift[0] = -1;
        Args b = a;
        b.srcVoi.width = 5;  // exactly to the volume's end
        b.srcVoi.height = 5;
        b.srcVoi.depth = 2;
        auto buf = rt::workBuffer(a);
        ASSERT_EQ(vekStatusOk,
                  vekrResize_32f_C1V(exact.data(), rt::volumeOf(sw, sh, sd), sw * 4, sw * sh * 4, a.srcVoi, d1.base(),
                                     d1.step, d1.planeStep, a.dstVoi, 2, 2, 2, -1, 0, 0, code, buf.data()));
        ASSERT_EQ(vekStatusOk, rt::resize(s, d2, b, buf.data(), true));
        EXPECT_TRUE(vt::SameBits(d1.bytes(), d2.bytes())) << "code " << code;
        // Region x: [2 * 2 - 1, 7 * 2 - 1) = [3, 13); outside it nothing is written.
        EXPECT_NE(0.0f, d1(12, 3, 7));
        EXPECT_EQ(0.0f, d1(13, 3, 7));
        EXPECT_EQ(0.0f, d1(2, 3, 7));
    }
}

// Infinite, huge, tiny and NaN factors and shifts: every call either writes
// nothing or writes only inside dstVoi (the region never leaves it), and
// nothing reads outside the source (checked by the sanitizers); 8u results of
// NaN sums are 0.
TEST(Resize, ExtremeFactorsAndShiftsStayInsideTheVolumes) {
    const double values[] = {INFINITY, 1e300, 1e-300, NAN, -INFINITY, 0.7};
    Vol<std::uint8_t> s(5, 4, 3);
    vt::Rng rng(60);
    vv::fillRandom(s, rng, 0, 255);
    int calls = 0;
    for (double f : values)
        for (double sh : values)
            for (int code : {1, 2, 6}) {
                Vol<std::uint8_t> d(9, 8, 7);
                d.fillCanary();
                Args a = wholeVolumeArgs(s, d, 1, code);
                a.dstVoi = VekrCuboid{2, 1, 1, 5, 6, 4};
                a.factor[0] = f;
                a.shift[1] = sh;
                a.factor[2] = 1.5;
                auto buf = rt::workBuffer(a);
                const VekStatus st = rt::resize(s, d, a, buf.data(), false);
                VekrCuboid c{};
                const VekStatus stCuboid = vekrGetResizeCuboid(a.srcVoi, &c, f, 1, 1.5, 0, sh, 0, code);
                ASSERT_EQ(st == vekStatusBadResizeFactor, stCuboid == vekStatusBadResizeFactor);
                ASSERT_TRUE(st == vekStatusOk || st == vekStatusNoOperation || st == vekStatusBadResizeFactor);
                auto inVoi = [&](int x, int y, int z) {
                    return st == vekStatusOk && x >= 2 && x < 7 && y >= 1 && y < 7 && z >= 1 && z < 5;
                };
                ASSERT_TRUE(d.canaryIntact(inVoi));
                calls += st == vekStatusOk;
            }
    EXPECT_GT(calls, 20);
}

// The 32f block variant uses its byte steps in whole floats: steps that are
// not a multiple of 4 bytes act as the next lower multiple.
TEST(Resize, FloatBlockStepsAreTakenInWholeFloats) {
    Vol<float> s(10, 6, 4), d(16, 9, 6);
    vt::Rng rng(50);
    vv::fillRandom(s, rng, -5, 5);
    Args a = wholeVolumeArgs(s, d, 1.5, 6);
    auto buf = rt::workBuffer(a);
    Vol<float> ref(16, 9, 6);
    ASSERT_EQ(vekStatusOk, rt::resize(s, ref, a, buf.data(), false));
    ASSERT_EQ(vekStatusOk,
              vekrResize_32f_C1V(s.base(), rt::volumeOf(10, 6, 4), s.step + 3, s.planeStep + 2, a.srcVoi, d.base(),
                                 d.step + 1, d.planeStep + 3, a.dstVoi, 1.5, 1.5, 1.5, 0, 0, 0, 6, buf.data()));
    EXPECT_TRUE(vt::SameBits(ref.bytes(), d.bytes()));
}

// ---------------------------------------------------------------------------
// Paths, layouts and threads
// ---------------------------------------------------------------------------

using vv::padTo16;
using vv::sprinkleSpecials;

// One resize at a given buffer offset: offset 0 with 16-byte steps and a
// written width that is a multiple of 4 takes the vector path; offsets 4 and
// 8 take the scalar path. Returns every byte of the destination block.
template <class T>
std::vector<std::uint8_t> runAtOffset(std::size_t offset, const Args& a, int sw, int sh, int sd, int dw, int dh, int dd,
                                      bool planar, int seed) {
    Vol<T> s(sw, sh, sd, offset, padTo16<T>(sw), 1);
    vt::Rng rng(seed);
    vv::fillRandom(s, rng, 0, std::is_same<T, std::uint8_t>::value ? 256.0f : 60000.0f);
    sprinkleSpecials(s, rng);
    Vol<T> d(dw, dh, dd, offset, padTo16<T>(dw), 0);
    d.fillCanary();
    auto buf = rt::workBuffer(a);
    EXPECT_EQ(vekStatusOk, rt::resize(s, d, a, buf.data(), planar));
    return d.bytes();
}

template <class T>
void checkPaths(int code, bool planar) {
    // (factors, shifts, dstVoi corner): up and down scaling, unclamped x runs
    // that start at odd offsets, regions that start inside the row.
    struct Case {
        double f[3], sh[3];
        int vx;
    } cases[] = {
        {{2, 1.5, 0.75}, {0.3, -1.7, 0.5}, 0},
        {{0.5, 3, 1.25}, {-0.6, 0.25, 0}, 4},
        {{1.37, 0.81, 2.2}, {1.1, 0, -0.3}, 3},
    };
    int seed = 100;
    for (const Case& c : cases) {
        const int sw = 29, sh = 11, sd = 7;
        Args a;
        a.interpolation = code;
        a.srcVoi = VekrCuboid{1, 0, 1, 27, 11, 6};
        for (int k = 0; k < 3; ++k) {
            a.factor[k] = c.f[k];
            a.shift[k] = c.sh[k];
        }
        // dstVoi starts at the region's start or inside it and ends where the
        // written width is a multiple of 4 (a condition of the vector path).
        VekrCuboid r{};
        EXPECT_EQ(vekStatusOk,
                  vekrGetResizeCuboid(a.srcVoi, &r, c.f[0], c.f[1], c.f[2], c.sh[0], c.sh[1], c.sh[2], code));
        a.dstVoi = VekrCuboid{std::max(r.x, c.vx), 1, 0, 0, 14, 9};
        a.dstVoi.width = (r.x + r.width - a.dstVoi.x) / 4 * 4;
        EXPECT_GE(a.dstVoi.width, 8);
        ++seed;
        EXPECT_TRUE(vt::SameAcrossOffsets([&](std::size_t off) {
            return runAtOffset<T>(off, a, sw, sh, sd, a.dstVoi.x + a.dstVoi.width + 3, 16, 10, planar, seed);
        })) << "code "
            << code << " planar " << planar << " factors " << c.f[0] << "," << c.f[1] << "," << c.f[2];
    }
}

TEST(ResizePaths, VectorAndScalarPathsGiveIdenticalBits) {
    for (int code : {2, 4, 5, 6, 7})
        for (bool planar : {false, true}) {
            checkPaths<std::uint8_t>(code, planar);
            checkPaths<std::uint16_t>(code, planar);
            checkPaths<float>(code, planar);
        }
}

// The planar layout with planes scattered in memory gives the block layout's
// result.
template <class T>
void checkLayouts(int code, vt::Rng& rng) {
    const int sw = 5 + rng.below(20), sh = 3 + rng.below(12), sd = 2 + rng.below(8);
    Vol<T> s(sw, sh, sd, 4, 1, 2);
    vv::fillRandom(s, rng, 0, 250);
    sprinkleSpecials(s, rng);
    const int dw = 8 + rng.below(40), dh = 4 + rng.below(20), dd = 3 + rng.below(12);
    Vol<T> d(dw, dh, dd, 8, 2, 0);
    d.fillCanary();
    Args a;
    a.interpolation = code;
    a.srcVoi = VekrCuboid{rng.below(2), rng.below(2), rng.below(2), sw, sh, sd};
    a.dstVoi = VekrCuboid{rng.below(3), rng.below(3), 0, dw - 3, dh - 3, dd};
    for (int k = 0; k < 3; ++k) {
        a.factor[k] = rng.uniform(0.5f, 2.5f);
        a.shift[k] = rng.uniform(-1, 1);
    }
    auto buf = rt::workBuffer(a);
    const VekStatus st = rt::resize(s, d, a, buf.data(), false);

    // The same voxels, planes scattered at varying offsets.
    const Vol<T> sp = s.scattered(4);
    Vol<T> dp = Vol<T>(dw, dh, dd, 8, 2, 0).scattered(4);
    dp.fillCanary();
    ASSERT_EQ(st, rt::resize(sp, dp, a, buf.data(), true));
    EXPECT_TRUE(vt::SameBits(d.bytes(), dp.bytes())) << "code " << code;
}

TEST(ResizePaths, BlockAndPlanarLayoutsAgree) {
    vt::Rng rng(7);
    for (int round = 0; round < 3; ++round)
        for (int code : {1, 2, 4, 5, 6, 7}) {
            checkLayouts<std::uint8_t>(code, rng);
            checkLayouts<std::uint16_t>(code, rng);
            checkLayouts<float>(code, rng);
        }
}

// The float block resize splits regions of at least 16 voxels per axis into
// z slabs per thread. Depths 37 and 17 leave remainders for 2 and 3 threads;
// aligned and unaligned volumes run the vector and the scalar path. Each run
// sizes its buffer for the thread count it runs with.
TEST(ResizePaths, FloatBlockResizeIsIdenticalForOneTwoAndThreeThreads) {
    vv::ThreadCount keep;
    struct Case {
        double f[3];
        int dd;
    } cases[] = {{{1.3, 1.1, 2.5}, 37}, {{0.9, 1.7, 1.21}, 17}};
    for (const Case& c : cases)
        for (int code : {1, 2, 6})
            for (std::size_t off : {std::size_t(0), std::size_t(4)}) {
                Vol<float> s(20, 18, 15, off, 4, 0);
                vt::Rng rng(code);
                vv::fillRandom(s, rng, -100, 100);
                Args a;
                a.interpolation = code;
                a.srcVoi = VekrCuboid{0, 0, 0, 20, 18, 15};
                a.dstVoi = VekrCuboid{1, 0, 2, 24, 20, c.dd};
                for (int k = 0; k < 3; ++k) a.factor[k] = c.f[k];
                std::vector<std::uint8_t> ref;
                for (int threads : {1, 2, 3}) {
                    ASSERT_EQ(vekStatusOk, vekSetNumThreads(threads));
                    Vol<float> d(26, 21, c.dd + 3, off, 4, 0);
                    d.fillCanary();
                    auto buf = rt::workBuffer(a);
                    ASSERT_EQ(vekStatusOk, rt::resize(s, d, a, buf.data(), false));
                    if (threads == 1)
                        ref = d.bytes();
                    else
                        EXPECT_TRUE(vt::SameBits(ref, d.bytes())) << threads << " threads, code " << code;
                }
            }
}

}  // namespace
