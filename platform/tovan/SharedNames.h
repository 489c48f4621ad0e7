// What the route tables of a switch in shared memory are called.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Tovan {

/// A route table in shared memory.
struct SharedRouteTable {
  std::string vrf;
  int family;  ///< 4 or 6

  friend auto operator<=>(const SharedRouteTable&, const SharedRouteTable&) = default;
};

/// The name to open the route tables of a VRF with: "NAME.VRF", in which the bytes of the VRF's
/// name that a table's may not have are percent-encoded.
std::string sharedRouteStatusName(std::string_view name, std::string_view vrf);

/// The route tables there are under `name`, by VRF and family.
/// \throws OpenException when there is no folder of shared tables.
std::vector<SharedRouteTable> sharedRouteTables(std::string_view name);
/// The names under which there are route tables, in ascending order. Tables that a process left
/// behind count, too. \throws OpenException when there is no folder of shared tables.
std::vector<std::string> sharedRouteTableNames();

}  // namespace Tovan
