#include "platform/zemit/EthAddr.h"

#include <charconv>

namespace Zemit {

std::optional<EthAddr> EthAddr::parse(std::string_view text) {
  if (text.size() != kMaxText) return std::nullopt;
  Bytes bytes;
  for (size_t i = 0; i < bytes.size(); ++i) {
    const char* digits = text.data() + 3 * i;
    const auto [end, error] = std::from_chars(digits, digits + 2, bytes[i], 16);
    if (error != std::errc() || end != digits + 2) return std::nullopt;
    if (i + 1 < bytes.size() && *end != ':') return std::nullopt;
  }
  return EthAddr(bytes);
}

char* EthAddr::write(char* out) const {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (size_t i = 0; i < bytes_.size(); ++i) {
    if (i != 0) *out++ = ':';
    *out++ = kDigits[bytes_[i] >> 4];
    *out++ = kDigits[bytes_[i] & 0xF];
  }
  return out;
}

}  // namespace Zemit
