# Shell helpers for the system scenarios that run zibd on a simulated gateway
# inside scripts/sandbox.sh (see tests/support/gateway_sandbox.h, which passes
# this file's path as GATEWAY_LIB together with the programs' paths). A
# scenario sources it with `. "$GATEWAY_LIB"` and then builds its gateway:
#
#   gw_model >/tmp/gateway.model
#   gw_disk 1 aaaa 1000 >>/tmp/gateway.model
#   gw_start_broker /tmp/gateway.model
#   gw_start_zibd /tmp/types.ini
#   gw_wait_status OK
#
# Every wait polls a condition with short sleeps up to a generous cap and
# returns 1 at the cap, so a scenario never sleeps to "let things happen".
# zibd runs with its clock ten times faster (libfaketime, NO_FAKE_STAT=1 so
# that file times stay real): its 60 s start-up pause takes 6 s, the 30 s
# settle 3 s and the 3 quiet seconds of a directory 0.3 s.

export RILL_SOCKET=/run/rill.sock TOCK_EVENTS=/run/tock.events
GW_BROKER=
GW_ZIBD=

gw_fail() { echo "FAILED: $*"; }

# gw_wait_for SECONDS COMMAND [ARG]...: 0 once COMMAND succeeds, 1 when it
# has not within SECONDS (real time).
gw_wait_for() {
  local cap=$1 i
  shift
  for ((i = 0; i < cap * 20; i++)); do
    "$@" && return 0
    sleep 0.05
  done
  "$@"
}

# The bus object "VFS.MetaDataService" as a gateway seeds it, then one line
# per extra argument.
gw_model() {
  printf '%s\n' VFS.MetaDataService.ForceRescan=0 VFS.MetaDataService.MetaDataStorageStatus=NoSuitableDisk \
    VFS.MetaDataService.ProfilingStatus=Ready "$@"
}

# gw_disk N UUID [CAPACITY_MB [FREE_KB [READ_ONLY]]]: disk N with one
# partition mounted at /var/uuidmount/UUID (the directory is made here).
gw_disk() {
  local n=$1 uuid=$2 capacity=${3:-1000} free=${4:-1048576} ro=${5:-0}
  mkdir -p "/var/uuidmount/$uuid"
  printf '%s\n' "Storage.Disk.$n.CapacityInMBytes=$capacity" "Storage.Disk.$n.DoUnMount=0" \
    "Storage.Disk.$n.Partition.1.MountPoint=/var/uuidmount/$uuid" "Storage.Disk.$n.Partition.1.Status=1" \
    "Storage.Disk.$n.Partition.1.FreeSpaceInKBytes=$free" "Storage.Disk.$n.Partition.1.ReadOnly=$ro" \
    "Storage.Disk.$n.Partition.1.Manageddisk=0"
}

# gw_rule N UUID DIRECTORY MOVIE MUSIC PICTURE [STATUS]: index rule N.
gw_rule() {
  local p=ContentSharing.UPnPAV.IndexRules.$1
  printf '%s\n' "$p.UUID=$2" "$p.DirectoryName=$3" "$p.PartitionName=$2" "$p.EnableMovie=$4" \
    "$p.EnableMusic=$5" "$p.EnablePicture=$6" "$p.Status=${7:-Up}"
}

gw_start_broker() {
  "$RILLD" --model "$1" &
  GW_BROKER=$!
  gw_wait_for 10 test -S "$RILL_SOCKET" || gw_fail "no broker socket"
}

# gw_start_zibd MAP: zibd with the sped-up clock; its standard error is
# appended to /tmp/zibd.err, which the test expects to stay empty.
gw_start_zibd() {
  NO_FAKE_STAT=1 FAKETIME="+0 x10" LD_PRELOAD="$FAKETIME_LIB" "$ZIBD_PROGRAM" -t "$1" 2>>/tmp/zibd.err &
  GW_ZIBD=$!
}

# gw_stop_zibd [SIGNAL]: signals zibd (TERM by default), waits for it and
# prints "zibd exit=STATUS", or "zibd still running" when it has not ended
# within 30 s (it is then killed).
gw_stop_zibd() {
  kill -"${1:-TERM}" "$GW_ZIBD"
  if gw_wait_for 30 gw_gone "$GW_ZIBD"; then
    wait "$GW_ZIBD"
    echo "zibd exit=$?"
  else
    echo "zibd still running"
    kill -KILL "$GW_ZIBD"
    wait "$GW_ZIBD"
  fi
  GW_ZIBD=
}

# True once PID is no longer a running process (a zombie counts as gone).
gw_gone() { ! [ -e "/proc/$1" ] || [ "$(awk '{print $3}' "/proc/$1/stat" 2>/dev/null)" = Z ]; }

gw_stop_broker() {
  [ -n "$GW_BROKER" ] || return 0
  kill -TERM "$GW_BROKER"
  wait "$GW_BROKER" 2>/dev/null
  GW_BROKER=
}

# gw_wait_status VALUE [SECONDS]: "MetaDataStorageStatus" holds VALUE.
gw_wait_status() { "$RILLCTL" wait VFS.MetaDataService.MetaDataStorageStatus "$1" "${2:-60}"; }

# gw_location EXPECTED: waits until the metadata location file names
# EXPECTED (zibd publishes "OK" before it writes the file), then prints
# "location=CONTENT|", whatever the file holds by then.
gw_location() {
  gw_wait_for 10 grep -qx -- "$1" /rw/zib_metadata_location
  echo "location=$(cat /rw/zib_metadata_location)|"
}

# gw_history PATH.PARAM: the values written to the parameter, one line.
gw_history() { "$RILLCTL" history "$1" | tr '\n' ' '; }

# gw_wait_history PATH.PARAM COUNT [SECONDS]: at least COUNT values written.
gw_history_has() { [ "$("$RILLCTL" history "$1" | wc -l)" -ge "$2" ]; }
gw_wait_history() { gw_wait_for "${3:-60}" gw_history_has "$1" "$2"; }

# The inotify watches zibd holds (from its descriptors' fdinfo).
gw_watches() { cat /proc/"$GW_ZIBD"/fdinfo/* 2>/dev/null | grep -c '^inotify wd:'; }
gw_watches_are() { [ "$(gw_watches)" -eq "$1" ]; }

# gw_tag PATH NAME: the tag's value, or nothing (status 1) when it is absent.
gw_tag() {
  "$KORDCTL" tags "$1" 2>/dev/null |
    awk -v n="$2=" 'index($0, n) == 1 { print substr($0, length(n) + 1); found = 1 } END { exit !found }'
}
# gw_tags PATH: the file's tag names and values on one line.
gw_tags() { "$KORDCTL" tags "$1" 2>/dev/null | tr '\n' ' '; }
gw_known() { "$KORDCTL" tags "$1" >/dev/null 2>&1; }
gw_unknown() { ! gw_known "$1"; }

# gw_profiled PATH...: every file has ".s.mdt" and no ".s.tbp".
gw_profiled() {
  local f
  for f; do
    gw_tag "$f" .s.mdt >/dev/null && ! gw_tag "$f" .s.tbp >/dev/null || return 1
  done
}

# gw_count CONDITION: how many known files satisfy the condition.
gw_count() { "$KORDCTL" -0 query "$1" 2>/dev/null | tr -cd '\0' | wc -c; }

# gw_pending_count: files waiting for profiling.
gw_pending_count() { "$KORDCTL" stats 2>/dev/null | sed -n 's/^\.s\.tbp //p'; }

# The modification time of a file as zibd writes it into ".s.mdt".
gw_mtime() { date -d "@$(stat -c %Y "$1")" +%Y%m%d%H%M%S; }

# gw_profiler FILE LOG [SETUP]: writes a profiler script at FILE. Each run
# appends to LOG one line "run VIEW-NAME ARGS... | TARGET ..." (its arguments
# without the view path, then the files its view links to, sorted). SETUP,
# shell text, runs first (for instance to wait or to hang).
gw_profiler() {
  cat >"$1" <<EOF || gw_fail "cannot write profiler $1"
#!/bin/bash
${3:-}
view=\${!#}
args=("\${@:1:\$#-1}")
targets=\$(find "\$view" -mindepth 1 -maxdepth 1 -type l -printf '%l\\n' | sort | paste -sd' ')
echo "run \${view##*/} \${args[*]} | \$targets" >>"$2"
EOF
  chmod +x "$1"
}

# gw_runs [LOG]: the profiler runs as "TARGET TARGET...;" per run.
gw_runs() { sed -n 's/^run [^|]*| //p' "${1:-/tmp/profiler.log}" | tr '\n' ';'; }

# gw_events: the event log as "CODE PATH|" items on one line.
gw_events() { cut -f2,3 "$TOCK_EVENTS" 2>/dev/null | tr '\t\n' ' |'; }

# gw_cleanup: ends what the scenario left running (the sandbox would end it
# too; this keeps a scenario's own exit tidy).
gw_cleanup() {
  [ -z "$GW_ZIBD" ] || { kill -KILL "$GW_ZIBD" 2>/dev/null; wait "$GW_ZIBD" 2>/dev/null; }
  gw_stop_broker
}
