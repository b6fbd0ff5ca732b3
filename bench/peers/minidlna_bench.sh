#!/usr/bin/env bash
# zibd with the shipped map and zibd-profile against Debian's minidlna, side
# by side in one gateway sandbox (scripts/sandbox.sh), each daemon with its
# own copy of the same real media: copies of sample/media under distinct
# names in 100 directories.
#
#   bench/peers/minidlna_bench.sh [--build DIR] [--rounds N] [--sizes "N..."]
#                                 [--copy N] [--idle SECONDS]
#
# For each size (default 1000 and 10000 files) and round (default 3), zibd
# and then minidlna index the corpus cold: a fresh tag store or database and
# the daemon started on it. The CPU time of each daemon's whole process tree
# (user + system of the daemon and of the children it reaped: zibd's
# profilers, minidlna's scanner) is read when every file is indexed (zibd:
# marked profiled, ".s.mdt"; minidlna: scan and playlists finished), and the
# daemon's resident memory then. With the smallest size, once the daemon
# watches every directory, N more files (--copy, default 1000) are copied with
# one cp into a watched directory, and the
# wall time from the end of the copy until all are indexed, and the CPU spent
# meanwhile, are read. In the first round of the largest size each daemon
# then idles for --idle seconds (default 60; 0 skips) and its CPU over that
# time and its memory are read. Medians over the rounds close the output; the
# load average is printed with every figure.
#
# minidlna (1.3.0 on Debian 12) is fetched with `apt-get download` and
# unpacked into ${ZIBD_CACHE:-~/.cache/zibd}/minidlna, and its libraries are
# installed with apt-get: its package is not installed, so no service starts.
# Inside the sandbox it runs in a network namespace of its own with only the
# loopback interface, so its SSDP announcements stay there.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)

build=$repo/build/host rounds=3 sizes="1000 10000" copy=1000 idle=60
while (($#)); do
  case "$1" in
    --build) build=$2; shift 2 ;;
    --rounds) rounds=$2; shift 2 ;;
    --sizes) sizes=$2; shift 2 ;;
    --copy) copy=$2; shift 2 ;;
    --idle) idle=$2; shift 2 ;;
    *) echo "usage: minidlna_bench.sh [--build DIR] [--rounds N] [--sizes \"N...\"] [--copy N] [--idle SECONDS]" >&2
       exit 2 ;;
  esac
done
for n in $sizes; do ((n >= 100 && n % 100 == 0)) || { echo "minidlna_bench: sizes are multiples of 100" >&2; exit 2; }; done
((rounds >= 1 && copy >= 1 && idle >= 0)) || { echo "minidlna_bench: --rounds >= 1, --copy >= 1, --idle >= 0" >&2; exit 2; }
cache=${ZIBD_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zibd}/minidlna
minidlnad=$cache/root/usr/sbin/minidlnad
load() { cut -d' ' -f1-3 /proc/loadavg; }

if [ "${ZIBD_IN_SANDBOX:-}" != 1 ]; then
  for name in zibd tools/rilld/rilld tools/rillctl/rillctl tools/kordctl/kordctl tools/zibd-profile/zibd-profile; do
    [ -x "$build/$name" ] || { echo "minidlna_bench: no $build/$name (scripts/build.sh host)" >&2; exit 1; }
  done
  if [ ! -x "$minidlnad" ]; then
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    echo "minidlna_bench: fetching minidlna into $cache"
    rm -rf "$cache" && mkdir -p "$cache/deb"
    # Its libraries, from the package's own Depends (lib* names only).
    libs=$(apt-cache depends minidlna | awk '$1 == "Depends:" && $2 ~ /^lib/ { print $2 }' | sort -u)
    # shellcheck disable=SC2086
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends $libs >/dev/null
    (cd "$cache/deb" && apt-get download -q minidlna -o APT::Sandbox::User="$(id -un)" >/dev/null 2>&1)
    dpkg-deb -x "$cache"/deb/minidlna_*.deb "$cache/root"
  fi
  echo "minidlna_bench: $(basename "$cache"/deb/minidlna_*.deb .deb), zibd of $build"
  ZIBD_SANDBOX_KEEP="$build:$cache${ZIBD_SANDBOX_KEEP:+:$ZIBD_SANDBOX_KEEP}" \
    exec "$repo/scripts/sandbox.sh" /bin/bash "$0" --build "$build" --rounds "$rounds" --sizes "$sizes" \
    --copy "$copy" --idle "$idle"
fi

# ---- inside the sandbox ---------------------------------------------------------
export LC_ALL=C RILL_SOCKET=/run/rill.sock TOCK_EVENTS=/run/tock.events
export PATH=$build/tools/rillctl:$build/tools/kordctl:$PATH
die() { echo "minidlna_bench: $*" >&2; exit 1; }
hz=$(getconf CLK_TCK)
# CPU seconds of a process and of the children it has reaped.
tree_cpu() { awk -v hz="$hz" '{ printf "%.2f", ($14 + $15 + $16 + $17) / hz }' "/proc/$1/stat"; }
# The same, split: "own X s, children Y s".
split_cpu() { awk -v hz="$hz" '{ printf "own %.2f s, children %.2f s", ($14 + $15) / hz, ($16 + $17) / hz }' "/proc/$1/stat"; }
rss() { awk '$1 == "VmRSS:" { print $2 }' "/proc/$1/status"; }
now() { echo "$EPOCHREALTIME"; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.2f", b - a }'; }
samples=("$repo"/sample/media/*)

# make_files DIR COUNT PREFIX: COUNT copies of the samples in turn.
make_files() {
  local i
  mkdir -p "$1"
  for ((i = 0; i < $2; i++)); do
    local s=${samples[i % ${#samples[@]}]}
    cp "$s" "$1/$(printf '%s%04d-' "$3" "$i")${s##*/}"
  done
}
# make_corpus MEDIA N: N files in 100 directories, and an empty "incoming".
make_corpus() {
  local d
  make_files "$1/d000" $(($2 / 100)) f
  for ((d = 1; d < 100; d++)); do cp -r "$1/d000" "$(printf '%s/d%03d' "$1" "$d")"; done
  mkdir -p "$1/incoming"
}
# The inotify watches a process holds.
watches() {
  local fd n=0
  for fd in /proc/"$1"/fd/*; do
    [ "$(readlink "$fd")" != "anon_inode:inotify" ] ||
      n=$((n + $(grep -c '^inotify wd:' "/proc/$1/fdinfo/${fd##*/}")))
  done
  echo "$n"
}
# wait_watched PID MEDIA: until PID watches every directory of MEDIA (a file
# copied into a directory before its watch is there is not seen at once).
wait_watched() {
  local want end=$((SECONDS + 300))
  want=$(find "$2" -type d | wc -l)
  until (($(watches "$1") >= want)); do
    ((SECONDS < end)) || die "pid $1 watches $(watches "$1") of $want directories"
    sleep 0.2
  done
}
# The files minidlna indexes among N of the corpus (it takes no PNG).
minidlna_expects() { find "$1" -type f ! -name '*.png' | wc -l; }

# The map's profiler at /usr/lib/zibd, as scripts/sample-gateway.sh puts it.
mkdir -p /run/zibd-lib /run/usr-lib/upper /run/usr-lib/work
ln -sf "$build/tools/zibd-profile/zibd-profile" /run/zibd-lib/zibd-profile
if [ ! -d /usr/lib/zibd ]; then
  mount -t overlay bench-usr-lib -o lowerdir=/usr/lib,upperdir=/run/usr-lib/upper,workdir=/run/usr-lib/work /usr/lib
  mkdir /usr/lib/zibd
fi
mount --bind /run/zibd-lib /usr/lib/zibd
export ZIBD_PROFILER_LOG=/dev/null
stage=/var/bench/stage
make_files "$stage" "$copy" new

# gateway_model UUID MOUNTPOINT: the bus the daemon starts on.
. "$repo/bench/gateway_model.sh"
uuid=be5c-0d1a
part=/var/uuidmount/$uuid
gateway_model "$uuid" "$part" >/run/gateway.model

: >/run/figures  # daemon size round cpu wall indexed rss copy_wall copy_cpu idle_ticks idle_rss
pids=()
stop_all() { local p; for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; wait "$p" 2>/dev/null || true; done; pids=(); }
trap stop_all EXIT

# idle_figures PID NAME N: the CPU ticks PID spends over --idle seconds, from
# 5 s after its indexing, and its RSS then, into the caller's idle_ticks and
# idle_rss, and printed.
idle_figures() {
  local before
  sleep 5
  before=$(awk '{ print $14 + $15 + $16 + $17 }' "/proc/$1/stat")
  sleep "$idle"
  idle_ticks=$(($(awk '{ print $14 + $15 + $16 + $17 }' "/proc/$1/stat") - before)) idle_rss=$(rss "$1")
  printf 'idle %s s after %s files: %-8s %s ticks of CPU, RSS %s kB (load %s)\n' "$idle" "$3" "$2" "$idle_ticks" \
    "$idle_rss" "$(load)"
}

profiled() { kordctl query "@.s.mdt@ exists" 2>/dev/null | wc -l; }
# wait_count SECONDS WANT COMMAND: until COMMAND prints WANT; false at the cap.
wait_count() {
  local end=$((SECONDS + $1)) got
  while ((SECONDS < end)); do
    got=$("${@:3}") && [ "$got" = "$2" ] && return 0
    sleep 0.2
  done
  echo "minidlna_bench: waited $1 s for $2, have ${got:-nothing} ($*)" >&2
  return 1
}

run_zibd() {  # N ROUND
  local n=$1 round=$2 zibd broker start cpu wall rss copy_wall=- copy_cpu=- idle_ticks=- idle_rss=- before
  rm -rf /var/uuidmount/* /tmp/.kord /var/kord/meta/* /rw/* /run/rill.sock /run/tock.events
  mkdir -p /tmp/.kord /var/kord/meta
  make_corpus "$part/Media" "$n"
  "$build/tools/rilld/rilld" --model /run/gateway.model & broker=$!
  pids+=("$broker")
  for _ in $(seq 100); do [ -S "$RILL_SOCKET" ] && break; sleep 0.1; done
  "$build/zibd" -t "$repo/sample/file-types.ini" 2>/run/zibd.err & zibd=$!
  pids+=("$zibd")
  rillctl wait VFS.MetaDataService.MetaDataStorageStatus OK 200 >/dev/null || die "zibd chose no storage"
  start=$(now)
  wait_count 3600 "$n" profiled || die "zibd did not profile the corpus"
  rillctl wait VFS.MetaDataService.ProfilingStatus Ready 60 >/dev/null || die "zibd did not end its scan"
  cpu=$(tree_cpu "$zibd") wall=$(since "$start") rss=$(rss "$zibd")
  echo "round $round, $n files: zibd     CPU $cpu s ($(split_cpu "$zibd")), wall $wall s from the first scan, $n profiled, RSS $rss kB (load $(load))"
  if ((n == ${sizes%% *})); then
    wait_watched "$zibd" "$part/Media"
    before=$(tree_cpu "$zibd")
    cp "$stage"/* "$part/Media/incoming/"
    start=$(now)
    wait_count 600 $((n + copy)) profiled || die "zibd did not profile the copied files"
    copy_wall=$(since "$start")
    copy_cpu=$(awk -v a="$before" -v b="$(tree_cpu "$zibd")" 'BEGIN { printf "%.2f", b - a }')
    echo "round $round, $copy files copied in: zibd     all profiled $copy_wall s after the copy, CPU $copy_cpu s (load $(load))"
  fi
  if ((round == 1 && n == ${sizes##* } && idle > 0)); then
    idle_figures "$zibd" zibd "$n"
  fi
  echo "zibd $n $round $cpu $wall $n $rss $copy_wall $copy_cpu $idle_ticks $idle_rss" >>/run/figures
  stop_all
  [ ! -s /run/zibd.err ] || { echo "zibd wrote to stderr:"; head /run/zibd.err; }
}

run_minidlna() {  # N ROUND
  local n=$1 round=$2 dir=/var/bench/minidlna pid start cpu wall rss want got copy_wall=- copy_cpu=- idle_ticks=- \
    idle_rss=- before
  rm -rf "$dir" && mkdir -p "$dir/db" "$dir/log"
  make_corpus "$dir/Media" "$n"
  want=$(minidlna_expects "$dir/Media")
  printf '%s\n' "media_dir=$dir/Media" "db_dir=$dir/db" "log_dir=$dir/log" network_interface=lo port=8299 \
    inotify=yes "log_level=general,artwork,database,inotify,scanner,metadata,http,ssdp,tivo=warn" >"$dir/conf"
  start=$(now)
  unshare --net /bin/sh -c 'ip link set lo up && exec "$0" -f "$1" -P "$2" -S' "$minidlnad" "$dir/conf" \
    "$dir/pid" >"$dir/out" 2>&1 & pid=$!
  pids+=("$pid")
  # Scanned, playlists parsed, and the scanner process reaped.
  local end=$((SECONDS + 3600))
  until grep -q 'Finished parsing playlists' "$dir/log/minidlna.log" 2>/dev/null &&
        [ -z "$(cat /proc/"$pid"/task/*/children 2>/dev/null)" ]; do
    ((SECONDS < end)) && kill -0 "$pid" 2>/dev/null || die "minidlna did not finish its scan: $(tail -3 "$dir/out")"
    sleep 0.2
  done
  cpu=$(tree_cpu "$pid") wall=$(since "$start") rss=$(rss "$pid")
  count() { sqlite3 -readonly "$dir/db/files.db" ".timeout 2000" "SELECT COUNT(*) FROM DETAILS WHERE MIME IS NOT NULL"; }
  got=$(count)
  echo "round $round, $n files: minidlna CPU $cpu s ($(split_cpu "$pid")), wall $wall s from its start, $got indexed, RSS $rss kB (load $(load))"
  if ((n == ${sizes%% *})); then
    wait_watched "$pid" "$dir/Media"
    before=$(tree_cpu "$pid")
    cp "$stage"/* "$dir/Media/incoming/"
    start=$(now)
    wait_count 600 $((got + $(minidlna_expects "$stage"))) count || die "minidlna did not index the copied files"
    copy_wall=$(since "$start")
    copy_cpu=$(awk -v a="$before" -v b="$(tree_cpu "$pid")" 'BEGIN { printf "%.2f", b - a }')
    echo "round $round, $copy files copied in: minidlna all indexed $copy_wall s after the copy, CPU $copy_cpu s (load $(load))"
  fi
  if ((round == 1 && n == ${sizes##* } && idle > 0)); then
    idle_figures "$pid" minidlna "$n"
  fi
  [ "$got" = "$want" ] || echo "minidlna indexed $got of the $want files it takes"
  echo "minidlna $n $round $cpu $wall $got $rss $copy_wall $copy_cpu $idle_ticks $idle_rss" >>/run/figures
  stop_all
}

echo "== zibd and minidlna, sizes $sizes, $rounds rounds, $copy files copied in; load average $(load)"
for n in $sizes; do
  for ((round = 1; round <= rounds; round++)); do
    run_zibd "$n" "$round"
    run_minidlna "$n" "$round"
  done
done

# Medians per daemon and size (the middle round; the mean of the two middle ones).
median() { sort -n | awk '{ v[NR] = $1 } END { if (NR == 0) print "-"; else if (NR % 2) print v[(NR + 1) / 2]; else printf "%.2f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
column_median() { awk -v d="$1" -v n="$2" -v c="$3" '$1 == d && $2 == n && $c != "-" { print $c }' /run/figures | median; }
echo "== medians of $rounds rounds (load average $(load))"
for n in $sizes; do
  for d in zibd minidlna; do
    printf '%-8s %6d files: CPU %s s, wall %s s, %s indexed, RSS %s kB' "$d" "$n" "$(column_median $d "$n" 4)" \
      "$(column_median $d "$n" 5)" "$(column_median $d "$n" 6)" "$(column_median $d "$n" 7)"
    [ "$n" != "${sizes%% *}" ] || printf ', %d copied in: indexed after %s s, CPU %s s' "$copy" \
      "$(column_median $d "$n" 8)" "$(column_median $d "$n" 9)"
    echo
  done
  awk -v z="$(column_median zibd "$n" 4)" -v zf="$(column_median zibd "$n" 6)" \
      -v m="$(column_median minidlna "$n" 4)" -v mf="$(column_median minidlna "$n" 6)" -v n="$n" \
    'BEGIN { printf "CPU per indexed file, %d files: zibd %.3f ms, minidlna %.3f ms, ratio %.2f\n", n,
             1000 * z / zf, 1000 * m / mf, (z / zf) / (m / mf) }'
done
