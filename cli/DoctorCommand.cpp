// The `hostroute doctor` command.
#include "cli/DoctorCommand.h"

#include <sys/timex.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "cli/Command.h"
#include "cli/ControlClient.h"
#include "cli/Doctor.h"
#include "cli/Terminal.h"
#include "linux/Feed.h"
#include "linux/Mirror.h"
#include "linux/Netlink.h"
#include "replay/Printable.h"

namespace Cli {
namespace {

constexpr const char* kDoctorDescription =
    R"(Checks this machine for settings that disturb hostrouted. For each it prints the command that
corrects it. It checks kernel settings, limits, the configuration of FRR or BIRD, routes of other
programs in hostrouted's tables, routing rules, capabilities and the clock. It changes nothing.)";

constexpr const char* kDoctorFooter =
    R"(Tables, protocol and interfaces are those of the running hostrouted. If none is running, the
options give them; by default all interfaces are checked.

Examples:
  hostroute doctor
  hostroute doctor --json | jq -r .mend
  hostroute doctor --interfaces 'swp*' --table 10 --table6 254     before hostrouted is started

Exit status: 0 only notes; 1 the kernel's state cannot be read; 2 the command line is malformed;
3 errors or warnings were found.)";

constexpr int kFound = 3;

struct DoctorOptions {
  ControlOptions control;
  std::string root = "/";
  std::vector<std::string> interfaces;
  std::optional<unsigned> table4, table6, protocol;
  bool json = false;
};

/// Fills in the configuration of the running daemon. \return false when no daemon answers.
bool askDaemon(const DoctorOptions& options, const std::string& place, Machine& machine,
               std::vector<std::string>& patterns) {
  Json status;
  try {
    status = askOnce(options.control, place, {{"request", "status"}}).at("status");
  } catch (const CommandError&) {
    return false;
  }
  machine.pid = status.at("pid").get<int>();
  machine.protocol = status.at("protocol").get<uint8_t>();
  patterns = status.at("interfaces").get<std::vector<std::string>>();
  for (const auto& vrf : status.at("vrfs")) {
    const auto table4 = vrf.at("ipv4").at("table").get<Linux::TableId>();
    const auto table6 = vrf.at("ipv6").at("table").get<Linux::TableId>();
    if (vrf.at("vrf") == "default") {
      machine.table4 = table4;
      machine.table6 = table6;
    } else {
      machine.otherTables.insert(machine.otherTables.end(), {table4, table6});
    }
  }
  return true;
}

/// Reads the interfaces, neighbours and routes from the kernel.
void askKernel(Machine& machine, const std::vector<std::string>& patterns) {
  Linux::Mirror mirror;
  mirror.beginDump();
  Linux::dumpAll([&](const Linux::Change& change) { mirror.apply(change); });
  mirror.endDump();
  mirror.forEachLink([&](const Linux::Link& link) {
    machine.links.push_back(link);
    const bool hasLayer3 = link.master == 0 || link.masterKind == "vrf";
    if (!link.isLoopback && hasLayer3 && Linux::isSelected(patterns, link.name)) {
      machine.interfaces.push_back(link.name);
    }
    mirror.forEachNeighbor(link.index, [&](const Linux::Neighbor& neighbor) {
      ++(Linux::familyOf(neighbor.addr) == 4 ? machine.neighbors4 : machine.neighbors6);
    });
  });
  mirror.forEachRoute([&](Linux::TableId table, const Linux::Prefix& prefix) {
    for (auto& route : mirror.routes(table, prefix)) machine.routes.push_back(std::move(route));
  });
}

void print(const DoctorOptions& options, const std::vector<Advice>& advice, bool hasDaemon) {
  if (options.json) {
    for (const auto& found : advice) {
      std::cout << shownJson({{"weight", toString(found.weight)},
                              {"subject", found.subject},
                              {"what", found.what},
                              {"mend", found.mend}})
                << '\n';
    }
    return;
  }
  const auto colour = [](Advice::Weight weight) {
    if (!isColoured()) return "";
    return weight == Advice::Weight::Error     ? "\033[31m"
           : weight == Advice::Weight::Warning ? "\033[33m"
                                               : "\033[36m";
  };
  for (const auto& found : advice) {
    std::cout << colour(found.weight) << toString(found.weight) << (isColoured() ? "\033[0m" : "")
              << ": " << Replay::printable(found.what) << "\n    " << Replay::printable(found.mend)
              << '\n';
  }
  if (advice.empty()) std::cout << "Nothing that would hurt was found.\n";
  if (!hasDaemon) {
    std::cout << "No running hostrouted was asked: tables and interfaces are those given here.\n";
  }
}

/// Whether a process of this name runs here.
bool runs(std::string_view name) {
  std::error_code problem;
  for (const auto& process : std::filesystem::directory_iterator("/proc", problem)) {
    std::ifstream file(process.path() / "comm");
    std::string command;
    if (std::getline(file, command) && command == name) return true;
  }
  return false;
}

int examineMachine(const DoctorOptions& options, const std::string& place) {
  Machine machine;
  machine.root = options.root;
  std::vector<std::string> patterns;
  const bool isHere = options.root == "/";
  const bool hasDaemon = isHere && askDaemon(options, place, machine, patterns);
  if (!options.interfaces.empty()) patterns = options.interfaces;
  // Without IPv6 in the kernel, no routing daemon needs its hosts.
  if (isHere && !std::filesystem::exists("/proc/sys/net/ipv6")) machine.table6 = 0;
  machine.table4 = options.table4.value_or(machine.table4);
  machine.table6 = options.table6.value_or(machine.table6);
  if (options.protocol) machine.protocol = static_cast<uint8_t>(*options.protocol);
  if (isHere) {
    askKernel(machine, patterns);
    machine.rules = Linux::dumpRules();
    machine.frrRuns = runs("zebra");
    machine.birdRuns = runs("bird");
    struct timex clock {};
    const int state = ::adjtimex(&clock);
    if (state >= 0) machine.isClockSynchronised = (clock.status & STA_UNSYNC) == 0;
  } else {
    machine.interfaces = options.interfaces;
  }
  const auto advice = examine(machine);
  print(options, advice, hasDaemon);
  requireOutput();
  return advice.empty() || advice.front().weight == Advice::Weight::Note ? 0 : kFound;
}

}  // namespace

void addDoctorCommand(CLI::App& app, int& exitCode) {
  const auto options = std::make_shared<DoctorOptions>();
  auto* command = app.add_subcommand("doctor", kDoctorDescription);
  command
      ->add_option("--interfaces", options->interfaces, "The interfaces of the hosts, as patterns")
      ->type_name("LIST")
      ->delimiter(',');
  command->add_option("--table", options->table4, "The table of IPv4 host routes")->type_name("N");
  command->add_option("--table6", options->table6, "The table of IPv6 host routes")->type_name("N");
  command->add_option("--protocol", options->protocol, "The protocol number of the routes")
      ->type_name("N")
      ->check(CLI::Range(1, 255));
  command
      ->add_option("--root", options->root,
                   "Check the files of another machine in this directory, without its kernel")
      ->type_name("DIR")
      ->check(CLI::ExistingDirectory);
  command->add_flag("--json", options->json, "Print one JSON object for each finding");
  command->footer(kDoctorFooter);
  addLiveCommand(*command, options->control, exitCode,
                 [options](const std::string& place) { return examineMachine(*options, place); });
}

}  // namespace Cli
