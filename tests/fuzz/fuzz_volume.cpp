// Fuzz harness for volume processing: resize (both layouts), remap, affine
// warp and the 3-D filter for every element type, with fuzzed volumes,
// regions, steps, factors, shifts, interpolation codes, maps, matrices,
// kernels, anchors, divisors and thread counts 1 to 3, plus the buffer-size
// queries on sizes whose products overflow 32 bits. Planes and work buffers
// end on inaccessible pages (work buffers are exactly the reported size);
// voxels outside the region an operation may write must keep their value, a
// refused call writes nothing, and the same call with other steps, plane
// alignments and thread counts gives the same bits.
#include <vector>

#include "fuzz_util.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

using fz::Guarded;
using fz::Place;
using fz::Reader;

const int kInterp[] = {1, 2, 4, 5, 6, 7, 1, 2, 4, 6, 3, 0, 8, -1};

// A planar volume of w x h x d voxels of T, `pad` elements of slack per row;
// every plane its own mapping, ending on a guard page (layout 0: the row
// step a multiple of 16 bytes, planes page-aligned at the start instead).
template <class T>
struct PlanarVol {
    int w = 0, h = 0, d = 0, step = 0;  // step in bytes
    std::vector<Guarded<T>*> planes;
    std::vector<T*> ptr;
    PlanarVol(int w_, int h_, int d_, int pad, int layout) : w(w_), h(h_), d(d_) {
        int rowElems = w + pad;
        if (layout == 0) rowElems = (rowElems * static_cast<int>(sizeof(T)) + 15) / 16 * 16 / static_cast<int>(sizeof(T));
        step = rowElems * static_cast<int>(sizeof(T));
        for (int z = 0; z < d; ++z) {
            auto* g = new Guarded<T>(static_cast<std::size_t>(rowElems) * static_cast<std::size_t>(h),
                                     layout == 0 ? Place::Head : Place::Tail, 0);
            planes.push_back(g);
            ptr.push_back(g->data());
        }
    }
    ~PlanarVol() {
        for (auto* g : planes) delete g;
    }
    T& at(int x, int y, int z) { return ptr[static_cast<std::size_t>(z)][y * (step / static_cast<int>(sizeof(T))) + x]; }
    bool intact() const {
        for (auto* g : planes)
            if (!g->canariesIntact()) return false;
        return true;
    }
};

template <class T>
T value(Reader& r) {
    if (sizeof(T) == 4) {
        float f = r.f32();
        T t;
        std::memcpy(&t, &f, sizeof(T));
        return t;
    }
    return static_cast<T>(r.u16());
}

template <class T>
bool sameVoxel(T a, T b) {
    if (std::memcmp(&a, &b, sizeof(T)) == 0) return true;
    if (sizeof(T) == 4) {
        float fa, fb;
        std::memcpy(&fa, &a, 4);
        std::memcpy(&fb, &b, 4);
        return std::isnan(fa) && std::isnan(fb);
    }
    return false;
}

// Contents of the source and of the destination before the call, in
// voxel order, from a seed that every layout replays.
template <class T>
std::vector<T> voxels(Reader& r, std::size_t n) {
    std::vector<T> v(n);
    for (auto& e : v) e = value<T>(r);
    return v;
}

template <class T>
void load(PlanarVol<T>& v, const std::vector<T>& init) {
    std::size_t i = 0;
    for (int z = 0; z < v.d; ++z)
        for (int y = 0; y < v.h; ++y)
            for (int x = 0; x < v.w; ++x) v.at(x, y, z) = init[i++];
}

template <class T>
std::vector<T> store(PlanarVol<T>& v) {
    std::vector<T> out;
    for (int z = 0; z < v.d; ++z)
        for (int y = 0; y < v.h; ++y)
            for (int x = 0; x < v.w; ++x) out.push_back(v.at(x, y, z));
    return out;
}

VekrCuboid cuboid(Reader& r, int maxX, int maxW) {
    VekrCuboid c;
    c.x = r.u8() < 240 ? r.range(0, maxX) : r.count(0);
    c.y = r.u8() < 240 ? r.range(0, maxX) : r.count(0);
    c.z = r.u8() < 240 ? r.range(0, maxX) : r.count(0);
    c.width = r.u8() < 240 ? r.range(1, maxW) : r.count(0);
    c.height = r.u8() < 240 ? r.range(1, maxW) : r.count(0);
    c.depth = r.u8() < 240 ? r.range(1, maxW) : r.count(0);
    return c;
}

bool badCuboid(const VekrCuboid& c) {
    return c.x < 0 || c.width < 1 || c.y < 0 || c.height < 1 || c.z < 0 || c.depth < 1;
}

bool badInterp(int code) { return !(code == 1 || code == 2 || (code >= 4 && code <= 7)); }

// ---------------------------------------------------------------------------
// Buffer-size queries on sizes that overflow 32 bits: each size is either the
// documented formula (computed here in 64 bits) or vekStatusBadSize.

std::int64_t resizeBufSize(std::int64_t W, std::int64_t H, std::int64_t D, int code, std::int64_t T) {
    auto u16 = [](std::int64_t n) { return (n + 15) / 16 * 16; };
    auto u64 = [](std::int64_t n) { return (n + 63) / 64 * 64; };
    auto f64 = [](std::int64_t n) { return n / 64 * 64; };
    std::int64_t P = 4 * (u16(W) + u16(H) + u16(D) + u64(W) + u64(H) + u64(D));
    std::int64_t per;
    if (code == 1) per = 64 * ((W + 15) / 16 + (H + 15) / 16 + (D + 15) / 16);
    else if (code == 2) per = P + 256 * ((2 * W + 127) / 64 + (8 * (W + H) + 127) / 64) + 8 * H * u64(W);
    else per = P + 16 * H * u64(W) + 4 * ((f64(128 * (W + H) + 255) + f64(4 * W + 255)) + f64(4 * W + 255) +
                                          f64(4 * H + 255) + f64(4 * D + 255));
    return (per + 64) * T;
}

int hugeExtent(Reader& r) {
    static const int kHuge[] = {65536, 46341, 46340, INT_MAX, 1 << 30, 1 << 20, 16384, 1, 2, 255, 256, 1 << 27};
    return r.u8() < 200 ? r.pick(kHuge) : r.range(1, INT_MAX);
}

void checkSizeQueries(Reader& r) {
    static const int kManyThreads[] = {1 << 16, 1 << 20, INT_MAX, 7, 1 << 10};
    int threads = r.u8() < 200 ? r.range(1, 3) : r.pick(kManyThreads);
    vekSetNumThreads(threads);
    VekrCuboid src{0, 0, 0, 1, 1, 1};
    VekrCuboid dst{r.range(0, 3), r.range(0, 3), r.range(0, 3), hugeExtent(r), hugeExtent(r), hugeExtent(r)};
    int code = r.pick(kInterp);
    int size = -77;
    VekStatus st = vekrResizeGetBufSize(src, dst, 1, code, &size);
    if (badInterp(code)) {
        FUZZ_CHECK(st == vekStatusBadInterpolation && size == -77, "resize buffer: status %d", st);
    } else {
        // Far beyond the int range the 64-bit formula itself would overflow.
        double approx =
            (16.0 * (dst.height + 1.0) * (dst.width + 64.0) + 1000.0 * (static_cast<double>(dst.width) + dst.height + dst.depth) + 1e4) *
            threads;
        std::int64_t want = approx > 1e18 ? INT64_MAX : resizeBufSize(dst.width, dst.height, dst.depth, code, threads);
        if (want > INT_MAX)
            FUZZ_CHECK(st == vekStatusBadSize && size == -77, "resize buffer %dx%dx%d code %d T %d: status %d size %d "
                       "(needs %lld)", dst.width, dst.height, dst.depth, code, threads, st, size,
                       static_cast<long long>(want));
        else
            FUZZ_CHECK(st == vekStatusOk && size == want, "resize buffer %dx%dx%d code %d T %d: status %d size %d, "
                       "expected %lld", dst.width, dst.height, dst.depth, code, threads, st, size,
                       static_cast<long long>(want));
    }

    VekrVolume dv{hugeExtent(r), hugeExtent(r), hugeExtent(r)};
    VekrVolume kv{hugeExtent(r), hugeExtent(r), hugeExtent(r)};
    size = -77;
    st = vekrFilterGetBufSize(dv, kv, 1, &size);
    // The product of three kernel extents overflows 64 bits too: an estimate
    // in double decides first whether the exact formula can be formed.
    double approx = (32.0 * ((kv.width + 1.0) / 2.0) * kv.height * kv.depth + 64.0 * dv.width) * threads;
    std::int64_t want = INT64_MAX;
    if (approx < 1e18)
        want = (64 * ((static_cast<std::int64_t>(dv.width) + 15) / 16) +
                32 * ((static_cast<std::int64_t>(kv.width) + 1) / 2) * kv.height * kv.depth + 32) *
               threads;
    if (want > INT_MAX)
        FUZZ_CHECK(st == vekStatusBadSize && size == -77, "filter buffer: status %d size %d", st, size);
    else
        FUZZ_CHECK(st == vekStatusOk && size == want, "filter buffer %d/%dx%dx%d T %d: status %d size %d, expected "
                   "%lld", dv.width, kv.width, kv.height, kv.depth, threads, st, size, static_cast<long long>(want));
    vekSetNumThreads(1);
}

// ---------------------------------------------------------------------------
// Resize

template <class T>
VekStatus resizePV(const T* const* s, VekrVolume sv, int ss, VekrCuboid sr, T* const* d, int ds, VekrCuboid dr,
                   const double* f, int code, std::uint8_t* buf);
#define VEKR_FUZZ_RESIZE(T, fn)                                                                                  \
    template <>                                                                                                  \
    VekStatus resizePV<T>(const T* const* s, VekrVolume sv, int ss, VekrCuboid sr, T* const* d, int ds,         \
                          VekrCuboid dr, const double* f, int code, std::uint8_t* buf) {                         \
        return fn(s, sv, ss, sr, d, ds, dr, f[0], f[1], f[2], f[3], f[4], f[5], code, buf);                      \
    }
VEKR_FUZZ_RESIZE(std::uint8_t, vekrResize_8u_C1PV)
VEKR_FUZZ_RESIZE(std::uint16_t, vekrResize_16u_C1PV)
VEKR_FUZZ_RESIZE(float, vekrResize_32f_C1PV)
#undef VEKR_FUZZ_RESIZE

template <class T>
VekStatus resizeV(const T* s, VekrVolume sv, int ss, int sp, VekrCuboid sr, T* d, int ds, int dp, VekrCuboid dr,
                  const double* f, int code, std::uint8_t* buf);
#define VEKR_FUZZ_RESIZE(T, fn)                                                                                  \
    template <>                                                                                                  \
    VekStatus resizeV<T>(const T* s, VekrVolume sv, int ss, int sp, VekrCuboid sr, T* d, int ds, int dp,        \
                         VekrCuboid dr, const double* f, int code, std::uint8_t* buf) {                          \
        return fn(s, sv, ss, sp, sr, d, ds, dp, dr, f[0], f[1], f[2], f[3], f[4], f[5], code, buf);              \
    }
VEKR_FUZZ_RESIZE(std::uint8_t, vekrResize_8u_C1V)
VEKR_FUZZ_RESIZE(std::uint16_t, vekrResize_16u_C1V)
VEKR_FUZZ_RESIZE(float, vekrResize_32f_C1V)
#undef VEKR_FUZZ_RESIZE

// A block (C1V) volume: one mapping, planes `planeStep` bytes apart.
template <class T>
struct BlockVol {
    int w, h, d, step, planeStep;
    Guarded<T> mem;
    BlockVol(int w_, int h_, int d_, int pad, int layout) : w(w_), h(h_), d(d_) {
        int row = w + pad;
        step = row * static_cast<int>(sizeof(T));
        planeStep = step * h + static_cast<int>(sizeof(T)) * (layout == 0 ? 0 : pad);
        mem.reset(static_cast<std::size_t>(planeStep / static_cast<int>(sizeof(T))) * static_cast<std::size_t>(d),
                  layout == 0 ? Place::Head : Place::Tail, 0);
    }
    T& at(int x, int y, int z) {
        return mem.data()[(z * planeStep + y * step) / static_cast<int>(sizeof(T)) + x];
    }
};

template <class T>
void fuzzResize(Reader& r) {
    bool block = r.bit();
    bool big = r.u8() < 12;
    VekrVolume sv{r.range(1, 8), r.range(1, 8), r.range(1, 6)};
    if (r.u8() < 12) sv.width = r.count(0);
    VekrCuboid sr = cuboid(r, 4, 10);
    static const double kFactors[] = {1.0, 2.0, 0.5, 3.0, 1.0 / 3.0, 0.25, 1.5, 8.0, 0.7, 1e-9, 1e9, 0.0, -1.0, NAN};
    double f[6];
    for (int a = 0; a < 3; ++a) f[a] = r.u8() < 230 ? r.pick(kFactors) : r.f64();
    for (int a = 3; a < 6; ++a) f[a] = r.u8() < 128 ? 0.0 : (r.u8() < 200 ? r.range(-8, 8) * 0.25 : r.f64());
    int code = r.pick(kInterp);
    VekrCuboid dr = cuboid(r, 4, big ? 18 : 10);
    int dw = dr.width > 0 && dr.x >= 0 ? dr.x + dr.width : 4;
    int dh = dr.height > 0 && dr.y >= 0 ? dr.y + dr.height : 4;
    int dd = dr.depth > 0 && dr.z >= 0 ? dr.z + dr.depth : 4;
    if (dw > 24 || dh > 24 || dd > 24) return;
    int threads[2] = {r.range(1, 3), r.range(1, 3)};
    int pads[2] = {r.range(0, 5), r.range(0, 5)};
    int nullArg = r.u8() < 12 ? r.range(0, 2) : -1;
    int sw = sv.width > 0 ? sv.width : 4;
    auto src = voxels<T>(r, static_cast<std::size_t>(sw * sv.height * sv.depth));
    auto dst0 = voxels<T>(r, static_cast<std::size_t>(dw * dh * dd));

    VekStatus expect = vekStatusOk;
    if (nullArg >= 0) expect = vekStatusNullPtr;
    else if (sv.width < 1 || sv.height < 1 || sv.depth < 1 || badCuboid(sr) || badCuboid(dr)) expect = vekStatusBadSize;
    else if (!(f[0] > 0) || !(f[1] > 0) || !(f[2] > 0)) expect = vekStatusBadResizeFactor;
    else if (badInterp(code)) expect = vekStatusBadInterpolation;

    std::vector<T> first;
    VekStatus firstStatus = vekStatusOk;
    for (int layout = 0; layout < 2; ++layout) {
        vekSetNumThreads(threads[layout]);
        int bufSize = 0;
        VekrCuboid qsr = badCuboid(sr) ? VekrCuboid{0, 0, 0, 1, 1, 1} : sr;
        VekrCuboid qdr = badCuboid(dr) ? VekrCuboid{0, 0, 0, 1, 1, 1} : dr;
        VekStatus bs = vekrResizeGetBufSize(qsr, qdr, 1, badInterp(code) ? 1 : code, &bufSize);
        FUZZ_CHECK(bs == vekStatusOk && bufSize > 0, "resize buffer size: status %d size %d", bs, bufSize);
        Guarded<std::uint8_t> buf(static_cast<std::size_t>(bufSize), Place::Tail);
        VekStatus st;
        std::vector<T> out;
        bool intact;
        if (block) {
            BlockVol<T> s(sw, sv.height, sv.depth, pads[layout], layout), d(dw, dh, dd, pads[1 - layout], layout);
            std::size_t i = 0;
            for (int z = 0; z < sv.depth; ++z)
                for (int y = 0; y < sv.height; ++y)
                    for (int x = 0; x < sw; ++x) s.at(x, y, z) = src[i++];
            i = 0;
            for (int z = 0; z < dd; ++z)
                for (int y = 0; y < dh; ++y)
                    for (int x = 0; x < dw; ++x) d.at(x, y, z) = dst0[i++];
            st = resizeV<T>(nullArg == 0 ? nullptr : s.mem.data(), sv, s.step, s.planeStep, sr,
                            nullArg == 1 ? nullptr : d.mem.data(), d.step, d.planeStep, dr, f, code,
                            nullArg == 2 ? nullptr : buf.data());
            for (int z = 0; z < dd; ++z)
                for (int y = 0; y < dh; ++y)
                    for (int x = 0; x < dw; ++x) out.push_back(d.at(x, y, z));
            intact = s.mem.canariesIntact() && d.mem.canariesIntact();
        } else {
            PlanarVol<T> s(sw, sv.height, sv.depth, pads[layout], layout), d(dw, dh, dd, pads[1 - layout], layout);
            load(s, src);
            load(d, dst0);
            st = resizePV<T>(nullArg == 0 ? nullptr : s.ptr.data(), sv, s.step, sr,
                             nullArg == 1 ? nullptr : d.ptr.data(), d.step, dr, f, code,
                             nullArg == 2 ? nullptr : buf.data());
            out = store(d);
            intact = s.intact() && d.intact();
        }
        FUZZ_CHECK(intact && buf.canariesIntact(), "resize (%s) wrote outside its arrays", block ? "V" : "PV");
        if (expect != vekStatusOk) FUZZ_CHECK(st == expect, "resize: status %d, expected %d", st, expect);
        else FUZZ_CHECK(st == vekStatusOk || st == vekStatusNoOperation || st == vekStatusVoiOutsideSrc,
                        "resize: status %d", st);
        // Only voxels inside dstVoi may change, and none on a refusal.
        std::size_t i = 0;
        for (int z = 0; z < dd; ++z)
            for (int y = 0; y < dh; ++y)
                for (int x = 0; x < dw; ++x, ++i) {
                    bool inside = st == vekStatusOk && x >= dr.x && y >= dr.y && z >= dr.z;
                    if (!inside)
                        FUZZ_CHECK(sameVoxel(out[i], dst0[i]), "resize (status %d) wrote voxel %d,%d,%d outside "
                                   "its region", st, x, y, z);
                }
        if (layout == 0) {
            first = out;
            firstStatus = st;
        } else {
            FUZZ_CHECK(st == firstStatus, "resize: status %d then %d", firstStatus, st);
            for (std::size_t k = 0; k < out.size(); ++k)
                FUZZ_CHECK(sameVoxel(out[k], first[k]), "resize (%s, code %d): voxel %zu depends on steps, "
                           "alignment or threads (%d, %d)", block ? "V" : "PV", code, k, threads[0], threads[1]);
        }
    }
}

// ---------------------------------------------------------------------------
// Remap and warp

template <class T>
VekStatus remap(const T* const* s, VekrVolume sv, int ss, VekrCuboid sr, const float* const* mx,
                const float* const* my, const float* const* mz, int ms, T* const* d, int ds, VekrVolume dv, int code);
template <>
VekStatus remap<std::uint8_t>(const std::uint8_t* const* s, VekrVolume sv, int ss, VekrCuboid sr,
                              const float* const* mx, const float* const* my, const float* const* mz, int ms,
                              std::uint8_t* const* d, int ds, VekrVolume dv, int code) {
    return vekrRemap_8u_C1PV(s, sv, ss, sr, mx, my, mz, ms, d, ds, dv, code);
}
template <>
VekStatus remap<std::uint16_t>(const std::uint16_t* const* s, VekrVolume sv, int ss, VekrCuboid sr,
                               const float* const* mx, const float* const* my, const float* const* mz, int ms,
                               std::uint16_t* const* d, int ds, VekrVolume dv, int code) {
    return vekrRemap_16u_C1PV(s, sv, ss, sr, mx, my, mz, ms, d, ds, dv, code);
}
template <>
VekStatus remap<float>(const float* const* s, VekrVolume sv, int ss, VekrCuboid sr, const float* const* mx,
                       const float* const* my, const float* const* mz, int ms, float* const* d, int ds,
                       VekrVolume dv, int code) {
    return vekrRemap_32f_C1PV(s, sv, ss, sr, mx, my, mz, ms, d, ds, dv, code);
}

template <class T>
VekStatus warp(const T* const* s, VekrVolume sv, int ss, VekrCuboid sr, T* const* d, int ds, VekrCuboid dr,
               const double c[3][4], int code);
template <>
VekStatus warp<std::uint8_t>(const std::uint8_t* const* s, VekrVolume sv, int ss, VekrCuboid sr,
                             std::uint8_t* const* d, int ds, VekrCuboid dr, const double c[3][4], int code) {
    return vekrWarpAffine_8u_C1PV(s, sv, ss, sr, d, ds, dr, c, code, nullptr);
}
template <>
VekStatus warp<std::uint16_t>(const std::uint16_t* const* s, VekrVolume sv, int ss, VekrCuboid sr,
                              std::uint16_t* const* d, int ds, VekrCuboid dr, const double c[3][4], int code) {
    return vekrWarpAffine_16u_C1PV(s, sv, ss, sr, d, ds, dr, c, code, nullptr);
}
template <>
VekStatus warp<float>(const float* const* s, VekrVolume sv, int ss, VekrCuboid sr, float* const* d, int ds,
                      VekrCuboid dr, const double c[3][4], int code) {
    return vekrWarpAffine_32f_C1PV(s, sv, ss, sr, d, ds, dr, c, code, nullptr);
}

template <class T>
void fuzzRemapWarp(Reader& r, bool isWarp) {
    bool big = r.u8() < 12;
    VekrVolume sv{r.range(1, 8), r.range(1, 8), r.range(1, 6)};
    if (r.u8() < 12) sv.depth = r.count(0);
    VekrCuboid sr = cuboid(r, 4, 10);
    int code = r.pick(kInterp);
    // Remap: the whole destination volume. Warp: the box dstVoi, which the
    // caller's planes must hold.
    VekrVolume dv{r.range(1, big ? 17 : 6), r.range(1, big ? 17 : 6), r.range(1, big ? 17 : 4)};
    if (!isWarp && r.u8() < 12) dv.height = r.count(0);
    VekrCuboid dr = cuboid(r, 3, big ? 17 : 6);
    if (isWarp) {
        dv.width = dr.width > 0 && dr.x >= 0 ? dr.x + dr.width : 4;
        dv.height = dr.height > 0 && dr.y >= 0 ? dr.y + dr.height : 4;
        dv.depth = dr.depth > 0 && dr.z >= 0 ? dr.z + dr.depth : 4;
        if (dv.width > 24 || dv.height > 24 || dv.depth > 24) return;
    }
    int dw = dv.width > 0 ? dv.width : 4, dh = dv.height > 0 ? dv.height : 4, dd = dv.depth > 0 ? dv.depth : 4;
    double coeffs[3][4];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) {
            std::uint8_t sel = r.u8();
            coeffs[i][j] = sel < 100 ? (i == j ? 1.0 : 0.0) : sel < 200 ? r.range(-16, 16) * 0.125 : r.f64();
        }
    int threads[2] = {r.range(1, 3), r.range(1, 3)};
    int pads[2] = {r.range(0, 5), r.range(0, 5)};
    int nullArg = r.u8() < 12 ? r.range(0, isWarp ? 1 : 4) : -1;
    int sd = sv.depth > 0 ? sv.depth : 2;
    auto src = voxels<T>(r, static_cast<std::size_t>(sv.width * sv.height * sd));
    auto dst0 = voxels<T>(r, static_cast<std::size_t>(dw * dh * dd));
    std::vector<float> maps[3];
    for (auto& m : maps) {
        m.resize(static_cast<std::size_t>(dw * dh * dd));
        for (float& v : m) {
            std::uint8_t sel = r.u8();
            v = sel < 160 ? r.range(-8, 72) * 0.125f : r.f32();
            if (code == 1 && std::isnan(v)) v = 0.5f;  // nearest: NaN must not be passed
        }
    }

    VekStatus expect = vekStatusOk;
    if (nullArg >= 0) expect = vekStatusNullPtr;
    else if (sv.width < 1 || sv.height < 1 || sv.depth < 1 || badCuboid(sr) ||
             (isWarp ? badCuboid(dr) : (dv.width < 1 || dv.height < 1 || dv.depth < 1)))
        expect = vekStatusBadSize;
    else if (!isWarp && badInterp(code)) expect = vekStatusBadInterpolation;

    std::vector<T> first;
    VekStatus firstStatus = vekStatusOk;
    for (int layout = 0; layout < 2; ++layout) {
        vekSetNumThreads(threads[layout]);
        PlanarVol<T> s(sv.width, sv.height, sd, pads[layout], layout);
        PlanarVol<T> d(dw, dh, dd, pads[1 - layout], layout);
        PlanarVol<float> mv[3] = {PlanarVol<float>(dw, dh, dd, pads[layout], layout),
                                  PlanarVol<float>(dw, dh, dd, pads[layout], layout),
                                  PlanarVol<float>(dw, dh, dd, pads[layout], layout)};
        load(s, src);
        load(d, dst0);
        for (int k = 0; k < 3; ++k) load(mv[k], maps[k]);
        VekStatus st;
        if (isWarp) {
            st = warp<T>(nullArg == 0 ? nullptr : s.ptr.data(), sv, s.step, sr, nullArg == 1 ? nullptr : d.ptr.data(),
                         d.step, dr, coeffs, code);
        } else {
            st = remap<T>(nullArg == 0 ? nullptr : s.ptr.data(), sv, s.step, sr,
                          nullArg == 2 ? nullptr : mv[0].ptr.data(), nullArg == 3 ? nullptr : mv[1].ptr.data(),
                          nullArg == 4 ? nullptr : mv[2].ptr.data(), mv[0].step,
                          nullArg == 1 ? nullptr : d.ptr.data(), d.step, dv, code);
        }
        std::vector<T> out = store(d);
        FUZZ_CHECK(s.intact() && d.intact() && mv[0].intact() && mv[1].intact() && mv[2].intact(),
                   "%s wrote outside its arrays", isWarp ? "warp" : "remap");
        if (expect != vekStatusOk) {
            FUZZ_CHECK(st == expect, "%s: status %d, expected %d", isWarp ? "warp" : "remap", st, expect);
        } else if (isWarp) {
            FUZZ_CHECK(st == vekStatusOk || st == vekStatusVoiOutsideSrc || st == vekStatusSingularTransform ||
                           st == vekStatusBadInterpolation,
                       "warp: status %d", st);
            if (badInterp(code) && st != vekStatusSingularTransform)
                FUZZ_CHECK(st == vekStatusBadInterpolation, "warp code %d: status %d", code, st);
        } else {
            FUZZ_CHECK(st == vekStatusOk || st == vekStatusVoiOutsideSrc, "remap: status %d", st);
        }
        std::size_t i = 0;
        for (int z = 0; z < dd; ++z)
            for (int y = 0; y < dh; ++y)
                for (int x = 0; x < dw; ++x, ++i) {
                    bool inside = st == vekStatusOk && (!isWarp || (x >= dr.x && y >= dr.y && z >= dr.z));
                    if (!inside)
                        FUZZ_CHECK(sameVoxel(out[i], dst0[i]), "%s (status %d) wrote voxel %d,%d,%d",
                                   isWarp ? "warp" : "remap", st, x, y, z);
                }
        if (layout == 0) {
            first = out;
            firstStatus = st;
        } else {
            FUZZ_CHECK(st == firstStatus, "%s: status %d then %d", isWarp ? "warp" : "remap", firstStatus, st);
            for (std::size_t k = 0; k < out.size(); ++k)
                FUZZ_CHECK(sameVoxel(out[k], first[k]), "%s code %d: voxel %zu depends on steps, alignment or "
                           "threads", isWarp ? "warp" : "remap", code, k);
        }
    }
    if (isWarp) {
        int size = -77;
        VekStatus st = vekrWarpAffineGetBufSize(sr, dr, r.u8() < 240 ? 1 : r.range(-1, 3), code, &size);
        FUZZ_CHECK(st != vekStatusOk || size == 0, "warp buffer size %d", size);
        FUZZ_CHECK(st == vekStatusOk || size == -77, "warp buffer size written on error %d", st);
    }
}

// ---------------------------------------------------------------------------
// Filter

void fuzzFilter(Reader& r) {
    bool big = r.u8() < 12;
    VekrVolume dv{r.range(1, big ? 17 : 8), r.range(1, big ? 17 : 6), r.range(1, big ? 17 : 4)};
    VekrVolume kv{r.range(1, 4), r.range(1, 3), r.range(1, 3)};
    if (r.u8() < 12) dv.depth = r.count(0);
    if (r.u8() < 12) kv.width = r.count(0);
    int kw = kv.width > 0 ? kv.width : 1, kh = kv.height, kd = kv.depth;
    VekrPoint3D anchor{r.range(0, kw - 1), r.range(0, kh - 1), r.range(0, kd - 1)};
    static const int kDivisors[] = {1, 2, 3, 7, -1, -5, 1000, 0, INT_MIN, INT_MAX, 65536};
    int divisor = r.pick(kDivisors);
    bool wide = r.u8() < 40;  // coefficients beyond 16 bits: the double-precision path
    std::vector<std::int32_t> kernel(static_cast<std::size_t>(kw * kh * kd));
    for (auto& k : kernel) k = wide ? r.i32() : static_cast<std::int16_t>(r.u16()) % 32767;
    int dw = dv.width, dh = dv.height, dd = dv.depth > 0 ? dv.depth : 2;
    int sw = dw + kw - 1, sh = dh + kh - 1, sdp = dd + kd - 1;
    int threads[2] = {r.range(1, 3), r.range(1, 3)};
    int pads[2] = {r.range(0, 5), r.range(0, 5)};
    int nullArg = r.u8() < 12 ? r.range(0, 3) : -1;
    auto src = voxels<std::uint16_t>(r, static_cast<std::size_t>(sw * sh * sdp));
    auto dst0 = voxels<std::uint16_t>(r, static_cast<std::size_t>(dw * dh * dd));

    VekStatus expect = vekStatusOk;
    if (nullArg >= 0) expect = vekStatusNullPtr;
    else if (dv.width < 1 || dv.height < 1 || dv.depth < 1 || kv.width < 1 || kv.height < 1 || kv.depth < 1 ||
             divisor == 0)
        expect = vekStatusBadSize;

    std::vector<std::uint16_t> first;
    for (int layout = 0; layout < 2; ++layout) {
        vekSetNumThreads(threads[layout]);
        int bufSize = -77;
        VekStatus bs = vekrFilterGetBufSize(VekrVolume{dw, dh, dd}, VekrVolume{kw, kh, kd}, 1, &bufSize);
        FUZZ_CHECK(bs == vekStatusOk && bufSize > 0, "filter buffer: status %d size %d", bs, bufSize);
        Guarded<std::uint8_t> buf(static_cast<std::size_t>(bufSize), Place::Tail);
        PlanarVol<std::uint16_t> s(sw, sh, sdp, pads[layout], layout), d(dw, dh, dd, pads[1 - layout], layout);
        load(s, src);
        load(d, dst0);
        // pSrc[0][0] is the source voxel under destination voxel (0, 0, 0):
        // the border of KW - 1 - anchor.x voxels lies before it.
        int sstepElems = s.step / 2;
        std::vector<const std::int16_t*> splanes;
        for (int z = 0; z < sdp; ++z)
            splanes.push_back(reinterpret_cast<const std::int16_t*>(s.ptr[static_cast<std::size_t>(z)]) +
                              (kh - 1 - anchor.y) * sstepElems + (kw - 1 - anchor.x));
        const std::int16_t* const* pSrc = splanes.data() + (kd - 1 - anchor.z);
        std::vector<std::int16_t*> dplanes;
        for (auto* p : d.ptr) dplanes.push_back(reinterpret_cast<std::int16_t*>(p));
        Guarded<std::int32_t> kbuf(kernel.size(), Place::Tail);
        std::memcpy(kbuf.data(), kernel.data(), kernel.size() * 4);
        VekStatus st = vekrFilter_16s_C1PV(nullArg == 0 ? nullptr : pSrc, s.step,
                                           nullArg == 1 ? nullptr : dplanes.data(), d.step, dv,
                                           nullArg == 2 ? nullptr : kbuf.data(), kv, anchor, divisor,
                                           nullArg == 3 ? nullptr : buf.data());
        std::vector<std::uint16_t> out = store(d);
        FUZZ_CHECK(s.intact() && d.intact() && buf.canariesIntact() && kbuf.canariesIntact(),
                   "filter wrote outside its arrays");
        FUZZ_CHECK(st == expect, "filter: status %d, expected %d", st, expect);
        if (st != vekStatusOk) FUZZ_CHECK(out == dst0, "refused filter (%d) wrote its destination", st);
        if (layout == 0) first = out;
        else FUZZ_CHECK(out == first, "filter depends on steps, alignment or threads (%d, %d)", threads[0], threads[1]);
    }
}

void fuzzCuboid(Reader& r) {
    VekrCuboid sr = cuboid(r, 100, 100);
    double f[6];
    for (double& v : f) v = r.u8() < 128 ? r.range(-8, 32) * 0.25 : r.f64();
    int code = r.pick(kInterp);
    VekrCuboid out{-1, -1, -1, -1, -1, -1};
    bool nul = r.u8() < 16;
    VekStatus st = vekrGetResizeCuboid(sr, nul ? nullptr : &out, f[0], f[1], f[2], f[3], f[4], f[5], code);
    VekStatus expect = vekStatusOk;
    if (nul) expect = vekStatusNullPtr;
    else if (badCuboid(sr)) expect = vekStatusBadSize;
    else if (!(f[0] > 0) || !(f[1] > 0) || !(f[2] > 0)) expect = vekStatusBadResizeFactor;
    else if (badInterp(code)) expect = vekStatusBadInterpolation;
    if (expect != vekStatusOk) FUZZ_CHECK(st == expect, "resize cuboid: status %d, expected %d", st, expect);
    else FUZZ_CHECK(st == vekStatusOk || st == vekStatusNoOperation || st == vekStatusBadSize,
                    "resize cuboid: status %d", st);
    if (st != vekStatusOk) {
        VekrCuboid untouched{-1, -1, -1, -1, -1, -1};
        FUZZ_CHECK(std::memcmp(&out, &untouched, sizeof out) == 0, "resize cuboid written with status %d", st);
    } else {
        FUZZ_CHECK(out.x >= 0 && out.y >= 0 && out.z >= 0 && out.width >= 1 && out.height >= 1 && out.depth >= 1,
                   "resize cuboid %d %d %d %d %d %d", out.x, out.y, out.z, out.width, out.height, out.depth);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Reader r(data, size);
    switch (r.u8() % 12) {
        case 0: fuzzResize<std::uint8_t>(r); break;
        case 1: fuzzResize<std::uint16_t>(r); break;
        case 2: fuzzResize<float>(r); break;
        case 3: fuzzRemapWarp<std::uint8_t>(r, false); break;
        case 4: fuzzRemapWarp<std::uint16_t>(r, false); break;
        case 5: fuzzRemapWarp<float>(r, false); break;
        case 6: fuzzRemapWarp<std::uint8_t>(r, true); break;
        case 7: fuzzRemapWarp<std::uint16_t>(r, true); break;
        case 8: fuzzRemapWarp<float>(r, true); break;
        case 9: fuzzFilter(r); break;
        case 10: checkSizeQueries(r); break;
        case 11: fuzzCuboid(r); break;
    }
    vekSetNumThreads(1);
    return 0;
}
