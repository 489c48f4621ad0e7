// The daemon's numbers as text for monitoring systems.
#include "cli/OpenMetrics.h"

#include <string_view>

namespace Cli {
namespace {

using Json = nlohmann::ordered_json;

/// A text with the escapes of a label's value or a help text.
std::string escaped(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c == '\\' || c == '"') result += '\\';
    if (c == '\n') {
      result += "\\n";
    } else {
      result += c;
    }
  }
  return result;
}

std::string labelsText(const Json& labels) {
  std::string text;
  for (const auto& [name, value] : labels.items()) {
    text.append(text.empty() ? "{" : ",").append(name).append("=\"");
    text.append(escaped(value.is_string() ? value.get<std::string>() : value.dump())).append("\"");
  }
  return text.empty() ? text : text + "}";
}

void addHistogram(const Json& family, const std::string& name, std::string& text) {
  for (const auto& bucket : family.at("buckets")) {
    text.append(name).append("_bucket{le=\"").append(bucket.at("le").dump()).append("\"} ");
    text.append(bucket.at("count").dump()).append("\n");
  }
  const auto count = family.at("count").dump();
  text.append(name).append("_bucket{le=\"+Inf\"} ").append(count).append("\n");
  text.append(name).append("_count ").append(count).append("\n");
  text.append(name).append("_sum ").append(family.at("sum").dump()).append("\n");
}

}  // namespace

std::string openMetrics(const Json& metrics) {
  std::string text;
  for (const auto& family : metrics) {
    const auto name = family.at("name").get<std::string>();
    const auto type = family.at("type").get<std::string>();
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
      text.append(sample.at("value").dump()).append("\n");
    }
  }
  return text + "# EOF\n";
}

}  // namespace Cli
