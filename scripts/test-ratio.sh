#!/usr/bin/env bash
# Prints the size of the tests against the size of the code they test: lines
# of the tracked *.cpp, *.h, *.c and *.sh files under tests/ and fuzz/, against
# the same count for every other tracked file. The project keeps it at most 0.35.
#
#   scripts/test-ratio.sh [REV]      (default: the working tree's tracked files)
set -euo pipefail
cd "$(dirname "$0")/.."
rev=${1:-}
lines() {  # lines of the files named on standard input
  if [ -n "$rev" ]; then
    local n=0 f
    while read -r f; do n=$((n + $(git show "$rev:$f" | wc -l))); done
    echo "$n"
  else
    xargs -r -d '\n' cat | wc -l
  fi
}
if [ -n "$rev" ]; then
  files=$(git ls-tree -r --name-only "$rev" | grep -E '\.(cpp|h|c|sh)$')
else
  files=$(git ls-files -- '*.cpp' '*.h' '*.c' '*.sh')
fi
tests=$(grep -E '^(tests|fuzz)/' <<<"$files" | lines)
code=$(grep -vE '^(tests|fuzz)/' <<<"$files" | lines)
awk -v t="$tests" -v c="$code" 'BEGIN { printf "tests %d lines, code %d lines, ratio %.3f\n", t, c, t / c }'
