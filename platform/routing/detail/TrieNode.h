// The parts of a prefix trie: nodes of six bits, the slots that lead to them, and their memory.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

#include "platform/kiv/Hash.h"
#include "platform/zemit/Prefix.h"

namespace Routing::detail {

// Short bit strings are held in the leading bits of a 64-bit word, the others zero: a "path".

/// The bits of an address, the first one foremost.
template <class Addr>
class AddrBits {
 public:
  AddrBits() = default;
  explicit AddrBits(const Zemit::IpAddr& addr) : word_(uint64_t{addr.value()} << 32) {}
  explicit AddrBits(const Zemit::Ip6Addr& addr) : word_(Word{addr.high()} << 64 | addr.low()) {}

  /// The 64 bits from bit `depth` on, with zeros behind the end of the address.
  uint64_t from(uint32_t depth) const {
    return static_cast<uint64_t>((word_ << depth) >> (kWidth - 64));
  }
  /// Adds `path` at bit `depth`, where all is zero.
  void append(uint64_t path, uint32_t depth) { word_ |= Word{path} << (kWidth - 64) >> depth; }
  AddrBits appended(uint64_t path, uint32_t depth) const {
    AddrBits result = *this;
    result.append(path, depth);
    return result;
  }
  /// The prefix of the first `len` bits.
  template <class P>
  P prefix(uint32_t len) const {
    if constexpr (Addr::kBits == 32) {
      return P::enclosing(Addr(static_cast<uint32_t>(word_ >> 32)), len);
    } else {
      return P::enclosing(Addr(static_cast<uint64_t>(word_ >> 64), static_cast<uint64_t>(word_)),
                          len);
    }
  }

 private:
  using Word = std::conditional_t<Addr::kBits == 32, uint64_t, Kiv::detail::Uint128>;
  static constexpr uint32_t kWidth = 8 * sizeof(Word);

  Word word_ = 0;
};

class TrieNode;

/// What hangs below a place in the trie: a path (the label), and at its end a node or, for a leaf,
/// the end of a prefix. One word: the label closed by a one bit, then the node's address; the last
/// bit tells a leaf.
class TrieSlot {
 public:
  static constexpr uint32_t kMaxLeafLabel = 62;
  static constexpr uint32_t kMaxNodeLabel = 12;

  TrieSlot() = default;
  static TrieSlot leaf(uint64_t label, uint32_t len) {
    return TrieSlot(label | kTopBit >> len | kLeafTag);
  }
  static TrieSlot to(const TrieNode* node, uint64_t label = 0, uint32_t len = 0) {
    return TrieSlot(label | kTopBit >> len | reinterpret_cast<uintptr_t>(node));
  }

  bool isLeaf() const { return (word_ & kLeafTag) != 0; }
  TrieNode& node() const { return *reinterpret_cast<TrieNode*>(word_ & kAddressMask); }
  uint32_t labelLen() const { return 63 - static_cast<uint32_t>(std::countr_zero(labelAndEnd())); }
  uint64_t label() const { return labelAndEnd() & (labelAndEnd() - 1); }
  uint32_t maxLabel() const { return isLeaf() ? kMaxLeafLabel : kMaxNodeLabel; }
  /// The same label, leading to another node.
  TrieSlot redirected(const TrieNode* node) const {
    return TrieSlot(labelAndEnd() | reinterpret_cast<uintptr_t>(node));
  }
  /// The same end with another label.
  TrieSlot relabelled(uint64_t label, uint32_t len) const {
    return TrieSlot(label | kTopBit >> len | (word_ ^ labelAndEnd()));
  }
  /// True when `path` begins with the label.
  bool matches(uint64_t path) const { return ((path ^ word_) >> 1 >> (63 - labelLen())) == 0; }

 private:
  static constexpr uint64_t kTopBit = uint64_t{1} << 63;
  static constexpr uint64_t kLeafTag = 1;
  // User addresses of the 64-bit systems we run on; the pool asserts it.
  static constexpr uint64_t kAddressMask = (uint64_t{1} << 48) - 1;

  explicit TrieSlot(uint64_t word) : word_(word) {}
  uint64_t labelAndEnd() const { return word_ & (isLeaf() ? ~kLeafTag : ~kAddressMask); }

  uint64_t word_ = 0;
};

/// Six levels of the trie: which prefixes end here and which children there are, followed in memory
/// by the slots of the children in order.
class TrieNode {
 public:
  static constexpr uint32_t kStride = 6;

  /// Prefixes that end with the sixth bit, by their six bits.
  uint64_t full = 0;
  /// Shorter ones, by a one bit followed by theirs: at 1 the empty one (the root's only), at 2 and
  /// 3 those of one bit, up to 63.
  uint64_t shorter = 0;
  /// Children, by their six bits.
  uint64_t children = 0;

  static uint32_t index(uint64_t path) { return static_cast<uint32_t>(path >> (64 - kStride)); }
  static uint64_t path(uint64_t index) { return index << (64 - kStride); }
  static uint64_t bit(uint32_t index) { return uint64_t{1} << index; }

  uint32_t childCount() const { return static_cast<uint32_t>(std::popcount(children)); }
  uint32_t prefixCount() const {
    return static_cast<uint32_t>(std::popcount(full) + std::popcount(shorter));
  }
  bool isEmpty() const { return (full | shorter | children) == 0; }
  bool hasChild(uint32_t index) const { return (children >> index & 1) != 0; }
  TrieSlot* slots() { return reinterpret_cast<TrieSlot*>(this + 1); }
  const TrieSlot* slots() const { return reinterpret_cast<const TrieSlot*>(this + 1); }
  uint32_t position(uint32_t index) const {
    return static_cast<uint32_t>(std::popcount(children & (bit(index) - 1)));
  }
  TrieSlot& child(uint32_t index) { return slots()[position(index)]; }
  const TrieSlot& child(uint32_t index) const { return slots()[position(index)]; }

  /// The word and the bit that stand for the prefix of the first `len` bits of `path`.
  struct Place {
    uint64_t& word;
    uint64_t mask;
  };
  Place place(uint64_t path, uint32_t len) {
    if (len == kStride) return {full, bit(index(path))};
    return {shorter, bit(1U << len | static_cast<uint32_t>(path >> 1 >> (63 - len)))};
  }

  /// The shorter prefixes that cover the path of six bits `index`.
  uint64_t covering(uint32_t index) const { return shorter & kCovering[index >> 1]; }
  /// The length of the longest of `prefixes`, a non-empty subset of `shorter`.
  static uint32_t longestOf(uint64_t prefixes) {
    const auto heapIndex = static_cast<uint32_t>(63 - std::countl_zero(prefixes));
    return static_cast<uint32_t>(31 - std::countl_zero(heapIndex));
  }

  /// Calls `visit(path, len)` for each prefix that ends here.
  template <class Visit>
  void forEachPrefix(Visit&& visit) const {
    for (uint64_t left = shorter; left != 0; left &= left - 1) {
      const auto heapIndex = static_cast<uint32_t>(std::countr_zero(left));
      const uint32_t len = longestOf(left & -left);
      visit(uint64_t{heapIndex} << 1 << (63 - len), len);
    }
    for (uint64_t left = full; left != 0; left &= left - 1) {
      visit(path(static_cast<uint32_t>(std::countr_zero(left))), kStride);
    }
  }
  /// Calls `visit(path, slot)` for each child.
  template <class Visit>
  void forEachChild(Visit&& visit) const {
    const TrieSlot* slot = slots();
    for (uint64_t left = children; left != 0; left &= left - 1) {
      visit(path(static_cast<uint32_t>(std::countr_zero(left))), *slot++);
    }
  }

 private:
  static constexpr auto kCovering = [] {
    std::array<uint64_t, 32> result{};
    for (uint32_t i = 0; i < 32; ++i) {
      for (uint32_t heapIndex = 32 | i; heapIndex != 0; heapIndex >>= 1) {
        result[i] |= uint64_t{1} << heapIndex;
      }
    }
    return result;
  }();
};

/// Memory of a trie's nodes: a few block sizes, cut from chunks that are kept until release().
class TriePool {
 public:
  TriePool() = default;
  TriePool(const TriePool&) = delete;
  TriePool& operator=(const TriePool&) = delete;

  /// A new node with room for `childCount` children.
  TrieNode* make(uint32_t childCount);
  /// Gives back a node that has room for `childCount` children.
  void free(TrieNode* node, uint32_t childCount) { put(node, units(childCount)); }
  /// True when nodes of `a` and of `b` children take blocks of one size.
  static bool sameSize(uint32_t a, uint32_t b) { return kClassOf[a] == kClassOf[b]; }

  /// Forgets all nodes.
  void release();
  size_t bytes() const { return bytes_; }

 private:
  // The first unit of a node, which holds its three words, lies within one cache line.
  static constexpr size_t kUnit = 32;
  static constexpr std::array<uint32_t, 5> kUnits{1, 2, 4, 8, 17};
  static constexpr auto kClassOf = [] {
    std::array<uint8_t, 65> result{};
    for (uint32_t count = 0; count <= 64; ++count) {
      while (sizeof(TrieNode) + count * sizeof(TrieSlot) > kUnits[result[count]] * kUnit) {
        ++result[count];
      }
    }
    return result;
  }();
  static constexpr uint32_t kFirstChunk = 16;
  static constexpr uint32_t kLastChunk = 2048;

  struct alignas(kUnit) Unit {
    Unit* next;
  };

  static uint32_t units(uint32_t childCount) { return kUnits[kClassOf[childCount]]; }
  /// Makes `count` units from `memory` on available.
  void put(void* memory, uint32_t count);

  std::array<Unit*, kUnits.size()> free_{};
  std::vector<std::unique_ptr<Unit[]>> chunks_;
  Unit* fresh_ = nullptr;  // what is left of the last chunk
  uint32_t freshCount_ = 0;
  size_t bytes_ = 0;
};

}  // namespace Routing::detail
