#include "cli/HistoryCommand.h"

#include <deque>
#include <iostream>
#include <limits>
#include <memory>
#include <utility>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "cli/Command.h"
#include "cli/Replaying.h"
#include "cli/Terminal.h"
#include "daemon/History.h"
#include "platform/kiv/containers/Exception.h"
#include "replay/HistoryJson.h"
#include "replay/TextTable.h"

namespace Cli {
namespace {

constexpr const char* kDescription =
    R"(Tells what became of the host routes at or inside a prefix: each change, with the event that
caused it.)";

constexpr const char* kFooter = R"(Examples:
  hostroute history 10.1.10.11                             one host, in the running hostrouted
  hostroute history 10.1.10.11 --replay leaf.jsonl         one host of a recording
  hostroute history 10.1.10.0/24 --replay leaf.jsonl       a subnet
  hostroute history ::/0 --vrf blue --last 20 --replay leaf.jsonl
  hostroute history 10.1.10.11 --replay leaf.jsonl --json  one JSON object for each change

Exit status: 0 done, also when nothing changed; 1 a machine failed on an event, or the output cannot
be written; 2 the command line is malformed, or the input cannot be read or is malformed.)";

const std::string kPlace = "hostroute history";

struct Change {
  size_t line;
  Daemon::HistoryEntry entry;
};

/// A change as an object. The time would be that of this replay.
nlohmann::ordered_json json(size_t line, const Daemon::HistoryEntry& entry) {
  nlohmann::ordered_json change = {{"line", line}};
  change.update(Replay::toJson(entry));
  change.erase("time");
  return {{"change", std::move(change)}};
}

void print(const std::deque<Change>& changes, const HistoryOptions& options) {
  if (options.json) {
    for (const auto& [line, entry] : changes) {
      std::cout << json(line, entry).dump() << '\n';
    }
    return;
  }
  Replay::TextTable table({"LINE", "ROUTE", "BECAME", "BY"});
  for (const auto& [line, entry] : changes) {
    table.add(
        {std::to_string(line), entry.prefix, Daemon::changeText(entry), Daemon::causeText(entry)});
  }
  if (!table.empty()) table.print(std::cout, tableStyle());
}

int tellRecording(const HistoryOptions& options) {
  const auto wanted = [&options] {
    try {
      return Daemon::PrefixFilter(options.prefix);
    } catch (const Kiv::RangeException& error) {
      throw CommandError(kPlace, error.what(), kMisused);
    }
  }();
  Daemon::Switch sw({.settles = options.settles});
  std::deque<Change> changes;
  size_t line = 0;
  sw.historyObserverIs([&](const Daemon::HistoryEntry& entry) {
    if (entry.vrf != options.vrf || !wanted.contains(entry)) return;
    changes.push_back({line, entry});
    if (options.last != 0 && changes.size() > options.last) changes.pop_front();
  });
  const int status =
      replayUpTo(sw, options.recording, options.line, [&line](size_t number) { line = number; });
  if (status == kMisused) return kMisused;
  print(changes, options);
  requireOutput();
  return status;
}

}  // namespace

void addHistoryCommand(CLI::App& app, int& exitCode, HistoryLive live) {
  auto* command = app.add_subcommand("history", kDescription);
  const auto options = std::make_shared<HistoryOptions>();
  command->add_option("prefix", options->prefix, "A prefix or an address, IPv4 or IPv6")
      ->type_name("PREFIX")
      ->required();
  addStateOptions(*command, *options, static_cast<bool>(live),
                  "Up to this line of them, not to their end");
  command->add_option("--last", options->last, "Only so many changes, the newest")
      ->type_name("COUNT")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()));
  command->add_flag("--json", options->json, "Print one JSON object for each change");
  command->footer(kFooter);
  command->callback([options, live = std::move(live), &exitCode] {
    exitCode = options->recording.empty() ? live(*options) : tellRecording(*options);
  });
}

}  // namespace Cli
