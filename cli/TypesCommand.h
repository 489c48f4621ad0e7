// The `hostroute types` command.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `types` to `app`. When the command line names it, it runs and leaves its exit status in
/// `exitCode` (0 done, 1 failed output, 2 no plug-in), which must outlive the parsing.
void addTypesCommand(CLI::App& app, int& exitCode);

}  // namespace Cli
