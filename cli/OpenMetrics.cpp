// The daemon's counters as text for monitoring systems.
#include "cli/OpenMetrics.h"

#include <algorithm>
#include <string_view>

#include "cli/Terminal.h"
#include "replay/Printable.h"

namespace Cli {
namespace {

/// A text that is safe for a terminal, with the escapes of a label value or a help text.
std::string escaped(std::string_view text) {
  std::string result;
  for (;;) {
    const auto end = std::min(text.find('\n'), text.size());
    for (const char c : Replay::printable(text.substr(0, end))) {
      if (c == '\\' || c == '"') result += '\\';
      result += c;
    }
    if (end == text.size()) return result;
    result += "\\n";
    text.remove_prefix(end + 1);
  }
}

/// \throws Json::exception when `value` is not a number.
std::string numberText(const Json& value) {
  (void)value.get<double>();
  return value.dump();
}

std::string labelsText(const Json& labels) {
  std::string text;
  for (const auto& [name, value] : labels.items()) {
    text.append(text.empty() ? "{" : ",").append(Replay::printable(name)).append("=\"");
    text.append(escaped(value.is_string() ? value.get<std::string>() : value.dump())).append("\"");
  }
  return text.empty() ? text : text + "}";
}

void addHistogram(const Json& family, const std::string& name, std::string& text) {
  for (const auto& bucket : family.at("buckets")) {
    text.append(name).append("_bucket{le=\"").append(numberText(bucket.at("le"))).append("\"} ");
    text.append(numberText(bucket.at("count"))).append("\n");
  }
  const auto count = numberText(family.at("count"));
  text.append(name).append("_bucket{le=\"+Inf\"} ").append(count).append("\n");
  text.append(name).append("_count ").append(count).append("\n");
  text.append(name).append("_sum ").append(numberText(family.at("sum"))).append("\n");
}

}  // namespace

std::string openMetrics(const Json& metrics) {
  std::string text;
  for (const auto& family : metrics) {
    const auto name = shownText(family, "name");
    const auto type = shownText(family, "type");
    text.append("# TYPE ").append(name).append(" ").append(type).append("\n");
    if (name.ends_with("_seconds")) text.append("# UNIT ").append(name).append(" seconds\n");
    text.append("# HELP ").append(name).append(" ");
    text.append(escaped(family.at("help").get<std::string>())).append("\n");
    if (type == "histogram") {
      addHistogram(family, name, text);
      continue;
    }
    for (const auto& sample : family.at("samples")) {
      text.append(name).append(type == "counter" ? "_total" : "");
      text.append(labelsText(sample.at("labels"))).append(" ");
      text.append(numberText(sample.at("value"))).append("\n");
    }
  }
  return text + "# EOF\n";
}

}  // namespace Cli
