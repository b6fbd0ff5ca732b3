#!/usr/bin/env bash
# The road of one new file with the gateway's zibd: the big-endian 32-bit
# MIPS build runs under the emulator in the gateway sandbox, against the
# host's broker (rilld) and tag store client (kordctl). A file copied into a
# watched partition reaches the media server as a change event, gets its tags
# and is profiled by a profiler written here (a host shell script that zibd
# starts through the emulator's execve).
#
#   road.sh TARGET_ZIBD HOST_TOOLS_DIR EMULATOR [ARG]...
#
# HOST_TOOLS_DIR holds host builds of rilld, rillctl and kordctl; without
# them, or without the emulator, the test is skipped (exit 77).
#
# What crosses the byte order here, and must: the inotify events the host
# kernel writes, as the emulated daemon reads them (the file is seen, in the
# right directory; a move's two events are paired by their cookie); the bus
# frames between the MIPS daemon and the host broker
# (the model read, the storage chosen and published, the disk's reference,
# "ProfilingStatus"); the tag database the MIPS daemon writes and the host
# kordctl reads, with the 64-bit hash a 32-bit target computes.
#
# It runs at real speed: the daemon's 60 s start-up pause and 30 s settle make
# it last about 100 s. The time-bits of the MIPS build are 64, so its clock
# calls are glibc's __clock_gettime64, __nanosleep64, __ppoll64 and friends,
# which Debian 12's libfaketime (0.9.10) does not intercept: preloaded into
# the emulated daemon it would speed up sleep() alone and leave the clock the
# daemon measures its deadlines with at real speed.
set -euo pipefail
(($# >= 3)) || { echo "usage: road.sh TARGET_ZIBD HOST_TOOLS_DIR EMULATOR [ARG]..." >&2; exit 2; }
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../../.." && pwd)
. "$here/../../support/wait.sh"
zibd_program=$1 tools=$2
emulator=("${@:3}")

skip() { echo "SKIPPED: $*"; exit 77; }
for tool in rilld rillctl kordctl; do
  [ -x "$tools/$tool" ] ||
    skip "no host $tool in '$tools' (ZIBD_HOST_TOOLS; scripts/build.sh mips builds them into build/mips/host-tools/bin)"
done
command -v "${emulator[0]}" >/dev/null || skip "no emulator '${emulator[0]}' (Debian package qemu-user)"
[ -x "$zibd_program" ] || { echo "FAIL: no target zibd at '$zibd_program'" >&2; exit 1; }

if [ "${ZIBD_IN_SANDBOX:-}" != 1 ]; then
  export ZIBD_SANDBOX_KEEP="$(dirname "$zibd_program"):$tools${ZIBD_SANDBOX_KEEP:+:$ZIBD_SANDBOX_KEEP}"
  exec "$repo/scripts/sandbox.sh" /bin/bash "$0" "$@"
fi

# ---- inside the sandbox ------------------------------------------------------
export LC_ALL=C
# A zone east of Greenwich with half an hour in its offset, given as a rule so
# that no zone file is needed: the daemon formats ".s.mdt" and the time in the
# hash in local time, and both sides must agree.
export TZ=IST-5:30
export RILL_SOCKET=/run/rill.sock TOCK_EVENTS=/run/tock.events
rilld=$tools/rilld rillctl=$tools/rillctl kordctl=$tools/kordctl
export KORDCTL=$kordctl

failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
check() { local what=$1; shift; if "$@"; then echo "ok: $what"; else fail "$what"; fi; }

# ELF identification: class, data (byte order), machine.
elfIdent() { od -An -tu1 -j4 -N2 "$1" | tr -s ' ' | sed 's/^ //'; }
elfMachine() {  # e_machine, read in the file's own byte order
  local b; read -r -a b < <(od -An -tu1 -j18 -N2 "$1")
  if [ "$(od -An -tu1 -j5 -N1 "$1" | tr -d ' ')" = 2 ]; then echo $((b[0] * 256 + b[1])); else echo $((b[1] * 256 + b[0])); fi
}
check "the daemon is a 32-bit big-endian MIPS program" \
  test "$(elfIdent "$zibd_program")/$(elfMachine "$zibd_program")" = "1 2/8"
check "the broker is a program of this host" test "$(elfMachine "$rilld")" = "$(elfMachine /bin/sh)"

uuid=5e1f-0a2b
part=/var/uuidmount/$uuid
films=$part/Media/Films kept=$part/Media/Kept
mkdir -p "$films" "$kept" "$part/Other"
printf 'an old film' >"$films/before.mkv"

cat >/tmp/profile.sh <<'EOF'
#!/bin/bash
# Test profiler: PROFILE LOG VIEW. Notes its arguments, then each file of the
# view with the tags it has while its batch runs.
log=$1 view=$2
{
  printf 'run args=%s view=%s\n' "$#" "$view"
  for link in "$view"/*; do
    [ -L "$link" ] || continue
    file=$(readlink -f "$link")
    printf 'file %s\n' "$file"
    "$KORDCTL" -0 tags "$file" | tr '\0' '\n' | sed 's/^/tag /'
  done
} >>"$log" 2>&1
EOF
chmod +x /tmp/profile.sh
printf 'mkv,mp4:STDVIDEO:/tmp/profile.sh:/tmp/profiler.log\n' >/tmp/types.ini
printf '%s\n' VFS.MetaDataService.ForceRescan=0 VFS.MetaDataService.MetaDataStorageStatus=NoSuitableDisk \
  VFS.MetaDataService.ProfilingStatus=Ready \
  Storage.Disk.1.CapacityInMBytes=1000 Storage.Disk.1.DoUnMount=0 \
  Storage.Disk.1.Partition.1.MountPoint=$part Storage.Disk.1.Partition.1.Status=1 \
  Storage.Disk.1.Partition.1.Manageddisk=1 Storage.Disk.1.Partition.1.ReadOnly=0 \
  Storage.Disk.1.Partition.1.FreeSpaceInKBytes=1048576 \
  ContentSharing.UPnPAV.IndexRules.1.Status=Up ContentSharing.UPnPAV.IndexRules.1.Enable=1 \
  ContentSharing.UPnPAV.IndexRules.1.UUID=$uuid ContentSharing.UPnPAV.IndexRules.1.DirectoryName=Media \
  ContentSharing.UPnPAV.IndexRules.1.EnableMovie=1 ContentSharing.UPnPAV.IndexRules.1.EnableMusic=1 \
  ContentSharing.UPnPAV.IndexRules.1.EnablePicture=1 >/tmp/gateway.model

"$rilld" --model /tmp/gateway.model & broker=$!
wait_until 10 test -S "$RILL_SOCKET" || { echo "FAIL: the broker did not start" >&2; exit 1; }
"${emulator[@]}" "$zibd_program" -t /tmp/types.ini 2>/tmp/zibd.err & zibd=$!
started=$SECONDS
stopAll() {
  kill -TERM "$zibd" "$broker" 2>/dev/null || true
}
trap stopAll EXIT

tags() { "$kordctl" tags "$1" 2>/dev/null; }
tag() { tags "$1" | sed -n "s/^$2=//p"; }
hasTag() { tags "$1" | grep -q "^$2="; }

# The model read over the bus, the storage chosen after its settle and
# published on the bus: at real speed a minute and a half.
if ! "$rillctl" wait VFS.MetaDataService.MetaDataStorageStatus OK 200 >/dev/null; then
  fail "no metadata storage chosen after $((SECONDS - started)) s"; cat /tmp/zibd.err >&2; exit 1
fi
echo "ok: storage chosen after $((SECONDS - started)) s"
# zibd writes the location file just after it publishes OK: wait for the file.
locationIs() { [ "$(cat /rw/zib_metadata_location 2>/dev/null)" = "$1" ]; }
check "the metadata location names the partition" wait_until 10 locationIs "$part"
check "the tag store is on the partition" wait_until 10 grep -qx "dms-metadata-db-[0-9]*:/var/uuidmount:$part/.kord/tagdb" /tmp/.kord/kord.ini
refcountIs() { [ "$("$rillctl" refcount "$1")" = "$2" ]; }
check "the daemon holds a reference on its disk" wait_until 10 refcountIs Storage.Disk.1 1

# The first scan of the partition profiles the file that was there.
check "the file present at start is profiled by the first scan" wait_until 60 hasTag "$films/before.mkv" .s.mdt

# The watch on the films directory, seen in the emulator's inotify descriptor
# (the emulated daemon's descriptors are the emulator's own).
watching() {
  local ino fd
  ino=$(printf '%x' "$(stat -c %i "$1")")
  for fd in /proc/$zibd/fd/*; do
    [ "$(readlink "$fd")" = "anon_inode:inotify" ] || continue
    grep -q "^inotify wd:[0-9a-f]* ino:$ino " "/proc/$zibd/fdinfo/${fd##*/}" && return 0
  done
  return 1
}
check "the films directory is watched" wait_until 30 watching "$films"
check "the directory moved to is watched" wait_until 30 watching "$kept"

# The first scans over ("Ready" published), so that what follows is the new
# file's own work.
check "the first scans end in Ready" "$rillctl" wait VFS.MetaDataService.ProfilingStatus Ready 60 >/dev/null

# The road: a file copied into the watched directory, a name with bytes above
# 0x7f (they enter the hash as signed chars) and a space; beside it a file of
# no media type, and a media file in a directory no index rule covers.
: >"$TOCK_EVENTS"
history_before=$("$rillctl" history VFS.MetaDataService.ProfilingStatus | wc -l)
new=$films/$'Caf\xc3\xa9 au lait.mkv'
printf 'a new film, %s\n' "$(date)" >/tmp/source.mkv
copied_at=$(date +%s)
cp /tmp/source.mkv "$new"
printf 'notes' >"$films/notes.txt"
cp /tmp/source.mkv "$part/Other/elsewhere.mkv"
close=$EPOCHREALTIME

check "the new file is profiled" wait_until 60 hasTag "$new" .s.mdt
awk -v now="$EPOCHREALTIME" -v closed="$close" \
  'BEGIN { printf "the new file was profiled %.1f s after its close\n", now - closed }'
profiled_at=$(date +%s)

# Its tags while its batch ran, as the profiler saw them through the host kordctl.
batch=$(awk -v f="file $new" '$0 == f { on = 1; next } /^(file|run) / { on = 0 } on' /tmp/profiler.log)
check "while profiled, the new file is to be profiled as a video of batch 0" \
  test "$(printf '%s\n' "$batch" | grep -E '^tag \.s\.(tbp|filetype|batchidx)=' | sort | tr '\n' '|')" = \
  "tag .s.batchidx=0|tag .s.filetype=STDVIDEO|tag .s.tbp=1|"
# The profiler's command line: its argument from the map, then the view, named
# after the daemon's process (the emulator's pid) and the file's type and batch.
check "the profiler got its argument and a view of the daemon's" \
  grep -qE "^run args=2 view=.*/zibprof\.$zibd\.STDVIDEO\.0\.[0-9]+$" /tmp/profiler.log

# Afterwards: marked profiled at its modification time, in local time.
check "the pending marks are gone once profiled" \
  test "$(tags "$new" | grep -cE '^\.s\.(tbp|filetype|batchidx)=')" = 0
check ".s.mdt is the file's modification time in local time" \
  test "$(tag "$new" .s.mdt)" = "$(date -d "@$(stat -c %Y "$new")" +%Y%m%d%H%M%S)"
check "the new file is visible" test "$(tag "$new" .s.invisible)" = 0

# ".s.hash": djb2 over the path and the tagging time's text, every byte a
# signed char, in 64 bits; the time lies between the copy and the profiled mark.
djb2() {
  local acc=5381 b
  for b in $(printf '%s' "$1" | od -An -v -tu1); do
    ((b > 127)) && b=$((b - 256))
    acc=$((acc * 33 + b))
  done
  printf '%016x' "$acc"
}
hashMatches() {
  local hash t
  hash=$(tag "$new" .s.hash)
  for ((t = copied_at; t <= profiled_at; t++)); do
    [ "$(djb2 "$new$(date -d "@$t" +%Y%m%d%H%M%S)")" = "$hash" ] && return 0
  done
  echo "  .s.hash '$hash' is no djb2 of the path and a time in [$copied_at, $profiled_at]" >&2
  return 1
}
check ".s.hash is the 64-bit hash of the path and the tagging time" hashMatches

check "a file of no media type gets no tags" test -z "$(tags "$films/notes.txt")"
check "a media file outside the index rule's directory gets no tags" test -z "$(tags "$part/Other/elsewhere.mkv")"

# The media server heard of the directory, relative to the partition.
check "a change event for the films directory" wait_until 10 grep -q $'\t2\t/Media/Films$' "$TOCK_EVENTS"
# "Profiling" published once the new file's scan had work, "Ready" after it.
# (A scan of the partition's root, which saw the tag store's directory appear,
# may add a pair of its own.)
profilingThenReady() {
  local since
  since=$("$rillctl" history VFS.MetaDataService.ProfilingStatus | tail -n +$((history_before + 1)) | tr '\n' ' ')
  [[ $since =~ (^|\ )Profiling\ (.*\ )?Ready\ $ ]]
}
check "ProfilingStatus went Profiling, then Ready" wait_until 10 profilingThenReady

# A move to another watched directory under the same name: its two events,
# from two watches and paired by their cookie, move the tags at once, hash and
# mark included, without a new scan. (A changed name is a delete and a new
# file instead.)
before_move=$(tags "$new")
moved=$kept/${new##*/}
mv "$new" "$moved"
tagsAre() { test "$(tags "$1")" = "$2"; }
check "a move to another directory takes the tags along at once" wait_until 10 tagsAre "$moved" "$before_move"
check "no tags are left under the old path" test -z "$(tags "$new")"

trap - EXIT
kill -TERM "$zibd"
status=0; wait "$zibd" || status=$?
check "SIGTERM ends the daemon with status 0" test "$status" = 0
check "the daemon wrote nothing to stderr" test ! -s /tmp/zibd.err
[ -s /tmp/zibd.err ] && sed 's/^/  zibd: /' /tmp/zibd.err >&2

if ((failures)); then
  echo "road.sh: $failures check(s) failed after $SECONDS s; ProfilingStatus since the copy:" \
    "$("$rillctl" history VFS.MetaDataService.ProfilingStatus | tail -n +$((${history_before:-0} + 1)) | tr '\n' ' ')" >&2
  echo "profiler log:" >&2
  sed 's/^/  /' /tmp/profiler.log >&2 || true
fi
kill -TERM "$broker"; wait "$broker" 2>/dev/null || true
((failures == 0)) || exit 1
echo "road.sh: the MIPS zibd took a new file from copy to profiled in $SECONDS s"
