// Repairs the host routes of neighbours, and selects the best host route of each address.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

#include "hostcore/Event.h"
#include "hostcore/Filing.h"
#include "hostcore/Lookup.h"
#include "hostcore/RouteWriter.h"
#include "hostcore/fast/ShortCuts.h"

namespace HostCore {

/// The steps that file neighbours under FIB routes and merge host routes into the route table.
template <Family F>
class Merge {
 public:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;
  using Route = typename F::Route;
  using Fec = typename F::ForwardingStatus::Fec;
  using AddrSetPtr = typename F::AddrSet::Ptr;

  /// The origin of the route that an address should have in the route table.
  enum class Source : uint8_t {
    None,
    OwnAddress,          ///< a receive route
    FibRoute,            ///< a FIB host route
    IncompleteFibRoute,  ///< a FIB host route that cannot be written; the address gets no route
    Neighbor,            ///< the host route of a neighbour
  };
  struct Winner {
    Source source = Source::None;
    Route route;  ///< the record in its table of origin
  };

  explicit Merge(typename F::RouteSm& sm) : sm_(sm), root_(Kiv::validPtr(sm.rootRaw())) {}

  AddrSetPtr promoteArpEntries(const Obu::IntfDir::Ptr& intfs, const Route& fibRoute);
  void fixupArpRoute(const Addr& ip, const Route& fibRoute, const Fec& fec);
  void doMerge(const typename F::AddrSet::PtrConst& changed);
  void doMerge(const Addr& changed);

  /// The route that wins, whether or not the route table may take it; see givesWay().
  Winner winner(const Addr& ip) const;
  /// Calls `visit` with each direct via of the FEC on whose interface `ip` is a neighbour.
  template <class Visit>
  void forEachNeighborVia(const Addr& ip, const Fec& fec, Visit visit) const;
  /// True when a via of the FEC leads to a gateway on an interface on which `ip` is a neighbour.
  bool isBehindGateway(const Addr& ip, const Fec& fec) const;

 private:
  bool isNeighborOn(const Addr& ip, Zemit::IntfId intf) const {
    const auto* neighbors = sm_.neighborTable(intf);
    return neighbors != nullptr && F::findNeighbor(*neighbors, ip) != nullptr;
  }
  /// The vias through which `ip` is a neighbour on an interface of the FEC.
  typename F::ViaSet neighborVias(const Addr& ip, const Fec& fec) const;
  /// Keeps the merges of addresses until the machine is initialized.
  template <class Addrs>
  void defer(const Addrs& addrs);
  /// Merges addresses, given in ascending order.
  template <class Addrs>
  void mergeAll(const Addrs& addrs);
  /// Writes the host route that an address should have into the route table, or removes it there.
  ///
  /// \param existing  the route table's record of the address.
  void mergeOne(const Addr& ip, const Route& existing);
  void erase(const Prefix& prefix, const Route& existing,
             const typename F::RouteStatus::Ptr& routeTable) {
    routeTable->routeDel(prefix);
    HostCore::hostRouteChanged<F>(sm_, prefix, existing, Route());
  }
  /// Writes a host route into one of two tables; see RouteWriter.
  void write(const typename F::HostTable::Ptr& hostTable,
             const typename F::RouteStatus::Ptr& routeTable,
             const typename RouteWriter<F>::Wanted& wanted, const Route& existing) {
    // Not root_: a callback may have ended the machine.
    RouteWriter<F>(hostTable, routeTable, Kiv::validPtr(sm_.rootRaw()))
        .add(wanted, sm_.virtualIps(), &existing);
  }
  /// Takes a FIB adjacency and writes a route over it. Releases the adjacency if that fails.
  void writeMerged(const Addr& ip, const typename F::ViaSet& vias, typename F::RouteType routeType,
                   const typename F::RouteStatus::Ptr& routeTable, const Route& existing);

  typename F::RouteSm& sm_;
  typename F::RouteSmRoot& root_;
};

template <Family F>
typename F::AddrSet::Ptr Merge<F>::promoteArpEntries(const Obu::IntfDir::Ptr& intfs,
                                                     const Route& fibRoute) {
  auto result = F::AddrSet::AddrSetIs(Prefix::null());
  if (!sm_.initialized()) {
    KIV_TRACE(F::trace(), 8, sm_, "Not yet initialized");
    return result;
  }
  // Entries outside the route are looked up only if that may write a trace.
  const bool lookUpAll = F::trace().builds(0, sm_) || F::trace().buildsAbove(0, sm_);
  for (const Zemit::IntfId intf : *Kiv::validPtr(intfs)) {
    const Kiv::Ptr<const Arp::ArpIntfStatus> table(sm_.neighborTable(intf));
    if (!table || skipInterface(*table)) {
      KIV_TRACE(F::trace(), 7, sm_,
                "skipping " << intf.name() << " because it has no arpIntfStatus");
      continue;
    }
    for (const Addr& addr : neighborsInside<F>(*table, lookUpAll ? Prefix() : fibRoute.key)) {
      const About<F> about(sm_, addr);
      if (isNull(sm_.checkIpAddressAgainstFib(addr, table))) {
        KIV_TRACE(F::trace(), 7, sm_,
                  "checkIpAddressAgainstFib returned null prefix, skipping ARP entry for address "
                      << addr);
        continue;
      }
      // Deliberate: an entry inside the route counts even when a longer route covers it. If this
      // route leaves through a gateway, the entry loses its host route until it is announced again.
      if (fibRoute.key.contains(addr)) result->ipIs(addr, true);
    }
  }
  if (result->ipCount() == 0) return result;
  forEachRepair<F>(sm_, ascending(result->ipIteratorConst()), *intfs,
                   F::neighborSet(root_, fibRoute.key),
                   [&](const Addr& addr) { sm_.fixupArpRoute(addr, fibRoute); });
  return result;
}

template <Family F>
void Merge<F>::fixupArpRoute(const Addr& ip, const Route& fibRoute, const Fec& fec) {
  ++sm_.account().counts.repairs;
  if (fibRoute.fecId == Tovan::Fib::invalidFecId) {
    KIV_TRACE(F::trace(), 0, sm_,
              "fib route that should be associated with " << ip << " is missing an adjacency");
    return;
  }
  KIV_TRACE(F::trace(), 6, sm_, "associating " << ip << " with address set for " << fibRoute.key);
  // Everything that can fail comes before the first change.
  const auto vias = neighborVias(ip, fec);
  const auto& table = F::neighborTable(root_);
  auto& adjHelper = Kiv::validPtr(sm_.adjHelperRaw());
  const Prefix host = hostPrefix<F>(ip);
  Kiv::validPtr(table);
  const auto neighbors = F::neighborSetIs(root_, fibRoute.key);

  // A callback of the filing may write the host route, so the host route is read after it.
  if (vias.empty()) {
    if (isBehindGateway(ip, fec)) {
      ++sm_.account().counts.refused[static_cast<size_t>(Lack::DirectVia)];
    }
    KIV_TRACE(F::trace(), 6, sm_, F::Text::kRemovingRoute << ip << " since it won't be used");
    const Route removed = changing<F>(*table).routeDel(host);
    if (removed.key == host) adjHelper.doDropRefOnHostAdjacency(table, removed.fecId);
    neighbors->ipDel(ip);
    if (neighbors->ipCount() == 0) unfile<F>(root_, fibRoute.fecId, fibRoute.key);
    return;
  }
  neighbors->ipIs(ip, true);
  file<F>(sm_, root_, fibRoute.fecId, fibRoute.key, neighbors.get());
  const Route existing = table->route(host);
  const bool exists = existing.key == host;
  if (exists && table->adjIndexToViaSet(existing.fecId) == vias) {
    return ShortCuts<F>(sm_).repaired(ip, fec, *table, 0);
  }
  // The new adjacency is taken before the old one may lose its last user.
  const auto adjacency = adjHelper.doGetOrCreateHostAdjacency(vias, table);
  try {
    write(table, nullptr, {ip, adjacency, F::kAttached}, existing);
  } catch (...) {
    adjHelper.doDropRefOnHostAdjacency(table, adjacency);
    throw;
  }
  ShortCuts<F>(sm_).repaired(ip, fec, *table, 1);
  if (exists) adjHelper.doDropRefOnHostAdjacency(table, existing.fecId);
}

template <Family F>
typename F::ViaSet Merge<F>::neighborVias(const Addr& ip, const Fec& fec) const {
  typename F::ViaSet vias;
  forEachNeighborVia(ip, fec, [&](const typename F::Via& via) {
    F::traceStoredVia(sm_, ip, via);
    vias.newVia({.hop = ip, .intf = via.intf}, 1);
  });
  return vias;
}

template <Family F>
template <class Visit>
void Merge<F>::forEachNeighborVia(const Addr& ip, const Fec& fec, Visit visit) const {
  for (uint32_t index = 0; index < fec.viaCount(); ++index) {
    const typename F::Via via = fec.via(Tovan::Fib::ViaIndex(index));
    if (via.hop.isZero() && isNeighborOn(ip, via.intf)) visit(via);
  }
}

template <Family F>
bool Merge<F>::isBehindGateway(const Addr& ip, const Fec& fec) const {
  return std::any_of(fec.begin(), fec.end(), [&](const typename F::Via& via) {
    return !via.hop.isZero() && isNeighborOn(ip, via.intf);
  });
}

template <Family F>
void Merge<F>::doMerge(const typename F::AddrSet::PtrConst& changed) {
  const auto addrs = ascending(Kiv::validPtr(changed)->ipIteratorConst());
  sm_.initialized() ? mergeAll(addrs) : defer(addrs);
}

template <Family F>
void Merge<F>::doMerge(const Addr& changed) {
  const std::array addrs{changed};
  sm_.initialized() ? mergeAll(addrs) : defer(addrs);
}

template <Family F>
template <class Addrs>
void Merge<F>::defer(const Addrs& addrs) {
  KIV_TRACE_AS(F::trace(), 2, sm_, "doMerge", "skipping merge because not initialized yet");
  const typename F::AddrSet::Ptr toMerge = Kiv::validPtr(F::deferredMerges(root_).held());
  const DeferralScope<F> deferral(sm_, toMerge);
  for (const Addr& addr : addrs) toMerge->ipIs(addr, true);
}

template <Family F>
template <class Addrs>
void Merge<F>::mergeAll(const Addrs& addrs) {
  // The reference of the route about to be replaced. It is dropped only after the replacement has
  // been written, so that a FEC never reaches a zero count while it is still in use. Its helper is
  // kept with it: a callback of the write may end the machine.
  Tovan::Fib::FecId heldFec = Tovan::Fib::invalidFecId;
  typename F::AdjacencyHelper* helper = nullptr;
  forEachMerge<F>(sm_, addrs, [&](const Addr& addr, const Route& existing) {
    const About<F> about(sm_, addr);
    const Prefix prefix = hostPrefix<F>(addr);
    KIV_TRACE_AS(F::trace(), 8, sm_, "doMerge", " handling prefix: " << prefix);
    if (heldFec != Tovan::Fib::invalidFecId) {
      KIV_TRACE_AS(F::trace(), 8, sm_, "doMerge",
                   " Dropping ref on fec id: "
                       << " fecId: " << heldFec);
      Kiv::validPtr(helper).doDropRefOnFibAdjacency(heldFec);
    }
    helper = sm_.adjHelperRaw();
    heldFec = Tovan::Fib::invalidFecId;
    if (existing.key == prefix && F::isOwnType(existing.routeType)) {
      heldFec = existing.fecId;
      KIV_TRACE_AS(F::trace(), 8, sm_, "doMerge",
                   " oldFecId: " << heldFec << " routeType: " << existing.routeType);
    }
    ++sm_.account().counts.merges;
    mergeOne(addr, existing);
  });
  if (heldFec != Tovan::Fib::invalidFecId) {
    KIV_TRACE_AS(F::trace(), 8, sm_, "doMerge", F::Text::kDroppingLast << heldFec);
    Kiv::validPtr(helper).doDropRefOnFibAdjacency(heldFec);
  }
}

template <Family F>
auto Merge<F>::winner(const Addr& ip) const -> Winner {
  const Prefix prefix = hostPrefix<F>(ip);
  if constexpr (F::kMergesReceiveRoutes) {
    const Route receiveRoute = Kiv::validPtr(root_.receiveTable())->route(prefix);
    if (receiveRoute.key == prefix) return {Source::OwnAddress, receiveRoute};
  }
  const Route fibRoute = sm_.doFibLookup(prefix);
  if (fibRoute.key == prefix) {
    return {isComplete<F>(fibRoute) ? Source::FibRoute : Source::IncompleteFibRoute, fibRoute};
  }
  const Route neighborRoute = Kiv::validPtr(F::neighborTable(root_))->route(prefix);
  if (neighborRoute.key == prefix) return {Source::Neighbor, neighborRoute};
  return {};
}

template <Family F>
void Merge<F>::mergeOne(const Addr& ip, const Route& existing) {
  const auto routeTable = sm_.routeStatus();
  if (!routeTable) return;
  const Prefix prefix = hostPrefix<F>(ip);
  const auto [source, route] = winner(ip);
  switch (source) {
    case Source::OwnAddress:
      if constexpr (F::kMergesReceiveRoutes) {
        KIV_TRACE_AS(F::trace(), 8, sm_, "doMerge", "Adding receive route " << ip);
        writeMerged(ip, F::receiveVias(*root_.receiveTable(), route), route.routeType, routeTable,
                    existing);
      }
      break;
    case Source::FibRoute:
      write(nullptr, routeTable, {ip, route.fecId, route.routeType}, existing);
      break;
    case Source::IncompleteFibRoute:
      KIV_TRACE_AS(F::trace(), 7, sm_, "doMerge",
                   F::Text::kHostFibRoute << ip << " is missing an adjacency");
      if constexpr (F::kTracesMergeDeletion) {
        KIV_TRACE_AS(F::trace(), 7, sm_, "doMerge", " delete prefix from routeStatus " << prefix);
      }
      erase(prefix, existing, routeTable);
      break;
    case Source::Neighbor:
      writeMerged(ip, F::neighborTable(root_)->adjIndexToViaSet(route.fecId), F::kAttached,
                  routeTable, existing);
      break;
    case Source::None:
      erase(prefix, existing, routeTable);
      break;
  }
}

template <Family F>
void Merge<F>::writeMerged(const Addr& ip, const typename F::ViaSet& vias,
                           typename F::RouteType routeType,
                           const typename F::RouteStatus::Ptr& routeTable, const Route& existing) {
  auto& adjHelper = Kiv::validPtr(sm_.adjHelperRaw());
  const auto fec = adjHelper.takeFibAdjacency(vias, existing.fecId);
  try {
    write(nullptr, routeTable, {ip, fec, routeType}, existing);
  } catch (...) {
    adjHelper.doDropRefOnFibAdjacency(fec);
    throw;
  }
}

}  // namespace HostCore
