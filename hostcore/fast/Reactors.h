// The fourth short cut: reactors that are made when they are needed.
#pragma once

#include <algorithm>
#include <utility>
#include <vector>

#include "hostcore/Family.h"
#include "hostcore/Frame.h"
#include "hostcore/ManagementPort.h"
#include "hostcore/fast/Enabled.h"
#include "hostcore/fast/MachineIndex.h"
#include "hostcore/fast/State.h"

namespace HostCore {

/// Decides for which interfaces and neighbour tables of the switch a machine has reactors.
///
/// A machine's collections list a reactor for each, of any VRF. With many VRFs most of these would
/// never do anything. A *sparse* machine has only those that may: of interfaces in its VRF, and of
/// tables through whose interface a tracked route leaves. A missing reactor is one that would be
/// quiet. The index of the machines (MachineIndex) has it made before an event that concerns the
/// machine. All are made when somebody looks at the collections, and when the machine loses the
/// trust in its short cuts.
template <Family F>
class Reactors {
 public:
  using RouteSm = typename F::RouteSm;
  using Index = MachineIndex<F>;
  using Table = Arp::ArpIntfStatus;
  using FecId = Tovan::Fib::FecId;

  explicit Reactors(RouteSm& sm) : sm_(sm), state_(sm.fast()) {}

  /// The machine begins, and has no reactors of interfaces and tables yet. Decides whether it is
  /// sparse.
  void begin();
  /// The machine ends.
  void end() noexcept {
    if (state_.index == nullptr) return;
    addNotedNeighbors();
    leave();
  }

  bool isSparse() const noexcept { return state_.index != nullptr; }
  /// When the machine began; see Kiv::Notifiee::now().
  uint64_t began() const noexcept { return state_.began; }
  /// Makes the missing reactors. From now on the machine has all.
  void makeAll() noexcept;

  /// The reactors of neighbour tables and interfaces that are there.
  auto& tables() const { return F::tableReactors(sm_).map().made(); }
  auto& filters() const { return F::filterReactors(sm_).map().made(); }

  /// Each neighbour table that the machine watches, with or without a reactor, in the order of
  /// names.
  std::vector<Kiv::Ptr<const Table>> watchedTables() const;

  /// Makes the missing reactors of tables that have a neighbour among the deferred merges: a pass
  /// over all neighbours merges it in the order of the tables.
  void joinTablesOfDeferred();

  /// Handles the neighbours that there are when a sparse machine begins. No route covers them yet,
  /// so they have only to be merged when the machine is initialized. They are put among the
  /// deferred merges when somebody looks at these, or a neighbour changes.
  void noteNeighbors();
  /// The deferred merges are about to be made. Without need for those of the noted neighbours, they
  /// are dropped.
  ///
  /// \param mayRest  whether no merge of a neighbour without a route would change anything.
  void deferredMergesTaken(bool mayRest);

  /// A route resolves through a FEC from now on, or no tracked route does any more.
  void fecUsed(FecId fecId);
  void fecUnused(FecId fecId);
  /// A tracked route leaves through the interface from now on, or none does any more.
  void intfUsed(Zemit::IntfId intf, bool isUsed);
  void isAlertIs(bool isAlert) {
    if (state_.index == nullptr || isAlert == state_.isAlert) return;
    state_.isAlert = isAlert;
    index().isAlertIs(sm_, isAlert);
  }

  /// Code other than the directories' reactors sets or deletes a reactor. Unless the directory has
  /// the same, the former one may be missing.
  void setByHand(bool isAsInDirectory) {
    if (!isAsInDirectory) makeAll();
  }

  /// A change of a table concerns the machine: one of its neighbours may have gone.
  void tableChanges(const Table& table) {
    addNotedNeighbors();
    join(table);
  }
  /// Makes the missing reactor of a table or an interface, as if it had been there all along.
  void join(const Table& table);
  template <class Status>
  void join(const Status& status);

  /// The machine is going to point one of its reactors at a table or an interface: gives it its
  /// place among those of other machines.
  void place(typename RouteSm::KivArpIntfStatus& reactor, const Kiv::Ptr<const Table>& table);
  template <class Status>
  void place(typename RouteSm::KivIpIntfStatusFilter& filter, const Status& status);
  /// A reactor of the interface's table, or its filter, was removed.
  void tableRemoved(Zemit::IntfId intf);
  void filterRemoved(Zemit::IntfId intf);

  /// Brings the filters in step with the interfaces there are; `handle` does so for one, present or
  /// not.
  ///
  /// In the order of their names: the last interface to write an address that several have owns it.
  template <class Handle>
  void followInterfaces(Handle handle) const;

 private:
  Index& index() const { return static_cast<Index&>(*state_.index); }
  void leave() noexcept;
  void addNotedNeighbors() noexcept;
  void failed(const Kiv::Notifiee* reactor) noexcept {
    if (reactor != nullptr) sm_.reportException(*reactor, 0);
  }

  RouteSm& sm_;
  typename RouteSm::FastState& state_;
};

template <Family F>
void Reactors<F>::begin() {
  const auto* root = sm_.rootRaw();
  const auto* dir = watchedBy(sm_.neighborDirByIntfName());
  const auto* intfs = watchedBy(sm_.ipStatus());
  const auto* forwarding = sm_.forwardingStatus();
  const auto* activity = sm_.kivFwkActivityRaw();
  if (!isEnabled(ShortCut::Reactors) || !isEnabled(ShortCut::Relevance) || dir == nullptr ||
      intfs == nullptr || forwarding == nullptr) {
    return;
  }
  const auto index = Index::of(*dir, *intfs, *forwarding);
  state_.placing = index;
  state_.began = Kiv::Notifiee::now();  // after the index has found the interfaces and tables
  if (!state_.isTrusted || root == nullptr || (activity != nullptr && activity->queues()) ||
      Index::isObserved()) {
    return;
  }
  // Other code that holds the set might look at it.
  const auto& toMerge = F::deferredMerges(*root).held();
  const auto* trie = root->trieRaw();
  if (!toMerge || toMerge->referenceCount() != 1 || toMerge->hasNotifiees() ||
      (trie != nullptr && trie->size() != 0)) {
    return;
  }
  auto& sm = sm_;
  state_.fecWatch.end();
  state_.index = index;
  state_.makeAll = [&sm] { Reactors(sm).makeAll(); };
  state_.addNoted = [&sm] { Reactors(sm).addNotedNeighbors(); };
  index->add(sm_);
  // A former machine of the root may have left lists of prefixes.
  for (const FecId fecId : root->adjacencyToPrefixKeys()) fecUsed(fecId);
  isAlertIs(true);  // until it is initialized
  F::tableReactors(sm_).map().makeAllIs(&state_.makeAll);
  F::filterReactors(sm_).map().makeAllIs(&state_.makeAll);
  sm_.fwdStatus()->isQuietIs(true);
  sm_.ipStatus()->isQuietIs(true);
  sm_.neighborDirByIntfName()->isQuietIs(true);
}

template <Family F>
void Reactors<F>::leave() noexcept {
  const auto base = std::exchange(state_.index, nullptr);
  auto& index = static_cast<Index&>(*base);
  index.remove(sm_);
  for (const FecId fecId : state_.listedFecs.keys()) index.ofFec.remove(fecId, sm_);
  for (const Zemit::IntfId intf : state_.listedTables.keys()) index.ofTable.remove(intf, sm_);
  for (const Zemit::IntfId intf : state_.listedFilters.keys()) index.ofFilter.remove(intf, sm_);
  state_.listedFecs = {};
  state_.listedTables = {};
  state_.listedFilters = {};
  F::tableReactors(sm_).map().makeAllIs(nullptr);
  F::filterReactors(sm_).map().makeAllIs(nullptr);
  // The machine hears of all FECs itself from now on.
  state_.coverVersion += index.fecVersion() + 1;
  Relevance<F>(sm_).watchFecs();
  if (sm_.fwdStatus()) sm_.fwdStatus()->isQuietIs(false);
  if (sm_.ipStatus()) sm_.ipStatus()->isQuietIs(false);
  if (sm_.neighborDirByIntfName()) sm_.neighborDirByIntfName()->isQuietIs(false);
}

template <Family F>
void Reactors<F>::makeAll() noexcept {
  if (state_.index == nullptr) return;
  addNotedNeighbors();
  for (auto it = F::intfIterator(index().intfs()); it; ++it) {
    join(F::intfStatus(index().intfs(), it.key()));
  }
  index().dir().forEachTable([this](const Table& table) { join(table); });
  leave();
}

template <Family F>
void Reactors<F>::join(const Table& table) {
  const Kiv::Name name = table.name();
  if (tables().find(name) != nullptr) return;
  try {
    const auto reactor = Kiv::make<typename RouteSm::KivArpIntfStatus>(sm_.kivFwkActivity());
    const Kiv::Ptr<const Table> watched(&table);
    // It is as if it had seen all entries: they do not concern it.
    reactor->hasNotificationActiveIs(false);
    reactor->isQuietIs(!state_.isAlert && state_.intfs.find(table.intfId()) == nullptr);
    reactor->routeSmIs(&sm_);
    place(*reactor, watched);
    reactor->notifierIs(watched);
    reactor->hasNotificationActiveIs(sm_.hasNotificationActive());
    F::tableReactors(sm_).insertQuietly(sm_, name, reactor);
  } catch (...) {
    failed(sm_.neighborDirByIntfName().get());
  }
}

template <Family F>
template <class Status>
void Reactors<F>::join(const Status& status) {
  if (!status || filters().find(status->intfId()) != nullptr) return;
  try {
    const auto filter = Kiv::make<typename RouteSm::KivIpIntfStatusFilter>(sm_.kivFwkActivity());
    filter->hasNotificationActiveIs(false);
    filter->routeSmIs(&sm_);
    place(*filter, status);
    filter->notifierIs(status);
    filter->hasNotificationActiveIs(sm_.hasNotificationActive());
    F::filterReactors(sm_).insertQuietly(sm_, status->intfId(), filter);
  } catch (...) {
    failed(sm_.ipStatus().get());
  }
}

template <Family F>
void Reactors<F>::place(typename RouteSm::KivArpIntfStatus& reactor,
                        const Kiv::Ptr<const Table>& table) {
  if (reactor.notifierRaw() == table.get()) return;
  if (state_.index != nullptr && state_.listedTables.insert(table->intfId())) {
    index().ofTable.add(table->intfId(), sm_);
  }
  const auto* dir = watchedBy(sm_.neighborDirByIntfName());
  const auto* placing = static_cast<const Index*>(state_.placing.get());
  if (placing == nullptr || dir != &placing->dir() ||
      dir->tableOf(table->intfId()) != table.get()) {
    return;
  }
  if (state_.index == nullptr && !dir->notifierList().isWalked()) return;
  reactor.registersLate(placing->rankOnTable(table->intfId(), state_.began));
}

template <Family F>
template <class Status>
void Reactors<F>::place(typename RouteSm::KivIpIntfStatusFilter& filter, const Status& status) {
  if (filter.notifierRaw() == status.get()) return;
  const Zemit::IntfId intf = status->intfId();
  if (state_.index != nullptr && state_.listedFilters.insert(intf)) index().ofFilter.add(intf, sm_);
  const auto* intfs = watchedBy(sm_.ipStatus());
  const auto* placing = static_cast<const Index*>(state_.placing.get());
  if (placing == nullptr || intfs != &placing->intfs() || status->l3Status() == nullptr ||
      F::intfStatus(*intfs, intf) != status) {
    return;
  }
  if (state_.index == nullptr && !intfs->notifierList().isWalked()) return;
  filter.l3Status()->registersLate(placing->rankOnIntf(intf, state_.began));
}

template <Family F>
void Reactors<F>::tableRemoved(Zemit::IntfId intf) {
  if (state_.index == nullptr || state_.intfs.find(intf) != nullptr) return;
  if (state_.listedTables.erase(intf)) index().ofTable.remove(intf, sm_);
}

template <Family F>
void Reactors<F>::filterRemoved(Zemit::IntfId intf) {
  if (state_.index == nullptr) return;
  if (state_.listedFilters.erase(intf)) index().ofFilter.remove(intf, sm_);
}

template <Family F>
void Reactors<F>::fecUsed(FecId fecId) {
  if (state_.index == nullptr || fecId == Tovan::Fib::invalidFecId) return;
  if (state_.listedFecs.insert(fecId)) index().ofFec.add(fecId, sm_);
  // It may be announced at the moment.
  if (sm_.forwardingStatus()->notifierList().isWalked()) sm_.fwdStatus()->wakeOnce();
}

template <Family F>
void Reactors<F>::fecUnused(FecId fecId) {
  if (state_.index == nullptr || !state_.unannounced.empty()) return;
  // A list of prefixes may outlive the routes through its FEC; see Adjacency.
  const auto* root = sm_.rootRaw();
  if (root != nullptr && root->adjacencyToPrefix(fecId)) return;
  if (state_.listedFecs.erase(fecId)) index().ofFec.remove(fecId, sm_);
}

template <Family F>
void Reactors<F>::intfUsed(Zemit::IntfId intf, bool isUsed) {
  if (state_.index == nullptr) return;
  if (!isUsed) {
    if (tables().find(intf.name()) == nullptr) tableRemoved(intf);
    return;
  }
  if (state_.listedTables.insert(intf)) index().ofTable.add(intf, sm_);
  if (const auto* table = index().dir().tableOf(intf)) join(*table);
}

template <Family F>
void Reactors<F>::joinTablesOfDeferred() {
  constexpr size_t kFew = 64;
  if (state_.index == nullptr) return;
  const auto& deferred = F::deferredMerges(*sm_.rootRaw()).held();
  const auto addrs = deferred ? deferred->ipKeys() : std::vector<typename F::Addr>();
  if (addrs.size() > kFew) return makeAll();
  if (addrs.empty()) return;
  index().dir().forEachTable([&](const Table& table) {
    const bool hasOne = std::any_of(addrs.begin(), addrs.end(), [&](const typename F::Addr& addr) {
      return F::findNeighbor(table, addr) != nullptr;
    });
    if (hasOne) join(table);
  });
}

template <Family F>
void Reactors<F>::noteNeighbors() {
  state_.hasNoted = true;
  F::deferredMerges(*sm_.rootRaw()).completeIs(&state_.addNoted);
}

template <Family F>
void Reactors<F>::addNotedNeighbors() noexcept {
  if (!std::exchange(state_.hasNoted, false)) return;
  auto& deferred = F::deferredMerges(*sm_.rootRaw());
  deferred.completeIs(nullptr);
  const auto& toMerge = deferred.held();
  try {
    index().dir().forEachTable([&](const Table& table) {
      if (skipInterface(table)) return;
      for (auto it = F::neighbors(table); it; ++it) toMerge->ipIs(it.key(), true);
    });
    state_.mergesDeferred(*toMerge, toMerge->ipCount());
  } catch (...) {
    failed(sm_.neighborDirByIntfName().get());  // ends the trust: all neighbours will be handled
  }
}

template <Family F>
void Reactors<F>::deferredMergesTaken(bool mayRest) {
  if (!mayRest) return addNotedNeighbors();
  if (!std::exchange(state_.hasNoted, false)) return;
  F::deferredMerges(*sm_.rootRaw()).completeIs(nullptr);
}

template <Family F>
auto Reactors<F>::watchedTables() const -> std::vector<Kiv::Ptr<const Table>> {
  std::vector<Kiv::Ptr<const Table>> watched;
  for (const auto& [name, reactor] : tables()) {
    if (const auto* table = reactor->notifierRaw()) watched.emplace_back(table);
  }
  if (state_.index != nullptr) {
    index().dir().forEachTable([&](const Table& table) {
      if (tables().find(table.name()) == nullptr) watched.emplace_back(&table);
    });
  }
  std::sort(watched.begin(), watched.end(),
            [](const auto& a, const auto& b) { return a->name() < b->name(); });
  return watched;
}

template <Family F>
template <class Handle>
void Reactors<F>::followInterfaces(Handle handle) const {
  const auto handleAll = [&handle](std::vector<Zemit::IntfId> intfs) {
    std::sort(intfs.begin(), intfs.end(),
              [](Zemit::IntfId a, Zemit::IntfId b) { return a.name() < b.name(); });
    for (const Zemit::IntfId intfId : intfs) handle(intfId);
  };
  std::vector<Zemit::IntfId> present;
  for (auto it = F::intfIterator(Kiv::validPtr(watchedBy(sm_.ipStatus()))); it; ++it) {
    const auto* l3Status = it.value()->l3Status().get();
    if (state_.index == nullptr || (l3Status != nullptr && l3Status->vrf() == sm_.vrfName())) {
      present.push_back(it.key());
    }
  }
  handleAll(std::move(present));
  handleAll(filters().keys());
}

}  // namespace HostCore
