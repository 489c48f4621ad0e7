// Access to entities by the names of their attributes and methods.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/kiv/reflection/TypeInfo.h"

namespace Kiv {

/// A typed walk over one collection, behind an AttributeIterator.
class CollectionWalk {
 public:
  virtual ~CollectionWalk() = default;
  virtual bool nonNull() const = 0;
  virtual GenericValue key() const = 0;
  virtual void next() = 0;
  virtual std::unique_ptr<CollectionWalk> clone() const = 0;
};

/// Is notified of the changes of an entity. The notifications have the ids of the attributes.
class GenericObserver {
 public:
  virtual ~GenericObserver() = default;

  /// An attribute changed. `key` is the key of the entry that changed. It is none if the whole
  /// collection may have changed, or if the attribute is no collection.
  virtual void onAttribute(AttributeId id, const GenericValue& key) = 0;
  /// onAttribute() has raised; the exception is std::current_exception().
  virtual void onNotificationException(AttributeId id) noexcept = 0;
  /// The last handle to the entity was dropped. An interface has a handle to its entity, so only an
  /// adapter without an interface calls this.
  virtual void onZeroReferences() noexcept = 0;
};

/// The operations of every reflective interface, and their errors.
///
/// A refused operation raises Kiv::Exception and does not change the entity. If the typed accessor
/// refuses it, the accessor's own exception is raised.
class GenericIf {
 public:
  enum class Op { kRead, kSet, kDel, kDelAll, kCreate, kCall };
  struct AttributeOp {
    Op op;
    AttributeId id;
  };
  class AttributeIterator;

  virtual ~GenericIf() = default;

  virtual const TypeInfo& type() const = 0;
  /// True when this interface may change the entity.
  virtual bool isWritable() const = 0;
  /// A second interface to the same entity.
  virtual std::unique_ptr<GenericIf> clone() const = 0;

  /// The id of the attribute or method of this name. \throws Kiv::Exception when there is none.
  AttributeId attributeId(std::string_view name) const;
  /// The name of the attribute or method of this id. \throws Kiv::Exception when there is none.
  const char* attributeString(AttributeId id) const;

  /// Performs one operation on one attribute: reads or sets it, deletes it or an entry of it,
  /// deletes all entries, creates its object, or calls a method.
  ///
  /// \param value  the new value; or the arguments of a creation or a call. These are a list, or
  ///               the only argument.
  /// \param index  the key of the entry of a collection; none for another attribute.
  /// \returns the value that was read or made, or the method's result.
  virtual GenericValue attributeOp(AttributeOp op, const GenericValue& value = {},
                                   const GenericValue& index = {}) const = 0;

  /// Notifies `observer` of changes from now on, in place of the former observer; null for none.
  /// All collections are announced at once. Set null before the observer is destroyed, unless this
  /// interface is destroyed first.
  /// \throws Kiv::Exception if the type does not announce changes. Only the roots do.
  virtual void observerIs(GenericObserver* observer);
  /// The entity itself, for a caller that knows its type. \throws Kiv::Exception when it is
  /// another, or const.
  virtual void* voidPtrIs(const TypeInfo& type) const = 0;

  /// A walk over a collection from its beginning. A walk whose name ends in Const cannot delete
  /// members.
  virtual AttributeIterator attributeIterator(AttributeId id) const = 0;
  virtual AttributeIterator attributeIteratorConst(AttributeId id) const = 0;
  /// A walk that begins at the member with this key. \throws Kiv::Exception when there is none.
  virtual AttributeIterator attributeIteratorKeyConst(AttributeId id,
                                                      const GenericValue& key) const = 0;

  // The errors. `attribute` is the name of the attribute or method.
  [[noreturn]] static void throwConstException(const char* attribute);
  [[noreturn]] static void throwOpNotSupportedException(const char* attribute, Op op);
  [[noreturn]] static void throwBadIndexAttrException(const char* attribute,
                                                      const std::string& why);
  [[noreturn]] static void throwTypeException(const std::string& what, const std::string& wanted,
                                              const std::string& given);
  [[noreturn]] static void throwUnknownArgException(const char* method, const std::string& why);
};

/// A walk over one collection. It has a handle to the entity. It stays valid during changes of the
/// collection, as the collection's own iterators do.
class GenericIf::AttributeIterator {
 public:
  AttributeIterator(std::unique_ptr<GenericIf> of, AttributeId id,
                    std::unique_ptr<CollectionWalk> walk)
      : of_(std::move(of)), id_(id), walk_(std::move(walk)) {}

  /// True until the end of the walk. The present member may have been deleted.
  bool nonNull() const { return walk_->nonNull(); }
  /// \pre nonNull()
  GenericValue iterKey() const { return walk_->key(); }
  /// The member; for a set the value true. \throws Kiv::Exception at the end, or if it was deleted.
  GenericValue iterObj() const { return of_->attributeOp({Op::kRead, id_}, {}, keyOfMember()); }
  void iterNext() { walk_->next(); }
  AttributeIterator iterClone() const { return {of_->clone(), id_, walk_->clone()}; }
  /// Deletes the present member. The walk may then be advanced. \throws as iterObj().
  void iterDel() { of_->attributeOp({Op::kDel, id_}, {}, keyOfMember()); }

 private:
  GenericValue keyOfMember() const {
    if (!nonNull()) throwBadIndexAttrException(of_->attributeString(id_), "the walk is at its end");
    return iterKey();
  }

  std::unique_ptr<GenericIf> of_;
  AttributeId id_;
  std::unique_ptr<CollectionWalk> walk_;
};

/// The interface to an entity, implemented with the description of its type.
class GenericIfEntity : public GenericIf {
 public:
  const Ptr<const Entity>& entity() const noexcept { return entity_; }
  const TypeInfo& type() const override { return type_; }
  bool isWritable() const override { return writable_; }

  GenericValue attributeOp(AttributeOp op, const GenericValue& value = {},
                           const GenericValue& index = {}) const override;
  AttributeIterator attributeIterator(AttributeId id) const override;
  AttributeIterator attributeIteratorConst(AttributeId id) const override;
  AttributeIterator attributeIteratorKeyConst(AttributeId id,
                                              const GenericValue& key) const override;

 protected:
  /// \throws Kiv::RangeException when `entity` is null.
  GenericIfEntity(const TypeInfo& type, Ptr<const Entity> entity, bool writable);
  GenericIfEntity(const GenericIfEntity&) = default;

 private:
  static bool isSupported(const AttributeDescriptor& attribute, Op op);
  /// \throws Kiv::Exception when the operation is not possible.
  void check(const AttributeDescriptor& attribute, Op op, const GenericValue& index) const;
  GenericValue read(const AttributeDescriptor& attribute, Entity& entity,
                    const GenericValue& index) const;
  std::unique_ptr<CollectionWalk> walk(AttributeId id, const GenericValue& index) const;

  const TypeInfo& type_;
  Ptr<const Entity> entity_;
  bool writable_;
};

/// The interface to a T.
template <class T>
class GenericIfOf : public GenericIfEntity {
 public:
  using Interface = typename T::GenericIf_;

  explicit GenericIfOf(const Ptr<T>& entity, bool writable = true)
      : GenericIfEntity(T::_fwkType(), entity, writable) {}
  /// A read-only interface.
  explicit GenericIfOf(const Ptr<const T>& entity)
      : GenericIfEntity(T::_fwkType(), entity, false) {}

  std::unique_ptr<GenericIf> clone() const override {
    return std::make_unique<Interface>(static_cast<const Interface&>(*this));
  }

  void* voidPtrIs(const TypeInfo& type) const override {
    if (!(type == T::_fwkType()))
      throwTypeException("the entity", type.name(), T::_fwkType().name());
    if (!isWritable()) throwConstException(type.name());
    return const_cast<T*>(static_cast<const T*>(entity().get()));
  }

  /// Makes a T of the constructor's arguments, in their order.
  static GenericValue genericIfListConstructor(std::span<const GenericValue> arguments) {
    return T::_fwkType().construct(arguments);
  }

  /// The handle with this text; see the functions of the same names.
  static GenericValue strepToValue(std::string_view text) {
    return T::_fwkType().strepToValue(text);
  }
  static GenericValue sequenceToValue(TextReader& reader) {
    return T::_fwkType().sequenceToValue(reader);
  }
};

/// The interface to the entity that a handle refers to. It is writable only if the handle allows
/// changes, too.
/// \throws Kiv::Exception when the handle does not refer to an entity of a known type.
std::unique_ptr<GenericIf> genericIf(const GenericValue& handle, bool writable);

/// Makes the interface to a T.
template <class T>
struct EntityType {
  static std::unique_ptr<GenericIf> genericIf(const Ptr<T>& entity, bool writable) {
    return std::make_unique<typename T::GenericIf_>(entity, writable);
  }
  /// The interface to a const entity is never writable.
  static std::unique_ptr<GenericIf> genericIf(const Ptr<const T>& entity, bool /*writable*/) {
    return std::make_unique<typename T::GenericIf_>(entity);
  }
  /// The interface to the T with this text. \throws Kiv::Exception when there is none.
  static std::unique_ptr<GenericIf> genericIf(std::string_view text, bool writable) {
    return Kiv::genericIf(T::_fwkType().strepToValue(text), writable);
  }
};

}  // namespace Kiv
