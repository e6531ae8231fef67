#!/usr/bin/env bash
# Builds the Python module into the x86-64 build (Debian's python3 is 64-bit),
# runs its pytest suite, then installs the libraries and the python component
# into a scratch prefix and imports it from there with /usr/bin/python3.
set -euo pipefail
cd "$(dirname "$0")/.."
py=/usr/bin/python3
bash tools/build.sh x86_64 --target vekr_python
echo "== pytest (build tree)"
PYTHONPATH="$PWD/build-x86_64/python" $py -m pytest -q -p no:cacheprovider python/tests
echo "== installed tree"
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
for component in runtime python; do
  cmake --install build-x86_64 --component $component --prefix "$prefix" >/dev/null
done
(cd / && PYTHONPATH="$prefix/lib/python3/dist-packages" VEKR_PREFIX="$prefix" $py -c '
import os, numpy as np, vekr
prefix = os.environ["VEKR_PREFIX"]
libs = {l.split()[-1] for l in open("/proc/self/maps") if "libvek" in l}
assert vekr._vekr.__file__.startswith(prefix) and all(p.startswith(prefix) for p in libs), libs
assert vekr.resize(np.ones((2, 2, 2), np.float32), (3, 3, 3)).sum() == 27
print("vekr", vekr.__version__, "imported from the installed tree with", ", ".join(sorted(libs)))')
