// Turns what the kernel has into what a switch is told.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "daemon/Operation.h"
#include "linux/Mirror.h"

namespace Linux {

/// What the feed takes from the kernel, and what it adds to it.
struct FeedOptions {
  /// Interfaces whose neighbours are fed: shell patterns ("swp*"), a leading "!" takes away what an
  /// earlier one selected; empty selects every interface that resolves neighbours.
  std::vector<std::string> interfaces;
  /// Protocol numbers whose host routes are not fed: other daemons', which advertise where a host
  /// was. A covering route of any protocol is fed.
  std::set<uint8_t> ignoredHostRouteProtocols;
  /// A prefix that is fed as a connected route over interfaces, in place of the kernel's route.
  struct Cover {
    std::string vrf = "default";
    Prefix prefix;
    std::vector<std::string> interfaces;  ///< patterns, as above

    friend bool operator==(const Cover&, const Cover&) = default;
  };
  std::vector<Cover> covers;
  struct VirtualAddress {
    std::string vrf = "default";
    Address addr;
    uint32_t len = 0;

    friend bool operator==(const VirtualAddress&, const VirtualAddress&) = default;
  };
  std::vector<VirtualAddress> virtualAddresses;
  /// Whether addresses on VRRP interfaces (macvlan with a MAC of 00:00:5e:00:01:xx or
  /// 00:00:5e:00:02:xx, RFC 9568) are virtual.
  bool recognisesVrrp = true;

  friend bool operator==(const FeedOptions&, const FeedOptions&) = default;
};

/// Whether an interface name is selected by a list of patterns as in FeedOptions::interfaces.
bool isSelected(const std::vector<std::string>& patterns, const std::string& name);

/// The table that a VRF's routes are in, by the VRF's name, is the mirror's business; which VRF an
/// interface is in, which neighbours count, which of several routes is used and how FECs are
/// numbered is this one's.
///
/// Notes what the mirror reports and hands out, at each flush(), the operations that bring a switch
/// from what it was told before to what the mirror holds now, in an order in which each can be
/// applied. Does no I/O.
class Feed final : private Mirror::Observer {
 public:
  using Output = std::function<void(const Daemon::Operation&)>;

  /// Observes `mirror`, which outlives it.
  Feed(Mirror& mirror, FeedOptions options);
  ~Feed() override;

  /// Hands out what changed since the last time. Everything at the first one.
  void flush(const Output& output);
  /// The kernel's state is complete: VRFs that appear from now on (and those there are) get
  /// initialized and ready, at the next flush().
  void setComplete();
  /// Takes other options; the next flush() hands out what differs by them.
  void setOptions(FeedOptions options);
  /// Hands out all that a switch was told, as if it was new: the beginning of a recording.
  void snapshot(const Output& output) const;

  /// Warnings: objects that cannot be fed and why, each once ("swp1: 10.0.0.0/24 ...").
  void setWarningSink(std::function<void(const std::string&)> sink);

  /// The VRF of an interface by its kernel number, or empty when it has no layer 3.
  std::string vrfOf(LinkIndex link) const;
};

}  // namespace Linux
