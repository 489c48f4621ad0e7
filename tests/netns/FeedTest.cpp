// Tests that the output of `ip` and the kernel's own messages give a switch the same operations.
#include "linux/Feed.h"

#include <gtest/gtest.h>

#include <string>

#include "linux/IpJson.h"
#include "linux/Netlink.h"
#include "replay/Recording.h"
#include "tests/Files.h"
#include "tests/Paths.h"
#include "tests/netns/Namespace.h"

namespace Linux {
namespace {

/// The replay of a full mirror's feed.
std::string replayOf(Mirror& mirror) {
  Feed feed(mirror, {});
  feed.setComplete();
  std::string lines;
  feed.flush([&](const Daemon::Operation& operation) { lines += Replay::linesOf(operation); });
  return lines;
}

std::string toldByMessages() {
  Mirror mirror;
  do {
    mirror.beginDump();
  } while (!dumpAll([&](const Change& change) { mirror.apply(change); }));
  mirror.endDump();
  return replayOf(mirror);
}

IpDocument printed(const std::string& command) {
  const auto result = runShell(command);
  EXPECT_EQ(result.status, 0) << command;
  return {command, result.text};
}

std::string toldByText(const std::string& flags) {
  const auto ip = [&](const std::string& arguments) { return printed("ip " + flags + arguments); };
  const IpDocuments documents{.link = ip("-d -j link"),
                              .addr = ip("-j addr"),
                              .neigh = ip("-j neigh"),
                              .route4 = ip("-4 -j route show table all"),
                              .route6 = ip("-6 -j route show table all"),
                              .nexthop = ip("-j nexthop")};
  Mirror mirror;
  mirror.beginDump();
  std::string warnings;
  readIpDocuments(
      documents, [&](const Change& change) { mirror.apply(change); },
      [&](const std::string& warning) { warnings += warning + "\n"; });
  mirror.endDump();
  EXPECT_EQ(warnings, "");
  return replayOf(mirror);
}

TEST(FeedTest, TheOutputOfIpAgreesWithTheKernelsMessages) {
  SKIP_WITHOUT_NAMESPACES();
  const Namespace inside;
  Namespace::setSysctl("ipv6/conf/default/accept_dad", "0");
  inside.ip(R"(
link set lo up
link add swp1 type veth peer name host1
link add swp2 type veth peer name host2
link add swp3 type veth peer name host3
link set swp1 up
link set host1 up
link set swp2 up
link add br0 type bridge
link set swp3 master br0
link set swp3 up
link set host3 up
link set br0 up
)");
  Namespace::awaitCarrier("swp1");
  Namespace::awaitCarrier("br0");
  inside.ip(contents(sourcePath("tests/netns/feed.ip")));

  // The kernel still changes its state for a while: it detects down peers, and adds addresses and
  // routes. The two outputs are comparable only if there was no change in between.
  std::string told, asNumbers, asNames;
  bool isQuiet = false;
  for (int attempt = 0; attempt < 100 && !isQuiet; ++attempt) {
    told = toldByMessages();
    asNumbers = toldByText("-N ");
    asNames = toldByText("");
    isQuiet = toldByMessages() == told;
  }
  ASSERT_TRUE(isQuiet);
  EXPECT_EQ(asNumbers, told);
  EXPECT_EQ(asNames, told);
  for (const char* line : {
           R"({"op":"neighbor","intf":"swp1","ip":"10.1.0.5","mac":"02:00:00:00:00:05"})",
           R"({"op":"neighbor","intf":"br0","ip":"10.2.0.5","mac":"02:00:00:00:00:09"})",
           R"({"op":"addr","intf":"swp1","addr":"10.3.0.1/32","secondary":true})",
           R"("vias":[{"intf":"br0","hop":"10.2.0.5"},{"intf":"swp1","hop":"10.1.0.5"}])",
           R"({"op":"route","prefix":"10.13.0.0/24","type":"staticConfig_"})",
       }) {
    EXPECT_NE(told.find(line), std::string::npos) << line << "\n" << told;
  }
}

}  // namespace
}  // namespace Linux
