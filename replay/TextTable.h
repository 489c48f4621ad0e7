// Tables for people: columns that line up.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace Replay {

/// How tables are printed.
struct TextStyle {
  bool coloured = false;  ///< whether the headings are to stand out on a terminal
  size_t width = 0;       ///< how many columns a line may take; 0 for any number
};

/// Rows under headings. Every column is as wide as its longest text, and the last one is open.
///
/// What a terminal would act on is printed as an escape.
class TextTable {
 public:
  explicit TextTable(std::vector<std::string> headings) : rows_{std::move(headings)} {}

  /// Adds a row, which has a text for each heading.
  void add(std::vector<std::string> row);
  bool empty() const { return rows_.size() == 1; }
  /// Prints the table. A line that is too long for the style is cut, and ends with ">" then.
  void print(std::ostream& os, const TextStyle& style) const;

 private:
  std::vector<std::vector<std::string>> rows_;  // the headings come first
};

}  // namespace Replay
