// Reads the JSON output of `ip -j`.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "linux/Values.h"

namespace Linux {

/// One output of `ip -j`: its name for messages, and the JSON text.
struct IpDocument {
  std::string name;
  std::string text;
};

/// The outputs of `ip -j` for one network namespace, each with or without -N. A missing document
/// counts as an empty list. Objects of interfaces that are not in `link` or `addr` are left out.
struct IpDocuments {
  std::optional<IpDocument> link;     ///< `ip -d -j link`; without -d no VRF is recognised.
  std::optional<IpDocument> addr;     ///< `ip -j addr`
  std::optional<IpDocument> neigh;    ///< `ip -j neigh`
  std::optional<IpDocument> route4;   ///< `ip -j route show table all`, with or without -4
  std::optional<IpDocument> route6;   ///< `ip -6 -j route show table all`
  std::optional<IpDocument> nexthop;  ///< `ip -j nexthop`, for routes that name a next hop by id
};

/// A document is not a JSON array; what() is "NAME: error: MESSAGE".
class IpJsonError : public std::runtime_error {
 public:
  IpJsonError(const std::string& name, const std::string& message)
      : runtime_error(name + ": error: " + message) {}
};

/// Hands out the objects of the documents, each after those that it refers to.
///
/// Interfaces are identified by name. One without a number gets its position as its number. The
/// table of a VRF is identified by its number or by the name of the VRF device, unless this is the
/// name of one of the kernel's own tables. Routes of tables without a VRF and unreadable entries
/// are left out.
///
/// \param warn  receives one line for each omission: "NAME: warning: ...".
/// \throws IpJsonError.
void readIpDocuments(const IpDocuments& documents, const std::function<void(const Change&)>& take,
                     const std::function<void(const std::string&)>& warn);

}  // namespace Linux
