// Entities: named objects with attributes, whose changes are announced.
#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/kiv/containers/Ptr.h"
#include "platform/kiv/containers/String.h"
#include "platform/kiv/runtime/Activity.h"
#include "platform/kiv/runtime/Attribute.h"
#include "platform/kiv/runtime/Notifiee.h"

namespace Kiv {

/// Base of every class that has attributes.
///
/// An owned entity knows its owner and the attribute that holds it. It does not keep the owner
/// alive.
class Entity : public Object {
 public:
  using Ptr = Kiv::Ptr<Entity>;
  using PtrConst = Kiv::Ptr<const Entity>;

  /// The entity's own name.
  virtual Name name() const = 0;
  /// The names from the outermost owner down to this entity, with "/" between them.
  std::string fullName() const;
  /// The path from the outermost owner down to this entity: "/NAME/ATTRIBUTE/NAME ...", with every
  /// byte that a URI path segment may not hold percent-encoded (RFC 3986).
  std::string uriPath() const;

  /// The trace levels that are on for this entity, as bits, beside those that are on for all
  /// entities. An override must inform the facility of changes; see TraceFacility::ownLevelsAre().
  virtual uint32_t tracedLevels() const noexcept { return 0; }

  const Entity* parent() const noexcept { return parent_; }
  /// This entity, its owner, and so on up to the outermost one. A ring of owners is walked once.
  std::vector<const Entity*> withOwners() const;
  /// The name of the owner's attribute that holds this entity; empty without an owner.
  std::string_view parentAttr() const noexcept;
  /// The id of that attribute; 0 without an owner.
  AttributeId parentAttrId() const noexcept { return parentAttr_ == nullptr ? 0 : parentAttr_->id; }
  /// Sets the owner of this entity, and the attribute by which it is owned. Null clears both.
  void parentIs(const Entity* parent, const AttributeInfo* attribute) noexcept {
    parent_ = parent;
    parentAttr_ = parent == nullptr ? nullptr : attribute;
  }

  /// The notifiees of this entity. Registration does not change an entity, so the entity may be
  /// const.
  NotifierList& notifierList() const {
    if (notifiees_ == nullptr) notifiees_ = new NotifierList();
    return *notifiees_;
  }

  /// True when the entity has notifiees.
  bool hasNotifiees() const noexcept { return notifiees_ != nullptr && !notifiees_->empty(); }

  /// Announces a change of the attribute with tag `Attribute`, under `key` for a collection entry.
  ///
  /// An exception of a callback is reported to its notifiee, and the other callbacks are still
  /// called. Callbacks may destroy the variable that `key` refers to, or the entity itself.
  template <class Attribute, class... Key>
  void notify(const Key&... key) const {
    if (hasNotifiees()) [[unlikely]]
      notifyAll<Attribute>(Key(key)...);
  }

  /// Lets the hooks of this entity register missing notifiees. Called before a change that is not
  /// announced by this entity.
  void completeNotifiees() const {
    if (notifiees_ != nullptr) notifiees_->callHooks(0, nullptr);
  }

  /// Calls `visit` with each notifiee that would now be notified of a change. `visit` must change
  /// neither the notifiees nor the list.
  template <class Visit>
  void forEachNotifiee(Visit visit) const {
    if (!hasNotifiees()) return;
    notifiees_->forEachToTell([&](const Notifiee& notifiee) {
      if (notifiee.acceptsNotifications()) visit(notifiee);
    });
  }

 protected:
  Entity() = default;
  ~Entity() override { dropNotifiees(); }
  void zeroReferences() noexcept override;
  /// Removes all notifiees. Nothing is announced any more. For destructors.
  void dropNotifiees() noexcept {
    if (notifiees_ != nullptr) std::exchange(notifiees_, nullptr)->ownerIsGone();
  }

 private:
  template <class Attribute, class... Key>
  void notifyAll(const Key&... key) const;

  const Entity* parent_ = nullptr;
  const AttributeInfo* parentAttr_ = nullptr;
  mutable NotifierList* notifiees_ = nullptr;
};

template <class Attribute, class... Key>
void Entity::notifyAll(const Key&... key) const {
  const void* changed = nullptr;
  ((changed = &key), ...);
  notifiees_->callHooks(Attribute::kInfo.id, changed);
  SnapshotIterator walk(*notifiees_, Attribute::kInfo.id, changed);
  while (Notifiee* notifiee = walk.next()) {
    if (!notifiee->acceptsNotifications()) continue;
    const auto& activity = notifiee->kivFwkActivity();
    try {
      if (activity && activity->queues()) {
        activity->enqueue(std::unique_ptr<PendingNotification>(
            new PendingNotificationOf<Attribute, Key...>(*notifiee, key...)));
      } else {
        Attribute::deliver(*notifiee, key...);
      }
    } catch (...) {
      if (walk.current() != nullptr) notifiee->onNotificationException(Attribute::kInfo.id);
    }
  }
}

/// `name` as a segment of a URI path. Bytes that are not allowed there are percent-encoded.
std::string uriSegment(std::string_view name);

/// An entity that keeps its name.
class NamedEntity : public Entity {
 public:
  Name name() const override { return name_; }

 protected:
  explicit NamedEntity(Name name) : name_(std::move(name)) {}

 private:
  Name name_;
};

/// Writes the name of the entity; for a null handle "null".
inline std::ostream& operator<<(std::ostream& os, const Entity& entity) {
  return os << entity.name();
}
template <std::derived_from<Entity> T>
std::ostream& operator<<(std::ostream& os, const Ptr<T>& entity) {
  if (!entity) return os << "null";
  return os << entity->name();
}

class TypeInfo;
template <class T>
class GenericIfOf;
template <class T>
struct EntityType;

}  // namespace Kiv

/// The declarations of a reflected type: its description, which is made at its first use, and the
/// interface to its entities. Both are defined where the types are registered.
#define KIV_REFLECTED(Type)                    \
  using _Type = ::Kiv::EntityType<Type>;       \
  using GenericIf_ = ::Kiv::GenericIfOf<Type>; \
  static const ::Kiv::TypeInfo& _fwkType()
