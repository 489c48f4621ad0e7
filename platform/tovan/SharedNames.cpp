// The names of a switch's route tables in shared memory.
#include "platform/tovan/SharedNames.h"

#include <algorithm>

#include "platform/kiv/containers/Percent.h"
#include "platform/tovan/TableMemory.h"

namespace Tovan {
namespace {

constexpr std::string_view kEncoded("%/\0", 3);
constexpr std::string_view kSuffixes[] = {".route4", ".route6"};

bool isPlain(char c) {
  return kEncoded.find(c) == std::string_view::npos;
}

}  // namespace

std::string sharedRouteStatusName(std::string_view name, std::string_view vrf) {
  return std::string(name).append(".").append(Kiv::percentEncoded(vrf, isPlain));
}

std::vector<SharedRouteTable> sharedRouteTables(std::string_view name) {
  std::vector<SharedRouteTable> tables;
  for (const std::string& table : tablesOf(name)) {
    for (const std::string_view suffix : kSuffixes) {
      if (!table.ends_with(suffix) || table.size() < name.size() + 1 + suffix.size()) continue;
      std::string_view vrf(table);
      vrf.remove_prefix(name.size() + 1);
      vrf.remove_suffix(suffix.size());
      tables.push_back({.vrf = Kiv::percentDecoded(vrf), .family = suffix.back() - '0'});
    }
  }
  std::sort(tables.begin(), tables.end());
  return tables;
}

std::vector<std::string> sharedRouteTableNames() {
  std::vector<std::string> names;
  for (const std::string& table : allTables()) {
    // A shared name has no dot.
    const std::string name = table.substr(0, table.find('.'));
    const auto isOne = [&](std::string_view suffix) {
      return table.ends_with(suffix) && table.size() > name.size() + suffix.size();
    };
    if (!name.empty() && std::any_of(std::begin(kSuffixes), std::end(kSuffixes), isOne) &&
        (names.empty() || names.back() != name)) {
      names.push_back(name);
    }
  }
  return names;
}

}  // namespace Tovan
