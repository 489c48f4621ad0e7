// RouteSm: looking a neighbour's address up in the FIB.
#include "hostcore/Lookup.h"

#include "host/Family.h"

namespace Routing::Host {

Tovan::Fib::Route RouteSm::doFibLookup(const Zemit::Prefix& pfx) const {
  return HostCore::Lookup<Ipv4>(*this).doFibLookup(pfx);
}

Zemit::Prefix RouteSm::checkIpAddressAgainstFib(Zemit::IpAddr ipAddr,
                                                const ArpTable& arpIntfStatus) const {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "const Zemit::Prefix Routing::Host::RouteSm::checkIpAddressAgainstFib("
            "Zemit::IpAddr, const Arp::ArpIntfStatus::PtrConst&)");
  return HostCore::Lookup<Ipv4>(*this).checkIpAddressAgainstFib(ipAddr, arpIntfStatus);
}

}  // namespace Routing::Host
