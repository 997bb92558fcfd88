# The private network every UPnP process test starts from, sourced by them: two network
# namespaces joined by a veth pair (link-local addresses, multicast on), the device side
# 169.254.77.1 and the TV side 169.254.77.2. Nothing leaves the namespaces; every process
# started into `pids` is stopped by its PID and the namespaces are removed on every way out.
# The sourcing script sets hxf (the tool), case_name and needs (the commands its case runs);
# it gets skip, fail, work, pids, dev_if, tv_if, in_dev, in_tv, hxf_upnp, now_ms and
# await_line. Exit 77: skipped, with the reason.
skip() { echo "SKIP [$case_name]: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root to make network namespaces"
for tool in ip "${needs[@]}"; do
  command -v "$tool" >/dev/null || skip "$tool is missing (scripts/install-deps.sh upnp)"
done

id=$$
dev_ns=hxf-upnp-dev-$id
tv_ns=hxf-upnp-tv-$id
dev_if=hxfd$id
tv_if=hxft$id
dev_address=169.254.77.1
work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -9 "$pid" 2>/dev/null; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null; done
  ip netns del "$dev_ns" 2>/dev/null
  ip netns del "$tv_ns" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAIL [$case_name]: $*"
  for f in "$work"/*.out "$work"/*.err "$work"/*.log; do [ -s "$f" ] && { echo "--- $f"; tail -"${HXF_TAIL:-30}" "$f"; }; done
  exit 1
}

ip netns add "$dev_ns" 2>"$work/netns.err" || skip "cannot make a network namespace: $(cat "$work/netns.err")"
ip netns add "$tv_ns" || skip "cannot make a second network namespace"
ip link add "$dev_if" type veth peer name "$tv_if" || skip "cannot make a veth pair"
ip link set "$dev_if" netns "$dev_ns"
ip link set "$tv_if" netns "$tv_ns"
for side in "$dev_ns:$dev_if:$dev_address" "$tv_ns:$tv_if:169.254.77.2"; do
  IFS=: read -r ns ifname address <<<"$side"
  ip -n "$ns" link set lo up
  ip -n "$ns" link set "$ifname" up multicast on
  ip -n "$ns" addr add "$address/16" dev "$ifname"
  ip -n "$ns" route add 224.0.0.0/4 dev "$ifname"
done

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
