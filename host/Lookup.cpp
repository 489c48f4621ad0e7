// RouteSm: looking a neighbour's address up in the FIB.
#include "hostcore/Lookup.h"

#include "host/Family.h"

namespace Routing::Host {

Tovan::Fib::Route RouteSm::doFibLookup(const Zemit::Prefix& pfx) const {
  return HostCore::Lookup<Ipv4>(*this).doFibLookup(pfx);
}

void Ipv4::traceCheck(const RouteSm& sm, const Addr& /*ip*/) {
  KIV_TRACE_AS(hostRouteTrace, 8, sm, "checkIpAddressAgainstFib",
               "const Zemit::Prefix Routing::Host::RouteSm::checkIpAddressAgainstFib("
               "Zemit::IpAddr, const Arp::ArpIntfStatus::PtrConst&)");
}

Zemit::Prefix RouteSm::checkIpAddressAgainstFib(Zemit::IpAddr ipAddr,
                                                const ArpTable& arpIntfStatus) const {
  Ipv4::traceCheck(*this, ipAddr);
  return HostCore::Lookup<Ipv4>(*this).checkIpAddressAgainstFib(ipAddr, arpIntfStatus).route.key;
}

}  // namespace Routing::Host
