// Recorded scenarios: the output of each cases/NAME.jsonl must be exactly cases/NAME.expected.
#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "daemon/Switch.h"
#include "replay/Output.h"
#include "replay/Player.h"
#include "tests/Files.h"
#include "tests/replay/Invariants.h"

namespace {

std::vector<std::filesystem::path> cases() {
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::directory_iterator(REPLAY_CASES)) {
    if (entry.path().extension() == ".jsonl") paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

/// True when the first line of a case has the option --settle.
bool settles(const std::string& input) {
  return input.substr(0, input.find('\n')).find("--settle") != input.npos;
}

class ScenariosTest : public testing::TestWithParam<std::filesystem::path> {};

// The first line of a case describes it and has the options for the run.
TEST_P(ScenariosTest, PrintsTheExpectedOutput) {
  const auto input = contents(GetParam());
  const auto firstLine = input.substr(0, input.find('\n'));
  const auto traceAt = firstLine.find("--trace ");
  const auto levels = traceAt == firstLine.npos ? 0U : 1U << (firstLine.at(traceAt + 8) - '0');
  std::ostringstream printed;
  const auto output = firstLine.find("--text") == firstLine.npos ? Replay::jsonOutput(printed)
                                                                 : Replay::textOutput(printed);
  const Replay::Tracing tracing(*output, levels);
  Daemon::Switch sw({.settles = settles(input)});
  Replay::Player player(
      sw, *output, {.echoes = firstLine.find("--echo") != firstLine.npos, .dumpsAtEnd = false});

  std::istringstream lines(input);
  const auto outcome = player.run(lines, GetParam().filename(), printed, printed);
  EXPECT_EQ(outcome, Replay::Player::Outcome::Done);
  EXPECT_EQ(printed.str(),
            contents(std::filesystem::path(GetParam()).replace_extension("expected")));
}

TEST_P(ScenariosTest, KeepsTheInvariantsAfterEachEvent) {
  const auto input = contents(GetParam());
  std::ostream nowhere(nullptr);
  const auto output = Replay::jsonOutput(nowhere);
  Daemon::Switch sw({.settles = settles(input)});
  Replay::Player player(sw, *output, {.dumpsAtEnd = false});
  std::istringstream lines(input);
  for (std::string line; std::getline(lines, line);) {
    SCOPED_TRACE(line);
    std::istringstream one(line);
    EXPECT_EQ(player.run(one, GetParam().filename(), nowhere, nowhere),
              Replay::Player::Outcome::Done);
    checkInvariants(sw);
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, ScenariosTest, testing::ValuesIn(cases()), [](const auto& named) {
  auto name = named.param.stem().string();
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
});

}  // namespace
