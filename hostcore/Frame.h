// What the reactors of both families' state machines have in common.
#pragma once

#include "platform/kiv/Activity.h"
#include "platform/kiv/Notifiee.h"

namespace HostCore {

/// A reactor that hands the changes of one `Notifier` to a per-VRF state machine.
///
/// The machine owns the reactor; the way back owns nothing and is null before the machine is
/// complete and after its teardown has begun.
template <class Notifier, class Machine>
class MachineReactor : public Notifier::NotifieeConst {
 public:
  explicit MachineReactor(const Kiv::ActivityConfig::Ptr& activity) {
    this->kivFwkActivityIs(activity);
  }

  Machine* routeSm() const noexcept { return routeSm_; }
  void routeSmIs(Machine* routeSm) noexcept { routeSm_ = routeSm; }

  void onNotificationException(Kiv::AttributeId id) noexcept override {
    if (routeSm_ != nullptr) routeSm_->reportException(*this, id);
  }

 protected:
  /// True when a callback may run its handler.
  bool mayAct() const noexcept { return this->isLive() && routeSm_ != nullptr; }
  /// The same for a notification that a reflective observer is offered first.
  bool mayAct(Kiv::AttributeId id, const void* value) {
    return !this->kivOnAttribute(id, value) && mayAct();
  }

 private:
  Machine* routeSm_ = nullptr;
};

}  // namespace HostCore
