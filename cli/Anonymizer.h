// Replaces the addresses and names in recordings.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "daemon/Family.h"

namespace Cli {

/// Maps addresses and names to other ones, depending on a key. Without the key the original cannot
/// be recovered. The same input always gives the same output.
///
/// Prefixes keep their lengths and nesting: two addresses keep the length of their common prefix.
/// The first and last address of an interface's subnet stay the first and last. Addresses with a
/// special meaning (loopback, link-local, multicast) keep it. So the recording has the same effect
/// on the machines.
class Anonymizer {
 public:
  using Key = std::pair<uint64_t, uint64_t>;

  explicit Anonymizer(Key key);
  /// Derives a key from a text.
  static Key keyOf(std::string_view text);

  /// Remembers the interface subnet in a line of a replay, if it has one. Call it for all lines
  /// before the first call of line().
  void note(std::string_view line);
  /// The line with other addresses and names. \throws Replay::EventError when it is not an event,
  /// because unknown fields cannot be made anonymous.
  std::string line(std::string_view line) const;

  // The mapping of the parts of a line.
  Zemit::IpAddr address(const Zemit::IpAddr& addr) const;
  Zemit::Ip6Addr address(const Zemit::Ip6Addr& addr) const;
  /// Maps the text of an address, a prefix, or an address with the length of its subnet.
  std::string addressText(const std::string& text) const;
  std::string interfaceName(std::string_view name) const;
  std::string vrfName(std::string_view name) const;
  std::string mac(std::string_view text) const;

 private:
  template <class F>
  using Subnets = std::set<typename F::Prefix>;

  template <class F>
  void noteSubnet(const typename F::AddrWithMask& addr);
  template <class F>
  typename F::Addr mapped(const typename F::Addr& addr) const;
  std::string mappedText(const std::string& text) const;
  uint64_t hash(std::string_view text) const;

  const Key key_;
  mutable std::unordered_map<std::string, std::string> addresses_;  // a cache of mapped texts
  std::tuple<Subnets<Daemon::Ipv4>, Subnets<Daemon::Ipv6>> subnets_;
};

}  // namespace Cli
