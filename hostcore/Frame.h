// The reactors of a state machine: how they are made, bound to the machine, and removed.
#pragma once

#include <algorithm>
#include <cstdint>
#include <exception>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/kiv/runtime/Activity.h"
#include "platform/kiv/runtime/Notifiee.h"
#include "platform/kiv/runtime/Trace.h"
#include "platform/l3/IntfStatus.h"
#include "platform/rovel/Readiness.h"
#include "platform/tovan/FibTypes.h"

namespace HostCore {

/// A reactor that hands the changes of one `Notifier` to a per-VRF state machine.
///
/// The machine owns the reactor. The reactor's pointer to the machine is null until the machine is
/// complete, from the start of its teardown on, and when the machine has removed or replaced the
/// reactor.
template <class Notifier, class Machine>
class MachineReactor : public Notifier::NotifieeConst {
 public:
  explicit MachineReactor(const Kiv::ActivityConfig::Ptr& activity) {
    this->kivFwkActivityIs(activity);
  }

  Machine* routeSm() const noexcept { return routeSm_; }
  void routeSmIs(Machine* routeSm) noexcept { routeSm_ = routeSm; }

  void kivFwkActivityIs(const Kiv::ActivityConfig::Ptr& activity) override {
    Notifier::NotifieeConst::kivFwkActivityIs(activity);
    // A queued notification is handled later, when the tables may have changed.
    if (routeSm_ != nullptr && activity && activity->queues()) routeSm_->missed();
  }

  void onNotificationException(Kiv::AttributeId id) noexcept override {
    if (routeSm_ != nullptr) routeSm_->reportException(*this, id);
  }
  void retire() override {
    routeSm_ = nullptr;
    Notifier::NotifieeConst::retire();
  }
  uint32_t tracedLevels() const noexcept override {
    return routeSm_ == nullptr ? 0 : routeSm_->tracedLevels();
  }

 protected:
  /// True when a callback may call its handler.
  bool mayAct() const noexcept {
    return this->isLive() && routeSm_ != nullptr && this->notifierRaw() != nullptr;
  }
  /// The same for a notification of `Attribute`. A reflective observer may consume it before.
  template <class Attribute>
  bool mayActOn(const void* value) {
    if (!this->kivOnAttribute(Attribute::kInfo.id, value)) return mayAct();
    if (routeSm_ != nullptr) routeSm_->missed();
    return false;
  }

 private:
  Machine* routeSm_ = nullptr;
};

/// A reactor on an input that the machine's short cuts also watch.
template <class Notifier, class Machine>
class InputReactor : public MachineReactor<Notifier, Machine> {
 public:
  using MachineReactor<Notifier, Machine>::MachineReactor;

  /// Watches another input. The short cuts still watch the former one, so they are no longer
  /// trusted.
  void notifierIs(const Kiv::Ptr<const Notifier>& notifier) {
    if (this->routeSm() != nullptr && notifier.get() != this->notifierRaw()) {
      this->routeSm()->missed();
    }
    MachineReactor<Notifier, Machine>::notifierIs(notifier);
  }
  void retire() override {
    if (this->routeSm() != nullptr && this->notifierRaw() != nullptr) this->routeSm()->missed();
    MachineReactor<Notifier, Machine>::retire();
  }
};

/// Watches the FECs of the forwarding status.
template <class ForwardingStatus, class Machine>
class FwdStatusReactor : public InputReactor<ForwardingStatus, Machine> {
 public:
  using InputReactor<ForwardingStatus, Machine>::InputReactor;

  void onFec(const Tovan::Fib::FecId& fecId) override {
    fecId_ = fecId;
    if (this->template mayActOn<typename ForwardingStatus::FecAttribute>(&fecId)) {
      this->routeSm()->handleFec(fecId);
    }
  }
  void onFec() override {
    if (this->mayAct()) this->routeSm()->handleFec();
  }
  /// The FEC of the last notification.
  Tovan::Fib::FecId fecId() const noexcept { return fecId_; }

 private:
  Tovan::Fib::FecId fecId_ = Tovan::Fib::invalidFecId;
};

/// Watches the daemon's readiness record, and keeps a writable handle to it for the answers.
template <class Machine>
class RibReadyReactor : public MachineReactor<RovelReady::VrfStatus, Machine> {
 public:
  using Base = MachineReactor<RovelReady::VrfStatus, Machine>;
  using Base::Base;

  void notifierIs(const RovelReady::VrfStatus::Ptr& status) {
    status_ = status;
    Base::notifierIs(status);
  }
  void retire() override {
    const auto status = std::exchange(status_, nullptr);
    Base::retire();
  }
  void onRibReady() override {
    if (!this->mayAct()) return;
    const bool value = status_->ribReady();
    if (this->template mayActOn<RovelReady::VrfStatus::RibReadyAttribute>(&value)) {
      this->routeSm()->handleRibReady();
    }
  }
  void onStartRibReadyVerification() override {
    if (!this->mayAct()) return;
    using Attribute = RovelReady::VrfStatus::StartRibReadyVerificationAttribute;
    const bool value = status_->startRibReadyVerification();
    if (this->template mayActOn<Attribute>(&value)) this->routeSm()->setHostRouteRibReady();
  }
  /// The record itself, or null.
  RovelReady::VrfStatus* status() const noexcept { return status_.get(); }

 private:
  RovelReady::VrfStatus::Ptr status_;
};

/// A reactor on the directory of tables or interfaces. The machine may omit the reactors of some
/// tables and interfaces only while it is notified of each one that is added or removed.
template <class Notifier, class Machine>
class DirectoryReactor : public MachineReactor<Notifier, Machine> {
 public:
  using Base = MachineReactor<Notifier, Machine>;
  using Base::Base;

  void notifierIs(const Kiv::Ptr<const Notifier>& notifier) {
    if (notifier.get() != this->notifierRaw()) needsReactors();
    Base::notifierIs(notifier);
  }
  void kivFwkActivityIs(const Kiv::ActivityConfig::Ptr& activity) override {
    needsReactors();
    Base::kivFwkActivityIs(activity);
  }
  void hasNotificationActiveIs(bool active) override {
    needsReactors();
    Base::hasNotificationActiveIs(active);
  }
  void kivDoZombieReactors(bool zombie) override {
    needsReactors();
    Base::kivDoZombieReactors(zombie);
  }
  void retire() override {
    needsReactors();
    Base::retire();
  }

 private:
  void needsReactors() {
    if (this->routeSm() != nullptr) this->routeSm()->needsReactors();
  }
};

/// Watches which neighbour tables exist.
template <class NeighborDir, class Machine>
class NeighborDirReactor : public DirectoryReactor<NeighborDir, Machine> {
 public:
  using DirectoryReactor<NeighborDir, Machine>::DirectoryReactor;

  void onArpIntfStatus(const Kiv::Name& name) override {
    if (!this->mayAct()) return;
    // A copy: a callback may delete the table meanwhile.
    if (const auto table = this->notifierRaw()->arpIntfStatus(name)) {
      this->routeSm()->arpIntfStatusIs(table);
    } else {
      this->routeSm()->arpIntfStatusDel(name);
    }
  }
  void onArpIntfStatuskivImmediate() override {
    if (!this->mayAct()) return;
    const Kiv::Ptr<const Kiv::Object> alive(this);  // a callback may drop the machine's handle
    // In the order of their names: the ids of new adjacencies depend on the order.
    for (const auto& name : sorted(this->notifierRaw()->arpIntfStatusKeys())) onArpIntfStatus(name);
    if (!this->mayAct()) return;
    for (const auto& name : sorted(this->routeSm()->arpIntfStatusKeys())) onArpIntfStatus(name);
  }

 private:
  static std::vector<Kiv::Name> sorted(std::vector<Kiv::Name> names) {
    std::sort(names.begin(), names.end());
    return names;
  }
};

/// Follows one interface of any VRF. The machine follows the interface while it is in the machine's
/// VRF.
///
/// \tparam IntfStatus  the family's status of an interface.
/// \tparam Filter      the class that derives from this one. Its handleVrf() is called.
template <class IntfStatus, class Machine, class Filter>
class IntfFilterReactor : public MachineReactor<IntfStatus, Machine> {
 public:
  using Base = MachineReactor<IntfStatus, Machine>;

  /// Watches the interface's VRF.
  class KivL3Status final : public MachineReactor<L3::Intf::Status, Machine> {
   public:
    KivL3Status(const Kiv::ActivityConfig::Ptr& activity, IntfFilterReactor& filter)
        : MachineReactor<L3::Intf::Status, Machine>(activity), filter_(&filter) {}

    void onVrf() override {
      if (!this->mayAct() || filter_ == nullptr) return;
      const auto& vrf = this->notifierRaw()->vrf();
      if (this->template mayActOn<L3::Intf::Status::VrfAttribute>(&vrf)) {
        static_cast<Filter&>(*filter_).handleVrf();
      }
    }
    void retire() override {
      filter_ = nullptr;
      MachineReactor<L3::Intf::Status, Machine>::retire();
    }

   private:
    IntfFilterReactor* filter_;  // no Filter*, because the Filter is not yet constructed
  };

  explicit IntfFilterReactor(const Kiv::ActivityConfig::Ptr& activity)
      : Base(activity), l3Status_(Kiv::make<KivL3Status>(activity, *this)) {}
  ~IntfFilterReactor() override { l3Status_->retire(); }

  const Kiv::Ptr<KivL3Status>& l3Status() const noexcept { return l3Status_; }

  // The filter passes each call on to the reactor that it owns.
  void notifierIs(const typename IntfStatus::PtrConst& status) {
    if (status.get() == this->notifierRaw()) return;
    Base::notifierIs(status);
    // First null, so that the reactor catches up again even if the new status of the interface has
    // the same layer-3 status.
    l3Status_->notifierIs(nullptr);
    if (status) l3Status_->notifierIs(status->l3Status());
  }
  void routeSmIs(Machine* routeSm) noexcept {
    Base::routeSmIs(routeSm);
    l3Status_->routeSmIs(routeSm);
  }
  void kivFwkActivityIs(const Kiv::ActivityConfig::Ptr& activity) override {
    Base::kivFwkActivityIs(activity);
    l3Status_->kivFwkActivityIs(activity);
  }
  void hasNotificationActiveIs(bool active) override {
    Base::hasNotificationActiveIs(active);
    l3Status_->hasNotificationActiveIs(active);
  }
  void kivDoZombieReactors(bool zombie) override {
    Base::kivDoZombieReactors(zombie);
    l3Status_->kivDoZombieReactors(zombie);
  }
  void retire() override {
    l3Status_->retire();
    Base::retire();
  }

 protected:
  /// The interface's VRF. \throws Kiv::Exception when it is not known, or the reactor has no
  /// machine.
  const L3::VrfName& vrf() const {
    Kiv::validPtr(this->routeSm());
    return Kiv::validPtr(Kiv::validPtr(this->notifierRaw()).l3Status())->vrf();
  }
  /// Admits the interface when it is in this VRF, else removes it.
  void applyVrf() {
    const typename IntfStatus::PtrConst status = this->notifier();
    if (status->l3Status()->vrf() == this->routeSm()->vrfName()) {
      this->routeSm()->vrfIpIntfStatusIs(status);
    } else {
      this->routeSm()->vrfIpIntfStatusDel(status->intfId());
    }
  }

 private:
  Kiv::Ptr<KivL3Status> l3Status_;
};

/// Replaces the reactor in `slot` by a new one on `input`; a null input removes it. The new reactor
/// gets its pointer to `sm` before it catches up with the input. It gets none while `sm` still
/// stores its inputs.
template <class Slot, class Machine, class Input>
void bindNew(Slot& slot, Machine& sm, bool inputsStored, const Input& input) {
  if (!input) {
    slot.del(sm);
    return;
  }
  const auto reactor = Kiv::make<typename Slot::Element>(sm.kivFwkActivity());
  reactor->hasNotificationActiveIs(sm.hasNotificationActive());
  if (inputsStored) reactor->routeSmIs(&sm);
  slot.set(sm, reactor);
  // A callback may have replaced it.
  if (slot.get() == reactor) reactor->notifierIs(input);
}

/// The input that a reactor watches; null when there is no reactor or it watches nothing.
template <class Reactor>
auto* watchedBy(const Kiv::Ptr<Reactor>& reactor) {
  return reactor ? reactor->notifierRaw() : nullptr;
}

/// Makes the reactor of `key`, in place of an existing one, and returns it. It is not yet bound.
template <class Collection, class Machine, class Key>
auto newMember(Collection& collection, Machine& sm, const Key& key) {
  const auto reactor = Kiv::make<typename Collection::Map::Value::Element>(sm.kivFwkActivity());
  reactor->hasNotificationActiveIs(sm.hasNotificationActive());
  collection.set(sm, key, reactor);
  return reactor;
}

/// Replaces the reactor of `key`, if there is one, by a new reactor that is not yet bound. The
/// former reactor releases the machine and its input. Returns that input, or null.
template <class Collection, class Machine, class Key>
auto renewMember(Collection& collection, Machine& sm, const Key& key) {
  const auto former = collection.get(key);
  decltype(former->notifier()) input;
  if (!former) return input;
  input = former->notifier();
  former->routeSmIs(nullptr);
  former->notifierIs(nullptr);
  newMember(collection, sm, key);
  return input;
}

/// Makes the reactor of `key` if it is missing, and binds it to `input`. Returns the reactor's
/// former input, or null.
///
/// \param place  is called with the reactor before it registers with `input`.
template <class Collection, class Machine, class Key, class Input, class Place>
Input bindMember(Collection& collection, Machine& sm, const Key& key, const Input& input,
                 Place place) {
  const auto* present = collection.stored(key);
  const auto reactor = present == nullptr ? newMember(collection, sm, key) : *present;
  // A callback may have removed it.
  present = collection.stored(key);
  if (present == nullptr || *present != reactor) return nullptr;
  const Input former = reactor->notifier();
  reactor->routeSmIs(&sm);
  place(*reactor);
  reactor->notifierIs(input);
  return former;
}

/// Counts and traces the exception that a reactor's callback has just raised.
template <class Machine>
void reportException(Kiv::TraceFacility& facility, const Machine& sm, const Kiv::Notifiee& reactor,
                     Kiv::AttributeId id) noexcept {
  ++sm.account().counts.exceptions;
  try {
    std::string what = "unknown";
    try {
      if (const auto raised = std::current_exception()) std::rethrow_exception(raised);
    } catch (const std::exception& exception) {
      what = exception.what();
    } catch (...) {
    }
    std::ostringstream message;
    message << "exception in the notification of attribute " << id << " of "
            << Kiv::Tracer::objectName(reactor) << ": " << what;
    // Before the trace, whose sink may raise.
    Kiv::Tracer::failed(facility, sm, __func__, message.str());
    KIV_TRACE(facility, 0, sm, message.str());
  } catch (...) {
    // There is no memory for the message, or the sink failed.
  }
}

}  // namespace HostCore
