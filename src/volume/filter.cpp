// 3-D convolution of 16-bit signed volumes with an integer kernel and divisor:
// a packed path (16-bit coefficient pairs, pair multiply-adds into 32-bit sums)
// and a wide path (double accumulation) for kernels that do not fit in 16 bits.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "core/lanes.h"
#include "volume/team.h"

using namespace vekr;

namespace {

// Coefficients in [-32767, 32766] are packed as 16-bit pairs. -32768 is left
// out so that the pair sum of ownMulAddPairs can never reach 2^31 (two products
// of -32768 * -32768 would); the upper bound stops one short of 32767 as well,
// a deliberately kept asymmetry of the packing rule.
constexpr std::int32_t kPackMin = -32767;
constexpr std::int32_t kPackMax = 32766;

// Bytes of one thread's share of the work buffer: room for an accumulator row (width
// rounded up to 16 voxels, 4 bytes each), 32 bytes per coefficient pair of the
// kernel and 32 bytes of slack (used to align the share to 16 bytes). The
// formula is one of unsigned 32-bit arithmetic; ownFilterBufSize forms it in
// 64 bits, which gives the same value wherever the result fits.
inline std::uint64_t ownFilterShareBytes(std::uint32_t width, std::uint32_t kw, std::uint32_t kh, std::uint32_t kd) {
    return 64u * ((std::uint64_t(width) + 15u) / 16u) +
           32u * ((std::uint64_t(kw) + 1u) / 2u) * std::uint64_t(kh) * std::uint64_t(kd) + 32u;
}

// The share size and the whole buffer for `threads` shares, the one
// computation behind the size query and the filter's own check. False when
// the buffer does not fit in the signed 32-bit size the query reports: the
// query then fails instead of reporting a wrapped size, and the filter
// refuses the call, since no caller can hold a buffer for it. Sizes are
// positive ints; a kernel of more than 2^26 coefficient pairs (2^31 bytes)
// is refused before the 64-bit products could overflow.
inline bool ownFilterBufSize(int width, int kw, int kh, int kd, int threads, std::uint64_t* pShare,
                             std::uint32_t* pTotal) {
    const std::uint64_t rows = static_cast<std::uint64_t>(kh) * static_cast<std::uint64_t>(kd);  // < 2^62
    if (rows > (1u << 26) || ((static_cast<std::uint64_t>(kw) + 1u) / 2u) * rows > (1u << 26)) return false;
    const std::uint64_t share = ownFilterShareBytes(static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(kw),
                                                    static_cast<std::uint32_t>(kh), static_cast<std::uint32_t>(kd));
    if (share > 0x7FFFFFFFu) return false;
    const std::uint64_t total = share * static_cast<std::uint64_t>(threads);
    if (total > 0x7FFFFFFFu) return false;
    *pShare = share;
    *pTotal = static_cast<std::uint32_t>(total);
    return true;
}

inline std::uint8_t* ownAlignUp16(std::uint8_t* p) {
    return p + ((16u - (reinterpret_cast<std::uintptr_t>(p) & 15u)) & 15u);
}

// Everything one destination row needs. Source voxels are addressed relative to
// the origin (ox, oy, oz) = anchor - (kernel size - 1): reversed tap (m, j, k)
// of destination voxel (x, y, z) reads source voxel (x + ox + m, y + oy + j, z + oz + k).
struct FilterJob {
    const std::int16_t* const* pSrc;
    std::ptrdiff_t srcStep;  // elements
    std::int16_t* const* pDst;
    std::ptrdiff_t dstStep;  // elements
    int width, height, depth;
    const std::int32_t* pKernel;
    int kw, kh, kd;
    // 64-bit: the anchor is not checked, and anchor - (size - 1) must not
    // overflow whatever the caller passes.
    std::int64_t ox, oy, oz;
    float scale;
    std::uint8_t* pBuffer;
    std::size_t shareBytes;
    bool packed;
};

// Start of source row j of reversed kernel plane k for destination row (y, z),
// already moved to the first source column that destination voxel 0 reads.
inline const std::int16_t* ownSrcRow(const FilterJob& job, int y, int z, int j, int k) {
    const std::int16_t* plane = job.pSrc[static_cast<std::ptrdiff_t>(z + job.oz + k)];
    return plane + static_cast<std::ptrdiff_t>((y + job.oy + j) * job.srcStep + job.ox);
}

// ---------------------------------------------------------------------------
// Final step, shared by both paths: sum as float, times the float scale
// 1/divisor, rounded to nearest with ties to even and saturated to 16 bits.
// Clamping before rounding gives the same value as rounding and then
// saturating, and keeps values beyond the int32 range (a sum rounding up to
// 2^31, or a wide-path sum) away from the conversion's overflow value 0x80000000.

inline std::int16_t ownFinishVoxel(float sum, float scale) {
    float v = sum * scale;
    v = std::min(std::max(v, -32768.0f), 32767.0f);
    return static_cast<std::int16_t>(std::nearbyint(v));
}

// Eight voxels at once: the same operations lane by lane. ownRoundToInt
// rounds ties to even under the default rounding mode, as nearbyint does;
// ownPackSat saturates (a no-op after the clamp).
OWN_LANE void ownFinish8(OwnF4 lo, OwnF4 hi, OwnF4 scale, std::int16_t* pDst) {
    const OwnF4 vmin(-32768.0f), vmax(32767.0f);
    lo = ownMin(ownMax(lo * scale, vmin), vmax);
    hi = ownMin(ownMax(hi * scale, vmin), vmax);
    ownStoreU(pDst, ownPackSat(ownRoundToInt(lo), ownRoundToInt(hi)));
}

// ---------------------------------------------------------------------------
// Packed path.
//
// Kernel layout: the coefficients in reverse order (last first), so that a
// forward walk over the source computes a true convolution, one kernel row at
// a time; each row's coefficients are taken in pairs and each pair fills a
// 16-byte block as (first, second) four times. An odd row ends with a block
// whose second value is 0.

inline int ownPairsPerRow(int kw) { return (kw + 1) / 2; }

void ownPackKernel16(const FilterJob& job, OwnW8* pPacked) {
    const int n = job.kw * job.kh * job.kd;
    const int pairs = ownPairsPerRow(job.kw);
    for (int row = 0; row < job.kh * job.kd; ++row) {
        // Reversed row `row`, reversed tap m is flat coefficient n - 1 - (row * kw + m).
        const std::int32_t* last = job.pKernel + (n - 1 - row * job.kw);
        for (int p = 0; p < pairs; ++p) {
            const int m = 2 * p;
            const std::int16_t first = static_cast<std::int16_t>(last[-m]);
            const std::int16_t second = m + 1 < job.kw ? static_cast<std::int16_t>(last[-(m + 1)]) : 0;
            pPacked[row * pairs + p] = ownPairs16(first, second);
        }
    }
}

// Scalar rule for one voxel: the sum of products in 32-bit arithmetic. A sum
// beyond the int32 range wraps, as the 32-bit vector sums do (unsigned
// arithmetic keeps the wrap defined).
std::uint32_t ownSumPacked(const FilterJob& job, const OwnW8* pPacked, int x, int y, int z) {
    const int pairs = ownPairsPerRow(job.kw);
    std::uint32_t sum = 0;
    for (int k = 0; k < job.kd; ++k) {
        for (int j = 0; j < job.kh; ++j) {
            const std::int16_t* s = ownSrcRow(job, y, z, j, k) + x;
            const std::int16_t* c = reinterpret_cast<const std::int16_t*>(pPacked + (k * job.kh + j) * pairs);
            for (int m = 0; m < job.kw; ++m) {
                // Pair m/2 is block m/2; its first value is lane 0, the second lane 1.
                const std::int32_t coef = c[(m / 2) * 8 + (m & 1)];
                sum += static_cast<std::uint32_t>(coef * static_cast<std::int32_t>(s[m]));
            }
        }
    }
    return sum;
}

// acc += x. The empty asm keeps the compiler from regrouping a pass's sums
// (it would form all products first and spill them: i386 has eight vector
// registers); the sums are integers, so any grouping gives the same values and
// only the register use changes.
OWN_LANE void ownAccumulate(OwnI4& acc, OwnI4 x) {
    acc = acc + x;
    __asm__("" : "+x"(acc.v));
}

// Taps 2p and 2p+1 of a kernel row for the eight voxels whose source starts at
// s = row + x + 2p: pair sums of the even voxels from s, of the odd ones from
// s + 1.
OWN_LANE void ownAddPair(OwnI4& even, OwnI4& odd, const std::int16_t* s, OwnW8 c) {
    ownAccumulate(even, ownMulAddPairs(ownLoadU(s), c));
    ownAccumulate(odd, ownMulAddPairs(ownLoadU(s + 1), c));
}

// The last tap of an odd row: c = (c0, 0, c0, 0, ...) takes the even lanes of
// one vector for the even voxels, cs = (0, c0, 0, c0, ...) its odd lanes for
// the odd voxels.
OWN_LANE void ownAddLastTap(OwnI4& even, OwnI4& odd, const std::int16_t* s, OwnW8 c, OwnW8 cs) {
    const OwnW8 a = ownLoadU(s);
    ownAccumulate(even, ownMulAddPairs(a, c));
    ownAccumulate(odd, ownMulAddPairs(a, cs));
}

// Eight sums kept as (even four, odd four), back in order and finished.
OWN_LANE void ownFinishGroup(OwnI4 even, OwnI4 odd, OwnF4 scale, std::int16_t* pDst) {
    ownFinish8(ownToFloat(ownInterleaveLo(even, odd)), ownToFloat(ownInterleaveHi(even, odd)), scale, pDst);
}

// Sums of the groups of eight voxels x .. x + 8 * kGroups - 1 of one
// destination row, kept in registers over the whole kernel (plane by plane,
// row by row) and finished into the destination: each source vector is loaded
// once per pass, and no partial sum goes through memory.
//
// Pair p of a kernel row holds taps 2p and 2p+1. The 16-bit lanes of the
// source vector a = s[x+2p .. x+2p+7] pair up as (s[x+2p+2i], s[x+2p+2i+1]),
// so ownMulAddPairs with the pair block (c0, c1, c0, c1, ...) gives
// c0 * s[x+2p+2i] + c1 * s[x+2p+2i+1], the contribution of both taps to the
// even voxel x+2i; the vector one voxel further, s[x+2p+1 ...], gives the odd
// voxels x+2i+1 the same way. No shuffles are needed in the loop: each group
// keeps its sums as (even four, odd four) and the final step puts them back in
// order.
//
// The odd last pair (second coefficient 0) needs only tap 2p: the even voxels
// take it from a as before, and the odd ones from a's odd lanes with the block
// shifted to (0, c0, 0, c0, ...). This keeps every load inside the row's source
// neighbourhood (the vector one voxel further would read one voxel past it).
//
// Exactness: every product fits in 31 bits and each multiply-add sums two of
// them within +-2 * 32767 * 32768 < 2^31 (coefficients in [-32767, 32766],
// voxels in [-32768, 32767]), so it is exact. The sums then add in 32-bit
// wrapping arithmetic, which is associative and commutative, so adding them in
// registers in this order gives the bits of the scalar rule's tap-by-tap sum,
// wrapped sums beyond the int32 range included.
//
// kFullPairs is the number of full pairs per kernel row when it is known at
// compile time (the short rows of the usual kernels), -1 when it is read from
// the job; kOddTap says whether each row ends with a half pair.
template <int kFullPairs, bool kOddTap, int kGroups>
OWN_KERNEL inline void ownFilterGroupsPacked(const FilterJob& job, const OwnW8* pPacked, int y, int z, int x,
                                             std::int16_t* pDst) {
    static_assert(kGroups >= 1 && kGroups <= 4, "one to four groups of eight");
    const int fullPairs = kFullPairs >= 0 ? kFullPairs : job.kw / 2;
    const int pairs = fullPairs + (kOddTap ? 1 : 0);
    const int kh = job.kh, kd = job.kd;
    const std::ptrdiff_t step = job.srcStep;
    OwnI4 even0(0), odd0(0), even1(0), odd1(0), even2(0), odd2(0), even3(0), odd3(0);
    const OwnW8* coef = pPacked;
    for (int k = 0; k < kd; ++k) {
        const std::int16_t* s = ownSrcRow(job, y, z, 0, k) + x;
        for (int j = 0; j < kh; ++j, s += step, coef += pairs) {
            for (int p = 0; p < fullPairs; ++p) {
                const OwnW8 c = coef[p];
                ownAddPair(even0, odd0, s + 2 * p, c);
                if (kGroups >= 2) ownAddPair(even1, odd1, s + 8 + 2 * p, c);
                if (kGroups >= 3) ownAddPair(even2, odd2, s + 16 + 2 * p, c);
                if (kGroups == 4) ownAddPair(even3, odd3, s + 24 + 2 * p, c);
            }
            if (kOddTap) {
                const OwnW8 c = coef[fullPairs];
                const OwnW8 cs = ownPairShiftUp(c);
                ownAddLastTap(even0, odd0, s + 2 * fullPairs, c, cs);
                if (kGroups >= 2) ownAddLastTap(even1, odd1, s + 8 + 2 * fullPairs, c, cs);
                if (kGroups >= 3) ownAddLastTap(even2, odd2, s + 16 + 2 * fullPairs, c, cs);
                if (kGroups == 4) ownAddLastTap(even3, odd3, s + 24 + 2 * fullPairs, c, cs);
            }
        }
    }
    const OwnF4 scale(job.scale);
    ownFinishGroup(even0, odd0, scale, pDst + x);
    if (kGroups >= 2) ownFinishGroup(even1, odd1, scale, pDst + x + 8);
    if (kGroups >= 3) ownFinishGroup(even2, odd2, scale, pDst + x + 16);
    if (kGroups == 4) ownFinishGroup(even3, odd3, scale, pDst + x + 24);
}

// One destination row: passes of four groups (32 voxels) on x86-64 and of
// three on i386 while they last, as many as the vector registers hold with
// the loaded vectors (16 and 8 registers), then 16 voxels, then 8, then the
// scalar rule for the voxels after the last group of eight. The sums are the
// same integers whatever the split, so the width of a pass never changes a
// value.
template <int kFullPairs, bool kOddTap>
void ownFilterRowPackedT(const FilterJob& job, const OwnW8* pPacked, int y, int z) {
    std::int16_t* dst = job.pDst[z] + static_cast<std::ptrdiff_t>(y) * job.dstStep;
    int x = 0;
#if defined(__x86_64__)
    for (; x + 32 <= job.width; x += 32) ownFilterGroupsPacked<kFullPairs, kOddTap, 4>(job, pPacked, y, z, x, dst);
#else
    for (; x + 24 <= job.width; x += 24) ownFilterGroupsPacked<kFullPairs, kOddTap, 3>(job, pPacked, y, z, x, dst);
#endif
    for (; x + 16 <= job.width; x += 16) ownFilterGroupsPacked<kFullPairs, kOddTap, 2>(job, pPacked, y, z, x, dst);
    if (x + 8 <= job.width) {
        ownFilterGroupsPacked<kFullPairs, kOddTap, 1>(job, pPacked, y, z, x, dst);
        x += 8;
    }
    for (; x < job.width; ++x)
        dst[x] = ownFinishVoxel(static_cast<float>(static_cast<std::int32_t>(ownSumPacked(job, pPacked, x, y, z))),
                                job.scale);
}

void ownFilterRowPacked(const FilterJob& job, const OwnW8* pPacked, int y, int z) {
    switch (job.kw) {
        case 1: return ownFilterRowPackedT<0, true>(job, pPacked, y, z);
        case 2: return ownFilterRowPackedT<1, false>(job, pPacked, y, z);
        case 3: return ownFilterRowPackedT<1, true>(job, pPacked, y, z);
        case 4: return ownFilterRowPackedT<2, false>(job, pPacked, y, z);
        case 5: return ownFilterRowPackedT<2, true>(job, pPacked, y, z);
        case 6: return ownFilterRowPackedT<3, false>(job, pPacked, y, z);
        case 7: return ownFilterRowPackedT<3, true>(job, pPacked, y, z);
        default:
            if (job.kw & 1) return ownFilterRowPackedT<-1, true>(job, pPacked, y, z);
            return ownFilterRowPackedT<-1, false>(job, pPacked, y, z);
    }
}

// ---------------------------------------------------------------------------
// Wide path, for kernels with a coefficient outside the packing range.
//
// Products of a 16-bit voxel and a 32-bit coefficient are exact in double
// (at most 2^46 in magnitude) and so is every partial sum of integers below
// 2^53: for any kernel of fewer than 128 taps, and for any kernel that the
// packed path could take whose sum fits in 32 bits, the double sum is the exact
// integer sum. Converting it to float then rounds the exact value once, as the
// packed path's int32-to-float conversion does, so the two paths give the same
// result wherever both apply. (A float accumulator would not: its partial sums
// round as soon as they pass 2^24.) The taps are added in one fixed order,
// kernel plane, row, tap, so that beyond 2^53 the result still does not depend
// on the row position, the vector width or the thread count.
//
// Kernel layout: the reversed coefficients, one double pair (the value twice)
// per tap, kw taps per row.

void ownPackKernelWide(const FilterJob& job, OwnD2* pWide) {
    const int n = job.kw * job.kh * job.kd;
    for (int t = 0; t < n; ++t) pWide[t] = OwnD2(static_cast<double>(job.pKernel[n - 1 - t]));
}

// Scalar rule for one voxel.
double ownSumWide(const FilterJob& job, const OwnD2* pWide, int x, int y, int z) {
    double sum = 0.0;
    for (int k = 0; k < job.kd; ++k) {
        for (int j = 0; j < job.kh; ++j) {
            const std::int16_t* s = ownSrcRow(job, y, z, j, k) + x;
            const double* c = reinterpret_cast<const double*>(pWide + (k * job.kh + j) * job.kw);
            for (int m = 0; m < job.kw; ++m) sum = sum + static_cast<double>(s[m]) * c[2 * m];
        }
    }
    return sum;
}

// One destination row, eight voxels per group, each kept in a double lane
// through the whole kernel (the buffer has no room for a double row).
void ownFilterRowWide(const FilterJob& job, const OwnD2* pWide, int y, int z) {
    const int w8 = job.width & ~7;
    std::int16_t* dst = job.pDst[z] + static_cast<std::ptrdiff_t>(y) * job.dstStep;
    const OwnF4 scale(job.scale);
    for (int x = 0; x < w8; x += 8) {
        // Voxels x .. x+3 and x+4 .. x+7.
        OwnD4 accLo(0.0), accHi(0.0);
        for (int k = 0; k < job.kd; ++k) {
            for (int j = 0; j < job.kh; ++j) {
                const std::int16_t* s = ownSrcRow(job, y, z, j, k) + x;
                const OwnD2* c = pWide + (k * job.kh + j) * job.kw;
                for (int m = 0; m < job.kw; ++m) {
                    const OwnD4 cm = ownBroadcast(c[m]);
                    accLo = accLo + ownToDouble(ownLoadWiden4(s + m)) * cm;
                    accHi = accHi + ownToDouble(ownLoadWiden4(s + m + 4)) * cm;
                }
            }
        }
        // ownNarrow rounds each double to float to nearest, as the scalar cast does.
        ownFinish8(ownNarrow(accLo), ownNarrow(accHi), scale, dst + x);
    }
    for (int x = w8; x < job.width; ++x)
        dst[x] = ownFinishVoxel(static_cast<float>(ownSumWide(job, pWide, x, y, z)), job.scale);
}

// ---------------------------------------------------------------------------
// Driver. Each thread's share of the buffer holds its own copy of the packed
// kernel: no thread writes what another reads.
struct FilterShare {
    void* pKernel;
};

FilterShare ownPrepareShare(const FilterJob& job, int share) {
    std::uint8_t* base = ownAlignUp16(job.pBuffer + static_cast<std::size_t>(share) * job.shareBytes);
    FilterShare s;
    // The kernel follows the accumulator-row part of the share, which the
    // size formula keeps although the sums now stay in registers.
    s.pKernel = base + 64 * ((static_cast<std::size_t>(job.width) + 15) / 16);
    if (job.packed)
        ownPackKernel16(job, static_cast<OwnW8*>(s.pKernel));
    else
        ownPackKernelWide(job, static_cast<OwnD2*>(s.pKernel));
    return s;
}

// Destination row r (plane-major: plane r / height, row r % height).
inline void ownFilterRow(const FilterJob& job, const FilterShare& s, std::int64_t r) {
    const int y = static_cast<int>(r % job.height), z = static_cast<int>(r / job.height);
    if (job.packed)
        ownFilterRowPacked(job, static_cast<const OwnW8*>(s.pKernel), y, z);
    else
        ownFilterRowWide(job, static_cast<const OwnD2*>(s.pKernel), y, z);
}

// Parallel slabs: a static split of the destination rows into one contiguous
// run per thread. Every voxel is computed the same way whoever computes it, so
// the result does not depend on the thread count.
void ownFilter_MT(const FilterJob& job, int numThreads) {
    const std::int64_t rows = static_cast<std::int64_t>(job.height) * job.depth;
#pragma omp parallel num_threads(vekr::ownVolumeTeam(numThreads, rows))
    {
        const FilterShare s = ownPrepareShare(job, omp_get_thread_num());
#pragma omp for schedule(static)
        for (std::int64_t r = 0; r < rows; ++r) ownFilterRow(job, s, r);
    }
}

void ownFilter(const FilterJob& job) {
    const FilterShare s = ownPrepareShare(job, 0);
    const std::int64_t rows = static_cast<std::int64_t>(job.height) * job.depth;
    for (std::int64_t r = 0; r < rows; ++r) ownFilterRow(job, s, r);
}

}  // namespace

extern "C" VekStatus vekrFilterGetBufSize(VekrVolume dstVolume, VekrVolume kernelVolume, int nChannel, int* pSize) {
    if (pSize == nullptr) return vekStatusNullPtr;
    if (dstVolume.width < 1 || dstVolume.height < 1 || dstVolume.depth < 1 || kernelVolume.width < 1 ||
        kernelVolume.height < 1 || kernelVolume.depth < 1)
        return vekStatusBadSize;
    if (nChannel != 1) return vekStatusBadNumChannels;
    std::uint64_t share;
    std::uint32_t total;
    if (!ownFilterBufSize(dstVolume.width, kernelVolume.width, kernelVolume.height, kernelVolume.depth,
                          ownGetNumThreads(), &share, &total))
        return vekStatusBadSize;
    *pSize = static_cast<int>(total);
    return vekStatusOk;
}

extern "C" OWN_SSE_ENTRY VekStatus vekrFilter_16s_C1PV(const int16_t* const* pSrc, int srcStep, int16_t* const* pDst,
                                                       int dstStep, VekrVolume dstVolume, const int32_t* pKernel,
                                                       VekrVolume kernelVolume, VekrPoint3D anchor, int divisor,
                                                       uint8_t* pBuffer) {
    if (pSrc == nullptr || pDst == nullptr || pKernel == nullptr) return vekStatusNullPtr;
    if (pBuffer == nullptr) return vekStatusNullPtr;
    if (dstVolume.width < 1 || dstVolume.height < 1 || dstVolume.depth < 1) return vekStatusBadSize;
    if (kernelVolume.width < 1 || kernelVolume.height < 1 || kernelVolume.depth < 1) return vekStatusBadSize;
    if (divisor == 0) return vekStatusBadSize;
    // The buffer this call works in: a share per thread it runs, as the size
    // query sizes it. A size beyond the int range is one the query refused.
    const int numThreads = ownGetNumThreads();
    const bool parallel = numThreads > 1 && dstVolume.width > 15 && dstVolume.height > 15 && dstVolume.depth > 15;
    std::uint64_t shareBytes;
    std::uint32_t bufBytes;
    if (!ownFilterBufSize(dstVolume.width, kernelVolume.width, kernelVolume.height, kernelVolume.depth,
                          parallel ? numThreads : 1, &shareBytes, &bufBytes))
        return vekStatusBadSize;

    FilterJob job;
    job.pSrc = pSrc;
    job.srcStep = srcStep / 2;
    job.pDst = pDst;
    job.dstStep = dstStep / 2;
    job.width = dstVolume.width;
    job.height = dstVolume.height;
    job.depth = dstVolume.depth;
    job.pKernel = pKernel;
    job.kw = kernelVolume.width;
    job.kh = kernelVolume.height;
    job.kd = kernelVolume.depth;
    job.ox = std::int64_t(anchor.x) - (kernelVolume.width - 1);
    job.oy = std::int64_t(anchor.y) - (kernelVolume.height - 1);
    job.oz = std::int64_t(anchor.z) - (kernelVolume.depth - 1);
    // The scale is formed once, in float, and multiplies every sum.
    job.scale = 1.0f / static_cast<float>(divisor);
    job.pBuffer = pBuffer;
    job.shareBytes = static_cast<std::size_t>(shareBytes);
    const std::size_t n = static_cast<std::size_t>(job.kw) * job.kh * job.kd;
    job.packed = std::all_of(pKernel, pKernel + n, [](std::int32_t c) { return c >= kPackMin && c <= kPackMax; });

    if (parallel)
        ownFilter_MT(job, numThreads);
    else
        ownFilter(job);
    return vekStatusOk;
}
