// The `hostroute explain` command.
#pragma once

#include <functional>
#include <string>

namespace CLI {
class App;
}
#include "cli/Replaying.h"

namespace Cli {

/// The options of `hostroute explain`.
struct ExplainOptions : ReplayedState {
  std::string address;
  bool json = false;
};

/// The command's body for the live daemon; returns the exit status.
using ExplainLive = std::function<int(const ExplainOptions&)>;

/// Adds `hostroute explain` to the program.
///
/// \param live  when empty, the command works on recordings only.
void addExplainCommand(CLI::App& app, int& exitCode, ExplainLive live = {});

}  // namespace Cli
