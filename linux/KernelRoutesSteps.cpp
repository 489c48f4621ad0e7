// The next step for a host route, and the effect of the kernel's answer.
#include "linux/KernelRoutes.h"
#include "linux/RouteErrors.h"

namespace Linux {
namespace {

using Verb = RouteRequest::Verb;

}  // namespace

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

/// Whether another program changed the route and the repair has to wait.
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
  // An addition fails if the route exists. If it does not, the addition repairs a loss that
  // everybody was notified of.
  return entry.is(kTold) || !options_.announcesSilentLoss ? Step::Add : Step::Verify;
}

/// Adds the requests of a step to the batch.
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
    // If this was a check of a route, a deletion follows and shows whether the route existed.
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
  // The route in the way is not ours.
  const bool isAnothers = addition == EEXIST && deletion != 0;
  if (isAnothers && entry.wanted != 0) setTrouble(key, entry, EEXIST, false);
}

/// The route has no next step now.
void KernelRoutes::finish(const RouteKey& key, Entry& entry) {
  const bool waits = entry.is(kTroubled) && troubles_.find(key)->second.retryAt > now_;
  if (entry.wanted == entry.actual && !entry.is(kUnsure) && !waits) mend(key, entry);
  if (entry.wanted != 0 || entry.actual != 0 || (waits && entry.is(kAdvertised))) return;
  mend(key, entry);
  unadvertise(key, entry);
  entries_.erase(key);
}

}  // namespace Linux
