#!/usr/bin/env bash
# Builds both targets and runs every benchmark (with the scipy comparisons where
# a family has one), printing one markdown report. Run on a quiet machine:
# the figures are best-of-N wall or thread-CPU times.
#   bench/run_all.sh [family...]   families: scene raytrace shading sh resize remap filter
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash tools/setup.sh
for t in x86_64 i386; do bash tools/build.sh "$t" -DVEKR_BUILD_TESTS=OFF -DVEKR_BUILD_BENCH=ON >/dev/null; done
b64=$root/build-x86_64 b32=$root/build-i386
families=("$@")
[ ${#families[@]} -gt 0 ] || families=(scene raytrace shading sh resize remap filter)
echo "# vekr benchmarks, $(date -u +%Y-%m-%d), $(nproc) cores: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
for f in "${families[@]}"; do
  echo
  case "$f" in
    scene|raytrace|shading|sh) bash "bench/$f/run.sh" "$b64" "$b32" ;;
    resize|remap|filter) bash "bench/volume/${f}_run.sh" "$b64" "$b32" ;;
    *) echo "unknown family $f" >&2; exit 2 ;;
  esac
done
