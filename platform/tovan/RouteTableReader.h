// Reads another process's routes with their next hops, and keeps up with that process.
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

/// What the tables are called that routes are read from, as given to their owner's objects.
struct RouteTableNames {
  std::string routes;      ///< of the route status
  std::string forwarding;  ///< of the forwarding status that has the routes' FECs
};

/// What has happened while a reader waited.
enum class TableNews {
  None,      ///< nothing
  Changed,   ///< routes or FECs changed, or what is known of the tables as a whole
  Reopened,  ///< the tables were made anew, and are read from now on: forget what was read before
};

/// Reads the routes of one VRF and family that another process keeps in shared memory.
///
/// A route is given together with the next hops that it had: the ids of FECs are used again, and
/// who reads a route and then its FEC may get the next hops of another route.
///
/// A process that starts again removes its tables and makes new ones. Those that are open stay
/// readable, and never change again; reopen() and wait() go over to the new ones. While there are
/// none, the reader shows what was last in the old ones, and isCurrent() is false.
///
/// An object is used by one thread. It writes nothing, and its process needs no right to.
///
/// \tparam S  the family's route status.  \tparam W  its forwarding status.
template <class S, class W>
class BasicRouteTableReader {
 public:
  using Route = typename S::Route;
  using Prefix = typename S::Prefix;
  using Fec = typename W::Fec;

  /// A route and its FEC, as they stood together at one moment. The FEC has no vias when the route
  /// has none, or when there is no such FEC.
  struct Resolved {
    Route route;
    Fec fec;
  };
  /// Told of each damage, with the table and the place.
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
  /// The same where damage is reported: a route that is damaged is not found, one whose FEC is
  /// damaged has no vias. \throws BusyException.
  std::optional<Resolved> find(const Prefix& prefix, const DamageReport& damaged) const;

  /// Calls `visit` with the route of each prefix that contains `prefix`, the longest first, until
  /// it returns false. \throws BusyException.
  template <class Visit>
  void forEachAround(const Prefix& prefix, Visit visit, const DamageReport& damaged) const;
  /// The route that a packet to `addr` takes, or nothing.
  /// \throws CorruptionDetectedException, BusyException.
  std::optional<Resolved> match(const decltype(Prefix().addr())& addr) const;

  /// Calls `visit` with each route, in no order. Routes that are there all the while are visited
  /// once; each is as it was when its turn came. \throws BusyException.
  template <class Visit>
  void forEach(Visit visit, const DamageReport& damaged) const;
  /// The prefixes that have a route, in no order.
  std::vector<Prefix> prefixes(const DamageReport& damaged) const;
  /// How many routes there are.
  size_t size() const { return tables_.routes->routeCount(); }

  /// How far the owner of the tables is with them.
  RouteTableState state() const { return tables_.routes->state(); }
  /// Whether there is a process that keeps the tables up to date.
  bool hasWriter() const { return tables_.routes->hasWriter(); }
  /// Whether the tables are those that their names lead to.
  bool isCurrent() const { return tables_.areCurrent(); }

  /// Goes over to tables that were made in place of those that are read. Returns whether there were
  /// any.
  bool reopen();
  /// Waits for something to have changed since the last call returned, or since the tables were
  /// opened. Looks at two counters, ten thousand times a second at first and a hundred times when
  /// nothing happens; ten times a second whether the tables are current and have a writer.
  ///
  /// FECs are shared by all VRFs, so another VRF's change may end the wait. A change that nobody
  /// waited for is not lost, several may be told of as one.
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

/// Tables of one owner: those that are current when the last has been opened were all there at that
/// moment, and an owner removes all before it makes the first anew.
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
    return false;  // they may be in the making
  }
  seen_ = lookAtAll();
  return true;
}

/// Reads the route, its FEC, and the route's version once more: while the version stays, the route
/// holds its FEC, whose id can so not be given to other next hops.
template <class S, class W>
template <class OnFecDamage>
auto BasicRouteTableReader<S, W>::read(const Prefix& prefix, OnFecDamage onFecDamage) const
    -> std::optional<Resolved> {
  constexpr int kTries = 1000;  // each but the last means that the route has changed
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

// Waiting. The writer counts changes and wakes nobody: a system call for each change would be what
// it does longest.

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
