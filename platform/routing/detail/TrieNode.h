// The nodes of a prefix trie: six levels of it in two words.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <utility>

namespace Routing::detail {

/// The prefixes that go on from one path for one to six bits, a bit for each.
struct TrieNode {
  static constexpr uint32_t kStride = 6;
  static constexpr uint32_t kNone = ~uint32_t{0};

  /// The prefixes of six more bits, by these.
  uint64_t full = 0;
  /// The prefixes of fewer more bits, by these with a one before them: at 2 and 3 those of one bit,
  /// up to 63. At 1 the one that does not go on, in the first level only.
  uint64_t shorter = 0;

  bool isEmpty() const { return (full | shorter) == 0; }

  /// The word that holds, and the bit that stands for, the first `len` of the six bits `next`.
  std::pair<uint64_t&, uint64_t> place(uint32_t next, uint32_t len) {
    if (len == kStride) return {full, uint64_t{1} << next};
    return {shorter, uint64_t{1} << ((next | 1U << kStride) >> (kStride - len))};
  }
  /// The length, up to `maxLen`, of the longest of the prefixes that the six bits `next` begin
  /// with, or kNone.
  uint32_t longest(uint32_t next, uint32_t maxLen) const {
    if (maxLen >= kStride && (full >> next & 1) != 0) return kStride;
    uint64_t covering = shorter & kCovering[next >> 1];
    if (maxLen < kStride) covering &= ~uint64_t{0} >> (64 - (2U << maxLen));
    return covering == 0 ? kNone : lenAt(63 - static_cast<uint32_t>(std::countl_zero(covering)));
  }
  /// Calls `visit(next, len)` for each prefix; its bits are the first `len` of the six bits `next`.
  template <class Visit>
  void forEach(Visit&& visit) const {
    for (uint64_t left = full; left != 0; left &= left - 1) {
      visit(static_cast<uint32_t>(std::countr_zero(left)), kStride);
    }
    for (uint64_t left = shorter; left != 0; left &= left - 1) {
      const auto number = static_cast<uint32_t>(std::countr_zero(left));
      const uint32_t len = lenAt(number);
      visit((number ^ 1U << len) << (kStride - len), len);
    }
  }

 private:
  static uint32_t lenAt(uint32_t number) {
    return 31 - static_cast<uint32_t>(std::countl_zero(number));
  }
  /// Where `shorter` keeps the prefixes that five bits begin with.
  static constexpr auto kCovering = [] {
    std::array<uint64_t, 32> result{};
    for (uint32_t next = 0; next < 32; ++next) {
      for (uint32_t number = next | 32; number != 0; number >>= 1) {
        result[next] |= uint64_t{1} << number;
      }
    }
    return result;
  }();
};

}  // namespace Routing::detail
