// The commands that show the state and the counters of a running hostrouted.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `status`, `counters` and `metrics`.
void addStatusCommands(CLI::App& app, int& exitCode);

}  // namespace Cli
