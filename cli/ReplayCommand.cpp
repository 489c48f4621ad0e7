// The `hostroute replay` command.
#include "cli/ReplayCommand.h"

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "cli/Command.h"
#include "cli/Terminal.h"
#include "daemon/FibInputs.h"
#include "daemon/SharedNames.h"
#include "platform/kiv/containers/Hash.h"
#include "platform/tovan/Reports.h"
#include "platform/tovan/TableMemory.h"
#include "replay/Output.h"
#include "replay/Player.h"

namespace Cli {
namespace {

constexpr const char* kReplayDescription =
    R"(Replays the recorded inputs of a switch and prints the resulting state: at each `dump` of the
input, and completely at its end.)";

constexpr const char* kReplayFooter =
    R"(The input is one JSON object on each line; an example is examples/leaf.jsonl.

Examples:
  hostroute replay switch.jsonl                     the host routes, as tables
  hostroute replay --json switch.jsonl              the whole state, for programs and for diff
  hostroute replay --trace 0,1,2,6,7 --echo switch.jsonl
                                                    why a host has (no) route, line by line
  hostroute replay --json-lines switch.jsonl        the whole state of a large switch
  hostroute import | hostroute replay -             the host routes of this machine
  hostroute replay --shared leaf1 --hold switch.jsonl &
  hostroute routes --table leaf1 --wait 10          the same routes, seen by another process

Trace levels: 0 failures, and changes of FIB routes and metrics; 1 neighbours whose covering FIB
route is missing or has no FEC; 2 merges that wait for `initialized`; 6 written and removed routes,
ignored interfaces; 7 each handled neighbour, route or FEC, and the reason if nothing changes; 8
each call and step; 3, 4, 5 and 9 nothing. 0,1,2,6,7 show why a host has (no) route.

Exit status: 0 done; 1 a machine failed on an event, the tables cannot be shared, could not grow or
were found damaged, or the output cannot be written; 2 the command line is malformed, the input
cannot be read, or one of its lines is no event or longer than 16 MiB. The output of the lines
before it is complete.)";

struct ReplayOptions {
  std::string file;
  bool json = false;
  bool jsonLines = false;
  std::string traceLevels;
  bool echoes = false;
  bool settles = false;
  bool noFinalDump = false;
  std::string sharedName;
  bool holds = false;
};

/// Blocks the signals that end the process, except those that were ignored at its start (as with
/// nohup). Ignores SIGPIPE and SIGXFSZ, so that a write fails instead. Returns the blocked signals.
sigset_t holdSignals() {
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    if (action.sa_handler != SIG_IGN) ::sigaddset(&signals, signal);
  }
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

/// The exit status when a signal ends the holding of tables.
std::atomic<int> statusOfHolding = 0;

/// Makes each of the blocked `signals` remove the tables that this process shares under `name`, and
/// end the process: with statusOfHolding when it `holds` the tables.
///
/// A thread waits for the signals, so that the process reacts at any time.
void removeTablesOnSignal(const sigset_t& signals, const std::string& name, bool holds) {
  std::thread([signals, name, holds] {
    constexpr int kBySignal = 128;
    int signal = 0;
    while (::sigwait(&signals, &signal) != 0) {
    }
    Tovan::removeTablesForGood(name);
    std::_Exit(holds ? statusOfHolding.load() : kBySignal + signal);
  }).detach();
}

/// Raises the limit of open files to its maximum. The tables of each VRF need two files.
void raiseFileLimit() {
  struct rlimit limit {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// Prints damage of the tables and refused memory, a line for each table and kind.
class TableReports {
 public:
  /// Prints new faults: each damage, and the first refusal of a table. Returns whether there was
  /// ever any.
  bool print() {
    const auto reports = Tovan::tableReports();
    for (const auto& table : reports) {
      const auto [known, isNew] = printed_.try_emplace(table.table);
      auto& [refusals, corruptions] = known->second;
      if (refusals == 0 && table.refusals != 0) {
        std::cerr << "hostroute: " << table.lastRefusal << ": it has " << table.bytes << " bytes, "
                  << table.refusals << " changes were refused\n";
      }
      if (corruptions != table.corruptions) {
        std::cerr << "hostroute: " << table.lastCorruption << " (found damaged "
                  << table.corruptions << " times)\n";
      }
      refusals = table.refusals;
      corruptions = table.corruptions;
    }
    return !reports.empty();
  }

 private:
  struct Counts {
    uint64_t refusals = 0;
    uint64_t corruptions = 0;
  };
  std::map<std::string, Counts> printed_;
};

/// Keeps the tables up and repairs them until a signal ends the process. Entries that are lost from
/// now on are set again.
[[noreturn]] void hold(Daemon::Switch& sw, TableReports& reports) {
  const Daemon::FibInputs inputs(sw);
  const auto troubles = [] { return Tovan::corruptionCount() + Tovan::refusalCount(); };
  // The events are read only once, so entries that were refused or lost before cannot be set again.
  const bool lacksInputs = troubles() != 0;
  sw.setIncomplete(lacksInputs);
  bool isIncomplete = false;
  for (uint64_t seen = 0;; std::this_thread::sleep_for(Daemon::Switch::kTendingInterval)) {
    const bool mayGrow = sw.tendTables();
    const uint64_t before = std::exchange(seen, troubles());
    isIncomplete |= seen != before;
    if (reports.print()) statusOfHolding = kFailed;
    sw.setIncomplete(isIncomplete || lacksInputs);
    if (isIncomplete && mayGrow && sw.tablesAreCurrent()) {
      try {
        inputs.restore(sw);
        sw.redo();
        isIncomplete = troubles() != seen;
        sw.setIncomplete(isIncomplete || lacksInputs);
      } catch (const std::exception& error) {
        std::cerr << "hostroute: error: " << error.what() << '\n';
      }
    }
    std::cout.flush();  // the traces; a signal ends the process without that
  }
}

int replay(const ReplayOptions& options) {
  Kiv::hashSeedIs(Replay::kHashSeed);
  std::ios::sync_with_stdio(false);
  Input input(options.file);
  const auto output = options.json || options.jsonLines
                          ? Replay::jsonOutput(std::cout, options.jsonLines)
                          : Replay::textOutput(std::cout, tableStyle());
  const Replay::Tracing tracing(*output, Replay::parseTraceLevels(options.traceLevels).value_or(0));
  const bool isShared = !options.sharedName.empty();
  if (isShared) raiseFileLimit();
  const auto signals = isShared ? holdSignals() : sigset_t();
  Daemon::Switch sw({.settles = options.settles, .sharedName = options.sharedName});
  // Only from here on this process owns the tables and may remove them.
  if (isShared) removeTablesOnSignal(signals, options.sharedName, options.holds);
  Replay::Player player(sw, *output,
                        {.echoes = options.echoes, .dumpsAtEnd = !options.noFinalDump});
  const auto outcome = player.run(input.stream(), input.name(), std::cout, std::cerr, showProgress);
  TableReports reports;
  const bool tablesAreGood = !reports.print();
  if (outcome == Replay::Player::Outcome::Refused) return kMisused;
  requireOutput();
  const int status = outcome == Replay::Player::Outcome::Done && tablesAreGood ? 0 : kFailed;
  if (options.holds) {
    if (isTerminal(STDERR_FILENO)) std::cerr << "The tables stay up until Ctrl-C.\n";
    statusOfHolding = status;
    hold(sw, reports);
  }
  return status;
}

}  // namespace

void addReplayCommand(CLI::App& app, int& exitCode) {
  auto* command = app.add_subcommand("replay", kReplayDescription);
  const auto options = std::make_shared<ReplayOptions>();
  command->add_option("file", options->file, "The recorded inputs; - for standard input")
      ->type_name("FILE")
      ->required();
  auto* json = command->add_flag("--json", options->json, "Print one JSON object on each line");
  command
      ->add_flag("--json-lines", options->jsonLines,
                 "The same, with one line for each route and each other entry of a dump")
      ->excludes(json);
  command
      ->add_option("--trace", options->traceLevels,
                   "Print the trace records of these levels: 0,1,2,6,7 or all")
      ->type_name("LEVELS")
      ->check([](const std::string& levels) -> std::string {
        return Replay::parseTraceLevels(levels) ? ""
                                                : "levels are 0 to 9, such as 0,1,2,6,7, or all";
      });
  command->add_flag("--echo", options->echoes, "Print the line number of each event");
  command->add_flag("--settle", options->settles,
                    "After each route and FEC, announce the neighbours without a route again");
  command->add_flag("--no-final-dump", options->noFinalDump, "Print only the dumps of the input");
  auto* shared = command
                     ->add_option("--shared", options->sharedName,
                                  "Keep the tables in shared memory under this name while running")
                     ->type_name("NAME")
                     ->check([](const std::string& name) -> std::string {
                       return Daemon::isSharedName(name)
                                  ? ""
                                  : "a name has neither . nor /, and at most 100 bytes";
                     });
  command
      ->add_flag("--hold", options->holds,
                 "Keep the tables after the end of the input, until Ctrl-C or SIGTERM")
      ->needs(shared);
  command->footer(kReplayFooter);
  command->callback([options, &exitCode] { exitCode = replay(*options); });
}

}  // namespace Cli
