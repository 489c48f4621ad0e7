// Tests of the shell's commands on a small switch.
#include "cli/Shell.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include "replay/Output.h"
#include "replay/Player.h"

namespace {

class ShellTest : public testing::Test {
 protected:
  ShellTest() {
    const auto intf = Zemit::IntfId::of("Ethernet1/1");
    const auto prefix = *Zemit::Prefix::parse("10.0.0.0/24");
    sw.setInterface(intf, "default");
    sw.setAddress(intf, *Zemit::IpAddrWithMask::parse("10.0.0.1/24"), false);
    sw.setFec(Tovan::Fib::Fec(7, {{.hop = {}, .intf = intf}}));
    sw.setRoute("default", Tovan::Fib::Route{.key = prefix, .fecId = 7});
    sw.setNeighbor(intf, Arp::ArpEntryStatus{.ipAddr = *Zemit::IpAddr::parse("10.0.0.5")});
  }

  /// The output of a command, or its error.
  std::string run(std::string_view line) {
    std::ostringstream os;
    try {
      Cli::Shell(sw, player, os).execute(line);
    } catch (const std::exception& error) {
      return std::string("error: ") + error.what();
    }
    return os.str();
  }

  Daemon::Switch sw;
  std::ostringstream printed;  // the output of the lines of a replay
  std::unique_ptr<Replay::Output> output = Replay::jsonOutput(printed);
  Replay::Player player{sw, *output, {}};
};

TEST_F(ShellTest, SetsReadsAndCallsMembersOfAMachine) {
  EXPECT_EQ(run("get /ipv4/default/arpRoute"), "");
  EXPECT_EQ(run("set /ipv4/default/routeSm/initialized true"), "");
  EXPECT_EQ(run("get /ipv4/default/routeSm/initialized"), "true\n");
  EXPECT_EQ(run("get /ipv4/default/arpRoute/10.0.0.0/24"), "{10.0.0.5}\n");
  EXPECT_EQ(run("get /ipv4/default/prefixToAdjacency"), "KEY          VALUE\n10.0.0.0/24  7\n");
  EXPECT_EQ(run("get /ipv4/default/intfNameToAddrWithMask/Ethernet1/1"), "10.0.0.1/24\n");
  EXPECT_EQ(run("call /ipv4/default/routeSm doFibLookup 10.0.0.0/24"),
            "10.0.0.0/24 invalid_ metric 0 preference 0 fec 0x7\n");
  EXPECT_EQ(run("call /ipv4/default/routeSm promoteArpEntries {Ethernet1/1} 10.0.0.0/25 fec 7"),
            "{10.0.0.5}\n");
  EXPECT_EQ(run("call /ipv4/default/routeSm checkIpAddressAgainstFib 10.0.0.5 "
                "/ipv4/default/routeSm/arpIntfStatus/Ethernet1/1"),
            "10.0.0.0/24\n");
  EXPECT_EQ(run("call /ipv4/default/routeSm handleArpEntries"), "");
}

TEST_F(ShellTest, MakesSetsAndDeletesEntries) {
  EXPECT_EQ(run("set /ipv4/default/prefixToAdjacency/10.9.0.0/16 0x9"), "");
  EXPECT_EQ(run("get /ipv4/default/prefixToAdjacency/10.9.0.0%2F16"), "9\n");
  EXPECT_EQ(run("set /ipv4/default/prefixToRoute 10.9.0.0/16 connected_ metric 5"), "");
  EXPECT_EQ(run("ls /ipv4/default/prefixToRoute"), "10.9.0.0/16\n");
  EXPECT_EQ(run("del /ipv4/default/prefixToAdjacency/10.9.0.0/16"), "");
  EXPECT_EQ(run("ls /ipv4/default/prefixToAdjacency"), "");
  EXPECT_EQ(run("new /ipv4/default/toMerge 10.0.0.0/8"), "{}\n");
  EXPECT_EQ(run("del /ipv4/default/routeSm"), "");
  EXPECT_EQ(run("get /ipv4/default/routeSm"), "null\n");
}

TEST_F(ShellTest, ListsEntitiesAndMembers) {
  EXPECT_EQ(run("ls"), "ipv4/\nipv6/\n");
  EXPECT_EQ(run("ls /ipv6"), "default/\n");
  const auto listed = run("ls /ipv6/default");
  EXPECT_NE(listed.find("vipToMerge"), listed.npos);
  EXPECT_NE(listed.find("handleInitialized"), listed.npos);
  EXPECT_EQ(listed.find("arpRoute"), listed.npos);
  using Texts = std::vector<std::string>;
  Cli::Shell shell(sw, player, std::cout);
  EXPECT_EQ(Cli::Shell::completions("ca"), Texts{"call"});
  EXPECT_EQ(Cli::Shell::completions("ls /ipv4/d"), Texts{"/ipv4/default"});
  EXPECT_EQ(Cli::Shell::completions("get /ipv4/default/routeSm/vr"),
            (Texts{"/ipv4/default/routeSm/vrfIpIntfStatus", "/ipv4/default/routeSm/vrfName"}));
  EXPECT_EQ(Cli::Shell::completions("call /ipv4/default/routeSm do"),
            (Texts{"doFibLookup", "doMerge"}));
  EXPECT_EQ(Cli::Shell::completions("get /nowhere/x"), Texts{});
}

TEST_F(ShellTest, ExecutesLinesOfAReplay) {
  std::ostringstream os;
  Cli::Shell shell(sw, player, os);
  EXPECT_TRUE(shell.execute(R"({"op":"initialized","vrf":"blue","value":true})"));
  EXPECT_TRUE(shell.execute("get /ipv4/blue/routeSm/initialized"));
  EXPECT_EQ(os.str(), "true\n");
  EXPECT_THROW(shell.execute(R"({"op":"jump"})"), Replay::EventError);
  // A deleted table is shown as empty.
  for (const char* table : {"/ipv4/blue/receiveTable", "/ipv4/blue/arpTable", "/ipv4/blue/toMerge",
                            "/ipv6/blue/neighTable", "/ipv6/blue/toMerge"}) {
    EXPECT_TRUE(shell.execute(std::string("del ") + table));
  }
  EXPECT_TRUE(shell.execute(R"({"op":"dump"})"));
}

TEST_F(ShellTest, RefusesWithTheReason) {
  EXPECT_EQ(run("frob /ipv4"), "error: no command frob; help lists them");
  EXPECT_EQ(run("get"), "error: get needs a path");
  EXPECT_EQ(run("get /ipv4/blue"), "error: /ipv4/blue: no such path");
  EXPECT_EQ(run("set /ipv4/default/routeSm/initialized maybe"), "error: no bool at column 1");
  EXPECT_EQ(run("set /ipv4/default/routeSm/initialized true false"),
            "error: junk at column 5 deserializing bool");
  EXPECT_EQ(run("call /ipv4/default/routeSm doFibLookup 10.0.0.0/24 x"),
            "error: too many arguments from \"x\" on");
  EXPECT_EQ(run("del /ipv4/default"), "error: /ipv4/default is no attribute");
  EXPECT_EQ(run("get /ipv4/default/handleInitialized"),
            "error: handleInitialized is a method: call it");
}

}  // namespace
