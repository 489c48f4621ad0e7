// Changes of host routes with their causes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hostcore/Account.h"
#include "platform/zemit/Prefix.h"

namespace Daemon {

/// The kind of an event that changed a host route.
using HostCore::CauseKind;

/// The name of a cause in JSON, such as "neighborLearned".
std::string_view nameOf(CauseKind kind);

/// One change of a host route in the route table.
struct HistoryEntry {
  enum class Change : uint8_t { Added, Changed, Removed };

  int64_t time = 0;  ///< CLOCK_REALTIME in nanoseconds
  std::string vrf = {};
  int family = 4;           ///< 4 or 6
  std::string prefix = {};  ///< of the host route
  Change change = Change::Added;
  // The route after the change; empty or 0 when it was removed.
  std::string type = {};
  uint64_t fec = 0;       ///< of a FIB route; 0 when the vias are an adjacency
  std::string vias = {};  ///< for people: "10.0.0.9 Ethernet1, Ethernet2"
  // The event that caused the change; empty or 0 when the event has no such member.
  CauseKind cause = CauseKind::Unknown;
  std::string causeIntf = {};
  std::string causePrefix = {};
  uint64_t causeFec = 0;

  friend bool operator==(const HistoryEntry&, const HistoryEntry&) = default;
};

/// Selects the host routes at or inside a prefix.
class PrefixFilter {
 public:
  /// \param text  a prefix, or an address.  \throws Kiv::RangeException when it is neither.
  explicit PrefixFilter(std::string_view text);

  bool contains(const Zemit::IpAddr& addr) const { return ipv4_ && ipv4_->contains(addr); }
  bool contains(const Zemit::Ip6Addr& addr) const { return ipv6_ && ipv6_->contains(addr); }
  bool contains(const HistoryEntry& entry) const;

 private:
  std::optional<Zemit::Prefix> ipv4_;
  std::optional<Zemit::Ip6Prefix> ipv6_;
};

/// "added", "changed" or "removed".
std::string_view nameOf(HistoryEntry::Change change);

/// The cause of an entry for people, such as "neighbour learned on Ethernet1".
std::string causeText(const HistoryEntry& entry);

/// The route after the change for people: "attached_ via Ethernet1", or "removed".
std::string changeText(const HistoryEntry& entry);

}  // namespace Daemon
