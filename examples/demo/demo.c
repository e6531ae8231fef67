/* vekr-demo: prints the library's version record and the scene box of a mesh
 * (the bunny of Debian's glmark2-data unless a path to an OBJ file is given). */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vekcore.h"
#include "vekr.h"

/* Reads the vertex positions ("v x y z" lines) of an OBJ file. */
static float* readObjVertices(const char* path, int* pCount) {
    FILE* f = fopen(path, "r");
    char line[512];
    int n = 0, cap = 1024;
    float* v;
    if (!f) return NULL;
    v = (float*)malloc(sizeof(float) * 3 * cap);
    while (v && fgets(line, sizeof line, f)) {
        float x, y, z;
        if (line[0] != 'v' || line[1] != ' ') continue;
        if (sscanf(line + 2, "%f %f %f", &x, &y, &z) != 3) continue;
        if (n == cap) {
            float* grown = (float*)realloc(v, sizeof(float) * 3 * (cap *= 2));
            if (!grown) { free(v); v = NULL; break; }
            v = grown;
        }
        v[3 * n] = x; v[3 * n + 1] = y; v[3 * n + 2] = z;
        ++n;
    }
    fclose(f);
    *pCount = n;
    return v;
}

int main(int argc, char** argv) {
    const char* path = argc > 1 ? argv[1] : "/usr/share/glmark2/models/bunny.obj";
    const VekLibraryVersion* ver = vekrGetLibVersion();
    VekrBoundBox box;
    int n = 0, threads = 0;
    float* v;
    VekStatus st;

    printf("%s %s (built %s), cpu variant \"%.4s\", version %d.%d.%d.%d\n", ver->name, ver->version,
           ver->buildDate, ver->targetCpu, ver->major, ver->minor, ver->majorBuild, ver->build);
    vekGetNumThreads(&threads);
    printf("threads: %d\n", threads);

    v = readObjVertices(path, &n);
    if (!v || n == 0) {
        fprintf(stderr, "vekr-demo: cannot read vertices from %s\n", path);
        free(v);
        return 1;
    }
    st = vekrSetBoundBox_32f(v, n, &box);
    if (st != vekStatusOk) {
        fprintf(stderr, "vekr-demo: vekrSetBoundBox_32f failed with status %d\n", (int)st);
        free(v);
        return 1;
    }
    printf("%s: %d vertices\n", path, n);
    printf("scene box: min (%.9g, %.9g, %.9g) max (%.9g, %.9g, %.9g)\n", box.minCorner[0], box.minCorner[1],
           box.minCorner[2], box.maxCorner[0], box.maxCorner[1], box.maxCorner[2]);
    free(v);
    return 0;
}
