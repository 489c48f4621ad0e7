// Why an address has, or has not, the host route that it has.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Daemon {

class Switch;

/// A next hop. A hop that is the destination itself is the zero address.
struct ExplainedVia {
  std::string hop = {};
  std::string intf = {};

  friend bool operator==(const ExplainedVia&, const ExplainedVia&) = default;
};

/// One thing that was looked at, and what it came to.
struct Finding {
  enum class Kind {
    Machine,     ///< of the VRF: ended, not initialized, or waiting with the address
    OwnAddress,  ///< an interface's own address
    FibRoute,    ///< the FIB's route of the address alone
    VirtualIp,   ///< a virtual address of a first-hop redundancy group, and of which VRF
    Neighbor,    ///< a neighbour, on one interface
    Cover,       ///< the longest FIB route that covers that neighbour, and where it leads
    Filed,       ///< under which FIB prefix the neighbour is filed
    HostRoute,   ///< the host route of a neighbour, which a merge may choose
    RouteTable,  ///< what the route table has
    OtherVrf,    ///< the route table of another VRF has a route of the address
  };

  Kind kind = {};
  std::string text = {};  ///< for people: a sentence without its full stop
  // The parts that the text names; empty or 0 where it names none.
  std::string vrf = {};
  std::string intf = {};
  std::string prefix = {};
  std::string type = {};  ///< of a route
  uint64_t fec = 0;
  std::vector<ExplainedVia> vias = {};
  uint64_t adjacency = 0;   ///< a host adjacency of the VRF
  uint32_t references = 0;  ///< how many host routes use that
};

/// The word by which programs know a kind, such as "ownAddress".
std::string_view nameOf(Finding::Kind kind);

/// A route that an address could have.
struct Candidate {
  std::string source = {};  ///< "ownAddress", "fibRoute" or "neighbor"
  std::string type = {};
  uint64_t fec = 0;  ///< of a FIB route; 0 where the vias are written as an adjacency
  std::vector<ExplainedVia> vias = {};
  std::string reason = {};  ///< why it won, or lost
};

/// What keeps an address from having a route.
struct Missing {
  enum class Kind {
    Machine,         ///< the VRF's machine has ended
    Initialization,  ///< the VRF's inputs are not complete yet
    NotVirtual,      ///< the address is virtual
    FibRouteFec,     ///< the FIB's route of the address has no FEC, or no type
    Neighbor,        ///< the address is a neighbour on no interface that counts
    Cover,           ///< no FIB route covers the address
    CoverRecord,     ///< the route of the covering prefix has left its table without a word
    CoverFec,        ///< the covering route has no FEC
    OtherInterface,  ///< the covering route leaves through other interfaces than the neighbour's
    DirectVia,  ///< the covering route leaves through the neighbour's interface by a gateway only
    Announcement,  ///< nothing but that the neighbour, or the FIB route, is announced again
  };

  Kind kind = {};
  std::string text = {};  ///< what is so
  std::string mend = {};  ///< what would give the address a route
  // The parts that the texts name; empty or 0 where they name none.
  std::string vrf = {};
  std::string intf = {};
  std::string prefix = {};
  uint64_t fec = 0;
  std::vector<ExplainedVia> vias = {};
};

/// The word by which programs know what is missing, such as "otherInterface".
std::string_view nameOf(Missing::Kind kind);

/// The answer to "why has this address (not) this route in this VRF?".
///
/// The findings are in the order in which the machine decides, and come from the functions with
/// which it does.
struct Explanation {
  std::string vrf = {};
  std::string address = {};
  int family = 4;  ///< 4 or 6
  std::vector<Finding> findings = {};
  /// The route that the address has in the route table; none when it has none.
  std::optional<Candidate> winner = {};
  std::vector<Candidate> losers = {};
  /// Set exactly when there is no winner.
  std::optional<Missing> missing = {};
  /// What a merge of the address would change in the route table now, as a sentence; empty when
  /// that is nothing.
  std::string pending = {};
};

/// Explains the host route of an address, given as text. The switch is left as it is.
/// \throws Kiv::RangeException when `address` is no address, or there is no such VRF.
Explanation explain(const Switch& sw, std::string_view vrf, std::string_view address);

/// The explanation for people, several lines.
std::string toText(const Explanation& explanation);

}  // namespace Daemon
