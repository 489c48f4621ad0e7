// Log lines with priorities: to the journal with fields, or to standard error.
#include "hostrouted/Log.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace Hostrouted {
namespace {

/// True when standard error is the journal's own stream (systemd.exec(5), $JOURNAL_STREAM).
bool standardErrorIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  if (stream == nullptr || ::fstat(STDERR_FILENO, &status) != 0) return false;
  return stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

}  // namespace

double monotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Log::Log() : isJournal_(standardErrorIsJournal()) {}

void Log::write(int level, std::string_view kind, const std::string& message,
                const std::vector<LogField>& fields) {
  if (level > level_) return;
  auto place = floods_.find(kind);
  if (place == floods_.end()) place = floods_.emplace(std::string(kind), Flood{}).first;
  auto& flood = place->second;
  const double now = monotonicSeconds();
  std::string text = message;
  if (now - flood.begin > kWindow) {
    if (flood.suppressed > 0) {
      text += " (" + std::to_string(flood.suppressed) + " more like this were left out)";
    }
    flood = {.begin = now, .lines = 0, .suppressed = 0};
  }
  if (++flood.lines > kBurst) {
    ++flood.suppressed;
    return;
  }
  if (!isJournal_) {
    std::fprintf(stderr, "hostrouted: %s\n", text.c_str());
    return;
  }
  std::vector<std::string> lines{"MESSAGE=" + text, "PRIORITY=" + std::to_string(level),
                                 "SYSLOG_IDENTIFIER=hostrouted",
                                 "HOSTROUTE_KIND=" + std::string(kind)};
  for (const auto& [name, value] : fields) {
    lines.push_back("HOSTROUTE_" + std::string(name) + "=" + value);
  }
  std::vector<iovec> parts;
  parts.reserve(lines.size());
  for (auto& line : lines) parts.push_back({.iov_base = line.data(), .iov_len = line.size()});
  ::sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
}

}  // namespace Hostrouted
