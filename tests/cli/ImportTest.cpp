// What `ip -j` prints becomes a replay: what is imported, as what, and what is refused.
#include "cli/Import.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace Cli {
namespace {

constexpr const char* kLinks = R"([
  {"ifname": "lo", "flags": ["LOOPBACK", "UP"]},
  {"ifname": "Ethernet1", "flags": ["UP"]}, {"ifname": "Ethernet2", "flags": ["UP"]}])";

struct Imported {
  std::string replay, warnings;

  /// The lines of these events, without the "op" that they all begin with.
  std::string of(const std::string& op) const {
    std::istringstream lines(replay);
    const auto start = "{\"op\":\"" + op + "\",";
    std::string found;
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with(start)) found += line.substr(start.size()) + "\n";
    }
    return found;
  }
};

Imported import(const IpDocuments& documents) {
  std::ostringstream replay, warnings;
  importReplay(documents, replay, warnings);
  return {replay.str(), warnings.str()};
}

/// Imports routes of the two-port switch of kLinks.
Imported importRoutes(const std::string& route4, const std::string& route6 = "[]",
                      const std::string& nexthop = "[]") {
  return import({.link = {{"link", kLinks}},
                 .addr = {},
                 .neigh = {},
                 .route4 = {{"route4", route4}},
                 .route6 = {{"route6", route6}},
                 .nexthop = {{"nexthop", nexthop}}});
}

std::string read(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file) << path;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

TEST(ImportTest, TheExampleGivesItsReplay) {
  const auto examples = std::filesystem::path(SOURCE_DIR) / "examples";
  const auto document = [&](const std::string& name) {
    return IpDocument{name, read(examples / "leaf" / name)};
  };
  const auto leaf = import({.link = document("link.json"),
                            .addr = document("addr.json"),
                            .neigh = document("neigh.json"),
                            .route4 = document("route4.json"),
                            .route6 = document("route6.json"),
                            .nexthop = document("nexthop.json")});
  EXPECT_EQ(leaf.replay, read(examples / "leaf.jsonl"));
  EXPECT_EQ(leaf.warnings, "");
}

TEST(ImportTest, AnInterfaceIsInTheVrfOfItsMasterAndAPortInNone) {
  const auto result = import({.link = {{"link", R"([
    {"ifname": "Ethernet1", "master": "blue"},
    {"ifname": "blue", "flags": ["NOARP"],
     "linkinfo": {"info_kind": "vrf", "info_data": {"table": 10}}},
    {"ifname": "Ethernet2", "master": "Vlan10"},
    {"ifname": "Vlan10", "master": "blue", "linkinfo": {"info_kind": "bridge"}},
    {"ifname": "Ethernet3", "master": "red"}, {"ifname": "red"}])"}},
                              .addr = {},
                              .neigh = {},
                              .route4 = {{"route4", R"([
    {"dst": "10.1.0.0/24", "dev": "Vlan10", "table": "10", "protocol": "kernel"},
    {"dst": "10.1.0.0/24", "dev": "Ethernet1", "table": "blue", "metric": 7},
    {"dst": "10.2.0.0/24", "dev": "Ethernet3", "table": 254, "protocol": "2", "type": "1"},
    {"dst": "10.3.0.0/24", "dev": "Ethernet3", "table": "100"},
    {"dst": "10.4.0.0/24", "dev": "Ethernet3", "table": "100"},
    {"type": "local", "dst": "10.1.0.1", "dev": "Vlan10", "table": "10", "protocol": "kernel"}])"}},
                              .route6 = {},
                              .nexthop = {}});
  EXPECT_EQ(result.replay,
            R"({"op":"vrf","name":"blue"}
{"op":"intf","vrf":"blue","name":"Ethernet1"}
{"op":"intf","vrf":"blue","name":"blue"}
{"op":"intf","vrf":"blue","name":"Vlan10"}
{"op":"intf","name":"Ethernet3"}
{"op":"intf","name":"red"}
{"op":"fec","id":1,"family":4,"vias":[{"intf":"Ethernet3"}]}
{"op":"fec","id":2,"family":4,"vias":[{"intf":"Vlan10"}]}
{"op":"route","prefix":"10.2.0.0/24","type":"connected_","fec":1}
{"op":"route","vrf":"blue","prefix":"10.1.0.0/24","type":"connected_","fec":2}
{"op":"neighborTable","intf":"Ethernet1"}
{"op":"neighborTable","intf":"Vlan10"}
{"op":"neighborTable","intf":"Ethernet3"}
{"op":"neighborTable","intf":"red"}
{"op":"initialized","value":true}
{"op":"initialized","vrf":"blue","value":true}
)");
  EXPECT_EQ(result.warnings,
            "link: warning: Ethernet3: nothing tells whether its master red is a VRF (ip -d would);"
            " it is put into the VRF default\n"
            "route4: warning: table 100 belongs to no VRF: 2 route(s) left out\n");
}

// The engine knows one primary address, so a second one would take the first one's place.
TEST(ImportTest, AnInterfaceHasOnePrimaryAddress) {
  const auto result = import({.link = {},
                              .addr = {{"addr", R"([{"ifname": "Vlan10", "addr_info": [
    {}, {"local": "127.0.0.1", "prefixlen": 8}, {"local": "::1", "prefixlen": 128},
    {"local": "2001:db8::1", "prefixlen": 64}, {"local": "10.1.0.1", "prefixlen": 24},
    {"local": "10.2.0.1", "prefixlen": 24},
    {"local": "10.1.0.2", "prefixlen": 24, "secondary": true},
    {"local": "10.3.0.1", "address": "10.3.0.2", "prefixlen": 30},
    {"local": "2001:db8::2", "prefixlen": 64, "dadfailed": true}]}])"}},
                              .neigh = {},
                              .route4 = {},
                              .route6 = {},
                              .nexthop = {}});
  EXPECT_EQ(result.of("addr"), R"("intf":"Vlan10","addr":"2001:db8::1/64"}
"intf":"Vlan10","addr":"10.1.0.1/24"}
"intf":"Vlan10","addr":"10.2.0.1/24","secondary":true}
"intf":"Vlan10","addr":"10.1.0.2/24","secondary":true}
"intf":"Vlan10","addr":"10.3.0.1/32","secondary":true}
)");
  EXPECT_EQ(result.warnings,
            "addr: warning: Vlan10: an address left out: 2001:db8::2 is dadfailed\n");
}

TEST(ImportTest, NeighborsAreTheUsableOnesInOrder) {
  const auto result = import({.link = {{"link", kLinks}},
                              .addr = {},
                              .neigh = {{"neigh", R"([
    {"dst": "10.0.0.10", "dev": "Ethernet1", "lladdr": "02:00:00:00:00:0a", "state": ["STALE"]},
    {"dst": "2001:db8::2", "dev": "Ethernet1", "state": ["PROBE"]},
    {"dst": "10.0.0.9", "dev": "Ethernet1", "lladdr": "192.0.2.1", "state": ["PERMANENT"]},
    {"dst": "10.0.0.1", "dev": "Ethernet2", "lladdr": "02:00:00:00:00:01", "state": ["DELAY"]},
    {"dst": "10.0.0.3", "dev": "Ethernet1", "state": ["FAILED"]},
    {"dst": "10.0.0.4", "dev": "Ethernet1", "state": ["INCOMPLETE"]},
    {"dst": "10.0.0.5", "dev": "Ethernet1", "state": ["NOARP"]},
    {"dst": "224.0.0.5", "dev": "Ethernet1", "state": ["PERMANENT"]},
    {"dst": "fe80::1", "dev": "Ethernet1", "state": ["REACHABLE"]},
    {"dst": "127.0.0.1", "dev": "lo", "state": ["PERMANENT"]},
    {"dst": "10.0.0.6", "dev": "Ethernet9", "state": ["REACHABLE"]}])"}},
                              .route4 = {},
                              .route6 = {},
                              .nexthop = {}});
  EXPECT_EQ(result.of("neighbor"), R"("intf":"Ethernet1","ip":"10.0.0.9"}
"intf":"Ethernet1","ip":"10.0.0.10","mac":"02:00:00:00:00:0a"}
"intf":"Ethernet1","ip":"2001:db8::2"}
"intf":"Ethernet2","ip":"10.0.0.1","mac":"02:00:00:00:00:01"}
)");
  EXPECT_EQ(result.warnings,
            "neigh: warning: 10.0.0.6 left out: \"Ethernet9\" is no layer-3 interface here\n");
}

TEST(ImportTest, RoutesOfTheSameNextHopsShareAFec) {
  const auto result = importRoutes(R"([
    {"dst": "10.5.0.0/16", "nexthops": [{"gateway": "10.0.1.2", "dev": "Ethernet2"},
                                        {"gateway": "10.0.0.2", "dev": "Ethernet1"}]},
    {"dst": "10.4.0.0/16", "protocol": "bgp", "nhid": 10},
    {"dst": "10.3.0.0/16", "protocol": "ospf", "nhid": 1},
    {"dst": "10.3.0.1", "protocol": "zebra", "gateway": "10.0.0.2", "dev": "Ethernet1"},
    {"dst": "default", "nexthops": [{"gateway": "10.0.0.2", "dev": "Ethernet1"},
                             {"gateway": "10.0.1.2", "dev": "Ethernet2", "flags": ["dead"]}]},
    {"dst": "10.6.0.0/16", "type": "unreachable"}, {"dst": "10.7.0.0/16", "nhid": 3}])",
                                   R"([
    {"dst": "default", "protocol": "ra", "gateway": "fe80::1", "dev": "Ethernet1", "metric": 1024},
    {"dst": "default", "protocol": "bgp", "gateway": "fe80::2", "dev": "Ethernet1", "metric": 20},
    {"dst": "fe80::/64", "dev": "Ethernet1", "protocol": "kernel", "metric": 256}])",
                                   R"([
    {"id": 1, "gateway": "10.0.0.2", "dev": "Ethernet1"}, {"id": 3, "blackhole": null},
    {"id": 2, "gateway": "10.0.1.2", "dev": "Ethernet2"},
    {"id": 10, "group": [{"id": 1}, {"id": 2, "weight": 3}]}])");
  EXPECT_EQ(result.of("fec"), R"("id":1,"family":4,"vias":[{"intf":"Ethernet1","hop":"10.0.0.2"}]}
"id":2,"family":4,"vias":[{"intf":"Ethernet1","hop":"10.0.0.2"},)"
                              R"({"intf":"Ethernet2","hop":"10.0.1.2"}]}
"id":3,"family":6,"vias":[{"intf":"Ethernet1","hop":"fe80::2"}]}
)");
  EXPECT_EQ(result.of("route"), R"("prefix":"0.0.0.0/0","type":"staticConfig_","fec":1}
"prefix":"10.3.0.0/16","type":"ospfIntraArea_","fec":1}
"prefix":"10.3.0.1/32","type":"unknown_","fec":1}
"prefix":"10.4.0.0/16","type":"ebgp_","fec":2}
"prefix":"10.5.0.0/16","type":"staticConfig_","fec":2}
"prefix":"10.6.0.0/16","type":"staticConfig_"}
"prefix":"10.7.0.0/16","type":"staticConfig_"}
"prefix":"::/0","type":"bgp_","fec":3,"metric":20}
)");
  EXPECT_EQ(result.warnings,
            "route4: warning: default: a next hop left out: its next hop is dead\n");
}

// `ip route show table all` without -4 prints the IPv6 routes as well.
TEST(ImportTest, TheRouteDocumentsMayOverlap) {
  const std::string route6 = R"(
    {"dst": "default", "dev": "Ethernet1", "metric": 1024, "pref": "medium"},
    {"dst": "2001:db8::/32", "gateway": "fe80::1", "dev": "Ethernet1", "metric": 1024}])";
  const auto result =
      importRoutes(R"([{"dst": "default", "dev": "Ethernet2"},)" + route6, "[" + route6);
  EXPECT_EQ(result.of("route"), R"("prefix":"0.0.0.0/0","type":"staticConfig_","fec":1}
"prefix":"::/0","type":"staticConfig_","fec":2,"metric":1024}
"prefix":"2001:db8::/32","type":"staticConfig_","fec":3,"metric":1024}
)");
  EXPECT_EQ(result.warnings, "");
}

TEST(ImportTest, WhatCannotBeImportedIsLeftOutWithTheReason) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {R"("via": {"family": "inet6", "host": "fe80::1"}, "dev": "Ethernet1")",
       "its next hop fe80::1 is of the other family"},
      {R"("dev": "Ethernet9")", "\"Ethernet9\" is no layer-3 interface here"},
      {R"("dev": 9)", "type must be string, but is number"},
      {R"("dev": "Ethernet1", "tos": "0x10")", "it is for one type of service only"},
      {R"("type": "throw")", "a route of type throw forwards nothing"},
      {R"("nhid": 5)", "there is no nexthop object 5"},
      {R"("nhid": 6)", "its nexthop objects refer to each other"},
      {R"("scope": "link")", "it has no next hop"},
  };
  for (const auto& [members, reason] : cases) {
    const auto result = importRoutes(R"([{"dst": "10.0.0.0/8", )" + members + "}]", "[]",
                                     R"([{"id": 6, "group": [{"id": 6}]}])");
    EXPECT_EQ(result.of("route"), "") << members;
    EXPECT_EQ(result.warnings, "route4: warning: 10.0.0.0/8 left out: " + reason + "\n");
  }
  for (const char* dst : {"10.0.0.1/8", "10.0.0.0/33", "10.0.0.0/", "10.0.0.0/x", "here", "10.1"}) {
    const auto result =
        importRoutes(std::string(R"([{"dst": ")") + dst + R"(", "dev": "Ethernet1"}])");
    EXPECT_EQ(result.of("route"), "") << dst;
    EXPECT_NE(result.warnings, "") << dst;
  }
}

TEST(ImportTest, ADocumentThatIsNoListIsAnError) {
  for (const char* text : {"", "{}", "7", "[{\"dst\": ", "[] []", "Object \"nexthop\" is unknown",
                           "[{\"metric\": 4e924967295}]"}) {
    EXPECT_THROW(importRoutes(text), ImportError) << text;
  }
  try {
    importRoutes("{}");
  } catch (const ImportError& error) {
    EXPECT_STREQ(error.what(), "route4: error: this is not the list that ip -j prints");
  }
}

}  // namespace
}  // namespace Cli
