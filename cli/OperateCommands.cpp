// The commands that change something in a running hostrouted.
#include "cli/OperateCommands.h"

#include <chrono>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "cli/Command.h"
#include "cli/ControlClient.h"
#include "cli/Times.h"
#include "replay/Player.h"
#include "replay/Printable.h"

namespace Cli {
namespace {

constexpr const char* kLogLevelDescription =
    R"(Shows the level up to which the running hostrouted writes log lines, or sets it until the
configuration is read again.)";
constexpr const char* kTraceDescription =
    R"(Prints the trace records of one VRF's machines about one address as they happen. It does not
slow other VRFs.)";
constexpr const char* kTraceFooter = R"(Examples:
  hostroute trace 10.0.0.5 --for 30s
  hostroute trace 2001:db8::5 --vrf blue --levels all

`hostroute replay --help` describes the levels. Ctrl-C ends a trace early.)";
constexpr const char* kResyncDescription =
    R"(Makes the running hostrouted read all of the kernel's state again. The routes stay meanwhile.
hostrouted does this by itself when the kernel drops notifications.)";
constexpr const char* kReloadDescription =
    R"(Makes the running hostrouted read its configuration again. If there is an error in it, prints
the error, and the former configuration stays in force.)";
constexpr const char* kRecordDescription =
    R"(Records the inputs of the running hostrouted's engine: first a snapshot, then each change.)";
constexpr const char* kRecordFooter =
    R"(A FILE without a directory is in the directory `recordings` of the daemon's state directory.
Only root may choose another directory, and the daemon needs the right to write there. A file that
has become too long is renamed to FILE.1, FILE.2 and so on, and a new FILE is begun with a snapshot.
So each file can be replayed by itself.

Examples:
  hostroute record start incident.jsonl
  hostroute record stop
  hostroute replay --settle /var/lib/hostroute/recordings/incident.jsonl
  hostroute anonymize /var/lib/hostroute/recordings/incident.jsonl > report.jsonl)";

struct OperateOptions {
  ControlOptions control;
  std::string level;
  std::string address;
  std::string vrf;
  std::string levels;
  std::string duration;
  std::string file;
  std::optional<unsigned> size;
  std::optional<unsigned> files;
  bool json = false;
};

/// Prints a reply as JSON, or a text for people.
int printReply(const OperateOptions& options, const Json& reply, const std::string& text) {
  std::cout << (options.json ? shownJson(reply) : Replay::printable(text)) << '\n';
  requireOutput();
  return 0;
}

int logLevel(const OperateOptions& options, const std::string& place) {
  Json request{{"request", "log-level"}};
  if (!options.level.empty()) request["level"] = options.level;
  const auto reply = askOnce(options.control, place, std::move(request));
  return printReply(options, reply, reply.at("level").get<std::string>());
}

int trace(const OperateOptions& options, const std::string& place) {
  Json request{{"request", "trace"}, {"address", options.address}};
  if (!options.vrf.empty()) request["vrf"] = options.vrf;
  if (!options.levels.empty()) request["levels"] = options.levels;
  if (!options.duration.empty()) {
    request["seconds"] = static_cast<uint64_t>(parseDuration(options.duration)->count());
  }
  ControlClient client(options.control, place);
  client.ask(std::move(request));
  while (const auto line = client.next(true)) {
    if (options.json) {
      std::cout << shownJson(*line) << '\n';
    } else if (line->contains("lost")) {
      std::cout << "(" << shownText(*line, "lost") << " records were lost: they came too fast)\n";
    } else {
      const auto& record = line->at("trace");
      // A daemon that is older than this program sends no time.
      if (record.contains("time")) {
        std::cout << localTime(shownText(record, "time"), true) << "  ";
      }
      std::cout << shownText(record, "level") << ' ' << shownText(record, "object") << ' '
                << shownText(record, "function") << ": " << shownText(record, "message") << '\n';
    }
    requireOutput();
  }
  return 0;
}

int resync(const OperateOptions& options, const std::string& place) {
  const auto reply = askOnce(options.control, place, {{"request", "resync"}});
  return printReply(options, reply, "the kernel's state was read again");
}

int reload(const OperateOptions& options, const std::string& place) {
  const auto reply = askOnce(options.control, place, {{"request", "reload"}});
  return printReply(options, reply, "the configuration was read again");
}

int startRecording(const OperateOptions& options, const std::string& place) {
  auto file = options.file;
  if (file.find('/') != file.npos) file = std::filesystem::absolute(file).lexically_normal();
  Json request{{"request", "record"}, {"action", "start"}, {"file", file}};
  if (options.size) request["size"] = *options.size;
  if (options.files) request["files"] = *options.files;
  const auto reply = askOnce(options.control, place, std::move(request));
  return printReply(options, reply, "recording to " + reply.at("file").get<std::string>());
}

int stopRecording(const OperateOptions& options, const std::string& place) {
  const auto reply = askOnce(options.control, place, {{"request", "record"}, {"action", "stop"}});
  return printReply(options, reply, "recorded in " + reply.at("file").get<std::string>());
}

/// Adds the options and the body of a command of this file.
void addCommon(CLI::App& command, const std::shared_ptr<OperateOptions>& options, int& exitCode,
               int (*run)(const OperateOptions&, const std::string& place)) {
  command.add_flag("--json", options->json, "Print the daemon's answer as JSON");
  addLiveCommand(command, options->control, exitCode,
                 [options, run](const std::string& place) { return run(*options, place); });
}

std::string footer(const std::string& examples) {
  return examples +
         "\n\nOnly root, the daemon's own user and its admin group may change it.\n\n"
         "Exit status: 0 done; 1 the daemon refuses, or none answers; 2 the command line is "
         "malformed.";
}

void addRecord(CLI::App& app, const std::shared_ptr<OperateOptions>& options, int& exitCode) {
  auto* record = app.add_subcommand("record", kRecordDescription)->require_subcommand(1);
  record->footer(footer(kRecordFooter));
  auto* start = record->add_subcommand("start", "Begin a recording");
  start->add_option("file", options->file, "The file of the recording")
      ->type_name("FILE")
      ->required();
  start->add_option("--size", options->size, "The largest size of a file, in MiB")
      ->type_name("MIB")
      ->check(CLI::Range(1, 1 << 20));
  start->add_option("--files", options->files, "The number of files that are kept")
      ->type_name("N")
      ->check(CLI::Range(1, 1000));
  start->footer(footer(kRecordFooter));
  addCommon(*start, options, exitCode, startRecording);
  auto* stop = record->add_subcommand("stop", "End the recording");
  stop->footer(footer("Examples:\n  hostroute record stop"));
  addCommon(*stop, options, exitCode, stopRecording);
}

}  // namespace

void addOperateCommands(CLI::App& app, int& exitCode) {
  const auto options = std::make_shared<OperateOptions>();

  auto* level = app.add_subcommand("log-level", kLogLevelDescription);
  level->add_option("level", options->level, "The level to set")
      ->type_name("LEVEL")
      ->check(CLI::IsMember({"error", "warning", "notice", "info", "debug"}));
  level->footer(footer("Examples:\n  hostroute log-level\n  hostroute log-level debug"));
  addCommon(*level, options, exitCode, logLevel);

  auto* traced = app.add_subcommand("trace", kTraceDescription);
  traced->add_option("address", options->address, "The address")->type_name("ADDRESS")->required();
  traced->add_option("--vrf", options->vrf, "The VRF; \"default\" by default")->type_name("VRF");
  traced->add_option("--levels", options->levels, "The levels, such as 0,1,2,6,7, or all")
      ->type_name("LEVELS")
      ->check([](const std::string& levels) -> std::string {
        return Replay::parseTraceLevels(levels) ? "" : "levels are 0 to 9, such as 0,1,2,6,7";
      });
  traced->add_option("--for", options->duration, "The duration: 30s, 5m, at most 1h")
      ->type_name("TIME")
      ->check([](const std::string& text) -> std::string {
        const auto time = parseDuration(text);
        const bool isGood = time && time->count() >= 1 && *time <= std::chrono::hours(1);
        return isGood ? "" : "a time is such as 30s or 5m, and at most 1h";
      });
  traced->footer(footer(kTraceFooter));
  addCommon(*traced, options, exitCode, trace);

  auto* resynced = app.add_subcommand("resync", kResyncDescription);
  resynced->footer(footer("Examples:\n  hostroute resync"));
  addCommon(*resynced, options, exitCode, resync);

  auto* reloaded = app.add_subcommand("reload", kReloadDescription);
  reloaded->footer(footer("Examples:\n  hostroute reload"));
  addCommon(*reloaded, options, exitCode, reload);
  addRecord(app, options, exitCode);
}

}  // namespace Cli
