// What is wanted and known of the host routes. Comparing and writing: KernelRoutesFlush.cpp.
#include "linux/KernelRoutes.h"

#include <cmath>
#include <cstring>

#include "linux/RouteErrors.h"

namespace Linux {
namespace {

constexpr double kLongestRetryDelay = 60;

}  // namespace

KernelRoutes::KernelRoutes(RouteWriter& writer, AdvertisedLog& log, std::function<double()> clock,
                           KernelRoutesOptions options, IsAnothers isAnothers)
    : writer_(writer),
      log_(log),
      clock_(std::move(clock)),
      options_(options),
      isAnothers_(std::move(isAnothers)) {}

void KernelRoutes::want(const RouteKey& key, std::optional<RouteValue> value) {
  Entry* const entry = value ? &entries_.get(key) : entries_.find(key);
  if (entry == nullptr) return;
  const auto id = value ? values_.take(normalized(key.prefix, std::move(*value))) : 0;
  if (id == entry->wanted) {
    values_.drop(id);
    return;
  }
  setWanted(*entry, id);
  entry->set(kChanged);
  entry->clear(kMeddled);
  if (entry->is(kTroubled)) {
    // The kernel refused the former value.
    const auto trouble = troubles_.find(key);
    if (!trouble->second.blocks) mend(key, *entry);
  }
  mark(key, *entry);
}

void KernelRoutes::adopt(const RouteKey& key, RouteValue value) {
  Entry& entry = entries_.get(key);
  const auto id = values_.take(normalized(key.prefix, std::move(value)));
  if (entry.is(kSeen)) {
    // The key has several routes. None of them counts as the wanted one.
    if (id != entry.actual) {
      extras_.emplace_back(key, values_[id].metric);
      if (values_[id].metric == values_[entry.actual].metric) {
        setActual(entry, blackhole(values_[id].metric));
      }
      mark(key, entry);
    }
    values_.drop(id);
    return;
  }
  entry.set(kSeen);
  if (!started_) ++counters_.adopted;
  advertiseFound(key, entry, values_[id].metric);
  // It was replaced while notifications were lost, as it differs from our last state.
  if (entry.actual != 0 && entry.actual != id && !entry.is(kTold)) entry.set(kReplaced);
  entry.clear(kUnsure | kTold);
  setActual(entry, id);
  if (entry.wanted != id || entry.is(kReplaced)) mark(key, entry);
}

void KernelRoutes::adoptAdvertised(const RouteKey& key, uint32_t metric) {
  if (familyOf(key.prefix) == 6 && metric == 0) metric = kDefaultMetric6;
  Entry& entry = entries_.get(key);
  if (entry.is(kAdvertised)) {
    if (entry.metric != metric) strays_.emplace_back(key, metric);
    return;
  }
  // It is in the log already.
  entry.set(kAdvertised);
  entry.metric = metric;
  mark(key, entry);
}

void KernelRoutes::start() {
  started_ = true;
  scansAll_ = true;
}

void KernelRoutes::observe(const RouteKey& key, const std::optional<RouteValue>& value,
                           bool replaces) {
  const bool wasUnderWay = settleBefore(key);
  if (!value) {
    Entry* const entry = entries_.find(key);
    if (entry == nullptr || entry->actual == 0) return;
    // The message may be about the route before our request.
    entry->set(kUnsure | kMeddled);
    if (!wasUnderWay) entry->set(kTold);
    mark(key, *entry);
    return;
  }
  Entry& entry = entries_.get(key);
  const auto id = values_.take(normalized(key.prefix, *value));
  if (entry.actual != 0 && values_[entry.actual].metric != values_[id].metric) {
    // A second route beside ours.
    extras_.emplace_back(key, values_[id].metric);
    values_.drop(id);
    return;
  }
  const bool isFresh = !entry.is(kAdvertised) || entry.is(kTold);
  if (!isFresh && (replaces || entry.actual != id)) entry.set(kReplaced);
  advertiseFound(key, entry, values_[id].metric);
  entry.clear(kUnsure | kTold | kClaimed);
  setActual(entry, id);
  if (wasUnderWay) {
    // Our request may have replaced or deleted this route already.
    entry.set(kUnsure);
    mark(key, entry);
  }
  if (entry.wanted == id && !entry.is(kReplaced)) return;
  entry.set(kMeddled);
  mark(key, entry);
}

void KernelRoutes::observeAnother(const RouteKey& key, uint32_t metric, bool present) {
  settleBefore(key);
  Entry* const entry = entries_.find(key);
  if (entry == nullptr) return;
  if (present) {
    if (entry->actual == 0 || values_[entry->actual].metric != metric) return;
    // It replaced ours, unless it was added beside it.
    entry->set(kUnsure | kMeddled);
    mark(key, *entry);
  } else if (entry->is(kTroubled)) {
    auto& trouble = troubles_.find(key)->second;
    if (trouble.error != EEXIST) return;
    trouble.retryAt = 0;
    trouble.attempts = 0;
    mark(key, *entry);
  }
}

/// Waits for the answer if a request for the route is under way: a message of the kernel may be
/// older or younger than that request. \return whether there was a request.
bool KernelRoutes::settleBefore(const RouteKey& key) {
  const Entry* const entry = entries_.find(key);
  if (entry == nullptr || !entry->is(kUnderWay)) return false;
  drain();
  return true;
}

void KernelRoutes::distrust(LinkIndex link) {
  distrusted_.insert(link);
}

void KernelRoutes::linkChanged(LinkIndex link) {
  if (!troubles_.empty() || !underWay_.empty()) changedLinks_.insert(link);
}

void KernelRoutes::beginDump() {
  drain();
  extras_.clear();
  entries_.forEach([](const RouteKey&, Entry& entry) { entry.clear(kSeen); });
}

void KernelRoutes::endDump() {
  entries_.forEach([this](const RouteKey&, Entry& entry) {
    if (entry.actual == 0 || entry.is(kSeen)) return;
    setActual(entry, 0);
    entry.clear(kUnsure | kTold);
  });
  scansAll_ = true;
}

void KernelRoutes::removeAll() {
  started_ = true;
  scansAll_ = true;
  entries_.forEach([this](const RouteKey&, Entry& entry) { setWanted(entry, 0); });
  for (auto& [key, trouble] : troubles_) trouble.retryAt = 0;
  nextWake_ = 0;
  flushAndWait();
}

void KernelRoutes::setOptions(KernelRoutesOptions options) {
  if (options.dampingChanges == 0) {
    for (const auto& [key, flap] : flaps_) {
      if (Entry* const entry = entries_.find(key)) mark(key, *entry);
    }
    flaps_.clear();
  }
  options_ = options;
}

std::optional<double> KernelRoutes::nextDeadline() const {
  if (!started_ || std::isinf(nextWake_)) return std::nullopt;
  return nextWake_;
}

const RouteValue& KernelRoutes::wanted(const RouteKey& key) const {
  static const RouteValue kNone;
  const Entry* const entry = entries_.find(key);
  return entry == nullptr || entry->wanted == 0 ? kNone : values_[entry->wanted];
}

std::vector<KernelRoutes::Problem> KernelRoutes::problems(size_t most) const {
  std::vector<Problem> problems;
  for (const auto& [key, trouble] : troubles_) {
    if (problems.size() == most) return problems;
    problems.push_back({key, trouble.error, trouble.since, trouble.retryAt});
  }
  for (const auto& [key, flap] : flaps_) {
    if (problems.size() == most) return problems;
    const Entry* const entry = entries_.find(key);
    if (flap.dampedUntil < 0 || entry == nullptr || entry->wanted == 0) continue;
    problems.push_back({key, 0, flap.dampedSince, flap.dampedUntil});
  }
  return problems;
}

KernelRoutes::State KernelRoutes::state(const RouteKey& key) const {
  State state;
  const Entry* const entry = entries_.find(key);
  if (entry == nullptr) return state;
  state.isWanted = entry->wanted != 0;
  state.isInstalled = entry->actual != 0;
  if (const auto trouble = troubles_.find(key); trouble != troubles_.end()) {
    const auto& [since, retryAt, error, attempts, blocks] = trouble->second;
    state.problem = Problem{key, error, since, retryAt};
  } else if (state.isWanted && isDamped(key)) {
    const auto& flap = flaps_.find(key)->second;
    state.problem = Problem{key, 0, flap.dampedSince, flap.dampedUntil};
  }
  return state;
}

void KernelRoutes::addTo(Numbers& numbers) const {
  using Kind = Daemon::CounterInfo::Kind;
  static constexpr CountedMember<Counters> kCounted[] = {
      {{"kernel_routes_added", "", Kind::Counter, "Host routes written to the kernel."},
       &Counters::added},
      {{"kernel_routes_deleted", "", Kind::Counter, "Host routes deleted from the kernel."},
       &Counters::deleted},
      {{"kernel_routes_repaired", "", Kind::Counter,
        "Host routes written again because somebody else had deleted or changed them."},
       &Counters::repaired},
      {{"kernel_routes_adopted", "", Kind::Counter,
        "Host routes of a former process that were found at the start."},
       &Counters::adopted},
      {{"kernel_silent_losses", "", Kind::Counter,
        "Host routes that the kernel had dropped without a word and that were announced as gone."},
       &Counters::silentLosses},
      {{"hosts_damped", "", Kind::Counter, "How often a host was withdrawn because it flapped."},
       &Counters::damped},
  };
  static constexpr Daemon::CounterInfo kRefused{
      "kernel_refusals", "errno", Kind::Counter,
      "Requests for host routes that the kernel refused, by its error."};
  static constexpr Daemon::CounterInfo kInstalled{"kernel_routes", "", Kind::Gauge,
                                                  "Host routes of ours in the kernel now."};
  static constexpr Daemon::CounterInfo kRefusedNow{
      "kernel_routes_refused", "", Kind::Gauge,
      "Host routes that the kernel does not take now; they are tried again."};
  static constexpr Daemon::CounterInfo kDampedNow{
      "hosts_damped_now", "", Kind::Gauge, "Hosts that are withdrawn now because they flap."};
  static constexpr Daemon::CounterInfo kPending{
      "kernel_queue", "", Kind::Gauge, "Host routes that wait to be compared with the kernel."};
  for (const auto& counted : kCounted) counted.addTo(numbers, counters_);
  for (const auto& [error, count] : counters_.refusedBy) {
    const char* name = ::strerrorname_np(error);
    numbers.push_back({&kRefused, name != nullptr ? name : std::to_string(error), count});
  }
  const auto damped =
      std::ranges::count_if(flaps_, [](const auto& flap) { return flap.second.dampedUntil >= 0; });
  numbers.push_back({&kInstalled, {}, installedCount_});
  numbers.push_back({&kRefusedNow, {}, troubles_.size()});
  numbers.push_back({&kDampedNow, {}, static_cast<uint64_t>(damped)});
  numbers.push_back({&kPending, {}, pendingCount()});
}

size_t KernelRoutes::problemCount() const {
  return problems(std::numeric_limits<size_t>::max()).size();
}

void KernelRoutes::mark(const RouteKey& key, Entry& entry) {
  // start() marks all entries.
  if (!started_ || entry.is(kDirty)) return;
  entry.set(kDirty);
  dirty_.push_back(key);
}

void KernelRoutes::setWanted(Entry& entry, ValueId id) {
  values_.drop(entry.wanted);
  entry.wanted = id;
}

void KernelRoutes::setActual(Entry& entry, ValueId id) {
  installedCount_ += (id != 0 ? 1U : 0U);
  installedCount_ -= (entry.actual != 0 ? 1U : 0U);
  values_.drop(entry.actual);
  entry.actual = id;
}

KernelRoutes::ValueId KernelRoutes::blackhole(uint32_t metric) {
  return values_.take({.vias = {}, .metric = metric, .preferredSource = {}});
}

void KernelRoutes::advertise(const RouteKey& key, Entry& entry, uint32_t metric) {
  if (entry.is(kAdvertised) && entry.metric == metric) return;
  log_.add(key, metric);
  entry.set(kAdvertised);
  entry.metric = metric;
}

/// Notes a route that was found and not written by this process. If its key was advertised with
/// another metric, the route with that metric is gone and nobody was notified.
void KernelRoutes::advertiseFound(const RouteKey& key, Entry& entry, uint32_t metric) {
  if (entry.is(kAdvertised) && entry.metric != metric) strays_.emplace_back(key, entry.metric);
  advertise(key, entry, metric);
}

bool KernelRoutes::isAnothers(const RouteKey& key, uint32_t metric) const {
  return isAnothers_ && isAnothers_(key, metric);
}

void KernelRoutes::unadvertise(const RouteKey& key, Entry& entry) {
  if (!entry.is(kAdvertised)) return;
  log_.remove(key);
  entry.clear(kAdvertised);
}

/// The routes that wait for a comparison with the kernel or for its answer.
size_t KernelRoutes::pendingCount() const {
  size_t count = dirty_.size() - nextDirty_ + leftForLater_.size();
  for (const auto& work : underWay_) count += work.size();
  return count;
}

void KernelRoutes::setTrouble(const RouteKey& key, Entry& entry, int error, bool blocks) {
  ++counters_.refused;
  ++counters_.refusedBy[error];
  auto& trouble = troubles_[key];
  if (!entry.is(kTroubled)) trouble.since = now_;
  if (trouble.error != error) trouble.attempts = 0;
  entry.set(kTroubled);
  trouble.error = error;
  trouble.blocks = blocks;
  const double delay = std::ldexp(firstRetryDelay(error), static_cast<int>(trouble.attempts));
  trouble.attempts = std::min(trouble.attempts + 1, 16U);
  trouble.retryAt =
      std::ceil((now_ + std::min(delay, kLongestRetryDelay)) / kRetryTick) * kRetryTick;
  wakeAt(trouble.retryAt);
}

void KernelRoutes::mend(const RouteKey& key, Entry& entry) {
  if (!entry.is(kTroubled)) return;
  troubles_.erase(key);
  entry.clear(kTroubled);
}

}  // namespace Linux
