// Runs one ray through a query twice: alone, as a 1x1 block (the per-ray
// path), and as all sixteen rays of an aligned 4x4 block (the packet path).
// Every one of the sixteen results must equal the single one bit for bit; the
// single result is returned for the rule checks.
#ifndef VEKR_TESTS_QUERY_RUNNER_H
#define VEKR_TESTS_QUERY_RUNNER_H

#include <cstring>
#include <vector>

#include "rt_support.h"
#include "testutil.h"

namespace rt {

// Value that outputs hold before a call, to show what a call left alone.
constexpr float kCanary = -7.25f;

struct NearestOut {
    float dist, w0, w1;
    int32_t tri;
};

enum class Nearest { Eye, PerOrigin };

inline bool sameBits(const void* a, const void* b, std::size_t n) { return std::memcmp(a, b, n) == 0; }

inline NearestOut runNearest(Nearest q, const Scene& s, const float o[3], const float d[3], float limit) {
    NearestOut out[2];
    const int sizes[2] = {1, 4};
    for (int pass = 0; pass < 2; ++pass) {
        const int w = sizes[pass], n = w * w;
        vt::Planes<float> org(n, 0), dir(n, 0);
        vt::Buf<float> dist(n, 0), h0(n, 0), h1(n, 0);
        vt::Buf<int32_t> tri(n, 0);
        for (int i = 0; i < n; ++i) {
            for (int a = 0; a < 3; ++a) {
                org.p[a][i] = o[a];
                dir.p[a][i] = d[a];
            }
            dist[i] = limit;
            h0[i] = kCanary;
            h1[i] = kCanary;
            tri[i] = 12345;
        }
        float* hit[2] = {h0.data(), h1.data()};
        if (q == Nearest::Eye)
            vekrIntersectEyeSO_32f(o, dir.cptrs(), dist.data(), hit, tri.data(), &s.ctx, w, w);
        else
            vekrIntersectMO_32f(org.cptrs(), dir.cptrs(), dist.data(), hit, tri.data(), &s.ctx, w, w);
        out[pass] = NearestOut{dist[0], h0[0], h1[0], tri[0]};
        for (int i = 1; i < n; ++i) {
            const NearestOut other{dist[i], h0[i], h1[i], tri[i]};
            if (!sameBits(&other, &out[pass], sizeof other)) ADD_FAILURE() << "ray " << i << " of the block differs";
        }
    }
    if (!sameBits(&out[0], &out[1], sizeof out[0])) ADD_FAILURE() << "packet path differs from per-ray path";
    return out[0];
}

struct Level {
    float dist, w0, w1;
    int32_t tri;
};

// Levels of the multiple-hit query; every distance entry starts as `limit`
// at level 0 and kCanary elsewhere.
inline std::vector<Level> runMultiple(const Scene& s, const float o[3], const float d[3], float limit, int depth) {
    std::vector<Level> out[2];
    const int sizes[2] = {1, 4};
    for (int pass = 0; pass < 2; ++pass) {
        const int w = sizes[pass], n = w * w;
        vt::Planes<float> dir(n, 0);
        vt::Buf<float> dist(n * depth, 0), h0(n * depth, 0), h1(n * depth, 0);
        vt::Buf<int32_t> tri(n * depth, 0);
        for (int i = 0; i < n * depth; ++i) {
            dist[i] = i < n ? limit : kCanary;
            h0[i] = kCanary;
            h1[i] = kCanary;
            tri[i] = 12345;
        }
        for (int i = 0; i < n; ++i)
            for (int a = 0; a < 3; ++a) dir.p[a][i] = d[a];
        float* hit[2] = {h0.data(), h1.data()};
        vekrIntersectMultipleSO_32f(o, dir.cptrs(), dist.data(), hit, tri.data(), w, w, depth, &s.ctx);
        for (int l = 0; l < depth; ++l) out[pass].push_back(Level{dist[l * n], h0[l * n], h1[l * n], tri[l * n]});
        for (int i = 1; i < n; ++i)
            for (int l = 0; l < depth; ++l) {
                const Level other{dist[l * n + i], h0[l * n + i], h1[l * n + i], tri[l * n + i]};
                if (!sameBits(&other, &out[pass][l], sizeof other))
                    ADD_FAILURE() << "ray " << i << " level " << l << " of the block differs";
            }
    }
    for (int l = 0; l < depth; ++l)
        if (!sameBits(&out[0][l], &out[1][l], sizeof(Level)))
            ADD_FAILURE() << "packet path differs from per-ray path at level " << l;
    return out[0];
}

struct AnyOut {
    int32_t occluder, mask;
};

inline AnyOut runAny(const Scene& s, const float o[3], const float d[3], int32_t mask) {
    AnyOut out[2];
    const int sizes[2] = {1, 4};
    for (int pass = 0; pass < 2; ++pass) {
        const int w = sizes[pass], n = w * w;
        vt::Planes<float> dir(n, 0);
        vt::Buf<int32_t> occ(n, 0), m(n, 0);
        for (int i = 0; i < n; ++i) {
            for (int a = 0; a < 3; ++a) dir.p[a][i] = d[a];
            occ[i] = 12345;
            m[i] = mask;
        }
        vekrIntersectAnySO_32f(o, dir.cptrs(), occ.data(), m.data(), w, w, &s.ctx);
        out[pass] = AnyOut{occ[0], m[0]};
        for (int i = 1; i < n; ++i)
            if (occ[i] != occ[0] || m[i] != m[0]) ADD_FAILURE() << "ray " << i << " of the block differs";
    }
    if (out[0].occluder != out[1].occluder || out[0].mask != out[1].mask)
        ADD_FAILURE() << "packet path differs from per-ray path";
    return out[0];
}

}  // namespace rt

#endif  // VEKR_TESTS_QUERY_RUNNER_H
