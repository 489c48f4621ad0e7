// Writing and withdrawing one host route.
#pragma once

#include "hostcore/Event.h"
#include "hostcore/Family.h"
#include "hostcore/fast/ShortCuts.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

/// True when the route table may not have a route of this type: an attached route of an address
/// that is virtual in any VRF.
template <Family F>
bool givesWay(const typename F::Addr& ip, typename F::RouteType routeType,
              const typename F::VirtualIpStatus* virtualIpStatus) {
  return routeType == F::kAttached && virtualIpStatus != nullptr && virtualIpStatus->isVirtual(ip);
}

/// A host-route table that a step is about to change. The step leaves the merge to its caller.
template <Family F>
typename F::HostTable& changing(typename F::HostTable& hostTable) {
  leavesMerge<F>(hostTable);
  return hostTable;
}

/// Writes the host route of one address into exactly one of two tables.
template <Family F>
class RouteWriter {
 public:
  using Route = typename F::Route;
  using Prefix = typename F::Prefix;
  using HostTablePtr = typename F::HostTable::Ptr;
  using RouteTablePtr = typename F::RouteStatus::Ptr;

  struct Wanted {
    typename F::Addr ip;
    Tovan::Fib::FecId fecId;
    typename F::RouteType routeType;  ///< never F::kInvalid
  };

  /// One of the tables is null. The caller keeps all three alive.
  RouteWriter(const HostTablePtr& hostTable, const RouteTablePtr& routeTable,
              const typename F::RouteSmRoot& root)
      : hostTable_(hostTable), routeTable_(routeTable), root_(root) {}

  /// Adds a route, or changes the one that is there.
  ///
  /// The caller's reference on the FEC passes to the route. The caller releases the FEC of a route
  /// that is replaced.
  ///
  /// An address that is virtual in any VRF gets no attached route in the route table: a route that
  /// is there stays without type and FEC, and the caller's reference is dropped.
  ///
  /// \param known  the table's record of the address, if the caller has just read it; else null.
  void add(const Wanted& wanted, const typename F::VirtualIpStatus* virtualIpStatus,
           const Route* known = nullptr);

 private:
  bool isToRouteTable() const { return !hostTable_; }
  void traceAndCheck(const Wanted& wanted) const;
  Route read(const Prefix& prefix) const {
    return isToRouteTable() ? Obu::readRoute(routeTable_.get(), prefix) : hostTable_->route(prefix);
  }
  /// \param before  the record that it replaces.
  void write(const Route& route, const Route& before) const;
  Route newRoute(const Prefix& prefix, const Wanted& wanted) const;
  /// \param tracked  the FIB route of the same prefix, or one with another key.
  Route changedRoute(const Route& existing, const Wanted& wanted, const Route& tracked) const;

  const HostTablePtr& hostTable_;
  const RouteTablePtr& routeTable_;
  const typename F::RouteSmRoot& root_;
};

template <Family F>
void RouteWriter<F>::traceAndCheck(const Wanted& wanted) const {
  KIV_TRACE_AS(F::trace(), 8, root_, "addRouteToRouteTable", "addRouteToRouteTable");
  KIV_ASSERT_AS(F::kModule, hostTable_ || routeTable_, "hostTable || routeTable");
  KIV_ASSERT_AS(F::kModule, !(hostTable_ && routeTable_), "!(hostTable && routeTable)");
  if constexpr (F::kWriterTracesTables) {
    KIV_TRACE_AS(F::trace(), 6, root_, "addRouteToRouteTable",
                 "adding route for " << wanted.ip << " with type " << wanted.routeType
                                     << " FecId: " << std::hex << wanted.fecId << std::dec
                                     << " table: " << hostTable_ << "/" << routeTable_);
  } else {
    KIV_TRACE_AS(F::trace(), 6, root_, "addRouteToRouteTable",
                 "adding route for " << wanted.ip << " with type " << wanted.routeType
                                     << " FecId: " << std::hex << wanted.fecId << std::dec);
  }
  KIV_ASSERT_AS(F::kModule, wanted.routeType != F::kInvalid, F::Text::kTypeIsValid);
}

template <Family F>
void RouteWriter<F>::add(const Wanted& wanted, const typename F::VirtualIpStatus* virtualIpStatus,
                         const Route* known) {
  traceAndCheck(wanted);
  const auto prefix = hostPrefix<F>(wanted.ip);
  const Route existing = known != nullptr ? *known : read(prefix);
  const bool exists = existing.key == prefix;
  if (isToRouteTable() && givesWay<F>(wanted.ip, wanted.routeType, virtualIpStatus)) {
    if (exists) {
      Route withoutFec = existing;
      withoutFec.routeType = F::kInvalid;
      withoutFec.fecId = Tovan::Fib::invalidFecId;
      write(withoutFec, existing);
    }
    Kiv::validPtr(root_.adjHelperRaw()).doDropRefOnFibAdjacency(wanted.fecId);
    return;
  }
  if (!exists) return write(newRoute(prefix, wanted), existing);
  const Route changed = changedRoute(existing, wanted, root_.prefixToRoute(prefix));
  if (changed != existing) write(changed, existing);
}

template <Family F>
void RouteWriter<F>::write(const Route& route, const Route& before) const {
  if (!isToRouteTable()) {
    changing<F>(*hostTable_).routeIs(route);
    return;
  }
  routeTable_->routeIs(route);
  if (auto* machine = root_.routeSm().get()) {
    hostRouteChanged<F>(*machine, route.key, before, route);
  }
}

template <Family F>
typename F::Route RouteWriter<F>::newRoute(const Prefix& prefix, const Wanted& wanted) const {
  Route route{.key = prefix,
              .metricPref = {.metric = 0, .preference = 1},
              .routeType = wanted.routeType,
              .fecId = wanted.fecId};
  if (!isToRouteTable()) return route;
  if (const auto tracked = root_.prefixToRouteFind(prefix)) {
    KIV_TRACE_AS(F::trace(), 6, root_, "addRouteToRouteTable",
                 "Set new route metric to " << tracked->metricPref);
    route.metricPref = tracked->metricPref;
  }
  return route;
}

template <Family F>
typename F::Route RouteWriter<F>::changedRoute(const Route& existing, const Wanted& wanted,
                                               const Route& tracked) const {
  static constexpr const char* kFunction = "addRouteToRouteTable";
  const bool isTracked = tracked.key == existing.key;
  Route route = existing;
  route.routeType = wanted.routeType;
  route.fecId = wanted.fecId;
  KIV_TRACE_AS(F::trace(), 6, root_, kFunction,
               "Old " << existing.routeType << " New " << wanted.routeType);
  if (existing.routeType == wanted.routeType) {
    if (isTracked && tracked.metricPref != existing.metricPref) {
      KIV_TRACE_AS(F::trace(), 0, root_, kFunction,
                   "Old metric " << existing.metricPref << " changed to " << tracked.metricPref);
      KIV_TRACE_AS(F::trace(), 0, root_, kFunction, "Set route metric to " << tracked.metricPref);
      route.metricPref = tracked.metricPref;
    }
    return route;
  }
  if (isToRouteTable()) {
    KIV_TRACE_AS(F::trace(), 0, root_, kFunction,
                 "existing route in " << routeTable_ << " for " << wanted.ip << " has type of "
                                      << existing.routeType << " when we expected "
                                      << wanted.routeType);
  } else {
    KIV_TRACE_AS(F::trace(), 0, root_, kFunction,
                 "existing route in " << hostTable_ << " for " << wanted.ip << " has type of "
                                      << existing.routeType << " when we expected "
                                      << wanted.routeType);
  }
  // The type changes in either table. Only the route table gets the metric of a FIB route.
  if (isToRouteTable() && isTracked) {
    route.metricPref = tracked.metricPref;
    KIV_TRACE_AS(F::trace(), 6, root_, kFunction, "Set route metric to " << tracked.metricPref);
  }
  return route;
}

/// The root that owns a host-route table. Functions without a root trace for it.
inline const Kiv::Entity& rootOf(const Kiv::Entity& hostTable) {
  return hostTable.parent() == nullptr ? hostTable : *hostTable.parent();
}

/// Withdraws the host route of one address and releases the adjacency that the route held.
///
/// The reference on the route's host adjacency is dropped for the route types that this system
/// writes. A route of another type has no adjacency of ours. An address without a route is no
/// error.
///
/// \param hostTable  the table the route is in; never null.
/// \param addrSet    when not null, the address also leaves this set, with or without a route.
/// \param adjHelper  has the adjacency references; never null.
template <Family F>
void removeHostRoute(const typename F::Addr& ip, const typename F::HostTable::Ptr& hostTable,
                     const typename F::AddrSet::Ptr& addrSet,
                     const typename F::AdjacencyHelper::Ptr& adjHelper) {
  const auto prefix = hostPrefix<F>(ip);
  const auto removed = changing<F>(*Kiv::validPtr(hostTable)).routeDel(prefix);
  if (removed.key == prefix && removed.fecId != Tovan::Fib::invalidFecId &&
      F::isOwnType(removed.routeType)) {
    Kiv::validPtr(adjHelper)->doDropRefOnHostAdjacency(hostTable, removed.fecId);
  }
  if (addrSet) addrSet->ipDel(ip);
}

}  // namespace HostCore
