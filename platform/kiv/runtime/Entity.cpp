#include "platform/kiv/runtime/Entity.h"

#include <algorithm>

#include "platform/kiv/containers/Percent.h"

namespace Kiv {

namespace {

// The characters that may stand unencoded in a path segment ("pchar" of RFC 3986, section 3.3),
// less ":" and "@", which some parsers take for an authority.
constexpr bool isPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-._~!$&'()*+,;=").find(c) != std::string_view::npos;
}

}  // namespace

std::string uriSegment(std::string_view name) {
  return percentEncoded(name, isPlain);
}

std::vector<const Entity*> Entity::withOwners() const {
  std::vector<const Entity*> entities;
  const Entity* at = this;
  while (at != nullptr && std::ranges::find(entities, at) == entities.end()) {
    entities.push_back(at);
    at = at->parent_;
  }
  return entities;
}

std::string Entity::fullName() const {
  const auto entities = withOwners();
  std::string text(entities.back()->name().view());
  for (auto at = entities.rbegin() + 1; at != entities.rend(); ++at) {
    text.append("/").append((*at)->name().view());
  }
  return text;
}

std::string Entity::uriPath() const {
  const auto entities = withOwners();
  std::string path = '/' + uriSegment(entities.back()->name());
  for (auto at = entities.rbegin() + 1; at != entities.rend(); ++at) {
    path.append("/").append(uriSegment((*at)->parentAttr()));
    path.append("/").append(uriSegment((*at)->name()));
  }
  return path;
}

std::string_view Entity::parentAttr() const noexcept {
  return parentAttr_ == nullptr ? std::string_view() : parentAttr_->name;
}

void Entity::zeroReferences() noexcept {
  if (!hasNotifiees()) return;
  SnapshotIterator walk(*notifiees_);
  while (Notifiee* notifiee = walk.next()) {
    if (notifiee->acceptsNotifications()) notifiee->onZeroReferences();
  }
}

}  // namespace Kiv
