// Catching up when a state machine is initialized.
#pragma once

#include "hostcore/Event.h"
#include "hostcore/fast/ShortCuts.h"

namespace HostCore {

/// The catch-up pass. Runs when `initialized` changes, deliberately in either direction: when it
/// goes back to false the guarded steps only trace.
template <Family F>
void handleInitialized(typename F::RouteSm& sm) {
  const Event<F> event(sm, CauseKind::Initialization);
  sm.handleStatusRoute();
  sm.handleHostStatusRoute();
  sm.handleArpEntries();
  const auto& root = Kiv::validPtr(sm.rootRaw());
  ShortCuts<F>(sm).deferredMergesTaken();
  const auto toMerge = root.toMerge();
  if (toMerge && toMerge->ipCount() != 0) {
    KIV_TRACE(F::trace(), 8, sm, "Process ip's deferred before initialization");
    sm.doMerge(toMerge);
    toMerge->ipDelAll();
  }
  sm.setHostRouteRibReady();
}

}  // namespace HostCore
