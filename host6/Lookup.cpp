// RouteSm: looking a neighbour's address up in the FIB.
#include "hostcore/Lookup.h"

#include "host6/Family.h"

namespace Routing6::Host {

Tovan::Fib6::Route RouteSm::doFibLookup(const Zemit::Ip6Prefix& pfx) const {
  return HostCore::Lookup<Ipv6>(*this).doFibLookup(pfx);
}

void Ipv6::traceCheck(const RouteSm& sm, const Addr& ip) {
  static constexpr const char* kName = "checkIpAddressAgainstFib";
  KIV_TRACE_AS(hostRoute6Trace, 8, sm, kName, Entry(&sm, kName, ip));
}

Zemit::Ip6Prefix RouteSm::checkIpAddressAgainstFib(const Zemit::Ip6Addr& ipAddr,
                                                   const ArpTable& arpIntfStatus) const {
  Ipv6::traceCheck(*this, ipAddr);
  return HostCore::Lookup<Ipv6>(*this).checkIpAddressAgainstFib(ipAddr, arpIntfStatus).route.key;
}

}  // namespace Routing6::Host
