// The text form of times for people.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace Cli {

/// A time of Replay::timeText() in local time: "2026-05-04 12:00:00", or with milliseconds. Returns
/// `text` itself when it is not a time.
std::string localTime(std::string_view text, bool hasMilliseconds = false);
/// The age of such a time: "12 s", "3 min", "2 h 5 min", "4 d 3 h".
std::string age(std::string_view text);
/// A duration in the same form.
std::string duration(std::chrono::seconds time);
/// Parses "30s", "5m", "2h" or "30" (seconds); at most 366 days.
std::optional<std::chrono::seconds> parseDuration(std::string_view text);

}  // namespace Cli
