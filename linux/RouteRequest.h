// Host routes as the kernel is asked for them.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "linux/Values.h"

namespace Linux {

/// Where a host route is in the kernel.
struct RouteKey {
  TableId table = 0;
  Prefix prefix;

  uint32_t hash() const;

  friend auto operator<=>(const RouteKey&, const RouteKey&) = default;
};

/// One next hop of a host route: an interface, and a gateway unless the host itself is there.
struct RouteVia {
  LinkIndex link = 0;
  std::optional<Address> gateway;

  friend auto operator<=>(const RouteVia&, const RouteVia&) = default;
};

/// What a host route says, beside its key.
struct RouteValue {
  std::vector<RouteVia> vias;  ///< empty for a blackhole, which drops what it matches
  uint32_t metric = 0;
  std::optional<Address> preferredSource;

  friend auto operator<=>(const RouteValue&, const RouteValue&) = default;
};

/// The form in which the kernel holds a value: vias in order, each once; an IPv6 metric of 0 as
/// 1024; of IPv6 vias one only when there is one without gateway, as the kernel has no multipath
/// routes of such.
RouteValue normalized(const Prefix& prefix, RouteValue value);

/// What the kernel takes for an IPv6 metric of 0 (IP6_RT_PRIO_USER).
inline constexpr uint32_t kDefaultMetric6 = 1024;

/// A change to the kernel's tables. Blackhole is a route of the same key that drops what it
/// matches, or any other that is ours when it is deleted.
struct RouteRequest {
  enum class Verb : uint8_t { Add, Delete, AddBlackhole, DeleteBlackhole };
  Verb verb = Verb::Add;
  RouteKey key;
  RouteValue value;  ///< of Add; of the others the metric only

  friend bool operator==(const RouteRequest&, const RouteRequest&) = default;
};

/// A request in the words of ip(8): "route add 10.0.0.5/32 dev 3 table 10 metric 20". Interfaces
/// are numbers.
std::string toString(const RouteRequest& request);

/// Carries requests out, in order. An addition is exclusive: it fails where there is a route of the
/// same table, prefix and metric. A deletion takes away a route with our protocol number only.
class RouteChannel {
 public:
  /// The result of a request whose answer was lost: it was carried out or not.
  static constexpr int kUnknown = -1;

  virtual ~RouteChannel() = default;
  /// \param results  one for each request: 0, the kernel's errno, or kUnknown.
  virtual void perform(std::span<const RouteRequest> requests, std::span<int> results) = 0;
};

}  // namespace Linux
