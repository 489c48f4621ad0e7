// Tests that the recorded operations of a switch, replayed, give the same switch.
#include "replay/Recording.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <vector>

#include "replay/Output.h"
#include "replay/Player.h"

namespace {

using namespace Daemon;

Zemit::IntfId intf(const char* name) {
  return Zemit::IntfId::of(Kiv::String8(name));
}

template <class F>
typename F::Addr addr(const char* text) {
  return *F::Addr::parse(text);
}

template <class F>
SetRoute<F> route(const char* vrf, const char* prefix, typename F::RouteType type, uint64_t fec,
                  uint32_t metric = 0, uint8_t preference = 1) {
  return {.vrf = vrf,
          .route = {.key = *F::Prefix::parse(prefix),
                    .metricPref = {.metric = metric, .preference = preference},
                    .routeType = type,
                    .fecId = fec}};
}

/// A sequence of operations with each kind of operation and each of its members.
std::vector<Operation> operations() {
  const auto swp1 = intf("swp1"), odd = intf("swp\t\"2\"");
  const auto mac = *Zemit::EthAddr::parse("02:00:00:00:00:05");
  return {
      SetVrf{"blue"},
      SetInterface{swp1, "default"},
      SetInterface{odd, "blue"},
      SetInterface{intf("gone"), "blue"},
      SetAddress<Ipv4>{swp1, *Ipv4::AddrWithMask::parse("10.0.0.1/24")},
      SetAddress<Ipv4>{swp1, *Ipv4::AddrWithMask::parse("10.0.1.1/24"), true},
      SetAddress<Ipv4>{swp1, *Ipv4::AddrWithMask::parse("10.0.2.1/24"), true},
      SetAddress<Ipv4>{swp1, *Ipv4::AddrWithMask::parse("10.0.2.1/24"), true, false},
      SetAddress<Ipv6>{odd, *Ipv6::AddrWithMask::parse("2001:db8::1/64")},
      SetFec<Ipv4>{Ipv4::Fec(1, {{.intf = swp1}})},
      SetFec<Ipv4>{Ipv4::Fec(
          2, {{.hop = kIpv6NextHop, .intf = swp1}, {.hop = addr<Ipv4>("10.0.0.9"), .intf = odd}})},
      SetFec<Ipv4>{Ipv4::Fec(4, {{.intf = odd}})},
      SetFec<Ipv4>{Ipv4::Fec(4), false},
      SetFec<Ipv6>{Ipv6::Fec(3, {{.intf = odd}})},
      route<Ipv4>("default", "10.0.0.0/24", Routing::Fib::connected_, 1),
      route<Ipv4>("default", "10.9.0.1/32", Routing::Fib::ebgp_, 2, 20, 200),
      route<Ipv4>("default", "10.9.0.0/24", Routing::Fib::staticConfig_, 0),
      route<Ipv6>("blue", "2001:db8::/64", Routing6::Fib::connected_, 3, 256),
      SetInitialized{"default"},
      SetInitialized{"blue"},
      SetRibReady{"default"},
      SetNeighborTable{intf("gone")},
      SetNeighbor<Ipv4>{swp1, {addr<Ipv4>("10.0.0.5"), mac}},
      SetNeighbor<Ipv4>{swp1, {addr<Ipv4>("10.0.0.6"), {}}},
      SetNeighbor<Ipv4>{swp1, {addr<Ipv4>("10.0.0.7"), mac}},
      SetNeighbor<Ipv6>{odd, {addr<Ipv6>("2001:db8::5"), mac}},
      SetNeighbor<Ipv4>{swp1, {addr<Ipv4>("10.0.0.6"), {}}, false},
      SetVirtualIp<Ipv4>{"default", *Ipv4::AddrWithMask::parse("10.0.0.7/24")},
      SetVirtualIp<Ipv6>{"blue", *Ipv6::AddrWithMask::parse("2001:db8::7/128")},
      route<Ipv4>("default", "10.9.0.0/24", Routing::Fib::staticConfig_, 0),
      SetNeighborTable{intf("gone"), false},
      SetInterface{intf("gone"), "blue", false},
  };
}

std::string tablesOf(const Switch& sw) {
  std::string text;
  for (const auto& [name, vrf] : sw.vrfs()) {
    forEachFamily([&, &vrf = vrf](auto family) {
      text += Replay::dumpJson<decltype(family)>(sw, vrf) + "\n";
    });
  }
  return text;
}

TEST(RecordingTest, ReplayingEachOperationGivesTheSameTables) {
  Switch original, replayed;
  std::ostringstream printed;
  const auto output = Replay::jsonOutput(printed);
  Replay::Player player(replayed, *output, {});
  std::set<std::string> states;
  for (const Operation& operation : operations()) {
    apply(original, operation);
    const std::string recorded = Replay::linesOf(operation);
    std::istringstream lines(recorded);
    for (std::string line; std::getline(lines, line);) {
      ASSERT_NO_THROW(player.apply(line)) << line;
    }
    ASSERT_EQ(tablesOf(replayed), tablesOf(original)) << recorded;
    states.insert(tablesOf(original));
  }
  // The operations must have produced different states.
  EXPECT_GT(states.size(), 12u);
  EXPECT_NE(tablesOf(original).find(R"("prefix":"10.0.0.5/32")"), std::string::npos);
}

TEST(RecordingTest, LinesHaveTheDocumentedFields) {
  const auto swp1 = intf("swp1");
  EXPECT_EQ(Replay::linesOf(SetFec<Ipv4>{Ipv4::Fec(2, {{.hop = kIpv6NextHop, .intf = swp1}})}),
            R"({"op":"fec","id":2,"family":4,"vias":[{"intf":"swp1","hop":"ipv6"}]})"
            "\n");
  EXPECT_EQ(Replay::linesOf(route<Ipv6>("blue", "::/0", Routing6::Fib::bgp_, 7, 20, 200)),
            R"({"op":"route","vrf":"blue","prefix":"::/0","type":"bgp_","fec":7,"metric":20,)"
            R"("preference":200})"
            "\n");
  EXPECT_EQ(Replay::linesOf(SetRibReady{"blue", false}),
            R"({"op":"ribReady","vrf":"blue","value":false})"
            "\n"
            R"({"op":"startRibReadyVerification","vrf":"blue","value":false})"
            "\n");
}

}  // namespace
