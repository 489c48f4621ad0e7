// The state of a switch in a comparable form.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "daemon/Switch.h"
#include "replay/Output.h"
#include "replay/ShownRoute.h"
#include "tests/model/Model.h"

/// The dumps of all VRFs.
inline std::vector<std::string> exactDumps(const Daemon::Switch& sw) {
  std::vector<std::string> dumps;
  for (const auto& entry : sw.vrfs()) {
    Daemon::forEachFamily([&](auto family) {
      dumps.push_back(Replay::dumpJson<decltype(family)>(sw, entry.second));
    });
  }
  return dumps;
}

/// The same without the details that may differ between equal states.
inline std::vector<nlohmann::json> canonicalDumps(const Daemon::Switch& sw) {
  std::vector<nlohmann::json> dumps;
  for (const auto& dump : exactDumps(sw)) {
    dumps.push_back(Golden::canonical(nlohmann::json::parse(dump)));
  }
  return dumps;
}

inline std::vector<nlohmann::json> canonicalDumps(const Golden::Model& model) {
  auto dumps = model.dumps();
  for (auto& dump : dumps) dump = Golden::canonical(dump);
  return dumps;
}

/// The routes in the route tables of all VRFs, with their next hops.
inline std::string routesOf(const Daemon::Switch& sw) {
  std::string text;
  for (const auto& entry : sw.vrfs()) {
    Daemon::forEachFamily([&](auto family) {
      using F = decltype(family);
      for (auto shown :
           Replay::shownRoutes<F>(*entry.second.template routing<F>().routeStatus,
                                  *sw.shared<F>().forwarding, [](const auto&) { return true; })) {
        // An adjacency's number depends on earlier adjacencies, so it is not compared.
        if (shown.route.fecId >= F::ForwardingStatus::kFirstAdjacency) shown.route.fecId = 0;
        text += Replay::routeJson<F>(shown).text() + "\n";
      }
    });
  }
  return text;
}

/// The differing members of two lists of dumps, one on each line.
inline std::string difference(const std::vector<nlohmann::json>& ours, const char* ourName,
                              const std::vector<nlohmann::json>& theirs, const char* theirName) {
  if (ours.size() != theirs.size()) return "the number of dumps";
  std::string text;
  for (size_t i = 0; i < ours.size(); ++i) {
    const auto& dump = ours[i].at("dump");
    const auto& other = theirs[i].at("dump");
    for (const auto& [name, value] : dump.items()) {
      if (!other.contains(name) || other.at(name) != value) {
        text += dump.at("vrf").dump() + " IPv" + dump.at("family").dump() + " " + name + "\n  " +
                ourName + " " + value.dump() + "\n  " + theirName + " " +
                other.value(name, nlohmann::json()).dump() + "\n";
      }
    }
  }
  return text;
}
