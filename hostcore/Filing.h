// Filing prefixes under the FECs through which they resolve.
#pragma once

#include "hostcore/Family.h"
#include "hostcore/fast/ShortCuts.h"

namespace HostCore {

/// Files `prefix` in the list of a FEC, which is made if there is none.
template <Family F>
void file(typename F::RouteSm& sm, typename F::RouteSmRoot& root, Tovan::Fib::FecId fecId,
          const typename F::Prefix& prefix) {
  if (const auto& list = root.adjacencyToPrefix(fecId)) {
    ShortCuts<F>(sm).filedIn(*list);
    list->prefixIs(prefix, true);
    return;
  }
  const auto list = F::PrefixList::PrefixListIs(fecId);
  root.adjacencyToPrefixIs(list);
  list->prefixIs(prefix, true);
}

/// Takes `prefix` out of the list of a FEC, if there is one. A list that becomes empty goes.
/// Returns the list that remains, or null.
template <Family F>
typename F::PrefixList::Ptr unfile(typename F::RouteSmRoot& root, Tovan::Fib::FecId fecId,
                                   const typename F::Prefix& prefix) {
  const typename F::PrefixList::Ptr list = root.adjacencyToPrefix(fecId);
  if (!list) return nullptr;
  list->prefixDel(prefix);
  if (list->prefixCount() != 0) return list;
  root.adjacencyToPrefixDel(fecId);
  return nullptr;
}

}  // namespace HostCore
