// Turns the kernel's state into the inputs of a switch.
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/Operation.h"
#include "linux/Mirror.h"

namespace Linux {

/// Which objects of the kernel are fed, and which inputs are added.
struct FeedOptions {
  /// The interfaces whose neighbours are fed: shell patterns ("swp*"). A pattern with a leading "!"
  /// removes interfaces that earlier patterns selected. A list that is empty or begins with a "!"
  /// starts with all interfaces. A loopback has no neighbours.
  std::vector<std::string> interfaces;
  /// The protocol numbers whose host routes are not fed: those of routing daemons, which advertise
  /// a former place of a host. Covering routes of all protocols are fed.
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
    uint32_t len = 0;  ///< of the subnet, IPv4 only; 0 is that of a host

    friend bool operator==(const VirtualAddress&, const VirtualAddress&) = default;
  };
  std::vector<VirtualAddress> virtualAddresses;
  /// Whether addresses on VRRP interfaces (macvlan with a MAC of 00:00:5e:00:01:xx or
  /// 00:00:5e:00:02:xx, RFC 9568) are virtual.
  bool recognisesVrrp = true;
  /// Whether an interface whose name begins with "Management" is a management port. A switch has no
  /// host routes for these. On Linux, names have no such meaning by default.
  bool hasManagementPorts = false;
  /// Whether a VRF becomes initialized and ready before its neighbours are fed, and not after them.
  /// The result is the same, and 100,000 neighbours take half the time.
  bool readyBeforeNeighbors = false;
  /// Whether the neighbours of an interface are fed in scattered order, in which the kernel adds
  /// their routes faster. Otherwise they are in ascending order.
  bool scattersNeighbors = false;

  friend bool operator==(const FeedOptions&, const FeedOptions&) = default;
};

/// Whether an interface name is selected by a list of patterns as in FeedOptions::interfaces.
bool isSelected(const std::vector<std::string>& patterns, const std::string& name);

/// The name in a switch of an interface that is not a management port. "Management0" becomes
/// "linux:Management0", which cannot be the name of a Linux interface.
std::string switchNameOf(std::string_view interface);
/// The opposite: the interface's name in Linux.
std::string_view linuxNameOf(std::string_view interface);
/// The name in a switch of the VRF of a VRF device. A device called "default" gets another name,
/// because its VRF is not that of the table main.
std::string switchVrfOf(std::string_view device);

/// Whether a neighbour entry of the kernel is fed, or the reason why not.
enum class NeighborVerdict : uint8_t {
  Fed,
  NotUsable,     ///< its state means that no host is there (INCOMPLETE, FAILED, NOARP)
  Proxy,         ///< this machine answers for the host
  ControlPlane,  ///< another program added it (extern_learn)
  Loopback,
  Multicast,
  LinkLocal,
  NoLayer3,     ///< its interface is a port of a bridge or a bond, or unknown
  NotSelected,  ///< the configuration does not select its interface
};
inline constexpr size_t kNeighborVerdicts = 9;
/// A text for users: "fed", "interface not selected".
const char* toString(NeighborVerdict verdict);

/// An object of the kernel that cannot be fed, or only in part.
struct FeedWarning {
  enum class About : uint8_t { Links, Addresses, Neighbors, Routes4, Routes6 };
  About about = About::Links;
  std::string text = {};  ///< the object and the problem: "10.0.0.0/8 left out: ..."
  // The object, if it has these.
  LinkIndex link = 0;
  std::optional<Prefix> prefix = {};  ///< of a route, or of a neighbour's address alone
  TableId table = 0;

  // NOLINTNEXTLINE(google-explicit-constructor): a sink may take the text only
  operator const std::string&() const { return text; }
};

/// Decides from the contents of a mirror which VRF an interface is in, which neighbours count,
/// which of several routes is used, and which FECs there are.
///
/// Collects the changes of the mirror. flush() hands out the operations that update a switch from
/// its former inputs to the present ones, in an order in which each can be applied. The FEC of an
/// id keeps its vias while a route uses it. Does no I/O.
class Feed final {
 public:
  using Output = std::function<void(const Daemon::Operation&)>;
  /// Receives a neighbour a few operations before it is handed out.
  using Expect = std::function<void(Zemit::IntfId, const Address&)>;

  /// Observes `mirror`, which outlives it.
  Feed(Mirror& mirror, FeedOptions options);
  Feed(const Feed&) = delete;
  Feed& operator=(const Feed&) = delete;
  ~Feed();

  /// Hands out the changes since the last time. The first flush hands out everything, sorted, so
  /// that the same state gives the same operations in each order of the kernel's messages.
  /// Neighbours with the same address on several interfaces follow one another.
  void flush(const Output& output, const Expect& expect = {});
  /// The kernel's state is complete: from the next flush() on, all VRFs become initialized and
  /// ready.
  void setComplete();
  /// Takes other options. The next flush() hands out the differences.
  void setOptions(FeedOptions options);
  /// Hands out all present inputs of the switch as new ones, for the beginning of a recording.
  void snapshot(const Output& output) const;

  /// Sets the receiver of warnings. Each warning is sent once.
  /// \param tellsPassing  whether to send also warnings about temporary states: a port without a
  ///   carrier, an address during duplicate address detection.
  void setWarningSink(std::function<void(const FeedWarning&)> sink, bool tellsPassing = false);

  /// The VRF of an interface by its kernel number; empty for an interface that is not fed, because
  /// it has no layer 3.
  std::string vrfOf(LinkIndex link) const;
  /// Whether the neighbour is fed with the present options. Changes of its interface count from the
  /// next flush() on.
  NeighborVerdict verdictOn(const Neighbor& neighbor) const;
  /// The kernel number of an interface of the switch; 0 if there is none.
  LinkIndex linkOf(Zemit::IntfId intf) const;

 private:
  class Work;
  std::unique_ptr<Work> work_;
};

}  // namespace Linux
