// Volume resize: argument checks and warnings, the written region, nearest
// copies, and linear and cubic results against an independent double-precision
// reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "resize_testutil.h"

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
    rt::fillRandom(s, rng, -1, 1);
    Args a = wholeVolumeArgs(s, d, 1.5, 2);
    auto buf = rt::workBuffer(a);
    vt::fillCanary(d.buf);
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
    EXPECT_TRUE(vt::CanaryIntact(d.buf));
}

// ---------------------------------------------------------------------------
// Nearest
// ---------------------------------------------------------------------------

template <class T>
void checkNearestCopy(bool planar) {
    Vol<T> s(9, 7, 5, 4, 3, 1);
    vt::Rng rng(2);
    rt::fillRandom(s, rng, 0, 250);
    if constexpr (std::is_same<T, float>::value) {
        // Float copies are bit copies: special values pass through.
        *s.at(2, 2, 1) = vt::fromBits(0xFFC00000u);
        *s.at(3, 2, 1) = -0.0f;
        *s.at(4, 2, 1) = 1e-40f;
    }
    Vol<T> d(12, 10, 8);
    vt::fillCanary(d.buf);
    Args a;
    a.srcVoi = VekrCuboid{2, 1, 1, 6, 5, 3};
    a.dstVoi = VekrCuboid{0, 0, 0, 12, 10, 8};
    a.interpolation = 1;
    auto buf = rt::workBuffer(a);
    ASSERT_EQ(vekStatusOk, rt::resize(s, d, a, buf.data(), planar));
    for (int z = 0; z < d.d; ++z)
        for (int y = 0; y < d.h; ++y)
            for (int x = 0; x < d.w; ++x) {
                const bool in = x >= 2 && x < 8 && y >= 1 && y < 6 && z >= 1 && z < 4;
                if (in)
                    ASSERT_TRUE(vt::SameBits(s.at(x, y, z), d.at(x, y, z), 1)) << x << "," << y << "," << z;
                else
                    ASSERT_TRUE(vt::CanaryIntact(d.at(x, y, z), 1)) << x << "," << y << "," << z;
            }
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
    for (int z = 0; z < 6; ++z)
        for (int y = 0; y < 6; ++y)
            for (int x = 0; x < 12; ++x) s(x, y, z) = static_cast<std::uint16_t>(x + 100 * y + 1000 * z);
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
        for (int z = 0; z < c.dd; ++z)
            for (int y = 0; y < c.dh; ++y)
                for (int x = 0; x < c.dw; ++x) {
                    const int sz = c.fz == 1 ? z : 2 * z;
                    ASSERT_EQ(s(c.mapX(x), c.mapY(y), sz), d(x, y, z)) << x << "," << y << "," << z;
                }
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
        rt::fillRandom(sc.s, rng, std::is_integral<T>::value ? 0.0f : -float(maxValue), float(maxValue));
        Vol<T> d(sc.a.dstVoi.x + sc.dw + 2, sc.a.dstVoi.y + sc.dh + 1, sc.a.dstVoi.z + sc.dd + 1);
        vt::fillCanary(d.buf);
        auto buf = rt::workBuffer(sc.a);
        const VekStatus st = rt::resize(sc.s, d, sc.a, buf.data(), round % 2 == 1);
        const Region r = regionOf(sc.s, sc.a);
        const bool empty = r.ax[0].hi <= r.ax[0].lo || r.ax[1].hi <= r.ax[1].lo || r.ax[2].hi <= r.ax[2].lo;
        ASSERT_EQ(empty ? vekStatusNoOperation : vekStatusOk, st) << "round " << round;
        for (int z = 0; z < d.d; ++z)
            for (int y = 0; y < d.h; ++y)
                for (int x = 0; x < d.w; ++x) {
                    if (empty || !r.contains(x, y, z)) {
                        ASSERT_TRUE(vt::CanaryIntact(d.at(x, y, z), 1)) << "outside write, round " << round;
                        continue;
                    }
                    const double ref = rt::refValue(sc.s, sc.a, r.srcLo, r.srcHi, x, y, z);
                    const double got = d(x, y, z);
                    ++total;
                    if (!std::is_integral<T>::value) {
                        ASSERT_NEAR(ref, got, kRelTol * maxValue)
                            << "round " << round << " voxel " << x << "," << y << "," << z;
                        continue;
                    }
                    // Integers: round half up, clamp to the type's range; the
                    // value is exact unless the reference lies within the
                    // float error budget of a rounding boundary.
                    const double frac = ref - std::floor(ref);
                    if (std::fabs(frac - 0.5) < 2e-6 * maxValue + 1e-4) continue;
                    const double want = std::min(std::max(std::floor(ref + 0.5), 0.0), maxValue);
                    ASSERT_EQ(want, got) << "ref " << ref << " round " << round << " voxel " << x << "," << y << ","
                                         << z;
                    ++exactChecked;
                }
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
    for (int z = 0; z < 4; ++z)
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 8; ++x) s(x, y, z) = static_cast<T>(x < 4 ? 0 : maxValue);
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
    rt::fillRandom(s, rng, 0, 255);
    int calls = 0;
    for (double f : values)
        for (double sh : values)
            for (int code : {1, 2, 6}) {
                Vol<std::uint8_t> d(9, 8, 7);
                vt::fillCanary(d.buf);
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
                for (int z = 0; z < d.d; ++z)
                    for (int y = 0; y < d.h; ++y)
                        for (int x = 0; x < d.w; ++x) {
                            const bool inVoi = x >= 2 && x < 7 && y >= 1 && y < 7 && z >= 1 && z < 5;
                            if (st != vekStatusOk || !inVoi) {
                                ASSERT_TRUE(vt::CanaryIntact(d.at(x, y, z), 1));
                            }
                        }
                calls += st == vekStatusOk;
            }
    EXPECT_GT(calls, 20);
}

// The 32f block variant uses its byte steps in whole floats: steps that are
// not a multiple of 4 bytes act as the next lower multiple.
TEST(Resize, FloatBlockStepsAreTakenInWholeFloats) {
    Vol<float> s(10, 6, 4), d(16, 9, 6);
    vt::Rng rng(50);
    rt::fillRandom(s, rng, -5, 5);
    Args a = wholeVolumeArgs(s, d, 1.5, 6);
    auto buf = rt::workBuffer(a);
    Vol<float> ref(16, 9, 6);
    ASSERT_EQ(vekStatusOk, rt::resize(s, ref, a, buf.data(), false));
    ASSERT_EQ(vekStatusOk,
              vekrResize_32f_C1V(s.base(), rt::volumeOf(10, 6, 4), s.step + 3, s.planeStep + 2, a.srcVoi, d.base(),
                                 d.step + 1, d.planeStep + 3, a.dstVoi, 1.5, 1.5, 1.5, 0, 0, 0, 6, buf.data()));
    EXPECT_TRUE(vt::SameBits(ref.bytes(), d.bytes()));
}

}  // namespace
