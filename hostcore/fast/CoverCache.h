// The first short cut: a cache of look-ups.
#pragma once

#include <cstdint>

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
  void coverIs(const Cover<R, Fec>& cover, uint64_t version) {
    cover_ = cover;
    version_ = isTrusted_ ? version : 0;
  }
  /// Whether covers that are stored from now on may be trusted.
  void isTrustedIs(bool isTrusted) noexcept { isTrusted_ = isTrusted; }

  /// Stores where the set is to which neighbours under the cover belong.
  template <class AddrSet>
  void neighborSetIs(const AddrSet& set) {
    neighborSet_ = &set;
    neighbors_ = set.ipPrefetchHint();
  }
  /// Stores where the list is to which the cover's prefix belongs.
  template <class PrefixList>
  void prefixListIs(const PrefixList& list) {
    prefixList_ = &list;
    prefixes_ = list.prefixPrefetchHint();
  }
  /// Prefetches the entries of `addr` in set and list.
  void prefetch(const Addr& addr) const {
    Kiv::prefetch(neighborSet_);
    Kiv::prefetch(prefixList_);
    neighbors_.prefetch(addr);
    prefixes_.prefetch(cover_.route.key);
  }

 private:
  uint64_t version_ = 0;
  bool isTrusted_ = false;
  Cover<R, Fec> cover_;
  // Only for prefetching: the objects may be gone, so nothing dereferences the pointers.
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

/// The cached cover of an address whose longest match is `longest`, if it is valid and leaves
/// through `intf`; else null.
template <Family F>
const auto* cachedCover(const typename F::RouteSm& sm, const typename F::Prefix& longest,
                        Zemit::IntfId intf) {
  const auto& state = sm.fast();
  const auto* cache = state.cache;
  const bool isUsable = cache != nullptr && cache->isValid(coverVersion(state)) &&
                        cache->cover().route.key == longest &&
                        Obu::leavesThrough(cache->cover().fec, intf);
  return isUsable ? &cache->cover() : nullptr;
}

/// Stores the cover of the neighbour that is being handled.
template <Family F>
void cacheCover(const typename F::RouteSm& sm, const CoverOf<F>& cover) {
  auto& state = sm.fast();
  if (state.cache != nullptr) state.cache->coverIs(cover, coverVersion(state));
}

}  // namespace HostCore
