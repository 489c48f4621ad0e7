// The second short cut: events that are not relevant for a machine may be left out.
#pragma once

#include <optional>
#include <utility>

#include "hostcore/Family.h"
#include "hostcore/fast/Enabled.h"
#include "hostcore/fast/Reactors.h"
#include "hostcore/fast/Trust.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

/// Decides which events are relevant for a machine, and sets its reactors of neighbour tables quiet
/// if no event of the table is.
///
/// Neighbour tables belong to the switch, and each VRF's machine watches all of them. A neighbour
/// gets no host route here when no tracked route leaves through its interface. Its event still ends
/// with the merge of its address, but a second merge of the same state changes nothing. Such an
/// event therefore only writes traces, unless the address is due: another VRF's virtual address
/// was added or removed, the host-route status changed, or other code wrote the host route.
///
/// While a route has another FEC than the one with which it was last announced, no reactor is
/// quiet.
template <Family F>
class Relevance {
 public:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;
  using Route = typename F::Route;
  using FecId = Tovan::Fib::FecId;

  explicit Relevance(typename F::RouteSm& sm) : sm_(sm), state_(sm.fast()), trust_(sm) {}

  /// Begins to watch the machine's inputs for writes.
  void watchInputs();
  void watchFecs();
  /// A tracked route resolves through `now` in place of `before`; either may be none.
  void routeMoved(FecId before, FecId now) {
    if (before == now) return;
    enter(now);
    leave(before);
  }
  void fecChanged(FecId fecId) {
    ++state_.coverVersion;
    if (state_.fecs.find(fecId) != nullptr) {
      intfsAre(fecId, intfsOf(fecId));
    } else {
      Reactors<F>(sm_).fecUnused(fecId);
    }
  }
  /// All FECs may have changed.
  void fecsChanged() {
    ++state_.coverVersion;
    for (const FecId fecId : state_.fecs.keys()) fecChanged(fecId);
  }
  void routeAnnounced(const Prefix& prefix) {
    if (state_.unannounced.erase(prefix) && state_.unannounced.empty()) review();
  }
  /// The address is being merged.
  void merged(const Addr& addr) {
    if (state_.due.empty() || !state_.due.erase(addr)) return;
    if (state_.due.empty()) review();
  }

  /// Sets each reactor of a neighbour table quiet, or not.
  void review() {
    const bool mayRest = this->mayRest();
    Reactors<F> reactors(sm_);
    reactors.isAlertIs(!mayRest);
    for (auto it = reactors.tables().iterator(); it; ++it) {
      it.value()->isQuietIs(mayRest && !leavesThrough(it.value()->notifierRaw()));
    }
  }
  /// The same for the reactor of one interface.
  void review(Zemit::IntfId intf) {
    Reactors<F> reactors(sm_);
    reactors.intfUsed(intf, state_.intfs.find(intf) != nullptr);
    if (const auto* reactor = reactors.tables().find(intf.name())) {
      (*reactor)->isQuietIs(mayRest() && !leavesThrough((*reactor)->notifierRaw()));
    }
  }
  /// True while no event of a neighbour is relevant but for those on the interfaces through which
  /// tracked routes leave.
  bool mayRest() const {
    return isEnabled(ShortCut::Relevance) && trust_.holds() && state_.due.empty() &&
           state_.unannounced.empty() && sm_.account().tracing.levels == 0;
  }

 private:
  void routeWritten(const Prefix& prefix);
  void hostRouteWritten(const Prefix& prefix);
  void virtualIpWritten(const Addr& addr);

  /// A tracked route may have another FEC than the one with which it was announced.
  void notAnnounced(const Prefix& prefix, FecId fecId) {
    if (!isEnabled(ShortCut::Relevance)) return;
    Reactors<F>(sm_).fecUsed(fecId);  // a step may file prefixes under it already
    const bool isFirst = state_.unannounced.empty();
    if (state_.unannounced.insert(prefix) && isFirst) review();
  }
  void mergeIsDue(const Addr& addr) {
    if (!isEnabled(ShortCut::Relevance)) return;
    const bool isFirst = state_.due.empty();
    if (state_.due.insert(addr) && isFirst) review();
  }
  void enter(FecId fecId) {
    if (fecId == Tovan::Fib::invalidFecId) return;
    trust_.fecTracked(fecId);
    if (!isEnabled(ShortCut::Relevance)) return;
    const auto [fec, isNew] = state_.fecs.tryEmplace(fecId);
    ++fec->routes;
    if (isNew) {
      Reactors<F>(sm_).fecUsed(fecId);
      intfsAre(fecId, intfsOf(fecId));
    }
  }
  void leave(FecId fecId) {
    if (fecId == Tovan::Fib::invalidFecId) return;
    auto* fec = state_.fecs.find(fecId);
    if (fec == nullptr || --fec->routes != 0) return;
    intfsAre(fecId, {});
    state_.fecs.erase(fecId);
    Reactors<F>(sm_).fecUnused(fecId);
  }
  Kiv::SmallVector<Zemit::IntfId> intfsOf(FecId fecId) const {
    Kiv::SmallVector<Zemit::IntfId> intfs;
    const auto fec = Obu::readFec(sm_.forwardingStatus(), fecId);
    for (const auto& via : fec) intfs.insert(intfs.end(), via.intf);
    return intfs;
  }
  void intfsAre(FecId fecId, const Kiv::SmallVector<Zemit::IntfId>& intfs) {
    // Allocations, which may fail, come before the counts. A count of 0 does no harm.
    for (const Zemit::IntfId intf : intfs) state_.intfs.tryEmplace(intf);
    Kiv::SmallVector<Zemit::IntfId> copy = intfs;
    const auto former = std::exchange(state_.fecs.find(fecId)->intfs, std::move(copy));
    for (const Zemit::IntfId intf : intfs) {
      if (++*state_.intfs.find(intf) == 1) review(intf);
    }
    for (const Zemit::IntfId intf : former) {
      if (--*state_.intfs.find(intf) != 0) continue;
      state_.intfs.erase(intf);
      review(intf);
    }
  }
  bool leavesThrough(const Arp::ArpIntfStatus* table) const {
    return table != nullptr && state_.intfs.find(table->intfId()) != nullptr;
  }

  typename F::RouteSm& sm_;
  typename F::RouteSm::FastState& state_;
  Trust<F> trust_;
};

template <Family F>
void Relevance<F>::watchInputs() {
  auto& sm = sm_;
  if (const auto* routes = sm.routeStatusRaw()) {
    state_.routeWatch.begin(routes->watches(), [&sm](const Prefix& prefix) {
      if (sm.fast().isTrusted) Relevance(sm).routeWritten(prefix);
    });
  }
  if (const auto* hostStatus = sm.hostStatusRaw()) {
    state_.hostRouteWatch.begin(hostStatus->watches(), [&sm](const Prefix& prefix) {
      if (sm.fast().isTrusted) Relevance(sm).hostRouteWritten(prefix);
    });
  }
  watchFecs();
  if (const auto* virtualIps = sm.virtualIps()) {
    state_.virtualIpWatch.begin(virtualIps->watches(), [&sm](const Addr& addr) {
      if (sm.fast().isTrusted) Relevance(sm).virtualIpWritten(addr);
    });
  }
}

template <Family F>
void Relevance<F>::watchFecs() {
  const auto* forwarding = sm_.forwardingStatus();
  if (forwarding == nullptr) return state_.fecWatch.end();
  auto& sm = sm_;
  state_.fecWatch.begin(forwarding->watches(),
                        [&sm](const FecId& fecId) { Relevance(sm).fecChanged(fecId); });
}

template <Family F>
void Relevance<F>::routeWritten(const Prefix& prefix) {
  if (state_.ownWrite == prefix) {
    state_.ownWrite.reset();  // writes in its callbacks are not the machine's own
    return;
  }
  const auto* root = sm_.rootRaw();
  if (root == nullptr) return;
  ++state_.coverVersion;
  if (prefix.len() == Addr::kBits) return mergeIsDue(prefix.addr());
  const auto tracked = root->prefixToRouteFind(prefix);
  if (!tracked && state_.handlers == 0) return;
  const Route now = Obu::readRoute(sm_.routeStatusRaw(), prefix);
  // A removed route covers no address. A handler may still track the former one.
  if (now.key != prefix) return;
  if (state_.handlers != 0 || tracked->fecId != now.fecId) notAnnounced(prefix, now.fecId);
}

template <Family F>
void Relevance<F>::hostRouteWritten(const Prefix& prefix) {
  const auto* root = sm_.rootRaw();
  if (root == nullptr) return;
  ++state_.coverVersion;
  if (prefix.len() == Addr::kBits) mergeIsDue(prefix.addr());
  if (state_.handlers != 0 || root->prefixToRouteFind(prefix)) {
    notAnnounced(prefix, sm_.hostStatusRaw()->route(prefix).fecId);
  }
}

template <Family F>
void Relevance<F>::virtualIpWritten(const Addr& addr) {
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

}  // namespace HostCore
