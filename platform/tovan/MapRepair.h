// The part of TovanMap that checks and repairs: the takeover by a new writer, the checks of tables
// that do not change, and the repair of damage.
#pragma once

#include "platform/tovan/TovanMap.h"

namespace Tovan {

template <class Key, class Value>
TovanMap<Key, Value>::TovanMap(const TableConfig& config)
    : Table(config, kShape), seed_(header().identity.seed) {
  if (isReadOnly()) return;
  // The count continues, so that readers that wait for a change notice the changes of this writer.
  // It is never 0, because missed_ begins with 0.
  changes_ = (header().changes.load(std::memory_order_relaxed) & ~uint64_t{0} >> 1) + 1;
  try {
    repair();
  } catch (...) {
    if (isNew()) memory().remove();
    throw;
  }
  dropped_.reset();  // nobody has read those entries from this object
}

template <class Key, class Value>
void TovanMap<Key, Value>::tend(TendRound& round) {
  requireWritable("validate to read-only Tovan table");
  noteIfCut();
  keep();
  auto& [of, next] = inspected_;
  const bool isBegun = of != round.number() && round.takePage();
  if (isBegun) {
    of = round.number();
    next = 0;
  }
  if (isBegun || isUnlinked()) keepName();
  inspect(round);
  if (isShort()) reservePages(freeCount_ + 1);
  for (uint32_t step = 0; step < kSlots && isLoose() && tighten(); ++step) continue;
}

/// Restores a header that was changed from outside. Repairs the table if the file was cut short or
/// a repair was not completed.
template <class Key, class Value>
void TovanMap<Key, Value>::mend() {
  const bool isWhole = !memory().isCut() && (left(kDirectory) >> 8) % 2 == 0;
  if (isWhole) {
    restore();
  } else {
    repair();
  }
}

/// Checks the next pages of a round, and repairs the table if one of them is damaged.
template <class Key, class Value>
void TovanMap<Key, Value>::inspect(TendRound& round) {
  auto& [of, next] = inspected_;
  if (of != round.number()) return;
  while (next < uses_.size() && round.takePage()) {
    const uint32_t number = next++;
    const char* fault = pageFault(number);
    if (fault == nullptr) continue;
    next = reserved();  // the repair checks the others
    // The repair reports only faults that it cannot correct silently. This one is always reported.
    const size_t before = corruptions();
    const auto message = describe("page", number, fault);
    try {
      repair();
    } catch (...) {
      if (corruptions() == before) corruptionDetected(message);
      throw;
    }
    if (corruptions() == before) corruptionDetected(message);
  }
}

/// What is wrong with a page or the directory's entries for it, or null. Nothing is changed.
template <class Key, class Value>
const char* TovanMap<Key, Value>::pageFault(uint32_t number) const {
  Page& what = page(number);
  uint32_t used = 0;
  for (const Slot& slot : what.slots) used += slot.state() != 0;
  if (what.seal.load(std::memory_order_relaxed) == 0) {
    const auto isEmpty = [](const Slot& slot) { return slot.checksum.load() == 0; };
    if (used != 0 || !std::ranges::all_of(what.slots, isEmpty)) return "is in use, but unmarked";
    return nullptr;
  }
  const uint32_t depth = what.depth.load(std::memory_order_relaxed);
  if (!isSealed(what) || depth > depth_) return "has a damaged head";
  const PageRef ref(number, what.serial.load(std::memory_order_relaxed));
  uint32_t i = what.pattern.load(std::memory_order_relaxed);
  for (; i < uint32_t{1} << depth_; i += uint32_t{1} << depth) {
    if (PageRef(directory(i, depth_).load(std::memory_order_relaxed)) != ref) {
      return "is not found by the directory";
    }
  }
  if (what.used.load(std::memory_order_relaxed) != used) return "has a wrong count of slots";
  for (const Slot& slot : what.slots) {
    if (const char* fault = slotFault(what, slot)) return fault;
  }
  return nullptr;
}

template <class Key, class Value>
const char* TovanMap<Key, Value>::slotFault(Page& in, const Slot& slot) const {
  const uint32_t state = slot.state();
  const uint32_t checksum = slot.checksum.load(std::memory_order_relaxed);
  bool isSound = false;
  if (state == kLive) {
    Words words;
    load(slot, words);
    const uint64_t hash = hashOf(words);
    isSound = checksum == checksumOf(hash, words) && search(in, hash, words) == &slot;
  } else {
    isSound = (state == 0 && checksum == 0) || (state == kGone && checksum == kSpoilt);
  }
  return isSound ? nullptr : "has a damaged slot";
}

/// Completes or undoes the change that a killed writer made to a slot, and drops a damaged entry.
template <class Key, class Value>
void TovanMap<Key, Value>::settle(const Page& in, Slot& slot) {
  const uint32_t state = slot.state();
  const uint32_t checksum = slot.checksum.load(std::memory_order_relaxed);
  if (state == 0 && checksum == 0) return;
  if (state == kGone || state == kBusy) {
    // Completes a removal, and undoes an insertion.
    if (state != kGone || checksum != kSpoilt) slot.retire();
    return;
  }
  const auto& journal = top().journal;
  const bool inJournal = state == (kBusy | kLive) && journal.offset == offsetOf(slot);
  Words words = journal.words;
  if (!inJournal) load(slot, words);
  const uint64_t hash = hashOf(words);
  if ((inJournal ? journal.checksum : checksum) != checksumOf(hash, words)) {
    giveUp(in, slot);
    slot.retire();
  } else if (state != kLive) {
    replace(slot, hash, words);
    if (state == (kBusy | kLive)) return;
    corruptionDetected(describe("slot at byte", offsetOf(slot), "was not marked as one in use"));
  }
}

/// Reports a damaged slot, and keeps its key for takeDropped().
template <class Key, class Value>
void TovanMap<Key, Value>::giveUp(const Page& in, const Slot& slot) {
  corruptionDetected(describe("slot at byte", offsetOf(slot), "is damaged"));
  const uint32_t checksum = slot.checksum.load(std::memory_order_relaxed);
  if (checksum == 0 || checksum == kSpoilt) return;  // there was no entry
  if (!dropped_) dropped_.emplace();
  Words words;
  load(slot, words);
  if (!leadsTo(in, slot, hashOf(words))) return;
  try {
    dropped_->keys.push_back(keyOf(words));
  } catch (const std::bad_alloc&) {
    // The list of keys need not be complete.
  }
}

/// Whether a search for `hash` passes this slot of a page. If not, the slot's key is damaged.
template <class Key, class Value>
bool TovanMap<Key, Value>::leadsTo(const Page& in, const Slot& slot, uint64_t hash) {
  const uint32_t depth = in.depth.load(std::memory_order_relaxed);
  if (depth > kMaxDepth || low(hash, depth) != in.pattern.load(std::memory_order_relaxed)) {
    return false;
  }
  for (uint32_t at = home(hash); &in.slots[at] != &slot; at = after(at)) {
    if (in.slots[at].state() == 0) return false;
  }
  return true;
}

/// Whether a search finds each entry of a page.
template <class Key, class Value>
bool TovanMap<Key, Value>::isInOrder(Page& what) const {
  return std::ranges::all_of(what.slots, [&](const Slot& slot) {
    if (!slot.isLive()) return true;
    Words words;
    load(slot, words);
    return search(what, hashOf(words), words) == &slot;
  });
}

/// Counts the entries and the used slots of all pages.
template <class Key, class Value>
void TovanMap<Key, Value>::recount() {
  uint64_t size = 0;
  for (uint32_t number = 0; number < uses_.size(); ++number) {
    uint32_t used = 0;
    uint8_t live = 0;
    for (const Slot& slot : page(number).slots) {
      live += slot.isLive();
      used += slot.state() != 0;
    }
    size += live;
    if (uses_[number].live != PageUse::kFree) uses_[number].live = live;
    page(number).used.store(used, std::memory_order_relaxed);
  }
  sizeIs(size);
}

/// Settles every slot, then derives the directory and all counts from the pages.
template <class Key, class Value>
size_t TovanMap<Key, Value>::repair() {
  const size_t before = corruptions();
  const uint64_t sizeBefore = size_;
  restore();
  const uint64_t repairs = left(kDirectory) >> 8 | 1;
  headerIs(kDirectory, repairs << 8 | static_cast<uint8_t>(left(kDirectory)));
  std::atomic_thread_fence(std::memory_order_seq_cst);
  noteChange();
  uses_.clear();
  free_.clear();
  freeCount_ = end_ = 0;
  lowestFree_ = 0;
  everReserved_ = 0;  // all pages are looked at
  notePages();
  everReserved_ = pages();
  pagesOfDepth_ = {};
  depth_ = 0;
  std::vector<uint32_t> kept;
  std::vector<uint32_t> damaged;
  for (uint32_t number = 0; number < uses_.size(); ++number) {
    Page& found = page(number);
    if (found.seal.load(std::memory_order_relaxed) == 0) {
      freeSlots(found);
      continue;
    }
    for (Slot& slot : found.slots) settle(found, slot);
    const uint32_t depth = found.depth.load(std::memory_order_relaxed);
    if (isSealed(found) && depth <= kMaxDepth) {
      occupy(number, depth);
      kept.push_back(number);
      depth_ = std::max(depth_, depth);
    } else {
      occupy(number, 0);
      damaged.push_back(number);
      corruptionDetected(describe("page", number, "has a damaged head"));
    }
  }
  const auto serialOf = [&](uint32_t number) { return page(number).serial.load(); };
  std::ranges::sort(kept, {}, serialOf);
  serial_ = kept.empty() ? 0 : serialOf(kept.back());

  provideDirectory(depth_);
  const uint32_t size = uint32_t{1} << depth_;
  for (uint32_t i = 0; i < size; ++i) directory(i, depth_).store(0, std::memory_order_relaxed);
  for (const uint32_t number : kept) publish(number);
  for (uint32_t i = 0; i < size; ++i) {
    if (directory(i, depth_).load(std::memory_order_relaxed) == 0) fillHole(i);
  }
  for (const uint32_t number : kept) {
    // How many entries of the directory lead to the page; if it is whole, `size / step`.
    const uint32_t step = uint32_t{1} << page(number).depth.load(std::memory_order_relaxed);
    uint32_t leading = 0;
    for (uint32_t i = page(number).pattern.load(std::memory_order_relaxed); i < size; i += step) {
      leading += PageRef(directory(i, depth_).load(std::memory_order_relaxed)).number() == number;
    }
    if (leading == 0) {
      freePage(number);
    } else if (leading < size / step) {
      rewrite(number, true);
    } else if (!isInOrder(page(number))) {
      rewrite(number, false);
    }
  }
  for (const uint32_t number : damaged) {
    for (const Slot& slot : page(number).slots) {
      if (!slot.isLive()) continue;
      Words words;
      load(slot, words);
      const uint64_t hash = hashOf(words);
      if (search(page(refOf(hash).number()), hash, words) == nullptr) insert(hash, words);
    }
    freePage(number);
  }
  recount();
  // Without a free page, no two pages could become one.
  if (freeCount_ == 0 && addSparePages()) notePages();
  headerIs(kDirectory, (repairs + 1) << 8 | depth_);
  noteChange();
  if (size_ < sizeBefore && !dropped_) dropped_.emplace();
  return corruptions() - before;
}

}  // namespace Tovan
