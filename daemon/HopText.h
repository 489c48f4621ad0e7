// The text of next hops.
#pragma once

#include <string>
#include <string_view>
#include <type_traits>

#include "daemon/Family.h"

namespace Daemon {

/// The text of the next hop kIpv6NextHop in replays and in all output.
inline constexpr std::string_view kIpv6NextHopText = "ipv6";

/// The text of a next hop.
template <class Addr>
std::string hopText(const Addr& hop) {
  if constexpr (std::is_same_v<Addr, Zemit::IpAddr>) {
    if (hop == kIpv6NextHop) return std::string(kIpv6NextHopText);
  }
  return toString(hop);
}

/// Next hops for people: "10.0.0.9 Ethernet1, Ethernet2". A directly connected via shows only its
/// interface.
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
