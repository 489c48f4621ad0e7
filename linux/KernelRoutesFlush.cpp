// Which host routes to look at, and their requests in batches.
#include <cmath>

#include "linux/KernelRoutes.h"
#include "linux/RouteErrors.h"

namespace Linux {
namespace {

using Verb = RouteRequest::Verb;

/// The routes of a batch. Of many routes that change, up to this many are absent from the kernel at
/// once.
constexpr size_t kChunk = 512;
/// Entries are prefetched this many routes ahead.
constexpr size_t kAhead = 4;
/// The most attempts at one route in one flush.
constexpr int kRounds = 8;

}  // namespace

void KernelRoutes::flush() {
  if (!started_) return;
  now_ = clock_();
  settleFinished();
  const bool looksAtMany = mustScan() || !changedLinks_.empty();
  if (looksAtMany || !strays_.empty() || !extras_.empty()) drain();
  if (mustScan()) scan();
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
  // Damping compares the states at the ends of turns. flush() has to announce strays before the log
  // is committed.
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

/// Compares all entries and marks those that may differ.
void KernelRoutes::scan() {
  const auto isDistrusted = values_.select([this](const RouteValue& value) {
    return value.isThrough(distrusted_) ||
           (value.preferredSource && distrustedSources_.contains(*value.preferredSource));
  });
  entries_.forEach([&](const RouteKey& key, Entry& entry) {
    if (entry.actual != 0 && isDistrusted[entry.actual]) entry.set(kUnsure);
    const bool isOver = entry.actual == 0 && entry.wanted == 0;
    const bool mayDiffer = entry.is(kUnsure) || entry.is(kReplaced);
    if (entry.wanted != entry.actual || mayDiffer || isOver) mark(key, entry);
  });
  distrusted_.clear();
  distrustedSources_.clear();
  scansAll_ = false;
}

void KernelRoutes::retryChangedLinks() {
  const auto hasChanged =
      values_.select([this](const RouteValue& value) { return value.isThrough(changedLinks_); });
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

/// Marks the routes whose time of a retry has come.
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

/// Announces the loss of routes that were advertised with another metric than the one found. The
/// log names the former metric until this is done: it is not committed before.
void KernelRoutes::announceStrays() {
  auto strays = std::exchange(strays_, {});
  if (!options_.announcesSilentLoss) return;
  for (const auto& [key, metric] : strays) {
    const int added = performAlone(Verb::AddBlackhole, key, metric);
    if (added == EEXIST) continue;  // it exists
    const int deleted = added == 0 ? performAlone(Verb::DeleteBlackhole, key, metric) : 0;
    if (added == 0 && (deleted == 0 || isAbsent(deleted))) {
      ++counters_.silentLosses;
      continue;
    }
    strays_.emplace_back(key, metric);
    wakeAt(now_ + firstRetryDelay(EIO));
  }
}

/// Deletes the further routes of keys that have several.
void KernelRoutes::deleteExtras() {
  for (const auto& [key, metric] : std::exchange(extras_, {})) {
    if (performAlone(Verb::Delete, key, metric) == 0) ++counters_.deleted;
    // A deletion with metric 0 removes an IPv4 route of any metric.
    if (Entry* const entry = entries_.find(key); entry != nullptr && entry->actual != 0) {
      entry->set(kUnsure);
      mark(key, *entry);
    }
  }
}

/// Carries out one request and waits for it. \pre no request is under way.
int KernelRoutes::performAlone(Verb verb, const RouteKey& key, uint32_t metric) {
  RouteBatch& batch = *writer_.vacant();
  batch.clear();
  batch.add(verb, key, metric);
  writer_.submit();
  const int result = writer_.await()->results().front();
  writer_.release();
  return result;
}

/// Submits requests for the next routes that may differ. \return false when there is no such route
/// or no room for requests.
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
    // Otherwise settleOldest() looks at it.
    if (!entry->is(kUnderWay)) work.push_back({.key = key, .entry = entry});
  }
  if (nextDirty_ == dirty_.size()) {
    // The memory of a burst is released.
    if (dirty_.capacity() > kChunk) dirty_ = {};
    dirty_.clear();
    nextDirty_ = 0;
  }
  decideAndSubmit(std::move(work));
  if (changes_) drain();
  return true;
}

/// Whether the route is wanted, and no route of ours is or was in its place.
bool KernelRoutes::isPlainAddition(const Entry& entry) {
  constexpr uint32_t kOtherwise = kAdvertised | kClaimed | kTroubled | kUnderWay;
  return entry.wanted != 0 && entry.actual == 0 && (entry.flags & kOtherwise) == 0;
}

/// Submits the next step of each of these routes in the vacant batch. A route without a next step
/// is finished.
void KernelRoutes::decideAndSubmit(std::vector<Work> work) {
  RouteBatch& batch = *writer_.vacant();
  batch.clear();
  std::erase_if(work, [&](Work& item) {
    Entry& entry = *item.entry;
    if (entry.is(kChanged)) item.round = 0;
    noteChange(item.key, entry);
    item.step = decide(item.key, entry);
    if (item.step != Step::None && item.round == kRounds) {
      // Another program undoes each step.
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
  // A changed route is deleted and then added. It should not be absent for long.
  if (changes_) drain();
}

/// Takes the results of the oldest batch and submits the next steps of its routes.
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

}  // namespace Linux
