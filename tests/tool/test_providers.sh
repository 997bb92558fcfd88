#!/usr/bin/env bash
# Two providers of one service, in process: a request reaches the provider that reported its
# device, whichever plugin subscribed first; a device two providers report is refused; a watch
# hears every provider. The fixtures "strips" (strip-1) and "lamps" (lamp-1) offer lights.
# Usage: test_providers.sh HXF_BINARY CASE
set -u
hxf=$1
case_name=$2
# shellcheck source=../support/tool_case.sh
source "$(dirname "$0")/../support/tool_case.sh"

case "$case_name" in
  request-reaches-the-simulators-device-in-either-load-order)
    for order in "sim strips" "strips sim"; do
      set -- $order
      for _ in 1 2 3 4 5; do
        code=$(run --plugin "$1" --plugin "$2" --json request lights get device=lamp-1)
        expect_code "$code" 0
        expect_out '"device_id":"lamp-1"'
        expect_out '"brightness":70'  # the simulator's lamp, not a fixture's answer
      done
    done
    ;;
  request-reaches-the-fixtures-device-in-either-load-order)
    for order in "sim strips" "strips sim"; do
      set -- $order
      for _ in 1 2 3 4 5; do
        code=$(run --plugin "$1" --plugin "$2" --json request lights get device=strip-1)
        expect_code "$code" 0
        expect_out '"provider":"strips"'
      done
    done
    ;;
  a-device-of-two-providers-is-a-conflict)
    for order in "sim lamps" "lamps sim"; do
      set -- $order
      code=$(run --plugin "$1" --plugin "$2" request lights get device=lamp-1)
      expect_code "$code" 1
      expect_err "^hxf: device lamp-1 of lights is reported by several providers (lamps, sim): load only one of them (error 4: HXF_ERROR_INVALID_PARAMETER)$"
    done
    ;;
  found-devices-name-their-provider)
    code=$(run --plugin sim --plugin strips --json search lights --timeout 800)
    expect_code "$code" 0
    expect_out '"device_id":"lamp-1",.*"ui_meta":{.*"provider":"sim"'
    expect_out '"device_id":"strip-1",.*"ui_meta":{.*"provider":"strips"'
    ;;
  devices-lists-every-providers-devices)
    for order in "sim strips" "strips sim"; do
      set -- $order
      code=$(run --plugin "$1" --plugin "$2" devices lights)
      expect_code "$code" 0
      for device in strip-1 lamp-1 ceiling-1; do expect_out "^$device "; done
      [ "$(wc -l <"$out")" = 4 ] || fail "[$order] not a heading and 3 devices"
    done
    ;;
  watch-hears-every-provider)
    # The simulator's lamp drifts, so that it notifies as the fixture does.
    cat >"$work/live.json" <<'JSON'
{ "devices": [ {"id": "lamp-1", "service": "lights", "properties": [
    {"name": "level", "type": "double", "value": 5.0, "min": 0, "max": 10,
     "drift": {"step": 0.5, "every_ms": 200}}]} ] }
JSON
    for order in "sim strips" "strips sim"; do
      set -- $order
      code=$(HXF_SIM_CONFIG="$work/live.json" run --plugin "$1" --plugin "$2" --json watch lights --for 1200)
      expect_code "$code" 0
      expect_out '^{"event":"notification",.*"device_id":"lamp-1","level":.*"service":"lights"}$'
      expect_out '^{"event":"notification",.*"device_id":"strip-1","provider":"strips".*"service":"lights"}$'
    done
    ;;
  *)
    fail "unknown case"
    ;;
esac
echo "PASS [$case_name]"
