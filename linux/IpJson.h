// The JSON that `ip -j` prints, as the kernel's word on objects.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "linux/Values.h"

namespace Linux {

/// One document that `ip -j` printed: the name that messages call it by, and the JSON text.
struct IpDocument {
  std::string name;
  std::string text;
};

/// What `ip -j` printed about one network namespace, each with or without -N. A document that was
/// not taken is absent and reads as an empty list, but interfaces are needed: the rest is read for
/// those alone.
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

/// Hands out what the documents hold, each object after those it refers to.
///
/// An interface is known by its name: where no number is told, its place stands for one. A VRF's
/// table is known by its number; where a route names it, by the name of the VRF device, unless that
/// is the name of one of the kernel's own tables. Routes of tables that belong to no VRF are left
/// out, as is an entry, or part of one, that cannot be read.
///
/// \param warn  called with one line for what is left out: "NAME: warning: ...".
/// \throws IpJsonError.
void readIpDocuments(const IpDocuments& documents, const std::function<void(const Change&)>& take,
                     const std::function<void(const std::string&)>& warn);

}  // namespace Linux
