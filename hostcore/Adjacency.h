// Following the FECs through which FIB routes resolve.
#pragma once

#include "hostcore/Event.h"
#include "hostcore/Filing.h"
#include "hostcore/Lookup.h"
#include "hostcore/fast/ShortCuts.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

/// The steps from a change of a route's FEC, or of a FEC itself, to the host routes under it.
template <Family F>
class Adjacency {
 public:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;
  using Route = typename F::Route;
  using AddrSetPtr = typename F::AddrSet::Ptr;

  explicit Adjacency(typename F::RouteSm& sm) : sm_(sm), root_(Kiv::validPtr(sm.rootRaw())) {}

  void handleAdjacency(const Route& fibRoute);
  AddrSetPtr handleDeletedAdjacency(const Prefix& oldPrefix);
  void handleFec(Tovan::Fib::FecId fecId);
  /// All FECs may have changed. Deliberately takes no step: each changed FEC is announced by
  /// itself.
  void handleFec() { ShortCuts<F>(sm_).announced(); }

 private:
  /// Files the prefix of a route whose FEC was `oldFec`. Deliberate, all three ways:
  ///
  /// - A prefix whose old FEC had no list gets none here. It is filed with its first neighbour.
  /// - A prefix whose old list has other prefixes stays in that list, so that a change of the old
  ///   FEC still reaches it.
  /// - A prefix that was the last of its list goes to the list of its new FEC.
  void fileAgain(const Route& fibRoute, Tovan::Fib::FecId oldFec);
  /// Takes the neighbours inside `prefix` from the route that covers it, with their host routes.
  void takeFromCoveringRoute(const Prefix& prefix, MergeSet<F>& changed);

  typename F::RouteSm& sm_;
  typename F::RouteSmRoot& root_;
};

template <Family F>
void Adjacency<F>::handleAdjacency(const Route& fibRoute) {
  MergeSet<F> changed(sm_);
  const Prefix prefix = fibRoute.key;
  if constexpr (F::kTracesFibRoute) {
    KIV_TRACE(F::trace(), 7, sm_, "handling fibRoute=" << prefix);
  }
  const Tovan::Fib::FecId oldFec = root_.prefixToAdjacency(prefix);
  if (oldFec != Tovan::Fib::invalidFecId) {
    KIV_TRACE(
        F::trace(), 7, sm_,
        "removing state for old adjacency " << oldFec << " which has been removed from " << prefix);
    changed.add(sm_.handleDeletedAdjacency(prefix));
  }
  if (prefix.len() == Addr::kBits) changed.add(prefix.addr());
  root_.prefixToAdjacencyDel(prefix);
  fileAgain(fibRoute, oldFec);
  const auto intfs = fibRoute.fecId == Tovan::Fib::invalidFecId
                         ? Obu::IntfDir::IntfDirIs()
                         : F::intfs(sm_.forwardingStatus(), fibRoute.fecId);
  takeFromCoveringRoute(prefix, changed);
  changed.add(sm_.promoteArpEntries(intfs, fibRoute));
  changed.merge();
}

template <Family F>
void Adjacency<F>::fileAgain(const Route& fibRoute, Tovan::Fib::FecId oldFec) {
  const bool hadList = static_cast<bool>(root_.adjacencyToPrefix(oldFec));
  const auto oldList = unfile<F>(root_, oldFec, fibRoute.key);
  if (fibRoute.fecId == Tovan::Fib::invalidFecId) return;
  KIV_TRACE_AS(F::trace(), 7, sm_, "handleAdjacency", "handling new adjacency " << fibRoute.fecId);
  root_.prefixToAdjacencyIs(fibRoute.key, fibRoute.fecId);
  if (!hadList) return;
  if (oldList) {
    oldList->prefixIs(fibRoute.key, true);
  } else {
    file<F>(sm_, root_, fibRoute.fecId, fibRoute.key);
  }
}

template <Family F>
void Adjacency<F>::takeFromCoveringRoute(const Prefix& prefix, MergeSet<F>& changed) {
  const Route above = F::routeAbove(prefix, sm_.routeStatusRaw(), root_.trieRaw());
  F::traceCoveringRoute(sm_, prefix, above.key);
  if (isNull(above.key)) return;
  const auto neighbors = F::neighborSet(root_, above.key);
  if (!neighbors) return;
  const auto inside =
      neighbors->ipKeysBetween(prefix.addr(), prefix.addr().subnetLast(prefix.len()));
  const auto trace = [&](const Addr& addr) { F::traceTakenFrom(sm_, addr, above.key); };
  withdraw<F>(sm_, root_, *neighbors, inside, trace, [&](const Addr& addr) { changed.add(addr); });
}

template <Family F>
typename F::AddrSet::Ptr Adjacency<F>::handleDeletedAdjacency(const Prefix& oldPrefix) {
  auto result = F::AddrSet::AddrSetIs(Prefix::null());
  const auto neighbors = F::neighborSet(root_, oldPrefix);
  if (!neighbors) return result;
  const auto ignore = [](const Addr&) {};
  withdraw<F>(sm_, root_, *neighbors, ascending(neighbors->ipIteratorConst()), ignore,
              [&](const Addr& addr) { result->ipIs(addr, true); });
  return result;
}

template <Family F>
void Adjacency<F>::handleFec(Tovan::Fib::FecId fecId) {
  const EventHandler<F> handler(sm_, fecId);
  if (!root_.adjacencyToPrefix(fecId)) return;
  // Handling a route files its prefix again, perhaps in a new list, so the walk is over the
  // prefixes that were there at the start and still are.
  for (const Prefix& prefix : shortestFirst(root_.adjacencyToPrefix(fecId)->prefixKeys())) {
    const auto list = root_.adjacencyToPrefix(fecId);
    if (!list || !list->prefix(prefix)) continue;
    Route fibRoute = Obu::readRoute(sm_.routeStatusRaw(), prefix);
    // Deliberate: a filed prefix that has left the FIB is handled as the empty route, which is the
    // default route without a FEC. That one loses its host routes until its neighbours or its FIB
    // route are announced again.
    if (fibRoute.key != prefix) fibRoute = Route();
    if (prefix.len() == Addr::kBits && F::isOwnType(fibRoute.routeType)) continue;
    sm_.handleAdjacency(fibRoute);
  }
}

}  // namespace HostCore
