// RouteSm: following the FECs through which FIB routes resolve.
#include "hostcore/Adjacency.h"

#include "host6/Family.h"

namespace Routing6::Host {

void RouteSm::handleAdjacency(const Tovan::Fib6::Route& fibRoute) {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, fibRoute.key));
  HostCore::Adjacency<Ipv6>(*this).handleAdjacency(fibRoute);
}

Obu::Ip6AddrSet::Ptr RouteSm::handleDeletedAdjacency(const Zemit::Ip6Prefix& oldPrefix) {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, oldPrefix));
  return HostCore::Adjacency<Ipv6>(*this).handleDeletedAdjacency(oldPrefix);
}

void RouteSm::handleFec(const Tovan::Fib::FecId& fecId) {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  HostCore::Adjacency<Ipv6>(*this).handleFec(fecId);
}

void RouteSm::handleFec() {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  HostCore::Adjacency<Ipv6>(*this).handleFec();
}

}  // namespace Routing6::Host
