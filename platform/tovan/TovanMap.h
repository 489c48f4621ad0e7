// A hash map in shared memory: one writer, and readers in other processes.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <iterator>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/kiv/containers/Prefetch.h"
#include "platform/tovan/Dropped.h"
#include "platform/tovan/MapLayout.h"
#include "platform/tovan/Table.h"

namespace Tovan {

/// A hash map that one process writes while any number of others read it.
///
/// A reader finds each entry as it was before or after an update. A writer may be killed at any
/// instruction: when the next one opens the table, it finds each entry whose update was completed,
/// and repairs the rest. An object is used by one thread; each process, and each further thread,
/// opens the table anew.
///
/// Entries are stored in pages of a few dozen slots, with linear probing. A directory leads from
/// the low bits of a key's hash to its page (extendible hashing). A page that is full is copied
/// into two new ones, so that no insertion has to move all entries. Only the directory, of eight
/// bytes for about twenty entries, is sometimes doubled at once. Two pages with few entries become
/// one again. The memory behind the last used page is given back; the file keeps its length.
///
/// Everything that is read from the memory is checked before it is used. Damage raises
/// CorruptionDetectedException. The writer's own set(), add() and erase() repair the table instead,
/// report to corruptionDetected(), and continue.
///
/// The implementation is in MapLayout.h (the memory), MapReading.h (look-ups), MapWriting.h
/// (changes), MapShrinking.h (the release of memory), and MapRepair.h (takeover, checks, repairs).
///
/// \tparam Key    trivially copyable, without padding: its bytes are its identity.
/// \tparam Value  trivially copyable, without pointers.
template <class Key, class Value>
class TovanMap : public Table, private MapLayout<Key, Value> {
  static_assert(std::is_trivially_copyable_v<Key> && std::is_trivially_copyable_v<Value>);
  static_assert(std::has_unique_object_representations_v<Key>, "a key must not have padding");

 public:
  /// A copy of an entry.
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

  /// Prefetches the memory that get() is going to read; useful to the writer only.
  ///
  /// \param isNew  whether the key is probably absent. Absence is checked with the page's head,
  /// too.
  void prefetch(const Key& key, bool isNew = false) const;
  /// The value in the memory of `key`, unchecked: only for a prefetch. Nothing if there is no such
  /// entry, and on a reader.
  std::optional<Value> peek(const Key& key) const;

  /// Stores `value` under `key`. Returns whether the key is new.
  /// \throws NoSpaceException, changing nothing; ReadOnlyException.
  bool set(const Key& key, const Value& value);

  /// As set(), but without a look-up, for a key that is known to be absent.
  /// \pre the key is absent \throws as set().
  void add(const Key& key, const Value& value);

  /// Removes `key`. Returns the value it had, or nothing.
  /// \throws ReadOnlyException.
  std::optional<Value> erase(const Key& key);

  /// Identifies a version of an entry: its place, and how often that place has changed.
  struct Version {
    uint64_t page = 0;
    uint32_t slot = 0;
    uint32_t sequence = 0;

    friend bool operator==(const Version&, const Version&) = default;
  };
  /// The version of the entry of `key`; nothing when there is no such entry, or it is being
  /// written. If two calls return the same version, the entry was there and did not change in
  /// between. A get() before or after a single call may have seen another version.
  std::optional<Version> version(const Key& key) const;

  /// The number of entries. If the stored number is impossible, a reader counts the entries.
  size_t size() const;

  /// Removes all entries. \throws ReadOnlyException.
  void clear() {
    requireWritable("remove to read-only Tovan table");
    removeAll();
    joinAll();
  }

  /// Visits the entries in no particular order. The body of the loop may write to the table: a key
  /// that is there from the start until its turn is visited, and no key is visited twice.
  ///
  /// Advancing throws what get() throws, which ends the loop.
  Iterator begin() const { return Iterator(*this); }
  std::default_sentinel_t end() const { return {}; }
  /// Calls `visit` with each undamaged entry, in no particular order, and `damaged` with a message
  /// for each damaged slot. \throws as get() when more than a slot cannot be read.
  template <class Visit, class Damaged>
  void forEachSound(Visit visit, Damaged damaged) const;
  /// All keys.
  std::vector<Key> keys() const;

  /// Checks every entry, drops damaged ones and rebuilds the directory. Returns how many faults it
  /// found; each was reported to corruptionDetected(). A reader that does not find its key waits
  /// for the end of the repair. \throws ReadOnlyException.
  size_t validate() {
    requireWritable("validate to read-only Tovan table");
    return repair();
  }
  /// Repairs the header and the length of the file if they were changed from outside. Each change
  /// of the table does this too, so tend() is for a table without changes. Once in a round it also
  /// checks whether the name leads to this table, and all pages, including those that are never
  /// written. If memory was refused, it requests it again.
  /// \throws NoSpaceException, ReadOnlyException.
  void tend(TendRound& round);
  /// The entries that were dropped as damaged since the last call, if any.
  std::optional<Dropped<Key>> takeDropped() {
    return dropped_ ? std::exchange(dropped_, std::nullopt) : std::nullopt;
  }

  /// Removes all entries and the table's name. The memory is freed when the last process has closed
  /// it. \throws ReadOnlyException.
  void cleanup() {
    requireWritable("cleanup to read-only Tovan table");
    removeAll();
    memory().remove();
  }

 private:
  using Layout = MapLayout<Key, Value>;
  using Layout::after;
  using Layout::hasKey;
  using Layout::home;
  using Layout::kBusy;
  using Layout::kChange;
  using Layout::keyOf;
  using Layout::kGone;
  using Layout::kKeyWords;
  using Layout::kLive;
  using Layout::kMaxDepth;
  using Layout::kMaxUsed;
  using Layout::kPagesAt;
  using Layout::kSlots;
  using Layout::kSpoilt;
  using Layout::kState;
  using Layout::kTopBytes;
  using Layout::load;
  using Layout::low;
  using Layout::pack;
  using Layout::sameKey;
  using Layout::unpack;
  using Layout::valueOf;
  using typename Layout::Page;
  using typename Layout::PageRef;
  using typename Layout::Slot;
  using typename Layout::Top;
  using typename Layout::Words;

  static constexpr Shape kShape = {.keyBytes = sizeof(Key),
                                   .valueBytes = sizeof(Value),
                                   .topBytes = kTopBytes,
                                   .pagesAt = kPagesAt,
                                   .pageBytes = sizeof(Page),
                                   .maxPages = size_t{1} << kMaxDepth};

  // Places in the memory. The callers check the indices.
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

  // The checksums with the seed of this table.
  uint64_t hashOf(const Words& words) const { return Layout::hashOf(seed_, words); }
  uint32_t checksumOf(uint64_t hash, const Words& words) const {
    return Layout::checksumOf(seed_, hash, words);
  }
  uint32_t sealOf(const Page& page) const { return Layout::sealOf(seed_, page); }
  bool isSealed(const Page& page) const {
    return page.seal.load(std::memory_order_acquire) == sealOf(page);
  }

  // Reading: MapReading.h.
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

  // Writing: MapWriting.h.
  void keep() {
    if (!isAsLeft()) [[unlikely]]
      mend();
  }
  void sizeIs(uint64_t size) {
    size_ = size;
    headerIs(kSize, guarded(static_cast<uint32_t>(size)));
  }
  /// Counts a completed change. The key in missed_ may now be present.
  void noteChange() { header().changes.store(++changes_, std::memory_order_release); }
  template <class Step>
  auto repairing(Step step);
  static void write(Slot& slot, uint32_t state, const Words& words, uint32_t checksum);
  void replace(Slot& slot, uint64_t hash, const Words& words);
  void insertNew(uint64_t hash, const Words& words);
  void insert(uint64_t hash, const Words& words);
  bool place(uint32_t number, uint32_t maxUsed, uint64_t hash, const Words& words,
             uint32_t checksum);
  void makeRoom(uint32_t number);
  bool rewrite(uint32_t number, bool split);
  void deepen();
  void provideDirectory(uint32_t depth);
  void reservePages(size_t count);
  void notePages();
  void pageIsFree(uint32_t number);
  void occupy(uint32_t number, uint32_t depth);
  uint32_t makePage(uint32_t pattern, uint32_t depth);
  void publish(uint32_t number);
  void freePage(uint32_t number);
  void fillHole(uint32_t pattern);
  static void freeSlots(Page& of);
  void removeAll();

  // Shrinking: MapShrinking.h.
  void shrinkAfter(const Slot& gone, uint64_t hash);
  void join(uint64_t hash);
  bool joinPages(PageRef one, PageRef other, uint64_t hash);
  bool copyAll(const Page& from, uint32_t to);
  void joinAll();
  void halve();
  bool isLoose() const {
    const size_t used = uses_.size() - freeCount_;
    return uses_.size() > used + used / 2 + kSparePages;
  }
  bool tighten();

  // Takeover, checks and damage: MapRepair.h.
  void inspect(TendRound& round);
  const char* pageFault(uint32_t number) const;
  const char* slotFault(Page& in, const Slot& slot) const;
  void mend();
  size_t repair();
  void settle(const Page& in, Slot& slot);
  void giveUp(const Page& in, const Slot& slot);
  static bool leadsTo(const Page& in, const Slot& slot, uint64_t hash);
  bool isInOrder(Page& what) const;
  void recount();

  /// The writer's own data of a page.
  struct PageUse {
    static constexpr uint8_t kFree = 0xff;
    uint8_t live = kFree;  ///< how many entries it has
    uint8_t depth = 0;
  };
  static_assert(kSlots < PageUse::kFree);
  /// Two pages are joined when they have at most this many entries together. A page is split only
  /// when more than half of its slots are full. So entries that are added and removed in turn do
  /// not cause splits and joins in turn.
  static constexpr uint32_t kMaxJoined = kSlots * 3 / 8;
  /// At least this many free pages are kept.
  static constexpr size_t kSparePages = 16;

  Kiv::HashSeed seed_;
  // The writer's own copies, which other processes cannot change.
  uint32_t depth_ = 0;
  uint32_t serial_ = 0;
  uint64_t size_ = 0;
  uint64_t changes_ = 1;
  std::vector<PageUse> uses_;   // of all reserved pages
  uint32_t freeCount_ = 0;      // the number of free pages among them
  std::vector<uint64_t> free_;  // a bit for each of them: whether it is free
  size_t lowestFree_ = 0;       // all words of free_ before this index are zero
  uint32_t end_ = 0;            // pages from this number on are free
  uint32_t everReserved_ = 0;   // pages from this number on were never reserved
  std::array<uint32_t, kMaxDepth + 1> pagesOfDepth_{};
  std::optional<Dropped<Key>> dropped_;
  struct {
    uint64_t round = 0;
    uint32_t next = 0;  ///< the next page to check
  } inspected_;
  /// The key that the last look-up did not find, and the number of changes at that time.
  mutable struct {
    Words key;
    uint64_t changes = 0;
  } missed_;
};

}  // namespace Tovan

#include "platform/tovan/MapReading.h"
#include "platform/tovan/MapRepair.h"
#include "platform/tovan/MapShrinking.h"
#include "platform/tovan/MapWriting.h"
