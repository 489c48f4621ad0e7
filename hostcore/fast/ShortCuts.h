// The seam between the steps and the short cuts: a step includes nothing else of this folder.
//
// A step reads well without it: every line that names a short cut may be removed, or replaced by
// the plain form that its comment gives, and the tables come out the same.
#pragma once

#include <memory>
#include <optional>
#include <typeinfo>
#include <utility>

#include "hostcore/Family.h"
#include "hostcore/fast/CoverCache.h"
#include "hostcore/fast/Enabled.h"
#include "hostcore/fast/HandlerScope.h"
#include "hostcore/fast/OwnWrite.h"
#include "hostcore/fast/Pipeline.h"
#include "hostcore/fast/Prefetch.h"
#include "hostcore/fast/Relevance.h"
#include "hostcore/fast/Repeat.h"
#include "hostcore/fast/Trust.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

/// The verbs with which a step informs the short cuts of its machine.
template <Family F>
class ShortCuts {
 public:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;
  using Route = typename F::Route;

  explicit ShortCuts(typename F::RouteSm& sm) : sm_(sm) {}

  /// The route of `prefix` is about to be read from its table, for handleRoute().
  void reads(const Prefix& prefix) {
    sm_.fast().routeIsRead = true;
    Prefetch<F>(sm_).trackedRoute(prefix);
  }
  /// All FECs were announced.
  void announced() { Relevance<F>(sm_).fecsChanged(); }
  /// A tracked route resolves through `now` in place of `before`; either may be none.
  void moved(Tovan::Fib::FecId before, Tovan::Fib::FecId now) {
    Relevance<F>(sm_).routeMoved(before, now);
  }
  /// A neighbour was filed in this set, and the prefix of its cover in this list.
  void filed(const typename F::AddrSet& neighbors, const typename F::PrefixList& prefixes) {
    if (auto* cache = sm_.fast().cache) cache->filedIn(neighbors, prefixes);
  }
  /// The host route of `ip` in `hostTable` was repaired under a FIB route with this FEC.
  ///
  /// \param writes  how often this repair has written the host route.
  void repaired(const Addr& ip, const typename F::ForwardingStatus::Fec& fec,
                typename F::HostTable& hostTable, uint32_t writes) {
    Repeat<F>(sm_).repaired(ip, fec, hostTable, writes);
  }
  /// True if the event of `ip`, a neighbour in the reactor's table, would only repeat steps.
  template <class Reactor>
  bool isRepeat(const Reactor& reactor, const Addr& ip) const {
    const auto& cache = reactor.coverCache();
    return cache != nullptr && Repeat<F>(sm_).isRepeat(ip, *reactor.notifierRaw(), *cache);
  }
  /// The deferred merges are about to be made.
  void deferredMergesTaken() {
    Reactors<F>(sm_).deferredMergesTaken(mayRest());
    const auto& waiting = F::deferredMerges(Kiv::validPtr(sm_.rootRaw())).held();
    Trust<F>(sm_).deferredMergesFound(waiting.get());
  }
  /// The tables whose neighbours a pass over all neighbours has to handle, by name and in its
  /// order.
  std::vector<Kiv::Name> relevantTables() {
    Reactors<F> reactors(sm_);
    mayRest() ? reactors.joinTablesOfDeferred() : reactors.makeAll();
    auto names = reactors.tables().keys();
    std::sort(names.begin(), names.end());
    return names;
  }
  /// The machine's own trace levels changed.
  void levelsChanged() { Relevance<F>(sm_).review(); }

 private:
  /// True when the neighbours on interfaces through which no tracked route leaves can be passed
  /// over.
  bool mayRest() const { return Relevance<F>(sm_).mayRest() && !MachineIndex<F>::isObserved(); }

  typename F::RouteSm& sm_;
};

/// The scope of one neighbour's handler: the look-ups of its steps use the cache of its table.
template <Family F, class Reactor>
class NeighborScope {
 public:
  using Addr = typename F::Addr;
  using Route = typename F::Route;

  /// \param isNeighbor  whether the reactor's table has `addr` now.
  /// \param hostRoute   the host route that `addr` has as a neighbour, or any other route. It was
  ///                    just read.
  NeighborScope(typename F::RouteSm& sm, const Reactor& reactor, const Addr& addr, bool isNeighbor,
                const Route& hostRoute)
      : handler_(sm),
        sm_(sm),
        reactor_(&reactor),
        former_(std::exchange(sm.fast().cache, &cacheOf(reactor))) {
    Repeat<F>(sm).begins(addr);
    reactor.coverCache()->isTrustedIs(Trust<F>(sm).holds());
    Prefetch<F>(sm).change(addr, reactor.notifierRaw()->intfId(), isNeighbor, hostRoute);
  }
  NeighborScope(const NeighborScope&) = delete;
  NeighborScope& operator=(const NeighborScope&) = delete;
  ~NeighborScope() { sm_.fast().cache = former_; }

 private:
  static auto& cacheOf(const Reactor& reactor) {
    auto& cache = reactor.coverCache();
    if (cache == nullptr) cache = std::make_shared<typename F::RouteSm::CoverCache>();
    return *cache;
  }

  HandlerScope<F> handler_;
  typename F::RouteSm& sm_;
  Kiv::Ptr<const Reactor> reactor_;  // a callback may remove the table, and with it the cache
  CoverCache<Route, typename F::ForwardingStatus::Fec>* former_;
};

/// The scope in which the route of an address that became virtual is withdrawn. A merge would write
/// nothing after this, unless the host-route status has a route that was not announced.
///
/// \param withdrawn  the route table's record of the address.
template <Family F>
WriteScope<F> withdrawalScope(typename F::RouteSm& sm, const typename F::Addr& addr,
                              const typename F::Route& withdrawn) {
  const auto prefix = hostPrefix<F>(addr);
  const auto* hostStatus = sm.hostStatusRaw();
  const bool isMerge = hostStatus == nullptr || hostStatus->route(prefix).key != prefix;
  return {sm, addr, withdrawn, isMerge};
}

/// The scope in which merges are added to the set of those that wait for the machine to be
/// initialized.
template <Family F>
class DeferralScope {
 public:
  DeferralScope(typename F::RouteSm& sm, typename F::AddrSet::Ptr waiting)
      : trust_(sm), waiting_(std::move(waiting)) {
    trust_.deferredMergesFound(waiting_.get());
  }
  DeferralScope(const DeferralScope&) = delete;
  DeferralScope& operator=(const DeferralScope&) = delete;
  ~DeferralScope() { trust_.mergesDeferred(*waiting_); }

 private:
  Trust<F> trust_;
  typename F::AddrSet::Ptr waiting_;  // a callback may replace it in the root
};

/// A step is about to change a host-route table, and leaves the merge to its caller. Usually a root
/// owns the table. It may have no machine.
template <Family F>
void leavesMerge(const typename F::HostTable& table) {
  using Root = typename F::RouteSmRoot;
  const Kiv::Entity* const owner = table.parent();
  if (owner == nullptr || typeid(*owner) != typeid(Root)) return;
  if (const auto& machine = static_cast<const Root&>(*owner).routeSm()) {
    Trust<F>(*machine).stepTaken();
  }
}

/// Prefetches the memory that the next event of the neighbour `addr` reads. Does nothing before the
/// first event of its table.
template <Family F, class Reactor>
void neighborExpected(const Reactor& reactor, const typename F::Addr& addr) {
  const auto* machine = reactor.routeSm();
  if (machine != nullptr && reactor.coverCache() != nullptr) {
    Prefetch<F>(*machine).neighbor(addr, *reactor.coverCache());
  }
}

}  // namespace HostCore
