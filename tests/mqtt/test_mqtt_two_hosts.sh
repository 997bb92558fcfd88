#!/usr/bin/env bash
# Two hosts as two network namespaces joined by a veth pair, each with its own Mosquitto; B's
# is bridged to A's (mosquitto's bridge, MQTT 5, hxf/# both ways). Host A runs hxfd exporting
# the simulator (hxfd --mqtt, node host-a); on host B, hxf --plugin mqtt (node host-b) lists,
# sets and watches A's simulator devices through B's broker and the bridge. Nothing leaves the
# namespaces; every process is stopped by its PID and the namespaces are removed on every way
# out.
# Usage: test_mqtt_two_hosts.sh HXF_BINARY HXFD_BINARY CASE   (exit 77: skipped, with the reason)
set -u
hxf=$1
hxfd=$2
case_name=$3
here=$(dirname "$0")
# shellcheck source=../support/needs.sh
source "$here/../support/needs.sh"
[ "$(id -u)" = 0 ] || skip "needs root to make network namespaces"
command -v ip >/dev/null || skip "ip is missing (iproute2)"
needs mqtt mosquitto mosquitto_pub mosquitto_sub
"$hxfd" --help 2>&1 | grep -q -- '--mqtt' || skip "this hxfd was built without --mqtt (libmosquitto-dev)"
# shellcheck source=../support/bus_case.sh
source "$here/../support/bus_case.sh"
# shellcheck source=../support/await.sh
source "$here/../support/await.sh"

id=$$
ns_a=hxf-mqtt-a-$id
ns_b=hxf-mqtt-b-$id
if_a=hxfma$id
if_b=hxfmb$id
address_a=169.254.78.1
address_b=169.254.78.2
remove_namespaces() {
  ip netns del "$ns_a" 2>/dev/null
  ip netns del "$ns_b" 2>/dev/null
}
trap 'cleanup; remove_namespaces' EXIT
# shellcheck source=../support/netns_pair.sh
source "$here/../support/netns_pair.sh"
make_netns_pair "$ns_a" "$if_a" "$address_a" "$ns_b" "$if_b" "$address_b"
# Command prefixes, not functions: `ip netns exec` and `env` exec the command, so $! of a
# command started with `&` is the command's own PID.
in_a=(ip netns exec "$ns_a")
in_b=(ip netns exec "$ns_b")

# A's broker listens on its loopback and on the link; B's on its loopback, bridged to A's.
cat >"$work/broker-a.conf" <<CONF
listener 1883 127.0.0.1
listener 1883 $address_a
allow_anonymous true
persistence false
CONF
cat >"$work/broker-b.conf" <<CONF
listener 1883 127.0.0.1
allow_anonymous true
persistence false
connection host-a
address $address_a:1883
bridge_protocol_version mqttv50
cleansession true
try_private true
restart_timeout 1 5
topic hxf/# both 1
CONF
for host in a b; do
  prefix="in_$host[@]"
  "${!prefix}" mosquitto -c "$work/broker-$host.conf" >"$work/broker-$host.log" 2>&1 &
  pids+=($!)
  await_line "$work/broker-$host.log" 30 ' running$'
done
await_line "$work/broker-a.log" 30 "New client connected from $address_b"

# Host A: hxfd with the simulator, exporting as node host-a; no bus there, MQTT alone.
"${in_a[@]}" env -u DBUS_SESSION_BUS_ADDRESS "$hxfd" --plugin sim --mqtt mqtt://127.0.0.1:1883 \
  --node host-a >"$work/hxfd.out" 2>"$work/hxfd.err" &
pids+=($!)
# Host B sees A online and A's lamp through the bridge (retained topics: whenever they came).
sub_b() { "${in_b[@]}" mosquitto_sub -h 127.0.0.1 -p 1883 "$@"; }
sub_b -t hxf/host-a/status -C 1 -W 30 >"$work/status.out" || fail "host-a's status never reached host-b"
grep -qx online "$work/status.out" || fail "host-a is not online on host-b: $(cat "$work/status.out")"
for device in lamp-1 ceiling-1 porch-1; do
  sub_b -t "hxf/host-a/lights/$device/state" -C 1 -W 30 >/dev/null ||
    fail "host-a's $device never reached host-b"
done

hxf_b=("${in_b[@]}" env HXF_MQTT_URL=mqtt://127.0.0.1:1883 HXF_MQTT_NODE=host-b "$hxf" --plugin mqtt)
run_b() { "${hxf_b[@]}" "$@" >"$work/hxf.out" 2>"$work/hxf.err"; code=$?; }
expect_code() { [ "$code" = "$1" ] || fail "exit code $code, expected $1"; }
expect_out() { diff <(printf '%s\n' "$@") "$work/hxf.out" >"$work/diff.log" || fail "stdout differs"; }

case $case_name in
  list)
    run_b devices lights
    expect_code 0
    expect_out \
      "DEVICE            NAME           SERVICE  ADDRESS       INTERFACE" \
      "host-a/ceiling-1  Ceiling light  lights   192.168.1.22  wlan0/wifi" \
      "host-a/lamp-1     Desk lamp      lights   192.168.1.21  wlan0/wifi" \
      "host-a/porch-1    Porch light    lights   192.168.1.23  wlan0/wifi"
    ;;
  set-watch)
    "${hxf_b[@]}" watch lights --for 30000 >"$work/watch.out" 2>"$work/watch.err" &
    watch_pid=$!
    pids+=("$watch_pid")
    await_line "$work/watch.err" 30 '^watching lights'
    run_b request lights set device=host-a/lamp-1 brightness=35
    expect_code 0
    grep -qx '  brightness  35' "$work/hxf.out" || fail "the set did not answer brightness 35"
    grep -qx '  device_id   host-a/lamp-1' "$work/hxf.out" || fail "the set did not answer host-a/lamp-1"
    # The simulator's notification, exported by A as its state, read on B as a notification.
    await_line "$work/watch.out" 30 '^  brightness +35$'
    kill -INT "$watch_pid"
    wait "$watch_pid"
    stopped=$?
    [ "$stopped" = 130 ] || fail "the watch ended with $stopped, not 130, when interrupted"
    grep -qx '  device_id   host-a/lamp-1' "$work/watch.out" || fail "the notification is not host-a/lamp-1's"
    # And A's own consumer sees what B set.
    "${in_a[@]}" mosquitto_sub -h 127.0.0.1 -p 1883 -t hxf/host-a/lights/lamp-1/state -C 1 -W 10 \
      >"$work/state.out" ||
      fail "no state on host-a"
    grep -q '"brightness":35' "$work/state.out" || fail "host-a's state is not brightness 35: $(cat "$work/state.out")"
    ;;
  *)
    fail "unknown case"
    ;;
esac
# hxfd runs until the end: a sanitizer's report in its output is a failure too.
! grep -q 'Sanitizer' "$work/hxfd.err" || fail "hxfd's sanitizer report"
echo "PASS [$case_name]"
