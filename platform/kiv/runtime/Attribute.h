// The id and the name of an attribute of an entity type.
#pragma once

#include <cstdint>
#include <string_view>

namespace Kiv {

/// The number that identifies an attribute in reflection, queued notifications and exception
/// reports. Unique within its type, and stable. The attributes of a type begin at
/// kFirstAttributeId.
using AttributeId = uint32_t;

/// Lower ids belong to the attributes that every entity has.
inline constexpr AttributeId kFirstAttributeId = 257;

/// An attribute's id and name.
struct AttributeInfo {
  AttributeId id;
  const char* name;
};

/// True when `capitalised` is `name` with its first letter in upper case. The attribute macros have
/// a parameter for each spelling, because the preprocessor cannot derive one from the other.
constexpr bool isCapitalised(std::string_view name, std::string_view capitalised) {
  return name.size() == capitalised.size() && !name.empty() && name.front() >= 'a' &&
         name.front() <= 'z' && name.front() - 'a' == capitalised.front() - 'A' &&
         name.substr(1) == capitalised.substr(1);
}

}  // namespace Kiv
