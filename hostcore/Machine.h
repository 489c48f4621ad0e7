// The life cycle of a state machine: how it gets, replaces and releases its inputs and reactors.
#pragma once

#include <string>
#include <utility>

#include "hostcore/Event.h"
#include "hostcore/Frame.h"
#include "hostcore/NeighborEntries.h"
#include "hostcore/Tracing.h"
#include "hostcore/fast/ShortCuts.h"

namespace HostCore {

/// The operations of a machine on its inputs, reactors and state, for both families. The entity
/// itself, with all attributes, is declared in host/RouteSm.h and host6/RouteSm.h.
template <class F>
class Machine {
 public:
  using RouteSm = typename F::RouteSm;

  explicit Machine(RouteSm& sm) : sm_(sm) {}

  /// Stores the inputs and binds the reactors, then records the contents of the inputs.
  void begin(const typename RouteSm::Inputs& inputs) {
    try {
      bind(inputs);
    } catch (...) {
      // The machine will not exist, so its reactors must not refer to it.
      Reactors<F>(sm_).end();
      forEachReactor([](auto& reactor) { reactor.routeSmIs(nullptr); });
      throw;
    }
  }
  /// True when the machine has exactly these inputs.
  bool isOver(const typename RouteSm::Inputs& inputs) const;
  /// See RouteSm::retire().
  void retire();
  /// \throws Kiv::Exception when the machine has ended.
  void requireNotEnded() const {
    if (!sm_.hasEnded_) return;
    throw Kiv::Exception("the state machine of VRF " + std::string(sm_.name().view()) +
                         " has ended");
  }

  /// Calls `visit` with every reactor of the machine, in the order of teardown.
  template <class Visit>
  void forEachReactor(Visit visit);
  void kivFwkActivityIs(const Kiv::ActivityConfig::Ptr& activity);
  void hasNotificationActiveIs(bool active);
  void kivDoZombieReactors(bool zombie);
  void reportException(const Kiv::Notifiee& reactor, Kiv::AttributeId id) noexcept {
    HostCore::reportException(F::trace(), sm_, reactor, id);
    Trust<F>(sm_).handlerFailed();
  }

  /// Sets an input that has no reactor.
  template <class Attribute, class Input>
  void inputIs(Attribute& attribute, const Input& input) {
    requireNotEnded();
    // Missing reactors are made while the former input is still set.
    if (attribute.raw() != input.get()) Reactors<F>(sm_).makeAll();
    Trust<F>(sm_).inputSet(attribute.set(sm_, input));
  }
  /// Makes a reactor on `input` in `slot`, and returns it. A null input removes the reactor.
  template <class Slot, class Input>
  auto newReactor(Slot& slot, const Input& input) {
    requireNotEnded();
    bindNew(slot, sm_, sm_.inputsStored_, input);
    return slot.get();
  }

  /// Makes the reactor of an interface if it is missing, and binds it to `status`.
  template <class Status>
  void ipIntfStatusIs(const Status& status) {
    requireNotEnded();
    KIV_REQUIRE(status, F::Text::kNullIpIntfStatus);
    bindMember(sm_.ipIntfStatus_, sm_, status->intfId(), status, [](auto&) {});
  }
  template <class Status>
  void ipIntfStatusFilterIs(const Status& status) {
    requireNotEnded();
    KIV_REQUIRE(status, F::Text::kNullIpIntfStatusFilter);
    Reactors<F> reactors(sm_);
    reactors.setByHand(F::intfStatus(sm_, status->intfId()) == status);
    bindMember(sm_.ipIntfStatusFilter_, sm_, status->intfId(), status,
               [&](auto& filter) { reactors.place(filter, status); });
  }
  /// The same, but replaces an existing reactor by a new one. Returns the reactor.
  template <class Status>
  auto newIpIntfStatus(const Status& status) {
    if (status) renewMember(sm_.ipIntfStatus_, sm_, status->intfId());
    ipIntfStatusIs(status);  // refuses null
    return sm_.ipIntfStatus(status->intfId());
  }
  template <class Status>
  auto newIpIntfStatusFilter(const Status& status) {
    Reactors<F>(sm_).makeAll();
    if (status) renewMember(sm_.ipIntfStatusFilter_, sm_, status->intfId());
    ipIntfStatusFilterIs(status);  // refuses null
    return sm_.ipIntfStatusFilter(status->intfId());
  }
  template <class Status>
  void vrfIpIntfStatusIs(const Status& status);
  void vrfIpIntfStatusDel(Zemit::IntfId intfId);
  void ipIntfStatusFilterDel(Zemit::IntfId intfId);
  void arpIntfStatusIs(const Arp::ArpIntfStatus::PtrConst& table);
  auto newArpIntfStatus(const Arp::ArpIntfStatus::PtrConst& table);
  void arpIntfStatusDel(const Kiv::Name& name);

  void initializedIs(bool initialized) {
    requireNotEnded();
    if (!sm_.initialized_.set(sm_, initialized)) return;
    Relevance<F>(sm_).review();
    sm_.handleInitialized();
  }

 private:
  void bind(const typename RouteSm::Inputs& inputs);

  RouteSm& sm_;
};

template <class F>
void Machine<F>::bind(const typename RouteSm::Inputs& inputs) {
  sm_.kivFwkActivity_.setQuietly(inputs.activity);
  sm_.routeStatus_.setQuietly(inputs.routeStatus);
  newReactor(sm_.fwdStatus_, inputs.fwdStatus);
  sm_.hostStatus_.setQuietly(inputs.hostStatus);
  newReactor(sm_.ribReadyStatus_, inputs.ribReadyStatus);
  newReactor(sm_.seqConfig_, inputs.seqConfig);
  newReactor(F::seqInfoSlot(sm_), inputs.seqInfo);
  sm_.adjHelper_.setQuietly(inputs.adjHelper);
  newReactor(sm_.ipStatus_, inputs.ipStatus);
  newReactor(sm_.neighborDirByIntfName_, inputs.neighborDir);
  sm_.root_.setQuietly(inputs.root);
  newReactor(F::virtualIpSlot(sm_), inputs.virtualIps);
  sm_.vrfName_.setQuietly(inputs.vrfName);
  sm_.initialized_.setQuietly(false);
  // All inputs are stored, so the reactors may now call the machine.
  sm_.inputsStored_ = true;
  forEachReactor([this](auto& reactor) { reactor.routeSmIs(&sm_); });

  Relevance<F>(sm_).watchInputs();
  Trust<F>(sm_).machineBegan(countHostRoutes<F>(sm_));
  Reactors<F> reactors(sm_);
  reactors.begin();
  sm_.handleFec();
  if (sm_.ipStatus()) F::followInterfaces(*sm_.ipStatus());
  if (reactors.isSparse()) {
    reactors.noteNeighbors();
  } else if (sm_.neighborDirByIntfName()) {
    sm_.neighborDirByIntfName()->onArpIntfStatuskivImmediate();
  }
  F::handleVirtualIps(sm_);
}

template <class F>
bool Machine<F>::isOver(const typename RouteSm::Inputs& inputs) const {
  return sm_.kivFwkActivityRaw() == inputs.activity.get() &&
         sm_.routeStatusRaw() == inputs.routeStatus.get() &&
         sm_.forwardingStatus() == inputs.fwdStatus.get() &&
         sm_.hostStatusRaw() == inputs.hostStatus.get() &&
         sm_.vrfReadiness() == inputs.ribReadyStatus.get() &&
         watchedBy(sm_.seqConfig()) == inputs.seqConfig.get() &&
         watchedBy(F::seqInfoSlot(sm_).get()) == inputs.seqInfo.get() &&
         sm_.adjHelperRaw() == inputs.adjHelper.get() &&
         watchedBy(sm_.ipStatus()) == inputs.ipStatus.get() &&
         watchedBy(sm_.neighborDirByIntfName()) == inputs.neighborDir.get() &&
         sm_.rootRaw() == inputs.root.get() && sm_.virtualIps() == inputs.virtualIps.get() &&
         sm_.vrfName() == inputs.vrfName;
}

template <class F>
void Machine<F>::retire() {
  if (std::exchange(sm_.hasEnded_, true)) return;
  const Kiv::Ptr<RouteSm> alive(&sm_);
  tracedLevelsAre<F>(sm_, 0);
  Reactors<F>(sm_).end();
  kivDoZombieReactors(true);
  forEachReactor([](auto& reactor) { reactor.routeSmIs(nullptr); });
  sm_.initialized_.setQuietly(false);
  sm_.routeStatus_.setQuietly(nullptr);
  sm_.hostStatus_.setQuietly(nullptr);
  sm_.adjHelper_.setQuietly(nullptr);
  sm_.root_.setQuietly(nullptr);
  // Without the machine's own deletions, because teardown withdraws no route. The reactors release
  // the inputs here, which may call foreign code.
  sm_.arpIntfStatus_.dropAll();
  sm_.ipIntfStatusFilter_.dropAll();
  sm_.vrfIpIntfStatus_.dropAll();
  sm_.ipIntfStatus_.dropAll();
  sm_.fwdStatus_.drop();
  sm_.ribReadyStatus_.drop();
  sm_.seqConfig_.drop();
  F::seqInfoSlot(sm_).drop();
  sm_.ipStatus_.drop();
  sm_.neighborDirByIntfName_.drop();
  F::virtualIpSlot(sm_).drop();
  sm_.kivFwkActivity_.setQuietly(nullptr);
}

template <class F>
template <class Visit>
void Machine<F>::forEachReactor(Visit visit) {
  const auto visitOne = [&visit](const auto& reactor) {
    if (reactor) visit(*reactor);
  };
  visitOne(sm_.fwdStatus());
  visitOne(sm_.ribReadyStatus());
  visitOne(sm_.seqConfig());
  visitOne(F::seqInfoSlot(sm_).get());
  visitOne(sm_.ipStatus());
  for (auto it = sm_.ipIntfStatusFilterIterator(); it; ++it) visitOne(it.value());
  for (auto it = sm_.ipIntfStatusIterator(); it; ++it) visitOne(it.value());
  visitOne(sm_.neighborDirByIntfName());
  for (auto it = sm_.arpIntfStatusIterator(); it; ++it) visitOne(it.value());
  visitOne(F::virtualIpSlot(sm_).get());
}

template <class F>
void Machine<F>::kivFwkActivityIs(const Kiv::ActivityConfig::Ptr& activity) {
  requireNotEnded();
  Trust<F>(sm_).activityReplaced(sm_.kivFwkActivityRaw());
  sm_.kivFwkActivity_.set(sm_, activity);
  forEachReactor([&](auto& reactor) { reactor.kivFwkActivityIs(activity); });
  Relevance<F>(sm_).review();
}

template <class F>
void Machine<F>::hasNotificationActiveIs(bool active) {
  requireNotEnded();
  sm_.hasNotificationActive_ = active;
  Trust<F>(sm_).deliverySwitched(active);
  forEachReactor([active](auto& reactor) { reactor.hasNotificationActiveIs(active); });
}

template <class F>
void Machine<F>::kivDoZombieReactors(bool zombie) {
  Trust<F>(sm_).deliverySwitched(!zombie);
  forEachReactor([zombie](auto& reactor) { reactor.kivDoZombieReactors(zombie); });
}

template <class F>
template <class Status>
void Machine<F>::vrfIpIntfStatusIs(const Status& status) {
  requireNotEnded();
  KIV_REQUIRE(status, F::Text::kNullVrfIpIntfStatus);
  const Zemit::IntfId intfId = status->intfId();
  const Event<F> event(sm_, CauseKind::Interface, intfId);
  sm_.vrfIpIntfStatus_.set(sm_, intfId, status);
  sm_.handleIpIntfStatus(intfId);
  // A callback may have removed the interface, or replaced its status.
  if (sm_.vrfIpIntfStatus(intfId) == status) sm_.ipIntfStatusIs(status);
}

template <class F>
void Machine<F>::vrfIpIntfStatusDel(Zemit::IntfId intfId) {
  if (!sm_.vrfIpIntfStatus_.del(sm_, intfId)) return;
  const Event<F> event(sm_, CauseKind::Interface, intfId);
  sm_.handleIpIntfStatus(intfId);
  if (!sm_.vrfIpIntfStatus(intfId)) sm_.ipIntfStatusDel(intfId);
}

template <class F>
void Machine<F>::ipIntfStatusFilterDel(Zemit::IntfId intfId) {
  Reactors<F>(sm_).setByHand(!F::intfStatus(sm_, intfId));
  const auto* present = sm_.ipIntfStatusFilter_.stored(intfId);
  if (present == nullptr) return;
  const auto filter = *present;
  const auto* const status = filter->notifierRaw();
  sm_.kiv_handleIpIntfStatusFilter(*filter);
  if (filter->notifierRaw() != status) return;  // a callback has added the interface again
  sm_.ipIntfStatusFilter_.del(sm_, intfId);
  Reactors<F>(sm_).filterRemoved(intfId);
}

template <class F>
void Machine<F>::arpIntfStatusIs(const Arp::ArpIntfStatus::PtrConst& table) {
  requireNotEnded();
  KIV_REQUIRE(table, F::Text::kNullArpIntfStatus);
  Reactors<F> reactors(sm_);
  reactors.setByHand(sm_.neighborTable(table->intfId()) == table.get());
  const auto former = bindMember(sm_.arpIntfStatus_, sm_, table->name(), table,
                                 [&](auto& reactor) { reactors.place(reactor, table); });
  Relevance<F>(sm_).review(table->intfId());
  if (former && former != table) {
    NeighborEntries<F>(sm_).handleReplacedArpIntfStatus(*former, table);
  }
}

template <class F>
auto Machine<F>::newArpIntfStatus(const Arp::ArpIntfStatus::PtrConst& table) {
  Reactors<F>(sm_).makeAll();
  Arp::ArpIntfStatus::PtrConst former;
  if (table) former = renewMember(sm_.arpIntfStatus_, sm_, table->name());
  sm_.arpIntfStatusIs(table);  // refuses null
  if (former && former != table) {
    NeighborEntries<F>(sm_).handleReplacedArpIntfStatus(*former, table);
  }
  return sm_.arpIntfStatus(table->name());
}

template <class F>
void Machine<F>::arpIntfStatusDel(const Kiv::Name& name) {
  const auto* dir = watchedBy(sm_.neighborDirByIntfName());
  Reactors<F>(sm_).setByHand(dir == nullptr || !dir->arpIntfStatus(name));
  const auto* present = sm_.arpIntfStatus_.stored(name);
  if (present == nullptr) return;
  const auto reactor = *present;
  const auto* const table = reactor->notifierRaw();
  sm_.kiv_handleArpIntfStatus(*reactor);
  if (reactor->notifierRaw() != table) return;  // a callback has added the table again
  sm_.arpIntfStatus_.del(sm_, name);
  if (const auto intf = Zemit::IntfId::find(name)) Reactors<F>(sm_).tableRemoved(*intf);
}

/// Ends the root's machine, if there is one, and makes another. Returns it.
template <class F>
typename F::RouteSm::Ptr newRouteSm(typename F::RouteSmRoot& root,
                                    const typename F::RouteSm::Inputs& inputs) {
  const typename F::RouteSmRoot::Ptr alive(&root);
  root.routeSmDel();
  const auto machine = Kiv::make<typename F::RouteSm>(inputs);
  F::routeSmSlot(root).set(root, machine);
  return machine;
}

/// Makes the root's machine unless there is one over the same inputs. Returns it.
template <class F>
typename F::RouteSm::Ptr routeSmIs(typename F::RouteSmRoot& root,
                                   const typename F::RouteSm::Inputs& inputs) {
  const auto present = root.routeSm();
  if (present && Machine<F>(*present).isOver(inputs)) return present;
  return newRouteSm<F>(root, inputs);
}

}  // namespace HostCore
