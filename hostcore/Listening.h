// Which neighbour tables a state machine has to hear of.
#pragma once

#include <utility>

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
/// another VRF's virtual address came or went meanwhile, a FIB host route was passed over, or a
/// merge was broken off. In all other cases the change of such a neighbour moves the machine to
/// nothing but trace statements, and its reactor may be quiet.
///
/// Who writes a route table or the FECs tells the machine at once; what is written in silence may
/// be noticed later here than by machines that hear of everything.
template <Family F>
class Listening {
 public:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;
  using Route = typename F::Route;
  using FecId = Tovan::Fib::FecId;

  explicit Listening(typename F::RouteSm& sm) : sm_(sm), interest_(sm.interest()) {}

  /// The root may have tracked routes already, of a machine that was there before.
  void routesFound() {
    const auto* root = sm_.rootRaw();
    if (root == nullptr) return;
    for (auto it = root->prefixToRouteIteratorConst(); it; ++it) enter(it.value().fecId);
  }
  /// A tracked route resolves through `now` in place of `before`; either may be none.
  void routeMoved(FecId before, FecId now) {
    if (before == now) return;
    enter(now);
    leave(before);
  }
  /// The FEC has changed, or all may have.
  void fecChanged(FecId fecId) {
    if (interest_.fecs.find(fecId) != nullptr) intfsAre(fecId, intfsOf(fecId));
  }
  void fecsChanged() {
    for (const FecId fecId : interest_.fecs.keys()) fecChanged(fecId);
  }
  /// `addr` became virtual in another VRF, or is so no longer.
  void foreignVirtualIpChanged(const Addr& addr);
  /// A FIB route was announced that the machine did not look into. If it is a host route, and not
  /// what was merged last, the next merge of its address will change something.
  void routePassedOver(const Prefix& prefix, const Route& fibRoute) {
    if (prefix.len() == Addr::kBits && Obu::readRoute(sm_.routeStatusRaw(), prefix) != fibRoute) {
      unsettled(prefix.addr());
    }
  }
  /// `addr` has been merged.
  void settled(const Addr& addr) {
    if (interest_.unsettled.empty() || !interest_.unsettled.erase(addr)) return;
    if (interest_.unsettled.empty()) review();
  }
  /// True when a merge of `addr`, whose host route has not changed, would change nothing.
  bool isSettled(const Addr& addr) const {
    return mayTrust() && !interest_.unsettled.contains(addr) && !F::trace().buildsAbove(0);
  }
  /// Something may have passed the machine by.
  void missed() {
    interest_.isBlind = true;
    review();
  }

  /// What `step` returns; a step that is broken off may leave routes that no merge has seen.
  template <class Step>
  auto guarded(Step step) {
    try {
      return step();
    } catch (...) {
      missed();
      throw;
    }
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
  void unsettled(const Addr& addr) {
    const bool first = interest_.unsettled.empty();
    if (interest_.unsettled.insert(addr) && first) review();
  }
  void enter(FecId fecId) {
    if (fecId == Tovan::Fib::invalidFecId) return;
    const auto [fec, isNew] = interest_.fecs.tryEmplace(fecId);
    ++fec->routes;
    if (isNew) intfsAre(fecId, intfsOf(fecId));
  }
  void leave(FecId fecId) {
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
    const auto former = std::exchange(interest_.fecs.find(fecId)->intfs, intfs);
    for (const Zemit::IntfId intf : intfs) {
      if (++*interest_.intfs.tryEmplace(intf).first == 1) review(intf);
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
  bool mayRest() const { return mayTrust() && interest_.unsettled.empty(); }
  /// True when all that was changed has been merged, but for what is unsettled.
  bool mayTrust() const {
    // What is queued is handled with the tables as they will be, which nobody knows yet.
    const auto* activity = sm_.kivFwkActivityRaw();
    return sm_.initialized() && !interest_.isBlind &&
           (activity == nullptr || !activity->queues()) && sm_.routeStatusRaw() != nullptr &&
           sm_.hostStatusRaw() != nullptr;
  }

  typename F::RouteSm& sm_;
  Interest<Addr>& interest_;
};

template <Family F>
void Listening<F>::foreignVirtualIpChanged(const Addr& addr) {
  const auto host = hostPrefix<F>(addr);
  const auto& neighbors = F::neighborTable(Kiv::validPtr(sm_.rootRaw()));
  const auto* hostStatus = sm_.hostStatusRaw();
  if (Obu::readRoute(sm_.routeStatusRaw(), host).key == host ||
      (neighbors && neighbors->route(host).key == host) ||
      (hostStatus != nullptr && hostStatus->route(host).key == host)) {
    unsettled(addr);
  }
}

}  // namespace HostCore
