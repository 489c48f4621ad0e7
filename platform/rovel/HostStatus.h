// Host-route tables.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/kiv/runtime/Attributes.h"
#include "platform/kiv/runtime/Watch.h"
#include "platform/rovel/AdjacencyTable.h"
#include "platform/rovel/ViaSet.h"
#include "platform/tovan/FibTypes.h"
#include "platform/tovan/RouteCollection.h"
#include "platform/tovan/RouteRecord.h"

namespace Routing {

/// Host routes by prefix, in this process. The FEC id of a route is an index of the table's own
/// adjacencies when an adjacency helper allocated it. Otherwise it is a FEC of the forwarding
/// status.
///
/// \tparam R  the family's route.  \tparam V  its via set.
template <class R, class V>
class BasicHostStatus final : public Kiv::NamedEntity {
 public:
  using Route = R;
  using Prefix = decltype(R::key);
  using ViaSet = V;
  using Adjacencies = Rovel::AdjacencyTable<ViaSet>;
  using Ptr = Kiv::Ptr<BasicHostStatus>;
  using PtrConst = Kiv::Ptr<const BasicHostStatus>;

  /// Derive from this to be told of changes. A callback runs after the change it reports.
  class NotifieeConst : public Kiv::NotifieeOf<BasicHostStatus> {
   public:
    virtual void onRoute(const Prefix&) {}
    virtual void onRoutekivImmediate() {}

   protected:
    void kivImmediate() override { onRoutekivImmediate(); }
  };

  KIV_COLLECTION_TAG(258, route, Route, Prefix);

 private:
  /// A route and its mark, which is no part of it.
  struct Record : Tovan::RouteRecord<Route> {
    using Tovan::RouteRecord<Route>::RouteRecord;

    friend bool operator==(const Record& a, const Record& b) {
      return static_cast<const Tovan::RouteRecord<Route>&>(a) == b;
    }

    uint32_t mark = 0;
  };
  using Records = Kiv::HashMap<Prefix, Record>;

 public:
  /// An iterator over the routes, by value.
  using RouteIterator =
      typename Tovan::RouteCollection<RouteAttribute, Route, Records>::Map::IteratorConst;

  explicit BasicHostStatus(Kiv::Name name) : NamedEntity(std::move(name)) {}

  /// The route with exactly this prefix, or noRoute(prefix). The null prefix has no route.
  Route route(const Prefix& prefix) const {
    if (isNull(prefix)) [[unlikely]]
      return Tovan::noRoute<Route>(prefix);
    const Record* record = route_.map().find(prefix);
    return record == nullptr ? Tovan::noRoute<Route>(prefix) : record->withKey(prefix);
  }
  /// Prefetches the memory that route() will read.
  void prefetch(const Prefix& prefix) const { route_.map().prefetch(prefix); }
  /// Stores a route under its key. Announces a new or changed route.
  void routeIs(const Route& route) {
    if (!watches_.empty() && this->route(route.key) != route) watches_.written(route.key);
    route_.set(*this, route.key, Record(route));
  }
  /// Removes the route, announces the removal and returns the route. Returns noRoute(prefix) when
  /// there is none.
  Route routeDel(const Prefix& prefix) {
    const Record* record = route_.map().find(prefix);
    if (record == nullptr) return Tovan::noRoute<Route>(prefix);
    const Route removed = record->withKey(prefix);
    watches_.written(prefix);
    route_.del(*this, prefix);
    return removed;
  }
  Route routeDel(const RouteIterator& it) { return routeDel(it.key()); }
  /// Removes all routes and announces each removal. Routes that a callback adds stay.
  void routeDelAll() {
    const Kiv::Ptr<const Kiv::Entity> alive(this);
    for (const Prefix& prefix : routeKeys()) routeDel(prefix);
  }
  /// The mark of the prefix's route. It is 0 when there is no route, and for each new or changed
  /// route.
  uint32_t mark(const Prefix& prefix) const {
    const Record* record = route_.map().find(prefix);
    return record == nullptr ? 0 : record->mark;
  }
  /// Marks the prefix's route, if there is one, with a number of which the caller knows the
  /// meaning. A mark is not announced.
  void markIs(const Prefix& prefix, uint32_t mark) {
    if (Record* record = route_.map().find(prefix)) record->mark = mark;
  }
  size_t routeCount() const noexcept { return route_.map().size(); }
  RouteIterator routeIterator() const { return routeIteratorConst(); }
  RouteIterator routeIteratorConst() const { return RouteIterator(route_.map().iteratorConst()); }
  /// Calls `visit` with each route, in no particular order. `visit` must not write to the table.
  template <class Visit>
  void forEachRoute(Visit visit) const {
    for (auto it = route_.map().iteratorConst(); it; ++it) visit(it.value().withKey(it.key()));
  }
  /// The prefixes of all routes, in no particular order.
  std::vector<Prefix> routeKeys() const { return route_.map().keys(); }
  /// Announces a prefix, or the whole table, as if it had changed.
  void routeNotify(const Prefix& prefix) const { this->template notify<RouteAttribute>(prefix); }
  void routeNotify() const { this->template notify<RouteAttribute>(); }

  /// The watches that are called before a route is stored or removed.
  const Kiv::WatchList<Prefix>& watches() const noexcept { return watches_; }

  /// The vias of a host adjacency; an empty set when there is no such adjacency.
  const ViaSet& adjIndexToViaSet(Tovan::Fib::FecId index) const {
    return adjacencies_.viaSet(index);
  }
  /// The table's host adjacencies. An adjacency helper maintains them.
  const Adjacencies& adjacencies() const noexcept { return adjacencies_; }
  Adjacencies& adjacencies() noexcept { return adjacencies_; }

 private:
  Kiv::Collection<RouteAttribute, Prefix, Record, Records> route_;
  Adjacencies adjacencies_;
  Kiv::WatchList<Prefix> watches_;
};

namespace Host {
using Status = BasicHostStatus<Tovan::Fib::Route, Rovel::ViaSet>;
}

}  // namespace Routing

namespace Routing6::Host {
using Status = Routing::BasicHostStatus<Tovan::Fib6::Route, Rovel::Via6Set>;
}
