// What a switch's tables in shared memory are called.
#include "daemon/SharedNames.h"

#include <memory>
#include <span>
#include <string>

#include "platform/tovan/Exceptions.h"
#include "platform/tovan/TableMemory.h"

namespace Daemon {

bool isSharedName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxSharedNameBytes &&
         name.find_first_of(std::string_view("./\0", 3)) == std::string_view::npos;
}

void removeSharedLeftovers(std::string_view name) {
  const auto tables = Tovan::tablesOf(name);
  if (tables.empty()) return;
  // A table that is open for writing has no other writer. All are tried before the first goes, one
  // by one, because there may be more of them than a process may have files open. The first is kept
  // open meanwhile: another process that starts under the name is refused there.
  const auto open = [](const std::string& table) {
    constexpr size_t kBytes = 4096;  // nothing in it is looked at
    const Tovan::TableConfig config{.access = Tovan::Access::Write, .name = table};
    return std::make_unique<Tovan::TableMemory>(config, kBytes);
  };
  const auto first = open(tables.front());
  const std::span others = std::span(tables).subspan(1);
  for (const std::string& table : others) open(table);
  for (const std::string& table : others) open(table)->remove();
  first->remove();
}

}  // namespace Daemon
