// Every per-ray operation of the shading family described as a list of arrays
// and one call, so that one runner can place the arrays wherever it likes
// (against a guard page, at an offset, inside a longer buffer) and compare
// runs byte for byte. Each array has an element type, a size per ray (plus a
// fixed part for tables such as per-triangle normals) and a kind of content.
#ifndef VEKR_TESTS_SHADING_PACKET_OP_TABLE_H
#define VEKR_TESTS_SHADING_PACKET_OP_TABLE_H

#include <climits>
#include <cstdint>
#include <functional>
#include <vector>

#include "shading_data.h"
#include "vekr.h"

namespace st {

// Size of the lookup tables that triangle indices point into.
constexpr int kTableTriangles = 7;
constexpr int kTableVertices = 9;

enum class Content {
    Values,       // floats with specials (NaN, signed zeros, infinities, denormals)
    Mask,         // ray mask: negative where the lane pattern says so
    TriIndex,     // triangle index into the tables, -1 where the pattern says so
    TriVertices,  // smooth-normal table: four vertex indices per triangle
    OwnVertices,  // triangle-normal rows: triangle t uses vertices 3t, 3t+1, 3t+2
};

struct ArrayShape {
    bool isInt;
    int perRay;  // elements per ray
    int fixed;   // elements independent of the count
    Content content;
    int elements(int count) const { return perRay * (count > 0 ? count : 0) + fixed; }
};

// The call receives one pointer per array (void*, in table order) and the count.
struct PacketOp {
    const char* name;
    std::vector<ArrayShape> arrays;
    std::function<VekStatus(void* const* a, int count)> call;
};

inline float* F(void* p) { return static_cast<float*>(p); }
inline std::int32_t* I(void* p) { return static_cast<std::int32_t*>(p); }

// Planes of a P3 operand: arrays k, k+1, k+2.
struct P3 {
    float* c[3];
    P3(void* const* a, int k) : c{F(a[k]), F(a[k + 1]), F(a[k + 2])} {}
};

inline const ArrayShape kF{false, 1, 0, Content::Values};
inline const ArrayShape kMaskArr{true, 1, 0, Content::Mask};
inline const ArrayShape kTriIdx{true, 1, 0, Content::TriIndex};
inline ArrayShape fixedFloats(int n) { return ArrayShape{false, 0, n, Content::Values}; }

inline std::vector<PacketOp> packetOps() {
    const ArrayShape f = kF, m = kMaskArr;
    std::vector<PacketOp> ops;
    ops.push_back({"Dot_32f_P3C1M", {f, f, f, f, f, f, m, f}, [](void* const* a, int n) {
                       return vekrDot_32f_P3C1M(P3(a, 0).c, P3(a, 3).c, I(a[6]), F(a[7]), n);
                   }});
    ops.push_back({"DotChangeNorm_32f_IM", {f, f, f, m, f, f, f, f}, [](void* const* a, int n) {
                       return vekrDotChangeNorm_32f_IM(P3(a, 0).c, I(a[3]), P3(a, 4).c, F(a[7]), n);
                   }});
    ops.push_back({"DistAttenuationSO_32f_M", {fixedFloats(3), f, f, f, m, f}, [](void* const* a, int n) {
                       return vekrDistAttenuationSO_32f_M(F(a[0]), P3(a, 1).c, I(a[4]), F(a[5]), n);
                   }});
    ops.push_back({"Mul_32f_C1IM", {f, m, f},
                   [](void* const* a, int n) { return vekrMul_32f_C1IM(F(a[0]), I(a[1]), F(a[2]), n); }});
    ops.push_back({"Mul_32f_C1P3IM", {f, m, f, f, f},
                   [](void* const* a, int n) { return vekrMul_32f_C1P3IM(F(a[0]), I(a[1]), P3(a, 2).c, n); }});
    ops.push_back({"Div_32f_C1IM", {f, m, f},
                   [](void* const* a, int n) { return vekrDiv_32f_C1IM(F(a[0]), I(a[1]), F(a[2]), n); }});
    ops.push_back({"AddMulMul_32f_AC1P3IM", {fixedFloats(3), f, f, f, f, m, f, f, f}, [](void* const* a, int n) {
                       return vekrAddMulMul_32f_AC1P3IM(F(a[0]), F(a[1]), P3(a, 2).c, I(a[5]), P3(a, 6).c, n);
                   }});
    // A block two rows high whose width is the count.
    const ArrayShape row2{false, 2, 0, Content::Values};
    ops.push_back({"CastEye_32f", {fixedFloats(3), fixedFloats(3), fixedFloats(3), row2, row2, row2},
                   [](void* const* a, int n) {
                       return vekrCastEye_32f(F(a[0]), F(a[1]), F(a[2]), 3, -2, 16, 8, P3(a, 3).c, n, 2);
                   }});
    ops.push_back({"CastReflectionRay_32f", {f, f, f, m, f, f, f, f, f, f}, [](void* const* a, int n) {
                       return vekrCastReflectionRay_32f(P3(a, 0).c, I(a[3]), P3(a, 4).c, P3(a, 7).c, n);
                   }});
    ops.push_back({"CastShadowSO_32f", {fixedFloats(3), f, f, f, f, f, f, f, m, f, f, f, f},
                   [](void* const* a, int n) {
                       return vekrCastShadowSO_32f(F(a[0]), F(a[1]), P3(a, 2).c, P3(a, 5).c, I(a[8]), F(a[9]),
                                                   P3(a, 10).c, n);
                   }});
    ops.push_back({"HitPoint3DEpsS0_32f_M", {fixedFloats(3), f, f, f, f, m, f, f, f}, [](void* const* a, int n) {
                       return vekrHitPoint3DEpsS0_32f_M(F(a[0]), P3(a, 1).c, F(a[4]), I(a[5]), P3(a, 6).c, n,
                                                        0.99f);
                   }});
    ops.push_back({"HitPoint3DEpsM0_32f_M", {f, f, f, f, f, f, f, m, f, f, f}, [](void* const* a, int n) {
                       return vekrHitPoint3DEpsM0_32f_M(P3(a, 0).c, P3(a, 3).c, F(a[6]), I(a[7]), P3(a, 8).c, n,
                                                        1.0f);
                   }});
    ops.push_back({"SurfFlatNormal_32f", {fixedFloats(3 * kTableTriangles), kTriIdx, f, f, f},
                   [](void* const* a, int n) { return vekrSurfFlatNormal_32f(F(a[0]), I(a[1]), P3(a, 2).c, n); }});
    for (int stride : {4, 3}) {
        ops.push_back({stride == 4 ? "SurfSmoothNormal_32f/stride4" : "SurfSmoothNormal_32f/stride3",
                       {fixedFloats(3 * kTableVertices),
                        ArrayShape{true, 0, stride * (kTableTriangles - 1) + 3, Content::TriVertices}, kTriIdx, f, f,
                        f, f, f},
                       [stride](void* const* a, int n) {
                           const float* uv[2] = {F(a[3]), F(a[4])};
                           return vekrSurfSmoothNormal_32f(F(a[0]), I(a[1]), I(a[2]), uv, P3(a, 5).c, n, stride);
                       }});
    }
    // One triangle per "ray": its own three vertices, a four-entry row whose
    // fourth entry is a wild index (it must not be read) and a normal.
    ops.push_back({"TriangleNormal_32f",
                   {ArrayShape{false, 9, 0, Content::Values}, ArrayShape{true, 4, 0, Content::OwnVertices},
                    ArrayShape{false, 3, 0, Content::Values}},
                   [](void* const* a, int n) { return vekrTriangleNormal_32f(F(a[0]), I(a[1]), F(a[2]), n); }});
    return ops;
}

// Fills the array described by `shape` for `count` rays. `pattern` (bits 0-3) marks the lanes
// of the first packet that are masked (mask -1) or miss (index -1); later
// lanes are random.
inline void fillArray(const ArrayShape& shape, void* p, int count, unsigned pattern, vt::Rng& rng) {
    const int n = shape.elements(count);
    if (!shape.isInt) {
        const std::vector<float> v = floats(rng, static_cast<std::size_t>(n), -3, 3);
        std::memcpy(p, v.data(), v.size() * sizeof(float));
        return;
    }
    std::int32_t* q = static_cast<std::int32_t*>(p);
    for (int i = 0; i < n; ++i) {
        const bool off = i < 4 && ((pattern >> i) & 1u);
        switch (shape.content) {
        case Content::Mask: {
            static const std::int32_t kLive[] = {0, 1, 7, INT32_MAX};
            static const std::int32_t kDead[] = {-1, -2, INT32_MIN};
            q[i] = i < 4 ? (off ? kDead[rng.below(3)] : kLive[rng.below(4)])
                         : (rng.below(3) == 0 ? kDead[rng.below(3)] : kLive[rng.below(4)]);
            break;
        }
        case Content::TriIndex:
            q[i] = (i < 4 ? off : rng.below(4) == 0) ? (rng.below(2) ? -1 : INT32_MIN) : rng.below(kTableTriangles);
            break;
        case Content::TriVertices:
            q[i] = rng.below(kTableVertices);
            break;
        case Content::OwnVertices:
            q[i] = (i & 3) == 3 ? INT32_MIN + rng.below(1000) : 3 * (i / 4) + (i & 3);
            break;
        default:
            q[i] = 0;
        }
    }
}

}  // namespace st

#endif  // VEKR_TESTS_SHADING_PACKET_OP_TABLE_H
