// Adjacencies: via sets that many routes share.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "platform/kiv/HashMap.h"

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
  /// Begins to fetch what take() reads of a set, or what the others read of an entry.
  void prefetch(const ViaSet& vias) const { indices_.prefetch(vias); }
  void prefetch(uint64_t index) const {
    if (index != 0 && index <= count_) __builtin_prefetch(&entry(index));
  }
  size_t size() const noexcept { return indices_.size(); }
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

  static constexpr uint64_t kChunk = 256;

  Entry& entry(uint64_t index) const { return chunks_[(index - 1) / kChunk][(index - 1) % kChunk]; }

  std::vector<std::unique_ptr<Entry[]>> chunks_;  // grows without moving what it has
  Index count_ = 0;                               // entries that there ever were
  Index firstFree_ = 0;
  Kiv::HashMap<ViaSet, Index> indices_;
};

template <class ViaSet>
std::pair<uint32_t, bool> AdjacencyTable<ViaSet>::take(const ViaSet& vias) {
  const auto [index, isNew] = indices_.tryEmplace(vias, Index{0});
  if (isNew) {
    if (firstFree_ != 0) {
      *index = std::exchange(firstFree_, entry(firstFree_).nextFree);
    } else {
      if (count_ % kChunk == 0) chunks_.push_back(std::make_unique<Entry[]>(kChunk));
      *index = ++count_;
    }
    entry(*index).vias = vias;
  }
  ++entry(*index).users;
  return {*index, isNew};
}

template <class ViaSet>
bool AdjacencyTable<ViaSet>::drop(uint64_t index) {
  if (users(index) == 0) return false;
  Entry& dropped = entry(index);
  if (--dropped.users != 0) return false;
  indices_.erase(dropped.vias);
  dropped = {
      .vias = {}, .users = 0, .nextFree = std::exchange(firstFree_, static_cast<Index>(index))};
  return true;
}

}  // namespace Rovel
