// Machines, reactors and roots that end while a handle to them exists, and objects that a callback
// removes while a handler uses them.
#include <functional>
#include <tuple>
#include <utility>

#include "tests/hostcore/World.h"

namespace {

template <class F>
class LifetimeTest : public testing::Test {};
TYPED_TEST_SUITE(LifetimeTest, Families);

/// Calls a function at the next change, and does not keep its notifier alive.
template <class Notifier>
struct Watching : Notifier::NotifieeConst, Once {
  Watching() : Notifier::NotifieeConst(Kiv::Notifiee::Hold::kWeak) {}
};

template <class F>
struct WeakRootWatcher;
template <>
struct WeakRootWatcher<Daemon::Ipv4> final : Watching<Routing::Host::RouteSmRoot> {
  void onReceiveTable() override { told(); }
  void onArpTable() override { told(); }
  void onArpRoute(const Zemit::Prefix&) override { told(); }
  void onIntfNameToSecondaryAddrWithMask(const Kiv::String8&) override { told(); }
  void onReceiveAddrToIntfName(const Zemit::IpAddr&) override { told(); }
  void onAdjacencyToPrefix(const Tovan::Fib::FecId&) override { told(); }
  void onToMerge() override { told(); }
};
template <>
struct WeakRootWatcher<Daemon::Ipv6> final : Watching<Routing6::Host::RouteSmRoot> {
  void onReceiveTable() override { told(); }
  void onNeighTable() override { told(); }
  void onNeighRoute(const Zemit::Ip6Prefix&) override { told(); }
  void onIntfNameToAddrWithMask(const Kiv::String8&) override { told(); }
  void onReceiveAddrToIntfName(const Zemit::Ip6Addr&) override { told(); }
  void onAdjacencyToPrefix(const Tovan::Fib::FecId&) override { told(); }
  void onToMerge() override { told(); }
  void onVipToMerge() override { told(); }
};

template <class F>
using RouteTableWatcher = RouteWatcher<typename F::RouteStatus>;
template <class F>
using HostTableWatcher = RouteWatcher<typename F::HostTable>;

/// All routes that a machine writes.
template <class F>
std::vector<std::string> written(World<F>& world) {
  std::vector<std::string> routes;
  const auto collect = [&routes](const auto& table) {
    table->forEachRoute([&routes](const typename F::Route& route) {
      std::ostringstream text;
      text << route;
      routes.push_back(text.str());
    });
    routes.emplace_back();
  };
  collect(world.routeStatus);
  if (world.root) {
    collect(world.neighborTable());
    collect(world.root->receiveTable());
  }
  return routes;
}

/// Adds an address to an interface.
template <class Status>
void addAddress(Status& status, uint32_t n) {
  if constexpr (requires { status.activeSecondaryWithMaskCount(); }) {
    status.activeSecondaryWithMaskIs({Sample<Daemon::Ipv4>::addr(n), 32}, true);
  } else {
    status.addrIs({Sample<Daemon::Ipv6>::addr(n), 128}, {.active = true});
  }
}

/// A machine with a subnet, a neighbour and an address, and the objects that its reactors watch.
template <class F>
struct Running : World<F> {
  using S = Sample<F>;

  Running() {
    this->startWithSubnet();
    this->learn(this->ethernet1, 5);
    this->addressIs(*status2, 1);
    table1 = this->neighborDir->arpIntfStatus("Ethernet1");
  }
  /// Changes every input.
  void changeAll(uint32_t n) {
    F::neighborIs(*table1, {.ipAddr = S::addr(n)});
    F::neighborDel(*table1, S::addr(5));
    this->learn(this->ethernet2, n + 1);
    this->forwarding->fecIs(typename F::Fec(7, {{.hop = {}, .intf = this->ethernet2}}));
    this->forwarding->fecNotify(7);
    this->addressIs(*status2, n + 2);
    l3Status2->vrfIs(L3::VrfName("blue"));
    l3Status2->vrfIs(L3::VrfName("red"));
    this->addressIs(*status1, n + 3);
    l3Status1->vrfIs(L3::VrfName("red"));
    l3Status1->vrfIs(L3::VrfName("blue"));
    this->virtualIps->virtualIpIs(S::virtualAddr("red", S::addr(5)), n % 2 == 0);
    this->readiness->ribReadyIs(!this->readiness->ribReady());
    this->readiness->startRibReadyVerificationIs(!this->readiness->startRibReadyVerification());
    this->neighborDir->arpIntfStatusDel("Ethernet2");
  }

  using StatusPtr = decltype(std::declval<World<F>&>().interface({}, {}));
  L3::Intf::Status::Ptr l3Status1 = this->inVrf(this->ethernet1, "blue");
  StatusPtr status1 = this->interface(this->ethernet1, l3Status1);
  L3::Intf::Status::Ptr l3Status2 = this->inVrf(this->ethernet2, "red");
  StatusPtr status2 = this->interface(this->ethernet2, l3Status2);
  Arp::ArpIntfStatus::Ptr table1;
};

TYPED_TEST(LifetimeTest, AMachineEndsAlsoWithHandlesToIt) {
  using F = TypeParam;
  using S = Sample<F>;
  using Machine = typename F::RouteSm;
  Running<F> world;
  const auto kept = world.root->routeSm();
  const auto inputs = [&world] {
    return std::vector<int32_t>{
        world.forwarding->referenceCount(), world.readiness->referenceCount(),
        world.seqConfig->referenceCount(),  world.seqInfo->referenceCount(),
        world.ipStatus->referenceCount(),   world.neighborDir->referenceCount(),
        world.virtualIps->referenceCount(), world.l3Status1->referenceCount()};
  };
  EXPECT_EQ(kept->ipIntfStatusFilterCount(), 2u);  // also of the interface in another VRF
  const auto lent = inputs();
  world.root->routeSmDel();
  for (size_t i = 0; i < lent.size(); ++i) EXPECT_LT(inputs()[i], lent[i]) << "holds input " << i;

  const auto before = written(world);
  world.changeAll(10);
  EXPECT_EQ(written(world), before);
  EXPECT_FALSE(F::hostRoutesSynced(*world.readiness));

  EXPECT_TRUE(!kept->kivFwkActivity() && !kept->routeStatus() && !kept->fwdStatus() &&
              !kept->hostStatus() && !kept->ribReadyStatus() && !kept->seqConfig() &&
              !kept->adjHelper() && !kept->ipStatus() && !kept->neighborDirByIntfName() &&
              !kept->root() && kept->virtualIps() == nullptr && !kept->initialized());
  EXPECT_EQ(kept->arpIntfStatusCount() + kept->ipIntfStatusFilterCount() +
                kept->vrfIpIntfStatusCount() + kept->ipIntfStatusCount(),
            0u);
  EXPECT_EQ(kept->vrfName(), L3::VrfName("red"));

  const auto answer = [&kept](const std::function<void(Machine&)>& call) -> std::string {
    try {
      call(*kept);
    } catch (const Kiv::Exception& refused) {
      return refused.what();
    }
    return "";
  };
  const std::function<void(Machine&)> setters[] = {
      [&](Machine& sm) { sm.kivFwkActivityIs(world.activity); },
      [&](Machine& sm) { sm.routeStatusIs(world.routeStatus); },
      [&](Machine& sm) { sm.newFwdStatus(world.forwarding); },
      [&](Machine& sm) { sm.hostStatusIs(world.hostStatus); },
      [&](Machine& sm) { sm.newRibReadyStatus(world.readiness); },
      [&](Machine& sm) { sm.newSeqConfig(world.seqConfig); },
      [&](Machine& sm) { sm.adjHelperIs(world.adjHelper); },
      [&](Machine& sm) { sm.newIpStatus(world.ipStatus); },
      [&](Machine& sm) { sm.vrfIpIntfStatusIs(world.status2); },
      [&](Machine& sm) { sm.ipIntfStatusFilterIs(world.status2); },
      [&](Machine& sm) { sm.ipIntfStatusIs(world.status2); },
      [&](Machine& sm) { sm.newNeighborDirByIntfName(world.neighborDir); },
      [&](Machine& sm) { sm.arpIntfStatusIs(world.table1); },
      [&](Machine& sm) { sm.rootIs(world.root); },
      [&](Machine& sm) {
        if constexpr (S::kIsIpv4) {
          sm.newVirtualIpStatus(world.virtualIps);
        } else {
          sm.newVirtualIp6Status(world.virtualIps);
        }
      },
      [](Machine& sm) { sm.initializedIs(true); },
      [](Machine& sm) { sm.hasNotificationActiveIs(true); },
  };
  for (const auto& setter : setters) {
    EXPECT_EQ(answer(setter), "the state machine of VRF red has ended")
        << "setter " << &setter - setters;
  }
  // A handler does nothing, or raises because it lacks the root.
  const typename F::Route route{.key = S::subnet(), .routeType = F::kConnected, .fecId = 7};
  const auto addrs = F::AddrSet::AddrSetIs(S::subnet());
  addrs->ipIs(S::addr(5), true);
  const typename F::Neighbor neighbor{.ipAddr = S::addr(5)};
  const std::function<void(Machine&)> handlers[] = {
      [&](Machine& sm) { sm.handleRoute(S::subnet(), route); },
      [&](Machine& sm) { sm.handleDeletedRoute(route); },
      [](Machine& sm) { sm.handleStatusRoute(S::subnet()); },
      [](Machine& sm) { sm.handleFec(7); },
      [](Machine& sm) { sm.handleFec(); },
      [](Machine& sm) { sm.handleHostStatusRoute(F::Prefix::host(S::addr(5))); },
      [&](Machine& sm) { sm.handleAdjacency(route); },
      [](Machine& sm) { sm.handleDeletedAdjacency(S::subnet()); },
      [&](Machine& sm) { sm.handleIpIntfStatus(world.ethernet2); },
      [](Machine& sm) { sm.handleArpEntries(); },
      [&](Machine& sm) { sm.handleAddedArpEntry(F::argument(neighbor), world.table1); },
      [&](Machine& sm) { sm.handleDeletedArpEntry(F::argument(neighbor), world.table1); },
      [&](Machine& sm) { sm.handleDeletedArpIntfStatus(world.table1); },
      [](Machine& sm) { sm.hasNoReceiveRoutes(); },
      [](Machine& sm) { sm.doFibLookup(S::subnet()); },
      [&](Machine& sm) { sm.checkIpAddressAgainstFib(S::addr(5), world.table1); },
      [&](Machine& sm) { sm.fixupArpRoute(S::addr(5), route); },
      [&](Machine& sm) { sm.promoteArpEntries(Obu::IntfDir::IntfDirIs(), route); },
      [&](Machine& sm) { sm.doMerge(addrs); },
      [](Machine& sm) {
        if constexpr (S::kIsIpv4) {
          sm.handleVirtualIpStatus(S::virtualAddr("red", S::addr(5)));
        } else {
          sm.handleVirtualIp6Status(S::virtualAddr("red", S::addr(5)));
        }
      },
      [](Machine& sm) { sm.setHostRouteRibReady(); },
      [](Machine& sm) { sm.handleRibReady(); },
      [](Machine& sm) { sm.handleInitialized(); },
      [](Machine& sm) { sm.kivDoZombieReactors(false); },
  };
  for (const auto& handler : handlers) {
    const std::string raised = answer(handler);
    EXPECT_TRUE(raised.empty() || raised == "null ValidPtr")
        << "handler " << &handler - handlers << ": " << raised;
  }
  EXPECT_EQ(written(world), before);

  // The root makes another machine. The root may be destroyed before the former machine.
  world.newMachine();
  world.machine().initializedIs(true);
  world.root = nullptr;
  world.changeAll(21);
}

TYPED_TEST(LifetimeTest, RemovedReactorsReactToNothing) {
  using F = TypeParam;
  Running<F> world;
  auto& machine = world.machine();
  const auto addresses = machine.ipIntfStatus(world.ethernet2);
  const auto filter = machine.ipIntfStatusFilter(world.ethernet1);
  const auto vrf = filter->l3Status();
  const auto neighbors = machine.arpIntfStatus("Ethernet1");
  const auto fecs = machine.fwdStatus();
  const auto readiness = machine.ribReadyStatus();
  const auto directory = machine.neighborDirByIntfName();

  world.l3Status2->vrfIs(L3::VrfName("blue"));
  machine.ipIntfStatusFilterDel(world.ethernet1);
  machine.arpIntfStatusDel("Ethernet1");
  machine.newFwdStatus(Kiv::make<typename F::ForwardingStatus>("others"));
  machine.ribReadyStatusDel();
  machine.newNeighborDirByIntfName(nullptr);
  EXPECT_FALSE(machine.neighborDirByIntfName()) << "of null there is none";
  const auto before = written(world);
  world.addressIs(*world.status2, 2);
  world.addressIs(*world.status1, 3);
  world.l3Status1->vrfIs(L3::VrfName("red"));
  F::neighborIs(*world.table1, {.ipAddr = Sample<F>::addr(6)});
  world.learn(world.ethernet2, 7);
  world.forwarding->fecIs(typename F::Fec(7, {{.hop = {}, .intf = world.ethernet2}}));
  world.readiness->ribReadyIs(true);
  EXPECT_EQ(written(world), before);
  EXPECT_FALSE(F::hostRoutesSynced(*world.readiness));
  const auto expectLeft = [](const auto& reactor) {
    EXPECT_EQ(reactor->routeSm(), nullptr);
    EXPECT_EQ(reactor->notifierRaw(), nullptr);
    EXPECT_TRUE(reactor->isZombie());
  };
  std::apply([&](const auto&... reactor) { (expectLeft(reactor), ...); },
             std::tuple(addresses, filter, vrf, neighbors, fecs, readiness, directory));

  world.root->routeSmDel();
  world.root = nullptr;
  world.changeAll(10);
}

TYPED_TEST(LifetimeTest, AMachineWithAHandleMayEndInACallback) {
  using F = TypeParam;
  bool hasEnded = true;
  for (int at = 0; hasEnded; ++at) {
    SCOPED_TRACE(at);
    Running<F> world;
    const auto kept = world.root->routeSm();
    int changes = 0;
    hasEnded = false;
    const auto routes = watcherOf<RouteTableWatcher<F>>(world.routeStatus);
    const auto neighbors = watcherOf<HostTableWatcher<F>>(world.neighborTable());
    const auto received = watcherOf<HostTableWatcher<F>>(world.root->receiveTable());
    const std::function<void()> end = [&] {
      routes->act = neighbors->act = received->act = end;
      if (changes++ != at) return;
      hasEnded = true;
      world.root->routeSmDel();
    };
    routes->act = neighbors->act = received->act = end;
    const auto filing = watcherOf<WeakRootWatcher<F>>(world.root, end);
    world.changeAll(10);
    if (hasEnded) {
      const auto before = written(world);
      world.changeAll(21);
      EXPECT_EQ(written(world), before);
      world.expectBalancedReferences();
    }
    EXPECT_TRUE(hasEnded || at > 10) << "the changes write too little to show anything";
  }
}

TYPED_TEST(LifetimeTest, AMachineMayEndWhileItGivesWayToAVirtualAddress) {
  using F = TypeParam;
  Running<F> world;
  const auto kept = world.root->routeSm();
  const auto routes =
      watcherOf<RouteTableWatcher<F>>(world.routeStatus, [&world] { world.root->routeSmDel(); });
  world.virtualIps->virtualIpIs(Sample<F>::virtualAddr("red", Sample<F>::addr(5)), true);
  EXPECT_FALSE(world.root->routeSm());
  EXPECT_FALSE(world.hasRoute(world.routeStatus, 5));
  world.expectBalancedReferences();
}

TYPED_TEST(LifetimeTest, SettersReturnTheNewObjectAlsoWhenTheRootIsDestroyed) {
  using F = TypeParam;
  using S = Sample<F>;
  using Root = typename F::RouteSmRoot;
  std::vector<std::function<bool(Root&)>> setters{
      [](Root& root) { return root.receiveTableIs("other")->name() == "other"; },
      [](Root& root) { return root.toMergeIs(S::subnet())->prefix() == S::subnet(); },
  };
  if constexpr (S::kIsIpv4) {
    setters.emplace_back([](Root& root) { return root.arpTableIs("other")->name() == "other"; });
    setters.emplace_back(
        [](Root& root) { return root.arpRouteIs(S::subnet())->prefix() == S::subnet(); });
    setters.emplace_back([](Root& root) {
      return root.intfNameToSecondaryAddrWithMaskIs("Ethernet1")->intfName() == "Ethernet1";
    });
  } else {
    setters.emplace_back([](Root& root) { return root.neighTableIs("other")->name() == "other"; });
    setters.emplace_back(
        [](Root& root) { return root.neighRouteIs(S::subnet())->prefix() == S::subnet(); });
    setters.emplace_back(
        [](Root& root) { return root.vipToMergeIs(S::subnet())->prefix() == S::subnet(); });
    setters.emplace_back([](Root& root) {
      return root.intfNameToAddrWithMaskIs("Ethernet1")->intfName() == "Ethernet1";
    });
  }
  for (const auto& setter : setters) {
    auto root = F::newRoot("red");
    const auto watcher = watcherOf<WeakRootWatcher<F>>(root, [&root] { root = nullptr; });
    EXPECT_TRUE(setter(*root));
    EXPECT_FALSE(root);
  }

  // The machine writes receive routes while it is made.
  World<F> world;
  world.addressIs(*world.interface(world.ethernet1, world.inVrf(world.ethernet1, "red")), 1);
  const auto watcher =
      watcherOf<WeakRootWatcher<F>>(world.root, [&world] { world.root = nullptr; });
  world.newMachine();
  EXPECT_FALSE(world.root);
  EXPECT_EQ(watcher->notifierRaw(), nullptr);
}

TYPED_TEST(LifetimeTest, TheRecordOfAnInterfaceMayBeRemovedWhileItIsMade) {
  using F = TypeParam;
  World<F> world;
  world.newMachine();
  world.machine().initializedIs(true);
  const auto l3Status = world.inVrf(world.ethernet1, "red");
  const auto status = world.interface(world.ethernet1, l3Status);
  const auto watcher = watcherOf<WeakRootWatcher<F>>(world.root);
  const auto takeRecords = [&world] {
    if constexpr (Sample<F>::kIsIpv4) {
      world.root->intfNameToSecondaryAddrWithMaskDelAll();
    } else {
      world.root->intfNameToAddrWithMaskDelAll();
    }
  };
  watcher->act = takeRecords;
  addAddress(*status, 1);
  for (const bool entersAgain : {false, true}) {
    if (entersAgain) {
      watcher->act = takeRecords;
      l3Status->vrfIs(L3::VrfName("red"));
    } else {
      addAddress(*status, 2);
    }
    EXPECT_FALSE(watcher->act);
    EXPECT_TRUE(world.hasRoute(world.root->receiveTable(), 1));
    EXPECT_TRUE(world.hasRoute(world.root->receiveTable(), 2));
    l3Status->vrfIs(L3::VrfName("blue"));
    EXPECT_TRUE(world.machine().hasNoReceiveRoutes()) << "a written address was not recorded";
    EXPECT_EQ(world.root->receiveTable()->routeCount(), 0u);
  }

  // The interface itself is removed while its routes are written.
  const auto received = watcherOf<HostTableWatcher<F>>(
      world.root->receiveTable(), [&] { l3Status->vrfIs(L3::VrfName("blue")); });
  l3Status->vrfIs(L3::VrfName("red"));
  EXPECT_TRUE(world.machine().hasNoReceiveRoutes());
  EXPECT_EQ(world.root->receiveTable()->routeCount(), 0u);
  EXPECT_FALSE(world.machine().ipIntfStatus(world.ethernet1));
  world.expectBalancedReferences();
}

TYPED_TEST(LifetimeTest, TheReadinessRecordMayBeRemovedWhileItIsAnswered) {
  using F = TypeParam;
  using S = Sample<F>;
  World<F> world;
  world.startWithSubnet();
  // A route without an origin, which the merge removes.
  world.routeStatus->routeIs({.key = F::Prefix::host(S::addr(9)), .routeType = F::kAttached});
  const auto routes = watcherOf<RouteTableWatcher<F>>(
      world.routeStatus, [&world] { world.machine().ribReadyStatusDel(); });
  world.readiness->ribReadyIs(true);
  EXPECT_FALSE(world.machine().ribReadyStatus());
  EXPECT_TRUE(F::hostRoutesSynced(*world.readiness));

  world.machine().newRibReadyStatus(world.readiness);
  routes->act = nullptr;
  world.routeStatus->routeIs({.key = S::longer(), .routeType = F::kConnected, .fecId = 7});
  const auto watcher =
      watcherOf<WeakRootWatcher<F>>(world.root, [&world] { world.machine().ribReadyStatusDel(); });
  world.readiness->startRibReadyVerificationIs(true);
  EXPECT_FALSE(world.machine().ribReadyStatus());
  EXPECT_TRUE(world.readiness->routeStatus(F::kReadyKind)->ready());
}

}  // namespace
