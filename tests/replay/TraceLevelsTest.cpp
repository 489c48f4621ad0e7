// No trace level decides what a table holds, whoever writes and steps in meanwhile.
#include <functional>
#include <ostream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "daemon/Switch.h"
#include "replay/Output.h"
#include "replay/Player.h"
#include "tests/model/Generator.h"
#include "tests/replay/Dumps.h"

namespace {

using Random = std::mt19937_64;

/// What others do to a switch behind its back: they write to its tables without a word, and take
/// steps of its machines by hand.
class Stranger {
 public:
  Stranger(Daemon::Switch& sw, uint64_t seed) : sw_(sw), random_(seed) {}

  void act() {
    // Not all of it is allowed everywhere; what is refused is so at every level.
    try {
      if (below(2) == 0) {
        act<Daemon::Ipv4>();
      } else {
        act<Daemon::Ipv6>();
      }
    } catch (const std::exception&) {
    }
  }

 private:
  uint64_t below(uint64_t limit) { return random_() % limit; }

  template <class F>
  typename F::Addr addr() {
    const uint64_t n = std::array{0u, 1u, 2u, 3u, 9u}[below(5)];
    if constexpr (F::kNumber == 4) {
      return typename F::Addr(static_cast<uint32_t>(0x0A010100 + n));
    } else {
      return typename F::Addr(0x20010DB800010001, n);
    }
  }
  template <class F>
  typename F::Route route(const typename F::Prefix& prefix) {
    const typename F::RouteType types[] = {F::kAttached, F::kConnected};
    return {.key = prefix,
            .metricPref = {.metric = static_cast<uint32_t>(below(2)), .preference = 1},
            .routeType = types[below(2)],
            .fecId = below(6)};
  }

  template <class F>
  void act() {
    using Prefix = typename F::Prefix;
    static const char* const kVrfs[] = {"default", "blue", "red"};
    auto& routing = sw_.vrf(kVrfs[below(3)]).routing<F>();
    const auto intf = Zemit::IntfId::of(Kiv::Name("Ethernet" + std::to_string(1 + below(3))));
    const auto ip = addr<F>();
    const Prefix host = Prefix::host(ip);
    constexpr uint32_t kLengths[] = {8, 2, 0};  // bits of the host part
    const auto prefix = Prefix::enclosing(ip, F::Addr::kBits - kLengths[below(3)]);
    const auto& table = sw_.neighborDir().arpIntfStatus(intf.name());
    auto* machine = routing.machine();
    const auto& hosts = F::neighborTable(*routing.root);
    switch (below(machine == nullptr ? 8 : 17)) {
      case 0:
        routing.routeStatus->routeDel(host);
        break;
      case 1:
        routing.routeStatus->routeIs(route<F>(host));
        break;
      case 2:
        routing.hostStatus->routeDel(host);
        break;
      case 3:
        routing.hostStatus->routeIs(route<F>(host));
        break;
      case 4:
        routing.routeStatus->routeDel(prefix);
        break;
      case 5:
        routing.routeStatus->routeIs(route<F>(prefix));
        break;
      case 6:
        if (table) F::neighborNotify(*table, ip);
        break;
      case 7:
        if constexpr (F::kNumber == 4) {
          Routing::Host::removeHostRoute(ip, hosts, nullptr, routing.adjHelper);
        } else {
          Routing6::Host::removeHostRoute(ip, hosts, nullptr, routing.adjHelper);
        }
        break;
      case 8:
        if (const auto reactor = machine->arpIntfStatus(intf.name())) reactor->handleArpEntry(ip);
        break;
      case 9: {
        typename F::ViaSet vias;
        vias.newVia({.hop = ip, .intf = intf}, 1);
        addRouteToRouteTable(hosts, nullptr, ip,
                             routing.adjHelper->doGetOrCreateHostAdjacency(vias, hosts),
                             F::kAttached, nullptr, routing.root, {});
        break;
      }
      case 10:
        machine->handleDeletedAdjacency(prefix);
        break;
      case 11:
        machine->handleRoute(prefix, route<F>(prefix));
        break;
      case 12:
        machine->fixupArpRoute(ip, route<F>(prefix));
        break;
      case 13:
        machine->handleFec(1 + below(5));
        break;
      case 14:
        routing.root->toMergeIs(prefix);
        break;
      case 15:
        machine->handleInitialized();
        break;
      default:
        machine->handleStatusRoute(prefix);
        break;
    }
  }

  Daemon::Switch& sw_;
  Random random_;
};

/// Calls back once, when any table that it watches is next changed.
class Observers {
 public:
  explicit Observers(Daemon::Switch& sw) {
    for (const char* vrf : {"default", "blue", "red"}) {
      Daemon::forEachFamily([&](auto family) {
        using F = decltype(family);
        const auto& routing = sw.vrf(vrf).routing<F>();
        watch<RouteObserver<typename F::RouteStatus>>(routing.routeStatus);
        watch<RouteObserver<typename F::HostTable>>(F::neighborTable(*routing.root));
      });
    }
    Daemon::forEachFamily([&](auto family) {
      using F = decltype(family);
      watch<FecObserver<typename F::ForwardingStatus>>(sw.shared<F>().forwarding);
    });
  }
  /// Null: do not call.
  void thenIs(std::function<void()> then) { then_ = std::move(then); }

 private:
  void told() {
    if (then_) std::exchange(then_, nullptr)();
  }
  template <class Table>
  struct RouteObserver : Table::NotifieeConst {
    explicit RouteObserver(Observers& whose) : all(whose) {}
    void onRoute(const typename Table::Prefix&) override { all.told(); }
    Observers& all;
  };
  template <class Table>
  struct FecObserver : Table::NotifieeConst {
    explicit FecObserver(Observers& whose) : all(whose) {}
    using Table::NotifieeConst::onFec;
    void onFec(const Tovan::Fib::FecId&) override { all.told(); }
    Observers& all;
  };
  template <class Observer, class Table>
  void watch(const Table& table) {
    auto observer = Kiv::make<Observer>(*this);
    observer->notifierIs(table);
    observers_.push_back(observer);
  }

  std::function<void()> then_;
  std::vector<Kiv::Ptr<Kiv::Notifiee>> observers_;
};

struct State {
  std::string event;
  std::vector<nlohmann::json> dumps;
};

/// The states that one scenario runs through while these levels are traced.
std::vector<State> statesOf(uint64_t seed, const std::string& universe, uint32_t traceLevels) {
  constexpr int kEvents = 250;
  std::ostream nowhere(nullptr);
  const auto output = Replay::jsonOutput(nowhere);
  Daemon::Switch sw;
  const Replay::Tracing tracing(*output, traceLevels);
  Replay::Player player(sw, *output, {});
  Golden::Generator generator(seed, Golden::weightsOf(universe));
  Observers observers(sw);
  Random random(seed);
  std::vector<State> states;
  for (int number = 0; number < kEvents; ++number) {
    if (random() % 3 == 0) Stranger(sw, random()).act();
    const uint64_t callback = random();
    if (random() % 4 == 0) observers.thenIs([&sw, callback] { Stranger(sw, callback).act(); });
    const auto event = generator.next().dump();
    try {
      player.apply(event);
    } catch (const std::exception&) {
    }
    observers.thenIs(nullptr);
    if (number % 5 == 0) states.push_back({event, canonicalDumps(sw)});
  }
  return states;
}

class TraceLevelsTest : public testing::TestWithParam<std::tuple<uint64_t, std::string>> {};

TEST_P(TraceLevelsTest, TheTablesAreTheSameWhateverIsTraced) {
  const auto& [seed, universe] = GetParam();
  const auto untraced = statesOf(seed, universe, 0);
  std::vector<uint32_t> levels = {0x3FF};
  for (const unsigned level : {0U, 1U, 2U, 5U, 6U, 7U, 8U}) levels.push_back(1U << level);
  for (const uint32_t traced : levels) {
    const auto states = statesOf(seed, universe, traced);
    for (size_t i = 0; i < states.size(); ++i) {
      if (states[i].dumps == untraced[i].dumps) continue;
      ADD_FAILURE() << "levels " << std::hex << traced << std::dec << " event " << 5 * i << " "
                    << states[i].event << "\n"
                    << difference(states[i].dumps, "traced  ", untraced[i].dumps, "untraced");
      break;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, TraceLevelsTest,
                         testing::Combine(testing::Range<uint64_t>(1, 5),
                                          testing::Values("small", "apart")));

}  // namespace
