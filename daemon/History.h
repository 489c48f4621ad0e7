// What became of host routes, and why.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Daemon {

/// What an event was that changed a host route.
enum class CauseKind : uint8_t {
  Unknown,          ///< a handler was called by hand, or another wrote to the route table
  NeighborLearned,  ///< a neighbour without a host route was announced
  NeighborChanged,  ///< one that has a host route was announced
  NeighborLost,     ///< a neighbour went
  NeighborTable,    ///< an interface's neighbour table came, or went with its neighbours
  Route,            ///< a FIB route was announced
  Fec,              ///< a FEC changed
  Address,          ///< an address of an interface
  Interface,        ///< an interface came to the VRF, or left it
  VirtualIp,        ///< a virtual address of a first-hop redundancy group
  Initialization,   ///< the VRF's inputs are complete, or no longer
  RibReady,         ///< the RIB is ready, or readiness is to be verified
  Settling,         ///< the neighbour was announced again after a change of a route or a FEC
};

/// The word by which programs know a cause, such as "neighborLearned".
std::string_view nameOf(CauseKind kind);

/// One change of a host route in the route table.
struct HistoryEntry {
  enum class Change : uint8_t { Added, Changed, Removed };

  int64_t time = 0;  ///< CLOCK_REALTIME in nanoseconds
  std::string vrf;
  int family = 4;      ///< 4 or 6
  std::string prefix;  ///< of the host route
  Change change = Change::Added;
  // What it became; empty or 0 when it was removed.
  std::string type;
  uint64_t fec = 0;  ///< of a FIB route; 0 where the vias are written as an adjacency
  std::string vias;  ///< for people: "10.0.0.9 Ethernet1, Ethernet2"
  // By which event; empty or 0 where that has none.
  CauseKind cause = CauseKind::Unknown;
  std::string causeIntf;
  std::string causePrefix;
  uint64_t causeFec = 0;

  friend bool operator==(const HistoryEntry&, const HistoryEntry&) = default;
};

/// "added", "changed" or "removed".
std::string_view nameOf(HistoryEntry::Change change);

/// The event of an entry for people, such as "neighbour learned on Ethernet1".
std::string causeText(const HistoryEntry& entry);

/// What the route became, for people: "attached_ via Ethernet1", or "removed".
std::string changeText(const HistoryEntry& entry);

}  // namespace Daemon
