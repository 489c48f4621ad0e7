// The part of TovanMap that shrinks the table: it joins two pages with few entries, halves the
// directory, and gives back the memory behind the last used page. docs/tables.md explains the
// effects on readers.
#pragma once

#include "platform/tovan/TovanMap.h"

namespace Tovan {

/// Called when the entry of a slot was removed. `hash` is that of its key.
template <class Key, class Value>
void TovanMap<Key, Value>::shrinkAfter(const Slot& gone, uint64_t hash) {
  const size_t number = (offsetOf(gone) - kPagesAt) / sizeof(Page);
  uint8_t& live = uses_[number].live;
  if (live == 0) return;  // only after damage
  --live;
  // Not at each removal, because the other page is usually not in the processor's cache.
  const bool isSmall = live <= kMaxJoined && live % 4 == 0;
  if (!isSmall && !isLoose()) [[likely]]
    return;
  repairing([&] {
    if (isSmall) join(hash);
    if (isLoose() && (isSmall || changes_ % 8 == 0)) tighten();
  });
}

/// Puts the entries of the page of `hash` and of its other half into one page, if they are few.
/// Repeats that with the new page.
template <class Key, class Value>
void TovanMap<Key, Value>::join(uint64_t hash) {
  for (;;) {
    const PageRef one = refOf(hash);
    const PageUse use = uses_[one.number()];
    if (use.depth == 0) return;
    const uint64_t bit = uint64_t{1} << (use.depth - 1);
    const uint64_t otherHash = hash ^ bit;
    const PageRef other = refOf(otherHash);
    const PageUse otherUse = uses_[other.number()];
    if (otherUse.depth != use.depth || use.live + otherUse.live > kMaxJoined) return;
    // The checks of tend() will report the damage.
    if (headFault(one, hash) != nullptr || headFault(other, otherHash) != nullptr) return;
    if (!joinPages(one, other, hash)) return;
    halve();
  }
}

/// Replaces two pages by one: a split in reverse, with the same steps for readers and for the next
/// writer. Returns false, having changed nothing, if there is no memory or an entry is damaged.
template <class Key, class Value>
bool TovanMap<Key, Value>::joinPages(PageRef one, PageRef other, uint64_t hash) {
  if (freeCount_ == 0) {
    if (!addSparePages()) return false;
    notePages();
  }
  const uint32_t depth = uses_[one.number()].depth - 1U;
  const uint32_t to = makePage(low(hash, depth), depth);
  if (!copyAll(page(one.number()), to) || !copyAll(page(other.number()), to)) {
    freePage(to);
    return false;
  }
  publish(to);
  freePage(one.number());
  freePage(other.number());
  return true;
}

/// Copies the entries of a page into a new one. Returns false if a slot is damaged.
template <class Key, class Value>
bool TovanMap<Key, Value>::copyAll(const Page& from, uint32_t to) {
  for (const Slot& slot : from.slots) {
    const uint32_t state = slot.state();
    const uint32_t checksum = slot.checksum.load(std::memory_order_relaxed);
    if (state == kGone || (state == 0 && checksum == 0)) continue;
    Words words;
    load(slot, words);
    const uint64_t hash = hashOf(words);
    if (state != kLive || checksum != checksumOf(hash, words) ||
        !place(to, kMaxUsed, hash, words, checksum)) {
      return false;
    }
  }
  return true;
}

/// Shrinks a table without entries.
template <class Key, class Value>
void TovanMap<Key, Value>::joinAll() {
  repairing([&] {
    for (uint32_t number = 0; number < uses_.size(); ++number) {
      if (uses_[number].live == 0) join(page(number).pattern.load(std::memory_order_relaxed));
    }
    while (isLoose() && tighten()) continue;
  });
}

/// Halves the directory while that leaves room for one further split of each page. So a page that
/// is split and joined in turn does not double and halve the directory each time.
///
/// The count of repairs increases, because no state of the directory may occur twice: a reader that
/// reads the same entry twice under the same state concludes that the entry did not change.
template <class Key, class Value>
void TovanMap<Key, Value>::halve() {
  while (depth_ > 1 && pagesOfDepth_[depth_] == 0 && pagesOfDepth_[depth_ - 1] == 0) {
    --depth_;
    headerIs(kDirectory, left(kDirectory) + (uint64_t{2} << 8) - 1);
    giveBackDirectory(depth_);
  }
}

/// Gives a part of the free memory at the end back, or makes some free there by moving the last
/// page to the front. Returns false if damage prevents that.
/// \pre isLoose()
template <class Key, class Value>
bool TovanMap<Key, Value>::tighten() {
  // A system call is worth its time from kLeast pages on. With too many pages it takes too long.
  constexpr uint32_t kLeast = 8;
  constexpr uint32_t kMost = 64;
  const auto count = static_cast<uint32_t>(uses_.size());
  if (count - end_ >= kLeast + kLeast) {
    const uint32_t kept = std::max(end_ + kLeast, count - std::min(count, kMost));
    freeCount_ -= count - kept;
    uses_.resize(kept);
    free_.resize(kept / 64 + 1);
    free_.back() &= (uint64_t{1} << kept % 64) - 1;
    giveBackPages(kept);
    return true;
  }
  const uint32_t last = end_ - 1;
  const Page& moved = page(last);
  const uint32_t pattern = moved.pattern.load(std::memory_order_relaxed);
  if (pattern >= uint32_t{1} << depth_ || headFault(refOf(pattern), pattern) != nullptr ||
      refOf(pattern).number() != last) {
    return false;  // the checks of tend() will report it
  }
  if (!rewrite(last, false)) recount();
  return true;
}

}  // namespace Tovan
