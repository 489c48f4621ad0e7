// Text tables with aligned columns.
#include "replay/TextTable.h"

#include <algorithm>

#include "replay/Printable.h"

namespace Replay {
namespace {

/// True for the first byte of a UTF-8 character.
bool begins(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
}

/// The number of characters in a UTF-8 text.
size_t width(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), begins));
}

/// Cuts `line` to `columns` characters and marks the cut with ">".
void fit(std::string& line, size_t columns) {
  if (columns == 0 || width(line) <= columns) return;
  size_t end = 0;
  for (size_t shown = 0; end < line.size(); ++end) {
    if (begins(line[end]) && ++shown == columns) break;
  }
  line.resize(end);
  line += '>';
}

}  // namespace

void TextTable::add(std::vector<std::string> row) {
  for (std::string& text : row) text = printable(text);
  rows_.push_back(std::move(row));
}

void TextTable::print(std::ostream& os, const TextStyle& style) const {
  constexpr size_t kGap = 2;
  std::vector<size_t> widths(rows_.front().size());
  for (const auto& row : rows_) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
  }
  for (const auto& row : rows_) {
    std::string line;
    for (size_t i = 0; i + 1 < row.size(); ++i) {
      line.append(row[i]).append(widths[i] - width(row[i]) + kGap, ' ');
    }
    line += row.back();
    fit(line, style.width);
    const bool isHeading = style.coloured && &row == &rows_.front();
    os << (isHeading ? "\033[1m" : "") << line << (isHeading ? "\033[0m\n" : "\n");
  }
}

}  // namespace Replay
