#!/usr/bin/env bash
# Sets up the machine, then builds and runs every test: the host build, the
# sanitizer builds (address+undefined, thread) and the MIPS cross build, whose
# unit tests run under qemu-mips. Pass variant names to run only some of them.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

variants=("$@")
((${#variants[@]})) || variants=(layers host asan tsan tsa mips fuzz)

# ThreadSanitizer cannot map its shadow memory with the kernel's largest
# address-space randomisation; run its tests with randomisation off.
norandom=()
if setarch "$(uname -m)" -R true 2>/dev/null; then norandom=(setarch "$(uname -m)" -R); fi

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

# Builds and tests one variant; non-zero when something failed.
runVariant() {
  local v=$1
  if [ "$v" = layers ]; then
    echo "=== layers: include check"
    scripts/check-layers.sh
    return
  fi
  echo "=== $v: build"
  if [ "$v" = fuzz ]; then
    # Each libFuzzer target for a few seconds from its seed corpus (docs/fuzzing.md).
    scripts/build.sh fuzz && fuzz/run.sh build/fuzz 5
    return
  fi
  if [ "$v" = tsa ]; then
    # A compile, not a test run: the lock annotations are checked by clang.
    scripts/build.sh tsa
    return
  fi
  scripts/build.sh "$v" || return
  echo "=== $v: test"
  local labels=()
  # The cross build runs its unit tests under qemu-mips, and the "cross" test
  # that hands tag databases between it and a host kordctl.
  [ "$v" = mips ] && labels=(-L 'unit|cross')
  local run=()
  [ "$v" = tsan ] && run=("${norandom[@]}")
  "${run[@]}" ctest --test-dir "build/$v" --output-on-failure -j"$(nproc)" "${labels[@]}"
}

failed=()
for v in "${variants[@]}"; do
  start=$SECONDS
  runVariant "$v" || failed+=("$v")
  echo "=== $v: done in $((SECONDS - start)) s"
done

if ((${#failed[@]})); then
  echo "test.sh: failures in: ${failed[*]}"
  exit 1
fi
echo "test.sh: all variants passed: ${variants[*]}"
