// The third short cut: a software pipeline over many addresses or prefixes.
#pragma once

#include <cstddef>

#include "hostcore/Family.h"
#include "hostcore/fast/Enabled.h"
#include "hostcore/fast/HandlerScope.h"
#include "hostcore/fast/OwnWrite.h"
#include "hostcore/fast/Prefetch.h"
#include "platform/obu/FibLookup.h"
#include "platform/obu/IntfDir.h"

namespace HostCore {

/// A software pipeline over a list: the stages run kAhead keys apart, and `visit` comes last. Each
/// stage prefetches the memory that the next one reads.
template <class Keys, class Visit, class... Stages>
void pipelined(const Keys& keys, Visit visit, Stages... stages) {
  constexpr size_t kAhead = 4;
  const size_t count = keys.size();
  // For a single key, the notifier has prefetched the memory that its event reads.
  const bool isOne = count == 1 || !isEnabled(ShortCut::Pipeline);
  const size_t lead = isOne ? 0 : sizeof...(stages) * kAhead;
  for (size_t step = 0; step < count + lead; ++step) {
    if (lead != 0) {
      size_t at = step;  // wraps to above `count` while the stage has not begun
      ((at < count ? stages(keys[at]) : void(), at -= kAhead), ...);
    }
    if (step >= lead) visit(keys[step - lead]);
  }
}

/// Calls `visit` with each prefix. `visit` reads the route of the prefix.
template <Family F, class Prefixes, class Visit>
void forEachRoute(const typename F::RouteSm& sm, const Prefixes& prefixes, Visit visit) {
  const Prefetch<F> prefetch(sm);
  pipelined(prefixes, visit, [&](const auto& prefix) { prefetch.route(prefix); });
}

/// Calls `visit` with each address. `visit` files it under a route through one of `intfs`.
///
/// \param neighbors  the set of the route's neighbours, or null.
template <Family F, class Addrs, class Visit>
void forEachRepair(const typename F::RouteSm& sm, const Addrs& addrs, const Obu::IntfDir& intfs,
                   const typename F::AddrSet::Ptr& neighbors, Visit visit) {
  const Prefetch<F> prefetch(sm);
  pipelined(addrs, visit, [&](const typename F::Addr& addr) {
    prefetch.hostRoute(addr);
    if (neighbors) neighbors->ipPrefetchHint().prefetch(addr);
    for (const Zemit::IntfId intf : intfs) {
      if (const auto* table = sm.neighborTable(intf)) F::prefetchNeighbor(*table, addr);
      prefetch.newAdjacency(addr, intf);
    }
  });
}

/// Calls `visit` with each address. `visit` removes its host route, and takes it out of
/// `neighbors`.
template <Family F, class Addrs, class Visit>
void forEachWithdrawal(const typename F::RouteSm& sm, const typename F::AddrSet& neighbors,
                       const Addrs& addrs, Visit visit) {
  using Addr = typename F::Addr;
  const Prefetch<F> prefetch(sm);
  pipelined(
      addrs, visit,
      [&](const Addr& addr) {
        prefetch.hostRoute(addr);
        neighbors.ipPrefetchHint().prefetch(addr);
      },
      [&](const Addr& addr) { prefetch.adjacency(addr); },
      [&](const Addr& addr) { prefetch.lastUse(addr); });
}

/// Calls `visit` with each address and with the route table's record of it. `visit` merges the
/// address. This is a handler of its own.
template <Family F, class Addrs, class Visit>
void forEachMerge(typename F::RouteSm& sm, const Addrs& addrs, Visit visit) {
  using Addr = typename F::Addr;
  const HandlerScope<F> handler(sm);
  const Prefetch<F> prefetch(sm);
  pipelined(
      addrs,
      [&](const Addr& addr) {
        const auto existing = Obu::readRoute(sm.routeStatusRaw(), hostPrefix<F>(addr));
        const WriteScope<F> scope(sm, addr, existing);
        visit(addr, existing);
      },
      [&](const Addr& addr) {
        prefetch.route(hostPrefix<F>(addr));
        prefetch.hostRoute(addr);
      },
      [&](const Addr& addr) { prefetch.adjacency(addr); });
}

}  // namespace HostCore
