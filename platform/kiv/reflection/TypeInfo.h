// The reflected description of a type: its name, text form, attributes, methods, constructor.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/kiv/reflection/GenericValue.h"
#include "platform/kiv/reflection/Strep.h"
#include "platform/kiv/runtime/Attribute.h"
#include "platform/kiv/runtime/Entity.h"

namespace Kiv {

class CollectionWalk;
class GenericIf;

/// The operations that an attribute allows, as six bits.
class KivAttrIntrospectionFlags {
 public:
  static constexpr uint32_t kReadOnly = 0x01;       ///< reflection may not change it
  static constexpr uint32_t kNotifying = 0x02;      ///< its changes are announced
  static constexpr uint32_t kInstantiating = 0x04;  ///< its entity makes and owns its objects
  static constexpr uint32_t kCollection = 0x08;     ///< entries by key
  static constexpr uint32_t kKey = 0x10;            ///< it identifies its entity among others
  static constexpr uint32_t kMethod = 0x20;         ///< called, not read

  /// \throws Kiv::RangeException when there are more than six bits.
  constexpr explicit KivAttrIntrospectionFlags(uint32_t value = 0) : value_(value) {
    KIV_REQUIRE(value <= 0x3f, "KivAttrIntrospectionFlags::value > 0x3f not allowed");
  }
  constexpr uint32_t value() const noexcept { return value_; }
  constexpr bool has(uint32_t flag) const noexcept { return (value_ & flag) != 0; }

 private:
  uint32_t value_;
};

/// Returns the description of a type, which is made at its first use, because types may refer to
/// each other.
using TypeRef = const TypeInfo& (*)();

/// An argument of a method or constructor, or the key of a collection.
struct ArgumentInfo {
  const char* name = "";
  TypeRef type = nullptr;
  const char* typeName = nullptr;  ///< the name of the type for this argument; null: its own name

  const char* shownType() const;
};

/// An attribute or method of an entity type. A null operation is not supported.
struct AttributeDescriptor {
  AttributeId id = 0;
  const char* name = nullptr;
  KivAttrIntrospectionFlags flags;
  TypeRef type = nullptr;  ///< type of the value or result; null for a method without result
  const char* typeName = nullptr;  ///< the type's name for this attribute; null: its own name
  ArgumentInfo key;                ///< the key of a collection
  std::vector<ArgumentInfo> arguments = {};  ///< of a call, or of the creation of a member
  bool isConst = false;                      ///< a method that changes nothing

  GenericValue (*read)(const AttributeDescriptor& self, const Entity&,
                       const GenericValue& index) = nullptr;
  void (*set)(const AttributeDescriptor& self, Entity&, const GenericValue& value,
              const GenericValue& index) = nullptr;
  void (*del)(const AttributeDescriptor& self, Entity&, const GenericValue& index) = nullptr;
  void (*delAll)(const AttributeDescriptor& self, Entity&) = nullptr;
  /// \param arguments  as many as `arguments`, in that order.
  GenericValue (*create)(const AttributeDescriptor& self, Entity&,
                         std::span<const GenericValue> arguments) = nullptr;
  GenericValue (*call)(const AttributeDescriptor& self, Entity&,
                       std::span<const GenericValue> arguments) = nullptr;
  /// \param index  the key at which the walk begins; none: at the first entry.
  std::unique_ptr<CollectionWalk> (*iterate)(const AttributeDescriptor& self, const Entity&,
                                             const GenericValue& index) = nullptr;

  bool isMethod() const { return flags.has(KivAttrIntrospectionFlags::kMethod); }
  bool isCollection() const { return flags.has(KivAttrIntrospectionFlags::kCollection); }
  /// The name of the value's type; "void" for a method without a result.
  const char* shownType() const;
};

/// The description of one type. Made once, and valid until its library is unloaded.
class TypeInfo {
 public:
  /// The operations on the type's values. The maker of the description sets them.
  struct Operations {
    std::string (*print)(const GenericValue& value) = nullptr;
    /// Takes exactly the text of a value. Nothing if the text does not begin with a value.
    std::optional<GenericValue> (*read)(TextReader& reader) = nullptr;
    /// The entity a handle refers to; null when it is no entity.
    const Entity* (*entity)(const GenericValue& handle) = nullptr;
    /// The same handle to a const object.
    GenericValue (*constHandle)(const GenericValue& handle) = nullptr;
    bool (*isConst)(const GenericValue& handle) = nullptr;
    /// For an entity type: makes the interface to an entity.
    std::unique_ptr<GenericIf> (*wrap)(const Ptr<const Entity>& entity, bool writable) = nullptr;
    GenericValue (*construct)(std::span<const GenericValue> arguments) = nullptr;
  };

  TypeInfo(const char* name, const Operations& operations) : name_(name), operations_(operations) {}
  TypeInfo(const char* name, const Operations& operations,
           std::vector<ArgumentInfo> constructorArguments,
           std::vector<AttributeDescriptor> attributes)
      : name_(name),
        operations_(operations),
        constructorArguments_(std::move(constructorArguments)),
        attributes_(std::move(attributes)) {}

  const char* name() const noexcept { return name_; }
  const Operations& operations() const noexcept { return operations_; }
  /// True for entity types. Reflection has access to their attributes.
  bool isReflected() const noexcept { return operations_.wrap != nullptr; }
  const std::vector<ArgumentInfo>& constructorArguments() const noexcept {
    return constructorArguments_;
  }
  /// The attributes and methods in the order of their ids.
  const std::vector<AttributeDescriptor>& attributes() const noexcept { return attributes_; }
  /// Null when there is none.
  const AttributeDescriptor* attribute(std::string_view name) const noexcept;
  const AttributeDescriptor* attribute(AttributeId id) const noexcept;

  /// Makes an entity of this type. `arguments` are the arguments of the constructor in their order.
  /// \throws Kiv::Exception also when the type has no such constructor.
  GenericValue construct(std::span<const GenericValue> arguments) const;

  /// Reads a value of this type from the front of a text, or all of it; see the functions of the
  /// same names. \throws Kiv::Exception.
  GenericValue sequenceToValue(TextReader& reader) const;
  GenericValue strepToValue(std::string_view text) const;

  friend bool operator==(const TypeInfo& a, const TypeInfo& b) noexcept {
    return std::string_view(a.name_) == b.name_;
  }

 private:
  const char* name_;
  Operations operations_;
  std::vector<ArgumentInfo> constructorArguments_;
  std::vector<AttributeDescriptor> attributes_;
};

/// The types that were registered in this process, in the order of their registration.
class TypeRegistry {
 public:
  /// A type is registered as long as this object exists. A second type of the same name is ignored.
  class Entry {
   public:
    explicit Entry(const TypeInfo& type);
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    ~Entry();

   private:
    const TypeInfo* type_;
  };

  /// The type of this name, or null.
  static const TypeInfo* find(std::string_view name);
  static std::vector<const TypeInfo*> all();
};

namespace detail {

template <class T>
inline constexpr bool isHandle = false;
template <class T>
inline constexpr bool isHandle<Ptr<T>> = true;

/// Calls `visit` with the object that a handle to a T or a const T refers to. Returns null for
/// other values.
template <class T, class Visit>
auto withHandle(const GenericValue& value, Visit visit) -> decltype(visit(Ptr<const T>())) {
  if (const auto* handle = value.as<Ptr<T>>()) return visit(Ptr<const T>(*handle));
  if (const auto* handle = value.as<Ptr<const T>>()) return visit(*handle);
  return {};
}

/// The operations on handles to T.
template <class T>
TypeInfo::Operations handleOperations() {
  TypeInfo::Operations operations;
  operations.entity = [](const GenericValue& handle) {
    return withHandle<T>(handle, [](const Ptr<const T>& object) {
      if constexpr (std::derived_from<T, Entity>) {
        return static_cast<const Entity*>(object.get());
      } else {
        return static_cast<const Entity*>(nullptr);
      }
    });
  };
  operations.isConst = [](const GenericValue& handle) { return handle.as<Ptr<T>>() == nullptr; };
  operations.constHandle = [](const GenericValue& handle) {
    return withHandle<T>(handle,
                         [](const Ptr<const T>& object) { return GenericValue::of(object); });
  };
  // The text of a set has its members; reading it makes a new set. The text of another entity is
  // its path.
  if constexpr (requires { sizeof(TextForm<Ptr<T>>); }) {
    operations.print = [](const GenericValue& value) {
      return withHandle<T>(value, [](const Ptr<const T>& set) {
        std::ostringstream os;
        TextForm<Ptr<T>>::print(os, *set);
        return std::move(os).str();
      });
    };
    operations.read = [](TextReader& reader) -> std::optional<GenericValue> {
      if (const auto set = TextForm<Ptr<T>>::read(reader)) return GenericValue::of(*set);
      return std::nullopt;
    };
  }
  return operations;
}

template <class T>
TypeInfo::Operations valueOperations() {
  TypeInfo::Operations operations;
  operations.print = [](const GenericValue& value) { return valueToStrep(*value.as<T>()); };
  operations.read = [](TextReader& reader) -> std::optional<GenericValue> {
    if (const auto value = TextForm<T>::read(reader)) return GenericValue::of(*value);
    return std::nullopt;
  };
  return operations;
}

}  // namespace detail

template <class T>
const TypeInfo& typeOf() {
  if constexpr (requires { T::_fwkType(); }) {
    return T::_fwkType();
  } else if constexpr (std::derived_from<T, Object>) {
    static const TypeInfo kType(TypeName<T>::kName, detail::handleOperations<T>());
    return kType;
  } else {
    static const TypeInfo kType(TypeName<T>::kName, detail::valueOperations<T>());
    return kType;
  }
}

}  // namespace Kiv
