#include "cli/Shell.h"

#include <algorithm>
#include <set>

#include "replay/Printable.h"
#include "replay/TextTable.h"
#include "typeinfo/HostRoute6Sm.h"
#include "typeinfo/HostRouteSm.h"

namespace Cli {
namespace {

using Kiv::AttributeDescriptor;
using Kiv::EntityDirectory;
using Kiv::GenericIf;
using Kiv::GenericValue;
using Op = GenericIf::Op;
using Place = EntityDirectory::Place;
using Replay::printable;

constexpr const char* kHelp =
    R"(ls [PATH]               what there is: entities, attributes and methods, members
get PATH                the value there, or all values of an entity or collection
set PATH VALUE          sets an attribute or a collection's entry
new PATH ARGUMENT...    makes what an attribute holds, or a member of it
del PATH                deletes what an attribute holds, a member, or all members
call PATH METHOD ARGUMENT...
                        calls a method of an entity, and prints its result
{"op": ...}             a line of a replay: what happens to the switch, or a dump
help                    this
quit                    ends the shell, as the end of the input does

A path is /ipv4/VRF/... or /ipv6/VRF/... and goes on by attributes and keys:
  get /ipv4/default/arpRoute/10.0.0.0/24
  set /ipv6/default/routeSm/initialized true
  call /ipv4/default/routeSm doFibLookup 10.0.0.0/24
  {"op": "neighbor", "intf": "Vlan10", "ip": "10.1.10.14"}
Arguments stand behind one another with blanks between them; a set is {10.0.0.5, 10.0.0.6}, and a
name with blanks in it stands in double quotes. A handle to an entity is its path, or null. What a
method requires of its arguments it requires here too: a broken invariant ends the process.
)";

constexpr std::string_view kCommands[] = {"call", "del", "get", "help", "ls", "new", "quit", "set"};

std::string_view trimmed(std::string_view text) {
  const size_t from = text.find_first_not_of(" \t\r");
  if (from == text.npos) return {};
  return text.substr(from, text.find_last_not_of(" \t\r") - from + 1);
}

/// Removes the first word from `line`, with the blanks after it, and returns it.
std::string_view takeWord(std::string_view& line) {
  const size_t end = std::min(line.find_first_of(" \t"), line.size());
  const std::string_view word = line.substr(0, end);
  line = trimmed(line.substr(end));
  return word;
}

/// Parses the values in `text`, one for each argument of `wanted`.
GenericValue readArguments(const std::vector<Kiv::ArgumentInfo>& wanted, std::string_view text) {
  Kiv::TextReader reader(text);
  std::vector<Kiv::GenericArgument> arguments;
  for (const Kiv::ArgumentInfo& argument : wanted) {
    reader.skipBlanks();
    if (reader.atEnd()) break;  // the call reports missing arguments by name
    arguments.push_back({argument.type().sequenceToValue(reader)});
  }
  reader.skipBlanks();
  if (!reader.atEnd())
    throw ShellError("too many arguments from \"" + std::string(reader.rest()) + "\" on");
  return GenericValue::list(std::move(arguments));
}

/// The place of a path to an attribute. \throws ShellError when the path leads to another place.
Place attributeAt(std::string_view path, EntityDirectory::LastKey lastKey) {
  Place place = EntityDirectory::find(path, lastKey);
  if (place.attribute == nullptr) throw ShellError(std::string(path) + " is no attribute");
  return place;
}

/// The next path segments below `path`, which is above the mounted entities.
std::set<std::string> segmentsBelow(std::string_view path) {
  std::string from(path);
  if (!from.ends_with('/')) from += '/';
  std::set<std::string> segments;
  for (const std::string& place : EntityDirectory::places()) {
    if (place.starts_with(from)) {
      segments.insert(place.substr(from.size(), place.find('/', from.size()) - from.size()));
    }
  }
  return segments;
}

/// The keys of a collection as texts, in ascending order.
std::vector<std::string> keysOf(const Place& place) {
  std::vector<std::string> texts;
  auto it = place.holder->attributeIteratorConst(place.attribute->id);
  for (; it.nonNull(); it.iterNext()) texts.push_back(it.iterKey().text());
  std::sort(texts.begin(), texts.end());
  return texts;
}

size_t countOf(const GenericIf& entity, const AttributeDescriptor& attribute) {
  size_t count = 0;
  for (auto it = entity.attributeIteratorConst(attribute.id); it.nonNull(); it.iterNext()) ++count;
  return count;
}

/// The value of an attribute, or the number of members of a collection.
std::string valueText(const GenericIf& entity, const AttributeDescriptor& attribute) {
  if (attribute.isCollection()) {
    const size_t count = countOf(entity, attribute);
    return std::to_string(count) + (count == 1 ? " member" : " members");
  }
  return entity.attributeOp({Op::kRead, attribute.id}).text();
}

std::string argumentsText(const AttributeDescriptor& attribute) {
  std::string text;
  for (const auto& argument : attribute.arguments) {
    if (!text.empty()) text += ' ';
    text += *argument.name == '\0' ? argument.shownType() : argument.name;
  }
  return text;
}

std::string typeText(const AttributeDescriptor& attribute) {
  const std::string type = attribute.shownType();
  return attribute.isCollection() ? std::string(attribute.key.shownType()) + " to " + type : type;
}

}  // namespace

Shell::Shell(const Daemon::Switch& sw, Replay::Player& player, std::ostream& os,
             const Replay::TextStyle& style)
    : sw_(sw), player_(player), os_(os), style_(style) {
  kivInitHostRouteSm();
  kivInitHostRoute6Sm();
  mountVrfs();
}

/// Mounts the roots of new VRFs.
void Shell::mountVrfs() {
  const auto mount = [this](const std::string& parent, const auto& root) {
    // The path of an entity is its percent-encoded name.
    mounts_.push_back(
        std::make_unique<EntityDirectory::Mount>(parent + root->uriPath(), GenericValue::of(root)));
  };
  for (const auto& [name, vrf] : sw_.vrfs()) {
    if (!mountedVrfs_.insert(name).second) continue;
    mount("/ipv4", vrf.routing<Daemon::Ipv4>().root);
    mount("/ipv6", vrf.routing<Daemon::Ipv6>().root);
  }
}

bool Shell::execute(std::string_view line) {
  line = trimmed(line);
  if (line.empty() || line.starts_with('#')) return true;
  if (line.starts_with('{')) {
    player_.apply(line);
    mountVrfs();
    return true;
  }
  const std::string_view command = takeWord(line);
  if (command == "quit" || command == "exit") return false;
  if (command == "help") {
    help();
    return true;
  }
  const std::string_view path = takeWord(line);
  if (command == "ls" && path.empty()) {
    list("/");
    return true;
  }
  if (std::find(std::begin(kCommands), std::end(kCommands), command) == std::end(kCommands)) {
    throw ShellError("no command " + std::string(command) + "; help lists them");
  }
  if (path.empty()) throw ShellError(std::string(command) + " needs a path");
  if (command == "set") {
    set(path, line);
  } else if (command == "new") {
    create(path, line);
  } else if (command == "call") {
    const std::string_view method = takeWord(line);
    call(path, method, line);
  } else if (!line.empty()) {
    throw ShellError(std::string(command) + " takes one path");
  } else if (command == "ls") {
    list(path);
  } else if (command == "get") {
    get(path);
  } else {
    erase(path);
  }
  return true;
}

void Shell::list(std::string_view path) {
  const Place place = EntityDirectory::find(path);
  if (place.entity != nullptr) {
    Replay::TextTable table({"NAME", "ARGUMENTS", "TYPE", "VALUE"});
    for (const AttributeDescriptor& attribute : place.entity->type().attributes()) {
      const bool isMethod = attribute.isMethod();
      table.add({attribute.name, isMethod ? '(' + argumentsText(attribute) + ')' : "",
                 typeText(attribute), isMethod ? "" : valueText(*place.entity, attribute)});
    }
    table.print(os_, style_);
  } else if (place.isWhole()) {
    for (const std::string& key : keysOf(place)) os_ << printable(key) << '\n';
  } else if (place.attribute == nullptr) {
    for (const std::string& segment : segmentsBelow(path)) os_ << printable(segment) << "/\n";
  } else {
    os_ << place.attribute->name << '\n';
  }
}

void Shell::get(std::string_view path) {
  const Place place = EntityDirectory::find(path);
  if (place.entity != nullptr) {
    Replay::TextTable table({"NAME", "VALUE"});
    for (const AttributeDescriptor& attribute : place.entity->type().attributes()) {
      if (!attribute.isMethod()) table.add({attribute.name, valueText(*place.entity, attribute)});
    }
    table.print(os_, style_);
  } else if (place.isWhole()) {
    Replay::TextTable table({"KEY", "VALUE"});
    for (const std::string& key : keysOf(place)) {
      const auto value = place.holder->attributeOp({Op::kRead, place.attribute->id}, {},
                                                   place.attribute->key.type().strepToValue(key));
      table.add({key, value.text()});
    }
    if (!table.empty()) table.print(os_, style_);
  } else if (place.attribute == nullptr) {
    throw ShellError(std::string(path) + " has no value");
  } else if (place.attribute->isMethod()) {
    throw ShellError(std::string(place.attribute->name) + " is a method: call it");
  } else {
    os_ << printable(place.value.text()) << '\n';
  }
}

void Shell::set(std::string_view path, std::string_view value) {
  const Place place = attributeAt(path, EntityDirectory::LastKey::kAny);
  const AttributeDescriptor& attribute = *place.attribute;
  if (attribute.set == nullptr) GenericIf::throwOpNotSupportedException(attribute.name, Op::kSet);
  place.holder->attributeOp({Op::kSet, attribute.id}, attribute.type().strepToValue(value),
                            place.key);
}

void Shell::create(std::string_view path, std::string_view arguments) {
  const Place place = attributeAt(path, EntityDirectory::LastKey::kOfMember);
  if (!place.key.isNone()) throw ShellError("the key of what is made is an argument");
  const auto made = place.holder->attributeOp({Op::kCreate, place.attribute->id},
                                              readArguments(place.attribute->arguments, arguments));
  if (!made.isNone()) os_ << printable(made.text()) << '\n';
}

void Shell::erase(std::string_view path) {
  const Place place = attributeAt(path, EntityDirectory::LastKey::kOfMember);
  place.holder->attributeOp({place.isWhole() ? Op::kDelAll : Op::kDel, place.attribute->id}, {},
                            place.key);
}

void Shell::call(std::string_view path, std::string_view method, std::string_view arguments) {
  const Place place = EntityDirectory::find(path);
  if (place.entity == nullptr) throw ShellError(std::string(path) + " is no entity");
  if (method.empty()) throw ShellError("call needs a method");
  const auto id = place.entity->attributeId(method);
  const AttributeDescriptor& attribute = *place.entity->type().attribute(id);
  const auto result =
      place.entity->attributeOp({Op::kCall, id}, readArguments(attribute.arguments, arguments));
  if (attribute.type != nullptr) os_ << printable(result.text()) << '\n';
}

void Shell::help() {
  os_ << kHelp;
}

namespace {

/// The paths in the directory of `word`, which is its part up to the last slash.
std::vector<std::string> pathsBelow(std::string_view word) {
  const std::string parent(word.substr(0, word.find_last_of('/') + 1));
  if (parent.empty()) return {"/"};
  std::vector<std::string> paths;
  const Place place = EntityDirectory::find(parent);
  if (place.entity != nullptr) {
    for (const auto& attribute : place.entity->type().attributes()) {
      if (!attribute.isMethod()) paths.push_back(parent + attribute.name);
    }
  } else if (place.isWhole()) {
    for (const auto& key : keysOf(place)) paths.push_back(parent + key);
  } else if (place.attribute == nullptr) {
    for (const auto& segment : segmentsBelow(parent)) paths.push_back(parent + segment);
  }
  return paths;
}

std::vector<std::string> methodsOf(std::string_view path) {
  std::vector<std::string> methods;
  const Place place = EntityDirectory::find(path);
  if (place.entity == nullptr) return {};
  for (const auto& attribute : place.entity->type().attributes()) {
    if (attribute.isMethod()) methods.emplace_back(attribute.name);
  }
  return methods;
}

}  // namespace

std::vector<std::string> Shell::completions(std::string_view line) {
  const size_t wordAt = line.find_last_of(" \t") + 1;  // 0 without a blank
  const std::string_view word = line.substr(wordAt);
  std::string_view before = trimmed(line.substr(0, wordAt));
  const std::string_view command = takeWord(before);
  std::vector<std::string> candidates;
  try {
    if (command.empty()) {
      candidates.assign(std::begin(kCommands), std::end(kCommands));
    } else if (before.empty()) {
      candidates = pathsBelow(word);
    } else if (command == "call" && before.find_first_of(" \t") == before.npos) {
      candidates = methodsOf(before);
    }
  } catch (const Kiv::Exception&) {
    // A path that does not exist has no completions.
  }
  std::erase_if(candidates, [word](const auto& text) { return !text.starts_with(word); });
  std::sort(candidates.begin(), candidates.end());
  return candidates;
}

}  // namespace Cli
