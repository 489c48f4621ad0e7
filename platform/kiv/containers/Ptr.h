// Reference-counted objects and the handles that hold them.
#pragma once

#include <atomic>
#include <compare>
#include <concepts>
#include <cstdint>
#include <limits>
#include <ostream>
#include <type_traits>
#include <utility>

#include "platform/kiv/containers/Exception.h"

namespace Kiv {

/// Base of every class that is used through Kiv::Ptr.
///
/// The count starts at one, the reference of the maker (Kiv::make). So a handler that the
/// constructor calls may make and drop handles. While the object is being destroyed the count is
/// negative: destructors may make and drop handles, and the object is not destroyed twice.
class Object {
 public:
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  /// True once the last handle was dropped.
  bool isDestructing() const noexcept { return references_.load(std::memory_order_relaxed) < 0; }
  /// The number of handles, or a negative number while the object is being destroyed.
  int32_t referenceCount() const noexcept { return references_.load(std::memory_order_relaxed); }

  void retain() const noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
  void release() const noexcept {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy();
  }

 protected:
  Object() = default;
  virtual ~Object() = default;

  /// Called when the last handle was dropped, before any destructor.
  virtual void zeroReferences() noexcept {}

 private:
  // So far below zero that a destructor cannot reach zero by making or dropping handles.
  static constexpr int32_t kDestructing = std::numeric_limits<int32_t>::min() / 2;

  void destroy() const noexcept {
    references_.store(kDestructing, std::memory_order_relaxed);
    auto* self = const_cast<Object*>(this);
    self->zeroReferences();
    delete self;
  }

  mutable std::atomic<int32_t> references_{1};
};

namespace detail {
/// Whether a pointer to U converts to one to T: the same type, a derived type, or T without const.
template <class U, class T>
concept PointsTo = std::convertible_to<U*, T*>;
}  // namespace detail

/// A reference-counted handle: to a T, null, or the invalid-reference value (all bits set).
///
/// Neither the null nor the invalid handle refers to an object. Both are false as a condition, and
/// must not be dereferenced.
template <class T>
class Ptr {
 public:
  using Element = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor)
  /// A further handle to an object that already has one.
  explicit Ptr(T* object) noexcept : object_(object) { retain(); }
  Ptr(const Ptr& other) noexcept : object_(other.object_) { retain(); }
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <detail::PointsTo<T> U>
  Ptr(const Ptr<U>& other) noexcept  // NOLINT(google-explicit-constructor): as pointers do
      : object_(other.isInvalid() ? invalidObject() : static_cast<T*>(other.get())) {
    retain();
  }
  template <detail::PointsTo<T> U>
  Ptr(Ptr<U>&& other) noexcept  // NOLINT(google-explicit-constructor): as pointers do
      : object_(other.isInvalid() ? invalidObject() : static_cast<T*>(other.get())) {
    other.forget();
  }
  Ptr& operator=(Ptr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Ptr() {
    if (*this) object_->release();
  }

  /// Takes over the reference that a new object starts with.
  static Ptr adopt(T* object) noexcept {
    Ptr handle;
    handle.object_ = object;
    return handle;
  }
  /// The handle that means "not valid"; a null handle means "none".
  static Ptr invalid() noexcept {
    Ptr handle;
    handle.object_ = invalidObject();
    return handle;
  }
  bool isInvalid() const noexcept { return object_ == invalidObject(); }

  /// True when the handle refers to an object.
  explicit operator bool() const noexcept { return object_ != nullptr && !isInvalid(); }
  T* get() const noexcept { return object_; }
  T* operator->() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }

  /// Becomes null without dropping the reference, and returns the object.
  T* forget() noexcept { return std::exchange(object_, nullptr); }

  template <class U>
  friend bool operator==(const Ptr& a, const Ptr<U>& b) noexcept {
    return a.get() == b.get();
  }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.object_ == nullptr; }
  friend std::strong_ordering operator<=>(const Ptr& a, const Ptr& b) noexcept {
    return std::compare_three_way()(a.object_, b.object_);
  }

 private:
  static T* invalidObject() noexcept {
    return reinterpret_cast<T*>(std::numeric_limits<uintptr_t>::max());
  }
  void retain() const noexcept {
    if (*this) object_->retain();
  }

  T* object_ = nullptr;
};

/// Makes an object and the first handle to it.
template <class T, class... Args>
Ptr<T> make(Args&&... args) {
  return Ptr<T>::adopt(new T(std::forward<Args>(args)...));
}

namespace detail {
/// A function of its own, so that the compiler puts the checks that call it in place.
/// \throws Kiv::Exception "null ValidPtr".
[[noreturn]] void raiseNull();
}  // namespace detail

/// `handle`, which must refer to an object.
/// \throws Kiv::Exception "null ValidPtr" when it does not.
template <class T>
const Ptr<T>& validPtr(const Ptr<T>& handle) {
  if (!handle) [[unlikely]]
    detail::raiseNull();
  return handle;
}
/// The object that the pointer points at.
/// \throws Kiv::Exception "null ValidPtr" when it is null.
template <class T>
T& validPtr(T* object) {
  if (object == nullptr) [[unlikely]]
    detail::raiseNull();
  return *object;
}

}  // namespace Kiv
