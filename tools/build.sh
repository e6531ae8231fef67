#!/usr/bin/env bash
# build.sh TARGET [extra cmake args]: configures and builds one target into
# build-TARGET (TARGET: i386, x86_64 or asan, the x86-64 build under
# AddressSanitizer and UndefinedBehaviorSanitizer).
set -euo pipefail
cd "$(dirname "$0")/.."
target=$1; shift
jobs=$(nproc)
case "$target" in
  i386)   args=(-DCMAKE_TOOLCHAIN_FILE=cmake/i386.cmake) ;;
  x86_64) args=() ;;
  asan)   args=(-DVEKR_SANITIZE=ON -DVEKR_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  *) echo "build.sh: unknown target $target (i386, x86_64, asan)" >&2; exit 2 ;;
esac
cmake -S . -B "build-$target" "${args[@]}" "$@" >/dev/null
cmake --build "build-$target" -j"$jobs"
