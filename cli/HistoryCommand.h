// The `hostroute history` command.
#pragma once

#include <functional>
#include <string>

namespace CLI {
class App;
}
#include "cli/Replaying.h"

namespace Cli {

/// The options of `hostroute history`.
struct HistoryOptions : ReplayedState {
  std::string prefix;
  size_t last = 0;  ///< how many changes to show; 0 for all
  bool json = false;
};

/// The command's body for the live daemon; returns the exit status.
using HistoryLive = std::function<int(const HistoryOptions&)>;

/// Adds `hostroute history` to the program.
///
/// \param live  when empty, the command works on recordings only.
void addHistoryCommand(CLI::App& app, int& exitCode, HistoryLive live = {});

}  // namespace Cli
