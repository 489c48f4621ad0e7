// A Linux machine's addresses, neighbours and routes, as `ip -j` prints them, turned into a replay.
#pragma once

#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>

namespace Cli {

/// One document that `ip -j` printed: the name that messages call it by, and the JSON text.
struct IpDocument {
  std::string name;
  std::string text;
};

/// What `ip -j` printed about one network namespace. A document that was not taken is absent and
/// reads as an empty list, but interfaces are needed: the rest is imported for those alone.
struct IpDocuments {
  std::optional<IpDocument> link;     ///< `ip -d -j link`; without -d no VRF is recognised.
  std::optional<IpDocument> addr;     ///< `ip -j addr`
  std::optional<IpDocument> neigh;    ///< `ip -j neigh`
  std::optional<IpDocument> route4;   ///< `ip -j route show table all`, with or without -4
  std::optional<IpDocument> route6;   ///< `ip -6 -j route show table all`
  std::optional<IpDocument> nexthop;  ///< `ip -j nexthop`, for routes that name a next hop by id
};

/// A document could not be had or is not a JSON array; what() is "NAME: error: MESSAGE".
class ImportError : public std::runtime_error {
 public:
  ImportError(const std::string& name, const std::string& message)
      : runtime_error(name + ": error: " + message) {}
};

/// Writes the replay that gives a switch what `documents` hold, one event on each line: VRFs,
/// interfaces, addresses, FECs, routes, neighbours, and last the initialization of every VRF.
///
/// What is imported and what is not is told by `hostroute import --help`. An entry that cannot be
/// imported is left out, with one line on `warnings` that says which and why. The same state gives
/// the same lines, in whatever order the kernel listed its routes and neighbours.
///
/// \throws ImportError before anything is written to `replay`.
void importReplay(const IpDocuments& documents, std::ostream& replay, std::ostream& warnings);

}  // namespace Cli
