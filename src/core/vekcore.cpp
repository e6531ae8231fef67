// The core services: 16-byte (in fact 64-byte) aligned allocation and the
// process-wide thread count.
#include "vekcore.h"

#include <atomic>
#include <cstdlib>
#include <sched.h>
#include <unistd.h>

namespace {

// Allocations are aligned to a cache line: more than the 16 bytes promised,
// so that blocks handed to different threads never share a line.
constexpr std::size_t kAlignment = 64;

// The number of processors this process may run on (its affinity mask), which
// can be fewer than the machine has.
int ownAvailableProcessors() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) == 0) {
        int n = CPU_COUNT(&set);
        if (n > 0) return n;
    }
    long n = sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? static_cast<int>(n) : 1;
}

// The one setting of the library family. 0 means "not set yet": the default is
// read on first use, so that loading the library does no work.
std::atomic<int> gNumThreads{0};

}  // namespace

extern "C" {

void* vekMalloc(int numBytes) {
    if (numBytes < 1) return nullptr;
    void* p = nullptr;
    if (posix_memalign(&p, kAlignment, static_cast<std::size_t>(numBytes)) != 0) return nullptr;
    return p;
}

void vekFree(void* ptr) { std::free(ptr); }

int ownGetNumThreads(void) {
    int n = gNumThreads.load(std::memory_order_relaxed);
    if (n > 0) return n;
    int expected = 0;
    int fresh = ownAvailableProcessors();
    // Another thread may have set a value meanwhile; that value wins.
    if (!gNumThreads.compare_exchange_strong(expected, fresh, std::memory_order_relaxed)) return expected;
    return fresh;
}

VekStatus vekSetNumThreads(int numThreads) {
    if (numThreads < 1) return vekStatusBadSize;
    gNumThreads.store(numThreads, std::memory_order_relaxed);
    return vekStatusOk;
}

VekStatus vekGetNumThreads(int* pNumThreads) {
    if (pNumThreads == nullptr) return vekStatusNullPtr;
    *pNumThreads = ownGetNumThreads();
    return vekStatusOk;
}

}  // extern "C"
