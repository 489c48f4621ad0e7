// `explain` and `history` for the running hostrouted or a recording.
#include "cli/LiveAnswers.h"

#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "cli/Command.h"
#include "cli/ControlClient.h"
#include "cli/ExplainCommand.h"
#include "cli/HistoryCommand.h"
#include "cli/Terminal.h"
#include "cli/Times.h"
#include "replay/Printable.h"
#include "replay/TextTable.h"

namespace Cli {
namespace {

/// Prints the kernel's neighbour entries and host route for the address.
void printKernel(const Json& kernel) {
  std::cout << "\nIn the kernel\n";
  for (const auto& neighbor : kernel.at("neighbors")) {
    std::cout << "  neighbour on " << shownText(neighbor, "intf") << ", "
              << shownText(neighbor, "state") << ", " << shownText(neighbor, "mac")
              << (neighbor.at("fed") == true
                      ? ""
                      : ": does not count: " + shownText(neighbor, "verdict"))
              << '\n';
  }
  if (kernel.at("neighbors").empty()) std::cout << "  no neighbour entry that is usable\n";
  if (kernel.contains("route")) std::cout << "  host route: " << shownText(kernel, "route") << '\n';
}

int explainLive(const ControlOptions& control, const ExplainOptions& options,
                const std::string& place) {
  const auto reply = askOnce(
      control, place, {{"request", "explain"}, {"address", options.address}, {"vrf", options.vrf}});
  const auto& explanation = reply.at("explanation");
  if (options.json) {
    auto object = explanation;
    object["kernel"] = reply.at("kernel");
    std::cout << shownJson(object, 2) << '\n';
  } else {
    // printable() would escape line feeds, so each line is printed alone.
    std::istringstream lines(reply.at("text").get<std::string>());
    for (std::string line; std::getline(lines, line);) {
      std::cout << Replay::printable(line) << '\n';
    }
    printKernel(reply.at("kernel"));
  }
  requireOutput();
  return explanation.contains("winner") ? 0 : kFailed;
}

int tellLive(const ControlOptions& control, const HistoryOptions& options,
             const std::string& place) {
  ControlClient client(control, place);
  client.ask({{"request", "history"}, {"prefix", options.prefix}, {"vrf", options.vrf}});
  std::vector<Json> changes;
  while (auto line = client.next()) changes.push_back(std::move(*line));
  const size_t first =
      options.last != 0 && changes.size() > options.last ? changes.size() - options.last : 0;
  Replay::TextTable table({"TIME", "AGE", "ROUTE", "BECAME", "BY"});
  for (size_t i = first; i < changes.size(); ++i) {
    const auto& change = changes[i].at("change");
    if (options.json) {
      std::cout << shownJson(changes[i]) << '\n';
    } else {
      const auto time = shownText(change, "time");
      table.add({localTime(time, true), age(time), shownText(change, "prefix"),
                 shownText(change, "became"), shownText(change, "because")});
    }
  }
  if (!table.empty()) table.print(std::cout, tableStyle());
  client.finish();
  return 0;
}

}  // namespace

void addAnswerCommands(CLI::App& app, int& exitCode) {
  const auto control = std::make_shared<ControlOptions>();
  addExplainCommand(app, exitCode, [control](const ExplainOptions& options) {
    return runLive(*control, "hostroute explain",
                   [&](const std::string& place) { return explainLive(*control, options, place); });
  });
  addHistoryCommand(app, exitCode, [control](const HistoryOptions& options) {
    return runLive(*control, "hostroute history",
                   [&](const std::string& place) { return tellLive(*control, options, place); });
  });
  for (const char* name : {"explain", "history"}) {
    addSocketOption(*app.get_subcommand(name), *control);
  }
}

}  // namespace Cli
