// What is done to a switch, written down in the replay format.
#pragma once

#include <chrono>
#include <string>

#include "daemon/Operation.h"

namespace Replay {

/// The lines of a replay that do what `operation` does, each with its newline: one line, but two
/// where a replay has an event for each half of the operation.
///
/// Names are written as UTF-8; bytes that are none become U+FFFD.
std::string linesOf(const Daemon::Operation& operation);

/// The line of a replay that tells when what follows happened, with its newline.
/// \param sinceEpoch  since 1970-01-01T00:00:00Z.
std::string timeLine(std::chrono::microseconds sinceEpoch);

}  // namespace Replay
