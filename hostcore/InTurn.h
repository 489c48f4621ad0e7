// Handling many addresses or prefixes, one after the other.
#pragma once

#include <cstddef>

#include "hostcore/Lookup.h"

namespace HostCore {

/// Calls `visit` with each key of a list, and before that the stages with it, each some keys sooner
/// than the next: what one stage begins to fetch has come when the next one looks.
template <class Keys, class Visit, class... Stages>
void inTurn(const Keys& keys, Visit visit, Stages... stages) {
  constexpr size_t kAhead = 4;
  const size_t count = keys.size();
  // One alone has been fetched by whoever was told of it.
  const size_t lead = count == 1 ? 0 : sizeof...(stages) * kAhead;
  for (size_t step = 0; step < count + lead; ++step) {
    if (lead != 0) {
      size_t at = step;  // below 0, and so beyond all, before the stage has begun
      ((at < count ? stages(keys[at]) : void(), at -= kAhead), ...);
    }
    if (step >= lead) visit(keys[step - lead]);
  }
}

/// Calls `visit` with each address, of which it is going to take the host route away, and to take
/// it out of `neighbors`.
template <Family F, class Addrs, class Visit>
void withdrawInTurn(const typename F::RouteSm& sm, const typename F::AddrSet& neighbors,
                    const Addrs& addrs, Visit visit) {
  using Addr = typename F::Addr;
  const Lookup<F> lookup(sm);
  inTurn(
      addrs, visit,
      [&](const Addr& addr) {
        lookup.prefetchHostRoute(addr);
        neighbors.ipWhereabouts().prefetch(addr);
      },
      [&](const Addr& addr) { lookup.prefetchAdjacency(addr); },
      [&](const Addr& addr) { lookup.prefetchLastUse(addr); });
}

}  // namespace HostCore
