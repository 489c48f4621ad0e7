// Log lines with priorities: to the journal with fields, or to standard error.
#pragma once

#include <syslog.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Hostrouted {

/// A field of a log line for the journal, such as {"PREFIX", "10.0.0.5/32"}.
using LogField = std::pair<std::string_view, std::string>;

/// Writes the log lines up to a level. If standard error is the journal, each line has its priority
/// and fields (systemd.journal-fields(7); the names begin with "HOSTROUTE_"). Otherwise the line is
/// printed.
///
/// The rate of each kind of line is limited: after kBurst lines within kWindow seconds, further
/// lines are only counted. The next line of the kind has the count.
class Log {
 public:
  static constexpr uint32_t kBurst = 20;
  static constexpr double kWindow = 10;

  Log();
  /// \param level  as in syslog(3). Lines with a higher number are omitted.
  void setLevel(int level) { level_ = level; }
  int level() const { return level_; }
  /// \param kind  the kind of the line, for the limit and the field HOSTROUTE_KIND.
  void write(int level, std::string_view kind, const std::string& message,
             const std::vector<LogField>& fields = {});

 private:
  struct Flood {
    double begin = 0;
    uint32_t lines = 0;
    uint32_t suppressed = 0;
  };

  int level_ = LOG_INFO;
  bool isJournal_;
  std::map<std::string, Flood, std::less<>> floods_;
};

/// Seconds since the start of the machine. Never goes back.
double monotonicSeconds();

}  // namespace Hostrouted
