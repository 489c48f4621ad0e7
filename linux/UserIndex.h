// The users of each key.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/kiv/containers/HashMap.h"

namespace Linux {

/// For each key in use, the numbers of its users.
template <class K>
class UserIndex {
 public:
  void add(const K& key, uint32_t user) { users_.tryEmplace(key).first->push_back(user); }
  void remove(const K& key, uint32_t user) {
    users_.eraseIf(key, [user](std::vector<uint32_t>& users) {
      if (const auto found = std::find(users.begin(), users.end(), user); found != users.end()) {
        *found = users.back();
        users.pop_back();
      }
      return users.empty();
    });
  }
  /// A copy, because the caller may change the list while it visits the users.
  std::vector<uint32_t> of(const K& key) const {
    const auto* users = users_.find(key);
    return users == nullptr ? std::vector<uint32_t>() : *users;
  }

 private:
  Kiv::HashMap<K, std::vector<uint32_t>> users_;
};

}  // namespace Linux
