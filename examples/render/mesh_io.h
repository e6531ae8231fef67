// Mesh input for vekr-render: OBJ (through tinyobjloader) and STL (ASCII or
// binary), turned into the library's vertex and triangle arrays.
#ifndef VEKR_RENDER_MESH_IO_H
#define VEKR_RENDER_MESH_IO_H

#include <cstdint>
#include <string>
#include <vector>

namespace render {

struct Mesh {
    std::vector<float> vertices;      // x, y, z per vertex
    std::vector<int32_t> triangles;   // i0, i1, i2, unused per triangle
    int numVertices() const { return static_cast<int>(vertices.size() / 3); }
    int numTriangles() const { return static_cast<int>(triangles.size() / 4); }
};

// Loads an .obj or .stl file (chosen by extension, OBJ otherwise). On failure
// returns false and sets `error` to a one-line description.
bool loadMesh(const std::string& path, Mesh& mesh, std::string& error);

// loadMesh in a child process with a time limit: a reader that crashes or
// loops on a damaged file (assimp can, for some) ends in an error message
// instead of taking the program down.
bool loadMeshIsolated(const std::string& path, Mesh& mesh, std::string& error, int timeoutSeconds);

// A generated scene of about `numTriangles` triangles: a square field of
// spheres of 16,384 triangles each, for trying the renderer on large scenes.
void generateSpheres(long numTriangles, Mesh& mesh);

}  // namespace render

#endif  // VEKR_RENDER_MESH_IO_H
