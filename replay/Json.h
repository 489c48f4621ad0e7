// JSON text built from sorted pieces, so that equal states have equal texts.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Replay {

/// The maximum nesting depth of lists and objects in JSON input.
inline constexpr size_t kMaxDepth = 64;
/// True when a JSON text is nested more deeply than kMaxDepth. Parsing and printing are recursive,
/// so a deeper text could overflow the stack.
bool nestsTooDeep(std::string_view text);

/// `text` as a JSON string. Bytes that are not UTF-8 become U+FFFD.
std::string jsonString(std::string_view text);
inline std::string jsonBool(bool value) {
  return value ? "true" : "false";
}

/// A JSON object that prints its members in the order of their names. The caller adds each name
/// once.
class JsonObject {
 public:
  /// Adds a member whose value is the JSON text `value`.
  JsonObject& add(std::string_view name, std::string value) {
    members_.emplace_back(name, std::move(value));
    return *this;
  }
  std::string text();
  /// The members in the order of their names, each as a JSON object of its own.
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
  /// The elements in the order of their texts, each as a JSON list of its own.
  std::vector<std::string> pieces();

 private:
  std::vector<std::string> elements_;
};

}  // namespace Replay
