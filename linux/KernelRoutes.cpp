#include "linux/KernelRoutes.h"

#include <cerrno>
#include <cmath>
#include <cstring>

namespace Linux {
namespace {

using Verb = RouteRequest::Verb;

/// How many routes are written together. Of many that change, each is absent from the kernel while
/// this many are deleted.
constexpr size_t kChunk = 512;
/// How many routes ahead memory is asked for.
constexpr size_t kAhead = 4;
/// Most attempts at one route in one flush.
constexpr int kRounds = 8;
constexpr double kLongestDelay = 60;
/// Moments to try again are multiples of this, so that many routes have one in common.
constexpr double kTick = 0.1;

/// The kernel has no memory or no room at the moment; what is in the tables is not concerned.
bool isShortage(int error) {
  return error == ENOBUFS || error == ENOMEM || error == ENOSPC || error == EAGAIN ||
         error == EBUSY;
}

/// The interface, or an address that it should have, is not as the route needs it.
bool dependsOnLink(int error) {
  return error == ENODEV || error == ENETDOWN || error == ENETUNREACH || error == EHOSTUNREACH ||
         error == EINVAL || error == EACCES || error == EADDRNOTAVAIL;
}

bool isAbsent(int error) {
  return error == ESRCH || error == ENOENT;
}

/// The seconds until the second attempt.
double firstDelay(int error) {
  if (isShortage(error) || error == EIO) return kTick;
  return dependsOnLink(error) ? 5 : 1;
}

}  // namespace

KernelRoutes::ValueId KernelRoutes::ValuePool::take(RouteValue value) {
  // That of the last route, as a rule.
  if (slots_[last_].users != 0 && slots_[last_].at->first == value) return share(last_);
  const auto [at, isNew] = index_.try_emplace(std::move(value), 0);
  if (isNew) {
    if (unused_.empty()) {
      at->second = static_cast<ValueId>(slots_.size());
      slots_.emplace_back();
    } else {
      at->second = unused_.back();
      unused_.pop_back();
    }
    slots_[at->second].at = at;
  }
  last_ = at->second;
  return share(last_);
}

void KernelRoutes::ValuePool::drop(ValueId id) {
  if (id == 0 || --slots_[id].users != 0) return;
  index_.erase(slots_[id].at);
  unused_.push_back(id);
}

std::vector<bool> KernelRoutes::ValuePool::through(
    const std::unordered_set<LinkIndex>& links) const {
  std::vector<bool> result(slots_.size());
  for (const auto& [value, id] : index_) {
    result[id] =
        std::ranges::any_of(value.vias, [&](const auto& via) { return links.contains(via.link); });
  }
  return result;
}

KernelRoutes::KernelRoutes(RouteWriter& writer, AdvertisedLog& log, std::function<double()> clock,
                           KernelRoutesOptions options, IsAnothers isAnothers)
    : writer_(writer),
      log_(log),
      clock_(std::move(clock)),
      options_(options),
      isAnothers_(std::move(isAnothers)) {}

void KernelRoutes::want(const RouteKey& key, std::optional<RouteValue> value) {
  Entry* const entry = value ? entries_.tryEmplace(key).first : entries_.find(key);
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
    // What the kernel said was about another value.
    const auto trouble = troubles_.find(key);
    if (!trouble->second.blocks) mend(key, *entry);
  }
  mark(key, *entry);
}

void KernelRoutes::adopt(const RouteKey& key, RouteValue value) {
  Entry& entry = *entries_.tryEmplace(key).first;
  const auto id = values_.take(normalized(key.prefix, std::move(value)));
  if (entry.is(kSeen)) {
    // One key has several routes: none of them is taken for the one that is wanted.
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
  // It differs from what we believed to be there: it was replaced while notifications were lost.
  if (entry.actual != 0 && entry.actual != id && !entry.is(kTold)) entry.set(kReplaced);
  entry.clear(kUnsure | kTold);
  setActual(entry, id);
  if (entry.wanted != id || entry.is(kReplaced)) mark(key, entry);
}

void KernelRoutes::adoptAdvertised(const RouteKey& key, uint32_t metric) {
  if (familyOf(key.prefix) == 6 && metric == 0) metric = kDefaultMetric6;
  Entry& entry = *entries_.tryEmplace(key).first;
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
    // It may be one that was there before the request under way.
    entry->set(kUnsure | kMeddled);
    if (!wasUnderWay) entry->set(kTold);
    mark(key, *entry);
    return;
  }
  Entry& entry = *entries_.tryEmplace(key).first;
  const auto id = values_.take(normalized(key.prefix, *value));
  if (entry.actual != 0 && values_[entry.actual].metric != values_[id].metric) {
    // It stands beside ours.
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
    // It may have been there before the request, which has replaced or deleted it since.
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
    // It has taken the place of ours, unless somebody put it beside it.
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

/// What the kernel tells of a route may be older or younger than a request under way: it is looked
/// at when the answer is known. \return whether there was one.
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
  for (auto it = entries_.iterator(); it; ++it) it.value().clear(kSeen);
}

void KernelRoutes::endDump() {
  for (auto it = entries_.iterator(); it; ++it) {
    Entry& entry = it.value();
    if (entry.actual == 0 || entry.is(kSeen)) continue;
    setActual(entry, 0);
    entry.clear(kUnsure | kTold);
  }
  scansAll_ = true;
}

void KernelRoutes::removeAll() {
  started_ = true;
  scansAll_ = true;
  for (auto it = entries_.iterator(); it; ++it) setWanted(it.value(), 0);
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
  // Before the start nothing is written, and then all entries are looked at.
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

/// Notes a route that was found, not written. When its key was advertised under another metric,
/// that route is gone without a word.
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

void KernelRoutes::setTrouble(const RouteKey& key, Entry& entry, int error, bool blocks) {
  ++counters_.refused;
  ++counters_.refusedBy[error];
  auto& trouble = troubles_[key];
  if (!entry.is(kTroubled)) trouble.since = now_;
  if (trouble.error != error) trouble.attempts = 0;
  entry.set(kTroubled);
  trouble.error = error;
  trouble.blocks = blocks;
  const double delay = std::ldexp(firstDelay(error), static_cast<int>(trouble.attempts));
  trouble.attempts = std::min(trouble.attempts + 1, 16U);
  trouble.retryAt = std::ceil((now_ + std::min(delay, kLongestDelay)) / kTick) * kTick;
  wakeAt(trouble.retryAt);
}

void KernelRoutes::mend(const RouteKey& key, Entry& entry) {
  if (!entry.is(kTroubled)) return;
  troubles_.erase(key);
  entry.clear(kTroubled);
}

void KernelRoutes::flush() {
  if (!started_) return;
  now_ = clock_();
  settleFinished();
  const bool looksAtMany = scansAll_ || !distrusted_.empty() || !changedLinks_.empty();
  if (looksAtMany || !strays_.empty() || !extras_.empty()) drain();
  if (scansAll_ || !distrusted_.empty()) scan();
  if (!changedLinks_.empty()) retryChangedLinks();
  if (now_ >= nextWake_) wakeDue();
  if (!strays_.empty()) announceStrays();
  if (!extras_.empty()) deleteExtras();
  dirty_.insert(dirty_.end(), leftForLater_.begin(), leftForLater_.end());
  leftForLater_ = {};
  while (writeNext(Extent::All)) settleFinished();
  log_.commit();
}

void KernelRoutes::flushAndWait() {
  if (!started_) return;
  do {
    flush();
    drain();
  } while (pendingCount() != 0);
  log_.commit();
}

void KernelRoutes::flushAdditions() {
  // A host that flaps is found by what differs at the end. Strays are announced before the log is
  // committed, by flush().
  if (!started_ || options_.dampingChanges != 0 || !strays_.empty()) return;
  now_ = clock_();
  settleFinished();
  while (writeNext(Extent::Additions)) settleFinished();
}

void KernelRoutes::drain() {
  if (underWay_.empty()) return;
  now_ = clock_();
  while (const RouteBatch* batch = writer_.await()) settleOldest(*batch);
  changes_ = false;
}

/// Marks what may differ, looking at all entries.
void KernelRoutes::scan() {
  const auto isDistrusted = values_.through(distrusted_);
  for (auto it = entries_.iterator(); it; ++it) {
    Entry& entry = it.value();
    if (entry.actual != 0 && isDistrusted[entry.actual]) entry.set(kUnsure);
    const bool isOver = entry.actual == 0 && entry.wanted == 0;
    const bool mayDiffer = entry.is(kUnsure) || entry.is(kReplaced);
    if (entry.wanted != entry.actual || mayDiffer || isOver) mark(it.key(), entry);
  }
  distrusted_.clear();
  scansAll_ = false;
}

void KernelRoutes::retryChangedLinks() {
  const auto hasChanged = values_.through(changedLinks_);
  for (auto& [key, trouble] : troubles_) {
    if (!dependsOnLink(trouble.error)) continue;
    Entry& entry = *entries_.find(key);
    // A preferred source is an address of any interface.
    if (entry.wanted == 0 ||
        (!hasChanged[entry.wanted] && !values_[entry.wanted].preferredSource)) {
      continue;
    }
    trouble.retryAt = now_;
    trouble.attempts = 0;
    mark(key, entry);
  }
  changedLinks_.clear();
}

/// Marks what was to be tried again at this time.
void KernelRoutes::wakeDue() {
  nextWake_ = std::numeric_limits<double>::infinity();
  const auto markEntry = [this](const RouteKey& key) {
    if (Entry* const entry = entries_.find(key)) mark(key, *entry);
  };
  for (const auto& [key, trouble] : troubles_) {
    if (trouble.retryAt > now_) {
      wakeAt(trouble.retryAt);
    } else {
      markEntry(key);
    }
  }
  std::erase_if(repairs_, [&](const auto& repair) {
    const double end = repair.second + options_.repairInterval;
    if (end > now_) {
      wakeAt(end);
      return false;
    }
    markEntry(repair.first);
    return true;
  });
  std::erase_if(flaps_, [&](const auto& item) {
    const auto& [key, flap] = item;
    const double end =
        flap.dampedUntil >= 0 ? flap.dampedUntil : flap.changes.back() + options_.dampingWindow;
    if (end > now_) {
      wakeAt(end);
      return false;
    }
    markEntry(key);
    return true;
  });
}

/// Announces as gone what was advertised under another metric than it was found with. The log is
/// not committed before: it still names that metric.
void KernelRoutes::announceStrays() {
  auto strays = std::exchange(strays_, {});
  if (!options_.announcesSilentLoss) return;
  for (const auto& [key, metric] : strays) {
    const int added = performAlone(Verb::AddBlackhole, key, metric);
    if (added == EEXIST) continue;  // so it is not gone
    const int deleted = added == 0 ? performAlone(Verb::DeleteBlackhole, key, metric) : 0;
    if (added == 0 && (deleted == 0 || isAbsent(deleted))) {
      ++counters_.silentLosses;
      continue;
    }
    strays_.emplace_back(key, metric);
    wakeAt(now_ + firstDelay(EIO));
  }
}

/// Deletes what stands beside the routes that were adopted.
void KernelRoutes::deleteExtras() {
  for (const auto& [key, metric] : std::exchange(extras_, {})) {
    if (performAlone(Verb::Delete, key, metric) == 0) ++counters_.deleted;
    // A deletion with metric 0 is of an IPv4 route with any metric.
    if (Entry* const entry = entries_.find(key); entry != nullptr && entry->actual != 0) {
      entry->set(kUnsure);
      mark(key, *entry);
    }
  }
}

/// Carries out one request now. Nothing else is under way.
int KernelRoutes::performAlone(Verb verb, const RouteKey& key, uint32_t metric) {
  RouteBatch& batch = *writer_.vacant();
  batch.clear();
  batch.add(verb, key, metric);
  writer_.submit();
  const int result = writer_.await()->results().front();
  writer_.release();
  return result;
}

/// How many routes wait to be compared with the kernel, or for its answer.
size_t KernelRoutes::pendingCount() const {
  size_t count = dirty_.size() - nextDirty_ + leftForLater_.size();
  for (const auto& work : underWay_) count += work.size();
  return count;
}

/// Submits the requests for some of the routes that may differ. \return false when there is none
/// any more, or no room for requests.
bool KernelRoutes::writeNext(Extent extent) {
  if (nextDirty_ == dirty_.size() || writer_.vacant() == nullptr) return false;
  std::vector<Work> work;
  if (!spareWork_.empty()) {
    work = std::move(spareWork_.back());
    spareWork_.pop_back();
  }
  for (; nextDirty_ < dirty_.size() && work.size() < kChunk; ++nextDirty_) {
    if (nextDirty_ + kAhead < dirty_.size()) entries_.prefetch(dirty_[nextDirty_ + kAhead]);
    const auto& key = dirty_[nextDirty_];
    Entry* const entry = entries_.find(key);
    if (entry == nullptr || !entry->is(kDirty)) continue;
    if (extent == Extent::Additions && !isPlainAddition(*entry)) {
      leftForLater_.push_back(key);
      continue;
    }
    entry->clear(kDirty);
    // It is looked at again when the answer has come.
    if (!entry->is(kUnderWay)) work.push_back({.key = key, .entry = entry});
  }
  if (nextDirty_ == dirty_.size()) {
    // A burst takes its memory with it.
    if (dirty_.capacity() > kChunk) dirty_ = {};
    dirty_.clear();
    nextDirty_ = 0;
  }
  decideAndSubmit(std::move(work));
  if (changes_) drain();
  return true;
}

/// Whether nothing of ours is or was in the place of a route that is wanted.
bool KernelRoutes::isPlainAddition(const Entry& entry) {
  constexpr uint32_t kOtherwise = kAdvertised | kClaimed | kTroubled | kUnderWay;
  return entry.wanted != 0 && entry.actual == 0 && (entry.flags & kOtherwise) == 0;
}

/// Submits the next step for each of these routes, in the vacant batch. Those for which nothing is
/// to be done leave.
void KernelRoutes::decideAndSubmit(std::vector<Work> work) {
  RouteBatch& batch = *writer_.vacant();
  batch.clear();
  std::erase_if(work, [&](Work& item) {
    Entry& entry = *item.entry;
    if (entry.is(kChanged)) item.round = 0;
    noteChange(item.key, entry);
    item.step = decide(item.key, entry);
    if (item.step != Step::None && item.round == kRounds) {
      // Somebody else undoes each step.
      setTrouble(item.key, entry, EBUSY, true);
      item.step = Step::None;
    }
    if (item.step == Step::None) {
      finish(item.key, entry);
      return true;
    }
    request(item, batch);
    return false;
  });
  if (work.empty()) {
    spareWork_.push_back(std::move(work));
    return;
  }
  log_.commit();
  underWay_.push_back(std::move(work));
  writer_.submit();
}

void KernelRoutes::settleFinished() {
  while (const RouteBatch* batch = writer_.finished()) {
    now_ = clock_();
    settleOldest(*batch);
  }
  // A route that is deleted to be added otherwise is not to be absent for long.
  if (changes_) drain();
}

/// Takes the results of the oldest batch, and submits what is to be done next for its routes.
void KernelRoutes::settleOldest(const RouteBatch& batch) {
  auto work = std::move(underWay_.front());
  underWay_.pop_front();
  auto results = batch.results();
  for (size_t i = 0; i < work.size(); ++i) {
    if (i + kAhead < work.size()) entries_.prefetch(work[i + kAhead].key);
    Work& item = work[i];
    item.entry = entries_.find(item.key);
    item.entry->clear(kUnderWay);
    settle(item, results);
    results = results.subspan(item.step == Step::Announce ? 2 : 1);
    values_.drop(std::exchange(item.added, 0));
    ++item.round;
  }
  writer_.release();
  decideAndSubmit(std::move(work));
}

/// Counts a change for damping.
void KernelRoutes::noteChange(const RouteKey& key, Entry& entry) {
  if (!entry.is(kChanged)) return;
  entry.clear(kChanged);
  if (options_.dampingChanges == 0) return;
  auto flap = flaps_.find(key);
  const bool isDamped = flap != flaps_.end() && flap->second.dampedUntil >= 0;
  if (entry.wanted == entry.actual && !isDamped) return;
  if (flap == flaps_.end()) {
    // A host that appears for the first time does not flap.
    if (entry.actual == 0) return;
    flap = flaps_.try_emplace(key).first;
  }
  auto& [changes, dampedSince, dampedUntil] = flap->second;
  std::erase_if(changes, [&](double time) { return time <= now_ - options_.dampingWindow; });
  if (changes.size() <= options_.dampingChanges) changes.push_back(now_);
  if (!isDamped && changes.size() > options_.dampingChanges) {
    ++counters_.damped;
    dampedSince = now_;
    dampedUntil = now_;
  }
  if (dampedUntil >= 0) dampedUntil = now_ + options_.dampingQuiet;
  wakeAt(dampedUntil >= 0 ? dampedUntil : now_ + options_.dampingWindow);
}

bool KernelRoutes::isDamped(const RouteKey& key) const {
  if (flaps_.empty()) return false;
  const auto flap = flaps_.find(key);
  return flap != flaps_.end() && flap->second.dampedUntil >= 0;
}

/// Whether what somebody else did to the route is to be endured for a while.
bool KernelRoutes::isHeld(const RouteKey& key, const Entry& entry) {
  if (!entry.is(kMeddled)) return false;
  const auto repair = repairs_.find(key);
  if (repair == repairs_.end() || repair->second + options_.repairInterval <= now_) return false;
  wakeAt(repair->second + options_.repairInterval);
  return true;
}

KernelRoutes::Step KernelRoutes::decide(const RouteKey& key, Entry& entry) {
  bool isRefused = false;
  if (entry.is(kTroubled)) {
    const auto& trouble = troubles_.find(key)->second;
    isRefused = trouble.retryAt > now_;
    if (isRefused && trouble.blocks) return Step::None;
  }
  const ValueId target = isRefused || isDamped(key) ? 0 : entry.wanted;
  if (entry.actual == 0) {
    const bool isStale = entry.is(kAdvertised) && options_.announcesSilentLoss;
    if (isStale || entry.is(kClaimed)) return Step::Announce;
    return target == 0 ? Step::None : Step::Add;
  }
  if (target == 0) return Step::Delete;
  const bool isReplaced = entry.is(kReplaced) && options_.announcesSilentLoss;
  if (target == entry.actual && !entry.is(kUnsure) && !isReplaced) return Step::None;
  if (isHeld(key, entry)) return Step::None;
  if (target != entry.actual || isReplaced) return Step::Delete;
  // To add it tells whether it is there, and mends it when that is no news to anybody.
  return entry.is(kTold) || !options_.announcesSilentLoss ? Step::Add : Step::Verify;
}

/// Writes down the requests of a step.
void KernelRoutes::request(Work& work, RouteBatch& batch) {
  const RouteKey& key = work.key;
  Entry& entry = *work.entry;
  entry.set(kUnderWay);
  switch (work.step) {
    case Step::None:
      return;
    case Step::Add: {
      work.added = values_.share(entry.wanted);
      const auto& value = values_[work.added];
      advertise(key, entry, value.metric);
      batch.add(Verb::Add, key, value.metric).value = value;
      return;
    }
    case Step::Delete:
      changes_ |= entry.wanted != 0;
      batch.add(Verb::Delete, key, values_[entry.actual].metric);
      return;
    case Step::Verify:
      advertise(key, entry, values_[entry.actual].metric);
      batch.add(Verb::AddBlackhole, key, entry.metric);
      return;
    case Step::Announce:
      advertise(key, entry, entry.metric);
      batch.add(Verb::AddBlackhole, key, entry.metric);
      batch.add(Verb::DeleteBlackhole, key, entry.metric);
      return;
  }
}

void KernelRoutes::settle(const Work& work, std::span<const int> results) {
  switch (work.step) {
    case Step::None:
      return;
    case Step::Add:
      return settleAdd(work.key, *work.entry, work.added, results[0]);
    case Step::Delete:
      return settleDelete(work.key, *work.entry, results[0]);
    case Step::Verify:
      return settleVerify(work.key, *work.entry, results[0]);
    case Step::Announce:
      return settleAnnounce(work.key, *work.entry, results[0], results[1]);
  }
}

void KernelRoutes::settleAdd(const RouteKey& key, Entry& entry, ValueId added, int result) {
  const bool verifies = entry.actual != 0;
  if (result == 0) {
    ++counters_.added;
    if (entry.is(kMeddled)) {
      ++counters_.repaired;
      repairs_[key] = now_;
      wakeAt(now_ + options_.repairInterval);
    } else if (verifies) {
      ++counters_.silentLosses;
    }
    if (!verifies) setActual(entry, values_.share(added));
    entry.clear(kUnsure | kTold | kMeddled | kReplaced);
    mend(key, entry);
  } else if (result == EEXIST) {
    if (verifies && isAnothers(key, values_[entry.actual].metric)) setActual(entry, 0);
    if (entry.actual == 0) entry.set(kClaimed);
    entry.clear(kUnsure | kTold | kMeddled);
  } else if (result == RouteChannel::kUnknown) {
    setTrouble(key, entry, EIO, true);
  } else {
    // A route that was sought in vain is deleted next, which tells whether it was there.
    setTrouble(key, entry, result, isShortage(result));
    if (!verifies) unadvertise(key, entry);
  }
}

void KernelRoutes::settleDelete(const RouteKey& key, Entry& entry, int result) {
  if (result != 0 && !isAbsent(result)) {
    setTrouble(key, entry, result == RouteChannel::kUnknown ? EIO : result, true);
    return;
  }
  if (result == 0) {
    ++counters_.deleted;
  } else if (!entry.is(kTold)) {
    ++counters_.silentLosses;
  }
  if (result == 0 || entry.is(kTold)) unadvertise(key, entry);
  setActual(entry, 0);
  entry.clear(kUnsure | kTold | kClaimed | kReplaced);
}

void KernelRoutes::settleVerify(const RouteKey& key, Entry& entry, int result) {
  if (result == EEXIST) {
    entry.clear(kUnsure);
    if (isAnothers(key, entry.metric)) {
      ++counters_.silentLosses;
      setActual(entry, 0);
      entry.set(kClaimed);
    }
  } else if (result == 0) {
    ++counters_.silentLosses;
    setActual(entry, blackhole(values_[entry.actual].metric));
    entry.clear(kUnsure);
  } else {
    setTrouble(key, entry, result == RouteChannel::kUnknown ? EIO : result, true);
  }
}

void KernelRoutes::settleAnnounce(const RouteKey& key, Entry& entry, int addition, int deletion) {
  if (addition == RouteChannel::kUnknown || deletion == RouteChannel::kUnknown) {
    setTrouble(key, entry, EIO, true);
    return;
  }
  if (addition != 0 && addition != EEXIST) {
    setTrouble(key, entry, addition, true);
    return;
  }
  if (deletion != 0 && !isAbsent(deletion)) {
    setActual(entry, blackhole(entry.metric));
    setTrouble(key, entry, deletion, true);
    return;
  }
  unadvertise(key, entry);
  entry.clear(kClaimed);
  // What is in the way and was not ours is another's.
  const bool isAnothers = addition == EEXIST && deletion != 0;
  if (isAnothers && entry.wanted != 0) setTrouble(key, entry, EEXIST, false);
}

/// Nothing more is to be done for the route at this time.
void KernelRoutes::finish(const RouteKey& key, Entry& entry) {
  const bool waits = entry.is(kTroubled) && troubles_.find(key)->second.retryAt > now_;
  if (entry.wanted == entry.actual && !entry.is(kUnsure) && !waits) mend(key, entry);
  if (entry.wanted != 0 || entry.actual != 0 || (waits && entry.is(kAdvertised))) return;
  mend(key, entry);
  unadvertise(key, entry);
  entries_.erase(key);
}

}  // namespace Linux
