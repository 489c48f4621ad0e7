// The command that shows another process's route tables.
#include "cli/RoutesCommand.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/Terminal.h"
#include "daemon/Family.h"
#include "daemon/SharedNames.h"
#include "replay/Json.h"
#include "replay/ShownRoute.h"
#include "replay/TextTable.h"

namespace Cli {
namespace {

constexpr const char* kDescription =
    R"(Shows the route tables that another process keeps in shared memory, as they are now: its FIB
routes and the host routes derived from them. The other process may go on writing meanwhile.)";

constexpr const char* kFooter = R"(Examples:
  hostroute replay --shared leaf1 --hold switch.jsonl &
  hostroute routes --table leaf1                        all VRFs, both families
  hostroute routes --table leaf1 --vrf blue --family 4  one table
  hostroute routes --table leaf1 --json                 one JSON object for each route

Exit status: 0 done; 1 there are no such tables, or a table is damaged (what could be read of it is
printed); 2 the command line is malformed.)";

struct Options {
  std::string table;
  std::optional<std::string> vrf;
  std::optional<int> family;
  bool json = false;
};

/// A route with its next hops, or nothing when the route has gone. The writer may replace both
/// while they are read: a route whose FEC is not there is looked up again.
template <class F>
std::optional<Replay::ShownRoute<F>> resolved(typename F::Route route,
                                              const typename F::RouteStatus& routes,
                                              const typename F::ForwardingStatus& forwarding) {
  for (;;) {
    auto vias = Replay::viasOf<F>(forwarding, route.fecId);
    if (!vias.empty() || route.fecId == 0) return {{route, std::move(vias)}};
    const auto now = routes.route(route.key);
    if (now.key != route.key) return std::nullopt;
    if (now == route) return {{route, {}}};
    route = now;
  }
}

/// Prints routes as they are found, or as one table at the end.
class Listing {
 public:
  explicit Listing(bool json) : json_(json) {}

  /// Adds the routes of one table. Returns whether all of it could be read.
  template <class F>
  bool add(const std::string& name, const std::string& vrf) {
    const typename F::RouteStatus::Ptr routes = Kiv::make<typename F::RouteStatus>(
        Daemon::sharedRouteStatusName(name, vrf), Tovan::Access::Read);
    const auto forwarding = Kiv::make<typename F::ForwardingStatus>(name, Tovan::Access::Read);
    std::vector<Replay::ShownRoute<F>> shown;
    bool isWhole = true;
    const auto report = [&isWhole](const std::string& damage) {
      std::cerr << "hostroute routes: error: " << damage << '\n';
      isWhole = false;
    };
    const auto add = [&](const auto& item) {
      const auto route = item.value.withKey(item.key);
      try {
        if (auto found = resolved<F>(route, *routes, *forwarding)) {
          shown.push_back(std::move(*found));
        }
      } catch (const Tovan::CorruptionDetectedException& damage) {
        report(damage.what());
        shown.push_back({route, {}});
      }
    };
    try {
      routes->map().forEachSound(add, report);
    } catch (const Tovan::CorruptionDetectedException& damage) {
      report(damage.what());
    }
    std::sort(shown.begin(), shown.end(),
              [](const auto& a, const auto& b) { return a.route.key < b.route.key; });
    for (const auto& route : shown) show<F>(vrf, route);
    return isWhole;
  }

  void finish() const {
    if (!json_) table_.print(std::cout, isColoured());
  }

 private:
  template <class F>
  void show(const std::string& vrf, const Replay::ShownRoute<F>& shown) {
    const auto& route = shown.route;
    if (json_) {
      auto object = Replay::routeJson<F>(shown);
      object.add("vrf", Replay::jsonString(vrf)).add("family", std::to_string(F::kNumber));
      std::cout << Replay::JsonObject().add("route", object.text()).text() << '\n';
    } else {
      table_.add({vrf, F::kName, toString(route.key),
                  std::string(Routing::routeTypeName(route.routeType)),
                  std::to_string(route.metricPref.metric),
                  std::to_string(route.metricPref.preference), Replay::viasText<F>(shown.vias)});
    }
  }

  const bool json_;
  Replay::TextTable table_{{"VRF", "FAMILY", "PREFIX", "TYPE", "METRIC", "PREFERENCE", "VIA"}};
};

int showRoutes(const Options& options) {
  Listing listing(options.json);
  bool isWhole = true;
  bool isFound = false;
  for (const auto& [vrf, family] : Daemon::sharedRouteTables(options.table)) {
    if (vrf != options.vrf.value_or(vrf) || family != options.family.value_or(family)) continue;
    isFound = true;
    isWhole = (family == 4 ? listing.add<Daemon::Ipv4>(options.table, vrf)
                           : listing.add<Daemon::Ipv6>(options.table, vrf)) &&
              isWhole;
  }
  if (!isFound) {
    std::cerr << "hostroute routes: error: there are no such route tables under \"" << options.table
              << "\"\n";
    return 1;
  }
  listing.finish();
  return isWhole && std::cout.flush() ? 0 : 1;
}

}  // namespace

void addRoutesCommand(CLI::App& app, int& exitCode) {
  auto* command = app.add_subcommand("routes", kDescription);
  const auto options = std::make_shared<Options>();
  command
      ->add_option("--table", options->table, "The name under which the process shares its tables")
      ->type_name("NAME")
      ->required();
  command->add_option("--vrf", options->vrf, "Only this VRF")->type_name("NAME");
  command->add_option("--family", options->family, "Only IPv4 (4) or IPv6 (6)")
      ->type_name("FAMILY")
      ->check(CLI::IsMember({4, 6}));
  command->add_flag("--json", options->json, "Print one JSON object for each route");
  command->footer(kFooter);
  command->callback([options, &exitCode] {
    try {
      exitCode = showRoutes(*options);
    } catch (const Pindo::Exception& error) {
      std::cout.flush();
      std::cerr << "hostroute routes: error: " << error.what() << '\n';
      exitCode = 1;
    }
  });
}

}  // namespace Cli
