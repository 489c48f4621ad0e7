// Opens any bytes as a shared table. A reader refuses or reads it. The next writer refuses it, or
// repairs it and can then use it. A writer repairs changes from outside when it tends the table.
// (The bytes may have correct checksums, so any value may be read.)
//
// The input is either the file, or a list of changes to a good table, which are made before the
// table is opened or while it has a writer: four bytes for the place, and one for the new byte.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/kiv/containers/Hash.h"
#include "platform/tovan/TovanMap.h"

namespace {

using Value = std::array<uint64_t, 2>;
using Map = Tovan::TovanMap<uint64_t, Value>;

constexpr uint64_t kEntries = 120;
constexpr size_t kTop = 4096;
constexpr size_t kPages = kTop + (size_t{8} << 19);
constexpr size_t kDirectory = 256;
const std::string name = "fuzz" + std::to_string(::getpid());

Value valueOf(uint64_t key) {
  return {key * 3, ~key};
}
Tovan::TableConfig config(Tovan::Access access) {
  return {.access = access, .name = name, .layout = "fuzz/1"};
}
int openFile(int how) {
  return ::shm_open(("/hostroute-" + name).c_str(), how, 0600);
}

/// What is read of a file: its top, the used part of its directory, its pages.
std::vector<uint8_t> goodTable() {
  {
    Map table(config(Tovan::Access::Write));
    for (uint64_t key = 0; key < kEntries; ++key) table.set(key, valueOf(key));
    for (uint64_t key = 0; key < kEntries; key += 3) table.erase(key);
  }
  const int fd = openFile(O_RDONLY);
  const auto size = static_cast<size_t>(::lseek(fd, 0, SEEK_END));
  std::vector<uint8_t> bytes(kTop + kDirectory + size - kPages);
  const auto read = [&](size_t at, size_t count, size_t from) {
    if (::pread(fd, &bytes[at], count, static_cast<off_t>(from)) < 0) std::abort();
  };
  read(0, kTop + kDirectory, 0);
  read(kTop + kDirectory, size - kPages, kPages);
  ::close(fd);
  return bytes;
}

void writeFile(const std::vector<uint8_t>& bytes) {
  const int fd = openFile(O_RDWR | O_CREAT | O_TRUNC);
  const auto write = [&](size_t at, size_t count, size_t to) {
    if (count != 0 && ::pwrite(fd, &bytes[at], count, static_cast<off_t>(to)) < 0) std::abort();
  };
  const size_t head = std::min(bytes.size(), kTop + kDirectory);
  write(0, head, 0);
  write(head, bytes.size() - head, kPages);
  ::close(fd);
}

/// Makes the changes of an input in a good table under its writer.
void changeAndTend(const std::vector<uint8_t>& good, const std::vector<uint8_t>& changed) {
  writeFile(good);
  Map table(config(Tovan::Access::Write));
  const Map reader(config(Tovan::Access::Read));
  const int fd = openFile(O_RDWR);
  for (size_t at = 0; at < good.size(); ++at) {
    if (changed[at] == good[at]) continue;
    const size_t to = at < kTop + kDirectory ? at : at - (kTop + kDirectory) + kPages;
    if (::pwrite(fd, &changed[at], 1, static_cast<off_t>(to)) != 1) std::abort();
  }
  ::close(fd);
  Tovan::TendRound round;
  table.tend(round);
  for (const Map* map : {static_cast<const Map*>(&table), &reader}) {
    size_t met = 0;
    for (uint64_t key = 0; key < kEntries; ++key) met += map->get(key).has_value();
    if (met > map->size() || map->keys().size() != map->size()) std::abort();
  }
  if (table.validate() != 0) std::abort();
}

void readAll(const Map& table) {
  for (uint64_t key = 0; key < kEntries + 4; ++key) {
    try {
      table.get(key);
    } catch (const Tovan::CorruptionDetectedException&) {
    }
  }
  try {
    table.forEachSound([](const Map::Item&) {}, [](const std::string&) {});
  } catch (const Tovan::CorruptionDetectedException&) {
  }
  try {
    table.keys();
  } catch (const Tovan::CorruptionDetectedException&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  Kiv::hashSeedIs({.add = 0x9E3779B97F4A7C15, .multiply = 0xD6E8FEB86659FD93});
  std::atexit([] { Tovan::removeTablesOf(name); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<uint8_t> good = goodTable();
  if (size == 0) return 0;
  const bool changesGood = data[0] % 2 == 0;
  std::vector<uint8_t> bytes(data + 1, data + size);
  if (changesGood) {
    constexpr size_t kChange = 5;
    bytes = good;
    for (size_t at = 1; at + kChange <= size; at += kChange) {
      uint32_t place = 0;
      std::memcpy(&place, data + at, sizeof(place));
      bytes[place % bytes.size()] = data[at + sizeof(place)];
    }
  }
  if (data[0] % 4 == 2) {
    changeAndTend(good, bytes);
    return 0;
  }
  writeFile(bytes);
  try {
    readAll(Map(config(Tovan::Access::Read)));
  } catch (const Tovan::OpenException&) {
  }
  try {
    Map table(config(Tovan::Access::Write));
    readAll(table);
    for (uint64_t key = 0; key < kEntries; ++key) table.set(key, valueOf(key));
    for (uint64_t key = 0; key < kEntries; ++key) {
      if (table.get(key) != valueOf(key)) std::abort();
    }
    table.clear();
    if (table.size() != 0 || table.validate() != 0) std::abort();
  } catch (const Tovan::OpenException&) {
  } catch (const Tovan::NoSpaceException&) {
    // A depth that only a larger table than is possible can have.
  }
  return 0;
}
