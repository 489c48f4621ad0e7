#include "platform/kiv/containers/Hash.h"

#include <cstring>
#include <random>

namespace Kiv {

HashSeed drawHashSeed() noexcept {
  std::random_device device;
  const auto word = [&device] {
    return (static_cast<uint64_t>(device()) << 32) | static_cast<uint64_t>(device());
  };
  return {.add = word(), .multiply = word() | 1};
}

void hashSeedIs(const HashSeed& seed) noexcept {
  hashSeed = {.add = seed.add, .multiply = seed.multiply | 1};
}

uint32_t hashBytes(const void* bytes, size_t size) noexcept {
  const auto* at = static_cast<const unsigned char*>(bytes);
  uint64_t h = hashSeed.add ^ size;
  for (; size >= sizeof(uint64_t); at += sizeof(uint64_t), size -= sizeof(uint64_t)) {
    uint64_t word;
    std::memcpy(&word, at, sizeof(word));
    h = detail::fold(h ^ word, hashSeed.multiply);
  }
  uint64_t rest = 0;
  if (size != 0) std::memcpy(&rest, at, size);
  return detail::finishHash(detail::fold(h ^ rest, hashSeed.multiply));
}

}  // namespace Kiv
