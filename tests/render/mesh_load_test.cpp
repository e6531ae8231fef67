// Mesh input: every model of glmark2-data loads with its triangles, and
// damaged files give a one-line error, never a crash or a hang (a seeded
// mutation loop over files of several formats; assimp's PLY reader loops
// forever on some of them, which the isolated loader turns into an error).
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "mesh_io.h"

namespace {

const std::string kModels = "/usr/share/glmark2/models/";

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

}  // namespace

TEST(MeshLoad, EveryGlmark2ModelLoads) {
    struct Model {
        const char* name;
        int triangles;  // as the files hold them
    };
    std::vector<Model> models = {{"bunny.obj", 69666}, {"jellyfish.jobj", 4400}};
#ifdef VEKR_RENDER_ASSIMP
    models.insert(models.end(), {{"asteroid-high.3ds", 48000}, {"asteroid-low.3ds", 480}, {"cat.3ds", 14348},
                                 {"cube.3ds", 12}, {"horse.3ds", 7172}});
#endif
    for (const Model& m : models) {
        render::Mesh mesh;
        std::string error;
        ASSERT_TRUE(render::loadMesh(kModels + m.name, mesh, error)) << m.name << ": " << error;
        EXPECT_EQ(mesh.numTriangles(), m.triangles) << m.name;
        for (int v : mesh.triangles) ASSERT_LT(v, mesh.numVertices()) << m.name;
    }
}

TEST(MeshLoad, MutatedFilesGiveAnErrorOrAMeshNeverACrash) {
    std::vector<std::pair<std::string, std::string>> seeds = {
        {"obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 0 0 1\nf 1 2 3\nf 1 3 4\nf 2 3 4\nf 1 2 4\n"},
        {"stl", "solid t\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\nvertex 0 1 0\nendloop\n"
                "endfacet\nendsolid t\n"},
        {"ply", "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\nproperty float z\n"
                "element face 1\nproperty list uchar int vertex_indices\nend_header\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n"},
        {"jobj", "v 0 0 0\nv 1 0 0\nv 0 1 0\ni 0\ni 1\ni 2\n"},
        {"3ds", readFile(kModels + "cube.3ds")},
    };
    std::mt19937 rng(19);
    const std::string path = ::testing::TempDir() + "vekr_mutant.";
    int loaded = 0, refused = 0;
    for (const auto& seed : seeds) {
        for (int round = 0; round < 60; ++round) {
            std::string data = seed.second;
            const int edits = 1 + static_cast<int>(rng() % 6);
            for (int e = 0; e < edits && !data.empty(); ++e) {
                std::size_t at = rng() % data.size();
                switch (rng() % 4) {
                    case 0: data[at] = static_cast<char>(rng()); break;                  // flip a byte
                    case 1: data.resize(at); break;                                    // truncate
                    case 2: data.insert(at, 1 + rng() % 8, static_cast<char>(rng())); break;  // insert
                    default: data.insert(at, data.substr(rng() % data.size(), 1 + rng() % 16));  // repeat a piece
                }
            }
            const std::string file = path + seed.first;
            std::ofstream(file, std::ios::binary) << data;
            render::Mesh mesh;
            std::string error;
            // Some mutants send the reader into a loop; each costs the
            // timeout, and a file this small loads in milliseconds.
            if (render::loadMeshIsolated(file, mesh, error, 1)) {
                ++loaded;
                ASSERT_GT(mesh.numTriangles(), 0);
                for (int v : mesh.triangles) ASSERT_LT(v, mesh.numVertices());
            } else {
                ++refused;
                EXPECT_FALSE(error.empty());
                EXPECT_EQ(error.find('\n'), std::string::npos) << error;
            }
        }
    }
    EXPECT_GT(refused, 0);
    EXPECT_GT(loaded, 0);
}
