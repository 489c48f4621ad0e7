// The part of TovanMap that changes the table: updates of entries, and the growth of pages and
// directory.
//
// After each step, repair() can complete or undo the change. An entry is in the table as soon as
// its slot is marked live. docs/tables.md explains the memory orders.
#pragma once

#include "platform/tovan/TovanMap.h"

namespace Tovan {

/// Runs `step`. If it finds damage, repairs the table and runs it again.
template <class Key, class Value>
template <class Step>
auto TovanMap<Key, Value>::repairing(Step step) {
  try {
    return step();
  } catch (const CorruptionDetectedException& e) {
    corruptionDetected(e.what());
    repair();
    return step();
  }
}

template <class Key, class Value>
bool TovanMap<Key, Value>::set(const Key& key, const Value& value) {
  requireWritable("write to read-only Tovan table");
  keep();
  const Words words = pack(key, value);
  const uint64_t hash = hashOf(words);
  // Usually the owner has just looked up a new key and not found it.
  const bool isAbsent = missed_.changes == changes_ && sameKey(missed_.key, words);
  Slot* slot = isAbsent ? nullptr : repairing([&] { return find(hash, words); });
  if (slot == nullptr) {
    insertNew(hash, words);
  } else {
    replace(*slot, hash, words);
    noteChange();
  }
  return slot == nullptr;
}

template <class Key, class Value>
void TovanMap<Key, Value>::add(const Key& key, const Value& value) {
  requireWritable("write to read-only Tovan table");
  keep();
  const Words words = pack(key, value);
  insertNew(hashOf(words), words);
}

/// Inserts an entry whose key is absent. Checks the head of its page, which may have been damaged
/// since the look-up.
template <class Key, class Value>
void TovanMap<Key, Value>::insertNew(uint64_t hash, const Words& words) {
  repairing([&] {
    const PageRef ref = refOf(hash);
    const char* fault = headFault(ref, hash);
    if (fault != nullptr) raise("page", ref.number(), fault);
    insert(hash, words);
  });
  sizeIs(size_ + 1);
  noteChange();
}

template <class Key, class Value>
std::optional<Value> TovanMap<Key, Value>::erase(const Key& key) {
  requireWritable("remove to read-only Tovan table");
  keep();
  Words words = pack(key);
  const uint64_t hash = hashOf(words);
  Slot* slot = repairing([&] {
    Slot* found = find(hash, words);
    if (found != nullptr) read(*found, words);
    return found;
  });
  if (slot == nullptr) return std::nullopt;
  slot->retire();
  sizeIs(size_ - 1);
  noteChange();
  shrinkAfter(*slot, hash);
  return valueOf(words);
}

/// Writes a slot. Readers see either the former entry or the new one. `state` is kLive when the
/// slot already has an entry.
template <class Key, class Value>
void TovanMap<Key, Value>::write(Slot& slot, uint32_t state, const Words& words,
                                 uint32_t checksum) {
  const uint32_t sequence = slot.sequence.load(std::memory_order_relaxed) & ~kState;
  // A reader that concludes from this that the slot's former entry was removed also sees all
  // changes before that removal.
  slot.sequence.store(sequence | state | kBusy, std::memory_order_release);
  std::atomic_thread_fence(std::memory_order_release);
#pragma GCC unroll 8
  for (size_t i = 0; i < words.size(); ++i) {
    slot.words[i].store(words[i], std::memory_order_relaxed);
  }
  slot.checksum.store(checksum, std::memory_order_relaxed);
  slot.sequence.store((sequence + kChange) | kLive, std::memory_order_release);
}

template <class Key, class Value>
void TovanMap<Key, Value>::replace(Slot& slot, uint64_t hash, const Words& words) {
  const uint32_t checksum = checksumOf(hash, words);
  auto& journal = top().journal;
  journal.offset = offsetOf(slot);
  journal.checksum = checksum;
#pragma GCC unroll 8
  for (size_t i = 0; i < words.size(); ++i) journal.words[i] = words[i];
  std::atomic_thread_fence(std::memory_order_release);
  write(slot, kLive, words, checksum);
}

template <class Key, class Value>
void TovanMap<Key, Value>::insert(uint64_t hash, const Words& words) {
  const uint32_t checksum = checksumOf(hash, words);
  uint32_t number = refOf(hash).number();
  while (!place(number, kMaxUsed, hash, words, checksum)) {
    makeRoom(number);
    if (const char* fault = cutFault()) raise("page", number, fault);
    number = refOf(hash).number();
  }
}

/// Writes a new entry into a page in which fewer than `maxUsed` slots are used. Returns false if
/// there is no room.
template <class Key, class Value>
bool TovanMap<Key, Value>::place(uint32_t number, uint32_t maxUsed, uint64_t hash,
                                 const Words& words, uint32_t checksum) {
  Page& in = page(number);
  for (uint32_t i = 0, at = home(hash); i < kSlots; ++i, at = after(at)) {
    Slot& slot = in.slots[at];
    const uint32_t state = slot.state();
    if ((state & kLive) != 0) continue;
    if (state == 0) {
      if (slot.checksum.load(std::memory_order_relaxed) != 0) {
        raise("slot at byte", offsetOf(slot), "has an entry in a free slot");
      }
      const uint32_t used = in.used.load(std::memory_order_relaxed);
      if (used >= maxUsed) return false;
      in.used.store(used + 1, std::memory_order_relaxed);
    }
    write(slot, 0, words, checksum);
    ++uses_[number].live;
    return true;
  }
  return false;
}

/// Copies a page to get free slots: into two if more than half of its slots have entries.
template <class Key, class Value>
void TovanMap<Key, Value>::makeRoom(uint32_t number) {
  const auto& slots = page(number).slots;
  const auto live = std::ranges::count_if(slots, [](const Slot& slot) { return slot.isLive(); });
  if (!rewrite(number, live > kSlots / 2)) recount();
}

/// Replaces a page by a new one or, with `split`, by one for each half of its entries. Returns
/// false if it had to drop damaged entries.
template <class Key, class Value>
bool TovanMap<Key, Value>::rewrite(uint32_t number, bool split) {
  const Page& from = page(number);
  const uint32_t fromDepth = from.depth.load(std::memory_order_relaxed);
  const uint32_t depth = fromDepth + split;
  // First, because this may fail for lack of memory.
  reservePages(2);
  if (depth > depth_) deepen();
  bool isWhole = true;
  for (uint32_t half = 0; half <= split; ++half) {
    const uint32_t pattern = from.pattern.load(std::memory_order_relaxed) | half << fromDepth;
    // A writer may have been killed after it had made the first half.
    if (PageRef(directory(pattern, depth_).load(std::memory_order_relaxed)).number() != number) {
      continue;
    }
    const uint32_t to = makePage(pattern, depth);
    for (const Slot& slot : from.slots) {
      const uint32_t stands = slot.checksum.load(std::memory_order_relaxed);
      if (!slot.isLive() && (slot.state() != 0 || stands == 0)) continue;
      Words words;
      load(slot, words);
      const uint64_t hash = hashOf(words);
      const uint32_t checksum = checksumOf(hash, words);
      if (stands != checksum) {
        if (half == uint32_t{split}) giveUp(from, slot);
        isWhole = false;
      } else if (low(hash, depth) == pattern && search(page(to), hash, words) == nullptr) {
        place(to, kSlots, hash, words, checksum);
      }
    }
    publish(to);
  }
  freePage(number);
  return isWhole;
}

/// Doubles the directory: twice as many entries lead to each page.
template <class Key, class Value>
void TovanMap<Key, Value>::deepen() {
  provideDirectory(depth_ + 1);
  const uint32_t size = uint32_t{1} << depth_;
  for (uint32_t i = 0; i < size; ++i) {
    directory(i + size, depth_ + 1)
        .store(directory(i, depth_).load(std::memory_order_relaxed), std::memory_order_relaxed);
  }
  ++depth_;
  headerIs(kDirectory, left(kDirectory) + 1);
}

template <class Key, class Value>
void TovanMap<Key, Value>::provideDirectory(uint32_t depth) {
  if (depth > kMaxDepth) throw NoSpaceException(titleOf(name()) + " has reached its largest size");
  provide(kTopBytes, sizeof(uint64_t) << depth);
}

/// Makes sure that there are `count` unused pages.
template <class Key, class Value>
void TovanMap<Key, Value>::reservePages(size_t count) {
  while (freeCount_ < count) {
    addPages();
    notePages();
  }
}

/// Notes that there are more pages.
template <class Key, class Value>
void TovanMap<Key, Value>::notePages() {
  const auto first = static_cast<uint32_t>(uses_.size());
  free_.resize(reserved() / 64 + 1);
  uses_.resize(reserved());
  for (uint32_t number = first; number < reserved(); ++number) pageIsFree(number);
  // A page that was given back may have been written to from outside.
  for (uint32_t number = first; number < std::min(reserved(), everReserved_); ++number) {
    page(number).seal.store(0, std::memory_order_release);
    freeSlots(page(number));
  }
  everReserved_ = std::max(everReserved_, reserved());
}

/// Notes that a page is free.
template <class Key, class Value>
void TovanMap<Key, Value>::pageIsFree(uint32_t number) {
  uses_[number].live = PageUse::kFree;
  ++freeCount_;
  free_[number / 64] |= uint64_t{1} << number % 64;
  lowestFree_ = std::min<size_t>(lowestFree_, number / 64);
}

/// Notes that a page is used, and has no entry yet.
template <class Key, class Value>
void TovanMap<Key, Value>::occupy(uint32_t number, uint32_t depth) {
  uses_[number] = {.live = 0, .depth = static_cast<uint8_t>(depth)};
  ++pagesOfDepth_[depth];
  --freeCount_;
  free_[number / 64] &= ~(uint64_t{1} << number % 64);
  end_ = std::max(end_, number + 1);
}

/// Takes the first unused page, which the directory does not name yet.
template <class Key, class Value>
uint32_t TovanMap<Key, Value>::makePage(uint32_t pattern, uint32_t depth) {
  while (free_[lowestFree_] == 0) ++lowestFree_;
  const auto bit = static_cast<size_t>(std::countr_zero(free_[lowestFree_]));
  const auto number = static_cast<uint32_t>(lowestFree_ * 64 + bit);
  occupy(number, depth);
  Page& made = page(number);
  made.serial.store(++serial_, std::memory_order_relaxed);
  made.pattern.store(pattern, std::memory_order_relaxed);
  made.depth.store(depth, std::memory_order_relaxed);
  made.used.store(0, std::memory_order_relaxed);
  return number;
}

/// Enters a complete page into the directory.
template <class Key, class Value>
void TovanMap<Key, Value>::publish(uint32_t number) {
  Page& made = page(number);
  made.seal.store(sealOf(made), std::memory_order_release);
  const PageRef ref(number, made.serial.load(std::memory_order_relaxed));
  const uint32_t step = uint32_t{1} << made.depth.load(std::memory_order_relaxed);
  uint32_t i = made.pattern.load(std::memory_order_relaxed);
  for (; i < uint32_t{1} << depth_; i += step) {
    directory(i, depth_).store(ref.bits(), std::memory_order_release);
  }
}

/// Frees a page and its slots.
template <class Key, class Value>
void TovanMap<Key, Value>::freePage(uint32_t number) {
  page(number).seal.store(0, std::memory_order_release);
  freeSlots(page(number));
  --pagesOfDepth_[uses_[number].depth];
  pageIsFree(number);
  while (end_ > 0 && uses_[end_ - 1].live == PageUse::kFree) --end_;
}

/// Makes a page for `pattern`, which the directory lacks. The page also gets the empty entries of
/// the directory around `pattern`, as far as one page may have them.
template <class Key, class Value>
void TovanMap<Key, Value>::fillHole(uint32_t pattern) {
  const auto isEmpty = [&](uint32_t depth) {
    for (uint32_t i = low(pattern, depth); i < uint32_t{1} << depth_; i += uint32_t{1} << depth) {
      if (directory(i, depth_).load(std::memory_order_relaxed) != 0) return false;
    }
    return true;
  };
  uint32_t depth = depth_;
  while (depth > 0 && isEmpty(depth - 1)) --depth;
  reservePages(1);
  publish(makePage(low(pattern, depth), depth));
}

template <class Key, class Value>
void TovanMap<Key, Value>::freeSlots(Page& of) {
  for (Slot& slot : of.slots) {
    if (slot.state() == 0 && slot.checksum.load(std::memory_order_relaxed) == 0) continue;
    // A free slot with a checksum would look like an entry with a damaged state.
    slot.setState(kGone);
    slot.checksum.store(0, std::memory_order_release);
    slot.setState(0);
  }
  of.used.store(0, std::memory_order_relaxed);
}

template <class Key, class Value>
void TovanMap<Key, Value>::removeAll() {
  for (uint32_t number = 0; number < uses_.size(); ++number) {
    freeSlots(page(number));
    if (uses_[number].live != PageUse::kFree) uses_[number].live = 0;
  }
  sizeIs(0);
  noteChange();
}

}  // namespace Tovan
