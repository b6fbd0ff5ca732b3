# Shell helpers for the system scenarios that run zibd on a simulated gateway
# inside scripts/sandbox.sh (see tests/support/gateway_sandbox.h, which passes
# this file's path as GATEWAY_LIB together with the programs' paths). A
# scenario sources it with `. "$GATEWAY_LIB"`, puts its files and starts:
#
#   gw_put /var/uuidmount/aaaa/Media/a.mp3
#   gw_gateway aaaa:1000 bbbb:2000      # the model, the file-type map, /tmp/profile
#   gw_up                               # broker and zibd, storage chosen
#
# zibd runs with its clock ten times faster (libfaketime, NO_FAKE_STAT=1 so
# that file times stay real): its 60 s start-up pause takes 6 s, the 30 s
# settle 3 s and the 3 quiet seconds of a directory 0.3 s.
. "${GATEWAY_LIB%/*}/wait.sh"

export RILL_SOCKET=/run/rill.sock TOCK_EVENTS=/run/tock.events
GW_BROKER=
GW_ZIBD=

gw_fail() { echo "FAILED: $*"; }

# gw_put FILE [CONTENT]: writes FILE, its directories made; CONTENT defaults
# to the file's name.
gw_put() { mkdir -p "${1%/*}" && printf '%s' "${2-${1##*/}}" >"$1"; }

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

# gw_gateway UUID[:CAPACITY_MB[:FREE_KB]]...: /tmp/gateway.model with disk N
# holding the Nth partition and rule N offering its Media directory for every
# category (append more lines to the file before gw_up); unless the scenario
# wrote them first, /tmp/types.ini sends mp3 files to /tmp/profile, a
# gw_profiler logging to /tmp/profiler.log.
gw_gateway() {
  local n=0 disk uuid capacity free
  {
    gw_model
    for disk; do
      IFS=: read -r uuid capacity free <<<"$disk"
      n=$((n + 1))
      gw_disk $n "$uuid" "${capacity:-1000}" "${free:-1048576}"
      gw_rule $n "$uuid" Media 1 1 1
    done
  } >/tmp/gateway.model
  [ -e /tmp/types.ini ] || printf 'mp3:STDAUDIO:/tmp/profile:\n' >/tmp/types.ini
  [ -e /tmp/profile ] || gw_profiler /tmp/profile /tmp/profiler.log
}

# gw_up: the broker on /tmp/gateway.model, zibd on /tmp/types.ini, and the
# metadata storage chosen.
gw_up() {
  gw_start_broker /tmp/gateway.model
  gw_start_zibd /tmp/types.ini
  gw_wait_status OK || gw_fail "no metadata storage chosen"
}

gw_start_broker() {
  "$RILLD" --model "$1" &
  GW_BROKER=$!
  wait_until 10 test -S "$RILL_SOCKET" || gw_fail "no broker socket"
}

# gw_start_zibd MAP: zibd with the sped-up clock; its standard output and
# error are appended to /tmp/zibd.out and /tmp/zibd.err (the test expects
# the latter to stay empty).
gw_start_zibd() {
  NO_FAKE_STAT=1 FAKETIME="+0 x10" LD_PRELOAD="$FAKETIME_LIB" "$ZIBD_PROGRAM" -t "$1" >>/tmp/zibd.out 2>>/tmp/zibd.err &
  GW_ZIBD=$!
}

# gw_stop_zibd [SIGNAL]: signals zibd (TERM by default), waits for it and
# prints "zibd exit=STATUS", or "zibd still running" when it has not ended
# within 30 s (it is then killed).
gw_stop_zibd() {
  kill -"${1:-TERM}" "$GW_ZIBD"
  if wait_until 30 gw_gone "$GW_ZIBD"; then
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
gw_wait_status() { "$RILLCTL" wait VFS.MetaDataService.MetaDataStorageStatus "$1" "${2:-60}" >/dev/null; }

# gw_storage DIR: waits until the metadata location file and the tag store's
# configuration both name DIR (zibd writes them after it publishes "OK"),
# then prints "location=LOCATION ini=CONFIGURATION|", whatever they hold.
gw_storage_is() {
  grep -qx -- "$1" /rw/zib_metadata_location 2>/dev/null &&
    grep -qx -- "dms-metadata-db-[0-9]*:/var/uuidmount:$1/.kord/tagdb" /tmp/.kord/kord.ini 2>/dev/null
}
gw_storage() {
  wait_until 10 gw_storage_is "$1"
  echo "location=$(cat /rw/zib_metadata_location) ini=$(sed 's/db-[0-9]*:/db-N:/' /tmp/.kord/kord.ini)|"
}

# gw_refcounts DISK...: the disks' reference counts on one line.
gw_refcounts() { for d; do "$RILLCTL" refcount "Storage.Disk.$d"; done | paste -sd' '; }
# gw_refcounts_are "COUNT..." DISK...
gw_refcounts_are() { [ "$(gw_refcounts "${@:2}")" = "$1" ]; }

# gw_history PATH.PARAM: the values written to the parameter, one line.
gw_history() { "$RILLCTL" history "$1" | tr '\n' ' '; }

# gw_wait_history PATH.PARAM COUNT [SECONDS]: at least COUNT values written.
gw_history_has() { [ "$("$RILLCTL" history "$1" | wc -l)" -ge "$2" ]; }
gw_wait_history() { wait_until "${3:-60}" gw_history_has "$1" "$2"; }

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
# gw_masked: its input with every hash "H" and every ".s.mdt" time "T".
gw_masked() { sed -e 's/hash=[0-9a-f]\{16\}/hash=H/g' -e 's/mdt=[0-9]\{14\}/mdt=T/g'; }
gw_known() { "$KORDCTL" tags "$1" >/dev/null 2>&1; }
# gw_unknown PATH...: none of the files is in the tag store.
gw_unknown() {
  local f
  for f; do ! gw_known "$f" || return 1; done
}

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

# gw_runs: the profiler runs of /tmp/profiler.log as "TARGET TARGET...;" per
# run, the runs sorted.
gw_runs() { sed -n 's/^run [^|]*| //p' /tmp/profiler.log | sort | tr '\n' ';'; }

# gw_events: the event log as "CODE PATH|" items on one line.
gw_events() { cut -f2,3 "$TOCK_EVENTS" 2>/dev/null | tr '\t\n' ' |'; }

# gw_cleanup: ends what the scenario left running (the sandbox would end it
# too; this keeps a scenario's own exit tidy).
gw_cleanup() {
  [ -z "$GW_ZIBD" ] || { kill -KILL "$GW_ZIBD" 2>/dev/null; wait "$GW_ZIBD" 2>/dev/null; }
  gw_stop_broker
}

# gw_fs_disk UUID FS [SIZE_MB]: the partition at /var/uuidmount/UUID is a
# fresh FS disk (fat, exfat, ntfs through FUSE; ext4, vfat: scripts/disks.sh).
# Where this machine cannot make one it prints "SKIP: why" and fails.
gw_fs_disk() {
  . "$ZIBD_SOURCE_DIR/scripts/disks.sh"
  disk_mount "/var/uuidmount/$1" "$2" "${3:-32}" || { echo "SKIP: no $2 disk here: $DISK_WHY"; return 1; }
}
