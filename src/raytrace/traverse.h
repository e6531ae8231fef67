// KD-tree traversal core shared by the four intersection queries: lane types
// (one float, or four in an SSE register), ray set-up against the scene box,
// the projected triangle test, leaf decoding, and two walks over the tree: the
// per-ray walk, which defines every result, and a masked packet walk (one to
// four groups of four rays) that reproduces each lane's per-ray walk exactly.
//
// The walk is the classic front-to-back recursive KD-tree traversal with an
// explicit stack (Jansen 1986; see Havran, "Heuristic Ray Shooting
// Algorithms", 2000); the packet form follows Wald et al., "Interactive
// Rendering with Coherent Ray Tracing" (2001), with one change: a lane that
// wants only the far child is deferred rather than dragged along, so that
// every lane visits exactly the leaves, in exactly the order, of its own
// single-ray walk (hit ties between equal t depend on that order).
#ifndef VEKR_RAYTRACE_TRAVERSE_H
#define VEKR_RAYTRACE_TRAVERSE_H

#include <cstddef>
#include <cstdint>

#include "core/lanes.h"

namespace vekr {

// ---------------------------------------------------------------------------
// Constants of the queries
// ---------------------------------------------------------------------------

// A direction component of at most 2^-23 in magnitude is treated as zero.
constexpr float kOwnParallelEps = 1.1920929e-7f;
// Inverses substituted for such components: the nearest-hit and multiple-hit
// queries use 838860800.0 (0x4E480000), the per-origin and any-hit queries
// 83886.08 (0x47A3D70A).
constexpr float kOwnInvParallelEye = 838860800.0f;
constexpr float kOwnInvParallelMO = 83886.08f;
// The box interval is extended by this much at its far end.
constexpr float kOwnIntervalExtension = 0.0001f;
// Split-plane tolerances of the walk: the ordinary one and the wider one of
// the multiple-hit query.
constexpr float kOwnSplitTol = 0.00001f;
constexpr float kOwnSplitTolMultiple = 0.00019f;
// Per-ray stack depth. Every pending entry belongs to an ancestor of the
// current node, so a tree of at most 51 levels (what the builder makes) never
// needs more than 50; the extra room only keeps hand-made deeper trees safe.
constexpr int kOwnStackSize = 64;

// ---------------------------------------------------------------------------
// Lane types: the same expressions instantiated for one ray or four
// ---------------------------------------------------------------------------

// The lane types and their operations (OwnLane1 for one ray, OwnLane4<> for
// four) are the library's common ones from core/lanes.h.


// ---------------------------------------------------------------------------
// Rays and their set-up
// ---------------------------------------------------------------------------

template <class L>
struct OwnRay {
    typename L::F o[3];    // origin
    typename L::F d[3];    // direction
    typename L::F inv[3];  // 1 / direction, or the substitute on a parallel axis
};

// How a query treats the scene box.
enum class OwnBoxMode {
    Eye,        // parallel axes are not narrowed
    PerOrigin,  // a parallel axis rejects a ray whose origin is not strictly inside its slab
    None        // no box: the any-hit query
};

// Computes inv and the per-axis negative-direction flags and narrows
// [tNear, tFar] to the box, axis x, then y, then z. Returns the lanes that
// stay in the box; tFar then carries the interval extension (without a box,
// the caller sets the interval). A lane that
// leaves the box keeps computing in the vector form; its values are unused.
template <class L, OwnBoxMode mode>
inline typename L::M ownSetupRay(const VekrBoundBox* box, OwnRay<L>& r, typename L::F& tNear,
                                 typename L::F& tFar, typename L::M neg[3]) {
    using F = typename L::F;
    using M = typename L::M;
    const float subst = mode == OwnBoxMode::Eye ? kOwnInvParallelEye : kOwnInvParallelMO;
    const F zero = F(0.0f);
    M in = M(true);
    for (int a = 0; a < 3; ++a) {
        const F d = r.d[a];
        const M par = ownAbs(d) <= F(kOwnParallelEps);
        r.inv[a] = ownSelect(par, F(subst), F(1.0f) / d);
        // The any-hit query keeps the sign of a parallel component; the others
        // treat the axis as positive.
        neg[a] = mode == OwnBoxMode::None ? (d < zero) : ownAndNot(d < zero, par);
        if (mode == OwnBoxMode::None) continue;
        const F t1 = (F(box->maxCorner[a]) - r.o[a]) / d;
        const F t2 = (F(box->minCorner[a]) - r.o[a]) / d;
        tNear = ownSelect(par, tNear, ownMax(tNear, ownMin(t1, t2)));
        tFar = ownSelect(par, tFar, ownMin(tFar, ownMax(t1, t2)));
        M miss = ownAndNot(tNear > tFar, par);
        if (mode == OwnBoxMode::PerOrigin) {
            const M inside = ownAnd(F(box->minCorner[a]) < r.o[a], r.o[a] < F(box->maxCorner[a]));
            miss = ownOr(miss, ownAndNot(par, inside));
        }
        in = ownAndNot(in, miss);
    }
    if (mode != OwnBoxMode::None) tFar = tFar + F(kOwnIntervalExtension);
    return in;
}

// Distance from the origin to where the ray leaves the box: per axis the
// larger slab distance (computed with the stored inverse), the smallest of
// the three.
template <class L>
inline typename L::F ownBoxExit(const VekrBoundBox* box, const OwnRay<L>& r) {
    using F = typename L::F;
    F e[3];
    for (int a = 0; a < 3; ++a) {
        const F t1 = (F(box->maxCorner[a]) - r.o[a]) * r.inv[a];
        const F t2 = (F(box->minCorner[a]) - r.o[a]) * r.inv[a];
        e[a] = ownMax(t1, t2);
    }
    return ownMin(ownMin(e[0], e[1]), e[2]);
}

// ---------------------------------------------------------------------------
// Triangle test
// ---------------------------------------------------------------------------

template <class L>
struct OwnTriTerms {
    typename L::F det, num, t, b, g;
    typename L::M inside;
};

// The projected test: the plane and edge terms of the record against the ray,
// in this exact evaluation order (both paths round identically). inside is set
// where the hit lies in the triangle or on its border, for either winding.
// The terms of the test that depend on the origin only: rays that share their
// origin share them (the tile walk computes them once per triangle).
template <class L>
struct OwnTriOrigin {
    typename L::F pu, pv, num;
};

// The projection axes of a record (k the dropped axis, u and v the kept
// ones) as byte offsets into a ray's per-axis arrays. Decoded once per
// triangle, they address each group's components directly; an axis index
// would be scaled again for every group of a packet.
struct OwnTriAxes {
    std::size_t k, u, v;
    template <class F>
    static OwnTriAxes of(const VekrTriangleAccel& R) {
        const int32_t w0 = R.axisCode;
        return OwnTriAxes{static_cast<std::size_t>((w0 >> 4) & 3) * sizeof(F),
                          static_cast<std::size_t>((w0 >> 2) & 3) * sizeof(F),
                          static_cast<std::size_t>(w0 & 3) * sizeof(F)};
    }
};

template <class F>
inline const F& ownAxisAt(const F (&v)[3], std::size_t offset) {
    return *reinterpret_cast<const F*>(reinterpret_cast<const char*>(v) + offset);
}

template <class L>
inline OwnTriOrigin<L> ownTriangleOrigin(const VekrTriangleAccel& R, const OwnTriAxes& ax, const OwnRay<L>& r) {
    using F = typename L::F;
    const F pu = F(R.vertexU) - ownAxisAt(r.o, ax.u);
    const F pv = F(R.vertexV) - ownAxisAt(r.o, ax.v);
    const F num = F(R.vertexK) + F(R.normalU) * pu + F(R.normalV) * pv - ownAxisAt(r.o, ax.k);
    return OwnTriOrigin<L>{pu, pv, num};
}

// All terms but the distance t = num / det, which only matters where the hit
// lies inside (every query rejects the other lanes first), so the packet
// walk divides only when some active lane is inside.
template <class L>
inline void ownTriangleInside(const VekrTriangleAccel& R, const OwnTriAxes& ax, const OwnRay<L>& r,
                              const OwnTriOrigin<L>& po, OwnTriTerms<L>& out) {
    using F = typename L::F;
    const F r1 = F(R.normalU), r3 = F(R.normalV);
    const F du = ownAxisAt(r.d, ax.u), dv = ownAxisAt(r.d, ax.v);
    const F det = r1 * du + r3 * dv + ownAxisAt(r.d, ax.k);
    const F pu = po.pu, pv = po.pv, num = po.num;
    const F qu = du * num - pu * det;
    const F qv = dv * num - pv * det;
    const F b = F(R.edge2V) * qu - F(R.edge2U) * qv;
    const F g = F(R.edge1U) * qv - F(R.edge1V) * qu;
    const F a = det - b - g;
    const F zero = F(0.0f);
    out.inside = ownAnd(ownAnd(b * a >= zero, b * g >= zero), a * g >= zero);
    out.det = det;
    out.num = num;
    out.b = b;
    out.g = g;
}

// The whole test for one ray (the per-ray walk).
template <class L>
inline void ownTriangleTest(const VekrTriangleAccel& R, const OwnRay<L>& r, OwnTriTerms<L>& out) {
    const OwnTriAxes ax = OwnTriAxes::of<typename L::F>(R);
    ownTriangleInside(R, ax, r, ownTriangleOrigin(R, ax, r), out);
    out.t = out.num / out.det;
}

// ---------------------------------------------------------------------------
// Tree nodes
// ---------------------------------------------------------------------------

inline const VekrKDTreeNode* ownChildPair(const VekrKDTreeNode* node, int32_t link) {
    return reinterpret_cast<const VekrKDTreeNode*>(reinterpret_cast<const char*>(node) + (link & ~3));
}

// The triangle indices of a leaf in stored order: count of them at the
// returned pointer. A list leaf's indices follow at (node - link) and are read
// in place; a packed leaf holds one index in link, two as (value, link), or
// three as mid in value and the distances to lo and hi in link, tested as lo,
// mid, hi, and these are written to packed.
inline const int32_t* ownLeafTriangles(const VekrKDTreeNode* leaf, int32_t packed[3], uint32_t& count) {
    const uint32_t link = static_cast<uint32_t>(leaf->link);
    const uint32_t value = static_cast<uint32_t>(leaf->value);
    if ((value & 0x80000000u) == 0) {
        count = value;
        return reinterpret_cast<const int32_t*>(reinterpret_cast<const char*>(leaf) - static_cast<int32_t>(link));
    }
    const int32_t mid = static_cast<int32_t>((value & 0x7FFFFFFFu) >> 2);
    count = value & 3u;
    switch (count) {
    case 1:
        packed[0] = static_cast<int32_t>(link & 0x7FFFFFFFu);
        break;
    case 2:
        packed[0] = mid;
        packed[1] = static_cast<int32_t>(link & 0x7FFFFFFFu);
        break;
    case 3:
        packed[0] = mid - static_cast<int32_t>((link >> 16) & 0x7FFFu);
        packed[1] = mid;
        packed[2] = mid + static_cast<int32_t>(link & 0xFFFFu);
        break;
    default:
        break;
    }
    return packed;
}

// Calls fn(j) for each triangle index of a leaf in stored order until fn
// returns true. fn has one call site, so the walks get it inlined.
template <class Fn>
inline void ownForEachLeafTriangle(const VekrKDTreeNode* leaf, Fn&& fn) {
    int32_t packed[3];
    uint32_t count;
    const int32_t* list = ownLeafTriangles(leaf, packed, count);
    for (uint32_t n = 0; n < count; ++n)
        if (fn(list[n])) return;
}

// ---------------------------------------------------------------------------
// Walks
// ---------------------------------------------------------------------------
//
// A query policy P (instantiated for OwnLane1 or OwnLane4) supplies:
//   static constexpr float kSplitTol      the split-plane tolerance;
//   F bound() const                       the early-end limit (current hit distance);
//   M consider(j, R, active, terms)       applies its rules to a tested
//                                         triangle, records hits, and returns
//                                         the lanes that are finished for good;
//   bool skip(j, R) const                 true for triangles the query never tests.

// The per-ray walk: this defines the results.
template <class P>
inline void ownWalk1(const VekrKDTreeNode* root, const VekrTriangleAccel* accel, const OwnRay<OwnLane1>& r,
                     const int sign[3], float tNear, float tFar, P& p) {
    struct Entry {
        const VekrKDTreeNode* node;
        float tFar;
    };
    Entry stack[kOwnStackSize];
    int top = 0;
    const VekrKDTreeNode* node = root;
    for (;;) {
        // Descend front to back to a leaf.
        int32_t link = node->link;
        while (link >= 0) {
            const int axis = link & 3;
            const VekrKDTreeNode* pair = ownChildPair(node, link);
            const float t = (ownBitsFloat(static_cast<uint32_t>(node->value)) - r.o[axis]) * r.inv[axis];
            const VekrKDTreeNode* nearChild = pair + sign[axis];
            const VekrKDTreeNode* farChild = pair + (sign[axis] ^ 1);
            if (tNear - t > P::kSplitTol) {
                node = farChild;  // the whole interval lies beyond the plane
            } else {
                if (!(t - tFar > P::kSplitTol)) {  // the plane lies inside the interval
                    if (top < kOwnStackSize) stack[top++] = Entry{farChild, tFar};
                    tFar = ownMax(tNear, ownMin(t, tFar));
                }
                node = nearChild;
            }
            link = node->link;
        }

        // Test the leaf's triangles in stored order.
        bool finished = false;
        ownForEachLeafTriangle(node, [&](int32_t j) {
            const VekrTriangleAccel& R = accel[j];
            if (p.skip(j, R)) return false;
            OwnTriTerms<OwnLane1> terms;
            ownTriangleTest(R, r, terms);
            finished = p.consider(j, true, terms);
            return finished;
        });
        if (finished || top == 0) return;
        // No later cell can hold a nearer hit once the processed interval
        // reaches the current hit distance.
        if (tFar >= p.bound()) return;
        tNear = tFar;
        --top;
        node = stack[top].node;
        tFar = stack[top].tFar;
    }
}

// The lane bits of a tile's G masks: bit 4g + l from lane l of mask g.
template <int G>
inline int ownTileMask(const OwnM4* m) {
    static_assert(G == 1 || G == 2 || G == 4, "tiles of one, two or four groups");
    if (G == 1) return ownMoveMask(m[0]);
    if (G == 2) return ownMoveMask8(m[0], m[1]);
    return ownMoveMask16(m[0], m[1], m[2], m[3]);
}

// The packet walk: G groups of four rays (lane 4g + l is lane l of group g)
// walked as one packet of 4G lanes whose direction signs agree on every axis
// (so the near child is the same for all lanes). Each lane's state (tNear,
// tFar, hits) changes only while the lane is active, and a lane is active
// exactly at the nodes its single-ray walk visits, in the same depth-first
// order:
//  - lanes that want only the far child are deferred on the stack with their
//    state untouched, while the others go on into the near child;
//  - lanes that want both push the far child (the single-ray stack entry) and
//    narrow tFar;
//  - after a leaf, each active lane applies the single-ray end tests, setting
//    tNear = tFar if it goes on; its next single-ray pop is the topmost packet
//    entry that holds it, which is where the packet resumes it.
// While a lane is active, every entry holding it is one it pushed (a deferred
// lane is inactive until its entry comes up), so the entries holding a lane
// are exactly its single-ray stack: a lane whose stack is empty after a leaf
// appears in no entry and is never resumed, with no bookkeeping needed.
// `alive` holds the lanes to walk; lanes outside it are never touched, so a
// tile whose rays point into several octants is walked once per octant.
//
// A node's record and a triangle's accelerator record are read once for the
// whole packet, and a group without active lanes is skipped at every triangle.
// p[g] holds the query state of group g. With sharedOrigin, all rays start at
// one point and the terms that depend on the origin alone (the split plane's
// offset, the triangle's plane terms) are computed once per packet.
// The loops over the groups are unrolled (GCC keeps them rolled at -O2): with
// g a constant, the lane bits shift by constants and a group's values are
// addressed directly instead of through an index register, which takes 12% to
// 19% of the instructions off every query on both targets. The lane bits of a
// node's two decisions come from one packed movemask each (3% fewer
// instructions than a movemask and shift per group). Group state changes by
// lane-mask selects without branching on the mask's value, not even on an
// empty one (a select by an empty mask keeps the value): on the incoherent
// reflection rays such branches mispredict, and dropping them made every
// query 6% to 13% faster on both targets although it adds instructions. A
// test for an all-lanes mask, likewise, saved instructions on coherent rays
// but cost 4% (shadow) and 7% (reflection) in time.
template <int G, bool sharedOrigin, class P>
inline void ownWalkTile(const VekrKDTreeNode* root, const VekrTriangleAccel* accel, const OwnRay<OwnLane4<>>* r,
                        const int sign[3], OwnF4* tNear, OwnF4* tFar, int alive, P* p) {
    struct Entry {
        OwnF4 tFar[G];
        const VekrKDTreeNode* node;
        int lanes;   // lanes resumed here
        int pushed;  // of those, lanes whose single-ray walk pushed this entry
    };
    Entry stack[kOwnStackSize];
    int top = 0;
    const OwnF4 tol = OwnF4(P::kSplitTol);
    int active = alive;
    const VekrKDTreeNode* node = root;
    for (;;) {
        int32_t link = node->link;
        while (link >= 0) {
            const int axis = link & 3;
            const VekrKDTreeNode* pair = ownChildPair(node, link);
            const OwnF4 split = OwnF4(ownBitsFloat(static_cast<uint32_t>(node->value)));
            OwnF4 t[G];
            OwnM4 m[G];
            const OwnF4 offset0 = split - r[0].o[axis];
#pragma GCC unroll 4
            for (int g = 0; g < G; ++g) {
                t[g] = (sharedOrigin ? offset0 : split - r[g].o[axis]) * r[g].inv[axis];
                m[g] = tNear[g] - t[g] > tol;
            }
            const VekrKDTreeNode* nearChild = pair + sign[axis];
            const VekrKDTreeNode* farChild = pair + (sign[axis] ^ 1);
            const int farOnly = ownTileMask<G>(m) & active;
            const int nearLanes = active & ~farOnly;
            if (nearLanes == 0) {
                node = farChild;
            } else {
#pragma GCC unroll 4
                for (int g = 0; g < G; ++g) m[g] = t[g] - tFar[g] > tol;
                const int bothSides = nearLanes & ~ownTileMask<G>(m);
                if (bothSides | farOnly) {
                    if (top < kOwnStackSize) {
                        Entry& e = stack[top++];
#pragma GCC unroll 4
                        for (int g = 0; g < G; ++g) e.tFar[g] = tFar[g];
                        e.node = farChild;
                        e.lanes = bothSides | farOnly;
                        e.pushed = bothSides;
                    }
#pragma GCC unroll 4
                    for (int g = 0; g < G; ++g) {
                        const int b = (bothSides >> (4 * g)) & 15;
                        tFar[g] = ownSelect(ownLaneMask(b), ownMax(tNear[g], ownMin(t[g], tFar[g])), tFar[g]);
                    }
                }
                active = nearLanes;
                node = nearChild;
            }
            link = node->link;
        }

        int done = 0;
        ownForEachLeafTriangle(node, [&](int32_t j) {
            const VekrTriangleAccel& R = accel[j];
            if (p[0].skip(j, R)) return false;
            const int open = active & ~done;
            const OwnTriAxes ax = OwnTriAxes::of<OwnF4>(R);
            OwnTriOrigin<OwnLane4<>> po0;
            if (sharedOrigin) po0 = ownTriangleOrigin(R, ax, r[0]);
#pragma GCC unroll 4
            for (int g = 0; g < G; ++g) {
                const int lanes = (open >> (4 * g)) & 15;
                if (!lanes) continue;
                OwnTriTerms<OwnLane4<>> terms;
                ownTriangleInside(R, ax, r[g], sharedOrigin ? po0 : ownTriangleOrigin(R, ax, r[g]), terms);
                if (!(ownMoveMask(terms.inside) & lanes)) continue;
                terms.t = terms.num / terms.det;
                done |= ownMoveMask(p[g].consider(j, ownLaneMask(lanes), terms)) << (4 * g);
            }
            return (active & ~done) == 0;
        });
        alive &= ~done;
        active &= ~done;
#pragma GCC unroll 4
        for (int g = 0; g < G; ++g) {
            const int a = (active >> (4 * g)) & 15;
            // Lanes whose processed interval reaches their hit distance are done.
            const int fin = a & ownMoveMask(tFar[g] >= p[g].bound());
            alive &= ~(fin << (4 * g));
            tNear[g] = ownSelect(ownLaneMask(a & ~fin), tFar[g], tNear[g]);
        }
        for (;;) {
            if (top == 0) return;
            const Entry& e = stack[--top];
            active = e.lanes & alive;
            if (active) {
                const int pushed = e.pushed & active;
#pragma GCC unroll 4
                for (int g = 0; g < G; ++g) {
                    const int m = (pushed >> (4 * g)) & 15;
                    tFar[g] = ownSelect(ownLaneMask(m), e.tFar[g], tFar[g]);
                }
                node = e.node;
                break;
            }
        }
    }
}

// The lanes of `rest` whose direction signs agree with those of its lowest
// lane (negBits[a]: the lanes with a negative direction on axis a), and those
// signs.
inline int ownOctantLanes(const int negBits[3], int rest, int sign[3]) {
    const int first = rest & -rest;
    int lanes = rest;
    for (int a = 0; a < 3; ++a) {
        sign[a] = (negBits[a] & first) != 0;
        lanes &= sign[a] ? negBits[a] : ~negBits[a];
    }
    return lanes;
}

}  // namespace vekr

#endif  // VEKR_RAYTRACE_TRAVERSE_H
