// The kernel's routing policy rules (ip-rule(8)).
#pragma once

#include <cstdint>
#include <vector>

#include "linux/Values.h"

namespace Linux {

/// A rule that sends packets to a table (RTM_NEWRULE).
struct Rule {
  int family = 4;
  uint32_t priority = 0;    ///< the lowest is tried first
  TableId table = 0;        ///< 0 for the table of the packet's VRF
  bool isForVrfs = false;   ///< for packets of VRFs only (FRA_L3MDEV)
  bool isForAll = true;     ///< for all packets, or all of VRFs
  bool skipsShort = false;  ///< ignores some routes (FRA_SUPPRESS_PREFIXLEN, ..._IFGROUP)

  friend bool operator==(const Rule&, const Rule&) = default;
};

/// The rules with a table of both families, sorted by family and priority.
/// \throws NetlinkError
std::vector<Rule> dumpRules();

}  // namespace Linux
