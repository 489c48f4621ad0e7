// Adjacencies: via sets that many routes share.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "platform/kiv/HashMap.h"
#include "platform/kiv/Prefetch.h"

namespace Rovel {

/// One numbered entry for each distinct via set, with the number of routes that use it.
///
/// An entry whose last user goes is removed; its number may be given out again. Numbers count from
/// 1.
template <class ViaSet>
class AdjacencyTable {
 public:
  using Index = uint32_t;

  /// The number of the set's entry, made if there is none, and whether it was made. Counts one
  /// more user.
  std::pair<Index, bool> take(const ViaSet& vias);
  /// Counts one more user of an entry. \pre there is one of this number
  void share(uint64_t index) { ++entry(index).users; }
  /// Counts one user less. Returns whether it was the last: the entry is gone then. An index
  /// without entry is passed over.
  bool drop(uint64_t index);

  /// The set of an entry; an empty one when there is no such entry.
  const ViaSet& viaSet(uint64_t index) const {
    static const ViaSet kNone;
    return users(index) == 0 ? kNone : entry(index).vias;
  }
  /// How many users an entry has; none when there is no such entry.
  uint32_t users(uint64_t index) const {
    return index == 0 || index > count_ ? 0 : entry(index).users;
  }
  /// Begins to fetch what take() or the last drop() reads of a set, or what the others read of an
  /// entry.
  void prefetch(const ViaSet& vias) const {
    numbers_.prefetchHash(vias.hash());
    prefetch(uint64_t{firstFree_});
  }
  void prefetch(uint64_t index) const {
    if (index == 0 || index > count_) return;
    const Entry& fetched = entry(index);
    Kiv::prefetch(&fetched);
    Kiv::prefetch(&fetched.nextFree);  // it may be across a line
  }
  size_t size() const noexcept { return numbers_.size(); }
  /// The number that the next new entry gets.
  Index next() const { return firstFree_ != 0 ? firstFree_ : count_ + 1; }

  /// Calls `visit` with the set and the number of users of each entry.
  template <class Visit>
  void forEach(Visit visit) const {
    for (uint64_t index = 1; index <= count_; ++index) {
      if (users(index) != 0) visit(entry(index).vias, users(index));
    }
  }

 private:
  struct Entry {
    ViaSet vias;
    uint32_t users = 0;
    Index nextFree = 0;  // while there are no users
  };

  /// An entry's number, found by the hash of its set: the set itself stands in the entry alone.
  struct Number {
    uint32_t hashOfVias = 0;
    Index index = 0;

    uint32_t hash() const { return hashOfVias; }
    friend bool operator==(const Number&, const Number&) = default;
  };
  struct Sought {
    const AdjacencyTable& table;
    const ViaSet& vias;
    uint32_t hashOfVias;

    bool operator==(const Number& number) const {
      return number.hashOfVias == hashOfVias && table.entry(number.index).vias == vias;
    }
  };

  static constexpr uint64_t kChunk = 256;

  Entry& entry(uint64_t index) const { return chunks_[(index - 1) / kChunk][(index - 1) % kChunk]; }

  std::vector<std::unique_ptr<Entry[]>> chunks_;  // grows without moving what it has
  Index count_ = 0;                               // entries that there ever were
  Index firstFree_ = 0;
  Kiv::HashMap<Number, Kiv::Present> numbers_;
};

template <class ViaSet>
std::pair<uint32_t, bool> AdjacencyTable<ViaSet>::take(const ViaSet& vias) {
  const uint32_t hash = vias.hash();
  if (const Number* found = numbers_.findKey(Sought{*this, vias, hash}, hash)) {
    ++entry(found->index).users;
    return {found->index, false};
  }
  if (firstFree_ == 0 && count_ % kChunk == 0) {
    chunks_.push_back(std::make_unique<Entry[]>(kChunk));
  }
  const Index index = next();
  Entry& added = entry(index);
  numbers_.add({.hashOfVias = hash, .index = index}, hash);
  if (firstFree_ != 0) {
    firstFree_ = added.nextFree;
  } else {
    ++count_;
  }
  added = {.vias = vias, .users = 1, .nextFree = 0};
  return {index, true};
}

template <class ViaSet>
bool AdjacencyTable<ViaSet>::drop(uint64_t index) {
  if (users(index) == 0) return false;
  Entry& dropped = entry(index);
  if (--dropped.users != 0) return false;
  numbers_.erase({.hashOfVias = dropped.vias.hash(), .index = static_cast<Index>(index)});
  dropped = {
      .vias = {}, .users = 0, .nextFree = std::exchange(firstFree_, static_cast<Index>(index))};
  return true;
}

}  // namespace Rovel
