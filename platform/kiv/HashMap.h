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

#include "platform/kiv/Hash.h"
#include "platform/kiv/HashBlock.h"

namespace Kiv {

/// The value of a HashMap that is a set of keys. Takes no memory.
struct Present {
  friend constexpr bool operator==(Present, Present) = default;
};

/// Values by key, in no order: one pointer when empty, one block of memory while small.
///
/// Open addressing in groups of fifteen slots with a control byte each. Deleting an element moves
/// no other. A table that is full is not rebuilt at once: a larger one takes its place, and each
/// insertion moves a few elements over. Pointers to values are good until the next insertion.
template <class K, class V, class H = Hash<K>>
class HashMap {
 public:
  /// What range-for sees of a map; of a set it sees the keys.
  struct Entry {
    K key;
    [[no_unique_address]] V value;
  };

 private:
  static_assert(alignof(Entry) <= 8, "slots end where the head of their block begins");
  static_assert(std::is_nothrow_move_constructible_v<K> && std::is_nothrow_move_constructible_v<V>);
  using Block = detail::HashBlock;
  using Group = detail::HashGroup;
  using Matcher = detail::HashMatcher;

  /// Where an element is, or nowhere.
  struct Place {
    Block* block = nullptr;
    size_t group = 0;
    uint32_t slot = 0;

    Group& controls() const { return block->groups()[group]; }
    Entry* entry() const {
      return reinterpret_cast<Entry*>(block) - (group * Group::kSlots + slot + 1);
    }
  };

  /// A place in a walk that may change the map.
  ///
  /// The walk goes on when the element it stands on, or any other, is deleted. After an insertion
  /// it finds its place again by key, and ends there if that element is gone; then it may meet
  /// elements twice or not at all, so walk over keys() where each counts. A map must stay where it
  /// is, and outlive its iterators.
  template <class Map, class Value>
  class WalkOf {
   public:
    WalkOf() = default;

    explicit operator bool() const noexcept { return place_.block != nullptr; }
    /// The key of the element, also when it has been deleted. \pre *this
    const K& key() const noexcept { return key_; }
    /// The value. \pre the element has not been deleted
    Value& value() const {
      if (map_->generation() != generation_) return *map_->find(key_);
      return place_.entry()->value;
    }
    Value& ptr() const { return value(); }
    WalkOf& operator++() {
      findAgain();
      if (*this) standOn(nextFull(place_.block, place_.group, place_.slot + 1));
      return *this;
    }

   private:
    friend HashMap;
    explicit WalkOf(Map* map) : map_(map), generation_(map->generation()) {
      if (map->block_ != nullptr) standOn(nextFull(map->block_, 0, 0));
    }
    void findAgain() {
      if (map_->generation() == generation_) return;
      place_ = map_->locate(key_);
      generation_ = map_->generation();
    }
    void standOn(const Place& place) {
      place_ = place;
      if (place.block != nullptr) key_ = place.entry()->key;
    }

    Map* map_ = nullptr;
    Place place_;
    uint32_t generation_ = 0;
    K key_{};
  };

  /// A walk that the map does not change under.
  class RangeWalk {
   public:
    using iterator_concept = std::input_iterator_tag;
    using value_type = std::conditional_t<std::is_same_v<V, Present>, K, Entry>;
    using difference_type = std::ptrdiff_t;

    RangeWalk() = default;
    explicit RangeWalk(Block* block) {
      if (block != nullptr) standOn(nextFull(block, 0, 0));
    }
    const value_type& operator*() const {
      const Entry* entry = slots_ - std::countr_zero(full_);
      if constexpr (std::is_same_v<V, Present>) {
        return entry->key;
      } else {
        return *entry;
      }
    }
    RangeWalk& operator++() {
      full_ &= full_ - 1;
      if (full_ == 0) standOn(nextFull(block_, group_ + 1, 0));
      return *this;
    }
    void operator++(int) { ++*this; }
    friend bool operator==(const RangeWalk& walk, std::default_sentinel_t) {
      return walk.full_ == 0;
    }

   private:
    void standOn(const Place& place) {
      if (place.block == nullptr) return;
      block_ = place.block;
      group_ = place.group;
      full_ = Matcher::full(place.controls());
      slots_ = Place{block_, group_, 0}.entry();
    }

    Block* block_ = nullptr;
    size_t group_ = 0;
    uint32_t full_ = 0;
    const Entry* slots_ = nullptr;
  };

 public:
  using Iterator = WalkOf<HashMap, V>;
  using IteratorConst = WalkOf<const HashMap, const V>;

  HashMap() = default;
  HashMap(HashMap&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  HashMap& operator=(HashMap&& other) noexcept {
    if (this != &other) destroy(std::exchange(block_, std::exchange(other.block_, nullptr)));
    return *this;
  }
  ~HashMap() { clear(); }

  size_t size() const noexcept { return block_ == nullptr ? 0 : block_->size; }
  bool empty() const noexcept { return block_ == nullptr; }
  /// The bytes of memory the map holds, beside itself.
  size_t bytes() const noexcept {
    size_t bytes = 0;
    for (Block* block = block_; block != nullptr; block = older(block)) {
      bytes += block->bytes(sizeof(Entry));
    }
    return bytes;
  }
  /// A number that changes when elements have been inserted or may have moved, or all have gone.
  uint32_t generation() const noexcept { return block_ == nullptr ? 0 : block_->generation; }

  /// The value of `key`, or null.
  V* find(const K& key) { return valueAt(locate(key)); }
  const V* find(const K& key) const { return valueAt(locate(key)); }
  bool contains(const K& key) const { return locate(key).block != nullptr; }

  /// The value of `key`, which is made of `args` if there was none. \returns true when it was made.
  template <class... Args>
  std::pair<V*, bool> tryEmplace(const K& key, Args&&... args) {
    const uint32_t hash = H()(key);
    if (const Place found = locate(key, hash); found.block != nullptr) {
      return {&found.entry()->value, false};
    }
    if (block_ == nullptr || block_->free == 0 || block_->emptiesAnother) makeRoom();
    block_->generation = detail::nextHashGeneration();
    const Place place = emptyPlace(block_, hash);
    Entry* entry = new (place.entry()) Entry{key, V(std::forward<Args>(args)...)};
    place.controls().control[place.slot] = Group::tagOf(hash);
    ++block_->size;
    --block_->free;
    return {&entry->value, true};
  }
  /// Makes `value` the value of `key`. \returns true when there was none.
  bool insertOrAssign(const K& key, V value) {
    const auto [stored, isNew] = tryEmplace(key, std::move(value));
    if (!isNew) *stored = std::move(value);
    return isNew;
  }
  /// Adds a key to a set. \returns true when it was not there.
  bool insert(const K& key) requires std::is_same_v<V, Present> { return tryEmplace(key).second; }

  /// Deletes the element of `key`, which may be a reference to its own key.
  /// \returns true when there was one.
  bool erase(const K& key) {
    const uint32_t hash = H()(key);
    const Place place = locate(key, hash);
    if (place.block == nullptr) return false;
    erase(place, hash);
    return true;
  }
  /// Deletes the element on which `it` stands, if it is still there. `it` may then be advanced.
  void erase(Iterator& it) {
    it.findAgain();
    if (!it || it.place_.controls().control[it.place_.slot] == Group::kEmptySlot) return;
    erase(it.place_, H()(it.key_));
  }
  /// Deletes all elements and gives the memory back.
  void clear() noexcept { destroy(std::exchange(block_, nullptr)); }

  /// Makes room for `elements` elements in all.
  void reserve(size_t elements) {
    if (elements <= size()) return;
    while (block_ != nullptr && block_->emptiesAnother) moveSome();
    if (block_ == nullptr) {
      rebuild(elements);
    } else if (block_->free < elements - size()) {
      rebuild(std::max(elements, leastCapacity()));
    }
  }

  Iterator iterator() { return Iterator(this); }
  IteratorConst iteratorConst() const { return IteratorConst(this); }
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
  /// A walk over the entries of a map, or the keys of a set, that must not change meanwhile.
  RangeWalk begin() const { return RangeWalk(block_); }
  std::default_sentinel_t end() const { return {}; }

 private:
  // An insertion moves groups until it has moved so many elements or emptied so many groups.
  static constexpr uint32_t kElementsMoved = 8;
  static constexpr uint32_t kGroupsEmptied = 64;
  // A table of so many groups is small enough to be rebuilt at once.
  static constexpr size_t kGroupsRebuilt = 16;

  static Block* older(Block* block) {
    return block->emptiesAnother ? block->emptying().block : nullptr;
  }
  static V* valueAt(const Place& place) {
    return place.block == nullptr ? nullptr : &place.entry()->value;
  }

  Place locate(const K& key) const { return locate(key, H()(key)); }
  Place locate(const K& key, uint32_t hash) const {
    if (block_ == nullptr) return {};
    const Place place = locate(block_, key, hash);
    if (place.block != nullptr || !block_->emptiesAnother) [[likely]]
      return place;
    return locate(block_->emptying().block, key, hash);
  }
  static Place locate(Block* block, const K& key, uint32_t hash) {
    Place place{block, uint64_t{hash} >> block->shift};
    for (size_t step = 1;; ++step) {
      const Group& group = place.controls();
      uint32_t matching = Matcher::matching(group, Group::tagOf(hash));
      for (; matching != 0; matching &= matching - 1) {
        place.slot = static_cast<uint32_t>(std::countr_zero(matching));
        if (place.entry()->key == key) [[likely]]
          return place;
      }
      if (!group.hasOverflowed(hash)) [[likely]]
        return {};
      const size_t groups = block->groupCount();
      if (step == groups) return {};
      place.group = (place.group + step) & (groups - 1);
    }
  }
  /// Where to put a key that is not there. \pre the block has an empty slot
  static Place emptyPlace(Block* block, uint32_t hash) {
    Place place{block, uint64_t{hash} >> block->shift};
    for (size_t step = 1;; ++step) {
      Group& group = place.controls();
      const uint32_t empty = Matcher::matching(group, Group::kEmptySlot);
      if (empty != 0) [[likely]] {
        place.slot = static_cast<uint32_t>(std::countr_zero(empty));
        return place;
      }
      group.overflow |= Group::overflowBitOf(hash);
      place.group = (place.group + step) & (block->groupCount() - 1);
    }
  }
  /// The first element at or after a slot, in this block or the one that it empties.
  static Place nextFull(Block* block, size_t group, uint32_t slot) {
    for (; block != nullptr; block = older(block), group = 0, slot = 0) {
      for (const size_t groups = block->groupCount(); group < groups; ++group, slot = 0) {
        const uint32_t full = Matcher::full(block->groups()[group]) >> slot;
        if (full != 0) {
          return {block, group, slot + static_cast<uint32_t>(std::countr_zero(full))};
        }
      }
    }
    return {};
  }

  void erase(const Place& place, uint32_t hash) {
    if constexpr (std::is_trivially_destructible_v<Entry>) {
      forget(place, hash);
    } else {
      // The last handle to an object may call back, so the map must be whole again before it goes.
      [[maybe_unused]] const Entry gone = std::move(*place.entry());
      place.entry()->~Entry();
      forget(place, hash);
    }
  }
  void forget(const Place& place, uint32_t hash) {
    Group& group = place.controls();
    group.control[place.slot] = Group::kEmptySlot;
    if (--block_->size == 0) {
      clear();
      return;
    }
    if (place.block != block_) {
      --place.block->size;
      ++block_->free;
      return;
    }
    // A slot that keys were turned away from is not free: the overflow bits stay, and a table whose
    // bits are all set must be rebuilt some time, however few its elements are.
    if (!group.hasOverflowed(hash)) ++block_->free;
    // A table that is nearly empty gets a smaller one at the next insertion.
    if (block_->size < block_->groupCount() && !block_->emptiesAnother) block_->free = 0;
  }

  [[gnu::noinline]] void makeRoom() {
    if (block_ == nullptr) return rebuild(1);
    if (block_->emptiesAnother) moveSome();
    if (block_->free != 0) return;
    while (block_->emptiesAnother) moveSome();
    const size_t capacity = block_->capacity();
    if (size() > capacity / 4 * 3) {
      rebuild(std::max(capacity + 1, std::min<size_t>(2 * capacity, Group::kSlots)));
    } else {
      rebuild(std::max(size() * 4 / 3 + 1, leastCapacity()));
    }
  }
  /// The smallest table into which this one may be emptied: it is not full before that is done.
  size_t leastCapacity() const { return block_->capacity() / 16; }
  /// Begins to move everything to a block with room for `elements`.
  void rebuild(size_t elements) {
    Block* const old = std::exchange(block_, Block::allocate(elements, sizeof(Entry)));
    block_->generation = detail::nextHashGeneration();
    if (old == nullptr) return;
    block_->size = old->size;
    block_->free -= old->size;
    if (old->groupCount() > kGroupsRebuilt) {
      block_->emptiesAnother = true;
      block_->emptying() = {old, old->groupCount(), old->start(sizeof(Entry))};
      moveSome();
    } else {
      for (size_t group = old->groupCount(); group-- > 0;) moveGroup(*old, group);
      old->release(sizeof(Entry));
    }
  }
  void moveSome() {
    auto& [old, groups, start] = block_->emptying();
    const uint32_t enough = old->size - std::min(old->size, kElementsMoved);
    for (uint32_t i = 0; i < kGroupsEmptied && old->size > enough; ++i) moveGroup(*old, --groups);
    if (old->size == 0) {
      old->release(sizeof(Entry), start);
      block_->emptiesAnother = false;
    } else {
      start = old->releaseBehind(groups, sizeof(Entry), start);
    }
  }
  void moveGroup(Block& old, size_t number) {
    Group& group = old.groups()[number];
    for (uint32_t full = Matcher::full(group); full != 0; full &= full - 1) {
      const Place from{&old, number, static_cast<uint32_t>(std::countr_zero(full))};
      const uint32_t hash = H()(from.entry()->key);
      const Place to = emptyPlace(block_, hash);
      new (to.entry()) Entry(std::move(*from.entry()));
      from.entry()->~Entry();
      to.controls().control[to.slot] = Group::tagOf(hash);
      group.control[from.slot] = Group::kEmptySlot;
      --old.size;
    }
  }

  static void destroy(Block* block) noexcept {
    if (block == nullptr) return;
    if constexpr (!std::is_trivially_destructible_v<Entry>) {
      for (Place at = nextFull(block, 0, 0); at.block != nullptr;
           at = nextFull(at.block, at.group, at.slot + 1)) {
        at.entry()->~Entry();
      }
    }
    if (block->emptiesAnother) {
      const auto& [old, groups, start] = block->emptying();
      old->release(sizeof(Entry), start);
    }
    block->release(sizeof(Entry));
  }

  Block* block_ = nullptr;
};

}  // namespace Kiv
