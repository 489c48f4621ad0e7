// One line of a replay: an event, whose fields are checked when they are read.
#include "replay/Event.h"

#include <algorithm>

#include "platform/tovan/IntfNames.h"
#include "replay/Json.h"

namespace Replay {

using nlohmann::json;

Event Event::parse(std::string_view line) {
  if (nestsTooDeep(line)) {
    throw EventError("nested deeper than " + std::to_string(kMaxDepth) + " levels");
  }
  json object;
  try {
    object = json::parse(line);
  } catch (const json::exception& error) {
    // Drops the library's error number and the line number, which is always 1.
    const std::string_view message = error.what();
    const auto column = message.find("column ");
    throw EventError("not JSON: " +
                     std::string(column == message.npos ? message : message.substr(column)));
  }
  if (!object.is_object()) throw EventError("not a JSON object");
  return Event(std::move(object));
}

void Event::refuse(const char* field, const std::string& what) const {
  constexpr size_t kMaxShown = 80;
  auto shown = object_.at(field).dump(-1, ' ', false, json::error_handler_t::replace);
  if (shown.size() > kMaxShown) shown.replace(kMaxShown, shown.npos, "...");
  throw EventError("\"" + std::string(field) + "\": " + shown + " is not " + what);
}

void Event::refuseOthersThan(std::span<const std::string_view> fields) const {
  for (const auto& [name, value] : object_.items()) {
    const bool isKnown = std::find(fields.begin(), fields.end(), name) != fields.end();
    if (name.empty() || (!isKnown && name != "op")) {
      throw EventError("unknown field \"" + name + "\"");
    }
  }
}

const json& Event::at(const char* field) const {
  const auto found = object_.find(field);
  if (found == object_.end()) throw EventError("missing field \"" + std::string(field) + "\"");
  return *found;
}

const std::string& Event::string(const char* field) const {
  const auto* text = at(field).get_ptr<const std::string*>();
  if (text == nullptr) refuse(field, "a string");
  return *text;
}

bool Event::flag(const char* field) const {
  const auto* value = at(field).get_ptr<const bool*>();
  if (value == nullptr) refuse(field, "true or false");
  return *value;
}

uint64_t Event::number(const char* field, uint64_t min, uint64_t max) const {
  const auto& value = at(field);
  if (!value.is_number_unsigned() || value.get<uint64_t>() < min || value.get<uint64_t>() > max) {
    refuse(field, "an integer from " + std::to_string(min) + " to " + std::to_string(max));
  }
  return value.get<uint64_t>();
}

int Event::family() const {
  const auto& value = at("family");
  if (!value.is_number_integer() || (value != 4 && value != 6)) refuse("family", "4 or 6");
  return value.get<int>();
}

std::string_view Event::vrf(const char* field) const {
  if (!has(field)) return Daemon::Switch::kDefaultVrf;
  const std::string& name = string(field);
  if (name.size() > L3::VrfName::kMaxBytes) refuse(field, "a VRF name: it is over 100 bytes");
  return name;
}

Zemit::IntfId Event::intf(const char* field) const {
  const std::string& name = string(field);
  if (name.empty()) refuse(field, "an interface name");
  if (name.size() > Tovan::IntfNames::kMaxBytes) {
    refuse(field, "an interface name: it is over 127 bytes");
  }
  return Zemit::IntfId::of(Kiv::String8(name));
}

}  // namespace Replay
