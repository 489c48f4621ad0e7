// Tests of the doctor's findings on machines that consist of files.
#include "cli/Doctor.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace Cli {
namespace {

class DoctorTest : public testing::Test {
 protected:
  void SetUp() override {
    machine.root = testing::TempDir() + "/doctor-" + std::to_string(::getpid());
    std::filesystem::remove_all(machine.root);
    machine.interfaces = {"swp1", "swp2"};
    for (const char* family : {"ipv4", "ipv6"}) {
      const auto neigh = "net/" + std::string(family) + "/neigh/default/gc_thresh";
      sysctl(neigh + "1", "16384");
      sysctl(neigh + "2", "32768");
      sysctl(neigh + "3", "65536");
    }
    sysctl("net/ipv4/ip_forward", "1");
    for (const char* intf : {"all", "swp1", "swp2"}) {
      set(intf, "ipv4", "arp_accept", "1");
      set(intf, "ipv4", "rp_filter", "0");
      set(intf, "ipv4", "send_redirects", "0");
      set(intf, "ipv4", "proxy_arp", "1");
      set(intf, "ipv6", "accept_untracked_na", "1");
    }
    machine.isClockSynchronised = true;
  }
  void TearDown() override { std::filesystem::remove_all(machine.root); }

  void write(const std::string& path, const std::string& text) {
    const auto file = machine.root / path;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << text << '\n';
  }
  void sysctl(const std::string& key, const std::string& value) { write("proc/sys/" + key, value); }
  void set(const std::string& intf, const std::string& family, const std::string& name,
           const std::string& value) {
    sysctl("net/" + family + "/conf/" + intf + "/" + name, value);
  }
  /// The only finding.
  Advice only() {
    const auto advice = examine(machine);
    EXPECT_EQ(advice.size(), 1U);
    for (const auto& each : advice) SCOPED_TRACE(each.what);
    return advice.empty() ? Advice() : advice.front();
  }
  static Linux::Link vrfDevice(Linux::TableId table) {
    Linux::Link link;
    link.name = "blue";
    link.kind = "vrf";
    link.vrfTable = table;
    return link;
  }
  static Linux::Route route(const std::string& prefix, Linux::TableId table, int protocol) {
    Linux::Route route;
    route.prefix = *Zemit::Prefix::parse(prefix);
    route.table = table;
    route.protocol = static_cast<uint8_t>(protocol);
    return route;
  }

  Machine machine;
};

TEST_F(DoctorTest, AHealthyMachineGetsNoAdvice) {
  EXPECT_EQ(examine(machine), std::vector<Advice>());
}

TEST_F(DoctorTest, CombinesTheSettingsOfAnInterfaceAndOfAll) {
  set("all", "ipv4", "arp_accept", "0");
  set("swp2", "ipv4", "arp_accept", "0");
  auto advice = only();
  EXPECT_EQ(advice.subject, "arp_accept");
  EXPECT_EQ(advice.mend, "sysctl -w net/ipv4/conf/swp2/arp_accept=1");
  // The larger value is effective.
  set("all", "ipv4", "arp_accept", "1");
  EXPECT_EQ(examine(machine), std::vector<Advice>());

  set("all", "ipv4", "rp_filter", "1");
  advice = only();
  EXPECT_EQ(advice.mend,
            "sysctl -w net/ipv4/conf/all/rp_filter=0; for i in swp1 swp2; do sysctl -w "
            "net/ipv4/conf/$i/rp_filter=0; done");
  set("all", "ipv4", "rp_filter", "0");

  // The value of `all` has no effect on this setting.
  set("swp1", "ipv6", "accept_untracked_na", "0");
  EXPECT_EQ(only().mend, "sysctl -w net/ipv6/conf/swp1/accept_untracked_na=1");
}

TEST_F(DoctorTest, ComparesNeighborLimitsWithTheNumberOfNeighbors) {
  machine.neighbors4 = 20000;
  auto advice = only();
  EXPECT_EQ(advice.weight, Advice::Weight::Warning);
  EXPECT_NE(advice.mend.find("gc_thresh3=80000"), std::string::npos) << advice.mend;
  machine.neighbors4 = 60000;
  EXPECT_EQ(only().weight, Advice::Weight::Error);
  machine.neighbors4 = 10;
  sysctl("net/ipv4/neigh/default/gc_thresh3", "1024");
  EXPECT_EQ(only().weight, Advice::Weight::Note);
}

TEST_F(DoctorTest, WithoutTheCapabilityRoutesAreRefusedAndTheBufferIsLimited) {
  machine.pid = 7;
  sysctl("net/core/rmem_max", "212992");
  write("proc/7/status", "Name:\thostrouted\nCapEff:\t0000000000001000");
  EXPECT_EQ(examine(machine), std::vector<Advice>());
  write("proc/7/status", "Name:\thostrouted\nCapEff:\t0000000000000000");
  const auto advice = examine(machine);
  ASSERT_EQ(advice.size(), 2U);
  EXPECT_EQ(advice[0].subject, "capabilities");
  EXPECT_EQ(advice[1].subject, "rmem_max");
}

TEST_F(DoctorTest, OtherProgramsMustNotUseTheTablesOrTheProtocol) {
  machine.routes = {route("10.0.0.5/32", 10, 205)};
  EXPECT_EQ(examine(machine), std::vector<Advice>());
  machine.routes.push_back(route("10.9.0.0/16", 10, RTPROT_STATIC));
  EXPECT_EQ(only().subject, "tables");
  machine.routes.back() = route("10.9.0.5/32", 77, 205);
  EXPECT_EQ(only().subject, "protocol");
  machine.routes.pop_back();
  machine.links = {vrfDevice(10)};
  EXPECT_NE(only().what.find("blue"), std::string::npos);
  machine.links.clear();
  // Routes of other programs belong in the table main.
  machine.table4 = RT_TABLE_MAIN;
  machine.routes = {route("10.9.0.0/16", RT_TABLE_MAIN, RTPROT_STATIC)};
  EXPECT_EQ(examine(machine), std::vector<Advice>());
}

TEST_F(DoctorTest, RulesMustSkipExportTablesAndReachVrfTables) {
  const Linux::Rule local{.priority = 0, .table = RT_TABLE_LOCAL};
  const Linux::Rule main{.priority = 32766, .table = RT_TABLE_MAIN};
  machine.rules = {local, main};
  EXPECT_EQ(examine(machine), std::vector<Advice>());

  machine.rules = {local, {.priority = 100, .table = 10}, main};
  EXPECT_EQ(only().mend, "ip rule del pref 100 table 10");

  // A table before main hides main if it has a default route.
  machine.rules[1].table = 77;
  EXPECT_EQ(examine(machine), std::vector<Advice>());
  machine.routes = {route("0.0.0.0/0", 77, RTPROT_STATIC)};
  EXPECT_EQ(only().mend.substr(0, 29), "ip rule del pref 100 table 77");
  for (const Linux::Rule& harmless :
       {Linux::Rule{.priority = 32767, .table = 77}, Linux::Rule{.family = 6, .table = 77},
        Linux::Rule{.table = 77, .isForAll = false},
        Linux::Rule{.table = 77, .skipsShort = true}}) {
    machine.rules[1] = harmless;
    EXPECT_EQ(examine(machine), std::vector<Advice>());
  }

  machine.links = {vrfDevice(77)};
  machine.rules = {local, {.priority = 1000, .isForVrfs = true}, main};
  EXPECT_EQ(examine(machine), std::vector<Advice>()) << "a kernel without IPv6";
  machine.rules.push_back({.family = 6, .priority = 32766, .table = RT_TABLE_MAIN});
  EXPECT_EQ(only().mend, "ip -6 rule add l3mdev pref 1000");
  machine.rules.push_back({.family = 6, .priority = 5, .table = 77, .isForAll = false});
  EXPECT_EQ(examine(machine), std::vector<Advice>());
}

TEST_F(DoctorTest, FrrMustImportAndRedistributeTheTables) {
  write("etc/frr/frr.conf", "! ip import-table 10\nrouter bgp 65001\n");
  machine.frrRuns = false;
  EXPECT_EQ(examine(machine), std::vector<Advice>());
  machine.frrRuns = true;
  std::map<std::string, int> found;
  for (const auto& advice : examine(machine)) ++found[advice.what];
  EXPECT_EQ(found.size(), 3U);
  machine.table6 = RT_TABLE_MAIN;
  write("etc/frr/frr.conf",
        "ip import-table 10\nrouter bgp 65001\n address-family ipv4 unicast\n"
        "  redistribute table 10\n address-family ipv6 unicast\n"
        "  redistribute kernel route-map HOSTS\n");
  EXPECT_EQ(examine(machine), std::vector<Advice>());
}

TEST_F(DoctorTest, BirdMustLearnTheTablesByTheirProtocol) {
  const std::string config =
      "protocol kernel { kernel table 10; learn; ipv4 { import where "
      "krt_source = 205; }; }\n";
  write("etc/bird/bird.conf", config);
  EXPECT_EQ(examine(machine), std::vector<Advice>());
  machine.protocol = 206;
  EXPECT_NE(only().what.find("205"), std::string::npos);
  machine.protocol = 205;
  machine.table4 = 11;
  EXPECT_NE(only().what.find("table 11"), std::string::npos);
  machine.table4 = 10;
  write("etc/bird/bird.conf", "protocol kernel { kernel table 10; }  # learn;\n");
  EXPECT_NE(only().what.find("learns"), std::string::npos);
}

}  // namespace
}  // namespace Cli
