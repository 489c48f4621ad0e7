// Values whose type is known at run time only.
#pragma once

#include <any>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/kiv/containers/Ptr.h"

namespace Kiv {

class TypeInfo;
struct GenericArgument;

/// The description of T; for a handle, of the type that it refers to. Compare types by their names,
/// because each loaded library may have its own description of a type.
template <class T>
const TypeInfo& typeOf();

/// A value of any type that reflection knows, a handle to an object, a list of arguments, or none.
/// The null handle is none, too.
class GenericValue {
 public:
  GenericValue() = default;
  template <class T>
  static GenericValue of(T value) {
    return {typeOf<T>(), std::move(value)};
  }
  template <class T>
  static GenericValue of(const Ptr<T>& handle) {
    if (!handle) return {};
    return {typeOf<std::remove_const_t<T>>(), handle};
  }
  template <class T>
  static GenericValue of(Ptr<T>& handle) {
    return of(std::as_const(handle));
  }
  template <class T>
  static GenericValue of(Ptr<T>&& handle) {
    return of(std::as_const(handle));
  }
  static GenericValue list(std::vector<GenericArgument> arguments);

  bool isNone() const noexcept { return !value_.has_value(); }
  /// The arguments, when this is a list of them; else null.
  const std::vector<GenericArgument>* arguments() const noexcept {
    return as<std::vector<GenericArgument>>();
  }
  /// The type. \pre this is neither none nor a list
  const TypeInfo& type() const noexcept { return *type_; }
  /// The name of the type for messages. A list and none have names, too.
  std::string typeName() const;

  /// The value when it is a T (a Ptr<T> or a Ptr<const T> for a handle), else null.
  template <class T>
  const T* as() const noexcept {
    return std::any_cast<T>(&value_);
  }
  /// The text of this value, from which it can be read back; "null" for none. The text of an entity
  /// without a path is in < and >, and cannot be read back.
  std::string text() const;

 private:
  template <class T>
  GenericValue(const TypeInfo& type, T value) : type_(&type), value_(std::move(value)) {}

  const TypeInfo* type_ = nullptr;
  std::any value_;
};

/// An argument of a call, identified by its position or by its name.
struct GenericArgument {
  GenericValue value;
  std::string name = {};  ///< empty: identified by its position
};

}  // namespace Kiv
