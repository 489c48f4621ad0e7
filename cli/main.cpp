// The hostroute program: one subcommand for each thing it does.
#include <CLI/CLI.hpp>

#include "cli/ImportCommand.h"
#include "cli/ReplayCommand.h"
#include "cli/RoutesCommand.h"
#include "cli/ShellCommand.h"
#include "cli/TypesCommand.h"

int main(int argc, char** argv) {
  CLI::App app("Host routes of a switch: what they are, and why");
  app.require_subcommand(1);
  int exitCode = 0;
  Cli::addReplayCommand(app, exitCode);
  Cli::addRoutesCommand(app, exitCode);
  Cli::addImportCommand(app, exitCode);
  Cli::addShellCommand(app, exitCode);
  Cli::addTypesCommand(app, exitCode);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    constexpr int kMisused = 2;
    return app.exit(error) == 0 ? 0 : kMisused;  // asking for help is no error
  }
  return exitCode;
}
