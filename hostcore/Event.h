// Scopes: the event that a state machine handles, and the address that it is handling.
#pragma once

#include <type_traits>
#include <utility>

#include "hostcore/Account.h"
#include "hostcore/Family.h"
#include "hostcore/fast/ShortCuts.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

/// The scope in which the machine handles one address or prefix. If the machine traces one address
/// only, traces about other addresses are left out.
template <Family F>
class About {
 public:
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;

  About(const typename F::RouteSm& sm, const Addr& addr) : tracing_(sm.account().tracing) {
    if (tracing_.only) [[unlikely]]
      enter(addr == *tracing_.only);
  }
  About(const typename F::RouteSm& sm, const Prefix& prefix) : tracing_(sm.account().tracing) {
    if (tracing_.only) [[unlikely]]
      enter(!isNull(prefix) && prefix.contains(*tracing_.only));
  }
  About(const About&) = delete;
  About& operator=(const About&) = delete;
  ~About() {
    if (hasEntered_) [[unlikely]]
      tracing_.now = former_;
  }

 private:
  using Tracing = typename F::RouteSm::Account::Tracing;

  void enter(bool isTraced) {
    hasEntered_ = true;
    former_ = tracing_.now;
    tracing_.now = isTraced ? tracing_.levels : 0;
  }

  Tracing& tracing_;
  uint32_t former_ = 0;
  bool hasEntered_ = false;
};

/// The scope of an event, in the handler that it enters. Counts the event and, if there is a
/// history, records it. Handlers that this one calls belong to the same event.
template <Family F>
class Event {
 public:
  using Cause = HostCore::Cause<typename F::Prefix>;

  Event(typename F::RouteSm& sm, CauseKind kind) : Event(sm, kind, [&] { return Cause{kind}; }) {}
  Event(typename F::RouteSm& sm, CauseKind kind, Zemit::IntfId intf)
      : Event(sm, kind, [&] { return Cause{.kind = kind, .intf = intf}; }) {}
  Event(typename F::RouteSm& sm, CauseKind kind, const typename F::Prefix& prefix)
      : Event(sm, kind, [&] { return Cause{.kind = kind, .prefix = prefix}; }) {}
  Event(typename F::RouteSm& sm, CauseKind kind, const typename F::Prefix& prefix,
        Tovan::Fib::FecId fec)
      : Event(sm, kind, [&] { return Cause{.kind = kind, .prefix = prefix, .fec = fec}; }) {}
  Event(typename F::RouteSm& sm, CauseKind kind, Tovan::Fib::FecId fec)
      : Event(sm, kind, [&] { return Cause{.kind = kind, .fec = fec}; }) {}
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  ~Event() {
    auto& account = sm_.account();
    if (!kCounts && account.log == nullptr) return;
    if (--account.events == 0 && account.log != nullptr) [[unlikely]]
      account.log->eventEnds();
  }

 private:
  template <class MakeCause>
  requires std::is_invocable_r_v<Cause, MakeCause> Event(typename F::RouteSm& sm, CauseKind kind,
                                                         MakeCause makeCause)
      : sm_(sm) {
    auto& account = sm.account();
    if (!kCounts && account.log == nullptr) return;
    if (account.events++ != 0) return;
    ++account.counts.events[static_cast<size_t>(kind)];
    if (account.log != nullptr) [[unlikely]]
      account.log->eventBegins(makeCause());
  }

  typename F::RouteSm& sm_;
};

/// The scope of the handler of an announced FIB route or FEC.
template <Family F>
class EventHandler {
 public:
  EventHandler(typename F::RouteSm& sm, const typename F::Prefix& prefix, Tovan::Fib::FecId fec)
      : event_(sm, CauseKind::Route, prefix, fec), handler_(sm, prefix) {}
  EventHandler(typename F::RouteSm& sm, Tovan::Fib::FecId fec)
      : event_(sm, CauseKind::Fec, fec), handler_(sm, fec) {}

 private:
  Event<F> event_;
  HandlerScope<F> handler_;
};

/// The scope of a handler that changes the host routes of several addresses. It collects them, and
/// merges them together at its end.
template <Family F>
class MergeSet {
 public:
  using Addr = typename F::Addr;
  using AddrSetPtr = typename F::AddrSet::Ptr;

  explicit MergeSet(typename F::RouteSm& sm) : sm_(sm), handler_(sm) {}

  void add(const Addr& addr) { addrs()->ipIs(addr, true); }
  /// Adds the addresses of a set. This object may take over the set itself.
  void add(const AddrSetPtr& others) {
    if (!addrs_) {
      addrs_ = others;
      return;
    }
    for (auto it = others->ipIteratorConst(); it; ++it) add(it.key());
  }
  /// The set of the addresses. It is made at its first use.
  const AddrSetPtr& addrs() {
    if (!addrs_) addrs_ = F::AddrSet::AddrSetIs(F::Prefix::null());
    return addrs_;
  }
  /// Merges the addresses, if there are any.
  void merge() {
    if (addrs_ && addrs_->ipCount() != 0) sm_.doMerge(addrs_);
  }

 private:
  typename F::RouteSm& sm_;
  HandlerScope<F> handler_;
  AddrSetPtr addrs_;
};

/// A host route of the machine in the route table was changed from `before` to `now`. A route with
/// another key than `prefix` means that there is none.
template <Family F>
void hostRouteChanged(typename F::RouteSm& sm, const typename F::Prefix& prefix,
                      const typename F::Route& before, const typename F::Route& now) {
  using Change = typename F::RouteSm::Account::Log::Change;
  auto& account = sm.account();
  const bool was = before.key == prefix;
  const bool is = now.key == prefix;
  if (!was && !is) return;
  auto& ofType = account.counts.hostRoutes;
  if (was) --ofType[before.routeType % ofType.size()];
  if (is) ++ofType[now.routeType % ofType.size()];
  if (account.log == nullptr) [[likely]]
    return;
  Kiv::SmallVector<typename F::Via> vias;
  if (is) {
    const auto fec = Obu::readFec(sm.forwardingStatus(), now.fecId);
    for (const auto& via : fec) vias.insert(vias.end(), via);
  }
  account.log->add(!was ? Change::Kind::Added
                   : is ? Change::Kind::Changed
                        : Change::Kind::Removed,
                   is ? now : before, std::move(vias));
}

/// Counts the host routes that are in the route table when a machine begins. Returns true if there
/// are none, and false if a part of the table could not be read.
template <Family F>
bool countHostRoutes(typename F::RouteSm& sm) {
  const auto* table = sm.routeStatusRaw();
  if (table == nullptr || table->routeCount() == 0) return true;
  auto& ofType = sm.account().counts.hostRoutes;
  bool hasNone = true;
  try {
    table->forEachRoute([&](const typename F::Route& route) {
      if (route.key.len() != F::Addr::kBits) return;
      hasNone = false;
      ++ofType[route.routeType % ofType.size()];
    });
  } catch (const Tovan::CorruptionDetectedException& damage) {
    table->corruptionDetected(damage.what());
    return false;
  }
  return hasNone;
}

}  // namespace HostCore
