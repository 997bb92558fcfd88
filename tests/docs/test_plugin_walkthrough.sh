#!/usr/bin/env bash
# Builds docs/PLUGINS.md's walkthrough exactly as written and runs it. The code blocks marked
# "<!-- walkthrough: greeter.c -->" are the plugin's source, in their order on the page; the
# block marked "<!-- walkthrough: commands -->" builds it and tries it with hxf. The tree's
# headers and libraries stand in for the installed package's (pkg-config).
# Usage: test_plugin_walkthrough.sh PLUGINS.md HXF CC "CFLAGS" "LIBS"
set -euo pipefail
doc=$1 hxf_binary=$2 cc_binary=$3 tree_cflags=$4 tree_libs=$5

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The marked blocks' contents, in order, one blank line after each.
extract() {
  awk -v mark="<!-- walkthrough: $1 -->" '
    $0 == mark { armed = 1; next }
    armed && !inside && /^```/ { inside = 1; next }
    inside && /^```/ { inside = 0; armed = 0; print ""; next }
    inside { print }' "$doc"
}

extract greeter.c > "$work/greeter.c"
extract commands > "$work/commands.sh"
[[ $(grep -c . "$work/greeter.c") -gt 10 ]] || { echo "FAIL: no greeter.c blocks in $doc"; exit 1; }
grep -q '^hxf ' "$work/commands.sh" || { echo "FAIL: no commands block in $doc"; exit 1; }

pkg-config() { echo "$tree_cflags $tree_libs"; }
# Stricter than the page asks: a warning in the walkthrough is a mistake in it.
cc() { "$cc_binary" -Wall -Werror "$@"; }
hxf() { "$hxf_binary" "$@"; }

cd "$work"
echo "--- greeter.c"; cat -n greeter.c
echo "--- commands"; cat commands.sh
# shellcheck disable=SC1091
source ./commands.sh > output.txt 2>&1 || { cat output.txt; echo "FAIL: a command failed"; exit 1; }
echo "--- output"; cat output.txt
grep -q 'greeter-1' output.txt || { echo "FAIL: the search found no greeter-1"; exit 1; }
grep -q 'Hello, Ada' output.txt || { echo "FAIL: the request got no greeting"; exit 1; }
# The conventions the page shows: a failed result carries its reason in "error".
if hxf --plugin ./libhxf-plugin-greeter.so request greetings wave device=greeter-1 \
     > failed.txt 2>&1; then
  cat failed.txt; echo "FAIL: an unknown operation succeeded"; exit 1
fi
grep -q 'greeter knows only get' failed.txt || { cat failed.txt; echo "FAIL: no reason"; exit 1; }
echo PASS
