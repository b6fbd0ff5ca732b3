# The one wait of the shell tests, for scripts to source.
#
# wait_until SECONDS COMMAND [ARG]...: runs COMMAND until it succeeds (status
# 0) or SECONDS of real time have passed (status 1), every WAIT_STEP seconds
# (0.05 unless set: shorter for a state that lasts only moments). A caller
# waits for the very thing it checks next, never sleeps to "let things happen".
wait_until() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    ((SECONDS <= end)) || return 1
    sleep "${WAIT_STEP:-0.05}"
  done
}
