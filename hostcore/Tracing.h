// Tracing one state machine, or one address of it.
#pragma once

#include <optional>

#include "hostcore/fast/ShortCuts.h"

namespace HostCore {

/// Traces these levels of the machine, one bit for each, in addition to those that the facility
/// has on for all machines. Machines without levels of their own do not become slower.
template <Family F>
void tracedLevelsAre(typename F::RouteSm& sm, uint32_t levels) {
  auto& tracing = sm.account().tracing;
  if (levels == tracing.levels) return;
  F::trace().ownLevelsAre(tracing.levels, levels);
  tracing.levels = levels;
  tracing.now = tracing.isOff ? 0 : levels;
  ShortCuts<F>(sm).levelsChanged();
}

/// Limits the traces by the machine's own levels to this address, and to prefixes that contain it.
/// Null lifts the limit.
///
/// \param isElsewhere  whether the address is of the other family. This machine then traces
/// nothing.
template <Family F>
void tracedAddressIs(typename F::RouteSm& sm, const std::optional<typename F::Addr>& addr,
                     bool isElsewhere = false) {
  auto& tracing = sm.account().tracing;
  tracing.only = addr;
  tracing.isOff = isElsewhere;
  tracing.now = isElsewhere ? 0 : tracing.levels;
}

}  // namespace HostCore
