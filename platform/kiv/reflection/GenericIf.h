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

/// Told of the changes of an entity by the ids of its attributes.
class GenericObserver {
 public:
  virtual ~GenericObserver() = default;

  /// An attribute changed. `key` is that of the entry; none where all of a collection may have
  /// changed, or where the attribute is no collection.
  virtual void onAttribute(AttributeId id, const GenericValue& key) = 0;
  /// onAttribute() has raised; the exception is std::current_exception().
  virtual void onNotificationException(AttributeId id) noexcept = 0;
  /// The last handle to the entity was dropped. An interface holds the entity, so this comes only
  /// through an adapter that stands by itself.
  virtual void onZeroReferences() noexcept = 0;
};

/// The operations of every reflective interface, and their errors.
///
/// A refused operation raises Kiv::Exception and leaves the entity as it was. What the typed
/// accessor itself refuses is raised as that does.
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
  /// True when it may change the entity.
  virtual bool isWritable() const = 0;
  /// A second interface to the same entity.
  virtual std::unique_ptr<GenericIf> clone() const = 0;

  /// The id of the attribute or method of this name. \throws Kiv::Exception when there is none.
  AttributeId attributeId(std::string_view name) const;
  /// The name of the attribute or method of this id. \throws Kiv::Exception when there is none.
  const char* attributeString(AttributeId id) const;

  /// Does one operation on one attribute: reads or sets it, deletes it (of a collection, an entry)
  /// or all entries, makes what it holds, or calls a method.
  ///
  /// \param value  the new value; or the arguments of a creation or call, as a list or the only
  /// one. \param index  the key of a collection's entry; none for another attribute. \returns the
  /// value that was read or made, or the method's result.
  virtual GenericValue attributeOp(AttributeOp op, const GenericValue& value = {},
                                   const GenericValue& index = {}) const = 0;

  /// Tells `observer` of changes from now on, in place of another; null: nobody. It is told of all
  /// collections at once, and must outlive this interface or be taken back.
  /// \throws Kiv::Exception where a type tells of no changes, as all but the roots.
  virtual void observerIs(GenericObserver* observer);
  /// The entity itself, for a caller that knows its type. \throws Kiv::Exception when it is
  /// another, or const.
  virtual void* voidPtrIs(const TypeInfo& type) const = 0;

  /// A walk over a collection from its beginning. The Const ones delete no members.
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

/// A walk over one collection. It keeps the entity, and outlives changes of the collection as the
/// collection's own iterators do.
class GenericIf::AttributeIterator {
 public:
  AttributeIterator(std::unique_ptr<GenericIf> of, AttributeId id,
                    std::unique_ptr<CollectionWalk> walk)
      : of_(std::move(of)), id_(id), walk_(std::move(walk)) {}

  /// True while it stands on a member, also one that has been deleted since.
  bool nonNull() const { return walk_->nonNull(); }
  /// \pre nonNull()
  GenericValue iterKey() const { return walk_->key(); }
  /// The member; true for one of a set. \throws Kiv::Exception at the end, or when it was deleted.
  GenericValue iterObj() const { return of_->attributeOp({Op::kRead, id_}, {}, keyOfMember()); }
  void iterNext() { walk_->next(); }
  AttributeIterator iterClone() const { return {of_->clone(), id_, walk_->clone()}; }
  /// Deletes the member on which it stands; then it may be advanced. \throws as iterObj().
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

/// The interface to an entity, by the table of its type.
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
  /// Refuses everything that would change the entity.
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

  /// The handle that a text stands for; see the functions of the same names.
  static GenericValue strepToValue(std::string_view text) {
    return T::_fwkType().strepToValue(text);
  }
  static GenericValue sequenceToValue(TextReader& reader) {
    return T::_fwkType().sequenceToValue(reader);
  }
};

/// The interface to the entity that a handle refers to; writable only if the handle is so too.
/// \throws Kiv::Exception when it refers to no entity whose type is known.
std::unique_ptr<GenericIf> genericIf(const GenericValue& handle, bool writable);

/// Makes the interface to a T.
template <class T>
struct EntityType {
  static std::unique_ptr<GenericIf> genericIf(const Ptr<T>& entity, bool writable) {
    return std::make_unique<typename T::GenericIf_>(entity, writable);
  }
  /// To a const entity, which is never writable.
  static std::unique_ptr<GenericIf> genericIf(const Ptr<const T>& entity, bool /*writable*/) {
    return std::make_unique<typename T::GenericIf_>(entity);
  }
  /// To the T that `text` stands for. \throws Kiv::Exception when it stands for none.
  static std::unique_ptr<GenericIf> genericIf(std::string_view text, bool writable) {
    return Kiv::genericIf(T::_fwkType().strepToValue(text), writable);
  }
};

}  // namespace Kiv
