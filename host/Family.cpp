#include "host/Family.h"

#include "hostcore/Family.h"
#include "platform/obu/FibLookup.h"

namespace Routing::Host {

static_assert(HostCore::Family<Ipv4>);

Kiv::TraceFacility hostRouteTrace("HostRoute", Ipv4::kModule);

Obu::IntfDir::Ptr Ipv4::intfs(const ForwardingStatus* fwdStatus, Tovan::Fib::FecId fecId) {
  return Obu::getIntfs(fwdStatus, fecId);
}

Ipv4::Route Ipv4::routeAbove(const Prefix& prefix, const RouteStatus* routeStatus,
                             const Routing::Trie* trie) {
  return Obu::getTovanRouteAbove(prefix, routeStatus, Kiv::validPtr(trie));
}

void Ipv4::traceTakenFrom(const RouteSm& sm, const Addr& addr, const Prefix& above) {
  KIV_TRACE_AS(trace(), 6, sm, "handleAdjacency",
               Text::kRemovingRoute << addr << " from address set of " << above);
}

void Ipv4::traceStoredVia(const RouteSm& sm, const Addr& ip, const Via& via) {
  KIV_TRACE_AS(trace(), 7, sm, "fixupArpRoute",
               "storing arp entry for "
                   << ip << " in adjacency list of arp route with next hop of  " << via);
}

}  // namespace Routing::Host
