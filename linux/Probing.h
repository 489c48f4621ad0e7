// Decides which neighbours the kernel should ask for a sign of life.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <queue>
#include <unordered_set>
#include <vector>

#include "linux/Mirror.h"
#include "platform/kiv/containers/Hash.h"
#include "platform/kiv/containers/HashMap.h"

namespace Linux {

struct ProbingOptions {
  /// Whether the addresses behind a MAC that a bridge forgot, or behind a port that lost its
  /// carrier, are probed at once.
  bool onDeparture = true;
  /// Whether entries that the kernel would drop for lack of use are refreshed in time.
  bool keepalive = false;
  /// Whether the kernel drops entries of a family (4 or 6) for lack of use at all: see
  /// collectsNeighbors(). Asked now and then; where it is empty, it always does.
  std::function<bool(int family)> collects;
  /// Seconds between two refreshments of one entry. The kernel drops an entry that was not in use
  /// for gc_stale_time, 60 seconds where nobody set it.
  double keepaliveInterval = 30;
  uint32_t rate = 100;                        ///< most probes in a second
  std::function<bool(LinkIndex)> isSelected;  ///< whether the interface's neighbours are ours
};

/// A neighbour to be set to NUD_PROBE.
struct Probe {
  LinkIndex link = 0;
  Address addr;

  uint32_t hash() const { return Kiv::hashWord((uint64_t{link} << 32) | hashOf(addr)); }

  friend bool operator==(const Probe&, const Probe&) = default;
};

/// Gathers neighbours to probe, and hands them out at a limited rate: those whose host may have
/// left first. Does no I/O.
class Probing {
 public:
  /// \param clock  seconds from any moment on; never goes back.
  Probing(const Mirror& mirror, std::function<double()> clock, ProbingOptions options);

  /// The bridge forgot an address behind `entry.port`.
  void onFdbEntryGone(const FdbEntry& entry);
  /// The interface, a bridge port perhaps, has no carrier any more.
  void onCarrierLost(LinkIndex link);
  /// The mirror has another entry for this address than before. Of use with keepalive only.
  void onNeighbor(LinkIndex link, const Address& addr);
  /// Takes other options. With keepalive, the entries that there are get refreshed from here on.
  void setOptions(ProbingOptions options);

  /// The probes that are due now.
  std::vector<Probe> due();
  /// How many neighbours wait to be probed, and how many to be refreshed.
  size_t urgentCount() const { return urgent_.size(); }
  size_t refreshmentCount() const { return refreshments_.size(); }
  /// When due() should be asked again: the clock's time, or none.
  std::optional<double> nextDeadline() const;

 private:
  /// A MAC that left a bridge, in a VLAN or in any.
  struct Departure {
    LinkIndex bridge = 0;
    uint16_t vlan = 0;
    Zemit::EthAddr mac;

    uint32_t hash() const;

    friend bool operator==(const Departure&, const Departure&) = default;
  };
  struct Refreshment {
    double at = 0;
    Probe probe;

    friend bool operator>(const Refreshment& a, const Refreshment& b) { return a.at > b.at; }
  };

  /// What is to be refreshed of one family.
  struct Refreshments {
    std::priority_queue<Refreshment, std::vector<Refreshment>, std::greater<>> queue;
    bool areNeeded = false;  ///< the kernel dropped entries when it was asked last
    double askAt = 0;        ///< whether it does

    bool isDue(double now) const { return !queue.empty() && queue.top().at <= now; }
  };

  void resolveDepartures();
  void takeRefreshments(int family, std::vector<Probe>& probes);
  void askAll(const Link& link);
  void askDeparted(const Link& link, LinkIndex bridge);
  void ask(const Probe& probe);
  bool isOurs(const Neighbor& neighbor) const;
  void considerRefreshing(const Neighbor& neighbor);
  double tokensNow() const;

  const Mirror& mirror_;
  std::function<double()> clock_;
  ProbingOptions options_;
  // What left, until due() looks for the neighbours that are concerned, once for all.
  std::unordered_set<LinkIndex> carriersLost_, bridges_;
  Kiv::HashMap<Departure, Kiv::Present> departures_;
  // Neighbours to be probed at once, in order, each once.
  std::deque<Probe> urgent_;
  Kiv::HashMap<Probe, Kiv::Present> isUrgent_;
  // Entries to be refreshed, and when each was last or is going to be.
  std::array<Refreshments, 2> refreshments_;  // IPv4, IPv6
  Kiv::HashMap<Probe, double> refreshedAt_;
  // Probes that may be sent at the time tokensAt_; the fraction counts.
  double tokens_ = 0;
  double tokensAt_ = 0;
};

}  // namespace Linux
