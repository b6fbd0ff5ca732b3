# The one wait of the shell tests, for scripts to source.
#
# wait_until SECONDS COMMAND [ARG]...: runs COMMAND until it succeeds (status
# 0) or SECONDS of real time have passed (status 1). It never sleeps to "let
# things happen": a caller waits for the very thing it checks next.
wait_until() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    ((SECONDS <= end)) || return 1
    sleep 0.05
  done
}
