// The commands that show what a running hostrouted has, and what happens in it.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `neighbors`, `monitor` and `dump`, and `names`, which completion uses.
void addLiveCommands(CLI::App& app, int& exitCode);

}  // namespace Cli
