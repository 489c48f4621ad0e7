// The form in which tables store a route: without its key and without padding.
#pragma once

#include <cstdint>

namespace Tovan {

/// A route of type `Route` without its prefix.
template <class Route>
class RouteRecord {
 public:
  RouteRecord() = default;
  explicit RouteRecord(const Route& route)
      : fecIdLow_(static_cast<uint32_t>(route.fecId)),
        fecIdHigh_(static_cast<uint32_t>(route.fecId >> 32)),
        metric_(route.metricPref.metric),
        typeAndPreference_(static_cast<uint32_t>(route.routeType) << 8 |
                           route.metricPref.preference) {}

  Route withKey(const decltype(Route::key)& key) const {
    return {
        .key = key,
        .metricPref = {.metric = metric_, .preference = static_cast<uint8_t>(typeAndPreference_)},
        .routeType = static_cast<decltype(Route::routeType)>(typeAndPreference_ >> 8),
        .fecId = uint64_t{fecIdHigh_} << 32 | fecIdLow_};
  }

  friend bool operator==(const RouteRecord&, const RouteRecord&) = default;

 private:
  // Halves, so that a record can stand at any multiple of four bytes.
  uint32_t fecIdLow_ = 0;
  uint32_t fecIdHigh_ = 0;
  uint32_t metric_ = 0;
  uint32_t typeAndPreference_ = 0;
};

/// The result of a look-up of `asked` that finds no route: a route with another key. The key is the
/// null prefix; for a look-up of the null prefix itself it is 0.0.0.0/0 (::/0).
template <class Route>
Route noRoute(const decltype(Route::key)& asked) {
  Route none;
  if (!isNull(asked)) none.key = decltype(Route::key)::null();
  return none;
}

}  // namespace Tovan
