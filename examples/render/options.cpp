// Command-line parsing shared by vekr-render and vekr-render-mpi.
#include "options.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb/stb_image_write.h>

namespace render {

const char* const kUsage =
    "usage: vekr-render [options] [MESH]\n"
    "       mpirun -np N vekr-render-mpi [options] [MESH]\n"
    "Ray-traces MESH (OBJ, STL, PLY, 3DS, glTF and the other formats of assimp,\n"
    "glmark2's .jobj; default: the glmark2-data bunny) on a ground plane.\n"
    "  -o, --output PATH      PNG to write (default: bunny.png, or MESH's name .png)\n"
    "  -s, --size WxH         image size in pixels (default 1024x1024)\n"
    "      --camera X,Y,Z     eye position (default: framing the mesh)\n"
    "      --target X,Y,Z     point looked at (default: the mesh's centre)\n"
    "      --fov DEG          vertical field of view, 1 to 170 (default 35)\n"
    "      --light X,Y,Z      point light position (default: above, to the left)\n"
    "  -S, --samples N        N x N stratified samples per pixel, 1 to 16 (default 2)\n"
    "      --tile N           tile edge in pixels, 4 to 512 (default 32)\n"
    "  -t, --threads N        render threads (default: all processors)\n"
    "      --reflect K        ground mirror share, 0 to 1 (default 0.25)\n"
    "      --no-ground        no ground plane\n"
    "  -q, --quiet            no progress bar\n"
    "      --frames N         a turntable of N frames, NAME_000.png ... (default: one image)\n"
    "      --generate N       a generated field of spheres of N million triangles instead of MESH\n"
    "      --stats            print where the time went\n";

namespace {

const char* const kDefaultMesh = "/usr/share/glmark2/models/bunny.obj";

bool parseInt(const char* s, long lo, long hi, int& out) {
    char* end;
    errno = 0;
    long v = std::strtol(s, &end, 10);
    if (errno || end == s || *end || v < lo || v > hi) return false;
    out = static_cast<int>(v);
    return true;
}

bool parseFloat(const char* s, float lo, float hi, float& out) {
    char* end;
    errno = 0;
    float v = std::strtof(s, &end);
    if (errno || end == s || *end || !std::isfinite(v) || v < lo || v > hi) return false;
    out = v;
    return true;
}

bool parseVec(const std::string& s, Vec3& v) {
    float c[3];
    std::size_t start = 0;
    for (int k = 0; k < 3; ++k) {
        std::size_t comma = s.find(',', start);
        if ((k < 2) != (comma != std::string::npos)) return false;
        std::string part = s.substr(start, k < 2 ? comma - start : std::string::npos);
        if (!parseFloat(part.c_str(), -1e30f, 1e30f, c[k])) return false;
        start = comma + 1;
    }
    v.x = c[0];
    v.y = c[1];
    v.z = c[2];
    return true;
}

bool parseSize(const std::string& s, int& w, int& h) {
    std::size_t x = s.find('x');
    if (x == std::string::npos) return false;
    return parseInt(s.substr(0, x).c_str(), 1, 16384, w) && parseInt(s.substr(x + 1).c_str(), 1, 16384, h);
}

std::string stemPng(const std::string& path) {
    std::size_t slash = path.find_last_of('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    std::size_t dot = name.find_last_of('.');
    return (dot == std::string::npos || dot == 0 ? name : name.substr(0, dot)) + ".png";
}

}  // namespace

#define FAIL(msg, code)  \
    do {                 \
        error = (msg);   \
        return (code);   \
    } while (0)

int parseCommandLine(int argc, char** argv, CommandLine& cl, std::string& error) {
    Options& opt = cl.opt;
    std::string& meshPath = cl.meshPath;
    std::string& outPath = cl.outPath;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if ((a == "-o" || a == "--output" || a == "-s" || a == "--size" || a == "--camera" || a == "--target" ||
             a == "--light" || a == "--fov" || a == "-S" || a == "--samples" || a == "--tile" || a == "-t" ||
             a == "--threads" || a == "--reflect" || a == "--frames" || a == "--generate") &&
            i + 1 >= argc)
            FAIL("option " + a + " needs a value", 2);
        auto value = [&](const char*) -> std::string { return argv[++i]; };
        if (a == "-h" || a == "--help") {
            cl.help = true;
            return 0;
        } else if (a == "-o" || a == "--output") {
            outPath = value("--output");
            if (outPath.empty()) FAIL("empty --output path", 2);
        } else if (a == "-s" || a == "--size") {
            std::string v = value("--size");
            if (!parseSize(v, opt.width, opt.height))
                FAIL("invalid --size '" + v + "': expected WIDTHxHEIGHT, each 1 to 16384", 2);
        } else if (a == "--camera") {
            std::string v = value("--camera");
            if (!parseVec(v, opt.eye)) FAIL("invalid --camera '" + v + "': expected X,Y,Z", 2);
            opt.eyeSet = true;
        } else if (a == "--target") {
            std::string v = value("--target");
            if (!parseVec(v, opt.target)) FAIL("invalid --target '" + v + "': expected X,Y,Z", 2);
            opt.targetSet = true;
        } else if (a == "--light") {
            std::string v = value("--light");
            if (!parseVec(v, opt.light)) FAIL("invalid --light '" + v + "': expected X,Y,Z", 2);
            opt.lightSet = true;
        } else if (a == "--fov") {
            std::string v = value("--fov");
            if (!parseFloat(v.c_str(), 1, 170, opt.fovDeg)) FAIL("invalid --fov '" + v + "': expected 1 to 170", 2);
        } else if (a == "-S" || a == "--samples") {
            std::string v = value("--samples");
            if (!parseInt(v.c_str(), 1, 16, opt.samples))
                FAIL("invalid --samples '" + v + "': expected 1 to 16", 2);
        } else if (a == "--tile") {
            std::string v = value("--tile");
            if (!parseInt(v.c_str(), 4, 512, opt.tile)) FAIL("invalid --tile '" + v + "': expected 4 to 512", 2);
        } else if (a == "-t" || a == "--threads") {
            std::string v = value("--threads");
            if (!parseInt(v.c_str(), 1, 1024, opt.threads))
                FAIL("invalid --threads '" + v + "': expected 1 to 1024", 2);
        } else if (a == "--reflect") {
            std::string v = value("--reflect");
            if (!parseFloat(v.c_str(), 0, 1, opt.reflectivity))
                FAIL("invalid --reflect '" + v + "': expected 0 to 1", 2);
        } else if (a == "--no-ground") {
            opt.ground = false;
        } else if (a == "-q" || a == "--quiet") {
            opt.progress = false;
        } else if (a == "--stats") {
            cl.stats = true;
        } else if (a == "--generate") {
            std::string v = value("--generate");
            if (!parseInt(v.c_str(), 1, 64, cl.generate))
                FAIL("invalid --generate '" + v + "': expected 1 to 64 (million triangles)", 2);
        } else if (a == "--frames") {
            std::string v = value("--frames");
            if (!parseInt(v.c_str(), 1, 100000, cl.frames))
                FAIL("invalid --frames '" + v + "': expected 1 to 100000", 2);
        } else if (!a.empty() && a[0] == '-') {
            FAIL("unknown option '" + a + "' (see --help)", 2);
        } else if (meshPath.empty()) {
            meshPath = a;
        } else {
            FAIL("more than one mesh given ('" + meshPath + "', '" + a + "')", 2);
        }
    }
    if (cl.generate && !meshPath.empty()) FAIL("--generate and a mesh file '" + meshPath + "' given", 2);
    if (cl.generate) meshPath = "spheres-" + std::to_string(cl.generate) + "M";
    if (meshPath.empty()) meshPath = kDefaultMesh;
    if (outPath.empty()) outPath = stemPng(meshPath);
    if (opt.eyeSet && opt.targetSet && opt.eye.x == opt.target.x && opt.eye.y == opt.target.y &&
        opt.eye.z == opt.target.z)
        FAIL("--camera and --target are the same point", 2);
    return 0;
}

#undef FAIL

std::string framePath(const CommandLine& cl, int frame) {
    if (cl.frames == 0) return cl.outPath;
    char num[16];
    std::snprintf(num, sizeof num, "_%03d", frame);
    const std::string& p = cl.outPath;
    std::size_t slash = p.find_last_of('/'), dot = p.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return p + num;
    return p.substr(0, dot) + num + p.substr(dot);
}

bool writePng(const std::string& path, const Image& image) {
    return stbi_write_png(path.c_str(), image.width, image.height, 3, image.rgb.data(), image.width * 3) != 0;
}

}  // namespace render
