#!/usr/bin/env bash
# The tools' and plugins' locks are the annotated ones, and clang's analysis bites on them.
# Usage: test_locks.sh SOURCE_DIR CXX_COMPILER CASE
set -u
source_dir=$1
cxx=$2
case_name=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL [$case_name]: $*"; exit 1; }

case "$case_name" in
  no-plain-mutex)
    # A plain std::mutex is invisible to -Wthread-safety: every lock here is an HXFramework
    # one (common/include_internal/CLocks.h), its fields marked HXF_GUARDED_BY.
    # The files of the checkout (work in progress beside it is not looked at).
    cd "$source_dir" || fail "no $source_dir"
    if git rev-parse --git-dir >/dev/null 2>&1; then
      mapfile -t files < <(git ls-files tools/hxf tools/hxfd tools/common plugins)
    else
      mapfile -t files < <(find tools/hxf tools/hxfd tools/common plugins -type f)
    fi
    found=$(grep -nE 'std::(recursive_|shared_|timed_)?mutex\b' "${files[@]}" || true)
    [ -z "$found" ] || fail "locks the analysis cannot see (use HXFramework::CMutex and mark what it guards HXF_GUARDED_BY, common/include_internal/CLocks.h): $found"
    ;;
  unguarded-access-refused)
    "$cxx" --version 2>/dev/null | grep -q clang || { echo "not clang: nothing to check"; exit 77; }
    cat >"$work/unguarded.cpp" <<'CPP'
#include "CLocks.h"
struct Queue {
  HXFramework::CMutex mutex;
  int size HXF_GUARDED_BY(mutex) = 0;
};
int Size(Queue& q) { return q.size; }  // no lock held
CPP
    if "$cxx" -std=c++17 -fsyntax-only -Wthread-safety -Werror -I"$source_dir/common/include_internal" \
      "$work/unguarded.cpp" 2>"$work/err"; then
      fail "an unguarded read of a guarded field compiled"
    fi
    grep -q "requires holding mutex" "$work/err" || { cat "$work/err"; fail "refused, but not by the lock analysis"; }
    ;;
  *)
    echo "unknown case $case_name"; exit 2 ;;
esac
echo "ok [$case_name]"
