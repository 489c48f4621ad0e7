// Tests of shared tables that run full during events and get room again.
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "daemon/Switch.h"
#include "platform/kiv/containers/Exception.h"
#include "platform/tovan/Reports.h"
#include "replay/Output.h"
#include "replay/Player.h"
#include "tests/kiv/SmallFiles.h"
#include "tests/replay/Dumps.h"
#include "tests/replay/Invariants.h"

namespace {

using Lines = std::vector<std::string>;

/// A switch that continues after a failed event, like the daemon.
class Engine {
 public:
  explicit Engine(const std::string& sharedName = {})
      : sw({.settles = true, .sharedName = sharedName}), player_(sw, *output_, {}) {}

  /// Returns the number of failed events.
  size_t play(const Lines& lines) {
    size_t failures = 0;
    for (const std::string& line : lines) {
      try {
        player_.apply(line);
        failures += !player_.takeFailures().empty();
      } catch (const Pindo::Exception&) {
        ++failures;
      } catch (const std::bad_alloc&) {
        ++failures;
      }
    }
    return failures;
  }

 private:
  std::ostringstream printed_;
  std::unique_ptr<Replay::Output> output_ = Replay::jsonOutput(printed_);

 public:
  Daemon::Switch sw;

 private:
  Replay::Player player_;
};

std::string neighbor(uint32_t n, bool present = true) {
  return R"({"op":"neighbor","intf":"Ethernet1","ip":"10.0.)" + std::to_string(n / 200) + "." +
         std::to_string(n % 200 + 1) + R"(","present":)" + (present ? "true}" : "false}");
}
std::string neighbor6(uint32_t n) {
  std::ostringstream text;
  text << R"({"op":"neighbor","intf":"Ethernet1","ip":"2001:db8::)" << std::hex << n + 1 << "\"}";
  return text.str();
}

const Lines kSubnets = {
    R"({"op":"intf","name":"Ethernet1"})",
    R"({"op":"addr","intf":"Ethernet1","addr":"10.0.255.254/16"})",
    R"({"op":"initialized","value":true})",
    R"({"op":"ribReady","value":true})",
    R"({"op":"fec","id":1,"family":4,"vias":[{"intf":"Ethernet1"}]})",
    R"({"op":"fec","id":2,"family":6,"vias":[{"intf":"Ethernet1"}]})",
    R"({"op":"route","prefix":"10.0.0.0/16","fec":1})",
    R"({"op":"route","prefix":"2001:db8::/64","fec":2})",
};

class ExhaustionTest : public testing::Test {
 protected:
  const std::string name = "exhaustion-test-" + std::to_string(::getpid());
};

TEST_F(ExhaustionTest, ASwitchRecoversAllRoutesAfterTheTablesGetRoom) {
  constexpr uint32_t kNeighbors = 1500;
  constexpr rlim_t kBytes = 4198400 + (60 << 10);
  Lines inputs = kSubnets;
  for (uint32_t n = 0; n < kNeighbors; ++n) {
    inputs.push_back(neighbor(n));
    if (n % 4 == 0) inputs.push_back(neighbor6(n));
  }
  for (uint32_t n = 0; n < 40; ++n) {
    inputs.push_back(R"({"op":"route","prefix":"10.1.)" + std::to_string(n) + R"(.0/24","fec":1})");
  }
  Lines departures;
  for (uint32_t n = 0; n < kNeighbors; n += 3) departures.push_back(neighbor(n, false));
  Lines left;
  for (const std::string& line : inputs) {
    const std::string gone = line.substr(0, line.find(R"(,"present")"));
    const bool leaves = std::any_of(departures.begin(), departures.end(), [&](const auto& other) {
      return other.starts_with(gone + ",\"present\"");
    });
    if (!leaves) left.push_back(line);
  }

  Engine whole;
  EXPECT_EQ(whole.play(inputs), 0U);
  Engine full(name);
  const uint64_t refusals = Tovan::refusalCount();
  {
    const Sample::SmallFiles memory(kBytes);
    EXPECT_GT(full.play(inputs), kNeighbors / 10);
    EXPECT_GT(Tovan::refusalCount(), refusals);
    EXPECT_FALSE(full.sw.tendTables());
    full.play(departures);
  }
  const auto reports = Tovan::tableReports();
  EXPECT_TRUE(std::any_of(reports.begin(), reports.end(), [&](const auto& report) {
    return report.table.starts_with(name + ".") && report.refusals != 0 && report.bytes > 20 << 10;
  }));
  whole.play(departures);
  EXPECT_NE(routesOf(full.sw), routesOf(whole.sw));

  EXPECT_TRUE(full.sw.tendTables());
  EXPECT_EQ(full.play(left), 0U);
  full.sw.redo();
  EXPECT_EQ(routesOf(full.sw), routesOf(whole.sw));
  checkInvariants(full.sw);
}

}  // namespace
