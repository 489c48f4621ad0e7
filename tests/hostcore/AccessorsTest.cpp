// Tests of the accessors of machines, roots and their tables.
#include <algorithm>

#include "tests/hostcore/World.h"

namespace {

template <class F>
class AccessorsTest : public testing::Test {};
TYPED_TEST_SUITE(AccessorsTest, Families);

template <class F>
auto routeSmIs(World<F>& world, const char* vrf) {
  return world.withInputs(
      [&world](const auto&... inputs) { return world.root->routeSmIs(inputs...); }, vrf);
}

TYPED_TEST(AccessorsTest, AMachineWithTheSameInputsIsKept) {
  World<TypeParam> world;
  const auto made = routeSmIs(world, "red");
  ASSERT_TRUE(made);
  EXPECT_EQ(world.root->routeSm(), made);
  EXPECT_EQ(routeSmIs(world, "red"), made);
  const auto blue = routeSmIs(world, "blue");
  EXPECT_NE(blue, made);
  EXPECT_EQ(world.machine().vrfName(), L3::VrfName("blue"));
  world.readiness = nullptr;
  EXPECT_NE(routeSmIs(world, "blue"), blue);
  EXPECT_EQ(world.machine().vrfReadiness(), nullptr);
}

TYPED_TEST(AccessorsTest, NewReplacesAndReturnsTheObject) {
  using Prefix = typename TypeParam::Prefix;
  World<TypeParam> world;
  auto& root = *world.root;
  const auto expectNew = [](const auto& make, const auto& present) {
    const auto before = present();
    const auto made = make();
    ASSERT_TRUE(made);
    EXPECT_NE(made, before);
    EXPECT_EQ(made, present());
    EXPECT_NE(made->parent(), nullptr);
    EXPECT_NE(make(), made);
  };
  const auto prefix = Sample<TypeParam>::subnet();
  expectNew([&] { return root.newReceiveTable("receiveTable"); },
            [&] { return root.receiveTable(); });
  expectNew([&] { return root.newToMerge(Prefix::null()); }, [&] { return root.toMerge(); });
  if constexpr (Sample<TypeParam>::kIsIpv4) {
    expectNew([&] { return root.newArpTable("arpTable"); }, [&] { return root.arpTable(); });
    expectNew([&] { return root.newArpRoute(prefix); }, [&] { return root.arpRoute(prefix); });
    expectNew([&] { return root.newIntfNameToSecondaryAddrWithMask("Ethernet1"); },
              [&] { return root.intfNameToSecondaryAddrWithMask("Ethernet1"); });
  } else {
    expectNew([&] { return root.newNeighTable("neighTable"); }, [&] { return root.neighTable(); });
    expectNew([&] { return root.newNeighRoute(prefix); }, [&] { return root.neighRoute(prefix); });
    expectNew([&] { return root.newIntfNameToAddrWithMask("Ethernet1"); },
              [&] { return root.intfNameToAddrWithMask("Ethernet1"); });
    expectNew([&] { return root.newVipToMerge(Prefix::null()); },
              [&] { return root.vipToMerge(); });
  }
}

// A replaced reactor releases the machine and its input. The new one catches up with the input.
TYPED_TEST(AccessorsTest, NewReactorsReplaceTheFormerOnes) {
  World<TypeParam> world;
  world.startWithSubnet();
  auto& machine = world.machine();
  world.addressIs(*world.interface(world.ethernet1, world.inVrf(world.ethernet1, "red")), 1);
  world.learn(world.ethernet1, 4);
  world.learn(world.ethernet1, 5);

  const auto neighbors = machine.arpIntfStatus("Ethernet1");
  const auto table = Kiv::make<Arp::ArpIntfStatus>(world.ethernet1);
  TypeParam::neighborIs(*table, {.ipAddr = Sample<TypeParam>::addr(5)});
  machine.neighborDirByIntfName()->hasNotificationActiveIs(false);
  world.neighborDir->arpIntfStatusIs(table);
  machine.neighborDirByIntfName()->hasNotificationActiveIs(true);
  EXPECT_EQ(machine.newArpIntfStatus(table), machine.arpIntfStatus("Ethernet1"));
  EXPECT_NE(machine.arpIntfStatus("Ethernet1"), neighbors);
  EXPECT_EQ(neighbors->routeSm(), nullptr);
  EXPECT_FALSE(neighbors->notifier());
  EXPECT_FALSE(world.hasRoute(world.routeStatus, 4)) << "only the former table has it";
  EXPECT_TRUE(world.hasRoute(world.routeStatus, 5));

  const auto filter = machine.ipIntfStatusFilter(world.ethernet1);
  const auto addresses = machine.ipIntfStatus(world.ethernet1);
  const auto status = world.interfaceStatus(world.ethernet1, world.inVrf(world.ethernet1, "red"));
  world.addressIs(*status, 2);
  EXPECT_EQ(machine.newIpIntfStatusFilter(status), machine.ipIntfStatusFilter(world.ethernet1));
  EXPECT_NE(machine.ipIntfStatusFilter(world.ethernet1), filter);
  EXPECT_FALSE(filter->l3Status()->notifier());
  EXPECT_FALSE(world.hasRoute(world.root->receiveTable(), 1));
  EXPECT_TRUE(world.hasRoute(world.root->receiveTable(), 2));
  EXPECT_EQ(machine.newIpIntfStatus(status), machine.ipIntfStatus(world.ethernet1));
  EXPECT_FALSE(addresses->notifier());
  world.addressIs(*status, 3);
  EXPECT_TRUE(world.hasRoute(world.root->receiveTable(), 3));

  EXPECT_EQ(machine.newFwdStatus(world.forwarding), machine.fwdStatus());
  EXPECT_EQ(machine.newNeighborDirByIntfName(world.neighborDir), machine.neighborDirByIntfName());
  EXPECT_THROW(machine.newArpIntfStatus(nullptr), Kiv::RangeException);
  EXPECT_THROW(machine.newIpIntfStatusFilter(nullptr), Kiv::RangeException);
  EXPECT_THROW(machine.newIpIntfStatus(nullptr), Kiv::RangeException);
  world.expectBalancedReferences();
}

/// The entries of a table, read through its iterators.
template <class Iterator>
auto walked(Iterator at) {
  using Key = std::remove_cvref_t<decltype(at.key())>;
  std::vector<std::pair<Key, std::remove_cvref_t<decltype(at.ptr())>>> entries;
  for (; at; ++at) entries.emplace_back(at.key(), at.ptr());
  std::sort(entries.begin(), entries.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  return entries;
}

TYPED_TEST(AccessorsTest, TablesAreWalkedAndEmptiedLikeCollections) {
  using S = Sample<TypeParam>;
  using Route = typename TypeParam::Route;
  using Fec = typename TypeParam::Fec;
  World<TypeParam> world;
  world.newMachine();
  const auto checkRoutes = [](auto& table, auto& it) {
    const std::vector<Route> routes{{.key = S::wider(), .fecId = 7}, {.key = S::subnet()}};
    for (const auto& route : routes) table.routeIs(route);
    const auto entries = walked(table.routeIteratorConst());
    ASSERT_EQ(entries.size(), 2u);
    for (const auto& [key, route] : entries) {
      EXPECT_EQ(key, route.key);
      EXPECT_EQ(std::count(routes.begin(), routes.end(), route), 1);
    }
    it = table.routeIterator();
    const auto first = it.key();
    table.routeDel(it);
    ++it;
    ASSERT_TRUE(it);
    EXPECT_NE(it.key(), first);
    EXPECT_EQ(table.routeCount(), 1u);
    table.routeDelAll();
    EXPECT_EQ(table.routeCount(), 0u);
  };
  typename TypeParam::RouteStatus::RouteIterator inRouteStatus = world.routeStatus->routeIterator();
  checkRoutes(*world.routeStatus, inRouteStatus);
  typename TypeParam::HostTable::RouteIterator inHostStatus = world.hostStatus->routeIterator();
  checkRoutes(*world.hostStatus, inHostStatus);
  world.root->prefixToRouteIs({.key = S::subnet(), .fecId = 7});
  EXPECT_EQ(world.root->prefixToRouteIterator().ptr(), (Route{.key = S::subnet(), .fecId = 7}));

  const Fec seven(7, {{.hop = {}, .intf = world.ethernet1}, {.hop = {}, .intf = world.ethernet2}});
  const Fec eight(8, {{.hop = S::addr(9), .intf = world.ethernet1}});
  world.forwarding->fecIs(seven);
  world.forwarding->fecIs(eight);
  typename TypeParam::ViaSet vias;
  vias.newVia({.hop = S::addr(5), .intf = world.ethernet1}, 1);
  const auto adjacency = world.adjHelper->doGetOrCreateFibAdjacency(vias);
  const std::vector<std::pair<Tovan::Fib::FecId, Fec>> both{{7, seven}, {8, eight}};
  EXPECT_EQ(walked(world.forwarding->fecIteratorConst()), both);
  const auto it = world.forwarding->fecIterator();
  const auto deleted = it.key();
  world.forwarding->fecDel(it);
  EXPECT_EQ(world.forwarding->fecKeys(), std::vector<Tovan::Fib::FecId>{deleted == 7 ? 8u : 7u});
  world.forwarding->fecDelAll();
  EXPECT_TRUE(world.forwarding->fecKeys().empty());
  EXPECT_EQ(world.forwarding->fec(adjacency).id(), adjacency) << "its helper still has it";

  auto& virtualIps = *world.virtualIps;
  for (const uint32_t n : {1u, 2u, 3u})
    virtualIps.newVirtualIp(S::virtualAddr("red", S::addr(n)), true);
  EXPECT_TRUE(virtualIps.isVirtual(S::addr(1)));
  virtualIps.virtualIpDel(virtualIps.virtualIpIterator());
  EXPECT_EQ(virtualIps.virtualIpCount(), 2u);
  virtualIps.virtualIpDelAll();
  for (const uint32_t n : {1u, 2u, 3u}) EXPECT_FALSE(virtualIps.isVirtual(S::addr(n))) << n;
}

// These functions get no root, so they trace for no object. The machine's own calls trace for its
// root.
TEST(SetFunctionsTest, Ipv6OnesTraceWhenTheyAreCalledByHand) {
  TraceLog log(Daemon::Ipv6::trace(), {8});
  const auto dir = Obu::IntfDir::IntfDirIs();
  Routing6::Host::nonemptyIntersection(dir, dir);
  Routing6::Host::subtract(dir, dir);
  EXPECT_EQ(log.records,
            (std::vector<std::string>{
                "8 HostRoute6Sm nonemptyIntersection: bool Routing6::Host::nonemptyIntersection("
                "Obu::IntfDir::PtrConst, Obu::IntfDir::PtrConst)",
                "8 HostRoute6Sm subtract: Obu::IntfDir::Ptr Routing6::Host::subtract("
                "Obu::IntfDir::PtrConst, Obu::IntfDir::PtrConst)"}));
}

/// Sets the hook of the process during its lifetime.
class Hook {
 public:
  explicit Hook(Kiv::Notifiee::AttributeHook hook) {
    Kiv::Notifiee::attributeHookIs(std::move(hook));
  }
  ~Hook() { Kiv::Notifiee::attributeHookIs({}); }
};

// A reflective observer has no handle to the machine's reactors, but sees their notifications.
TYPED_TEST(AccessorsTest, AnObserverConsumesNotificationsOfTheMachinesOwnReactors) {
  using S = Sample<TypeParam>;
  World<TypeParam> world;
  world.startWithSubnet();
  world.learn(world.ethernet1, 4);
  world.table(world.ethernet2);
  const auto l3Status = world.inVrf(world.ethernet2, "blue");
  world.addressIs(*world.interface(world.ethernet2, l3Status), 1);

  std::vector<std::pair<std::string, Kiv::AttributeId>> offered;
  bool consumes = true;
  {
    const Hook hook([&](const Kiv::Notifiee& reactor, Kiv::AttributeId id, const void* value) {
      EXPECT_NE(value, nullptr);
      offered.emplace_back(Kiv::Tracer::objectName(reactor).view(), id);
      return consumes;
    });
    world.forwarding->fecIs(typename TypeParam::Fec(7, {{.hop = {}, .intf = world.ethernet2}}));
    EXPECT_TRUE(world.hasRoute(world.routeStatus, 4)) << "the handler ran all the same";
    EXPECT_EQ(world.machine().fwdStatus()->fecId(), 7u);
    world.learn(world.ethernet2, 5);
    EXPECT_TRUE(world.hasRoute(world.routeStatus, 5)) << "it relies on what it was not told";
    l3Status->vrfIs(L3::VrfName("red"));
    EXPECT_FALSE(world.hasRoute(world.root->receiveTable(), 1));
    world.virtualIps->virtualIpIs(S::virtualAddr("red", S::addr(4)), true);
    EXPECT_TRUE(world.hasRoute(world.routeStatus, 4));
    world.virtualIps->virtualIpIs(S::virtualAddr("red", S::addr(4)), false);
    world.readiness->startRibReadyVerificationIs(true);
    world.readiness->ribReadyIs(true);
    EXPECT_FALSE(world.readiness->routeStatus(TypeParam::kReadyKind)->ready());
    EXPECT_FALSE(TypeParam::hostRoutesSynced(*world.readiness));
    using Offered = decltype(offered);
    EXPECT_EQ(offered, (Offered{{"forwarding", 258},
                                {"Ethernet2", 258},
                                {"virtualIps", 258},
                                {"virtualIps", 258},
                                {"red", 258},
                                {"red", 260}}));
    consumes = false;
    world.readiness->ribReadyNotify();
    EXPECT_TRUE(TypeParam::hostRoutesSynced(*world.readiness));
  }
  world.forwarding->fecNotify(7);
  EXPECT_FALSE(world.hasRoute(world.routeStatus, 4));
}

}  // namespace
