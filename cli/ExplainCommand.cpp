#include "cli/ExplainCommand.h"

#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include <CLI/CLI.hpp>

#include "cli/Command.h"
#include "cli/Replaying.h"
#include "cli/Terminal.h"
#include "daemon/Explain.h"
#include "platform/kiv/containers/Exception.h"
#include "replay/ExplanationJson.h"
#include "replay/Printable.h"

namespace Cli {
namespace {

constexpr const char* kExplainDescription =
    R"(Explains why an address has a host route or none: the findings of its VRF's machine in the
order of the decision, the winning route, and the reason why each other route loses. If there is no
route, it shows the missing condition and the remedy.)";

constexpr const char* kExplainFooter = R"(Examples:
  hostroute explain 10.1.10.11                                in the running hostrouted
  hostroute explain 10.1.10.11 --replay leaf.jsonl            at the end of a recording
  hostroute explain 10.1.10.11 --replay leaf.jsonl --at 120   after its line 120
  hostroute explain 2001:db8:10::11 --vrf blue --replay leaf.jsonl
  hostroute explain 10.1.10.11 --replay leaf.jsonl --json     for programs

Exit status: 0 the address has a route; 1 it has none, or no daemon answers; 2 the command line is
malformed, the input cannot be read or is malformed, or there is no such VRF.)";

const std::string kExplainPlace = "hostroute explain";

int explainRecording(const ExplainOptions& options) {
  Daemon::Switch sw({.settles = options.settles});
  if (replayUpTo(sw, options.recording, options.line) == kMisused) return kMisused;
  try {
    const auto explanation = Daemon::explain(sw, options.vrf, options.address);
    if (options.json) {
      std::cout << shownJson(Replay::toJson(explanation), 2) << '\n';
    } else {
      // printable() would escape line feeds, so each line is printed alone.
      std::istringstream lines(Daemon::toText(explanation));
      for (std::string line; std::getline(lines, line);) {
        std::cout << Replay::printable(line) << '\n';
      }
    }
    requireOutput();
    return explanation.winner ? 0 : kFailed;
  } catch (const Kiv::RangeException& error) {
    throw CommandError(kExplainPlace, error.what(), kMisused);
  }
}

}  // namespace

void addExplainCommand(CLI::App& app, int& exitCode, ExplainLive live) {
  auto* command = app.add_subcommand("explain", kExplainDescription);
  const auto options = std::make_shared<ExplainOptions>();
  command->add_option("address", options->address, "The address, IPv4 or IPv6")
      ->type_name("ADDRESS")
      ->required();
  addStateOptions(*command, *options, static_cast<bool>(live),
                  "The state after this line, not at the end");
  command->add_flag("--json", options->json, "Print one JSON object");
  command->footer(kExplainFooter);
  command->callback([options, live = std::move(live), &exitCode] {
    exitCode = options->recording.empty() ? live(*options) : explainRecording(*options);
  });
}

}  // namespace Cli
