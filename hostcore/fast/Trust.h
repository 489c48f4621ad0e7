// When the short cuts of a machine may be trusted.
#pragma once

#include "hostcore/Family.h"
#include "hostcore/fast/Reactors.h"
#include "hostcore/fast/State.h"

namespace HostCore {

/// Decides whether a machine may use its short cuts. All rules for this are here.
///
/// A short cut relies on this: the machine has merged each address that it changed, and it hears of
/// each change of its inputs. Kiv::Watch tells it of every write to its route table, the host-route
/// status, the FECs and the virtual addresses at once, announced or not. After a change that it may
/// not know of, the machine does not trust its short cuts any more, and takes every step.
template <Family F>
class Trust {
 public:
  explicit Trust(typename F::RouteSm& sm) : sm_(sm), state_(sm.fast()) {}

  /// True when everything that was changed is merged, except the addresses in `due`.
  bool holds() const {
    return state_.isTrusted && sm_.initialized() && !isQueueing(sm_.kivFwkActivityRaw()) &&
           sm_.routeStatusRaw() != nullptr && sm_.hostStatusRaw() != nullptr &&
           sm_.forwardingStatus() != nullptr;
  }
  /// A change may have happened without the machine's knowledge.
  void end() {
    state_.isTrusted = false;
    ++state_.coverVersion;
    Reactors<F>(sm_).makeAll();
    for (auto it = sm_.arpIntfStatusIterator(); it; ++it) it.value()->isQuietIs(false);
  }

  /// A machine begins. It has not merged the host routes that are in the route table, nor the state
  /// that a former machine left in the root.
  ///
  /// \param hasNoHostRoutes  whether the route table surely has none.
  void machineBegan(bool hasNoHostRoutes) {
    bool isFirst = hasNoHostRoutes;
    if (const auto* root = sm_.rootRaw()) {
      const auto& neighbors = F::neighborTable(*root);
      isFirst = isFirst && root->prefixToRouteCount() == 0 &&
                (!neighbors || neighbors->routeCount() == 0);
    }
    if (!isFirst) end();
  }
  /// A handler ended with an exception, perhaps before its merge.
  void handlerFailed() { end(); }
  /// A step that leaves the merge to its caller was taken. Outside of a handler there may be no
  /// merge.
  void stepTaken() {
    ++state_.writes;
    if (state_.handlers == 0) end();
  }
  /// A route was passed to its handler. If it was not just read from its table, the next event may
  /// read another one.
  void routeHandedOver(bool isRead) {
    if (!isRead) end();
  }
  /// A FEC is tracked. Changes of the adjacencies among the FECs are not announced.
  void fecTracked(Tovan::Fib::FecId fecId) {
    if (fecId >= F::ForwardingStatus::kFirstAdjacency) end();
  }
  /// Merges were added to the set of those that wait.
  void mergesDeferred(const typename F::AddrSet& waiting) {
    state_.mergesDeferred(waiting, waiting.ipCount());
  }
  /// `waiting`, which may be null, is now the set of deferred merges. Other code may have replaced
  /// or emptied the former set.
  void deferredMergesFound(const typename F::AddrSet* waiting) {
    if (!state_.deferredIn) return;
    if (state_.deferredIn.get() != waiting || waiting->ipCount() < state_.deferred) end();
    state_.deferredIn = {};
  }
  /// An input was set. The short cuts know the former one.
  void inputSet(bool isOther) {
    if (isOther) end();
  }
  /// An activity is replaced. Its queued notifications are delivered late.
  void activityReplaced(const Kiv::ActivityConfig* former) {
    if (isQueueing(former)) end();
  }
  /// Notifications that come while delivery is switched off are lost.
  void deliverySwitched(bool isOn) {
    if (!isOn) end();
  }

 private:
  // A queued notification is handled later, when the tables may have changed.
  static bool isQueueing(const Kiv::ActivityConfig* activity) {
    return activity != nullptr && activity->queues();
  }

  typename F::RouteSm& sm_;
  typename F::RouteSm::FastState& state_;
};

}  // namespace HostCore
