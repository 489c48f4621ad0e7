// Keeps host routes in kernel tables as they should be.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "linux/Numbers.h"
#include "linux/RouteMap.h"
#include "linux/RouteRequest.h"
#include "linux/RouteValuePool.h"
#include "linux/RouteWriter.h"

namespace Linux {

/// The routes that other routers may have learned, stored so that a later process finds them. A
/// route is noted before it is written to the kernel.
class AdvertisedLog {
 public:
  virtual ~AdvertisedLog() = default;
  /// Notes a route, or another metric of a noted one.
  virtual void add(const RouteKey& key, uint32_t metric) = 0;
  virtual void remove(const RouteKey& key) = 0;
  /// Stores all notes so that they outlive the process.
  virtual void commit() {}
};

struct KernelRoutesOptions {
  /// A route that another program deleted is written again at most once in this many seconds.
  double repairInterval = 1.0;
  /// Damping: a host with more than `dampingChanges` changes in `dampingWindow` seconds is not
  /// advertised until it has been quiet for `dampingQuiet` seconds. 0 changes: no damping.
  uint32_t dampingChanges = 0;
  double dampingWindow = 10;
  double dampingQuiet = 30;
  /// Whether the loss of a route that the kernel dropped without a notification is announced, by
  /// adding and deleting a blackhole in its place.
  bool announcesSilentLoss = true;

  friend bool operator==(const KernelRoutesOptions&, const KernelRoutesOptions&) = default;
};

/// Writes the differences between the wanted routes and the kernel's tables.
///
/// Nothing is written before start(): until then want() collects the wanted routes, and adopt()
/// those that a former process left. A route is changed by a deletion and an addition, never by a
/// replacement, because some routing daemons drop a replaced route. They also drop a route that is
/// added twice without a deletion in between. So the loss of a route that the kernel dropped
/// without a notification is announced before the route is added again. All I/O is done by the
/// writer and the log.
///
/// The wanted routes may change while requests are under way. The next step of a route is decided
/// when the kernel's answer to the former step is known.
class KernelRoutes {
 public:
  /// A route that is not as it should be, and why.
  struct Problem {
    RouteKey key;
    int error = 0;       ///< the kernel's errno, or 0 when the route is damped
    double since = 0;    ///< seconds, of the clock
    double retryAt = 0;  ///< a change of its interface causes an earlier attempt
  };
  struct Counters {
    uint64_t added = 0, deleted = 0, refused = 0, repaired = 0, adopted = 0, damped = 0,
             silentLosses = 0;
    std::map<int, uint64_t> refusedBy;  ///< by the kernel's errno
  };

  /// Whether a route of another protocol is known to be in the place of ours with this metric.
  using IsAnothers = std::function<bool(const RouteKey& key, uint32_t metric)>;

  /// \param clock  seconds since any moment; never goes back.
  KernelRoutes(RouteWriter& writer, AdvertisedLog& log, std::function<double()> clock,
               KernelRoutesOptions options, IsAnothers isAnothers = {});

  /// Sets the wanted route, or none. The next flush() writes it.
  void want(const RouteKey& key, std::optional<RouteValue> value);
  /// Takes a route with our protocol number from a dump: before start(), or between beginDump() and
  /// endDump().
  void adopt(const RouteKey& key, RouteValue value);
  /// Takes a route from the log of a former process, with its metric there.
  void adoptAdvertised(const RouteKey& key, uint32_t metric = 0);
  /// Permits writing. The first flush() removes all routes that are not wanted.
  void start();

  /// Takes a notification about a route with our protocol number. Our own requests cause none.
  /// \param replaces  the route replaced another one (NLM_F_REPLACE).
  void observe(const RouteKey& key, const std::optional<RouteValue>& value, bool replaces = false);
  /// Whether the route is wanted, in the kernel or advertised.
  bool knows(const RouteKey& key) const { return entries_.find(key) != nullptr; }
  /// Takes a notification about another protocol's route with a key of ours.
  void observeAnother(const RouteKey& key, uint32_t metric, bool present);
  /// An interface went down, lost its last IPv4 address or was deleted: the kernel may have dropped
  /// its routes without a notification.
  void distrust(LinkIndex link);
  /// An IPv4 address was deleted: the kernel may have dropped the routes with this preferred source
  /// without a notification, as kernels before 6.6 do.
  void distrustSource(const Address& source) { distrustedSources_.insert(source); }
  /// An interface came up or got an address: requests that the kernel refused because of it are
  /// retried.
  void linkChanged(LinkIndex link);
  /// A dump of our routes begins and ends. A route that was not adopted in between does not exist.
  void beginDump();
  void endDump();

  /// Submits requests for the differences while the writer takes them. To be called again after the
  /// writer finished a batch. Takes a time that grows with the number of changes; the first flush()
  /// after start(), endDump() or distrust() looks at all routes.
  void flush();
  /// As flush(), and waits until nothing is left that can be written now.
  void flushAndWait();
  /// Submits the additions of wanted routes that were never advertised, and no other changes. To be
  /// called for routes whose wanted value will not change before the next flush().
  void flushAdditions();
  /// Waits until all requests under way and the steps that follow from them were carried out.
  void drain();
  /// Removes all our routes from the kernel and from the wanted ones. Waits until they are gone.
  void removeAll();
  void setOptions(KernelRoutesOptions options);

  /// The clock's time at which flush() is due without a change, or none.
  std::optional<double> nextDeadline() const;
  const Counters& counters() const { return counters_; }
  /// Adds the counters and the numbers of routes in each state.
  void addTo(Numbers& numbers) const;
  /// The state of one route.
  struct State {
    bool isWanted = false;
    bool isInstalled = false;
    std::optional<Problem> problem;
  };
  State state(const RouteKey& key) const;
  /// The wanted value of a route; a value without vias when it is not wanted.
  const RouteValue& wanted(const RouteKey& key) const;
  /// At most `most` routes that are not in their wanted state, in no order.
  std::vector<Problem> problems(size_t most) const;
  size_t problemCount() const;
  /// The number of our routes in the kernel.
  size_t installedCount() const { return installedCount_; }

 private:
  using ValueId = RouteValuePool::Id;

  enum Flag : uint32_t {
    kDirty = 1,        // is in dirty_
    kChanged = 2,      // its wanted value changed since the last flush
    kAdvertised = 4,   // is in the log
    kUnsure = 8,       // the kernel may have dropped it
    kTold = 16,        // the kernel announced its removal
    kMeddled = 32,     // another program changed it
    kClaimed = 64,     // a route is in its place, perhaps one of ours
    kSeen = 128,       // was in the dump
    kTroubled = 256,   // is in troubles_
    kReplaced = 512,   // was replaced, so a routing daemon may have dropped it
    kUnderWay = 1024,  // the answer to its request is not known yet
  };
  struct Entry {
    ValueId wanted = 0;
    ValueId actual = 0;   // in the kernel, as far as we know
    uint32_t metric = 0;  // with which it is advertised
    uint32_t flags = 0;

    bool is(Flag flag) const { return (flags & flag) != 0; }
    void set(uint32_t mask) { flags |= mask; }
    void clear(uint32_t mask) { flags &= ~mask; }
  };
  struct Trouble {
    double since = 0;
    double retryAt = 0;
    int error = 0;
    uint32_t attempts = 0;
    bool blocks = false;  // not even a deletion is possible before retryAt
  };
  struct Flap {
    std::vector<double> changes;  // their times
    double dampedSince = 0;
    double dampedUntil = -1;  // damped when not negative
  };
  /// The next step for a route. A change is a Delete and, after its success, an Add. After each
  /// step a new process can continue with the tables and the log as they are.
  enum class Step : uint8_t {
    None,
    Add,
    Delete,
    Verify,    // adds a blackhole; fails if the route exists, in each state of its links
    Announce,  // adds and deletes a blackhole; also deletes a route of ours in the place
  };
  struct Work {
    RouteKey key;
    Entry* entry = nullptr;  // valid while its step is decided or settled
    Step step = Step::None;
    ValueId added = 0;  // the value of Add
    int round = 0;      // steps so far
  };
  struct KeyHash {
    size_t operator()(const RouteKey& key) const { return key.hash(); }
  };

  void mark(const RouteKey& key, Entry& entry);
  void setWanted(Entry& entry, ValueId id);
  void setActual(Entry& entry, ValueId id);
  ValueId blackhole(uint32_t metric);
  void advertise(const RouteKey& key, Entry& entry, uint32_t metric);
  void advertiseFound(const RouteKey& key, Entry& entry, uint32_t metric);
  bool isAnothers(const RouteKey& key, uint32_t metric) const;
  void unadvertise(const RouteKey& key, Entry& entry);
  void wakeAt(double time) { nextWake_ = std::min(nextWake_, time); }
  void setTrouble(const RouteKey& key, Entry& entry, int error, bool blocks);
  void mend(const RouteKey& key, Entry& entry);

  bool settleBefore(const RouteKey& key);
  bool mustScan() const { return scansAll_ || !distrusted_.empty() || !distrustedSources_.empty(); }
  void scan();
  void retryChangedLinks();
  void wakeDue();
  void announceStrays();
  void deleteExtras();
  enum class Extent : uint8_t { All, Additions };
  bool writeNext(Extent extent);
  static bool isPlainAddition(const Entry& entry);
  void decideAndSubmit(std::vector<Work> work);
  void settleFinished();
  void settleOldest(const RouteBatch& batch);
  int performAlone(RouteRequest::Verb verb, const RouteKey& key, uint32_t metric);
  size_t pendingCount() const;
  void noteChange(const RouteKey& key, Entry& entry);
  bool isDamped(const RouteKey& key) const;
  bool isHeld(const RouteKey& key, const Entry& entry);
  Step decide(const RouteKey& key, Entry& entry);
  void request(Work& work, RouteBatch& batch);
  void settle(const Work& work, std::span<const int> results);
  void settleAdd(const RouteKey& key, Entry& entry, ValueId added, int result);
  void settleDelete(const RouteKey& key, Entry& entry, int result);
  void settleVerify(const RouteKey& key, Entry& entry, int result);
  void settleAnnounce(const RouteKey& key, Entry& entry, int addition, int deletion);
  void finish(const RouteKey& key, Entry& entry);

  RouteWriter& writer_;
  AdvertisedLog& log_;
  std::function<double()> clock_;
  KernelRoutesOptions options_;
  IsAnothers isAnothers_;
  bool started_ = false;
  bool scansAll_ = false;
  double now_ = 0;  // when the flush began
  RouteMap<Entry> entries_;
  RouteValuePool values_;
  std::vector<RouteKey> dirty_;
  size_t nextDirty_ = 0;                // the first of dirty_ that is still to be handled
  std::vector<RouteKey> leftForLater_;  // dirty ones that flushAdditions() skipped
  std::unordered_set<LinkIndex> distrusted_, changedLinks_;
  std::set<Address> distrustedSources_;
  std::vector<std::pair<RouteKey, uint32_t>> extras_;  // further routes of a key, by metric
  // Former metrics of advertised keys that were found with other metrics.
  std::vector<std::pair<RouteKey, uint32_t>> strays_;
  // Only few keys are in these.
  std::unordered_map<RouteKey, Trouble, KeyHash> troubles_;
  std::unordered_map<RouteKey, double, KeyHash> repairs_;  // when each was repaired last
  std::unordered_map<RouteKey, Flap, KeyHash> flaps_;
  double nextWake_ = std::numeric_limits<double>::infinity();
  // The routes of each batch under way, the oldest first; and spare memory for them.
  std::deque<std::vector<Work>> underWay_;
  std::vector<std::vector<Work>> spareWork_;
  bool changes_ = false;  // a request under way deletes a route that is added again
  Counters counters_;
  size_t installedCount_ = 0;
};

}  // namespace Linux
