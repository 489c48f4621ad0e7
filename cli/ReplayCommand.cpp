// The command around the replay: where the events come from, where the output goes, how it ends.
#include "cli/ReplayCommand.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cli/Terminal.h"
#include "daemon/SharedNames.h"
#include "platform/kiv/Hash.h"
#include "platform/tovan/TableMemory.h"
#include "replay/Output.h"
#include "replay/Player.h"

namespace Cli {
namespace {

constexpr const char* kDescription =
    R"(Feeds a switch's recorded inputs to the host-route state machines, as the daemon would, and
prints what came of it: at each `dump` of the input and, of everything, at its end.)";

constexpr const char* kFooter =
    R"(The input is one JSON object on each line; an example is examples/leaf.jsonl.

Examples:
  hostroute replay switch.jsonl                     the host routes, as tables
  hostroute replay --json switch.jsonl              the whole state, for programs and for diff
  hostroute replay --trace 0,2 --echo switch.jsonl  what the machines objected to, and where
  hostroute import | hostroute replay -             the host routes of this machine
  hostroute replay --shared leaf1 --hold switch.jsonl &
  hostroute routes --table leaf1                    the same routes, seen by another process

Exit status: 0 done; 1 a machine failed on an event, or the tables cannot be shared; 2 the command
line is malformed, the input cannot be read, or a line of it is no event. Output that was caused by
the lines before stands.)";

struct Options {
  std::string file;
  bool json = false;
  std::string traceLevels;
  bool echoes = false;
  bool settles = false;
  bool noFinalDump = false;
  std::string sharedName;
  bool holds = false;
};

constexpr int kFailed = 1;
constexpr int kMisused = 2;

/// From now on SIGINT and SIGTERM remove the tables that this process shares under `name`, and end
/// it: with status 0 when `endsWell`.
///
/// A thread waits for them, so that it makes no difference what the process is busy with.
void removeTablesOnSignal(const std::string& name, bool endsWell) {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGINT);
  ::sigaddset(&signals, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread([signals, name, endsWell] {
    constexpr int kBySignal = 128;
    int signal = 0;
    ::sigwait(&signals, &signal);
    Tovan::removeTablesOf(name);
    std::_Exit(endsWell ? 0 : kBySignal + signal);
  }).detach();
}

/// Shows on a terminal how far a long input is; whatever comes next there overwrites it.
void showProgress(size_t lines) {
  std::cerr << lines << " lines\r" << std::flush;
}

int replay(const Options& options) {
  Kiv::hashSeedIs(Replay::kHashSeed);
  std::ios::sync_with_stdio(false);
  constexpr size_t kBufferBytes = 1 << 16;
  std::vector<char> buffer(kBufferBytes);
  std::ifstream file;
  const bool isFile = options.file != "-";
  if (isFile) {
    file.rdbuf()->pubsetbuf(buffer.data(), kBufferBytes);
    file.open(options.file, std::ios::binary);
    if (!file) {
      std::cerr << options.file << ": error: " << std::strerror(errno) << '\n';
      return kMisused;
    }
  }
  const auto output =
      options.json ? Replay::jsonOutput(std::cout) : Replay::textOutput(std::cout, isColoured());
  const Replay::Tracing tracing(*output, Replay::parseTraceLevels(options.traceLevels).value_or(0));
  Daemon::Switch sw({.settles = options.settles, .sharedName = options.sharedName});
  if (!options.sharedName.empty()) removeTablesOnSignal(options.sharedName, options.holds);
  Replay::Player player(sw, *output,
                        {.echoes = options.echoes, .dumpsAtEnd = !options.noFinalDump});
  const bool showsProgress = isFile && isTerminal(STDERR_FILENO);
  const auto outcome = player.run(isFile ? file : std::cin, options.file, std::cout, std::cerr,
                                  showsProgress ? showProgress : std::function<void(size_t)>());
  if (outcome == Replay::Player::Outcome::Refused) return kMisused;
  if (!std::cout) {
    std::cerr << "standard output: error: cannot be written\n";
    return kFailed;
  }
  if (options.holds) {
    if (isTerminal(STDERR_FILENO)) std::cerr << "The tables stay up until Ctrl-C.\n";
    for (;;) ::pause();
  }
  return outcome == Replay::Player::Outcome::Done ? 0 : kFailed;
}

}  // namespace

void addReplayCommand(CLI::App& app, int& exitCode) {
  auto* command = app.add_subcommand("replay", kDescription);
  const auto options = std::make_shared<Options>();
  command->add_option("file", options->file, "The recorded inputs; - for standard input")
      ->type_name("FILE")
      ->required();
  command->add_flag("--json", options->json, "Print one JSON object on each line");
  command
      ->add_option("--trace", options->traceLevels,
                   "Print the trace records of these levels: 0,2,7 or all")
      ->type_name("LEVELS")
      ->check([](const std::string& levels) -> std::string {
        return Replay::parseTraceLevels(levels) ? "" : "levels are 0 to 9, such as 0,2,7, or all";
      });
  command->add_flag("--echo", options->echoes, "Print the line number of each event");
  command->add_flag("--settle", options->settles,
                    "After each route and FEC, announce the neighbours without a route again");
  command->add_flag("--no-final-dump", options->noFinalDump, "Print only what the input asks for");
  auto* shared = command
                     ->add_option("--shared", options->sharedName,
                                  "Keep the tables in shared memory under this name while running")
                     ->type_name("NAME")
                     ->check([](const std::string& name) -> std::string {
                       return Daemon::isSharedName(name) ? "" : "a name has neither . nor /";
                     });
  command->add_flag("--hold", options->holds, "Then keep the tables up until Ctrl-C or SIGTERM")
      ->needs(shared);
  command->footer(kFooter);
  command->callback([options, &exitCode] {
    try {
      exitCode = replay(*options);
    } catch (const Pindo::Exception& error) {
      std::cout.flush();
      std::cerr << "hostroute replay: error: " << error.what() << '\n';
      exitCode = kFailed;
    }
  });
}

}  // namespace Cli
