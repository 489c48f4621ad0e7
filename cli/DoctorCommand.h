// The `hostroute doctor` command.
#pragma once

#include <CLI/CLI.hpp>

namespace Cli {

void addDoctorCommand(CLI::App& app, int& exitCode);

}  // namespace Cli
