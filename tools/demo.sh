#!/usr/bin/env bash
# Sets up a fresh machine, builds the x86-64 target and renders the bunny of
# Debian's glmark2-data to bunny.png with vekr-render (options are passed on:
# see build-x86_64/bin/vekr-render --help).
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh
bash tools/build.sh x86_64 -DVEKR_BUILD_TESTS=OFF -DVEKR_BUILD_BENCH=OFF >/dev/null
./build-x86_64/bin/vekr-demo | head -n 1
./build-x86_64/bin/vekr-render --stats "$@"
