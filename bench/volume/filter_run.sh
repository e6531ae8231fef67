#!/usr/bin/env bash
# Volume filter throughput for both targets beside scipy.ndimage.convolve, in
# one run, as a markdown table. Usage: filter_run.sh [x86-64 build dir] [i386 build dir]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
b64=${1:-/work/main/build-x86_64}
b32=${2:-/work/main/build-i386}
raw=$(mktemp)
trap 'rm -f "$raw"' EXIT
for b in "$b64" "$b32"; do
  if [ -x "$b/bin/bench_filter" ]; then "$b/bin/bench_filter" --raw >> "$raw"
  else echo "note: $b/bin/bench_filter not built" >&2; fi
done
/usr/bin/python3 "$here/filter_scipy.py" >> "$raw"
/usr/bin/python3 - "$raw" <<'PY'
import sys
rows = {}
for line in open(sys.argv[1]):
    target, n, k, threads, path, mvox = line.split()
    rows[(target, int(n), int(k), int(threads), path)] = float(mvox)
def get(*key):
    v = rows.get(key)
    return "-" if v is None else "%.1f" % v
def ratio(a, b):
    return "-" if a not in rows or b not in rows else "%.2f" % (rows[a] / rows[b])
print("vekrFilter_16s_C1PV vs scipy.ndimage.convolve (int16), Mvox/s\n")
print("| volume | kernel | path | scipy | x86-64 1T | x86-64 2T | i386 1T | i386 2T | x86-64 1T / scipy | x86-64 2T / 1T | i386 2T / 1T |")
print("|---|---|---|---|---|---|---|---|---|---|---|")
for n, k, path in [(128, 3, "packed"), (128, 5, "packed"), (256, 3, "packed"), (256, 5, "packed"), (128, 3, "wide")]:
    print("| %d^3 | %d^3 | %s | %s | %s | %s | %s | %s | %s | %s | %s |" % (
        n, k, path, get("scipy", n, k, 1, "packed") if path == "packed" else "-",
        get("x86-64", n, k, 1, path), get("x86-64", n, k, 2, path),
        get("i386", n, k, 1, path), get("i386", n, k, 2, path),
        ratio(("x86-64", n, k, 1, path), ("scipy", n, k, 1, "packed")) if path == "packed" else "-",
        ratio(("x86-64", n, k, 2, path), ("x86-64", n, k, 1, path)),
        ratio(("i386", n, k, 2, path), ("i386", n, k, 1, path))))
PY
