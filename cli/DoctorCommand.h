// The command that looks at the machine and says what will hurt.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

void addDoctorCommand(CLI::App& app, int& exitCode);

}  // namespace Cli
