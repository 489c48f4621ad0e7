// Output of one JSON object on each line.
#pragma once

#include <algorithm>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace Replay {

inline std::vector<nlohmann::json> jsonLines(const std::string& text) {
  std::vector<nlohmann::json> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
  return lines;
}

/// The routes of the dumps' route tables. They have no FEC ids, because the index of an adjacency
/// depends on the order of the events.
inline std::set<std::string> routesOf(const std::vector<nlohmann::json>& dumps) {
  std::set<std::string> routes;
  for (const auto& line : dumps) {
    const auto& dump = line.at("dump");
    for (auto route : dump.at("routeTable")) {
      route.erase("fec");
      std::sort(route["vias"].begin(), route["vias"].end());
      routes.insert(dump.at("vrf").dump() + dump.at("family").dump() + route.dump());
    }
  }
  return routes;
}

}  // namespace Replay
