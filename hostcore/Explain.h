// Explains the state of one address, without taking a step.
#pragma once

#include <algorithm>
#include <optional>
#include <vector>

#include "hostcore/Lookup.h"
#include "hostcore/Merge.h"
#include "hostcore/RouteWriter.h"

namespace HostCore {

/// The facts that a machine has about one address, and the result. All of it comes from the tables,
/// and from the functions with which the steps decide.
template <Family F>
struct AddressState {
  using Prefix = typename F::Prefix;
  using Route = typename F::Route;
  using Vias = std::vector<typename F::Via>;
  using Source = typename Merge<F>::Source;

  /// The route of the address in a table, with the vias to which it resolves.
  struct Found {
    Route route = {};
    Vias vias = {};
    uint32_t users = 0;  ///< the users of its host adjacency; 0 without one
  };
  /// The address as a neighbour on one interface.
  struct Neighbor {
    Zemit::IntfId intf = {};
    /// Why it has no host route under the route that covers it.
    Lack lack = Lack::None;
    /// The parts of that route that exist: its prefix, its record and its vias.
    Route cover{.key = Prefix::null()};
    Vias coverVias = {};
    /// The vias through which that route reaches the address.
    Vias vias = {};
  };

  bool isInitialized = false;
  bool isDeferred = false;  ///< whether its merge waits for the machine to be initialized
  std::optional<Found> ownAddress;
  Kiv::Name ownIntf;  ///< the interface that owns this address
  std::optional<Found> fibRoute;
  bool isVirtual = false;           ///< whether it is virtual in any VRF
  std::vector<Neighbor> neighbors;  ///< in the order of the interfaces' names
  /// The route that covers the address, whether or not it is a neighbour.
  Neighbor cover;
  std::vector<Prefix> filedUnder;  ///< FIB prefixes, the longest first
  std::optional<Found> hostRoute;  ///< derived from neighbours
  /// Tracked routes without a direct via that are wider than the cover of a neighbour. A promotion
  /// under such a route removes the neighbour's host route. The longest comes first.
  std::vector<Found> takers;

  Source source = Source::None;   ///< the winner's origin
  std::optional<Found> expected;  ///< the route that a merge would write
  bool givesWay = false;  ///< whether the winner is not written, because the address is virtual
  std::optional<Found> inTable;  ///< the route in the route table
  bool isSettled = false;        ///< whether a merge would change nothing
};

/// Explains single addresses.
template <Family F>
class Explain {
 public:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;
  using State = AddressState<F>;
  using Found = typename State::Found;

  /// \param sm  must have a root. It is not changed.
  explicit Explain(typename F::RouteSm& sm)
      : sm_(sm), root_(Kiv::validPtr(sm.rootRaw())), lookup_(sm), merge_(sm) {}

  State stateOf(const Addr& addr) const;

 private:
  using Neighbor = typename State::Neighbor;
  using Vias = typename State::Vias;

  static Vias viasOf(const typename F::ForwardingStatus::Fec& fec) {
    return {fec.begin(), fec.end()};
  }
  static Vias viasOf(const typename F::ViaSet& set) {
    Vias vias;
    for (const auto& member : set) vias.push_back(member.via);
    return vias;
  }
  std::optional<Found> found(const typename F::HostTable& table, const Prefix& host) const {
    const auto route = table.route(host);
    if (route.key != host) return std::nullopt;
    return Found{route, viasOf(table.adjIndexToViaSet(route.fecId)),
                 table.adjacencies().users(static_cast<uint32_t>(route.fecId))};
  }
  Found overFec(const typename F::Route& route) const {
    return {route, viasOf(Obu::readFec(sm_.forwardingStatus(), route.fecId))};
  }
  void findNeighbors(const Addr& addr, State& state) const;
  void findFilings(const Addr& addr, State& state) const;
  void findTakers(const Addr& addr, State& state) const;
  void settle(const Addr& addr, State& state) const;

  typename F::RouteSm& sm_;
  typename F::RouteSmRoot& root_;
  Lookup<F> lookup_;
  Merge<F> merge_;
};

template <Family F>
auto Explain<F>::stateOf(const Addr& addr) const -> State {
  const Prefix host = hostPrefix<F>(addr);
  State state;
  state.isInitialized = sm_.initialized();
  state.isDeferred = root_.toMerge() && root_.toMerge()->ip(addr);
  state.ownAddress = found(*Kiv::validPtr(root_.receiveTable()), host);
  if (const auto* owner = root_.receiveAddrToIntfNameFind(addr)) state.ownIntf = *owner;
  if (const auto route = sm_.doFibLookup(host); route.key == host) state.fibRoute = overFec(route);
  const auto* virtualIps = sm_.virtualIps();
  state.isVirtual = virtualIps != nullptr && virtualIps->isVirtual(addr);
  findNeighbors(addr, state);
  findFilings(addr, state);
  state.hostRoute = found(*Kiv::validPtr(F::neighborTable(root_)), host);
  findTakers(addr, state);
  settle(addr, state);
  return state;
}

template <Family F>
void Explain<F>::findNeighbors(const Addr& addr, State& state) const {
  typename Lookup<F>::Cover cover;
  state.cover.lack = lookup_.findCover(addr, cover);
  state.cover.cover = cover.route;
  state.cover.coverVias = viasOf(cover.fec);
  for (const auto& table : Reactors<F>(sm_).watchedTables()) {
    if (F::findNeighbor(*table, addr) == nullptr) continue;
    Neighbor neighbor{.intf = table->intfId()};
    if (skipInterface(*table)) {
      neighbor.lack = Lack::Skipped;
      state.neighbors.push_back(neighbor);
      continue;
    }
    typename Lookup<F>::Cover own;
    neighbor.lack = lookup_.findCover(addr, table.get(), own);
    neighbor.cover = own.route;
    neighbor.coverVias = viasOf(own.fec);
    if (neighbor.lack == Lack::None) {
      merge_.forEachNeighborVia(addr, own.fec, [&](const typename F::Via& via) {
        neighbor.vias.push_back({.hop = addr, .intf = via.intf});
      });
      if (neighbor.vias.empty()) neighbor.lack = Lack::DirectVia;
    }
    state.neighbors.push_back(neighbor);
  }
}

template <Family F>
void Explain<F>::findFilings(const Addr& addr, State& state) const {
  for (uint32_t len = Addr::kBits + 1; len-- != 0;) {
    const auto prefix = Prefix::enclosing(addr, len);
    const auto neighbors = F::neighborSet(root_, prefix);
    if (neighbors && neighbors->ip(addr)) state.filedUnder.push_back(prefix);
  }
}

template <Family F>
void Explain<F>::findTakers(const Addr& addr, State& state) const {
  if (state.hostRoute) return;
  const auto able = std::find_if(state.neighbors.begin(), state.neighbors.end(),
                                 [](const Neighbor& each) { return each.lack == Lack::None; });
  if (able == state.neighbors.end()) return;
  auto above = F::routeAbove(able->cover.key, sm_.routeStatusRaw(), root_.trieRaw());
  for (; !isNull(above.key);
       above = F::routeAbove(above.key, sm_.routeStatusRaw(), root_.trieRaw())) {
    const auto fec = Obu::readFec(sm_.forwardingStatus(), above.fecId);
    bool reaches = false;
    merge_.forEachNeighborVia(addr, fec, [&](const typename F::Via&) { reaches = true; });
    if (!reaches && Obu::leavesThrough(fec, able->intf)) {
      state.takers.push_back({above, viasOf(fec)});
    }
  }
}

template <Family F>
void Explain<F>::settle(const Addr& addr, State& state) const {
  const Prefix host = hostPrefix<F>(addr);
  const auto [source, route] = merge_.winner(addr);
  state.source = source;
  std::optional<typename F::ViaSet> asAdjacency;  // the vias of the adjacency that the merge takes
  switch (source) {
    case State::Source::OwnAddress:
      if constexpr (F::kMergesReceiveRoutes) {
        asAdjacency = F::receiveVias(*root_.receiveTable(), route);
      }
      state.expected = Found{route, viasOf(*asAdjacency)};
      break;
    case State::Source::FibRoute:
      state.expected = overFec(route);
      break;
    case State::Source::Neighbor:
      asAdjacency = F::neighborTable(root_)->adjIndexToViaSet(route.fecId);
      state.expected = Found{route, viasOf(*asAdjacency)};
      state.expected->route.routeType = F::kAttached;
      break;
    case State::Source::IncompleteFibRoute:
    case State::Source::None:
      break;
  }
  const bool isAttached = state.expected && state.expected->route.routeType == F::kAttached;
  state.givesWay = isAttached && givesWay<F>(addr, F::kAttached, sm_.virtualIps());

  const auto existing = Obu::readRoute(sm_.routeStatusRaw(), host);
  const bool exists = existing.key == host;
  if (exists) state.inTable = overFec(existing);
  if (!state.expected) {
    state.isSettled = !exists;
  } else if (state.givesWay) {
    // A former route stays, without type and FEC.
    state.isSettled = !exists || (existing.routeType == F::kInvalid &&
                                  existing.fecId == Tovan::Fib::invalidFecId);
  } else {
    state.isSettled =
        exists && existing.routeType == state.expected->route.routeType &&
        (asAdjacency
             ? Kiv::validPtr(sm_.adjHelperRaw()).isFibAdjacency(existing.fecId, *asAdjacency)
             : existing.fecId == route.fecId);
  }
}

}  // namespace HostCore
