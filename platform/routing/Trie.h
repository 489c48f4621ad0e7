// Sets of prefixes with longest-match look-up.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "platform/kiv/containers/HashMap.h"
#include "platform/kiv/containers/Ptr.h"
#include "platform/routing/detail/TrieNode.h"
#include "platform/zemit/Prefix.h"

namespace Routing {

namespace detail {

/// The bits of an address as an integer, with the first bit as the most significant one, and back.
inline uint64_t bitsOf(const Zemit::IpAddr& addr) {
  return uint64_t{addr.value()} << 32;
}
inline Kiv::detail::Uint128 bitsOf(const Zemit::Ip6Addr& addr) {
  return Kiv::detail::Uint128{addr.high()} << 64 | addr.low();
}
inline Zemit::IpAddr addrOf(uint64_t bits) {
  return Zemit::IpAddr(static_cast<uint32_t>(bits >> 32));
}
inline Zemit::Ip6Addr addrOf(Kiv::detail::Uint128 bits) {
  return {static_cast<uint64_t>(bits >> 64), static_cast<uint64_t>(bits)};
}

}  // namespace detail

/// A set of prefixes with longest-match look-up.
///
/// A level covers six prefix lengths. Prefixes that differ only in their last one to six bits share
/// a node, and each prefix is one bit of the node. The path of a node is the bits that its prefixes
/// have in common. A level is a hash table of nodes by path. A look-up tries the levels in use, the
/// longest prefixes first. The reads of one level do not depend on another level, so the processor
/// can overlap them. The worst case is bounded: there are six levels (IPv6: 22), and the hash seed
/// is secret. The null prefix is never in the set.
template <class P>
class BasicTrie final : public Kiv::Object {
 public:
  using Ptr = Kiv::Ptr<BasicTrie>;
  using PtrConst = Kiv::Ptr<const BasicTrie>;
  using Prefix = P;
  using Addr = typename P::Addr;

  /// Adds `prefix` to the set, or removes it when not `present`. True when the set changed.
  bool routeIs(const P& prefix, bool present) { return present ? insert(prefix) : erase(prefix); }
  /// Removes `prefix` from the set. True when the set contained it.
  bool routeDel(const P& prefix) { return erase(prefix); }

  bool contains(const P& prefix) const { return !isNull(prefix) && longestMatch(prefix) == prefix; }
  /// The longest prefix in the set that contains `prefix`, which may be `prefix` itself; the null
  /// prefix when there is none.
  P longestMatch(const P& prefix) const {
    return isNull(prefix) ? prefix : longest(prefix.addr(), prefix.len());
  }
  /// The longest prefix in the set that contains `addr`; the null prefix when there is none.
  P longestMatch(const Addr& addr) const { return longest(addr, P::kMaxLen); }
  /// The longest prefix in the set that contains `prefix` and is shorter; the null prefix when
  /// there is none.
  P longestStrictlyShorter(const P& prefix) const {
    if (isNull(prefix) || prefix.len() == 0) return P::null();
    return longest(prefix.addr(), prefix.len() - 1);
  }

  size_t size() const { return size_; }
  /// The memory in use, in bytes, including this object.
  size_t bytes() const;

  /// Calls `visit(prefix)` for every prefix of the set, in no particular order. The set must not
  /// change during the walk.
  template <class Visit>
  void forEach(Visit&& visit) const;

 private:
  /// The bits of an address or of a path. The bits behind a path are zero.
  using Bits = decltype(detail::bitsOf(Addr()));
  static constexpr uint32_t kWidth = 8 * sizeof(Bits);
  static constexpr uint32_t kStride = detail::TrieNode::kStride;
  static constexpr uint32_t kLevels = (P::kMaxLen + kStride - 1) / kStride;
  /// The levels whose paths are no longer than 64 bits.
  static constexpr uint32_t kShortLevels = std::min(kLevels, 64 / kStride + 1);
  /// Prefetching pays only with many levels. With few levels the processor's speculative execution
  /// already overlaps the reads.
  static constexpr bool kFetchesAhead = kLevels > 6;

  static uint32_t levelOf(uint32_t len) { return (std::max(len, 1U) - 1) / kStride; }
  /// The six bits that follow the path of a level.
  static uint32_t nextOf(Bits bits, uint32_t level) {
    return static_cast<uint32_t>((bits << level * kStride) >> (kWidth - kStride));
  }
  /// The leading bits of `bits` that are their path in a level.
  template <class Path>
  static Path pathOf(Bits bits, uint32_t level) {
    return static_cast<Path>(bits >> (kWidth - 8 * sizeof(Path))) & ~(~Path{0} >> level * kStride);
  }
  /// Calls `visit(table, path)` with the table of a level and the path in it for `bits`.
  template <class Self, class Visit>
  static auto at(Self& self, uint32_t level, Bits bits, Visit&& visit) {
    if constexpr (kLevels > kShortLevels) {
      if (level >= kShortLevels) {
        return visit(self.long_[level - kShortLevels], detail::addrOf(pathOf<Bits>(bits, level)));
      }
    }
    return visit(self.short_[level], pathOf<uint64_t>(bits, level));
  }

  bool insert(const P& prefix);
  bool erase(const P& prefix);
  P longest(const Addr& addr, uint32_t maxLen) const;

  std::array<Kiv::HashMap<uint64_t, detail::TrieNode>, kShortLevels> short_;
  std::array<Kiv::HashMap<Addr, detail::TrieNode>, kLevels - kShortLevels> long_;
  uint32_t used_ = 0;  // one bit for each level that has nodes
  size_t size_ = 0;
};

template <class P>
template <class Visit>
void BasicTrie<P>::forEach(Visit&& visit) const {
  const auto visitAll = [&](Bits path, const detail::TrieNode& node, uint32_t level) {
    node.forEach([&](uint32_t next, uint32_t len) {
      const Bits rest = (Bits{next} << (kWidth - kStride)) >> level * kStride;
      visit(P(detail::addrOf(path | rest), level * kStride + len));
    });
  };
  for (uint32_t level = 0; level < kShortLevels; ++level) {
    for (const auto& [path, node] : short_[level]) {
      visitAll(Bits{path} << (kWidth - 64), node, level);
    }
  }
  for (uint32_t level = kShortLevels; level < kLevels; ++level) {
    for (const auto& [path, node] : long_[level - kShortLevels]) {
      visitAll(detail::bitsOf(path), node, level);
    }
  }
}

extern template class BasicTrie<Zemit::Prefix>;
extern template class BasicTrie<Zemit::Ip6Prefix>;

/// The IPv4 prefixes of one VRF.
using Trie = BasicTrie<Zemit::Prefix>;

}  // namespace Routing

namespace Routing6 {

/// The IPv6 prefixes of one VRF.
using Trie = Routing::BasicTrie<Zemit::Ip6Prefix>;

}  // namespace Routing6
