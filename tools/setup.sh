#!/usr/bin/env bash
# Installs the Debian packages that building, testing, packaging and the demo
# need (only those that are missing). Run as root, or with sudo available.
# The i386 run-time packages (libc6:i386 and the rest) let the i386 .deb files
# be installed for real beside the amd64 ones in the package tests.
set -euo pipefail
pkgs=(cmake g++ gcc-multilib g++-multilib googletest libomp-dev glmark2-data
      python3-numpy python3-scipy libtinyobjloader-dev libstb-dev binutils file
      clang libclang-rt-14-dev libomp-14-dev lib32asan8 lib32ubsan1
      libassimp-dev libopenmpi-dev openmpi-bin
      doxygen pkgconf dpkg-dev fakeroot lintian xz-utils
      libc6:i386 libgcc-s1:i386 libgomp1:i386 libstdc++6:i386)
pkgs+=(pybind11-dev python3-pybind11 python3-pytest python3-dev)  # the Python module and its tests
SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO=sudo
update=0
if ! dpkg --print-foreign-architectures | grep -qx i386; then
  $SUDO dpkg --add-architecture i386
  update=1
fi
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ] || [ $update -eq 1 ]; then
  [ ${#missing[@]} -gt 0 ] && echo "setup: installing ${missing[*]}"
  # A mirror caught mid-sync fails one index; the install below says whether
  # what is needed was found all the same.
  $SUDO apt-get -o DPkg::Lock::Timeout=600 update -qq || echo "setup: apt-get update reported errors, going on"
  if [ ${#missing[@]} -gt 0 ]; then
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get -o DPkg::Lock::Timeout=600 install -y -qq \
      --no-install-recommends "${missing[@]}" >/dev/null
  fi
fi
