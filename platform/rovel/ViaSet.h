// Sets of weighted vias, of which adjacencies are made.
#pragma once

#include <algorithm>
#include <cstdint>

#include "platform/kiv/containers/Hash.h"
#include "platform/kiv/containers/SmallVector.h"
#include "platform/tovan/FibTypes.h"

namespace Rovel {

/// The next hops of an adjacency, each once and with its share of the traffic. Iterates in the
/// order of the vias. A set of one via allocates no memory.
template <class V>
class BasicViaSet {
 public:
  using Via = V;
  /// A via and its weight: its share of the traffic is in proportion to it.
  struct Member {
    V via;
    uint32_t weight = 0;

    friend bool operator==(const Member&, const Member&) = default;
  };

  /// Adds a via, or gives a present one the new weight.
  void newVia(const V& via, uint32_t weight) {
    const auto at =
        std::lower_bound(members_.begin(), members_.end(), via,
                         [](const Member& member, const V& key) { return member.via < key; });
    if (at != members_.end() && at->via == via) {
      at->weight = weight;
    } else {
      members_.insert(at, {via, weight});
    }
  }

  size_t size() const noexcept { return members_.size(); }
  bool empty() const noexcept { return members_.empty(); }
  const Member* begin() const noexcept { return members_.begin(); }
  const Member* end() const noexcept { return members_.end(); }

  uint32_t hash() const {
    uint32_t h = 0;
    for (const Member& member : *this) {
      h = Kiv::hashWords(h, (uint64_t{member.via.hash()} << 32) | member.weight);
    }
    return h;
  }

  friend bool operator==(const BasicViaSet&, const BasicViaSet&) = default;

 private:
  Kiv::SmallVector<Member> members_;
};

using ViaSet = BasicViaSet<Tovan::Fib::Via>;
using Via6Set = BasicViaSet<Tovan::Fib6::Via>;

static_assert(sizeof(ViaSet) <= 24 && sizeof(Via6Set) <= 32, "one for each host adjacency");

}  // namespace Rovel
