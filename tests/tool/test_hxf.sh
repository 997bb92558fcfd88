#!/usr/bin/env bash
# Runs the hxf tool as a process against the simulator and checks its output and exit code.
# Usage: test_hxf.sh HXF_BINARY CASE
set -u
hxf=$1
case_name=$2
# shellcheck source=../support/tool_case.sh
source "$(dirname "$0")/../support/tool_case.sh"
# shellcheck source=../support/await.sh
source "$(dirname "$0")/../support/await.sh"

expect_out_exactly() { grep -qF -- "$1" "$out" || fail "stdout lacks the text: $1"; }
expect_last() { [ "$(tail -n 1 "$out")" = "$1" ] || fail "the last line is not: $1"; }
# A log line begins with its local time to the millisecond; then the priority letter and tag.
log_stamp='[0-2][0-9]:[0-5][0-9]:[0-5][0-9]\.[0-9][0-9][0-9]'  # basic and extended regex alike
log_line="^$log_stamp [VDIWEF] [A-Z][A-Z0-9_]*: "
# Every line of stdout is one JSON object with an "event" first.
expect_json_lines() {
  python3 -c 'import json,sys
for line in open(sys.argv[1]):
    obj = json.loads(line)
    assert isinstance(obj, dict) and next(iter(obj)) == "event", line' "$out" || fail "a line is not one JSON event"
}

case "$case_name" in
  search)
    code=$(run search lights --timeout 1000)
    expect_code "$code" 0
    expect_out "^DEVICE  *NAME  *SERVICE  *ADDRESS  *INTERFACE"
    expect_out "^lamp-1  *Desk lamp  *lights  *192.168.1.21  *wlan0/wifi"
    expect_out "^ceiling-1 "
    # The count is status, not a result: stderr.
    expect_err "^2 device(s) offer lights$"
    grep -q "device(s) offer" "$out" && fail "the device count went to stdout"
    ;;
  search-json)
    code=$(run --json search lights --timeout 1000)
    expect_code "$code" 0
    [ "$(grep -c '"event":"found"' "$out")" = 2 ] || fail "expected two found events"
    expect_out '"device_id":"lamp-1"'
    # one spelling of the name, as on D-Bus (DeviceFields.h); it was "name" here
    expect_out '^{"event":"found","address":"[^"]*","device_id":"lamp-1","device_name":"[^"]*","interface_name":'
    grep -q '"name":' "$out" && fail "a device's name is device_name, not name"
    expect_last '{"event":"end","command":"search","exit_code":0,"reason":"done"}'
    expect_json_lines
    ;;
  unknown-service)
    code=$(run search nothing-here --timeout 300)
    expect_code "$code" 1
    expect_err "^hxf: no loaded plugin offers the service nothing-here (offered: audio, climate, lights) (error 6: HXF_ERROR_NOT_FOUND)$"
    expect_no_out
    # With a configuration the simulator may offer anything: the search waits its time-out,
    # and the core itself refuses a session.
    printf '{"devices": [{"id": "sprinkler-1", "service": "garden"}]}\n' >"$work/garden.json"
    code=$(HXF_SIM_CONFIG="$work/garden.json" run search nothing-here --timeout 300)
    expect_code "$code" 1
    expect_err "^hxf: no device offers nothing-here within 300 ms (error 1: HXF_ERROR_TIMED_OUT)$"
    expect_no_out
    code=$(HXF_SIM_CONFIG="$work/garden.json" run request nothing-here get)
    expect_code "$code" 1
    expect_err "^hxf: no provider offers the service nothing-here (error 6: HXF_ERROR_NOT_FOUND)$"
    expect_no_out
    ;;
  devices)
    code=$(run devices audio --timeout 2000)
    expect_code "$code" 0
    expect_out "^speaker-1 "
    expect_out "^radio-1 "
    ;;
  get)
    code=$(run request lights get device=lamp-1)
    expect_code "$code" 0
    expect_out "get on lights: ok"
    expect_out "brightness  *70"
    ;;
  timeout)
    code=$(run request audio get device=radio-1 --timeout 300)
    expect_code "$code" 1
    expect_err "^hxf: get on audio: timed out after 300 ms (error 1: HXF_ERROR_TIMED_OUT)$"
    expect_no_out
    code=$(run --json request audio get device=radio-1 --timeout 300)
    expect_code "$code" 1
    expect_out '^{"event":"error","error":1,"error_name":"HXF_ERROR_TIMED_OUT",.*"message":"get on audio: timed out after 300 ms"'
    expect_last '{"event":"end","command":"request","exit_code":1,"reason":"timed_out"}'
    # A configured simulator may offer anything: these wait out their time-outs.
    printf '{"devices": [{"id": "sprinkler-1", "service": "garden"}]}\n' >"$work/garden.json"
    export HXF_SIM_CONFIG="$work/garden.json"
    code=$(run --json devices nothing-here --timeout 300)
    expect_code "$code" 1
    expect_out '^{"event":"error","error":1,"error_name":"HXF_ERROR_TIMED_OUT",.*"message":"no device list for nothing-here within 300 ms"'
    expect_last '{"event":"end","command":"devices","exit_code":1,"reason":"timed_out"}'
    code=$(run --json search nothing-here --timeout 300)
    expect_code "$code" 1
    expect_out '^{"event":"error","error":1,"error_name":"HXF_ERROR_TIMED_OUT",.*"message":"no device offers nothing-here within 300 ms"'
    expect_last '{"event":"end","command":"search","exit_code":1,"reason":"timed_out"}'
    expect_json_lines
    ;;
  out-of-range)
    code=$(run request lights set device=lamp-1 brightness=150)
    expect_code "$code" 1
    expect_err "^hxf: set on lights failed: brightness 150 is out of range 0..100 (error 4: HXF_ERROR_INVALID_PARAMETER)$"
    expect_no_out
    code=$(run --json request lights set device=lamp-1 brightness=150)
    expect_code "$code" 1
    expect_out '^{"event":"error","error":4,"error_name":"HXF_ERROR_INVALID_PARAMETER",.*"properties":{"error":"brightness 150 is out of range 0..100"}'
    expect_last '{"event":"end","command":"request","exit_code":1,"reason":"failed"}'
    [ -s "$err" ] && fail "a failure in JSON mode also went to stderr"
    ;;
  wrong-type)
    code=$(run request climate set device=thermostat-1 target_temperature=warm)
    expect_code "$code" 1
    expect_err "target_temperature takes a double, not a string"
    ;;
  malformed-config)
    printf '{\n  "devices": [\n    {"id": "x", "service": "s",}\n  ]\n}\n' >"$work/bad.json"
    code=$(HXF_SIM_CONFIG="$work/bad.json" run search s --timeout 300)
    expect_code "$code" 1
    expect_err "bad.json:3: "
    expect_err "syntax error"
    expect_err "^hxf: plugin sim: failed to load: the plugin itself reported the failure "
    ;;
  config-out-of-range)
    cat >"$work/range.json" <<'JSON'
{
  "devices": [
    {"id": "ok-1", "service": "garden", "properties": []},
    {"id": "bad-1", "service": "garden",
     "properties": [{"name": "level", "type": "int", "value": 11, "min": 0, "max": 10}]}
  ]
}
JSON
    code=$(HXF_SIM_CONFIG="$work/range.json" run search garden --timeout 300)
    expect_code "$code" 1
    expect_err "range.json:5: devices\[1\] (\"bad-1\").properties\[0\]: level 11 is out of range 0..10"
    ;;
  config-errors)
    # Each mistake is refused at its own line, with what is wrong.
    config_error() {  # FILE-CONTENT EXPECTED-ERROR
      printf '%s\n' "$1" >"$work/c.json"
      code=$(HXF_SIM_CONFIG="$work/c.json" run search x --timeout 300)
      expect_code "$code" 1
      expect_err "^$log_stamp E HXF_SIM: sim: bad configuration $work/c.json:$2\$"
    }
    config_error '{"devices": [
  {"id": "a", "service": "x"},
  {"id": "b", "service": "x"},
  {"id": "a", "service": "x"}]}' \
      '4: devices\[2\]: duplicate device id "a" in service x (first on line 2)'
    config_error '{"devices": [
  {"id": "a", "service": "x", "properties": [
    {"name": "power", "type": "bool", "value": true},
    {"name": "power", "type": "bool", "value": false}]}]}' \
      '4: devices\[0\] ("a").properties\[1\]: duplicate property "power" (first on line 3)'
    config_error '{"devices": [
  {"id": "a", "service": "x",
   "respnse": "slow"}]}' \
      '3: devices\[0\] ("a"): unknown key "respnse" (did you mean "response"?)'
    config_error '{"devices": [
  {"id": "a", "service": "x",
   "arive_after_ms": 100}]}' \
      '3: devices\[0\] ("a"): unknown key "arive_after_ms" (did you mean "arrive_after_ms"?)'
    config_error '{"devices": [
  {"id": "a", "service": "x", "colour": "red"}]}' \
      '2: devices\[0\] ("a"): unknown key "colour"'
    config_error '{"devices": [
  {"id": "a", "service": "x", "properties": [
    {"name": "level",
     "type": "int",
     "value": "high"}]}]}' \
      '5: devices\[0\] ("a").properties\[0\]: value "high" is not of type "int"'
    config_error '{"devices": [
  {"id": "a", "service": "x",
   "service": "y"}]}' \
      '3: duplicate key "service" (first on line 2)'
    config_error '{"devices": [
  {"id": "a", "service": "x", "properties": [
    {"name": "t", "type": "double", "value": 20,
     "drift": {"step": 0.1, "every_ms": 10}}]}]}' \
      '4: devices\[0\] ("a").properties\[0\].drift: "every_ms" must be at least 100'
    config_error '{"devices": [
  {"id": "a", "service": "x", "properties": [
    {"name": "on", "type": "bool", "value": true,
     "drift": {"step": 1}}]}]}' \
      '4: devices\[0\] ("a").properties\[0\].drift: only a number can drift'
    config_error '{"devices": []}' '1: "devices" is empty'
    ;;
  living-device)
    # A drifting property changes on its own and every subscriber hears it; it is read-only.
    cat >"$work/live.json" <<'JSON'
{ "devices": [ {"id": "meter-1", "service": "meter", "properties": [
    {"name": "level", "type": "double", "value": 5.0, "min": 0, "max": 10, "read_only": true,
     "drift": {"step": 0.5, "every_ms": 200}}]} ] }
JSON
    code=$(HXF_SIM_CONFIG="$work/live.json" run --json watch meter --for 1500)
    expect_code "$code" 0
    [ "$(grep -c '"event":"notification"' "$out")" -ge 3 ] || fail "expected a notification every 200 ms"
    grep -q '"level":\(4.5\|5.5\)' "$out" || fail "the first step is not 0.5 from 5.0"
    grep '"event":"notification"' "$out" | grep -vq '"level":[0-9]*\.[05][,}]' && fail "a level is not a multiple of 0.5"
    code=$(HXF_SIM_CONFIG="$work/live.json" run request meter set device=meter-1 level=3.0)
    expect_code "$code" 1
    expect_err "^hxf: set on meter failed: level is read-only (error 4: HXF_ERROR_INVALID_PARAMETER)$"
    # The default thermostat's temperature drifts every 3 s.
    code=$(run --json watch climate --for 3800)
    expect_code "$code" 0
    expect_out '^{"event":"notification",.*"device_id":"thermostat-1",.*"temperature":\(20.4\|20.6\)[,}]'
    ;;
  custom-config)
    cat >"$work/home.json" <<'JSON'
{ "search_latency_ms": 10,
  "devices": [ {"id": "sprinkler-1", "service": "garden", "name": "Sprinkler",
                "properties": [{"name": "on", "type": "bool", "value": false}]} ] }
JSON
    code=$(HXF_SIM_CONFIG="$work/home.json" run search garden --timeout 500)
    expect_code "$code" 0
    expect_out "^sprinkler-1  *Sprinkler  *garden"
    ;;
  listen-ctrl-c)
    "$hxf" listen lights >"$out" 2>"$err" &
    pid=$!
    for _ in $(seq 1 100); do grep -q "^found  lamp-1" "$out" && break; sleep 0.05; done
    grep -q "^found  lamp-1" "$out" || { kill -9 $pid; fail "no device heard while listening"; }
    kill -INT $pid
    wait $pid
    expect_code "$?" 130
    expect_err "^stopped$"
    ;;
  watch)
    code=$(run watch lights --for 300)
    expect_code "$code" 0
    expect_err "^watching lights for 300 ms"
    expect_err "^done$"
    ;;
  json-lossless)
    cat >"$work/exact.json" <<'JSON'
{ "devices": [ {"id": "meter-1", "service": "meter",
  "properties": [{"name": "reading", "type": "double", "value": 123456789.123},
                 {"name": "fine", "type": "double", "value": 21.123456789},
                 {"name": "count", "type": "int", "value": 9007199254740993},
                 {"name": "whole", "type": "double", "value": 21},
                 {"name": "ok", "type": "bool", "value": true},
                 {"name": "label", "type": "string", "value": "a \"quoted\" 1.50"}]} ] }
JSON
    code=$(HXF_SIM_CONFIG="$work/exact.json" run --json request meter get device=meter-1)
    expect_code "$code" 0
    expect_out_exactly '"properties":{"count":9007199254740993,"device_id":"meter-1","fine":21.123456789,"label":"a \"quoted\" 1.50","ok":true,"reading":123456789.123,"whole":21.0}'
    code=$(HXF_SIM_CONFIG="$work/exact.json" run --json request meter set device=meter-1 fine=0.1 count=-9223372036854775808)
    expect_code "$code" 0
    expect_out '"count":-9223372036854775808,.*"fine":0.1,'
    code=$(HXF_SIM_CONFIG="$work/exact.json" run request meter get device=meter-1)
    expect_out "^  reading  *123456789.123$"
    expect_out "^  fine  *21.123456789$"
    code=$(run request meter set count=9223372036854775808)
    expect_code "$code" 2
    expect_err "count=9223372036854775808: the integer does not fit in 64 bits"
    ;;
  json-schema)
    for command in "search lights --timeout 500" "listen lights --for 500" "devices audio" \
                   "request lights get device=lamp-1" "watch lights --for 200"; do
      # shellcheck disable=SC2086
      code=$(run --json $command)
      expect_code "$code" 0
      expect_json_lines
      expect_last "{\"event\":\"end\",\"command\":\"${command%% *}\",\"exit_code\":0,\"reason\":\"done\"}"
    done
    code=$(run --json frobnicate)
    expect_code "$code" 2
    expect_out '^{"event":"error","error":null,"error_name":null,"message":"unknown command '"'"'frobnicate'"'"'"}$'
    expect_last '{"event":"end","command":null,"exit_code":2,"reason":"usage"}'
    ;;
  usage)
    code=$(run)
    expect_code "$code" 2
    expect_err "^Usage: .*hxf \[OPTIONS\] \[SUBCOMMAND\]"
    code=$(run frobnicate)
    expect_code "$code" 2
    expect_err "^hxf: unknown command 'frobnicate'$"
    expect_err "^Usage: "
    [ -s "$out" ] && fail "a usage error printed on stdout"
    code=$(run search lights --frobnicate)
    expect_code "$code" 2
    expect_err "^hxf: unexpected argument '--frobnicate'$"
    code=$(run request lights set not-an-assignment)
    expect_code "$code" 2
    code=$(run search)
    expect_code "$code" 2
    code=$(run search --help)
    expect_code "$code" 0
    expect_out "--timeout"
    expect_out "^Example: hxf search lights --timeout 1000$"
    code=$(run --help)
    expect_code "$code" 0
    expect_out "^Environment:$"
    expect_out "^  HXF_LOG_LEVEL "
    expect_out "^  HXF_SIM_CONFIG "
    expect_out "^Examples:$"
    ;;
  version)
    code=$(run --version)
    expect_code "$code" 0
    expect_out "^hxf [0-9][0-9]*\.[0-9][0-9]*\.[0-9][0-9]*$"
    ;;
  log-level-env)
    code=$(HXF_LOG_LEVEL=info run search lights --timeout 300)
    expect_code "$code" 0
    expect_err "^$log_stamp E HXF_FW: .*hxf_core_initialize Entered\$"
    code=$(HXF_LOG_LEVEL=loud run search lights --timeout 300)
    expect_code "$code" 2
    expect_err "^hxf: HXF_LOG_LEVEL must be debug, info or error, not 'loud'$"
    code=$(run search lights --timeout 300)
    expect_code "$code" 0
    grep -q "HXF_FW" "$err" && fail "the core's log shown without being asked for"
    ;;
  plugins)
    code=$(run plugins)
    expect_code "$code" 0
    expect_out "^sim  *a simulated home: lights, audio and climate devices"
    grep -q "fixture\|^async\|^fault_" "$out" && fail "a test fixture is offered to users"
    grep -v '^sim \|^upnp \|^mqtt ' "$out" | grep -q . && fail "expected the simulator (and the UPnP and MQTT plugins where built) only"
    code=$(run plugins --all)
    expect_code "$code" 0
    expect_out "^async  *(no description) \[hidden: a fixture of the core's own tests\]$"
    expect_out "^sim  "
    code=$(run --json plugins)
    expect_code "$code" 0
    expect_out '^{"event":"plugin","description":"a simulated home: lights, audio and climate devices (HXF_SIM_CONFIG)","hidden":false,"name":"sim","path":"/.*/libhxf-plugin-sim.so"}$'
    expect_last '{"event":"end","command":"plugins","exit_code":0,"reason":"done"}' 
    ;;
  missing-plugin)
    code=$(run --plugin no-such-plugin search lights)
    expect_code "$code" 1
    expect_err "^hxf: plugin no-such-plugin: failed to load: /.*/libhxf-plugin-no-such-plugin.so does not exist$"
    code=$(run --plugin nodestroy search lights)
    expect_code "$code" 1
    expect_err "^hxf: plugin nodestroy: failed to load: /.*/libhxf-plugin-nodestroy.so does not export DestroyPlugin$"
    code=$(run --plugin createfails search lights)
    expect_code "$code" 1
    expect_err "^hxf: plugin createfails: failed to load: the plugin itself reported the failure (/.*/libhxf-plugin-createfails.so)$"
    code=$(run --plugin sim --plugin sim search lights)
    expect_code "$code" 1
    expect_err "^hxf: plugin sim: load refused: it is already loaded (error 2: HXF_ERROR_OPERATION_FAILED)$"
    code=$(run --json --plugin no-such-plugin search lights)
    expect_code "$code" 1
    expect_out '^{"event":"error","error":null,"error_name":null,"message":"plugin no-such-plugin: failed to load: /.*/libhxf-plugin-no-such-plugin.so does not exist","plugin":"no-such-plugin"}$'
    expect_last '{"event":"end","command":"search","exit_code":1,"reason":"failed"}' 
    ;;
  demo)
    code=$(run demo)
    expect_code "$code" 0
    expect_out "timed out, as expected (error 1: HXF_ERROR_TIMED_OUT)$"
    expect_out "notification (state):"
    ;;
  device-required)
    # Regression: without device=, a set changed the first lamp. Now get and set are refused
    # with the devices there are, and nothing changes.
    for operation in "set brightness=10" get; do
      # shellcheck disable=SC2086 # the operation's words
      code=$(run request lights $operation)
      expect_code "$code" 1
      expect_err "^hxf: ${operation%% *} on lights failed: device_id (device= in hxf) is required; devices: lamp-1, ceiling-1, porch-1 (error 4: HXF_ERROR_INVALID_PARAMETER)$"
      expect_no_out
    done
    code=$(run --json request lights set brightness=10)
    expect_code "$code" 1
    expect_out '^{"event":"error","error":4,"error_name":"HXF_ERROR_INVALID_PARAMETER",.*"properties":{"error":"device_id (device= in hxf) is required; devices: lamp-1, ceiling-1, porch-1"}'
    ;;
  offered-services)
    # The simulator declares its services: a service it does not offer is refused at once,
    # not after the 5 s the search was given.
    start=$(date +%s%N)
    code=$(run search nosuch --timeout 5000)
    elapsed_ms=$((($(date +%s%N) - start) / 1000000))
    expect_code "$code" 1
    expect_err "^hxf: no loaded plugin offers the service nosuch (offered: audio, climate, lights) (error 6: HXF_ERROR_NOT_FOUND)$"
    expect_no_out
    [ "$elapsed_ms" -lt 2000 ] || fail "the refusal took $elapsed_ms ms"
    # With a configuration of its own the simulator may offer anything: the search runs.
    printf '{"devices": [{"id": "sprinkler-1", "service": "garden"}]}\n' >"$work/garden.json"
    code=$(HXF_SIM_CONFIG="$work/garden.json" run search nosuch --timeout 300)
    expect_code "$code" 1
    expect_err "^hxf: no device offers nosuch within 300 ms (error 1: HXF_ERROR_TIMED_OUT)$"
    # So it does beside a plugin that declares nothing.
    code=$(run --plugin sim --plugin e2e search nosuch --timeout 300)
    expect_code "$code" 1
    expect_err "^hxf: no device offers nosuch within 300 ms (error 1: HXF_ERROR_TIMED_OUT)$"
    ;;
  load-result-misnamed)
    # Regression: a plugin that reports its load under another name cost a 10 s wait and
    # "no load result". Loads are one at a time: the report is the loading plugin's, and the
    # tool names the name it came under.
    start=$(date +%s%N)
    code=$(run --plugin sim --plugin misnamed request lights get device=lamp-1)
    elapsed_ms=$((($(date +%s%N) - start) / 1000000))
    expect_code "$code" 0
    expect_err "^hxf: plugin misnamed reported its load result under the name 'misnamed-v2'$"
    expect_out "brightness  *70"
    [ "$elapsed_ms" -lt 5000 ] || fail "the load took $elapsed_ms ms"
    ;;
  long-value-no-crash)
    # Regression: a value of 26 098 characters overflowed the stack in std::regex (SIGSEGV).
    # The kernel caps one argument at 128 KiB: the longest it passes (131 071 bytes) is
    # carried, or refused with a usage error, never a crash (CommandLineTest does a megabyte).
    long=$(head -c 131064 /dev/zero | tr '\0' x)
    code=$(run request lights get "device=$long")
    expect_code "$code" 1
    expect_err "^hxf: get on lights failed: unknown device xxxx"
    code=$(run request lights set device=lamp-1 "label=$long" --timeout 2000)
    [ "$code" = 1 ] || [ "$code" = 2 ] || fail "exit code $code for a long text"
    digits=$(head -c 131000 /dev/zero | tr '\0' 7)
    code=$(run request lights set device=lamp-1 "brightness=$digits")
    expect_code "$code" 2
    expect_err "^hxf: brightness=7777.*\.\.\. (131011 bytes): the integer does not fit in 64 bits"
    [ "$(wc -c <"$err")" -lt 1000 ] || fail "the refusal echoed the whole value"
    ;;
  usage-printed-once)
    # Regression: the parser printed its error and the tool printed it again.
    code=$(run search)
    expect_code "$code" 2
    [ "$(grep -c "SERVICE is required" "$err")" = 1 ] || fail "the problem is not printed once"
    expect_err "^hxf: SERVICE is required$"
    expect_err "^Run 'hxf search --help' for more information.$"
    [ "$(wc -l <"$err")" = 2 ] || fail "expected the problem and one line of help"
    expect_no_out
    code=$(run request lights set brightness)
    expect_code "$code" 2
    [ "$(grep -c "expected NAME=VALUE" "$err")" = 1 ] || fail "the problem is not printed once"
    code=$(run --json search)
    expect_code "$code" 2
    [ "$(grep -c "SERVICE is required" "$err")" = 1 ] || fail "the problem is not printed once on stderr"
    expect_out '^{"event":"error","error":null,"error_name":null,"message":"SERVICE is required"}$'
    expect_last '{"event":"end","command":null,"exit_code":2,"reason":"usage"}'
    ;;
  empty-service-or-operation)
    for command in search listen devices watch; do
      code=$(run "$command" "")
      expect_code "$code" 2
      expect_err "^hxf: $command: the service name is empty$"
      expect_no_out
    done
    code=$(run request "" get)
    expect_code "$code" 2
    expect_err "^hxf: request: the service name is empty$"
    code=$(run request lights "")
    expect_code "$code" 2
    expect_err "^hxf: request: the operation is empty (get or set)$"
    ;;
  timeout-zero)
    # 0 never means "at once": --timeout needs at least 1 ms; --for 0 is no limit.
    for command in "search lights" "devices audio" "request lights get device=lamp-1"; do
      # shellcheck disable=SC2086 # the command's words
      code=$(run $command --timeout 0)
      expect_code "$code" 2
      expect_err "^hxf: --timeout 0: a result needs a time-out of at least 1 ms$"
      expect_no_out
    done
    code=$(run search lights --timeout 4294967296)
    expect_code "$code" 2
    expect_err "^hxf: --timeout 4294967296: at most 4294967295 ms (about 49.7 days)$"
    code=$(run listen lights --for -1)
    expect_code "$code" 2
    expect_err "^hxf: --for takes a whole number of milliseconds, not '-1'$"
    code=$(run watch lights --for 1.5)
    expect_code "$code" 2
    for command in listen watch; do
      # Emptied here, not by the child's redirection: the wait below must not read the
      # previous command's line before the child gets to truncate the file.
      : >"$out"; : >"$err"
      "$hxf" "$command" lights --for 0 >"$out" 2>"$err" &
      pid=$!
      for _ in $(seq 1 300); do grep -q "(Ctrl-C stops)" "$err" && break; sleep 0.05; done
      grep -q "^\(listening to\|watching\) lights (Ctrl-C stops)$" "$err" || { kill -9 $pid; fail "$command --for 0 is not unlimited"; }
      kill -INT $pid
      wait $pid
      expect_code "$?" 130
    done
    ;;
  numbers)
    # Every number form docs/json.md shows arrives with its type: the simulator refuses a
    # value of the wrong type, and --json shows what it stored.
    cat >"$work/types.json" <<'JSON'
{ "devices": [ {"id": "meter-1", "service": "meter",
  "properties": [{"name": "count", "type": "int", "value": 0},
                 {"name": "level", "type": "double", "value": 0.0},
                 {"name": "ok", "type": "bool", "value": false},
                 {"name": "label", "type": "string", "value": ""}]} ] }
JSON
    set_meter() { code=$(HXF_SIM_CONFIG="$work/types.json" run --json request meter set device=meter-1 "$@"); }
    for pair in "1e3 1000.0" "-0.5 -0.5" ".5 0.5" "5. 5.0" "1E-3 0.001" "+1.5 1.5" "2.5e+2 250.0"; do
      set_meter "level=${pair% *}"
      expect_code "$code" 0
      expect_out "\"level\":${pair#* }[,}]"
    done
    set_meter count=9223372036854775807 ok=true label='"42"'
    expect_code "$code" 0
    expect_out '"count":9223372036854775807,'
    expect_out '"label":"42",'
    expect_out '"ok":true'
    set_meter count=-9223372036854775808 label=1.2.3
    expect_code "$code" 0
    expect_out '"count":-9223372036854775808,'
    expect_out '"label":"1.2.3",'
    set_meter count=+5
    expect_code "$code" 0
    expect_out '"count":5,'
    for refused in count=9223372036854775808 count=18446744073709551615 count=-9223372036854775809; do
      set_meter "$refused"
      expect_code "$code" 2
      expect_err "^hxf: $refused: the integer does not fit in 64 bits (a property's integers are signed: -9223372036854775808 to 9223372036854775807)$"
    done
    set_meter level=1e400
    expect_code "$code" 2
    expect_err "^hxf: level=1e400: the decimal does not fit in a double"
    set_meter level=1e3x
    expect_code "$code" 1
    expect_out '"message":"set on meter failed: level takes a double, not a string"' 
    ;;
  device-count-on-stderr)
    # Results alone on stdout: the table; the count is a status line.
    code=$(run search lights --timeout 1000)
    expect_code "$code" 0
    expect_err "^2 device(s) offer lights$"
    grep -v "^DEVICE \|^lamp-1 \|^ceiling-1 " "$out" | grep -q . && fail "stdout holds more than the table"
    ;;
  non-utf8-argument)
    # Regression: in JSON mode an argument that is not UTF-8 threw out of the JSON writer
    # (abort, exit 134).
    code=$(run --json request lights set device=lamp-1 $'label=\xff')
    expect_code "$code" 2
    expect_out '^{"event":"error","error":null,"error_name":null,"message":"argument 6 is not valid UTF-8 text"}$'
    expect_json_lines
    code=$(run --json $'fr\xffob')
    expect_code "$code" 2
    expect_json_lines
    # Found by fuzz_cli: the same through a variable, whose value the problem echoes.
    code=$(HXF_LOG_LEVEL=$'lou\xff' run --json search lights)
    expect_code "$code" 2
    expect_out '^{"event":"error","error":null,"error_name":null,"message":"HXF_LOG_LEVEL is not valid UTF-8 text"}$'
    expect_json_lines
    ;;
  unoffered-service-every-command)
    # Needs the simulator's declared services (the in-process broker reads them): every
    # command that names a service refuses one that no loaded plugin offers, at once.
    for command in "search nosuch --timeout 5000" "listen nosuch" "devices nosuch --timeout 5000" \
                   "request nosuch get --timeout 5000" "watch nosuch"; do
      start=$(date +%s%N)
      # shellcheck disable=SC2086 # the command's words
      code=$(run $command)
      elapsed_ms=$((($(date +%s%N) - start) / 1000000))
      expect_code "$code" 1
      expect_err "^hxf: no loaded plugin offers the service nosuch (offered: audio, climate, lights) (error 6: HXF_ERROR_NOT_FOUND)$"
      expect_no_out
      [ "$elapsed_ms" -lt 3000 ] || fail "$command: the refusal took $elapsed_ms ms"
    done
    code=$(run --json devices nosuch)
    expect_code "$code" 1
    expect_out '^{"event":"error","error":6,"error_name":"HXF_ERROR_NOT_FOUND","message":"no loaded plugin offers the service nosuch (offered: audio, climate, lights)","offered":\["audio","climate","lights"\],"service":"nosuch"}$'
    # "*" is every service: offered whenever anything is.
    code=$(run search '*' --timeout 1000)
    expect_code "$code" 0
    ;;
  log-level-error)
    # The core writes a line at error priority for every call into it: those show, nothing
    # below error, each line in the log format.
    code=$(run --log-level error request lights get device=lamp-1)
    expect_code "$code" 0
    expect_out "^  brightness  70$"
    grep -v '^get on lights: ok$' "$err" | grep -Ev "^$log_stamp E [A-Z][A-Z0-9_]*: " &&
      fail "a line below error priority, or not in the log format"
    grep -Eq "^$log_stamp E HXF_FW: hxf_core_export : hxf_core_initialize\([0-9]+\)  hxf_core_initialize Entered$" "$err" ||
      fail "the core's error line not shown as it is written"
    ;;
  log-level-debug)
    code=$(run --log-level debug request lights get device=lamp-1)
    expect_code "$code" 0
    grep -v '^get on lights: ok$' "$err" | grep -Ev "$log_line" && fail "a line not in the log format"
    for shown in "D HXF_TPL_CONTEXT" "I HXF_FW" "E HXF_FW" "I HXF_SIM"; do
      grep -Eq "^$log_stamp $shown: " "$err" || fail "no line '$shown' with --log-level debug"
    done
    code=$(run --log-level info request lights get device=lamp-1)
    expect_code "$code" 0
    grep -Eq "^$log_stamp D " "$err" && fail "a debug line with --log-level info"
    grep -Eq "^$log_stamp I HXF_FW: " "$err" || fail "no info line with --log-level info"
    ;;
  log-plugin-error-without-level)
    # Without --log-level the core is silent, but a plugin's error says why it did not load.
    printf '{"devices": [{"id": "x", "service": "s",}]}\n' >"$work/bad.json"
    code=$(HXF_SIM_CONFIG="$work/bad.json" run search s --timeout 300)
    expect_code "$code" 1
    expect_err "^$log_stamp E HXF_SIM: sim: bad configuration $work/bad.json:1: "
    grep -Eq "HXF_FW|HXF_TPL_CONTEXT" "$err" && fail "the core's log shown without being asked for"
    ;;
  ctrl-c-stops-a-wait-at-once)
    # The stop signals come through the main thread's loop (a signalfd), not a thread that
    # looks every 100 ms: SIGINT and SIGTERM each end a 60 s wait at once, with 130.
    for signal in INT TERM; do
      : >"$out"; : >"$err"  # as in timeout-zero: no stale line from the previous round
      "$hxf" listen lights --for 60000 >"$out" 2>"$err" &
      pid=$!
      await_line "$err" 10 '^listening to lights for 60000 ms$'
      start=$(now_ms)
      kill -$signal $pid
      wait $pid
      code=$?
      elapsed_ms=$(($(now_ms) - start))
      expect_code "$code" 130
      expect_err "^stopped$"
      [ "$elapsed_ms" -lt 2000 ] || fail "SIG$signal took $elapsed_ms ms to stop the listen"
    done
    ;;
  waiting-does-not-poll)
    # A command waiting for an answer sleeps until the answer, the deadline or a signal: its
    # main thread is not woken every 100 ms (the radio never answers; no terminal, so no
    # countdown to redraw). One second is watched: a 100 ms slice would wake it ten times.
    "$hxf" request audio get device=radio-1 --timeout 60000 >"$out" 2>"$err" &
    pid=$!
    status=/proc/$pid/task/$pid
    switches() { awk '/^voluntary_ctxt_switches/ { print $2 }' "$status/status"; }
    deadline=$(($(now_ms) + 10000))
    until grep -q poll "$status/wchan" 2>/dev/null && [ "$(wc -l <"$err")" = 0 ]; do
      [ "$(now_ms)" -lt "$deadline" ] || { kill -9 $pid; fail "hxf never waited in poll"; }
      sleep 0.05
    done
    before=$(switches)
    sleep 1  # the time watched, not a synchronisation
    after=$(switches)
    kill -INT $pid
    wait $pid
    expect_code "$?" 130
    [ $((after - before)) -le 3 ] || fail "the main thread woke $((after - before)) times in 1 s while waiting"
    ;;
  *)
    echo "unknown case $case_name"; exit 2 ;;
esac
echo "ok [$case_name]"
