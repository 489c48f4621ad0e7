// The `hostroute import` command.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `import` to `app`. When the command line names it, it runs and leaves its exit status in
/// `exitCode` (0 done, 2 input that cannot be had or read), which must outlive the parsing.
void addImportCommand(CLI::App& app, int& exitCode);

}  // namespace Cli
