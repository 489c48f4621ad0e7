// Tests that the trace level never changes the tables, even when others write to them meanwhile.
#include <cstdint>
#include <functional>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "daemon/Switch.h"
#include "platform/kiv/containers/Exception.h"
#include "replay/Output.h"
#include "replay/Player.h"
#include "tests/model/Generator.h"
#include "tests/replay/Dumps.h"
#include "tests/replay/Seeds.h"

namespace {

using Random = std::mt19937_64;

/// Random actions of other code on a switch: writes to its tables without a notification, and
/// direct calls of its machines' handlers.
class OtherCode {
 public:
  OtherCode(Daemon::Switch& sw, uint64_t seed) : sw_(sw), random_(seed) {}

  void act() {
    // Some actions throw in some states. They throw at every trace level alike.
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
    constexpr uint32_t kLengths[] = {8, 2, 0};  // host bits
    const auto prefix = Prefix::enclosing(ip, F::Addr::kBits - kLengths[below(3)]);
    const auto& table = sw_.neighborDir().arpIntfStatus(intf.name());
    auto* machine = routing.machine();
    const auto& hosts = F::neighborTable(*routing.root);
    const std::function<void()> actions[] = {
        [&] { routing.routeStatus->routeDel(host); },
        [&] { routing.routeStatus->routeIs(route<F>(host)); },
        [&] { routing.hostStatus->routeDel(host); },
        [&] { routing.hostStatus->routeIs(route<F>(host)); },
        [&] { routing.routeStatus->routeDel(prefix); },
        [&] { routing.routeStatus->routeIs(route<F>(prefix)); },
        [&] {
          if (table) F::neighborNotify(*table, ip);
        },
        [&] {
          using namespace Routing::Host;
          using namespace Routing6::Host;
          removeHostRoute(ip, hosts, nullptr, routing.adjHelper);
        },
        // The following actions need a machine.
        [&] {
          if (const auto reactor = machine->arpIntfStatus(intf.name())) reactor->handleArpEntry(ip);
        },
        [&] {
          typename F::ViaSet vias;
          vias.newVia({.hop = ip, .intf = intf}, 1);
          addRouteToRouteTable(hosts, nullptr, ip,
                               routing.adjHelper->doGetOrCreateHostAdjacency(vias, hosts),
                               F::kAttached, nullptr, routing.root, {});
        },
        [&] { machine->handleDeletedAdjacency(prefix); },
        [&] { machine->handleRoute(prefix, route<F>(prefix)); },
        [&] { machine->fixupArpRoute(ip, route<F>(prefix)); },
        [&] { machine->handleFec(1 + below(5)); }, [&] { routing.root->toMergeIs(prefix); },
        [&] { machine->handleInitialized(); }, [&] { machine->handleStatusRoute(prefix); }};
    actions[below(machine == nullptr ? 8 : std::size(actions))]();
  }

  Daemon::Switch& sw_;
  Random random_;
};

/// Calls a function once, at the next change of a watched table.
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
  /// Null: no function is called.
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
  std::vector<std::string> exactDumps;  ///< with the numbers of adjacencies
};

/// The ways in which a switch is observed.
struct Watching {
  uint32_t levels = 0;     ///< trace levels of all VRFs
  uint32_t ownLevels = 0;  ///< trace levels of one address of the VRF "default"
  bool history = false;
  bool looks = false;  ///< whether all reactors are read, so that none is missing

  friend std::ostream& operator<<(std::ostream& os, const Watching& watching) {
    return os << "levels " << std::hex << watching.levels << ", own " << watching.ownLevels
              << std::dec << ", history " << watching.history << ", looks " << watching.looks;
  }
};

/// Reads the reactors of all machines, which makes missing ones.
void lookAtReactors(const Daemon::Switch& sw) {
  for (const auto& entry : sw.vrfs()) {
    Daemon::forEachFamily([&](auto family) {
      const auto* machine = entry.second.template routing<decltype(family)>().machine();
      if (machine != nullptr) machine->arpIntfStatusKeys();
    });
  }
}

/// The states of one scenario with this observation.
std::vector<State> statesOf(uint64_t seed, const std::string& universe, const Watching& watching) {
  constexpr int kEvents = 250;
  std::ostream nowhere(nullptr);
  const auto output = Replay::jsonOutput(nowhere);
  Daemon::Switch sw;
  const Replay::Tracing tracing(*output, watching.levels);
  sw.traceLevelIs("default", watching.ownLevels);
  sw.traceAddressIs("default", "10.1.1.1");
  sw.historyIs(watching.history ? 10 : 0);
  Replay::Player player(sw, *output, {});
  Golden::Generator generator(seed, Golden::weightsOf(universe));
  Observers observers(sw);
  Random random(seed);
  std::vector<State> states;
  for (int number = 0; number < kEvents; ++number) {
    if (random() % 3 == 0) OtherCode(sw, random()).act();
    const uint64_t callback = random();
    if (random() % 4 == 0) observers.thenIs([&sw, callback] { OtherCode(sw, callback).act(); });
    const auto event = generator.next().dump();
    try {
      player.apply(event);
    } catch (const std::exception&) {
    }
    observers.thenIs(nullptr);
    if (watching.looks) lookAtReactors(sw);
    if (number % 5 == 0) states.push_back({event, canonicalDumps(sw), exactDumps(sw)});
  }
  return states;
}

class TraceLevelsTest : public testing::TestWithParam<std::tuple<uint64_t, std::string>> {};

TEST_P(TraceLevelsTest, TheTablesAreTheSameAtEveryTraceLevel) {
  const auto& [seed, universe] = GetParam();
  const auto untraced = statesOf(seed, universe, {});
  std::vector<Watching> ways = {
      {.levels = 0x3FF}, {.ownLevels = 0x3FF, .history = true}, {.looks = true}};
  for (const unsigned level : {0U, 1U, 2U, 5U, 6U, 7U, 8U}) ways.push_back({.levels = 1U << level});
  for (const Watching& watched : ways) {
    const auto states = statesOf(seed, universe, watched);
    for (size_t i = 0; i < states.size(); ++i) {
      const bool isSame = states[i].dumps == untraced[i].dumps &&
                          (!watched.looks || states[i].exactDumps == untraced[i].exactDumps);
      if (isSame) continue;
      ADD_FAILURE() << watched << " event " << 5 * i << " " << states[i].event << "\n"
                    << difference(states[i].dumps, "traced  ", untraced[i].dumps, "untraced");
      break;
    }
  }
}

/// Stores the trace records: the object and the message.
class Records final : public Replay::Output {
 public:
  void dump(const Daemon::Switch&, const Replay::DumpSelection&) override {}
  void event(size_t, std::string_view) override {}
  void trace(const Kiv::TraceRecord& record) override {
    texts_.push_back(std::string(record.objectName) + ": " + std::string(record.message));
  }
  /// The number of trace records since the last call that contain `part`.
  size_t take(std::string_view part) {
    size_t count = 0;
    for (const auto& text : std::exchange(texts_, {})) count += text.find(part) != text.npos;
    return count;
  }
  bool empty() const { return texts_.empty(); }

 private:
  std::vector<std::string> texts_;
};

TEST(OwnTraceLevelsTest, TraceOneVrfOrOneOfItsAddresses) {
  Records records;
  const Replay::Tracing tracing(records, 0);
  Daemon::Switch sw;
  Replay::Player player(sw, records, {});
  for (const char* line : {
           R"({"op":"vrf","name":"blue"})",
           R"({"op":"fec","id":1,"family":4,"vias":[{"intf":"Ethernet1"}]})",
           R"({"op":"route","prefix":"10.1.1.0/24","fec":1})",
           R"({"op":"route","vrf":"blue","prefix":"10.1.1.0/24","fec":1})",
           R"({"op":"initialized","value":true})",
           R"({"op":"initialized","vrf":"blue","value":true})",
       }) {
    player.apply(line);
  }
  const auto learn = [&player](const char* ip, const char* mac) {
    player.apply(std::string(R"({"op":"neighbor","intf":"Ethernet1","ip":")") + ip +
                 R"(","mac":"00:00:00:00:00:)" + mac + R"("})");
  };

  learn("10.1.1.4", "01");
  EXPECT_TRUE(records.empty());
  sw.traceLevelIs("blue", 0x3FF);
  learn("10.1.1.5", "01");
  const size_t ofOne = records.take("");
  EXPECT_GT(ofOne, 5u);
  sw.traceLevelIs("default", 0x3FF);
  learn("10.1.1.6", "01");
  EXPECT_EQ(records.take(""), 2 * ofOne);
  sw.traceLevelIs("blue", 0);
  learn("10.1.1.7", "01");
  EXPECT_EQ(records.take("blue: "), 0u);

  sw.traceAddressIs("default", "10.1.1.5");
  learn("10.1.1.6", "02");
  EXPECT_TRUE(records.empty());
  learn("10.1.1.5", "02");
  EXPECT_GT(records.take("10.1.1.5"), 0u);
  // The traces of the address include a route that covers it and exclude other routes. Of the
  // neighbours under the route they include only the address.
  player.apply(R"({"op":"route","prefix":"10.2.0.0/16","fec":1})");
  EXPECT_EQ(records.take("10.2.0.0/16"), 0u);
  player.apply(R"({"op":"route","prefix":"10.1.1.4/30","fec":1})");
  EXPECT_EQ(records.take("10.1.1.6"), 0u);
  player.apply(R"({"op":"route","prefix":"10.1.1.4/30","present":false})");
  EXPECT_GT(records.take("10.1.1.4/30"), 0u);
  // When the traced address is of the other family, nothing of this family is traced.
  sw.traceAddressIs("default", "2001:db8::5");
  learn("10.1.1.5", "03");
  EXPECT_TRUE(records.empty());
  sw.traceAddressIs("default", "");
  learn("10.1.1.6", "03");
  EXPECT_GT(records.take("10.1.1.6"), 0u);

  EXPECT_THROW(sw.traceLevelIs("red", 1), Kiv::RangeException);
  EXPECT_THROW(sw.traceAddressIs("default", "10.1.1"), Kiv::RangeException);
  // A torn-down machine removes its trace levels.
  player.apply(R"({"op":"teardown"})");
  EXPECT_FALSE(Daemon::Ipv4::trace().builds(8));
}

INSTANTIATE_TEST_SUITE_P(Seeds, TraceLevelsTest,
                         testing::Combine(Replay::seeds(4), testing::Values("small", "apart")));

}  // namespace
