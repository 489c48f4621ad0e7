// The trie of prefixes: look-up, insertion and deletion.
#include "platform/routing/Trie.h"

#include <bit>

namespace Routing {

template <class P>
bool BasicTrie<P>::insert(const P& prefix) {
  if (isNull(prefix)) return false;
  const Bits bits = detail::bitsOf(prefix.addr());
  const uint32_t level = levelOf(prefix.len());
  return at(*this, level, bits, [&](auto& table, auto path) {
    const auto [word, bit] =
        table.tryEmplace(path).first->place(nextOf(bits, level), prefix.len() - level * kStride);
    if ((word & bit) != 0) return false;
    word |= bit;
    used_ |= 1U << level;
    ++size_;
    return true;
  });
}

template <class P>
bool BasicTrie<P>::erase(const P& prefix) {
  const uint32_t level = isNull(prefix) ? 0 : levelOf(prefix.len());
  if (isNull(prefix) || (used_ >> level & 1) == 0) return false;
  const Bits bits = detail::bitsOf(prefix.addr());
  return at(*this, level, bits, [&](auto& table, auto path) {
    const size_t before = size_;
    table.eraseIf(path, [&](detail::TrieNode& node) {
      const auto [word, bit] = node.place(nextOf(bits, level), prefix.len() - level * kStride);
      if ((word & bit) == 0) return false;
      word &= ~bit;
      --size_;
      return node.isEmpty();
    });
    if (table.empty()) used_ &= ~(1U << level);
    return size_ != before;
  });
}

template <class P>
P BasicTrie<P>::longest(const Addr& addr, uint32_t maxLen) const {
  const Bits bits = detail::bitsOf(addr);
  const uint32_t levels = used_ & ((2U << levelOf(maxLen)) - 1);
  std::array<uint32_t, kLevels> hashes;
  if constexpr (kFetchesAhead) {
    for (uint32_t left = levels; left != 0; left &= left - 1) {
      const auto level = static_cast<uint32_t>(std::countr_zero(left));
      hashes[level] = at(*this, level, bits,
                         [](const auto& table, const auto& path) { return table.prefetch(path); });
    }
  }
  for (uint32_t left = levels; left != 0;) {
    const auto level = static_cast<uint32_t>(std::bit_width(left)) - 1;
    left ^= 1U << level;
    const uint32_t len = at(*this, level, bits, [&](const auto& table, const auto& path) {
      const auto* const node = kFetchesAhead ? table.find(path, hashes[level]) : table.find(path);
      if (node == nullptr) return detail::TrieNode::kNone;
      return node->longest(nextOf(bits, level), maxLen - level * kStride);
    });
    if (len != detail::TrieNode::kNone) return P::enclosing(addr, level * kStride + len);
  }
  return P::null();
}

template <class P>
size_t BasicTrie<P>::bytes() const {
  size_t bytes = sizeof(*this);
  for (const auto& table : short_) bytes += table.bytes();
  for (const auto& table : long_) bytes += table.bytes();
  return bytes;
}

template class BasicTrie<Zemit::Prefix>;
template class BasicTrie<Zemit::Ip6Prefix>;

}  // namespace Routing
