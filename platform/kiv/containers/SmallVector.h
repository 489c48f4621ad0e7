// A list that keeps its first elements in place.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <memory>
#include <type_traits>

namespace Kiv {

/// A list of plain values that allocates no memory for up to `kInPlace` elements. For lists that
/// rarely have more.
template <class T, uint32_t kInPlace = 1>
class SmallVector {
 public:
  SmallVector() noexcept {}
  SmallVector(const SmallVector& other) : size_(other.size_) {
    if (isOnHeap()) many_ = new T[std::bit_ceil(size_)];
    std::copy(other.begin(), other.end(), data());
  }
  SmallVector(SmallVector&& other) noexcept { take(other); }
  SmallVector& operator=(SmallVector other) noexcept {
    if (isOnHeap()) delete[] many_;
    take(other);
    return *this;
  }
  ~SmallVector() {
    if (isOnHeap()) delete[] many_;
  }

  size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  T* begin() noexcept { return data(); }
  T* end() noexcept { return data() + size_; }
  const T* begin() const noexcept { return data(); }
  const T* end() const noexcept { return data() + size_; }
  T& operator[](size_t index) noexcept { return data()[index]; }
  const T& operator[](size_t index) const noexcept { return data()[index]; }

  /// Puts `value` before `at`, which may be end().
  void insert(const T* at, const T& value) {
    const T* const from = begin();
    const T* const to = end();
    if (size_ < kInPlace || !std::has_single_bit(size_)) {
      // In place, or on the heap with room: the capacity there is the next power of two.
      std::copy_backward(at, to, end() + 1);
      data()[at - from] = value;
    } else {
      T* grown = new T[size_t{2} * size_];
      *std::copy(from, at, grown) = value;
      std::copy(at, to, grown + (at - from) + 1);
      if (isOnHeap()) delete[] many_;
      many_ = grown;
    }
    ++size_;
  }

  /// Removes the elements from `first` to the end.
  void eraseFrom(const T* first) noexcept {
    const auto size = static_cast<uint32_t>(first - begin());
    if (isOnHeap() && size <= kInPlace) {
      const T* const many = many_;
      std::construct_at(&few_);
      std::copy(many, many + size, few_);
      delete[] many;
    }
    size_ = size;
  }

  friend bool operator==(const SmallVector& a, const SmallVector& b) noexcept {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
  }

 private:
  static_assert(std::is_trivially_copyable_v<T> && std::has_single_bit(kInPlace));

  bool isOnHeap() const noexcept { return size_ > kInPlace; }
  T* data() noexcept { return isOnHeap() ? many_ : few_; }
  const T* data() const noexcept { return isOnHeap() ? many_ : few_; }

  /// Moves the elements of `other` in; the former elements of this list are not released.
  void take(SmallVector& other) noexcept {
    size_ = other.size_;
    if (isOnHeap()) {
      many_ = other.many_;
      std::construct_at(&other.few_);
    } else {
      std::construct_at(&few_);
      std::copy(other.few_, other.few_ + size_, few_);
    }
    other.size_ = 0;
  }

  union {
    T few_[kInPlace]{};
    T* many_;
  };
  uint32_t size_ = 0;
};

}  // namespace Kiv
