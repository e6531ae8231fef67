// The guard-page placement itself: a byte past either end of a guarded array
// faults, the requested alignment is kept, and a write into the alignment
// slack is seen.
#include <gtest/gtest.h>

#include <cstdint>

#include "guard_page.h"

namespace {

using vt::Guarded;
using vt::GuardSide;

volatile unsigned char gSink;

TEST(GuardPage, PlacementKeepsOffsetAndTouchesTheGuard) {
    for (std::size_t n : {0u, 1u, 3u, 4u, 5u, 8u, 9u, 1023u, 4096u}) {
        for (std::size_t off : {0u, 4u, 8u, 12u}) {
            Guarded<float> after(n, off, GuardSide::After);
            Guarded<float> before(n, off, GuardSide::Before);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(after.data()) & 15u, off) << n;
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(before.data()) & 15u, off) << n;
            EXPECT_EQ(after.size(), n);
            // The gap to the guard page is less than one 16-byte step.
            const std::uintptr_t end = reinterpret_cast<std::uintptr_t>(after.data() + n);
            const std::uintptr_t page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
            EXPECT_LT(((end + page - 1) / page) * page - end, 16u) << n << " " << off;
            EXPECT_TRUE(after.slackIntact());
            EXPECT_TRUE(before.slackIntact());
        }
    }
}

TEST(GuardPage, WriteIntoSlackIsSeen) {
    Guarded<float> a(5, 0, GuardSide::After);  // 20 bytes at an aligned start: 12 bytes of slack
    reinterpret_cast<unsigned char*>(a.data() + 5)[0] = 0;
    EXPECT_FALSE(a.slackIntact());
    Guarded<float> b(5, 8, GuardSide::Before);  // 8 bytes of slack before the array
    reinterpret_cast<unsigned char*>(b.data())[-1] = 0;
    EXPECT_FALSE(b.slackIntact());
}

TEST(GuardPageDeathTest, ByteBeyondEitherEndFaults) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Guarded<float> a(8, 0, GuardSide::After);
            gSink = reinterpret_cast<const unsigned char*>(a.data() + 8)[0];
        },
        "");
    EXPECT_DEATH(
        {
            Guarded<float> b(8, 0, GuardSide::Before);
            gSink = reinterpret_cast<const unsigned char*>(b.data())[-1];
        },
        "");
}

}  // namespace
