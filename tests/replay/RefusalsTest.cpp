// Tests that a line that is not a valid event gives a clear error and changes nothing.
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "daemon/Switch.h"
#include "replay/Output.h"
#include "replay/Player.h"
#include "tests/Files.h"

namespace {

class RefusalsTest : public testing::Test {
 protected:
  Replay::Player::Outcome run(const std::string& input) {
    std::istringstream lines(input);
    return player.run(lines, "input", printed, errors);
  }

  std::ostringstream printed;
  std::ostringstream errors;
  std::unique_ptr<Replay::Output> output = Replay::jsonOutput(printed);
  Daemon::Switch sw;
  Replay::Player player{sw, *output, {.dumpsAtEnd = false}};
};

TEST_F(RefusalsTest, ErrorsNameTheLineTheFieldAndTheValue) {
  std::istringstream refusals(contents(REPLAY_CASES "/../refusals.txt"));
  std::string line, message;
  std::getline(refusals, line);  // the title
  size_t count = 0;
  for (; std::getline(refusals, line) && std::getline(refusals, message); ++count) {
    errors.str("");
    EXPECT_EQ(run("\n# remark\r\n" + line), Replay::Player::Outcome::Refused) << line;
    EXPECT_EQ(errors.str(), "input:3: error: " + message + "\n");
  }
  EXPECT_GT(count, 30U);
  errors.str("");
  const std::string name(L3::VrfName::kMaxBytes + 1, 'v');
  run(R"({"op":"vrf","name":")" + name + "\"}");
  EXPECT_NE(errors.str().find("is not a VRF name: it is over 100 bytes"), std::string::npos);
  EXPECT_EQ(sw.vrfs().size(), 1u);
}

// Parsing and printing nested values is recursive and needs stack.
TEST_F(RefusalsTest, LinesThatAreTooLongOrTooDeeplyNestedAreRefused) {
  for (const size_t levels : {size_t{63}, size_t{64}, size_t{100'000}}) {
    errors.str("");
    EXPECT_EQ(run("{\"op\":\"fec\",\"id\":1,\"family\":4,\"vias\":" + std::string(levels, '[') +
                  std::string(levels, ']') + "}"),
              Replay::Player::Outcome::Refused);
    const bool isTooDeep = errors.str() == "input:1: error: nested deeper than 64 levels\n";
    EXPECT_EQ(isTooDeep, levels > 63) << errors.str();
  }
  errors.str("");
  const auto longest = "#" + std::string(Replay::Player::kMaxLineBytes - 1, '[');
  EXPECT_EQ(run(longest + "\n\n" + longest + "x\n{}"), Replay::Player::Outcome::Refused);
  EXPECT_EQ(errors.str(), "input:3: error: the line is longer than 16 MiB\n");
}

TEST_F(RefusalsTest, TheReplayEndsAndKeepsEarlierOutput) {
  const auto outcome =
      run("{\"op\":\"dump\",\"family\":4}\n"
          "{\"op\": \"dump\", }\n"
          "{\"op\":\"dump\",\"family\":4}\n");
  EXPECT_EQ(outcome, Replay::Player::Outcome::Refused);
  EXPECT_EQ(errors.str().substr(0, 25), "input:2: error: not JSON:") << errors.str();
  const auto text = printed.str();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

/// A FEC with more vias than a machine can count. A machine that reads it throws.
std::string unusableFec() {
  std::string vias;
  for (int i = 0; i < 129; ++i) {
    vias += std::string(i == 0 ? "" : ",") + R"({"intf":"e)" + std::to_string(i) + "\"}";
  }
  return "{\"op\":\"fec\",\"id\":1,\"family\":4,\"vias\":[" + vias + "]}\n";
}

constexpr const char* kInitialized = "{\"op\":\"initialized\",\"value\":true}\n";
constexpr const char* kNeighbor = "{\"op\":\"neighbor\",\"intf\":\"e0\",\"ip\":\"10.0.0.5\"}\n";
constexpr const char* kRoute = "{\"op\":\"route\",\"prefix\":\"10.0.0.0/24\",\"fec\":1}\n";
constexpr const char* kRange = "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed\n";

// Like the daemon, the replay continues.
TEST_F(RefusalsTest, TheReplayContinuesAfterAMachineFailed) {
  const auto outcome = run(kInitialized + std::string(kNeighbor) + unusableFec() + kRoute +
                           "{\"op\":\"dump\",\"family\":4}\n");
  EXPECT_EQ(outcome, Replay::Player::Outcome::Failed);
  EXPECT_EQ(errors.str(), std::string("input:4: error: ") + kRange);
  EXPECT_NE(printed.str().find("\"arpTable\":[]"), std::string::npos);
}

TEST_F(RefusalsTest, AFailureOfOneFamilyDoesNotAffectTheOther) {
  const auto outcome = run(unusableFec() + kNeighbor + kRoute +
                           R"({"op":"fec","id":1,"family":6,"vias":[{"intf":"e0"}]}
{"op":"neighbor","intf":"e0","ip":"2001:db8::5"}
{"op":"route","prefix":"2001:db8::/64","fec":1}
)" + kInitialized + "{\"op\":\"dump\",\"family\":6}\n");
  EXPECT_EQ(outcome, Replay::Player::Outcome::Failed);
  EXPECT_NE(printed.str().find("\"prefix\":\"2001:db8::5/128\""), std::string::npos)
      << printed.str();
}

// The runtime catches an exception of a callback. The replay must still report the failure.
TEST_F(RefusalsTest, AFailureInACallbackIsReported) {
  std::string input = kInitialized + unusableFec() + kRoute;
  for (int i = 0; i < 12; ++i) {
    input +=
        "{\"op\":\"neighbor\",\"intf\":\"e0\",\"ip\":\"10.0.0." + std::to_string(i + 5) + "\"}\n";
  }
  EXPECT_EQ(run(input), Replay::Player::Outcome::Failed);
  const auto text = errors.str();
  EXPECT_TRUE(text.starts_with("input:4: error: VRF default: exception in the notification of "))
      << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 11) << text;
  EXPECT_TRUE(text.ends_with("input: error: a machine failed on 2 more lines, the last is 15\n"))
      << text;
  EXPECT_EQ(printed.str(), "");  // no trace level is enabled
}

}  // namespace
