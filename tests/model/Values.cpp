// Text forms of the golden model's addresses.
#include "tests/model/Values.h"

#include <arpa/inet.h>

#include <array>
#include <stdexcept>

namespace Golden {

Bits parseAddr(const std::string& text) {
  std::array<uint8_t, 16> bytes{};
  const bool v4 = familyOf(text).number == 4;
  if (inet_pton(v4 ? AF_INET : AF_INET6, text.c_str(), bytes.data()) != 1) {
    throw std::invalid_argument("not an address: " + text);
  }
  Bits addr = 0;
  for (size_t i = 0; i < (v4 ? 4u : 16u); ++i) addr = addr << 8 | bytes[i];
  return addr;
}

AddrLen parseAddrLen(const std::string& text) {
  const auto slash = text.find('/');
  if (slash == std::string::npos) throw std::invalid_argument("no length: " + text);
  return {parseAddr(text.substr(0, slash)), std::stoi(text.substr(slash + 1))};
}

std::string show(const Family& family, Bits addr) {
  std::array<uint8_t, 16> bytes{};
  const size_t size = static_cast<size_t>(family.width) / 8;
  for (size_t i = size; i-- > 0; addr >>= 8) bytes[i] = static_cast<uint8_t>(addr & 0xff);
  std::array<char, INET6_ADDRSTRLEN> text{};
  inet_ntop(size == 4 ? AF_INET : AF_INET6, bytes.data(), text.data(), text.size());
  return text.data();
}

std::string show(const Family& family, const AddrLen& value) {
  return show(family, value.addr) + "/" + std::to_string(value.len);
}

}  // namespace Golden
