// Tables for people: columns that line up.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace Replay {

/// Rows under headings. Every column is as wide as its longest text, and the last one is open.
class TextTable {
 public:
  explicit TextTable(std::vector<std::string> headings) : rows_{std::move(headings)} {}

  /// Adds a row, which has a text for each heading.
  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  bool empty() const { return rows_.size() == 1; }
  /// \param coloured  whether the headings are to stand out on a terminal.
  void print(std::ostream& os, bool coloured) const;

 private:
  std::vector<std::vector<std::string>> rows_;  // the headings come first
};

}  // namespace Replay
