#!/usr/bin/env bash
# sanitize.sh TARGET: builds and tests one sanitizer configuration.
#   asan-i386  the 32-bit build under AddressSanitizer and UndefinedBehaviorSanitizer
#              (gcc -m32, Debian's lib32asan8/lib32ubsan1), every test, in build-asan-i386
#   tsan       clang with ThreadSanitizer and LLVM's OpenMP runtime, whose archer
#              tool tells the sanitizer about the runtime's own synchronisation;
#              runs the parallel-region and concurrent-caller test, in build-tsan
# (The x86-64 ASan/UBSan build is build.sh asan.)
set -euo pipefail
cd "$(dirname "$0")/.."
target=${1:?usage: sanitize.sh asan-i386|tsan}
jobs=$(nproc)
case "$target" in
  asan-i386)
    cmake -S . -B build-asan-i386 -DCMAKE_TOOLCHAIN_FILE=cmake/i386.cmake -DVEKR_SANITIZE=ON \
      -DVEKR_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build build-asan-i386 -j"$jobs"
    # LeakSanitizer does not run on i386; everything else halts on the first report.
    export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    (cd build-asan-i386 && ctest --output-on-failure -j1)
    ;;
  tsan)
    flags="-fsanitize=thread -g -O1"
    cmake -S . -B build-tsan -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
      -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DVEKR_BUILD_BENCH=OFF -DVEKR_BUILD_EXAMPLES=OFF >/dev/null
    cmake --build build-tsan -j"$jobs" --target test_threads
    archer=$(ls /usr/lib/llvm-*/lib/libarcher.so 2>/dev/null | sort -V | tail -n 1)
    [ -n "$archer" ] || { echo "sanitize.sh: libarcher.so not found (libomp-dev)" >&2; exit 1; }
    export OMP_TOOL_LIBRARIES=$archer ARCHER_OPTIONS=verbose=1
    # The runtime itself is not instrumented; its internal locking is not ours to report.
    export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:exitcode=66:ignore_noninstrumented_modules=1
    (cd build-tsan && ctest --output-on-failure -R '^test_threads$')
    ;;
  *) echo "sanitize.sh: unknown target $target (asan-i386, tsan)" >&2; exit 2 ;;
esac
