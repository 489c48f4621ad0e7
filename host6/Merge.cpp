// RouteSm: repairing the host routes of IPv6 neighbours, and settling which host route wins.
#include "hostcore/Merge.h"

#include "host6/Family.h"
#include "platform/kiv/runtime/Trace.h"

namespace Routing6::Host {

namespace {
using Steps = HostCore::Merge<Ipv6>;
}

Obu::Ip6AddrSet::Ptr RouteSm::promoteArpEntries(const Obu::IntfDir::Ptr& intfs,
                                                const Tovan::Fib6::Route& fibRoute) {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, fibRoute.key));
  return Steps(*this).promoteArpEntries(intfs, fibRoute);
}

void RouteSm::fixupArpRouteOver(const Zemit::Ip6Addr& ipAddr, const Tovan::Fib6::Route& fibRoute,
                                const Tovan::Fib6::Fec& fec) {
  const HostCore::About<Ipv6> about(*this, ipAddr);
  static constexpr const char* kName = "fixupArpRoute";
  KIV_TRACE_AS(hostRoute6Trace, 8, *this, kName, Entry(this, kName, ipAddr));
  Steps(*this).fixupArpRoute(ipAddr, fibRoute, fec);
}

void RouteSm::doMerge(const Obu::Ip6AddrSet::PtrConst& changedIps) {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  Steps(*this).doMerge(changedIps);
}

void RouteSm::doMerge(const Zemit::Ip6Addr& changedIp) {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  Steps(*this).doMerge(changedIp);
}

}  // namespace Routing6::Host
