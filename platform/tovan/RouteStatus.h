// The FIB's route tables, in shared memory.
#pragma once

#include <string>
#include <vector>

#include "platform/kiv/runtime/Attributes.h"
#include "platform/kiv/runtime/Watch.h"
#include "platform/tovan/FibTypes.h"
#include "platform/tovan/RouteRecord.h"
#include "platform/tovan/TableWalk.h"
#include "platform/tovan/TovanMap.h"

namespace Tovan {

/// The progress of the owner of a route table.
struct RouteTableState {
  bool loading = false;       ///< the owner is still reading its initial inputs
  bool initialized = false;   ///< the host-route machine has its inputs and follows their changes
  bool synchronized = false;  ///< the FIB's own host routes are merged; see RovelReady::VrfStatus
  /// Entries may be missing: the owner was refused memory, or lost some to damage, and has not set
  /// all of them again.
  bool incomplete = false;

  uint32_t word() const {
    return (loading ? 1U : 0U) | (initialized ? 2U : 0U) | (synchronized ? 4U : 0U) |
           (incomplete ? 8U : 0U);
  }
  static RouteTableState of(uint32_t word) {
    return {.loading = (word & 1) != 0,
            .initialized = (word & 2) != 0,
            .synchronized = (word & 4) != 0,
            .incomplete = (word & 8) != 0};
  }
  friend bool operator==(const RouteTableState&, const RouteTableState&) = default;
};

/// The routes of one VRF and family by prefix. Other processes can read them.
///
/// \tparam R  the family's route.
template <class R>
class BasicRouteStatus final : public Kiv::NamedEntity {
 public:
  using Route = R;
  using Prefix = decltype(R::key);
  using Ptr = Kiv::Ptr<BasicRouteStatus>;
  using PtrConst = Kiv::Ptr<const BasicRouteStatus>;

  /// Derive from this to be told of changes. A callback runs after the change it reports.
  class NotifieeConst : public Kiv::NotifieeOf<BasicRouteStatus> {
   public:
    virtual void onRoute(const Prefix&) {}
    virtual void onRoutekivImmediate() {}

   protected:
    void kivImmediate() override { onRoutekivImmediate(); }
  };

  KIV_COLLECTION_TAG(258, route, Route, Prefix);

  /// A walk over the routes; see TableWalk.
  class RouteIterator : public TableWalk<Prefix, RouteRecord<Route>> {
   public:
    using TableWalk<Prefix, RouteRecord<Route>>::TableWalk;
    Route value() const { return this->record().withKey(this->key()); }
    Route ptr() const { return value(); }
  };

  /// \param name    the table's name; other processes know the table as "NAME.route4" or
  ///                "NAME.route6".
  /// \param access  by default a table in this process's own memory.
  /// \throws OpenException, NoSpaceException.
  explicit BasicRouteStatus(const std::string& name, Access access = Access::Embedded)
      : NamedEntity(Kiv::Name(name)),
        map_({.access = access, .name = name + kSuffix, .layout = kLayout}) {}

  /// The route with exactly this prefix, or noRoute(prefix). Finds nothing under the null prefix.
  /// \throws CorruptionDetectedException.
  Route route(const Prefix& prefix) const {
    if (isNull(prefix)) [[unlikely]]
      return noRoute<Route>(prefix);
    const auto record = map_.get(prefix);
    return record ? record->withKey(prefix) : noRoute<Route>(prefix);
  }
  /// Prefetches the memory that route() reads.
  /// \param isNew  as for TovanMap::prefetch().
  void prefetch(const Prefix& prefix, bool isNew = false) const { map_.prefetch(prefix, isNew); }
  /// The FEC of the route, or invalidFecId; unchecked, so only for a prefetch.
  Fib::FecId peekFecId(const Prefix& prefix) const {
    const auto record = map_.peek(prefix);
    return record ? record->withKey(prefix).fecId : Fib::invalidFecId;
  }
  /// Stores a route under its key, and announces it if it is new or differs. Also announces routes
  /// that the table lost to damage meanwhile.
  /// \throws NoSpaceException, ReadOnlyException.
  void routeIs(const Route& route) {
    const Record record(route);
    if (this->hasNotifiees() && !map_.isReadOnly() && holds(route.key, record)) return;
    map_.set(route.key, record);
    announce<RouteAttribute>(*this, watches_, route.key, takeDropped());
  }
  /// Removes a route, announces that, and returns the route; or noRoute(prefix). A damaged route is
  /// removed and announced, too, but noRoute(prefix) is returned.
  /// \throws ReadOnlyException.
  Route routeDel(const Prefix& prefix) {
    const auto removed = map_.erase(prefix);
    const auto dropped = takeDropped();
    if (removed || dropped) announce<RouteAttribute>(*this, watches_, prefix, dropped);
    return removed ? removed->withKey(prefix) : noRoute<Route>(prefix);
  }
  Route routeDel(const RouteIterator& it) { return routeDel(it.key()); }
  /// Removes all routes and announces each. Routes that a callback adds stay.
  void routeDelAll() {
    const Kiv::Ptr<const Kiv::Entity> alive(this);
    for (const Prefix& prefix : routeKeys()) routeDel(prefix);
  }
  size_t routeCount() const { return map_.size(); }
  /// \throws CorruptionDetectedException.
  RouteIterator routeIterator() const { return RouteIterator(map_); }
  RouteIterator routeIteratorConst() const { return RouteIterator(map_); }
  /// Calls `visit` with each route, in no particular order. `visit` may write to the table.
  /// \throws CorruptionDetectedException.
  template <class Visit>
  void forEachRoute(Visit visit) const {
    for (const auto& item : map_) visit(item.value.withKey(item.key));
  }
  /// All prefixes, in no particular order. Damage is reported and ends the list.
  std::vector<Prefix> routeKeys() const {
    std::vector<Prefix> keys;
    keys.reserve(map_.size());
    try {
      for (const auto& item : map_) keys.push_back(item.key);
    } catch (const CorruptionDetectedException& damage) {
      corruptionDetected(damage.what());
    }
    return keys;
  }
  /// Announces a prefix, or the whole table, without a change.
  void routeNotify(const Prefix& prefix) const { this->template notify<RouteAttribute>(prefix); }
  void routeNotify() const { this->template notify<RouteAttribute>(); }

  /// The watches that are told of each route that is stored or removed.
  const Kiv::WatchList<Prefix>& watches() const noexcept { return watches_; }
  /// The state of the whole table, for its readers.
  void stateIs(const RouteTableState& state) { map_.statusIs(state.word()); }
  RouteTableState state() const { return RouteTableState::of(map_.status()); }
  /// Whether a process has the table open for writing; whether its name leads to it. See Table.
  bool hasWriter() const { return map_.hasWriter(); }
  bool isCurrent() const { return map_.isCurrent(); }
  uint64_t changeCount() const { return map_.changeCount(); }

  /// Checks and repairs the table; see TovanMap::tend(). Announces the routes that were lost.
  /// \throws NoSpaceException, ReadOnlyException.
  void tend(TendRound& round) {
    map_.tend(round);
    if (const auto dropped = takeDropped()) announce<RouteAttribute>(*this, watches_, *dropped);
  }
  /// Called with the message of damage that a look-up or walk found.
  void corruptionDetected(const std::string& message) const { map_.corruptionDetected(message); }
  const TovanMap<Prefix, RouteRecord<Route>>& map() const noexcept { return map_; }

 private:
  using Record = RouteRecord<Route>;

  /// A damaged entry counts as absent; storing a route repairs and reports it.
  bool holds(const Prefix& prefix, const Record& record) const {
    try {
      return map_.get(prefix) == record;
    } catch (const CorruptionDetectedException&) {
      return false;
    }
  }

  /// The routes that the table lost. A key that is no prefix is damaged, too, and is left out.
  std::optional<Dropped<Prefix>> takeDropped() {
    auto dropped = map_.takeDropped();
    if (!dropped) [[likely]]
      return dropped;
    const auto isDamaged = [](const Prefix& key) {
      return key.len() > Prefix::kMaxLen || Prefix::enclosing(key.addr(), key.len()) != key;
    };
    std::erase_if(dropped->keys, isDamaged);
    return dropped;
  }

  static constexpr bool kIsIpv4 = Prefix::kMaxLen == 32;
  static constexpr const char* kSuffix = kIsIpv4 ? ".route4" : ".route6";
  static constexpr const char* kLayout = kIsIpv4 ? "route4/1" : "route6/1";

  // Mutable: readers note damage, too.
  mutable TovanMap<Prefix, Record> map_;
  Kiv::WatchList<Prefix> watches_;
};

namespace Fib {
using RouteStatus = BasicRouteStatus<Route>;
}
namespace Fib6 {
using RouteStatus = BasicRouteStatus<Route>;
}

// Instantiated in Tables.cpp.
extern template class TovanMap<Zemit::Prefix, RouteRecord<Fib::Route>>;
extern template class TovanMap<Zemit::Ip6Prefix, RouteRecord<Fib6::Route>>;
extern template class BasicRouteStatus<Fib::Route>;
extern template class BasicRouteStatus<Fib6::Route>;

}  // namespace Tovan
