// The `hostroute shell` command.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `shell` to `app`. The command stores its exit status in `exitCode`, which must outlive the
/// parsing.
void addShellCommand(CLI::App& app, int& exitCode);

}  // namespace Cli
