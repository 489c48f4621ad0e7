#include "platform/kiv/reflection/EntityDirectory.h"

#include <algorithm>
#include <map>
#include <optional>

#include "platform/kiv/containers/Exception.h"
#include "platform/kiv/containers/Percent.h"

namespace Kiv {

namespace {

std::map<std::string, GenericValue, std::less<>>& mounted() {
  static std::map<std::string, GenericValue, std::less<>> handles;
  return handles;
}

/// Takes the first segment of "/A/B" and leaves "/B".
std::string_view takeSegment(std::string_view& path) {
  const size_t end = std::min(path.find('/', 1), path.size());
  const std::string_view segment = path.substr(1, end - 1);
  path.remove_prefix(end);
  return segment;
}

/// The canonical form of a path: in each segment, bytes that are not allowed are percent-encoded.
std::string canonical(std::string_view path) {
  std::string text;
  while (!path.empty()) text += '/' + uriSegment(percentDecoded(takeSegment(path)));
  return text;
}

/// The key that `segment` has the text of. A name is its own text.
GenericValue keyOf(const AttributeDescriptor& attribute, const std::string& segment) {
  const std::string name = valueToStrep(StringN(std::string_view(segment)));
  try {
    return attribute.key.type().strepToValue(name);
  } catch (const Exception&) {
    return attribute.key.type().strepToValue(segment);
  }
}

/// The member of a collection whose key is at the front of `path`. Removes the key from the path. A
/// key may contain slashes, so this chooses the longest one that exists.
std::optional<std::pair<GenericValue, GenericValue>> takeMember(
    const GenericIf& entity, const AttributeDescriptor& attribute, std::string_view& path) {
  constexpr size_t kMostSegments = 8;
  std::vector<size_t> ends;
  for (std::string_view rest = path; !rest.empty() && ends.size() < kMostSegments;) {
    takeSegment(rest);
    ends.push_back(path.size() - rest.size());
  }
  for (auto end = ends.rbegin(); end != ends.rend(); ++end) {
    try {
      const GenericValue key = keyOf(attribute, percentDecoded(path.substr(1, *end - 1)));
      auto value = entity.attributeOp({GenericIf::Op::kRead, attribute.id}, {}, key);
      path.remove_prefix(*end);
      return std::pair(key, std::move(value));
    } catch (const Exception&) {
      // Not the key of a member. A shorter text may be one.
    }
  }
  return std::nullopt;
}

}  // namespace

EntityDirectory::Mount::Mount(std::string_view place, const GenericValue& handle)
    : place_(place.starts_with('/') ? canonical(place) : std::string()) {
  if (place_.empty() || place_.ends_with('/')) {
    throw Exception("an entity cannot be put at " + std::string(place));
  }
  if (handle.isNone() || handle.arguments() != nullptr || !handle.type().isReflected()) {
    throw Exception("what is put at " + place_ + " is no entity");
  }
  if (!mounted().try_emplace(place_, handle).second) throw Exception(place_ + " is taken");
}

EntityDirectory::Mount::~Mount() {
  mounted().erase(place_);
}

EntityDirectory::Place EntityDirectory::find(std::string_view path, LastKey lastKey) {
  const std::string whole(path);
  const auto nowhere = [&whole](std::string_view rest) -> Exception {
    return Exception(whole.substr(0, whole.size() - rest.size()) + ": no such path");
  };
  while (path.ends_with('/')) path.remove_suffix(1);
  if (!path.empty() && !path.starts_with('/')) throw nowhere("");
  Place place;
  std::string_view behind;
  // The longest place at the front of the path.
  for (const auto& [at, handle] : mounted()) {
    std::string_view rest = path;
    for (auto left = std::count(at.begin(), at.end(), '/'); left != 0 && !rest.empty(); --left) {
      takeSegment(rest);
    }
    if (canonical(path.substr(0, path.size() - rest.size())) != at) continue;
    if (place.value.isNone() || rest.size() < behind.size()) {
      place.value = handle;
      behind = rest;
    }
  }
  if (place.value.isNone()) {
    if (path.empty()) return place;
    const std::string above = canonical(path) + '/';
    for (const auto& [at, handle] : mounted()) {
      if (at.starts_with(above)) return place;
    }
    throw nowhere("");
  }
  path = behind;

  while (true) {
    const bool isEntity = !place.value.isNone() && place.value.type().isReflected();
    place.entity = isEntity ? genericIf(place.value, true) : nullptr;
    if (path.empty()) return place;
    if (!isEntity) throw nowhere(path);
    place.holder = std::move(place.entity);
    place.value = {};
    place.key = {};
    place.attribute = place.holder->type().attribute(percentDecoded(takeSegment(path)));
    if (place.attribute == nullptr) throw nowhere(path);
    if (place.attribute->isMethod()) continue;
    if (!place.attribute->isCollection()) {
      place.value = place.holder->attributeOp({GenericIf::Op::kRead, place.attribute->id});
    } else if (!path.empty()) {
      if (auto member = takeMember(*place.holder, *place.attribute, path)) {
        std::tie(place.key, place.value) = std::move(*member);
      } else if (lastKey == LastKey::kAny) {
        place.key = keyOf(*place.attribute, percentDecoded(path.substr(1)));
        return place;
      } else {
        throw nowhere("");
      }
    }
  }
}

std::vector<std::string> EntityDirectory::places() {
  std::vector<std::string> places;
  for (const auto& [place, handle] : mounted()) places.push_back(place);
  return places;
}

std::optional<std::string> EntityDirectory::pathOf(const Entity& entity) {
  const auto down = entity.withOwners();
  const auto top = std::find_if(mounted().begin(), mounted().end(), [&down](const auto& mount) {
    return mount.second.type().operations().entity(mount.second) == down.back();
  });
  if (top == mounted().end()) return std::nullopt;
  std::string path = top->first;
  const TypeInfo* type = &top->second.type();
  for (auto at = down.rbegin() + 1; at != down.rend(); ++at) {
    const auto* attribute = type->attribute((*at)->parentAttr());
    if (attribute == nullptr) return std::nullopt;
    path += std::string("/") + attribute->name;
    if (attribute->isCollection()) {
      // A path that ends with a slash means the collection, so a member without a name has no path.
      if ((*at)->name().empty()) return std::nullopt;
      path += '/' + uriSegment((*at)->name());
    }
    type = &attribute->type();
  }
  return path;
}

}  // namespace Kiv
