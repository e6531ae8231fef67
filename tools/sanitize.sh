#!/usr/bin/env bash
# sanitize.sh tsan: builds and tests the ThreadSanitizer configuration:
#   tsan       clang with ThreadSanitizer and LLVM's OpenMP runtime, whose archer
#              tool tells the sanitizer about the runtime's own synchronisation;
#              runs the parallel-region and concurrent-caller test, in build-tsan
# (The ASan/UBSan builds are build.sh asan and asan-i386.)
set -euo pipefail
cd "$(dirname "$0")/.."
target=${1:?usage: sanitize.sh tsan}
jobs=$(nproc)
case "$target" in
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
  *) echo "sanitize.sh: unknown target $target (tsan)" >&2; exit 2 ;;
esac
