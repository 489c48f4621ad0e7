// Replays a recording up to a line, for `explain` and `history`.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "daemon/Switch.h"

namespace Cli {

/// The switch and the VRF that a command is about.
struct ReplayedState {
  std::string vrf = Daemon::Switch::kDefaultVrf;
  std::string recording;  ///< the recording to replay; empty for the live daemon
  size_t line = 0;        ///< the last line to replay; 0 for all lines
  bool settles = false;
};

/// Adds the options --vrf, --replay, --at and --settle for `state`.
///
/// \param isLive  whether the command can ask the live daemon, so that --replay is not required.
/// \param atHelp  the help text of --at.
void addStateOptions(CLI::App& command, ReplayedState& state, bool isLive,
                     const std::string& atHelp);

/// The position in a replay.
struct Whereabouts {
  size_t line = 0;
  /// The time of the event since 1970-01-01T00:00:00Z; nothing when the recording has no times.
  std::optional<std::chrono::microseconds> time = {};
};

/// Applies the recording to `sw` up to line `last`; 0 means all lines. Errors go to standard error.
///
/// \param begins  called before each event; may be empty.
/// \returns 0; kFailed when a machine failed on an event, so the state may differ from the recorded
///          one; kMisused when the recording is malformed.
/// \throws CommandError when the recording cannot be opened.
int replayUpTo(Daemon::Switch& sw, const std::string& recording, size_t last,
               std::function<void(const Whereabouts&)> begins = {});

}  // namespace Cli
