#!/usr/bin/env bash
# sdk_test.sh: what a user of the installed library gets, for the i386 and
# x86-64 builds (tools/build.sh has built build-i386 and build-x86_64):
#  1. `cmake --install` of both builds into one prefix, which is then moved
#     (the tree must be relocatable): layout, sonames, exports, no build paths;
#  2. the example consumer (examples/trace, copied out of the source tree)
#     built against the moved tree through find_package and through
#     pkg-config, as C99 and as C++, for both targets, and run;
#  3. the Debian packages of both architectures: built with CPack, their
#     control data and contents checked, lintian run on them;
#  4. the packages installed for real, amd64 and i386 side by side, the
#     consumers built against /usr the same four ways per target, the demo
#     program run and the Python module imported by /usr/bin/python3; then
#     the packages are removed again.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
version=$(sed -n 's/^project(vekr VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
major=${version%%.*}
debversion=$version-1
work=$(mktemp -d /tmp/vekr-sdk.XXXXXX)
installed=()
cleanup() {
  if [ ${#installed[@]} -gt 0 ]; then
    dpkg --purge "${installed[@]}" >/dev/null || echo "sdk: could not remove ${installed[*]}"
  fi
  rm -rf "$work"
}
trap cleanup EXIT

fail() { echo "sdk: FAIL: $*" >&2; exit 1; }
triplet() { [ "$1" = i386 ] && echo i386-linux-gnu || echo x86_64-linux-gnu; }
debarch() { [ "$1" = i386 ] && echo i386 || echo amd64; }
elfclass() { [ "$1" = i386 ] && echo "ELF 32-bit" || echo "ELF 64-bit"; }

cp -r examples/trace "$work/trace"

# The README shows the example and the CMake lines that the consumers use.
awk '/^A complete example/ {f = 1} f && /^```c$/ {g = 1; next} g && /^```$/ {exit} g' README.md \
  | diff -u examples/trace/trace.c - >/dev/null || fail "README's example differs from examples/trace/trace.c"
awk '/^```cmake$/ {g = 1; next} g && /^```$/ {g = 0} g' README.md | while IFS= read -r line; do
  grep -qxF "$line" examples/trace/CMakeLists.txt || fail "README's CMake line is not in the example: $line"
done

# consumer_cmake ARCH LANG NAME [PREFIX]: configure, build and run the example
# through find_package(vekr 7.0 CONFIG REQUIRED).
consumer_cmake() {
  local arch=$1 lang=$2 dir=$work/consumer/$3-$1-$2-cmake args=()
  [ "$arch" = i386 ] && args+=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/i386.cmake")
  [ -n "${4:-}" ] && args+=(-DCMAKE_PREFIX_PATH="$4")
  cmake -S "$work/trace" -B "$dir" -DTRACE_LANG="$lang" "${args[@]}" >"$dir.log" 2>&1 \
    || { cat "$dir.log"; fail "configure $dir"; }
  cmake --build "$dir" >>"$dir.log" 2>&1 || { cat "$dir.log"; fail "build $dir"; }
  file -L "$dir/trace" | grep -q "$(elfclass "$arch")" || fail "$dir/trace is not $(elfclass "$arch")"
  echo "  $3 $1 $2 find_package: $("$dir/trace" | tail -n 1)" && "$dir/trace" >/dev/null || fail "run $dir/trace"
}

# consumer_pkgconfig ARCH LANG NAME PCDIR [run-time library dir]: build and run
# the example with the flags of `pkg-config --cflags --libs vekr`.
consumer_pkgconfig() {
  local arch=$1 lang=$2 out=$work/consumer/$3-$1-$2-pkgconfig pcdir=$4 libdir=${5:-} flags m=()
  [ "$arch" = i386 ] && m=(-m32)
  flags=$(PKG_CONFIG_LIBDIR=$pcdir pkg-config --cflags --libs vekr) || fail "pkg-config vekr in $pcdir"
  [ "$(PKG_CONFIG_LIBDIR=$pcdir pkg-config --modversion vekr)" = "$version" ] || fail "pkg-config version"
  if [ "$lang" = C ]; then
    # shellcheck disable=SC2086
    gcc "${m[@]}" -std=c99 -pedantic -Wall -Wextra -Werror "$work/trace/trace.c" $flags -o "$out" \
      || fail "cc $out"
  else
    # shellcheck disable=SC2086
    g++ "${m[@]}" -std=c++17 -pedantic -Wall -Wextra -Werror -x c++ "$work/trace/trace.c" -x none $flags \
      -o "$out" || fail "c++ $out"
  fi
  file -L "$out" | grep -q "$(elfclass "$arch")" || fail "$out is not $(elfclass "$arch")"
  echo "  $3 $1 $2 pkg-config: $(LD_LIBRARY_PATH=$libdir "$out" | tail -n 1)" && LD_LIBRARY_PATH=$libdir "$out" >/dev/null \
    || fail "run $out"
}
mkdir -p "$work/consumer"

echo "-- 1. cmake --install, relocated"
for arch in x86_64 i386; do
  cmake --install "build-$arch" --prefix "$work/stage" >/dev/null
done
mv "$work/stage" "$work/sdk"
sdk=$work/sdk
leaks=$(grep -rl -e "$root" -e "$work/stage" "$sdk" || true)
[ -z "$leaks" ] || fail "installed files name the build or staging paths: $leaks"
for arch in x86_64 i386; do
  lib=$sdk/lib/$(triplet "$arch")
  for name in vekr vekcore; do
    [ "$(readlink "$lib/lib$name.so")" = "lib$name.so.$major" ] || fail "$lib/lib$name.so"
    [ "$(readlink "$lib/lib$name.so.$major")" = "lib$name.so.$version" ] || fail "$lib/lib$name.so.$major"
    readelf -d "$lib/lib$name.so.$version" | grep -q "SONAME.*\[lib$name.so.$major\]" || fail "soname of lib$name"
    file -L "$lib/lib$name.so" | grep -q "$(elfclass "$arch")" || fail "lib$name is not $(elfclass "$arch")"
  done
  readelf -d "$lib/libvekr.so.$version" | grep -q "NEEDED.*\[libvekcore.so.$major\]" || fail "libvekr needs libvekcore.so.$major"
  tools/check_exports.sh "$lib/libvekr.so" include/vekr.h vekr "VEKR_$major.0"
  tools/check_exports.sh "$lib/libvekcore.so" include/vekcore.h "vek|ownGetNumThreads" "VEKCORE_$major.0"
  [ -f "$lib/cmake/vekr/vekrConfig.cmake" ] && [ -f "$lib/pkgconfig/vekr.pc" ] || fail "package files for $arch"
done
[ -f "$sdk/include/vekr.h" ] && [ -f "$sdk/include/vekcore.h" ] || fail "headers"
[ -f "$sdk/share/doc/libvekr-dev/html/index.html" ] || fail "HTML reference"
(cd "$sdk" && find . \( -type f -o -type l \) | sort | grep -v '/html/' > "$root/build-x86_64/installed-tree.txt")

echo "-- 2. consumers of the relocated tree"
for arch in x86_64 i386; do
  for lang in C CXX; do
    consumer_cmake "$arch" "$lang" staged "$sdk"
    consumer_pkgconfig "$arch" "$lang" staged "$sdk/lib/$(triplet "$arch")/pkgconfig" "$sdk/lib/$(triplet "$arch")"
  done
done

echo "-- 3. Debian packages"
debs=()
for arch in x86_64 i386; do
  out=$root/build-$arch/packages
  rm -rf "$out"
  cpack --config "build-$arch/CPackConfig.cmake" -B "$out" >"$work/cpack-$arch.log" 2>&1 \
    || { cat "$work/cpack-$arch.log"; fail "cpack $arch"; }
  a=$(debarch "$arch") t=$(triplet "$arch")
  for pkg in "libvekr$major" libvekr-dev vekr-tools; do
    deb=$out/${pkg}_${debversion}_$a.deb
    [ -f "$deb" ] || fail "missing $deb"
    debs+=("$deb")
    dpkg-deb -c "$deb" | awk '{s = $1; for (i = 6; i <= NF; i++) s = s " " $i; print s}' > "$out/$pkg.contents"
    dpkg-deb --info "$deb" > "$out/$pkg.info"
    grep -q "^ Architecture: $a$" "$out/$pkg.info" || fail "$deb architecture"
  done
  info=$out/libvekr$major.info
  grep -q '^ Multi-Arch: same$' "$info" || fail "libvekr$major is not Multi-Arch: same"
  grep -q '^ Depends:.*libgomp1' "$info" || fail "libvekr$major does not depend on libgomp1"
  grep -q '^ Section: libs$' "$info" || fail "libvekr$major section"
  [ "$(dpkg-deb --info "$out/libvekr${major}_${debversion}_$a.deb" triggers)" = "activate-noawait ldconfig" ] \
    || fail "libvekr$major has no ldconfig trigger"
  grep -q '^ Multi-Arch: same$' "$out/libvekr-dev.info" || fail "libvekr-dev is not Multi-Arch: same"
  grep -q "^ Depends: libvekr$major (= $debversion)" "$out/libvekr-dev.info" || fail "libvekr-dev depends"
  grep -q "^ Depends: libvekr$major (= $debversion)" "$out/vekr-tools.info" || fail "vekr-tools depends"
  for f in "usr/lib/$t/libvekr.so.$version" "usr/lib/$t/libvekcore.so.$version" \
           "usr/share/doc/libvekr$major/copyright"; do
    grep -q " \./$f\$" "$out/libvekr$major.contents" || fail "libvekr$major lacks $f"
  done
  if grep -qE 'include/|\.so ->|cmake/|pkgconfig/' "$out/libvekr$major.contents"; then
    fail "libvekr$major carries development files"
  fi
  for f in usr/include/vekr.h usr/include/vekcore.h "usr/lib/$t/cmake/vekr/vekrConfig.cmake" \
           "usr/lib/$t/pkgconfig/vekr.pc" "usr/lib/$t/pkgconfig/vekcore.pc" \
           usr/share/doc/libvekr-dev/html/index.html; do
    grep -q " \./$f\$" "$out/libvekr-dev.contents" || fail "libvekr-dev lacks $f"
  done
  grep -q " \./usr/lib/$t/libvekr.so -> libvekr.so.$major\$" "$out/libvekr-dev.contents" \
    || fail "libvekr-dev lacks the libvekr.so link"
  grep -q ' \./usr/bin/vekr-render$' "$out/vekr-tools.contents" || fail "vekr-tools lacks vekr-render"
  if [ "$arch" = x86_64 ]; then
    # The Python module, built by the x86-64 configuration only.
    deb=$out/python3-vekr_${debversion}_$a.deb
    [ -f "$deb" ] || fail "missing $deb"
    debs+=("$deb")
    dpkg-deb -c "$deb" | awk '{s = $1; for (i = 6; i <= NF; i++) s = s " " $i; print s}' > "$out/python3-vekr.contents"
    dpkg-deb --info "$deb" > "$out/python3-vekr.info"
    grep -q "^ Depends: .*libvekr$major (= $debversion)" "$out/python3-vekr.info" || fail "python3-vekr depends"
    grep -q ' \./usr/lib/python3/dist-packages/vekr/__init__\.py$' "$out/python3-vekr.contents" \
      || fail "python3-vekr lacks the package"
    if grep -q 'libvek' "$out/python3-vekr.contents"; then fail "python3-vekr carries the libraries"; fi
  fi
  dpkg-deb --fsys-tarfile "$out/libvekr${major}_${debversion}_$a.deb" \
    | tar -xO "./usr/share/doc/libvekr$major/copyright" | grep -qx 'License: Apache-2.0' || fail "copyright file"
done
echo "lintian:"
# Not archive uploads, so no bug to close; the demo programs have --help
# instead of manual pages.
lint=0
lintian --fail-on error,warning --suppress-tags initial-upload-closes-no-bugs,no-manual-page \
  "${debs[@]}" >"$work/lintian.log" 2>&1 || lint=1
grep -v 'root privileges' "$work/lintian.log" | sed 's/^/  /' || true
[ $lint -eq 0 ] || fail "lintian"

echo "-- 4. packages installed side by side"
export DEBIAN_FRONTEND=noninteractive
# Packages left by an interrupted earlier run are removed first.
leftover=$(dpkg-query -W -f='${Package}:${Architecture} ${Status}\n' "libvekr$major" libvekr-dev vekr-tools python3-vekr \
  2>/dev/null \
  | awk '$NF == "installed" {print $1}' || true)
if [ -n "$leftover" ]; then
  echo "sdk: removing packages of an earlier run: $(echo $leftover)"
  dpkg --purge $leftover >/dev/null
fi
system_debs=()
for d in "${debs[@]}"; do
  case $d in */vekr-tools_*_i386.deb) ;; *) system_debs+=("$d") ;; esac
done
installed=("libvekr$major:amd64" "libvekr$major:i386" libvekr-dev:amd64 libvekr-dev:i386 vekr-tools:amd64
           python3-vekr:amd64)
apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends "${system_debs[@]}" >"$work/apt.log" 2>&1 \
  || { cat "$work/apt.log"; fail "apt-get install"; }
dpkg-query -W -f='  ${Package}:${Architecture} ${Version} ${Status}\n' "${installed[@]}"
for arch in x86_64 i386; do
  for lang in C CXX; do
    consumer_cmake "$arch" "$lang" system
    consumer_pkgconfig "$arch" "$lang" system "/usr/lib/$(triplet "$arch")/pkgconfig:/usr/share/pkgconfig"
  done
done
/usr/bin/vekr-demo | head -n 1 || fail "vekr-demo"
(cd / && /usr/bin/python3 -c '
import numpy as np, vekr
assert vekr._vekr.__file__.startswith("/usr/lib/python3/dist-packages/vekr/")
assert vekr.resize(np.ones((2, 2, 2), np.float32), (3, 3, 3)).sum() == 27
print("python3-vekr:", vekr.__version__, "from", vekr.__file__)') || fail "python3-vekr import"
echo "sdk: all checks passed"
