// Sets of prefixes that answer longest-match questions.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/kiv/Ptr.h"
#include "platform/routing/detail/TrieNode.h"
#include "platform/zemit/Prefix.h"

namespace Routing {

/// A set of prefixes with longest-match look-up: a multibit trie of six bits a level.
///
/// A node keeps the prefixes that end within its six bits as bits, so that most prefixes cost no
/// memory of their own. Levels in which nothing branches are left out (path compression), hence no
/// operation takes more than one step for six bits of the prefix. Memory grows in small steps; no
/// insertion moves more than one node. The null prefix is never in the set.
template <class P>
class BasicTrie final : public Kiv::Object {
 public:
  using Ptr = Kiv::Ptr<BasicTrie>;
  using PtrConst = Kiv::Ptr<const BasicTrie>;
  using Prefix = P;
  using Addr = typename P::Addr;

  /// Puts `prefix` into the set, or takes it out when not `present`. True when the set changed.
  bool routeIs(const P& prefix, bool present) { return present ? insert(prefix) : erase(prefix); }
  /// Takes `prefix` out of the set. True when it was there.
  bool routeDel(const P& prefix) { return erase(prefix); }

  bool contains(const P& prefix) const;
  /// The longest prefix in the set that contains `prefix`, which may be `prefix` itself; the null
  /// prefix when there is none.
  P longestMatch(const P& prefix) const;
  /// The longest prefix in the set that contains `addr`; the null prefix when there is none.
  P longestMatch(const Addr& addr) const;
  /// The longest prefix in the set that contains `prefix` and is shorter; the null prefix when
  /// there is none.
  P longestStrictlyShorter(const P& prefix) const;

  size_t size() const { return size_; }
  /// The memory held, this object included.
  size_t bytes() const { return sizeof(*this) + pool_.bytes(); }

  /// Calls `visit(prefix)` for every prefix of the set, in no particular order. The set must not
  /// change meanwhile.
  template <class Visit>
  void forEach(Visit&& visit) const {
    forEachInside(P(), visit);
  }
  /// Calls `visit(prefix)` for every prefix of the set that `outer` contains, looking at no others
  /// but the few on the way to it.
  template <class Visit>
  void forEachInside(const P& outer, Visit&& visit) const {
    if (size_ != 0) walk(root_, Bits(), 0, outer, visit);
  }

 private:
  using Bits = detail::AddrBits<Addr>;
  using Slot = detail::TrieSlot;
  using Node = detail::TrieNode;
  static constexpr uint32_t kStride = Node::kStride;

  bool insert(const P& prefix);
  bool erase(const P& prefix);
  /// The longest match of the address `bits` among the prefixes of at most `maxLen` bits.
  P longest(Bits bits, uint32_t maxLen) const;

  template <class Visit>
  static void walk(Slot slot, Bits path, uint32_t depth, const P& outer, Visit&& visit);

  Slot root_;  // a node, with an empty label, while the set is not empty
  size_t size_ = 0;
  detail::TriePool pool_;
};

template <class P>
template <class Visit>
void BasicTrie<P>::walk(Slot slot, Bits path, uint32_t depth, const P& outer, Visit&& visit) {
  path.append(slot.label(), depth);
  depth += slot.labelLen();
  const auto report = [&](const P& prefix) {
    if (outer.contains(prefix)) visit(prefix);
  };
  if (slot.isLeaf()) return report(path.template prefix<P>(depth));
  const P here = path.template prefix<P>(depth);
  if (!outer.contains(here) && !here.contains(outer)) return;
  const Node& node = slot.node();
  node.forEachPrefix([&](uint64_t bits, uint32_t len) {
    report(path.appended(bits, depth).template prefix<P>(depth + len));
  });
  node.forEachChild([&](uint64_t bits, Slot child) {
    walk(child, path.appended(bits, depth), depth + kStride, outer, visit);
  });
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
