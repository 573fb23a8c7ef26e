#!/usr/bin/env bash
# Prints the non-blank lines of test code (*_test.cc, tests/, fuzz/) against
# the rest of the C++ sources, and their ratio. With --check it fails when the
# ratio is above the house limit of one third.
set -euo pipefail
cd "$(dirname "$0")/.."

limit=0.33
count() { if (($#)); then grep -hcv '^[[:space:]]*$' "$@" | awk '{s += $1} END {print s + 0}'; else echo 0; fi; }

mapfile -t sources < <(git ls-files '*.cc' '*.h')
tests=() code=()
for f in "${sources[@]}"; do
  if [[ $f == *_test.cc || $f == tests/* || $f == fuzz/* ]]; then tests+=("$f"); else code+=("$f"); fi
done
test_lines=$(count "${tests[@]}")
code_lines=$(count "${code[@]}")
ratio=$(awk -v t="$test_lines" -v c="$code_lines" 'BEGIN {printf "%.3f", (c ? t / c : 0)}')
echo "test lines: $test_lines  code lines: $code_lines  ratio: $ratio (limit $limit)"
if [[ ${1:-} == --check ]]; then
  awk -v r="$ratio" -v l="$limit" 'BEGIN {exit !(r <= l)}' || { echo "test-ratio: above $limit" >&2; exit 1; }
fi
