#!/usr/bin/env bash
# Makes the libraries of zibd-profile for the MIPS cross build from Debian's
# own source packages (libmediainfo, libzen, zlib, libexif) and keeps them in
# a cache, the way scripts/mips-sqlite.sh does for SQLite:
#
#   scripts/mips-media.sh [CACHE]      (default: ~/.cache/zibd/mips-media)
#
# Afterwards CACHE holds lib/libmediainfo.a, libzen.a, libz.a and libexif.a
# with their headers in include/, source/ (the packages' upstream tarballs,
# fetched once with `apt-get source --tar-only`) and stamp (the versions and a
# hash of the recipe: this script, scripts/lib/mips-cache.sh, cmake/mips-media/
# and the toolchain file; a changed recipe rebuilds from source/). Before its
# first fetch it runs scripts/setup.sh for the deb-src entries that apt-get
# source needs.
# MediaInfoLib is built with its own CMake files, with ZenLib beside it and its
# bundled tinyxml2; zlib and libexif with cmake/mips-media/. Compiled with -Os;
# it takes about ten minutes on two busy cores.
#
# scripts/build.sh mips builds zibd-profile for MIPS when this cache exists;
# the test command does not build it.
set -euo pipefail
cd "$(dirname "$0")/.."
name=mips-media
recipe_files=(scripts/mips-media.sh cmake/mips-media/CMakeLists.txt cmake/mips-linux-gnu.cmake)
# shellcheck source=scripts/lib/mips-cache.sh
. scripts/lib/mips-cache.sh

libs=(libmediainfo.a libzen.a libz.a libexif.a)
cached() {
  local lib
  for lib in "${libs[@]}"; do [ -f "$cache/lib/$lib" ] || return 1; done
  [ -f "$cache/stamp" ] && grep -qx "recipe $recipe" "$cache/stamp"
}
if cached; then
  log "using $(grep '^version' "$cache/stamp" | cut -d' ' -f2- | tr '\n' ' ')from $cache"
  exit 0
fi

lock_cache
cached && exit 0

work="$cache/work"
rm -rf "$work" "$cache/lib" "$cache/include" "$cache/stamp"
mkdir -p "$work/src"
step=""
trap 'status=$?; if [ $status -ne 0 ]; then log "FAILED while $step (exit $status); logs in $work"; fi' EXIT

packages=(libmediainfo libzen zlib libexif)
tarball() { compgen -G "$cache/source/${1}_*.orig.tar.*" | head -n1; }
prepared=0
for package in "${packages[@]}"; do
  [ -z "$(tarball "$package")" ] || continue
  if ((!prepared)); then
    step="preparing the machine (scripts/setup.sh: deb-src entries, the cross compiler)"
    scripts/setup.sh
    prepared=1
  fi
  step="fetching Debian's $package source (apt-get source --tar-only)"
  log "$step"
  mkdir -p "$cache/source"
  (cd "$cache/source" && apt-get source --download-only --tar-only -q "$package" \
     -o APT::Sandbox::User="$(id -un)") >"$work/fetch-$package.log" 2>&1 || true
  [ -n "$(tarball "$package")" ] ||
    { cat "$work/fetch-$package.log" >&2; die "no $package source (deb-src entries: scripts/setup.sh)"; }
done

step="unpacking the sources"
for tool in cmake ninja mips-linux-gnu-g++; do
  command -v "$tool" >/dev/null || die "$tool is missing: run scripts/setup.sh"
done
versions=""
for package in "${packages[@]}"; do
  file=$(tarball "$package")
  versions+="version $(basename "$file" | sed 's/\.orig\.tar\..*//')"$'\n'
  tar -xf "$file" -C "$work/src"
done
# MediaInfoLib finds ZenLib beside it; zlib is built on its own (below).
mv "$work"/src/zlib-* "$work/src/zlib"
exif_source=$(compgen -G "$work/src/libexif-*" | head -n1)

flags="-Os -ffunction-sections -fdata-sections"
step="compiling zlib and libexif for MIPS"
log "$step"
{
  cmake -S cmake/mips-media -B "$work/small" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$repo/cmake/mips-linux-gnu.cmake" -DCMAKE_INSTALL_PREFIX="$cache" \
    -DCMAKE_C_FLAGS_RELEASE="$flags" -DZIBD_ZLIB_SOURCE="$work/src/zlib" -DZIBD_LIBEXIF_SOURCE="$exif_source" &&
  cmake --build "$work/small" -j"$(nproc)" &&
  cmake --install "$work/small"
} >"$work/small.log" 2>&1 || { tail -n 30 "$work/small.log" >&2; die "could not compile zlib and libexif"; }

step="compiling MediaInfoLib and ZenLib for MIPS"
log "$step"
{
  cmake -S "$work/src/MediaInfoLib/Project/CMake" -B "$work/mediainfo" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$repo/cmake/mips-linux-gnu.cmake" -DCMAKE_INSTALL_PREFIX="$cache" \
    -DCMAKE_C_FLAGS_RELEASE="$flags" -DCMAKE_CXX_FLAGS_RELEASE="$flags" \
    -DBUILD_SHARED_LIBS=OFF -DBUILD_ZENLIB=ON -DBUILD_ZLIB=OFF \
    -DZLIB_LIBRARY="$cache/lib/libz.a" -DZLIB_INCLUDE_DIR="$cache/include" \
    -DCMAKE_DISABLE_FIND_PACKAGE_CURL=ON -DCMAKE_DISABLE_FIND_PACKAGE_TinyXML=ON &&
  cmake --build "$work/mediainfo" -j"$(nproc)" &&
  cmake --install "$work/mediainfo"
} >"$work/mediainfo.log" 2>&1 || { tail -n 30 "$work/mediainfo.log" >&2; die "could not compile MediaInfoLib"; }

step="checking the libraries"
for lib in "${libs[@]}"; do
  [ -f "$cache/lib/$lib" ] || die "$cache/lib/$lib was not made"
  # Every member: an early-closing grep would break objdump's pipe.
  formats=$(mips-linux-gnu-objdump -f "$cache/lib/$lib" | sed -n 's/.*file format //p' | sort -u)
  [ "$formats" = elf32-tradbigmips ] || die "$cache/lib/$lib is not a big-endian 32-bit MIPS library ($formats)"
done
printf '%srecipe %s\n' "$versions" "$recipe" >"$cache/stamp"
rm -rf "$work"
log "built $(grep '^version' "$cache/stamp" | cut -d' ' -f2- | tr '\n' ' ')into $cache"
