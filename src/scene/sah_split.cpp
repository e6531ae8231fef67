// Surface-area-heuristic split search for the KD-tree build: the cost model,
// the per-axis sweep over sorted triangle extents with its empty-space cuts,
// the choice of axis and the split test (MacDonald and Booth, "Heuristics for
// ray tracing using space subdivision", 1990; Wald and Havran, "On building
// fast kd-trees for ray tracing, and on doing that in O(N log N)", 2006).
#include <omp.h>

#include <algorithm>
#include <cmath>

#include "scene/sah_split.h"

namespace vekr {
namespace {

// Constants of the cost model.
constexpr double kMinSplitGain = 9.999999747378752e-06;   // float 1e-5, widened
constexpr float kFlatExtent = 1e-5f;                       // axes not above it are not searched
constexpr double kAreaTermLimit = 1e-9;                    // below it the in-plane term K is 0
constexpr float kEmptyMargin = 0.1f;                       // gap needed for an empty-space cut
constexpr double kEmptyFactor = 0.699999988079071;        // float 0.7, widened
constexpr int kSortSwitch = 320;                           // above it the radix sort runs
constexpr int kForkLimit = 65536;                          // smaller nodes search on one thread

// Sort keys: unsigned integers in the order of the floats they encode (no NaN
// and no -0 reach here, so equal keys are equal floats and vice versa).
inline std::uint32_t ownKey(float f) {
    std::uint32_t b = ownFloatBits(f);
    return b ^ ((b & 0x80000000u) ? 0xFFFFFFFFu : 0x80000000u);
}
inline float ownKeyFloat(std::uint32_t k) { return ownBitsFloat(k ^ ((k & 0x80000000u) ? 0x80000000u : 0xFFFFFFFFu)); }

inline std::uint64_t ownItem(float f, int index) {
    return (static_cast<std::uint64_t>(ownKey(f)) << 32) | static_cast<std::uint32_t>(index);
}
inline std::uint32_t ownItemKey(std::uint64_t item) { return static_cast<std::uint32_t>(item >> 32); }

// Closes a sorted run of straddler items: above every real item, whose index
// part stays below 2^30.
constexpr std::uint64_t kSentinel = ~static_cast<std::uint64_t>(0);

// Ascending sort of n items whose indices already ascend (so sorting by key
// alone with a stable sort gives the (key, index) order); returns the buffer
// that holds the result (p or tmp). Short lists go to an insertion sort or
// std::sort, longer ones to an LSD radix sort over the key (three 11-bit
// digits, stable), which skips digits that all keys share. All give the one
// total order.
std::uint64_t* ownSortItems(std::uint64_t* p, std::uint64_t* tmp, int n) {
    if (n <= 16) {
        // The straddlers of a small node: a few items, often none; a plain
        // insertion sort without the call and set-up of the general sort.
        for (int i = 1; i < n; ++i) {
            const std::uint64_t v = p[i];
            int j = i;
            for (; j > 0 && p[j - 1] > v; --j) p[j] = p[j - 1];
            p[j] = v;
        }
        return p;
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
// position, predicted child counts and plane side.
struct OwnAxisResult {
    double cost;
    float pos;
    int numLower;
    int numUpper;
    int planeSideUpper;
};

// Sweeps every distinct candidate position in ascending order (the merged
// start, end and planar lists, the largest end included) and returns the
// cheapest sum of count * (width + K) over the two children. At position x,
// a triangle counts below when it starts strictly below x and above when it
// ends strictly above x. Triangles flat at x are tried on either side, the
// upper side first; a side or position replaces the best only when it is
// strictly cheaper, so the first minimum wins.
// Pricing in-plane triangles on both sides (Wald and Havran's rule) puts
// them where they add the least cost, so a plane through a flat cluster
// (a wall, a floor) can cut it off cleanly from either side; and the largest
// end is a candidate too, so gaps narrower than the empty-space margin can
// still be cut off when that pays.
double ownSweepPlanar(const std::uint32_t* S, const std::uint32_t* E, const std::uint32_t* P, int m, int p, float la,
                      float ha, double K, OwnAxisResult* r) {
    double best = 0.0;
    bool have = false;
    int i = 0, j = 0, k = 0;
    // Every end lies above its own start, so the loop ends with the last end
    // (or the last planar value).
    while (j < m || k < p) {
        std::uint32_t xk = i < m ? S[i] : 0xFFFFFFFFu;
        if (j < m && E[j] < xk) xk = E[j];
        if (k < p && P[k] < xk) xk = P[k];
        // Everything before i, j, k lies strictly below x.
        const int below = i + k;
        while (i < m && S[i] == xk) ++i;
        while (j < m && E[j] == xk) ++j;
        const int k0 = k;
        while (k < p && P[k] == xk) ++k;
        const int onPlane = k - k0;
        const int above = (m - j) + (p - k);
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

// The same sweep for an axis without planar triangles, the common case, in
// two phases. While starts remain, the next position is the smaller of the
// next start and the next end; some triangle then still starts at or above
// the position and so ends above it, which bounds the skip over equal ends
// without a count check. After the last start only ends remain, and every
// triangle counts below. The first position is the smallest start, with
// nothing below and everything above: it seeds the best, so the loops need
// no "first candidate" test (seen again there, it prices the same and is
// not strictly cheaper).
double ownSweepExtended(const std::uint32_t* S, const std::uint32_t* E, int m, float la, float ha, double K,
                        OwnAxisResult* r) {
    if (m == 0) return 0.0;
    auto price = [&](std::uint32_t xk, int below, int above) {
        const float x = ownKeyFloat(xk);
        const double wl = static_cast<double>(x - la) + K;
        const double wr = static_cast<double>(ha - x) + K;
        return static_cast<double>(below) * wl + static_cast<double>(above) * wr;
    };
    double best = price(S[0], 0, m);
    std::uint32_t bestKey = S[0];
    int bestBelow = 0, bestAbove = m;
    auto offer = [&](std::uint32_t xk, int below, int above) {
        const double cu = price(xk, below, above);
        if (cu < best) {
            best = cu;
            bestKey = xk;
            bestBelow = below;
            bestAbove = above;
        }
    };
    int i = 0, j = 0;
    while (i < m) {
        const std::uint32_t s = S[i], e = E[j];
        const std::uint32_t xk = s < e ? s : e;
        const int below = i;
        if (s == xk) {
            do ++i;
            while (i < m && S[i] == xk);
        }
        while (E[j] == xk) ++j;
        offer(xk, below, m - j);
    }
    while (j < m) {
        const std::uint32_t xk = E[j];
        do ++j;
        while (j < m && E[j] == xk);
        offer(xk, m, m - j);
    }
    r->pos = ownKeyFloat(bestKey);
    r->numLower = bestBelow;
    r->numUpper = bestAbove;
    r->planeSideUpper = 1;
    return best;
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

    // The candidates: starts and ends of the m triangles with extent along
    // a, and the p coordinates of triangles flat in a, all sorted.
    const int m = ev.numExtended, p = ev.numPlanar;
    const std::uint32_t* S = ev.pStart;
    const std::uint32_t* E = ev.pEnd;
    const std::uint32_t* P = ev.pPlanar;

    // Empty-space cuts: the gap below the first candidate or above the last
    // must exceed a tenth of the node's extent.
    const int total = m + p;
    float first = m > 0 ? ownKeyFloat(S[0]) : lo[a];
    float last = m > 0 ? ownKeyFloat(E[m - 1]) : hi[a];
    if (p > 0) {
        const float pFirst = ownKeyFloat(P[0]), pLast = ownKeyFloat(P[p - 1]);
        if (pFirst < first) first = pFirst;
        if (pLast > last) last = pLast;
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

    r->cost = (eu + ev2) * (p > 0 ? ownSweepPlanar(S, E, P, m, p, lo[a], hi[a], K, r)
                                  : ownSweepExtended(S, E, m, lo[a], hi[a], K, r));
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

// Sorts n items and stores their keys and indices apart.
void ownSortAndStore(std::uint64_t* items, std::uint64_t* tmp, int n, std::uint32_t* keys, std::uint32_t* index) {
    const std::uint64_t* r = ownSortItems(items, tmp, n);
    for (int i = 0; i < n; ++i) {
        keys[i] = ownItemKey(r[i]);
        index[i] = static_cast<std::uint32_t>(r[i]);
    }
}

// The root's lists of one axis, built in entry order and sorted once.
void ownAxisEventsInit(const OwnEventStore& st, int a, const OwnTriEntry* e, int n, int* numExtended) {
    std::uint64_t* S = st.pScratch[0];
    std::uint64_t* E = st.pScratch[1];
    std::uint64_t* P = st.pScratch[2];
    std::uint64_t* T = st.pScratch[3];
    int m = 0, p = 0;
    for (int i = 0; i < n; ++i) {
        const float s = e[i].lo[a], t = e[i].hi[a];
        if (s != t) {
            S[m] = ownItem(s, i);
            E[m] = ownItem(t, i);
            ++m;
        } else {
            P[p++] = ownItem(s, i);
        }
    }
    ownSortAndStore(S, T, m, st.pKey[0][a], st.pIndex[0][a]);
    ownSortAndStore(E, T, m, st.pEndKey[0][a], st.pEndIndex[0][a]);
    ownSortAndStore(P, T, p, st.pKey[0][a] + m, st.pIndex[0][a] + m);
    *numExtended = m;
}

// One list of one axis of a split: the parent's list, read once, is filtered
// into the two children's, which lie in the same output arrays from
// positions `startL` and `startU`. Each item of a one-sided entry is
// renumbered for its child and keeps its place in the order (its extent is
// unchanged); the straddlers' new items (sorted, in `strL` and `strU`, each
// closed by a sentinel) go in front of the first larger item. Without
// straddler items (kMerge = false) the loop is a plain filter.
// Returns the end positions.
template <bool kMerge>
void ownFilterList(const std::uint32_t* key, const std::uint32_t* index, int len, const std::int32_t* side,
                   const std::uint64_t* strL, const std::uint64_t* strU, std::uint32_t* outKey,
                   std::uint32_t* outIndex, int startL, int startU, int* pEndL, int* pEndU) {
    const std::uint64_t* sL = strL;
    const std::uint64_t* sU = strU;
    // The keys of the next straddler item of each side, kept at hand: most
    // items pass with one 32-bit comparison.
    std::uint32_t nextL = ownItemKey(*sL), nextU = ownItemKey(*sU);
    int posL = startL, posU = startU;
    for (int k = 0; k < len; ++k) {
        const std::int32_t code = side[index[k]];
        if (code < 0) continue;
        const std::uint32_t kk = key[k];
        const std::uint32_t ni = static_cast<std::uint32_t>(code & 0x3FFFFFFF);
        const int u = code >> 30;
        // Straddler items that sort before this one go first. The keys
        // decide but for ties, so the whole item is formed only when the
        // next straddler's key does not lie above this one's.
        if (kMerge && (u ? nextU : nextL) <= kk) {
            const std::uint64_t item = (static_cast<std::uint64_t>(kk) << 32) | ni;
            if (u) {
                for (; *sU < item; ++sU, ++posU) {
                    outKey[posU] = ownItemKey(*sU);
                    outIndex[posU] = static_cast<std::uint32_t>(*sU);
                }
                nextU = ownItemKey(*sU);
            } else {
                for (; *sL < item; ++sL, ++posL) {
                    outKey[posL] = ownItemKey(*sL);
                    outIndex[posL] = static_cast<std::uint32_t>(*sL);
                }
                nextL = ownItemKey(*sL);
            }
        }
        const int at = u ? posU : posL;
        outKey[at] = kk;
        outIndex[at] = ni;
        posU += u;
        posL += 1 - u;
    }
    if (kMerge) {
        for (; *sL != kSentinel; ++sL, ++posL) {
            outKey[posL] = ownItemKey(*sL);
            outIndex[posL] = static_cast<std::uint32_t>(*sL);
        }
        for (; *sU != kSentinel; ++sU, ++posU) {
            outKey[posU] = ownItemKey(*sU);
            outIndex[posU] = static_cast<std::uint32_t>(*sU);
        }
    }
    *pEndL = posL;
    *pEndU = posU;
}

// The same, choosing the loop by whether there are straddler items.
void ownFilterList(const std::uint32_t* key, const std::uint32_t* index, int len, const std::int32_t* side,
                   const std::uint64_t* strL, const std::uint64_t* strU, std::uint32_t* outKey,
                   std::uint32_t* outIndex, int startL, int startU, int* pEndL, int* pEndU) {
    if (*strL == kSentinel && *strU == kSentinel)
        ownFilterList<false>(key, index, len, side, strL, strU, outKey, outIndex, startL, startU, pEndL, pEndU);
    else
        ownFilterList<true>(key, index, len, side, strL, strU, outKey, outIndex, startL, startU, pEndL, pEndU);
}

// One axis of a split.
void ownAxisEventsSplit(const OwnEventStore& st, int buffer, int a, std::int64_t base, int n, int m,
                        const OwnTriEntry* e, int nl, int ns, int* pLowerM, int* pUpperM) {
    const std::int32_t* li = st.pLowerIndex;
    const std::int32_t* ui = st.pUpperIndex;
    const std::int32_t* side = st.pSide;
    const int p = n - m;
    const int nb = buffer ^ 1;

    // The straddlers' new items (lower S, E, P; upper S, E, P), made in
    // parent order so their new indices ascend in each list, then sorted.
    std::uint64_t* const* x = st.pScratch;
    int cnt[6] = {0, 0, 0, 0, 0, 0};
    for (int i = 0; i < ns; ++i) {
        for (int up = 0; up < 2; ++up) {
            const int idx = up == 0 ? li[i] : ui[i];
            const OwnTriEntry& c = e[up == 0 ? idx : nl + idx];
            const float s = c.lo[a], t = c.hi[a];
            const int slot = 3 * up;
            if (s != t) {
                x[slot][cnt[slot]++] = ownItem(s, idx);
                x[slot + 1][cnt[slot + 1]++] = ownItem(t, idx);
            } else {
                x[slot + 2][cnt[slot + 2]++] = ownItem(s, idx);
            }
        }
    }
    for (int slot = 0; slot < 6; ++slot) {
        ownSortItemsInPlace(x[slot], x[6], cnt[slot]);
        x[slot][cnt[slot]] = kSentinel;
    }

    // Starts and planar values share their arrays (each child's starts, then
    // its planar values); the ends have their own.
    const std::uint32_t* K = st.pKey[buffer][a] + base;
    const std::uint32_t* I = st.pIndex[buffer][a] + base;
    std::uint32_t* oK = st.pKey[nb][a] + base;
    std::uint32_t* oI = st.pIndex[nb][a] + base;
    int mL, mU, eL, eU, pL, pU;
    ownFilterList(K, I, m, side, x[0], x[3], oK, oI, 0, nl, &mL, &mU);
    mU -= nl;
    ownFilterList(st.pEndKey[buffer][a] + base, st.pEndIndex[buffer][a] + base, m, side, x[1], x[4],
                  st.pEndKey[nb][a] + base, st.pEndIndex[nb][a] + base, 0, nl, &eL, &eU);
    ownFilterList(K + m, I + m, p, side, x[2], x[5], oK, oI, mL, nl + mU, &pL, &pU);
    *pLowerM = mL;
    *pUpperM = mU;
}

}  // namespace

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
        ownAxisEventsSplit(st, buffer, a, base, n, numExtended[a], pEntries, numLower, numStraddlers,
                           &lowerExtended[a], &upperExtended[a]);
}

}  // namespace vekr
