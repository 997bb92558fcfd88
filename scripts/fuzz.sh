#!/usr/bin/env bash
# Builds the libFuzzer harnesses (clang, ASan+UBSan) and runs each for SECONDS (default 30)
# from a copy of the seed corpus in tests/fuzz/corpus. Fails on any crash, hang or leak.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
scripts/install-deps.sh sanitizers
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
for harness in api common; do
  cp -r "tests/fuzz/corpus/$harness" "$work/$harness"
  echo "=== fuzz_$harness: ${seconds} s ===" >&2
  "build/fuzz/tests/fuzz/fuzz_$harness" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 \
      -print_final_stats=1 "$work/$harness" 2>"$work/$harness.log" || { tail -60 "$work/$harness.log"; exit 1; }
  grep -E "^Done|stat::(number_of_executed_units|average_exec_per_sec|new_units_added)" "$work/$harness.log" >&2
  echo "corpus: $(ls "$work/$harness" | wc -l) units" >&2
done
