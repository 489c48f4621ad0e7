// Tests that the output of `ip` and the kernel's own messages give a switch the same operations.
#include "linux/Feed.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "linux/IpJson.h"
#include "linux/Netlink.h"
#include "replay/Recording.h"
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
  IpDocument document{command, {}};
  std::FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error(command);
  for (int c = std::getc(pipe); c != EOF; c = std::getc(pipe)) {
    document.text += static_cast<char>(c);
  }
  EXPECT_EQ(::pclose(pipe), 0) << command;
  return document;
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
  inside.ip(R"(
addr add 10.1.0.1/24 dev swp1
addr add 10.1.0.2/24 dev swp1
addr add 10.3.0.1 peer 10.3.0.2/32 dev swp1
addr add 10.255.0.1/32 dev lo
addr add 2001:db8:1::1/64 dev swp1
addr add 2001:db8:ffff::1/128 dev lo
addr add 10.2.0.1/24 dev br0
addr add 2001:db8:2::1/64 dev br0
addr add 10.4.0.1/24 dev swp2
neigh add 10.1.0.5 lladdr 02:00:00:00:00:05 dev swp1
neigh add 10.1.0.6 lladdr 02:00:00:00:00:06 dev swp1 extern_learn nud reachable
neigh add 10.1.0.7 dev swp1 nud incomplete
neigh add proxy 10.1.0.8 dev swp1
neigh add 2001:db8:1::5 lladdr 02:00:00:00:00:05 dev swp1
neigh add fe80::5 lladdr 02:00:00:00:00:05 dev swp1
neigh add 10.2.0.5 lladdr 02:00:00:00:00:09 dev br0 nud stale
nexthop add id 1 via 10.1.0.5 dev swp1
nexthop add id 2 via fe80::9 dev swp1
nexthop add id 3 via 10.2.0.5 dev br0
nexthop add id 4 group 1,5/3,2
nexthop add id 5 blackhole
nexthop add id 6 encap ip id 7 dst 192.0.2.1 via 10.1.0.5 dev swp1
route add default via 10.1.0.5 proto static
route add 10.10.0.0/24 nhid 2
route add 10.11.0.0/24 nhid 4 proto bgp metric 20
route add 10.12.0.0/24 nhid 5
route add 10.13.0.0/24 nhid 6
route add 10.14.0.0/24 encap ip id 7 dst 192.0.2.1 via 10.1.0.5 dev swp1
route add 10.15.0.0/24 via inet6 fe80::9 dev swp1 proto bgp
route add 10.16.0.0/24 nexthop via 10.1.0.5 dev swp1 weight 3 nexthop via 10.2.0.5 dev br0
route add 10.16.0.0/24 via 10.1.0.5 metric 5
route add 10.18.0.5/32 via 10.2.0.5 proto ospf
route add unreachable 10.19.0.0/16
route add throw 10.20.0.0/16
route add local 10.21.0.0/16 dev lo
route add 10.22.0.0/16 tos 0x10 via 10.1.0.5
route add 2001:db8:9::/64 nexthop via 2001:db8:1::5 nexthop via 2001:db8:2::5
route add 2001:db8:a::/64 via fe80::9 dev swp1 proto ra
route add blackhole 2001:db8:b::/48
)");
  // For a while the kernel still changes its state: it detects down peers, and adds addresses and
  // routes. The two outputs are comparable only when nothing changed in between.
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
