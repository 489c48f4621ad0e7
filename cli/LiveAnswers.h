// Questions that a recording can answer, too, put to the running hostrouted.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `explain` and `history`.
void addAnswerCommands(CLI::App& app, int& exitCode);

}  // namespace Cli
