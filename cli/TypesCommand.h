// The `hostroute types` command.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `types` to `app`. The command stores its exit status in `exitCode` (0 done, 1 failed
/// output, 2 not a plug-in), which must outlive the parsing.
void addTypesCommand(CLI::App& app, int& exitCode);

}  // namespace Cli
