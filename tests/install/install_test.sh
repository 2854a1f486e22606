#!/usr/bin/env bash
# install_test.sh <build dir> <this folder> <project version> <1 if marlith-deblur is built>
# Installs the build under a temporary prefix; builds and runs a C program with pkg-config and a
# C++ program with find_package(marlith) against it; builds the Debian package with cpack and
# checks the dependencies it declares.
set -euo pipefail
build=$1 here=$2 version=$3 deblur=$4
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }

prefix=$tmp/prefix
cmake --install "$build" --prefix "$prefix" > "$tmp/install.log"
[ -x "$prefix/bin/marlith" ] || fail "bin/marlith not installed"
if [ "$deblur" = 1 ]; then
  [ -x "$prefix/bin/marlith-deblur" ] || fail "bin/marlith-deblur not installed"
fi
# GraphicsMagick's module is opened from the installed tree (not the build tree) by an installed
# command that writes a JPEG, which only GraphicsMagick encodes.
module=$(find "$prefix" -name libmarlith-magick.so -path '*/marlith/*')
[ -n "$module" ] || fail "libmarlith-magick.so not installed"
example=$here/../../examples
LD_DEBUG=files "$prefix/bin/marlith" "$example/earth_blurred.png" "$example/motion_kernel.png" \
  "$tmp/deblurred.jpg" 0 1 1 > /dev/null 2> "$tmp/loads.log" || fail "the installed marlith"
grep -q "file=$module " "$tmp/loads.log" ||
  fail "the installed marlith opened $(grep -o 'file=[^ ]*libmarlith-magick[^ ]*' "$tmp/loads.log")"
for h in marlith.h deconvolve.hpp error.hpp export.h; do
  [ -f "$prefix/include/marlith/$h" ] || fail "include/marlith/$h not installed"
done
lib=$(find "$prefix" -name 'libmarlith.so.*.*.*' -type f)
[ -n "$lib" ] || fail "libmarlith.so not installed"
soname=$(objdump -p "$lib" | awk '$1 == "SONAME" {print $2}')
[ "$soname" = "libmarlith.so.${version%%.*}" ] || fail "SONAME is '$soname'"
for link in "$soname" libmarlith.so; do
  [ -L "$(dirname "$lib")/$link" ] || fail "the link $link is missing"
done

# pkg-config
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name marlith.pc)")
[ "$(pkg-config --modversion marlith)" = "$version" ] || fail "pkg-config version"
libdir=$(pkg-config --variable=libdir marlith)
# shellcheck disable=SC2046  # the flags are words
cc -std=c99 -Wall -Wextra -Werror -o "$tmp/c_consumer" "$here/consumer.c" \
  $(pkg-config --cflags --libs marlith) -lm -Wl,-rpath,"$libdir"
"$tmp/c_consumer" "$version" || fail "the pkg-config consumer"

# find_package
cmake -S "$here/cmake_consumer" -B "$tmp/cmake_consumer" -DCMAKE_PREFIX_PATH="$prefix" \
  > "$tmp/cmake.log" || { cat "$tmp/cmake.log"; fail "find_package(marlith)"; }
cmake --build "$tmp/cmake_consumer" > "$tmp/cmake-build.log" ||
  { cat "$tmp/cmake-build.log"; fail "building the find_package consumer"; }
"$tmp/cmake_consumer/cpp_consumer" || fail "the find_package consumer"

# The Debian package
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$tmp/deb" > "$tmp/cpack.log" ||
  { cat "$tmp/cpack.log"; fail "cpack -G DEB"; }
deb=$(find "$tmp/deb" -maxdepth 1 -name '*.deb')
depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
for p in libc6 libstdc++6 libfftw3-double3 libopenblas0 libumfpack5 \
  libgraphicsmagick++-q16-12; do
  [[ "$depends" == *"$p"* ]] || fail "Depends lacks $p"
done
contents=$(dpkg-deb -c "$deb")
for f in ./usr/bin/marlith ./usr/include/marlith/marlith.h \
  ./usr/lib/cmake/marlith/marlithConfig.cmake ./usr/lib/pkgconfig/marlith.pc "./usr/lib/$soname" \
  ./usr/lib/marlith/libmarlith-magick.so; do
  grep -qF "$f" <<< "$contents" || fail "the package lacks $f"
done
