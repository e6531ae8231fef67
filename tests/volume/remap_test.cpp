// Volume remap and affine warp: argument checks, nearest sampling with ties to
// even, linear and cubic sampling against a double-precision reference, the
// small-volume lowering, depth-1 sources, and independence of the thread
// count, the alignment and the plane layout.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "volume_testutil.h"

namespace {

using vv::Vol;

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
    return vv::pick<T>(vekrRemap_8u_C1PV, vekrRemap_16u_C1PV, vekrRemap_32f_C1PV)(
        s.cplanes(), s.size(), s.step, voi, m.m[0].cplanes(), m.m[1].cplanes(), m.m[2].cplanes(), m.m[0].step,
        d.planes(), d.step, d.size(), code);
}

// A 3 x 4 affine map and, where the test needs it, its inverse, which gives
// the point each destination voxel samples.
struct Affine {
    double c[3][4];
    double inv[3][4] = {};
    void source(int x, int y, int z, double* p) const {
        for (int r = 0; r < 3; ++r) p[r] = inv[r][0] * x + inv[r][1] * y + inv[r][2] * z + inv[r][3];
    }
};

template <class T>
VekStatus callWarp(const Vol<T>& s, VekrCuboid sv, Vol<T>& d, VekrCuboid dv, const Affine& a, int code) {
    return vv::pick<T>(vekrWarpAffine_8u_C1PV, vekrWarpAffine_16u_C1PV, vekrWarpAffine_32f_C1PV)(
        s.cplanes(), s.size(), s.step, sv, d.planes(), d.step, dv, a.c, code, nullptr);
}

// A rotation about z and then x, scaled and moved by t. Its inverse is the
// transposed rotation over the scale, a different route from the adjugate
// the library takes.
Affine rotated(double angle, double scale, double tx, double ty, double tz) {
    const double c = std::cos(angle), s = std::sin(angle), c2 = std::cos(0.7 * angle), s2 = std::sin(0.7 * angle);
    const double rz[3][3] = {{c, -s, 0}, {s, c, 0}, {0, 0, 1}};
    const double rx[3][3] = {{1, 0, 0}, {0, c2, -s2}, {0, s2, c2}};
    const double t[3] = {tx, ty, tz};
    Affine a{};
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            const double r = rx[i][0] * rz[0][j] + rx[i][1] * rz[1][j] + rx[i][2] * rz[2][j];
            a.c[i][j] = r * scale;
            a.inv[j][i] = r / scale;
        }
        a.c[i][3] = t[i];
    }
    for (int i = 0; i < 3; ++i) a.inv[i][3] = -(a.inv[i][0] * tx + a.inv[i][1] * ty + a.inv[i][2] * tz);
    return a;
}
const Affine kIdentity = rotated(0, 1, 0, 0, 0);

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
    vt::Rng r(code);
    Maps maps(d.w, d.h, d.d, offset);
    maps.fill([&](int x, int y, int z, float* p) {
        double q[3];
        j.a.source(x, y, z, q);
        const int first[3] = {j.sv.x, j.sv.y, j.sv.z}, ext[3] = {j.sv.width, j.sv.height, j.sv.depth};
        const int vol[3] = {s.w, s.h, s.d};
        for (int a = 0; a < 3; ++a) {
            const int k = j.wild ? r.below(16) : 3, last = std::min(first[a] + ext[a], vol[a]) - 1;
            p[a] = !inBox(j.dv, x, y, z) ? -1e9f
                   : k == 0              ? r.below(s.w) + 0.5f
                   : k == 1              ? float(r.below(2) ? first[a] : last)
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
// 8 the scalar ones), nor on how the source planes lie in memory. First a
// rotation of a volume and a single-plane source by both operations with
// every code, special float values in the source and (remap) in the maps.
// Then the vector linear warp, which takes each row in stages: the points
// before the inside run, the run (most of it without a per-point test) and
// its end. Runs that start and end mid-row and mid-group or exactly on a box
// face (integer coordinates), axes moving up, down or standing still (also
// on the upper face), four points to a cell, rows that miss the box. Outside
// the source box the float source holds NaN, which any tap read beyond the
// box would carry into the result.
TYPED_TEST(Resample, PathsThreadsAndPlaneLayoutsGiveIdenticalBits) {
    using T = TypeParam;
    struct Setup {
        VekrVolume vol;
        Job job;
        std::vector<Op> ops;
        std::vector<int> codes;
    };
    std::vector<Setup> setups;
    for (int depth : {19, 1})  // a box starting at x = 0 of 20-voxel rows takes the SSE path at offset 0
        setups.push_back({{24, 20, depth},
                          {{0, 1, 0, 22, 30, 19}, {0, 0, 2, 20, 17, 16}, rotated(-0.35, 1.2, 3.0, -2.0, 1.0), true},
                          {Op::Remap, Op::Warp},
                          {std::begin(kCodes), std::end(kCodes)}});
    // Rotations that take the box centre to the destination centre moved by dx along x.
    auto centred = [](double angle, double scale, double dx) {
        Affine a = rotated(angle, scale, 0, 0, 0);
        const double from[3] = {7.0, 6.5, 5.0}, to[3] = {11.5 + dx, 6.5, 5.5};
        for (int r = 0; r < 3; ++r)
            a.c[r][3] = to[r] - (a.c[r][0] * from[0] + a.c[r][1] * from[1] + a.c[r][2] * from[2]);
        return a;
    };
    const Affine rowMaps[] = {
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
    for (const Affine& a : rowMaps)
        setups.push_back({{15, 13, 11}, {{1, 2, 1, 13, 10, 9}, {0, 0, 0, 24, 14, 12}, a}, {Op::Warp}, {2}});
    for (const Setup& st : setups) {
        vt::Rng rng(14);
        Vol<T> src = vv::planarVol<T>(st.vol.width, st.vol.height, st.vol.depth);
        vv::fillRandom(src, rng);
        vv::sprinkleSpecials(src, rng);
        const VekrCuboid& sv = st.job.sv;
        src.fill([&](int x, int y, int z) {
            const bool in = inBox(sv, x, y, st.vol.depth == 1 ? sv.z : z);
            return in || !std::is_floating_point<T>::value ? src.at(x, y, z) : static_cast<T>(NAN);
        });
        const Vol<T> blockSrc = src.block();
        const VekrCuboid& dv = st.job.dv;
        for (Op op : st.ops)
            for (int code : st.codes) {
                auto result = [&](int threads, std::size_t offset, bool block = false) {
                    vv::ThreadCount tc(threads);
                    Vol<T> dst = vv::planarVol<T>(dv.x + dv.width, dv.y + dv.height + 1, dv.z + dv.depth, offset);
                    dst.fillCanary();
                    EXPECT_EQ(run(op, block ? blockSrc : src, st.job, dst, code, offset), vekStatusOk);
                    return dst;
                };
                const Vol<T> one = result(1, 0);
                int written = 0;
                vv::forEachVoxel(one.w, one.h, one.d,
                                 [&](int x, int y, int z) { written += !vt::CanaryIntact(&one.at(x, y, z), 1); });
                const std::string what = std::string(name(op)) + " depth " + std::to_string(st.vol.depth) + " code " +
                                         std::to_string(code) + " map " + std::to_string(st.job.a.c[0][0]) + " " +
                                         std::to_string(st.job.a.c[0][3]);
                EXPECT_GT(written, 200) << what;
                EXPECT_TRUE(vt::SameBits(one.bytes(), result(1, 0, true).bytes())) << what;
                EXPECT_TRUE(vt::SameBits(one.bytes(), result(2, 0).bytes())) << what;
                EXPECT_TRUE(vt::SameBits(one.bytes(), result(3, 4).bytes())) << what;
                EXPECT_TRUE(vt::SameBits(one.bytes(), result(1, 8).bytes())) << what;
            }
    }
}

// A source one plane deep splits the destination rows between the threads
// whatever the destination's depth. Destinations large enough to be split,
// on the vector path (rows a multiple of 4 voxels, aligned rows and maps) and
// on the scalar one (odd widths and heights, steps and starts off 16-byte
// boundaries, two planes), from a source of odd size whose row step is no
// multiple of 16 bytes: 1, 2 and 3 threads store the same bytes, padding
// included.
TYPED_TEST(Resample, SinglePlaneRowsSplitBetweenThreadsGiveIdenticalBits) {
    using T = TypeParam;
    vt::Rng rng(21);
    Vol<T> src(97, 83, 1, 2 * sizeof(T) % 16, 4);
    vv::fillRandom(src, rng);
    vv::sprinkleSpecials(src, rng);
    const VekrCuboid sv{2, 1, 0, 93, 90, 1};
    const Affine a = rotated(0.3, 1.4, 4.0, -6.0, 0.0);
    struct Layout {
        int w, h, d;
        std::size_t offset;
        int padX;
    } layouts[] = {{132, 131, 1, 0, 0}, {131, 127, 2, 4, 1}};
    for (const Layout& l : layouts) {
        const VekrCuboid dv{l.offset ? 1 : 0, 2, 0, l.w - (l.offset ? 1 : 0), l.h - 3, l.d};
        std::vector<Vol<float>> maps;
        for (int m = 0; m < 3; ++m) maps.emplace_back(l.w, l.h, l.d, l.offset, l.padX);
        vv::forEachVoxel(l.w, l.h, l.d, [&](int x, int y, int z) {
            double p[3];
            a.source(x, y, z, p);
            maps[0].at(x, y, z) = static_cast<float>(p[0] + 0.5 * std::sin(0.2 * y));
            maps[1].at(x, y, z) = static_cast<float>(p[1]);
            maps[2].at(x, y, z) = NAN;  // not read for a plane source
        });
        for (Op op : {Op::Remap, Op::Warp})
            for (int code : kCodes) {
                auto result = [&](int threads) {
                    vv::ThreadCount tc(threads);
                    Vol<T> dst(l.w, l.h, l.d, l.offset, l.padX);
                    dst.fillCanary();
                    const VekStatus st =
                        op == Op::Warp
                            ? callWarp(src, sv, dst, dv, a, code)
                            : vv::pick<T>(vekrRemap_8u_C1PV, vekrRemap_16u_C1PV, vekrRemap_32f_C1PV)(
                                  src.cplanes(), src.size(), src.step, sv, maps[0].cplanes(), maps[1].cplanes(),
                                  maps[2].cplanes(), maps[0].step, dst.planes(), dst.step, dst.size(), code);
                    EXPECT_EQ(st, vekStatusOk);
                    return dst;
                };
                const Vol<T> one = result(1);
                int written = 0;
                vv::forEachVoxel(l.w, l.h, l.d,
                                 [&](int x, int y, int z) { written += !vt::CanaryIntact(&one.at(x, y, z), 1); });
                const std::string what = std::string(name(op)) + " code " + std::to_string(code) + " width " +
                                         std::to_string(l.w);
                EXPECT_GT(written, l.w * l.h * l.d / 3) << what;
                EXPECT_TRUE(vt::SameBits(one.bytes(), result(2).bytes())) << what;
                EXPECT_TRUE(vt::SameBits(one.bytes(), result(3).bytes())) << what;
            }
    }
}

// Long destination rows (1024 voxels and more) take the cubic remap's
// streamed whole-group stores on the vector path: a plane remap over rows of
// 1028 and 1032 voxels, part of each row outside the source, stores the same
// voxels as the scalar path (maps and destination 4 bytes off 16-byte
// boundaries), and leaves the outside ones as they were.
TYPED_TEST(Resample, LongCubicRowsMatchTheScalarPath) {
    using T = TypeParam;
    vt::Rng rng(5);
    Vol<T> src(300, 40, 1);
    vv::fillRandom(src, rng);
    const VekrCuboid sv{0, 0, 0, 300, 40, 1};
    for (int w : {1028, 1032}) {
        const int h = 5;
        auto run = [&](std::size_t offset, int code) {
            Vol<float> mx(w, h, 1, offset), my(w, h, 1, offset);
            vv::forEachVoxel(w, h, 1, [&](int x, int y, int z) {
                mx.at(x, y, z) = static_cast<float>(-20.0 + 0.31 * x + 0.7 * std::sin(0.05 * x + y));
                my.at(x, y, z) = static_cast<float>(3.0 + 7.3 * y + 0.011 * x);
            });
            Vol<T> dst(w, h, 1, offset);
            dst.fillCanary();
            EXPECT_EQ(vekStatusOk, vv::pick<T>(vekrRemap_8u_C1PV, vekrRemap_16u_C1PV, vekrRemap_32f_C1PV)(
                                       src.cplanes(), src.size(), src.step, sv, mx.cplanes(), my.cplanes(),
                                       mx.cplanes(), mx.step, dst.planes(), dst.step, dst.size(), code));
            return dst.values();
        };
        for (int code : {4, 6}) {
            const std::vector<T> vec = run(0, code), scalar = run(4, code);
            EXPECT_TRUE(vt::SameBits(vec, scalar)) << "width " << w << " code " << code;
            // Both kinds of voxel occur: written ones and kept canaries.
            std::size_t kept = 0;
            for (const T& v : vec) kept += vt::CanaryIntact(&v, 1) ? 1 : 0;
            EXPECT_GT(kept, 0u);
            EXPECT_LT(kept, vec.size() / 2);
        }
    }
}

// A large cubic remap reads the weights of points with integer parts from
// 512 up (whose fractions are multiples of 2^-14) from a table it fills per
// call; the table must give the evaluated bits. A 512 x 512 plane over a
// source 1100 voxels wide and a 64^3 volume over one 600 wide, every cubic
// kernel: even rows take x in [512, width - 1] (groups of four wholly served
// by the table), odd rows anywhere from outside the box to outside it again
// (groups mixing both ways and outside points), with integers, the first
// and last fractions of the binades from 512 up and the float below 512
// scattered in; the vector path (offset 0) stores the scalar path's bits.
TYPED_TEST(Resample, CubicWeightTableGivesTheEvaluatedBits) {
    using T = TypeParam;
    const float specials[] = {512.0f, 0x1.fffffep8f, 0x1.000002p9f, 0x1.fffffep9f,
                              1024.0f, 600.0f, 0x1.001p10f, 599.0f};
    for (int depth : {1, 6}) {
        const int sw = depth == 1 ? 1100 : 600, n = depth == 1 ? 512 : 64, dd = depth == 1 ? 1 : 64;
        vt::Rng rng(77);
        Vol<T> src = vv::planarVol<T>(sw, 9, depth);
        vv::fillRandom(src, rng);
        const VekrCuboid sv{0, 0, 0, sw, 9, depth};
        for (int code : {4, 5, 6, 7}) {
            auto remapped = [&](std::size_t offset) {
                Maps maps(n, n, dd, offset);
                vt::Rng pts(code);
                maps.fill([&](int x, int y, int, float* p) {
                    p[0] = y % 2 == 0 ? pts.uniform(512.0f, static_cast<float>(sw - 1))
                                      : pts.uniform(-2.0f, static_cast<float>(sw + 1));
                    if (x % 7 == 3) p[0] = std::min(specials[(x / 7 + y) % 8], static_cast<float>(sw - 1));
                    p[1] = pts.uniform(0.0f, 8.0f);
                    p[2] = depth == 1 ? 0.0f : pts.uniform(0.0f, static_cast<float>(depth - 1));
                });
                Vol<T> dst = vv::planarVol<T>(n, n, dd, offset);
                dst.fillCanary();
                EXPECT_EQ(callRemap(src, sv, maps, dst, code), vekStatusOk);
                EXPECT_FALSE(dst.canaryIntact());
                return dst.bytes();
            };
            EXPECT_TRUE(vt::SameAcrossOffsets(remapped)) << "depth " << depth << " code " << code;
        }
    }
}

// The vector cubic kernels take four points' weights in one go when every
// fraction t = c - trunc(c) lies where 1 + t, t, 1 - t and 2 - t fall inside
// their polynomial's range, and point by point otherwise. Fractions on and
// around those limits (0, below and at 2^-53 where 2 - t rounds to 2, the
// largest float below 1, and for the warp's double coordinates a fraction
// that rounds to 1), mixed within groups of four with ordinary ones: the
// vector path (offset 0) stores the bits of the scalar one (offsets 4, 8),
// on a plane and on a volume.
TYPED_TEST(Resample, CubicVectorPathMatchesScalarAtFractionEdges) {
    using T = TypeParam;
    const float fractions[] = {0.0f, 0x1p-60f, 0x1p-53f, std::nextafter(0x1p-53f, 1.0f), 0.5f, 0x1.fffffep-1f, 0.3f};
    const double warpOffsets[] = {0.0, 1e-19, 0x1p-53, 1.0 - 1e-12, 0.375};
    for (int depth : {1, 7}) {
        vt::Rng rng(31);
        Vol<T> src = vv::planarVol<T>(19, 13, depth);
        vv::fillRandom(src, rng);
        vv::sprinkleSpecials(src, rng);
        const VekrCuboid sv{0, 0, 0, 19, 13, depth};
        for (int code : {4, 5, 6, 7}) {
            auto remapped = [&](std::size_t offset) {
                Maps maps(16, 6, 3, offset);
                int n = 0;
                maps.fill([&](int x, int y, int z, float* p) {
                    const int k = n++;
                    p[0] = 2 + x + fractions[k % 7];
                    p[1] = 1 + y + fractions[(k / 2) % 7];
                    p[2] = depth == 1 ? 0.0f : z * 2 + fractions[(k / 3) % 7];
                });
                Vol<T> dst = vv::planarVol<T>(16, 6, 3, offset);
                dst.fillCanary();
                EXPECT_EQ(callRemap(src, sv, maps, dst, code), vekStatusOk);
                EXPECT_FALSE(dst.canaryIntact());
                return dst.bytes();
            };
            EXPECT_TRUE(vt::SameAcrossOffsets(remapped)) << "remap depth " << depth << " code " << code;
            for (double ox : warpOffsets)
                for (double oy : warpOffsets) {
                    auto warped = [&](std::size_t offset) {
                        // A shift: destination (x, y, z) samples (x + 1 + ox, y + 2 + oy, z).
                        const Affine shift{{{1, 0, 0, -(1 + ox)}, {0, 1, 0, -(2 + oy)}, {0, 0, 1, 0}}};
                        Vol<T> dst = vv::planarVol<T>(16, 8, depth, offset);
                        dst.fillCanary();
                        EXPECT_EQ(callWarp(src, sv, dst, VekrCuboid{0, 0, 0, 16, 8, depth}, shift, code), vekStatusOk);
                        EXPECT_FALSE(dst.canaryIntact());
                        return dst.bytes();
                    };
                    EXPECT_TRUE(vt::SameAcrossOffsets(warped))
                        << "warp depth " << depth << " code " << code << " offsets " << ox << " " << oy;
                }
        }
    }
}

// Checks come in the documented order and a failing call writes nothing.
// The warp makes two singularity tests: the quick one on the coefficients
// (before the interpolation code is looked at) and the determinant (last,
// after the region check); its size query needs no buffer.
TEST(RemapAndWarp, ChecksInOrderAndWriteNothing) {
    Vol<float> src = vv::planarVol<float>(6, 5, 4), dst = vv::planarVol<float>(4, 4, 4);
    Maps maps(4, 4, 4);
    dst.fillCanary();
    const VekrCuboid voi{0, 0, 0, 6, 5, 4}, dv{0, 0, 0, 4, 4, 4};
    const VekrVolume sv = src.size(), dvol = dst.size();
    const float* const* S = src.cplanes();
    const float* const* M = maps.m[0].cplanes();
    float* const* D = dst.planes();
    auto remap = [&](const float* const* s, VekrVolume v, VekrCuboid box, const float* const* mx,
                     const float* const* mz, float* const* d, VekrVolume dvl, int code) {
        return vekrRemap_32f_C1PV(s, v, src.step, box, mx, maps.m[1].cplanes(), mz, maps.m[0].step, d, dst.step, dvl,
                                  code);
    };
    // A null pointer wins over a bad size; pSrc/pDst before the maps.
    EXPECT_EQ(remap(nullptr, VekrVolume{0, 1, 1}, voi, M, M, D, dvol, 3), vekStatusNullPtr);
    EXPECT_EQ(remap(S, sv, voi, M, M, nullptr, dvol, 1), vekStatusNullPtr);
    EXPECT_EQ(remap(S, sv, voi, nullptr, M, D, dvol, 1), vekStatusNullPtr);
    EXPECT_EQ(remap(S, sv, voi, M, nullptr, D, dvol, 1), vekStatusNullPtr);
    // Sizes, each field, before the interpolation code.
    EXPECT_EQ(remap(S, VekrVolume{6, 0, 4}, voi, M, M, D, dvol, 3), vekStatusBadSize);
    EXPECT_EQ(remap(S, sv, VekrCuboid{-1, 0, 0, 6, 5, 4}, M, M, D, dvol, 3), vekStatusBadSize);
    EXPECT_EQ(remap(S, sv, VekrCuboid{0, 0, 0, 6, 5, 0}, M, M, D, dvol, 3), vekStatusBadSize);
    EXPECT_EQ(remap(S, sv, voi, M, M, D, VekrVolume{4, 4, 0}, 3), vekStatusBadSize);
    for (int code : {0, 3, 8, -1}) EXPECT_EQ(remap(S, sv, voi, M, M, D, dvol, code), vekStatusBadInterpolation);
    // The first corner outside the source: a warning, nothing written.
    EXPECT_EQ(remap(S, sv, VekrCuboid{0, 0, 4, 6, 5, 1}, M, M, D, dvol, 1), vekStatusVoiOutsideSrc);
    EXPECT_EQ(remap(S, sv, VekrCuboid{6, 0, 0, 1, 1, 1}, M, M, D, dvol, 2), vekStatusVoiOutsideSrc);
    EXPECT_EQ(remap(S, sv, VekrCuboid{0, 5, 0, 1, 1, 1}, M, M, D, dvol, 6), vekStatusVoiOutsideSrc);

    auto warp = [&](const float* const* s, VekrVolume v, VekrCuboid a, float* const* d, VekrCuboid b, const Affine& m,
                    int code) {
        return vekrWarpAffine_32f_C1PV(s, v, src.step, a, d, dst.step, b, m.c, code, nullptr);
    };
    Affine zeroDiag = kIdentity, tinyDet = kIdentity, nearlyTiny = kIdentity;
    zeroDiag.c[0][0] = zeroDiag.c[1][1] = zeroDiag.c[2][2] = 1e-101;
    const Affine parallelRows{{{1, 2, 3, 0}, {0, 1, 2, 0}, {0, 2, 4, 0}}};
    tinyDet.c[0][0] = 1e-11;  // passes the quick test, fails the determinant
    nearlyTiny.c[0][0] = 1.5e-10;
    EXPECT_EQ(warp(nullptr, VekrVolume{0, 0, 0}, voi, D, dv, zeroDiag, 3), vekStatusNullPtr);
    EXPECT_EQ(warp(S, sv, voi, nullptr, dv, kIdentity, 1), vekStatusNullPtr);
    EXPECT_EQ(warp(S, VekrVolume{6, 5, 0}, voi, D, dv, zeroDiag, 3), vekStatusBadSize);
    EXPECT_EQ(warp(S, sv, VekrCuboid{0, 0, 0, 6, 0, 4}, D, dv, zeroDiag, 3), vekStatusBadSize);
    EXPECT_EQ(warp(S, sv, voi, D, VekrCuboid{0, -1, 0, 4, 4, 4}, zeroDiag, 3), vekStatusBadSize);
    EXPECT_EQ(warp(S, sv, voi, D, dv, zeroDiag, 3), vekStatusSingularTransform);
    EXPECT_EQ(warp(S, sv, voi, D, dv, parallelRows, 3), vekStatusSingularTransform);
    EXPECT_EQ(warp(S, sv, voi, D, dv, tinyDet, 3), vekStatusBadInterpolation);
    EXPECT_EQ(warp(S, sv, VekrCuboid{0, 0, 4, 1, 1, 1}, D, dv, tinyDet, 1), vekStatusVoiOutsideSrc);
    EXPECT_EQ(warp(S, sv, VekrCuboid{0, 5, 0, 1, 1, 1}, D, dv, kIdentity, 2), vekStatusVoiOutsideSrc);
    for (int code : {1, 2, 6}) EXPECT_EQ(warp(S, sv, voi, D, dv, tinyDet, code), vekStatusSingularTransform);

    int size = 123;
    EXPECT_EQ(vekrWarpAffineGetBufSize(voi, VekrCuboid{0, 0, 0, 0, 4, 4}, 1, 3, nullptr), vekStatusNullPtr);
    EXPECT_EQ(vekrWarpAffineGetBufSize(VekrCuboid{0, 0, -1, 4, 4, 4}, voi, 3, 3, &size), vekStatusBadSize);
    EXPECT_EQ(vekrWarpAffineGetBufSize(voi, VekrCuboid{0, 0, 0, 4, 4, 0}, 3, 3, &size), vekStatusBadSize);
    EXPECT_EQ(vekrWarpAffineGetBufSize(voi, voi, 3, 3, &size), vekStatusBadNumChannels);
    EXPECT_EQ(vekrWarpAffineGetBufSize(voi, voi, 1, 3, &size), vekStatusBadInterpolation);
    EXPECT_EQ(size, 123);
    EXPECT_TRUE(dst.canaryIntact());
    for (int code : kCodes) {
        EXPECT_EQ(vekrWarpAffineGetBufSize(voi, VekrCuboid{1, 2, 3, 300, 200, 100}, 1, code, &size), vekStatusOk);
        EXPECT_EQ(size, 0);
        size = 123;
    }
    // Just above the determinant's threshold the warp runs (and writes).
    EXPECT_EQ(warp(S, sv, voi, D, dv, nearlyTiny, 1), vekStatusOk);
    EXPECT_FALSE(dst.canaryIntact());
}

// Every code against the reference (nearest: inclusive box, ties to even;
// outside points keep the old value) on the SSE kernels (offset 0) and the
// scalar ones (offsets 4 and 8, which must store the same bits), at points
// clustered around half-way values and the box edges and random points in
// and around the box. Boxes: one whose height runs past the volume (cut back
// to rows 1..8), and boxes one voxel thick along y and z (taps collapse onto
// one row and one plane) and along x (the pair read of the SSE blend is not
// possible), whose inside points are those exactly on the thin axes.
TYPED_TEST(Resample, RemapMatchesReferenceOnBothPaths) {
    using T = TypeParam;
    vt::Rng rng(11);
    Vol<T> src = vv::planarVol<T>(16, 9, 8);
    vv::fillRandom(src, rng);
    const struct {
        VekrCuboid voi;
        vv::Box box;
    } cases[] = {{{2, 1, 1, 9, 20, 5}, {{2, 1, 1}, {10, 8, 5}}},
                 {{2, 3, 4, 12, 1, 1}, {{2, 3, 4}, {13, 3, 4}}},
                 {{5, 0, 0, 1, 9, 1}, {{5, 0, 0}, {5, 8, 0}}}};
    for (const auto& c : cases)
        for (int code : kCodes) {
            auto result = [&](std::size_t offset) {
                vt::Rng r(code);
                Maps maps(16, 5, 6, offset);
                maps.fill([&](int, int, int, float* p) {
                    for (int a = 0; a < 3; ++a) {
                        const int lo = c.box.lo[a], hi = c.box.hi[a], k = r.below(5);
                        const float base = static_cast<float>(r.below(hi + 4) - 2);
                        p[a] = lo == hi ? (k ? float(lo) : lo + 0.25f)
                               : k == 0 ? base + 0.5f  // exact tie
                               : k == 1 ? (r.below(2) ? lo : hi) + (r.below(3) - 1) * 1e-4f
                               : k == 2 ? std::nextafter(base + 0.5f, r.below(2) ? 100.0f : -100.0f)
                                        : r.uniform(lo - 2.0f, hi + 2.0f);
                    }
                });
                Vol<T> dst = vv::planarVol<T>(16, 5, 6, offset);
                vv::fillRandom(dst, r);
                const Vol<T> before = dst;
                EXPECT_EQ(callRemap(src, c.voi, maps, dst, code), vekStatusOk);
                int inside = 0;
                EXPECT_TRUE(vv::Resampled(src, dst, before, code, c.box, maps, &inside)) << "offset " << offset;
                EXPECT_GT(inside, 60);
                EXPECT_LT(inside, 16 * 5 * 6 - 60);
                return dst.bytes();
            };
            EXPECT_TRUE(vt::SameAcrossOffsets(result)) << "code " << code;
        }
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
        auto point = [](int x, int y, int z, double* p) {
            p[0] = (x - 1) / 2.0, p[1] = (y + 3) / 2.0, p[2] = (z - 0.5) / 2.0;
            return true;
        };
        EXPECT_TRUE(vv::Resampled(src, dst, before, 1, vv::Box{{0, 0, 0}, {8, 8, 8}}, point));
    }
    Vol<T> src = vv::planarVol<T>(14, 12, 11);
    vv::fillRandom(src, rng);
    const VekrCuboid sv{1, 0, 2, 12, 12, 8}, dv{2, 1, 0, 15, 14, 12};
    const Affine a = rotated(0.4, 1.1, 2.0, -1.5, 0.75);
    for (int code : kCodes) {
        Vol<T> dst = vv::planarVol<T>(18, 16, 13);
        vv::fillRandom(dst, rng);
        const Vol<T> before = dst;
        ASSERT_EQ(callWarp(src, sv, dst, dv, a, code), vekStatusOk);
        int inside = 0;
        auto point = [&](int x, int y, int z, double* p) {
            a.source(x, y, z, p);
            return inBox(dv, x, y, z);
        };
        EXPECT_TRUE(vv::Resampled(src, dst, before, code, vv::Box{{1, 0, 2}, {12, 11, 9}}, point, &inside, 1e-9));
        EXPECT_GT(inside, 500) << code;
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
    const vv::Box box{{1, 1, 0}, {10, 8, 0}, 2};
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
        EXPECT_TRUE(vv::Resampled(src, dst, before, code, box, maps));
        ASSERT_EQ(callWarp(src, sv, wdst, dv, a, code), vekStatusOk) << code;
        EXPECT_TRUE(vv::Resampled(src, wdst, before, code, box, warped, nullptr, 1e-9));
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

}  // namespace
