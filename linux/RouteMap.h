// A hash map by table and prefix, of both families.
#pragma once

#include <cstddef>
#include <cstdint>
#include <tuple>
#include <variant>

#include "linux/RouteRequest.h"
#include "platform/kiv/containers/HashMap.h"

namespace Linux {

/// Values by RouteKey. Each family has a map of its own, because an element with an IPv4 key then
/// needs half of the memory.
template <class V>
class RouteMap {
 public:
  size_t size() const { return mapOf<Zemit::Prefix>().size() + mapOf<Zemit::Ip6Prefix>().size(); }
  bool empty() const { return size() == 0; }

  /// The value of `key`, or null. The pointer is valid until the next get() or erase().
  V* find(const RouteKey& key) {
    return apply(*this, key, [](auto& map, const auto& own) { return map.find(own); });
  }
  const V* find(const RouteKey& key) const {
    return apply(*this, key, [](const auto& map, const auto& own) { return map.find(own); });
  }
  /// The value of `key`. Adds a default value if there is none. The reference is valid as long as
  /// the pointer of find().
  V& get(const RouteKey& key) {
    return apply(*this, key,
                 [](auto& map, const auto& own) -> V& { return *map.tryEmplace(own).first; });
  }
  /// \return true when there was a value.
  bool erase(const RouteKey& key) {
    return apply(*this, key, [](auto& map, const auto& own) { return map.erase(own); });
  }
  /// Prefetches the memory that find() reads.
  void prefetch(const RouteKey& key) const {
    apply(*this, key, [](const auto& map, const auto& own) { map.prefetch(own); });
  }

  /// Calls `visit(key, value)` for each element, in no order. It must not insert or erase.
  template <class Visit>
  void forEach(const Visit& visit) {
    std::apply([&](auto&... maps) { (visitAll(maps, visit), ...); }, maps_);
  }
  template <class Visit>
  void forEach(const Visit& visit) const {
    std::apply([&](const auto&... maps) { (visitAll(maps, visit), ...); }, maps_);
  }

 private:
  /// A RouteKey of one family.
  template <class P>
  struct Key {
    P prefix;
    TableId table = 0;

    uint32_t hash() const { return RouteKey::hashOf(table, prefix); }
    friend bool operator==(const Key&, const Key&) = default;
  };
  template <class P>
  using Map = Kiv::HashMap<Key<P>, V>;

  template <class P>
  const Map<P>& mapOf() const {
    return std::get<Map<P>>(maps_);
  }
  /// Calls `verb` with the map of the key's family and the key there.
  template <class Self, class Verb>
  static decltype(auto) apply(Self& self, const RouteKey& key, const Verb& verb) {
    return std::visit(
        [&]<class P>(const P& prefix) -> decltype(auto) {
          return verb(std::get<Map<P>>(self.maps_), Key<P>{prefix, key.table});
        },
        key.prefix);
  }
  template <class Map, class Visit>
  static void visitAll(Map& map, const Visit& visit) {
    for (auto it = walkOf(map); it; ++it)
      visit(RouteKey{it.key().table, it.key().prefix}, it.value());
  }
  template <class P>
  static auto walkOf(Map<P>& map) {
    return map.iterator();
  }
  template <class P>
  static auto walkOf(const Map<P>& map) {
    return map.iteratorConst();
  }

  std::tuple<Map<Zemit::Prefix>, Map<Zemit::Ip6Prefix>> maps_;
};

}  // namespace Linux
