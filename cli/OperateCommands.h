// The commands that change something in a running hostrouted.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `log-level`, `trace`, `resync`, `reload` and `record`.
void addOperateCommands(CLI::App& app, int& exitCode);

}  // namespace Cli
