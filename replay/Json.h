// JSON text put together piece by piece, so that what belongs together sorts together.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Replay {

/// `text` as a JSON string. Bytes that are not UTF-8 become U+FFFD.
std::string jsonString(std::string_view text);
inline std::string jsonBool(bool value) {
  return value ? "true" : "false";
}

/// A JSON object; prints its members by name, and is given each once.
class JsonObject {
 public:
  /// Adds a member whose value is the JSON text `value`.
  JsonObject& add(std::string_view name, std::string value) {
    members_.emplace_back(name, std::move(value));
    return *this;
  }
  std::string text();

 private:
  std::vector<std::pair<std::string, std::string>> members_;
};

/// A JSON list; prints its elements in the order of their texts.
class JsonList {
 public:
  /// Adds an element, which is JSON text.
  JsonList& add(std::string element) {
    elements_.push_back(std::move(element));
    return *this;
  }
  std::string text();

 private:
  std::vector<std::string> elements_;
};

}  // namespace Replay
