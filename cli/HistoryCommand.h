// The command that tells what became of host routes.
#pragma once

#include <functional>
#include <string>

namespace CLI {
class App;
}
#include "cli/Replaying.h"

namespace Cli {

/// What `hostroute history` was asked.
struct HistoryOptions : ReplayedState {
  std::string prefix;
  size_t last = 0;  ///< how many changes to show; 0 for all
  bool json = false;
};

/// Answers for the live daemon; returns the exit status.
using HistoryLive = std::function<int(const HistoryOptions&)>;

/// Adds `hostroute history` to the program.
///
/// \param live  without it, only recordings are looked into.
void addHistoryCommand(CLI::App& app, int& exitCode, HistoryLive live = {});

}  // namespace Cli
