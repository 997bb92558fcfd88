#!/usr/bin/env bash
# hxfd on a system bus as a distribution ships it: a dbus-daemon runs a copy of Debian's stock
# system.conf (its own socket, no fork, pid file, syslog, setuid helper or user switch; the
# test's activation folder), which includes hxfd's bus policy, and callers run as root and as
# the unprivileged user nobody. Also hxfd's configuration file and the installed systemd unit.
# Each case starts its own processes and stops them by their PIDs.
# Usage: test_system_bus.sh HXFD_BINARY CASE       (exit 77: skipped, with the reason)
set -u
hxfd=$1
case_name=$2
here=$(cd "$(dirname "$0")" && pwd)
sources=$here/../../tools/hxfd
built=$(dirname "$hxfd")  # the configured unit and activation file, in system/
stock=/usr/share/dbus-1/system.conf
# shellcheck source=../support/needs.sh
source "$here/../support/needs.sh"
[ "$(id -u)" = 0 ] || skip "needs root: the bus policy is tried for root and for nobody"
command -v runuser >/dev/null || skip "runuser is missing (util-linux)"
[ -r "$stock" ] || skip "$stock is missing (scripts/install-deps.sh dbus)"
needs dbus dbus-daemon busctl gdbus
id nobody >/dev/null 2>&1 || skip "there is no user nobody"

# shellcheck source=../support/bus_case.sh
source "$here/../support/bus_case.sh"
# Readable by nobody, who connects to the socket inside and runs the built hxfd.
chmod 755 "$work"
# shellcheck source=../support/await.sh
source "$here/../support/await.sh"
# shellcheck source=../support/private_bus.sh
source "$here/../support/private_bus.sh"

# The stock configuration, changed only where a test bus must differ; each change is checked
# so that a new shape of the stock file fails here rather than testing something else.
mkdir -p "$work/system.d" "$work/services"
sed -e '/<user>messagebus<\/user>/d' -e '/<fork\/>/d' -e '/<pidfile>/d' -e '/<syslog\/>/d' \
  -e '/<servicehelper>/d' \
  -e "s|<standard_system_servicedirs/>|<servicedir>$work/services</servicedir>|" \
  -e "s|<listen>unix:path=/run/dbus/system_bus_socket</listen>|<listen>unix:path=$work/system_bus_socket</listen>|" \
  "$stock" >"$work/system.conf"
for line in "<servicedir>$work/services</servicedir>" "<listen>unix:path=$work/system_bus_socket</listen>" \
  '<includedir>system.d</includedir>' '<type>system</type>' '<deny own="*"/>' \
  '<deny send_type="method_call"/>'; do
  grep -qF "$line" "$work/system.conf" || fail "the copy of $stock lacks $line"
done
! grep -qE '<user>|<fork/>|<pidfile>|<servicehelper>' "$work/system.conf" ||
  fail "the copy of $stock still forks, switches user or uses the setuid helper"
# <includedir>system.d</includedir> is relative to the configuration: $work/system.d.
cp "$sources/org.hxf.Broker.conf" "$work/system.d/"
if [ "$case_name" = monitor-group ]; then
  # hxf-monitor does not exist here: the policy's rule for it is tried on a group that does.
  getent group users >/dev/null || skip "there is no group users to stand in for hxf-monitor"
  sed -i 's/group="hxf-monitor"/group="users"/' "$work/system.d/org.hxf.Broker.conf"
fi

start_bus() {
  run_bus_daemon "$work/system.conf" system
}
address=unix:path=$work/system_bus_socket
# hxfd --system finds the test's bus as every sd-bus and libdbus client does.
export DBUS_SYSTEM_BUS_ADDRESS=$address
start_hxfd() {
  "$hxfd" --system "$@" >"$work/hxfd.out" 2>"$work/hxfd.err" &
  hxfd_pid=$!
  pids+=("$hxfd_pid")
  await_line "$work/hxfd.err" 10 '^hxfd: serving org.hxf.Broker$'
}
as_nobody() { runuser -u nobody -- "$@"; }
# gdbus, unlike busctl, names the error of a refusal.
monitor=(gdbus call --system --dest org.hxf.Broker --object-path /org/hxf/Broker
  --method org.hxf.Broker1.Monitor)
# The simulator's log line at info (not shown at error).
info_line='HXF_SIM: sim: [0-9]+ devices in [0-9]+ services$'
owner_uid() {
  busctl --system call org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus \
    GetConnectionUnixUser s org.hxf.Broker | cut -d' ' -f2
}
callers() {
  busctl --system get-property org.hxf.Broker /org/hxf/Broker org.hxf.Broker1 Callers | cut -d' ' -f2
}
await_callers() {  # COUNT SECONDS: hxfd holds COUNT callers within SECONDS
  local deadline=$(($(now_ms) + $2 * 1000))
  until [ "$(callers)" = "$1" ]; do
    [ "$(now_ms)" -lt "$deadline" ] || fail "hxfd holds $(callers) callers, not $1, after $2 s"
    sleep 0.1
  done
}
expect_access_denied() {  # WHAT FILE
  grep -q 'org.freedesktop.DBus.Error.AccessDenied' "$2" || fail "$1 was not refused as AccessDenied"
}

case "$case_name" in
  root-owns)
    start_bus
    start_hxfd
    [ "$(owner_uid)" = 0 ] || fail "org.hxf.Broker is not owned by root's hxfd"
    ;;
  nobody-calls)
    /usr/bin/python3 -c 'import dbus, gi' 2>/dev/null ||
      skip "python3-dbus or python3-gi is missing (scripts/install-deps.sh dbus)"
    start_bus
    start_hxfd
    as_nobody busctl --system call org.hxf.Broker /org/hxf/Broker org.hxf.Broker1 GetDevices su \
      lights 2000 >"$work/list.out" 2>"$work/list.err" || fail "nobody cannot list devices"
    grep -q '"lamp-1"' "$work/list.out" || fail "nobody's list has no lamp"
    as_nobody gdbus call --system --dest org.hxf.Broker --object-path /org/hxf/Broker \
      --method org.hxf.Broker1.Request lights set "{'device_id': <'lamp-1'>, 'brightness': <int64 30>}" 2000 \
      >"$work/set.out" 2>"$work/set.err" || fail "nobody cannot request"
    grep -qF "'brightness': <int64 30>" "$work/set.out" || fail "nobody's set did not answer brightness 30"
    # A search and its signals, and a session (Subscribe, Session1.Request, Close), as nobody.
    as_nobody /usr/bin/python3 "$here/client.py" "$address" search >"$work/search.out" 2>"$work/search.err" ||
      fail "nobody's search failed"
    grep -qx 'found lamp-1 ceiling-1' "$work/search.out" || fail "nobody's search did not find both lights"
    as_nobody /usr/bin/python3 - "$address" >"$work/session.out" 2>"$work/session.err" <<'PY' || fail "nobody's session failed"
import sys, dbus
bus = dbus.bus.BusConnection(sys.argv[1])
broker = dbus.Interface(bus.get_object("org.hxf.Broker", "/org/hxf/Broker"), "org.hxf.Broker1")
session = bus.get_object("org.hxf.Broker", broker.Subscribe("lights"))
answer = session.Request("get", {"device_id": "lamp-1"}, dbus.UInt32(2000), dbus_interface="org.hxf.Session1")
print("brightness", int(answer["brightness"]))
print("introspected", "org.hxf.Session1" in session.Introspect(dbus_interface="org.freedesktop.DBus.Introspectable"))
session.Close(dbus_interface="org.hxf.Session1")
PY
    grep -qx 'brightness 30' "$work/session.out" || fail "nobody's session did not read brightness 30"
    grep -qx 'introspected True' "$work/session.out" || fail "nobody cannot introspect a session"
    ;;
  nobody-cannot-own)
    start_bus
    as_nobody gdbus call --system --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
      --method org.freedesktop.DBus.RequestName org.hxf.Broker 0 >"$work/own.out" 2>"$work/own.err" &&
      fail "nobody was let own org.hxf.Broker"
    expect_access_denied "nobody's RequestName" "$work/own.err"
    as_nobody "$hxfd" --system >"$work/hxfd.out" 2>"$work/hxfd.err"
    code=$?
    [ "$code" = 1 ] || fail "hxfd run as nobody exited with $code, not 1"
    grep -qxF "hxfd: cannot serve org.hxf.Broker: Permission denied (the bus's policy does not let this user own the name; on the system bus, root and the user hxf may: org.hxf.Broker.conf)" \
      "$work/hxfd.err" || fail "hxfd run as nobody does not say why it cannot serve"
    # The name is still free for root.
    start_hxfd
    [ "$(owner_uid)" = 0 ] || fail "root's hxfd does not own the name after nobody's tries"
    ;;
  monitor-refused)
    start_bus
    start_hxfd
    as_nobody "${monitor[@]}" >"$work/monitor.out" 2>"$work/monitor.err" && fail "nobody was let open a monitor"
    expect_access_denied "nobody's Monitor" "$work/monitor.err"
    "${monitor[@]}" >"$work/root.out" 2>"$work/root.err" || fail "root cannot open a monitor"
    ;;
  monitor-group)
    # hxfd checks the group itself as well: it is told the same stand-in.
    printf 'plugins = sim\nmonitor-group = users\n' >"$work/hxfd.conf"
    start_bus
    start_hxfd --config "$work/hxfd.conf"
    as_nobody "${monitor[@]}" >"$work/outside.out" 2>"$work/outside.err" &&
      fail "nobody outside the group was let open a monitor"
    expect_access_denied "the Monitor of nobody outside the group" "$work/outside.err"
    runuser -u nobody -G users -- "${monitor[@]}" >"$work/member.out" 2>"$work/member.err" ||
      fail "a member of the monitor group cannot open a monitor"
    ;;
  limits)
    # Each limit refuses nobody's call one past it, naming its key: python3-dbus for the
    # per-caller quotas and the sizes (a caller must stay on the bus to hold anything), gdbus
    # and busctl for a name and a Search's time-out.
    /usr/bin/python3 -c 'import dbus, gi' 2>/dev/null ||
      skip "python3-dbus or python3-gi is missing (scripts/install-deps.sh dbus)"
    printf '%s\n' 'plugins = sim' 'max-sessions-per-caller = 2' 'max-watches-per-caller = 2' \
      'max-pending-per-caller = 2' 'max-name-bytes = 16' 'max-text-bytes = 32' \
      'max-request-bytes = 200' 'max-search-timeout-ms = 10000' >"$work/hxfd.conf"
    start_bus
    start_hxfd --config "$work/hxfd.conf"
    as_nobody /usr/bin/python3 "$here/client.py" "$address" limits >"$work/limits.out" 2>"$work/limits.err" ||
      fail "nobody's calls failed"
    limit='org.hxf.Error.LimitsExceeded'
    for line in \
      "third session: $limit: this caller already has 2 sessions (limit max-sessions-per-caller in hxfd.conf)" \
      "third watch: $limit: this caller already has 2 searches and listens (limit max-watches-per-caller in hxfd.conf)" \
      "third waiting call: $limit: this caller already waits for 2 answers (limit max-pending-per-caller in hxfd.conf)" \
      "value of 33 bytes: $limit: the value of \"name\" is longer than 32 bytes (limit max-text-bytes in hxfd.conf)" \
      "request of 231 bytes: $limit: the request's properties take 231 bytes, more than 200 (limit max-request-bytes in hxfd.conf)" \
      "property name of 17 bytes: $limit: the property name \"ddddddddddddddddd\" is longer than 16 bytes (limit max-name-bytes in hxfd.conf)" \
      "value of 32 bytes: served"; do
      grep -qxF "$line" "$work/limits.out" || fail "nobody's calls did not print: $line"
    done
    as_nobody gdbus call --system --dest org.hxf.Broker --object-path /org/hxf/Broker \
      --method org.hxf.Broker1.Search lights 10001 >"$work/search.out" 2>"$work/search.err" &&
      fail "nobody's Search of 10001 ms was served"
    grep -qF "GDBus.Error:$limit: timeout_ms 10001 is above 10000 ms (limit max-search-timeout-ms in hxfd.conf)" \
      "$work/search.err" || fail "the Search's time-out was not refused naming max-search-timeout-ms"
    as_nobody gdbus call --system --dest org.hxf.Broker --object-path /org/hxf/Broker \
      --method org.hxf.Broker1.Search lights 0 >"$work/zero.out" 2>"$work/zero.err" &&
      fail "nobody's Search of 0 ms was served"
    grep -qF 'GDBus.Error:org.hxf.Error.InvalidParameter: timeout_ms must be above 0' "$work/zero.err" ||
      fail "a Search of 0 ms was not refused as InvalidParameter"
    # busctl shows the message only.
    as_nobody busctl --system call org.hxf.Broker /org/hxf/Broker org.hxf.Broker1 Subscribe s \
      "$(printf 's%.0s' $(seq 40))" >"$work/name.out" 2>"$work/name.err" && fail "nobody's 40-byte service name was served"
    grep -qxF "Call failed: the service name \"$(printf 's%.0s' $(seq 32))\"... (40 bytes) is longer than 16 bytes (limit max-name-bytes in hxfd.conf)" \
      "$work/name.err" || fail "the 40-byte service name was not refused quoting its first 32 bytes"
    ;;
  hit-and-run)
    # 600 of nobody's callers leave before hxfd answers them: hxfd forgets them all, keeps its
    # one match rule for every caller's departure (the stock limit is 512 per connection) and
    # serves the next caller.
    /usr/bin/python3 -c 'import dbus, gi' 2>/dev/null ||
      skip "python3-dbus or python3-gi is missing (scripts/install-deps.sh dbus)"
    start_bus
    start_hxfd
    as_nobody /usr/bin/python3 "$here/client.py" "$address" hit-and-run >"$work/hit.out" 2>"$work/hit.err" ||
      fail "nobody's callers failed"
    await_callers 0 15
    owner=$(busctl --system call org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus \
      GetNameOwner s org.hxf.Broker | cut -d'"' -f2)
    busctl --system call org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.Debug.Stats \
      GetConnectionStats s "$owner" >"$work/stats.out" || fail "the bus's statistics cannot be read"
    grep -qF '"MatchRules" u 1 ' "$work/stats.out" || fail "hxfd does not hold exactly one match rule"
    as_nobody busctl --system call org.hxf.Broker /org/hxf/Broker org.hxf.Broker1 GetDevices su \
      lights 2000 >"$work/list.out" 2>"$work/list.err" || fail "the next caller was not served"
    grep -q '"lamp-1"' "$work/list.out" || fail "the next caller's list has no lamp"
    ;;
  many-users)
    # The stock limits allow 256 connections per user: 1000 callers of 4 users at once.
    for user in daemon bin sys; do id "$user" >/dev/null 2>&1 || skip "there is no user $user"; done
    /usr/bin/python3 -c 'import dbus, gi' 2>/dev/null ||
      skip "python3-dbus or python3-gi is missing (scripts/install-deps.sh dbus)"
    start_bus
    start_hxfd
    timeout 45 /usr/bin/python3 "$here/client.py" "$address" many-users >"$work/many.out" 2>"$work/many.err" ||
      fail "the callers failed"
    grep -qx 'answered 1000' "$work/many.out" || fail "not every one of the 1000 callers was answered"
    grep -qx 'callers held 1000' "$work/many.out" || fail "hxfd did not hold 1000 callers at once"
    await_callers 0 15
    ;;
  activation)
    # The activation file as built, starting the built hxfd: nobody's first call starts it.
    sed "s|^Exec=[^ ]*/hxfd |Exec=$hxfd |" "$built/system/org.hxf.Broker.service" \
      >"$work/services/org.hxf.Broker.service"
    grep -qx "Exec=$hxfd --system" "$work/services/org.hxf.Broker.service" ||
      fail "the activation file does not start hxfd --system"
    for line in Name=org.hxf.Broker User=hxf SystemdService=hxfd.service; do
      grep -qx "$line" "$work/services/org.hxf.Broker.service" || fail "the activation file lacks $line"
    done
    start_bus
    as_nobody busctl --system call org.hxf.Broker /org/hxf/Broker org.hxf.Broker1 GetDevices su \
      lights 2000 >"$work/list.out" 2>"$work/list.err" || fail "nobody's call did not activate hxfd"
    pid=$(busctl --system call org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus \
      GetConnectionUnixProcessID s org.hxf.Broker | cut -d' ' -f2)
    [ -n "$pid" ] && pids+=("$pid")
    grep -q '"lamp-1"' "$work/list.out" || fail "the activated hxfd lists no lamp"
    ;;
  unit)
    # The system unit as built, checked by systemd itself (no running systemd needed).
    command -v systemd-analyze >/dev/null || skip "systemd-analyze is missing (scripts/install-deps.sh dbus)"
    mkdir "$work/unit"
    sed "s|^ExecStart=[^ ]*/hxfd |ExecStart=$hxfd |" "$built/system/hxfd.service" >"$work/unit/hxfd.service"
    for line in Type=dbus BusName=org.hxf.Broker "ExecStart=$hxfd --system" User=hxf \
      ProtectSystem=strict ProtectHome=yes PrivateTmp=yes PrivateDevices=yes NoNewPrivileges=yes \
      'RestrictAddressFamilies=AF_UNIX AF_NETLINK AF_INET AF_INET6'; do
      grep -qxF "$line" "$work/unit/hxfd.service" || fail "the unit lacks $line"
    done
    systemd-analyze verify --man=no "$work/unit/hxfd.service" >"$work/verify.out" 2>"$work/verify.err" ||
      fail "systemd-analyze verify failed"
    [ -s "$work/verify.err" ] && fail "systemd-analyze verify warns"
    # The user and group it names, as systemd-sysusers would create them.
    if command -v systemd-sysusers >/dev/null; then
      mkdir "$work/root"
      systemd-sysusers --root="$work/root" --dry-run "$sources/hxfd.sysusers" >"$work/sysusers.out" 2>&1 ||
        fail "systemd-sysusers refuses hxfd.sysusers"
      grep -q "^Creating user 'hxf' " "$work/sysusers.out" || fail "hxfd.sysusers creates no user hxf"
      grep -q "^Creating group 'hxf-monitor' " "$work/sysusers.out" ||
        fail "hxfd.sysusers creates no group hxf-monitor"
    fi
    ;;
  config-file)
    # The file picks the plugins and the log level; hxfd --system serves with them.
    printf '# the simulator only\nplugins = sim   # inline comment\n\nlog-level = info\n' >"$work/hxfd.conf"
    start_bus
    start_hxfd --config "$work/hxfd.conf"
    grep -Eq "$info_line" "$work/hxfd.err" || fail "log-level = info did not show the core's info lines"
    busctl --system call org.hxf.Broker /org/hxf/Broker org.hxf.Broker1 GetDevices su lights 2000 \
      >"$work/list.out" || fail "no answer with the configured simulator"
    grep -q '"lamp-1"' "$work/list.out" || fail "the configured simulator lists no lamp"
    ;;
  config-override)
    # The command line wins: the file's plugin does not exist, --plugin sim does.
    printf 'plugins = nosuch\nlog-level = info\n' >"$work/hxfd.conf"
    start_bus
    start_hxfd --config "$work/hxfd.conf" --plugin sim --log-level error
    grep -q 'nosuch' "$work/hxfd.err" && fail "hxfd loaded the file's plugin despite --plugin"
    grep -Eq "$info_line" "$work/hxfd.err" && fail "--log-level error did not override the file's info"
    busctl --system call org.hxf.Broker /org/hxf/Broker org.hxf.Broker1 GetDevices su lights 2000 \
      >"$work/list.out" || fail "no answer with --plugin sim"
    ;;
  config-errors)
    # Each mistake: exit 2 before touching the bus, its file and line, what is wrong.
    expect_config_error() {  # TEXT EXPECTED-LINE
      printf '%b' "$1" >"$work/bad.conf"
      "$hxfd" --system --config "$work/bad.conf" >"$work/bad.out" 2>"$work/bad.err"
      code=$?
      [ "$code" = 2 ] || fail "'$1' exited with $code, not 2"
      grep -qxF "hxfd: $work/bad.conf:$2" "$work/bad.err" || fail "'$1' did not say: bad.conf:$2"
    }
    expect_config_error '# fine\nplugins = sim\nlog-level = loud\n' \
      '3: log-level "loud" is not one of debug, info, error'
    expect_config_error '\n\nplugins sim\n' '3: expected "key = value", not "plugins sim"'
    expect_config_error 'plugin = sim\n' '1: unknown key "plugin" (known: plugins, log-level, monitor-group, max-..., mqtt, node, mqtt-...: see hxfd(1))'
    expect_config_error 'plugins = sim\n# again\nplugins = upnp\n' '3: duplicate key "plugins" (first on line 1)'
    expect_config_error 'log-level =   # none\n' '1: log-level needs a value'
    expect_config_error '= sim\n' '1: expected "key = value", not "= sim"'
    expect_config_error 'plugins = sim upnp sim\n' '1: plugins names "sim" twice'
    expect_config_error "$(printf 'x%.0s' $(seq 100))\n" \
      "1: expected \"key = value\", not \"$(printf 'x%.0s' $(seq 40))...\""
    # A file named on the command line must be there; the default one need not.
    "$hxfd" --config "$work/none.conf" >/dev/null 2>"$work/none.err"
    code=$?
    [ "$code" = 2 ] || fail "a missing --config file exited with $code, not 2"
    grep -qxF "hxfd: $work/none.conf: cannot be read: No such file or directory" "$work/none.err" ||
      fail "a missing --config file is not named"
    "$hxfd" --help >"$work/help.out" || fail "hxfd --help failed"
    grep -q -- '--config TEXT=.*/hxf/hxfd.conf' "$work/help.out" || fail "--help does not show the default file"
    ;;
  *)
    echo "unknown case $case_name"; exit 2 ;;
esac
echo "ok [$case_name]"
