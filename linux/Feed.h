// Turns what the kernel has into what a switch is told.
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

/// What the feed takes from the kernel, and what it adds to it.
struct FeedOptions {
  /// Interfaces whose neighbours are fed: shell patterns ("swp*"), a leading "!" takes away what an
  /// earlier one selected. A list that is empty or begins with a "!" starts with every interface.
  /// A loopback has no neighbours.
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
    uint32_t len = 0;  ///< of the subnet, IPv4 only; 0 is that of a host

    friend bool operator==(const VirtualAddress&, const VirtualAddress&) = default;
  };
  std::vector<VirtualAddress> virtualAddresses;
  /// Whether addresses on VRRP interfaces (macvlan with a MAC of 00:00:5e:00:01:xx or
  /// 00:00:5e:00:02:xx, RFC 9568) are virtual.
  bool recognisesVrrp = true;
  /// Whether an interface whose name begins with "Management" is a management port, which a switch
  /// gives no host routes. Linux names say nothing of the kind by themselves.
  bool hasManagementPorts = false;
  /// Whether a VRF is told to be initialized and ready before its neighbours are told, and not
  /// after them. The switch ends alike, and takes 100,000 neighbours in half the time.
  bool readyBeforeNeighbors = false;

  friend bool operator==(const FeedOptions&, const FeedOptions&) = default;
};

/// Whether an interface name is selected by a list of patterns as in FeedOptions::interfaces.
bool isSelected(const std::vector<std::string>& patterns, const std::string& name);

/// What a switch calls an interface of this name that is no management port: by a name that does
/// not say so. "Management0" becomes "linux:Management0", which no Linux interface can be called.
std::string switchNameOf(std::string_view interface);
/// What a switch calls the VRF of a VRF device. That is another name for a device called "default":
/// it is not the VRF of the table main.
std::string switchVrfOf(std::string_view device);

/// Whether a neighbour entry of the kernel's is fed, or why not.
enum class NeighborVerdict : uint8_t {
  Fed,
  NotUsable,     ///< its state says that no host is there (INCOMPLETE, FAILED, NOARP)
  Proxy,         ///< this machine answers for the host
  ControlPlane,  ///< another program put it there (extern_learn)
  Loopback,
  Multicast,
  LinkLocal,
  NoLayer3,     ///< its interface is a port of a bridge or a bond, or not known
  NotSelected,  ///< its interface is not among those of the configuration
};
inline constexpr size_t kNeighborVerdicts = 9;
/// In the words of people: "fed", "interface not selected".
const char* toString(NeighborVerdict verdict);

/// Something of the kernel's that cannot be fed as it is.
struct FeedWarning {
  enum class About : uint8_t { Links, Addresses, Neighbors, Routes4, Routes6 };
  About about = About::Links;
  std::string text;  ///< the object, and what becomes of it: "10.0.0.0/8 left out: ..."

  // NOLINTNEXTLINE(google-explicit-constructor): who wants the text only takes a string
  operator const std::string&() const { return text; }
};

/// Which VRF an interface is in, which neighbours count, which of several routes is used and how
/// FECs are numbered: decided for a switch, by what a mirror holds.
///
/// Notes what the mirror reports and hands out, at each flush(), the operations that bring a switch
/// from what it was told before to what the mirror holds now, in an order in which each can be
/// applied. The FEC of an id keeps its vias while a route uses it. Does no I/O.
class Feed final {
 public:
  using Output = std::function<void(const Daemon::Operation&)>;
  /// Told of a neighbour some operations before it is handed out.
  using Expect = std::function<void(Zemit::IntfId, const Address&)>;

  /// Observes `mirror`, which outlives it.
  Feed(Mirror& mirror, FeedOptions options);
  Feed(const Feed&) = delete;
  Feed& operator=(const Feed&) = delete;
  ~Feed();

  /// Hands out what changed since the last time. Everything at the first one, sorted: the same
  /// state gives the same operations, in whatever order the kernel told it.
  void flush(const Output& output, const Expect& expect = {});
  /// The kernel's state is complete: VRFs that appear from now on (and those there are) get
  /// initialized and ready, at the next flush().
  void setComplete();
  /// Takes other options; the next flush() hands out what differs by them.
  void setOptions(FeedOptions options);
  /// Hands out all that a switch was told, as if it was new: the beginning of a recording.
  void snapshot(const Output& output) const;

  /// Told of objects that cannot be fed and why, each once.
  /// \param tellsPassing  whether also of what passes by itself: a port without a carrier, an
  ///   address that is not yet known to be unique.
  void setWarningSink(std::function<void(const FeedWarning&)> sink, bool tellsPassing = false);

  /// The VRF of an interface by its kernel number, or empty when a switch was not told of it: it
  /// has no layer 3.
  std::string vrfOf(LinkIndex link) const;
  /// Whether the neighbour is fed by the present options. Of an interface that changed since the
  /// last flush(), it tells what was decided there.
  NeighborVerdict verdictOn(const Neighbor& neighbor) const;
  /// The interface by what a switch was told; 0 when there is none.
  LinkIndex linkOf(Zemit::IntfId intf) const;

 private:
  class Work;
  std::unique_ptr<Work> work_;
};

}  // namespace Linux
