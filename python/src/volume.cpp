// Volume bindings: resize, warp_affine, remap and convolve over numpy arrays
// in z, y, x axis order. Arrays are C-contiguous, so a volume of shape
// (depth, height, width) is the library's C1V block with row step
// width * itemsize and plane step height * width * itemsize, and its planes
// give the C1PV plane pointers.
#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <type_traits>

#include "common.h"

namespace vekrpy {

namespace {

enum class Elem { U8, U16, F32 };

Elem elemOf(const py::array& a, const char* what) {
    const char kind = a.dtype().kind();
    const auto size = a.dtype().itemsize();
    if (kind == 'u' && size == 1) return Elem::U8;
    if (kind == 'u' && size == 2) return Elem::U16;
    if (kind == 'f' && size == 4) return Elem::F32;
    throw py::type_error(std::string(what) + ": volume dtype must be uint8, uint16 or float32, not " +
                         std::string(py::str(a.dtype())));
}

py::array volumeArg(const py::object& volume, const char* what) {
    py::array a = asArrayKeepType(volume);
    if (a.ndim() != 3)
        throw py::value_error(std::string(what) + ": volume must be 3-D (depth, height, width), got " +
                              std::to_string(a.ndim()) + "-D");
    return a;
}

VekrVolume volumeOf(const py::array& a, const char* what) {
    return {toInt(a.shape(2), what, "width"), toInt(a.shape(1), what, "height"), toInt(a.shape(0), what, "depth")};
}

// One axis of a region: a slice with step 1, or a (start, stop) pair.
void regionAxis(const py::handle& item, py::ssize_t extent, int& start, int& size) {
    py::ssize_t b, e;
    if (py::isinstance<py::slice>(item)) {
        auto s = py::reinterpret_borrow<py::slice>(item);
        py::object st = s.attr("step");
        if (!st.is_none() && st.cast<py::ssize_t>() != 1) throw py::value_error("region slices must have step 1");
        py::object a = s.attr("start"), z = s.attr("stop");
        b = a.is_none() ? 0 : a.cast<py::ssize_t>();
        e = z.is_none() ? extent : z.cast<py::ssize_t>();
    } else {
        auto t = py::reinterpret_borrow<py::sequence>(item);
        if (t.size() != 2) throw py::value_error("a region axis is a slice or a (start, stop) pair");
        b = t[0].cast<py::ssize_t>();
        e = t[1].cast<py::ssize_t>();
    }
    if (b < INT32_MIN || b > INT32_MAX || e - b < INT32_MIN || e - b > INT32_MAX)
        throw py::value_error("region bounds exceed the 32-bit range of the C interface");
    start = static_cast<int>(b);
    size = static_cast<int>(e - b);
}

// The source region: all of the volume, or the caller's (z, y, x) region,
// passed on as given (the library checks it and cuts it back to the volume).
VekrCuboid regionOf(const py::object& region, const py::array& vol, const VekrVolume& v) {
    if (region.is_none()) return {0, 0, 0, v.width, v.height, v.depth};
    auto r = py::reinterpret_borrow<py::sequence>(region);
    if (py::isinstance<py::str>(region) || r.size() != 3)
        throw py::value_error("region must give three axes (z, y, x): slices or (start, stop) pairs");
    VekrCuboid c{};
    regionAxis(r[0], vol.shape(0), c.z, c.depth);
    regionAxis(r[1], vol.shape(1), c.y, c.height);
    regionAxis(r[2], vol.shape(2), c.x, c.width);
    return c;
}

// Explanation of vekStatusBadSize for the checks every volume operation makes:
// the first volume extent below 1, then the first bad region field.
std::string sizeDetail(const VekrVolume& src, const VekrCuboid* voi, const VekrVolume* dst, const char* dstName) {
    if (src.depth < 1) return "volume depth must be at least 1";
    if (src.height < 1) return "volume height must be at least 1";
    if (src.width < 1) return "volume width must be at least 1";
    if (voi) {
        if (voi->x < 0 || voi->y < 0 || voi->z < 0) return "region must start at 0 or above";
        if (voi->width < 1 || voi->height < 1 || voi->depth < 1) return "region must be at least 1 voxel on every axis";
    }
    if (dst && (dst->width < 1 || dst->height < 1 || dst->depth < 1))
        return std::string(dstName) + " must be at least 1 on every axis";
    return "";
}

std::vector<py::ssize_t> shapeArg(const py::object& shape, const char* what) {
    auto s = py::reinterpret_borrow<py::sequence>(shape);
    if (py::isinstance<py::str>(shape) || s.size() != 3)
        throw py::value_error(std::string(what) + ": the output shape has three entries (depth, height, width)");
    std::vector<py::ssize_t> r;
    for (auto v : s) {
        py::ssize_t n = v.cast<py::ssize_t>();
        if (n < 0) throw py::value_error(std::string(what) + ": negative output extent");
        r.push_back(n);
    }
    return r;
}

// Three per-axis values in z, y, x order from a number or a sequence.
std::array<double, 3> perAxis(const py::object& o, const char* what, const char* name) {
    if (py::isinstance<py::float_>(o) || py::isinstance<py::int_>(o)) {
        double f = o.cast<double>();
        return {f, f, f};
    }
    auto s = py::reinterpret_borrow<py::sequence>(o);
    if (s.size() != 3) throw py::value_error(std::string(what) + ": " + name + " is a number or three (z, y, x)");
    return {s[0].cast<double>(), s[1].cast<double>(), s[2].cast<double>()};
}

// The caller's out= array, or a new one filled with `fill` (left unfilled for
// operations that write every voxel, fill = NaN).
template <class T>
py::array_t<T> newOrOut(const py::object& out, const std::vector<py::ssize_t>& shape, double fill, const char* what) {
    if (!out.is_none()) return checkOut<T>(out, shape, what);
    if (std::isnan(fill)) return py::array_t<T>(shape);
    if (std::is_integral<T>::value &&
        !(fill >= double(std::numeric_limits<T>::lowest()) && fill <= double(std::numeric_limits<T>::max())))
        throw py::value_error(std::string(what) + ": cval does not fit the volume's dtype");
    py::array_t<T> a(shape);
    std::fill(a.mutable_data(), a.mutable_data() + a.size(), static_cast<T>(fill));
    return a;
}

// ---------------------------------------------------------------- resize

template <class T>
struct ResizeFns;
template <>
struct ResizeFns<std::uint8_t> {
    static constexpr auto v = vekrResize_8u_C1V;
    static constexpr auto pv = vekrResize_8u_C1PV;
};
template <>
struct ResizeFns<std::uint16_t> {
    static constexpr auto v = vekrResize_16u_C1V;
    static constexpr auto pv = vekrResize_16u_C1PV;
};
template <>
struct ResizeFns<float> {
    static constexpr auto v = vekrResize_32f_C1V;
    static constexpr auto pv = vekrResize_32f_C1PV;
};

template <class T>
py::array resizeT(const py::array& volIn, const VekrCuboid& srcVoi, const std::vector<py::ssize_t>& dstShape,
                  const std::array<double, 3>& fzyx, int code, const py::object& out) {
    auto vol = py::reinterpret_borrow<py::array_t<T>>(volIn);
    const VekrVolume sv = volumeOf(vol, "resize");
    // The output extent and factors make the library write every output voxel,
    // unless it returns a warning; only then is a new output zeroed.
    const bool fresh = out.is_none();
    auto dst = newOrOut<T>(out, dstShape, std::numeric_limits<double>::quiet_NaN(), "resize");
    const VekrVolume dv{toInt(dstShape[2], "resize", "width"), toInt(dstShape[1], "resize", "height"),
                        toInt(dstShape[0], "resize", "depth")};
    const VekrCuboid dstVoi{0, 0, 0, dv.width, dv.height, dv.depth};
    // Destination voxel 0 samples the region's first voxel: the shift moves
    // the region's corner to the origin of the output.
    const double fx = fzyx[2], fy = fzyx[1], fz = fzyx[0];
    const double sx = -srcVoi.x * fx, sy = -srcVoi.y * fy, sz = -srcVoi.z * fz;
    const long long srcPlane = static_cast<long long>(sv.width) * sv.height * sizeof(T);
    const long long dstPlane = static_cast<long long>(dv.width) * dv.height * sizeof(T);
    const int srcStep = toInt(static_cast<py::ssize_t>(sv.width * sizeof(T)), "resize", "row step");
    const int dstStep = toInt(static_cast<py::ssize_t>(dv.width * sizeof(T)), "resize", "row step");
    const T* ps = vol.data();
    T* pd = dst.mutable_data();
    int status, bufStatus, bufSize = 0;
    {
        py::gil_scoped_release nogil;
        std::shared_lock<std::shared_mutex> lock(threadCountLock());
        bufStatus = vekrResizeGetBufSize(srcVoi, dstVoi, 1, code, &bufSize);
        status = bufStatus;
        if (bufStatus == vekStatusOk && bufSize > 0) {
            VekBuffer buf(bufSize);
            if (srcPlane <= INT32_MAX && dstPlane <= INT32_MAX) {
                status = ResizeFns<T>::v(ps, sv, srcStep, static_cast<int>(srcPlane), srcVoi, pd, dstStep,
                                         static_cast<int>(dstPlane), dstVoi, fx, fy, fz, sx, sy, sz, code, buf.p);
            } else {  // plane steps beyond 32 bits: the plane-pointer layout needs row steps only
                auto sp = planes<const T>(ps, sv.depth, static_cast<py::ssize_t>(sv.width) * sv.height);
                auto dp = planes<T>(pd, dv.depth, static_cast<py::ssize_t>(dv.width) * dv.height);
                status = ResizeFns<T>::pv(sp.data(), sv, srcStep, srcVoi, dp.data(), dstStep, dstVoi, fx, fy, fz,
                                          sx, sy, sz, code, buf.p);
            }
        }
    }
    if (bufStatus == vekStatusOk && bufSize <= 0)
        throw py::value_error("resize: the work buffer of this output exceeds the 32-bit sizes of the C interface");
    if (status > 0 && fresh) std::fill(dst.mutable_data(), dst.mutable_data() + dst.size(), T(0));
    check(status, "resize", status == vekStatusBadSize ? sizeDetail(sv, &srcVoi, &dv, "output shape") : "");
    return std::move(dst);
}

py::array resize(const py::object& volume, const py::object& shape, const py::object& zoom,
                 const py::object& interpolation, const py::object& region, const py::object& out) {
    py::array vol = volumeArg(volume, "resize");
    const Elem e = elemOf(vol, "resize");
    const VekrVolume sv = volumeOf(vol, "resize");
    const VekrCuboid srcVoi = regionOf(region, vol, sv);
    const int code = interpolationCode(interpolation);
    if (!shape.is_none() && !zoom.is_none()) throw py::type_error("resize: give shape or zoom, not both");

    std::vector<py::ssize_t> dstShape;
    std::array<double, 3> f{};
    const int extent[3] = {srcVoi.depth, srcVoi.height, srcVoi.width};
    if (!zoom.is_none()) {
        // The output holds the whole region scaled: its extent is the library's
        // rounding of extent * factor (vekrGetResizeCuboid of the region at 0).
        f = perAxis(zoom, "resize", "zoom");
        VekrCuboid c{};
        const VekrCuboid at0{0, 0, 0, srcVoi.width, srcVoi.height, srcVoi.depth};
        const int st = vekrGetResizeCuboid(at0, &c, f[2], f[1], f[0], 0, 0, 0, code);
        if (st < 0) check(st, "resize", st == vekStatusBadSize ? sizeDetail(sv, &srcVoi, nullptr, "") : "");
        if (st == vekStatusOk) {
            dstShape = {c.depth, c.height, c.width};
        } else {  // an empty output: nothing to compute
            for (int a = 0; a < 3; ++a)
                dstShape.push_back(std::max<py::ssize_t>(0, static_cast<py::ssize_t>(extent[a] * f[a] + 0.5000000001)));
        }
    } else {
        if (!shape.is_none())
            dstShape = shapeArg(shape, "resize");
        else if (!out.is_none())
            dstShape = std::vector<py::ssize_t>(py::array(out).shape(), py::array(out).shape() + py::array(out).ndim());
        else
            throw py::type_error("resize: give the output shape, zoom or out");
        if (dstShape.size() != 3) throw py::value_error("resize: out must be 3-D");
        // Factors from the extents, as scipy.ndimage.zoom with grid_mode=True.
        for (int a = 0; a < 3; ++a) f[a] = extent[a] > 0 ? double(dstShape[a]) / extent[a] : 1.0;
    }
    switch (e) {
        case Elem::U8: return resizeT<std::uint8_t>(vol, srcVoi, dstShape, f, code, out);
        case Elem::U16: return resizeT<std::uint16_t>(vol, srcVoi, dstShape, f, code, out);
        default: return resizeT<float>(vol, srcVoi, dstShape, f, code, out);
    }
}

// ---------------------------------------------------------------- warp_affine

template <class T>
struct WarpFns;
template <>
struct WarpFns<std::uint8_t> {
    static constexpr auto f = vekrWarpAffine_8u_C1PV;
    static constexpr auto remap = vekrRemap_8u_C1PV;
};
template <>
struct WarpFns<std::uint16_t> {
    static constexpr auto f = vekrWarpAffine_16u_C1PV;
    static constexpr auto remap = vekrRemap_16u_C1PV;
};
template <>
struct WarpFns<float> {
    static constexpr auto f = vekrWarpAffine_32f_C1PV;
    static constexpr auto remap = vekrRemap_32f_C1PV;
};

template <class T>
py::array warpT(const py::array& volIn, const VekrCuboid& srcVoi, const double (&c)[3][4],
                const std::vector<py::ssize_t>& dstShape, int code, const py::object& out, double cval) {
    auto vol = py::reinterpret_borrow<py::array_t<T>>(volIn);
    const VekrVolume sv = volumeOf(vol, "warp_affine");
    auto dst = newOrOut<T>(out, dstShape, cval, "warp_affine");
    const VekrVolume dv{toInt(dstShape[2], "warp_affine", "width"), toInt(dstShape[1], "warp_affine", "height"),
                        toInt(dstShape[0], "warp_affine", "depth")};
    const VekrCuboid dstVoi{0, 0, 0, dv.width, dv.height, dv.depth};
    auto sp = planes<const T>(vol.data(), sv.depth, static_cast<py::ssize_t>(sv.width) * sv.height);
    auto dp = planes<T>(dst.mutable_data(), dv.depth, static_cast<py::ssize_t>(dv.width) * dv.height);
    const int srcStep = toInt(static_cast<py::ssize_t>(sv.width * sizeof(T)), "warp_affine", "row step");
    const int dstStep = toInt(static_cast<py::ssize_t>(dv.width * sizeof(T)), "warp_affine", "row step");
    int status;
    {
        py::gil_scoped_release nogil;
        status = WarpFns<T>::f(sp.data(), sv, srcStep, srcVoi, dp.data(), dstStep, dstVoi, c, code, nullptr);
    }
    check(status, "warp_affine",
          status == vekStatusBadSize              ? sizeDetail(sv, &srcVoi, &dv, "output shape")
          : status == vekStatusSingularTransform ? "the matrix is singular"
                                                  : "");
    return std::move(dst);
}

py::array warpAffine(const py::object& volume, const py::object& matrix, const py::object& outputShape,
                     const py::object& interpolation, const py::object& region, const py::object& out,
                     double cval) {
    py::array vol = volumeArg(volume, "warp_affine");
    const Elem e = elemOf(vol, "warp_affine");
    const VekrVolume sv = volumeOf(vol, "warp_affine");
    const VekrCuboid srcVoi = regionOf(region, vol, sv);
    const int code = interpolationCode(interpolation);
    auto m = asArray<double>(matrix);
    if (m.ndim() != 2 || m.shape(1) != 4 || (m.shape(0) != 3 && m.shape(0) != 4))
        throw py::value_error("warp_affine: matrix must be 3 x 4 or 4 x 4 (homogeneous, z, y, x order)");
    // Rows and columns in z, y, x order become the library's x, y, z order.
    double c[3][4];
    auto mr = m.unchecked<2>();
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) c[i][j] = mr(2 - i, 2 - j);
        c[i][3] = mr(2 - i, 3);
    }
    std::vector<py::ssize_t> dstShape;
    if (!outputShape.is_none())
        dstShape = shapeArg(outputShape, "warp_affine");
    else if (!out.is_none())
        dstShape = std::vector<py::ssize_t>(py::array(out).shape(), py::array(out).shape() + py::array(out).ndim());
    else
        dstShape = {vol.shape(0), vol.shape(1), vol.shape(2)};
    if (dstShape.size() != 3) throw py::value_error("warp_affine: out must be 3-D");
    switch (e) {
        case Elem::U8: return warpT<std::uint8_t>(vol, srcVoi, c, dstShape, code, out, cval);
        case Elem::U16: return warpT<std::uint16_t>(vol, srcVoi, c, dstShape, code, out, cval);
        default: return warpT<float>(vol, srcVoi, c, dstShape, code, out, cval);
    }
}

// ---------------------------------------------------------------- remap

template <class T>
py::array remapT(const py::array& volIn, const VekrCuboid& srcVoi, const py::array_t<float>& coords,
                 const std::vector<py::ssize_t>& outShape, const VekrVolume& dv, int code, const py::object& out,
                 double cval) {
    auto vol = py::reinterpret_borrow<py::array_t<T>>(volIn);
    const VekrVolume sv = volumeOf(vol, "remap");
    auto dst = newOrOut<T>(out, outShape, cval, "remap");
    const py::ssize_t planeElems = static_cast<py::ssize_t>(dv.width) * dv.height;
    const py::ssize_t mapElems = planeElems * dv.depth;
    auto sp = planes<const T>(vol.data(), sv.depth, static_cast<py::ssize_t>(sv.width) * sv.height);
    auto dp = planes<T>(dst.mutable_data(), dv.depth, planeElems);
    // coordinates[0], [1], [2] are the z, y and x maps.
    auto zp = planes<const float>(coords.data(), dv.depth, planeElems);
    auto yp = planes<const float>(coords.data() + mapElems, dv.depth, planeElems);
    auto xp = planes<const float>(coords.data() + 2 * mapElems, dv.depth, planeElems);
    const int srcStep = toInt(static_cast<py::ssize_t>(sv.width * sizeof(T)), "remap", "row step");
    const int dstStep = toInt(static_cast<py::ssize_t>(dv.width * sizeof(T)), "remap", "row step");
    const int mapStep = toInt(static_cast<py::ssize_t>(dv.width * sizeof(float)), "remap", "row step");
    int status;
    {
        py::gil_scoped_release nogil;
        status = WarpFns<T>::remap(sp.data(), sv, srcStep, srcVoi, xp.data(), yp.data(), zp.data(), mapStep,
                                   dp.data(), dstStep, dv, code);
    }
    check(status, "remap", status == vekStatusBadSize ? sizeDetail(sv, &srcVoi, &dv, "coordinate maps") : "");
    return std::move(dst);
}

py::array remap(const py::object& volume, const py::object& coordinates, const py::object& interpolation,
                const py::object& region, const py::object& out, double cval) {
    py::array vol = volumeArg(volume, "remap");
    const Elem e = elemOf(vol, "remap");
    const VekrVolume sv = volumeOf(vol, "remap");
    const VekrCuboid srcVoi = regionOf(region, vol, sv);
    const int code = interpolationCode(interpolation);
    auto coords = asArray<float>(coordinates);
    if (coords.ndim() < 2 || coords.ndim() > 4 || coords.shape(0) != 3)
        throw py::value_error("remap: coordinates must have shape (3, ...) with 1 to 3 trailing axes (z, y, x maps)");
    std::vector<py::ssize_t> outShape(coords.shape() + 1, coords.shape() + coords.ndim());
    py::ssize_t dims[3] = {1, 1, 1};
    std::copy(outShape.begin(), outShape.end(), dims + (3 - outShape.size()));
    const VekrVolume dv{toInt(dims[2], "remap", "width"), toInt(dims[1], "remap", "height"),
                        toInt(dims[0], "remap", "depth")};
    switch (e) {
        case Elem::U8: return remapT<std::uint8_t>(vol, srcVoi, coords, outShape, dv, code, out, cval);
        case Elem::U16: return remapT<std::uint16_t>(vol, srcVoi, coords, outShape, dv, code, out, cval);
        default: return remapT<float>(vol, srcVoi, coords, outShape, dv, code, out, cval);
    }
}

// ---------------------------------------------------------------- convolve

py::array convolve(const py::object& volume, const py::object& kernel, int divisor, const py::object& anchor,
                   const std::string& mode, int cval, const py::object& out) {
    py::array raw = asArrayKeepType(volume);
    if (raw.dtype().kind() != 'i' || raw.dtype().itemsize() != 2)
        throw py::type_error("convolve: volume dtype must be int16, not " + std::string(py::str(raw.dtype())));
    if (raw.ndim() != 3) throw py::value_error("convolve: volume must be 3-D (depth, height, width)");
    auto vol = py::reinterpret_borrow<py::array_t<std::int16_t>>(raw);

    py::array kraw = asArrayKeepType(kernel);
    if (kraw.dtype().kind() != 'i' && kraw.dtype().kind() != 'u' && kraw.dtype().kind() != 'b')
        throw py::type_error("convolve: kernel coefficients are integers (int32 range), not " +
                             std::string(py::str(kraw.dtype())));
    if (kraw.ndim() != 3) throw py::value_error("convolve: kernel must be 3-D (depth, height, width)");
    auto k64 = asArray<std::int64_t>(kraw);
    std::vector<std::int32_t> k(static_cast<std::size_t>(k64.size()));
    for (py::ssize_t i = 0; i < k64.size(); ++i) {
        const std::int64_t v = k64.data()[i];
        if (v < INT32_MIN || v > INT32_MAX) throw py::value_error("convolve: kernel coefficient outside int32");
        k[i] = static_cast<std::int32_t>(v);
    }
    const VekrVolume kv{toInt(k64.shape(2), "convolve", "kernel width"), toInt(k64.shape(1), "convolve", "kernel height"),
                        toInt(k64.shape(0), "convolve", "kernel depth")};
    const int kdim[3] = {kv.depth, kv.height, kv.width};

    // Anchor in z, y, x: the kernel element over the output voxel. It must lie
    // in the kernel, which bounds the neighbourhood the library reads.
    int an[3];
    if (anchor.is_none()) {
        for (int a = 0; a < 3; ++a) an[a] = kdim[a] / 2;
    } else {
        auto s = py::reinterpret_borrow<py::sequence>(anchor);
        if (s.size() != 3) throw py::value_error("convolve: anchor is (z, y, x)");
        for (int a = 0; a < 3; ++a) {
            an[a] = s[a].cast<int>();
            if (an[a] < 0 || (kdim[a] > 0 && an[a] >= kdim[a]))
                throw py::value_error("convolve: the anchor must lie inside the kernel");
        }
    }

    // Border: kernel size - 1 - anchor voxels before the output, anchor after
    // it; 'valid' reads inside the volume only, the other modes pad a copy.
    py::array_t<std::int16_t> src = vol;
    std::vector<py::ssize_t> outShape(3);
    if (mode == "valid") {
        for (int a = 0; a < 3; ++a) outShape[a] = std::max<py::ssize_t>(0, vol.shape(a) - std::max(kdim[a], 1) + 1);
    } else {
        const char* npMode = mode == "constant" ? "constant"
                             : mode == "nearest" ? "edge"
                             : mode == "reflect" ? "symmetric"
                             : mode == "mirror"  ? "reflect"
                             : mode == "wrap"    ? "wrap"
                                                 : nullptr;
        if (!npMode)
            throw py::value_error("convolve: mode is one of valid, constant, nearest, reflect, mirror, wrap");
        if (cval < INT16_MIN || cval > INT16_MAX) throw py::value_error("convolve: cval outside int16");
        for (int a = 0; a < 3; ++a) outShape[a] = vol.shape(a);
        if (kv.width >= 1 && kv.height >= 1 && kv.depth >= 1 && vol.size() > 0) {
            py::list widths;
            for (int a = 0; a < 3; ++a) widths.append(py::make_tuple(kdim[a] - 1 - an[a], an[a]));
            py::object np = py::module_::import("numpy");
            py::object padded = std::string(npMode) == "constant"
                                    ? np.attr("pad")(vol, widths, npMode, py::arg("constant_values") = cval)
                                    : np.attr("pad")(vol, widths, npMode);
            src = asArray<std::int16_t>(padded);
        }
    }
    const VekrVolume dv{toInt(outShape[2], "convolve", "width"), toInt(outShape[1], "convolve", "height"),
                        toInt(outShape[0], "convolve", "depth")};
    auto dst = newOrOut<std::int16_t>(out, outShape, std::numeric_limits<double>::quiet_NaN(), "convolve");

    const py::ssize_t sw = src.shape(2), splane = src.shape(1) * src.shape(2);
    std::vector<const std::int16_t*> sp;
    const std::int16_t* const* pSrc = nullptr;
    const bool kernelOk = kv.width >= 1 && kv.height >= 1 && kv.depth >= 1;
    if (kernelOk && dv.width >= 1 && dv.height >= 1 && dv.depth >= 1) {
        // Plane pointers for every source plane, each at the voxel that sits
        // under output voxel (0, 0, 0) in its plane; the library indexes the
        // array from -(kernel depth - 1 - anchor z).
        const py::ssize_t off = (kdim[1] - 1 - an[1]) * sw + (kdim[2] - 1 - an[2]);
        sp = planes<const std::int16_t>(src.data() + off, src.shape(0), splane);
        pSrc = sp.data() + (kdim[0] - 1 - an[0]);
    }
    static const std::int16_t* const noPlane[1] = {nullptr};  // unread: the sizes fail first
    auto dp = planes<std::int16_t>(dst.mutable_data(), dv.depth, static_cast<py::ssize_t>(dv.width) * dv.height);
    const int srcStep = toInt(sw * 2, "convolve", "row step");
    const int dstStep = toInt(static_cast<py::ssize_t>(dv.width) * 2, "convolve", "row step");
    const VekrPoint3D ap{an[2], an[1], an[0]};
    int status, bufSize = 0;
    {
        py::gil_scoped_release nogil;
        std::shared_lock<std::shared_mutex> lock(threadCountLock());
        status = vekrFilterGetBufSize(dv, kv, 1, &bufSize);
        if (status == vekStatusOk && bufSize > 0) {
            VekBuffer buf(bufSize);
            status = vekrFilter_16s_C1PV(pSrc ? pSrc : noPlane, srcStep,
                                         dp.data(), dstStep, dv, k.data(), kv, ap, divisor, buf.p);
        } else if (status == vekStatusOk) {
            status = vekStatusBadSize;  // the buffer size does not fit the 32-bit query
        }
    }
    std::string detail;
    if (status == vekStatusBadSize) {
        detail = (kv.width < 1 || kv.height < 1 || kv.depth < 1) ? "the kernel must be at least 1 on every axis"
                 : (dv.width < 1 || dv.height < 1 || dv.depth < 1)
                     ? (mode == "valid" ? "the volume must be at least as large as the kernel in 'valid' mode"
                                        : "the volume must be at least 1 on every axis")
                 : divisor == 0 ? "divisor must not be 0"
                                : "the work buffer exceeds the 32-bit sizes of the C interface";
    }
    check(status, "convolve", detail);
    return std::move(dst);
}

}  // namespace

void defineVolume(py::module_& m) {
    m.def("resize", &resize, py::arg("volume"), py::arg("shape") = py::none(), py::kw_only(),
          py::arg("zoom") = py::none(), py::arg("interpolation") = "linear", py::arg("region") = py::none(),
          py::arg("out") = py::none(),
          R"(resize(volume, shape=None, *, zoom=None, interpolation='linear', region=None, out=None) -> ndarray

Resizes a 3-D volume (vekrResize_*_C1V) to a new shape or by zoom factors.

volume:  (depth, height, width) array of uint8, uint16 or float32 (z, y, x
         order as in scipy.ndimage). The result has the same dtype.
shape:   (depth, height, width) of the output. The factor per axis is
         output extent / region extent.
zoom:    instead of shape: one factor or three (z, y, x); the output extent
         is extent * factor rounded half up.
interpolation: 'nearest', 'linear', 'cubic' (four-point Lagrange),
         'bspline' (cubic B-spline, B=1 C=0), 'catmull-rom' (B=0 C=0.5),
         'b05c03' (B=0.5 C=0.3), or the library code 1, 2, 4 to 7.
region:  the source region to resize, three slices (or (start, stop)
         pairs) in z, y, x order; default the whole volume. Taps outside
         the region repeat its edge voxels.
out:     optional C-contiguous array of the output shape and dtype to write.

Output voxel i samples the source at (i + 0.5) / factor - 0.5 in voxel
units (voxel centres, as scipy.ndimage.zoom with grid_mode=True and
mode='nearest'). uint8 and uint16 results are rounded and clamped.

Example:
    >>> v = np.arange(64, dtype=np.float32).reshape(4, 4, 4)
    >>> vekr.resize(v, (8, 8, 8)).shape
    (8, 8, 8)
    >>> vekr.resize(v, zoom=0.5, interpolation='nearest').shape
    (2, 2, 2)
)");
    m.def("warp_affine", &warpAffine, py::arg("volume"), py::arg("matrix"), py::arg("output_shape") = py::none(),
          py::kw_only(), py::arg("interpolation") = "linear", py::arg("region") = py::none(),
          py::arg("out") = py::none(), py::arg("cval") = 0.0,
          R"(warp_affine(volume, matrix, output_shape=None, *, interpolation='linear', region=None, out=None, cval=0) -> ndarray

Affine warp of a 3-D volume (vekrWarpAffine_*_C1PV).

volume:  (depth, height, width) array of uint8, uint16 or float32.
matrix:  3 x 4 or 4 x 4 float array, the FORWARD map from source to output
         voxel coordinates in (z, y, x) order: out = M[:, :3] @ (z, y, x) +
         M[:, 3]. (scipy.ndimage.affine_transform takes the inverse, output
         to input: pass np.linalg.inv of its 4 x 4 matrix.)
output_shape: (depth, height, width) of the output; default the volume's.
interpolation: as for resize ('nearest', 'linear', 'cubic', 'bspline',
         'catmull-rom', 'b05c03' or a code).
region:  source region (three slices or (start, stop) pairs, z, y, x) that
         may be read; default the whole volume.
out:     optional output array; voxels that map outside the source region
         keep their values. A new output is filled with cval first.

Voxel centres lie on integer coordinates. Each output voxel is pulled from
the inverse map of its coordinates; points outside the inclusive source
box are not written (like scipy's mode='constant').

Example:
    >>> v = np.random.rand(16, 16, 16).astype(np.float32)
    >>> shift = np.array([[1, 0, 0, 2], [0, 1, 0, 0], [0, 0, 1, 0]], float)
    >>> w = vekr.warp_affine(v, shift)        # w[z + 2] == v[z]
    >>> bool((w[2:] == v[:-2]).all())
    True
)");
    m.def("remap", &remap, py::arg("volume"), py::arg("coordinates"), py::kw_only(),
          py::arg("interpolation") = "linear", py::arg("region") = py::none(), py::arg("out") = py::none(),
          py::arg("cval") = 0.0,
          R"(remap(volume, coordinates, *, interpolation='linear', region=None, out=None, cval=0) -> ndarray

Samples a 3-D volume at given coordinates (vekrRemap_*_C1PV), like
scipy.ndimage.map_coordinates.

volume:  (depth, height, width) array of uint8, uint16 or float32.
coordinates: float array of shape (3, ...) holding the z, y and x source
         coordinates of every output voxel (voxel centres on integers); up
         to three trailing axes; converted to float32.
interpolation: as for resize.
region:  source region that may be read (three slices or pairs, z, y, x).
out:     optional output array of shape coordinates.shape[1:]; points
         outside the inclusive source box are not written. A new output is
         filled with cval first.

Example:
    >>> v = np.random.rand(8, 8, 8).astype(np.float32)
    >>> c = np.array([[1.5], [2.0], [3.25]])       # one point (z, y, x)
    >>> vekr.remap(v, c).shape
    (1,)
)");
    m.def("convolve", &convolve, py::arg("volume"), py::arg("kernel"), py::arg("divisor") = 1,
          py::kw_only(), py::arg("anchor") = py::none(), py::arg("mode") = "constant", py::arg("cval") = 0,
          py::arg("out") = py::none(),
          R"(convolve(volume, kernel, divisor=1, *, anchor=None, mode='constant', cval=0, out=None) -> ndarray

3-D convolution of an int16 volume with an integer kernel, divided by an
integer divisor (vekrFilter_16s_C1PV):

    out[z, y, x] = saturate_int16(round_half_even(float32(S) * float32(1 / divisor)))
    S = sum over kernel[k, j, i] * volume[z + az - k, y + ay - j, x + ax - i]

volume:  (depth, height, width) int16 array.
kernel:  (kd, kh, kw) integer array (int32 range); applied reversed, as a
         true convolution (scipy.ndimage.convolve).
divisor: nonzero int.
anchor:  (az, ay, ax), the kernel element over the output voxel, inside the
         kernel; default kernel.shape // 2 (scipy's centre for odd sizes).
mode:    border handling: 'constant' (cval), 'nearest', 'reflect',
         'mirror', 'wrap' with scipy.ndimage's meanings (the border is
         padded in a copy), or 'valid' (no border; output shape
         volume.shape - kernel.shape + 1).
out:     optional int16 output array.

Example:
    >>> v = np.ones((4, 4, 4), np.int16)
    >>> k = np.ones((3, 3, 3), np.int32)
    >>> int(vekr.convolve(v, k, mode='nearest')[1, 1, 1])
    27
)");
}

}  // namespace vekrpy
