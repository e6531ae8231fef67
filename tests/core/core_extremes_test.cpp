// The core services at the ends of their argument ranges: the allocator with
// the largest and the negative byte counts, the thread count with INT_MIN and
// INT_MAX.
#include <climits>
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

#include "vekcore.h"
#include "vekr.h"

namespace {

TEST(CoreExtremes, MallocOfTheLargestCountIsNullOrWholeAndAligned) {
#if defined(__SANITIZE_ADDRESS__)
    // The sanitizer's allocator ends the process on a failed allocation
    // instead of returning null; stay within what it can always map.
    const int kLarge[] = {1 << 28};
#else
    const int kLarge[] = {INT_MAX, INT_MAX - 15, 1 << 30};
#endif
    for (int n : kLarge) {
        unsigned char* p = static_cast<unsigned char*>(vekMalloc(n));
        if (p == nullptr) continue;  // refused: the only other outcome allowed
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);
        p[0] = 1;
        p[n - 1] = 2;  // the last byte belongs to the block
        EXPECT_EQ(p[0] + p[n - 1], 3);
        vekFree(p);
    }
    for (int n : {0, -1, -3, INT_MIN}) EXPECT_EQ(vekMalloc(n), nullptr) << n;
    vekFree(nullptr);  // accepted, does nothing
}

TEST(CoreExtremes, ThreadCountKeepsItsValueOnBadInputAndTakesIntMax) {
    int saved = 0;
    ASSERT_EQ(vekGetNumThreads(&saved), vekStatusOk);
    ASSERT_EQ(vekSetNumThreads(3), vekStatusOk);
    for (int n : {0, -1, -3, INT_MIN}) EXPECT_EQ(vekSetNumThreads(n), vekStatusBadSize) << n;
    int now = 0;
    EXPECT_EQ(vekGetNumThreads(&now), vekStatusOk);
    EXPECT_EQ(now, 3);
    EXPECT_EQ(ownGetNumThreads(), 3);
    ASSERT_EQ(vekSetNumThreads(INT_MAX), vekStatusOk);
    EXPECT_EQ(vekGetNumThreads(&now), vekStatusOk);
    EXPECT_EQ(now, INT_MAX);
    EXPECT_EQ(vekGetNumThreads(nullptr), vekStatusNullPtr);
    ASSERT_EQ(vekSetNumThreads(saved), vekStatusOk);
}

TEST(CoreExtremes, VersionRecordIsConstantAndTerminated) {
    const VekLibraryVersion* v = vekrGetLibVersion();
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v, vekrGetLibVersion());
    EXPECT_EQ(std::memcmp(v->targetCpu, "s8\0\0", 4), 0);
    EXPECT_LT(std::strlen(v->name), 64u);
    EXPECT_LT(std::strlen(v->version), 64u);
    EXPECT_LT(std::strlen(v->buildDate), 64u);
}

}  // namespace
