#!/usr/bin/env bash
# Sets up the machine, builds zibd and runs it on the sandboxed sample
# gateway (see scripts/sample-gateway.sh; pass --shell for a shell inside).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh host
export ZIBD_BUILD_DIR=${ZIBD_BUILD_DIR:-$PWD/build/host}
export ZIBD_SANDBOX_KEEP=$ZIBD_BUILD_DIR
exec scripts/sandbox.sh scripts/sample-gateway.sh "$@"
