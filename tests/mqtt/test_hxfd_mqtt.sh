#!/usr/bin/env bash
# hxfd's MQTT front against a real Mosquitto started here on a loopback port of the test's own,
# checked with third-party clients (mosquitto_sub, mosquitto_pub, python3-paho-mqtt). Each case
# starts its own broker and its own hxfd with the simulator; every process is stopped by its PID.
# Usage: test_hxfd_mqtt.sh HXFD_BINARY HXF_BINARY CASE       (exit 77: skipped, with the reason)
set -u
hxfd=$1
hxf=$2
case_name=$3
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=../support/needs.sh
source "$here/../support/needs.sh"
needs mqtt mosquitto mosquitto_sub mosquitto_pub mosquitto_passwd openssl
needs_python mqtt paho.mqtt.client python3-paho-mqtt

# shellcheck source=../support/bus_case.sh
source "$here/../support/bus_case.sh"
# shellcheck source=../support/await.sh
source "$here/../support/await.sh"
# shellcheck source=../support/mqtt_broker.sh
source "$here/../support/mqtt_broker.sh"

port=$(free_port)
node=den
url=mqtt://127.0.0.1:$port
# No D-Bus here unless a case starts one: hxfd serves MQTT alone.
unset DBUS_SESSION_BUS_ADDRESS

# start_hxfd [ARG...]: hxfd with the simulator on the broker, once it is connected.
start_hxfd() {
  "$hxfd" --config /dev/null --node "$node" "$@" >"$work/hxfd.out" 2>"$work/hxfd.err" &
  hxfd_pid=$!
  pids+=("$hxfd_pid")
  await_line "$work/hxfd.err" 10 '^hxfd: mqtt: connected to '
}
# sub TOPIC COUNT [SECONDS]: the first COUNT messages (retained ones first) as "TOPIC PAYLOAD".
sub() { mosquitto_sub -p "$port" -t "$1" -v -C "$2" -W "${3:-10}" "${@:4}"; }
# expect_retained TOPIC PAYLOAD: the retained message on TOPIC is exactly PAYLOAD.
expect_retained() {
  local got
  got=$(mosquitto_sub -p "$port" -t "$1" -C 1 -W 5 --retained-only) || fail "nothing retained on $1"
  [ "$got" = "$2" ] || fail "$1 holds '$got', not '$2'"
}
# await_retained TOPIC PAYLOAD [SECONDS]: waits until the retained message on TOPIC is PAYLOAD.
await_retained() {
  local deadline=$(($(now_ms) + ${3:-10} * 1000)) got=
  until got=$(mosquitto_sub -p "$port" -t "$1" -C 1 -W 2 --retained-only 2>/dev/null) && [ "$got" = "$2" ]; do
    [ "$(now_ms)" -lt "$deadline" ] || fail "$1 holds '$got', not '$2', after ${3:-10} s"
  done
}
request() { "$python" "$here/mqtt_request.py" "$port" "$@"; }
cmd() { echo "hxf/$node/$1/command"; }
lamp_device='{"device_id":"lamp-1","device_name":"Desk lamp","address":"192.168.1.21","interface_name":"wlan0","interface_type":"wifi","ui_meta":"{\"provider\":\"sim\",\"icon\":\"lamp\",\"room\":\"living room\"}","service":"lights"}'

write_broker_conf "$work/broker.conf" "$port"

case "$case_name" in
  exports)
    start_broker "$work/broker.conf" broker
    start_hxfd --mqtt "$url"
    grep -q '; serving MQTT alone$' "$work/hxfd.err" || fail "hxfd did not say it serves MQTT alone"
    grep -qx "hxfd: serving MQTT as node den under hxf/den (services: lights, audio, climate)" "$work/hxfd.err" ||
      fail "hxfd did not say what it serves"
    # Every device of the simulator: device and state topics (radio-1 never answers its get).
    sub 'hxf/den/+/+/device' 8 >"$work/devices.out" || fail "not every device was published"
    for id in lamp-1 ceiling-1 porch-1 speaker-1 soundbar-1 radio-1 thermostat-1 fan-1; do
      grep -q "^hxf/den/[a-z]*/$id/device " "$work/devices.out" || fail "$id was not published"
    done
    await_line "$work/hxfd.err" 15 'hxf/den/audio/radio-1/state: no state: timed out after 10000 ms'
    expect_retained hxf/den/status online
    expect_retained hxf/den/lights/lamp-1/device "$lamp_device"
    expect_retained hxf/den/lights/lamp-1/state '{"device_id":"lamp-1","power":true,"brightness":70,"color":"warm"}'
    expect_retained hxf/den/lights/lamp-1/ha/light '{"state":"ON","brightness":70,"color_mode":"brightness"}'
    # The simulator's speakers have the audio words of every provider of audio (no power).
    expect_retained hxf/den/audio/speaker-1/state '{"device_id":"speaker-1","volume":25,"muted":false,"transport_state":"no_media","position":0,"duration":0}'
    expect_retained hxf/den/audio/radio-1/state '{}'
    # A clean stop: offline, retained.
    kill -TERM "$hxfd_pid"
    wait "$hxfd_pid"
    expect_retained hxf/den/status offline
    ;;
  request-response)
    start_broker "$work/broker.conf" broker
    start_hxfd --mqtt "$url"
    sub hxf/den/lights/lamp-1/state 1 >/dev/null || fail "no state for lamp-1"
    request "$(cmd lights/lamp-1)" '{"operation":"set","properties":{"brightness":42}}' \
      "$(cmd lights/lamp-1)" '{"operation":"get"}' \
      "$(cmd climate/thermostat-1)" '{"operation":"set","properties":{"target_temperature":22.5}}' \
      >"$work/replies.out" || fail "not every request was answered"
    grep -qx 'c1 {"device_id":"lamp-1","power":true,"brightness":42,"color":"warm"}' "$work/replies.out" || fail "the set's answer"
    grep -qx 'c2 {"device_id":"lamp-1","power":true,"brightness":42,"color":"warm"}' "$work/replies.out" || fail "the get's answer"
    grep -Eqx 'c3 \{"device_id":"thermostat-1","power":true,"temperature":[0-9.]+,"target_temperature":22.5,"mode":"heat"\}' "$work/replies.out" ||
      fail "the thermostat's answer"
    # The notification after the set updates the retained state.
    expect_retained hxf/den/lights/lamp-1/state '{"device_id":"lamp-1","power":true,"brightness":42,"color":"warm"}'
    expect_retained hxf/den/lights/lamp-1/ha/light '{"state":"ON","brightness":42,"color_mode":"brightness"}'
    # Without a response topic: carried out, answered nowhere, logged.
    mosquitto_pub -p "$port" -V mqttv5 -t "$(cmd lights/lamp-1)" -m '{"operation":"set","properties":{"brightness":43}}'
    await_line "$work/hxfd.err" 10 '^hxfd: mqtt: hxf/den/lights/lamp-1/command: no response topic: carried out, answered nowhere$'
    await_retained hxf/den/lights/lamp-1/state '{"device_id":"lamp-1","power":true,"brightness":43,"color":"warm"}'
    ;;
  bad-payloads)
    start_broker "$work/broker.conf" broker
    start_hxfd --mqtt "$url"
    sub hxf/den/lights/lamp-1/state 1 >/dev/null || fail "no state for lamp-1"
    huge=$(head -c 70000 /dev/zero | tr '\0' ' ')
    deep=$(printf '%.0s[' $(seq 100))
    lamp=$(cmd lights/lamp-1)
    request "$lamp" 'not json' \
      "$lamp" '["operation"]' \
      "$lamp" '{"operation":"set","properties":{"brightness":"high"}}' \
      "$lamp" '{"operation":"set","properties":{"brightness":[1]}}' \
      "$lamp" '{"operation":"set","properties":{"brightness":null}}' \
      "$lamp" '{"operation":"set","properties":{"brightness":150}}' \
      "$lamp" "$huge" \
      "$lamp" "$deep" \
      "$(cmd lights/lamp-9)" '{"operation":"get"}' \
      "$(cmd heaters/lamp-1)" '{"operation":"get"}' \
      "$lamp" '{"operation":"set","properties":{"device_id":"porch-1","power":true}}' \
      >"$work/replies.out" || fail "not every request was answered"
    while read -r expected; do
      grep -qxF -- "$expected" "$work/replies.out" || fail "no answer '$expected'"
    done <<'EXPECTED'
c1 {"error":"the payload is not JSON","error_name":"HXF_ERROR_INVALID_PARAMETER"}
c2 {"error":"a command must be a JSON object","error_name":"HXF_ERROR_INVALID_PARAMETER"}
c3 {"error":"brightness takes a int, not a string","error_name":"HXF_ERROR_INVALID_PARAMETER"}
c4 {"error":"brightness is an array, not a boolean, number or text","error_name":"HXF_ERROR_INVALID_PARAMETER"}
c5 {"error":"brightness is null, not a boolean, number or text","error_name":"HXF_ERROR_INVALID_PARAMETER"}
c6 {"error":"brightness 150 is out of range 0..100","error_name":"HXF_ERROR_INVALID_PARAMETER"}
c7 {"error":"the payload has 70000 bytes, more than 65536","error_name":"HXF_ERROR_INVALID_PARAMETER"}
c8 {"error":"the payload nests deeper than 8 levels","error_name":"HXF_ERROR_INVALID_PARAMETER"}
c9 {"error":"no device lamp-9 of lights on den","error_name":"HXF_ERROR_NOT_FOUND"}
c10 {"error":"no device lamp-1 of heaters on den","error_name":"HXF_ERROR_NOT_FOUND"}
c11 {"error":"device_id names another device than the topic","error_name":"HXF_ERROR_INVALID_PARAMETER"}
EXPECTED
    grep -qx 'hxfd: mqtt: hxf/den/lights/lamp-1/command: the payload is not JSON (HXF_ERROR_INVALID_PARAMETER)' "$work/hxfd.err" ||
      fail "no log line for the payload that is not JSON"
    grep -qx 'hxfd: mqtt: hxf/den/lights/lamp-9/command: no device lamp-9 of lights on den (HXF_ERROR_NOT_FOUND)' "$work/hxfd.err" ||
      fail "no log line for the unknown device"
    kill -0 "$hxfd_pid" || fail "hxfd is gone"
    expect_retained hxf/den/lights/lamp-1/state '{"device_id":"lamp-1","power":true,"brightness":70,"color":"warm"}'
    ;;
  bus-both-ways)
    command -v dbus-daemon >/dev/null || skip "dbus-daemon is missing (scripts/install-deps.sh dbus)"
    source "$here/../support/private_bus.sh"
    start_private_bus
    start_broker "$work/broker.conf" broker
    start_hxfd --mqtt "$url" --address "$address"
    await_line "$work/hxfd.err" 10 '^hxfd: serving org.hxf.Broker$'
    sub hxf/den/lights/lamp-1/state 1 >/dev/null || fail "no state for lamp-1"
    # A set over MQTT, seen by a watch on D-Bus.
    "$hxf" --bus "$address" watch lights --for 20000 >"$work/watch.out" 2>"$work/watch.err" &
    pids+=($!)
    await_line "$work/watch.err" 10 '^watching lights for 20000 ms$'
    request "$(cmd lights/lamp-1)" '{"operation":"set","properties":{"brightness":35}}' >"$work/replies.out" ||
      fail "the set over MQTT was not answered"
    await_line "$work/watch.out" 10 '^  brightness  35$'
    # A set over D-Bus, seen in the retained state.
    # A loaded machine under a sanitizer may take more than the default 3 s.
    "$hxf" --bus "$address" request lights set device=lamp-1 brightness=12 --timeout 20000 \
      >"$work/set.out" 2>"$work/set.err" || { echo "exit $?" >>"$work/set.err"; false; } ||
      fail "the set over D-Bus failed"
    await_retained hxf/den/lights/lamp-1/state '{"device_id":"lamp-1","power":true,"brightness":12,"color":"warm"}'
    ;;
  last-will)
    start_broker "$work/broker.conf" broker
    printf 'mqtt = %s\nnode = %s\nmqtt-keepalive = 5\n' "$url" "$node" >"$work/hxfd.conf"
    "$hxfd" --config "$work/hxfd.conf" >"$work/hxfd.out" 2>"$work/hxfd.err" &
    hxfd_pid=$!
    pids+=("$hxfd_pid")
    await_line "$work/hxfd.err" 10 '^hxfd: mqtt: connected to '
    expect_retained hxf/den/status online
    mosquitto_sub -p "$port" -t hxf/den/status -C 2 -W 15 >"$work/status.out" &
    sub_pid=$!
    pids+=("$sub_pid")
    await_line "$work/status.out" 5 '^online$'
    start=$(now_ms)
    { kill -9 "$hxfd_pid"; wait "$hxfd_pid"; } 2>/dev/null
    wait "$sub_pid" || fail "no offline within 15 s of kill -9"
    took=$(($(now_ms) - start))
    [ "$(tail -1 "$work/status.out")" = offline ] || fail "the status after kill -9 is '$(tail -1 "$work/status.out")'"
    # Within the keep-alive bound: 1.5 times 5 s, and a second for the broker's check.
    [ "$took" -le 8500 ] || fail "offline came after $took ms, beyond 1.5 x 5 s"
    expect_retained hxf/den/status offline
    ;;
  broker-restart)
    start_broker "$work/broker.conf" broker
    start_hxfd --mqtt "$url"
    sub hxf/den/lights/lamp-1/state 1 >/dev/null || fail "no state for lamp-1"
    sub hxf/den/audio/radio-1/device 1 >/dev/null || fail "no radio-1"
    # radio-1 never answers: its request is in flight when the broker goes.
    request --expect 0 "$(cmd audio/radio-1)" '{"operation":"get"}' >"$work/sent.out" || fail "the request was not sent"
    { kill -9 "$broker_pid"; wait "$broker_pid"; } 2>/dev/null
    await_line "$work/hxfd.err" 10 '^hxfd: mqtt: lost the connection to '
    # Backoff: 1 s, 2 s, 4 s, 8 s; the broker comes back during the last wait, before the
    # reply's subscriber, which has 8 s to subscribe. The radio's own time-out (10 s) comes
    # while hxfd is away: its answer still goes out once, after the reconnection.
    await_line "$work/hxfd.err" 20 '^hxfd: mqtt: cannot connect to .*; trying again in 8000 ms$'
    start_broker "$work/broker.conf" broker2
    request --expect 1 --wait 20 >"$work/late.out" &
    late_pid=$!
    pids+=("$late_pid")
    await_line "$work/late.out" 5 '^subscribed$'
    wait "$late_pid" || fail "the request in flight was not answered after the reconnection"
    grep -qx 'c1 {"error":"the connection to the MQTT broker was lost while the request ran","error_name":"HXF_ERROR_OPERATION_FAILED"}' "$work/late.out" ||
      fail "the request in flight was not answered with the lost connection"
    [ "$(grep -c '^hxfd: mqtt: connected to ' "$work/hxfd.err")" = 2 ] || fail "hxfd did not connect again"
    # The new broker kept nothing: hxfd published everything again.
    expect_retained hxf/den/status online
    expect_retained hxf/den/lights/lamp-1/device "$lamp_device"
    expect_retained hxf/den/lights/lamp-1/state '{"device_id":"lamp-1","power":true,"brightness":70,"color":"warm"}'
    sub 'homeassistant/light/den/lights_lamp-1/config' 1 >/dev/null || fail "discovery was not published again"
    # Never twice: the radio's own time-out (10 s after the request) brings no second answer.
    request --expect 1 --wait 11 >"$work/twice.out" && fail "a second answer came: $(cat "$work/twice.out")"
    [ "$(grep -c '^c1 ' "$work/twice.out")" = 0 ] || fail "a second answer came"
    ;;
  home-assistant)
    start_broker "$work/broker.conf" broker
    start_hxfd --mqtt "$url"
    await_retained homeassistant/light/den/lights_lamp-1/config '{"name":null,"unique_id":"hxf_den_lights_lamp-1","availability_topic":"hxf/den/status","payload_available":"online","payload_not_available":"offline","device":{"identifiers":["hxf_den_lights_lamp-1"],"name":"Desk lamp","model":"lights","manufacturer":"sim"},"schema":"json","state_topic":"hxf/den/lights/lamp-1/ha/light","command_topic":"hxf/den/lights/lamp-1/ha/light/set","supported_color_modes":["brightness"],"brightness_scale":100}'
    sub 'homeassistant/climate/den/climate_thermostat-1/config' 1 >"$work/climate.out" || fail "no climate"
    grep -q '"current_temperature_template":"{{ value_json.temperature }}"' "$work/climate.out" || fail "no current temperature"
    sub 'homeassistant/number/den/audio_speaker-1_volume/config' 1 >/dev/null || fail "no volume number"
    sub 'homeassistant/switch/den/audio_speaker-1_muted/config' 1 >/dev/null || fail "no muted switch"
    # What a set does not take is read only: the position a sensor of seconds, not a number.
    sub 'homeassistant/sensor/den/audio_speaker-1_position/config' 1 >"$work/position.out" || fail "no position sensor"
    grep -q '"device_class":"duration","unit_of_measurement":"s"' "$work/position.out" || fail "the position is not in seconds"
    grep -q 'command_topic' "$work/position.out" && fail "the position takes commands"
    sub 'homeassistant/number/den/audio_speaker-1_position/config' 1 1 >/dev/null && fail "the position is a number"
    # Home Assistant's commands: a JSON light, a number, a climate mode.
    mosquitto_pub -p "$port" -t hxf/den/lights/lamp-1/ha/light/set -m '{"state":"OFF"}'
    mosquitto_pub -p "$port" -t hxf/den/audio/speaker-1/ha/set/volume -m '31'
    mosquitto_pub -p "$port" -t hxf/den/climate/thermostat-1/ha/set/mode -m 'off'
    await_retained hxf/den/lights/lamp-1/ha/light '{"state":"OFF","brightness":70,"color_mode":"brightness"}'
    await_retained hxf/den/audio/speaker-1/state '{"device_id":"speaker-1","volume":31,"muted":false,"transport_state":"no_media","position":0,"duration":0}'
    deadline=$(($(now_ms) + 10000))
    until mosquitto_sub -p "$port" -t hxf/den/climate/thermostat-1/state -C 1 -W 2 | grep -q '"power":false'; do
      [ "$(now_ms)" -lt "$deadline" ] || fail "Home Assistant's mode off did not switch the thermostat off"
    done
    mosquitto_pub -p "$port" -t hxf/den/audio/speaker-1/ha/set/volume -m 'loud'
    await_line "$work/hxfd.err" 10 '^hxfd: mqtt: hxf/den/audio/speaker-1/ha/set/volume: volume takes a number \(HXF_ERROR_INVALID_PARAMETER\)$'
    # Home Assistant comes online: every configuration again. Announced until the subscriber,
    # which takes only new messages, has heard the lamp's (it may subscribe after the first).
    mosquitto_sub -p "$port" -t homeassistant/light/den/lights_lamp-1/config -C 1 -W 10 -R >"$work/again.out" &
    again_pid=$!
    pids+=("$again_pid")
    for _ in 1 2 3 4 5 6 7 8 9; do
      mosquitto_pub -p "$port" -t homeassistant/status -m online
      heard_by=$(($(now_ms) + 1000))
      until [ -s "$work/again.out" ] || [ "$(now_ms)" -ge "$heard_by" ]; do sleep 0.05; done
      [ -s "$work/again.out" ] && break
    done
    wait "$again_pid" || fail "the configurations were not announced again"
    grep -q '"unique_id":"hxf_den_lights_lamp-1"' "$work/again.out" || fail "the lamp was not announced again"
    ;;
  auth-acl-tls)
    # A CA of the test's own, the broker's certificate and hxfd's client certificate.
    make_test_ca "$work" hxfd
    mosquitto_passwd -b -c "$work/passwd" hxfd hxfd-secret >/dev/null
    mosquitto_passwd -b "$work/passwd" reader reader-secret >/dev/null
    mosquitto_passwd -b "$work/passwd" stranger stranger-secret >/dev/null
    printf 'user hxfd\ntopic readwrite hxf/#\ntopic readwrite homeassistant/#\ntopic write test/#\n\nuser reader\ntopic read hxf/#\ntopic write hxf/+/+/+/command\ntopic readwrite test/#\n' >"$work/acl"
    printf 'hxfd-secret\n' >"$work/password"
    tls_port=$(free_port)
    write_broker_conf "$work/secure.conf" "$port" "allow_anonymous false" "password_file $work/passwd" "acl_file $work/acl" \
      "listener $tls_port 127.0.0.1" "cafile $work/ca.crt" "certfile $work/server.crt" "keyfile $work/server.key" \
      "require_certificate true"
    start_broker "$work/secure.conf" broker
    start_hxfd --mqtt "mqtts://127.0.0.1:$tls_port" --mqtt-cafile "$work/ca.crt" --mqtt-cert "$work/client.crt" \
      --mqtt-key "$work/client.key" --mqtt-user hxfd --mqtt-password-file "$work/password"
    # A client with rights reads the state and is answered.
    mosquitto_sub -p "$port" -u reader -P reader-secret -t hxf/den/lights/lamp-1/state -C 1 -W 10 >"$work/reader.out" ||
      fail "the reader read nothing"
    grep -qx '{"device_id":"lamp-1","power":true,"brightness":70,"color":"warm"}' "$work/reader.out" || fail "the reader read $(cat "$work/reader.out")"
    request --user reader --password reader-secret "$(cmd lights/lamp-1)" '{"operation":"get"}' >"$work/replies.out" ||
      fail "the reader's request was not answered"
    # Without credentials: refused.
    mosquitto_sub -p "$port" -t 'hxf/#' -C 1 -W 3 >"$work/anonymous.out" 2>&1 && fail "an anonymous client read $(cat "$work/anonymous.out")"
    grep -q 'not authorised' "$work/anonymous.out" || fail "the anonymous client was not refused: $(cat "$work/anonymous.out")"
    # A user the ACL gives nothing reads nothing and commands nothing.
    mosquitto_sub -p "$port" -u stranger -P stranger-secret -t 'hxf/#' -C 1 -W 3 >"$work/stranger.out" 2>&1 &&
      fail "the stranger read $(cat "$work/stranger.out")"
    [ -s "$work/stranger.out" ] && ! grep -q 'Timed out' "$work/stranger.out" && fail "the stranger: $(cat "$work/stranger.out")"
    mosquitto_pub -p "$port" -u stranger -P stranger-secret -t "$(cmd lights/lamp-1)" -m '{"operation":"set","properties":{"power":false}}'
    mosquitto_sub -p "$port" -u reader -P reader-secret -t hxf/den/lights/lamp-1/state -C 1 -W 3 >"$work/after.out"
    grep -q '"power":true' "$work/after.out" || fail "the stranger's command reached the lamp"
    # Without a certificate, the TLS listener lets nobody in.
    mosquitto_sub -p "$tls_port" --cafile "$work/ca.crt" -u hxfd -P hxfd-secret -t 'hxf/#' -C 1 -W 3 >"$work/nocert.out" 2>&1 &&
      fail "a client without a certificate read $(cat "$work/nocert.out")"
    ;;
  config)
    printf 'node = den\nmqtt = tcp://x\n' >"$work/bad.conf"
    "$hxfd" --config "$work/bad.conf" >"$work/bad.out" 2>"$work/bad.err"
    [ $? = 2 ] || fail "a wrong mqtt URL did not exit 2"
    grep -qx "hxfd: $work/bad.conf:2: mqtt URL 'tcp://x': it must start with mqtt:// or mqtts://" "$work/bad.err" ||
      fail "the error is $(cat "$work/bad.err")"
    printf 'mqtt-keepalive = 2\n' >"$work/bad.conf"
    "$hxfd" --config "$work/bad.conf" 2>"$work/bad.err"
    grep -qx "hxfd: $work/bad.conf:1: mqtt-keepalive \"2\" is not a number of seconds from 5 to 3600" "$work/bad.err" ||
      fail "the error is $(cat "$work/bad.err")"
    "$hxfd" --config /dev/null --mqtt "$url" --mqtt-password-file /nonexistent 2>"$work/bad.err"
    grep -qx "hxfd: --mqtt-password-file needs --mqtt-user" "$work/bad.err" || fail "the error is $(cat "$work/bad.err")"
    # Neither a bus nor MQTT: nothing to serve.
    "$hxfd" --config /dev/null 2>"$work/none.err"
    [ $? = 1 ] || fail "hxfd with nothing to serve did not exit 1"
    grep -q '^hxfd: no session bus' "$work/none.err" || fail "$(cat "$work/none.err")"
    ;;
  *) fail "unknown case" ;;
esac
# Under the asan and tsan presets: whatever hxfd ran into is a failure, even when it answered.
[ -f "$work/hxfd.err" ] && grep -q 'Sanitizer' "$work/hxfd.err" && fail "hxfd's sanitizer reported"
echo "PASS [$case_name]"
