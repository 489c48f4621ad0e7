// Tests of callbacks that change the engine's inputs while the handler that called them still runs.
#include "tests/hostcore/World.h"

namespace {

template <class F>
class CallbacksTest : public testing::Test {
 protected:
  /// FEC `id` with one direct via.
  static typename F::Fec fec(Tovan::Fib::FecId id, Zemit::IntfId intf) {
    return typename F::Fec(id, {{.hop = {}, .intf = intf}});
  }
  void expectLeaveThrough(Zemit::IntfId intf, std::initializer_list<uint32_t> neighbors) {
    for (const uint32_t n : neighbors) {
      const auto route = world.neighborTable()->route(F::Prefix::host(Sample<F>::addr(n)));
      ASSERT_EQ(route.key, F::Prefix::host(Sample<F>::addr(n)));
      for (const auto& member : world.neighborTable()->adjIndexToViaSet(route.fecId)) {
        EXPECT_EQ(member.via.intf, intf) << route.key;
      }
    }
  }
  void learnOnBoth(std::initializer_list<uint32_t> neighbors) {
    for (const uint32_t n : neighbors) {
      world.learn(world.ethernet1, n);
      world.learn(world.ethernet2, n);
    }
  }

  World<F> world;
};
TYPED_TEST_SUITE(CallbacksTest, Families);

template <class F>
struct NeighborWatcher : Arp::ArpIntfStatus::NotifieeConst, Once {
  void onArpEntry(const Zemit::IpAddr&) override { told(); }
  void onIp6NeighborEntry(const Zemit::Ip6Addr&) override { told(); }
};

/// Calls a function when a prefix is filed for the first time.
template <class F>
struct FilingWatcher : F::RouteSmRoot::NotifieeConst, Once {
  void onAdjacencyToPrefix(const Tovan::Fib::FecId&) override { told(); }
};

TYPED_TEST(CallbacksTest, AReactorThatStopsBeingQuietIsNotifiedInTheSameAnnouncement) {
  using F = TypeParam;
  using S = Sample<F>;
  auto& red = this->world;
  // Notified before the machine.
  const Kiv::Ptr<const Arp::ArpIntfStatus> table(&red.table(red.ethernet2));
  const auto daemon = watcherOf<NeighborWatcher<F>>(table);
  red.startWithSubnet();
  ASSERT_TRUE(red.machine().arpIntfStatus(table->name())->isQuiet());
  daemon->act = [&] { red.forwarding->fecIs(this->fec(7, red.ethernet2)); };
  red.learn(red.ethernet2, 5);
  this->expectLeaveThrough(red.ethernet2, {5});

  red.forwarding->fecIs(this->fec(7, red.ethernet1));
  red.learn(red.ethernet1, 7);
  daemon->act = [&] { red.virtualIps->virtualIpIs(S::virtualAddr("blue", S::addr(7)), true); };
  red.learn(red.ethernet2, 7);
  EXPECT_EQ(red.routeStatus->route(F::Prefix::host(S::addr(7))).routeType, F::kInvalid);

  daemon->act = [&] { red.machine().initializedIs(false); };
  red.learn(red.ethernet2, 6);
  EXPECT_TRUE(red.root->toMerge()->ip(S::addr(6)));
}

TYPED_TEST(CallbacksTest, ARepairReadsTheHostRouteAfterItsFiling) {
  using F = TypeParam;
  using S = Sample<F>;
  auto& red = this->world;
  red.startWithSubnet();
  const auto observer = watcherOf<FilingWatcher<F>>(
      red.root, [&] { F::neighborNotify(red.table(red.ethernet1), S::addr(5)); });
  red.learn(red.ethernet1, 5);
  EXPECT_FALSE(observer->act);
  red.expectBalancedReferences();
}

TYPED_TEST(CallbacksTest, AFecThatChangesDuringAPassCountsForTheRestOfThePass) {
  using F = TypeParam;
  using S = Sample<F>;
  auto& red = this->world;
  red.startWithSubnet();
  red.forwarding->fecIs(typename F::Fec(7, {{.hop = S::addr(1), .intf = red.ethernet1}}));
  this->learnOnBoth({5, 6, 7});
  const auto observer = watcherOf<RouteWatcher<typename F::HostTable>>(red.neighborTable());
  const auto moveFec = [&] { red.forwarding->fecIs(this->fec(7, red.ethernet2)); };

  observer->act = moveFec;
  red.routeDel(S::subnet());
  red.forwarding->fecIs(this->fec(7, red.ethernet1));
  red.routeIs(S::subnet(), 7);  // promotes
  EXPECT_FALSE(observer->act);
  this->expectLeaveThrough(red.ethernet2, {5, 6, 7});

  red.forwarding->fecIs(this->fec(7, red.ethernet1));
  red.forwarding->fecIs(this->fec(8, red.ethernet1));
  red.routeIs(S::longer(), 8);
  this->expectLeaveThrough(red.ethernet1, {5, 6, 7});
  observer->act = moveFec;
  red.routeDel(S::longer());  // files the neighbours under the subnet again
  EXPECT_FALSE(observer->act);
  this->expectLeaveThrough(red.ethernet2, {5, 6, 7});
  red.expectBalancedReferences();
}

TYPED_TEST(CallbacksTest, AllVirtualAddressesAreHandledAlsoWhenOthersAreAddedMeanwhile) {
  using S = Sample<TypeParam>;
  auto& red = this->world;
  red.startWithSubnet();
  for (uint32_t n = 1; n <= 8; ++n) red.learn(red.ethernet1, n);
  red.machine().hasNotificationActiveIs(false);
  for (uint32_t n = 1; n <= 8; ++n) {
    red.virtualIps->virtualIpIs(S::virtualAddr("red", S::addr(n)), true);
  }
  const auto observer = watcherOf<RouteWatcher<typename TypeParam::RouteStatus>>(red.routeStatus);
  observer->act = [&] {
    for (uint32_t n = 1; n <= 8; ++n) {
      if (!red.hasRoute(red.routeStatus, n)) {
        red.virtualIps->virtualIpIs(S::virtualAddr("red", S::addr(n)), false);
      }
    }
    red.virtualIps->virtualIpIs(S::virtualAddr("red", S::addr(9)), true);
  };
  if constexpr (S::kIsIpv4) {
    red.machine().handleVirtualIpStatus();
  } else {
    red.machine().handleVirtualIp6Status();
  }
  for (uint32_t n = 1; n <= 8; ++n) EXPECT_FALSE(red.hasRoute(red.routeStatus, n)) << n;
}

// A derived helper that counts references must see each one.
TYPED_TEST(CallbacksTest, ADerivedAdjacencyHelperSeesEveryGetAndEveryDrop) {
  using F = TypeParam;
  struct Counting : F::AdjacencyHelper {
    using F::AdjacencyHelper::AdjacencyHelper;
    Tovan::Fib::FecId doGetOrCreateFibAdjacency(const typename F::ViaSet& vias) override {
      ++held;
      return F::AdjacencyHelper::doGetOrCreateFibAdjacency(vias);
    }
    void doDropRefOnFibAdjacency(Tovan::Fib::FecId fecId) override {
      --held;
      F::AdjacencyHelper::doDropRefOnFibAdjacency(fecId);
    }
    int held = 0;
  };
  auto& red = this->world;
  const auto counting = Kiv::make<Counting>("counting", red.forwarding);
  red.adjHelper = counting;
  red.root->adjHelperIs(counting);
  red.startWithSubnet();
  red.learn(red.ethernet1, 5);
  const TraceLog log(F::trace(), {8});  // with this trace, each announcement is merged
  for (int i = 0; i < 3; ++i) {
    F::neighborNotify(red.table(red.ethernet1), Sample<F>::addr(5));
    EXPECT_EQ(counting->held, 1);
  }
  red.lose(red.ethernet1, 5);
  EXPECT_EQ(counting->held, 0);
}

}  // namespace
