// Damages a shared table without the library.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace Tovan {

/// Flips bits of one byte at each occurrence of `key` in a table's pages. Returns the number of
/// occurrences.
///
/// \param offset  the place of the byte, relative to the first byte of the key.
template <class Key>
size_t damage(const std::string& table, const Key& key, ptrdiff_t offset, int bits = 1) {
  constexpr size_t kBeforePages = 4096 + (size_t{8} << 19);  // header and directory
  const int file = ::shm_open(("/hostroute-" + table).c_str(), O_RDWR, 0);
  struct stat status {};
  if (file < 0 || ::fstat(file, &status) != 0) return 0;
  const auto size = static_cast<size_t>(status.st_size);
  auto* bytes =
      static_cast<std::byte*>(::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
  ::close(file);
  size_t found = 0;
  for (size_t at = kBeforePages; at + sizeof(Key) < size; at += sizeof(uint64_t)) {
    if (std::memcmp(bytes + at, &key, sizeof(Key)) != 0) continue;
    bytes[static_cast<ptrdiff_t>(at) + offset] ^= static_cast<std::byte>(bits);
    ++found;
  }
  ::munmap(bytes, size);
  return found;
}

/// The offsets of the value of a Key, and of the state of its slot.
template <class Key>
inline constexpr ptrdiff_t kValue = (sizeof(Key) + 7) / 8 * 8;
inline constexpr ptrdiff_t kState = -8;

}  // namespace Tovan
