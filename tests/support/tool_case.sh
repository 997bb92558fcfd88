# shellcheck shell=bash
# What every test of the hxf binary as a process starts with: a work folder removed on exit,
# the command's stdout and stderr kept there, and the checks on them. The script sets hxf and
# case_name before it sources this.
# shellcheck disable=SC2154 # case_name and hxf come from the script that sources this
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
out="$work/out"
err="$work/err"

fail() { echo "FAIL [$case_name]: $*"; echo "--- stdout"; cat "$out"; echo "--- stderr"; cat "$err"; exit 1; }
run() { "$hxf" "$@" >"$out" 2>"$err"; echo $?; }
expect_code() { [ "$1" = "$2" ] || fail "exit code $1, expected $2"; }
expect_out() { grep -q -- "$1" "$out" || fail "stdout lacks: $1"; }
expect_err() { grep -q -- "$1" "$err" || fail "stderr lacks: $1"; }
expect_no_out() { [ -s "$out" ] && fail "stdout should be empty"; return 0; }
