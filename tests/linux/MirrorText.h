// The content of a mirror as text, for comparison.
#pragma once

#include <cstdint>
#include <set>
#include <sstream>
#include <string>

#include "linux/Mirror.h"

namespace Linux {

inline std::string toString(const NextHop& hop) {
  std::ostringstream out;
  out << "link " << hop.link;
  if (hop.gateway) out << " via " << toString(*hop.gateway);
  if (hop.weight != 1) out << " weight " << int{hop.weight};
  out << (hop.isTunnelled ? " tunnelled" : "") << (hop.isDead ? " dead" : "")
      << (hop.isLinkDown ? " linkdown" : "");
  return out.str();
}

inline std::string toString(const Route& route) {
  std::ostringstream out;
  out << "route " << route.table << " " << toString(route.prefix) << " metric " << route.metric
      << " protocol " << int{route.protocol} << " type " << int{route.type} << " tos "
      << int{route.tos};
  if (route.hasSource) out << " with source";
  if (route.nexthop != 0) out << " nexthop " << route.nexthop;
  if (route.preferredSource) out << " src " << toString(*route.preferredSource);
  for (const NextHop& hop : route.hops) out << " [" << toString(hop) << "]";
  return out.str();
}

/// One line for each object, sorted. The routes of a prefix are numbered in their order.
inline std::set<std::string> textOf(const Mirror& mirror) {
  std::set<std::string> lines;
  const auto add = [&](const auto&... part) {
    std::ostringstream line;
    (line << ... << part);
    lines.insert(line.str());
  };
  std::set<LinkIndex> indexes;
  mirror.forEachLink([&](const Link& link) {
    indexes.insert(link.index);
    add("link ", link.index, " ", link.name, " kind ", link.kind, " master ", link.master, " ",
        link.masterKind, " lower ", link.lower, " vlan ", link.vlan, " table ", link.vrfTable,
        " mac ", link.mac, link.isUp ? " up" : "", link.hasCarrier ? " carrier" : "",
        link.isLoopback ? " loopback" : "", link.isNoArp ? " noarp" : "");
  });
  for (const LinkIndex index : indexes) {
    mirror.forEachAddress(index, [&](const InterfaceAddress& a) {
      // The kernel announces an IPv6 address only when it is no longer tentative.
      if (a.isTentative) return;
      add("address ", index, " ", toString(a.addr), "/", a.len,
          a.peer ? " peer " + toString(*a.peer) : "", a.isSecondary ? " secondary" : "",
          a.isDuplicate ? " duplicate" : "");
    });
    mirror.forEachNeighbor(index, [&](const Neighbor& n) {
      add("neighbor ", index, " ", toString(n.addr), " ", n.mac, " state ", n.state,
          n.isLearnedByControlPlane ? " learned" : "");
    });
  }
  mirror.forEachFdbEntry([&](const FdbEntry& e) {
    add("fdb ", e.port, " bridge ", e.bridge, " ", e.mac, " vlan ", e.vlan,
        e.isPermanent ? " permanent" : "");
  });
  mirror.forEachNexthop([&](const Nexthop& n) {
    std::string text = n.hop ? " [" + toString(*n.hop) + "]" : "";
    for (const auto& [id, weight] : n.group)
      text += " " + std::to_string(id) + "," + std::to_string(weight);
    add("nexthop ", n.id, " family ", n.family, n.isBlackhole ? " blackhole" : "", text);
  });
  mirror.forEachRoute([&](TableId table, const Prefix& prefix) {
    int number = 0;
    for (const Route& route : mirror.routes(table, prefix))
      add(toString(route), " number ", ++number);
  });
  return lines;
}

/// The lines that only one of two texts has, each with a sign before it.
inline std::string difference(const std::set<std::string>& a, const std::set<std::string>& b) {
  std::string text;
  for (const std::string& line : a) {
    if (!b.contains(line)) text += "- " + line + "\n";
  }
  for (const std::string& line : b) {
    if (!a.contains(line)) text += "+ " + line + "\n";
  }
  return text;
}

}  // namespace Linux
