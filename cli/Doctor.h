// What on a Linux machine will hurt hostrouted, and what mends it.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "linux/Rules.h"
#include "linux/Values.h"

namespace Cli {

/// What is looked at. What is not known is left as it is here, and not judged.
struct Machine {
  std::filesystem::path root = "/";     ///< where proc/sys and etc are
  std::vector<std::string> interfaces;  ///< those whose hosts count
  Linux::TableId table4 = 10;           ///< of the VRF "default"; 0 for none
  Linux::TableId table6 = 10;
  std::vector<Linux::TableId> otherTables;  ///< of other VRFs
  uint8_t protocol = 205;
  std::optional<int> pid;  ///< of the running daemon
  size_t neighbors4 = 0;
  size_t neighbors6 = 0;
  std::vector<Linux::Route> routes;
  std::vector<Linux::Link> links;
  std::vector<Linux::Rule> rules;
  std::optional<bool> isClockSynchronised;
  std::optional<bool> frrRuns;  ///< where it does not, its configuration says nothing
  std::optional<bool> birdRuns;
};

/// Something that was found.
struct Advice {
  enum class Weight {
    Error,    ///< host routes are missing or wrong because of it, or will be
    Warning,  ///< they may be, in common conditions
    Note,     ///< it matters in some deployments only
  };
  Weight weight = Weight::Note;
  std::string subject;  ///< "gc_thresh", "FRR"
  std::string what;     ///< what is so, and what comes of it
  std::string mend;     ///< the command, or the line of a file, that mends it

  friend bool operator==(const Advice&, const Advice&) = default;
};

/// "error", "warning" or "note".
const char* toString(Advice::Weight weight);

/// All that is to be said of a machine, what matters most first.
std::vector<Advice> examine(const Machine& machine);

}  // namespace Cli
