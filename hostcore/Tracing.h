// Tracing one state machine, or one address of it.
#pragma once

#include <optional>

#include "hostcore/fast/ShortCuts.h"

namespace HostCore {

/// Traces these levels of the machine, a bit for each, beside those that the facility has
/// on for all. Machines without levels of their own go on as fast as before.
template <Family F>
void tracedLevelsAre(typename F::RouteSm& sm, uint32_t levels) {
  auto& tracing = sm.account().tracing;
  if (levels == tracing.levels) return;
  F::trace().ownLevelsAre(tracing.levels, levels);
  tracing.levels = levels;
  tracing.now = tracing.isOff ? 0 : levels;
  ShortCuts<F>(sm).levelsChanged();
}

/// Leaves out, of the traces by the machine's own levels, all that is about another
/// address, or about a prefix that does not contain it. Nothing takes that back.
///
/// \param isElsewhere  the address is of the other family: nothing of this machine is let through.
template <Family F>
void tracedAddressIs(typename F::RouteSm& sm, const std::optional<typename F::Addr>& addr,
                     bool isElsewhere = false) {
  auto& tracing = sm.account().tracing;
  tracing.only = addr;
  tracing.isOff = isElsewhere;
  tracing.now = isElsewhere ? 0 : tracing.levels;
}

}  // namespace HostCore
