#include "host/RouteWriter.h"

#include "host/Family.h"
#include "hostcore/RouteWriter.h"

namespace Routing::Host {

void addRouteToRouteTable(const Status::Ptr& hostTable,
                          const Tovan::Fib::RouteStatus::Ptr& routeTable, const Zemit::IpAddr& ip,
                          Tovan::Fib::FecId fecId, Routing::Fib::RouteType routeType,
                          const Fhrp::VirtualIpStatus* virtualIpStatus,
                          const RouteSmRoot::Ptr& root, const L3::VrfName& /*vrfName*/) {
  HostCore::RouteWriter<Ipv4>(hostTable, routeTable, *Kiv::validPtr(root))
      .add({ip, fecId, routeType}, virtualIpStatus);
}

void Ipv4::removeHostRoute(const Addr& ip, const HostTable::Ptr& hostTable,
                           const AddrSet::Ptr& addrSet, const AdjacencyHelper::Ptr& adjHelper) {
  KIV_TRACE(hostRouteTrace, 8, HostCore::rootOf(*Kiv::validPtr(hostTable)),
            "void Routing::Host::removeHostRoute(const Zemit::IpAddr&, "
            "Routing::Host::Status::Ptr, Obu::AddrSet::Ptr, Rovel::AdjacencyHelper::Ptr)"
                << ip);
  HostCore::removeHostRoute<Ipv4>(ip, hostTable, addrSet, adjHelper);
}

void removeHostRoute(const Zemit::IpAddr& ip, const Status::Ptr& hostTable,
                     const Obu::AddrSet::Ptr& receiveAddrSet,
                     const Rovel::AdjacencyHelper::Ptr& adjHelper) {
  Ipv4::removeHostRoute(ip, hostTable, receiveAddrSet, adjHelper);
}

}  // namespace Routing::Host
