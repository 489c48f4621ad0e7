// The `hostroute anonymize` command.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

void addAnonymizeCommand(CLI::App& app);

}  // namespace Cli
