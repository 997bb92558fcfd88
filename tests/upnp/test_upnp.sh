#!/usr/bin/env bash
# The UPnP plugin against real third-party UPnP devices on a private network (upnp_case.sh):
# Debian's gupnp-network-light (under Xvfb) and minidlna in the device namespace, the hxf tool
# with --plugin upnp in the other.
# Usage: test_upnp.sh HXF_BINARY CASE [RELOAD_TEST_BINARY]   (exit 77: skipped, with the reason)
set -u
hxf=$1
case_name=$2
reload_test=${3:-}
commands=(Xvfb gupnp-network-light minidlnad python3)
# shellcheck source=upnp_case.sh
source "$(dirname "$0")/upnp_case.sh"

start_light() {
  # Xvfb picks a free display and writes its number on fd 3.
  "${in_dev[@]}" Xvfb -displayfd 3 -nolisten tcp 3>"$work/display" >"$work/xvfb.log" 2>&1 &
  pids+=($!)
  await_line "$work/display" 10 '^[0-9]+$'
  watch_ssdp
  "${in_dev[@]}" env DISPLAY=":$(cat "$work/display")" gupnp-network-light --no-v6 -i "$dev_if" \
    -n "Hall light" >"$work/light.log" 2>&1 &
  light_pid=$!
  pids+=($light_pid)
  # As it starts, the light says byebye and then alive: a request made in between would meet
  # the light leaving and coming back (its answer: the device is gone).
  await_line "$work/ssdp.log" 15 '^ssdp:alive uuid:'
}

start_minidlna() {
  mkdir -p "$work/media" "$work/db"
  cat >"$work/minidlna.conf" <<CONF
network_interface=$dev_if
port=8200
media_dir=$work/media
db_dir=$work/db
log_dir=$work
friendly_name=Test media
notify_interval=5
inotify=no
CONF
  "${in_dev[@]}" minidlnad -f "$work/minidlna.conf" -P "$work/minidlna.pid" -S >"$work/minidlna.out" 2>&1 &
  minidlna_pid=$!
  pids+=($minidlna_pid)
}


# Listens to "upnp" with minidlna running, stops it with SIG$1 and waits at most $2 s for
# the departure; prints how long noticing it took ($3 names what was noticed).
expect_departure() {
  start_minidlna
  "${hxf_upnp[@]}" --json listen upnp --for $((($2 + 20) * 1000)) >"$work/listen.out" 2>"$work/listen.err" &
  pids+=($!)
  await_line "$work/listen.out" 15 '"device_name":"Test media"'
  local start
  start=$(now_ms)
  kill -"$1" "$minidlna_pid"
  await_line "$work/listen.out" "$2" '"event":"left".*"device_name":"Test media"'
  echo "$3 noticed after $(($(now_ms) - start)) ms"
}

case "$case_name" in
  search)
    start_light
    start=$(now_ms)
    "${hxf_upnp[@]}" --json search lights --timeout 8000 >"$work/search.out" 2>"$work/search.err" &
    search_pid=$!
    pids+=($search_pid)
    await_line "$work/search.out" 15 '"event":"found".*"device_name":"Hall light"'
    echo "first device after $(($(now_ms) - start)) ms (hxf started, plugin loaded, M-SEARCH answered)"
    wait "$search_pid" || fail "search exited with $?"
    grep -q '"address":"169.254.77.1","device_id":"uuid:[^"]*","device_name":"[^"]*","interface_name":"'"$tv_if"'","interface_type":"upnp"' "$work/search.out" ||
      fail "the endpoint is not the light's"
    ;;
  set-get)
    start_light
    "${hxf_upnp[@]}" request lights set power=true brightness=40 >"$work/set.out" 2>"$work/set.err" || fail "set failed"
    grep -q '^  power  *true$' "$work/set.out" || fail "set did not answer power true"
    grep -q '^  brightness  *40$' "$work/set.out" || fail "set did not answer brightness 40"
    "${hxf_upnp[@]}" request lights get >"$work/get.out" 2>"$work/get.err" || fail "get failed"
    grep -q '^  power  *true$' "$work/get.out" || fail "get does not read power back"
    grep -q '^  brightness  *40$' "$work/get.out" || fail "get does not read brightness back"
    "${hxf_upnp[@]}" request lights set power=false >"$work/off.out" 2>"$work/off.err" || fail "set power=false failed"
    grep -q '^  power  *false$' "$work/off.out" || fail "power is not off"
    ;;
  set-while-the-light-leaves)
    # A set whose SOAP call is out when the light says byebye: the answer that comes after
    # the light left is told as the device being gone (it aborted the plugin's process once:
    # map::at). hxfd holds the plugin, so the light can be stopped once it is known.
    start_light
    # shellcheck source=../support/private_bus.sh
    source "$(dirname "$0")/../support/private_bus.sh"
    start_private_bus
    "${in_tv[@]}" "$(dirname "$hxf")/../hxfd/hxfd" --address "$address" --plugin upnp --log-level debug \
      --config /dev/null >"$work/hxfd.out" 2>"$work/hxfd.err" &
    hxfd_pid=$!
    pids+=($hxfd_pid)
    await_line "$work/hxfd.err" 10 '^hxfd: serving org.hxf.Broker$'
    "${in_tv[@]}" "$hxf" --bus "$address" --json search lights --timeout 10000 >"$work/search.out" \
      2>"$work/search.err" || fail "the light was not found"
    udn=$(grep -o '"device_id":"uuid:[^"]*"' "$work/search.out" | head -1 | cut -d'"' -f4)
    [ -n "$udn" ] || fail "no device id in the search"
    kill -STOP "$light_pid"
    "${in_tv[@]}" "$hxf" --bus "$address" request lights set device="$udn" power=true \
      >"$work/set.out" 2>"$work/set.err" &
    set_pid=$!
    pids+=($set_pid)
    await_line "$work/hxfd.err" 15 'upnp: SOAP SetTarget to '
    # The light is stopped, so the byebye is the test's: one SSDP NOTIFY from the light's side.
    "${in_dev[@]}" python3 -c '
import socket, sys
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(sys.argv[2]))
msg = ("NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nNT: upnp:rootdevice\r\n"
       "NTS: ssdp:byebye\r\nUSN: %s::upnp:rootdevice\r\n\r\n" % sys.argv[1])
for _ in range(3): s.sendto(msg.encode(), ("239.255.255.250", 1900))
' "$udn" "$dev_address" || fail "cannot send the byebye"
    await_line "$work/hxfd.err" 10 "upnp: Hall light \\($udn\\) is gone"
    kill -CONT "$light_pid"
    wait "$set_pid"
    code=$?
    [ "$code" = 1 ] || fail "exit code $code, expected 1"
    grep -qxF 'hxf: set on lights failed: the device is gone (error 2: HXF_ERROR_OPERATION_FAILED)' "$work/set.err" || fail "no answer naming the departure"
    kill -0 "$hxfd_pid" 2>/dev/null || fail "hxfd is gone"
    ;;
  refuse)
    start_light
    "${hxf_upnp[@]}" --log-level debug request lights set brightness=150 >"$work/refuse.out" 2>"$work/refuse.err"
    code=$?
    [ "$code" = 1 ] || fail "exit code $code, expected 1"
    grep -q '^hxf: set on lights failed: brightness 150 is out of range 0..100 (error 4: HXF_ERROR_INVALID_PARAMETER)$' "$work/refuse.err" ||
      fail "no refusal"
    # The light's state is read once found (GetStatus, GetLoadLevelStatus); no Set... is sent.
    grep -q 'upnp: SOAP GetStatus ' "$work/refuse.err" || fail "the SOAP calls are not logged at debug level"
    grep -q 'upnp: SOAP Set' "$work/refuse.err" && fail "a refused set still made a SOAP call"
    "${hxf_upnp[@]}" --log-level debug request lights get >"$work/get.out" 2>"$work/get.err" || fail "get failed"
    grep -q 'upnp: SOAP GetStatus to http://169.254.77.1:' "$work/get.err" || fail "the SOAP calls are not logged at debug level"
    "${hxf_upnp[@]}" request lights set colour=red 2>"$work/unknown.err"
    grep -q 'unknown property colour (power, brightness)' "$work/unknown.err" || fail "an unknown property is not refused"
    ;;
  watch)
    start_light
    "${hxf_upnp[@]}" request lights set power=false >/dev/null 2>&1 || fail "set power=false failed"
    "${hxf_upnp[@]}" --json --log-level info watch lights --for 8000 >"$work/watch.out" 2>"$work/watch.err" &
    pids+=($!)
    # The watcher is told the light's state once it has subscribed (the first GENA event,
    # or the plugin's own read when GUPnP dropped that event); then a change must reach it.
    await_line "$work/watch.out" 10 '"event":"notification".*"power":false'
    "${hxf_upnp[@]}" request lights set power=true >/dev/null 2>&1 || fail "set power=true failed"
    await_line "$work/watch.out" 10 '"event":"notification".*"power":true'
    ;;
  listen-byebye)
    # SIGTERM: minidlna says byebye.
    expect_departure TERM 10 byebye
    ;;
  listen-expiry)
    # SIGKILL: no byebye. minidlna announces max-age 2 * notify_interval + 10 = 20 s.
    expect_departure KILL 40 expiry
    ;;
  reload)
    # Load, use and unload the plugin five times in one process (a GoogleTest program).
    start_light
    "${in_tv[@]}" HXF_UPNP_TEST_NETWORK=1 HXF_LOG_LEVEL=${HXF_LOG_LEVEL:-warn} "$reload_test" \
      >"$work/reload.out" 2>"$work/reload.err" || fail "the reload test failed"
    grep -q '^\[  PASSED  \] 1 test' "$work/reload.out" || fail "the reload test did not run"
    grep '^round ' "$work/reload.out"
    ;;
  check-plugin)
    # hxf check-plugin upnp with the light on the network: every check passes, or is skipped
    # with its reason. The light answers a search first, so that the checks find it.
    start_light
    "${hxf_upnp[@]}" search lights --timeout 10000 >"$work/search.out" 2>"$work/search.err" ||
      fail "the light was not found"
    "${in_tv[@]}" "$hxf" check-plugin upnp >"$work/check.out" 2>"$work/check.err"
    code=$?
    grep -Evx 'PASS [^ ]+|SKIP [^ ]+: .+' "$work/check.out" >"$work/unexpected.out" &&
      fail "lines other than PASS or SKIP with a reason (exit code $code)"
    [ "$code" = 0 ] || fail "exit code $code"
    for check in exports load-result request-get/lights unload-returns no-threads-left \
                 library-unmapped three-loads; do
      grep -qx "PASS $check" "$work/check.out" || fail "no PASS $check"
    done
    grep -c '^PASS' "$work/check.out" | sed 's/$/ checks passed/'
    grep '^SKIP' "$work/check.out"
    ;;
  *)
    echo "unknown case $case_name"; exit 2 ;;
esac
echo "ok [$case_name]"
