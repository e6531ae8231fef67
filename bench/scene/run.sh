#!/usr/bin/env bash
# Runs the KD-tree build benchmark from both build directories (nothing is
# built here) and prints one markdown table. Timings are best-of-N; run it on
# a quiet machine.
#   bench/scene/run.sh [BUILD_X86_64 [BUILD_I386]] [-- bench options, e.g. --quick]
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
b64=${1:-$root/build-x86_64}
b32=${2:-$root/build-i386}
shift $(( $# < 2 ? $# : 2 )) || true
[ "${1:-}" = "--" ] && shift
first=1
for dir in "$b64" "$b32"; do
  exe="$dir/bin/bench_scene"
  if [ ! -x "$exe" ]; then echo "missing $exe (build the bench_scene target first)" >&2; exit 1; fi
  if [ $first = 1 ]; then "$exe" --header "$@"; first=0; else "$exe" "$@"; fi
done
