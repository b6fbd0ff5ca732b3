#!/usr/bin/env bash
# Makes SQLite for the MIPS cross build from Debian's own sqlite3 source
# package and keeps it in a cache, so that later runs neither fetch nor
# rebuild it:
#
#   scripts/mips-sqlite.sh [CACHE]      (default: ~/.cache/zibd/mips-sqlite)
#
# Prints the directory that holds the library. CACHE keeps
#   source/              the downloaded source package (.dsc and tarballs)
#   RECIPE/              one build per recipe (a hash of this script,
#                        scripts/lib/mips-cache.sh, cmake/mips-sqlite/ and the
#                        toolchain file), so that checkouts of different
#                        recipes share the cache without undoing each other's
#                        build:
#     lib/libsqlite3.a   the library, compiled by mips-linux-gnu-gcc through
#                        cmake/mips-linux-gnu.cmake (cmake/mips-sqlite/)
#     include/sqlite3.h  its header
#     stamp              the package version and the recipe
#
# On a cache miss it runs scripts/setup.sh (deb-src entries, tclsh), fetches
# the source with `apt-get source`, generates the amalgamation sqlite3.c with
# the host's tclsh and compiles it. Any failure stops it with a message.
set -euo pipefail
cd "$(dirname "$0")/.."
name=mips-sqlite
recipe_files=(scripts/mips-sqlite.sh cmake/mips-sqlite/CMakeLists.txt cmake/mips-linux-gnu.cmake)
# shellcheck source=scripts/lib/mips-cache.sh
. scripts/lib/mips-cache.sh

prefix=$cache/${recipe:0:16}
cached() {
  [ -f "$prefix/lib/libsqlite3.a" ] && [ -f "$prefix/include/sqlite3.h" ] &&
    [ -f "$prefix/stamp" ] && grep -qx "recipe $recipe" "$prefix/stamp"
}

if cached; then
  log "using $(sed -n 's/^version //p' "$prefix/stamp") from $prefix"
  echo "$prefix"
  exit 0
fi

# One run at a time per cache (the variants may be built side by side).
lock_cache
if cached; then
  log "using $(sed -n 's/^version //p' "$prefix/stamp") from $prefix"
  echo "$prefix"
  exit 0
fi

work="$cache/work"
rm -rf "$work" "$prefix"
mkdir -p "$work"
step=""
trap 'status=$?; if [ $status -ne 0 ]; then log "FAILED while $step (exit $status); logs in $work"; fi' EXIT

# The source package, fetched once.
if ! compgen -G "$cache/source/sqlite3_*.dsc" >/dev/null; then
  step="preparing the machine (scripts/setup.sh)"
  scripts/setup.sh >&2
  step="fetching Debian's sqlite3 source (apt-get source)"
  log "$step"
  rm -rf "$cache/source.part"
  mkdir -p "$cache/source.part"
  # Downloaded as root, apt cannot hand the download to its unprivileged
  # user inside the build tree; that is expected here.
  (cd "$cache/source.part" && apt-get source --download-only -q sqlite3 \
     -o APT::Sandbox::User="$(id -un)") >"$work/fetch.log" 2>&1 ||
    { cat "$work/fetch.log" >&2; die "apt-get source sqlite3 failed (no deb-src entry? see scripts/setup.sh)"; }
  mv "$cache/source.part" "$cache/source"
fi
dsc=$(compgen -G "$cache/source/sqlite3_*.dsc" | head -n1)

step="unpacking $(basename "$dsc")"
for tool in dpkg-source tclsh cc make mips-linux-gnu-gcc; do
  command -v "$tool" >/dev/null || die "$tool is missing: run scripts/setup.sh"
done
dpkg-source -x "$dsc" "$work/src" >"$work/unpack.log" 2>&1 ||
  { cat "$work/unpack.log" >&2; die "dpkg-source -x $dsc failed"; }
version=$(dpkg-parsechangelog -l "$work/src/debian/changelog" -S Version)

# The amalgamation is generated on the host (tclsh, and small host tools that
# the build compiles with cc); it is plain C and the same for every target.
step="generating the amalgamation of sqlite3 $version"
log "$step"
mkdir -p "$work/amalgamation"
(cd "$work/amalgamation" &&
   "$work/src/configure" --disable-tcl --disable-readline --disable-editline \
     --disable-load-extension >configure.log 2>&1 &&
   make -j"$(nproc)" sqlite3.c sqlite3.h >make.log 2>&1) ||
  { tail -n 30 "$work"/amalgamation/*.log >&2; die "could not generate sqlite3.c"; }

step="compiling sqlite3 $version for MIPS"
log "$step"
{
  cmake -S cmake/mips-sqlite -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$repo/cmake/mips-linux-gnu.cmake" \
    -DZIBD_SQLITE_AMALGAMATION="$work/amalgamation" &&
  cmake --build "$work/build" -j"$(nproc)" &&
  cmake --install "$work/build" --prefix "$prefix"
} >"$work/compile.log" 2>&1 ||
  { tail -n 30 "$work/compile.log" >&2; die "could not compile sqlite3.c for MIPS"; }

step="checking the library"
# Must be big-endian 32-bit MIPS objects.
mips-linux-gnu-objdump -f "$prefix/lib/libsqlite3.a" | grep -q 'file format elf32-tradbigmips' ||
  die "$prefix/lib/libsqlite3.a is not a big-endian 32-bit MIPS library"

printf 'version %s\nrecipe %s\n' "$version" "$recipe" >"$prefix/stamp"
rm -rf "$work"
log "built sqlite3 $version into $prefix"
echo "$prefix"
