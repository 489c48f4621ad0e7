// What the handling of a neighbour comes by, remembered for the next one of its interface.
#pragma once

#include <cstdint>
#include <utility>

#include "platform/kiv/HashMap.h"
#include "platform/kiv/Prefetch.h"
#include "platform/kiv/Ptr.h"
#include "platform/tovan/FibTypes.h"

namespace HostCore {

/// A FIB route that covers an address, with its FEC. Without a route its key is the null prefix.
template <class R, class Fec>
struct Cover {
  R route{.key = decltype(R::key)::null()};
  Fec fec;
};

/// Where the last neighbour of a table led. The next one leads there as a rule: so its cover need
/// not be read again while nothing has been told of a route or a FEC, and what else lies on the way
/// can be fetched at once instead of one after the other.
///
/// \tparam R  the family's route.
template <class R, class Fec>
class Road {
 public:
  using Prefix = decltype(R::key);
  using Addr = typename Prefix::Addr;

  /// The cover, as of a count of changes that may concern it. While it may not be trusted, it is no
  /// more than a hint.
  const Cover<R, Fec>& cover() const noexcept { return cover_; }
  bool isCurrent(uint64_t changes) const noexcept { return isTrusted_ && changes_ == changes; }
  void coverIs(const Cover<R, Fec>& cover, uint64_t changes) {
    cover_ = cover;
    changes_ = isTrusted_ ? changes : 0;
  }
  void isTrustedIs(bool isTrusted) noexcept { isTrusted_ = isTrusted; }

  /// Remembers the set that neighbours under the cover are filed in.
  template <class AddrSet>
  void leadsTo(const AddrSet& set) {
    neighborSet_ = &set;
    neighbors_ = set.ipWhereabouts();
  }
  /// Remembers the list of prefixes that the cover is filed in.
  template <class PrefixList>
  void isFiledIn(const PrefixList& list) {
    prefixList_ = &list;
    prefixes_ = list.prefixWhereabouts();
  }
  /// Begins to fetch what set and list hold for `addr`.
  void prefetch(const Addr& addr) const {
    Kiv::prefetch(neighborSet_);
    Kiv::prefetch(prefixList_);
    neighbors_.prefetch(addr);
    prefixes_.prefetch(cover_.route.key);
  }

 private:
  uint64_t changes_ = 0;
  bool isTrusted_ = false;
  Cover<R, Fec> cover_;
  // Hints: never followed, as they may be gone.
  const void* neighborSet_ = nullptr;
  const void* prefixList_ = nullptr;
  typename Kiv::HashMap<Addr, Kiv::Present>::Whereabouts neighbors_;
  typename Kiv::HashMap<Prefix, Kiv::Present>::Whereabouts prefixes_;
};

/// While one stands, the handling of a neighbour is remembered as the road of its table.
template <class Interest, class Reactor>
class Travel {
 public:
  Travel(Interest& interest, const Reactor& reactor)
      : interest_(interest),
        reactor_(&reactor),
        former_(std::exchange(interest.road, &reactor.road())) {}
  Travel(const Travel&) = delete;
  Travel& operator=(const Travel&) = delete;
  ~Travel() { interest_.road = former_; }

 private:
  Interest& interest_;
  Kiv::Ptr<const Reactor> reactor_;  // what is called meanwhile may take the table away
  typename Interest::Road* former_;
};

}  // namespace HostCore
