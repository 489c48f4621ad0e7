// Replaying a recording up to a line, for a question about the state there.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "daemon/Switch.h"

namespace Cli {

/// Feeds `sw` the recording, up to line `last`; 0 stands for all of it. Errors go to standard
/// error.
///
/// \param begins  called before each event with its line; may be empty.
/// \returns 0; kFailed when a machine failed on an event, so that the state may not be what it was;
///          kMisused when the recording is malformed, and the command cannot answer.
/// \throws CommandError when the recording cannot be opened.
int replayUpTo(Daemon::Switch& sw, const std::string& recording, size_t last,
               std::function<void(size_t)> begins = {});

}  // namespace Cli
