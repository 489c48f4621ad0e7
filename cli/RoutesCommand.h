// The `hostroute routes` command.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `routes` to `app`. When the command line names it, it runs and leaves its exit status in
/// `exitCode` (0 done, 1 tables absent or damaged), which must outlive the parsing.
void addRoutesCommand(CLI::App& app, int& exitCode);

}  // namespace Cli
