// The commands that show how a running hostrouted is.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `status`, `counters` and `metrics`.
void addStatusCommands(CLI::App& app, int& exitCode);

}  // namespace Cli
