// Volume remap: argument checks, the nearest rule against an independent
// reference, linear and cubic sampling against a double-precision reference,
// the small-source lowering, depth-1 sources, and thread independence.
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "remap_reference.h"
#include "testutil.h"
#include "vekr.h"

namespace {

using vtr::Vol;

VekStatus callRemap(const Vol<std::uint8_t>& s, VekrCuboid voi, const Vol<float>* m, Vol<std::uint8_t>& d, int code) {
    return vekrRemap_8u_C1PV(s.cptrs(), s.size(), s.step, voi, m[0].cptrs(), m[1].cptrs(), m[2].cptrs(), m[0].step,
                             d.ptrs(), d.step, d.size(), code);
}
VekStatus callRemap(const Vol<std::uint16_t>& s, VekrCuboid voi, const Vol<float>* m, Vol<std::uint16_t>& d, int code) {
    return vekrRemap_16u_C1PV(s.cptrs(), s.size(), s.step, voi, m[0].cptrs(), m[1].cptrs(), m[2].cptrs(), m[0].step,
                              d.ptrs(), d.step, d.size(), code);
}
VekStatus callRemap(const Vol<float>& s, VekrCuboid voi, const Vol<float>* m, Vol<float>& d, int code) {
    return vekrRemap_32f_C1PV(s.cptrs(), s.size(), s.step, voi, m[0].cptrs(), m[1].cptrs(), m[2].cptrs(), m[0].step,
                              d.ptrs(), d.step, d.size(), code);
}

const int kCodes[] = {1, 2, 4, 5, 6, 7};

// Three maps of the destination's size.
struct Maps {
    Vol<float> m[3];
    Maps(int w, int h, int d, int offsetBytes = 0) {
        for (auto& v : m) v.reset(w, h, d, offsetBytes, 16);
    }
    template <class F>
    void fill(F f) {  // f(x, y, z, point[3])
        for (int z = 0; z < m[0].depth; ++z)
            for (int y = 0; y < m[0].height; ++y)
                for (int x = 0; x < m[0].width; ++x) {
                    float p[3];
                    f(x, y, z, p);
                    for (int a = 0; a < 3; ++a) m[a].at(x, y, z) = p[a];
                }
    }
};

template <class T>
T randomVoxel(vt::Rng& r) {
    if (std::is_floating_point<T>::value) return static_cast<T>(r.uniform(-20.0f, 280.0f));
    return static_cast<T>(r.below(sizeof(T) == 1 ? 256 : 65536));
}

template <class T>
class RemapTyped : public ::testing::Test {};
using ElementTypes = ::testing::Types<std::uint8_t, std::uint16_t, float>;
TYPED_TEST_SUITE(RemapTyped, ElementTypes);

// Checks come in the documented order and a failing call writes nothing.
TEST(Remap, ChecksInOrderAndWriteNothing) {
    Vol<float> src(6, 5, 4), dst(4, 4, 4);
    Maps maps(4, 4, 4);
    const VekrCuboid voi{0, 0, 0, 6, 5, 4};
    vt::fillCanary(dst.raw.data(), dst.raw.size());
    auto run = [&](const float* const* s, VekrVolume sv, VekrCuboid v, const float* const* mx, const float* const* mz,
                   float* const* d, VekrVolume dv, int code) {
        return vekrRemap_32f_C1PV(s, sv, src.step, v, mx, maps.m[1].cptrs(), mz, maps.m[0].step, d, dst.step, dv, code);
    };
    const float* const* S = src.cptrs();
    const float* const* M = maps.m[0].cptrs();
    float* const* D = dst.ptrs();
    const VekrVolume sv = src.size(), dv = dst.size();
    // A null pointer wins over a bad size; pSrc/pDst before the maps.
    EXPECT_EQ(run(nullptr, VekrVolume{0, 1, 1}, voi, M, M, D, dv, 3), vekStatusNullPtr);
    EXPECT_EQ(run(S, sv, voi, M, M, nullptr, dv, 1), vekStatusNullPtr);
    EXPECT_EQ(run(S, sv, voi, nullptr, M, D, dv, 1), vekStatusNullPtr);
    EXPECT_EQ(run(S, sv, voi, M, nullptr, D, dv, 1), vekStatusNullPtr);
    // Sizes, each field, before the interpolation code.
    EXPECT_EQ(run(S, VekrVolume{6, 0, 4}, voi, M, M, D, dv, 3), vekStatusBadSize);
    EXPECT_EQ(run(S, sv, VekrCuboid{-1, 0, 0, 6, 5, 4}, M, M, D, dv, 3), vekStatusBadSize);
    EXPECT_EQ(run(S, sv, VekrCuboid{0, 0, 0, 6, 5, 0}, M, M, D, dv, 3), vekStatusBadSize);
    EXPECT_EQ(run(S, sv, voi, M, M, D, VekrVolume{4, 4, 0}, 3), vekStatusBadSize);
    for (int code : {0, 3, 8, -1}) EXPECT_EQ(run(S, sv, voi, M, M, D, dv, code), vekStatusBadInterpolation) << code;
    // The first corner outside the source: a warning, nothing written.
    EXPECT_EQ(run(S, sv, VekrCuboid{0, 0, 4, 6, 5, 1}, M, M, D, dv, 1), vekStatusVoiOutsideSrc);
    EXPECT_EQ(run(S, sv, VekrCuboid{6, 0, 0, 1, 1, 1}, M, M, D, dv, 2), vekStatusVoiOutsideSrc);
    EXPECT_EQ(run(S, sv, VekrCuboid{0, 5, 0, 1, 1, 1}, M, M, D, dv, 6), vekStatusVoiOutsideSrc);
    EXPECT_TRUE(vt::CanaryIntact(dst.raw.data(), dst.raw.size()));
}

// Maps holding each voxel's own coordinates copy the source with every code
// whose kernel is interpolating (w(0) = 1, w(1) = w(2) = 0): nearest, linear,
// Lagrange and Catmull-Rom. The destination is larger than the source, so
// part of it lies outside and must keep its old values.
TYPED_TEST(RemapTyped, IdentityMapsCopyTheSource) {
    using T = TypeParam;
    vt::Rng rng(7);
    Vol<T> src(9, 7, 6);
    src.fill([&](int, int, int) { return randomVoxel<T>(rng); });
    for (int code : {1, 2, 4, 6}) {
        Vol<T> dst(11, 8, 7);
        dst.fill([](int x, int y, int z) { return static_cast<T>(x + 2 * y + 3 * z + 1); });
        const Vol<T> before = dst;
        Maps maps(11, 8, 7);
        maps.fill([](int x, int y, int z, float* p) { p[0] = x, p[1] = y, p[2] = z; });
        ASSERT_EQ(callRemap(src, VekrCuboid{0, 0, 0, 9, 7, 6}, maps.m, dst, code), vekStatusOk);
        for (int z = 0; z < 7; ++z)
            for (int y = 0; y < 8; ++y)
                for (int x = 0; x < 11; ++x) {
                    const bool in = x < 9 && y < 7 && z < 6;
                    const T want = in ? src.at(x, y, z) : before.at(x, y, z);
                    ASSERT_TRUE(vt::SameBits(&want, &dst.at(x, y, z), 1))
                        << "code " << code << " at " << x << "," << y << "," << z;
                }
    }
}

// Nearest against a reference written from the rule: inclusive box, ties to
// even (std::nearbyint in the default rounding mode), outside points keep
// the old value. Points cluster around half-way values and the box edges.
TYPED_TEST(RemapTyped, NearestMatchesReference) {
    using T = TypeParam;
    vt::Rng rng(11);
    Vol<T> src(13, 9, 8);
    src.fill([&](int, int, int) { return randomVoxel<T>(rng); });
    const VekrCuboid voi{2, 1, 1, 9, 20, 5};  // height runs past the volume: cut back to rows 1..8
    const int lo[3] = {2, 1, 1}, hi[3] = {10, 8, 5};
    Maps maps(16, 5, 6);
    maps.fill([&](int, int, int, float* p) {
        for (int a = 0; a < 3; ++a) {
            const int k = rng.below(5);
            const float base = static_cast<float>(rng.below(hi[a] + 4) - 2);
            if (k == 0)
                p[a] = base + 0.5f;  // exact tie
            else if (k == 1)
                p[a] = (rng.below(2) ? lo[a] : hi[a]) + (rng.below(3) - 1) * 1e-4f;
            else if (k == 2)
                p[a] = std::nextafter(base + 0.5f, rng.below(2) ? 100.0f : -100.0f);
            else
                p[a] = rng.uniform(-2.0f, hi[a] + 2.0f);
        }
    });
    Vol<T> dst(16, 5, 6);
    dst.fill([&](int, int, int) { return randomVoxel<T>(rng); });
    const Vol<T> before = dst;
    ASSERT_EQ(callRemap(src, voi, maps.m, dst, 1), vekStatusOk);
    int inside = 0;
    for (int z = 0; z < 6; ++z)
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 16; ++x) {
                const float p[3] = {maps.m[0].at(x, y, z), maps.m[1].at(x, y, z), maps.m[2].at(x, y, z)};
                bool in = true;
                for (int a = 0; a < 3; ++a) in = in && p[a] >= lo[a] && p[a] <= hi[a];
                T want = before.at(x, y, z);
                if (in) {
                    ++inside;
                    want = src.at(static_cast<int>(std::nearbyint(p[0])), static_cast<int>(std::nearbyint(p[1])),
                                  static_cast<int>(std::nearbyint(p[2])));
                }
                ASSERT_TRUE(vt::SameBits(&want, &dst.at(x, y, z), 1)) << x << "," << y << "," << z;
            }
    EXPECT_GT(inside, 60);
    EXPECT_LT(inside, 16 * 5 * 6 - 60);
}

// Linear and cubic results against the double-precision reference, at
// random points in a sub-box of the source (edges included, so the tap
// clamping is exercised) and points outside it.
TYPED_TEST(RemapTyped, LinearAndCubicMatchReference) {
    using T = TypeParam;
    vt::Rng rng(5);
    Vol<T> src(12, 10, 9);
    src.fill([&](int, int, int) {
        return std::is_floating_point<T>::value ? static_cast<T>(rng.uniform(0.0f, 255.0f))
                                                : static_cast<T>(rng.below(256));
    });
    const VekrCuboid voi{1, 2, 0, 10, 7, 30};
    const int lo[3] = {1, 2, 0}, hi[3] = {10, 8, 8};
    for (int code : {2, 4, 5, 6, 7}) {
        Maps maps(9, 6, 5);
        maps.fill([&](int, int, int, float* p) {
            for (int a = 0; a < 3; ++a) {
                const int k = rng.below(8);
                p[a] =
                    k == 0 ? static_cast<float>(rng.below(2) ? lo[a] : hi[a]) : rng.uniform(lo[a] - 0.3f, hi[a] + 0.3f);
            }
        });
        Vol<T> dst(9, 6, 5);
        dst.fill([](int x, int, int) { return static_cast<T>(x); });
        const Vol<T> before = dst;
        ASSERT_EQ(callRemap(src, voi, maps.m, dst, code), vekStatusOk);
        for (int z = 0; z < 5; ++z)
            for (int y = 0; y < 6; ++y)
                for (int x = 0; x < 9; ++x) {
                    const double p[3] = {maps.m[0].at(x, y, z), maps.m[1].at(x, y, z), maps.m[2].at(x, y, z)};
                    bool in = true;
                    for (int a = 0; a < 3; ++a) in = in && p[a] >= lo[a] && p[a] <= hi[a];
                    const double got = static_cast<double>(dst.at(x, y, z));
                    if (!in) {
                        ASSERT_EQ(got, static_cast<double>(before.at(x, y, z)));
                        continue;
                    }
                    const double want = vtr::refStored<T>(vtr::refSample(src, code, lo, hi, p[0], p[1], p[2]));
                    ASSERT_NEAR(got, want, vtr::refTolerance<T>())
                        << "code " << code << " at " << p[0] << "," << p[1] << "," << p[2];
                }
    }
}

// Overshooting cubic kernels clamp 8u and 16u results to the element range:
// Catmull-Rom across a step from 0 to the maximum undershoots below 0 on one
// side and overshoots the maximum on the other.
TEST(Remap, CubicOvershootIsClampedToTheElementRange) {
    Vol<std::uint8_t> s8(8, 4, 4);
    Vol<std::uint16_t> s16(8, 4, 4);
    s8.fill([](int x, int, int) { return std::uint8_t(x < 4 ? 0 : 255); });
    s16.fill([](int x, int, int) { return std::uint16_t(x < 4 ? 0 : 65535); });
    Maps maps(2, 1, 1);
    maps.fill([](int x, int, int, float* p) { p[0] = x == 0 ? 2.5f : 4.5f, p[1] = 1.5f, p[2] = 1.5f; });
    Vol<std::uint8_t> d8(2, 1, 1);
    Vol<std::uint16_t> d16(2, 1, 1);
    d8.fill([](int, int, int) { return std::uint8_t(77); });
    d16.fill([](int, int, int) { return std::uint16_t(77); });
    const VekrCuboid all{0, 0, 0, 8, 4, 4};
    ASSERT_EQ(callRemap(s8, all, maps.m, d8, 6), vekStatusOk);
    ASSERT_EQ(callRemap(s16, all, maps.m, d16, 6), vekStatusOk);
    // The unclamped values are -0.0625 and 1.0625 times the maximum.
    const int lo[3] = {0, 0, 0}, hi[3] = {7, 3, 3};
    EXPECT_LT(vtr::refSample(s8, 6, lo, hi, 2.5, 1.5, 1.5), 0.0);
    EXPECT_GT(vtr::refSample(s8, 6, lo, hi, 4.5, 1.5, 1.5), 255.0);
    EXPECT_EQ(d8.at(0, 0, 0), 0);
    EXPECT_EQ(d8.at(1, 0, 0), 255);
    EXPECT_EQ(d16.at(0, 0, 0), 0);
    EXPECT_EQ(d16.at(1, 0, 0), 65535);
}

// Small sources lower the code: cubic becomes linear below 4 voxels on any
// axis, anything becomes nearest below 2.
TEST(Remap, SmallSourcesLowerTheInterpolation) {
    vt::Rng rng(9);
    auto compare = [&](int w, int h, int d, int code, int lowered) {
        Vol<float> src(w, h, d);
        src.fill([&](int, int, int) { return rng.uniform(0.0f, 100.0f); });
        Maps maps(7, 5, 4);
        maps.fill([&](int, int, int, float* p) {
            p[0] = rng.uniform(0.0f, w - 1.0f), p[1] = rng.uniform(0.0f, h - 1.0f), p[2] = rng.uniform(0.0f, d - 1.0f);
        });
        Vol<float> a(7, 5, 4), b(7, 5, 4);
        const VekrCuboid all{0, 0, 0, w, h, d};
        EXPECT_EQ(callRemap(src, all, maps.m, a, code), vekStatusOk);
        EXPECT_EQ(callRemap(src, all, maps.m, b, lowered), vekStatusOk);
        return vt::SameBits(a.bytes(), b.bytes());
    };
    EXPECT_TRUE(compare(6, 5, 2, 5, 2)) << "two planes deep, code 5 samples linearly";
    EXPECT_TRUE(compare(6, 3, 5, 7, 2)) << "three rows, code 7 samples linearly";
    EXPECT_TRUE(compare(1, 5, 6, 2, 1)) << "one voxel wide, code 2 samples by nearest";
    EXPECT_TRUE(compare(5, 1, 6, 6, 1)) << "one row, code 6 samples by nearest";
    EXPECT_FALSE(compare(4, 4, 4, 6, 2)) << "4 voxels on every axis keeps the cubic kernel";
}

// A source one plane deep goes through the 2-D kernels: the z map is not
// read, srcVoi's z does not matter, and every destination plane is sampled
// from the one source plane with the bilinear and bicubic rules.
TYPED_TEST(RemapTyped, DepthOneSourceUsesThePlaneKernels) {
    using T = TypeParam;
    vt::Rng rng(21);
    Vol<T> src(10, 8, 1);
    src.fill([&](int, int, int) {
        return std::is_floating_point<T>::value ? static_cast<T>(rng.uniform(0.0f, 255.0f))
                                                : static_cast<T>(rng.below(256));
    });
    const VekrCuboid voi{1, 0, 7, 8, 8, 3};  // z past the only plane: not used for a plane source
    const int lo[3] = {1, 0, 0}, hi[3] = {8, 7, 0};
    for (int code : kCodes) {
        Maps maps(6, 5, 3);
        maps.fill([&](int, int, int, float* p) {
            p[0] = rng.uniform(0.5f, 9.5f), p[1] = rng.uniform(-0.5f, 8.0f);
            p[2] = std::numeric_limits<float>::quiet_NaN();
        });
        Vol<T> dst(6, 5, 3);
        const Vol<T> before = dst;
        ASSERT_EQ(callRemap(src, voi, maps.m, dst, code), vekStatusOk) << code;
        for (int z = 0; z < 3; ++z)
            for (int y = 0; y < 5; ++y)
                for (int x = 0; x < 6; ++x) {
                    const double px = maps.m[0].at(x, y, z), py = maps.m[1].at(x, y, z);
                    const bool in = px >= lo[0] && px <= hi[0] && py >= lo[1] && py <= hi[1];
                    const double got = static_cast<double>(dst.at(x, y, z));
                    if (!in) {
                        ASSERT_EQ(got, static_cast<double>(before.at(x, y, z)));
                    } else if (code == 1) {
                        ASSERT_EQ(dst.at(x, y, z), src.at(static_cast<int>(std::nearbyint(px)),
                                                          static_cast<int>(std::nearbyint(py)), 0));
                    } else {
                        ASSERT_NEAR(got, vtr::refStored<T>(vtr::refSample(src, code, lo, hi, px, py, 0.0, 2)),
                                    vtr::refTolerance<T>())
                            << code;
                    }
                }
    }
    // The rectangle must still start inside the plane.
    Maps maps(2, 2, 1);
    Vol<T> dst(2, 2, 1);
    EXPECT_EQ(callRemap(src, VekrCuboid{10, 0, 0, 1, 1, 1}, maps.m, dst, 2), vekStatusVoiOutsideSrc);
    EXPECT_EQ(callRemap(src, VekrCuboid{0, 8, 0, 1, 1, 1}, maps.m, dst, 2), vekStatusVoiOutsideSrc);
}

// The result does not depend on the thread count, nor on where the arrays
// lie relative to 16-byte boundaries (offset 0 takes the SSE kernels, 4 and
// 8 the scalar ones), nor on how the source planes lie in memory, for volume
// and single-plane sources, with special float values in the source.
TYPED_TEST(RemapTyped, ThreadsAlignmentAndPlaneLayoutDoNotChangeTheResult) {
    using T = TypeParam;
    for (int depth : {18, 1}) {
        vt::Rng rng(31);
        Vol<T> src(24, 20, depth);
        src.fill([&](int, int, int) { return randomVoxel<T>(rng); });
        if (std::is_floating_point<T>::value) {
            src.at(5, 5, depth / 2) = static_cast<T>(INFINITY);
            src.at(9, 9, depth / 3) = static_cast<T>(NAN);
            src.at(10, 4, depth / 4) = static_cast<T>(1e-41f);
            src.at(12, 6, 0) = static_cast<T>(-0.0f);
        }
        const Vol<T> risingSrc = src.rising();
        const VekrCuboid voi{1, 1, 1, 22, 30, 16};
        for (int code : kCodes) {
            auto run = [&](int threads, std::size_t offset, bool rising = false) {
                vtr::ThreadCount tc(threads);
                Maps maps(20, 17, 16, static_cast<int>(offset));
                vt::Rng r(code);
                // Mostly random points; some exact half-way values, box
                // edges, NaN and infinities (nearest takes NaN as inside).
                maps.fill([&](int, int, int, float* p) {
                    for (int a = 0; a < 3; ++a) {
                        const int k = r.below(16);
                        p[a] = k == 0   ? r.below(24) + 0.5f
                               : k == 1 ? (r.below(2) ? 1.0f : 22.0f)
                               : k == 2 ? (r.below(2) ? NAN : (r.below(2) ? INFINITY : -INFINITY))
                                        : r.uniform(-1.0f, 24.0f);
                    }
                });
                Vol<T> dst(20, 17, 16, static_cast<int>(offset));
                dst.fill([](int x, int y, int z) { return static_cast<T>(x + y + z); });
                EXPECT_EQ(callRemap(rising ? risingSrc : src, voi, maps.m, dst, code), vekStatusOk);
                return dst.bytes();
            };
            const auto one = run(1, 0);
            EXPECT_TRUE(vt::SameBits(one, run(1, 0, true))) << "depth " << depth << " code " << code;
            EXPECT_TRUE(vt::SameBits(one, run(2, 0))) << "depth " << depth << " code " << code;
            EXPECT_TRUE(vt::SameBits(one, run(3, 4))) << "depth " << depth << " code " << code;
            EXPECT_TRUE(vt::SameBits(one, run(1, 8))) << "depth " << depth << " code " << code;
        }
    }
}

// Boxes one voxel thick along y and z (taps collapse onto one row and one
// plane) and along x (the pair read of the SSE blend is not possible): the
// inside points are those exactly on the thin axes, and their values are
// the interpolation along the remaining axes.
TYPED_TEST(RemapTyped, OneVoxelThickBoxes) {
    using T = TypeParam;
    vt::Rng rng(41);
    Vol<T> src(16, 9, 7);
    src.fill([&](int, int, int) { return randomVoxel<T>(rng); });
    struct Case {
        VekrCuboid voi;
        int lo[3], hi[3];
    };
    const Case cases[] = {{{2, 3, 4, 12, 1, 1}, {2, 3, 4}, {13, 3, 4}}, {{5, 0, 0, 1, 9, 1}, {5, 0, 0}, {5, 8, 0}}};
    for (const Case& c : cases)
        for (int code : {2, 4, 6}) {
            auto run = [&](std::size_t offset) {
                Maps maps(16, 4, 3, static_cast<int>(offset));
                vt::Rng r(code);
                maps.fill([&](int, int, int, float* p) {
                    for (int a = 0; a < 3; ++a)
                        p[a] = c.lo[a] == c.hi[a] ? (r.below(4) ? float(c.lo[a]) : c.lo[a] + 0.25f)
                                                  : r.uniform(c.lo[a] - 0.5f, c.hi[a] + 0.5f);
                });
                Vol<T> dst(16, 4, 3, static_cast<int>(offset));
                const Vol<T> before = dst;
                EXPECT_EQ(callRemap(src, c.voi, maps.m, dst, code), vekStatusOk);
                int inside = 0;
                for (int z = 0; z < 3; ++z)
                    for (int y = 0; y < 4; ++y)
                        for (int x = 0; x < 16; ++x) {
                            double p[3];
                            bool in = true;
                            for (int a = 0; a < 3; ++a) {
                                p[a] = maps.m[a].at(x, y, z);
                                in = in && p[a] >= c.lo[a] && p[a] <= c.hi[a];
                            }
                            const double got = static_cast<double>(dst.at(x, y, z));
                            if (!in) {
                                EXPECT_EQ(got, static_cast<double>(before.at(x, y, z)));
                                continue;
                            }
                            ++inside;
                            EXPECT_NEAR(got, vtr::refStored<T>(vtr::refSample(src, code, c.lo, c.hi, p[0], p[1], p[2])),
                                        vtr::refTolerance<T>())
                                << "code " << code;
                        }
                EXPECT_GT(inside, 40);
                return dst.bytes();
            };
            EXPECT_TRUE(vt::SameAcrossOffsets(run)) << "code " << code;
        }
}

}  // namespace
