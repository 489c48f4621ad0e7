// What has befallen the tables of this process: damage, and memory that ran out.
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

/// What has befallen one table since the process began, in all objects that had it open.
struct TableReport {
  std::string table;
  uint64_t corruptions = 0;  ///< calls of Table::corruptionDetected()
  std::string lastCorruption;
  uint64_t refusals = 0;  ///< how often it could not grow
  std::string lastRefusal;
  size_t bytes = 0;  ///< how large it was at the last refusal
};

/// The tables of this process that were ever found damaged or could not grow, by name. Safe to call
/// from any thread, as are the counts: they are the sums over all tables.
std::vector<TableReport> tableReports();
uint64_t corruptionCount();
uint64_t refusalCount();

/// The facility of tables: level 0 only, what is counted here.
Kiv::TraceFacility& tableTrace();
/// Counts a corruption of `table`, and traces it: facility "Tovan", level 0.
void reportCorruption(std::string_view table, const std::string& message);
/// Counts that `table`, of `bytes` bytes, could not grow; the first time is traced likewise.
void reportRefusal(std::string_view table, size_t bytes, const std::string& message);

}  // namespace Tovan
