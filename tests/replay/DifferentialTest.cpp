// The engine against the golden model: random replays, compared after every event.
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "daemon/Switch.h"
#include "replay/Output.h"
#include "replay/Player.h"
#include "tests/model/Generator.h"
#include "tests/model/Model.h"
#include "tests/replay/Invariants.h"

namespace {

std::vector<nlohmann::json> canonicalDumps(const Daemon::Switch& sw) {
  std::vector<nlohmann::json> dumps;
  for (const auto& entry : sw.vrfs()) {
    Daemon::forEachFamily([&](auto family) {
      const auto dump = Replay::dumpJson<decltype(family)>(sw, entry.second);
      dumps.push_back(Golden::canonical(nlohmann::json::parse(dump)));
    });
  }
  return dumps;
}

std::vector<nlohmann::json> canonicalDumps(const Golden::Model& model) {
  auto dumps = model.dumps();
  for (auto& dump : dumps) dump = Golden::canonical(dump);
  return dumps;
}

/// The members in which two lists of dumps differ, one on a line.
std::string difference(const std::vector<nlohmann::json>& engine,
                       const std::vector<nlohmann::json>& model) {
  if (engine.size() != model.size()) return "the number of dumps";
  std::string text;
  for (size_t i = 0; i < engine.size(); ++i) {
    const auto& ours = engine[i].at("dump");
    const auto& theirs = model[i].at("dump");
    for (const auto& [name, value] : ours.items()) {
      if (!theirs.contains(name) || theirs.at(name) != value) {
        text += ours.at("vrf").dump() + " IPv" + ours.at("family").dump() + " " + name +
                "\n  engine " + value.dump() + "\n  model  " +
                theirs.value(name, nlohmann::json()).dump() + "\n";
      }
    }
  }
  return text;
}

/// How many reactors of neighbour tables are quiet.
size_t quietReactors(const Daemon::Switch& sw) {
  size_t quiet = 0;
  for (const auto& entry : sw.vrfs()) {
    Daemon::forEachFamily([&](auto family) {
      const auto* machine = entry.second.template routing<decltype(family)>().machine();
      if (machine == nullptr) return;
      for (auto it = machine->arpIntfStatusIteratorConst(); it; ++it)
        quiet += it.value()->isQuiet();
    });
  }
  return quiet;
}

class DifferentialTest : public testing::TestWithParam<std::tuple<uint64_t, bool, std::string>> {};

// The same events are made by `model --generate SEED COUNT [crowded|apart]`.
TEST_P(DifferentialTest, EngineAndModelAgreeAfterEveryEvent) {
  const auto& [seed, settles, universe] = GetParam();
  const size_t events = universe == "crowded" ? 700 : 1000;
  std::ostream nowhere(nullptr);
  const auto output = Replay::jsonOutput(nowhere);
  Daemon::Switch sw({.settles = settles});
  Replay::Player player(sw, *output, {});
  Golden::Model model(settles);
  Golden::Generator generator(seed, Golden::weightsOf(universe));
  size_t quiet = 0;
  for (size_t number = 1; number <= events && !HasFailure(); ++number) {
    const auto event = generator.next();
    SCOPED_TRACE("event " + std::to_string(number) + " " + event.dump());
    player.apply(event.dump());
    model.apply(event);
    const auto engineDumps = canonicalDumps(sw);
    const auto modelDumps = canonicalDumps(model);
    if (engineDumps != modelDumps) FAIL() << difference(engineDumps, modelDumps);
    checkInvariants(sw);
    quiet += quietReactors(sw);
  }
  // Else the events would not show whether what is quiet may be.
  if (universe == "apart") {
    EXPECT_GT(quiet, 3 * events);
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, DifferentialTest,
                         testing::Combine(testing::Range<uint64_t>(1, 5), testing::Bool(),
                                          testing::Values("small", "crowded", "apart")));

}  // namespace
