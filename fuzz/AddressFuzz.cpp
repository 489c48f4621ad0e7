// Reads any text as an address or a prefix. An accepted value must be read back from its own text.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/zemit/IpAddrWithMask.h"
#include "platform/zemit/Prefix.h"

namespace {

template <class... Value>
void checkAll(std::string_view text) {
  const auto check = [](const auto& value) {
    if (value && value->parse(Zemit::toString(*value)) != value) std::abort();
  };
  (check(Value::parse(text)), ...);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace Zemit;
  checkAll<IpAddr, Ip6Addr, Prefix, Ip6Prefix, IpAddrWithMask, Ip6AddrWithMask>(
      {reinterpret_cast<const char*>(data), size});
  return 0;
}
