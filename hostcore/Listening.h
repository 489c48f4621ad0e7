// Which neighbour tables a state machine has to hear of.
#pragma once

#include <exception>
#include <optional>
#include <utility>

#include "hostcore/Event.h"
#include "hostcore/Family.h"
#include "hostcore/Interest.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

/// The steps that keep a machine's interest, and its reactors of neighbour tables quiet where they
/// have none.
///
/// Neighbour tables belong to the switch, and each VRF's machine watches all of them. A neighbour
/// on an interface through which none of the machine's routes leaves gets no host route here. Its
/// address is merged all the same; but merging again what was merged changes nothing, unless
/// another VRF's virtual address came or went meanwhile, or a FIB host route was passed over: such
/// an address is due. In all other cases the change of such a neighbour moves the machine to
/// nothing but trace statements, and its reactor may be quiet.
///
/// The machine knows at once of all that is written to its route table, the host-route status, the
/// FECs and the virtual addresses, whoever does it and whether or not that is announced. What
/// another writes to a host route is due to be merged again. While a route has another FEC than the
/// one it was last announced with, no reactor is quiet.
///
/// A machine that cannot be sure of that is blind, and from then on does everything: when a
/// handler was broken off, a step was taken by hand, an input was replaced or notifications were
/// off, and when the tables held host routes before it began.
template <Family F>
class Listening {
 public:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;
  using Route = typename F::Route;
  using FecId = Tovan::Fib::FecId;

  explicit Listening(typename F::RouteSm& sm) : sm_(sm), interest_(sm.interest()) {}

  /// Stands in a handler while it runs. A handler merges all that it changes, unless an exception
  /// ends it.
  class Handling {
   public:
    explicit Handling(typename F::RouteSm& sm) : sm_(sm) { ++sm_.interest().handlers; }
    Handling(const Handling&) = delete;
    Handling& operator=(const Handling&) = delete;
    ~Handling() {
      --sm_.interest().handlers;
      if (std::uncaught_exceptions() != 0) Listening(sm_).missed();
    }

   private:
    typename F::RouteSm& sm_;
  };
  /// A step was taken whose change is to be merged. If that is no handler's affair, nobody may see
  /// to it.
  void stepTaken() {
    if (interest_.handlers == 0) missed();
  }

  /// The machine has its inputs.
  void begin();
  /// The root may have the state of a machine that was there before.
  void stateFound() {
    const auto* root = sm_.rootRaw();
    if (root == nullptr) return;
    const auto& neighbors = F::neighborTable(*root);
    if (root->prefixToRouteCount() != 0 || (neighbors && neighbors->routeCount() != 0)) missed();
  }
  /// All routes of the route table are about to be handled, `last` the one with the longest prefix.
  void routesFound(const Prefix& last) {
    if (!std::exchange(interest_.hasBegun, true) && last.len() == Addr::kBits) missed();
  }
  /// A tracked route resolves through `now` in place of `before`; either may be none.
  void routeMoved(FecId before, FecId now) {
    if (before == now) return;
    enter(now);
    leave(before);
  }
  /// The FEC has changed, or all may have.
  void fecChanged(FecId fecId) {
    coversChanged();
    if (interest_.fecs.find(fecId) != nullptr) intfsAre(fecId, intfsOf(fecId));
  }
  void fecsChanged() {
    coversChanged();
    for (const FecId fecId : interest_.fecs.keys()) fecChanged(fecId);
  }
  /// The route that is handed to handleRoute() next has just been read from its table.
  void routeIsRead() { interest_.routeIsRead = true; }
  /// The FIB route of `prefix` was announced.
  void routeAnnounced(const Prefix& prefix) {
    const bool isRead = std::exchange(interest_.routeIsRead, false);
    if (!sm_.initialized()) return;
    // What is handed over by hand may not be what the next event reads.
    if (!isRead) missed();
    if (interest_.unannounced.erase(prefix) && interest_.unannounced.empty()) review();
  }
  /// While one stands, the machine itself writes the host route of one address to the route table.
  class OwnWrite {
   public:
    OwnWrite(typename F::RouteSm& sm, const Prefix& prefix)
        : interest_(sm.interest()), former_(std::exchange(interest_.ownWrite, prefix)) {}
    OwnWrite(const OwnWrite&) = delete;
    OwnWrite& operator=(const OwnWrite&) = delete;
    ~OwnWrite() { interest_.ownWrite = former_; }

   private:
    typename F::RouteSm::Interest& interest_;
    std::optional<Prefix> former_;
  };
  /// A FIB route was announced, or that it went, and the machine did not look into it. If it is a
  /// host route, and not what was merged last, the merge of its address is due.
  void routePassedOver(const Prefix& prefix, const Route& fibRoute);
  /// `addr` is being merged.
  void merged(const Addr& addr) {
    if (interest_.due.empty() || !interest_.due.erase(addr)) return;
    if (interest_.due.empty()) review();
  }
  /// A merge was added to `waiting`, until the machine is initialized.
  void mergeDeferred(const typename F::AddrSet& waiting) {
    interest_.deferredIn = Kiv::Ptr<const Kiv::Entity>(&waiting);
    interest_.deferred = waiting.ipCount();
  }
  /// The merges that wait are about to be made up for: those in `waiting`, which may be null.
  void deferredAreIn(const typename F::AddrSet* waiting) {
    if (!interest_.deferredIn) return;
    // Another has replaced or emptied the set.
    if (interest_.deferredIn.get() != waiting || waiting->ipCount() < interest_.deferred) missed();
    interest_.deferredIn = {};
  }
  /// The host route of a neighbour was written or withdrawn.
  void hostRouteChanged() { ++interest_.hostRouteChanges; }
  uint64_t hostRouteChanges() const { return interest_.hostRouteChanges; }
  /// The cover of an address may have changed: a route or a FEC was announced.
  void coversChanged() { ++interest_.coverChanges; }
  /// True when what was read of covers is good until something is announced.
  bool mayTrustCovers() const { return mayTrust(); }
  /// Something may have passed the machine by.
  void missed() {
    interest_.isBlind = true;
    coversChanged();
    review();
  }

  /// Sets each reactor of a neighbour table quiet, or not.
  void review() {
    const bool mayRest = this->mayRest();
    for (auto it = sm_.arpIntfStatusIterator(); it; ++it) {
      it.value()->isQuietIs(mayRest && !leavesThrough(it.value()->notifierRaw()));
    }
  }
  void review(Zemit::IntfId intf) {
    if (const auto& reactor = sm_.arpIntfStatus(intf.name())) {
      reactor->isQuietIs(mayRest() && !leavesThrough(reactor->notifierRaw()));
    }
  }

 private:
  void routeWritten(const Prefix& prefix);
  void hostRouteWritten(const Prefix& prefix);
  /// A tracked route may have another FEC than the one that it was announced with.
  void unannounced(const Prefix& prefix) {
    const bool first = interest_.unannounced.empty();
    if (interest_.unannounced.insert(prefix) && first) review();
  }
  /// `addr` became virtual in a VRF, or is so no longer.
  void virtualIpWritten(const Addr& addr);
  void mergeIsDue(const Addr& addr) {
    const bool first = interest_.due.empty();
    if (interest_.due.insert(addr) && first) review();
  }
  void enter(FecId fecId) {
    if (fecId == Tovan::Fib::invalidFecId) return;
    // Nobody is told when an adjacency changes.
    if (fecId >= F::ForwardingStatus::kFirstAdjacency) missed();
    const auto [fec, isNew] = interest_.fecs.tryEmplace(fecId);
    ++fec->routes;
    if (isNew) intfsAre(fecId, intfsOf(fecId));
  }
  void leave(FecId fecId) {
    if (fecId == Tovan::Fib::invalidFecId) return;
    auto* fec = interest_.fecs.find(fecId);
    if (fec == nullptr || --fec->routes != 0) return;
    intfsAre(fecId, {});
    interest_.fecs.erase(fecId);
  }
  Kiv::SmallVector<Zemit::IntfId> intfsOf(FecId fecId) const {
    Kiv::SmallVector<Zemit::IntfId> intfs;
    const auto fec = Obu::readFec(sm_.forwardingStatus(), fecId);
    for (const auto& via : fec) intfs.insert(intfs.end(), via.intf);
    return intfs;
  }
  void intfsAre(FecId fecId, const Kiv::SmallVector<Zemit::IntfId>& intfs) {
    // What may fail for lack of memory comes before the counts. One of 0 does no harm.
    for (const Zemit::IntfId intf : intfs) interest_.intfs.tryEmplace(intf);
    Kiv::SmallVector<Zemit::IntfId> copy = intfs;
    const auto former = std::exchange(interest_.fecs.find(fecId)->intfs, std::move(copy));
    for (const Zemit::IntfId intf : intfs) {
      if (++*interest_.intfs.find(intf) == 1) review(intf);
    }
    for (const Zemit::IntfId intf : former) {
      if (--*interest_.intfs.find(intf) != 0) continue;
      interest_.intfs.erase(intf);
      review(intf);
    }
  }
  bool leavesThrough(const Arp::ArpIntfStatus* table) const {
    return table != nullptr && interest_.intfs.find(table->intfId()) != nullptr;
  }
  bool mayRest() const {
    return mayTrust() && interest_.due.empty() && interest_.unannounced.empty() &&
           interest_.account.tracing.levels == 0;
  }
  /// True when all that was changed has been merged, but for what is due.
  bool mayTrust() const {
    // What is queued is handled with the tables as they will be, which nobody knows yet.
    const auto* activity = sm_.kivFwkActivityRaw();
    return sm_.initialized() && !interest_.isBlind &&
           (activity == nullptr || !activity->queues()) && sm_.routeStatusRaw() != nullptr &&
           sm_.hostStatusRaw() != nullptr && sm_.forwardingStatus() != nullptr;
  }

  typename F::RouteSm& sm_;
  typename F::RouteSm::Interest& interest_;
};

template <Family F>
void Listening<F>::begin() {
  auto& sm = sm_;
  if (const auto* routes = sm.routeStatusRaw()) {
    interest_.routes.begin(routes->watches(), [&sm](const Prefix& prefix) {
      if (!sm.interest().isBlind) Listening(sm).routeWritten(prefix);
    });
  }
  if (const auto* hostStatus = sm.hostStatusRaw()) {
    interest_.hostRoutes.begin(hostStatus->watches(), [&sm](const Prefix& prefix) {
      if (!sm.interest().isBlind) Listening(sm).hostRouteWritten(prefix);
    });
  }
  if (const auto* forwarding = sm.forwardingStatus()) {
    interest_.fecChanges.begin(forwarding->watches(),
                               [&sm](const FecId& fecId) { Listening(sm).fecChanged(fecId); });
  }
  if (const auto* virtualIps = F::virtualIps(sm)) {
    interest_.virtualAddrs.begin(virtualIps->watches(), [&sm](const Addr& addr) {
      if (!sm.interest().isBlind) Listening(sm).virtualIpWritten(addr);
    });
  }
  stateFound();
  countHostRoutes<F>(sm_);
}

template <Family F>
void Listening<F>::routeWritten(const Prefix& prefix) {
  if (interest_.ownWrite == prefix) {
    interest_.ownWrite.reset();  // what comes under its callbacks is another's
    return;
  }
  const auto* root = sm_.rootRaw();
  if (root == nullptr) return;
  coversChanged();
  if (prefix.len() == Addr::kBits) return mergeIsDue(prefix.addr());
  const auto tracked = root->prefixToRouteFind(prefix);
  if (!tracked && interest_.handlers == 0) return;
  const Route now = Obu::readRoute(sm_.routeStatusRaw(), prefix);
  // A route that is gone covers nothing. A handler may yet track what was there before.
  if (now.key != prefix) return;
  if (interest_.handlers != 0 || tracked->fecId != now.fecId) unannounced(prefix);
}

template <Family F>
void Listening<F>::hostRouteWritten(const Prefix& prefix) {
  const auto* root = sm_.rootRaw();
  if (root == nullptr) return;
  coversChanged();
  if (prefix.len() == Addr::kBits) mergeIsDue(prefix.addr());
  if (interest_.handlers != 0 || root->prefixToRouteFind(prefix)) unannounced(prefix);
}

template <Family F>
void Listening<F>::virtualIpWritten(const Addr& addr) {
  const auto* root = sm_.rootRaw();
  if (root == nullptr) return;
  const auto host = hostPrefix<F>(addr);
  const Route merged = Obu::readRoute(sm_.routeStatusRaw(), host);
  // Only attached routes give way to virtual addresses.
  if (merged.key == host && merged.routeType != F::kAttached && merged.routeType != F::kInvalid) {
    return;
  }
  const auto& neighbors = F::neighborTable(*root);
  const auto* hostStatus = sm_.hostStatusRaw();
  if (merged.key == host || (neighbors && neighbors->route(host).key == host) ||
      (hostStatus != nullptr && hostStatus->route(host).key == host)) {
    mergeIsDue(addr);
  }
}

/// Tells the machine of a root, if it has one, that somebody has taken a step by hand.
template <Family F>
void stepTaken(const typename F::RouteSmRoot& root) {
  if (const auto& machine = root.routeSm()) Listening<F>(*machine).stepTaken();
}

/// As above, for the machine that owns a host table; none need own it.
template <Family F>
void stepTakenOn(const typename F::HostTable& table) {
  const auto* root = dynamic_cast<const typename F::RouteSmRoot*>(table.parent());
  if (root != nullptr) stepTaken<F>(*root);
}

template <Family F>
void Listening<F>::routePassedOver(const Prefix& prefix, const Route& fibRoute) {
  if (prefix.len() != Addr::kBits) return;
  if (fibRoute.key == prefix) {
    if constexpr (F::kMergesReceiveRoutes) {
      if (Kiv::validPtr(sm_.rootRaw()->receiveTable())->route(prefix).key == prefix) return;
    }
    const Route merged = Obu::readRoute(sm_.routeStatusRaw(), prefix);
    if (isComplete<F>(fibRoute) ? merged == fibRoute : merged.key != prefix) return;
  }
  mergeIsDue(prefix.addr());
}

}  // namespace HostCore
