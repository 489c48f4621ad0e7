// All counters, for users and for monitoring systems.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "hostrouted/Router.h"

namespace Hostrouted {

/// All numbers of the switch's VRFs, the kernel side and the loop, as a list of objects:
///
///     {"name":"hostroute_probes","type":"counter","help":"...",
///      "samples":[{"labels":{},"value":3}]}
///
/// A name occurs once, with a sample for each set of labels. Histograms have "buckets" with "le" in
/// seconds, "count", "sum", "max" and "quantiles" instead of "samples".
nlohmann::ordered_json metrics(const Router& router);

}  // namespace Hostrouted
