#!/usr/bin/env bash
# The UPnP plugin's "audio" service against a real media renderer on a private network
# (upnp_case.sh): a renderer in the device namespace, its GStreamer output a fake sink that
# keeps the clock (nothing is heard), and a local HTTP server there serving a tone the test
# makes with sox; the hxf tool with --plugin upnp in the other namespace.
# Usage: test_upnp_audio.sh HXF_BINARY CASE [RENDERER]   (exit 77: skipped, with the reason)
# RENDERER: gmediarender (the default, Debian's) or rygel (its playbin renderer, headless: a
# private configuration and XDG folders, no session bus, no other plugin).
set -u
hxf=$1
case_name=$2
renderer=${3:-gmediarender}
case "$renderer" in
  gmediarender) commands=(gmediarender gst-launch-1.0 sox python3) ;;
  rygel) commands=(rygel sox python3) ;;
  *) echo "unknown renderer $renderer"; exit 2 ;;
esac
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=../support/needs.sh
source "$here/../support/needs.sh"
if [ "$renderer" = rygel ]; then
  playbin=""
  for f in /usr/lib/*/rygel-2.8/plugins/librygel-playbin.so /usr/lib*/rygel-2.8/plugins/librygel-playbin.so; do
    [ -e "$f" ] && playbin=$f
  done
  rygel_template=$(dirname "$(command -v rygel 2>/dev/null || echo /usr/bin/rygel)")/../share/rygel/xml/MediaRenderer2.xml
  for missing in "$playbin:rygel's playbin plugin (rygel-playbin)" "$([ -e "$rygel_template" ] && echo x):rygel's MediaRenderer2.xml"; do
    [ -n "${missing%%:*}" ] || skip "${missing#*:} is missing (scripts/install-deps.sh upnp)"
  done
fi
# shellcheck source=upnp_case.sh
source "$(dirname "$0")/upnp_case.sh"

# shellcheck source=audio_media.sh
source "$(dirname "$0")/audio_media.sh"
# What differs per renderer: its model name, how it refuses a pause while nothing plays, and
# whether it refuses media of a type it cannot play and a seek past the end (an empty text: it
# does not).
case "$renderer" in
  gmediarender)
    model=gmediarender
    pause_refused="Pause failed: Transition to PAUSE not allowed; allowed=PLAY (UPnP error 501)"
    mime_refused=""
    seek_refused=""  # it takes a seek past the end, and answers that position
    ;;
  rygel)
    model=Rygel
    pause_refused="Pause failed: Transition not available (UPnP error 701)"
    mime_refused="SetAVTransportURI failed: Illegal MIME-type (UPnP error 714)"
    seek_refused="Seek failed: Illegal seek target (UPnP error 711)"
    ;;
esac

start_renderer() { "start_$renderer"; }

# rygel with its playbin plugin alone, its configuration and state in $work/rygel (it reads
# $XDG_CONFIG_HOME/rygel.conf; its -c option is not honoured by the version in Debian 12),
# without the caller's environment: no display, no session bus (it runs without one), no
# dconf. It keeps the UDN of the description it finds in its configuration folder. As it
# starts it says byebye for that UDN before its first alive: the case goes on once the TV
# side heard an alive, so that no byebye of its start takes the renderer away later.
start_rygel() {
  local config=$work/rygel/config
  mkdir -p "$config/Rygel" "$work/rygel/cache" "$work/rygel/data" "$work/rygel/runtime"
  chmod 700 "$work/rygel/runtime"
  sed "s|<UDN></UDN>|<UDN>$udn</UDN>|" "$rygel_template" >"$config/Rygel/Playbin.xml"
  cat >"$config/rygel.conf" <<CONF
[general]
ipv6=false
enable-transcoding=false
media-engine=librygel-media-engine-gst.so
interface=$dev_if
port=0
[Playbin]
enabled=true
title=Test renderer
audio-sink=fakesink sync=true
video-sink=fakesink sync=true
[MediaExport]
enabled=false
[Tracker]
enabled=false
[Tracker3]
enabled=false
[LMS]
enabled=false
[GstLaunch]
enabled=false
[MPRIS]
enabled=false
[External]
enabled=false
[Ruih]
enabled=false
CONF
  watch_ssdp
  "${in_dev[@]}" env -i PATH=/usr/local/bin:/usr/bin:/bin HOME="$work/rygel" \
    XDG_CONFIG_HOME="$config" XDG_CACHE_HOME="$work/rygel/cache" \
    XDG_DATA_HOME="$work/rygel/data" XDG_RUNTIME_DIR="$work/rygel/runtime" \
    GSETTINGS_BACKEND=memory rygel >>"$work/renderer.out" 2>&1 &
  renderer_pid=$!
  pids+=($renderer_pid)
  await_line "$work/ssdp.log" 15 "^ssdp:alive $udn(::|\$)"
}

# The tone again, from a server that answers byte ranges (python's http.server does not, and
# a renderer seeks in media over HTTP by asking for the part from there on): ranged_tone.
ranged_port=8766
ranged_tone=http://$dev_address:$ranged_port/tone.wav
start_ranged_media() {
  mkdir -p "$work/ranged"
  sox -n -r 44100 -c 2 "$work/ranged/tone.wav" synth 60 sine 440 vol 0.1 || fail "sox made no tone"
  "${in_dev[@]}" python3 -u "$here/range_http.py" "$dev_address" "$ranged_port" "$work/ranged" \
    >"$work/ranged_http.log" 2>&1 &
  pids+=($!)
  await_line "$work/ranged_http.log" 10 '^Serving HTTP'
}

# A watcher of audio in the background (JSON lines in $work/watch.out), once it has heard the
# renderer's state: the plugin has subscribed and read it, so a change from now on reaches it.
watch_renderer() {
  "${hxf_upnp[@]}" --json watch audio --for 30000 >"$work/watch.out" 2>"$work/watch.err" &
  pids+=($!)
  await_line "$work/watch.out" 15 '"event":"notification".*"transport_state":"(no_media|stopped)"'
}

# Runs hxf NAME ARGS...: stdout to $work/NAME.out, stderr to $work/NAME.err; sets `code`.
run() {
  local name=$1
  shift
  "${hxf_upnp[@]}" "$@" >"$work/$name.out" 2>"$work/$name.err"
  code=$?
}
# The file $1 has the exact line $2.
has_line() { grep -qxF -- "$2" "$1"; }

case "$case_name" in
  search)
    start_renderer
    run search search audio --timeout 4000
    [ "$code" = 0 ] || fail "search exited with $code"
    grep -Eq "^$udn +Test renderer +audio +$dev_address +$tv_if/upnp\$" "$work/search.out" ||
      fail "the renderer is not found as a device of audio"
    has_line "$work/search.err" "1 device(s) offer audio" || fail "not one device"
    run json --json devices audio --timeout 4000
    grep -q '"ui_meta":{.*"model":"'"$model"'"' "$work/json.out" || fail "the model is not in the UI meta data"
    ;;
  volume)
    start_renderer
    run set request audio set volume=30 muted=false
    [ "$code" = 0 ] || fail "set exited with $code"
    has_line "$work/set.out" "set on audio: ok" || fail "set did not answer"
    grep -Eq '^  volume +30$' "$work/set.out" || fail "set did not answer volume 30"
    grep -Eq '^  muted +false$' "$work/set.out" || fail "set did not answer muted false"
    run get request audio get device="$udn"
    [ "$code" = 0 ] || fail "get exited with $code"
    grep -Eq "^  device_id +$udn\$" "$work/get.out" || fail "get does not name the renderer"
    grep -Eq '^  volume +30$' "$work/get.out" || fail "get does not read volume 30 back"
    grep -Eq '^  transport_state +(no_media|stopped)$' "$work/get.out" || fail "get has no transport state"
    ;;
  play)
    start_renderer
    start_media
    watch_renderer
    run play request audio play uri="$tone"
    [ "$code" = 0 ] || fail "play exited with $code"
    grep -Eq "^  uri +$tone\$" "$work/play.out" || fail "play does not answer the URI"
    await_line "$work/watch.out" 10 '"event":"notification".*"transport_state":"playing".*"uri":"'"$tone"'"'
    run pause request audio pause
    [ "$code" = 0 ] || fail "pause exited with $code"
    await_line "$work/watch.out" 10 '"event":"notification".*"transport_state":"paused"'
    run stop request audio stop
    [ "$code" = 0 ] || fail "stop exited with $code"
    await_line "$work/watch.out" 10 '"event":"notification".*"transport_state":"stopped"'
    grep -Eq '^  transport_state +stopped$' "$work/stop.out" || fail "stop does not answer stopped"
    ;;
  refuse)
    start_renderer
    run volume --log-level debug request audio set volume=150
    [ "$code" = 1 ] || fail "exit code $code, expected 1"
    has_line "$work/volume.err" "hxf: set on audio failed: volume 150 is out of range 0..100 (error 4: HXF_ERROR_INVALID_PARAMETER)" ||
      fail "no refusal"
    # The state is read once the renderer is found (GetVolume...); no Set... is sent.
    grep -q 'upnp: SOAP GetVolume to http://169.254.77.1:' "$work/volume.err" || fail "the SOAP calls are not logged at debug level"
    grep -q 'upnp: SOAP Set' "$work/volume.err" && fail "a refused set still made a SOAP call"
    run muted request audio set muted=1
    has_line "$work/muted.err" "hxf: set on audio failed: muted takes a bool (error 4: HXF_ERROR_INVALID_PARAMETER)" ||
      fail "muted=1 is not refused"
    run seek request audio seek
    has_line "$work/seek.err" "hxf: seek on audio failed: seek needs position (seconds) (error 4: HXF_ERROR_INVALID_PARAMETER)" ||
      fail "seek without a position is not refused"
    run other request audio rewind
    has_line "$work/other.err" "hxf: rewind on audio failed: unknown operation rewind (get, set, play, pause, stop or seek) (error 4: HXF_ERROR_INVALID_PARAMETER)" ||
      fail "an unknown operation is not refused"
    ;;
  upnp-error)
    # Nothing loaded: the renderer itself refuses to pause, with its UPnP error code.
    start_renderer
    run pause request audio pause
    [ "$code" = 1 ] || fail "exit code $code, expected 1"
    has_line "$work/pause.err" "hxf: pause on audio failed: $pause_refused (error 2: HXF_ERROR_OPERATION_FAILED)" ||
      fail "the renderer's error does not reach the consumer with its code"
    ;;
  illegal-mime)
    # A URI of a type the renderer cannot play: refused when it is set, with its UPnP code.
    [ -n "$mime_refused" ] || skip "$renderer takes a URI of any type"
    start_renderer
    start_media
    printf 'not audio\n' >"$work/media/notes.txt"
    run play request audio play uri="http://$dev_address:$http_port/notes.txt"
    [ "$code" = 1 ] || fail "exit code $code, expected 1"
    has_line "$work/play.err" "hxf: play on audio failed: $mime_refused (error 2: HXF_ERROR_OPERATION_FAILED)" ||
      fail "the renderer's refusal does not reach the consumer with its code"
    run get request audio get
    grep -Eq '^  transport_state +no_media$' "$work/get.out" || fail "the refused URI was loaded"
    ;;
  search-restart)
    # The renderer restarts while a search runs and says byebye before its alive as it starts
    # again (rygel does): it is still one device of the search.
    [ "$renderer" = rygel ] || skip "$renderer says no byebye as it starts"
    start_renderer
    "${hxf_upnp[@]}" --log-level debug search audio --timeout 9000 >"$work/search.out" 2>"$work/search.err" &
    search_pid=$!
    pids+=($search_pid)
    found="upnp: found Test renderer ($udn)"
    await_line "$work/search.err" 10 "upnp: found Test renderer \\($udn\\)"
    kill -TERM "$renderer_pid"
    await_line "$work/search.err" 10 "upnp: Test renderer \\($udn\\) is gone"
    start_renderer
    deadline=$(($(now_ms) + 5000))
    until [ "$(grep -cF "$found" "$work/search.err")" -ge 2 ]; do
      [ "$(now_ms)" -lt "$deadline" ] || fail "the search did not see the renderer come back"
      sleep 0.05
    done
    wait "$search_pid"
    code=$?
    [ "$code" = 0 ] || fail "search exited with $code"
    [ "$(grep -c "^$udn " "$work/search.out")" = 1 ] || fail "the renderer is not listed once"
    has_line "$work/search.err" "1 device(s) offer audio" || fail "not one device"
    ;;
  seek)
    # While it plays, and past the end of the media (60 s): refused by the renderer, if it does.
    start_renderer
    start_ranged_media
    watch_renderer
    run play request audio play uri="$ranged_tone"
    [ "$code" = 0 ] || fail "play exited with $code"
    await_line "$work/watch.out" 10 '"event":"notification".*"transport_state":"playing"'
    run seek request audio seek position=30
    [ "$code" = 0 ] || fail "seek exited with $code"
    grep -Eq '^  position +3[0-5]$' "$work/seek.out" || fail "seek does not answer position 30"
    grep -Eq '^  transport_state +playing$' "$work/seek.out" || fail "the renderer stopped playing"
    await_line "$work/ranged_http.log" 10 '"GET /tone.wav HTTP/1.1" 206 '  # it asked for a range
    [ -n "$seek_refused" ] || { echo "ok [$case_name] ($renderer takes a seek past the end)"; exit 0; }
    run past request audio seek position=70
    [ "$code" = 1 ] || fail "exit code $code, expected 1"
    has_line "$work/past.err" "hxf: seek on audio failed: $seek_refused (error 2: HXF_ERROR_OPERATION_FAILED)" ||
      fail "the renderer's refusal does not reach the consumer with its code"
    ;;
  byebye)
    # SIGTERM: the renderer says byebye as it ends.
    start_renderer
    "${hxf_upnp[@]}" listen audio --for 30000 >"$work/listen.out" 2>"$work/listen.err" &
    pids+=($!)
    await_line "$work/listen.out" 15 "^(found|arrived) +$udn +Test renderer +$dev_address\$"
    start=$(now_ms)
    kill -TERM "$renderer_pid"
    await_line "$work/listen.out" 10 "^left +$udn +Test renderer +$dev_address\$"
    echo "byebye noticed after $(($(now_ms) - start)) ms"
    ;;
  *)
    echo "unknown case $case_name"; exit 2 ;;
esac
echo "ok [$case_name]"
