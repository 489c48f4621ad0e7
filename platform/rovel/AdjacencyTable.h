// Adjacencies: via sets that many routes share.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "platform/kiv/containers/NumberIndex.h"
#include "platform/kiv/containers/Prefetch.h"

namespace Rovel {

/// One numbered entry for each distinct via set, with the number of routes that use it.
///
/// An entry is removed with its last user. Its number may be used again. Numbers count from
/// 1. The memory of a large table is freed in chunks, once a chunk has no entry left.
template <class ViaSet>
class AdjacencyTable {
 public:
  using Index = uint32_t;

  /// The number of the set's entry, made if there is none, and whether it was made. Counts one
  /// more user.
  std::pair<Index, bool> take(const ViaSet& vias);
  /// Counts one more user of an entry. \pre there is one of this number
  void share(uint64_t index) { ++entry(index).users; }
  /// Counts one user less. The entry is removed with its last user. An index without entry is
  /// ignored.
  void drop(uint64_t index);

  /// The set of an entry; an empty one when there is no such entry.
  const ViaSet& viaSet(uint64_t index) const {
    static const ViaSet kNone;
    const Entry* found = find(index);
    return found == nullptr || found->users == 0 ? kNone : found->vias;
  }
  /// The number of users of an entry; 0 when there is no such entry.
  uint32_t users(uint64_t index) const {
    const Entry* found = find(index);
    return found == nullptr ? 0 : found->users;
  }
  /// True when there is an entry of this number, and it has these vias.
  bool has(uint64_t index, const ViaSet& vias) const {
    const Entry* found = find(index);
    return found != nullptr && found->users != 0 && found->vias == vias;
  }
  /// Prefetches the memory that take() or the last drop() of a set reads, or that the others read
  /// of an entry.
  void prefetch(const ViaSet& vias) const {
    numbers_.prefetch(vias.hash());
    prefetch(uint64_t{next()});
  }
  void prefetch(uint64_t index) const {
    const Entry* fetched = find(index);
    if (fetched == nullptr) return;
    Kiv::prefetch(fetched);
    Kiv::prefetch(&fetched->nextFree);  // it may be across a line
  }
  size_t size() const noexcept { return numbers_.size(); }
  /// The bytes of memory that the entries take.
  size_t bytes() const {
    size_t entries = 0;
    for (size_t chunk = 0; chunk < chunks_.size(); ++chunk) {
      if (chunks_[chunk].entries != nullptr) entries += sizeOf(chunk);
    }
    return entries * sizeof(Entry);
  }
  /// The number that the next new entry gets.
  Index next() const {
    if (roomy_.empty()) return count_ + 1;
    const Chunk& chunk = chunks_[roomy_.back()];
    return chunk.entries == nullptr ? firstOf(roomy_.back()) : chunk.firstFree;
  }

  /// The highest number that an entry ever had.
  Index last() const noexcept { return count_; }
  /// Corrects the number of users of an entry. Without users it is removed. \pre the entry exists
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

  // The entries of a chunk. The first ones are smaller: with 8, 8, 16, 32 and so on, they have the
  // first kChunk entries, because most VRFs have few adjacencies.
  static constexpr uint64_t kChunk = 256;
  static constexpr uint64_t kFirstChunk = 8;
  static constexpr size_t kSmallChunks = std::bit_width(kChunk / kFirstChunk);
  static constexpr size_t kNoChunk = SIZE_MAX;

  struct Chunk {
    std::unique_ptr<Entry[]> entries;  // null where all of them are free
    Index firstFree = 0;
    uint32_t used = 0;
  };

  static size_t chunkOf(uint64_t index) {
    const uint64_t at = index - 1;
    return at < kChunk ? std::bit_width(at / kFirstChunk) : at / kChunk + kSmallChunks - 1;
  }
  static Index firstOf(size_t chunk) {
    if (chunk == 0) return 1;
    return static_cast<Index>(
        (chunk < kSmallChunks ? kFirstChunk << (chunk - 1) : (chunk - kSmallChunks + 1) * kChunk) +
        1);
  }
  static size_t sizeOf(size_t chunk) { return firstOf(chunk + 1) - firstOf(chunk); }
  /// The memory of an entry, also of a free one; null when there is none.
  Entry* find(uint64_t index) const {
    const uint64_t at = index - 1;
    if (at >= count_) return nullptr;
    const size_t chunk = chunkOf(index);
    Entry* const entries = chunks_[chunk].entries.get();
    if (entries == nullptr) return nullptr;
    return entries + (at >= kChunk ? at % kChunk : index - firstOf(chunk));
  }
  /// \pre its chunk has memory
  Entry& entry(uint64_t index) const {
    const size_t chunk = chunkOf(index);
    return chunks_[chunk].entries[index - firstOf(chunk)];
  }
  /// Makes the memory of the next new entry.
  void makeRoom();
  /// Takes the number of the next new entry. \pre makeRoom()
  Index takeNext();
  void release(size_t emptied);

  std::vector<Chunk> chunks_;    // grows without moving the entries
  std::vector<uint32_t> roomy_;  // the chunks with freed entries; the last is filled
  size_t emptied_ = kNoChunk;    // the chunk that lost its last entry most recently, not yet freed
  Index count_ = 0;              // entries that were ever made
  Kiv::NumberIndex numbers_;     // by the sets, which stand in the entries alone
};

template <class ViaSet>
std::pair<uint32_t, bool> AdjacencyTable<ViaSet>::take(const ViaSet& vias) {
  const uint32_t hash = vias.hash();
  const auto isSought = [&](Index index) { return entry(index).vias == vias; };
  if (const Index* found = numbers_.find(hash, isSought)) {
    ++entry(*found).users;
    return {*found, false};
  }
  makeRoom();
  numbers_.add(hash, next());
  const Index index = takeNext();
  entry(index) = {.vias = vias, .users = 1, .nextFree = 0};
  return {index, true};
}

template <class ViaSet>
void AdjacencyTable<ViaSet>::makeRoom() {
  if (roomy_.empty()) {
    if (count_ + 1 != firstOf(chunks_.size())) return;
    // So that no later push_back() can fail.
    if (roomy_.capacity() <= chunks_.size()) roomy_.reserve(2 * chunks_.size() + 1);
    chunks_.push_back({.entries = std::make_unique<Entry[]>(sizeOf(chunks_.size()))});
    return;
  }
  Chunk& chunk = chunks_[roomy_.back()];
  if (chunk.entries != nullptr) return;
  chunk.entries = std::make_unique<Entry[]>(sizeOf(roomy_.back()));
  chunk.firstFree = 0;
  for (Index index = firstOf(roomy_.back() + 1); index-- > firstOf(roomy_.back());) {
    entry(index).nextFree = std::exchange(chunk.firstFree, index);
  }
}

template <class ViaSet>
uint32_t AdjacencyTable<ViaSet>::takeNext() {
  const Index index = next();
  Chunk& chunk = chunks_[chunkOf(index)];
  ++chunk.used;
  if (roomy_.empty()) {
    ++count_;
  } else {
    chunk.firstFree = entry(index).nextFree;
    if (chunk.firstFree == 0) roomy_.pop_back();
  }
  return index;
}

template <class ViaSet>
void AdjacencyTable<ViaSet>::drop(uint64_t index) {
  Entry* const found = find(index);
  if (found == nullptr || found->users == 0) return;
  Entry& dropped = *found;
  if (--dropped.users != 0) return;
  numbers_.erase(dropped.vias.hash(), static_cast<Index>(index));
  const size_t number = chunkOf(index);
  Chunk& chunk = chunks_[number];
  if (chunk.firstFree == 0) roomy_.push_back(static_cast<uint32_t>(number));
  dropped = {.vias = {},
             .users = 0,
             .nextFree = std::exchange(chunk.firstFree, static_cast<Index>(index))};
  if (--chunk.used == 0) release(number);
}

/// Frees the chunk that was emptied before this one, so that an entry that comes and goes does not
/// allocate one each time. The last chunk stays: it may have entries that were never used.
template <class ViaSet>
void AdjacencyTable<ViaSet>::release(size_t emptied) {
  const size_t former = std::exchange(emptied_, emptied);
  if (former == kNoChunk || former == emptied || former + 1 == chunks_.size()) return;
  if (chunks_[former].used == 0) chunks_[former].entries = nullptr;
}

}  // namespace Rovel
