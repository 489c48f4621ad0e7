// Tests of the control protocol without a socket: replies and permissions.
#include "hostrouted/Control.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include "daemon/Switch.h"
#include "hostrouted/Listings.h"
#include "replay/Output.h"
#include "replay/Player.h"
#include "tests/Files.h"
#include "tests/Paths.h"
#include "tests/hostrouted/RouterWorld.h"
#include "tests/kiv/SmallFiles.h"
#include "tests/replay/JsonLines.h"
#include "tests/tovan/Damage.h"

namespace Hostrouted {
namespace {

using nlohmann::json;

constexpr Peer kReader{};
constexpr Peer kAdmin{.isRoot = false, .mayChange = true};
constexpr Peer kRoot{.isRoot = true, .mayChange = true};

class ControlTest : public testing::Test {
 protected:
  Reply handle(const std::string& fields, const Peer& peer = kReader) {
    return world.control.handle(R"({"version":1,"request":)" + fields + "}", peer);
  }
  /// The first line of the reply.
  json ask(const std::string& fields, const Peer& peer = kReader) {
    return json::parse(handle(fields, peer).text);
  }
  /// The lines after it.
  std::vector<json> list(const std::string& fields) {
    const auto reply = handle(fields);
    EXPECT_EQ(json::parse(reply.text)["ok"], true) << reply.text;
    std::ostringstream text;
    if (reply.bulk) reply.bulk(text);
    return Replay::jsonLines(text.str());
  }
  static std::vector<json> taken(Feedline& feed) {
    std::string text;
    feed.take(text);
    return Replay::jsonLines(text);
  }

  RouterWorld world;
};

TEST_F(ControlTest, AnInvalidRequestIsRefusedWithTheReason) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "not JSON"},
      {"[1]", "not a JSON object"},
      {R"({"request":"status"})", "\"version\" is missing"},
      {R"({"version":2,"request":"status"})", "speaks version 1"},
      {R"({"version":1})", "there is no request"},
      {R"({"version":1,"request":7})", "\"request\" is not a text"},
      {R"({"version":1,"request":"status","vrf":"blue"})", "no field \"vrf\""},
      {R"({"version":1,"request":"routes","vrf":"blue"})", "no VRF \"blue\""},
      {R"({"version":1,"request":"routes","family":5})", "\"family\" is not 4 or 6"},
      {R"({"version":1,"request":"routes","prefix":"10.0.0.1/24x"})", "\"prefix\" is not"},
      {R"({"version":1,"request":"explain"})", "\"address\" is missing"},
      {R"({"version":1,"request":"names","kind":"macs"})", "\"kind\" is not"},
  };
  for (const auto& [line, why] : cases) {
    const auto reply = json::parse(world.control.handle(line, kRoot).text);
    EXPECT_EQ(reply["ok"], false) << line;
    EXPECT_NE(reply["error"].get<std::string>().find(why), std::string::npos) << reply;
  }
  const std::string deep(100, '[');
  EXPECT_EQ(json::parse(world.control.handle(deep, kRoot).text)["ok"], false);
}

TEST_F(ControlTest, OnlyPermittedUsersChangeTheDaemon) {
  for (const char* fields : {R"("resync")", R"("reload")", R"("log-level","level":"debug")",
                             R"("trace","address":"10.0.1.5")", R"("record","action":"stop")"}) {
    const auto refused = ask(fields);
    EXPECT_EQ(refused["ok"], false) << fields;
    EXPECT_NE(refused["error"].get<std::string>().find("only root"), std::string::npos) << refused;
  }
  EXPECT_EQ(world.resynchronisations, 0);
  EXPECT_EQ(ask(R"("resync")", kAdmin)["ok"], true);
  EXPECT_EQ(world.resynchronisations, 1);
  world.reloadError = "f.toml:3: no such key";
  EXPECT_EQ(ask(R"("reload")", kAdmin)["error"], world.reloadError);
  // A query of the level is no change.
  EXPECT_EQ(ask(R"("log-level")")["level"], "info");
  EXPECT_EQ(ask(R"("log-level","level":"debug")", kAdmin)["level"], "debug");
  EXPECT_EQ(world.log.level(), LOG_DEBUG);
}

TEST_F(ControlTest, StatusShowsReadinessAndProblems) {
  world.kernel.refused = "10.0.1.6/32";
  world.learn("10.0.1.5", 1);
  world.learn("10.0.1.6", 1);
  auto status = ask(R"("status")")["status"];
  EXPECT_EQ(status["phase"], "ready");
  EXPECT_EQ(status["routes"], 1);
  ASSERT_EQ(status["problems"].size(), 1U) << status;
  EXPECT_EQ(status["problems"][0]["prefix"], "10.0.1.6/32");
  EXPECT_EQ(status["problems"][0]["reason"], "Network is down");
  world.router.beginDump();
  status = ask(R"("status")")["status"];
  EXPECT_EQ(status["ready"], false);
  EXPECT_EQ(status["warnings"].size(), 1U);
}

TEST_F(ControlTest, CountersCountEvents) {
  world.kernel.refused = "10.0.1.6/32";
  world.learn("10.0.1.5", 1);
  world.learn("10.0.1.6", 1);
  world.learn("10.0.3.5", 3);
  const auto metrics = ask(R"("counters")")["metrics"];
  const auto value = [&](const std::string& name, const json& labels) {
    for (const auto& family : metrics) {
      if (family["name"] != "hostroute_" + name) continue;
      EXPECT_FALSE(family["help"].get<std::string>().empty());
      for (const auto& sample : family["samples"]) {
        if (sample["labels"] == labels) return sample["value"].get<int>();
      }
    }
    return -1;
  };
  EXPECT_EQ(value("kernel_routes_added", json::object()), 1);
  EXPECT_EQ(value("kernel_routes", json::object()), 1);
  EXPECT_EQ(value("kernel_routes_refused", json::object()), 1);
  EXPECT_GE(value("kernel_refusals", {{"errno", "ENETDOWN"}}), 1);
  EXPECT_EQ(value("neighbors", {{"verdict", "fed"}}), 2);
  EXPECT_EQ(value("neighbors", {{"verdict", "interface not selected"}}), 1);
  EXPECT_EQ(value("ready", json::object()), 1);

  const std::string manual = contents(sourcePath("cli/hostroute.1"));
  for (const auto& family : metrics) {
    const auto name = family["name"].get<std::string>().substr(std::strlen("hostroute_"));
    EXPECT_NE(manual.find("\n.B " + name), std::string::npos) << name << " is not in the manual";
  }
}

TEST_F(ControlTest, RoutesAndNeighborsAreListedWithTheirStateInTheKernel) {
  world.kernel.refused = "10.0.1.6/32";
  world.learn("10.0.1.5", 1);
  world.learn("10.0.1.6", 1);
  world.learn("10.0.2.7", 1);  // of the other port's subnet
  world.learn("10.0.3.8", 3);  // on a port that is not selected
  const auto routes = list(R"("routes","type":"attached_")");
  ASSERT_EQ(routes.size(), 2U);
  EXPECT_EQ(routes[0]["route"]["prefix"], "10.0.1.5/32");
  EXPECT_EQ(routes[0]["route"]["kernel"], "installed");
  EXPECT_EQ(routes[0]["route"]["vias"][0]["intf"], "p1");
  EXPECT_EQ(routes[1]["route"]["kernel"], "Network is down");

  const auto covering = list(R"("routes","prefix":"10.0.1.5")");
  ASSERT_EQ(covering.size(), 2U);
  EXPECT_EQ(covering[1]["route"]["prefix"], "10.0.1.0/24");

  std::map<std::string, std::string> verdicts;
  for (const auto& line : list(R"("neighbors")")) {
    const auto& row = line["neighbor"];
    verdicts[row["address"]] =
        row["verdict"].get<std::string>() + (row["route"] == true ? ", routed" : "");
  }
  EXPECT_EQ(verdicts, (std::map<std::string, std::string>{{"10.0.1.5", "fed, routed"},
                                                          {"10.0.1.6", "fed, routed"},
                                                          {"10.0.2.7", "fed"},
                                                          {"10.0.3.8", "interface not selected"}}));
  EXPECT_EQ(list(R"("names","kind":"interfaces","begin":"p")").size(), 2U);
  EXPECT_EQ(list(R"("dump","family":4)").size(), 1U);
}

TEST_F(ControlTest, ExplainShowsNeighborsThatAreNotFed) {
  world.learn("10.0.3.8", 3);
  const auto reply = ask(R"("explain","address":"10.0.3.8")");
  ASSERT_EQ(reply["ok"], true) << reply;
  ASSERT_EQ(reply["kernel"]["neighbors"].size(), 1U);
  EXPECT_EQ(reply["kernel"]["neighbors"][0]["verdict"], "interface not selected");
}

TEST_F(ControlTest, AMonitorThatDoesNotReadLosesChangesAndReceivesTheirNumber) {
  auto reply = handle(R"("monitor","prefix":"10.0.1.0/24")");
  ASSERT_TRUE(reply.feed);
  world.learn("10.0.1.5", 1);
  world.learn("10.0.2.5", 2);
  auto lines = taken(*reply.feed);
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0]["change"]["prefix"], "10.0.1.5/32");

  constexpr size_t kChanges = 6000;  // some 250 bytes each
  for (size_t i = 0; i < kChanges / 2; ++i) {
    world.learn("10.0.1.6", 1);
    world.learn("10.0.1.6", 1, false);
  }
  lines = taken(*reply.feed);
  ASSERT_TRUE(lines.back().contains("lost"));
  EXPECT_EQ(lines.size() - 1 + lines.back()["lost"].get<size_t>(), kChanges);
  EXPECT_TRUE(reply.feed->isEmpty());
  reply.feed.reset();
  world.learn("10.0.1.7", 1);  // without a listener
}

TEST_F(ControlTest, ATraceEndsWithItsTimeOrItsClientAndThereIsOneAtATime) {
  const std::string request = R"("trace","address":"10.0.1.5","levels":"all","seconds":30)";
  auto reply = handle(request, kAdmin);
  ASSERT_TRUE(reply.feed) << reply.text;
  EXPECT_EQ(ask(request, kAdmin)["ok"], false);
  world.learn("10.0.1.5", 1);
  EXPECT_FALSE(taken(*reply.feed).empty());
  EXPECT_FALSE(reply.feed->hasEnded(world.now + 29));
  EXPECT_TRUE(reply.feed->hasEnded(world.now + 30));
  reply.feed.reset();
  EXPECT_TRUE(handle(request, kAdmin).feed);
}

TEST(DamageTest, DamageIsReportedAndTheRestIsListed) {
  auto config = RouterWorld::config();
  config.sharedName = "control-test-" + std::to_string(::getpid());
  RouterWorld world(config);
  world.learn("10.0.1.5", 1);
  world.learn("10.0.1.6", 1);
  const auto table = config.sharedName + ".default.route4";
  constexpr auto kValue = Tovan::kValue<Zemit::Prefix>;
  ASSERT_EQ(Tovan::damage(table, *Zemit::Prefix::parse("10.0.1.5/32"), kValue), 1U);
  const auto linesOf = [&](const std::string& request) {
    const auto reply = world.control.handle(R"({"version":1,"request":)" + request + "}", kReader);
    EXPECT_TRUE(reply.bulk) << reply.text;
    std::ostringstream text;
    if (reply.bulk) reply.bulk(text);
    std::map<std::string, int> counts;
    for (const auto& line : Replay::jsonLines(text.str())) ++counts[line.begin().key()];
    return counts;
  };
  using Counts = std::map<std::string, int>;
  EXPECT_EQ(linesOf(R"("routes","type":"attached_")"), (Counts{{"error", 1}, {"route", 1}}));
  EXPECT_EQ(linesOf(R"("neighbors")"), (Counts{{"error", 1}, {"neighbor", 2}}));
  EXPECT_EQ(linesOf(R"("dump")"), (Counts{{"error", 1}, {"dump", 1}}));
  auto counts = linesOf(R"("dump","format":"text")");
  EXPECT_EQ(counts["error"], 1);
  EXPECT_GT(counts["text"], 1);
  const auto explained = json::parse(
      world.control.handle(R"({"version":1,"request":"explain","address":"10.0.1.5"})", kReader)
          .text);
  EXPECT_TRUE(explained.contains("ok"));
}

class RecordingTest : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(directory); }
  void TearDown() override { std::filesystem::remove_all(directory); }

  /// The routes at the end of a recording.
  static std::set<std::string> replayed(const std::string& file) {
    std::ifstream in(file);
    std::stringstream out;
    std::stringstream errors;
    const auto output = Replay::jsonOutput(out);
    Daemon::Switch sw({.settles = true});
    Replay::Player player(sw, *output, {});
    EXPECT_EQ(player.run(in, file, out, errors), Replay::Player::Outcome::Done) << errors.str();
    return Replay::routesOf(Replay::jsonLines(out.str()));
  }
  std::set<std::string> live() {
    std::ostringstream text;
    listDump(world.router, {}, false, text);
    return Replay::routesOf(Replay::jsonLines(text.str()));
  }
  /// The first line of the reply to a request to record.
  json record(const std::string& fields, const Peer& peer = kAdmin) {
    return json::parse(
        world.control.handle(R"({"version":1,"request":"record",)" + fields + "}", peer).text);
  }

  const std::string directory =
      testing::TempDir() + "/hostrouted-recordings-" + std::to_string(::getpid());
  RouterWorld world{RouterWorld::config(), directory};
};

TEST_F(RecordingTest, ALateRecordingAlsoEndsInTheDaemonsState) {
  constexpr uint64_t kFileBytes = 65536;
  world.learn("10.0.1.5", 1);
  world.learn("10.0.2.5", 1);
  world.recorder.start(directory + "/r", {.fileBytes = kFileBytes, .files = 2},
                       [&](const Recorder::Output& out) { world.router.feed().snapshot(out); });
  for (int step = 0; step < 3000; ++step) {
    world.learn("10.0.1." + std::to_string(6 + step % 100), 1, step % 3 != 0);
    if (step % 170 == 0) {
      world.tell(Linux::route("10.0.2.0/25", {Linux::hop(1)}), step % 340 == 0);
      world.router.endTurn();
    }
    world.recorder.endTurn();
  }
  const auto expected = live();
  world.recorder.stop();
  world.learn("10.0.1.250", 1);
  EXPECT_GT(expected.size(), 60U);
  EXPECT_EQ(replayed(directory + "/r"), expected);
  EXPECT_FALSE(replayed(directory + "/r.1").empty());
  EXPECT_FALSE(std::filesystem::exists(directory + "/r.2"));
  EXPECT_LT(std::filesystem::file_size(directory + "/r.1"), kFileBytes + 4096);
}

TEST_F(RecordingTest, RefusesASecondRecordingAndExistingFiles) {
  const auto started = record(R"("action":"start","file":"r.jsonl")");
  EXPECT_EQ(started["file"], directory + "/r.jsonl");
  EXPECT_EQ(record(R"("action":"start","file":"s.jsonl")")["ok"], false);
  EXPECT_EQ(record(R"("action":"stop")")["ok"], true);
  EXPECT_EQ(record(R"("action":"stop")")["ok"], false);
  const auto again = record(R"("action":"start","file":"r.jsonl")");
  EXPECT_NE(again["error"].get<std::string>().find("there already"), std::string::npos) << again;
}

TEST_F(RecordingTest, AFullDiskEndsARecordingAfterAWholeLineWithAnError) {
  const auto file = directory + "/r";
  ASSERT_EQ(record(R"("action":"start","file":"r")")["ok"], true);
  {
    // In the middle of a line.
    const Sample::SmallFiles full(std::filesystem::file_size(file) + 1000);
    for (int last = 1; last < 100 && world.recorder.isOn(); ++last) {
      world.learn("10.0.1." + std::to_string(last), 1);
      world.recorder.endTurn();
    }
  }
  ASSERT_FALSE(world.recorder.isOn());
  const std::string text = contents(file);
  EXPECT_TRUE(text.ends_with("}\n")) << text.substr(text.size() - 80);
  EXPECT_GT(replayed(file).size(), 3U);
  const auto stopped = record(R"("action":"stop")");
  EXPECT_EQ(stopped["ok"], false);
  EXPECT_NE(stopped["error"].get<std::string>().find("cannot be written: File too large"),
            std::string::npos)
      << stopped;
  {
    const Sample::SmallFiles full(100);
    const auto started = record(R"("action":"start","file":"s")");
    EXPECT_EQ(started["error"], directory + "/s: the recording ends here: it cannot be written: " +
                                    std::strerror(EFBIG));
  }
  EXPECT_FALSE(std::filesystem::exists(directory + "/s"));
  std::filesystem::remove_all(directory);
  EXPECT_EQ(record(R"("action":"start","file":"s")")["error"],
            directory + "/s: " + std::strerror(ENOENT));
}

TEST_F(RecordingTest, OnlyRootChoosesADirectory) {
  const auto ask = [&](const std::string& file, const Peer& peer) {
    return record(R"("action":"start","file":")" + file + "\"", peer)["ok"] == true;
  };
  EXPECT_FALSE(ask(directory + "/x", kAdmin));
  EXPECT_FALSE(ask("../x", kAdmin));
  EXPECT_FALSE(ask("..", kAdmin));
  EXPECT_FALSE(ask("", kAdmin));
  EXPECT_FALSE(ask("a\\u001b[31mb", kRoot));
  EXPECT_TRUE(ask(directory + "/x", kRoot));
}

}  // namespace
}  // namespace Hostrouted
