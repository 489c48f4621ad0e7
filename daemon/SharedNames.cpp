// What a switch's tables in shared memory are called.
#include "daemon/SharedNames.h"

#include <memory>
#include <string>
#include <vector>

#include "platform/tovan/Exceptions.h"
#include "platform/tovan/TableMemory.h"

namespace Daemon {

bool isSharedName(std::string_view name) {
  return !name.empty() && name.find_first_of(std::string_view("./\0", 3)) == std::string_view::npos;
}

void removeSharedLeftovers(std::string_view name) {
  constexpr size_t kBytes = 4096;  // nothing in them is looked at
  // A table that is open for writing has no other writer. All are opened before the first goes.
  std::vector<std::unique_ptr<Tovan::TableMemory>> leftovers;
  for (const std::string& table : Tovan::tablesOf(name)) {
    const Tovan::TableConfig config{.access = Tovan::Access::Write, .name = table};
    leftovers.push_back(std::make_unique<Tovan::TableMemory>(config, kBytes));
  }
  for (const auto& leftover : leftovers) leftover->remove();
}

}  // namespace Daemon
