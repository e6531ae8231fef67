// Equal-distance ties under the tile walk: a grid of unit cells and an exact
// copy of it in the same plane, so every hit ties between at least two
// triangles (up to twelve at a grid vertex), built with the surface-area
// tree. Which triangle wins depends only on the order in which a ray meets the
// leaves, so the tile path must visit them as the per-ray walk does.
#include "rt_support.h"

namespace {

using rt::Q;

const rt::Scene& twinGrid() {
    static rt::Scene* sc = nullptr;
    if (sc) return *sc;
    sc = new rt::Scene;
    vt::Mesh m = vt::makeGrid(8, 8.0f);
    const int nt = m.numTriangles();
    for (int t = 0; t < nt; ++t) m.addTriangle(m.triangles[4 * t], m.triangles[4 * t + 1], m.triangles[4 * t + 2]);
    sc->setMesh(m);
    VekrKDTreeNode* block = nullptr;
    int size = 0;
    const VekrKDTreeBuildParams params = {vekKDTreeBuildPSAH, 40, 0.5f, 256, nullptr};
    if (vekrKDTreeBuildAlloc(&block, m.vertices.data(), m.triangles.data(), m.numVertices(), m.numTriangles(), &size,
                             &params) == vekStatusOk)
        sc->tree.assign(reinterpret_cast<const int32_t*>(block), reinterpret_cast<const int32_t*>(block) + size / 4);
    vekrKDTreeFree(block);
    return *sc;
}

// Rays from above at grid vertices, edge midpoints and cell centres; most
// 4 x 4 tiles aim into one quadrant around the eye at (4, 4, 5), so the
// single-origin tiles share their signs, while every fourth tile scatters its
// rays over all four quadrants (walked once per quadrant); per-origin rays
// start anywhere above the grid and their tiles mix quadrants as well.
TEST(TilePath, TiesBetweenTwinTrianglesGoAsInThePerRayWalk) {
    const rt::Scene& s = twinGrid();
    ASSERT_FALSE(s.tree.empty());
    for (Q q : {Q::Eye, Q::PerOrigin, Q::Any}) {
        vt::Rng rng(7 + int(q));
        rt::Rays r(16, 16);
        for (int tile = 0; tile < 16; ++tile) {
            for (int k = 0; k < 16; ++k) {
                const int quadrant = tile % 4 == 3 ? rng.below(4) : tile;
                const float qx = quadrant & 1 ? 1.0f : -1.0f, qy = quadrant & 2 ? 1.0f : -1.0f;
                const int i = (4 * (tile / 4) + k / 4) * 16 + 4 * (tile % 4) + k % 4;
                const float tx = 4.0f + qx * 0.5f * float(1 + rng.below(8));
                const float ty = 4.0f + qy * 0.5f * float(1 + rng.below(8));
                const float o[3] = {q == Q::PerOrigin ? float(rng.below(17)) * 0.5f : 4.0f,
                                    q == Q::PerOrigin ? float(rng.below(17)) * 0.5f : 4.0f, 5.0f};
                const float scale = q == Q::Any ? 2.0f : 1.0f;
                const float d[3] = {scale * (tx - o[0]), scale * (ty - o[1]), scale * -5.0f};
                r.set(i, o, d);
            }
        }
        int onEdges = 0;
        EXPECT_TRUE(vt::SameAcrossOffsets([&](std::size_t off) {
            const rt::Out out =
                rt::run(q, s, r, [](int) { return FLT_MAX; }, [](int i) { return i % 9 == 0 ? -1 : 0; }, 1, off);
            // Hits on a shared edge or vertex (a weight exactly 0 or summing
            // to 1) tie with the neighbours as well as with the twin.
            onEdges = 0;
            for (int i = 0; i < r.n(); ++i)
                onEdges += out.tri[i] >= 0 && (q == Q::Any || out.w0[i] == 0.0f || out.w1[i] == 0.0f ||
                                               out.w0[i] + out.w1[i] == 1.0f);
            return out.bytes();
        })) << "query " << int(q);
        EXPECT_GT(onEdges, 64) << "query " << int(q);
    }
}

}  // namespace
