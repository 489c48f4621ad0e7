// The hostrouted program: reads the configuration and the command line, and runs the service.
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "hostrouted/Config.h"
#include "hostrouted/InstanceLock.h"
#include "hostrouted/Log.h"
#include "hostrouted/Service.h"
#include "replay/Printable.h"

namespace {

using Hostrouted::Config;
using Hostrouted::ConfigError;

constexpr int kFailed = 1;
constexpr int kMisused = 2;
constexpr int kInUse = 3;

constexpr const char* kDescription =
    R"(Keeps a host route in a kernel table for every host that is directly attached to this router,
so that a routing daemon can advertise it.)";

constexpr const char* kFooter =
    R"(Options override the configuration file. Without --config, /etc/hostroute/hostrouted.toml is
read if it exists. On SIGHUP the daemon reads the file again. SIGTERM ends the daemon; the routes
stay unless on-exit = "flush" is set.

Examples:
  hostrouted --interfaces br0                        the hosts on br0, in table 10
  hostrouted --interfaces 'swp*' --dry-run           print the routes that it would write
  hostrouted --check-config                          check the configuration file
  ip route show table 10                             the routes that it wrote

Exit status: 0 ended by a signal; 1 a fatal error; 2 the command line or the configuration is wrong;
3 another hostrouted writes to one of the tables, or uses the directories.)";

struct Arguments {
  std::string file;
  std::optional<uint32_t> table4, table6;
  std::optional<uint32_t> protocol;
  std::string interfaces;
  std::string runDir;
  std::string stateDir;
  std::string sharedName;
  std::string logLevel;
  std::string recordFile;
  bool foreground = false;
  bool checksOnly = false;
  bool isDryRun = false;
};

std::vector<std::string> split(const std::string& list) {
  std::vector<std::string> parts;
  std::istringstream in(list);
  for (std::string part; std::getline(in, part, ',');) {
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

/// The configuration of the file, overridden by the command line. \throws ConfigError.
Config configuration(Arguments& arguments) {
  // Once the default file was read, its absence is an error.
  if (arguments.file.empty() && std::filesystem::exists(Config::kDefaultFile)) {
    arguments.file = Config::kDefaultFile;
  }
  Config config;
  if (!arguments.file.empty()) config = Config::load(arguments.file);
  auto& output = config.tables["default"];
  output.table4 = arguments.table4.value_or(output.table4);
  output.table6 = arguments.table6.value_or(output.table6);
  if (arguments.protocol) config.protocol = static_cast<uint8_t>(*arguments.protocol);
  if (!arguments.interfaces.empty()) config.feed.interfaces = split(arguments.interfaces);
  if (!arguments.runDir.empty()) config.runDir = arguments.runDir;
  if (!arguments.stateDir.empty()) config.stateDir = arguments.stateDir;
  if (!arguments.sharedName.empty()) config.sharedName = arguments.sharedName;
  if (!arguments.logLevel.empty()) {
    config.logLevel = Hostrouted::parseLogLevel(arguments.logLevel).value_or(config.logLevel);
  }
  config.check();
  return config;
}

void addOptions(CLI::App& app, Arguments& arguments) {
  app.add_option("--config", arguments.file, "The configuration file, see hostrouted.toml(5)")
      ->type_name("FILE");
  app.add_option(
         "--interfaces", arguments.interfaces,
         "The interfaces of the hosts: names and patterns, such as a,b,swp*; !PATTERN excludes")
      ->type_name("LIST");
  app.add_option("--table", arguments.table4, "The kernel table of IPv4 host routes; 0 for none")
      ->type_name("N");
  app.add_option("--table6", arguments.table6, "The kernel table of IPv6 host routes; 0 for none")
      ->type_name("N");
  app.add_option("--protocol", arguments.protocol, "The protocol number of the routes")
      ->type_name("N")
      ->check(CLI::Range(uint32_t{Config::kFirstProtocol}, 255U));
  app.add_option("--run-dir", arguments.runDir, "The directory of the status file")
      ->type_name("DIR");
  app.add_option("--state-dir", arguments.stateDir,
                 "The directory of the list of advertised routes")
      ->type_name("DIR");
  app.add_option("--shared-tables", arguments.sharedName,
                 "Keep the engine's tables in shared memory, for `hostroute routes --table NAME`")
      ->type_name("NAME");
  app.add_option("--log-level", arguments.logLevel, "error, warning, notice, info or debug")
      ->type_name("LEVEL")
      ->check([](const std::string& level) -> std::string {
        return Hostrouted::parseLogLevel(level) ? ""
                                                : "the levels are error, warning, notice, "
                                                  "info and debug";
      });
  app.add_option("--record", arguments.recordFile,
                 "Record the inputs of the engine, for `hostroute replay --settle FILE`")
      ->type_name("FILE");
  app.add_flag("--foreground", arguments.foreground,
               "Stay in the foreground, which the daemon always does");
  app.add_flag("--check-config", arguments.checksOnly, "Only check the configuration");
  app.add_flag("--dry-run", arguments.isDryRun,
               "Print the routes that it would write to the kernel, and end");
  app.footer(kFooter);
}

int failure(const std::exception& error, int status) {
  std::cerr << "hostrouted: error: " << Replay::printable(error.what()) << '\n';
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);  // the write fails instead
  CLI::App app(kDescription);
  app.set_version_flag("--version", "hostrouted " HOSTROUTE_VERSION);
  Arguments arguments;
  addOptions(app, arguments);
  Hostrouted::Log log;
  try {
    app.parse(argc, argv);
    const Config config = configuration(arguments);
    if (arguments.checksOnly) {
      std::cout << "The configuration is right.\n";
      return 0;
    }
    log.setLevel(config.logLevel);
    Hostrouted::Service service(config,
                                {.reload = [&arguments] { return configuration(arguments); },
                                 .isDryRun = arguments.isDryRun,
                                 .recordFile = arguments.recordFile,
                                 .version = HOSTROUTE_VERSION},
                                log);
    return service.run();
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kMisused;
  } catch (const ConfigError& error) {
    return failure(error, kMisused);
  } catch (const Hostrouted::InUseError& error) {
    return failure(error, kInUse);
  } catch (const std::exception& error) {
    return failure(error, kFailed);
  }
}
