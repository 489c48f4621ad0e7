// An index of a switch's machines, to find those that a change concerns.
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "hostcore/Family.h"
#include "platform/arp/NeighborDir.h"
#include "platform/kiv/containers/HashMap.h"
#include "platform/kiv/runtime/Notifiee.h"
#include "platform/kiv/runtime/Trace.h"
#include "platform/kiv/runtime/Watch.h"
#include "platform/l3/IntfStatus.h"
#include "platform/tovan/FibTypes.h"

namespace HostCore {

template <Family F>
class Reactors;
template <Family F>
class Relevance;

/// Lists of machines by a key. An empty list is removed.
template <class Key, class RouteSm>
class MachineLists {
 public:
  void add(const Key& key, RouteSm& sm) { lists_.tryEmplace(key).first->push_back(&sm); }
  void remove(const Key& key, RouteSm& sm) {
    auto* list = lists_.find(key);
    if (list == nullptr) return;
    std::erase(*list, &sm);
    if (list->empty()) lists_.erase(key);
  }
  /// Calls `visit` with each machine that the list has now. `visit` may change the list.
  template <class Visit>
  void forEach(const Key& key, Visit visit) const {
    const auto* list = lists_.find(key);
    if (list == nullptr) return;
    const auto machines = *list;
    for (RouteSm* sm : machines) visit(*sm);
  }

 private:
  Kiv::HashMap<Key, std::vector<RouteSm*>> lists_;
};

/// The part of an index that does not depend on the family.
class MachineIndexBase {
 public:
  MachineIndexBase(const MachineIndexBase&) = delete;
  MachineIndexBase& operator=(const MachineIndexBase&) = delete;
  virtual ~MachineIndexBase() = default;

  /// Increases with each change of a FEC.
  uint64_t fecVersion() const noexcept { return fecVersion_; }

 protected:
  MachineIndexBase() = default;
  uint64_t fecVersion_ = 0;
};

/// The sparse machines over one set of switch-wide inputs, by VRF, interface and FEC; see Reactors.
///
/// Before an input notifies its notifiees of a change, the index makes the missing reactors of the
/// machines that the change concerns, and wakes their quiet reactors. The other machines take no
/// time.
template <Family F>
class MachineIndex final : public MachineIndexBase,
                           public std::enable_shared_from_this<MachineIndex<F>> {
 public:
  using RouteSm = typename F::RouteSm;
  using Intfs = typename F::Intfs;
  using Table = Arp::ArpIntfStatus;
  using FecId = Tovan::Fib::FecId;

  MachineIndex(const Arp::NeighborDir& dir, const Intfs& intfs,
               const typename F::ForwardingStatus& forwarding)
      : dir_(&dir), intfs_(&intfs), forwarding_(&forwarding), inputHook_(*this), tableHook_(*this) {
    fecWatch_.begin(forwarding.watches(), [this](const FecId& fecId) { fecWritten(fecId); });
  }

  /// The index of these inputs. Makes it when there is none.
  static std::shared_ptr<MachineIndex> of(const Arp::NeighborDir& dir, const Intfs& intfs,
                                          const typename F::ForwardingStatus& forwarding);

  /// True while each change concerns each machine.
  static bool isObserved() {
    return Kiv::TraceFacility::anyBuilds() || Kiv::Notifiee::hasAttributeHook();
  }

  const Arp::NeighborDir& dir() const noexcept { return *dir_; }
  const Intfs& intfs() const noexcept { return *intfs_; }

  void add(RouteSm& sm);
  void remove(RouteSm& sm) noexcept;
  /// Each change of a neighbour table concerns an alert machine.
  void isAlertIs(RouteSm& sm, bool isAlert);

  /// The machines that track a route with a FEC, that have a reactor of a table or a route through
  /// its interface, and that have a filter of an interface.
  MachineLists<FecId, RouteSm> ofFec;
  MachineLists<Zemit::IntfId, RouteSm> ofTable;
  MachineLists<Zemit::IntfId, RouteSm> ofFilter;

  /// The rank of a machine that began at `began` among the reactors of a table of the directory, or
  /// among the filters of an interface.
  Kiv::Notifiee::Rank rankOnTable(Zemit::IntfId intf, uint64_t began) const {
    return rank(tablesSince_, intf, began);
  }
  Kiv::Notifiee::Rank rankOnIntf(Zemit::IntfId intf, uint64_t began) const {
    return rank(intfsSince_, intf, began);
  }

 private:
  /// The hook of the inputs, and of the layer-3 status of each interface.
  class InputHook final : public Kiv::NotifierHook {
   public:
    explicit InputHook(MachineIndex& index) : NotifierHook(false), index_(index) {}
    MachineIndex& index() const noexcept { return index_; }
    void beforeTelling(const Kiv::Entity& notifier, Kiv::AttributeId id, const void* key,
                       bool isRepeat) override {
      if (!isRepeat) index_.inputChanges(notifier, id, key);
    }

   private:
    MachineIndex& index_;
  };
  /// The hook of each neighbour table.
  class TableHook final : public Kiv::NotifierHook {
   public:
    explicit TableHook(MachineIndex& index) : NotifierHook(true), index_(index) {}
    void beforeTelling(const Kiv::Entity& notifier, Kiv::AttributeId id, const void* /*key*/,
                       bool /*isRepeat*/) override {
      const bool isOtherFamily = id != 0 && id != F::NeighborAttribute::kInfo.id;
      if (isOtherFamily && !isObserved()) return;
      index_.tableChanges(static_cast<const Table&>(notifier));
    }
    void alertChanged(bool isNeeded) {
      isNeededIs(isNeeded);
      versionIsNext();
    }

   private:
    MachineIndex& index_;
  };
  /// The hook of each sparse machine. Before a notifiee registers with the machine, makes all
  /// reactors.
  class MachineHook final : public Kiv::NotifierHook {
   public:
    MachineHook() : NotifierHook(true) {}
    void beforeTelling(const Kiv::Entity&, Kiv::AttributeId, const void*, bool) override {}
    void beforeRegistering(const Kiv::Entity& notifier) override {
      // The machine was not const when it was added.
      Reactors<F>(const_cast<RouteSm&>(static_cast<const RouteSm&>(notifier))).makeAll();
    }
  };

  using Times = Kiv::HashMap<Zemit::IntfId, uint64_t>;
  static Kiv::Notifiee::Rank rank(const Times& times, Zemit::IntfId intf, uint64_t began) {
    const uint64_t* since = times.find(intf);
    return since != nullptr && *since > began ? Kiv::Notifiee::Rank{*since, began}
                                              : Kiv::Notifiee::Rank{began, 0};
  }
  std::shared_ptr<Kiv::NotifierHook> share(Kiv::NotifierHook& hook) {
    return {this->shared_from_this(), &hook};
  }
  bool isLinked() const {
    return dir_->notifierList().hookedSince(inputHook_) != 0 &&
           intfs_->notifierList().hookedSince(inputHook_) != 0 &&
           forwarding_->notifierList().hookedSince(inputHook_) != 0;
  }
  void link();
  void linkTable(const Table& table) {
    *tablesSince_.tryEmplace(table.intfId()).first = Kiv::Notifiee::now();
    table.notifierList().hookIs(share(tableHook_), table);
  }
  /// Follows the layer-3 status that `intf` has now.
  void linkIntf(Zemit::IntfId intf);

  /// Calls `visit` with the machines that each change concerns.
  template <class Visit>
  void forEachAlert(Visit visit) const {
    const auto machines = isObserved() ? machines_ : alert_;
    for (RouteSm* sm : machines) visit(*sm);
  }
  /// Wakes the reactor `kReactor` of the alert machines and of those in the list of `key`; without
  /// a key, of all machines.
  template <auto kReactor, class Key>
  void wake(const Key* key, const MachineLists<Key, RouteSm>& lists) const {
    const auto wakeOne = [](const RouteSm& sm) { (sm.*kReactor)()->wakeOnce(); };
    if (key == nullptr) {
      for (const RouteSm* sm : machines_) wakeOne(*sm);
    } else {
      lists.forEach(*key, wakeOne);
      forEachAlert(wakeOne);
    }
  }
  void fecWritten(FecId fecId);
  void inputChanges(const Kiv::Entity& notifier, Kiv::AttributeId id, const void* key);
  void tableChanges(const Table& table);
  void dirChanges(const Kiv::Name* name);
  void intfsChange(const Zemit::IntfId* intf);
  void fecsChange(const FecId* fecId);
  void vrfChanges(const L3::Intf::Status& l3Status);

  // Used only while there is a machine, which keeps them alive. Otherwise only compared.
  const Arp::NeighborDir* dir_;
  const Intfs* intfs_;
  const typename F::ForwardingStatus* forwarding_;
  InputHook inputHook_;
  TableHook tableHook_;
  MachineHook machineHook_;

  std::vector<RouteSm*> machines_;
  std::vector<RouteSm*> alert_;
  MachineLists<L3::VrfName, RouteSm> ofVrf_;
  Kiv::HashMap<Zemit::IntfId, const L3::Intf::Status*> l3Statuses_;
  std::unordered_map<const L3::Intf::Status*, std::vector<Zemit::IntfId>> intfsOfL3Status_;
  // The times at which the directories announced each of their tables and interfaces.
  Times tablesSince_;
  Times intfsSince_;
  Kiv::Watch<FecId> fecWatch_;
};

template <Family F>
auto MachineIndex<F>::of(const Arp::NeighborDir& dir, const Intfs& intfs,
                         const typename F::ForwardingStatus& forwarding)
    -> std::shared_ptr<MachineIndex> {
  std::shared_ptr<MachineIndex> found;
  dir.notifierList().forEachHook([&](Kiv::NotifierHook& hook) {
    auto* inputHook = dynamic_cast<InputHook*>(&hook);
    if (inputHook == nullptr) return;
    MachineIndex& index = inputHook->index();
    if (index.dir_ == &dir && index.intfs_ == &intfs && index.forwarding_ == &forwarding &&
        index.isLinked()) {
      found = index.shared_from_this();
    }
  });
  if (found == nullptr) {
    found = std::make_shared<MachineIndex>(dir, intfs, forwarding);
    found->link();
  }
  return found;
}

template <Family F>
void MachineIndex<F>::link() {
  for (const Kiv::Entity* input :
       {static_cast<const Kiv::Entity*>(dir_), static_cast<const Kiv::Entity*>(intfs_),
        static_cast<const Kiv::Entity*>(forwarding_)}) {
    input->notifierList().hookIs(share(inputHook_), *input);
  }
  dir_->forEachTable([this](const Table& table) { linkTable(table); });
  for (auto it = F::intfIterator(*intfs_); it; ++it) linkIntf(it.key());
}

template <Family F>
void MachineIndex<F>::linkIntf(Zemit::IntfId intf) {
  const auto status = F::intfStatus(*intfs_, intf);
  const L3::Intf::Status* now = status ? status->l3Status().get() : nullptr;
  if (status) {
    *intfsSince_.tryEmplace(intf).first = Kiv::Notifiee::now();
  } else {
    intfsSince_.erase(intf);
  }
  const L3::Intf::Status** const stored = l3Statuses_.find(intf);
  const L3::Intf::Status* const former = stored == nullptr ? nullptr : *stored;
  if (now == former) return;
  if (former != nullptr) {
    auto& intfs = intfsOfL3Status_[former];
    std::erase(intfs, intf);
    if (intfs.empty()) intfsOfL3Status_.erase(former);
    l3Statuses_.erase(intf);
  }
  if (now == nullptr) return;
  *l3Statuses_.tryEmplace(intf).first = now;
  intfsOfL3Status_[now].push_back(intf);
  now->notifierList().hookIs(share(inputHook_), *now);
}

template <Family F>
void MachineIndex<F>::add(RouteSm& sm) {
  machines_.push_back(&sm);
  ofVrf_.add(sm.vrfName(), sm);
  sm.notifierList().hookIs(share(machineHook_), sm);
}

template <Family F>
void MachineIndex<F>::remove(RouteSm& sm) noexcept {
  std::erase(machines_, &sm);
  ofVrf_.remove(sm.vrfName(), sm);
  isAlertIs(sm, false);
}

template <Family F>
void MachineIndex<F>::isAlertIs(RouteSm& sm, bool isAlert) {
  std::erase(alert_, &sm);
  if (isAlert) alert_.push_back(&sm);
  tableHook_.alertChanged(!alert_.empty());
}

template <Family F>
void MachineIndex<F>::fecWritten(FecId fecId) {
  ++fecVersion_;
  ofFec.forEach(fecId, [&](RouteSm& sm) { Relevance<F>(sm).fecChanged(fecId); });
}

template <Family F>
void MachineIndex<F>::inputChanges(const Kiv::Entity& notifier, Kiv::AttributeId id,
                                   const void* key) {
  if (&notifier == dir_) {
    if (id == Arp::NeighborDir::ArpIntfStatusAttribute::kInfo.id) {
      dirChanges(static_cast<const Kiv::Name*>(key));
    }
  } else if (&notifier == intfs_) {
    if (id == F::IntfsAttribute::kInfo.id) intfsChange(static_cast<const Zemit::IntfId*>(key));
  } else if (&notifier == forwarding_) {
    if (id == F::ForwardingStatus::FecAttribute::kInfo.id) {
      fecsChange(static_cast<const FecId*>(key));
    }
  } else if (id == L3::Intf::Status::VrfAttribute::kInfo.id) {
    vrfChanges(static_cast<const L3::Intf::Status&>(notifier));
  }
}

template <Family F>
void MachineIndex<F>::tableChanges(const Table& table) {
  // Without machines, nothing keeps the directory alive.
  if (machines_.empty() || dir_->tableOf(table.intfId()) != &table) return;
  forEachAlert([&](RouteSm& sm) { Reactors<F>(sm).tableChanges(table); });
}

template <Family F>
void MachineIndex<F>::dirChanges(const Kiv::Name* name) {
  constexpr auto kReactor = &RouteSm::neighborDirByIntfName;
  if (name == nullptr) return wake<kReactor, Zemit::IntfId>(nullptr, ofTable);
  const auto intf = Zemit::IntfId::find(*name).value_or(Zemit::IntfId());
  if (const auto& table = dir_->arpIntfStatus(*name)) {
    linkTable(*table);
  } else {
    tablesSince_.erase(intf);
  }
  wake<kReactor>(&intf, ofTable);
}

template <Family F>
void MachineIndex<F>::intfsChange(const Zemit::IntfId* intf) {
  constexpr auto kReactor = &RouteSm::ipStatus;
  if (intf != nullptr) {
    linkIntf(*intf);
    const auto status = F::intfStatus(*intfs_, *intf);
    if (status && status->l3Status()) wake<kReactor>(&status->l3Status()->vrf(), ofVrf_);
  }
  wake<kReactor>(intf, ofFilter);
}

template <Family F>
void MachineIndex<F>::fecsChange(const FecId* fecId) {
  wake<&RouteSm::fwdStatus>(fecId, ofFec);
}

template <Family F>
void MachineIndex<F>::vrfChanges(const L3::Intf::Status& l3Status) {
  const auto found = intfsOfL3Status_.find(&l3Status);
  if (machines_.empty() || found == intfsOfL3Status_.end()) return;
  auto intfs = found->second;
  const auto join = [&](RouteSm& sm) {
    // The order of the filters of one machine: first the interfaces that it found when it began, by
    // name; then the others, in the order in which they were added.
    const uint64_t began = Reactors<F>(sm).began();
    std::sort(intfs.begin(), intfs.end(), [&](Zemit::IntfId a, Zemit::IntfId b) {
      const auto rankOfA = rankOnIntf(a, began);
      const auto rankOfB = rankOnIntf(b, began);
      return rankOfA != rankOfB ? rankOfA < rankOfB : a.name() < b.name();
    });
    for (const Zemit::IntfId intf : intfs) Reactors<F>(sm).join(F::intfStatus(*intfs_, intf));
  };
  ofVrf_.forEach(l3Status.vrf(), join);
  forEachAlert(join);
}

}  // namespace HostCore
