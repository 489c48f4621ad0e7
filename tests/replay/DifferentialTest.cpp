// Compares the engine with the golden model after every event of random replays.
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "daemon/Switch.h"
#include "hostcore/fast/State.h"
#include "replay/Output.h"
#include "replay/Player.h"
#include "tests/model/Generator.h"
#include "tests/model/Model.h"
#include "tests/replay/Dumps.h"
#include "tests/replay/Invariants.h"
#include "tests/replay/Seeds.h"

namespace {

/// The number of quiet reactors of neighbour tables, plus the number of machines that lack some
/// reactors. Reading the reactors would make the missing ones.
size_t quietReactors(const Daemon::Switch& sw, bool looks) {
  size_t quiet = 0;
  for (const auto& entry : sw.vrfs()) {
    Daemon::forEachFamily([&](auto family) {
      const auto* machine = entry.second.template routing<decltype(family)>().machine();
      if (machine == nullptr) return;
      if (!looks) {
        quiet += machine->fast().index != nullptr ? 1 : 0;
        return;
      }
      for (auto it = machine->arpIntfStatusIteratorConst(); it; ++it)
        quiet += it.value()->isQuiet();
    });
  }
  return quiet;
}

class DifferentialTest : public testing::TestWithParam<std::tuple<uint64_t, bool, std::string>> {};

// To print the same events: `model --generate SEED COUNT [crowded|apart]`.
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
    if (engineDumps != modelDumps)
      FAIL() << difference(engineDumps, "engine", modelDumps, "model ");
    checkInvariants(sw);
    quiet += quietReactors(sw, seed % 2 == 0);
  }
  // Without quiet reactors the comparison would not test whether a reactor may be quiet.
  if (universe == "apart") {
    EXPECT_GT(quiet, 3 * events);
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, DifferentialTest,
                         testing::Combine(Replay::seeds(4), testing::Bool(),
                                          testing::Values("small", "crowded", "apart")));

}  // namespace
