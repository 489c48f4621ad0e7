// Giving way to virtual addresses.
#pragma once

#include "hostcore/Event.h"
#include "hostcore/fast/ShortCuts.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

/// The steps from a change of a virtual address to its host route.
template <Family F>
class VirtualIp {
 public:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;

  explicit VirtualIp(typename F::RouteSm& sm) : sm_(sm) {}

  /// Calls `handle` with each pair that was there at the start and still is.
  template <class Handle>
  void handleAll(Handle handle) {
    const typename F::VirtualIpStatus::PtrConst status(sm_.virtualIps());
    if (!status) return;
    for (const auto& pair : status->virtualIpKeys()) {
      if (status->virtualIp(pair)) handle(pair);
    }
  }
  /// Merges `addr`, which is no longer virtual.
  void handleRemoved(const Addr& addr) {
    const Event<F> event(sm_, CauseKind::VirtualIp, hostPrefix<F>(addr));
    const auto mergeSet = F::AddrSet::AddrSetIs(Prefix::null());
    mergeSet->ipIs(addr, true);
    sm_.doMerge(mergeSet);
  }

  /// Withdraws the attached route of `addr`, which became virtual, from the route table. A route of
  /// another type stays.
  ///
  /// \param handler  the name of the handler, for its trace.
  void handleAdded(const Addr& addr, const char* handler) {
    const auto prefix = hostPrefix<F>(addr);
    const Event<F> event(sm_, CauseKind::VirtualIp, prefix);
    const auto routeTable = sm_.routeStatus();
    const auto existing = Obu::readRoute(routeTable.get(), prefix);
    if (existing.key != prefix || existing.routeType != F::kAttached) return;
    KIV_TRACE_AS(F::trace(), 8, sm_, handler, "Removing host route");
    const auto write = withdrawalScope<F>(sm_, addr, existing);
    auto* const adjHelper = sm_.adjHelperRaw();  // a callback may end the machine
    const auto removed = routeTable->routeDel(prefix);
    hostRouteChanged<F>(sm_, prefix, removed, typename F::Route());
    if (removed.key != prefix || !F::isOwnType(removed.routeType)) return;
    Kiv::validPtr(adjHelper).doDropRefOnFibAdjacency(removed.fecId);
  }

 private:
  typename F::RouteSm& sm_;
};

}  // namespace HostCore
