// vekr-render's pipeline, one tile at a time:
//   eye rays      vekrCastEye_32f, vekrIntersectEyeSO_32f
//   surfaces      vekrHitPoint3DEpsS0_32f_M, vekrSurfSmoothNormal_32f, vekrDotChangeNorm_32f_IM
//   shadows       vekrCastShadowSO_32f, vekrIntersectAnySO_32f
//   direct light  vekrDistAttenuationSO_32f_M, vekrDiv_32f_C1IM, vekrAddMulMul_32f_AC1P3IM
//   sky light     vekrSHTInv_32f_P3 of the sky's projection (vekrSHTFwd_32f_P3I)
//   reflection    vekrCastReflectionRay_32f, vekrIntersectMO_32f, vekrHitPoint3DEpsM0_32f_M
// Only the public header is used; tiles run in parallel on disjoint buffers.
#include "renderer.h"

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "vekcore.h"

namespace render {
namespace {

const double kPi = 3.14159265358979323846;

Vec3 vec(float x, float y, float z) {
    Vec3 v;
    v.x = x;
    v.y = y;
    v.z = z;
    return v;
}
Vec3 operator+(Vec3 a, Vec3 b) { return vec(a.x + b.x, a.y + b.y, a.z + b.z); }
Vec3 operator-(Vec3 a, Vec3 b) { return vec(a.x - b.x, a.y - b.y, a.z - b.z); }
Vec3 operator*(Vec3 a, float s) { return vec(a.x * s, a.y * s, a.z * s); }
float dot(Vec3 a, Vec3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
Vec3 cross(Vec3 a, Vec3 b) { return vec(a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x); }
Vec3 normalize(Vec3 a) {
    float l = std::sqrt(dot(a, a));
    return l > 0 ? a * (1.0f / l) : a;
}

// A 16-byte-aligned array from the core allocator.
template <class T>
class Aligned {
public:
    explicit Aligned(int n = 0) { resize(n); }
    ~Aligned() { vekFree(p_); }
    Aligned(const Aligned&) = delete;
    Aligned& operator=(const Aligned&) = delete;
    void resize(int n) {
        vekFree(p_);
        p_ = static_cast<T*>(vekMalloc(static_cast<int>(sizeof(T)) * std::max(n, 1)));
        if (!p_) {
            std::fprintf(stderr, "vekr-render: out of memory\n");
            std::exit(1);
        }
    }
    T* get() const { return p_; }
    T& operator[](int i) const { return p_[i]; }

private:
    T* p_ = nullptr;
};

// Three planes of floats (a P3 operand).
struct P3 {
    Aligned<float> c[3];
    float* ptr[3];
    explicit P3(int n) : c{Aligned<float>(n), Aligned<float>(n), Aligned<float>(n)} {
        for (int k = 0; k < 3; ++k) ptr[k] = c[k].get();
    }
    float** p() { return ptr; }
    void zero(int n) {
        for (int k = 0; k < 3; ++k) std::memset(ptr[k], 0, sizeof(float) * n);
    }
};

// Per-thread scratch for one tile of at most n rays.
struct Tile {
    int n;
    P3 dir, hit, normal, sdir, albedo, amb, accum, rdir, rhit, rnormal, rcolor;
    Aligned<float> dist, u, v, dotv, sdot, ldist, lam, ones, negOnes, rdist, ru, rv, rdot;
    Aligned<int32_t> tri, smask, occl, maskMesh, maskGround, rtri;
    float* uv[2];
    float* ruv[2];
    explicit Tile(int n_)
        : n(n_), dir(n), hit(n), normal(n), sdir(n), albedo(n), amb(n), accum(n), rdir(n), rhit(n),
          rnormal(n), rcolor(n), dist(n), u(n), v(n), dotv(n), sdot(n), ldist(n), lam(n), ones(n),
          negOnes(n), rdist(n), ru(n), rv(n), rdot(n), tri(n), smask(n), occl(n), maskMesh(n),
          maskGround(n), rtri(n) {
        uv[0] = u.get();
        uv[1] = v.get();
        ruv[0] = ru.get();
        ruv[1] = rv.get();
        for (int i = 0; i < n; ++i) {
            ones[i] = 1.0f;
            negOnes[i] = -1.0f;
        }
    }
};

const Vec3 kMeshAlbedo = vec(0.78f, 0.66f, 0.52f);
const Vec3 kGroundAlbedo = vec(0.62f, 0.59f, 0.54f);
const Vec3 kLightColour = vec(1.0f, 0.96f, 0.88f);
const float kAmbient = 0.45f;
const float kHitEps = 0.9995f;  // hit points a little in front of the surface

using Clock = std::chrono::steady_clock;
double since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

// Gauss-Legendre nodes and weights on [-1, 1] (Newton iteration on P_n).
void gaussLegendre(int n, std::vector<double>& x, std::vector<double>& w) {
    x.assign(n, 0);
    w.assign(n, 0);
    for (int i = 0; i < n; ++i) {
        double z = std::cos(kPi * (i + 0.75) / (n + 0.5)), dp = 0;
        for (int it = 0; it < 100; ++it) {
            double p0 = 1, p1 = z;
            for (int k = 2; k <= n; ++k) {
                double p2 = ((2 * k - 1) * z * p1 - (k - 1) * p0) / k;
                p0 = p1;
                p1 = p2;
            }
            dp = n * (z * p1 - p0) / (z * z - 1);
            double dz = p1 / dp;
            z -= dz;
            if (std::fabs(dz) < 1e-15) break;
        }
        x[i] = z;
        w[i] = 2 / ((1 - z * z) * dp * dp);
    }
}

// Projects the sky to spherical harmonics and turns radiance into irradiance
// divided by pi (the cosine lobe's band factors 1, 2/3, 1/4, 0, -1/24, ...), so
// that reconstructing at a normal gives the diffuse sky light directly.
bool projectSky(Scene& s, std::string& error) {
    const unsigned order = static_cast<unsigned>(s.shOrder);
    int size = 0;
    if (vekrSHGetSize_32f(order, vekrSHDirect, &size) != vekStatusOk) {
        error = "unsupported spherical-harmonics order";
        return false;
    }
    s.shState.assign(static_cast<std::size_t>(size) + 16, 0);
    if (vekrSHInit_32f(const_cast<VekrSHState*>(s.sh()), order, vekrSHDirect) != vekStatusOk) {
        error = "spherical-harmonics state refused";
        return false;
    }
    const int nz = 32, nphi = 64, count = nz * nphi;
    std::vector<double> gx, gw;
    gaussLegendre(nz, gx, gw);
    std::vector<float> X(count), Y(count), Z(count), val[3];
    for (auto& c : val) c.resize(count);
    for (int i = 0; i < nz; ++i)
        for (int j = 0; j < nphi; ++j) {
            double z = gx[i], r = std::sqrt(std::max(0.0, 1 - z * z)), ph = 2 * kPi * (j + 0.5) / nphi;
            int k = i * nphi + j;
            X[k] = static_cast<float>(r * std::cos(ph));
            Y[k] = static_cast<float>(r * std::sin(ph));
            Z[k] = static_cast<float>(z);
            // The sky is defined with y up; the basis does not care which axis is which.
            Vec3 L = skyRadiance(vec(X[k], Z[k], Y[k]));
            float w = static_cast<float>(gw[i] * 2 * kPi / nphi);
            val[0][k] = L.x * w;
            val[1][k] = L.y * w;
            val[2][k] = L.z * w;
        }
    const int nc = (s.shOrder + 1) * (s.shOrder + 1);
    float* coeffs[3];
    const float* values[3] = {val[0].data(), val[1].data(), val[2].data()};
    for (int c = 0; c < 3; ++c) {
        s.shCoeffs[c].assign(nc, 0.0f);
        coeffs[c] = s.shCoeffs[c].data();
    }
    if (vekrSHTFwd_32f_P3I(X.data(), Y.data(), Z.data(), values, count, coeffs, order, s.sh()) != vekStatusOk) {
        error = "spherical-harmonics projection failed";
        return false;
    }
    const float band[5] = {1.0f, 2.0f / 3.0f, 0.25f, 0.0f, -1.0f / 24.0f};
    for (int l = 0; l <= s.shOrder; ++l)
        for (int m = -l; m <= l; ++m)
            for (int c = 0; c < 3; ++c) s.shCoeffs[c][l * l + l + m] *= (l < 5 ? band[l] : 0.0f);
    return true;
}

// Shades the hits of one batch: shadow rays to the light, the Lambert term with
// the inverse-square fall-off, and the sky's diffuse light. Adds to t.accum-like
// `out`. `tri` marks the rays with a hit; normals face against the rays.
void shadeDirect(const Scene& s, Tile& t, int w, int h, float* const* hit, float* const* normal,
                 const int32_t* tri, P3& out, StageTimes& tm) {
    const int n = w * h;
    const float light[3] = {s.light.x, s.light.y, s.light.z};
    auto t0 = Clock::now();
    // Shadow rays run from the light to each hit point; grazing and back-facing
    // hits are culled (mask -1), occluded ones are marked by the any-hit query.
    std::memcpy(t.smask.get(), tri, sizeof(int32_t) * n);
    vekrCastShadowSO_32f(light, t.negOnes.get(), normal, hit, t.smask.get(), t.sdot.get(), t.sdir.p(), n);
    vekrIntersectAnySO_32f(light, t.sdir.p(), t.occl.get(), t.smask.get(), w, h, &s.context);
    tm.shadows += since(t0);

    t0 = Clock::now();
    // |s.n| / |s| is the cosine at the surface; dividing twice more by the
    // distance gives the inverse-square fall-off.
    vekrDistAttenuationSO_32f_M(light, hit, t.smask.get(), t.ldist.get(), n);
    std::memcpy(t.lam.get(), t.sdot.get(), sizeof(float) * n);
    vekrDiv_32f_C1IM(t.ldist.get(), t.smask.get(), t.lam.get(), n);
    vekrDiv_32f_C1IM(t.ldist.get(), t.smask.get(), t.lam.get(), n);
    vekrDiv_32f_C1IM(t.ldist.get(), t.smask.get(), t.lam.get(), n);
    const float lightCol[3] = {kLightColour.x * s.lightScale, kLightColour.y * s.lightScale,
                               kLightColour.z * s.lightScale};
    for (int i = 0; i < n; ++i) {
        bool mesh = tri[i] >= 0 && tri[i] < s.numMeshTriangles;
        t.maskMesh[i] = mesh ? 0 : -1;
        t.maskGround[i] = (tri[i] >= s.numMeshTriangles) ? 0 : -1;
        Vec3 a = mesh ? kMeshAlbedo : kGroundAlbedo;
        t.albedo.ptr[0][i] = a.x;
        t.albedo.ptr[1][i] = a.y;
        t.albedo.ptr[2][i] = a.z;
    }
    vekrAddMulMul_32f_AC1P3IM(lightCol, t.lam.get(), t.albedo.p(), t.smask.get(), out.p(), n);

    // Sky light: the projected irradiance evaluated at the normals.
    const float* coeffs[3] = {s.shCoeffs[0].data(), s.shCoeffs[1].data(), s.shCoeffs[2].data()};
    // The basis was sampled with (x, z, y) as (x, y, z): swap the normal the same way.
    vekrSHTInv_32f_P3(coeffs, static_cast<unsigned>(s.shOrder), normal[0], normal[2], normal[1], t.amb.p(), n,
                      s.sh());
    const float meshAmb[3] = {kMeshAlbedo.x * kAmbient, kMeshAlbedo.y * kAmbient, kMeshAlbedo.z * kAmbient};
    const float groundAmb[3] = {kGroundAlbedo.x * kAmbient, kGroundAlbedo.y * kAmbient,
                                kGroundAlbedo.z * kAmbient};
    vekrAddMulMul_32f_AC1P3IM(meshAmb, t.ones.get(), t.amb.p(), t.maskMesh.get(), out.p(), n);
    vekrAddMulMul_32f_AC1P3IM(groundAmb, t.ones.get(), t.amb.p(), t.maskGround.get(), out.p(), n);
    tm.shading += since(t0);
}

// Writes the sky's colour for the rays without a hit.
void addSky(float* const* dir, const int32_t* tri, const int32_t* only, P3& out, int n, float scale) {
    for (int i = 0; i < n; ++i) {
        if (tri[i] >= 0 || (only && only[i] < 0)) continue;
        Vec3 c = skyRadiance(normalize(vec(dir[0][i], dir[1][i], dir[2][i])));
        out.ptr[0][i] += c.x * scale;
        out.ptr[1][i] += c.y * scale;
        out.ptr[2][i] += c.z * scale;
    }
}

void renderTile(const Scene& s, const Options& opt, Tile& t, int bx, int by, Image& img, StageTimes& tm) {
    const int T = opt.tile;
    const int w = std::min(T, opt.width - bx * T), h = std::min(T, opt.height - by * T), n = w * h;
    const Camera& cam = s.camera;
    const float eye[3] = {cam.eye.x, cam.eye.y, cam.eye.z};
    const float o[3] = {cam.origin.x, cam.origin.y, cam.origin.z};
    const float sx[3] = {cam.stepX.x, cam.stepX.y, cam.stepX.z};
    const float sy[3] = {cam.stepY.x, cam.stepY.y, cam.stepY.z};

    // Eye rays and their nearest hits.
    auto t0 = Clock::now();
    vekrCastEye_32f(o, sx, sy, bx, by, T, T, t.dir.p(), w, h);
    for (int i = 0; i < n; ++i) t.dist[i] = 3.0e38f;
    vekrIntersectEyeSO_32f(eye, t.dir.p(), t.dist.get(), t.uv, t.tri.get(), &s.context, w, h);
    tm.eye += since(t0);

    // Hit points, interpolated normals turned towards the eye.
    t0 = Clock::now();
    const int32_t* tri = t.tri.get();
    vekrHitPoint3DEpsS0_32f_M(eye, t.dir.p(), t.dist.get(), tri, t.hit.p(), n, kHitEps);
    vekrSurfSmoothNormal_32f(s.vertexNormals.data(), s.triangles.data(), tri, t.uv, t.normal.p(), n, 4);
    vekrDotChangeNorm_32f_IM(t.dir.p(), tri, t.normal.p(), t.dotv.get(), n);
    t.accum.zero(n);
    tm.shading += since(t0);

    shadeDirect(s, t, w, h, t.hit.p(), t.normal.p(), tri, t.accum, tm);

    // One mirror bounce on the ground: reflected rays from the hit points.
    bool anyGround = false;
    for (int i = 0; i < n; ++i) anyGround |= t.maskGround[i] >= 0;
    if (anyGround && opt.reflectivity > 0) {
        std::vector<int32_t> ground(t.maskGround.get(), t.maskGround.get() + n);
        t0 = Clock::now();
        vekrCastReflectionRay_32f(t.dir.p(), ground.data(), t.normal.p(), t.rdir.p(), n);
        // Rays that are not reflected get a zero distance limit: they find nothing.
        for (int i = 0; i < n; ++i) t.rdist[i] = ground[i] >= 0 ? 3.0e38f : 0.0f;
        vekrIntersectMO_32f(t.hit.p(), t.rdir.p(), t.rdist.get(), t.ruv, t.rtri.get(), &s.context, w, h);
        tm.reflection += since(t0);

        t0 = Clock::now();
        const int32_t* rtri = t.rtri.get();
        vekrHitPoint3DEpsM0_32f_M(t.hit.p(), t.rdir.p(), t.rdist.get(), rtri, t.rhit.p(), n, kHitEps);
        vekrSurfSmoothNormal_32f(s.vertexNormals.data(), s.triangles.data(), rtri, t.ruv, t.rnormal.p(), n, 4);
        vekrDotChangeNorm_32f_IM(t.rdir.p(), rtri, t.rnormal.p(), t.rdot.get(), n);
        t.rcolor.zero(n);
        tm.shading += since(t0);
        shadeDirect(s, t, w, h, t.rhit.p(), t.rnormal.p(), rtri, t.rcolor, tm);
        t0 = Clock::now();
        addSky(t.rdir.p(), rtri, ground.data(), t.rcolor, n, 1.0f);
        const float kr[3] = {opt.reflectivity, opt.reflectivity, opt.reflectivity};
        vekrAddMulMul_32f_AC1P3IM(kr, t.ones.get(), t.rcolor.p(), ground.data(), t.accum.p(), n);
        tm.shading += since(t0);
    }

    t0 = Clock::now();
    addSky(t.dir.p(), tri, nullptr, t.accum, n, 1.0f);
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i) {
            uint8_t* px = &img.rgb[3 * ((static_cast<std::size_t>(by) * T + j) * opt.width + bx * T + i)];
            for (int c = 0; c < 3; ++c) px[c] = toByte(t.accum.ptr[c][j * w + i]);
        }
    tm.shading += since(t0);
}

}  // namespace

Scene::~Scene() { vekrKDTreeFree(tree); }

const VekrSHState* Scene::sh() const {
    // The state lives 16-byte aligned inside shState.
    std::uintptr_t p = reinterpret_cast<std::uintptr_t>(shState.data());
    return reinterpret_cast<const VekrSHState*>((p + 15) & ~std::uintptr_t(15));
}

Vec3 skyRadiance(Vec3 d) {
    const Vec3 horizon = vec(0.92f, 0.93f, 0.98f), zenith = vec(0.42f, 0.60f, 0.90f);
    const Vec3 below = vec(0.32f, 0.30f, 0.28f);
    if (d.y < 0) {
        float k = std::min(1.0f, -d.y * 4.0f);
        return horizon * (1 - k) + below * k;
    }
    float k = std::pow(d.y, 0.6f);
    return horizon * (1 - k) + zenith * k;
}

uint8_t toByte(float linear) {
    if (!(linear > 0)) return 0;
    float v = std::pow(std::min(linear, 1.0f), 1.0f / 2.2f);
    return static_cast<uint8_t>(std::lround(v * 255.0f));
}

Camera makeCamera(const Options& opt, const VekrBoundBox& b) {
    Vec3 lo = vec(b.minCorner[0], b.minCorner[1], b.minCorner[2]);
    Vec3 hi = vec(b.maxCorner[0], b.maxCorner[1], b.maxCorner[2]);
    Vec3 c = (lo + hi) * 0.5f;
    float r = 0.5f * std::sqrt(dot(hi - lo, hi - lo));
    float half = static_cast<float>(std::tan(opt.fovDeg * kPi / 360.0));
    Camera cam;
    Vec3 target = opt.targetSet ? opt.target : c;
    cam.eye = opt.eyeSet ? opt.eye : c + normalize(vec(0.30f, 0.38f, 1.0f)) * (1.08f * r / half);
    Vec3 f = normalize(target - cam.eye);
    Vec3 right = normalize(cross(f, vec(0, 1, 0)));
    if (dot(right, right) == 0) right = vec(1, 0, 0);  // looking straight up or down
    Vec3 up = cross(right, f);
    const float aspect = static_cast<float>(opt.width) / opt.height;
    const float px = 2 * half / opt.height;
    cam.stepX = right * px;
    cam.stepY = up * -px;
    cam.origin = f + right * (-half * aspect + 0.5f * px) + up * (half - 0.5f * px);
    return cam;
}

bool buildScene(const Mesh& mesh, const Options& opt, Scene& s, std::string& error, StageTimes& times) {
    auto t0 = Clock::now();
    VekrBoundBox meshBox;
    if (vekrSetBoundBox_32f(mesh.vertices.data(), mesh.numVertices(), &meshBox) != vekStatusOk) {
        error = "cannot compute the scene box";
        return false;
    }
    s.vertices = mesh.vertices;
    s.triangles = mesh.triangles;
    s.numMeshTriangles = mesh.numTriangles();
    const int numMeshVertices = mesh.numVertices();

    Vec3 lo = vec(meshBox.minCorner[0], meshBox.minCorner[1], meshBox.minCorner[2]);
    Vec3 hi = vec(meshBox.maxCorner[0], meshBox.maxCorner[1], meshBox.maxCorner[2]);
    Vec3 c = (lo + hi) * 0.5f;
    float r = 0.5f * std::sqrt(dot(hi - lo, hi - lo));
    if (opt.ground) {
        // A square under the mesh, six radii on each side.
        float y = lo.y, e = 6 * r;
        int base = numMeshVertices;
        const float g[12] = {c.x - e, y, c.z - e, c.x + e, y, c.z - e, c.x + e, y, c.z + e, c.x - e, y, c.z + e};
        s.vertices.insert(s.vertices.end(), g, g + 12);
        s.triangles.insert(s.triangles.end(), {base, base + 2, base + 1, 0, base, base + 3, base + 2, 0});
    }
    const int nv = static_cast<int>(s.vertices.size() / 3), nt = static_cast<int>(s.triangles.size() / 4);

    // Vertex normals: the average of the unit normals of the triangles around a vertex.
    std::vector<float> triNorm(3 * static_cast<std::size_t>(nt));
    vekrTriangleNormal_32f(s.vertices.data(), s.triangles.data(), triNorm.data(), nt);
    s.vertexNormals.assign(3 * static_cast<std::size_t>(nv), 0.0f);
    for (int t = 0; t < s.numMeshTriangles; ++t)
        for (int k = 0; k < 3; ++k)
            for (int a = 0; a < 3; ++a) s.vertexNormals[3 * s.triangles[4 * t + k] + a] += triNorm[3 * t + a];
    for (int v = 0; v < nv; ++v) {
        float* p = &s.vertexNormals[3 * v];
        if (v >= numMeshVertices) {
            p[0] = 0;
            p[1] = 1;
            p[2] = 0;
            continue;
        }
        float l = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
        if (l > 0)
            for (int a = 0; a < 3; ++a) p[a] /= l;
    }

    // Accelerator records, the box and the surface-area KD tree.
    int recordSize = 0;
    vekrTriangleAccelGetSize(&recordSize);
    if (recordSize != static_cast<int>(sizeof(VekrTriangleAccel))) {
        error = "unexpected accelerator record size";
        return false;
    }
    s.accel.resize(static_cast<std::size_t>(nt));
    vekrTriangleAccelInit(s.accel.data(), s.vertices.data(), s.triangles.data(), nt);
    vekrSetBoundBox_32f(s.vertices.data(), nv, &s.box);
    VekrKDTreeBuildParams params;
    params.algorithm = vekKDTreeBuildPSAH;
    params.maxDepth = 40;
    params.costBalance = 0.5f;
    params.memoryLimitMB = 2048;
    params.pClipBox = nullptr;
    VekStatus st = vekrKDTreeBuildAlloc(&s.tree, s.vertices.data(), s.triangles.data(), nv, nt, &s.treeSize, &params);
    if (st != vekStatusOk) {
        error = "KD-tree build failed with status " + std::to_string(static_cast<int>(st));
        return false;
    }
    s.context.pBound = &s.box;
    s.context.pAccel = s.accel.data();
    s.context.pRootNode = s.tree;

    s.camera = makeCamera(opt, meshBox);
    s.light = opt.lightSet ? opt.light : c + vec(-1.3f * r, 2.6f * r, 1.5f * r);
    Vec3 toLight = s.light - c;
    s.lightScale = 0.9f * dot(toLight, toLight);  // unit strength at the mesh's centre
    s.shOrder = opt.shOrder;
    if (!projectSky(s, error)) return false;
    times.build += since(t0);
    return true;
}

void renderImage(const Scene& s, const Options& opt, Image& img, StageTimes& times) {
    auto t0 = Clock::now();
    img.width = opt.width;
    img.height = opt.height;
    img.rgb.assign(static_cast<std::size_t>(opt.width) * opt.height * 3, 0);
    const int T = opt.tile;
    const int tx = (opt.width + T - 1) / T, ty = (opt.height + T - 1) / T, numTiles = tx * ty;
    const int threads = opt.threads > 0 ? opt.threads : ownGetNumThreads();
    std::atomic<int> done{0};
    std::mutex printLock;
    int shown = -1;
    std::vector<StageTimes> perThread(static_cast<std::size_t>(threads));

#pragma omp parallel num_threads(threads)
    {
        Tile tile(T * T);
        StageTimes& tm = perThread[static_cast<std::size_t>(omp_get_thread_num())];
#pragma omp for schedule(dynamic, 1)
        for (int k = 0; k < numTiles; ++k) {
            renderTile(s, opt, tile, k % tx, k / tx, img, tm);
            int d = ++done;
            if (opt.progress) {
                int pct = static_cast<int>(100LL * d / numTiles);
                std::lock_guard<std::mutex> g(printLock);
                if (pct != shown) {
                    shown = pct;
                    char bar[41];
                    int fill = pct * 40 / 100;
                    for (int i = 0; i < 40; ++i) bar[i] = i < fill ? '#' : '.';
                    bar[40] = 0;
                    std::fprintf(stderr, "\rrendering [%s] %3d%%", bar, pct);
                    std::fflush(stderr);
                }
            }
        }
    }
    if (opt.progress) std::fprintf(stderr, "\n");
    for (const StageTimes& tm : perThread) {
        times.eye += tm.eye;
        times.shadows += tm.shadows;
        times.reflection += tm.reflection;
        times.shading += tm.shading;
    }
    times.total += since(t0);
}

}  // namespace render
