// JSON text built from sorted pieces, so that equal states have equal texts.
#include "replay/Json.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace Replay {

bool nestsTooDeep(std::string_view text) {
  size_t depth = 0;
  bool inString = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxDepth) return true;
    } else if ((c == ']' || c == '}') && depth != 0) {
      --depth;
    }
  }
  return false;
}

std::string jsonString(std::string_view text) {
  const auto isPlain = [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; };
  if (std::all_of(text.begin(), text.end(), isPlain)) {
    return std::string("\"").append(text).append("\"");
  }
  return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string JsonObject::text() {
  std::sort(members_.begin(), members_.end());
  std::string text = "{";
  for (const auto& [name, value] : members_) {
    if (text.size() > 1) text += ',';
    text.append(jsonString(name)).append(":").append(value);
  }
  return text += '}';
}

std::vector<std::string> JsonObject::pieces() {
  std::sort(members_.begin(), members_.end());
  std::vector<std::string> pieces;
  for (const auto& [name, value] : members_) {
    auto& piece = pieces.emplace_back("{");
    piece.append(jsonString(name)).append(":").append(value).append("}");
  }
  return pieces;
}

std::string JsonList::text() {
  std::sort(elements_.begin(), elements_.end());
  std::string text = "[";
  for (const std::string& element : elements_) {
    if (text.size() > 1) text += ',';
    text += element;
  }
  return text += ']';
}

std::vector<std::string> JsonList::pieces() {
  std::sort(elements_.begin(), elements_.end());
  std::vector<std::string> pieces;
  for (const std::string& element : elements_) pieces.push_back("[" + element + "]");
  return pieces;
}

}  // namespace Replay
