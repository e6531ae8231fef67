// Test and benchmark meshes: a minimal OBJ reader (positions and faces, polygons
// fanned into triangles) and generated scenes. Triangles use the library's
// four-int layout (three vertex indices and one unused word).
#ifndef VEKR_TESTS_MESH_H
#define VEKR_TESTS_MESH_H

#include <cstdint>
#include <string>
#include <vector>

namespace vt {

struct Mesh {
    std::vector<float> vertices;   // x, y, z per vertex
    std::vector<int32_t> triangles;  // i0, i1, i2, 0 per triangle
    int numVertices() const { return static_cast<int>(vertices.size() / 3); }
    int numTriangles() const { return static_cast<int>(triangles.size() / 4); }
    void addVertex(float x, float y, float z) {
        vertices.push_back(x);
        vertices.push_back(y);
        vertices.push_back(z);
    }
    void addTriangle(int a, int b, int c) {
        triangles.push_back(a);
        triangles.push_back(b);
        triangles.push_back(c);
        triangles.push_back(0);
    }
};

// The bunny of Debian's glmark2-data (69,666 triangles).
const char* const kBunnyPath = "/usr/share/glmark2/models/bunny.obj";

// Reads an OBJ file; returns false when the file cannot be read or parsed.
bool loadObj(const std::string& path, Mesh& out);

// A square grid of n x n cells in the plane z = 0 spanning [0, size]^2, two
// triangles per cell.
Mesh makeGrid(int n, float size);

// A UV sphere of radius r around (cx, cy, cz) with `rings` x `segments` quads.
Mesh makeSphere(int rings, int segments, float r, float cx = 0, float cy = 0, float cz = 0);

}  // namespace vt

#endif  // VEKR_TESTS_MESH_H
