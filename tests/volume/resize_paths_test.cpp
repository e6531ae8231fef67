// Volume resize: results that must not depend on how the work is done: the
// vector and scalar paths, the two volume layouts, and the thread count.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "resize_testutil.h"

namespace {

using rt::Args;
using rt::Vol;

// Row padding that makes the row step a multiple of 16 bytes.
template <class T>
int padTo16(int w) {
    const int bytes = (w * int(sizeof(T)) + 15) & ~15;
    return bytes / int(sizeof(T)) - w;
}

// Float sources get the special values the kernels must carry through
// identically on both paths. The NaN is the processor's default NaN (sign
// set), the one that inf - inf and 0 * inf produce, so every NaN in a result
// has one bit pattern whichever operand an instruction propagates.
template <class T>
void sprinkleSpecials(Vol<T>& v, vt::Rng& rng) {
    if constexpr (std::is_same<T, float>::value) {
        const float specials[] = {vt::fromBits(0xFFC00000u), INFINITY, -INFINITY, -0.0f, 1e-40f, -3e-39f, 1e30f};
        for (float f : specials) v(rng.below(v.w), rng.below(v.h), rng.below(v.d)) = f;
    } else {
        (void)v;
        (void)rng;
    }
}

// One resize at a given buffer offset: offset 0 with 16-byte steps and a
// written width that is a multiple of 4 takes the vector path; offsets 4 and
// 8 take the scalar path. Returns every byte of the destination block.
template <class T>
std::vector<std::uint8_t> runAtOffset(std::size_t offset, const Args& a, int sw, int sh, int sd, int dw, int dh, int dd,
                                      bool planar, int seed) {
    Vol<T> s(sw, sh, sd, offset, padTo16<T>(sw), 1);
    vt::Rng rng(seed);
    rt::fillRandom(s, rng, 0, std::is_same<T, std::uint8_t>::value ? 256.0f : 60000.0f);
    sprinkleSpecials(s, rng);
    Vol<T> d(dw, dh, dd, offset, padTo16<T>(dw), 0);
    vt::fillCanary(d.buf);
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
    rt::fillRandom(s, rng, 0, 250);
    sprinkleSpecials(s, rng);
    const int dw = 8 + rng.below(40), dh = 4 + rng.below(20), dd = 3 + rng.below(12);
    Vol<T> d(dw, dh, dd, 8, 2, 0);
    vt::fillCanary(d.buf);
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

    // The same voxels, one allocation per plane at varying offsets.
    std::vector<vt::Buf<T>> srcPlanes(sd), dstPlanes(dd);
    std::vector<const T*> srcPtrs;
    std::vector<T*> dstPtrs;
    for (int z = 0; z < sd; ++z) {
        srcPlanes[z].reset(std::size_t(s.planeStep) / sizeof(T), 4 * (z % 3));
        std::memcpy(srcPlanes[z].data(), s.at(0, 0, z), s.planeStep);
        srcPtrs.push_back(srcPlanes[z].data());
    }
    for (int z = 0; z < dd; ++z) {
        dstPlanes[z].reset(std::size_t(d.planeStep) / sizeof(T), 4 * (z % 2));
        vt::fillCanary(dstPlanes[z]);
        dstPtrs.push_back(dstPlanes[z].data());
    }
    ASSERT_EQ(st, rt::Fns<T>::planar(srcPtrs.data(), rt::volumeOf(sw, sh, sd), s.step, a.srcVoi, dstPtrs.data(), d.step,
                                     a.dstVoi, a.factor[0], a.factor[1], a.factor[2], a.shift[0], a.shift[1],
                                     a.shift[2], code, buf.data()));
    for (int z = 0; z < dd; ++z)
        ASSERT_TRUE(vt::SameBits(reinterpret_cast<const std::uint8_t*>(d.at(0, 0, z)),
                                 reinterpret_cast<const std::uint8_t*>(dstPlanes[z].data()), d.planeStep))
            << "plane " << z << " code " << code;
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

// Restores the thread count a test changed.
struct ThreadCount {
    int saved = 1;
    ThreadCount() { vekGetNumThreads(&saved); }
    ~ThreadCount() { vekSetNumThreads(saved); }
};

// The float block resize splits regions of at least 16 voxels per axis into
// z slabs per thread. Depths 37 and 17 leave remainders for 2 and 3 threads;
// aligned and unaligned volumes run the vector and the scalar path. Each run
// sizes its buffer for the thread count it runs with.
TEST(ResizePaths, FloatBlockResizeIsIdenticalForOneTwoAndThreeThreads) {
    ThreadCount keep;
    struct Case {
        double f[3];
        int dd;
    } cases[] = {{{1.3, 1.1, 2.5}, 37}, {{0.9, 1.7, 1.21}, 17}};
    for (const Case& c : cases)
        for (int code : {1, 2, 6})
            for (std::size_t off : {std::size_t(0), std::size_t(4)}) {
                Vol<float> s(20, 18, 15, off, 4, 0);
                vt::Rng rng(code);
                rt::fillRandom(s, rng, -100, 100);
                Args a;
                a.interpolation = code;
                a.srcVoi = VekrCuboid{0, 0, 0, 20, 18, 15};
                a.dstVoi = VekrCuboid{1, 0, 2, 24, 20, c.dd};
                for (int k = 0; k < 3; ++k) a.factor[k] = c.f[k];
                std::vector<std::uint8_t> ref;
                for (int threads : {1, 2, 3}) {
                    ASSERT_EQ(vekStatusOk, vekSetNumThreads(threads));
                    Vol<float> d(26, 21, c.dd + 3, off, 4, 0);
                    vt::fillCanary(d.buf);
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
