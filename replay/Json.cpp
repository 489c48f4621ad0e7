// JSON text put together piece by piece, so that what belongs together sorts together.
#include "replay/Json.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace Replay {

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

std::string JsonList::text() {
  std::sort(elements_.begin(), elements_.end());
  std::string text = "[";
  for (const std::string& element : elements_) {
    if (text.size() > 1) text += ',';
    text += element;
  }
  return text += ']';
}

}  // namespace Replay
