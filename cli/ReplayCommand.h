// The `hostroute replay` command.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `replay` to `app`. The command stores its exit status in `exitCode` (0 done, 1 failed,
/// 2 malformed input), which must outlive the parsing.
void addReplayCommand(CLI::App& app, int& exitCode);

}  // namespace Cli
