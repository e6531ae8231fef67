// Evaluation of the real spherical-harmonic basis for batches of directions:
// the closed-form evaluators (generated, one per band), the band recurrence
// over a state's tables, and the entry points vekrSH_32f and vekrSHBand_32f.
#include "core/lanes.h"
#include "sh/sh_internal.h"

namespace vekr {
namespace {

// ---------------------------------------------------------------------------
// Lane types. The kernels are written once over a lane type: a plain double
// or float for the scalar path, and OwnD4 or OwnF4 (core/lanes.h) with the
// same operators for the four-direction vector path. Each operator is one
// IEEE operation per lane, so both paths give the same bits.
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// Closed form.
// ---------------------------------------------------------------------------

// One direction (or block of four) as the closed-form evaluators read it:
// x, y, z widened to double, z^2 squared in single and then widened, and the
// azimuthal factors c[m] = Re (x+iy)^m, s[m] = Im (x+iy)^m for the bands
// above 3 (filled up to the highest band evaluated).
template <class T>
struct OwnSHDir {
    T x, y, z, z2;
    T c[kSHMaxOrder + 1], s[kSHMaxOrder + 1];
};

inline OwnSHDir<double> ownSHLoad(float x, float y, float z) {
    OwnSHDir<double> d;
    d.x = x;
    d.y = y;
    d.z = z;
    d.z2 = static_cast<double>(z * z);
    return d;
}

inline OwnSHDir<OwnD4> ownSHLoad(OwnF4 x, OwnF4 y, OwnF4 z) {
    OwnSHDir<OwnD4> d;
    d.x = ownWiden(x);
    d.y = ownWiden(y);
    d.z = ownWiden(z);
    d.z2 = ownWiden(z * z);
    return d;
}

// Powers of x + iy by complex multiplication, up to m = maxM.
template <class T>
inline void ownSHAzimuth(OwnSHDir<T>& d, std::uint32_t maxM) {
    d.c[1] = d.x;
    d.s[1] = d.y;
    for (std::uint32_t m = 2; m <= maxM; ++m) {
        d.c[m] = d.x * d.c[m - 1] - d.y * d.s[m - 1];
        d.s[m] = d.x * d.s[m - 1] + d.y * d.c[m - 1];
    }
}

// Output writers: put(k, v) rounds v to single and stores it as value k.
// The scalar writer stores into one direction's record; the block writer
// stores four lanes as row k of a block scratch (four floats per value),
// which ownSHScatter4 then distributes to the four directions.
struct OwnSHOut1 {
    float* p;
    OwnSHOut1 at(int k) const { return {p + k}; }
    void put(int k, double v) const { p[k] = static_cast<float>(v); }
};
struct OwnSHOut4 {
    float* p;
    OwnSHOut4 at(int k) const { return {p + 4 * k}; }
    void put(int k, const OwnD4& v) const {
        ownStoreU(p + 4 * k, ownNarrow(v));
    }
};

#include "sh/sh_closed_form.inc"

// All bands 0 .. order, in rising order, each written only when the order
// reaches it. Bands 4 and up read the azimuthal factors, computed once here.
template <class T, class Out>
inline void ownSHClosedForm(OwnSHDir<T>& d, std::uint32_t order, const Out& out) {
    ownSHBand0(d, out.at(0));
    if (order < 1) return;
    ownSHBand1(d, out.at(1));
    if (order < 2) return;
    ownSHBand2(d, out.at(4));
    if (order < 3) return;
    ownSHBand3(d, out.at(9));
    if (order < 4) return;
    ownSHAzimuth(d, order);
    ownSHBand4(d, out.at(16));
    if (order < 5) return;
    ownSHBand5(d, out.at(25));
    if (order < 6) return;
    ownSHBand6(d, out.at(36));
    if (order < 7) return;
    ownSHBand7(d, out.at(49));
    if (order < 8) return;
    ownSHBand8(d, out.at(64));
    if (order < 9) return;
    ownSHBand9(d, out.at(81));
    if (order < 10) return;
    ownSHBand10(d, out.at(100));
    if (order < 11) return;
    ownSHBand11(d, out.at(121));
    if (order < 12) return;
    ownSHBand12(d, out.at(144));
    if (order < 13) return;
    ownSHBand13(d, out.at(169));
    if (order < 14) return;
    ownSHBand14(d, out.at(196));
    if (order < 15) return;
    ownSHBand15(d, out.at(225));
}

// Hands a block scratch of n rows of four lanes to four directions whose
// records of n values follow each other at dst. With n a multiple of 4 the
// rows are transposed four at a time.
inline void ownSHScatter4(const float* s, int n, float* dst) {
    if ((n & 3) == 0) {
        for (int k = 0; k < n; k += 4) {
            OwnF4 r0 = ownLoadU(s + 4 * k);
            OwnF4 r1 = ownLoadU(s + 4 * k + 4);
            OwnF4 r2 = ownLoadU(s + 4 * k + 8);
            OwnF4 r3 = ownLoadU(s + 4 * k + 12);
            ownTranspose(r0, r1, r2, r3);
            ownStoreU(dst + k, r0);
            ownStoreU(dst + n + k, r1);
            ownStoreU(dst + 2 * n + k, r2);
            ownStoreU(dst + 3 * n + k, r3);
        }
        return;
    }
    for (int k = 0; k < n; ++k)
        for (int j = 0; j < 4; ++j) dst[j * n + k] = s[4 * k + j];
}

void ownSHDirect1(const float* pX, const float* pY, const float* pZ, int count, float* pDst, std::uint32_t order) {
    const int n = static_cast<int>((order + 1) * (order + 1));
    for (int i = 0; i < count; ++i) {
        OwnSHDir<double> d = ownSHLoad(pX[i], pY[i], pZ[i]);
        ownSHClosedForm(d, order, OwnSHOut1{pDst + static_cast<std::ptrdiff_t>(i) * n});
    }
}

void ownSHDirect4(const float* pX, const float* pY, const float* pZ, int count, float* pDst, std::uint32_t order) {
    const int n = static_cast<int>((order + 1) * (order + 1));
    float block[4 * kSHMaxCoeffs];
    for (int i = 0; i < count; i += 4) {
        OwnSHDir<OwnD4> d = ownSHLoad(ownLoadU(pX + i), ownLoadU(pY + i), ownLoadU(pZ + i));
        ownSHClosedForm(d, order, OwnSHOut4{block});
        ownSHScatter4(block, n, pDst + static_cast<std::ptrdiff_t>(i) * n);
    }
}

// ---------------------------------------------------------------------------
// Band recurrence (type 1), all in single precision. The two previous bands
// are read back from where they were just stored: the destination record on
// the scalar path, the block scratch on the vector path.
// ---------------------------------------------------------------------------

struct OwnSHRec1 {
    float* p;
    float get(int k) const { return p[k]; }
    void set(int k, float v) const { p[k] = v; }
};
struct OwnSHRec4 {
    float* p;
    OwnF4 get(int k) const { return ownLoadU(p + 4 * k); }
    void set(int k, const OwnF4& v) const { ownStoreU(p + 4 * k, v); }
};

template <class F, class Rec>
inline void ownSHRecurrence(const F& x, const F& y, const F& z, const float* pA, const float* pB, std::uint32_t order,
                            const Rec& rec) {
    rec.set(0, F(pA[0]));
    if (order < 1) return;
    rec.set(1, F(pA[2]) * y);
    rec.set(2, F(pA[1]) * z);
    rec.set(3, F(pA[2]) * x);
    for (int l = 2; l <= static_cast<int>(order); ++l) {
        const float* a = pA + l * (l + 1) / 2;
        const float* b = pB + l * (l + 1) / 2;
        const int c = l * l + l;             // Y_l^0
        const int c1 = c - 2 * l;            // Y_(l-1)^0
        const int c2 = c1 - 2 * (l - 1);     // Y_(l-2)^0
        const F ys = rec.get(c1 + (l - 1));  // Y_(l-1)^(l-1)
        const F yc = rec.get(c1 - (l - 1));  // Y_(l-1)^-(l-1)
        // Sectoral pair from the sectoral pair of band l-1.
        rec.set(c + l, F(a[l]) * (x * ys - y * yc));
        rec.set(c - l, F(a[l]) * (x * yc + y * ys));
        // |m| = l-1: band l-2 has no such function, so B drops out.
        rec.set(c + (l - 1), F(a[l - 1]) * z * ys);
        rec.set(c - (l - 1), F(a[l - 1]) * z * yc);
        // |m| <= l-2: three-term recurrence.
        rec.set(c, F(a[0]) * z * rec.get(c1) + F(b[0]) * rec.get(c2));
        for (int m = 1; m <= l - 2; ++m) {
            rec.set(c + m, F(a[m]) * z * rec.get(c1 + m) + F(b[m]) * rec.get(c2 + m));
            rec.set(c - m, F(a[m]) * z * rec.get(c1 - m) + F(b[m]) * rec.get(c2 - m));
        }
    }
}

void ownSHRecurrence1(const float* pX, const float* pY, const float* pZ, int count, float* pDst, std::uint32_t order,
                      const VekrSHState* pState) {
    const int n = static_cast<int>((order + 1) * (order + 1));
    for (int i = 0; i < count; ++i)
        ownSHRecurrence(pX[i], pY[i], pZ[i], pState->pFactorA, pState->pFactorB, order,
                        OwnSHRec1{pDst + static_cast<std::ptrdiff_t>(i) * n});
}

void ownSHRecurrence4(const float* pX, const float* pY, const float* pZ, int count, float* pDst, std::uint32_t order,
                      const VekrSHState* pState) {
    const int n = static_cast<int>((order + 1) * (order + 1));
    float block[4 * kSHMaxCoeffs];
    for (int i = 0; i < count; i += 4) {
        ownSHRecurrence(ownLoadU(pX + i), ownLoadU(pY + i), ownLoadU(pZ + i),
                        pState->pFactorA, pState->pFactorB, order, OwnSHRec4{block});
        ownSHScatter4(block, n, pDst + static_cast<std::ptrdiff_t>(i) * n);
    }
}

// ---------------------------------------------------------------------------
// Single band: a table of 16 evaluators indexed by the band, one per path.
// Each converts a direction once, evaluates its band and advances the
// destination by 2L+1 values.
// ---------------------------------------------------------------------------

using OwnSHBandFn = void (*)(const float*, const float*, const float*, int, float*);

template <int L, class T, class Out>
inline void ownSHOneBand(OwnSHDir<T>& d, const Out& out) {
    if (L >= 4) ownSHAzimuth(d, L);
    switch (L) {
        case 0:
            ownSHBand0(d, out);
            break;
        case 1:
            ownSHBand1(d, out);
            break;
        case 2:
            ownSHBand2(d, out);
            break;
        case 3:
            ownSHBand3(d, out);
            break;
        case 4:
            ownSHBand4(d, out);
            break;
        case 5:
            ownSHBand5(d, out);
            break;
        case 6:
            ownSHBand6(d, out);
            break;
        case 7:
            ownSHBand7(d, out);
            break;
        case 8:
            ownSHBand8(d, out);
            break;
        case 9:
            ownSHBand9(d, out);
            break;
        case 10:
            ownSHBand10(d, out);
            break;
        case 11:
            ownSHBand11(d, out);
            break;
        case 12:
            ownSHBand12(d, out);
            break;
        case 13:
            ownSHBand13(d, out);
            break;
        case 14:
            ownSHBand14(d, out);
            break;
        default:
            ownSHBand15(d, out);
            break;
    }
}

template <int L>
void ownSHBandBatch1(const float* pX, const float* pY, const float* pZ, int count, float* pDst) {
    for (int i = 0; i < count; ++i) {
        OwnSHDir<double> d = ownSHLoad(pX[i], pY[i], pZ[i]);
        ownSHOneBand<L>(d, OwnSHOut1{pDst});
        pDst += 2 * L + 1;
    }
}

template <int L>
void ownSHBandBatch4(const float* pX, const float* pY, const float* pZ, int count, float* pDst) {
    float block[4 * (2 * kSHMaxOrder + 1)];
    for (int i = 0; i < count; i += 4) {
        OwnSHDir<OwnD4> d = ownSHLoad(ownLoadU(pX + i), ownLoadU(pY + i), ownLoadU(pZ + i));
        ownSHOneBand<L>(d, OwnSHOut4{block});
        ownSHScatter4(block, 2 * L + 1, pDst);
        pDst += 4 * (2 * L + 1);
    }
}

template <int... L>
struct OwnSHBandTables {
    static constexpr OwnSHBandFn kScalar[sizeof...(L)] = {&ownSHBandBatch1<L>...};
    static constexpr OwnSHBandFn kVector[sizeof...(L)] = {&ownSHBandBatch4<L>...};
};
using OwnSHBands = OwnSHBandTables<0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15>;

}  // namespace

VekStatus ownSH_32f(const float* pX, const float* pY, const float* pZ, int count, float* pDst, std::uint32_t order,
                    const VekrSHState* pState) {
    if (pX == nullptr || pY == nullptr || pZ == nullptr || pDst == nullptr || pState == nullptr)
        return vekStatusNullPtr;
    if (count == 0) return vekStatusBadSize;
    if (order > pState->order) return vekStatusBadArgument;
    // Four directions at a time when every array is aligned and the count
    // fills whole blocks; both paths give the same bits.
    const bool vector = ownAllAligned16(pX, pY, pZ, pDst) && ownIsMultipleOf4(count);
    if (pState->type == vekrSHDirect) {
        if (order > kSHMaxOrder) return vekStatusBadArgument;
        if (count < 0) return vekStatusOk;
        if (vector)
            ownSHDirect4(pX, pY, pZ, count, pDst, order);
        else
            ownSHDirect1(pX, pY, pZ, count, pDst, order);
        return vekStatusOk;
    }
    if (pState->type == vekrSHRecurrence) {
        if (order > kSHMaxOrder) return vekStatusBadArgument;
        if (count < 1) return vekStatusOk;
        if (vector)
            ownSHRecurrence4(pX, pY, pZ, count, pDst, order, pState);
        else
            ownSHRecurrence1(pX, pY, pZ, count, pDst, order, pState);
        return vekStatusOk;
    }
    return vekStatusBadArgument;
}

}  // namespace vekr

using namespace vekr;

extern "C" OWN_SSE_ENTRY VekStatus vekrSH_32f(const float* pX, const float* pY, const float* pZ, int count, float* pDst,
                                              std::uint32_t order, const VekrSHState* pState) {
    return ownSH_32f(pX, pY, pZ, count, pDst, order, pState);
}

extern "C" OWN_SSE_ENTRY VekStatus vekrSHBand_32f(const float* pX, const float* pY, const float* pZ, int count,
                                                  float* pDst, std::uint32_t band) {
    if (pX == nullptr || pY == nullptr || pZ == nullptr || pDst == nullptr) return vekStatusNullPtr;
    if (band > kSHMaxOrder) return vekStatusBadArgument;
    if (count == 0) return vekStatusBadSize;
    if (count < 0) return vekStatusOk;
    const bool vector = ownAllAligned16(pX, pY, pZ, pDst) && ownIsMultipleOf4(count);
    (vector ? OwnSHBands::kVector : OwnSHBands::kScalar)[band](pX, pY, pZ, count, pDst);
    return vekStatusOk;
}
