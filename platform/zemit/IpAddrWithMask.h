// Interface addresses: the address and the length of its subnet mask.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/kiv/containers/Exception.h"
#include "platform/zemit/Ip6Addr.h"
#include "platform/zemit/IpAddr.h"

namespace Zemit {

/// An interface's own address with its mask length, such as 10.0.0.5/24.
///
/// Keeps the host bits, which a prefix does not. The default value, 0.0.0.0/0 (::/0), means "no
/// address".
template <class A>
class BasicAddrWithMask {
 public:
  using Addr = A;
  static constexpr uint32_t kMaxLen = A::kBits;
  static constexpr size_t kMaxText = A::kMaxText + 4;

  constexpr BasicAddrWithMask() = default;
  /// \throws Kiv::RangeException when `len` is over kMaxLen.
  constexpr BasicAddrWithMask(const A& addr, uint32_t len) : addr_(addr), len_(len) {
    KIV_REQUIRE(len <= kMaxLen, "AddrWithMask::len > AddrWithMask::maxLen not allowed");
  }
  /// Reads "ADDR/LEN".
  static std::optional<BasicAddrWithMask> parse(std::string_view text) {
    const auto len = detail::takeLength(text, kMaxLen);
    const auto addr = A::parse(text);
    if (!len || !addr) return std::nullopt;
    return BasicAddrWithMask(*addr, *len);
  }

  constexpr const A& addr() const { return addr_; }
  constexpr uint32_t len() const { return len_; }

  /// The subnet's first address: the host bits all zero.
  constexpr A subnetAddr() const { return addr_.subnetFirst(len_); }
  /// The subnet's last address, for IPv4 its broadcast address: the host bits all one.
  constexpr A allOnesAddr() const { return addr_.subnetLast(len_); }

  uint32_t hash() const { return addr_.hashWith(len_); }

  /// Writes the address and the length: "10.0.0.5/24".
  char* write(char* out) const {
    return detail::writeDecimal(detail::writeText(addr_.write(out), "/"), len_);
  }

  friend constexpr auto operator<=>(const BasicAddrWithMask&, const BasicAddrWithMask&) = default;

 private:
  A addr_;
  uint32_t len_ = 0;
};

using IpAddrWithMask = BasicAddrWithMask<IpAddr>;
using Ip6AddrWithMask = BasicAddrWithMask<Ip6Addr>;

}  // namespace Zemit
