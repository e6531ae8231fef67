#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demo need
# (only those that are missing). Run as root, or with sudo available.
set -euo pipefail
pkgs=(cmake g++ gcc-multilib g++-multilib googletest libomp-dev glmark2-data
      python3-numpy python3-scipy libtinyobjloader-dev libstb-dev binutils file
      clang libclang-rt-14-dev libomp-14-dev lib32asan8 lib32ubsan1)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
