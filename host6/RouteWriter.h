// Writing and withdrawing IPv6 host routes.
#pragma once

#include "host6/RouteSmRoot.h"
#include "platform/kiv/containers/Export.h"
#include "platform/tovan/RouteStatus.h"

namespace Routing6::Host {

/// Writes the /128 route of one address into exactly one of two tables, the other being null.
///
/// A present route keeps its metric, unless a FIB route for the same /128 is tracked with another
/// metric. A new route gets metric 0 and preference 1, or in the route table those of the FIB
/// route. The FEC of a replaced route is not released.
///
/// \param fecId            with a reference of the caller's, which passes to the route; for a
///                         virtual address that the route table may not take, it is dropped.
/// \param routeType        never `invalid_`.
/// \param virtualIp6Status  null when no address counts as virtual.
/// \param vrfName          not consulted, deliberately: a virtual address of any VRF counts.
KIV_EXPORT void addRouteToRouteTable(const Status::Ptr& hostTable,
                                     const Tovan::Fib6::RouteStatus::Ptr& routeTable,
                                     const Zemit::Ip6Addr& ip, Tovan::Fib::FecId fecId,
                                     Routing6::Fib::RouteType routeType,
                                     const Routing::Fhrp::VirtualIp6Status* virtualIp6Status,
                                     const RouteSmRoot::Ptr& root, const L3::VrfName& vrfName);

/// Withdraws the /128 route of one address from a host-route table, and releases its host adjacency
/// when the route is of a type that this system writes.
///
/// \param receiveAddrSet  when not null, the address leaves this set too, with or without a route.
KIV_EXPORT void removeHostRoute(const Zemit::Ip6Addr& ip, const Status::Ptr& hostTable,
                                const Obu::Ip6AddrSet::Ptr& receiveAddrSet,
                                const Rovel::Adjacency6Helper::Ptr& adjHelper);

}  // namespace Routing6::Host
