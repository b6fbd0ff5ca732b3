#!/usr/bin/env bash
# Checks the install step of a build directory (README, "Putting zibd on a
# gateway"): stages it with DESTDIR, checks the tree and the manual pages,
# and then
#   host build: starts and stops the staged daemon with the staged start
#               script inside a gateway sandbox (scripts/sandbox.sh);
#   cross build: packs the tarball with cpack, unpacks it and runs the
#               unpacked programs under the build's emulator (qemu-mips).
#
#   scripts/check-install.sh BUILD_DIR
#
# Prints the staged tree; exit status 0 when everything holds, else 1 with
# the failures named.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: check-install.sh BUILD_DIR}
build=$(cd "$build" && pwd)
stage=$build/stage
failures=0
fail() { echo "check-install: $*" >&2; failures=$((failures + 1)); }

cache_value() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }
prefix=$(cache_value CMAKE_INSTALL_PREFIX)
# A cross build names the emulator that runs its programs here.
emulator=$(cat "$build/install/emulator" 2>/dev/null || true)

rm -rf "$stage"
DESTDIR=$stage cmake --install "$build" >/dev/null
echo "check-install: DESTDIR=$stage cmake --install $build (prefix $prefix):"
(cd "$stage" && find . \( -type f -o -type l \) | sort | sed 's#^\./#  #')

root=$stage$prefix
for path in sbin/zibd bin/kordctl bin/rillctl bin/zibd-status share/zibd/file-types.ini \
            share/man/man8/zibd.8 share/man/man1/kordctl.1 share/man/man1/rillctl.1 share/man/man1/zibd-status.1; do
  [ -e "$root/$path" ] || fail "$prefix/$path is not installed"
done
init=$(find "$stage" -path '*/init.d/zibd' | head -n 1)
[ -n "$init" ] || fail "no start script (init.d/zibd) installed"
# Every profiler the installed map names is installed, when the build has it.
if [ -x "$build/tools/zibd-profile/zibd-profile" ]; then
  for profiler in $(grep -v '^#' "$root/share/zibd/file-types.ini" | cut -d: -f3 | sort -u); do
    [ -z "$profiler" ] || [ -x "$stage$profiler" ] || fail "the map names $profiler, which is not installed"
  done
else
  echo "check-install: no zibd-profile in this build (for MIPS: scripts/mips-media.sh first); none installed"
fi
# The manual pages format without a warning.
for page in "$root"/share/man/man*/*; do
  out=$(LC_ALL=C groff -man -ww -z "$page" 2>&1) || fail "${page##*/} does not format"
  [ -z "$out" ] || fail "${page##*/}: $out"
done

if [ -n "$emulator" ]; then
  # The tarball of the staged tree, unpacked, runs under the emulator.
  (cd "$build" && cpack >/dev/null) || fail "cpack failed"
  tarball=$(ls -t "$build"/zibd-*.tar.gz 2>/dev/null | head -n 1)
  if [ -n "$tarball" ]; then
    unpacked=$build/unpacked
    rm -rf "$unpacked" && mkdir -p "$unpacked" && tar -xzf "$tarball" -C "$unpacked"
    echo "check-install: ${tarball##*/}: $(tar -tzf "$tarball" | grep -vc '/$') files"
    out=$($emulator "$unpacked$prefix/sbin/zibd" -h 2>&1) || fail "zibd -h under $emulator failed"
    grep -q "Usage: zibd -t" <<<"$out" || fail "zibd -h printed: $out"
    out=$($emulator "$unpacked$prefix/bin/kordctl" --help 2>&1) || fail "kordctl --help under $emulator failed"
    grep -q "^usage: kordctl" <<<"$out" || fail "kordctl --help printed: $out"
    file -b "$unpacked$prefix/sbin/zibd" | grep -q 'MSB.*MIPS' || fail "zibd is not a big-endian MIPS program"
    echo "check-install: zibd -h and kordctl --help ran under $emulator from the unpacked tarball"
  else
    fail "cpack made no tarball"
  fi
else
  # The start script starts, reports and stops the staged daemon; zibd waits
  # for the bus meanwhile (none is needed for that).
  out=$(ZIBD_SANDBOX_KEEP=$stage scripts/sandbox.sh /bin/sh -c '
    init=$1 root=$2
    export ZIBD_DAEMON=$root/sbin/zibd ZIBD_MAP=$root/share/zibd/file-types.ini
    "$init" status; echo "status=$?"
    "$init" start; echo "start=$?"
    pid=$(cat /run/zibd.pid)
    "$init" status; echo "status=$?"
    "$init" stop; echo "stop=$?"
    [ -e "/proc/$pid" ] && echo "still there after stop"
    "$init" status; echo "status=$?"' check "$init" "$root" 2>&1) || fail "the sandbox failed: $out"
  expected="zibd: not running
status=3
zibd: started (pid PID)
start=0
zibd: running (pid PID)
status=0
zibd: stopped
stop=0
zibd: not running
status=3"
  [ "$(sed 's/pid [0-9]*/pid PID/' <<<"$out")" = "$expected" ] || fail "the start script said:
$out"
  echo "check-install: the start script started, reported and stopped zibd in a sandbox"
fi

((failures == 0)) || { echo "check-install: $failures failures" >&2; exit 1; }
echo "check-install: $build installs as it should"
