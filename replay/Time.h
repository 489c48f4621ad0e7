// The text form of points in time in recordings and JSON output.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace Replay {

/// A time since 1970-01-01T00:00:00Z in the format of RFC 3339: "2026-05-04T10:00:00.123456Z".
std::string timeText(std::chrono::microseconds sinceEpoch);
/// Parses such a text. The fraction of a second may be shorter or missing.
std::optional<std::chrono::microseconds> parseTime(std::string_view text);

}  // namespace Replay
