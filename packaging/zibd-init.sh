#!/bin/sh
# Start script for zibd, the media-indexing daemon, for the gateway's init
# (a System V style /etc/init.d script; busybox init runs it the same way).
#
#   /etc/init.d/zibd start|stop|restart|status
#
# start   starts zibd as a daemon (pid file /run/zibd.pid) unless it runs
# stop    sends SIGTERM and waits until zibd has ended (ZIBD_STOP_WAIT
#         seconds, default 30; then SIGKILL)
# status  says whether zibd runs: status 0 running, 1 dead with a pid file
#         left, 3 not running
#
# Settings, each overridable from the environment or from the file
# $ZIBD_DEFAULTS (default /etc/default/zibd), which is read first:
#   ZIBD_DAEMON        the program (@ZIBD_SBINDIR@/zibd)
#   ZIBD_MAP           the file-type map (@ZIBD_MAPFILE@)
#   ZIBD_PATH          the PATH zibd and its profilers see; the profilers
#                      call kordctl (@ZIBD_BINDIR@)
#   RILL_SOCKET        the configuration bus (/run/rill.sock)
#   TOCK_EVENTS        the change-event log (/run/tock.events)
#   ZIBD_PROFILER_LOG  the profilers' log (/tmp/zibd-profilers.log)
#   ZIBD_STOP_WAIT     seconds stop waits for zibd to end (30)

ZIBD_DEFAULTS=${ZIBD_DEFAULTS:-/etc/default/zibd}
# shellcheck disable=SC1090
[ -r "$ZIBD_DEFAULTS" ] && . "$ZIBD_DEFAULTS"

ZIBD_DAEMON=${ZIBD_DAEMON:-@ZIBD_SBINDIR@/zibd}
ZIBD_MAP=${ZIBD_MAP:-@ZIBD_MAPFILE@}
ZIBD_PATH=${ZIBD_PATH:-@ZIBD_BINDIR@:/usr/sbin:/usr/bin:/sbin:/bin}
ZIBD_STOP_WAIT=${ZIBD_STOP_WAIT:-30}
# zibd -d writes its pid here (the directory is fixed in the daemon).
pidfile=/run/zibd.pid

say() { echo "zibd: $*"; }

# The pid of the running zibd, or nothing: the pid file's process, if it is
# alive and is zibd (a pid reused by another program does not count).
running_pid() {
  pid=$(cat "$pidfile" 2>/dev/null) || return 1
  case "$pid" in ''|*[!0-9]*) return 1 ;; esac
  [ -d "/proc/$pid" ] || return 1
  # A zombie has ended already.
  state=$(sed -n 's/^State:[[:space:]]*\([A-Z]\).*/\1/p' "/proc/$pid/status" 2>/dev/null)
  [ "$state" != Z ] || return 1
  [ "$(cat "/proc/$pid/comm" 2>/dev/null)" = "${ZIBD_DAEMON##*/}" ] || return 1
  echo "$pid"
}

do_start() {
  if pid=$(running_pid); then
    say "already running (pid $pid)"
    return 0
  fi
  [ -x "$ZIBD_DAEMON" ] || { say "no program at $ZIBD_DAEMON"; return 5; }
  [ -r "$ZIBD_MAP" ] || { say "cannot read the file-type map $ZIBD_MAP"; return 6; }
  # zibd -d returns once the daemon runs and has written the pid file.
  env PATH="$ZIBD_PATH" \
    RILL_SOCKET="${RILL_SOCKET:-/run/rill.sock}" \
    TOCK_EVENTS="${TOCK_EVENTS:-/run/tock.events}" \
    ZIBD_PROFILER_LOG="${ZIBD_PROFILER_LOG:-/tmp/zibd-profilers.log}" \
    "$ZIBD_DAEMON" -d -t "$ZIBD_MAP" || { say "failed to start"; return 1; }
  pid=$(running_pid) || { say "started, but ended at once"; return 1; }
  say "started (pid $pid)"
}

do_stop() {
  if ! pid=$(running_pid); then
    rm -f "$pidfile"
    say "not running"
    return 0
  fi
  kill -TERM "$pid" 2>/dev/null
  # Wait for the exit: zibd stops its profiler and threads first.
  waited=0
  while running_pid >/dev/null; do
    if [ "$waited" -ge $((ZIBD_STOP_WAIT * 10)) ]; then
      say "did not end within $ZIBD_STOP_WAIT s; killing it"
      kill -KILL "$pid" 2>/dev/null
      break
    fi
    sleep 0.1 2>/dev/null || sleep 1
    waited=$((waited + 1))
  done
  rm -f "$pidfile"
  say "stopped"
}

do_status() {
  if pid=$(running_pid); then
    say "running (pid $pid)"
    return 0
  fi
  if [ -e "$pidfile" ]; then
    say "not running, but $pidfile is left"
    return 1
  fi
  say "not running"
  return 3
}

case "${1:-}" in
  start) do_start ;;
  stop) do_stop ;;
  restart) do_stop && do_start ;;
  status) do_status ;;
  *) echo "usage: $0 start|stop|restart|status" >&2; exit 2 ;;
esac
