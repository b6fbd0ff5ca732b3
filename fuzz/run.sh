#!/usr/bin/env bash
# fuzz/run.sh [BUILD_DIR [SECONDS [TARGET...]]]: runs each libFuzzer target
# (default all, from build/fuzz) SECONDS (default 5) from fuzz/corpus/TARGET;
# exits 1 at the first failure, the input saved in ARTIFACTS. New inputs go to
# CORPUS_DIR/TARGET or scratch; LOG_DIR keeps the logs; TIMEOUT: seconds per input.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/fuzz}
seconds=${2:-5}
shift $(($# < 2 ? $# : 2))
targets=("$@")
((${#targets[@]})) || targets=(wire condition file_type_map model)

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
artifacts=${ARTIFACTS:-$scratch}
mkdir -p "$artifacts"

for t in "${targets[@]}"; do
  program=$build/fuzz/fuzz_$t
  [ -x "$program" ] || { echo "fuzz/run.sh: no $program (scripts/build.sh fuzz builds it)" >&2; exit 2; }
  corpus=${CORPUS_DIR:+$CORPUS_DIR/$t}
  corpus=${corpus:-$scratch/corpus-$t}
  mkdir -p "$corpus"
  log=${LOG_DIR:-$scratch}/$t.log
  mkdir -p "$(dirname "$log")"
  if ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
     "$program" -max_total_time="$seconds" -max_len=4096 -timeout="${TIMEOUT:-10}" -rss_limit_mb=2048 \
       -print_final_stats=1 -artifact_prefix="$artifacts/$t-" "$corpus" "fuzz/corpus/$t" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "fuzz $t: ${runs:-?} executions in ${seconds}s, no failure"
  else
    echo "fuzz $t: FAILED" >&2
    grep -E "property does not hold|ERROR:|SUMMARY:|Test unit written" "$log" >&2 || tail -n 30 "$log" >&2
    exit 1
  fi
done
