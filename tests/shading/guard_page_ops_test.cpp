// Every per-ray operation with its arrays against inaccessible pages: a load or
// store one byte past either end of any array faults, a write into the
// alignment slack is caught by its canary, and the results must equal those
// of the same call on ordinary aligned buffers bit for bit (so the vector
// paths and the scalar rule agree at every count and alignment). Bad counts
// must leave every byte as it was.
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "guard_page.h"
#include "packet_op_table.h"
#include "testutil.h"
#include "vekcore.h"

namespace {

using st::PacketOp;

const int kCounts[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 15, 16, 17, 31, 32, 33};
constexpr int kTail = 5;  // elements behind the count in the reference buffers

std::size_t elemBytes(const st::ArrayShape& s, int count) { return static_cast<std::size_t>(s.elements(count)) * 4; }

bool usesPattern(const PacketOp& op) {
    for (const auto& s : op.arrays)
        if (s.content == st::Content::Mask || s.content == st::Content::TriIndex) return true;
    return false;
}

// The input bytes of every array for one run.
std::vector<std::vector<std::uint8_t>> makeInputs(const PacketOp& op, int count, unsigned pattern, std::uint64_t seed) {
    vt::Rng rng(seed);
    std::vector<std::vector<std::uint8_t>> in;
    for (const auto& s : op.arrays) {
        std::vector<std::uint8_t> b(elemBytes(s, count));
        if (!b.empty()) st::fillArray(s, b.data(), count, pattern, rng);
        in.push_back(std::move(b));
    }
    return in;
}

struct Outcome {
    VekStatus status;
    std::vector<std::vector<std::uint8_t>> arrays;
};

// The call on aligned ordinary buffers with kTail canary elements behind each
// array; the tail must come back untouched.
Outcome runReference(const PacketOp& op, int count, const std::vector<std::vector<std::uint8_t>>& in) {
    std::vector<vt::Buf<std::uint8_t>> bufs;
    std::vector<void*> ptrs;
    for (const auto& b : in) {
        bufs.emplace_back(b.size() + 4 * kTail, 0);
        vt::fillCanary(bufs.back());
        if (!b.empty()) std::memcpy(bufs.back().data(), b.data(), b.size());
    }
    for (auto& b : bufs) ptrs.push_back(b.data());
    Outcome out{op.call(ptrs.data(), count), {}};
    for (std::size_t k = 0; k < bufs.size(); ++k) {
        EXPECT_TRUE(vt::CanaryIntact(bufs[k].data() + in[k].size(), 4 * kTail))
            << op.name << " count " << count << ": wrote past the count in array " << k;
        out.arrays.emplace_back(bufs[k].data(), bufs[k].data() + in[k].size());
    }
    return out;
}

// Where the runner puts array k: `offset` bytes past a 16-byte boundary, or
// (mixed) a different offset per array so that no two arrays share one.
std::size_t offsetOf(int mode, std::size_t k) { return mode < 4 ? 4u * mode : (4u * k) & 15u; }
const char* modeName(int mode) {
    static const char* kNames[] = {"offset 0", "offset 4", "offset 8", "offset 12", "mixed offsets"};
    return kNames[mode];
}

TEST(PacketOpsGuardPages, NoAccessOutsideAnyArrayAndSameBitsAsAlignedBuffers) {
    for (const PacketOp& op : st::packetOps()) {
        const unsigned numPatterns = usesPattern(op) ? 16 : 1;
        for (int count : kCounts) {
            std::vector<std::vector<std::vector<std::uint8_t>>> inputs;
            std::vector<Outcome> refs;
            for (unsigned pat = 0; pat < numPatterns; ++pat) {
                inputs.push_back(makeInputs(op, count, pat, 1000u * count + pat));
                refs.push_back(runReference(op, count, inputs.back()));
            }
            for (int mode = 0; mode < 5; ++mode)
                for (vt::GuardSide side : {vt::GuardSide::After, vt::GuardSide::Before}) {
                    const std::string where = std::string(op.name) + " count " + std::to_string(count) + ", " +
                                              modeName(mode) +
                                              (side == vt::GuardSide::After ? ", guard after" : ", guard before");
                    std::vector<vt::GuardedBytes> arrays;
                    std::vector<void*> ptrs;
                    for (std::size_t k = 0; k < op.arrays.size(); ++k)
                        arrays.emplace_back(elemBytes(op.arrays[k], count), offsetOf(mode, k), side);
                    for (auto& a : arrays) ptrs.push_back(a.data());
                    for (unsigned pat = 0; pat < numPatterns; ++pat) {
                        for (std::size_t k = 0; k < arrays.size(); ++k)
                            std::memcpy(arrays[k].data(), inputs[pat][k].data(), inputs[pat][k].size());
                        const VekStatus s = op.call(ptrs.data(), count);
                        ASSERT_EQ(s, refs[pat].status) << where << ", pattern " << pat;
                        for (std::size_t k = 0; k < arrays.size(); ++k) {
                            ASSERT_TRUE(arrays[k].slackIntact()) << where << ", array " << k;
                            ASSERT_TRUE(vt::SameBits(refs[pat].arrays[k].data(), arrays[k].data(),
                                                     refs[pat].arrays[k].size()))
                                << where << ", pattern " << pat << ", array " << k;
                        }
                    }
                }
        }
    }
}

// Counts below 1: every operation returns vekStatusOk and touches no byte of
// any array (arrays against a guard page on either side, so a stray access
// before the start faults as well).
TEST(PacketOpsBadCounts, CountsBelowOneTouchNothing) {
    for (const PacketOp& op : st::packetOps())
        for (int count : {0, -1, -3, -4, -5, INT_MIN})
            for (vt::GuardSide side : {vt::GuardSide::Before, vt::GuardSide::After}) {
                const auto in = makeInputs(op, 8, 0, 77);
                std::vector<vt::GuardedBytes> arrays;
                std::vector<void*> ptrs;
                for (const auto& b : in) {
                    arrays.emplace_back(b.size(), 4, side);
                    std::memcpy(arrays.back().data(), b.data(), b.size());
                    ptrs.push_back(arrays.back().data());
                }
                EXPECT_EQ(op.call(ptrs.data(), count), vekStatusOk) << op.name << " count " << count;
                for (std::size_t k = 0; k < in.size(); ++k) {
                    EXPECT_TRUE(arrays[k].slackIntact()) << op.name << " count " << count;
                    EXPECT_TRUE(vt::SameBits(in[k].data(), arrays[k].data(), in[k].size()))
                        << op.name << " count " << count << ", array " << k;
                }
            }
}

// The fault that started this: a negative count made the division's
// alignment-peeling loop round its remainder down to a negative multiple of 4
// and divide the elements before the arrays (counts -1, -3 and -5 returned
// vekStatusOk after reading and writing pSrcDst[-4] .. pSrcDst[-2]).
TEST(PacketOpsBadCounts, DivNegativeCountDoesNotReachBeforeTheArrays) {
    for (int count : {-1, -3, -5}) {
        vt::Guarded<float> src(std::vector<float>{2, 2, 2, 2}, 0, vt::GuardSide::Before);
        vt::Guarded<std::int32_t> mask(std::vector<std::int32_t>{0, 0, 0, 0}, 0, vt::GuardSide::Before);
        vt::Guarded<float> dst(std::vector<float>{1, 1, 1, 1}, 4, vt::GuardSide::Before);
        EXPECT_EQ(vekrDiv_32f_C1IM(src.data(), mask.data(), dst.data(), count), vekStatusOk);
        EXPECT_TRUE(dst.slackIntact());
        EXPECT_TRUE(vt::SameBits(dst.vec(), std::vector<float>{1, 1, 1, 1}));
    }
}

// Eye-ray blocks of more than INT32_MAX rays cannot match arrays the caller
// holds (the product wraps in 32 bits): vekStatusBadSize, nothing written.
TEST(PacketOpsBadSizes, EyeRayBlocksThatOverflowAreRefused) {
    const float origin[3] = {0, 0, 1}, stepX[3] = {1, 0, 0}, stepY[3] = {0, 1, 0};
    const int kSizes[][2] = {{65536, 65536}, {46341, 46341}, {INT_MAX, 2}, {2, INT_MAX}, {65536, 32768}};
    for (const auto& s : kSizes)
        for (vt::GuardSide side : {vt::GuardSide::After, vt::GuardSide::Before}) {
            vt::GuardedPlanes<float> dir(16, 0, side);
            for (int c = 0; c < 3; ++c) dir.p[c].fill(-7.25f);
            const auto before = dir.bytes();
            EXPECT_EQ(vekrCastEye_32f(origin, stepX, stepY, 0, 0, 4, 4, dir.ptrs(), s[0], s[1]), vekStatusBadSize)
                << s[0] << "x" << s[1];
            EXPECT_TRUE(vt::SameBits(before, dir.bytes()));
        }
    // The largest block that fits still runs: one row of width 65535 x 32768 is
    // not needed to show it; a 65535 x 1 block is written in full.
    vt::GuardedPlanes<float> dir(65535, 0, vt::GuardSide::After);
    EXPECT_EQ(vekrCastEye_32f(origin, stepX, stepY, 0, 0, 4, 4, dir.ptrs(), 65535, 1), vekStatusOk);
    EXPECT_EQ(dir.p[0][65534], 65534.0f);
    EXPECT_TRUE(dir.slackIntact());
}

// A triangle count whose 16-byte rows cannot fit in the address space (only
// possible on 32-bit targets) is refused before any thread starts.
TEST(PacketOpsBadSizes, TriangleNormalCountBeyondTheAddressSpaceIsRefused) {
    if (sizeof(void*) != 4) GTEST_SKIP() << "every int count fits the address space here";
    vt::Guarded<float> vert(9), out(3);
    vt::Guarded<std::int32_t> tri(std::vector<std::int32_t>{0, 1, 2, 0});
    out.fill(-7.25f);
    for (int n : {INT_MAX, 134217728})
        EXPECT_EQ(vekrTriangleNormal_32f(vert.data(), tri.data(), out.data(), n), vekStatusBadSize) << n;
    EXPECT_TRUE(vt::SameBits(out.vec(), std::vector<float>(3, -7.25f)));
}

// The largest thread count a caller can set: the team is never larger than
// the work (libgomp ended the process when asked for INT_MAX threads), and
// the normals are those of a single thread.
TEST(PacketOpsBadSizes, TriangleNormalWithTheLargestThreadCount) {
    int saved = 0;
    ASSERT_EQ(vekGetNumThreads(&saved), vekStatusOk);
    vt::Rng rng(9);
    const int n = 5;
    const std::vector<float> vert = st::floats(rng, 9 * n, -2, 2, 0);
    std::vector<std::int32_t> tri;
    for (int t = 0; t < n; ++t) tri.insert(tri.end(), {3 * t, 3 * t + 1, 3 * t + 2, -1});
    std::vector<float> one(3 * n), many(3 * n);
    ASSERT_EQ(vekSetNumThreads(1), vekStatusOk);
    EXPECT_EQ(vekrTriangleNormal_32f(vert.data(), tri.data(), one.data(), n), vekStatusOk);
    ASSERT_EQ(vekSetNumThreads(INT_MAX), vekStatusOk);
    EXPECT_EQ(vekrTriangleNormal_32f(vert.data(), tri.data(), many.data(), n), vekStatusOk);
    ASSERT_EQ(vekSetNumThreads(saved), vekStatusOk);
    EXPECT_TRUE(vt::SameBits(one, many));
}

}  // namespace
