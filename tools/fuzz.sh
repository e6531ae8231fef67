#!/usr/bin/env bash
# fuzz.sh build [ci]          configures and builds the libFuzzer programs (clang,
#                             AddressSanitizer + UndefinedBehaviorSanitizer) in build-fuzz
# fuzz.sh ci [SECONDS]        builds, then runs every harness SECONDS (default 60) on
#                             its seed corpus and past findings; fails on any finding
# fuzz.sh run HARNESS [ARGS]  a long campaign of one harness (scene, shading, sh,
#                             volume): corpus kept in fuzz-work/HARNESS, findings in
#                             fuzz-work/, ARGS passed to libFuzzer (e.g. -runs=10000000)
set -euo pipefail
cd "$(dirname "$0")/.."
harnesses=(scene shading sh volume)
# Sanitizer reports end the run; an idle OpenMP worker sleeps at once instead
# of spinning (the harnesses fork small teams on every run, often on a busy machine).
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 KMP_BLOCKTIME=0

# build [ci]: the campaign build, at -O2 with every check; or, with ci, the
# build of the short CI runs: at -O1 and without UBSan's pointer-overflow
# check, which together cut it from 3.7 to about 1.2 minutes on 2 cores
# (clang spends most of its time on the checks of the interpolation
# kernels' address arithmetic). The GCC sanitizer builds keep that check on
# both targets, over every test and every stored fuzz input.
build() {
  # No comparison tracing: the harnesses derive values from the input, and the
  # tracing of every compare in the interpolation loops cost a third of the time.
  local flags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-coverage=trace-cmp"
  flags+=" -fno-sanitize-recover=undefined -fno-omit-frame-pointer -gline-tables-only"
  local release="-O2 -DNDEBUG"
  if [ "${1:-}" = ci ]; then
    flags+=" -fno-sanitize=pointer-overflow"
    release="-O1 -DNDEBUG"
  fi
  cmake -S . -B build-fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_C_FLAGS_RELEASE="$release" \
    -DCMAKE_CXX_FLAGS_RELEASE="$release" -DVEKR_FUZZ=ON \
    -DVEKR_BUILD_BENCH=OFF -DVEKR_BUILD_EXAMPLES=OFF >/dev/null
  cmake --build build-fuzz -j"$(nproc)" --target "${harnesses[@]/#/fuzz_}"
}

# ci_run HARNESS SECONDS: one bounded run from the seeds and past findings;
# libFuzzer's exit status (non-zero on a finding) goes to ci-HARNESS.status.
ci_run() {
  local h=$1 work=build-fuzz/ci-corpus/$1 status=0
  rm -rf "$work" && mkdir -p "$work"
  ./build-fuzz/bin/fuzz_$h -max_total_time="$2" -timeout=30 -print_final_stats=1 \
    -artifact_prefix=build-fuzz/ci-$h- "$work" $(inputs "$h") >build-fuzz/ci-$h.log 2>&1 || status=$?
  echo $status >build-fuzz/ci-$h.status
}

# The corpus directories of a harness that exist: a harness without stored
# regression inputs has no regressions/<harness> in a fresh clone (git keeps
# no empty directories), and libFuzzer stops on a missing directory.
inputs() {
  local d
  for d in tests/fuzz/corpus/$1 tests/fuzz/regressions/$1; do
    [ -d "$d" ] && echo "$d"
  done
}

case "${1:-}" in
  build) build "${2:-}" ;;
  ci)
    secs=${2:-60}
    build ci
    # As many harnesses at a time as there are cores.
    rm -f build-fuzz/ci-*.status
    pids=()
    for h in "${harnesses[@]}"; do
      ci_run "$h" "$secs" &
      pids+=($!)
      if [ ${#pids[@]} -ge "$(nproc)" ]; then wait "${pids[0]}"; pids=("${pids[@]:1}"); fi
    done
    wait
    status=0
    for h in "${harnesses[@]}"; do
      log=build-fuzz/ci-$h.log
      if [ "$(cat build-fuzz/ci-$h.status 2>/dev/null)" = 0 ]; then
        runs=$(grep -oE 'number_of_executed_units: *[0-9]+' "$log" | grep -oE '[0-9]+$' || true)
        cov=$(grep -E '^#[0-9]+' "$log" | tail -n 1 | grep -oE 'cov: [0-9]+ ft: [0-9]+' || true)
        echo "fuzz $h: ${runs:-?} runs in ${secs} s, $cov, no finding"
      else
        echo "fuzz $h: FINDING (input in build-fuzz/ci-$h-*)"; tail -n 40 "$log"; status=1
      fi
    done
    exit $status
    ;;
  run)
    h=${2:?usage: fuzz.sh run HARNESS [libFuzzer args]}; shift 2
    build >/dev/null
    mkdir -p fuzz-work/$h
    exec ./build-fuzz/bin/fuzz_$h -timeout=30 -print_final_stats=1 -artifact_prefix=fuzz-work/$h- "$@" \
      fuzz-work/$h $(inputs "$h")
    ;;
  *) sed -n '2,8p' "$0" | sed 's/^# \{0,1\}//'; exit 2 ;;
esac
