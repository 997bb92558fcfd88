#!/usr/bin/env bash
# Builds the libFuzzer harnesses (clang, ASan+UBSan) and runs each for SECONDS (default 30)
# from a copy of its seed corpus in tests/fuzz/corpus/NAME. Fails on any crash, hang or leak.
# Usage: scripts/fuzz.sh [SECONDS [NAME...]]      (NAME: a harness below, without fuzz_)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
shift $(($# > 0 ? 1 : 0))
# Every harness, tests/fuzz/fuzz_NAME.cpp; one the build does not make (sd-bus missing, or
# not written yet) is skipped with a line saying so.
harnesses=(api common cli bus_values plugin_info sim_config hxfd mqtt_payload mqtt_import upnp_audio)
[ $# -gt 0 ] && harnesses=("$@")
scripts/install-deps.sh sanitizers
cmake --preset fuzz >/dev/null
known=$(cmake --build --preset fuzz --target help)
targets=()
for harness in "${harnesses[@]}"; do
  if grep -q "^fuzz_$harness:" <<<"$known"; then
    targets+=("fuzz_$harness")
  else
    echo "=== fuzz_$harness: not in this build, skipped ===" >&2
  fi
done
[ ${#targets[@]} -gt 0 ] || { echo "no harness to run" >&2; exit 1; }
cmake --build --preset fuzz --target "${targets[@]}"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
summary=()
for target in "${targets[@]}"; do
  harness=${target#fuzz_}
  mkdir -p "$work/$harness"
  [ -d "tests/fuzz/corpus/$harness" ] && cp -r "tests/fuzz/corpus/$harness/." "$work/$harness"
  echo "=== $target: ${seconds} s ===" >&2
  # A crashing input is kept in build/fuzz/artifacts/ (run the harness on it to see again).
  mkdir -p build/fuzz/artifacts
  "build/fuzz/tests/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 \
      -artifact_prefix="build/fuzz/artifacts/$harness-" -print_final_stats=1 "$work/$harness" \
      2>"$work/$harness.log" || { tail -60 "$work/$harness.log"; exit 1; }
  stat_of() { sed -n "s/^stat::$1: *//p" "$work/$harness.log"; }
  summary+=("$(printf '%-22s %12s %10s %10s %8s' "$target" "$(stat_of number_of_executed_units)" \
    "$(stat_of average_exec_per_sec)" "$(stat_of new_units_added)" "$(ls "$work/$harness" | wc -l)")")
  echo "${summary[-1]}" >&2
done
echo "=== $(printf '%-18s %12s %10s %10s %8s' harness executions exec/s 'new units' corpus) ===" >&2
printf '%s\n' "${summary[@]}" >&2
