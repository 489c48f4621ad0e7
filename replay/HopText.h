// The text of next hops.
#pragma once

#include <string>
#include <string_view>
#include <type_traits>

#include "daemon/Family.h"

namespace Replay {

/// What stands for the next hop Daemon::kIpv6NextHop in a replay, and wherever next hops are shown.
inline constexpr std::string_view kIpv6NextHopText = "ipv6";

/// A next hop as it is written and shown.
template <class Addr>
std::string hopText(const Addr& hop) {
  if constexpr (std::is_same_v<Addr, Zemit::IpAddr>) {
    if (hop == Daemon::kIpv6NextHop) return std::string(kIpv6NextHopText);
  }
  return toString(hop);
}

}  // namespace Replay
