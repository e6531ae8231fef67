// vekr-render: ray-traces a triangle mesh to a PNG image with the vekr library.
// With no arguments it renders the bunny of Debian's glmark2-data to bunny.png.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "mesh_io.h"
#include "options.h"
#include "renderer.h"
#include "vekcore.h"

namespace {

[[noreturn]] void fail(const std::string& msg, int code = 1) {
    std::fprintf(stderr, "vekr-render: %s\n", msg.c_str());
    std::exit(code);
}

double peakMemoryMB() {
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_maxrss / 1024.0;
}

}  // namespace

int main(int argc, char** argv) {
    render::CommandLine cl;
    std::string error;
    if (int code = render::parseCommandLine(argc, argv, cl, error)) fail(error, code);
    if (cl.help) {
        std::fputs(render::kUsage, stdout);
        return 0;
    }
    const render::Options& opt = cl.opt;

    auto t0 = std::chrono::steady_clock::now();
    render::Mesh mesh;
    if (cl.generate)
        render::generateSpheres(cl.generate * 1000000L, mesh);
    else if (!render::loadMeshIsolated(cl.meshPath, mesh, error, 600))
        fail(error);
    double load = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();

    render::StageTimes times;
    render::Scene scene;
    if (!render::buildScene(mesh, opt, scene, error, times)) fail(error);
    const int numFrames = cl.frames > 0 ? cl.frames : 1;
    render::Image image;
    for (int f = 0; f < numFrames; ++f) {
        render::Camera cam = cl.frames > 0 ? render::turntableCamera(scene, opt, f, numFrames) : scene.camera;
        render::renderRows(scene, opt, cam, 0, render::numTileRows(opt), image, times, opt.progress);
        if (!render::writePng(render::framePath(cl, f), image))
            fail("cannot write '" + render::framePath(cl, f) + "'");
    }
    int threads = opt.threads > 0 ? opt.threads : ownGetNumThreads();
    std::fprintf(stderr, "vekr-render: %s (%d triangles) -> %s, %dx%d, %d sample%s/pixel%s, %.3f s on %d thread%s\n",
                 cl.meshPath.c_str(), mesh.numTriangles(), render::framePath(cl, 0).c_str(), image.width,
                 image.height, opt.samples * opt.samples, opt.samples == 1 ? "" : "s",
                 cl.frames > 0 ? (", " + std::to_string(numFrames) + " frames").c_str() : "",
                 times.build + times.total, threads, threads == 1 ? "" : "s");
    if (cl.stats) {
        double work = times.eye + times.shadows + times.reflection + times.shading;
        std::fprintf(stderr,
                     "  load %.3f s; build %.3f s (wall; tree %d bytes); render %.3f s wall, %.3f s CPU: eye rays "
                     "%.3f, shadows %.3f, reflection %.3f, shading %.3f; peak memory %.0f MB\n",
                     load, times.build, scene.treeSize, times.total, work, times.eye, times.shadows,
                     times.reflection, times.shading, peakMemoryMB());
    }
    return 0;
}
