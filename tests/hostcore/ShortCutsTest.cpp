// Tests of the short cuts: quiet reactors of neighbour tables, cached covers, repeated events.
#include "hostcore/fast/State.h"
#include "tests/hostcore/World.h"

namespace {

template <class F>
class ShortCutsTest : public testing::Test {
 protected:
  bool isQuiet(Zemit::IntfId intf) { return world.machine().arpIntfStatus(intf.name())->isQuiet(); }
  void announce(Zemit::IntfId intf, uint32_t n) {
    F::neighborNotify(world.table(intf), Sample<F>::addr(n));
  }
  typename F::Route merged(uint32_t n) {
    return world.routeStatus->route(F::Prefix::host(Sample<F>::addr(n)));
  }
  void virtualIn(const char* vrf, uint32_t n, bool present) {
    world.virtualIps->virtualIpIs(Sample<F>::virtualAddr(vrf, Sample<F>::addr(n)), present);
  }

  World<F> world;  // the VRF "red"
};
TYPED_TEST_SUITE(ShortCutsTest, Families);

TYPED_TEST(ShortCutsTest, AReactorIsNotQuietWhileARouteLeavesThroughItsInterface) {
  auto& red = this->world;
  const auto [first, second] = std::pair(red.ethernet1, red.ethernet2);
  red.table(first);
  red.startWithSubnet();
  red.learn(second, 5);
  EXPECT_FALSE(this->isQuiet(first));
  EXPECT_TRUE(this->isQuiet(second));

  red.forwarding->fecIs(typename TypeParam::Fec(7, {{.hop = {}, .intf = second}}));
  EXPECT_TRUE(this->isQuiet(first));
  EXPECT_FALSE(this->isQuiet(second));
  this->announce(second, 5);
  EXPECT_TRUE(red.hasRoute(red.routeStatus, 5));

  red.routeDel(Sample<TypeParam>::subnet());
  EXPECT_TRUE(this->isQuiet(second));
  red.machine().initializedIs(false);
  EXPECT_FALSE(this->isQuiet(first));
  EXPECT_FALSE(this->isQuiet(second));
}

// The results of a machine must not depend on whether its reactors were read.
TYPED_TEST(ShortCutsTest, ReactorsAreMadeWhenTheyAreNeededOrRead) {
  auto& red = this->world;
  const auto [first, second] = std::pair(red.ethernet1, red.ethernet2);
  red.learn(second, 4);
  const auto l3Status = red.inVrf(second, "blue");
  const auto intf = red.interface(second, l3Status);
  red.addressIs(*intf, 9);
  red.newMachine();
  EXPECT_EQ(red.root->toMerge()->ipCount(), 1u);
  red.machine().initializedIs(true);
  red.forwarding->fecIs(typename TypeParam::Fec(7, {{.hop = {}, .intf = first}}));
  red.routeIs(Sample<TypeParam>::subnet(), 7);
  red.learn(second, 5);
  red.learn(first, 6);
  EXPECT_FALSE(red.hasRoute(red.routeStatus, 5));
  EXPECT_TRUE(red.hasRoute(red.routeStatus, 6));

  red.forwarding->fecIs(typename TypeParam::Fec(7, {{.hop = {}, .intf = second}}));
  red.learn(second, 7);
  l3Status->vrfIs(L3::VrfName("red"));
  EXPECT_TRUE(red.hasRoute(red.routeStatus, 5));
  EXPECT_TRUE(red.hasRoute(red.routeStatus, 7));
  EXPECT_TRUE(red.hasRoute(red.root->receiveTable(), 9));
  EXPECT_NE(red.machine().fast().index, nullptr);

  EXPECT_EQ(red.machine().arpIntfStatusCount(), 2u);
  EXPECT_EQ(red.machine().ipIntfStatusFilterCount(), 1u);
  EXPECT_EQ(red.machine().fast().index, nullptr);
  EXPECT_TRUE(this->isQuiet(first));
  EXPECT_FALSE(this->isQuiet(second));
  red.neighborDir->arpIntfStatusDel(second.name());
  EXPECT_FALSE(red.hasRoute(red.routeStatus, 5));
}

// A machine that was woken for an announcement must get it despite an announcement within it.
TYPED_TEST(ShortCutsTest, AMachineIsNotifiedOfAnAnnouncementAroundAnotherOne) {
  using Fec = typename TypeParam::Fec;
  auto& red = this->world;
  struct Watcher : TypeParam::ForwardingStatus::NotifieeConst, Once {
    using TypeParam::ForwardingStatus::NotifieeConst::onFec;
    void onFec(const Tovan::Fib::FecId&) override { told(); }
  };
  const auto watcher = watcherOf<Watcher>(red.forwarding);  // notified before the machine
  red.newMachine();
  red.machine().initializedIs(true);
  red.forwarding->fecIs(Fec(7, {{.hop = {}, .intf = red.ethernet1}}));
  red.routeIs(Sample<TypeParam>::subnet(), 7);
  red.learn(red.ethernet1, 5);
  red.learn(red.ethernet2, 6);
  watcher->act = [&red] { red.forwarding->fecIs(Fec(8, {{.hop = {}, .intf = red.ethernet1}})); };
  red.forwarding->fecIs(Fec(7, {{.hop = {}, .intf = red.ethernet2}}));
  EXPECT_FALSE(red.hasRoute(red.routeStatus, 5));
  EXPECT_TRUE(red.hasRoute(red.routeStatus, 6));
  EXPECT_NE(red.machine().fast().index, nullptr);
}

// The inputs of a machine without reactors may be destroyed before the machine, or after it.
TYPED_TEST(ShortCutsTest, MissingReactorsAreMadeForLivingInputsOnly) {
  const auto l3Status = World<TypeParam>::inVrf(this->world.ethernet1, "blue");
  Arp::ArpIntfStatus::Ptr table;
  {
    World<TypeParam> red;
    red.interface(red.ethernet1, l3Status);
    red.learn(red.ethernet1, 5);
    table = red.neighborDir->arpIntfStatus(red.ethernet1.name());
    red.newMachine();
    const auto toMerge = red.root->toMerge();
    red.newMachine();
    red.machine().rootIs(nullptr);
    EXPECT_EQ(toMerge->ipCount(), 1u);
    red.root->routeSmDel();
    red.newMachine();
    EXPECT_EQ(red.machine().fast().index, nullptr);  // other code has a handle to the set
  }
  l3Status->vrfIs(L3::VrfName("red"));
  Kiv::Tracer::sinkIs([](const Kiv::TraceRecord&) {});
  TypeParam::trace().levelIs(7, true);
  TypeParam::neighborIs(*table, {.ipAddr = Sample<TypeParam>::addr(6)});
  TypeParam::trace().levelIs(7, false);
  Kiv::Tracer::sinkIs({});
}

// If several interfaces have an address, the last one that writes it owns it.
TYPED_TEST(ShortCutsTest, InterfacesOfOneLayer3StatusAreAdmittedInTheOrderOfTheirNames) {
  auto& red = this->world;
  const auto l3Status = red.inVrf(red.ethernet1, "blue");
  for (const char* name : {"Ethernet9", "Ethernet8", "Ethernet7", "Ethernet6", "Ethernet5"}) {
    red.addressIs(*red.interface(Zemit::IntfId::of(name), l3Status), 9);
  }
  red.newMachine();
  l3Status->vrfIs(L3::VrfName("red"));
  EXPECT_EQ(red.root->receiveAddrToIntfName(Sample<TypeParam>::addr(9)), "Ethernet9");
}

TYPED_TEST(ShortCutsTest, NoReactorIsQuietUnderAQueueingActivity) {
  this->world.activity = Kiv::make<Kiv::QueueingActivity>();
  this->world.table(this->world.ethernet2);
  this->world.startWithSubnet();
  EXPECT_FALSE(this->isQuiet(this->world.ethernet2));
}

TYPED_TEST(ShortCutsTest, AnotherVrfsVirtualAddressTakesEffectAtTheNextEventOfItsNeighbour) {
  auto& red = this->world;
  red.startWithSubnet();
  red.learn(red.ethernet1, 5);
  red.learn(red.ethernet2, 6);
  this->virtualIn("blue", 6, true);
  EXPECT_TRUE(this->isQuiet(red.ethernet2));  // no host route is concerned

  this->virtualIn("blue", 5, true);
  EXPECT_EQ(this->merged(5).routeType, TypeParam::kAttached);
  red.learn(red.ethernet2, 5);
  EXPECT_EQ(this->merged(5).routeType, TypeParam::kInvalid);
  EXPECT_TRUE(this->isQuiet(red.ethernet2));

  this->virtualIn("blue", 5, false);
  this->announce(red.ethernet1, 5);
  EXPECT_EQ(this->merged(5).routeType, TypeParam::kAttached);
  red.expectBalancedReferences();
}

TYPED_TEST(ShortCutsTest, TheNextEventMergesChangesOfADirectCall) {
  auto& red = this->world;
  red.startWithSubnet();
  red.learn(red.ethernet1, 5);
  red.machine().handleDeletedAdjacency(Sample<TypeParam>::subnet());
  red.lose(red.ethernet1, 5);
  EXPECT_FALSE(red.hasRoute(red.routeStatus, 5));
  red.expectBalancedReferences();
}

// Also when other code wrote the route meanwhile.
TYPED_TEST(ShortCutsTest, ANeighboursEventEndsWithAMerge) {
  using F = TypeParam;
  using S = Sample<F>;
  auto& red = this->world;
  const auto host = [](uint32_t n) { return F::Prefix::host(S::addr(n)); };
  red.startWithSubnet();
  red.learn(red.ethernet1, 5);
  red.learn(red.ethernet2, 7);
  const auto merged = this->merged(5);
  const std::pair<const char*, std::function<void()>> events[] = {
      {"announced", [&] { this->announce(red.ethernet1, 5); }},
      {"changed",
       [&] {
         F::neighborIs(red.table(red.ethernet1),
                       {.ipAddr = S::addr(5), .mac = Zemit::EthAddr({2, 0, 0, 0, 0, 1})});
       }},
      {"handled by name",
       [&] { red.machine().arpIntfStatus("Ethernet1")->handleArpEntry(S::addr(5)); }},
      {"announced elsewhere", [&] { red.learn(red.ethernet2, 5); }}};
  for (const auto& [what, event] : events) {
    SCOPED_TRACE(what);
    red.adjHelper->doDropRefOnFibAdjacency(red.routeStatus->routeDel(host(5)).fecId);
    event();
    EXPECT_EQ(this->merged(5), merged);
    auto wrong = merged;
    wrong.routeType = S::kReceive;
    red.routeStatus->routeIs(wrong);
    this->announce(red.ethernet2, 5);
    EXPECT_EQ(this->merged(5), merged);
  }
  // The announcement of a neighbour that was not stored.
  red.routeStatus->routeIs(
      {.key = host(7), .metricPref = {}, .routeType = F::kAttached, .fecId = 7});
  this->announce(red.ethernet2, 7);
  EXPECT_FALSE(red.hasRoute(red.routeStatus, 7));

  red.learn(red.ethernet1, 6);
  red.removeHostRouteByHand(6);
  red.lose(red.ethernet1, 6);
  EXPECT_FALSE(red.hasRoute(red.routeStatus, 6));
  red.expectBalancedReferences();
}

TYPED_TEST(ShortCutsTest, UnannouncedWritesCountOnQuietInterfacesToo) {
  using F = TypeParam;
  using S = Sample<F>;
  auto& red = this->world;
  const auto host = F::Prefix::host(S::addr(6));
  red.table(red.ethernet1);
  red.startWithSubnet();
  red.learn(red.ethernet2, 6);
  red.hostStatus->routeIs({.key = host,
                           .metricPref = {.metric = 0, .preference = 1},
                           .routeType = S::kForeignType,
                           .fecId = 7});
  this->announce(red.ethernet2, 6);
  EXPECT_EQ(this->merged(6), red.hostStatus->route(host));
  red.hostStatus->routeDel(host);
  this->announce(red.ethernet2, 6);
  EXPECT_FALSE(red.hasRoute(red.routeStatus, 6));
  EXPECT_TRUE(this->isQuiet(red.ethernet2));

  red.forwarding->fecIs(typename F::Fec(8, {{.hop = {}, .intf = red.ethernet2}}));
  auto route = red.routeStatus->route(S::subnet());
  route.fecId = 8;
  red.routeStatus->routeIs(route);
  this->announce(red.ethernet2, 6);
  EXPECT_TRUE(red.hasRoute(red.neighborTable(), 6));
  red.machine().handleStatusRoute(S::subnet());
  this->announce(red.ethernet2, 6);
  EXPECT_TRUE(red.hasRoute(red.routeStatus, 6));
  EXPECT_TRUE(this->isQuiet(red.ethernet1));
}

TYPED_TEST(ShortCutsTest, LostDeferredMergesEndTheTrust) {
  using S = Sample<TypeParam>;
  using W = World<TypeParam>;
  const std::function<void(W&)> forget[] = {
      [](W& forgetful) { forgetful.root->toMergeIs(S::subnet()); },
      [](W& forgetful) { forgetful.root->newToMerge({}); },
      [](W& forgetful) { forgetful.root->toMerge()->ipDelAll(); },
      [](W& forgetful) {
        forgetful.root->toMerge()->ipDelAll();
        forgetful.lose(forgetful.ethernet1, 6);
      },
      [](W& forgetful) { forgetful.machine().handleInitialized(); }};
  for (const auto& forgetWaitingMerges : forget) {
    W red;
    red.startWithSubnet();
    red.learn(red.ethernet1, 5);
    red.learn(red.ethernet1, 6);
    red.machine().initializedIs(false);
    red.lose(red.ethernet1, 5);
    forgetWaitingMerges(red);
    red.machine().initializedIs(true);
    EXPECT_TRUE(red.hasRoute(red.routeStatus, 5));
    red.learn(red.ethernet2, 5);
    EXPECT_FALSE(red.hasRoute(red.routeStatus, 5));
  }
}

TYPED_TEST(ShortCutsTest, AReactorThatIsBoundElsewhereEndsTheTrust) {
  using F = TypeParam;
  using S = Sample<F>;
  auto& red = this->world;
  red.startWithSubnet();
  this->virtualIn("red", 5, true);
  red.learn(red.ethernet1, 5);
  const auto others = Kiv::make<typename F::VirtualIpStatus>("others");
  const auto& machine = red.machine();
  if constexpr (S::kIsIpv4) {
    machine.virtualIpStatus()->notifierIs(others);
  } else {
    machine.virtualIp6Status()->notifierIs(others);
  }
  red.learn(red.ethernet2, 5);  // which is no longer virtual
  EXPECT_TRUE(red.hasRoute(red.routeStatus, 5));

  World<F> blue;
  blue.table(blue.ethernet2);
  blue.startWithSubnet();
  ASSERT_TRUE(blue.machine().arpIntfStatus("Ethernet2")->isQuiet());
  blue.machine().arpIntfStatus("Ethernet2")->kivFwkActivityIs(Kiv::make<Kiv::QueueingActivity>());
  EXPECT_FALSE(blue.machine().arpIntfStatus("Ethernet2")->isQuiet());
}

// In each of these cases alone, an address may need a merge.
TYPED_TEST(ShortCutsTest, ANewMachineDoesNotTrustRoutesThatItFinds) {
  using F = TypeParam;
  using S = Sample<F>;
  using W = World<F>;
  const auto host = F::Prefix::host(S::addr(9));
  const auto route = [](const typename F::Prefix& prefix) {
    return
        typename F::Route{.key = prefix, .metricPref = {}, .routeType = F::kAttached, .fecId = 0};
  };
  const std::function<void(W&)> former[] = {
      [&](W& red) { red.routeStatus->routeIs(route(host)); },
      [&](W& red) { red.neighborTable()->routeIs(route(host)); },
      [&](W& red) { red.root->prefixToRouteIs(route(S::wider())); }};
  for (const auto& leaveState : former) {
    SCOPED_TRACE(&leaveState - former);
    W red;
    leaveState(red);
    red.table(red.ethernet2);
    red.startWithSubnet();
    EXPECT_FALSE(red.machine().arpIntfStatus("Ethernet2")->isQuiet());
  }
  auto& red = this->world;
  red.routeStatus->routeIs(route(host));
  red.startWithSubnet();
  red.learn(red.ethernet2, 9);
  EXPECT_FALSE(red.hasRoute(red.routeStatus, 9));
}

// After each of these the machine may have missed a change.
TYPED_TEST(ShortCutsTest, ChangesWithoutTheMachinesKnowledgeEndTheTrust) {
  using F = TypeParam;
  using S = Sample<F>;
  using W = World<F>;
  const std::function<void(W&)> deeds[] = {
      [](W& red) { red.machine().handleDeletedAdjacency(S::subnet()); },
      [](W& red) {
        red.machine().handleRoute(
            S::wider(),
            {.key = S::wider(), .metricPref = {}, .routeType = F::kConnected, .fecId = 7});
      },
      [](W& red) { red.removeHostRouteByHand(5); },
      [](W& red) { red.machine().hostStatusIs(Kiv::make<typename F::HostTable>("other")); },
      [](W& red) {
        red.machine().hasNotificationActiveIs(false);
        red.machine().hasNotificationActiveIs(true);
      },
      [](W& red) {
        red.machine().kivDoZombieReactors(true);
        red.machine().kivDoZombieReactors(false);
      }};
  for (const auto& deed : deeds) {
    SCOPED_TRACE(&deed - deeds);
    W red;
    red.table(red.ethernet2);
    red.startWithSubnet();
    red.learn(red.ethernet1, 5);
    ASSERT_TRUE(red.machine().arpIntfStatus("Ethernet2")->isQuiet());
    deed(red);
    EXPECT_FALSE(red.machine().arpIntfStatus("Ethernet2")->isQuiet());
  }
  // Notifications may have waited in the former activity.
  W blue;
  blue.activity = Kiv::make<Kiv::QueueingActivity>();
  blue.table(blue.ethernet2);
  blue.startWithSubnet();
  const auto prompt = Kiv::make<Kiv::ActivityConfig>();
  blue.machine().kivFwkActivityIs(prompt);
  EXPECT_FALSE(blue.machine().arpIntfStatus("Ethernet2")->isQuiet());
}

TYPED_TEST(ShortCutsTest, ARouteOverAnAdjacencyEndsTheTrust) {
  auto& red = this->world;
  red.table(red.ethernet2);
  red.startWithSubnet();
  EXPECT_TRUE(this->isQuiet(red.ethernet2));
  typename TypeParam::ViaSet vias;
  vias.newVia({.hop = {}, .intf = red.ethernet1}, 1);
  red.routeIs(Sample<TypeParam>::wider(), red.adjHelper->doGetOrCreateFibAdjacency(vias));
  EXPECT_FALSE(this->isQuiet(red.ethernet2)) << "nobody is told when an adjacency changes";
}

/// Fails once in the chosen function.
template <class F>
struct FailingHelper : F::AdjacencyHelper {
  using F::AdjacencyHelper::AdjacencyHelper;
  Tovan::Fib::FecId doGetOrCreateHostAdjacency(const typename F::ViaSet& vias,
                                               const typename F::HostTable::Ptr& table) override {
    fail(failsOnGet);
    return F::AdjacencyHelper::doGetOrCreateHostAdjacency(vias, table);
  }
  void doDropRefOnFibAdjacency(Tovan::Fib::FecId fecId) override {
    F::AdjacencyHelper::doDropRefOnFibAdjacency(fecId);
    fail(failsOnDrop);
  }
  static void fail(bool& fails) {
    if (std::exchange(fails, false)) throw Kiv::Exception("no adjacency");
  }
  bool failsOnGet = false;
  bool failsOnDrop = false;
};

TYPED_TEST(ShortCutsTest, AnExceptionEndsTheTrust) {
  using F = TypeParam;
  using S = Sample<F>;
  using W = World<F>;
  using Failing = FailingHelper<F>;
  const std::function<void(W&, Failing&)> failures[] = {
      // In a handler that is called directly.
      [](W& red, Failing& helper) {
        red.forwarding->fecIs(typename F::Fec(8, {{.hop = {}, .intf = red.ethernet1}}));
        red.routeStatus->routeIs(
            {.key = S::longer(), .metricPref = {}, .routeType = F::kConnected, .fecId = 8});
        helper.failsOnGet = true;
        EXPECT_THROW(red.machine().handleStatusRoute(S::longer()), Kiv::Exception);
      },
      // In a callback whose handler leaves nothing to be merged.
      [](W& red, Failing& helper) {
        helper.failsOnDrop = true;
        red.virtualIps->virtualIpIs(S::virtualAddr("red", S::addr(5)), true);
        EXPECT_FALSE(helper.failsOnDrop);
      }};
  for (const auto& failOnce : failures) {
    SCOPED_TRACE(&failOnce - failures);
    W red;
    const auto helper = Kiv::make<Failing>("failing", red.forwarding);
    red.adjHelper = helper;
    red.root->adjHelperIs(helper);
    red.table(red.ethernet2);
    red.startWithSubnet();
    red.learn(red.ethernet1, 5);
    ASSERT_TRUE(red.machine().arpIntfStatus("Ethernet2")->isQuiet());
    failOnce(red, *helper);
    EXPECT_FALSE(red.machine().arpIntfStatus("Ethernet2")->isQuiet());
  }
}

TYPED_TEST(ShortCutsTest, AnAnnouncedCoverCountsForTheNextNeighbour) {
  auto& red = this->world;
  using Fec = typename TypeParam::Fec;
  red.startWithSubnet();
  red.forwarding->fecIs(Fec(8, {{.hop = {}, .intf = red.ethernet1}}));
  red.forwarding->fecIs(Fec(9, {{.hop = {}, .intf = red.ethernet2}}));
  red.learn(red.ethernet1, 5);
  red.forwarding->fecIs(Fec(7, {{.hop = Sample<TypeParam>::addr(1), .intf = red.ethernet1}}));
  red.learn(red.ethernet1, 6);
  EXPECT_FALSE(red.hasRoute(red.neighborTable(), 6));

  red.routeIs(Sample<TypeParam>::subnet(), 8);
  red.learn(red.ethernet1, 7);
  EXPECT_TRUE(red.hasRoute(red.neighborTable(), 7));
  EXPECT_TRUE(red.root->adjacencyToPrefix(8)->prefix(Sample<TypeParam>::subnet()));

  red.routeIs(Sample<TypeParam>::longer(), 9);
  red.learn(red.ethernet1, 8);
  EXPECT_FALSE(red.hasRoute(red.neighborTable(), 8));
  red.routeDel(Sample<TypeParam>::longer());
  red.learn(red.ethernet1, 8);
  EXPECT_TRUE(red.hasRoute(red.neighborTable(), 8));

  red.routeStatus->routeDel(Sample<TypeParam>::subnet());
  red.machine().handleStatusRoute();
  red.learn(red.ethernet1, 9);
  EXPECT_FALSE(red.hasRoute(red.neighborTable(), 9));
  red.expectBalancedReferences();
}

// Takes a neighbour out of its set by hand. Only a step files it again.
TYPED_TEST(ShortCutsTest, AnEventThatRepeatsStepsTakesNone) {
  using F = TypeParam;
  using S = Sample<F>;
  using W = World<F>;
  const auto host = F::Prefix::host(S::addr(5));
  const auto announced = [](W& red, uint32_t n) {
    F::neighborNotify(red.table(red.ethernet1), S::addr(n));
  };
  const auto takesSteps = [&](W& red) {
    const auto neighbors = F::neighborSetIs(*red.root, S::subnet());
    neighbors->ipDel(S::addr(5));
    announced(red, 5);
    return neighbors->ip(S::addr(5));
  };
  const auto virtualIn = [](W& red, const char* vrf) {
    red.virtualIps->virtualIpIs(S::virtualAddr(vrf, S::addr(5)), true);
  };
  const auto metricIs9 = [](W& red) {
    auto route = red.routeStatus->route(S::subnet());
    route.metricPref.metric = 9;
    red.routeStatus->routeIs(route);
  };
  const std::function<void(W&)> changes[] = {[](W& red) { red.machine().initializedIs(false); },
                                             metricIs9,
                                             [&](W& red) {
                                               metricIs9(red);
                                               announced(red, 6);
                                             },
                                             [&](W& red) {
                                               auto wrong = red.routeStatus->route(host);
                                               wrong.fecId = 7;
                                               red.routeStatus->routeIs(wrong);
                                               announced(red, 6);
                                             },
                                             [&](W& red) { virtualIn(red, "red"); },
                                             [&](W& red) {
                                               virtualIn(red, "blue");
                                               announced(red, 5);
                                             }};
  for (const auto& change : changes) {
    SCOPED_TRACE(&change - changes);
    W red;
    red.startWithSubnet();
    red.learn(red.ethernet1, 5);
    red.learn(red.ethernet1, 6);
    EXPECT_FALSE(takesSteps(red));
    change(red);
    EXPECT_TRUE(takesSteps(red));
  }
  W red;
  red.startWithSubnet();
  red.learn(red.ethernet1, 5);
  {
    const TraceLog log(F::trace(), {7});
    EXPECT_TRUE(takesSteps(red));
  }
  EXPECT_FALSE(takesSteps(red));
  // A FIB host route covers the neighbour.
  red.hostStatus->routeIs({.key = host, .metricPref = {}, .routeType = F::kAttached, .fecId = 7});
  red.machine().handleHostStatusRoute(host);
  red.learn(red.ethernet1, 6);
  announced(red, 5);
  ASSERT_TRUE(F::neighborSet(*red.root, host));
  EXPECT_TRUE(F::neighborSet(*red.root, host)->ip(S::addr(5)));
}

// A machine whose reactors were changed by hand is not notified of each neighbour.
TYPED_TEST(ShortCutsTest, ARepeatedEventReadsTheTablesOfTheDirectory) {
  using F = TypeParam;
  using S = Sample<F>;
  World<F> red;
  const auto [first, second] = std::pair(red.ethernet1, red.ethernet2);
  red.startWithSubnet();
  red.machine().needsReactors();
  red.learn(first, 5);
  const auto other = Kiv::make<Arp::ArpIntfStatus>(first);
  F::neighborIs(*other, {.ipAddr = S::addr(5)});
  red.machine().arpIntfStatusIs(other);
  red.lose(first, 5);
  F::neighborNotify(*other, S::addr(5));
  EXPECT_FALSE(red.hasRoute(red.neighborTable(), 5));

  auto& blue = this->world;
  blue.startWithSubnet();
  blue.machine().needsReactors();
  blue.forwarding->fecIs(
      typename F::Fec(7, {{.hop = {}, .intf = first}, {.hop = {}, .intf = second}}));
  blue.learn(first, 5);
  blue.learn(second, 5);
  this->announce(first, 5);
  blue.machine().arpIntfStatusDel(second.name());
  blue.lose(second, 5);
  this->announce(first, 5);
  const auto hostRoute = blue.neighborTable()->route(F::Prefix::host(S::addr(5)));
  EXPECT_EQ(blue.neighborTable()->adjIndexToViaSet(hostRoute.fecId).size(), 1u);

  blue.forwarding->fecIs(typename F::Fec(7, {{.hop = {}, .intf = first}}));
  this->announce(first, 5);
  blue.machine()
      .arpIntfStatus(first.name())
      ->notifierIs(blue.neighborDir->arpIntfStatus(second.name()));
  const auto& counts = blue.machine().account().counts;
  const auto repairs = uint64_t{counts.repairs};
  blue.learn(second, 5);
  EXPECT_EQ(counts.repairs, repairs) << "its route leaves through the first interface";
}

/// Calls a function at the first change of a set of neighbours.
template <class F>
struct SetWatcher : F::AddrSet::NotifieeConst, Once {
  void onIp(const typename F::Addr&) override { told(); }
};

// A callback within the event of a neighbour, or around it, may undo a part of the repair.
TYPED_TEST(ShortCutsTest, AnEventTakesItsStepsAgainAfterACallbackTookOthers) {
  using F = TypeParam;
  using S = Sample<F>;
  using W = World<F>;
  using Fec = typename F::Fec;
  const auto host = F::Prefix::host(S::addr(5));
  const auto subnetOver = [](W& red, Tovan::Fib::FecId fec) {
    auto route = red.routeStatus->route(S::subnet());
    route.fecId = fec;
    red.routeStatus->routeIs(route);  // not announced
    return route;
  };
  const auto viasOf = [&](W& red) {
    const auto& hosts = red.neighborTable();
    return hosts->adjIndexToViaSet(hosts->route(host).fecId);
  };
  struct Case {
    std::function<void(W&)> before;
    uint32_t learned;  ///< the neighbour whose event has the callback
    std::function<void(W&)> callback;
    std::function<bool(W&)> isRight;
  };
  const Case cases[] = {
      {{},
       5,
       [](W& red) { red.machine().handleDeletedAdjacency(S::subnet()); },
       [](W& red) { return F::neighborSet(*red.root, S::subnet())->ip(S::addr(5)); }},
      {[&](W& red) {
         subnetOver(red, 8);
         red.machine().handleStatusRoute(S::subnet());
         red.learn(red.ethernet2, 5);
         red.learn(red.ethernet1, 5);
         subnetOver(red, 7);
       },
       6,
       [&](W& red) {
         red.machine().fixupArpRoute(S::addr(5), red.routeStatus->route(S::subnet()));
       },
       [&](W& red) {
         return red.adjHelper->isFibAdjacency(red.routeStatus->route(host).fecId, viasOf(red));
       }},
      {[](W& red) { red.learn(red.ethernet2, 5); }, 5,
       [&](W& red) {
         subnetOver(red, 9);
         const typename F::Neighbor other{.ipAddr = S::addr(4)};
         red.machine().handleAddedArpEntry(F::argument(other),
                                           red.neighborDir->arpIntfStatus("Ethernet1"));
       },
       [&](W& red) { return viasOf(red).size() == 2; }},
      {[](W& red) { red.learn(red.ethernet1, 5); }, 6,
       [](W& red) {
         using namespace Routing::Host;
         using namespace Routing6::Host;
         addRouteToRouteTable(red.root->receiveTable(), nullptr, S::addr(5),
                              Tovan::Fib::invalidFecId, S::kReceive, nullptr, red.root, {});
       },
       [&](W& red) {
         const auto type = red.routeStatus->route(host).routeType;
         return type == (F::kMergesReceiveRoutes ? S::kReceive : F::kAttached);
       }}};
  for (const Case& each : cases) {
    SCOPED_TRACE(&each - cases);
    W red;
    red.startWithSubnet();
    red.forwarding->fecIs(Fec(8, {{.hop = {}, .intf = red.ethernet2}}));
    red.forwarding->fecIs(
        Fec(9, {{.hop = {}, .intf = red.ethernet1}, {.hop = {}, .intf = red.ethernet2}}));
    red.learn(red.ethernet1, 4);
    if (each.before) each.before(red);
    const auto watcher = watcherOf<SetWatcher<F>>(F::neighborSetIs(*red.root, S::subnet()),
                                                  [&] { each.callback(red); });
    red.learn(red.ethernet1, each.learned);
    ASSERT_FALSE(watcher->act);
    F::neighborNotify(red.table(red.ethernet1), S::addr(5));
    EXPECT_TRUE(each.isRight(red));
  }

  auto& red = this->world;
  red.startWithSubnet();
  red.forwarding->fecIs(Fec(8, {{.hop = {}, .intf = red.ethernet2}}));
  red.learn(red.ethernet1, 5);
  const auto watcher = watcherOf<RouteWatcher<typename F::HostTable>>(
      red.neighborTable(), [&] { this->announce(red.ethernet1, 5); });
  red.machine().handleAdjacency(
      {.key = S::longer(), .metricPref = {}, .routeType = F::kConnected, .fecId = 8});
  this->announce(red.ethernet1, 5);
  EXPECT_TRUE(F::neighborSet(*red.root, S::subnet())->ip(S::addr(5)));
}

TYPED_TEST(ShortCutsTest, ATableMayBeRemovedWhileItsNeighbourIsHandled) {
  auto& red = this->world;
  red.startWithSubnet();
  red.learn(red.ethernet1, 5);
  const auto observer = watcherOf<RouteWatcher<typename TypeParam::HostTable>>(
      red.neighborTable(), [&] { red.neighborDir->arpIntfStatusDel(red.ethernet1.name()); });
  red.learn(red.ethernet1, 6);
  EXPECT_EQ(red.machine().arpIntfStatusCount(), 0u);
  EXPECT_EQ(red.neighborDir->tableOf(red.ethernet1), nullptr);
  red.learn(red.ethernet1, 7);
  EXPECT_TRUE(red.hasRoute(red.routeStatus, 7));
  EXPECT_FALSE(red.hasRoute(red.routeStatus, 5));
}

TYPED_TEST(ShortCutsTest, TheRemovalOfAnInputEndsTheTrust) {
  auto& red = this->world;
  red.startWithSubnet();
  this->virtualIn("red", 5, true);
  red.learn(red.ethernet1, 5);
  EXPECT_FALSE(red.hasRoute(red.routeStatus, 5));
  if constexpr (Sample<TypeParam>::kIsIpv4) {
    red.machine().virtualIpStatusDel();
  } else {
    red.machine().virtualIp6StatusDel();
  }
  this->announce(red.ethernet1, 5);
  EXPECT_TRUE(red.hasRoute(red.routeStatus, 5));

  red.machine().fwdStatusDel();
  red.learn(red.ethernet1, 6);
  EXPECT_FALSE(red.hasRoute(red.neighborTable(), 6));
}

TEST(NeighborDirTest, FindsTheTablesThatItHas) {
  const auto dir = Kiv::make<Arp::NeighborDir>("dir");
  const auto [first, second] =
      std::pair(Zemit::IntfId::of("Ethernet1"), Zemit::IntfId::of("Vlan2"));
  EXPECT_EQ(dir->tableOf(first), nullptr);
  dir->newArpIntfStatus(second.name());
  dir->newArpIntfStatus(first.name());
  const auto replacement = Kiv::make<Arp::ArpIntfStatus>(first);
  dir->arpIntfStatusIs(replacement);
  EXPECT_EQ(dir->tableOf(first), replacement.get());
  EXPECT_EQ(dir->tableOf(second), dir->arpIntfStatus(second.name()).get());
  dir->arpIntfStatusDel(second.name());
  EXPECT_EQ(dir->tableOf(second), nullptr);
  dir->arpIntfStatusDelAll();
  EXPECT_EQ(dir->tableOf(first), nullptr);
}

TEST(NeighborDirTest, AnExpectedChangeIsAnnouncedToNotifieesThatAreNotQuiet) {
  struct Watcher : Arp::ArpIntfStatus::NotifieeConst {
    void onArpEntry(const Zemit::IpAddr&) override { ++changes; }
    void onArpEntryExpected(const Zemit::IpAddr&) const noexcept override { ++expected; }
    int changes = 0;
    mutable int expected = 0;
  };
  const auto table = Kiv::make<Arp::ArpIntfStatus>(Zemit::IntfId::of("Ethernet1"));
  const auto watcher = Kiv::make<Watcher>();
  table->arpEntryExpect({});
  watcher->notifierIs(table);
  table->arpEntryExpect({});
  watcher->isQuietIs(true);
  table->arpEntryExpect({});
  EXPECT_EQ(watcher->expected, 1);
  EXPECT_EQ(watcher->changes, 0);
}

TEST(RootTest, AWalkVisitsOnlyAddressSetsThatAreMade) {
  World<Daemon::Ipv4> world;
  world.root->arpRouteReserve(Sample<Daemon::Ipv4>::subnet());
  EXPECT_FALSE(world.root->arpRouteIfMade(Sample<Daemon::Ipv4>::subnet()));
  auto walk = world.root->arpRouteIteratorConst();
  for (uint32_t length = 1; length <= 32; ++length) {
    world.root->arpRouteReserve(Zemit::Prefix::enclosing(Sample<Daemon::Ipv4>::addr(0), length));
  }
  for (; walk; ++walk) {
    EXPECT_EQ(walk.value()->prefix(), walk.key());
    EXPECT_EQ(walk.value()->parent(), world.root.get());
  }
}

}  // namespace
