// Filing prefixes under the FECs through which they resolve, and neighbours under prefixes.
#pragma once

#include "hostcore/Event.h"
#include "hostcore/Family.h"
#include "hostcore/fast/ShortCuts.h"

namespace HostCore {

/// Files `prefix` in the list of a FEC, which is made if there is none.
///
/// \param neighbors  the set in which a neighbour under the prefix was just filed, or null.
template <Family F>
void file(typename F::RouteSm& sm, typename F::RouteSmRoot& root, Tovan::Fib::FecId fecId,
          const typename F::Prefix& prefix, const typename F::AddrSet* neighbors = nullptr) {
  if (const auto& list = root.adjacencyToPrefix(fecId)) {
    if (neighbors != nullptr) ShortCuts<F>(sm).filed(*neighbors, *list);
    list->prefixIs(prefix, true);
    return;
  }
  const auto list = F::PrefixList::PrefixListIs(fecId);
  root.adjacencyToPrefixIs(list);
  list->prefixIs(prefix, true);
}

/// Takes `prefix` out of the list of a FEC, if there is one. An empty list is
/// removed. Returns the list if it remains, else null.
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

/// Withdraws the host routes of `addrs`, and takes these out of the set of their FIB prefix.
///
/// \param before  is called with each address before its withdrawal.
/// \param after   is called with it afterwards.
template <Family F, class Addrs, class Before, class After>
void withdraw(typename F::RouteSm& sm, typename F::RouteSmRoot& root,
              typename F::AddrSet& neighbors, const Addrs& addrs, Before before, After after) {
  forEachWithdrawal<F>(sm, neighbors, addrs, [&](const typename F::Addr& addr) {
    const About<F> about(sm, addr);
    before(addr);
    F::removeHostRoute(addr, F::neighborTable(root), nullptr, sm.adjHelper());
    neighbors.ipDel(addr);
    after(addr);
  });
}

}  // namespace HostCore
