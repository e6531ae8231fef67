#!/usr/bin/env bash
# Sets up a fresh machine, builds the demo programs of the x86-64 configuration
# and renders the bunny of Debian's glmark2-data to bunny.png with vekr-render
# (options are passed on: see build-x86_64/bin/vekr-render --help). It shares
# build-x86_64 with tools/test.sh and configures it the same way, building only
# the two programs, so running either script first changes nothing for the other.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh
bash tools/build.sh x86_64 --target vekr-demo vekr-render >/dev/null
./build-x86_64/bin/vekr-demo | head -n 1
./build-x86_64/bin/vekr-render --stats "$@"
