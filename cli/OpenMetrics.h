// The daemon's counters as text for monitoring systems.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace Cli {

/// The metrics of a reply to "counters" in the OpenMetrics text format 1.0.0.
std::string openMetrics(const nlohmann::ordered_json& metrics);

}  // namespace Cli
