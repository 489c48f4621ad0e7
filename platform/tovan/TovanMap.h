// A hash map in shared memory: one writer, readers in other processes.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <iterator>
#include <optional>
#include <type_traits>
#include <vector>

#include "platform/tovan/Table.h"

namespace Tovan {

/// A hash map that one process writes and any number of others read while it does.
///
/// A reader finds every entry as it was before or after an update. A writer may be killed at any
/// instruction: the next one finds every entry whose update had completed, and puts the rest right
/// when it opens the table. An object is used by one thread; each process, and each further thread,
/// opens the table anew.
///
/// Entries stand in slots and never move. Slot numbers are chained by hash; the number of chains
/// follows the number of entries, by splitting one chain at an insertion (linear hashing), so no
/// insertion pays for growth alone. Slots and chain heads come in segments that are appended to the
/// memory. The table does not shrink: slots of erased entries are used again.
///
/// Whatever is read from the memory is checked before it is used: damage is reported by
/// CorruptionDetectedException. The writer's own set() and erase() repair the table instead, report
/// to corruptionDetected(), and go on.
///
/// \tparam Key    trivially copyable, without padding: its bytes are its identity.
/// \tparam Value  trivially copyable, without pointers.
template <class Key, class Value>
class TovanMap : public Table {
  static_assert(std::is_trivially_copyable_v<Key> && std::is_trivially_copyable_v<Value>);
  static_assert(std::has_unique_object_representations_v<Key>, "a key must not have padding");

 public:
  /// An entry's copy.
  struct Item {
    Key key;
    Value value;
  };
  class Iterator;

  /// Opens the table; a writer that takes over an existing one repairs it.
  /// \throws OpenException, NoSpaceException.
  explicit TovanMap(const TableConfig& config);

  /// The value of `key`, or nothing.
  /// \throws CorruptionDetectedException.
  std::optional<Value> get(const Key& key) const;

  /// Stores `value` under `key`. Returns whether the key is new.
  /// \throws NoSpaceException, changing nothing; ReadOnlyException.
  bool set(const Key& key, const Value& value);

  /// Removes `key`. Returns the value it had, or nothing.
  /// \throws ReadOnlyException.
  std::optional<Value> erase(const Key& key);

  /// Removes all entries; the memory is kept. \throws ReadOnlyException.
  void clear() {
    requireWritable("remove");
    removeAll();
  }

  /// Walks the entries in no particular order. The loop's body may write to the table: each key
  /// that was there at the start and stays is visited.
  ///
  /// Advancing throws CorruptionDetectedException, which ends the walk.
  Iterator begin() const { return Iterator(*this); }
  std::default_sentinel_t end() const { return {}; }
  /// The keys there are.
  std::vector<Key> keys() const;

  /// Checks every entry, drops what is damaged and builds the chains anew. Returns how many
  /// entries were dropped; each was reported to corruptionDetected(). Readers wait meanwhile.
  /// \throws ReadOnlyException.
  size_t validate() {
    requireWritable("validate");
    return repair();
  }

  /// Removes all entries, and the table's name: it is gone once the last process lets go of it.
  /// \throws ReadOnlyException.
  void cleanup() {
    requireWritable("cleanup");
    removeAll();
    memory().remove();
  }

 private:
  using Word = uint64_t;
  static constexpr size_t kKeyWords = (sizeof(Key) + sizeof(Word) - 1) / sizeof(Word);
  static constexpr size_t kValueWords = (sizeof(Value) + sizeof(Word) - 1) / sizeof(Word);
  /// An entry's bytes: the key, then the value, each filled up with zeroes.
  using Words = std::array<Word, kKeyWords + kValueWords>;

  /// A number that changes with every change to a slot, and what state the slot is in.
  static constexpr uint32_t kBusy = 1;  ///< is being written
  static constexpr uint32_t kLive = 2;  ///< holds an entry; with kBusy, an entry that is replaced
  static constexpr uint32_t kChange = 4;

  struct Slot {
    std::atomic<uint32_t> sequence;
    std::atomic<uint32_t> checksum;
    std::array<std::atomic<Word>, kKeyWords + kValueWords> words;
  };

  /// Refers to a slot: its number plus one, and above that the top bits of its entry's hash, so
  /// that few slots are looked at in vain. Zero ends a chain.
  using Link = uint32_t;
  static constexpr uint32_t kSlotBits = 24;
  static constexpr uint32_t kSlotMask = (uint32_t{1} << kSlotBits) - 1;
  static constexpr uint32_t kNone = kSlotMask;
  /// Chains are two long on average at most, so a longer one is a loop.
  static constexpr uint32_t kMaxChain = 128;

  struct ChainNode {
    std::atomic<Link> next;
    std::atomic<uint32_t> hash;
  };

  static constexpr uint32_t kSlotsPerSegment = 1024;
  struct Segment {
    std::array<std::atomic<Link>, kSlotsPerSegment> heads;
    std::array<ChainNode, kSlotsPerSegment> nodes;
    std::array<Slot, kSlotsPerSegment> slots;
  };
  static constexpr size_t kMaxSegments = kSlotMask / kSlotsPerSegment;

  struct Top {
    TableHeader header;
    /// The last replacement of a value, written before the slot: a writer that dies halfway
    /// through the slot leaves here what was to stand in it.
    std::atomic<uint32_t> journalSlot;
    Slot journal;
  };
  static constexpr size_t kPage = 4096;
  static constexpr size_t kTopBytes = (sizeof(Top) + kPage - 1) / kPage * kPage;

  static constexpr Shape kShape = {.keyBytes = sizeof(Key),
                                   .valueBytes = sizeof(Value),
                                   .slotsPerSegment = kSlotsPerSegment,
                                   .topBytes = kTopBytes,
                                   .segmentBytes = sizeof(Segment),
                                   .maxSegments = kMaxSegments};

  /// Where a key's slot is, and the link that leads there.
  struct Place {
    std::atomic<Link>* from;
    uint32_t slot;
  };

  // Places in the memory. Indices are checked by the callers.
  Top& top() const { return *reinterpret_cast<Top*>(memory().base()); }
  Segment& segment(uint32_t index) const {
    return reinterpret_cast<Segment*>(memory().base() + kTopBytes)[index / kSlotsPerSegment];
  }
  std::atomic<Link>& head(uint32_t bucket) const {
    return segment(bucket).heads[bucket % kSlotsPerSegment];
  }
  ChainNode& node(uint32_t slot) const { return segment(slot).nodes[slot % kSlotsPerSegment]; }
  Slot& slotAt(uint32_t slot) const { return segment(slot).slots[slot % kSlotsPerSegment]; }
  std::atomic<uint32_t>& version(uint32_t bucket) const {
    return header().versions[bucket % TableHeader::kVersions];
  }

  static Words pack(const Key& key) {
    Words words{};
    std::memcpy(words.data(), &key, sizeof(Key));
    return words;
  }
  static Words pack(const Key& key, const Value& value) {
    Words words = pack(key);
    std::memcpy(words.data() + kKeyWords, &value, sizeof(Value));
    return words;
  }
  template <class T>
  static T unpack(const Word* words) {
    std::array<std::byte, sizeof(T)> bytes;
    std::memcpy(bytes.data(), words, sizeof(T));
    return std::bit_cast<T>(bytes);
  }
  static Key keyOf(const Words& words) { return unpack<Key>(words.data()); }
  static Value valueOf(const Words& words) { return unpack<Value>(words.data() + kKeyWords); }
  static bool sameKey(const Words& a, const Words& b) {
    return std::memcmp(a.data(), b.data(), kKeyWords * sizeof(Word)) == 0;
  }

  uint64_t fullHash(const Words& words) const;
  static uint32_t shorten(uint64_t hash) { return static_cast<uint32_t>(hash ^ (hash >> 32)); }
  uint32_t hashOf(const Words& words) const { return shorten(fullHash(words)); }
  uint32_t checksumOf(uint32_t slot, const Words& words) const;
  static Link linkTo(uint32_t slot, uint32_t hash) { return (slot + 1) | (hash & ~kSlotMask); }
  static uint32_t slotOf(Link link) { return (link & kSlotMask) - 1; }
  static bool mayMatch(Link link, uint32_t hash) { return ((link ^ hash) & ~kSlotMask) == 0; }
  /// The chain of `hash` when there are `buckets` chains.
  static uint32_t bucketOf(uint32_t hash, uint32_t buckets) {
    const uint32_t mask = std::bit_ceil(buckets) - 1;
    const uint32_t bucket = hash & mask;
    return bucket < buckets ? bucket : hash & (mask >> 1);
  }

  static void load(const Slot& from, Words& words);
  bool read(uint32_t slot, Words& words) const;
  void write(Slot& slot, uint32_t number, const Words& words) const;
  void replace(uint32_t slot, const Words& words);
  void insert(uint32_t hash, const Words& words);
  void link(uint32_t slot, uint32_t hash);
  void splitChain();
  void unlink(const Place& place, uint32_t hash);
  void beginChange(std::atomic<uint32_t>& version) const;
  void endChange(std::atomic<uint32_t>& version) const;

  bool lookUp(uint32_t hash, Words& words) const;
  Place find(uint32_t hash, const Words& key) const;
  Place findOrRepair(uint32_t hash, Words& words, bool checked);
  uint32_t usedSlots() const;

  size_t repair();
  bool settle(uint32_t slot);
  void free(uint32_t slot);
  void removeAll();
  void drop(uint32_t slot, const char* what);

  Kiv::HashSeed seed_;
  // The writer's own: nothing that it relies on can be changed from outside.
  uint32_t buckets_ = kSlotsPerSegment;
  uint32_t used_ = 0;
  uint32_t size_ = 0;
  uint32_t firstFree_ = kNone;
};

/// Walks a table's entries, each copied as it stood at one moment.
template <class Key, class Value>
class TovanMap<Key, Value>::Iterator {
 public:
  using value_type = Item;
  using difference_type = std::ptrdiff_t;

  explicit Iterator(const TovanMap& map) : map_(&map) { settle(); }

  Item operator*() const { return {keyOf(words_), valueOf(words_)}; }
  Iterator& operator++() {
    ++slot_;
    settle();
    return *this;
  }
  void operator++(int) { ++*this; }
  bool operator==(std::default_sentinel_t) const { return slot_ >= map_->usedSlots(); }

 private:
  void settle() {
    while (*this != std::default_sentinel && !map_->read(slot_, words_)) ++slot_;
  }

  const TovanMap* map_;
  uint32_t slot_ = 0;
  Words words_;
};

template <class Key, class Value>
TovanMap<Key, Value>::TovanMap(const TableConfig& config)
    : Table(config, kShape), seed_(header().identity.seed) {
  if (isTakenOver()) repair();
}

// Reading.

template <class Key, class Value>
uint64_t TovanMap<Key, Value>::fullHash(const Words& words) const {
  uint64_t hash = seed_.add;
  for (size_t i = 0; i < kKeyWords; ++i) hash = Kiv::detail::fold(hash ^ words[i], seed_.multiply);
  return hash;
}

/// Depends on the slot too: an entry that stands in another's place is found out.
template <class Key, class Value>
uint32_t TovanMap<Key, Value>::checksumOf(uint32_t slot, const Words& words) const {
  uint64_t sum = fullHash(words) + slot;
  size_t i = kKeyWords;
  for (; i + 1 < words.size(); i += 2) {
    sum = Kiv::detail::fold(sum ^ words[i], seed_.multiply ^ words[i + 1]);
  }
  if (i < words.size()) sum = Kiv::detail::fold(sum ^ words[i], seed_.multiply);
  return shorten(sum);
}

template <class Key, class Value>
void TovanMap<Key, Value>::load(const Slot& from, Words& words) {
  for (size_t i = 0; i < words.size(); ++i) {
    words[i] = from.words[i].load(std::memory_order_relaxed);
  }
}

/// Copies a slot's entry as it stood at one moment; false when it holds none.
template <class Key, class Value>
bool TovanMap<Key, Value>::read(uint32_t slot, Words& words) const {
  const Slot& from = slotAt(slot);
  for (Patience patience(memory());;) {
    const uint32_t sequence = from.sequence.load(std::memory_order_acquire);
    if ((sequence & kLive) == 0) return false;
    if ((sequence & kBusy) == 0) {
      load(from, words);
      const uint32_t sum = from.checksum.load(std::memory_order_relaxed);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (from.sequence.load(std::memory_order_relaxed) == sequence) {
        if (sum != checksumOf(slot, words)) throw corrupt("slot", slot, "has a wrong checksum");
        return true;
      }
    }
    if (!patience.again()) throw corrupt("slot", slot, "is left in the middle of an update");
  }
}

/// Completes `words`, which holds a key, by its value; false when the key is not there.
template <class Key, class Value>
bool TovanMap<Key, Value>::lookUp(uint32_t hash, Words& words) const {
  const Words key = words;
  for (Patience patience(memory());;) {
    const uint32_t buckets = header().buckets.load(std::memory_order_acquire);
    const char* fault = nullptr;
    uint32_t bucket = 0;
    uint32_t before = 0;
    if (buckets == 0 || !isBacked(buckets - 1)) {
      fault = "of so many is impossible";
    } else {
      bucket = bucketOf(hash, buckets);
      before = version(bucket).load(std::memory_order_acquire);
      Link link = head(bucket).load(std::memory_order_acquire);
      for (uint32_t length = 0; link != 0 && fault == nullptr; ++length) {
        const uint32_t slot = slotOf(link);
        if (length == kMaxChain || !isBacked(slot)) {
          fault = "has a damaged chain";
        } else if (mayMatch(link, hash) && !read(slot, words)) {
          fault = "leads to an empty slot";
        } else if (mayMatch(link, hash) && sameKey(words, key)) {
          return true;
        } else {
          link = node(slot).next.load(std::memory_order_acquire);
        }
      }
    }
    // Nothing counts as found, neither the absence nor a fault, while the chain is being changed.
    std::atomic_thread_fence(std::memory_order_acquire);
    const uint32_t now = header().buckets.load(std::memory_order_relaxed);
    const bool changing = before % 2 != 0;
    if (!changing && (now == buckets || bucketOf(hash, now) == bucket) &&
        version(bucket).load(std::memory_order_relaxed) == before) {
      if (fault != nullptr) throw corrupt("bucket", bucket, fault);
      return false;
    }
    if (!patience.again()) {
      throw corrupt("bucket", bucket, "is left in the middle of an update");
    }
  }
}

template <class Key, class Value>
std::optional<Value> TovanMap<Key, Value>::get(const Key& key) const {
  Words words = pack(key);
  const uint32_t hash = hashOf(words);
  if (isReadOnly()) {
    if (!lookUp(hash, words)) return std::nullopt;
  } else {
    const uint32_t slot = find(hash, words).slot;
    if (slot == kNone || !read(slot, words)) return std::nullopt;
  }
  return valueOf(words);
}

template <class Key, class Value>
uint32_t TovanMap<Key, Value>::usedSlots() const {
  if (!isReadOnly()) return used_;
  const uint32_t used = header().used.load(std::memory_order_acquire);
  if (used != 0 && !isBacked(used - 1)) throw corrupt("slot", used - 1, "is outside the memory");
  return used;
}

template <class Key, class Value>
std::vector<Key> TovanMap<Key, Value>::keys() const {
  std::vector<Key> keys;
  keys.reserve(size());
  for (const auto& item : *this) keys.push_back(item.key);
  return keys;
}

// Writing. Every step leaves what repair() can put right; an entry is in the table from the moment
// its slot says so.

/// The writer's own look-up: nothing changes meanwhile.
template <class Key, class Value>
typename TovanMap<Key, Value>::Place TovanMap<Key, Value>::find(uint32_t hash,
                                                                const Words& key) const {
  const uint32_t bucket = bucketOf(hash, buckets_);
  auto* from = &head(bucket);
  for (uint32_t length = 0; length < kMaxChain; ++length) {
    const Link link = from->load(std::memory_order_relaxed);
    if (link == 0) return {from, kNone};
    const uint32_t slot = slotOf(link);
    if (slot >= used_) break;
    if (mayMatch(link, hash)) {
      Words words;
      load(slotAt(slot), words);
      if (sameKey(words, key)) return {from, slot};
      if (!read(slot, words)) throw corrupt("bucket", bucket, "leads to an empty slot");
    }
    from = &node(slot).next;
  }
  throw corrupt("bucket", bucket, "has a damaged chain");
}

/// find() for a writer that goes on after damage, which it repairs. `checked` also looks at the
/// entry, and completes `words` by its value.
template <class Key, class Value>
typename TovanMap<Key, Value>::Place TovanMap<Key, Value>::findOrRepair(uint32_t hash, Words& words,
                                                                        bool checked) {
  const Words key = words;
  for (bool repaired = false;; repaired = true) {
    try {
      const Place place = find(hash, key);
      if (checked && place.slot != kNone && !read(place.slot, words)) {
        throw corrupt("slot", place.slot, "is empty but in use");
      }
      return place;
    } catch (const CorruptionDetectedException& e) {
      if (repaired) throw;
      corruptionDetected(e.what());
      repair();
    }
  }
}

template <class Key, class Value>
void TovanMap<Key, Value>::write(Slot& slot, uint32_t number, const Words& words) const {
  for (size_t i = 0; i < words.size(); ++i) {
    slot.words[i].store(words[i], std::memory_order_relaxed);
  }
  slot.checksum.store(checksumOf(number, words), std::memory_order_relaxed);
}

template <class Key, class Value>
void TovanMap<Key, Value>::replace(uint32_t slot, const Words& words) {
  top().journalSlot.store(slot, std::memory_order_relaxed);
  write(top().journal, slot, words);
  std::atomic_thread_fence(std::memory_order_release);
  Slot& to = slotAt(slot);
  const uint32_t sequence = (to.sequence.load(std::memory_order_relaxed) & ~kBusy) | kLive;
  to.sequence.store(sequence | kBusy, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  write(to, slot, words);
  to.sequence.store(sequence + kChange, std::memory_order_release);
}

template <class Key, class Value>
void TovanMap<Key, Value>::insert(uint32_t hash, const Words& words) {
  uint32_t slot = firstFree_;
  if (slot == kNone) {
    if (used_ == slots()) addSegment();
    slot = used_++;
    header().used.store(used_, std::memory_order_release);
  } else {
    firstFree_ = node(slot).next.load(std::memory_order_relaxed);
  }
  Slot& to = slotAt(slot);
  const uint32_t sequence = to.sequence.load(std::memory_order_relaxed) & ~(kBusy | kLive);
  to.sequence.store(sequence | kBusy, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  write(to, slot, words);
  to.sequence.store((sequence + kChange) | kLive, std::memory_order_release);

  link(slot, hash);
  header().size.store(++size_, std::memory_order_relaxed);
  if (size_ > buckets_) splitChain();
}

/// Puts a slot at the front of its chain.
template <class Key, class Value>
void TovanMap<Key, Value>::link(uint32_t slot, uint32_t hash) {
  auto& first = head(bucketOf(hash, buckets_));
  node(slot).hash.store(hash, std::memory_order_relaxed);
  node(slot).next.store(first.load(std::memory_order_relaxed), std::memory_order_release);
  first.store(linkTo(slot, hash), std::memory_order_release);
}

template <class Key, class Value>
void TovanMap<Key, Value>::beginChange(std::atomic<uint32_t>& version) const {
  version.store(version.load(std::memory_order_relaxed) | 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
}

template <class Key, class Value>
void TovanMap<Key, Value>::endChange(std::atomic<uint32_t>& version) const {
  version.store(version.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

/// Adds a chain, made of those members of one other chain that belong there now.
template <class Key, class Value>
void TovanMap<Key, Value>::splitChain() {
  const uint32_t added = buckets_;
  const uint32_t split = added ^ std::bit_floor(added);
  std::atomic<Link>* tails[] = {&head(split), &head(added)};
  Link link = tails[0]->load(std::memory_order_relaxed);
  beginChange(version(split));
  for (uint32_t length = 0; link != 0; ++length) {
    const uint32_t slot = slotOf(link);
    if (slot >= used_ || length == kMaxChain) break;  // damaged: found by the next look-up
    ChainNode& member = node(slot);
    const uint32_t hash = member.hash.load(std::memory_order_relaxed);
    auto& tail = tails[bucketOf(hash, added + 1) == added];
    tail->store(link, std::memory_order_release);
    tail = &member.next;
    link = member.next.load(std::memory_order_relaxed);
  }
  tails[0]->store(0, std::memory_order_release);
  tails[1]->store(0, std::memory_order_release);
  header().buckets.store(++buckets_, std::memory_order_release);
  endChange(version(split));
}

template <class Key, class Value>
std::optional<Value> TovanMap<Key, Value>::erase(const Key& key) {
  requireWritable("remove");
  Words words = pack(key);
  const uint32_t hash = hashOf(words);
  const Place place = findOrRepair(hash, words, true);
  if (place.slot == kNone) return std::nullopt;
  unlink(place, hash);
  return valueOf(words);
}

template <class Key, class Value>
void TovanMap<Key, Value>::unlink(const Place& place, uint32_t hash) {
  auto& changed = version(bucketOf(hash, buckets_));
  beginChange(changed);
  place.from->store(node(place.slot).next.load(std::memory_order_relaxed),
                    std::memory_order_release);
  endChange(changed);
  free(place.slot);
  header().size.store(--size_, std::memory_order_relaxed);
}

/// Makes a slot that no chain leads to any more available.
template <class Key, class Value>
void TovanMap<Key, Value>::free(uint32_t slot) {
  auto& sequence = slotAt(slot).sequence;
  sequence.store((sequence.load(std::memory_order_relaxed) & ~(kBusy | kLive)) + kChange,
                 std::memory_order_release);
  node(slot).next.store(firstFree_, std::memory_order_release);
  firstFree_ = slot;
}

template <class Key, class Value>
bool TovanMap<Key, Value>::set(const Key& key, const Value& value) {
  requireWritable("write");
  Words words = pack(key, value);
  const uint32_t hash = hashOf(words);
  const uint32_t slot = findOrRepair(hash, words, false).slot;
  if (slot == kNone) {
    insert(hash, words);
  } else {
    replace(slot, words);
  }
  return slot == kNone;
}

template <class Key, class Value>
void TovanMap<Key, Value>::removeAll() {
  for (uint32_t slot = 0; slot < used_; ++slot) {
    auto& sequence = slotAt(slot).sequence;
    sequence.store(sequence.load(std::memory_order_relaxed) & ~(kBusy | kLive),
                   std::memory_order_release);
  }
  repair();
}

// Repair.

template <class Key, class Value>
void TovanMap<Key, Value>::drop(uint32_t slot, const char* what) {
  corruptionDetected(corrupt("slot", slot, what).what());
  free(slot);
}

/// Ends what a killed writer began in the slot. Returns whether a sound entry stands in it.
template <class Key, class Value>
bool TovanMap<Key, Value>::settle(uint32_t slot) {
  Slot& at = slotAt(slot);
  const uint32_t sequence = at.sequence.load(std::memory_order_relaxed);
  const bool replaced = (sequence & kBusy) != 0;
  if ((sequence & kLive) == 0) {
    free(slot);
    return false;
  }
  const bool inJournal = replaced && top().journalSlot.load(std::memory_order_relaxed) == slot;
  const Slot& from = inJournal ? top().journal : at;
  Words words;
  load(from, words);
  if (from.checksum.load(std::memory_order_relaxed) != checksumOf(slot, words)) {
    drop(slot, replaced ? "was left in the middle of an update" : "has a wrong checksum");
    return false;
  }
  if (replaced) replace(slot, words);
  return true;
}

/// Settles every slot, then derives the chains and all counts from what stands in the slots.
template <class Key, class Value>
size_t TovanMap<Key, Value>::repair() {
  const size_t before = corruptions();
  for (auto& changed : header().versions) beginChange(changed);
  for (uint32_t bucket = 0; bucket < slots(); ++bucket) {
    head(bucket).store(0, std::memory_order_relaxed);
  }
  used_ = slots();
  while (used_ > 0 && slotAt(used_ - 1).sequence.load(std::memory_order_relaxed) == 0) --used_;
  firstFree_ = kNone;
  size_ = 0;
  for (uint32_t slot = used_; slot-- > 0;) size_ += settle(slot);
  buckets_ = std::max(size_, kSlotsPerSegment);
  for (uint32_t slot = 0; slot < used_; ++slot) {
    if ((slotAt(slot).sequence.load(std::memory_order_relaxed) & kLive) == 0) continue;
    Words words;
    load(slotAt(slot), words);
    const uint32_t hash = hashOf(words);
    if (find(hash, words).slot == kNone) {
      link(slot, hash);
    } else {
      --size_;
      drop(slot, "has the key of another");
    }
  }
  header().used.store(used_, std::memory_order_release);
  header().size.store(size_, std::memory_order_relaxed);
  header().buckets.store(buckets_, std::memory_order_release);
  for (auto& changed : header().versions) endChange(changed);
  return corruptions() - before;
}

}  // namespace Tovan
