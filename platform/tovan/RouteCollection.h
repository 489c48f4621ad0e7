// An entity's routes by prefix.
#pragma once

#include <concepts>
#include <optional>
#include <utility>
#include <vector>

#include "platform/kiv/runtime/Attributes.h"
#include "platform/tovan/RouteRecord.h"

namespace Tovan {

/// A Kiv::Collection of routes under their own prefixes that does not store the prefix twice.
///
/// Returns routes by value, where a Kiv::Collection returns references.
///
/// \tparam Records  a map from prefixes to RouteRecords.
template <class Tag, class R, class Records>
class RouteCollection {
 public:
  using AttributeTag = Tag;
  using Route = R;
  using Prefix = decltype(Route::key);

  /// The routes, to be read.
  class Map {
   public:
    using Key = Prefix;
    using Value = Route;

    class IteratorConst {
     public:
      explicit IteratorConst(typename Records::IteratorConst at) : at_(std::move(at)) {}
      explicit operator bool() const noexcept { return bool(at_); }
      const Prefix& key() const noexcept { return at_.key(); }
      Route value() const { return at_.value().withKey(at_.key()); }
      Route ptr() const { return value(); }
      IteratorConst& operator++() {
        ++at_;
        return *this;
      }

     private:
      typename Records::IteratorConst at_;
    };
    using Iterator = IteratorConst;

    explicit Map(const Records& records) : records_(records) {}

    size_t size() const noexcept { return records_.size(); }
    std::optional<Route> find(const Prefix& prefix) const {
      const auto* record = records_.find(prefix);
      return record == nullptr ? std::nullopt : std::optional(record->withKey(prefix));
    }
    auto prefetch(const Prefix& prefix) const { return records_.prefetch(prefix); }
    /// The address of the record of `prefix`, or null. Only for a prefetch: it may be outdated.
    const void* address(const Prefix& prefix) const { return records_.find(prefix); }
    std::vector<Prefix> keys() const { return records_.keys(); }
    Iterator iterator() const { return iteratorConst(); }
    IteratorConst iteratorConst() const { return IteratorConst(records_.iteratorConst()); }
    IteratorConst iteratorConst(const Prefix& prefix) const {
      return IteratorConst(records_.iteratorConst(prefix));
    }

   private:
    const Records& records_;
  };

  /// A collection whose storage is a column of `rows`.
  template <class Rows>
  requires std::constructible_from<Records, Rows&>
  explicit RouteCollection(Rows& rows) : records_(rows) {}

  /// The route of a prefix, or an empty one.
  Route get(const Prefix& prefix) const { return map().find(prefix).value_or(Route()); }
  Map map() const noexcept { return Map(records_.map()); }

  // The same as in Kiv::Collection.
  bool set(const Kiv::Entity& owner, const Route& route) {
    return records_.set(owner, route.key, RouteRecord<Route>(route));
  }
  bool del(const Kiv::Entity& owner, const Prefix& prefix) { return records_.del(owner, prefix); }
  void del(const Kiv::Entity& owner, const typename Map::Iterator& it) { del(owner, it.key()); }
  void delAll(const Kiv::Entity& owner) { records_.delAll(owner); }

 private:
  Kiv::Collection<Tag, Prefix, RouteRecord<Route>, Records> records_;
};

}  // namespace Tovan

/// A collection of routes. Its storage, the last argument, is a map of RouteRecords. It has the
/// members of a KIV_COLLECTION_ON, and attrIs(route), which stores a route under its prefix.
/// attr(prefix) returns the route or an empty one; attrFind(prefix) returns an optional route.
#define TOVAN_ROUTE_COLLECTION_ON(id, attr, Attr, Route, ...)                      \
  KIV_KEYED_MEMBERS(id, attr, Attr, decltype(Route::key),                          \
                    ::Tovan::RouteCollection<Attr##Attribute, Route, __VA_ARGS__>) \
  KIV_COLLECTION_READERS(attr, decltype(Route::key))                               \
  KIV_KEYED_DELETIONS(attr, Attr, decltype(Route::key))                            \
  void attr##Is(const Route& route) {                                              \
    attr##_.set(*this, route);                                                     \
  }                                                                                \
  const void* attr##Address(const decltype(Route::key)& prefix) const {            \
    return attr##_.map().address(prefix);                                          \
  }
