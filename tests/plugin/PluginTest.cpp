// A daemon that links the shared libraries: what crosses the border between it and the plug-in.
#include <gtest/gtest.h>

#include <string>
#include <typeinfo>
#include <vector>

#include "host/HostRouteSm.h"
#include "host6/HostRoute6Sm.h"
#include "platform/kiv/Exception.h"
#include "tests/hostcore/World.h"

namespace {

template <class F>
class PluginTest : public testing::Test {};
TYPED_TEST_SUITE(PluginTest, Families);

// The daemon must be able to tell a refusal from any other failure.
TYPED_TEST(PluginTest, ARefusalIsCaughtAsWhatItIs) {
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

// What the plug-in changes must reach the daemon's tables and those who watch.
TYPED_TEST(PluginTest, TheMachineReadsTheDaemonsInputsAndTellsItsReactors) {
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

}  // namespace
