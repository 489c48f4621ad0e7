// Reads the routes of another process with their next hops, and follows its restarts.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/tovan/ForwardingStatus.h"
#include "platform/tovan/RouteStatus.h"
#include "platform/tovan/SharedNames.h"

namespace Tovan {

/// The names of the tables to read. The owner opened the tables under these names.
struct RouteTableNames {
  std::string routes;      ///< the route status
  std::string forwarding;  ///< the forwarding status that has the routes' FECs
};

/// What happened while a reader waited.
enum class TableNews {
  None,      ///< nothing
  Changed,   ///< routes, FECs or the state of the tables changed
  Reopened,  ///< new tables were opened: earlier results are not valid any more
};

/// Reads the routes of one VRF and family that another process keeps in shared memory.
///
/// A route is returned with its own next hops. Because the ids of FECs are used again, a program
/// that reads a route and then its FEC from the tables may get the next hops of another route.
///
/// A process that restarts removes its tables and makes new ones. Open tables stay readable and do
/// not change any more; reopen() and wait() open the new ones. As long as there are none, the
/// reader shows the last contents of the old ones, and isCurrent() is false.
///
/// An object is used by one thread. Its process needs only the right to read.
///
/// \tparam S  the family's route status.  \tparam W  its forwarding status.
template <class S, class W>
class BasicRouteTableReader {
 public:
  using Route = typename S::Route;
  using Prefix = typename S::Prefix;
  using Fec = typename W::Fec;

  /// A route and its FEC, as they were at one moment. The FEC has no vias if the route has no FEC,
  /// or its FEC does not exist.
  struct Resolved {
    Route route;
    Fec fec;
  };
  /// Called with a message for each damage, which names the table and the place.
  using DamageReport = std::function<void(const std::string&)>;

  /// \throws OpenException when the tables are not there or cannot be read.
  explicit BasicRouteTableReader(RouteTableNames names);
  /// Reads the tables of a VRF that a daemon shares under `tables`, such as "leaf1".
  BasicRouteTableReader(std::string_view tables, std::string_view vrf)
      : BasicRouteTableReader(
            {.routes = sharedRouteStatusName(tables, vrf), .forwarding = std::string(tables)}) {}

  /// The route with exactly this prefix, or nothing.
  /// \throws CorruptionDetectedException; BusyException when the route keeps changing.
  std::optional<Resolved> find(const Prefix& prefix) const;
  /// The same, but damage is reported and not raised: a damaged route is not found, and a route
  /// with a damaged FEC has no vias. \throws BusyException.
  std::optional<Resolved> find(const Prefix& prefix, const DamageReport& damaged) const;

  /// Calls `visit` with the route of each prefix that contains `prefix`, the longest first, until
  /// it returns false. \throws BusyException.
  template <class Visit>
  void forEachAround(const Prefix& prefix, Visit visit, const DamageReport& damaged) const;
  /// The route that a packet to `addr` takes, or nothing.
  /// \throws CorruptionDetectedException, BusyException.
  std::optional<Resolved> match(const decltype(Prefix().addr())& addr) const;

  /// Calls `visit` with each route, in no particular order. A route is read when it is visited. A
  /// route that is there all the time is visited once. \throws BusyException.
  template <class Visit>
  void forEach(Visit visit, const DamageReport& damaged) const;
  /// The prefixes that have a route, in no particular order.
  std::vector<Prefix> prefixes(const DamageReport& damaged) const;
  /// How many routes there are.
  size_t size() const { return tables_.routes->routeCount(); }

  /// The progress of the owner, and whether routes may be missing.
  RouteTableState state() const { return tables_.routes->state(); }
  /// Whether there is a process that keeps the tables up to date.
  bool hasWriter() const { return tables_.routes->hasWriter(); }
  /// Whether the names lead to these tables.
  bool isCurrent() const { return tables_.areCurrent(); }

  /// Opens new tables if the owner made any since these were opened. Returns whether it did.
  bool reopen();
  /// Waits for a change since the last call returned, or since the tables were opened. Polls two
  /// counters, every 0.1 ms at first and every 10 ms while nothing happens, and every 100 ms
  /// whether the tables are current and have a writer.
  ///
  /// All VRFs share the FECs, so a change of another VRF may end the wait. A change between two
  /// calls is not lost. Several changes may be reported as one.
  TableNews wait(std::chrono::nanoseconds timeout);

 private:
  struct Tables {
    typename S::Ptr routes;
    typename W::Ptr forwarding;

    explicit Tables(const RouteTableNames& names)
        : routes(Kiv::make<S>(names.routes, Access::Read)),
          forwarding(Kiv::make<W>(names.forwarding, Access::Read)) {}
    bool areCurrent() const { return routes->isCurrent() && forwarding->isCurrent(); }
  };
  /// What wait() compares.
  struct Seen {
    uint64_t routeChanges = 0;
    uint64_t fecChanges = 0;
    RouteTableState state = {};
    bool isCurrent = false;
    bool hasWriter = false;

    friend bool operator==(const Seen&, const Seen&) = default;
  };

  static Tables open(const RouteTableNames& names);
  template <class OnFecDamage>
  std::optional<Resolved> read(const Prefix& prefix, OnFecDamage onFecDamage) const;
  void look(Seen& seen) const;
  void lookAround(Seen& seen) const;
  Seen lookAtAll() const;

  RouteTableNames names_;
  Tables tables_;
  Seen seen_;
};

template <class S, class W>
BasicRouteTableReader<S, W>::BasicRouteTableReader(RouteTableNames names)
    : names_(std::move(names)), tables_(open(names_)), seen_(lookAtAll()) {}

/// Opens tables of one owner. An owner removes all its tables before it makes the first one anew.
/// So tables that are all current after the last was opened were made by the same owner.
template <class S, class W>
auto BasicRouteTableReader<S, W>::open(const RouteTableNames& names) -> Tables {
  constexpr int kTries = 100;
  for (int tries = 0; tries < kTries; ++tries) {
    Tables opened(names);
    if (opened.areCurrent()) return opened;
  }
  throw OpenException(titleOf(names.routes) + " is made anew all the time");
}

template <class S, class W>
bool BasicRouteTableReader<S, W>::reopen() {
  if (isCurrent()) return false;
  try {
    tables_ = open(names_);
  } catch (const OpenException&) {
    return false;  // the owner may be making them just now
  }
  seen_ = lookAtAll();
  return true;
}

/// Reads the route, its FEC, and the version of the route before and after. As long as the version
/// is the same, the route uses its FEC, so that the owner cannot use the FEC's id for other next
/// hops.
template <class S, class W>
template <class OnFecDamage>
auto BasicRouteTableReader<S, W>::read(const Prefix& prefix, OnFecDamage onFecDamage) const
    -> std::optional<Resolved> {
  constexpr int kTries = 1000;  // each failed try means that the route has changed
  const auto& map = tables_.routes->map();
  for (int tries = 0; tries < kTries; ++tries) {
    const auto version = map.version(prefix);
    Resolved found{.route = tables_.routes->route(prefix), .fec = {}};
    if (found.route.key != prefix) return std::nullopt;
    try {
      found.fec = tables_.forwarding->fec(found.route.fecId);
    } catch (const CorruptionDetectedException& damage) {
      if (version && map.version(prefix) == version) {
        onFecDamage(damage);
        return found;
      }
      continue;
    }
    if (version && map.version(prefix) == version) return found;
  }
  throw BusyException(titleOf(names_.routes) + ": the route to " + toString(prefix) +
                      " changes too often to be read");
}

template <class S, class W>
auto BasicRouteTableReader<S, W>::find(const Prefix& prefix) const -> std::optional<Resolved> {
  return read(prefix, [](const CorruptionDetectedException&) { throw; });
}

template <class S, class W>
auto BasicRouteTableReader<S, W>::find(const Prefix& prefix, const DamageReport& damaged) const
    -> std::optional<Resolved> {
  try {
    return read(prefix, [&](const auto& damage) { damaged(damage.what()); });
  } catch (const CorruptionDetectedException& damage) {
    damaged(damage.what());
    return std::nullopt;
  }
}

template <class S, class W>
template <class Visit>
void BasicRouteTableReader<S, W>::forEachAround(const Prefix& prefix, Visit visit,
                                                const DamageReport& damaged) const {
  for (uint32_t lengths = prefix.len() + 1; lengths > 0; --lengths) {
    const auto found = find(Prefix::enclosing(prefix.addr(), lengths - 1), damaged);
    if (found && !visit(*found)) return;
  }
}

template <class S, class W>
auto BasicRouteTableReader<S, W>::match(const decltype(Prefix().addr())& addr) const
    -> std::optional<Resolved> {
  for (uint32_t lengths = Prefix::kMaxLen + 1; lengths > 0; --lengths) {
    if (auto found = find(Prefix::enclosing(addr, lengths - 1))) return found;
  }
  return std::nullopt;
}

template <class S, class W>
template <class Visit>
void BasicRouteTableReader<S, W>::forEach(Visit visit, const DamageReport& damaged) const {
  try {
    tables_.routes->map().forEachSound(
        [&](const auto& item) {
          if (const auto found = find(item.key, damaged)) visit(*found);
        },
        damaged);
  } catch (const CorruptionDetectedException& damage) {
    damaged(damage.what());
  }
}

template <class S, class W>
auto BasicRouteTableReader<S, W>::prefixes(const DamageReport& damaged) const
    -> std::vector<Prefix> {
  std::vector<Prefix> found;
  try {
    tables_.routes->map().forEachSound([&](const auto& item) { found.push_back(item.key); },
                                       damaged);
  } catch (const CorruptionDetectedException& damage) {
    damaged(damage.what());
  }
  return found;
}

// Waiting. The writer counts changes and wakes no reader: a system call would take longer than the
// change.

template <class S, class W>
void BasicRouteTableReader<S, W>::look(Seen& seen) const {
  seen.routeChanges = tables_.routes->changeCount();
  seen.fecChanges = tables_.forwarding->changeCount();
  seen.state = state();
}

template <class S, class W>
void BasicRouteTableReader<S, W>::lookAround(Seen& seen) const {
  seen.isCurrent = isCurrent();
  seen.hasWriter = hasWriter();
}

template <class S, class W>
auto BasicRouteTableReader<S, W>::lookAtAll() const -> Seen {
  Seen seen;
  lookAround(seen);
  look(seen);
  return seen;
}

template <class S, class W>
TableNews BasicRouteTableReader<S, W>::wait(std::chrono::nanoseconds timeout) {
  using Clock = std::chrono::steady_clock;
  using std::chrono::milliseconds;
  constexpr auto kBetweenLooksAround = milliseconds(100);
  constexpr std::chrono::nanoseconds kLongestPause = milliseconds(10);
  std::chrono::nanoseconds pause = std::chrono::microseconds(100);
  const auto start = Clock::now();
  auto lookedAround = start - kBetweenLooksAround;
  for (Seen seen = seen_;;) {
    const auto now = Clock::now();
    if (now - lookedAround >= kBetweenLooksAround) {
      lookedAround = now;
      if (reopen()) return TableNews::Reopened;
      lookAround(seen);
    }
    look(seen);
    if (seen != seen_) {
      seen_ = seen;
      return TableNews::Changed;
    }
    const auto left = timeout - (now - start);
    if (left <= left.zero()) return TableNews::None;
    std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(pause, left));
    pause = std::min(2 * pause, kLongestPause);
  }
}

namespace Fib {
using RouteTableReader = BasicRouteTableReader<RouteStatus, ForwardingStatus>;
}
namespace Fib6 {
using RouteTableReader = BasicRouteTableReader<RouteStatus, ForwardingStatus>;
}

}  // namespace Tovan
