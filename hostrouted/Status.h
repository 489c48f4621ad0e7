// How the daemon is, for people and programs.
#pragma once

#include <string>

#include "hostrouted/Router.h"

namespace Hostrouted {

/// The daemon's state as one JSON object: phase, counts, counters, the shared tables that were
/// found damaged or could not grow, and the host routes that are not
/// in the kernel as they should be, with the reason of each (at most kMostProblems of them).
std::string statusJson(const Router& router);

/// The same in one line: "ready: 12 host routes, 0 not as they should be".
std::string statusLine(const Router& router);

inline constexpr size_t kMostProblems = 1000;

/// Writes `text` to a file so that a reader finds the former or the new one whole.
/// \return false when it cannot be written; errno says why.
bool replaceFile(const std::string& path, const std::string& text);

}  // namespace Hostrouted
