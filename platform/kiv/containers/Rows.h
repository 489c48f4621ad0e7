// Several maps with the same keys, whose entries are stored side by side.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/kiv/containers/NumberIndex.h"

namespace Kiv {

/// Several maps that mostly have the same keys. There is a row for each key that is in any of the
/// maps, and a Column for each map; the type of its values identifies a column.
///
/// A key is stored once, and its values are stored side by side. A row does not move. It is removed
/// with its last entry. Pointers to values are valid until their own entry is deleted.
template <class K, class... Values>
class Rows {
  using Number = uint32_t;
  static constexpr Number kNone = UINT32_MAX;
  static constexpr Number kRowsOfChunk = 64;  // the bits of a word

  struct Row {
    K key;
    std::tuple<Values...> values;
  };
  struct Chunk {
    /// For each column, a bit for each row that has an entry.
    std::array<uint64_t, sizeof...(Values)> present{};
    std::array<Row, kRowsOfChunk> rows{};

    uint64_t used() const {
      uint64_t used = 0;
      for (const uint64_t entries : present) used |= entries;
      return used;
    }
    bool isFull() const { return used() == ~uint64_t{0}; }
  };

  /// An iterator over a column, which may change meanwhile.
  ///
  /// An element that is present from start to end is visited once, even if others are added or
  /// deleted. The rows must outlive their iterators.
  template <class V, bool kIsConst>
  class WalkOf {
   public:
    using Value = std::conditional_t<kIsConst, const V, V>;
    /// The element of a range-for.
    struct Entry {
      const K& key;
      Value& value;
    };

    WalkOf() = default;

    explicit operator bool() const noexcept { return number_ != kNone; }
    /// The key of the element, also when it has been deleted. \pre *this
    const K& key() const noexcept { return key_; }
    /// The value. \pre the element has not been deleted
    Value& value() const {
      const bool isHere = rows_->template has<V>(number_) && rows_->row(number_).key == key_;
      return rows_->template value<V>(isHere ? number_ : rows_->locate(key_));
    }
    Value& ptr() const { return value(); }
    WalkOf& operator++() {
      if (*this) standOn(rows_->template firstFrom<V>(number_ + 1));
      return *this;
    }
    Entry operator*() const { return {key_, value()}; }
    friend bool operator==(const WalkOf& walk, std::default_sentinel_t) { return !walk; }

   private:
    friend Rows;
    WalkOf(Rows& rows, Number number) : rows_(&rows) { standOn(number); }
    void standOn(Number number) {
      number_ = number;
      if (*this) key_ = rows_->row(number).key;
    }

    Rows* rows_ = nullptr;
    Number number_ = kNone;
    K key_{};
  };

 public:
  /// One of the maps, with the members of a HashMap that a collection uses.
  template <class V>
  class Column {
   public:
    using Key = K;
    using Value = V;
    using Iterator = WalkOf<V, false>;
    using IteratorConst = WalkOf<V, true>;

    /// \param rows  has no other column with values of this type; must outlive the column.
    explicit Column(Rows& rows) : rows_(rows) {}

    size_t size() const noexcept { return rows_.sizes_[kColumn<V>]; }

    /// The value of `key`, or null.
    V* find(const K& key) { return rows_.template find<V>(key); }
    const V* find(const K& key) const { return rows_.template find<V>(key); }
    /// Prefetches the memory that find() reads first, for all columns.
    void prefetch(const K& key) const { rows_.index_.prefetch(Hash<K>()(key)); }

    /// The value of `key`. If there is none, makes it of `args`. \returns true when it was made.
    template <class... Args>
    std::pair<V*, bool> tryEmplace(const K& key, Args&&... args) {
      const uint32_t hash = Hash<K>()(key);
      const Number known = rows_.locate(key, hash);
      if (rows_.template has<V>(known)) return {&rows_.template value<V>(known), false};
      V value(std::forward<Args>(args)...);
      const Number number = known == kNone ? rows_.newRow(key, hash) : known;
      return {rows_.add(number, std::move(value)), true};
    }
    /// Deletes the element of `key`, which may be a reference to its own key.
    /// \returns true when there was one.
    bool erase(const K& key) {
      const Number number = rows_.locate(key);
      if (!rows_.template has<V>(number)) return false;
      [[maybe_unused]] const V gone = rows_.template take<V>(number);
      return true;
    }
    /// Deletes all elements.
    void clear() {
      // Destroying a value may run code that uses this column, so all entries are removed first.
      std::vector<V> gone;
      if constexpr (!std::is_trivially_destructible_v<V>) gone.reserve(size());
      for (Number at = 0; (at = rows_.template firstFrom<V>(at)) != kNone; ++at) {
        V value = rows_.template take<V>(at);
        if constexpr (!std::is_trivially_destructible_v<V>) gone.push_back(std::move(value));
      }
    }

    Iterator iterator() { return Iterator(rows_, rows_.template firstFrom<V>(0)); }
    IteratorConst iteratorConst() const {
      return IteratorConst(rows_, rows_.template firstFrom<V>(0));
    }
    /// An iterator at `key`, or at the end when the key is absent.
    IteratorConst iteratorConst(const K& key) const {
      const Number number = rows_.locate(key);
      return IteratorConst(rows_, rows_.template has<V>(number) ? number : kNone);
    }
    /// The keys as they are now.
    std::vector<K> keys() const {
      std::vector<K> keys;
      keys.reserve(size());
      for (const auto& entry : *this) keys.push_back(entry.key);
      return keys;
    }
    IteratorConst begin() const { return iteratorConst(); }
    std::default_sentinel_t end() const { return {}; }

   private:
    Rows& rows_;
  };

  Rows() = default;
  Rows(const Rows&) = delete;
  Rows& operator=(const Rows&) = delete;

 private:
  template <class V>
  static constexpr size_t columnOf() {
    size_t column = 0;
    static_cast<void>(((std::is_same_v<V, Values> || (++column, false)) || ...));
    return column;
  }
  template <class V>
  static constexpr size_t kColumn = columnOf<V>();

  static constexpr uint64_t bitOf(Number number) { return uint64_t{1} << number % kRowsOfChunk; }
  std::unique_ptr<Chunk>& chunkOf(Number number) { return chunks_[number / kRowsOfChunk]; }
  const Chunk& chunkOf(Number number) const { return *chunks_[number / kRowsOfChunk]; }
  const Row& row(Number number) const { return chunkOf(number).rows[number % kRowsOfChunk]; }
  template <class V>
  V& value(Number number) {
    return std::get<V>(chunkOf(number)->rows[number % kRowsOfChunk].values);
  }
  /// True when there is such a row with an entry in the column.
  template <class V>
  bool has(Number number) const {
    const size_t chunk = number / kRowsOfChunk;
    return chunk < chunks_.size() && chunks_[chunk] &&
           (chunks_[chunk]->present[kColumn<V>] & bitOf(number)) != 0;
  }
  /// The first row from this one on with an entry in the column, or kNone.
  template <class V>
  Number firstFrom(Number number) const {
    for (size_t chunk = number / kRowsOfChunk; chunk < chunks_.size(); ++chunk) {
      if (!chunks_[chunk]) continue;
      const auto first = static_cast<Number>(chunk) * kRowsOfChunk;
      uint64_t entries = chunks_[chunk]->present[kColumn<V>];
      if (number > first) entries &= ~uint64_t{0} << (number - first);
      if (entries != 0) return first + static_cast<Number>(std::countr_zero(entries));
    }
    return kNone;
  }

  Number locate(const K& key) const { return locate(key, Hash<K>()(key)); }
  Number locate(const K& key, uint32_t hash) const {
    const Number* found = index_.find(hash, [&](Number number) { return row(number).key == key; });
    return found == nullptr ? kNone : *found;
  }
  template <class V>
  V* find(const K& key) {
    const Number number = locate(key);
    return has<V>(number) ? &value<V>(number) : nullptr;
  }

  /// Makes a row for `key`. The caller adds an entry to it.
  Number newRow(const K& key, uint32_t hash) {
    if (roomy_.empty()) {
      chunks_.emplace_back();
      roomy_.reserve(chunks_.capacity());  // so that no later push_back() can fail
      roomy_.push_back(static_cast<Number>(chunks_.size() - 1));
    }
    auto& chunk = chunks_[roomy_.back()];
    if (!chunk) chunk = std::make_unique<Chunk>();
    const auto place = static_cast<Number>(std::countr_one(chunk->used()));
    const Number number = roomy_.back() * kRowsOfChunk + place;
    index_.add(hash, number);
    chunk->rows[place].key = key;
    return number;
  }
  template <class V>
  V* add(Number number, V value) {
    Chunk& chunk = *chunkOf(number);
    const bool wasFull = chunk.isFull();
    chunk.present[kColumn<V>] |= bitOf(number);
    ++sizes_[kColumn<V>];
    if (chunk.isFull() && !wasFull) roomy_.pop_back();
    auto& stored = this->value<V>(number);
    stored = std::move(value);
    return &stored;
  }
  /// Removes an entry, and its row if that was the row's last entry. Returns the value.
  template <class V>
  V take(Number number) {
    auto& chunk = chunkOf(number);
    V taken = std::exchange(value<V>(number), V());
    const bool wasFull = chunk->isFull();
    chunk->present[kColumn<V>] &= ~bitOf(number);
    --sizes_[kColumn<V>];
    const uint64_t used = chunk->used();
    if ((used & bitOf(number)) != 0) return taken;
    index_.erase(Hash<K>()(row(number).key), number);
    if (wasFull) roomy_.push_back(number / kRowsOfChunk);
    if (used == 0) chunk = nullptr;
    if (index_.empty()) {
      decltype(chunks_)().swap(chunks_);
      decltype(roomy_)().swap(roomy_);
    }
    return taken;
  }

  NumberIndex index_;                           // the rows by key
  std::vector<std::unique_ptr<Chunk>> chunks_;  // null for a chunk without rows
  std::vector<Number> roomy_;                   // chunks that are not full; the last is used first
  std::array<size_t, sizeof...(Values)> sizes_{};
};

}  // namespace Kiv
