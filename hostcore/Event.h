// Scopes: the event that a state machine handles, and the address with which it is busy.
#pragma once

#include <type_traits>
#include <utility>

#include "hostcore/Account.h"
#include "hostcore/Family.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

/// While one stands, the machine is busy with one address or prefix: of a machine that traces one
/// address only, the traces about others are left out.
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

/// Stands in the handler by which an event enters the machine: counts the event and, while there is
/// a history, records it. The machine's own further steps belong to the same event.
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

/// A host route of the machine in the route table was changed: `before` and `now`, either of which
/// may be none, whose key is another prefix than `prefix`.
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

/// Counts the host routes that are in the route table when a machine begins. Returns whether it
/// surely has none: false when a part of the table could not be read.
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
