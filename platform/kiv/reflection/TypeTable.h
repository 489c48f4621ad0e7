// Makes the description of an entity type. Each attribute and method is a row.
#pragma once

#include <array>
#include <tuple>
#include <utility>

#include "platform/kiv/reflection/GenericIf.h"
#include "platform/kiv/runtime/Assert.h"
#include "platform/kiv/runtime/Attributes.h"

namespace Kiv {

namespace detail {

/// The form of a value in reflection: for a reactor, its notifier.
template <class V>
decltype(auto) shown(const V& value) {
  if constexpr (requires { value->notifier(); }) {
    return value ? value->notifier() : decltype(value->notifier())();
  } else if constexpr (std::is_same_v<V, Present>) {
    return true;
  } else {
    return (value);
  }
}
template <class V>
using Shown = std::remove_cvref_t<decltype(shown(std::declval<const V&>()))>;

/// The description of a value type, or of the type that a handle refers to.
template <class V>
constexpr TypeRef typeRef() {
  if constexpr (isHandle<V>) {
    return &typeOf<std::remove_const_t<typename V::Element>>;
  } else {
    return &typeOf<V>;
  }
}

/// `value` as a V, for an attribute or for an argument of a method.
template <class V>
V unpack(const GenericValue& value, const char* attribute, const char* argument = nullptr) {
  const auto shownAttribute = [=] {
    return argument == nullptr ? std::string(attribute)
                               : std::string(attribute) + ", argument " + argument;
  };
  if constexpr (isHandle<V>) {
    using T = typename V::Element;
    if (value.isNone()) return V();
    if (const auto* handle = value.as<V>()) return *handle;
    if constexpr (std::is_const_v<T>) {
      if (const auto* handle = value.as<Ptr<std::remove_const_t<T>>>()) return *handle;
    }
  } else if (const auto* stored = value.as<V>()) {
    if constexpr (requires { TextForm<V>::isInEnumeration(*stored); }) {
      if (!TextForm<V>::isInEnumeration(*stored)) {
        GenericIf::throwTypeException(shownAttribute(), typeRef<V>()().name(),
                                      "one outside its enumeration");
      }
    }
    return *stored;
  }
  const bool isConst = isHandle<V> && !value.isNone() && value.typeName() == typeRef<V>()().name();
  GenericIf::throwTypeException(shownAttribute(), typeRef<V>()().name(),
                                (isConst ? "const " : "") + value.typeName());
}

template <class K>
K unpackKey(const GenericValue& index, const char* attribute) {
  if (index.isNone()) GenericIf::throwBadIndexAttrException(attribute, "needs an index");
  return unpack<K>(index, attribute);
}

template <class R>
GenericValue pack(const R& result) {
  return GenericValue::of(shown(result));
}

/// The arguments and the result of a function, or of a member function with the entity first.
template <class F>
struct Signature;
template <class R, class... A>
struct Signature<R (*)(A...)> {
  using Result = std::remove_cvref_t<R>;
  using Values = std::tuple<std::remove_cvref_t<A>...>;
  static constexpr bool kIsConst = false;
};
template <class R, class C, class... A>
struct Signature<R (C::*)(A...)> : Signature<R (*)(A...)> {};
template <class R, class C, class... A>
struct Signature<R (C::*)(A...) const> : Signature<R (*)(A...)> {
  static constexpr bool kIsConst = true;
};
template <class R, class C, class... A>
struct Signature<R (C::*)(A...) noexcept> : Signature<R (*)(A...)> {};
template <class R, class C, class... A>
struct Signature<R (C::*)(A...) const noexcept> : Signature<R (C::*)(A...) const> {};

template <class Values>
inline constexpr size_t arity = std::tuple_size_v<Values>;

/// Converts all arguments to their types, before any of them is used.
template <class Values>
Values unpackAll(std::span<const GenericValue> given, const char* method,
                 const std::vector<ArgumentInfo>& wanted) {
  return [&]<size_t... I>(std::index_sequence<I...>) {
    return Values{unpack<std::tuple_element_t<I, Values>>(given[I], method, wanted[I].name)...};
  }
  (std::make_index_sequence<arity<Values>>());
}

/// Calls `function` with arguments of any type.
template <class Values, class Function>
GenericValue applyTo(Function function, std::span<const GenericValue> given, const char* method,
                     const std::vector<ArgumentInfo>& wanted) {
  auto values = unpackAll<Values>(given, method, wanted);
  if constexpr (std::is_void_v<decltype(std::apply(function, values))>) {
    std::apply(function, values);
    return {};
  } else {
    return pack(std::apply(function, values));
  }
}

/// The walk of a collection's own iterator.
template <class Iterator>
class WalkOf final : public CollectionWalk {
 public:
  WalkOf(Ptr<const Entity> entity, Iterator at) : entity_(std::move(entity)), at_(std::move(at)) {}
  bool nonNull() const override { return bool(at_); }
  GenericValue key() const override { return pack(at_.key()); }
  void next() override { ++at_; }
  std::unique_ptr<CollectionWalk> clone() const override { return std::make_unique<WalkOf>(*this); }

 private:
  Ptr<const Entity> entity_;
  Iterator at_;
};

template <class S>
inline constexpr bool isCollection = requires {
  typename S::Map;
};
template <class S>
inline constexpr bool isSingleton = requires {
  typename S::Element;
}
&&!isCollection<S>;

}  // namespace detail

/// The name of an argument. Also the name of its type, if it differs from the type's own name.
struct ArgumentName {
  constexpr ArgumentName(const char* itsName,  // NOLINT(google-explicit-constructor): it will do
                         const char* itsTypeName = nullptr)
      : name(itsName), typeName(itsTypeName) {}

  const char* name;
  const char* typeName;
};

/// The overload of a member function that takes these arguments.
template <class... A, class R, class C>
constexpr auto overloaded(R (C::*method)(A...)) {
  return method;
}

/// Makes the description of the entity type T, row by row in the order of the ids.
///
/// Reading and deletion use the attribute's storage. If an accessor that sets, makes or deletes has
/// rules of its own, the row names the accessor.
template <class T>
class TypeTable {
 public:
  /// \param name  ends with a zero byte, and is valid as long as the program.
  explicit TypeTable(std::string_view name)
      : name_(name), operations_(detail::handleOperations<T>()) {
    operations_.wrap = [](const Ptr<const Entity>& entity,
                          bool writable) -> std::unique_ptr<GenericIf> {
      return std::make_unique<typename T::GenericIf_>(
          Ptr<T>(const_cast<T*>(static_cast<const T*>(entity.get()))), writable);
    };
  }

  /// The function that makes a T. Call this before the rows.
  template <auto Factory, size_t N>
  TypeTable& constructor(const std::array<ArgumentName, N>& names) {
    using Values = typename detail::Signature<decltype(Factory)>::Values;
    static_assert(N == detail::arity<Values>);
    constructorArguments_ = arguments<Values>(names);
    operations_.construct = [](std::span<const GenericValue> given) {
      if (given.size() != N) {
        GenericIf::throwUnknownArgException(
            T::_fwkType().name(), "is made of " + std::to_string(N) + " arguments, not of " +
                                      std::to_string(given.size()));
      }
      return detail::applyTo<Values>(Factory, given, T::_fwkType().name(),
                                     T::_fwkType().constructorArguments());
    };
    return *this;
  }

  /// A row for the attribute that `Member` stores. It can be read.
  template <auto Member>
  TypeTable& attribute();

  // The following functions add to the last row.

  /// The name of the collection's keys.
  TypeTable& key(ArgumentName name) {
    row().key.name = name.name;
    row().key.typeName = name.typeName;
    return *this;
  }
  /// The accessor that sets the attribute. Its arguments are the value, or a key and the value.
  template <auto Setter>
  TypeTable& setter();
  /// The accessor that makes the attribute's objects.
  template <auto Creator, size_t N>
  TypeTable& creator(const std::array<ArgumentName, N>& names);
  template <auto Creator>
  TypeTable& creator(const char* name) {
    return creator<Creator>(std::array<ArgumentName, 1>{name});
  }
  /// Says that the attribute, or an entry of it, can be deleted.
  template <auto Member>
  TypeTable& deletable();
  /// The accessor that deletes the attribute. For a collection, it takes the key of an entry, and
  /// `DelAll` deletes all entries.
  template <auto Deleter, auto DelAll = nullptr>
  TypeTable& deleter();

  /// A row for a value that is not stored as an attribute, but returned by `Getter`.
  template <auto Getter>
  TypeTable& computed(ArgumentName name, uint32_t flags = 0) {
    using S = detail::Signature<decltype(Getter)>;
    AttributeDescriptor& added = add(name.name, KivAttrIntrospectionFlags::kReadOnly | flags);
    added.type = detail::typeRef<typename S::Result>();
    added.typeName = name.typeName;
    added.read = [](Self, const Entity& entity, const GenericValue&) {
      return detail::pack((static_cast<const T&>(entity).*Getter)());
    };
    return *this;
  }

  /// A row for a method.
  template <auto Method, class... Names>
  TypeTable& method(const char* name, Names... names);

  TypeInfo done() {
    return TypeInfo(name_.data(), operations_, std::move(constructorArguments_), std::move(rows_));
  }

 private:
  using Self = const AttributeDescriptor&;
  template <auto Member>
  using StorageOf = std::remove_cvref_t<decltype(std::declval<T&>().*Member)>;

  template <class Values, size_t N>
  static std::vector<ArgumentInfo> arguments(const std::array<ArgumentName, N>& names) {
    static_assert(N == detail::arity<Values>, "a name for each argument");
    return [&]<size_t... I>(std::index_sequence<I...>) {
      return std::vector<ArgumentInfo>{ArgumentInfo{
          names[I].name, detail::typeRef<std::tuple_element_t<I, Values>>(), names[I].typeName}...};
    }
    (std::make_index_sequence<N>());
  }

  AttributeDescriptor& add(const char* name, uint32_t flags) {
    AttributeDescriptor added;
    added.id = kFirstAttributeId + static_cast<AttributeId>(rows_.size());
    added.name = name;
    added.flags = KivAttrIntrospectionFlags(flags);
    rows_.push_back(std::move(added));
    return rows_.back();
  }
  AttributeDescriptor& row() { return rows_.back(); }
  void becomesWritable() {
    row().flags =
        KivAttrIntrospectionFlags(row().flags.value() & ~KivAttrIntrospectionFlags::kReadOnly);
  }

  std::string_view name_;
  TypeInfo::Operations operations_;
  std::vector<ArgumentInfo> constructorArguments_;
  std::vector<AttributeDescriptor> rows_;
};

template <class T>
template <auto Member>
TypeTable<T>& TypeTable<T>::attribute() {
  using S = StorageOf<Member>;
  using Flags = KivAttrIntrospectionFlags;
  using Tag = typename S::AttributeTag;
  AttributeDescriptor& added = add(Tag::kInfo.name, Flags::kReadOnly | Flags::kNotifying);
  KIV_ASSERT("TypeTable", added.id == Tag::kInfo.id);
  if constexpr (detail::isCollection<S>) {
    using K = typename S::Map::Key;
    using V = detail::Shown<typename S::Map::Value>;
    added.flags = Flags(added.flags.value() | Flags::kCollection |
                        (detail::isRetiring<typename S::Map::Value> ? Flags::kInstantiating : 0));
    added.type = detail::typeRef<V>();
    added.key.type = detail::typeRef<K>();
    added.read = [](Self self, const Entity& entity, const GenericValue& index) {
      const K key = detail::unpackKey<K>(index, self.name);
      const auto found = (static_cast<const T&>(entity).*Member).map().find(key);
      if (!found) GenericIf::throwBadIndexAttrException(self.name, "no such entry");
      return detail::pack(detail::shown(*found));
    };
    added.iterate = [](Self self, const Entity& entity,
                       const GenericValue& index) -> std::unique_ptr<CollectionWalk> {
      using Walk = detail::WalkOf<typename S::Map::IteratorConst>;
      const Ptr<const Entity> alive(&entity);
      const auto& map = (static_cast<const T&>(entity).*Member).map();
      if (index.isNone()) return std::make_unique<Walk>(alive, map.iteratorConst());
      auto at = map.iteratorConst(detail::unpackKey<K>(index, self.name));
      if (!at) GenericIf::throwBadIndexAttrException(self.name, "no such entry");
      return std::make_unique<Walk>(alive, std::move(at));
    };
  } else {
    using V = detail::Shown<std::remove_cvref_t<decltype(std::declval<const S&>().get())>>;
    added.type = detail::typeRef<V>();
    added.read = [](Self, const Entity& entity, const GenericValue&) {
      return detail::pack(detail::shown((static_cast<const T&>(entity).*Member).get()));
    };
  }
  return *this;
}

template <class T>
template <auto Setter>
TypeTable<T>& TypeTable<T>::setter() {
  using Values = typename detail::Signature<decltype(Setter)>::Values;
  becomesWritable();
  row().set = []([[maybe_unused]] Self self, Entity& entity, const GenericValue& value,
                 const GenericValue& index) {
    T& object = static_cast<T&>(entity);
    if constexpr (detail::arity<Values> == 1) {
      if (!index.isNone()) {
        GenericIf::throwBadIndexAttrException(self.name, "the value says where it goes");
      }
      (object.*Setter)(detail::unpack<std::tuple_element_t<0, Values>>(value, self.name));
    } else {
      auto key = detail::unpackKey<std::tuple_element_t<0, Values>>(index, self.name);
      (object.*Setter)(key, detail::unpack<std::tuple_element_t<1, Values>>(value, self.name));
    }
  };
  return *this;
}

template <class T>
template <auto Creator, size_t N>
TypeTable<T>& TypeTable<T>::creator(const std::array<ArgumentName, N>& names) {
  using Values = typename detail::Signature<decltype(Creator)>::Values;
  // A member of a set is set, not made.
  if constexpr (detail::arity<Values> == 1 ||
                detail::isHandle<typename detail::Signature<decltype(Creator)>::Result>) {
    row().flags =
        KivAttrIntrospectionFlags(row().flags.value() | KivAttrIntrospectionFlags::kInstantiating);
  }
  becomesWritable();
  row().arguments = arguments<Values>(names);
  row().create = [](Self self, Entity& entity, std::span<const GenericValue> given) {
    const auto make = [&entity](const auto&... values) {
      if constexpr (std::is_void_v<typename detail::Signature<decltype(Creator)>::Result>) {
        (static_cast<T&>(entity).*Creator)(values...);
      } else {
        const auto made = (static_cast<T&>(entity).*Creator)(values...);
        return detail::shown(made);
      }
    };
    GenericValue made = detail::applyTo<Values>(make, given, self.name, self.arguments);
    // An accessor without a result has stored the new object in the attribute.
    return made.isNone() && !self.isCollection() ? self.read(self, entity, {}) : made;
  };
  return *this;
}

template <class T>
template <auto Member>
TypeTable<T>& TypeTable<T>::deletable() {
  using S = StorageOf<Member>;
  becomesWritable();
  if constexpr (detail::isCollection<S>) {
    row().del = [](Self self, Entity& entity, const GenericValue& index) {
      const auto key = detail::unpackKey<typename S::Map::Key>(index, self.name);
      if (!(static_cast<T&>(entity).*Member).del(entity, key)) {
        GenericIf::throwBadIndexAttrException(self.name, "no such entry");
      }
    };
    row().delAll = [](Self, Entity& entity) { (static_cast<T&>(entity).*Member).delAll(entity); };
  } else {
    row().del = [](Self, Entity& entity, const GenericValue&) {
      (static_cast<T&>(entity).*Member).del(entity);
    };
  }
  return *this;
}

template <class T>
template <auto Deleter, auto DelAll>
TypeTable<T>& TypeTable<T>::deleter() {
  using Values = typename detail::Signature<decltype(Deleter)>::Values;
  becomesWritable();
  row().del = [](Self self, Entity& entity, const GenericValue& index) {
    T& object = static_cast<T&>(entity);
    if constexpr (detail::arity<Values> == 0) {
      (object.*Deleter)();
    } else {
      self.read(self, entity, index);  // raises if the key has another type, or has no entry
      (object.*Deleter)(detail::unpackKey<std::tuple_element_t<0, Values>>(index, self.name));
    }
  };
  if constexpr (!std::is_null_pointer_v<decltype(DelAll)>) {
    row().delAll = [](Self, Entity& entity) { (static_cast<T&>(entity).*DelAll)(); };
  }
  return *this;
}

template <class T>
template <auto Method, class... Names>
TypeTable<T>& TypeTable<T>::method(const char* name, Names... names) {
  using S = detail::Signature<decltype(Method)>;
  AttributeDescriptor& added = add(name, KivAttrIntrospectionFlags::kMethod);
  if constexpr (!std::is_void_v<typename S::Result>) {
    added.type = detail::typeRef<typename S::Result>();
  }
  added.isConst = S::kIsConst;
  added.arguments = arguments<typename S::Values>(
      std::array<ArgumentName, sizeof...(Names)>{ArgumentName(names)...});
  added.call = [](Self self, Entity& entity, std::span<const GenericValue> given) {
    return detail::applyTo<typename S::Values>(
        [&entity](const auto&... values) -> decltype(auto) {
          return (static_cast<T&>(entity).*Method)(values...);
        },
        given, self.name, self.arguments);
  };
  return *this;
}

}  // namespace Kiv
