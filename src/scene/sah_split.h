// Internal interface of the surface-area split search: the working triangle
// entry that the build driver keeps per node, the sorted candidate lists that
// the search sweeps, and the search that decides whether and where a node is
// split.
#ifndef VEKR_SCENE_SAH_SPLIT_H
#define VEKR_SCENE_SAH_SPLIT_H

#include "core/own.h"

namespace vekr {

// A triangle's share of a node: its index (shifted left by 5; the low five
// bits are free for flags) and its extent inside the node's box. Extents never
// hold NaN or -0 (the driver canonicalises them), so their float order equals
// the order of their sort keys.
struct OwnTriEntry {
    std::int32_t tag;
    float lo[3];
    float hi[3];
};

inline int ownEntryTriangle(const OwnTriEntry& e) { return e.tag >> 5; }

// Nodes up to this many triangles are searched on the calling thread; larger
// ones by the parallel search (one axis per iteration of a static split).
constexpr int kSmallNodeLimit = 75;

// Candidate lists of one node along one axis, each sorted ascending by the
// pair (coordinate, index of the entry in the node): a total order, so ties
// go by entry index. Triangles with extent along the axis give a start and an
// end; those flat in the axis give one planar value. The sweep needs only the
// coordinates' sort keys, which are kept apart from the indices.
struct OwnAxisEvents {
    const std::uint32_t* pStart;
    const std::uint32_t* pEnd;
    const std::uint32_t* pPlanar;
    int numExtended;  // items in pStart and in pEnd
    int numPlanar;
};

// The chosen split: axis, position, predicted child counts, and where
// triangles flat in the axis and lying exactly in the plane go (1: upper).
struct OwnSplit {
    int axis;
    float pos;
    int numLower;
    int numUpper;
    int planeSideUpper;
    double cost;
};

// Surface-area search of one node (box lo/hi, n > 0 triangles, its three
// axes' candidate lists). Returns true and fills *pSplit when the node is to
// be split; false when it stays a leaf.
bool ownFindSplit(int n, const float lo[3], const float hi[3], float costFactor, const OwnAxisEvents events[3],
                  OwnSplit* pSplit);

// Storage of the candidate lists of every pending node. The lists of a node
// whose entries occupy [base, base + n) of the entry area lie in the same
// range of the key and index arrays of their buffer and axis (starts, then
// planar values; and the ends), so the lists follow their entries through the
// build's stack discipline. A split writes its children's lists into the
// other buffer: every pending node lies below `base` in both, so the parent's
// lists can be read while the children's are written, in one pass. The
// scratch arrays hold one more item than the largest node (room for a
// sentinel behind a sorted run).
struct OwnEventStore {
    std::uint32_t* pKey[2][3];     // starts, then planar values: sort keys
    std::uint32_t* pIndex[2][3];   // ... and entry indices
    std::uint32_t* pEndKey[2][3];  // ends
    std::uint32_t* pEndIndex[2][3];
    std::uint64_t* pScratch[7];    // (key << 32 | index) items being sorted, plus a sentinel
    // Per straddling parent entry, in parent order: its index in the lower
    // child and in the upper child.
    std::int32_t* pLowerIndex;
    std::int32_t* pUpperIndex;
    // Per parent entry on one side only: its index in that child, with bit 30
    // set for the upper child; -1 for an entry that goes to both.
    std::int32_t* pSide;
};

// The candidate lists of the root's n entries, in buffer 0; *numExtended
// receives, per axis, the number of triangles with extent along it.
void ownEventsInit(const OwnEventStore& st, const OwnTriEntry* pEntries, int n, int numExtended[3]);

// The candidate lists of both children after a split of the node at `base`
// with n entries whose lists are in `buffer`; the children's go to the other
// buffer. pEntries points to the children's entries (lower first, then
// upper, from `base`); pSide maps the parent's entries, and pLowerIndex and
// pUpperIndex its numStraddlers straddling ones. Items of triangles wholly
// on one side keep their order (their extents are unchanged); the re-trimmed
// straddling triangles are sorted apart and merged in, so no node's lists
// are ever sorted from scratch (Wald and Havran 2006).
void ownEventsSplit(const OwnEventStore& st, int buffer, std::int64_t base, int n, const int numExtended[3],
                    const OwnTriEntry* pEntries, int numLower, int numStraddlers, int lowerExtended[3],
                    int upperExtended[3]);

}  // namespace vekr

#endif  // VEKR_SCENE_SAH_SPLIT_H
