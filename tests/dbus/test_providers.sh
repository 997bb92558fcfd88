#!/usr/bin/env bash
# Two providers of one service behind hxfd, on a private bus: a request (Broker1.Request with
# busctl, Session1.Request with python3-dbus, hxf --bus) reaches the provider that reported its
# device in either load order; a device two providers report is refused by name; a search and
# a device list show every provider's devices; a session hears every provider's notifications.
# The fixtures "strips" (strip-1) and "lamps" (lamp-1) offer lights beside the simulator.
# Usage: test_providers.sh HXFD_BINARY HXF_BINARY CASE       (exit 77: skipped, with the reason)
set -u
hxfd=$1
hxf=$2
case_name=$3
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=../support/needs.sh
source "$here/../support/needs.sh"
needs dbus dbus-daemon busctl
needs_python dbus "dbus, gi" "python3-dbus or python3-gi"
plugins=$(dirname "$hxf")/../../plugins
[ -e "$plugins/libhxf-plugin-strips.so" ] || skip "the test plugins strips and lamps are not built"

# shellcheck source=../support/bus_case.sh
source "$here/../support/bus_case.sh"
# shellcheck source=../support/await.sh
source "$here/../support/await.sh"
source "$here/../support/private_bus.sh"
start_private_bus
hxfd_pid=""

# start_hxfd PLUGIN...: hxfd with these plugins, in this order (the one before is stopped).
start_hxfd() {
  if [ -n "$hxfd_pid" ]; then
    kill "$hxfd_pid"
    wait "$hxfd_pid" 2>/dev/null
  fi
  local args=()
  for plugin in "$@"; do args+=(--plugin "$plugin"); done
  "$hxfd" --address "$address" "${args[@]}" >"$work/hxfd.out" 2>"$work/hxfd.err" &
  hxfd_pid=$!
  pids+=("$hxfd_pid")
  await_line "$work/hxfd.err" 10 '^hxfd: serving org.hxf.Broker$'
}
call() { busctl --address="$address" call org.hxf.Broker /org/hxf/Broker org.hxf.Broker1 "$@"; }
get() { call Request 'ssa{sv}u' lights get 1 device_id s "$1" 2000; }
# session_get DEVICE: Session1.Request get on one session of lights; prints the answer's
# properties, name=value a line, or the D-Bus error's name and message.
session_get() {
  "$python" - "$address" "$1" <<'PY'
import sys, dbus
bus = dbus.bus.BusConnection(sys.argv[1])
broker = dbus.Interface(bus.get_object("org.hxf.Broker", "/org/hxf/Broker"), "org.hxf.Broker1")
session = dbus.Interface(bus.get_object("org.hxf.Broker", broker.Subscribe("lights")), "org.hxf.Session1")
try:
    result = session.Request("get", {"device_id": sys.argv[2]}, dbus.UInt32(2000), timeout=5)
    for name, value in sorted(result.items()):
        print("%s=%s" % (name, value))
except dbus.exceptions.DBusException as e:
    print("error %s: %s" % (e.get_dbus_name(), e.get_dbus_message()))
PY
}

# The start of a python3-dbus script that holds a session of lights (its object path in
# `path`) and a GLib loop, on the bus given as its first argument.
subscribed_session() {
  cat <<'PY'
import sys, dbus, dbus.mainloop.glib
from gi.repository import GLib
dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
bus = dbus.bus.BusConnection(sys.argv[1])
broker = dbus.Interface(bus.get_object("org.hxf.Broker", "/org/hxf/Broker"), "org.hxf.Broker1")
path = broker.Subscribe("lights")
loop = GLib.MainLoop()
PY
}

case "$case_name" in
  request-reaches-the-provider-of-its-device)
    for order in "sim strips" "strips sim"; do
      # shellcheck disable=SC2086 # the order is two words
      start_hxfd $order
      for _ in 1 2 3; do
        get strip-1 >"$work/strip.out" 2>"$work/strip.err" || fail "[$order] busctl: strip-1 refused"
        grep -qx 'a{sv} 2 "device_id" s "strip-1" "provider" s "strips"' "$work/strip.out" ||
          fail "[$order] busctl: strip-1 not answered by strips"
        get lamp-1 >"$work/lamp.out" 2>"$work/lamp.err" || fail "[$order] busctl: lamp-1 refused"
        grep -qx 'a{sv} 4 "device_id" s "lamp-1" "power" b true "brightness" x 70 "color" s "warm"' \
          "$work/lamp.out" || fail "[$order] busctl: lamp-1 not answered by the simulator"
      done
      session_get strip-1 >"$work/session.out" 2>"$work/session.err"
      [ "$(cat "$work/session.out")" = "$(printf 'device_id=strip-1\nprovider=strips')" ] ||
        fail "[$order] python: strip-1 not answered by strips"
      session_get lamp-1 >"$work/session.out" 2>"$work/session.err"
      grep -qx 'brightness=70' "$work/session.out" || fail "[$order] python: lamp-1 not answered by the simulator"
      "$hxf" --bus "$address" request lights get device=strip-1 >"$work/hxf.out" 2>"$work/hxf.err" ||
        fail "[$order] hxf --bus: strip-1 refused"
      [ "$(cat "$work/hxf.out")" = "$(printf 'get on lights: ok\n  device_id  strip-1\n  provider   strips')" ] ||
        fail "[$order] hxf --bus: strip-1 not answered by strips"
    done
    ;;
  a-device-of-two-providers-is-refused-by-name)
    message='device lamp-1 of lights is reported by several providers (lamps, sim): load only one of them'
    for order in "sim lamps" "lamps sim"; do
      # shellcheck disable=SC2086
      start_hxfd $order
      session_get lamp-1 >"$work/session.out" 2>"$work/session.err"
      [ "$(cat "$work/session.out")" = "error org.hxf.Error.InvalidParameter: $message" ] ||
        fail "[$order] python: lamp-1 not refused by name"
      get lamp-1 >"$work/busctl.out" 2>"$work/busctl.err" && fail "[$order] busctl: lamp-1 answered"
      grep -qxF "Call failed: $message" "$work/busctl.err" || fail "[$order] busctl: no refusal text"
      "$hxf" --bus "$address" request lights get device=lamp-1 >"$work/hxf.out" 2>"$work/hxf.err"
      code=$?
      [ "$code" = 1 ] || fail "[$order] hxf --bus exited $code, not 1"
      grep -qxF "hxf: get on lights failed: $message (error 4: HXF_ERROR_INVALID_PARAMETER)" \
        "$work/hxf.err" || fail "[$order] hxf --bus: no refusal line"
      # A device only one of them reports is still reached.
      get ceiling-1 >"$work/ceiling.out" 2>"$work/ceiling.err" || fail "[$order] ceiling-1 refused"
      grep -q '"device_id" s "ceiling-1"' "$work/ceiling.out" || fail "[$order] ceiling-1 not answered"
    done
    ;;
  search-and-device-list-show-every-provider)
    start_hxfd sim strips
    "$hxf" --bus "$address" devices lights >"$work/devices.out" 2>"$work/devices.err" ||
      fail "hxf --bus devices failed"
    for device in strip-1 lamp-1 ceiling-1; do
      grep -q "^$device " "$work/devices.out" || fail "hxf --bus devices lacks $device"
    done
    [ "$(wc -l <"$work/devices.out")" = 4 ] || fail "hxf --bus devices: not a heading and 3 devices"
    call GetDevices su lights 2000 >"$work/busctl.out" 2>"$work/busctl.err" || fail "GetDevices failed"
    grep -q '^aa{sv} 3 ' "$work/busctl.out" || fail "GetDevices did not answer 3 devices"
    for device in strip-1 lamp-1 ceiling-1; do
      grep -q "\"device_id\" s \"$device\"" "$work/busctl.out" || fail "GetDevices lacks $device"
    done
    "$hxf" --bus "$address" search lights --timeout 1000 >"$work/search.out" 2>"$work/search.err" ||
      fail "hxf --bus search failed"
    for device in strip-1 lamp-1 ceiling-1; do
      grep -q "^$device " "$work/search.out" || fail "hxf --bus search lacks $device"
    done
    grep -qx '3 device(s) offer lights' "$work/search.err" || fail "the search did not count 3"
    ;;
  a-session-hears-every-provider)
    # The simulator first: a session on the service's own pick alone would hear only it.
    start_hxfd sim strips
    "$python" - "$address" >"$work/notes.out" 2>"$work/notes.err" < <(subscribed_session; cat <<'PY'
heard = []
def on_note(operation, properties, error):
    heard.append(str(properties.get("device_id", "")))
    if "strip-1" in heard:
        loop.quit()
bus.add_signal_receiver(on_note, "Notification", "org.hxf.Session1", None, path)
GLib.timeout_add(5000, loop.quit)
loop.run()
print("heard strip-1" if "strip-1" in heard else "silence")
PY
) || fail "python failed"
    grep -qx 'heard strip-1' "$work/notes.out" || fail "the session did not hear the second provider"
    ;;
  a-session-hears-each-notification-once-beside-a-provider-without-the-convention)
    # The fixture threadleft offers lights without "lights@threadleft", loaded after the
    # simulator: the session's requests still reach the simulator through lights@sim, and its
    # notifications come once each (the simulator's lamp drifts: every notification carries a
    # new level). Loaded before the simulator, the session's own "lights" lands on the
    # simulator's handler too and hears it twice: not covered yet.
    cat >"$work/live.json" <<'JSON'
{ "devices": [ {"id": "lamp-1", "service": "lights", "properties": [
    {"name": "level", "type": "double", "value": 0.0, "min": 0, "max": 100,
     "drift": {"step": 1, "every_ms": 100}}]} ] }
JSON
    HXF_SIM_CONFIG="$work/live.json" start_hxfd sim threadleft
    "$python" - "$address" >"$work/notes.out" 2>"$work/notes.err" < <(subscribed_session; cat <<'PY'
levels = []
def on_note(operation, properties, error):
    levels.append(float(properties.get("level", -1)))
    if len(levels) >= 8:
        loop.quit()
bus.add_signal_receiver(on_note, "Notification", "org.hxf.Session1", None, path)
GLib.timeout_add(5000, loop.quit)
loop.run()
print("levels " + " ".join("%g" % level for level in levels))
PY
) || fail "python failed"
    read -r -a heard <<<"$(sed -n 's/^levels //p' "$work/notes.out")"
    [ "${#heard[@]}" -ge 8 ] || fail "fewer than 8 notifications in 5 s"
    for ((i = 1; i < ${#heard[@]}; ++i)); do
      [ "${heard[i]}" != "${heard[i - 1]}" ] || fail "a notification came twice: ${heard[*]}"
    done
    get lamp-1 >"$work/lamp.out" 2>"$work/lamp.err" || fail "lamp-1 refused"
    grep -q '"device_id" s "lamp-1"' "$work/lamp.out" || fail "lamp-1 not answered"
    ;;
  *)
    fail "unknown case"
    ;;
esac
echo "PASS [$case_name]"
