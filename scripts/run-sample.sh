#!/usr/bin/env bash
# Sets up the machine, builds zibd and runs it on the sandboxed sample
# gateway (scripts/sample-gateway.sh, docs/sample-gateway.md):
#
#   scripts/run-sample.sh [--fast] [--shell] [--tmpfs]
#
# Builds build/host (scripts/build.sh host), or, when ZIBD_BUILD_DIR names a
# configured build directory, the gateway's programs in that one.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
if [ -n "${ZIBD_BUILD_DIR:-}" ]; then
  [ -f "$ZIBD_BUILD_DIR/CMakeCache.txt" ] ||
    { echo "run-sample.sh: $ZIBD_BUILD_DIR is not a configured build directory" >&2; exit 2; }
  targets=(zibd rilld rillctl kordctl)
  # The status view and the profiler, where the tree has them.
  help=$(cmake --build "$ZIBD_BUILD_DIR" --target help)
  for target in zibd-status zibd-profile; do
    grep -q "^$target:" <<<"$help" && targets+=("$target")
  done
  cmake --build "$ZIBD_BUILD_DIR" -j2 --target "${targets[@]}"
else
  scripts/build.sh host
  export ZIBD_BUILD_DIR=$PWD/build/host
fi
ZIBD_BUILD_DIR=$(cd "$ZIBD_BUILD_DIR" && pwd)
export ZIBD_BUILD_DIR ZIBD_SANDBOX_KEEP=$ZIBD_BUILD_DIR
# Ctrl-C is for zibd and the status view, which stop on it, so that the
# sandbox ends with zibd's exit status; the sandbox's own processes ignore it
# (they inherit that). The --shell's commands get Ctrl-C as usual: that shell
# has its own process groups.
case " $* " in *" --shell "*) ;; *) trap '' INT ;; esac
exec scripts/sandbox.sh scripts/sample-gateway.sh "$@"
