// The trie of prefixes: look-up, insertion and deletion.
#include "platform/routing/Trie.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

#include "platform/kiv/Assert.h"

namespace Routing {

namespace detail {

TrieNode* TriePool::make(uint32_t childCount) {
  const uint32_t wanted = units(childCount);
  for (size_t i = kClassOf[childCount]; i < free_.size(); ++i) {
    if (Unit* block = free_[i]) {
      free_[i] = block->next;
      put(block + wanted, kUnits[i] - wanted);
      return new (block) TrieNode;
    }
  }
  if (freshCount_ < wanted) {
    put(fresh_, freshCount_);
    const uint32_t count = chunks_.empty() ? kFirstChunk : kLastChunk;
    chunks_.push_back(std::make_unique_for_overwrite<Unit[]>(count));
    fresh_ = chunks_.back().get();
    freshCount_ = count;
    bytes_ += count * kUnit;
    KIV_ASSERT("Trie", reinterpret_cast<uintptr_t>(fresh_ + count) >> 48 == 0);
  }
  Unit* block = fresh_;
  fresh_ += wanted;
  freshCount_ -= wanted;
  return new (block) TrieNode;
}

void TriePool::put(void* memory, uint32_t count) {
  auto* block = static_cast<Unit*>(memory);
  for (size_t i = kUnits.size(); i-- > 0;) {
    for (; count >= kUnits[i]; count -= kUnits[i]) {
      free_[i] = new (block) Unit{free_[i]};
      block += kUnits[i];
    }
  }
}

void TriePool::release() {
  chunks_.clear();
  chunks_.shrink_to_fit();
  free_.fill(nullptr);
  fresh_ = nullptr;
  freshCount_ = 0;
  bytes_ = 0;
}

namespace {

/// The first `len` bits of `path`; `len` is less than 64.
uint64_t head(uint64_t path, uint32_t len) {
  return path & ~(~uint64_t{0} >> len);
}

/// Adds a child to the node that `ref` leads to, moving the node if need be.
TrieSlot& addChild(TriePool& pool, TrieSlot& ref, uint32_t index, TrieSlot child) {
  TrieNode* const node = &ref.node();
  const uint32_t count = node->childCount();
  TrieSlot* const place = node->slots() + node->position(index);
  TrieNode* const target = TriePool::sameSize(count, count + 1) ? node : pool.make(count + 1);
  TrieSlot* const added = target->slots() + (place - node->slots());
  std::copy_backward(place, node->slots() + count, target->slots() + count + 1);
  *added = child;
  if (target != node) {
    *target = *node;
    std::copy(node->slots(), place, target->slots());
    pool.free(node, count);
    ref = ref.redirected(target);
  }
  target->children |= TrieNode::bit(index);
  return *added;
}

/// Removes a child of the node that `ref` leads to, moving the node if need be.
void removeChild(TriePool& pool, TrieSlot& ref, uint32_t index) {
  TrieNode* const node = &ref.node();
  const uint32_t count = node->childCount();
  TrieSlot* const place = node->slots() + node->position(index);
  TrieNode* const target = TriePool::sameSize(count, count - 1) ? node : pool.make(count - 1);
  std::copy(place + 1, node->slots() + count, target->slots() + (place - node->slots()));
  if (target != node) {
    *target = *node;
    std::copy(node->slots(), place, target->slots());
    pool.free(node, count);
    ref = ref.redirected(target);
  }
  target->children &= ~TrieNode::bit(index);
}

/// Puts a node in between where `slot` and the path of a further prefix part, or as far down as one
/// label reaches.
void fork(TriePool& pool, TrieSlot& slot, uint64_t path, uint32_t pathLen) {
  const uint64_t label = slot.label();
  const uint32_t labelLen = slot.labelLen();
  // Below the new node both must have something left, a prefix at least one bit.
  const auto shared = static_cast<uint32_t>(std::countl_zero(label ^ path));
  const uint32_t common = std::min({shared, slot.isLeaf() ? labelLen - 1 : labelLen, pathLen - 1,
                                    TrieSlot::kMaxNodeLabel}) /
                          TrieNode::kStride * TrieNode::kStride;
  TrieNode* const node = pool.make(1);
  const uint64_t rest = label << common;
  const uint32_t restLen = labelLen - common;
  if (slot.isLeaf() && restLen <= TrieNode::kStride) {
    const auto [word, mask] = node->place(rest, restLen);
    word |= mask;
  } else {
    node->children = TrieNode::bit(TrieNode::index(rest));
    *node->slots() = slot.relabelled(rest << TrieNode::kStride, restLen - TrieNode::kStride);
  }
  slot = TrieSlot::to(node, head(label, common), common);
}

/// Lets `ref` lead directly to the only thing left in its node, where a label is long enough for
/// that. False when the node stays.
bool contract(TriePool& pool, TrieSlot& ref) {
  TrieNode& node = ref.node();
  const uint32_t count = node.childCount();
  if (count + node.prefixCount() != 1) return false;
  TrieSlot only;
  if (count == 0) {
    node.forEachPrefix([&](uint64_t path, uint32_t len) {
      only = TrieSlot::leaf(ref.label() | path >> ref.labelLen(), ref.labelLen() + len);
    });
  } else {
    only = *node.slots();
    const uint64_t step = TrieNode::path(static_cast<uint32_t>(std::countr_zero(node.children)));
    const uint32_t before = ref.labelLen() + TrieNode::kStride;
    const uint32_t len = before + only.labelLen();
    if (len > only.maxLabel()) return false;
    only = only.relabelled(ref.label() | step >> ref.labelLen() | only.label() >> before, len);
  }
  pool.free(&node, count);
  ref = only;
  return true;
}

}  // namespace
}  // namespace detail

template <class P>
bool BasicTrie<P>::insert(const P& prefix) {
  if (isNull(prefix)) return false;
  if (size_ == 0) root_ = Slot::to(pool_.make(0));
  const Bits bits(prefix.addr());
  Slot* ref = &root_;
  for (uint32_t depth = 0;;) {
    Node& node = ref->node();
    if (prefix.len() <= depth + kStride) {
      const auto [word, mask] = node.place(bits.from(depth), prefix.len() - depth);
      if ((word & mask) != 0) return false;
      word |= mask;
      break;
    }
    const uint32_t index = Node::index(bits.from(depth));
    depth += kStride;
    const uint64_t path = bits.from(depth);
    const uint32_t pathLen = prefix.len() - depth;
    if (!node.hasChild(index)) {
      if (pathLen <= Slot::kMaxLeafLabel) {
        detail::addChild(pool_, *ref, index, Slot::leaf(path, pathLen));
        break;
      }
      const auto label = detail::head(path, Slot::kMaxNodeLabel);
      const auto step = Slot::to(pool_.make(0), label, Slot::kMaxNodeLabel);
      ref = &detail::addChild(pool_, *ref, index, step);
    } else {
      ref = &node.child(index);
      const bool matches = ref->matches(path);
      if (ref->isLeaf()) {
        if (matches && ref->labelLen() == pathLen) return false;
        detail::fork(pool_, *ref, path, pathLen);
      } else if (!matches || pathLen <= ref->labelLen()) {
        detail::fork(pool_, *ref, path, pathLen);
      }
    }
    depth += ref->labelLen();
  }
  ++size_;
  return true;
}

template <class P>
bool BasicTrie<P>::erase(const P& prefix) {
  if (size_ == 0 || isNull(prefix)) return false;
  const Bits bits(prefix.addr());
  // The way down: the slot that leads to each node, and the child taken there.
  std::array<Slot*, P::kMaxLen / kStride + 1> refs;
  std::array<uint32_t, P::kMaxLen / kStride + 1> indexes;
  size_t last = 0;
  refs[0] = &root_;
  for (uint32_t depth = 0;;) {
    Node& node = refs[last]->node();
    if (prefix.len() <= depth + kStride) {
      const auto [word, mask] = node.place(bits.from(depth), prefix.len() - depth);
      if ((word & mask) == 0) return false;
      word &= ~mask;
      break;
    }
    const uint32_t index = Node::index(bits.from(depth));
    if (!node.hasChild(index)) return false;
    depth += kStride;
    const uint32_t pathLen = prefix.len() - depth;
    Slot& child = node.child(index);
    if (!child.matches(bits.from(depth))) return false;
    if (child.isLeaf()) {
      if (child.labelLen() != pathLen) return false;
      detail::removeChild(pool_, *refs[last], index);
      break;
    }
    if (pathLen <= child.labelLen()) return false;
    depth += child.labelLen();
    indexes[last] = index;
    refs[++last] = &child;
  }
  if (--size_ == 0) {
    pool_.release();
    return true;
  }
  // A node that has become empty goes, and one with a single thing left in it is left out.
  for (; last > 0; --last) {
    Node& node = refs[last]->node();
    if (node.isEmpty()) {
      pool_.free(&node, 0);
      detail::removeChild(pool_, *refs[last - 1], indexes[last - 1]);
    } else if (!detail::contract(pool_, *refs[last])) {
      break;
    }
  }
  return true;
}

template <class P>
P BasicTrie<P>::longest(Bits bits, uint32_t maxLen) const {
  if (size_ == 0) return P::null();
  uint32_t best = P::kNullLen;
  const Node* node = &root_.node();
  for (uint32_t depth = 0;;) {
    const uint32_t index = Node::index(bits.from(depth));
    uint64_t shorter = node->covering(index);
    if (maxLen < depth + kStride) {
      // Of the levels here only some count: those below 2 << (maxLen - depth) in the heap.
      shorter &= ~uint64_t{0} >> (64 - (2U << (maxLen - depth)));
      if (shorter != 0) best = depth + Node::longestOf(shorter);
      break;
    }
    if (shorter != 0) best = depth + Node::longestOf(shorter);
    depth += kStride;
    if ((node->full >> index & 1) != 0) best = depth;
    if (!node->hasChild(index)) break;
    const Slot child = node->child(index);
    const uint32_t end = depth + child.labelLen();
    if (end > maxLen || !child.matches(bits.from(depth))) break;
    if (child.isLeaf()) {
      best = end;
      break;
    }
    node = &child.node();
    depth = end;
  }
  return best == P::kNullLen ? P::null() : bits.template prefix<P>(best);
}

template <class P>
P BasicTrie<P>::longestMatch(const P& prefix) const {
  return isNull(prefix) ? prefix : longest(Bits(prefix.addr()), prefix.len());
}

template <class P>
P BasicTrie<P>::longestMatch(const Addr& addr) const {
  return longest(Bits(addr), P::kMaxLen);
}

template <class P>
P BasicTrie<P>::longestStrictlyShorter(const P& prefix) const {
  if (isNull(prefix) || prefix.len() == 0) return P::null();
  return longest(Bits(prefix.addr()), prefix.len() - 1);
}

template <class P>
bool BasicTrie<P>::contains(const P& prefix) const {
  return !isNull(prefix) && longestMatch(prefix) == prefix;
}

template class BasicTrie<Zemit::Prefix>;
template class BasicTrie<Zemit::Ip6Prefix>;

}  // namespace Routing
