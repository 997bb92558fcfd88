# shellcheck shell=bash
# What every process test starts with (a private dbus-daemon, a broker, a network of its own):
# a work folder, the PIDs of the processes the test starts (each stopped by its PID however the
# test ends), and a failure that shows the end of every output the test kept. The script sets
# case_name before it sources this; one that makes more to undo traps EXIT again, calling
# cleanup.
# shellcheck disable=SC2154 # case_name comes from the script that sources this
work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -9 "$pid" 2>/dev/null; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT
# A time-out's TERM or a Ctrl-C ends the script through its EXIT trap too.
trap 'exit 1' INT TERM
fail() {
  echo "FAIL [$case_name]: $*"
  for f in "$work"/*.out "$work"/*.err "$work"/*.log; do [ -s "$f" ] && { echo "--- $f"; tail -c 3000 "$f"; echo; }; done
  exit 1
}
