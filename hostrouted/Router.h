// The daemon without its event loop: the kernel's changes in, host routes out.
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
#include "hostrouted/Log.h"
#include "linux/BackgroundWriter.h"
#include "linux/Feed.h"
#include "linux/KernelRoutes.h"
#include "linux/Mirror.h"
#include "linux/Probing.h"

namespace Hostrouted {

/// How current the daemon's view of the kernel is.
enum class Phase : uint8_t {
  Starting,         ///< the first dump is not complete: nothing is written yet
  Ready,            ///< follows the kernel's notifications
  Resynchronising,  ///< notifications were lost; the routes stay until a new dump is complete
};

/// "starting", "ready" or "resynchronising".
const char* phaseName(Phase phase);

/// Connects mirror, feed, switch and kernel routes. All its I/O is done by the services that it is
/// given.
///
/// apply() takes the kernel's messages one by one. endTurn() then updates the feed, the switch and
/// the wanted routes, and writes the difference to the kernel.
class Router {
 public:
  /// What the router uses. Everything that is referred to outlives the router.
  struct Services {
    Linux::RouteChannel& channel;  ///< used by another thread, too, when writesApart
    Linux::AdvertisedLog& log;
    std::function<double()> clock;  ///< seconds; never goes back
    std::function<void(std::span<const Linux::Probe>)> probe;
    /// Writes a log line. \param level  as in syslog(3). \param kind  see Log::write().
    std::function<void(int level, std::string_view kind, const std::string& message,
                       const std::vector<LogField>& fields)>
        report;
    /// Whether the kernel may soon drop unused neighbours of a family:
    /// Linux::mayCollectNeighbors().
    std::function<bool(int family)> collects = {};
    /// Receives each operation before the switch does; empty without a recording.
    Linux::Feed::Output record = {};
    /// Whether another thread writes large batches of routes.
    bool writesApart = false;
  };
  struct Counters {
    uint64_t changes = 0;     ///< messages of the kernel
    uint64_t operations = 0;  ///< of the switch
    uint64_t failures = 0;    ///< operations that the switch did not finish
    uint64_t resynchronisations = 0;
    uint64_t probes = 0;
    uint64_t turns = 0;
  };
  /// A histogram of durations, with its name and its description.
  struct Times {
    const char* name;
    const char* help;
    const Daemon::LatencyHistogram& histogram;
  };

  /// \throws Kiv::RangeException, Tovan::OpenException when the shared tables cannot be created.
  Router(const Config& config, const Services& services);
  Router(const Router&) = delete;
  Router& operator=(const Router&) = delete;
  ~Router();

  /// Takes a message of the kernel about one object.
  void apply(const Linux::Change& change);
  /// Ends a turn: feeds the switch with all changes since the last turn, lets it settle, and writes
  /// the difference to the kernel. Writes nothing before the first complete dump.
  void endTurn();

  /// A dump of all of the kernel's state begins: the first one, or one after a loss of
  /// notifications.
  void beginDump();
  /// The dump and all notifications since its beginning were applied. When this returns, the
  /// kernel's tables hold the wanted routes, except those that the kernel refuses.
  void endDump();

  /// Takes another configuration. The next endTurn() writes only the differences. Settings of the
  /// process (directories, shared tables, protocol number, history) keep their former values.
  void reload(const Config& config);
  /// Removes our routes from the kernel.
  void flushRoutes();
  /// Checks the next part of the shared tables for damage and repairs it. To be called now and then
  /// while nothing changes; turns do the same.
  void tend();
  /// Whether tend() has something to check.
  bool hasSharedTables() const { return !config_.sharedName.empty(); }

  /// Readable after the other thread has written routes; onWritten() is due then.
  int writtenFd() const { return writer_.fd(); }
  void onWritten();
  /// Waits until the other thread has written all routes that it was given.
  void finishWriting() { routes_.drain(); }

  /// The time at which endTurn() is due without any change, by the clock of the services; none when
  /// there is nothing to do.
  std::optional<double> nextDeadline() const;

  /// Whether host routes may be missing because a shared table could not grow or lost entries. The
  /// router tries to complete them every few seconds.
  bool isIncomplete() const { return isIncomplete_; }
  Phase phase() const { return phase_; }
  const Counters& counters() const { return counters_; }
  /// A former process may have advertised this route. To be called before the first dump.
  void adoptAdvertised(const Linux::RouteKey& key, uint32_t metric) {
    routes_.adoptAdvertised(key, metric);
  }

  /// All counters outside the switch, and the number of neighbour entries by verdict. Takes a time
  /// that grows with the number of neighbours.
  Linux::Numbers numbers() const;
  std::vector<Times> times() const;

  const Linux::KernelRoutes& kernelRoutes() const { return routes_; }
  const Linux::Mirror& mirror() const { return mirror_; }
  const Linux::Feed& feed() const { return feed_; }
  const Daemon::Switch& sw() const { return switch_; }
  /// For observers, which must not change its tables.
  Daemon::Switch& watchedSwitch() { return switch_; }
  const Config& config() const { return config_; }

 private:
  bool takeOwnRoute(const Linux::Change& change);
  bool isAnothers(const Linux::RouteKey& key, uint32_t metric) const;
  void noteDepartures(const Linux::Change& change);
  void operate(const Daemon::Operation& operation);
  void report(int level, std::string_view kind, const std::string& message,
              const std::vector<LogField>& fields = {});
  void reportFailure(const Daemon::Operation& operation, const std::string& why);
  void writeAhead(const Daemon::Operation& next);
  void warnOfAnEmptySelection();
  void reportRefusals();
  void tendTables();
  void trimHeap();
  void completeTables();
  void noteTables();

  Config config_;
  const Services services_;
  Phase phase_ = Phase::Starting;
  bool dumps_ = false;
  size_t newNeighbors_ = 0;  // fed since routes were written
  Linux::Address lastNeighbor_;
  Counters counters_;
  uint64_t seenRefusals_ = 0;
  bool hasRefusals_ = false;
  std::vector<std::string> warnedPatterns_;  // which selected no interface
  Daemon::LatencyHistogram turnTimes_;
  Daemon::LatencyHistogram operationTimes_;
  double nextTending_ = 0;
  size_t mostRoutes_ = 0;  // since the heap was trimmed
  bool isIncomplete_ = false;
  bool checksAllTables_ = false;      // at the next check
  std::set<std::string> fullTables_;  // which were reported
  // The counts of which the reports were written.
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
