// Internal interface of the surface-area split search: the working triangle
// entry that the build driver keeps per node, the sorted event lists that
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

// Candidate events of one node along one axis, in one list sorted ascending
// as 64-bit items: the coordinate's sort key in the upper 32 bits, then the
// event's kind in bits 31..30, then the index of the entry in the node in
// bits 29..0. A triangle with extent along the axis gives an end and a start
// event; one flat in the axis gives one planar event. The kinds are ordered
// end < planar < start, so at equal coordinates the ends come first; ties of
// kind go by entry index, a total order. One list per axis keeps the sweep a
// single pass without a merge, and the filtering of a split to one array.
struct OwnAxisEvents {
    const std::uint64_t* pItems;  // 2 * numExtended + numPlanar items
    int numExtended;              // triangles with extent along the axis
    int numPlanar;                // triangles flat in the axis
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
// axes' event lists). Returns true and fills *pSplit when the node is to
// be split; false when it stays a leaf.
bool ownFindSplit(int n, const float lo[3], const float hi[3], float costFactor, const OwnAxisEvents events[3],
                  OwnSplit* pSplit);

// Storage of the event lists of every pending node. The lists of a node
// whose entries occupy [base, base + n) of the entry area lie in
// [2 * base, 2 * base + 2 * n) of the item array of their buffer and axis
// (a node's list has at most two items per entry), so the lists follow
// their entries through the build's stack discipline. A split writes its
// children's lists into the other buffer: every pending node lies below
// `base` in both, so the parent's lists can be read while the children's
// are written, in one pass. The scratch arrays hold two items per triangle
// and one more (room for a sentinel behind a sorted run).
struct OwnEventStore {
    std::uint64_t* pItems[2][3];  // [buffer][axis]
    std::uint64_t* pScratch[3];   // items being sorted (lower, upper) and the sort's buffer
    // Per straddling parent entry, in parent order: its index in the lower
    // child and in the upper child.
    std::int32_t* pLowerIndex;
    std::int32_t* pUpperIndex;
    // Per parent entry on one side only: its index in that child, with bit 30
    // set for the upper child; -1 for an entry that goes to both.
    std::int32_t* pSide;
};

// The event lists of the root's n entries, in buffer 0; *numExtended
// receives, per axis, the number of triangles with extent along it.
void ownEventsInit(const OwnEventStore& st, const OwnTriEntry* pEntries, int n, int numExtended[3]);

// The event lists of both children after a split of the node at `base`
// with n entries whose lists are in `buffer`; the children's go to the other
// buffer. pEntries points to the children's entries (lower first, then
// upper, from `base`); pSide maps the parent's entries, and pLowerIndex and
// pUpperIndex its numStraddlers straddling ones. Items of triangles wholly
// on one side keep their order (their extents are unchanged); the re-trimmed
// straddling triangles are sorted apart and merged in, so no node's lists
// are ever sorted from scratch (Wald and Havran 2006). lowerExtended and
// upperExtended receive, per axis, the children's triangles with extent.
void ownEventsSplit(const OwnEventStore& st, int buffer, std::int64_t base, int n, const int numExtended[3],
                    const OwnTriEntry* pEntries, int numLower, int numStraddlers, int lowerExtended[3],
                    int upperExtended[3]);

// The sweep of an axis without planar triangles over its 2m sorted events
// (items from ownEventItem), by the plain rule (vector = false) or four
// events at a time: the cheapest sum of count * (width + K) over the
// children, its position and the child counts there. The build takes the
// vector form wherever m >= 2; the tests hold the two to the same bits.
struct OwnSweep {
    double sum;
    float pos;
    int numLower;
    int numUpper;
};
std::uint64_t ownEventItem(float f, bool start, int index);
OwnSweep ownSweepWithoutPlanar(const std::uint64_t* items, int m, float la, float ha, double K, bool vector);

}  // namespace vekr

#endif  // VEKR_SCENE_SAH_SPLIT_H
