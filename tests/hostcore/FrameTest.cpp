// Tests of the life cycle of a state machine and of its reactors.
#include <functional>
#include <string>
#include <tuple>
#include <type_traits>

#include "platform/kiv/runtime/Clock.h"
#include "tests/hostcore/World.h"

namespace {

template <class F>
class FrameTest : public testing::Test {};
TYPED_TEST_SUITE(FrameTest, Families);

// The constructors of the two machines take the virtual addresses and the root in different orders.
// The wrong order does not compile.
template <class F>
constexpr bool kAreDistinct =
    !std::is_convertible_v<typename F::RouteSmRoot::Ptr, typename F::VirtualIpStatus::PtrConst> &&
    !std::is_convertible_v<typename F::VirtualIpStatus::Ptr, typename F::RouteSmRoot::Ptr>;
static_assert(kAreDistinct<Daemon::Ipv4> && kAreDistinct<Daemon::Ipv6>);

/// Feeds one event of each kind, and then ends the machine.
template <class F>
void feedAllEvents(World<F>& world) {
  using S = Sample<F>;
  if (world.ipStatus) {
    world.addressIs(*world.interface(world.ethernet1, world.inVrf(world.ethernet1, "red")), 1);
  }
  if (world.virtualIps) world.virtualIps->virtualIpIs(S::virtualAddr("red", S::addr(8)), true);
  world.newMachine();
  world.machine().initializedIs(true);
  if (world.forwarding) {
    world.forwarding->fecIs(typename F::Fec(7, {{.hop = {}, .intf = world.ethernet1}}));
  }
  if (world.routeStatus) world.routeIs(S::subnet(), 7);
  world.machine().handleStatusRoute(S::subnet());
  world.machine().handleHostStatusRoute(F::Prefix::host(S::addr(9)));
  if (world.neighborDir) world.learn(world.ethernet1, 5);
  if (world.forwarding) world.forwarding->fecNotify(7);
  if (world.virtualIps) world.virtualIps->virtualIpIs(S::virtualAddr("red", S::addr(8)), false);
  if (world.readiness) {
    world.readiness->ribReadyIs(true);
    world.readiness->startRibReadyVerificationIs(true);
  }
  if (world.neighborDir) world.neighborDir->arpIntfStatusDel("Ethernet1");
  world.root->routeSmDel();
}

// A null input counts as an empty table. A handler needs only the inputs that it uses.
TYPED_TEST(FrameTest, RunsWithoutAnyOneInput) {
  using W = World<TypeParam>;
  const std::pair<const char*, std::function<void(W&)>> omissions[] = {
      {"nothing", [](W&) {}},
      {"activity", [](W& world) { world.activity = nullptr; }},
      {"routeStatus", [](W& world) { world.routeStatus = nullptr; }},
      {"forwarding", [](W& world) { world.forwarding = nullptr; }},
      {"hostStatus", [](W& world) { world.hostStatus = nullptr; }},
      {"readiness", [](W& world) { world.readiness = nullptr; }},
      {"seqConfig", [](W& world) { world.seqConfig = nullptr; }},
      {"seqInfo", [](W& world) { world.seqInfo = nullptr; }},
      {"ipStatus", [](W& world) { world.ipStatus = nullptr; }},
      {"neighborDir", [](W& world) { world.neighborDir = nullptr; }},
      {"virtualIps", [](W& world) { world.virtualIps = nullptr; }},
  };
  for (const auto& [without, omit] : omissions) {
    SCOPED_TRACE(without);
    W world;
    omit(world);
    const TraceLog log(TypeParam::trace(), {0});
    feedAllEvents(world);
    for (const auto& record : log.records)
      EXPECT_EQ(record.find("exception"), record.npos) << record;
  }
}

TYPED_TEST(FrameTest, RefusesNullMembers) {
  World<TypeParam> world;
  world.newMachine();
  auto& machine = world.machine();
  const std::string sm =
      Sample<TypeParam>::kIsIpv4 ? "Routing::Host::RouteSm" : "Routing6::Host::RouteSm";
  const std::tuple<std::string, std::string, std::function<void()>> setters[] = {
      {sm, "arpIntfStatus", [&] { machine.arpIntfStatusIs(nullptr); }},
      {sm, "vrfIpIntfStatus", [&] { machine.vrfIpIntfStatusIs(nullptr); }},
      {sm, "ipIntfStatusFilter", [&] { machine.ipIntfStatusFilterIs(nullptr); }},
      {sm, "ipIntfStatus", [&] { machine.ipIntfStatusIs(nullptr); }},
      {sm + "Root", "adjacencyToPrefix", [&] { world.root->adjacencyToPrefixIs(nullptr); }}};
  for (const auto& [type, name, set] : setters) {
    try {
      set();
      ADD_FAILURE() << name << " takes null";
    } catch (const Kiv::RangeException& refused) {
      EXPECT_EQ(refused.what(), "null _" + name + " parameter to mutator for " + type +
                                    "::" + name + " not allowed");
    }
  }
}

TYPED_TEST(FrameTest, FollowsAnInterfaceThroughVrfsAndNewStatusObjects) {
  World<TypeParam> world;
  world.newMachine();
  world.machine().initializedIs(true);
  const auto l3Status = world.inVrf(world.ethernet1, "blue");
  world.addressIs(*world.interface(world.ethernet1, l3Status), 1);
  EXPECT_FALSE(world.hasRoute(world.root->receiveTable(), 1)) << "still in another VRF";
  l3Status->vrfIs(L3::VrfName("red"));
  EXPECT_TRUE(world.hasRoute(world.root->receiveTable(), 1));

  // Another object under the same id, with the same layer-3 side.
  const auto replacement = world.interfaceStatus(world.ethernet1, l3Status);
  world.addressIs(*replacement, 2);
  world.machine().ipIntfStatusFilterIs(replacement);
  EXPECT_FALSE(world.hasRoute(world.root->receiveTable(), 1));
  EXPECT_TRUE(world.hasRoute(world.root->receiveTable(), 2));
  world.addressIs(*replacement, 3);
  EXPECT_TRUE(world.hasRoute(world.root->receiveTable(), 3)) << "the new object is not followed";

  l3Status->vrfIs(L3::VrfName("blue"));
  EXPECT_EQ(world.root->receiveTable()->routeCount(), 0u);
  EXPECT_TRUE(world.machine().hasNoReceiveRoutes());
  EXPECT_FALSE(world.machine().ipIntfStatus(world.ethernet1));
  EXPECT_TRUE(world.machine().ipIntfStatusFilter(world.ethernet1));
  world.expectBalancedReferences();
}

// The order in which a new machine visits interfaces must not depend on a hash.
TYPED_TEST(FrameTest, GivesASharedAddressToTheLastInterfaceByName) {
  World<TypeParam> world;
  for (const char* name : {"Ethernet3", "Ethernet1", "Ethernet4", "Ethernet2"}) {
    const auto intf = Zemit::IntfId::of(name);
    world.addressIs(*world.interface(intf, world.inVrf(intf, "red")), 1);
  }
  world.newMachine();
  EXPECT_EQ(world.root->receiveAddrToIntfName(Sample<TypeParam>::addr(1)), "Ethernet4");
  world.expectBalancedReferences();
}

// The same applies to neighbour tables, because adjacencies are numbered in the order of their
// creation.
TYPED_TEST(FrameTest, CatchesUpWithNeighborTablesInTheOrderOfTheirNames) {
  using Machine = typename TypeParam::RouteSm;
  struct Watcher final : Machine::NotifieeConst {
    void onArpIntfStatus(const Kiv::Name& name) override { seen.push_back(name); }
    std::vector<Kiv::Name> seen;
  };
  const std::vector<Kiv::Name> names{"Ethernet1", "Ethernet2", "Ethernet3", "Ethernet4",
                                     "Ethernet5", "Ethernet6", "Ethernet7", "Ethernet8"};
  World<TypeParam> world;
  world.newMachine();
  const auto watcher = Kiv::make<Watcher>();
  watcher->notifierIs(world.root->routeSm());
  const auto full = Kiv::make<Arp::NeighborDir>("full");
  for (auto name = names.rbegin(); name != names.rend(); ++name) full->newArpIntfStatus(*name);
  world.machine().newNeighborDirByIntfName(full);
  EXPECT_EQ(watcher->seen, names);
  watcher->seen.clear();
  const auto empty = Kiv::make<Arp::NeighborDir>("empty");
  world.machine().newNeighborDirByIntfName(empty);
  EXPECT_EQ(watcher->seen, names) << "not removed in order";
}

// A replayed clock has one reading for each stamp.
TYPED_TEST(FrameTest, ReadsTheClockOnlyForAStampThatIsDue) {
  World<TypeParam> world;
  world.startWithSubnet();
  int readings = 0;
  Kiv::clockIs([&readings] { return ++readings; });
  world.readiness->ribReadyIs(true);
  world.readiness->startRibReadyVerificationIs(true);
  EXPECT_EQ(readings, 2);
  world.readiness->ribReadyIs(false);
  world.readiness->ribReadyIs(true);
  world.machine().handleRibReady();
  world.machine().setHostRouteRibReady();
  Kiv::clockIs({});
  EXPECT_EQ(readings, 2);
}

TYPED_TEST(FrameTest, HandlesNeighborsThatAReplacedTableLacksAsLost) {
  World<TypeParam> world;
  world.startWithSubnet();
  world.learn(world.ethernet1, 4);
  world.learn(world.ethernet1, 5);
  const auto replacement = Kiv::make<Arp::ArpIntfStatus>(world.ethernet1);
  TypeParam::neighborIs(*replacement, {.ipAddr = Sample<TypeParam>::addr(5)});
  world.neighborDir->arpIntfStatusIs(replacement);
  EXPECT_FALSE(world.hasRoute(world.routeStatus, 4));
  EXPECT_TRUE(world.hasRoute(world.routeStatus, 5));
  world.neighborDir->arpIntfStatusDel("Ethernet1");
  EXPECT_FALSE(world.hasRoute(world.routeStatus, 5)) << "the hook of the deletion did not run";
  EXPECT_EQ(world.machine().arpIntfStatusCount(), 0u);
  world.expectBalancedReferences();
}

TYPED_TEST(FrameTest, LosesNotificationsWhileDeliveryIsOff) {
  World<TypeParam> world;
  world.startWithSubnet();
  world.learn(world.ethernet1, 4);
  world.machine().hasNotificationActiveIs(false);
  world.learn(world.ethernet1, 5);
  world.learn(world.ethernet2, 6);
  EXPECT_EQ(world.neighborTable()->routeCount(), 1u);
  world.machine().hasNotificationActiveIs(true);
  EXPECT_EQ(world.neighborTable()->routeCount(), 1u) << "lost notifications are not repeated";
  world.learn(world.ethernet1, 7);
  EXPECT_TRUE(world.hasRoute(world.neighborTable(), 7));

  world.machine().kivDoZombieReactors(true);
  world.lose(world.ethernet1, 7);
  EXPECT_TRUE(world.hasRoute(world.neighborTable(), 7)) << "a zombie has acted";
}

// The reactors that other reactors own are switched with them.
TYPED_TEST(FrameTest, SwitchesTheReactorsOfFiltersToo) {
  using Machine = typename TypeParam::RouteSm;
  const std::function<void(Machine&, bool)> switches[] = {
      [](Machine& machine, bool isOn) { machine.hasNotificationActiveIs(isOn); },
      [](Machine& machine, bool isOn) { machine.kivDoZombieReactors(!isOn); }};
  for (const auto& switchTo : switches) {
    SCOPED_TRACE(&switchTo - switches);
    World<TypeParam> world;
    world.startWithSubnet();
    const auto l3Status = world.inVrf(world.ethernet2, "blue");
    world.interface(world.ethernet2, l3Status);
    switchTo(world.machine(), false);
    l3Status->vrfIs(L3::VrfName("red"));
    EXPECT_EQ(world.machine().vrfIpIntfStatusCount(), 0u);
    switchTo(world.machine(), true);
    l3Status->vrfNotify();
    EXPECT_EQ(world.machine().vrfIpIntfStatusCount(), 1u);
  }
}

// The merge leaves host prefixes that BGP wrote into the route table, and removes others.
TYPED_TEST(FrameTest, LeavesBgpsHostPrefixesToBgpWhenTheRibIsReady) {
  using S = Sample<TypeParam>;
  World<TypeParam> world;
  world.startWithSubnet();
  uint32_t n = 20;
  const auto strange = [&](typename TypeParam::RouteType type) {
    world.routeStatus->routeIs({.key = TypeParam::Prefix::host(S::addr(++n)),
                                .metricPref = {},
                                .routeType = type,
                                .fecId = 0});
  };
  for (const auto type : S::kBgpTypes) strange(type);
  const uint32_t lastOfBgp = n;
  strange(S::kForeignType);
  world.readiness->ribReadyIs(true);
  for (uint32_t at = 21; at <= lastOfBgp; ++at) EXPECT_TRUE(world.hasRoute(world.routeStatus, at));
  EXPECT_FALSE(world.hasRoute(world.routeStatus, n));
}

// Notifications wait for the new activity, also those of reactors that other reactors own.
TYPED_TEST(FrameTest, MovesAllReactorsToAnotherActivity) {
  World<TypeParam> world;
  world.startWithSubnet();
  const auto l3Status = world.inVrf(world.ethernet2, "blue");
  world.addressIs(*world.interface(world.ethernet2, l3Status), 1);
  world.table(world.ethernet1);
  const auto queue = Kiv::make<Kiv::QueueingActivity>();
  world.machine().kivFwkActivityIs(queue);
  world.learn(world.ethernet1, 5);
  l3Status->vrfIs(L3::VrfName("red"));
  EXPECT_FALSE(world.hasRoute(world.neighborTable(), 5));
  EXPECT_FALSE(world.hasRoute(world.root->receiveTable(), 1));
  EXPECT_EQ(queue->run(), 2u);
  EXPECT_TRUE(world.hasRoute(world.neighborTable(), 5));
  EXPECT_TRUE(world.hasRoute(world.root->receiveTable(), 1));
}

TYPED_TEST(FrameTest, TeardownWithdrawsNothingAndRunsNoHandler) {
  World<TypeParam> world;
  world.startWithSubnet();
  world.addressIs(*world.interface(world.ethernet1, world.inVrf(world.ethernet1, "red")), 1);
  world.learn(world.ethernet1, 5);
  const auto reactor = world.machine().arpIntfStatus("Ethernet1");
  const size_t written = world.routeStatus->routeCount();
  TraceLog log(TypeParam::trace(), {0, 1, 2, 5, 6, 7, 8});
  world.root->routeSmDel();
  world.lose(world.ethernet1, 5);
  EXPECT_EQ(log.records, std::vector<std::string>());
  EXPECT_EQ(reactor->routeSm(), nullptr);
  EXPECT_TRUE(reactor->isZombie());
  EXPECT_EQ(world.routeStatus->routeCount(), written);
  EXPECT_TRUE(world.hasRoute(world.neighborTable(), 5));
  EXPECT_TRUE(world.hasRoute(world.root->receiveTable(), 1));
}

TYPED_TEST(FrameTest, TheRootDropsItsTablesBeforeItsMachine) {
  World<TypeParam> world;
  world.newMachine();
  struct Watcher final : TypeParam::RouteSmRoot::NotifieeConst {
    Watcher() : TypeParam::RouteSmRoot::NotifieeConst(Kiv::Notifiee::Hold::kWeak) {}
    void onReceiveTable() override { seen.emplace_back("receiveTable"); }
    void onToMerge() override { seen.emplace_back("toMerge"); }
    void onRouteSm() override { seen.emplace_back("routeSm"); }
    void onZeroReferences() noexcept override { seen.emplace_back("zero"); }
    std::vector<std::string> seen;
  };
  const auto watcher = Kiv::make<Watcher>();
  watcher->notifierIs(world.root);
  world.root = nullptr;
  EXPECT_EQ(watcher->seen,
            (std::vector<std::string>{"zero", "receiveTable", "toMerge", "routeSm"}));
}

TYPED_TEST(FrameTest, TracesAnExceptionOfItsOwnCallback) {
  World<TypeParam> world;
  world.startWithSubnet();
  world.root->trieIs(nullptr);
  TraceLog log(TypeParam::trace(), {0});
  world.learn(world.ethernet1, 5);
  ASSERT_EQ(log.records.size(), 1u);
  EXPECT_NE(log.records[0].find("of Ethernet1: null ValidPtr"), std::string::npos)
      << log.records[0];
}

}  // namespace
