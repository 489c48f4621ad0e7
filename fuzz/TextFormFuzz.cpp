// Reads any text as a value of each type that reflection reads. An accepted value must be read back
// from its own text. A refusal must be the runtime's exception.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/kiv/containers/Exception.h"
#include "typeinfo/ValueTypes.h"

namespace {

/// \param read   makes a value of a text.
/// \param print  makes a text of it.
template <class Read, class Print>
void check(std::string_view text, Read read, Print print) {
  decltype(read(text)) value;
  try {
    value = read(text);
  } catch (const Kiv::Exception&) {
    return;
  }
  // Outside the try block: its own text must not be refused.
  const std::string printed = print(value);
  const auto again = read(printed);
  if (print(again) != printed) std::abort();
  if constexpr (requires { again == value; }) {
    if (!(again == value)) std::abort();
  }
}

// Not the interface types: each name that they read stays known for the life of the process.
template <class... T>
void checkAll(std::string_view text) {
  (check(text, Kiv::strepToValue<T>, Kiv::valueToStrep<T>), ...);
}

template <class... T>
void checkHandles(std::string_view text) {
  (check(
       text, [](std::string_view from) { return Kiv::typeOf<T>().strepToValue(from); },
       [](const Kiv::GenericValue& value) { return value.text(); }),
   ...);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  checkAll<bool, Tovan::Fib::FecId, Kiv::String, Zemit::IpAddr, Zemit::Ip6Addr, Zemit::Prefix,
           Zemit::Ip6Prefix, Zemit::IpAddrWithMask, Zemit::Ip6AddrWithMask, L3::VrfName,
           Tovan::Fib::Route, Tovan::Fib6::Route, Arp::ArpEntryStatus,
           Routing::Fhrp::VrfIpWithMaskPair, Routing::Fhrp::VrfIpPair>(text);
  checkHandles<Obu::AddrSet, Obu::Ip6AddrSet, Ip::Status>(text);
  return 0;
}
