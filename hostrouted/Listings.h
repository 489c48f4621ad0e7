// The long answers: what the daemon has, line by line.
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include <nlohmann/json.hpp>

#include "hostrouted/Router.h"

namespace Hostrouted {

/// A line of JSON with its newline. Bytes that are not UTF-8 become U+FFFD.
std::string toLine(const nlohmann::ordered_json& json);

/// What a listing is about. What is not set is about everything.
struct ListingFilter {
  std::optional<std::string> vrf;
  std::optional<int> family;
  std::optional<Linux::Prefix> covering;  ///< routes that match it, the longest first
  std::optional<std::string> type;        ///< of routes, such as "attached_"
  std::optional<std::string> intf;

  bool hasVrf(const std::string& name) const { return !vrf || *vrf == name; }
  bool hasFamily(int number) const { return !family || *family == number; }
};

/// The names that a command line may ask for.
enum class NameKind { Vrfs, Interfaces, Prefixes };

// Each writes JSON objects, one on each line.

/// {"route":{...}}, by VRF, family and prefix. What is to be in the kernel has "kernel":
/// "installed", or why it is not.
void listRoutes(const Router& router, const ListingFilter& filter, std::ostream& out);
/// {"neighbor":{...}}: the kernel's entries, each with its state and what becomes of it.
void listNeighbors(const Router& router, const ListingFilter& filter, std::ostream& out);
/// {"name":"..."}, at most kMostNames of those that begin with a text.
void listNames(const Router& router, NameKind kind, const std::string& begin, std::ostream& out);
inline constexpr size_t kMostNames = 1000;
/// The lines of a dump: JSON, or {"text":"..."} for people.
void listDump(const Router& router, const ListingFilter& filter, bool isText, std::ostream& out);

/// How the kernel has a host route: "installed", "damped", its error, or "pending"; empty where the
/// route is not meant for it.
std::string kernelState(const Router& router, const std::string& vrf, const Linux::Prefix& prefix);

}  // namespace Hostrouted
