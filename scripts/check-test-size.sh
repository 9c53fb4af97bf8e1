#!/usr/bin/env bash
# Keeps the test suite lean: the lines under tests/ (its data included) may be at most 40% of
# the lines of src/, include/ and tools/.
set -euo pipefail
cd "$(dirname "$0")/.."
lines() { find "$@" -type f -print0 | xargs -0 cat | wc -l; }
tests=$(lines tests)
code=$(lines src include tools)
percent=$((100 * tests / code))
echo "tests/: $tests lines, src/ include/ tools/: $code lines ($percent%)"
if ((100 * tests > 40 * code)); then
  echo "tests/ is more than 40% of the code" >&2
  exit 1
fi
