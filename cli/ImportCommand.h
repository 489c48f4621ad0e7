// The `hostroute import` command.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `import` to `app`. The command stores its exit status in `exitCode` (0 done, 2 unreadable
/// input), which must outlive the parsing.
void addImportCommand(CLI::App& app, int& exitCode);

}  // namespace Cli
