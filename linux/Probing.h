// Decides which neighbours the kernel should ask for a sign of life.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "linux/Mirror.h"

namespace Linux {

struct ProbingOptions {
  /// Whether the addresses behind a MAC that a bridge forgot, or behind a port that lost its
  /// carrier, are probed at once.
  bool onDeparture = true;
  /// Whether entries that the kernel would drop for lack of use are refreshed in time.
  bool keepalive = false;
  double keepaliveInterval = 30;              ///< seconds between two refreshments of one entry
  uint32_t rate = 100;                        ///< most probes in a second
  std::function<bool(LinkIndex)> isSelected;  ///< whether the interface's neighbours are ours
};

/// A neighbour to be set to NUD_PROBE, with the MAC that it has now.
struct Probe {
  LinkIndex link = 0;
  Address addr;
  Zemit::EthAddr mac;

  friend bool operator==(const Probe&, const Probe&) = default;
};

/// Gathers neighbours to probe, and hands them out at a limited rate. Does no I/O.
class Probing {
 public:
  Probing(const Mirror& mirror, std::function<double()> clock, ProbingOptions options);

  /// The bridge forgot an address behind `entry.port`.
  void onFdbEntryGone(const FdbEntry& entry);
  /// The interface, a bridge port perhaps, has no carrier any more.
  void onCarrierLost(LinkIndex link);

  /// The probes that are due now.
  std::vector<Probe> due();
  /// When due() should be asked again: the clock's time, or none.
  std::optional<double> nextDeadline() const;
};

}  // namespace Linux
