// Adjacencies: via sets that many routes share.
#pragma once

#include <cstdint>
#include <deque>

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
  /// Counts one user less. Returns whether it was the last: the entry is gone then. An index
  /// without entry is passed over.
  bool drop(uint64_t index);

  /// The set of an entry; an empty one when there is no such entry.
  const ViaSet& viaSet(uint64_t index) const {
    static const ViaSet kNone;
    return users(index) == 0 ? kNone : entries_[index - 1].vias;
  }
  /// How many users an entry has; none when there is no such entry.
  uint32_t users(uint64_t index) const {
    return index == 0 || index > entries_.size() ? 0 : entries_[index - 1].users;
  }
  size_t size() const noexcept { return indices_.size(); }

  /// Calls `visit` with the set and the number of users of each entry.
  template <class Visit>
  void forEach(Visit visit) const {
    for (const Entry& entry : entries_) {
      if (entry.users != 0) visit(entry.vias, entry.users);
    }
  }

 private:
  struct Entry {
    ViaSet vias;
    uint32_t users = 0;
    Index nextFree = 0;  // while there are no users
  };

  std::deque<Entry> entries_;  // grows without moving what it has
  Index firstFree_ = 0;
  Kiv::HashMap<ViaSet, Index> indices_;
};

template <class ViaSet>
std::pair<uint32_t, bool> AdjacencyTable<ViaSet>::take(const ViaSet& vias) {
  const auto [index, isNew] = indices_.tryEmplace(vias, Index{0});
  if (isNew) {
    if (firstFree_ != 0) {
      *index = std::exchange(firstFree_, entries_[firstFree_ - 1].nextFree);
    } else {
      entries_.emplace_back();
      *index = static_cast<Index>(entries_.size());
    }
    entries_[*index - 1].vias = vias;
  }
  ++entries_[*index - 1].users;
  return {*index, isNew};
}

template <class ViaSet>
bool AdjacencyTable<ViaSet>::drop(uint64_t index) {
  if (users(index) == 0) return false;
  Entry& entry = entries_[index - 1];
  if (--entry.users != 0) return false;
  indices_.erase(entry.vias);
  entry = {
      .vias = {}, .users = 0, .nextFree = std::exchange(firstFree_, static_cast<Index>(index))};
  return true;
}

}  // namespace Rovel
