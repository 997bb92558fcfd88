# shellcheck shell=bash
# What a test script checks before it starts anything: each part that is missing skips the
# case (exit 77), naming the part and the scripts/install-deps.sh group that brings it. The
# script sets case_name before it sources this.
# shellcheck disable=SC2154 # case_name comes from the script that sources this
skip() { echo "SKIP [$case_name]: $*"; exit 77; }
# needs GROUP COMMAND...: every COMMAND is on PATH.
needs() {
  local group=$1 tool
  shift
  for tool in "$@"; do
    command -v "$tool" >/dev/null || skip "$tool is missing (scripts/install-deps.sh $group)"
  done
}
# The system's Python, whose modules apt installs (python3-dbus, python3-paho-mqtt), whatever
# python3 comes first in PATH.
python=/usr/bin/python3
# needs_python GROUP MODULE PACKAGE: $python imports MODULE (from PACKAGE).
needs_python() {
  "$python" -c "import $2" 2>/dev/null || skip "$3 is missing (scripts/install-deps.sh $1)"
}
