// The text of next hops.
#pragma once

#include <string>
#include <string_view>
#include <type_traits>

#include "daemon/Family.h"

namespace Daemon {

/// What stands for the next hop kIpv6NextHop in a replay, and wherever next hops are shown.
inline constexpr std::string_view kIpv6NextHopText = "ipv6";

/// A next hop as it is written and shown.
template <class Addr>
std::string hopText(const Addr& hop) {
  if constexpr (std::is_same_v<Addr, Zemit::IpAddr>) {
    if (hop == kIpv6NextHop) return std::string(kIpv6NextHopText);
  }
  return toString(hop);
}

/// What people read for next hops: "10.0.0.9 Ethernet1, Ethernet2"; a hop that is the destination
/// itself is left out.
template <class Vias>
std::string viasText(const Vias& vias) {
  std::string text;
  for (const auto& via : vias) {
    if (!text.empty()) text += ", ";
    if (!via.hop.isZero()) text.append(hopText(via.hop)).append(" ");
    text += via.intf.name();
  }
  return text.empty() ? "-" : text;
}

}  // namespace Daemon
