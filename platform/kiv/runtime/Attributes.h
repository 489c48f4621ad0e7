// The kinds of attributes an entity can have: their storage, change detection and announcement.
//
// The templates implement all behaviour. One macro for each kind declares the members that need the
// attribute's name: a tag type (the id, the name, and the callback that reports a change) and
// one-line members. A setter with special arguments or checks is declared in the class, next to the
// attribute.
//
// A macro is used in the public part of a class, after its NotifieeConst. This must declare the
// attribute's callbacks: on##Attr() for one value; on##Attr(key) and on##Attr##kivImmediate() for a
// collection.
#pragma once

#include <concepts>
#include <functional>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/kiv/containers/HashMap.h"
#include "platform/kiv/containers/OrderedHashMap.h"
#include "platform/kiv/runtime/Entity.h"

namespace Kiv {

/// A value that belongs to its entity, such as a bool, an address or a name.
template <class Tag, class T>
class Scalar {
 public:
  using AttributeTag = Tag;

  Scalar() = default;
  explicit Scalar(T value) : value_(std::move(value)) {}

  const T& get() const noexcept { return value_; }
  /// Stores `value` and announces it, if it differs from the stored one.
  /// \returns true when it differed.
  bool set(const Entity& owner, T value) {
    if (value_ == value) return false;
    value_ = std::move(value);
    owner.notify<Tag>();
    return true;
  }
  /// Stores `value` without a notification. For constructors.
  void setQuietly(T value) { value_ = std::move(value); }

 private:
  T value_{};
};

/// A reference to an object that another object owns. The owner keeps it alive while it is set
/// here.
template <class Tag, class T>
class PointerAttribute {
 public:
  using AttributeTag = Tag;

  PointerAttribute() = default;
  explicit PointerAttribute(const Ptr<T>& object) : object_(object.get()) {}

  Ptr<T> get() const noexcept { return Ptr<T>(object_); }
  /// The object without a new handle, for the duration of a call.
  T* raw() const noexcept { return object_; }
  bool set(const Entity& owner, const Ptr<T>& object) {
    if (object_ == object.get()) return false;
    object_ = object.get();
    owner.notify<Tag>();
    return true;
  }
  void setQuietly(const Ptr<T>& object) { object_ = object.get(); }

 private:
  T* object_ = nullptr;
};

namespace detail {

template <class V>
inline constexpr bool isEntityHandle = false;
template <std::derived_from<Entity> T>
inline constexpr bool isEntityHandle<Ptr<T>> = !std::is_const_v<T>;

/// Sets or clears the owner of an owned entity. Other values have no owner, nor have entities that
/// are referred to as const.
template <class Tag, class V>
void adopt(const Entity& owner, const V& value) {
  if constexpr (isEntityHandle<V>) {
    if (value) value->parentIs(&owner, &Tag::kInfo);
  }
}
template <class V>
void disown(const V& value) {
  if constexpr (isEntityHandle<V>) {
    if (value) value->parentIs(nullptr, nullptr);
  }
}

/// True for handles to objects whose retire() is called when their owner releases them, even if
/// there are other handles: reactors, and entities that own reactors.
template <class V>
inline constexpr bool isRetiring = false;
template <class T>
requires std::derived_from<T, Notifiee> || requires(T& object) {
  object.retire();
}
inline constexpr bool isRetiring<Ptr<T>> = true;

/// Announces that `owner` has released `old`.
template <class Tag, class V, class... Key>
void left(const Entity& owner, const V& old, const Key&... key) {
  disown(old);
  if constexpr (isRetiring<V>) {
    // `old` may drop an object with the last handle to the owner.
    const Ptr<const Entity> alive(&owner);
    if (old) old->retire();
    owner.notify<Tag>(key...);
  } else {
    owner.notify<Tag>(key...);
  }
}

}  // namespace detail

/// One object that its entity creates and owns.
template <class Tag, class T>
class Singleton {
 public:
  using AttributeTag = Tag;
  using Element = T;

  Singleton() = default;
  Singleton(const Singleton&) = delete;
  Singleton& operator=(const Singleton&) = delete;
  ~Singleton() { drop(); }

  const Ptr<T>& get() const noexcept { return object_; }
  bool set(const Entity& owner, Ptr<T> object) {
    if (object_ == object) return false;
    const Ptr<T> old = std::exchange(object_, std::move(object));
    detail::adopt<Tag>(owner, object_);
    detail::left<Tag>(owner, old);
    return true;
  }
  /// Makes an object of `args`, and stores it in place of the present one. Returns it.
  template <class... Args>
  Ptr<T> create(const Entity& owner, const Args&... args) {
    const auto made = make<T>(args...);
    set(owner, made);
    return made;
  }
  bool del(const Entity& owner) { return set(owner, nullptr); }
  /// Drops the object without a notification.
  void drop() {
    const Ptr<T> old = std::exchange(object_, nullptr);
    detail::disown(old);
    if constexpr (detail::isRetiring<Ptr<T>>) {
      if (old) old->retire();
    }
  }

 private:
  Ptr<T> object_;
};

/// A Singleton whose object is completed at its first use.
template <class Tag, class T>
class DeferredSingleton : public Singleton<Tag, T> {
  using Base = Singleton<Tag, T>;

 public:
  /// The first get() calls `*complete`, which must stay valid until then. Null if the object is
  /// complete.
  void completeIs(const std::function<void()>* complete) noexcept { complete_ = complete; }
  const Ptr<T>& get() const {
    if (complete_ != nullptr) [[unlikely]]
      (*std::exchange(complete_, nullptr))();
    return held();
  }
  /// The object without completing it.
  const Ptr<T>& held() const noexcept { return Base::get(); }

  bool set(const Entity& owner, Ptr<T> object) { return completed().set(owner, std::move(object)); }
  template <class... Args>
  Ptr<T> create(const Entity& owner, const Args&... args) {
    return completed().create(owner, args...);
  }
  bool del(const Entity& owner) { return completed().del(owner); }

 private:
  Base& completed() {
    get();
    return *this;
  }

  mutable const std::function<void()>* complete_ = nullptr;
};

/// Entries by key: values, or entities and reactors that the collection owns.
///
/// The collection may change during an iteration; see HashMap::Iterator.
template <class Tag, class Key, class Value, class Storage = HashMap<Key, Value>>
class Collection {
 public:
  using AttributeTag = Tag;
  using Map = Storage;

  Collection() = default;
  /// A collection whose storage is a column of `rows`.
  template <class Rows>
  requires std::constructible_from<Storage, Rows&>
  explicit Collection(Rows& rows) : map_(rows) {}
  Collection(const Collection&) = delete;
  Collection& operator=(const Collection&) = delete;
  ~Collection() { disownAll(); }

  /// The entry, or an empty value. Valid until the collection changes.
  const Value& get(const Key& key) const {
    if (const Value* value = map_.find(key)) return *value;
    static const Value kNone{};
    return kNone;
  }
  bool contains(const Key& key) const { return map_.find(key) != nullptr; }
  const Map& map() const noexcept { return map_; }
  Map& map() noexcept { return map_; }
  /// The stored value, or null without an entry. In a LazyMap, the value is a null handle if the
  /// object has not been made yet.
  Value* stored(const Key& key) {
    if constexpr (requires { map_.findMade(key); }) {
      return map_.findMade(key);
    } else {
      return map_.find(key);
    }
  }

  /// Stores an entry and announces its key, if it is new or its value differs.
  bool set(const Entity& owner, const Key& key, Value value) {
    const auto [stored, added] = map_.tryEmplace(key);
    if (!added && *stored == value) return false;
    const Value old = std::exchange(*stored, std::move(value));
    detail::adopt<Tag>(owner, *stored);
    detail::left<Tag>(owner, old, key);
    return true;
  }

  /// Stores a new entry without a notification, as if it had been there before.
  void insertQuietly(const Entity& owner, const Key& key, Value value) {
    detail::adopt<Tag>(owner, *map_.tryEmplace(key).first = std::move(value));
  }

  /// Makes an object of `key`, and stores it in place of the present one. Returns it. For
  /// collections of objects that are made from their keys.
  Value create(const Entity& owner, const Key& key) {
    const auto made = make<typename Value::Element>(key);
    set(owner, key, made);
    return made;
  }

  /// Removes an entry and announces its key. The value is destroyed after the announcement.
  bool del(const Entity& owner, const Key& key) {
    Value* found = stored(key);
    if (found == nullptr) return false;
    const Key removed = key;  // NOLINT(performance-*): `key` may be the stored one
    const Value old = std::move(*found);
    map_.erase(removed);
    detail::left<Tag>(owner, old, removed);
    return true;
  }
  /// Removes the entry of `it`, which may then be advanced.
  void del(const Entity& owner, const typename Map::Iterator& it) { del(owner, it.key()); }
  /// Removes all entries and announces each. Entries that a callback adds stay.
  void delAll(const Entity& owner) {
    if (!owner.hasNotifiees()) return dropAll();
    const Ptr<const Entity> alive(&owner);  // a callback may drop the last handle
    for (const Key& key : map_.keys()) del(owner, key);
  }
  /// Drops all entries without a notification.
  void dropAll() {
    disownAll();
    map_.clear();
  }

 private:
  void disownAll() {
    if constexpr (detail::isRetiring<Value>) {
      // Destroying the objects may run code that uses this collection, so it is emptied first.
      const Map dropped = std::exchange(map_, Map());
      for (const auto& entry : dropped) {
        if (entry.value) entry.value->retire();
      }
    } else if constexpr (detail::isEntityHandle<Value>) {
      for (const auto& entry : map_) detail::disown(entry.value);
    }
  }

  Map map_;
};

/// The storage of a collection of owned objects that are made from their keys alone. An object is
/// made at its first look-up; the first iteration makes all objects.
///
/// \tparam Base  a map from keys to handles.
template <class Tag, class Base>
class LazyMap : public Base {
  using Object = typename Base::Value;

 public:
  using Base::Base;
  using typename Base::Key;

  /// Adds an entry for `key` whose object is made later. \returns true when there was no entry.
  bool reserve(const Entity& owner, const Key& key) {
    owner_ = &owner;
    const auto [object, isNew] = Base::tryEmplace(key);
    // An iteration may be under way, and may reach the entry.
    if (isNew && isWalked_) made(key, *object);
    return isNew;
  }
  /// The object of `key` if it has been made.
  const Object* findMade(const Key& key) const { return Base::find(key); }
  Object* findMade(const Key& key) { return Base::find(key); }

  const Object* find(const Key& key) const {
    const Object* object = Base::find(key);
    return object == nullptr ? nullptr : &made(key, const_cast<Object&>(*object));
  }
  auto iterator() {
    makeMissing();
    return Base::iterator();
  }
  auto iteratorConst() const {
    makeMissing();
    return Base::iteratorConst();
  }
  auto iteratorConst(const Key& key) const {
    makeMissing();
    return Base::iteratorConst(key);
  }

 private:
  Object& made(const Key& key, Object& object) const {
    if (!object) {
      object = make<typename Object::Element>(key);
      detail::adopt<Tag>(*owner_, object);
    }
    return object;
  }
  void makeMissing() const {
    if (std::exchange(isWalked_, true)) return;
    for (auto it = const_cast<LazyMap*>(this)->Base::iterator(); it; ++it)
      made(it.key(), it.value());
  }

  const Entity* owner_ = nullptr;
  mutable bool isWalked_ = false;
};

/// The storage of a collection. Some of its entries are made at the first use of any entry.
template <class Base>
class DeferredMap : public Base {
 public:
  using typename Base::Key;

  /// The first use of the entries calls `*makeAll`, which must stay valid until then. Null if all
  /// entries are there.
  void makeAllIs(const std::function<void()>* makeAll) noexcept { makeAll_ = makeAll; }
  /// The entries that have been made.
  Base& made() noexcept { return *this; }
  const Base& made() const noexcept { return *this; }
  auto* findMade(const Key& key) { return Base::find(key); }

  size_t size() const { return looked().size(); }
  auto* find(const Key& key) const { return looked().find(key); }
  auto iterator() {
    looked();
    return Base::iterator();
  }
  auto iteratorConst() const { return looked().iteratorConst(); }
  auto iteratorConst(const Key& key) const { return looked().iteratorConst(key); }
  std::vector<Key> keys() const { return looked().keys(); }

 protected:
  const Base& looked() const {
    if (makeAll_ != nullptr) [[unlikely]]
      (*std::exchange(makeAll_, nullptr))();
    return *this;
  }

 private:
  mutable const std::function<void()>* makeAll_ = nullptr;
};

/// A set of keys, with the members of a Collection.
template <class Tag, class Key, class Storage = HashMap<Key, Present>>
class KeySet {
 public:
  using AttributeTag = Tag;
  using Map = Storage;

  bool contains(const Key& key) const { return map_.contains(key); }
  const Map& map() const noexcept { return map_; }
  Map& map() noexcept { return map_; }

  /// Adds or removes `key`. Announces a change.
  bool set(const Entity& owner, const Key& key, bool present) {
    if (!present) return del(owner, key);
    if (!map_.insert(key)) return false;
    owner.notify<Tag>(key);
    return true;
  }
  bool del(const Entity& owner, const Key& key) {
    const Key removed = key;  // NOLINT(performance-*): `key` may be the stored one
    if (!map_.erase(removed)) return false;
    owner.notify<Tag>(removed);
    return true;
  }
  void del(const Entity& owner, const typename Map::Iterator& it) { del(owner, it.key()); }
  void delAll(const Entity& owner) {
    if (!owner.hasNotifiees()) return map_.clear();
    const Ptr<const Entity> alive(&owner);  // a callback may drop the last handle
    for (const Key& key : map_.keys()) del(owner, key);
  }

 private:
  Map map_;
};

}  // namespace Kiv

/// The tag of an attribute with one value; its change is reported by onAttr().
#define KIV_VALUE_TAG(id, attr, Attr)                       \
  struct Attr##Attribute {                                  \
    static_assert(::Kiv::isCapitalised(#attr, #Attr));      \
    static constexpr ::Kiv::AttributeInfo kInfo{id, #attr}; \
    static void deliver(::Kiv::Notifiee& notifiee) {        \
      static_cast<NotifieeConst&>(notifiee).on##Attr();     \
    }                                                       \
  }

/// The tag of a collection; the change of an entry is reported by onAttr(key), the announcement of
/// the whole by onAttrkivImmediate().
#define KIV_COLLECTION_TAG(id, attr, Attr, Key)                       \
  struct Attr##Attribute {                                            \
    static_assert(::Kiv::isCapitalised(#attr, #Attr));                \
    static constexpr ::Kiv::AttributeInfo kInfo{id, #attr};           \
    static void deliver(::Kiv::Notifiee& notifiee, const Key& key) {  \
      static_cast<NotifieeConst&>(notifiee).on##Attr(key);            \
    }                                                                 \
    static void deliver(::Kiv::Notifiee& notifiee) {                  \
      static_cast<NotifieeConst&>(notifiee).on##Attr##kivImmediate(); \
    }                                                                 \
  }

/// A value: attr(), attrNotify(). The class declares its setter.
#define KIV_SCALAR(id, attr, Attr, Type)        \
  KIV_VALUE_TAG(id, attr, Attr);                \
  const Type& attr() const noexcept {           \
    return attr##_.get();                       \
  }                                             \
  void attr##Notify() const {                   \
    this->template notify<Attr##Attribute>();   \
  }                                             \
                                                \
 private:                                       \
  ::Kiv::Scalar<Attr##Attribute, Type> attr##_; \
                                                \
 public:

/// A public setter for a value: adds attrIs(value).
#define KIV_SETTABLE_SCALAR(id, attr, Attr, Type) \
  KIV_SCALAR(id, attr, Attr, Type)                \
  void attr##Is(const Type& value) {              \
    attr##_.set(*this, value);                    \
  }

/// A reference to an object that another object owns: attr(), attrRaw(), attrNotify(). The class
/// declares its setter.
#define KIV_POINTER_VIEW(id, attr, Attr, Type)            \
  KIV_VALUE_TAG(id, attr, Attr);                          \
  ::Kiv::Ptr<Type> attr() const noexcept {                \
    return attr##_.get();                                 \
  }                                                       \
  void attr##Notify() const {                             \
    this->template notify<Attr##Attribute>();             \
  }                                                       \
  Type* attr##Raw() const noexcept {                      \
    return attr##_.raw();                                 \
  }                                                       \
                                                          \
 private:                                                 \
  ::Kiv::PointerAttribute<Attr##Attribute, Type> attr##_; \
                                                          \
 public:

/// A public setter for a reference: adds attrIs(object).
#define KIV_POINTER(id, attr, Attr, Type)         \
  KIV_POINTER_VIEW(id, attr, Attr, Type)          \
  void attr##Is(const ::Kiv::Ptr<Type>& object) { \
    attr##_.set(*this, object);                   \
  }

/// An owned object: attr(), attrNotify(). The class declares the members that make and remove it.
#define KIV_SINGLETON_VIEW(id, attr, Attr, Type) \
  KIV_SINGLETON_VIEW_ON(id, attr, Attr, Type, ::Kiv::Singleton)

#define KIV_SINGLETON_VIEW_ON(id, attr, Attr, Type, Storage) \
  KIV_VALUE_TAG(id, attr, Attr);                             \
  const ::Kiv::Ptr<Type>& attr() const noexcept {            \
    return attr##_.get();                                    \
  }                                                          \
  void attr##Notify() const {                                \
    this->template notify<Attr##Attribute>();                \
  }                                                          \
                                                             \
 private:                                                    \
  Storage<Attr##Attribute, Type> attr##_;                    \
                                                             \
 public:

/// An owned object: adds attrDel(). The class declares newAttr(...) or attrIs(...).
#define KIV_SINGLETON(id, attr, Attr, Type) KIV_SINGLETON_ON(id, attr, Attr, Type, ::Kiv::Singleton)

/// The same with storage of the class template `Storage`, such as Kiv::DeferredSingleton.
#define KIV_SINGLETON_ON(id, attr, Attr, Type, Storage) \
  KIV_SINGLETON_VIEW_ON(id, attr, Attr, Type, Storage)  \
  void attr##Del() {                                    \
    attr##_.del(*this);                                 \
  }

/// The common members of sets and collections: attrCount(), attrIterator(), attrIteratorConst(),
/// and attrKeys(), a snapshot. attrNotify(key) and attrNotify() announce an entry or the whole
/// without a change. The last argument is the class that stores the entries.
#define KIV_KEYED_MEMBERS(id, attr, Attr, Key, ...)           \
  KIV_COLLECTION_TAG(id, attr, Attr, Key);                    \
  using Attr##Iterator = typename __VA_ARGS__::Map::Iterator; \
  size_t attr##Count() const noexcept {                       \
    return attr##_.map().size();                              \
  }                                                           \
  auto attr##Iterator() {                                     \
    return attr##_.map().iterator();                          \
  }                                                           \
  auto attr##IteratorConst() const {                          \
    return attr##_.map().iteratorConst();                     \
  }                                                           \
  std::vector<Key> attr##Keys() const {                       \
    return attr##_.map().keys();                              \
  }                                                           \
  void attr##Notify(const Key& key) const {                   \
    this->template notify<Attr##Attribute>(key);              \
  }                                                           \
  void attr##Notify() const {                                 \
    this->template notify<Attr##Attribute>();                 \
  }                                                           \
                                                              \
 private:                                                     \
  __VA_ARGS__ attr##_;                                        \
                                                              \
 public:

/// The deletions: attrDel(key), attrDel(iterator) and attrDelAll().
#define KIV_KEYED_DELETIONS(attr, Attr, Key) \
  bool attr##Del(const Key& key) {           \
    return attr##_.del(*this, key);          \
  }                                          \
  void attr##Del(const Attr##Iterator& it) { \
    attr##_.del(*this, it);                  \
  }                                          \
  void attr##DelAll() {                      \
    attr##_.delAll(*this);                   \
  }

/// attrDel(iterator) and attrDelAll() for a class that declares its own attrDel(key). They call
/// it.
#define KIV_FURTHER_DELETIONS(attr, Attr)                \
  void attr##Del(const Attr##Iterator& it) {             \
    attr##Del(it.key());                                 \
  }                                                      \
  void attr##DelAll() {                                  \
    const ::Kiv::Ptr<const ::Kiv::Entity> alive(this);   \
    for (const auto& key : attr##Keys()) attr##Del(key); \
  }

/// A collection that is public for reading only. attr(key) returns the entry or an empty value;
/// attrFind(key) returns null if there is no entry; attrPrefetch(key) prefetches the memory that
/// these two read. A result is valid until the collection changes. The common members are there,
/// too. The class declares the members that change the collection.
#define KIV_COLLECTION_VIEW(id, attr, Attr, Key, Value)                                  \
  KIV_KEYED_MEMBERS(id, attr, Attr, Key, ::Kiv::Collection<Attr##Attribute, Key, Value>) \
  KIV_COLLECTION_READERS(attr, Key)

/// The same in a DeferredMap.
#define KIV_DEFERRED_COLLECTION_VIEW(id, attr, Attr, Key, Value)                       \
  KIV_KEYED_MEMBERS(id, attr, Attr, Key,                                               \
                    ::Kiv::Collection<Attr##Attribute, Key, Value,                     \
                                      ::Kiv::DeferredMap<::Kiv::HashMap<Key, Value>>>) \
  KIV_COLLECTION_READERS(attr, Key)

#define KIV_COLLECTION_READERS(attr, Key)     \
  decltype(auto) attr(const Key& key) const { \
    return attr##_.get(key);                  \
  }                                           \
  void attr##Prefetch(const Key& key) const { \
    attr##_.map().prefetch(key);              \
  }                                           \
  auto attr##Find(const Key& key) const {     \
    return attr##_.map().find(key);           \
  }

/// A collection: adds the deletions. The class declares its setter.
#define KIV_COLLECTION(id, attr, Attr, Key, Value) \
  KIV_COLLECTION_VIEW(id, attr, Attr, Key, Value)  \
  KIV_KEYED_DELETIONS(attr, Attr, Key)

/// For an ordered collection or set: attrKeysBetween(first, last), the keys of a range in ascending
/// order.
#define KIV_ORDERED_KEYS(attr, Key)                                             \
  std::vector<Key> attr##KeysBetween(const Key& first, const Key& last) const { \
    return attr##_.map().keysBetween(first, last);                              \
  }

/// A collection with the last argument as its storage. The storage may be a column of a Kiv::Rows
/// that the entity declares before: then the entity's constructor passes the rows to attr_.
#define KIV_COLLECTION_ON(id, attr, Attr, Key, Value, ...)                       \
  KIV_KEYED_MEMBERS(id, attr, Attr, Key,                                         \
                    ::Kiv::Collection<Attr##Attribute, Key, Value, __VA_ARGS__>) \
  KIV_COLLECTION_READERS(attr, Key)                                              \
  KIV_KEYED_DELETIONS(attr, Attr, Key)

/// A collection with attrKeysBetween().
#define KIV_ORDERED_COLLECTION(id, attr, Attr, Key, Value)                         \
  KIV_COLLECTION_ON(id, attr, Attr, Key, Value, ::Kiv::OrderedHashMap<Key, Value>) \
  KIV_ORDERED_KEYS(attr, Key)

/// A set of keys that is public for reading only: attr(key), attrPrefetchHint(), and the common
/// members.
#define KIV_SET_VIEW(id, attr, Attr, Key)                                     \
  KIV_KEYED_MEMBERS(id, attr, Attr, Key, ::Kiv::KeySet<Attr##Attribute, Key>) \
  KIV_SET_READER(attr, Key)

#define KIV_SET_READER(attr, Key)        \
  bool attr(const Key& key) const {      \
    return attr##_.contains(key);        \
  }                                      \
  auto attr##PrefetchHint() const {      \
    return attr##_.map().prefetchHint(); \
  }

/// A set of keys: adds the deletions, attrIs(key, present), and newAttr(key, present), which also
/// returns `present`.
#define KIV_SET(id, attr, Attr, Key) \
  KIV_SET_VIEW(id, attr, Attr, Key)  \
  KIV_SET_CHANGES(attr, Attr, Key)

#define KIV_SET_CHANGES(attr, Attr, Key)         \
  KIV_KEYED_DELETIONS(attr, Attr, Key)           \
  void attr##Is(const Key& key, bool present) {  \
    attr##_.set(*this, key, present);            \
  }                                              \
  bool new##Attr(const Key& key, bool present) { \
    attr##Is(key, present);                      \
    return present;                              \
  }

/// A set of keys with attrKeysBetween().
#define KIV_ORDERED_SET(id, attr, Attr, Key)                                           \
  KIV_KEYED_MEMBERS(                                                                   \
      id, attr, Attr, Key,                                                             \
      ::Kiv::KeySet<Attr##Attribute, Key, ::Kiv::OrderedHashMap<Key, ::Kiv::Present>>) \
  KIV_SET_READER(attr, Key)                                                            \
  KIV_SET_CHANGES(attr, Attr, Key)                                                     \
  KIV_ORDERED_KEYS(attr, Key)

/// A collection of objects that are made from their keys, each at its first look-up. The last
/// argument is its storage. Adds attrIs(key), which makes the entry if it is absent and returns its
/// object; newAttr(key), which replaces the object by a new one; attrReserve(key), which adds an
/// entry whose object is made later; and attrIfMade(key), which returns null if the object has not
/// been made.
#define KIV_LAZY_COLLECTION_ON(id, attr, Attr, Key, Type, ...)                          \
  KIV_COLLECTION_ON(id, attr, Attr, Key, ::Kiv::Ptr<Type>,                              \
                    ::Kiv::LazyMap<Attr##Attribute, __VA_ARGS__>)                       \
  ::Kiv::Ptr<Type> attr##Is(const Key& key) {                                           \
    if (const auto* present = attr##Find(key)) return *present;                         \
    attr##_.map().reserve(*this, key);                                                  \
    const ::Kiv::Ptr<Type> made = attr(key);                                            \
    this->template notify<Attr##Attribute>(key);                                        \
    return made;                                                                        \
  }                                                                                     \
  ::Kiv::Ptr<Type> new##Attr(const Key& key) {                                          \
    return attr##_.create(*this, key);                                                  \
  }                                                                                     \
  void attr##Reserve(const Key& key) {                                                  \
    if (attr##_.map().reserve(*this, key)) this->template notify<Attr##Attribute>(key); \
  }                                                                                     \
  ::Kiv::Ptr<Type> attr##IfMade(const Key& key) const {                                 \
    const auto* made = attr##_.map().findMade(key);                                     \
    return made == nullptr ? nullptr : *made;                                           \
  }
