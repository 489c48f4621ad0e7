#include "platform/kiv/reflection/GenericIf.h"

#include "platform/kiv/containers/Exception.h"

namespace Kiv {

namespace {

const char* opName(GenericIf::Op op) {
  switch (op) {
    case GenericIf::Op::kRead:
      return "reading";
    case GenericIf::Op::kSet:
      return "setting";
    case GenericIf::Op::kDel:
      return "deletion";
    case GenericIf::Op::kDelAll:
      return "deletion of all";
    case GenericIf::Op::kCreate:
      return "creation";
    case GenericIf::Op::kCall:
      return "calling";
  }
  return "that";
}

const AttributeDescriptor& attributeOf(const TypeInfo& type, AttributeId id) {
  const auto* attribute = type.attribute(id);
  if (attribute == nullptr) {
    throw Exception(std::string(type.name()) + " has no attribute " + std::to_string(id));
  }
  return *attribute;
}

/// The arguments in the order in which `attribute` takes them.
std::vector<GenericValue> arrange(const AttributeDescriptor& attribute, const GenericValue& value) {
  const auto& wanted = attribute.arguments;
  if (value.arguments() == nullptr) {
    if (value.isNone() && wanted.empty()) return {};
    if (wanted.size() == 1) return {value};
    std::vector<GenericArgument> only;
    if (!value.isNone()) only.push_back({value});
    return arrange(attribute, GenericValue::list(std::move(only)));
  }
  std::vector<GenericValue> arranged(wanted.size());
  std::vector<bool> isGiven(wanted.size());
  size_t next = 0;
  for (const GenericArgument& argument : *value.arguments()) {
    size_t at = next;
    if (argument.name.empty()) {
      ++next;
    } else {
      for (at = 0; at < wanted.size() && wanted[at].name != argument.name;) ++at;
    }
    if (at >= wanted.size()) {
      GenericIf::throwUnknownArgException(
          attribute.name, argument.name.empty()
                              ? "takes " + std::to_string(wanted.size()) + " arguments"
                              : "takes no argument " + argument.name);
    }
    if (isGiven[at]) {
      GenericIf::throwUnknownArgException(attribute.name,
                                          std::string("is given twice its ") + wanted[at].name);
    }
    arranged[at] = argument.value;
    isGiven[at] = true;
  }
  for (size_t at = 0; at < wanted.size(); ++at) {
    if (isGiven[at]) continue;
    GenericIf::throwUnknownArgException(
        attribute.name,
        std::string("lacks its argument ") + wanted[at].name + " (" + wanted[at].shownType() + ")");
  }
  return arranged;
}

}  // namespace

AttributeId GenericIf::attributeId(std::string_view name) const {
  if (const auto* attribute = type().attribute(name)) return attribute->id;
  throw Exception(std::string(type().name()) + " has no attribute " + std::string(name));
}

const char* GenericIf::attributeString(AttributeId id) const {
  return attributeOf(type(), id).name;
}

void GenericIf::observerIs(GenericObserver*) {
  throw Exception(std::string(type().name()) + " tells of no changes");
}

void GenericIf::throwConstException(const char* attribute) {
  throw Exception(std::string(attribute) + ": the interface is to a const entity");
}

void GenericIf::throwOpNotSupportedException(const char* attribute, Op op) {
  throw Exception(std::string(attribute) + ": " + opName(op) + " is not supported");
}

void GenericIf::throwBadIndexAttrException(const char* attribute, const std::string& why) {
  throw Exception(std::string(attribute) + ": " + why);
}

void GenericIf::throwTypeException(const std::string& what, const std::string& wanted,
                                   const std::string& given) {
  throw Exception(what + ": a " + wanted + " is wanted, not " + given);
}

void GenericIf::throwUnknownArgException(const char* method, const std::string& why) {
  throw Exception(std::string(method) + " " + why);
}

GenericIfEntity::GenericIfEntity(const TypeInfo& type, Ptr<const Entity> entity, bool writable)
    : type_(type), entity_(std::move(entity)), writable_(writable) {
  KIV_REQUIRE(entity_, std::string("null ") + type.name() + " has no interface");
}

bool GenericIfEntity::isSupported(const AttributeDescriptor& attribute, Op op) {
  switch (op) {
    case Op::kRead:
      return attribute.read != nullptr;
    case Op::kSet:
      return attribute.set != nullptr;
    case Op::kDel:
      return attribute.del != nullptr;
    case Op::kDelAll:
      return attribute.delAll != nullptr;
    case Op::kCreate:
      return attribute.create != nullptr;
    case Op::kCall:
      return attribute.call != nullptr;
  }
  return false;
}

void GenericIfEntity::check(const AttributeDescriptor& attribute, Op op,
                            const GenericValue& index) const {
  if (!isSupported(attribute, op)) throwOpNotSupportedException(attribute.name, op);
  const bool changes = op != Op::kRead && !attribute.isConst;
  if (changes && !writable_) throwConstException(attribute.name);
  const bool takesIndex =
      attribute.isCollection() && (op == Op::kRead || op == Op::kSet || op == Op::kDel);
  if (!takesIndex && !index.isNone()) {
    throwBadIndexAttrException(attribute.name, "takes no index here");
  }
}

GenericValue GenericIfEntity::read(const AttributeDescriptor& attribute, Entity& entity,
                                   const GenericValue& index) const {
  GenericValue result = attribute.read(attribute, entity, index);
  // Nothing that a const entity refers to may be changed through it.
  if (writable_ || result.isNone() || !result.type().operations().constHandle) return result;
  return result.type().operations().constHandle(result);
}

GenericValue GenericIfEntity::attributeOp(AttributeOp op, const GenericValue& value,
                                          const GenericValue& index) const {
  const AttributeDescriptor& attribute = attributeOf(type_, op.id);
  check(attribute, op.op, index);
  auto& entity = const_cast<Entity&>(*entity_);
  switch (op.op) {
    case Op::kRead:
      return read(attribute, entity, index);
    case Op::kSet:
      attribute.set(attribute, entity, value, index);
      return {};
    case Op::kDel:
      attribute.del(attribute, entity, index);
      return {};
    case Op::kDelAll:
      attribute.delAll(attribute, entity);
      return {};
    case Op::kCreate:
      return attribute.create(attribute, entity, arrange(attribute, value));
    case Op::kCall:
      return attribute.call(attribute, entity, arrange(attribute, value));
  }
  return {};
}

std::unique_ptr<CollectionWalk> GenericIfEntity::walk(AttributeId id,
                                                      const GenericValue& index) const {
  const AttributeDescriptor& attribute = attributeOf(type_, id);
  if (attribute.iterate == nullptr) {
    throwBadIndexAttrException(attribute.name, "is no collection");
  }
  return attribute.iterate(attribute, *entity_, index);
}

GenericIf::AttributeIterator GenericIfEntity::attributeIterator(AttributeId id) const {
  return {clone(), id, walk(id, {})};
}

GenericIf::AttributeIterator GenericIfEntity::attributeIteratorConst(AttributeId id) const {
  return {type_.operations().wrap(entity_, false), id, walk(id, {})};
}

GenericIf::AttributeIterator GenericIfEntity::attributeIteratorKeyConst(
    AttributeId id, const GenericValue& key) const {
  const AttributeDescriptor& attribute = attributeOf(type_, id);
  if (attribute.isCollection() && key.isNone()) {
    throwBadIndexAttrException(attribute.name, "needs an index");
  }
  return {type_.operations().wrap(entity_, false), id, walk(id, key)};
}

std::unique_ptr<GenericIf> genericIf(const GenericValue& handle, bool writable) {
  if (handle.isNone() || handle.arguments() != nullptr || !handle.type().isReflected()) {
    GenericIf::throwTypeException("the handle", "handle to an entity", handle.typeName());
  }
  const auto& operations = handle.type().operations();
  return operations.wrap(Ptr<const Entity>(operations.entity(handle)),
                         writable && !operations.isConst(handle));
}

}  // namespace Kiv
