// An index from keys to numbers that does not store the keys.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/kiv/containers/HashMap.h"

namespace Kiv {

/// Finds the numbers of objects by the hashes of their keys. The objects and the keys are stored
/// elsewhere; the index takes eight bytes for each and grows without reading them.
class NumberIndex {
 public:
  size_t size() const noexcept { return entries_.size(); }
  bool empty() const noexcept { return entries_.empty(); }

  /// Among the numbers whose keys have this hash, the one for which `isSought` returns true; or
  /// null. Valid until a number is added.
  template <class Test>
  const uint32_t* find(uint32_t hash, const Test& isSought) const {
    const Entry* found = entries_.findKey(Sought<Test>{hash, isSought}, hash);
    return found == nullptr ? nullptr : &found->number;
  }
  /// Prefetches the memory that find() reads.
  void prefetch(uint32_t hash) const { entries_.prefetchHash(hash); }

  /// \pre the number is not there \throws std::bad_alloc
  void add(uint32_t hash, uint32_t number) {
    entries_.add({.hashOfKey = hash, .number = number}, hash);
  }
  /// Removes a number. \pre it was added with this hash
  void erase(uint32_t hash, uint32_t number) {
    entries_.erase({.hashOfKey = hash, .number = number});
  }

 private:
  struct Entry {
    uint32_t hashOfKey = 0;
    uint32_t number = 0;

    uint32_t hash() const { return hashOfKey; }
    friend bool operator==(const Entry&, const Entry&) = default;
  };
  template <class Test>
  struct Sought {
    uint32_t hashOfKey;
    const Test& isSought;

    bool operator==(const Entry& entry) const {
      return entry.hashOfKey == hashOfKey && isSought(entry.number);
    }
  };

  HashMap<Entry, Present> entries_;
};

}  // namespace Kiv
