#include "platform/kiv/reflection/TypeInfo.h"

#include <algorithm>

#include "platform/kiv/containers/Exception.h"
#include "platform/kiv/reflection/EntityDirectory.h"

namespace Kiv {

namespace {

std::vector<const TypeInfo*>& registered() {
  static std::vector<const TypeInfo*> types;
  return types;
}

const char* shownName(const char* typeName, TypeRef type) {
  if (typeName != nullptr) return typeName;
  return type == nullptr ? "void" : type().name();
}

}  // namespace

const char* ArgumentInfo::shownType() const {
  return shownName(typeName, type);
}

const char* AttributeDescriptor::shownType() const {
  return shownName(typeName, type);
}

const AttributeDescriptor* TypeInfo::attribute(std::string_view name) const noexcept {
  const auto at = std::find_if(attributes_.begin(), attributes_.end(),
                               [name](const auto& attribute) { return name == attribute.name; });
  return at == attributes_.end() ? nullptr : &*at;
}

const AttributeDescriptor* TypeInfo::attribute(AttributeId id) const noexcept {
  // The ids count up from the first one.
  const size_t at = size_t{id} - kFirstAttributeId;
  return at < attributes_.size() ? &attributes_[at] : nullptr;
}

GenericValue TypeInfo::construct(std::span<const GenericValue> arguments) const {
  if (operations_.construct == nullptr) throw Exception(std::string(name_) + " has no constructor");
  return operations_.construct(arguments);
}

GenericValue TypeInfo::sequenceToValue(TextReader& reader) const {
  const long long column = reader.column();
  const bool isHandle = operations_.entity != nullptr;
  if (isHandle && reader.rest().starts_with('/')) {
    GenericValue handle = EntityDirectory::find(reader.path()).value;
    if (handle.isNone() || handle.typeName() != name_) detail::refuseText(column, name_);
    return handle;
  }
  if (isHandle && reader.take("null")) return {};
  if (operations_.read != nullptr) {
    if (auto value = operations_.read(reader)) return *value;
  }
  detail::refuseText(column, name_);
}

GenericValue TypeInfo::strepToValue(std::string_view text) const {
  TextReader reader(text);
  GenericValue value = sequenceToValue(reader);
  if (!reader.atEnd()) detail::refuseJunk(reader.column(), name_);
  return value;
}

TypeRegistry::Entry::Entry(const TypeInfo& type) : type_(&type) {
  if (find(type.name()) == nullptr) registered().push_back(&type);
}

TypeRegistry::Entry::~Entry() {
  std::erase(registered(), type_);
}

const TypeInfo* TypeRegistry::find(std::string_view name) {
  for (const TypeInfo* type : registered()) {
    if (name == type->name()) return type;
  }
  return nullptr;
}

std::vector<const TypeInfo*> TypeRegistry::all() {
  return registered();
}

GenericValue GenericValue::list(std::vector<GenericArgument> arguments) {
  GenericValue value;
  value.value_ = std::move(arguments);
  return value;
}

std::string GenericValue::typeName() const {
  if (isNone()) return "none";
  return arguments() != nullptr ? "list" : type_->name();
}

std::string GenericValue::text() const {
  if (isNone()) return "null";
  if (const auto* list = arguments()) {
    std::string text;
    for (const GenericArgument& argument : *list) {
      if (!text.empty()) text += ' ';
      if (!argument.name.empty()) text += argument.name + '=';
      text += argument.value.text();
    }
    return text;
  }
  const auto& operations = type_->operations();
  if (operations.print != nullptr) return operations.print(*this);
  const Entity* entity = operations.entity(*this);
  if (entity == nullptr) return std::string("<") + type_->name() + '>';
  if (const auto path = EntityDirectory::pathOf(*entity)) return *path;
  return std::string("<") + type_->name() + ' ' + valueToStrep(entity->name()) + '>';
}

}  // namespace Kiv
