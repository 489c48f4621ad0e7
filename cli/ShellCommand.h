// The `hostroute shell` command.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `shell` to `app`. When the command line names it, it runs and leaves its exit status in
/// `exitCode`, which must outlive the parsing.
void addShellCommand(CLI::App& app, int& exitCode);

}  // namespace Cli
