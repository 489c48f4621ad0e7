// The kernel's routing policy rules (ip-rule(8)).
#pragma once

#include <cstdint>
#include <vector>

#include "linux/Values.h"

namespace Linux {

/// A rule that sends packets to a table (RTM_NEWRULE).
struct Rule {
  int family = 4;
  uint32_t priority = 0;    ///< the lowest comes first
  TableId table = 0;        ///< 0 where the packet's VRF says which
  bool isForVrfs = false;   ///< for packets of VRFs only (FRA_L3MDEV)
  bool isForAll = true;     ///< for all packets, or all of VRFs
  bool skipsShort = false;  ///< some routes do not count (FRA_SUPPRESS_PREFIXLEN, ..._IFGROUP)

  friend bool operator==(const Rule&, const Rule&) = default;
};

/// The rules of both families, by family and priority; those that lead to no table are left out.
/// \throws NetlinkError
std::vector<Rule> dumpRules();

}  // namespace Linux
