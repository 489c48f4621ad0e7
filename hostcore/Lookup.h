// Looking a neighbour's address up in the FIB.
#pragma once

#include <algorithm>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "hostcore/Account.h"
#include "hostcore/Family.h"
#include "hostcore/Road.h"
#include "platform/kiv/SmallVector.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

inline bool isManagementPort(Zemit::IntfId intf) {
  return intf.name().view().starts_with("Management");
}
/// True when the table's neighbours yield no host routes: those of a management port.
inline bool skipInterface(const Arp::ArpIntfStatus& table) {
  return isManagementPort(table.intfId());
}

/// `prefixes` in the order in which routes are handled: a neighbour that several cover ends up
/// under the longest, whatever order a collection iterates in.
template <class Prefix>
std::vector<Prefix> shortestFirst(std::vector<Prefix> prefixes) {
  std::sort(prefixes.begin(), prefixes.end(), [](const Prefix& a, const Prefix& b) {
    return std::make_tuple(a.len(), a.addr()) < std::make_tuple(b.len(), b.addr());
  });
  return prefixes;
}

/// The keys of a walk in ascending order. What follows from the order in which neighbours are
/// handled, such as the ids that their adjacencies get, is the same each time by this.
template <class Iterator>
auto ascending(Iterator walk) {
  Kiv::SmallVector<std::remove_cvref_t<decltype(walk.key())>> keys;
  for (; walk; ++walk) keys.insert(keys.end(), walk.key());
  std::sort(keys.begin(), keys.end());
  return keys;
}

/// The neighbours of a table inside `prefix`, in ascending order.
template <Family F>
std::vector<typename F::Addr> neighborsInside(const Arp::ArpIntfStatus& table,
                                              const typename F::Prefix& prefix) {
  if (isNull(prefix)) return {};
  return F::neighborsBetween(table, prefix.addr(), prefix.addr().subnetLast(prefix.len()));
}

/// The FEC of a route that many neighbours are handled under. It is read once, and again when a
/// route or a FEC has changed: who is told of one neighbour's host route may change the FEC.
template <Family F>
class SharedFec {
 public:
  SharedFec(const typename F::RouteSm& sm, Tovan::Fib::FecId fecId) : sm_(sm), fecId_(fecId) {}

  /// Good until the next call.
  const typename F::ForwardingStatus::Fec& now() {
    const uint64_t changes = sm_.interest().coverChanges;
    if (std::exchange(changes_, changes) != changes) {
      fec_ = Obu::readFec(sm_.forwardingStatus(), fecId_);
    }
    return fec_;
  }

 private:
  const typename F::RouteSm& sm_;
  const Tovan::Fib::FecId fecId_;
  uint64_t changes_ = 0;  // the count begins above
  typename F::ForwardingStatus::Fec fec_;
};

/// The look-ups that say whether a neighbour may have a host route.
template <Family F>
class Lookup {
 public:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;
  using Route = typename F::Route;

  using Cover = HostCore::Cover<Route, typename F::ForwardingStatus::Fec>;
  using Road = HostCore::Road<Route, typename F::ForwardingStatus::Fec>;

  explicit Lookup(const typename F::RouteSm& sm) : sm_(sm) {}

  /// Begins to fetch what is going to be read when `ip`, a neighbour whose table has this road, is
  /// handled.
  void prefetch(const Addr& ip, const Road& road) const;
  /// The same for what depends on whether there is a host route, when that has come: its vias, or
  /// all that is read when a host route is made or withdrawn.
  ///
  /// \param isNeighbor  whether `ip` is in the table of `intf` now.
  /// \returns whether there is a host route.
  bool prefetchChange(const Addr& ip, Zemit::IntfId intf, bool isNeighbor) const;

  /// Begins to fetch the host route of `ip`; when that has come, its adjacency; and then what is
  /// read when that adjacency goes.
  void prefetchHostRoute(const Addr& ip) const;
  void prefetchAdjacency(const Addr& ip) const;
  void prefetchLastUse(const Addr& ip) const;
  /// Begins to fetch what is read when `ip` gets an adjacency through `intf`.
  void prefetchNewAdjacency(const Addr& ip, Zemit::IntfId intf) const;

  /// The FIB route with exactly this prefix, or a record whose key is the null prefix. Host
  /// prefixes are the host-route status' affair, all others the route table's.
  Route doFibLookup(const Prefix& prefix) const;

  /// The longest FIB prefix that covers `ip`, if its FEC leaves through the table's interface; else
  /// none.
  ///
  /// Only the longest is looked at: when it leaves through another interface, a shorter one that
  /// leaves through this one does not count.
  Cover checkIpAddressAgainstFib(const Addr& ip, const Arp::ArpIntfStatus::PtrConst& table) const;

  /// Finds that prefix, and says what is lacking. `cover` gets as much of the covering route as was
  /// found, whatever is lacking.
  Lack findCover(const Addr& ip, const Arp::ArpIntfStatus* table, Cover& cover) const;
  /// The same for an address that is a neighbour nowhere: whether a route covers it.
  Lack findCover(const Addr& ip, Cover& cover) const;

 private:
  /// What of the machine is lacking for any look-up.
  Lack findInputs() const {
    if (sm_.routeStatusRaw() == nullptr) return Lack::RouteStatus;
    return sm_.hostStatusRaw() == nullptr ? Lack::HostStatus : Lack::None;
  }
  /// Reads the route of the prefix that covers an address, with its FEC.
  Lack readCover(const Prefix& longest, Cover& cover) const;
  const auto& trie() const { return Kiv::validPtr(Kiv::validPtr(sm_.rootRaw()).trieRaw()); }

  /// The host routes of neighbours, or null.
  const typename F::HostTable* neighborRoutes() const {
    const auto* root = sm_.rootRaw();
    return root == nullptr ? nullptr : F::neighborTable(*root).get();
  }
  static typename F::ViaSet viasOf(const Addr& ip, Zemit::IntfId intf) {
    typename F::ViaSet vias;
    vias.newVia({.hop = ip, .intf = intf}, 1);
    return vias;
  }

  const typename F::RouteSm& sm_;
};

template <Family F>
void Lookup<F>::prefetch(const Addr& ip, const Road& road) const {
  const auto* root = sm_.rootRaw();
  if (root == nullptr) return;
  road.prefetch(ip);
  const Route& route = road.cover().route;
  if (!road.isCurrent(sm_.interest().coverChanges)) {
    if (const auto* routeStatus = sm_.routeStatusRaw()) routeStatus->prefetch(route.key);
    if (const auto* forwarding = sm_.forwardingStatus()) forwarding->prefetch(route.fecId);
  }
  root->prefixToRoutePrefetch(route.key);  // and with it the set of neighbours in the same row
  root->adjacencyToPrefixPrefetch(route.fecId);
  prefetchHostRoute(ip);
  // What tells whether a merge would change anything.
  const Prefix host = hostPrefix<F>(ip);
  root->prefixToRoutePrefetch(host);
  if (const auto* routeStatus = sm_.routeStatusRaw()) routeStatus->prefetch(host);
  if (const auto* hostStatus = sm_.hostStatusRaw()) hostStatus->prefetch(host);
}

template <Family F>
bool Lookup<F>::prefetchChange(const Addr& ip, Zemit::IntfId intf, bool isNeighbor) const {
  const auto* routes = neighborRoutes();
  if (routes == nullptr) return false;
  const Prefix host = hostPrefix<F>(ip);
  const Route route = routes->route(host);
  const auto& adjacencies = routes->adjacencies();
  const bool exists = route.key == host;
  if (exists) adjacencies.prefetch(route.fecId);
  if (exists == isNeighbor) return exists;
  // A neighbour is hardly ever reached through more than one interface.
  const auto vias = viasOf(ip, intf);
  adjacencies.prefetch(vias);
  if (const auto* adjHelper = sm_.adjHelperRaw()) {
    isNeighbor ? adjHelper->prefetchNew(vias) : adjHelper->prefetchLast(vias);
  }
  return exists;
}

template <Family F>
void Lookup<F>::prefetchHostRoute(const Addr& ip) const {
  if (const auto* routes = neighborRoutes()) routes->prefetch(hostPrefix<F>(ip));
}

template <Family F>
void Lookup<F>::prefetchAdjacency(const Addr& ip) const {
  const auto* routes = neighborRoutes();
  if (routes != nullptr) routes->adjacencies().prefetch(routes->route(hostPrefix<F>(ip)).fecId);
}

template <Family F>
void Lookup<F>::prefetchLastUse(const Addr& ip) const {
  const auto* routes = neighborRoutes();
  if (routes == nullptr) return;
  const auto fecId = routes->route(hostPrefix<F>(ip)).fecId;
  routes->adjacencies().prefetch(routes->adjIndexToViaSet(fecId));
}

template <Family F>
void Lookup<F>::prefetchNewAdjacency(const Addr& ip, Zemit::IntfId intf) const {
  if (const auto* routes = neighborRoutes()) routes->adjacencies().prefetch(viasOf(ip, intf));
}

template <Family F>
typename F::Route Lookup<F>::doFibLookup(const Prefix& prefix) const {
  if (prefix.len() == Addr::kBits) {
    const auto* hostStatus = sm_.hostStatusRaw();
    return hostStatus == nullptr ? Tovan::noRoute<typename F::Route>(prefix)
                                 : hostStatus->route(prefix);
  }
  return Obu::readRoute(sm_.routeStatusRaw(), prefix);
}

template <Family F>
Lack Lookup<F>::readCover(const Prefix& longest, Cover& cover) const {
  cover.route = sm_.doFibLookup(longest);
  if (cover.route.key != longest) {
    cover.route = {.key = longest};
    return Lack::Record;
  }
  if (cover.route.fecId == Tovan::Fib::invalidFecId) return Lack::Fec;
  cover.fec = Obu::readFec(sm_.forwardingStatus(), cover.route.fecId);
  return Lack::None;
}

template <Family F>
Lack Lookup<F>::findCover(const Addr& ip, Cover& cover) const {
  if (const Lack lack = findInputs(); lack != Lack::None) return lack;
  const Prefix longest = trie().longestMatch(hostPrefix<F>(ip));
  return isNull(longest) ? Lack::Cover : readCover(longest, cover);
}

template <Family F>
Lack Lookup<F>::findCover(const Addr& ip, const Arp::ArpIntfStatus* table, Cover& cover) const {
  if (const Lack lack = findInputs(); lack != Lack::None) return lack;
  if (table == nullptr) return Lack::Table;
  const Prefix longest = trie().longestMatch(hostPrefix<F>(ip));
  if (isNull(longest)) return Lack::Cover;
  const auto& interest = sm_.interest();
  auto* const road = interest.road;
  if (road != nullptr && road->isCurrent(interest.coverChanges) &&
      road->cover().route.key == longest &&
      Obu::leavesThrough(road->cover().fec, table->intfId())) {
    cover = road->cover();
    return Lack::None;
  }
  if (const Lack lack = readCover(longest, cover); lack != Lack::None) return lack;
  if (!Obu::leavesThrough(cover.fec, table->intfId())) return Lack::Interface;
  if (road != nullptr) road->coverIs(cover, interest.coverChanges);
  return Lack::None;
}

template <Family F>
auto Lookup<F>::checkIpAddressAgainstFib(const Addr& ip,
                                         const Arp::ArpIntfStatus::PtrConst& table) const -> Cover {
  Cover cover;
  const Lack lack = findCover(ip, table.get(), cover);
  if (lack == Lack::None) return cover;
  ++sm_.interest().account.counts.refused[static_cast<size_t>(lack)];
  const Prefix& longest = cover.route.key;
  switch (lack) {
    case Lack::RouteStatus:
      KIV_TRACE(F::trace(), 0, sm_, "routeStatus is unset");
      break;
    case Lack::HostStatus:
      KIV_TRACE(F::trace(), 0, sm_, "hostStatus is unset");
      break;
    case Lack::Table:
      KIV_TRACE(F::trace(), 0, sm_, "arpIntfStatus is unset");
      break;
    case Lack::Cover:
      KIV_TRACE(F::trace(), 1, sm_, "there is no route with a prefix for " << ip);
      break;
    case Lack::Record:
      KIV_TRACE(F::trace(), 0, sm_,
                "there is no route for "
                    << longest << " which is a prefix that should have an associated route");
      break;
    case Lack::Fec:
      KIV_TRACE(F::trace(), 1, sm_,
                "there is no adjacency associated with the route for " << longest);
      break;
    case Lack::Interface:
      KIV_TRACE(F::trace(), 7, sm_,
                "the matching prefix for "
                    << ip << " did not have a interface route on the interface " << table->name());
      break;
    case Lack::None:
    case Lack::DirectVia:
    case Lack::Skipped:
      break;
  }
  return {};
}

}  // namespace HostCore
