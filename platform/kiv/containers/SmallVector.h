// A list that keeps its first element in place.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <memory>
#include <type_traits>

namespace Kiv {

/// A list of plain values that allocates no memory for zero or one element. For lists that rarely
/// have more.
template <class T>
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
  const T& operator[](size_t index) const noexcept { return data()[index]; }

  /// Puts `value` before `at`, which may be end().
  void insert(const T* at, const T& value) {
    const T* const from = begin();
    const T* const to = end();
    if (!std::has_single_bit(size_)) {
      // Empty, or on the heap with room: the capacity there is the next power of two.
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

  friend bool operator==(const SmallVector& a, const SmallVector& b) noexcept {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
  }

 private:
  static_assert(std::is_trivially_copyable_v<T>);

  bool isOnHeap() const noexcept { return size_ > 1; }
  T* data() noexcept { return isOnHeap() ? many_ : &one_; }
  const T* data() const noexcept { return isOnHeap() ? many_ : &one_; }

  /// Moves the elements of `other` in; the former elements of this list are not released.
  void take(SmallVector& other) noexcept {
    size_ = other.size_;
    if (isOnHeap()) {
      many_ = other.many_;
      std::construct_at(&other.one_);
    } else {
      std::construct_at(&one_, other.one_);
    }
    other.size_ = 0;
  }

  union {
    T one_{};
    T* many_;
  };
  uint32_t size_ = 0;
};

}  // namespace Kiv
