// The tables of a VRF's root, for those who show them.
#pragma once

#include "platform/kiv/containers/Ptr.h"

namespace Daemon {

/// The tables of a root. Whoever reaches the root by name may delete them: what is missing is
/// empty.
///
/// \tparam F  the family.
template <class F>
struct RootTables {
  explicit RootTables(const typename F::RouteSmRoot& root)
      : received(root.receiveTable()), neighbors(F::neighborTable(root)), waiting(root.toMerge()) {
    if (!received) received = Kiv::make<typename F::HostTable>("receiveTable");
    if (!neighbors) {
      neighbors = Kiv::make<typename F::HostTable>(F::kNumber == 4 ? "arpTable" : "neighTable");
    }
    if (!waiting) waiting = F::AddrSet::AddrSetIs(F::Prefix::null());
  }

  typename F::HostTable::Ptr received;   ///< the addresses that the switch answers for
  typename F::HostTable::Ptr neighbors;  ///< the hosts that have a route
  typename F::AddrSet::Ptr waiting;      ///< whose merge waits for the machine to be initialized
};

}  // namespace Daemon
