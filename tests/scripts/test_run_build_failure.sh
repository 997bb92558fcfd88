#!/usr/bin/env bash
# scripts/run.sh on a tree that does not compile: it shows its progress, stops with the
# compiler's error and exit code 1, and never starts the tour.
# Usage: test_run_build_failure.sh SOURCE_DIR
set -u
source_dir=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; echo "--- stdout"; cat "$work/out"; echo "--- stderr"; cat "$work/err"; exit 1; }

tar -C "$source_dir" --exclude=./build --exclude=./.git -cf - . | tar -C "$work" -xf - --one-top-level=tree
echo '#error deliberately broken for the test' >>"$work/tree/include/hxf_common.h"
timeout 300 bash "$work/tree/scripts/run.sh" >"$work/out" 2>"$work/err"
code=$?
[ "$code" = 1 ] || fail "exit code $code, expected 1"
grep -q '^run.sh: building the tool and the simulator\.\.\.$' "$work/err" || fail "no progress shown"
grep -q '^run.sh: the build failed:$' "$work/err" || fail "the failure is not announced"
grep -q 'error: #error deliberately broken for the test' "$work/err" || fail "the compiler's error is not shown"
grep -q 'starting the tour' "$work/err" && fail "the tour started on a failed build"
[ -s "$work/out" ] && fail "stdout is not empty"
echo "ok"
