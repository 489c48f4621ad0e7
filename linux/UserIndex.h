// Who uses what.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/kiv/containers/HashMap.h"

namespace Linux {

/// The numbers of those that use a key, for each key that is in use.
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
  /// A copy: what is done to the users may change the list.
  std::vector<uint32_t> of(const K& key) const {
    const auto* users = users_.find(key);
    return users == nullptr ? std::vector<uint32_t>() : *users;
  }

 private:
  Kiv::HashMap<K, std::vector<uint32_t>> users_;
};

}  // namespace Linux
