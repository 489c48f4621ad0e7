// The entries that a table lost, and their announcement.
#pragma once

#include <optional>
#include <vector>

#include "platform/kiv/containers/Ptr.h"
#include "platform/kiv/runtime/Watch.h"

namespace Tovan {

/// The entries that a table dropped because they were damaged.
template <class Key>
struct Dropped {
  /// The keys as they were stored, if they are possible keys. A key may itself be damaged: then the
  /// entry had another key.
  std::vector<Key> keys;
};

/// Announces the entries that a table of `owner` lost: each key, and the whole collection, because
/// a key may be damaged. The watches are called first.
template <class Attribute, class Owner, class Key>
void announce(const Owner& owner, const Kiv::WatchList<Key>& watches, const Dropped<Key>& dropped) {
  for (const Key& gone : dropped.keys) watches.written(gone);
  const Kiv::Ptr<const Owner> alive(&owner);  // a callback may drop the last handle
  for (const Key& gone : dropped.keys) owner.template notify<Attribute>(gone);
  owner.template notify<Attribute>();
}

/// Announces a change of `key` in `owner`, and then the entries that its table lost meanwhile.
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
