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

/// The description of T, or of the objects that a handle to T refers to. Types are told apart by
/// their names: each loaded library may have a description of its own.
template <class T>
const TypeInfo& typeOf();

/// A value of any type that reflection knows, a handle to an object, a list of arguments, or none.
/// None also stands for the null handle.
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
  /// The name of the type, for messages: also of a list or of none.
  std::string typeName() const;

  /// The value when it is a T (a Ptr<T> or a Ptr<const T> for a handle), else null.
  template <class T>
  const T* as() const noexcept {
    return std::any_cast<T>(&value_);
  }
  /// The text that reads back as this value; "null" for none. An entity without a path is shown
  /// between < and >, which nothing reads.
  std::string text() const;

 private:
  template <class T>
  GenericValue(const TypeInfo& type, T value) : type_(&type), value_(std::move(value)) {}

  const TypeInfo* type_ = nullptr;
  std::any value_;
};

/// An argument of a call: by its place, or by the name it has there.
struct GenericArgument {
  GenericValue value;
  std::string name = {};  ///< empty: by its place
};

}  // namespace Kiv
