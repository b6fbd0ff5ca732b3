#!/usr/bin/env bash
# Configures and builds one variant into build/VARIANT:
#   host   the development host (default)
#   asan   AddressSanitizer + UndefinedBehaviorSanitizer
#   tsan   ThreadSanitizer
#   mips   the gateway's big-endian 32-bit MIPS (tests run under qemu-mips)
set -euo pipefail
cd "$(dirname "$0")/.."
variant=${1:-host}
args=(-G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo)
case "$variant" in
  host) ;;
  asan) args+=(-DZIBD_SANITIZE=address,undefined -DZIBD_BUILD_BENCH=OFF) ;;
  tsan) args+=(-DZIBD_SANITIZE=thread -DZIBD_BUILD_BENCH=OFF) ;;
  mips) args+=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mips-linux-gnu.cmake" -DZIBD_BUILD_BENCH=OFF) ;;
  *) echo "build.sh: unknown variant '$variant' (host, asan, tsan, mips)" >&2; exit 2 ;;
esac
cmake -S . -B "build/$variant" "${args[@]}" >/dev/null
cmake --build "build/$variant" -j"$(nproc)"
