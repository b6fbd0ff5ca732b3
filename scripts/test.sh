#!/usr/bin/env bash
# Sets up the machine, then builds and runs every test: the include check, the
# lock-annotation compile, the host build, the sanitizer builds
# (address+undefined, thread), the MIPS cross build, whose unit tests run under
# qemu-mips, the install step of the host and MIPS builds
# (scripts/check-install.sh), and the fuzzers. Pass variant names to run only some of them.
#
# Builds run one after the other and use every core. The system tests mostly
# wait for a daemon with a sped-up clock, so a variant's tests run in the
# background while the next variant builds (one test run at a time), each with
# more jobs than cores. Each step prints its own wall time; a test run's log is
# printed whole when it ends.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

variants=("$@")
((${#variants[@]})) || variants=(layers tsa host asan tsan mips fuzz)

# ThreadSanitizer cannot map its shadow memory with the kernel's largest
# address-space randomisation; run its tests with randomisation off.
norandom=()
if setarch "$(uname -m)" -R true 2>/dev/null; then norandom=(setarch "$(uname -m)" -R); fi

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

cores=$(nproc)
test_jobs=$((cores * 3))
started=$SECONDS
failed=()

# The variant's own test run, in the foreground of its background job.
runTests() {
  local v=$1 labels=() run=()
  # The cross build runs its unit tests under qemu-mips, and the "cross" tests
  # that hand tag databases between it and a host kordctl and take a file
  # through the emulated daemon.
  [ "$v" = mips ] && labels=(-L 'unit|cross')
  [ "$v" = tsan ] && run=("${norandom[@]}")
  local start=$SECONDS status=0
  "${run[@]}" ctest --test-dir "build/$v" --output-on-failure -j"$test_jobs" "${labels[@]}" || status=$?
  echo "=== $v: tests took $((SECONDS - start)) s"
  return "$status"
}

# One background test run at a time: its variant, start time and log.
bg_variant="" bg_pid="" bg_start=0
finishTests() {
  [ -n "$bg_pid" ] || return 0
  local status=0
  wait "$bg_pid" || status=$?
  echo "=== $bg_variant: test"
  cat "build/$bg_variant/test-run.log"
  echo "=== $bg_variant: test results collected $((SECONDS - bg_start)) s after they started (beside the later builds)"
  ((status == 0)) || failed+=("$bg_variant")
  bg_pid="" bg_variant=""
}
startTests() {
  finishTests
  bg_variant=$1 bg_start=$SECONDS
  runTests "$1" >"build/$1/test-run.log" 2>&1 &
  bg_pid=$!
}
trap '[ -z "$bg_pid" ] || kill "$bg_pid" 2>/dev/null || true' EXIT

for v in "${variants[@]}"; do
  start=$SECONDS
  status=0
  case "$v" in
    layers)
      echo "=== layers: include check"
      scripts/check-layers.sh || status=$? ;;
    tsa)
      # A compile, not a test run: the lock annotations are checked by clang.
      echo "=== tsa: build"
      scripts/build.sh tsa || status=$? ;;
    fuzz)
      # Each libFuzzer target for a few seconds from its seed corpus (docs/fuzzing.md).
      echo "=== fuzz: build"
      { scripts/build.sh fuzz && fuzz/run.sh build/fuzz 5; } || status=$? ;;
    *)
      echo "=== $v: build"
      if scripts/build.sh "$v"; then
        echo "=== $v: built in $((SECONDS - start)) s"
        startTests "$v"
        # The install step: the staged tree, the start script (host), the
        # tarball's programs under qemu-mips (mips).
        if [ "$v" = host ] || [ "$v" = mips ]; then
          echo "=== $v: install check"
          scripts/check-install.sh "build/$v" || status=1
        fi
      else
        status=1
      fi ;;
  esac
  ((status == 0)) || failed+=("$v")
  echo "=== $v: done in $((SECONDS - start)) s${bg_pid:+ (the $bg_variant tests go on beside the next step)}"
done
finishTests
echo "=== all: $((SECONDS - started)) s"

if ((${#failed[@]})); then
  echo "test.sh: failures in: ${failed[*]}"
  exit 1
fi
echo "test.sh: all variants passed: ${variants[*]}"
