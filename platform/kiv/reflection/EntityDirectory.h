// Finding entities by their paths.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/kiv/reflection/GenericIf.h"

namespace Kiv {

/// The entities at which paths begin. Each has a place, such as "/ipv4/default".
///
/// A path continues after the place with the names of attributes, and with a key after the name of
/// a collection: "/ipv4/default/adjacencyToPrefix/7/prefix". Bytes of a name that are not allowed
/// in a URI path segment are percent-encoded (RFC 3986); find() also accepts them unencoded. A "/"
/// in a key may be unencoded, too: of the possible keys, find() chooses the longest one that
/// exists. No path leads to a member whose name is empty.
class EntityDirectory {
 public:
  /// An entity is at its place as long as its Mount exists.
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

  /// The destination of a path: an entity, an attribute, or a member of a collection.
  struct Place {
    /// The value, or the handle to the entity. None for a method, a whole collection, a null
    /// handle, and for the start of a place such as "/ipv4".
    GenericValue value;
    std::unique_ptr<GenericIf> entity;  ///< the interface to `value`, if that is an entity
    // The last step of the path. Null or none for a path that is only a place.
    std::unique_ptr<GenericIf> holder;               ///< the entity that has the attribute
    const AttributeDescriptor* attribute = nullptr;  ///< the attribute that has `value`
    GenericValue key;                                ///< the key of `value` in a collection
    /// True for a collection, as opposed to a member of it.
    bool isWhole() const {
      return attribute != nullptr && attribute->isCollection() && key.isNone();
    }
  };

  /// Whether the last key of a path must be the key of an existing member.
  enum class LastKey { kOfMember, kAny };
  /// \throws Kiv::Exception that names the part of the path that does not exist.
  static Place find(std::string_view path, LastKey lastKey = LastKey::kOfMember);
  /// All places, percent-encoded, in ascending order.
  static std::vector<std::string> places();

  /// The path of an entity; nothing if it has no path.
  static std::optional<std::string> pathOf(const Entity& entity);
};

}  // namespace Kiv
