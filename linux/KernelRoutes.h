// Keeps host routes in kernel tables as they should be.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <span>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "linux/Numbers.h"
#include "linux/RouteRequest.h"
#include "linux/RouteWriter.h"
#include "platform/kiv/containers/HashMap.h"

namespace Linux {

/// Where the prefixes are kept that other routers may have been told of, over the life of this
/// process. Every key is noted before its route is written.
class AdvertisedLog {
 public:
  virtual ~AdvertisedLog() = default;
  /// Notes a key, or another metric for one that was noted.
  virtual void add(const RouteKey& key, uint32_t metric) = 0;
  virtual void remove(const RouteKey& key) = 0;
  /// All that was noted is to outlive this process from here on.
  virtual void commit() {}
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
/// some routing daemons drop a replaced route, and one that is added twice without a deletion in
/// between. So a route that the kernel dropped without a word is announced as gone before it comes
/// back. Does no I/O but through its writer and its log.
///
/// While requests are under way, what is wanted may change; what is to be done next for a route is
/// decided when the answer has come.
class KernelRoutes {
 public:
  /// A route that is not as it should be, and why.
  struct Problem {
    RouteKey key;
    int error = 0;       ///< the kernel's errno, or 0 when the route is damped
    double since = 0;    ///< seconds, of the clock
    double retryAt = 0;  ///< or earlier, when its interface changes
  };
  struct Counters {
    uint64_t added = 0, deleted = 0, refused = 0, repaired = 0, adopted = 0, damped = 0,
             silentLosses = 0;
    std::map<int, uint64_t> refusedBy;  ///< by the kernel's errno
  };

  /// Whether a route of another protocol is known to stand where ours with this metric would.
  using IsAnothers = std::function<bool(const RouteKey& key, uint32_t metric)>;

  /// \param clock  seconds from any moment on; never goes back.
  KernelRoutes(RouteWriter& writer, AdvertisedLog& log, std::function<double()> clock,
               KernelRoutesOptions options, IsAnothers isAnothers = {});

  /// The route that should be there, or none. Takes effect at the next flush().
  void want(const RouteKey& key, std::optional<RouteValue> value);
  /// A route with our protocol number that was found in a dump: at the start, or between
  /// beginDump() and endDump().
  void adopt(const RouteKey& key, RouteValue value);
  /// A key that a former process's log names, and the metric that it had.
  void adoptAdvertised(const RouteKey& key, uint32_t metric = 0);
  /// From here on the tables are written: the first flush() removes what is not wanted.
  void start();

  /// The kernel told of a route with our protocol number that we did not write or delete ourselves.
  /// \param replaces  it stands in the place of another (NLM_F_REPLACE).
  void observe(const RouteKey& key, const std::optional<RouteValue>& value, bool replaces = false);
  /// Whether something is known of this route: it is wanted, there, or was advertised.
  bool knows(const RouteKey& key) const { return entries_.find(key) != nullptr; }
  /// The kernel told that another protocol's route came or went where one of ours may be.
  void observeAnother(const RouteKey& key, uint32_t metric, bool present);
  /// The kernel may have dropped the routes through an interface without a word: it went down, lost
  /// its last IPv4 address, or was deleted.
  void distrust(LinkIndex link);
  /// An interface came up, got an address or became another: what the kernel refused because of it
  /// is tried again.
  void linkChanged(LinkIndex link);
  /// A new dump of our routes begins and ends: what was not adopted in between is not there.
  void beginDump();
  void endDump();

  /// Has written what differs, as far as the writer takes it: the rest follows when flush() is
  /// called again after a batch was carried out. The time it takes goes with the number of routes
  /// that may differ, but for the first flush() after start(), endDump() or distrust(), which looks
  /// at all.
  void flush();
  /// The same, and waits until nothing is left that can be written now.
  void flushAndWait();
  /// Has written, of what was wanted since, the routes that nobody was told of yet: more changes
  /// are still to be wanted before flush().
  void flushAdditions();
  /// Waits until the requests that are under way, and what follows from them, have been carried
  /// out.
  void drain();
  /// Removes all our routes, and wants none from here on. They are gone afterwards.
  void removeAll();
  void setOptions(KernelRoutesOptions options);

  /// When flush() should be called though nothing changed: the clock's time, or none.
  std::optional<double> nextDeadline() const;
  const Counters& counters() const { return counters_; }
  /// The counters, and how many routes there are now in each state.
  void addTo(Numbers& numbers) const;
  /// What is known of one route.
  struct State {
    bool isWanted = false;
    bool isInstalled = false;
    std::optional<Problem> problem;
  };
  State state(const RouteKey& key) const;
  /// At most `most` of the routes that are not as they should be, in no order.
  std::vector<Problem> problems(size_t most) const;
  size_t problemCount() const;
  /// How many of our routes are in the kernel.
  size_t installedCount() const { return installedCount_; }

 private:
  /// The number of a value in the pool; 0 is no value.
  using ValueId = uint32_t;

  /// Values that many routes have in common, each kept once.
  class ValuePool {
   public:
    /// The number of a value, which has one more user now.
    ValueId take(RouteValue value);
    /// The same for a value that has users.
    ValueId share(ValueId id) {
      ++slots_[id].users;
      return id;
    }
    void drop(ValueId id);
    const RouteValue& operator[](ValueId id) const { return slots_[id].at->first; }
    /// Whether each value, by number, has a via through one of the links.
    std::vector<bool> through(const std::unordered_set<LinkIndex>& links) const;

   private:
    using Index = std::map<RouteValue, ValueId>;
    struct Slot {
      Index::iterator at;
      uint32_t users = 0;
    };

    Index index_;
    std::vector<Slot> slots_{1};
    std::vector<ValueId> unused_;
    ValueId last_ = 0;  // that was taken
  };

  enum Flag : uint32_t {
    kDirty = 1,        // is in dirty_
    kChanged = 2,      // is wanted otherwise than at the last flush
    kAdvertised = 4,   // is in the log
    kUnsure = 8,       // may have gone from the kernel
    kTold = 16,        // the kernel told that it went
    kMeddled = 32,     // somebody else changed it
    kClaimed = 64,     // something is in its place, perhaps a route of ours
    kSeen = 128,       // was named by the dump
    kTroubled = 256,   // is in troubles_
    kReplaced = 512,   // who imports the table may have dropped it for having been replaced
    kUnderWay = 1024,  // a request for it is
  };
  struct Entry {
    ValueId wanted = 0;
    ValueId actual = 0;   // what we believe to be in the kernel
    uint32_t metric = 0;  // that under which it is advertised
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
    bool blocks = false;  // nothing can be done until then, not even a deletion
  };
  struct Flap {
    std::vector<double> changes;  // their times
    double dampedSince = 0;
    double dampedUntil = -1;  // damped when not negative
  };
  /// What is done next for a route. A change is a Delete and, when that is known to have happened,
  /// an Add. Each step leaves the tables and the log so that a new process can go on from there.
  enum class Step : uint8_t {
    None,
    Add,
    Delete,
    Verify,    // adds a blackhole, which fails when the route is there, whatever its links do
    Announce,  // adds and deletes a blackhole; clears the place of what is ours, too
  };
  struct Work {
    RouteKey key;
    Entry* entry = nullptr;  // while it is decided and settled
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
  Kiv::HashMap<RouteKey, Entry> entries_;
  ValuePool values_;
  std::vector<RouteKey> dirty_;
  size_t nextDirty_ = 0;                // of dirty_, the first that was not looked at
  std::vector<RouteKey> leftForLater_;  // dirty ones that flushAdditions() passed over
  std::unordered_set<LinkIndex> distrusted_, changedLinks_;
  std::vector<std::pair<RouteKey, uint32_t>> extras_;  // further routes of a key, by metric
  // Metrics under which keys were advertised before they were found with others.
  std::vector<std::pair<RouteKey, uint32_t>> strays_;
  // Of the few keys that have them.
  std::unordered_map<RouteKey, Trouble, KeyHash> troubles_;
  std::unordered_map<RouteKey, double, KeyHash> repairs_;  // when each was repaired last
  std::unordered_map<RouteKey, Flap, KeyHash> flaps_;
  double nextWake_ = std::numeric_limits<double>::infinity();
  // Of each batch under way, the oldest first; and their memory.
  std::deque<std::vector<Work>> underWay_;
  std::vector<std::vector<Work>> spareWork_;
  bool changes_ = false;  // a route is deleted to be added otherwise
  Counters counters_;
  size_t installedCount_ = 0;
};

}  // namespace Linux
