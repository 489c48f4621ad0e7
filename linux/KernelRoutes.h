// Keeps host routes in kernel tables as they should be.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "linux/Values.h"

namespace Linux {

/// Where a host route is in the kernel.
struct RouteKey {
  TableId table = 0;
  Prefix prefix;

  friend auto operator<=>(const RouteKey&, const RouteKey&) = default;
};

/// One next hop of a host route: an interface, and a gateway unless the host itself is there.
struct RouteVia {
  LinkIndex link = 0;
  std::optional<Address> gateway;

  friend auto operator<=>(const RouteVia&, const RouteVia&) = default;
};

/// What a host route says, beside its key.
struct RouteValue {
  std::vector<RouteVia> vias;  ///< sorted; not empty
  uint32_t metric = 0;
  std::optional<Address> preferredSource;

  friend bool operator==(const RouteValue&, const RouteValue&) = default;
};

/// A change to the kernel's tables. Blackhole is a route of the same key that drops what it
/// matches.
struct RouteRequest {
  enum class Verb : uint8_t { Add, Delete, AddBlackhole, DeleteBlackhole };
  Verb verb = Verb::Add;
  RouteKey key;
  RouteValue value;  ///< of Add; of Delete the metric only

  friend bool operator==(const RouteRequest&, const RouteRequest&) = default;
};

/// Carries requests out, in order.
class RouteChannel {
 public:
  virtual ~RouteChannel() = default;
  /// \param results  one for each request: 0, or the kernel's errno.
  virtual void perform(std::span<const RouteRequest> requests, std::span<int> results) = 0;
};

/// Where the prefixes are kept that other routers may have been told of, over the life of this
/// process. Every key is noted before its route is written.
class AdvertisedLog {
 public:
  virtual ~AdvertisedLog() = default;
  virtual void add(const RouteKey& key) = 0;
  virtual void remove(const RouteKey& key) = 0;
};

struct KernelRoutesOptions {
  /// A route that somebody else deleted is written again at most once in this time, in seconds.
  double repairInterval = 1.0;
  /// Damping: more changes than this within the window, in seconds, and a host is not advertised
  /// until it has been quiet for `dampingQuiet` seconds. 0 changes: no damping.
  uint32_t dampingChanges = 0;
  double dampingWindow = 10;
  double dampingQuiet = 30;
  /// Whether a route that the kernel dropped without a word is announced as gone, by adding and
  /// deleting a blackhole in its place.
  bool announcesSilentLoss = true;

  friend bool operator==(const KernelRoutesOptions&, const KernelRoutesOptions&) = default;
};

/// Brings kernel tables from what they hold to what they should hold, by the smallest difference.
///
/// Nothing is written before start(): until then want() and adopt() gather what should be and what
/// a former process left. A change of a route is a deletion and an addition, never a replacement:
/// some routing daemons drop a replaced route. Does no I/O but through its channel.
class KernelRoutes {
 public:
  /// A route that is not as it should be, and why.
  struct Problem {
    RouteKey key;
    int error = 0;     ///< the kernel's errno, or 0 when the route is damped
    double since = 0;  ///< seconds, of the clock
    double retryAt = 0;
  };
  struct Counters {
    uint64_t added = 0, deleted = 0, refused = 0, repaired = 0, adopted = 0, damped = 0,
             silentLosses = 0;
  };

  KernelRoutes(RouteChannel& channel, AdvertisedLog& log, std::function<double()> clock,
               KernelRoutesOptions options);

  /// The route that should be there, or none. Takes effect at the next flush().
  void want(const RouteKey& key, std::optional<RouteValue> value);
  /// A route with our protocol number that was found in a dump at the start.
  void adopt(const RouteKey& key, RouteValue value);
  /// A key that a former process's log names.
  void adoptAdvertised(const RouteKey& key);
  /// From here on the tables are written: the first flush() removes what is not wanted.
  void start();

  /// The kernel told of a route with our protocol number that we did not write or delete ourselves.
  void observe(const RouteKey& key, const std::optional<RouteValue>& value);
  /// The kernel may have dropped the routes through an interface without a word.
  void distrust(LinkIndex link);
  /// A new dump of our routes begins and ends: what was not adopted in between is not there.
  void beginDump();
  void endDump();

  /// Writes what differs.
  void flush();
  /// Removes all our routes.
  void removeAll();
  void setOptions(KernelRoutesOptions options);

  /// When flush() should be called though nothing changed: the clock's time, or none.
  std::optional<double> nextDeadline() const;
  const Counters& counters() const;
  std::vector<Problem> problems(size_t most) const;
  size_t installedCount() const;
};

}  // namespace Linux
