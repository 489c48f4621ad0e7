// The values of many host routes, each stored once.
#pragma once

#include <cstdint>
#include <map>
#include <unordered_set>
#include <vector>

#include "linux/RouteRequest.h"

namespace Linux {

/// Stores each value once and counts its users.
class RouteValuePool {
 public:
  /// The number of a value; 0 is no value.
  using Id = uint32_t;

  /// The number of a value. Counts one more user of it.
  Id take(RouteValue value);
  /// As take(), for a value that has users.
  Id share(Id id) {
    ++slots_[id].users;
    return id;
  }
  /// Counts one user less.
  void drop(Id id);
  const RouteValue& operator[](Id id) const { return slots_[id].at->first; }
  /// For each number, whether `test` is true of its value.
  template <class Test>
  std::vector<bool> select(const Test& test) const {
    std::vector<bool> selected(slots_.size());
    for (const auto& [value, id] : index_) selected[id] = test(value);
    return selected;
  }

 private:
  using Index = std::map<RouteValue, Id>;
  struct Slot {
    Index::iterator at;
    uint32_t users = 0;
  };

  Index index_;
  std::vector<Slot> slots_{1};
  std::vector<Id> unused_;
  Id last_ = 0;  // that was taken
};

}  // namespace Linux
