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
# start_private_bus: a dbus-daemon of the test's own on $work/bus (write_bus_conf), its PID in
# `pids`, its address in `address` once it listens. Needs work, pids and await_line.
start_private_bus() {
  write_bus_conf "$work/bus.conf" "$work/bus"
  dbus-daemon --config-file="$work/bus.conf" --nofork --print-address=3 3>"$work/address" \
    2>"$work/daemon.err" &
  pids+=($!)
  await_line "$work/address" 10 '^unix:'
  address=unix:path=$work/bus
}
