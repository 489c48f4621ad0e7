// The `hostroute diff` command.
#include "cli/DiffCommand.h"

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "cli/Command.h"
#include "cli/LiveRoutes.h"
#include "cli/Terminal.h"
#include "replay/Json.h"
#include "replay/Printable.h"
#include "replay/TextTable.h"

namespace Cli {
namespace {

using nlohmann::json;

constexpr const char* kDiffDescription =
    R"(Compares the host routes of two dumps: their types, metrics, preferences and next hops. It
ignores the numbers of FECs.)";

constexpr const char* kDiffFooter =
    R"(A dump is the output of `replay --json`, `replay --json-lines` or `routes --json`; - is
standard input. If a file has several dumps of one machine, the last one counts. With --table, the
second dump is the tables that a process keeps in shared memory.

Examples:
  hostroute replay --json before.jsonl > before
  hostroute replay --json after.jsonl | hostroute diff before -
  hostroute diff before --table leaf1 --vrf blue
  hostroute diff before after --json            one JSON object for each difference

Routes that only the first dump has are marked with `-`, routes that only the second has with `+`.

Exit status: 0 no difference; 1 differences; 2 the command line is malformed, or a dump or a table
cannot be read.)";

constexpr int kDifferent = 1;

struct DiffOptions {
  std::vector<std::string> files;
  std::optional<std::string> table;
  std::optional<std::string> vrf;
  std::optional<int> family;
  bool json = false;
};

/// A line is not a line of a dump.
struct NoDump {};

/// The compared properties of a route.
struct Compared {
  /// The texts of a next hop: the address and the interface.
  using Via = std::pair<std::string, std::string>;

  std::string type;
  uint64_t metric = 0;
  uint64_t preference = 0;
  std::vector<Via> vias;  // in ascending order

  friend bool operator==(const Compared&, const Compared&) = default;

  /// The properties of a route in a dump.
  static Compared of(const json& route) {
    const auto number = [&route](const char* member) {
      const json& value = route.at(member);
      if (!value.is_number_unsigned()) throw NoDump();
      return value.get<uint64_t>();
    };
    Compared compared{.type = route.at("type").get<std::string>(),
                      .metric = number("metric"),
                      .preference = number("preference"),
                      .vias = {}};
    for (const auto& via : route.at("vias")) {
      compared.vias.emplace_back(via.at("hop").get<std::string>(),
                                 via.at("intf").get<std::string>());
    }
    std::sort(compared.vias.begin(), compared.vias.end());
    return compared;
  }
  std::string jsonText() const {
    Replay::JsonList list;
    for (const auto& [hop, intf] : vias) {
      Replay::JsonObject via;
      list.add(
          via.add("hop", Replay::jsonString(hop)).add("intf", Replay::jsonString(intf)).text());
    }
    Replay::JsonObject object;
    return object.add("type", Replay::jsonString(type))
        .add("metric", std::to_string(metric))
        .add("preference", std::to_string(preference))
        .add("vias", list.text())
        .text();
  }
  std::string viasText() const {
    std::string text;
    for (const auto& [hop, intf] : vias) {
      if (!text.empty()) text += ", ";
      if (hop != "0.0.0.0" && hop != "::") text.append(hop).append(" ");
      text += intf;
    }
    return text.empty() ? "-" : text;
  }
};

/// The host routes of one family, by VRF and prefix.
template <class F>
using HostRoutes = std::map<std::string, std::map<typename F::Prefix, Compared>>;

/// The host routes of a dump or of shared tables.
struct Snapshot {
  std::tuple<HostRoutes<Daemon::Ipv4>, HostRoutes<Daemon::Ipv6>> routes;

  template <class F>
  HostRoutes<F>& of() {
    return std::get<HostRoutes<F>>(routes);
  }
  bool hasVrf(const std::string& vrf) const {
    return std::get<0>(routes).contains(vrf) || std::get<1>(routes).contains(vrf);
  }
};

template <class F>
void addRoute(const json& route, const std::string& vrf, Snapshot& snapshot) {
  const auto prefix = F::Prefix::parse(route.at("prefix").get_ref<const std::string&>());
  if (!prefix) throw NoDump();
  if (prefix->len() != F::Prefix::kMaxLen) return;
  snapshot.of<F>()[vrf].insert_or_assign(*prefix, Compared::of(route));
}

template <class F>
void addObject(const json& object, bool isDump, Snapshot& snapshot) {
  const auto& vrf = object.at("vrf").get_ref<const std::string&>();
  if (!isDump) return addRoute<F>(object, vrf, snapshot);
  // Only the first piece of a dump has this member.
  auto& hosts = snapshot.of<F>()[vrf];
  if (object.contains("initialized")) hosts.clear();
  const auto routes = object.find("routeTable");
  if (routes == object.end()) return;
  for (const auto& route : *routes) addRoute<F>(route, vrf, snapshot);
}

/// Adds the content of one line of a dump.
void addLine(const std::string& line, Snapshot& snapshot) {
  if (Replay::nestsTooDeep(line)) throw NoDump();
  const auto document = json::parse(line);
  for (const char* kind : {"dump", "route"}) {
    const auto object = document.find(kind);
    if (object == document.end()) continue;
    const bool isDump = std::string_view(kind) == "dump";
    const json& number = object->at("family");
    bool isFamily = false;
    Daemon::forEachFamily([&](auto family) {
      using F = decltype(family);
      if (number != F::kNumber) return;
      isFamily = true;
      addObject<F>(*object, isDump, snapshot);
    });
    if (!isFamily) throw NoDump();
    return;
  }
  if (!document.contains("trace") && !document.contains("event") && !document.contains("count")) {
    throw NoDump();
  }
}

Snapshot readDump(const std::string& file) {
  Input input(file);
  Snapshot snapshot;
  size_t number = 0;
  for (std::string line; std::getline(input.stream(), line);) {
    ++number;
    if (line.find_first_not_of(" \t\r") == line.npos) continue;
    const auto refuse = [&] {
      throw CommandError(input.name() + ":" + std::to_string(number),
                         "not what replay --json or routes --json prints", kMisused);
    };
    try {
      addLine(line, snapshot);
    } catch (const json::exception&) {
      refuse();
    } catch (const NoDump&) {
      refuse();
    }
  }
  if (input.stream().bad()) throw CommandError(input.name(), "cannot be read", kMisused);
  return snapshot;
}

template <class F>
void addTable(const std::string& name, const std::string& vrf, Snapshot& snapshot) {
  const auto report = [](const std::string& damage) {
    throw CommandError("hostroute diff", damage, kMisused);
  };
  const LiveRoutes<F> table(name, vrf);
  if (!table.isLive()) {
    std::cerr << "hostroute diff: warning: the process that wrote \"" << Replay::printable(name)
              << "\" has ended\n";
  } else if (table.state().loading) {
    std::cerr << "hostroute diff: warning: the process that writes \"" << Replay::printable(name)
              << "\" is still loading\n";
  } else if (table.state().incomplete) {
    std::cerr << "hostroute diff: warning: the tables of \"" << Replay::printable(name)
              << "\" are incomplete\n";
  }
  auto& routes = snapshot.of<F>()[vrf];
  for (auto& [route, vias] : table.all(report)) {
    if (route.key.len() != F::Prefix::kMaxLen) continue;
    const auto text = Replay::routeJson<F>({route, std::move(vias)}).text();
    routes.insert_or_assign(route.key, Compared::of(json::parse(text)));
  }
}

Snapshot readTables(const std::string& name) {
  Snapshot snapshot;
  const auto tables = Tovan::sharedRouteTables(name);
  if (tables.empty()) {
    throw CommandError("hostroute diff", "there are no route tables under \"" + name + "\"",
                       kMisused);
  }
  for (const auto& [vrf, number] : tables) {
    if (number == Daemon::Ipv4::kNumber) {
      addTable<Daemon::Ipv4>(name, vrf, snapshot);
    } else {
      addTable<Daemon::Ipv6>(name, vrf, snapshot);
    }
  }
  return snapshot;
}

/// Prints the differences: JSON at once, a table at the end.
class Differences {
 public:
  explicit Differences(const DiffOptions& options) : options_(options) {}

  template <class F>
  void find(const HostRoutes<F>& before, const HostRoutes<F>& after) {
    if (options_.family.value_or(F::kNumber) != F::kNumber) return;
    // Merges both sorted lists, so that the two lines of a change follow one another.
    std::map<std::string, std::map<typename F::Prefix, std::pair<const Compared*, const Compared*>>>
        both;
    for (const auto& [vrf, routes] : before) {
      for (const auto& [prefix, route] : routes) both[vrf][prefix].first = &route;
    }
    for (const auto& [vrf, routes] : after) {
      for (const auto& [prefix, route] : routes) both[vrf][prefix].second = &route;
    }
    for (const auto& [vrf, routes] : both) {
      if (options_.vrf.value_or(vrf) != vrf) continue;
      for (const auto& [prefix, pair] : routes) {
        const auto [was, is] = pair;
        if (was != nullptr && is != nullptr && *was == *is) continue;
        areEqual_ = false;
        if (options_.json) {
          print<F>(vrf, prefix, was, is);
        } else {
          if (was != nullptr) add<F>("-", vrf, prefix, *was);
          if (is != nullptr) add<F>("+", vrf, prefix, *is);
        }
      }
    }
  }

  /// Prints the table and returns the exit status.
  int finish() const {
    if (!table_.empty()) table_.print(std::cout, tableStyle());
    return areEqual_ ? 0 : kDifferent;
  }

 private:
  template <class F>
  void add(const char* side, const std::string& vrf, const typename F::Prefix& prefix,
           const Compared& route) {
    table_.add({side, vrf, F::kName, toString(prefix), route.type, std::to_string(route.metric),
                std::to_string(route.preference), route.viasText()});
  }
  template <class F>
  void print(const std::string& vrf, const typename F::Prefix& prefix, const Compared* was,
             const Compared* is) {
    Replay::JsonObject object;
    object.add("vrf", Replay::jsonString(vrf))
        .add("family", std::to_string(F::kNumber))
        .add("prefix", Replay::jsonString(toString(prefix)))
        .add("before", was == nullptr ? "null" : was->jsonText())
        .add("after", is == nullptr ? "null" : is->jsonText());
    std::cout << Replay::JsonObject().add("difference", object.text()).text() << '\n';
  }

  const DiffOptions& options_;
  bool areEqual_ = true;
  Replay::TextTable table_{{" ", "VRF", "FAMILY", "PREFIX", "TYPE", "METRIC", "PREFERENCE", "VIA"}};
};

int compare(const DiffOptions& options) {
  const size_t wanted = options.table ? 1 : 2;
  if (options.files.size() != wanted) {
    throw CommandError("hostroute diff", "two dumps are needed, or one and --table", kMisused);
  }
  if (options.files.front() == "-" && options.files.back() == "-" && wanted == 2) {
    throw CommandError("hostroute diff", "only one of the dumps can be standard input", kMisused);
  }
  auto before = readDump(options.files[0]);
  auto after = options.table ? readTables(*options.table) : readDump(options.files[1]);
  if (options.vrf && !before.hasVrf(*options.vrf) && !after.hasVrf(*options.vrf)) {
    throw CommandError("hostroute diff", "neither has a VRF \"" + *options.vrf + "\"", kMisused);
  }
  Differences differences(options);
  Daemon::forEachFamily([&](auto family) {
    using F = decltype(family);
    differences.find<F>(before.of<F>(), after.of<F>());
  });
  const int status = differences.finish();
  if (!std::cout.flush()) throw CommandError("standard output", "cannot be written", kMisused);
  return status;
}

}  // namespace

void addDiffCommand(CLI::App& app, int& exitCode) {
  auto* command = app.add_subcommand("diff", kDiffDescription);
  const auto options = std::make_shared<DiffOptions>();
  command->add_option("dumps", options->files, "The dumps; - for standard input")
      ->type_name("DUMP")
      ->expected(1, 2)
      ->required();
  command->add_option("--table", options->table, "Compare with the tables shared under this name")
      ->type_name("NAME");
  command->add_option("--vrf", options->vrf, "Only this VRF")->type_name("VRF");
  command->add_option("--family", options->family, "Only IPv4 (4) or IPv6 (6)")
      ->type_name("FAMILY")
      ->check(CLI::IsMember({4, 6}));
  command->add_flag("--json", options->json, "Print one JSON object for each difference");
  command->footer(kDiffFooter);
  command->callback([options, &exitCode] {
    try {
      exitCode = compare(*options);
    } catch (const CommandError&) {
      throw;
    } catch (const std::exception& error) {
      throw CommandError("hostroute diff", error.what(), kMisused);
    }
  });
}

}  // namespace Cli
