// The state machine of one VRF, of either family, with inputs that a test owns.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "daemon/Family.h"

using Families = testing::Types<Daemon::Ipv4, Daemon::Ipv6>;

/// The values of a family's tests: the addresses 10.0.0.N (2001:db8::N) and their subnet.
template <class F>
struct Sample {
  using Addr = typename F::Addr;
  using Prefix = typename F::Prefix;
  static constexpr bool kIsIpv4 = std::is_same_v<F, Daemon::Ipv4>;

  static constexpr Addr addr(uint32_t n) {
    if constexpr (kIsIpv4) {
      return Addr(0x0A000000 + n);
    } else {
      return Addr(0x20010DB800000000, n);
    }
  }
  static constexpr uint32_t kShort = kIsIpv4 ? 24 : 64;  // the length of an ordinary subnet
  static Prefix subnet() { return {addr(0), kShort}; }
  static Prefix longer() { return {addr(0), kShort + 1}; }
  static Prefix wider() { return Prefix::enclosing(addr(0), kShort - 8); }
  static constexpr auto kOwnTypes = [] {
    if constexpr (kIsIpv4) {
      return std::to_array(
          {Routing::Fib::receive_, Routing::Fib::receiveBcast_, Routing::Fib::attached_});
    } else {
      return std::to_array({Routing6::Fib::receive_, Routing6::Fib::attached_});
    }
  }();
  static constexpr auto kForeignType = [] {
    if constexpr (kIsIpv4)
      return Routing::Fib::staticConfig_;
    else
      return Routing6::Fib::staticConfig_;
  }();
  static constexpr auto kBgpTypes = [] {
    if constexpr (kIsIpv4) {
      return std::to_array({Routing::Fib::ibgp_, Routing::Fib::ebgp_, Routing::Fib::bgpAggregate_});
    } else {
      return std::to_array({Routing6::Fib::bgp_, Routing6::Fib::bgpAggregate_});
    }
  }();
  static constexpr auto kReceive = kOwnTypes[0];

  /// `addr` as a virtual address of a VRF.
  static auto virtualAddr(const char* vrf, const Addr& addr) {
    if constexpr (kIsIpv4) {
      return Routing::Fhrp::VrfIpWithMaskPair(L3::VrfName(vrf), Zemit::IpAddrWithMask(addr, 24));
    } else {
      return Routing::Fhrp::VrfIpPair(L3::VrfName(vrf), addr);
    }
  }
};

/// The VRF "red": a root, and the inputs of its machine. A test may reset inputs before
/// newMachine().
template <class F>
struct World {
  using S = Sample<F>;
  using Fec = typename F::Fec;
  using Route = typename F::Route;
  using FecId = Tovan::Fib::FecId;

  const Zemit::IntfId ethernet1 = Zemit::IntfId::of("Ethernet1");
  const Zemit::IntfId ethernet2 = Zemit::IntfId::of("Ethernet2");

  World() {
    root->trieIs(trie);
    root->adjHelperIs(adjHelper);
    readiness->newRouteStatus(F::kReadyKind);
  }

  /// Calls `make` with the inputs of a machine, in the family's order.
  template <class Make>
  auto withInputs(Make make, const char* vrf = "red") {
    const auto with = [&](const auto& first, const auto& second) {
      return make(activity, routeStatus, forwarding, hostStatus, readiness, seqConfig, seqInfo,
                  adjHelper, ipStatus, neighborDir, first, second, L3::VrfName(vrf));
    };
    if constexpr (S::kIsIpv4) {
      return with(root, virtualIps);
    } else {
      return with(virtualIps, root);
    }
  }
  void newMachine() {
    withInputs([this](const auto&... inputs) { root->newRouteSm(inputs...); });
  }
  /// A machine that is initialized and has a subnet on Ethernet1 (FEC 7).
  void startWithSubnet() {
    newMachine();
    machine().initializedIs(true);
    forwarding->fecIs(Fec(7, {{.hop = {}, .intf = ethernet1}}));
    routeIs(S::subnet(), 7);
  }
  typename F::RouteSm& machine() { return *root->routeSm(); }
  const typename F::HostTable::Ptr& neighborTable() { return F::neighborTable(*root); }

  void routeIs(const typename F::Prefix& prefix, FecId fecId) {
    routeStatus->routeIs({.key = prefix,
                          .metricPref = {.metric = 0, .preference = 1},
                          .routeType = F::kConnected,
                          .fecId = fecId});
    machine().handleStatusRoute(prefix);
  }
  void routeDel(const typename F::Prefix& prefix) {
    routeStatus->routeDel(prefix);
    machine().handleStatusRoute(prefix);
  }
  Arp::ArpIntfStatus& table(Zemit::IntfId intf) {
    return *neighborDir->newArpIntfStatus(intf.name());
  }
  void learn(Zemit::IntfId intf, uint32_t n) { F::neighborIs(table(intf), {.ipAddr = S::addr(n)}); }
  void lose(Zemit::IntfId intf, uint32_t n) { F::neighborDel(table(intf), S::addr(n)); }

  /// Removes a neighbour's host route without the machine.
  void removeHostRouteByHand(uint32_t n) {
    if constexpr (S::kIsIpv4) {
      Routing::Host::removeHostRoute(S::addr(n), neighborTable(), nullptr, adjHelper);
    } else {
      Routing6::Host::removeHostRoute(S::addr(n), neighborTable(), nullptr, adjHelper);
    }
  }

  /// The interface's entry in the IP status; made if it is missing.
  auto interface(Zemit::IntfId intf, const L3::Intf::Status::PtrConst& l3Status) {
    if constexpr (S::kIsIpv4) {
      return ipStatus->newIpIntfStatus(intf, l3Status);
    } else {
      return ipStatus->newIntf(intf, l3Status);
    }
  }
  /// The status of an interface that is not in the IP status.
  static auto interfaceStatus(Zemit::IntfId intf, const L3::Intf::Status::PtrConst& l3Status) {
    if constexpr (S::kIsIpv4) {
      return Kiv::make<Ip::IpIntfStatus>(intf, l3Status);
    } else {
      return Kiv::make<Ip6::IntfStatus>(intf, l3Status);
    }
  }
  static L3::Intf::Status::Ptr inVrf(Zemit::IntfId intf, const char* vrf) {
    auto status = Kiv::make<L3::Intf::Status>(intf.name());
    status->vrfIs(L3::VrfName(vrf));
    return status;
  }
  /// Sets the only address of the interface.
  template <class Status>
  static void addressIs(Status& status, uint32_t n) {
    if constexpr (S::kIsIpv4) {
      status.activeAddrWithMaskIs({S::addr(n), 32});
    } else {
      status.addrDelAll();
      status.addrIs({S::addr(n), 128}, {.active = true});
    }
  }

  template <class Table>
  static bool hasRoute(const Table& table, uint32_t n) {
    return table->route(F::Prefix::host(S::addr(n))).key == F::Prefix::host(S::addr(n));
  }

  /// Checks that the references on each adjacency equal the routes that use it.
  void expectBalancedReferences() {
    EXPECT_EQ(users(adjHelper->fibAdjacencies()),
              holders(routeStatus, F::ForwardingStatus::kFirstAdjacency));
    EXPECT_EQ(users(neighborTable()->adjacencies()), holders(neighborTable(), 1));
    EXPECT_EQ(users(root->receiveTable()->adjacencies()), holders(root->receiveTable(), 1));
  }
  template <class Adjacencies>
  static size_t users(const Adjacencies& adjacencies) {
    size_t sum = 0;
    adjacencies.forEach([&sum](const auto&, uint32_t count) { sum += count; });
    return sum;
  }
  template <class Table>
  static size_t holders(const Table& table, FecId lowest) {
    size_t sum = 0;
    table->forEachRoute([&](const Route& route) { sum += route.fecId >= lowest; });
    return sum;
  }

  Kiv::ActivityConfig::Ptr activity = Kiv::make<Kiv::ActivityConfig>();
  typename F::RouteStatus::Ptr routeStatus = Kiv::make<typename F::RouteStatus>("routes");
  typename F::ForwardingStatus::Ptr forwarding =
      Kiv::make<typename F::ForwardingStatus>("forwarding");
  typename F::HostTable::Ptr hostStatus = Kiv::make<typename F::HostTable>("hostStatus");
  RovelReady::VrfStatus::Ptr readiness = Kiv::make<RovelReady::VrfStatus>(L3::VrfName("red"));
  Routing::SeqConfig::Ptr seqConfig = Kiv::make<Routing::SeqConfig>("seqConfig");
  Rovel::SeqInfo::Ptr seqInfo = Kiv::make<Rovel::SeqInfo>("seqInfo");
  typename F::AdjacencyHelper::Ptr adjHelper =
      Kiv::make<typename F::AdjacencyHelper>("adjHelper", forwarding);
  typename F::IpStatus::Ptr ipStatus = Kiv::make<typename F::IpStatus>("ipStatus");
  Arp::NeighborDir::Ptr neighborDir = Kiv::make<Arp::NeighborDir>("neighborDir");
  typename F::VirtualIpStatus::Ptr virtualIps =
      Kiv::make<typename F::VirtualIpStatus>("virtualIps");
  typename F::Trie::Ptr trie = Kiv::make<typename F::Trie>();
  typename F::RouteSmRoot::Ptr root = F::newRoot("red");
};

/// Calls a function once, at its first notification.
struct Once {
  void told() {
    if (const auto once = std::exchange(act, nullptr)) once();
  }
  std::function<void()> act;
};

/// Calls a function at the first change of a table of routes.
template <class Table>
struct RouteWatcher : Table::NotifieeConst, Once {
  void onRoute(const typename Table::Prefix&) override { told(); }
};

/// A watcher of `watched` that calls `act` at its first notification.
template <class Watcher, class Watched>
Kiv::Ptr<Watcher> watcherOf(const Watched& watched, const std::function<void()>& act = {}) {
  auto watcher = Kiv::make<Watcher>();
  watcher->notifierIs(watched);
  watcher->act = act;
  return watcher;
}

/// Collects the trace records of some levels during its lifetime.
class TraceLog {
 public:
  TraceLog(Kiv::TraceFacility& facility, std::vector<unsigned> levels)
      : facility_(facility), levels_(std::move(levels)) {
    for (unsigned level : levels_) facility_.levelIs(level, true);
    Kiv::Tracer::sinkIs([this](const Kiv::TraceRecord& record) {
      if (record.facility == facility_.name()) records.push_back(text(record));
    });
  }
  ~TraceLog() {
    for (unsigned level : levels_) facility_.levelIs(level, false);
    Kiv::Tracer::sinkIs({});
  }

  std::vector<std::string> records;

 private:
  static std::string text(const Kiv::TraceRecord& record) {
    return std::to_string(record.level) + ' ' + std::string(record.objectName) + ' ' +
           std::string(record.functionName) + ": " + std::string(record.message);
  }

  Kiv::TraceFacility& facility_;
  std::vector<unsigned> levels_;
};
