// The extension module vekr._vekr: status reporting, argument helpers, the
// thread count and the version, and the registration of the three families.
#include <cmath>
#include <cstdio>
#include <mutex>

#include "common.h"

namespace vekrpy {

namespace {

PyObject* g_error = nullptr;    // vekr.VekrError (a RuntimeError)
PyObject* g_warning = nullptr;  // vekr.VekrWarning (a UserWarning)

struct StatusName {
    int status;
    const char* name;
};

const StatusName kStatusNames[] = {
    {vekStatusOk, "vekStatusOk"},
    {vekStatusNoOperation, "vekStatusNoOperation"},
    {vekStatusDivByZero, "vekStatusDivByZero"},
    {vekStatusVoiOutsideSrc, "vekStatusVoiOutsideSrc"},
    {vekStatusBuildInconsistent, "vekStatusBuildInconsistent"},
    {vekStatusNoMemory, "vekStatusNoMemory"},
    {vekStatusBadAlgorithm, "vekStatusBadAlgorithm"},
    {vekStatusBadSize, "vekStatusBadSize"},
    {vekStatusBadArgument, "vekStatusBadArgument"},
    {vekStatusNullPtr, "vekStatusNullPtr"},
    {vekStatusBudgetExhausted, "vekStatusBudgetExhausted"},
    {vekStatusOutOfRange, "vekStatusOutOfRange"},
    {vekStatusBadInterpolation, "vekStatusBadInterpolation"},
    {vekStatusBadResizeFactor, "vekStatusBadResizeFactor"},
    {vekStatusBadNumChannels, "vekStatusBadNumChannels"},
    {vekStatusSingularTransform, "vekStatusSingularTransform"},
};

}  // namespace

const char* statusName(int status) {
    for (const auto& s : kStatusNames)
        if (s.status == status) return s.name;
    return nullptr;
}

void check(int status, const char* what, const std::string& detail) {
    if (status == vekStatusOk) return;
    const char* name = statusName(status);
    std::string msg = name ? name : "status " + std::to_string(status);
    msg += std::string(" in ") + what;
    if (!detail.empty()) msg += ": " + detail;
    if (status > 0) {
        // A warning may be turned into an exception by the warnings filter.
        if (PyErr_WarnEx(g_warning, msg.c_str(), 2) < 0) throw py::error_already_set();
        return;
    }
    py::object cls = py::reinterpret_borrow<py::object>(g_error);
    py::object exc = cls(msg);
    exc.attr("status") = status;
    exc.attr("status_name") = name ? py::str(name) : py::str("");
    PyErr_SetObject(g_error, exc.ptr());
    throw py::error_already_set();
}

void registerErrors(py::module_& m) {
    g_error = PyErr_NewExceptionWithDoc(
        "vekr.VekrError",
        "A vekr operation returned an error status.\n\n"
        "Attributes: status (the negative VekStatus value) and status_name\n"
        "(its name, for example 'vekStatusBadSize').",
        PyExc_RuntimeError, nullptr);
    g_warning = PyErr_NewExceptionWithDoc(
        "vekr.VekrWarning",
        "A vekr operation returned a warning status (for example vekStatusNoOperation:\n"
        "nothing was written).",
        PyExc_UserWarning, nullptr);
    if (!g_error || !g_warning) throw py::error_already_set();
    m.add_object("VekrError", py::handle(g_error));
    m.add_object("VekrWarning", py::handle(g_warning));
}

std::shared_mutex& threadCountLock() {
    static std::shared_mutex lock;
    return lock;
}

py::array asArrayKeepType(const py::handle& obj) {
    auto& api = py::detail::npy_api::get();
    PyObject* p = api.PyArray_FromAny_(obj.ptr(), nullptr, 0, 0,
                                       py::detail::npy_api::NPY_ARRAY_C_CONTIGUOUS_ |
                                           py::detail::npy_api::NPY_ARRAY_ALIGNED_ |
                                           py::detail::npy_api::NPY_ARRAY_ENSUREARRAY_,
                                       nullptr);
    if (!p) throw py::error_already_set();
    auto a = py::reinterpret_steal<py::array>(p);
    // A byte-swapped array is aligned and contiguous but not in native order:
    // convert it to the native form of the same type.
    if (!a.dtype().attr("isnative").cast<bool>()) {
        py::object native = a.dtype().attr("newbyteorder")("=");
        a = py::reinterpret_steal<py::array>(api.PyArray_FromAny_(
            a.ptr(), native.release().ptr(), 0, 0,
            py::detail::npy_api::NPY_ARRAY_C_CONTIGUOUS_ | py::detail::npy_api::NPY_ARRAY_ALIGNED_ |
                py::detail::npy_api::NPY_ARRAY_ENSUREARRAY_ | py::detail::npy_api::NPY_ARRAY_FORCECAST_,
            nullptr));
        if (!a) throw py::error_already_set();
    }
    return a;
}

int toInt(py::ssize_t n, const char* what, const char* name) {
    if (n > 0x7FFFFFFF)
        throw py::value_error(std::string(what) + ": " + name + " " + std::to_string(n) +
                              " exceeds the 32-bit counts of the C interface");
    return static_cast<int>(n);
}

int interpolationCode(const py::object& interpolation) {
    if (py::isinstance<py::str>(interpolation)) {
        const std::string s = interpolation.cast<std::string>();
        struct {
            const char* name;
            int code;
        } const names[] = {{"nearest", vekrInterNearest},         {"linear", vekrInterLinear},
                           {"cubic", vekrInterCubic},             {"lagrange", vekrInterCubic},
                           {"bspline", vekrInterCubicBSpline},    {"catmull-rom", vekrInterCubicCatmullRom},
                           {"catmullrom", vekrInterCubicCatmullRom}, {"b05c03", vekrInterCubicB05C03}};
        for (const auto& n : names)
            if (s == n.name) return n.code;
        throw py::value_error("unknown interpolation '" + s +
                              "' (nearest, linear, cubic, bspline, catmull-rom, b05c03, or a code 1, 2, 4 to 7)");
    }
    if (py::isinstance<py::bool_>(interpolation) || !py::isinstance<py::int_>(interpolation))
        throw py::type_error("interpolation must be a name or an int code");
    // An int code goes to the library as it is, which rejects what it does not know.
    return interpolation.cast<int>();
}

VekBuffer::VekBuffer(int bytes) {
    p = static_cast<std::uint8_t*>(vekMalloc(bytes > 0 ? bytes : 16));
    if (!p) throw std::bad_alloc();
}

}  // namespace vekrpy

namespace py = pybind11;
using namespace vekrpy;

PYBIND11_MODULE(_vekr, m) {
    // Every docstring starts with its own Python-style signature.
    py::options options;
    options.disable_function_signatures();
    m.doc() = "vekr: volume resize, remap, affine warp and 3-D convolution, spherical harmonics and\n"
              "KD-tree ray queries on numpy arrays (the C library libvekr.so underneath).";
    registerErrors(m);

    const VekLibraryVersion* v = vekrGetLibVersion();
    char version[64];
    std::snprintf(version, sizeof version, "%d.%d.%d.%d", v->major, v->minor, v->majorBuild, v->build);
    m.attr("__version__") = version;
    m.attr("library_version") = py::dict(py::arg("major") = v->major, py::arg("minor") = v->minor,
                                         py::arg("major_build") = v->majorBuild, py::arg("build") = v->build,
                                         py::arg("target_cpu") = std::string(v->targetCpu, 2),
                                         py::arg("name") = v->name, py::arg("version") = v->version,
                                         py::arg("build_date") = v->buildDate);

    m.def(
        "set_num_threads",
        [](int n) {
            int status;
            {
                py::gil_scoped_release nogil;
                std::unique_lock<std::shared_mutex> lock(threadCountLock());
                status = vekSetNumThreads(n);
            }
            check(status, "set_num_threads", n < 1 ? "the thread count must be at least 1" : "");
        },
        py::arg("n"),
        "set_num_threads(n)\n\n"
        "Sets the thread count of the parallel volume operations (resize of float32\n"
        "volumes, remap, warp_affine, convolve) for the whole process. Results never\n"
        "depend on it.\n\n"
        "Example:\n    >>> vekr.set_num_threads(1)\n");
    m.def(
        "get_num_threads",
        []() {
            int n = 0;
            check(vekGetNumThreads(&n), "get_num_threads");
            return n;
        },
        "get_num_threads() -> int\n\n"
        "The thread count of the parallel volume operations.\n\n"
        "Example:\n    >>> vekr.get_num_threads() >= 1\n    True\n");

    defineVolume(m);
    defineSH(m);
    defineScene(m);
}
