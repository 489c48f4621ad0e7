// The reason why an address has a host route, or has none.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Daemon {

class Switch;

/// A next hop. The zero address means that the destination itself is the next hop.
struct ExplainedVia {
  std::string hop = {};
  std::string intf = {};

  friend bool operator==(const ExplainedVia&, const ExplainedVia&) = default;
};

/// One step of the machine's decision, with its result.
struct Finding {
  enum class Kind {
    Machine,     ///< the VRF's machine was torn down, is not initialized, or has deferred the merge
    OwnAddress,  ///< an interface's own address
    FibRoute,    ///< the FIB's route of the address alone
    VirtualIp,   ///< a virtual address of a first-hop redundancy group, with its VRF
    Neighbor,    ///< a neighbour on one interface
    Cover,       ///< the longest FIB route that covers this neighbour, with its vias
    Filed,       ///< the FIB prefix under which the neighbour is tracked
    HostRoute,   ///< the host route of a neighbour, a candidate of the merge
    RouteTable,  ///< the route in the route table
    OtherVrf,    ///< a route for the address in the route table of another VRF
  };

  Kind kind = {};
  std::string text = {};  ///< for people: a sentence without a full stop
  // The values in the text; empty or 0 when they do not apply.
  std::string vrf = {};
  std::string intf = {};
  std::string prefix = {};
  std::string type = {};  ///< of a route
  uint64_t fec = 0;
  std::vector<ExplainedVia> vias = {};
  uint64_t adjacency = 0;   ///< a host adjacency of the VRF
  uint32_t references = 0;  ///< the number of host routes that use the adjacency
};

/// The name of a kind in JSON, such as "ownAddress".
std::string_view nameOf(Finding::Kind kind);

/// A candidate for the host route of an address.
struct Candidate {
  std::string source = {};  ///< "ownAddress", "fibRoute" or "neighbor"
  std::string type = {};
  uint64_t fec = 0;  ///< of a FIB route; 0 when the vias are an adjacency
  std::vector<ExplainedVia> vias = {};
  std::string reason = {};  ///< why it won or lost
};

/// The condition that an address lacks for a host route.
struct Missing {
  enum class Kind {
    Machine,         ///< the VRF's machine was torn down
    Initialization,  ///< the VRF's inputs are not complete yet
    NotVirtual,      ///< the address is virtual
    FibRouteFec,     ///< the FIB's route for the address alone has no FEC or no type
    Neighbor,        ///< the address is no neighbour on an interface with host routes
    Cover,           ///< no FIB route covers the address
    CoverRecord,     ///< the covering route was removed from its table without a notification
    CoverFec,        ///< the covering route has no FEC
    OtherInterface,  ///< the covering route has no via on the neighbour's interface
    DirectVia,       ///< each via of the covering route on the neighbour's interface has a gateway
    Announcement,    ///< all conditions hold; the neighbour or the FIB route has to be announced
                     ///< again
  };

  Kind kind = {};
  std::string text = {};  ///< the present state
  std::string mend = {};  ///< the change that would give the address a route
  // The values in the texts; empty or 0 when they do not apply.
  std::string vrf = {};
  std::string intf = {};
  std::string prefix = {};
  uint64_t fec = 0;
  std::vector<ExplainedVia> vias = {};
};

/// The name of a missing condition in JSON, such as "otherInterface".
std::string_view nameOf(Missing::Kind kind);

/// The answer to the question why an address has, or does not have, a host route in a VRF.
///
/// The findings are in the order of the machine's decision. They come from the functions that the
/// machine itself calls.
struct Explanation {
  std::string vrf = {};
  std::string address = {};
  int family = 4;  ///< 4 or 6
  std::vector<Finding> findings = {};
  /// The route for the address in the route table, if there is one.
  std::optional<Candidate> winner = {};
  std::vector<Candidate> losers = {};
  /// Set exactly when there is no winner.
  std::optional<Missing> missing = {};
  /// The change that a merge of the address would make in the route table now, as a sentence. Empty
  /// when a merge would change nothing.
  std::string pending = {};
};

/// Explains the host route of an address. Changes nothing.
/// \throws Kiv::RangeException when `address` is not an address or the VRF does not exist.
Explanation explain(const Switch& sw, std::string_view vrf, std::string_view address);

/// The explanation for people, in several lines.
std::string toText(const Explanation& explanation);

}  // namespace Daemon
