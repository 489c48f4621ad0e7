// Addresses, prefixes, routes and next hops of the golden model, with the same types for both
// families.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Golden {

__extension__ using Bits = unsigned __int128;
using FecId = uint64_t;

/// The differences between IPv4 and IPv6. All other code serves both families.
struct Family {
  int number;                      ///< 4 or 6
  size_t slot;                     ///< index into arrays with one element for each family
  int width;                       ///< bits of an address
  std::set<std::string> ownTypes;  ///< types of the host routes that this system writes
  std::set<std::string> bgpTypes;  ///< types that the RIB-ready merge skips
  bool derivesBroadcast;           ///< a subnet's first and last address are receive addresses too
  bool mergesReceiveRoutes;        ///< receive routes take part in the merge
  int addressAttributes;           ///< number of attributes of an interface that hold addresses
  std::string neighborTable;       ///< name of the table of neighbour-derived host routes
  std::string neighborRoute;       ///< name of the collection of tracked neighbours
};

inline const Family kIpv4{.number = 4,
                          .slot = 0,
                          .width = 32,
                          .ownTypes = {"receive_", "receiveBcast_", "attached_"},
                          .bgpTypes = {"ibgp_", "ebgp_", "bgpAggregate_"},
                          .derivesBroadcast = true,
                          .mergesReceiveRoutes = true,
                          .addressAttributes = 2,
                          .neighborTable = "arpTable",
                          .neighborRoute = "arpRoute"};
inline const Family kIpv6{.number = 6,
                          .slot = 1,
                          .width = 128,
                          .ownTypes = {"receive_", "attached_"},
                          .bgpTypes = {"bgp_", "bgpAggregate_"},
                          .derivesBroadcast = false,
                          .mergesReceiveRoutes = false,
                          .addressAttributes = 1,
                          .neighborTable = "neighTable",
                          .neighborRoute = "neighRoute"};

/// An address with a length: a prefix (host bits zero) or an interface address (host bits kept).
struct AddrLen {
  Bits addr = 0;
  int len = 0;

  friend bool operator==(const AddrLen&, const AddrLen&) = default;
  friend bool operator<(const AddrLen& a, const AddrLen& b) {
    return a.addr != b.addr ? a.addr < b.addr : a.len < b.len;
  }
};
using Prefix = AddrLen;

/// The host bits of an address of `family` under a prefix of length `len`.
inline Bits hostMask(const Family& family, int len) {
  const int open = family.width - len;
  return open == 128 ? ~Bits{0} : (Bits{1} << open) - 1;
}

/// The prefix of length `len` that contains `addr`.
inline Prefix cut(const Family& family, Bits addr, int len) {
  return {addr & ~hostMask(family, len), len};
}

inline bool inside(const Family& family, Bits addr, const Prefix& prefix) {
  return cut(family, addr, prefix.len) == prefix;
}

Bits parseAddr(const std::string& text);
AddrLen parseAddrLen(const std::string& text);
std::string show(const Family& family, Bits addr);
std::string show(const Family& family, const AddrLen& value);
/// The family of an address or prefix in text form.
inline const Family& familyOf(const std::string& text) {
  return text.find(':') == std::string::npos ? kIpv4 : kIpv6;
}

/// A next hop. An all-zero hop means directly connected.
struct Via {
  Bits hop = 0;
  std::string intf;

  friend bool operator==(const Via&, const Via&) = default;
  friend bool operator<(const Via& a, const Via& b) {
    return a.hop != b.hop ? a.hop < b.hop : a.intf < b.intf;
  }
};
using ViaSet = std::set<Via>;

struct Route {
  Prefix key;
  uint64_t metric = 0;
  uint64_t preference = 1;
  std::string type = "invalid_";
  FecId fec = 0;

  friend bool operator==(const Route&, const Route&) = default;
};
using RouteTable = std::map<Prefix, Route>;

}  // namespace Golden
