// Minimal OBJ reader and generated meshes for tests and benchmarks.
#include "mesh.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vt {

bool loadObj(const std::string& path, Mesh& out) {
    FILE* f = std::fopen(path.c_str(), "r");
    if (!f) return false;
    out = Mesh();
    char line[1024];
    bool ok = true;
    while (ok && std::fgets(line, sizeof line, f)) {
        if (line[0] == 'v' && line[1] == ' ') {
            float x, y, z;
            if (std::sscanf(line + 2, "%f %f %f", &x, &y, &z) != 3) ok = false;
            else out.addVertex(x, y, z);
        } else if (line[0] == 'f' && line[1] == ' ') {
            // Face entries are "v", "v/t", "v//n" or "v/t/n"; only v is used.
            std::vector<int> idx;
            char* p = line + 2;
            while (*p) {
                while (*p == ' ' || *p == '\t') ++p;
                if (!*p || *p == '\n' || *p == '\r') break;
                char* end;
                long v = std::strtol(p, &end, 10);
                if (end == p) { ok = false; break; }
                idx.push_back(v > 0 ? static_cast<int>(v - 1) : static_cast<int>(out.numVertices() + v));
                p = end;
                while (*p && *p != ' ' && *p != '\t' && *p != '\n') ++p;
            }
            for (std::size_t k = 2; ok && k < idx.size(); ++k) out.addTriangle(idx[0], idx[k - 1], idx[k]);
        }
    }
    std::fclose(f);
    return ok && out.numTriangles() > 0;
}

Mesh makeGrid(int n, float size) {
    Mesh m;
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i) m.addVertex(size * i / n, size * j / n, 0.0f);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            int a = j * (n + 1) + i, b = a + 1, c = a + n + 1, d = c + 1;
            m.addTriangle(a, b, d);
            m.addTriangle(a, d, c);
        }
    return m;
}

Mesh makeSphere(int rings, int segments, float r, float cx, float cy, float cz) {
    Mesh m;
    const double pi = 3.14159265358979323846;
    for (int j = 0; j <= rings; ++j) {
        double th = pi * j / rings;
        for (int i = 0; i <= segments; ++i) {
            double ph = 2 * pi * i / segments;
            m.addVertex(static_cast<float>(cx + r * std::sin(th) * std::cos(ph)),
                        static_cast<float>(cy + r * std::sin(th) * std::sin(ph)),
                        static_cast<float>(cz + r * std::cos(th)));
        }
    }
    for (int j = 0; j < rings; ++j)
        for (int i = 0; i < segments; ++i) {
            int a = j * (segments + 1) + i, b = a + 1, c = a + segments + 1, d = c + 1;
            if (j != 0) m.addTriangle(a, b, d);
            if (j != rings - 1) m.addTriangle(a, d, c);
        }
    return m;
}

}  // namespace vt
