// Replaying a recording up to a line, for a question about the state there.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "daemon/Switch.h"

namespace Cli {

/// Which switch a question is put to, and in which VRF.
struct ReplayedState {
  std::string vrf = Daemon::Switch::kDefaultVrf;
  std::string recording;  ///< the file to replay; empty for the live daemon
  size_t line = 0;        ///< the last line of it to replay; 0 for all
  bool settles = false;
};

/// Adds --vrf, --replay, --at and --settle, which fill `state`.
///
/// \param isLive  whether there is an answer without a recording.
/// \param atHelp  what --at means to the command.
void addStateOptions(CLI::App& command, ReplayedState& state, bool isLive,
                     const std::string& atHelp);

/// How far a replay is.
struct Whereabouts {
  size_t line = 0;
  /// When it happened, since 1970-01-01T00:00:00Z, where the recording says so.
  std::optional<std::chrono::microseconds> time = {};
};

/// Feeds `sw` the recording, up to line `last`; 0 stands for all of it. Errors go to standard
/// error.
///
/// \param begins  called before each event; may be empty.
/// \returns 0; kFailed when a machine failed on an event, so that the state may not be what it was;
///          kMisused when the recording is malformed, and the command cannot answer.
/// \throws CommandError when the recording cannot be opened.
int replayUpTo(Daemon::Switch& sw, const std::string& recording, size_t last,
               std::function<void(const Whereabouts&)> begins = {});

}  // namespace Cli
