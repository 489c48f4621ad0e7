// The hostroute program: one subcommand for each thing it does.
#include <CLI/CLI.hpp>

#include "cli/ImportCommand.h"

int main(int argc, char** argv) {
  CLI::App app("Host routes of a switch: what they are, and why");
  app.require_subcommand(1);
  int exitCode = 0;
  Cli::addImportCommand(app, exitCode);
  CLI11_PARSE(app, argc, argv);
  return exitCode;
}
