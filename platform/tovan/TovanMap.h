// A hash map in shared memory: one writer, readers in other processes.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <iterator>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/kiv/containers/Prefetch.h"
#include "platform/tovan/Dropped.h"
#include "platform/tovan/Table.h"

namespace Tovan {

/// A hash map that one process writes and any number of others read while it does.
///
/// A reader finds every entry as it was before or after an update. A writer may be killed at any
/// instruction: the next one finds every entry whose update had completed, and puts the rest right
/// when it opens the table. An object is used by one thread; each process, and each further thread,
/// opens the table anew.
///
/// Entries stand in pages of a few dozen slots, probed linearly. A directory leads from the low
/// bits of a key's hash to its page (extendible hashing). A page that fills up is copied into two
/// fresh ones, so no insertion pays for growth alone; only the directory, eight bytes for some
/// twenty entries, is now and then doubled at once. The table does not shrink: pages are used
/// again.
///
/// Whatever is read from the memory is checked before it is used: damage is reported by
/// CorruptionDetectedException. The writer's own set(), add() and erase() repair the table instead,
/// report to corruptionDetected(), and go on.
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
  /// \throws CorruptionDetectedException; on a reader BusyException.
  std::optional<Value> get(const Key& key) const;

  /// Begins to fetch what get() is going to read; worth it for the writer only.
  void prefetch(const Key& key) const;

  /// Stores `value` under `key`. Returns whether the key is new.
  /// \throws NoSpaceException, changing nothing; ReadOnlyException.
  bool set(const Key& key, const Value& value);

  /// Stores `value` under a key that is new, which set() would have to make sure of.
  /// \pre the key is not there \throws as set().
  void add(const Key& key, const Value& value);

  /// Removes `key`. Returns the value it had, or nothing.
  /// \throws ReadOnlyException.
  std::optional<Value> erase(const Key& key);

  /// Tells versions of an entry apart: where it stands, and how often that place has changed.
  struct Version {
    uint64_t page = 0;
    uint32_t slot = 0;
    uint32_t sequence = 0;

    friend bool operator==(const Version&, const Version&) = default;
  };
  /// The version of the entry of `key`, which get() before or after may not have found as it is.
  /// When two calls give the same, the entry was there in between and did not change. Nothing when
  /// there is no such entry, or it is just being written.
  std::optional<Version> version(const Key& key) const;

  /// How many entries there are. A reader whose table cannot have as many as it says counts them.
  size_t size() const;

  /// Removes all entries; the memory is kept. \throws ReadOnlyException.
  void clear() {
    requireWritable("remove to read-only Tovan table");
    removeAll();
  }

  /// Walks the entries in no particular order. The loop's body may write to the table: each key
  /// that was there at the start and still is when its turn comes is visited, and none twice.
  ///
  /// Advancing throws what get() throws, which ends the walk.
  Iterator begin() const { return Iterator(*this); }
  std::default_sentinel_t end() const { return {}; }
  /// Calls `visit` with each entry that is sound, in no order, and `damaged` with a message for
  /// each slot that is not. \throws as get() when more than a slot cannot be read.
  template <class Visit, class Damaged>
  void forEachSound(Visit visit, Damaged damaged) const;
  /// The keys there are.
  std::vector<Key> keys() const;

  /// Checks every entry, drops what is damaged and builds the directory anew. Returns how many
  /// faults were found; each was reported to corruptionDetected(). Readers that miss wait
  /// meanwhile. \throws ReadOnlyException.
  size_t validate() {
    requireWritable("validate to read-only Tovan table");
    return repair();
  }
  /// Looks whether the header is as this writer left it and the file as long, and repairs what is
  /// not. Each change does so, too: this is for times without any. Once in a round it also looks
  /// whether the name still leads here and all pages are sound, which nobody else does with pages
  /// that are not written. Where memory was refused, it asks for more again.
  /// \throws NoSpaceException, ReadOnlyException.
  void tend(TendRound& round);
  /// What was given up as damaged since this was last called, if anything.
  std::optional<Dropped<Key>> takeDropped() {
    return dropped_ ? std::exchange(dropped_, std::nullopt) : std::nullopt;
  }

  /// Removes all entries, and the table's name: it is gone once the last process lets go of it.
  /// \throws ReadOnlyException.
  void cleanup() {
    requireWritable("cleanup to read-only Tovan table");
    removeAll();
    memory().remove();
  }

 private:
  using Word = uint64_t;
  static constexpr size_t kKeyWords = (sizeof(Key) + sizeof(Word) - 1) / sizeof(Word);
  static constexpr size_t kValueWords = (sizeof(Value) + sizeof(Word) - 1) / sizeof(Word);
  /// An entry's bytes: the key, then the value, each filled up with zeroes.
  using Words = std::array<Word, kKeyWords + kValueWords>;

  // The low bits of a slot's sequence say what it holds, the others count its changes. A slot
  // without any of the bits is free, and ends the search for a key.
  static constexpr uint32_t kBusy = 1;  ///< is being written
  static constexpr uint32_t kLive = 2;  ///< holds an entry; with kBusy, an entry that is replaced
  static constexpr uint32_t kGone = 4;  ///< held an entry: a search goes on behind it
  static constexpr uint32_t kState = kBusy | kLive | kGone;
  static constexpr uint32_t kChange = 8;
  // Stands in place of the checksum of an entry that is gone, lest a flipped bit brings it back.
  static constexpr uint32_t kSpoilt = 2;

  struct Slot {
    std::atomic<uint32_t> sequence;
    std::atomic<uint32_t> checksum;  ///< of the entry, an odd number; zero in a free slot
    std::array<std::atomic<Word>, kKeyWords + kValueWords> words;

    uint32_t state() const { return sequence.load(std::memory_order_relaxed) & kState; }
    bool isLive() const { return (state() & kLive) != 0; }
    void setState(uint32_t state) {
      sequence.store((sequence.load(std::memory_order_relaxed) & ~kState) + kChange + state,
                     std::memory_order_release);
    }
    /// Takes the entry out. A reader that finds the checksum spoilt finds the state changed, too.
    void retire() {
      setState(kGone);
      checksum.store(kSpoilt, std::memory_order_release);
    }
  };

  /// Pages are of a size that is quickly copied.
  static constexpr uint32_t kSlots =
      static_cast<uint32_t>(std::clamp<size_t>(3840 / sizeof(Slot), 16, 80));
  /// A page with more slots that are not free is copied when another is wanted.
  static constexpr uint32_t kMaxUsed = kSlots - kSlots / 8;

  /// The entries whose hash ends in the `depth` bits of `pattern`. Of two pages for an entry, the
  /// one of the higher serial number counts: a writer was killed while it copied the other.
  struct alignas(64) Page {
    std::atomic<uint32_t> serial;
    std::atomic<uint32_t> pattern;
    std::atomic<uint32_t> depth;
    std::atomic<uint32_t> seal;  ///< stored last: checksum of the above; zero for an unused page
    std::atomic<uint32_t> used;  ///< how many slots are not free
    alignas(64) std::array<Slot, kSlots> slots;  ///< no more of them across cache lines than must
  };

  static constexpr uint32_t kMaxDepth = 19;
  static constexpr uint32_t kNone = ~uint32_t{0};

  struct Top {
    TableHeader header;
    /// The last replacement of a value, written before the slot: a writer that dies halfway
    /// through the slot leaves here what was to stand in it.
    struct Journal {
      uint64_t offset;  ///< of the slot
      uint32_t checksum;
      Words words;
    } journal;
  };
  static constexpr size_t kMemoryPage = 4096;
  static constexpr size_t kTopBytes = (sizeof(Top) + kMemoryPage - 1) / kMemoryPage * kMemoryPage;
  static constexpr size_t kPagesAt = kTopBytes + (sizeof(uint64_t) << kMaxDepth);

  static constexpr Shape kShape = {.keyBytes = sizeof(Key),
                                   .valueBytes = sizeof(Value),
                                   .topBytes = kTopBytes,
                                   .pagesAt = kPagesAt,
                                   .pageBytes = sizeof(Page),
                                   .maxPages = size_t{1} << kMaxDepth};

  /// An entry of the directory: a page's number plus one, and above it the page's serial number, so
  /// that an entry which reads the same twice was the same in between.
  class PageRef {
   public:
    explicit PageRef(uint64_t bits) : bits_(bits) {}
    PageRef(uint32_t number, uint32_t serial) : bits_(uint64_t{serial} << 32 | (number + 1)) {}
    uint64_t bits() const { return bits_; }
    /// kNone for an empty entry.
    uint32_t number() const { return static_cast<uint32_t>(bits_) - 1; }
    uint32_t serial() const { return static_cast<uint32_t>(bits_ >> 32); }
    bool operator==(const PageRef&) const = default;

   private:
    uint64_t bits_;
  };

  // Places in the memory. Indices are checked by the callers.
  Top& top() const { return *reinterpret_cast<Top*>(memory().base()); }
  std::atomic<uint64_t>& directory(uint64_t hash, uint32_t depth) const {
    return reinterpret_cast<std::atomic<uint64_t>*>(memory().base() + kTopBytes)[low(hash, depth)];
  }
  Page& page(uint32_t number) const {
    return reinterpret_cast<Page*>(memory().base() + kPagesAt)[number];
  }
  uint64_t offsetOf(const Slot& slot) const {
    return static_cast<uint64_t>(reinterpret_cast<const std::byte*>(&slot) - memory().base());
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
  static void unpack(const Word* words, T& to);
  template <class T>
  static T blank() {
    return std::bit_cast<T>(std::array<std::byte, sizeof(T)>{});
  }
  template <class T>
  static T unpack(const Word* words) {
    T made = blank<T>();
    unpack(words, made);
    return made;
  }
  static Key keyOf(const Words& words) { return unpack<Key>(words.data()); }
  static Value valueOf(const Words& words) { return unpack<Value>(words.data() + kKeyWords); }
  static bool hasKey(const Slot& slot, const Words& key) {
    uint64_t differing = 0;
    for (size_t i = 0; i < kKeyWords; ++i) {
      differing |= slot.words[i].load(std::memory_order_relaxed) ^ key[i];
    }
    return differing == 0;
  }
  static bool sameKey(const Words& a, const Words& b) {
    uint64_t differing = 0;
    for (size_t i = 0; i < kKeyWords; ++i) differing |= a[i] ^ b[i];
    return differing == 0;
  }

  uint64_t hashOf(const Words& words) const;
  uint32_t checksumOf(uint64_t hash, const Words& words) const;
  static uint32_t low(uint64_t hash, uint32_t bits) {
    return static_cast<uint32_t>(hash) & ((uint32_t{1} << bits) - 1);
  }
  /// The slot of its page at which the search for a key begins.
  static uint32_t home(uint64_t hash) { return static_cast<uint32_t>((hash >> 32) * kSlots >> 32); }
  static uint32_t after(uint32_t slot) { return slot + 1 == kSlots ? 0 : slot + 1; }
  uint32_t sealOf(const Page& page) const;
  bool isSealed(const Page& page) const {
    return page.seal.load(std::memory_order_acquire) == sealOf(page);
  }

  static void load(const Slot& from, Words& words);
  bool read(const Slot& from, Words& words) const;
  [[gnu::always_inline]] inline bool readQuickly(const Slot& slot, uint64_t hash, const Words& key,
                                                 std::optional<Value>& value) const;
  std::optional<Value> readCarefully(uint64_t hash, const Words& key) const;
  static Slot* search(Page& page, uint64_t hash, const Words& key);
  const char* cutFault() const { return memory().isCut() ? "is cut off" : nullptr; }
  const char* headFault(PageRef ref, uint64_t hash) const;
  const char* missFault(PageRef ref, uint64_t hash) const;
  void verifyAbsence(PageRef ref, uint64_t hash, const Words& key) const;
  template <class Look>
  void inPage(uint64_t hash, const Look& look) const;
  template <class Look>
  void inMappedPage(uint64_t hash, const Look& look) const;
  bool readPage(uint32_t& pattern, std::vector<Words>& items,
                std::vector<std::string>* damages = nullptr) const;
  PageRef refOf(uint64_t hash) const;
  Slot* find(uint64_t hash, const Words& key) const;
  bool refresh(Words& words) const;

  void keep() {
    if (!isAsLeft()) [[unlikely]]
      mend();
  }
  void mend();
  void sizeIs(uint64_t size) {
    size_ = size;
    headerIs(kSize, guarded(static_cast<uint32_t>(size)));
  }
  /// Counts a change that has been made: what was known of the entries may not hold any more.
  void noteChange() { header().changes.store(++changes_, std::memory_order_release); }
  template <class Step>
  auto repairing(Step step);
  static void write(Slot& slot, uint32_t state, const Words& words, uint32_t checksum);
  void replace(Slot& slot, uint64_t hash, const Words& words);
  void insertNew(uint64_t hash, const Words& words);
  void insert(uint64_t hash, const Words& words);
  bool place(Page& in, uint32_t maxUsed, uint64_t hash, const Words& words, uint32_t checksum);
  void makeRoom(uint32_t number);
  bool rewrite(uint32_t number, bool split);
  void deepen();
  void provideDirectory(uint32_t depth);
  void reservePages(size_t count);
  uint32_t makePage(uint32_t pattern, uint32_t depth);
  void publish(uint32_t number);
  void freePage(uint32_t number);
  void fillHole(uint32_t pattern);
  static void freeSlots(Page& of);
  void removeAll();

  void inspect(TendRound& round);
  const char* pageFault(uint32_t number) const;
  const char* slotFault(Page& in, const Slot& slot) const;
  size_t repair();
  void settle(const Page& in, Slot& slot);
  void giveUp(const Page& in, const Slot& slot);
  static bool leadsTo(const Page& in, const Slot& slot, uint64_t hash);
  bool isInOrder(Page& what) const;
  void recount();

  Kiv::HashSeed seed_;
  // The writer's own: nothing that it relies on can be changed from outside.
  uint32_t depth_ = 0;
  uint32_t serial_ = 0;
  uint64_t size_ = 0;
  uint64_t changes_ = 1;
  std::vector<uint32_t> freePages_;  // with room for all there are
  std::optional<Dropped<Key>> dropped_;
  struct {
    uint64_t round = 0;
    uint32_t next = 0;  ///< the page to look at
  } inspected_;
  /// The last key that was found to be absent, and as of which change.
  mutable struct {
    Words key;
    uint64_t changes = 0;
  } missed_;
};

/// Walks a table's entries page by page, each entry copied as it stood at one moment.
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
  /// Goes on to the next entry that is still there.
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
  std::vector<Words> items_;  // of the page
  size_t at_ = 0;
  uint64_t changes_ = 0;
  uint32_t pattern_ = 0;  // of the next page
  bool more_ = true;
};

template <class Key, class Value>
TovanMap<Key, Value>::TovanMap(const TableConfig& config)
    : Table(config, kShape), seed_(header().identity.seed) {
  if (isReadOnly()) return;
  // Those who wait for a change of the table see the next ones, too. Never 0: see missed_.
  changes_ = (header().changes.load(std::memory_order_relaxed) & ~uint64_t{0} >> 1) + 1;
  try {
    repair();
  } catch (...) {
    if (isNew()) memory().remove();
    throw;
  }
  dropped_.reset();  // nobody has known of it
}

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
    // What can be read is counted.
  }
  return counted;
}

// Reading.

template <class Key, class Value>
uint64_t TovanMap<Key, Value>::hashOf(const Words& words) const {
  uint64_t hash = seed_.add;
  for (size_t i = 0; i < kKeyWords; ++i) hash = Kiv::detail::fold(hash ^ words[i], seed_.multiply);
  // Once more: of keys in a row, some seeds send so many to one page that it can be split no more.
  return Kiv::detail::fold(hash, seed_.multiply);
}

template <class Key, class Value>
uint32_t TovanMap<Key, Value>::checksumOf(uint64_t hash, const Words& words) const {
  uint64_t sum = hash;
  size_t i = kKeyWords;
  for (; i + 1 < words.size(); i += 2) {
    sum = Kiv::detail::fold(sum ^ words[i], seed_.multiply ^ words[i + 1]);
  }
  if (i < words.size()) sum = Kiv::detail::fold(sum ^ words[i], seed_.multiply);
  return static_cast<uint32_t>(sum >> 32) | 1;
}

template <class Key, class Value>
uint32_t TovanMap<Key, Value>::sealOf(const Page& page) const {
  const uint64_t what = uint64_t{page.pattern.load(std::memory_order_relaxed)} << 32 |
                        page.depth.load(std::memory_order_relaxed);
  const uint32_t serial = page.serial.load(std::memory_order_relaxed);
  return static_cast<uint32_t>(Kiv::detail::fold(what ^ seed_.add, seed_.multiply ^ serial)) | 1;
}

/// Copies word by word: a wider copy has to wait until words just stored have reached the cache.
template <class Key, class Value>
template <class T>
void TovanMap<Key, Value>::unpack(const Word* words, T& to) {
#pragma GCC unroll 8
  for (size_t at = 0; at < sizeof(T); at += sizeof(Word)) {
    std::memcpy(reinterpret_cast<std::byte*>(&to) + at, words + at / sizeof(Word),
                std::min(sizeof(Word), sizeof(T) - at));
  }
}

template <class Key, class Value>
void TovanMap<Key, Value>::load(const Slot& from, Words& words) {
#pragma GCC unroll 8
  for (size_t i = 0; i < words.size(); ++i) {
    words[i] = from.words[i].load(std::memory_order_relaxed);
  }
}

/// Copies a slot's entry as it stood at one moment; false when it holds none.
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

/// The slot in which the page holds `key`, or null.
template <class Key, class Value>
typename TovanMap<Key, Value>::Slot* TovanMap<Key, Value>::search(Page& page, uint64_t hash,
                                                                  const Words& key) {
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

/// What is wrong with a page to which the directory leads, or null.
template <class Key, class Value>
const char* TovanMap<Key, Value>::headFault(PageRef ref, uint64_t hash) const {
  const Page& in = page(ref.number());
  const uint32_t depth = in.depth.load(std::memory_order_relaxed);
  const bool isRight = isSealed(in) && in.serial.load(std::memory_order_relaxed) == ref.serial() &&
                       depth <= kMaxDepth &&
                       low(hash, depth) == in.pattern.load(std::memory_order_relaxed);
  return isRight ? nullptr : "is not what the directory says";
}

/// What is wrong when a page does not hold a key, or null: the page may not be the key's, and the
/// key may have stood in a slot that is damaged.
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

/// How readers look at the page of `hash`: calls `look` with its entry in the directory, and again
/// for as long as the page is replaced meanwhile. `look` returns whether what it found holds in any
/// case; else what it did not find, or found wrong, holds if nothing was replaced.
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

/// The same in the file as it is mapped by now.
template <class Key, class Value>
template <class Look>
void TovanMap<Key, Value>::inMappedPage(uint64_t hash, const Look& look) const {
  for (Patience patience(memory());;) {
    const uint64_t state = header().directory.load(std::memory_order_acquire);
    const uint32_t bits = static_cast<uint8_t>(state);
    if (bits > kMaxDepth) raise("directory of depth", bits, "is impossible");
    const auto& entry = directory(hash, bits);
    const PageRef ref(entry.load(std::memory_order_acquire));
    const char* fault = nullptr;
    if (!isBacked(ref.number())) {
      fault = "is outside the memory";
    } else if (look(ref, fault)) {
      return;
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    const bool underRepair = (state >> 8) % 2 != 0;
    if (!underRepair && entry.load(std::memory_order_relaxed) == ref.bits() &&
        header().directory.load(std::memory_order_relaxed) == state) {
      if (fault == nullptr) fault = cutFault();
      if (fault == nullptr) return;
      raise("page", ref.number(), fault);
    }
    if (!patience.again()) {
      raiseUnfinished(patience, "page", ref.number(), "is left in the middle of a change");
    }
  }
}

/// The writer's own way to the page of `hash`: nothing changes meanwhile.
template <class Key, class Value>
typename TovanMap<Key, Value>::PageRef TovanMap<Key, Value>::refOf(uint64_t hash) const {
  const PageRef ref(directory(hash, depth_).load(std::memory_order_relaxed));
  if (ref.number() >= pages()) raise("page", ref.number(), "is outside the memory");
  return ref;
}

/// Makes sure that the writer's search for `key` was right to find nothing.
template <class Key, class Value>
void TovanMap<Key, Value>::verifyAbsence(PageRef ref, uint64_t hash, const Words& key) const {
  const char* fault = missFault(ref, hash);
  if (fault == nullptr) fault = cutFault();
  if (fault != nullptr) raise("page", ref.number(), fault);
  missed_ = {.key = key, .changes = changes_};
}

/// The writer's look-up: the slot that holds `key`, or null.
template <class Key, class Value>
typename TovanMap<Key, Value>::Slot* TovanMap<Key, Value>::find(uint64_t hash,
                                                                const Words& key) const {
  const PageRef ref = refOf(hash);
  Slot* slot = search(page(ref.number()), hash, key);
  if (slot == nullptr) {
    verifyAbsence(ref, hash, key);
  } else if (slot->state() != kLive || slot->checksum.load(std::memory_order_relaxed) % 2 == 0) {
    raise("slot at byte", offsetOf(*slot), "is not as it was left");
  }
  return slot;
}

/// Sets `value` to what the slot has for `key`. False is no answer yet: it may be gone, being
/// written, or damaged.
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
  unpack(words.data() + kKeyWords, value.emplace(blank<Value>()));
  return true;
}

/// The same with all that makes the answer certain.
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
        // The entry may be gone by now, and another in its place.
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
std::optional<typename TovanMap<Key, Value>::Version> TovanMap<Key, Value>::version(
    const Key& key) const {
  const uint64_t hash = hashOf(pack(key));
  const uint32_t bits = depth();
  if (bits > kMaxDepth) return std::nullopt;
  const PageRef ref(directory(hash, bits).load(std::memory_order_acquire));
  if (!isBacked(ref.number())) return std::nullopt;
  Page& in = page(ref.number());
  const Slot* slot = search(in, hash, pack(key));
  if (slot == nullptr) return std::nullopt;
  const uint32_t sequence = slot->sequence.load(std::memory_order_acquire);
  if ((sequence & kState) != kLive) return std::nullopt;
  return Version{.page = ref.bits(),
                 .slot = static_cast<uint32_t>(slot - in.slots.data()),
                 .sequence = sequence};
}

template <class Key, class Value>
void TovanMap<Key, Value>::prefetch(const Key& key) const {
  if (isReadOnly()) return;
  const uint64_t hash = hashOf(pack(key));
  const PageRef ref(directory(hash, depth_).load(std::memory_order_relaxed));
  if (ref.number() >= pages()) return;
  const Slot* first = &page(ref.number()).slots[home(hash)];
  Kiv::prefetch(first);
  Kiv::prefetch(first + 1);
}

/// Copies the entries of the page of `pattern`, and sets `pattern` to that of the next page.
/// Returns false if this was the last.
///
/// The order is that of the patterns with their bits reversed. It is the same for any directory, so
/// a walk misses nothing and repeats nothing if pages are split meanwhile.
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
    // While a page is being split, its first half may stand in a page of its own already: it was
    // that page's turn before.
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

/// Brings a copied entry up to date; false when it is gone.
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

// Writing. Every step leaves what repair() can put right; an entry is in the table from the moment
// its slot says so.

/// Puts right what somebody else changed in the header or took from the file, and ends a repair
/// that was not completed.
template <class Key, class Value>
void TovanMap<Key, Value>::mend() {
  const bool isWhole = !memory().isCut() && (left(kDirectory) >> 8) % 2 == 0;
  if (isWhole) {
    restore();
  } else {
    repair();
  }
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
bool TovanMap<Key, Value>::set(const Key& key, const Value& value) {
  requireWritable("write to read-only Tovan table");
  keep();
  const Words words = pack(key, value);
  const uint64_t hash = hashOf(words);
  // As a rule, a new key was looked for in vain just before.
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

/// Puts in an entry whose key is not there. It may have been some time ago that this was found, so
/// its page is looked at once more.
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
  return valueOf(words);
}

/// Writes a slot so that readers see it before or after; `state` is kLive when it holds an entry.
template <class Key, class Value>
void TovanMap<Key, Value>::write(Slot& slot, uint32_t state, const Words& words,
                                 uint32_t checksum) {
  const uint32_t sequence = slot.sequence.load(std::memory_order_relaxed) & ~kState;
  // Who takes by this the slot's last entry for gone sees all that was before its removal, too.
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
  while (!place(page(number), kMaxUsed, hash, words, checksum)) {
    makeRoom(number);
    if (const char* fault = cutFault()) raise("page", number, fault);
    number = refOf(hash).number();
  }
}

/// Writes a new entry into a page in which fewer than `maxUsed` slots are used; false when there is
/// no room.
template <class Key, class Value>
bool TovanMap<Key, Value>::place(Page& in, uint32_t maxUsed, uint64_t hash, const Words& words,
                                 uint32_t checksum) {
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
    return true;
  }
  return false;
}

/// Copies a page so that there are free slots for its entries.
template <class Key, class Value>
void TovanMap<Key, Value>::makeRoom(uint32_t number) {
  const auto& slots = page(number).slots;
  const auto live = std::ranges::count_if(slots, [](const Slot& slot) { return slot.isLive(); });
  if (!rewrite(number, live > kSlots / 2)) recount();
}

/// Replaces a page by a fresh one or, with `split`, by one for each half of its entries. Returns
/// false when it had to give up entries.
template <class Key, class Value>
bool TovanMap<Key, Value>::rewrite(uint32_t number, bool split) {
  const Page& from = page(number);
  const uint32_t fromDepth = from.depth.load(std::memory_order_relaxed);
  const uint32_t depth = fromDepth + split;
  // What may fail for lack of memory comes first.
  reservePages(2);
  if (depth > depth_) deepen();
  bool isWhole = true;
  for (uint32_t half = 0; half <= split; ++half) {
    const uint32_t pattern = from.pattern.load(std::memory_order_relaxed) | half << fromDepth;
    // A writer may have been killed when it had made the first half.
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
        place(page(to), kSlots, hash, words, checksum);
      }
    }
    publish(to);
  }
  freePage(number);
  return isWhole;
}

/// Doubles the directory: each page is found through twice as many entries.
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

/// Sees to it that `count` unused pages are there.
template <class Key, class Value>
void TovanMap<Key, Value>::reservePages(size_t count) {
  while (freePages_.size() < count) {
    uint32_t number = pages();
    addPages();
    freePages_.reserve(pages());
    for (; number < pages(); ++number) freePages_.push_back(number);
  }
}

/// Takes an unused page; nothing leads to it yet.
template <class Key, class Value>
uint32_t TovanMap<Key, Value>::makePage(uint32_t pattern, uint32_t depth) {
  const uint32_t number = freePages_.back();
  freePages_.pop_back();
  Page& made = page(number);
  made.serial.store(++serial_, std::memory_order_relaxed);
  made.pattern.store(pattern, std::memory_order_relaxed);
  made.depth.store(depth, std::memory_order_relaxed);
  made.used.store(0, std::memory_order_relaxed);
  return number;
}

/// Puts a page that is complete into the directory.
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

/// Makes a page unused, its slots free.
template <class Key, class Value>
void TovanMap<Key, Value>::freePage(uint32_t number) {
  page(number).seal.store(0, std::memory_order_release);
  freeSlots(page(number));
  freePages_.push_back(number);
}

/// Makes a page for the entries of the directory around `pattern` that lead nowhere.
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
    // Not free before the checksum is zero, lest a reader takes it for a lost entry.
    slot.setState(kGone);
    slot.checksum.store(0, std::memory_order_release);
    slot.setState(0);
  }
  of.used.store(0, std::memory_order_relaxed);
}

template <class Key, class Value>
void TovanMap<Key, Value>::removeAll() {
  for (uint32_t number = 0; number < pages(); ++number) freeSlots(page(number));
  sizeIs(0);
  noteChange();
}

// Repair.

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
  if (isShort()) reservePages(freePages_.size() + 1);
}

/// Looks at the next pages of a round, and repairs the table if one of them is damaged.
template <class Key, class Value>
void TovanMap<Key, Value>::inspect(TendRound& round) {
  auto& [of, next] = inspected_;
  if (of != round.number()) return;
  while (next < pages() && round.takePage()) {
    const uint32_t number = next++;
    const char* fault = pageFault(number);
    if (fault == nullptr) continue;
    next = pages();  // a repair looks at them all
    // Where it finds nothing to give up or to announce, what it was called for is told here.
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

/// What is wrong with a page and what leads to it, or null. Nothing is being changed.
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

/// Ends what a killed writer began in a slot of a page, and gives up an entry that is damaged.
template <class Key, class Value>
void TovanMap<Key, Value>::settle(const Page& in, Slot& slot) {
  const uint32_t state = slot.state();
  const uint32_t checksum = slot.checksum.load(std::memory_order_relaxed);
  if (state == 0 && checksum == 0) return;
  if (state == kGone || state == kBusy) {
    // Of a removal or an insertion that was not completed, nothing is to be left.
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

/// Reports a damaged slot, and remembers the entry that goes with it.
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
    // Those who are told know that the keys are not all there are.
  }
}

/// Whether a search for `hash` comes by this slot of a page: else the key that stands there is not
/// the one that was stored.
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

/// Whether all entries of a page are found where the search for them leads.
template <class Key, class Value>
bool TovanMap<Key, Value>::isInOrder(Page& what) const {
  return std::ranges::all_of(what.slots, [&](const Slot& slot) {
    if (!slot.isLive()) return true;
    Words words;
    load(slot, words);
    return search(what, hashOf(words), words) == &slot;
  });
}

/// Derives the counts from what stands in the pages.
template <class Key, class Value>
void TovanMap<Key, Value>::recount() {
  uint64_t size = 0;
  for (uint32_t number = 0; number < pages(); ++number) {
    uint32_t used = 0;
    for (const Slot& slot : page(number).slots) {
      size += slot.isLive();
      used += slot.state() != 0;
    }
    page(number).used.store(used, std::memory_order_relaxed);
  }
  sizeIs(size);
}

/// Settles every slot, then derives the directory and all counts from what stands in the pages.
template <class Key, class Value>
size_t TovanMap<Key, Value>::repair() {
  const size_t before = corruptions();
  const uint64_t sizeBefore = size_;
  restore();
  const uint64_t repairs = left(kDirectory) >> 8 | 1;
  headerIs(kDirectory, repairs << 8 | static_cast<uint8_t>(left(kDirectory)));
  std::atomic_thread_fence(std::memory_order_seq_cst);
  noteChange();
  freePages_.clear();
  freePages_.reserve(pages());
  depth_ = 0;
  std::vector<uint32_t> kept;
  std::vector<uint32_t> damaged;
  for (uint32_t number = 0; number < pages(); ++number) {
    Page& found = page(number);
    if (found.seal.load(std::memory_order_relaxed) == 0) {
      freePage(number);
      continue;
    }
    for (Slot& slot : found.slots) settle(found, slot);
    const uint32_t depth = found.depth.load(std::memory_order_relaxed);
    if (isSealed(found) && depth <= kMaxDepth) {
      kept.push_back(number);
      depth_ = std::max(depth_, depth);
    } else {
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
    // How many entries of the directory lead to the page, of how many that should.
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
  headerIs(kDirectory, (repairs + 1) << 8 | depth_);
  noteChange();
  if (size_ < sizeBefore && !dropped_) dropped_.emplace();
  return corruptions() - before;
}

}  // namespace Tovan
