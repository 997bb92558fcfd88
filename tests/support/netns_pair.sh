# shellcheck shell=bash
# make_netns_pair NS_A IF_A ADDRESS_A NS_B IF_B ADDRESS_B: two network namespaces of the test's
# own joined by a veth pair, loopback up, each end with its address (/16; none where ADDRESS
# is empty) and multicast routed over the link. Nothing leaves the two. Skips the case when a
# part cannot be made; the caller removes both namespaces (ip netns del) on every way out,
# also after a skip. Needs skip and work.
make_netns_pair() {
  local ns_a=$1 if_a=$2 address_a=$3 ns_b=$4 if_b=$5 address_b=$6 side ns ifname address
  ip netns add "$ns_a" 2>"$work/netns.err" || skip "cannot make a network namespace: $(cat "$work/netns.err")"
  ip netns add "$ns_b" || skip "cannot make a second network namespace"
  ip link add "$if_a" type veth peer name "$if_b" || skip "cannot make a veth pair"
  ip link set "$if_a" netns "$ns_a"
  ip link set "$if_b" netns "$ns_b"
  for side in "$ns_a:$if_a:$address_a" "$ns_b:$if_b:$address_b"; do
    IFS=: read -r ns ifname address <<<"$side"
    ip -n "$ns" link set lo up
    ip -n "$ns" link set "$ifname" up multicast on
    [ -z "$address" ] || ip -n "$ns" addr add "$address/16" dev "$ifname"
    ip -n "$ns" route add 224.0.0.0/4 dev "$ifname"
  done
}
