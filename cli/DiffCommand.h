// The `hostroute diff` command.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `diff` to `app`. When the command line names it, it runs and leaves its exit status in
/// `exitCode` (0 equal, 1 different, 2 in trouble), which must outlive the parsing.
void addDiffCommand(CLI::App& app, int& exitCode);

}  // namespace Cli
