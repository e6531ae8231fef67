#!/usr/bin/env bash
# Volume resize benchmark: runs bench_resize of each build directory given
# (default: the x86-64 and i386 builds of the work tree) and
# scipy.ndimage.zoom on the same sizes, and prints one markdown table.
# Usage: bench/volume/resize_run.sh [build-dir...]
# Takes about a minute per build directory plus about a minute for scipy; run
# it on a quiet machine (both cores free), since the two-thread figures need
# both.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
dirs=("$@")
[ ${#dirs[@]} -eq 0 ] && dirs=(/work/main/build-x86_64 /work/main/build-i386)
records=$(mktemp)
trap 'rm -f "$records"' EXIT
for d in "${dirs[@]}"; do
  bin="$d/bin/bench_resize"
  if [ -x "$bin" ]; then "$bin" --tsv >>"$records"; else echo "skipped: no $bin" >&2; fi
done
/usr/bin/python3 "$here/resize_scipy.py" >>"$records"
echo "Volume resize, C1V, destination Mvoxel/s ($(nproc) cores, $(date -u +%Y-%m-%dT%H:%MZ))"
echo
/usr/bin/python3 "$here/resize_report.py" <"$records"
