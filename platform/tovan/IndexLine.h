// The index of a shared-memory map: cache lines of references to slots.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace Tovan {

/// Refers to a slot: its number plus one, and in the top byte a tag taken from its key's hash, so
/// that few slots are looked at in vain. Zero refers to none.
class Link {
 public:
  static constexpr uint32_t kTagShift = 24;
  /// Slot numbers are below this.
  static constexpr uint32_t kMaxSlots = (uint32_t{1} << kTagShift) - 1;

  constexpr Link() = default;
  explicit constexpr Link(uint32_t bits) : bits_(bits) {}
  constexpr Link(uint32_t slot, uint64_t hash) : bits_((slot + 1) | tagOf(hash) << kTagShift) {}

  constexpr uint32_t bits() const { return bits_; }
  constexpr uint32_t slot() const { return (bits_ & kMaxSlots) - 1; }
  /// Never zero, which marks the place of a link as free.
  static constexpr uint32_t tagOf(uint64_t hash) {
    return std::max(static_cast<uint32_t>(hash >> 56), 1u);
  }

 private:
  uint32_t bits_ = 0;
};

/// A cache line of up to fifteen links, and the number of the line that goes on from it.
///
/// A set of places of links is a word with one bit for each; a place is the number of its bit.
class alignas(64) IndexLine {
 public:
  static constexpr size_t kLinks = 15;

  Link at(int place) const { return Link(half(place)); }
  void set(int place, Link link) { setHalf(place, link.bits()); }
  /// Writes the whole line, with at most kLinks links.
  void assign(std::span<const Link> links, uint32_t next) {
    std::array<uint32_t, 2 * kWords> halves{};
    for (size_t i = 0; i < links.size(); ++i) halves[i] = links[i].bits();
    halves.back() = next;
    for (size_t i = 0; i < kWords; ++i) {
      words_[i].store(halves[2 * i] | uint64_t{halves[2 * i + 1]} << 32, std::memory_order_release);
    }
  }

  /// The line that goes on from here: its number plus one, or 0.
  uint32_t next() const { return half(kNextPlace); }
  void setNext(uint32_t next) { setHalf(kNextPlace, next); }

  /// The places of all links.
  uint64_t places() const { return ~placesOf(0) & kAllPlaces; }
  /// The places of the links with `tag`; the free places for tag 0.
  ///
  /// Looks at the whole line without a branch, as nothing foresees where in it a link is. Each link
  /// is read in one piece, before or after a change.
  uint64_t placesOf(uint32_t tag) const {
    Vector found{};
    for (uint32_t i = 0; i < 4; ++i) {
      Vector links;
      std::memcpy(&links, &words_[2 * i], sizeof(links));
      found |= Vector(links >> Link::kTagShift == tag) & (1u << i);
    }
    std::array<uint64_t, 2> sums;
    std::memcpy(&sums, &found, sizeof(sums));
    std::atomic_thread_fence(std::memory_order_acquire);
    return (sums[0] | sums[1] << 8) & kAllPlaces;
  }

 private:
  using Vector [[gnu::vector_size(16)]] = uint32_t;
  static constexpr size_t kWords = 8;
  static constexpr int kNextPlace = 43;
  static constexpr uint64_t kAllPlaces = 0x070f'0000'0f0f;

  // Bits 0 and 1 of a place, then bit 3, number its word; bit 5 says which half of it.
  static constexpr size_t wordOf(int place) {
    return static_cast<size_t>((place & 3) * 2 + (place >> 3 & 1));
  }
  uint32_t half(int place) const {
    return static_cast<uint32_t>(words_[wordOf(place)].load(std::memory_order_acquire) >>
                                 (place & 32));
  }
  void setHalf(int place, uint32_t bits) {
    auto& word = words_[wordOf(place)];
    const uint64_t other = word.load(std::memory_order_relaxed) & ~(uint64_t{~0u} << (place & 32));
    word.store(other | uint64_t{bits} << (place & 32), std::memory_order_release);
  }

  std::array<std::atomic<uint64_t>, kWords> words_;
};
static_assert(sizeof(IndexLine) == 64);

}  // namespace Tovan
