// The order of preference of routes to the same prefix.
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>

#include "platform/zemit/Text.h"

namespace Routing {

/// A route's cost within its routing protocol.
using RouteMetric = uint32_t;
/// The rank of a route's source. A lower value is preferred.
using RoutePreference = uint8_t;

/// The metric and preference of a route.
struct MetricPref {
  static constexpr size_t kMaxText = sizeof("metric 4294967295 preference 255") - 1;

  RouteMetric metric = 0;
  RoutePreference preference = 0;

  /// Writes "metric 10 preference 1".
  char* write(char* out) const {
    using namespace Zemit::detail;
    out = writeDecimal(writeText(out, "metric "), metric);
    return writeDecimal(writeText(out, " preference "), preference);
  }

  friend constexpr auto operator<=>(const MetricPref&, const MetricPref&) = default;
};

inline std::ostream& operator<<(std::ostream& os, const MetricPref& value) {
  return Zemit::print(os, value);
}

}  // namespace Routing
