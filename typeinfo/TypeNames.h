// The names of the types that the plug-in provides.
#pragma once

#include <array>
#include <string_view>

namespace Reflection {

inline constexpr std::string_view kRouteSm = "Routing::Host::RouteSm";
inline constexpr std::string_view kIntfAddresses = "Routing::Host::IntfAddresses";
inline constexpr std::string_view kPrefixList = "Routing::Host::PrefixList";
inline constexpr std::string_view kRouteSmRoot = "Routing::Host::RouteSmRoot";
inline constexpr std::string_view kRouteSm6 = "Routing6::Host::RouteSm";
inline constexpr std::string_view kIntfAddresses6 = "Routing6::Host::IntfAddresses";
inline constexpr std::string_view kPrefixList6 = "Routing6::Host::PrefixList";
inline constexpr std::string_view kRouteSmRoot6 = "Routing6::Host::RouteSmRoot";

/// All names in the order of registration.
inline constexpr std::array kTypeNames = {kRouteSm,  kIntfAddresses,  kPrefixList,  kRouteSmRoot,
                                          kRouteSm6, kIntfAddresses6, kPrefixList6, kRouteSmRoot6};

}  // namespace Reflection
