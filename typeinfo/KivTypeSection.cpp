// The data section that tells a loader which types the plug-in provides before it loads it.
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

/// The names one after the other, each with a zero byte at its end.
constexpr std::array<char, kSectionSize> terminatedNames() {
  std::array<char, kSectionSize> bytes{};
  auto end = bytes.begin();
  for (const std::string_view name : kTypeNames) {
    end = std::copy(name.begin(), name.end(), end) + 1;
  }
  return bytes;
}

// Nothing refers to it, so the compiler (used) and the linker (retain) are told to keep it.
[[gnu::used, gnu::retain, gnu::section(".kiv.type")]] constinit const auto kSection =
    terminatedNames();

}  // namespace
}  // namespace Reflection
