#include "platform/zemit/Text.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>

namespace Zemit::detail {

char* writeText(char* out, std::string_view text) {
  return std::copy(text.begin(), text.end(), out);
}

char* writeDecimal(char* out, uint32_t value) {
  return std::to_chars(out, out + std::numeric_limits<uint32_t>::digits10 + 1, value).ptr;
}

char* writeHex(char* out, uint64_t value) {
  return std::to_chars(out, out + 16, value, 16).ptr;
}

std::optional<uint32_t> takeLength(std::string_view& text, uint32_t max) {
  const size_t slash = text.rfind('/');
  if (slash == std::string_view::npos) return std::nullopt;
  const std::string_view digits = text.substr(slash + 1);
  if (digits.size() > 1 && digits.front() == '0') return std::nullopt;
  uint32_t length = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), length);
  if (error != std::errc() || end != digits.data() + digits.size() || length > max) {
    return std::nullopt;
  }
  text = text.substr(0, slash);
  return length;
}

bool parseAddr(int family, std::string_view text, unsigned char* bytes) {
  std::array<char, INET6_ADDRSTRLEN> terminated{};
  if (text.size() >= terminated.size() || text.find('\0') != std::string_view::npos) return false;
  writeText(terminated.data(), text);
  return inet_pton(family, terminated.data(), bytes) == 1;
}

}  // namespace Zemit::detail
