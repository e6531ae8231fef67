#!/usr/bin/env bash
# build.sh CONFIG [extra cmake args] [--target T...]: configures and builds one
# configuration into build-CONFIG (CONFIG: i386, x86_64, or asan and asan-i386,
# the x86-64 and i386 builds under AddressSanitizer and UndefinedBehaviorSanitizer).
# Every option
# that decides what is built is passed explicitly, so a configuration means
# the same whatever its cache held before (tools/test.sh and tools/demo.sh
# share build-x86_64). With --target, only the named targets are built.
set -euo pipefail
cd "$(dirname "$0")/.."
config=$1; shift
cmake_args=() targets=()
while [ $# -gt 0 ]; do
  if [ "$1" = --target ]; then shift; targets=("$@"); break; fi
  cmake_args+=("$1"); shift
done
common=(-DVEKR_BUILD_TESTS=ON -DVEKR_BUILD_EXAMPLES=ON)
# Sanitized builds compile at -O1 with line tables only: at -O2 with full debug
# information GCC spends minutes on each interpolation-kernel file under
# UBSan (warp.cpp: 413 s against 37 s), and a report needs only file and line.
sanitized=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG"
           -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" -DVEKR_BUILD_BENCH=OFF -DVEKR_BUILD_DOCS=OFF
           -DVEKR_WERROR=OFF -DVEKR_SANITIZE=ON -DVEKR_BUILD_PYTHON=OFF)
case "$config" in
  i386)   args=(-DCMAKE_TOOLCHAIN_FILE=cmake/i386.cmake -DCMAKE_BUILD_TYPE=Release -DVEKR_BUILD_BENCH=ON
                -DVEKR_BUILD_DOCS=ON -DVEKR_WERROR=OFF -DVEKR_SANITIZE=OFF -DVEKR_BUILD_PYTHON=OFF) ;;
  x86_64) args=(-DCMAKE_BUILD_TYPE=Release -DVEKR_BUILD_BENCH=ON -DVEKR_BUILD_DOCS=ON -DVEKR_WERROR=ON
                -DVEKR_SANITIZE=OFF -DVEKR_BUILD_PYTHON=ON -DPython3_EXECUTABLE=/usr/bin/python3) ;;
  asan)   args=("${sanitized[@]}") ;;
  asan-i386) args=(-DCMAKE_TOOLCHAIN_FILE=cmake/i386.cmake "${sanitized[@]}") ;;
  *) echo "build.sh: unknown configuration $config (i386, x86_64, asan, asan-i386)" >&2; exit 2 ;;
esac
cmake -S . -B "build-$config" "${common[@]}" "${args[@]}" "${cmake_args[@]}" >/dev/null
if [ ${#targets[@]} -gt 0 ]; then
  cmake --build "build-$config" -j"$(nproc)" --target "${targets[@]}"
else
  cmake --build "build-$config" -j"$(nproc)"
fi
