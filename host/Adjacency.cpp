// RouteSm: following the FECs through which FIB routes resolve.
#include "hostcore/Adjacency.h"

#include "host/Family.h"

namespace Routing::Host {

void RouteSm::handleAdjacency(const Tovan::Fib::Route& fibRoute) {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::handleAdjacency(const Tovan::Fib::Route&)");
  HostCore::Adjacency<Ipv4>(*this).handleAdjacency(fibRoute);
}

Obu::AddrSet::Ptr RouteSm::handleDeletedAdjacency(const Zemit::Prefix& oldPrefix) {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "Obu::AddrSet::Ptr Routing::Host::RouteSm::handleDeletedAdjacency("
            "const Zemit::Prefix&)");
  return HostCore::Adjacency<Ipv4>(*this).handleDeletedAdjacency(oldPrefix);
}

void RouteSm::handleFec(const Tovan::Fib::FecId& fecId) {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::handleFec(const Tovan::Fib::FecId&)");
  HostCore::Adjacency<Ipv4>(*this).handleFec(fecId);
}

void RouteSm::handleFec() {
  KIV_TRACE(hostRouteTrace, 8, *this, "void Routing::Host::RouteSm::handleFec()");
  HostCore::Adjacency<Ipv4>(*this).handleFec();
}

}  // namespace Routing::Host
