// What a switch's tables in shared memory are called.
#include "daemon/SharedNames.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <span>

#include "platform/tovan/Exceptions.h"
#include "platform/tovan/TableMemory.h"

namespace Daemon {
namespace {

constexpr std::string_view kRefused("%/\0", 3);
constexpr std::string_view kSuffixes[] = {".route4", ".route6"};

std::string encoded(std::string_view text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string result;
  for (const char c : text) {
    if (kRefused.find(c) == std::string_view::npos) {
      result += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      result.append({'%', kDigits[byte >> 4], kDigits[byte & 0xF]});
    }
  }
  return result;
}

std::string decoded(std::string_view text) {
  std::string result;
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned char byte = 0;
    if (text[i] == '%' && i + 2 < text.size() &&
        std::from_chars(&text[i + 1], &text[i] + 3, byte, 16).ec == std::errc()) {
      result += static_cast<char>(byte);
      i += 2;
    } else {
      result += text[i];
    }
  }
  return result;
}

}  // namespace

bool isSharedName(std::string_view name) {
  return !name.empty() && name.find_first_of(std::string_view("./\0", 3)) == std::string_view::npos;
}

std::string sharedRouteStatusName(std::string_view name, std::string_view vrf) {
  return std::string(name).append(".").append(encoded(vrf));
}

std::vector<SharedRouteTable> sharedRouteTables(std::string_view name) {
  std::vector<SharedRouteTable> tables;
  for (const std::string& table : Tovan::tablesOf(name)) {
    for (const std::string_view suffix : kSuffixes) {
      if (!table.ends_with(suffix) || table.size() < name.size() + 1 + suffix.size()) continue;
      std::string_view vrf(table);
      vrf.remove_prefix(name.size() + 1);
      vrf.remove_suffix(suffix.size());
      tables.push_back({.vrf = decoded(vrf), .family = suffix.back() - '0'});
    }
  }
  std::sort(tables.begin(), tables.end());
  return tables;
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
