// Texts of values, and functions on prefixes of both families.
#include "linux/Values.h"

namespace Linux {

std::string toString(const Address& addr) {
  return std::visit([](const auto& a) { return Zemit::toString(a); }, addr);
}

std::string toString(const Prefix& prefix) {
  return std::visit([](const auto& p) { return Zemit::toString(p); }, prefix);
}

Prefix hostPrefix(const Address& addr) {
  return std::visit(
      [](const auto& a) -> Prefix {
        return Zemit::BasicPrefix<std::remove_cvref_t<decltype(a)>>::host(a);
      },
      addr);
}

bool isHost(const Prefix& prefix) {
  return std::visit([](const auto& p) { return p.len() == p.kMaxLen; }, prefix);
}

}  // namespace Linux
