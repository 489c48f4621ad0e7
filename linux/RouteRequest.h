// Requests for host routes in the kernel.
#pragma once

#include <algorithm>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <unordered_set>
#include <variant>
#include <vector>

#include "linux/Values.h"
#include "platform/kiv/containers/Hash.h"

namespace Linux {

/// The table and prefix of a host route.
struct RouteKey {
  TableId table = 0;
  Prefix prefix;

  uint32_t hash() const {
    return std::visit([this](const auto& p) { return hashOf(table, p); }, prefix);
  }
  /// The hash of a key with this table and the prefix of one family.
  template <class P>
  static uint32_t hashOf(TableId table, const P& prefix) {
    return Kiv::hashWord((uint64_t{table} << 32) | prefix.hash());
  }

  friend auto operator<=>(const RouteKey&, const RouteKey&) = default;
};

/// One next hop of a host route: an interface, and a gateway unless the host is directly connected.
struct RouteVia {
  LinkIndex link = 0;
  std::optional<Address> gateway;

  friend auto operator<=>(const RouteVia&, const RouteVia&) = default;
};

/// The value of a host route.
struct RouteValue {
  std::vector<RouteVia> vias;  ///< empty for a blackhole, which drops packets
  uint32_t metric = 0;
  std::optional<Address> preferredSource;

  /// Whether it has a via through one of the links.
  bool isThrough(const std::unordered_set<LinkIndex>& links) const {
    return std::ranges::any_of(vias, [&](const auto& via) { return links.contains(via.link); });
  }

  friend auto operator<=>(const RouteValue&, const RouteValue&) = default;
};

/// A value as the kernel stores it: sorted vias without repetition, and 1024 for an IPv6 metric of
/// 0. If an IPv6 via has no gateway, only the first such via, because the kernel refuses multipath
/// routes of them.
RouteValue normalized(const Prefix& prefix, RouteValue value);

/// The kernel's replacement for an IPv6 metric of 0 (IP6_RT_PRIO_USER).
inline constexpr uint32_t kDefaultMetric6 = 1024;

/// A change of the kernel's tables. AddBlackhole adds a route that drops packets. DeleteBlackhole
/// deletes any route of ours with the key.
struct RouteRequest {
  enum class Verb : uint8_t { Add, Delete, AddBlackhole, DeleteBlackhole };
  Verb verb = Verb::Add;
  RouteKey key;
  RouteValue value;  ///< for Add; the others use the metric only

  friend bool operator==(const RouteRequest&, const RouteRequest&) = default;
};

/// A request as a command of ip(8): "route add 10.0.0.5/32 dev 3 table 10 metric 20".
/// \param nameOf  the name of an interface; without it, interfaces are numbers.
std::string toString(const RouteRequest& request,
                     const std::function<std::string(LinkIndex)>& nameOf = {});

/// Carries out requests in order. An addition fails if a route of the same table, prefix and metric
/// exists. A deletion removes only a route with our protocol number.
class RouteChannel {
 public:
  /// The result of a request whose answer was lost. It may have been carried out.
  static constexpr int kUnknown = -1;

  virtual ~RouteChannel() = default;
  /// \param results  one for each request: 0, the kernel's errno, or kUnknown.
  virtual void perform(std::span<const RouteRequest> requests, std::span<int> results) = 0;
};

}  // namespace Linux
