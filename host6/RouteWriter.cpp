#include "host6/RouteWriter.h"

#include "host6/Family.h"
#include "hostcore/RouteWriter.h"

namespace Routing6::Host {

void addRouteToRouteTable(const Status::Ptr& hostTable,
                          const Tovan::Fib6::RouteStatus::Ptr& routeTable, const Zemit::Ip6Addr& ip,
                          Tovan::Fib::FecId fecId, Routing6::Fib::RouteType routeType,
                          const Routing::Fhrp::VirtualIp6Status* virtualIp6Status,
                          const RouteSmRoot::Ptr& root, const L3::VrfName& /*vrfName*/) {
  HostCore::RouteWriter<Ipv6>(hostTable, routeTable, *Kiv::validPtr(root))
      .add({ip, fecId, routeType}, virtualIp6Status);
}

void Ipv6::removeHostRoute(const Addr& ip, const HostTable::Ptr& hostTable,
                           const AddrSet::Ptr& addrSet, const AdjacencyHelper::Ptr& adjHelper) {
  KIV_TRACE(hostRoute6Trace, 8, HostCore::rootOf(*Kiv::validPtr(hostTable)),
            "void Routing6::Host::removeHostRoute(const Zemit::Ip6Addr&, "
            "Routing6::Host::Status::Ptr, Obu::Ip6AddrSet::Ptr, Rovel::Adjacency6Helper::Ptr)"
                << ", ipAddr:" << ip);
  HostCore::removeHostRoute<Ipv6>(ip, hostTable, addrSet, adjHelper);
}

void removeHostRoute(const Zemit::Ip6Addr& ip, const Status::Ptr& hostTable,
                     const Obu::Ip6AddrSet::Ptr& receiveAddrSet,
                     const Rovel::Adjacency6Helper::Ptr& adjHelper) {
  Ipv6::removeHostRoute(ip, hostTable, receiveAddrSet, adjHelper);
}

}  // namespace Routing6::Host
