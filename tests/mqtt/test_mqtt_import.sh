#!/usr/bin/env bash
# The MQTT import plugin (hxf --plugin mqtt) against a real Mosquitto on a loopback port of the
# test's own. Node "den" is played by mosquitto_pub (its retained device and state topics) and
# by remote_node.py (python3-paho-mqtt: its status with the last will, and its answers to
# commands); this host is node "tv", whose own topics the plugin must skip.
# Usage: test_mqtt_import.sh HXF_BINARY CASE   (exit 77: skipped, with the reason)
set -u
hxf=$1
case_name=$2
here=$(dirname "$0")
# shellcheck source=../support/needs.sh
source "$here/../support/needs.sh"
needs mqtt mosquitto mosquitto_pub mosquitto_sub
needs_python mqtt paho.mqtt python3-paho-mqtt
# shellcheck source=../support/bus_case.sh
source "$here/../support/bus_case.sh"
# shellcheck source=../support/await.sh
source "$here/../support/await.sh"
# shellcheck source=../support/mqtt_broker.sh
source "$here/../support/mqtt_broker.sh"

port=$(free_port)
write_broker_conf "$work/broker.conf" "$port"
start_broker "$work/broker.conf" broker
export HXF_MQTT_URL="mqtt://127.0.0.1:$port" HXF_MQTT_NODE=tv
pub() { mosquitto_pub -h 127.0.0.1 -p "$port" -V 5 -q 1 "$@" || fail "mosquitto_pub $*"; }
device_json() {  # ID NAME ADDRESS
  printf '{"device_id":"%s","device_name":"%s","address":"%s","interface_name":"wlan0","interface_type":"wifi","ui_meta":"{\\"provider\\":\\"sim\\",\\"room\\":\\"den\\"}","service":"lights"}' "$1" "$2" "$3"
}
publish_devices() {
  pub -r -t hxf/den/lights/lamp-1/device -m "$(device_json lamp-1 'Desk lamp' 192.168.1.21)"
  pub -r -t hxf/den/lights/lamp-1/state -m '{"device_id":"lamp-1","power":true,"brightness":70}'
  pub -r -t hxf/den/lights/broken-1/device -m "$(device_json broken-1 'Porch bulb' 192.168.1.22)"
  pub -r -t hxf/den/lights/mute-1/device -m "$(device_json mute-1 'Attic lamp' 192.168.1.23)"
  # This host's own export, which the import never offers again.
  pub -r -t hxf/tv/status -m online
  pub -r -t hxf/tv/lights/own-1/device -m "$(device_json own-1 'TV backlight' 192.168.1.30)"
}
start_node() {
  "$python" -u "$here/remote_node.py" "$port" den >"$work/node.out" 2>"$work/node.err" &
  node_pid=$!
  pids+=("$node_pid")
  await_line "$work/node.out" 30 '^ready$'
}
# Runs hxf with the plugin; its exit code in $code, its output in $work/hxf.out and .err.
run() { "$hxf" --plugin mqtt "$@" >"$work/hxf.out" 2>"$work/hxf.err"; code=$?; }
expect_code() { [ "$code" = "$1" ] || fail "exit code $code, expected $1"; }
# stdout is exactly the lines given.
expect_out() { diff <(printf '%s\n' "$@") "$work/hxf.out" >"$work/diff.log" || fail "stdout differs"; }
expect_err() { grep -q -- "$1" "$work/hxf.err" || fail "stderr lacks: $1"; }
# Stops the hxf started in the background with Ctrl-C: it ends as interrupted (130), and a
# sanitizer's report would have ended it otherwise.
interrupt() {
  kill -INT "$1"
  wait "$1"
  local stopped=$?
  [ "$stopped" = 130 ] || fail "hxf ended with $stopped, not 130, when interrupted"
}
# Starts hxf in the background with its output in $work/NAME.out and .err; its PID in $bg.
start_hxf() {
  local name=$1
  shift
  "$hxf" --plugin mqtt "$@" >"$work/$name.out" 2>"$work/$name.err" &
  bg=$!
  pids+=("$bg")
}
table=(
  "DEVICE        NAME        SERVICE  ADDRESS       INTERFACE"
  "den/broken-1  Porch bulb  lights   192.168.1.22  wlan0/wifi"
  "den/lamp-1    Desk lamp   lights   192.168.1.21  wlan0/wifi"
  "den/mute-1    Attic lamp  lights   192.168.1.23  wlan0/wifi"
)

publish_devices
start_node

case $case_name in
  search)
    run search lights --timeout 500
    expect_code 0
    expect_out "${table[@]}"
    expect_err "3 device(s) offer lights"
    ;;
  devices)
    run devices lights
    expect_code 0
    expect_out "${table[@]}"
    run --json devices lights
    grep -q '"device_id":"den/lamp-1"' "$work/hxf.out" || fail "no den/lamp-1 in the JSON"
    grep -q '"ui_meta":{"node":"den","provider":"mqtt","room":"den"}' "$work/hxf.out" ||
      fail "the imported device's meta data is not provider mqtt, node den"
    ;;
  request)
    run request lights get device=den/lamp-1
    expect_code 0
    expect_out "get on lights: ok" "  device_id   den/lamp-1" "  brightness  70" "  power       true"
    run request lights set device=den/lamp-1 brightness=30
    expect_code 0
    expect_out "set on lights: ok" "  device_id   den/lamp-1" "  brightness  30" "  power       true"
    # The remote node saw the request with its own id, and published its new state.
    mosquitto_sub -h 127.0.0.1 -p "$port" -t hxf/den/lights/lamp-1/state -C 1 -W 5 >"$work/state.out" ||
      fail "no retained state"
    grep -qx '{"device_id": "lamp-1", "power": true, "brightness": 30}' "$work/state.out" ||
      fail "the remote state is not brightness 30: $(cat "$work/state.out")"
    run request lights get device=den/own-1
    expect_code 1
    expect_err "hxf: get on lights failed: unknown device den/own-1 (error 6: HXF_ERROR_NOT_FOUND)"
    run request lights get device=tv/own-1
    expect_code 1
    expect_err "unknown device tv/own-1 (error 6: HXF_ERROR_NOT_FOUND)"
    ;;
  remote-error)
    run request lights get device=den/broken-1
    expect_code 1
    expect_err "hxf: get on lights failed: the bulb is burnt out (error 2: HXF_ERROR_OPERATION_FAILED)"
    ;;
  timeout)
    # The plugin's own bound ends the request, once; the node's answer never comes.
    # hxf names its own time-out for every HXF_ERROR_TIMED_OUT; the JSON has the plugin's text.
    export HXF_MQTT_TIMEOUT_MS=300
    started=$(now_ms)
    run --json request lights get device=den/mute-1 --timeout 5000
    elapsed=$(($(now_ms) - started))
    unset HXF_MQTT_TIMEOUT_MS
    expect_code 1
    [ "$elapsed" -lt 4000 ] || fail "the plugin's time-out did not end the request ($elapsed ms)"
    grep -q '"error":1,"error_name":"HXF_ERROR_TIMED_OUT".*"properties":{"error":"no answer from node den within 300 ms"}' "$work/hxf.out" ||
      fail "no time-out from the plugin"
    [ "$(grep -c '"event":"error"' "$work/hxf.out")" = 1 ] || fail "answered more than once"
    [ "$(grep -c '^request mute-1 get$' "$work/node.out")" = 1 ] || fail "the node did not see the request once"
    # The consumer's shorter time-out comes first.
    run request lights get device=den/mute-1 --timeout 300
    expect_code 1
    expect_err "hxf: get on lights: timed out after 300 ms (error 1: HXF_ERROR_TIMED_OUT)"
    ;;
  watch)
    start_hxf watch watch lights --for 10000
    watch_pid=$bg
    await_line "$work/watch.err" 30 '^watching lights'
    run request lights set device=den/lamp-1 brightness=40 power=false
    expect_code 0
    await_line "$work/watch.out" 30 '^  power +false$'
    interrupt "$watch_pid"
    diff <(printf '%s\n' "notification from lights (state)" "  device_id   den/lamp-1" \
      "  brightness  40" "  power       false") "$work/watch.out" >"$work/diff.log" ||
      fail "watch printed other lines"
    ;;
  offline)
    # A node killed without a word: its last will says offline, and its devices leave.
    start_hxf listen listen lights --for 20000
    listen_pid=$bg
    await_line "$work/listen.out" 30 'den/mute-1'
    kill -9 "$node_pid"
    await_line "$work/listen.out" 30 'left.*den/mute-1'
    await_line "$work/listen.out" 30 'left.*den/lamp-1'
    await_line "$work/listen.out" 30 'left.*den/broken-1'
    # It comes back: so do they.
    start_node
    await_line "$work/listen.out" 30 'arrived.*den/lamp-1'
    interrupt "$listen_pid"
    run devices lights
    expect_code 0
    expect_out "${table[@]}"
    pub -r -t hxf/den/status -m offline
    run devices lights --timeout 500
    expect_code 1
    ;;
  departure)
    start_hxf listen listen lights --for 20000
    listen_pid=$bg
    await_line "$work/listen.out" 30 'den/mute-1'
    pub -r -t hxf/den/lights/mute-1/device -n
    await_line "$work/listen.out" 30 'left.*den/mute-1'
    pub -r -t hxf/den/lights/spot-1/device -m "$(device_json spot-1 'Spot' 192.168.1.24)"
    await_line "$work/listen.out" 30 'arrived.*den/spot-1'
    interrupt "$listen_pid"
    ;;
  listen-before-export)
    # No node exports blinds yet: offered from the load on (HXF_MQTT_SERVICES), a listen of it
    # hears the first one that comes.
    export HXF_MQTT_SERVICES=blinds,lights
    start_hxf listen listen blinds --for 20000
    listen_pid=$bg
    await_line "$work/listen.err" 30 '^listening to blinds for 20000 ms$'
    pub -r -t hxf/den/blinds/shade-1/device -m "$(device_json shade-1 'Shade' 192.168.1.25 | sed 's/"service":"lights"/"service":"blinds"/')"
    await_line "$work/listen.out" 30 '^(found|arrived) +den/shade-1 +Shade '
    interrupt "$listen_pid"
    export HXF_MQTT_SERVICES=blinds,,lights
    run devices lights
    expect_code 1
    expect_err "mqtt: HXF_MQTT_SERVICES blinds,,lights: names of 1 to 255 characters, separated by commas"
    ;;
  bad-payloads)
    # Each refused with a log line; the good devices stay.
    pub -r -t hxf/den/lights/bad-1/device -m 'not json'
    pub -r -t hxf/den/lights/bad-2/device -m "$(device_json other-2 'Wrong id' 192.168.1.99)"
    pub -r -t hxf/den/lights/bad-3/device -m '[[[[[[[[[[1]]]]]]]]]]'
    pub -r -t hxf/den/lights/bad-4/device -m '{"device_id":7}'
    pub -r -t hxf/den/lights/lamp-1/state -m '{"power":[1,2]}'
    pub -r -t hxf/den/lights/bad%zz/device -m "$(device_json x X 1)"
    pub -r -t hxf/attic/status -m sleepy
    head -c 70000 /dev/zero | tr '\0' 'x' >"$work/huge"
    pub -r -t hxf/den/lights/bad-5/device -f "$work/huge"
    run --log-level info devices lights
    expect_code 0
    expect_out "${table[@]}"
    expect_err "mqtt: hxf/den/lights/bad-1/device: ignored: the payload is not JSON"
    expect_err "mqtt: hxf/den/lights/bad-2/device: ignored: device_id other-2 is not the topic's device"
    expect_err "mqtt: hxf/den/lights/bad-3/device: ignored: the payload nests deeper than 8 levels"
    expect_err "mqtt: hxf/den/lights/bad-4/device: ignored: device_id must be text"
    expect_err "mqtt: hxf/den/lights/lamp-1/state: ignored: power is an array, not a boolean, number or text"
    expect_err "mqtt: hxf/attic/status: ignored: a status is online or offline"
    expect_err "mqtt: hxf/den/lights/bad-5/device: ignored: the payload has 70000 bytes, more than 65536"
    ;;
  broker-lost)
    # A request in flight when the broker goes is answered at once, with an error, once.
    start_hxf request request lights get device=den/mute-1 --timeout 10000
    request_pid=$bg
    await_line "$work/node.out" 30 '^request mute-1 get$'
    kill -9 "$broker_pid"
    wait "$request_pid"
    code=$?
    [ "$code" = 1 ] || fail "exit code $code, expected 1"
    grep -q "hxf: get on lights failed: the connection to the MQTT broker was lost while the request ran (error 2: HXF_ERROR_OPERATION_FAILED)" \
      "$work/request.err" || fail "no broken-connection error"
    [ "$(grep -c 'failed' "$work/request.err")" = 1 ] || fail "answered more than once"
    ;;
  credentials)
    # A broker that knows only its users: the plugin gives HXF_MQTT_USER and the first line of
    # HXF_MQTT_PASSWORD_FILE; without them it is refused, says so, and offers nothing.
    mosquitto_passwd -b -c "$work/passwd" tv tv-secret >/dev/null || fail "mosquitto_passwd"
    mosquitto_passwd -b "$work/passwd" den den-secret >/dev/null
    secure_port=$(free_port)
    write_broker_conf "$work/secure.conf" "$secure_port" "allow_anonymous false" "password_file $work/passwd"
    start_broker "$work/secure.conf" secure
    port=$secure_port
    pub -u den -P den-secret -r -t hxf/den/status -m online
    pub -u den -P den-secret -r -t hxf/den/lights/lamp-1/device -m "$(device_json lamp-1 'Desk lamp' 192.168.1.21)"
    printf 'tv-secret\n' >"$work/password"
    export HXF_MQTT_URL="mqtt://127.0.0.1:$secure_port" HXF_MQTT_USER=tv HXF_MQTT_PASSWORD_FILE="$work/password"
    run devices lights
    expect_code 0
    expect_out "DEVICE      NAME       SERVICE  ADDRESS       INTERFACE" \
      "den/lamp-1  Desk lamp  lights   192.168.1.21  wlan0/wifi"
    unset HXF_MQTT_USER HXF_MQTT_PASSWORD_FILE
    run devices lights --timeout 300
    expect_code 1
    expect_err "mqtt: the broker refused the connection: Not authorized"
    ;;
  tls)
    # A TLS listener that wants a client certificate from the test's own CA: the plugin
    # connects with HXF_MQTT_CAFILE, HXF_MQTT_CERT and HXF_MQTT_KEY; without a certificate it
    # is refused, says so, and offers nothing.
    command -v openssl >/dev/null || skip "openssl is missing (scripts/install-deps.sh mqtt)"
    make_test_ca "$work" tv
    chmod 644 "$work"/*.key  # the broker reads them as the user it drops to
    # Its plain listener is the remote node's.
    port=$(free_port)
    tls_port=$(free_port)
    write_broker_conf "$work/tls.conf" "$port" "listener $tls_port 127.0.0.1" "cafile $work/ca.crt" \
      "certfile $work/server.crt" "keyfile $work/server.key" "require_certificate true"
    start_broker "$work/tls.conf" tls
    pub -r -t hxf/den/status -m online
    pub -r -t hxf/den/lights/lamp-1/device -m "$(device_json lamp-1 'Desk lamp' 192.168.1.21)"
    export HXF_MQTT_URL="mqtts://127.0.0.1:$tls_port" HXF_MQTT_CAFILE="$work/ca.crt"
    export HXF_MQTT_CERT="$work/client.crt" HXF_MQTT_KEY="$work/client.key"
    run devices lights
    expect_code 0
    expect_out "DEVICE      NAME       SERVICE  ADDRESS       INTERFACE" \
      "den/lamp-1  Desk lamp  lights   192.168.1.21  wlan0/wifi"
    unset HXF_MQTT_CERT HXF_MQTT_KEY
    run --log-level info devices lights --timeout 300
    expect_code 1
    expect_err "mqtt: cannot connect to 127.0.0.1:$tls_port"
    ;;
  no-broker)
    # No broker at the URL: the plugin loads, keeps trying, and offers nothing meanwhile.
    kill -9 "$broker_pid"
    wait "$broker_pid" 2>/dev/null
    run --log-level info devices lights --timeout 300
    expect_code 1
    expect_err "mqtt: cannot connect to 127.0.0.1:$port"
    export HXF_MQTT_URL=http://x
    run devices lights
    expect_code 1
    expect_err "mqtt URL 'http://x': it must start with mqtt:// or mqtts://"
    ;;
  unanswered-broker)
    # A broker whose address takes packets and never answers (a host gone, a firewall that
    # drops): the plugin loads and hxf ends on its own time-out, the connection still trying.
    # Two namespaces of the test's own; the one with the address drops what is sent to it.
    [ "$(id -u)" = 0 ] || skip "needs root to make network namespaces"
    ns=hxf-mqtt-$$
    trap 'ip netns del "$ns-a" 2>/dev/null; ip netns del "$ns-b" 2>/dev/null; cleanup' EXIT
    # shellcheck source=../support/netns_pair.sh
    source "$here/../support/netns_pair.sh"
    make_netns_pair "$ns-a" "hxfua$$" 169.254.88.2 "$ns-b" "hxfub$$" ""
    mac=$(ip -n "$ns-b" -o link show "hxfub$$" | grep -o 'link/ether [0-9a-f:]*' | cut -d' ' -f2)
    ip -n "$ns-a" neigh add 169.254.88.1 lladdr "$mac" dev "hxfua$$" nud permanent
    start=$(now_ms)
    HXF_MQTT_URL=mqtt://169.254.88.1:1883 timeout 30 ip netns exec "$ns-a" "$hxf" --plugin mqtt \
      --log-level info devices lights --timeout 500 >"$work/hxf.out" 2>"$work/hxf.err"
    code=$?
    took=$(($(now_ms) - start))
    expect_code 1
    expect_err "mqtt: no MQTT broker at 169.254.88.1:1883 yet; trying on"
    echo "hxf ended after $took ms with the broker unanswered"
    [ "$took" -lt 15000 ] || fail "hxf took $took ms: the connection held the plugin"
    ;;
  *)
    fail "unknown case"
    ;;
esac
echo "PASS [$case_name]"
