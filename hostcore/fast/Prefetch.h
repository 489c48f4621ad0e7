// The third short cut, in part: prefetching the memory that a step will read.
#pragma once

#include "hostcore/Family.h"
#include "hostcore/fast/CoverCache.h"
#include "hostcore/fast/Enabled.h"

namespace HostCore {

/// The vias of a neighbour that is reached through one interface.
template <Family F>
typename F::ViaSet viasOf(const typename F::Addr& ip, Zemit::IntfId intf) {
  typename F::ViaSet vias;
  vias.newVia({.hop = ip, .intf = intf}, 1);
  return vias;
}

/// Prefetches memory. Reads only memory that a step may read, too, and changes nothing.
template <Family F>
class Prefetch {
 public:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;
  using Route = typename F::Route;
  using Cache = CoverCache<Route, typename F::ForwardingStatus::Fec>;

  explicit Prefetch(const typename F::RouteSm& sm) : sm_(sm) {}

  /// The memory that the event of the neighbour `ip` reads first. `cache` is that of its table.
  void neighbor(const Addr& ip, const Cache& cache) const;
  /// The memory that it reads next: the vias of its host route, or all that a new or a withdrawn
  /// host route needs.
  ///
  /// \param hostRoute   the present host route, or any other route.
  /// \param isNeighbor  whether `ip` is in the table of `intf` now.
  void change(const Addr& ip, Zemit::IntfId intf, bool isNeighbor, const Route& hostRoute) const;
  /// The root's row of `prefix`, whose route is about to be read.
  void trackedRoute(const Prefix& prefix) const {
    const auto* root = sm_.rootRaw();
    if (isEnabled(ShortCut::Prefetch) && root != nullptr) root->prefixToRoutePrefetch(prefix);
  }
  /// The FIB adjacency of a route that is about to be replaced, if there is one.
  void replacedAdjacency(Tovan::Fib::FecId fecId) const {
    if (!isEnabled(ShortCut::Prefetch) || fecId == Tovan::Fib::invalidFecId) return;
    if (const auto* adjHelper = sm_.adjHelperRaw()) adjHelper->prefetch(fecId);
  }

  /// The host route of `ip`; once that has arrived, its adjacency; and then the memory that the
  /// removal of that adjacency reads.
  void hostRoute(const Addr& ip) const {
    if (const auto* routes = neighborRoutes()) routes->prefetch(hostPrefix<F>(ip));
  }
  void adjacency(const Addr& ip) const {
    const auto* routes = neighborRoutes();
    if (routes != nullptr) routes->adjacencies().prefetch(routes->route(hostPrefix<F>(ip)).fecId);
  }
  void lastUse(const Addr& ip) const {
    const auto* routes = neighborRoutes();
    if (routes == nullptr) return;
    const auto fecId = routes->route(hostPrefix<F>(ip)).fecId;
    routes->adjacencies().prefetch(routes->adjIndexToViaSet(fecId));
  }
  /// The memory that a new adjacency of `ip` through `intf` needs.
  void newAdjacency(const Addr& ip, Zemit::IntfId intf) const {
    if (const auto* routes = neighborRoutes()) routes->adjacencies().prefetch(viasOf<F>(ip, intf));
  }
  /// The record of `prefix` in the route table.
  void route(const Prefix& prefix) const {
    if (const auto* routes = sm_.routeStatusRaw()) routes->prefetch(prefix);
  }

 private:
  /// The host routes of neighbours, or null.
  const typename F::HostTable* neighborRoutes() const {
    const auto* root = sm_.rootRaw();
    return root == nullptr ? nullptr : F::neighborTable(*root).get();
  }
  const typename F::RouteSm& sm_;
};

template <Family F>
void Prefetch<F>::neighbor(const Addr& ip, const Cache& cache) const {
  const auto* root = sm_.rootRaw();
  if (!isEnabled(ShortCut::Prefetch) || root == nullptr) return;
  cache.prefetch(ip);
  const Route& cover = cache.cover().route;
  if (!cache.isValid(coverVersion(sm_.fast()))) {
    route(cover.key);
    if (const auto* forwarding = sm_.forwardingStatus()) forwarding->prefetch(cover.fecId);
  }
  root->prefixToRoutePrefetch(cover.key);  // the set of neighbours is in the same row
  root->adjacencyToPrefixPrefetch(cover.fecId);
  hostRoute(ip);
  // The records that the merge reads.
  const Prefix host = hostPrefix<F>(ip);
  root->prefixToRoutePrefetch(host);
  route(host);
  if (const auto* hostStatus = sm_.hostStatusRaw()) hostStatus->prefetch(host);
}

template <Family F>
void Prefetch<F>::change(const Addr& ip, Zemit::IntfId intf, bool isNeighbor,
                         const Route& hostRoute) const {
  const auto* routes = neighborRoutes();
  if (!isEnabled(ShortCut::Prefetch) || routes == nullptr) return;
  const auto& adjacencies = routes->adjacencies();
  const Prefix host = hostPrefix<F>(ip);
  const bool exists = hostRoute.key == host;
  const auto* routeTable = sm_.routeStatusRaw();
  if (exists) {
    adjacencies.prefetch(hostRoute.fecId);
    if (routeTable != nullptr) replacedAdjacency(routeTable->peekFecId(host));
  } else if (routeTable != nullptr) {
    routeTable->prefetch(host, true);
  }
  if (exists == isNeighbor) return;
  // A neighbour is hardly ever reached through more than one interface.
  const auto vias = viasOf<F>(ip, intf);
  adjacencies.prefetch(vias);
  if (const auto* adjHelper = sm_.adjHelperRaw()) {
    isNeighbor ? adjHelper->prefetchNew(vias) : adjHelper->prefetchLast(vias);
  }
}

}  // namespace HostCore
