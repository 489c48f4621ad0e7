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

/// Writes lines of a level up to the one that is set. Where standard error is the journal, each
/// line goes there with its priority and fields (systemd.journal-fields(7), ours begin with
/// "HOSTROUTE_"); elsewhere it is printed.
///
/// A flood of one kind of line is cut: after kBurst lines of a kind within kWindow seconds the
/// others are counted, and the count is told with the next line of that kind.
class Log {
 public:
  static constexpr uint32_t kBurst = 20;
  static constexpr double kWindow = 10;

  Log();
  /// \param level  syslog(3): lines of a higher number are left out.
  void setLevel(int level) { level_ = level; }
  int level() const { return level_; }
  /// \param kind  what kind of line it is, for the limit: the text without what varies.
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

/// Seconds since the machine was started, never going back.
double monotonicSeconds();

}  // namespace Hostrouted
