// Following the FIB's routes.
#pragma once

#include <algorithm>
#include <optional>

#include "hostcore/Event.h"
#include "hostcore/Filing.h"
#include "hostcore/Lookup.h"
#include "hostcore/fast/ShortCuts.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

/// True when the two sets share an interface.
inline bool intersects(const Obu::IntfDir& a, const Obu::IntfDir& b) {
  return std::any_of(a.begin(), a.end(), [&b](Zemit::IntfId intf) { return b.contains(intf); });
}

/// The interfaces that are in `b` and not in `a`.
inline Obu::IntfDir::Ptr lackingIn(const Obu::IntfDir& a, const Obu::IntfDir& b) {
  auto rest = Obu::IntfDir::IntfDirIs();
  for (const Zemit::IntfId intf : b) {
    if (!a.contains(intf)) rest->intfIs(intf);
  }
  return rest;
}

/// The steps from a change of a FIB route to the tracked state and the host routes under it.
template <Family F>
class FibTracking {
 public:
  using Prefix = typename F::Prefix;
  using Route = typename F::Route;
  using Root = typename F::RouteSmRoot;

  explicit FibTracking(typename F::RouteSm& sm) : sm_(sm) {}

  void handleStatusRoute(const Prefix& prefix);
  void handleStatusRoute();
  void handleHostStatusRoute(const Prefix& prefix);
  void handleHostStatusRoute();
  void handleRoute(const Prefix& prefix, const Route& fibRoute);
  void handleDeletedRoute(const Route& oldFibRoute);

 private:
  /// Handles the route of `prefix`, which `read` gets from its table.
  template <class Read>
  void readAndHandle(const Prefix& prefix, Read read) {
    ShortCuts<F>(sm_).reads(prefix);
    sm_.handleRoute(prefix, read());
  }
  /// Records a FIB route, which is new or has changed. \param oldFec  of the former one, or none.
  void track(const Route& fibRoute, Tovan::Fib::FecId oldFec, Root& root);
  /// Removes the record of a deleted FIB route, with the state under its prefix.
  void untrack(const Prefix& prefix, const std::optional<Route>& tracked, Root& root);

  typename F::RouteSm& sm_;
};

template <Family F>
void FibTracking<F>::handleStatusRoute(const Prefix& prefix) {
  if (isNull(prefix)) {
    KIV_TRACE(F::trace(), 0, sm_, "there is a fib route for the null prefix " << prefix);
  }
  // The host prefixes of the route table are this system's own merged routes.
  if (prefix.len() == F::Addr::kBits) return;
  readAndHandle(prefix, [&] { return Obu::readRoute(sm_.routeStatusRaw(), prefix); });
}

template <Family F>
void FibTracking<F>::handleStatusRoute() {
  if (!sm_.initialized()) {
    KIV_TRACE(F::trace(), 8, sm_, "Not yet initialized");
    return;
  }
  const auto* table = sm_.routeStatusRaw();
  if (table == nullptr) return;
  forEachRoute<F>(sm_, shortestFirst(table->routeKeys()), [&](const Prefix& prefix) {
    // A shorter prefix's merge may have removed the host routes behind it.
    const bool mayBeGone = prefix.len() == F::Addr::kBits;
    if (mayBeGone && Obu::readRoute(table, prefix).key != prefix) return;
    sm_.handleStatusRoute(prefix);
  });
}

template <Family F>
void FibTracking<F>::handleHostStatusRoute(const Prefix& prefix) {
  const auto* hostStatus = sm_.hostStatusRaw();
  readAndHandle(prefix, [&] {
    return hostStatus == nullptr ? Tovan::noRoute<Route>(prefix) : hostStatus->route(prefix);
  });
}

template <Family F>
void FibTracking<F>::handleHostStatusRoute() {
  if (!sm_.initialized()) {
    KIV_TRACE(F::trace(), 8, sm_, "Not yet initialized");
    return;
  }
  const auto* hostStatus = sm_.hostStatusRaw();
  if (hostStatus == nullptr) return;
  for (const Prefix& prefix : shortestFirst(hostStatus->routeKeys())) {
    sm_.handleHostStatusRoute(prefix);
  }
}

template <Family F>
void FibTracking<F>::handleRoute(const Prefix& prefix, const Route& fibRoute) {
  const bool isPresent = fibRoute.key == prefix;
  const EventHandler<F> handler(sm_, prefix, isPresent ? fibRoute.fecId : Tovan::Fib::invalidFecId);
  if (!sm_.initialized()) {
    KIV_TRACE(F::trace(), 8, sm_, "Not yet initialized");
    return;
  }
  auto& root = Kiv::validPtr(sm_.rootRaw());
  Kiv::validPtr(root.trieRaw());
  const auto tracked = root.prefixToRouteFind(prefix);
  if (!isPresent) return untrack(prefix, tracked, root);
  if (tracked == fibRoute) return;
  if (!tracked) {
    KIV_TRACE(F::trace(), 6, sm_, "oldFibRoute for " << prefix << F::Text::kWasNone);
  } else {
    KIV_TRACE(F::trace(), 0, sm_, "oldFibRoute for " << prefix << " was " << *tracked);
  }
  track(fibRoute, tracked ? tracked->fecId : Tovan::Fib::invalidFecId, root);
  if (prefix.len() != F::Addr::kBits) {
    sm_.handleAdjacency(fibRoute);
  } else {
    sm_.doMerge(prefix.addr());
  }
}

template <Family F>
void FibTracking<F>::track(const Route& fibRoute, Tovan::Fib::FecId oldFec, Root& root) {
  F::neighborSetReserve(root, fibRoute.key);
  Kiv::validPtr(root.trieRaw()).routeIs(fibRoute.key, true);
  ShortCuts<F>(sm_).moved(oldFec, fibRoute.fecId);
  root.prefixToRouteIs(fibRoute);
}

template <Family F>
void FibTracking<F>::untrack(const Prefix& prefix, const std::optional<Route>& tracked,
                             Root& root) {
  const Route old = tracked.value_or(Route());
  Kiv::validPtr(root.trieRaw()).routeDel(prefix);
  if (tracked) {
    KIV_TRACE_AS(F::trace(), 6, sm_, "handleRoute", "removing route " << old << " for " << prefix);
    sm_.handleDeletedRoute(old);
  }
  // A prefix that was never tracked counts as one with FEC 0.
  unfile<F>(root, old.fecId, prefix);
  root.prefixToAdjacencyDel(prefix);
  F::neighborSetDel(root, prefix);
  if (root.prefixToRouteDel(prefix)) {
    ShortCuts<F>(sm_).moved(old.fecId, Tovan::Fib::invalidFecId);
  }
}

template <Family F>
void FibTracking<F>::handleDeletedRoute(const Route& oldFibRoute) {
  MergeSet<F> changed(sm_);
  KIV_TRACE(F::trace(), 7, sm_,
            "fib route being deleted=" << oldFibRoute << " with prefix=" << oldFibRoute.key);
  auto& root = Kiv::validPtr(sm_.rootRaw());
  if (oldFibRoute.key.len() == F::Addr::kBits) changed.add(oldFibRoute.key.addr());

  const Route above = F::routeAbove(oldFibRoute.key, sm_.routeStatusRaw(), root.trieRaw());
  const bool covered = !isNull(above.key);
  Obu::IntfDir::Ptr aboveIntfs;
  Obu::IntfDir::Ptr oldIntfs;
  bool rehome = false;
  if (covered) {
    aboveIntfs = F::intfs(sm_.forwardingStatus(), above.fecId);
    oldIntfs = F::intfs(sm_.forwardingStatus(), oldFibRoute.fecId);
    rehome = F::nonemptyIntersection(root, oldIntfs, aboveIntfs);
  }

  if (const auto neighbors = F::neighborSet(root, oldFibRoute.key)) {
    const auto ignore = [](const typename F::Addr&) {};
    withdraw<F>(sm_, root, *neighbors, ascending(neighbors->ipIteratorConst()), ignore,
                [&](const typename F::Addr& addr) {
                  if (rehome) sm_.fixupArpRoute(addr, above);
                  changed.add(addr);
                });
  }

  if (covered) {
    const auto newIntfs = F::subtract(root, oldIntfs, aboveIntfs);
    changed.add(sm_.promoteArpEntries(newIntfs, above));
  }
  changed.merge();
}

}  // namespace HostCore
