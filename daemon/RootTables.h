// The tables of a VRF's root, for output.
#pragma once

#include "platform/kiv/containers/Ptr.h"

namespace Daemon {

/// The tables of a root. A user of the reflection interface may have deleted a table; an empty
/// table then replaces it.
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

  typename F::HostTable::Ptr received;   ///< receive routes of the switch's own addresses
  typename F::HostTable::Ptr neighbors;  ///< host routes of neighbours
  typename F::AddrSet::Ptr waiting;      ///< addresses whose merge is deferred until initialization
};

}  // namespace Daemon
