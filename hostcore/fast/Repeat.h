// The fifth short cut: an event that would only repeat steps takes none.
#pragma once

#include <cstdint>

#include "hostcore/Family.h"
#include "hostcore/fast/CoverCache.h"
#include "hostcore/fast/Enabled.h"
#include "hostcore/fast/Trust.h"
#include "platform/obu/FibLookup.h"

namespace HostCore {

/// Recognises the event of a neighbour that is already filed and has its host route, such as a new
/// Ethernet address.
///
/// When a neighbour's own event has repaired its host route, that route gets the mark of the cover
/// that the neighbour's interface has then. Each interface and each cover has another mark. The
/// host route loses its mark when it is withdrawn or changed, and a neighbour leaves its set only
/// after its host route was withdrawn. So as long as a neighbour's host route has the mark of the
/// present cover, another repair would write nothing. Nor would the merge, if it is not due, the
/// record in the route table can be read, and the router itself does not have the address.
///
/// A callback may take any step, and undo a part of a repair. So no host route gets a mark if the
/// neighbour's handler is within another one, or if another step has written a host route since the
/// handler began.
template <Family F>
class Repeat {
 public:
  using Addr = typename F::Addr;
  using Route = typename F::Route;
  using Fec = typename F::ForwardingStatus::Fec;
  using Cache = CoverCache<Route, Fec>;

  explicit Repeat(typename F::RouteSm& sm) : sm_(sm) {}

  /// The handler of the neighbour `ip` begins.
  void begins(const Addr& ip) {
    auto& state = sm_.fast();
    if (state.handlers != 1) return;
    state.neighbor = ip;
    state.neighborBegan = state.writes;
  }
  /// See ShortCuts::repaired().
  void repaired(const Addr& ip, const Fec& fec, typename F::HostTable& hostTable, uint32_t writes) {
    const auto& state = sm_.fast();
    auto* cache = state.cache;
    if (!isEnabled(ShortCut::Repeat) || cache == nullptr || state.neighbor != ip ||
        state.writes != state.neighborBegan + writes || fec.viaCount() != 1 ||
        cache->cover().fec != fec) {
      return;
    }
    if (const uint32_t mark = markOf(*cache)) hostTable.markIs(hostPrefix<F>(ip), mark);
  }
  /// True if all steps of the event of `ip`, which is in `table`, would write nothing and trace
  /// nothing.
  ///
  /// \param cache  that of the table.
  bool isRepeat(const Addr& ip, const Arp::ArpIntfStatus& table, const Cache& cache) const;

 private:
  /// The mark of the cover, or 0 when no mark is left.
  uint32_t markOf(Cache& cache) {
    auto& last = sm_.fast().lastMark;
    if (cache.mark() == 0 && last != UINT32_MAX) cache.markIs(++last);
    return cache.mark();
  }
  /// True if the router itself has the address, and it takes part in the merge.
  static bool isOwnAddress(const typename F::RouteSmRoot& root, const typename F::Prefix& host) {
    if constexpr (F::kMergesReceiveRoutes) {
      const auto& receiveTable = root.receiveTable();
      return !receiveTable || receiveTable->route(host).key == host;
    }
    return false;
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
      !Obu::leavesThrough(cache.cover().fec, table.intfId()) ||
      sm_.neighborTable(table.intfId()) != &table) {
    return false;
  }
  if (!Trust<F>(sm_).holds() || isDue(ip) || isOwnAddress(*root, host) ||
      F::trace().buildsAbove(0, sm_)) {
    return false;
  }
  try {
    // A missing route has an invalid type.
    return sm_.routeStatusRaw()->route(host).routeType == F::kAttached;
  } catch (const Tovan::CorruptionDetectedException&) {
    return false;  // the merge reports it
  }
}

}  // namespace HostCore
