#!/usr/bin/env bash
# The "audio" service's two providers speak alike: one hxfd on a private bus, in the TV side of
# the private network (upnp_case.sh), loads the simulator and the UPnP plugin; gmediarender
# and the tone it plays (audio_media.sh) are on the device side. The same hxf --bus requests
# go to the simulator's speaker-1 and to the renderer, and each answers with the same
# properties in the same order, the same refusal lines and the same exit codes.
# Usage: test_audio_providers.sh HXFD_BINARY HXF_BINARY CASE   (exit 77: skipped, with the reason)
set -u
hxfd=$1
hxf=$2
case_name=$3
commands=(gmediarender gst-launch-1.0 sox python3 dbus-daemon)
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=upnp_case.sh
source "$here/upnp_case.sh"
# shellcheck source=audio_media.sh
source "$here/audio_media.sh"
# shellcheck source=../support/private_bus.sh
source "$here/../support/private_bus.sh"

start_hxfd() {
  start_private_bus
  "${in_tv[@]}" "$hxfd" --address "$address" --plugin sim --plugin upnp >"$work/hxfd.out" 2>"$work/hxfd.err" &
  pids+=($!)
  await_line "$work/hxfd.err" 10 '^hxfd: serving org.hxf.Broker$'
}

# Runs the sequence against device $1, writing one line per request to $work/$2.steps: the
# operation, hxf's exit code, then the names of the answer's properties in their order, or
# hxf's refusal line.
sequence() {
  local device=$1 name=$2 step=0
  : >"$work/$name.steps"
  while read -r -a request; do
    step=$((step + 1))
    "$hxf" --bus "$address" request audio "${request[0]}" device="$device" "${request[@]:1}" \
      >"$work/$name-$step.out" 2>"$work/$name-$step.err"
    local code=$?
    if [ "$code" = 0 ]; then
      echo "${request[0]} $code $(awk 'NR > 1 { printf "%s ", $1 }' "$work/$name-$step.out")"
    else
      echo "${request[0]} $code $(cat "$work/$name-$step.err")"
    fi >>"$work/$name.steps"
  done <<REQUESTS
get
play
set volume=30 muted=false
play uri=$tone
pause
stop
seek
set volume=150
rewind
REQUESTS
}

case "$case_name" in
  same-words)
    start_renderer() { start_gmediarender; }
    start_renderer
    start_media
    start_hxfd
    # hxfd routes a request to the provider that reported its device: wait until the
    # renderer is among the devices of audio.
    deadline=$(($(now_ms) + 20000))
    until "$hxf" --bus "$address" devices audio --timeout 2000 2>/dev/null | grep -q "^$udn "; do
      [ "$(now_ms)" -lt "$deadline" ] || fail "hxfd did not find the renderer within 20 s"
    done
    sequence speaker-1 sim
    sequence "$udn" upnp
    cat >"$work/expected.steps" <<'STEPS'
get 0 device_id volume muted transport_state position duration 
play 1 hxf: play on audio failed: no media is loaded (play takes uri) (error 2: HXF_ERROR_OPERATION_FAILED)
set 0 device_id volume muted transport_state position duration 
play 0 device_id volume muted transport_state uri position duration 
pause 0 device_id volume muted transport_state uri position duration 
stop 0 device_id volume muted transport_state uri position duration 
seek 1 hxf: seek on audio failed: seek needs position (seconds) (error 4: HXF_ERROR_INVALID_PARAMETER)
set 1 hxf: set on audio failed: volume 150 is out of range 0..100 (error 4: HXF_ERROR_INVALID_PARAMETER)
rewind 1 hxf: rewind on audio failed: unknown operation rewind (get, set, play, pause, stop or seek) (error 4: HXF_ERROR_INVALID_PARAMETER)
STEPS
    for name in sim upnp; do
      diff -u "$work/expected.steps" "$work/$name.steps" >"$work/$name-diff.log" ||
        fail "the $name provider's answers differ from the vocabulary's"
    done
    # The values the requests asked for, from both.
    for out in "$work/sim-3.out" "$work/upnp-3.out"; do
      grep -Eq '^  volume +30$' "$out" || fail "$out: no volume 30"
    done
    for out in "$work/sim-4.out" "$work/upnp-4.out"; do
      grep -Eq "^  uri +$tone\$" "$out" || fail "$out: not the tone's uri"
    done
    for out in "$work/sim-6.out" "$work/upnp-6.out"; do
      grep -Eq '^  transport_state +stopped$' "$out" || fail "$out: not stopped"
    done
    ;;
  *)
    echo "unknown case $case_name"; exit 2 ;;
esac
echo "ok [$case_name]"
