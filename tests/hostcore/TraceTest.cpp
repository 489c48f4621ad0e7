// The traces of the handlers: every record of one event of each kind, against traces4.txt and
// traces6.txt beside this file.
#include <map>
#include <sstream>

#include "tests/Files.h"
#include "tests/Paths.h"
#include "tests/hostcore/World.h"

namespace {

/// Runs events and writes the records of each. An object whose address a record prints is written
/// as its name.
template <class F>
class Recorder {
 public:
  explicit Recorder(World<F>& world) : world_(world) {}

  template <class Event>
  void operator()(const char* title, Event event) {
    log_.records.clear();
    event();
    learnNames();
    text_ += std::string("== ") + title + '\n';
    for (const auto& record : log_.records) text_ += named(record) + '\n';
  }
  const std::string& text() const { return text_; }

 private:
  void name(const void* object, const std::string& name) {
    std::ostringstream address;
    address << object << "::";
    names_[address.str()] = name + "::";
  }
  void learnNames() {
    name(world_.root.get(), "root");
    if (!world_.root->routeSm()) return;
    const auto& machine = world_.machine();
    name(&machine, "machine");
    for (auto it = machine.arpIntfStatusIteratorConst(); it; ++it) {
      name(it.value().get(), "neighbors(" + std::string(it.key().view()) + ')');
    }
    for (auto it = machine.ipIntfStatusIteratorConst(); it; ++it) {
      name(it.value().get(), "interface(" + std::string(it.key().name().view()) + ')');
    }
  }
  std::string named(std::string record) const {
    for (const auto& [address, name] : names_) {
      const size_t at = record.find(address);
      if (at != record.npos) record.replace(at, address.size(), name);
    }
    return record;
  }

  World<F>& world_;
  TraceLog log_{F::trace(), {0, 1, 2, 5, 6, 7, 8}};
  std::map<std::string, std::string> names_;
  std::string text_;
};

/// Each event has one neighbour, route or address, because collections have no order.
template <class F>
std::string recordAllEvents() {
  using S = Sample<F>;
  using Fec = typename F::Fec;
  using Via = typename F::Via;
  World<F> world;
  const auto eth1 = world.ethernet1;
  const auto eth2 = world.ethernet2;
  const auto management = Zemit::IntfId::of("Management1");
  const auto host = F::Prefix::host(S::addr(5));
  const auto hostStatusIs = [&](Tovan::Fib::FecId fecId) {
    world.hostStatus->routeIs({.key = host,
                               .metricPref = {.metric = 4, .preference = 2},
                               .routeType = F::kConnected,
                               .fecId = fecId});
    world.machine().handleHostStatusRoute(host);
  };
  Recorder<F> record(world);

  record("construction", [&] { world.newMachine(); });
  record("a neighbour before initialization", [&] { world.learn(eth1, 5); });
  record("a route before initialization", [&] {
    world.forwarding->fecIs(Fec(7, {Via{.hop = {}, .intf = eth1}}));
    world.routeIs(S::subnet(), 7);
  });
  record("initialization", [&] { world.machine().initializedIs(true); });
  record("the neighbour again", [&] { F::neighborNotify(world.table(eth1), S::addr(5)); });
  record("its merged route has another type", [&] {
    auto route = world.routeStatus->route(host);
    route.routeType = F::kConnected;
    world.routeStatus->routeIs(route);
    F::neighborNotify(world.table(eth1), S::addr(5));
  });
  record("the FEC gains a gateway", [&] {
    world.forwarding->fecIs(
        Fec(7, {Via{.hop = {}, .intf = eth1}, Via{.hop = S::addr(9), .intf = eth2}}));
  });
  record("a neighbour on another interface", [&] { world.learn(eth2, 6); });
  record("it goes", [&] { world.lose(eth2, 6); });
  record("the table of that interface goes", [&] {
    world.learn(eth2, 5);
    world.neighborDir->arpIntfStatusDel(eth2.name());
  });
  record("a neighbour of a management port", [&] { world.learn(management, 6); });
  record("the management port goes",
         [&] { world.neighborDir->arpIntfStatusDel(management.name()); });
  record("a neighbour where no via leaves", [&] { world.learn(Zemit::IntfId::of("Vlan3"), 5); });
  record("it goes", [&] { world.lose(Zemit::IntfId::of("Vlan3"), 5); });
  world.neighborDir->arpIntfStatusDel("Vlan3");
  record("a FIB host route without FEC", [&] { hostStatusIs(0); });
  record("it gets a FEC", [&] { hostStatusIs(7); });
  record("that is followed",
         [&] { world.machine().handleAdjacency(world.hostStatus->route(host)); });
  record("it goes", [&] {
    world.hostStatus->routeDel(host);
    world.machine().handleHostStatusRoute(host);
  });
  record("a more specific route",
         [&] { world.routeIs(F::Prefix::enclosing(S::addr(5), S::kShort + 4), 7); });
  record("it goes", [&] { world.routeDel(F::Prefix::enclosing(S::addr(5), S::kShort + 4)); });
  record("the neighbour goes", [&] { world.lose(eth1, 5); });
  record("the neighbour's table goes with it in it", [&] {
    world.learn(eth1, 5);
    world.neighborDir->arpIntfStatusDel(eth1.name());
  });
  record("the last route goes", [&] { world.routeDel(S::subnet()); });
  record("a prefix that only the trie has", [&] {
    world.trie->routeIs(S::subnet(), true);
    world.learn(eth1, 5);
    world.trie->routeDel(S::subnet());
  });
  record("a route without FEC", [&] {
    world.routeIs(S::subnet(), 0);
    F::neighborNotify(world.table(eth1), S::addr(5));
    world.machine().fixupArpRoute(S::addr(5), world.routeStatus->route(S::subnet()));
  });
  record("a table that is not there",
         [&] { world.machine().checkIpAddressAgainstFib(S::addr(5), nullptr); });
  record("the null prefix", [&] { world.machine().handleStatusRoute(F::Prefix::null()); });
  world.neighborDir->arpIntfStatusDel(eth1.name());
  const auto l3Status = world.inVrf(eth1, "red");
  record("an interface", [&] { world.interface(eth1, l3Status); });
  record("its address", [&] { world.addressIs(*world.interface(eth1, l3Status), 1); });
  record("a second one of the same host, a link-local one", [&] {
    const auto& status = world.interface(eth1, l3Status);
    if constexpr (S::kIsIpv4) {
      status->activeSecondaryWithMaskIs({S::addr(1), 31}, true);
    } else {
      status->addrIs({Zemit::Ip6Addr(0xFE80000000000000, 1), 64}, {.active = true});
    }
  });
  record("the interface leaves", [&] { l3Status->vrfIs(L3::VrfName("blue")); });
  world.routeIs(S::subnet(), 7);
  world.learn(eth1, 5);
  record("a virtual address",
         [&] { world.virtualIps->virtualIpIs(S::virtualAddr("red", S::addr(5)), true); });
  record("the neighbour again", [&] { F::neighborNotify(world.table(eth1), S::addr(5)); });
  record("it goes",
         [&] { world.virtualIps->virtualIpIs(S::virtualAddr("red", S::addr(5)), false); });
  record("the RIB is ready", [&] { world.readiness->ribReadyIs(true); });
  record("verification starts", [&] { world.readiness->startRibReadyVerificationIs(true); });
  record("verification stops", [&] { world.readiness->startRibReadyVerificationIs(false); });
  record("initialization is taken back", [&] { world.machine().initializedIs(false); });
  record("teardown", [&] { world.root->routeSmDel(); });
  return record.text();
}

TEST(TraceTest, TheIpv4HandlersTraceTheirSteps) {
  EXPECT_EQ(recordAllEvents<Daemon::Ipv4>(), contents(sourcePath("tests/hostcore/traces4.txt")));
}

TEST(TraceTest, TheIpv6HandlersTraceTheirSteps) {
  EXPECT_EQ(recordAllEvents<Daemon::Ipv6>(), contents(sourcePath("tests/hostcore/traces6.txt")));
}

}  // namespace
