// Following the FIB's routes.
#pragma once

#include <algorithm>

#include "hostcore/Event.h"
#include "hostcore/InTurn.h"
#include "hostcore/Listening.h"
#include "hostcore/Lookup.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

/// True when the two sets share an interface.
inline bool intersects(const Obu::IntfDir& a, const Obu::IntfDir& b) {
  return std::any_of(a.begin(), a.end(), [&b](Zemit::IntfId intf) { return b.contains(intf); });
}

/// The interfaces that `b` has and `a` lacks.
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

  explicit FibTracking(typename F::RouteSm& sm) : sm_(sm) {}

  void handleStatusRoute(const Prefix& prefix);
  void handleStatusRoute();
  void handleHostStatusRoute(const Prefix& prefix);
  void handleHostStatusRoute();
  void handleRoute(const Prefix& prefix, const Route& fibRoute);
  void handleDeletedRoute(const Route& oldFibRoute);

 private:
  typename F::RouteSm& sm_;
};

template <Family F>
void FibTracking<F>::handleStatusRoute(const Prefix& prefix) {
  if (isNull(prefix)) {
    KIV_TRACE(F::trace(), 0, sm_, "there is a fib route for the null prefix " << prefix);
  }
  // The route table's host prefixes are what this system merged into it.
  if (prefix.len() == F::Addr::kBits) return;
  if (const auto* root = sm_.rootRaw()) root->prefixToRoutePrefetch(prefix);
  const Route fibRoute = Obu::readRoute(sm_.routeStatusRaw(), prefix);
  Listening<F>(sm_).routeIsRead();
  sm_.handleRoute(prefix, fibRoute);
}

template <Family F>
void FibTracking<F>::handleStatusRoute() {
  if (!sm_.initialized()) {
    KIV_TRACE(F::trace(), 8, sm_, "Not yet initialized");
    return;
  }
  Listening<F>(sm_).coversChanged();
  const auto* table = sm_.routeStatusRaw();
  if (table == nullptr) return;
  const auto prefixes = shortestFirst(table->routeKeys());
  Listening<F>(sm_).routesFound(prefixes.empty() ? Prefix() : prefixes.back());
  const auto handle = [&](const Prefix& prefix) {
    // A shorter prefix's merge may have removed the host routes behind it.
    const bool mayBeGone = prefix.len() == F::Addr::kBits;
    if (mayBeGone && Obu::readRoute(table, prefix).key != prefix) return;
    sm_.handleStatusRoute(prefix);
  };
  inTurn(prefixes, handle, [&](const Prefix& prefix) { table->prefetch(prefix); });
}

template <Family F>
void FibTracking<F>::handleHostStatusRoute(const Prefix& prefix) {
  const auto* hostStatus = sm_.hostStatusRaw();
  Listening<F>(sm_).routeIsRead();
  sm_.handleRoute(prefix, hostStatus == nullptr ? Tovan::noRoute<typename F::Route>(prefix)
                                                : hostStatus->route(prefix));
}

template <Family F>
void FibTracking<F>::handleHostStatusRoute() {
  if (!sm_.initialized()) {
    KIV_TRACE(F::trace(), 8, sm_, "Not yet initialized");
    return;
  }
  Listening<F>(sm_).coversChanged();
  const auto* hostStatus = sm_.hostStatusRaw();
  if (hostStatus == nullptr) return;
  for (const Prefix& prefix : shortestFirst(hostStatus->routeKeys())) {
    sm_.handleHostStatusRoute(prefix);
  }
}

template <Family F>
void FibTracking<F>::handleRoute(const Prefix& prefix, const Route& fibRoute) {
  const Event<F> event(sm_, CauseKind::Route, prefix,
                       fibRoute.key == prefix ? fibRoute.fecId : Tovan::Fib::invalidFecId);
  const typename Listening<F>::Handling handling(sm_);
  Listening<F>(sm_).coversChanged();
  Listening<F>(sm_).routeAnnounced(prefix);
  if (!sm_.initialized()) {
    KIV_TRACE(F::trace(), 8, sm_, "Not yet initialized");
    const auto* known = sm_.rootRaw();
    if (known != nullptr && known->prefixToRouteFind(prefix)) {
      Listening<F>(sm_).routePassedOver(prefix, fibRoute);
    }
    return;
  }
  auto& root = Kiv::validPtr(sm_.rootRaw());
  auto& trie = Kiv::validPtr(root.trieRaw());
  const auto tracked = root.prefixToRouteFind(prefix);

  if (fibRoute.key == prefix) {
    if (tracked == fibRoute) {
      Listening<F>(sm_).routePassedOver(prefix, fibRoute);
      return;
    }
    if (!tracked) {
      KIV_TRACE(F::trace(), 6, sm_, "oldFibRoute for " << prefix << F::Text::kWasNone);
    } else {
      KIV_TRACE(F::trace(), 0, sm_, "oldFibRoute for " << prefix << " was " << *tracked);
    }
    const auto oldFec = tracked ? tracked->fecId : Tovan::Fib::invalidFecId;
    F::neighborSetExpect(root, prefix);
    trie.routeIs(prefix, true);
    Listening<F>(sm_).routeMoved(oldFec, fibRoute.fecId);
    root.prefixToRouteIs(fibRoute);
    if (prefix.len() != F::Addr::kBits) {
      sm_.handleAdjacency(fibRoute);
      return;
    }
    sm_.doMerge(prefix.addr());
    return;
  }

  const Route old = tracked.value_or(Route());
  trie.routeDel(prefix);
  if (tracked) {
    KIV_TRACE(F::trace(), 6, sm_, "removing route " << old << " for " << prefix);
    sm_.handleDeletedRoute(old);
  }
  // A prefix that was never tracked counts as one with FEC 0.
  if (const auto list = root.adjacencyToPrefix(old.fecId)) {
    list->prefixDel(prefix);
    if (list->prefixCount() == 0) root.adjacencyToPrefixDel(old.fecId);
  }
  root.prefixToAdjacencyDel(prefix);
  F::neighborSetDel(root, prefix);
  if (root.prefixToRouteDel(prefix)) {
    Listening<F>(sm_).routeMoved(old.fecId, Tovan::Fib::invalidFecId);
  }
}

template <Family F>
void FibTracking<F>::handleDeletedRoute(const Route& oldFibRoute) {
  const typename Listening<F>::Handling handling(sm_);
  KIV_TRACE(F::trace(), 7, sm_,
            "fib route being deleted=" << oldFibRoute << " with prefix=" << oldFibRoute.key);
  auto& root = Kiv::validPtr(sm_.rootRaw());
  const auto mergeSet = F::AddrSet::AddrSetIs(Prefix::null());
  if (oldFibRoute.key.len() == F::Addr::kBits) mergeSet->ipIs(oldFibRoute.key.addr(), true);

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
    SharedFec<F> aboveFec(sm_, above.fecId);
    withdrawInTurn<F>(sm_, *neighbors, ascending(neighbors->ipIteratorConst()),
                      [&](const typename F::Addr& addr) {
                        const About<F> about(sm_, addr);
                        F::removeHostRoute(addr, F::neighborTable(root), nullptr, sm_.adjHelper());
                        neighbors->ipDel(addr);
                        if (rehome) sm_.fixupArpRouteOver(addr, above, aboveFec.now());
                        mergeSet->ipIs(addr, true);
                      });
  }

  if (covered) {
    const auto newIntfs = F::subtract(root, oldIntfs, aboveIntfs);
    const auto promoted = sm_.promoteArpEntries(newIntfs, above);
    for (auto it = promoted->ipIteratorConst(); it; ++it) mergeSet->ipIs(it.key(), true);
  }
  if (mergeSet->ipCount() != 0) sm_.doMerge(mergeSet);
}

}  // namespace HostCore
