// The command that makes recordings fit for others' eyes.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

void addAnonymizeCommand(CLI::App& app);

}  // namespace Cli
