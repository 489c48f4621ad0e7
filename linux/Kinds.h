// Numbers of the kernel that decide how routes and neighbours are treated.
#pragma once

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

namespace Linux {

/// A number of the kernel and its name in `ip`.
struct NumberName {
  uint8_t number;
  std::string_view name;
};

inline constexpr std::array kRouteTypes{
    NumberName{RTN_UNICAST, "unicast"},
    NumberName{RTN_LOCAL, "local"},
    NumberName{RTN_BROADCAST, "broadcast"},
    NumberName{RTN_ANYCAST, "anycast"},
    NumberName{RTN_MULTICAST, "multicast"},
    NumberName{RTN_BLACKHOLE, "blackhole"},
    NumberName{RTN_UNREACHABLE, "unreachable"},
    NumberName{RTN_PROHIBIT, "prohibit"},
    NumberName{RTN_THROW, "throw"},
    NumberName{RTN_NAT, "nat"},
    NumberName{RTN_XRESOLVE, "xresolve"},
};

inline constexpr std::array kProtocols{
    NumberName{RTPROT_REDIRECT, "redirect"}, NumberName{RTPROT_KERNEL, "kernel"},
    NumberName{RTPROT_BOOT, "boot"},         NumberName{RTPROT_STATIC, "static"},
    NumberName{RTPROT_GATED, "gated"},       NumberName{RTPROT_RA, "ra"},
    NumberName{RTPROT_MRT, "mrt"},           NumberName{RTPROT_ZEBRA, "zebra"},
    NumberName{RTPROT_BIRD, "bird"},         NumberName{RTPROT_DNROUTED, "dnrouted"},
    NumberName{RTPROT_XORP, "xorp"},         NumberName{RTPROT_NTK, "ntk"},
    NumberName{RTPROT_DHCP, "dhcp"},         NumberName{RTPROT_KEEPALIVED, "keepalived"},
    NumberName{RTPROT_BABEL, "babel"},       NumberName{RTPROT_OPENR, "openr"},
    NumberName{RTPROT_BGP, "bgp"},           NumberName{RTPROT_ISIS, "isis"},
    NumberName{RTPROT_OSPF, "ospf"},         NumberName{RTPROT_RIP, "rip"},
    NumberName{RTPROT_EIGRP, "eigrp"},
};

/// The states in which the kernel knows the MAC address of a neighbour and sends to it.
inline constexpr uint16_t kUsableStates =
    NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;

/// The row of a table that `matches`, or null.
template <size_t N, class Matches>
constexpr const NumberName* findRow(const std::array<NumberName, N>& rows, Matches matches) {
  const auto* row = std::ranges::find_if(rows, matches);
  return row == rows.end() ? nullptr : row;
}

}  // namespace Linux
