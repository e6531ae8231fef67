// Mesh input. With assimp (Debian's libassimp-dev) every format it knows is
// read through it: OBJ, STL, PLY, 3DS, glTF, COLLADA, FBX and more. Builds
// without it (the i386 target, for which Debian has no 32-bit assimp here)
// read OBJ through tinyobjloader and STL by hand. glmark2's own .jobj (an
// indexed triangle list) is read here: no library knows it.
#include "mesh_io.h"

#include <cerrno>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#ifdef VEKR_RENDER_ASSIMP
#include <assimp/Importer.hpp>
#include <assimp/postprocess.h>
#include <assimp/scene.h>
#else
#define TINYOBJLOADER_IMPLEMENTATION
#include <tiny_obj_loader.h>
#endif

namespace render {
namespace {

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool endsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// First line of a possibly multi-line message.
std::string firstLine(const std::string& s) {
    std::string t = s.substr(0, s.find('\n'));
    return t.empty() ? std::string("unknown error") : t;
}

#ifndef VEKR_RENDER_ASSIMP
bool loadObj(const std::string& path, Mesh& mesh, std::string& error) {
    tinyobj::attrib_t attrib;
    std::vector<tinyobj::shape_t> shapes;
    std::vector<tinyobj::material_t> materials;
    std::string warn, err;
    std::ifstream in(path);
    if (!in) {
        error = "cannot open mesh '" + path + "': " + std::strerror(errno);
        return false;
    }
    // Materials are not needed: a reader that finds none keeps the loader
    // from looking for .mtl files next to the mesh.
    struct NoMaterials : tinyobj::MaterialReader {
        bool operator()(const std::string&, std::vector<tinyobj::material_t>*, std::map<std::string, int>*,
                        std::string*, std::string*) override {
            return true;
        }
    } noMaterials;
    if (!tinyobj::LoadObj(&attrib, &shapes, &materials, &warn, &err, &in, &noMaterials, true)) {
        error = "malformed OBJ '" + path + "': " + firstLine(err);
        return false;
    }
    mesh = Mesh();
    mesh.vertices.assign(attrib.vertices.begin(), attrib.vertices.end());
    const int nv = mesh.numVertices();
    for (const auto& shape : shapes) {
        for (std::size_t f = 0; f + 2 < shape.mesh.indices.size(); f += 3) {
            int idx[3];
            for (int k = 0; k < 3; ++k) {
                idx[k] = shape.mesh.indices[f + k].vertex_index;
                if (idx[k] < 0 || idx[k] >= nv) {
                    error = "malformed OBJ '" + path + "': vertex index out of range";
                    return false;
                }
            }
            mesh.triangles.insert(mesh.triangles.end(), {idx[0], idx[1], idx[2], 0});
        }
    }
    for (float v : mesh.vertices)
        if (!std::isfinite(v)) {
            error = "malformed OBJ '" + path + "': non-finite vertex coordinate";
            return false;
        }
    return true;
}

// STL: facets of three vertices each; vertices are not shared.
bool loadStl(const std::string& path, Mesh& mesh, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot open mesh '" + path + "': " + std::strerror(errno);
        return false;
    }
    std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    mesh = Mesh();
    auto addFacet = [&](const float* v) {
        int base = mesh.numVertices();
        mesh.vertices.insert(mesh.vertices.end(), v, v + 9);
        mesh.triangles.insert(mesh.triangles.end(), {base, base + 1, base + 2, 0});
    };
    if (data.size() >= 84) {
        uint32_t n;
        std::memcpy(&n, data.data() + 80, 4);
        if (84 + 50ull * n == data.size()) {  // binary: 80-byte header, count, 50-byte facets
            for (uint32_t i = 0; i < n; ++i) {
                float v[9];
                std::memcpy(v, data.data() + 84 + 50ull * i + 12, sizeof v);
                addFacet(v);
            }
            return true;
        }
    }
    if (data.compare(0, 5, "solid") != 0) {
        error = "malformed STL '" + path + "': neither ASCII nor a consistent binary file";
        return false;
    }
    std::istringstream text(data);
    std::string word;
    std::vector<float> facet;
    while (text >> word) {
        if (word == "vertex") {
            float x, y, z;
            if (!(text >> x >> y >> z)) {
                error = "malformed STL '" + path + "': bad vertex";
                return false;
            }
            facet.insert(facet.end(), {x, y, z});
        } else if (word == "endloop") {
            if (facet.size() != 9) {
                error = "malformed STL '" + path + "': a facet without three vertices";
                return false;
            }
            addFacet(facet.data());
            facet.clear();
        }
    }
    return true;
}

#endif  // !VEKR_RENDER_ASSIMP

// glmark2's .jobj: lines "v x y z" (positions), "vn", "vt", "vc" (ignored) and
// "i n" (vertex indices, three per triangle).
bool loadJobj(const std::string& path, Mesh& mesh, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot open mesh '" + path + "': " + std::strerror(errno);
        return false;
    }
    mesh = Mesh();
    std::vector<long> indices;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string key;
        words >> key;
        if (key == "v") {
            float x, y, z;
            if (!(words >> x >> y >> z)) {
                error = "malformed JOBJ '" + path + "': bad vertex";
                return false;
            }
            mesh.vertices.insert(mesh.vertices.end(), {x, y, z});
        } else if (key == "i") {
            long i;
            if (!(words >> i)) {
                error = "malformed JOBJ '" + path + "': bad index";
                return false;
            }
            indices.push_back(i);
        }
    }
    for (std::size_t k = 0; k + 2 < indices.size(); k += 3) {
        for (int c = 0; c < 3; ++c)
            if (indices[k + c] < 0 || indices[k + c] >= mesh.numVertices()) {
                error = "malformed JOBJ '" + path + "': vertex index out of range";
                return false;
            }
        mesh.triangles.insert(mesh.triangles.end(), {static_cast<int32_t>(indices[k]),
                                                     static_cast<int32_t>(indices[k + 1]),
                                                     static_cast<int32_t>(indices[k + 2]), 0});
    }
    return true;
}

#ifdef VEKR_RENDER_ASSIMP
// Every triangle of every mesh of the scene, placed by the node transforms
// (assimp's pre-transform step); polygons are triangulated, points and lines
// are counted so that a mesh made only of them gets a clear message.
bool loadWithAssimp(const std::string& path, Mesh& mesh, std::string& error) {
    Assimp::Importer importer;
    // Normals, colours and texture coordinates are not used: let assimp skip them.
    importer.SetPropertyInteger(AI_CONFIG_PP_RVC_FLAGS, aiComponent_NORMALS | aiComponent_TANGENTS_AND_BITANGENTS |
                                                            aiComponent_COLORS | aiComponent_TEXCOORDS |
                                                            aiComponent_BONEWEIGHTS | aiComponent_ANIMATIONS |
                                                            aiComponent_TEXTURES | aiComponent_LIGHTS |
                                                            aiComponent_CAMERAS | aiComponent_MATERIALS);
    const aiScene* scene =
        importer.ReadFile(path, aiProcess_RemoveComponent | aiProcess_Triangulate | aiProcess_JoinIdenticalVertices |
                                    aiProcess_PreTransformVertices | aiProcess_SortByPType |
                                    aiProcess_FindInvalidData);
    if (!scene) {
        error = "cannot read mesh '" + path + "': " + firstLine(importer.GetErrorString());
        return false;
    }
    mesh = Mesh();
    long pointsAndLines = 0;
    for (unsigned m = 0; m < scene->mNumMeshes; ++m) {
        const aiMesh* am = scene->mMeshes[m];
        if (!am || !am->mVertices) continue;
        const int base = mesh.numVertices();
        if (static_cast<long long>(base) + am->mNumVertices > (1LL << 30)) {
            error = "mesh '" + path + "' has too many vertices";
            return false;
        }
        for (unsigned v = 0; v < am->mNumVertices; ++v)
            mesh.vertices.insert(mesh.vertices.end(), {am->mVertices[v].x, am->mVertices[v].y, am->mVertices[v].z});
        for (unsigned f = 0; f < am->mNumFaces; ++f) {
            const aiFace& face = am->mFaces[f];
            if (face.mNumIndices != 3) {
                ++pointsAndLines;
                continue;
            }
            for (int k = 0; k < 3; ++k)
                if (face.mIndices[k] >= am->mNumVertices) {
                    error = "malformed mesh '" + path + "': vertex index out of range";
                    return false;
                }
            mesh.triangles.insert(mesh.triangles.end(), {base + static_cast<int32_t>(face.mIndices[0]),
                                                         base + static_cast<int32_t>(face.mIndices[1]),
                                                         base + static_cast<int32_t>(face.mIndices[2]), 0});
        }
    }
    if (mesh.triangles.empty() && pointsAndLines > 0) {
        error = "mesh '" + path + "' has no triangles, only " + std::to_string(pointsAndLines) + " points or lines";
        return false;
    }
    return true;
}
#endif

}  // namespace

bool loadMesh(const std::string& path, Mesh& mesh, std::string& error) {
    {
        std::ifstream probe(path, std::ios::binary);
        if (!probe) {
            error = "cannot open mesh '" + path + "': " + std::strerror(errno);
            return false;
        }
    }
    const std::string name = lower(path);
    bool ok;
    if (endsWith(name, ".jobj"))
        ok = loadJobj(path, mesh, error);
    else
#ifdef VEKR_RENDER_ASSIMP
        ok = loadWithAssimp(path, mesh, error);
#else
        ok = endsWith(name, ".stl") ? loadStl(path, mesh, error) : loadObj(path, mesh, error);
#endif
    if (!ok) return false;
    if (mesh.numTriangles() == 0) {
        error = "mesh '" + path + "' has no triangles";
        return false;
    }
    for (float v : mesh.vertices)
        if (!std::isfinite(v)) {
            error = "malformed mesh '" + path + "': non-finite vertex coordinate";
            return false;
        }
    // Every vertex index must lie in the vertex array (the library trusts them).
    for (std::size_t k = 0; k < mesh.triangles.size(); k += 4)
        for (int c = 0; c < 3; ++c)
            if (mesh.triangles[k + c] < 0 || mesh.triangles[k + c] >= mesh.numVertices()) {
                error = "malformed mesh '" + path + "': vertex index out of range";
                return false;
            }
    return true;
}

namespace {

bool writeAll(int fd, const void* p, std::size_t n) {
    const char* c = static_cast<const char*>(p);
    while (n > 0) {
        ssize_t k = write(fd, c, n);
        if (k <= 0) return false;
        c += k;
        n -= static_cast<std::size_t>(k);
    }
    return true;
}

// Reads n bytes before the deadline; false on end of file, error or timeout.
bool readAll(int fd, void* p, std::size_t n, std::chrono::steady_clock::time_point deadline) {
    char* c = static_cast<char*>(p);
    while (n > 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(std::min<long long>(left.count(), 1000))) <= 0) continue;
        ssize_t k = read(fd, c, n);
        if (k <= 0) return false;
        c += k;
        n -= static_cast<std::size_t>(k);
    }
    return true;
}

}  // namespace

bool loadMeshIsolated(const std::string& path, Mesh& mesh, std::string& error, int timeoutSeconds) {
    int fds[2];
    if (pipe(fds) != 0) return loadMesh(path, mesh, error);
    pid_t child = fork();
    if (child < 0) {
        close(fds[0]);
        close(fds[1]);
        return loadMesh(path, mesh, error);
    }
    if (child == 0) {
        // The child: status, message or the two arrays, each with its length.
        close(fds[0]);
        Mesh m;
        std::string err;
        int32_t ok = loadMesh(path, m, err) ? 1 : 0;
        uint64_t sizes[3] = {err.size(), m.vertices.size(), m.triangles.size()};
        bool sent = writeAll(fds[1], &ok, sizeof ok) && writeAll(fds[1], sizes, sizeof sizes) &&
                    writeAll(fds[1], err.data(), err.size()) &&
                    writeAll(fds[1], m.vertices.data(), sizeof(float) * m.vertices.size()) &&
                    writeAll(fds[1], m.triangles.data(), sizeof(int32_t) * m.triangles.size());
        _exit(sent ? 0 : 1);
    }
    close(fds[1]);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    int32_t ok = 0;
    uint64_t sizes[3] = {0, 0, 0};
    bool got = readAll(fds[0], &ok, sizeof ok, deadline) && readAll(fds[0], sizes, sizeof sizes, deadline);
    std::string err;
    mesh = Mesh();
    if (got && sizes[0] < (1u << 20) && sizes[1] < (1ull << 34) && sizes[2] < (1ull << 34)) {
        err.resize(sizes[0]);
        mesh.vertices.resize(sizes[1]);
        mesh.triangles.resize(sizes[2]);
        got = readAll(fds[0], &err[0], err.size(), deadline) &&
              readAll(fds[0], mesh.vertices.data(), sizeof(float) * sizes[1], deadline) &&
              readAll(fds[0], mesh.triangles.data(), sizeof(int32_t) * sizes[2], deadline);
    } else {
        got = false;
    }
    close(fds[0]);
    int status = 0;
    if (!got) kill(child, SIGKILL);
    waitpid(child, &status, 0);
    if (!got) {
        mesh = Mesh();
        if (WIFSIGNALED(status) && WTERMSIG(status) != SIGKILL)
            error = "the reader crashed on mesh '" + path + "' (signal " + std::to_string(WTERMSIG(status)) + ")";
        else
            error = "reading mesh '" + path + "' did not finish within " + std::to_string(timeoutSeconds) +
                    " s (damaged file?)";
        return false;
    }
    if (!ok) {
        error = err;
        mesh = Mesh();
        return false;
    }
    return true;
}

void generateSpheres(long numTriangles, Mesh& mesh) {
    const int rings = 64, segments = 128;  // 2 * 64 * 128 triangles per sphere, less the poles' slivers
    const long perSphere = 2L * rings * segments;
    const int count = static_cast<int>(std::max(1L, (numTriangles + perSphere - 1) / perSphere));
    const int side = static_cast<int>(std::ceil(std::sqrt(static_cast<double>(count))));
    const double pi = 3.14159265358979323846;
    mesh = Mesh();
    for (int s = 0; s < count; ++s) {
        const float cx = 2.2f * (s % side), cz = 2.2f * (s / side), r = 0.6f + 0.4f * ((s * 7) % 5) / 4.0f;
        const int base = mesh.numVertices();
        for (int i = 0; i <= rings; ++i)
            for (int j = 0; j < segments; ++j) {
                double th = pi * i / rings, ph = 2 * pi * j / segments;
                mesh.vertices.insert(mesh.vertices.end(),
                                     {cx + r * static_cast<float>(std::sin(th) * std::cos(ph)),
                                      r + r * static_cast<float>(std::cos(th)),
                                      cz + r * static_cast<float>(std::sin(th) * std::sin(ph))});
            }
        for (int i = 0; i < rings; ++i)
            for (int j = 0; j < segments; ++j) {
                int a = base + i * segments + j, b = base + i * segments + (j + 1) % segments;
                int c = a + segments, d = b + segments;
                if (i > 0) mesh.triangles.insert(mesh.triangles.end(), {a, b, c, 0});
                if (i < rings - 1) mesh.triangles.insert(mesh.triangles.end(), {b, d, c, 0});
            }
    }
}

}  // namespace render
