// Finding entities by their paths.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/kiv/reflection/GenericIf.h"

namespace Kiv {

/// The entities from which paths begin, each in its place, such as "/ipv4/default".
///
/// A path goes on behind such a place by names of attributes, and by keys where the attribute is a
/// collection: "/ipv4/default/adjacencyToPrefix/7/prefix". Bytes of a name that a URI path segment
/// may not hold are percent-encoded (RFC 3986); where they are not, they are taken as they stand. A
/// "/" inside a key may also stand for itself, and the longest key that is there is taken. No path
/// leads to a member whose name is empty.
class EntityDirectory {
 public:
  /// Puts an entity at a place for as long as this object lives.
  class Mount {
   public:
    /// \throws Kiv::Exception when the place is taken or is not of the form "/NAME/...", or the
    ///   handle refers to no entity.
    Mount(std::string_view place, const GenericValue& handle);
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;
    ~Mount();

   private:
    std::string place_;
  };

  /// Where a path leads: to an entity, an attribute, or a member of a collection.
  struct Place {
    /// The value, or the handle to the entity. None for a method, a whole collection, a null
    /// handle, and above the entities.
    GenericValue value;
    std::unique_ptr<GenericIf> entity;  ///< the interface to `value`, if that is an entity
    // The last step of the path. Null or none where a path begins.
    std::unique_ptr<GenericIf> holder;               ///< of the attribute
    const AttributeDescriptor* attribute = nullptr;  ///< through which `value` was reached
    GenericValue key;                                ///< under which it is there
    /// True for a collection, as opposed to a member of it.
    bool isWhole() const {
      return attribute != nullptr && attribute->isCollection() && key.isNone();
    }
  };

  /// Whether the last key of a path must be that of a member.
  enum class LastKey { kOfMember, kAny };
  /// \throws Kiv::Exception that says which part of the path leads nowhere.
  static Place find(std::string_view path, LastKey lastKey = LastKey::kOfMember);
  /// The places there are, percent-encoded, in ascending order.
  static std::vector<std::string> places();

  /// The path of an entity; nothing when none leads to it.
  static std::optional<std::string> pathOf(const Entity& entity);
};

}  // namespace Kiv
