// A hash map in shared memory: one writer, readers in other processes.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <iterator>
#include <optional>
#include <span>
#include <stack>
#include <type_traits>
#include <vector>

#include "platform/tovan/IndexLine.h"
#include "platform/tovan/Table.h"

namespace Tovan {

/// A hash map that one process writes and any number of others read while it does.
///
/// A reader finds every entry as it was before or after an update. A writer may be killed at any
/// instruction: the next one finds every entry whose update had completed, and puts the rest right
/// when it opens the table. An object is used by one thread; each process, and each further thread,
/// opens the table anew.
///
/// Entries stand in slots and never move. An index of cache lines leads from a key's hash to its
/// slot; it has a line, a bucket, for every five slots or so, and spare lines for buckets that
/// overflow. The number of buckets follows that of the entries: an insertion splits one bucket now
/// and then (linear hashing), and none pays for growth alone. Slots and lines come in segments that
/// are appended to the memory. The table does not shrink: slots of erased entries are used again.
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

  static constexpr uint32_t kNone = Link::kMaxSlots;
  static constexpr uint32_t kSlotsPerSegment = 1024;
  static constexpr uint32_t kBucketsPerSegment = 192;
  static constexpr uint32_t kSparesPerSegment = 16;
  /// With ten links in a bucket on average at most, one of more lines than this is a loop.
  static constexpr uint32_t kMaxLines = 16;

  struct Segment {
    std::array<IndexLine, kBucketsPerSegment> buckets;
    std::array<IndexLine, kSparesPerSegment> spares;
    std::array<Slot, kSlotsPerSegment> slots;
  };
  static constexpr size_t kMaxSegments = Link::kMaxSlots / kSlotsPerSegment;

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
                                   .buckets = kBucketsPerSegment,
                                   .topBytes = kTopBytes,
                                   .segmentBytes = sizeof(Segment),
                                   .maxSegments = kMaxSegments};

  /// A link in the index, and the slot it leads to.
  struct Place {
    IndexLine* line;
    int place;
    uint32_t slot;
  };

  // Places in the memory. Indices are checked by the callers.
  Top& top() const { return *reinterpret_cast<Top*>(memory().base()); }
  Segment& segment(uint32_t index) const {
    return reinterpret_cast<Segment*>(memory().base() + kTopBytes)[index];
  }
  IndexLine& bucketAt(uint32_t bucket) const {
    return segment(bucket / kBucketsPerSegment).buckets[bucket % kBucketsPerSegment];
  }
  IndexLine& spareAt(uint32_t spare) const {
    return segment(spare / kSparesPerSegment).spares[spare % kSparesPerSegment];
  }
  Slot& slotAt(uint32_t slot) const {
    return segment(slot / kSlotsPerSegment).slots[slot % kSlotsPerSegment];
  }
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
    return std::equal(a.begin(), a.begin() + kKeyWords, b.begin());
  }
  static bool hasKey(const Slot& slot, const Words& key) {
    uint64_t differing = 0;
    for (size_t i = 0; i < kKeyWords; ++i) {
      differing |= slot.words[i].load(std::memory_order_relaxed) ^ key[i];
    }
    return differing == 0;
  }

  uint64_t hashOf(const Words& words) const;
  uint32_t checksumOf(uint32_t slot, uint64_t hash, const Words& words) const;
  uint32_t checksumOf(uint32_t slot, const Words& words) const {
    return checksumOf(slot, hashOf(words), words);
  }
  /// The bucket of `hash` when there are `buckets` of them.
  static uint32_t bucketOf(uint64_t hash, uint32_t buckets) {
    const uint32_t mask = std::bit_ceil(buckets) - 1;
    const uint32_t bucket = static_cast<uint32_t>(hash) & mask;
    return bucket < buckets ? bucket : bucket & (mask >> 1);
  }

  /// How many buckets a table of `size` entries has.
  static uint32_t bucketsFor(uint32_t size) {
    const auto buckets =
        (uint64_t{size} * kBucketsPerSegment + kSlotsPerSegment - 1) / kSlotsPerSegment;
    return std::max(static_cast<uint32_t>(buckets), kBucketsPerSegment);
  }
  uint32_t segments() const { return slots() / kSlotsPerSegment; }

  static void load(const Slot& from, Words& words);
  bool read(uint32_t slot, Words& words) const;
  template <class Visit>
  const char* visit(uint32_t bucket, uint32_t tag, Visit visitor) const;
  bool lookUp(uint64_t hash, Words& words) const;
  Place find(uint64_t hash, const Words& key) const;
  uint32_t usedSlots() const;

  template <class Step>
  auto repairing(Step step);
  static void write(Slot& slot, const Words& words, uint32_t checksum);
  void write(uint32_t slot, uint32_t state, const Words& words, uint32_t checksum);
  void replace(uint32_t slot, uint64_t hash, const Words& words);
  void insert(uint64_t hash, const Words& words);
  void link(uint32_t slot, uint64_t hash);
  void reserveSpare();
  uint32_t takeSpare();
  void splitBucket();
  void fill(uint32_t bucket, std::span<const Link> links);
  static void beginChange(std::atomic<uint32_t>& version);
  static void endChange(std::atomic<uint32_t>& version);
  void free(uint32_t slot);

  size_t repair();
  bool settle(uint32_t slot);
  void drop(uint32_t slot, const char* what);
  void removeAll();

  Kiv::HashSeed seed_;
  // The writer's own: nothing that it relies on can be changed from outside.
  uint32_t buckets_ = kBucketsPerSegment;
  uint32_t used_ = 0;
  uint32_t size_ = 0;
  uint32_t usedSpares_ = 0;
  std::stack<uint32_t> freeSlots_;
  std::stack<uint32_t> freeSpares_;
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
uint64_t TovanMap<Key, Value>::hashOf(const Words& words) const {
  uint64_t hash = seed_.add;
  for (size_t i = 0; i < kKeyWords; ++i) hash = Kiv::detail::fold(hash ^ words[i], seed_.multiply);
  return hash;
}

/// Depends on the slot too: an entry that stands in another's place is found out.
template <class Key, class Value>
uint32_t TovanMap<Key, Value>::checksumOf(uint32_t slot, uint64_t hash, const Words& words) const {
  uint64_t sum = hash + slot;
  size_t i = kKeyWords;
  for (; i + 1 < words.size(); i += 2) {
    sum = Kiv::detail::fold(sum ^ words[i], seed_.multiply ^ words[i + 1]);
  }
  if (i < words.size()) sum = Kiv::detail::fold(sum ^ words[i], seed_.multiply);
  return static_cast<uint32_t>(sum ^ (sum >> 32));
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

/// Calls `visitor` for the links with `tag` in a bucket, for all with tag 0, until it returns true.
/// Returns what is wrong with the bucket, or null.
template <class Key, class Value>
template <class Visit>
const char* TovanMap<Key, Value>::visit(uint32_t bucket, uint32_t tag, Visit visitor) const {
  IndexLine* line = &bucketAt(bucket);
  for (uint32_t lines = 1;; ++lines) {
    for (uint64_t places = tag == 0 ? line->places() : line->placesOf(tag); places != 0;
         places &= places - 1) {
      const int place = std::countr_zero(places);
      const uint32_t slot = line->at(place).slot();
      if (!isBacked(slot)) return "has a damaged link";
      if (visitor(Place{line, place, slot})) return nullptr;
    }
    const uint32_t next = line->next();
    if (next == 0) return nullptr;
    const uint32_t segment = (next - 1) / kSparesPerSegment;
    if (lines == kMaxLines || segment >= kMaxSegments || !isBacked(segment * kSlotsPerSegment)) {
      return "goes on to a wrong line";
    }
    line = &spareAt(next - 1);
  }
}

/// A reader's look-up. Completes `words`, which holds a key, by its value; false when the key is
/// not there.
template <class Key, class Value>
bool TovanMap<Key, Value>::lookUp(uint64_t hash, Words& words) const {
  const Words key = words;
  for (Patience patience(memory());;) {
    const uint32_t buckets = header().buckets.load(std::memory_order_acquire);
    const uint32_t segment = (buckets - 1) / kBucketsPerSegment;
    if (segment >= kMaxSegments || !isBacked(segment * kSlotsPerSegment)) {
      throw corrupt("bucket", buckets - 1, "is outside the memory");
    }
    const uint32_t bucket = bucketOf(hash, buckets);
    auto& changes = version(bucket);
    const uint32_t before = changes.load(std::memory_order_acquire);
    bool found = false;
    bool empty = false;
    const char* fault = visit(bucket, Link::tagOf(hash), [&](const Place& place) {
      empty = !read(place.slot, words);
      found = !empty && sameKey(words, key);
      return empty || found;
    });
    if (found) return true;
    // Neither absence nor a fault counts while the bucket is being changed.
    std::atomic_thread_fence(std::memory_order_acquire);
    const bool stable = before % 2 == 0 && changes.load(std::memory_order_relaxed) == before;
    if (stable && bucketOf(hash, header().buckets.load(std::memory_order_relaxed)) == bucket) {
      if (empty) fault = "leads to an empty slot";
      if (fault != nullptr) throw corrupt("bucket", bucket, fault);
      return false;
    }
    if (!patience.again()) throw corrupt("bucket", bucket, "is left in the middle of a change");
  }
}

template <class Key, class Value>
std::optional<Value> TovanMap<Key, Value>::get(const Key& key) const {
  Words words = pack(key);
  const uint64_t hash = hashOf(words);
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
typename TovanMap<Key, Value>::Place TovanMap<Key, Value>::find(uint64_t hash,
                                                                const Words& key) const {
  const uint32_t bucket = bucketOf(hash, buckets_);
  Place found{nullptr, 0, kNone};
  const char* fault = visit(bucket, Link::tagOf(hash), [&](const Place& place) {
    if (hasKey(slotAt(place.slot), key)) {
      found = place;
      return true;
    }
    Words other;  // shows whether it is another key, or this one damaged
    if (!read(place.slot, other)) throw corrupt("bucket", bucket, "leads to an empty slot");
    return false;
  });
  if (fault != nullptr) throw corrupt("bucket", bucket, fault);
  return found;
}

/// Runs `step`, and again after a repair if it finds damage: how a writer goes on after damage.
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
void TovanMap<Key, Value>::write(Slot& slot, const Words& words, uint32_t checksum) {
  for (size_t i = 0; i < words.size(); ++i) {
    slot.words[i].store(words[i], std::memory_order_relaxed);
  }
  slot.checksum.store(checksum, std::memory_order_relaxed);
}

/// Writes a slot so that readers see it before or after; `state` is kLive when it holds an entry.
template <class Key, class Value>
void TovanMap<Key, Value>::write(uint32_t slot, uint32_t state, const Words& words,
                                 uint32_t checksum) {
  Slot& to = slotAt(slot);
  const uint32_t sequence = to.sequence.load(std::memory_order_relaxed) & ~(kBusy | kLive);
  to.sequence.store(sequence | state | kBusy, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  write(to, words, checksum);
  to.sequence.store((sequence + kChange) | kLive, std::memory_order_release);
}

template <class Key, class Value>
void TovanMap<Key, Value>::replace(uint32_t slot, uint64_t hash, const Words& words) {
  const uint32_t checksum = checksumOf(slot, hash, words);
  top().journalSlot.store(slot, std::memory_order_relaxed);
  write(top().journal, words, checksum);
  std::atomic_thread_fence(std::memory_order_release);
  write(slot, kLive, words, checksum);
}

template <class Key, class Value>
void TovanMap<Key, Value>::insert(uint64_t hash, const Words& words) {
  // What may fail for lack of memory comes first.
  reserveSpare();
  if (freeSlots_.empty() && used_ == slots()) addSegment();
  uint32_t slot = used_;
  if (freeSlots_.empty()) {
    header().used.store(++used_, std::memory_order_release);
  } else {
    slot = freeSlots_.top();
    freeSlots_.pop();
  }
  write(slot, 0, words, checksumOf(slot, hash, words));
  link(slot, hash);
  header().size.store(++size_, std::memory_order_relaxed);
  if (bucketsFor(size_) > buckets_) splitBucket();
}

/// Puts a slot that holds an entry into its bucket.
template <class Key, class Value>
void TovanMap<Key, Value>::link(uint32_t slot, uint64_t hash) {
  IndexLine* line = &bucketAt(bucketOf(hash, buckets_));
  while (line->placesOf(0) == 0) {
    if (line->next() == 0) {
      const uint32_t spare = takeSpare();
      spareAt(spare).assign({}, 0);
      line->setNext(spare + 1);
    }
    line = &spareAt(line->next() - 1);
  }
  line->set(std::countr_zero(line->placesOf(0)), Link(slot, hash));
}

/// Sees to it that link() finds a spare line, should it need one.
template <class Key, class Value>
void TovanMap<Key, Value>::reserveSpare() {
  if (freeSpares_.empty() && usedSpares_ == segments() * kSparesPerSegment) addSegment();
}

template <class Key, class Value>
uint32_t TovanMap<Key, Value>::takeSpare() {
  if (freeSpares_.empty()) return usedSpares_++;
  const uint32_t spare = freeSpares_.top();
  freeSpares_.pop();
  return spare;
}

template <class Key, class Value>
void TovanMap<Key, Value>::beginChange(std::atomic<uint32_t>& version) {
  version.store(version.load(std::memory_order_relaxed) | 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
}

template <class Key, class Value>
void TovanMap<Key, Value>::endChange(std::atomic<uint32_t>& version) {
  version.store(version.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

/// Adds a bucket, made of those members of one other that belong there now.
template <class Key, class Value>
void TovanMap<Key, Value>::splitBucket() {
  const uint32_t added = buckets_;
  const uint32_t split = added ^ std::bit_floor(added);
  std::array<Link, kMaxLines * IndexLine::kLinks> members;
  size_t count = 0;
  const char* fault = visit(split, 0, [&](const Place& place) {
    members[count++] = place.line->at(place.place);
    __builtin_prefetch(&slotAt(place.slot));
    return false;
  });
  const auto bucket = [&](Link link) {
    Words words;
    load(slotAt(link.slot()), words);
    return bucketOf(hashOf(words), added + 1);
  };
  const auto stay = [&](Link link) { return bucket(link) == split; };
  const std::span<Link> all(members.data(), count);
  const std::span<Link> moving(std::partition(all.begin(), all.end(), stay), all.end());
  if (fault == nullptr && std::ranges::any_of(moving, [&](Link l) { return bucket(l) != added; })) {
    fault = "has a member of another";
  }
  if (fault != nullptr) {
    corruptionDetected(corrupt("bucket", split, fault).what());
    repair();
    return;
  }
  auto& changes = version(split);
  beginChange(changes);
  for (uint32_t next = bucketAt(split).next(); next != 0; next = spareAt(next - 1).next()) {
    freeSpares_.push(next - 1);
  }
  fill(added, moving);
  fill(split, all.first(count - moving.size()));
  header().buckets.store(++buckets_, std::memory_order_release);
  endChange(changes);
}

/// Makes `links` the members of a bucket; its spare lines have been given back.
template <class Key, class Value>
void TovanMap<Key, Value>::fill(uint32_t bucket, std::span<const Link> links) {
  IndexLine* line = &bucketAt(bucket);
  for (;;) {
    const size_t count = std::min(links.size(), IndexLine::kLinks);
    const uint32_t next = count < links.size() ? takeSpare() + 1 : 0;
    line->assign(links.first(count), next);
    if (next == 0) return;
    links = links.subspan(count);
    line = &spareAt(next - 1);
  }
}

template <class Key, class Value>
std::optional<Value> TovanMap<Key, Value>::erase(const Key& key) {
  requireWritable("remove");
  Words words = pack(key);
  const uint64_t hash = hashOf(words);
  const Place place = repairing([&] {
    const Place found = find(hash, pack(key));
    if (found.slot != kNone && !read(found.slot, words)) {
      throw corrupt("slot", found.slot, "is empty but in use");
    }
    return found;
  });
  if (place.slot == kNone) return std::nullopt;
  auto& changes = version(bucketOf(hash, buckets_));
  beginChange(changes);
  place.line->set(place.place, Link());
  endChange(changes);
  free(place.slot);
  header().size.store(--size_, std::memory_order_relaxed);
  return valueOf(words);
}

/// Makes a slot that the index does not lead to available.
template <class Key, class Value>
void TovanMap<Key, Value>::free(uint32_t slot) {
  auto& sequence = slotAt(slot).sequence;
  sequence.store((sequence.load(std::memory_order_relaxed) & ~(kBusy | kLive)) + kChange,
                 std::memory_order_release);
  freeSlots_.push(slot);
}

template <class Key, class Value>
bool TovanMap<Key, Value>::set(const Key& key, const Value& value) {
  requireWritable("write");
  const Words words = pack(key, value);
  const uint64_t hash = hashOf(words);
  const uint32_t slot = repairing([&] { return find(hash, words).slot; });
  if (slot == kNone) {
    insert(hash, words);
  } else {
    replace(slot, hash, words);
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
  if (replaced) replace(slot, hashOf(words), words);
  return true;
}

/// Settles every slot, then derives the index and all counts from what stands in the slots.
template <class Key, class Value>
size_t TovanMap<Key, Value>::repair() {
  const size_t before = corruptions();
  for (auto& changes : header().versions) beginChange(changes);
  freeSlots_ = {};
  freeSpares_ = {};
  usedSpares_ = 0;
  for (uint32_t bucket = 0; bucket < segments() * kBucketsPerSegment; ++bucket) fill(bucket, {});
  for (used_ = slots(); used_ > 0; --used_) {
    if (slotAt(used_ - 1).sequence.load(std::memory_order_relaxed) != 0) break;
  }
  size_ = 0;
  for (uint32_t slot = used_; slot-- > 0;) size_ += settle(slot);
  buckets_ = bucketsFor(size_);
  for (uint32_t slot = 0; slot < used_; ++slot) {
    if ((slotAt(slot).sequence.load(std::memory_order_relaxed) & kLive) == 0) continue;
    Words words;
    load(slotAt(slot), words);
    const uint64_t hash = hashOf(words);
    if (find(hash, words).slot == kNone) {
      reserveSpare();
      link(slot, hash);
    } else {
      --size_;
      drop(slot, "has the key of another");
    }
  }
  header().used.store(used_, std::memory_order_release);
  header().size.store(size_, std::memory_order_relaxed);
  header().buckets.store(buckets_, std::memory_order_release);
  for (auto& changes : header().versions) endChange(changes);
  return corruptions() - before;
}

}  // namespace Tovan
