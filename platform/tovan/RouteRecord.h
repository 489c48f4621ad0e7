// A route the way tables store it: without its key and without padding.
#pragma once

#include <cstdint>

namespace Tovan {

/// What a table keeps of a route of type `Route` beside its prefix.
template <class Route>
class RouteRecord {
 public:
  RouteRecord() = default;
  explicit RouteRecord(const Route& route)
      : fecId_(route.fecId),
        metric_(route.metricPref.metric),
        typeAndPreference_(static_cast<uint32_t>(route.routeType) << 8 |
                           route.metricPref.preference) {}

  Route withKey(const decltype(Route::key)& key) const {
    return {
        .key = key,
        .metricPref = {.metric = metric_, .preference = static_cast<uint8_t>(typeAndPreference_)},
        .routeType = static_cast<decltype(Route::routeType)>(typeAndPreference_ >> 8),
        .fecId = fecId_};
  }

  friend bool operator==(const RouteRecord&, const RouteRecord&) = default;

 private:
  uint64_t fecId_ = 0;
  uint32_t metric_ = 0;
  uint32_t typeAndPreference_ = 0;
};

/// What a look-up of `asked` gives when it misses: a record with another key. That is the null
/// prefix, or for a look-up of the null prefix itself 0.0.0.0/0 (::/0).
template <class Route>
Route noRoute(const decltype(Route::key)& asked) {
  Route none;
  if (!isNull(asked)) none.key = decltype(Route::key)::null();
  return none;
}

}  // namespace Tovan
