// Shared pieces of the Python bindings: status to exception/warning, numpy
// argument conversion (one copy at most, never a rejection for layout),
// interpolation names, and the lock that keeps a buffer-size query and the
// operation that uses it on the same thread count.
#ifndef VEKR_PYTHON_COMMON_H
#define VEKR_PYTHON_COMMON_H

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

#include "vekcore.h"
#include "vekr.h"

namespace vekrpy {

namespace py = pybind11;

// Name of a status value as the header spells it ("vekStatusBadSize").
const char* statusName(int status);

// Raises vekr.VekrError for a negative status and issues a vekr.VekrWarning
// for a positive one; `what` names the binding ("resize"), `detail` is an
// optional explanation appended after a colon.
void check(int status, const char* what, const std::string& detail = std::string());

// Registers VekrError and VekrWarning in the module.
void registerErrors(py::module_& m);

// Held shared by every call that sizes a work buffer for the thread count and
// then runs with it; set_num_threads takes it exclusively.
std::shared_mutex& threadCountLock();

// A C-contiguous, aligned array of element type T made from any array-like
// (converted and copied only when it is not already one).
template <class T>
py::array_t<T> asArray(const py::handle& obj) {
    auto& api = py::detail::npy_api::get();
    PyObject* p = api.PyArray_FromAny_(obj.ptr(), py::dtype::of<T>().release().ptr(), 0, 0,
                                       py::detail::npy_api::NPY_ARRAY_C_CONTIGUOUS_ |
                                           py::detail::npy_api::NPY_ARRAY_ALIGNED_ |
                                           py::detail::npy_api::NPY_ARRAY_ENSUREARRAY_ |
                                           py::detail::npy_api::NPY_ARRAY_FORCECAST_,
                                       nullptr);
    if (!p) throw py::error_already_set();
    return py::reinterpret_steal<py::array_t<T>>(p);
}

// Same for an array whose element type is kept (the volume operations pick
// their entry point by it): only the layout is normalised.
py::array asArrayKeepType(const py::handle& obj);

// A caller's out= array must already be what the operation writes: it cannot
// be copied, since the caller keeps the original.
template <class T>
py::array_t<T> checkOut(const py::handle& out, const std::vector<py::ssize_t>& shape, const char* what) {
    if (!py::isinstance<py::array_t<T>>(out) ||
        !py::dtype::of<T>().is(py::reinterpret_borrow<py::array>(out).dtype()))
        throw py::type_error(std::string(what) + ": out must be a numpy array of dtype " +
                             std::string(py::str(py::dtype::of<T>())));
    auto a = py::reinterpret_borrow<py::array_t<T>>(out);
    const int need = py::detail::npy_api::NPY_ARRAY_C_CONTIGUOUS_ | py::detail::npy_api::NPY_ARRAY_ALIGNED_ |
                     py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
    if ((a.flags() & need) != need)
        throw py::value_error(std::string(what) + ": out must be C-contiguous, aligned and writeable");
    bool same = static_cast<std::size_t>(a.ndim()) == shape.size();
    for (std::size_t i = 0; same && i < shape.size(); ++i) same = a.shape(i) == shape[i];
    if (!same) {
        std::string s = "(";
        for (std::size_t i = 0; i < shape.size(); ++i) s += (i ? ", " : "") + std::to_string(shape[i]);
        throw py::value_error(std::string(what) + ": out must have shape " + s + (shape.size() == 1 ? ",)" : ")"));
    }
    return a;
}

// A count that the C interface takes as a signed 32-bit int.
int toInt(py::ssize_t n, const char* what, const char* name);

// Interpolation code from a name ("nearest", "linear", "cubic", "bspline",
// "catmull-rom", "b05c03") or an int, which is passed on unchecked.
int interpolationCode(const py::object& interpolation);

// Work buffer from vekMalloc (16-byte aligned), released with vekFree.
struct VekBuffer {
    explicit VekBuffer(int bytes);
    ~VekBuffer() { vekFree(p); }
    VekBuffer(const VekBuffer&) = delete;
    VekBuffer& operator=(const VekBuffer&) = delete;
    std::uint8_t* p = nullptr;
};

// Plane pointers of a C-contiguous (depth, height, width) array. An empty
// array still gets one (unread) pointer, so the library reports its size
// rather than a null plane array.
template <class T>
std::vector<T*> planes(T* base, py::ssize_t depth, py::ssize_t planeElems) {
    std::vector<T*> v(static_cast<std::size_t>(std::max<py::ssize_t>(depth, 1)), base);
    for (py::ssize_t z = 0; z < depth; ++z) v[z] = base + z * planeElems;
    return v;
}

void defineVolume(py::module_& m);
void defineSH(py::module_& m);
void defineScene(py::module_& m);

}  // namespace vekrpy

#endif
