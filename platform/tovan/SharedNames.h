// The names of a switch's route tables in shared memory.
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

/// The name of the route tables of a VRF: "NAME.VRF". Characters that the name of a table must not
/// contain are percent-encoded in the name of the VRF.
std::string sharedRouteStatusName(std::string_view name, std::string_view vrf);

/// The route tables that exist under `name`, by VRF and family.
/// \throws OpenException when there is no folder of shared tables.
std::vector<SharedRouteTable> sharedRouteTables(std::string_view name);
/// The names under which there are route tables, in ascending order. Tables that a process left
/// behind count, too. \throws OpenException when there is no folder of shared tables.
std::vector<std::string> sharedRouteTableNames();

}  // namespace Tovan
