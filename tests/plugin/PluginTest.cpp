// A daemon that links the shared libraries: calls, types and exceptions between it and the plug-in.
#include <gtest/gtest.h>

#include <string>
#include <typeinfo>
#include <vector>

#include "host/HostRouteSm.h"
#include "host6/HostRoute6Sm.h"
#include "platform/kiv/containers/Exception.h"
#include "tests/hostcore/World.h"

namespace {

template <class F>
class PluginTest : public testing::Test {};
TYPED_TEST_SUITE(PluginTest, Families);

// The daemon must be able to tell a refusal from any other failure.
TYPED_TEST(PluginTest, ExceptionsAreCaughtByTheirTypes) {
  World<TypeParam> world;
  try {
    world.root->adjacencyToPrefixIs(nullptr);
    FAIL() << "a null list was accepted";
  } catch (const Kiv::RangeException& refusal) {
    EXPECT_NE(std::string(refusal.what()).find("null _adjacencyToPrefix"), std::string::npos);
  }
}

TYPED_TEST(PluginTest, AnEntityHasOneTypeOnBothSides) {
  using Root = typename TypeParam::RouteSmRoot;
  World<TypeParam> world;
  world.newMachine();
  const Kiv::Entity* root = world.root.get();
  EXPECT_EQ(typeid(*root), typeid(Root));
  EXPECT_EQ(dynamic_cast<const Root*>(world.machine().parent()), root);
  EXPECT_EQ(world.machine().parentAttr(), "routeSm");
}

// The plug-in's changes must reach the daemon's tables and its notifiees.
TYPED_TEST(PluginTest, TheMachineReadsTheDaemonsInputsAndNotifiesItsReactors) {
  using Prefix = typename TypeParam::Prefix;
  class Watcher final : public TypeParam::RouteSmRoot::NotifieeConst {
   public:
    void onPrefixToRoute(const Prefix& prefix) override { seen.push_back(prefix); }
    std::vector<Prefix> seen;
  };
  World<TypeParam> world;
  const auto watcher = Kiv::make<Watcher>();
  watcher->notifierIs(world.root);
  world.startWithSubnet();
  EXPECT_EQ(watcher->seen, std::vector{Sample<TypeParam>::subnet()});

  world.learn(world.ethernet1, 5);
  EXPECT_TRUE(world.hasRoute(world.routeStatus, 5));
  world.lose(world.ethernet1, 5);
  EXPECT_FALSE(world.hasRoute(world.routeStatus, 5));
}

// The main headers declare them for the daemon.
TYPED_TEST(PluginTest, TheFreeFunctionsCanBeCalled) {
  using F = TypeParam;
  using S = Sample<F>;
  World<F> world;
  world.startWithSubnet();
  const auto use = [&](auto add, auto remove, auto skip, auto intersect, auto subtract) {
    const auto table = world.root->receiveTable();
    add(table, nullptr, S::addr(5), 0, S::kReceive, nullptr, world.root, L3::VrfName("red"));
    EXPECT_TRUE(world.hasRoute(table, 5));
    remove(S::addr(5), table, nullptr, world.adjHelper);
    EXPECT_FALSE(world.hasRoute(table, 5));
    EXPECT_TRUE(skip(world.neighborDir->newArpIntfStatus("Management1")));
    const auto intfs = Obu::IntfDir::IntfDirIs();
    intfs->intfIs(world.ethernet1);
    EXPECT_TRUE(intersect(intfs, intfs));
    EXPECT_EQ(subtract(intfs, intfs)->count(), 0u);
  };
  const auto changed = F::AddrSet::AddrSetIs(F::Prefix::null());
  if constexpr (S::kIsIpv4) {
    using namespace Routing::Host;
    use(addRouteToRouteTable, removeHostRoute, skipInterface, nonemptyIntersection, subtract);
    const auto status = world.interfaceStatus(world.ethernet1, nullptr);
    status->activeAddrWithMaskIs({S::addr(1), 32});
    recomputeReceiveRoutes(world.root->routeSm(), status);
    addActiveReceiveRoutes(status, {S::addr(2), 32}, world.root, changed);
    removeAddrMaskFromReceiveTable({S::addr(2), 32}, "Ethernet1", changed, world.root);
    removeReceiveRoutes(status, "Ethernet1", world.root, changed);
    removeReceiveRoute(S::addr(3), "Ethernet1", world.root);
    EXPECT_EQ(changed->ipCount(), 2u);
  } else {
    using namespace Routing6::Host;
    use(addRouteToRouteTable, removeHostRoute, skipInterface, nonemptyIntersection, subtract);
    removeReceiveRoutes(nullptr, "Ethernet1", world.root, changed);
  }
  EXPECT_TRUE(world.machine().hasNoReceiveRoutes());
}

}  // namespace
