// The commands that show the neighbours, changes and machines of a running hostrouted.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `neighbors`, `monitor`, `dump`, and `names` for completion.
void addLiveCommands(CLI::App& app, int& exitCode);

}  // namespace Cli
