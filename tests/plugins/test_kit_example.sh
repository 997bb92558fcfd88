#!/usr/bin/env bash
# examples/kit/counters.cpp, the C++ plugin kit's example, built in the tree as an author builds
# it (hxf::plugin-kit) and loaded by its path: its devices are found and listed naming their
# provider, requests are answered from the one record the plugin keeps, and an unknown
# operation or device is refused the way the kit refuses them for every plugin; hxf
# check-plugin finds nothing wrong with it.
# Usage: test_kit_example.sh HXF_BINARY PLUGIN_PATH CASE
set -u
hxf=$1
plugin=$2
case_name=$3
# shellcheck source=../support/tool_case.sh
source "$(dirname "$0")/../support/tool_case.sh"

case "$case_name" in
  found)
    code=$(run --plugin "$plugin" search counters --timeout 500)
    expect_code "$code" 0
    grep -q '^counter-1  *Front door visitors  *counters ' "$out" || fail "no counter-1"
    grep -q '^counter-2  *Back door visitors  *counters ' "$out" || fail "no counter-2"
    code=$(run --json --plugin "$plugin" devices counters --timeout 1000)
    expect_code "$code" 0
    [ "$(grep -c '"ui_meta":{"provider":"counters"}' "$out")" = 2 ] ||
      fail "the listed devices do not name their provider"
    ;;
  answered)
    code=$(run --plugin "$plugin" request counters add device=counter-1 amount=5)
    expect_code "$code" 0
    grep -q '^  count  *5$' "$out" || fail "the count after add is not 5"
    code=$(run --plugin "$plugin" request counters get device=counter-2)
    expect_code "$code" 0
    grep -q '^  count  *0$' "$out" || fail "counter-2 does not start at 0"
    ;;
  refused)
    code=$(run --plugin "$plugin" request counters wave device=counter-1)
    expect_code "$code" 1
    expect_err "wave on counters failed: unknown operation wave (get or add) (error 4: HXF_ERROR_INVALID_PARAMETER)"
    code=$(run --plugin "$plugin" request counters get device=counter-9)
    expect_code "$code" 1
    expect_err "get on counters failed: no counter counter-9 (error 6: HXF_ERROR_NOT_FOUND)"
    ;;
  passes-check-plugin)
    code=$(run check-plugin "$plugin")
    expect_code "$code" 0
    grep -q '^FAIL' "$out" && fail "a check failed"
    expect_out '^PASS request-unknown-operation/counters$'
    ;;
  *)
    echo "unknown case $case_name"
    exit 2
    ;;
esac
echo PASS
