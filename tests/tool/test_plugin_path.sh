#!/usr/bin/env bash
# hxf loads a plugin from its library's path (host builds): a copy outside the plugin folder,
# by a relative and an absolute path, under the NAME of its libhxf-plugin-NAME.so; a path that
# is no plugin library is refused before the core is asked, with the reason.
# Usage: test_plugin_path.sh HXF_BINARY CASE
set -u
hxf=$1
case_name=$2
# shellcheck source=../support/tool_case.sh
source "$(dirname "$0")/../support/tool_case.sh"
# shellcheck source=../support/await.sh
source "$(dirname "$0")/../support/await.sh"

expect_err_exactly() { [ "$(cat "$err")" = "$1" ] || fail "stderr is not exactly: $1"; }

# The build's plugin folder, as hxf itself names it; the copies lie elsewhere.
folder=$("$hxf" --json plugins --all | sed -n 's|.*"path":"\(/[^"]*\)/libhxf-plugin-sim.so".*|\1|p')
[ -n "$folder" ] || { echo "FAIL [$case_name]: hxf lists no simulator"; exit 1; }
mkdir "$work/x"
cp "$folder/libhxf-plugin-sim.so" "$work/x/"
cd "$work" || exit 1

case "$case_name" in
  relative)
    code=$(run --plugin ./x/libhxf-plugin-sim.so search lights --timeout 1000)
    expect_code "$code" 0
    grep -q '^lamp-1  *Desk lamp  *lights ' "$out" || fail "no lamp-1"
    grep -qx '2 device(s) offer lights' "$err" || fail "no device count"
    # Loaded under its NAME: the same plugin by name is already there.
    code=$(run --plugin ./x/libhxf-plugin-sim.so --plugin sim search lights --timeout 300)
    expect_code "$code" 1
    expect_err_exactly "hxf: plugin sim: load refused: it is already loaded (error 2: HXF_ERROR_OPERATION_FAILED)"
    ;;
  absolute)
    code=$(run --plugin "$work/x/libhxf-plugin-sim.so" search lights --timeout 1000)
    expect_code "$code" 0
    grep -q '^ceiling-1  *Ceiling light  *lights ' "$out" || fail "no ceiling-1"
    # The core logs it under its NAME, and loads the file it was given.
    code=$(run --log-level info --plugin "$work/x/libhxf-plugin-sim.so" devices lights --timeout 1000)
    expect_code "$code" 0
    grep -q "I HXF_FW: .*path to load : $work/x/libhxf-plugin-sim.so" "$err" || fail "not the copy's path"
    grep -q "I HXF_FW: .*plugin_name : sim," "$err" || fail "not logged under the name sim"
    ;;
  name-in-messages)
    # A plugin loaded by path that fails is named by its NAME, with the path in the reason.
    cp "$folder/libhxf-plugin-createfails.so" "$work/x/"
    code=$(run --plugin ./x/libhxf-plugin-createfails.so search lights)
    expect_code "$code" 1
    expect_err_exactly "hxf: plugin createfails: failed to load: the plugin itself reported the failure (./x/libhxf-plugin-createfails.so)"
    expect_no_out
    code=$(run --json --plugin ./x/libhxf-plugin-createfails.so search lights)
    expect_code "$code" 1
    grep -qxF '{"event":"error","error":null,"error_name":null,"message":"plugin createfails: failed to load: the plugin itself reported the failure (./x/libhxf-plugin-createfails.so)","plugin":"createfails"}' \
      "$out" || fail "the JSON error does not name createfails"
    ;;
  refused)
    # Each refused at once, before the core is asked, naming the argument and why.
    mkdir "$work/x/libhxf-plugin-folder.so"
    cp "$work/x/libhxf-plugin-sim.so" "$work/x/sim.so"
    for refusal in "./x/libhxf-plugin-missing.so|no such file" \
                   "./x/libhxf-plugin-folder.so|not a file" \
                   "./x/sim.so|not a plugin library: its file name must be libhxf-plugin-NAME.so" \
                   "$work/x/sim.so|not a plugin library: its file name must be libhxf-plugin-NAME.so"; do
      argument=${refusal%%|*}
      reason=${refusal#*|}
      start=$(now_ms)
      code=$(run --plugin "$argument" search lights --timeout 5000)
      elapsed=$(($(now_ms) - start))
      expect_code "$code" 1
      expect_err_exactly "hxf: plugin $argument: $reason"
      expect_no_out
      [ "$elapsed" -lt 2000 ] || fail "$argument: refused after $elapsed ms"
    done
    code=$(run --json --plugin ./x/libhxf-plugin-missing.so search lights)
    expect_code "$code" 1
    grep -qxF '{"event":"error","error":null,"error_name":null,"message":"plugin ./x/libhxf-plugin-missing.so: no such file","plugin":"./x/libhxf-plugin-missing.so"}' \
      "$out" || fail "no JSON error for the missing file"
    grep -qxF '{"event":"end","command":"search","exit_code":1,"reason":"failed"}' "$out" || fail "no JSON end"
    ;;
  *) echo "unknown case $case_name"; exit 2 ;;
esac
exit 0
