// Tests of the values that a reader may get on a processor with weakly ordered memory, and of the
// need for each memory order in the tables.
//
// By default, only some executions are explored. HOSTROUTE_WEAKORDER=long explores more; see
// scripts/try-tables.
#include <unistd.h>

#include <cstdlib>

#include "platform/tovan/RouteTableReader.h"

namespace Tovan {
namespace {

bool isLong() {
  const char* chosen = std::getenv("HOSTROUTE_WEAKORDER");
  return chosen != nullptr && std::string_view(chosen) == "long";
}

const std::string& tableName() {
  static const std::string name = "weak" + std::to_string(::getpid());
  return name;
}

using Map = TovanMap<uint64_t, std::array<uint64_t, 2>>;

TableConfig config(Access access) {
  return {.access = access, .name = tableName(), .layout = "pair/1"};
}
void set(Map& map, uint64_t key, uint64_t value) {
  map.set(key, {value, value});
}

/// The value of a key, or 0 if the key is absent, or a complaint.
struct Got {
  uint64_t value = 0;
  std::string complaint;
};
Got get(const Map& map, uint64_t key) {
  try {
    const auto value = map.get(key);
    if (!value) return {};
    if ((*value)[0] != (*value)[1]) return {.value = 0, .complaint = "torn"};
    return {.value = (*value)[0], .complaint = ""};
  } catch (const Pindo::Exception& failure) {
    return {.value = 0, .complaint = failure.what()};
  }
}

/// The result of one scenario.
struct Outcome {
  std::string complaint;
  size_t runs = 0;
};

/// Explores the results of a reader during `change`. The table has the keys 1 to `count`, each with
/// itself as value. `complaint` reads the table, and returns a complaint or "". Its arguments are
/// the table and the count of changes before `change`.
Outcome explore(uint64_t count, const std::function<void(Map&)>& change,
                const std::function<std::string(const Map&, uint64_t)>& complaint,
                size_t exceptions) {
  Map writer(config(Access::Write));
  for (uint64_t i = 1; i <= count; ++i) set(writer, i, i);
  const Map reader(config(Access::Read));
  const uint64_t start = reader.changeCount();
  Weak::model.record(tableName(), [&] { change(writer); });
  Outcome outcome;
  outcome.complaint =
      Weak::model.explore(exceptions, [&]() -> std::string { return complaint(reader, start); });
  outcome.runs = Weak::model.runs();
  writer.cleanup();
  return outcome;
}

/// The same with a look-up of `key`. `allowed` are its possible values, 0 for absent.
Outcome explore(uint64_t count, const std::function<void(Map&)>& change, uint64_t key,
                const std::vector<uint64_t>& allowed, size_t exceptions) {
  const auto complaint = [&](const Map& reader, uint64_t) -> std::string {
    const Got got = get(reader, key);
    if (!got.complaint.empty()) return got.complaint;
    const bool isAllowed = std::find(allowed.begin(), allowed.end(), got.value) != allowed.end();
    return isAllowed ? "" : "key " + std::to_string(key) + " has " + std::to_string(got.value);
  };
  return explore(count, change, complaint, exceptions);
}

Outcome replacedTwice(size_t exceptions) {
  const auto change = [](Map& map) {
    set(map, 1, 2);
    set(map, 1, 3);
  };
  const auto complaint = [](const Map& reader, uint64_t start) -> std::string {
    const uint64_t counted = reader.changeCount() - start;
    const Got first = get(reader, 1);
    const Got second = get(reader, 1);
    if (!first.complaint.empty()) return first.complaint;
    if (!second.complaint.empty()) return second.complaint;
    if (first.value == 0 || second.value == 0) return "is not there";
    if (first.value < counted + 1) return "a change was counted and is not seen";
    return first.value <= second.value ? "" : "goes back";
  };
  return explore(1, change, complaint, exceptions);
}

Outcome removedAndCounted(size_t exceptions) {
  const auto complaint = [](const Map& reader, uint64_t start) -> std::string {
    const uint64_t counted = reader.changeCount() - start;
    const Got got = get(reader, 1);
    if (!got.complaint.empty()) return got.complaint;
    return counted != 0 && got.value != 0 ? "a removal was counted and is not seen" : "";
  };
  return explore(
      1, [](Map& map) { map.erase(1); }, complaint, exceptions);
}

/// Changes a page that is nearly full, so that slots are used again and searches pass them.
Outcome comeAndGone(size_t exceptions) {
  constexpr uint64_t kCount = 66;
  const auto change = [](Map& map) {
    map.erase(5);
    set(map, 100, 100);
    map.erase(100);
    set(map, 5, 205);
  };
  Outcome all;
  // The places of the keys differ between tables.
  for (int table = 0; table < 6; ++table) {
    for (const uint64_t key : std::initializer_list<uint64_t>{5, 100, 6, 7, 8, 9, 10, 11, 12, 13}) {
      const std::vector<uint64_t> allowed = key == 5     ? std::vector<uint64_t>{5, 0, 205}
                                            : key == 100 ? std::vector<uint64_t>{0, 100}
                                                         : std::vector<uint64_t>{key};
      const Outcome one = explore(kCount, change, key, allowed, exceptions);
      all.runs += one.runs;
      if (!one.complaint.empty()) return one;
    }
  }
  return all;
}

/// Pages are split, and free pages are filled again. The directory is doubled.
Outcome splitTwice(size_t exceptions) {
  constexpr uint64_t kCount = 70;
  const auto change = [](Map& map) {
    for (uint64_t key = kCount + 1; key <= kCount + 45; ++key) set(map, key, key);
  };
  Outcome all;
  for (uint64_t key = 1; key <= 12; ++key) {
    const Outcome one = explore(kCount, change, key, {key}, exceptions);
    all.runs += one.runs;
    if (!one.complaint.empty()) return one;
  }
  return all;
}

/// Pages are joined, and the directory is halved.
Outcome joined(size_t exceptions) {
  constexpr uint64_t kCount = 160;
  constexpr uint64_t kStay = 152;
  const auto change = [](Map& map) {
    for (uint64_t key = 1; key < kStay; ++key) map.erase(key);
  };
  Outcome all;
  for (uint64_t key = kStay - 1; key < kStay + 3; ++key) {
    const auto allowed = key < kStay ? std::vector<uint64_t>{key, 0} : std::vector{key};
    const Outcome one = explore(kCount, change, key, allowed, exceptions);
    all.runs += one.runs;
    if (!one.complaint.empty()) return one;
  }
  return all;
}

Outcome repaired(size_t exceptions) {
  return explore(
      3, [](Map& map) { map.validate(); }, 2, {2}, exceptions);
}

/// The id of a route's FEC is used by another route, and then by the first one again.
Outcome idsUsedAgain(size_t exceptions) {
  using Zemit::IpAddr;
  using Zemit::Prefix;
  const auto forwarding = Kiv::make<Fib::ForwardingStatus>(tableName(), Access::Write);
  const auto routes =
      Kiv::make<Fib::RouteStatus>(sharedRouteStatusName(tableName(), "v"), Access::Write);
  constexpr Fib::FecId kFirst = Fib::ForwardingStatus::kFirstAdjacency;
  const auto intf = Zemit::IntfId::of("Ethernet1");
  const auto fec = [&](uint32_t hop) {
    return Fib::Fec(kFirst, {{.hop = IpAddr(hop), .intf = intf}});
  };
  const auto route = [](uint32_t host, uint32_t metric) {
    return Fib::Route{.key = Prefix::host(IpAddr(host)),
                      .metricPref = {.metric = metric},
                      .routeType = {},
                      .fecId = kFirst};
  };
  forwarding->adjacencyIs(fec(1));
  routes->routeIs(route(1, 1));
  Fib::RouteTableReader reader(tableName(), "v");
  reader.find(Prefix::host(IpAddr(1)));  // caches the interface's name
  Weak::model.record(tableName(), [&] {
    routes->routeDel(Prefix::host(IpAddr(1)));
    forwarding->adjacencyDel(kFirst);
    forwarding->adjacencyIs(fec(2));
    forwarding->adjacencyDel(kFirst);
    forwarding->adjacencyIs(fec(3));
    routes->routeIs(route(1, 3));
  });
  Outcome outcome;
  outcome.complaint = Weak::model.explore(exceptions, [&]() -> std::string {
    try {
      const auto found = reader.find(Prefix::host(IpAddr(1)));
      if (!found) return "";
      if (found->fec.viaCount() != 1) return "without a next hop";
      const uint32_t hop = found->fec.begin()->hop.value();
      return found->route.metricPref.metric == hop ? "" : "another's next hop";
    } catch (const Pindo::Exception& failure) {
      return failure.what();
    }
  });
  outcome.runs = Weak::model.runs();
  removeTablesOf(tableName());
  return outcome;
}

struct Scenario {
  const char* name;
  Outcome (*run)(size_t exceptions);
  size_t exceptions;  ///< in the short test
  size_t most;        ///< in the long test
};

constexpr Scenario kScenarios[] = {
    {"a value is replaced twice", replacedTwice, 3, 4},
    {"an entry is removed", removedAndCounted, 3, Weak::Model::kAll},
    {"entries come and go", comeAndGone, 2, 3},
    {"pages are split", splitTwice, 1, 2},
    {"pages are joined", joined, 1, 2},
    {"a table is repaired", repaired, 2, 3},
    {"ids of FECs are used again", idsUsedAgain, 2, 3},
};

TEST(WeakOrderTest, ReadersSeeTheStateOfOneMoment) {
  for (const Scenario& scenario : kScenarios) {
    const auto start = std::chrono::steady_clock::now();
    const Outcome found = scenario.run(isLong() ? scenario.most : scenario.exceptions);
    EXPECT_EQ(found.complaint, "") << scenario.name;
    EXPECT_GT(found.runs, 5u) << scenario.name;  // some explorations have few runs
    std::cout << scenario.name << ": " << found.runs << " runs in "
              << std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count()
              << " s\n";
  }
}

std::string functionOf(const Weak::Site& site) {
  return site.substr(site.rfind(' ') + 1);
}

/// The first scenario with a complaint, and the complaint; or "".
std::string complaintOfAny() {
  for (const Scenario& scenario : kScenarios) {
    const Outcome found = scenario.run(isLong() ? scenario.most : scenario.exceptions);
    if (!found.complaint.empty()) return std::string(scenario.name) + ": " + found.complaint;
  }
  return "";
}

// Without a necessary memory order, the model must give a complaint. docs/tables.md explains the
// orders without which it gives none.
TEST(WeakOrderTest, NoticesAMissingMemoryOrder) {
  const std::set<std::string> noticeable{"write",  "read",     "setState",
                                         "repair", "headerIs", "noteChange"};
  std::set<std::string> known;
  for (const Scenario& scenario : kScenarios) scenario.run(1);  // collects the sites
  for (const Weak::Site& site : Weak::model.sites()) {
    const bool isNoticeable = noticeable.contains(functionOf(site));
    if (!isNoticeable && !isLong()) continue;
    known.insert(functionOf(site));
    Weak::model.weaken(site);
    const std::string complaint = complaintOfAny();
    EXPECT_TRUE(!isNoticeable || !complaint.empty()) << site;
    std::cout << site << ": " << (complaint.empty() ? "not noticed" : complaint) << '\n';
  }
  Weak::model.weaken("");
  for (const std::string& function : noticeable) EXPECT_TRUE(known.contains(function)) << function;
}

}  // namespace
}  // namespace Tovan
