// Helpers that make kernel objects from text, and keys of routes.
#pragma once

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <string>
#include <utility>
#include <vector>

#include "linux/KernelRoutes.h"
#include "linux/Values.h"

namespace Linux {

inline Address addrOf(const std::string& text) {
  if (const auto addr = Zemit::IpAddr::parse(text)) return *addr;
  return Zemit::Ip6Addr::parse(text).value();
}

inline Prefix prefixOf(const std::string& text) {
  if (const auto prefix = Zemit::Prefix::parse(text)) return *prefix;
  return Zemit::Ip6Prefix::parse(text).value();
}

inline Link linkOf(LinkIndex index, const std::string& name) {
  Link link;
  link.index = index;
  link.name = name;
  return link;
}

inline Neighbor neighbor(LinkIndex link, const std::string& addr, int state = NUD_REACHABLE) {
  Neighbor neighbor;
  neighbor.link = link;
  neighbor.addr = addrOf(addr);
  neighbor.mac = *Zemit::EthAddr::parse("02:00:00:00:00:05");
  neighbor.state = static_cast<uint16_t>(state);
  return neighbor;
}

inline NextHop hop(LinkIndex link, const std::string& gateway = "") {
  NextHop hop;
  hop.link = link;
  if (!gateway.empty()) hop.gateway = addrOf(gateway);
  return hop;
}

inline Route route(const std::string& prefix, std::vector<NextHop> hops,
                   uint8_t protocol = RTPROT_STATIC, TableId table = RT_TABLE_MAIN) {
  Route route;
  route.table = table;
  route.prefix = prefixOf(prefix);
  route.type = RTN_UNICAST;
  route.protocol = protocol;
  route.hops = std::move(hops);
  return route;
}

/// The key of a host route.
inline RouteKey key4(uint32_t host, TableId table = 10) {
  return {table, Zemit::Prefix::host(Zemit::IpAddr(0x0A000000 + host))};
}
inline RouteKey key6(uint32_t host, TableId table = 10) {
  return {table, Zemit::Ip6Prefix::host(Zemit::Ip6Addr(0x20010DB800000000, host))};
}

}  // namespace Linux
