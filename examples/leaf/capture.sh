#!/bin/bash
# Builds a small leaf switch from network namespaces and stores the output of `ip -j` about it.
#
#   sudo examples/leaf/capture.sh [DIRECTORY]      default: the script's own directory
#
# All traffic stays inside the namespaces, which are deleted at the end. On a kernel without VRF or
# VLAN devices the leaf has no tenant VRF or no routed subinterface; the script prints this.
set -euo pipefail

directory=$(realpath "${1:-$(dirname "$0")}")
prefix=hostroute-leaf
hosts=(spine1 spine2 host11 host12 host13 host21 router3 admin)

cleanup() {
  for name in switch "${hosts[@]}"; do ip netns delete "$prefix-$name" 2>/dev/null || true; done
}
trap cleanup EXIT
cleanup

on() { ip netns exec "$prefix-$1" "${@:2}"; }
leaf() { ip -n "$prefix-switch" "$@"; }

for name in switch "${hosts[@]}"; do
  ip netns add "$prefix-$name"
  # Nothing else uses these addresses, so duplicate address detection is not needed.
  on "$name" sh -c 'echo 0 > /proc/sys/net/ipv6/conf/default/accept_dad'
  ip -n "$prefix-$name" link set lo up
done

# cable PORT HOST: connects a host to a new port of the switch.
cable() {
  local number
  number=$(printf %02d "${1//[^0-9]/}")
  leaf link add name "$1" address "02:00:00:00:00:$number" type veth \
    peer name eth0 address "02:00:00:00:01:$number" netns "$prefix-$2"
  leaf link set "$1" up
  ip -n "$prefix-$2" link set eth0 up
}
# address HOST ADDRESS...
address() {
  for each in "${@:2}"; do ip -n "$prefix-$1" addr add "$each" dev eth0; done
}
# svi NAME PORT...: a switched LAN of these ports, with an interface for the switch's own addresses.
svi() {
  leaf link add name "$1" address "02:00:00:00:02:${1//[^0-9]/}" type bridge
  leaf link set "$1" up
  for port in "${@:2}"; do leaf link set "$port" master "$1"; done
}

# Loopback, management port, two routed uplinks.
leaf addr add 10.255.0.1/32 dev lo
leaf addr add 2001:db8:ffff::1/128 dev lo
leaf link add name Management1 address 02:00:00:00:00:00 type veth \
  peer name eth0 address 02:00:00:00:01:00 netns "$prefix-admin"
leaf link set Management1 up
ip -n "$prefix-admin" link set eth0 up
leaf addr add 192.0.2.1/24 dev Management1
address admin 192.0.2.10/24
cable Ethernet1 spine1
cable Ethernet2 spine2
leaf addr add 10.0.0.1/31 dev Ethernet1
leaf addr add 2001:db8:0:1::1/127 dev Ethernet1
address spine1 10.0.0.0/31 2001:db8:0:1::/127
leaf addr add 10.0.0.3/31 dev Ethernet2
leaf addr add 2001:db8:0:2::1/127 dev Ethernet2
address spine2 10.0.0.2/31 2001:db8:0:2::/127

# A LAN of two dual-stack hosts, with a secondary address and a second subnet.
cable Ethernet11 host11
cable Ethernet12 host12
svi Vlan10 Ethernet11 Ethernet12
leaf addr add 10.1.10.1/24 dev Vlan10
leaf addr add 10.1.10.2/24 dev Vlan10
leaf addr add 10.1.11.1/24 dev Vlan10
leaf addr add 2001:db8:10::1/64 dev Vlan10
address host11 10.1.10.11/24 2001:db8:10::11/64
address host12 10.1.11.12/24 2001:db8:10::12/64

# A LAN with one host, and a tenant's LAN with the same addresses.
cable Ethernet13 host13
svi Vlan20 Ethernet13
leaf addr add 10.1.20.1/24 dev Vlan20
leaf addr add 2001:db8:20::1/64 dev Vlan20
address host13 10.1.20.13/24 2001:db8:20::13/64
tenant=
if leaf link add name blue type vrf table 10; then
  tenant=blue
  leaf link set blue up
  cable Ethernet21 host21
  svi Vlan30 Ethernet21
  leaf link set Vlan30 master blue
  leaf addr add 10.1.20.1/24 dev Vlan30
  address host21 10.1.20.21/24
  leaf route add vrf blue 10.30.0.0/16 via 10.1.20.21
else
  echo "$0: this kernel has no VRF devices; the leaf goes without the VRF blue" >&2
fi

# A router on a tagged subinterface.
cable Ethernet3 router3
if leaf link add link Ethernet3 name Ethernet3.100 type vlan id 100; then
  leaf link set Ethernet3.100 up
  leaf addr add 10.0.3.1/30 dev Ethernet3.100
  ip -n "$prefix-router3" link add link eth0 name eth0.100 type vlan id 100
  ip -n "$prefix-router3" link set eth0.100 up
  ip -n "$prefix-router3" addr add 10.0.3.2/30 dev eth0.100
  leaf route add 10.3.0.0/16 via 10.0.3.2 proto ospf metric 20
else
  echo "$0: this kernel has no VLAN devices; the router is on the port itself" >&2
  leaf addr add 10.0.3.1/30 dev Ethernet3
  address router3 10.0.3.2/30
  leaf route add 10.3.0.0/16 via 10.0.3.2 proto ospf metric 20
fi

# Routes: default routes through spine1; BGP routes through both spines, as a group of nexthop
# objects and without one; an aggregate blackhole route; a route to a host behind a host.
leaf nexthop add id 1 via 10.0.0.0 dev Ethernet1 proto bgp
leaf nexthop add id 2 via 10.0.0.2 dev Ethernet2 proto bgp
leaf nexthop add id 12 group 1/2 proto bgp
leaf route add default via 10.0.0.0 proto static
leaf route add 10.100.0.0/16 nhid 12 proto bgp metric 20
leaf route add 10.255.0.11/32 nhid 1 proto bgp metric 20
leaf route add blackhole 10.1.0.0/16 proto static
leaf route add 10.9.9.9/32 via 10.1.10.11 proto static
leaf -6 route add default via 2001:db8:0:1:: proto static
leaf -6 route add 2001:db8:100::/40 proto bgp metric 20 \
  nexthop via 2001:db8:0:1:: nexthop via 2001:db8:0:2::

# A datagram to each host makes the switch resolve its address. Resolving 10.1.10.99 fails, because
# no host has it.
for each in 192.0.2.10 10.0.0.0 10.0.0.2 10.0.3.2 10.1.10.11 10.1.11.12 10.1.20.13 10.1.10.99 \
  2001:db8:0:1:: 2001:db8:0:2:: 2001:db8:10::11 2001:db8:10::12 2001:db8:20::13; do
  on switch bash -c "echo > /dev/udp/$each/9"
done
# Here the host sends the datagram, and the switch learns the sender without a process in the VRF.
if [ -n "$tenant" ]; then on host21 bash -c 'echo > /dev/udp/10.1.20.1/9'; fi
leaf neigh add 10.1.20.50 lladdr 02:00:00:00:03:50 dev Vlan20 nud permanent
sleep 1

cd "$directory"
leaf -N -d -j -p link > link.json
leaf -N -j -p addr > addr.json
leaf -N -j -p neigh > neigh.json
leaf -N -4 -j -p route show table all > route4.json
leaf -N -6 -j -p route show table all > route6.json
leaf -N -j -p nexthop > nexthop.json
