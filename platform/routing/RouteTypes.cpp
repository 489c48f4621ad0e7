#include "platform/routing/RouteTypes.h"

#include <algorithm>
#include <array>

namespace Routing {
namespace {

/// The enumerators' names. The index is the value.
template <class RouteType>
constexpr auto kNames = nullptr;
template <>
constexpr auto kNames<Fib::RouteType> = std::to_array<std::string_view>(
    {"invalid_",      "receive_",       "receiveBcast_",  "attached_",      "staticConfig_",
     "vcs_",          "kernel_",        "rip_",           "connected_",     "redirect_",
     "bgpAggregate_", "ospfAggregate_", "ospfIntraArea_", "ospfInterArea_", "ospfAseE1_",
     "ospfAseE2_",    "ospfNssaE1_",    "ospfNssaE2_",    "ibgp_",          "ebgp_",
     "isisL1_",       "isisL2_",        "nexthopGroup_",  "unknown_"});
template <>
constexpr auto kNames<Routing6::Fib::RouteType> = std::to_array<std::string_view>(
    {"invalid_", "receive_", "attached_", "staticConfig_", "kernel_", "rip_", "connected_",
     "redirect_", "bgpAggregate_", "ospfAggregate_", "ospf_", "bgp_", "isisL1_", "isisL2_",
     "nexthopGroup_", "unknown_"});

static_assert(kNames<Fib::RouteType>.size() == Fib::unknown_ + 1);
static_assert(kNames<Routing6::Fib::RouteType>.size() == Routing6::Fib::unknown_ + 1);

}  // namespace

template <class RouteType>
std::string_view routeTypeName(RouteType type) {
  const auto& names = kNames<RouteType>;
  return type < names.size() ? names[type] : names.back();
}

template <class RouteType>
std::optional<RouteType> parseRouteType(std::string_view name) {
  const auto& names = kNames<RouteType>;
  const auto at = std::find(names.begin(), names.end(), name);
  if (at == names.end()) return std::nullopt;
  return static_cast<RouteType>(at - names.begin());
}

template std::string_view routeTypeName(Fib::RouteType);
template std::string_view routeTypeName(Routing6::Fib::RouteType);
template std::optional<Fib::RouteType> parseRouteType(std::string_view);
template std::optional<Routing6::Fib::RouteType> parseRouteType(std::string_view);

}  // namespace Routing

std::ostream& Routing::Fib::operator<<(std::ostream& os, RouteType type) {
  return os << routeTypeName(type);
}
std::ostream& Routing6::Fib::operator<<(std::ostream& os, RouteType type) {
  return os << Routing::routeTypeName(type);
}
