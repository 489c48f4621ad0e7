// Any text as a value of each type that reflection reads: what is accepted must come back from its
// own text, and what is refused must be refused by the runtime's exception.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/kiv/Exception.h"
#include "typeinfo/ValueTypes.h"

namespace {

void check(const Kiv::TypeInfo& type, std::string_view text) {
  Kiv::GenericValue value;
  try {
    value = type.strepToValue(text);
  } catch (const Kiv::Exception&) {
    return;
  }
  // Outside the try block: its own text must not be refused.
  const std::string printed = value.text();
  if (type.strepToValue(printed).text() != printed) std::abort();
}

// Not the interface types: each name that they read stays known for the life of the process.
template <class... T>
void checkAll(std::string_view text) {
  (check(Kiv::typeOf<T>(), text), ...);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  checkAll<bool, Tovan::Fib::FecId, Kiv::String, Zemit::IpAddr, Zemit::Ip6Addr, Zemit::Prefix,
           Zemit::Ip6Prefix, Zemit::IpAddrWithMask, Zemit::Ip6AddrWithMask, L3::VrfName,
           Tovan::Fib::Route, Tovan::Fib6::Route, Arp::ArpEntryStatus,
           Routing::Fhrp::VrfIpWithMaskPair, Routing::Fhrp::VrfIpPair, Obu::AddrSet,
           Obu::Ip6AddrSet>({reinterpret_cast<const char*>(data), size});
  return 0;
}
