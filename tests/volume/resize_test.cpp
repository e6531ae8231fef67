// Volume resize and its companions: the destination cuboid and work-buffer
// queries, the shared interpolation rules (cubic weights, conversion of float
// results to 8u and 16u, scalar and four-lane forms), argument checks, every
// interpolation against an independent double-precision reference, and
// results that must not depend on how the work is done: the vector and scalar
// paths, the two volume layouts and the thread count.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "volume/interp_weights.h"
#include "volume/resize_geometry.h"
#include "volume_testutil.h"

namespace {

using vv::Vol;
using D3 = double[3];

constexpr VekrCuboid kCube10{0, 0, 0, 10, 10, 10};

// ---------------------------------------------------------------------------
// Queries and the shared interpolation rules
// ---------------------------------------------------------------------------

// Each call gives the status and cuboid written beside it; a failing or empty
// call leaves the output as it was (7s).
TEST(ResizeCuboid, RoundsHalfWayBoundariesOutwardAndChecksInOrder) {
    const VekrCuboid kept{7, 7, 7, 7, 7, 7};
    auto expect = [&](VekStatus want, VekrCuboid src, const D3& f, const D3& sh, int code, VekrCuboid out) {
        VekrCuboid c = kept;
        EXPECT_EQ(want, vekrGetResizeCuboid(src, &c, f[0], f[1], f[2], sh[0], sh[1], sh[2], code)) << code;
        EXPECT_EQ(0, std::memcmp(&c, want == vekStatusOk ? &out : &kept, sizeof c))
            << c.x << " " << c.y << " " << c.z << " " << c.width << " " << c.height << " " << c.depth;
    };
    for (int code : {1, 2, 4, 5, 6, 7}) expect(vekStatusOk, kCube10, {2, 2, 2}, {0, 0, 0}, code, {0, 0, 0, 20, 20, 20});
    // x [1, 3) * 1.5 = [1.5, 4.5): the start rounds down to 1 and the end up to
    // 5, so both half-way voxels belong to the region. y [2, 5) with shift 0.25:
    // [2.25, 5.25) -> [2, 5). z [0, 7) * 0.5 - 1 = [-1, 2.5): the start clamps
    // at 0 and the end rounds up to 3.
    expect(vekStatusOk, {1, 2, 0, 2, 3, 7}, {1.5, 1, 0.5}, {0, 0.25, -1}, 6, {1, 2, 0, 4, 3, 3});
    // Less than half a voxel on one axis: [0.3, 0.6) -> [0, 1) is not empty,
    // [0.1, 0.4) -> [0, 0) is; a region pushed below 0 clamps to [0, 0).
    expect(vekStatusOk, {0, 0, 0, 1, 10, 10}, {0.3, 1, 1}, {0.3, 0, 0}, 1, {0, 0, 0, 1, 10, 10});
    expect(vekStatusNoOperation, {0, 0, 0, 1, 10, 10}, {0.3, 1, 1}, {0.1, 0, 0}, 1, kept);
    expect(vekStatusNoOperation, kCube10, {1, 1, 1}, {-30, 0, 0}, 2, kept);
    // Sizes before factors, factors (zero or negative on any axis) before the code.
    for (const VekrCuboid& b : vv::kBadCuboids) expect(vekStatusBadSize, b, {0, 0, 0}, {0, 0, 0}, 3, kept);
    expect(vekStatusBadResizeFactor, kCube10, {0, 1, 1}, {0, 0, 0}, 3, kept);
    expect(vekStatusBadResizeFactor, kCube10, {1, -1, 1}, {0, 0, 0}, 3, kept);
    expect(vekStatusBadResizeFactor, kCube10, {1, 1, -0.5}, {0, 0, 0}, 1, kept);
    for (int code : {3, 0, 8, -1}) expect(vekStatusBadInterpolation, kCube10, {2, 2, 2}, {0, 0, 0}, code, kept);
    EXPECT_EQ(vekStatusNullPtr, vekrGetResizeCuboid({0, 0, 0, 0, 1, 1}, nullptr, 2, 2, 2, 0, 0, 0, 1));
}

TEST(ResizeBufSize, MatchesHandComputedSizesScalesWithThreadsAndChecksInOrder) {
    vv::ThreadCount keep;
    // Destination 10 x 10 x 10 (rounded: U16 = 16, U64 = 64, per axis).
    //  nearest: 64 * (1 + 1 + 1) = 192.
    //  linear:  P = 4 * 3 * (16 + 64) = 960; 256 * ((20 + 127) / 64 + (160 + 127) / 64) = 256 * 6 = 1536;
    //           8 * 10 * 64 = 5120; total 7616.
    //  cubic:   960 + 16 * 10 * 64 = 11200; 4 * (F64(2815) + 4 * F64(295)) = 4 * (2752 + 4 * 256) = 15104;
    //           total 26304.
    // Each plus 64, times the thread count.
    const struct {
        int code, perThread;
    } cases[] = {{1, 192}, {2, 7616}, {4, 26304}, {5, 26304}, {6, 26304}, {7, 26304}};
    int size = -1;
    for (int threads : {1, 2, 3}) {
        ASSERT_EQ(vekStatusOk, vekSetNumThreads(threads));
        for (const auto& c : cases) {
            ASSERT_EQ(vekStatusOk, vekrResizeGetBufSize({3, 4, 5, 1, 1, 1}, kCube10, 1, c.code, &size));
            EXPECT_EQ((c.perThread + 64) * threads, size) << "code " << c.code;
        }
    }
    // Only the destination extent matters: W = 100, H = 1, D = 33 linear:
    // P = 4 * (112 + 16 + 48 + 128 + 64 + 64) = 1728;
    // 256 * ((200 + 127) / 64 + (808 + 127) / 64) = 256 * (5 + 14) = 4864; 8 * 1 * 128 = 1024.
    ASSERT_EQ(vekStatusOk, vekSetNumThreads(1));
    ASSERT_EQ(vekStatusOk, vekrResizeGetBufSize(kCube10, VekrCuboid{9, 9, 9, 100, 1, 33}, 1, 2, &size));
    EXPECT_EQ(1728 + 4864 + 1024 + 64, size);

    // The pointer, then either cuboid, then the channel count, then the code.
    size = 12345;
    EXPECT_EQ(vekStatusNullPtr, vekrResizeGetBufSize(VekrCuboid{-1, 0, 0, 0, 0, 0}, kCube10, 3, 3, nullptr));
    for (const VekrCuboid& b : vv::kBadCuboids) {
        EXPECT_EQ(vekStatusBadSize, vekrResizeGetBufSize(b, kCube10, 3, 3, &size));
        EXPECT_EQ(vekStatusBadSize, vekrResizeGetBufSize(kCube10, b, 3, 3, &size));
    }
    EXPECT_EQ(vekStatusBadNumChannels, vekrResizeGetBufSize(kCube10, kCube10, 3, 3, &size));
    EXPECT_EQ(vekStatusBadNumChannels, vekrResizeGetBufSize(kCube10, kCube10, 0, 1, &size));
    EXPECT_EQ(vekStatusBadInterpolation, vekrResizeGetBufSize(kCube10, kCube10, 1, 3, &size));
    EXPECT_EQ(12345, size);
}

// What each kernel carves from its slice must fit the per-thread size the
// query promises, for every interpolation and for thin, flat and odd regions
// (the slices' extra 64 bytes only cover the alignment of their start).
TEST(ResizeBufSize, KernelWorkAreaFitsThePerThreadSize) {
    const int extents[] = {1, 2, 3, 4, 5, 15, 16, 17, 31, 63, 64, 65, 127, 200, 257, 1000, 4099};
    for (int code : {1, 2, 4})
        for (int w : extents)
            for (int h : extents)
                for (int d : extents)
                    ASSERT_LE(vekr::ownResizeWorkBytes(w, h, d, code), vekr::ownResizeBufPerThread(w, h, d, 1, code))
                        << "code " << code << " region " << w << "x" << h << "x" << d;
}

// The four weights equal the independently written reference kernel rounded
// once to float (within half a float ulp, plus the cancellation error of
// either double evaluation near a zero) and sum to 1.
TEST(InterpWeights, CubicWeightsMatchReferenceAndSumToOne) {
    for (int code : {4, 5, 6, 7})
        for (int i = 0; i < 64; ++i) {
            const double t = i / 64.0;
            float w[4];
            vekr::ownCubicWeights(vekr::ownCubicKernel(code), t, w);
            for (int j = 0; j < 4; ++j) {
                const double ref = vv::refKernel(code, t + 1 - j);
                EXPECT_NEAR(ref, w[j], std::fabs(ref) * 0x1p-24 + 1e-14) << "code " << code << " t " << t;
            }
            EXPECT_NEAR(1.0, double(w[0]) + w[1] + w[2] + w[3], 4e-7) << "code " << code << " t " << t;
        }
}

// trunc(sum + 0.5000001) clamped to the range, scalar and vector alike.
// 0.4999999 + 0.5000001 reaches 1 (in float too); 0.4999998 does not.
TEST(InterpWeights, IntegerConversionRoundsHalfUpAndClamps) {
    const float sums[] = {0.0f,  0.4999999f, 0.4999998f, 0.5f,     1.5f, 254.49f,  254.5f,    255.4f, 300.f, -0.4f,
                          -0.6f, -1e9f,      65534.5f,   65535.2f, 1e9f, INFINITY, -INFINITY, NAN,    -0.0f, 1e-40f};
    const int want8[] = {0, 1, 0, 1, 2, 254, 255, 255, 255, 0, 0, 0, 255, 255, 255, 255, 0, 0, 0, 0};
    const int want16[] = {0, 1, 0, 1, 2, 254, 255, 255, 300, 0, 0, 0, 65535, 65535, 65535, 65535, 0, 0, 0, 0};
    for (int i = 0; i < 20; i += 4) {
        std::uint8_t b[4];
        std::uint16_t h[4];
        vekr::ownStoreInterp4(b, _mm_loadu_ps(sums + i));
        vekr::ownStoreInterp4(h, _mm_loadu_ps(sums + i));
        for (int j = i; j < i + 4; ++j) {
            EXPECT_EQ(want8[j], vekr::ownStoreInterp<std::uint8_t>(sums[j])) << sums[j];
            EXPECT_EQ(want16[j], vekr::ownStoreInterp<std::uint16_t>(sums[j])) << sums[j];
            EXPECT_EQ(want8[j], b[j - i]) << sums[j];
            EXPECT_EQ(want16[j], h[j - i]) << sums[j];
        }
    }
}

// The vector conversions leave one end of the clamp to the saturating packs
// (ownRoundClampForPack). Against the scalar rule on float bit patterns of
// every sign, exponent and leading mantissa bits, each with low mantissa
// bits at and around both ends, and on every pattern within 4096 steps of
// the values where a clamp or the conversion's range changes its answer;
// both the four-lane stores and the sixteen- and eight-voxel packs.
TEST(InterpWeights, PackedConversionsMatchTheScalarRuleOnEveryKindOfFloat) {
    std::vector<std::uint32_t> patterns;
    for (std::uint32_t hi = 0; hi < (1u << 20); ++hi)
        for (std::uint32_t lo : {0x000u, 0x001u, 0x7ffu, 0x800u, 0xffeu, 0xfffu}) patterns.push_back(hi << 12 | lo);
    const float edges[] = {0.0f, -0.5000001f, -1.5000001f, 254.5f, 255.0f, 255.5f, 256.0f, 65534.5f, 65535.5f,
                           65536.0f, 32767.5f, 0x1p31f, 0x1p32f, INFINITY, NAN};
    for (float e : edges)
        for (float sign : {1.0f, -1.0f}) {
            std::uint32_t b;
            const float v = sign * e;
            std::memcpy(&b, &v, 4);
            for (std::uint32_t d = 0; d <= 8192; ++d) patterns.push_back(b - 4096 + d);
        }
    while (patterns.size() % 16) patterns.push_back(0);
    long long bad8 = 0, bad16 = 0;
    for (std::size_t i = 0; i < patterns.size(); i += 16) {
        float f[16];
        std::memcpy(f, &patterns[i], sizeof f);
        std::uint8_t b4[16], b16[16];
        std::uint16_t h4[16], h8[16];
        for (int g = 0; g < 16; g += 4) {
            vekr::ownStoreInterp4(b4 + g, _mm_loadu_ps(f + g));
            vekr::ownStoreInterp4(h4 + g, _mm_loadu_ps(f + g));
        }
        auto lanes = [&f](int g) { return vekr::OwnF4(_mm_loadu_ps(f + g)); };
        vekr::ownStoreU(reinterpret_cast<std::int32_t*>(b16),
                        vekr::ownNarrowU8(vekr::ownRoundClampForPack<255>(lanes(0)),
                                          vekr::ownRoundClampForPack<255>(lanes(4)),
                                          vekr::ownRoundClampForPack<255>(lanes(8)),
                                          vekr::ownRoundClampForPack<255>(lanes(12))));
        for (int g = 0; g < 16; g += 8)
            vekr::ownStoreU(reinterpret_cast<std::int32_t*>(h8 + g),
                            vekr::ownNarrowU16(vekr::ownRoundClampForPack<65535>(lanes(g)),
                                               vekr::ownRoundClampForPack<65535>(lanes(g + 4))));
        for (int j = 0; j < 16; ++j) {
            const std::uint8_t want8 = vekr::ownStoreInterp<std::uint8_t>(f[j]);
            const std::uint16_t want16 = vekr::ownStoreInterp<std::uint16_t>(f[j]);
            if (b4[j] != want8 || b16[j] != want8) {
                if (++bad8 <= 5) ADD_FAILURE() << "8u, bits " << std::hex << patterns[i + j];
            }
            if (h4[j] != want16 || h8[j] != want16) {
                if (++bad16 <= 5) ADD_FAILURE() << "16u, bits " << std::hex << patterns[i + j];
            }
        }
    }
    EXPECT_EQ(0, bad8);
    EXPECT_EQ(0, bad16);
}

// ---------------------------------------------------------------------------
// Resize
// ---------------------------------------------------------------------------

// The arguments of one resize besides the volumes.
struct Args {
    VekrCuboid srcVoi{}, dstVoi{};
    double f[3] = {1, 1, 1}, sh[3] = {0, 0, 0};
    int code = 1;
};

// A work buffer 3 bytes longer than the size query asks for with the current
// thread count; the resize gets it from byte 3 (exactly the size asked for,
// so an over-run shows under the address sanitizer, and a start that
// exercises the kernels' slice alignment).
std::vector<std::uint8_t> workBuffer(const Args& a) {
    int size = 0;
    EXPECT_EQ(vekStatusOk, vekrResizeGetBufSize(a.srcVoi, a.dstVoi, 1, a.code, &size));
    return std::vector<std::uint8_t>(static_cast<std::size_t>(size) + 3);
}

// Resizes s into d in layout C1V (planar false) or C1PV.
template <class T>
VekStatus resize(const Vol<T>& s, Vol<T>& d, const Args& a, bool planar) {
    std::vector<std::uint8_t> buf = workBuffer(a);
    if (planar)
        return vv::pick<T>(vekrResize_8u_C1PV, vekrResize_16u_C1PV, vekrResize_32f_C1PV)(
            s.cplanes(), s.size(), s.step, a.srcVoi, d.planes(), d.step, a.dstVoi, a.f[0], a.f[1], a.f[2], a.sh[0],
            a.sh[1], a.sh[2], a.code, buf.data() + 3);
    return vv::pick<T>(vekrResize_8u_C1V, vekrResize_16u_C1V, vekrResize_32f_C1V)(
        s.ptr(0, 0, 0), s.size(), s.step, s.planeStep, a.srcVoi, d.base(), d.step, d.planeStep, a.dstVoi, a.f[0],
        a.f[1], a.f[2], a.sh[0], a.sh[1], a.sh[2], a.code, buf.data() + 3);
}

// The region a resize writes, [lo, hi) per axis: the source VOI cut back to
// the volume, mapped with its start rounded half down and its end half up,
// and limited to the destination VOI. src is the cut-back VOI as a box.
struct Region {
    int lo[3], hi[3];
    vv::Box src;
    bool empty() const { return hi[0] <= lo[0] || hi[1] <= lo[1] || hi[2] <= lo[2]; }
    bool contains(int x, int y, int z) const {
        return x >= lo[0] && x < hi[0] && y >= lo[1] && y < hi[1] && z >= lo[2] && z < hi[2];
    }
};
Region regionOf(VekrVolume vol, const Args& a) {
    const int first[3] = {a.srcVoi.x, a.srcVoi.y, a.srcVoi.z},
              ext[3] = {a.srcVoi.width, a.srcVoi.height, a.srcVoi.depth};
    const int volExt[3] = {vol.width, vol.height, vol.depth};
    const int voi[3] = {a.dstVoi.x, a.dstVoi.y, a.dstVoi.z},
              voiExt[3] = {a.dstVoi.width, a.dstVoi.height, a.dstVoi.depth};
    Region r;
    for (int k = 0; k < 3; ++k) {
        const int e = std::min(ext[k], volExt[k] - first[k]);
        const double from = std::max(first[k] * a.f[k] + a.sh[k], double(voi[k]));
        const double to = std::min((first[k] + e) * a.f[k] + a.sh[k], double(voi[k] + voiExt[k]));
        r.lo[k] = int(std::trunc(from + 0.4999999999));
        r.hi[k] = int(std::trunc(to + 0.5000000001));
        r.src.lo[k] = first[k];
        r.src.hi[k] = first[k] + e - 1;
    }
    return r;
}

TEST(Resize, ChecksInOrderAndFailuresWriteNothing) {
    Vol<float> s(6, 5, 4), d(8, 8, 8);
    d.fillCanary();
    const Args a{{0, 0, 0, 6, 5, 4}, {0, 0, 0, 8, 8, 8}, {1.5, 1.5, 1.5}, {0, 0, 0}, 2};
    std::vector<std::uint8_t> buf = workBuffer(a);
    const VekrVolume vol{6, 5, 4};
    auto call = [&](const float* src, float* dst, std::uint8_t* b, VekrVolume v, const Args& x) {
        return vekrResize_32f_C1V(src, v, s.step, s.planeStep, x.srcVoi, dst, d.step, d.planeStep, x.dstVoi, x.f[0],
                                  x.f[1], x.f[2], x.sh[0], x.sh[1], x.sh[2], x.code, b);
    };
    Args bad = a;
    bad.code = 3;
    bad.f[1] = 0;
    bad.srcVoi.width = 0;
    // Each null pointer, even with a bad size, factor and code.
    EXPECT_EQ(vekStatusNullPtr, call(nullptr, d.base(), buf.data(), vol, bad));
    EXPECT_EQ(vekStatusNullPtr, call(s.base(), nullptr, buf.data(), vol, bad));
    EXPECT_EQ(vekStatusNullPtr, call(s.base(), d.base(), nullptr, vol, bad));
    // Volume extents, then each VOI field, before the factor.
    for (VekrVolume v : {VekrVolume{0, 5, 4}, VekrVolume{6, 0, 4}, VekrVolume{6, 5, 0}})
        EXPECT_EQ(vekStatusBadSize, call(s.base(), d.base(), buf.data(), v, bad));
    for (int k = 0; k < 12; ++k) {
        Args b = a;
        b.f[0] = -1;
        (k < 6 ? b.srcVoi : b.dstVoi) = vv::kBadCuboids[k % 6];
        EXPECT_EQ(vekStatusBadSize, call(s.base(), d.base(), buf.data(), vol, b)) << "field " << k;
    }
    bad = a;
    bad.f[2] = -2;
    bad.code = 3;
    EXPECT_EQ(vekStatusBadResizeFactor, call(s.base(), d.base(), buf.data(), vol, bad));
    // The code is checked before the source corner.
    bad = a;
    bad.srcVoi.x = 6;
    for (int code : {3, 8}) {
        bad.code = code;
        EXPECT_EQ(vekStatusBadInterpolation, call(s.base(), d.base(), buf.data(), vol, bad));
    }
    // Source corner on or past the volume's end on each axis: a warning, even
    // where the region would also be empty.
    for (int k = 0; k < 3; ++k) {
        Args b = a;
        (k == 0 ? b.srcVoi.x : k == 1 ? b.srcVoi.y : b.srcVoi.z) = k == 0 ? 6 : k == 1 ? 5 : 9;
        b.sh[0] = -1000;
        EXPECT_EQ(vekStatusVoiOutsideSrc, call(s.base(), d.base(), buf.data(), vol, b));
    }
    // A region that maps entirely outside dstVoi.
    bad = a;
    bad.sh[1] = 100;
    EXPECT_EQ(vekStatusNoOperation, call(s.base(), d.base(), buf.data(), vol, bad));
    bad = a;
    bad.dstVoi = VekrCuboid{0, 0, 7, 8, 8, 1};
    bad.f[2] = 1;  // source planes [0, 4) map to [0, 4), dstVoi holds only plane 7
    EXPECT_EQ(vekStatusNoOperation, call(s.base(), d.base(), buf.data(), vol, bad));
    EXPECT_TRUE(d.canaryIntact());
}

template <class T>
class ResizeOf : public ::testing::Test {};
TYPED_TEST_SUITE(ResizeOf, vv::ElementTypes);

// Every code against the reference. On each axis destination voxel i samples
// the source at (i + 0.5) / factor - shift / factor - 0.5 in voxel units, its
// taps moved into the source VOI (cut back to the volume); nearest takes the
// voxel the point falls in, the lower one at a half-way point. Nothing
// outside the written region changes. Fixed cases: a factor-1 copy of a VOI
// (float specials copied as bits), repeated voxels and half-way points
// (factors 2, 1/2 and 1/3), a step from 0 to the maximum that the
// interpolating cubics overshoot both ways (8u and 16u clamp); then random
// geometry: factors 0.4 to 2.6, shifts up to 3 voxels, source VOIs that may
// run past the volume and destination VOIs that may cut the region. The
// layouts C1V and C1PV alternate.
TYPED_TEST(ResizeOf, EveryCodeMatchesTheReference) {
    using T = TypeParam;
    const double top = std::is_integral<T>::value ? double(std::numeric_limits<T>::max()) : 280.0;
    struct Case {
        VekrVolume vol;
        Args a;
        bool step = false;
    };
    std::vector<Case> cases = {
        {{9, 7, 5}, {{2, 1, 1, 6, 5, 3}, {0, 0, 0, 12, 10, 8}}},
        {{12, 6, 6}, {{0, 0, 0, 12, 6, 6}, {0, 0, 0, 24, 3, 6}, {2, 0.5, 1}}},
        {{12, 6, 6}, {{0, 0, 0, 12, 6, 6}, {0, 0, 0, 4, 12, 3}, {1.0 / 3.0, 2, 0.5}}},
        {{8, 4, 4}, {{0, 0, 0, 8, 4, 4}, {0, 0, 0, 32, 4, 4}, {4, 1, 1}}, true},
    };
    vt::Rng rng(20 + sizeof(T));
    for (int round = 0; round < 24; ++round) {
        Case c;
        c.vol = VekrVolume{3 + rng.below(12), 3 + rng.below(10), 2 + rng.below(8)};
        const int ext[3] = {c.vol.width, c.vol.height, c.vol.depth};
        int corner[3], width[3];
        for (int k = 0; k < 3; ++k) {
            // Corners mostly in the first half, sometimes on the last voxel
            // (not in z); extents may run past the volume.
            corner[k] = k < 2 && rng.below(4) == 0 ? ext[k] - 1 : rng.below(ext[k] / 2 + 1);
            width[k] = 1 + rng.below(ext[k] + 2);
            c.a.f[k] = rng.uniform(0.4f, 2.6f);
            c.a.sh[k] = rng.uniform(-3, 3);
        }
        c.a.srcVoi = VekrCuboid{corner[0], corner[1], corner[2], width[0], width[1], width[2]};
        c.a.dstVoi = VekrCuboid{rng.below(3),      rng.below(3),      rng.below(2),
                                3 + rng.below(30), 3 + rng.below(24), 2 + rng.below(16)};
        cases.push_back(c);
    }
    int n = 0, total = 0;
    for (std::size_t i = 0; i < cases.size(); ++i)
        for (int code : {1, 2, 4, 5, 6, 7}) {
            const Case& c = cases[i];
            Args a = c.a;
            a.code = code;
            Vol<T> s(c.vol.width, c.vol.height, c.vol.depth, 0, int(i % 3), int(i % 2));
            vv::fillRandom(s, rng);
            if (c.step) s.fill([&](int x, int, int) { return x < 4 ? 0 : top; });
            if (code == 1) vv::sprinkleSpecials(s, rng);
            Vol<T> d(a.dstVoi.x + a.dstVoi.width + 2, a.dstVoi.y + a.dstVoi.height + 1,
                     a.dstVoi.z + a.dstVoi.depth + 1);
            d.fillCanary();
            const Vol<T> before = d;
            const Region r = regionOf(c.vol, a);
            ASSERT_EQ(r.empty() ? vekStatusNoOperation : vekStatusOk, resize(s, d, a, (i + code) % 2 == 1));
            EXPECT_TRUE(d.canaryIntact([&](int x, int y, int z) { return r.contains(x, y, z); })) << "case " << i;
            auto point = [&](int x, int y, int z, double* p) {
                const int v[3] = {x, y, z};
                for (int k = 0; k < 3; ++k) p[k] = (v[k] + 0.5) / a.f[k] - a.sh[k] / a.f[k] - 0.5;
                return r.contains(x, y, z);
            };
            EXPECT_TRUE(vv::Resampled(s, d, before, code, r.src, point, &n, 0, vv::Rule::Resize)) << "case " << i;
            total += n;
        }
    EXPECT_GT(total, 8000);
}

// A source VOI wider than the volume is cut back: the result equals the one
// for the VOI that stops at the volume's end, and no voxel beyond the volume
// is read (the source is allocated to its exact size, so an over-read shows
// under the address sanitizer).
TEST(Resize, SourceVoiPastTheVolumeIsCutBack) {
    Vol<float> s(7, 6, 5), d1(20, 20, 20), d2(20, 20, 20);
    vt::Rng rng(40);
    vv::fillRandom(s, rng);
    const std::vector<float> exact = s.values();
    for (int code : {1, 2, 6}) {
        const Args a{{2, 1, 3, 50, 90, 7}, {0, 0, 0, 20, 20, 20}, {2, 2, 2}, {-1, 0, 0}, code};
        Args b = a;
        b.srcVoi = VekrCuboid{2, 1, 3, 5, 5, 2};  // exactly to the volume's end
        ASSERT_EQ(vekStatusOk,
                  vekrResize_32f_C1V(exact.data(), s.size(), 7 * 4, 7 * 6 * 4, a.srcVoi, d1.base(), d1.step,
                                     d1.planeStep, a.dstVoi, 2, 2, 2, -1, 0, 0, code, workBuffer(a).data() + 3));
        ASSERT_EQ(vekStatusOk, resize(s, d2, b, true));
        EXPECT_TRUE(vt::SameBits(d1.bytes(), d2.bytes())) << "code " << code;
    }
}

// Infinite, huge, tiny and NaN factors and shifts: every call either writes
// nothing or writes only inside dstVoi (the region never leaves it), and
// nothing reads outside the source (checked by the sanitizers); the factor
// check agrees with the cuboid query's.
TEST(Resize, ExtremeFactorsAndShiftsStayInsideTheVolumes) {
    const double values[] = {INFINITY, 1e300, 1e-300, NAN, -INFINITY, 0.7};
    Vol<std::uint8_t> s(5, 4, 3);
    vt::Rng rng(60);
    vv::fillRandom(s, rng);
    int calls = 0;
    for (double f : values)
        for (double sh : values)
            for (int code : {1, 2, 6}) {
                Vol<std::uint8_t> d(9, 8, 7);
                d.fillCanary();
                const Args a{{0, 0, 0, 5, 4, 3}, {2, 1, 1, 5, 6, 4}, {f, 1, 1.5}, {0, sh, 0}, code};
                const VekStatus st = resize(s, d, a, false);
                VekrCuboid c{};
                const VekStatus stCuboid = vekrGetResizeCuboid(a.srcVoi, &c, f, 1, 1.5, 0, sh, 0, code);
                ASSERT_EQ(st == vekStatusBadResizeFactor, stCuboid == vekStatusBadResizeFactor);
                ASSERT_TRUE(st == vekStatusOk || st == vekStatusNoOperation || st == vekStatusBadResizeFactor);
                ASSERT_TRUE(d.canaryIntact([&](int x, int y, int z) {
                    return st == vekStatusOk && x >= 2 && x < 7 && y >= 1 && y < 7 && z >= 1 && z < 5;
                }));
                calls += st == vekStatusOk;
            }
    EXPECT_GT(calls, 20);
}

// The scalar rule (volumes 4 bytes past a 16-byte boundary) against the
// vector path (16-byte aligned volumes, rows and planes, a written width that
// is a multiple of 4), the scalar path at offset 8, planes scattered in
// memory on both paths, and (the float block resize splits regions of at
// least 16 voxels per axis into z slabs) 2 and 3 threads: identical bits,
// float special values included. Up- and downscaling, depths 17 and 37 that
// leave remainders for 2 and 3 threads, regions that start inside the row
// and unclamped x runs that start at odd offsets. The 32f block variant uses
// its byte steps in whole floats: steps 1 to 3 bytes longer than a multiple
// of 4 act as that multiple.
TYPED_TEST(ResizeOf, PathsLayoutsAndThreadCountsGiveIdenticalBits) {
    using T = TypeParam;
    vv::ThreadCount keep;
    const struct {
        double f[3], sh[3];
        int vx, dd;
    } cases[] = {
        {{2, 1.5, 1.5}, {0.3, -1.7, 0}, 0, 18},
        {{0.5, 1.1, 2.5}, {-0.6, 0.25, 0}, 4, 17},
        {{1.37, 1, 2.5}, {1.1, 0, -0.3}, 3, 37},
    };
    for (const auto& c : cases)
        for (int code : {1, 2, 4, 5, 6, 7}) {
            Args a{{1, 0, 1, 28, 18, 14}, {}, {c.f[0], c.f[1], c.f[2]}, {c.sh[0], c.sh[1], c.sh[2]}, code};
            // dstVoi starts at the region's start or inside it and ends where
            // the written width is a multiple of 4.
            VekrCuboid r{};
            ASSERT_EQ(vekStatusOk,
                      vekrGetResizeCuboid(a.srcVoi, &r, a.f[0], a.f[1], a.f[2], a.sh[0], a.sh[1], a.sh[2], code));
            a.dstVoi = VekrCuboid{std::max(r.x, c.vx), 1, 0, 0, 20, c.dd};
            a.dstVoi.width = (r.x + r.width - a.dstVoi.x) / 4 * 4;
            auto run = [&](std::size_t offset, bool planar, int threads, bool oddSteps = false) {
                vv::ThreadCount tc(threads);
                Vol<T> s(29, 18, 15, offset, vv::padTo16<T>(29), 1);
                vt::Rng rng(code);
                vv::fillRandom(s, rng);
                vv::sprinkleSpecials(s, rng);
                Vol<T> d(a.dstVoi.x + a.dstVoi.width + 3, 22, c.dd + 2, offset,
                         vv::padTo16<T>(a.dstVoi.x + a.dstVoi.width + 3));
                d.fillCanary();
                const std::size_t stagger = offset ? 4 : 16;
                Vol<T> dp = d.scattered(stagger);
                if constexpr (std::is_same<T, float>::value)
                    if (oddSteps) {
                        EXPECT_EQ(vekStatusOk, vekrResize_32f_C1V(s.base(), s.size(), s.step + 3, s.planeStep + 2,
                                                                  a.srcVoi, d.base(), d.step + 1, d.planeStep + 3,
                                                                  a.dstVoi, a.f[0], a.f[1], a.f[2], a.sh[0], a.sh[1],
                                                                  a.sh[2], code, workBuffer(a).data() + 3));
                        return d.bytes();
                    }
                EXPECT_EQ(vekStatusOk, planar ? resize(s.scattered(stagger), dp, a, true) : resize(s, d, a, false));
                return planar ? dp.bytes() : d.bytes();
            };
            const auto scalar = run(4, false, 1);
            const std::string what = "code " + std::to_string(code) + " factors " + std::to_string(c.f[0]);
            EXPECT_TRUE(vt::SameBits(scalar, run(0, false, 1))) << what;
            EXPECT_TRUE(vt::SameBits(scalar, run(0, false, 2))) << what;
            EXPECT_TRUE(vt::SameBits(scalar, run(8, false, 3))) << what;
            EXPECT_TRUE(vt::SameBits(scalar, run(0, true, 1))) << what;
            EXPECT_TRUE(vt::SameBits(scalar, run(4, true, 1))) << what;
            if (std::is_same<T, float>::value) {
                EXPECT_TRUE(vt::SameBits(scalar, run(4, false, 1, true))) << what;
            }
        }
}


// The vector path's own arrangements against the scalar rule (volumes 4
// bytes past a 16-byte boundary) and the reference: slabs of one destination
// plane, whose rows are combined along y and z at once, fed by one source
// plane (every z tap the same plane) or by several; x taps gathered from one
// wide load per group of four (factors 1 to 3, where neighbouring outputs
// share their taps), next to the groups near the row end that gather tap by
// tap; 8u and 16u results packed sixteen and eight at a time, with
// left-over groups.
TYPED_TEST(ResizeOf, OnePlaneSlabsAndWideLoadGroupsMatchTheScalarRule) {
    using T = TypeParam;
    const struct {
        VekrVolume vol;
        double f[3];
    } cases[] = {
        {{20, 9, 1}, {2, 2, 1}},          // one plane in, one out: every z tap is plane 0
        {{16, 9, 3}, {1.25, 1, 1.0 / 3}},  // three planes into one
        {{24, 7, 2}, {1, 3, 0.5}},        // two planes into one, factor 1 in x
        {{16, 6, 5}, {3, 1.5, 1}},        // several planes
        {{16, 5, 4}, {1.75, 1, 2}},
    };
    vt::Rng rng(90 + sizeof(T));
    int checked = 0;
    for (const auto& c : cases)
        for (int code : {2, 4, 6}) {
            Args a{{0, 0, 0, c.vol.width, c.vol.height, c.vol.depth}, {}, {c.f[0], c.f[1], c.f[2]}, {0, 0, 0}, code};
            a.dstVoi = VekrCuboid{0, 0, 0, int(c.vol.width * c.f[0] + 0.5), int(c.vol.height * c.f[1] + 0.5),
                                  int(c.vol.depth * c.f[2] + 0.5)};
            ASSERT_EQ(0, a.dstVoi.width % 4);
            auto run = [&](std::size_t offset, Vol<T>* out) {
                Vol<T> s(c.vol.width, c.vol.height, c.vol.depth, offset, vv::padTo16<T>(c.vol.width));
                vt::Rng r(code);
                vv::fillRandom(s, r);
                const Vol<T> before = *out;
                EXPECT_EQ(vekStatusOk, resize(s, *out, a, false));
                const Region reg = regionOf(c.vol, a);
                int n = 0;
                auto point = [&](int x, int y, int z, double* p) {
                    const int v[3] = {x, y, z};
                    for (int k = 0; k < 3; ++k) p[k] = (v[k] + 0.5) / a.f[k] - 0.5;
                    return reg.contains(x, y, z);
                };
                EXPECT_TRUE(vv::Resampled(s, *out, before, code, reg.src, point, &n, 0, vv::Rule::Resize));
                checked += n;
            };
            const int dw = a.dstVoi.width + 4;
            Vol<T> vec(dw, a.dstVoi.height + 1, a.dstVoi.depth, 0, vv::padTo16<T>(dw));
            Vol<T> scalar(dw, a.dstVoi.height + 1, a.dstVoi.depth, 4, vv::padTo16<T>(dw));
            vec.fillCanary();
            scalar.fillCanary();
            run(0, &vec);
            run(4, &scalar);
            EXPECT_TRUE(vt::SameBits(vec.values(), scalar.values())) << "code " << code << " factor " << c.f[0];
        }
    EXPECT_GT(checked, 20000);
}

// A group of four x outputs loads a window of the row at once; near the end
// of the row it must gather tap by tap instead. The source here ends exactly
// at the end of its allocation (rows of 32 bytes, no padding), so a window
// that ran past the last voxel shows under the address sanitizer; the
// result equals that of a padded copy of the source.
TYPED_TEST(ResizeOf, WideLoadsStopAtTheEndOfTheSource) {
    using T = TypeParam;
    const int w = 32 / int(sizeof(T)), h = 3, d = 2;
    const std::size_t count = std::size_t(w) * h * d;
    // vekMalloc: 16-byte aligned, exactly this size.
    std::unique_ptr<T, void (*)(void*)> exact(static_cast<T*>(vekMalloc(int(count * sizeof(T)))), vekFree);
    ASSERT_NE(nullptr, exact.get());
    Vol<T> padded(w, h, d, 0, 16 / int(sizeof(T)));
    vt::Rng rng(95);
    vv::fillRandom(padded, rng);
    for (int z = 0; z < d; ++z)
        for (int y = 0; y < h; ++y) std::memcpy(exact.get() + (std::size_t(z) * h + y) * w, padded.ptr(0, y, z), w * sizeof(T));
    for (double f : {1.0, 1.5, 2.0})
        for (int code : {2, 6}) {
            const Args a{{0, 0, 0, w, h, d}, {0, 0, 0, int(w * f), h, d}, {f, 1, 1}, {0, 0, 0}, code};
            Vol<T> d1(a.dstVoi.width, h, d), d2(a.dstVoi.width, h, d);
            std::vector<std::uint8_t> buf = workBuffer(a);
            ASSERT_EQ(vekStatusOk, vv::pick<T>(vekrResize_8u_C1V, vekrResize_16u_C1V, vekrResize_32f_C1V)(
                                       exact.get(), padded.size(), int(w * sizeof(T)), int(w * h * sizeof(T)),
                                       a.srcVoi, d1.base(), d1.step, d1.planeStep, a.dstVoi, f, 1, 1, 0, 0, 0, code,
                                       buf.data() + 3));
            ASSERT_EQ(vekStatusOk, resize(padded, d2, a, false));
            EXPECT_TRUE(vt::SameBits(d1.bytes(), d2.bytes())) << "factor " << f << " code " << code;
        }
}

// Linear results on 8u and 16u never leave the element's range (blends with
// non-negative weights), and the vector path converts them without clamping:
// at the top of the range, on steps from 0 to the maximum, and on random
// voxels, its bits equal the scalar rule's, and a volume at the maximum
// stays there.
TYPED_TEST(ResizeOf, LinearIntegerResultsAtTheRangeEndsMatchTheScalarRule) {
    using T = TypeParam;
    if (!std::is_integral<T>::value) return;
    const double top = double(std::numeric_limits<T>::max());
    for (int fill = 0; fill < 3; ++fill)
        for (double f : {1.37, 2.6, 0.7}) {
            const Args a{{0, 0, 0, 16, 7, 5}, {0, 0, 0, 44, 18, 13}, {f, f, f}, {0, 0, 0}, vekrInterLinear};
            Vol<T> s(16, 7, 5, 0, vv::padTo16<T>(16));
            vt::Rng rng(70 + fill);
            vv::fillRandom(s, rng);
            if (fill == 0) s.fill([&](int, int, int) { return top; });
            if (fill == 1) s.fill([&](int x, int y, int z) { return (x + y + z) % 2 ? top : 0.0; });
            const Region r = regionOf(s.size(), a);
            const int w = (r.hi[0] - r.lo[0]) / 4 * 4;  // a written width the vector path takes
            Args b = a;
            b.dstVoi.width = w;
            Vol<T> vec(48, 18, 13, 0, vv::padTo16<T>(48)), scalar(48, 18, 13, 4, vv::padTo16<T>(48));
            ASSERT_EQ(vekStatusOk, resize(s, vec, b, false));
            ASSERT_EQ(vekStatusOk, resize(s, scalar, b, false));
            EXPECT_TRUE(vt::SameBits(vec.values(), scalar.values())) << "fill " << fill << " factor " << f;
            if (fill != 0) continue;
            for (int z = r.lo[2]; z < r.hi[2]; ++z)
                for (int y = r.lo[1]; y < r.hi[1]; ++y)
                    for (int x = 0; x < w; ++x) ASSERT_EQ(top, double(vec.at(x, y, z)));
        }
}

// A destination region of 32 MiB and more is written with streaming stores
// (on rows that start on a 16-byte boundary): the same bits as the scalar
// rule's, which stores normally.
TEST(Resize, StreamedDestinationMatchesTheScalarRule) {
    Vol<float> s(2048, 1024, 1);
    vt::Rng rng(97);
    vv::fillRandom(s, rng);
    const Args a{{0, 0, 0, 2048, 1024, 1}, {0, 0, 0, 4096, 2048, 1}, {2, 2, 1}, {0, 0, 0}, vekrInterLinear};
    Vol<float> vec(4096, 2048, 1), scalar(4096, 2048, 1, 4);
    ASSERT_EQ(vekStatusOk, resize(s, vec, a, false));
    ASSERT_EQ(vekStatusOk, resize(s, scalar, a, false));
    EXPECT_TRUE(vt::SameBits(vec.values(), scalar.values()));
}

}  // namespace
