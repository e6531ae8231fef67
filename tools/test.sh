#!/usr/bin/env bash
# Sets up a fresh machine, builds both targets (x86-64 with -Werror) and the
# x86-64 sanitizer build, and runs every test on all three; then the i386
# sanitizer build, ThreadSanitizer and a bounded run of every fuzzer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh
status=0
for target in i386 x86_64 asan; do
  extra=()
  [ "$target" = x86_64 ] && extra=(-DVEKR_WERROR=ON)
  echo "== build $target"
  bash tools/build.sh "$target" "${extra[@]}"
  echo "== test $target"
  if [ "$target" = asan ]; then
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  fi
  (cd "build-$target" && ctest --output-on-failure -j1) || status=1
done
echo "== sanitizers: i386 ASan/UBSan, ThreadSanitizer"
bash tools/sanitize.sh asan-i386 || status=1
bash tools/sanitize.sh tsan || status=1
echo "== fuzz: every harness for a minute"
bash tools/fuzz.sh ci 60 || status=1
[ $status -eq 0 ] && echo "all tests passed on i386, x86_64, asan, asan-i386, tsan and fuzz" || echo "tests FAILED"
exit $status
