// Mesh input: OBJ through tinyobjloader (header-only use, so the same code
// builds for both targets), STL by hand.
#include "mesh_io.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#define TINYOBJLOADER_IMPLEMENTATION
#include <tiny_obj_loader.h>

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

}  // namespace

bool loadMesh(const std::string& path, Mesh& mesh, std::string& error) {
    bool ok = endsWith(lower(path), ".stl") ? loadStl(path, mesh, error) : loadObj(path, mesh, error);
    if (ok && mesh.numTriangles() == 0) {
        error = "mesh '" + path + "' has no triangles";
        return false;
    }
    return ok;
}

}  // namespace render
