// The volume and single-plane workloads beside OpenCV in one process, on the
// same buffers: single-plane warp and remap (2048^2, cubic and linear, 8u and
// 32f), a 2048^2 -> 4096^2 plane resize, 3-D resizes (128^3 <-> 256^3) and
// the int16 3-D convolution. Each round times the library and OpenCV back to
// back (lib, cv, lib, cv ...); the best of N rounds counts, after one warm-up.
// Once per row the two outputs are compared on interior voxels (mean absolute
// difference) so that a row cannot silently time different work.
//
//   bench_volume_peer [rounds] [row-substring]
//
// Prints one line per row and thread count:
//   row|threads|lib Mvox/s|cv Mvox/s|ratio|opencv mode|check
// (bench/volume/peer_run.sh turns two runs into one markdown table). Exits
// non-zero when a check fails.
//
// OpenCV constructions (what a user of OpenCV would write):
//   warp    cv::warpAffine with the forward 2x3 matrix (OpenCV inverts it, as
//           the library does); border constant or transparent, whichever the
//           timed warm-up finds faster (the library writes nothing outside).
//   remap   cv::remap with CV_32FC1 maps, or the maps converted once (outside
//           the timing) to fixed point by cv::convertMaps; whichever is faster.
//   cubic   library Catmull-Rom (code 6) against INTER_CUBIC (a = -0.75).
//   3-D     every needed source plane resized once (cv::resize), then the z
//           blend per destination plane (cv::addWeighted / cv::scaleAdd);
//           nearest resizes the chosen plane (INTER_NEAREST picks the same
//           voxels as the library at factors 2 and 1/2). Planes in
//           cv::parallel_for_.
//   filter  per destination plane, cv::filter2D on float planes (converted
//           once per call) with the flipped 2-D slices of the kernel, summed
//           over the kernel depth, then converted to int16 by the divisor.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "vekcore.h"
#include "vekr.h"

namespace {

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A vekMalloc'd (16-byte aligned) buffer seen as a cv::Mat with the same step.
struct Buf {
    void* p = nullptr;
    cv::Mat m;
    Buf(int rows, int cols, int type) {
        const std::size_t step = (static_cast<std::size_t>(cols) * CV_ELEM_SIZE(type) + 63) & ~std::size_t(63);
        p = vekMalloc(static_cast<int>(step * rows));
        if (!p) {
            std::fprintf(stderr, "out of memory\n");
            std::exit(2);
        }
        m = cv::Mat(rows, cols, type, p, step);
        m.setTo(0);
    }
    ~Buf() { vekFree(p); }
    Buf(const Buf&) = delete;
    Buf& operator=(const Buf&) = delete;
    int step() const { return static_cast<int>(m.step[0]); }
    template <class T>
    T* ptr(int row = 0) {
        return m.ptr<T>(row);
    }
};

// A smooth test pattern (interpolation kernels of different families then
// give close values, so the output check is meaningful) with a little texture.
float pattern(double x, double y, double z) {
    return static_cast<float>(127.5 + 90.0 * std::sin(0.043 * x + 0.3 * std::sin(0.011 * y)) * std::cos(0.031 * y) +
                              30.0 * std::sin(0.05 * z + 0.02 * x) + 5.0 * std::cos(0.21 * x + 0.17 * y));
}

// Mean absolute difference of two planes over [lo, hi) in x and y.
double meanAbsDiff(const cv::Mat& a, const cv::Mat& b, int lo, int hi) {
    cv::Mat fa, fb;
    a(cv::Range(lo, hi), cv::Range(lo, hi)).convertTo(fa, CV_32F);
    b(cv::Range(lo, hi), cv::Range(lo, hi)).convertTo(fb, CV_32F);
    return cv::norm(fa, fb, cv::NORM_L1) / (double(hi - lo) * (hi - lo));
}

struct Options {
    int rounds = 5;
    std::string only;
};

int failures = 0;

// One row: the library call, the OpenCV variants (the fastest in a timed
// warm-up is the peer), and the check of the outputs (mean absolute
// difference; tolerance in the element's units).
struct Row {
    std::string name;
    double units;  // output voxels per call
    std::function<void()> lib;
    std::vector<std::pair<std::string, std::function<void()>>> cv;
    std::function<double()> check;
    double tolerance;
};

void runRow(const Row& r, const Options& o) {
    if (!o.only.empty() && r.name.find(o.only) == std::string::npos) return;
    for (int threads : {1, 2}) {
        vekSetNumThreads(threads);
        cv::setNumThreads(threads);
        // Warm-up: every contender once, then the OpenCV variants timed twice
        // each, the fastest kept.
        r.lib();
        double mad = -1;
        std::size_t pick = 0;
        double bestVariant = 1e300;
        for (std::size_t v = 0; v < r.cv.size(); ++v) {
            r.cv[v].second();
            for (int i = 0; i < 2; ++i) {
                const double t0 = now();
                r.cv[v].second();
                const double t = now() - t0;
                if (t < bestVariant) bestVariant = t, pick = v;
            }
        }
        // Both contenders write their outputs once more, OpenCV in the
        // chosen mode, and the outputs are compared.
        r.lib();
        r.cv[pick].second();
        mad = r.check();
        double tl = 1e300, tc = 1e300;
        for (int i = 0; i < o.rounds; ++i) {
            double t0 = now();
            r.lib();
            tl = std::min(tl, now() - t0);
            t0 = now();
            r.cv[pick].second();
            tc = std::min(tc, now() - t0);
        }
        const bool ok = mad >= 0 && mad <= r.tolerance;
        if (!ok) ++failures;
        std::printf("%s|%d|%.1f|%.1f|%.3f|%s|mad %.3g %s\n", r.name.c_str(), threads, r.units / tl / 1e6,
                    r.units / tc / 1e6, tc / tl, r.cv[pick].first.c_str(), mad, ok ? "ok" : "MISMATCH");
        std::fflush(stdout);
    }
}

// ---------------------------------------------------------------- single plane

constexpr int kP = 2048;

template <class T>
int cvType();
template <>
int cvType<std::uint8_t>() {
    return CV_8U;
}
template <>
int cvType<float>() {
    return CV_32F;
}

VekStatus libWarp(const std::uint8_t* s, int ss, std::uint8_t* d, int ds, const double a[3][4], int code) {
    const std::uint8_t* sp[1] = {s};
    std::uint8_t* dp[1] = {d};
    const VekrCuboid box{0, 0, 0, kP, kP, 1};
    return vekrWarpAffine_8u_C1PV(sp, VekrVolume{kP, kP, 1}, ss, box, dp, ds, box, a, code, nullptr);
}
VekStatus libWarp(const float* s, int ss, float* d, int ds, const double a[3][4], int code) {
    const float* sp[1] = {s};
    float* dp[1] = {d};
    const VekrCuboid box{0, 0, 0, kP, kP, 1};
    return vekrWarpAffine_32f_C1PV(sp, VekrVolume{kP, kP, 1}, ss, box, dp, ds, box, a, code, nullptr);
}
VekStatus libRemap(const std::uint8_t* s, int ss, const float* mx, const float* my, int ms, std::uint8_t* d, int ds,
                   int code) {
    const std::uint8_t* sp[1] = {s};
    std::uint8_t* dp[1] = {d};
    const float* xp[1] = {mx};
    const float* yp[1] = {my};
    return vekrRemap_8u_C1PV(sp, VekrVolume{kP, kP, 1}, ss, VekrCuboid{0, 0, 0, kP, kP, 1}, xp, yp, xp, ms, dp, ds,
                             VekrVolume{kP, kP, 1}, code);
}
VekStatus libRemap(const float* s, int ss, const float* mx, const float* my, int ms, float* d, int ds, int code) {
    const float* sp[1] = {s};
    float* dp[1] = {d};
    const float* xp[1] = {mx};
    const float* yp[1] = {my};
    return vekrRemap_32f_C1PV(sp, VekrVolume{kP, kP, 1}, ss, VekrCuboid{0, 0, 0, kP, kP, 1}, xp, yp, xp, ms, dp, ds,
                              VekrVolume{kP, kP, 1}, code);
}

void expectOk(VekStatus st, const char* what) {
    if (st != vekStatusOk) {
        std::fprintf(stderr, "%s failed: status %d\n", what, st);
        std::exit(2);
    }
}

template <class T>
void planeRows(const Options& o, const char* typeName) {
    const int type = cvType<T>();
    Buf src(kP, kP, type), dl(kP, kP, type), dc(kP, kP, type);
    for (int y = 0; y < kP; ++y)
        for (int x = 0; x < kP; ++x) src.ptr<T>(y)[x] = static_cast<T>(pattern(x, y, 0));
    // Rotation by 10 degrees about the centre (source to destination).
    const double ang = 10.0 * M_PI / 180.0, c = std::cos(ang), s = std::sin(ang), h = 0.5 * (kP - 1);
    const double a[3][4] = {{c, -s, 0, h - c * h + s * h}, {s, c, 0, h - s * h - c * h}, {0, 0, 1, 0}};
    const cv::Mat m23 = (cv::Mat_<double>(2, 3) << a[0][0], a[0][1], a[0][3], a[1][0], a[1][1], a[1][3]);
    // Remap maps: the inverse rotation plus a sine displacement of 2 pixels.
    Buf mx(kP, kP, CV_32F), my(kP, kP, CV_32F);
    for (int y = 0; y < kP; ++y)
        for (int x = 0; x < kP; ++x) {
            const double dx = x - h, dy = y - h;
            mx.ptr<float>(y)[x] = static_cast<float>(h + c * dx + s * dy + 2.0 * std::sin(0.013 * y));
            my.ptr<float>(y)[x] = static_cast<float>(h - s * dx + c * dy + 2.0 * std::sin(0.017 * x));
        }
    const double tol = std::is_same<T, float>::value ? 1.0 : 1.5;
    const int lo = kP / 4, hi = 3 * kP / 4;

    for (int code : {vekrInterCubicCatmullRom, vekrInterLinear}) {
        const int cvInter = code == vekrInterLinear ? cv::INTER_LINEAR : cv::INTER_CUBIC;
        const std::string interp = code == vekrInterLinear ? "linear" : "cubic";
        cv::Mat fx1, fx2;
        cv::convertMaps(mx.m, my.m, fx1, fx2, CV_16SC2, false);
        Row w{"plane warp 10deg " + interp + " " + typeName,
              double(kP) * kP,
              [&] { expectOk(libWarp(src.ptr<T>(), src.step(), dl.ptr<T>(), dl.step(), a, code), "warp"); },
              {{"constant", [&] { cv::warpAffine(src.m, dc.m, m23, dc.m.size(), cvInter, cv::BORDER_CONSTANT); }},
               {"transparent",
                [&] { cv::warpAffine(src.m, dc.m, m23, dc.m.size(), cvInter, cv::BORDER_TRANSPARENT); }}},
              [&] { return meanAbsDiff(dl.m, dc.m, lo, hi); },
              tol};
        runRow(w, o);
        Row r{"plane remap rot+sine " + interp + " " + typeName,
              double(kP) * kP,
              [&] {
                  expectOk(libRemap(src.ptr<T>(), src.step(), mx.ptr<float>(), my.ptr<float>(), mx.step(), dl.ptr<T>(),
                                    dl.step(), code),
                           "remap");
              },
              {{"float maps, constant",
                [&] { cv::remap(src.m, dc.m, mx.m, my.m, cvInter, cv::BORDER_CONSTANT); }},
               {"float maps, transparent",
                [&] { cv::remap(src.m, dc.m, mx.m, my.m, cvInter, cv::BORDER_TRANSPARENT); }},
               {"fixed maps, constant", [&] { cv::remap(src.m, dc.m, fx1, fx2, cvInter, cv::BORDER_CONSTANT); }},
               {"fixed maps, transparent",
                [&] { cv::remap(src.m, dc.m, fx1, fx2, cvInter, cv::BORDER_TRANSPARENT); }}},
              [&] { return meanAbsDiff(dl.m, dc.m, lo, hi); },
              tol};
        runRow(r, o);
    }
}

void planeResizeRow(const Options& o) {
    Buf src(kP, kP, CV_32F), dl(2 * kP, 2 * kP, CV_32F), dc(2 * kP, 2 * kP, CV_32F);
    for (int y = 0; y < kP; ++y)
        for (int x = 0; x < kP; ++x) src.ptr<float>(y)[x] = pattern(x, y, 0);
    const VekrCuboid sv{0, 0, 0, kP, kP, 1}, dv{0, 0, 0, 2 * kP, 2 * kP, 1};
    std::vector<std::uint8_t*> buffers(3, nullptr);
    auto buffer = [&](int threads) {
        if (!buffers[threads]) {
            int size = 0;
            expectOk(vekrResizeGetBufSize(sv, dv, 1, vekrInterLinear, &size), "resize buffer size");
            buffers[threads] = static_cast<std::uint8_t*>(vekMalloc(std::max(size, 1)));
        }
        return buffers[threads];
    };
    Row r{"plane resize 2048->4096 linear 32f",
          4.0 * kP * kP,
          [&] {
              int t = 1;
              vekGetNumThreads(&t);
              expectOk(vekrResize_32f_C1V(src.ptr<float>(), VekrVolume{kP, kP, 1}, src.step(), src.step() * kP, sv,
                                          dl.ptr<float>(), dl.step(), dl.step() * 2 * kP, dv, 2, 2, 1, 0, 0, 0,
                                          vekrInterLinear, buffer(t)),
                       "resize");
          },
          {{"INTER_LINEAR", [&] { cv::resize(src.m, dc.m, dc.m.size(), 0, 0, cv::INTER_LINEAR); }}},
          [&] { return meanAbsDiff(dl.m, dc.m, 8, 2 * kP - 8); },
          0.05};
    runRow(r, o);
    for (auto* b : buffers) vekFree(b);
}

// ---------------------------------------------------------------- 3-D resize

// A block volume in vekMalloc'd memory, with cv::Mat views of its planes.
struct Volume {
    int n;
    Buf buf;
    std::vector<cv::Mat> planes;
    Volume(int side, int type) : n(side), buf(side * side, side, type) {
        for (int z = 0; z < side; ++z) planes.push_back(buf.m.rowRange(z * side, (z + 1) * side));
    }
    int step() const { return buf.step(); }
    int planeStep() const { return buf.step() * n; }
};

// Taps and weights along z for destination plane zd (factor f, n source
// planes), with the edge repeated: nearest, linear (2 taps) or cubic (4 taps,
// a = -0.75 as OpenCV's in-plane cubic).
struct ZTaps {
    int k[4];
    float w[4];
    int count;
};
ZTaps zTaps(int zd, double f, int n, int inter) {
    const double zs = (zd + 0.5) / f - 0.5;
    auto clampz = [n](long v) { return static_cast<int>(std::min<long>(std::max<long>(v, 0), n - 1)); };
    ZTaps t{};
    if (inter == cv::INTER_NEAREST) {
        t.count = 1;
        // Exact half-way points go to the lower plane, as in the library.
        t.k[0] = clampz(static_cast<long>(std::floor((zd + 0.5) / f - 1e-10)));
        t.w[0] = 1;
        return t;
    }
    const long z0 = static_cast<long>(std::floor(zs));
    const double u = zs - z0;
    if (inter == cv::INTER_LINEAR) {
        t.count = 2;
        t.k[0] = clampz(z0);
        t.k[1] = clampz(z0 + 1);
        t.w[0] = static_cast<float>(1 - u);
        t.w[1] = static_cast<float>(u);
        return t;
    }
    const double A = -0.75;
    const double x[4] = {1 + u, u, 1 - u, 2 - u};
    t.count = 4;
    for (int i = 0; i < 4; ++i) {
        const double v = x[i];
        t.k[i] = clampz(z0 - 1 + i);
        t.w[i] = static_cast<float>(v <= 1 ? ((A + 2) * v - (A + 3)) * v * v + 1 : ((A * v - 5 * A) * v + 8 * A) * v - 4 * A);
    }
    return t;
}

// OpenCV's 3-D resize: the needed source planes resized once in the plane,
// then blended along z.
struct CvResize3D {
    const Volume& src;
    Volume& dst;
    int inter;
    std::vector<cv::Mat> tmp;  // resized source planes
    CvResize3D(const Volume& s, Volume& d, int i) : src(s), dst(d), inter(i) {
        if (inter != cv::INTER_NEAREST)
            for (int z = 0; z < s.n; ++z) tmp.emplace_back(d.n, d.n, s.buf.m.type());
    }
    void operator()() {
        const double f = double(dst.n) / src.n;
        if (inter == cv::INTER_NEAREST) {
            cv::parallel_for_(cv::Range(0, dst.n), [&](const cv::Range& r) {
                for (int z = r.start; z < r.end; ++z) {
                    const ZTaps t = zTaps(z, f, src.n, inter);
                    cv::resize(src.planes[t.k[0]], dst.planes[z], dst.planes[z].size(), 0, 0, cv::INTER_NEAREST);
                }
            });
            return;
        }
        cv::parallel_for_(cv::Range(0, src.n), [&](const cv::Range& r) {
            for (int z = r.start; z < r.end; ++z)
                cv::resize(src.planes[z], tmp[z], tmp[z].size(), 0, 0, inter);
        });
        cv::parallel_for_(cv::Range(0, dst.n), [&](const cv::Range& r) {
            for (int z = r.start; z < r.end; ++z) {
                const ZTaps t = zTaps(z, f, src.n, inter);
                cv::Mat& d = dst.planes[z];
                cv::addWeighted(tmp[t.k[0]], t.w[0], tmp[t.k[1]], t.w[1], 0.0, d);
                for (int i = 2; i < t.count; ++i) cv::scaleAdd(tmp[t.k[i]], t.w[i], d, d);
            }
        });
    }
};

template <class T>
VekStatus libResize3D(const Volume& s, Volume& d, int code, std::uint8_t* buffer);
template <>
VekStatus libResize3D<std::uint8_t>(const Volume& s, Volume& d, int code, std::uint8_t* buffer) {
    const double f = double(d.n) / s.n;
    return vekrResize_8u_C1V(static_cast<const std::uint8_t*>(s.buf.p), VekrVolume{s.n, s.n, s.n}, s.step(),
                             s.planeStep(), VekrCuboid{0, 0, 0, s.n, s.n, s.n}, static_cast<std::uint8_t*>(d.buf.p),
                             d.step(), d.planeStep(), VekrCuboid{0, 0, 0, d.n, d.n, d.n}, f, f, f, 0, 0, 0, code,
                             buffer);
}
template <>
VekStatus libResize3D<float>(const Volume& s, Volume& d, int code, std::uint8_t* buffer) {
    const double f = double(d.n) / s.n;
    return vekrResize_32f_C1V(static_cast<const float*>(s.buf.p), VekrVolume{s.n, s.n, s.n}, s.step(), s.planeStep(),
                              VekrCuboid{0, 0, 0, s.n, s.n, s.n}, static_cast<float*>(d.buf.p), d.step(),
                              d.planeStep(), VekrCuboid{0, 0, 0, d.n, d.n, d.n}, f, f, f, 0, 0, 0, code, buffer);
}

template <class T>
void resize3DRow(const Options& o, const char* typeName, int from, int to, int code) {
    const int type = cvType<T>();
    const int inter = code == vekrInterNearest ? cv::INTER_NEAREST
                      : code == vekrInterLinear ? cv::INTER_LINEAR
                                                : cv::INTER_CUBIC;
    const char* iname = code == vekrInterNearest ? "nearest" : code == vekrInterLinear ? "linear" : "cubic";
    const std::string name = "3-D resize " + std::to_string(from) + "^3->" + std::to_string(to) + "^3 " + iname +
                             " " + typeName;
    if (!o.only.empty() && name.find(o.only) == std::string::npos) return;
    Volume src(from, type), dl(to, type), dc(to, type);
    for (int z = 0; z < from; ++z)
        for (int y = 0; y < from; ++y)
            for (int x = 0; x < from; ++x)
                src.planes[z].ptr<T>(y)[x] = static_cast<T>(pattern(x * 8.0, y * 8.0, z * 8.0));
    CvResize3D peer(src, dc, inter);
    std::vector<std::uint8_t*> buffers(3, nullptr);
    const VekrCuboid sv{0, 0, 0, from, from, from}, dv{0, 0, 0, to, to, to};
    Row r{name,
          double(to) * to * to,
          [&] {
              int t = 1;
              vekGetNumThreads(&t);
              if (!buffers[t]) {
                  int size = 0;
                  expectOk(vekrResizeGetBufSize(sv, dv, 1, code, &size), "resize buffer size");
                  buffers[t] = static_cast<std::uint8_t*>(vekMalloc(std::max(size, 1)));
              }
              expectOk(libResize3D<T>(src, dl, code, buffers[t]), "resize");
          },
          {{code == vekrInterNearest ? "cv::resize of the chosen plane" : "cv::resize per plane + z blend",
            [&] { peer(); }}},
          [&] {
              // Interior planes, interior rows and columns.
              double sum = 0;
              int count = 0;
              for (int z = to / 4; z < 3 * to / 4; z += 7, ++count)
                  sum += meanAbsDiff(dl.planes[z], dc.planes[z], to / 4, 3 * to / 4);
              return sum / count;
          },
          // The source varies by up to ~25 per voxel here, so kernels differ
          // by a few units; a wrong plane or a shifted grid costs far more.
          code == vekrInterNearest ? 6.0 : 4.0};
    runRow(r, o);
    for (auto* b : buffers) vekFree(b);
}

// ---------------------------------------------------------------- 3-D convolution

void filterRow(const Options& o, int k) {
    const int n = 128, side = n + k - 1, a = k / 2, divisor = 27;
    const std::string name = "3-D filter 16s 128^3 " + std::to_string(k) + "^3";
    if (!o.only.empty() && name.find(o.only) == std::string::npos) return;
    Volume src(side, CV_16S), dl(n, CV_16S), dc(n, CV_16S);
    std::uint32_t seed = 12345;
    for (int z = 0; z < side; ++z)
        for (int y = 0; y < side; ++y)
            for (int x = 0; x < side; ++x) {
                seed = seed * 1664525u + 1013904223u;
                src.planes[z].ptr<std::int16_t>(y)[x] = static_cast<std::int16_t>(static_cast<int>(seed >> 21) - 1024);
            }
    std::vector<std::int32_t> kernel(static_cast<std::size_t>(k) * k * k);
    for (std::size_t i = 0; i < kernel.size(); ++i) kernel[i] = static_cast<std::int32_t>(i % 17) - 8;

    // The library reads src(x + a - i, ...): plane pointers at the region's
    // first voxel (offset k - 1 - a into the bordered planes).
    const int off = k - 1 - a;
    std::vector<const std::int16_t*> sp(side);
    for (int z = 0; z < side; ++z) sp[z] = src.planes[z].ptr<std::int16_t>(off) + off;
    std::vector<std::int16_t*> dp(n);
    for (int z = 0; z < n; ++z) dp[z] = dl.planes[z].ptr<std::int16_t>();
    std::vector<std::uint8_t*> buffers(3, nullptr);

    // OpenCV: correlation with the flipped slices; output (x, y) of a plane
    // over the ROI at offset `off` reads src(x + a - i) = roi(x - (i - a)),
    // so the flipped kernel's anchor is (k - 1 - a).
    std::vector<cv::Mat> slices(k);
    for (int kz = 0; kz < k; ++kz) {
        cv::Mat s(k, k, CV_32F);
        for (int j = 0; j < k; ++j)
            for (int i = 0; i < k; ++i) s.at<float>(k - 1 - j, k - 1 - i) = float(kernel[(kz * k + j) * k + i]);
        slices[kz] = s;
    }
    std::vector<cv::Mat> fsrc(side);
    for (auto& m : fsrc) m.create(side, side, CV_32F);
    std::vector<cv::Mat> acc(n), tmp(n);
    for (int z = 0; z < n; ++z) acc[z].create(n, n, CV_32F), tmp[z].create(n, n, CV_32F);
    const cv::Point anchor(k - 1 - a, k - 1 - a);
    auto peer = [&] {
        cv::parallel_for_(cv::Range(0, side), [&](const cv::Range& r) {
            for (int z = r.start; z < r.end; ++z) src.planes[z].convertTo(fsrc[z], CV_32F);
        });
        cv::parallel_for_(cv::Range(0, n), [&](const cv::Range& r) {
            for (int z = r.start; z < r.end; ++z) {
                // Destination plane z reads source planes z + a - kz (kz over
                // the kernel depth), i.e. bordered plane z + off + a - kz.
                for (int kz = 0; kz < k; ++kz) {
                    const cv::Mat roi = fsrc[z + k - 1 - kz](cv::Rect(off, off, n, n));
                    cv::filter2D(roi, kz == 0 ? acc[z] : tmp[z], CV_32F, slices[kz], anchor, 0, cv::BORDER_REPLICATE);
                    if (kz) acc[z] += tmp[z];
                }
                acc[z].convertTo(dc.planes[z], CV_16S, 1.0 / divisor);
            }
        });
    };
    Row r{name,
          double(n) * n * n,
          [&] {
              int t = 1;
              vekGetNumThreads(&t);
              if (!buffers[t]) {
                  int size = 0;
                  expectOk(vekrFilterGetBufSize(VekrVolume{n, n, n}, VekrVolume{k, k, k}, 1, &size), "filter size");
                  buffers[t] = static_cast<std::uint8_t*>(vekMalloc(size));
              }
              expectOk(vekrFilter_16s_C1PV(sp.data() + off, src.step(), dp.data(), dl.step(), VekrVolume{n, n, n},
                                           kernel.data(), VekrVolume{k, k, k}, VekrPoint3D{a, a, a}, divisor,
                                           buffers[t]),
                       "filter");
          },
          {{"filter2D per plane, float", peer}},
          [&] {
              double sum = 0;
              for (int z = 0; z < n; z += 9) sum += meanAbsDiff(dl.planes[z], dc.planes[z], 0, n);
              return sum / ((n + 8) / 9);
          },
          0.01};
    runRow(r, o);
    for (auto* b : buffers) vekFree(b);
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (argc > 1) o.rounds = std::max(1, std::atoi(argv[1]));
    if (argc > 2) o.only = argv[2];
    int saved = 1;
    vekGetNumThreads(&saved);
    std::printf("# %s, OpenCV %s, %d rounds, %s\n", sizeof(void*) == 8 ? "x86-64" : "i386", CV_VERSION, o.rounds,
                cv::checkHardwareSupport(CV_CPU_AVX2) ? "AVX2 enabled" : "AVX2 disabled");
    std::printf("# row|threads|vekr Mvox/s|OpenCV Mvox/s|ratio vekr/OpenCV|OpenCV mode|check\n");
    planeRows<float>(o, "32f");
    planeRows<std::uint8_t>(o, "8u");
    planeResizeRow(o);
    resize3DRow<std::uint8_t>(o, "8u", 128, 256, vekrInterLinear);
    for (int code : {vekrInterNearest, vekrInterLinear, vekrInterCubicCatmullRom}) {
        resize3DRow<float>(o, "32f", 128, 256, code);
        resize3DRow<float>(o, "32f", 256, 128, code);
    }
    filterRow(o, 3);
    filterRow(o, 5);
    vekSetNumThreads(saved);
    if (failures) std::fprintf(stderr, "%d row runs failed the output check\n", failures);
    return failures ? 1 : 0;
}
