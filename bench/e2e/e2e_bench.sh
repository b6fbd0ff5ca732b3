#!/usr/bin/env bash
# End-to-end figures of the real zibd at real speed, each run in its own
# gateway sandbox (scripts/sandbox.sh) with the broker rilld, one disk with
# one partition, an index rule over its "Media" directory and a profiler
# written here that notes when it starts:
#
#   bench/e2e/e2e_bench.sh [--build DIR] [--mips-build DIR] [--files N]
#                          [--dirs N] [--idle SECONDS] [latency|idle|size]...
#
#   latency  N files (default 50) written one after another into a watched
#            directory, each after a random 0 to 2.5 s pause so that its close
#            falls anywhere in the event loop's 2.5 s pass: the time from the
#            close to its tags (".s.tbp" and ".s.filetype" set) and to its
#            profiled mark (".s.mdt"), median and 95th percentile
#   idle     the CPU time (user + system) and resident memory (VmRSS, VmHWM)
#            of an idle zibd watching N directories (default 1000) over
#            SECONDS (default 60), once its first scan is over
#   size     the stripped size of zibd, of --mips-build (mips-linux-gnu-strip)
#            and of --build (strip)
#
# DIR is a build directory with zibd, rilld, rillctl and kordctl (default
# build/host; --mips-build defaults to build/mips). Without a mode all three
# run. The machine's load average is printed with each figure.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)

build=$repo/build/host mips_build=$repo/build/mips files=50 dirs=1000 idle=60
modes=()
while (($#)); do
  case "$1" in
    --build) build=$2; shift 2 ;;
    --mips-build) mips_build=$2; shift 2 ;;
    --files) files=$2; shift 2 ;;
    --dirs) dirs=$2; shift 2 ;;
    --idle) idle=$2; shift 2 ;;
    latency|idle|size) modes+=("$1"); shift ;;
    *) echo "usage: e2e_bench.sh [--build DIR] [--mips-build DIR] [--files N] [--dirs N] [--idle SECONDS] [latency|idle|size]..." >&2
       exit 2 ;;
  esac
done
((${#modes[@]})) || modes=(latency idle size)
((files >= 1 && dirs >= 3 && idle >= 1)) || { echo "e2e_bench: --files >= 1, --dirs >= 3, --idle >= 1" >&2; exit 2; }

# A program of a build directory, wherever that build puts it.
program() {
  local dir=$1 name=$2 p
  for p in "$dir/$name" "$dir/bin/$name" "$dir/tools/$name/$name"; do
    [ -x "$p" ] && [ -f "$p" ] && { echo "$p"; return; }
  done
  echo "e2e_bench: no $name in $dir (build it first)" >&2
  return 1
}
load() { cut -d' ' -f1-3 /proc/loadavg; }

if [ "${ZIBD_IN_SANDBOX:-}" != 1 ]; then
  for mode in "${modes[@]}"; do
    if [ "$mode" = size ]; then
      echo "== stripped size of zibd (load average $(load))"
      for side in "mips:$mips_build:mips-linux-gnu-strip" "host:$build:strip"; do
        IFS=: read -r name dir strip <<<"$side"
        zibd=$(program "$dir" zibd) || continue
        tmp=$(mktemp)
        "$strip" -o "$tmp" "$zibd"
        printf '%-5s %9d bytes stripped (%d unstripped) %s\n' "$name" "$(stat -c %s "$tmp")" \
          "$(stat -c %s "$zibd")" "$zibd"
        rm -f "$tmp"
      done
      continue
    fi
    for name in zibd rilld rillctl kordctl; do program "$build" "$name" >/dev/null; done
    ZIBD_SANDBOX_KEEP="$build${ZIBD_SANDBOX_KEEP:+:$ZIBD_SANDBOX_KEEP}" \
      "$repo/scripts/sandbox.sh" /bin/bash "$0" --build "$build" --files "$files" --dirs "$dirs" \
      --idle "$idle" "$mode"
  done
  exit 0
fi

# ---- inside the sandbox: one mode ----------------------------------------------
mode=${modes[0]}
export LC_ALL=C RILL_SOCKET=/run/rill.sock TOCK_EVENTS=/run/tock.events
zibd_program=$(program "$build" zibd) rilld=$(program "$build" rilld)
rillctl=$(program "$build" rillctl) kordctl=$(program "$build" kordctl)
die() { echo "e2e_bench: $*" >&2; exit 1; }
# The tests' one shell wait: wait_until SECONDS COMMAND...
. "$repo/tests/support/wait.sh"
# gateway_model UUID MOUNTPOINT: the bus the daemon starts on.
. "$repo/bench/gateway_model.sh"

uuid=be5c-0e2e
part=/var/uuidmount/$uuid
films=$part/Media/Films
mkdir -p "$films"
if [ "$mode" = idle ]; then
  # The partition, its Media directory and the rest below Media.
  (cd "$part/Media" && for ((i = 1; i <= dirs - 2; i++)); do printf 'd%04d\0' "$i"; done | xargs -0 mkdir -p)
fi

# The profiler notes when it starts, then each file of its view.
cat >/tmp/profile.sh <<'EOF'
#!/bin/bash
start=$EPOCHREALTIME
for link in "$1"/*; do [ -L "$link" ] && printf '%s\t%s\n' "$start" "$(readlink -f "$link")"; done >>/tmp/profiler.log
EOF
chmod +x /tmp/profile.sh
: >/tmp/profiler.log
printf 'mkv:STDVIDEO:/tmp/profile.sh:\n' >/tmp/types.ini
gateway_model "$uuid" "$part" >/tmp/gateway.model

"$rilld" --model /tmp/gateway.model & broker=$!
wait_until 10 test -S "$RILL_SOCKET" || die "the broker did not start"
"$zibd_program" -t /tmp/types.ini 2>/tmp/zibd.err & zibd=$!
trap 'kill -TERM $zibd $broker 2>/dev/null || true' EXIT
echo "== $mode: zibd $zibd_program (pid $zibd), load average $(load)"
"$rillctl" wait VFS.MetaDataService.MetaDataStorageStatus OK 200 >/dev/null ||
  die "no metadata storage chosen: $(cat /tmp/zibd.err)"
echo "storage chosen after $SECONDS s"

inotifyInfo() {
  local fd
  for fd in /proc/$zibd/fd/*; do
    if [ "$(readlink "$fd")" = "anon_inode:inotify" ]; then cat "/proc/$zibd/fdinfo/${fd##*/}"; fi
  done
}
watching() { inotifyInfo | grep -q "^inotify wd:[0-9a-f]* ino:$(printf '%x' "$(stat -c %i "$1")") "; }
watches() { inotifyInfo | grep -c '^inotify wd:'; }
wait_until 60 watching "$films" || die "the films directory is not watched"

# Sorted figures in, "median p95 min max" out (nearest-rank 95th percentile).
summary() {
  sort -n | awk '{ v[NR] = $1 } END {
    m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
    r = int(0.95 * NR); if (r < 0.95 * NR) r++
    printf "median %.2f s, 95th percentile %.2f s, min %.2f s, max %.2f s", m, v[r], v[1], v[NR] }'
}
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }

if [ "$mode" = latency ]; then
  printf '%4s %9s %9s %11s\n' file tags profiler profiled
  : >/tmp/latency
  for ((i = 1; i <= files; i++)); do
    sleep "$(awk -v r=$RANDOM 'BEGIN { printf "%.3f", r / 32768 * 2.5 }')"
    file=$films/film$i.mkv
    printf 'film %d\n' "$i" >"$file"
    close=$EPOCHREALTIME
    # The first pass that can find the directory settled ends 2.5 s after
    # the close's event: poll from a little before.
    sleep 2.2
    tagged="" marked=""
    for ((n = 0; n < 1500; n++)); do
      t=$("$kordctl" tags "$file" 2>/dev/null || true)
      now=$EPOCHREALTIME
      [[ -z $tagged && $t == *.s.tbp=1* && $t == *.s.filetype=STDVIDEO* ]] && tagged=$now
      [[ $t == *.s.mdt=* ]] && { marked=$now; break; }
      sleep 0.02
    done
    [ -n "$marked" ] || die "film$i.mkv was not profiled within 30 s"
    # The profiler starts after the tags are committed: its start bounds the
    # tag time too, when the polls missed the short time the tags were there.
    started=$(awk -F'\t' -v f="$file" '$2 == f { print $1 }' /tmp/profiler.log | tail -n1)
    [ -n "$started" ] || die "the profiler never saw film$i.mkv"
    if [ -z "$tagged" ] || awk -v a="$started" -v b="$tagged" 'BEGIN { exit !(a < b) }'; then tagged=$started; fi
    printf '%4d %8.2fs %8.2fs %10.2fs\n' "$i" "$(elapsed "$close" "$tagged")" "$(elapsed "$close" "$started")" \
      "$(elapsed "$close" "$marked")" | tee -a /tmp/latency
  done
  echo "close to tags (.s.tbp, .s.filetype):  $(awk '{ print $2 + 0 }' /tmp/latency | summary)"
  echo "close to profiler start:              $(awk '{ print $3 + 0 }' /tmp/latency | summary)"
  echo "close to profiled mark (.s.mdt):      $(awk '{ print $4 + 0 }' /tmp/latency | summary)"
  echo "load average at the end: $(load)"
else
  # Idle: every directory watched and the first scan over.
  until (($(watches) >= dirs)); do
    ((SECONDS < 400)) || die "only $(watches) of $dirs directories watched"
    sleep 0.5
  done
  "$rillctl" wait VFS.MetaDataService.ProfilingStatus Ready 60 >/dev/null || die "the first scan did not end"
  sleep 5
  cpu() { awk '{ print $14 + $15 }' "/proc/$zibd/stat"; }
  mem() { awk -v k="$1:" '$1 == k { print $2 }' "/proc/$zibd/status"; }
  switches() { cat /proc/$zibd/task/*/status | awk '/^(non)?voluntary_ctxt_switches/ { s += $2 } END { print s }'; }
  hz=$(getconf CLK_TCK)
  ticks0=$(cpu) switches0=$(switches) load0=$(load)
  sleep "$idle"
  ticks1=$(cpu) switches1=$(switches)
  echo "watches: $(watches) inotify watches for $dirs directories; threads: $(ls /proc/$zibd/task | wc -l)"
  awk -v t=$((ticks1 - ticks0)) -v hz="$hz" -v s="$idle" \
    'BEGIN { printf "CPU time (user + system) over %d s idle: %d ms (%d ticks of %d Hz)\n", s, t * 1000 / hz, t, hz }'
  echo "context switches over $idle s (all threads): $((switches1 - switches0))"
  echo "VmRSS $(mem VmRSS) kB, VmHWM $(mem VmHWM) kB, VmSize $(mem VmSize) kB"
  echo "load average at the start: $load0, at the end: $(load)"
fi

trap - EXIT
kill -TERM "$zibd"; wait "$zibd" || die "zibd exited with status $?"
kill -TERM "$broker"; wait "$broker" 2>/dev/null || true
[ -s /tmp/zibd.err ] && { echo "zibd wrote to stderr:"; cat /tmp/zibd.err; }
true
