// Spherical-harmonics bindings: basis evaluation (vekrSH_32f, vekrSHBand_32f)
// and the forward and inverse transforms over numpy direction arrays of
// shape (..., 3).
#include <cmath>
#include <map>
#include <mutex>
#include <utility>

#include "common.h"

namespace vekrpy {

namespace {

constexpr unsigned kMaxOrder = 15;  // the highest order the evaluators take

unsigned methodCode(const std::string& method) {
    if (method == "direct") return vekrSHDirect;
    if (method == "recurrence") return vekrSHRecurrence;
    throw py::value_error("method is 'direct' or 'recurrence', not '" + method + "'");
}

// The states, one per (order, method), made on first use and kept for the
// life of the process: a state holds absolute pointers into its own memory,
// so it is never moved or copied, and once filled it is read-only and may be
// shared by any number of threads. An order above 15 gets the order-15 state,
// which the library then rejects with vekStatusBadArgument.
const VekrSHState* stateFor(unsigned order, unsigned type, const char* what) {
    static std::mutex lock;
    static std::map<std::pair<unsigned, unsigned>, void*> states;
    const unsigned o = std::min(order, kMaxOrder);
    std::lock_guard<std::mutex> guard(lock);
    auto it = states.find({o, type});
    if (it != states.end()) return static_cast<const VekrSHState*>(it->second);
    int size = 0;
    check(vekrSHGetSize_32f(o, type, &size), what);
    void* mem = vekMalloc(size);  // 16-byte aligned, as the recurrence tables need
    if (!mem) throw std::bad_alloc();
    const int st = vekrSHInit_32f(static_cast<VekrSHState*>(mem), o, type);
    if (st != vekStatusOk) {
        vekFree(mem);
        check(st, what);
    }
    states.emplace(std::make_pair(o, type), mem);
    return static_cast<const VekrSHState*>(mem);
}

// Directions of shape (..., 3) split into planar x, y, z (one copy).
struct Directions {
    std::vector<py::ssize_t> lead;  // the leading shape
    std::vector<float> xyz;         // x plane, y plane, z plane
    py::ssize_t count = 0;
    const float* x() const { return xyz.data(); }
    const float* y() const { return xyz.data() + count; }
    const float* z() const { return xyz.data() + 2 * count; }
};

Directions directionsArg(const py::object& directions, const char* what) {
    auto a = asArray<float>(directions);
    if (a.ndim() < 1 || a.shape(a.ndim() - 1) != 3)
        throw py::value_error(std::string(what) + ": directions must have shape (..., 3) (x, y, z last)");
    Directions d;
    d.lead.assign(a.shape(), a.shape() + a.ndim() - 1);
    d.count = a.size() / 3;
    toInt(d.count, what, "the number of directions");
    d.xyz.resize(static_cast<std::size_t>(3 * d.count));
    const float* p = a.data();
    for (py::ssize_t i = 0; i < d.count; ++i)
        for (int c = 0; c < 3; ++c) d.xyz[c * d.count + i] = p[3 * i + c];
    return d;
}

std::vector<py::ssize_t> plus(std::vector<py::ssize_t> s, py::ssize_t n) {
    s.push_back(n);
    return s;
}

std::string orderDetail(int status, unsigned order) {
    return status == vekStatusBadArgument && order > kMaxOrder ? "order must be 0 to 15" : "";
}

py::array shEval(const py::object& directions, unsigned order, const std::string& method, const py::object& out) {
    const unsigned type = methodCode(method);
    Directions d = directionsArg(directions, "sh_eval");
    const py::ssize_t n = order <= kMaxOrder ? (order + 1) * (order + 1) : 0;
    auto shape = plus(d.lead, n);
    auto dst = out.is_none() ? py::array_t<float>(shape) : checkOut<float>(out, shape, "sh_eval");
    const VekrSHState* state = stateFor(order, type, "sh_eval");
    if (d.count == 0) {  // nothing to evaluate; the order is still checked
        if (order > kMaxOrder) check(vekStatusBadArgument, "sh_eval", orderDetail(vekStatusBadArgument, order));
        return std::move(dst);
    }
    int status;
    {
        py::gil_scoped_release nogil;
        status = vekrSH_32f(d.x(), d.y(), d.z(), static_cast<int>(d.count), dst.mutable_data(), order, state);
    }
    check(status, "sh_eval", orderDetail(status, order));
    return std::move(dst);
}

py::array shBand(const py::object& directions, unsigned band, const py::object& out) {
    Directions d = directionsArg(directions, "sh_band");
    auto shape = plus(d.lead, band <= kMaxOrder ? 2 * band + 1 : 0);
    auto dst = out.is_none() ? py::array_t<float>(shape) : checkOut<float>(out, shape, "sh_band");
    if (d.count == 0) {
        if (band > kMaxOrder) check(vekStatusBadArgument, "sh_band", "band must be 0 to 15");
        return std::move(dst);
    }
    int status;
    {
        py::gil_scoped_release nogil;
        status = vekrSHBand_32f(d.x(), d.y(), d.z(), static_cast<int>(d.count), dst.mutable_data(), band);
    }
    check(status, "sh_band", status == vekStatusBadArgument ? "band must be 0 to 15" : "");
    return std::move(dst);
}

py::array shProject(const py::object& directions, const py::object& values, unsigned order,
                    const std::string& method, const py::object& out) {
    const unsigned type = methodCode(method);
    Directions d = directionsArg(directions, "sh_project");
    auto v = asArray<float>(values);
    const bool colour = static_cast<std::size_t>(v.ndim()) == d.lead.size() + 1 && v.shape(v.ndim() - 1) == 3;
    bool match = colour || static_cast<std::size_t>(v.ndim()) == d.lead.size();
    for (std::size_t i = 0; match && i < d.lead.size(); ++i) match = v.shape(i) == d.lead[i];
    if (!match)
        throw py::value_error("sh_project: values must have the directions' leading shape, with an optional "
                              "last axis of 3 channels");
    const py::ssize_t n = order <= kMaxOrder ? (order + 1) * (order + 1) : 0;
    std::vector<py::ssize_t> shape = colour ? std::vector<py::ssize_t>{3, n} : std::vector<py::ssize_t>{n};
    py::array_t<float> coeffs;
    if (out.is_none()) {
        coeffs = py::array_t<float>(shape);
        std::fill(coeffs.mutable_data(), coeffs.mutable_data() + coeffs.size(), 0.0f);
    } else {
        coeffs = checkOut<float>(out, shape, "sh_project");
    }
    const VekrSHState* state = stateFor(order, type, "sh_project");
    if (d.count == 0) {
        if (order > kMaxOrder) check(vekStatusBadArgument, "sh_project", orderDetail(vekStatusBadArgument, order));
        return std::move(coeffs);
    }
    float* c = coeffs.mutable_data();
    float* planes3[3] = {c, c + n, c + 2 * n};
    int status;
    {
        py::gil_scoped_release nogil;
        // Values (..., 3) are already the interleaved C3 layout.
        status = colour ? vekrSHTFwd_32f_C3P3I(d.x(), d.y(), d.z(), v.data(), static_cast<int>(d.count), planes3,
                                               order, state)
                        : vekrSHTFwd_32f_C1I(d.x(), d.y(), d.z(), v.data(), static_cast<int>(d.count), c, order,
                                             state);
    }
    check(status, "sh_project", orderDetail(status, order));
    return std::move(coeffs);
}

py::array shReconstruct(const py::object& coefficients, const py::object& directions, const std::string& method,
                        const py::object& out) {
    const unsigned type = methodCode(method);
    auto c = asArray<float>(coefficients);
    if (c.ndim() != 1 && !(c.ndim() == 2 && c.shape(0) == 3))
        throw py::value_error("sh_reconstruct: coefficients have shape ((L+1)**2,) or (3, (L+1)**2)");
    const py::ssize_t n = c.shape(c.ndim() - 1);
    const auto root = static_cast<py::ssize_t>(std::lround(std::sqrt(double(n))));
    if (n < 1 || root * root != n)
        throw py::value_error("sh_reconstruct: the coefficient count must be a square (L+1)**2, not " +
                              std::to_string(n));
    const unsigned order = static_cast<unsigned>(root - 1);
    Directions d = directionsArg(directions, "sh_reconstruct");
    const bool colour = c.ndim() == 2;
    auto shape = colour ? plus(d.lead, 3) : d.lead;
    auto dst = out.is_none() ? py::array_t<float>(shape) : checkOut<float>(out, shape, "sh_reconstruct");
    const VekrSHState* state = stateFor(order, type, "sh_reconstruct");
    if (d.count == 0) {
        if (order > kMaxOrder) check(vekStatusBadArgument, "sh_reconstruct", orderDetail(vekStatusBadArgument, order));
        return std::move(dst);
    }
    const float* cp = c.data();
    const float* planes3[3] = {cp, cp + n, cp + 2 * n};
    int status;
    {
        py::gil_scoped_release nogil;
        status = colour ? vekrSHTInv_32f_P3C3(planes3, order, d.x(), d.y(), d.z(), dst.mutable_data(),
                                              static_cast<int>(d.count), state)
                        : vekrSHTInv_32f_C1(cp, order, d.x(), d.y(), d.z(), dst.mutable_data(),
                                            static_cast<int>(d.count), state);
    }
    check(status, "sh_reconstruct", orderDetail(status, order));
    return std::move(dst);
}

}  // namespace

void defineSH(py::module_& m) {
    m.def("sh_eval", &shEval, py::arg("directions"), py::arg("order"), py::kw_only(),
          py::arg("method") = "direct", py::arg("out") = py::none(),
          R"(sh_eval(directions, order, *, method='direct', out=None) -> ndarray

Real spherical harmonics of bands 0..order (vekrSH_32f).

directions: float array of shape (..., 3), x, y, z per direction (meant to
         be unit vectors; not normalised). Converted to float32.
order:   0 to 15.
method:  'direct' (closed-form polynomials) or 'recurrence' (band
         recurrence); they differ by rounding only.
Returns float32 of shape (..., (order+1)**2); Y_l^m of a direction is at
index l*l + l + m, with the Condon-Shortley phase (Y_1^1 = -0.4886 x) and
real functions sqrt(2) K P cos(m phi) for m > 0, sqrt(2) K P sin(|m| phi)
for m < 0.

Example:
    >>> vekr.sh_eval([0, 0, 1], 1).round(4)    # -0: -0.4886 * y with y = 0
    array([ 0.2821, -0.    ,  0.4886, -0.    ], dtype=float32)
)");
    m.def("sh_band", &shBand, py::arg("directions"), py::arg("band"), py::kw_only(), py::arg("out") = py::none(),
          R"(sh_band(directions, band, *, out=None) -> ndarray

The 2*band+1 functions of one band (vekrSHBand_32f, closed form).

directions: float array of shape (..., 3).
band:    0 to 15.
Returns float32 of shape (..., 2*band+1), Y_band^m at index band + m.

Example:
    >>> vekr.sh_band([[1, 0, 0]], 1).round(4)
    array([[-0.    ,  0.    , -0.4886]], dtype=float32)
)");
    m.def("sh_project", &shProject, py::arg("directions"), py::arg("values"), py::arg("order"), py::kw_only(),
          py::arg("method") = "direct", py::arg("out") = py::none(),
          R"(sh_project(directions, values, order, *, method='direct', out=None) -> ndarray

Forward transform (vekrSHTFwd_32f_C1I / _C3P3I): the sum over samples of
value * basis(direction), bands 0..order.

directions: float array of shape (..., 3).
values:  float array of the directions' leading shape (one channel) or of
         that shape plus a last axis of 3 (three channels, e.g. RGB).
         Quadrature weights (solid angle per sample) are the caller's: fold
         them into the values.
order:   0 to 15.
out:     optional float32 coefficient array, ((order+1)**2,) or
         (3, (order+1)**2), to which the sums are ADDED (so several batches
         accumulate); a new result starts from zeros.
Returns the coefficients, float32.

Example:
    >>> d = np.array([[0, 0, 1.0], [0, 0, -1.0]])
    >>> vekr.sh_project(d, [2.0, 4.0], 0)
    array([1.6925688], dtype=float32)
)");
    m.def("sh_reconstruct", &shReconstruct, py::arg("coefficients"), py::arg("directions"), py::kw_only(),
          py::arg("method") = "direct", py::arg("out") = py::none(),
          R"(sh_reconstruct(coefficients, directions, *, method='direct', out=None) -> ndarray

Inverse transform (vekrSHTInv_32f_C1 / _P3C3): per direction, the dot
product of the basis with the coefficients.

coefficients: float array ((L+1)**2,) or (3, (L+1)**2); the order L follows
         from the length (0 to 15).
directions: float array of shape (..., 3).
Returns float32 of shape (...) or (..., 3).

Example:
    >>> c = vekr.sh_project([[0, 0, 1.0]], [1.0], 1)
    >>> vekr.sh_reconstruct(c, [[0, 0, 1.0]]).round(4)   # 0.2821**2 + 0.4886**2
    array([0.3183], dtype=float32)
)");
}

}  // namespace vekrpy
