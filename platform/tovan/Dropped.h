// What a table had to give up, and the announcement of it.
#pragma once

#include <optional>
#include <vector>

#include "platform/kiv/containers/Ptr.h"
#include "platform/kiv/runtime/Watch.h"

namespace Tovan {

/// The entries that a table gave up because they were damaged.
template <class Key>
struct Dropped {
  /// What stands where the keys were stored, as far as it may be a key. It may be damaged, too, so
  /// any other entry may be the one that went.
  std::vector<Key> keys;
};

/// Announces what a table of `owner` had to give up: each key, and the whole collection, because a
/// key may have been damaged. The watches know first.
template <class Attribute, class Owner, class Key>
void announce(const Owner& owner, const Kiv::WatchList<Key>& watches, const Dropped<Key>& dropped) {
  for (const Key& gone : dropped.keys) watches.written(gone);
  const Kiv::Ptr<const Owner> alive(&owner);  // a callback may drop the last handle
  for (const Key& gone : dropped.keys) owner.template notify<Attribute>(gone);
  owner.template notify<Attribute>();
}

/// Announces a change of `key` in `owner`, and then what its table had to give up meanwhile.
template <class Attribute, class Owner, class Key>
void announce(const Owner& owner, const Kiv::WatchList<Key>& watches, const Key& key,
              const std::optional<Dropped<Key>>& dropped) {
  watches.written(key);
  if (!dropped) [[likely]] {
    owner.template notify<Attribute>(key);
    return;
  }
  const Kiv::Ptr<const Owner> alive(&owner);  // a callback may drop the last handle
  Dropped<Key> others = *dropped;
  std::erase(others.keys, key);
  for (const Key& gone : others.keys) watches.written(gone);
  owner.template notify<Attribute>(key);
  announce<Attribute>(owner, watches, others);
}

}  // namespace Tovan
