// Tests of the filing of neighbours under FIB routes, and of the merge into the route table.
#include <unistd.h>

#include "tests/hostcore/World.h"

namespace {

template <class F>
class MergeTest : public testing::Test {};
TYPED_TEST_SUITE(MergeTest, Families);

/// FEC 8 has the same via as FEC 7, but more often than a machine can count.
template <class F>
typename F::Fec oversized(Zemit::IntfId intf) {
  typename F::Fec fec(8);
  for (uint32_t i = 0; i <= Tovan::Fib::ViaIndex::max + 1; ++i)
    fec.newVia({.hop = {}, .intf = intf});
  return fec;
}

TYPED_TEST(MergeTest, LeavesAllAsItWasWhenAFecHasTooManyVias) {
  using S = Sample<TypeParam>;
  World<TypeParam> world;
  world.startWithSubnet();
  for (uint32_t n : {4U, 5U, 6U}) world.learn(world.ethernet1, n);
  world.forwarding->fecIs(oversized<TypeParam>(world.ethernet1));

  typename TypeParam::Route route = world.routeStatus->route(S::subnet());
  route.fecId = 8;
  const auto intfs = Obu::IntfDir::IntfDirIs();
  intfs->intfIs(world.ethernet1);
  EXPECT_THROW(world.machine().promoteArpEntries(intfs, route), Kiv::RangeException);
  route.key = S::wider();  // not tracked, so no state may be made for it
  EXPECT_THROW(world.machine().fixupArpRoute(S::addr(4), route), Kiv::RangeException);

  for (uint32_t n : {4U, 5U, 6U}) {
    EXPECT_TRUE(world.hasRoute(world.neighborTable(), n));
    EXPECT_TRUE(world.hasRoute(world.routeStatus, n));
  }
  EXPECT_EQ(TypeParam::neighborSet(*world.root, S::subnet())->ipCount(), 3u);
  EXPECT_FALSE(TypeParam::neighborSet(*world.root, S::wider()));
  EXPECT_FALSE(world.root->adjacencyToPrefix(8));
  world.expectBalancedReferences();
}

// A promotion looks up each neighbour of the interface, also outside the route.
TYPED_TEST(MergeTest, TracesTheErrorsOfAllNeighborsAtLevel0) {
  using S = Sample<TypeParam>;
  World<TypeParam> world;
  world.startWithSubnet();
  world.learn(world.ethernet1, 5);
  world.routeStatus->routeDel(S::subnet());
  const TraceLog log(TypeParam::trace(), {0});
  const auto intfs = Obu::IntfDir::IntfDirIs();
  intfs->intfIs(world.ethernet1);
  world.machine().promoteArpEntries(
      intfs,
      {.key = TypeParam::Prefix::host(S::addr(6)), .metricPref = {}, .routeType = {}, .fecId = 7});
  ASSERT_EQ(log.records.size(), 1u);
  EXPECT_NE(log.records[0].find("a prefix that should have an associated route"),
            std::string::npos);
}

TYPED_TEST(MergeTest, KeepsTheReferenceOfAHostRouteThatDoesNotChange) {
  World<TypeParam> world;
  world.startWithSubnet();
  world.learn(world.ethernet1, 5);
  const auto before =
      world.neighborTable()->route(TypeParam::Prefix::host(Sample<TypeParam>::addr(5)));
  for (int i = 0; i < 3; ++i) {
    TypeParam::neighborNotify(world.table(world.ethernet1), Sample<TypeParam>::addr(5));
  }
  world.forwarding->fecNotify(7);
  EXPECT_EQ(world.neighborTable()->route(before.key), before);
  world.expectBalancedReferences();

  // The FEC gains an interface on which the neighbour is known too.
  world.learn(world.ethernet2, 5);
  world.forwarding->fecIs(typename TypeParam::Fec(
      7, {{.hop = {}, .intf = world.ethernet1}, {.hop = {}, .intf = world.ethernet2}}));
  const auto after = world.neighborTable()->route(before.key);
  EXPECT_EQ(world.neighborTable()->adjIndexToViaSet(after.fecId).size(), 2u);
  world.expectBalancedReferences();
  world.routeDel(Sample<TypeParam>::subnet());
  EXPECT_EQ(world.adjHelper->fibAdjacencies().size(), 0u);
  world.expectBalancedReferences();
}

// The writer stops the process at a route without a type.
TYPED_TEST(MergeTest, HandlesAFibHostRouteWithoutTypeLikeOneWithoutAdjacency) {
  World<TypeParam> world;
  world.startWithSubnet();
  world.learn(world.ethernet1, 5);
  ASSERT_TRUE(world.hasRoute(world.routeStatus, 5));
  const auto host = TypeParam::Prefix::host(Sample<TypeParam>::addr(5));
  world.hostStatus->routeIs(
      {.key = host, .metricPref = {}, .routeType = TypeParam::kInvalid, .fecId = 7});
  world.machine().handleHostStatusRoute(host);
  EXPECT_FALSE(world.hasRoute(world.routeStatus, 5));
  world.expectBalancedReferences();
}

TYPED_TEST(MergeTest, ReleasesTheAdjacencyOfARouteThatCannotBeWritten) {
  World<TypeParam> world;
  const std::string name = "hostcore-test-" + std::to_string(::getpid());
  const auto writer = Kiv::make<typename TypeParam::RouteStatus>(name, Tovan::Access::Write);
  world.routeStatus = Kiv::make<typename TypeParam::RouteStatus>(name, Tovan::Access::Read);
  world.newMachine();
  world.machine().initializedIs(true);
  world.forwarding->fecIs(typename TypeParam::Fec(7, {{.hop = {}, .intf = world.ethernet1}}));
  writer->routeIs({.key = Sample<TypeParam>::subnet(),
                   .metricPref = {},
                   .routeType = TypeParam::kConnected,
                   .fecId = 7});
  world.machine().handleStatusRoute(Sample<TypeParam>::subnet());
  TraceLog log(TypeParam::trace(), {0});
  world.learn(world.ethernet1, 5);
  EXPECT_FALSE(log.records.empty()) << "the write was not refused";
  EXPECT_TRUE(world.hasRoute(world.neighborTable(), 5));
  EXPECT_EQ(world.adjHelper->fibAdjacencies().size(), 0u);
  Tovan::removeTablesOf(name);
}

// The table also has IPv6 addresses, which must match no IPv4 address.
TEST(VirtualIpTest, AnIpv6AddressInTheIpv4TableMatchesNoIpv4Address) {
  World<Daemon::Ipv4> world;
  world.startWithSubnet();
  world.learn(world.ethernet1, 5);
  const Routing::Fhrp::VrfIpWithMaskPair pair(
      L3::VrfName("red"), Zemit::Ip6AddrWithMask(Zemit::Ip6Addr(0, 0x0A000005), 128));
  world.virtualIps->virtualIpIs(pair, true);
  world.virtualIps->virtualIpIs(pair, false);
  EXPECT_TRUE(world.hasRoute(world.routeStatus, 5));
  EXPECT_FALSE(world.virtualIps->isVirtual(Sample<Daemon::Ipv4>::addr(5)));
}

}  // namespace
