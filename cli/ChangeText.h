// The text of a change of a host route.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace Cli {

/// A change in the form of Replay::toJson() as one line: "2026-05-04 12:00:00.123  default
/// 10.0.0.5/32  attached_ through p1  (neighbour learned on p1)".
std::string changeLine(const nlohmann::ordered_json& change);

}  // namespace Cli
