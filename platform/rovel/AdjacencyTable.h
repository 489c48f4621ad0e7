// Adjacencies: via sets that many routes share.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "platform/kiv/containers/NumberIndex.h"
#include "platform/kiv/containers/Prefetch.h"

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
  /// Counts one user less; with the last one the entry goes. An index without entry is passed over.
  void drop(uint64_t index);

  /// The set of an entry; an empty one when there is no such entry.
  const ViaSet& viaSet(uint64_t index) const {
    static const ViaSet kNone;
    return users(index) == 0 ? kNone : entry(index).vias;
  }
  /// How many users an entry has; none when there is no such entry.
  uint32_t users(uint64_t index) const {
    return index == 0 || index > count_ ? 0 : entry(index).users;
  }
  /// Prefetches the memory that take() or the last drop() of a set reads, or that the others read
  /// of an entry.
  void prefetch(const ViaSet& vias) const {
    numbers_.prefetch(vias.hash());
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

  /// The highest number that an entry ever had.
  Index last() const noexcept { return count_; }
  /// Corrects how many users an entry has; one without users goes. \pre there is one of this number
  void usersAre(uint64_t index, uint32_t users) {
    entry(index).users = std::max(users, 1U);
    if (users == 0) drop(index);
  }

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

  static constexpr uint64_t kChunk = 256;

  Entry& entry(uint64_t index) const { return chunks_[(index - 1) / kChunk][(index - 1) % kChunk]; }

  std::vector<std::unique_ptr<Entry[]>> chunks_;  // grows without moving its entries
  Index count_ = 0;                               // entries that there ever were
  Index firstFree_ = 0;
  Kiv::NumberIndex numbers_;  // by the sets, which stand in the entries alone
};

template <class ViaSet>
std::pair<uint32_t, bool> AdjacencyTable<ViaSet>::take(const ViaSet& vias) {
  const uint32_t hash = vias.hash();
  const auto isSought = [&](Index index) { return entry(index).vias == vias; };
  if (const Index* found = numbers_.find(hash, isSought)) {
    ++entry(*found).users;
    return {*found, false};
  }
  if (firstFree_ == 0 && count_ % kChunk == 0) {
    chunks_.push_back(std::make_unique<Entry[]>(kChunk));
  }
  const Index index = next();
  Entry& added = entry(index);
  numbers_.add(hash, index);
  if (firstFree_ != 0) {
    firstFree_ = added.nextFree;
  } else {
    ++count_;
  }
  added = {.vias = vias, .users = 1, .nextFree = 0};
  return {index, true};
}

template <class ViaSet>
void AdjacencyTable<ViaSet>::drop(uint64_t index) {
  if (users(index) == 0) return;
  Entry& dropped = entry(index);
  if (--dropped.users != 0) return;
  numbers_.erase(dropped.vias.hash(), static_cast<Index>(index));
  dropped = {
      .vias = {}, .users = 0, .nextFree = std::exchange(firstFree_, static_cast<Index>(index))};
}

}  // namespace Rovel
