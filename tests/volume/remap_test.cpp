// Volume remap and affine warp: argument checks, nearest sampling with ties to
// even, linear and cubic sampling against a double-precision reference, the
// small-volume lowering, depth-1 sources, and independence of the thread
// count, the alignment and the plane layout.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "volume_testutil.h"

namespace {

using vv::Vol;

template <class T>
struct Entry;
template <>
struct Entry<std::uint8_t> {
    static constexpr auto remap = &vekrRemap_8u_C1PV;
    static constexpr auto warp = &vekrWarpAffine_8u_C1PV;
};
template <>
struct Entry<std::uint16_t> {
    static constexpr auto remap = &vekrRemap_16u_C1PV;
    static constexpr auto warp = &vekrWarpAffine_16u_C1PV;
};
template <>
struct Entry<float> {
    static constexpr auto remap = &vekrRemap_32f_C1PV;
    static constexpr auto warp = &vekrWarpAffine_32f_C1PV;
};

const int kCodes[] = {1, 2, 4, 5, 6, 7};

// Three maps of a destination's size, laid out like the destination.
struct Maps {
    std::vector<Vol<float>> m;
    Maps(int w, int h, int d, std::size_t offsetBytes = 0) {
        for (int a = 0; a < 3; ++a) m.push_back(vv::planarVol<float>(w, h, d, offsetBytes));
    }
    template <class F>
    void fill(F f) {  // f(x, y, z, point[3])
        vv::forEachVoxel(m[0].w, m[0].h, m[0].d, [&](int x, int y, int z) {
            float p[3];
            f(x, y, z, p);
            for (int a = 0; a < 3; ++a) m[a].at(x, y, z) = p[a];
        });
    }
    bool operator()(int x, int y, int z, double* p) const {  // the point a voxel samples
        for (int a = 0; a < 3; ++a) p[a] = m[a].at(x, y, z);
        return true;
    }
};

template <class T>
VekStatus callRemap(const Vol<T>& s, VekrCuboid voi, const Maps& m, Vol<T>& d, int code) {
    return Entry<T>::remap(s.cplanes(), s.size(), s.step, voi, m.m[0].cplanes(), m.m[1].cplanes(), m.m[2].cplanes(),
                           m.m[0].step, d.planes(), d.step, d.size(), code);
}

struct Affine {
    double c[3][4];
};
const Affine kIdentity{{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}}};

template <class T>
VekStatus callWarp(const Vol<T>& s, VekrCuboid sv, Vol<T>& d, VekrCuboid dv, const Affine& a, int code) {
    return Entry<T>::warp(s.cplanes(), s.size(), s.step, sv, d.planes(), d.step, dv, a.c, code, nullptr);
}

// A rotation about z and then x, a mild scale and a translation.
Affine rotated(double angle, double scale, double tx, double ty, double tz) {
    const double c = std::cos(angle), s = std::sin(angle), c2 = std::cos(0.7 * angle), s2 = std::sin(0.7 * angle);
    const double rz[3][3] = {{c, -s, 0}, {s, c, 0}, {0, 0, 1}};
    const double rx[3][3] = {{1, 0, 0}, {0, c2, -s2}, {0, s2, c2}};
    Affine a{{{0, 0, 0, tx}, {0, 0, 0, ty}, {0, 0, 0, tz}}};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) a.c[i][j] += rx[i][k] * rz[k][j] * scale;
    return a;
}

// The inverse map in long double by Gauss-Jordan elimination with pivoting
// (a different route from the adjugate the library takes).
struct Inverse {
    long double m[3][4];
    explicit Inverse(const Affine& a) {
        long double g[3][6];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 6; ++j) g[i][j] = j < 3 ? a.c[i][j] : (j - 3 == i ? 1 : 0);
        for (int col = 0; col < 3; ++col) {
            int piv = col;
            for (int r = col + 1; r < 3; ++r)
                if (std::fabs(g[r][col]) > std::fabs(g[piv][col])) piv = r;
            for (int j = 0; j < 6; ++j) std::swap(g[col][j], g[piv][j]);
            const long double p = g[col][col];
            for (int j = 0; j < 6; ++j) g[col][j] /= p;
            for (int r = 0; r < 3; ++r)
                if (r != col) {
                    const long double f = g[r][col];
                    for (int j = 0; j < 6; ++j) g[r][j] -= f * g[col][j];
                }
        }
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) m[i][j] = g[i][j + 3];
            m[i][3] = -(m[i][0] * a.c[0][3] + m[i][1] * a.c[1][3] + m[i][2] * a.c[2][3]);
        }
    }
    void apply(int x, int y, int z, double* p) const {
        for (int r = 0; r < 3; ++r) p[r] = static_cast<double>(m[r][0] * x + m[r][1] * y + m[r][2] * z + m[r][3]);
    }
};

bool inBox(VekrCuboid b, int x, int y, int z) {
    return x >= b.x && x < b.x + b.width && y >= b.y && y < b.y + b.height && z >= b.z && z < b.z + b.depth;
}

// One resampling that both operations can run: the warp by `a` into the box
// dv, and the remap with maps holding a's inverse inside dv and a point far
// outside elsewhere. With `wild`, a sixteenth of the map coordinates are
// replaced by exact half-way values, box edges, NaN and infinities.
enum class Op { Remap, Warp };
struct Job {
    VekrCuboid sv, dv;
    Affine a;
    bool wild = false;
};
template <class T>
VekStatus run(Op op, const Vol<T>& s, const Job& j, Vol<T>& d, int code, std::size_t offset = 0) {
    if (op == Op::Warp) return callWarp(s, j.sv, d, j.dv, j.a, code);
    const Inverse inv(j.a);
    vt::Rng r(code);
    Maps maps(d.w, d.h, d.d, offset);
    maps.fill([&](int x, int y, int z, float* p) {
        double q[3];
        inv.apply(x, y, z, q);
        for (int a = 0; a < 3; ++a) {
            const int k = j.wild ? r.below(16) : 3;
            const int first = a == 0 ? j.sv.x : a == 1 ? j.sv.y : j.sv.z;
            const int last = std::min(first + (a == 0 ? j.sv.width : a == 1 ? j.sv.height : j.sv.depth),
                                      a == 0 ? s.w : a == 1 ? s.h : s.d) - 1;
            p[a] = !inBox(j.dv, x, y, z) ? -1e9f
                   : k == 0              ? r.below(s.w) + 0.5f
                   : k == 1              ? float(r.below(2) ? first : last)
                   : k == 2              ? (r.below(2) ? NAN : (r.below(2) ? INFINITY : -INFINITY))
                                         : float(q[a]);
        }
    });
    return callRemap(s, j.sv, maps, d, code);
}
const char* name(Op op) { return op == Op::Remap ? "remap" : "warp"; }

template <class T>
class Resample : public ::testing::Test {};
TYPED_TEST_SUITE(Resample, vv::ElementTypes);

// ---------------------------------------------------------------------------
// Both operations
// ---------------------------------------------------------------------------

// The identity copies the overlap of the source box (cut back to the volume)
// and the destination box with every interpolating kernel (w(0) = 1,
// w(1) = w(2) = 0: nearest, linear, Lagrange, Catmull-Rom); the rest keeps
// its old values.
TYPED_TEST(Resample, IdentityCopiesTheOverlap) {
    using T = TypeParam;
    vt::Rng rng(2);
    Vol<T> src = vv::planarVol<T>(10, 8, 7);
    vv::fillRandom(src, rng);
    const Job job{{1, 2, 1, 7, 40, 5}, {0, 1, 2, 12, 9, 5}, kIdentity};
    for (Op op : {Op::Remap, Op::Warp})
        for (int code : {1, 2, 4, 6}) {
            Vol<T> dst = vv::planarVol<T>(12, 10, 8);
            dst.fill([](int x, int y, int z) { return 3 * x + y + z; });
            const Vol<T> before = dst;
            ASSERT_EQ(run(op, src, job, dst, code), vekStatusOk);
            vv::forEachVoxel(12, 10, 8, [&](int x, int y, int z) {
                const bool in = inBox(job.dv, x, y, z) && inBox(VekrCuboid{1, 2, 1, 7, 6, 5}, x, y, z);
                const T want = in ? src.at(x, y, z) : before.at(x, y, z);
                EXPECT_TRUE(vt::SameBits(&want, &dst.at(x, y, z), 1)) << name(op) << " code " << code;
            });
        }
}

// Small sources lower the code: cubic becomes linear below 4 voxels on any
// axis, anything becomes nearest below 2. The remap samples random points of
// the source box, the warp a rotation.
TEST(RemapAndWarp, SmallSourcesLowerTheInterpolation) {
    auto same = [](Op op, int w, int h, int d, int code, int lowered) {
        Vol<std::uint16_t> src = vv::planarVol<std::uint16_t>(w, h, d);
        vt::Rng rng(9);
        vv::fillRandom(src, rng, 0, 4000);
        Maps maps(8, 8, 4);
        maps.fill([&](int, int, int, float* p) {
            p[0] = rng.uniform(0.0f, w - 1.0f), p[1] = rng.uniform(0.0f, h - 1.0f), p[2] = rng.uniform(0.0f, d - 1.0f);
        });
        const VekrCuboid sv{0, 0, 0, w, h, d}, dv{0, 0, 0, 8, 8, 4};
        const Affine a = rotated(0.2, 1.0, 0.5, 0.25, 0.0);
        Vol<std::uint16_t> x = vv::planarVol<std::uint16_t>(8, 8, 4), y = vv::planarVol<std::uint16_t>(8, 8, 4);
        EXPECT_EQ(op == Op::Remap ? callRemap(src, sv, maps, x, code) : callWarp(src, sv, x, dv, a, code), vekStatusOk);
        EXPECT_EQ(op == Op::Remap ? callRemap(src, sv, maps, y, lowered) : callWarp(src, sv, y, dv, a, lowered),
                  vekStatusOk);
        return vt::SameBits(x.bytes(), y.bytes());
    };
    for (Op op : {Op::Remap, Op::Warp}) {
        EXPECT_TRUE(same(op, 6, 5, 2, 5, 2)) << name(op) << ": two planes deep, cubic becomes linear";
        EXPECT_TRUE(same(op, 8, 8, 3, 6, 2)) << name(op) << ": three planes deep, cubic becomes linear";
        EXPECT_TRUE(same(op, 6, 3, 5, 7, 2)) << name(op) << ": three rows, cubic becomes linear";
        EXPECT_TRUE(same(op, 1, 5, 6, 2, 1)) << name(op) << ": one voxel wide, linear becomes nearest";
        EXPECT_TRUE(same(op, 8, 1, 5, 5, 1)) << name(op) << ": one row, cubic becomes nearest";
        EXPECT_FALSE(same(op, 4, 4, 4, 6, 2)) << name(op) << ": 4 voxels on every axis keep the cubic kernel";
    }
}

// The result does not depend on the thread count, nor on where the arrays
// lie relative to 16-byte boundaries (offset 0 takes the SSE kernels, 4 and
// 8 the scalar ones), nor on how the source planes lie in memory, for volume
// and single-plane sources, with special float values in the source and
// (remap) in the maps.
TYPED_TEST(Resample, ThreadsAlignmentAndPlaneLayoutDoNotChangeTheResult) {
    using T = TypeParam;
    for (int depth : {19, 1}) {
        vt::Rng rng(14);
        Vol<T> src = vv::planarVol<T>(24, 20, depth);
        vv::fillRandom(src, rng);
        vv::sprinkleSpecials(src, rng);
        const Vol<T> blockSrc = src.block();
        // A box starting at x = 0 of 20-voxel rows takes the SSE path at offset 0.
        const Job job{{0, 1, 0, 22, 30, 19}, {0, 0, 2, 20, 17, 16}, rotated(-0.35, 1.2, 3.0, -2.0, 1.0), true};
        for (Op op : {Op::Remap, Op::Warp})
            for (int code : kCodes) {
                auto result = [&](int threads, std::size_t offset, bool block = false) {
                    vv::ThreadCount tc(threads);
                    Vol<T> dst = vv::planarVol<T>(20, 18, 18, offset);
                    dst.fill([](int x, int y, int z) { return x * y + z; });
                    EXPECT_EQ(run(op, block ? blockSrc : src, job, dst, code, offset), vekStatusOk);
                    return dst.bytes();
                };
                const auto one = result(1, 0);
                const std::string what = std::string(name(op)) + " depth " + std::to_string(depth) + " code " +
                                         std::to_string(code);
                EXPECT_TRUE(vt::SameBits(one, result(1, 0, true))) << what;
                EXPECT_TRUE(vt::SameBits(one, result(2, 0))) << what;
                EXPECT_TRUE(vt::SameBits(one, result(3, 4))) << what;
                EXPECT_TRUE(vt::SameBits(one, result(1, 8))) << what;
            }
    }
}

// ---------------------------------------------------------------------------
// Remap
// ---------------------------------------------------------------------------

// Checks come in the documented order and a failing call writes nothing.
TEST(Remap, ChecksInOrderAndWriteNothing) {
    Vol<float> src = vv::planarVol<float>(6, 5, 4), dst = vv::planarVol<float>(4, 4, 4);
    Maps maps(4, 4, 4);
    const VekrCuboid voi{0, 0, 0, 6, 5, 4};
    dst.fillCanary();
    auto call = [&](const float* const* s, VekrVolume sv, VekrCuboid v, const float* const* mx, const float* const* mz,
                    float* const* d, VekrVolume dv, int code) {
        return vekrRemap_32f_C1PV(s, sv, src.step, v, mx, maps.m[1].cplanes(), mz, maps.m[0].step, d, dst.step, dv,
                                  code);
    };
    const float* const* S = src.cplanes();
    const float* const* M = maps.m[0].cplanes();
    float* const* D = dst.planes();
    const VekrVolume sv = src.size(), dv = dst.size();
    // A null pointer wins over a bad size; pSrc/pDst before the maps.
    EXPECT_EQ(call(nullptr, VekrVolume{0, 1, 1}, voi, M, M, D, dv, 3), vekStatusNullPtr);
    EXPECT_EQ(call(S, sv, voi, M, M, nullptr, dv, 1), vekStatusNullPtr);
    EXPECT_EQ(call(S, sv, voi, nullptr, M, D, dv, 1), vekStatusNullPtr);
    EXPECT_EQ(call(S, sv, voi, M, nullptr, D, dv, 1), vekStatusNullPtr);
    // Sizes, each field, before the interpolation code.
    EXPECT_EQ(call(S, VekrVolume{6, 0, 4}, voi, M, M, D, dv, 3), vekStatusBadSize);
    EXPECT_EQ(call(S, sv, VekrCuboid{-1, 0, 0, 6, 5, 4}, M, M, D, dv, 3), vekStatusBadSize);
    EXPECT_EQ(call(S, sv, VekrCuboid{0, 0, 0, 6, 5, 0}, M, M, D, dv, 3), vekStatusBadSize);
    EXPECT_EQ(call(S, sv, voi, M, M, D, VekrVolume{4, 4, 0}, 3), vekStatusBadSize);
    for (int code : {0, 3, 8, -1}) EXPECT_EQ(call(S, sv, voi, M, M, D, dv, code), vekStatusBadInterpolation) << code;
    // The first corner outside the source: a warning, nothing written.
    EXPECT_EQ(call(S, sv, VekrCuboid{0, 0, 4, 6, 5, 1}, M, M, D, dv, 1), vekStatusVoiOutsideSrc);
    EXPECT_EQ(call(S, sv, VekrCuboid{6, 0, 0, 1, 1, 1}, M, M, D, dv, 2), vekStatusVoiOutsideSrc);
    EXPECT_EQ(call(S, sv, VekrCuboid{0, 5, 0, 1, 1, 1}, M, M, D, dv, 6), vekStatusVoiOutsideSrc);
    EXPECT_TRUE(dst.canaryIntact());
}

// Every code against the reference (nearest: inclusive box, ties to even,
// outside points keep the old value) at points clustered around half-way
// values and the box edges, random points in and around the box, with a
// source box whose height runs past the volume (cut back to rows 1..8).
TYPED_TEST(Resample, RemapMatchesReferenceAtTiesEdgesAndRandomPoints) {
    using T = TypeParam;
    vt::Rng rng(11);
    Vol<T> src = vv::planarVol<T>(13, 9, 8);
    vv::fillRandom(src, rng);
    const VekrCuboid voi{2, 1, 1, 9, 20, 5};
    const int lo[3] = {2, 1, 1}, hi[3] = {10, 8, 5};
    for (int code : kCodes) {
        Maps maps(16, 5, 6);
        maps.fill([&](int, int, int, float* p) {
            for (int a = 0; a < 3; ++a) {
                const int k = rng.below(5);
                const float base = static_cast<float>(rng.below(hi[a] + 4) - 2);
                p[a] = k == 0   ? base + 0.5f  // exact tie
                       : k == 1 ? (rng.below(2) ? lo[a] : hi[a]) + (rng.below(3) - 1) * 1e-4f
                       : k == 2 ? std::nextafter(base + 0.5f, rng.below(2) ? 100.0f : -100.0f)
                                : rng.uniform(lo[a] - 2.0f, hi[a] + 2.0f);
            }
        });
        Vol<T> dst = vv::planarVol<T>(16, 5, 6);
        vv::fillRandom(dst, rng);
        const Vol<T> before = dst;
        ASSERT_EQ(callRemap(src, voi, maps, dst, code), vekStatusOk);
        int inside = 0;
        EXPECT_TRUE(vv::Resampled(src, dst, before, code, lo, hi, maps, &inside));
        EXPECT_GT(inside, 60);
        EXPECT_LT(inside, 16 * 5 * 6 - 60);
    }
}

// Overshooting cubic kernels clamp 8u and 16u results to the element range:
// Catmull-Rom across a step from 0 to the maximum undershoots below 0 on one
// side and overshoots the maximum on the other.
TEST(Remap, CubicOvershootIsClampedToTheElementRange) {
    Vol<std::uint8_t> s8 = vv::planarVol<std::uint8_t>(8, 4, 4), d8 = vv::planarVol<std::uint8_t>(2, 1, 1);
    Vol<std::uint16_t> s16 = vv::planarVol<std::uint16_t>(8, 4, 4), d16 = vv::planarVol<std::uint16_t>(2, 1, 1);
    s8.fill([](int x, int, int) { return x < 4 ? 0 : 255; });
    s16.fill([](int x, int, int) { return x < 4 ? 0 : 65535; });
    Maps maps(2, 1, 1);
    maps.fill([](int x, int, int, float* p) { p[0] = x == 0 ? 2.5f : 4.5f, p[1] = 1.5f, p[2] = 1.5f; });
    const VekrCuboid all{0, 0, 0, 8, 4, 4};
    ASSERT_EQ(callRemap(s8, all, maps, d8, 6), vekStatusOk);
    ASSERT_EQ(callRemap(s16, all, maps, d16, 6), vekStatusOk);
    // The unclamped values are -0.0625 and 1.0625 times the maximum.
    const int lo[3] = {0, 0, 0}, hi[3] = {7, 3, 3};
    EXPECT_LT(vv::refSample(s8, 6, lo, hi, 2.5, 1.5, 1.5), 0.0);
    EXPECT_GT(vv::refSample(s8, 6, lo, hi, 4.5, 1.5, 1.5), 255.0);
    EXPECT_EQ(d8.at(0, 0, 0), 0);
    EXPECT_EQ(d8.at(1, 0, 0), 255);
    EXPECT_EQ(d16.at(0, 0, 0), 0);
    EXPECT_EQ(d16.at(1, 0, 0), 65535);
}

// Boxes one voxel thick along y and z (taps collapse onto one row and one
// plane) and along x (the pair read of the SSE blend is not possible): the
// inside points are those exactly on the thin axes, and their values are
// the interpolation along the remaining axes, on both paths.
TYPED_TEST(Resample, RemapIntoOneVoxelThickBoxes) {
    using T = TypeParam;
    vt::Rng rng(41);
    Vol<T> src = vv::planarVol<T>(16, 9, 7);
    vv::fillRandom(src, rng);
    struct Case {
        VekrCuboid voi;
        int lo[3], hi[3];
    };
    const Case cases[] = {{{2, 3, 4, 12, 1, 1}, {2, 3, 4}, {13, 3, 4}}, {{5, 0, 0, 1, 9, 1}, {5, 0, 0}, {5, 8, 0}}};
    for (const Case& c : cases)
        for (int code : {2, 4, 6}) {
            auto result = [&](std::size_t offset) {
                Maps maps(16, 4, 3, offset);
                vt::Rng r(code);
                maps.fill([&](int, int, int, float* p) {
                    for (int a = 0; a < 3; ++a)
                        p[a] = c.lo[a] == c.hi[a] ? (r.below(4) ? float(c.lo[a]) : c.lo[a] + 0.25f)
                                                  : r.uniform(c.lo[a] - 0.5f, c.hi[a] + 0.5f);
                });
                Vol<T> dst = vv::planarVol<T>(16, 4, 3, offset);
                const Vol<T> before = dst;
                EXPECT_EQ(callRemap(src, c.voi, maps, dst, code), vekStatusOk);
                int inside = 0;
                        EXPECT_TRUE(vv::Resampled(src, dst, before, code, c.lo, c.hi, maps, &inside));
                EXPECT_GT(inside, 40);
                return dst.bytes();
            };
            EXPECT_TRUE(vt::SameAcrossOffsets(result)) << "code " << code;
        }
}

// ---------------------------------------------------------------------------
// Affine warp
// ---------------------------------------------------------------------------

TEST(WarpAffineGetBufSize, ChecksInOrderAndNeedsNoBuffer) {
    const VekrCuboid ok{0, 0, 0, 4, 4, 4};
    int size = 123;
    EXPECT_EQ(vekrWarpAffineGetBufSize(ok, VekrCuboid{0, 0, 0, 0, 4, 4}, 1, 3, nullptr), vekStatusNullPtr);
    EXPECT_EQ(vekrWarpAffineGetBufSize(VekrCuboid{0, 0, -1, 4, 4, 4}, ok, 3, 3, &size), vekStatusBadSize);
    EXPECT_EQ(vekrWarpAffineGetBufSize(ok, VekrCuboid{0, 0, 0, 4, 4, 0}, 3, 3, &size), vekStatusBadSize);
    EXPECT_EQ(vekrWarpAffineGetBufSize(ok, ok, 3, 3, &size), vekStatusBadNumChannels);
    EXPECT_EQ(vekrWarpAffineGetBufSize(ok, ok, 1, 3, &size), vekStatusBadInterpolation);
    EXPECT_EQ(size, 123) << "failing calls leave the result alone";
    for (int code : kCodes) {
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
    Vol<float> src = vv::planarVol<float>(6, 6, 6), dst = vv::planarVol<float>(5, 5, 5);
    dst.fillCanary();
    const VekrCuboid sv{0, 0, 0, 6, 6, 6}, dv{0, 0, 0, 5, 5, 5};
    auto call = [&](const float* const* s, VekrVolume vol, VekrCuboid a, float* const* d, VekrCuboid b,
                    const Affine& m, int code) {
        return vekrWarpAffine_32f_C1PV(s, vol, src.step, a, d, dst.step, b, m.c, code, nullptr);
    };
    const auto S = src.cplanes();
    const auto D = dst.planes();
    const VekrVolume vol = src.size();
    Affine zeroDiag = kIdentity, tinyDet = kIdentity, nearlyTiny = kIdentity;
    zeroDiag.c[0][0] = zeroDiag.c[1][1] = zeroDiag.c[2][2] = 1e-101;
    const Affine parallelRows{{{1, 2, 3, 0}, {0, 1, 2, 0}, {0, 2, 4, 0}}};
    tinyDet.c[0][0] = 1e-11;  // passes the quick test, fails the determinant
    nearlyTiny.c[0][0] = 1.5e-10;

    EXPECT_EQ(call(nullptr, VekrVolume{0, 0, 0}, sv, D, dv, zeroDiag, 3), vekStatusNullPtr);
    EXPECT_EQ(call(S, vol, sv, nullptr, dv, kIdentity, 1), vekStatusNullPtr);
    EXPECT_EQ(call(S, VekrVolume{6, 6, 0}, sv, D, dv, zeroDiag, 3), vekStatusBadSize);
    EXPECT_EQ(call(S, vol, VekrCuboid{0, 0, 0, 6, 0, 6}, D, dv, zeroDiag, 3), vekStatusBadSize);
    EXPECT_EQ(call(S, vol, sv, D, VekrCuboid{0, -1, 0, 5, 5, 5}, zeroDiag, 3), vekStatusBadSize);
    EXPECT_EQ(call(S, vol, sv, D, dv, zeroDiag, 3), vekStatusSingularTransform);
    EXPECT_EQ(call(S, vol, sv, D, dv, parallelRows, 3), vekStatusSingularTransform);
    EXPECT_EQ(call(S, vol, sv, D, dv, tinyDet, 3), vekStatusBadInterpolation);
    EXPECT_EQ(call(S, vol, VekrCuboid{0, 0, 6, 1, 1, 1}, D, dv, tinyDet, 1), vekStatusVoiOutsideSrc);
    EXPECT_EQ(call(S, vol, VekrCuboid{0, 6, 0, 1, 1, 1}, D, dv, kIdentity, 2), vekStatusVoiOutsideSrc);
    for (int code : {1, 2, 6}) EXPECT_EQ(call(S, vol, sv, D, dv, tinyDet, code), vekStatusSingularTransform);
    EXPECT_TRUE(dst.canaryIntact());
    // Just above the threshold the warp runs (and writes).
    EXPECT_EQ(call(S, vol, sv, D, dv, nearlyTiny, 1), vekStatusOk);
    EXPECT_FALSE(dst.canaryIntact());
}

// Nearest rounds half-way points to even: a scale by 2 sends every odd
// destination coordinate to a source coordinate k + 0.5 exactly (the inverse
// 0.5 and its multiples are exact, so the incremental walk is exact too).
// Then nearest, linear and cubic under a rotation, scale and shift, against
// the reference inverse evaluated directly at every voxel, skipping points
// within 1e-9 of a box face or a nearest tie (the walk's incremental sums
// differ from the direct ones in the last bits there).
TYPED_TEST(Resample, WarpMatchesReferenceAtTiesAndUnderRotation) {
    using T = TypeParam;
    vt::Rng rng(8);
    {
        Vol<T> src = vv::planarVol<T>(9, 9, 9), dst = vv::planarVol<T>(20, 20, 20);
        vv::fillRandom(src, rng);
        vv::fillRandom(dst, rng);
        const Vol<T> before = dst;
        const Affine twice{{{2, 0, 0, 1}, {0, 2, 0, -3}, {0, 0, 2, 0.5}}};  // inverse: (x - 1) / 2 and so on
        ASSERT_EQ(callWarp(src, VekrCuboid{0, 0, 0, 9, 9, 9}, dst, VekrCuboid{0, 0, 0, 20, 20, 20}, twice, 1),
                  vekStatusOk);
        const int lo[3] = {0, 0, 0}, hi[3] = {8, 8, 8};
        auto point = [](int x, int y, int z, double* p) {
            p[0] = (x - 1) / 2.0, p[1] = (y + 3) / 2.0, p[2] = (z - 0.5) / 2.0;
            return true;
        };
        EXPECT_TRUE(vv::Resampled(src, dst, before, 1, lo, hi, point));
    }
    Vol<T> src = vv::planarVol<T>(14, 12, 11);
    vv::fillRandom(src, rng);
    const VekrCuboid sv{1, 0, 2, 12, 12, 8}, dv{2, 1, 0, 15, 14, 12};
    const int lo[3] = {1, 0, 2}, hi[3] = {12, 11, 9};
    const Affine a = rotated(0.4, 1.1, 2.0, -1.5, 0.75);
    const Inverse inv(a);
    for (int code : kCodes) {
        Vol<T> dst = vv::planarVol<T>(18, 16, 13);
        vv::fillRandom(dst, rng);
        const Vol<T> before = dst;
        ASSERT_EQ(callWarp(src, sv, dst, dv, a, code), vekStatusOk);
        int inside = 0;
        auto point = [&](int x, int y, int z, double* p) {
            inv.apply(x, y, z, p);
            return inBox(dv, x, y, z);
        };
        EXPECT_TRUE(vv::Resampled(src, dst, before, code, lo, hi, point, &inside, 3, 1e-9));
        EXPECT_GT(inside, 500) << code;
    }
}

// Straight-line-reproducing kernels give back a linear ramp under a rotation
// (inside the box, away from its edges), all kernels a constant.
TEST(WarpAffine, RampsAndConstantsAreReproduced) {
    Vol<float> ramp = vv::planarVol<float>(16, 16, 16), flat = vv::planarVol<float>(16, 16, 16);
    ramp.fill([](int x, int y, int z) { return 10.0f + 1.5f * x + 0.5f * y - 2.0f * z; });
    flat.fill([](int, int, int) { return -42.0f; });
    const Affine a = rotated(0.3, 0.9, 1.0, 2.0, -0.5);
    const Inverse inv(a);
    const VekrCuboid all{0, 0, 0, 16, 16, 16};
    for (int code : {2, 4, 5, 6, 7}) {
        Vol<float> out = vv::planarVol<float>(16, 16, 16), outFlat = vv::planarVol<float>(16, 16, 16);
        ASSERT_EQ(callWarp(ramp, all, out, all, a, code), vekStatusOk);
        ASSERT_EQ(callWarp(flat, all, outFlat, all, a, code), vekStatusOk);
        int checked = 0;
        vv::forEachVoxel(16, 16, 16, [&](int x, int y, int z) {
            double p[3];
            inv.apply(x, y, z, p);
            bool interior = true, in = true;
            for (double v : p) {
                interior = interior && v >= 1.001 && v <= 13.999;
                in = in && v >= 1e-9 && v <= 15 - 1e-9;
            }
            if (in) {
                EXPECT_NEAR(outFlat.at(x, y, z), -42.0, 1e-4) << code;
            }
            if (!interior || code == 7) return;
            ++checked;
            EXPECT_NEAR(out.at(x, y, z), 10.0 + 1.5 * p[0] + 0.5 * p[1] - 2.0 * p[2], 2e-4) << code;
        });
        if (code != 7) {
            EXPECT_GT(checked, 1000);
        }
    }
}

// A source one plane deep goes through the 2-D kernels: every destination
// plane is sampled from the one source plane with the bilinear and bicubic
// rules, srcVoi's z is not used, and neither is the z map (it holds NaN) nor,
// beyond the quick singularity test, the warp's z row and column; the
// in-plane determinant decides singularity, and the rectangle must still
// start inside the plane.
TYPED_TEST(Resample, DepthOneSourceUsesThePlaneKernels) {
    using T = TypeParam;
    vt::Rng rng(6);
    Vol<T> src = vv::planarVol<T>(12, 10, 1);
    vv::fillRandom(src, rng);
    const VekrCuboid sv{1, 1, 4, 10, 8, 9}, dv{1, 0, 1, 13, 11, 3};
    const int lo[3] = {1, 1, 0}, hi[3] = {10, 8, 0};
    const Affine a{{{0.9, -0.3, 5.0, 1.25}, {0.35, 1.05, -7.0, -0.5}, {0.1, 0.2, 3.0, 11.0}}};
    const double det = a.c[0][0] * a.c[1][1] - a.c[0][1] * a.c[1][0];
    auto warped = [&](int x, int y, int z, double* p) {
        const double u = x - a.c[0][3], v = y - a.c[1][3];
        p[0] = (a.c[1][1] * u - a.c[0][1] * v) / det, p[1] = (-a.c[1][0] * u + a.c[0][0] * v) / det;
        return inBox(dv, x, y, z);
    };
    for (int code : kCodes) {
        Maps maps(14, 11, 4);
        maps.fill([&](int, int, int, float* p) {
            p[0] = rng.uniform(0.5f, 11.5f), p[1] = rng.uniform(0.5f, 9.5f), p[2] = NAN;
        });
        Vol<T> dst = vv::planarVol<T>(14, 11, 4), wdst = dst;
        const Vol<T> before = dst;
        ASSERT_EQ(callRemap(src, sv, maps, dst, code), vekStatusOk) << code;
        EXPECT_TRUE(vv::Resampled(src, dst, before, code, lo, hi, maps, nullptr, 2));
        ASSERT_EQ(callWarp(src, sv, wdst, dv, a, code), vekStatusOk) << code;
        EXPECT_TRUE(vv::Resampled(src, wdst, before, code, lo, hi, warped, nullptr, 2, 1e-9));
    }
    const Affine flatPlane{{{1e-11, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}}};
    const VekrCuboid all{0, 0, 0, 4, 4, 1};
    Maps maps(4, 4, 1);
    Vol<T> dst = vv::planarVol<T>(4, 4, 1);
    dst.fillCanary();
    EXPECT_EQ(callWarp(src, sv, dst, all, flatPlane, 2), vekStatusSingularTransform);
    EXPECT_EQ(callWarp(src, VekrCuboid{12, 0, 0, 1, 1, 1}, dst, all, kIdentity, 2), vekStatusVoiOutsideSrc);
    EXPECT_EQ(callRemap(src, VekrCuboid{12, 0, 0, 1, 1, 1}, maps, dst, 2), vekStatusVoiOutsideSrc);
    EXPECT_EQ(callRemap(src, VekrCuboid{0, 10, 0, 1, 1, 1}, maps, dst, 2), vekStatusVoiOutsideSrc);
    EXPECT_TRUE(dst.canaryIntact());
}

// The vector linear warp takes each row in stages: the points before the
// inside run, the run (most of it without a per-point test) and its end.
// Whatever the map, it must store exactly what the scalar rule stores: runs
// that start and end mid-row and mid-group or exactly on a box face
// (integer coordinates), axes moving up, down or standing still (also on
// the upper face), four points to a cell, rows that miss the box. Offset 0
// takes the vector kernel, with the source planes scattered and in one
// block; offset 4 the scalar one.
TYPED_TEST(Resample, LinearWarpRowsMatchTheScalarRuleWhereverTheRunLies) {
    using T = TypeParam;
    vt::Rng rng(21);
    Vol<T> src = vv::planarVol<T>(15, 13, 11);
    // Outside the box x 1..13, y 2..11, z 1..9 the float source holds NaN,
    // which any tap read beyond the box would carry into the result.
    vv::fillRandom(src, rng);
    src.fill([&](int x, int y, int z) {
        const bool in = x >= 1 && x <= 13 && y >= 2 && y <= 11 && z >= 1 && z <= 9;
        return in || !std::is_floating_point<T>::value ? src.at(x, y, z) : static_cast<T>(NAN);
    });
    const Vol<T> blockSrc = src.block();
    const VekrCuboid sv{1, 2, 1, 13, 10, 9}, dv{0, 0, 0, 24, 14, 12};
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
        auto result = [&](const Vol<T>& s, std::size_t offset) {
            Vol<T> dst = vv::planarVol<T>(24, 14, 12, offset);
            dst.fillCanary();
            EXPECT_EQ(callWarp(s, sv, dst, dv, a, 2), vekStatusOk);
            return dst;
        };
        const Vol<T> scalar = result(src, 4);
        int written = 0;
        vv::forEachVoxel(24, 14, 12, [&](int x, int y, int z) { written += !vt::CanaryIntact(&scalar.at(x, y, z), 1); });
        EXPECT_GT(written, 200) << a.c[0][0] << " " << a.c[0][1] << " " << a.c[0][3];
        EXPECT_TRUE(vt::SameBits(scalar.bytes(), result(src, 0).bytes())) << a.c[0][0] << " " << a.c[0][3];
        EXPECT_TRUE(vt::SameBits(scalar.bytes(), result(blockSrc, 0).bytes())) << a.c[0][0] << " " << a.c[0][3];
    }
}

}  // namespace
