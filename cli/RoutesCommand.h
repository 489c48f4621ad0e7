// The `hostroute routes` command.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `routes` to `app`. The command stores its exit status in `exitCode` (0 done, 1 no daemon
/// and no tables, or a damaged table, 3 not ready), which must outlive the parsing.
void addRoutesCommand(CLI::App& app, int& exitCode);

}  // namespace Cli
