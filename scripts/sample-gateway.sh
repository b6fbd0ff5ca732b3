#!/usr/bin/env bash
# Inside the sandbox (scripts/sandbox.sh): lays out the sample gateway's disks
# below /var/uuidmount, starts the bus broker with the sample model, then runs
# zibd with the sample file-type map in the foreground until Ctrl-C.
#   --shell  start zibd in the background and open a shell in the sandbox
#            instead (rillctl, kordctl and zibd are on its PATH); leaving the
#            shell stops everything.
set -euo pipefail
cd "$(dirname "$0")/.."
[ "${ZIBD_IN_SANDBOX:-}" = 1 ] || { echo "sample-gateway.sh runs inside scripts/sandbox.sh" >&2; exit 2; }

# The programs: ZIBD_PROGRAM, RILLD, RILLCTL and KORDCTL when given (the tests
# give the paths their build made), else those of the build in ZIBD_BUILD_DIR
# (default build/host). They are put on PATH through links in /run/bin.
build=${ZIBD_BUILD_DIR:-build/host}
[[ $build = /* ]] || build=$PWD/$build
mkdir -p /run/bin
for program in zibd:${ZIBD_PROGRAM:-$build/zibd} rilld:${RILLD:-$build/tools/rilld/rilld} \
               rillctl:${RILLCTL:-$build/tools/rillctl/rillctl} kordctl:${KORDCTL:-$build/tools/kordctl/kordctl}; do
  name=${program%%:*} path=${program#*:}
  if [ -x "$path" ]; then
    ln -sf "$path" "/run/bin/$name"
  elif [ "$name" != kordctl ]; then
    echo "sample-gateway.sh: $name not found at $path (build it: scripts/build.sh host)" >&2; exit 1
  fi
done
export PATH="/run/bin:$PATH"
export RILL_SOCKET=/run/rill.sock TOCK_EVENTS=/run/tock.events

# Partition contents: a few small files of each kind (content does not matter
# to the indexer, only names and times).
media() { mkdir -p "$(dirname "$1")" && head -c "${2:-4096}" /dev/urandom >"$1"; }
family=/var/uuidmount/4f2a-91c3 stick=/var/uuidmount/77e0-0b12 ro=/var/uuidmount/c0de-5e7a
for i in 1 2 3; do
  media "$family/Media/Movies/holiday-$i.mkv"
  media "$family/Media/Music/Album/track-0$i.mp3"
  media "$family/Media/Pictures/2026/IMG_000$i.JPG"
  media "$stick/Music/song-$i.flac"
done
media "$family/Backup/laptop-image.mp4"
media "$stick/Documents/letter.pdf"
mkdir -p "$ro"

rilld --model sample/gateway.model &
broker=$!
trap 'kill $broker 2>/dev/null; wait $broker 2>/dev/null || true' EXIT
for _ in $(seq 50); do [ -S "$RILL_SOCKET" ] && break; sleep 0.1; done

echo "sample gateway: disks under /var/uuidmount, bus at $RILL_SOCKET, events in $TOCK_EVENTS"
if [ "${1:-}" = --shell ]; then
  zibd -t sample/file-types.ini &
  daemon=$!
  trap 'kill $daemon 2>/dev/null; wait $daemon 2>/dev/null; kill $broker 2>/dev/null; wait $broker 2>/dev/null || true' EXIT
  echo "zibd runs as pid $daemon; try: rillctl get VFS.MetaDataService, kordctl stats, ls -R /var/uuidmount"
  PS1='[zibd sandbox] \w\$ ' bash --norc -i || true
else
  echo "zibd runs in the foreground; Ctrl-C stops it"
  zibd -t sample/file-types.ini
fi
