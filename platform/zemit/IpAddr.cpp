#include "platform/zemit/IpAddr.h"

#include <arpa/inet.h>

#include <array>

namespace Zemit {

std::optional<IpAddr> IpAddr::parse(std::string_view text) {
  std::array<unsigned char, 4> bytes;
  if (!detail::parseAddr(AF_INET, text, bytes.data())) return std::nullopt;
  uint32_t value = 0;
  for (const unsigned char byte : bytes) value = (value << 8) | byte;
  return IpAddr(value);
}

char* IpAddr::write(char* out) const {
  for (uint32_t shift : {24U, 16U, 8U}) {
    out = detail::writeDecimal(out, (value_ >> shift) & 0xFF);
    *out++ = '.';
  }
  return detail::writeDecimal(out, value_ & 0xFF);
}

}  // namespace Zemit
