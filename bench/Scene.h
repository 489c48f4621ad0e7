// The switch of the engine benchmark. Its tables are in this process's memory.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "daemon/Switch.h"

namespace Bench {

/// The addresses of the loads. A subnet has about 250 hosts.
template <class F>
struct Net {
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;

  static constexpr bool kIsIpv4 = Addr::kBits == 32;
  static constexpr uint32_t kCoverBits = kIsIpv4 ? 8 : 32;
  static constexpr uint32_t kSubnetBits = kIsIpv4 ? 24 : 64;

  static Addr addr(size_t subnet, size_t host) {
    if constexpr (kIsIpv4) {
      return Addr((uint32_t{10} << 24) + static_cast<uint32_t>(subnet << 8 | host));
    } else {
      return Addr(0x20010db800000000 + subnet, host);
    }
  }
  static Prefix subnet(size_t index) { return Prefix::enclosing(addr(index, 0), kSubnetBits); }
  /// The prefix that covers all subnets.
  static Prefix cover() { return Prefix::enclosing(addr(0, 0), kCoverBits); }
  /// A prefix outside the cover. Indices below 2^20 give different, scattered prefixes.
  static Prefix outside(size_t index) {
    const uint64_t place = index * 0x9E3779B1 % (uint64_t{1} << 20);
    const bool isLong =
        index % 10 < 6;  // the most frequent length in the Internet, or a shorter one
    if constexpr (kIsIpv4) {
      const auto bits =
          static_cast<uint32_t>(isLong ? 0x40000000 + (place << 8) : 0x80000000 + (place << 10));
      return Prefix::enclosing(Addr(bits), isLong ? 24 : 22);
    } else {
      return Prefix::enclosing(
          Addr((isLong ? 0x2400000000000000 + (place << 16) : 0x2a00000000000000 + (place << 20)),
               0),
          isLong ? 48 : 44);
    }
  }
};

/// A switch with short functions for the operations of the loads.
template <class F>
class Scene {
 public:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;
  static constexpr const char* kVrf = Daemon::Switch::kDefaultVrf;

  static Zemit::IntfId intf(size_t number) {
    return Zemit::IntfId::of(std::string_view("Ethernet" + std::to_string(number)));
  }

  void initialized(std::string_view vrf = kVrf) { sw.setInitialized<F>(vrf, true); }
  /// Sets a FEC with a direct via on each of `intfs`.
  void direct(uint64_t fecId, const std::vector<Zemit::IntfId>& intfs) {
    typename F::ForwardingStatus::Fec fec(fecId);
    for (const Zemit::IntfId via : intfs) fec.newVia({.hop = {}, .intf = via});
    sw.setFec(fec);
  }
  /// Sets a FEC with a via to a gateway.
  void gateway(uint64_t fecId, Zemit::IntfId via, const Addr& hop) {
    typename F::ForwardingStatus::Fec fec(fecId);
    fec.newVia({.hop = hop, .intf = via});
    sw.setFec(fec);
  }
  void route(const Prefix& prefix, uint64_t fecId, bool present = true,
             std::string_view vrf = kVrf) {
    sw.setRoute(
        vrf,
        typename F::RouteStatus::Route{.key = prefix, .routeType = F::kConnected, .fecId = fecId},
        present);
  }
  void neighbor(Zemit::IntfId on, const Addr& addr, bool present = true, uint64_t mac = 1) {
    const Arp::BasicNeighborStatus<Addr> entry{
        .ipAddr = addr,
        .mac = Zemit::EthAddr(
            {0, 0, 0, 0, static_cast<uint8_t>(mac >> 8), static_cast<uint8_t>(mac)})};
    sw.setNeighbor(on, entry, present);
  }
  const Daemon::HostRouting<F>& routing(std::string_view vrf = kVrf) {
    return sw.vrf(vrf).template routing<F>();
  }
  /// The number of neighbour-derived host routes.
  size_t hostRoutes(std::string_view vrf = kVrf) {
    return F::neighborTable(*routing(vrf).root)->routeCount();
  }

  Daemon::Switch sw;
};

/// Calls `visit` with each family and its name in the reports.
template <class Visit>
void forEachFamily(Visit visit) {
  visit(Daemon::Ipv4(), std::string("ipv4"));
  visit(Daemon::Ipv6(), std::string("ipv6"));
}

}  // namespace Bench
