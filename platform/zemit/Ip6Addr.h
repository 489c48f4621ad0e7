// IPv6 addresses.
#pragma once

#include <algorithm>
#include <compare>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/kiv/containers/Hash.h"
#include "platform/zemit/IpAddr.h"
#include "platform/zemit/Text.h"

namespace Zemit {

/// An IPv6 address. The default value is "::".
class Ip6Addr {
 public:
  static constexpr uint32_t kBits = 128;
  static constexpr size_t kMaxText = 39;

  constexpr Ip6Addr() = default;
  /// \param high, low  the first and the last 64 bits, in host byte order.
  constexpr Ip6Addr(uint64_t high, uint64_t low) : high_(high), low_(low) {}
  /// Reads any text form of RFC 4291, section 2.2. Refuses a zone ("%eth0").
  static std::optional<Ip6Addr> parse(std::string_view text);

  /// The first 64 bits, in host byte order.
  constexpr uint64_t high() const { return high_; }
  /// The last 64 bits, in host byte order.
  constexpr uint64_t low() const { return low_; }
  constexpr bool isZero() const { return (high() | low()) == 0; }
  /// True for an address in fe80::/10 (RFC 4291, section 2.5.6).
  constexpr bool isLinkLocal() const { return high() >> 54 == 0xFE80 >> 6; }

  /// The first address of the subnet of length `len` that the address is in.
  constexpr Ip6Addr subnetFirst(uint32_t len) const {
    return {high() & highMask(len), low() & lowMask(len)};
  }
  /// The last address of that subnet.
  constexpr Ip6Addr subnetLast(uint32_t len) const {
    return {high() | ~highMask(len), low() | ~lowMask(len)};
  }

  uint32_t hash() const { return Kiv::hashWords(high(), low()); }
  /// The hash of the address together with a number, such as its mask length.
  uint32_t hashWith(uint32_t number) const {
    return Kiv::hashWords(high(), low() ^ Kiv::hashWord(number));
  }

  /// Writes the canonical form of RFC 5952: "2001:db8::1", and "::ffff:10.0.0.5" for a mapped IPv4
  /// address.
  char* write(char* out) const;

  friend constexpr auto operator<=>(const Ip6Addr&, const Ip6Addr&) = default;

 private:
  /// Four-byte alignment, so that an address with a length takes 20 bytes instead of 24.
  using Word [[gnu::aligned(4)]] = uint64_t;

  static constexpr uint64_t highMask(uint32_t len) {
    return leadingOnes<uint64_t>(std::min(len, 64U));
  }
  static constexpr uint64_t lowMask(uint32_t len) {
    return leadingOnes<uint64_t>(std::max(len, 64U) - 64);
  }

  Word high_ = 0;
  Word low_ = 0;
};

}  // namespace Zemit
