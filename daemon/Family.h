// The address families of a switch: the engine's families with further types and functions.
#pragma once

#include <optional>
#include <type_traits>

#include "host/Family.h"
#include "host/HostRouteSm.h"
#include "host6/Family.h"
#include "host6/HostRoute6Sm.h"
#include "platform/ip/Ip6Status.h"
#include "platform/ip/IpStatus.h"
#include "platform/zemit/IpAddrWithMask.h"

namespace Daemon {

/// IPv4: its number, types in addition to those of the engine, and writes to its tables.
struct Ipv4 : Routing::Host::Ipv4 {
  using AddrWithMask = Zemit::IpAddrWithMask;
  using Fec = Tovan::Fib::Fec;
  using Trie = Routing::Trie;
  using IpStatus = Ip::Status;

  static constexpr int kNumber = 4;
  static constexpr const char* kName = "IPv4";
  static constexpr RouteType kConnected = Routing::Fib::connected_;

  static RouteSmRoot::Ptr newRoot(const Kiv::Name& name) {
    return Routing::Host::routeSmRootFactory(name);
  }

  static void neighborIs(Arp::ArpIntfStatus& table, const Neighbor& neighbor) {
    table.arpEntryIs(neighbor);
  }
  static void neighborDel(Arp::ArpIntfStatus& table, const Addr& addr) { table.arpEntryDel(addr); }
  static void neighborExpect(const Arp::ArpIntfStatus& table, const Addr& addr) {
    table.arpEntryExpect(addr);
  }
  static void neighborNotify(const Arp::ArpIntfStatus& table, const Addr& addr) {
    table.arpEntryNotify(addr);
  }

  static void intfIs(IpStatus& status, Zemit::IntfId intf,
                     const L3::Intf::Status::PtrConst& l3Status) {
    status.newIpIntfStatus(intf, l3Status);
  }
  static void intfDel(IpStatus& status, Zemit::IntfId intf) { status.ipIntfStatusDel(intf); }

  /// The address of a virtual IP; nothing when it is of the other family.
  static std::optional<Addr> virtualAddr(const Routing::Fhrp::VrfIpWithMaskPair& pair) {
    return pair.v4Addr();
  }

  static bool hostRoutesSynced(const RovelReady::VrfStatus& readiness) {
    return readiness.v4HostRoutesSynced();
  }
};

/// IPv6, with the same members.
struct Ipv6 : Routing6::Host::Ipv6 {
  using AddrWithMask = Zemit::Ip6AddrWithMask;
  using Fec = Tovan::Fib6::Fec;
  using Trie = Routing6::Trie;
  using IpStatus = Ip6::Status;

  static constexpr int kNumber = 6;
  static constexpr const char* kName = "IPv6";
  static constexpr RouteType kConnected = Routing6::Fib::connected_;

  static RouteSmRoot::Ptr newRoot(const Kiv::Name& name) {
    return Routing6::Host::routeSmRootFactory(name);
  }

  static void neighborIs(Arp::ArpIntfStatus& table, const Neighbor& neighbor) {
    table.ip6NeighborEntryIs(neighbor);
  }
  static void neighborDel(Arp::ArpIntfStatus& table, const Addr& addr) {
    table.ip6NeighborEntryDel(addr);
  }
  static void neighborExpect(const Arp::ArpIntfStatus& table, const Addr& addr) {
    table.ip6NeighborEntryExpect(addr);
  }
  static void neighborNotify(const Arp::ArpIntfStatus& table, const Addr& addr) {
    table.ip6NeighborEntryNotify(addr);
  }

  static void intfIs(IpStatus& status, Zemit::IntfId intf,
                     const L3::Intf::Status::PtrConst& l3Status) {
    status.newIntf(intf, l3Status);
  }
  static void intfDel(IpStatus& status, Zemit::IntfId intf) { status.intfDel(intf); }

  static std::optional<Addr> virtualAddr(const Routing::Fhrp::VrfIpPair& pair) {
    return pair.vrfIp();
  }

  static bool hostRoutesSynced(const RovelReady::VrfStatus& readiness) {
    return readiness.v6HostRoutesSynced();
  }
};

/// Stands for an IPv6 next hop of an IPv4 via (RFC 8950), because an IPv4 via cannot hold an IPv6
/// address. It is the IPv4 dummy address, which no host has (RFC 7600). A via with this next hop is
/// not directly connected.
inline constexpr Zemit::IpAddr kIpv6NextHop{0xC0000008};

/// The family of an address type.
template <class Addr>
using FamilyOf = std::conditional_t<std::is_same_v<Addr, Zemit::IpAddr>, Ipv4, Ipv6>;

/// Calls `visit` with a value of each family's type, IPv4 first.
template <class Visit>
void forEachFamily(Visit visit) {
  visit(Ipv4());
  visit(Ipv6());
}

}  // namespace Daemon
