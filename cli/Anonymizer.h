// Recordings without the addresses and names of those who made them.
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

/// Maps addresses and names to others, each always to the same, by a key without which nobody can
/// tell the former.
///
/// Prefixes keep their lengths and nesting: two addresses have as many leading bits in common as
/// before. The first and the last address of an interface's subnet, and the addresses that mean
/// something by themselves (loopback, link-local, multicast), stay what they are to a router. So a
/// recording means the same as before.
class Anonymizer {
 public:
  using Key = std::pair<uint64_t, uint64_t>;

  explicit Anonymizer(Key key);
  /// The key that a text stands for.
  static Key keyOf(std::string_view text);

  /// Notes the subnet of an interface that a line of the replay tells of, if it tells of one. All
  /// lines are noted before the first is mapped.
  void note(std::string_view line);
  /// The line with other addresses and names. \throws Replay::EventError when it is no event: what
  /// is not known cannot be made anonymous.
  std::string line(std::string_view line) const;

  // What a line is made of.
  Zemit::IpAddr address(const Zemit::IpAddr& addr) const;
  Zemit::Ip6Addr address(const Zemit::Ip6Addr& addr) const;
  /// An address or a prefix, as a text; "A/LEN" with host bits keeps them.
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
  mutable std::unordered_map<std::string, std::string> addresses_;  // those mapped before
  std::tuple<Subnets<Daemon::Ipv4>, Subnets<Daemon::Ipv6>> subnets_;
};

}  // namespace Cli
