// What the route tables of a switch in shared memory are called.
#include "platform/tovan/SharedNames.h"

#include <algorithm>
#include <charconv>

#include "platform/tovan/TableMemory.h"

namespace Tovan {
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

std::string sharedRouteStatusName(std::string_view name, std::string_view vrf) {
  return std::string(name).append(".").append(encoded(vrf));
}

std::vector<SharedRouteTable> sharedRouteTables(std::string_view name) {
  std::vector<SharedRouteTable> tables;
  for (const std::string& table : tablesOf(name)) {
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

}  // namespace Tovan
