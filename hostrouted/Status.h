// How the daemon is, for people and programs.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "hostrouted/Router.h"

namespace Hostrouted {

/// What there is to say of the process beside its router.
struct ProcessStatus {
  std::string version;
  int pid = 0;
  std::chrono::microseconds startedAt{0};  ///< since 1970-01-01T00:00:00Z
  int logLevel = 0;                        ///< syslog(3)
  bool advertisedIsSound = true;           ///< whether the list of advertised routes is on the disk
  std::string recording;                   ///< the file of the recording that goes on; else empty
  std::string recordingProblem;            ///< why the last one ended by itself; else empty
};

/// The daemon's state: phase, whether it is ready and why not, configuration, VRFs, counts,
/// counters, the shared tables that were found damaged or could not grow, and the host routes that
/// are not in the kernel as they should be, with the reason of each (at most kMostProblems of
/// them).
nlohmann::ordered_json status(const Router& router, const ProcessStatus& process);
/// Why the routes may not be what they should be; nothing when all is well.
std::vector<std::string> warnings(const Router& router, const ProcessStatus& process);
/// A route's problem for people: "damped", or the kernel's error.
std::string reasonOf(const Linux::KernelRoutes::Problem& problem);

/// The same in one line: "ready: 12 host routes, 0 not as they should be".
std::string statusLine(const Router& router);

inline constexpr size_t kMostProblems = 1000;

/// Writes `text` to a file so that a reader finds the former or the new one whole.
/// \return false when it cannot be written; errno says why.
bool replaceFile(const std::string& path, const std::string& text);

}  // namespace Hostrouted
