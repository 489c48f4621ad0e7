// Telling the daemon that a VRF's host routes are complete.
#pragma once

#include "hostcore/Event.h"
#include "hostcore/Family.h"
#include "platform/kiv/runtime/Clock.h"
#include "platform/rovel/Readiness.h"

namespace HostCore {

/// The steps by which a state machine answers the readiness record of its VRF.
template <Family F>
class Readiness {
 public:
  explicit Readiness(typename F::RouteSm& sm) : sm_(sm), record_(sm.vrfReadiness()) {}

  /// True when the RIB is ready and the machine is initialized.
  bool isRibReady() const { return sm_.initialized() && record_ && record_->ribReady(); }
  /// Merges the host prefixes in the route table that are not BGP's, then reports the host routes
  /// synchronised. The time of the first report stays.
  void mergeRib() const;

  /// True when the machine is asked to report its kind of routes.
  bool isVerificationStarted() const { return record_ && record_->startRibReadyVerification(); }
  /// Runs the full passes over routes and neighbours again, once initialized.
  void runFullPasses() const {
    if (!sm_.initialized()) return;
    const Event<F> event(sm_, CauseKind::RibReady);
    sm_.handleStatusRoute();
    sm_.handleHostStatusRoute();
    sm_.handleArpEntries();
  }
  /// The machine's entry in the readiness record, while it is not ready; else null.
  RovelReady::RouteStatus::Ptr unreadyEntry() const {
    const auto& entry = record_->routeStatus(F::kReadyKind);
    return entry && !entry->ready() ? entry : nullptr;
  }

 private:
  typename F::RouteSm& sm_;
  // A callback may take the record from the machine. The record still gets the answer.
  RovelReady::VrfStatus::Ptr record_;
};

template <Family F>
void Readiness<F>::mergeRib() const {
  const Event<F> event(sm_, CauseKind::RibReady);
  const auto changed = F::AddrSet::AddrSetIs(F::Prefix::null());
  if (const auto* table = sm_.routeStatusRaw()) {
    try {
      table->forEachRoute([&changed](const typename F::Route& route) {
        if (route.key.len() == F::Addr::kBits && !F::isBgpType(route.routeType)) {
          changed->ipIs(route.key.addr(), true);
        }
      });
    } catch (const Tovan::CorruptionDetectedException& damage) {
      table->corruptionDetected(damage.what());
    }
  }
  if (changed->ipCount() != 0) sm_.doMerge(changed);
  F::hostRoutesSyncedNow(*record_);
}

/// Sets an entry ready, as of now.
inline void becomeReady(RovelReady::RouteStatus& entry) {
  const double time = Kiv::now();
  entry.readyTimeIs(time);
  entry.readyIs(true);
}

}  // namespace HostCore
