// vekr-render end to end on a small scene: a sphere resting on the ground under
// a light straight above it. The test classifies pixels with its own analytic
// ray casting (sphere, plane) and checks what the image must show there.
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "mesh.h"
#include "renderer.h"
#include "testutil.h"

namespace {

using render::Vec3;

const Vec3 kCentre = {0.0f, 0.6f, 0.0f};
const float kRadius = 0.5f;

struct Fixture {
    render::Options opt;
    render::Mesh mesh;
    float groundY = 0;
};

Fixture makeFixture(float reflectivity) {
    Fixture f;
    vt::Mesh m = vt::makeSphere(32, 64, kRadius, kCentre.x, kCentre.y, kCentre.z);
    f.mesh.vertices = m.vertices;
    f.mesh.triangles = m.triangles;
    f.opt.width = 96;
    f.opt.height = 72;
    f.opt.tile = 16;
    f.opt.threads = 2;
    f.opt.progress = false;
    f.opt.eyeSet = f.opt.targetSet = f.opt.lightSet = true;
    f.opt.eye = {0.0f, 1.0f, 3.2f};
    f.opt.target = {0.0f, 0.45f, 0.0f};
    f.opt.light = {0.0f, 6.0f, 0.0f};
    f.opt.reflectivity = reflectivity;
    VekrBoundBox box;
    vekrSetBoundBox_32f(f.mesh.vertices.data(), f.mesh.numVertices(), &box);
    f.groundY = box.minCorner[1];
    return f;
}

render::Image renderFixture(const Fixture& f) {
    render::Scene scene;
    render::StageTimes times;
    std::string error;
    EXPECT_TRUE(render::buildScene(f.mesh, f.opt, scene, error, times)) << error;
    render::Image img;
    render::renderImage(scene, f.opt, img, times);
    return img;
}

float dot3(Vec3 a, Vec3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
Vec3 add(Vec3 a, Vec3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
Vec3 sub(Vec3 a, Vec3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
Vec3 scale(Vec3 a, float s) { return {a.x * s, a.y * s, a.z * s}; }

// Distance along o + t d to a sphere of radius r around kCentre (or -1).
float hitSphere(Vec3 o, Vec3 d, float r) {
    Vec3 oc = sub(o, kCentre);
    float a = dot3(d, d), b = dot3(oc, d), c = dot3(oc, oc) - r * r;
    float disc = b * b - a * c;
    if (disc < 0) return -1;
    float t = (-b - std::sqrt(disc)) / a;
    return t > 1e-4f ? t : -1;
}

enum Kind { kSky, kSphereLit, kGroundLit, kGroundShadow, kUnclear };

// What pixel (i, j) sees, decided only where a slightly smaller and a slightly
// larger sphere agree (the mesh is a tessellated sphere). `mirrorSphere` tells
// whether a ground point's mirror ray meets the sphere.
Kind classify(const Fixture& f, const render::Camera& cam, int i, int j, bool* mirrorSphere) {
    Vec3 d = add(add(scale(cam.stepY, float(j)), cam.origin), scale(cam.stepX, float(i)));
    Kind kinds[2];
    bool mirror[2];
    const float radii[2] = {kRadius * 0.94f, kRadius * 1.06f};
    for (int k = 0; k < 2; ++k) {
        float r = radii[k];
        float ts = hitSphere(cam.eye, d, r);
        float tg = d.y < 0 ? (f.groundY - cam.eye.y) / d.y : -1;
        mirror[k] = false;
        if (ts > 0 && (tg < 0 || ts < tg)) {
            Vec3 p = add(cam.eye, scale(d, ts));
            Vec3 n = scale(sub(p, kCentre), 1 / r);
            Vec3 l = sub(f.opt.light, p);
            kinds[k] = dot3(n, l) > 0.5f * std::sqrt(dot3(l, l)) ? kSphereLit : kUnclear;
        } else if (tg > 0) {
            Vec3 p = add(cam.eye, scale(d, tg));
            bool shadow = hitSphere(p, sub(f.opt.light, p), r) > 0;
            kinds[k] = shadow ? kGroundShadow : kGroundLit;
            Vec3 refl = {d.x, -d.y, d.z};
            mirror[k] = hitSphere(p, refl, r) > 0;
        } else {
            kinds[k] = kSky;
        }
    }
    *mirrorSphere = mirror[0] && mirror[1];
    if (kinds[0] != kinds[1] || mirror[0] != mirror[1]) return kUnclear;
    return kinds[0];
}

float luma(const render::Image& img, int i, int j) {
    const uint8_t* p = &img.rgb[3 * (static_cast<std::size_t>(j) * img.width + i)];
    return 0.299f * p[0] + 0.587f * p[1] + 0.114f * p[2];
}

}  // namespace

TEST(Render, SmallSceneShowsLightShadowSkyAndReflection) {
    Fixture f = makeFixture(0.35f);
    render::Image img = renderFixture(f);
    Fixture dull = makeFixture(0.0f);
    render::Image noRefl = renderFixture(dull);
    VekrBoundBox box;
    vekrSetBoundBox_32f(f.mesh.vertices.data(), f.mesh.numVertices(), &box);
    render::Camera cam = render::makeCamera(f.opt, box);

    int counts[5] = {0, 0, 0, 0, 0}, shadowPairs = 0, mirrorSphere = 0, mirrorSky = 0;
    double sphereLit = 0, groundLit = 0, groundShadow = 0, tintSphere = 0, tintSky = 0;
    for (int j = 0; j < f.opt.height; ++j)
        for (int i = 0; i < f.opt.width; ++i) {
            bool mirror = false;
            Kind k = classify(f, cam, i, j, &mirror);
            counts[k]++;
            const uint8_t* p = &img.rgb[3 * (static_cast<std::size_t>(j) * img.width + i)];
            const uint8_t* q = &noRefl.rgb[3 * (static_cast<std::size_t>(j) * img.width + i)];
            if (k == kSky) {
                // Background pixels keep the sky's colour.
                Vec3 d = add(add(scale(cam.stepY, float(j)), cam.origin), scale(cam.stepX, float(i)));
                Vec3 c = render::skyRadiance(scale(d, 1 / std::sqrt(dot3(d, d))));
                EXPECT_NEAR(p[0], render::toByte(c.x), 1) << i << "," << j;
                EXPECT_NEAR(p[1], render::toByte(c.y), 1) << i << "," << j;
                EXPECT_NEAR(p[2], render::toByte(c.z), 1) << i << "," << j;
            } else if (k == kSphereLit) {
                sphereLit += luma(img, i, j);
            } else if (k == kGroundLit) {
                groundLit += luma(img, i, j);
            } else if (k == kGroundShadow) {
                groundShadow += luma(img, i, j);
                // A shadow pixel is darker than a lit ground neighbour in its row.
                for (int di : {-3, 3}) {
                    int ni = i + di;
                    bool m2;
                    if (ni >= 0 && ni < f.opt.width && classify(f, cam, ni, j, &m2) == kGroundLit && !m2 && !mirror) {
                        EXPECT_LT(luma(img, i, j), luma(img, ni, j)) << i << "," << j;
                        ++shadowPairs;
                    }
                }
            }
            if (k == kGroundLit || k == kGroundShadow) {
                // What the mirror adds: the warm object's colour or the bluish sky.
                double tint = (double(p[0]) - q[0]) - (double(p[2]) - q[2]);
                if (mirror) {
                    tintSphere += tint;
                    ++mirrorSphere;
                } else {
                    tintSky += tint;
                    ++mirrorSky;
                }
            }
        }
    ASSERT_GT(counts[kSky], 20);
    ASSERT_GT(counts[kSphereLit], 20);
    ASSERT_GT(counts[kGroundLit], 20);
    ASSERT_GT(counts[kGroundShadow], 5);
    ASSERT_GT(shadowPairs, 0);
    ASSERT_GT(mirrorSphere, 5);
    ASSERT_GT(mirrorSky, 20);
    EXPECT_GT(sphereLit / counts[kSphereLit], 100.0) << "the lit top of the object is bright";
    EXPECT_LT(groundShadow / counts[kGroundShadow], 0.75 * groundLit / counts[kGroundLit]);
    EXPECT_GT(tintSphere / mirrorSphere, 2.0) << "the ground mirrors the warm object";
    EXPECT_LT(tintSky / mirrorSky, 0.0) << "elsewhere it mirrors the bluish sky";
}

TEST(Render, ThreadCountDoesNotChangeTheImage) {
    Fixture f = makeFixture(0.35f);
    f.opt.threads = 1;
    render::Image one = renderFixture(f);
    f.opt.threads = 2;
    f.opt.tile = 8;
    render::Image two = renderFixture(f);
    EXPECT_TRUE(vt::SameBits(one.rgb, two.rgb));
}

// The command line: bad input gives one line naming the problem and a non-zero
// exit, never a crash.
namespace {

struct CliRun {
    int status;
    std::string output;
};

CliRun runRender(const std::string& args) {
    std::string cmd = std::string(VEKR_RENDER_BIN) + " -q " + args + " 2>&1";
    CliRun r{-1, ""};
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return r;
    char buf[512];
    while (std::fgets(buf, sizeof buf, p)) r.output += buf;
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + (WIFSIGNALED(st) ? WTERMSIG(st) : 0);
    return r;
}

std::string writeTemp(const std::string& name, const std::string& text) {
    std::string path = ::testing::TempDir() + name;
    std::ofstream(path) << text;
    return path;
}

}  // namespace

TEST(RenderCli, BadInputGivesOneLineErrorAndNonZeroExit) {
    const std::string empty = writeTemp("vekr_empty.obj", "v 0 0 0\nv 1 0 0\n");
    const std::string badIndex = writeTemp("vekr_badindex.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 9\n");
    const std::string badStl = writeTemp("vekr_bad.stl", "not a mesh at all");
    const std::string out = " -o " + ::testing::TempDir() + "vekr_never.png";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/nonexistent/mesh.obj" + out, "cannot open"},
        {empty + out, "vekr_empty.obj"},
        {badIndex + out, "out of range"},
        {badStl + out, "vekr_bad.stl"},
        {"--size 0x5" + out, "--size"},
        {"--size 64" + out, "--size"},
        {"--tile 3" + out, "--tile"},
        {"--threads abc" + out, "--threads"},
        {"--light 1,2" + out, "--light"},
        {"--fov 500" + out, "--fov"},
        {"--bogus" + out, "unknown option"},
        {"--output", "needs a value"},
    };
    for (const auto& c : cases) {
        CliRun r = runRender(c.first);
        EXPECT_NE(r.status, 0) << c.first;
        EXPECT_LT(r.status, 128) << "crashed: " << c.first;
        EXPECT_EQ(r.output.rfind("vekr-render: ", 0), 0u) << r.output;
        EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << r.output;
        EXPECT_NE(r.output.find(c.second), std::string::npos) << r.output;
    }
}

TEST(RenderCli, WritesAPngOfTheRequestedSize) {
    vt::Mesh m = vt::makeSphere(8, 16, 1.0f);
    std::string obj;
    for (int v = 0; v < m.numVertices(); ++v)
        obj += "v " + std::to_string(m.vertices[3 * v]) + " " + std::to_string(m.vertices[3 * v + 1]) + " " +
               std::to_string(m.vertices[3 * v + 2]) + "\n";
    for (int t = 0; t < m.numTriangles(); ++t)
        obj += "f " + std::to_string(m.triangles[4 * t] + 1) + " " + std::to_string(m.triangles[4 * t + 1] + 1) +
               " " + std::to_string(m.triangles[4 * t + 2] + 1) + "\n";
    const std::string path = writeTemp("vekr_ball.obj", obj);
    const std::string png = ::testing::TempDir() + "vekr_ball.png";
    std::remove(png.c_str());
    CliRun r = runRender(path + " -s 40x24 -t 2 -o " + png);
    ASSERT_EQ(r.status, 0) << r.output;
    std::ifstream in(png, std::ios::binary);
    unsigned char head[24] = {};
    in.read(reinterpret_cast<char*>(head), sizeof head);
    ASSERT_TRUE(in.good());
    EXPECT_EQ(head[1], 'P');
    EXPECT_EQ(head[2], 'N');
    EXPECT_EQ(head[3], 'G');
    EXPECT_EQ((head[16] << 24) | (head[17] << 16) | (head[18] << 8) | head[19], 40);  // IHDR width
    EXPECT_EQ((head[20] << 24) | (head[21] << 16) | (head[22] << 8) | head[23], 24);  // IHDR height
}

// The bunny at the default view. One sample per pixel, at the pixel centres,
// shows what the shading does at each eye ray; the default samples show the
// image users get.
namespace {

struct BunnyScene {
    render::Mesh mesh;
    render::Options opt;
    render::Scene scene;
    bool ok = false;
    BunnyScene() {
        std::string error;
        render::StageTimes times;
        opt.progress = false;
        ok = render::loadMesh(vt::kBunnyPath, mesh, error) && render::buildScene(mesh, opt, scene, error, times);
    }
};

// Lone dark specks: groups of one or two pixels (8-connected) whose R+G+B is
// at least 150 below the median of its 5 x 5 neighbourhood.
std::vector<std::pair<int, int>> findSpecks(const render::Image& img) {
    const int w = img.width, h = img.height;
    std::vector<int> sum(static_cast<std::size_t>(w) * h), group(sum.size(), -1);
    std::vector<char> dark(sum.size(), 0);
    for (std::size_t i = 0; i < sum.size(); ++i) sum[i] = img.rgb[3 * i] + img.rgb[3 * i + 1] + img.rgb[3 * i + 2];
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            int v[25], k = 0;
            for (int dy = -2; dy <= 2; ++dy)
                for (int dx = -2; dx <= 2; ++dx)
                    v[k++] = sum[std::clamp(y + dy, 0, h - 1) * w + std::clamp(x + dx, 0, w - 1)];
            std::nth_element(v, v + 12, v + 25);
            dark[y * w + x] = sum[y * w + x] <= v[12] - 150;
        }
    std::vector<std::pair<int, int>> specks;
    for (int i = 0; i < w * h; ++i) {
        if (!dark[i] || group[i] >= 0) continue;
        std::vector<int> stack{i};
        int size = 0;
        group[i] = i;
        while (!stack.empty()) {
            int k = stack.back();
            stack.pop_back();
            ++size;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    int x = k % w + dx, y = k / w + dy;
                    if (x < 0 || y < 0 || x >= w || y >= h || !dark[y * w + x] || group[y * w + x] >= 0) continue;
                    group[y * w + x] = i;
                    stack.push_back(y * w + x);
                }
        }
        if (size <= 2) specks.emplace_back(i % w, i / w);
    }
    return specks;
}

// Nearest hit by a plain double-precision ray-triangle test over all
// triangles (Moller and Trumbore): the reference for what a ray should meet.
int nearestByBruteForce(const render::Scene& s, const double o[3], const double d[3], double& tBest) {
    int best = -1;
    tBest = 1e300;
    const int nt = static_cast<int>(s.triangles.size() / 4);
    for (int t = 0; t < nt; ++t) {
        const float* a = &s.vertices[3 * s.triangles[4 * t]];
        const float* b = &s.vertices[3 * s.triangles[4 * t + 1]];
        const float* c = &s.vertices[3 * s.triangles[4 * t + 2]];
        double e1[3], e2[3], tv[3];
        for (int k = 0; k < 3; ++k) {
            e1[k] = double(b[k]) - a[k];
            e2[k] = double(c[k]) - a[k];
            tv[k] = o[k] - a[k];
        }
        double p[3] = {d[1] * e2[2] - d[2] * e2[1], d[2] * e2[0] - d[0] * e2[2], d[0] * e2[1] - d[1] * e2[0]};
        double det = e1[0] * p[0] + e1[1] * p[1] + e1[2] * p[2];
        if (det == 0) continue;
        double u = (tv[0] * p[0] + tv[1] * p[1] + tv[2] * p[2]) / det;
        if (u < 0 || u > 1) continue;
        double q[3] = {tv[1] * e1[2] - tv[2] * e1[1], tv[2] * e1[0] - tv[0] * e1[2], tv[0] * e1[1] - tv[1] * e1[0]};
        double v = (d[0] * q[0] + d[1] * q[1] + d[2] * q[2]) / det;
        if (v < 0 || u + v > 1) continue;
        double t1 = (e2[0] * q[0] + e2[1] * q[1] + e2[2] * q[2]) / det;
        if (t1 > 1e-9 && t1 < tBest) {
            tBest = t1;
            best = t;
        }
    }
    return best;
}

}  // namespace

// Why the first renders had specks on the lit surface: an eye ray along an
// edge shared by two triangles can miss both (each triangle's test rounds the
// shared edge its own way) and meet the inside of the far wall. This finds
// such rays among the pixel-centre rays of the default view and checks each
// against the brute-force reference: a front face lies nearer on the same ray.
TEST(RenderBunny, EyeRaysThroughSharedEdgesReachTheInsideOfTheMesh) {
    BunnyScene b;
    ASSERT_TRUE(b.ok);
    const render::Scene& s = b.scene;
    const render::Camera& cam = s.camera;
    const float eye[3] = {cam.eye.x, cam.eye.y, cam.eye.z};
    const float o[3] = {cam.origin.x, cam.origin.y, cam.origin.z};
    const float sx[3] = {cam.stepX.x, cam.stepX.y, cam.stepX.z};
    const float sy[3] = {cam.stepY.x, cam.stepY.y, cam.stepY.z};
    const int W = b.opt.width, n = W;  // one image row per packet
    std::vector<float> dx(n), dy(n), dz(n), dist(n), u(n), v(n);
    std::vector<int32_t> tri(n);
    float* dir[3] = {dx.data(), dy.data(), dz.data()};
    float* uv[2] = {u.data(), v.data()};
    int backFaces = 0, throughCracks = 0;
    for (int row = 0; row < b.opt.height; ++row) {
        vekrCastEye_32f(o, sx, sy, 0, row, W, 1, dir, W, 1);
        std::fill(dist.begin(), dist.end(), 3.0e38f);
        vekrIntersectEyeSO_32f(eye, dir, dist.data(), uv, tri.data(), &s.context, W, 1);
        for (int i = 0; i < n; ++i) {
            if (tri[i] < 0 || tri[i] >= s.numMeshTriangles) continue;
            const float* g = &s.triNormals[3 * tri[i]];
            if (g[0] * dx[i] + g[1] * dy[i] + g[2] * dz[i] <= 0) continue;
            ++backFaces;
            const double od[3] = {eye[0], eye[1], eye[2]}, dd[3] = {dx[i], dy[i], dz[i]};
            double t;
            int front = nearestByBruteForce(s, od, dd, t);
            ASSERT_GE(front, 0);
            const float* fg = &s.triNormals[3 * front];
            if (t < dist[i] && fg[0] * dx[i] + fg[1] * dy[i] + fg[2] * dz[i] < 0) ++throughCracks;
        }
    }
    // Every back face seen from outside the closed bunny is seen through a crack.
    EXPECT_GT(backFaces, 5);
    EXPECT_EQ(throughCracks, backFaces);
}

TEST(RenderBunny, DefaultImageHasNoSpecks) {
    BunnyScene b;
    ASSERT_TRUE(b.ok);
    render::StageTimes times;
    // One sample per pixel: no speck is left where the ray went through a
    // crack or the shading normal was turned the wrong way; what remains are
    // the tips of real cast shadows, thinner than a pixel.
    b.opt.samples = 1;
    render::Image one;
    render::renderImage(b.scene, b.opt, one, times);
    const std::vector<std::pair<int, int>> before = findSpecks(one);
    EXPECT_LT(before.size(), 50u);
    // The default samples: a shadow's notch or a rim gap narrower than a
    // pixel may still stand out in one pixel, but no more than that.
    b.opt.samples = render::Options().samples;
    render::Image img;
    render::renderImage(b.scene, b.opt, img, times);
    std::vector<std::pair<int, int>> specks = findSpecks(img);
    std::string where;
    for (auto& p : specks) where += " (" + std::to_string(p.first) + ", " + std::to_string(p.second) + ")";
    EXPECT_LE(specks.size(), 2u) << where;
}
