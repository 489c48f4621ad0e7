// The daemon without its event loop: from what the kernel tells to what the kernel is told.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "daemon/Switch.h"
#include "hostrouted/Config.h"
#include "hostrouted/Exports.h"
#include "linux/BackgroundWriter.h"
#include "linux/Feed.h"
#include "linux/KernelRoutes.h"
#include "linux/Mirror.h"
#include "linux/Probing.h"

namespace Hostrouted {

/// How far the daemon is in bringing its view of the kernel up to date.
enum class Phase : uint8_t {
  Starting,         ///< the first dump is not through: nothing is written yet
  Ready,            ///< follows the kernel's notifications
  Resynchronising,  ///< notifications were lost; routes stay until a new dump is through
};

/// "starting", "ready" or "resynchronising".
const char* phaseName(Phase phase);

/// Mirror, feed, switch and kernel routes in a row. Does no I/O but through what it is lent.
///
/// The kernel's words come in by apply(), in turns: endTurn() brings everything behind it up to
/// date, and writes the difference.
class Router {
 public:
  /// What the router uses of the world. All outlive it.
  struct Services {
    Linux::RouteChannel& channel;  ///< used by another thread, too, when writesApart
    Linux::AdvertisedLog& log;
    std::function<double()> clock;  ///< seconds, never going back
    std::function<void(std::span<const Linux::Probe>)> probe;
    std::function<void(int level, const std::string& message)> report;  ///< syslog(3) levels
    /// Whether the kernel drops neighbours of a family for lack of use: Linux::collectsNeighbors().
    std::function<bool(int family)> collects = {};
    /// Told of each operation that the switch is given; empty when nobody records.
    Linux::Feed::Output record = {};
    /// Whether many routes are written by a thread of their own.
    bool writesApart = false;
  };
  struct Counters {
    uint64_t changes = 0;     ///< messages of the kernel
    uint64_t operations = 0;  ///< given to the switch
    uint64_t failures = 0;    ///< operations that the switch did not finish
    uint64_t resynchronisations = 0;
    uint64_t probes = 0;
    uint64_t turns = 0;
  };
  /// How long something took, with the meaning for people.
  struct Times {
    const char* name;
    const char* help;
    const Daemon::LatencyHistogram& histogram;
  };

  /// \throws Kiv::RangeException, Tovan::OpenException when the shared tables cannot be made.
  Router(const Config& config, const Services& services);
  Router(const Router&) = delete;
  Router& operator=(const Router&) = delete;
  ~Router();

  /// Takes the kernel's word on one object.
  void apply(const Linux::Change& change);
  /// Handles all that was taken since the last turn: feeds the switch, settles, and writes what
  /// differs to the kernel. Before the first complete dump nothing is written.
  void endTurn();

  /// A dump of everything begins: the first, or one after notifications were lost.
  void beginDump();
  /// The dump is through, with all that was notified meanwhile. The kernel's tables are right
  /// afterwards, but for what the kernel refuses.
  void endDump();

  /// Takes another configuration; the next endTurn() does exactly what differs. What concerns the
  /// process itself (directories, shared tables, protocol number) stays as it was.
  void reload(const Config& config);
  /// Removes our routes from the kernel.
  void flushRoutes();

  /// Readable when routes were written by the other thread: onWritten() is to be called.
  int writtenFd() const { return writer_.fd(); }
  void onWritten();
  /// Waits until all that was handed to the other thread is written.
  void finishWriting() { routes_.drain(); }

  /// When endTurn() should be called though nothing came: the clock's time, or none.
  std::optional<double> nextDeadline() const;

  /// Whether host routes may be missing because a shared table could not grow, or lost entries. It
  /// is tried every few seconds to make that good.
  bool isIncomplete() const { return isIncomplete_; }
  Phase phase() const { return phase_; }
  const Counters& counters() const { return counters_; }
  /// A former process may have told others of this route. Before the first dump.
  void adoptAdvertised(const Linux::RouteKey& key, uint32_t metric) {
    routes_.adoptAdvertised(key, metric);
  }

  /// All that is counted beside the switch, with the number of neighbour entries by what becomes
  /// of them: these are looked at one by one.
  Linux::Numbers numbers() const;
  std::vector<Times> times() const;

  const Linux::KernelRoutes& kernelRoutes() const { return routes_; }
  const Linux::Mirror& mirror() const { return mirror_; }
  const Linux::Feed& feed() const { return feed_; }
  const Daemon::Switch& sw() const { return switch_; }
  /// For those who watch it: nothing may be done to its tables.
  Daemon::Switch& watchedSwitch() { return switch_; }
  const Config& config() const { return config_; }

 private:
  bool takeOwnRoute(const Linux::Change& change);
  bool isAnothers(const Linux::RouteKey& key, uint32_t metric) const;
  void noteDepartures(const Linux::Change& change);
  void operate(const Daemon::Operation& operation);
  void writeAhead(const Daemon::Operation& operation);
  void warnOfAnEmptySelection();
  void tellOfRefusals();
  void tendTables();
  void noteTables();

  Config config_;
  const Services services_;
  Phase phase_ = Phase::Starting;
  bool dumps_ = false;
  size_t toldNeighbors_ = 0;  // since routes were written
  Counters counters_;
  uint64_t seenRefusals_ = 0;
  bool hasRefusals_ = false;
  std::vector<std::string> warnedPatterns_;  // they selected no interface
  Daemon::LatencyHistogram turnTimes_;
  Daemon::LatencyHistogram operationTimes_;
  double nextTending_ = 0;
  bool isIncomplete_ = false;
  bool checksAllTables_ = false;      // at the next tending
  std::set<std::string> fullTables_;  // which has been reported
  // As of when they were noted last.
  uint64_t corruptions_ = 0;
  uint64_t refusals_ = 0;
  Linux::Mirror mirror_;
  Linux::Feed feed_;
  Daemon::Switch switch_;
  Linux::BackgroundWriter writer_;
  Linux::KernelRoutes routes_;
  Exports exports_;
  Linux::Probing probing_;
};

}  // namespace Hostrouted
