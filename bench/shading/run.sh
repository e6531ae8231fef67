#!/usr/bin/env bash
# Throughput of the ray-casting and shading operations for both targets, in one
# run, as markdown. Usage: run.sh [x86-64 build dir] [i386 build dir] [options]
# (options go to bench_shading: --quick, --small, --only TEXT; see its source)
set -euo pipefail
b64=${1:-/work/main/build-x86_64}
b32=${2:-/work/main/build-i386}
shift $(( $# < 2 ? $# : 2 ))
echo "## Shading operations: rays per second (best of several runs)"
echo
for b in "$b64" "$b32"; do
  if [ -x "$b/bin/bench_shading" ]; then "$b/bin/bench_shading" "$@"
  else echo "note: $b/bin/bench_shading not built" >&2; fi
done
echo "B/ray counts the bytes each call reads and writes per ray (lookup tables of"
echo "the normal operations excluded; vekrTriangleNormal_32f: per triangle, with its"
echo "share of the vertex strip). 'offset runs' names the code that offset arrays"
echo "take: the scalar path, or the four-wide loops that need no alignment."
