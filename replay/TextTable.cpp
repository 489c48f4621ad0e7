// Tables for people: columns that line up.
#include "replay/TextTable.h"

#include <algorithm>

namespace Replay {
namespace {

/// How many characters a UTF-8 text shows.
size_t width(const std::string& text) {
  const auto begins = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; };
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), begins));
}

}  // namespace

void TextTable::print(std::ostream& os, bool coloured) const {
  constexpr size_t kGap = 2;
  std::vector<size_t> widths(rows_.front().size());
  for (const auto& row : rows_) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
  }
  for (const auto& row : rows_) {
    const bool isHeading = coloured && &row == &rows_.front();
    if (isHeading) os << "\033[1m";
    for (size_t i = 0; i + 1 < row.size(); ++i) {
      os << row[i] << std::string(widths[i] - width(row[i]) + kGap, ' ');
    }
    os << row.back() << (isHeading ? "\033[0m\n" : "\n");
  }
}

}  // namespace Replay
