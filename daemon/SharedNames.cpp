// The names of a switch's tables in shared memory.
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
  // A table has at most one writer. Opens each table for writing before removing the first, one
  // after the other, because there may be more tables than a process may have open files. The first
  // table stays open, so that another process that starts under the same name is refused.
  const auto open = [](const std::string& table) {
    constexpr size_t kBytes = 4096;  // the content does not matter
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
