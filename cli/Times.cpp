// The text form of times for people.
#include "cli/Times.h"

#include <charconv>
#include <cstdio>
#include <ctime>

#include "replay/Time.h"

namespace Cli {
namespace {

using namespace std::chrono;

std::string number(int64_t value, const char* unit) {
  return std::to_string(value) + " " + unit;
}

}  // namespace

std::string localTime(std::string_view text, bool hasMilliseconds) {
  const auto time = Replay::parseTime(text);
  if (!time) return std::string(text);
  const auto whole = floor<seconds>(*time);
  const std::time_t moment = whole.count();
  std::tm parts{};
  ::localtime_r(&moment, &parts);
  char shown[40];
  const size_t size = std::strftime(shown, sizeof(shown), "%Y-%m-%d %H:%M:%S", &parts);
  std::string result(shown, size);
  if (hasMilliseconds) {
    std::snprintf(shown, sizeof(shown), ".%03d",
                  static_cast<int>(duration_cast<milliseconds>(*time - whole).count()));
    result += shown;
  }
  return result;
}

std::string age(std::string_view text) {
  const auto time = Replay::parseTime(text);
  if (!time) return "-";
  const auto now = system_clock::now().time_since_epoch();
  return duration(std::max(seconds(0), duration_cast<seconds>(now - *time)));
}

std::string duration(seconds time) {
  const auto minutes = time.count() / 60;
  const auto hours = minutes / 60;
  const auto days = hours / 24;
  if (minutes == 0) return number(time.count(), "s");
  if (hours == 0) return number(minutes, "min");
  if (days == 0) return number(hours, "h") + " " + number(minutes % 60, "min");
  return number(days, "d") + " " + number(hours % 24, "h");
}

std::optional<seconds> parseDuration(std::string_view text) {
  int64_t value = 0;
  const auto* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  constexpr int64_t kMost = 366LL * 86400;
  if (error != std::errc() || value < 0 || value > kMost) return std::nullopt;
  const std::string_view unit(rest, static_cast<size_t>(end - rest));
  if (unit.empty() || unit == "s") return seconds(value);
  if (unit == "m") return minutes(value);
  if (unit == "h") return hours(value);
  return std::nullopt;
}

}  // namespace Cli
