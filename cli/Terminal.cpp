#include "cli/Terminal.h"

#include "replay/Printable.h"

namespace Cli {

std::string shownText(const Json& object, const char* member) {
  const auto& value = object.at(member);
  return Replay::printable(value.is_string() ? value.get<std::string>() : value.dump());
}

std::string shownJson(const Json& object, int indent) {
  // A terminal would interpret some characters that are not escaped in JSON.
  return object.dump(indent, ' ', isTerminal(STDOUT_FILENO), Json::error_handler_t::replace);
}

}  // namespace Cli
