// Seeded hashing of keys.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "platform/kiv/containers/Export.h"

namespace Kiv {

/// Secret numbers, drawn once per process, that every hash depends on.
///
/// Neighbours and routes come from the wire. If the hash were known, an attacker could choose
/// addresses that all collide, and every search of a table would be linear.
struct HashSeed {
  uint64_t add;
  uint64_t multiply;  ///< odd
};

/// Draws a seed from the operating system's random source.
HashSeed drawHashSeed() noexcept;

KIV_EXPORT inline HashSeed hashSeed = drawHashSeed();

/// Fixes the seed, for runs that must repeat themselves exactly.
///
/// To be called before any table or string is filled. An entry that was stored under another seed
/// is not found again. Two equal strings, one made before and one after, count as different.
void hashSeedIs(const HashSeed& seed) noexcept;

namespace detail {
__extension__ using Uint128 = unsigned __int128;

/// The two halves of the product of two words, combined by XOR: every input bit reaches every
/// output bit.
constexpr uint64_t fold(uint64_t a, uint64_t b) {
  const auto product = static_cast<Uint128>(a) * b;
  return static_cast<uint64_t>(product ^ (product >> 64));
}

/// The hash for a map, from the last folded word.
///
/// One product alone turns keys in arithmetic progression, such as the addresses of a subnet, into
/// hashes in arithmetic progression. With one seed in twenty, few groups of a map would get all of
/// these.
inline uint32_t finishHash(uint64_t folded) {
  return static_cast<uint32_t>((folded * hashSeed.multiply) >> 32);
}
}  // namespace detail

/// The 32-bit hash of one word.
inline uint32_t hashWord(uint64_t word) {
  return detail::finishHash(detail::fold(word ^ hashSeed.add, hashSeed.multiply));
}

/// The 32-bit hash of two words, such as an IPv6 address.
inline uint32_t hashWords(uint64_t high, uint64_t low) {
  const uint64_t first = detail::fold(high ^ hashSeed.add, hashSeed.multiply);
  return detail::finishHash(detail::fold(low ^ first, hashSeed.multiply));
}

/// The 32-bit hash of a byte string.
uint32_t hashBytes(const void* bytes, size_t size) noexcept;

/// Hash function of a key type: an integer, an enumeration, or a class with a member `hash()`.
template <class T>
struct Hash {
  uint32_t operator()(const T& value) const {
    if constexpr (std::is_enum_v<T> || std::integral<T>) {
      return hashWord(static_cast<uint64_t>(value));
    } else {
      return value.hash();
    }
  }
};

}  // namespace Kiv
