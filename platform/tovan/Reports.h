// Reports of damaged tables, and of tables that could not grow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Kiv {
class TraceFacility;
}

namespace Tovan {

/// The damage and the refusals of memory of one table since the process started. Counts all objects
/// that had the table open.
struct TableReport {
  std::string table;
  uint64_t corruptions = 0;  ///< calls of Table::corruptionDetected()
  std::string lastCorruption;
  uint64_t refusals = 0;  ///< how often memory was refused
  std::string lastRefusal;
  size_t bytes = 0;  ///< size of the table at the last refusal
};

/// The tables of this process that were ever damaged or could not grow, sorted by name. Any thread
/// may call this and the counts, which are the sums over all tables.
std::vector<TableReport> tableReports();
uint64_t corruptionCount();
uint64_t refusalCount();

/// The trace facility of tables. Only level 0 is used.
Kiv::TraceFacility& tableTrace();
/// Counts a corruption of `table`, and traces it: facility "Tovan", level 0.
void reportCorruption(std::string_view table, const std::string& message);
/// Counts that `table`, of `bytes` bytes, could not grow, and traces the first time likewise.
void reportRefusal(std::string_view table, size_t bytes, const std::string& message);

}  // namespace Tovan
