#!/usr/bin/env bash
# Volume remap and affine warp throughput on both targets beside scipy.ndimage,
# in one run, as a markdown table.
#   bench/volume/remap_run.sh [x86-64 build dir] [i386 build dir]
# Each build dir must have bench_remap built (cmake --build DIR --target bench_remap).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
b64=${1:-/work/main/build-x86_64}
b32=${2:-/work/main/build-i386}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
for pair in "x86_64:$b64" "i386:$b32"; do
  name=${pair%%:*} dir=${pair#*:}
  if [ -x "$dir/bin/bench_remap" ]; then
    "$dir/bin/bench_remap" > "$out/$name.txt"
  else
    echo "note: $dir/bin/bench_remap not found; $name column left empty" >&2
  fi
done
/usr/bin/python3 "$here/remap_scipy.py" time > "$out/scipy.txt"
/usr/bin/python3 "$here/remap_scipy.py" table "$out"
