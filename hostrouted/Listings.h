// Long answers of the control socket: the daemon's objects, line by line.
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "hostrouted/Router.h"

namespace Hostrouted {

/// A line of JSON with its newline. Bytes that are not UTF-8 become U+FFFD.
std::string toLine(const nlohmann::ordered_json& json);

/// Selects the objects of a listing. A member that is not set selects all.
struct ListingFilter {
  std::optional<std::string> vrf;
  std::optional<int> family;
  std::optional<Linux::Prefix> covering;  ///< routes that match it, the longest first
  std::optional<std::string> type;        ///< of routes, such as "attached_"
  std::optional<std::string> intf;

  bool hasVrf(const std::string& name) const { return !vrf || *vrf == name; }
  bool hasFamily(int number) const { return !family || *family == number; }
};

/// Kinds of names, for the completion of command lines.
enum class NameKind { Vrfs, Interfaces, Prefixes };

// Each writes JSON objects, one on each line.

/// {"route":{...}}, by VRF, family and prefix. Exported routes have "kernel": "installed", or the
/// reason why they are not.
void listRoutes(const Router& router, const ListingFilter& filter, std::ostream& out);
/// {"neighbor":{...}}: the kernel's entries, each with its state and its verdict.
void listNeighbors(const Router& router, const ListingFilter& filter, std::ostream& out);
/// {"name":"..."}, at most kMostNames of those with a prefix.
void listNames(const Router& router, NameKind kind, const std::string& begin, std::ostream& out);
inline constexpr size_t kMostNames = 1000;
/// The lines of a dump: JSON, or {"text":"..."} for users.
void listDump(const Router& router, const ListingFilter& filter, bool isText, std::ostream& out);

/// The state of a host route in the kernel: "installed", "damped", its error, or "pending"; empty
/// for a route that is not exported.
std::string kernelState(const Router& router, const std::string& vrf, const Linux::Prefix& prefix);

}  // namespace Hostrouted
