#include "cli/Program.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <memory>
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

namespace Cli {
namespace {

constexpr const char* kProgramFooter = R"(Start with one of these:
  hostroute status                          the state of the running hostrouted
  hostroute explain 10.0.0.5                why an address has, or has not, a host route
  hostroute import | hostroute replay -     the host routes of this machine without a hostrouted
  hostroute replay examples/leaf.jsonl      the host routes of a recorded switch
  hostroute COMMAND --help                  the options of a command, with examples

Exit status: 0 done; 1 the engine, a table or the output failed; 2 the command line is malformed, or
an input cannot be read or is malformed. Errors are "PLACE: error: WHAT" on standard error.)";

/// The name of the program, with the command if it is known, for error messages.
std::string placeOf(const CLI::App& app) {
  const auto commands = app.get_subcommands();
  return commands.empty() ? "hostroute" : "hostroute " + commands.front()->get_name();
}

int misuse(const CLI::App& app, const std::string& what) {
  const auto place = placeOf(app);
  std::cerr << errorText(place, what) << '\n'
            << "Run " << place << " --help for more information.\n";
  return kMisused;
}

int failure(const CLI::App& app, const std::string& what) {
  std::cout.flush();
  std::cerr << errorText(placeOf(app), what) << '\n';
  return kFailed;
}

/// Prints the help. The list of commands has only the start of each description.
class HelpFormatter final : public CLI::Formatter {
 public:
  std::string make_subcommand(const CLI::App* command) const override {
    constexpr size_t kNameWidth = 12;
    auto text = command->get_description();
    text.resize(std::min(text.size(), text.find_first_of(".:,")));
    std::replace(text.begin(), text.end(), '\n', ' ');
    auto name = command->get_name();
    name.resize(std::max(name.size() + 1, kNameWidth), ' ');
    return "  " + name + text + "\n";
  }
};

/// Adds all commands, in the order of the help.
void addCommands(CLI::App& app, int& exitCode) {
  const auto groupNew = [&app](const char* group) {
    for (auto* command : app.get_subcommands({})) {
      if (command->get_group() == "Subcommands") command->group(group);
    }
  };
  addStatusCommands(app, exitCode);
  addAnswerCommands(app, exitCode);
  addRoutesCommand(app, exitCode);
  addLiveCommands(app, exitCode);
  addOperateCommands(app, exitCode);
  groupNew("Commands for the running hostrouted");
  addDoctorCommand(app, exitCode);
  addImportCommand(app, exitCode);
  addReplayCommand(app, exitCode);
  addDiffCommand(app, exitCode);
  addAnonymizeCommand(app);
  addShellCommand(app, exitCode);
  addTypesCommand(app, exitCode);
  groupNew("Commands for this machine, recordings and plug-ins");
}

int runCommand(CLI::App& app, int argc, char** argv) {
  int exitCode = 0;
  addCommands(app, exitCode);
  const std::string first = argc > 1 ? argv[1] : "-";
  const auto isFirst = [&](const CLI::App* command) { return command->get_name() == first; };
  if (first[0] != '-' && app.get_subcommands(isFirst).empty()) {
    return misuse(app, "no command \"" + first + "\"");
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    app.exit(success);  // prints the help or the version that was asked for
    requireOutput();
    return 0;
  } catch (const CLI::ParseError& error) {
    return misuse(app, error.what());
  }
  return exitCode;
}

}  // namespace

int runProgram(int argc, char** argv, const std::string& version) {
  CLI::App app("Shows and explains the host routes of a switch");
  try {
    app.formatter(std::make_shared<HelpFormatter>());
    app.require_subcommand(1);
    app.set_version_flag("--version", "hostroute " + version, "Print the version and exit");
    app.footer(kProgramFooter);
    return runCommand(app, argc, argv);
  } catch (const CommandError& error) {
    std::cout.flush();
    std::cerr << error.what() << '\n';
    return error.status();
  } catch (const std::bad_alloc&) {
    return failure(app, "out of memory");
  } catch (const std::exception& error) {
    return failure(app, error.what());
  }
}

}  // namespace Cli
