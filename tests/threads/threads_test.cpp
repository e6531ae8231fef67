// Every operation that runs a parallel region, on work large enough to be
// split: the same bytes for one, two and three library threads, and the same
// bytes again when three application threads call the operations at once on
// their own outputs. Built under ThreadSanitizer (tools/sanitize.sh tsan) with
// an OpenMP runtime whose synchronisation the sanitizer understands, this is
// the race test of the library; in the other builds it is a determinism test.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "mesh.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// A deterministic pseudo-random sequence (no library state involved).
struct Lcg {
    std::uint32_t s;
    explicit Lcg(std::uint32_t seed) : s(seed) {}
    std::uint32_t next() { return s = s * 1664525u + 1013904223u; }
    float uniform(float lo, float hi) { return lo + (hi - lo) * static_cast<float>(next() >> 8) / 16777216.0f; }
};

template <class T>
Bytes asBytes(const std::vector<T>& v) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(v.data());
    return Bytes(p, p + v.size() * sizeof(T));
}

// A planar volume in one vector, with its plane pointers.
template <class T>
struct Vol {
    int w, h, d;
    std::vector<T> data;
    std::vector<T*> planes;
    Vol(int w_, int h_, int d_, std::uint32_t seed) : w(w_), h(h_), d(d_), data(static_cast<std::size_t>(w * h * d)) {
        Lcg g(seed);
        for (auto& v : data) v = static_cast<T>(g.uniform(0.0f, 200.0f));
        for (int z = 0; z < d; ++z) planes.push_back(data.data() + static_cast<std::size_t>(z) * w * h);
    }
    int step() const { return w * static_cast<int>(sizeof(T)); }
};

const VekrVolume kSrc{14, 13, 12};
const VekrCuboid kSrcVoi{0, 0, 0, 14, 13, 12};
const VekrCuboid kDstVoi{0, 0, 0, 22, 20, 18};

template <class T>
Bytes resizePV(int code) {
    Vol<T> src(kSrc.width, kSrc.height, kSrc.depth, 1), dst(22, 20, 18, 2);
    int size = 0;
    EXPECT_EQ(vekrResizeGetBufSize(kSrcVoi, kDstVoi, 1, code, &size), vekStatusOk);
    std::vector<std::uint8_t> buf(static_cast<std::size_t>(size));
    VekStatus st;
    if constexpr (sizeof(T) == 1)
        st = vekrResize_8u_C1PV(src.planes.data(), kSrc, src.step(), kSrcVoi, dst.planes.data(), dst.step(), kDstVoi,
                                1.6, 1.55, 1.5, 0.0, 0.25, 0.0, code, buf.data());
    else if constexpr (sizeof(T) == 2)
        st = vekrResize_16u_C1PV(src.planes.data(), kSrc, src.step(), kSrcVoi, dst.planes.data(), dst.step(),
                                 kDstVoi, 1.6, 1.55, 1.5, 0.0, 0.25, 0.0, code, buf.data());
    else
        st = vekrResize_32f_C1PV(src.planes.data(), kSrc, src.step(), kSrcVoi, dst.planes.data(), dst.step(),
                                 kDstVoi, 1.6, 1.55, 1.5, 0.0, 0.25, 0.0, code, buf.data());
    EXPECT_EQ(st, vekStatusOk);
    return asBytes(dst.data);
}

template <class T>
Bytes resizeV(int code) {
    Vol<T> src(kSrc.width, kSrc.height, kSrc.depth, 3), dst(22, 20, 18, 4);
    int size = 0;
    EXPECT_EQ(vekrResizeGetBufSize(kSrcVoi, kDstVoi, 1, code, &size), vekStatusOk);
    std::vector<std::uint8_t> buf(static_cast<std::size_t>(size));
    const int sp = src.step() * src.h, dp = dst.step() * dst.h;
    VekStatus st;
    if constexpr (sizeof(T) == 1)
        st = vekrResize_8u_C1V(src.data.data(), kSrc, src.step(), sp, kSrcVoi, dst.data.data(), dst.step(), dp,
                               kDstVoi, 1.6, 1.55, 1.5, 0.0, 0.25, 0.0, code, buf.data());
    else if constexpr (sizeof(T) == 2)
        st = vekrResize_16u_C1V(src.data.data(), kSrc, src.step(), sp, kSrcVoi, dst.data.data(), dst.step(), dp,
                                kDstVoi, 1.6, 1.55, 1.5, 0.0, 0.25, 0.0, code, buf.data());
    else
        st = vekrResize_32f_C1V(src.data.data(), kSrc, src.step(), sp, kSrcVoi, dst.data.data(), dst.step(), dp,
                                kDstVoi, 1.6, 1.55, 1.5, 0.0, 0.25, 0.0, code, buf.data());
    EXPECT_EQ(st, vekStatusOk);
    return asBytes(dst.data);
}

template <class T>
Bytes remap(int code) {
    Vol<T> src(kSrc.width, kSrc.height, kSrc.depth, 5), dst(18, 17, 16, 6);
    Vol<float> mx(18, 17, 16, 0), my(18, 17, 16, 0), mz(18, 17, 16, 0);
    Lcg g(7);
    for (std::size_t i = 0; i < mx.data.size(); ++i) {
        mx.data[i] = g.uniform(-1.0f, 15.0f);
        my.data[i] = g.uniform(-1.0f, 14.0f);
        mz.data[i] = g.uniform(-1.0f, 13.0f);
    }
    const VekrVolume dv{18, 17, 16};
    VekStatus st;
    if constexpr (sizeof(T) == 1)
        st = vekrRemap_8u_C1PV(src.planes.data(), kSrc, src.step(), kSrcVoi, mx.planes.data(), my.planes.data(),
                               mz.planes.data(), mx.step(), dst.planes.data(), dst.step(), dv, code);
    else if constexpr (sizeof(T) == 2)
        st = vekrRemap_16u_C1PV(src.planes.data(), kSrc, src.step(), kSrcVoi, mx.planes.data(), my.planes.data(),
                                mz.planes.data(), mx.step(), dst.planes.data(), dst.step(), dv, code);
    else
        st = vekrRemap_32f_C1PV(src.planes.data(), kSrc, src.step(), kSrcVoi, mx.planes.data(), my.planes.data(),
                                mz.planes.data(), mx.step(), dst.planes.data(), dst.step(), dv, code);
    EXPECT_EQ(st, vekStatusOk);
    return asBytes(dst.data);
}

template <class T>
Bytes warp(int code) {
    Vol<T> src(kSrc.width, kSrc.height, kSrc.depth, 8), dst(18, 17, 16, 9);
    const double c[3][4] = {{0.9, 0.2, 0.0, -1.0}, {-0.2, 0.9, 0.1, 0.5}, {0.0, -0.1, 1.1, 0.25}};
    const VekrCuboid dv{0, 0, 0, 18, 17, 16};
    VekStatus st;
    if constexpr (sizeof(T) == 1)
        st = vekrWarpAffine_8u_C1PV(src.planes.data(), kSrc, src.step(), kSrcVoi, dst.planes.data(), dst.step(), dv,
                                    c, code, nullptr);
    else if constexpr (sizeof(T) == 2)
        st = vekrWarpAffine_16u_C1PV(src.planes.data(), kSrc, src.step(), kSrcVoi, dst.planes.data(), dst.step(), dv,
                                     c, code, nullptr);
    else
        st = vekrWarpAffine_32f_C1PV(src.planes.data(), kSrc, src.step(), kSrcVoi, dst.planes.data(), dst.step(), dv,
                                     c, code, nullptr);
    EXPECT_EQ(st, vekStatusOk);
    return asBytes(dst.data);
}

Bytes filter(int kernelWidth) {
    // Destination 18 x 17 x 16 with a 3 x 3 x 3 (or 5 x 3 x 3) kernel: the
    // source holds the border around it, the anchor in the kernel's middle.
    const int kw = kernelWidth, kh = 3, kd = 3, w = 18, h = 17, d = 16;
    Vol<std::int16_t> src(w + kw - 1, h + kh - 1, d + kd - 1, 10), dst(w, h, d, 11);
    const VekrPoint3D anchor{kw / 2, 1, 1};
    std::vector<const std::int16_t*> planes;
    for (int z = 0; z < src.d; ++z)
        planes.push_back(src.planes[static_cast<std::size_t>(z)] + (kh - 1 - anchor.y) * src.w + (kw - 1 - anchor.x));
    std::vector<std::int32_t> kernel(static_cast<std::size_t>(kw * kh * kd));
    Lcg g(12);
    for (auto& k : kernel) k = static_cast<std::int32_t>(g.next() % 200) - 100;
    int size = 0;
    EXPECT_EQ(vekrFilterGetBufSize(VekrVolume{w, h, d}, VekrVolume{kw, kh, kd}, 1, &size), vekStatusOk);
    std::vector<std::uint8_t> buf(static_cast<std::size_t>(size));
    EXPECT_EQ(vekrFilter_16s_C1PV(planes.data() + (kd - 1 - anchor.z), src.step(), dst.planes.data(), dst.step(),
                                  VekrVolume{w, h, d}, kernel.data(), VekrVolume{kw, kh, kd}, anchor, 7, buf.data()),
              vekStatusOk);
    return asBytes(dst.data);
}

Bytes triangleNormals() {
    vt::Mesh m;
    Lcg g(13);
    for (int i = 0; i < 600; ++i) m.addVertex(g.uniform(-1, 1), g.uniform(-1, 1), g.uniform(-1, 1));
    for (int t = 0; t < 1001; ++t)
        m.addTriangle(static_cast<int>(g.next() % 600), static_cast<int>(g.next() % 600),
                      static_cast<int>(g.next() % 600));
    std::vector<float> out(3 * 1001);
    EXPECT_EQ(vekrTriangleNormal_32f(m.vertices.data(), m.triangles.data(), out.data(), m.numTriangles()),
              vekStatusOk);
    return asBytes(out);
}

// A scene large enough for the surface-area build to search the axes of its
// first nodes in a parallel region.
Bytes kdBuild() {
    vt::Mesh m;
    Lcg g(14);
    const int n = 70000;
    for (int t = 0; t < n; ++t) {
        float x = g.uniform(-10, 10), y = g.uniform(-10, 10), z = g.uniform(-10, 10);
        int b = m.numVertices();
        m.addVertex(x, y, z);
        m.addVertex(x + g.uniform(0, 0.2f), y, z + g.uniform(0, 0.2f));
        m.addVertex(x, y + g.uniform(0, 0.2f), z);
        m.addTriangle(b, b + 1, b + 2);
    }
    VekrKDTreeBuildParams p{vekKDTreeBuildPSAH, 20, 0.5f, 512, nullptr};
    VekrKDTreeNode* tree = nullptr;
    int size = 0;
    EXPECT_EQ(vekrKDTreeBuildAlloc(&tree, m.vertices.data(), m.triangles.data(), m.numVertices(), m.numTriangles(),
                                   &size, &p),
              vekStatusOk);
    if (tree == nullptr) return {};
    const auto* b = reinterpret_cast<const std::uint8_t*>(tree);
    Bytes out(b, b + size);
    vekrKDTreeFree(tree);
    return out;
}

struct Case {
    std::string name;
    std::function<Bytes()> run;
};

std::vector<Case> cases() {
    std::vector<Case> c = {
        {"TriangleNormal", triangleNormals},
        {"Filter3", [] { return filter(3); }},
        {"Filter5", [] { return filter(5); }},
    };
    for (int code : {1, 2, 4, 6}) {
        std::string k = std::to_string(code);
        c.push_back({"Resize8uPV_" + k, [code] { return resizePV<std::uint8_t>(code); }});
        c.push_back({"Resize16uPV_" + k, [code] { return resizePV<std::uint16_t>(code); }});
        c.push_back({"Resize32fPV_" + k, [code] { return resizePV<float>(code); }});
        c.push_back({"Resize8uV_" + k, [code] { return resizeV<std::uint8_t>(code); }});
        c.push_back({"Resize16uV_" + k, [code] { return resizeV<std::uint16_t>(code); }});
        c.push_back({"Resize32fV_" + k, [code] { return resizeV<float>(code); }});
        c.push_back({"Remap8u_" + k, [code] { return remap<std::uint8_t>(code); }});
        c.push_back({"Remap16u_" + k, [code] { return remap<std::uint16_t>(code); }});
        c.push_back({"Remap32f_" + k, [code] { return remap<float>(code); }});
        c.push_back({"Warp8u_" + k, [code] { return warp<std::uint8_t>(code); }});
        c.push_back({"Warp16u_" + k, [code] { return warp<std::uint16_t>(code); }});
        c.push_back({"Warp32f_" + k, [code] { return warp<float>(code); }});
    }
    return c;
}

TEST(ParallelRegions, SameBytesForOneTwoAndThreeThreads) {
    for (const auto& c : cases()) {
        vekSetNumThreads(1);
        Bytes ref = c.run();
        ASSERT_FALSE(ref.empty()) << c.name;
        for (int t = 2; t <= 3; ++t) {
            vekSetNumThreads(t);
            EXPECT_TRUE(c.run() == ref) << c.name << " with " << t << " threads";
        }
    }
    vekSetNumThreads(1);
}

TEST(ParallelRegions, SurfaceAreaBuildOfALargeSceneIsTheSameEveryTime) {
    Bytes ref = kdBuild();
    ASSERT_FALSE(ref.empty());
    EXPECT_TRUE(kdBuild() == ref);
}

// Three application threads at once, each on its own outputs, with two
// library threads each: every result as in a lone single-threaded call.
TEST(ParallelRegions, ConcurrentCallersOnDisjointOutputsGetTheLoneResults) {
    auto all = cases();
    vekSetNumThreads(1);
    std::vector<Bytes> ref;
    for (const auto& c : all) ref.push_back(c.run());
    vekSetNumThreads(2);
    std::vector<std::vector<Bytes>> got(3);
    std::vector<std::thread> callers;
    for (int k = 0; k < 3; ++k)
        callers.emplace_back([&, k] {
            // Each caller starts at another case so that different operations overlap.
            for (std::size_t i = 0; i < all.size(); ++i) got[static_cast<std::size_t>(k)].push_back(
                all[(i + static_cast<std::size_t>(k) * 7) % all.size()].run());
        });
    for (auto& t : callers) t.join();
    vekSetNumThreads(1);
    for (std::size_t k = 0; k < 3; ++k)
        for (std::size_t i = 0; i < all.size(); ++i) {
            std::size_t c = (i + k * 7) % all.size();
            EXPECT_TRUE(got[k][i] == ref[c]) << all[c].name << " in caller " << k;
        }
}

}  // namespace
