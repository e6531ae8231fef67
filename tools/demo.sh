#!/usr/bin/env bash
# Sets up a fresh machine, builds the x86-64 target and runs the demo.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh
bash tools/build.sh x86_64 -DVEKR_BUILD_TESTS=OFF -DVEKR_BUILD_BENCH=OFF >/dev/null
./build-x86_64/bin/vekr-demo "$@"
