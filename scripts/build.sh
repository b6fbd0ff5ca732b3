#!/usr/bin/env bash
# Configures and builds one variant into build/VARIANT:
#   host   the development host (default)
#   asan   AddressSanitizer + UndefinedBehaviorSanitizer
#   tsan   ThreadSanitizer
#   mips   the gateway's big-endian 32-bit MIPS (tests run under qemu-mips)
#   tsa    clang++ -Wthread-safety -Werror compile of the daemon (no tests)
#   fuzz   clang libFuzzer targets of fuzz/ (no tests; fuzz/run.sh runs them)
set -euo pipefail
cd "$(dirname "$0")/.."
variant=${1:-host}
args=(-G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo)
targets=()
case "$variant" in
  host) ;;
  tsa) args+=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DZIBD_THREAD_SAFETY_ANALYSIS=ON
              -DZIBD_BUILD_TESTS=OFF -DZIBD_BUILD_BENCH=OFF)
       targets=(--target zibd) ;;
  asan) args+=(-DZIBD_SANITIZE=address,undefined -DZIBD_BUILD_BENCH=OFF) ;;
  fuzz) args+=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DZIBD_FUZZ=ON
               -DZIBD_SANITIZE=fuzzer-no-link,address,undefined -DZIBD_BUILD_TESTS=OFF -DZIBD_BUILD_BENCH=OFF)
        targets=(--target fuzz_all) ;;
  tsan) args+=(-DZIBD_SANITIZE=thread -DZIBD_BUILD_BENCH=OFF) ;;
  mips)
    # The target's SQLite, built once from Debian's source into a cache that
    # outlives the checkout (keyed on its recipe, so a changed recipe rebuilds).
    sqlite=$(scripts/mips-sqlite.sh "${ZIBD_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zibd}/mips-sqlite")
    # Host programs beside it, for the tests that cross the byte order: kordctl
    # hands tag databases between the two (tests/system/kordctl_cross); rilld,
    # rillctl and kordctl serve the emulated zibd (tests/system/mips_road).
    hosttools=$PWD/build/$variant/host-tools
    cmake -S . -B "$hosttools" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZIBD_BUILD_TESTS=OFF \
      -DZIBD_BUILD_BENCH=OFF -DCMAKE_RUNTIME_OUTPUT_DIRECTORY="$hosttools/bin" >/dev/null
    cmake --build "$hosttools" -j"$(nproc)" --target kordctl rilld rillctl
    # zibd-profile's libraries, when scripts/mips-media.sh has made them
    # (not part of the test command: the profiler is left out without them).
    media=${ZIBD_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zibd}/mips-media
    [ -f "$media/stamp" ] || media=""
    args+=(-DZIBD_MEDIA_PREFIX="$media")
    args+=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mips-linux-gnu.cmake" -DZIBD_BUILD_BENCH=OFF
           -DSQLITE3_LIBRARY="$sqlite/lib/libsqlite3.a" -DSQLITE3_INCLUDE_DIR="$sqlite/include"
           -DZIBD_HOST_KORDCTL="$hosttools/bin/kordctl" -DZIBD_HOST_TOOLS="$hosttools/bin") ;;
  *) echo "build.sh: unknown variant '$variant' (host, asan, tsan, mips, tsa, fuzz)" >&2; exit 2 ;;
esac
# CMake takes a toolchain file's initial flags only when a build directory is
# first configured: a changed toolchain file configures the cross build afresh.
if [ "$variant" = mips ]; then
  toolchain=$(sha256sum cmake/mips-linux-gnu.cmake)
  [ "$(cat "build/$variant/toolchain.sha256" 2>/dev/null)" = "$toolchain" ] || rm -f "build/$variant/CMakeCache.txt"
fi
# Configure speaks up: a missing compiler or library stops the build here
# with CMake's own message instead of leaving targets out.
cmake -S . -B "build/$variant" "${args[@]}" --log-level=NOTICE
[ "$variant" != mips ] || echo "$toolchain" >"build/$variant/toolchain.sha256"
cmake --build "build/$variant" -j"$(nproc)" "${targets[@]}"
