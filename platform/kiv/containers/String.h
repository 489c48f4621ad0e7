// Names and strings: shared immutable bytes.
#pragma once

#include <atomic>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string_view>
#include <utility>

// Draws the seed before any name that is made when the process starts.
#include "platform/kiv/containers/Hash.h"

namespace Kiv {

/// An immutable byte string whose copies share the bytes.
///
/// A copy costs one atomic increment. A comparison of two strings compares their addresses first,
/// then their stored hashes, then their bytes. Any thread may destroy a copy.
class StringN {
 public:
  /// The result of pos() when the string does not contain the part.
  static constexpr size_t kNotFound = static_cast<size_t>(-1);

  StringN() noexcept = default;
  /// Copies `text`. An empty string allocates no memory.
  StringN(std::string_view text);  // NOLINT(google-explicit-constructor): a text is a string
  StringN(const char* text) : StringN(std::string_view(text)) {}  // NOLINT
  StringN(const StringN& other) noexcept : bytes_(other.bytes_) { retain(); }
  StringN(StringN&& other) noexcept : bytes_(std::exchange(other.bytes_, nullptr)) {}
  StringN& operator=(StringN other) noexcept {
    std::swap(bytes_, other.bytes_);
    return *this;
  }
  ~StringN() {
    if (bytes_ != nullptr) release();
  }

  bool empty() const noexcept { return bytes_ == nullptr; }
  size_t size() const noexcept { return bytes_ == nullptr ? 0 : bytes_->size; }
  std::string_view view() const noexcept {
    return bytes_ == nullptr ? std::string_view() : std::string_view(text(bytes_), bytes_->size);
  }
  operator std::string_view() const noexcept { return view(); }  // NOLINT

  /// Where `part` first occurs at or after `from`, or kNotFound.
  size_t pos(std::string_view part, size_t from = 0) const noexcept {
    const size_t at = view().find(part, from);
    return at == std::string_view::npos ? kNotFound : at;
  }

  uint32_t hash() const noexcept { return bytes_ == nullptr ? 0 : bytes_->hash; }

  friend bool operator==(const StringN& a, const StringN& b) noexcept {
    return a.bytes_ == b.bytes_ || (a.hash() == b.hash() && a.view() == b.view());
  }
  /// Compares with a text of another type without making a string of it.
  template <std::convertible_to<std::string_view> Text>
  friend bool operator==(const StringN& a, const Text& b) noexcept {
    return a.view() == std::string_view(b);
  }
  friend std::strong_ordering operator<=>(const StringN& a, const StringN& b) noexcept {
    return a.view() <=> b.view();
  }

 private:
  /// The head of a non-empty string's memory; the text follows it.
  struct Bytes {
    std::atomic<uint32_t> references;
    uint32_t hash;
    uint32_t size;
  };
  static const char* text(const Bytes* bytes) { return reinterpret_cast<const char*>(bytes + 1); }

  void retain() const noexcept {
    if (bytes_ != nullptr) bytes_->references.fetch_add(1, std::memory_order_relaxed);
  }
  void release() noexcept;

  Bytes* bytes_ = nullptr;
};

using String = StringN;
/// The type of an interface's name.
using String8 = StringN;
/// The type of an entity's name.
using Name = StringN;

inline std::ostream& operator<<(std::ostream& os, const StringN& value) {
  return os << value.view();
}

}  // namespace Kiv
