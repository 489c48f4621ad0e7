// An interface address of either family.
#pragma once

#include <compare>
#include <optional>
#include <variant>

#include "platform/zemit/IpAddrWithMask.h"

namespace Zemit {

/// An IPv4 or IPv6 address with its mask length. IPv4 ones sort before IPv6 ones.
class AnyAddrWithMask {
 public:
  static constexpr size_t kMaxText = Ip6AddrWithMask::kMaxText;

  constexpr AnyAddrWithMask() = default;
  constexpr AnyAddrWithMask(const IpAddrWithMask& value) : value_(value) {}   // NOLINT
  constexpr AnyAddrWithMask(const Ip6AddrWithMask& value) : value_(value) {}  // NOLINT

  /// The address without its mask if it is an IPv4 one.
  constexpr std::optional<IpAddr> v4Addr() const {
    const auto* v4 = std::get_if<IpAddrWithMask>(&value_);
    return v4 == nullptr ? std::nullopt : std::optional(v4->addr());
  }

  uint32_t hash() const {
    return std::visit([](const auto& value) { return value.hash(); }, value_);
  }

  /// Writes "10.0.0.5/24" or "2001:db8::5/64".
  char* write(char* out) const {
    return std::visit([out](const auto& value) { return value.write(out); }, value_);
  }

  friend constexpr auto operator<=>(const AnyAddrWithMask&, const AnyAddrWithMask&) = default;

 private:
  std::variant<IpAddrWithMask, Ip6AddrWithMask> value_;
};

}  // namespace Zemit
