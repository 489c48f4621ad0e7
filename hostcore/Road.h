// What the handling of a neighbour reads on its way, remembered from the last one.
#pragma once

#include <type_traits>
#include <utility>

#include "platform/kiv/HashMap.h"
#include "platform/kiv/Prefetch.h"
#include "platform/kiv/Ptr.h"
#include "platform/tovan/FibTypes.h"

namespace HostCore {

/// A hint: where the last neighbour of a table led. The next one of the same interface leads there
/// as a rule, so all of it can be fetched at once instead of one after the other. Nothing here is
/// ever followed; what is out of date costs a vain fetch.
template <class P>
struct Road {
  using Addr = typename P::Addr;

  /// Remembers the covering route and its set of neighbours.
  template <class Route, class AddrSet>
  void leadsTo(const Route& route, const AddrSet& set) {
    prefix = route.key;
    fecId = route.fecId;
    neighborSet = &set;
    neighbors = set.ipWhereabouts();
  }
  /// Remembers the list of prefixes that the covering route is in.
  template <class PrefixList>
  void isFiledIn(const PrefixList& list) {
    prefixList = &list;
    prefixes = list.prefixWhereabouts();
  }
  /// Begins to fetch what these hold for `addr`.
  void prefetch(const Addr& addr) const {
    Kiv::prefetch(neighborSet);
    Kiv::prefetch(prefixList);
    neighbors.prefetch(addr);
    prefixes.prefetch(prefix);
  }

  P prefix = P::null();
  Tovan::Fib::FecId fecId = Tovan::Fib::invalidFecId;
  const void* neighborSet = nullptr;
  const void* prefixList = nullptr;
  typename Kiv::HashMap<Addr, Kiv::Present>::Whereabouts neighbors;
  typename Kiv::HashMap<P, Kiv::Present>::Whereabouts prefixes;
};

/// While one stands, the handling of a neighbour is remembered as the road of its table.
template <class Machine, class Reactor>
class Travel {
 public:
  Travel(Machine& machine, const Reactor& reactor)
      : machine_(machine),
        reactor_(&reactor),
        former_(std::exchange(machine.interest().road, &reactor.road())) {}
  Travel(const Travel&) = delete;
  Travel& operator=(const Travel&) = delete;
  ~Travel() { machine_.interest().road = former_; }

 private:
  Machine& machine_;
  Kiv::Ptr<const Reactor> reactor_;  // what is called meanwhile may take the table away
  std::remove_reference_t<decltype(std::declval<Reactor&>().road())>* former_;
};

}  // namespace HostCore
