// The status of one neighbour.
#pragma once

#include <compare>
#include <ostream>

#include "platform/zemit/EthAddr.h"
#include "platform/zemit/Ip6Addr.h"
#include "platform/zemit/IpAddr.h"

namespace Arp {

/// A neighbour's IP address and, when the neighbour is resolved, its Ethernet address.
template <class A>
struct BasicNeighborStatus {
  A ipAddr{};
  Zemit::EthAddr mac{};

  friend constexpr auto operator<=>(const BasicNeighborStatus&,
                                    const BasicNeighborStatus&) = default;
};

/// Prints the address and, when it is known, the Ethernet address: "10.0.0.5 00:11:22:33:44:55".
template <class A>
std::ostream& operator<<(std::ostream& os, const BasicNeighborStatus<A>& neighbor) {
  os << neighbor.ipAddr;
  if (!neighbor.mac.isZero()) os << ' ' << neighbor.mac;
  return os;
}

using ArpEntryStatus = BasicNeighborStatus<Zemit::IpAddr>;
using Ip6NeighborEntryStatus = BasicNeighborStatus<Zemit::Ip6Addr>;

}  // namespace Arp
