# A private D-Bus configuration for the tests and the install check, sourced by them.
# write_bus_conf FILE SOCKET [SERVICEDIR]: a session-type bus on SOCKET that anyone may use
# and that activates nothing, or only the services in SERVICEDIR.
write_bus_conf() {
  local servicedir=""
  [ -n "${3:-}" ] && servicedir="<servicedir>$3</servicedir>"
  cat >"$1" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=$2</listen>
  <auth>EXTERNAL</auth>
  $servicedir
  <policy context="default">
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
    <allow own="*"/>
  </policy>
</busconfig>
CONF
}
# run_bus_daemon CONF NAME: a dbus-daemon of the configuration file CONF, its PID in `pids`,
# what it prints in $work/NAME-daemon.err; returns once it listens. Needs work, pids and
# await_line.
run_bus_daemon() {
  dbus-daemon --config-file="$1" --nofork --print-address=3 3>"$work/$2.address" \
    2>"$work/$2-daemon.err" &
  pids+=($!)
  await_line "$work/$2.address" 10 '^unix:'
}
# start_private_bus: a bus of the test's own on $work/bus (write_bus_conf); its address in
# `address`.
start_private_bus() {
  write_bus_conf "$work/bus.conf" "$work/bus"
  run_bus_daemon "$work/bus.conf" bus
  address=unix:path=$work/bus
}
