// The output of a replay, for programs and for people.
#pragma once

#include <chrono>
#include <memory>
#include <ostream>
#include <string_view>
#include <vector>

#include "daemon/Switch.h"
#include "platform/kiv/runtime/Trace.h"
#include "replay/TextTable.h"

namespace Replay {

/// The machines that a dump shows.
struct DumpSelection {
  std::vector<const Daemon::Vrf*> vrfs;  ///< in the order of their names
  bool ipv4 = true;
  bool ipv6 = true;
};

/// An output format.
class Output {
 public:
  virtual ~Output() = default;

  /// Prints the state of machines, with their roots and tables.
  virtual void dump(const Daemon::Switch& sw, const DumpSelection& selection) = 0;
  virtual void trace(const Kiv::TraceRecord& record) = 0;
  /// Prints the event that is about to be applied: the line number and the text of the line.
  virtual void event(size_t number, std::string_view line) = 0;
  /// Reports the time of the following events, since 1970-01-01T00:00:00Z.
  virtual void time(std::chrono::microseconds) {}
};

/// One JSON object on each line. Keys are sorted. Lists are sorted by the JSON text of their
/// elements.
///
/// \param inPieces  splits a dump into lines: one with the single values, and one for each element
///                  of its lists and maps.
std::unique_ptr<Output> jsonOutput(std::ostream& os, bool inPieces = false);
/// Aligned tables.
std::unique_ptr<Output> textOutput(std::ostream& os, const TextStyle& style = {});

/// The state of one machine as a JSON object with the single member "dump".
template <class F>
std::string dumpJson(const Daemon::Switch& sw, const Daemon::Vrf& vrf);

}  // namespace Replay
