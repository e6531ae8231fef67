#!/usr/bin/env bash
# Throughput of the intersection queries on the bunny, one thread, both targets,
# packet path (aligned arrays) against per-ray path (the same rays 4 bytes off),
# as one markdown table. Usage: run.sh [x86-64 build dir] [i386 build dir] [bench args]
set -euo pipefail
b64=${1:-/work/main/build-x86_64}
b32=${2:-/work/main/build-i386}
shift $(( $# < 2 ? $# : 2 ))
echo "## Intersection queries on the bunny (69,666 triangles), one thread"
echo
echo "| target | query | rays | packet path Mrays/s | per-ray path Mrays/s | speed-up | same results |"
echo "|---|---|---|---|---|---|---|"
notes=()
for b in "$b64" "$b32"; do
  if [ -x "$b/bin/bench_raytrace" ]; then
    out=$(OMP_NUM_THREADS=1 "$b/bin/bench_raytrace" "$@")
    echo "$out" | grep '^|'
    notes+=("$(echo "$out" | grep '^<!--' | sed 's/^<!-- //; s/ -->$//')")
  else
    echo "note: $b/bin/bench_raytrace not built" >&2
  fi
done
echo
for n in "${notes[@]}"; do echo "- $n"; done
