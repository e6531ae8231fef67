// vekr-render's pipeline: a triangle mesh on a mirror-like ground plane, lit
// by a point light with shadows and by a sky projected to spherical harmonics,
// traced tile by tile through the public vekr interface only.
#ifndef VEKR_RENDER_RENDERER_H
#define VEKR_RENDER_RENDERER_H

#include <cstdint>
#include <string>
#include <vector>

#include "mesh_io.h"
#include "vekr.h"

namespace render {

struct Vec3 {
    float x = 0, y = 0, z = 0;
};

struct Options {
    int width = 1024, height = 1024;
    int tile = 32;                 // tile edge in pixels (a multiple of 4 keeps the vector paths)
    int threads = 0;               // 0: all available processors
    bool eyeSet = false, targetSet = false, lightSet = false;
    Vec3 eye, target, light;       // defaults frame the mesh
    float fovDeg = 35.0f;          // vertical field of view
    bool ground = true;            // add the ground plane under the mesh
    float reflectivity = 0.25f;    // mirror share of the ground's colour
    int shOrder = 3;               // order of the sky's spherical-harmonics projection
    bool progress = true;          // progress bar on stderr
    int samples = 2;               // samples per pixel along each axis (samples x samples strata)
};

// A pinhole camera: the direction to pixel (0, 0)'s centre and the steps from
// one pixel column and row to the next (the inputs of vekrCastEye_32f).
struct Camera {
    Vec3 eye, origin, stepX, stepY;
};

// Everything the tracer needs, built once.
struct Scene {
    std::vector<float> vertices;         // mesh vertices, then the ground's four
    std::vector<int32_t> triangles;      // mesh triangles, then the ground's two
    std::vector<float> vertexNormals;    // three floats per vertex
    std::vector<float> triNormals;       // unit normal per triangle (vekrTriangleNormal_32f)
    std::vector<VekrTriangleAccel> accel;
    VekrBoundBox box{};
    VekrKDTreeNode* tree = nullptr;      // the KD-tree block (vekMalloc memory, position-independent)
    int treeSize = 0;                    // its size in bytes
    VekrIntersectContext context{};
    int numMeshTriangles = 0;
    VekrBoundBox meshBox{};
    Camera camera;
    Vec3 target;                         // the point the camera looks at
    Vec3 light;
    float lightScale = 1.0f;             // keeps the light's strength independent of the scene's size
    std::vector<float> shCoeffs[3];      // sky irradiance per colour channel
    std::vector<uint8_t> shState;        // VekrSHState memory (16-byte aligned use)
    int shOrder = 3;
    Scene() = default;
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;
    ~Scene();
    const VekrSHState* sh() const;
};

// CPU seconds spent per stage, summed over threads.
struct StageTimes {
    double build = 0, eye = 0, shadows = 0, reflection = 0, shading = 0, total = 0;
};

struct Image {
    int width = 0, height = 0;
    std::vector<uint8_t> rgb;  // row-major, three bytes per pixel
};

// The sky's radiance in direction d (unit): the background, the reflections'
// background and the source of the ambient light.
Vec3 skyRadiance(Vec3 d);

// The camera for the options (framing the scene box unless eye/target are set).
Camera makeCamera(const Options& opt, const VekrBoundBox& meshBox);

// Builds the scene; false with a one-line error when the library refuses it.
bool buildScene(const Mesh& mesh, const Options& opt, Scene& scene, std::string& error, StageTimes& times);

// Points the intersection context at the scene's own box, records and tree,
// and sets up the spherical-harmonics state: what a scene received as bytes
// from another process needs before it renders.
bool attachScene(Scene& scene, std::string& error);

// Renders the image with opt.threads threads.
void renderImage(const Scene& scene, const Options& opt, Image& image, StageTimes& times);

// Number of rows of tiles in an image (tile rows are the unit of work that
// the distributed renderer hands out).
int numTileRows(const Options& opt);

// Renders tile rows [firstRow, firstRow + numRows) seen by `camera` into
// `image` (sized to the options first if it is not). Every pixel depends only
// on the scene, the options and the camera: which process or thread renders
// which rows changes no bit.
void renderRows(const Scene& scene, const Options& opt, const Camera& camera, int firstRow, int numRows,
                Image& image, StageTimes& times, bool progress);

// Frame `frame` of a turntable of numFrames frames: the camera turned about
// the vertical axis through the target; frame 0 is scene.camera.
Camera turntableCamera(const Scene& scene, const Options& opt, int frame, int numFrames);

// 8-bit value of a linear radiance (clamped, gamma 2.2).
uint8_t toByte(float linear);

}  // namespace render

#endif  // VEKR_RENDER_RENDERER_H
