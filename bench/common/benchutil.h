// Timing helpers for the benchmarks: best-of-N wall time and peak memory.
#ifndef VEKR_BENCH_BENCHUTIL_H
#define VEKR_BENCH_BENCHUTIL_H

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>

namespace vb {

// Seconds taken by one call of fn.
inline double timeOnce(const std::function<void()>& fn) {
    auto t0 = std::chrono::steady_clock::now();
    fn();
    auto t1 = std::chrono::steady_clock::now();
    return std::chrono::duration<double>(t1 - t0).count();
}

// The fastest of `reps` runs (after one warm-up run), in seconds: the least
// disturbed measurement on a shared machine.
inline double bestOf(int reps, const std::function<void()>& fn) {
    fn();
    double best = 1e300;
    for (int i = 0; i < reps; ++i) best = std::min(best, timeOnce(fn));
    return best;
}

// Runs fn repeatedly for at least minSeconds and returns the best time of one call.
inline double bestFor(double minSeconds, const std::function<void()>& fn) {
    fn();
    double best = 1e300, total = 0;
    int n = 0;
    while (total < minSeconds || n < 3) {
        double t = timeOnce(fn);
        best = std::min(best, t);
        total += t;
        ++n;
    }
    return best;
}

// Peak resident memory of this process so far, in MiB.
inline double peakRssMiB() {
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_maxrss / 1024.0;
}

// "x86-64" or "i386": the target this benchmark was built for.
inline const char* targetName() { return sizeof(void*) == 8 ? "x86-64" : "i386"; }

}  // namespace vb

#endif  // VEKR_BENCH_BENCHUTIL_H
