// `explain` and `history` for the running hostrouted or a recording.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

/// Adds `explain` and `history`.
void addAnswerCommands(CLI::App& app, int& exitCode);

}  // namespace Cli
