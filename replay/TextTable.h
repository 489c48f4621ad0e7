// Text tables with aligned columns.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace Replay {

/// The style of printed tables.
struct TextStyle {
  bool coloured = false;  ///< whether to highlight the headings on a terminal
  size_t width = 0;       ///< the maximum number of columns of a line; 0 for no limit
};

/// Rows under headings. Every column is as wide as its longest text. The last column is not padded.
///
/// Texts are made safe for a terminal; see printable().
class TextTable {
 public:
  explicit TextTable(std::vector<std::string> headings) : rows_{std::move(headings)} {}

  /// Adds a row with one text for each heading.
  void add(std::vector<std::string> row);
  bool empty() const { return rows_.size() == 1; }
  /// Prints the table. A line that is too long for the style is cut and ends with ">".
  void print(std::ostream& os, const TextStyle& style) const;

 private:
  std::vector<std::vector<std::string>> rows_;  // the first row has the headings
};

}  // namespace Replay
