// Scene binding: a triangle mesh turned into accelerator records, scene box
// and KD tree, with the nearest-hit, any-hit and multiple-hit ray queries.
// The queries check nothing in the library, so everything they read is made
// here: the triangle indices are checked once when the scene is built, and
// every per-ray array is allocated by the binding at the packet's size.
#include <algorithm>
#include <cmath>
#include <limits>

#include "common.h"

namespace vekrpy {

namespace {

PyObject* g_hits = nullptr;       // namedtuple Hits(t, u, v, triangle)
PyObject* g_occlusion = nullptr;  // namedtuple Occlusion(occluded, triangle)

// Rays of shape (..., 3) as three planes (one copy), the packet layout.
struct Planar {
    std::vector<py::ssize_t> lead;
    std::vector<float> data;
    py::ssize_t count = 0;
    const float* plane(int c) const { return data.data() + c * count; }
};

Planar planarArg(const py::object& obj, const char* what, const char* name) {
    auto a = asArray<float>(obj);
    if (a.ndim() < 1 || a.shape(a.ndim() - 1) != 3)
        throw py::value_error(std::string(what) + ": " + name + " must have shape (..., 3)");
    Planar p;
    p.lead.assign(a.shape(), a.shape() + a.ndim() - 1);
    p.count = a.size() / 3;
    toInt(p.count, what, "the number of rays");
    p.data.resize(static_cast<std::size_t>(3 * p.count));
    const float* s = a.data();
    for (py::ssize_t i = 0; i < p.count; ++i)
        for (int c = 0; c < 3; ++c) p.data[c * p.count + i] = s[3 * i + c];
    return p;
}

std::array<float, 3> pointArg(const py::object& obj, const char* what) {
    auto a = asArray<float>(obj);
    if (a.ndim() != 1 || a.shape(0) != 3) throw py::value_error(std::string(what) + ": origin must have shape (3,)");
    return {a.data()[0], a.data()[1], a.data()[2]};
}

py::tuple shapeTuple(const std::vector<py::ssize_t>& shape) {
    py::tuple t(shape.size());
    for (std::size_t i = 0; i < shape.size(); ++i) t[i] = py::int_(shape[i]);
    return t;
}

// Per-ray float argument (tmax) broadcast to the rays' leading shape.
std::vector<float> perRay(const py::object& value, const std::vector<py::ssize_t>& lead, py::ssize_t count,
                          const char* what) {
    py::object np = py::module_::import("numpy");
    py::object b;
    try {
        b = np.attr("broadcast_to")(np.attr("asarray")(value, py::arg("dtype") = "float32"), shapeTuple(lead));
    } catch (py::error_already_set&) {
        throw py::value_error(std::string(what) + ": tmax must be a number or broadcast to the rays' shape");
    }
    auto a = asArray<float>(b);
    return std::vector<float>(a.data(), a.data() + count);
}

// A packet of count rays is run as one block whose width and height are
// multiples of 4 (the library's vector path) for the first count - count % 16
// rays, and as one row for the rest (its scalar path). Both give the same
// values; `run(first, width, height)` calls the library on one block.
template <class F>
void forBlocks(py::ssize_t count, F run) {
    const py::ssize_t bulk = count - count % 16;
    if (bulk > 0) run(0, 4, static_cast<int>(bulk / 4));
    if (count > bulk) run(bulk, static_cast<int>(count - bulk), 1);
}

py::array_t<float> filled(const std::vector<py::ssize_t>& shape, float v) {
    py::array_t<float> a(shape);
    std::fill(a.mutable_data(), a.mutable_data() + a.size(), v);
    return a;
}

class Scene {
public:
    Scene(const py::object& vertices, const py::object& triangles, const std::string& algorithm, int maxDepth,
          float costBalance, unsigned memoryLimitMB, const py::object& clipBox) {
        auto v = asArray<float>(vertices);
        if (v.ndim() != 2 || v.shape(1) != 3) throw py::value_error("Scene: vertices must have shape (V, 3)");
        auto t = asArray<std::int64_t>(triangles);
        if (t.ndim() != 2 || (t.shape(1) != 3 && t.shape(1) != 4))
            throw py::value_error("Scene: triangles must have shape (T, 3) or (T, 4) (vertex indices first)");
        numVertices_ = toInt(v.shape(0), "Scene", "the vertex count");
        numTriangles_ = toInt(t.shape(0), "Scene", "the triangle count");
        // The surface-area build seeds the scene box from vertex 0 whatever the
        // count, so an empty vertex array is replaced by one point at the origin.
        vertices_.assign(v.data(), v.data() + 3 * numVertices_);
        if (vertices_.empty()) vertices_.assign(3, 0.0f);
        // Triangles are four int32 each; the fourth is carried, not read.
        triangles_.assign(static_cast<std::size_t>(4 * std::max(numTriangles_, 1)), 0);
        const int cols = static_cast<int>(t.shape(1));
        auto tr = t.unchecked<2>();
        for (int i = 0; i < numTriangles_; ++i) {
            for (int c = 0; c < 3; ++c) {
                const std::int64_t idx = tr(i, c);
                if (idx < 0 || idx >= numVertices_)
                    throw py::value_error("Scene: triangle " + std::to_string(i) + " has vertex index " +
                                          std::to_string(idx) + ", outside 0.." + std::to_string(numVertices_ - 1));
                triangles_[4 * i + c] = static_cast<std::int32_t>(idx);
            }
            if (cols == 4) {
                const std::int64_t w = tr(i, 3);
                if (w < INT32_MIN || w > INT32_MAX) throw py::value_error("Scene: triangle word outside int32");
                triangles_[4 * i + 3] = static_cast<std::int32_t>(w);
            }
        }
        VekrKDTreeBuildParams params{};
        if (algorithm == "sah")
            params.algorithm = vekKDTreeBuildPSAH;
        else if (algorithm == "simple")
            params.algorithm = vekKDTreeBuildSimple;
        else
            throw py::value_error("Scene: algorithm is 'sah' or 'simple'");
        params.maxDepth = maxDepth;
        params.costBalance = costBalance;
        params.memoryLimitMB = memoryLimitMB;
        if (!clipBox.is_none()) {
            auto b = asArray<float>(clipBox);
            if (b.size() != 6) throw py::value_error("Scene: clip_box is ((xmin, ymin, zmin), (xmax, ymax, zmax))");
            std::copy(b.data(), b.data() + 3, clipBox_.minCorner);
            std::copy(b.data() + 3, b.data() + 6, clipBox_.maxCorner);
            params.pClipBox = &clipBox_;
        }
        accel_.resize(static_cast<std::size_t>(std::max(numTriangles_, 1)));
        int status, size = 0;
        {
            py::gil_scoped_release nogil;
            vekrTriangleAccelInit(accel_.data(), vertices_.data(), triangles_.data(), numTriangles_);
            status = vekrSetBoundBox_32f(vertices_.data(), numVertices_, &box_);
            if (status == vekStatusOk)
                status = vekrKDTreeBuildAlloc(&tree_, vertices_.data(), triangles_.data(), numVertices_,
                                              numTriangles_, &size, &params);
        }
        check(status, "Scene",
              status == vekStatusOutOfRange ? "max_depth must be 0 to 50 and cost_balance 0 to 1"
              : status == vekStatusNoMemory  ? "memory_limit_mb is too small for this scene (at least 32)"
                                             : "");
        treeSize_ = size;
        context_ = {&box_, accel_.data(), tree_};
    }
    ~Scene() { vekrKDTreeFree(tree_); }
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    py::object intersect(const py::object& origins, const py::object& directions, const py::object& tmax) const {
        Planar d = planarArg(directions, "intersect", "directions");
        auto o = asArray<float>(origins);
        const bool single = o.ndim() == 1 && o.shape(0) == 3;
        Planar po;
        std::array<float, 3> eye{};
        if (single) {
            eye = {o.data()[0], o.data()[1], o.data()[2]};
        } else {
            po = planarArg(o, "intersect", "origins");
            if (po.lead != d.lead)
                throw py::value_error("intersect: origins must have shape (3,) or the directions' shape");
        }
        auto t = filled(d.lead, 0.0f);
        std::vector<float> lim = perRay(tmax, d.lead, d.count, "intersect");
        std::copy(lim.begin(), lim.end(), t.mutable_data());
        auto u = filled(d.lead, std::numeric_limits<float>::quiet_NaN());
        auto v = filled(d.lead, std::numeric_limits<float>::quiet_NaN());
        py::array_t<std::int32_t> tri(d.lead);
        float* pt = t.mutable_data();
        float* pu = u.mutable_data();
        float* pv = v.mutable_data();
        std::int32_t* pi = tri.mutable_data();
        {
            py::gil_scoped_release nogil;
            forBlocks(d.count, [&](py::ssize_t f, int w, int h) {
                const float* dir[3] = {d.plane(0) + f, d.plane(1) + f, d.plane(2) + f};
                float* hit[2] = {pu + f, pv + f};
                if (single) {
                    vekrIntersectEyeSO_32f(eye.data(), dir, pt + f, hit, pi + f, &context_, w, h);
                } else {
                    const float* org[3] = {po.plane(0) + f, po.plane(1) + f, po.plane(2) + f};
                    vekrIntersectMO_32f(org, dir, pt + f, hit, pi + f, &context_, w, h);
                }
            });
        }
        return py::reinterpret_borrow<py::object>(g_hits)(t, u, v, tri);
    }

    py::object occluded(const py::object& origin, const py::object& directions, const py::object& active) const {
        const auto eye = pointArg(origin, "occluded");
        Planar d = planarArg(directions, "occluded", "directions");
        py::array_t<std::int32_t> mask(d.lead);
        std::int32_t* pm = mask.mutable_data();
        if (active.is_none()) {
            std::fill(pm, pm + d.count, 0);
        } else {
            py::object np = py::module_::import("numpy");
            py::object b;
            try {
                b = np.attr("broadcast_to")(np.attr("asarray")(active, py::arg("dtype") = "bool"), shapeTuple(d.lead));
            } catch (py::error_already_set&) {
                throw py::value_error("occluded: active must broadcast to the rays' shape");
            }
            auto a = asArray<bool>(b);
            for (py::ssize_t i = 0; i < d.count; ++i) pm[i] = a.data()[i] ? 0 : -1;
        }
        py::array_t<std::int32_t> tri(d.lead);
        std::int32_t* pi = tri.mutable_data();
        {
            py::gil_scoped_release nogil;
            forBlocks(d.count, [&](py::ssize_t f, int w, int h) {
                const float* dir[3] = {d.plane(0) + f, d.plane(1) + f, d.plane(2) + f};
                vekrIntersectAnySO_32f(eye.data(), dir, pi + f, pm + f, w, h, &context_);
            });
        }
        py::array_t<bool> occ(d.lead);
        for (py::ssize_t i = 0; i < d.count; ++i) occ.mutable_data()[i] = pi[i] >= 0;
        return py::reinterpret_borrow<py::object>(g_occlusion)(occ, tri);
    }

    py::object intersectMultiple(const py::object& origin, const py::object& directions, int depth,
                                 const py::object& tmax) const {
        const auto eye = pointArg(origin, "intersect_multiple");
        if (depth < 0) throw py::value_error("intersect_multiple: depth must be 0 or more");
        Planar d = planarArg(directions, "intersect_multiple", "directions");
        std::vector<float> lim = perRay(tmax, d.lead, d.count, "intersect_multiple");
        toInt(d.count * depth, "intersect_multiple", "rays x depth");
        std::vector<py::ssize_t> shape = d.lead;
        shape.push_back(depth);
        auto t = filled(shape, std::numeric_limits<float>::infinity());
        auto u = filled(shape, std::numeric_limits<float>::quiet_NaN());
        auto v = filled(shape, std::numeric_limits<float>::quiet_NaN());
        py::array_t<std::int32_t> tri(shape);
        float* pt = t.mutable_data();
        float* pu = u.mutable_data();
        float* pv = v.mutable_data();
        std::int32_t* pi = tri.mutable_data();
        if (depth > 0) {
            py::gil_scoped_release nogil;
            // The library stores level by level (level L of a block's ray i at
            // L * rays + i); the result holds a ray's levels together.
            std::vector<float> bt, bu, bv;
            std::vector<std::int32_t> bi;
            forBlocks(d.count, [&](py::ssize_t f, int w, int h) {
                const py::ssize_t n = static_cast<py::ssize_t>(w) * h;
                const std::size_t size = static_cast<std::size_t>(n * depth);
                bt.assign(size, std::numeric_limits<float>::infinity());
                bu.assign(size, std::numeric_limits<float>::quiet_NaN());
                bv.assign(size, std::numeric_limits<float>::quiet_NaN());
                bi.assign(size, -1);
                std::copy(lim.begin() + f, lim.begin() + f + n, bt.begin());
                const float* dir[3] = {d.plane(0) + f, d.plane(1) + f, d.plane(2) + f};
                float* hit[2] = {bu.data(), bv.data()};
                vekrIntersectMultipleSO_32f(eye.data(), dir, bt.data(), hit, bi.data(), w, h, depth, &context_);
                for (py::ssize_t i = 0; i < n; ++i)
                    for (int l = 0; l < depth; ++l) {
                        const py::ssize_t s = l * n + i, o = (f + i) * depth + l;
                        pt[o] = bt[s];
                        pu[o] = bu[s];
                        pv[o] = bv[s];
                        pi[o] = bi[s];
                    }
            });
        }
        return py::reinterpret_borrow<py::object>(g_hits)(t, u, v, tri);
    }

    py::array bounds() const {
        py::array_t<float> b(std::vector<py::ssize_t>{2, 3});
        std::copy(box_.minCorner, box_.minCorner + 3, b.mutable_data());
        std::copy(box_.maxCorner, box_.maxCorner + 3, b.mutable_data() + 3);
        return std::move(b);
    }
    int numTriangles() const { return numTriangles_; }
    int numVertices() const { return numVertices_; }
    int treeSize() const { return treeSize_; }

private:
    int numVertices_ = 0, numTriangles_ = 0, treeSize_ = 0;
    std::vector<float> vertices_;
    std::vector<std::int32_t> triangles_;
    std::vector<VekrTriangleAccel> accel_;
    VekrBoundBox box_{};
    VekrBoundBox clipBox_{};
    VekrKDTreeNode* tree_ = nullptr;
    VekrIntersectContext context_{};
};

}  // namespace

void defineScene(py::module_& m) {
    py::object namedtuple = py::module_::import("collections").attr("namedtuple");
    py::object hits = namedtuple("Hits", "t u v triangle", py::arg("module") = "vekr");
    hits.attr("__doc__") =
        "Results of a ray query, arrays of the rays' shape (plus a last axis of levels for\n"
        "intersect_multiple): t, the hit distance in units of the direction's length (the\n"
        "ray's tmax where nothing was hit); u and v, the barycentric weights of the hit\n"
        "triangle's first and second vertex (the third has 1 - u - v; NaN without a hit);\n"
        "triangle, the hit triangle's index or -1.";
    py::object occ = namedtuple("Occlusion", "occluded triangle", py::arg("module") = "vekr");
    occ.attr("__doc__") =
        "Results of Scene.occluded: occluded (bool per ray) and triangle, the first\n"
        "occluding triangle found (not necessarily the nearest) or -1.";
    g_hits = hits.inc_ref().ptr();  // kept for the life of the process
    g_occlusion = occ.inc_ref().ptr();
    m.attr("Hits") = hits;
    m.attr("Occlusion") = occ;

    py::class_<Scene>(m, "Scene", R"(Scene(vertices, triangles, *, algorithm='sah', max_depth=40, cost_balance=0.5, memory_limit_mb=2048, clip_box=None)

A triangle scene prepared for ray queries: accelerator records
(vekrTriangleAccelInit), the scene box (vekrSetBoundBox_32f) and a KD tree
(vekrKDTreeBuildAlloc), kept together for the life of the object.

vertices:  (V, 3) float array of x, y, z; converted to float32.
triangles: (T, 3) or (T, 4) integer array of vertex indices (a fourth column
           is carried, not read); every index must lie in 0..V-1.
algorithm: 'sah' (surface-area heuristic) or 'simple' (one leaf).
max_depth, cost_balance, memory_limit_mb, clip_box: the build parameters
           (0..50, 0.0..1.0, MiB of working memory, optional
           ((xmin, ymin, zmin), (xmax, ymax, zmax))).

Example:
    >>> v = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0]], np.float32)
    >>> s = vekr.Scene(v, [[0, 1, 2]])
    >>> h = s.intersect([0.2, 0.2, 1], [[0, 0, -1]])
    >>> float(h.t[0]), int(h.triangle[0])
    (1.0, 0)
)")
        .def(py::init<const py::object&, const py::object&, const std::string&, int, float, unsigned,
                      const py::object&>(),
             py::arg("vertices"), py::arg("triangles"), py::kw_only(), py::arg("algorithm") = "sah",
             py::arg("max_depth") = 40, py::arg("cost_balance") = 0.5f, py::arg("memory_limit_mb") = 2048u,
             py::arg("clip_box") = py::none())
        .def("intersect", &Scene::intersect, py::arg("origins"), py::arg("directions"), py::kw_only(),
             py::arg("tmax") = std::numeric_limits<float>::infinity(),
             R"(intersect(origins, directions, *, tmax=inf) -> Hits

Nearest hit of every ray.

origins:    (3,) for one origin shared by all rays (vekrIntersectEyeSO_32f),
            or an array of the directions' shape, one origin per ray
            (vekrIntersectMO_32f; it ignores triangles seen nearly edge-on
            and needs a new hit to be nearer by more than 1e-5).
directions: float array of shape (..., 3); need not be unit length.
tmax:       far limit, a number or an array of the rays' shape; a hit
            counts when 0 < t < tmax.
Returns Hits(t, u, v, triangle), arrays of the rays' shape.

Example:
    >>> h = scene.intersect([0, 0, 5], dirs)          # dirs: (N, 3)
    >>> hit = h.triangle >= 0
)")
        .def("occluded", &Scene::occluded, py::arg("origin"), py::arg("directions"), py::kw_only(),
             py::arg("active") = py::none(),
             R"(occluded(origin, directions, *, active=None) -> Occlusion

Any-hit test of segments from one origin (vekrIntersectAnySO_32f): a ray is
occluded when a triangle lies at 0 < t < 1, i.e. strictly between origin
and origin + direction.

origin:     (3,) float array.
directions: float array of shape (..., 3), the segment vectors (for a point
            light at L seen from p: directions = L - p).
active:     optional bool array of the rays' shape; inactive rays are not
            tested and report False.
Returns Occlusion(occluded, triangle).

Example:
    >>> occ = scene.occluded(light, points - light).occluded
)")
        .def("intersect_multiple", &Scene::intersectMultiple, py::arg("origin"), py::arg("directions"),
             py::arg("depth"), py::kw_only(), py::arg("tmax") = std::numeric_limits<float>::infinity(),
             R"(intersect_multiple(origin, directions, depth, *, tmax=inf) -> Hits

Up to depth successive hits along every ray from one origin
(vekrIntersectMultipleSO_32f). Level 0 is the nearest hit below tmax; each
further level is the next hit beyond it, searched to the scene box's exit,
with distances measured from the origin.

origin:     (3,) float array.
directions: float array of shape (..., 3).
depth:      number of levels.
Returns Hits whose arrays have shape (..., depth); a level without a hit has
triangle -1 (and t is then not a distance).

Example:
    >>> h = scene.intersect_multiple([0, 0, 5], dirs, 4)
    >>> layers = (h.triangle >= 0).sum(axis=-1)
)")
        .def_property_readonly("bounds", &Scene::bounds,
                               "Scene box as a (2, 3) float32 array: minimum corner, maximum corner (with the "
                               "library's small margin).")
        .def_property_readonly("num_triangles", &Scene::numTriangles, "Number of triangles.")
        .def_property_readonly("num_vertices", &Scene::numVertices, "Number of vertices.")
        .def_property_readonly("tree_size", &Scene::treeSize, "Reported byte size of the KD-tree block.");
}

}  // namespace vekrpy
