#!/usr/bin/env bash
# The volume workloads beside OpenCV: builds bench_volume_peer (x86-64,
# VEKR_BENCH_OPENCV=ON) in its own build directory and runs it twice, once
# with OpenCV's default dispatch and once with OpenCV held to SSE
# (OPENCV_CPU_DISABLE, read when OpenCV starts), printing one markdown table.
#   bench/volume/peer_run.sh [rounds] [row-substring] [build dir]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
rounds=${1:-5}
only=${2:-}
build=${3:-$root/build-peer-volume}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DVEKR_BUILD_BENCH=ON -DVEKR_BENCH_OPENCV=ON \
  -DVEKR_BUILD_TESTS=OFF -DVEKR_BUILD_EXAMPLES=OFF -DVEKR_BUILD_DOCS=OFF -DVEKR_BUILD_PYTHON=OFF \
  -DVEKR_SANITIZE=OFF -DVEKR_WERROR=ON >/dev/null
cmake --build "$build" --target bench_volume_peer -j"$(nproc)" >/dev/null
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
status=0
echo "load before: $(uptime)"
"$build/bin/bench_volume_peer" "$rounds" $only > "$out/default.txt" || status=1
OPENCV_CPU_DISABLE=AVX512-SKX,AVX2,FMA3,AVX,FP16 \
  "$build/bin/bench_volume_peer" "$rounds" $only > "$out/sse.txt" || status=1
echo "load after: $(uptime)"
echo
grep '^#' "$out/default.txt" | head -1
grep '^#' "$out/sse.txt" | head -1
echo
awk -F'|' '
  FNR == 1 { file++ }
  /^#/ { next }
  file == 1 { key = $1 "|" $2; order[++n] = key; lib[key] = $3; cv[key] = $4; mode[key] = $6; chk[key] = $7 }
  file == 2 { key = $1 "|" $2; lib2[key] = $3; sse[key] = $4; chk2[key] = $7 }
  END {
    print "| row | threads | vekr Mvox/s | OpenCV default | ratio | OpenCV SSE-only | ratio | OpenCV mode | check |"
    print "|---|---|---|---|---|---|---|---|---|"
    for (i = 1; i <= n; i++) {
      k = order[i]; split(k, p, "|")
      r1 = cv[k] > 0 ? sprintf("%.2f", lib[k] / cv[k]) : "-"
      # The SSE-only ratio uses the library figure of the same run.
      r2 = (k in sse) && sse[k] > 0 ? sprintf("%.2f", lib2[k] / sse[k]) : "-"
      s = (k in sse) ? sse[k] : "-"
      printf "| %s | %s | %s | %s | %s | %s | %s | %s | %s / %s |\n", p[1], p[2], lib[k], cv[k], r1, s, r2, mode[k], chk[k], chk2[k]
    }
  }' "$out/default.txt" "$out/sse.txt"
exit $status
