#!/usr/bin/env bash
# Sets up a fresh machine, builds every configuration and runs its tests (i386,
# x86-64, and both under AddressSanitizer + UndefinedBehaviorSanitizer), then
# the steps that need builds of their own or the ones above: ThreadSanitizer,
# a bounded run of every fuzzer, the Python package, packages and consumers,
# the demo check. Each step's time is printed; the whole run is meant to stay
# under 30 minutes on a 2-core machine.
# A configuration that runs no test fails. To add a configuration, add it to
# tools/build.sh and to `configs`; to add a step, write a step_NAME function
# and add NAME to `steps`.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

configs=(i386 x86_64 asan asan-i386)
steps=(tsan fuzz python sdk demo_order)

# Builds one configuration (tools/build.sh passes every option explicitly, so
# whatever the cache held, tests are on).
step_build() {
  bash tools/build.sh "$1"
}

# Runs the configuration's tests; a build without tests is an error.
step_test() {
  # Sanitizer reports halt the test; LeakSanitizer does not run on i386.
  local env=() leaks=1
  [ "$1" = asan-i386 ] && leaks=0
  case "$1" in asan*)
    env=(ASAN_OPTIONS=detect_leaks=$leaks:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1) ;;
  esac
  (cd "build-$1" && env "${env[@]}" ctest --output-on-failure --no-tests=error -j1)
}

# ThreadSanitizer over every parallel region and concurrent callers
# (tools/sanitize.sh).
step_tsan() {
  bash tools/sanitize.sh tsan
}

# Every fuzzer for a minute on its corpus (tools/fuzz.sh).
step_fuzz() {
  bash tools/fuzz.sh ci 60
}

# The Python package: pytest in the build tree, then an import from an
# installed tree (tools/test_python.sh).
step_python() {
  bash tools/test_python.sh
}

# Installs the i386 and x86-64 builds, builds the Debian packages, installs
# them and builds the example consumer against each (tools/sdk_test.sh).
step_sdk() {
  bash tools/sdk_test.sh
}

# The README's demo command run after the tests must leave the x86-64
# configuration as it was: the same tests registered, and reconfiguring it as
# this script does rebuilds nothing.
step_demo_order() {
  local before after rebuilt
  before=$(cd build-x86_64 && ctest -N | grep -E '^Total Tests: [1-9]') || return 1
  bash tools/demo.sh --quiet --size 96x64 --output "build-x86_64/demo-order.png" >/dev/null || return 1
  rebuilt=$(bash tools/build.sh x86_64 | grep -E '^\[ *[0-9]+%\] (Building|Linking)') || true
  after=$(cd build-x86_64 && ctest -N | grep -E '^Total Tests: [1-9]') || return 1
  echo "before the demo: $before; after it: $after"
  [ "$before" = "$after" ] || { echo "the demo changed the test configuration"; return 1; }
  [ -z "$rebuilt" ] || { echo "the demo left build-x86_64 needing a rebuild:"; echo "$rebuilt"; return 1; }
}

start=$SECONDS
bash tools/setup.sh
passed=0 failed=0 failures=() times=("$(printf '%4d s  %s' $SECONDS setup)")
run() {
  local t0=$SECONDS status=0
  echo "== $*"
  "$@" || status=$?
  times+=("$(printf '%4d s  %s' $((SECONDS - t0)) "$*")")
  echo "-- $* took $((SECONDS - t0)) s"
  if [ $status -eq 0 ]; then passed=$((passed + 1)); return 0; fi
  failed=$((failed + 1)); failures+=("$*"); return 1
}
for config in "${configs[@]}"; do
  { run step_build "$config" && run step_test "$config"; } || true
done
for step in "${steps[@]}"; do
  run "step_$step" || true
done

if [ $failed -eq 0 ]; then
  echo "all tests passed on ${configs[*]}; steps ${steps[*]} passed"
else
  echo "FAILED: ${failures[*]}"
fi
printf '%s\n' "${times[@]}"
echo "test.sh: $passed passed, $failed failed in $(((SECONDS - start) / 60)) min $(((SECONDS - start) % 60)) s"
[ $failed -eq 0 ]
