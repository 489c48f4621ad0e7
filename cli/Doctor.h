// Finds settings of a Linux machine that disturb hostrouted.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "linux/Rules.h"
#include "linux/Values.h"

namespace Cli {

/// The properties of a machine that are checked. A property with its default value is unknown and
/// gives no findings.
struct Machine {
  std::filesystem::path root = "/";     ///< the directory that contains proc/sys and etc
  std::vector<std::string> interfaces;  ///< the interfaces whose neighbours become host routes
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
  std::optional<bool> frrRuns;   ///< when false, its configuration is not checked
  std::optional<bool> birdRuns;  ///< likewise
};

/// A finding.
struct Advice {
  enum class Weight {
    Error,    ///< makes host routes missing or wrong
    Warning,  ///< makes host routes missing or wrong in common situations
    Note,     ///< matters in some deployments only
  };
  Weight weight = Weight::Note;
  std::string subject;  ///< "gc_thresh", "FRR"
  std::string what;     ///< the setting and its effect
  std::string mend;     ///< the command, or the line of a file, that corrects it

  friend bool operator==(const Advice&, const Advice&) = default;
};

/// "error", "warning" or "note".
const char* toString(Advice::Weight weight);

/// The findings on a machine, the most severe first.
std::vector<Advice> examine(const Machine& machine);

}  // namespace Cli
