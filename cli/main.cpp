// The hostroute program: one subcommand for each thing it does.
#include <algorithm>
#include <exception>
#include <iostream>
#include <new>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/AnonymizeCommand.h"
#include "cli/Command.h"
#include "cli/DiffCommand.h"
#include "cli/DoctorCommand.h"
#include "cli/ImportCommand.h"
#include "cli/LiveAnswers.h"
#include "cli/LiveCommands.h"
#include "cli/OperateCommands.h"
#include "cli/ReplayCommand.h"
#include "cli/RoutesCommand.h"
#include "cli/ShellCommand.h"
#include "cli/StatusCommand.h"
#include "cli/TypesCommand.h"

namespace {

constexpr const char* kFooter = R"(Start with one of these:
  hostroute import | hostroute replay -     the host routes of this machine
  hostroute replay examples/leaf.jsonl      those of a recorded switch
  hostroute replay --help                   what else a replay can show, and how to ask why

Exit status: 0 done; 1 the engine, a table or the output failed; 2 the command line is malformed, or
an input cannot be read or is malformed. Errors are "PLACE: error: WHAT" on standard error.)";

/// The program and, once it is known, the command, as errors name them.
std::string placeOf(const CLI::App& app) {
  const auto commands = app.get_subcommands();
  return commands.empty() ? "hostroute" : "hostroute " + commands.front()->get_name();
}

int misuse(const CLI::App& app, const std::string& what) {
  const auto place = placeOf(app);
  std::cerr << Cli::errorText(place, what) << '\n'
            << "Run " << place << " --help for more information.\n";
  return Cli::kMisused;
}

int failure(const CLI::App& app, const std::string& what) {
  std::cout.flush();
  std::cerr << Cli::errorText(placeOf(app), what) << '\n';
  return Cli::kFailed;
}

int run(CLI::App& app, int argc, char** argv) {
  int exitCode = 0;
  Cli::addReplayCommand(app, exitCode);
  Cli::addRoutesCommand(app, exitCode);
  Cli::addDiffCommand(app, exitCode);
  Cli::addAnswerCommands(app, exitCode);
  Cli::addImportCommand(app, exitCode);
  Cli::addShellCommand(app, exitCode);
  Cli::addTypesCommand(app, exitCode);
  Cli::addDoctorCommand(app, exitCode);
  Cli::addAnonymizeCommand(app);
  Cli::addStatusCommands(app, exitCode);
  Cli::addLiveCommands(app, exitCode);
  Cli::addOperateCommands(app, exitCode);
  const std::string first = argc > 1 ? argv[1] : "-";
  const auto isFirst = [&](const CLI::App* command) { return command->get_name() == first; };
  if (first[0] != '-' && app.get_subcommands(isFirst).empty()) {
    return misuse(app, "no command \"" + first + "\"");
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    app.exit(success);  // prints the help or the version that was asked for
    Cli::requireOutput();
    return 0;
  } catch (const CLI::ParseError& error) {
    return misuse(app, error.what());
  }
  return exitCode;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Host routes of a switch: what they are, and why");
  try {
    app.require_subcommand(1);
    app.set_version_flag("--version", "hostroute " HOSTROUTE_VERSION, "Print the version and exit");
    app.footer(kFooter);
    return run(app, argc, argv);
  } catch (const Cli::CommandError& error) {
    std::cout.flush();
    std::cerr << error.what() << '\n';
    return error.status();
  } catch (const std::bad_alloc&) {
    return failure(app, "out of memory");
  } catch (const std::exception& error) {
    return failure(app, error.what());
  }
}
