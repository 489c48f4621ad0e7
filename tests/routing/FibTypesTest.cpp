// Tests of the tables' values: routes, vias, FECs, via sets and others.
#include "platform/tovan/FibTypes.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/arp/ArpEntryStatus.h"
#include "platform/routing/FhrpTypes.h"
#include "platform/rovel/ViaSet.h"

namespace {

using Zemit::IntfId;
using Zemit::Ip6Addr;
using Zemit::IpAddr;

template <class T>
std::string text(const T& value) {
  std::ostringstream os;
  os << value;
  return os.str();
}

template <class Route, class Via, class Fec, class ViaSet>
struct Family {
  using R = Route;
  using V = Via;
  using F = Fec;
  using S = ViaSet;
};
using Ipv4 = Family<Tovan::Fib::Route, Tovan::Fib::Via, Tovan::Fib::Fec, Rovel::ViaSet>;
using Ipv6 = Family<Tovan::Fib6::Route, Tovan::Fib6::Via, Tovan::Fib6::Fec, Rovel::Via6Set>;

template <class F>
class FibTypesTest : public testing::Test {
 protected:
  using V = typename F::V;
  /// A via. Vias sort by their `number`.
  static V via(uint32_t number) {
    if constexpr (std::is_same_v<V, Tovan::Fib::Via>) {
      return {.hop = IpAddr(number)};
    } else {
      return {.hop = Ip6Addr(0, number)};
    }
  }
};
using Families = testing::Types<Ipv4, Ipv6>;
TYPED_TEST_SUITE(FibTypesTest, Families);

// Replays use these names.
TYPED_TEST(FibTypesTest, RouteTypesAreReadByTheirPrintedNames) {
  using Type = decltype(TypeParam::R::routeType);
  const auto unknown = Routing::parseRouteType<Type>("unknown_");
  ASSERT_TRUE(unknown);
  for (uint32_t value = 0; value <= *unknown; ++value) {
    const Type type = static_cast<Type>(value);
    EXPECT_EQ(Routing::parseRouteType<Type>(text(type)), type) << value;
  }
  EXPECT_EQ(text(static_cast<Type>(*unknown + 1)), "unknown_");
  for (const char* name : {"", "attached", "Attached_", "unknown_ ", "v4Host_"}) {
    EXPECT_FALSE(Routing::parseRouteType<Type>(name)) << name;
  }
}

TYPED_TEST(FibTypesTest, AFecMayHaveMoreViasThanCanBeRead) {
  typename TypeParam::F fec(5);
  for (uint32_t i = 0; i < 200; ++i) fec.newVia(this->via(i));
  EXPECT_EQ(fec.id(), 5u);
  EXPECT_EQ(fec.viaCount(), 200u);
  EXPECT_EQ(fec.via(Tovan::Fib::ViaIndex(0)), this->via(0));
  EXPECT_EQ(fec.via(Tovan::Fib::ViaIndex(127)), this->via(127));
  try {
    fec.via(Tovan::Fib::ViaIndex(128));
    ADD_FAILURE();
  } catch (const Kiv::RangeException& refusal) {
    EXPECT_STREQ(refusal.what(), "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed");
  }
}

// Routes with equal via sets share an adjacency, so sets with the same members must be equal,
// independent of their construction.
TYPED_TEST(FibTypesTest, AViaSetHasEachViaOnceAndInOrder) {
  using Set = typename TypeParam::S;
  std::mt19937 rng{1};
  for (uint32_t size : {0U, 1U, 2U, 3U, 9U, 64U}) {
    std::map<typename TypeParam::V, uint32_t> model;
    Set set;
    for (uint32_t i = 0; i < 3 * size; ++i) {
      const auto via = this->via(static_cast<uint32_t>(rng()) % size);
      set.newVia(via, i);
      model[via] = i;
    }
    Set sorted;
    for (const auto& [via, weight] : model) sorted.newVia(via, weight);
    EXPECT_EQ(set, sorted) << size;
    EXPECT_EQ(set.hash(), sorted.hash()) << size;
    ASSERT_EQ(set.size(), model.size());
    EXPECT_EQ(set.empty(), size == 0);
    auto expected = model.begin();
    for (const auto& [via, weight] : set) {
      EXPECT_EQ(via, expected->first);
      EXPECT_EQ(weight, (expected++)->second);
    }

    Set copy = set;
    Set other;
    other.newVia(this->via(1), 1);
    other.newVia(this->via(2), 2);
    other = copy;
    EXPECT_EQ(other, set);
    copy.newVia(this->via(1000), 1);
    EXPECT_NE(copy, set);
    EXPECT_EQ(other, set);
    const Set moved = std::move(other);
    EXPECT_EQ(moved, set);
    other = std::move(copy);
    EXPECT_EQ(other.size(), set.size() + 1);
  }
}

TYPED_TEST(FibTypesTest, ViaSetsDifferInHopInterfaceAndWeight) {
  using Set = typename TypeParam::S;
  auto other = this->via(1);
  other.intf = IntfId::of("Ethernet1");
  Set sets[4];
  sets[0].newVia(this->via(1), 1);
  sets[1].newVia(this->via(1), 2);
  sets[2].newVia(this->via(2), 1);
  sets[3].newVia(other, 1);
  for (int a = 0; a < 4; ++a) {
    for (int b = 0; b < 4; ++b) {
      EXPECT_EQ(sets[a] == sets[b], a == b) << a << b;
      EXPECT_EQ(sets[a].hash() == sets[b].hash(), a == b) << a << b;
    }
  }
}

TEST(FibTypesTextTest, PrintsAsTracesShowIt) {
  const Tovan::Fib::Route route{.key = Zemit::Prefix::host(IpAddr(0x0A000005)),
                                .metricPref = {.metric = 20, .preference = 200},
                                .routeType = Routing::Fib::attached_,
                                .fecId = 0x1'0000'001f};
  std::ostringstream os;
  os << std::hex << route << ", " << route.metricPref;
  EXPECT_EQ(os.str(),
            "10.0.0.5/32 attached_ metric 20 preference 200 fec 0x10000001f, "
            "metric 20 preference 200");
  const Tovan::Fib6::Route longest{
      .key = *Zemit::Ip6Prefix::parse("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128"),
      .metricPref = {.metric = 0xFFFFFFFF, .preference = 255},
      .routeType = Routing6::Fib::ospfAggregate_,
      .fecId = ~Tovan::Fib::FecId{0}};
  EXPECT_EQ(text(longest),
            "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128 ospfAggregate_ metric 4294967295 "
            "preference 255 fec 0xffffffffffffffff");
  EXPECT_EQ(text(Tovan::Fib::Via{.hop = {}, .intf = IntfId::of("Ethernet1")}), "Ethernet1 0.0.0.0");
  EXPECT_EQ(text(Arp::ArpEntryStatus{IpAddr(0x0A000005), {}}), "10.0.0.5");
  EXPECT_EQ(
      text(Arp::Ip6NeighborEntryStatus{Ip6Addr(0, 5), *Zemit::EthAddr::parse("00:11:22:33:44:55")}),
      "::5 00:11:22:33:44:55");
}

TEST(FhrpTypesTest, PairsDifferInVrfAndAddress) {
  using Routing::Fhrp::VrfIpWithMaskPair;
  const L3::VrfName red("red");
  const Zemit::IpAddrWithMask addr(IpAddr(0x0A000001), 24);
  const VrfIpWithMaskPair pair(red, addr);
  EXPECT_EQ(pair, VrfIpWithMaskPair(L3::VrfName("red"), addr));
  EXPECT_EQ(pair.hash(), VrfIpWithMaskPair(L3::VrfName("red"), addr).hash());
  for (const auto& other :
       {VrfIpWithMaskPair(L3::VrfName("blue"), addr),
        VrfIpWithMaskPair(red, Zemit::IpAddrWithMask(addr.addr(), 25)),
        VrfIpWithMaskPair(red, Zemit::IpAddrWithMask(IpAddr(0x0A000002), 24))}) {
    EXPECT_NE(pair, other) << other;
    EXPECT_NE(pair.hash(), other.hash()) << other;
    EXPECT_NE(pair < other, other < pair) << other;
  }
  EXPECT_EQ(pair.v4Addr(), addr.addr());
  EXPECT_EQ(text(pair), "red 10.0.0.1/24");
  EXPECT_EQ(text(Routing::Fhrp::VrfIpPair(red, Ip6Addr(0, 1))), "red ::1");
}

}  // namespace
