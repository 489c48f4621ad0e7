// Points in time as recordings and programs have them.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace Replay {

/// A time since 1970-01-01T00:00:00Z as RFC 3339 has it: "2026-05-04T10:00:00.123456Z".
std::string timeText(std::chrono::microseconds sinceEpoch);
/// The time that such a text stands for; the fraction may be shorter or missing.
std::optional<std::chrono::microseconds> parseTime(std::string_view text);

}  // namespace Replay
