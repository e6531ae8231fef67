// Volume affine warp: the buffer-size query, argument checks including the
// two singularity tests, nearest sampling with ties to even, linear and
// cubic sampling against a double-precision reference, the small-volume
// lowering, depth-1 sources and thread independence.
#include <cmath>
#include <cstdint>
#include <vector>

#include "remap_reference.h"
#include "testutil.h"
#include "vekr.h"

namespace {

using vtr::Vol;

struct Affine {
    double c[3][4];
};

VekStatus callWarp(const Vol<std::uint8_t>& s, VekrCuboid sv, Vol<std::uint8_t>& d, VekrCuboid dv, const Affine& a,
                   int code) {
    return vekrWarpAffine_8u_C1PV(s.cptrs(), s.size(), s.step, sv, d.ptrs(), d.step, dv, a.c, code, nullptr);
}
VekStatus callWarp(const Vol<std::uint16_t>& s, VekrCuboid sv, Vol<std::uint16_t>& d, VekrCuboid dv, const Affine& a,
                   int code) {
    return vekrWarpAffine_16u_C1PV(s.cptrs(), s.size(), s.step, sv, d.ptrs(), d.step, dv, a.c, code, nullptr);
}
VekStatus callWarp(const Vol<float>& s, VekrCuboid sv, Vol<float>& d, VekrCuboid dv, const Affine& a, int code) {
    return vekrWarpAffine_32f_C1PV(s.cptrs(), s.size(), s.step, sv, d.ptrs(), d.step, dv, a.c, code, nullptr);
}

const Affine kIdentity{{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}}};

// A rotation about a skew axis, a mild scale and a translation.
Affine rotated(double angle, double scale, double tx, double ty, double tz) {
    const double c = std::cos(angle), s = std::sin(angle);
    // Rotation about z, then about x.
    const double rz[3][3] = {{c, -s, 0}, {s, c, 0}, {0, 0, 1}};
    const double c2 = std::cos(0.7 * angle), s2 = std::sin(0.7 * angle);
    const double rx[3][3] = {{1, 0, 0}, {0, c2, -s2}, {0, s2, c2}};
    Affine a;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            double v = 0;
            for (int k = 0; k < 3; ++k) v += rx[i][k] * rz[k][j];
            a.c[i][j] = v * scale;
        }
    a.c[0][3] = tx, a.c[1][3] = ty, a.c[2][3] = tz;
    return a;
}

// The inverse map in long double by Gauss-Jordan elimination with pivoting
// (a different route from the adjugate the library takes).
void referenceInverse(const Affine& a, long double inv[3][4]) {
    long double m[3][6];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 6; ++j) m[i][j] = j < 3 ? a.c[i][j] : (j - 3 == i ? 1 : 0);
    for (int col = 0; col < 3; ++col) {
        int piv = col;
        for (int r = col + 1; r < 3; ++r)
            if (std::fabs(m[r][col]) > std::fabs(m[piv][col])) piv = r;
        for (int j = 0; j < 6; ++j) std::swap(m[col][j], m[piv][j]);
        const long double p = m[col][col];
        for (int j = 0; j < 6; ++j) m[col][j] /= p;
        for (int r = 0; r < 3; ++r)
            if (r != col) {
                const long double f = m[r][col];
                for (int j = 0; j < 6; ++j) m[r][j] -= f * m[col][j];
            }
    }
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) inv[i][j] = m[i][j + 3];
        inv[i][3] = -(inv[i][0] * a.c[0][3] + inv[i][1] * a.c[1][3] + inv[i][2] * a.c[2][3]);
    }
}

template <class T>
T randomVoxel(vt::Rng& r) {
    if (std::is_floating_point<T>::value) return static_cast<T>(r.uniform(0.0f, 255.0f));
    return static_cast<T>(r.below(sizeof(T) == 1 ? 256 : 65536));
}

template <class T>
class WarpTyped : public ::testing::Test {};
using ElementTypes = ::testing::Types<std::uint8_t, std::uint16_t, float>;
TYPED_TEST_SUITE(WarpTyped, ElementTypes);

TEST(WarpAffineGetBufSize, ChecksInOrderAndNeedsNoBuffer) {
    const VekrCuboid ok{0, 0, 0, 4, 4, 4};
    int size = 123;
    EXPECT_EQ(vekrWarpAffineGetBufSize(ok, VekrCuboid{0, 0, 0, 0, 4, 4}, 1, 3, nullptr), vekStatusNullPtr);
    EXPECT_EQ(vekrWarpAffineGetBufSize(VekrCuboid{0, 0, -1, 4, 4, 4}, ok, 3, 3, &size), vekStatusBadSize);
    EXPECT_EQ(vekrWarpAffineGetBufSize(ok, VekrCuboid{0, 0, 0, 4, 4, 0}, 3, 3, &size), vekStatusBadSize);
    EXPECT_EQ(vekrWarpAffineGetBufSize(ok, ok, 3, 3, &size), vekStatusBadNumChannels);
    EXPECT_EQ(vekrWarpAffineGetBufSize(ok, ok, 1, 3, &size), vekStatusBadInterpolation);
    EXPECT_EQ(size, 123) << "failing calls leave the result alone";
    for (int code : {1, 2, 4, 5, 6, 7}) {
        size = 123;
        EXPECT_EQ(vekrWarpAffineGetBufSize(ok, VekrCuboid{1, 2, 3, 300, 200, 100}, 1, code, &size), vekStatusOk);
        EXPECT_EQ(size, 0);
    }
}

// Every check, in order, and no write on any failure, including the two
// singularity tests: the quick one on the coefficients (made before the
// interpolation code is looked at) and the determinant (made last, after the
// region check).
TEST(WarpAffine, ChecksInOrderAndWriteNothing) {
    Vol<float> src(6, 6, 6), dst(5, 5, 5);
    vt::fillCanary(dst.raw.data(), dst.raw.size());
    const VekrCuboid sv{0, 0, 0, 6, 6, 6}, dv{0, 0, 0, 5, 5, 5};
    auto run = [&](const float* const* s, VekrVolume vol, VekrCuboid a, float* const* d, VekrCuboid b, const Affine& m,
                   int code) {
        return vekrWarpAffine_32f_C1PV(s, vol, src.step, a, d, dst.step, b, m.c, code, nullptr);
    };
    const auto S = src.cptrs();
    const auto D = dst.ptrs();
    const VekrVolume vol = src.size();
    Affine zeroDiag = kIdentity;
    zeroDiag.c[0][0] = zeroDiag.c[1][1] = zeroDiag.c[2][2] = 1e-101;
    Affine parallelRows{{{1, 2, 3, 0}, {0, 1, 2, 0}, {0, 2, 4, 0}}};
    Affine tinyDet = kIdentity;
    tinyDet.c[0][0] = 1e-11;  // passes the quick test, fails the determinant
    Affine nearlyTiny = kIdentity;
    nearlyTiny.c[0][0] = 1.5e-10;

    EXPECT_EQ(run(nullptr, VekrVolume{0, 0, 0}, sv, D, dv, zeroDiag, 3), vekStatusNullPtr);
    EXPECT_EQ(run(S, vol, sv, nullptr, dv, kIdentity, 1), vekStatusNullPtr);
    EXPECT_EQ(run(S, VekrVolume{6, 6, 0}, sv, D, dv, zeroDiag, 3), vekStatusBadSize);
    EXPECT_EQ(run(S, vol, VekrCuboid{0, 0, 0, 6, 0, 6}, D, dv, zeroDiag, 3), vekStatusBadSize);
    EXPECT_EQ(run(S, vol, sv, D, VekrCuboid{0, -1, 0, 5, 5, 5}, zeroDiag, 3), vekStatusBadSize);
    EXPECT_EQ(run(S, vol, sv, D, dv, zeroDiag, 3), vekStatusSingularTransform);
    EXPECT_EQ(run(S, vol, sv, D, dv, parallelRows, 3), vekStatusSingularTransform);
    EXPECT_EQ(run(S, vol, sv, D, dv, tinyDet, 3), vekStatusBadInterpolation);
    EXPECT_EQ(run(S, vol, VekrCuboid{0, 0, 6, 1, 1, 1}, D, dv, tinyDet, 1), vekStatusVoiOutsideSrc);
    EXPECT_EQ(run(S, vol, VekrCuboid{0, 6, 0, 1, 1, 1}, D, dv, kIdentity, 2), vekStatusVoiOutsideSrc);
    for (int code : {1, 2, 6}) EXPECT_EQ(run(S, vol, sv, D, dv, tinyDet, code), vekStatusSingularTransform);
    EXPECT_TRUE(vt::CanaryIntact(dst.raw.data(), dst.raw.size()));
    // Just above the threshold the warp runs (and writes).
    EXPECT_EQ(run(S, vol, sv, D, dv, nearlyTiny, 1), vekStatusOk);
    EXPECT_FALSE(vt::CanaryIntact(dst.raw.data(), dst.raw.size()));
}

// The identity map copies the overlap of the source box and the destination
// box with every interpolating kernel; the rest keeps its old values.
TYPED_TEST(WarpTyped, IdentityCopiesTheOverlap) {
    using T = TypeParam;
    vt::Rng rng(2);
    Vol<T> src(10, 8, 7);
    src.fill([&](int, int, int) { return randomVoxel<T>(rng); });
    const VekrCuboid sv{1, 2, 1, 7, 40, 5};  // cut back to y 2..7
    const VekrCuboid dv{0, 1, 2, 12, 9, 5};
    for (int code : {1, 2, 4, 6}) {
        Vol<T> dst(12, 10, 8);
        dst.fill([](int x, int y, int z) { return static_cast<T>(3 * x + y + z); });
        const Vol<T> before = dst;
        ASSERT_EQ(callWarp(src, sv, dst, dv, kIdentity, code), vekStatusOk);
        for (int z = 0; z < 8; ++z)
            for (int y = 0; y < 10; ++y)
                for (int x = 0; x < 12; ++x) {
                    const bool inDst = y >= 1 && y < 10 && z >= 2 && z < 7;
                    const bool inSrc = x >= 1 && x <= 7 && y >= 2 && y <= 7 && z >= 1 && z <= 5;
                    const T want = inDst && inSrc ? src.at(x, y, z) : before.at(x, y, z);
                    ASSERT_TRUE(vt::SameBits(&want, &dst.at(x, y, z), 1))
                        << "code " << code << " at " << x << "," << y << "," << z;
                }
    }
}

// Nearest rounds half-way points to even: a scale by 2 sends every odd
// destination coordinate to a source coordinate k + 0.5 exactly (the inverse
// 0.5 and its multiples are exact, so the incremental walk is exact too).
TYPED_TEST(WarpTyped, NearestRoundsTiesToEven) {
    using T = TypeParam;
    vt::Rng rng(4);
    Vol<T> src(9, 9, 9);
    src.fill([&](int, int, int) { return randomVoxel<T>(rng); });
    const Affine twice{{{2, 0, 0, 1}, {0, 2, 0, -3}, {0, 0, 2, 0.5}}};  // inverse: (x - 1) / 2 and so on
    Vol<T> dst(20, 20, 20);
    const Vol<T> before = dst;
    ASSERT_EQ(callWarp(src, VekrCuboid{0, 0, 0, 9, 9, 9}, dst, VekrCuboid{0, 0, 0, 20, 20, 20}, twice, 1), vekStatusOk);
    for (int z = 0; z < 20; ++z)
        for (int y = 0; y < 20; ++y)
            for (int x = 0; x < 20; ++x) {
                const double p[3] = {(x - 1) / 2.0, (y + 3) / 2.0, (z - 0.5) / 2.0};
                bool in = true;
                for (double v : p) in = in && v >= 0 && v <= 8;
                const T want =
                    in ? src.at(static_cast<int>(std::nearbyint(p[0])), static_cast<int>(std::nearbyint(p[1])),
                                static_cast<int>(std::nearbyint(p[2])))
                       : before.at(x, y, z);
                ASSERT_TRUE(vt::SameBits(&want, &dst.at(x, y, z), 1)) << x << "," << y << "," << z;
            }
}

// Nearest, linear and cubic under a rotation, scale and shift, against the
// reference inverse evaluated directly at every voxel. Nearest must match
// exactly except where the reference point is within 1e-9 of a rounding or
// box boundary (the walk's incremental sums differ from the direct ones in
// the last bits there).
TYPED_TEST(WarpTyped, RotatedWarpMatchesReference) {
    using T = TypeParam;
    vt::Rng rng(8);
    Vol<T> src(14, 12, 11);
    src.fill([&](int, int, int) { return randomVoxel<T>(rng); });
    const VekrCuboid sv{1, 0, 2, 12, 12, 8};
    const int lo[3] = {1, 0, 2}, hi[3] = {12, 11, 9};
    const Affine a = rotated(0.4, 1.1, 2.0, -1.5, 0.75);
    long double inv[3][4];
    referenceInverse(a, inv);
    const VekrCuboid dv{2, 1, 0, 15, 14, 12};
    for (int code : {1, 2, 4, 5, 6, 7}) {
        Vol<T> dst(18, 16, 13);
        dst.fill([&](int, int, int) { return randomVoxel<T>(rng); });
        const Vol<T> before = dst;
        ASSERT_EQ(callWarp(src, sv, dst, dv, a, code), vekStatusOk);
        int inside = 0;
        for (int z = 0; z < 13; ++z)
            for (int y = 0; y < 16; ++y)
                for (int x = 0; x < 18; ++x) {
                    const bool inDst = x >= 2 && x < 17 && y >= 1 && y < 15 && z < 12;
                    double p[3];
                    bool in = inDst, nearEdge = false;
                    for (int r = 0; r < 3; ++r) {
                        p[r] = static_cast<double>(inv[r][0] * x + inv[r][1] * y + inv[r][2] * z + inv[r][3]);
                        in = in && p[r] >= lo[r] && p[r] <= hi[r];
                        nearEdge = nearEdge || std::fabs(p[r] - lo[r]) < 1e-9 || std::fabs(p[r] - hi[r]) < 1e-9 ||
                                   (code == 1 && std::fabs(p[r] - std::floor(p[r]) - 0.5) < 1e-9);
                    }
                    if (nearEdge) continue;
                    const double got = static_cast<double>(dst.at(x, y, z));
                    if (!in) {
                        ASSERT_EQ(got, static_cast<double>(before.at(x, y, z))) << x << "," << y << "," << z;
                        continue;
                    }
                    ++inside;
                    if (code == 1) {
                        ASSERT_EQ(dst.at(x, y, z),
                                  src.at(static_cast<int>(std::nearbyint(p[0])), static_cast<int>(std::nearbyint(p[1])),
                                         static_cast<int>(std::nearbyint(p[2]))));
                    } else {
                        ASSERT_NEAR(got, vtr::refStored<T>(vtr::refSample(src, code, lo, hi, p[0], p[1], p[2])),
                                    vtr::refTolerance<T>())
                            << "code " << code << " at " << x << "," << y << "," << z;
                    }
                }
        EXPECT_GT(inside, 500) << code;
    }
}

// Straight-line-reproducing kernels give back a linear ramp under a rotation
// (inside the box, away from its edges), all kernels a constant.
TEST(WarpAffine, RampsAndConstantsAreReproduced) {
    Vol<float> ramp(16, 16, 16), flat(16, 16, 16);
    ramp.fill([](int x, int y, int z) { return 10.0f + 1.5f * x + 0.5f * y - 2.0f * z; });
    flat.fill([](int, int, int) { return -42.0f; });
    const Affine a = rotated(0.3, 0.9, 1.0, 2.0, -0.5);
    long double inv[3][4];
    referenceInverse(a, inv);
    const VekrCuboid all{0, 0, 0, 16, 16, 16}, dv{0, 0, 0, 16, 16, 16};
    for (int code : {2, 4, 5, 6, 7}) {
        Vol<float> out(16, 16, 16), outFlat(16, 16, 16);
        out.fill([](int, int, int) { return 1e30f; });
        outFlat.fill([](int, int, int) { return 1e30f; });
        ASSERT_EQ(callWarp(ramp, all, out, dv, a, code), vekStatusOk);
        ASSERT_EQ(callWarp(flat, all, outFlat, dv, a, code), vekStatusOk);
        int checked = 0;
        for (int z = 0; z < 16; ++z)
            for (int y = 0; y < 16; ++y)
                for (int x = 0; x < 16; ++x) {
                    double p[3];
                    bool interior = true, in = true;
                    for (int r = 0; r < 3; ++r) {
                        p[r] = static_cast<double>(inv[r][0] * x + inv[r][1] * y + inv[r][2] * z + inv[r][3]);
                        interior = interior && p[r] >= 1.001 && p[r] <= 13.999;
                        in = in && p[r] >= 1e-9 && p[r] <= 15 - 1e-9;
                    }
                    if (in) {
                        ASSERT_NEAR(outFlat.at(x, y, z), -42.0, 1e-4) << code;
                    }
                    if (!interior || code == 7) continue;
                    ++checked;
                    ASSERT_NEAR(out.at(x, y, z), 10.0 + 1.5 * p[0] + 0.5 * p[1] - 2.0 * p[2], 2e-4) << code;
                }
        if (code != 7) {
            EXPECT_GT(checked, 1000);
        }
    }
}

// Small volumes lower the code: a source three planes deep warps code 6 as
// linear, one voxel wide warps linear as nearest.
TEST(WarpAffine, SmallVolumesLowerTheInterpolation) {
    vt::Rng rng(12);
    const Affine a = rotated(0.2, 1.0, 0.5, 0.25, 0.0);
    auto compare = [&](int w, int h, int d, int code, int lowered) {
        Vol<std::uint16_t> src(w, h, d);
        src.fill([&](int, int, int) { return static_cast<std::uint16_t>(rng.below(4000)); });
        Vol<std::uint16_t> x(8, 8, 4), y(8, 8, 4);
        const VekrCuboid sv{0, 0, 0, w, h, d}, dv{0, 0, 0, 8, 8, 4};
        EXPECT_EQ(callWarp(src, sv, x, dv, a, code), vekStatusOk);
        EXPECT_EQ(callWarp(src, sv, y, dv, a, lowered), vekStatusOk);
        return vt::SameBits(x.bytes(), y.bytes());
    };
    EXPECT_TRUE(compare(8, 8, 3, 6, 2)) << "three planes deep: cubic becomes linear";
    EXPECT_TRUE(compare(8, 2, 5, 4, 2)) << "two rows: cubic becomes linear";
    EXPECT_TRUE(compare(1, 8, 5, 2, 1)) << "one voxel wide: linear becomes nearest";
    EXPECT_TRUE(compare(8, 1, 5, 5, 1)) << "one row: cubic becomes nearest";
    EXPECT_FALSE(compare(8, 8, 4, 6, 2)) << "four planes keep the cubic kernel";
}

// A source one plane deep is warped in 2-D by the in-plane part of the map
// into every plane of the destination box; the z row and column are not
// used beyond the quick singularity test, and srcVoi's z is not used.
TYPED_TEST(WarpTyped, DepthOneSourceUsesThePlaneKernels) {
    using T = TypeParam;
    vt::Rng rng(6);
    Vol<T> src(12, 10, 1);
    src.fill([&](int, int, int) { return randomVoxel<T>(rng); });
    const VekrCuboid sv{1, 1, 4, 10, 8, 9};
    const int lo[3] = {1, 1, 0}, hi[3] = {10, 8, 0};
    Affine a{{{0.9, -0.3, 5.0, 1.25}, {0.35, 1.05, -7.0, -0.5}, {0.1, 0.2, 3.0, 11.0}}};
    const double det = a.c[0][0] * a.c[1][1] - a.c[0][1] * a.c[1][0];
    const double i00 = a.c[1][1] / det, i01 = -a.c[0][1] / det, i10 = -a.c[1][0] / det, i11 = a.c[0][0] / det;
    const VekrCuboid dv{1, 0, 1, 13, 11, 3};
    for (int code : {1, 2, 4, 5, 6, 7}) {
        Vol<T> dst(14, 11, 4);
        const Vol<T> before = dst;
        ASSERT_EQ(callWarp(src, sv, dst, dv, a, code), vekStatusOk) << code;
        for (int z = 0; z < 4; ++z)
            for (int y = 0; y < 11; ++y)
                for (int x = 0; x < 14; ++x) {
                    const double u = x - a.c[0][3], v = y - a.c[1][3];
                    const double px = i00 * u + i01 * v, py = i10 * u + i11 * v;
                    const bool inDst = x >= 1 && z >= 1;
                    const bool in = inDst && px >= lo[0] && px <= hi[0] && py >= lo[1] && py <= hi[1];
                    const double got = static_cast<double>(dst.at(x, y, z));
                    if (std::fabs(px - std::floor(px) - 0.5) < 1e-9 || std::fabs(py - std::floor(py) - 0.5) < 1e-9)
                        continue;
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
    // The in-plane determinant decides singularity for a plane source.
    Affine flatPlane{{{1e-11, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}}};
    Vol<T> dst(4, 4, 1);
    vt::fillCanary(dst.raw.data(), dst.raw.size());
    EXPECT_EQ(callWarp(src, sv, dst, VekrCuboid{0, 0, 0, 4, 4, 1}, flatPlane, 2), vekStatusSingularTransform);
    EXPECT_EQ(callWarp(src, VekrCuboid{12, 0, 0, 1, 1, 1}, dst, VekrCuboid{0, 0, 0, 4, 4, 1}, kIdentity, 2),
              vekStatusVoiOutsideSrc);
    EXPECT_TRUE(vt::CanaryIntact(dst.raw.data(), dst.raw.size()));
}

// The result does not depend on the thread count, nor on where the arrays
// lie relative to 16-byte boundaries (offset 0 takes the SSE kernels, 4 and
// 8 the scalar ones), nor on how the source planes lie in memory, for volume
// and single-plane sources, with special float values in the source.
TYPED_TEST(WarpTyped, ThreadsAlignmentAndPlaneLayoutDoNotChangeTheResult) {
    using T = TypeParam;
    for (int depth : {19, 1}) {
        vt::Rng rng(14);
        Vol<T> src(22, 20, depth);
        src.fill([&](int, int, int) { return randomVoxel<T>(rng); });
        if (std::is_floating_point<T>::value) {
            src.at(5, 5, depth / 2) = static_cast<T>(INFINITY);
            src.at(9, 9, depth / 3) = static_cast<T>(NAN);
            src.at(10, 4, depth / 4) = static_cast<T>(1e-41f);
            src.at(12, 6, 0) = static_cast<T>(-0.0f);
        }
        // A box starting at x = 0 of 20-voxel rows takes the SSE path at offset 0.
        const Vol<T> risingSrc = src.rising();
        const VekrCuboid sv{0, 1, 0, 22, 18, 19}, dv{0, 0, 2, 20, 17, 16};
        const Affine a = rotated(-0.35, 1.2, 3.0, -2.0, 1.0);
        for (int code : {1, 2, 4, 5, 6, 7}) {
            auto run = [&](int threads, int offset, bool rising = false) {
                vtr::ThreadCount tc(threads);
                Vol<T> dst(21, 17, 18, offset);
                dst.fill([](int x, int y, int z) { return static_cast<T>(x * y + z); });
                EXPECT_EQ(callWarp(rising ? risingSrc : src, sv, dst, dv, a, code), vekStatusOk);
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

// The vector linear warp takes each row in stages: the points before the
// inside run, the run (most of it without a per-point test) and its end.
// Whatever the map, it must store exactly what the scalar rule stores: runs
// that start and end mid-row and mid-group or exactly on a box face
// (integer coordinates), axes moving up, down or standing still (also on
// the upper face), four points to a cell, rows that miss the box. Offset 0 takes the vector kernel, with the source planes
// scattered and at even rising addresses; offset 4 the scalar one.
TYPED_TEST(WarpTyped, LinearRowsMatchTheScalarRuleWhereverTheRunLies) {
    using T = TypeParam;
    vt::Rng rng(21);
    Vol<T> src(15, 13, 11);
    // Outside the box x 1..13, y 2..11, z 1..9 the float source holds NaN,
    // which any tap read beyond the box would carry into the result.
    src.fill([&](int x, int y, int z) {
        const bool in = x >= 1 && x <= 13 && y >= 2 && y <= 11 && z >= 1 && z <= 9;
        return in || !std::is_floating_point<T>::value ? randomVoxel<T>(rng) : static_cast<T>(NAN);
    });
    const Vol<T> risingSrc = src.rising();
    const VekrCuboid sv{1, 2, 1, 13, 10, 9};
    const VekrCuboid dv{0, 0, 0, 24, 14, 12};
    // A rotation that takes the box centre to the destination centre moved
    // by dx along x.
    auto centred = [](double angle, double scale, double dx) {
        Affine a = rotated(angle, scale, 0, 0, 0);
        const double from[3] = {7.0, 6.5, 5.0}, to[3] = {11.5 + dx, 6.5, 5.5};
        for (int r = 0; r < 3; ++r)
            a.c[r][3] = to[r] - (a.c[r][0] * from[0] + a.c[r][1] * from[1] + a.c[r][2] * from[2]);
        return a;
    };
    const Affine maps[] = {
        {{{1, 0, 0, -3}, {0, 1, 0, 1}, {0, 0, 1, 0}}},        // shifted copies: runs end on x = 13,
        {{{1, 0, 0, -2}, {0, 1, 0, 1}, {0, 0, 1, 0}}},        // mid-group and at a group's end
        {{{-1, 0, 0, 17}, {0, 1, 0, 0}, {0, 0, 1, 0}}},       // mirrored: x falls from 17, through 13
        {{{-1, 0.25, 0, 18}, {0, -1, 0, 14}, {0, 0, 1, 0}}},  // mirrored and sheared
        {{{4, 0, 0, -2}, {0, 4, 0, -5}, {0, 0, 4, -3}}},      // four points per cell
        {{{0, 0, 1, 0}, {0, 1, 0, 0}, {1, 0, 0, -2}}},        // x stands still (on 13 in the last plane)
        {{{0, 0, 1, 0}, {0, -1, 0, 13}, {-1, 0, 0, 10}}},     // z falls from 10, through 9
        rotated(0.4, 1.1, 2.0, -1.5, 0.75),
        centred(-2.5, 0.9, 3.0),
        centred(1.3, 1.7, -2.0),
        centred(3.0, 0.8, 0.5),
        centred(-1.7, 2.5, 0.0),
    };
    for (const Affine& a : maps) {
        auto run = [&](const Vol<T>& s, int offset) {
            Vol<T> dst(24, 14, 12, offset);
            dst.fill([](int x, int y, int z) { return static_cast<T>(x + 3 * y + 5 * z); });
            EXPECT_EQ(callWarp(s, sv, dst, dv, a, 2), vekStatusOk);
            return dst;
        };
        const Vol<T> scalar = run(src, 4);
        int written = 0;
        for (int z = 0; z < 12; ++z)
            for (int y = 0; y < 14; ++y)
                for (int x = 0; x < 24; ++x) written += scalar.at(x, y, z) != static_cast<T>(x + 3 * y + 5 * z);
        EXPECT_GT(written, 200) << a.c[0][0] << " " << a.c[0][1] << " " << a.c[0][3];
        EXPECT_TRUE(vt::SameBits(scalar.bytes(), run(src, 0).bytes())) << a.c[0][0] << " " << a.c[0][3];
        EXPECT_TRUE(vt::SameBits(scalar.bytes(), run(risingSrc, 0).bytes())) << a.c[0][0] << " " << a.c[0][3];
    }
}

}  // namespace
