// JSON text put together piece by piece, so that what belongs together sorts together.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Replay {

/// How deeply lists and objects may stand inside one another in what is read.
inline constexpr size_t kMaxDepth = 64;
/// True when those of a JSON text do so more deeply. Who parses or prints such a text descends
/// level by level, on a stack that has an end.
bool nestsTooDeep(std::string_view text);

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
  /// The members by name, each as a JSON object of its own.
  std::vector<std::string> pieces();

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
  /// The elements in that order, each as a JSON list of its own.
  std::vector<std::string> pieces();

 private:
  std::vector<std::string> elements_;
};

}  // namespace Replay
