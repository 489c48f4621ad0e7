// The command that says why an address has, or has not, its host route.
#pragma once

#include <functional>
#include <string>

namespace CLI {
class App;
}
#include "cli/Replaying.h"

namespace Cli {

/// What `hostroute explain` was asked.
struct ExplainOptions : ReplayedState {
  std::string address;
  bool json = false;
};

/// Answers for the live daemon; returns the exit status.
using ExplainLive = std::function<int(const ExplainOptions&)>;

/// Adds `hostroute explain` to the program.
///
/// \param live  without it, only recordings are explained.
void addExplainCommand(CLI::App& app, int& exitCode, ExplainLive live = {});

}  // namespace Cli
