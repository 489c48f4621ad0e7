// Changes of host routes as lines for people.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace Cli {

/// A change of Replay::toJson(): "2026-05-04 12:00:00.123  default  10.0.0.5/32  attached_ via p1
/// (neighbour learned on p1)", on one line.
std::string changeLine(const nlohmann::ordered_json& change);

}  // namespace Cli
