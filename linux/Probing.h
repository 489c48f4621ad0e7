// Decides which neighbours the kernel should probe.
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
  /// Whether addresses are probed at once if their MAC left a bridge's forwarding database or their
  /// port lost its carrier.
  bool onDeparture = true;
  /// Whether unused entries are refreshed before the kernel drops them.
  bool keepalive = false;
  /// Whether the kernel may soon drop unused entries of a family (4 or 6): see
  /// mayCollectNeighbors(). Called every few seconds. Without this function, they are always
  /// refreshed.
  std::function<bool(int family)> collects;
  /// Seconds between two refreshments of an entry. The kernel drops an entry that was unused for
  /// gc_stale_time, by default 60 seconds.
  double keepaliveInterval = 30;
  uint32_t rate = 100;                        ///< the most probes in a second
  std::function<bool(LinkIndex)> isSelected;  ///< whether the interface is selected
};

/// A neighbour to be set to NUD_PROBE.
struct Probe {
  LinkIndex link = 0;
  Address addr;

  uint32_t hash() const { return Kiv::hashWord((uint64_t{link} << 32) | hashOf(addr)); }

  friend bool operator==(const Probe&, const Probe&) = default;
};

/// Collects neighbours to probe and hands them out at a limited rate, first those whose host may
/// have left. Does no I/O.
class Probing {
 public:
  /// \param clock  seconds since any moment; never goes back.
  Probing(const Mirror& mirror, std::function<double()> clock, ProbingOptions options);

  /// The bridge removed an entry of its forwarding database.
  void onFdbEntryGone(const FdbEntry& entry);
  /// The interface, which may be a bridge port, lost its carrier.
  void onCarrierLost(LinkIndex link);
  /// The entry of this address in the mirror changed. Used with keepalive only.
  void onNeighbor(LinkIndex link, const Address& addr);
  /// Takes other options. With keepalive, existing entries are refreshed from now on.
  void setOptions(ProbingOptions options);

  /// The probes that are due now.
  std::vector<Probe> due();
  /// The numbers of neighbours that wait for a probe and for a refreshment.
  size_t urgentCount() const { return urgent_.size(); }
  size_t refreshmentCount() const {
    return refreshments_[0].queue.size() + refreshments_[1].queue.size();
  }
  /// The clock's time at which due() should be called again, or none.
  std::optional<double> nextDeadline() const;

 private:
  /// A MAC that left a bridge, in one VLAN or in all.
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

  /// The neighbours of one family that are to be refreshed.
  struct Refreshments {
    std::priority_queue<Refreshment, std::vector<Refreshment>, std::greater<>> queue;
    bool areNeeded = false;  ///< the last answer of ProbingOptions::collects
    double askAt = 0;        ///< the time of the next question

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
  // Departures whose neighbours due() has still to find, in one pass.
  std::unordered_set<LinkIndex> carriersLost_, bridges_;
  Kiv::HashMap<Departure, Kiv::Present> departures_;
  // Neighbours to be probed at once, in order and without repetition.
  std::deque<Probe> urgent_;
  Kiv::HashMap<Probe, Kiv::Present> isUrgent_;
  // Entries to be refreshed, and the time of the last or next refreshment of each.
  std::array<Refreshments, 2> refreshments_;  // IPv4, IPv6
  Kiv::HashMap<Probe, double> refreshedAt_;
  // The number of probes that were permitted at the time tokensAt_, with its fraction.
  double tokens_ = 0;
  double tokensAt_ = 0;
};

}  // namespace Linux
