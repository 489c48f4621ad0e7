// Interfaces, addresses, neighbours and routes of the Linux kernel, as values.
//
// They have the parts of rtnetlink(7) messages that this system uses, from a socket or from the
// JSON of `ip`. Numbers are those of the kernel (linux/rtnetlink.h, linux/neighbour.h).
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/zemit/EthAddr.h"
#include "platform/zemit/Prefix.h"

namespace Linux {

/// An address of either family; those of IPv4 sort first.
using Address = std::variant<Zemit::IpAddr, Zemit::Ip6Addr>;
/// A prefix of either family; those of IPv4 sort first.
using Prefix = std::variant<Zemit::Prefix, Zemit::Ip6Prefix>;

/// 4 or 6.
inline int familyOf(const Address& addr) {
  return addr.index() == 0 ? 4 : 6;
}
inline int familyOf(const Prefix& prefix) {
  return prefix.index() == 0 ? 4 : 6;
}
/// "10.0.0.5", "2001:db8::/64".
std::string toString(const Address& addr);
std::string toString(const Prefix& prefix);
/// Hashes for hash tables.
inline uint32_t hashOf(const Address& addr) {
  const auto* addr4 = std::get_if<Zemit::IpAddr>(&addr);
  return addr4 != nullptr ? addr4->hash() : std::get<Zemit::Ip6Addr>(addr).hash();
}
inline uint32_t hashOf(const Prefix& prefix) {
  const auto* prefix4 = std::get_if<Zemit::Prefix>(&prefix);
  return prefix4 != nullptr ? prefix4->hash() : std::get<Zemit::Ip6Prefix>(prefix).hash();
}
/// The prefix that contains `addr` alone.
Prefix hostPrefix(const Address& addr);
/// Whether the prefix contains one address only: a /32 or a /128.
bool isHost(const Prefix& prefix);

/// The kernel's number of an interface; 0 is no interface.
using LinkIndex = uint32_t;
/// The kernel's number of a routing table; 254 is the table main.
using TableId = uint32_t;

/// An interface (RTM_NEWLINK).
struct Link {
  LinkIndex index = 0;
  std::string name;        ///< at most 15 bytes; need not be UTF-8
  std::string kind;        ///< "vrf", "bridge", "macvlan"...; empty for hardware and if unknown
  LinkIndex master = 0;    ///< the bridge, bond or VRF that it belongs to
  std::string masterKind;  ///< the kind of the master: "bridge", "vrf"...
  LinkIndex lower = 0;     ///< of a VLAN or macvlan, if in this namespace
  uint16_t vlan = 0;       ///< of a VLAN interface
  TableId vrfTable = 0;    ///< of a VRF device
  Zemit::EthAddr mac;
  bool isUp = true;        ///< administratively (IFF_UP)
  bool hasCarrier = true;  ///< IFF_LOWER_UP
  bool isLoopback = false;
  bool isNoArp = false;

  friend bool operator==(const Link&, const Link&) = default;
};

/// An address of an interface (RTM_NEWADDR).
struct InterfaceAddress {
  LinkIndex link = 0;
  Address addr;
  uint32_t len = 0;             ///< of the own subnet: 32 or 128 if the peer has another address
  std::optional<Address> peer;  ///< the other end's address, if it is not in the own subnet
  bool isSecondary = false;
  bool isTentative = false;
  bool isDuplicate = false;  ///< duplicate address detection failed

  friend bool operator==(const InterfaceAddress&, const InterfaceAddress&) = default;
};

/// A neighbour entry of ARP or neighbour discovery (RTM_NEWNEIGH).
struct Neighbor {
  LinkIndex link = 0;
  Address addr;
  Zemit::EthAddr mac;                    ///< zero if unknown or not an Ethernet address
  uint16_t state = 0;                    ///< NUD_*
  bool isProxy = false;                  ///< NTF_PROXY
  bool isLearnedByControlPlane = false;  ///< NTF_EXT_LEARNED

  friend bool operator==(const Neighbor&, const Neighbor&) = default;
};

/// An entry of a bridge's forwarding database (RTM_NEWNEIGH, AF_BRIDGE).
struct FdbEntry {
  LinkIndex port = 0;
  LinkIndex bridge = 0;  ///< 0 for an entry of the port's own database
  Zemit::EthAddr mac;
  uint16_t vlan = 0;         ///< 0 for a bridge without VLANs
  bool isPermanent = false;  ///< an address of the bridge itself

  friend bool operator==(const FdbEntry&, const FdbEntry&) = default;
};

/// One next hop of a route or of a nexthop object.
struct NextHop {
  LinkIndex link = 0;
  std::optional<Address> gateway;  ///< none for a directly connected destination
  uint8_t weight = 1;              ///< 1 to 255; a share of the traffic
  bool isTunnelled = false;        ///< it encapsulates (LWTUNNEL_ENCAP_*, MPLS labels)
  bool isDead = false;             ///< RTNH_F_DEAD
  bool isLinkDown = false;         ///< RTNH_F_LINKDOWN

  friend auto operator<=>(const NextHop&, const NextHop&) = default;
};

/// A route (RTM_NEWROUTE), but no cached copy (RTM_F_CLONED).
struct Route {
  TableId table = 0;
  Prefix prefix;
  uint32_t metric = 0;
  uint8_t protocol = 0;    ///< RTPROT_*
  uint8_t type = 0;        ///< RTN_*
  uint8_t tos = 0;         ///< unless 0, for this type of service only
  bool hasSource = false;  ///< for one range of source addresses only
  uint32_t nexthop = 0;    ///< its nexthop object, unless 0
  std::optional<Address> preferredSource;
  std::vector<NextHop> hops;  ///< its own, or those of the nexthop object in the message

  friend bool operator==(const Route&, const Route&) = default;
};

/// A nexthop object: one next hop, a group of others, or a blackhole (RTM_NEWNEXTHOP).
struct Nexthop {
  uint32_t id = 0;
  int family = 0;  ///< 4, 6, or 0 for a group and if unknown
  bool isBlackhole = false;
  std::optional<NextHop> hop;
  std::vector<std::pair<uint32_t, uint8_t>> group;  ///< ids and weights

  friend bool operator==(const Nexthop&, const Nexthop&) = default;
};

/// An object of the kernel.
using Object = std::variant<Link, InterfaceAddress, Neighbor, FdbEntry, Route, Nexthop>;

/// A message of the kernel about one object.
struct Change {
  Object object;
  bool present = true;    ///< false when it was removed
  bool replaces = false;  ///< of a route: it replaced another one (NLM_F_REPLACE)
  bool appends = false;   ///< of a route: it follows others of its metric (NLM_F_APPEND)
  uint32_t sender = 0;    ///< the netlink port that caused it; 0 is the kernel

  friend bool operator==(const Change&, const Change&) = default;
};

}  // namespace Linux
