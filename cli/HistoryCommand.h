// The command that tells what became of host routes.
#pragma once

#include <functional>
#include <string>

namespace CLI {
class App;
}

namespace Cli {

/// What `hostroute history` was asked.
struct HistoryOptions {
  std::string prefix;
  std::string vrf;
  std::string recording;  ///< the file to replay; empty for the live daemon
  size_t line = 0;        ///< the last line of it to replay; 0 for all
  size_t last = 0;        ///< how many changes to show; 0 for all
  bool settles = false;
  bool json = false;
};

/// Answers for the live daemon; returns the exit status.
using HistoryLive = std::function<int(const HistoryOptions&)>;

/// Adds `hostroute history` to the program.
///
/// \param live  without it, only recordings are looked into.
void addHistoryCommand(CLI::App& app, int& exitCode, HistoryLive live = {});

}  // namespace Cli
