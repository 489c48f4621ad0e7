// Knowing of each change of a table before anybody is told of it.
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
/// notifiees are told. It keeps knowledge that is derived from the table up to date, for a notifiee
/// may already ask for it. It must change nothing that has notifiees.
template <class Key>
class Watch {
 public:
  using Written = std::function<void(const Key&)>;

  Watch() = default;
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  ~Watch() { end(); }

  /// Calls `written` from now on, for the changes of the table that has this list.
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

/// The watches of one table, which a const one has too.
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
  /// The entry of `key` is stored or removed.
  void written(const Key& key) const {
    // A watch may begin meanwhile.
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
