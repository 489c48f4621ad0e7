// The part of TovanMap that reads: look-ups, and the walk through all entries. docs/tables.md
// explains the memory orders.
#pragma once

#include "platform/tovan/TovanMap.h"

namespace Tovan {

/// Visits the entries page by page. Each entry is copied as it was at one moment.
template <class Key, class Value>
class TovanMap<Key, Value>::Iterator {
 public:
  using value_type = Item;
  using difference_type = std::ptrdiff_t;

  explicit Iterator(const TovanMap& map) : map_(&map) { settle(); }

  Item operator*() const { return {keyOf(items_[at_]), valueOf(items_[at_])}; }
  Iterator& operator++() {
    ++at_;
    settle();
    return *this;
  }
  void operator++(int) { ++*this; }
  bool operator==(std::default_sentinel_t) const { return at_ == items_.size(); }

 private:
  /// Advances to the next entry that was not removed meanwhile.
  void settle() {
    for (;;) {
      for (; at_ < items_.size(); ++at_) {
        if (changes_ == map_->changes_ || map_->refresh(items_[at_])) return;
      }
      if (!more_) return;
      at_ = 0;
      items_.clear();
      changes_ = map_->changes_;
      more_ = map_->readPage(pattern_, items_);
    }
  }

  const TovanMap* map_;
  std::vector<Words> items_;  // the entries of the present page
  size_t at_ = 0;
  uint64_t changes_ = 0;
  uint32_t pattern_ = 0;  // of the next page
  bool more_ = true;
};

template <class Key, class Value>
size_t TovanMap<Key, Value>::size() const {
  if (!isReadOnly()) return size_;
  const uint64_t word = header().size.load(std::memory_order_relaxed);
  const auto said = static_cast<uint32_t>(word);
  if (isSound(word) && isBacked(said / kSlots)) return said;
  size_t counted = 0;
  try {
    forEachSound([&counted](const Item&) { ++counted; }, [](const std::string&) {});
  } catch (const Pindo::Exception&) {
    // The entries that can be read were counted.
  }
  return counted;
}

/// Copies the entry of a slot as it was at one moment. Returns false if the slot has none.
template <class Key, class Value>
bool TovanMap<Key, Value>::read(const Slot& from, Words& words) const {
  for (Patience patience(memory());;) {
    const uint32_t sequence = from.sequence.load(std::memory_order_acquire);
    const uint32_t state = sequence & kState;
    if (state == 0 && from.checksum.load(std::memory_order_acquire) != 0 &&
        from.sequence.load(std::memory_order_relaxed) == sequence) {
      raise("slot at byte", offsetOf(from), "has an entry and is said to be free");
    }
    if (state > kGone) {
      raise("slot at byte", offsetOf(from), "is in no state that there is");
    }
    if ((state & kLive) == 0) return false;
    if ((state & kBusy) == 0) {
      load(from, words);
      const uint32_t checksum = from.checksum.load(std::memory_order_relaxed);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (from.sequence.load(std::memory_order_relaxed) == sequence) {
        if (checksum == checksumOf(hashOf(words), words)) return true;
        raise("slot at byte", offsetOf(from), "has a wrong checksum");
      }
    }
    if (!patience.again()) {
      raiseUnfinished(patience, "slot at byte", offsetOf(from),
                      "is left in the middle of an update");
    }
  }
}

/// The slot of the page that has `key`, or null.
template <class Key, class Value>
auto TovanMap<Key, Value>::search(Page& page, uint64_t hash, const Words& key) -> Slot* {
  Slot* const first = &page.slots[home(hash)];
  Slot* slot = first;
  do {
    const uint32_t state = slot->sequence.load(std::memory_order_acquire) & kState;
    if (hasKey(*slot, key) && (state & kLive) != 0) return slot;
    if (state == 0) return nullptr;
    if (++slot == page.slots.end()) slot = page.slots.begin();
  } while (slot != first);
  return nullptr;
}

/// What is wrong with the head of a page that the directory names, or null.
template <class Key, class Value>
const char* TovanMap<Key, Value>::headFault(PageRef ref, uint64_t hash) const {
  const Page& in = page(ref.number());
  const uint32_t depth = in.depth.load(std::memory_order_relaxed);
  const bool isRight = isSealed(in) && in.serial.load(std::memory_order_relaxed) == ref.serial() &&
                       depth <= kMaxDepth &&
                       low(hash, depth) == in.pattern.load(std::memory_order_relaxed);
  return isRight ? nullptr : "is not what the directory says";
}

/// Called when a page does not have a key. Returns what is wrong with the page's head, or null;
/// raises if the key may have been in a slot that is damaged.
template <class Key, class Value>
const char* TovanMap<Key, Value>::missFault(PageRef ref, uint64_t hash) const {
  if (const char* fault = headFault(ref, hash)) return fault;
  Page& in = page(ref.number());
  for (uint32_t i = 0, at = home(hash); i < kSlots; ++i, at = after(at)) {
    const Slot& slot = in.slots[at];
    const bool isFree = (slot.sequence.load(std::memory_order_acquire) & kState) == 0;
    Words words;
    read(slot, words);
    if (isFree) return nullptr;
  }
  return nullptr;
}

/// Finds the page of `hash` for a reader. Calls `look` with the directory's entry, and repeats that
/// while the page is being replaced. If `look` returns true, its result is valid in any case. Else
/// it found nothing or a fault, which is valid only if the page was not replaced meanwhile.
template <class Key, class Value>
template <class Look>
void TovanMap<Key, Value>::inPage(uint64_t hash, const Look& look) const {
  try {
    inMappedPage(hash, look);
  } catch (const CorruptionDetectedException&) {
    if (!isMappedAnew()) throw;
    inMappedPage(hash, look);
  }
}

/// The same without mapping anew a file that was cut short.
template <class Key, class Value>
template <class Look>
void TovanMap<Key, Value>::inMappedPage(uint64_t hash, const Look& look) const {
  for (Patience patience(memory());;) {
    const uint64_t state = header().directory.load(std::memory_order_acquire);
    const uint32_t bits = static_cast<uint8_t>(state);
    if (bits > kMaxDepth) raise("directory of depth", bits, "is impossible");
    const auto& entry = directory(hash, bits);
    const PageRef ref(entry.load(std::memory_order_acquire));
    const auto isReplaced = [&] {
      std::atomic_thread_fence(std::memory_order_acquire);
      return entry.load(std::memory_order_relaxed) != ref.bits() ||
             header().directory.load(std::memory_order_relaxed) != state;
    };
    const char* fault = nullptr;
    try {
      if (!isBacked(ref.number())) {
        fault = "is outside the memory";
      } else if (look(ref, fault)) {
        return;
      }
    } catch (const CorruptionDetectedException&) {
      // The memory of a page that was replaced may have been given back meanwhile.
      if (!isReplaced()) throw;
    }
    const bool underRepair = (state >> 8) % 2 != 0;
    if (!underRepair && !isReplaced()) {
      if (fault == nullptr) fault = cutFault();
      if (fault == nullptr) return;
      raise("page", ref.number(), fault);
    }
    if (!patience.again()) {
      raiseUnfinished(patience, "page", ref.number(), "is left in the middle of a change");
    }
  }
}

/// Finds the page of `hash` for the writer. The table does not change meanwhile.
template <class Key, class Value>
auto TovanMap<Key, Value>::refOf(uint64_t hash) const -> PageRef {
  const PageRef ref(directory(hash, depth_).load(std::memory_order_relaxed));
  if (ref.number() >= uses_.size()) raise("page", ref.number(), "is outside the memory");
  return ref;
}

/// Checks that a page in which the writer did not find `key` is undamaged.
template <class Key, class Value>
void TovanMap<Key, Value>::verifyAbsence(PageRef ref, uint64_t hash, const Words& key) const {
  const char* fault = missFault(ref, hash);
  if (fault == nullptr) fault = cutFault();
  if (fault != nullptr) raise("page", ref.number(), fault);
  missed_ = {.key = key, .changes = changes_};
}

/// The look-up of the writer: the slot that has `key`, or null.
template <class Key, class Value>
auto TovanMap<Key, Value>::find(uint64_t hash, const Words& key) const -> Slot* {
  const PageRef ref = refOf(hash);
  Slot* slot = search(page(ref.number()), hash, key);
  if (slot == nullptr) {
    verifyAbsence(ref, hash, key);
  } else if (slot->state() != kLive || slot->checksum.load(std::memory_order_relaxed) % 2 == 0) {
    raise("slot at byte", offsetOf(*slot), "is not as it was left");
  }
  return slot;
}

/// Sets `value` to the value of `key` in a slot. Returns false if the entry was removed, is being
/// written, or is damaged: readCarefully() then finds out which.
template <class Key, class Value>
bool TovanMap<Key, Value>::readQuickly(const Slot& slot, uint64_t hash, const Words& key,
                                       std::optional<Value>& value) const {
  const uint32_t sequence = slot.sequence.load(std::memory_order_acquire);
  Words words;
  load(slot, words);
  const uint32_t checksum = slot.checksum.load(std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_acquire);
  if ((sequence & kState) != kLive || slot.sequence.load(std::memory_order_relaxed) != sequence ||
      checksum != checksumOf(hash, words) || !sameKey(words, key)) {
    return false;
  }
  unpack(words.data() + kKeyWords, value.emplace(Layout::template blank<Value>()));
  return true;
}

/// The look-up that waits for the writer, follows replaced pages, and detects damage.
template <class Key, class Value>
std::optional<Value> TovanMap<Key, Value>::readCarefully(uint64_t hash, const Words& key) const {
  Words words;
  bool found = false;
  if (isReadOnly()) {
    inPage(hash, [&](PageRef ref, const char*& fault) {
      const Slot* slot = search(page(ref.number()), hash, key);
      if (slot == nullptr) {
        fault = missFault(ref, hash);
      } else {
        // Meanwhile the slot may have got another entry.
        found = read(*slot, words) && sameKey(words, key);
      }
      return found;
    });
  } else {
    const Slot* slot = find(hash, key);
    found = slot != nullptr && read(*slot, words);
  }
  if (!found) return std::nullopt;
  return valueOf(words);
}

template <class Key, class Value>
std::optional<Value> TovanMap<Key, Value>::get(const Key& key) const {
  std::optional<Value> value;
  const uint64_t hash = hashOf(pack(key));
  const uint32_t bits = isReadOnly() ? depth() : depth_;
  if (bits <= kMaxDepth) {
    const PageRef ref(directory(hash, bits).load(std::memory_order_acquire));
    if (ref.number() < pages()) {
      const Slot* slot = search(page(ref.number()), hash, pack(key));
      if (slot != nullptr) {
        if (readQuickly(*slot, hash, pack(key), value)) return value;
      } else if (!isReadOnly()) {
        verifyAbsence(ref, hash, pack(key));
        return value;
      }
    }
  }
  value = readCarefully(hash, pack(key));
  return value;
}

template <class Key, class Value>
auto TovanMap<Key, Value>::version(const Key& key) const -> std::optional<Version> {
  const uint64_t hash = hashOf(pack(key));
  const uint64_t state = header().directory.load(std::memory_order_acquire);
  const uint32_t bits = static_cast<uint8_t>(state);
  if (bits > kMaxDepth) return std::nullopt;
  const auto& entry = directory(hash, bits);
  const PageRef ref(entry.load(std::memory_order_acquire));
  if (!isBacked(ref.number())) return std::nullopt;
  Page& in = page(ref.number());
  const Slot* slot = search(in, hash, pack(key));
  if (slot == nullptr) return std::nullopt;
  const uint32_t sequence = slot->sequence.load(std::memory_order_acquire);
  if ((sequence & kState) != kLive) return std::nullopt;
  // The sequences of a page begin anew after its memory was given back.
  std::atomic_thread_fence(std::memory_order_acquire);
  if (entry.load(std::memory_order_relaxed) != ref.bits() ||
      header().directory.load(std::memory_order_relaxed) != state) {
    return std::nullopt;
  }
  return Version{.page = ref.bits(),
                 .slot = static_cast<uint32_t>(slot - in.slots.data()),
                 .sequence = sequence};
}

template <class Key, class Value>
void TovanMap<Key, Value>::prefetch(const Key& key, bool isNew) const {
  if (isReadOnly()) return;
  const uint64_t hash = hashOf(pack(key));
  const PageRef ref(directory(hash, depth_).load(std::memory_order_relaxed));
  if (ref.number() >= pages()) return;
  const Page& in = page(ref.number());
  const Slot* first = &in.slots[home(hash)];
  Kiv::prefetch(first);
  Kiv::prefetch(first + 1);
  if (isNew) Kiv::prefetch(&in);
}

template <class Key, class Value>
std::optional<Value> TovanMap<Key, Value>::peek(const Key& key) const {
  if (isReadOnly()) return std::nullopt;
  const uint64_t hash = hashOf(pack(key));
  const PageRef ref(directory(hash, depth_).load(std::memory_order_relaxed));
  if (ref.number() >= pages()) return std::nullopt;
  const Slot* slot = search(page(ref.number()), hash, pack(key));
  if (slot == nullptr) return std::nullopt;
  Words words;
  load(*slot, words);
  return valueOf(words);
}

/// Copies the entries of the page of `pattern`, and sets `pattern` to that of the next page.
/// Returns false if this page was the last.
///
/// Pages are visited in the order of their patterns with the bits reversed. A split does not change
/// this order, so a walk misses no entry and repeats none.
template <class Key, class Value>
bool TovanMap<Key, Value>::readPage(uint32_t& pattern, std::vector<Words>& items,
                                    std::vector<std::string>* damages) const {
  uint32_t depth = 0;
  inPage(pattern, [&](PageRef ref, const char*& fault) {
    const Page& from = page(ref.number());
    depth = from.depth.load(std::memory_order_relaxed);
    items.clear();
    if (damages != nullptr) damages->clear();
    if (!isSealed(from) || depth > kMaxDepth ||
        low(pattern, depth) != from.pattern.load(std::memory_order_relaxed)) {
      fault = "is not what the directory says";
      return false;
    }
    // While a page is being split, its first half may already be in a new page, which was visited
    // before. The entries of that half are skipped.
    const auto bits = static_cast<uint32_t>(std::bit_width(pattern));
    for (const Slot& slot : from.slots) {
      Words words;
      try {
        if (read(slot, words) && (bits <= depth || low(hashOf(words), bits) == pattern)) {
          items.push_back(words);
        }
      } catch (const CorruptionDetectedException& damage) {
        if (damages == nullptr) throw;
        damages->emplace_back(damage.what());
      } catch (const BusyException& busy) {
        if (damages == nullptr) throw;
        damages->emplace_back(busy.what());
      }
    }
    depth = std::max(depth, bits);
    return false;
  });
  pattern = low(pattern, depth);
  uint32_t bit = (uint32_t{1} << depth) >> 1;
  for (; (pattern & bit) != 0; bit >>= 1) pattern ^= bit;
  pattern |= bit;
  return bit != 0;
}

/// Reads a copied entry again. Returns false if it was removed.
template <class Key, class Value>
bool TovanMap<Key, Value>::refresh(Words& words) const {
  const Slot* slot = find(hashOf(words), words);
  return slot != nullptr && read(*slot, words);
}

template <class Key, class Value>
template <class Visit, class Damaged>
void TovanMap<Key, Value>::forEachSound(Visit visit, Damaged damaged) const {
  std::vector<Words> items;
  std::vector<std::string> damages;
  uint32_t pattern = 0;
  for (bool more = true; more;) {
    more = readPage(pattern, items, &damages);
    for (const std::string& damage : damages) damaged(damage);
    for (const Words& words : items) visit(Item{keyOf(words), valueOf(words)});
  }
}

template <class Key, class Value>
std::vector<Key> TovanMap<Key, Value>::keys() const {
  std::vector<Key> keys;
  keys.reserve(size());
  for (const auto& item : *this) keys.push_back(item.key);
  return keys;
}

}  // namespace Tovan
