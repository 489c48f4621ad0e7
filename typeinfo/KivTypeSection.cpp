// The data section that lists the types of the plug-in. A loader reads it before it loads the
// plug-in.
#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "typeinfo/TypeNames.h"

namespace Reflection {
namespace {

constexpr size_t kSectionSize = [] {
  size_t size = 0;
  for (const std::string_view name : kTypeNames) size += name.size() + 1;
  return size;
}();

/// The names in sequence. Each ends with a zero byte.
constexpr std::array<char, kSectionSize> terminatedNames() {
  std::array<char, kSectionSize> bytes{};
  auto end = bytes.begin();
  for (const std::string_view name : kTypeNames) {
    end = std::copy(name.begin(), name.end(), end) + 1;
  }
  return bytes;
}

// Nothing refers to the section, so `used` makes the compiler keep it and `retain` the linker.
[[gnu::used, gnu::retain, gnu::section(".kiv.type")]] constinit const auto kSection =
    terminatedNames();

}  // namespace
}  // namespace Reflection
