#!/usr/bin/env bash
# Deliberate-fault runner: plants one small, realistic bug at a time in the daemon's code
# (and in the host tag store and broker the tests run against), rebuilds, and runs the unit
# and then the system tests to see whether any of them notices.
#
#   scripts/mutants.sh [--list] [--only N,M,...] [--no-check] [CHECKOUT_DIR]
#
# CHECKOUT_DIR defaults to a temporary worktree of HEAD, removed at the end. The build lives in
# CHECKOUT_DIR/build/mutants, with every log under CHECKOUT_DIR/build/mutants/logs. Unless
# --no-check is given, the unmodified tree must pass both suites first: a red suite would make
# every fault look caught. A fault is always taken out again, also on error or interrupt.
# Not run by CI: it takes hours on a small machine.
set -Eeuo pipefail
shopt -s extglob
shopt -u patsub_replacement 2>/dev/null || true  # '&' in a replacement stays '&'

usage() {
  sed -n '5,6p' "${BASH_SOURCE[0]}" | sed 's/^# *//' >&2
  exit 2
}

# ---------------------------------------------------------------------------------------------
# The faults: FILE, an exact text that occurs exactly once in it, and what replaces it.
# A fault whose text is not found exactly once stops the run: keep the list in step with the code.
FAULT_FILE=()
FAULT_OLD=()
FAULT_NEW=()
FAULT_WHAT=()
fault() {  # fault FILE OLD NEW WHAT
  FAULT_FILE+=("$1")
  FAULT_OLD+=("$2")
  FAULT_NEW+=("$3")
  FAULT_WHAT+=("$4")
}

# common/: walk, paths, spawn, descriptors
fault common/walk.cpp \
  "return std::strncmp(prefix, path, n) == 0 && (path[n] == '\\0' || path[n] == '/');" \
  "return std::strncmp(prefix, path, n) == 0;" \
  "fsPathIsUnder: /a/bc counts as below /a/b"
fault common/walk.cpp \
  "if (dir_len == 0 || dir[dir_len - 1] != '/') buffer[prefix_len++] = '/';" \
  "if (dir_len == 0) buffer[prefix_len++] = '/';" \
  "walk: entries are joined to their directory without a slash"
fault common/walk.cpp \
  "return entry.d_type == DT_REG || entry.d_type == DT_LNK;" \
  "return entry.d_type == DT_REG;" \
  "walk: symbolic links are not reported as files"
fault common/spawn.cpp \
  "closeRange(report_fd + 1, daemon_stderr < 0 ? -1 : daemon_stderr, fd_limit);" \
  "closeRange(report_fd + 2, daemon_stderr < 0 ? -1 : daemon_stderr, fd_limit);" \
  "spawn: one descriptor above the report pipe leaks into the child"
fault common/spawn.cpp \
  "if (got == static_cast<ssize_t>(sizeof exec_errno) && exec_errno != 0)" \
  "if (got < 0 && exec_errno != 0)" \
  "spawn: a failed exec is not reported"

# storage/: choice of the metadata partition, rule registry, loss of the metadata disk
fault storage/metadata_storage.cpp \
  "if (partition.read_only) return false;" \
  "if (partition.read_only && existing_database_only) return false;" \
  "choice: a read-only partition may receive a new database"
fault storage/metadata_storage.cpp \
  "disk.capacity > best->disk->capacity ||" \
  "disk.capacity < best->disk->capacity ||" \
  "choice: the smallest disk wins instead of the largest"
fault storage/metadata_storage.cpp \
  "(void)::truncate(config_.kord_ini.c_str(), 0);" \
  "" \
  "loss: the tag store configuration still names the lost database"
fault storage/metadata_storage.cpp \
  "  setStorageStatusLocked(kNoSuitableDisk);" \
  "" \
  "loss: the storage status is not set back to NoSuitableDisk"
fault storage/rule_registry.cpp \
  "path.compare(0, base.size(), base) == 0 && path[base.size()] == '/'" \
  "path.compare(0, base.size(), base) == 0" \
  "rules: /Music2/x falls under the rule for /Music"
fault storage/rule_registry.cpp \
  'rule.enabled = dynstr_strcmp2(value, "Up") == 0 ? 1 : 0;' \
  'rule.enabled = dynstr_strcmp2(value, "Up") != 0 ? 1 : 0;' \
  "rules: a rule's Status is read inverted"

# scan/: queue, tagging, file-type map, profiler batches, scanner
fault scan/scan_queue.cpp \
  "priority_.empty() ? ordinary_ : priority_" \
  "ordinary_.empty() ? priority_ : ordinary_" \
  "queue: ordinary scans go before changed directories"
fault scan/tagging.cpp \
  "if (std::strcmp(modified, stored) == 0) return Status();" \
  "if (std::strcmp(modified, stored) != 0) return Status();" \
  "tagging: changed files are skipped and unchanged ones profiled again"
fault scan/tagging.cpp \
  'visibility.invisible(path) ? "1" : "0"' \
  'visibility.invisible(path) ? "0" : "1"' \
  "tagging: the invisible tag is written inverted"
fault scan/tagging.cpp \
  '"%d", record->pending_count / kBatchSize' \
  '"%d", record->pending_count % kBatchSize' \
  "batches: batch index taken modulo instead of divided"
fault scan/file_type_map.cpp \
  "::strcasecmp(candidate.c_str(), extension)" \
  "::strcmp(candidate.c_str(), extension)" \
  "type map: extensions compared case-sensitively"
fault scan/file_type_map.cpp \
  "if (*line == kCommentMark || *line == '\\0') continue;" \
  "if (*line == '\\0') continue;" \
  "type map: comment lines are parsed as records"
fault scan/profiler_run.cpp \
  "batch <= record->pending_count / kBatchSize && !stopped()" \
  "batch < record->pending_count / kBatchSize && !stopped()" \
  "batches: the last (often only) batch is never profiled"
fault scan/scanner_thread.cpp \
  "if (result == 0) storage_.markInitialScanDone();" \
  "if (result != 0) storage_.markInitialScanDone();" \
  "scanner: initial scan marked done only when the cleanup failed"
fault scan/scanner_state.cpp \
  "fsPathIsUnder(path.c_str(), scanning_path_->c_str())" \
  "fsPathIsUnder(scanning_path_->c_str(), path.c_str())" \
  "scanner: stopping below a path compares the wrong way round"

# watch/: watch table, change handling (quiet time, moves, deletes)
fault watch/change_handler.cpp \
  "    change.time = now;" \
  "" \
  "quiet time: a further change does not restart the directory's quiet time"
fault watch/change_handler.cpp \
  "    change.waiting_for_close = true;" \
  "    change.waiting_for_close = false;" \
  "quiet time: a created file is scanned before it is closed"
fault watch/change_handler.cpp \
  "(void)kord_delete(it->path.c_str());" \
  "" \
  "deletes: a settled delete never reaches the tag store"
fault watch/change_handler.cpp \
  "if (kord_move(old_path, path) != 0)" \
  "if (kord_move(path, old_path) != 0)" \
  "moves: source and destination swapped"
fault watch/watch_table.cpp \
  "while (entry && entry->wd != wd) entry = wd < entry->wd ? entry->index.left : entry->index.right;" \
  "while (entry && entry->wd != wd) entry = wd < entry->wd ? entry->index.right : entry->index.left;" \
  "watch table: the descriptor index is searched down the wrong side"
fault watch/watch_table.cpp \
  "if (fsFindWatch(path, root_)) return Status();" \
  "" \
  "watch table: a directory already watched is added a second time"

# bus/: bus thread, notification handler, status publishing, control pipe
fault bus/bus_thread.cpp \
  "if (!storage_.initialScanDone()) scans_.enqueue(" \
  "if (storage_.initialScanDone()) scans_.enqueue(" \
  "bus thread: the storage root cleanup is queued only after it was done"
fault storage/storage_model.cpp \
  "if (!partition.scanned) scans.enqueue(" \
  "if (partition.scanned) scans.enqueue(" \
  "bus thread: unscanned partitions are not queued when the settle time ends"
fault bus/bus_thread.cpp \
  "    if (!pause(timing_.retry_pause)) leave();" \
  "    leave();" \
  "bus thread: a connection that cannot be made ends the thread"
fault bus/bus_thread.cpp \
  "  storage_.setStorageStatus(kNoSuitableDisk);" \
  "" \
  "bus thread: the storage chosen on a lost connection is kept, never chosen again"
fault bus/notification_handler.cpp \
  '(void)storage_.setBusValue(kMetadataService, "ForceRescan", "0");' \
  "" \
  "notifications: ForceRescan is not reset after a rescan"
fault bus/notification_handler.cpp \
  "value[0] != '0' && value[0] != 'f'" \
  "value[0] != '0'" \
  "notifications: \"false\" switches a rule category on"
fault storage/storage_model.cpp \
  "          change.no_longer_managed = other.mount_path;" \
  "" \
  "notifications: the previously managed partition is not shown again"
fault bus/profiling_status.cpp \
  'busy_ ? "Profiling" : "Ready"' \
  'busy_ ? "Ready" : "Profiling"' \
  "status: ProfilingStatus published inverted"
fault bus/control_pipe.cpp \
  "busy ? ControlMessageType::kProfilingStarted : ControlMessageType::kProfilingFinished" \
  "busy ? ControlMessageType::kProfilingFinished : ControlMessageType::kProfilingStarted" \
  "control pipe: profiling started and finished swapped"

# frame/: start-up, signals
fault frame/signals.cpp \
  "{SIGQUIT, SIGTERM, SIGINT}" \
  "{SIGQUIT, SIGINT}" \
  "signals: SIGTERM kills the daemon without an orderly shutdown"
fault frame/main.cpp \
  "if (!loaded.ok()) failStartup" \
  "if (loaded.code() == EIO) failStartup" \
  "start-up: a file-type map with a bad line is accepted"
fault frame/command_line.cpp \
  "return CommandLineVerdict::kHelp;" \
  "return CommandLineVerdict::kBadUsage;" \
  "start-up: -h is treated as bad usage"

# host/kord and host/rill: the tag store and broker the tests run against
fault host/kord/paths.cpp \
  "return path.size() == dir.size() || path[dir.size()] == '/';" \
  "return path.size() >= dir.size();" \
  "kord: /a/bc counts as below /a/b"
fault host/kord/condition.cpp \
  "if (c == '\\'') literal += '\\'';" \
  "" \
  "kord: quotes in SQL literals are not doubled"
fault host/rill/path.cpp \
  "if (token.size() > 1 && token[0] == '0') return std::nullopt;" \
  "" \
  "rill: instance numbers with leading zeros are accepted"
fault host/rill/path.cpp \
  "return pattern.size() == object.size() && matchesAtOrBelow(pattern, object);" \
  "return matchesAtOrBelow(pattern, object);" \
  "rill: a pattern also matches every object below it"

fault host/rill/client.cpp \
  "if (!even_if_stalled && stalled()) {" \
  "if (!even_if_stalled && false) {" \
  "rill: requests go to a broker that has not answered the ones given up"

# ---------------------------------------------------------------------------------------------
COUNT=${#FAULT_FILE[@]}
SELF_REPO=$(git -C "$(dirname "${BASH_SOURCE[0]}")" rev-parse --show-toplevel)

list_only=0
check=1
only=""
checkout=""
while (($#)); do
  case $1 in
    --list) list_only=1 ;;
    --no-check) check=0 ;;
    --only)
      [[ $# -ge 2 && $2 =~ ^[0-9]+(,[0-9]+)*$ ]] || usage
      only=$2
      shift
      ;;
    --only=*)
      only=${1#--only=}
      [[ $only =~ ^[0-9]+(,[0-9]+)*$ ]] || usage
      ;;
    -h | --help) usage ;;
    -*) usage ;;
    *)
      [[ -z $checkout ]] || usage
      checkout=$1
      ;;
  esac
  shift
done

selected=()
if [[ -n $only ]]; then
  IFS=, read -r -a selected <<<"$only"
  for n in "${selected[@]}"; do
    ((n >= 1 && n <= COUNT)) || { echo "mutants: no fault $n (there are $COUNT)" >&2; exit 2; }
  done
else
  for ((n = 1; n <= COUNT; ++n)); do selected+=("$n"); done
fi

# Number of literal occurrences of $2 in $1.
occurrences() {
  local hay=$1 needle=$2 n=0
  while [[ $hay == *"$needle"* ]]; do
    hay=${hay#*"$needle"}
    n=$((n + 1))
  done
  echo "$n"
}

read_file() {  # read_file PATH VAR: the exact contents, trailing newlines included
  local -n into=$2
  into=""
  IFS= read -r -d '' into <"$1" || true
}

# Checks fault $1 against the checkout; prints the problem, if any.
fault_problem() {
  local i=$(($1 - 1)) path="$checkout/${FAULT_FILE[$(($1 - 1))]}" text
  [[ -f $path ]] || { echo "file missing"; return; }
  read_file "$path" text
  local n
  n=$(occurrences "$text" "${FAULT_OLD[$i]}")
  ((n == 1)) || echo "text found $n times"
}

cleanup_worktree=""
applied=""
child=""
finish() {
  local status=$?
  trap - EXIT INT TERM HUP
  if [[ -n $child ]]; then
    kill -TERM -- "-$child" 2>/dev/null || kill -TERM "$child" 2>/dev/null || true
    wait "$child" 2>/dev/null || true
  fi
  if [[ -n $applied ]]; then
    git -C "$checkout" checkout -- "$applied" || echo "mutants: COULD NOT RESTORE $applied" >&2
  fi
  if [[ -n $cleanup_worktree ]]; then
    git -C "$SELF_REPO" worktree remove --force "$cleanup_worktree" >/dev/null 2>&1 || true
  fi
  exit "$status"
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

# Runs a command niced, in its own process group, so that an interrupt can stop all of it.
run() {
  local log=$1
  shift
  setsid nice -n 5 "$@" >"$log" 2>&1 &
  child=$!
  local status=0
  wait "$child" || status=$?
  child=""
  return "$status"
}

if [[ -z $checkout ]]; then
  if ((list_only)); then
    checkout=$SELF_REPO
  else
    cleanup_worktree=$(mktemp -d /tmp/mutants.XXXXXX)
    rmdir "$cleanup_worktree"
    git -C "$SELF_REPO" worktree add --detach "$cleanup_worktree" HEAD >/dev/null 2>&1
    checkout=$cleanup_worktree
  fi
fi
checkout=$(cd "$checkout" && pwd)

bad=0
for n in "${selected[@]}"; do
  problem=$(fault_problem "$n")
  if ((list_only)); then
    printf '%2d  %-30s %s%s\n' "$n" "${FAULT_FILE[$((n - 1))]}" "${FAULT_WHAT[$((n - 1))]}" \
      "${problem:+   <-- $problem}"
  elif [[ -n $problem ]]; then
    echo "mutants: fault $n (${FAULT_FILE[$((n - 1))]}): $problem" >&2
  fi
  [[ -z $problem ]] || bad=1
done
((list_only)) && exit "$bad"
((bad == 0)) || { echo "mutants: the fault list does not match $checkout; fix it first" >&2; exit 2; }

for n in "${selected[@]}"; do
  file=${FAULT_FILE[$((n - 1))]}
  if ! git -C "$checkout" diff --quiet HEAD -- "$file"; then
    echo "mutants: $file has local changes in $checkout; restoring it would lose them" >&2
    exit 2
  fi
done

build="$checkout/build/mutants"
logs="$build/logs"
mkdir -p "$logs"
results="$logs/results.txt"
: >"$results"
say() { echo "[$(date -u +%H:%M:%S)] $*"; }

say "checkout $checkout, build $build"
if [[ ! -f $build/build.ninja ]]; then
  run "$logs/configure.log" cmake -S "$checkout" -B "$build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZIBD_BUILD_BENCH=OFF ||
    { echo "mutants: configure failed, see $logs/configure.log" >&2; exit 1; }
fi
run "$logs/build.log" cmake --build "$build" -j2 ||
  { echo "mutants: the unmodified tree does not build, see $logs/build.log" >&2; exit 1; }
say "built"

ctest_label() {  # ctest_label LABEL LOG
  run "$2" ctest --test-dir "$build" -L "$1" --stop-on-failure --timeout 300 -j2 --no-tests=error
}

# The names of the tests ctest reported as failed in log $1, comma-separated.
failed_tests() {
  sed -n '/The following tests FAILED:/,$p' "$1" |
    sed -n 's/^[[:space:]]*[0-9]\{1,\} - \(.*\) (\(.*\))$/\1 (\2)/p' | paste -sd, - | sed 's/,/, /g'
}

if ((check)); then
  for label in unit system; do
    if ! ctest_label "$label" "$logs/check-$label.log"; then
      echo "mutants: the unmodified $label tests fail ($(failed_tests "$logs/check-$label.log")):" \
        "see $logs/check-$label.log" >&2
      exit 1
    fi
  done
  say "unmodified tree: unit and system tests pass"
fi

# The verdict when ctest failed: which tests caught the fault, or ERROR when ctest named none.
killed_by() {  # killed_by LABEL LOG
  local names
  names=$(failed_tests "$2")
  if [[ -n $names ]]; then echo "KILLED by $1: $names"; else echo "ERROR ($1 ctest failed without naming a test)"; fi
}

killed=0
errors=0
survived=0
nobuild=0
for n in "${selected[@]}"; do
  i=$((n - 1))
  file=${FAULT_FILE[$i]}
  path="$checkout/$file"
  tag=$(printf '%02d' "$n")
  read_file "$path" text
  applied=$file
  printf '%s' "${text/"${FAULT_OLD[$i]}"/"${FAULT_NEW[$i]}"}" >"$path"
  if ! run "$logs/$tag.build.log" cmake --build "$build" -j2; then
    verdict="NOBUILD"
    nobuild=$((nobuild + 1))
  elif ! ctest_label unit "$logs/$tag.unit.log"; then
    verdict=$(killed_by unit "$logs/$tag.unit.log")
  elif ! ctest_label system "$logs/$tag.system.log"; then
    verdict=$(killed_by system "$logs/$tag.system.log")
  else
    verdict="SURVIVED"
    survived=$((survived + 1))
  fi
  case $verdict in
    KILLED*) killed=$((killed + 1)) ;;
    ERROR*) errors=$((errors + 1)) ;;
  esac
  git -C "$checkout" checkout -- "$file"
  applied=""
  git -C "$checkout" diff --quiet HEAD -- "$file" || { echo "mutants: $file not restored" >&2; exit 1; }
  line=$(printf '%2d  %-30s %s  [%s]' "$n" "$file" "$verdict" "${FAULT_WHAT[$i]}")
  echo "$line" >>"$results"
  say "$line"
done

# Leave the build matching the restored sources.
run "$logs/build-final.log" cmake --build "$build" -j2 || true

echo
echo "fault results (logs in $logs):"
cat "$results"
tested=$((killed + survived + errors))
echo "$killed killed of $tested ($survived survived, $errors errors; $nobuild did not build, not counted)"
