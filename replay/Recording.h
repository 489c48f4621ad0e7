// Writes the operations on a switch in the replay format.
#pragma once

#include <chrono>
#include <string>

#include "daemon/Operation.h"

namespace Replay {

/// The replay lines that repeat `operation`, each with its newline. An operation is one line, or
/// two when the replay format has an event for each half of it.
///
/// Names are written as UTF-8. Bytes that are not UTF-8 become U+FFFD.
std::string linesOf(const Daemon::Operation& operation);

/// The replay line with the time of the events that follow, with its newline.
/// \param sinceEpoch  since 1970-01-01T00:00:00Z.
std::string timeLine(std::chrono::microseconds sinceEpoch);

}  // namespace Replay
