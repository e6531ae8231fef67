// vekr-render's pipeline, one tile at a time, once per sample of a pixel:
//   eye rays      vekrCastEye_32f, vekrIntersectEyeSO_32f
//   surfaces      vekrHitPoint3DEpsS0_32f_M, vekrSurfFlatNormal_32f, vekrDotChangeNorm_32f_IM,
//                 vekrSurfSmoothNormal_32f, vekrDot_32f_P3C1M, vekrMul_32f_C1P3IM
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
    P3 dir, hit, normal, sdir, albedo, amb, accum, rdir, rhit, rnormal, rcolor, geo, pixel;
    P3 redoOrigin, redoDir;
    Aligned<float> dist, u, v, dotv, sdot, ldist, lam, ones, negOnes, rdist, ru, rv, rdot, side;
    Aligned<float> redoDist, redoU, redoV;
    Aligned<int32_t> tri, smask, occl, maskMesh, maskGround, rtri, redoTri, redoIndex;
    float* uv[2];
    float* ruv[2];
    float* redoUV[2];
    explicit Tile(int n_)
        : n(n_), dir(n), hit(n), normal(n), sdir(n), albedo(n), amb(n), accum(n), rdir(n), rhit(n),
          rnormal(n), rcolor(n), geo(n), pixel(n), redoOrigin(n), redoDir(n), dist(n), u(n), v(n), dotv(n),
          sdot(n), ldist(n), lam(n), ones(n), negOnes(n), rdist(n), ru(n), rv(n), rdot(n), side(n),
          redoDist(n), redoU(n), redoV(n), tri(n), smask(n), occl(n), maskMesh(n), maskGround(n), rtri(n),
          redoTri(n), redoIndex(n) {
        redoUV[0] = redoU.get();
        redoUV[1] = redoV.get();
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

// Shades the hits of one batch (`normal` the shading normals, t.geo the flat
// ones, both on the side the rays see): shadow rays to the light, the Lambert term with
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

// Rays that pass along an edge shared by two triangles can miss both: the
// triangle test projects each triangle about its own reference corner, so the
// two tests of a shared edge round differently and leave cracks some 1e-5 of a
// triangle wide. Through a closed mesh such a ray goes on to the inside of the
// far wall, a face turned away from it, and shades as a dark speck. Rays that
// end on a back face are traced again, turned by about 2^-16 radian (a
// sixteenth of a pixel at the default size) so that they cannot pass through
// the same crack, and the nearer hit is kept. A back face that is really seen
// (an open mesh) is found again at the same distance and nothing changes.
// `origin` is the common origin (one point) or null with per-ray `origins`.
void closeCracks(const Scene& s, Tile& t, const float* origin, float* const* origins, float* const* dir,
                 float* dist, float* const* uv, int32_t* tri, int n) {
    vekrSurfFlatNormal_32f(s.triNormals.data(), tri, t.geo.p(), n);
    vekrDot_32f_P3C1M(dir, t.geo.p(), tri, t.side.get(), n);
    int m = 0;
    const float turn = 1.0f / 65536.0f;
    for (int i = 0; i < n; ++i) {
        if (tri[i] < 0 || !(t.side[i] > 0)) continue;
        float x = dir[0][i], y = dir[1][i], z = dir[2][i];
        // d x (1, 1, 1) is perpendicular to d (and zero only along the diagonal,
        // where d x (1, -1, 0) takes over).
        Vec3 e = std::fabs(x - y) + std::fabs(y - z) > 1e-3f * (std::fabs(x) + std::fabs(y) + std::fabs(z))
                     ? vec(y - z, z - x, x - y)
                     : vec(z, z, -x - y);
        t.redoDir.ptr[0][m] = x + e.x * turn;
        t.redoDir.ptr[1][m] = y + e.y * turn;
        t.redoDir.ptr[2][m] = z + e.z * turn;
        for (int c = 0; c < 3; ++c) t.redoOrigin.ptr[c][m] = origins ? origins[c][i] : origin[c];
        t.redoDist[m] = 3.0e38f;
        t.redoIndex[m] = i;
        ++m;
    }
    if (m == 0) return;
    if (origins)
        vekrIntersectMO_32f(t.redoOrigin.p(), t.redoDir.p(), t.redoDist.get(), t.redoUV, t.redoTri.get(),
                            &s.context, m, 1);
    else
        vekrIntersectEyeSO_32f(origin, t.redoDir.p(), t.redoDist.get(), t.redoUV, t.redoTri.get(), &s.context, m,
                               1);
    for (int k = 0; k < m; ++k) {
        int i = t.redoIndex[k];
        if (t.redoTri[k] < 0 || !(t.redoDist[k] < dist[i])) continue;
        for (int c = 0; c < 3; ++c) dir[c][i] = t.redoDir.ptr[c][k];
        dist[i] = t.redoDist[k];
        uv[0][i] = t.redoU[k];
        uv[1][i] = t.redoV[k];
        tri[i] = t.redoTri[k];
    }
}

// Shading normals. The flat normal turned against the ray tells which side of
// the surface the ray sees; the interpolated normal is turned to that side.
// (Turning the interpolated normal against the ray instead flips it near
// silhouettes, where it can face away from the eye on a triangle that faces
// the eye; the light then seems to come from behind and the pixel goes dark.)
// t.side keeps the sign applied to the interpolated normal.
void orientNormals(const Scene& s, Tile& t, float* const* dir, const int32_t* tri, float* const* uv,
                   float* const* normal, int n) {
    vekrSurfFlatNormal_32f(s.triNormals.data(), tri, t.geo.p(), n);
    vekrDotChangeNorm_32f_IM(dir, tri, t.geo.p(), t.dotv.get(), n);
    vekrSurfSmoothNormal_32f(s.vertexNormals.data(), s.triangles.data(), tri, uv, normal, n, 4);
    vekrDot_32f_P3C1M(normal, t.geo.p(), tri, t.side.get(), n);
    for (int i = 0; i < n; ++i) t.side[i] = t.side[i] < 0 ? -1.0f : 1.0f;
    vekrMul_32f_C1P3IM(t.side.get(), tri, normal, n);
}

// Where the light grazes a coarsely tessellated surface, the interpolated
// normal says "lit" while the flat neighbouring triangles stand between the
// hit point and the light. The shadow rays therefore end at the point lifted
// onto the curved surface that the vertex normals describe: the hit point
// plus the barycentric blend of its heights under the three vertex tangent
// planes, where positive (Hanika, "Hacking the shadow terminator", 2021).
// Flat regions and concave corners get no lift.
void liftToCurvedSurface(const Scene& s, const Tile& t, const int32_t* tri, float* const* uv, float* const* hit,
                         int n) {
    for (int i = 0; i < n; ++i) {
        if (tri[i] < 0 || tri[i] >= s.numMeshTriangles) continue;
        const int32_t* idx = &s.triangles[4 * static_cast<std::size_t>(tri[i])];
        const float w[3] = {uv[0][i], uv[1][i], 1.0f - uv[0][i] - uv[1][i]};
        Vec3 corner[3], p = vec(0, 0, 0);
        for (int k = 0; k < 3; ++k) {
            const float* q = &s.vertices[3 * static_cast<std::size_t>(idx[k])];
            corner[k] = vec(q[0], q[1], q[2]);
            p = p + corner[k] * w[k];
        }
        Vec3 lift = vec(0, 0, 0);
        for (int k = 0; k < 3; ++k) {
            const float* q = &s.vertexNormals[3 * static_cast<std::size_t>(idx[k])];
            Vec3 nk = vec(q[0], q[1], q[2]) * t.side[i];
            float h = dot(corner[k] - p, nk);
            if (h > 0) lift = lift + nk * (h * w[k]);
        }
        hit[0][i] += lift.x;
        hit[1][i] += lift.y;
        hit[2][i] += lift.z;
    }
}

// A fixed hash of pixel and sample (a 32-bit mix of Wang and Jenkins): the
// jitter depends on nothing else, so the image is the same for any tile size,
// thread count or number of processes.
uint32_t mix(uint32_t x) {
    x = (x ^ 61u) ^ (x >> 16);
    x *= 9u;
    x ^= x >> 4;
    x *= 0x27d4eb2du;
    x ^= x >> 15;
    return x;
}
float unitFloat(uint32_t h) { return static_cast<float>(h >> 8) * (1.0f / 16777216.0f); }

// One sample of every pixel of the tile: the colour lands in t.accum.
void traceSample(const Scene& s, const Options& opt, const Camera& cam, Tile& t, int bx, int by, int w, int h,
                 int sample, StageTimes& tm) {
    const int T = opt.tile, n = w * h, ns = opt.samples;
    const float eye[3] = {cam.eye.x, cam.eye.y, cam.eye.z};
    const float o[3] = {cam.origin.x, cam.origin.y, cam.origin.z};
    const float sx[3] = {cam.stepX.x, cam.stepX.y, cam.stepX.z};
    const float sy[3] = {cam.stepY.x, cam.stepY.y, cam.stepY.z};

    // Eye rays through the pixel centres, moved to a jittered point of the
    // sample's stratum (one of ns x ns equal cells of the pixel).
    auto t0 = Clock::now();
    vekrCastEye_32f(o, sx, sy, bx, by, T, T, t.dir.p(), w, h);
    if (ns > 1) {
        const int a = sample % ns, b = sample / ns;
        for (int j = 0; j < h; ++j)
            for (int i = 0; i < w; ++i) {
                uint32_t px = static_cast<uint32_t>(bx * T + i), py = static_cast<uint32_t>(by * T + j);
                uint32_t hsh = mix(px * 0x9E3779B1u ^ mix(py * 0x85EBCA77u ^ mix(static_cast<uint32_t>(sample))));
                float ox = (a + unitFloat(hsh)) / ns - 0.5f;
                float oy = (b + unitFloat(mix(hsh))) / ns - 0.5f;
                int k = j * w + i;
                for (int c = 0; c < 3; ++c) t.dir.ptr[c][k] += sx[c] * ox + sy[c] * oy;
            }
    }
    for (int i = 0; i < n; ++i) t.dist[i] = 3.0e38f;
    vekrIntersectEyeSO_32f(eye, t.dir.p(), t.dist.get(), t.uv, t.tri.get(), &s.context, w, h);
    closeCracks(s, t, eye, nullptr, t.dir.p(), t.dist.get(), t.uv, t.tri.get(), n);
    tm.eye += since(t0);

    // Hit points and shading normals.
    t0 = Clock::now();
    const int32_t* tri = t.tri.get();
    vekrHitPoint3DEpsS0_32f_M(eye, t.dir.p(), t.dist.get(), tri, t.hit.p(), n, kHitEps);
    orientNormals(s, t, t.dir.p(), tri, t.uv, t.normal.p(), n);
    liftToCurvedSurface(s, t, tri, t.uv, t.hit.p(), n);
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
        closeCracks(s, t, nullptr, t.hit.p(), t.rdir.p(), t.rdist.get(), t.ruv, t.rtri.get(), n);
        tm.reflection += since(t0);

        t0 = Clock::now();
        const int32_t* rtri = t.rtri.get();
        vekrHitPoint3DEpsM0_32f_M(t.hit.p(), t.rdir.p(), t.rdist.get(), rtri, t.rhit.p(), n, kHitEps);
        orientNormals(s, t, t.rdir.p(), rtri, t.ruv, t.rnormal.p(), n);
        liftToCurvedSurface(s, t, rtri, t.ruv, t.rhit.p(), n);
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
    tm.shading += since(t0);
}

// All samples of one tile, averaged (each clamped to the displayable range
// first, so that a bright sky sample cannot outweigh the others at an edge).
void renderTile(const Scene& s, const Options& opt, const Camera& cam, Tile& t, int bx, int by, Image& img,
                StageTimes& tm) {
    const int T = opt.tile;
    const int w = std::min(T, opt.width - bx * T), h = std::min(T, opt.height - by * T), n = w * h;
    const int numSamples = opt.samples * opt.samples;
    t.pixel.zero(n);
    for (int k = 0; k < numSamples; ++k) {
        traceSample(s, opt, cam, t, bx, by, w, h, k, tm);
        for (int c = 0; c < 3; ++c)
            for (int i = 0; i < n; ++i) t.pixel.ptr[c][i] += std::min(std::max(t.accum.ptr[c][i], 0.0f), 1.0f);
    }
    const float scale = 1.0f / static_cast<float>(numSamples);
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i) {
            uint8_t* px = &img.rgb[3 * ((static_cast<std::size_t>(by) * T + j) * opt.width + bx * T + i)];
            for (int c = 0; c < 3; ++c) px[c] = toByte(t.pixel.ptr[c][j * w + i] * scale);
        }
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

bool attachScene(Scene& s, std::string& error) {
    s.context.pBound = &s.box;
    s.context.pAccel = s.accel.data();
    s.context.pRootNode = s.tree;
    int size = 0;
    if (vekrSHGetSize_32f(static_cast<unsigned>(s.shOrder), vekrSHDirect, &size) != vekStatusOk) {
        error = "unsupported spherical-harmonics order";
        return false;
    }
    s.shState.assign(static_cast<std::size_t>(size) + 16, 0);
    if (vekrSHInit_32f(const_cast<VekrSHState*>(s.sh()), static_cast<unsigned>(s.shOrder), vekrSHDirect) !=
        vekStatusOk) {
        error = "spherical-harmonics state refused";
        return false;
    }
    return true;
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
    s.triNormals.assign(3 * static_cast<std::size_t>(nt), 0.0f);
    vekrTriangleNormal_32f(s.vertices.data(), s.triangles.data(), s.triNormals.data(), nt);
    const std::vector<float>& triNorm = s.triNormals;
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

    s.meshBox = meshBox;
    s.camera = makeCamera(opt, meshBox);
    s.target = opt.targetSet ? opt.target : c;
    s.light = opt.lightSet ? opt.light : c + vec(-1.3f * r, 2.6f * r, 1.5f * r);
    Vec3 toLight = s.light - c;
    s.lightScale = 0.9f * dot(toLight, toLight);  // unit strength at the mesh's centre
    s.shOrder = opt.shOrder;
    if (!projectSky(s, error) || !attachScene(s, error)) return false;
    times.build += since(t0);
    return true;
}

int numTileRows(const Options& opt) { return (opt.height + opt.tile - 1) / opt.tile; }

void renderRows(const Scene& s, const Options& opt, const Camera& cam, int firstRow, int numRows, Image& img,
                StageTimes& times, bool progress) {
    auto t0 = Clock::now();
    if (img.width != opt.width || img.height != opt.height) {
        img.width = opt.width;
        img.height = opt.height;
        img.rgb.assign(static_cast<std::size_t>(opt.width) * opt.height * 3, 0);
    }
    const int T = opt.tile;
    const int tx = (opt.width + T - 1) / T, numTiles = tx * numRows;
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
            renderTile(s, opt, cam, tile, k % tx, firstRow + k / tx, img, tm);
            int d = ++done;
            if (progress) {
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
    if (progress) std::fprintf(stderr, "\n");
    for (const StageTimes& tm : perThread) {
        times.eye += tm.eye;
        times.shadows += tm.shadows;
        times.reflection += tm.reflection;
        times.shading += tm.shading;
    }
    times.total += since(t0);
}

void renderImage(const Scene& s, const Options& opt, Image& img, StageTimes& times) {
    renderRows(s, opt, s.camera, 0, numTileRows(opt), img, times, opt.progress);
}

Camera turntableCamera(const Scene& s, const Options& opt, int frame, int numFrames) {
    // The eye circles the target about the vertical axis, starting where the
    // still image's camera stands.
    const Camera& c0 = s.camera;
    const Vec3 target = s.target;
    const double angle = 2 * kPi * frame / numFrames;
    const float ca = static_cast<float>(std::cos(angle)), sa = static_cast<float>(std::sin(angle));
    Vec3 r = c0.eye - target;
    Options o = opt;
    o.eyeSet = o.targetSet = true;
    o.eye = target + vec(ca * r.x + sa * r.z, r.y, -sa * r.x + ca * r.z);
    o.target = target;
    return makeCamera(o, s.meshBox);
}

}  // namespace render
