// The nodes of a prefix trie: each stores six prefix lengths in two words.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <utility>

namespace Routing::detail {

/// The prefixes that extend one path by one to six bits. Each prefix is one bit.
struct TrieNode {
  static constexpr uint32_t kStride = 6;
  static constexpr uint32_t kNone = ~uint32_t{0};

  /// The prefixes with six bits behind the path. The bit number is the value of these six bits.
  uint64_t full = 0;
  /// The prefixes with fewer than six bits behind the path. The bit number is a one followed by
  /// these bits: 2 and 3 stand for one bit, 4 to 7 for two bits, and so on up to 63. Bit 1 stands
  /// for the path itself; only the first level uses it.
  uint64_t shorter = 0;

  bool isEmpty() const { return (full | shorter) == 0; }

  /// The word and the bit in it for the prefix of the first `len` bits of `next`, which has six
  /// bits.
  std::pair<uint64_t&, uint64_t> place(uint32_t next, uint32_t len) {
    if (len == kStride) return {full, uint64_t{1} << next};
    return {shorter, uint64_t{1} << ((next | 1U << kStride) >> (kStride - len))};
  }
  /// The length of the longest prefix in this node that matches the six bits `next` and has at most
  /// `maxLen` bits behind the path; kNone when there is none.
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
  /// For each value of five bits: the bits of `shorter` for the prefixes that match them.
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
