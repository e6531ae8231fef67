// Tests of the 16-bit volume convolution: the buffer-size formula, argument
// checks, the anchor convention, agreement of both paths with a 64-bit integer
// reference, rounding and saturation, and independence of the thread count
// and the memory layout.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "volume_testutil.h"

namespace {

// A source volume with the neighbourhood that a destination of size `dst`
// needs for a kernel `ker` with anchor `a`, stored plane by plane. Each plane
// is its own exact-size allocation (no slack after the last voxel read, so the
// address sanitizer sees any over-read), `offsetElems` elements into it, with
// `extraRow` unused elements at the end of each row but the last.
class SrcVolume {
public:
    SrcVolume(VekrVolume dst, VekrVolume ker, VekrPoint3D a, int offsetElems = 0, int extraRow = 0)
        : w_(dst.width), h_(dst.height), d_(dst.depth) {
        lo_[0] = std::max(0, ker.width - 1 - a.x), hi_[0] = std::max(0, a.x);
        lo_[1] = std::max(0, ker.height - 1 - a.y), hi_[1] = std::max(0, a.y);
        lo_[2] = std::max(0, ker.depth - 1 - a.z), hi_[2] = std::max(0, a.z);
        const int rowLen = lo_[0] + w_ + hi_[0];
        const int rows = lo_[1] + h_ + hi_[1];
        rowElems_ = rowLen + extraRow;
        const int planes = lo_[2] + d_ + hi_[2];
        store_.resize(planes);
        ptrs_.resize(planes);
        for (int p = 0; p < planes; ++p) {
            store_[p].assign(offsetElems + (rows - 1) * rowElems_ + rowLen, 0);
            ptrs_[p] = store_[p].data() + offsetElems + lo_[1] * rowElems_ + lo_[0];
        }
    }
    // Voxel (x, y, z) in destination coordinates; x from -lo to width + hi - 1.
    std::int16_t& at(int x, int y, int z) { return const_cast<std::int16_t*>(ptrs_[lo_[2] + z])[y * rowElems_ + x]; }
    std::int16_t at(int x, int y, int z) const { return ptrs_[lo_[2] + z][y * rowElems_ + x]; }
    // Every stored voxel, border included, uniform in [lo, hi].
    void fillRandom(vt::Rng& rng, int lo, int hi) {
        for (int z = -lo_[2]; z < d_ + hi_[2]; ++z)
            for (int y = -lo_[1]; y < h_ + hi_[1]; ++y)
                for (int x = -lo_[0]; x < w_ + hi_[0]; ++x)
                    at(x, y, z) = static_cast<std::int16_t>(lo + rng.below(hi - lo + 1));
    }
    // Every stored voxel -32768 or 32767 at random.
    void fillExtremes(vt::Rng& rng) {
        fillRandom(rng, 0, 1);
        for (int z = -lo_[2]; z < d_ + hi_[2]; ++z)
            for (int y = -lo_[1]; y < h_ + hi_[1]; ++y)
                for (int x = -lo_[0]; x < w_ + hi_[0]; ++x) at(x, y, z) = at(x, y, z) ? 32767 : -32768;
    }
    const std::int16_t* const* planes() const { return ptrs_.data() + lo_[2]; }
    int stepBytes() const { return rowElems_ * 2; }

private:
    int w_, h_, d_;
    int lo_[3], hi_[3];
    int rowElems_ = 0;
    std::vector<std::vector<std::int16_t>> store_;
    std::vector<const std::int16_t*> ptrs_;
};

using vv::Vol;

// A destination volume with planes scattered and rows with `extraRow`
// elements of padding that the filter must leave alone.
Vol<std::int16_t> dstVolume(VekrVolume v, int offsetElems = 0, int extraRow = 0) {
    return Vol<std::int16_t>(v.width, v.height, v.depth, 2 * offsetElems, extraRow).scattered();
}

// The convolution written out from its definition: an exact 64-bit sum over
// the kernel in its stored order (with `wrap32`, reduced to the int32 of the
// same value modulo 2^32, as 32-bit sums give it), then the float pipeline
// (sum as float, times the float reciprocal of the divisor), rounded half to
// even and saturated.
std::vector<std::int16_t> reference(const SrcVolume& src, VekrVolume dst, const std::vector<std::int32_t>& kernel,
                                    VekrVolume kv, VekrPoint3D a, int divisor, bool wrap32 = false) {
    std::vector<std::int16_t> out;
    const float scale = 1.0f / static_cast<float>(divisor);
    vv::forEachVoxel(dst.width, dst.height, dst.depth, [&](int x, int y, int z) {
        std::int64_t sum = 0;
        vv::forEachVoxel(kv.width, kv.height, kv.depth, [&](int i, int j, int k) {
            sum += static_cast<std::int64_t>(kernel[(k * kv.height + j) * kv.width + i]) *
                   src.at(x + a.x - i, y + a.y - j, z + a.z - k);
        });
        if (wrap32) sum = static_cast<std::int32_t>(static_cast<std::uint32_t>(sum));
        const float r = std::nearbyint(static_cast<float>(sum) * scale);
        out.push_back(static_cast<std::int16_t>(r > 32767.0f ? 32767.0f : r < -32768.0f ? -32768.0f : r));
    });
    return out;
}

// Runs the filter with a buffer of exactly the queried size, placed
// `bufferOffset` bytes past a 16-byte boundary.
VekStatus runFilter(const SrcVolume& src, Vol<std::int16_t>& dst, VekrVolume dv,
                    const std::vector<std::int32_t>& kernel, VekrVolume kv, VekrPoint3D a, int divisor,
                    std::size_t bufferOffset = 0) {
    int size = 0;
    EXPECT_EQ(vekrFilterGetBufSize(dv, kv, 1, &size), vekStatusOk);
    vt::Buf<std::uint8_t> buf(static_cast<std::size_t>(size), bufferOffset);
    return vekrFilter_16s_C1PV(src.planes(), src.stepBytes(), dst.planes(), dst.step, dv, kernel.data(), kv, a, divisor,
                               buf.data());
}

// The filtered voxels; the call must succeed and write nothing else.
std::vector<std::int16_t> filtered(const SrcVolume& src, VekrVolume dv, const std::vector<std::int32_t>& kernel,
                                   VekrVolume kv, VekrPoint3D a, int divisor) {
    Vol<std::int16_t> dst = dstVolume(dv);
    dst.fillCanary();
    EXPECT_EQ(runFilter(src, dst, dv, kernel, kv, a, divisor), vekStatusOk);
    EXPECT_TRUE(dst.canaryIntact([](int, int, int) { return true; }));
    return dst.values();
}

::testing::AssertionResult MatchesReference(const SrcVolume& src, VekrVolume dv,
                                            const std::vector<std::int32_t>& kernel, VekrVolume kv, VekrPoint3D a,
                                            int divisor) {
    return vt::SameBits(filtered(src, dv, kernel, kv, a, divisor), reference(src, dv, kernel, kv, a, divisor));
}

std::vector<std::int32_t> randomKernel(vt::Rng& rng, VekrVolume kv, int lo, int hi) {
    std::vector<std::int32_t> k(static_cast<std::size_t>(kv.width) * kv.height * kv.depth);
    for (auto& c : k) c = lo + static_cast<std::int32_t>(rng.next() % static_cast<std::uint32_t>(hi - lo + 1));
    return k;
}

// ---------------------------------------------------------------------------

TEST(FilterBufSize, FollowsFormulaAndChecksInOrder) {
    const struct {
        int threads;
        VekrVolume dv, kv;
        int want;
    } cases[] = {
        {1, {20, 7, 9}, {3, 3, 3}, 128 + 576 + 32},  // 64 * floor(35 / 16) + 32 * 2 * 3 * 3 + 32
        {1, {1, 1, 1}, {1, 1, 1}, 64 + 32 + 32},
        {3, {20, 7, 9}, {4, 2, 5}, 3 * (128 + 32 * 2 * 2 * 5 + 32)},
    };
    int size = 0;
    for (const auto& c : cases) {
        vv::ThreadCount t(c.threads);
        ASSERT_EQ(vekrFilterGetBufSize(c.dv, c.kv, 1, &size), vekStatusOk);
        EXPECT_EQ(size, c.want);
    }
    // The pointer, then sizes, then the channel count.
    size = 12345;
    EXPECT_EQ(vekrFilterGetBufSize({0, 1, 1}, {1, 1, 1}, 3, nullptr), vekStatusNullPtr);
    const VekrVolume good{4, 4, 4};
    for (const VekrVolume& b : {VekrVolume{0, 4, 4}, VekrVolume{4, 0, 4}, VekrVolume{4, 4, -1}}) {
        EXPECT_EQ(vekrFilterGetBufSize(b, good, 3, &size), vekStatusBadSize);
        EXPECT_EQ(vekrFilterGetBufSize(good, b, 3, &size), vekStatusBadSize);
    }
    EXPECT_EQ(vekrFilterGetBufSize(good, good, 3, &size), vekStatusBadNumChannels);
    EXPECT_EQ(vekrFilterGetBufSize(good, good, 0, &size), vekStatusBadNumChannels);
    EXPECT_EQ(size, 12345);
}

TEST(Filter, ChecksInOrderAndWritesNothingOnError) {
    const VekrVolume dv{9, 4, 3}, kv{3, 3, 3};
    const VekrPoint3D a{1, 1, 1};
    SrcVolume src(dv, kv, a);
    Vol<std::int16_t> dst = dstVolume(dv);
    dst.fillCanary();
    std::vector<std::int32_t> kernel(27, 1);
    int size = 0;
    ASSERT_EQ(vekrFilterGetBufSize(dv, kv, 1, &size), vekStatusOk);
    vt::Buf<std::uint8_t> buf(static_cast<std::size_t>(size));
    vt::fillCanary(buf);
    auto call = [&](const std::int16_t* const* s, std::int16_t* const* d, VekrVolume dvol, const std::int32_t* k,
                    VekrVolume kvol, int divisor, std::uint8_t* b) {
        return vekrFilter_16s_C1PV(s, src.stepBytes(), d, dst.step, dvol, k, kvol, a, divisor, b);
    };
    const auto* s = src.planes();
    auto* d = dst.planes();
    const auto* k = kernel.data();
    auto* b = buf.data();
    // Null pointers come before every size check, and the buffer comes last
    // among the pointers.
    EXPECT_EQ(call(nullptr, d, {0, 1, 1}, k, kv, 0, b), vekStatusNullPtr);
    EXPECT_EQ(call(s, nullptr, dv, k, kv, 1, b), vekStatusNullPtr);
    EXPECT_EQ(call(s, d, dv, nullptr, kv, 1, b), vekStatusNullPtr);
    EXPECT_EQ(call(s, d, {-1, 1, 1}, k, {0, 0, 0}, 0, nullptr), vekStatusNullPtr);
    // Destination sizes, then kernel sizes, then the divisor; the anchor is
    // not checked.
    for (VekrVolume bad : {VekrVolume{0, 4, 3}, VekrVolume{9, 0, 3}, VekrVolume{9, 4, 0}}) {
        EXPECT_EQ(call(s, d, bad, k, kv, 0, b), vekStatusBadSize);
        EXPECT_EQ(call(s, d, dv, k, bad, 0, b), vekStatusBadSize);
    }
    EXPECT_EQ(call(s, d, dv, k, kv, 0, b), vekStatusBadSize);
    EXPECT_TRUE(dst.canaryIntact());
    EXPECT_TRUE(vt::CanaryIntact(buf));
}

TEST(Filter, SingleTapKernelShiftsByAnchorMinusTap) {
    // A kernel whose one non-zero tap is kernel[k][j][i] moves the volume:
    // dst(x, y, z) = src(x + anchor.x - i, y + anchor.y - j, z + anchor.z - k),
    // a plain copy when the tap is the anchor (the 1x1x1 kernel). Anchors
    // outside the kernel are allowed (the anchor is not checked). The tap is 1
    // with divisor 1 (packed path) or 65536 with divisor 65536 (wide path; the
    // products and the scale 2^-16 are exact).
    const VekrVolume dv{13, 6, 4};
    const struct {
        VekrVolume kv;
        VekrPoint3D a;
    } cases[] = {{{1, 1, 1}, {0, 0, 0}}, {{3, 4, 2}, {1, 2, 0}},  {{5, 1, 3}, {4, 0, 2}},
                 {{2, 2, 2}, {0, 1, 1}}, {{4, 3, 1}, {-1, 3, 0}}, {{1, 2, 3}, {0, 0, 0}}};
    vt::Rng rng(7);
    for (const auto& c : cases) {
        SrcVolume src(dv, c.kv, c.a);
        src.fillRandom(rng, -32768, 32767);
        src.at(0, 0, 0) = -32768;
        src.at(dv.width - 1, dv.height - 1, dv.depth - 1) = 32767;
        const int n = c.kv.width * c.kv.height * c.kv.depth;
        for (int t = 0; t < n; ++t) {
            const int i = t % c.kv.width, j = t / c.kv.width % c.kv.height, k = t / (c.kv.width * c.kv.height);
            std::vector<std::int16_t> expect;
            vv::forEachVoxel(dv.width, dv.height, dv.depth, [&](int x, int y, int z) {
                expect.push_back(src.at(x + c.a.x - i, y + c.a.y - j, z + c.a.z - k));
            });
            for (int scale : {1, 65536}) {
                std::vector<std::int32_t> kernel(n, 0);
                kernel[t] = scale;
                EXPECT_TRUE(vt::SameBits(filtered(src, dv, kernel, c.kv, c.a, scale), expect)) << i << j << k << scale;
            }
        }
    }
}

TEST(Filter, BothPathsMatchTheIntegerReference) {
    // Odd and even widths (the odd row ends in a half-empty pair), widths that
    // leave tails after groups of eight, negative and inexact divisors. The
    // ranges keep every sum inside 32 bits.
    struct Case {
        VekrVolume dv, kv;
        VekrPoint3D a;
        int coefLo, coefHi, voxLo, voxHi, divisor;
    };
    const Case cases[] = {
        {{17, 5, 4}, {3, 3, 3}, {1, 1, 1}, -50, 50, -32768, 32767, 27},
        {{23, 3, 3}, {5, 5, 5}, {2, 2, 2}, -32767, 32766, -400, 400, 1000},
        {{8, 4, 3}, {7, 1, 2}, {3, 0, 1}, -32767, 32766, -4000, 4000, -3},
        {{31, 2, 2}, {9, 2, 1}, {0, 1, 0}, -200, 200, -32768, 32767, 7},
        {{6, 7, 5}, {2, 3, 4}, {1, 0, 3}, -32767, 32766, -2000, 2000, 65536},
        {{40, 3, 2}, {4, 4, 2}, {3, 3, 1}, -1000, 1000, -32768, 32767, -1},
        {{9, 9, 9}, {1, 1, 7}, {0, 0, 3}, -32767, 32766, -9000, 9000, 2},
    };
    vt::Rng rng(11);
    for (const Case& c : cases) {
        SrcVolume src(c.dv, c.kv, c.a);
        src.fillRandom(rng, c.voxLo, c.voxHi);
        EXPECT_TRUE(MatchesReference(src, c.dv, randomKernel(rng, c.kv, c.coefLo, c.coefHi), c.kv, c.a, c.divisor))
            << "kernel " << c.kv.width << "x" << c.kv.height << "x" << c.kv.depth;
    }
    // -32767 and 32766 are the packing limits; 32767, -32768 and the int32
    // extremes force the wide path, whose sums here go far beyond 32 bits.
    const VekrVolume dv{19, 4, 3}, kv{3, 2, 2};
    const VekrPoint3D a{1, 1, 0};
    SrcVolume src(dv, kv, a);
    src.fillRandom(rng, -32768, 32767);
    for (std::int32_t edge : {-32767, 32766}) {
        // Two extreme taps per output keep the sum inside 32 bits.
        std::vector<std::int32_t> kernel(12, 0);
        kernel[0] = kernel[7] = edge;
        for (int divisor : {1, 5, -32768}) EXPECT_TRUE(MatchesReference(src, dv, kernel, kv, a, divisor)) << edge;
    }
    for (std::int32_t big :
         {32767, -32768, std::numeric_limits<std::int32_t>::max(), std::numeric_limits<std::int32_t>::min()}) {
        auto kernel = randomKernel(rng, kv, -32767, 32766);
        kernel[4] = big;
        for (int divisor : {1, 3 << 20, -(1 << 30), std::numeric_limits<int>::max()})
            EXPECT_TRUE(MatchesReference(src, dv, kernel, kv, a, divisor)) << big << " / " << divisor;
    }
}

TEST(Filter, PackedSumsWrapModulo2To32AtEveryPassWidth) {
    // Coefficients at the packing limits over voxels at the int16 limits:
    // many sums leave the int32 range, and the packed path keeps them modulo
    // 2^32 whichever taps it pairs and in whatever order it adds them. Widths
    // 61, 45 and 13 put voxels in passes of every width (32, 16 and 8 voxels on
    // x86-64; 24, 16 and 8 on i386) and in the scalar tail; kernel widths 1 to
    // 9 take rows of zero to four full pairs, with and without a last unpaired
    // tap.
    vt::Rng rng(23);
    for (int kw = 1; kw <= 9; ++kw) {
        for (VekrVolume dv : {VekrVolume{61, 3, 2}, VekrVolume{45, 2, 2}, VekrVolume{13, 2, 3}}) {
            const VekrVolume kv{kw, 2, 3};
            const VekrPoint3D a{kw / 2, 1, 1};
            SrcVolume src(dv, kv, a);
            src.fillExtremes(rng);
            std::vector<std::int32_t> kernel(static_cast<std::size_t>(kw) * 6);
            for (auto& c : kernel) c = rng.below(2) ? -32767 : 32766;
            const auto exact = reference(src, dv, kernel, kv, a, 1 << 16);
            const auto wrapped = reference(src, dv, kernel, kv, a, 1 << 16, true);
            // The case is only worth its name if wrapping changes results.
            EXPECT_FALSE(vt::SameBits(exact, wrapped)) << "kernel width " << kw;
            EXPECT_TRUE(vt::SameBits(filtered(src, dv, kernel, kv, a, 1 << 16), wrapped)) << "kernel width " << kw;
        }
    }
}

TEST(Filter, RoundsTiesToEvenAndSaturates) {
    // One-tap kernels, so that each voxel's sum is coefficient * voxel. Eight
    // voxels take the vector code and the ninth the row tail; the expected
    // values are worked out by hand.
    const VekrVolume dv{9, 1, 1}, kv{1, 1, 1};
    const VekrPoint3D a{0, 0, 0};
    struct Case {
        std::int32_t coef;
        int divisor;
        std::int16_t in[9];
        std::int16_t out[9];
    };
    const Case cases[] = {
        // Halves go to the even neighbour: 2.5 -> 2, 7.5 -> 8, -2.5 -> -2, 17.5 -> 18.
        {5, 2, {1, 3, -1, 7, -3, 0, 2, 1, 3}, {2, 8, -2, 18, -8, 0, 5, 2, 8}},
        {5, -2, {1, 3, -1, 7, -3, 0, 2, 1, 3}, {-2, -8, 2, -18, 8, 0, -5, -2, -8}},
        // Sums beyond 16 bits saturate: 70000 -> 32767, -70000 -> -32768.
        {7,
         1,
         {10000, -10000, 4681, 4682, -4681, -4682, -4682, 10000, -10000},
         {32767, -32768, 32767, 32767, -32767, -32768, -32768, 32767, -32768}},
        // The sum becomes a float before scaling: 17775105 is 17775104 as a
        // float, 17775104 / 1024 = 17358.5 -> 17358 (exact 17358.50098 would give 17359).
        {543, 1024, {32735, -32735, 1, 0, 32735, 32735, 0, 0, 32735}, {17358, -17358, 1, 0, 17358, 17358, 0, 0, 17358}},
        // The same on the wide path.
        {17775105, 1024, {1, -1, 0, 0, 1, 0, 0, 0, 1}, {17358, -17358, 0, 0, 17358, 0, 0, 0, 17358}},
        {std::numeric_limits<std::int32_t>::max(),
         1,
         {32767, -32768, 1, -1, 0, 2, -2, 32767, -32768},
         {32767, -32768, 32767, -32768, 0, 32767, -32768, 32767, -32768}},
    };
    for (const Case& c : cases) {
        SrcVolume src(dv, kv, a);
        for (int x = 0; x < 9; ++x) src.at(x, 0, 0) = c.in[x];
        EXPECT_TRUE(
            vt::SameBits(filtered(src, dv, {c.coef}, kv, a, c.divisor), std::vector<std::int16_t>(c.out, c.out + 9)))
            << c.coef << " / " << c.divisor;
    }
    // kernel (-32767, -32767, 1, 1, 1) over (-32768, -32768, 32767, 32767, 1)
    // sums to 2^31 - 1, which becomes the float 2^31: the result must be 32767,
    // not the conversion's overflow value. Checked in a vector lane and in a tail.
    for (int width : {1, 8}) {
        const VekrVolume row{width, 1, 1}, k5{5, 1, 1};
        SrcVolume src(row, k5, {4, 0, 0});
        const std::int16_t in[5] = {1, 32767, 32767, -32768, -32768};  // dst(0) sums kernel[i] * src(4 - i)
        for (int x = 0; x < 5; ++x) src.at(x, 0, 0) = in[x];
        EXPECT_EQ(filtered(src, row, {-32767, -32767, 1, 1, 1}, k5, {4, 0, 0}, 1)[0], 32767) << "width " << width;
    }
}

TEST(Filter, SameResultForAnyThreadCountPlaneOffsetRowStepAndBufferOffset) {
    // Planes and rows start at every 2-byte offset from a 16-byte boundary,
    // steps are not multiples of 16 bytes, the work buffer is misaligned and
    // 1, 2 or 3 threads split the rows (the destination exceeds 15 voxels on
    // every axis); the values must not change and row padding must stay
    // untouched.
    const VekrVolume dv{21, 18, 17};
    const VekrPoint3D a{1, 2, 1};
    for (VekrVolume kv : {VekrVolume{5, 3, 3}, VekrVolume{4, 5, 2}}) {
        for (bool wide : {false, true}) {
            vt::Rng seed(kv.width + wide);
            auto kernel = randomKernel(seed, kv, -3000, 3000);
            if (wide) kernel[3] = -70000;
            auto run = [&](std::size_t offsetBytes) {
                const int off = static_cast<int>(offsetBytes / 2);
                vv::ThreadCount threads(1 + off % 3);
                SrcVolume src(dv, kv, a, off, off % 5);
                vt::Rng rng(1);
                src.fillRandom(rng, -32768, 32767);
                Vol<std::int16_t> dst = dstVolume(dv, off, (off * 3) % 7);
                dst.fillCanary();
                EXPECT_EQ(runFilter(src, dst, dv, kernel, kv, a, 9, offsetBytes % 16), vekStatusOk);
                EXPECT_TRUE(dst.canaryIntact([](int, int, int) { return true; }));
                std::vector<std::uint8_t> out;
                vt::appendBytes(out, dst.values().data(), dst.values().size());
                return out;
            };
            EXPECT_TRUE(vt::SameAcrossOffsets(run, {2, 4, 6, 8, 10, 12, 14, 22}));
        }
    }
}

}  // namespace
