// The first short cut: a cache of look-ups.
#pragma once

#include <cstdint>

#include "hostcore/Account.h"
#include "hostcore/Family.h"
#include "hostcore/fast/Enabled.h"
#include "hostcore/fast/MachineIndex.h"
#include "hostcore/fast/State.h"
#include "platform/kiv/containers/HashMap.h"
#include "platform/kiv/containers/Prefetch.h"
#include "platform/kiv/containers/Ptr.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

/// Caches the results of one neighbour's look-ups for the next neighbour of the same table, because
/// most neighbours of an interface have the same cover.
///
/// The cover is valid while the machine's cover version stays the same. An outdated one still
/// serves as a prefetch hint.
///
/// \tparam R  the family's route.
template <class R, class Fec>
class CoverCache {
 public:
  using Prefix = decltype(R::key);
  using Addr = typename Prefix::Addr;

  const Cover<R, Fec>& cover() const noexcept { return cover_; }
  bool isValid(uint64_t version) const noexcept {
    return isEnabled(ShortCut::Cover) && isTrusted_ && version_ == version;
  }
  /// \param row  the address of what the root stores for the cover's prefix, or null.
  void coverIs(const Cover<R, Fec>& cover, uint64_t version, const void* row) {
    if (cover_ != cover) mark_ = 0;
    cover_ = cover;
    version_ = isTrusted_ ? version : 0;
    row_ = row;
  }
  /// The mark of the neighbours that were repaired with this cover; 0 if they have none. See
  /// Repeat.h.
  uint32_t mark() const noexcept { return mark_; }
  void markIs(uint32_t mark) noexcept { mark_ = mark; }
  /// Whether covers that are stored from now on may be trusted.
  void isTrustedIs(bool isTrusted) noexcept { isTrusted_ = isTrusted; }

  /// Stores the places of the cover's set of neighbours, and of the list that has the cover's
  /// prefix.
  template <class AddrSet, class PrefixList>
  void filedIn(const AddrSet& set, const PrefixList& list) {
    neighborSet_ = &set;
    neighbors_ = set.ipPrefetchHint();
    prefixList_ = &list;
    prefixes_ = list.prefixPrefetchHint();
  }
  /// Prefetches the entries of `addr` in set and list.
  void prefetch(const Addr& addr) const {
    Kiv::prefetch(row_);
    Kiv::prefetch(neighborSet_);
    Kiv::prefetch(prefixList_);
    neighbors_.prefetch(addr);
    prefixes_.prefetch(cover_.route.key);
  }

 private:
  uint64_t version_ = 0;
  bool isTrusted_ = false;
  uint32_t mark_ = 0;
  Cover<R, Fec> cover_;
  // Only for prefetching: the objects may be gone, so nothing dereferences the pointers.
  const void* row_ = nullptr;
  const void* neighborSet_ = nullptr;
  const void* prefixList_ = nullptr;
  typename Kiv::HashMap<Addr, Kiv::Present>::PrefetchHint neighbors_;
  typename Kiv::HashMap<Prefix, Kiv::Present>::PrefetchHint prefixes_;
};

/// Goes up with each change that may concern the cover of an address.
template <class State>
uint64_t coverVersion(const State& state) {
  return state.coverVersion + (state.index == nullptr ? 0 : state.index->fecVersion());
}

/// Finds the cover of a neighbour of `intf` whose longest match is `longest`: in the cache, or with
/// `find`, whose result is cached. Returns the reason if there is none, as `find` does. The plain
/// form is a call of `find`, which stores into `cover`.
template <Family F, class Find>
Lack cachedCover(const typename F::RouteSm& sm, const typename F::Prefix& longest,
                 Zemit::IntfId intf, CoverOf<F>& cover, Find find) {
  const auto& state = sm.fast();
  auto* cache = state.cache;
  if (cache == nullptr) return find();
  if (cache->isValid(coverVersion(state)) && cache->cover().route.key == longest &&
      Obu::leavesThrough(cache->cover().fec, intf)) {
    cover = cache->cover();
    return Lack::None;
  }
  const Lack lack = find();
  if (lack == Lack::None) {
    const auto* root = sm.rootRaw();
    cache->coverIs(cover, coverVersion(state),
                   root == nullptr ? nullptr : root->prefixToRouteAddress(cover.route.key));
  }
  return lack;
}

}  // namespace HostCore
