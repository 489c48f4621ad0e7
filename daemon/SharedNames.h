// What a switch's tables in shared memory are called.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Daemon {

/// A route table in shared memory.
struct SharedRouteTable {
  std::string vrf;
  int family;  ///< 4 or 6

  friend auto operator<=>(const SharedRouteTable&, const SharedRouteTable&) = default;
};

/// True when `name` can name the tables of a switch: not empty, no "." and no "/".
bool isSharedName(std::string_view name);

/// The name to open the route tables of a VRF with: "NAME.VRF", in which the bytes of the VRF's
/// name that a table's may not have are percent-encoded.
std::string sharedRouteStatusName(std::string_view name, std::string_view vrf);

/// The route tables there are under `name`, by VRF and family.
std::vector<SharedRouteTable> sharedRouteTables(std::string_view name);

/// Removes the tables that a former owner left under `name`.
/// \throws Tovan::OpenException when an owner lives; everything is left as it was then.
void removeSharedLeftovers(std::string_view name);

}  // namespace Daemon
