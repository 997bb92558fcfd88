# The private network every UPnP process test starts from, sourced by them: two network
# namespaces joined by a veth pair (link-local addresses, multicast on), the device side
# 169.254.77.1 and the TV side 169.254.77.2. Nothing leaves the namespaces; every process
# started into `pids` is stopped by its PID and the namespaces are removed on every way out.
# The sourcing script sets hxf (the tool), case_name and commands (the commands its case
# runs); it gets skip, fail, work, pids, dev_if, tv_if, in_dev, in_tv, hxf_upnp, now_ms and
# await_line. Exit 77: skipped, with the reason.
# shellcheck source=../support/needs.sh
source "$(dirname "${BASH_SOURCE[0]}")/../support/needs.sh"
[ "$(id -u)" = 0 ] || skip "needs root to make network namespaces"
# shellcheck disable=SC2154 # commands comes from the script that sources this
needs upnp ip "${commands[@]}"

id=$$
dev_ns=hxf-upnp-dev-$id
tv_ns=hxf-upnp-tv-$id
dev_if=hxfd$id
tv_if=hxft$id
dev_address=169.254.77.1
# shellcheck source=../support/bus_case.sh
source "$(dirname "${BASH_SOURCE[0]}")/../support/bus_case.sh"
trap 'cleanup; ip netns del "$dev_ns" 2>/dev/null; ip netns del "$tv_ns" 2>/dev/null' EXIT

# shellcheck source=../support/netns_pair.sh
source "$(dirname "${BASH_SOURCE[0]}")/../support/netns_pair.sh"
make_netns_pair "$dev_ns" "$dev_if" "$dev_address" "$tv_ns" "$tv_if" 169.254.77.2

# Command prefixes, not functions: `ip netns exec` and `env` exec the command, so $! of a
# command started with `&` is the command's own PID.
in_dev=(ip netns exec "$dev_ns")
in_tv=(ip netns exec "$tv_ns" env HXF_UPNP_IFACE="$tv_if")
hxf_upnp=("${in_tv[@]}" "$hxf" --plugin upnp)
# shellcheck source=../support/await.sh
source "$(dirname "${BASH_SOURCE[0]}")/../support/await.sh"
# watch_ssdp: the SSDP announcements heard on the TV side, one "NTS USN" line each, in
# $work/ssdp.log from now on (ssdp_watch.py; it only listens).
watch_ssdp() {
  : >"$work/ssdp.log"
  "${in_tv[@]}" python3 -u "$(dirname "${BASH_SOURCE[0]}")/ssdp_watch.py" 169.254.77.2 120 \
    >>"$work/ssdp.log" 2>&1 &
  pids+=($!)
  await_line "$work/ssdp.log" 5 '^listening$'
}
