// The `hostroute diff` command.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `diff` to `app`. The command stores its exit status in `exitCode` (0 equal, 1 different,
/// 2 error), which must outlive the parsing.
void addDiffCommand(CLI::App& app, int& exitCode);

}  // namespace Cli
