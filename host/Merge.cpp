// RouteSm: repairing the host routes of ARP neighbours, and settling which host route wins.
#include "hostcore/Merge.h"

#include "host/Family.h"
#include "platform/kiv/Trace.h"

namespace Routing::Host {

namespace {
using Steps = HostCore::Merge<Ipv4>;
}

bool Ipv4::mergeReceiveRoute(RouteSm& sm, const Addr& ip) {
  const auto& table = Kiv::validPtr(sm.rootRaw()->receiveTable());
  const Route receiveRoute = table->route(Prefix::host(ip));
  if (receiveRoute.key != Prefix::host(ip)) return false;
  ViaSet vias;
  if (receiveRoute.routeType == Fib::receive_) {
    vias = table->adjIndexToViaSet(receiveRoute.fecId);
  } else {
    vias.newVia(Via(), 1);
  }
  const auto fec = Kiv::validPtr(sm.adjHelperRaw()).doGetOrCreateFibAdjacency(vias);
  KIV_TRACE_AS(trace(), 8, sm, "doMerge", "Adding receive route " << ip);
  addRouteToRouteTable(nullptr, sm.routeStatus(), ip, fec, receiveRoute.routeType, sm);
  return true;
}

Obu::AddrSet::Ptr RouteSm::promoteArpEntries(const Obu::IntfDir::Ptr& intfs,
                                             const Tovan::Fib::Route& fibRoute) {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "Obu::AddrSet::Ptr Routing::Host::RouteSm::promoteArpEntries("
            "const Obu::IntfDir::Ptr&, const Tovan::Fib::Route&)");
  return Steps(*this).promoteArpEntries(intfs, fibRoute);
}

void RouteSm::fixupArpRoute(Zemit::IpAddr ipAddr, const Tovan::Fib::Route& fibRoute) {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::fixupArpRoute(Zemit::IpAddr, "
            "const Tovan::Fib::Route&)");
  Steps(*this).fixupArpRoute(ipAddr, fibRoute);
}

void RouteSm::doMerge(const Obu::AddrSet::PtrConst& changedIps) {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::doMerge(const Obu::AddrSet::PtrConst&)");
  Steps(*this).doMerge(changedIps);
}

}  // namespace Routing::Host
