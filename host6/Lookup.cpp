// RouteSm: looking a neighbour's address up in the FIB.
#include "hostcore/Lookup.h"

#include "host6/Family.h"

namespace Routing6::Host {

Tovan::Fib6::Route RouteSm::doFibLookup(const Zemit::Ip6Prefix& pfx) const {
  return HostCore::Lookup<Ipv6>(*this).doFibLookup(pfx);
}

Zemit::Ip6Prefix RouteSm::checkIpAddressAgainstFib(const Zemit::Ip6Addr& ipAddr,
                                                   const ArpTable& arpIntfStatus) const {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, ipAddr));
  return HostCore::Lookup<Ipv6>(*this).checkIpAddressAgainstFib(ipAddr, arpIntfStatus);
}

}  // namespace Routing6::Host
