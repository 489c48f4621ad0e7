// A hash map that can also list its keys in order.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "platform/kiv/containers/HashMap.h"

namespace Kiv {

/// Keys in ascending order, in runs of a few hundred. A change moves only the keys of one run.
template <class K>
class OrderedKeys {
 public:
  /// \param keys  in ascending order, each once.
  explicit OrderedKeys(const std::vector<K>& keys) {
    for (size_t at = 0; at < keys.size(); at += kFilled) {
      const auto from = keys.begin() + static_cast<std::ptrdiff_t>(at);
      const auto to = from + static_cast<std::ptrdiff_t>(std::min(kFilled, keys.size() - at));
      firsts_.push_back(*from);
      runs_.emplace_back(from, to);
    }
  }

  /// \pre the key is absent \throws std::bad_alloc; the object must then not be used any more
  void insert(const K& key) {
    if (runs_.empty()) {
      firsts_.push_back(key);
      runs_.push_back({key});
      return;
    }
    const size_t at = runOf(key);
    Run& run = runs_[at];
    run.insert(std::lower_bound(run.begin(), run.end(), key), key);
    firsts_[at] = run.front();
    if (run.size() < kMost) return;
    const auto middle = run.begin() + kMost / 2;
    Run second(middle, run.end());
    run.erase(middle, run.end());
    const auto next = static_cast<std::ptrdiff_t>(at + 1);
    firsts_.insert(firsts_.begin() + next, second.front());
    runs_.insert(runs_.begin() + next, std::move(second));
  }
  /// \pre the key is present
  void erase(const K& key) {
    const size_t at = runOf(key);
    Run& run = runs_[at];
    run.erase(std::lower_bound(run.begin(), run.end(), key));
    if (!run.empty()) {
      firsts_[at] = run.front();
    } else {
      firsts_.erase(firsts_.begin() + static_cast<std::ptrdiff_t>(at));
      runs_.erase(runs_.begin() + static_cast<std::ptrdiff_t>(at));
    }
  }
  /// The keys from `first` to `last`.
  std::vector<K> between(const K& first, const K& last) const {
    std::vector<K> keys;
    for (size_t at = runOf(first); at < runs_.size() && firsts_[at] <= last; ++at) {
      const Run& run = runs_[at];
      const auto from = std::lower_bound(run.begin(), run.end(), first);
      keys.insert(keys.end(), from, std::upper_bound(from, run.end(), last));
    }
    return keys;
  }

 private:
  using Run = std::vector<K>;
  static constexpr size_t kMost = 256;
  static constexpr size_t kFilled = kMost / 4 * 3;

  /// The run that has the key, or would have it.
  size_t runOf(const K& key) const {
    const auto behind = std::upper_bound(firsts_.begin(), firsts_.end(), key);
    return static_cast<size_t>(std::max(behind - firsts_.begin(), std::ptrdiff_t{1})) - 1;
  }

  std::vector<K> firsts_;  // the first key of each run, for the search
  std::vector<Run> runs_;  // none is empty
};

/// A hash map that also lists the keys of a range, at a cost that depends only on their number.
///
/// The keys of a large map are sorted at the first call of keysBetween(), and kept in order from
/// then on. The other members are as in HashMap.
template <class K, class V>
class OrderedHashMap {
  using Map = HashMap<K, V>;

 public:
  using Key = typename Map::Key;
  using Value = typename Map::Value;
  using Iterator = typename Map::Iterator;
  using IteratorConst = typename Map::IteratorConst;

  size_t size() const noexcept { return map_.size(); }
  bool empty() const noexcept { return map_.empty(); }
  V* find(const K& key) { return map_.find(key); }
  const V* find(const K& key) const { return map_.find(key); }
  bool contains(const K& key) const { return map_.contains(key); }
  void prefetch(const K& key) const { map_.prefetch(key); }
  auto prefetchHint() const { return map_.prefetchHint(); }
  Iterator iterator() { return map_.iterator(); }
  IteratorConst iteratorConst() const { return map_.iteratorConst(); }
  std::vector<K> keys() const { return map_.keys(); }
  auto begin() const { return map_.begin(); }
  auto end() const { return map_.end(); }

  template <class... Args>
  std::pair<V*, bool> tryEmplace(const K& key, Args&&... args) {
    const auto result = map_.tryEmplace(key, std::forward<Args>(args)...);
    if (order_ && result.second) keepInOrder(key);
    return result;
  }
  bool insert(const K& key) { return tryEmplace(key).second; }
  bool erase(const K& key) {
    const K erased = key;  // NOLINT(performance-*): `key` may be the stored one
    if (!map_.erase(erased)) return false;
    if (order_) order_->erase(erased);
    if (empty()) order_ = nullptr;
    return true;
  }
  void clear() noexcept {
    order_ = nullptr;
    map_.clear();
  }

  /// The keys from `first` to `last`, in ascending order.
  std::vector<K> keysBetween(const K& first, const K& last) const {
    if (!order_ && size() > kWalked) {
      auto all = keys();
      std::sort(all.begin(), all.end());
      order_ = std::make_unique<OrderedKeys<K>>(all);
    }
    if (order_) return order_->between(first, last);
    std::vector<K> found;
    for (auto it = iteratorConst(); it; ++it) {
      if (first <= it.key() && it.key() <= last) found.push_back(it.key());
    }
    std::sort(found.begin(), found.end());
    return found;
  }

 private:
  /// Up to this many keys, a range is found by visiting all keys.
  static constexpr size_t kWalked = 32;

  void keepInOrder(const K& key) noexcept {
    try {
      order_->insert(key);
    } catch (const std::bad_alloc&) {
      order_ = nullptr;  // it may lack the key; the next keysBetween() sorts the keys again
    }
  }

  Map map_;
  mutable std::unique_ptr<OrderedKeys<K>> order_;
};

}  // namespace Kiv
