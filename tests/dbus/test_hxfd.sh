#!/usr/bin/env bash
# hxfd on a private bus, used by real third-party D-Bus clients: busctl, gdbus and
# python3-dbus. Each case starts its own dbus-daemon (a configuration that activates
# nothing) and its own hxfd with the simulator; both are stopped by their PIDs.
# Usage: test_hxfd.sh HXFD_BINARY CASE       (exit 77: skipped, with the reason)
set -u
hxfd=$1
case_name=$2
here=$(cd "$(dirname "$0")" && pwd)
skip() { echo "SKIP [$case_name]: $*"; exit 77; }
for tool in dbus-daemon busctl gdbus; do
  command -v "$tool" >/dev/null || skip "$tool is missing (scripts/install-deps.sh dbus)"
done
# python3-dbus belongs to the system's Python, whatever python3 comes first in PATH.
python=/usr/bin/python3
"$python" -c 'import dbus, gi' 2>/dev/null || skip "python3-dbus or python3-gi is missing (scripts/install-deps.sh dbus)"

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -9 "$pid" 2>/dev/null; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAIL [$case_name]: $*"
  for f in "$work"/*.out "$work"/*.err "$work"/*.log; do [ -s "$f" ] && { echo "--- $f"; tail -30 "$f"; }; done
  exit 1
}
# shellcheck source=../support/await.sh
source "$here/../support/await.sh"

source "$here/../support/private_bus.sh"
write_bus_conf "$work/bus.conf" "$work/bus"
dbus-daemon --config-file="$work/bus.conf" --nofork --print-address=3 3>"$work/address" 2>"$work/daemon.err" &
pids+=($!)
await_line "$work/address" 10 '^unix:'
address=unix:path=$work/bus
"$hxfd" --address "$address" >"$work/hxfd.out" 2>"$work/hxfd.err" &
hxfd_pid=$!
pids+=($hxfd_pid)
await_line "$work/hxfd.err" 10 '^hxfd: serving org.hxf.Broker$'

bus=(--address="$address")
call() { busctl "${bus[@]}" call org.hxf.Broker "$@"; }

case "$case_name" in
  introspect)
    busctl "${bus[@]}" introspect --xml-interface org.hxf.Broker /org/hxf/Broker >"$work/broker.out" ||
      fail "introspection failed"
    for arg in '<arg type="s" name="service" direction="in"/>' \
      '<arg type="u" name="timeout_ms" direction="in"/>' \
      '<arg type="aa{sv}" name="devices" direction="out"/>' \
      '<arg type="o" name="session" direction="out"/>'; do
      grep -qF "$arg" "$work/broker.out" || fail "the broker's introspection lacks $arg"
    done
    # A session object lives as long as its caller: python3-dbus keeps the connection.
    "$python" - "$address" >"$work/session.out" 2>"$work/session.err" <<'PY' || fail "python failed"
import sys, dbus
bus = dbus.bus.BusConnection(sys.argv[1])
path = dbus.Interface(bus.get_object("org.hxf.Broker", "/org/hxf/Broker"), "org.hxf.Broker1").Subscribe("lights")
print(bus.get_object("org.hxf.Broker", path).Introspect(dbus_interface="org.freedesktop.DBus.Introspectable"))
PY
    grep -qF '<arg type="a{sv}" name="properties" direction="in"/>' "$work/session.out" ||
      fail "the session's Request does not name its arguments"
    grep -qF '<signal name="Notification">' "$work/session.out" || fail "no Notification signal"
    ;;
  search)
    "$python" "$here/client.py" "$address" search >"$work/search.out" 2>"$work/search.err" ||
      fail "the python client failed"
    grep -qx 'found lamp-1 ceiling-1' "$work/search.out" || fail "the search did not find both lights"
    grep -qx 'finished done' "$work/search.out" || fail "the search did not finish as done"
    ;;
  request)
    # One call per connection: Broker1.Request uses the caller's own session.
    gdbus call --address "$address" --dest org.hxf.Broker --object-path /org/hxf/Broker \
      --method org.hxf.Broker1.Request lights get "{'device_id': <'ceiling-1'>}" 2000 \
      >"$work/get.out" 2>"$work/get.err" || fail "the request failed"
    grep -qF "'device_id': <'ceiling-1'>" "$work/get.out" || fail "the answer is not ceiling-1's"
    grep -qF "'power': <false>" "$work/get.out" || fail "the answer lacks power"
    call /org/hxf/Broker org.hxf.Broker1 Request 'ssa{sv}u' lights set 2 device_id s lamp-1 \
      brightness x 40 2000 >"$work/set.out" 2>"$work/set.err" || fail "busctl's set failed"
    grep -q '"brightness" x 40' "$work/set.out" || fail "the set did not answer brightness 40"
    call /org/hxf/Broker org.hxf.Broker1 Request 'ssa{sv}u' lights set 2 device_id s lamp-1 \
      brightness x 150 2000 >"$work/refused.out" 2>"$work/refused.err" && fail "a brightness of 150 was accepted"
    grep -q 'brightness 150 is out of range 0..100' "$work/refused.err" || fail "no refusal text"
    ;;
  timeout)
    gdbus call --address "$address" --dest org.hxf.Broker --object-path /org/hxf/Broker \
      --method org.hxf.Broker1.Request audio get "{'device_id': <'radio-1'>}" 300 \
      >"$work/late.out" 2>"$work/late.err" && fail "the unresponsive radio answered"
    grep -q 'org.hxf.Error.TimedOut: no answer to get in time' "$work/late.err" ||
      fail "the time-out is not org.hxf.Error.TimedOut with its operation"
    # A time-out the caller would not wait for is refused before anything is sent.
    call /org/hxf/Broker org.hxf.Broker1 Request 'ssa{sv}u' audio get 0 30000 2>"$work/long.err" &&
      fail "30000 ms accepted"
    grep -q 'must be above 0 and below 25000' "$work/long.err" || fail "no reason for refusing 30000 ms"
    ;;
  notification)
    "$python" "$here/client.py" "$address" notification >"$work/notify.out" 2>"$work/notify.err" ||
      fail "the python clients failed"
    grep -qx 'owner heard state lamp-1 brightness=25 error=0' "$work/notify.out" ||
      fail "the owner did not hear the change"
    grep -qx 'bystander heard 0' "$work/notify.out" || fail "the notification reached another connection"
    ;;
  disconnect)
    "$python" "$here/client.py" "$address" monitor-disconnect >"$work/monitor.out" 2>"$work/monitor.err" ||
      fail "the python clients failed"
    grep -qx 'monitor saw client-gone of the leaver: True' "$work/monitor.out" ||
      fail "the monitor did not see the client go"
    ;;
  hundred)
    # A hundred callers at once, each its own busctl process and connection.
    for i in $(seq 1 100); do
      call /org/hxf/Broker org.hxf.Broker1 GetDevices su lights 5000 >"$work/c$i.list" 2>&1 &
      callers+=($!)
    done
    for pid in "${callers[@]}"; do wait "$pid"; done
    served=$(grep -l '"lamp-1"' "$work"/c*.list | wc -l)
    [ "$served" = 100 ] || fail "$served of 100 callers were served"
    ;;
  sigterm)
    call /org/hxf/Broker org.hxf.Broker1 Request 'ssa{sv}u' lights get 0 2000 >/dev/null ||
      fail "the request failed"
    kill -TERM "$hxfd_pid"
    wait "$hxfd_pid"
    code=$?
    [ "$code" = 0 ] || fail "hxfd exited with $code after SIGTERM"
    grep -qx 'hxfd: stopped' "$work/hxfd.err" || fail "hxfd did not stop cleanly"
    ;;
  python-example)
    "$python" "$here/../../examples/remote_consumer.py" --address "$address" --brightness 45 \
      >"$work/example.out" 2>"$work/example.err" || fail "the example failed"
    grep -qx 'found lamp-1 (Desk lamp) at 192.168.1.21' "$work/example.out" || fail "no lamp found"
    grep -qx 'set answered: brightness=45' "$work/example.out" || fail "no answer to the set"
    grep -q '^notification state: brightness=45, color=warm, device_id=lamp-1, power=true (error 0)$' \
      "$work/example.out" || fail "no notification"
    ;;
  roundtrip)
    # Requests through hxfd, one after another on one session: the time per round trip.
    "$python" - "$address" >"$work/roundtrip.out" 2>"$work/roundtrip.err" <<'PY' || fail "python failed"
import sys, time, dbus
bus = dbus.bus.BusConnection(sys.argv[1])
broker = dbus.Interface(bus.get_object("org.hxf.Broker", "/org/hxf/Broker"), "org.hxf.Broker1")
session = dbus.Interface(bus.get_object("org.hxf.Broker", broker.Subscribe("lights")), "org.hxf.Session1")
for _ in range(20):
    session.Request("get", {"device_id": "lamp-1"}, dbus.UInt32(2000))
n = 500
start = time.perf_counter()
for _ in range(n):
    session.Request("get", {"device_id": "lamp-1"}, dbus.UInt32(2000))
print("round trip through hxfd: %.0f us per request (%d requests, python3-dbus)" % ((time.perf_counter() - start) / n * 1e6, n))
PY
    cat "$work/roundtrip.out"
    ;;
  *)
    echo "unknown case $case_name"; exit 2 ;;
esac
echo "ok [$case_name]"
