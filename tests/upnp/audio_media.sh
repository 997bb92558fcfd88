# shellcheck shell=bash
# The media renderer and the media of the "audio" tests, sourced after upnp_case.sh (which
# gives in_dev, dev_if, dev_address, id, work, pids, fail and await_line): Debian's
# gmediarender in the device namespace, its GStreamer output a fake sink that keeps the clock
# (nothing is heard), and a local HTTP server there serving a tone made with sox.
# It sets udn (the renderer's), http_port and tone (the tone's URI); start_gmediarender sets
# renderer_pid. Every process started goes into pids.
udn=uuid:hxf-test-renderer-$id
http_port=8765
tone=http://$dev_address:$http_port/tone.wav

start_gmediarender() {
  # fakesink with sync on: the media plays in real time, so it stays PLAYING for a while.
  "${in_dev[@]}" gmediarender -I "$dev_if" -f "Test renderer" -u "${udn#uuid:}" \
    --gstout-audiopipe "fakesink sync=true" --logfile "$work/renderer.log" >"$work/renderer.out" 2>&1 &
  renderer_pid=$!
  pids+=($renderer_pid)
}

start_media() {
  mkdir -p "$work/media"
  sox -n -r 44100 -c 2 "$work/media/tone.wav" synth 60 sine 440 vol 0.1 || fail "sox made no tone"
  "${in_dev[@]}" python3 -u -m http.server "$http_port" --bind "$dev_address" \
    --directory "$work/media" >"$work/http.log" 2>&1 &
  pids+=($!)
  await_line "$work/http.log" 10 'Serving HTTP'
}
