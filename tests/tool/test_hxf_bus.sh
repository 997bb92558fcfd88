#!/usr/bin/env bash
# hxf --bus against hxfd on a private bus: what the command line reads (values, long values,
# services) means the same through hxfd as in process. Each case starts its own dbus-daemon
# and hxfd (the simulator, with a configuration of typed properties when the case needs it);
# both are stopped by their PIDs.
# Usage: test_hxf_bus.sh HXFD_BINARY HXF_BINARY CASE       (exit 77: skipped, with the reason)
set -u
hxfd=$1
hxf=$2
case_name=$3
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=../support/needs.sh
source "$here/../support/needs.sh"
needs dbus dbus-daemon

# shellcheck source=../support/bus_case.sh
source "$here/../support/bus_case.sh"
out="$work/hxf.out"
err="$work/hxf.err"
# shellcheck source=../support/await.sh
source "$here/../support/await.sh"
# shellcheck source=../support/private_bus.sh
source "$here/../support/private_bus.sh"

# Starts a private bus and hxfd on it; extra arguments are hxfd's environment (VAR=VALUE).
start_hxfd() {
  start_private_bus
  env "$@" "$hxfd" --address "$address" >"$work/hxfd.out" 2>"$work/hxfd.err" &
  pids+=($!)
  await_line "$work/hxfd.err" 10 '^hxfd: serving org.hxf.Broker$'
}
run() { "$hxf" --bus "$address" "$@" >"$out" 2>"$err"; echo $?; }
expect_code() { [ "$1" = "$2" ] || fail "exit code $1, expected $2"; }
expect_out() { grep -q -- "$1" "$out" || fail "stdout lacks: $1"; }
expect_err() { grep -q -- "$1" "$err" || fail "stderr lacks: $1"; }

case "$case_name" in
  numbers)
    # Every number form arrives in the simulator with its type through hxfd, which refuses a
    # value of the wrong type; --json shows what it stored. Refusals happen before the bus.
    cat >"$work/types.json" <<'JSON'
{ "devices": [ {"id": "meter-1", "service": "meter",
  "properties": [{"name": "count", "type": "int", "value": 0},
                 {"name": "level", "type": "double", "value": 0.0},
                 {"name": "ok", "type": "bool", "value": false},
                 {"name": "label", "type": "string", "value": ""}]} ] }
JSON
    start_hxfd HXF_SIM_CONFIG="$work/types.json"
    set_meter() { code=$(run --json request meter set device=meter-1 "$@"); }
    for pair in "1e3 1000.0" "-0.5 -0.5" ".5 0.5" "5. 5.0" "1E-3 0.001" "+1.5 1.5"; do
      set_meter "level=${pair% *}"
      expect_code "$code" 0
      expect_out "\"level\":${pair#* }[,}]"
    done
    set_meter count=9223372036854775807 ok=true label='"42"'
    expect_code "$code" 0
    expect_out '"count":9223372036854775807,'
    expect_out '"label":"42",'
    expect_out '"ok":true'
    set_meter count=-9223372036854775808
    expect_code "$code" 0
    expect_out '"count":-9223372036854775808,'
    set_meter count=18446744073709551615
    expect_code "$code" 2
    expect_err "^hxf: count=18446744073709551615: the integer does not fit in 64 bits"
    ;;
  long-value)
    # A value within hxfd's text limit (64 KiB) is carried to the simulator; the longest
    # argument the kernel passes is beyond it and refused by hxfd, naming the limit.
    start_hxfd
    long=$(head -c 65536 /dev/zero | tr '\0' x)
    code=$(run request lights get "device=$long")
    expect_code "$code" 1
    expect_err "^hxf: get on lights failed: unknown device xxxx"
    long=$(head -c 131064 /dev/zero | tr '\0' x)
    code=$(run request lights get "device=$long")
    expect_code "$code" 1
    expect_err '^hxf: get on lights failed: the value of "device_id" is longer than 65536 bytes (limit max-text-bytes in hxfd.conf)'
    kill -0 "${pids[1]}" 2>/dev/null || fail "hxfd died"
    ;;
  unoffered-service)
    # hxfd says which services its plugins offer: every command refuses another at once.
    start_hxfd
    for command in "search nosuch --timeout 5000" "listen nosuch" "devices nosuch --timeout 5000" \
                   "request nosuch get --timeout 5000" "watch nosuch"; do
      start=$(now_ms)
      # shellcheck disable=SC2086 # the command's words
      code=$(run $command)
      elapsed_ms=$(($(now_ms) - start))
      expect_code "$code" 1
      expect_err "^hxf: no loaded plugin offers the service nosuch (offered: audio, climate, lights) (error 6: HXF_ERROR_NOT_FOUND)$"
      [ "$elapsed_ms" -lt 3000 ] || fail "$command: the refusal took $elapsed_ms ms"
    done
    ;;
  ctrl-c-stops-a-wait-at-once)
    # Through hxfd too, Ctrl-C comes through hxf's main loop and ends a wait at once.
    start_hxfd
    "$hxf" --bus "$address" listen lights --for 60000 >"$out" 2>"$err" &
    pid=$!
    pids+=($pid)
    await_line "$err" 10 '^listening to lights for 60000 ms$'
    start=$(now_ms)
    kill -INT $pid
    wait $pid
    code=$?
    elapsed_ms=$(($(now_ms) - start))
    expect_code "$code" 130
    expect_err "^stopped$"
    [ "$elapsed_ms" -lt 2000 ] || fail "Ctrl-C took $elapsed_ms ms to stop the listen"
    ;;
  *)
    echo "unknown case $case_name"; exit 2 ;;
esac
echo "ok [$case_name]"
