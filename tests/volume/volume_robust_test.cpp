// Volume operations against hostile input: buffer sizes that must not wrap
// (and operations that refuse the regions behind them), special values in
// factors, shifts, matrices and maps, and resize, remap, warp and filter run
// on volumes, maps, kernels and work buffers that touch an inaccessible page,
// so that one byte read or written past either end of any array faults.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "guard_page.h"
#include "testutil.h"
#include "vekcore.h"
#include "vekr.h"
#include "volume_testutil.h"

namespace {

using vt::GuardSide;
const double kNaN = std::numeric_limits<double>::quiet_NaN(), kInf = std::numeric_limits<double>::infinity();
const int kCodes[] = {vekrInterNearest,         vekrInterLinear,         vekrInterCubic,
                      vekrInterCubicBSpline,    vekrInterCubicCatmullRom, vekrInterCubicB05C03};

// ---------------------------------------------------------------------------
// Buffer sizes
// ---------------------------------------------------------------------------

// The resize buffer size from its definition, in 128-bit-safe pieces (every
// term below 2^64 for extents below 2^31): -1 when beyond int.
long long refResizeBuf(long long w, long long h, long long d, int code, long long threads) {
    auto u16 = [](long long n) { return (n + 15) / 16 * 16; };
    auto u64 = [](long long n) { return (n + 63) / 64 * 64; };
    auto f64 = [](long long n) { return n / 64 * 64; };
    long double per;
    if (code == vekrInterNearest) {
        per = 64.0L * ((w + 15) / 16 + (h + 15) / 16 + (d + 15) / 16);
    } else {
        const long double p = 4.0L * (u16(w) + u16(h) + u16(d) + u64(w) + u64(h) + u64(d));
        if (code == vekrInterLinear)
            per = p + 256.0L * ((2 * w + 127) / 64 + (8 * (w + h) + 127) / 64) + 8.0L * h * u64(w);
        else
            per = p + 16.0L * h * u64(w) +
                  4.0L * ((f64(128 * (w + h) + 255) + f64(4 * w + 255)) + f64(4 * w + 255) + f64(4 * h + 255) +
                          f64(4 * d + 255));
    }
    const long double total = (per + 64) * threads;
    return total > INT_MAX ? -1 : static_cast<long long>(total);
}

// Each region and thread count either yields the size of the formula or is
// refused with vekStatusBadSize, *pSize untouched; never a wrapped size. The
// regions of the reported issue are here: 65536 x 65536 x 2, 46341 x 46341 x
// 1, INT_MAX on one axis, 256^3 at 2^16 threads, 16384^2 for cubic.
TEST(VolumeRobust, ResizeBufSizeNeverWraps) {
    struct Case {
        int w, h, d, threads;
    };
    const Case cases[] = {{1, 1, 1, 1},          {20, 7, 9, 3},        {65536, 65536, 2, 1}, {46341, 46341, 1, 1},
                          {INT_MAX, 1, 1, 1},    {1, INT_MAX, 1, 1},   {1, 1, INT_MAX, 1},   {256, 256, 256, 65536},
                          {256, 256, 256, 1},    {16384, 16384, 1, 1}, {8000, 8000, 1, 2},   {1 << 28, 1, 1, 1},
                          {(1 << 29) - 1, 1, 1, 1}, {64, 64, 64, INT_MAX}, {4096, 2048, 1, 1}, {100, 100, 100, 7}};
    int ok = 0, refused = 0;
    for (const Case& c : cases)
        for (int code : kCodes) {
            vv::ThreadCount t(c.threads);
            int size = -77;
            const VekStatus st = vekrResizeGetBufSize({0, 0, 0, 1, 1, 1}, {0, 0, 0, c.w, c.h, c.d}, 1, code, &size);
            const long long want = refResizeBuf(c.w, c.h, c.d, code, c.threads);
            if (want >= 0) {
                ++ok;
                EXPECT_EQ(st, vekStatusOk) << c.w << "x" << c.h << "x" << c.d << " code " << code;
                EXPECT_EQ(size, want) << c.w << "x" << c.h << "x" << c.d << " code " << code;
            } else {
                ++refused;
                EXPECT_EQ(st, vekStatusBadSize) << c.w << "x" << c.h << "x" << c.d << " code " << code;
                EXPECT_EQ(size, -77);
            }
        }
    EXPECT_GT(ok, 20);
    EXPECT_GT(refused, 20);
}

// The filter buffer: destination widths of 2^30, kernels of 2^27 voxels and
// more, thread counts up to INT_MAX.
TEST(VolumeRobust, FilterBufSizeNeverWraps) {
    struct Case {
        VekrVolume dst, ker;
        int threads;
    };
    const Case cases[] = {
        {{20, 7, 9}, {3, 3, 3}, 1},          {{20, 7, 9}, {3, 3, 3}, 3},
        {{1 << 30, 1, 1}, {1, 1, 1}, 1},     {{INT_MAX, 1, 1}, {1, 1, 1}, 1},
        {{1 << 24, 1, 1}, {1, 1, 1}, 2},     {{1 << 24, 1, 1}, {1, 1, 1}, 200},
        {{4, 4, 4}, {512, 512, 512}, 1},     {{4, 4, 4}, {1 << 27, 1, 1}, 1},
        {{4, 4, 4}, {1, 1 << 26, 1}, 1},     {{4, 4, 4}, {1, 1, 1 << 25}, 1},
        {{4, 4, 4}, {INT_MAX, INT_MAX, INT_MAX}, 1}, {{4, 4, 4}, {2, 65536, 65536}, 1},
        {{4, 4, 4}, {3, 3, 3}, INT_MAX},     {{4, 4, 4}, {3, 3, 3}, 1 << 16},
        {{1000, 4, 4}, {7, 7, 7}, 1000},
    };
    int ok = 0, refused = 0;
    for (const Case& c : cases) {
        vv::ThreadCount t(c.threads);
        const long double share = 64.0L * ((c.dst.width + 15LL) / 16) +
                                  32.0L * ((c.ker.width + 1LL) / 2) * c.ker.height * c.ker.depth + 32;
        const long double total = share * c.threads;
        int size = -77;
        const VekStatus st = vekrFilterGetBufSize(c.dst, c.ker, 1, &size);
        if (total <= INT_MAX) {
            ++ok;
            EXPECT_EQ(st, vekStatusOk);
            EXPECT_EQ(size, static_cast<long long>(total));
        } else {
            ++refused;
            EXPECT_EQ(st, vekStatusBadSize) << c.dst.width << " kernel " << c.ker.width << "x" << c.ker.height << "x"
                                            << c.ker.depth << " threads " << c.threads;
            EXPECT_EQ(size, -77);
        }
    }
    EXPECT_GT(ok, 3);
    EXPECT_GT(refused, 8);
}

// The reported resize: a 2 x 2 x 1 source region to 16384 x 16384 x 1 with
// factors 8192, 8192, 1, cubic. The query refuses the region, and so does
// every resize operation, before writing a byte of the destination or of
// the (small) buffer it is handed.
TEST(VolumeRobust, ResizeRefusesRegionWhoseBufferDoesNotFit) {
    const VekrVolume sv{2, 2, 1};
    const VekrCuboid sVoi{0, 0, 0, 2, 2, 1}, dVoi{0, 0, 0, 16384, 16384, 1};
    vv::ThreadCount t(1);
    int size = -77;
    EXPECT_EQ(vekrResizeGetBufSize(sVoi, dVoi, 1, vekrInterCubic, &size), vekStatusBadSize);
    EXPECT_EQ(size, -77);
    vt::Guarded<std::uint8_t> buf(4096), dst8(4096);
    vt::Guarded<float> src(4), dstF(1024);
    vt::fillCanary(buf.data(), buf.size());
    vt::fillCanary(dst8.data(), dst8.size());
    vt::fillCanary(dstF.data(), dstF.size());
    const std::uint8_t s8[4] = {1, 2, 3, 4};
    const std::uint16_t s16[4] = {1, 2, 3, 4};
    const std::uint8_t* s8p[1] = {s8};
    const std::uint16_t* s16p[1] = {s16};
    const float* sfp[1] = {src.data()};
    std::uint8_t* d8p[1] = {dst8.data()};
    auto* d16 = reinterpret_cast<std::uint16_t*>(dst8.data());
    std::uint16_t* d16p[1] = {d16};
    float* dfp[1] = {dstF.data()};
    const double f = 8192;
    for (int code : {vekrInterCubic, vekrInterLinear, vekrInterCubicB05C03}) {
        EXPECT_EQ(vekrResize_8u_C1V(s8, sv, 2, 4, sVoi, dst8.data(), 16384, 16384 * 16384, dVoi, f, f, 1, 0, 0, 0,
                                    code, buf.data()),
                  vekStatusBadSize);
        EXPECT_EQ(vekrResize_16u_C1V(s16, sv, 4, 8, sVoi, d16, 32768, 32768, dVoi, f, f, 1, 0, 0, 0, code,
                                     buf.data()),
                  vekStatusBadSize);
        EXPECT_EQ(vekrResize_32f_C1V(src.data(), sv, 8, 16, sVoi, dstF.data(), 65536, 65536, dVoi, f, f, 1, 0, 0, 0,
                                     code, buf.data()),
                  vekStatusBadSize);
        EXPECT_EQ(vekrResize_8u_C1PV(s8p, sv, 2, sVoi, d8p, 16384, dVoi, f, f, 1, 0, 0, 0, code, buf.data()),
                  vekStatusBadSize);
        EXPECT_EQ(vekrResize_16u_C1PV(s16p, sv, 4, sVoi, d16p, 32768, dVoi, f, f, 1, 0, 0, 0, code, buf.data()),
                  vekStatusBadSize);
        EXPECT_EQ(vekrResize_32f_C1PV(sfp, sv, 8, sVoi, dfp, 65536, dVoi, f, f, 1, 0, 0, 0, code, buf.data()),
                  vekStatusBadSize);
    }
    EXPECT_TRUE(vt::CanaryIntact(buf.data(), buf.size()));
    EXPECT_TRUE(vt::CanaryIntact(dst8.data(), dst8.size()));
    EXPECT_TRUE(vt::CanaryIntact(dstF.data(), dstF.size()));
    // The parallel resize counts its thread slices: a region that fits one
    // slice but not 2^16 of them is refused at 2^16 threads.
    vv::ThreadCount many(1 << 16);
    const VekrCuboid cube{0, 0, 0, 256, 256, 256};
    EXPECT_EQ(vekrResizeGetBufSize(sVoi, cube, 1, vekrInterCubic, &size), vekStatusBadSize);
    EXPECT_EQ(vekrResize_32f_C1V(src.data(), sv, 8, 16, sVoi, dstF.data(), 1024, 1024 * 256, cube, 128, 128, 256, 0, 0,
                                 0, vekrInterCubic, buf.data()),
              vekStatusBadSize);
    EXPECT_TRUE(vt::CanaryIntact(dstF.data(), dstF.size()));
}

// The reported filter: destination 2^30 x 1 x 1 with a 1 x 1 x 1 kernel.
TEST(VolumeRobust, FilterRefusesVolumeWhoseBufferDoesNotFit) {
    vv::ThreadCount t(1);
    int size = -77;
    const VekrVolume dv{1 << 30, 1, 1}, kv{1, 1, 1};
    EXPECT_EQ(vekrFilterGetBufSize(dv, kv, 1, &size), vekStatusBadSize);
    EXPECT_EQ(size, -77);
    vt::Guarded<std::uint8_t> buf(4096);
    vt::Guarded<std::int16_t> src(64), dst(64);
    vt::fillCanary(buf.data(), buf.size());
    vt::fillCanary(dst.data(), dst.size());
    const std::int16_t* sp[1] = {src.data()};
    std::int16_t* dp[1] = {dst.data()};
    const std::int32_t one = 1;
    EXPECT_EQ(vekrFilter_16s_C1PV(sp, 64, dp, 64, dv, &one, kv, {0, 0, 0}, 1, buf.data()), vekStatusBadSize);
    // A kernel of 2^27 taps: its packed form alone would need 2^31 bytes.
    EXPECT_EQ(vekrFilter_16s_C1PV(sp, 64, dp, 64, {4, 1, 1}, &one, {1, 1 << 27, 1}, {0, 0, 0}, 1, buf.data()),
              vekStatusBadSize);
    EXPECT_TRUE(vt::CanaryIntact(buf.data(), buf.size()));
    EXPECT_TRUE(vt::CanaryIntact(dst.data(), dst.size()));
}

// A warp destination box whose end passes INT_MAX is refused by the query and
// the operations; a box that ends exactly at INT_MAX is still accepted.
TEST(VolumeRobust, WarpRefusesBoxEndingPastIntMax) {
    const VekrCuboid small{0, 0, 0, 4, 4, 4};
    const VekrCuboid bad[] = {{INT_MAX, 0, 0, 1, 1, 1}, {0, INT_MAX - 3, 0, 4, 4, 4}, {0, 0, 2, 4, 4, INT_MAX},
                              {INT_MAX, INT_MAX, INT_MAX, INT_MAX, INT_MAX, INT_MAX}};
    int size = -77;
    for (const VekrCuboid& b : bad) {
        EXPECT_EQ(vekrWarpAffineGetBufSize(small, b, 1, vekrInterLinear, &size), vekStatusBadSize);
        // Checked before the singular-matrix test and the interpolation code.
        const double zero[3][4] = {};
        const float* sp[1] = {nullptr};
        float dummy = 5.0f;
        const float* spp[4] = {&dummy, &dummy, &dummy, &dummy};
        float* dp[1] = {&dummy};
        (void)sp;
        EXPECT_EQ(vekrWarpAffine_32f_C1PV(spp, {4, 4, 4}, 16, small, dp, 16, b, zero, 3, nullptr), vekStatusBadSize);
        EXPECT_EQ(dummy, 5.0f);
    }
    EXPECT_EQ(size, -77);
    EXPECT_EQ(vekrWarpAffineGetBufSize(small, {INT_MAX - 4, 0, 0, 4, 1, 1}, 1, vekrInterLinear, &size), vekStatusOk);
    EXPECT_EQ(size, 0);
}

// ---------------------------------------------------------------------------
// Volumes against guard pages
// ---------------------------------------------------------------------------

// A volume of w x h x d voxels with packed rows (step w elements): either one
// block (C1V) or one guarded array per plane (C1PV), each against a guard
// page on `side`, `offset` bytes past a 16-byte boundary.
template <class T>
struct GVol {
    int w, h, d;
    bool block;
    std::vector<vt::Guarded<T>> arr;
    std::vector<T*> planes;
    GVol(int w_, int h_, int d_, bool block_, std::size_t offset, GuardSide side)
        : w(w_), h(h_), d(d_), block(block_) {
        const std::size_t plane = std::size_t(w) * h;
        if (block) {
            arr.emplace_back(plane * d, offset, side);
            for (int z = 0; z < d; ++z) planes.push_back(arr[0].data() + z * plane);
        } else {
            for (int z = 0; z < d; ++z) arr.emplace_back(plane, offset, side);
            for (int z = 0; z < d; ++z) planes.push_back(arr[z].data());
        }
    }
    int step() const { return w * int(sizeof(T)); }
    int planeStep() const { return w * h * int(sizeof(T)); }
    T& at(int x, int y, int z) { return planes[z][std::size_t(y) * w + x]; }
    T* const* pv() { return planes.data(); }
    const T* const* cpv() const { return const_cast<const T* const*>(planes.data()); }
    template <class F>
    void fill(F f) {
        vv::forEachVoxel(w, h, d, [&](int x, int y, int z) { at(x, y, z) = static_cast<T>(f(x, y, z)); });
    }
    bool slackIntact() const {
        for (const auto& a : arr)
            if (!a.slackIntact()) return false;
        return true;
    }
    std::vector<std::uint8_t> bytes() const {
        std::vector<std::uint8_t> out;
        for (int z = 0; z < d; ++z) vt::appendBytes(out, planes[z], std::size_t(w) * h);
        return out;
    }
};

// Volume contents: a smooth ramp with random noise, over the element range.
template <class T>
double voxelValue(vt::Rng& rng, int x, int y, int z) {
    const double v = 7.0 * x + 13.0 * y + 29.0 * z + rng.below(40);
    return std::is_integral<T>::value ? std::fmod(v, std::is_same<T, std::uint8_t>::value ? 256.0 : 65536.0)
                                      : v * 0.37 - 50.0;
}

// The placements of the runners: aligned and 4/8/12 bytes off, guard after;
// aligned and 8 off, guard before.
struct Placement {
    std::size_t offset;
    GuardSide side;
};
const Placement kPlacements[] = {{0, GuardSide::After},  {4, GuardSide::After},  {8, GuardSide::After},
                                 {12, GuardSide::After}, {0, GuardSide::Before}, {8, GuardSide::Before}};

// Extents that the runners take along x (every one of them) and, cycled, y and z.
const int kExtents[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 15, 16, 17, 31, 32, 33};

// Resize: every element type, both layouts and every code, on source
// regions of the extents above, with the destination volume one voxel larger
// than dstVoi on every side in half the cases (the voxels outside dstVoi
// must keep their bytes) and equal to it in the others (a store past the
// region then faults). The work buffer is exactly the reported size.
template <class T>
void resizeRunner(int& calls) {
    vv::ThreadCount threads(1);
    const double factors[][3] = {{1.0, 1.0, 1.0}, {1.7, 0.6, 1.3}, {0.45, 2.2, 0.8}, {2.0, 1.0, 3.1}};
    for (int i = 0; i < 16; ++i) {
        const int w = kExtents[i], h = kExtents[(i * 5 + 3) % 16] % 10 + 1, d = 1 + i % 3;
        const double* f = factors[i % 4];
        const VekrCuboid sVoi{0, 0, 0, w, h, d};
        VekrCuboid cub{};
        ASSERT_EQ(vekrGetResizeCuboid(sVoi, &cub, f[0], f[1], f[2], 0, 0, 0, 1), vekStatusOk);
        const bool framed = i % 2 == 1;
        const int m = framed ? 1 : 0;
        const VekrCuboid dVoi{m, m, m, cub.width, cub.height, cub.depth};
        const int dw = cub.width + 2 * m, dh = cub.height + 2 * m, dd = cub.depth + 2 * m;
        for (int code : kCodes)
            for (bool block : {true, false}) {
                int size = 0;
                ASSERT_EQ(vekrResizeGetBufSize(sVoi, dVoi, 1, code, &size), vekStatusOk);
                std::vector<std::uint8_t> ref;
                for (const Placement& p : kPlacements) {
                    vt::Rng rng(std::uint64_t(i) * 977 + code);
                    GVol<T> src(w, h, d, block, p.offset, p.side), dst(dw, dh, dd, block, p.offset, p.side);
                    src.fill([&](int x, int y, int z) { return voxelValue<T>(rng, x, y, z); });
                    dst.fill([](int x, int y, int z) { return (x + 3 * y + 5 * z) % 97; });
                    const std::vector<std::uint8_t> before = dst.bytes();
                    vt::Guarded<std::uint8_t> buf(std::size_t(size), p.offset, p.side);
                    const VekrVolume sv{w, h, d};
                    VekStatus st;
                    if (block) {
                        st = vv::pick<T>(vekrResize_8u_C1V, vekrResize_16u_C1V, vekrResize_32f_C1V)(
                            src.planes[0], sv, src.step(), src.planeStep(), sVoi, dst.planes[0], dst.step(),
                            dst.planeStep(), dVoi, f[0], f[1], f[2], m, m, m, code, buf.data());
                    } else {
                        st = vv::pick<T>(vekrResize_8u_C1PV, vekrResize_16u_C1PV, vekrResize_32f_C1PV)(
                            src.cpv(), sv, src.step(), sVoi, dst.pv(), dst.step(), dVoi, f[0], f[1], f[2], m, m, m,
                            code, buf.data());
                    }
                    ASSERT_EQ(st, vekStatusOk) << "extent " << w << " code " << code;
                    ASSERT_TRUE(src.slackIntact() && dst.slackIntact() && buf.slackIntact())
                        << "extent " << w << " code " << code << " offset " << p.offset;
                    const std::vector<std::uint8_t> after = dst.bytes();
                    // Nothing outside dstVoi changes.
                    for (int z = 0; z < dd; ++z)
                        for (int y = 0; y < dh; ++y)
                            for (int x = 0; x < dw; ++x) {
                                const bool in = x >= m && x < m + cub.width && y >= m && y < m + cub.height &&
                                                z >= m && z < m + cub.depth;
                                const std::size_t at = ((std::size_t(z) * dh + y) * dw + x) * sizeof(T);
                                if (!in) {
                                    ASSERT_EQ(std::memcmp(&before[at], &after[at], sizeof(T)), 0)
                                        << "voxel " << x << "," << y << "," << z << " outside dstVoi written";
                                }
                            }
                    if (ref.empty())
                        ref = after;
                    else
                        ASSERT_TRUE(vt::SameBits(ref, after)) << "extent " << w << " code " << code;
                    ++calls;
                }
            }
    }
}

TEST(VolumeRobust, GuardPageRunnerResize) {
    int calls = 0;
    resizeRunner<std::uint8_t>(calls);
    resizeRunner<std::uint16_t>(calls);
    resizeRunner<float>(calls);
    EXPECT_EQ(calls, 3 * 16 * 6 * 2 * 6);
}

// The parallel resize and the size query at 1 to 3 threads: each thread's
// slice lies inside a buffer of exactly the reported size.
TEST(VolumeRobust, ParallelResizeStaysInsideReportedBuffer) {
    for (int threads : {1, 2, 3})
        for (int code : kCodes) {
            vv::ThreadCount t(threads);
            const VekrCuboid sVoi{0, 0, 0, 17, 16, 19}, dVoi{0, 0, 0, 33, 17, 31};
            int size = 0;
            ASSERT_EQ(vekrResizeGetBufSize(sVoi, dVoi, 1, code, &size), vekStatusOk);
            GVol<float> src(17, 16, 19, true, 0, GuardSide::After), dst(33, 17, 31, true, 0, GuardSide::After);
            vt::Rng rng(5);
            src.fill([&](int x, int y, int z) { return voxelValue<float>(rng, x, y, z); });
            for (GuardSide side : {GuardSide::After, GuardSide::Before}) {
                vt::Guarded<std::uint8_t> buf(std::size_t(size), 0, side);
                ASSERT_EQ(vekrResize_32f_C1V(src.planes[0], {17, 16, 19}, src.step(), src.planeStep(), sVoi,
                                             dst.planes[0], dst.step(), dst.planeStep(), dVoi, 33.0 / 17, 17.0 / 16,
                                             31.0 / 19, 0, 0, 0, code, buf.data()),
                          vekStatusOk);
                EXPECT_TRUE(buf.slackIntact() && dst.slackIntact());
            }
        }
}

// A thread count far beyond what the machine can start (2^16): the parallel
// operations still run (on a team the runtime can form) and give the bits of
// the one-thread call, inside a buffer of the size reported for that count.
TEST(VolumeRobust, HugeThreadCountRunsAndMatchesOneThread) {
    const int n = 17;
    GVol<float> src(n, n, n, true, 0, GuardSide::After);
    vt::Rng rng(3);
    src.fill([&](int x, int y, int z) { return voxelValue<float>(rng, x, y, z); });
    GVol<float> mx(n, n, n, false, 0, GuardSide::After), my(n, n, n, false, 0, GuardSide::After),
        mz(n, n, n, false, 0, GuardSide::After);
    mx.fill([&](int x, int, int) { return x * 0.9f + 0.3f; });
    my.fill([&](int, int y, int) { return y * 1.1f - 0.5f; });
    mz.fill([&](int, int, int z) { return z * 0.7f + 1.2f; });
    GVol<std::int16_t> fsrc(n + 2, n + 2, n + 2, false, 0, GuardSide::After);
    fsrc.fill([&](int x, int y, int z) { return (x * 37 + y * 11 + z * 5) % 2000 - 1000; });
    std::vector<const std::int16_t*> fplanes(n + 2);
    for (int z = 0; z < n + 2; ++z) fplanes[z] = fsrc.planes[z] + (n + 2) + 1;
    const std::vector<std::int32_t> kernel(27, 3);
    const VekrCuboid voi{0, 0, 0, n, n, n};
    const double c[3][4] = {{0.9, 0.1, 0, 0.5}, {0, 1.1, 0.05, -0.5}, {0.02, 0, 0.95, 0.25}};
    auto runAll = [&](int threads) {
        vv::ThreadCount t(threads);
        std::vector<std::uint8_t> out;
        GVol<float> dst(n, n, n, true, 0, GuardSide::After);
        int size = 0;
        EXPECT_EQ(vekrResizeGetBufSize(voi, voi, 1, vekrInterNearest, &size), vekStatusOk);
        std::vector<std::uint8_t> buf(static_cast<std::size_t>(size) + 16);
        EXPECT_EQ(vekrResize_32f_C1V(src.planes[0], {n, n, n}, src.step(), src.planeStep(), voi, dst.planes[0],
                                     dst.step(), dst.planeStep(), voi, 1.0, 1.0, 1.0, 0, 0, 0, vekrInterNearest,
                                     buf.data()),
                  vekStatusOk);
        auto b = dst.bytes();
        out.insert(out.end(), b.begin(), b.end());
        EXPECT_EQ(vekrRemap_32f_C1PV(src.cpv(), {n, n, n}, src.step(), voi, mx.cpv(), my.cpv(), mz.cpv(), mx.step(),
                                     dst.pv(), dst.step(), {n, n, n}, vekrInterLinear),
                  vekStatusOk);
        b = dst.bytes();
        out.insert(out.end(), b.begin(), b.end());
        EXPECT_EQ(vekrWarpAffine_32f_C1PV(src.cpv(), {n, n, n}, src.step(), voi, dst.pv(), dst.step(), voi, c,
                                          vekrInterCubic, nullptr),
                  vekStatusOk);
        b = dst.bytes();
        out.insert(out.end(), b.begin(), b.end());
        GVol<std::int16_t> fdst(n, n, n, false, 0, GuardSide::After);
        EXPECT_EQ(vekrFilterGetBufSize({n, n, n}, {3, 3, 3}, 1, &size), vekStatusOk);
        std::vector<std::uint8_t> fbuf(static_cast<std::size_t>(size));
        EXPECT_EQ(vekrFilter_16s_C1PV(fplanes.data() + 1, fsrc.step(), fdst.pv(), fdst.step(), {n, n, n},
                                      kernel.data(), {3, 3, 3}, {1, 1, 1}, 5, fbuf.data()),
                  vekStatusOk);
        b = fdst.bytes();
        out.insert(out.end(), b.begin(), b.end());
        return out;
    };
    const std::vector<std::uint8_t> one = runAll(1);
    EXPECT_TRUE(vt::SameBits(one, runAll(3)));
    EXPECT_TRUE(vt::SameBits(one, runAll(1 << 16)));
}

// Remap and warp: every element type and code, sources of the extents above
// against guard pages, maps with coordinates inside, outside and on the
// source box and special values (NaN, +-inf, +-1e30, denormals), warps by
// near-identity maps and by maps with special coefficients. Results at all
// placements are the aligned call's bits; a warp leaves every voxel outside
// dstVoi as it was.
template <class T>
void remapWarpRunner(int& calls) {
    vv::ThreadCount threads(1);
    const float specials[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                              -std::numeric_limits<float>::infinity(), 1e30f, -1e30f, 1e-40f, -0.0f, 2.5e9f};
    for (int i = 0; i < 16; ++i) {
        const int w = kExtents[i], h = kExtents[(i * 7 + 5) % 16] % 9 + 1, d = 1 + (i * 3) % 4;
        const int dw = kExtents[(i + 9) % 16], dh = 1 + i % 5, dd = 1 + (i + 1) % 3;
        const VekrVolume sv{w, h, d};
        const VekrCuboid sVoi{i % 2, 0, i % 3 == 0 ? 0 : d / 2, w, h, d};  // runs past the volume: cut back
        for (int code : kCodes) {
            std::vector<std::uint8_t> refRemap, refWarp;
            for (const Placement& p : kPlacements) {
                vt::Rng rng(std::uint64_t(i) * 31 + code);
                GVol<T> src(w, h, d, false, p.offset, p.side), dst(dw, dh, dd, false, p.offset, p.side);
                GVol<float> mx(dw, dh, dd, false, p.offset, p.side), my(dw, dh, dd, false, p.offset, p.side),
                    mz(dw, dh, dd, false, p.offset, p.side);
                src.fill([&](int x, int y, int z) { return voxelValue<T>(rng, x, y, z); });
                auto coord = [&](int n) {
                    return rng.below(10) == 0 ? specials[rng.below(8)] : rng.uniform(-1.5f, float(n) + 0.5f);
                };
                mx.fill([&](int, int, int) { return coord(w); });
                my.fill([&](int, int, int) { return coord(h); });
                mz.fill([&](int, int, int) { return coord(d); });
                dst.fill([](int x, int y, int z) { return (x + y + z) % 7; });
                const VekStatus st = vv::pick<T>(vekrRemap_8u_C1PV, vekrRemap_16u_C1PV, vekrRemap_32f_C1PV)(
                    src.cpv(), sv, src.step(), sVoi, mx.cpv(), my.cpv(), mz.cpv(), mx.step(), dst.pv(), dst.step(),
                    {dw, dh, dd}, code);
                ASSERT_EQ(st, vekStatusOk);
                ASSERT_TRUE(src.slackIntact() && dst.slackIntact() && mx.slackIntact() && my.slackIntact() &&
                            mz.slackIntact())
                    << "remap extent " << w << " code " << code << " offset " << p.offset;
                if (refRemap.empty())
                    refRemap = dst.bytes();
                else
                    ASSERT_TRUE(vt::SameBits(refRemap, dst.bytes())) << "remap extent " << w << " code " << code;

                // Warp into the interior of a destination one voxel larger.
                GVol<T> wdst(dw + 2, dh + 2, dd + 2, false, p.offset, p.side);
                wdst.fill([](int x, int y, int z) { return (x + y + z) % 7; });
                const std::vector<std::uint8_t> before = wdst.bytes();
                const VekrCuboid dVoi{1, 1, 1, dw, dh, dd};
                double c[3][4] = {{1.1, 0.05, 0.0, -0.7}, {-0.03, 0.9, 0.02, 0.4}, {0.0, 0.01, 1.2, -0.2}};
                if (i % 4 == 3) c[i % 3][(i / 4) % 4] = double(specials[(i + code) % 8]);  // special coefficient
                const VekStatus ws = vv::pick<T>(vekrWarpAffine_8u_C1PV, vekrWarpAffine_16u_C1PV,
                                                 vekrWarpAffine_32f_C1PV)(src.cpv(), sv, src.step(), sVoi, wdst.pv(),
                                                                          wdst.step(), dVoi, c, code, nullptr);
                ASSERT_TRUE(ws == vekStatusOk || ws == vekStatusSingularTransform) << ws;
                ASSERT_TRUE(src.slackIntact() && wdst.slackIntact());
                const std::vector<std::uint8_t> after = wdst.bytes();
                vv::forEachVoxel(dw + 2, dh + 2, dd + 2, [&](int x, int y, int z) {
                    const bool in = x >= 1 && x <= dw && y >= 1 && y <= dh && z >= 1 && z <= dd;
                    const std::size_t at = ((std::size_t(z) * (dh + 2) + y) * (dw + 2) + x) * sizeof(T);
                    if (!in) {
                        EXPECT_EQ(std::memcmp(&before[at], &after[at], sizeof(T)), 0) << x << "," << y << "," << z;
                    }
                });
                if (refWarp.empty())
                    refWarp = after;
                else
                    ASSERT_TRUE(vt::SameBits(refWarp, after)) << "warp extent " << w << " code " << code;
                calls += 2;
            }
        }
    }
}

TEST(VolumeRobust, GuardPageRunnerRemapAndWarp) {
    int calls = 0;
    remapWarpRunner<std::uint8_t>(calls);
    remapWarpRunner<std::uint16_t>(calls);
    remapWarpRunner<float>(calls);
    EXPECT_EQ(calls, 3 * 16 * 6 * 6 * 2);
}

// Remap and warp read only inside the source region: every source voxel
// outside it holds NaN, and no result may be NaN, whatever the maps or the
// matrix ask for (points outside the region are not sampled, and the taps of
// those inside are clamped to it).
TEST(VolumeRobust, RemapAndWarpReadOnlyInsideTheSourceRegion) {
    vv::ThreadCount threads(1);
    const int w = 9, h = 7, d = 6;
    const VekrCuboid sVoi{2, 1, 1, 5, 4, 3};
    GVol<float> src(w, h, d, false, 0, GuardSide::After);
    src.fill([&](int x, int y, int z) {
        const bool in = x >= 2 && x < 7 && y >= 1 && y < 5 && z >= 1 && z < 4;
        return in ? float(x + 10 * y + 100 * z) : std::numeric_limits<float>::quiet_NaN();
    });
    vt::Rng rng(11);
    for (int code : kCodes) {
        GVol<float> mx(8, 8, 5, false, 0, GuardSide::After), my(8, 8, 5, false, 0, GuardSide::After),
            mz(8, 8, 5, false, 0, GuardSide::After), dst(8, 8, 5, false, 0, GuardSide::After);
        mx.fill([&](int, int, int) { return rng.uniform(-1.0f, 10.0f); });
        my.fill([&](int, int, int) { return rng.uniform(-1.0f, 8.0f); });
        mz.fill([&](int, int, int) { return rng.uniform(-1.0f, 7.0f); });
        dst.fill([](int, int, int) { return 0.0f; });
        ASSERT_EQ(vekrRemap_32f_C1PV(src.cpv(), {w, h, d}, src.step(), sVoi, mx.cpv(), my.cpv(), mz.cpv(), mx.step(),
                                     dst.pv(), dst.step(), {8, 8, 5}, code),
                  vekStatusOk);
        vv::forEachVoxel(8, 8, 5, [&](int x, int y, int z) { EXPECT_FALSE(std::isnan(dst.at(x, y, z))) << code; });
        const double c[3][4] = {{0.8, 0.1, 0.0, -1.0}, {0.0, 0.9, 0.1, -0.5}, {0.05, 0.0, 1.1, -0.3}};
        dst.fill([](int, int, int) { return 0.0f; });
        ASSERT_EQ(vekrWarpAffine_32f_C1PV(src.cpv(), {w, h, d}, src.step(), sVoi, dst.pv(), dst.step(),
                                          {0, 0, 0, 8, 8, 5}, c, code, nullptr),
                  vekStatusOk);
        vv::forEachVoxel(8, 8, 5, [&](int x, int y, int z) { EXPECT_FALSE(std::isnan(dst.at(x, y, z))) << code; });
    }
}

// Filter: destination widths of the extents above, kernels 1 to 4 wide with
// anchors inside and outside the kernel; each source plane holds exactly the
// neighbourhood the filter reads (anchor - (size - 1) .. anchor around each
// destination voxel) against a guard page, and the work buffer is exactly
// the reported size. Kernels with a coefficient beyond 16 bits take the wide
// path.
TEST(VolumeRobust, GuardPageRunnerFilter) {
    struct K {
        VekrVolume size;
        VekrPoint3D anchor;
        bool wide;
    };
    const K kernels[] = {{{1, 1, 1}, {0, 0, 0}, false}, {{3, 3, 3}, {1, 1, 1}, false}, {{4, 2, 3}, {3, 0, 2}, true},
                         {{2, 3, 1}, {-1, 4, 0}, false}, {{3, 1, 2}, {5, -2, 1}, true}};
    int calls = 0;
    for (int threads : {1, 3})
        for (int i = 0; i < 16; ++i)
            for (const K& k : kernels) {
                vv::ThreadCount t(threads);
                const int w = kExtents[i], h = threads == 3 ? 16 + i % 3 : 1 + i % 4,
                          d = threads == 3 ? 16 : 1 + (i + 1) % 3;
                if (threads == 3 && w < 16) continue;
                int size = 0;
                ASSERT_EQ(vekrFilterGetBufSize({w, h, d}, k.size, 1, &size), vekStatusOk);
                // Source voxels read per axis: from anchor - (size - 1) to extent - 1 + anchor.
                const int lo[3] = {k.anchor.x - (k.size.width - 1), k.anchor.y - (k.size.height - 1),
                                   k.anchor.z - (k.size.depth - 1)};
                const int ext[3] = {w + k.size.width - 1, h + k.size.height - 1, d + k.size.depth - 1};
                vt::Rng rng(std::uint64_t(i) * 17 + k.size.width);
                std::vector<std::int32_t> coef(std::size_t(k.size.width) * k.size.height * k.size.depth);
                for (auto& c : coef) c = rng.below(200) - 100;
                if (k.wide) coef[coef.size() / 2] = 40000;
                std::vector<std::uint8_t> ref;
                for (const Placement& p : kPlacements) {
                    GVol<std::int16_t> src(ext[0], ext[1], ext[2], false, p.offset, p.side);
                    GVol<std::int16_t> dst(w, h, d, false, p.offset, p.side);
                    vt::Rng vr(std::uint64_t(i) * 5 + 1);
                    src.fill([&](int, int, int) { return vr.below(2001) - 1000; });
                    dst.fill([](int, int, int) { return 77; });
                    // Plane and row pointers shifted so that source voxel (lo + j) of each axis is the
                    // stored voxel j.
                    std::vector<const std::int16_t*> planes(ext[2]);
                    for (int z = 0; z < ext[2]; ++z) planes[z] = src.planes[z] - lo[1] * ext[0] - lo[0];
                    vt::Guarded<std::int32_t> kern(coef, p.offset, p.side);
                    vt::Guarded<std::uint8_t> buf(std::size_t(size), p.offset, p.side);
                    const VekStatus st = vekrFilter_16s_C1PV(planes.data() - lo[2], src.step(), dst.pv(), dst.step(),
                                                             {w, h, d}, kern.data(), k.size, k.anchor, 3, buf.data());
                    ASSERT_EQ(st, vekStatusOk);
                    ASSERT_TRUE(src.slackIntact() && dst.slackIntact() && kern.slackIntact() && buf.slackIntact())
                        << "width " << w << " kernel " << k.size.width << " offset " << p.offset;
                    if (ref.empty())
                        ref = dst.bytes();
                    else
                        ASSERT_TRUE(vt::SameBits(ref, dst.bytes())) << "width " << w << " kernel " << k.size.width;
                    ++calls;
                }
            }
    EXPECT_GT(calls, 500);
}

// ---------------------------------------------------------------------------
// Bad values
// ---------------------------------------------------------------------------

// Factors and shifts: NaN, zero, negative and -inf factors are refused with
// vekStatusBadResizeFactor before anything is written; +inf, 1e30,
// denormal and tiny factors and special shifts give a region (or
// vekStatusNoOperation) without a fault, a conversion of an out-of-range
// double, or a write outside dstVoi, and the cuboid query agrees on whether
// anything is written.
TEST(VolumeRobust, ResizeFactorsAndShiftsOfAnyValue) {
    vv::ThreadCount threads(1);
    const VekrVolume sv{6, 5, 4};
    const VekrCuboid sVoi{0, 0, 0, 6, 5, 4}, dVoi{1, 1, 1, 8, 8, 8};
    GVol<float> src(6, 5, 4, true, 0, GuardSide::After);
    src.fill([](int x, int y, int z) { return float(x + y * z); });
    for (double bad : {kNaN, 0.0, -0.0, -1.0, -kInf, -1e30}) {
        GVol<float> dst(10, 10, 10, true, 0, GuardSide::After);
        vt::fillCanary(dst.planes[0], 1000);
        vt::Guarded<std::uint8_t> buf(1 << 16);
        for (int axis = 0; axis < 3; ++axis) {
            double f[3] = {1.5, 1.5, 1.5};
            f[axis] = bad;
            EXPECT_EQ(vekrResize_32f_C1V(src.planes[0], sv, src.step(), src.planeStep(), sVoi, dst.planes[0],
                                         dst.step(), dst.planeStep(), dVoi, f[0], f[1], f[2], 0, 0, 0,
                                         vekrInterLinear, buf.data()),
                      vekStatusBadResizeFactor);
            VekrCuboid out{-9, -9, -9, -9, -9, -9};
            EXPECT_EQ(vekrGetResizeCuboid(sVoi, &out, f[0], f[1], f[2], 0, 0, 0, 1), vekStatusBadResizeFactor);
            EXPECT_EQ(out.x, -9);
        }
        EXPECT_TRUE(vt::CanaryIntact(dst.planes[0], 1000));
    }
    const double odd[] = {kInf, 1e30, 1e300, 4.9e-324, 1e-310, 1e-30, 0.001, 7.5};
    const double shifts[] = {0.0, kNaN, kInf, -kInf, 1e30, -1e30, 3.5, -2.25};
    int written = 0;
    for (double f : odd)
        for (double s : shifts)
            for (int code : kCodes) {
                int size = 0;
                ASSERT_EQ(vekrResizeGetBufSize(sVoi, dVoi, 1, code, &size), vekStatusOk);
                vt::Guarded<std::uint8_t> buf{static_cast<std::size_t>(size)};
                GVol<float> dst(10, 10, 10, true, 0, GuardSide::After);
                dst.fill([](int, int, int) { return -5.0f; });
                const VekStatus st =
                    vekrResize_32f_C1V(src.planes[0], sv, src.step(), src.planeStep(), sVoi, dst.planes[0],
                                       dst.step(), dst.planeStep(), dVoi, f, 1.0 / f > 0 ? f : 1.0, 2.0, s, -s, s,
                                       code, buf.data());
                ASSERT_TRUE(st == vekStatusOk || st == vekStatusNoOperation) << f << " " << s << " " << st;
                ASSERT_TRUE(buf.slackIntact() && dst.slackIntact());
                vv::forEachVoxel(10, 10, 10, [&](int x, int y, int z) {
                    const bool in = x >= 1 && x < 9 && y >= 1 && y < 9 && z >= 1 && z < 9;
                    if (!in) {
                        ASSERT_EQ(dst.at(x, y, z), -5.0f) << f << " " << s;
                    } else if (dst.at(x, y, z) != -5.0f) {
                        ++written;
                    }
                });
                if (st == vekStatusNoOperation) {
                    vv::forEachVoxel(10, 10, 10, [&](int x, int y, int z) { ASSERT_EQ(dst.at(x, y, z), -5.0f); });
                }
                // The cuboid query: a region it can describe, nothing, or a
                // refusal of a region beyond the int range.
                VekrCuboid cub{-9, -9, -9, -9, -9, -9};
                const VekStatus cs = vekrGetResizeCuboid(sVoi, &cub, f, 1.0 / f > 0 ? f : 1.0, 2.0, s, -s, s, code);
                EXPECT_TRUE(cs == vekStatusOk || cs == vekStatusNoOperation || cs == vekStatusBadSize) << cs;
                if (cs == vekStatusOk)
                    EXPECT_TRUE(cub.x >= 0 && cub.y >= 0 && cub.z >= 0 && cub.width > 0 && cub.height > 0 &&
                                cub.depth > 0);
                else
                    EXPECT_EQ(cub.x, -9);
            }
    EXPECT_GT(written, 0);
}

// Warp matrices with NaN, infinite, huge and denormal coefficients: the
// status is success or vekStatusSingularTransform, nothing outside dstVoi
// changes, and a matrix whose inverse is all NaN writes nothing at all.
TEST(VolumeRobust, WarpMatricesOfAnyValue) {
    vv::ThreadCount threads(1);
    GVol<std::uint8_t> src(7, 6, 5, false, 0, GuardSide::After);
    src.fill([](int x, int y, int z) { return x * 30 + y * 5 + z; });
    const double vals[] = {kNaN, kInf, -kInf, 1e30, -1e30, 1e300, 4.9e-324, 1e-200, 0.0};
    for (double v : vals)
        for (int r = 0; r < 3; ++r)
            for (int k = 0; k < 4; ++k)
                for (int code : {vekrInterNearest, vekrInterLinear, vekrInterCubicCatmullRom}) {
                    double c[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
                    c[r][k] = v;
                    GVol<std::uint8_t> dst(9, 8, 7, false, 0, GuardSide::After);
                    dst.fill([](int, int, int) { return 201; });
                    const VekStatus st = vekrWarpAffine_8u_C1PV(src.cpv(), {7, 6, 5}, src.step(), {0, 0, 0, 7, 6, 5},
                                                                dst.pv(), dst.step(), {1, 1, 1, 7, 6, 5}, c, code,
                                                                nullptr);
                    ASSERT_TRUE(st == vekStatusOk || st == vekStatusSingularTransform) << v << " " << st;
                    ASSERT_TRUE(dst.slackIntact() && src.slackIntact());
                    vv::forEachVoxel(9, 8, 7, [&](int x, int y, int z) {
                        const bool in = x >= 1 && x < 8 && y >= 1 && y < 7 && z >= 1 && z < 6;
                        if (!in || std::isnan(v) || st != vekStatusOk) {
                            ASSERT_EQ(dst.at(x, y, z), 201) << v;
                        }
                    });
                }
}

// Filter arguments at their extremes: divisor 0 is vekStatusBadSize, INT_MIN
// and -1 are valid; coefficients of INT_MIN and INT_MAX take the wide path;
// the results stay saturated 16-bit values and the buffer holds.
TEST(VolumeRobust, FilterExtremeDivisorsAndCoefficients) {
    vv::ThreadCount threads(1);
    GVol<std::int16_t> src(9, 3, 3, false, 0, GuardSide::After), dst(7, 1, 1, false, 0, GuardSide::After);
    src.fill([](int x, int y, int z) { return (x * 4099 + y * 77 + z) % 65536 - 32768; });
    std::vector<const std::int16_t*> planes = {src.planes[0] + 9 + 1, src.planes[1] + 9 + 1, src.planes[2] + 9 + 1};
    const VekrVolume kv{3, 3, 3};
    int size = 0;
    ASSERT_EQ(vekrFilterGetBufSize({7, 1, 1}, kv, 1, &size), vekStatusOk);
    vt::Guarded<std::uint8_t> buf{static_cast<std::size_t>(size)};
    for (std::int32_t big : {INT_MIN, INT_MAX, 32767, -32768, 0})
        for (int divisor : {0, 1, -1, INT_MIN, INT_MAX}) {
            std::vector<std::int32_t> coef(27, big);
            coef[13] = 1;
            dst.fill([](int, int, int) { return 1234; });
            const VekStatus st = vekrFilter_16s_C1PV(planes.data() + 1, src.step(), dst.pv(), dst.step(), {7, 1, 1},
                                                     coef.data(), kv, {1, 1, 1}, divisor, buf.data());
            ASSERT_EQ(st, divisor == 0 ? vekStatusBadSize : vekStatusOk);
            if (divisor == 0) {
                for (int x = 0; x < 7; ++x) ASSERT_EQ(dst.at(x, 0, 0), 1234);
            }
            ASSERT_TRUE(buf.slackIntact() && dst.slackIntact() && src.slackIntact());
        }
}

}  // namespace
