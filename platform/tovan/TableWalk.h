// Walks over shared tables, in the form of a collection's iterator.
#pragma once

#include <iterator>
#include <optional>

#include "platform/tovan/TovanMap.h"

namespace Tovan {

/// Visits the entries of a table, each as it was at one moment. The body of the loop may write to
/// the table. The current entry may be removed meanwhile.
template <class Key, class Value>
class TableWalk {
 public:
  using PassesOver = bool (*)(const Key&);

  /// \param passesOver  whether an entry is left out; null for none.
  /// \throws CorruptionDetectedException, as advancing does.
  explicit TableWalk(const TovanMap<Key, Value>& map, PassesOver passesOver = nullptr)
      : at_(map.begin()), passesOver_(passesOver) {
    settle();
  }

  explicit operator bool() const noexcept { return item_.has_value(); }
  /// \pre *this
  const Key& key() const noexcept { return item_->key; }
  TableWalk& operator++() {
    if (item_) ++at_;
    settle();
    return *this;
  }

 protected:
  const Value& record() const noexcept { return item_->value; }

 private:
  void settle() {
    for (item_.reset(); at_ != std::default_sentinel; ++at_) {
      const auto item = *at_;
      if (passesOver_ != nullptr && passesOver_(item.key)) continue;
      item_ = item;
      return;
    }
  }

  typename TovanMap<Key, Value>::Iterator at_;
  PassesOver passesOver_;
  std::optional<typename TovanMap<Key, Value>::Item> item_;
};

}  // namespace Tovan
