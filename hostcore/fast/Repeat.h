// The fifth short cut: an event that would only repeat steps takes none.
#pragma once

#include <cstdint>

#include "hostcore/Family.h"
#include "hostcore/fast/CoverCache.h"
#include "hostcore/fast/Enabled.h"
#include "hostcore/fast/Trust.h"

namespace HostCore {

/// Recognises the event of a neighbour that is already filed and has its host route, such as a new
/// Ethernet address.
///
/// When a neighbour's own event has repaired its host route, that route gets the mark of the cover
/// that the neighbour's interface has then. Each interface and each cover has another mark. The
/// host route loses its mark when it is withdrawn or changed, and when any other handler repairs
/// it. So as long as a neighbour's host route has the mark of the present cover, another repair
/// would write nothing. Nor would the merge, if it is not due and the record in the route table can
/// be read.
template <Family F>
class Repeat {
 public:
  using Addr = typename F::Addr;
  using Route = typename F::Route;
  using Cache = CoverCache<Route, typename F::ForwardingStatus::Fec>;

  explicit Repeat(typename F::RouteSm& sm) : sm_(sm) {}

  /// The host route of `ip` as a neighbour was repaired: it is now in `hostTable` as it should be.
  void repaired(const Addr& ip, typename F::HostTable& hostTable) {
    hostTable.markIs(hostPrefix<F>(ip), markOfCover());
  }
  /// True if all steps of the event of `ip`, which is in `table`, would write nothing and trace
  /// nothing.
  ///
  /// \param cache  that of the table.
  bool isRepeat(const Addr& ip, const Arp::ArpIntfStatus& table, const Cache& cache) const;

 private:
  /// The mark for a host route that is being repaired, or 0.
  uint32_t markOfCover() {
    auto& state = sm_.fast();
    auto* cache = state.cache;
    // A callback may have begun another handler, of which this one does not know.
    if (cache == nullptr || state.handlersBegun != state.neighborBegan ||
        !cache->isValid(coverVersion(state)) || cache->cover().fec.viaCount() != 1) {
      return 0;
    }
    if (cache->mark() == 0 && state.lastMark != UINT32_MAX) cache->markIs(++state.lastMark);
    return cache->mark();
  }
  /// True if the next merge of `ip` may change something.
  bool isDue(const Addr& ip) const {
    const auto& due = sm_.fast().due;
    return !due.empty() && due.find(ip) != nullptr;
  }

  typename F::RouteSm& sm_;
};

template <Family F>
bool Repeat<F>::isRepeat(const Addr& ip, const Arp::ArpIntfStatus& table,
                         const Cache& cache) const {
  if (!isEnabled(ShortCut::Repeat) || !isEnabled(ShortCut::Relevance) || cache.mark() == 0) {
    return false;
  }
  const auto& state = sm_.fast();
  const auto* root = sm_.rootRaw();
  if (root == nullptr || root->trieRaw() == nullptr || !F::neighborTable(*root)) return false;
  const auto host = hostPrefix<F>(ip);
  if (F::neighborTable(*root)->mark(host) != cache.mark() || !cache.isValid(coverVersion(state)) ||
      root->trieRaw()->longestMatch(host) != cache.cover().route.key ||
      sm_.neighborTable(table.intfId()) != &table) {
    return false;
  }
  if (!Trust<F>(sm_).holds() || isDue(ip) || F::trace().buildsAbove(0, sm_)) {
    return false;
  }
  try {
    const Route merged = sm_.routeStatusRaw()->route(host);
    return merged.key == host && merged.routeType == F::kAttached;
  } catch (const Tovan::CorruptionDetectedException&) {
    return false;  // the merge reports it
  }
}

}  // namespace HostCore
