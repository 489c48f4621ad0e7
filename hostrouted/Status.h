// The daemon's status, for users and programs.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "hostrouted/Router.h"

namespace Hostrouted {

/// The status of the process, without its router.
struct ProcessStatus {
  std::string version;
  int pid = 0;
  std::chrono::microseconds startedAt{0};  ///< since 1970-01-01T00:00:00Z
  int logLevel = 0;                        ///< syslog(3)
  bool advertisedIsSound = true;           ///< whether the list of advertised routes is on the disk
  std::string recording;                   ///< the file of the current recording, or empty
  std::string recordingProblem;            ///< the error that ended the last one, or empty
  std::string reloadProblem;               ///< why the last reload did not change all, or empty
};

/// The daemon's state: phase, whether it is ready and why not, configuration, VRFs, numbers of
/// objects, counters, shared tables with damage or refusals, and at most kMostProblems host routes
/// that are not in their wanted state, with the reason of each.
nlohmann::ordered_json status(const Router& router, const ProcessStatus& process);
/// The reasons why routes may be wrong or missing; nothing if there are none.
std::vector<std::string> warnings(const Router& router, const ProcessStatus& process);
/// The text of a problem of a route: "damped", or the error of the kernel.
std::string reasonOf(const Linux::KernelRoutes::Problem& problem);

/// The status in one line: "ready: 12 host routes, 0 not as they should be".
std::string statusLine(const Router& router);

inline constexpr size_t kMostProblems = 1000;

/// Replaces a file atomically by one with `text`. \return false with errno set on failure.
bool replaceFile(const std::string& path, const std::string& text);

}  // namespace Hostrouted
