// The command that shows another process's route tables.
#include "cli/RoutesCommand.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <type_traits>
#include <vector>

#include "cli/Command.h"
#include "cli/ControlClient.h"
#include "cli/LiveRoutes.h"
#include "cli/Terminal.h"
#include "replay/Json.h"
#include "replay/Printable.h"

namespace Cli {
namespace {

constexpr const char* kRoutesDescription =
    R"(Shows the present routes of the running hostrouted: its FIB routes, its host routes, and the
state of these in the kernel. With --table, or if no hostrouted answers, shows the routes that a
process keeps in shared memory. That process may write meanwhile.)";

constexpr const char* kRoutesFooter = R"(Examples:
  hostroute routes                                      the routes of the running hostrouted
  hostroute routes 10.1.10.11                           the routes to an address, longest first
  hostroute routes --type attached_ --vrf blue          the routes to neighbours in a VRF
  hostroute replay --shared leaf1 --hold switch.jsonl &
  hostroute routes --table leaf1 --wait 10              all VRFs, both families
  hostroute routes --table leaf1 --vrf blue --family 4  one table
  hostroute routes --table leaf1 10.1.10.11             the routes to an address, longest first
  hostroute routes --table leaf1 --type attached_       the routes to neighbours
  hostroute routes --table leaf1 --intf Vlan10          the routes through an interface
  hostroute routes --table leaf1 --count                the number of each type, and the state
  hostroute routes --table leaf1 --json                 one JSON object for each route

If no hostrouted answers and there are shared tables under one name, these are shown, with a
warning and exit status 3. If there are several names, the error lists them; use --table.

A table is `loading` while its process reads its initial inputs, then `not initialized` until its
host-route machine is initialized, then `initialized`, and `synchronized` when it also has the FIB's
own host routes. It is `incomplete` while routes or next hops are missing, because its process
lacked memory or lost them to damage. It is `left behind` if its process ended without removing it,
and `removed` if its process removed it while it was read, for instance because it restarted.

The column KERNEL is "installed", "damped" (the host flaps), "pending", or the error with which the
kernel refuses the route. Routes that are not written to the kernel have no entry.

Exit status: 0 done; 1 no daemon answers and there are no shared tables, or several to choose from;
or there are no such tables, or no route to the address; or a table is damaged (the readable part is
printed); 2 the command line is malformed; 3 the output may differ from the switch's routes: the
daemon does not answer or is not ready, a table is left behind, removed, loading, incomplete or not
initialized, or the time of --wait was over.)";

constexpr int kNotReady = 3;
constexpr auto kBetweenLooks = std::chrono::milliseconds(20);
constexpr double kLongestWait = 1e6;

struct RoutesOptions {
  ControlOptions control;
  std::string address;
  std::string table;
  std::optional<std::string> vrf;
  std::optional<int> family;
  std::optional<std::string> type;
  std::optional<std::string> intf;
  std::optional<double> waits;
  bool counts = false;
  bool json = false;
};

const std::string kPlace = "hostroute routes";

/// The state of a table in shared memory.
struct TableState {
  std::string vrf;
  int family;
  bool isLive;
  bool isCurrent;
  Tovan::RouteTableState state;
  size_t routes;

  std::string_view text() const {
    if (!isCurrent) return "removed";
    if (!isLive) return "left behind";
    if (state.loading) return "loading";
    if (state.incomplete) return "incomplete";
    if (!state.initialized) return "not initialized";
    return state.synchronized ? "synchronized" : "initialized";
  }
};

/// The reason why the tables may differ from the switch's routes; empty when they do not.
///
/// An empty table that is not initialized does not matter: its VRF may have no inputs at all.
std::string unready(const std::vector<TableState>& tables) {
  bool anyInitialized = false;
  for (const TableState& table : tables) {
    const bool isKept = table.isLive && table.isCurrent;
    const bool lacksRoutes = !isKept || table.state.loading || table.state.incomplete;
    if (lacksRoutes || (table.routes != 0 && !table.state.initialized)) {
      return "VRF " + table.vrf + " IPv" + std::to_string(table.family) + " is " +
             std::string(table.text());
    }
    anyInitialized = anyInitialized || table.state.initialized;
  }
  return anyInitialized   ? ""
         : tables.empty() ? "there are no such tables"
                          : "nothing is initialized";
}

/// The selected tables, each with its VRF and family.
std::vector<Tovan::SharedRouteTable> chosenTables(const RoutesOptions& options) {
  auto tables = Tovan::sharedRouteTables(options.table);
  std::erase_if(tables, [&](const auto& table) {
    return table.vrf != options.vrf.value_or(table.vrf) ||
           table.family != options.family.value_or(table.family);
  });
  return tables;
}

/// Calls `visit` with the family of a number.
template <class Visit>
void withFamily(int number, Visit visit) {
  Daemon::forEachFamily([&](auto family) {
    if (decltype(family)::kNumber == number) visit(family);
  });
}

template <class F>
TableState stateOf(const LiveRoutes<F>& table, const std::string& vrf) {
  return {vrf, F::kNumber, table.isLive(), table.isCurrent(), table.state(), table.size()};
}

/// Waits until the tables are ready. Returns false when the time is over.
bool waitUntilReady(const RoutesOptions& options) {
  const auto wait = std::chrono::duration<double>(*options.waits);
  const auto deadline = std::chrono::steady_clock::now() + wait;
  for (;;) {
    std::string reason;
    try {
      std::vector<TableState> states;
      for (const auto& [vrf, number] : chosenTables(options)) {
        withFamily(number, [&, name = vrf](auto family) {
          using F = decltype(family);
          states.push_back(stateOf(LiveRoutes<F>(options.table, name), name));
        });
      }
      reason = unready(states);
    } catch (const Tovan::OpenException& error) {
      reason = error.what();  // the process may be creating the table
    }
    if (reason.empty()) return true;
    if (std::chrono::steady_clock::now() >= deadline) {
      const std::string vrf = options.vrf ? " (VRF " + *options.vrf + ")" : "";
      std::cerr << errorText(kPlace, "\"" + options.table + "\"" + vrf + " is not ready: " + reason)
                << '\n';
      return false;
    }
    std::this_thread::sleep_for(kBetweenLooks);
  }
}

/// Prints routes as they are found, or as one table at the end.
class Listing {
 public:
  explicit Listing(const RoutesOptions& options) : options_(options) {}

  /// Adds the routes of one table.
  template <class F>
  void add(const std::string& vrf) {
    try {
      const LiveRoutes<F> table(options_.table, vrf);
      auto state = stateOf(table, vrf);
      const auto report = [this](const std::string& damage) { reportDamage(damage); };
      const auto prefix = prefixOf<F>(options_.address);
      auto shown = prefix ? table.covering(*prefix, report) : table.all(report);
      // The process may have ended, or lost routes, while the table was read.
      state.isLive = table.isLive();
      state.isCurrent = table.isCurrent();
      state.state.incomplete |= table.state().incomplete;
      states_.push_back(state);
      std::erase_if(shown, [this](const auto& route) { return !this->isWanted<F>(route); });
      found_ += shown.size();
      if (options_.counts) {
        count<F>(shown);
      } else {
        for (const auto& route : shown) show<F>(vrf, route);
      }
    } catch (const Tovan::OpenException& error) {
      reportDamage(error.what());
    }
  }

  /// The prefix for the address on the command line; nothing when it is of the other family.
  template <class F>
  static std::optional<typename F::Prefix> prefixOf(const std::string& address) {
    if (const auto addr = F::Addr::parse(address)) return F::Prefix::host(*addr);
    const auto prefix = F::Prefix::parse(address);
    return prefix && !isNull(*prefix) ? prefix : std::nullopt;
  }

  /// Prints the table and returns the exit status.
  int finish() const {
    if (!options_.json && !(options_.counts ? counts_ : routes_).empty()) {
      (options_.counts ? counts_ : routes_).print(std::cout, tableStyle());
    }
    requireOutput();
    const std::string reason = unready(states_);
    if (!reason.empty() && !states_.empty()) {
      std::cerr << kPlace << ": warning: " << Replay::printable(reason) << '\n';
    }
    if (!isWhole_) return kFailed;
    if (!options_.address.empty() && found_ == 0) {
      throw CommandError(kPlace, "no route to " + options_.address, kFailed);
    }
    return reason.empty() ? 0 : kNotReady;
  }

 private:
  template <class F>
  bool isWanted(const Replay::ShownRoute<F>& shown) const {
    if (options_.type && *options_.type != Routing::routeTypeName(shown.route.routeType)) {
      return false;
    }
    return !options_.intf ||
           std::any_of(shown.vias.begin(), shown.vias.end(),
                       [this](const auto& via) { return via.intf.name() == *options_.intf; });
  }

  template <class F>
  void show(const std::string& vrf, const Replay::ShownRoute<F>& shown) {
    const auto& route = shown.route;
    if (options_.json) {
      auto object = Replay::routeJson<F>(shown);
      object.add("vrf", Replay::jsonString(vrf)).add("family", std::to_string(F::kNumber));
      std::cout << Replay::JsonObject().add("route", object.text()).text() << '\n';
    } else {
      routes_.add({vrf, F::kName, toString(route.key),
                   std::string(Routing::routeTypeName(route.routeType)),
                   std::to_string(route.metricPref.metric),
                   std::to_string(route.metricPref.preference), Replay::viasText<F>(shown.vias)});
    }
  }

  /// Adds the number of routes of each type in the last table.
  template <class F>
  void count(const std::vector<Replay::ShownRoute<F>>& shown) {
    std::map<std::string_view, size_t> types;
    for (const auto& [route, vias] : shown) ++types[Routing::routeTypeName(route.routeType)];
    const TableState& state = states_.back();
    if (options_.json) {
      Replay::JsonObject byType;
      for (const auto& [type, number] : types) byType.add(type, std::to_string(number));
      Replay::JsonObject object;
      object.add("vrf", Replay::jsonString(state.vrf))
          .add("family", std::to_string(F::kNumber))
          .add("state", Replay::jsonString(state.text()))
          .add("routes", std::to_string(shown.size()))
          .add("types", byType.text());
      std::cout << Replay::JsonObject().add("count", object.text()).text() << '\n';
    } else {
      std::string list;
      for (const auto& [type, number] : types) {
        list.append(list.empty() ? "" : ", ").append(type).append(" ");
        list += std::to_string(number);
      }
      counts_.add({state.vrf, F::kName, std::string(state.text()), std::to_string(shown.size()),
                   list.empty() ? "-" : list});
    }
  }

  void reportDamage(const std::string& damage) {
    std::cout.flush();
    std::cerr << errorText(kPlace, damage) << '\n';
    isWhole_ = false;
  }

  const RoutesOptions& options_;
  bool isWhole_ = true;
  size_t found_ = 0;
  std::vector<TableState> states_;
  Replay::TextTable routes_{{"VRF", "FAMILY", "PREFIX", "TYPE", "METRIC", "PREFERENCE", "VIA"}};
  Replay::TextTable counts_{{"VRF", "FAMILY", "STATE", "ROUTES", "TYPES"}};
};

/// Reports why there are no selected tables.
[[noreturn]] void refuse(const RoutesOptions& options) {
  const auto all = Tovan::sharedRouteTables(options.table);
  if (all.empty()) {
    throw CommandError(kPlace, "there are no route tables under \"" + options.table + "\"",
                       kFailed);
  }
  const auto has = [&](const auto& table) { return table.vrf == *options.vrf; };
  if (options.vrf && std::none_of(all.begin(), all.end(), has)) {
    throw CommandError(kPlace, "\"" + options.table + "\" has no VRF \"" + *options.vrf + "\"",
                       kFailed);
  }
  throw CommandError(kPlace, "\"" + options.table + "\" has no such tables", kFailed);
}

/// Waits until the daemon is ready. Returns false when the time is over.
bool waitUntilDaemonIsReady(const RoutesOptions& options) {
  const auto wait = std::chrono::duration<double>(*options.waits);
  const auto deadline = std::chrono::steady_clock::now() + wait;
  for (;;) {
    std::string reason;
    try {
      const auto status = askOnce(options.control, kPlace, {{"request", "status"}}).at("status");
      if (status.at("ready") == true) return true;
      reason = errorText(kPlace, "hostrouted is " + shownText(status, "phase"));
    } catch (const CommandError& error) {
      reason = error.what();  // the daemon may be starting
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      std::cerr << reason << '\n';
      return false;
    }
    std::this_thread::sleep_for(kBetweenLooks);
  }
}

/// The text of next hops in the daemon's JSON, in the form of Replay::viasText().
std::string viasText(const Json& vias) {
  std::string text;
  for (const auto& via : vias) {
    const auto hop = via.at("hop").get<std::string>();
    text += text.empty() ? "" : ", ";
    if (hop != "0.0.0.0" && hop != "::") text += hop + " ";
    text += via.at("intf").get<std::string>();
  }
  return text.empty() ? "-" : text;
}

/// Prints the number of routes by VRF, family and type.
void printCounts(const RoutesOptions& options, const std::vector<Json>& routes) {
  std::map<std::pair<std::string, int>, std::map<std::string, size_t>> counts;
  for (const auto& route : routes) {
    const auto key = std::pair(route.at("vrf").get<std::string>(), route.at("family").get<int>());
    ++counts[key][route.at("type").get<std::string>()];
  }
  Replay::TextTable table({"VRF", "FAMILY", "ROUTES", "TYPES"});
  for (const auto& [key, types] : counts) {
    size_t sum = 0;
    std::string list;
    for (const auto& [type, number] : types) {
      sum += number;
      list.append(list.empty() ? "" : ", ").append(type).append(" ").append(std::to_string(number));
    }
    if (options.json) {
      const Json count{
          {"vrf", key.first}, {"family", key.second}, {"routes", sum}, {"types", types}};
      std::cout << shownJson({{"count", count}}) << '\n';
    } else {
      table.add({key.first, "IPv" + std::to_string(key.second), std::to_string(sum), list});
    }
  }
  if (!table.empty()) table.print(std::cout, tableStyle());
}

/// Shows the routes of the daemon. \throws NoDaemonError.
int showDaemonRoutes(const RoutesOptions& options) {
  if (options.waits && !waitUntilDaemonIsReady(options)) return kNotReady;
  ControlClient client(options.control, kPlace);
  Json request{{"request", "routes"}};
  if (!options.address.empty()) request["prefix"] = options.address;
  if (options.vrf) request["vrf"] = *options.vrf;
  if (options.family) request["family"] = static_cast<unsigned>(*options.family);
  if (options.type) request["type"] = *options.type;
  if (options.intf) request["intf"] = *options.intf;
  client.ask(std::move(request));
  std::vector<Json> routes;
  Replay::TextTable table(
      {"VRF", "FAMILY", "PREFIX", "TYPE", "METRIC", "PREFERENCE", "KERNEL", "VIA"});
  size_t found = 0;
  while (auto line = client.next()) {
    ++found;
    const auto& route = line->at("route");
    if (options.counts) {
      routes.push_back(route);
    } else if (options.json) {
      std::cout << shownJson(*line) << '\n';
    } else {
      const auto text = [&](const char* member) { return shownText(route, member); };
      table.add({text("vrf"), "IPv" + text("family"), text("prefix"), text("type"), text("metric"),
                 text("preference"), route.contains("kernel") ? text("kernel") : "-",
                 viasText(route.at("vias"))});
    }
  }
  if (options.counts) printCounts(options, routes);
  if (!table.empty()) table.print(std::cout, tableStyle());
  client.finish();
  if (!options.address.empty() && found == 0) {
    throw CommandError(kPlace, "no route to " + options.address, kFailed);
  }
  const auto status = client.ask({{"request", "status"}}).at("status");
  if (status.at("ready") == true) return 0;
  std::cerr << kPlace << ": warning: hostrouted is " << shownText(status, "phase") << '\n';
  return kNotReady;
}

/// Shows the routes of tables in shared memory.
int showSharedRoutes(const RoutesOptions& options) {
  if (options.waits && !waitUntilReady(options)) return kNotReady;
  const auto tables = chosenTables(options);
  if (tables.empty()) refuse(options);
  Listing listing(options);
  for (const auto& [vrf, number] : tables) {
    withFamily(number, [&, name = vrf](auto family) { listing.add<decltype(family)>(name); });
  }
  return listing.finish();
}

/// The name of the only tables in shared memory, which replace the daemon's answer.
/// Prints a warning. \throws CommandError when there are none or several.
std::string onlyTables(const NoDaemonError& noDaemon) {
  const auto names = Tovan::sharedRouteTableNames();
  if (names.empty()) throw noDaemon;
  std::cerr << noDaemon.what() << '\n';
  if (names.size() > 1) {
    std::string list;
    for (const auto& name : names) list += (list.empty() ? "" : ", ") + name;
    throw CommandError(kPlace, "there are shared tables of several; choose with --table: " + list,
                       kFailed);
  }
  std::cerr << kPlace << ": warning: these are the shared tables of "
            << Replay::printable(names.front()) << " (--table)\n";
  return names.front();
}

int showRoutes(RoutesOptions options) {
  if (!options.address.empty()) {
    const bool isIpv4 = Listing::prefixOf<Daemon::Ipv4>(options.address).has_value();
    const int number = isIpv4 ? 4 : 6;
    if (options.family.value_or(number) != number) {
      throw CommandError(kPlace, options.address + " is of the other family", kMisused);
    }
    options.family = number;
  }
  if (options.table.empty()) {
    try {
      return runLive(options.control, kPlace,
                     [&](const std::string&) { return showDaemonRoutes(options); });
    } catch (const NoDaemonError& error) {
      options.table = onlyTables(error);
      const int status = showSharedRoutes(options);
      return status == 0 ? kNotReady : status;
    }
  }
  return showSharedRoutes(options);
}

std::string refusedType(const std::string& text) {
  const bool isType = Routing::parseRouteType<Daemon::Ipv4::RouteType>(text) ||
                      Routing::parseRouteType<Daemon::Ipv6::RouteType>(text);
  return isType ? "" : text + " is no type of routes, such as attached_";
}

}  // namespace

void addRoutesCommand(CLI::App& app, int& exitCode) {
  auto* command = app.add_subcommand("routes", kRoutesDescription);
  const auto options = std::make_shared<RoutesOptions>();
  command
      ->add_option("address", options->address,
                   "Only the routes that contain this address or prefix, the longest first")
      ->type_name("ADDRESS")
      ->check(refusedAddress);
  command
      ->add_option("--table", options->table,
                   "The name under which a process shares its tables; by default the running "
                   "hostrouted, or the only shared tables if none runs")
      ->type_name("NAME");
  command->add_option("--vrf", options->vrf, "Only this VRF")->type_name("VRF");
  command->add_option("--family", options->family, "Only IPv4 (4) or IPv6 (6)")
      ->type_name("FAMILY")
      ->check(CLI::IsMember({4, 6}));
  command->add_option("--type", options->type, "Only routes of this type, such as attached_")
      ->type_name("TYPE")
      ->check(refusedType);
  command->add_option("--intf", options->intf, "Only routes that leave through this interface")
      ->type_name("INTF");
  command
      ->add_option("--wait", options->waits,
                   "Wait at most this long until the daemon, or the tables of --table, are ready")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, kLongestWait));
  command->add_flag("--count", options->counts,
                    "Print the number of routes and the state of each table");
  command->add_flag("--json", options->json, "Print one JSON object for each route or table");
  addSocketOption(*command, options->control);
  command->footer(kRoutesFooter);
  command->callback([options, &exitCode] { exitCode = showRoutes(*options); });
}

}  // namespace Cli
