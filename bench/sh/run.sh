#!/usr/bin/env bash
# Spherical-harmonics throughput for both targets and scipy, in one run, as
# markdown. Usage: run.sh [x86-64 build dir] [i386 build dir]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
b64=${1:-/work/main/build-x86_64}
b32=${2:-/work/main/build-i386}
rows=$(mktemp)
trap 'rm -f "$rows"' EXIT
for b in "$b64" "$b32"; do
  if [ -x "$b/bin/bench_sh" ]; then "$b/bin/bench_sh" >>"$rows"
  else echo "note: $b/bin/bench_sh not built" >&2; fi
done
/usr/bin/python3 "$here/scipy_sh.py" >>"$rows"
echo "## Spherical harmonics: million directions per second (one thread, best of several runs)"
echo
echo "| target | operation | order | method | path | M directions/s |"
echo "|---|---|---|---|---|---|"
cat "$rows"
echo
echo "Batches: 4096 directions at order 3, 1024 at order 15 (scipy: 65536 and"
echo "16384). 'vector': aligned arrays, count a multiple of 4; 'scalar': arrays 4"
echo "bytes off alignment. Transforms evaluate one direction at a time."
echo
echo "| order | best vekrSH_32f, x86-64 | scipy sph_harm | ratio |"
echo "|---|---|---|---|"
for order in 3 15; do
  awk -F'|' -v o="$order" '
    $2 ~ /x86-64/ && $3 ~ /vekrSH_32f/ && $4 + 0 == o { if ($7 + 0 > best) best = $7 + 0 }
    $2 ~ /scipy/ && $4 + 0 == o { sp = $7 + 0 }
    END { if (sp > 0) printf "| %d | %.1f | %.3f | %.0fx |\n", o, best, sp, best / sp }' "$rows"
done
