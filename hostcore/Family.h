// What an address family must offer to the steps of host routing.
#pragma once

#include <concepts>

#include "platform/arp/NeighborDir.h"
#include "platform/kiv/Assert.h"
#include "platform/kiv/Trace.h"
#include "platform/obu/IntfDir.h"
#include "platform/rovel/Readiness.h"
#include "platform/tovan/Exceptions.h"
#include "platform/tovan/FibTypes.h"

namespace HostCore {

/// A family names its types, its constants, its trace facility, the words of its messages that
/// differ, and reaches what the halves name differently under one neutral name.
template <class F>
concept Family = requires(const typename F::RouteSm& sm, const typename F::RouteSmRoot& root,
                          const Arp::ArpIntfStatus& table, const typename F::Addr& addr,
                          RovelReady::VrfStatus& readiness) {
  typename F::Prefix;
  typename F::Route;
  typename F::RouteStatus;
  typename F::ForwardingStatus;
  typename F::HostTable;
  typename F::Via;
  typename F::ViaSet;
  typename F::AddrSet;
  typename F::AdjacencyHelper;
  typename F::VirtualIpStatus;
  typename F::PrefixList;
  { F::trace() } -> std::same_as<Kiv::TraceFacility&>;
  { F::kModule } -> std::convertible_to<const char*>;
  { F::kInvalid } -> std::convertible_to<typename F::RouteType>;
  { F::kAttached } -> std::convertible_to<typename F::RouteType>;
  // The route types of the host routes that this system writes, and of those that BGP brings.
  { F::isOwnType(F::kAttached) } -> std::same_as<bool>;
  { F::isBgpType(F::kAttached) } -> std::same_as<bool>;
  // The neighbours, and the root's tables of what is derived from them.
  { F::findNeighbor(table, addr) } -> std::convertible_to<const typename F::Neighbor*>;
  F::neighbors(table);
  // The addresses from the first to the last, in ascending order.
  F::neighborsBetween(table, addr, addr);
  { F::neighborCount(table) } -> std::convertible_to<size_t>;
  { F::neighborTable(root) } -> std::convertible_to<typename F::HostTable::Ptr>;
  F::neighborSet(root, typename F::Prefix());
  { F::virtualIps(sm) } -> std::convertible_to<const typename F::VirtualIpStatus*>;
  F::hostRoutesSyncedNow(readiness);
};

/// A family's address, the way a record of it is looked up: its host prefix.
template <Family F>
typename F::Prefix hostPrefix(const typename F::Addr& addr) {
  return F::Prefix::host(addr);
}

/// True when a FIB host route can be written into the route table.
template <Family F>
bool isComplete(const typename F::Route& fibRoute) {
  return fibRoute.fecId != Tovan::Fib::invalidFecId && fibRoute.routeType != F::kInvalid;
}

}  // namespace HostCore
