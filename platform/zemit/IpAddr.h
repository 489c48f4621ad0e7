// IPv4 addresses.
#pragma once

#include <compare>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

#include "platform/kiv/containers/Hash.h"
#include "platform/zemit/Text.h"

namespace Zemit {

/// A word whose first `count` bits are one and the others zero; `count` is at most its width.
template <class Word>
constexpr Word leadingOnes(uint32_t count) {
  // A shift by the full width is undefined behaviour, so count 0 is a case of its own.
  return count == 0 ? 0 : ~Word{0} << (std::numeric_limits<Word>::digits - count);
}

/// An IPv4 address. The default value is 0.0.0.0.
class IpAddr {
 public:
  static constexpr uint32_t kBits = 32;
  static constexpr size_t kMaxText = 15;

  constexpr IpAddr() = default;
  /// \param value  in host byte order: 0x0A000005 is 10.0.0.5.
  constexpr explicit IpAddr(uint32_t value) : value_(value) {}
  /// Reads four decimal octets, such as "10.0.0.5", without leading zeros or blanks.
  static std::optional<IpAddr> parse(std::string_view text);

  /// The address in host byte order.
  constexpr uint32_t value() const { return value_; }
  constexpr bool isZero() const { return value_ == 0; }

  /// The first address of the subnet of length `len` that the address is in.
  constexpr IpAddr subnetFirst(uint32_t len) const {
    return IpAddr(value_ & leadingOnes<uint32_t>(len));
  }
  /// The last address of that subnet.
  constexpr IpAddr subnetLast(uint32_t len) const {
    return IpAddr(value_ | ~leadingOnes<uint32_t>(len));
  }

  uint32_t hash() const { return Kiv::hashWord(value_); }
  /// The hash of the address together with a number, such as its mask length.
  uint32_t hashWith(uint32_t number) const {
    return Kiv::hashWord((uint64_t{number} << 32) | value_);
  }

  /// Writes "10.0.0.5".
  char* write(char* out) const;

  friend constexpr auto operator<=>(const IpAddr&, const IpAddr&) = default;

 private:
  uint32_t value_ = 0;
};

}  // namespace Zemit
