#include "cli/HistoryCommand.h"

#include <algorithm>
#include <deque>
#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "cli/Command.h"
#include "cli/Replaying.h"
#include "cli/Terminal.h"
#include "cli/Times.h"
#include "daemon/History.h"

#include "replay/HistoryJson.h"
#include "replay/TextTable.h"
#include "replay/Time.h"

namespace Cli {
namespace {

constexpr const char* kHistoryDescription =
    R"(Shows the changes of the host routes at or inside a prefix, each with the event that caused
it.)";

constexpr const char* kHistoryFooter = R"(Examples:
  hostroute history 10.1.10.11                             one host, in the running hostrouted
  hostroute history 10.1.10.11 --replay leaf.jsonl         one host of a recording
  hostroute history 10.1.10.0/24 --replay leaf.jsonl       a subnet
  hostroute history ::/0 --vrf blue --last 20 --replay leaf.jsonl
  hostroute history 10.1.10.11 --replay leaf.jsonl --json  one JSON object for each change

Exit status: 0 done, also without a change; 1 a machine failed on an event, or the output cannot
be written; 2 the command line is malformed, or the input cannot be read or is malformed.)";

struct Change {
  Whereabouts at;
  Daemon::HistoryEntry entry;
};

/// A change as a JSON object. Its time is the time in the recording, not the time of this replay.
Json jsonOf(const Change& change) {
  Json object = {{"line", change.at.line}};
  object.update(Replay::toJson(change.entry));
  object.erase("time");
  if (change.at.time) object["time"] = Replay::timeText(*change.at.time);
  return {{"change", std::move(object)}};
}

void print(const std::deque<Change>& changes, const HistoryOptions& options) {
  if (options.json) {
    for (const auto& change : changes) std::cout << shownJson(jsonOf(change)) << '\n';
    return;
  }
  const bool hasTimes =
      std::ranges::any_of(changes, [](const Change& change) { return change.at.time.has_value(); });
  std::vector<std::string> headings{"LINE", "ROUTE", "BECAME", "BY"};
  if (hasTimes) headings.insert(headings.begin() + 1, "TIME");
  Replay::TextTable table(std::move(headings));
  for (const auto& [at, entry] : changes) {
    std::vector<std::string> row{std::to_string(at.line), entry.prefix, Daemon::changeText(entry),
                                 Daemon::causeText(entry)};
    if (hasTimes) {
      row.insert(row.begin() + 1, at.time ? localTime(Replay::timeText(*at.time), true) : "-");
    }
    table.add(std::move(row));
  }
  if (!table.empty()) table.print(std::cout, tableStyle());
}

int tellRecording(const HistoryOptions& options) {
  const Daemon::PrefixFilter wanted(options.prefix);
  Daemon::Switch sw({.settles = options.settles});
  std::deque<Change> changes;
  Whereabouts now;
  sw.historyObserverIs([&](const Daemon::HistoryEntry& entry) {
    if (entry.vrf != options.vrf || !wanted.contains(entry)) return;
    changes.push_back({now, entry});
    if (options.last != 0 && changes.size() > options.last) changes.pop_front();
  });
  const int status =
      replayUpTo(sw, options.recording, options.line, [&now](const auto& at) { now = at; });
  if (status == kMisused) return kMisused;
  print(changes, options);
  requireOutput();
  return status;
}

}  // namespace

void addHistoryCommand(CLI::App& app, int& exitCode, HistoryLive live) {
  auto* command = app.add_subcommand("history", kHistoryDescription);
  const auto options = std::make_shared<HistoryOptions>();
  command->add_option("prefix", options->prefix, "A prefix or an address, IPv4 or IPv6")
      ->type_name("PREFIX")
      ->check(refusedAddress)
      ->required();
  addStateOptions(*command, *options, static_cast<bool>(live), "Only the changes up to this line");
  command->add_option("--last", options->last, "Only this number of the newest changes")
      ->type_name("COUNT")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()));
  command->add_flag("--json", options->json, "Print one JSON object for each change");
  command->footer(kHistoryFooter);
  command->callback([options, live = std::move(live), &exitCode] {
    exitCode = options->recording.empty() ? live(*options) : tellRecording(*options);
  });
}

}  // namespace Cli
