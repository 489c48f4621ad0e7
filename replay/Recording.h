// What is done to a switch, written down in the replay format.
#pragma once

#include <string>

#include "daemon/Operation.h"

namespace Replay {

/// The lines of a replay that do what `operation` does, each with its newline: one line, but two
/// where a replay has an event for each half of the operation.
///
/// Names are written as UTF-8; bytes that are none become U+FFFD.
std::string linesOf(const Daemon::Operation& operation);

}  // namespace Replay
