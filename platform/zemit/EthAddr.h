// Ethernet addresses.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/zemit/Text.h"

namespace Zemit {

/// A 48-bit Ethernet (MAC) address. The default value, all zero, means "not known".
class EthAddr {
 public:
  using Bytes = std::array<uint8_t, 6>;
  static constexpr size_t kMaxText = 17;

  constexpr EthAddr() = default;
  /// \param bytes  in network order.
  constexpr explicit EthAddr(const Bytes& bytes) : bytes_(bytes) {}
  /// Reads six pairs of hexadecimal digits: "00:11:22:aa:bb:cc".
  static std::optional<EthAddr> parse(std::string_view text);

  constexpr const Bytes& bytes() const { return bytes_; }
  constexpr bool isZero() const { return *this == EthAddr(); }

  /// Writes "00:11:22:aa:bb:cc".
  char* write(char* out) const;

  friend constexpr auto operator<=>(const EthAddr&, const EthAddr&) = default;

 private:
  Bytes bytes_{};
};

}  // namespace Zemit
