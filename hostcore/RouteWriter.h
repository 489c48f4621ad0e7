// Writing and withdrawing one host route.
#pragma once

#include "hostcore/Event.h"
#include "hostcore/Family.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

/// True when the route table may not take a route of this type: an attached one of an address that
/// is virtual, in whatever VRF.
template <Family F>
bool givesWay(const typename F::Addr& ip, typename F::RouteType routeType,
              const typename F::VirtualIpStatus* virtualIpStatus) {
  return routeType == F::kAttached && virtualIpStatus != nullptr && virtualIpStatus->isVirtual(ip);
}

/// Writes the host route of one address into exactly one of two tables.
///
/// The caller holds a reference on `fecId`, which passes to the route. The FEC of a route that is
/// replaced is not released here: a caller that replaces one does that itself.
///
/// A virtual address takes no attached route in the route table, whatever VRF it is virtual in: a
/// route that is there stays without type and FEC, and the caller's reference is dropped.
///
/// \param known  the table's record of the address, where the caller has just read it; else null.
template <Family F>
void addRouteToRouteTable(const typename F::HostTable::Ptr& hostTable,
                          const typename F::RouteStatus::Ptr& routeTable,
                          const typename F::Addr& ip, Tovan::Fib::FecId fecId,
                          typename F::RouteType routeType,
                          const typename F::VirtualIpStatus* virtualIpStatus,
                          const typename F::RouteSmRoot& root,
                          const typename F::Route* known = nullptr) {
  KIV_TRACE(F::trace(), 8, root, "addRouteToRouteTable");
  KIV_ASSERT_AS(F::kModule, hostTable || routeTable, "hostTable || routeTable");
  KIV_ASSERT_AS(F::kModule, !(hostTable && routeTable), "!(hostTable && routeTable)");
  if constexpr (F::kWriterTracesTables) {
    KIV_TRACE(F::trace(), 6, root,
              "adding route for " << ip << " with type " << routeType << " FecId: " << std::hex
                                  << fecId << std::dec << " table: " << hostTable << "/"
                                  << routeTable);
  } else {
    KIV_TRACE(F::trace(), 6, root,
              "adding route for " << ip << " with type " << routeType << " FecId: " << std::hex
                                  << fecId << std::dec);
  }
  KIV_ASSERT_AS(F::kModule, routeType != F::kInvalid, F::Text::kTypeIsValid);

  const auto prefix = hostPrefix<F>(ip);
  const bool toRouteTable = !hostTable;
  typename F::Route existing = known != nullptr ? *known
                               : toRouteTable   ? Obu::readRoute(routeTable.get(), prefix)
                                                : hostTable->route(prefix);
  const auto before = existing;
  const bool exists = existing.key == prefix;
  const auto write = [&](const typename F::Route& route) {
    if (toRouteTable) {
      routeTable->routeIs(route);
      if (auto* machine = root.routeSm().get())
        hostRouteChanged<F>(*machine, prefix, before, route);
    } else {
      hostTable->routeIs(route);
    }
  };

  if (toRouteTable && givesWay<F>(ip, routeType, virtualIpStatus)) {
    if (exists) {
      existing.routeType = F::kInvalid;
      existing.fecId = Tovan::Fib::invalidFecId;
      write(existing);
    }
    Kiv::validPtr(root.adjHelperRaw()).doDropRefOnFibAdjacency(fecId);
    return;
  }

  const typename F::Route fibRoute = root.prefixToRoute(prefix);
  const bool isTracked = fibRoute.key == prefix;
  if (!exists) {
    typename F::Route added{.key = prefix,
                            .metricPref = {.metric = 0, .preference = 1},
                            .routeType = routeType,
                            .fecId = fecId};
    if (toRouteTable && isTracked) {
      KIV_TRACE(F::trace(), 6, root, "Set new route metric to " << fibRoute.metricPref);
      added.metricPref = fibRoute.metricPref;
    }
    write(added);
    return;
  }

  KIV_TRACE(F::trace(), 6, root, "Old " << existing.routeType << " New " << routeType);
  if (existing.routeType == routeType) {
    if (isTracked && fibRoute.metricPref != existing.metricPref) {
      KIV_TRACE(F::trace(), 0, root,
                "Old metric " << existing.metricPref << " changed to " << fibRoute.metricPref);
      KIV_TRACE(F::trace(), 0, root, "Set route metric to " << fibRoute.metricPref);
      existing.metricPref = fibRoute.metricPref;
    }
  } else {
    if (toRouteTable) {
      KIV_TRACE(F::trace(), 0, root,
                "existing route in " << routeTable << " for " << ip << " has type of "
                                     << existing.routeType << " when we expected " << routeType);
    } else {
      KIV_TRACE(F::trace(), 0, root,
                "existing route in " << hostTable << " for " << ip << " has type of "
                                     << existing.routeType << " when we expected " << routeType);
    }
    // The metric of a FIB route is the route table's affair; the type is changed in either table.
    if (toRouteTable && isTracked) {
      existing.metricPref = fibRoute.metricPref;
      KIV_TRACE(F::trace(), 6, root, "Set route metric to " << fibRoute.metricPref);
    }
    existing.routeType = routeType;
  }
  existing.fecId = fecId;
  if (existing != before) write(existing);
}

/// The root that owns a host-route table: who traces for a function that is given the table alone.
inline const Kiv::Entity& rootOf(const Kiv::Entity& hostTable) {
  return hostTable.parent() == nullptr ? hostTable : *hostTable.parent();
}

/// Withdraws the host route of one address and lets go of what the route held.
///
/// The reference on the route's host adjacency is dropped for the route types this system writes;
/// a route of any other type goes without a release, because its adjacency is not ours. An address
/// without a route is no error.
///
/// \param hostTable  the table the route is in; never null.
/// \param addrSet    when not null, the address leaves this set too, route or no route.
/// \param adjHelper  keeper of the adjacency references; never null.
template <Family F>
void removeHostRoute(const typename F::Addr& ip, const typename F::HostTable::Ptr& hostTable,
                     const typename F::AddrSet::Ptr& addrSet,
                     const typename F::AdjacencyHelper::Ptr& adjHelper) {
  const auto prefix = hostPrefix<F>(ip);
  const auto removed = Kiv::validPtr(hostTable)->routeDel(prefix);
  if (removed.key == prefix && removed.fecId != Tovan::Fib::invalidFecId &&
      F::isOwnType(removed.routeType)) {
    Kiv::validPtr(adjHelper)->doDropRefOnHostAdjacency(hostTable, removed.fecId);
  }
  if (addrSet) addrSet->ipDel(ip);
}

}  // namespace HostCore
