// The commands that show the neighbours, changes and machines of a running hostrouted.
#include "cli/LiveCommands.h"

#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "cli/ChangeText.h"
#include "cli/Command.h"
#include "cli/ControlClient.h"
#include "cli/Terminal.h"
#include "replay/TextTable.h"

namespace Cli {
namespace {

constexpr const char* kNeighborsDescription =
    R"(Shows the kernel's neighbour entries: whether the running hostrouted uses each, or the reason
why not, and whether its address has a host route.)";

constexpr const char* kNeighborsFooter = R"(Examples:
  hostroute neighbors
  hostroute neighbors --intf swp3
  hostroute neighbors 10.0.0.5
  hostroute explain 10.0.0.5            why a neighbour has no route

Exit status: 0 done; 1 no daemon answers, or it has damaged tables (the readable part is printed);
2 the command line is malformed.)";

constexpr const char* kMonitorDescription =
    R"(Prints each change of a host route as it happens. Each line also has the event that caused
the change. Ctrl-C ends the command.)";

constexpr const char* kMonitorFooter = R"(Examples:
  hostroute monitor
  hostroute monitor 10.0.0.0/24 --vrf blue
  hostroute monitor --json | jq -r .change.prefix

If the output is too slow, changes are left out, and their number is shown.

Exit status: 1 the daemon ended or none answers; 2 the command line is malformed.)";

constexpr const char* kDumpDescription =
    R"(Prints the whole state of the running hostrouted's machines, as `hostroute replay` does for a
recording.)";

constexpr const char* kDumpFooter = R"(Examples:
  hostroute dump --vrf blue
  hostroute dump --json > before; ...; hostroute dump --json | hostroute diff before -

Exit status: 0 done; 1 no daemon answers, or it has damaged tables (the readable part is printed);
2 the command line is malformed.)";

struct LiveOptions {
  ControlOptions control;
  std::optional<std::string> prefix;
  std::optional<std::string> vrf;
  std::optional<int> family;
  std::optional<std::string> intf;
  std::string kind;
  std::string begin;
  bool json = false;

  Json request(const char* name) const {
    Json request{{"request", name}};
    if (prefix) request["prefix"] = *prefix;
    if (vrf) request["vrf"] = *vrf;
    if (family) request["family"] = static_cast<unsigned>(*family);
    if (intf) request["intf"] = *intf;
    return request;
  }
};

int showNeighbors(const LiveOptions& options, const std::string& place) {
  ControlClient client(options.control, place);
  client.ask(options.request("neighbors"));
  Replay::TextTable table({"VRF", "INTERFACE", "ADDRESS", "MAC", "STATE", "COUNTS", "ROUTE"});
  while (const auto line = client.next()) {
    if (options.json) {
      std::cout << shownJson(*line) << '\n';
      continue;
    }
    const auto& row = line->at("neighbor");
    const auto text = [&](const char* member) { return shownText(row, member); };
    const auto& isRouted = row.at("route");
    table.add({text("vrf").empty() ? "-" : text("vrf"), text("intf"), text("address"), text("mac"),
               text("state"), row.at("fed") == true ? "yes" : "no: " + text("verdict"),
               isRouted.is_null() ? "unknown"
               : isRouted == true ? "yes"
                                  : "no"});
  }
  if (!table.empty()) table.print(std::cout, tableStyle());
  client.finish();
  return 0;
}

int showChanges(const LiveOptions& options, const std::string& place) {
  ControlClient client(options.control, place);
  client.ask(options.request("monitor"));
  while (const auto line = client.next(true)) {
    if (options.json) {
      std::cout << shownJson(*line) << '\n';
    } else if (line->contains("lost")) {
      std::cout << "(" << shownText(*line, "lost") << " changes were lost: they came too fast)\n";
    } else {
      std::cout << changeLine(line->at("change")) << '\n';
    }
    requireOutput();
  }
  return 0;
}

int showDump(const LiveOptions& options, const std::string& place) {
  ControlClient client(options.control, place);
  auto request = options.request("dump");
  request["format"] = options.json ? "json" : "text";
  client.ask(std::move(request));
  while (const auto line = client.next()) {
    std::cout << (options.json ? shownJson(*line) : shownText(*line, "text")) << '\n';
  }
  client.finish();
  return 0;
}

int showNames(const LiveOptions& options, const std::string& place) {
  ControlClient client(options.control, place);
  client.ask({{"request", "names"}, {"kind", options.kind}, {"begin", options.begin}});
  while (const auto line = client.next()) {
    std::cout << shownText(*line, "name") << '\n';
  }
  client.finish();
  return 0;
}

void addSelection(CLI::App& command, LiveOptions& options) {
  command.add_option("--vrf", options.vrf, "Only this VRF")->type_name("VRF");
  command.add_option("--family", options.family, "Only IPv4 (4) or IPv6 (6)")
      ->type_name("FAMILY")
      ->check(CLI::IsMember({4, 6}));
}

}  // namespace

void addLiveCommands(CLI::App& app, int& exitCode) {
  const auto options = std::make_shared<LiveOptions>();

  auto* neighbors = app.add_subcommand("neighbors", kNeighborsDescription);
  neighbors->add_option("address", options->prefix, "Only this address")
      ->type_name("ADDRESS")
      ->check(refusedAddress);
  addSelection(*neighbors, *options);
  neighbors->add_option("--intf", options->intf, "Only on this interface")->type_name("INTF");
  neighbors->add_flag("--json", options->json, "Print one JSON object for each entry");
  neighbors->footer(kNeighborsFooter);
  addLiveCommand(*neighbors, options->control, exitCode,
                 [options](const std::string& place) { return showNeighbors(*options, place); });

  auto* monitor = app.add_subcommand("monitor", kMonitorDescription);
  monitor->add_option("prefix", options->prefix, "Only host routes at or inside this prefix")
      ->type_name("PREFIX")
      ->check(refusedAddress);
  monitor->add_option("--vrf", options->vrf, "Only this VRF")->type_name("VRF");
  monitor->add_flag("--json", options->json, "Print one JSON object for each change");
  monitor->footer(kMonitorFooter);
  addLiveCommand(*monitor, options->control, exitCode,
                 [options](const std::string& place) { return showChanges(*options, place); });

  auto* dump = app.add_subcommand("dump", kDumpDescription);
  addSelection(*dump, *options);
  dump->add_flag("--json", options->json, "Print one JSON object for each VRF and family");
  dump->footer(kDumpFooter);
  addLiveCommand(*dump, options->control, exitCode,
                 [options](const std::string& place) { return showDump(*options, place); });

  // Only completion uses it, so the help does not list it.
  auto* names = app.add_subcommand("names", "Prints names for completion")->group("");
  names->add_option("kind", options->kind)
      ->check(CLI::IsMember({"vrfs", "interfaces", "prefixes"}))
      ->required();
  names->add_option("begin", options->begin);
  addLiveCommand(*names, options->control, exitCode,
                 [options](const std::string& place) { return showNames(*options, place); });
}

}  // namespace Cli
