// Catching up when a state machine is initialized.
#pragma once

#include "hostcore/Event.h"
#include "hostcore/Listening.h"

namespace HostCore {

/// The catch-up pass. Runs when `initialized` changes, deliberately in either direction: when it
/// goes back to false the guarded steps only trace.
template <Family F>
void handleInitialized(typename F::RouteSm& sm) {
  const Event<F> event(sm, CauseKind::Initialization);
  sm.handleStatusRoute();
  sm.handleHostStatusRoute();
  sm.handleArpEntries();
  const auto toMerge = Kiv::validPtr(sm.rootRaw()).toMerge();
  if (toMerge && toMerge->ipCount() != 0) {
    KIV_TRACE(F::trace(), 8, sm, "Process ip's deferred before initialization");
    // By hand, before the machine is initialized: it defers the merges again, and then forgets
    // them.
    if (!sm.initialized()) Listening<F>(sm).missed();
    sm.doMerge(toMerge);
    toMerge->ipDelAll();
  }
  sm.setHostRouteRibReady();
}

}  // namespace HostCore
