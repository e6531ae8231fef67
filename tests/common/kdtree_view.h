// A reader for KD-tree blocks: decodes nodes and leaves, checks every rule of
// the block format, gathers tree statistics (with the surface-area cost), and
// finds the leaves whose cell contains a point. Reads the bytes of a block
// only; never calls the library.
//
//   vt::KDTreeView view(pTree, size);          // size: the reported size
//   EXPECT_TRUE(view.WellFormed(numTriangles));
//   vt::KDTreeStats st = view.stats(sceneBox);
//   for (const vt::KDLeaf& l : view.leavesAt(point, sceneBox)) ... l.triangles ...
#ifndef VEKR_TESTS_KDTREE_VIEW_H
#define VEKR_TESTS_KDTREE_VIEW_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "vekr.h"

namespace vt {

// A leaf found in a walk: its byte offset, depth, cell (the box of the walk's
// root cut by the split planes above it), kind and triangles in leaf order
// (for a packed leaf of two or three: the decoded order, value before link
// for two, ascending for three).
struct KDLeaf {
    std::int64_t offset = 0;
    int depth = 0;
    float lo[3] = {0, 0, 0};
    float hi[3] = {0, 0, 0};
    bool packed = false;
    std::vector<std::int32_t> triangles;
};

struct KDTreeStats {
    std::int64_t innerNodes = 0;
    std::int64_t leaves = 0;
    std::int64_t emptyLeaves = 0;
    std::int64_t packedLeaves = 0;
    std::int64_t listLeaves = 0;
    std::int64_t references = 0;  // triangle entries summed over all leaves
    int maxDepth = 0;             // root = 0
    int maxLeafSize = 0;
    // Surface-area cost relative to the root box: the expected number of
    // inner-node visits plus triangle tests of a random ray through the box,
    // sum over inner nodes of area/rootArea plus sum over leaves of
    // area/rootArea * count (MacDonald and Booth 1990, unit costs).
    double sahCost = 0;
};

class KDTreeView {
public:
    // `block`: the tree block; `reportedSize`: the size the build reported.
    KDTreeView(const void* block, std::int64_t reportedSize)
        : p_(static_cast<const unsigned char*>(block)), size_(reportedSize) {}

    std::int32_t link(std::int64_t off) const { return word(off); }
    std::int32_t value(std::int64_t off) const { return word(off + 4); }
    bool isLeaf(std::int64_t off) const { return (static_cast<std::uint32_t>(link(off)) & 0x80000000u) != 0; }
    int axis(std::int64_t off) const { return link(off) & 3; }
    float split(std::int64_t off) const {
        float f;
        std::int32_t v = value(off);
        std::memcpy(&f, &v, 4);
        return f;
    }
    // Offset of an inner node's child pair (the lower child; the upper is 8 later).
    std::int64_t children(std::int64_t off) const { return off + (link(off) & ~3); }

    // The triangles of a leaf.
    std::vector<std::int32_t> leafTriangles(std::int64_t off, bool* pPacked = nullptr) const {
        const std::uint32_t l = static_cast<std::uint32_t>(link(off)), v = static_cast<std::uint32_t>(value(off));
        std::vector<std::int32_t> out;
        const bool packed = (v & 0x80000000u) != 0;
        if (pPacked) *pPacked = packed;
        if (!packed) {
            const std::int64_t list = off - static_cast<std::int32_t>(l);
            for (std::uint32_t i = 0; i < v; ++i) out.push_back(word(list + 4 * i));
            return out;
        }
        switch (v & 3u) {
            case 1: out.push_back(static_cast<std::int32_t>(l & 0x7FFFFFFFu)); break;
            case 2:
                out.push_back(static_cast<std::int32_t>((v & 0x7FFFFFFFu) >> 2));
                out.push_back(static_cast<std::int32_t>(l & 0x7FFFFFFFu));
                break;
            case 3: {
                const std::int32_t mid = static_cast<std::int32_t>((v & 0x7FFFFFFFu) >> 2);
                out.push_back(mid - static_cast<std::int32_t>((l >> 16) & 0x7FFFu));
                out.push_back(mid);
                out.push_back(mid + static_cast<std::int32_t>(l & 0xFFFFu));
                break;
            }
            default: break;  // a packed leaf with count 0: reported by WellFormed
        }
        return out;
    }

    // True when a leaf of these triangles (in leaf order) must be packed.
    static bool fitsPacked(const std::vector<std::int32_t>& t) {
        const std::int64_t lim29 = std::int64_t(1) << 29;
        if (t.size() == 1) return t[0] >= 0;
        if (t.size() == 2) return t[0] >= 0 && t[1] >= 0 && (t[0] < lim29 || t[1] < lim29);
        if (t.size() == 3) {
            std::vector<std::int32_t> s(t);
            std::sort(s.begin(), s.end());
            return s[0] >= 0 && s[1] < lim29 && s[1] - s[0] < 32768 && s[2] - s[1] < 65536;
        }
        return false;
    }

    // Checks every rule of the format: root slot bytes 8..15 zero; child pairs
    // at positive multiples of 8, reserved in depth-first pre-order directly
    // after the root slot; split axes 0..2 and split values that are numbers;
    // packed leaves exactly when their indices fit, with a valid count; list
    // leaves' lists after all nodes, contiguous, in pre-order of their leaves;
    // the reported size; indices in 0 .. numTriangles-1 (when given) and no
    // index twice in a leaf; depth at most 50.
    ::testing::AssertionResult WellFormed(std::int64_t numTriangles = -1) const {
        std::string err = formatError(numTriangles);
        if (err.empty()) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << err;
    }

    std::string formatError(std::int64_t numTriangles = -1) const {
        if (size_ < 16 || size_ % 4 != 0) return msg("reported size ", size_, " is not 16 + a multiple of 4");
        for (int i = 8; i < 16; ++i)
            if (p_[i] != 0) return msg("root slot byte ", i, " is not zero");
        // Pass 1: count inner nodes in a walk that checks the pair order.
        std::int64_t nextPair = 16, inner = 0;
        std::string err;
        std::vector<std::int64_t> leafOrder;
        if (!walkNodes(0, 0, nextPair, inner, leafOrder, err)) return err;
        const std::int64_t nodesEnd = 16 + 16 * inner;
        if (nextPair != nodesEnd) return msg("pairs end at ", nextPair, ", expected ", nodesEnd);
        // Pass 2: leaves in pre-order; lists follow the nodes back to back.
        std::int64_t listCursor = nodesEnd;
        for (std::int64_t off : leafOrder) {
            const std::uint32_t v = static_cast<std::uint32_t>(value(off));
            bool packed;
            std::vector<std::int32_t> t;
            if (v & 0x80000000u) {
                const std::uint32_t cnt = v & 3u;
                if (cnt == 0) return msg("packed leaf at ", off, " with count 0");
                if (cnt == 1 && v != 0x80000001u) return msg("packed leaf at ", off, ": stray value bits");
                t = leafTriangles(off, &packed);
                if (!fitsPacked(t)) return msg("packed leaf at ", off, " holds indices that do not fit");
            } else {
                const std::int64_t list = off - link(off);
                if (link(off) >= 0) return msg("list leaf at ", off, " with non-negative link");
                if (list != listCursor)
                    return msg("list of leaf at ", off, " starts at ", list, ", expected ", listCursor);
                listCursor += 4 * static_cast<std::int64_t>(v);
                if (listCursor > size_) return msg("list of leaf at ", off, " runs past the reported size");
                t = leafTriangles(off, &packed);
                if (fitsPacked(t)) return msg("list leaf at ", off, " of ", t.size(), " triangles should be packed");
            }
            std::vector<std::int32_t> s(t);
            std::sort(s.begin(), s.end());
            if (std::adjacent_find(s.begin(), s.end()) != s.end())
                return msg("leaf at ", off, " lists triangle ", *std::adjacent_find(s.begin(), s.end()), " twice");
            for (std::int32_t i : t)
                if (i < 0 || (numTriangles >= 0 && i >= numTriangles))
                    return msg("leaf at ", off, " holds index ", i, " out of range");
        }
        if (listCursor != size_) return msg("nodes and lists take ", listCursor, " bytes, reported ", size_);
        return std::string();
    }

    // Every leaf in pre-order, with its cell inside `box`.
    void forEachLeaf(const VekrBoundBox& box, const std::function<void(const KDLeaf&)>& fn) const {
        KDLeaf cell;
        std::copy(box.minCorner, box.minCorner + 3, cell.lo);
        std::copy(box.maxCorner, box.maxCorner + 3, cell.hi);
        visit(0, 0, cell, fn);
    }

    // Statistics of the tree whose root cell is `box`.
    KDTreeStats stats(const VekrBoundBox& box) const {
        KDTreeStats st;
        const double rootArea = halfArea(box.minCorner, box.maxCorner);
        visitAll(0, 0, box.minCorner, box.maxCorner, st, rootArea);
        return st;
    }

    // The leaves whose closed cell contains p: one, or several when p lies on
    // split planes.
    std::vector<KDLeaf> leavesAt(const float p[3], const VekrBoundBox& box) const {
        std::vector<KDLeaf> out;
        KDLeaf cell;
        std::copy(box.minCorner, box.minCorner + 3, cell.lo);
        std::copy(box.maxCorner, box.maxCorner + 3, cell.hi);
        findPoint(0, 0, cell, p, out);
        return out;
    }

private:
    std::int32_t word(std::int64_t off) const {
        std::int32_t w;
        std::memcpy(&w, p_ + off, 4);
        return w;
    }

    template <class... A>
    static std::string msg(const A&... parts) {
        std::ostringstream s;
        (void)std::initializer_list<int>{((s << parts), 0)...};
        return s.str();
    }

    bool walkNodes(std::int64_t off, int depth, std::int64_t& nextPair, std::int64_t& inner,
                   std::vector<std::int64_t>& leaves, std::string& err) const {
        if (off + 8 > size_) {
            err = msg("node at ", off, " lies past the reported size ", size_);
            return false;
        }
        if (isLeaf(off)) {
            leaves.push_back(off);
            return true;
        }
        if (depth >= 50) {
            err = msg("inner node at ", off, " at depth ", depth, ": too deep for a 50-entry stack");
            return false;
        }
        const std::int32_t l = link(off);
        const std::int32_t dist = l & ~3;
        if (axis(off) == 3) return (err = msg("inner node at ", off, " with axis 3")), false;
        if (dist <= 0 || dist % 8 != 0) return (err = msg("inner node at ", off, ": child distance ", dist)), false;
        if (off + dist != nextPair)
            return (err = msg("inner node at ", off, ": children at ", off + dist, ", pre-order puts them at ", nextPair)),
                   false;
        const float s = split(off);
        if (s != s) return (err = msg("inner node at ", off, ": split value is NaN")), false;
        ++inner;
        nextPair += 16;
        return walkNodes(off + dist, depth + 1, nextPair, inner, leaves, err) &&
               walkNodes(off + dist + 8, depth + 1, nextPair, inner, leaves, err);
    }

    static double halfArea(const float* lo, const float* hi) {
        const double dx = double(hi[0]) - lo[0], dy = double(hi[1]) - lo[1], dz = double(hi[2]) - lo[2];
        return dx * (dy + dz) + dy * dz;
    }

    void visit(std::int64_t off, int depth, KDLeaf& cell, const std::function<void(const KDLeaf&)>& fn) const {
        if (isLeaf(off)) {
            cell.offset = off;
            cell.depth = depth;
            cell.triangles = leafTriangles(off, &cell.packed);
            fn(cell);
            return;
        }
        const int a = axis(off);
        const float s = split(off), oldHi = cell.hi[a], oldLo = cell.lo[a];
        cell.hi[a] = s;
        visit(children(off), depth + 1, cell, fn);
        cell.hi[a] = oldHi;
        cell.lo[a] = s;
        visit(children(off) + 8, depth + 1, cell, fn);
        cell.lo[a] = oldLo;
    }

    void visitAll(std::int64_t off, int depth, const float* lo, const float* hi, KDTreeStats& st,
                  double rootArea) const {
        const double rel = rootArea > 0 ? halfArea(lo, hi) / rootArea : 0.0;
        st.maxDepth = std::max(st.maxDepth, depth);
        if (isLeaf(off)) {
            bool packed;
            const std::vector<std::int32_t> t = leafTriangles(off, &packed);
            ++st.leaves;
            st.emptyLeaves += t.empty();
            st.packedLeaves += packed;
            st.listLeaves += !packed;
            st.references += static_cast<std::int64_t>(t.size());
            st.maxLeafSize = std::max(st.maxLeafSize, static_cast<int>(t.size()));
            st.sahCost += rel * static_cast<double>(t.size());
            return;
        }
        ++st.innerNodes;
        st.sahCost += rel;
        const int a = axis(off);
        float l2[3] = {lo[0], lo[1], lo[2]}, h1[3] = {hi[0], hi[1], hi[2]};
        h1[a] = split(off);
        l2[a] = split(off);
        visitAll(children(off), depth + 1, lo, h1, st, rootArea);
        visitAll(children(off) + 8, depth + 1, l2, hi, st, rootArea);
    }

    void findPoint(std::int64_t off, int depth, KDLeaf& cell, const float* p, std::vector<KDLeaf>& out) const {
        if (isLeaf(off)) {
            cell.offset = off;
            cell.depth = depth;
            cell.triangles = leafTriangles(off, &cell.packed);
            out.push_back(cell);
            return;
        }
        const int a = axis(off);
        const float s = split(off), oldHi = cell.hi[a], oldLo = cell.lo[a];
        if (p[a] <= s) {
            cell.hi[a] = s;
            findPoint(children(off), depth + 1, cell, p, out);
            cell.hi[a] = oldHi;
        }
        if (p[a] >= s) {
            cell.lo[a] = s;
            findPoint(children(off) + 8, depth + 1, cell, p, out);
            cell.lo[a] = oldLo;
        }
    }

    const unsigned char* p_;
    std::int64_t size_;
};

}  // namespace vt

#endif  // VEKR_TESTS_KDTREE_VIEW_H
