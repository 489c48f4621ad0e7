// RouteSm: repairing the host routes of ARP neighbours, and settling which host route wins.
#include "hostcore/Merge.h"

#include "host/Family.h"
#include "platform/kiv/runtime/Trace.h"

namespace Routing::Host {

namespace {
using Steps = HostCore::Merge<Ipv4>;
}

Ipv4::ViaSet Ipv4::receiveVias(const HostTable& table, const Route& receiveRoute) {
  if (receiveRoute.routeType == Fib::receive_) return table.adjIndexToViaSet(receiveRoute.fecId);
  ViaSet vias;
  vias.newVia(Via(), 1);
  return vias;
}

Obu::AddrSet::Ptr RouteSm::promoteArpEntries(const Obu::IntfDir::Ptr& intfs,
                                             const Tovan::Fib::Route& fibRoute) {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "Obu::AddrSet::Ptr Routing::Host::RouteSm::promoteArpEntries("
            "const Obu::IntfDir::Ptr&, const Tovan::Fib::Route&)");
  return Steps(*this).promoteArpEntries(intfs, fibRoute);
}

void RouteSm::fixupArpRouteOver(Zemit::IpAddr ipAddr, const Tovan::Fib::Route& fibRoute,
                                const Tovan::Fib::Fec& fec) {
  const HostCore::About<Ipv4> about(*this, ipAddr);
  KIV_TRACE_AS(hostRouteTrace, 8, *this, "fixupArpRoute",
               "void Routing::Host::RouteSm::fixupArpRoute(Zemit::IpAddr, "
               "const Tovan::Fib::Route&)");
  Steps(*this).fixupArpRoute(ipAddr, fibRoute, fec);
}

void RouteSm::doMerge(const Obu::AddrSet::PtrConst& changedIps) {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::doMerge(const Obu::AddrSet::PtrConst&)");
  Steps(*this).doMerge(changedIps);
}

void RouteSm::doMerge(Zemit::IpAddr changedIp) {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::doMerge(const Obu::AddrSet::PtrConst&)");
  Steps(*this).doMerge(changedIp);
}

}  // namespace Routing::Host
