// Neighbours that are learned and lost.
#pragma once

#include "hostcore/Event.h"
#include "hostcore/Lookup.h"
#include "hostcore/Merge.h"
#include "hostcore/fast/ShortCuts.h"

namespace HostCore {

/// The steps from a change of a neighbour table to the repair and the merge of its host routes.
///
/// An argument `shown` is the form in which traces print a neighbour.
template <Family F>
class NeighborEntries {
 public:
  using Addr = typename F::Addr;
  using Route = typename F::Route;
  using ArpTable = Arp::ArpIntfStatus::PtrConst;

  explicit NeighborEntries(typename F::RouteSm& sm) : sm_(sm) {}

  /// One neighbour of the reactor's table is about to be added, changed or removed.
  template <class Reactor>
  static void expectArpEntry(const Reactor& reactor, const Addr& addr) {
    neighborExpected<F>(reactor, addr);
  }
  /// One neighbour of the reactor's table was added, changed or removed.
  template <class Reactor, class Shown>
  void handleArpEntry(const Reactor& reactor, const Addr& addr, const Shown& shown);
  /// Every neighbour of the reactor's table is to be handled.
  template <class Reactor>
  void handleArpEntry(const Reactor& reactor);
  /// The reactor's table was deleted.
  template <class Reactor>
  void handleDel(const Reactor& reactor);

  /// Every neighbour of every table is to be handled.
  void handleArpEntries();

  /// Files the neighbour `addr`, learned on `table`, under the FIB route that covers it there. Does
  /// nothing but trace when no route covers the address on that interface.
  template <class Shown>
  void handleAddedArpEntry(const Addr& addr, const Shown& shown, const ArpTable& table);
  /// Repairs the host route of the neighbour `addr`, lost from `table`. Does nothing if there is no
  /// host route, or if no route covers the address on that interface.
  template <class Shown>
  void handleDeletedArpEntry(const Addr& addr, const Shown& shown, const ArpTable& table);
  /// Handles the remaining neighbours of a deleted table as lost.
  void handleDeletedArpIntfStatus(const ArpTable& table);
  /// The reactor of table `former` was bound to another table: handles the neighbours that only
  /// `former` has as lost.
  void handleReplacedArpIntfStatus(const Arp::ArpIntfStatus& former, const ArpTable& table);

 private:
  CauseKind kindOf(bool isNeighbor, bool hasRoute) const {
    if (!isNeighbor) return CauseKind::NeighborLost;
    const bool* isSettling = sm_.account().isSettling;
    if (isSettling != nullptr && *isSettling) return CauseKind::Settling;
    return hasRoute ? CauseKind::NeighborChanged : CauseKind::NeighborLearned;
  }
  /// The host route that `addr` has as a neighbour, or a record whose key is the null prefix.
  Route hostRouteOf(const Addr& addr) const {
    const auto* root = sm_.rootRaw();
    const auto* table = root == nullptr ? nullptr : F::neighborTable(*root).get();
    const auto host = hostPrefix<F>(addr);
    return table == nullptr ? Tovan::noRoute<Route>(host) : table->route(host);
  }
  auto coverOf(const Addr& addr, const ArpTable& table) const {
    F::traceCheck(sm_, addr);
    return Lookup<F>(sm_).checkIpAddressAgainstFib(addr, table);
  }

  typename F::RouteSm& sm_;
};

template <Family F>
template <class Reactor, class Shown>
void NeighborEntries<F>::handleArpEntry(const Reactor& reactor, const Addr& addr,
                                        const Shown& shown) {
  const ArpTable table = Kiv::validPtr(reactor.notifier());
  if (skipInterface(*table)) {
    KIV_TRACE(F::trace(), 6, reactor,
              F::Text::kSkippingEntry << shown << " on interface " << table->name());
    ++sm_.account().counts.refused[static_cast<size_t>(Lack::Skipped)];
    return;
  }
  const auto* entry = F::findNeighbor(*table, addr);
  if (entry != nullptr && ShortCuts<F>(sm_).isRepeat(reactor, addr)) {
    const Event<F> event(sm_, kindOf(true, true), table->intfId());
    ++sm_.account().counts.repairs;
    return;
  }
  const Route hostRoute = hostRouteOf(addr);
  const bool hasRoute = hostRoute.key == hostPrefix<F>(addr);
  const NeighborScope<F, Reactor> handler(sm_, reactor, addr, entry != nullptr, hostRoute);
  const Event<F> event(sm_, kindOf(entry != nullptr, hasRoute), table->intfId());
  if (entry != nullptr) {
    KIV_TRACE(F::trace(), 7, reactor, F::Text::kHandlingAdded << addr << " for " << table);
    const auto neighbor = *entry;  // the table may change while it is handled
    sm_.handleAddedArpEntry(F::argument(neighbor), table);
  } else {
    KIV_TRACE(F::trace(), 7, reactor,
              "handling a deleted arp entry for " << addr << " for " << table);
    sm_.handleDeletedArpEntry(shown, table);
  }
  sm_.doMerge(addr);
}

template <Family F>
template <class Reactor>
void NeighborEntries<F>::handleArpEntry(const Reactor& reactor) {
  const ArpTable table = Kiv::validPtr(reactor.notifier());
  if (skipInterface(*table)) {
    KIV_TRACE(F::trace(), 6, reactor, "skipping Neigh Entry on interface " << table->name());
    return;
  }
  const Event<F> event(sm_, CauseKind::NeighborTable, table->intfId());
  MergeSet<F> changed(sm_);
  for (const Addr& addr : ascending(F::neighbors(*table))) {
    const auto* entry = F::findNeighbor(*table, addr);
    if (entry == nullptr) continue;
    const auto neighbor = *entry;  // the table may change while it is handled
    sm_.handleAddedArpEntry(F::argument(neighbor), table);
    changed.add(addr);
  }
  changed.merge();
}

template <Family F>
template <class Reactor>
void NeighborEntries<F>::handleDel(const Reactor& reactor) {
  const ArpTable table = Kiv::validPtr(reactor.notifier());
  if (skipInterface(*table)) {
    KIV_TRACE(F::trace(), 6, reactor,
              "skipping processing of deletion of interface " << table->name());
    return;
  }
  const Event<F> event(sm_, CauseKind::NeighborTable, table->intfId());
  sm_.handleDeletedArpIntfStatus(table);
}

template <Family F>
void NeighborEntries<F>::handleArpEntries() {
  if (!sm_.initialized()) {
    KIV_TRACE(F::trace(), 8, sm_, "Not yet initialized");
    return;
  }
  // Without the short cut, this would be sm_.arpIntfStatusKeys().
  for (const Kiv::Name& name : ShortCuts<F>(sm_).relevantTables()) {
    if (const auto* reactor = F::tableReactors(sm_).stored(name)) (*reactor)->handleArpEntry();
  }
}

template <Family F>
template <class Shown>
void NeighborEntries<F>::handleAddedArpEntry(const Addr& addr, const Shown& shown,
                                             const ArpTable& table) {
  const auto cover = coverOf(addr, table);
  if (isNull(cover.route.key)) {
    KIV_TRACE(F::trace(), 7, sm_, F::Text::kNotStoring << shown << " for " << table);
    return;
  }
  sm_.fixupArpRouteOver(addr, cover.route, cover.fec);
}

template <Family F>
template <class Shown>
void NeighborEntries<F>::handleDeletedArpEntry(const Addr& addr, const Shown& shown,
                                               const ArpTable& table) {
  const auto host = hostPrefix<F>(addr);
  if (Kiv::validPtr(F::neighborTable(Kiv::validPtr(sm_.rootRaw())))->route(host).key != host) {
    KIV_TRACE(F::trace(), 7, sm_, F::Text::kNoRoutesForDeleted << shown);
    return;
  }
  const auto cover = coverOf(addr, table);
  if (isNull(cover.route.key)) {
    // Deliberate: while no route covers the address here, its host route stays as it is until a
    // route or FEC changes.
    KIV_TRACE(F::trace(), 7, sm_,
              F::Text::kEntry << shown << " on " << table
                              << " has no corresponding fib entry: ignoring its deletion");
    return;
  }
  sm_.fixupArpRouteOver(addr, cover.route, cover.fec);
}

template <Family F>
void NeighborEntries<F>::handleDeletedArpIntfStatus(const ArpTable& table) {
  Kiv::validPtr(table);
  if (sm_.root().isInvalid()) {
    KIV_TRACE(
        F::trace(), 6, sm_,
        "RouteSm is not valid so skipping processing of deletion of interface " << table->name());
    return;
  }
  const size_t count = F::neighborCount(*table);
  if (count == 0) return;
  KIV_TRACE(F::trace(), 7, sm_,
            "arpIntfStatus for " << table->name() << " was deleted"
                                 << " with " << count << F::Text::kEntriesLeft);
  MergeSet<F> changed(sm_);
  for (const Addr& addr : ascending(F::neighbors(*table))) {
    const auto* entry = F::findNeighbor(*table, addr);
    if (entry == nullptr) continue;
    const auto neighbor = *entry;
    sm_.handleDeletedArpEntry(F::argument(neighbor), table);
    changed.add(addr);
  }
  sm_.doMerge(changed.addrs());
}

template <Family F>
void NeighborEntries<F>::handleReplacedArpIntfStatus(const Arp::ArpIntfStatus& former,
                                                     const ArpTable& table) {
  if (skipInterface(*table)) return;
  const Event<F> event(sm_, CauseKind::NeighborTable, table->intfId());
  MergeSet<F> changed(sm_);
  for (const Addr& addr : ascending(F::neighbors(former))) {
    const auto* entry = F::findNeighbor(former, addr);
    if (entry == nullptr || F::findNeighbor(*table, addr) != nullptr) continue;
    const auto neighbor = *entry;
    sm_.handleDeletedArpEntry(F::argument(neighbor), table);
    changed.add(addr);
  }
  changed.merge();
}

}  // namespace HostCore
