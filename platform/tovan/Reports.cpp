// Reports of damaged tables, and of tables that could not grow.
#include "platform/tovan/Reports.h"

#include <atomic>
#include <map>
#include <mutex>

#include "platform/kiv/runtime/Trace.h"

namespace Tovan {
namespace {

// Registers the facility when the process starts, so that it is found by its name.
[[maybe_unused]] const auto& registered = tableTrace();

struct Reports {
  std::mutex mutex;
  std::map<std::string, TableReport, std::less<>> byTable;
  std::atomic<uint64_t> corruptions;
  std::atomic<uint64_t> refusals;

  /// Never destroyed: tables may report while the process ends.
  static Reports& instance() {
    static auto* const reports = new Reports;
    return *reports;
  }
  /// \pre the mutex is locked
  TableReport& of(std::string_view table) {
    auto found = byTable.find(table);
    if (found == byTable.end()) found = byTable.try_emplace(std::string(table)).first;
    return found->second;
  }
};

void trace(const char* function, std::string_view table, const std::string& message) {
  constexpr unsigned kLevel = 0;
  auto& facility = tableTrace();
  if (!facility.builds(kLevel)) return;
  Kiv::traceHelper(facility, Kiv::Name(table), message, kLevel, facility.isEnabled(kLevel),
                   facility.sourceModule(), __LINE__, function);
}

}  // namespace

Kiv::TraceFacility& tableTrace() {
  static auto* const facility = new Kiv::TraceFacility("Tovan", "Tovan");
  return *facility;
}

std::vector<TableReport> tableReports() {
  auto& reports = Reports::instance();
  const std::lock_guard lock(reports.mutex);
  std::vector<TableReport> all;
  for (const auto& [table, report] : reports.byTable) {
    all.push_back(report);
    all.back().table = table;
  }
  return all;
}

uint64_t corruptionCount() {
  return Reports::instance().corruptions.load(std::memory_order_relaxed);
}

uint64_t refusalCount() {
  return Reports::instance().refusals.load(std::memory_order_relaxed);
}

void reportCorruption(std::string_view table, const std::string& message) {
  auto& reports = Reports::instance();
  ++reports.corruptions;
  {
    const std::lock_guard lock(reports.mutex);
    auto& report = reports.of(table);
    ++report.corruptions;
    report.lastCorruption = message;
  }
  trace("corruptionDetected", table, message);
}

void reportRefusal(std::string_view table, size_t bytes, const std::string& message) {
  auto& reports = Reports::instance();
  ++reports.refusals;
  bool isFirst = false;
  {
    const std::lock_guard lock(reports.mutex);
    auto& report = reports.of(table);
    isFirst = ++report.refusals == 1;
    report.lastRefusal = message;
    report.bytes = bytes;
  }
  if (isFirst) trace("provide", table, message);
}

}  // namespace Tovan
