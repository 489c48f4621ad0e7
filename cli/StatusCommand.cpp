// The commands that show the state and the counters of a running hostrouted.
#include "cli/StatusCommand.h"

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "cli/Command.h"
#include "cli/ControlClient.h"
#include "cli/OpenMetrics.h"
#include "cli/Terminal.h"
#include "cli/Times.h"
#include "replay/Printable.h"
#include "replay/TextTable.h"

namespace Cli {
namespace {

constexpr const char* kStatusDescription =
    R"(Shows the status of the running hostrouted: whether it is ready, or the reason why not, the
number of host routes in the kernel, and the host routes with a problem.)";

constexpr const char* kStatusFooter = R"(Examples:
  hostroute status
  hostroute status --json | jq .problems
  hostroute status > /dev/null && echo ready          for scripts

Exit status: 0 ready; 1 no daemon answers; 2 the command line is malformed; 3 not ready.)";

constexpr const char* kCountersDescription =
    R"(Shows the counters of the running hostrouted. Counters increase from its start; gauges are
present numbers, and may also decrease.)";

constexpr const char* kCountersFooter = R"(Examples:
  hostroute counters
  hostroute counters --help-texts kernel      counters with "kernel" in the name, and their meaning
  hostroute counters --json

Exit status: 0 done; 1 no daemon answers, or no counter has such a name; 2 the command line is
malformed.)";

constexpr const char* kMetricsDescription =
    R"(Prints the counters of the running hostrouted as OpenMetrics text, for the text collector of
a node exporter. With --http, answers a scrape on standard input; with --json, prints JSON.)";

constexpr const char* kMetricsFooter = R"(Examples:
  hostroute metrics > /var/lib/prometheus/node-exporter/hostroute.prom
  hostroute metrics --http            for a socket unit with Accept=yes; see examples/metrics
  hostroute metrics --json            the same numbers as JSON, as `hostroute counters --json`

Exit status: 0 done; 1 no daemon answers; 2 the command line is malformed.)";

constexpr int kStatusNotReady = 3;

struct StatusOptions {
  ControlOptions control;
  std::string pattern;
  bool json = false;
  bool helps = false;
  bool http = false;
};

const char* const kGreen = "\033[32m";
const char* const kYellow = "\033[33m";
const char* const kRed = "\033[31m";

/// A text in a colour, where standard output has colours.
std::string coloured(const std::string& text, const char* colour) {
  return isColoured() ? colour + text + "\033[0m" : text;
}

/// The sum of a metric's samples with these labels.
uint64_t sumOf(const Json& metrics, std::string_view name, const Json& labels = Json::object()) {
  uint64_t sum = 0;
  for (const auto& family : metrics) {
    if (family.at("name") != name || !family.contains("samples")) continue;
    for (const auto& sample : family.at("samples")) {
      bool matches = true;
      for (const auto& [label, value] : labels.items()) {
        matches = matches && sample.at("labels").value(label, Json()) == value;
      }
      if (matches) sum += sample.at("value").get<uint64_t>();
    }
  }
  return sum;
}

std::string tableText(const Json& table) {
  return table == 0 ? "none" : table.dump();
}

void printVrfs(const Json& vrfs, const Json& metrics) {
  Replay::TextTable table({"VRF", "FAMILY", "INITIALIZED", "HOSTS", "KERNEL TABLE"});
  for (const auto& vrf : vrfs) {
    for (const auto& [key, name] : {std::pair{"ipv4", "IPv4"}, {"ipv6", "IPv6"}}) {
      const auto& family = vrf.at(key);
      const auto hosts = sumOf(metrics, "hostroute_host_routes",
                               {{"vrf", vrf.at("vrf")}, {"family", key}, {"type", "attached_"}});
      table.add({vrf.at("vrf").get<std::string>(), name,
                 family.at("initialized") == true ? "yes" : "no", std::to_string(hosts),
                 tableText(family.at("table"))});
    }
  }
  table.print(std::cout, tableStyle());
}

void printProblems(const Json& problems) {
  constexpr size_t kMostShown = 10;
  if (problems.empty()) return;
  std::cout << "\nNot in the kernel as they should be:\n";
  Replay::TextTable table({"TABLE", "PREFIX", "REASON"});
  for (size_t i = 0; i < problems.size() && i < kMostShown; ++i) {
    table.add({shownText(problems[i], "table"), shownText(problems[i], "prefix"),
               shownText(problems[i], "reason")});
  }
  table.print(std::cout, tableStyle());
  if (problems.size() > kMostShown) {
    std::cout << "and " << problems.size() - kMostShown << " more (hostroute status --json)\n";
  }
}

void printStatus(const Json& status, const Json& metrics) {
  const auto& problems = status.at("problems");
  const bool isReady = status.at("ready") == true;
  std::cout << "hostrouted " << shownText(status, "version") << ": "
            << coloured(shownText(status, "phase"), isReady ? kGreen : kRed) << '\n';
  for (const auto& warning : status.at("warnings")) {
    std::cout << coloured("  " + Replay::printable(warning.get<std::string>()), kYellow) << '\n';
  }
  const auto started = shownText(status, "started");
  const uint64_t fed = sumOf(metrics, "hostroute_neighbors", {{"verdict", "fed"}});
  const uint64_t known = sumOf(metrics, "hostroute_neighbors");
  std::string patterns;
  for (const auto& pattern : status.at("interfaces")) {
    patterns += (patterns.empty() ? "" : " ") + Replay::printable(pattern.get<std::string>());
  }
  const auto line = [](const char* name, const std::string& value) {
    std::printf("%-13s %s\n", name, value.c_str());
  };
  std::cout << std::flush;
  line("Running",
       age(started) + ", since " + localTime(started) + ", process " + shownText(status, "pid"));
  line("Interfaces", patterns.empty() ? "all" : patterns);
  line("Neighbours", std::to_string(fed) + " count of " + std::to_string(known) + " known");
  line("Host routes", shownText(status, "routes") + " in the kernel (protocol " +
                          shownText(status, "protocol") + "), " +
                          coloured(std::to_string(problems.size()) + " not as they should be",
                                   problems.empty() ? kGreen : kRed));
  line("Log level", shownText(status, "logLevel"));
  if (status.contains("recording")) line("Recording to", shownText(status, "recording"));
  std::fflush(stdout);
  std::cout << '\n';
  printVrfs(status.at("vrfs"), metrics);
  printProblems(problems);
}

int showStatus(const StatusOptions& options, const std::string& place) {
  ControlClient client(options.control, place);
  const auto status = client.ask({{"request", "status"}}).at("status");
  if (options.json) {
    std::cout << shownJson(status) << '\n';
  } else {
    printStatus(status, client.ask({{"request", "counters"}}).at("metrics"));
  }
  requireOutput();
  return status.at("ready") == true ? 0 : kStatusNotReady;
}

std::string labelText(const Json& labels) {
  std::string result;
  for (const auto& [name, value] : labels.items()) {
    result += (result.empty() ? "" : " ") + name + "=" + value.get<std::string>();
  }
  return result.empty() ? "-" : result;
}

std::string secondsText(const Json& seconds) {
  char shown[32];
  const double value = seconds.get<double>();
  if (value < 1e-3) {
    std::snprintf(shown, sizeof(shown), "%.1f us", value * 1e6);
  } else if (value < 1) {
    std::snprintf(shown, sizeof(shown), "%.2f ms", value * 1e3);
  } else {
    std::snprintf(shown, sizeof(shown), "%.2f s", value);
  }
  return shown;
}

/// The name of a metric without the common prefix.
std::string shortName(const Json& family) {
  constexpr std::string_view kPrefix = "hostroute_";
  auto name = family.at("name").get<std::string>();
  return name.starts_with(kPrefix) ? name.substr(kPrefix.size()) : name;
}

/// Prints one JSON object for each metric.
int printJson(const Json& metrics) {
  for (const auto& family : metrics) std::cout << shownJson(family) << '\n';
  requireOutput();
  return 0;
}

int showCounters(const StatusOptions& options, const std::string& place) {
  const auto metrics = askOnce(options.control, place, {{"request", "counters"}}).at("metrics");
  Json chosen = Json::array();
  for (const auto& family : metrics) {
    if (family.at("name").get<std::string>().find(options.pattern) != std::string::npos) {
      chosen.push_back(family);
    }
  }
  if (chosen.empty()) {
    throw CommandError(place,
                       options.pattern.empty()
                           ? "the daemon has no counters"
                           : "no counter has \"" + options.pattern + "\" in its name",
                       kFailed);
  }
  if (options.json) return printJson(chosen);
  Replay::TextTable counters({"NAME", "LABELS", "KIND", "VALUE"});
  Replay::TextTable times({"TIMES OF", "COUNT", "P50", "P99", "P99.99", "LONGEST"});
  Replay::TextTable helps({"NAME", "MEANING"});
  for (const auto& family : chosen) {
    const auto name = shortName(family);
    helps.add({name, family.at("help").get<std::string>()});
    if (family.at("type") == "histogram") {
      const auto& quantiles = family.at("quantiles");
      times.add({name.substr(0, name.find("_seconds")), family.at("count").dump(),
                 secondsText(quantiles.at("0.5")), secondsText(quantiles.at("0.99")),
                 secondsText(quantiles.at("0.9999")), secondsText(family.at("max"))});
      continue;
    }
    for (const auto& sample : family.at("samples")) {
      counters.add({name, labelText(sample.at("labels")),
                    family.at("type") == "gauge" ? "now" : "total", sample.at("value").dump()});
    }
  }
  bool isFirst = true;
  for (const auto* table : {&counters, &times, options.helps ? &helps : nullptr}) {
    if (table == nullptr || table->empty()) continue;
    if (!std::exchange(isFirst, false)) std::cout << '\n';
    table->print(std::cout, tableStyle());
  }
  requireOutput();
  return 0;
}

/// Reads the HTTP request of a scrape up to its empty line.
void skipHttpRequest() {
  constexpr size_t kMostBytes = 65536;
  size_t read = 0;
  for (std::string line; read < kMostBytes && std::getline(std::cin, line);) {
    read += line.size() + 1;
    if (line.empty() || line == "\r") return;
  }
}

int showMetrics(const StatusOptions& options, const std::string& place) {
  if (options.json) {
    return printJson(askOnce(options.control, place, {{"request", "counters"}}).at("metrics"));
  }
  if (options.http) skipHttpRequest();
  std::string body;
  std::string head =
      "HTTP/1.1 200 OK\r\nContent-Type: application/openmetrics-text; "
      "version=1.0.0; charset=utf-8\r\n";
  try {
    runLive(options.control, place, [&](const std::string&) {
      body = openMetrics(askOnce(options.control, place, {{"request", "counters"}}).at("metrics"));
      return 0;
    });
  } catch (const CommandError& error) {
    if (!options.http) throw;
    head = "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain; charset=utf-8\r\n";
    body = std::string(error.what()) + "\n";
  }
  if (options.http) {
    std::cout << head << "Content-Length: " << body.size() << "\r\nConnection: close\r\n\r\n";
  }
  std::cout << body;
  requireOutput();
  return 0;
}

}  // namespace

void addStatusCommands(CLI::App& app, int& exitCode) {
  const auto options = std::make_shared<StatusOptions>();
  auto* status = app.add_subcommand("status", kStatusDescription);
  status->add_flag("--json", options->json, "Print one JSON object");
  status->footer(kStatusFooter);
  addLiveCommand(*status, options->control, exitCode,
                 [options](const std::string& place) { return showStatus(*options, place); });

  auto* counters = app.add_subcommand("counters", kCountersDescription);
  counters->add_option("name", options->pattern, "Only counters with this text in their names")
      ->type_name("NAME");
  counters->add_flag("--help-texts", options->helps, "Also show the meaning of each counter");
  counters->add_flag("--json", options->json, "Print one JSON object for each name");
  counters->footer(kCountersFooter);
  addLiveCommand(*counters, options->control, exitCode,
                 [options](const std::string& place) { return showCounters(*options, place); });

  auto* metrics = app.add_subcommand("metrics", kMetricsDescription);
  auto* http = metrics->add_flag("--http", options->http, "Read an HTTP request and answer it");
  metrics->add_flag("--json", options->json, "Print one JSON object for each name")->excludes(http);
  metrics->footer(kMetricsFooter);
  addLiveCommand(*metrics, options->control, exitCode,
                 [options](const std::string& place) { return showMetrics(*options, place); });
}

}  // namespace Cli
