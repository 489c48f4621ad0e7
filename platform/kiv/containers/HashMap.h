// A hash map that grows a little at a time and whose iterators survive changes.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/kiv/containers/Hash.h"
#include "platform/kiv/containers/HashBlock.h"
#include "platform/kiv/containers/Prefetch.h"

namespace Kiv {

/// The value of a HashMap that is a set of keys. Takes no memory.
struct Present {
  friend constexpr bool operator==(Present, Present) = default;
};

/// Values by key, in no order. An empty map is two words; a small one has one block of memory.
///
/// Open addressing in groups of fifteen slots with a control byte each. Deleting an element moves
/// no other. A full table is replaced by a larger one, but not rebuilt at once: each insertion
/// moves a few elements. Pointers to values are valid until the next insertion.
template <class K, class V, class H = Hash<K>>
class HashMap {
 public:
  using Key = K;
  using Value = V;

  /// The element of a range-for over a map; over a set it is the key.
  struct Entry {
    K key;
    [[no_unique_address]] V value;
  };

 private:
  static_assert(alignof(Entry) <= 8, "slots follow the head of their block");
  static_assert(std::is_nothrow_move_constructible_v<K> && std::is_nothrow_move_constructible_v<V>);
  using Block = detail::HashBlock;
  using Group = detail::HashGroup;
  using Matcher = detail::HashMatcher;

  /// A slot, or none. Two words, because each search returns one.
  struct Place {
    Place() = default;
    Place(Block* block, size_t group, size_t number = 0)
        : control(block->group(group)->control + number), entry(slotsOf(block, group) + number) {}

    explicit operator bool() const { return control != nullptr; }
    Group* controls() const { return Group::of(control); }
    size_t slot() const { return static_cast<size_t>(control - controls()->control); }

    uint8_t* control = nullptr;
    Entry* entry = nullptr;
  };

  /// An iterator over a map that may change meanwhile.
  ///
  /// It stays valid when its element, or any other, is deleted. After an insertion it finds its
  /// element again by key, and is at the end if that element is gone. Elements may then be visited
  /// twice or not at all: a loop that must visit each element iterates over keys(). The map must
  /// not be moved, and must outlive its iterators.
  template <class Map, class Value>
  class WalkOf {
   public:
    WalkOf() = default;

    explicit operator bool() const noexcept { return bool(place_); }
    /// The key of the element, also when it has been deleted. \pre *this
    const K& key() const noexcept { return key_; }
    /// The value. \pre the element has not been deleted
    Value& value() const {
      if (map_->generation() != generation_) return *map_->find(key_);
      return place_.entry->value;
    }
    Value& ptr() const { return value(); }
    WalkOf& operator++() {
      findAgain();
      if (*this) standOn(map_->nextFull(place_));
      return *this;
    }

   private:
    friend HashMap;
    explicit WalkOf(Map* map) : WalkOf(map, firstFull(map->block_, 0)) {}
    WalkOf(Map* map, const Place& place) : map_(map), generation_(map->generation()) {
      standOn(place);
    }
    void findAgain() {
      if (map_->generation() == generation_) return;
      place_ = map_->locate(key_);
      generation_ = map_->generation();
    }
    void standOn(const Place& place) {
      place_ = place;
      if (place) key_ = place.entry->key;
    }

    Map* map_ = nullptr;
    Place place_;
    uint32_t generation_ = 0;
    K key_{};
  };

  /// An iterator over a map that does not change meanwhile.
  class RangeWalk {
   public:
    using iterator_concept = std::input_iterator_tag;
    using value_type = std::conditional_t<std::is_same_v<V, Present>, K, Entry>;
    using difference_type = std::ptrdiff_t;

    RangeWalk() = default;
    explicit RangeWalk(Block* block) : block_(block) { findFull(); }
    const value_type& operator*() const {
      if constexpr (std::is_same_v<V, Present>) {
        return entry()->key;
      } else {
        return *entry();
      }
    }
    Entry* entry() const { return slots_ + std::countr_zero(full_); }
    RangeWalk& operator++() {
      full_ &= full_ - 1;
      if (full_ == 0) {
        ++group_;
        findFull();
      }
      return *this;
    }
    void operator++(int) { ++*this; }
    friend bool operator==(const RangeWalk& walk, std::default_sentinel_t) {
      return walk.full_ == 0;
    }

   private:
    void findFull() {
      for (; block_ != nullptr; block_ = older(block_), group_ = 0) {
        for (const size_t groups = block_->groupCount(); group_ < groups; ++group_) {
          full_ = Matcher::full(*block_->group(group_));
          slots_ = slotsOf(block_, group_);
          if (full_ != 0) return;
        }
      }
    }

    Block* block_ = nullptr;
    size_t group_ = 0;
    Entry* slots_ = nullptr;  // the slots of the group
    uint32_t full_ = 0;       // the elements of the group that are still to be visited, as bits
  };

 public:
  /// Where the elements of a map are, for prefetching only. It may outlive the map.
  class PrefetchHint {
   public:
    PrefetchHint() = default;
    /// Prefetches the memory that a search for `key` would read.
    void prefetch(const K& key) const {
      if (block_ == nullptr) return;
      const uint32_t hash = H()(key);
      const size_t home = uint64_t{hash} >> shift_;
      Kiv::prefetch(block_);
      prefetchGroup(block_, home, hash);
    }

   private:
    friend HashMap;
    PrefetchHint(Block* block, uint8_t shift) : block_(block), shift_(shift) {}

    Block* block_ = nullptr;  // never dereferenced: it may be gone
    uint8_t shift_ = 0;
  };

  using Iterator = WalkOf<HashMap, V>;
  using IteratorConst = WalkOf<const HashMap, const V>;

  HashMap() = default;
  HashMap(HashMap&& other) noexcept { blockIs(other.blockIs(none())); }
  HashMap& operator=(HashMap&& other) noexcept {
    if (this != &other) destroy(blockIs(other.blockIs(none())));
    return *this;
  }
  ~HashMap() { clear(); }

  size_t size() const noexcept { return block_->size; }
  bool empty() const noexcept { return size() == 0; }
  /// The bytes of memory that the map has allocated.
  size_t bytes() const noexcept {
    size_t bytes = 0;
    for (Block* block = block_; block != nullptr; block = older(block)) {
      bytes += block->bytes(sizeof(Entry));
    }
    return bytes;
  }
  /// A number that changes when an element is inserted, when elements may have moved, and when all
  /// are deleted.
  uint32_t generation() const noexcept { return block_->generation; }

  /// The value of `key`, or null.
  V* find(const K& key) { return valueAt(locate(key)); }
  const V* find(const K& key) const { return valueAt(locate(key)); }
  /// Prefetches the memory that find() reads, so that searches of several maps overlap.
  /// \returns the hash for find().
  uint32_t prefetch(const K& key) const {
    const uint32_t hash = H()(key);
    prefetchHash(hash);
    return hash;
  }
  /// The same for a key with this hash.
  void prefetchHash(uint32_t hash) const { prefetchGroup(block_, home(hash), hash); }
  /// A hint for later prefetches, which need not access the map itself.
  PrefetchHint prefetchHint() const { return PrefetchHint(block_, shift_); }
  const V* find(const K& key, uint32_t hash) const { return valueAt(locate(key, hash)); }
  /// The key that equals `probe`, or null. `probe` may be of another type; `hash` is its hash.
  template <class Probe>
  const K* findKey(const Probe& probe, uint32_t hash) const {
    const Place place = locate(probe, hash);
    return place ? &place.entry->key : nullptr;
  }
  bool contains(const K& key) const { return bool(locate(key)); }

  /// The value of `key`. If there is none, makes it of `args`. \returns true when it was made.
  template <class... Args>
  std::pair<V*, bool> tryEmplace(const K& key, Args&&... args) {
    const uint32_t hash = H()(key);
    if (const Place found = locate(key, hash); found) {
      return {&found.entry->value, false};
    }
    return {add(key, hash, std::forward<Args>(args)...), true};
  }
  /// Adds an element, as tryEmplace() does. \pre `hash` is the hash of `key`, and the key is absent
  template <class... Args>
  V* add(const K& key, uint32_t hash, Args&&... args) {
    if (block_->free == 0 || block_->emptiesAnother) makeRoom();
    block_->generation = detail::nextHashGeneration();
    const Place place =
        block_->emptiesAnother ? emptyPlaceInEither(hash) : emptyPlace(block_, hash);
    Entry* entry = new (place.entry) Entry{key, V(std::forward<Args>(args)...)};
    *place.control = Group::tagOf(hash);
    ++block_->size;
    --block_->free;
    if (Block* const block = blockOf(place); block != block_) ++block->size;
    return &entry->value;
  }
  /// Adds a key to a set. \returns true when it was not there.
  bool insert(const K& key) requires std::is_same_v<V, Present> { return tryEmplace(key).second; }

  /// Deletes the element of `key`, which may be a reference to its own key.
  /// \returns true when there was one.
  bool erase(const K& key) {
    return eraseIf(key, [](V&) { return true; });
  }
  /// The same, but only if `isOver(value)` returns true. It may change the value.
  /// \returns true when the element was deleted.
  template <class Test>
  bool eraseIf(const K& key, Test&& isOver) {
    const uint32_t hash = H()(key);
    const Place place = locate(key, hash);
    if (!place || !isOver(place.entry->value)) return false;
    erase(place, hash);
    return true;
  }
  /// Deletes the element of `it`, if it is still there. `it` may then be advanced.
  void erase(Iterator& it) {
    it.findAgain();
    if (!it || *it.place_.control == Group::kEmptySlot) return;
    erase(it.place_, H()(it.key_));
  }
  /// Deletes all elements and gives the memory back.
  void clear() noexcept { destroy(blockIs(none())); }

  /// Makes room for `elements` elements, including the present ones.
  void reserve(size_t elements) {
    if (elements <= size()) return;
    while (block_->emptiesAnother) moveSome();
    if (block_->free < elements - size()) rebuild(std::max(elements, leastCapacity()));
  }

  Iterator iterator() { return Iterator(this); }
  IteratorConst iteratorConst() const { return IteratorConst(this); }
  /// An iterator at `key`, or at the end when the key is absent.
  IteratorConst iteratorConst(const K& key) const { return IteratorConst(this, locate(key)); }
  /// The keys as they are now.
  std::vector<K> keys() const {
    std::vector<K> keys;
    keys.reserve(size());
    for (const auto& element : *this) {
      if constexpr (std::is_same_v<V, Present>) {
        keys.push_back(element);
      } else {
        keys.push_back(element.key);
      }
    }
    return keys;
  }
  /// Iterates over the entries of a map, or the keys of a set. It must not change meanwhile.
  RangeWalk begin() const { return RangeWalk(block_); }
  std::default_sentinel_t end() const { return {}; }

 private:
  // While a block is being emptied, an insertion moves groups until it has moved kElementsMoved
  // elements or emptied kGroupsEmptied groups.
  static constexpr uint32_t kElementsMoved = 48;
  static constexpr uint32_t kGroupsEmptied = 64;
  // An insertion prefetches the groups that the next one will move.
  static constexpr size_t kGroupsAhead = 4;
  // For a key that belongs into a full group of the block that is being emptied, an insertion tries
  // this many other groups of that block.
  static constexpr size_t kStepsInOlder = 16;
  // A table with at most this many groups is rebuilt at once.
  static constexpr size_t kGroupsRebuilt = 16;

  static Block* none() {
    auto* block = const_cast<Block*>(&detail::kNoHashBlock.block);
    // Hides the value from GCC, which would otherwise warn that the block has no slots.
    asm("" : "+r"(block));
    return block;
  }
  static Block* older(Block* block) {
    return block->emptiesAnother ? block->emptying().block : nullptr;
  }
  /// Puts another block in place of the present one, and returns that.
  Block* blockIs(Block* block) noexcept {
    shift_ = block->shift;
    return std::exchange(block_, block);
  }
  static V* valueAt(const Place& place) { return place ? &place.entry->value : nullptr; }

  Place locate(const K& key) const { return locate(key, H()(key)); }
  template <class Probe>
  Place locate(const Probe& key, uint32_t hash) const {
    const size_t home = this->home(hash);
    if (const Place found = locateInGroup(block_, home, key, hash)) return found;
    const bool isLast = !block_->group(home)->hasOverflowed(hash) && !block_->emptiesAnother;
    return isLast ? Place() : locateBeyond(key, hash);
  }
  /// The search in the other groups that may have the key, also in the block that is being emptied.
  template <class Probe>
  [[gnu::noinline]] Place locateBeyond(const Probe& key, uint32_t hash) const {
    for (Block* block = block_; block != nullptr; block = older(block)) {
      size_t group = homeOf(block, hash);
      for (size_t step = 1; step <= block->groupCount(); ++step) {
        if (step > 1 || block != block_) {
          if (const Place found = locateInGroup(block, group, key, hash)) return found;
        }
        if (!block->group(group)->hasOverflowed(hash)) break;
        group = nextGroup(block, group, step);
      }
    }
    return {};
  }
  template <class Probe>
  static Place locateInGroup(Block* block, size_t group, const Probe& key, uint32_t hash) {
    uint32_t tagged = Matcher::tagged(*block->group(group), hash);
    if (tagged == 0) return {};
    const Place first(block, group);
    // The processor loads the slot while it still waits for the control bytes.
    Kiv::prefetch(first.entry + firstChoice(hash));
    do {
      const size_t slot = slotOf(tagged);
      if (first.entry[slot].key == key) [[likely]] {
        return Place(block, group, slot);
      }
    } while ((tagged &= tagged - 1) != 0);
    return {};
  }
  /// An empty slot for an absent key. \pre the block has an empty slot
  static Place emptyPlace(Block* block, uint32_t hash) {
    size_t group = homeOf(block, hash);
    for (size_t step = 1;; ++step) {
      const Place place(block, group, firstChoice(hash));
      // Reads one byte only: a wider load would wait for the bytes that were just written.
      if (*place.control == Group::kEmptySlot) return place;
      const uint32_t empty = Matcher::matching(*block->group(group), Group::kEmptySlot);
      if (empty != 0) [[likely]] {
        return Place(block, group, chosenOf(empty, hash));
      }
      block->group(group)->overflow |= Group::overflowBitOf(hash);
      group = nextGroup(block, group, step);
    }
  }
  /// The same while another block is being emptied. If the group of the key in that block has not
  /// been moved yet, the slot is in that block: so the groups of the new block are filled in order;
  /// see HashBlock::moveBehind().
  [[gnu::noinline]] Place emptyPlaceInEither(uint32_t hash) {
    auto& [old, groups, end, reused] = block_->emptying();
    size_t group = homeOf(old, hash);
    for (size_t step = group < groups ? 1 : kStepsInOlder + 1; step <= kStepsInOlder; ++step) {
      const uint32_t empty = Matcher::matching(*old->group(group), Group::kEmptySlot);
      if (group < groups && empty != 0) return Place(old, group, chosenOf(empty, hash));
      old->group(group)->overflow |= Group::overflowBitOf(hash);
      group = nextGroup(old, group, step);
    }
    return emptyPlace(block_, hash);
  }
  /// The first group of the new block that gets elements of `group` of the old block.
  size_t firstFilled(const Block& old, size_t group) const {
    return static_cast<size_t>((uint64_t{group} << old.shift) >> block_->shift);
  }
  /// The slot of a group that a key gets if it is empty, or else one of the next slots.
  static size_t firstChoice(uint32_t hash) {
    // Keys are spread over large slots, so that a search can prefetch the slot before it reads the
    // control bytes. Small slots are filled in order, which uses fewer cache lines.
    return sizeof(Entry) > 16 ? hash & 14 : 0;
  }
  /// Prefetches the control bytes of a group, and the slots that are likely for a key with this
  /// hash.
  static void prefetchGroup(Block* block, size_t group, uint32_t hash) {
    constexpr size_t kLine = 64;
    constexpr size_t kBytes = Group::kSlots * sizeof(Entry);
    // In a group that is nearly full, a key may be in any slot. If the slots are large, only the
    // likely ones are prefetched.
    constexpr size_t kFetched = kBytes <= 6 * kLine ? kBytes : 2 * kLine;
    const size_t first = kFetched == kBytes ? 0 : firstChoice(hash);
    const auto* slots = reinterpret_cast<const std::byte*>(slotsOf(block, group) + first);
    Kiv::prefetch(block->group(group));
    for (size_t at = 0; at < kFetched; at += kLine) Kiv::prefetch(slots + at);
  }
  /// The empty slot of a group that a key gets. `empty` has a bit for each empty slot.
  static size_t chosenOf(uint32_t empty, uint32_t hash) {
    const uint32_t preferred = empty & (~uint32_t{0} << firstChoice(hash));
    return slotOf(preferred != 0 ? preferred : empty);
  }
  /// The first of the slots that a matcher found.
  static size_t slotOf(uint32_t bits) { return static_cast<size_t>(std::countr_zero(bits)); }
  static Entry* slotsOf(Block* block, size_t group) {
    return reinterpret_cast<Entry*>(block->slots(group, sizeof(Entry)));
  }
  static size_t homeOf(const Block* block, uint32_t hash) { return uint64_t{hash} >> block->shift; }
  size_t home(uint32_t hash) const { return uint64_t{hash} >> shift_; }
  /// The next group of a search. Steps of growing length reach every group.
  static size_t nextGroup(const Block* block, size_t group, size_t step) {
    return (group + step) & (block->groupCount() - 1);
  }
  /// The first element in or after a group, in this block or the one that it empties.
  static Place firstFull(Block* block, size_t group) {
    for (; block != nullptr; block = older(block), group = 0) {
      for (const size_t groups = block->groupCount(); group < groups; ++group) {
        const uint32_t full = Matcher::full(*block->group(group));
        if (full != 0) return Place(block, group, slotOf(full));
      }
    }
    return {};
  }
  Place nextFull(const Place& place) const {
    Block* const block = blockOf(place);
    const auto group = static_cast<size_t>(block->group(0) - place.controls());
    const uint32_t full = Matcher::full(*place.controls()) >> 1 >> place.slot();
    if (full == 0) return firstFull(block, group + 1);
    return Place(block, group, place.slot() + 1 + slotOf(full));
  }
  Block* blockOf(const Place& place) const {
    return !block_->emptiesAnother || block_->holds(place.controls()) ? block_ : older(block_);
  }

  void erase(const Place& place, uint32_t hash) {
    if constexpr (std::is_trivially_destructible_v<Entry>) {
      forget(place, hash);
    } else {
      // Destroying the value may run code that uses this map, so the map is updated first.
      [[maybe_unused]] const Entry gone = std::move(*place.entry);
      place.entry->~Entry();
      forget(place, hash);
    }
  }
  void forget(const Place& place, uint32_t hash) {
    *place.control = Group::kEmptySlot;
    if (--block_->size == 0) {
      clear();
      return;
    }
    if (Block* const block = blockOf(place); block != block_) {
      --block->size;
      ++block_->free;
      return;
    }
    // An overflow bit stays set, so a slot of such a group is not counted as free. Otherwise a
    // table with few elements could set all overflow bits and would never be rebuilt.
    if (!place.controls()->hasOverflowed(hash)) ++block_->free;
    // The next insertion replaces a table that is nearly empty by a smaller one. If no insertion
    // follows, the last deletions give the memory back in pieces: all at once would take too long.
    if (block_->size < block_->groupCount() && !block_->emptiesAnother) {
      block_->free = 0;
      if (block_->size < block_->groupCount() / 512)
        block_->releaseAround(place.entry, sizeof(Entry));
    }
  }

  [[gnu::noinline]] void makeRoom() {
    if (block_->emptiesAnother) moveSome();
    if (block_->free != 0) return;
    while (block_->emptiesAnother) moveSome();
    const size_t capacity = block_->capacity();
    if (size() >= capacity / 4 * 3) {
      rebuild(std::max(capacity + 1, std::min<size_t>(2 * capacity, Group::kSlots)));
    } else {
      rebuild(std::max(size() * 4 / 3 + 1, leastCapacity()));
    }
  }
  /// The smallest capacity of a table that may replace this one: a smaller one could be full before
  /// all elements have been moved.
  size_t leastCapacity() const { return block_->capacity() / 16; }
  /// Begins to move all elements to a new block with room for `elements`.
  void rebuild(size_t elements) {
    Block* const old = blockIs(Block::allocate(elements, sizeof(Entry)));
    block_->generation = detail::nextHashGeneration();
    block_->size = old->size;
    block_->free -= old->size;
    if (old->groupCount() > kGroupsRebuilt) {
      block_->emptiesAnother = true;
      block_->emptying() = {.block = old,
                            .groups = old->groupCount(),
                            .end = old->end(sizeof(Entry)),
                            .reused = block_->end(sizeof(Entry))};
      moveSome();
    } else {
      for (size_t group = old->groupCount(); group-- > 0;) moveGroup(*old, group);
      release(old);
      block_->useHugePages(sizeof(Entry));
    }
  }
  void moveSome() {
    block_->generation = detail::nextHashGeneration();
    auto& [old, groups, end, reused] = block_->emptying();
    const uint32_t enough = old->size - std::min(old->size, kElementsMoved);
    for (uint32_t i = 0; i < kGroupsEmptied && old->size > enough; ++i) moveGroup(*old, --groups);
    if (old->size == 0) {
      old->release(end);
      block_->emptiesAnother = false;
      block_->useHugePages(sizeof(Entry));
    } else {
      const size_t filled = firstFilled(*old, groups);
      end = old->moveBehind(groups, sizeof(Entry), end, *block_, filled, reused);
      const size_t next = groups - std::min(groups, kGroupsAhead);
      prefetchGroups(old, next, groups);
      prefetchGroups(block_, firstFilled(*old, next), filled);
    }
  }
  static void prefetchGroups(Block* block, size_t first, size_t end) {
    constexpr size_t kLine = 64;
    const std::byte* const last = block->slots(end, sizeof(Entry));
    for (const auto* at = block->slots(first, sizeof(Entry)); at < last; at += kLine) {
      Kiv::prefetch(at);
    }
    Kiv::prefetch(block->group(first));
  }
  void moveGroup(Block& old, size_t number) {
    // The empty slots of the two groups that most of these elements belong to. Reading them from
    // the control bytes would be slow, because these were just written byte by byte.
    struct {
      size_t group = SIZE_MAX;
      uint32_t empty = 0;
    } known[2];
    for (uint32_t full = Matcher::full(*old.group(number)); full != 0; full &= full - 1) {
      const Place from(&old, number, slotOf(full));
      const uint32_t hash = H()(from.entry->key);
      const size_t home = this->home(hash);
      auto& [group, empty] = known[home & 1];
      if (group != home) {
        group = home;
        empty = Matcher::matching(*block_->group(home), Group::kEmptySlot);
      }
      Place to;
      if (empty != 0) [[likely]] {
        const size_t slot = chosenOf(empty, hash);
        empty &= ~(1U << slot);
        to = Place(block_, home, slot);
      } else {
        to = emptyPlace(block_, hash);
        known[0] = known[1] = {};
      }
      new (to.entry) Entry(std::move(*from.entry));
      from.entry->~Entry();
      *to.control = Group::tagOf(hash);
      *from.control = Group::kEmptySlot;
      --old.size;
    }
  }

  static void release(Block* block) noexcept {
    if (block != none()) block->release(block->end(sizeof(Entry)));
  }
  static void destroy(Block* block) noexcept {
    if (block == none()) return;
    if constexpr (!std::is_trivially_destructible_v<Entry>) {
      for (RangeWalk at(block); at != std::default_sentinel; ++at) at.entry()->~Entry();
    }
    if (block->emptiesAnother) {
      const auto& emptying = block->emptying();
      emptying.block->release(emptying.end);
    }
    release(block);
  }

  Block* block_ = none();
  // As in the block, so that a search need not wait for the block's head to know its group.
  uint8_t shift_ = detail::kNoHashBlock.block.shift;
};

}  // namespace Kiv
