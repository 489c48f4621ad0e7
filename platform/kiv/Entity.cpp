#include "platform/kiv/Entity.h"

namespace Kiv {

namespace {

// The characters that may stand unencoded in a path segment ("pchar" of RFC 3986, section 3.3),
// less ":" and "@", which would read as an authority to some.
constexpr bool isPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-._~!$&'()*+,;=").find(c) != std::string_view::npos;
}

}  // namespace

std::string uriSegment(std::string_view name) {
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string segment;
  for (const char c : name) {
    if (isPlain(c)) {
      segment += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    segment += '%';
    segment += kDigits[byte >> 4];
    segment += kDigits[byte & 0xf];
  }
  return segment;
}

std::string Entity::fullName() const {
  std::string text = parent_ == nullptr ? std::string() : parent_->fullName() + '/';
  return text += name().view();
}

std::string Entity::uriPath() const {
  const std::string self = '/' + uriSegment(name());
  return parent_ == nullptr ? self : parent_->uriPath() + '/' + uriSegment(parentAttr()) + self;
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
