// Times as people read them.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace Cli {

/// A time of Replay::timeText() in local time: "2026-05-04 12:00:00", or with milliseconds. The
/// text itself where it is no time.
std::string localTime(std::string_view text, bool hasMilliseconds = false);
/// How long ago such a time was: "12 s", "3 min", "2 h 5 min", "4 d 3 h".
std::string age(std::string_view text);
/// The same for a number of seconds.
std::string duration(std::chrono::seconds time);
/// The seconds that "30s", "5m", "2h" or "30" stand for.
std::optional<std::chrono::seconds> parseDuration(std::string_view text);

}  // namespace Cli
