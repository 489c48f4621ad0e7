// Makes the captures for the tests of messages: the kernel's notifications of changes.
//
// Usage, as root: netlink_capture DIR. Writes a file of netlink messages for each kind of change.
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>
#include <thread>

#include "tests/netns/Namespace.h"

namespace {

struct Scenario {
  const char* name;
  std::string_view commands;
};

constexpr Scenario kScenarios[] = {
    {"links", R"(
link add br0 type bridge
link set e1 master br0
link add link e2 name vrrp4 type macvlan mode bridge
link set vrrp4 address 00:00:5e:00:01:05
link add bond0 type bond
link add e2.7 link e2 type vlan id 7
link add vx0 type vxlan id 5 dstport 4789 local 10.0.1.1
link set e1 nomaster
link set h1 down
link set h1 up
link set e1 name swp1
link del vrrp4
link del br0
link add red type vrf table 1001
link set e2 master red
)"},
    {"addresses", R"(
addr add 10.0.1.9/24 dev e1
addr add 10.0.5.1 peer 10.0.5.2 dev e1
addr add 2001:db8:1::9/64 dev e1
addr add 2001:db8:5::1 peer 2001:db8:5::2 dev e1
addr del 10.0.1.1/24 dev e1
addr flush dev e2
)"},
    {"neighbors", R"(
neigh add 10.0.1.50 lladdr 02:00:00:00:00:01 dev e1
neigh add 10.0.1.51 lladdr 02:00:00:00:00:02 dev e1 nud stale
neigh add 2001:db8:1::50 lladdr 02:00:00:00:00:01 dev e1 nud reachable
neigh add 10.0.2.50 lladdr 02:00:00:00:00:03 dev e2 extern_learn
neigh add proxy 10.0.1.52 dev e1
neigh change 10.0.1.50 nud failed dev e1
neigh del 10.0.1.51 dev e1
)"},
    {"routes", R"(
route add 10.9.0.0/24 nexthop via 10.0.1.2 nexthop via 10.0.2.2 weight 3
route add 10.10.0.0/24 via inet6 fe80::1 dev e1
route add 10.11.0.0/24 dev e1 metric 5 table 1000 proto bird
route append 10.11.0.0/24 dev e2 metric 5 table 1000
route replace 10.9.0.0/24 via 10.0.1.3 src 10.0.2.1
route add blackhole 10.12.0.0/24
route add unreachable 10.13.0.0/24
route add 10.14.0.0/24 dev e1 tos 4
route add default via 10.0.1.254
route add local 10.15.0.0/24 dev lo
route add 10.16.0.0/24 encap ip id 7 dst 10.0.1.2 dev e1
route add 10.17.0.0/24 encap mpls 100 via 10.0.1.2
route add 10.18.0.0/24 encap seg6 mode encap segs 2001:db8:1::2 dev e1
route del 10.9.0.0/24
)"},
    {"routes6", R"(
route add 2001:db8:9::/64 nexthop via 2001:db8:1::2 nexthop via 2001:db8:2::2
route append 2001:db8:9::/64 via 2001:db8:2::3
route del 2001:db8:9::/64 via 2001:db8:2::2
route replace 2001:db8:9::/64 via 2001:db8:1::4
route add 2001:db8:a::/64 dev e1 metric 7 table 1000 src 2001:db8:1::1
route add unreachable 2001:db8:c::/64
route add 2001:db8:d::/64 from 2001:db8:1::/64 dev e1
route add default via fe80::1 dev e1
route add 2001:db8:e::/64 encap seg6 mode encap segs 2001:db8:1::2 dev e1
route add 2001:db8:f::/64 encap ip6 id 7 dst 2001:db8:1::2 dev e1
route del 2001:db8:9::/64
)"},
    {"nexthops", R"(
nexthop add id 1 via 10.0.1.7 dev e1
nexthop add id 2 via 10.0.2.7 dev e2
nexthop add id 3 via 2001:db8:1::7 dev e1
nexthop add id 4 blackhole
nexthop add id 5 dev e1
nexthop add id 6 via 10.0.1.8 fdb
nexthop add id 10 group 1/2,5
nexthop add id 13 group 1/2 type resilient buckets 4
route add 10.20.0.0/24 nhid 1
route add 10.21.0.0/24 nhid 10
route add 2001:db8:20::/64 nhid 3
route add 10.22.0.0/24 nhid 4
nexthop replace id 1 via 10.0.1.8 dev e1
nexthop del id 1
)"},
};

constexpr std::array kGroups = {RTNLGRP_LINK,        RTNLGRP_NEIGH,      RTNLGRP_IPV4_IFADDR,
                                RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE,
                                RTNLGRP_NEXTHOP};

/// The notifications of a namespace's sockets during the commands and shortly afterwards.
std::string capture(const Scenario& scenario) {
  const Linux::Namespace space;
  space.ip(Linux::kPorts);
  mnl_socket* const socket = mnl_socket_open(NETLINK_ROUTE);
  if (socket == nullptr || mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) != 0)
    throw std::runtime_error("cannot open a netlink socket");
  for (int group : kGroups)
    mnl_socket_setsockopt(socket, NETLINK_ADD_MEMBERSHIP, &group, sizeof group);
  space.ipAnyway(scenario.commands);
  if (scenario.name == std::string_view("links")) {
    space.ip("link add br1 type bridge\nlink set br1 up\nlink set h2 master br1");
    space.bridge(
        "fdb add 02:00:00:00:00:11 dev h2 master dynamic\n"
        "fdb add 02:00:00:00:00:13 dev h2 self permanent\n"
        "fdb del 02:00:00:00:00:11 dev h2 master");
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));
  std::string bytes;
  std::array<char, 65536> buffer{};
  for (ssize_t size = 0;; bytes.append(buffer.data(), static_cast<size_t>(size))) {
    size = recv(mnl_socket_get_fd(socket), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size <= 0) break;
    bytes.resize((bytes.size() + 3) / 4 * 4);
  }
  mnl_socket_close(socket);
  return bytes;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: netlink_capture DIR\n";
    return 2;
  }
  try {
    for (const Scenario& scenario : kScenarios) {
      const std::string bytes = capture(scenario);
      std::ofstream out(std::string(argv[1]) + "/" + scenario.name + ".nl", std::ios::binary);
      if (!(out << bytes).flush()) throw std::runtime_error("cannot write into the folder");
      std::cout << scenario.name << ": " << bytes.size() << " bytes\n";
    }
  } catch (const std::exception& error) {
    std::cerr << "netlink_capture: " << error.what() << "\n";
    return 1;
  }
}
