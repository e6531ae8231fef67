// The frame: version record, core allocation and the thread-count services.
#include <cstdint>
#include <cstring>

#include "testutil.h"
#include "vekcore.h"
#include "vekr.h"

TEST(Version, RecordHoldsThisBuild) {
    const VekLibraryVersion* v = vekrGetLibVersion();
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v, vekrGetLibVersion()) << "the same record on every call";
    EXPECT_EQ(v->major, 7);
    EXPECT_EQ(v->minor, 0);
    EXPECT_EQ(v->majorBuild, 205);
    EXPECT_EQ(v->build, 937);
    const char cpu[4] = {'s', '8', 0, 0};
    EXPECT_EQ(std::memcmp(v->targetCpu, cpu, 4), 0);
    EXPECT_STREQ(v->name, "vekrs8-7.0.dll");
    EXPECT_STREQ(v->version, "7.0 build 205.85");
    EXPECT_STREQ(v->buildDate, "Nov 26 2011");
}

TEST(Core, MallocIsAlignedAndRejectsCountsBelowOne) {
    for (int n : {1, 3, 16, 17, 1000, 1 << 20}) {
        void* p = vekMalloc(n);
        ASSERT_NE(p, nullptr) << n;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u) << n;
        std::memset(p, 0x5A, static_cast<std::size_t>(n));  // the whole block is usable
        vekFree(p);
    }
    EXPECT_EQ(vekMalloc(0), nullptr);
    EXPECT_EQ(vekMalloc(-1), nullptr);
    EXPECT_EQ(vekMalloc(INT32_MIN), nullptr);
    vekFree(nullptr);  // accepted and ignored
}

TEST(Core, ThreadCountSetGetAndChecks) {
    int saved = 0;
    ASSERT_EQ(vekGetNumThreads(&saved), vekStatusOk);
    EXPECT_GE(saved, 1);
    EXPECT_EQ(ownGetNumThreads(), saved);

    EXPECT_EQ(vekGetNumThreads(nullptr), vekStatusNullPtr);
    EXPECT_EQ(vekSetNumThreads(0), vekStatusBadSize);
    EXPECT_EQ(vekSetNumThreads(-3), vekStatusBadSize);
    EXPECT_EQ(ownGetNumThreads(), saved) << "a rejected count changes nothing";

    ASSERT_EQ(vekSetNumThreads(5), vekStatusOk);
    int n = 0;
    EXPECT_EQ(vekGetNumThreads(&n), vekStatusOk);
    EXPECT_EQ(n, 5);
    EXPECT_EQ(ownGetNumThreads(), 5);
    ASSERT_EQ(vekSetNumThreads(saved), vekStatusOk);
}

// The test helpers themselves: buffers land where asked, canaries see writes.
TEST(TestHelpers, BuffersAndCanaries) {
    for (std::size_t off : {0u, 4u, 8u, 12u}) {
        vt::Buf<float> b(7, off);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b.data()) % 16, off);
    }
    vt::Buf<int> c(9, 4);
    vt::fillCanary(c);
    EXPECT_TRUE(vt::CanaryIntact(c));
    c[8] = 0;
    EXPECT_FALSE(vt::CanaryIntact(c));
    float a[2] = {0.0f, 1.0f}, b2[2] = {-0.0f, 1.0f};
    EXPECT_FALSE(vt::SameBits(a, b2, 2)) << "+0 and -0 differ in bits";
}
