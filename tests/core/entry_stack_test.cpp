// On i386 a caller built for the older 4-byte stack alignment may call in with
// the stack at any multiple of 4; the entry points that run SSE code must give
// the same results from there as from an aligned stack (their aligned spills
// of SSE registers would fault otherwise). A small trampoline calls an entry
// point with its arguments laid out as the i386 convention does, with the
// stack 4, 8 or 12 bytes past a 16-byte boundary at the call.
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include "mesh.h"
#include "testutil.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

// The argument words of one call, in order (pointers, ints, by-value records
// and doubles as their bytes, as the i386 convention passes them).
struct Words {
    std::vector<std::uint32_t> w;
    template <class T>
    Words& operator<<(const T& v) {
        static_assert(sizeof(T) % 4 == 0, "argument of whole words");
        std::uint32_t u[sizeof(T) / 4];
        std::memcpy(u, &v, sizeof(T));
        w.insert(w.end(), u, u + sizeof(T) / 4);
        return *this;
    }
};

#if defined(__i386__)
struct Call {
    const void* fn;
    const std::uint32_t* args;
    int n;
    int off;
};

// fn(args) with esp = 16k + off at the call; returns eax.
std::uint32_t callOffAlignment(const void* fn, const Words& a, int off) {
    const Call c{fn, a.w.data(), static_cast<int>(a.w.size()), off};
    std::uint32_t result;
    __asm__ volatile(
        "movl %%esp, %%edi\n\t"  // edi and esi survive the call
        "movl 8(%%esi), %%ecx\n\t"
        "leal 16(,%%ecx,4), %%eax\n\t"
        "subl %%eax, %%esp\n\t"
        "andl $-16, %%esp\n\t"
        "addl 12(%%esi), %%esp\n\t"
        "movl 4(%%esi), %%edx\n\t"
        "1:\n\t"
        "subl $1, %%ecx\n\t"
        "js 2f\n\t"
        "movl (%%edx,%%ecx,4), %%eax\n\t"
        "movl %%eax, (%%esp,%%ecx,4)\n\t"
        "jmp 1b\n\t"
        "2:\n\t"
        "call *(%%esi)\n\t"
        "movl %%edi, %%esp\n\t"
        : "=a"(result)
        : "S"(&c)
        : "ecx", "edx", "edi", "memory", "cc");
    return result;
}
#endif

// One entry point: `reset` restores its outputs, `call` makes a normal call
// and `words` gives the same arguments for the trampoline; `state` returns
// the outputs' bytes.
struct Case {
    const char* name;
    const void* fn;
    std::function<void()> reset;
    std::function<VekStatus()> call;
    std::function<Words()> words;
    std::function<std::vector<std::uint8_t>()> state;
};

TEST(EntryPoints, GiveTheSameResultsFromAStackOffSixteenByteAlignment) {
#if !defined(__i386__)
    GTEST_SKIP() << "x86-64 callers always keep the stack 16-byte aligned";
#else
    vt::Rng rng(5);
    // Directions and values for the spherical harmonics and the shading.
    const int n = 64;
    vt::Buf<float> x(n, 0), y(n, 0), z(n, 0), val(n, 0), dst(16 * 16 * n, 0), coeffs(16 * 16, 0);
    for (int i = 0; i < n; ++i) {
        x.data()[i] = rng.uniform(-1, 1);
        y.data()[i] = rng.uniform(-1, 1);
        z.data()[i] = rng.uniform(-1, 1);
        val.data()[i] = rng.uniform(0, 2);
    }
    int shSize = 0;
    ASSERT_EQ(vekrSHGetSize_32f(15, vekrSHRecurrence, &shSize), vekStatusOk);
    vt::Buf<std::uint8_t> shMem(static_cast<std::size_t>(shSize), 0);
    VekrSHState* sh = reinterpret_cast<VekrSHState*>(shMem.data());
    ASSERT_EQ(vekrSHInit_32f(sh, 15, vekrSHRecurrence), vekStatusOk);

    // A sphere for the KD build and the triangle normals.
    const vt::Mesh mesh = vt::makeSphere(12, 16, 1.0f);
    const VekrKDTreeBuildParams sah = {vekKDTreeBuildPSAH, 30, 0.5f, 64, nullptr};
    VekrKDTreeNode* tree = nullptr;
    int treeSize = 0;
    std::vector<float> triNorm(3 * mesh.numTriangles());

    // Packets for the dot product.
    const float* const a3[3] = {x.data(), y.data(), z.data()};
    const float* const b3[3] = {z.data(), x.data(), val.data()};
    vt::Buf<std::int32_t> mask(n, 0);
    for (int i = 0; i < n; ++i) mask.data()[i] = i % 5 == 0 ? -1 : 0;
    vt::Buf<float> dot(n, 0);

    // A small volume for resize and filter.
    const VekrVolume vol = {9, 7, 5};
    const VekrCuboid whole = {0, 0, 0, 9, 7, 5}, big = {0, 0, 0, 17, 13, 9};
    std::vector<float> src(9 * 7 * 5), rdst(17 * 13 * 9);
    for (auto& v : src) v = rng.uniform(0, 100);
    int rbuf = 0;
    ASSERT_EQ(vekrResizeGetBufSize(whole, big, 1, 6, &rbuf), vekStatusOk);
    std::vector<std::uint8_t> resizeBuf(static_cast<std::size_t>(rbuf));
    const double fx = 17.0 / 9, fy = 13.0 / 7, fz = 9.0 / 5, zero = 0.0;
    // Filter: a 3x3x3 kernel over the inner 7x5x3 voxels of a 9x7x5 volume.
    std::vector<std::int16_t> fsrc(9 * 7 * 5), fdst(9 * 7 * 5);
    for (auto& v : fsrc) v = static_cast<std::int16_t>(rng.below(2000) - 1000);
    std::vector<std::int32_t> kernel(27);
    for (auto& k : kernel) k = rng.below(9) - 4;
    const VekrVolume fvol = {7, 5, 3}, kvol = {3, 3, 3};
    const VekrPoint3D anchor = {1, 1, 1};
    // Source planes 0..4 (the kernel reaches one plane past the region on
    // each side, through the pointer array), destination planes 1..3.
    std::vector<const std::int16_t*> fsrcPlanes;
    std::vector<std::int16_t*> fdstPlanes;
    for (int p = 0; p < 5; ++p) fsrcPlanes.push_back(fsrc.data() + p * 63 + 9 + 1);
    for (int p = 1; p < 4; ++p) fdstPlanes.push_back(fdst.data() + p * 63 + 9 + 1);
    const std::int16_t* const* fsrcRegion = fsrcPlanes.data() + 1;
    int fbuf = 0;
    ASSERT_EQ(vekrFilterGetBufSize(fvol, kvol, 1, &fbuf), vekStatusOk);
    std::vector<std::uint8_t> filterBuf(static_cast<std::size_t>(fbuf));

    auto bytesOf = [](const void* p, std::size_t n) {
        const auto* b = static_cast<const std::uint8_t*>(p);
        return std::vector<std::uint8_t>(b, b + n);
    };
    const std::vector<Case> cases = {
        {"vekrSH_32f", reinterpret_cast<const void*>(&vekrSH_32f), [&] { std::memset(dst.data(), 0, 256 * n * 4); },
         [&] { return vekrSH_32f(x.data(), y.data(), z.data(), n, dst.data(), 15, sh); },
         [&] { return Words() << x.data() << y.data() << z.data() << n << dst.data() << 15u << sh; },
         [&] { return bytesOf(dst.data(), 256 * n * 4); }},
        {"vekrSHTFwd_32f_C1I", reinterpret_cast<const void*>(&vekrSHTFwd_32f_C1I),
         [&] { std::memset(coeffs.data(), 0, 256 * 4); },
         [&] { return vekrSHTFwd_32f_C1I(x.data(), y.data(), z.data(), val.data(), n, coeffs.data(), 15, sh); },
         [&] { return Words() << x.data() << y.data() << z.data() << val.data() << n << coeffs.data() << 15u << sh; },
         [&] { return bytesOf(coeffs.data(), 256 * 4); }},
        {"vekrKDTreeBuildAlloc", reinterpret_cast<const void*>(&vekrKDTreeBuildAlloc),
         [&] {
             vekrKDTreeFree(tree);
             tree = nullptr;
         },
         [&] {
             return vekrKDTreeBuildAlloc(&tree, mesh.vertices.data(), mesh.triangles.data(), mesh.numVertices(),
                                         mesh.numTriangles(), &treeSize, &sah);
         },
         [&] {
             return Words() << &tree << mesh.vertices.data() << mesh.triangles.data() << mesh.numVertices()
                            << mesh.numTriangles() << &treeSize << &sah;
         },
         [&] { return tree ? bytesOf(tree, static_cast<std::size_t>(treeSize)) : std::vector<std::uint8_t>(); }},
        {"vekrTriangleNormal_32f", reinterpret_cast<const void*>(&vekrTriangleNormal_32f),
         [&] { std::fill(triNorm.begin(), triNorm.end(), 0.0f); },
         [&] {
             return vekrTriangleNormal_32f(mesh.vertices.data(), mesh.triangles.data(), triNorm.data(),
                                           mesh.numTriangles());
         },
         [&] {
             return Words() << mesh.vertices.data() << mesh.triangles.data() << triNorm.data() << mesh.numTriangles();
         },
         [&] { return bytesOf(triNorm.data(), triNorm.size() * 4); }},
        {"vekrDot_32f_P3C1M", reinterpret_cast<const void*>(&vekrDot_32f_P3C1M),
         [&] { std::memset(dot.data(), 0, n * 4); },
         [&] { return vekrDot_32f_P3C1M(a3, b3, mask.data(), dot.data(), n); },
         [&] { return Words() << &a3[0] << &b3[0] << mask.data() << dot.data() << n; },
         [&] { return bytesOf(dot.data(), n * 4); }},
        {"vekrResize_32f_C1V", reinterpret_cast<const void*>(&vekrResize_32f_C1V),
         [&] { std::fill(rdst.begin(), rdst.end(), 0.0f); },
         [&] {
             return vekrResize_32f_C1V(src.data(), vol, 9 * 4, 63 * 4, whole, rdst.data(), 17 * 4, 221 * 4, big, fx, fy,
                                       fz, zero, zero, zero, 6, resizeBuf.data());
         },
         [&] {
             return Words() << src.data() << vol << 9 * 4 << 63 * 4 << whole << rdst.data() << 17 * 4 << 221 * 4 << big
                            << fx << fy << fz << zero << zero << zero << 6 << resizeBuf.data();
         },
         [&] { return bytesOf(rdst.data(), rdst.size() * 4); }},
        {"vekrFilter_16s_C1PV", reinterpret_cast<const void*>(&vekrFilter_16s_C1PV),
         [&] { std::fill(fdst.begin(), fdst.end(), std::int16_t(0)); },
         [&] {
             return vekrFilter_16s_C1PV(fsrcRegion, 9 * 2, fdstPlanes.data(), 9 * 2, fvol, kernel.data(), kvol, anchor,
                                        7, filterBuf.data());
         },
         [&] {
             return Words() << fsrcRegion << 9 * 2 << fdstPlanes.data() << 9 * 2 << fvol << kernel.data() << kvol
                            << anchor << 7 << filterBuf.data();
         },
         [&] { return bytesOf(fdst.data(), fdst.size() * 2); }},
    };
    for (const Case& c : cases) {
        c.reset();
        ASSERT_EQ(c.call(), vekStatusOk) << c.name;
        const std::vector<std::uint8_t> want = c.state();
        ASSERT_FALSE(want.empty()) << c.name;
        for (int off : {4, 8, 12}) {
            c.reset();
            EXPECT_EQ(callOffAlignment(c.fn, c.words(), off), static_cast<std::uint32_t>(vekStatusOk))
                << c.name << ", stack offset " << off;
            EXPECT_TRUE(vt::SameBits(want, c.state())) << c.name << ", stack offset " << off;
        }
    }
    vekrKDTreeFree(tree);
#endif
}

}  // namespace
