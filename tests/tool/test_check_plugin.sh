#!/usr/bin/env bash
# hxf check-plugin against the simulator (every check passes) and against the fixtures that
# break a contract (each fails the check that names it).
# Usage: test_check_plugin.sh HXF_BINARY CASE
set -u
hxf=$1
case_name=$2
# shellcheck source=../support/tool_case.sh
source "$(dirname "$0")/../support/tool_case.sh"

expect_line() { grep -qxF -- "$1" "$out" || fail "stdout lacks the line: $1"; }

case "$case_name" in
  sim-passes)
    code=$(run check-plugin sim)
    expect_code "$code" 0
    expected="PASS exports
PASS load-result"
    for service in lights audio climate; do
      for check in search search-stop device-list listen listen-stop; do
        expected+=$'\n'"PASS $check/$service"
      done
    done
    for service in lights audio climate; do
      for check in request-get request-unknown-operation request-unknown-device; do
        expected+=$'\n'"PASS $check/$service"
      done
    done
    for check in answers-name-offered-services callbacks-return-promptly unload-returns \
                 no-threads-left library-unmapped three-loads; do
      expected+=$'\n'"PASS $check"
    done
    [ "$(cat "$out")" = "$expected" ] || fail "not the expected lines: $(diff <(echo "$expected") "$out")"
    ;;
  sim-json)
    code=$(run --json check-plugin sim)
    expect_code "$code" 0
    expect_line '{"event":"check","check":"exports","result":"pass"}'
    expect_line '{"event":"end","command":"check-plugin","exit_code":0,"reason":"done"}'
    ;;
  usage)
    code=$(run check-plugin)
    expect_code "$code" 2
    ;;
  createfails)
    code=$(run check-plugin createfails)
    expect_code "$code" 1
    grep -q '^FAIL load-result: the load failed: the plugin itself reported the failure' "$out" || fail "no load-result FAIL"
    ;;
  destroyfails)
    code=$(run check-plugin destroyfails)
    expect_code "$code" 1
    expect_line 'FAIL unload-returns: DestroyPlugin returned false (the library stays open)'
    grep -q '^FAIL library-unmapped: .*libhxf-plugin-destroyfails.so is still mapped after the unload$' "$out" || fail "no library-unmapped FAIL"
    ;;
  nodestroy)
    code=$(run check-plugin nodestroy)
    expect_code "$code" 1
    expect_line 'FAIL exports: does not export DestroyPlugin'
    ;;
  misnamed)
    code=$(run check-plugin misnamed)
    expect_code "$code" 1
    expect_line "FAIL load-result: reported its load result under the name 'misnamed-v2', not its own ('misnamed')"
    expect_line 'PASS exports'
    ;;
  answertwice)
    # Every request answered twice: the second answer is counted although the core drops it.
    code=$(run check-plugin answertwice)
    expect_code "$code" 1
    expect_line 'FAIL request-get/lights: get device_id=lamp-1: answered 2 times'
    expect_line 'FAIL request-unknown-device/lights: get device_id=hxf-check-no-such-device: answered 2 times'
    expect_line 'PASS no-threads-left'
    ;;
  a-sanitizer-report-is-a-finding)
    # The fixture "undefined" overflows a signed integer answering lamp-1, in a plugin built with
    # UndefinedBehaviorSanitizer: its report on the child's stderr fails the check it came in,
    # whether the child goes on (the check itself passes) or the sanitizer ends it.
    [ "${3:-ON}" = ON ] || { echo "SKIP [$case_name]: this build has no UndefinedBehaviorSanitizer runtime for the fixture (tsan preset)"; exit 77; }
    report="UndefinedBehaviorSanitizer: runtime error: signed integer overflow: 2147483647 \\+ 1 cannot be represented in type 'int' \\(.*test_plugin_contract.c:[0-9]+:[0-9]+\\)"
    code=$(UBSAN_OPTIONS=halt_on_error=0:print_stacktrace=0 run check-plugin undefined)
    expect_code "$code" 1
    expect_line 'PASS request-get/lights'
    grep -Eqx "FAIL sanitizer: $report during request-get/lights" "$out" ||
      fail "no sanitizer FAIL naming the report and the check"
    [ "$(grep -c '^FAIL' "$out")" = 1 ] || fail "more than the sanitizer's FAIL"
    code=$(UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=0 run check-plugin undefined)
    expect_code "$code" 1
    grep -Eqx "FAIL request-get/lights: the (checking process exited with code [0-9]+|plugin crashed the checking process \\(signal [0-9]+, .*\\)) in the middle of the check: $report" \
      "$out" || fail "the check the sanitizer ended does not name its report"
    expect_line 'PASS library-unmapped'  # the next child goes on
    ;;
  threadleft)
    # A thread of the plugin outlives DestroyPlugin, named with its id and name.
    code=$(run check-plugin threadleft)
    expect_code "$code" 1
    grep -qx 'FAIL no-threads-left: 1 thread(s) started since the load still run 1000 ms after the unload: [0-9]* (left-running)' \
      "$out" || fail "no no-threads-left FAIL naming the thread"
    expect_line 'PASS request-get/lights'
    expect_line 'PASS unload-returns'
    ;;
  *) echo "unknown case $case_name"; exit 2 ;;
esac
exit 0
