#!/usr/bin/env bash
# Drives the hxf tool in a real terminal (tmux) and checks the screen line by line: the live
# countdown is drawn on stderr only when stderr is a terminal, is erased before anything else
# is printed, counts the real time-out, and is absent where no time limit applies.
# Usage: test_terminal.sh HXF_BINARY CASE
set -u
hxf=$1
case_name=$2
command -v tmux >/dev/null || { echo "SKIP: tmux is not installed (scripts/install-deps.sh tests)"; exit 77; }

work=$(mktemp -d)
socket="hxf-test-$$"
tmux_() { tmux -L "$socket" "$@"; }
cleanup() { tmux_ kill-server 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT

# A plain shell with a short prompt and the tool on its PATH. `run CMD...` runs a command,
# prints its exit code and signals the test, which waits on that signal (bounded).
cat >"$work/rc" <<RC
PS1='$ '
PATH="$(dirname "$hxf"):\$PATH"
run() { "\$@"; echo "exit=\$?" >/dev/tty; tmux wait-for -S done; }
RC
tmux_ -f /dev/null new-session -d -s t -x 100 -y 40 "bash --noprofile --rcfile $work/rc -i"

screen() { tmux_ capture-pane -p -t t | sed -e 's/[[:space:]]*$//' | sed -e '/./,$!d' | sed -e ':a' -e '/^\n*$/{$d;N;ba' -e '}'; }
fail() { echo "FAIL [$case_name]: $*"; echo "--- screen"; screen; exit 1; }
type_line() { tmux_ send-keys -t t -l "$1"; tmux_ send-keys -t t Enter; }
# Evaluates the condition $1 (with $2 as its "$1") every 50 ms until it holds, for 10 s at
# most; false when it never did.
poll() {
  local condition=$1
  set -- "${2:-}"
  for _ in $(seq 1 200); do
    eval "$condition" && return 0
    sleep 0.05
  done
  return 1
}
# Clears the screen and waits (at most 10 s) until the shell has drawn its prompt on it
# again: keys typed before the shell reads them would be echoed ahead of its prompt.
fresh_prompt() {
  type_line "clear; tmux wait-for -S ready"
  timeout 10 tmux -L "$socket" wait-for ready || fail "the shell did not clear the screen"
  poll '[ "$(screen)" = "\$" ]' || fail "no prompt on a cleared screen"
}
# Runs CMD in the terminal and waits (at most 30 s) until it has finished.
run_to_end() {
  fresh_prompt
  type_line "run $1"
  timeout 30 tmux -L "$socket" wait-for done || fail "'$1' did not finish within 30 s"
}
# Starts CMD in the terminal without waiting for it.
start() {
  fresh_prompt
  type_line "run $1"
}
# Waits (at most 10 s) until a line of the screen matches the extended regex.
# The first matching line is left in $matched.
await_line() {
  poll 'matched=$(screen | grep -E -m 1 -- "$1")' "$1" || fail "no line of the screen matches: $1"
}
# Waits for the countdown "$1... N.N s left" and checks that N.N is at most $2 (the time-out
# asked for, not more).
expect_countdown() {
  await_line "^$1\\.\\.\\. [0-9]\\.[0-9] s left\$"
  local left=${matched% s left}
  left=${left##* }
  awk -v l="$left" -v max="$2" 'BEGIN { exit !(l >= 0 && l <= max) }' ||
    fail "the countdown shows $left s of a $2 s wait"
}
await_end() { timeout 30 tmux -L "$socket" wait-for done || fail "the command did not finish"; }
# The screen, once the command has finished, must be exactly these lines. Awaited (10 s at
# most): "done" comes before the shell draws its next prompt, which a loaded machine shows late.
expect_screen() {
  local expected
  expected=$(printf '%s\n' "$@")
  poll '[ "$(screen)" = "$1" ]' "$expected" || { echo "--- expected"; echo "$expected"; fail "the screen differs"; }
}
no_countdown() { screen | grep -q "s left" && fail "a countdown is on the screen"; return 0; }

case "$case_name" in
  search)
    # While it runs: one countdown line, starting from the real time-out (3.0 s at most).
    start "hxf search lights --timeout 3000"
    expect_countdown "searching lights" 3.0
    await_end
    # Afterwards the countdown is gone and every line starts at the left edge.
    expect_screen \
      '$ run hxf search lights --timeout 3000' \
      'DEVICE     NAME           SERVICE  ADDRESS       INTERFACE' \
      'lamp-1     Desk lamp      lights   192.168.1.21  wlan0/wifi' \
      'ceiling-1  Ceiling light  lights   192.168.1.22  wlan0/wifi' \
      '2 device(s) offer lights' \
      'exit=0' \
      '$'
    ;;
  device-list-timeout)
    # The countdown counts the time-out asked for, not the core's report grace after it. A
    # configured simulator may offer any service, so the tool waits rather than refusing.
    printf '{"devices": [{"id": "sprinkler-1", "service": "garden"}]}\n' >"$work/garden.json"
    type_line "export HXF_SIM_CONFIG=$work/garden.json"
    start "hxf devices nothing-here --timeout 2000"
    expect_countdown "listing nothing-here" 2.0
    await_end
    expect_screen \
      '$ run hxf devices nothing-here --timeout 2000' \
      'hxf: no device list for nothing-here within 2000 ms (error 1: HXF_ERROR_TIMED_OUT)' \
      'exit=1' \
      '$'
    ;;
  listen-for)
    # Devices found while the countdown runs are printed on lines of their own.
    start "hxf listen lights --for 2500"
    await_line '^arrived  porch-1  Porch light  192\.168\.1\.23$'
    screen | grep -q '^listening to lights\.\.\. [0-9]\.[0-9] s left$' ||
      fail "no countdown while listening for 2.5 s"
    await_end
    expect_screen \
      '$ run hxf listen lights --for 2500' \
      'listening to lights for 2500 ms' \
      'found  lamp-1  Desk lamp  192.168.1.21' \
      'found  ceiling-1  Ceiling light  192.168.1.22' \
      'arrived  porch-1  Porch light  192.168.1.23' \
      'done' \
      'exit=0' \
      '$'
    ;;
  listen-no-limit)
    # Without --for there is no time limit, so no countdown; Ctrl-C stops it with 130.
    start "hxf listen lights"
    await_line '^arrived  porch-1  Porch light  192\.168\.1\.23$'
    no_countdown
    tmux_ send-keys -t t C-c
    await_end
    # The terminal echoes ^C; the tool goes on on a line of its own.
    screen | grep -qx '^^C' || fail "no ^C line"
    screen | grep -qx 'stopped' || fail "no 'stopped' on its own line after Ctrl-C"
    screen | grep -qx 'exit=130' || fail "Ctrl-C did not exit with 130"
    no_countdown
    ;;
  watch-no-limit)
    start "hxf watch lights"
    await_line '^watching lights \(Ctrl-C stops\)$'
    no_countdown
    tmux_ send-keys -t t C-c
    await_end
    screen | grep -qx 'exit=130' || fail "Ctrl-C did not exit with 130"
    no_countdown
    ;;
  search-ctrl-c)
    # Ctrl-C during a countdown erases the countdown's line, "^C" with it. The only lamp
    # answers after 30 s, so no device table can come before the Ctrl-C, however loaded the
    # machine is (with the stock lamps, one answered first under load now and then).
    printf '%s\n' '{"search_latency_ms": 30000, "devices": [' \
      '  {"id": "lamp-1", "service": "lights", "properties": [' \
      '    {"name": "power", "type": "bool", "value": false}]}]}' >"$work/slow.json"
    start "env HXF_SIM_CONFIG=$work/slow.json hxf search lights --timeout 9000"
    await_line '^searching lights\.\.\. [0-9]\.[0-9] s left$'
    tmux_ send-keys -t t C-c
    await_end
    expect_screen "\$ run env HXF_SIM_CONFIG=$work/slow.json hxf search lights --timeout 9000" \
      'exit=130' '$'
    ;;
  json)
    # JSON mode is for programs: no countdown even on a terminal.
    start "hxf --json search lights --timeout 2000"
    await_line '^\{"event":"found",.*"device_id":"ceiling-1"'
    no_countdown
    await_end
    no_countdown
    ;;
  stderr-redirected)
    # stderr to a file: no countdown anywhere, and none in the file: only the status line.
    run_to_end "hxf search lights --timeout 800 2>$work/err"
    no_countdown
    [ "$(cat "$work/err")" = "2 device(s) offer lights" ] || fail "stderr got: $(cat -v "$work/err")"
    # stdout to a file, stderr on the terminal: the countdown shows; the file holds results only.
    start "hxf search lights --timeout 3000 >$work/out"
    await_line '^searching lights\.\.\. [0-9]\.[0-9] s left$'
    await_end
    expect_screen "\$ run hxf search lights --timeout 3000 >$work/out" '2 device(s) offer lights' 'exit=0' '$'
    grep -q $'\033\|\r\|s left' "$work/out" && fail "the results file holds countdown text: $(cat -v "$work/out")"
    grep -q 'device(s) offer' "$work/out" && fail "the results file holds the count, a status line"
    ;;
  *)
    echo "unknown case $case_name"; exit 2 ;;
esac
echo "ok [$case_name]"
