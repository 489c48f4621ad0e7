// Watches: functions that are called at each change of a table before the notifiees.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace Kiv {

template <class Key>
class WatchList;

/// A function that is called with the key of each entry that a table stores or removes, before the
/// notifiees are notified. It updates data that is derived from the table and that a notifiee may
/// read. It must not change an object that has notifiees.
template <class Key>
class Watch {
 public:
  using Written = std::function<void(const Key&)>;

  Watch() = default;
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  ~Watch() { end(); }

  /// Calls `written` for the changes of the table with this list from now on.
  void begin(const WatchList<Key>& list, Written written);
  void end() {
    if (list_ != nullptr) std::erase(list_->watches_, this);
    list_ = nullptr;
  }

 private:
  friend class WatchList<Key>;

  const WatchList<Key>* list_ = nullptr;
  Written written_;
};

/// The watches of one table. A table that is const can be watched, too.
template <class Key>
class WatchList {
 public:
  WatchList() = default;
  WatchList(const WatchList&) = delete;
  WatchList& operator=(const WatchList&) = delete;
  ~WatchList() {
    for (auto* watch : watches_) watch->list_ = nullptr;
  }

  bool empty() const noexcept { return watches_.empty(); }
  /// Called by the table when the entry of `key` was stored or removed.
  void written(const Key& key) const {
    // A watch may add another one.
    for (size_t i = 0; i < watches_.size(); ++i) watches_[i]->written_(key);
  }

 private:
  friend class Watch<Key>;
  mutable std::vector<Watch<Key>*> watches_;
};

template <class Key>
void Watch<Key>::begin(const WatchList<Key>& list, Written written) {
  end();
  written_ = std::move(written);
  list.watches_.push_back(this);
  list_ = &list;
}

}  // namespace Kiv
