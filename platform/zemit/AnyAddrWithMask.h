// An interface address of either family.
#pragma once

#include <compare>
#include <optional>

#include "platform/zemit/IpAddrWithMask.h"

namespace Zemit {

/// An IPv4 or IPv6 address with its mask length. IPv4 ones sort before IPv6 ones.
class AnyAddrWithMask {
 public:
  static constexpr size_t kMaxText = Ip6AddrWithMask::kMaxText;

  constexpr AnyAddrWithMask() = default;
  constexpr AnyAddrWithMask(const IpAddrWithMask& v4) : v4_(v4) {}                // NOLINT
  constexpr AnyAddrWithMask(const Ip6AddrWithMask& v6) : isV6_(true), v6_(v6) {}  // NOLINT

  /// The IPv4 address without its mask; nothing for an IPv6 address.
  constexpr std::optional<IpAddr> v4Addr() const {
    return isV6_ ? std::nullopt : std::optional(v4_.addr());
  }

  uint32_t hash() const { return isV6_ ? v6_.hash() : v4_.hash(); }

  /// Writes "10.0.0.5/24" or "2001:db8::5/64".
  char* write(char* out) const { return isV6_ ? v6_.write(out) : v4_.write(out); }

  friend constexpr auto operator<=>(const AnyAddrWithMask&, const AnyAddrWithMask&) = default;

 private:
  // The address of the other family has its default value.
  bool isV6_ = false;
  IpAddrWithMask v4_;
  Ip6AddrWithMask v6_;
};

}  // namespace Zemit
