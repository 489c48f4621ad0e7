// The text form of points in time in recordings and JSON output.
#include "replay/Time.h"

#include <charconv>
#include <cstdint>
#include <cstdio>

namespace Replay {
namespace {

using namespace std::chrono;

/// Removes a number of exactly `digits` digits, followed by the text `behind`, from the front of
/// `text`. False when `text` does not start so.
bool takeNumber(std::string_view& text, size_t digits, std::string_view behind, unsigned& number) {
  if (text.size() < digits + behind.size()) return false;
  const auto* end = text.data() + digits;
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end) return false;
  text.remove_prefix(digits);
  if (!text.starts_with(behind)) return false;
  text.remove_prefix(behind.size());
  return true;
}

}  // namespace

std::string timeText(microseconds sinceEpoch) {
  const auto days = floor<std::chrono::days>(sinceEpoch);
  const year_month_day date{sys_days(days)};
  const hh_mm_ss time(sinceEpoch - days);
  char text[64];
  std::snprintf(text, sizeof(text), "%04d-%02u-%02uT%02d:%02d:%02d.%06dZ",
                static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()), static_cast<int>(time.hours().count()),
                static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()),
                static_cast<int>(time.subseconds().count()));
  return text;
}

std::optional<microseconds> parseTime(std::string_view text) {
  unsigned y = 0;
  unsigned m = 0;
  unsigned d = 0;
  unsigned hour = 0;
  unsigned minute = 0;
  unsigned second = 0;
  if (!takeNumber(text, 4, "-", y) || !takeNumber(text, 2, "-", m) ||
      !takeNumber(text, 2, "T", d) || !takeNumber(text, 2, ":", hour) ||
      !takeNumber(text, 2, ":", minute) || !takeNumber(text, 2, "", second)) {
    return std::nullopt;
  }
  const year_month_day date{year(static_cast<int>(y)), month(m), day(d)};
  if (!date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  uint32_t fraction = 0;
  if (text.starts_with('.')) {
    text.remove_prefix(1);
    size_t digits = 0;
    for (; !text.empty() && text[0] >= '0' && text[0] <= '9'; text.remove_prefix(1)) {
      if (++digits <= 6) fraction = fraction * 10 + static_cast<uint32_t>(text[0] - '0');
    }
    if (digits == 0) return std::nullopt;
    for (; digits < 6; ++digits) fraction *= 10;
  }
  if (text != "Z") return std::nullopt;
  return sys_days(date).time_since_epoch() + hours(hour) + minutes(minute) + seconds(second) +
         microseconds(fraction);
}

}  // namespace Replay
