// Tests of the import of `ip -j` output.
#include "cli/Import.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "replay/Output.h"
#include "replay/Player.h"
#include "tests/Files.h"
#include "tests/Paths.h"

namespace Cli {
namespace {

constexpr const char* kLinks = R"([
  {"ifname": "lo", "flags": ["LOOPBACK", "UP"]},
  {"ifname": "Ethernet1", "flags": ["UP"]}, {"ifname": "Ethernet2", "flags": ["UP"]}])";

struct Imported {
  std::string replay, warnings;

  /// The lines of these events without their common start, the "op".
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

/// Imports documents, each with its name.
Imported import(const std::map<std::string, std::string>& texts) {
  const auto document = [&texts](const char* name) -> std::optional<IpDocument> {
    const auto found = texts.find(name);
    if (found == texts.end()) return std::nullopt;
    return IpDocument{name, found->second};
  };
  std::ostringstream replay, warnings;
  importReplay({.link = document("link"),
                .addr = document("addr"),
                .neigh = document("neigh"),
                .route4 = document("route4"),
                .route6 = document("route6"),
                .nexthop = document("nexthop")},
               replay, warnings);
  return {replay.str(), warnings.str()};
}

/// Imports routes of the two-port switch of kLinks.
Imported importRoutes(const std::string& route4, const std::string& route6 = "[]",
                      const std::string& nexthop = "[]") {
  return import({{"link", kLinks}, {"route4", route4}, {"route6", route6}, {"nexthop", nexthop}});
}

TEST(ImportTest, TheExampleGivesItsReplay) {
  const auto examples = std::filesystem::path(sourcePath("examples"));
  std::map<std::string, std::string> documents;
  for (const char* name : {"link", "addr", "neigh", "route4", "route6", "nexthop"}) {
    documents[name] = contents(examples / "leaf" / (std::string(name) + ".json"));
  }
  const auto leaf = import(documents);
  EXPECT_EQ(leaf.replay, contents(examples / "leaf.jsonl"));
  EXPECT_EQ(leaf.warnings, "");
}

TEST(ImportTest, AnInterfaceIsInTheVrfOfItsMasterAndAPortInNone) {
  const auto result = import({{"link", R"([
    {"ifname": "Ethernet1", "master": "blue"},
    {"ifname": "blue", "flags": ["NOARP"],
     "linkinfo": {"info_kind": "vrf", "info_data": {"table": 10}}},
    {"ifname": "Ethernet2", "master": "Vlan10"},
    {"ifname": "Vlan10", "master": "blue", "linkinfo": {"info_kind": "bridge"}},
    {"ifname": "Ethernet3", "master": "red"}, {"ifname": "red"}])"},
                              {"route4", R"([
    {"dst": "10.1.0.0/24", "dev": "Vlan10", "table": "10", "protocol": "kernel"},
    {"dst": "10.1.0.0/24", "dev": "Ethernet1", "table": "blue", "metric": 7},
    {"dst": "10.2.0.0/24", "dev": "Ethernet3", "table": 254, "protocol": "2", "type": "1"},
    {"dst": "10.3.0.0/24", "dev": "Ethernet3", "table": "100"},
    {"dst": "10.4.0.0/24", "dev": "Ethernet3", "table": "100"},
    {"type": "local", "dst": "10.1.0.1", "dev": "Vlan10", "table": "10", "protocol": "kernel"}])"}});
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

// The engine stores one primary address, so a second one would replace the first one.
TEST(ImportTest, AnInterfaceHasOnePrimaryAddress) {
  const auto result = import({{"addr", R"([{"ifname": "Vlan10", "addr_info": [
    {}, {"local": "127.0.0.1", "prefixlen": 8}, {"local": "::1", "prefixlen": 128},
    {"local": "2001:db8::1", "prefixlen": 64}, {"local": "10.1.0.1", "prefixlen": 24},
    {"local": "10.2.0.1", "prefixlen": 24},
    {"local": "10.1.0.2", "prefixlen": 24, "secondary": true},
    {"local": "10.3.0.1", "address": "10.3.0.2", "prefixlen": 30},
    {"local": "2001:db8::2", "prefixlen": 64, "dadfailed": true}]}])"}});
  EXPECT_EQ(result.of("addr"), R"("intf":"Vlan10","addr":"10.1.0.1/24"}
"intf":"Vlan10","addr":"10.2.0.1/24","secondary":true}
"intf":"Vlan10","addr":"10.3.0.1/32","secondary":true}
"intf":"Vlan10","addr":"10.1.0.2/24","secondary":true}
"intf":"Vlan10","addr":"2001:db8::1/64"}
)");
  EXPECT_EQ(result.warnings,
            "addr: warning: Vlan10: an address left out: 2001:db8::2 is dadfailed\n");
}

TEST(ImportTest, NeighborsAreTheUsableOnesInOrder) {
  const auto result = import({{"link", kLinks}, {"neigh", R"([
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
    {"dst": "10.0.0.6", "dev": "Ethernet9", "state": ["REACHABLE"]}])"}});
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
            "route4: warning: default: a next hop left out: its next hop is dead\n"
            "route4: warning: 10.4.0.0/16: the weights of its next hops are left out\n");
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

TEST(ImportTest, WarnsOfEachRouteThatItCannotImport) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {R"("dev": "Ethernet9")", "\"Ethernet9\" is no layer-3 interface here"},
      {R"("dev": 9)", R"("dev": 9 is not a string)"},
      {R"("nexthops": 7)", R"("nexthops": 7 is not a list)"},
      {R"("dev": "Ethernet1", "metric": -1)", R"("metric": -1 is not a number that it can be)"},
      {R"("dev": "Ethernet1", "gateway": "x")", R"("gateway": "x" is not an address)"},
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

// A table's number, or the kernel's own name for it, takes precedence over the name of a VRF.
TEST(ImportTest, ARouteIsInTheVrfOfItsTablesNumber) {
  const auto result = import({{"link", R"([
    {"ifname": "main", "linkinfo": {"info_kind": "vrf", "info_data": {"table": 30}}},
    {"ifname": "10", "linkinfo": {"info_kind": "vrf", "info_data": {"table": 20}}},
    {"ifname": "20", "linkinfo": {"info_kind": "vrf", "info_data": {"table": 10}}},
    {"ifname": "default", "linkinfo": {"info_kind": "vrf", "info_data": {"table": 40}}},
    {"ifname": "Ethernet1"}])"},
                              {"route4", R"([
    {"dst": "10.1.0.0/24", "dev": "Ethernet1", "table": "main"},
    {"dst": "10.2.0.0/24", "dev": "Ethernet1"},
    {"dst": "10.3.0.0/24", "dev": "Ethernet1", "table": "10"},
    {"dst": "10.4.0.0/24", "dev": "Ethernet1", "table": 20},
    {"dst": "10.5.0.0/24", "dev": "Ethernet1", "table": "default"},
    {"dst": "10.6.0.0/24", "dev": "Ethernet1", "table": "30"},
    {"dst": "10.7.0.0/24", "dev": "Ethernet1", "table": "40"}])"}});
  EXPECT_EQ(result.of("route"), R"("prefix":"10.1.0.0/24","type":"staticConfig_","fec":1}
"prefix":"10.2.0.0/24","type":"staticConfig_","fec":1}
"vrf":"main","prefix":"10.6.0.0/24","type":"staticConfig_","fec":1}
"vrf":"10","prefix":"10.4.0.0/24","type":"staticConfig_","fec":1}
"vrf":"20","prefix":"10.3.0.0/24","type":"staticConfig_","fec":1}
"vrf":"linux:default","prefix":"10.7.0.0/24","type":"staticConfig_","fec":1}
)");
  EXPECT_EQ(result.warnings,
            "route4: warning: table default belongs to no VRF: 1 route(s) left out\n");
}

// The output of `ip` for a tunnel repeats keys of the route.
TEST(ImportTest, KeepsRoutesWithoutUsableNextHops) {
  const auto result = importRoutes(R"([
    {"dst": "10.1.0.0/24", "encap": "ip", "id": 7, "src": "192.0.2.2", "dst": "192.0.2.1",
     "ttl": 0, "tos": 4, "dev": "Ethernet1"},
    {"dst": "10.2.0.0/24", "via": {"family": "inet6", "host": "fe80::1"}, "dev": "Ethernet1"},
    {"dst": "10.3.0.0/24", "dev": "Ethernet1", "protocol": "2", "flags": ["linkdown"]},
    {"dst": "10.4.0.0/24", "nhid": 9}])",
                                   "[]",
                                   R"([{"id": 9, "encap": "mpls", "id": 0, "dst": "100",
                                        "gateway": "10.0.0.9", "dev": "Ethernet1"}])");
  EXPECT_EQ(result.of("fec"), R"("id":1,"family":4,"vias":[{"intf":"Ethernet1","hop":"ipv6"}]}
)");
  EXPECT_EQ(result.of("route"), R"("prefix":"10.1.0.0/24","type":"staticConfig_"}
"prefix":"10.2.0.0/24","type":"staticConfig_","fec":1}
"prefix":"10.3.0.0/24","type":"connected_"}
"prefix":"10.4.0.0/24","type":"staticConfig_"}
)");
  EXPECT_EQ(result.warnings,
            "route4: warning: 10.1.0.0/24 kept without its next hop: its next hop is the end of a "
            "tunnel (encap)\n"
            "route4: warning: 10.3.0.0/24 kept without its next hop: its next hop's interface "
            "Ethernet1 has no carrier\n"
            "route4: warning: 10.4.0.0/24 kept without its next hop: its next hop is the end of a "
            "tunnel (encap)\n");
}

TEST(ImportTest, ImportsOrWarnsOfUnusualEntries) {
  const auto result = import({{"link", R"([
    {"ifname": "Ethernet1", "flags": ["UP"]}, {"ifname": "Ethernet2", "flags": ["BROADCAST"]},
    {"ifname": "gre1", "flags": ["UP", "NOARP"]}])"},
                              {"addr", R"([
    {"ifname": "Ethernet1", "addr_info": [{"local": "2001:db8::1", "prefixlen": 128}]},
    {"ifname": "Ethernet2", "addr_info": [{"local": "10.2.0.1", "prefixlen": 24}]}])"},
                              {"neigh", R"([
    {"dst": "10.3.0.5", "dev": "gre1", "lladdr": "192.0.2.1", "state": ["PERMANENT"]}])"},
                              {"route4", R"([
    {"type": "2", "dst": "10.6.0.0/24", "dev": "Ethernet1", "table": "255", "scope": "254"},
    {"type": "2", "dst": "10.2.0.1", "dev": "Ethernet2", "table": "255", "protocol": "2"}])"},
                              {"route6", R"([
    {"dst": "2001:db8::1", "dev": "Ethernet1", "protocol": "kernel", "metric": 256},
    {"dst": "2001:db8::2", "dev": "Ethernet1", "protocol": "kernel", "metric": 256}])"}});
  EXPECT_EQ(result.of("neighbor"), "\"intf\":\"gre1\",\"ip\":\"10.3.0.5\"}\n");
  EXPECT_EQ(result.of("addr"), "\"intf\":\"Ethernet1\",\"addr\":\"2001:db8::1/128\"}\n");
  EXPECT_EQ(result.of("route"),
            R"("prefix":"2001:db8::2/128","type":"connected_","fec":1,"metric":256}
)");
  EXPECT_EQ(result.warnings,
            "addr: warning: Ethernet2: an address left out: 10.2.0.1 is on an interface that is "
            "down\n"
            "route4: warning: 10.6.0.0/24 left out: the machine itself answers for it (a local "
            "route)\n");
}

// Each bad entry, or part of one, is followed by a good one. The output can be replayed.
TEST(ImportTest, SkipsOnlyTheBadEntries) {
  const auto result = import({{"link",
                               "[7, {\"ifname\": 8}, {\"ifname\": \"b\xFF\x01\"},"
                               R"({"ifname": ""}, {"flags": []},
    {"ifname": "a\u0000b"}, {"ifname": "m", "linkinfo": {"info_kind": "vrf"}}, {"ifname": "\u0001\"\\"},
    {"ifname": "Ethernet1"}])"},
                              {"addr", R"([{"ifname": "Ethernet1", "addr_info": [7,
    {"local": "10.0.0.1", "prefixlen": 33}, {"local": true, "prefixlen": 24}, {"prefixlen": 8},
    {"local": "10.0.0.2", "prefixlen": 24}]}])"},
                              {"neigh",
                               "[{\"dst\": \"10.0.0.4\", \"dev\": \"b\xFF\x01\","
                               R"("state": ["STALE"]},
    {"dst": "10.0.0.5", "dev": "Ethernet1", "state": 5}, {"dst": 5, "state": ["STALE"]},
    {"dst": "10.0.0.6", "dev": "Ethernet1", "lladdr": 5, "state": ["STALE"]},
    {"dst": "10.0.0.7", "dev": "Ethernet1", "state": ["STALE"]}])"},
                              {"route4", R"([
    {"dst": "10.1.0.0/24", "nexthops": [7, {"dev": "none"}, {"gateway": "10.0.0.9"},
                                        {"dev": "Ethernet1"}]},
    {"dst": "10.2.0.0/24", "nexthops": [{"dev": "none"}]}, {"dev": "Ethernet1"},
    {"dst": "10.3.0.0/24", "dev": "\u0001\"\\"}])"},
                              {"nexthop", R"([{"id": -1}, {"id": 1, "group": [7]}])"}});
  EXPECT_EQ(result.of("addr"), "\"intf\":\"Ethernet1\",\"addr\":\"10.0.0.2/24\"}\n");
  EXPECT_EQ(result.of("neighbor"), "\"intf\":\"Ethernet1\",\"ip\":\"10.0.0.7\"}\n");
  EXPECT_EQ(result.of("route"), R"("prefix":"10.1.0.0/24","type":"staticConfig_","fec":1}
"prefix":"10.3.0.0/24","type":"staticConfig_","fec":2}
)");
  EXPECT_NE(result.warnings.find("link: warning: interface 1 left out: its name is not UTF-8\n"),
            std::string::npos)
      << result.warnings;
  EXPECT_NE(result.warnings.find("neigh: warning: 10.0.0.4 left out: \"b\\xff\\x01\" is no layer-3 "
                                 "interface here\n"),
            std::string::npos)
      << result.warnings;
  EXPECT_EQ(result.warnings.find("exception"), std::string::npos);

  Daemon::Switch sw;
  std::ostringstream printed, errors;
  const auto output = Replay::jsonOutput(printed);
  std::istringstream lines(result.replay);
  EXPECT_EQ(Replay::Player(sw, *output, {}).run(lines, "import", printed, errors),
            Replay::Player::Outcome::Done);
  EXPECT_EQ(errors.str(), "");
}

TEST(ImportTest, RefusesDocumentsThatAreNoLists) {
  const std::string kDeep = std::string(100000, '[') + std::string(100000, ']');
  for (const char* text : {"", "{}", "7", "[{\"dst\": ", "[] []", "Object \"nexthop\" is unknown",
                           "[{\"metric\": 4e924967295}]", kDeep.c_str()}) {
    EXPECT_THROW(importRoutes(text), ImportError) << text;
  }
  try {
    importRoutes("{}");
  } catch (const ImportError& error) {
    EXPECT_STREQ(error.what(), "route4: error: this is not the list that ip -j prints");
  }
  try {
    importRoutes("[{},\n {]");
  } catch (const ImportError& error) {
    EXPECT_STREQ(error.what(), "route4: error: this is not JSON: line 2, column 3");
  }
}

}  // namespace
}  // namespace Cli
