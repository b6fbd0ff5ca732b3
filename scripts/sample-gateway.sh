#!/usr/bin/env bash
# Inside the sandbox (scripts/sandbox.sh): builds the sample gateway and runs
# zibd on it until Ctrl-C (docs/sample-gateway.md).
#
#   sample-gateway.sh [--fast] [--shell] [--tmpfs]
#
# Three USB disks as file system images below /var/uuidmount: an ext4 "family
# disk" (the managed one, with a Media directory), a FAT stick with a data
# partition and a read-only one, and an NTFS disk, the last two mounted
# through FUSE, filled with the small media files of sample/media. The bus
# broker starts with sample/gateway.model, the build's zibd-profile is put
# where sample/file-types.ini points (/usr/lib/zibd), and zibd runs with that
# map.
#   --fast   zibd's clock runs ten times faster (libfaketime): the start-up
#            pause of 60 s and the settle time of 30 s take 9 s together
#   --shell  open a shell in the sandbox (rillctl, kordctl, zibd-status on
#            its PATH); leaving it stops everything
#   --tmpfs  tmpfs disks instead of file system images (also the fallback
#            when the machine cannot make one, which is said on screen)
# Without --shell the status view (zibd-status) runs in the foreground when it
# has been built and the output is a terminal; otherwise the script waits for
# zibd. Ctrl-C stops zibd, and the script exits with zibd's exit status.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
[ "${ZIBD_IN_SANDBOX:-}" = 1 ] || { echo "sample-gateway.sh runs inside scripts/sandbox.sh" >&2; exit 2; }

fast=0 shell=0 tmpfs=0
for arg in "$@"; do
  case "$arg" in
    --fast) fast=1 ;;
    --shell) shell=1 ;;
    --tmpfs) tmpfs=1 ;;
    -h|--help) sed -n '2,/^set -euo/{/^set -euo/d;s/^# \{0,1\}//;p}' "$0"; exit 0 ;;
    *) echo "sample-gateway.sh: unknown option '$arg' (--fast, --shell, --tmpfs)" >&2; exit 2 ;;
  esac
done
say() { echo "sample gateway: $*"; }

# The programs: ZIBD_PROGRAM, RILLD, RILLCTL and KORDCTL when given (the tests
# give the paths their build made), else those of the build in ZIBD_BUILD_DIR
# (default build/host), with every other program of its tools/ (the status
# view among them). They are put on PATH through links in /run/bin.
build=${ZIBD_BUILD_DIR:-build/host}
[[ $build = /* ]] || build=$repo/$build
mkdir -p /run/bin
for tool in "$build"/tools/*/*; do
  [ -f "$tool" ] && [ -x "$tool" ] && ln -sf "$tool" "/run/bin/${tool##*/}"
done
for program in zibd:${ZIBD_PROGRAM:-$build/zibd} rilld:${RILLD:-$build/tools/rilld/rilld} \
               rillctl:${RILLCTL:-$build/tools/rillctl/rillctl} kordctl:${KORDCTL:-$build/tools/kordctl/kordctl}; do
  name=${program%%:*} path=${program#*:}
  if [ -x "$path" ]; then
    ln -sf "$path" "/run/bin/$name"
  else
    echo "sample-gateway.sh: $name not found at $path (build it: scripts/build.sh host)" >&2; exit 1
  fi
done
export PATH="/run/bin:$PATH"
export RILL_SOCKET=/run/rill.sock TOCK_EVENTS=/run/tock.events
export ZIBD_PROFILER_LOG=${ZIBD_PROFILER_LOG:-/run/zibd-profilers.log}

# The disks, at the mount points of sample/gateway.model, each named after its
# file system's UUID or serial as the gateway names them: the family disk is
# ext4, the stick FAT and the third disk NTFS, the last two through FUSE
# (fusefat, ntfs-3g) as on a gateway (scripts/disks.sh).
family=/var/uuidmount/4f2a91c3-7d1e-4b6a-9c05-2e8f1a3b6d74
stick=/var/uuidmount/77E0-0B12
stick_ro=/var/uuidmount/C0DE-5E7A
ntfs=/var/uuidmount/6A3C1D2E4F5B7081
. "$repo/scripts/disks.sh"

# make_disk DIR FS SIZE_MB: that file system at DIR; a tmpfs when this
# machine cannot make it (or --tmpfs), and then the reason is said.
make_disk() {
  if ((tmpfs)); then
    DISK_WHY="--tmpfs"
  elif disk_mount "$@"; then
    say "$1: $(disk_kind "$1"), $3 MB"
    return 0
  fi
  say "$1 is a tmpfs, not a $2 image ($DISK_WHY)"
  mkdir -p "$1"
  mount -t tmpfs -o size="$3m" "sample-${1##*/}" "$1"
}

make_disk "$family" ext4 32
make_disk "$stick" fat 16
make_disk "$stick_ro" fat 4
make_disk "$ntfs" ntfs 16

# The media: real files with metadata from sample/media, one that no tool can
# read, and files outside the index rules' directories.
put() {  # SOURCE DESTINATION
  mkdir -p "$(dirname "$2")" && cp "$repo/sample/media/$1" "$2"
}
put holiday.mkv "$family/Media/Movies/Holiday at the Sea.mkv"
put birthday.mp4 "$family/Media/Movies/birthday.mp4"
put morning-light.mp3 "$family/Media/Music/The Sample Band/First Light/01 Morning Light.mp3"
put evening-tide.flac "$family/Media/Music/The Sample Band/First Light/02 Evening Tide.flac"
put beach.jpg "$family/Media/Pictures/2025/beach.jpg"
put tower.jpg "$family/Media/Pictures/2025/tower.jpg"
put drawing.png "$family/Media/Pictures/drawing.png"
head -c 8192 /dev/zero | tr '\0' x >"$family/Media/Movies/damaged.avi"
mkdir -p "$family/Backup"
head -c 8192 /dev/urandom >"$family/Backup/laptop-image.mp4"
put road-trip.ogg "$stick/Music/road-trip.ogg"
put tower.jpg "$stick/Music/cover.jpg"
mkdir -p "$stick/Documents"
echo "Dear reader, this stick holds more than music." >"$stick/Documents/letter.txt"
put beach.jpg "$stick_ro/DCIM/beach.jpg"
# Filled, now read-only as on the bus.
disk_readonly "$stick_ro" || say "$stick_ro stays writable: $DISK_WHY"
# The NTFS disk: what a laptop leaves on it, names in other scripts included.
put holiday.mkv "$ntfs/Videos/Vacances à la mer.mkv"
put evening-tide.flac "$ntfs/Videos/Музыка/Вечерний прилив.flac"
put tower.jpg "$ntfs/Videos/写真/塔.jpg"
mkdir -p "$ntfs/\$RECYCLE.BIN" "$ntfs/System Volume Information"

# The profiler where the map points (/usr/lib/zibd/zibd-profile): the build's
# zibd-profile (or ZIBD_PROFILE), linked from /run/zibd-lib, which is bound
# there. /usr is the host's, bound into the sandbox: an overlay with a tmpfs
# upper layer over /usr/lib makes room for zibd's directory without touching
# the host. Where that fails the map is copied with the profiler's path
# rewritten, and that is said.
map=$repo/sample/file-types.ini
profile=${ZIBD_PROFILE:-$build/tools/zibd-profile/zibd-profile}
[ -x "$profile" ] || { echo "sample-gateway.sh: zibd-profile not found at $profile (build it: scripts/build.sh host)" >&2; exit 1; }
mkdir -p /run/zibd-lib
ln -sf "$profile" /run/zibd-lib/zibd-profile
install_profiler() {
  if [ ! -d /usr/lib/zibd ]; then
    mkdir -p /run/usr-lib/upper /run/usr-lib/work
    mount -t overlay sample-usr-lib \
      -o lowerdir=/usr/lib,upperdir=/run/usr-lib/upper,workdir=/run/usr-lib/work /usr/lib 2>/dev/null &&
      mkdir /usr/lib/zibd || return 1
  fi
  mount --bind /run/zibd-lib /usr/lib/zibd
}
if ! install_profiler; then
  sed "s#/usr/lib/zibd/#/run/zibd-lib/#" "$map" >/run/file-types.ini
  map=/run/file-types.ini
  say "cannot make /usr/lib/zibd here; zibd uses $map (the shipped map with the profiler in /run/zibd-lib)"
fi

broker=""
daemon=""
# Either may have ended already (Ctrl-C reaches the broker too).
stop_all() {
  [ -z "$daemon" ] || { kill -TERM "$daemon" 2>/dev/null || true; wait "$daemon" 2>/dev/null || true; }
  [ -z "$broker" ] || { kill "$broker" 2>/dev/null || true; wait "$broker" 2>/dev/null || true; }
}
trap stop_all EXIT
rilld --model sample/gateway.model &
broker=$!
for _ in $(seq 100); do [ -S "$RILL_SOCKET" ] && break; sleep 0.1; done
[ -S "$RILL_SOCKET" ] || { echo "sample-gateway.sh: the broker did not start" >&2; exit 1; }

zibd_env=()
if ((fast)); then
  lib=${FAKETIME_LIB:-$(ls /usr/lib/*/faketime/libfaketimeMT.so.1 2>/dev/null | head -n 1)}
  [ -n "$lib" ] && [ -f "$lib" ] || { echo "sample-gateway.sh: --fast needs libfaketime (scripts/setup.sh)" >&2; exit 1; }
  # NO_FAKE_STAT: file times stay real, so the modification-time tags do.
  zibd_env=(env NO_FAKE_STAT=1 FAKETIME="+0 x10" LD_PRELOAD="$lib")
  say "zibd's clock runs ten times faster: the first scan starts about 9 s after start-up"
else
  say "zibd waits 60 s at start-up and 30 s for the disks to settle before the first scan (--fast: 9 s)"
fi

say "disks under /var/uuidmount, bus at $RILL_SOCKET, events in $TOCK_EVENTS"
say "the profiler logs to $ZIBD_PROFILER_LOG"
"${zibd_env[@]}" zibd -t "$map" &
daemon=$!

if ((shell)); then
  say "zibd runs as pid $daemon; try: zibd-status, rillctl get VFS.MetaDataService, kordctl stats,"
  say "  kordctl tags \"$family/Media/Movies/birthday.mp4\", cp, mv, rm below /var/uuidmount,"
  say "  rillctl del Storage.Disk.2 (unplug the stick)"
  PS1='[zibd sandbox] \w\$ ' bash --norc -i || true
  exit 0
fi

# Ctrl-C reaches zibd (and the view), which stop on it; this script only
# follows them, so it ignores the signal itself.
trap '' INT
if command -v zibd-status >/dev/null && [ -t 1 ] && [ -t 0 ]; then
  say "zibd runs as pid $daemon; the status view follows it (Ctrl-C or q stops both)"
  # The view keeps the terminal (an explicit redirection: a background
  # command would read /dev/null); whichever ends first ends the other.
  zibd-status <&0 &
  view=$!
  while kill -0 "$daemon" 2>/dev/null && kill -0 "$view" 2>/dev/null; do sleep 0.2; done
  kill -INT "$view" "$daemon" 2>/dev/null || true
  wait "$view" || true
else
  say "zibd runs in the foreground; Ctrl-C stops it"
fi
# zibd's own exit status: 0 after Ctrl-C (SIGINT).
status=0
wait "$daemon" || status=$?
daemon=""
exit "$status"
