// The types of FIB routes: the sources of routes.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string_view>

namespace Routing::Fib {

/// The source of an IPv4 route in the FIB.
enum RouteType : uint32_t {
  invalid_ = 0,
  receive_ = 1,
  receiveBcast_ = 2,
  attached_ = 3,
  staticConfig_ = 4,
  vcs_ = 5,
  kernel_ = 6,
  rip_ = 7,
  connected_ = 8,
  redirect_ = 9,
  bgpAggregate_ = 10,
  ospfAggregate_ = 11,
  ospfIntraArea_ = 12,
  ospfInterArea_ = 13,
  ospfAseE1_ = 14,
  ospfAseE2_ = 15,
  ospfNssaE1_ = 16,
  ospfNssaE2_ = 17,
  ibgp_ = 18,
  ebgp_ = 19,
  isisL1_ = 20,
  isisL2_ = 21,
  nexthopGroup_ = 22,
  unknown_ = 23,
};

/// Prints the enumerator's name, such as "attached_"; a number that is no type as "unknown_".
std::ostream& operator<<(std::ostream& os, RouteType type);

}  // namespace Routing::Fib

namespace Routing6::Fib {

/// The source of an IPv6 route in the FIB.
enum RouteType : uint32_t {
  invalid_ = 0,
  receive_ = 1,
  attached_ = 2,
  staticConfig_ = 3,
  kernel_ = 4,
  rip_ = 5,
  connected_ = 6,
  redirect_ = 7,
  bgpAggregate_ = 8,
  ospfAggregate_ = 9,
  ospf_ = 10,
  bgp_ = 11,
  isisL1_ = 12,
  isisL2_ = 13,
  nexthopGroup_ = 14,
  unknown_ = 15,
};

/// Prints the enumerator's name, such as "attached_"; a number that is no type as "unknown_".
std::ostream& operator<<(std::ostream& os, RouteType type);

}  // namespace Routing6::Fib

namespace Routing {

/// The enumerator's name; "unknown_" for a number that is no type.
template <class RouteType>
std::string_view routeTypeName(RouteType type);
/// The type whose enumerator is called `name`, such as "attached_".
template <class RouteType>
std::optional<RouteType> parseRouteType(std::string_view name);

}  // namespace Routing
