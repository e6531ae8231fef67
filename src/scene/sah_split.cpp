// Surface-area-heuristic split search for the KD-tree build: the cost model,
// the per-axis sweep over sorted triangle extents with its empty-space cuts,
// the choice of axis and the split test (MacDonald and Booth, "Heuristics for
// ray tracing using space subdivision", 1990; Wald and Havran, "On building
// fast kd-trees for ray tracing, and on doing that in O(N log N)", 2006).
#include "scene/sah_split.h"

#include <omp.h>

#include <algorithm>
#include <cmath>

#include "core/lanes.h"

namespace vekr {
namespace {

// Constants of the cost model.
constexpr double kMinSplitGain = 9.999999747378752e-06;  // float 1e-5, widened
constexpr float kFlatExtent = 1e-5f;                     // axes not above it are not searched
constexpr double kAreaTermLimit = 1e-9;                  // below it the in-plane term K is 0
constexpr float kEmptyMargin = 0.1f;                     // gap needed for an empty-space cut
constexpr double kEmptyFactor = 0.699999988079071;       // float 0.7, widened
constexpr int kSortSwitch = 320;                         // above it the radix sort runs
constexpr int kForkLimit = 65536;                        // smaller nodes search on one thread

// Sort keys: unsigned integers in the order of the floats they encode (no NaN
// and no -0 reach here, so equal keys are equal floats and vice versa).
inline std::uint32_t ownKey(float f) {
    std::uint32_t b = ownFloatBits(f);
    return b ^ ((b & 0x80000000u) ? 0xFFFFFFFFu : 0x80000000u);
}
inline float ownKeyFloat(std::uint32_t k) { return ownBitsFloat(k ^ ((k & 0x80000000u) ? 0x80000000u : 0xFFFFFFFFu)); }

// Event items (see OwnAxisEvents): key << 32 | kind << 30 | entry index.
constexpr std::uint32_t kKindEnd = 0u;
constexpr std::uint32_t kKindPlanar = 1u;
constexpr std::uint32_t kKindStart = 2u;
constexpr std::uint32_t kIndexMask = 0x3FFFFFFFu;

inline std::uint64_t ownItem(float f, std::uint32_t kind, int index) {
    return (static_cast<std::uint64_t>(ownKey(f)) << 32) | (kind << 30) | static_cast<std::uint32_t>(index);
}
inline std::uint32_t ownItemKey(std::uint64_t item) { return static_cast<std::uint32_t>(item >> 32); }
inline std::uint32_t ownItemKind(std::uint64_t item) { return static_cast<std::uint32_t>(item) >> 30; }

// Closes a sorted run of straddler items: above every real item (whose key
// encodes no NaN, so stays below 0xFFFFFFFF).
constexpr std::uint64_t kSentinel = ~static_cast<std::uint64_t>(0);

// Ascending sort of n distinct items whose lower 32 bits (kind, then index)
// already ascend (so sorting by key alone with a stable sort gives the item
// order); returns the buffer that holds the result (p or tmp). Short lists
// are placed by counting, middling ones go to std::sort, longer ones to an
// LSD radix sort over the key (three 11-bit digits, stable), which skips
// digits that all keys share. All give the one total order.
std::uint64_t* ownSortItems(std::uint64_t* p, std::uint64_t* tmp, int n) {
    if (n <= 16) {
        // The straddlers of a small node: a few items, often none. Each
        // item's place is the number of items below it (the items are
        // distinct), counted without a branch: the order of a few items is
        // not predictable, and the count costs less than the mispredicted
        // branches of an insertion sort.
        for (int i = 0; i < n; ++i) {
            const std::uint64_t v = p[i];
            int below = 0;
            for (int j = 0; j < n; ++j) below += p[j] < v;
            tmp[below] = v;
        }
        return tmp;
    }
    if (n <= kSortSwitch) {
        std::sort(p, p + n);
        return p;
    }
    std::uint32_t hist[3][2048];
    std::memset(hist, 0, sizeof hist);
    for (int i = 0; i < n; ++i) {
        const std::uint32_t k = ownItemKey(p[i]);
        ++hist[0][k & 2047u];
        ++hist[1][(k >> 11) & 2047u];
        ++hist[2][k >> 22];
    }
    std::uint64_t* src = p;
    std::uint64_t* dst = tmp;
    for (int d = 0; d < 3; ++d) {
        const int shift = 32 + 11 * d;
        std::uint32_t* h = hist[d];
        if (h[(src[0] >> shift) & 2047u] == static_cast<std::uint32_t>(n)) continue;  // one digit value
        std::uint32_t sum = 0;
        for (int b = 0; b < 2048; ++b) {
            std::uint32_t c = h[b];
            h[b] = sum;
            sum += c;
        }
        for (int i = 0; i < n; ++i) {
            const std::uint64_t it = src[i];
            dst[h[(it >> shift) & 2047u]++] = it;
        }
        std::swap(src, dst);
    }
    return src;
}

// Sorts in place (through tmp when the radix sort ends there).
void ownSortItemsInPlace(std::uint64_t* p, std::uint64_t* tmp, int n) {
    std::uint64_t* r = ownSortItems(p, tmp, n);
    if (r != p) std::memcpy(p, r, static_cast<std::size_t>(n) * sizeof *p);
}

// Result of one axis: cost (leafCost when the axis is passed over), split
// position, predicted child counts and plane side. The vector sweep leaves
// the counts to be found for the chosen axis only (numLower = -1).
struct OwnAxisResult {
    double cost;
    float pos;
    int numLower;
    int numUpper;
    int planeSideUpper;
};

// Sum over the two children of count * (width + K) for a plane at x.
inline double ownPrice(float x, float la, float ha, double K, int below, int above) {
    const double wl = static_cast<double>(x - la) + K;
    const double wr = static_cast<double>(ha - x) + K;
    return static_cast<double>(below) * wl + static_cast<double>(above) * wr;
}

// Sweeps every distinct candidate position in ascending order (the events'
// coordinates, the largest end included) and returns the cheapest sum of
// count * (width + K) over the two children. At position x, a triangle
// counts below when it starts strictly below x and above when it ends
// strictly above x. Triangles flat at x are tried on either side, the upper
// side first; a side or position replaces the best only when it is strictly
// cheaper, so the first minimum wins.
// Pricing in-plane triangles on both sides (Wald and Havran's rule) puts
// them where they add the least cost, so a plane through a flat cluster
// (a wall, a floor) can cut it off cleanly from either side; and the largest
// end is a candidate too, so gaps narrower than the empty-space margin can
// still be cut off when that pays.
double ownSweepPlanar(const std::uint64_t* it, int m, int p, float la, float ha, double K, OwnAxisResult* r) {
    const int len = 2 * m + p;
    double best = 0.0;
    bool have = false;
    int starts = 0, ends = 0, planars = 0;  // events before the position
    for (int k = 0; k < len;) {
        const std::uint32_t xk = ownItemKey(it[k]);
        const int below = starts + planars;
        const int planarsBefore = planars;
        for (; k < len && ownItemKey(it[k]) == xk; ++k) {
            const std::uint32_t kind = ownItemKind(it[k]);
            starts += kind == kKindStart;
            ends += kind == kKindEnd;
            planars += kind == kKindPlanar;
        }
        const int onPlane = planars - planarsBefore;
        const int above = (m - ends) + (p - planars);
        const float x = ownKeyFloat(xk);
        const double wl = static_cast<double>(x - la) + K;
        const double wr = static_cast<double>(ha - x) + K;
        double cu = static_cast<double>(below) * wl + static_cast<double>(above + onPlane) * wr;
        int side = 1;
        if (onPlane > 0) {
            const double cl = static_cast<double>(below + onPlane) * wl + static_cast<double>(above) * wr;
            if (cl < cu) {
                cu = cl;
                side = 0;
            }
        }
        if (!have || cu < best) {
            have = true;
            best = cu;
            r->pos = x;
            r->numLower = below + (side == 0 ? onPlane : 0);
            r->numUpper = above + (side == 1 ? onPlane : 0);
            r->planeSideUpper = side;
        }
    }
    return best;
}

// The same sweep for an axis without planar triangles, the common case: the
// 2m events are ends and starts only. The first position is the smallest
// start, with nothing below and everything above.
double ownSweepExtended(const std::uint64_t* it, int m, float la, float ha, double K, OwnAxisResult* r) {
    const int len = 2 * m;
    double best = 0.0;
    bool have = false;
    int starts = 0, ends = 0;  // events before the position
    for (int k = 0; k < len;) {
        const std::uint32_t xk = ownItemKey(it[k]);
        const int below = starts;
        for (; k < len && ownItemKey(it[k]) == xk; ++k) {
            const int start = ownItemKind(it[k]) == kKindStart;
            starts += start;
            ends += 1 - start;
        }
        const double cu = ownPrice(ownKeyFloat(xk), la, ha, K, below, m - ends);
        if (!have || cu < best) {
            have = true;
            best = cu;
            r->pos = ownKeyFloat(xk);
            r->numLower = below;
            r->numUpper = m - ends;
        }
    }
    r->planeSideUpper = 1;
    return best;
}

// The sweep without planar triangles in SSE2, four events per step and
// without a branch on the data. It prices every event rather than every
// distinct position: at the k-th event (0-based) with i starts before it,
// the counts are i below and m - (k + 1 - i - start) above. Within a group
// of equal coordinates the ends come first and then the starts, so these
// counts are exact at the group's first start (or, without starts, its last
// end) and at every other event of the group count a triangle of the group
// on one side too many, which prices at least as high (the widths are not
// negative, and rounding is monotone). So the least price and the first
// position with it are the same as the sweep's over distinct positions; the
// events are compared by (price, k), strict in the price per lane and ties to
// the lower k across lanes. A NaN price (only from infinite box bounds) is
// never taken, as in the scalar sweep; a NaN price of the first event (the
// seed of every lane) is kept, as there. The counts of the position are left
// to ownCountSides (numLower = -1), needed for the chosen axis only.
double ownSweepExtendedSse2(const std::uint64_t* it, int m, float la, float ha, double K, OwnAxisResult* r) {
    const int len = 2 * m;
    const double seed = ownPrice(ownKeyFloat(ownItemKey(it[0])), la, ha, K, 0, m);
    OwnD4 best4(seed);
    // The step (k / 4) of each lane's best. Steps only grow, so taking the
    // current step where it is cheaper is max(at, lt & step).
    OwnD4 at4(0.0);
    OwnD2 stepV(0.0);
    const OwnD2 one(1.0);
    const OwnD4 Kv(K);
    const OwnF4 laV(la), haV(ha);
    const OwnI4 ones(-1), sign(static_cast<int>(0x80000000u));
    OwnI4 before(0);                                    // starts before the step, each lane
    OwnI4 rest = ownSetLanes(m - 1, m - 2, m - 3, m - 4);  // m - 1 - k
    int k = 0;
    for (; k + 4 <= len; k += 4) {
        const OwnF4 a = ownAsF4(ownLoadU(reinterpret_cast<const std::int32_t*>(it + k)));
        const OwnF4 b = ownAsF4(ownLoadU(reinterpret_cast<const std::int32_t*>(it + k + 2)));
        const OwnI4 keys = ownAsI4(ownOddLanes(a, b));
        const OwnI4 low = ownAsI4(ownEvenLanes(a, b));
        // Starts up to and including each event (a prefix sum over the lanes).
        const OwnI4 start = ownShiftRight<31>(low);
        OwnI4 upTo = start + ownShiftLanesUp<1>(start);
        upTo = upTo + ownShiftLanesUp<2>(upTo);
        upTo = upTo + before;
        const OwnI4 below = upTo - start;
        const OwnI4 above = upTo + rest;
        before = ownBroadcastLane<3>(upTo);
        rest = rest - OwnI4(4);
        // Keys back to floats (the inverse of ownKey), then the prices as in
        // ownPrice, two events per register.
        const OwnI4 flip = ownAndNot(ones, ownShiftRightArith<31>(keys)) | sign;
        const OwnF4 x = ownAsF4(keys ^ flip);
        const OwnD4 wl = ownWiden(x - laV) + Kv, wr = ownWiden(haV - x) + Kv;
        const OwnD4 c = ownToDouble(below) * wl + ownToDouble(above) * wr;
        // Per lane: take the event when strictly cheaper (ownMin(c, best) is
        // c < best ? c : best, NaN included).
        const OwnMD4 lt = c < best4;
        best4 = ownMin(c, best4);
        at4 = ownMax(at4, ownKeep(lt, ownBroadcast(stepV)));
        stepV = stepV + one;
    }
    // The least (price, k) of the four lanes, without a branch: lanes are
    // compared by price, then by event index k = 4 * step + lane. The last
    // comparison uses lane 0 only.
    const OwnD2 four(4.0);
    OwnD2 bestLo = ownLowPair(best4);
    const OwnD2 bestHi = ownHighPair(best4);
    OwnD2 kLo = ownLowPair(at4) * four + ownSetLanes(0.0, 1.0);
    const OwnD2 kHi = ownHighPair(at4) * four + ownSetLanes(2.0, 3.0);
    OwnMD2 takeHi = ownOr(bestHi < bestLo, ownAnd(bestHi == bestLo, kHi < kLo));
    bestLo = ownSelect(takeHi, bestHi, bestLo);
    kLo = ownSelect(takeHi, kHi, kLo);
    const OwnD2 best1 = ownInterleaveHi(bestLo, bestLo), k1 = ownInterleaveHi(kLo, kLo);
    takeHi = ownOr(best1 < bestLo, ownAnd(best1 == bestLo, k1 < kLo));
    double best = ownLane0(ownSelect(takeHi, best1, bestLo));
    int at = static_cast<int>(ownLane0(ownSelect(takeHi, k1, kLo)));
    // The last events (fewer than four), later than every lane's.
    int starts = ownLane0(before);
    for (; k < len; ++k) {
        const int start = ownItemKind(it[k]) == kKindStart;
        const double c = ownPrice(ownKeyFloat(ownItemKey(it[k])), la, ha, K, starts, m - (k + 1 - starts - start));
        if (c < best) {
            best = c;
            at = k;
        }
        starts += start;
    }
    r->pos = ownKeyFloat(ownItemKey(it[at]));
    r->numLower = -1;
    r->numUpper = -1;
    r->planeSideUpper = 1;
    return best;
}

// The counts of a position found by the vector sweep (an axis without
// planar triangles): triangles starting strictly below it, ending strictly
// above it.
void ownCountSides(const OwnAxisEvents& ev, float pos, int* pLower, int* pUpper) {
    const std::uint32_t key = ownKey(pos);
    const std::uint64_t* it = ev.pItems;
    const int len = 2 * ev.numExtended;
    int lower = 0, endsUpTo = 0;
    for (int k = 0; k < len && ownItemKey(it[k]) <= key; ++k) {
        const int start = ownItemKind(it[k]) == kKindStart;
        lower += start & (ownItemKey(it[k]) < key);
        endsUpTo += 1 - start;
    }
    *pLower = lower;
    *pUpper = ev.numExtended - endsUpTo;
}

// The search along axis a. Costs are written as (eu + ev) times a sum over the
// two children of count * (width + K), which is the children's half surface
// area times their counts (a child of width w has half surface
// w * (eu + ev) + eu * ev = (eu + ev) * (w + K)).
void ownSearchAxis(int a, const float lo[3], const float hi[3], double leafCost, const OwnAxisEvents& ev,
                   OwnAxisResult* r) {
    r->cost = leafCost;
    r->pos = 0.0f;
    r->numLower = 0;
    r->numUpper = 0;
    r->planeSideUpper = 1;

    const float w = hi[a] - lo[a];
    if (!(w > kFlatExtent)) return;
    const int b = a == 0 ? 1 : 0, c = a == 2 ? 1 : 2;
    const float fu = hi[b] - lo[b], fv = hi[c] - lo[c];
    if (!(fu > kFlatExtent) && !(fv > kFlatExtent)) return;
    const double eu = fu, ev2 = fv;
    const double area = eu * ev2;
    const double K = area < kAreaTermLimit ? 0.0 : area / (eu + ev2);

    // The events: ends and starts of the m triangles with extent along a,
    // and the p coordinates of triangles flat in a, all in one sorted list.
    const int m = ev.numExtended, p = ev.numPlanar;
    const std::uint64_t* it = ev.pItems;
    const int len = 2 * m + p;

    // Empty-space cuts: the gap below the first candidate or above the last
    // must exceed a tenth of the node's extent. The first item is the
    // smallest start or planar value (every end lies above its own start),
    // the last the largest end or planar value; without triangles with
    // extent, the node's bounds take the place of the starts and ends.
    const int total = m + p;
    const float fFirst = ownKeyFloat(ownItemKey(it[0])), fLast = ownKeyFloat(ownItemKey(it[len - 1]));
    float first = m > 0 ? fFirst : lo[a];
    float last = m > 0 ? fLast : hi[a];
    if (m == 0) {
        if (fFirst < first) first = fFirst;
        if (fLast > last) last = fLast;
    }
    const float margin = kEmptyMargin * w;
    bool empty = false;
    double cost = 0.0;
    if (first - lo[a] > margin) {
        empty = true;
        cost = static_cast<double>(total) * (static_cast<double>(hi[a] - first) + K);
        r->pos = first;
        r->numLower = 0;
        r->numUpper = total;
        r->planeSideUpper = 1;
    }
    if (hi[a] - last > margin) {
        const double c2 = static_cast<double>(total) * (static_cast<double>(last - lo[a]) + K);
        if (!empty || c2 < cost) {
            cost = c2;
            r->pos = last;
            r->numLower = total;
            r->numUpper = 0;
            // In-plane triangles join the non-empty (lower) side.
            r->planeSideUpper = p > 0 ? 0 : 1;
        }
        empty = true;
    }
    if (empty) {
        r->cost = (eu + ev2) * kEmptyFactor * cost;
        return;
    }

    // One predicate chooses: the vector sweep needs four events (m >= 2) and
    // no planar ones; it finds the same cost and position as the scalar one.
    double sum;
    if (p > 0)
        sum = ownSweepPlanar(it, m, p, lo[a], hi[a], K, r);
    else if (m >= 2)
        sum = ownSweepExtendedSse2(it, m, lo[a], hi[a], K, r);
    else
        sum = ownSweepExtended(it, m, lo[a], hi[a], K, r);
    r->cost = (eu + ev2) * sum;
}

// The three axes of a small node, one after the other on the calling thread.
void ownFindBestSplitSmall(const float lo[3], const float hi[3], double leafCost, const OwnAxisEvents ev[3],
                           OwnAxisResult res[3]) {
    for (int a = 0; a < 3; ++a) ownSearchAxis(a, lo, hi, leafCost, ev[a], &res[a]);
}

// The three axes of a large node in a parallel region. Each axis is searched
// whole by one thread, so the result does not depend on the team size (the
// OpenMP default team: this search does not take the library-wide thread
// count). Forking costs more than sweeping several thousand candidates, so
// nodes below kForkLimit are searched on the calling thread without entering
// the runtime at all (even a region with a team of one makes system calls).
void localFindBestSplitSortSearch_MT(int n, const float lo[3], const float hi[3], double leafCost,
                                     const OwnAxisEvents ev[3], OwnAxisResult res[3]) {
    if (n < kForkLimit || omp_get_max_threads() < 2) {
        for (int a = 0; a < 3; ++a) ownSearchAxis(a, lo, hi, leafCost, ev[a], &res[a]);
        return;
    }
#pragma omp parallel for schedule(static)
    for (int a = 0; a < 3; ++a) ownSearchAxis(a, lo, hi, leafCost, ev[a], &res[a]);
}

// Appends the item of one kind that entry c gives along axis a (if any):
// ends and starts of a triangle with extent, the value of a flat one.
inline void ownPushItem(std::uint64_t* x, int& count, const OwnTriEntry& c, int a, std::uint32_t kind, int index) {
    const float s = c.lo[a], t = c.hi[a];
    if (kind == kKindPlanar) {
        if (s == t) x[count++] = ownItem(s, kind, index);
    } else if (s != t) {
        x[count++] = ownItem(kind == kKindEnd ? t : s, kind, index);
    }
}

// The root's list of one axis: its items made kind by kind, each in entry
// order (so their lower 32 bits ascend), then sorted once.
void ownAxisEventsInit(const OwnEventStore& st, int a, const OwnTriEntry* e, int n, int* numExtended) {
    std::uint64_t* x = st.pScratch[0];
    int len = 0;
    for (std::uint32_t kind : {kKindEnd, kKindPlanar, kKindStart})
        for (int i = 0; i < n; ++i) ownPushItem(x, len, e[i], a, kind, i);
    const std::uint64_t* r = ownSortItems(x, st.pScratch[2], len);
    std::memcpy(st.pItems[0][a], r, static_cast<std::size_t>(len) * sizeof *r);
    *numExtended = len - n;  // 2m + p items for m + p = n triangles
}

// The list of one axis of a split: the parent's list, read once, is filtered
// into the two children's, which lie in the same output array from
// positions `startL` and `startU`. Each item of a one-sided entry is
// renumbered for its child and keeps its place in the order (its extent is
// unchanged); the straddlers' new items (sorted, in `strL` and `strU`, each
// closed by a sentinel) go in front of the first larger item. Without
// straddler items (kMerge = false) the loop is a plain filter.
// Returns the end positions.
template <bool kMerge>
void ownFilterList(const std::uint64_t* in, int len, const std::int32_t* side, const std::uint64_t* strL,
                   const std::uint64_t* strU, std::uint64_t* out, int startL, int startU, int* pEndL, int* pEndU) {
    const std::uint64_t* sL = strL;
    const std::uint64_t* sU = strU;
    // The next straddler item of each side, kept at hand: most items pass
    // with one comparison.
    std::uint64_t nextL = *sL, nextU = *sU;
    int posL = startL, posU = startU;
    for (int k = 0; k < len; ++k) {
        const std::uint64_t it = in[k];
        const std::int32_t code = side[static_cast<std::uint32_t>(it) & kIndexMask];
        if (code < 0) continue;
        const std::uint64_t item = (it & ~static_cast<std::uint64_t>(kIndexMask)) |
                                   static_cast<std::uint32_t>(code & static_cast<std::int32_t>(kIndexMask));
        const int u = code >> 30;
        // Straddler items that sort before this one go first.
        if (kMerge && (u ? nextU : nextL) < item) {
            if (u) {
                for (; *sU < item; ++sU) out[posU++] = *sU;
                nextU = *sU;
            } else {
                for (; *sL < item; ++sL) out[posL++] = *sL;
                nextL = *sL;
            }
        }
        out[u ? posU : posL] = item;
        posU += u;
        posL += 1 - u;
    }
    if (kMerge) {
        for (; *sL != kSentinel; ++sL) out[posL++] = *sL;
        for (; *sU != kSentinel; ++sU) out[posU++] = *sU;
    }
    *pEndL = posL;
    *pEndU = posU;
}

// One axis of a split. The lower child's list goes to [2 * base, ...) of the
// other buffer, the upper child's (whose entries start at base + nl) to
// [2 * (base + nl), ...).
void ownAxisEventsSplit(const OwnEventStore& st, int buffer, int a, std::int64_t base, int n, int m,
                        const OwnTriEntry* e, int nl, int ns, int* pLowerM, int* pUpperM) {
    const std::int32_t* li = st.pLowerIndex;
    const std::int32_t* ui = st.pUpperIndex;
    const int nu = n + ns - nl;

    // The straddlers' new items of each child, made kind by kind in parent
    // order (so their lower 32 bits ascend), then sorted and closed by a
    // sentinel.
    std::uint64_t* xl = st.pScratch[0];
    std::uint64_t* xu = st.pScratch[1];
    int cl = 0, cu = 0;
    for (std::uint32_t kind : {kKindEnd, kKindPlanar, kKindStart})
        for (int i = 0; i < ns; ++i) {
            ownPushItem(xl, cl, e[li[i]], a, kind, li[i]);
            ownPushItem(xu, cu, e[nl + ui[i]], a, kind, ui[i]);
        }
    ownSortItemsInPlace(xl, st.pScratch[2], cl);
    ownSortItemsInPlace(xu, st.pScratch[2], cu);
    xl[cl] = kSentinel;
    xu[cu] = kSentinel;

    const std::uint64_t* in = st.pItems[buffer][a] + 2 * base;
    std::uint64_t* out = st.pItems[buffer ^ 1][a] + 2 * base;
    int endL, endU;
    if (cl == 0 && cu == 0)
        ownFilterList<false>(in, m + n, st.pSide, xl, xu, out, 0, 2 * nl, &endL, &endU);
    else
        ownFilterList<true>(in, m + n, st.pSide, xl, xu, out, 0, 2 * nl, &endL, &endU);
    // A child of c triangles of which m' have extent has 2m' + (c - m') items.
    *pLowerM = endL - nl;
    *pUpperM = endU - 2 * nl - nu;
}

}  // namespace

std::uint64_t ownEventItem(float f, bool start, int index) { return ownItem(f, start ? kKindStart : kKindEnd, index); }

OwnSweep ownSweepWithoutPlanar(const std::uint64_t* items, int m, float la, float ha, double K, bool vector) {
    OwnAxisResult r{};
    OwnSweep out{};
    out.sum = vector ? ownSweepExtendedSse2(items, m, la, ha, K, &r) : ownSweepExtended(items, m, la, ha, K, &r);
    out.pos = r.pos;
    out.numLower = r.numLower;
    out.numUpper = r.numUpper;
    if (vector) ownCountSides(OwnAxisEvents{items, m, 0}, r.pos, &out.numLower, &out.numUpper);
    return out;
}

bool ownFindSplit(int n, const float lo[3], const float hi[3], float costFactor, const OwnAxisEvents events[3],
                  OwnSplit* pSplit) {
    // Leaf cost: half the box surface times the count; the split must gain
    // more than the threshold (at least the minimum gain).
    const double dx = hi[0] - lo[0], dy = hi[1] - lo[1], dz = hi[2] - lo[2];
    const double leafCost = (dx * (dy + dz) + dy * dz) * static_cast<double>(n);
    const double scaled = static_cast<double>(costFactor) * leafCost;
    const double threshold = scaled > kMinSplitGain ? scaled : kMinSplitGain;

    OwnAxisResult res[3];
    if (n <= kSmallNodeLimit)
        ownFindBestSplitSmall(lo, hi, leafCost, events, res);
    else
        localFindBestSplitSortSearch_MT(n, lo, hi, leafCost, events, res);

    // Best axis; ties go to the later axis.
    int best;
    if (res[1].cost > res[0].cost)
        best = res[0].cost < res[2].cost ? 0 : 2;
    else
        best = res[1].cost < res[2].cost ? 1 : 2;

    if (!(static_cast<double>(n) * (leafCost - res[best].cost) > threshold)) return false;
    if (res[best].numLower < 0) ownCountSides(events[best], res[best].pos, &res[best].numLower, &res[best].numUpper);
    pSplit->axis = best;
    pSplit->pos = res[best].pos;
    pSplit->numLower = res[best].numLower;
    pSplit->numUpper = res[best].numUpper;
    pSplit->planeSideUpper = res[best].planeSideUpper;
    pSplit->cost = res[best].cost;
    return true;
}

void ownEventsInit(const OwnEventStore& st, const OwnTriEntry* pEntries, int n, int numExtended[3]) {
    for (int a = 0; a < 3; ++a) ownAxisEventsInit(st, a, pEntries, n, &numExtended[a]);
}

void ownEventsSplit(const OwnEventStore& st, int buffer, std::int64_t base, int n, const int numExtended[3],
                    const OwnTriEntry* pEntries, int numLower, int numStraddlers, int lowerExtended[3],
                    int upperExtended[3]) {
    for (int a = 0; a < 3; ++a)
        ownAxisEventsSplit(st, buffer, a, base, n, numExtended[a], pEntries, numLower, numStraddlers, &lowerExtended[a],
                           &upperExtended[a]);
}

}  // namespace vekr
